// e2eutil.h -- the end-to-end bench of the reflector: two network namespaces
// joined by a veth pair, the daemon started in one as a user starts it
// (`ip netns exec NS orvalindwarden -d D -p ADDR -r MINRX`, with its own
// BREVLOG_DIR and NSPATH), and an initiator in the other that sends requests
// (UDP, or crafted frames on a packet socket) and captures what comes back.
//
//   daemon namespace  "orvd-<pid>[-n]"  vd0 192.0.2.1/24  <-- veth -->  vi0 192.0.2.2/24
//   initiator namespace "orvi-<pid>[-n]"
//
// Everything is owned RAII-style (testutil.h): namespaces, the daemon (killed
// by its pid), the trace directory and the shared-memory object go away also
// when a test fails half way.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "netns.h"
#include "reflector.h"
#include "sbfd_probe.h"
#include "testutil.h"
#include "unique_fd.h"

namespace e2e {

constexpr const char *DAEMON_IP = "192.0.2.1";
constexpr const char *INITIATOR_IP = "192.0.2.2";
constexpr std::uint32_t DAEMON_IP_H = 0xc0000201;     // 192.0.2.1
constexpr std::uint32_t INITIATOR_IP_H = 0xc0000202;  // 192.0.2.2

inline std::string bin(const char *name) { return std::string(ORV_BIN_DIR) + "/" + name; }

// Index and MAC address of `ifname` in namespace `ns`, from `ip -o link`.
struct link_info {
	int ifindex = 0;
	std::uint8_t mac[6] = {};
};
inline std::optional<link_info> link_of(const std::string &ns, const std::string &ifname)
{
	std::string out = testutil::output_of("ip -n " + ns + " -o link show dev " + ifname);
	auto at = out.find("link/ether ");
	link_info li;
	li.ifindex = std::atoi(out.c_str());
	if (at == std::string::npos || li.ifindex <= 0 ||
	    !probe_parse_mac(out.substr(at + 11, 17).c_str(), li.mac))
		return std::nullopt;
	return li;
}

// Read-only view of the daemon's shared store, read by byte offsets
// (the layout of reflector.h), so the test does not trust the struct.
class shm_view {
public:
	explicit shm_view(const std::string &path)
	{
		unique_fd fd{open(path.c_str(), O_RDONLY)};
		if (fd.get() < 0)
			return;
		void *p = mmap(nullptr, SHM_SIZE, PROT_READ, MAP_SHARED, fd.get(), 0);
		if (p != MAP_FAILED)
			base_ = static_cast<const std::uint8_t *>(p);
	}
	~shm_view()
	{
		if (base_)
			munmap(const_cast<std::uint8_t *>(base_), SHM_SIZE);
	}
	shm_view(const shm_view &) = delete;
	shm_view &operator=(const shm_view &) = delete;

	bool ok() const { return base_ != nullptr; }
	template <typename T> T at(std::size_t off) const
	{
		T v;
		std::memcpy(&v, base_ + off, sizeof v);
		return v;
	}
	std::uint64_t u64(std::size_t off) const { return at<std::uint64_t>(off); }
	std::uint32_t u32(std::size_t off) const { return at<std::uint32_t>(off); }
	std::uint16_t u16(std::size_t off) const { return at<std::uint16_t>(off); }
	std::uint8_t u8(std::size_t off) const { return base_[off]; }

	// Offset of the slot in use for (initiator discriminator, address), or 0.
	std::size_t session(std::uint32_t disc, std::uint32_t ip_h) const
	{
		for (std::size_t k = 0; k < MAX_SESSIONS; k++) {
			std::size_t off = 88 + 136 * k;
			if (u32(off) == disc && u32(off + 4) == htonl(ip_h))
				return off;
		}
		return 0;
	}

private:
	const std::uint8_t *base_ = nullptr;
};

// Header offsets of the counters the tests look at.
constexpr std::size_t OFF_RX_DROPS = 0, OFF_TX_SENDS = 8, OFF_RX_VALID = 16, OFF_YOUR_DISC_UNMATCH = 52,
		      OFF_UNSUPPORTED = 60, OFF_INVALID_FORMAT = 64, OFF_SENDTO_FAIL = 68;

// A captured reply, parsed.
struct reply {
	std::vector<std::uint8_t> frame;
	frame_view v;
	bfd_ctrl_pkt pkt{};
};

// The two namespaces, the veth pair, and the daemon.
class bench {
public:
	bench()
		: tag_(testutil::unique_name("e2e")), ns_d_("orvd-" + tag_.substr(4)),
		  ns_i_("orvi-" + tag_.substr(4)),
		  veth_(ns_d_.name(), "vd0", std::string(DAEMON_IP) + "/24", ns_i_.name(), "vi0",
			std::string(INITIATOR_IP) + "/24"),
		  shm_("orvalindwarden-" + tag_)
	{
	}

