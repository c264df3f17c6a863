// rx_test.cpp -- frame reception and the reply, send failures, the report's
// thinning, the control channel's walk of a netlink datagram and the table
// of the host's own addresses.
#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <thread>
#include <tuple>

#include "nlctl.h"
#include "rxutil.h"

using namespace rxt;
using testing::Contains;
using testing::HasSubstr;

namespace {

// The request with `auth` bytes after it in the frame `s`, cut to `keep`
// bytes (0: all), with EtherType `eth_type` (0: as built).
struct frame_parts {
	request r;
	frame_spec s;
	std::size_t auth = 0, keep = 0;
	std::uint16_t eth_type = 0;
};
constexpr std::uint8_t KEPT_FLAGS = BFD_FLAG_C | BFD_FLAG_A | BFD_FLAG_M;
using S = reflector_shm;

// Frames broken in one place, the reason each counts (null: valid and
// answered) and the start of the error it traces.
const struct {
	const char *name;
	void (*edit)(frame_parts &);
	std::uint32_t S::*counter;
	const char *message;
} REJECT_CASES[] = {
	{"valid Down request", [](frame_parts &) {}, nullptr, nullptr},
	{"Length 0 passes", [](frame_parts &f) { f.r.length = 0; }, nullptr, nullptr},
	{"P, C and M", [](frame_parts &f) { f.r.flags = BFD_FLAG_D | BFD_FLAG_P | BFD_FLAG_C | BFD_FLAG_M; }, nullptr, nullptr},
	{"F and A with Length 28", [](frame_parts &f) { f.r.flags = BFD_FLAG_D | BFD_FLAG_F | BFD_FLAG_A, f.r.length = 28, f.auth = 4; },
	 nullptr, nullptr},
	{"IHL 15 under label 0", [](frame_parts &f) { f.s.labels = {0}, f.s.ip_options.assign(40, 1); }, nullptr, nullptr},
	{"23-byte control packet", [](frame_parts &f) { f.keep = 65; }, &S::pkt_truncated,
	 "ERROR: Pkt truncated. Recvd len 23, source_ip 192.0.2.2"},
	{"frame ending inside the IPv4 options", [](frame_parts &f) { f.s.ip_options.assign(40, 1), f.keep = 40; },
	 &S::pkt_truncated, "ERROR: Pkt truncated. Recvd len -42"},
	{"version 0 with D clear", [](frame_parts &f) { f.r.version = f.r.flags = 0; }, &S::bad_version,
	 "ERROR: Bad version 0. Recvd my_disc 287454020, source_ip 192.0.2.2"},
	{"Length 25 with 24 bytes", [](frame_parts &f) { f.r.length = 25; }, &S::invalid_pkt_len,
	 "ERROR: Invalid bfd ctrl pkt length 25. Rcvd len 24"},
	{"source port 7784", [](frame_parts &f) { f.s.src_port = SBFD_PORT; }, &S::invalid_src_port, "ERROR: Invalid source port "},
	{"D bit clear", [](frame_parts &f) { f.r.flags = BFD_FLAG_P; }, &S::demand_mode_unset, "ERROR: Demand mode bit is not set."},
	{"Detect Mult 0", [](frame_parts &f) { f.r.detect_mult = 0; }, &S::invalid_detect_mult, "ERROR: Detect Mult is not set."},
	{"My Discriminator 0", [](frame_parts &f) { f.r.my_disc = 0; }, &S::invalid_my_disc, "ERROR: My discriminator is not set."},
	{"state AdminDown", [](frame_parts &f) { f.r.state = 0; }, &S::invalid_bfd_state, "ERROR: Initiator BFD state 0 is invalid."},
	{"state Init, foreign Your Discriminator", [](frame_parts &f) { f.r.state = 2, f.r.your_disc = 1; }, &S::invalid_bfd_state,
	 "ERROR: Initiator BFD state 2 is invalid."},
	{"foreign Your Discriminator", [](frame_parts &f) { f.r.your_disc = 1; }, &S::your_disc_unmatch,
	 "ERROR: Recvd discriminator 1 is not destined to this reflector."},
	{"MPLS label 16", [](frame_parts &f) { f.s.labels = {16}; }, &S::unsupported, "ERROR: top label 16 is not supported"},
	{"two MPLS labels", [](frame_parts &f) { f.s.labels = {0, 0}; }, &S::unsupported, "ERROR: multiple labels is not supported"},
	{"IPv6 EtherType", [](frame_parts &f) { f.eth_type = 0x86DD; }, &S::unsupported, "ERROR: EthType 34525 is not supported"},
	{"one-byte frame", [](frame_parts &f) { f.keep = 1; }, &S::unsupported, "ERROR: EthType 0 is not supported"},
	{"TCP under label 0", [](frame_parts &f) { f.s.labels = {0}, f.s.ip_proto = 6; }, &S::invalid_pkt_format,
	 "ERROR: BFD control packet should be over UDP, got protocol 6"},
};

}  // namespace

