// blcat_test.cpp -- the blcat tool: its output for a known trace file (golden
// file, times fixed, TZ=UTC), level filtering, merging of several files,
// following a file being written, and one clear error line with the right
// exit status for every file it cannot use.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

#include "bltest_util.h"
#include "trace.h"

bl_log *bl_handle;

void write_golden_records();  // at the end of this file, under a fixed file name
void write_follow_records(std::uint32_t from, std::uint32_t n);

namespace {

struct run_result {
	int status = -1;  // exit status, or -1 when it did not exit normally
	std::string out;
	std::string err;
};

std::string slurp_fd(int fd)
{
	std::string s;
	char buf[4096];
	ssize_t n;
	while ((n = read(fd, buf, sizeof buf)) > 0)
		s.append(buf, static_cast<std::size_t>(n));
	return s;
}

// Runs blcat with `args` under TZ=UTC and collects its output.
run_result run_blcat(const std::vector<std::string> &args)
{
	std::string errpath = std::filesystem::temp_directory_path() /
			      ("blcat-err-" + std::to_string(getpid()));
	int out[2];
	run_result r;
	if (pipe(out) != 0)
		return r;
	const pid_t pid = fork();
	if (pid == 0) {
		dup2(out[1], 1);
		const int e = open(errpath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
		dup2(e, 2);
		close(out[0]);
		setenv("TZ", "UTC", 1);
		std::vector<char *> argv{const_cast<char *>(ORV_BIN_DIR "/blcat")};
		for (const auto &a : args)
			argv.push_back(const_cast<char *>(a.c_str()));
		argv.push_back(nullptr);
		execv(argv[0], argv.data());
		_exit(127);
	}
	close(out[1]);
	r.out = slurp_fd(out[0]);
	close(out[0]);
	int status;
	waitpid(pid, &status, 0);
	r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	std::ifstream e(errpath);
	r.err.assign(std::istreambuf_iterator<char>(e), {});
	std::filesystem::remove(errpath);
	return r;
}

std::string read_text(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	return {std::istreambuf_iterator<char>(in), {}};
}

// Splits blcat output into records: a record starts with its time stamp.
std::vector<std::string> split_records(const std::string &out)
{
	static const std::regex start("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{9} L");
	std::vector<std::string> recs;
	std::size_t pos = 0;
	while (pos < out.size()) {
		std::size_t nl = out.find('\n', pos);
		nl = nl == std::string::npos ? out.size() : nl + 1;
		const std::string line = out.substr(pos, nl - pos);
		if (recs.empty() || std::regex_search(line, start))
			recs.push_back(line);
		else
			recs.back() += line;
		pos = nl;
	}
	return recs;
}

// Sets the time of every record, in writing order, to 2024-03-01 12:00:00
// UTC plus 1.5 ms per record, so that the rendering is reproducible.
void fix_times(const std::string &path)
{
	std::vector<unsigned char> image;
	{
		std::ifstream in(path, std::ios::binary);
		image.assign(std::istreambuf_iterator<char>(in), {});
	}
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
		const off_t at = static_cast<off_t>(l.ring_off + r.pos % l.ring_size + 16);
		ASSERT_EQ(pwrite(fd, &t, sizeof t, at), 8);
		t += 1500000;
	}
	close(fd);
}

// One trace file with the golden records, written once per run (a call site
// describes itself only on its first use in the process).
class Blcat : public ::testing::Test {
protected:
	static void SetUpTestSuite()
	{
		dir = new bl_temp_dir;
		bl_env_dir env(dir->path.c_str());
		bl_handle = bl_initialize_handle("golden.bl", "4, 4, 4");
		ASSERT_NE(bl_handle, nullptr);
		write_golden_records();
		bl_close(bl_handle);
		bl_handle = nullptr;
		fix_times(dir->file("golden.bl"));
	}
	static void TearDownTestSuite()
	{
		delete dir;
		dir = nullptr;
	}
	static std::string golden() { return dir->file("golden.bl"); }
	static std::string expected()
	{
		return read_text(std::string(ORV_SOURCE_DIR) + "/tests/data/blcat_golden.txt");
	}
	static inline bl_temp_dir *dir;
};

}  // namespace

TEST_F(Blcat, PrintsAllLevelsMergedInTimeOrder)
{
	const run_result r = run_blcat({golden()});
	if (std::getenv("BLCAT_UPDATE_GOLDEN"))  // regenerate after a deliberate change
		std::ofstream(std::string(ORV_SOURCE_DIR) + "/tests/data/blcat_golden.txt") << r.out;
	EXPECT_EQ(r.status, 0);
	EXPECT_EQ(r.err, "");
	EXPECT_EQ(r.out, expected());
}

TEST_F(Blcat, LevelListSelectsRecords)
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
		const run_result r = run_blcat({"-l", c.levels, golden()});
		EXPECT_EQ(r.status, 0) << c.levels;
		EXPECT_EQ(r.out, want) << c.levels;
	}
}

