// fault_util.h -- steady load for the fault tests: a thread that offers
// well-formed requests from many initiators (a UDP socket and a My
// Discriminator each) at a paced rate from the initiator namespace, while
// the test thread does harm to the daemon, and that checks every reply.
//
// Each request carries its sequence number in Desired Min TX Interval,
// which the reflector echoes, so every reply names its request. A reply is
// right when it has our discriminators swapped, state Up, D clear, Required
// Min Echo RX 0, the expected Required Min RX, and answers a request of its
// own session not answered before.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "netns.h"
#include "reflector.h"
#include "sbfd_probe.h"
#include "unique_fd.h"

namespace fault {

struct load_result {
	std::uint64_t sent = 0;       // requests the kernel took
	std::uint64_t answered = 0;   // right replies, each to a distinct request
	std::uint64_t wrong = 0;      // replies failing a check above
	std::uint64_t duplicate = 0;  // second reply to one request
};

struct load_spec {
	std::string ns;                    // initiator namespace
	std::uint32_t src_h = 0;           // our address, host order
	std::uint32_t dst_h = 0;           // the daemon's address, host order
	std::uint32_t your_disc = 0;       // the daemon's discriminator
	std::uint32_t min_rx = 0;          // the daemon's Required Min RX, us
	std::uint32_t sessions = 64;
	std::uint32_t first_disc = 5000;   // My Discriminator of session 0
	std::uint32_t rate = 2000;         // requests per second
	std::chrono::milliseconds duration{2000};
	std::chrono::milliseconds drain{500};  // wait for replies after the last request
};

// Runs the load on a thread of its own from construction until join().
class load {
public:
	explicit load(const load_spec &s) : spec_(s)
	{
		for (std::uint32_t i = 0; i < s.sessions; i++) {
			unique_fd fd{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, s.ns.c_str())};
			sockaddr_in a{};
			a.sin_family = AF_INET;
			a.sin_addr.s_addr = htonl(s.src_h);
			sockaddr_in d{};
			d.sin_family = AF_INET;
			d.sin_port = htons(SBFD_PORT);
			d.sin_addr.s_addr = htonl(s.dst_h);
			if (fd.get() < 0 || bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
			    connect(fd.get(), reinterpret_cast<sockaddr *>(&d), sizeof d) != 0)
				return;
			socks_.push_back(std::move(fd));
		}
		ok_ = true;
		answered_.assign(static_cast<std::size_t>(s.rate) * static_cast<std::size_t>(s.duration.count()) / 1000 + 1, 0);
		thread_ = std::thread([this] { run(); });
	}
	~load()
	{
		if (thread_.joinable())
			thread_.join();
	}
	load(const load &) = delete;
	load &operator=(const load &) = delete;

	bool ok() const { return ok_; }
	load_result join()
	{
		if (thread_.joinable())
			thread_.join();
		return res_;
	}

private:
	void run()
	{
		using clock = std::chrono::steady_clock;
		const std::uint64_t total = answered_.size() - 1;
		const auto start = clock::now();
		const auto period = std::chrono::nanoseconds(1000000000ull / spec_.rate);
		std::vector<pollfd> pfds;
		for (auto &s : socks_)
			pfds.push_back({s.get(), POLLIN, 0});
		std::uint64_t seq = 0;
		for (;;) {
			const auto now = clock::now();
			while (seq < total && start + period * static_cast<long>(seq) <= now)
				send_one(seq++);
			if (seq == total && (res_.answered + res_.wrong >= res_.sent ||
					     now > start + period * static_cast<long>(total) + spec_.drain))
				return;
			if (poll(pfds.data(), pfds.size(), 1) > 0)
				for (std::size_t i = 0; i < pfds.size(); i++)
					if (pfds[i].revents & POLLIN)
						drain(static_cast<std::uint32_t>(i));
		}
	}

	void send_one(std::uint64_t seq)
	{
		const std::uint32_t i = static_cast<std::uint32_t>(seq % socks_.size());
		probe_params p;
		p.my_disc = spec_.first_disc + i;
		p.your_disc = spec_.your_disc;
		p.state = BFD_STATE_UP;
		p.min_tx_us = static_cast<std::uint32_t>(seq);
		std::uint8_t b[BFD_PKT_LEN];
		probe_encode_request(p, b);
		if (send(socks_[i].get(), b, sizeof b, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof b))
			res_.sent++;
	}

	void drain(std::uint32_t i)
	{
		std::uint8_t b[64];
		for (;;) {
			const ssize_t n = recv(socks_[i].get(), b, sizeof b, MSG_DONTWAIT);
			if (n < 0)
				return;
			bfd_ctrl_pkt pkt;
			if (n != static_cast<ssize_t>(BFD_PKT_LEN) || !probe_decode({b, BFD_PKT_LEN}, &pkt)) {
				res_.wrong++;
				continue;
			}
			const std::uint64_t seq = ntohl(pkt.min_tx_interval);
			const bool right = ntohl(pkt.my_disc) == spec_.your_disc &&
					   ntohl(pkt.your_disc) == spec_.first_disc + i &&
					   bfd_state_of(pkt) == BFD_STATE_UP && (pkt.flags & BFD_FLAG_D) == 0 &&
					   pkt.min_echo_rx_interval == 0 && ntohl(pkt.min_rx_interval) == spec_.min_rx &&
					   seq + 1 < answered_.size() && seq % socks_.size() == i;
			if (!right)
				res_.wrong++;
			else if (answered_[seq]++)
				res_.duplicate++;
			else
				res_.answered++;
		}
	}

	load_spec spec_;
	bool ok_ = false;
	std::vector<unique_fd> socks_;
	std::vector<std::uint8_t> answered_;  // per sequence number; one extra entry
	load_result res_;
	std::thread thread_;
};

}  // namespace fault
