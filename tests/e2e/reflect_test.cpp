// reflect_test.cpp -- the reflector answering requests from another network
// namespace, plain and under MPLS label 0, as the initiator captures the
// replies (addresses, ports, TOS, TTL, fields); frames the attached kernel
// filters must drop; the shared store agreeing with that; and the receive
// queue that carries the daemon through a stall.
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <fstream>

#include <gmock/gmock.h>

#include "e2e/e2eutil.h"

namespace {

using ReflectInNamespace = e2e::E2eTest;

constexpr std::uint32_t DISC = 0x0badcafe, MIN_RX = 250000;

probe_params request(std::uint32_t my_disc)
{
	return {.my_disc = my_disc, .your_disc = DISC, .multiplier = 4, .min_tx_us = 123456, .min_rx_us = 7, .min_echo_rx_us = 99};
}

// `r` is the reply to request(`my_disc`), sent by the daemon at 192.0.2.1 to our `port`.
void expect_reply(const std::optional<e2e::reply> &r, std::uint32_t my_disc, std::uint16_t port)
{
	ASSERT_TRUE(r) << "no reply";
	EXPECT_EQ(std::tuple(r->v.src_ip, r->v.dst_ip, r->v.src_port, r->v.dst_port),
		  std::tuple(e2e::DAEMON_IP_H, e2e::INITIATOR_IP_H, SBFD_PORT, port));
	EXPECT_EQ(std::tuple(r->v.tos, r->v.ttl, r->v.payload.size(), r->v.label_entries.size(), bfd_state_of(r->pkt)),
		  std::tuple(0xc0, 255, BFD_PKT_LEN, 0u, BFD_STATE_UP));
	EXPECT_EQ(std::tuple(ntohl(r->pkt.my_disc), ntohl(r->pkt.your_disc), ntohl(r->pkt.min_tx_interval),
			     ntohl(r->pkt.min_rx_interval), ntohl(r->pkt.min_echo_rx_interval)),
		  std::tuple(DISC, my_disc, 123456u, MIN_RX, 0u));
}

TEST_F(ReflectInNamespace, PlainAndLabelledRequestsAreAnsweredAndFilteredFramesNotEvenCounted)
{
	start(DISC, MIN_RX);
	expect_reply(ask(request(1001)), 1001, port);

	// Under label 0 the reply comes back as plain IPv4/UDP.
	auto send_as = [&](std::uint32_t my_disc, std::vector<std::uint32_t> labels, std::uint16_t dst_port = SBFD_PORT,
			   std::uint16_t frag = 0) {
		frame_spec s = shape();
		std::tie(s.labels, s.dst_port, s.frag) = std::tuple(labels, dst_port, frag);
		return send_frame(s, request(my_disc));
	};
	ASSERT_TRUE(send_as(2002, {0}));
	expect_reply(capture(), 2002, port);

	// Frames the filters reject, then a valid one: once its reply is in, the
	// daemon has had every frame before it.
	ASSERT_TRUE(send_as(9, {}, 7785) && send_as(9, {}, SBFD_PORT, 0x0010) && send_as(9, {16}) && send_as(9, {0, 0}) &&
		    send_as(9, {0}, 3784) && send_as(3003, {}));
	expect_reply(capture(), 3003, port);
	EXPECT_FALSE(capture(e2e::ms(300))) << "a filtered frame was answered";

	// The store, readable by others, counts just what was answered.
	struct stat st {};
	ASSERT_EQ(stat(("/dev/shm/" + shm_name()).c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 0777, 0644u);
	ASSERT_TRUE(testutil::wait_until([&] { return store().tx_sends == 3; }));
	const reflector_shm shm = store();
	EXPECT_EQ(std::tuple(shm.rx_valid_pkts, shm.rx_drops, shm.unsupported), std::tuple(3u, 0u, 0u));
	EXPECT_EQ(daemon->out() + daemon->err(), "") << "nothing is printed once the command line is accepted";
}

// The receive buffers (SO_RCVBUF) of the daemon's packet sockets, read on copies of its descriptors.
std::vector<int> packet_socket_rcvbufs(pid_t pid)
{
	std::vector<int> sizes;
	const unique_fd pidfd{static_cast<int>(syscall(SYS_pidfd_open, pid, 0))};
	EXPECT_GE(pidfd.get(), 0) << std::strerror(errno);
	for (const auto &entry : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
		const int target = std::atoi(entry.path().filename().c_str());
		const unique_fd fd{static_cast<int>(syscall(SYS_pidfd_getfd, pidfd.get(), target, 0))};
		int domain = 0, size = 0;
		socklen_t len = sizeof domain;
		if (fd.get() < 0 || getsockopt(fd.get(), SOL_SOCKET, SO_DOMAIN, &domain, &len) != 0 || domain != AF_PACKET)
			continue;
		len = sizeof size;
		EXPECT_EQ(getsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &size, &len), 0);
		sizes.push_back(size);
	}
	return sizes;
}

// A stall of 50 ms at 155,000 requests/s is 7,750 requests: the daemon,
// stopped, finds every one of them queued when it goes on (the old default
// buffer held 256). Both packet sockets, IPv4 and MPLS, got the same buffer.
TEST_F(ReflectInNamespace, StoppedDaemonAnswersFiftyMillisecondsOfRequestsAt155000PerSecond)
{
	constexpr std::uint64_t STALL_REQUESTS = 155000 * 50 / 1000;
	start(DISC, MIN_RX);
	expect_reply(ask(request(1001)), 1001, port);  // the neighbour known: no request waits for it
	const std::vector<int> sizes = packet_socket_rcvbufs(daemon->pid());
	ASSERT_EQ(sizes.size(), 2u);
	EXPECT_EQ(sizes[0], sizes[1]);

	ASSERT_EQ(kill(daemon->pid(), SIGSTOP), 0);
	std::uint8_t b[BFD_PKT_LEN];
	probe_encode_request(request(1001), b);
	for (std::uint64_t i = 0; i < STALL_REQUESTS; i++)
		ASSERT_EQ(send(udp.get(), b, sizeof b, 0), static_cast<ssize_t>(sizeof b)) << "request " << i;
	ASSERT_EQ(kill(daemon->pid(), SIGCONT), 0);
	EXPECT_TRUE(testutil::wait_until([&] { return store().rx_valid_pkts == 1 + STALL_REQUESTS; }, std::chrono::seconds(10)))
		<< "answered " << store().rx_valid_pkts - 1 << " of " << STALL_REQUESTS << " requests sent while stopped";
}

// Without CAP_NET_ADMIN the daemon asks SO_RCVBUF for what
// packaging/60-orvalindwarden.conf lets it have and gets what
// net.core.rmem_max allows (the kernel doubles it); it starts and answers
// all the same.
TEST_F(ReflectInNamespace, WithoutNetAdminTheQueueIsWhatNetCoreRmemMaxAllows)
{
	std::ifstream conf(std::string(ORV_SOURCE_DIR) + "/packaging/60-orvalindwarden.conf");
	long ceiling = 0;
	for (std::string line; std::getline(conf, line);)
		if (line.rfind("net.core.rmem_max = ", 0) == 0)
			ceiling = std::stol(line.substr(line.find('=') + 1));
	ASSERT_GT(ceiling, 0) << "no net.core.rmem_max in the package's sysctl file";
	const long rmem_max = std::stol(testutil::output_of("ip netns exec " + ns_d + " cat /proc/sys/net/core/rmem_max"));

	wrapper = {"setpriv", "--bounding-set=-all,+net_raw", "--"};
	start(DISC, MIN_RX);
	expect_reply(ask(request(1001)), 1001, port);
	EXPECT_EQ(packet_socket_rcvbufs(daemon->pid()), std::vector<int>(2, static_cast<int>(2 * std::min(ceiling, rmem_max))));
	EXPECT_THAT(testutil::read_file("/proc/" + std::to_string(daemon->pid()) + "/status"),
		    testing::HasSubstr("CapEff:\t0000000000002000\n"))
		<< "the daemon had more than CAP_NET_RAW";
}

}  // namespace
