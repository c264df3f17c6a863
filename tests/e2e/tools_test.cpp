// tools_test.cpp -- the tools against a running reflector in a namespace:
// orvalindwarden-ctl changes show in the very next reply, a new source
// address re-binds and an unbindable one ends the daemon; sbfd-ping plain
// and labelled; orvalindwarden-stat in its three formats; and their error
// paths (bad arguments, no reply, no daemon, a missing store).
#include <nlohmann/json.hpp>

#include "e2e/e2eutil.h"

namespace {

using e2e::bin;
using e2e::ms;

struct result {
	int status;
	std::string out;  // standard output and error
	bool has(const std::string &part) const { return out.find(part) != std::string::npos; }
};

// Runs `argv` in namespace `ns` (empty: here) and waits for it to end.
result run_in(const std::string &ns, std::vector<std::string> argv, const std::vector<std::string> &env = {})
{
	if (!ns.empty())
		argv.insert(argv.begin(), {"ip", "netns", "exec", ns});
	testutil::child_process p(argv, env);
	const int st = p.exit_status(std::chrono::seconds(20));
	return {st, p.out() + p.err()};
}

class ToolsInNamespace : public e2e::E2eTest {
protected:
	// orvalindwarden-ctl at the bench's daemon, from here.
	result ctl(const std::vector<std::string> &args)
	{
		std::vector<std::string> argv = {bin("orvalindwarden-ctl"), "--netns", ns_d, "--pid",
						 std::to_string(daemon->pid())};
		argv.insert(argv.end(), args.begin(), args.end());
		return run_in("", argv);
	}
};

TEST_F(ToolsInNamespace, ControlMessagesShowInTheNextReplyAndANewSourceRebinds)
{
	start(100, 1000);
	result r = ctl({"-d", "200", "-r", "5000", "-s", e2e::DAEMON_IP, "--admin-down"});
	ASSERT_EQ(r.status, 0) << r.out;
	auto reply = ask(555, 200);
	ASSERT_TRUE(reply) << "no reply to the new discriminator";
	EXPECT_EQ(std::tuple(ntohl(reply->pkt.my_disc), ntohl(reply->pkt.min_rx_interval)), std::tuple(200u, 5000u));
	EXPECT_EQ(std::tuple(bfd_state_of(reply->pkt), bfd_diag(reply->pkt)), std::tuple(BFD_STATE_ADMIN_DOWN, BFD_DIAG_ADMIN_DOWN));
	EXPECT_FALSE(ask(555, 100, std::chrono::milliseconds(300))) << "the old discriminator is someone else's now";
	EXPECT_TRUE(testutil::wait_until([&] { return store().your_disc_unmatch == 1; }));

	// Up again, from a new address of the daemon's namespace.
	ASSERT_EQ(testutil::run("ip -n " + ns_d + " addr add 192.0.2.3/24 dev vd0"), 0);
	ASSERT_EQ(ctl({"-d", "200", "-r", "0", "-s", "192.0.2.3", "--admin-up"}).status, 0);
	reply = ask(555, 200);
	ASSERT_TRUE(reply) << "no reply after the source change";
	EXPECT_EQ(std::tuple(bfd_state_of(reply->pkt), bfd_diag(reply->pkt), ntohl(reply->pkt.min_rx_interval)),
		  std::tuple(BFD_STATE_UP, 0, 0u));
	EXPECT_EQ(std::tuple(reply->v.src_ip, reply->v.src_port, reply->v.tos, reply->v.ttl),
		  std::tuple(0xc0000203u, SBFD_PORT, 0xc0, 255))
		<< "reply not from the new address, or without the socket's options";
	// 198.51.100.9 is no address of the daemon's namespace.
	ASSERT_EQ(ctl({"-d", "100", "-r", "1000", "-s", "198.51.100.9", "--admin-up"}).status, 0);
	EXPECT_EQ(daemon->exit_status(), 0);
	EXPECT_NE(trace().find("ERROR: outfd init failed, terminate to retry"), std::string::npos);
}

TEST_F(ToolsInNamespace, CtlRefusesBadInputAndReportsAnAbsentDaemon)
{
	start(4711, 40000);
	const std::string pid = std::to_string(daemon->pid()), here = std::to_string(getpid());
	testutil::temp_dir dir("orvctl");
	std::ofstream(dir.file("d.pid")) << pid << "\n";
	const struct {
		std::vector<std::string> args;  // before -d 9 -r 1 -s 192.0.2.1 --admin-up
		int status;
		const char *message;  // in its output; null: none
	} cases[] = {
		{{"--netns", ns_d, "--pid", pid, "-s", "192.0.2.256"}, 2, "not an IPv4 address"},
		{{"--netns", ns_d, "--pid", pid, "--admin-down"}, 2, "exclude each other"},
		{{"--netns", ns_d, "--pid", here}, 1, "no netlink control port"},  // the test has none
		{{"--netns", ns_d, "--pid", "4194305"}, 1, "no process with pid 4194305"},  // above any pid
		{{"--netns", "orvtest-none", "--pid", pid}, 1, "netlink socket in namespace orvtest-none"},
		{{"--netns", ns_d, "--pidfile", "/nonexistent/orv.pid"}, 1, "cannot read pid file"},
		{{"--pid", pid}, 1, "another network namespace"},  // the daemon's port is not in ours
		{{"--netns", ns_d, "--pidfile", dir.file("d.pid"), "-d", "5"}, 0, nullptr},
	};
	for (const auto &c : cases) {
		std::vector<std::string> argv = {bin("orvalindwarden-ctl"), "-d", "9", "-r", "1", "-s", "192.0.2.1", "--admin-up"};
		argv.insert(argv.begin() + 1, c.args.begin(), c.args.end());
		const result r = run_in("", argv);
		EXPECT_EQ(r.status, c.status) << r.out;
		EXPECT_TRUE(c.message ? r.has(c.message) : r.out.empty()) << r.out;
	}
	const result r = run_in("", {bin("orvalindwarden-ctl"), "--pid", pid, "-d", "9"});
	EXPECT_EQ(r.status, 2);
	EXPECT_TRUE(r.has("missing --min-rx --source --admin-up|--admin-down")) << r.out;
	// None but the last reached the daemon: it took discriminator 9 (a later -d wins).
	EXPECT_FALSE(ask(31, 5, ms(300)));
	const auto reply = ask(31, 9);
	ASSERT_TRUE(reply) << "the setting sent through the pid file was not applied";
	EXPECT_EQ(ntohl(reply->pkt.min_rx_interval), 1u);
}

TEST_F(ToolsInNamespace, SbfdPingReportsRepliesPlainAndLabelled)
{
	start(4711, 40000);
	auto ping = [&](std::vector<std::string> args) {
		args.insert(args.begin(), {bin("sbfd-ping"), "-c", "3", "-i", "0.1"});
		args.push_back(e2e::DAEMON_IP);
		return run_in(ns_i, args);
	};
	result r = ping({"--your-disc", "4711", "--my-disc", "77", "--poll"});
	EXPECT_EQ(r.status, 0) << r.out;
	EXPECT_TRUE(r.has("3 packets transmitted, 3 received, 0% packet loss")) << r.out;
	EXPECT_TRUE(r.has("24 bytes from 192.0.2.1:7784: seq=1 state=Up diag=0 (No Diagnostic) flags=F ")) << r.out;
	EXPECT_TRUE(r.has("my_disc=4711 your_disc=77 min_tx=1000000 min_rx=40000 min_echo_rx=0")) << r.out;
	EXPECT_TRUE(r.has("rtt min/avg/max/mdev = ")) << r.out;

	// Labelled: the next hop is learnt from the neighbour table, and every
	// probe leaves vi0 as an MPLS frame under label 0.
	r = ping({"--your-disc", "4711", "--my-disc", "78", "--mpls", "vi0"});
	EXPECT_EQ(r.status, 0) << r.out;
	EXPECT_TRUE(r.has("3 packets transmitted, 3 received")) << r.out;
	int labelled = 0;
	while (auto f = capture(std::chrono::milliseconds(200), /*outgoing=*/true))
		labelled += f->v.ethertype == ETH_TYPE_MPLS && f->v.label_entries == std::vector<std::uint32_t>{0x140} &&
			    f->v.dst_port == SBFD_PORT;
	EXPECT_EQ(labelled, 3);

	r = ping({"-W", "0.3", "--your-disc", "4712"});
	EXPECT_EQ(r.status, 1) << r.out;
	EXPECT_TRUE(r.has("3 packets transmitted, 0 received, 100% packet loss")) << r.out;
	const struct {
		std::vector<std::string> args;
		const char *message;
	} cases[] = {
		{{e2e::DAEMON_IP}, "missing --your-disc"},
		{{"--your-disc", "1", "192.0.2"}, "not an IPv4 address"},
		{{"--your-disc", "1", "--mpls", "nosuch0", e2e::DAEMON_IP}, "no interface nosuch0"},
	};
	for (const auto &c : cases) {
		std::vector<std::string> argv = {bin("sbfd-ping")};
		argv.insert(argv.end(), c.args.begin(), c.args.end());
		r = run_in(ns_i, argv);
		EXPECT_EQ(r.status, 2) << c.message << ": " << r.out;
		EXPECT_TRUE(r.has(c.message)) << r.out;
	}
}

TEST_F(ToolsInNamespace, StatShowsTheSessionsOfARunningDaemonInAllThreeFormats)
{
	start(77, 300000);
	for (std::uint32_t disc : {4242u, 4242u, 4343u})
		ASSERT_TRUE(ask(disc, 77));
	const std::string stat = bin("orvalindwarden-stat");

	// Text, store chosen by --netns: the sessions, the latest first.
	result r = run_in("", {stat, "--netns", nspath()}, {"NSPATH"});
	ASSERT_EQ(r.status, 0) << r.out;
	const std::size_t first = r.out.find("4343  192.0.2.2:"), second = r.out.find("4242  192.0.2.2:");
	ASSERT_NE(second, std::string::npos) << r.out;
	EXPECT_LT(first, second) << r.out;
	EXPECT_TRUE(r.has("Sessions in use: 2 of 512")) << r.out;

	// JSON, store chosen by NSPATH as the daemon chose it.
	r = run_in("", {stat, "--json"}, {"NSPATH=" + nspath()});
	ASSERT_EQ(r.status, 0) << r.out;
	auto doc = nlohmann::json::parse(r.out);
	EXPECT_EQ(doc["object"], shm_name());
	EXPECT_EQ(doc["counters"]["rx_valid_pkts"], 3);
	EXPECT_EQ(doc["counters"]["tx_sends"], 3);
	ASSERT_EQ(doc["sessions_in_use"], 2);
	EXPECT_EQ(doc["sessions"][0]["discriminator"], 4343);
	EXPECT_EQ(doc["sessions"][0]["address"], e2e::INITIATOR_IP);
	EXPECT_EQ(doc["sessions"][1]["num_received"], 2);
	EXPECT_EQ(doc["sessions"][1]["tx_state"], "Up");

	// Textfile metrics, store chosen by its object name.
	r = run_in("", {stat, "--prometheus", "--object", shm_name()}, {"NSPATH"});
	ASSERT_EQ(r.status, 0) << r.out;
	EXPECT_TRUE(r.has("orvalindwarden_session_received_total{discriminator=\"4242\",address=\"192.0.2.2\"} 2\n")) << r.out;
	EXPECT_TRUE(r.has("# TYPE orvalindwarden_tx_sends_total counter\n")) << r.out;
}

// Needs no privilege: option errors and a missing store.
TEST(StatTool, RejectsBadUsageAndAMissingStoreWithOneLineAndItsExitStatus)
{
	const std::string missing = "orvstat-none-" + std::to_string(getpid());
	const struct {
		std::vector<std::string> args;
		int status;
		std::string text;
	} cases[] = {
		{{"--object", missing}, 1, "no shared store \"" + missing + "\""},
		{{"--watch", "0"}, 2, "--watch needs seconds above 0"},
		{{"extra"}, 2, "unexpected argument"},
	};
	for (const auto &c : cases) {
		std::vector<std::string> argv{bin("orvalindwarden-stat")};
		argv.insert(argv.end(), c.args.begin(), c.args.end());
		testutil::child_process p(argv, {"NSPATH"});
		EXPECT_EQ(p.exit_status(), c.status) << c.args[0];
		EXPECT_EQ(p.out(), "") << c.args[0];
		const std::string err = p.err();
		EXPECT_NE(err.find(c.text), std::string::npos) << err;
		if (c.status == 1)
			EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
	}
}

}  // namespace
