// e2eutil.h -- the end-to-end bench of the reflector: two network namespaces
// joined by a veth pair, the daemon started in one as a user starts it
// (`ip netns exec NS orvalindwarden -d D -p ADDR -r MINRX`, with its own
// BREVLOG_DIR and NSPATH, so its own trace and store), an initiator in the
// other that sends requests (UDP, or crafted frames on a packet socket) and
// captures what comes back, and a steady load of checked requests for the
// fault tests.
//
//   daemon namespace  "orvd-<pid>[-n]"  vd0 192.0.2.1/24  <-- veth -->  vi0 192.0.2.2/24
//   initiator namespace "orvi-<pid>[-n]"
//
// Everything is owned RAII-style (testutil.h), also when a test fails.
#pragma once

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "netns.h"
#include "reflector.h"
#include "sbfd_probe.h"
#include "shmstat.h"
#include "testutil.h"
#include "unique_fd.h"

namespace e2e {

using testutil::bin;

constexpr const char *DAEMON_IP = "192.0.2.1";
constexpr const char *INITIATOR_IP = "192.0.2.2";
constexpr std::uint32_t DAEMON_IP_H = 0xc0000201;     // 192.0.2.1
constexpr std::uint32_t INITIATOR_IP_H = 0xc0000202;  // 192.0.2.2

// True once process `pid` has bound its netlink control port (protocol 2,
// NETLINK_USERSOCK, port = pid): the daemon's last step of start-up.
inline bool netlink_bound(pid_t pid)
{
	std::istringstream in(testutil::read_file("/proc/" + std::to_string(pid) + "/net/netlink"));
	for (std::string line; std::getline(in, line);) {
		std::string sk;
		long proto = -1, port = -1;
		std::istringstream(line) >> sk >> proto >> port;
		if (proto == 2 && port == pid)
			return true;
	}
	return false;
}

// The two namespaces, the veth pair, and the daemon.
class bench {
public:
	bench()
	{
		const std::string d = "ip -n " + ns_d_ + " ", i = "ip -n " + ns_i_ + " ";
		ok_ = testutil::run("ip netns add " + ns_d_) == 0 && testutil::run("ip netns add " + ns_i_) == 0 &&
		      testutil::run(d + "link add vd0 type veth peer name vi0 netns " + ns_i_) == 0 &&
		      testutil::run(d + "addr add " + DAEMON_IP + "/24 dev vd0") == 0 &&
		      testutil::run(i + "addr add " + INITIATOR_IP + "/24 dev vi0") == 0 &&
		      testutil::run(d + "link set vd0 up") == 0 && testutil::run(i + "link set vi0 up") == 0 &&
		      testutil::run(d + "link set lo up") == 0 && testutil::run(i + "link set lo up") == 0 && logs_.ok();
	}
	~bench()
	{
		daemon_.reset();  // killed before its namespace goes
		testutil::run("ip netns del " + ns_d_);
		testutil::run("ip netns del " + ns_i_);
		shm_unlink(shm_name().c_str());
	}
	bench(const bench &) = delete;
	bench &operator=(const bench &) = delete;

	// Everything but the daemon is in place.
	bool ok() const { return ok_; }
	const std::string &ns_d() const { return ns_d_; }
	const std::string &ns_i() const { return ns_i_; }
	std::string nspath() const { return "/" + tag_; }
	pid_t daemon_pid() const { return daemon_ ? daemon_->pid() : -1; }
	testutil::child_process &daemon() { return *daemon_; }
	std::string shm_name() const { return "orvalindwarden-" + tag_; }
	std::string shm_path() const { return "/dev/shm/" + shm_name(); }
	std::string trace_path() const { return logs_.file("orvalindwarden.bl"); }

