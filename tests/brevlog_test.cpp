// brevlog_test.cpp -- the trace library, its reader and blcat: the writer
// under wrap, cuts and signals, the reader under overtaking writers and
// corrupt files, and blcat's output, filter, merge, statuses and -f.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <numeric>
#include <thread>

#include "blreader.h"
#include "brevlog.h"
#include "testutil.h"
#include "trace.h"

bl_log *bl_handle;

void write_golden_records();  // at the end of this file, under a fixed file name

namespace {

// The process-wide handle on `name` in `dir` (BREVLOG_DIR while it lives).
struct global_handle {
	global_handle(const std::string &dir, const char *sizes, const char *name = "test.bl")
	{
		setenv("BREVLOG_DIR", dir.c_str(), 1);
		bl_handle = bl_initialize_handle(name, sizes);
	}
	~global_handle() { bl_close(std::exchange(bl_handle, nullptr)); unsetenv("BREVLOG_DIR"); }
};

// A pread cut in two: a read of `fd` longer than `at` bytes copies the
// first `at`, runs `midway` once (the writer overtaking the reader), then the
// rest. Other calls go to the C library.
struct {
	int fd = -1;
	std::size_t at = 0;
	std::function<void()> midway;
} pread_seam;

struct record : blr_record {
	std::string text;
};

// Every live record of `f`, time-ordered.
std::vector<blr_record> collect_all(blr_file &f)
{
	std::vector<blr_record> recs;
	blr_collect(f, ~0u, 0, recs);
	blr_sort(recs);
	return recs;
}

// Every live record of `path`, time-ordered and rendered.
std::vector<record> read_all(const std::string &path)
{
	blr_file f;
	EXPECT_EQ(blr_open(f, path.c_str()), "");
	std::vector<record> out;
	for (const blr_record &r : collect_all(f)) {
		out.push_back({r, "<no descriptor>"});
		for (const blr_desc &d : f.descs)
			if (d.msg_id == r.msg_id)
				out.back().text = blr_format(d.fmt, r.values);
	}
	return out;
}

blr_value num(bl_type t, std::uint64_t bits) { return {t, bits, {}}; }
blr_value txt(const char *s) { return {BL_T_CHARP, 0, s}; }

void trace_nested(int) { TRACE(TRACE_ERROR, "ERROR: nested"); }

volatile sig_atomic_t handled;

void on_rt(int)
{
	handled = handled + 1;
	TRACE(TRACE_ERROR, "Got SIG43 but ignore %u", (std::uint32_t)handled);
}

// Installs `fn` for SIGRTMIN + 9 while it lives.
struct rt_handler {
	explicit rt_handler(void (*fn)(int))
	{
		struct sigaction sa = {};
		sa.sa_handler = fn;
		sigaction(SIGRTMIN + 9, &sa, &saved);
	}
	~rt_handler() { sigaction(SIGRTMIN + 9, &saved, nullptr); }
	struct sigaction saved = {};
};

}  // namespace

extern "C" ssize_t pread(int fd, void *buf, size_t len, off_t off)
{
	using pread_fn = ssize_t (*)(int, void *, size_t, off_t);
	static const pread_fn real = reinterpret_cast<pread_fn>(dlsym(RTLD_NEXT, "pread"));
	auto &[seam_fd, at, midway] = pread_seam;
	if (fd != seam_fd || len <= at || !midway)
		return real(fd, buf, len, off);
	const ssize_t first = real(fd, buf, at, off);
	std::exchange(midway, nullptr)();
	if (first != static_cast<ssize_t>(at))
		return first;
	const ssize_t rest = real(fd, static_cast<char *>(buf) + at, len - at, off + static_cast<off_t>(at));
	return rest < 0 ? rest : first + rest;
}

