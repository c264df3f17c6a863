// brevlog_test.cpp -- the trace writer: records round-trip through the file
// with their types and values, call sites are described once, rings keep the
// newest records, the file is placed and rotated as documented, and records
// written from a signal handler never disturb the interrupted record.
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

#include "bltest_util.h"
#include "trace.h"

bl_log *bl_handle;

namespace {

// Installs a trace handle in `dir` as the process-wide bl_handle.
struct global_handle {
	bl_env_dir env;
	global_handle(const std::string &dir, const char *sizes) : env(dir.c_str())
	{
		bl_handle = bl_initialize_handle("test.bl", sizes);
	}
	~global_handle()
	{
		bl_close(bl_handle);
		bl_handle = nullptr;
	}
};

}  // namespace

TEST(BrevlogWriter, RoundTripKeepsEveryTypeAndValue)
{
	bl_temp_dir dir;
	global_handle g(dir.path.string(), "4, 4");
	ASSERT_TRUE(bl_isInitialized(bl_handle));
	const char *text = "Mon Nov 23 01:25:36 2026\n";
	TRACE(1, "%d|%s|%d|%hu|%u|%lu|%hhu|%lld", true, text, (std::int32_t)-5, (std::uint16_t)7784,
	      (std::uint32_t)4000000000u, (std::uint64_t)UINT64_MAX, (std::uint8_t)255,
	      (std::int64_t)INT64_MIN);

	const auto recs = bl_read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), 1u);
	EXPECT_EQ(recs[0].level, 1u);
	const std::vector<std::pair<std::uint8_t, std::uint64_t>> want = {
		{BL_T_BOOL, 1}, {BL_T_CHARP, 0}, {BL_T_S32, static_cast<std::uint64_t>(-5)},
		{BL_T_U16, 7784}, {BL_T_U32, 4000000000u}, {BL_T_U64, UINT64_MAX},
		{BL_T_U8, 255}, {BL_T_S64, static_cast<std::uint64_t>(INT64_MIN)}};
	ASSERT_EQ(recs[0].values.size(), want.size());
	for (std::size_t i = 0; i < want.size(); i++) {
		EXPECT_EQ(recs[0].values[i].type, want[i].first) << i;
		if (want[i].first != BL_T_CHARP)
			EXPECT_EQ(recs[0].values[i].bits, want[i].second) << i;
	}
	EXPECT_EQ(recs[0].values[1].text, text);
	EXPECT_EQ(recs[0].text, std::string("1|") + text +
					"|-5|7784|4000000000|18446744073709551615|255|-9223372036854775808");
}

TEST(BrevlogWriter, CallSiteIsDescribedOnceAndKeepsItsId)
{
	bl_temp_dir dir;
	global_handle g(dir.path.string(), "4");
	for (std::uint32_t i = 0; i < 3; i++)
		TRACE(0, "INIT: step %u", i);
	const int line_a = __LINE__ + 1;
	TRACE(0, "INIT: same text");
	TRACE(0, "INIT: same text");

	const auto recs = bl_read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), 5u);
	EXPECT_EQ(recs[0].msg_id, recs[1].msg_id);
	EXPECT_EQ(recs[1].msg_id, recs[2].msg_id);
	EXPECT_EQ(recs[2].text, "INIT: step 2");
	EXPECT_NE(recs[3].msg_id, recs[4].msg_id) << "two call sites share a text, not an id";
	EXPECT_EQ(recs[3].where, std::string(__FILE__) + ":" + std::to_string(line_a));
	EXPECT_EQ(recs[4].where, std::string(__FILE__) + ":" + std::to_string(line_a + 1));
}

TEST(BrevlogWriter, NothingIsEvaluatedWhileTracingIsOff)
{
	bl_handle = nullptr;
	int evaluated = 0;
	auto value = [&] { return (std::uint32_t)++evaluated; };
	TRACE(1, "ERROR: %u", value());
	EXPECT_EQ(evaluated, 0);
	EXPECT_FALSE(bl_isInitialized(nullptr));
}