	// Everything but the daemon is in place.
	bool ok() const { return ns_d_.ok() && ns_i_.ok() && veth_.ok() && logs_.ok(); }
	const std::string &ns_d() const { return ns_d_.name(); }
	const std::string &ns_i() const { return ns_i_.name(); }
	pid_t daemon_pid() const { return daemon_ ? daemon_->pid() : -1; }
	testutil::child_process &daemon() { return *daemon_; }
	std::string shm_path() const { return shm_.path(); }
	std::string trace_path() const { return logs_.file("orvalindwarden.bl"); }

	// Starts the daemon and waits (bounded) until its netlink port, the
	// last of its sockets, is bound. Returns false when it did not get there.
	bool start(std::uint32_t disc, std::uint32_t min_rx, const std::vector<std::string> &extra = {})
	{
		std::vector<std::string> argv = {"ip", "netns", "exec", ns_d(), bin("orvalindwarden"),
						 "-d", std::to_string(disc), "-p", DAEMON_IP, "-r",
						 std::to_string(min_rx)};
		argv.insert(argv.end(), extra.begin(), extra.end());
		daemon_.emplace(argv, std::vector<std::string>{"BREVLOG_DIR=" + logs_.path(), "NSPATH=/" + tag_});
		pid_t pid = daemon_->pid();
		return testutil::wait_until(
			[&] {
				if (!daemon_->running())
					return true;
				auto t = testutil::read_file("/proc/" + std::to_string(pid) + "/net/netlink");
				// Row: sk Eth Pid ...; protocol 2 is NETLINK_USERSOCK.
				std::istringstream in(t.value_or(""));
				std::string line;
				while (std::getline(in, line)) {
					std::istringstream ls(line);
					std::string sk;
					int eth = -1;
					long port = -1;
					ls >> sk >> eth >> port;
					if (eth == 2 && port == pid)
						return true;
				}
				return false;
			},
			std::chrono::seconds(10)) &&
		       daemon_->running();
	}

	// The daemon's trace as blcat renders it.
	std::string trace() const { return testutil::output_of(bin("blcat") + " " + trace_path()); }

private:
	std::string tag_;
	testutil::netns ns_d_, ns_i_;
	testutil::veth_pair veth_;
	testutil::temp_dir logs_{"orvlogs"};
	testutil::shm_object shm_;
	std::optional<testutil::child_process> daemon_;  // destroyed first: killed before the namespaces go
};

// The initiator's sockets in its namespace: a UDP socket on 192.0.2.2 (an
// ephemeral port, where replies land) and a packet socket on vi0 that
// captures every incoming frame and sends crafted ones.
class initiator {
public:
	explicit initiator(const bench &b)
	{
		udp_ = unique_fd{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, b.ns_i().c_str())};
		raw_ = unique_fd{netnsSocketAt(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL), b.ns_i().c_str())};
		auto mine = link_of(b.ns_i(), "vi0");
		auto peer = link_of(b.ns_d(), "vd0");
		if (udp_.get() < 0 || raw_.get() < 0 || !mine || !peer)
			return;
		sockaddr_in a{};
		a.sin_family = AF_INET;
		a.sin_addr.s_addr = htonl(INITIATOR_IP_H);
		socklen_t len = sizeof a;
		if (bind(udp_.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
		    getsockname(udp_.get(), reinterpret_cast<sockaddr *>(&a), &len) != 0)
			return;
		port_ = ntohs(a.sin_port);
		ifindex_ = mine->ifindex;
		std::memcpy(my_mac_, mine->mac, 6);
		std::memcpy(peer_mac_, peer->mac, 6);
		ok_ = true;
	}

	bool ok() const { return ok_; }
	std::uint16_t port() const { return port_; }

	// A request to the daemon's port 7784 through the UDP socket.
	bool send_udp(const probe_params &p, std::uint32_t dst_h = DAEMON_IP_H)
	{
		std::uint8_t b[BFD_PKT_LEN];
		probe_encode_request(p, b);
		sockaddr_in d{};
		d.sin_family = AF_INET;
		d.sin_port = htons(SBFD_PORT);
		d.sin_addr.s_addr = htonl(dst_h);
		return sendto(udp_.get(), b, sizeof b, 0, reinterpret_cast<sockaddr *>(&d), sizeof d) == sizeof b;
	}