TEST(BrevlogWriter, LongTextIsCutToTheRecordAndAFullRingKeepsOnlyTheNewestRecordsWhole)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "8, 1");
	TRACE(0, "%s %u", std::string(5000, 'x').c_str(), 7u);
	constexpr std::uint32_t N = 1000;
	for (std::uint32_t i = 0; i < N; i++)
		TRACE(1, "n=%u %s", i, i % 2 ? "odd" : "an even number");
	const auto recs = read_all(dir.file("test.bl"));
	ASSERT_TRUE(recs.size() > 11 && recs.size() < 61) << recs.size() << ": a 1 KiB ring holds a few dozen such records";
	ASSERT_EQ(recs[0].values.size(), 1u) << "the value after the cut text is dropped";
	EXPECT_EQ(recs[0].values[0].text.size(), BL_MAX_RECORD - BL_REC_HDR_SIZE - 3);
	for (std::size_t k = 1; k < recs.size(); k++) {
		const std::size_t i = N - recs.size() + k;
		EXPECT_EQ(recs[k].text, "n=" + std::to_string(i) + (i % 2 ? " odd" : " an even number"));  // none skipped
	}
}

// A trace file cut under the writer (copytruncate) turns the handle off at
// the first store into a lost page; SIGBUS of any other origin still ends
// the process (under a sanitizer, through the sanitizer's own report).
TEST(BrevlogWriterDeathTest, TruncatedFileTurnsTracingOffAndOtherSigbusStillEnds)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "8, 1");
	ASSERT_TRUE(bl_isInitialized(bl_handle));
	ASSERT_EQ(truncate(dir.file("test.bl").c_str(), 0), 0);
	TRACE(1, "into a page the file no longer has: %u", 1u);
	EXPECT_FALSE(bl_isInitialized(bl_handle));
	auto ends_abnormally = [](int status) { return !WIFEXITED(status) || WEXITSTATUS(status) != 0; };
	EXPECT_EXIT((raise(SIGBUS), std::_Exit(0)), ends_abnormally, "");
	auto store_beyond_an_empty_file = [&] {
		const int fd = open(dir.file("other").c_str(), O_RDWR | O_CREAT, 0600);
		*static_cast<volatile char *>(mmap(nullptr, 4096, PROT_WRITE, MAP_SHARED, fd, 0)) = 1;
		std::_Exit(0);
	};
	EXPECT_EXIT(store_beyond_an_empty_file(), ends_abnormally, "");
}

// Times interpolated between clock anchors read as the clock did, also
// after pauses longer than the anchor interval, for a handler's record
// nested in a long-open record and for the next outermost record.
TEST(BrevlogWriter, RecordTimesLieBetweenClockReadingsAroundThem)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "64, 8");
	const rt_handler rt(trace_nested);
	struct written { std::string text; std::uint64_t before, after; };  // clock readings around it
	std::vector<written> want;
	auto now_ns = [] { timespec t; clock_gettime(CLOCK_REALTIME, &t); return t.tv_sec * 1000000000ull + t.tv_nsec; };
	auto timed = [&](const std::string &text, auto write) {
		const std::uint64_t before = now_ns();
		write();
		want.push_back({text, before, now_ns()});
	};
	std::uint32_t n = 0;
	for (const std::uint32_t ms : {0, 60, 0, 130, 5}) {
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
	ASSERT_EQ(recs.size(), want.size());
	for (std::size_t i = 0; i < recs.size(); i++) {
		ASSERT_EQ(recs[i].text, want[i].text) << "time order is writing order";
		EXPECT_GE(recs[i].time_ns + SLACK_NS, want[i].before) << want[i].text;
		EXPECT_LE(recs[i].time_ns, want[i].after + SLACK_NS) << want[i].text;
	}
}

