// wire.h -- what travels between machines and between our processes, named
// once: byte-order codecs, the frames a reflector receives (Ethernet, at
// most one MPLS label, IPv4, UDP), the BFD control packet (RFC 5880 section
// 4.1) with the names of its states and diagnostics, IPv4 address text and
// the netlink control message. The daemon, the tools, the tests and the fuzz
// targets take these from here and define none of them again.
//
// Nothing here allocates, locks or calls stdio: every function is usable on
// the daemon's receive path.
//
// Frame as the reflector reads it (offsets from the frame's first byte,
// multi-byte fields big-endian):
//
//   frame  := eth [label] ipv4 udp ctrl
//   eth    (14)  0 dst mac (6), 6 src mac (6), 12 EtherType (2): 0x0800, 0x8847
//   label  (4)   label (bits 31-12), TC (11-9), S (8, bottom of stack), TTL (7-0)
//   ipv4   (20 .. 60)  0 version (bits 7-4) and IHL (3-0, 32-bit words),
//                1 TOS, 2 total length, 4 id, 6 flags and fragment offset,
//                8 TTL, 9 protocol, 10 header checksum, 12 source, 16 destination,
//                20 options
//   udp    (8)   0 source port, 2 destination port, 4 length, 6 checksum
//   ctrl   (24)  bfd_ctrl_pkt below
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

// ---- byte order ----

// Loads and stores of unsigned integers at `p`: the _be forms in big-endian
// (network) order, as frames carry them. No alignment is needed.
// REQUIRES: p points at 2, 4 or 8 (the value's width) readable bytes for a
// load, writable bytes for a store.
inline std::uint16_t load_be16(const std::uint8_t *p)
{
	return static_cast<std::uint16_t>(p[0] << 8 | p[1]);
}
inline std::uint32_t load_be32(const std::uint8_t *p)
{
	return std::uint32_t{load_be16(p)} << 16 | load_be16(p + 2);
}
inline std::uint64_t load_be64(const std::uint8_t *p)
{
	return std::uint64_t{load_be32(p)} << 32 | load_be32(p + 4);
}
inline void store_be16(std::uint8_t *p, std::uint16_t v)
{
	p[0] = static_cast<std::uint8_t>(v >> 8);
	p[1] = static_cast<std::uint8_t>(v);
}
inline void store_be32(std::uint8_t *p, std::uint32_t v)
{
	store_be16(p, static_cast<std::uint16_t>(v >> 16));
	store_be16(p + 2, static_cast<std::uint16_t>(v));
}
inline void store_be64(std::uint8_t *p, std::uint64_t v)
{
	store_be32(p, static_cast<std::uint32_t>(v >> 32));
	store_be32(p + 4, static_cast<std::uint32_t>(v));
}

// Load and store of an integer of type T in this machine's order, as the
// formats that never leave it carry them: netlink messages, the trace file,
// the shared store. No alignment is needed.
// REQUIRES: p points at sizeof(T) readable (load) or writable (store) bytes.
template <typename T> T load_host(const std::uint8_t *p)
{
	static_assert(std::is_integral_v<T>, "integers only");
	T v;
	std::memcpy(&v, p, sizeof v);
	return v;
}
template <typename T> void store_host(std::uint8_t *p, T v)
{
	static_assert(std::is_integral_v<T>, "integers only");
	std::memcpy(p, &v, sizeof v);
}

// Host-order integer of type T at `off` of `buf`, where the bytes at or
// beyond buf.size() read as zero: a message cut short never makes us read
// past what arrived. Any `off` is allowed.
template <typename T> T load_host_within(std::span<const std::uint8_t> buf, std::size_t off)
{
	static_assert(std::is_integral_v<T>, "integers only");
	std::uint8_t b[sizeof(T)] = {};
	if (off < buf.size())
		std::memcpy(b, buf.data() + off, buf.size() - off < sizeof b ? buf.size() - off : sizeof b);
	return load_host<T>(b);
}

