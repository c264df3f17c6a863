// reflectorRx.cpp -- receive path: read frames from the packet sockets,
// validate each one and answer the valid ones at once; the session table,
// the statistics report, the netlink control channel with the run-state
// file it rewrites, and the address watch.
//
// Runs on the event-loop thread only. Owns: the session table of the context
// (hash_tbl, sess_cache, free_list, rx_sess), the own addresses
// (local_addrs) and every counter and slot write of the shared store.
// Invariants: every rejected frame counts once in rx_drops and once in
// exactly one reason counter; no reply goes to a martian address or one of
// the host's own, however the request's source was forged; nothing is
// allocated per packet; no byte beyond a received frame or datagram is read
// except the zeroed bytes of the receive buffer; peer input never reaches an
// ENSURE.
//
// A received frame reads top-down: reception, decapsulation, validation,
// session lookup, session update, reply, report. The session table's
// start-up, the control channel and the address watch follow.
#include <arpa/inet.h>
#include <event2/event.h>
#include <immintrin.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "ensure.h"
#include "reflector.h"
#include "trace.h"

namespace {

constexpr int SEND_RETRIES = 5;  // retries after the first attempt on an unreachable destination

// Netlink datagram layout (host byte order).
static_assert(sizeof(nlmsghdr) == NL_HDR_LEN);
constexpr std::size_t NL_DISC_OFF = NL_HDR_LEN + offsetof(reflector_nl_config, disc);
constexpr std::size_t NL_MIN_RX_OFF = NL_HDR_LEN + offsetof(reflector_nl_config, min_rx);
constexpr std::size_t NL_SRC_IP_OFF = NL_HDR_LEN + offsetof(reflector_nl_config, src_ip);
constexpr std::size_t NL_ADMIN_OFF = NL_HDR_LEN + offsetof(reflector_nl_config, adminDown);
static_assert(NL_ADMIN_OFF + 1 == NL_HDR_LEN + NL_CONFIG_PAYLOAD_LEN);
constexpr std::size_t NL_ALIGN = 4;

constexpr int SETUP_ERR_NOMEM = 1;  // session_table_setup: rx_sess not allocated

// The steps of a frame below rx_handle_frame, in the order it meets them.
bool decapsulate(reflector_shm *shm, const std::uint8_t *buf, std::size_t *ctrl_off, sockaddr_in *from);
session_node *session_find(reflector_vrf *vrf, std::uint32_t bucket, std::uint32_t discriminator,
			   std::uint32_t source_ip);
void count_lookup(reflector_shm *shm, bool hit, bool new_period);
session_node *session_alloc(reflector_vrf *vrf, std::uint32_t bucket, std::uint32_t discriminator,
			    std::uint32_t source_ip);
void record_rx(reflector_session *s, const bfd_ctrl_pkt &pkt, std::uint16_t port_net);
int send_reply(reflector_vrf *vrf, std::uint8_t *wire, bfd_ctrl_pkt &pkt, const sockaddr_in &from,
	       session_node *node);
ssize_t send_with_retries(reflector_vrf *vrf, const std::uint8_t *wire, const sockaddr_in &to);
ssize_t reply_sendto(const reflector_vrf *vrf, const std::uint8_t *wire, const sockaddr_in &to);
void record_tx(reflector_session *s, const bfd_ctrl_pkt &reply);
// What one control datagram did to reflector_cfg.
struct nl_applied {
	bool set;             // at least one set message was applied
	bool source_changed;  // and sourceIp is not what it was
};
nl_applied nl_apply_datagram(std::span<const std::uint8_t> dgram);

}  // namespace

// ---- reception ----

void rx_data_ready(int fd, short what, void *arg)
{
	reflector_vrf *vrf = static_cast<reflector_vrf *>(arg);
	if (vrf == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: vrf is NULL");
		return;
	}
	TRACE(TRACE_EVENT, "EVENT: Got an event on socket %d:%s%s [%s]", static_cast<std::int32_t>(fd),
	      (what & EV_READ) ? " read" : "", (what & EV_WRITE) ? " write" : "", vrf->name);

	// Only the prefix that decapsulation can read needs zeros (RX_READ_LIMIT).
	alignas(16) std::uint8_t buf[RX_BUF_LEN];
	std::memset(buf, 0, RX_READ_LIMIT);
	sockaddr_in addr{};
	socklen_t addr_len = sizeof addr;
	static_assert(sizeof addr == 16);
	const std::int32_t n = static_cast<std::int32_t>(
		recvfrom(fd, buf, RX_BUF_LEN, 0, reinterpret_cast<sockaddr *>(&addr), &addr_len));
	if (n == 0) {
		TRACE(TRACE_ERROR, "ERROR: packet missing or remote side closed the connection.");
		return;
	}
	if (n < 0) {
		TRACE(TRACE_ERROR, "ERROR: recvfrom returns -1, errno %d", static_cast<std::int32_t>(errno));
		return;
	}
	if (rx_handle_frame(vrf, buf, n) == RX_FRAME_SHORT_SEND)
		ENSURE(0);  // a datagram socket sends all 24 bytes or nothing
}

int rx_handle_frame(reflector_vrf *vrf, std::uint8_t *buf, std::int32_t n)
{
	reflector_shm *shm = vrf->shm;
	TRACE(TRACE_RX, "RX: socket ready with %lu bytes", n);

	std::size_t ctrl_off;
	sockaddr_in from{};
	if (!decapsulate(shm, buf, &ctrl_off, &from))
		return RX_FRAME_DONE;
	// ctrl_off + BFD_PKT_LEN <= RX_READ_LIMIT: the copy below stays in the zeroed prefix.
	const std::int64_t len = static_cast<std::int64_t>(n) - static_cast<std::int64_t>(ctrl_off);
	bfd_ctrl_pkt pkt;
	std::memcpy(&pkt, buf + ctrl_off, sizeof pkt);

	if (!sbfd_packet_valid(&pkt, len, from, vrf)) {
		shm->rx_drops++;
		maybe_dump_stats(vrf);
		return RX_FRAME_DONE;
	}
	TRACE(TRACE_RX,
	      "RX: Recvd discriminator is destined to this reflector. Recvd my_disc %u, source_ip %s, "
	      "source_port %u, state %u, min_tx_interval %u, detect_multiplier %u",
	      ntohl(pkt.my_disc), ipv4_dotted(from.sin_addr.s_addr).text, ntohs(from.sin_port),
	      bfd_state_of(pkt), ntohl(pkt.min_tx_interval), pkt.detect_multiplier);

	session_node *node = get_session(vrf, ntohl(pkt.my_disc), from.sin_addr.s_addr);
	if (node != nullptr)
		record_rx(node->shm_session, pkt, from.sin_port);
	return send_reply(vrf, buf + ctrl_off, pkt, from, node);
}

// ---- decapsulation ----