// This thread traces at levels 3 and 1 while another signals it; the
// handler traces at level 1. Every record must come back whole.
TEST(BrevlogSignals, HandlerRecordsNeverDisturbTheInterruptedRecord)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "4, 32768, 4, 32768");
	const rt_handler rt(on_rt);
	constexpr int SIGNALS = 5000;
	std::atomic<bool> tracing{false}, done{false};
	int sent = 0;
	std::thread sender([&, target = pthread_self()] {
		while (!tracing)
			std::this_thread::yield();
		const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
		while (sent < SIGNALS && std::chrono::steady_clock::now() < deadline) {
			if (pthread_kill(target, SIGRTMIN + 9) != 0)
				usleep(100);  // the signal queue is full
			else if (++sent % 50 == 0)
				usleep(50);  // let the traced flow run between bursts
		}
		done = true;
	});
	std::uint32_t i = 0;
	while (!done) {
		if (i < 400000) {  // fits the 32 MiB rings
			TRACE(TRACE_RX, "RX: n=%u %s %lu", i, "fixed text", (std::uint64_t)i * 3);
			TRACE(TRACE_ERROR, "ERROR: main %u", i);
			tracing = ++i >= 1000;
		}
		for (volatile int k = 0; k < 300;)
			k = k + 1;
	}
	sender.join();
	ASSERT_EQ(sent, SIGNALS);
	testutil::wait_until([] { return handled == SIGNALS; });  // every queued signal delivered
	std::uint32_t rx = 0, main_err = 0, sig = 0;  // a torn record is skipped by the reader: a count falls short
	for (const auto &r : read_all(dir.file("test.bl"))) {
		if (r.level == TRACE_RX) {
			ASSERT_EQ(r.text, "RX: n=" + std::to_string(rx) + " fixed text " + std::to_string(rx * 3ull));
			rx++;
		} else if (r.level == TRACE_ERROR && r.text.starts_with("ERROR: main "))
			ASSERT_EQ(r.text, "ERROR: main " + std::to_string(main_err++));
		else
			ASSERT_EQ(r.text, "Got SIG43 but ignore " + std::to_string(++sig));
	}
	EXPECT_EQ(std::tuple(sig, main_err, rx), std::tuple(static_cast<std::uint32_t>(SIGNALS), i, i));
}

// The writer laps the 1 KiB ring in the middle of the reader's copy (the
// pread seam): the records copied before it are counted torn and dropped,
// the one cut in two among them, and the next read finds the live ones.
// Each record is 64 bytes (24 + 4 x 9, padded) and holds its own number
// four times, so the one at stream position p holds p / 64.
TEST(BlreaderCollect, RecordsTheWriterOvertakesWhileTheyAreCopiedAreCountedTornNotReturned)
{
	testutil::temp_dir dir;
	global_handle g(dir.path(), "1");
	std::uint64_t n = 0;
	auto write = [&n](int count) {
		for (; count > 0; count--, n++)
			TRACE(0, "%lu %lu %lu %lu", n, n, n, n);
	};
	write(40);  // live: 24 .. 39; the first copy is of 24 .. 31, up to the ring's end
	blr_file f;
	ASSERT_EQ(blr_open(f, dir.file("test.bl").c_str()), "");
	auto collect = [&f] {
		std::vector<blr_record> recs;
		blr_collect(f, 1, 0, recs);
		std::vector<std::uint64_t> numbers;
		for (const blr_record &r : recs) {
			numbers.push_back(r.pos / 64);
			for (const blr_value &v : r.values)
				EXPECT_EQ(v.bits, r.pos / 64) << "a torn record at position " << r.pos;
		}
		return numbers;
	};
	const testutil::undo disarm{[] { pread_seam = {}; }};
	pread_seam = {f.fd, 2 * 64 + 40, [&] { write(16); }};  // the cut: in the second value of 26
	EXPECT_EQ(collect(), std::vector<std::uint64_t>{});
	EXPECT_EQ(f.stats.torn, 3u);
	std::vector<std::uint64_t> live(16);
	std::iota(live.begin(), live.end(), 40);
	EXPECT_EQ(collect(), live);
}