	// Starts the daemon with `args` (replacing one started before) and
	// waits, bounded, until its netlink port, the last of its sockets, is
	// bound. False when it ended instead.
	bool spawn(const std::vector<std::string> &args)
	{
		std::vector<std::string> argv = {"ip", "netns", "exec", ns_d_, bin("orvalindwarden")};
		argv.insert(argv.end(), args.begin(), args.end());
		daemon_.reset();
		daemon_.emplace(argv, std::vector<std::string>{"BREVLOG_DIR=" + logs_.path(), "NSPATH=" + nspath()});
		const pid_t pid = daemon_->pid();
		testutil::wait_until([&] { return !daemon_->running() || netlink_bound(pid); }, std::chrono::seconds(10));
		return daemon_->running() && netlink_bound(pid);
	}
	bool start(std::uint32_t disc, std::uint32_t min_rx, const std::vector<std::string> &extra = {})
	{
		std::vector<std::string> args = {"-d", std::to_string(disc), "-p", DAEMON_IP, "-r", std::to_string(min_rx)};
		args.insert(args.end(), extra.begin(), extra.end());
		return spawn(args);
	}

	// The daemon's trace as blcat renders it (`suffix` ".1": the previous run's).
	std::string trace(const std::string &suffix = "") const
	{
		return testutil::output_of(bin("blcat") + " " + trace_path() + suffix);
	}

private:
	std::string tag_ = testutil::unique_name("e2e");
	std::string ns_d_ = "orvd-" + tag_.substr(4), ns_i_ = "orvi-" + tag_.substr(4);
	testutil::temp_dir logs_{"orvlogs"};
	bool ok_ = false;
	std::optional<testutil::child_process> daemon_;
};

// A captured reply, parsed.
struct reply {
	std::vector<std::uint8_t> frame;
	frame_view v;
	bfd_ctrl_pkt pkt{};
};

// The initiator's sockets in its namespace: a UDP socket on 192.0.2.2 (an
// ephemeral port, where replies land) and a packet socket bound to vi0 that
// captures every frame there and sends crafted ones (to the broadcast MAC
// address: the daemon's packet sockets take any).
class initiator {
public:
	explicit initiator(const bench &b)
		: udp_(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, b.ns_i().c_str())),
		  raw_(netnsSocketAt(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL), b.ns_i().c_str()))
	{
		sockaddr_in a{AF_INET, 0, {htonl(INITIATOR_IP_H)}, {}};
		socklen_t len = sizeof a;
		sockaddr_ll ll{};
		ll.sll_family = AF_PACKET;
		ll.sll_protocol = htons(ETH_P_ALL);
		ll.sll_ifindex = std::atoi(testutil::output_of("ip -n " + b.ns_i() + " -o link show dev vi0").c_str());
		timeval tv{0, 20000};
		ok_ = udp_.get() >= 0 && raw_.get() >= 0 && bind(udp_.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
		      getsockname(udp_.get(), reinterpret_cast<sockaddr *>(&a), &len) == 0 &&
		      bind(raw_.get(), reinterpret_cast<sockaddr *>(&ll), sizeof ll) == 0 &&
		      setsockopt(raw_.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
		port_ = ntohs(a.sin_port);
	}

	bool ok() const { return ok_; }
	std::uint16_t port() const { return port_; }

	// A request to the daemon's port 7784 through the UDP socket.
	bool send_udp(const probe_params &p)
	{
		std::uint8_t b[BFD_PKT_LEN];
		probe_encode_request(p, b);
		const sockaddr_in d{AF_INET, htons(SBFD_PORT), {htonl(DAEMON_IP_H)}, {}};
		return sendto(udp_.get(), b, sizeof b, 0, reinterpret_cast<const sockaddr *>(&d), sizeof d) == sizeof b;
	}

	// A frame shape addressed from vi0 to vd0, from our UDP port to 7784.
	frame_spec shape() const
	{
		frame_spec s;
		std::memset(s.dst_mac, 0xff, 6);
		s.src_ip = INITIATOR_IP_H;
		s.dst_ip = DAEMON_IP_H;
		s.src_port = port_;
		return s;
	}
	bool send_frame(const std::vector<std::uint8_t> &f)
	{
		return send(raw_.get(), f.data(), f.size(), 0) == static_cast<ssize_t>(f.size());
	}

	// The next incoming UDP frame from port 7784 (a reply) within `timeout`;
	// with `outgoing`, the next frame this namespace sent instead.
	std::optional<reply> capture(std::chrono::milliseconds timeout = std::chrono::seconds(3), bool outgoing = false)
	{
		const auto end = std::chrono::steady_clock::now() + timeout;
		while (std::chrono::steady_clock::now() < end) {
			reply r;
			r.frame.resize(2048);
			sockaddr_ll from{};
			socklen_t fl = sizeof from;
			const ssize_t n = recvfrom(raw_.get(), r.frame.data(), r.frame.size(), 0, reinterpret_cast<sockaddr *>(&from), &fl);
			if (n < 0)
				continue;
			r.frame.resize(static_cast<std::size_t>(n));
			if ((from.sll_pkttype == PACKET_OUTGOING) == outgoing && probe_frame_parse(r.frame, &r.v) &&
			    (outgoing || r.v.src_port == SBFD_PORT)) {
				probe_decode(r.v.payload, &r.pkt);
				return r;
			}
		}
		return std::nullopt;
	}

private:
	unique_fd udp_, raw_;
	std::uint16_t port_ = 0;
	bool ok_ = false;
};

// Fixture of the namespace tests: skips without root, builds the bench;
// each test starts the daemon itself with its own values.
class E2eTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (geteuid() != 0 || testutil::run("command -v ip") != 0)
			GTEST_SKIP() << "needs root (network namespaces) and the ip command";
		b.emplace();
		ASSERT_TRUE(b->ok()) << "namespaces and veth pair";
	}
	// Starts the daemon and the initiator; fails the test when either is not ready.
	void start(std::uint32_t disc, std::uint32_t min_rx, const std::vector<std::string> &extra = {})
	{
		ASSERT_TRUE(b->start(disc, min_rx, extra)) << "daemon not ready: " << b->daemon().out() << b->daemon().err();
		ini.emplace(*b);
		ASSERT_TRUE(ini->ok()) << "initiator sockets";
	}
	// A copy of the daemon's store, read as orvalindwarden-stat reads it.
	reflector_shm store()
	{
		auto snap = std::make_unique<shmstat_snapshot>();
		std::string err;
		EXPECT_EQ(shmstat_read(b->shm_name(), snap.get(), &err), SHMSTAT_OK) << err;
		return snap->store;
	}
	// The reply to a request from `my_disc` to `your_disc`, if any.
	std::optional<reply> ask(std::uint32_t my_disc, std::uint32_t your_disc,
				 std::chrono::milliseconds timeout = std::chrono::seconds(3))
	{
		probe_params p;
		p.my_disc = my_disc;
		p.your_disc = your_disc;
		EXPECT_TRUE(ini->send_udp(p));
		return ini->capture(timeout);
	}

	std::optional<bench> b;
	std::optional<initiator> ini;
};