	// A frame spec addressed from vi0 to vd0, from our UDP port to 7784.
	frame_spec spec() const
	{
		frame_spec s;
		std::memcpy(s.dst_mac, peer_mac_, 6);
		std::memcpy(s.src_mac, my_mac_, 6);
		s.src_ip = INITIATOR_IP_H;
		s.dst_ip = DAEMON_IP_H;
		s.src_port = port_;
		return s;
	}

	bool send_frame(const std::vector<std::uint8_t> &f)
	{
		sockaddr_ll ll{};
		ll.sll_family = AF_PACKET;
		ll.sll_ifindex = ifindex_;
		ll.sll_halen = 6;
		std::memcpy(ll.sll_addr, peer_mac_, 6);
		return sendto(raw_.get(), f.data(), f.size(), 0, reinterpret_cast<sockaddr *>(&ll), sizeof ll) ==
		       static_cast<ssize_t>(f.size());
	}

	// The next incoming UDP frame from port 7784 (a reply), within `timeout`.
	std::optional<reply> capture(std::chrono::milliseconds timeout = std::chrono::seconds(3))
	{
		auto end = std::chrono::steady_clock::now() + timeout;
		for (;;) {
			auto left = std::chrono::duration_cast<std::chrono::microseconds>(
				end - std::chrono::steady_clock::now());
			if (left.count() <= 0)
				return std::nullopt;
			timeval tv{static_cast<time_t>(left.count() / 1000000),
				   static_cast<suseconds_t>(left.count() % 1000000)};
			setsockopt(raw_.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
			reply r;
			r.frame.resize(2048);
			sockaddr_ll from{};
			socklen_t fl = sizeof from;
			ssize_t n = recvfrom(raw_.get(), r.frame.data(), r.frame.size(), 0,
					     reinterpret_cast<sockaddr *>(&from), &fl);
			if (n < 0)
				continue;
			r.frame.resize(static_cast<std::size_t>(n));
			if (from.sll_pkttype == PACKET_OUTGOING || !probe_frame_parse(r.frame, &r.v) ||
			    r.v.src_port != SBFD_PORT)
				continue;
			if (!probe_decode(r.v.payload, &r.pkt))
				r.pkt = bfd_ctrl_pkt{};
			return r;
		}
	}

	// Every frame seen on the packet socket within `window`, with its
	// packet type (PACKET_OUTGOING for our own).
	std::vector<std::pair<int, std::vector<std::uint8_t>>> frames(std::chrono::milliseconds window)
	{
		std::vector<std::pair<int, std::vector<std::uint8_t>>> all;
		auto end = std::chrono::steady_clock::now() + window;
		timeval tv{0, 20000};
		setsockopt(raw_.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
		while (std::chrono::steady_clock::now() < end) {
			std::vector<std::uint8_t> f(2048);
			sockaddr_ll from{};
			socklen_t fl = sizeof from;
			ssize_t n = recvfrom(raw_.get(), f.data(), f.size(), 0, reinterpret_cast<sockaddr *>(&from), &fl);
			if (n < 0)
				continue;
			f.resize(static_cast<std::size_t>(n));
			all.emplace_back(from.sll_pkttype, std::move(f));
		}
		return all;
	}

private:
	unique_fd udp_, raw_;
	std::uint16_t port_ = 0;
	int ifindex_ = 0;
	std::uint8_t my_mac_[6] = {}, peer_mac_[6] = {};
	bool ok_ = false;
};

// Fixture of every namespace test: skips without root, builds the bench.
// Tests start the daemon themselves (bench->start), with their own values.
class E2eTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (const char *why = testutil::missing_net_admin())
			GTEST_SKIP() << why;
		b.emplace();
		ASSERT_TRUE(b->ok()) << "namespaces and veth pair";
	}
	// Starts the daemon; fails the test when it does not become ready.
	void start(std::uint32_t disc, std::uint32_t min_rx, const std::vector<std::string> &extra = {})
	{
		ASSERT_TRUE(b->start(disc, min_rx, extra))
			<< "daemon not ready: " << b->daemon().out() << b->daemon().err();
		ini.emplace(*b);
		ASSERT_TRUE(ini->ok()) << "initiator sockets";
	}

	std::optional<bench> b;
	std::optional<initiator> ini;
};

}  // namespace e2e