namespace {

void drop_unsupported(reflector_shm *shm)
{
	shm->rx_drops++;
	shm->unsupported++;
}

// Ethernet, at most one MPLS label of value 0, IPv4, UDP: finds the control
// packet of the frame at `buf` (*ctrl_off, its offset) and its sender
// (*from). Returns false after counting and tracing a frame of a kind not
// handled. Every offset read is below RX_READ_LIMIT.
bool decapsulate(reflector_shm *shm, const std::uint8_t *buf, std::size_t *ctrl_off, sockaddr_in *from)
{
	std::size_t ip_off;
	const std::uint16_t eth_type = load_be16(buf + ETH_TYPE_OFF);
	if (eth_type == ETH_TYPE_MPLS) {
		const std::uint32_t lse = load_be32(buf + ETH_HDR_LEN);
		const std::uint32_t label = lse >> MPLS_LABEL_SHIFT;
		if (label != 0) {
			TRACE(TRACE_ERROR, "ERROR: top label %u is not supported", label);
			drop_unsupported(shm);
			return false;
		}
		if ((lse & MPLS_BOS) == 0) {
			TRACE(TRACE_ERROR, "ERROR: multiple labels is not supported");
			drop_unsupported(shm);
			return false;
		}
		ip_off = ETH_HDR_LEN + MPLS_ENTRY_LEN;
	} else if (eth_type == ETH_TYPE_IPV4) {
		ip_off = ETH_HDR_LEN;
	} else {
		TRACE(TRACE_ERROR, "ERROR: EthType %u is not supported", eth_type);
		drop_unsupported(shm);
		return false;
	}
	const std::size_t ihl = buf[ip_off] & IPV4_IHL_MASK;
	const std::uint8_t proto = buf[ip_off + IPV4_PROTO_OFF];
	if (proto != IP_PROTO_UDP) {
		TRACE(TRACE_ERROR, "ERROR: BFD control packet should be over UDP, got protocol %u",
		      proto);
		shm->rx_drops++;
		shm->invalid_pkt_format++;
		return false;
	}
	const std::size_t udp_off = ip_off + IPV4_IHL_UNIT * ihl;
	*ctrl_off = udp_off + UDP_HDR_LEN;
	from->sin_family = AF_INET;
	std::memcpy(&from->sin_port, buf + udp_off + UDP_SPORT_OFF, sizeof from->sin_port);
	std::memcpy(&from->sin_addr.s_addr, buf + ip_off + IPV4_SADDR_OFF, sizeof from->sin_addr.s_addr);
	return true;
}

}  // namespace

// ---- validation ----

