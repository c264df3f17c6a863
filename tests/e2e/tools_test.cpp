// tools_test.cpp -- the tools against a running reflector in a namespace:
// sbfd-ping plain and labelled, with a deadline, a host name and ICMP
// errors; orvalindwarden-stat in three formats, of two instances, and
// --delta; every tool's --version. (orvalindwarden-ctl: ctl_test; forged
// replies: sbfd_probe_test; series names and promtool: shmstat_test.)
#include <nlohmann/json.hpp>

#include <regex>

#include "e2e/e2eutil.h"
#include "runstate.h"

namespace {

using e2e::bin, e2e::ms, e2e::result, e2e::run;
using ToolsInNamespace = e2e::E2eTest;

TEST_F(ToolsInNamespace, SbfdPingReportsRepliesPlainAndLabelled)
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
}

// -w ends a run at its deadline however many probes went, and makes -c a
// count of replies; a host name is resolved and shown with its address; an
// ICMP error answers its probe, is shown and counted, and with -w ends the run.
TEST_F(ToolsInNamespace, SbfdPingKeepsItsDeadlineTakesHostNamesAndReportsIcmpErrors)
{
	start(4711, 40000);  // deaf to 4712
	auto ping = [&](std::vector<std::string> args) {
		args.insert(args.begin(), {"ip", "netns", "exec", ns_i, bin("sbfd-ping")});
		const auto t0 = std::chrono::steady_clock::now();
		const result r = run(args);
		return std::pair(r, std::chrono::steady_clock::now() - t0);
	};
	auto [r, took] = ping({"-w", "1", "-c", "2", "-i", "0.2", "--your-disc", "4712", e2e::DAEMON_IP});
	std::smatch sent;
	EXPECT_TRUE(r.status == 1 && took < std::chrono::seconds(3) &&
		    std::regex_search(r.out, sent, std::regex("\n(\\d+) packets transmitted, 0 received, 100% packet loss")) &&
		    std::stoul(sent[1]) > 2) << "not ended by the deadline, or stopped sending at -c: " << r.out;
	std::tie(r, took) = ping({"-w", "5", "-c", "2", "-i", "0.1", "--your-disc", "4711", e2e::DAEMON_IP});
	EXPECT_TRUE(r.status == 0 && took < std::chrono::seconds(3) && r.has("\n2 packets transmitted, 2 received, 0% packet loss"))
		<< "not ended by the second reply: " << r.out;

	// The name is known only to the private mount namespace's /etc/hosts.
	std::ofstream(logs.file("hosts")) << "192.0.2.1 orv-reflector.test\n";
	r = run({"unshare", "-m", "sh", "-ec", "mount --bind \"$0\" /etc/hosts; exec \"$@\"", logs.file("hosts"), "ip", "netns",
		 "exec", ns_i, bin("sbfd-ping"), "-c", "1", "--your-disc", "4711", "orv-reflector.test"});
	EXPECT_TRUE(r.status == 0 && r.has("SBFD-PING orv-reflector.test (192.0.2.1):7784 from 192.0.2.2:") &&
		    r.has("\n24 bytes from 192.0.2.1:7784: seq=1 state=Up") &&
		    r.has("\n--- orv-reflector.test sbfd-ping statistics ---\n1 packets transmitted, 1 received")) << r.out;

	// Nothing listens on 192.0.2.3:7784: its kernel answers port unreachable
	// (unlimited in rate, so that every probe gets one).
	ASSERT_EQ(testutil::run("ip -n " + ns_d + " addr add 192.0.2.3/24 dev vd0 && ip netns exec " + ns_d +
				" sysctl -qw net.ipv4.icmp_ratelimit=0"), 0);
	std::tie(r, took) = ping({"-c", "3", "-i", "0.2", "--your-disc", "4712", "192.0.2.3"});
	EXPECT_TRUE(r.status == 1 && r.has("\nFrom 192.0.2.3 seq=1 Destination Port Unreachable\nFrom 192.0.2.3 seq=2 ") &&
		    r.has("\nFrom 192.0.2.3 seq=3 Destination Port Unreachable\n") &&
		    r.has("\n3 packets transmitted, 0 received, +3 errors, 100% packet loss")) << r.out;
	std::tie(r, took) = ping({"-w", "5", "-i", "0.2", "--your-disc", "4712", "192.0.2.3"});
	EXPECT_TRUE(r.status == 1 && took < std::chrono::seconds(3) &&
		    r.has("\n1 packets transmitted, 0 received, +1 errors, 100% packet loss")) << r.out;
}