TEST(BrevlogWriter, FullRingKeepsOnlyTheNewestRecordsWhole)
{
	bl_temp_dir dir;
	global_handle g(dir.path.string(), "1");
	constexpr std::uint32_t N = 1000;
	for (std::uint32_t i = 0; i < N; i++)
		TRACE(0, "n=%u %s", i, i % 2 ? "odd" : "an even number");

	blr_stats stats;
	const auto recs = bl_read_all(dir.file("test.bl"), &stats);
	ASSERT_GT(recs.size(), 10u);
	ASSERT_LT(recs.size(), 60u) << "a 1 KiB ring holds a few dozen such records";
	for (std::size_t k = 0; k < recs.size(); k++) {
		const std::uint32_t i = N - static_cast<std::uint32_t>(recs.size()) +
					static_cast<std::uint32_t>(k);
		EXPECT_EQ(recs[k].text, "n=" + std::to_string(i) + (i % 2 ? " odd" : " an even number"));
	}
	EXPECT_EQ(stats.malformed, 0u);
}

TEST(BrevlogWriter, TextsAreCutToTheRecordSize)
{
	bl_temp_dir dir;
	global_handle g(dir.path.string(), "8");
	const std::string big(5000, 'x');
	TRACE(0, "%s %u", big.c_str(), 7u);
	const auto recs = bl_read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), 1u);
	ASSERT_EQ(recs[0].values.size(), 1u) << "the value after a full record is dropped";
	EXPECT_EQ(recs[0].values[0].text.size(), BL_MAX_RECORD - BL_REC_HDR_SIZE - 3);
}

TEST(BrevlogWriter, PreviousRunIsKeptWithSuffixOne)
{
	bl_temp_dir dir;
	{
		global_handle g(dir.path.string(), "4");
		TRACE(0, "INIT: first run");
	}
	{
		global_handle g(dir.path.string(), "4");
		TRACE(0, "INIT: second run");
	}
	const auto old = bl_read_all(dir.file("test.bl.1"));
	const auto cur = bl_read_all(dir.file("test.bl"));
	ASSERT_EQ(old.size(), 1u);
	ASSERT_EQ(cur.size(), 1u);
	EXPECT_EQ(old[0].text, "INIT: first run");
	EXPECT_EQ(cur[0].text, "INIT: second run");
}

TEST(BrevlogWriter, RelativeDirectoryStaysPutAfterChdir)
{
	bl_temp_dir dir;
	const auto cwd = std::filesystem::current_path();
	std::filesystem::current_path(dir.path);
	struct restore {
		std::filesystem::path p;
		~restore() { std::filesystem::current_path(p); }
	} back{cwd};
	bl_env_dir env("sub/dir");
	bl_scoped_handle h(bl_initialize_handle("rel.bl", "4"));
	ASSERT_NE(h.h, nullptr) << std::strerror(errno);
	std::filesystem::current_path("/");
	const std::string path = bl_path(h.h);
	EXPECT_EQ(path, (dir.path / "sub/dir/rel.bl").string());
	EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(BrevlogWriter, DefaultDirectoryIsUsedWhenVariableIsUnset)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "needs root to create /var/log/brevlog";
	bl_env_dir env(nullptr);
	const std::string name = "bltest-" + std::to_string(getpid()) + ".bl";
	bl_scoped_handle h(bl_initialize_handle(name.c_str(), "4"));
	ASSERT_NE(h.h, nullptr) << std::strerror(errno);
	EXPECT_EQ(std::string(bl_path(h.h)), "/var/log/brevlog/" + name);
	std::filesystem::remove(bl_path(h.h));
}

TEST(BrevlogWriter, SizeListIsParsedStrictly)
{
	bl_temp_dir dir;
	bl_env_dir env(dir.path.c_str());
	std::string many = "1";
	for (int i = 0; i < 16; i++)
		many += ",1";
	const struct {
		const char *sizes;
		bool ok;
	} cases[] = {
		{"64, 512, 1024, 1024, 1024, 512, 1024", true},
		{"1", true},
		{" 2 ,3 ", true},
		{"1048576", true},
		{"", false},
		{"0", false},
		{"1048577", false},
		{"1,,2", false},
		{"1,", false},
		{"1 2", false},
		{"-1", false},
		{"12k", false},
		{many.c_str(), false},
	};
	for (const auto &c : cases) {
		errno = 0;
		bl_scoped_handle h(bl_initialize_handle("sizes.bl", c.sizes));
		EXPECT_EQ(h.h != nullptr, c.ok) << '"' << c.sizes << '"';
		if (!c.ok)
			EXPECT_EQ(errno, EINVAL) << c.sizes;
	}
}