TEST(BlreaderFormat, ConversionsRenderAsPrintfWithTheConversionsType)
{
	const std::tuple<const char *, std::vector<blr_value>, std::string> cases[] = {
		{"%u|%-5d|%+.5d", {num(BL_T_S32, ~0ull), num(BL_T_S32, -3ull), num(BL_T_S32, 42)}, "4294967295|-3   |+00042"},
		{"%x %X %#o %c%c", {num(BL_T_U32, 0xdeadbeef), num(BL_T_U32, 0xab), num(BL_T_U16, 8), num(BL_T_U8, 65), num(BL_T_U16, 0x142)},
		 "deadbeef AB 010 AB"},
		{"%hd|%p", {num(BL_T_U32, 70000), num(BL_T_U64, 0x1234)}, "4464|0x1234"},
		{"%.3s|%-4s|", {txt("abcdef"), txt("x")}, "abc|x   |"},
		// Hostile or unsupported: no value from elsewhere, no huge allocation.
		{"%n%d a trailing %", {num(BL_T_U8, 5)}, "%n5 a trailing %"},
		{"%*d|%d", {num(BL_T_U8, 5)}, "%*d|5"},
		{"%f %u %ls", {num(BL_T_U32, 1), num(BL_T_U32, 2), txt("wide")}, "<?> 2 <?>"},
		{"%d", {num(BL_T_U32, 7), num(BL_T_U32, 8)}, "7"},
		{"%99999999d %y", {num(BL_T_U32, 7)}, "%99999999d %y"},
	};
	for (const auto &[fmt, values, want] : cases)
		EXPECT_EQ(blr_format(fmt, values), want) << '"' << fmt << '"';
}