// The store found by --netns, by NSPATH as the daemon chose it, and by
// name, with the live counters; the daemon holding it, its configuration
// from the run-state file, and the initiator gone silent (4242 announced
// 1 x 0.1 s: silent after the 1 s floor) apart from the one still within
// its 3 x 1 s; a name without a store is an error. The view is one for all
// formats: how each renders it is shmstat_test's golden files.
TEST_F(ToolsInNamespace, StatFindsTheRunningDaemonsStoreAndShowsItInAllThreeFormats)
{
	start(77, 300000);
	for (std::uint32_t disc : {4242u, 4242u})
		ASSERT_TRUE(ask({.my_disc = disc, .your_disc = 77, .multiplier = 1, .min_tx_us = 100000}));
	std::this_thread::sleep_for(ms(1200));
	ASSERT_TRUE(ask({.my_disc = 4343, .your_disc = 77}));
	const std::string stat = bin("orvalindwarden-stat"), pid = std::to_string(daemon->pid());

	result r = run({stat, "--netns", nspath()}, {"NSPATH"});
	EXPECT_TRUE(r.status == 0 && r.has("\ndaemon: pid " + pid + ", started ") &&
		    r.has("\nconfiguration: discriminator 77, source 192.0.2.1, min_rx 300000us, admin up, since ") &&
		    r.has("4242  192.0.2.2:") && r.has("Sessions in use: 2 of 512, 1 silent,")) << r.out;
	r = run({stat, "--netns", nspath(), "--silent"}, {"NSPATH"});
	EXPECT_TRUE(r.status == 0 && r.has("4242  192.0.2.2:") && !r.has("4343  192.0.2.2:")) << r.out;

	r = run({stat, "--json"}, {"NSPATH=" + nspath()});
	ASSERT_EQ(r.status, 0) << r.out;
	const auto doc = nlohmann::json::parse(r.out);
	EXPECT_EQ(std::tuple(doc["object"], doc["counters"]["rx_valid_pkts"], doc["counters"]["tx_sends"], doc["sessions_in_use"],
			     doc["sessions"][0]["discriminator"], doc["sessions"][1]["num_received"]),
		  std::tuple(shm_name(), 3, 3, 2, 4343, 2));

	r = run({stat, "--prometheus", "--object", shm_name()}, {"NSPATH"});
	const std::string store = "{store=\"" + shm_name() + "\"";
	EXPECT_TRUE(r.status == 0 && r.has("\norvalindwarden_up" + store + "} 1\n") &&
		    r.has("\norvalindwarden_session_received_total" + store + ",discriminator=\"4242\",address=\"192.0.2.2\"} 2\n"))
		<< r.out;
	r = run({stat, "--object", shm_name() + "-none"});
	EXPECT_TRUE(r.status == 1 && r.has("no shared store \"" + shm_name() + "-none\"")) << r.out;
}

// Two instances, each with its store and run-state file: both up, each with
// its own configuration; the second killed, its metrics still written with
// status 0, up 0 and its configuration unknown. (That two instances share no
// series and that promtool accepts the text: shmstat_test.)
TEST_F(ToolsInNamespace, StatMetricsOfTwoInstancesStayApartAndADeadOneIsDown)
{
	const std::string blue = shm_name() + "-blue";
	const testutil::undo leftovers{[&] {
		unlink(e2e::state_file(blue).c_str());
		shm_unlink(blue.c_str());
	}};
	start(77, 300000);
	ASSERT_TRUE(ask({.my_disc = 4242, .your_disc = 77}));
	ASSERT_EQ(testutil::run("ip -n " + ns_d + " addr add 192.0.2.3/24 dev vd0"), 0);
	testutil::temp_dir blue_logs{"orvlogs"};
	std::optional<testutil::child_process> second;
	second.emplace(std::vector<std::string>{"ip", "netns", "exec", ns_d, bin("orvalindwarden"), "-d", "88", "-p", "192.0.2.3", "-r", "1000"},
		       std::vector<std::string>{"BREVLOG_DIR=" + blue_logs.path(), "NSPATH=" + nspath() + "-blue"});
	ASSERT_TRUE(testutil::wait_until([&] { return testutil::read_file(e2e::state_file(blue)).find("\npid ") != std::string::npos; },
					 std::chrono::seconds(10)))
		<< "second daemon not ready: " << second->out() << second->err();

	auto render = [&](const std::string &object) {
		const result r = run({bin("orvalindwarden-stat"), "-P", "-o", object});
		EXPECT_EQ(r.status, 0) << r.out;
		return r.out;
	};
	const std::string both = render(shm_name()) + render(blue);
	for (const auto &[object, disc, source] : {std::tuple{shm_name(), "77", "192.0.2.1"}, std::tuple{blue, "88", "192.0.2.3"}}) {
		const std::string up = "orvalindwarden_up{store=\"" + object + "\"} 1";
		EXPECT_NE(both.find("\n" + up + "\n"), std::string::npos) << both;
		EXPECT_NE(both.find(std::string(",discriminator=\"") + disc + "\",source=\"" + source + "\","), std::string::npos);
	}
	const std::string second_pid = std::to_string(second->pid());
	second.reset();  // SIGKILL: the store and the run-state file stay
	const std::string down = render(blue);
	EXPECT_NE(down.find("\norvalindwarden_up{store=\"" + blue + "\"} 0\n"), std::string::npos) << down;
	EXPECT_NE(down.find("\norvalindwarden_info{store=\"" + blue + "\",version=\"" ORV_VERSION "\"} 1\n"), std::string::npos) << down;
	const result r = run({bin("orvalindwarden-stat"), "-o", blue});
	EXPECT_TRUE(r.status == 0 && r.has("\ndaemon: none holds the store\nconfiguration: unknown (stale run-state file: pid " +
					    second_pid + " is not running)\n")) << r.out;
}

