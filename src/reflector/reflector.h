// reflector.h -- shared types of the S-BFD reflector daemon (RFC 7880, 7881):
// configuration, the one context record, the shared session store, the
// session table's lists and nodes, the BFD control packet, and the functions
// that cross source files.
//
// Shared session store: a POSIX shared-memory object named "orvalindwarden"
// followed by NSPATH with every "/" turned into "-", 69720 bytes, host byte
// order except source_ip (network order). Readers outside the daemon rely on
// this layout; it is fixed by the static_asserts below.
//
//   store     := header slot[512]
//   header    (88 bytes)
//     0  u64 rx_drops             frames dropped by the receive path
//     8  u64 tx_sends             replies sent with their full length
//     16 u64 rx_valid_pkts        control packets that passed validation
//     24 u32 pkt_truncated        rejected: shorter than a control packet
//     28 u32 bad_version          rejected: version not 1
//     32 u32 invalid_pkt_len      rejected: Length above the received length
//     36 u32 invalid_src_port     rejected: UDP source port 7784
//     40 u32 demand_mode_unset    rejected: D bit clear
//     44 u32 invalid_detect_mult  rejected: Detect Mult 0
//     48 u32 invalid_my_disc      rejected: My Discriminator 0
//     52 u32 your_disc_unmatch    rejected: Your Discriminator not ours
//     56 u32 invalid_bfd_state    rejected: state AdminDown or Init
//     60 u32 unsupported          frames of a kind not handled (EtherType, labels)
//     64 u32 invalid_pkt_format   frames whose IP payload is not UDP
//     68 u32 sendto_fail          failed send attempts
//     72 u32 wrong_len_sent       sends that returned a length other than 24
//     76 u32 rx_hash_miss         lookups without a session, this counting period
//     80 u32 rx_hash_hit          lookups that found their session, this period
//     84 u32 rx_hash_trim         sessions evicted, this period
//   slot k    (136 bytes at 88 + 136 k; in use when discriminator != 0)
//     0   u32 discriminator        initiator's My Discriminator
//     4   u32 source_ip            initiator's IPv4 address, network order
//     8   u32 desired_min_tx       last request's Desired Min TX Interval, us
//     12  u32 required_min_rx      last request's Required Min RX Interval, us
//     16  u32 required_min_echo_rx last request's Required Min Echo RX Interval, us
//     20  u32 min_period           smallest gap between requests, us (0: none yet)
//     24  u32 max_period           largest gap between requests, us
//     28  u32 your_disc            last request's Your Discriminator
//     32  u16 source_port          initiator's UDP source port
//     34  u8  detect_multiplier    last request's Detect Mult
//     35  u8  state                last request's State (0..3)
//     36  u8  prev_state           received state before the last change
//     37  u8  diag                 last request's Diagnostic
//     38  u8  version              last request's Version
//     39  u8  demand               last request's D bit
//     40  u8  final                last request's F bit
//     41  u8  poll                 last request's P bit
//     42  u8  length               last request's Length
//     43  u8  tx_state             State of the last reply
//     44  u8  prev_tx_state        State of the reply before the last
//     45  u8  tx_diag              Diagnostic of the last reply
//     46  u8[2] reserved           zero
//     48  u64 num_received         requests received
//     56  u64 period_sum           sum of gaps between requests, us
//     64  ts  last_rx              time of the last request
//     80  ts  last_state_change    first request or last change of received state
//     96  u64 num_sent             replies sent
//     104 ts  last_tx              time of the last reply
//     120 ts  last_tx_state_change time of the first reply and of each reply
//                                  following a change of sent state
//   ts        := s64 seconds, s64 nanoseconds (CLOCK_REALTIME)
#pragma once

#include <linux/filter.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct event_base;
struct event;

