// reflectorInit.cpp -- builds the daemon's one context: the event base, the
// empty session buckets, the shared session store, the session table, and
// every socket with its kernel filter and read event.
//
// Runs once at start-up on the only thread, before the event loop;
// init_out_socket runs again from the netlink callback when the source
// address changes. Owns: the process-wide globals (DEFAULT_NS, reflector_cfg,
// bl_handle) and the two filter programs. Invariants: every socket is made
// through netnsSocketAt in vrf->name; a descriptor is stored in the context
// before it is tested; a failure returns at once and leaves what it made in
// the context for vrf_init's teardown, except in the address watch, which
// the reflector does without: it undoes its own steps.
//
// The file reads as start-up runs: the context (vrf_init), its store, then
// the sockets as init_socket opens them (transmit, the two packet sockets
// with their filter programs and deep receive queues, the netlink control
// socket) and last the address watch, which init_socket opens before the
// control socket.
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <event2/event.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "ensure.h"
#include "netns.h"
#include "reflector.h"
#include "trace.h"

const char *const DEFAULT_NS = "default";
reflector_config reflector_cfg;
bl_log *bl_handle;

namespace {

constexpr const char *SYSLOG_IDENT = "SBFD_REFLECTOR";
constexpr int SHM_MODE = 0644;  // owner read/write, others may map it for reading
constexpr int OUT_TOS = 0xC0;   // IP precedence 6 (DSCP CS6), as for routing control traffic
constexpr int OUT_TTL = 255;    // the maximum, so single-hop peers can check it (RFC 5881 section 5)
constexpr short READ_EVENT = EV_READ | EV_PERSIST;
static_assert(READ_EVENT == 0x12);

// The packet sockets' receive queue rides out a stall of the daemon (a
// busy or stolen core, a page-fault storm, a stop for a debugger) of 50 ms
// at 155,000 requests/s: 155,000 * 50 / 1000 = 7,750 frames. A frame costs
// the queue its buffer's truesize, not its 66 bytes (Ethernet 14, IPv4 20,
// UDP 8, BFD 24): on a veth (kernel 6.18) SO_MEMINFO shows 832 bytes of
// receive memory per queued request, and a socket of N bytes holds
// ceil(N / 832) of them (212,992 bytes, the default: 256 frames). Frames
// from a NIC whose driver gives each one a larger buffer cost more, and
// fewer fit. The kernel doubles the value set (half for its own
// bookkeeping) and reports the doubled value, so the value set is half the
// queue's bytes. SO_RCVBUF caps that value at net.core.rmem_max: when
// changing RX_RCVBUF_SET, update packaging/60-orvalindwarden.conf.
constexpr int RX_STALL_FRAMES = 155000 * 50 / 1000;                  // 7,750 frames
constexpr int RX_FRAME_TRUESIZE = 832;                               // bytes of receive memory per request
constexpr int RX_QUEUE_BYTES = RX_STALL_FRAMES * RX_FRAME_TRUESIZE;  // 6,448,000 bytes
constexpr int RX_RCVBUF_SET = RX_QUEUE_BYTES / 2;                    // 3,224,000 bytes, as setsockopt takes it
static_assert(RX_RCVBUF_SET == 3224000, "packaging/60-orvalindwarden.conf sets net.core.rmem_max to it");

// EtherTypes as packet-socket protocols, network byte order.
constexpr std::uint16_t ETH_P_IPV4_BE = __builtin_bswap16(ETH_TYPE_IPV4);
constexpr std::uint16_t ETH_P_MPLS_BE = __builtin_bswap16(ETH_TYPE_MPLS);
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the constants above assume it");

// The steps of start-up below vrf_init and init_socket, in their order.
int shm_store_setup(reflector_vrf *vrf);
bool shm_store_ours(int fd, const char *name);
reflector_vrf *vrf_teardown(reflector_vrf *vrf);
int open_ipv4_socket(reflector_vrf *vrf);
int open_mpls_socket(reflector_vrf *vrf);
int attach_filter(int fd, const sock_filter *prog, std::size_t len);
void deepen_rx_queue(int fd);
int open_control_socket(reflector_vrf *vrf);

}  // namespace

