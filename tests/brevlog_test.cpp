// brevlog_test.cpp -- the trace library and blcat: long texts are cut, rings
// keep the newest records, record times read as the system clock did,
// records written from a signal handler never disturb the interrupted one;
// the reader renders as printf does and survives corrupt and cut files (this
// suite also runs under ASan); blcat's output of every argument type, level
// filter, merge and exit statuses.
#include <gtest/gtest.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <regex>

#include "blreader.h"
#include "brevlog.h"
#include "testutil.h"
#include "trace.h"

bl_log *bl_handle;

void write_golden_records();  // at the end of this file, under a fixed file name

namespace {

// The process-wide handle on `name` in `dir` (BREVLOG_DIR while it lives),
// closed when it goes.
struct global_handle {
	global_handle(const std::string &dir, const char *sizes, const char *name = "test.bl")
	{
		setenv("BREVLOG_DIR", dir.c_str(), 1);
		bl_handle = bl_initialize_handle(name, sizes);
	}
	~global_handle()
	{
		bl_close(bl_handle);
		bl_handle = nullptr;
		unsetenv("BREVLOG_DIR");
	}
};

struct record {
	std::uint32_t level;
	std::uint64_t time_ns;
	std::string text;
	std::vector<blr_value> values;
};

// Every live record of `path`, time-ordered and rendered.
std::vector<record> read_all(const std::string &path, blr_stats *stats = nullptr)
{
	blr_file f;
	EXPECT_EQ(blr_open(f, path.c_str()), "");
	std::vector<blr_record> recs;
	blr_collect(f, ~0u, 0, recs);
	blr_sort(recs);
	std::vector<record> out;
	for (const blr_record &r : recs) {
		out.push_back({r.level, r.time_ns, "<no descriptor>", r.values});
		for (const blr_desc &d : f.descs)
			if (d.msg_id == r.msg_id)
				out.back().text = blr_format(d.fmt, r.values);
	}
	if (stats)
		*stats = f.stats;
	return out;
}

std::uint64_t realtime_ns()
{
	timespec ts;
	clock_gettime(CLOCK_REALTIME, &ts);
	return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<std::uint64_t>(ts.tv_nsec);
}

}  // namespace

TEST(BrevlogWriter, LongTextIsCutToTheRecordAndAFullRingKeepsOnlyTheNewestRecordsWhole)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "8, 1");
	TRACE(0, "%s %u", std::string(5000, 'x').c_str(), 7u);
	constexpr std::uint32_t N = 1000;
	for (std::uint32_t i = 0; i < N; i++)
		TRACE(1, "n=%u %s", i, i % 2 ? "odd" : "an even number");
	blr_stats stats;
	const auto recs = read_all(dir.file("test.bl"), &stats);
	ASSERT_GT(recs.size(), 11u);
	ASSERT_LT(recs.size(), 61u) << "a 1 KiB ring holds a few dozen such records";
	ASSERT_EQ(recs[0].values.size(), 1u) << "the value after the cut text is dropped";
	EXPECT_EQ(recs[0].values[0].text.size(), BL_MAX_RECORD - BL_REC_HDR_SIZE - 3);
	for (std::size_t k = 1; k < recs.size(); k++) {
		const std::size_t i = N - recs.size() + k;
		EXPECT_EQ(recs[k].text, "n=" + std::to_string(i) + (i % 2 ? " odd" : " an even number"));
	}
	EXPECT_EQ(stats.malformed, 0u);
}

namespace {

void trace_nested(int) { TRACE(TRACE_ERROR, "ERROR: nested"); }

}  // namespace

