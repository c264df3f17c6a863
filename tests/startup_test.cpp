// startup_test.cpp -- the daemon as a process: its command line, help text,
// presence rule and exit statuses, and real start-ups in a namespace (the
// store, the trace records, the ignored signal, an unowned address, the
// kept store).
#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "e2e/e2eutil.h"

namespace {

const std::string HELP =
	"SBFD Reflector [-h] [-D] [-A] -d DISCRIMINATOR -p SOURCEIP -r MINRX \n"
	"Where OPTIONS are:\n"
	" -h | --help\n"
	" -d | --discriminator SBFD local discriminator\n"
	" -p | --sourceIp SBFD source IPv4 address\n"
	" -r | --minRx SBFD minimum Rx interval \n"
	" -A | --adminDown\n"
	" -D | --daemonize\n"
	" -S | --persist SBFD statistics\n";
const std::string UNRECOGNIZED = "Unrecognized command line option ( 63 ).\n\n" + HELP;
const std::string MISSING = "Error: All paramaters have to be set.\n\n" + HELP;

}  // namespace

// Every command line here ends while parsing, with status 0 and exactly
// this text on standard output. Cases reaching the presence message are
// otherwise complete, so the flags before it were accepted.
TEST(StartupCommandLine, HelpUnrecognizedOptionsAndMissingValuesPrintTheirTextAndExitZero)
{
	const struct {
		std::vector<std::string> args;
		const std::string &out;
	} cases[] = {
		{{"-h"}, HELP},
		{{"--help"}, HELP},
		{{"--he"}, HELP},
		{{"-d", "abc", "-h"}, HELP},  // stops before the presence rule
		{{"-d", "1", "-p", "192.0.2.1", "-r", "1", "-h", "-x"}, HELP},
		{{"-x"}, UNRECOGNIZED},
		{{"--d", "1"}, UNRECOGNIZED},  // discriminator or daemonize: ambiguous
		{{"-d"}, UNRECOGNIZED},        // missing argument
		{{"--help=1"}, UNRECOGNIZED},
		{{}, MISSING},
		{{"-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"-d", "4294967296", "-p", "192.0.2.1", "-r", "1"}, MISSING},  // truncates to 0
		{{"-d", "1", "-p", "0.0.0.0", "-r", "1"}, MISSING},
		{{"-d", "1", "-p", "192.0.2.1", "-r", "0"}, MISSING},
		{{"--discriminator", "1", "--sourceIp", "192.0.2.1"}, MISSING},
		{{"--persist", "-A", "-D", "-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"-S", "--adminDown", "--daemonize", "-r", "1"}, MISSING},
		{{"positional", "-d", "0"}, MISSING},
		{{"-d", "1", "-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},  // the last one wins
	};
	for (const auto &c : cases) {
		std::vector<std::string> argv{testutil::bin("orvalindwarden")};
		argv.insert(argv.end(), c.args.begin(), c.args.end());
		testutil::child_process p(argv);
		std::string joined;
		for (const auto &a : c.args)
			joined += a + " ";
		EXPECT_EQ(p.exit_status(), 0) << joined;
		EXPECT_EQ(p.out(), c.out) << joined;
		if (&c.out == &UNRECOGNIZED)
			EXPECT_NE(p.err(), "") << "getopt_long's own diagnostic goes to standard error";
	}
}

using DaemonInNamespace = e2e::E2eTest;

TEST_F(DaemonInNamespace, StartsTracesAndSurvivesSigrtmin9)
{
	start(1, 50000);
	struct stat st {};
	ASSERT_EQ(stat(b->shm_path().c_str(), &st), 0);
	EXPECT_EQ(st.st_size, 69720);
	EXPECT_EQ(st.st_mode & 0777, 0644u);
	kill(b->daemon_pid(), SIGRTMIN + 9);
	std::string t;
	EXPECT_TRUE(testutil::wait_until([&] { return (t = b->trace()).find("Got SIG43 but ignore") != std::string::npos; }));
	EXPECT_TRUE(b->daemon().running()) << "SIGRTMIN+9 must not end the daemon";
	EXPECT_EQ(b->daemon().out() + b->daemon().err(), "") << "nothing is printed once the command line is accepted";
	EXPECT_NE(t.find("INIT: Start SBFD Reflector with Discriminator: 1, sourceIp: 192.0.2.1, minRx: 50000"),
		  std::string::npos) << t;
	EXPECT_NE(t.find("INIT: orvalindwarden ready"), std::string::npos) << t;
}

TEST_F(DaemonInNamespace, UnownedSourceAddressExitsWith255)
{
	EXPECT_FALSE(b->spawn({"-d", "7", "-p", "198.51.100.77", "-r", "1000"}));
	EXPECT_EQ(b->daemon().exit_status(), 255);
	EXPECT_EQ(b->daemon().out(), "");
	const std::string t = b->trace();
	for (const char *msg :
	     {"ERROR: bind() result -1, errno 99", "ERROR: reflector initialization failed", "ERROR: VRF init failed"})
		EXPECT_NE(t.find(msg), std::string::npos) << msg << "\n" << t;
	EXPECT_EQ(t.find("INIT: orvalindwarden ready"), std::string::npos) << t;
}

TEST_F(DaemonInNamespace, PersistKeepsTheStoreAndOtherwiseItIsCleared)
{
	for (const char *flag : {"-S", "--persist", "-A"}) {
		const bool kept = flag[1] != 'A';
		e2e::shm_view store(b->shm_path(), /*create=*/true);
		ASSERT_TRUE(store.ok());
		std::memset(store.store(), 0, SHM_SIZE);
		store.store()->rx_drops = 12345;
		store.store()->sessions[3].discriminator = 0x01020304;
		store.store()->sessions[3].num_received = 5;
		ASSERT_TRUE(b->start(1, 50000, {flag})) << flag;
		EXPECT_EQ(store.store()->rx_drops, kept ? 12345u : 0u) << flag;
		EXPECT_EQ(store.store()->sessions[3].discriminator, kept ? 0x01020304u : 0u) << flag;
	}
}