// Counted and traced once; the report (total 1) follows when validated. A
// reply keeps C, A and M, answers P (or F) with F and copies the Length.
TEST(FrameReception, EachFrameIsAnsweredOrCountedUnderExactlyOneReason)
{
	auto &tr = trace_reader::get();
	for (const auto &c : REJECT_CASES) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		frame_parts p{request{}, h.frame_shape()};
		c.edit(p);
		bytes payload = p.r.encode();
		payload.resize(payload.size() + p.auth, 0x5A);
		bytes f = probe_frame_build(p.s, payload);
		if (p.keep)
			f.resize(p.keep);
		if (p.eth_type)
			store_be16(&f[ETH_TYPE_OFF], p.eth_type);
		tr.take();
		h.feed(f);
		for (auto reason : REASONS)
			EXPECT_EQ(h.store->*reason, reason == c.counter ? 1u : 0u);
		EXPECT_EQ(std::tuple(h.store->rx_drops, h.store->rx_valid_pkts), std::tuple(c.counter ? 1u : 0u, c.counter ? 0u : 1u));
		const auto reply = h.reply();  // 24 bytes whatever the Length
		ASSERT_EQ(reply.has_value(), c.counter == nullptr);
		if (reply) {
			const std::uint8_t flags = (p.r.flags & KEPT_FLAGS) | (p.r.flags & (BFD_FLAG_P | BFD_FLAG_F) ? BFD_FLAG_F : 0);
			EXPECT_EQ(std::tuple(reply->flags & 0x3F, reply->length, ntohl(reply->your_disc)),
				  std::tuple(flags, p.r.length, p.r.my_disc));
		}
		const auto errors = tr.take(TRACE_ERROR);
		ASSERT_EQ(errors.size(), c.message ? 1u : 0u);
		if (c.message) {
			EXPECT_EQ(errors[0].rfind(c.message, 0), 0u) << errors[0];
		}
		const bool validated = c.counter != &S::unsupported && c.counter != &S::invalid_pkt_format;
		EXPECT_THAT(tr.take(TRACE_STATS), Contains(HasSubstr("GLOBAL STATS:")).Times(validated ? 1 : 0));
	}
}

namespace {

// The offsets (store.h) of the bytes in which slot `s` differs from `want`, with both values.
std::string slot_diff(const reflector_session &s, const reflector_session &want)
{
	std::uint8_t a[sizeof s], b[sizeof want];
	std::memcpy(a, &s, sizeof s), std::memcpy(b, &want, sizeof want);
	std::string d;
	for (std::size_t k = 0; k < sizeof a; k++)
		if (a[k] != b[k])
			d += "byte " + std::to_string(k) + ": " + std::to_string(a[k]) + ", not " + std::to_string(b[k]) + "\n";
	return d;
}

}  // namespace