// S-BFD control port of RFC 7881 section 3: requests' destination, replies' source.
constexpr std::uint16_t SBFD_PORT = 7784;
constexpr std::uint32_t MAX_SESSIONS = 512;
constexpr std::uint32_t SESSION_HASH_BUCKETS = 2048;
constexpr std::uint32_t SESSION_HASH_MASK = SESSION_HASH_BUCKETS - 1;  // 0x7FF
static_assert((SESSION_HASH_BUCKETS & SESSION_HASH_MASK) == 0, "bucket count is a power of two");
// The hash counters restart whenever rx_valid_pkts is a multiple of 512.
constexpr std::uint64_t HASH_PERIOD_MASK = MAX_SESSIONS - 1;  // 0x1FF
constexpr std::size_t RX_BUF_LEN = 65536;  // receive buffer of frames and netlink datagrams

// True when no S-BFD packet may be sent to, or from, the IPv4 address
// `addr` (host byte order): "this network" 0.0.0.0/8, loopback 127.0.0.0/8,
// multicast 224.0.0.0/4, reserved 240.0.0.0/4 and the limited broadcast
// 255.255.255.255 (RFC 1122 section 3.2.1.3, RFC 5735). Such a source on a
// request is forged: the packet sockets see frames before the kernel's
// martian filtering, so the reply path refuses these destinations itself.
constexpr bool ipv4_martian(std::uint32_t addr)
{
	const std::uint32_t first = addr >> 24;
	return first == 0 || first == 127 || first >= 224;
}
static_assert(ipv4_martian(0x7f000001) && ipv4_martian(0xe0000001) && ipv4_martian(0xffffffff) &&
	      ipv4_martian(0x00000000) && !ipv4_martian(0xc0000201) && !ipv4_martian(0xdfffffff));

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

// Time stamp as stored in the shared store.
struct shm_timestamp {
	std::int64_t tv_sec;   // seconds since the epoch, CLOCK_REALTIME
	std::int64_t tv_nsec;  // nanoseconds, 0 .. 999999999
};
static_assert(sizeof(shm_timestamp) == 16);

// One initiator's session slot in the shared store (layout in the file comment).
struct reflector_session {
	std::uint32_t discriminator;         // initiator's My Discriminator, host order; 0: free
	std::uint32_t source_ip;             // initiator's IPv4 address, network order
	std::uint32_t desired_min_tx;        // last request's Desired Min TX Interval, us
	std::uint32_t required_min_rx;       // last request's Required Min RX Interval, us
	std::uint32_t required_min_echo_rx;  // last request's Required Min Echo RX Interval, us
	std::uint32_t min_period;            // smallest gap between requests, us; 0 until known
	std::uint32_t max_period;            // largest gap between requests, us
	std::uint32_t your_disc;             // last request's Your Discriminator, host order
	std::uint16_t source_port;           // initiator's UDP source port, host order
	std::uint8_t detect_multiplier;      // last request's Detect Mult
	std::uint8_t state;                  // last request's State, 0..3
	std::uint8_t prev_state;             // received state before the last change
	std::uint8_t diag;                   // last request's Diagnostic
	std::uint8_t version;                // last request's Version
	std::uint8_t demand;                 // last request's D bit, 0 or 1
	std::uint8_t final;                  // last request's F bit, 0 or 1
	std::uint8_t poll;                   // last request's P bit, 0 or 1
	std::uint8_t length;                 // last request's Length byte
	std::uint8_t tx_state;               // State sent in the last reply
	std::uint8_t prev_tx_state;          // State sent in the reply before the last
	std::uint8_t tx_diag;                // Diagnostic sent in the last reply
	std::uint8_t reserved[2];            // zero
	std::uint64_t num_received;          // requests received, count
	std::uint64_t period_sum;            // sum of gaps between requests, us
	shm_timestamp last_rx;               // time of the last request
	shm_timestamp last_state_change;     // first request or last change of received state
	std::uint64_t num_sent;              // replies sent, count
	shm_timestamp last_tx;               // time of the last reply
	shm_timestamp last_tx_state_change;  // first reply, replies after a sent-state change
};
static_assert(std::is_trivially_copyable_v<reflector_session>);
static_assert(sizeof(reflector_session) == 136);
static_assert(offsetof(reflector_session, discriminator) == 0);
static_assert(offsetof(reflector_session, source_ip) == 4);
static_assert(offsetof(reflector_session, desired_min_tx) == 8);
static_assert(offsetof(reflector_session, required_min_rx) == 12);
static_assert(offsetof(reflector_session, required_min_echo_rx) == 16);
static_assert(offsetof(reflector_session, min_period) == 20);
static_assert(offsetof(reflector_session, max_period) == 24);
static_assert(offsetof(reflector_session, your_disc) == 28);
static_assert(offsetof(reflector_session, source_port) == 32);
static_assert(offsetof(reflector_session, detect_multiplier) == 34);
static_assert(offsetof(reflector_session, state) == 35);
static_assert(offsetof(reflector_session, prev_state) == 36);
static_assert(offsetof(reflector_session, diag) == 37);
static_assert(offsetof(reflector_session, version) == 38);
static_assert(offsetof(reflector_session, demand) == 39);
static_assert(offsetof(reflector_session, final) == 40);
static_assert(offsetof(reflector_session, poll) == 41);
static_assert(offsetof(reflector_session, length) == 42);
static_assert(offsetof(reflector_session, tx_state) == 43);
static_assert(offsetof(reflector_session, prev_tx_state) == 44);
static_assert(offsetof(reflector_session, tx_diag) == 45);
static_assert(offsetof(reflector_session, reserved) == 46);
static_assert(offsetof(reflector_session, num_received) == 48);
static_assert(offsetof(reflector_session, period_sum) == 56);
static_assert(offsetof(reflector_session, last_rx) == 64);
static_assert(offsetof(reflector_session, last_state_change) == 80);
static_assert(offsetof(reflector_session, num_sent) == 96);
static_assert(offsetof(reflector_session, last_tx) == 104);
static_assert(offsetof(reflector_session, last_tx_state_change) == 120);