TEST_F(Blcat, SeveralFilesAreMergedByTime)
{
	const std::string copy = dir->file("copy.bl");
	std::filesystem::copy_file(golden(), copy, std::filesystem::copy_options::overwrite_existing);
	std::string want;
	for (const auto &rec : split_records(expected()))
		want += rec + rec;  // same times: the first file's record comes first
	const run_result r = run_blcat({golden(), copy});
	EXPECT_EQ(r.status, 0);
	EXPECT_EQ(r.out, want);
}

TEST_F(Blcat, UnusableFilesGiveOneErrorLineAndStatusOne)
{
	const std::string img = read_text(golden());
	std::string other_version = img;
	other_version[8] = 2;
	std::string random(5000, '\0');
	for (std::size_t i = 0; i < random.size(); i++)
		random[i] = static_cast<char>((i * 7919 + 13) % 251);
	const struct {
		const char *name;
		std::string content;
		std::string why;
	} cases[] = {
		{"empty.bl", "", "not a trace file (empty)"},
		{"random.bl", random, "not a trace file"},
		{"version.bl", other_version, "unsupported trace file version 2"},
		{"short.bl", img.substr(0, 10000),
		 "truncated (10000 bytes, header says " + std::to_string(img.size()) + ")"},
	};
	for (const auto &c : cases) {
		const std::string path = dir->file(c.name);
		std::ofstream(path, std::ios::binary) << c.content;
		const run_result r = run_blcat({golden(), path});
		EXPECT_EQ(r.status, 1) << c.name;
		EXPECT_EQ(r.out, "") << c.name;
		EXPECT_EQ(r.err, "blcat: " + path + ": " + c.why + "\n");
	}
	const run_result missing = run_blcat({dir->file("missing.bl")});
	EXPECT_EQ(missing.status, 1);
	EXPECT_EQ(missing.err, "blcat: " + dir->file("missing.bl") + ": No such file or directory\n");
}

TEST_F(Blcat, UsageErrorsExitWithTwo)
{
	for (const std::vector<std::string> &args : std::vector<std::vector<std::string>>{
		     {}, {"-l", "16", golden()}, {"-l", "", golden()}, {"-x", golden()}, {"-l"}}) {
		const run_result r = run_blcat(args);
		EXPECT_EQ(r.status, 2) << (args.empty() ? "" : args[0]);
		EXPECT_EQ(r.out, "");
		EXPECT_NE(r.err.find("usage: blcat"), std::string::npos);
	}
}

TEST(BlcatFollow, NewRecordsArePrintedAsTheyAreWritten)
{
	bl_temp_dir dir;
	bl_env_dir env(dir.path.c_str());
	bl_handle = bl_initialize_handle("live.bl", "4");
	ASSERT_NE(bl_handle, nullptr);
	struct closer {
		~closer()
		{
			bl_close(bl_handle);
			bl_handle = nullptr;
		}
	} close_handle;
	write_follow_records(0, 3);

	int out[2];
	ASSERT_EQ(pipe(out), 0);
	const pid_t pid = fork();
	ASSERT_NE(pid, -1);
	if (pid == 0) {
		dup2(out[1], 1);
		close(out[0]);
		execl(ORV_BIN_DIR "/blcat", "blcat", "-f", bl_path(bl_handle), nullptr);
		_exit(127);
	}
	close(out[1]);
	struct reap {
		pid_t pid;
		int fd;
		~reap()
		{
			if (pid > 0) {  // only the child we started; never 0 or -1
				kill(pid, SIGKILL);
				waitpid(pid, nullptr, 0);
			}
			close(fd);
		}
	} guard{pid, out[0]};

	// Reads until `lines` lines arrived or 5 s passed.
	std::string got;
	auto read_lines = [&](std::size_t lines) {
		const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
		while (static_cast<std::size_t>(std::count(got.begin(), got.end(), '\n')) < lines &&
		       std::chrono::steady_clock::now() < end) {
			pollfd p{out[0], POLLIN, 0};
			if (poll(&p, 1, 100) == 1) {
				char buf[512];
				const ssize_t n = read(out[0], buf, sizeof buf);
				if (n <= 0)
					break;
				got.append(buf, static_cast<std::size_t>(n));
			}
		}
	};
	read_lines(3);
	write_follow_records(3, 2);
	read_lines(5);
	const auto recs = split_records(got);
	ASSERT_EQ(recs.size(), 5u) << got;
	for (std::size_t i = 0; i < recs.size(); i++)
		EXPECT_TRUE(recs[i].ends_with("live " + std::to_string(i) + "\n")) << recs[i];
	kill(pid, SIGTERM);
	int status = 0;
	ASSERT_EQ(waitpid(pid, &status, 0), pid);
	guard.pid = 0;
	EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

void write_follow_records(std::uint32_t from, std::uint32_t n)
{
	for (std::uint32_t i = from; i < from + n; i++)
		TRACE(0, "INIT: live %u", i);
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