void reflector_syslog(int priority, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	openlog(SYSLOG_IDENT, LOG_PID | LOG_CONS, LOG_USER);
	vsyslog(priority, fmt, ap);
	closelog();
	va_end(ap);
}

// ---- the context ----

reflector_vrf *vrf_init()
{
	TRACE(TRACE_FUNC, "vrf_init");

	auto *vrf = static_cast<reflector_vrf *>(std::calloc(1, sizeof(reflector_vrf)));
	if (vrf == nullptr)
		return nullptr;
	vrf->name = DEFAULT_NS;
	vrf->base = event_base_new();
	for (list_link &bucket : vrf->hash_tbl)
		list_init(&bucket);
	list_init(&vrf->sess_cache);
	list_init(&vrf->free_list);  // filled by session_table_setup
	ENSURE(vrf->base);

	if (shm_store_setup(vrf) != 0)
		return vrf_teardown(vrf);
	// Traces its own message on failure.
	if (session_table_setup(vrf) != 0)
		return vrf_teardown(vrf);
	if (reflector_init(vrf) != INIT_OK) {
		TRACE(TRACE_ERROR, "ERROR: reflector initialization failed");
		return vrf_teardown(vrf);
	}
	return vrf;
}

int reflector_init(reflector_vrf *vrf)
{
	TRACE(TRACE_FUNC, "reflector_init");
	return init_socket(vrf);
}

namespace {

// ---- the shared session store ----

// Maps the shared session store named after NSPATH into vrf->shm, cleared
// unless reflector_cfg.persist. Returns 0, or -1 after tracing the step.
int shm_store_setup(reflector_vrf *vrf)
{
	char name[SHM_NAME_LEN];
	shm_store_name(name, std::getenv("NSPATH"));

	int fd = shm_open(name, O_RDWR | O_CREAT, SHM_MODE);
	if (fd < 0 || !shm_store_ours(fd, name)) {
		TRACE(TRACE_ERROR, "ERROR: reflector shared memory init failed");
		if (fd >= 0)
			close(fd);
		return -1;
	}
	// Also cuts or zero-extends an object left at another size. The pages
	// are then reserved, so that a full /dev/shm fails here rather than
	// with SIGBUS at the first store into the mapping.
	int reserved = 0;
	if (ftruncate(fd, static_cast<off_t>(SHM_SIZE)) < 0 ||
	    (reserved = posix_fallocate(fd, 0, static_cast<off_t>(SHM_SIZE))) != 0) {
		if (reserved != 0)
			reflector_syslog(LOG_ERR, "Cannot reserve %zu bytes for the shared store /dev/shm/%s: %s",
					 SHM_SIZE, name, std::strerror(reserved));
		TRACE(TRACE_ERROR, "ERROR: reflector shared memory ftruncate() failed");
		close(fd);
		return -1;
	}
	void *map = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
	close(fd);  // the mapping keeps the object
	if (map == MAP_FAILED) {
		TRACE(TRACE_ERROR, "ERROR: reflector shared memory mmap() failed");
		return -1;
	}
	vrf->shm = static_cast<reflector_shm *>(map);
	if (!reflector_cfg.persist)
		std::memset(vrf->shm, 0, SHM_SIZE);
	return 0;
}

// True when the store object open on `fd` may be taken: a regular file
// owned by our effective user. Anyone may create the predictable name
// first; whoever owns the object could forge every counter the operator
// reads and end the daemon by truncating it. Our own object that others may
// write (made under a umask of 0, say) is kept, its mode tightened.
bool shm_store_ours(int fd, const char *name)
{
	struct stat st;
	if (fstat(fd, &st) == -1) {
		reflector_syslog(LOG_ERR, "Refusing the shared store /dev/shm/%s: fstat: %s", name,
				 std::strerror(errno));
		return false;
	}
	if (!S_ISREG(st.st_mode)) {
		reflector_syslog(LOG_ERR, "Refusing the shared store /dev/shm/%s: not a regular file", name);
		return false;
	}
	if (st.st_uid != geteuid()) {
		reflector_syslog(LOG_ERR, "Refusing the shared store /dev/shm/%s: owned by uid %u, not by uid %u", name,
				 static_cast<unsigned>(st.st_uid), static_cast<unsigned>(geteuid()));
		return false;
	}
	if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && fchmod(fd, SHM_MODE) == -1) {
		reflector_syslog(LOG_ERR, "Refusing the shared store /dev/shm/%s: others may write it and fchmod: %s",
				 name, std::strerror(errno));
		return false;
	}
	return true;
}

