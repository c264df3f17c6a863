// init_test.cpp -- the context's I/O set-up: the shared store's name, the two
// kernel filter programs (run by the kernel itself on a unix datagram pair),
// the transmit socket, vrf_init's failure paths, and init_socket in a
// namespace of its own.
#include <arpa/inet.h>
#include <event2/event.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "reflector.h"
#include "testutil.h"

namespace {

// ---- frames for the filter programs ----

using bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t PROTO_TCP = 6, PROTO_UDP = 17, PROTO_SCTP = 132;

void put16(bytes &b, std::uint16_t v)
{
	b.push_back(static_cast<std::uint8_t>(v >> 8));
	b.push_back(static_cast<std::uint8_t>(v));
}

void put32(bytes &b, std::uint32_t v)
{
	put16(b, static_cast<std::uint16_t>(v >> 16));
	put16(b, static_cast<std::uint16_t>(v));
}

bytes eth(std::uint16_t type)
{
	bytes b(12, 0x02);
	put16(b, type);
	return b;
}

// One label stack entry: label, bottom-of-stack bit, traffic class and TTL.
void put_label(bytes &b, std::uint32_t label, bool bos, std::uint8_t tc = 0, std::uint8_t ttl = 64)
{
	put32(b, label << 12 | std::uint32_t{tc} << 9 | std::uint32_t{bos} << 8 | ttl);
}

// IPv4 header of `ihl` words (options zero-filled); `frag` is the flags and
// fragment offset field.
void put_ipv4(bytes &b, std::uint8_t proto, std::uint8_t ihl = 5, std::uint16_t frag = 0)
{
	std::size_t start = b.size();
	b.resize(start + 4u * ihl, 0);
	b[start] = static_cast<std::uint8_t>(0x40 | ihl);
	b[start + 6] = static_cast<std::uint8_t>(frag >> 8);
	b[start + 7] = static_cast<std::uint8_t>(frag);
	b[start + 8] = 64;
	b[start + 9] = proto;
}

void put_ipv6(bytes &b, std::uint8_t next)
{
	std::size_t start = b.size();
	b.resize(start + 40, 0);
	b[start] = 0x60;
	b[start + 6] = next;
}

// UDP header (the ports sit where TCP and SCTP keep theirs too) and a
// 24-byte payload.
void put_l4(bytes &b, std::uint16_t dport)
{
	put16(b, 49152);
	put16(b, dport);
	put16(b, 8 + 24);
	put16(b, 0);
	b.resize(b.size() + 24, 0);
}

bytes ipv4_frame(std::uint8_t proto, std::uint16_t dport, std::uint8_t ihl = 5,
		 std::uint16_t frag = 0)
{
	bytes b = eth(0x0800);
	put_ipv4(b, proto, ihl, frag);
	put_l4(b, dport);
	return b;
}

bytes ipv6_frame(std::uint8_t next, std::uint16_t dport)
{
	bytes b = eth(0x86dd);
	put_ipv6(b, next);
	put_l4(b, dport);
	return b;
}

bytes mpls_frame(std::vector<std::uint32_t> labels, int ip_version, std::uint8_t proto,
		 std::uint16_t dport, std::uint16_t frag = 0, std::uint8_t tc = 0)
{
	bytes b = eth(0x8847);
	for (std::size_t i = 0; i < labels.size(); i++)
		put_label(b, labels[i], i + 1 == labels.size(), tc);
	if (ip_version == 4)
		put_ipv4(b, proto, 5, frag);
	else
		put_ipv6(b, proto);
	put_l4(b, dport);
	return b;
}

// Runs `prog` in the kernel over `frame`: a unix datagram socket with the
// program attached sees the datagram only when the program accepts it.
// Returns 1 (delivered), 0 (dropped), -1 (the kernel refused the program).
int kernel_filter_passes(const sock_filter *prog, std::size_t len, const bytes &frame)
{
	int sv[2];
	if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0)
		return -1;
	sock_fprog fprog{static_cast<unsigned short>(len), const_cast<sock_filter *>(prog)};
	int result = -1;
	if (setsockopt(sv[1], SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog) == 0) {
		send(sv[0], frame.data(), frame.size(), MSG_DONTWAIT);
		std::uint8_t buf[2048];
		result = recv(sv[1], buf, sizeof buf, MSG_DONTWAIT) ==
					 static_cast<ssize_t>(frame.size())
				 ? 1
				 : 0;
	}
	close(sv[0]);
	close(sv[1]);
	return result;
}

