// nlctl_test.cpp -- the control agent's library: argument validation, and
// the send with its "nobody there" errors. The message bytes are read by the
// daemon in every control test end to end (tools_test, fault_test), the pid
// file in tools_test.
#include "nlctl.h"

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "unique_fd.h"

namespace {

TEST(Nlctl, ArgumentsAreDecimalsWithinRangeAndUsableAddresses)
{
	const struct {
		const char *text;
		std::uint32_t lo;
		bool ok;
		std::uint32_t value;
	} cases[] = {
		{"1", 1, true, 1},	  {"4294967295", 1, true, 4294967295u}, {"007", 0, true, 7},
		{"0", 1, false, 0},	  {"4294967296", 0, false, 0},	      {"-1", 0, false, 0},
		{"+1", 0, false, 0},	  {" 1", 0, false, 0},		      {"1 ", 0, false, 0},
		{"0x10", 0, false, 0}, {"", 0, false, 0},
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
	std::uint32_t v = 0;
	std::string err;
	EXPECT_TRUE(nlctl_parse_ipv4("198.51.100.7", &v, &err));
	EXPECT_EQ(v, 0xc6336407u);
	for (const char *bad : {"", "198.51.100", "198.51.100.256", "198.51.100.7 ", "0.0.0.0", "255.255.255.255", "::1"})
		EXPECT_FALSE(nlctl_parse_ipv4(bad, &v, &err)) << bad;
}

TEST(Nlctl, SendDeliversToTheBoundPortAndNamesAMissingOne)
{
	// Our own socket on port = our pid stands in for the daemon.
	unique_fd rx{socket(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK)};
	sockaddr_nl me{};
	me.nl_family = AF_NETLINK;
	me.nl_pid = static_cast<std::uint32_t>(getpid());
	ASSERT_EQ(bind(rx.get(), reinterpret_cast<sockaddr *>(&me), sizeof me), 0) << strerror(errno);
	const auto msg = nlctl_encode(nlctl_config{5, 6, 0xc0000201, false}, 1);
	std::string err;
	ASSERT_EQ(nlctl_send(getpid(), "default", msg, &err), NLCTL_OK) << err;
	std::uint8_t got[64];
	EXPECT_EQ(recv(rx.get(), got, sizeof got, MSG_DONTWAIT), 32);
	EXPECT_EQ(0, std::memcmp(got + 16, msg.data() + 16, 16));

	// A live process without a netlink port, then no process at all.
	const pid_t child = fork();
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