// Undoes what vrf_init made, as far as the process needs before it ends:
// the other sockets, events and the mapping go with the process.
reflector_vrf *vrf_teardown(reflector_vrf *vrf)
{
	if (vrf->infd != 0) {
		close(vrf->infd);
		vrf->infd = 0;
	}
	if (vrf->event != nullptr) {
		event_free(vrf->event);
		vrf->event = nullptr;
	}
	if (vrf->base != nullptr)
		event_base_free(vrf->base);
	if (vrf->rx_sess != nullptr)
		std::free(vrf->rx_sess);
	std::free(vrf);
	return nullptr;
}

}  // namespace

// ---- sockets, in the order init_socket opens them ----

int init_socket(reflector_vrf *vrf)
{
	TRACE(TRACE_FUNC, "init_socket");
	if (vrf == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: No vrf");
		return INIT_ERR_NO_VRF;
	}
	// A daemon that cannot send opens no receive socket.
	if (init_out_socket(vrf) != INIT_OK)
		return INIT_ERR_SOCKET;
	if (open_ipv4_socket(vrf) != INIT_OK || open_mpls_socket(vrf) != INIT_OK)
		return INIT_ERR_SOCKET;

	// The host's own addresses. Without them the reflector still answers,
	// refusing only martian destinations and sourceIp: a reflector that
	// stopped answering over this would take its initiators' paths down.
	if (init_addr_watch(vrf) != INIT_OK)
		TRACE(TRACE_ERROR, "ERROR: address watch failed, only martian addresses and sourceIp are refused");

	// The netlink control channel is the last socket: the controlling agent
	// addresses us by pid, and its port bound tells that we are ready.
	return open_control_socket(vrf);
}

