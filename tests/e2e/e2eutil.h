// e2eutil.h -- the end-to-end bench of the reflector: two network namespaces
// joined by a veth pair, the daemon started in one as a user starts it
// (`ip netns exec NS orvalindwarden -d D -p ADDR -r MINRX`, with its own
// BREVLOG_DIR and NSPATH, so its own trace and store), and an initiator in
// the other that sends requests (UDP, or crafted frames on a packet socket)
// and captures what comes back.
//
//   daemon namespace  "orvd-<pid>[-n]"  vd0 192.0.2.1/24  <-- veth -->  vi0 192.0.2.2/24
//   initiator namespace "orvi-<pid>[-n]"
//
// Everything is owned RAII-style (testutil.h), also when a test fails.
#pragma once

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "netns.h"
#include "reflector.h"
#include "sbfd_probe.h"
#include "testutil.h"
#include "unique_fd.h"

namespace e2e {

using testutil::bin;

constexpr const char *DAEMON_IP = "192.0.2.1";
constexpr const char *INITIATOR_IP = "192.0.2.2";
constexpr std::uint32_t DAEMON_IP_H = 0xc0000201;     // 192.0.2.1
constexpr std::uint32_t INITIATOR_IP_H = 0xc0000202;  // 192.0.2.2

// Header offsets of the counters the tests look at (the layout operators read).
constexpr std::size_t OFF_RX_DROPS = 0, OFF_TX_SENDS = 8, OFF_RX_VALID = 16, OFF_YOUR_DISC_UNMATCH = 52,
		      OFF_UNSUPPORTED = 60, OFF_SENDTO_FAIL = 68;

// The daemon's shared store mapped by its path, read by byte offsets as an
// outside reader does; `create` makes it (0644) and maps it writable.
class shm_view {
public:
	explicit shm_view(const std::string &path, bool create = false)
	{
		unique_fd fd{open(path.c_str(), create ? O_RDWR | O_CREAT : O_RDONLY, 0644)};
		if (fd.get() < 0 || (create && ftruncate(fd.get(), SHM_SIZE) != 0))
			return;
		void *p = mmap(nullptr, SHM_SIZE, create ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd.get(), 0);
		if (p != MAP_FAILED)
			base_ = static_cast<std::uint8_t *>(p);
	}
	~shm_view()
	{
		if (base_)
			munmap(base_, SHM_SIZE);
	}
	shm_view(const shm_view &) = delete;
	shm_view &operator=(const shm_view &) = delete;

	bool ok() const { return base_ != nullptr; }
	reflector_shm *store() const { return reinterpret_cast<reflector_shm *>(base_); }
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
		for (std::size_t off = 88; off < SHM_SIZE; off += 136)
			if (u32(off) == disc && u32(off + 4) == htonl(ip_h))
				return off;
		return 0;
	}

private:
	std::uint8_t *base_ = nullptr;
};

// The two namespaces, the veth pair, and the daemon.
class bench {
public:
	bench()
		: tag_(testutil::unique_name("e2e")), ns_d_("orvd-" + tag_.substr(4)), ns_i_("orvi-" + tag_.substr(4)),
		  veth_(ns_d_.name(), "vd0", std::string(DAEMON_IP) + "/24", ns_i_.name(), "vi0",
			std::string(INITIATOR_IP) + "/24"),
		  shm_("orvalindwarden-" + tag_)
	{
	}

	// Everything but the daemon is in place.
	bool ok() const { return ns_d_.ok() && ns_i_.ok() && veth_.ok() && logs_.ok(); }
	const std::string &ns_d() const { return ns_d_.name(); }
	const std::string &ns_i() const { return ns_i_.name(); }
	std::string nspath() const { return "/" + tag_; }
	pid_t daemon_pid() const { return daemon_ ? daemon_->pid() : -1; }
	testutil::child_process &daemon() { return *daemon_; }
	std::string shm_name() const { return shm_.name(); }
	std::string shm_path() const { return shm_.path(); }
	std::string trace_path() const { return logs_.file("orvalindwarden.bl"); }