// --delta: changes since the caller's last call, kept in its history file
// (given, or under $XDG_RUNTIME_DIR); --reset a new baseline, printing
// nothing. (A store that went back, and one of another daemon: shmstat_test.)
TEST_F(ToolsInNamespace, StatDeltaShowsChangesSinceTheLastCallKeptInItsHistoryFile)
{
	start(77, 300000);
	ASSERT_TRUE(ask({.my_disc = 4242, .your_disc = 77}));
	const std::string history = logs.file("h.delta");
	// The reply may reach the initiator before the daemon counts it.
	auto settled = [&] {
		return testutil::wait_until([&] {
			const reflector_shm st = store();
			return st.tx_sends == st.rx_valid_pkts;
		});
	};
	auto delta = [&](const std::vector<std::string> &more = {}, const std::vector<std::string> &env = {}) {
		EXPECT_TRUE(settled());
		std::vector<std::string> argv = {bin("orvalindwarden-stat"), "-o", shm_name(), "--delta", "--json"};
		argv.insert(argv.end(), more.begin(), more.end());
		const result r = run(argv, env);
		EXPECT_EQ(r.status, 0) << r.out;
		return r.status == 0 ? nlohmann::json::parse(r.out) : nlohmann::json{};
	};
	ASSERT_TRUE(settled());
	result r = run({bin("orvalindwarden-stat"), "-o", shm_name(), "--reset", "--history", history});
	EXPECT_EQ(std::tuple(r.status, r.out), std::tuple(0, ""));
	for (std::uint32_t disc : {4242u, 4343u})
		ASSERT_TRUE(ask({.my_disc = disc, .your_disc = 77}));
	auto doc = delta({"--history", history});
	EXPECT_EQ(std::tuple(doc["counters"]["rx_valid_pkts"], doc["counters"]["tx_sends"], doc["notes"].size(), doc["sessions"][0]["received"],
			     doc["sessions"][0]["new"], doc["sessions"][1]["received"], doc["sessions"][1]["new"]),
		  std::tuple(2, 2, 0u, 1, true, 1, false));

	// The default file, made under $XDG_RUNTIME_DIR with its directory, and
	// written by each call.
	const std::vector<std::string> env = {"XDG_RUNTIME_DIR=" + logs.path()};
	doc = delta({}, env);
	EXPECT_EQ(doc["notes"][0], "no baseline: counts since the store was made");
	EXPECT_NE(testutil::read_file(logs.file("orvalindwarden-stat/" + shm_name() + ".delta")).find("\nobject " + shm_name() + "\n"),
		  std::string::npos);
	EXPECT_EQ(delta({}, env)["notes"].size(), 0u);
}

// Each tool prints its name and the project's version, and nothing else.
TEST(Tools, PrintTheirNameAndTheProjectVersion)
{
	for (const std::string tool : {"blcat", "sbfd-ping", "orvalindwarden-ctl", "orvalindwarden-stat"}) {
		const result r = run({bin(tool), "--version"});
		EXPECT_EQ(std::tuple(r.status, r.out), std::tuple(0, tool + " " ORV_VERSION "\n"));
	}
}

}  // namespace
