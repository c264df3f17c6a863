// runstate_test.cpp -- the run-state file (src/wire/runstate.cpp): parser,
// reader, writer and path, against hostile text and files.
#include "runstate.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "testutil.h"

namespace {

const std::string VALID = "orvalindwarden-state 1\npid 1440\ndiscriminator 100\nsource 192.0.2.1\nmin_rx 300000\n"
			  "admin_down 0\nsince 1795449471.713992788\nstarted 1795449400.000000001\n";

// Parses a copy of exactly `text`'s bytes, so that a read beyond them shows
// under AddressSanitizer.
bool parses(const std::string &text, run_state *out)
{
	std::vector<char> exact(text.begin(), text.end());
	return run_state_parse({exact.data(), exact.size()}, out);
}

// `VALID` with the first `from` replaced by `to`.
std::string with(const std::string &from, const std::string &to)
{
	std::string t = VALID;
	const std::size_t at = t.find(from);
	EXPECT_NE(at, std::string::npos) << from;
	return t.replace(at, from.size(), to);
}

TEST(RunState, ParserTakesOnlyTheExactTextWithValuesInRange)
{
	run_state s{};
	ASSERT_TRUE(parses(VALID, &s));
	EXPECT_EQ(std::tuple(s.pid, s.discriminator, s.source_ip, s.min_rx, s.admin_down, s.since_nsec, s.started_nsec),
		  std::tuple(1440, 100u, htonl(0xc0000201), 300000u, std::uint8_t{0}, 713992788, 1));
	EXPECT_TRUE(parses(with("pid 1440", "pid 2147483647"), &s) && s.pid == INT32_MAX);
	EXPECT_TRUE(parses(with("since 1795449471.", "since 9223372036854775807."), &s) && s.since_sec == INT64_MAX);
	const std::string refused[] = {
		VALID + "\n", VALID + std::string(1, '\0'), with("\n", "\r\n"), with("pid 1440", "pid  1440"),
		with("pid 1440", "pid 01440"), with("pid 1440", "pid 0"), with("pid 1440", "pid +1440"),
		with("pid 1440", "pid 2147483648"), with("pid 1440", std::string("pid 14\0" "40", 9)),
		with("discriminator 100", "discriminator 4294967296"),
		with("discriminator 100", "discriminator 18446744073709551716"),  // 2^64 + 100
		with("discriminator 100", "discriminator " + std::string(4000, '9')),
		with("source 192.0.2.1", "source 192.0.2.256"), with("source 192.0.2.1", "source 192.0.2"),
		with("source 192.0.2.1", "source 192.0.2.1.5"), with("source 192.0.2.1", "source 192.0.2.01"),
		with("admin_down 0", "admin_down 256"), with(".713992788", ".71399278"), with(".713992788", ".7139927880"),
		with("since 1795449471.", "since -1."), with("since 1795449471.", "since 9223372036854775808."),
		with("min_rx 300000\n", "") + "min_rx 300000\n", with("min_rx 300000\n", "min_rx 300000\nmin_rx 300000\n"),
	};
	for (const std::string &t : refused) {
		run_state out{};
		EXPECT_FALSE(parses(t, &out)) << "accepted: " << t;
		EXPECT_EQ(out.pid, 0) << "written although refused: " << t;
	}
	// Every prefix, and every single byte replaced by one the text never holds.
	for (std::size_t n = 0; n < VALID.size(); n++) {
		std::string bad = VALID;
		bad[n] = '#';
		EXPECT_FALSE(parses(VALID.substr(0, n), &s)) << n;
		EXPECT_FALSE(parses(bad, &s)) << n << ": " << bad;
	}
}

// Written under any umask with its modes, over a planted link without
// following it, with no temporary file left; read back field for field.
TEST(RunState, WrittenFileReadsBackWithItsModesAndNothingLeftBehind)
{
	testutil::temp_dir dir;
	const std::string path = dir.file("run/orvalindwarden-x.state");  // "run" is made
	const run_state s{4242, 0xfffffffe, htonl(0xc6336401), 7, 5, 1795449471, 999999999, 0, 0};
	const mode_t old_mask = umask(077);
	EXPECT_EQ(run_state_write(path.c_str(), s), 0) << std::strerror(errno);  // makes "run"
	std::filesystem::remove(path);
	std::filesystem::create_symlink(dir.file("target"), path);
	EXPECT_EQ(run_state_write(path.c_str(), s), 0) << std::strerror(errno);
	umask(old_mask);
	EXPECT_FALSE(std::filesystem::exists(dir.file("target"))) << "a link was followed";
	run_state r{};
	ASSERT_EQ(run_state_read(path.c_str(), &r), RUN_STATE_OK);
	auto fields = [](const run_state &x) {
		return std::tuple(x.pid, x.discriminator, x.source_ip, x.min_rx, x.admin_down, x.since_sec, x.since_nsec,
				  x.started_sec, x.started_nsec);
	};
	EXPECT_EQ(fields(r), fields(s)) << testutil::read_file(path);
	struct stat st {}, dst {};
	ASSERT_TRUE(lstat(path.c_str(), &st) == 0 && stat(dir.file("run").c_str(), &dst) == 0);
	EXPECT_EQ(std::tuple(st.st_mode & 0170777, dst.st_mode & 07777), std::tuple(S_IFREG | 0644u, 0755u));
	EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.file("run")), {}), 1) << "a temporary file was left";
	// What a writer killed before its rename leaves, and only that, is removed.
	for (const char *left : {".orvalindwarden-x.state.0123456789abcdef", ".orvalindwarden-x.state.0123456789abcdeg",
				 ".orvalindwarden-y.state.0123456789abcdef", ".orvalindwarden-x.state.x.0123456789abcdef"})
		std::ofstream(dir.file("run/") + left);
	EXPECT_EQ(run_state_clean(path.c_str()), 1);
	EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.file("run")), {}), 4);
	run_state bad = s;
	bad.since_nsec = 1000000000;
	EXPECT_EQ(run_state_write(path.c_str(), bad), -1);
	EXPECT_EQ(errno, EINVAL);
}