// The shared session store: global counters, then the session slots.
struct reflector_shm {
	std::uint64_t rx_drops;             // frames dropped by the receive path, count
	std::uint64_t tx_sends;             // replies sent with their full length, count
	std::uint64_t rx_valid_pkts;        // control packets that passed validation, count
	std::uint32_t pkt_truncated;        // rejected: shorter than 24 bytes, count
	std::uint32_t bad_version;          // rejected: version not 1, count
	std::uint32_t invalid_pkt_len;      // rejected: Length above received length, count
	std::uint32_t invalid_src_port;     // rejected: UDP source port 7784, count
	std::uint32_t demand_mode_unset;    // rejected: D bit clear, count
	std::uint32_t invalid_detect_mult;  // rejected: Detect Mult 0, count
	std::uint32_t invalid_my_disc;      // rejected: My Discriminator 0, count
	std::uint32_t your_disc_unmatch;    // rejected: Your Discriminator not ours, count
	std::uint32_t invalid_bfd_state;    // rejected: state AdminDown or Init, count
	std::uint32_t unsupported;          // frames of an unhandled kind, count
	std::uint32_t invalid_pkt_format;   // frames whose IP payload is not UDP, count
	std::uint32_t sendto_fail;          // failed send attempts, count
	std::uint32_t wrong_len_sent;       // sends of a length other than 24, count
	std::uint32_t rx_hash_miss;         // lookups without a session this period, count
	std::uint32_t rx_hash_hit;          // lookups that found their session this period, count
	std::uint32_t rx_hash_trim;         // evictions this period, count
	reflector_session sessions[MAX_SESSIONS];  // slot k at 88 + 136 k
};
constexpr std::size_t SHM_HEADER_SIZE = 88;
constexpr std::size_t SHM_SIZE = SHM_HEADER_SIZE + MAX_SESSIONS * sizeof(reflector_session);
static_assert(SHM_SIZE == 69720);
static_assert(sizeof(reflector_shm) == SHM_SIZE);
static_assert(std::is_trivially_copyable_v<reflector_shm>);
static_assert(offsetof(reflector_shm, rx_drops) == 0);
static_assert(offsetof(reflector_shm, tx_sends) == 8);
static_assert(offsetof(reflector_shm, rx_valid_pkts) == 16);
static_assert(offsetof(reflector_shm, pkt_truncated) == 24);
static_assert(offsetof(reflector_shm, bad_version) == 28);
static_assert(offsetof(reflector_shm, invalid_pkt_len) == 32);
static_assert(offsetof(reflector_shm, invalid_src_port) == 36);
static_assert(offsetof(reflector_shm, demand_mode_unset) == 40);
static_assert(offsetof(reflector_shm, invalid_detect_mult) == 44);
static_assert(offsetof(reflector_shm, invalid_my_disc) == 48);
static_assert(offsetof(reflector_shm, your_disc_unmatch) == 52);
static_assert(offsetof(reflector_shm, invalid_bfd_state) == 56);
static_assert(offsetof(reflector_shm, unsupported) == 60);
static_assert(offsetof(reflector_shm, invalid_pkt_format) == 64);
static_assert(offsetof(reflector_shm, sendto_fail) == 68);
static_assert(offsetof(reflector_shm, wrong_len_sent) == 72);
static_assert(offsetof(reflector_shm, rx_hash_miss) == 76);
static_assert(offsetof(reflector_shm, rx_hash_hit) == 80);
static_assert(offsetof(reflector_shm, rx_hash_trim) == 84);
static_assert(offsetof(reflector_shm, sessions) == SHM_HEADER_SIZE);

