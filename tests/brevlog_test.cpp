// brevlog_test.cpp -- the trace library and blcat: records round-trip with
// their types and values, rings keep the newest records, the previous run is
// kept as .1, records written from a signal handler never disturb the
// interrupted one; the reader renders as printf does and survives corrupt
// and cut files (this suite also runs under ASan); blcat's output, level
// filter, merge and exit statuses.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include "blreader.h"
#include "brevlog.h"
#include "testutil.h"
#include "trace.h"

bl_log *bl_handle;

void write_golden_records();  // at the end of this file, under a fixed file name

namespace {

// Sets BREVLOG_DIR while it lives.
struct env_dir {
	explicit env_dir(const std::string &dir) { setenv("BREVLOG_DIR", dir.c_str(), 1); }
	~env_dir() { unsetenv("BREVLOG_DIR"); }
};

// The process-wide handle on `name` in `dir`, closed when it goes.
struct global_handle {
	env_dir env;
	global_handle(const std::string &dir, const char *sizes, const char *name = "test.bl") : env(dir)
	{
		bl_handle = bl_initialize_handle(name, sizes);
	}
	~global_handle()
	{
		bl_close(bl_handle);
		bl_handle = nullptr;
	}
};

struct record {
	std::uint32_t level, msg_id;
	std::uint64_t time_ns;
	std::string where, text;  // where: file:line
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
		record o{r.level, r.msg_id, r.time_ns, "", "", r.values};
		for (const blr_desc &d : f.descs)
			if (d.msg_id == r.msg_id) {
				o.where = d.file + ":" + std::to_string(d.line);
				o.text = blr_format(d.fmt, r.values);
			}
		out.push_back(std::move(o));
	}
	if (stats)
		*stats = f.stats;
	return out;
}

std::vector<unsigned char> bytes_of(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(in), {}};
}

}  // namespace

TEST(BrevlogWriter, RoundTripKeepsEveryTypeAndValue)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "4, 4");
	ASSERT_TRUE(bl_isInitialized(bl_handle));
	const char *text = "Mon Nov 23 01:25:36 2026\n";
	TRACE(1, "%d|%s|%d|%hu|%u|%lu|%hhu|%lld", true, text, (std::int32_t)-5, (std::uint16_t)7784,
	      (std::uint32_t)4000000000u, (std::uint64_t)UINT64_MAX, (std::uint8_t)255, (std::int64_t)INT64_MIN);
	const auto recs = read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), 1u);
	EXPECT_EQ(recs[0].level, 1u);
	const std::vector<std::pair<std::uint8_t, std::uint64_t>> want = {
		{BL_T_BOOL, 1},	   {BL_T_CHARP, 0},	     {BL_T_S32, static_cast<std::uint64_t>(-5)},
		{BL_T_U16, 7784},  {BL_T_U32, 4000000000u}, {BL_T_U64, UINT64_MAX},
		{BL_T_U8, 255},	   {BL_T_S64, static_cast<std::uint64_t>(INT64_MIN)}};
	ASSERT_EQ(recs[0].values.size(), want.size());
	for (std::size_t i = 0; i < want.size(); i++) {
		EXPECT_EQ(recs[0].values[i].type, want[i].first) << i;
		if (want[i].first != BL_T_CHARP)
			EXPECT_EQ(recs[0].values[i].bits, want[i].second) << i;
	}
	EXPECT_EQ(recs[0].text, std::string("1|") + text + "|-5|7784|4000000000|18446744073709551615|255|-9223372036854775808");
}

TEST(BrevlogWriter, LongTextIsCutToTheRecordAndLaterValuesDropped)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "8");
	TRACE(0, "%s %u", std::string(5000, 'x').c_str(), 7u);
	const auto recs = read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), 1u);
	ASSERT_EQ(recs[0].values.size(), 1u);
	EXPECT_EQ(recs[0].values[0].text.size(), BL_MAX_RECORD - BL_REC_HDR_SIZE - 3);
}

TEST(BrevlogWriter, FullRingKeepsOnlyTheNewestRecordsWhole)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "1");
	constexpr std::uint32_t N = 1000;
	for (std::uint32_t i = 0; i < N; i++)
		TRACE(0, "n=%u %s", i, i % 2 ? "odd" : "an even number");
	blr_stats stats;
	const auto recs = read_all(dir.file("test.bl"), &stats);
	ASSERT_GT(recs.size(), 10u);
	ASSERT_LT(recs.size(), 60u) << "a 1 KiB ring holds a few dozen such records";
	for (std::size_t k = 0; k < recs.size(); k++) {
		const std::size_t i = N - recs.size() + k;
		EXPECT_EQ(recs[k].text, "n=" + std::to_string(i) + (i % 2 ? " odd" : " an even number"));
	}
	EXPECT_EQ(stats.malformed, 0u);
}

