// netns_test.cpp -- netnsSocketAt: sockets land in the named namespace, the
// caller's namespace is unchanged afterwards, and each failure keeps the
// errno of the step that failed.
#include <net/if.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include "netns.h"
#include "testutil.h"

namespace {

ino_t own_netns_inode()
{
	struct stat st {};
	if (stat("/proc/self/ns/net", &st) != 0)
		return 0;
	return st.st_ino;
}

struct fd_closer {
	int fd;
	~fd_closer()
	{
		if (fd >= 0)
			close(fd);
	}
};

}  // namespace

TEST(NetnsSocketAt, DefaultIsTheCurrentNamespace)
{
	fd_closer s{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, "default")};
	ASSERT_GE(s.fd, 0) << std::strerror(errno);
	int type = 0;
	socklen_t len = sizeof type;
	ASSERT_EQ(getsockopt(s.fd, SOL_SOCKET, SO_TYPE, &type, &len), 0);
	EXPECT_EQ(type, SOCK_DGRAM);
}

TEST(NetnsSocketAt, RejectsBadNamesWithTheirErrno)
{
	const std::string missing = testutil::unique_name("orvtest-missing");
	struct {
		const char *name;
		int err;
	} cases[] = {
		{nullptr, EINVAL},
		{"", EINVAL},
		{"a/b", EINVAL},
		{"../netns", EINVAL},
		{missing.c_str(), ENOENT},
	};
	ino_t before = own_netns_inode();
	for (const auto &c : cases) {
		errno = 0;
		EXPECT_EQ(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, c.name), -1)
			<< (c.name ? c.name : "(null)");
		EXPECT_EQ(errno, c.err) << (c.name ? c.name : "(null)");
	}
	EXPECT_EQ(own_netns_inode(), before);
}

class NetnsSocketAtInNamespace : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (const char *why = testutil::missing_net_admin())
			GTEST_SKIP() << why;
		ns_.emplace(testutil::unique_name("orvtest"));
		ASSERT_TRUE(ns_->ok());
		link_.emplace(ns_->name(), "orvdum0", "192.0.2.1/24");
		ASSERT_TRUE(link_->ok());
	}
	std::optional<testutil::netns> ns_;
	std::optional<testutil::dummy_link> link_;
};

// Both properties come from the namespace the socket was made in: the
// interface only exists there, and so does the address.
TEST_F(NetnsSocketAtInNamespace, SocketSeesOnlyThatNamespace)
{
	ino_t before = own_netns_inode();
	fd_closer inside{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, ns_->name().c_str())};
	ASSERT_GE(inside.fd, 0) << std::strerror(errno);
	EXPECT_EQ(own_netns_inode(), before);

	fd_closer outside{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, "default")};
	ASSERT_GE(outside.fd, 0);

	ifreq ifr{};
	std::strncpy(ifr.ifr_name, "orvdum0", IFNAMSIZ - 1);
	EXPECT_EQ(ioctl(inside.fd, SIOCGIFINDEX, &ifr), 0) << std::strerror(errno);
	EXPECT_EQ(ioctl(outside.fd, SIOCGIFINDEX, &ifr), -1);
	EXPECT_EQ(errno, ENODEV);

	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_addr.s_addr = inet_addr("192.0.2.1");
	EXPECT_EQ(bind(inside.fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0)
		<< std::strerror(errno);
}

TEST_F(NetnsSocketAtInNamespace, FailedSocketKeepsItsErrnoAndReturnsHome)
{
	ino_t before = own_netns_inode();
	errno = 0;
	EXPECT_EQ(netnsSocketAt(AF_MAX + 1, SOCK_DGRAM, 0, ns_->name().c_str()), -1);
	EXPECT_EQ(errno, EAFNOSUPPORT);
	EXPECT_EQ(own_netns_inode(), before);

	// Repeated use leaks no descriptor (the two namespace handles are closed).
	int lowest_free = dup(0);
	close(lowest_free);
	for (int i = 0; i < 64; i++)
		close(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, ns_->name().c_str()));
	fd_closer next{dup(0)};
	EXPECT_EQ(next.fd, lowest_free);
}
