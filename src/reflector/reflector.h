// reflector.h -- shared types of the S-BFD reflector daemon (RFC 7880, 7881):
// configuration, the one context record, the session table's lists and
// nodes, the own addresses, and the functions that cross source files, in
// the order a received frame meets them.
//
// What other programs share with the daemon lives in src/wire and is
// included from here: the frames and the BFD control packet (wire.h), the
// netlink control message (wire.h), the shared session store with its
// object name (store.h) and the run-state file (runstate.h).
#pragma once

#include <linux/filter.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "runstate.h"
#include "store.h"
#include "wire.h"

struct event_base;
struct event;

constexpr std::uint32_t SESSION_HASH_BUCKETS = 2048;
constexpr std::uint32_t SESSION_HASH_MASK = SESSION_HASH_BUCKETS - 1;  // 0x7FF
static_assert((SESSION_HASH_BUCKETS & SESSION_HASH_MASK) == 0, "bucket count is a power of two");
constexpr std::size_t RX_BUF_LEN = 65536;  // receive buffer of frames and netlink datagrams
static_assert(RX_READ_LIMIT <= RX_BUF_LEN);

// init_socket / init_out_socket / reflector_init results.
constexpr int INIT_OK = 0;
constexpr int INIT_ERR_NO_VRF = 16;  // null context
constexpr int INIT_ERR_SOCKET = 32;  // any socket, filter, bind or event failure

// The namespace every socket is created in ("default": the daemon's own).
extern const char *const DEFAULT_NS;

// Process-wide configuration: command line at start, netlink at run time.
struct reflector_config {
	std::uint32_t discriminator;  // our S-BFD discriminator, network byte order
	std::uint32_t minRx;          // Required Min RX Interval we announce, us, host order
	std::uint32_t sourceIp;       // IPv4 source of replies, network byte order
	std::uint8_t adminDown;       // nonzero: replies say AdminDown, diag 7
	std::uint8_t daemonize;       // -D: detach at start-up
	std::uint8_t persist;         // -S: keep the shared store of the previous run
};
extern reflector_config reflector_cfg;

// Intrusive circular doubly linked list link; a head of an empty list
// points to itself both ways.
struct list_link {
	list_link *next;  // next link; for a head, the first element
	list_link *prev;  // previous link; for a head, the last element
};

// Values left in an unlinked link, so that a stale use shows.
inline list_link *const UNLINKED_NEXT = reinterpret_cast<list_link *>(0x111111);
inline list_link *const UNLINKED_PREV = reinterpret_cast<list_link *>(0x222222);

inline void list_init(list_link *l)
{
	l->next = l;
	l->prev = l;
}

inline bool list_empty(const list_link *head) { return head->next == head; }

// Inserts `l` between `prev` and `next`.
inline void list_insert_between(list_link *l, list_link *prev, list_link *next)
{
	l->next = next;
	l->prev = prev;
	prev->next = l;
	next->prev = l;
}

inline void list_insert_front(list_link *head, list_link *l)
{
	list_insert_between(l, head, head->next);
}

inline void list_insert_tail(list_link *head, list_link *l)
{
	list_insert_between(l, head->prev, head);
}

// Inserts `l` before the element `e`.
inline void list_insert_before(list_link *e, list_link *l)
{
	list_insert_between(l, e->prev, e);
}

// Joins l's neighbours; l keeps its stale pointers.
inline void list_join_neighbours(list_link *l)
{
	l->next->prev = l->prev;
	l->prev->next = l->next;
}

inline void list_unlink(list_link *l)
{
	list_join_neighbours(l);
	l->next = UNLINKED_NEXT;
	l->prev = UNLINKED_PREV;
}

inline void list_move_front(list_link *head, list_link *l)
{
	list_join_neighbours(l);
	list_insert_front(head, l);
}

// In-process node of one session slot (node k is bound to slot k).
struct session_node {
	list_link hash_list;             // chain of its hash bucket, while in use
	list_link free_link;             // free_list, while free
	list_link cache_list;            // sess_cache, while in use
	reflector_session *shm_session;  // its slot in the store, fixed at start-up
};