// ---- Ethernet ----

constexpr std::size_t ETH_ADDR_LEN = 6;
constexpr std::size_t ETH_TYPE_OFF = 2 * ETH_ADDR_LEN;  // 12: after destination and source
constexpr std::size_t ETH_HDR_LEN = ETH_TYPE_OFF + 2;   // 14: addresses, EtherType
constexpr std::uint16_t ETH_TYPE_IPV4 = 0x0800;
constexpr std::uint16_t ETH_TYPE_IPV6 = 0x86DD;
constexpr std::uint16_t ETH_TYPE_MPLS = 0x8847;  // MPLS unicast

// ---- MPLS label stack entry (RFC 3032 section 2.1) ----

constexpr std::size_t MPLS_ENTRY_LEN = 4;
constexpr std::uint32_t MPLS_LABEL_SHIFT = 12;                          // label = bits 31-12
constexpr std::uint32_t MPLS_LABEL_MAX = 0xFFFFF;                       // 20 bits
constexpr std::uint32_t MPLS_LABEL_MASK = MPLS_LABEL_MAX << MPLS_LABEL_SHIFT;  // 0xFFFFF000
constexpr std::uint32_t MPLS_BOS = 0x100;                               // S, bottom of stack: bit 8
constexpr std::size_t MPLS_BOS_BYTE_OFF = 2;                            // the entry's byte holding TC and S
constexpr std::uint8_t MPLS_BOS_BYTE_BIT = MPLS_BOS >> 8;               // S within that byte
constexpr std::uint32_t MPLS_TTL_MASK = 0xFF;                           // TTL = bits 7-0
static_assert(MPLS_BOS_BYTE_BIT == 0x01 && MPLS_LABEL_MASK == 0xFFFFF000);

// ---- IP headers ----

constexpr std::uint8_t IP_VERSION_MASK = 0xF0;     // version nibble of the first byte
constexpr std::uint8_t IP_VERSION_IPV4 = 0x40;     // version 4 in that nibble
constexpr std::uint8_t IP_VERSION_IPV6 = 0x60;     // version 6 in that nibble
constexpr std::uint8_t IPV4_IHL_MASK = 0x0F;       // IHL: header length in 32-bit words
constexpr std::size_t IPV4_IHL_UNIT = 4;           // bytes per IHL word
constexpr std::size_t IPV4_HDR_LEN = 20;           // without options
constexpr std::size_t IPV4_MAX_HDR_LEN = IPV4_IHL_UNIT * IPV4_IHL_MASK;  // 60: IHL 15
constexpr std::size_t IPV4_TOS_OFF = 1;
constexpr std::size_t IPV4_TOTAL_LEN_OFF = 2;
constexpr std::size_t IPV4_ID_OFF = 4;
constexpr std::size_t IPV4_FRAG_OFF = 6;           // flags (3 bits) and fragment offset (13)
constexpr std::size_t IPV4_TTL_OFF = 8;
constexpr std::size_t IPV4_PROTO_OFF = 9;
constexpr std::size_t IPV4_CSUM_OFF = 10;
constexpr std::size_t IPV4_SADDR_OFF = 12;
constexpr std::size_t IPV4_DADDR_OFF = 16;
constexpr std::uint16_t IPV4_FRAG_OFFSET_MASK = 0x1FFF;  // nonzero: not the first fragment
constexpr std::uint16_t IPV4_FLAG_MF = 0x2000;           // more fragments follow
constexpr std::size_t IPV6_HDR_LEN = 40;           // fixed header, no extension headers
constexpr std::size_t IPV6_NEXT_HDR_OFF = 6;
constexpr std::uint8_t IP_PROTO_TCP = 6;
constexpr std::uint8_t IP_PROTO_UDP = 17;
constexpr std::uint8_t IP_PROTO_SCTP = 132;

