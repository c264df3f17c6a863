// init_test.cpp -- the context's I/O set-up: netnsSocketAt, here and in a
// namespace of the test's own, the shared store's name, and vrf_init's
// failure after the store is set up. The sockets init_socket opens, their
// filters and events are proven end to end (reflect_test, startup_test).
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cstring>

#include <gtest/gtest.h>

#include "netns.h"
#include "reflector.h"
#include "testutil.h"
#include "unique_fd.h"

namespace {

// The daemon's configuration is global: each test starts from zero and
// leaves zero behind.
struct config_reset {
	config_reset() { reflector_cfg = {}; }
	~config_reset() { reflector_cfg = {}; }
};

int int_option(int fd, int level, int name)
{
	int v = -1;
	socklen_t len = sizeof v;
	return getsockopt(fd, level, name, &v, &len) == 0 ? v : -1;
}

// True when `fd` was made in a namespace with the interface orvdum0.
bool sees_orvdum0(int fd)
{
	ifreq ifr{};
	std::strncpy(ifr.ifr_name, "orvdum0", IFNAMSIZ - 1);
	return ioctl(fd, SIOCGIFINDEX, &ifr) == 0;
}

}  // namespace

TEST(ShmStoreName, PrefixesAndFlattensTheNamespacePathUpTo241Characters)
{
	const std::string a241(241, 'a');
	const std::string longer = a241 + "/differs-after-241";
	const struct {
		const char *nspath;
		std::string expected;
	} cases[] = {
		{nullptr, "orvalindwarden"},
		{"", "orvalindwarden"},
		{"/var/run/netns/blue", "orvalindwarden-var-run-netns-blue"},
		{"blue", "orvalindwardenblue"},
		{a241.c_str(), "orvalindwarden" + a241},
		{longer.c_str(), "orvalindwarden" + a241},
	};
	for (const auto &c : cases) {
		char name[SHM_NAME_LEN];
		std::memset(name, 'x', sizeof name);
		shm_store_name(name, c.nspath);
		EXPECT_EQ(std::string(name), c.expected);
		for (std::size_t i = c.expected.size(); i < SHM_NAME_LEN; i++)
			ASSERT_EQ(name[i], 0) << "byte " << i;
	}
}

TEST(NetnsSocketAt, DefaultIsHereAndBadNamesFailWithTheirErrno)
{
	unique_fd here{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, "default")};
	EXPECT_EQ(int_option(here.get(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
	const std::string missing = testutil::unique_name("orvtest-missing");
	const struct {
		const char *name;
		int err;
	} cases[] = {{nullptr, EINVAL}, {"", EINVAL}, {"a/b", EINVAL}, {"../netns", EINVAL}, {missing.c_str(), ENOENT}};
	for (const auto &c : cases) {
		errno = 0;
		EXPECT_EQ(netnsSocketAt(AF_INET, SOCK_DGRAM, 0, c.name), -1) << (c.name ? c.name : "(null)");
		EXPECT_EQ(errno, c.err) << (c.name ? c.name : "(null)");
	}
}

// The transmit socket's options and address show in every end-to-end reply;
// here the failure after the store is set up, which under the sanitizers
// also shows that the teardown frees what it made.
TEST(VrfInit, UnbindableSourceFailsAfterTheStoreIsSetUpAndPersistKeepsIt)
{
	config_reset cfg;
	const std::string nspath = "/" + testutil::unique_name("orvtest");
	setenv("NSPATH", nspath.c_str(), 1);
	char name[SHM_NAME_LEN];
	shm_store_name(name, nspath.c_str());
	testutil::shm_object store(name);
	reflector_cfg.sourceIp = inet_addr("198.51.100.77");
	EXPECT_EQ(vrf_init(), nullptr);
	// A counter left by a previous run survives only with persist.
	for (std::uint8_t persist : {0, 1}) {
		int fd = shm_open(name, O_RDWR, 0);
		ASSERT_GE(fd, 0);
		auto *shm = static_cast<reflector_shm *>(mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
		close(fd);
		ASSERT_NE(shm, MAP_FAILED);
		shm->rx_drops = 12345;
		reflector_cfg.persist = persist;
		EXPECT_EQ(vrf_init(), nullptr);
		EXPECT_EQ(shm->rx_drops, persist ? 12345u : 0u) << "persist " << int{persist};
		munmap(shm, SHM_SIZE);
	}
	unsetenv("NSPATH");
}

class InitInNamespace : public ::testing::Test {
protected:
	void SetUp() override
	{
		if (const char *why = testutil::missing_net_admin())
			GTEST_SKIP() << why;
		ns_.emplace(testutil::unique_name("orvtest"), "192.0.2.1/24");
		ASSERT_TRUE(ns_->ok());
	}
	std::optional<testutil::netns> ns_;
};

TEST_F(InitInNamespace, NetnsSocketAtMakesTheSocketThereAndReturnsHome)
{
	struct stat before {}, after {};
	stat("/proc/self/ns/net", &before);
	unique_fd inside{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, ns_->name().c_str())};
	ASSERT_GE(inside.get(), 0) << std::strerror(errno);
	stat("/proc/self/ns/net", &after);
	EXPECT_EQ(after.st_ino, before.st_ino);
	unique_fd outside{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, "default")};
	EXPECT_TRUE(sees_orvdum0(inside.get()));
	EXPECT_FALSE(sees_orvdum0(outside.get()));
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_addr.s_addr = inet_addr("192.0.2.1");
	EXPECT_EQ(bind(inside.get(), reinterpret_cast<sockaddr *>(&a), sizeof a), 0) << std::strerror(errno);
	errno = 0;
	EXPECT_EQ(netnsSocketAt(AF_MAX + 1, SOCK_DGRAM, 0, ns_->name().c_str()), -1);
	EXPECT_EQ(errno, EAFNOSUPPORT);
}