struct filter_case {
	const char *what;
	bytes frame;
	bool passes;
};

// ---- helpers for the socket tests ----

in_addr_t addr(const char *text) { return inet_addr(text); }

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

sockaddr_in bound_address(int fd)
{
	sockaddr_in a{};
	socklen_t len = sizeof a;
	getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
	return a;
}

// A loopback address of this process alone (127.0.0.0/8 is all local), so
// parallel tests never compete for port 7784.
in_addr_t private_loopback()
{
	unsigned pid = static_cast<unsigned>(getpid());
	return htonl(0x7f000000u | ((pid & 0x3fffffu) << 1) | 1u);
}

}  // namespace

TEST(ShmStoreName, PrefixesAndFlattensTheNamespacePath)
{
	const std::string a241(241, 'a');
	struct {
		const char *what;
		const char *nspath;
		std::string expected;
	} cases[] = {
		{"unset", nullptr, "orvalindwarden"},
		{"empty", "", "orvalindwarden"},
		{"ip netns path", "/var/run/netns/blue", "orvalindwarden-var-run-netns-blue"},
		{"no slash", "blue", "orvalindwardenblue"},
		{"241 characters", a241.c_str(), "orvalindwarden" + a241},
	};
	for (const auto &c : cases) {
		char name[SHM_NAME_LEN];
		std::memset(name, 'x', sizeof name);
		shm_store_name(name, c.nspath);
		EXPECT_EQ(std::string(name), c.expected) << c.what;
		for (std::size_t i = c.expected.size(); i < SHM_NAME_LEN; i++)
			ASSERT_EQ(name[i], 0) << c.what << ": byte " << i;
	}
}

TEST(ShmStoreName, KeepsOnly241CharactersSoLongerPathsShareAName)
{
	std::string base(241, 'p');
	std::string longer = base + "/differs-after-241";
	char a[SHM_NAME_LEN], b[SHM_NAME_LEN];
	shm_store_name(a, base.c_str());
	shm_store_name(b, longer.c_str());
	EXPECT_EQ(std::memcmp(a, b, SHM_NAME_LEN), 0);
	EXPECT_EQ(std::strlen(a), 255u);
	EXPECT_EQ(a[255], 0);
}

TEST(SbfdFilters, UdpFilterPassesOnlyUnfragmentedUdpToPort7784)
{
	bytes truncated = eth(0x0800);
	put_ipv4(truncated, PROTO_UDP);  // ends before the UDP header
	filter_case cases[] = {
		{"IPv4 UDP to 7784", ipv4_frame(PROTO_UDP, SBFD_PORT), true},
		{"IPv4 UDP to 7785", ipv4_frame(PROTO_UDP, 7785), false},
		{"IPv4 UDP to 3784", ipv4_frame(PROTO_UDP, 3784), false},
		{"IPv4 TCP to 7784", ipv4_frame(PROTO_TCP, SBFD_PORT), false},
		{"IPv4 with options", ipv4_frame(PROTO_UDP, SBFD_PORT, 7), true},
		{"IPv4 options hide another port", ipv4_frame(PROTO_UDP, 7785, 7), false},
		{"first fragment, MF set", ipv4_frame(PROTO_UDP, SBFD_PORT, 5, 0x2000), true},
		{"DF set", ipv4_frame(PROTO_UDP, SBFD_PORT, 5, 0x4000), true},
		{"non-first fragment", ipv4_frame(PROTO_UDP, SBFD_PORT, 5, 0x0001), false},
		{"last fragment", ipv4_frame(PROTO_UDP, SBFD_PORT, 5, 0x00b9), false},
		{"IPv6 UDP to 7784", ipv6_frame(PROTO_UDP, SBFD_PORT), true},
		{"IPv6 UDP to 7785", ipv6_frame(PROTO_UDP, 7785), false},
		{"IPv6 TCP to 7784", ipv6_frame(PROTO_TCP, SBFD_PORT), false},
		{"ARP", eth(0x0806), false},
		{"frame ends before the port", truncated, false},
		{"MPLS frame", mpls_frame({0}, 4, PROTO_UDP, SBFD_PORT), false},
	};
	for (const auto &c : cases)
		EXPECT_EQ(kernel_filter_passes(sbfd_udp_filter, SBFD_UDP_FILTER_LEN, c.frame),
			  c.passes ? 1 : 0)
			<< c.what;
}