// Name of the shared-memory object: "orvalindwarden" + NSPATH, "/" -> "-".
constexpr std::size_t SHM_NAME_LEN = 256;   // buffer, zero-filled, last byte always 0
constexpr char SHM_NAME_PREFIX[] = "orvalindwarden";
constexpr std::size_t SHM_NSPATH_MAX = 241;  // characters of NSPATH kept, bytes 14..254
static_assert(sizeof(SHM_NAME_PREFIX) - 1 + SHM_NSPATH_MAX == SHM_NAME_LEN - 1);

// Builds the object name for `nspath` (nullptr: unset) into `name`.
void shm_store_name(char name[SHM_NAME_LEN], const char *nspath);

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
};

// BFD control packet, mandatory part (RFC 5880 section 4.1), as on the wire:
// multi-byte fields in network byte order. Decoded from and encoded to a
// frame buffer with memcpy, never by casting the buffer.
struct bfd_ctrl_pkt {
	std::uint8_t vers_diag;              // Vers (bits 7-5), Diag (bits 4-0)
	std::uint8_t flags;                  // Sta (bits 7-6), P, F, C, A, D, M
	std::uint8_t detect_multiplier;      // Detect Mult
	std::uint8_t length;                 // Length, bytes
	std::uint32_t my_disc;               // My Discriminator, network order
	std::uint32_t your_disc;             // Your Discriminator, network order
	std::uint32_t min_tx_interval;       // Desired Min TX Interval, us, network order
	std::uint32_t min_rx_interval;       // Required Min RX Interval, us, network order
	std::uint32_t min_echo_rx_interval;  // Required Min Echo RX Interval, us, network order
};
constexpr std::size_t BFD_PKT_LEN = 24;
static_assert(sizeof(bfd_ctrl_pkt) == BFD_PKT_LEN);
static_assert(std::is_trivially_copyable_v<bfd_ctrl_pkt>);
static_assert(offsetof(bfd_ctrl_pkt, flags) == 1);
static_assert(offsetof(bfd_ctrl_pkt, detect_multiplier) == 2);
static_assert(offsetof(bfd_ctrl_pkt, length) == 3);
static_assert(offsetof(bfd_ctrl_pkt, my_disc) == 4);
static_assert(offsetof(bfd_ctrl_pkt, your_disc) == 8);
static_assert(offsetof(bfd_ctrl_pkt, min_tx_interval) == 12);
static_assert(offsetof(bfd_ctrl_pkt, min_rx_interval) == 16);
static_assert(offsetof(bfd_ctrl_pkt, min_echo_rx_interval) == 20);

// BFD states (RFC 5880 section 4.1, Sta).
enum bfd_state : std::uint8_t {
	BFD_STATE_ADMIN_DOWN = 0,
	BFD_STATE_DOWN = 1,
	BFD_STATE_INIT = 2,
	BFD_STATE_UP = 3,
};
const char *bfd_state_name(std::uint8_t state);