	// Starts the daemon with `args` (replacing one started before) and
	// waits, bounded, until its netlink port, the last of its sockets, is
	// bound. False when it ended instead.
	bool spawn(const std::vector<std::string> &args)
	{
		std::vector<std::string> argv = {"ip", "netns", "exec", ns_d(), bin("orvalindwarden")};
		argv.insert(argv.end(), args.begin(), args.end());
		daemon_.reset();
		daemon_.emplace(argv, std::vector<std::string>{"BREVLOG_DIR=" + logs_.path(), "NSPATH=" + nspath()});
		const pid_t pid = daemon_->pid();
		testutil::wait_until([&] { return !daemon_->running() || testutil::netlink_bound(pid); },
				     std::chrono::seconds(10));
		return daemon_->running() && testutil::netlink_bound(pid);
	}
	bool start(std::uint32_t disc, std::uint32_t min_rx, const std::vector<std::string> &extra = {})
	{
		std::vector<std::string> args = {"-d", std::to_string(disc), "-p", DAEMON_IP, "-r", std::to_string(min_rx)};
		args.insert(args.end(), extra.begin(), extra.end());
		return spawn(args);
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

// A captured reply, parsed.
struct reply {
	std::vector<std::uint8_t> frame;
	frame_view v;
	bfd_ctrl_pkt pkt{};
};

// The initiator's sockets in its namespace: a UDP socket on 192.0.2.2 (an
// ephemeral port, where replies land) and a packet socket on vi0 that
// captures every incoming frame and sends crafted ones.
class initiator {
public:
	explicit initiator(const bench &b)
		: udp_(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, b.ns_i().c_str())),
		  raw_(netnsSocketAt(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL), b.ns_i().c_str()))
	{
		auto mine = link_of(b.ns_i(), "vi0"), peer = link_of(b.ns_d(), "vd0");
		sockaddr_in a{};
		a.sin_family = AF_INET;
		a.sin_addr.s_addr = htonl(INITIATOR_IP_H);
		socklen_t len = sizeof a;
		if (udp_.get() < 0 || raw_.get() < 0 || !mine || !peer ||
		    bind(udp_.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
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

	// A frame shape addressed from vi0 to vd0, from our UDP port to 7784.
	frame_spec shape() const
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

	// The next incoming UDP frame from port 7784 (a reply) within `timeout`;
	// with `outgoing`, the next frame this namespace sent instead.
	std::optional<reply> capture(std::chrono::milliseconds timeout = std::chrono::seconds(3), bool outgoing = false)
	{
		const auto end = std::chrono::steady_clock::now() + timeout;
		timeval tv{0, 20000};
		setsockopt(raw_.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
		while (std::chrono::steady_clock::now() < end) {
			reply r;
			r.frame.resize(2048);
			sockaddr_ll from{};
			socklen_t fl = sizeof from;
			ssize_t n = recvfrom(raw_.get(), r.frame.data(), r.frame.size(), 0, reinterpret_cast<sockaddr *>(&from), &fl);
			if (n < 0)
				continue;
			r.frame.resize(static_cast<std::size_t>(n));
			if ((from.sll_pkttype == PACKET_OUTGOING) != outgoing || !probe_frame_parse(r.frame, &r.v) ||
			    (!outgoing && r.v.src_port != SBFD_PORT))
				continue;
			if (!probe_decode(r.v.payload, &r.pkt))
				r.pkt = bfd_ctrl_pkt{};
			return r;
		}
		return std::nullopt;
	}

private:
	struct link_info {
		int ifindex = 0;
		std::uint8_t mac[6] = {};
	};
	// Index and MAC address of `ifname` in namespace `ns`, from `ip -o link`.
	static std::optional<link_info> link_of(const std::string &ns, const std::string &ifname)
	{
		std::string out = testutil::output_of("ip -n " + ns + " -o link show dev " + ifname);
		auto at = out.find("link/ether ");
		link_info li;
		li.ifindex = std::atoi(out.c_str());
		if (at == std::string::npos || li.ifindex <= 0 || !probe_parse_mac(out.substr(at + 11, 17).c_str(), li.mac))
			return std::nullopt;
		return li;
	}

	unique_fd udp_, raw_;
	std::uint16_t port_ = 0;
	int ifindex_ = 0;
	std::uint8_t my_mac_[6] = {}, peer_mac_[6] = {};
	bool ok_ = false;
};

// Fixture of the namespace tests: skips without root, builds the bench;
// each test starts the daemon itself with its own values.
class E2eTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (const char *why = testutil::missing_net_admin())
			GTEST_SKIP() << why;
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

	std::optional<bench> b;
	std::optional<initiator> ini;
};

}  // namespace e2e