int init_out_socket(reflector_vrf *vrf)
{
	vrf->outfd = netnsSocketAt(AF_INET, SOCK_DGRAM, 0, vrf->name);
	if (vrf->outfd == -1) {
		TRACE(TRACE_ERROR, "ERROR: Failed to create outfd, netnsSocketAt() returns -1, errno %d",
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	int tos = OUT_TOS;
	if (setsockopt(vrf->outfd, IPPROTO_IP, IP_TOS, &tos, sizeof tos) < 0) {
		TRACE(TRACE_ERROR, "ERROR: Failed to set IP_TOS, errno: %d", (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	int ttl = OUT_TTL;
	if (setsockopt(vrf->outfd, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl) < 0) {
		TRACE(TRACE_ERROR, "ERROR: Failed to set TTL, errno: %d", (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	sockaddr_in addr;
	std::memset(&addr, 0, sizeof addr);
	addr.sin_family = AF_INET;
	addr.sin_port = htons(SBFD_PORT);
	addr.sin_addr.s_addr = reflector_cfg.sourceIp;  // already network order
	int rc = bind(vrf->outfd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
	if (rc != 0) {
		TRACE(TRACE_ERROR, "ERROR: bind() result %d, errno %d", (std::int32_t)rc,
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	return INIT_OK;
}

// The filters read the frame from its Ethernet header on; offsets are bytes
// from the frame's start. Opcodes: 0x28 ld half abs, 0x30 ld byte abs, 0x20
// ld word abs, 0x48 ld half ind (X + k), 0xb1 ldx 4*(byte & 0xf), 0x15 jeq k,
// 0x45 jset k, 0x54 and k, 0x06 ret k. A load beyond the frame drops it.
// The values are as tcpdump -dd prints them; the static_asserts after the
// tables tie each offset and value to the frame constants of wire.h.
constexpr sock_filter sbfd_udp_filter[16] = {
	{0x28, 0, 0, 0x0000000c},   // 0: A = EtherType
	{0x15, 0, 4, 0x000086dd},   // 1: IPv6? 2 : 6
	{0x30, 0, 0, 0x00000014},   // 2: A = IPv6 Next Header
	{0x15, 0, 11, 0x00000011},  // 3: UDP? 4 : 15
	{0x28, 0, 0, 0x00000038},   // 4: A = UDP destination port (40-byte IPv6 header)
	{0x15, 8, 9, 0x00001e68},   // 5: 7784? 14 : 15
	{0x15, 0, 8, 0x00000800},   // 6: IPv4? 7 : 15
	{0x30, 0, 0, 0x00000017},   // 7: A = IPv4 Protocol
	{0x15, 0, 6, 0x00000011},   // 8: UDP? 9 : 15
	{0x28, 0, 0, 0x00000014},   // 9: A = flags and fragment offset
	{0x45, 4, 0, 0x00001fff},   // 10: non-first fragment? 15 : 11
	{0xb1, 0, 0, 0x0000000e},   // 11: X = IPv4 header length
	{0x48, 0, 0, 0x00000010},   // 12: A = UDP destination port (X + 16)
	{0x15, 0, 1, 0x00001e68},   // 13: 7784? 14 : 15
	{0x06, 0, 0, 0x0000ffff},   // 14: accept up to 65535 bytes
	{0x06, 0, 0, 0x00000000},   // 15: drop
};

constexpr sock_filter sbfd_mpls_filter[30] = {
	{0x28, 0, 0, 0x0000000c},   // 0: A = EtherType
	{0x15, 0, 27, 0x00008847},  // 1: MPLS unicast? 2 : 29
	{0x20, 0, 0, 0x0000000e},   // 2: A = first label stack entry
	{0x45, 25, 0, 0xfffff000},  // 3: label != 0? 29 : 4
	{0x30, 0, 0, 0x00000010},   // 4: A = byte 16 (TC, bottom of stack)
	{0x54, 0, 0, 0x00000001},   // 5: A &= bottom-of-stack bit
	{0x15, 0, 22, 0x00000001},  // 6: one label only? 7 : 29
	{0x30, 0, 0, 0x00000012},   // 7: A = IP version / header length
	{0x54, 0, 0, 0x000000f0},   // 8: A &= version nibble
	{0x15, 0, 6, 0x00000060},   // 9: IPv6? 10 : 16
	{0x30, 0, 0, 0x00000018},   // 10: A = IPv6 Next Header
	{0x15, 2, 0, 0x00000084},   // 11: SCTP? 14 : 12
	{0x15, 1, 0, 0x00000006},   // 12: TCP? 14 : 13
	{0x15, 0, 15, 0x00000011},  // 13: UDP? 14 : 29
	{0x28, 0, 0, 0x0000003c},   // 14: A = destination port (40-byte IPv6 header)
	{0x15, 12, 13, 0x00001e68}, // 15: 7784? 28 : 29
	{0x30, 0, 0, 0x00000012},   // 16: A = IP version / header length
	{0x54, 0, 0, 0x000000f0},   // 17: A &= version nibble
	{0x15, 0, 10, 0x00000040},  // 18: IPv4? 19 : 29
	{0x30, 0, 0, 0x0000001b},   // 19: A = IPv4 Protocol
	{0x15, 2, 0, 0x00000084},   // 20: SCTP? 23 : 21
	{0x15, 1, 0, 0x00000006},   // 21: TCP? 23 : 22
	{0x15, 0, 6, 0x00000011},   // 22: UDP? 23 : 29
	{0x28, 0, 0, 0x00000018},   // 23: A = flags and fragment offset
	{0x45, 4, 0, 0x00001fff},   // 24: non-first fragment? 29 : 25
	{0xb1, 0, 0, 0x00000012},   // 25: X = IPv4 header length
	{0x48, 0, 0, 0x00000014},   // 26: A = destination port (X + 20)
	{0x15, 0, 1, 0x00001e68},   // 27: 7784? 28 : 29
	{0x06, 0, 0, 0x0000ffff},   // 28: accept up to 65535 bytes
	{0x06, 0, 0, 0x00000000},   // 29: drop
};
static_assert(sizeof sbfd_udp_filter / sizeof sbfd_udp_filter[0] == SBFD_UDP_FILTER_LEN);
static_assert(sizeof sbfd_mpls_filter / sizeof sbfd_mpls_filter[0] == SBFD_MPLS_FILTER_LEN);
static_assert(sizeof(sock_filter) == 8 && sizeof(sock_fprog) == 16);

namespace {
constexpr std::size_t MPLS_IP_OFF = ETH_HDR_LEN + MPLS_ENTRY_LEN;  // 18: the IP header under one label
constexpr std::uint32_t FILTER_ACCEPT = 0xFFFF;                     // ret: bytes of the frame passed on
}  // namespace

// sbfd_udp_filter: the EtherType, then IPv6 (fixed header) or IPv4 with the
// UDP header after IHL words (ldx: X = IPV4_IHL_UNIT * (byte & IPV4_IHL_MASK)).
static_assert(sbfd_udp_filter[0].k == ETH_TYPE_OFF);
static_assert(sbfd_udp_filter[1].k == ETH_TYPE_IPV6);
static_assert(sbfd_udp_filter[2].k == ETH_HDR_LEN + IPV6_NEXT_HDR_OFF);
static_assert(sbfd_udp_filter[3].k == IP_PROTO_UDP);
static_assert(sbfd_udp_filter[4].k == ETH_HDR_LEN + IPV6_HDR_LEN + UDP_DPORT_OFF);
static_assert(sbfd_udp_filter[5].k == SBFD_PORT);
static_assert(sbfd_udp_filter[6].k == ETH_TYPE_IPV4);
static_assert(sbfd_udp_filter[7].k == ETH_HDR_LEN + IPV4_PROTO_OFF);
static_assert(sbfd_udp_filter[8].k == IP_PROTO_UDP);
static_assert(sbfd_udp_filter[9].k == ETH_HDR_LEN + IPV4_FRAG_OFF);
static_assert(sbfd_udp_filter[10].k == IPV4_FRAG_OFFSET_MASK);
static_assert(sbfd_udp_filter[11].k == ETH_HDR_LEN);
static_assert(sbfd_udp_filter[12].k == ETH_HDR_LEN + UDP_DPORT_OFF);
static_assert(sbfd_udp_filter[13].k == SBFD_PORT);
static_assert(sbfd_udp_filter[14].k == FILTER_ACCEPT && sbfd_udp_filter[15].k == 0);

// sbfd_mpls_filter: the EtherType, one label entry of value 0 with S set,
// then IPv6 or IPv4 after it, as above but MPLS_ENTRY_LEN further on.
static_assert(sbfd_mpls_filter[0].k == ETH_TYPE_OFF);
static_assert(sbfd_mpls_filter[1].k == ETH_TYPE_MPLS);
static_assert(sbfd_mpls_filter[2].k == ETH_HDR_LEN);
static_assert(sbfd_mpls_filter[3].k == MPLS_LABEL_MASK);
static_assert(sbfd_mpls_filter[4].k == ETH_HDR_LEN + MPLS_BOS_BYTE_OFF);
static_assert(sbfd_mpls_filter[5].k == MPLS_BOS_BYTE_BIT && sbfd_mpls_filter[6].k == MPLS_BOS_BYTE_BIT);
static_assert(sbfd_mpls_filter[7].k == MPLS_IP_OFF && sbfd_mpls_filter[16].k == MPLS_IP_OFF);
static_assert(sbfd_mpls_filter[8].k == IP_VERSION_MASK && sbfd_mpls_filter[17].k == IP_VERSION_MASK);
static_assert(sbfd_mpls_filter[9].k == IP_VERSION_IPV6);
static_assert(sbfd_mpls_filter[10].k == MPLS_IP_OFF + IPV6_NEXT_HDR_OFF);
static_assert(sbfd_mpls_filter[11].k == IP_PROTO_SCTP && sbfd_mpls_filter[20].k == IP_PROTO_SCTP);
static_assert(sbfd_mpls_filter[12].k == IP_PROTO_TCP && sbfd_mpls_filter[21].k == IP_PROTO_TCP);
static_assert(sbfd_mpls_filter[13].k == IP_PROTO_UDP && sbfd_mpls_filter[22].k == IP_PROTO_UDP);
static_assert(sbfd_mpls_filter[14].k == MPLS_IP_OFF + IPV6_HDR_LEN + UDP_DPORT_OFF);
static_assert(sbfd_mpls_filter[15].k == SBFD_PORT);
static_assert(sbfd_mpls_filter[18].k == IP_VERSION_IPV4);
static_assert(sbfd_mpls_filter[19].k == MPLS_IP_OFF + IPV4_PROTO_OFF);
static_assert(sbfd_mpls_filter[23].k == MPLS_IP_OFF + IPV4_FRAG_OFF);
static_assert(sbfd_mpls_filter[24].k == IPV4_FRAG_OFFSET_MASK);
static_assert(sbfd_mpls_filter[25].k == MPLS_IP_OFF);
static_assert(sbfd_mpls_filter[26].k == MPLS_IP_OFF + UDP_DPORT_OFF);
static_assert(sbfd_mpls_filter[27].k == SBFD_PORT);
static_assert(sbfd_mpls_filter[28].k == FILTER_ACCEPT && sbfd_mpls_filter[29].k == 0);

namespace {

// Attaches a constant filter program to a packet socket.
int attach_filter(int fd, const sock_filter *prog, std::size_t len)
{
	sock_fprog fprog{};
	fprog.len = static_cast<unsigned short>(len);
	fprog.filter = const_cast<sock_filter *>(prog);  // the kernel copies it, never writes
	return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog);
}

// Gives a packet socket the receive queue of RX_QUEUE_BYTES: SO_RCVBUFFORCE
// where we have CAP_NET_ADMIN, else SO_RCVBUF, which the kernel caps at
// net.core.rmem_max. Either may fail without harm: the socket keeps what it
// got and the daemon answers all the same, so nothing is traced.
void deepen_rx_queue(int fd)
{
	const int bytes = RX_RCVBUF_SET;
	if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
		setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

// IPv4 frames: packet socket, filter, receive queue, read event.
int open_ipv4_socket(reflector_vrf *vrf)
{
	vrf->infd = netnsSocketAt(AF_PACKET, SOCK_RAW, ETH_P_IPV4_BE, vrf->name);
	if (vrf->infd == -1) {
		TRACE(TRACE_ERROR,
		      "ERROR: Failed to create raw socket, netnsSocketAt() returns -1, errno %d\n",
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	if (attach_filter(vrf->infd, sbfd_udp_filter, SBFD_UDP_FILTER_LEN) < 0) {
		TRACE(TRACE_ERROR, "ERROR: Failed to add UDP socket filter: %d\n", (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	deepen_rx_queue(vrf->infd);
	vrf->event = event_new(vrf->base, vrf->infd, READ_EVENT, rx_data_ready, vrf);
	ENSURE(vrf->event);
	const int rc = event_add(vrf->event, nullptr);
	if (rc != 0) {
		TRACE(TRACE_ERROR, "ERROR: event_add() result %d, errno %d\n", (std::int32_t)rc,
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	return INIT_OK;
}

// MPLS frames: packet socket, filter, receive queue, read event.
int open_mpls_socket(reflector_vrf *vrf)
{
	vrf->mplsfd = netnsSocketAt(AF_PACKET, SOCK_RAW, ETH_P_MPLS_BE, vrf->name);
	if (vrf->mplsfd == -1) {
		TRACE(TRACE_ERROR,
		      "ERROR: Failed to create raw socket for mpls, netnsSocketAt() returns -1, errno %d\n",
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	if (attach_filter(vrf->mplsfd, sbfd_mpls_filter, SBFD_MPLS_FILTER_LEN) < 0) {
		TRACE(TRACE_ERROR, "ERROR: Failed to add MPLS UDP socket filter: %d\n",
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	deepen_rx_queue(vrf->mplsfd);
	vrf->eventMpls = event_new(vrf->base, vrf->mplsfd, READ_EVENT, rx_data_ready, vrf);
	ENSURE(vrf->eventMpls);
	const int rc = event_add(vrf->eventMpls, nullptr);
	if (rc != 0) {
		TRACE(TRACE_ERROR, "ERROR: event_add() result %d, errno %d\n", (std::int32_t)rc,
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	return INIT_OK;
}

// The netlink control socket, bound to port getpid(), with its read event.
// A failed creation is not tested here; it shows as a bind on -1 (EBADF).
int open_control_socket(reflector_vrf *vrf)
{
	vrf->nlfd = netnsSocketAt(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK, vrf->name);
	sockaddr_nl nl_addr;
	std::memset(&nl_addr, 0, sizeof nl_addr);
	nl_addr.nl_family = AF_NETLINK;
	nl_addr.nl_pid = static_cast<std::uint32_t>(getpid());
	nl_addr.nl_groups = 0;
	static_assert(sizeof nl_addr == 12);
	int rc = bind(vrf->nlfd, reinterpret_cast<const sockaddr *>(&nl_addr), sizeof nl_addr);
	if (rc != 0) {
		TRACE(TRACE_ERROR, "ERROR: netlink bind() result %d, errno %d", (std::int32_t)rc,
		      (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	vrf->eventNetlink = event_new(vrf->base, vrf->nlfd, READ_EVENT, rx_netlink_ready, vrf);
	ENSURE(vrf->eventNetlink);
	rc = event_add(vrf->eventNetlink, nullptr);
	if (rc != 0) {
		TRACE(TRACE_ERROR, "ERROR: event_add() Netlink result %d, errno %d\n",
		      (std::int32_t)rc, (std::int32_t)errno);
		return INIT_ERR_SOCKET;
	}
	return INIT_OK;
}

}  // namespace

// ---- the address watch ----

namespace {

// The kernel answers a dump request at once; silence this long means it will not.
constexpr timeval ADDR_DUMP_WAIT = {1, 0};
// Datagrams read for the first dump, its parts and the notifications
// between them; far more than 1024 addresses take.
constexpr int ADDR_DUMP_READS_MAX = 4096;

int addr_watch_fail(reflector_vrf *vrf)
{
	close(vrf->addrfd);
	vrf->addrfd = 0;
	std::memset(&vrf->local_addrs, 0, sizeof vrf->local_addrs);
	return INIT_ERR_SOCKET;
}

}  // namespace

int init_addr_watch(reflector_vrf *vrf)
{
	vrf->addrfd = netnsSocketAt(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, vrf->name);
	if (vrf->addrfd == -1) {
		TRACE(TRACE_ERROR, "ERROR: Failed to create address watch, netnsSocketAt() returns -1, errno %d",
		      (std::int32_t)errno);
		vrf->addrfd = 0;
		return INIT_ERR_SOCKET;
	}
	sockaddr_nl nl_addr;
	std::memset(&nl_addr, 0, sizeof nl_addr);
	nl_addr.nl_family = AF_NETLINK;
	nl_addr.nl_groups = RTMGRP_IPV4_IFADDR;  // nl_pid 0: the kernel picks the port
	socklen_t nl_len = sizeof nl_addr;
	if (bind(vrf->addrfd, reinterpret_cast<const sockaddr *>(&nl_addr), sizeof nl_addr) != 0 ||
	    getsockname(vrf->addrfd, reinterpret_cast<sockaddr *>(&nl_addr), &nl_len) != 0 ||
	    setsockopt(vrf->addrfd, SOL_SOCKET, SO_RCVTIMEO, &ADDR_DUMP_WAIT, sizeof ADDR_DUMP_WAIT) != 0) {
		TRACE(TRACE_ERROR, "ERROR: address watch bind() or socket option failed, errno %d", (std::int32_t)errno);
		return addr_watch_fail(vrf);
	}
	vrf->local_addrs.port = nl_addr.nl_pid;

	// The first dump is read here: the table is complete before any frame is handled.
	if (local_addr_resync(vrf) != 0)
		return addr_watch_fail(vrf);
	for (int reads = 0; vrf->local_addrs.dumping; reads++) {
		if (reads == ADDR_DUMP_READS_MAX ||
		    (local_addr_read(vrf, vrf->addrfd) < 0 && errno != ENOBUFS && errno != EINTR)) {
			TRACE(TRACE_ERROR, "ERROR: address dump not read, %d datagrams", (std::int32_t)reads);
			return addr_watch_fail(vrf);
		}
	}

	vrf->event_addr = event_new(vrf->base, vrf->addrfd, READ_EVENT, rx_addr_ready, vrf);
	ENSURE(vrf->event_addr);
	const int rc = event_add(vrf->event_addr, nullptr);
	if (rc != 0) {
		TRACE(TRACE_ERROR, "ERROR: event_add() address watch result %d, errno %d\n", (std::int32_t)rc,
		      (std::int32_t)errno);
		event_free(vrf->event_addr);
		vrf->event_addr = nullptr;
		return addr_watch_fail(vrf);
	}
	return INIT_OK;
}