// Element of `link`, which is the member at `offset` of a session_node.
inline session_node *node_of(list_link *link, std::size_t offset)
{
	return reinterpret_cast<session_node *>(reinterpret_cast<char *>(link) - offset);
}
inline session_node *node_of_hash(list_link *l) { return node_of(l, offsetof(session_node, hash_list)); }
inline session_node *node_of_free(list_link *l) { return node_of(l, offsetof(session_node, free_link)); }
inline session_node *node_of_cache(list_link *l) { return node_of(l, offsetof(session_node, cache_list)); }

// The namespace's own IPv4 addresses: no reply may go to one, since it
// would come back to this host (a forged source naming it reaches services
// that trust local senders). The table is sized for hosts with many
// addresses, and an address beyond it is traced and not refused.
constexpr std::size_t LOCAL_ADDR_MAX = 1024;  // entries, 12 KiB

// One IPv4 address configured on one interface of the namespace.
struct local_addr {
	std::uint32_t addr;     // the address, network order
	std::uint32_t ifindex;  // interface it is configured on
	bool stale;             // not (yet) listed by the dump under way
};

// The namespace's IPv4 addresses (martian ones left out: they are refused
// anyway), kept current by the address watch: a dump at start-up, the
// kernel's notifications, and a new dump whenever notifications were lost.
// An address on two interfaces has two entries and stays until both go.
struct local_addr_table {
	local_addr entries[LOCAL_ADDR_MAX];  // ordered by addr (as an integer), then ifindex
	std::uint32_t count;                 // entries in use
	std::uint32_t port;                  // the watch socket's netlink port id
	std::uint32_t seq;                   // sequence number of the last dump requested
	bool dumping;                        // the dump `seq` has not ended yet
	bool marked;                         // a part of it arrived: unlisted entries are stale
	bool again;                          // it may miss changes: dump again at its end
};

// The one context record of the daemon.
struct reflector_vrf {
	const char *name;                         // namespace of every socket: DEFAULT_NS
	event_base *base;                         // event base; main runs its loop
	struct event *event;                      // read event of infd -> rx_data_ready
	struct event *eventMpls;                  // read event of mplsfd -> rx_data_ready
	struct event *eventNetlink;               // read event of nlfd -> rx_netlink_ready
	struct event *event_addr;                 // read event of addrfd -> rx_addr_ready
	list_link hash_tbl[SESSION_HASH_BUCKETS];  // session chains by get_session_hash
	std::uint32_t session_count;              // nodes on all chains
	list_link sess_cache;                     // in-use nodes, most recently looked up first
	std::uint32_t sess_cache_count;           // nodes on sess_cache, <= 512
	list_link free_list;                      // nodes whose slot is free
	reflector_shm *shm;                       // the mapped shared store
	session_node *rx_sess;                    // MAX_SESSIONS nodes; node k <-> slot k
	int infd;                                 // packet socket, IPv4 frames; 0: not opened
	int mplsfd;                               // packet socket, MPLS frames; 0: not opened
	int outfd;                                // UDP socket of the replies; 0: not opened
	int nlfd;                                 // netlink control socket; 0: not opened
	int addrfd;                               // address watch (NETLINK_ROUTE); 0: none
	local_addr_table local_addrs;             // own addresses; empty while addrfd is 0
	char state_path[RUN_STATE_PATH_MAX];      // run-state file; "": none is written
	shm_timestamp started;                    // start of the daemon, CLOCK_REALTIME
	shm_timestamp state_since;                // start or last accepted change, CLOCK_REALTIME
	std::int64_t state_written_ns;            // end of the last write of the file, CLOCK_MONOTONIC ns
	struct event *event_state;                // timer of a deferred write -> state_timer_fired
};