TEST(SbfdFilters, MplsFilterPassesOneExplicitNullLabelToPort7784)
{
	filter_case cases[] = {
		{"label 0, IPv4 UDP to 7784", mpls_frame({0}, 4, PROTO_UDP, SBFD_PORT), true},
		{"TC and TTL bits ignored", mpls_frame({0}, 4, PROTO_UDP, SBFD_PORT, 0, 7), true},
		{"label 1", mpls_frame({1}, 4, PROTO_UDP, SBFD_PORT), false},
		{"label 16", mpls_frame({16}, 4, PROTO_UDP, SBFD_PORT), false},
		{"two labels", mpls_frame({0, 0}, 4, PROTO_UDP, SBFD_PORT), false},
		{"IPv4 UDP to 7785", mpls_frame({0}, 4, PROTO_UDP, 7785), false},
		{"IPv4 TCP to 7784", mpls_frame({0}, 4, PROTO_TCP, SBFD_PORT), true},
		{"IPv4 SCTP to 7784", mpls_frame({0}, 4, PROTO_SCTP, SBFD_PORT), true},
		{"IPv4 ICMP", mpls_frame({0}, 4, 1, SBFD_PORT), false},
		{"IPv4 first fragment", mpls_frame({0}, 4, PROTO_UDP, SBFD_PORT, 0x2000), true},
		{"IPv4 non-first fragment", mpls_frame({0}, 4, PROTO_UDP, SBFD_PORT, 0x0010), false},
		{"IPv6 UDP to 7784", mpls_frame({0}, 6, PROTO_UDP, SBFD_PORT), true},
		{"IPv6 TCP to 7784", mpls_frame({0}, 6, PROTO_TCP, SBFD_PORT), true},
		{"IPv6 UDP to 7785", mpls_frame({0}, 6, PROTO_UDP, 7785), false},
		{"plain IPv4 frame", ipv4_frame(PROTO_UDP, SBFD_PORT), false},
		{"label only", [] { bytes b = eth(0x8847); put_label(b, 0, true); return b; }(), false},
	};
	for (const auto &c : cases)
		EXPECT_EQ(kernel_filter_passes(sbfd_mpls_filter, SBFD_MPLS_FILTER_LEN, c.frame),
			  c.passes ? 1 : 0)
			<< c.what;
}

TEST(InitSocket, WithoutContextReturns16)
{
	EXPECT_EQ(init_socket(nullptr), INIT_ERR_NO_VRF);
	EXPECT_EQ(reflector_init(nullptr), INIT_ERR_NO_VRF);
}