TEST(BrevlogWriter, PreviousRunIsKeptWithSuffixOne)
{
	testutil::temp_dir dir;
	{
		global_handle g(dir.path(), "4");
		TRACE(0, "INIT: first run");
	}
	global_handle g(dir.path(), "4");
	TRACE(0, "INIT: second run");
	const auto old = read_all(dir.file("test.bl.1")), cur = read_all(dir.file("test.bl"));
	ASSERT_EQ(old.size(), 1u);
	ASSERT_EQ(cur.size(), 1u);
	EXPECT_EQ(old[0].text, "INIT: first run");
	EXPECT_EQ(cur[0].text, "INIT: second run");
}

std::uint64_t realtime_ns()
{
	timespec ts;
	clock_gettime(CLOCK_REALTIME, &ts);
	return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<std::uint64_t>(ts.tv_nsec);
}

// Record times may come from the TSC, interpolated between anchors taken
// from the system clock; they must still read as the system clock did, also
// after a pause longer than the anchor interval, and never step back.
TEST(BrevlogWriter, RecordTimesLieBetweenClockReadingsAroundThem)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "64");
	constexpr std::uint64_t SLACK_NS = 1000000;  // interpolation error allowed
	const std::uint32_t pauses_ms[] = {0, 1, 60, 0, 130, 5};
	constexpr std::uint32_t BURST = 200;
	std::vector<std::pair<std::uint64_t, std::uint64_t>> windows;
	std::uint32_t n = 0;
	for (const std::uint32_t ms : pauses_ms) {
		usleep(ms * 1000);
		for (std::uint32_t k = 0; k < BURST; k++) {
			const std::uint64_t before = realtime_ns();
			TRACE(0, "INIT: %u", n++);
			windows.emplace_back(before, realtime_ns());
		}
	}
	const auto recs = read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), windows.size());
	for (std::size_t i = 0; i < recs.size(); i++) {
		ASSERT_EQ(recs[i].text, "INIT: " + std::to_string(i)) << "time order is writing order";
		EXPECT_GE(recs[i].time_ns + SLACK_NS, windows[i].first) << i;
		EXPECT_LE(recs[i].time_ns, windows[i].second + SLACK_NS) << i;
	}
}

namespace {

void trace_nested(int) { TRACE(TRACE_ERROR, "ERROR: nested"); }

}  // namespace

