// startup_test.cpp -- the daemon as a process: its command line, help text,
// presence rule and exit statuses, and real start-ups in a namespace of the
// test's own (trace records, pid file, the ignored signal, the shared store).
#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reflector.h"
#include "testutil.h"

namespace {

const std::string DAEMON = ORV_BIN_DIR "/orvalindwarden";
const std::string BLCAT = ORV_BIN_DIR "/blcat";
const char *const PID_FILE = testutil::DAEMON_PID_FILE;

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

struct cli_case {
	std::vector<std::string> args;
	const std::string &expected_stdout;
};

std::string joined(const std::vector<std::string> &args)
{
	std::string s;
	for (const auto &a : args)
		s += (s.empty() ? "" : " ") + a;
	return s;
}

// Runs the daemon with `args` where it must stop while parsing.
void expect_parse_exit(const cli_case &c)
{
	std::vector<std::string> argv{DAEMON};
	argv.insert(argv.end(), c.args.begin(), c.args.end());
	testutil::child_process p(argv);
	EXPECT_EQ(p.exit_status(), 0) << joined(c.args);
	EXPECT_EQ(p.out(), c.expected_stdout) << joined(c.args);
}

}  // namespace

TEST(StartupCommandLine, HelpIsPrintedExactlyAndEndsParsing)
{
	const cli_case cases[] = {
		{{"-h"}, HELP},
		{{"--help"}, HELP},
		{{"--he"}, HELP},
		{{"-d", "abc", "-h"}, HELP},  // stops before the presence rule
		{{"-d", "1", "-p", "192.0.2.1", "-r", "1", "-h", "-x"}, HELP},
	};
	for (const auto &c : cases)
		expect_parse_exit(c);
}

TEST(StartupCommandLine, UnrecognizedOptionsPrint63AndHelp)
{
	const cli_case cases[] = {
		{{"-x"}, UNRECOGNIZED},
		{{"--bogus"}, UNRECOGNIZED},
		{{"--d", "1"}, UNRECOGNIZED},  // discriminator or daemonize: ambiguous
		{{"-d"}, UNRECOGNIZED},        // missing argument
		{{"--minRx"}, UNRECOGNIZED},
		{{"--help=1"}, UNRECOGNIZED},
	};
	for (const auto &c : cases) {
		expect_parse_exit(c);
	}
	testutil::child_process p({DAEMON, "-x"});
	p.wait();
	EXPECT_NE(p.err(), "") << "getopt_long's own diagnostic goes to standard error";
}