// Steady load for the fault tests: a thread that offers well-formed
// requests from `sessions` initiators (My Discriminator 5000 + i, one UDP
// socket) at `rate` per second for `duration` from the initiator namespace,
// while the test thread does harm to the daemon, and that checks every
// reply. Each request carries its sequence number in Desired Min TX
// Interval, which the reflector echoes, so every reply names its request. A
// reply is right when it has the discriminators swapped, state Up, D clear,
// Required Min Echo RX 0 and the daemon's Required Min RX.
class load {
public:
	struct result {
		std::uint64_t sent = 0;       // requests the kernel took
		std::uint64_t answered = 0;   // right replies, each to a distinct request
		std::uint64_t wrong = 0;      // replies failing a check above
		std::uint64_t duplicate = 0;  // second reply to one request
	};

	load(const bench &b, std::uint32_t your_disc, std::uint32_t min_rx, std::uint32_t rate,
	     std::chrono::milliseconds duration, std::uint32_t sessions)
		: your_disc_(your_disc), min_rx_(min_rx), sessions_(sessions),
		  period_(std::chrono::nanoseconds(1000000000ull / rate)),
		  answered_(rate * static_cast<std::size_t>(duration.count()) / 1000, 0),
		  sock_(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, b.ns_i().c_str()))
	{
		const sockaddr_in a{AF_INET, 0, {htonl(INITIATOR_IP_H)}, {}}, d{AF_INET, htons(SBFD_PORT), {htonl(DAEMON_IP_H)}, {}};
		ok_ = sock_.get() >= 0 && bind(sock_.get(), reinterpret_cast<const sockaddr *>(&a), sizeof a) == 0 &&
		      connect(sock_.get(), reinterpret_cast<const sockaddr *>(&d), sizeof d) == 0;
		if (ok_)
			thread_ = std::thread([this] { run(); });
	}
	~load() { join(); }
	load(const load &) = delete;
	load &operator=(const load &) = delete;

	bool ok() const { return ok_; }
	result join()
	{
		if (thread_.joinable())
			thread_.join();
		return res_;
	}