// ---- UDP ----

constexpr std::size_t UDP_SPORT_OFF = 0;
constexpr std::size_t UDP_DPORT_OFF = 2;           // TCP and SCTP keep their ports here too
constexpr std::size_t UDP_LEN_OFF = 4;
constexpr std::size_t UDP_CSUM_OFF = 6;
constexpr std::size_t UDP_HDR_LEN = 8;
// S-BFD control port of RFC 7881 section 3: requests' destination, replies' source.
constexpr std::uint16_t SBFD_PORT = 7784;

// ---- BFD control packet ----

// Mandatory part of a BFD control packet (RFC 5880 section 4.1), as on the
// wire: multi-byte fields in network byte order. Decoded from and encoded to
// a frame buffer with memcpy, never by casting the buffer.
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

// BFD states (RFC 5880 section 4.1, Sta). When adding one, update bfd_state_name.
enum bfd_state : std::uint8_t {
	BFD_STATE_ADMIN_DOWN = 0,
	BFD_STATE_DOWN = 1,
	BFD_STATE_INIT = 2,
	BFD_STATE_UP = 3,
};

// Diagnostic codes (RFC 5880 section 4.1, Diag). When adding one, update bfd_diag_name.
enum bfd_diagnostic : std::uint8_t {
	BFD_DIAG_NONE = 0,
	BFD_DIAG_DETECT_EXPIRED = 1,
	BFD_DIAG_ECHO_FAILED = 2,
	BFD_DIAG_NEIGHBOR_DOWN = 3,
	BFD_DIAG_FORWARDING_RESET = 4,
	BFD_DIAG_PATH_DOWN = 5,
	BFD_DIAG_CONCAT_PATH_DOWN = 6,
	BFD_DIAG_ADMIN_DOWN = 7,
	BFD_DIAG_REVERSE_CONCAT_PATH_DOWN = 8,
};

constexpr std::uint8_t BFD_VERSION = 1;
constexpr unsigned BFD_VERSION_SHIFT = 5;                   // Vers: bits 7-5 of byte 0
constexpr std::uint8_t BFD_VERSION_MASK = 0xE0;
constexpr std::uint8_t BFD_VERSION_MAX = BFD_VERSION_MASK >> BFD_VERSION_SHIFT;  // 7
constexpr std::uint8_t BFD_DIAG_MASK = 0x1F;                // Diag: bits 4-0 of byte 0
constexpr std::uint8_t BFD_DIAG_MAX = BFD_DIAG_MASK;        // 31
constexpr unsigned BFD_STATE_SHIFT = 6;                     // Sta: bits 7-6 of byte 1
constexpr std::uint8_t BFD_STATE_MAX = 0xFF >> BFD_STATE_SHIFT;  // 3
constexpr std::uint8_t BFD_FLAGS_MASK = 0x3F;               // P F C A D M: bits 5-0 of byte 1
constexpr std::uint8_t BFD_FLAG_P = 0x20;                   // Poll
constexpr std::uint8_t BFD_FLAG_F = 0x10;                   // Final
constexpr std::uint8_t BFD_FLAG_C = 0x08;                   // Control Plane Independent
constexpr std::uint8_t BFD_FLAG_A = 0x04;                   // Authentication Present
constexpr std::uint8_t BFD_FLAG_D = 0x02;                   // Demand
constexpr std::uint8_t BFD_FLAG_M = 0x01;                   // Multipoint
static_assert((BFD_VERSION_MASK | BFD_DIAG_MASK) == 0xFF && (BFD_VERSION_MASK & BFD_DIAG_MASK) == 0);
static_assert((BFD_STATE_MAX << BFD_STATE_SHIFT | BFD_FLAGS_MASK) == 0xFF && BFD_STATE_MAX == BFD_STATE_UP);

