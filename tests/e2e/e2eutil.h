// e2eutil.h -- the end-to-end bench: the daemon started as a user starts it
// (`ip netns exec NS orvalindwarden ...`, with its own BREVLOG_DIR and
// NSPATH) in one namespace, an initiator that sends requests and captures
// frames in the other, joined by a veth pair. All is undone when the test
// ends, also when it fails.
//
//   "orvd-<pid>[-n]"  vd0 192.0.2.1/24  <-- veth -->  vi0 192.0.2.2/24  "orvi-<pid>[-n]"
#pragma once

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <cstring>

#include <gtest/gtest.h>

#include "netns.h"
#include "reflector.h"
#include "sbfd_probe.h"
#include "shmstat.h"
#include "testutil.h"
#include "unique_fd.h"

namespace e2e {

using testutil::bin;
using ms = std::chrono::milliseconds;

constexpr const char *DAEMON_IP = "192.0.2.1";
constexpr std::uint32_t DAEMON_IP_H = 0xc0000201;
constexpr std::uint32_t INITIATOR_IP_H = 0xc0000202;  // 192.0.2.2

struct reply {
	std::vector<std::uint8_t> frame;
	frame_view v{};  // parsed from `frame`
	bfd_ctrl_pkt pkt{};
};

// What a tool run printed, and how it ended.
struct result {
	int status;
	std::string out;  // standard output and error
	bool has(const std::string &part) const { return out.find(part) != std::string::npos; }
};

inline result run(const std::vector<std::string> &argv, const std::vector<std::string> &env = {})
{
	testutil::child_process p(argv, env);
	return {p.exit_status(), p.out() + p.err()};
}

// The run-state file (runstate.h) of the daemon of store `object`.
inline std::string state_file(const std::string &object) { return std::string(RUN_STATE_DIR) + "/" + object + RUN_STATE_SUFFIX; }

// Skips without root; each test starts the daemon itself.
class E2eTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (geteuid() != 0 || testutil::run("command -v ip") != 0)
			GTEST_SKIP() << "needs root (network namespaces) and the ip command";
		const std::string d = "ip -n " + ns_d + " ", i = "ip -n " + ns_i + " ";
		for (const std::string &cmd : {"ip netns add " + ns_d, "ip netns add " + ns_i, d + "link set lo up",
					       i + "link set lo up", d + "link add vd0 type veth peer name vi0 netns " + ns_i,
					       d + "addr add 192.0.2.1/24 dev vd0", i + "addr add 192.0.2.2/24 dev vi0",
					       d + "link set vd0 up", i + "link set vi0 up"})
			ASSERT_EQ(testutil::run(cmd), 0) << cmd;
		ASSERT_TRUE(logs.ok());
	}

	// Starts the daemon with `args` (replacing an earlier one); false unless its
	// netlink port (protocol 2, port = pid), the last socket it opens, gets bound.
	bool spawn(const std::vector<std::string> &args)
	{
		std::vector<std::string> argv = {"ip", "netns", "exec", ns_d};
		argv.insert(argv.end(), wrapper.begin(), wrapper.end());
		argv.push_back(bin("orvalindwarden"));
		if (!private_fs.empty())  // the same pid: unshare, sh and ip exec in turn
			argv.insert(argv.begin(), {"unshare", "-m", "sh", "-ec", private_fs + "\nexec \"$@\"", "sh"});
		argv.insert(argv.end(), args.begin(), args.end());
		daemon.reset();
		daemon.emplace(argv, std::vector<std::string>{"BREVLOG_DIR=" + logs.path(), "NSPATH=" + nspath()});
		const std::string pid = std::to_string(daemon->pid());
		auto bound = [&] {
			return testutil::read_file("/proc/" + pid + "/net/netlink").find(" 2   " + pid + " ") != std::string::npos;
		};
		testutil::wait_until([&] { return !daemon->running() || bound(); }, std::chrono::seconds(10));
		return daemon->running() && bound();
	}
	// Starts the daemon on 192.0.2.1 and opens the initiator's UDP socket,
	// connected to the daemon's 7784, and its packet socket on vi0.
	void start(std::uint32_t disc, std::uint32_t min_rx, const std::vector<std::string> &extra = {})
	{
		std::vector<std::string> args = {"-d", std::to_string(disc), "-p", DAEMON_IP, "-r", std::to_string(min_rx)};
		args.insert(args.end(), extra.begin(), extra.end());
		udp.reset(), raw.reset();  // not for the daemon to inherit: a second start binds the same port
		ASSERT_TRUE(spawn(args)) << "daemon not ready: " << daemon->out() << daemon->err();
		udp = unique_fd(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, ns_i.c_str()));
		raw = unique_fd(netnsSocketAt(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL), ns_i.c_str()));
		const sockaddr_in a{AF_INET, htons(port), {htonl(INITIATOR_IP_H)}, {}},
				  d{AF_INET, htons(SBFD_PORT), {htonl(DAEMON_IP_H)}, {}};
		const sockaddr_ll ll{.sll_family = AF_PACKET, .sll_protocol = htons(ETH_P_ALL),
				     .sll_ifindex = std::atoi(testutil::output_of("ip -n " + ns_i + " -o link show dev vi0").c_str()),
				     .sll_hatype = 0, .sll_pkttype = 0, .sll_halen = 0, .sll_addr = {}};
		const timeval tv{0, 20000};
		// Replies wait here while a loaded host keeps the test off its core:
		// a deep queue, so that none is lost on this side.
		const int rcvbuf = 4 << 20;
		ASSERT_EQ(setsockopt(udp.get(), SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf), 0);
		ASSERT_EQ(bind(udp.get(), reinterpret_cast<const sockaddr *>(&a), sizeof a), 0);
		ASSERT_EQ(connect(udp.get(), reinterpret_cast<const sockaddr *>(&d), sizeof d), 0);
		ASSERT_EQ(bind(raw.get(), reinterpret_cast<const sockaddr *>(&ll), sizeof ll), 0);
		ASSERT_EQ(setsockopt(raw.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv), 0);
	}

	std::string nspath() const { return "/" + tag; }
	std::string shm_name() const { return "orvalindwarden-" + tag; }
	std::string state_path() const { return state_file(shm_name()); }
	// The daemon's trace as blcat renders it (`suffix` ".1": the previous run's).
	std::string trace(const std::string &suffix = "") const
	{
		return testutil::output_of(bin("blcat") + " " + logs.file("orvalindwarden.bl") + suffix);
	}
	reflector_shm store() const
	{
		auto snap = std::make_unique<shmstat_snapshot>();
		std::string err;
		EXPECT_EQ(shmstat_read(shm_name(), snap.get(), &err), SHMSTAT_OK) << err;
		return snap->store;
	}

	// A broadcast frame from the initiator's UDP port to the daemon's 7784
	// (its packet sockets take any destination MAC).
	frame_spec shape() const
	{
		return {.dst_mac = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, .labels = {}, .ip_options = {},
			.src_ip = INITIATOR_IP_H, .dst_ip = DAEMON_IP_H, .src_port = port};
	}
	// The next frame from port 7784 that reached vi0 within `timeout`; with
	// `outgoing`, the next UDP frame that left it instead; both on packet
	// socket `fd` instead of vi0's when given.
	std::optional<reply> capture(ms timeout = std::chrono::seconds(3), bool outgoing = false, int fd = -1)
	{
		for (const auto end = std::chrono::steady_clock::now() + timeout; std::chrono::steady_clock::now() < end;) {
			reply r{std::vector<std::uint8_t>(2048)};
			sockaddr_ll from{};
			socklen_t fl = sizeof from;
			const ssize_t n = recvfrom(fd < 0 ? raw.get() : fd, r.frame.data(), r.frame.size(), 0, reinterpret_cast<sockaddr *>(&from), &fl);
			r.frame.resize(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
			if (n > 0 && (from.sll_pkttype == PACKET_OUTGOING) == outgoing && probe_frame_parse(r.frame, &r.v) &&
			    (outgoing || r.v.src_port == SBFD_PORT)) {
				probe_decode(r.v.payload, &r.pkt);
				return r;
			}
		}
		return std::nullopt;
	}
	// Sends request `p` from vi0 in a frame shaped as `s`; whether all of it went.
	bool send_frame(const frame_spec &s, const probe_params &p)
	{
		std::uint8_t b[BFD_PKT_LEN];
		probe_encode_request(p, b);
		const auto f = probe_frame_build(s, b);
		return send(raw.get(), f.data(), f.size(), 0) == static_cast<ssize_t>(f.size());
	}
	// Sends `p` from the initiator's UDP socket; the reply to it, if any.
	std::optional<reply> ask(const probe_params &p, ms timeout = std::chrono::seconds(3))
	{
		std::uint8_t b[BFD_PKT_LEN];
		probe_encode_request(p, b);
		EXPECT_EQ(send(udp.get(), b, sizeof b, 0), static_cast<ssize_t>(sizeof b));
		return capture(timeout);
	}

	const std::string tag = testutil::unique_name("e2e");
	const std::string ns_d = "orvd-" + tag.substr(4), ns_i = "orvi-" + tag.substr(4);
	const testutil::undo cleanup{[this] {
		testutil::run("ip netns del " + ns_d);
		testutil::run("ip netns del " + ns_i);
		shm_unlink(shm_name().c_str());
		unlink(state_path().c_str());
		run_state_clean(state_path().c_str());  // a killed daemon's new file
	}};
	testutil::temp_dir logs{"orvlogs"};
	std::optional<testutil::child_process> daemon;  // killed before the namespaces go
	// Shell commands run in a mount namespace of the daemon's own before it
	// starts, to give it file systems of a chosen size or owner (empty: none).
	std::string private_fs;
	// A command that execs the daemon in its place, e.g. setpriv (empty: none).
	std::vector<std::string> wrapper;
	unique_fd udp, raw;
	static constexpr std::uint16_t port = 40000;  // the initiator's UDP port; the namespace is ours alone
};

}  // namespace e2e