private:
	void run()
	{
		const std::uint64_t total = answered_.size();
		const auto start = std::chrono::steady_clock::now(), last = start + period_ * static_cast<long>(total);
		pollfd pfd{sock_.get(), POLLIN, 0};
		for (std::uint64_t seq = 0;;) {
			const auto now = std::chrono::steady_clock::now();
			for (; seq < total && start + period_ * static_cast<long>(seq) <= now; seq++) {
				probe_params p;
				p.my_disc = FIRST_DISC + static_cast<std::uint32_t>(seq % sessions_);
				p.your_disc = your_disc_;
				p.state = BFD_STATE_UP;
				p.min_tx_us = static_cast<std::uint32_t>(seq);
				std::uint8_t b[BFD_PKT_LEN];
				probe_encode_request(p, b);
				res_.sent += send(sock_.get(), b, sizeof b, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof b);
			}
			if (seq == total && (res_.answered + res_.wrong >= res_.sent || now > last + std::chrono::milliseconds(500)))
				return;
			if (poll(&pfd, 1, 1) > 0)
				drain();
		}
	}

	void drain()
	{
		std::uint8_t b[64];
		bfd_ctrl_pkt pkt;
		for (ssize_t n; (n = recv(sock_.get(), b, sizeof b, MSG_DONTWAIT)) >= 0;) {
			const bool whole = n == static_cast<ssize_t>(BFD_PKT_LEN) && probe_decode({b, BFD_PKT_LEN}, &pkt);
			const std::uint64_t seq = whole ? ntohl(pkt.min_tx_interval) : ~0ull;
			if (seq >= answered_.size() || ntohl(pkt.your_disc) != FIRST_DISC + seq % sessions_ ||
			    ntohl(pkt.my_disc) != your_disc_ || bfd_state_of(pkt) != BFD_STATE_UP || (pkt.flags & BFD_FLAG_D) ||
			    pkt.min_echo_rx_interval != 0 || ntohl(pkt.min_rx_interval) != min_rx_)
				res_.wrong++;
			else if (answered_[seq]++)
				res_.duplicate++;
			else
				res_.answered++;
		}
	}

	static constexpr std::uint32_t FIRST_DISC = 5000;
	std::uint32_t your_disc_, min_rx_, sessions_;
	std::chrono::nanoseconds period_;
	std::vector<std::uint8_t> answered_;  // per sequence number
	unique_fd sock_;
	bool ok_ = false;
	result res_;
	std::thread thread_;
};

}  // namespace e2e