namespace {

// Written once per process (a call site describes itself on first use only):
// golden.bl, the golden records at fixed times, and wrapped.bl, two 1 KiB
// levels with level 0 wrapped.
class TraceFile : public ::testing::Test {
protected:
	static void SetUpTestSuite()
	{
		dir = new testutil::temp_dir;
		{
			global_handle g(dir->path(), "4, 4, 4", "golden.bl");
			write_golden_records();
		}
		// Times become 2024-03-01 12:00:00 UTC plus 1.5 ms per record.
		blr_file f;
		ASSERT_EQ(blr_open(f, golden().c_str()), "");
		const int fd = open(golden().c_str(), O_WRONLY);
		for (std::uint64_t t = 1709294400ull * 1000000000ull; const auto &r : collect_all(f)) {
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

// Exit status, output and error of blcat with `args`, in time zone `tz`.
std::tuple<int, std::string, std::string> blcat(std::vector<std::string> args, const std::string &tz = "UTC")
{
	args.insert(args.begin(), testutil::bin("blcat"));
	testutil::child_process p(args, {"TZ=" + tz});
	return {p.exit_status(), p.out(), p.err()};  // in this order: braced lists evaluate left to right
}

// `text` with every `from` replaced by `to`.
std::string replaced(std::string text, std::string_view from, std::string_view to)
{
	for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
		text.replace(at, from.size(), to);
	return text;
}

}  // namespace

TEST_F(TraceFile, EverySingleByteCorruptionIsRejectedOrSkipped)
{
	const std::string s = testutil::read_file(dir->file("wrapped.bl"));
	std::vector<unsigned char> image(s.begin(), s.end());
	auto renders = [&] {
		blr_file f;
		if (!blr_attach(f, image, "c.bl").empty())
			return false;
		for (const auto &r : collect_all(f))
			blr_render(f, r);
		return true;
	};
	ASSERT_TRUE(renders());
	auto u64_at = [&](std::size_t off) { std::uint64_t v; std::memcpy(&v, image.data() + off, 8); return v; };
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

// Times are local: in a zone 5:30 ahead of UTC (a POSIX TZ string, which
// needs no zone files) the records of 12:00 UTC show 17:30.
TEST_F(TraceFile, BlcatPrintsAllLevelsOrTheSelectedOnesInLocalTimeAndMergesFilesByTime)
{
	const auto r = blcat({golden()});
	if (std::getenv("ORV_UPDATE_GOLDEN"))  // regenerate after a deliberate change
		std::ofstream(ORV_SOURCE_DIR "/tests/data/blcat_golden.txt") << std::get<1>(r);
	EXPECT_EQ(r, std::tuple(0, expected(), ""));
	const std::string local = replaced(expected(), "2024-03-01 12:00:", "2024-03-01 17:30:");
	EXPECT_EQ(blcat({golden()}, "XST-5:30"), std::tuple(0, local, ""));
	std::vector<std::string> all;  // the golden output split into records, each starting with its time stamp
	std::istringstream in(expected());
	for (std::string line; std::getline(in, line);)
		if (all.empty() || line.starts_with("2024-03-01 12:00:"))
			all.push_back(line + "\n");
		else
			all.back() += line + "\n";
	for (const auto &[levels, shown] : {std::pair{"1", "1"}, {"0,2", "02"}, {"1-2", "12"}}) {
		std::string want;
		for (const auto &rec : all)
			if (std::strchr(shown, rec[31]))  // the level digit after " L"
				want += rec;
		EXPECT_EQ(std::get<1>(blcat({"-l", levels, golden()})), want) << levels;
	}
	// A copy whose call sites name another file: the same times, other text.
	auto renamed = [](const std::string &text) { return replaced(text, "golden_writer.cpp", "copied_writer.cpp"); };
	const std::string copy = dir->file("copy.bl");
	std::ofstream(copy, std::ios::binary) << renamed(testutil::read_file(golden()));
	std::string want;
	for (const auto &rec : all)
		want += rec + renamed(rec);  // same times: the first file's record comes first
	EXPECT_EQ(std::get<1>(blcat({golden(), copy})), want);
}

// An unusable or cut file gives one error line and status 1, a usage error
// the usage text and status 2; neither prints records.
TEST_F(TraceFile, BlcatExitStatusesAndErrorLines)
{
	const std::string img = testutil::read_file(golden()), size = std::to_string(img.size());
	const std::tuple<std::string, std::string, std::string> cases[] = {  // file name, content, error
		{"empty.bl", "", "not a trace file (empty)"},
		{"cut7.bl", img.substr(0, 7), "not a trace file"},
		{"cut4095.bl", img.substr(0, 4095), "truncated (4095 bytes, header is 4096)"},
		{"cut1.bl", img.substr(0, img.size() - 1), "truncated (" + std::to_string(img.size() - 1) + " bytes, header says " + size + ")"},
		{"version.bl", img.substr(0, 8) + '\2' + img.substr(9), "unsupported trace file version 2"},
		{"missing.bl", "", "No such file or directory"},
	};
	for (const auto &[name, content, why] : cases) {
		const std::string path = dir->file(name);
		if (name != "missing.bl")
			std::ofstream(path, std::ios::binary) << content;
		EXPECT_EQ(blcat({golden(), path}), std::tuple(1, "", "blcat: " + path + ": " + why + "\n")) << name;
	}
	for (const std::vector<std::string> &args :
	     std::vector<std::vector<std::string>>{{}, {"-l", "16", golden()}, {"-l", "", golden()}, {"-x", golden()}, {"-l"}}) {
		const auto [status, out, err] = blcat(args);
		EXPECT_EQ(std::tuple(status, out), std::tuple(2, "")) << (args.empty() ? "" : args[0]);
		EXPECT_NE(err.find("usage: blcat"), std::string::npos);
	}
}

// Rings of 1 GiB in a sparse file whose size agrees with them: when the
// heads claim records that the rings do not hold the file is refused, and
// when each ring holds a little data only that data is read.
TEST_F(TraceFile, BlcatWorksByTheDataASparseFileHoldsNotItsClaimedRings)
{
	constexpr std::uint64_t GIB = 1ull << 30, HEAD = 1ull << 40;
	unsigned char h[BL_HEADER_SIZE] = {};
	auto put = [&h](std::size_t off, auto v) { std::memcpy(h + off, &v, sizeof v); };
	std::memcpy(h, BL_MAGIC, sizeof BL_MAGIC);
	put(8, BL_VERSION), put(12, BL_HEADER_SIZE), put(16, BL_MAX_LEVELS), put(24, std::uint64_t{BL_HEADER_SIZE}),
		put(32, BL_DESC_AREA_SIZE);
	std::uint64_t end = BL_HEADER_SIZE + BL_DESC_AREA_SIZE;
	for (std::uint32_t i = 0; i < BL_MAX_LEVELS; i++, end += GIB)
		put(BL_LEVEL_TABLE_OFF + i * BL_LEVEL_ENTRY_SIZE, end), put(BL_LEVEL_TABLE_OFF + i * BL_LEVEL_ENTRY_SIZE + 8, GIB),
			put(BL_LEVEL_TABLE_OFF + i * BL_LEVEL_ENTRY_SIZE + 16, HEAD);
	const std::string path = dir->file("sparse.bl");
	std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(h), sizeof h);
	std::filesystem::resize_file(path, end);  // the rings: one hole
	EXPECT_EQ(blcat({path}), std::tuple(1, "", "blcat: " + path + ": corrupt header (level 0 head " + std::to_string(HEAD) +
							", but its ring holds no data)\n"));
	std::fstream f(path, std::ios::binary | std::ios::in | std::ios::out);
	for (std::uint32_t i = 0; i < BL_MAX_LEVELS; i++)
		f.seekp(static_cast<std::streamoff>(BL_HEADER_SIZE + BL_DESC_AREA_SIZE + i * GIB + GIB / 2)).write("junk", 4);
	f.close();
	EXPECT_EQ(blcat({path}), std::tuple(0, "", ""));
}

// The file cut under blcat -f and written anew in place (same inode), then
// renamed away for a new one as the writer's restart does: blcat says so each
// time, waits out the cut, and prints each content once, from its start.
TEST_F(TraceFile, BlcatFollowWaitsOutACutAndFollowsTheFileByName)
{
	const std::string path = dir->file("live.bl");
	std::filesystem::copy_file(golden(), path, std::filesystem::copy_options::overwrite_existing);
	testutil::child_process cat({testutil::bin("blcat"), "-f", path}, {"TZ=UTC"});
	auto shows = [&](const std::string &text, bool err = false) {
		return testutil::wait_until([&] { return (err ? cat.err() : cat.out()).find(text) != std::string::npos; });
	};
	ASSERT_TRUE(shows("EVENT: 100% [left  ]"));
	ASSERT_EQ(truncate(path.c_str(), 0), 0);
	EXPECT_TRUE(shows("blcat: " + path + ": file truncated\n", true)) << cat.err();
	ASSERT_TRUE(cat.running()) << "blcat died of the cut";
	ASSERT_EQ(testutil::run("cat " + dir->file("wrapped.bl") + " > " + path), 0);  // truncates and writes
	EXPECT_TRUE(shows("INIT: 39 text -1\n")) << cat.out();
	std::filesystem::rename(path, path + ".1");
	std::filesystem::copy_file(golden(), path + ".new");
	std::filesystem::rename(path + ".new", path);
	EXPECT_TRUE(shows("blcat: " + path + " has been replaced; following new file\n", true)) << cat.err();
	EXPECT_TRUE(testutil::wait_until([&] { return cat.out().find("[left  ]") != cat.out().rfind("[left  ]"); })) << cat.out();
	EXPECT_TRUE(cat.running());
	const std::string out = cat.out();
	EXPECT_EQ(out.find("INIT: 39 text -1\n"), out.rfind("INIT: 39 text -1\n")) << out;
	EXPECT_EQ(out.find("[left  ]", out.find("[left  ]") + 1), out.rfind("[left  ]")) << "the new file printed once: " << out;
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
