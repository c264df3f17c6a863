// init_test.cpp -- start-up: the store's name, netnsSocketAt, vrf_init's
// failure after the store is set up, the command line and its exit status.
#include <sys/mman.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include "e2e/e2eutil.h"
#include "rxutil.h"

TEST(ShmStoreName, PrefixesAndFlattensTheNamespacePathUpTo241Characters)
{
	const std::string a241(241, 'a'), longer = a241 + "/differs-after-241";
	for (const auto &[nspath, expected] : std::initializer_list<std::pair<const char *, std::string>>{
		     {nullptr, "orvalindwarden"}, {"", "orvalindwarden"}, {"/var/run/netns/blue", "orvalindwarden-var-run-netns-blue"},
		     {"blue", "orvalindwardenblue"}, {a241.c_str(), "orvalindwarden" + a241}, {longer.c_str(), "orvalindwarden" + a241}}) {
		char name[SHM_NAME_LEN];
		std::memset(name, 'x', sizeof name);
		shm_store_name(name, nspath);
		EXPECT_EQ(std::string(name, SHM_NAME_LEN), expected + std::string(SHM_NAME_LEN - expected.size(), '\0')) << "padded with NULs";
	}
}

TEST(NetnsSocketAt, DefaultIsHereAndBadNamesFailWithTheirErrno)
{
	EXPECT_GE(unique_fd(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, "default")).get(), 0);
	const std::string missing = testutil::unique_name("orvtest-missing");
	for (const auto &[name, err] : std::initializer_list<std::pair<const char *, int>>{
		     {nullptr, EINVAL}, {"", EINVAL}, {"a/b", EINVAL}, {"../netns", EINVAL}, {missing.c_str(), ENOENT}}) {
		errno = 0;
		EXPECT_EQ(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, name), -1) << (name ? name : "(null)");
		EXPECT_EQ(errno, err) << (name ? name : "(null)");
	}
}

// Under the sanitizers this also shows that the teardown frees what it made.
// (The daemon then ends with status 255: fault_test, install_test.)
TEST(VrfInit, UnbindableSourceFailsAfterTheStoreIsSetUpAndPersistKeepsIt)
{
	auto &tr = rxt::trace_reader::get();
	const std::string nspath = "/" + testutil::unique_name("orvtest");
	char name[SHM_NAME_LEN];
	shm_store_name(name, nspath.c_str());
	setenv("NSPATH", nspath.c_str(), 1);
	testutil::undo cleanup{[&] {
		shm_unlink(name);
		unsetenv("NSPATH");
		reflector_cfg = {};
	}};
	reflector_cfg = {};
	reflector_cfg.sourceIp = inet_addr("198.51.100.77");
	tr.take();
	EXPECT_EQ(vrf_init(), nullptr);
	EXPECT_THAT(tr.take(TRACE_ERROR), testing::Contains("ERROR: bind() result -1, errno 99"));
	// A counter left by a previous run survives only with persist.
	unique_fd fd{shm_open(name, O_RDWR, 0)};
	auto *shm = static_cast<reflector_shm *>(mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0));
	ASSERT_NE(shm, MAP_FAILED) << "the store is made before the sockets";
	for (std::uint8_t persist : {0, 1}) {
		shm->rx_drops = 12345;
		reflector_cfg.persist = persist;
		EXPECT_EQ(vrf_init(), nullptr);
		EXPECT_EQ(shm->rx_drops, persist ? 12345u : 0u) << "persist " << int{persist};
	}
	munmap(shm, SHM_SIZE);
}

using InitInNamespace = e2e::E2eTest;

// The end-to-end bench makes its sockets there; here the way back, also
// when socket() fails inside.
TEST_F(InitInNamespace, NetnsSocketAtReturnsHomeAndKeepsTheErrnoOfAFailureThere)
{
	struct stat before {}, after {};
	stat("/proc/self/ns/net", &before);
	EXPECT_GE(unique_fd(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, ns_d.c_str())).get(), 0) << std::strerror(errno);
	errno = 0;
	EXPECT_EQ(netnsSocketAt(AF_MAX + 1, SOCK_DGRAM, 0, ns_d.c_str()), -1);
	EXPECT_EQ(errno, EAFNOSUPPORT);
	stat("/proc/self/ns/net", &after);
	EXPECT_EQ(after.st_ino, before.st_ino);
}

// Each ends while parsing, with status 0 and the help text after a line
// that says why.
TEST(StartupCommandLine, HelpUnrecognizedOptionsAndMissingValuesPrintTheirTextAndExitZero)
{
	const std::string HELP = "SBFD Reflector [-h] [-D] [-A] -d DISCRIMINATOR -p SOURCEIP -r MINRX \n";
	const std::string UNRECOGNIZED = "Unrecognized command line option ( 63 ).\n\n" + HELP;
	const std::string MISSING = "Error: All paramaters have to be set.\n\n" + HELP;
	const std::pair<std::vector<std::string>, const std::string &> cases[] = {  // arguments, first lines of output
		{{"-h"}, HELP},
		{{"-x"}, UNRECOGNIZED},
		{{"-d"}, UNRECOGNIZED},        // missing argument
		{{"-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"-d", "4294967296", "-p", "192.0.2.1", "-r", "1"}, MISSING},  // truncates to 0
		{{"-d", "1", "-p", "0.0.0.0", "-r", "1"}, MISSING},
		{{"-d", "1", "-p", "192.0.2.1", "-r", "0"}, MISSING},
		{{"--persist", "--adminDown", "--daemonize", "--discriminator", "0", "--sourceIp", "192.0.2.1", "-r", "1"}, MISSING},
		{{"-d", "1", "-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},  // the last one wins
	};
	for (const auto &[args, out] : cases) {
		std::vector<std::string> argv{testutil::bin("orvalindwarden")};
		argv.insert(argv.end(), args.begin(), args.end());
		testutil::child_process p(argv);
		const std::string what = testing::PrintToString(args);
		EXPECT_EQ(p.exit_status(), 0) << what;
		EXPECT_EQ(p.out().substr(0, out.size()), out) << what;
		EXPECT_NE(p.out().find(" -S | --persist SBFD statistics\n"), std::string::npos) << "the whole help text";
		if (&out == &UNRECOGNIZED) {
			EXPECT_NE(p.err(), "") << "getopt_long's own diagnostic goes to standard error";
		}
	}
}