// A handler's record nested in a record opened before a pause longer than
// the anchor interval takes the time of the moment too (it may not take a
// new anchor under the interrupted record); the next outermost record does.
TEST(BrevlogWriter, NestedRecordAfterALongOpenRecordKeepsTheClock)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "8, 8");
	ASSERT_TRUE(bl_isInitialized(bl_handle));
	struct sigaction sa = {}, saved = {};
	sa.sa_handler = trace_nested;
	ASSERT_EQ(sigaction(SIGRTMIN + 9, &sa, &saved), 0);
	struct restore {
		const struct sigaction *old;
		~restore() { sigaction(SIGRTMIN + 9, old, nullptr); }
	} guard{&saved};

	alignas(16) unsigned char desc[trace_detail::DESC_BLOCK_SIZE];
	ASSERT_LE(bl_msgDescSize(), static_cast<int>(sizeof desc));
	std::uint32_t id = 0;
	bl_msgDescInit(bl_handle, desc, &id, "outer.cpp", 1);
	bl_addMsg(desc, "INIT: outer");
	bl_finish(desc);

	std::uint64_t win[3][2], slot = 0;
	win[0][0] = realtime_ns();
	bl_startMsg(bl_handle, &slot, id, 0);
	win[0][1] = realtime_ns();
	usleep(120 * 1000);
	win[1][0] = realtime_ns();
	raise(SIGRTMIN + 9);
	win[1][1] = realtime_ns();
	bl_endMsg(bl_handle, 0);
	win[2][0] = realtime_ns();
	TRACE(0, "INIT: after");
	win[2][1] = realtime_ns();

	const auto recs = read_all(dir.file("test.bl"));
	ASSERT_EQ(recs.size(), 3u);
	const char *texts[] = {"INIT: outer", "ERROR: nested", "INIT: after"};
	constexpr std::uint64_t SLACK_NS = 1000000;
	for (std::size_t i = 0; i < 3; i++) {
		EXPECT_EQ(recs[i].text, texts[i]);
		EXPECT_GE(recs[i].time_ns + SLACK_NS, win[i][0]) << texts[i];
		EXPECT_LE(recs[i].time_ns, win[i][1] + SLACK_NS) << texts[i];
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
	env_dir env(dir.path());
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
	const auto recs = read_all(dir.file("test.bl"), &stats);
	EXPECT_EQ(stats.malformed, 0u);
	std::uint32_t rx = 0, main_err = 0, sig = 0;
	bool done = false;
	for (const auto &r : recs) {
		ASSERT_FALSE(r.where.empty()) << "every record has its descriptor";
		if (r.level == TRACE_RX) {
			ASSERT_EQ(r.text, "RX: n=" + std::to_string(rx) + " fixed text " + std::to_string(rx * 3ull));
			rx++;
		}
		else if (r.level == TRACE_ERROR && r.text.starts_with("ERROR: main "))
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
		{"%09lu", {num(BL_T_U64, 42)}, c_printf("%09lu", 42ul)},
		{"%hhu", {num(BL_T_U16, 7784)}, "104"},
		{"%zd", {sgn(BL_T_S64, -3)}, c_printf("%zd", static_cast<ssize_t>(-3))},
		{"%d", {sgn(BL_T_S64, -4294967291ll)}, c_printf("%d", static_cast<int>(-4294967291ll))},
		{"%u", {sgn(BL_T_S32, -1)}, "4294967295"},
		{"%-5d|", {sgn(BL_T_S32, -3)}, "-3   |"},
		{"%x %X", {num(BL_T_U32, 0xdeadbeef), num(BL_T_U32, 0xab)}, "deadbeef AB"},
		{"%#o", {num(BL_T_U16, 8)}, "010"},
		{"%hd", {num(BL_T_U32, 70000)}, c_printf("%hd", static_cast<short>(70000))},
		{"%lld", {num(BL_T_U64, UINT64_MAX)}, "-1"},
		{"%+.5d", {sgn(BL_T_S32, 42)}, "+00042"},
		{"%p", {num(BL_T_U64, 0x1234)}, c_printf("%p", reinterpret_cast<void *>(0x1234))},
		{"%c%c", {num(BL_T_U8, 65), num(BL_T_U16, 0x142)}, "AB"},
		{"%.3s|%6s|%-4s|", {txt("abcdef"), txt("ab"), txt("x")}, "abc|    ab|x   |"},
		{"100%% %u", {num(BL_T_U8, 5)}, "100% 5"},
		{"a trailing %", {}, "a trailing %"},
		{"%n%d", {num(BL_T_U8, 5)}, "%n5"},
		{"%*d|%d", {num(BL_T_U8, 5)}, "%*d|5"},
		{"%d", {txt("text")}, "<?>"},
		{"%s", {num(BL_T_U32, 1)}, "<?>"},
		{"%f %u", {num(BL_T_U32, 1), num(BL_T_U32, 2)}, "<?> 2"},
		{"%ls", {txt("wide")}, "<?>"},
		{"%d %d", {num(BL_T_U32, 7)}, "7 <?>"},
		{"%d", {num(BL_T_U32, 7), num(BL_T_U32, 8)}, "7"},
		{"%99999999d", {num(BL_T_U32, 7)}, "%99999999d"},
		{"%y", {num(BL_T_U32, 7)}, "%y"},
	};
	for (const auto &c : cases)
		EXPECT_EQ(blr_format(c.fmt, c.values), c.want) << '"' << c.fmt << '"';
}