// The child traces at levels 3 and 1 in a loop while the parent signals it;
// its handler traces at level 1. Every record must come back whole.
namespace {

volatile sig_atomic_t handled;
volatile sig_atomic_t stop_child;

void on_rt(int)
{
	handled = handled + 1;
	TRACE(TRACE_ERROR, "Got SIG43 but ignore %u", (std::uint32_t)handled);
}

void on_stop(int) { stop_child = 1; }

constexpr std::uint32_t MAIN_RECORDS_MAX = 400000;  // fits the 32 MiB rings below

[[noreturn]] void signalled_child(int ready_fd)
{
	bl_handle = bl_initialize_handle("test.bl", "4, 32768, 4, 32768");
	if (!bl_handle)
		_exit(3);
	struct sigaction sa = {};
	sa.sa_handler = on_rt;
	sigaction(SIGRTMIN + 9, &sa, nullptr);
	sa.sa_handler = on_stop;
	sigaction(SIGUSR1, &sa, nullptr);
	std::uint32_t i = 0;
	while (!stop_child) {
		if (i == 1000 && write(ready_fd, "r", 1) != 1)  // tracing is under way
			_exit(4);
		if (i < MAIN_RECORDS_MAX) {
			TRACE(TRACE_RX, "RX: n=%u %s %lu", i, "fixed text", (std::uint64_t)i * 3);
			TRACE(TRACE_ERROR, "ERROR: main %u", i);
			i++;
		}
		for (volatile int k = 0; k < 300; k = k + 1) {
		}
	}
	TRACE(TRACE_INIT, "INIT: handled %u main %u", (std::uint32_t)handled, i);
	_exit(0);
}

}  // namespace

TEST(BrevlogSignals, HandlerRecordsNeverDisturbTheInterruptedRecord)
{
	bl_temp_dir dir;
	bl_env_dir env(dir.path.c_str());
	int pfd[2];
	ASSERT_EQ(pipe(pfd), 0);
	const pid_t pid = fork();
	ASSERT_NE(pid, -1);
	if (pid == 0) {
		close(pfd[0]);
		signalled_child(pfd[1]);
	}
	close(pfd[1]);
	struct reap {
		pid_t pid;
		~reap()
		{
			if (pid > 0) {
				kill(pid, SIGKILL);
				waitpid(pid, nullptr, 0);
			}
		}
	} guard{pid};
	char c;
	ASSERT_EQ(read(pfd[0], &c, 1), 1);
	close(pfd[0]);

	constexpr int SIGNALS = 5000;
	int sent = 0;
	const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (sent < SIGNALS && std::chrono::steady_clock::now() < deadline) {
		if (kill(pid, SIGRTMIN + 9) == 0)
			sent++;
		else
			usleep(100);  // the child's signal queue is full
		if (sent % 50 == 0)
			usleep(50);  // let the main flow run between bursts
	}
	kill(pid, SIGUSR1);
	int status = 0;
	ASSERT_EQ(waitpid(pid, &status, 0), pid);
	guard.pid = 0;
	ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
	ASSERT_EQ(sent, SIGNALS);

	blr_stats stats;
	const auto recs = bl_read_all(dir.file("test.bl"), &stats);
	EXPECT_EQ(stats.malformed, 0u);
	std::uint32_t rx = 0, main_err = 0, sig = 0;
	bool done = false;
	for (const auto &r : recs) {
		ASSERT_FALSE(r.where.empty()) << "every record has its descriptor";
		if (r.level == TRACE_RX) {
			ASSERT_EQ(r.text, "RX: n=" + std::to_string(rx) + " fixed text " +
						  std::to_string(rx * 3ull));
			rx++;
		} else if (r.level == TRACE_ERROR && r.text.starts_with("ERROR: main ")) {
			ASSERT_EQ(r.text, "ERROR: main " + std::to_string(main_err));
			main_err++;
		} else if (r.level == TRACE_ERROR) {
			ASSERT_EQ(r.text, "Got SIG43 but ignore " + std::to_string(++sig));
		} else {
			EXPECT_EQ(r.text, "INIT: handled " + std::to_string(sig) + " main " +
						  std::to_string(rx));
			done = true;
		}
	}
	EXPECT_TRUE(done);
	EXPECT_EQ(sig, static_cast<std::uint32_t>(SIGNALS));
	EXPECT_EQ(main_err, rx);
	EXPECT_GT(rx, 0u);
}
