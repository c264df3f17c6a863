// nlctl.h -- the controlling agent's side of the reflector's netlink control
// channel: validate a configuration, encode it as one netlink message, find
// the daemon and send the message to it.
//
// The message is the one wire.h describes (reflector_nl_config after a
// netlink header, 32 bytes). The daemon applies all four values of every
// message and answers nothing; what it runs with is in its run-state file
// (runstate.h). So a change of some values takes the others from that file,
// and whether the daemon applied it, or ended, shows there, in the process
// table and in its trace.
#pragma once

#include <sys/types.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "runstate.h"
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
constexpr int NLCTL_ERR_STATE = 5;       // no usable run-state file of that daemon
constexpr int NLCTL_ERR_ENDED = 6;       // the daemon ended after the change
constexpr int NLCTL_ERR_UNCONFIRMED = 7; // it lives, but its file never showed the change

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
// /proc shows in another namespace, then nlctl_check_source unless
// `check_source` is false (the daemon runs with c.src_ip already, so it
// binds nothing new), then sends the message of `c` with sequence number
// `seq`. Nothing is sent unless all pass. Returns NLCTL_OK or a code above,
// with a message in *err.
int nlctl_send_config(pid_t pid, const char *netns, const nlctl_config &c, std::uint32_t seq,
		      std::string *err, bool check_source = true);

// ---- the running configuration ----

// The values a command asks to change; the others stay as the daemon runs them.
struct nlctl_change {
	std::optional<std::uint32_t> disc = std::nullopt;    // nonzero
	std::optional<std::uint32_t> min_rx = std::nullopt;  // us
	std::optional<std::uint32_t> src_ip = std::nullopt;  // host order
	std::optional<bool> admin_down = std::nullopt;
};

// True when `c` sets all four values (it needs no running configuration).
bool nlctl_change_complete(const nlctl_change &c);

// `c`, its missing values taken from `running` (a raw admin byte other
// than 0 counts as AdminDown).
nlctl_config nlctl_merge(const nlctl_change &c, const run_state &running);

// Path of the run-state file of store `object` when non-null (a leading "/"
// dropped, as orvalindwarden-stat --object), else of the store the daemon
// names after `nspath` (nullptr or "": no NSPATH). "" with a message in
// *err when no such path can be built.
std::string nlctl_state_path(const char *object, const char *nspath, std::string *err);

// The largest /proc/PID/environ read; a longer one is cut there.
constexpr std::size_t NLCTL_ENVIRON_MAX = 256 * 1024;

// Value of variable `name` in the environment process `pid` started with
// (/proc/PID/environ: root, or the same user). nullopt when it is not set
// or cannot be read.
std::optional<std::string> nlctl_process_env(pid_t pid, const char *name);

// Reads the running configuration of daemon `pid` from the run-state file
// `path`. Returns NLCTL_OK, or NLCTL_ERR_STATE with one line in *err: no
// file, not a regular file, not a run-state file, or the file of another
// process (stale: left by an earlier daemon).
int nlctl_read_state(const char *path, pid_t pid, run_state *out, std::string *err);

// The running configuration as `--show` prints it: one "key value" line
// each for the discriminator, source, Min RX, admin state, since (local
// time, and whether that is the start or a change) and pid.
std::string nlctl_format_state(const run_state &s);

// False when process `pid` does not exist or has ended and waits to be
// reaped (a zombie is no daemon).
bool nlctl_process_alive(pid_t pid);

// The daemon's trace file name (its TRACE_FILE_NAME).
constexpr const char NLCTL_TRACE_FILE[] = "orvalindwarden.bl";

// The trace file daemon `pid` writes: the file of that name it has mapped
// (/proc/PID/maps), else $BREVLOG_DIR/orvalindwarden.bl of its environment,
// else of ours, else /var/log/orvalindwarden/orvalindwarden.bl when that
// exists, else /var/log/brevlog/orvalindwarden.bl. Call it while the
// daemon runs.
std::string nlctl_trace_path(pid_t pid);

// Text of the last level-1 (error) record of the trace `path` written at or
// after `since_ns` (CLOCK_REALTIME), control characters shown as "?".
// nullopt when there is none; "" with a message in *err when the file
// cannot be read.
std::optional<std::string> nlctl_last_error(const char *path, std::uint64_t since_ns, std::string *err);

// CLOCK_REALTIME now, nanoseconds: the clock of since-times and trace records.
std::uint64_t nlctl_realtime_ns();

// After a change `sent` was sent at `sent_ns` (CLOCK_REALTIME) to daemon
// `pid`: polls, until `timeout` has passed, for its run-state file
// `state_path` to show `sent` with a since-time of that change (at or after
// sent_ns, or other than that of `before`, the file read before sending,
// when non-null), while watching the daemon live. Returns NLCTL_OK;
// NLCTL_ERR_ENDED when it ended, with the last error record of `trace_path`
// since sent_ns in *err; NLCTL_ERR_UNCONFIRMED when it lives but the file
// did not show the change, with why in *err.
int nlctl_confirm(pid_t pid, const char *state_path, const nlctl_config &sent, const run_state *before,
		  std::uint64_t sent_ns, const char *trace_path, std::chrono::milliseconds timeout,
		  std::string *err);