inline std::uint8_t bfd_version(const bfd_ctrl_pkt &p) { return p.vers_diag >> BFD_VERSION_SHIFT; }
inline std::uint8_t bfd_diag(const bfd_ctrl_pkt &p) { return p.vers_diag & BFD_DIAG_MASK; }
inline std::uint8_t bfd_state_of(const bfd_ctrl_pkt &p) { return p.flags >> BFD_STATE_SHIFT; }

// "AdminDown", "Down", "Init", "Up"; "unknown" outside 0..3.
const char *bfd_state_name(std::uint8_t state);

// RFC 5880's name of a Diag code, "No Diagnostic" .. "Reverse Concatenated
// Path Down"; "unknown" above 8.
const char *bfd_diag_name(std::uint8_t diag);

// The furthest any read of a received frame reaches: the 24 bytes of a
// control packet after one MPLS label and an IPv4 header of the largest IHL.
// Every byte the receive path reads lies below this offset, so zeroing this
// prefix before each receive makes every byte beyond the frame read as
// zero, exactly as a fully zeroed buffer would.
constexpr std::size_t RX_READ_LIMIT =
	ETH_HDR_LEN + MPLS_ENTRY_LEN + IPV4_MAX_HDR_LEN + UDP_HDR_LEN + BFD_PKT_LEN;  // 110
static_assert(RX_READ_LIMIT == 110);

// ---- IPv4 addresses ----

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

constexpr std::size_t IPV4_TEXT_LEN = 16;  // "255.255.255.255" (15) and NUL

// Writes the dotted-quad text of `addr_net` (network byte order, as in
// in_addr.s_addr), the text inet_ntoa gives, NUL-terminated into `out`, and
// returns out.data(). Built without stdio: the receive path traces the
// initiator's address twice per request, and a snprintf there would cost
// more than the rest of the request's user-space work.
const char *ipv4_format(std::uint32_t addr_net, std::span<char, IPV4_TEXT_LEN> out);

// The same text held by value, for a use within one expression (a trace
// argument, a string concatenation): the text lives as long as the value.
struct ipv4_text {
	char text[IPV4_TEXT_LEN];  // dotted quad and NUL
};
ipv4_text ipv4_dotted(std::uint32_t addr_net);

// ---- netlink control message ----

// What the controlling agent sends the daemon (NETLINK_USERSOCK, host byte
// order, one message of 32 bytes):
//
//   0  u32 nlmsg_len    32 (16-byte header + reflector_nl_config, padded)
//   4  u16 nlmsg_type   REFLECTOR_NL_SET (16)
//   6  u16 nlmsg_flags  NLM_F_REQUEST
//   8  u32 nlmsg_seq    sender's sequence number
//   12 u32 nlmsg_pid    0 (the kernel fills in the sender's port)
//   16 u32 disc         new local discriminator
//   20 u32 min_rx       new minimum receive interval, us
//   24 u32 src_ip       new source address, host-order integer (a.b.c.d: a is the top byte)
//   28 u8  adminDown    0 up, anything else administratively down
//   29 u8[3]            zero
//
// The daemon applies all four values of every message and answers nothing.
constexpr std::size_t NL_HDR_LEN = 16;  // struct nlmsghdr
constexpr std::uint16_t REFLECTOR_NL_SET = 16;
struct reflector_nl_config {
	std::uint32_t disc;      // new local discriminator, host order
	std::uint32_t min_rx;    // new Required Min RX Interval, us, host order
	std::uint32_t src_ip;    // new source address, host order
	std::uint8_t adminDown;  // new administrative state
};
constexpr std::size_t NL_CONFIG_PAYLOAD_LEN = 13;  // bytes read after the header
static_assert(sizeof(reflector_nl_config) == 16);
static_assert(offsetof(reflector_nl_config, min_rx) == 4);
static_assert(offsetof(reflector_nl_config, src_ip) == 8);
static_assert(offsetof(reflector_nl_config, adminDown) == 12);