// Four requests, Down, Down, Up, Up, with fields of their own, answered Up,
// Up, Up, then AdminDown: after the first and after the last, all 136 bytes
// of the slot are what they must be. Times lie within the clock readings
// around their request; the gaps (10, 25, 5 ms: the largest in the middle,
// the smallest last) are those between the stored receive times.
TEST(FrameReception, RequestsFillEveryFieldOfTheirSlot)
{
	std::optional<harness> h;
	do  // a port whose two bytes differ, so that a byte-order fault shows
		h.emplace();
	while (h->receiver_port >> 8 == (h->receiver_port & 0xFF));
	h->setup_table();
	const reflector_session &s = h->store->sessions[511];  // the first session takes the highest slot
	auto us = [](const shm_timestamp &t) { return t.tv_sec * 1000000 + t.tv_nsec / 1000; };
	auto now = [] {
		timespec t;
		clock_gettime(CLOCK_REALTIME, &t);
		return shm_timestamp{t.tv_sec, t.tv_nsec};
	};
	reflector_session want{};
	want.discriminator = 0x11223344, want.source_ip = htonl(INITIATOR_IP), want.source_port = h->receiver_port;
	want.your_disc = OUR_DISC, want.version = 1, want.length = 24, want.demand = 1;
	std::vector<shm_timestamp> rx, tx;  // the slot's last_rx and last_tx after each request
	for (std::uint8_t k = 1; k <= 4; k++) {
		std::this_thread::sleep_for(std::chrono::milliseconds(std::array{0, 10, 25, 5}[k - 1]));
		const request r{.diag = static_cast<std::uint8_t>(2 + k), .state = k < 3 ? BFD_STATE_DOWN : BFD_STATE_UP,
				.flags = static_cast<std::uint8_t>(BFD_FLAG_D | (k != 2 && k != 3 ? BFD_FLAG_P : 0) | (k % 2 ? BFD_FLAG_F : 0)),
				.detect_mult = static_cast<std::uint8_t>(6 - k), .length = 24, .my_disc = 0x11223344, .your_disc = OUR_DISC,
				.min_tx = 100000u + k, .min_rx = 200000u + k, .min_echo_rx = 300000u + k};
		reflector_cfg.adminDown = k == 4;
		const shm_timestamp before = now();
		h->feed(h->frame(r));
		const shm_timestamp after = now();
		rx.push_back(s.last_rx), tx.push_back(s.last_tx);
		EXPECT_TRUE(us(before) <= us(rx.back()) && us(rx.back()) <= us(tx.back()) && us(tx.back()) <= us(after)) << int{k};
		want.desired_min_tx = r.min_tx, want.required_min_rx = r.min_rx, want.required_min_echo_rx = r.min_echo_rx;
		want.detect_multiplier = r.detect_mult, want.diag = r.diag, want.poll = k != 2 && k != 3, want.final = k % 2;
		want.num_received = want.num_sent = k, want.last_rx = rx.back(), want.last_tx = tx.back();
		if (k == 1) {
			want.state = BFD_STATE_DOWN, want.last_state_change = rx[0];
			want.tx_state = BFD_STATE_UP, want.last_tx_state_change = tx[0];
			EXPECT_EQ(slot_diff(s, want), "") << "after the first request";
		}
	}
	want.state = BFD_STATE_UP, want.prev_state = BFD_STATE_DOWN, want.last_state_change = rx[2];
	want.tx_state = BFD_STATE_ADMIN_DOWN, want.prev_tx_state = BFD_STATE_UP, want.tx_diag = BFD_DIAG_ADMIN_DOWN;
	want.last_tx_state_change = tx[1];  // the reply after the first change of sent state
	const std::int64_t gaps[] = {us(rx[1]) - us(rx[0]), us(rx[2]) - us(rx[1]), us(rx[3]) - us(rx[2])};
	want.min_period = static_cast<std::uint32_t>(*std::min_element(std::begin(gaps), std::end(gaps)));
	want.max_period = static_cast<std::uint32_t>(*std::max_element(std::begin(gaps), std::end(gaps)));
	want.period_sum = static_cast<std::uint64_t>(gaps[0] + gaps[1] + gaps[2]);
	EXPECT_EQ(slot_diff(s, want), "");
}