// Record times may come from the TSC, interpolated between anchors taken
// from the system clock; they must still read as the system clock did, also
// after a pause longer than the anchor interval, and never step back. A
// handler's record nested in a record held open that long takes the time of
// the moment too (it may not take a new anchor under the interrupted
// record); so does the next outermost record.
TEST(BrevlogWriter, RecordTimesLieBetweenClockReadingsAroundThem)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "64, 8");
	ASSERT_TRUE(bl_isInitialized(bl_handle));
	struct sigaction sa = {}, saved = {};
	sa.sa_handler = trace_nested;
	ASSERT_EQ(sigaction(SIGRTMIN + 9, &sa, &saved), 0);
	const testutil::undo restore{[&] { sigaction(SIGRTMIN + 9, &saved, nullptr); }};

	std::vector<std::string> texts;
	std::vector<std::pair<std::uint64_t, std::uint64_t>> windows;  // clock readings around each record
	auto timed = [&](const std::string &text, auto write) {
		texts.push_back(text);
		windows.emplace_back(realtime_ns(), 0);
		write();
		windows.back().second = realtime_ns();
	};
	std::uint32_t n = 0;
	for (const std::uint32_t ms : {0, 1, 60, 0, 130, 5}) {
		usleep(ms * 1000);
		for (std::uint32_t k = 0; k < 200; k++, n++)
			timed("INIT: " + std::to_string(n), [&] { TRACE(0, "INIT: %u", n); });
	}
	alignas(16) unsigned char desc[trace_detail::DESC_BLOCK_SIZE];
	ASSERT_LE(bl_msgDescSize(), static_cast<int>(sizeof desc));
	std::uint32_t id = 0;
	bl_msgDescInit(bl_handle, desc, &id, "outer.cpp", 1);
	bl_addMsg(desc, "INIT: outer");
	bl_finish(desc);
	std::uint64_t slot = 0;
	timed("INIT: outer", [&] { bl_startMsg(bl_handle, &slot, id, 0); });
	usleep(120 * 1000);
	timed("ERROR: nested", [] { raise(SIGRTMIN + 9); });
	bl_endMsg(bl_handle, 0);
	timed("INIT: after", [] { TRACE(0, "INIT: after"); });

	constexpr std::uint64_t SLACK_NS = 1000000;  // interpolation error allowed
	const auto recs = read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), texts.size());
	for (std::size_t i = 0; i < recs.size(); i++) {
		ASSERT_EQ(recs[i].text, texts[i]) << "time order is writing order";
		EXPECT_GE(recs[i].time_ns + SLACK_NS, windows[i].first) << texts[i];
		EXPECT_LE(recs[i].time_ns, windows[i].second + SLACK_NS) << texts[i];
	}
}

// The child traces at levels 3 and 1 in a loop while the parent signals it;
// its handler traces at level 1. Every record must come back whole.
namespace {

volatile sig_atomic_t handled, stop_child;

void on_rt(int)
{
	handled = handled + 1;
	TRACE(TRACE_ERROR, "Got SIG43 but ignore %u", (std::uint32_t)handled);
}

void on_stop(int) { stop_child = 1; }

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
		if (i < 400000) {  // fits the 32 MiB rings
			TRACE(TRACE_RX, "RX: n=%u %s %lu", i, "fixed text", (std::uint64_t)i * 3);
			TRACE(TRACE_ERROR, "ERROR: main %u", i);
			i++;
		}
		for (volatile int k = 0; k < 300;)
			k = k + 1;
	}
	TRACE(TRACE_INIT, "INIT: handled %u main %u", (std::uint32_t)handled, i);
	_exit(0);
}

}  // namespace

TEST(BrevlogSignals, HandlerRecordsNeverDisturbTheInterruptedRecord)
{
	testutil::temp_dir dir;
	setenv("BREVLOG_DIR", dir.path().c_str(), 1);
	int pfd[2];
	ASSERT_EQ(pipe(pfd), 0);
	pid_t pid = fork();
	ASSERT_NE(pid, -1);
	if (pid == 0) {
		close(pfd[0]);
		signalled_child(pfd[1]);
	}
	const testutil::undo reap{[&] {
		unsetenv("BREVLOG_DIR");
		if (pid > 0)
			kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
	}};
	close(pfd[1]);
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
	pid = 0;
	ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
	ASSERT_EQ(sent, SIGNALS);

	blr_stats stats;
	const auto recs = read_all(dir.file("test.bl"), &stats);
	EXPECT_EQ(stats.malformed, 0u);
	std::uint32_t rx = 0, main_err = 0, sig = 0;
	bool done = false;
	for (const auto &r : recs) {
		if (r.level == TRACE_RX) {
			ASSERT_EQ(r.text, "RX: n=" + std::to_string(rx) + " fixed text " + std::to_string(rx * 3ull));
			rx++;
		} else if (r.level == TRACE_ERROR && r.text.starts_with("ERROR: main "))
			ASSERT_EQ(r.text, "ERROR: main " + std::to_string(main_err++));
		else if (r.level == TRACE_ERROR)
			ASSERT_EQ(r.text, "Got SIG43 but ignore " + std::to_string(++sig));
		else
			done = r.text == "INIT: handled " + std::to_string(sig) + " main " + std::to_string(rx);
	}
	EXPECT_TRUE(done);
	EXPECT_EQ(sig, static_cast<std::uint32_t>(SIGNALS));
	EXPECT_EQ(main_err, rx);
	EXPECT_GT(rx, 0u);
}

