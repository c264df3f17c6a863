// baseline.cpp -- the bare reflector: the physical limit the daemon is
// measured against. Per request it makes exactly the system calls the daemon
// must make and nothing else: wait for readiness (epoll, as the daemon's
// event loop does), one recvfrom from a packet socket of the daemon's kind
// (AF_PACKET, SOCK_RAW, IPv4) with the daemon's own kernel filter attached,
// and one sendto of the 24-byte reply on a UDP socket bound to the source
// address and port 7784 with the daemon's TOS and TTL.
//
// No validation, no session table, no counters, no trace: only the fixed
// offsets of a plain IPv4 frame are read and the two discriminators are
// swapped. Runs until killed.
//
// The packet socket keeps the kernel's default receive queue (about 256
// requests), unless RCVBUF is given: then it takes that value as the
// daemon sets its own (SO_RCVBUFFORCE, half the queue's bytes), so that
// both meet a busy host's scheduling delays with the same queue and a loss
// figure compares their speed alone.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "reflector.h"
#include "trace.h"


namespace {

constexpr int REPLY_TOS = 0xC0;  // as the daemon's transmit socket
constexpr int REPLY_TTL = 255;

int fail(const char *what)
{
	std::fprintf(stderr, "baseline: %s: %s\n", what, std::strerror(errno));
	return 1;
}

}  // namespace

int main(int argc, char **argv)
{
	if (argc != 3 && argc != 4) {
		std::fprintf(stderr, "usage: baseline SOURCE_ADDR DISCRIMINATOR [RCVBUF]\n");
		return 2;
	}
	in_addr src{};
	if (inet_pton(AF_INET, argv[1], &src) != 1)
		return 2;
	const std::uint32_t disc_net = htonl(static_cast<std::uint32_t>(std::strtoul(argv[2], nullptr, 10)));

	const int out = socket(AF_INET, SOCK_DGRAM, 0);
	if (out < 0)
		return fail("socket(udp)");
	const int tos = REPLY_TOS, ttl = REPLY_TTL;
	setsockopt(out, IPPROTO_IP, IP_TOS, &tos, sizeof tos);
	setsockopt(out, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_port = htons(SBFD_PORT);
	a.sin_addr = src;
	if (bind(out, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
		return fail("bind");

	const int in = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_IP));
	if (in < 0)
		return fail("socket(packet)");
	sock_fprog prog{static_cast<unsigned short>(SBFD_UDP_FILTER_LEN), const_cast<sock_filter *>(sbfd_udp_filter)};
	if (setsockopt(in, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof prog) != 0)
		return fail("SO_ATTACH_FILTER");
	const int rcvbuf = argc == 4 ? std::atoi(argv[3]) : 0;
	if (rcvbuf > 0 && setsockopt(in, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof rcvbuf) != 0)
		return fail("SO_RCVBUFFORCE");

	const int ep = epoll_create1(0);
	epoll_event ev{};
	ev.events = EPOLLIN;
	ev.data.fd = in;
	if (ep < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, in, &ev) != 0)
		return fail("epoll");
	std::printf("baseline ready\n");
	std::fflush(stdout);

	alignas(16) static std::uint8_t buf[RX_BUF_LEN];
	for (;;) {
		epoll_event got;
		if (epoll_wait(ep, &got, 1, -1) != 1)
			continue;
		sockaddr_in ignored{};
		socklen_t alen = sizeof ignored;
		const ssize_t n = recvfrom(in, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&ignored), &alen);
		const std::size_t ip_off = ETH_HDR_LEN;
		const std::size_t ihl = buf[ip_off] & IPV4_IHL_MASK;
		const std::size_t ctrl = ip_off + IPV4_IHL_UNIT * ihl + UDP_HDR_LEN;
		if (n < static_cast<ssize_t>(ctrl + BFD_PKT_LEN))
			continue;
		sockaddr_in to{};
		to.sin_family = AF_INET;
		std::memcpy(&to.sin_port, buf + ip_off + IPV4_IHL_UNIT * ihl + UDP_SPORT_OFF, 2);
		std::memcpy(&to.sin_addr, buf + ip_off + IPV4_SADDR_OFF, 4);
		std::uint8_t *p = buf + ctrl;
		std::memcpy(p + 8, p + 4, 4);        // your_disc = request's my_disc
		std::memcpy(p + 4, &disc_net, 4);    // my_disc = ours
		p[1] = static_cast<std::uint8_t>((BFD_STATE_UP << 6) | (p[1] & 0x3D));  // Up, D clear
		std::memset(p + 20, 0, 4);
		sendto(out, p, BFD_PKT_LEN, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&to), sizeof to);
	}
}