TEST(Reply, SendFailuresAreCountedAndRetriedOnlyWhenUnreachable)
{
	const struct {
		const char *name;
		std::vector<int> script;  // errno of each failing attempt
		std::uint64_t attempts, fail, sent;
	} cases[] = {
		{"EHOSTUNREACH every time", std::vector<int>(10, EHOSTUNREACH), 6, 6, 0},
		{"ENETUNREACH five times, then sent", std::vector<int>(5, ENETUNREACH), 6, 5, 1},
		{"EINTR beyond the retry budget", std::vector<int>(8, EINTR), 9, 8, 1},
		{"EAGAIN gives up at once", {EAGAIN}, 1, 1, 0},
	};
	auto &tr = trace_reader::get();
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		seam = {h.vrf->outfd, c.script};
		tr.take();
		h.feed(h.frame(request{}));
		EXPECT_EQ(std::tuple(seam.calls, h.store->sendto_fail, h.store->tx_sends, h.store->sessions[511].num_sent),
			  std::tuple(c.attempts, c.fail, c.sent, c.sent));
		seam = {};
		const auto errors = tr.take(TRACE_ERROR);
		EXPECT_THAT(errors, Contains(HasSubstr("ERROR: sendto() returns -1, errno ")).Times(c.fail));
		EXPECT_THAT(errors, Contains(HasSubstr("ERROR: retried sendto 5 times but failed.")).Times(c.fail == 6 ? 1 : 0));
	}
}

TEST(ReplyDeathTest, ShortSendStopsTheProcess)
{
	harness h;
	h.setup_table();
	seam = {h.vrf->outfd, {}, /*short_len=*/10};
	EXPECT_DEATH(h.feed(h.frame(request{})),
		     "Assertion failed: 0, file .*reflectorRx.cpp, line [0-9]+, function rx_data_ready");
	EXPECT_EQ(std::tuple(h.store->wrong_len_sent, h.store->tx_sends), std::tuple(1u, 0u));  // the child's counts
	seam = {};
}

TEST(Report, ThinsByTheTotalOfDroppedAndValidPackets)
{
	auto &tr = trace_reader::get();
	harness h;
	h.setup_table();
	for (std::uint32_t d = 1; d <= 3; d++)
		get_session(h.vrf.get(), d, ip("192.0.2.1"));  // slots 511, 510, 509; 509 in front
	const struct {
		std::uint64_t drops, valid, sessions;  // session lines expected; 0: no report
	} cases[] = {{0, 1, 1}, {1, 2, 3}, {10, 0, 3}, {0, 11, 0}, {50, 50, 1}, {0, 150, 0}, {199, 1, 1}};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.drops + c.valid);
		h.store->rx_drops = c.drops, h.store->rx_valid_pkts = c.valid;
		tr.take();
		maybe_dump_stats(h.vrf.get());
		const auto lines = tr.take(TRACE_STATS);
		ASSERT_EQ(lines.size(), c.sessions ? 4 + 2 * c.sessions : 0);
		if (lines.empty())
			continue;
		EXPECT_EQ(lines[0].rfind("GLOBAL STATS: rx_drops " + std::to_string(c.drops) + ", rx_valid_pkts " +
						 std::to_string(c.valid) + ", tx_sends 0, cache_cnt 3, ", 0), 0u) << lines[0];
		EXPECT_EQ(lines[4].rfind("SESSION STATS-RX: discriminator 3, source_ip 192.0.2.1,", 0), 0u);
	}
	// Stored times are the store's: any year renders as ctime renders it.
	reflector_session &front = h.store->sessions[509];
	front.last_rx.tv_sec = 253402300800;  // 10000-01-01 00:00:00 UTC
	front.last_state_change.tv_sec = 4102444800;  // 2100
	h.store->rx_drops = 0, h.store->rx_valid_pkts = 1;
	tr.take();
	maybe_dump_stats(h.vrf.get());
	const auto lines = tr.take(TRACE_STATS);
	ASSERT_EQ(lines.size(), 6u);
	for (const time_t t : {front.last_rx.tv_sec, front.last_state_change.tv_sec})
		EXPECT_NE(lines[4].find(std::string(" ") + ctime(&t) + " (" + std::to_string(t) + ".000000000)"),
			  std::string::npos) << lines[4];
}