TEST(InitOutSocket, BindsSourcePort7784WithTos0xC0AndTtl255)
{
	config_reset cfg;
	reflector_vrf vrf{};
	vrf.name = DEFAULT_NS;
	reflector_cfg.sourceIp = private_loopback();
	ASSERT_EQ(init_out_socket(&vrf), INIT_OK) << std::strerror(errno);
	EXPECT_EQ(int_option(vrf.outfd, IPPROTO_IP, IP_TOS), 0xC0);
	EXPECT_EQ(int_option(vrf.outfd, IPPROTO_IP, IP_TTL), 255);
	EXPECT_EQ(int_option(vrf.outfd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
	sockaddr_in a = bound_address(vrf.outfd);
	EXPECT_EQ(a.sin_addr.s_addr, reflector_cfg.sourceIp);
	EXPECT_EQ(ntohs(a.sin_port), SBFD_PORT);

	// Re-created the way the control channel does it after an address change.
	int old = vrf.outfd;
	close(old);
	reflector_cfg.sourceIp = private_loopback() ^ htonl(2);
	ASSERT_EQ(init_out_socket(&vrf), INIT_OK);
	EXPECT_EQ(bound_address(vrf.outfd).sin_addr.s_addr, reflector_cfg.sourceIp);
	close(vrf.outfd);
}

TEST(InitOutSocket, UnownedSourceLeavesTheUnboundSocketOpen)
{
	config_reset cfg;
	reflector_vrf vrf{};
	vrf.name = DEFAULT_NS;
	reflector_cfg.sourceIp = addr("198.51.100.77");
	EXPECT_EQ(init_out_socket(&vrf), INIT_ERR_SOCKET);
	ASSERT_GT(vrf.outfd, 0);
	EXPECT_EQ(int_option(vrf.outfd, IPPROTO_IP, IP_TTL), 255);
	EXPECT_EQ(bound_address(vrf.outfd).sin_port, 0);
	close(vrf.outfd);
}

TEST(InitOutSocket, UnknownNamespaceLeavesMinusOne)
{
	config_reset cfg;
	const std::string missing = testutil::unique_name("orvtest-missing");
	reflector_vrf vrf{};
	vrf.name = missing.c_str();
	reflector_cfg.sourceIp = private_loopback();
	EXPECT_EQ(init_out_socket(&vrf), INIT_ERR_SOCKET);
	EXPECT_EQ(vrf.outfd, -1);
	// A daemon that cannot send opens no receive socket.
	reflector_vrf vrf2{};
	vrf2.name = missing.c_str();
	EXPECT_EQ(init_socket(&vrf2), INIT_ERR_SOCKET);
	EXPECT_EQ(vrf2.infd, 0);
	EXPECT_EQ(vrf2.event, nullptr);
}

// vrf_init's failure paths that need no privilege: the store cannot be
// opened, or the transmit socket cannot be bound (before any packet socket).
// Under the sanitizers these also show that the teardown frees what it made.
class VrfInit : public ::testing::Test {
protected:
	void SetUp() override
	{
		nspath_ = "/" + testutil::unique_name("orvtest");
		setenv("NSPATH", nspath_.c_str(), 1);
		char name[SHM_NAME_LEN];
		shm_store_name(name, nspath_.c_str());
		store_.emplace(name);
	}
	void TearDown() override { unsetenv("NSPATH"); }

	// Creates the store with `rx_drops` set, as a previous run leaves it.
	void leave_store_with_counter(std::uint64_t rx_drops)
	{
		int fd = shm_open(store_->name().c_str(), O_RDWR | O_CREAT, 0644);
		ASSERT_GE(fd, 0);
		ASSERT_EQ(ftruncate(fd, SHM_SIZE), 0);
		void *p = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
		close(fd);
		ASSERT_NE(p, MAP_FAILED);
		static_cast<reflector_shm *>(p)->rx_drops = rx_drops;
		munmap(p, SHM_SIZE);
	}
	std::uint64_t stored_counter()
	{
		int fd = shm_open(store_->name().c_str(), O_RDONLY, 0);
		if (fd < 0)
			return ~0ull;
		void *p = mmap(nullptr, SHM_SIZE, PROT_READ, MAP_SHARED, fd, 0);
		close(fd);
		if (p == MAP_FAILED)
			return ~0ull;
		std::uint64_t v = static_cast<const reflector_shm *>(p)->rx_drops;
		munmap(p, SHM_SIZE);
		return v;
	}

	config_reset cfg_;
	std::string nspath_;
	std::optional<testutil::shm_object> store_;
};

TEST_F(VrfInit, StoreThatCannotBeOpenedFailsTheStart)
{
	// A directory where the object should be: shm_open fails with EISDIR.
	ASSERT_EQ(mkdir(store_->path().c_str(), 0700), 0);
	reflector_cfg.sourceIp = private_loopback();
	EXPECT_EQ(vrf_init(), nullptr);
	rmdir(store_->path().c_str());
}

TEST_F(VrfInit, UnbindableSourceFailsAfterTheStoreIsSetUp)
{
	struct {
		std::uint8_t persist;
		std::uint64_t counter_after;
	} cases[] = {{0, 0}, {1, 12345}};
	mode_t old_umask = umask(022);
	for (const auto &c : cases) {
		leave_store_with_counter(12345);
		reflector_cfg.persist = c.persist;
		reflector_cfg.sourceIp = addr("198.51.100.77");
		EXPECT_EQ(vrf_init(), nullptr);
		EXPECT_EQ(stored_counter(), c.counter_after) << "persist " << int{c.persist};
	}
	shm_unlink(store_->name().c_str());
	reflector_cfg.persist = 0;
	EXPECT_EQ(vrf_init(), nullptr);
	struct stat st {};
	ASSERT_EQ(stat(store_->path().c_str(), &st), 0);
	EXPECT_EQ(st.st_size, static_cast<off_t>(SHM_SIZE));
	EXPECT_EQ(st.st_mode & 0777, 0644u);
	umask(old_umask);
}

class InitSocketInNamespace : public ::testing::Test {
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
	void TearDown() override
	{
		for (event *ev : {vrf_.event, vrf_.eventMpls, vrf_.eventNetlink})
			if (ev != nullptr)
				event_free(ev);
		if (vrf_.base != nullptr)
			event_base_free(vrf_.base);
		for (int fd : {vrf_.infd, vrf_.mplsfd, vrf_.outfd, vrf_.nlfd})
			if (fd > 0)
				close(fd);
	}

	// True when `fd` was made in the test namespace (only it has orvdum0).
	static bool in_test_namespace(int fd)
	{
		ifreq ifr{};
		std::strncpy(ifr.ifr_name, "orvdum0", IFNAMSIZ - 1);
		return ioctl(fd, SIOCGIFINDEX, &ifr) == 0;
	}
	// EtherType a packet socket was opened for, network byte order.
	static int packet_protocol(int fd)
	{
		sockaddr_ll ll{};
		socklen_t len = sizeof ll;
		if (getsockname(fd, reinterpret_cast<sockaddr *>(&ll), &len) != 0)
			return -1;
		return ll.sll_protocol;
	}
	static std::vector<sock_filter> attached_filter(int fd)
	{
		std::vector<sock_filter> prog(64);
		socklen_t count = static_cast<socklen_t>(prog.size());  // in instructions
		if (getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, prog.data(), &count) != 0)
			return {};
		prog.resize(count);
		return prog;
	}
	static bool same_program(const std::vector<sock_filter> &got, const sock_filter *want,
				 std::size_t len)
	{
		return got.size() == len && std::memcmp(got.data(), want, len * sizeof *want) == 0;
	}

	config_reset cfg_;
	std::optional<testutil::netns> ns_;
	std::optional<testutil::dummy_link> link_;
	reflector_vrf vrf_{};
};

TEST_F(InitSocketInNamespace, OpensEverySocketThereWithFiltersAndEvents)
{
	vrf_.name = ns_->name().c_str();
	vrf_.base = event_base_new();
	ASSERT_NE(vrf_.base, nullptr);
	reflector_cfg.sourceIp = addr("192.0.2.1");

	ASSERT_EQ(init_socket(&vrf_), INIT_OK) << std::strerror(errno);

	for (int fd : {vrf_.outfd, vrf_.infd, vrf_.mplsfd, vrf_.nlfd}) {
		ASSERT_GT(fd, 0);
		EXPECT_TRUE(in_test_namespace(fd)) << "fd " << fd;
	}
	EXPECT_EQ(int_option(vrf_.infd, SOL_SOCKET, SO_DOMAIN), AF_PACKET);
	EXPECT_EQ(packet_protocol(vrf_.infd), htons(0x0800));
	EXPECT_EQ(packet_protocol(vrf_.mplsfd), htons(0x8847));
	EXPECT_EQ(int_option(vrf_.nlfd, SOL_SOCKET, SO_PROTOCOL), NETLINK_USERSOCK);
	EXPECT_TRUE(same_program(attached_filter(vrf_.infd), sbfd_udp_filter, SBFD_UDP_FILTER_LEN));
	EXPECT_TRUE(
		same_program(attached_filter(vrf_.mplsfd), sbfd_mpls_filter, SBFD_MPLS_FILTER_LEN));

	sockaddr_nl nl{};
	socklen_t len = sizeof nl;
	ASSERT_EQ(getsockname(vrf_.nlfd, reinterpret_cast<sockaddr *>(&nl), &len), 0);
	EXPECT_EQ(nl.nl_pid, static_cast<std::uint32_t>(getpid()));

	struct {
		event *ev;
		int fd;
	} events[] = {{vrf_.event, vrf_.infd}, {vrf_.eventMpls, vrf_.mplsfd},
		      {vrf_.eventNetlink, vrf_.nlfd}};
	for (const auto &e : events) {
		ASSERT_NE(e.ev, nullptr);
		EXPECT_EQ(event_get_fd(e.ev), e.fd);
		EXPECT_EQ(event_get_events(e.ev), EV_READ | EV_PERSIST);
		EXPECT_EQ(event_get_callback_arg(e.ev), &vrf_);
		EXPECT_TRUE(event_pending(e.ev, EV_READ, nullptr));
	}
}