namespace {

template <typename T> std::string c_printf(const char *fmt, T v)
{
	char buf[256];
	std::snprintf(buf, sizeof buf, fmt, v);
	return buf;
}
blr_value num(bl_type t, std::uint64_t bits) { return {t, bits, {}}; }
blr_value sgn(bl_type t, std::int64_t v) { return {t, static_cast<std::uint64_t>(v), {}}; }
blr_value txt(const char *s) { return {BL_T_CHARP, 0, s}; }

}  // namespace

TEST(BlreaderFormat, ConversionsRenderAsPrintfWithTheConversionsType)
{
	const struct {
		const char *fmt;
		std::vector<blr_value> values;
		std::string want;
	} cases[] = {
		{"%u", {sgn(BL_T_S32, -1)}, "4294967295"},
		{"%-5d|%+.5d", {sgn(BL_T_S32, -3), sgn(BL_T_S32, 42)}, "-3   |+00042"},
		{"%x %X %#o", {num(BL_T_U32, 0xdeadbeef), num(BL_T_U32, 0xab), num(BL_T_U16, 8)}, "deadbeef AB 010"},
		{"%hd", {num(BL_T_U32, 70000)}, c_printf("%hd", static_cast<short>(70000))},
		{"%lld", {num(BL_T_U64, UINT64_MAX)}, "-1"},
		{"%p", {num(BL_T_U64, 0x1234)}, c_printf("%p", reinterpret_cast<void *>(0x1234))},
		{"%c%c", {num(BL_T_U8, 65), num(BL_T_U16, 0x142)}, "AB"},
		{"%.3s|%-4s|", {txt("abcdef"), txt("x")}, "abc|x   |"},
		{"a trailing %", {}, "a trailing %"},
		{"%n%d", {num(BL_T_U8, 5)}, "%n5"},
		{"%*d|%d", {num(BL_T_U8, 5)}, "%*d|5"},
		{"%f %u", {num(BL_T_U32, 1), num(BL_T_U32, 2)}, "<?> 2"},
		{"%ls", {txt("wide")}, "<?>"},
		{"%d", {num(BL_T_U32, 7), num(BL_T_U32, 8)}, "7"},
		{"%99999999d", {num(BL_T_U32, 7)}, "%99999999d"},
		{"%y", {num(BL_T_U32, 7)}, "%y"},
	};
	for (const auto &c : cases)
		EXPECT_EQ(blr_format(c.fmt, c.values), c.want) << '"' << c.fmt << '"';
}

namespace {

std::vector<unsigned char> bytes_of(const std::string &path)
{
	const std::string s = testutil::read_file(path);
	return {s.begin(), s.end()};
}

// Two trace files, written once per process (a call site describes itself
// only on its first use): golden.bl with the golden records at fixed times,
// and wrapped.bl, two 1 KiB levels with level 0 wrapped.
class TraceFile : public ::testing::Test {
protected:
	static void SetUpTestSuite()
	{
		dir = new testutil::temp_dir;
		{
			global_handle g(dir->path(), "4, 4, 4", "golden.bl");
			write_golden_records();
		}
		// Every record's time, in writing order, becomes 2024-03-01
		// 12:00:00 UTC plus 1.5 ms per record, so that the rendering is
		// reproducible.
		std::vector<unsigned char> image = bytes_of(golden());
		blr_file f;
		ASSERT_EQ(blr_attach(f, image, "golden.bl"), "");
		std::vector<blr_record> recs;
		blr_collect(f, ~0u, 0, recs);
		blr_sort(recs);
		const int fd = open(golden().c_str(), O_WRONLY);
		std::uint64_t t = 1709294400ull * 1000000000ull;
		for (const auto &r : recs) {
			const blr_level &l = f.levels[r.level];
			EXPECT_EQ(pwrite(fd, &t, sizeof t, static_cast<off_t>(l.ring_off + r.pos % l.ring_size + 16)), 8);
			t += 1500000;
		}
		close(fd);
		global_handle g(dir->path(), "1, 1", "wrapped.bl");
		for (std::uint32_t i = 0; i < 40; i++)
			TRACE(0, "INIT: %u %s %d", i, "text", (std::int64_t)-1);
		TRACE(1, "ERROR: %hhu %c %s|", (std::uint16_t)7784, (std::uint8_t)'x', "a\nb");
	}
	static void TearDownTestSuite() { delete dir; }
	static std::string golden() { return dir->file("golden.bl"); }
	static std::string expected() { return testutil::read_file(ORV_SOURCE_DIR "/tests/data/blcat_golden.txt"); }
	static inline testutil::temp_dir *dir;
};

struct blcat_result {
	int status;
	std::string out, err;
};

blcat_result blcat(std::vector<std::string> args)
{
	args.insert(args.begin(), testutil::bin("blcat"));
	testutil::child_process p(args, {"TZ=UTC"});
	const int status = p.exit_status();
	return {status, p.out(), p.err()};
}

}  // namespace

