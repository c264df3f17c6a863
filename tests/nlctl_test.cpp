// nlctl_test.cpp -- the control agent's library: argument validation, the
// pid file's forms, and a partial change completed from the running values.
// The rest is met end to end (tools_test, ctl_test, fault_test).
#include "nlctl.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "argparse.h"
#include "testutil.h"

namespace {

TEST(Nlctl, ArgumentsAreDecimalsWithinRangeAndUsableAddresses)
{
	const struct {
		const char *text;
		std::uint32_t lo;
		bool ok;
	} cases[] = {{"1", 1, true},  {"4294967295", 1, true}, {"007", 0, true}, {"0", 1, false}, {"4294967296", 0, false},
		     {"-1", 0, false}, {"+1", 0, false}, {" 1", 0, false}, {"1 ", 0, false}, {"0x10", 0, false}, {"", 0, false}};
	for (const auto &c : cases) {
		std::uint32_t v = 12345;
		std::string err;
		EXPECT_EQ(arg_parse_u32(c.text, c.lo, 0xffffffff, &v, &err), c.ok) << "'" << c.text << "'";
		if (c.ok)
			EXPECT_EQ(v, std::stoul(c.text)) << c.text;
		else
			EXPECT_NE(err.find(c.text), std::string::npos) << err;
	}
	std::uint32_t v = 0;
	std::string err;
	EXPECT_TRUE(nlctl_parse_ipv4("198.51.100.7", &v, &err));
	EXPECT_EQ(v, 0xc6336407u);
	for (const char *bad : {"", "198.51.100", "198.51.100.256", "198.51.100.7 ", "0.0.0.0", "255.255.255.255", "::1",
				"0.1.2.3", "127.0.0.1", "224.0.0.5", "239.255.255.255", "240.0.0.1"})
		EXPECT_FALSE(nlctl_parse_ipv4(bad, &v, &err)) << bad;
	EXPECT_NE(err.find("cannot be a source address"), std::string::npos) << err;
}

// A pid with an optional newline, in at most 32 bytes; nothing else.
TEST(Nlctl, PidFileHoldsADecimalPidAndAtMostANewline)
{
	testutil::temp_dir dir;
	constexpr const char *NUM = "expected a decimal number";
	const std::tuple<std::string, pid_t, const char *> cases[] = {  // content, pid read (0: refused), message part
		{"", 0, NUM}, {"\n", 0, NUM}, {"4242\n\n", 0, NUM}, {"4242\nfoo\n", 0, NUM}, {" 4242\n", 0, NUM}, {"42\x1b[2J\n", 0, NUM},
		{"4242\n", 4242, ""}, {"4242", 4242, ""}, {std::string(27, '0') + "4242\n", 4242, ""},  // 32 bytes
		{std::string(28, '0') + "4242\n", 0, "more than 32 bytes"}, {"0\n", 0, "out of range"}, {"2147483648\n", 0, "out of range"},
	};
	const std::string path = dir.file("orv.pid");
	for (const auto &[content, want, why] : cases) {
		std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
		pid_t pid = 0;
		std::string err;
		EXPECT_EQ(nlctl_read_pidfile(path.c_str(), &pid, &err), want != 0) << content;
		EXPECT_EQ(pid, want) << content;
		EXPECT_NE(err.find(why), std::string::npos) << content << ": " << err;
		EXPECT_EQ(err.find('\x1b'), std::string::npos) << "the file's text reaches the terminal";
	}
}

// The values not asked for come from the daemon's file; a raw admin byte
// other than 0 and 1 (a control message may set any) is AdminDown.
TEST(Nlctl, PartialChangeKeepsTheRunningValues)
{
	const run_state running{4242, 100, htonl(0xc0000201), 1000, 7, 1795449471, 5, 1795449400, 0};
	auto fields = [](const nlctl_config &c) { return std::tuple(c.disc, c.min_rx, c.src_ip, c.admin_down); };
	EXPECT_EQ(fields(nlctl_merge({.min_rx = 0}, running)), std::tuple(100u, 0u, 0xc0000201u, true));
	EXPECT_EQ(fields(nlctl_merge({.disc = 5, .src_ip = 0xc6336401, .admin_down = false}, running)),
		  std::tuple(5u, 1000u, 0xc6336401u, false));
	EXPECT_FALSE(nlctl_change_complete({.disc = 5, .min_rx = 0, .src_ip = 0xc6336401}));
	EXPECT_TRUE(nlctl_change_complete({.disc = 5, .min_rx = 0, .src_ip = 0xc6336401, .admin_down = false}));
}

}  // namespace