namespace {

// A netlink message; its length field says `len` (0: the true length), cut
// or zero-padded to `size` bytes (0: as built).
bytes nl_msg(std::uint16_t type, std::uint16_t flags, const bytes &payload, std::uint32_t len = 0, std::size_t size = 0)
{
	nlmsghdr h{static_cast<std::uint32_t>(len ? len : 16 + payload.size()), type, flags, 0, 0};
	bytes m(reinterpret_cast<const std::uint8_t *>(&h), reinterpret_cast<const std::uint8_t *>(&h) + 16);
	m.insert(m.end(), payload.begin(), payload.end());
	if (size)
		m.resize(size);
	return m;
}

// orvalindwarden-ctl's message setting `disc`, min_rx disc * 1000, source
// 127.0.0.1 and `admin`, its header as nl_msg makes it.
bytes set_msg(std::uint32_t disc, bool admin, std::uint32_t len = 0, std::size_t size = 0, std::uint16_t flags = NLM_F_REQUEST)
{
	const auto m = nlctl_encode({.disc = disc, .min_rx = disc * 1000, .src_ip = INADDR_LOOPBACK, .admin_down = admin}, 0);
	return nl_msg(REFLECTOR_NL_SET, flags, bytes(m.begin() + sizeof(nlmsghdr), m.end()), len, size);
}

bytes operator+(bytes a, const bytes &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

}  // namespace

// Each case leaves discriminator `disc` (OLD: nothing applied), min_rx
// disc * 1000, adminDown `admin` and source address `src`, and traces the
// last setting applied at level 3.
TEST(NetlinkChannel, WalkAppliesWellFormedRequestsInOrderAndTracesThem)
{
	static bool feeding = false;  // the handler exits (status 0) when it cannot bind a source: fail then
	std::atexit([] {
		if (feeding)
			std::fputs("the netlink handler ended the process\n", stderr), std::_Exit(1);
	});
	constexpr std::uint32_t OLD = OUR_DISC;
	const struct {
		const char *name;
		bytes datagram;
		std::uint32_t disc, admin;
		bool unknown = false;  // traces an unknown-type message
		std::uint32_t src = htonl(INADDR_LOOPBACK);
	} cases[] = {
		{"no request flag", set_msg(7, true, 0, 0, 0), OLD, 0},
		{"two messages: the second stands", set_msg(7, false) + set_msg(8, true), 8, 1},
		{"unknown type, then a setting", nl_msg(17, NLM_F_REQUEST, {5, 0, 0, 0}) + set_msg(9, true), 9, 1, true},
		{"15 bytes", set_msg(7, true, 32, 15), OLD, 0},
		{"first length 8", set_msg(7, true, 8), OLD, 0},
		{"length 29, next at 32", set_msg(7, true, 29, 32) + set_msg(8, false), 8, 0},
		{"rounded length past the end is applied, walk ends", set_msg(7, true, 30, 30), 7, 1},
		{"malformed second header keeps the first", set_msg(7, true) + set_msg(8, false, 4), 7, 1},
		// A skipped message, then a bare header in the last 16 bytes of a
		// full buffer: its payload lies beyond the buffer and reads as zero.
		{"bare header at the end of a full buffer",
		 nl_msg(99, 0, bytes(RX_BUF_LEN - 32, 0xFF)) + nl_msg(REFLECTOR_NL_SET, NLM_F_REQUEST, {}), 0, 0, false, 0},
	};
	auto &tr = trace_reader::get();
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		const int outfd = h.vrf->outfd;
		tr.take();
		feeding = true;
		h.feed(c.datagram, rx_netlink_ready);
		feeding = false;
		EXPECT_EQ(std::tuple(ntohl(reflector_cfg.discriminator), reflector_cfg.minRx, reflector_cfg.adminDown, reflector_cfg.sourceIp),
			  std::tuple(c.disc, c.disc == OLD ? OUR_MIN_RX : c.disc * 1000, c.admin, c.src));
		EXPECT_EQ(h.vrf->outfd, outfd) << "no new address to bind: the same transmit socket stays";
		EXPECT_EQ(tr.take(TRACE_ERROR), std::vector<std::string>(c.unknown, "ERROR-Netlink: Unknown message type 17, data 5"));
		EXPECT_THAT(tr.take(TRACE_RX), Contains("RX-Netlink: set disc " + std::to_string(c.disc) + " min_rx " +
							std::to_string(c.disc * 1000) + " src_ip " + ipv4_dotted(c.src).text +
							" adminDown " + std::to_string(c.admin)).Times(c.disc == OLD ? 0 : 1));
	}
}

