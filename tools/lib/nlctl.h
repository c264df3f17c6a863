// nlctl.h -- the controlling agent's side of the reflector's netlink control
// channel: validate a configuration, encode it as one netlink message, find
// the daemon and send the message to it.
//
// The message is the one wire.h describes (reflector_nl_config after a
// netlink header, 32 bytes). The daemon applies all four values of every
// message and answers nothing, so an agent has to send the complete
// configuration each time.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>

#include "wire.h"

constexpr std::size_t NLCTL_MSG_LEN = NL_HDR_LEN + sizeof(reflector_nl_config);  // header + payload
static_assert(NLCTL_MSG_LEN == 32);

// The daemon's configuration as the agent gives it; host order throughout.
struct nlctl_config {
	std::uint32_t disc = 0;    // nonzero
	std::uint32_t min_rx = 0;  // us
	std::uint32_t src_ip = 0;  // a.b.c.d with a the top byte; not 0.0.0.0
	bool admin_down = false;
};

// Encodes `c` as the one message above.
std::array<std::uint8_t, NLCTL_MSG_LEN> nlctl_encode(const nlctl_config &c, std::uint32_t seq);

// Parses a dotted-quad IPv4 address into a host-order integer. Addresses no
// S-BFD packet may come from (ipv4_martian: 0.0.0.0/8, loopback, multicast,
// reserved, broadcast) are refused: the daemon cannot send from them.
bool nlctl_parse_ipv4(const char *text, std::uint32_t *host_order, std::string *err);

// The largest pid file read: a pid (at most 10 digits) and a newline, with room.
constexpr std::size_t NLCTL_PIDFILE_MAX = 32;

// Reads the daemon's pid from `path`, a regular file of at most
// NLCTL_PIDFILE_MAX bytes holding one decimal number and an optional
// newline, as the daemon writes it. Anything else (a device such as
// /dev/zero, a FIFO, a larger file, other text) is refused unread or after
// that many bytes. Returns false with a message in *err.
bool nlctl_read_pidfile(const char *path, pid_t *pid, std::string *err);

constexpr int NLCTL_OK = 0;
constexpr int NLCTL_ERR_NO_PROCESS = 1;  // no process of that pid
constexpr int NLCTL_ERR_NO_PORT = 2;     // nobody bound netlink port `pid` (ECONNREFUSED)
constexpr int NLCTL_ERR_SYSTEM = 3;      // socket, namespace or send failure
constexpr int NLCTL_ERR_SOURCE = 4;      // the source is no address of the namespace

// Sends `msg` to netlink port `pid` from a NETLINK_USERSOCK socket created in
// network namespace `netns` ("default": the caller's). Returns NLCTL_OK or a
// code above, with a message in *err.
int nlctl_send(pid_t pid, const char *netns, const std::array<std::uint8_t, NLCTL_MSG_LEN> &msg,
	       std::string *err);

// Checks that the daemon in namespace `netns` can send from `src_ip` (host
// order): a UDP socket created there binds it (any port), as the daemon's
// transmit socket must. The daemon ends when it cannot. Returns NLCTL_OK,
// NLCTL_ERR_SOURCE or NLCTL_ERR_SYSTEM, with a message in *err.
int nlctl_check_source(const char *netns, std::uint32_t src_ip, std::string *err);

// What orvalindwarden-ctl does: the checks of nlctl_send (process, netlink
// socket in `netns`), NLCTL_ERR_NO_PORT at once for a process that
// /proc shows in another namespace, then nlctl_check_source, then sends the
// message of `c` with sequence number `seq`. Nothing is sent unless all
// pass. Returns NLCTL_OK or a code above, with a message in *err.
int nlctl_send_config(pid_t pid, const char *netns, const nlctl_config &c, std::uint32_t seq,
		      std::string *err);