// Writes one record to the system log as the daemon ("SBFD_REFLECTOR", with
// the pid, facility user), opening and closing the log around it. Only for
// the start-up record and for faults of the environment that leave the
// daemon without its store or its trace, which the operator must hear of.
void reflector_syslog(int priority, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// ---- reflectorInit.cpp: context, store and sockets ----

// Builds the context: event base, empty buckets, the shared store (cleared
// unless reflector_cfg.persist), the session table, and every socket and
// event (reflector_init). Returns the context, or nullptr after tracing why
// and undoing what it made.
reflector_vrf *vrf_init();

// Classic BPF programs of the two packet sockets: sbfd_udp_filter passes
// Ethernet frames with IPv4 (or IPv6) UDP to port 7784, non-first fragments
// excepted; sbfd_mpls_filter passes frames under exactly one MPLS label of
// value 0 carrying IPv4/IPv6 UDP, TCP or SCTP to port 7784. Both accept up to
// 65535 bytes of a frame.
constexpr std::size_t SBFD_UDP_FILTER_LEN = 16;
constexpr std::size_t SBFD_MPLS_FILTER_LEN = 30;
extern const sock_filter sbfd_udp_filter[16];
extern const sock_filter sbfd_mpls_filter[30];

// Opens every socket and event of `vrf`. Returns init_socket's result.
int reflector_init(reflector_vrf *vrf);

// Transmit socket, then IPv4 and MPLS packet sockets with their filters, then
// the address watch, then the netlink socket bound to getpid(), each with a
// persistent read event on vrf->base. Without an address watch (it could not
// be set up: traced) the reflector still answers, refusing only martian
// destinations and sourceIp. Returns INIT_OK, INIT_ERR_NO_VRF for a null
// vrf, INIT_ERR_SOCKET otherwise (leaving what it opened in vrf).
int init_socket(reflector_vrf *vrf);

// (Re)creates vrf->outfd: UDP, TOS 0xC0, TTL 255, bound to
// reflector_cfg.sourceIp port 7784. Returns INIT_OK or INIT_ERR_SOCKET.
int init_out_socket(reflector_vrf *vrf);

// Opens the address watch vrf->addrfd (NETLINK_ROUTE, subscribed to IPv4
// address changes), reads its first dump into vrf->local_addrs and adds its
// read event. Returns INIT_OK, or INIT_ERR_SOCKET after tracing the step,
// with addrfd closed and 0 and the table empty.
// REQUIRES: vrf->base set; vrf->addrfd 0.
int init_addr_watch(reflector_vrf *vrf);

// ---- reflectorRx.cpp: reception and decapsulation ----

// Read callback of both packet sockets: one frame per call.
void rx_data_ready(int fd, short what, void *arg);

// rx_handle_frame results.
constexpr int RX_FRAME_DONE = 0;        // frame counted, dropped or answered
constexpr int RX_FRAME_SHORT_SEND = 1;  // the reply went out short: an internal fault

// The part of rx_data_ready after recvfrom: decapsulates, validates, counts
// and answers the frame of `n` bytes at `buf`. Returns RX_FRAME_SHORT_SEND
// (after counting wrong_len_sent and tracing) when sendto reported a length
// other than 24; the caller must then stop the process.
// REQUIRES: vrf non-null with its store and table set up; n > 0; buf holds
// at least max(n, RX_READ_LIMIT) bytes, and those from n up to RX_READ_LIMIT
// (110: the furthest decapsulation reads, a control packet after an MPLS
// label and a 60-byte IPv4 header) are zero. The reply is written over the
// request in `buf`.
int rx_handle_frame(reflector_vrf *vrf, std::uint8_t *buf, std::int32_t n);

// ---- reflectorRx.cpp: validation ----

// Validates one received control packet; counts the reason of a rejection,
// or rx_valid_pkts when it passes. `len` is the bytes from the packet's start
// to the frame's end (negative when the frame ends before it).
// REQUIRES: bfd points at 24 readable bytes (when non-null).
bool sbfd_packet_valid(const bfd_ctrl_pkt *bfd, std::int64_t len, sockaddr_in from,
		       reflector_vrf *vrf);

// ---- reflectorRx.cpp: session lookup and the session table ----

// One-at-a-time hash step over the four bytes of `value`, low byte first,
// starting from `initial`; with the final avalanche when `final` is nonzero.
std::uint32_t hashmix(std::uint32_t value, std::uint32_t initial, std::int32_t final);

// Bucket index (0..2047) of a session key.
std::uint32_t get_session_hash(std::uint32_t source_ip, std::uint32_t discriminator);

// Finds or creates the session of (discriminator host order, source_ip
// network order), evicting the least recently used one when all 512 are in
// use. Returns nullptr only for a null vrf.
session_node *get_session(reflector_vrf *vrf, std::uint32_t discriminator,
			  std::uint32_t source_ip);

// Checks the table's invariants; aborts through ENSURE when one is broken.
void session_sanity_check(reflector_vrf *vrf);
// Whether the check compares bucket heads with AVX2 (set at start-up from
// the processor's features; tests clear it to run the portable path).
extern bool session_check_avx2;

// Start-up set-up of the table over the mapped store: allocates the nodes,
// binds node k to slot k, fills free_list, and with reflector_cfg.persist
// restores the slots in use (reflector_cache_reinit). Returns 0, or nonzero
// when the nodes cannot be allocated (traced).
int session_table_setup(reflector_vrf *vrf);

// Re-enters the slots in use into the buckets and sess_cache (newest first).
void reflector_cache_reinit(reflector_vrf *vrf);

// Inserts `node` into sess_cache ordered by last_rx, newest first.
void session_cache_insert_by_time(reflector_vrf *vrf, session_node *node);

// ---- reflectorRx.cpp: reply ----

// Rewrites a validated request into its reply, in place.
void get_tx_data(bfd_ctrl_pkt *bfd);

// ---- reflectorRx.cpp: report ----

// Writes the statistics report when rx_drops + rx_valid_pkts calls for one.
void maybe_dump_stats(reflector_vrf *vrf);

// Writes the two report lines of one session.
void dump_session(session_node *node);

// Writes the whole table to the trace (level 5).
void dump_hash_tbl(reflector_vrf *vrf);

// ---- reflectorRx.cpp: control channel ----

// Read callback of the netlink socket: one datagram per call. After a
// datagram that set the configuration (and re-created the transmit socket
// for a new source) the run-state file is rewritten (reflector_state_changed).
void rx_netlink_ready(int fd, short what, void *arg);

// Least time between two writes of the run-state file: a flood of control
// datagrams costs at most 10 writes a second, whatever the file system
// (on a disk-backed /run, a rename over the old file may start writeback and
// hold the loop for milliseconds).
constexpr std::int64_t RUN_STATE_GAP_NS = 100 * 1000 * 1000;  // 100 ms

// Rewrites vrf->state_path (runstate.h) now with reflector_cfg, our pid,
// vrf->started and vrf->state_since, and notes the time in
// state_written_ns. Does nothing while state_path is "" (tests, fuzz
// targets). A failure is traced (level 1) and otherwise ignored: replies do
// not depend on the file.
void reflector_save_state(reflector_vrf *vrf);

// Notes a configuration accepted at `since` (CLOCK_REALTIME): rewrites the
// file at once, or, less than RUN_STATE_GAP_NS after the last write, when
// that gap has passed (vrf->event_state; a write already waiting takes the
// newest values). Without the timer (not made) it writes at once.
void reflector_state_changed(reflector_vrf *vrf, const shm_timestamp &since);

// Timer callback of vrf->event_state: the deferred write.
void state_timer_fired(int fd, short what, void *arg);

// ---- reflectorRx.cpp: the reply's destination and the own addresses ----

// True when no reply may go to `addr` (network order): a martian address
// (ipv4_martian), reflector_cfg.sourceIp, or one in vrf->local_addrs.
// REQUIRES: vrf non-null.
bool reply_dst_refused(const reflector_vrf *vrf, std::uint32_t addr);

// Asks the kernel on vrf->addrfd for a dump of the namespace's IPv4
// addresses, which then replaces vrf->local_addrs; while a dump is under way,
// asks for another once it ends. Returns 0, or -1 when the request could not
// be sent (traced; the table stays as it was).
int local_addr_resync(reflector_vrf *vrf);

// Reads one datagram of the address watch from `fd` and applies it to
// vrf->local_addrs; after lost notifications (ENOBUFS) dumps again. Returns
// the bytes read, or -1 when nothing was read (traced, errno kept).
// REQUIRES: vrf non-null.
std::int32_t local_addr_read(reflector_vrf *vrf, int fd);

// Read callback of the address watch: one datagram per call.
void rx_addr_ready(int fd, short what, void *arg);