namespace {

// A message of `type` (RTM_NEWADDR, RTM_DELADDR; NLMSG_DONE ignores the
// rest) for `addr` on interface `ifindex`, from netlink port `pid` with
// sequence number `seq`; a point-to-point peer's address comes first.
bytes addr_msg(std::uint16_t type, const char *addr, std::uint32_t ifindex, std::uint32_t seq = 0, std::uint32_t pid = 4242)
{
	const nlmsghdr h{40, type, 0, seq, pid};
	const ifaddrmsg m{AF_INET, 32, 0, 0, ifindex};
	const rtattr peer{8, IFA_ADDRESS}, local{8, IFA_LOCAL};
	const std::uint32_t peer_ip = ip("203.0.113.1"), local_ip = ip(addr);
	bytes b(40);
	std::memcpy(&b[0], &h, 16), std::memcpy(&b[16], &m, 8), std::memcpy(&b[24], &peer, 4), std::memcpy(&b[28], &peer_ip, 4);
	std::memcpy(&b[32], &local, 4), std::memcpy(&b[36], &local_ip, 4);
	return b;
}

}  // namespace

// An address stays refused until its last interface drops it; a dump drops
// what it does not list, but not what notices after its first part brought;
// an address beyond the table is traced, the others stay.
TEST(OwnAddresses, FollowNoticesPerInterfaceAndDumpsWithinTheTable)
{
	auto &tr = trace_reader::get();
	harness h;
	reflector_vrf *vrf = h.vrf.get();
	vrf->addrfd = h.pair[0];  // a dump request goes to the socket pair's far end
	auto refused = [&](const char *a) { return reply_dst_refused(vrf, ip(a)); };
	auto feed = [&](const bytes &b) { h.feed(b, rx_addr_ready); };
	reflector_cfg.sourceIp = ip("192.0.2.77");
	EXPECT_TRUE(refused("192.0.2.77")) << "the source address, with or without a watch";

	feed(addr_msg(RTM_NEWADDR, "198.51.100.7", 2) + addr_msg(RTM_NEWADDR, "198.51.100.7", 3));
	feed(addr_msg(RTM_DELADDR, "198.51.100.7", 2));
	EXPECT_EQ(std::tuple(refused("198.51.100.7"), refused("203.0.113.1")), std::tuple(true, false));
	feed(addr_msg(RTM_DELADDR, "198.51.100.7", 3));
	EXPECT_FALSE(refused("198.51.100.7"));

	feed(addr_msg(RTM_NEWADDR, "192.0.2.10", 2));
	ASSERT_EQ(local_addr_resync(vrf), 0);
	const std::uint32_t seq = vrf->local_addrs.seq, port = vrf->local_addrs.port;
	feed(addr_msg(RTM_NEWADDR, "192.0.2.9", 2));  // queued before the dump began
	feed(addr_msg(RTM_NEWADDR, "192.0.2.10", 2, seq, port) + addr_msg(RTM_NEWADDR, "192.0.2.11", 4, seq, port));
	feed(addr_msg(RTM_NEWADDR, "192.0.2.12", 2));
	feed(addr_msg(NLMSG_DONE, "0.0.0.0", 0, seq, port));
	EXPECT_EQ(std::vector({refused("192.0.2.9"), refused("192.0.2.10"), refused("192.0.2.11"), refused("192.0.2.12"),
			       vrf->local_addrs.dumping}),
		  std::vector({false, true, true, true, false}));

	bytes all;
	for (std::uint32_t k = vrf->local_addrs.count; k < LOCAL_ADDR_MAX; k++)
		all = std::move(all) + addr_msg(RTM_NEWADDR, "198.51.100.7", 100 + k);
	tr.take();
	feed(all + addr_msg(RTM_NEWADDR, "192.0.2.20", 1));
	EXPECT_EQ(std::tuple(vrf->local_addrs.count, refused("192.0.2.20"), refused("198.51.100.7"), refused("192.0.2.12")),
		  std::tuple(LOCAL_ADDR_MAX, false, true, true));
	EXPECT_EQ(tr.take(TRACE_ERROR),
		  std::vector<std::string>{"ERROR: address table full (1024 entries), replies to 192.0.2.20 are not refused"});
}
