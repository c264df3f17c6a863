// tools_test.cpp -- the tools against a running reflector in a namespace:
// orvalindwarden-ctl changes showing in the very next reply and its error
// exits; sbfd-ping plain and labelled; orvalindwarden-stat in three formats.
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

result run(const std::vector<std::string> &argv, const std::vector<std::string> &env = {})
{
	testutil::child_process p(argv, env);
	return {p.exit_status(), p.out() + p.err()};
}

using ToolsInNamespace = e2e::E2eTest;

TEST_F(ToolsInNamespace, CtlChangesShowInTheNextReplyAndAnUnreachableDaemonIsReported)
{
	start(100, 1000);
	const std::string pid = std::to_string(daemon->pid());
	std::ofstream(logs.file("d.pid")) << pid << "\n";
	auto ctl = [&](std::vector<std::string> where, const std::vector<std::string> &what) {
		where.insert(where.begin(), bin("orvalindwarden-ctl"));
		where.insert(where.end(), what.begin(), what.end());
		return run(where);
	};
	for (const auto &[where, message] : std::initializer_list<std::pair<std::vector<std::string>, const char *>>{
		     {{"--netns", ns_d, "--pid", "4194305"}, "no process with pid 4194305"},  // above any pid
		     {{"--netns", "orvtest-none", "--pid", pid}, "netlink socket in namespace orvtest-none"},
		     {{"--netns", ns_d, "--pidfile", "/nonexistent/orv.pid"}, "cannot read pid file"},
		     {{"--pid", pid}, "another network namespace"},  // the daemon's port is not in ours
	     }) {
		const result r = ctl(where, {"-d", "9", "-r", "1", "-s", e2e::DAEMON_IP, "--admin-up"});
		EXPECT_TRUE(r.status == 1 && r.has(message)) << r.out;
	}

	result r = ctl({"--netns", ns_d, "--pidfile", logs.file("d.pid")}, {"-d", "200", "-r", "5000", "-s", e2e::DAEMON_IP, "--admin-down"});
	ASSERT_EQ(std::tuple(r.status, r.out), std::tuple(0, ""));
	auto reply = ask({.my_disc = 555, .your_disc = 200});
	ASSERT_TRUE(reply) << "no reply to the new discriminator";
	EXPECT_EQ(std::tuple(ntohl(reply->pkt.my_disc), ntohl(reply->pkt.min_rx_interval), bfd_state_of(reply->pkt), bfd_diag(reply->pkt)),
		  std::tuple(200u, 5000u, BFD_STATE_ADMIN_DOWN, BFD_DIAG_ADMIN_DOWN));
	EXPECT_FALSE(ask({.my_disc = 555, .your_disc = 100}, ms(300))) << "the old discriminator is someone else's now";

	// Up again, from a new address of the daemon's namespace.
	const std::vector<std::string> here = {"--netns", ns_d, "--pid", pid};
	ASSERT_EQ(testutil::run("ip -n " + ns_d + " addr add 192.0.2.3/24 dev vd0"), 0);
	ASSERT_EQ(ctl(here, {"-d", "200", "-r", "0", "-s", "192.0.2.3", "--admin-up"}).status, 0);
	reply = ask({.my_disc = 555, .your_disc = 200});
	ASSERT_TRUE(reply) << "no reply after the source change";
	EXPECT_EQ(std::tuple(bfd_state_of(reply->pkt), bfd_diag(reply->pkt), ntohl(reply->pkt.min_rx_interval), reply->v.src_ip,
			     reply->v.src_port, reply->v.tos, reply->v.ttl),
		  std::tuple(BFD_STATE_UP, 0, 0u, 0xc0000203u, SBFD_PORT, 0xc0, 255))
		<< "reply not from the new address, or without the socket's options";
	// 198.51.100.9 is no address of the daemon's namespace.
	ASSERT_EQ(ctl(here, {"-d", "100", "-r", "1000", "-s", "198.51.100.9", "--admin-up"}).status, 0);
	EXPECT_EQ(daemon->exit_status(), 0);
	EXPECT_NE(trace().find("ERROR: outfd init failed, terminate to retry"), std::string::npos);
}

TEST_F(ToolsInNamespace, SbfdPingReportsRepliesPlainAndLabelledAndLoss)
{
	start(4711, 40000);
	auto ping = [&](std::vector<std::string> args) {
		args.insert(args.begin(), {"ip", "netns", "exec", ns_i, bin("sbfd-ping"), "-c", "3", "-i", "0.1"});
		args.push_back(e2e::DAEMON_IP);
		return run(args);
	};
	result r = ping({"--your-disc", "4711", "--my-disc", "77", "--poll"});
	EXPECT_TRUE(r.status == 0 && r.has("24 bytes from 192.0.2.1:7784: seq=1 state=Up diag=0 (No Diagnostic) flags=F ") &&
		    r.has("my_disc=4711 your_disc=77 min_tx=1000000 min_rx=40000 min_echo_rx=0")) << r.out;

	// Labelled: the next hop is learnt from the neighbour table, and every
	// probe leaves vi0 under label 0.
	r = ping({"--your-disc", "4711", "--mpls", "vi0"});
	EXPECT_TRUE(r.status == 0 && r.has("3 packets transmitted, 3 received")) << r.out;
	int labelled = 0;
	while (auto f = capture(ms(200), /*outgoing=*/true))
		labelled += f->v.ethertype == ETH_TYPE_MPLS && f->v.label_entries == std::vector<std::uint32_t>{0x140} &&
			    f->v.dst_port == SBFD_PORT;
	EXPECT_EQ(labelled, 3);

	r = ping({"-W", "0.3", "--your-disc", "4712"});
	EXPECT_TRUE(r.status == 1 && r.has("3 packets transmitted, 0 received, 100% packet loss")) << r.out;
}

// The store found by --netns, by NSPATH as the daemon chose it, and by name.
TEST_F(ToolsInNamespace, StatFindsTheRunningDaemonsStoreAndShowsItInAllThreeFormats)
{
	start(77, 300000);
	for (std::uint32_t disc : {4242u, 4242u, 4343u})
		ASSERT_TRUE(ask({.my_disc = disc, .your_disc = 77}));
	const std::string stat = bin("orvalindwarden-stat");

	result r = run({stat, "--netns", nspath()}, {"NSPATH"});
	EXPECT_TRUE(r.status == 0 && r.has("4242  192.0.2.2:") && r.has("Sessions in use: 2 of 512")) << r.out;

	r = run({stat, "--json"}, {"NSPATH=" + nspath()});
	ASSERT_EQ(r.status, 0) << r.out;
	const auto doc = nlohmann::json::parse(r.out);
	EXPECT_EQ(std::tuple(doc["object"], doc["counters"]["rx_valid_pkts"], doc["counters"]["tx_sends"], doc["sessions_in_use"],
			     doc["sessions"][0]["discriminator"], doc["sessions"][1]["num_received"]),
		  std::tuple(shm_name(), 3, 3, 2, 4343, 2));

	r = run({stat, "--prometheus", "--object", shm_name()}, {"NSPATH"});
	EXPECT_TRUE(r.status == 0 &&
		    r.has("orvalindwarden_session_received_total{discriminator=\"4242\",address=\"192.0.2.2\"} 2\n")) << r.out;
}

}  // namespace