// Links, FIFOs (which would hold a reader), devices, directories and large
// files are refused.
TEST(RunState, ReaderRefusesWhatIsNoSmallRegularFile)
{
	testutil::temp_dir dir;
	std::ofstream(dir.file("good")) << VALID;
	std::ofstream(dir.file("big")) << VALID << std::string(RUN_STATE_FILE_MAX + 1 - VALID.size(), '\n');
	std::filesystem::create_symlink(dir.file("good"), dir.file("link"));
	ASSERT_EQ(mkfifo(dir.file("fifo").c_str(), 0600), 0);
	const std::pair<std::string, int> cases[] = {
		{dir.file("good"), RUN_STATE_OK},        {dir.file("big"), RUN_STATE_ERR_TOO_LARGE},
		{"/dev/zero", RUN_STATE_ERR_NOT_REGULAR}, {dir.file("link"), RUN_STATE_ERR_NOT_REGULAR},
		{dir.path(), RUN_STATE_ERR_NOT_REGULAR},  {dir.file("fifo"), RUN_STATE_ERR_NOT_REGULAR},
	};
	for (const auto &[path, want] : cases) {
		run_state s{};
		EXPECT_EQ(run_state_read(path.c_str(), &s), want) << path;
	}
}

TEST(RunState, PathIsTheStoreObjectsNameInTheRunDirectory)
{
	char buf[RUN_STATE_PATH_MAX];
	ASSERT_EQ(run_state_path(buf, sizeof buf, "/orvalindwarden-run-netns-blue"), 0);
	EXPECT_STREQ(buf, "/run/orvalindwarden/orvalindwarden-run-netns-blue.state");
	const std::string longest(RUN_STATE_NAME_MAX - 6, 'o');  // and ".state": NAME_MAX
	EXPECT_EQ(run_state_path(buf, sizeof buf, longest.c_str()), 0);
	for (const std::string &bad : {std::string(".."), std::string("a/b"), longest + "o"})
		EXPECT_TRUE(run_state_path(buf, sizeof buf, bad.c_str()) == -1 && buf[0] == '\0') << bad;
}

}  // namespace