namespace {

// Sets the time of every record, in writing order, to 2024-03-01 12:00:00
// UTC plus 1.5 ms per record, so that the rendering is reproducible.
void fix_times(const std::string &path)
{
	std::vector<unsigned char> image = bytes_of(path);
	blr_file f;
	ASSERT_EQ(blr_attach(f, image, path.c_str()), "");
	std::vector<blr_record> recs;
	blr_collect(f, ~0u, 0, recs);
	blr_sort(recs);
	const int fd = open(path.c_str(), O_WRONLY);
	ASSERT_NE(fd, -1);
	std::uint64_t t = 1709294400ull * 1000000000ull;
	for (const auto &r : recs) {
		const blr_level &l = f.levels[r.level];
		ASSERT_EQ(pwrite(fd, &t, sizeof t, static_cast<off_t>(l.ring_off + r.pos % l.ring_size + 16)), 8);
		t += 1500000;
	}
	close(fd);
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
		fix_times(golden());
		global_handle g(dir->path(), "1, 1", "wrapped.bl");
		for (std::uint32_t i = 0; i < 40; i++)
			TRACE(0, "INIT: %u %s %d", i, "text", (std::int64_t)-1);
		TRACE(1, "ERROR: %hhu %c %s|", (std::uint16_t)7784, (std::uint8_t)'x', "a\nb");
	}
	static void TearDownTestSuite() { delete dir; }
	static std::string golden() { return dir->file("golden.bl"); }
	static std::string expected()
	{
		return testutil::read_file(ORV_SOURCE_DIR "/tests/data/blcat_golden.txt").value_or("");
	}
	// Renders every record of `img`; the error when it does not open.
	static std::string read_image(std::span<const unsigned char> img)
	{
		blr_file f;
		const std::string why = blr_attach(f, img, "c.bl");
		if (!why.empty())
			return why;
		std::vector<blr_record> recs;
		blr_collect(f, ~0u, 0, recs);
		blr_sort(recs);
		for (const auto &r : recs)
			blr_render(f, r);
		return "";
	}
	static inline testutil::temp_dir *dir;
};

struct blcat_result {
	int status;
	std::string out, err;
};

blcat_result blcat(std::vector<std::string> args)
{
	args.insert(args.begin(), ORV_BIN_DIR "/blcat");
	testutil::child_process p(args, {"TZ=UTC"});
	const int status = p.exit_status();
	return {status, p.out(), p.err()};
}

// blcat output split into records: a record starts with its time stamp.
std::vector<std::string> split_records(const std::string &out)
{
	static const std::regex start("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{9} L");
	std::vector<std::string> recs;
	std::istringstream in(out);
	for (std::string line; std::getline(in, line);)
		if (recs.empty() || std::regex_search(line, start))
			recs.push_back(line + "\n");
		else
			recs.back() += line + "\n";
	return recs;
}

}  // namespace

TEST_F(TraceFile, EverySingleByteCorruptionIsRejectedOrSkipped)
{
	std::vector<unsigned char> image = bytes_of(dir->file("wrapped.bl"));
	ASSERT_EQ(read_image(image), "");
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
				rejected += !read_image(image).empty();
				image[off] ^= flip;
			}
	EXPECT_GT(rejected, 0);
}

TEST_F(TraceFile, CutFilesAreReportedAsTruncated)
{
	const std::vector<unsigned char> image = bytes_of(dir->file("wrapped.bl"));
	const std::string full = std::to_string(image.size());
	for (const std::size_t len : {std::size_t{0}, std::size_t{7}, std::size_t{8}, std::size_t{100},
				      std::size_t{4095}, std::size_t{4096}, std::size_t{5000}, image.size() / 2,
				      image.size() - 1}) {
		const std::string why = read_image({image.data(), len}), n = std::to_string(len);
		if (len < 8)
			EXPECT_EQ(why, "c.bl: not a trace file") << len;
		else if (len < 4096)
			EXPECT_EQ(why, "c.bl: truncated (" + n + " bytes, header is 4096)");
		else
			EXPECT_EQ(why, "c.bl: truncated (" + n + " bytes, header says " + full + ")");
	}
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
	const auto all = split_records(expected());
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

TEST_F(TraceFile, BlcatGivesOneErrorLineAndStatusOneForAnUnusableFile)
{
	const std::string img = testutil::read_file(golden()).value_or("");
	std::string other_version = img, random(5000, '\0');
	other_version[8] = 2;
	for (std::size_t i = 0; i < random.size(); i++)
		random[i] = static_cast<char>((i * 7919 + 13) % 251);
	const struct {
		const char *name;
		std::string content, why;
	} cases[] = {
		{"empty.bl", "", "not a trace file (empty)"},
		{"random.bl", random, "not a trace file"},
		{"version.bl", other_version, "unsupported trace file version 2"},
		{"short.bl", img.substr(0, 10000), "truncated (10000 bytes, header says " + std::to_string(img.size()) + ")"},
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
// golden output does not depend on where the tree is checked out.
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
}