// Every case here is otherwise complete, so reaching the presence message
// also shows that the flags before it were accepted.
TEST(StartupCommandLine, ZeroOrMissingValuesPrintThePresenceMessage)
{
	const cli_case cases[] = {
		{{}, MISSING},
		{{"-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"-d", "4294967296", "-p", "192.0.2.1", "-r", "1"}, MISSING},  // truncates to 0
		{{"-d", "abc", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"-d", "1", "-p", "0.0.0.0", "-r", "1"}, MISSING},
		{{"-d", "1", "-r", "1"}, MISSING},
		{{"-d", "1", "-p", "192.0.2.1", "-r", "0"}, MISSING},
		{{"-d", "1", "-p", "192.0.2.1", "-r", "4294967296"}, MISSING},
		{{"--discriminator", "1", "--sourceIp", "192.0.2.1"}, MISSING},
		{{"--persist", "-A", "-D", "-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"--pers", "-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"--p", "-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},
		{{"-S", "--adminDown", "--daemonize", "-r", "1"}, MISSING},
		{{"positional", "-d", "0"}, MISSING},
		{{"-d", "1", "-d", "0", "-p", "192.0.2.1", "-r", "1"}, MISSING},  // last one wins
	};
	for (const auto &c : cases)
		expect_parse_exit(c);
}

namespace {

// Lines of /proc/PID/net/netlink (the process's own namespace) show whether
// the daemon's control socket is bound yet: the last socket of start-up.
bool netlink_bound(pid_t pid)
{
	auto table = testutil::read_file("/proc/" + std::to_string(pid) + "/net/netlink");
	if (!table)
		return false;
	std::istringstream in(*table);
	std::string line;
	std::getline(in, line);  // header
	while (std::getline(in, line)) {
		std::istringstream f(line);
		std::string sk;
		long proto = -1, port = -1;
		f >> sk >> proto >> port;
		if (proto == 2 /* NETLINK_USERSOCK */ && port == pid)
			return true;
	}
	return false;
}

// "NAME=value" of the process's environment contains `entry`.
bool environ_has(pid_t pid, const std::string &entry)
{
	auto env = testutil::read_file("/proc/" + std::to_string(pid) + "/environ");
	return env && env->find(entry + '\0') != std::string::npos;
}

}  // namespace

// Real start-ups of the daemon in a namespace with 192.0.2.1 on a dummy link.
class DaemonInNamespace : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (const char *why = testutil::missing_net_admin())
			GTEST_SKIP() << why;
		// Every start writes the global pid file: keep a running system
		// daemon's file intact by not competing with it at all.
		if (auto content = testutil::read_file(PID_FILE)) {
			pid_t other = static_cast<pid_t>(std::atol(content->c_str()));
			auto comm = testutil::read_file("/proc/" + std::to_string(other) + "/comm");
			if (testutil::process_alive(other) && comm && comm->rfind("orvalindwarden", 0) == 0)
				GTEST_SKIP() << "a reflector daemon is running (pid " << other << ")";
		}
		pid_lock_.emplace(testutil::DAEMON_PID_FILE_LOCK);
		ASSERT_TRUE(pid_lock_->ok());
		pid_file_.emplace(PID_FILE);
		ns_.emplace(testutil::unique_name("orvtest"));
		ASSERT_TRUE(ns_->ok());
		link_.emplace(ns_->name(), "orvdum0", "192.0.2.1/24");
		ASSERT_TRUE(link_->ok());
		ASSERT_TRUE(trace_dir_.ok());
		nspath_ = "/" + ns_->name();
		store_.emplace("orvalindwarden-" + ns_->name());
		old_umask_ = umask(022);
	}
	void TearDown() override { umask(old_umask_); }

	std::unique_ptr<testutil::child_process> start(std::vector<std::string> args)
	{
		std::vector<std::string> argv{"ip", "netns", "exec", ns_->name(), DAEMON};
		argv.insert(argv.end(), args.begin(), args.end());
		return std::make_unique<testutil::child_process>(
			argv, std::vector<std::string>{"BREVLOG_DIR=" + trace_dir_.path(),
						       "NSPATH=" + nspath_});
	}

	// The trace rendered by blcat; empty when there is no usable reader yet.
	std::string trace() const
	{
		if (access(BLCAT.c_str(), X_OK) != 0)
			return "";
		return testutil::output_of(BLCAT + " " + trace_dir_.file("orvalindwarden.bl"));
	}
	bool trace_readable() const { return !trace().empty(); }

	mode_t old_umask_ = 0;
	std::optional<testutil::file_lock> pid_lock_;  // declared first: released last
	std::optional<testutil::file_restore> pid_file_;
	std::optional<testutil::netns> ns_;
	std::optional<testutil::dummy_link> link_;
	testutil::temp_dir trace_dir_{"orvtrace"};
	std::string nspath_;
	std::optional<testutil::shm_object> store_;
};

namespace {

// The store mapped read-write, as any local process may map it.
struct store_mapping {
	explicit store_mapping(const std::string &name)
	{
		int fd = shm_open(name.c_str(), O_RDWR | O_CREAT, 0644);
		if (fd < 0)
			return;
		if (ftruncate(fd, SHM_SIZE) == 0) {
			void *p = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
			if (p != MAP_FAILED)
				shm = static_cast<reflector_shm *>(p);
		}
		close(fd);
	}
	~store_mapping()
	{
		if (shm != nullptr)
			munmap(shm, SHM_SIZE);
	}
	store_mapping(const store_mapping &) = delete;
	store_mapping &operator=(const store_mapping &) = delete;
	reflector_shm *shm = nullptr;
};

}  // namespace

TEST_F(DaemonInNamespace, StartsTracesAndIgnoresSigrtmin9)
{
	auto d = start({"-d", "1", "-p", "192.0.2.1", "-r", "50000"});
	ASSERT_TRUE(testutil::wait_until([&] { return netlink_bound(d->pid()) || !d->running(); }))
		<< d->err();
	ASSERT_TRUE(d->running()) << "exit status " << d->exit_status(std::chrono::milliseconds(0));

	struct stat st {};
	ASSERT_EQ(stat(store_->path().c_str(), &st), 0);
	EXPECT_EQ(st.st_size, static_cast<off_t>(SHM_SIZE));
	EXPECT_EQ(st.st_mode & 0777, 0644u);
	EXPECT_EQ(testutil::read_file(PID_FILE).value_or(""), std::to_string(d->pid()) + "\n");

	kill(d->pid(), SIGRTMIN + 9);
	if (trace_readable())
		EXPECT_TRUE(testutil::wait_until([&] {
			return trace().find("Got SIG43 but ignore") != std::string::npos;
		}));
	else
		std::this_thread::sleep_for(std::chrono::milliseconds(200));
	EXPECT_TRUE(d->running()) << "SIGRTMIN+9 must not end the daemon";
	// Nothing is printed once the command line is accepted.
	EXPECT_EQ(d->out(), "");
	EXPECT_EQ(d->err(), "");

	if (!trace_readable())
		GTEST_SKIP() << "no trace reader (blcat) yet: trace records not checked";
	std::string t = trace();
	EXPECT_NE(t.find("INIT: Start SBFD Reflector with Discriminator: 1, sourceIp: 192.0.2.1, "
			 "minRx: 50000"),
		  std::string::npos)
		<< t;
	EXPECT_NE(t.find("INIT: orvalindwarden ready"), std::string::npos) << t;
	EXPECT_NE(t.find("vrf_init"), std::string::npos) << t;
	EXPECT_NE(t.find("init_socket"), std::string::npos) << t;
}

TEST_F(DaemonInNamespace, UnownedSourceAddressExitsWith255)
{
	auto d = start({"-d", "7", "-p", "198.51.100.77", "-r", "1000"});
	EXPECT_EQ(d->exit_status(), 255);
	EXPECT_EQ(d->out(), "");
	std::string t = trace();
	if (t.empty())
		GTEST_SKIP() << "no trace reader (blcat) yet: failure messages not checked";
	for (const char *msg : {"ERROR: bind() result -1, errno 99",
				"ERROR: reflector initialization failed", "ERROR: VRF init failed"})
		EXPECT_NE(t.find(msg), std::string::npos) << msg << "\n" << t;
	EXPECT_EQ(t.find("INIT: orvalindwarden ready"), std::string::npos) << t;
}

TEST_F(DaemonInNamespace, DetachedDaemonWritesItsOwnPid)
{
	auto d = start({"-D", "-d", "1", "-p", "192.0.2.1", "-r", "50000"});
	EXPECT_EQ(d->exit_status(), 0) << "the starting process returns once detached";

	// The pid file names the detached process; check it is ours by its
	// environment before taking charge of it.
	testutil::pid_owner daemon;
	ASSERT_TRUE(testutil::wait_until([&] {
		auto content = testutil::read_file(PID_FILE);
		pid_t pid = content ? static_cast<pid_t>(std::atol(content->c_str())) : 0;
		if (pid <= 0 || !environ_has(pid, "NSPATH=" + nspath_))
			return false;
		daemon.reset(pid);
		return true;
	}));
	EXPECT_NE(daemon.pid(), d->pid());
	EXPECT_TRUE(testutil::wait_until([&] { return netlink_bound(daemon.pid()); }));
	EXPECT_TRUE(testutil::process_alive(daemon.pid()));
}

TEST_F(DaemonInNamespace, PersistKeepsTheStoreAndOtherwiseItIsCleared)
{
	struct {
		const char *flag;
		std::uint64_t rx_drops_after;
		std::uint32_t slot_disc_after;
	} cases[] = {{"-S", 12345, 0x01020304}, {"--persist", 12345, 0x01020304}, {"-A", 0, 0}};
	for (const auto &c : cases) {
		store_mapping store(store_->name());
		ASSERT_NE(store.shm, nullptr);
		std::memset(store.shm, 0, SHM_SIZE);
		store.shm->rx_drops = 12345;
		store.shm->sessions[3].discriminator = 0x01020304;
		store.shm->sessions[3].source_ip = inet_addr("198.51.100.9");
		store.shm->sessions[3].num_received = 5;

		auto d = start({c.flag, "-d", "1", "-p", "192.0.2.1", "-r", "50000"});
		ASSERT_TRUE(testutil::wait_until([&] { return netlink_bound(d->pid()) || !d->running(); }));
		ASSERT_TRUE(d->running()) << c.flag;
		EXPECT_EQ(store.shm->rx_drops, c.rx_drops_after) << c.flag;
		EXPECT_EQ(store.shm->sessions[3].discriminator, c.slot_disc_after) << c.flag;
		d->signal(SIGKILL);
		d->wait();
	}
}
