// tools_test.cpp -- sbfd-ping and orvalindwarden-ctl against a running
// reflector in a namespace, and their error paths: wrong discriminator, bad
// arguments, a process that is no reflector, a daemon in another namespace.
#include <gtest/gtest.h>

#include "e2eutil.h"

namespace {

using e2e::E2eTest;

constexpr std::uint32_t DISC = 4711;

struct result {
	int status;
	std::string out;
};

// Runs `argv` in namespace `ns` (empty: here) and waits for it to end.
result run_in(const std::string &ns, std::vector<std::string> argv)
{
	if (!ns.empty())
		argv.insert(argv.begin(), {"ip", "netns", "exec", ns});
	testutil::child_process p(argv);
	int st = p.exit_status(std::chrono::seconds(20));
	return {st, p.out() + p.err()};
}

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

TEST_F(E2eTest, SbfdPingReportsRepliesPlainAndLabelled)
{
	start(DISC, 40000);
	result r = run_in(b->ns_i(), {e2e::bin("sbfd-ping"), "-c", "3", "-i", "0.1", "--your-disc",
				      std::to_string(DISC), "--my-disc", "77", "--poll", e2e::DAEMON_IP});
	EXPECT_EQ(r.status, 0) << r.out;
	EXPECT_TRUE(has(r.out, "3 packets transmitted, 3 received, 0% packet loss")) << r.out;
	EXPECT_TRUE(has(r.out, "24 bytes from 192.0.2.1:7784: seq=1 state=Up diag=0 (No Diagnostic) flags=F "))
		<< r.out;
	EXPECT_TRUE(has(r.out, "my_disc=4711 your_disc=77 min_tx=1000000 min_rx=40000 min_echo_rx=0")) << r.out;
	EXPECT_TRUE(has(r.out, "rtt min/avg/max/mdev = ")) << r.out;

	// Labelled: the next hop is learnt from the neighbour table, and every
	// probe leaves vi0 as an MPLS frame.
	ini->frames(std::chrono::milliseconds(50));
	r = run_in(b->ns_i(), {e2e::bin("sbfd-ping"), "-c", "3", "-i", "0.1", "--your-disc",
			       std::to_string(DISC), "--my-disc", "78", "--mpls", "vi0", e2e::DAEMON_IP});
	EXPECT_EQ(r.status, 0) << r.out;
	EXPECT_TRUE(has(r.out, "3 packets transmitted, 3 received")) << r.out;
	int labelled = 0;
	for (const auto &[type, f] : ini->frames(std::chrono::milliseconds(200))) {
		frame_view v;
		if (type == PACKET_OUTGOING && probe_frame_parse(f, &v) && v.ethertype == ETH_TYPE_MPLS &&
		    v.label_entries == std::vector<std::uint32_t>{0x140} && v.dst_port == SBFD_PORT)
			labelled++;
	}
	EXPECT_EQ(labelled, 3);

	e2e::shm_view shm(b->shm_path());
	ASSERT_TRUE(shm.ok());
	std::size_t s = shm.session(78, e2e::INITIATOR_IP_H);
	ASSERT_NE(s, 0u);
	EXPECT_GE(shm.u64(s + 48), 3u);
}

TEST_F(E2eTest, SbfdPingFailsWithoutRepliesAndOnBadArguments)
{
	start(DISC, 40000);
	result r = run_in(b->ns_i(), {e2e::bin("sbfd-ping"), "-c", "2", "-i", "0.1", "-W", "0.3",
				      "--your-disc", std::to_string(DISC + 1), e2e::DAEMON_IP});
	EXPECT_EQ(r.status, 1) << r.out;
	EXPECT_TRUE(has(r.out, "2 packets transmitted, 0 received, 100% packet loss")) << r.out;

	struct {
		std::vector<std::string> args;
		const char *message;
	} cases[] = {
		{{e2e::DAEMON_IP}, "missing --your-disc"},
		{{"--your-disc", "0", e2e::DAEMON_IP}, "out of range"},
		{{"--your-disc", "1", "192.0.2"}, "not an IPv4 address"},
		{{"--your-disc", "1", "-i", "0", e2e::DAEMON_IP}, "interval"},
		{{"--your-disc", "1", "--state", "init", e2e::DAEMON_IP}, "expected up or down"},
		{{"--your-disc", "1", "--mpls", "nosuch0", e2e::DAEMON_IP}, "no interface nosuch0"},
		{{"--your-disc", "1"}, "missing TARGET"},
	};
	for (const auto &c : cases) {
		std::vector<std::string> argv = {e2e::bin("sbfd-ping")};
		argv.insert(argv.end(), c.args.begin(), c.args.end());
		r = run_in(b->ns_i(), argv);
		EXPECT_EQ(r.status, 2) << c.message << ": " << r.out;
		EXPECT_TRUE(has(r.out, c.message)) << r.out;
	}
}

TEST_F(E2eTest, CtlRefusesBadInputAndReportsAnAbsentDaemon)
{
	start(DISC, 40000);
	const std::string ctl = e2e::bin("orvalindwarden-ctl");
	const std::string pid = std::to_string(b->daemon_pid());
	struct {
		std::vector<std::string> args;
		int status;
		const char *message;
	} cases[] = {
		{{"--pid", pid, "-d", "9", "-r", "1", "-s", "192.0.2.256", "--admin-up"}, 2, "not an IPv4 address"},
		{{"--pid", pid, "-d", "4294967296", "-r", "1", "-s", "192.0.2.1", "--admin-up"}, 2, "out of range"},
		{{"--pid", pid, "-d", "0", "-r", "1", "-s", "192.0.2.1", "--admin-up"}, 2, "out of range"},
		{{"--pid", pid, "-d", "9", "-r", "1", "--admin-up"}, 2, "missing --source"},
		{{"--pid", pid, "-d", "9", "-r", "1", "-s", "192.0.2.1", "--admin-up", "--admin-down"}, 2,
		 "exclude each other"},
		// The test itself is a process without a control port.
		{{"--pid", std::to_string(getpid()), "-d", "9", "-r", "1", "-s", "192.0.2.1", "--admin-up"}, 1,
		 "no netlink control port"},
		{{"--pidfile", "/nonexistent/orv.pid", "-d", "9", "-r", "1", "-s", "192.0.2.1", "--admin-up"}, 1,
		 "cannot read pid file"},
	};
	for (const auto &c : cases) {
		std::vector<std::string> argv = {ctl, "--netns", b->ns_d()};
		argv.insert(argv.end(), c.args.begin(), c.args.end());
		result r = run_in("", argv);
		EXPECT_EQ(r.status, c.status) << c.message << ": " << r.out;
		EXPECT_TRUE(has(r.out, c.message)) << r.out;
	}
	// The daemon's port lives in its namespace: from ours it is not there.
	result r = run_in("", {ctl, "--pid", pid, "-d", "9", "-r", "1", "-s", "192.0.2.1", "--admin-up"});
	EXPECT_EQ(r.status, 1) << r.out;
	EXPECT_TRUE(has(r.out, "another network namespace")) << r.out;

	// None of that reached the daemon: the original discriminator still answers.
	probe_params p;
	p.my_disc = 31;
	p.your_disc = DISC;
	ASSERT_TRUE(ini->send_udp(p));
	auto reply = ini->capture();
	ASSERT_TRUE(reply);
	EXPECT_EQ(ntohl(reply->pkt.my_disc), DISC);
	EXPECT_EQ(ntohl(reply->pkt.min_rx_interval), 40000u);

	// Found through a pid file, inside the daemon's namespace.
	testutil::temp_dir dir("orvctl");
	ASSERT_TRUE(testutil::write_file(dir.file("d.pid"), pid + "\n"));
	r = run_in(b->ns_d(), {ctl, "--pidfile", dir.file("d.pid"), "-d", "9", "-r", "1", "-s", "192.0.2.1",
			       "--admin-up"});
	EXPECT_EQ(r.status, 0) << r.out;
	p.your_disc = 9;
	ASSERT_TRUE(ini->send_udp(p));
	reply = ini->capture();
	ASSERT_TRUE(reply);
	EXPECT_EQ(ntohl(reply->pkt.my_disc), 9u);
}

}  // namespace
