// nlctl_test.cpp -- the netlink agent library: argument validation, the
// message layout the daemon reads at fixed offsets, the pid file, and the
// send with its "nobody there" error.
#include "nlctl.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "unique_fd.h"

namespace {

std::uint32_t u32_at(const std::uint8_t *p)
{
	std::uint32_t v;
	std::memcpy(&v, p, 4);
	return v;
}

TEST(NlctlEncode, MessageHasTheDaemonsFieldsAtTheirOffsets)
{
	nlctl_config c;
	c.disc = 0x01020304;
	c.min_rx = 300000;
	c.src_ip = 0xc0000201;  // 192.0.2.1
	c.admin_down = true;
	auto m = nlctl_encode(c, 9);
	std::uint16_t type, flags;
	std::memcpy(&type, &m[4], 2);
	std::memcpy(&flags, &m[6], 2);
	EXPECT_EQ(u32_at(&m[0]), 32u);
	EXPECT_EQ(type, 16);
	EXPECT_EQ(flags, NLM_F_REQUEST);
	EXPECT_EQ(u32_at(&m[8]), 9u);
	EXPECT_EQ(u32_at(&m[16]), 0x01020304u);
	EXPECT_EQ(u32_at(&m[20]), 300000u);
	EXPECT_EQ(u32_at(&m[24]), 0xc0000201u);
	EXPECT_EQ(m[28], 1);
	EXPECT_EQ(m[29] | m[30] | m[31], 0);
	c.admin_down = false;
	EXPECT_EQ(nlctl_encode(c, 9)[28], 0);
}

TEST(NlctlParse, NumbersAreDecimalAndWithinTheirRange)
{
	struct {
		const char *text;
		std::uint32_t lo;
		bool ok;
		std::uint32_t value;
	} cases[] = {
		{"1", 1, true, 1},
		{"4294967295", 1, true, 4294967295u},
		{"0", 0, true, 0},
		{"007", 0, true, 7},
		{"0", 1, false, 0},
		{"4294967296", 0, false, 0},
		{"99999999999999999999999", 0, false, 0},
		{"-1", 0, false, 0},
		{"+1", 0, false, 0},
		{" 1", 0, false, 0},
		{"1 ", 0, false, 0},
		{"0x10", 0, false, 0},
		{"", 0, false, 0},
	};
	for (const auto &c : cases) {
		std::uint32_t v = 12345;
		std::string err;
		EXPECT_EQ(nlctl_parse_u32(c.text, c.lo, 0xffffffff, &v, &err), c.ok) << "'" << c.text << "'";
		if (c.ok)
			EXPECT_EQ(v, c.value) << c.text;
		else
			EXPECT_NE(err.find(c.text), std::string::npos) << err;
	}
}

TEST(NlctlParse, SourceAddressIsAUsableDottedQuad)
{
	std::uint32_t v = 0;
	std::string err;
	EXPECT_TRUE(nlctl_parse_ipv4("198.51.100.7", &v, &err));
	EXPECT_EQ(v, 0xc6336407u);
	for (const char *bad : {"", "198.51.100", "198.51.100.256", "198.51.100.7 ", "0.0.0.0",
				"255.255.255.255", "::1", "host"})
		EXPECT_FALSE(nlctl_parse_ipv4(bad, &v, &err)) << bad;
}

TEST(NlctlPidfile, ReadsTheDaemonsPidAndRejectsAnythingElse)
{
	std::string path = "/tmp/nlctl_test_" + std::to_string(getpid()) + ".pid";
	struct {
		const char *content;
		bool ok;
	} cases[] = {{"4321\n", true}, {"4321", true}, {"", false}, {"abc\n", false}, {"0\n", false},
		     {"-5\n", false}};
	for (const auto &c : cases) {
		std::ofstream(path) << c.content;
		pid_t pid = 0;
		std::string err;
		EXPECT_EQ(nlctl_read_pidfile(path.c_str(), &pid, &err), c.ok) << c.content;
		if (c.ok)
			EXPECT_EQ(pid, 4321);
	}
	unlink(path.c_str());
	pid_t pid;
	std::string err;
	EXPECT_FALSE(nlctl_read_pidfile(path.c_str(), &pid, &err));
	EXPECT_NE(err.find(path), std::string::npos);
}

TEST(NlctlSend, DeliversToTheBoundPortAndReportsAMissingOne)
{
	// Our own socket on port = our pid stands in for the daemon.
	unique_fd rx{socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK)};
	ASSERT_GE(rx.get(), 0);
	sockaddr_nl me{};
	me.nl_family = AF_NETLINK;
	me.nl_pid = static_cast<std::uint32_t>(getpid());
	ASSERT_EQ(bind(rx.get(), reinterpret_cast<sockaddr *>(&me), sizeof me), 0) << strerror(errno);
	nlctl_config c;
	c.disc = 5;
	c.min_rx = 6;
	c.src_ip = 0xc0000201;
	auto msg = nlctl_encode(c, 1);
	std::string err;
	ASSERT_EQ(nlctl_send(getpid(), "default", msg, &err), NLCTL_OK) << err;
	std::uint8_t got[64];
	EXPECT_EQ(recv(rx.get(), got, sizeof got, MSG_DONTWAIT), 32);
	EXPECT_EQ(0, std::memcmp(got, msg.data(), 16 - 4));  // nlmsg_pid is the sender's
	EXPECT_EQ(0, std::memcmp(got + 16, msg.data() + 16, 16));

	// A live process without a netlink port, then no process at all.
	pid_t child = fork();
	if (child == 0) {
		pause();
		_exit(0);
	}
	EXPECT_EQ(nlctl_send(child, "default", msg, &err), NLCTL_ERR_NO_PORT);
	EXPECT_NE(err.find("no netlink control port"), std::string::npos) << err;
	kill(child, SIGKILL);
	waitpid(child, nullptr, 0);
	EXPECT_EQ(nlctl_send(child, "default", msg, &err), NLCTL_ERR_NO_PROCESS);
	EXPECT_EQ(nlctl_send(getpid(), "no-such-namespace-here", msg, &err), NLCTL_ERR_SYSTEM);
}

}  // namespace
