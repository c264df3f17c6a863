// fuzz_netlink.cpp -- libFuzzer target of the control channel: every input
// is one datagram on the netlink socket, read by rx_netlink_ready itself
// from a datagram socket pair. Source address changes re-create the
// transmit socket for real (any address binds in the private namespace).
//
// Beyond "no crash": the transmit socket is open after every datagram, and
// a datagram too short for one header changes no configuration.
#include <fcntl.h>

#include <cstdint>
#include <cstring>

#include "fuzz_env.h"

namespace {
reflector_vrf *vrf;
int pair[2] = {-1, -1};
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
	vrf = fuzz_env::setup();
	if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) {
		std::perror("fuzz: socketpair");
		std::exit(1);
	}
	int big = 4 * static_cast<int>(RX_BUF_LEN);
	setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
	setsockopt(pair[0], SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size > RX_BUF_LEN)
		return -1;
	if (send(pair[1], data, size, 0) != static_cast<ssize_t>(size))
		return -1;
	const reflector_config before = reflector_cfg;
	rx_netlink_ready(pair[0], 0x02 /* EV_READ */, vrf);
	if (fcntl(vrf->outfd, F_GETFD) == -1)
		__builtin_trap();
	if (size < 16 && std::memcmp(&before, &reflector_cfg, sizeof before) != 0)
		__builtin_trap();
	return 0;
}