constexpr std::uint8_t BFD_VERSION = 1;
constexpr std::uint8_t BFD_DIAG_ADMIN_DOWN = 7;  // Diag "Administratively Down"
constexpr std::uint8_t BFD_FLAG_P = 0x20;        // Poll
constexpr std::uint8_t BFD_FLAG_F = 0x10;        // Final
constexpr std::uint8_t BFD_FLAG_C = 0x08;        // Control Plane Independent
constexpr std::uint8_t BFD_FLAG_A = 0x04;        // Authentication Present
constexpr std::uint8_t BFD_FLAG_D = 0x02;        // Demand
constexpr std::uint8_t BFD_FLAG_M = 0x01;        // Multipoint

inline std::uint8_t bfd_version(const bfd_ctrl_pkt &p) { return p.vers_diag >> 5; }
inline std::uint8_t bfd_diag(const bfd_ctrl_pkt &p) { return p.vers_diag & 0x1f; }
inline std::uint8_t bfd_state_of(const bfd_ctrl_pkt &p) { return p.flags >> 6; }

// Netlink control message (NETLINK_USERSOCK, host byte order): nlmsghdr,
// then this payload at offset 16 of a message of type REFLECTOR_NL_SET.
//   16 u32 disc        new local discriminator
//   20 u32 min_rx      new minimum receive interval, us
//   24 u32 src_ip      new source address, host-order integer (a.b.c.d: a is the top byte)
//   28 u8  adminDown   0 up, anything else administratively down
constexpr std::uint16_t REFLECTOR_NL_SET = 16;
struct reflector_nl_config {
	std::uint32_t disc;      // new local discriminator, host order
	std::uint32_t min_rx;    // new Required Min RX Interval, us, host order
	std::uint32_t src_ip;    // new source address, host order
	std::uint8_t adminDown;  // new administrative state
};
constexpr std::size_t NL_CONFIG_PAYLOAD_LEN = 13;  // bytes read after the header
static_assert(offsetof(reflector_nl_config, min_rx) == 4);
static_assert(offsetof(reflector_nl_config, src_ip) == 8);
static_assert(offsetof(reflector_nl_config, adminDown) == 12);

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

// ---- reflectorRx.cpp: packet path, session table, report, control channel ----

// Validates one received control packet; counts the reason of a rejection,
// or rx_valid_pkts when it passes. `len` is the bytes from the packet's start
// to the frame's end (negative when the frame ends before it).
// REQUIRES: bfd points at 24 readable bytes (when non-null).
bool sbfd_packet_valid(const bfd_ctrl_pkt *bfd, std::int64_t len, sockaddr_in from,
		       reflector_vrf *vrf);

// Rewrites a validated request into its reply, in place.
void get_tx_data(bfd_ctrl_pkt *bfd);

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

// Writes the whole table to the trace (level 5).
void dump_hash_tbl(reflector_vrf *vrf);

// Inserts `node` into sess_cache ordered by last_rx, newest first.
void session_cache_insert_by_time(reflector_vrf *vrf, session_node *node);

// Start-up set-up of the table over the mapped store: allocates the nodes,
// binds node k to slot k, fills free_list, and with reflector_cfg.persist
// restores the slots in use (reflector_cache_reinit). Returns 0, or nonzero
// when the nodes cannot be allocated (traced).
int session_table_setup(reflector_vrf *vrf);

// Re-enters the slots in use into the buckets and sess_cache (newest first).
void reflector_cache_reinit(reflector_vrf *vrf);

// Writes the statistics report when rx_drops + rx_valid_pkts calls for one.
void maybe_dump_stats(reflector_vrf *vrf);

// Writes the two report lines of one session.
void dump_session(session_node *node);

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
// at least max(n, 110) bytes, and those from n up to 110 are zero (110: the
// furthest decapsulation reads, a control packet after an MPLS label and a
// 60-byte IPv4 header). The reply is written over the request in `buf`.
int rx_handle_frame(reflector_vrf *vrf, std::uint8_t *buf, std::int32_t n);

// Read callback of the netlink socket: one datagram per call.
void rx_netlink_ready(int fd, short what, void *arg);

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
