// stat_e2e_test.cpp -- orvalindwarden-stat against a running reflector: a
// daemon in one namespace answers sbfd-ping from another, and the tool shows
// its sessions as text, JSON and textfile metrics, and refreshes in place.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "testutil.h"

namespace {

const std::string BIN = ORV_BIN_DIR;
constexpr const char *DAEMON_IP = "192.0.2.1";
constexpr const char *INITIATOR_IP = "192.0.2.2";
constexpr const char *REFLECTOR_DISC = "77";
constexpr int PROBES = 3;
constexpr const char *WARMUP_DISC = "1111";

// Two namespaces joined by a veth pair, the daemon in the first with its own
// NSPATH (so its own store), trace directory and a saved pid file.
class StatInNamespace : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (const char *why = testutil::missing_net_admin())
			GTEST_SKIP() << why;
		tag = testutil::unique_name("orvstat");
		nsd.emplace(tag + "-d");
		nsi.emplace(tag + "-i");
		ASSERT_TRUE(nsd->ok() && nsi->ok());
		veth.emplace(nsd->name(), "sd0", std::string(DAEMON_IP) + "/24", nsi->name(), "si0",
			     std::string(INITIATOR_IP) + "/24");
		ASSERT_TRUE(veth->ok());
		shm.emplace("orvalindwarden-" + tag);
		ASSERT_TRUE(logs.ok());
		daemon.emplace(std::vector<std::string>{"ip", "netns", "exec", nsd->name(), BIN + "/orvalindwarden",
							"-d", REFLECTOR_DISC, "-p", DAEMON_IP, "-r", "300000"},
			       std::vector<std::string>{"BREVLOG_DIR=" + logs.path(), nspath_env()});
		// Until the daemon's sockets are open and the neighbours resolved,
		// requests may go unanswered: warm up with a session of its own.
		ASSERT_TRUE(ping(WARMUP_DISC)) << daemon->err();
	}

	std::string nspath_env() const { return "NSPATH=/" + tag; }

	// Sends PROBES requests with discriminator `my_disc`; true when answered.
	bool ping(const std::string &my_disc)
	{
		// The daemon may still be opening its sockets: retry for a while.
		return testutil::wait_until(
			[&] {
				testutil::child_process p({"ip", "netns", "exec", nsi->name(), BIN + "/sbfd-ping", "-q",
							   "-c", std::to_string(PROBES), "-i", "0.05", "-W", "0.5",
							   "--my-disc", my_disc, "--your-disc", REFLECTOR_DISC,
							   DAEMON_IP});
				return p.exit_status(std::chrono::seconds(10)) == 0;
			},
			std::chrono::seconds(10));
	}

	// Runs orvalindwarden-stat with `args`; returns its exit status and output.
	std::pair<int, std::string> stat(const std::vector<std::string> &args,
					 const std::vector<std::string> &env = {"NSPATH"})
	{
		std::vector<std::string> argv{BIN + "/orvalindwarden-stat"};
		argv.insert(argv.end(), args.begin(), args.end());
		testutil::child_process p(argv, env);
		int rc = p.exit_status();
		return {rc, p.out() + p.err()};
	}

	std::string tag;
	testutil::file_restore pidfile{"/var/run/orvalindwarden.pid"};
	testutil::temp_dir logs{"orvstat-logs"};
	std::optional<testutil::netns> nsd, nsi;
	std::optional<testutil::veth_pair> veth;
	std::optional<testutil::shm_object> shm;
	std::optional<testutil::child_process> daemon;
};