bool sbfd_packet_valid(const bfd_ctrl_pkt *bfd, std::int64_t len, sockaddr_in from,
		       reflector_vrf *vrf)
{
	if (bfd == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: bfd is NULL");
		return false;
	}
	if (vrf == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: vrf is NULL");
		return false;
	}
	reflector_shm *shm = vrf->shm;
	if (len < static_cast<std::int64_t>(BFD_PKT_LEN)) {
		shm->pkt_truncated++;
		TRACE(TRACE_ERROR, "ERROR: Pkt truncated. Recvd len %d, source_ip %s", len,
		      ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	const std::uint32_t my_disc = ntohl(bfd->my_disc);
	if (bfd_version(*bfd) != BFD_VERSION) {
		shm->bad_version++;
		TRACE(TRACE_ERROR, "ERROR: Bad version %d. Recvd my_disc %u, source_ip %s",
		      bfd_version(*bfd), my_disc, ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	if (static_cast<std::int64_t>(bfd->length) > len) {
		shm->invalid_pkt_len++;
		TRACE(TRACE_ERROR, "ERROR: Invalid bfd ctrl pkt length %d. Rcvd len %d, source_ip %s",
		      bfd->length, len, ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	const std::uint16_t port = ntohs(from.sin_port);
	if (port == SBFD_PORT) {
		shm->invalid_src_port++;
		TRACE(TRACE_ERROR, "ERROR: Invalid source port %hhu. Recvd my_disc %u, source_ip %s",
		      port, my_disc, ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	if ((bfd->flags & BFD_FLAG_D) == 0) {
		shm->demand_mode_unset++;
		TRACE(TRACE_ERROR, "ERROR: Demand mode bit is not set. Recvd my_disc %u, source_ip %s",
		      my_disc, ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	if (bfd->detect_multiplier == 0) {
		shm->invalid_detect_mult++;
		TRACE(TRACE_ERROR, "ERROR: Detect Mult is not set. Recvd my_disc %u, source_ip %s",
		      my_disc, ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	if (my_disc == 0) {
		shm->invalid_my_disc++;
		TRACE(TRACE_ERROR, "ERROR: My discriminator is not set. source_ip %s",
		      ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	// Down (1) and Up (3) have bit 0x40 set; AdminDown (0) and Init (2) do not.
	if (bfd_state_of(*bfd) != BFD_STATE_DOWN && bfd_state_of(*bfd) != BFD_STATE_UP) {
		shm->invalid_bfd_state++;
		TRACE(TRACE_ERROR,
		      "ERROR: Initiator BFD state %hhu is invalid. Recvd my_disc %u, source_ip %s",
		      bfd_state_of(*bfd), my_disc, ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	if (bfd->your_disc != reflector_cfg.discriminator) {
		shm->your_disc_unmatch++;
		TRACE(TRACE_ERROR,
		      "ERROR: Recvd discriminator %u is not destined to this reflector. Recvd my_disc "
		      "%u, source_ip %s",
		      ntohl(bfd->your_disc), my_disc, ipv4_dotted(from.sin_addr.s_addr).text);
		return false;
	}
	shm->rx_valid_pkts++;
	return true;
}

// ---- session lookup ----

std::uint32_t hashmix(std::uint32_t value, std::uint32_t initial, std::int32_t final)
{
	std::uint32_t h = initial;
	for (int shift = 0; shift < 32; shift += 8) {
		h += (value >> shift) & 0xFF;
		h += h << 10;
		h ^= h >> 6;
	}
	if (final != 0) {
		h += h << 3;
		h ^= h >> 11;
		h += h << 15;
	}
	return h;
}

std::uint32_t get_session_hash(std::uint32_t source_ip, std::uint32_t discriminator)
{
	return hashmix(discriminator, hashmix(source_ip, 0, 0), 1) & SESSION_HASH_MASK;
}

session_node *get_session(reflector_vrf *vrf, std::uint32_t discriminator, std::uint32_t source_ip)
{
	if (vrf == nullptr) {
		TRACE(TRACE_ERROR, "ERR: vrf struct is NULL");
		return nullptr;
	}
	const std::uint32_t b = get_session_hash(source_ip, discriminator);
	const bool new_period = (vrf->shm->rx_valid_pkts & HASH_PERIOD_MASK) == 0;
	session_node *session = session_find(vrf, b, discriminator, source_ip);
	count_lookup(vrf->shm, session != nullptr, new_period);
	if (session == nullptr)
		return session_alloc(vrf, b, discriminator, source_ip);

	TRACE(TRACE_RX, "RX: Hash=%u, found exising session", b);
	if (vrf->sess_cache_count <= 1)
		ENSURE(vrf->sess_cache.next == &session->cache_list);
	else if (vrf->sess_cache.next != &session->cache_list)
		list_move_front(&vrf->sess_cache, &session->cache_list);
	session_sanity_check(vrf);
	return session;
}

namespace {

// The session of the key on the chain of `bucket`, or nullptr.
session_node *session_find(reflector_vrf *vrf, std::uint32_t bucket, std::uint32_t discriminator,
			   std::uint32_t source_ip)
{
	list_link *head = &vrf->hash_tbl[bucket];
	for (list_link *l = head->next; l != head; l = l->next) {
		session_node *session = node_of_hash(l);
		const reflector_session *s = session->shm_session;
		if (s->discriminator == discriminator && s->source_ip == source_ip)
			return session;
	}
	return nullptr;
}

// Counts one lookup as a hit or a miss; the first lookup of a counting
// period (HASH_PERIOD_MASK) restarts all three hash counters.
void count_lookup(reflector_shm *shm, bool hit, bool new_period)
{
	std::uint32_t &mine = hit ? shm->rx_hash_hit : shm->rx_hash_miss;
	if (new_period) {
		shm->rx_hash_hit = 0;
		shm->rx_hash_miss = 0;
		shm->rx_hash_trim = 0;
		mine = 1;
	} else {
		mine++;
	}
}

// A new session of the key on the chain of `bucket` and at the front of
// sess_cache, in a free slot or, when all 512 are in use, in the least
// recently used one.
session_node *session_alloc(reflector_vrf *vrf, std::uint32_t bucket, std::uint32_t discriminator,
			    std::uint32_t source_ip)
{
	session_node *session;
	if (vrf->sess_cache_count == MAX_SESSIONS) {
		vrf->shm->rx_hash_trim++;
		session = node_of_cache(vrf->sess_cache.prev);
		list_unlink(&session->cache_list);
		vrf->sess_cache_count = MAX_SESSIONS - 1;
		list_unlink(&session->hash_list);
		ENSURE(vrf->session_count);
		vrf->session_count--;
	} else {
		ENSURE(!list_empty(&vrf->free_list));
		session = node_of_free(vrf->free_list.next);
		list_unlink(&session->free_link);
	}
	TRACE(TRACE_RX, "RX: Hash=%u, allocating new session", bucket);
	reflector_session *s = session->shm_session;
	std::memset(s, 0, sizeof *s);
	s->discriminator = discriminator;
	s->source_ip = source_ip;
	list_init(&session->hash_list);
	list_insert_front(&vrf->hash_tbl[bucket], &session->hash_list);
	vrf->session_count++;
	list_init(&session->cache_list);
	list_insert_front(&vrf->sess_cache, &session->cache_list);
	vrf->sess_cache_count++;
	session_sanity_check(vrf);
	return session;
}

}  // namespace

bool session_check_avx2 = [] {
	__builtin_cpu_init();
	return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("popcnt") && __builtin_cpu_supports("bmi");
}();

namespace {

// The table check makes one pass over the bucket heads, 16 at a time. The
// heads of a group are compared with themselves all at once (a head whose
// next link is the head itself has an empty chain), giving a word with bit
// 4i set for each head i that has a chain; then the chains of those heads
// are walked, and the recency list advances one link per chain alongside.
// No branch in the hot path depends on a single head, so the loads of
// different chains and of the recency list overlap instead of each waiting
// for a mispredicted branch. Every head, every chain link and every
// sess_cache link is still visited, and the counts are those of a walk
// along next links from each head.
constexpr std::uint32_t HEADS_PER_WORD = 16;
constexpr std::uint32_t HEAD_WORDS = SESSION_HASH_BUCKETS / HEADS_PER_WORD;
constexpr std::uint64_t HEAD_BITS = 0x1111111111111111;  // bit 4i: head i of a group
static_assert(SESSION_HASH_BUCKETS % HEADS_PER_WORD == 0);
static_assert(sizeof(list_link) == 16, "bit 4i of a group is its byte offset 16i divided by 4");

struct check_walk {
	std::uint32_t chain_count;  // nodes on the chains walked so far
	std::uint32_t cache_count;  // sess_cache links passed so far
	const list_link *c;         // the next sess_cache link
};

// Counts the chains of the heads of `group` marked in `chained`. A marked
// head has a node; the rest of its chain is walked from that node's next.
[[gnu::always_inline]] inline void walk_chains(const list_link *group, std::uint64_t chained,
					       const list_link *cache_head, check_walk &w)
{
	w.chain_count += static_cast<std::uint32_t>(__builtin_popcountll(chained));
	for (; chained != 0; chained &= chained - 1) {
		const auto *h = reinterpret_cast<const list_link *>(reinterpret_cast<const char *>(group) +
								    4 * __builtin_ctzll(chained));
		for (const list_link *l = h->next->next; l != h; l = l->next)
			w.chain_count++;
		if (w.c != cache_head) {
			w.cache_count++;
			w.c = w.c->next;
		}
	}
}

check_walk walk_table_portable(const reflector_vrf *vrf)
{
	check_walk w{0, 0, vrf->sess_cache.next};
	for (std::uint32_t g = 0; g < HEAD_WORDS; g++) {
		const list_link *group = vrf->hash_tbl + g * HEADS_PER_WORD;
		std::uint64_t chained = 0;
		for (std::uint32_t i = 0; i < HEADS_PER_WORD; i++)
			chained |= static_cast<std::uint64_t>(group[i].next != &group[i]) << (4 * i);
		walk_chains(group, chained, &vrf->sess_cache, w);
	}
	return w;
}

[[gnu::target("avx2"), gnu::always_inline]] inline __m256i at_self(const __m256i *p, __m256i self)
{
	return _mm256_cmpeq_epi64(_mm256_loadu_si256(p), self);
}

// Bits 4i..4i+3 set where head i of the eight at `heads` has next, next,
// prev, prev equal to its own address; `self` is {h, h, h + 1, h + 1} for
// the first head h. Four 32-byte compares, each of two heads' {next, prev};
// signed packs turn each head's four 64-bit results into four bytes and
// interleave the heads by 128-bit lane, and a fixed permutation puts them
// back in order.
[[gnu::target("avx2"), gnu::always_inline]] inline std::uint32_t eight_heads_at_self(const list_link *heads,
										   __m256i self)
{
	constexpr long long PAIR = 2 * sizeof(list_link);
	const __m256i step = _mm256_set1_epi64x(PAIR);
	const auto *p = reinterpret_cast<const __m256i *>(heads);
	const __m256i s1 = _mm256_add_epi64(self, step), s2 = _mm256_add_epi64(s1, step),
		      s3 = _mm256_add_epi64(s2, step);
	const __m256i packed = _mm256_packs_epi16(_mm256_packs_epi32(at_self(p, self), at_self(p + 1, s1)),
						  _mm256_packs_epi32(at_self(p + 2, s2), at_self(p + 3, s3)));
	const __m256i in_order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
	return static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_permutevar8x32_epi32(packed, in_order)));
}

[[gnu::target("avx2,popcnt,bmi")]] check_walk walk_table_avx2(const reflector_vrf *vrf)
{
	check_walk w{0, 0, vrf->sess_cache.next};
	constexpr long long LINK = sizeof(list_link);
	const auto base = reinterpret_cast<long long>(vrf->hash_tbl);
	const __m256i half_step = _mm256_set1_epi64x(HEADS_PER_WORD / 2 * LINK);
	__m256i self = _mm256_setr_epi64x(base, base, base + LINK, base + LINK);
	for (std::uint32_t g = 0; g < HEAD_WORDS; g++) {
		const list_link *group = vrf->hash_tbl + g * HEADS_PER_WORD;
		const __m256i second = _mm256_add_epi64(self, half_step);
		const std::uint64_t empty = eight_heads_at_self(group, self) |
					    std::uint64_t{eight_heads_at_self(group + HEADS_PER_WORD / 2, second)} << 32;
		walk_chains(group, ~empty & HEAD_BITS, &vrf->sess_cache, w);
		self = _mm256_add_epi64(second, half_step);
	}
	return w;
}

}  // namespace

void session_sanity_check(reflector_vrf *vrf)
{
	ENSURE(vrf->sess_cache_count <= 512);
	check_walk w = session_check_avx2 ? walk_table_avx2(vrf) : walk_table_portable(vrf);
	std::uint32_t count = w.chain_count;
	ENSURE(count == vrf->session_count);
	for (; w.c != &vrf->sess_cache; w.c = w.c->next)
		w.cache_count++;
	count = w.cache_count;
	ENSURE(count == vrf->sess_cache_count);
	ENSURE(vrf->sess_cache_count == vrf->session_count);
}

// ---- session update ----

namespace {

void store_time(shm_timestamp &t, const timespec &now)
{
	t.tv_sec = now.tv_sec;
	t.tv_nsec = now.tv_nsec;
}

// Microseconds of a time stamp, wrapping instead of overflowing: a store
// kept from an earlier run may hold any value.
std::int64_t stamp_us(std::int64_t sec, std::int64_t nsec)
{
	return static_cast<std::int64_t>(static_cast<std::uint64_t>(sec) * 1000000u +
					 static_cast<std::uint64_t>(nsec / 1000));
}

// Records a valid request in its session's receive statistics.
void record_rx(reflector_session *s, const bfd_ctrl_pkt &pkt, std::uint16_t port_net)
{
	s->source_port = ntohs(port_net);
	s->desired_min_tx = ntohl(pkt.min_tx_interval);
	s->required_min_rx = ntohl(pkt.min_rx_interval);
	s->required_min_echo_rx = ntohl(pkt.min_echo_rx_interval);
	s->detect_multiplier = pkt.detect_multiplier;
	s->version = bfd_version(pkt);
	s->diag = bfd_diag(pkt);
	s->demand = (pkt.flags & BFD_FLAG_D) ? 1 : 0;
	s->final = (pkt.flags & BFD_FLAG_F) ? 1 : 0;
	s->poll = (pkt.flags & BFD_FLAG_P) ? 1 : 0;
	s->length = pkt.length;
	s->your_disc = ntohl(pkt.your_disc);

	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	s->num_received++;
	const std::uint8_t state = bfd_state_of(pkt);
	if (s->state != state || s->num_received == 1) {
		store_time(s->last_state_change, now);
		s->prev_state = s->state;
	}
	s->state = state;
	if (s->num_received > 1) {
		const std::int64_t gap = static_cast<std::int64_t>(
			static_cast<std::uint64_t>(stamp_us(now.tv_sec, now.tv_nsec)) -
			static_cast<std::uint64_t>(stamp_us(s->last_rx.tv_sec, s->last_rx.tv_nsec)));
		s->period_sum += static_cast<std::uint64_t>(gap);
		if (gap < static_cast<std::int64_t>(s->min_period) || s->min_period == 0)
			s->min_period = static_cast<std::uint32_t>(gap);
		if (gap > static_cast<std::int64_t>(s->max_period))
			s->max_period = static_cast<std::uint32_t>(gap);
	}
	store_time(s->last_rx, now);
}

}  // namespace

// ---- reply ----

void get_tx_data(bfd_ctrl_pkt *bfd)
{
	if (bfd == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: bfd is NULL");
		return;
	}
	const bool down = reflector_cfg.adminDown != 0;
	bfd->vers_diag = static_cast<std::uint8_t>((bfd->vers_diag & BFD_VERSION_MASK) |
						   (down ? BFD_DIAG_ADMIN_DOWN : BFD_DIAG_NONE));
	std::uint8_t flags = static_cast<std::uint8_t>(bfd->flags & BFD_FLAGS_MASK);
	flags |= static_cast<std::uint8_t>((down ? BFD_STATE_ADMIN_DOWN : BFD_STATE_UP) << BFD_STATE_SHIFT);
	if (flags & BFD_FLAG_P)
		flags = static_cast<std::uint8_t>((flags & ~BFD_FLAG_P) | BFD_FLAG_F);
	flags = static_cast<std::uint8_t>(flags & ~BFD_FLAG_D);
	bfd->flags = flags;
	bfd->min_echo_rx_interval = 0;
	bfd->your_disc = bfd->my_disc;  // read before my_disc is overwritten
	bfd->my_disc = reflector_cfg.discriminator;
	bfd->min_rx_interval = htonl(reflector_cfg.minRx);
}

namespace {

// Builds the reply in place over the request at `wire` and sends it.
// Returns RX_FRAME_SHORT_SEND when sendto reported a length other than 24.
int send_reply(reflector_vrf *vrf, std::uint8_t *wire, bfd_ctrl_pkt &pkt, const sockaddr_in &from,
	       session_node *node)
{
	reflector_shm *shm = vrf->shm;
	get_tx_data(&pkt);
	std::memcpy(wire, &pkt, BFD_PKT_LEN);

	const ssize_t sent = send_with_retries(vrf, wire, from);
	if (sent < 0) {
		maybe_dump_stats(vrf);
		return RX_FRAME_DONE;
	}
	if (sent != static_cast<ssize_t>(BFD_PKT_LEN)) {
		shm->wrong_len_sent++;
		TRACE(TRACE_ERROR, "ERROR: sendto() returns wrong length %zd\n",
		      static_cast<std::int32_t>(sent));
		return RX_FRAME_SHORT_SEND;
	}
	TRACE(TRACE_TX,
	      "TX: Send %d bytes back to initiator. Sent my_disc %u, your_disc %u, dst_ip %s, "
	      "dst_port %u, min_rx_interval %u state %u,",
	      static_cast<std::int32_t>(BFD_PKT_LEN), ntohl(pkt.my_disc), ntohl(pkt.your_disc),
	      ipv4_dotted(from.sin_addr.s_addr).text, ntohs(from.sin_port), ntohl(pkt.min_rx_interval),
	      bfd_state_of(pkt));
	shm->tx_sends++;
	if (node != nullptr)
		record_tx(node->shm_session, pkt);
	maybe_dump_stats(vrf);
	return RX_FRAME_DONE;
}

// Sends the reply at `wire` to `to`, counting and tracing each failed
// attempt: an interrupted send is tried again, one to an unreachable
// destination up to SEND_RETRIES more times, any other failure ends it.
// Returns what the last sendto returned; -1 when it gave up.
ssize_t send_with_retries(reflector_vrf *vrf, const std::uint8_t *wire, const sockaddr_in &to)
{
	int budget = SEND_RETRIES;
	for (;;) {
		const ssize_t sent = reply_sendto(vrf, wire, to);
		if (sent >= 0)
			return sent;
		const int err = errno;
		vrf->shm->sendto_fail++;
		TRACE(TRACE_ERROR, "ERROR: sendto() returns -1, errno %d dst_ip %s\n",
		      static_cast<std::int32_t>(err), ipv4_dotted(to.sin_addr.s_addr).text);
		if (err == EINTR)
			continue;
		if (err != ENETUNREACH && err != EHOSTUNREACH)
			return -1;
		if (budget == 0) {
			TRACE(TRACE_ERROR, "ERROR: retried sendto %d times but failed.",
			      static_cast<std::int32_t>(SEND_RETRIES));
			return -1;
		}
		budget--;
	}
}

// address it will not use: -1 with errno EADDRNOTAVAIL, nothing sent. The
// caller then counts and traces it as any failed send, without retrying.
ssize_t reply_sendto(const reflector_vrf *vrf, const std::uint8_t *wire, const sockaddr_in &to)
{
	if (reply_dst_refused(vrf, to.sin_addr.s_addr)) {
		errno = EADDRNOTAVAIL;
		return -1;
	}
	return sendto(vrf->outfd, wire, BFD_PKT_LEN, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to),
		      sizeof to);
}

// Builds the reply in place over the request at `wire` and sends it.

// Records a sent reply in its session's transmit statistics.
void record_tx(reflector_session *s, const bfd_ctrl_pkt &reply)
{
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	store_time(s->last_tx, now);
	s->num_sent++;
	// Compare the two states left by earlier replies before shifting them.
	if (s->prev_tx_state != s->tx_state || s->num_sent == 1)
		store_time(s->last_tx_state_change, now);
	s->prev_tx_state = s->tx_state;
	s->tx_state = bfd_state_of(reply);
	s->tx_diag = bfd_diag(reply);
}

// sendto of the reply at `wire` to `to`, except that a destination no reply
// may go to (reply_dst_refused) fails as the kernel fails a send to an
}  // namespace

// ---- report ----

void maybe_dump_stats(reflector_vrf *vrf)
{
	if (vrf == nullptr)
		return;
	const reflector_shm *shm = vrf->shm;
	const std::uint64_t total = shm->rx_drops + shm->rx_valid_pkts;
	std::uint32_t limit;
	if (total > 10) {
		if (total % 100 != 0)
			return;
		limit = 1;
	} else {
		limit = static_cast<std::uint32_t>(total);
	}
	TRACE(TRACE_STATS,
	      "GLOBAL STATS: rx_drops %lu, rx_valid_pkts %lu, tx_sends %lu, cache_cnt %u, "
	      "rx_hash_miss %u, rx_hash_hit %u, rx_hash_trim %u",
	      shm->rx_drops, shm->rx_valid_pkts, shm->tx_sends, vrf->sess_cache_count,
	      shm->rx_hash_miss, shm->rx_hash_hit, shm->rx_hash_trim);
	TRACE(TRACE_STATS,
	      "ERROR STATS-RX: pkt_truncated %u, bad_version %u, invalid_pkt_len %u, "
	      "invalid_src_port %u, demand_mode_unset %u, invalid_detect_mult %u, invalid_my_disc "
	      "%u, your_disc_unmatch %u, invalid_bfd_state %u, unsupported %u, invalid_pkt_format %u",
	      shm->pkt_truncated, shm->bad_version, shm->invalid_pkt_len, shm->invalid_src_port,
	      shm->demand_mode_unset, shm->invalid_detect_mult, shm->invalid_my_disc,
	      shm->your_disc_unmatch, shm->invalid_bfd_state, shm->unsupported,
	      shm->invalid_pkt_format);
	TRACE(TRACE_STATS, "ERROR STATS-TX: sendto_fail %u, wrong_len_sent %u", shm->sendto_fail,
	      shm->wrong_len_sent);
	TRACE(TRACE_STATS, "SESSION STATS (up to %d sessions):", limit);
	std::uint32_t count = 0;
	for (list_link *l = vrf->sess_cache.next; l != &vrf->sess_cache; l = l->next) {
		count++;
		dump_session(node_of_cache(l));
		if (count >= limit)
			break;
	}
}

namespace {

// Room for ctime's text of any year an int holds: "Thu Jan  1 00:00:00 "
// (20), up to 11 digits of year, the newline and the terminator.
constexpr std::size_t CTIME_TEXT_LEN = 20 + 11 + 1 + 1;

// The text ctime gives for `sec` (local time, "Thu Jan  1 00:00:00 1970\n"),
// into `buf`; nullptr where ctime gives it (a time localtime cannot break
// down). The stored seconds come from a store that may have been written by
// anyone: ctime_r would fail for years from 10000 on, whose text needs more
// than its 26 bytes, so the text is built here in ctime's exact form.
const char *ctime_text(std::int64_t sec, char (&buf)[CTIME_TEXT_LEN])
{
	static constexpr char DAYS[7][4] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
	static constexpr char MONTHS[12][4] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
					       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
	const time_t t = static_cast<time_t>(sec);
	tm parts;
	if (localtime_r(&t, &parts) == nullptr || parts.tm_year > INT_MAX - 1900 || parts.tm_wday < 0 ||
	    parts.tm_wday > 6 || parts.tm_mon < 0 || parts.tm_mon > 11)
		return nullptr;
	std::snprintf(buf, sizeof buf, "%.3s %.3s%3d %.2d:%.2d:%.2d %d\n", DAYS[parts.tm_wday],
		      MONTHS[parts.tm_mon], parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
		      parts.tm_year + 1900);
	return buf;
}

}  // namespace

void dump_session(session_node *node)
{
	if (!bl_isInitialized(bl_handle))
		return;  // nothing below has an effect without a trace
	const reflector_session *s = node->shm_session;
	const std::uint64_t avg = shm_avg_period(*s);
	// A record's arguments are all evaluated before the first is put, so
	// the two ctime texts of one record need buffers of their own (ctime's
	// static buffer would show the same time twice).
	char rx_text[CTIME_TEXT_LEN], rx_change_text[CTIME_TEXT_LEN], tx_text[CTIME_TEXT_LEN],
		tx_change_text[CTIME_TEXT_LEN];
	const char *rx_time = ctime_text(s->last_rx.tv_sec, rx_text);
	const char *rx_change_time = ctime_text(s->last_state_change.tv_sec, rx_change_text);
	const char *tx_time = ctime_text(s->last_tx.tv_sec, tx_text);
	const char *tx_change_time = ctime_text(s->last_tx_state_change.tv_sec, tx_change_text);
	TRACE(TRACE_STATS,
	      "SESSION STATS-RX: discriminator %d, source_ip %s, min_period %u, max_period %u, "
	      "avg_period %u, num_received %lu, last_rx %s (%lu.%09lu), last_state_change %s "
	      "(%lu.%09lu)",
	      s->discriminator, ipv4_dotted(s->source_ip).text, s->min_period, s->max_period,
	      static_cast<std::uint32_t>(avg), s->num_received, rx_time,
	      static_cast<std::uint64_t>(s->last_rx.tv_sec),
	      static_cast<std::uint64_t>(s->last_rx.tv_nsec), rx_change_time,
	      static_cast<std::uint64_t>(s->last_state_change.tv_sec),
	      static_cast<std::uint64_t>(s->last_state_change.tv_nsec));
	TRACE(TRACE_STATS,
	      "SESSION STATS-TX: num_sent %lu, last_tx %s (%lu.%09lu), last_tx_state_change %s "
	      "(%lu.%09lu)",
	      s->num_sent, tx_time, static_cast<std::uint64_t>(s->last_tx.tv_sec),
	      static_cast<std::uint64_t>(s->last_tx.tv_nsec), tx_change_time,
	      static_cast<std::uint64_t>(s->last_tx_state_change.tv_sec),
	      static_cast<std::uint64_t>(s->last_tx_state_change.tv_nsec));
}

void dump_hash_tbl(reflector_vrf *vrf)
{
	TRACE(TRACE_FUNC, "dump_hash_tbl");
	TRACE(TRACE_STATS, "Hash Table (HashCnt=%d, CacheCnt=%d):", vrf->session_count,
	      vrf->sess_cache_count);
	std::uint32_t count = 0;
	for (std::uint32_t b = 0; b < SESSION_HASH_BUCKETS; b++) {
		list_link *head = &vrf->hash_tbl[b];
		for (list_link *l = head->next; l != head; l = l->next) {
			const reflector_session *s = node_of_hash(l)->shm_session;
			count++;
			TRACE(TRACE_STATS, "%d: slot %d discriminator %d, source_ip %s", count, b,
			      s->discriminator, ipv4_dotted(s->source_ip).text);
		}
	}
	ENSURE(count == vrf->session_count);
}

// ---- the session table at start-up ----

void session_cache_insert_by_time(reflector_vrf *vrf, session_node *node)
{
	list_init(&node->cache_list);
	const shm_timestamp &t = node->shm_session->last_rx;
	list_link *head = &vrf->sess_cache;
	list_link *e = head->next;
	for (; e != head; e = e->next) {
		const shm_timestamp &et = node_of_cache(e)->shm_session->last_rx;
		const double d = difftime(static_cast<time_t>(t.tv_sec), static_cast<time_t>(et.tv_sec));
		if (d > 0 || (d == 0 && t.tv_nsec > et.tv_nsec))
			break;
	}
	// e is the first older element, or the head itself: before the head is the tail.
	list_insert_before(e, &node->cache_list);
	vrf->sess_cache_count++;
}

int session_table_setup(reflector_vrf *vrf)
{
	vrf->rx_sess = static_cast<session_node *>(std::calloc(MAX_SESSIONS, sizeof(session_node)));
	if (vrf->rx_sess == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: reflector rx_sess malloc() failed");
		return SETUP_ERR_NOMEM;
	}
	for (std::uint32_t k = 0; k < MAX_SESSIONS; k++)
		vrf->rx_sess[k].shm_session = &vrf->shm->sessions[k];
	list_init(&vrf->free_list);
	for (std::uint32_t k = 0; k < MAX_SESSIONS; k++) {
		if (vrf->shm->sessions[k].discriminator == 0)
			list_insert_front(&vrf->free_list, &vrf->rx_sess[k].free_link);
	}
	if (reflector_cfg.persist)
		reflector_cache_reinit(vrf);
	return 0;
}

void reflector_cache_reinit(reflector_vrf *vrf)
{
	for (std::uint32_t k = 0; k < MAX_SESSIONS; k++) {
		session_node *node = &vrf->rx_sess[k];
		const reflector_session *s = node->shm_session;
		if (s->discriminator == 0)
			continue;
		const std::uint32_t h = get_session_hash(s->source_ip, s->discriminator);
		list_init(&node->hash_list);
		list_insert_front(&vrf->hash_tbl[h], &node->hash_list);
		vrf->session_count++;
		session_cache_insert_by_time(vrf, node);
		ENSURE(vrf->session_count == vrf->sess_cache_count);
	}
}

// ---- control channel ----

void rx_netlink_ready(int fd, short what, void *arg)
{
	reflector_vrf *vrf = static_cast<reflector_vrf *>(arg);
	if (vrf == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: vrf is NULL");
		return;
	}
	TRACE(TRACE_EVENT, "EVENT: Got a netlink event on socket %d:%s%s [%s]",
	      static_cast<std::int32_t>(fd), (what & EV_READ) ? " read" : "",
	      (what & EV_WRITE) ? " write" : "", vrf->name);

	alignas(16) std::uint8_t buf[RX_BUF_LEN];
	std::memset(buf, 0, sizeof buf);
	alignas(8) std::uint8_t addr[16] = {};
	socklen_t addr_len = sizeof addr;
	const std::int32_t n = static_cast<std::int32_t>(
		recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(addr), &addr_len));
	if (n == 0) {
		TRACE(TRACE_ERROR, "ERROR: packet missing or remote side closed the connection.");
		return;
	}
	if (n < 0) {
		TRACE(TRACE_ERROR, "ERROR: recvfrom returns -1, errno %d", static_cast<std::int32_t>(errno));
		return;
	}
	TRACE(TRACE_RX, "RX: socket netlink ready with %lu bytes", n);

	const nl_applied applied = nl_apply_datagram({buf, static_cast<std::size_t>(n)});
	if (!applied.set)
		return;
	// A new source address: the transmit socket is bound to the old one.
	if (applied.source_changed) {
		close(vrf->outfd);
		if (init_out_socket(vrf) != INIT_OK) {
			TRACE(TRACE_ERROR, "ERROR: outfd init failed, terminate to retry");
			std::exit(0);
		}
	}
	// Once per datagram, and only for a configuration the daemon runs with.
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	reflector_state_changed(vrf, {now.tv_sec, now.tv_nsec});
}

namespace {

std::int64_t monotonic_ns()
{
	timespec t{};
	clock_gettime(CLOCK_MONOTONIC, &t);
	return static_cast<std::int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

}  // namespace

void reflector_save_state(reflector_vrf *vrf)
{
	if (vrf->state_path[0] == '\0')
		return;
	const run_state s{static_cast<std::int32_t>(getpid()), ntohl(reflector_cfg.discriminator),
			  reflector_cfg.sourceIp, reflector_cfg.minRx, reflector_cfg.adminDown,
			  vrf->state_since.tv_sec, vrf->state_since.tv_nsec, vrf->started.tv_sec,
			  vrf->started.tv_nsec};
	if (run_state_write(vrf->state_path, s) != 0)
		TRACE(TRACE_ERROR, "ERROR: run-state file %s not written, errno %d", vrf->state_path,
		      static_cast<std::int32_t>(errno));
	vrf->state_written_ns = monotonic_ns();  // after the write: the gap is the loop's own time
}

void reflector_state_changed(reflector_vrf *vrf, const shm_timestamp &since)
{
	if (vrf->state_path[0] == '\0')
		return;
	vrf->state_since = since;
	if (vrf->event_state != nullptr && evtimer_pending(vrf->event_state, nullptr))
		return;
	const std::int64_t wait = vrf->state_written_ns + RUN_STATE_GAP_NS - monotonic_ns();
	if (wait <= 0 || vrf->event_state == nullptr) {
		reflector_save_state(vrf);
		return;
	}
	const timeval tv{static_cast<time_t>(wait / 1000000000),
			 static_cast<suseconds_t>(wait % 1000000000 / 1000 + 1)};
	if (evtimer_add(vrf->event_state, &tv) != 0)
		reflector_save_state(vrf);
}

void state_timer_fired(int, short, void *arg)
{
	reflector_save_state(static_cast<reflector_vrf *>(arg));
}

namespace {

// Applies every set message of one control datagram to reflector_cfg, in
// order, and says whether any did and whether the source address changed.
// `remaining` counts the bytes from `off` to the end of the datagram, and
// every field read is bounded by the datagram (load_host_within).
nl_applied nl_apply_datagram(std::span<const std::uint8_t> dgram)
{
	std::size_t off = 0;
	std::size_t remaining = dgram.size();
	nl_applied applied{false, false};
	while (remaining >= NL_HDR_LEN) {
		nlmsghdr h;
		std::memcpy(&h, dgram.data() + off, sizeof h);
		if (h.nlmsg_len < NL_HDR_LEN || h.nlmsg_len > remaining)
			break;
		if (h.nlmsg_flags & NLM_F_REQUEST) {
			if (h.nlmsg_type != REFLECTOR_NL_SET) {
				TRACE(TRACE_ERROR, "ERROR-Netlink: Unknown message type %d, data %d",
				      h.nlmsg_type, load_host_within<std::uint32_t>(dgram, off + NL_DISC_OFF));
			} else {
				const std::uint32_t disc = load_host_within<std::uint32_t>(dgram, off + NL_DISC_OFF);
				const std::uint32_t min_rx = load_host_within<std::uint32_t>(dgram, off + NL_MIN_RX_OFF);
				const std::uint32_t src_ip =
					htonl(load_host_within<std::uint32_t>(dgram, off + NL_SRC_IP_OFF));
				const std::uint8_t admin = load_host_within<std::uint8_t>(dgram, off + NL_ADMIN_OFF);
				TRACE(TRACE_RX, "RX-Netlink: set disc %d min_rx %d src_ip %s adminDown %d", disc,
				      min_rx, ipv4_dotted(src_ip).text, admin != 0);
				reflector_cfg.discriminator = htonl(disc);
				reflector_cfg.minRx = min_rx;
				applied.set = true;
				if (src_ip != reflector_cfg.sourceIp)
					applied.source_changed = true;
				reflector_cfg.sourceIp = src_ip;
				reflector_cfg.adminDown = admin;
			}
		}
		const std::size_t step = (h.nlmsg_len + NL_ALIGN - 1) & ~(NL_ALIGN - 1);
		if (step > remaining)
			break;
		remaining -= step;
		off += step;
	}
	return applied;
}

}  // namespace

// ---- the reply's destination and the own addresses ----

namespace {

// Address watch messages (host byte order): nlmsghdr, then for RTM_NEWADDR
// and RTM_DELADDR an ifaddrmsg and its attributes, each an rtattr header and
// a value; IFA_LOCAL holds the interface's own address (IFA_ADDRESS is the
// peer's on a point-to-point link). NLMSG_ERROR carries a negative errno.
constexpr std::size_t IFA_MSG_LEN = 8;  // family, prefix length, flags, scope (1 each), ifindex (4)
static_assert(sizeof(ifaddrmsg) == IFA_MSG_LEN && NLMSG_ALIGN(IFA_MSG_LEN) == IFA_MSG_LEN);
constexpr std::size_t RTA_HDR_LEN = 4;  // length (2), type (2)
static_assert(sizeof(rtattr) == RTA_HDR_LEN);
constexpr std::size_t IPV4_ADDR_LEN = 4;
constexpr std::size_t NL_ERRNO_OFF = NL_HDR_LEN;  // s32, negative errno
// Datagrams read after an overrun before dumping again: a full socket
// buffer of the smallest notifications (212 KiB by default) holds fewer.
constexpr int ADDR_DRAIN_MAX = 4096;

// Index of the first entry not ordered before (addr, ifindex).
std::uint32_t local_addr_lower(const local_addr_table &t, std::uint32_t addr, std::uint32_t ifindex)
{
	std::uint32_t lo = 0;
	std::uint32_t hi = t.count;
	while (lo < hi) {
		const std::uint32_t mid = lo + (hi - lo) / 2;
		const local_addr &e = t.entries[mid];
		if (e.addr < addr || (e.addr == addr && e.ifindex < ifindex))
			lo = mid + 1;
		else
			hi = mid;
	}
	return lo;
}

// Enters (addr, ifindex); one already there counts as listed by the dump.
void local_addr_add(local_addr_table &t, std::uint32_t addr, std::uint32_t ifindex)
{
	const std::uint32_t i = local_addr_lower(t, addr, ifindex);
	if (i < t.count && t.entries[i].addr == addr && t.entries[i].ifindex == ifindex) {
		t.entries[i].stale = false;
		return;
	}
	if (t.count == LOCAL_ADDR_MAX) {
		TRACE(TRACE_ERROR, "ERROR: address table full (%u entries), replies to %s are not refused",
		      static_cast<std::uint32_t>(LOCAL_ADDR_MAX), ipv4_dotted(addr).text);
		return;
	}
	std::memmove(&t.entries[i + 1], &t.entries[i], (t.count - i) * sizeof t.entries[0]);
	t.entries[i] = {addr, ifindex, false};
	t.count++;
	TRACE(TRACE_RX, "RX-Address: add %s, ifindex %u", ipv4_dotted(addr).text, ifindex);
}

void local_addr_remove(local_addr_table &t, std::uint32_t addr, std::uint32_t ifindex)
{
	const std::uint32_t i = local_addr_lower(t, addr, ifindex);
	if (i == t.count || t.entries[i].addr != addr || t.entries[i].ifindex != ifindex)
		return;
	std::memmove(&t.entries[i], &t.entries[i + 1], (t.count - i - 1) * sizeof t.entries[0]);
	t.count--;
	TRACE(TRACE_RX, "RX-Address: remove %s, ifindex %u", ipv4_dotted(addr).text, ifindex);
}

// Ends the dump under way. A `complete` one drops the entries it did not
// list; a failed one keeps them all. Then dumps again if it may have missed
// changes.
void local_addr_dump_end(reflector_vrf *vrf, bool complete)
{
	local_addr_table &t = vrf->local_addrs;
	std::uint32_t kept = 0;
	for (std::uint32_t i = 0; i < t.count; i++) {
		local_addr e = t.entries[i];
		if (e.stale && complete) {
			TRACE(TRACE_RX, "RX-Address: remove %s, ifindex %u", ipv4_dotted(e.addr).text, e.ifindex);
			continue;
		}
		e.stale = false;
		t.entries[kept++] = e;
	}
	t.count = kept;
	t.dumping = false;
	t.marked = false;
	if (t.again) {
		t.again = false;
		local_addr_resync(vrf);
	}
}

// The IPv4 address and interface of the RTM_NEWADDR or RTM_DELADDR message
// of `len` bytes at `msg`. Returns false when it is not IPv4 or has none.
bool ifa_local(const std::uint8_t *msg, std::size_t len, std::uint32_t *addr, std::uint32_t *ifindex)
{
	if (len < NL_HDR_LEN + IFA_MSG_LEN)
		return false;
	ifaddrmsg m;
	std::memcpy(&m, msg + NL_HDR_LEN, sizeof m);
	if (m.ifa_family != AF_INET)
		return false;
	for (std::size_t off = NL_HDR_LEN + IFA_MSG_LEN; off + RTA_HDR_LEN <= len;) {
		rtattr a;
		std::memcpy(&a, msg + off, sizeof a);
		if (a.rta_len < RTA_HDR_LEN || a.rta_len > len - off)
			return false;
		if (a.rta_type == IFA_LOCAL && a.rta_len >= RTA_HDR_LEN + IPV4_ADDR_LEN) {
			std::memcpy(addr, msg + off + RTA_HDR_LEN, IPV4_ADDR_LEN);
			*ifindex = m.ifa_index;
			return true;
		}
		off += RTA_ALIGN(a.rta_len);
	}
	return false;
}

// Applies the messages of one address watch datagram of `n` bytes at `buf`.
void local_addr_apply(reflector_vrf *vrf, const std::uint8_t *buf, std::size_t n)
{
	local_addr_table &t = vrf->local_addrs;
	for (std::size_t off = 0; off + NL_HDR_LEN <= n;) {
		nlmsghdr h;
		std::memcpy(&h, buf + off, sizeof h);
		if (h.nlmsg_len < NL_HDR_LEN || h.nlmsg_len > n - off)
			break;
		// A part of our dump carries its sequence number and our port; a
		// notification those of whoever made the change.
		const bool dump_part = t.dumping && h.nlmsg_seq == t.seq && h.nlmsg_pid == t.port;
		if (dump_part && !t.marked) {
			// Notifications read before the dump's first part are older
			// than it, those after newer: only the dump says what is gone.
			for (std::uint32_t i = 0; i < t.count; i++)
				t.entries[i].stale = true;
			t.marked = true;
		}
		if (dump_part && (h.nlmsg_flags & NLM_F_DUMP_INTR))
			t.again = true;  // the addresses changed while the kernel listed them
		// Martian addresses (127.0.0.1 on lo) are refused whether ours or not.
		std::uint32_t addr;
		std::uint32_t ifindex;
		if ((h.nlmsg_type == RTM_NEWADDR || h.nlmsg_type == RTM_DELADDR) &&
		    ifa_local(buf + off, h.nlmsg_len, &addr, &ifindex) && !ipv4_martian(ntohl(addr))) {
			if (h.nlmsg_type == RTM_NEWADDR)
				local_addr_add(t, addr, ifindex);
			else
				local_addr_remove(t, addr, ifindex);
		} else if (dump_part && h.nlmsg_type == NLMSG_DONE) {
			local_addr_dump_end(vrf, true);
		} else if (dump_part && h.nlmsg_type == NLMSG_ERROR) {
			TRACE(TRACE_ERROR, "ERROR: address dump failed, errno %d",
			      -static_cast<std::int32_t>(load_host_within<std::uint32_t>({buf, n}, off + NL_ERRNO_OFF)));
			local_addr_dump_end(vrf, false);
		}
		off += NLMSG_ALIGN(h.nlmsg_len);
	}
}

}  // namespace

bool reply_dst_refused(const reflector_vrf *vrf, std::uint32_t addr)
{
	if (ipv4_martian(ntohl(addr)) || addr == reflector_cfg.sourceIp)
		return true;
	const local_addr_table &t = vrf->local_addrs;
	const std::uint32_t i = local_addr_lower(t, addr, 0);
	return i < t.count && t.entries[i].addr == addr;
}

int local_addr_resync(reflector_vrf *vrf)
{
	local_addr_table &t = vrf->local_addrs;
	if (t.dumping) {
		t.again = true;  // the kernel runs one dump per socket at a time
		return 0;
	}
	nlmsghdr h{};
	h.nlmsg_len = static_cast<std::uint32_t>(NL_HDR_LEN + IFA_MSG_LEN);
	h.nlmsg_type = RTM_GETADDR;
	h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
	h.nlmsg_seq = ++t.seq;
	ifaddrmsg m{};
	m.ifa_family = AF_INET;
	std::uint8_t req[NL_HDR_LEN + IFA_MSG_LEN];
	std::memcpy(req, &h, sizeof h);
	std::memcpy(req + NL_HDR_LEN, &m, sizeof m);
	// The socket has no peer of its own: send() goes to the kernel.
	if (send(vrf->addrfd, req, sizeof req, 0) != static_cast<ssize_t>(sizeof req)) {
		TRACE(TRACE_ERROR, "ERROR: address dump request, send() errno %d", static_cast<std::int32_t>(errno));
		return -1;
	}
	t.dumping = true;
	t.marked = false;
	return 0;
}

std::int32_t local_addr_read(reflector_vrf *vrf, int fd)
{
	alignas(16) std::uint8_t buf[RX_BUF_LEN];  // a dump part is at most 32 KiB
	const ssize_t n = recv(fd, buf, sizeof buf, 0);
	if (n < 0) {
		const int err = errno;
		if (err == ENOBUFS) {
			// The kernel dropped notifications: the table may be stale. What
			// is queued is read first, so that the new dump finds room (a
			// full socket would fail it).
			TRACE(TRACE_ERROR, "ERROR: address watch overrun, reading the addresses again");
			for (int i = 0; i < ADDR_DRAIN_MAX; i++) {
				const ssize_t m = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
				if (m >= 0)
					local_addr_apply(vrf, buf, static_cast<std::size_t>(m));
				else if (errno != ENOBUFS)
					break;
			}
			local_addr_resync(vrf);
		} else {
			TRACE(TRACE_ERROR, "ERROR: address watch recv() returns -1, errno %d", static_cast<std::int32_t>(err));
		}
		errno = err;
		return -1;
	}
	local_addr_apply(vrf, buf, static_cast<std::size_t>(n));
	return static_cast<std::int32_t>(n);
}

void rx_addr_ready(int fd, short, void *arg)
{
	reflector_vrf *vrf = static_cast<reflector_vrf *>(arg);
	if (vrf == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: vrf is NULL");
		return;
	}
	// Not traced at level 2: that level holds the request and control
	// sockets' readiness alone; the changes themselves are traced.
	local_addr_read(vrf, fd);
}
