// store.h -- the shared session store: the POSIX shared-memory object in
// which the daemon keeps its counters and one slot per initiator, and from
// which orvalindwarden-stat reads them. Its layout, its object name and the
// figures derived from its fields are defined here once.
//
// The object is named "orvalindwarden" followed by NSPATH with every "/"
// turned into "-" (shm_store_name), is 69720 bytes, and holds its fields in
// host byte order except source_ip (network order). Readers outside the
// daemon rely on this layout; it is fixed by the static_asserts below.
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

#include <cstddef>
#include <cstdint>
#include <type_traits>

constexpr std::uint32_t MAX_SESSIONS = 512;  // slots of the store
// The hash counters restart whenever rx_valid_pkts is a multiple of 512.
constexpr std::uint64_t HASH_PERIOD_MASK = MAX_SESSIONS - 1;  // 0x1FF
static_assert((MAX_SESSIONS & HASH_PERIOD_MASK) == 0, "the period is a power of two");

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

// The shared session store: global counters, then the session slots. When
// adding a counter, update the file comment, the daemon's statistics report
// (maybe_dump_stats) and SHMSTAT_COUNTERS (orvalindwarden-stat).
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

// Mean gap between the requests of `s`, us: period_sum / (num_received - 1)
// from two requests on (the first request starts no gap), else period_sum.
// The daemon's report and every rendering of orvalindwarden-stat show this.
constexpr std::uint64_t shm_avg_period(const reflector_session &s)
{
	return s.num_received >= 2 ? s.period_sum / (s.num_received - 1) : s.period_sum;
}

// Name of the shared-memory object: "orvalindwarden" + NSPATH, "/" -> "-".
constexpr std::size_t SHM_NAME_LEN = 256;   // buffer, zero-filled, last byte always 0
constexpr char SHM_NAME_PREFIX[] = "orvalindwarden";
constexpr std::size_t SHM_NSPATH_MAX = 241;  // characters of NSPATH kept, bytes 14..254
static_assert(sizeof(SHM_NAME_PREFIX) - 1 + SHM_NSPATH_MAX == SHM_NAME_LEN - 1);

// Builds the object name for `nspath` (nullptr: unset) into `name`.
void shm_store_name(char name[SHM_NAME_LEN], const char *nspath);