TEST_F(StatInNamespace, ShowsTheSessionsOfARunningDaemonInAllThreeFormats)
{
	ASSERT_TRUE(ping("4242"));
	ASSERT_TRUE(ping("4343"));

	// Text, store chosen by --netns: the sessions, the latest first.
	auto [rc, text] = stat({"--netns", "/" + tag});
	ASSERT_EQ(rc, 0) << text;
	std::size_t first = text.find("4343  192.0.2.2:"), second = text.find("4242  192.0.2.2:");
	ASSERT_NE(first, std::string::npos) << text;
	ASSERT_NE(second, std::string::npos) << text;
	EXPECT_LT(first, second) << text;
	EXPECT_NE(text.find("Sessions in use: 3 of 512"), std::string::npos) << text;

	// JSON, store chosen by NSPATH as the daemon chose it.
	auto [jrc, json] = stat({"--json"}, {nspath_env()});
	ASSERT_EQ(jrc, 0) << json;
	auto doc = nlohmann::json::parse(json);
	EXPECT_EQ(doc["object"], "orvalindwarden-" + tag);
	EXPECT_GE(doc["counters"]["rx_valid_pkts"].get<int>(), 2 * PROBES + 1);
	EXPECT_EQ(doc["counters"]["tx_sends"], doc["counters"]["rx_valid_pkts"]);
	ASSERT_EQ(doc["sessions_in_use"], 3);
	EXPECT_EQ(doc["sessions"][0]["discriminator"], 4343);
	EXPECT_EQ(doc["sessions"][0]["address"], INITIATOR_IP);
	EXPECT_EQ(doc["sessions"][1]["num_received"], PROBES);
	EXPECT_EQ(doc["sessions"][1]["num_sent"], PROBES);
	EXPECT_EQ(doc["sessions"][1]["tx_state"], "Up");

	// Textfile metrics, store chosen by its object name.
	auto [prc, prom] = stat({"--prometheus", "--object", "orvalindwarden-" + tag});
	ASSERT_EQ(prc, 0) << prom;
	EXPECT_NE(prom.find("orvalindwarden_session_received_total{discriminator=\"4242\",address=\"192.0.2.2\"} " +
			    std::to_string(PROBES) + "\n"),
		  std::string::npos)
		<< prom;
	EXPECT_NE(prom.find("# TYPE orvalindwarden_tx_sends_total counter\n"), std::string::npos) << prom;
}

TEST_F(StatInNamespace, WatchRefreshesWithRatesUntilInterrupted)
{
	ASSERT_TRUE(ping("5151"));
	testutil::child_process w({BIN + "/orvalindwarden-stat", "--watch", "0.2"}, {nspath_env()});
	ASSERT_TRUE(ping("5151"));
	ASSERT_TRUE(testutil::wait_until([&] { return w.out().find("PER SECOND") != std::string::npos; },
					 std::chrono::seconds(5)))
		<< w.out() << w.err();
	w.signal(SIGINT);
	EXPECT_EQ(w.exit_status(), 0) << w.err();
	EXPECT_NE(w.out().find("\033[H\033[2J"), std::string::npos);
	EXPECT_NE(w.out().find("RX/S"), std::string::npos) << w.out();
}

// Runs without privilege: option errors and a missing store.
TEST(StatTool, RejectsBadUsageAndAMissingStoreWithOneLineAndItsExitStatus)
{
	const std::string missing = "orvstat-none-" + std::to_string(getpid());
	const struct {
		std::vector<std::string> args;
		int status;
		std::string text;
	} cases[] = {
		{{"--object", missing}, 1, "no shared store \"" + missing + "\""},
		{{"--netns", "/" + missing}, 1, "no shared store \"orvalindwarden-" + missing + "\""},
		{{"--watch", "0"}, 2, "--watch needs seconds above 0"},
		{{"--watch", "1", "--json"}, 2, "--watch shows the text report only"},
		{{"extra"}, 2, "unexpected argument"},
	};
	for (const auto &c : cases) {
		std::vector<std::string> argv{BIN + "/orvalindwarden-stat"};
		argv.insert(argv.end(), c.args.begin(), c.args.end());
		testutil::child_process p(argv, {"NSPATH"});
		EXPECT_EQ(p.exit_status(), c.status) << c.args[0];
		EXPECT_EQ(p.out(), "") << c.args[0];
		std::string err = p.err();
		EXPECT_NE(err.find(c.text), std::string::npos) << err;
		if (c.status == 1)
			EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
	}
}

}  // namespace