TEST_F(TraceFile, EverySingleByteCorruptionIsRejectedOrSkipped)
{
	std::vector<unsigned char> image = bytes_of(dir->file("wrapped.bl"));
	// Renders every record; false when the image does not open.
	auto renders = [&] {
		blr_file f;
		if (!blr_attach(f, image, "c.bl").empty())
			return false;
		std::vector<blr_record> recs;
		blr_collect(f, ~0u, 0, recs);
		blr_sort(recs);
		for (const auto &r : recs)
			blr_render(f, r);
		return true;
	};
	ASSERT_TRUE(renders());
	auto u64_at = [&](std::size_t off) {
		std::uint64_t v;
		std::memcpy(&v, image.data() + off, 8);
		return v;
	};
	const std::uint64_t ring0 = u64_at(64), ring1 = u64_at(96);
	const std::pair<std::uint64_t, std::uint64_t> regions[] = {
		{0, 128}, {4096, 4096 + u64_at(40) + 8}, {ring0, ring0 + 1024}, {ring1, ring1 + 1024}};
	int rejected = 0;
	for (const auto &[from, to] : regions)
		for (std::uint64_t off = from; off < to; off++)
			for (const unsigned char flip : {0xffu, 0x01u, 0x80u}) {
				image[off] ^= flip;
				rejected += !renders();
				image[off] ^= flip;
			}
	EXPECT_GT(rejected, 0);
}

TEST_F(TraceFile, BlcatPrintsAllLevelsMergedInTimeOrder)
{
	const blcat_result r = blcat({golden()});
	if (std::getenv("BLCAT_UPDATE_GOLDEN"))  // regenerate after a deliberate change
		std::ofstream(ORV_SOURCE_DIR "/tests/data/blcat_golden.txt") << r.out;
	EXPECT_EQ(r.status, 0);
	EXPECT_EQ(r.err, "");
	EXPECT_EQ(r.out, expected());
}

TEST_F(TraceFile, BlcatSelectsLevelsAndMergesFilesByTime)
{
	// The golden output split into records: a record starts with its time stamp.
	static const std::regex start("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{9} L");
	std::vector<std::string> all;
	std::istringstream in(expected());
	for (std::string line; std::getline(in, line);)
		if (all.empty() || std::regex_search(line, start))
			all.push_back(line + "\n");
		else
			all.back() += line + "\n";
	const struct {
		const char *levels;
		std::vector<const char *> shown;
	} cases[] = {{"1", {" L1 "}}, {"0,2", {" L0 ", " L2 "}}, {"1-2", {" L1 ", " L2 "}}};
	for (const auto &c : cases) {
		std::string want;
		for (const auto &rec : all)
			for (const char *tag : c.shown)
				if (rec.find(tag) == 29)
					want += rec;
		const blcat_result r = blcat({"-l", c.levels, golden()});
		EXPECT_EQ(r.status, 0) << c.levels;
		EXPECT_EQ(r.out, want) << c.levels;
	}
	const std::string copy = dir->file("copy.bl");
	std::filesystem::copy_file(golden(), copy, std::filesystem::copy_options::overwrite_existing);
	std::string want;
	for (const auto &rec : all)
		want += rec + rec;  // same times: the first file's record comes first
	const blcat_result r = blcat({golden(), copy});
	EXPECT_EQ(r.status, 0);
	EXPECT_EQ(r.out, want);
}

TEST_F(TraceFile, BlcatGivesOneErrorLineAndStatusOneForAnUnusableOrCutFile)
{
	const std::string img = testutil::read_file(golden()), size = std::to_string(img.size());
	std::string other_version = img, random(5000, '\0');
	other_version[8] = 2;
	for (std::size_t i = 0; i < random.size(); i++)
		random[i] = static_cast<char>((i * 7919 + 13) % 251);
	const struct {
		const char *name;
		std::string content, why;
	} cases[] = {
		{"empty.bl", "", "not a trace file (empty)"},
		{"cut7.bl", img.substr(0, 7), "not a trace file"},
		{"cut8.bl", img.substr(0, 8), "truncated (8 bytes, header is 4096)"},
		{"cut4095.bl", img.substr(0, 4095), "truncated (4095 bytes, header is 4096)"},
		{"cut4096.bl", img.substr(0, 4096), "truncated (4096 bytes, header says " + size + ")"},
		{"cut1.bl", img.substr(0, img.size() - 1), "truncated (" + std::to_string(img.size() - 1) + " bytes, header says " + size + ")"},
		{"random.bl", random, "not a trace file"},
		{"version.bl", other_version, "unsupported trace file version 2"},
		{"missing.bl", "", "No such file or directory"},
	};
	for (const auto &c : cases) {
		const std::string path = dir->file(c.name);
		if (c.name != std::string("missing.bl"))
			std::ofstream(path, std::ios::binary) << c.content;
		const blcat_result r = blcat({golden(), path});
		EXPECT_EQ(r.status, 1) << c.name;
		EXPECT_EQ(r.out, "") << c.name;
		EXPECT_EQ(r.err, "blcat: " + path + ": " + c.why + "\n");
	}
}

TEST_F(TraceFile, BlcatUsageErrorsExitWithTwo)
{
	for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
		     {}, {"-l", "16", golden()}, {"-l", "", golden()}, {"-x", golden()}, {"-l"}}) {
		const blcat_result r = blcat(args);
		EXPECT_EQ(r.status, 2) << (args.empty() ? "" : args[0]);
		EXPECT_EQ(r.out, "");
		EXPECT_NE(r.err.find("usage: blcat"), std::string::npos);
	}
}

// The golden records, under a fixed file name and line numbers so that the
// golden output does not depend on where the tree is checked out: every
// argument type, the extremes of each, and the reader's rendering rules.
#line 100 "golden_writer.cpp"
void write_golden_records()
{
	TRACE(TRACE_INIT, "INIT: orvalindwarden starting, pid %d", (std::int32_t)4242);
	for (std::uint32_t i = 0; i < 3; i++)
		TRACE(TRACE_EVENT, "EVENT: socket %d ready, round %09lu", (std::int32_t)7, (std::uint64_t)i);
	TRACE(TRACE_ERROR, "ERROR: sendto() result %zd, errno %d (%s)", (std::int64_t)-1, (std::int32_t)11,
	      "Resource temporarily unavailable");
	TRACE(TRACE_ERROR, "ERROR: port %hhu ttl %hhu flag %d", (std::uint16_t)7784, (std::uint8_t)255, true);
	TRACE(TRACE_EVENT, "EVENT: wide %d low %u", (std::int64_t)-4294967291ll, (std::uint64_t)0x100000005ull);
	TRACE(TRACE_INIT, "INIT: started at %s", "Fri Mar  1 12:00:00 2024\n");
	TRACE(TRACE_ERROR, "ERROR: %s %d", (std::uint32_t)1);
	TRACE(TRACE_EVENT, "EVENT: 100%% [%-6s] [%6.2s] %c", "left", "right", (std::uint8_t)'Z');
	TRACE(TRACE_ERROR, "ERROR: %d|%s|%d|%hu|%u|%lu|%hhu|%lld", true, "text", (std::int32_t)-5, (std::uint16_t)7784,
	      (std::uint32_t)4000000000u, (std::uint64_t)UINT64_MAX, (std::uint8_t)255, (std::int64_t)INT64_MIN);
}
