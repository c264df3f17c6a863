// rx_test.cpp -- frame reception as an operator sees it: which frames are
// answered and which reason counter and trace message each rejected one
// leaves, what requests write into their session, the reply's fields, send
// failures with their bounded retry, the thinning of the report, and the
// control channel's walk of a netlink datagram.
#include <linux/netlink.h>

#include <thread>
#include <tuple>

#include "rxutil.h"

using namespace rxt;

namespace {

// A frame to break: the request, the frame around it, then its first `keep`
// bytes (0: all) and an EtherType written over the built one (0: none).
struct frame_parts {
	request r;
	frame_spec s;
	std::size_t keep = 0;
	std::uint16_t eth_type = 0;
};
using S = reflector_shm;

// Frames broken in one place, the reason each counts (null: it is valid and
// answered) and the start of the error it traces.
const struct {
	const char *name;
	void (*edit)(frame_parts &);
	std::uint32_t S::*counter;
	const char *message;
} REJECT_CASES[] = {
	{"valid Down request", [](frame_parts &) {}, nullptr, nullptr},
	{"valid Up request", [](frame_parts &f) { f.r.state = BFD_STATE_UP; }, nullptr, nullptr},
	{"Length 0 passes", [](frame_parts &f) { f.r.length = 0; }, nullptr, nullptr},
	{"MPLS label 0, bottom of stack", [](frame_parts &f) { f.s.labels = {0}; }, nullptr, nullptr},
	{"IPv4 options (IHL 6)", [](frame_parts &f) { f.s.ip_options.assign(4, 1); }, nullptr, nullptr},
	{"IHL 15 under label 0", [](frame_parts &f) { f.s.labels = {0}, f.s.ip_options.assign(40, 1); }, nullptr, nullptr},
	{"23-byte control packet", [](frame_parts &f) { f.keep = 65; }, &S::pkt_truncated,
	 "ERROR: Pkt truncated. Recvd len 23, source_ip 127.0.0.1"},
	{"frame ending inside the IPv4 options", [](frame_parts &f) { f.s.ip_options.assign(40, 1), f.keep = 40; },
	 &S::pkt_truncated, "ERROR: Pkt truncated. Recvd len -42, source_ip 127.0.0.1"},
	{"version 0", [](frame_parts &f) { f.r.version = 0; }, &S::bad_version,
	 "ERROR: Bad version 0. Recvd my_disc 287454020, source_ip 127.0.0.1"},
	{"version 0 with D clear", [](frame_parts &f) { f.r.version = f.r.flags = 0; }, &S::bad_version, "ERROR: Bad version 0."},
	{"Length 25 with 24 bytes", [](frame_parts &f) { f.r.length = 25; }, &S::invalid_pkt_len,
	 "ERROR: Invalid bfd ctrl pkt length 25. Rcvd len 24, source_ip 127.0.0.1"},
	{"source port 7784", [](frame_parts &f) { f.s.src_port = SBFD_PORT; }, &S::invalid_src_port, "ERROR: Invalid source port "},
	{"D bit clear", [](frame_parts &f) { f.r.flags = BFD_FLAG_P; }, &S::demand_mode_unset,
	 "ERROR: Demand mode bit is not set. Recvd my_disc 287454020, source_ip 127.0.0.1"},
	{"Detect Mult 0", [](frame_parts &f) { f.r.detect_mult = 0; }, &S::invalid_detect_mult, "ERROR: Detect Mult is not set."},
	{"My Discriminator 0", [](frame_parts &f) { f.r.my_disc = 0; }, &S::invalid_my_disc,
	 "ERROR: My discriminator is not set. source_ip 127.0.0.1"},
	{"state AdminDown", [](frame_parts &f) { f.r.state = 0; }, &S::invalid_bfd_state, "ERROR: Initiator BFD state 0 is invalid."},
	{"state Init, foreign Your Discriminator", [](frame_parts &f) { f.r.state = 2, f.r.your_disc = 1; }, &S::invalid_bfd_state,
	 "ERROR: Initiator BFD state 2 is invalid. Recvd my_disc 287454020"},
	{"foreign Your Discriminator", [](frame_parts &f) { f.r.your_disc = 1; }, &S::your_disc_unmatch,
	 "ERROR: Recvd discriminator 1 is not destined to this reflector. Recvd my_disc 287454020, source_ip 127.0.0.1"},
	{"MPLS label 16", [](frame_parts &f) { f.s.labels = {16}; }, &S::unsupported, "ERROR: top label 16 is not supported"},
	{"two MPLS labels", [](frame_parts &f) { f.s.labels = {0, 0}; }, &S::unsupported, "ERROR: multiple labels is not supported"},
	{"IPv6 EtherType", [](frame_parts &f) { f.eth_type = 0x86DD; }, &S::unsupported, "ERROR: EthType 34525 is not supported"},
	{"one-byte frame", [](frame_parts &f) { f.keep = 1; }, &S::unsupported, "ERROR: EthType 0 is not supported"},
	{"TCP under label 0", [](frame_parts &f) { f.s.labels = {0}, f.s.ip_proto = 6; }, &S::invalid_pkt_format,
	 "ERROR: BFD control packet should be over UDP, got protocol 6"},
	{"ICMP", [](frame_parts &f) { f.s.ip_proto = 1; }, &S::invalid_pkt_format,
	 "ERROR: BFD control packet should be over UDP, got protocol 1"},
};

}  // namespace

// Each frame is counted once, traced once when rejected, and followed by the
// statistics report (total 1) when it got as far as validation.
TEST(FrameReception, EachFrameIsAnsweredOrCountedUnderExactlyOneReason)
{
	auto &tr = trace_reader::get();
	for (const auto &c : REJECT_CASES) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		frame_parts p{request{}, h.frame_shape()};
		c.edit(p);
		bytes f = probe_frame_build(p.s, p.r.encode());
		if (p.keep)
			f.resize(p.keep);
		if (p.eth_type)
			f[12] = p.eth_type >> 8, f[13] = p.eth_type & 0xFF;
		tr.take();
		h.feed(f);
		for (auto reason : REASONS)
			EXPECT_EQ(h.shm()->*reason, reason == c.counter ? 1u : 0u);
		EXPECT_EQ(std::tuple(h.shm()->rx_drops, h.shm()->rx_valid_pkts, h.reply().has_value()),
			  std::tuple(c.counter ? 1u : 0u, c.counter ? 0u : 1u, c.counter == nullptr));
		if (!tr.on())
			continue;
		std::vector<std::string> errors, stats;
		for (auto &[level, text] : tr.take())
			(level == TRACE_ERROR ? errors : stats).push_back(text);
		ASSERT_EQ(errors.size(), c.message ? 1u : 0u);
		if (c.message)
			EXPECT_EQ(errors[0].rfind(c.message, 0), 0u) << errors[0];
		const bool validated = c.counter != &S::unsupported && c.counter != &S::invalid_pkt_format;
		EXPECT_EQ(count_containing(stats, "GLOBAL STATS:"), validated ? 1 : 0);
	}
}

// What the end-to-end tests do not see: the fields only the store keeps, the
// gaps between requests and the time of the last state change.
TEST(FrameReception, RequestsFillTheirSessionAndAccumulateGapsAndStateChanges)
{
	harness h;
	h.setup_table();
	const reflector_session &s = h.shm()->sessions[511];  // the first session takes the highest slot
	auto us = [](const shm_timestamp &t) { return t.tv_sec * 1000000 + t.tv_nsec / 1000; };
	request r;
	r.diag = 3;
	r.flags = BFD_FLAG_D | BFD_FLAG_P | BFD_FLAG_F;
	h.feed(h.frame(r));
	EXPECT_EQ(std::vector<std::uint64_t>({s.your_disc, s.diag, s.version, s.demand, s.final, s.poll, s.length, s.prev_state,
					      s.num_received, s.min_period, s.max_period, s.period_sum}),
		  std::vector<std::uint64_t>({OUR_DISC, 3, 1, 1, 1, 1, 24, 0, 1, 0, 0, 0}));
	EXPECT_EQ(us(s.last_state_change), us(s.last_rx));
	const shm_timestamp first = s.last_rx;

	std::this_thread::sleep_for(std::chrono::milliseconds(30));
	r.flags = BFD_FLAG_D;
	h.feed(h.frame(r));
	EXPECT_EQ(std::tuple(s.num_received, s.poll, s.max_period, s.period_sum), std::tuple(2u, 0, s.min_period, s.min_period));
	EXPECT_GE(s.min_period, 30000u);
	EXPECT_LT(s.min_period, 2000000u);
	EXPECT_EQ(us(s.last_state_change), us(first)) << "no state change yet";

	// Down, Down, then Up: the change is recorded at the third request only.
	r.state = BFD_STATE_UP;
	h.feed(h.frame(r));
	EXPECT_EQ(std::tuple(s.prev_state, s.state), std::tuple(BFD_STATE_DOWN, BFD_STATE_UP));
	const shm_timestamp third = s.last_rx;
	EXPECT_EQ(us(s.last_state_change), us(third));
	h.feed(h.frame(r));
	EXPECT_EQ(us(s.last_state_change), us(third));
	EXPECT_EQ(static_cast<std::int64_t>(s.period_sum), us(s.last_rx) - us(first));
	EXPECT_LE(s.min_period, s.max_period);
}

// Plain, polled, labelled and adminDown replies are checked on the wire end
// to end (reflect_test, tools_test); here the flags and lengths they do not send.
TEST(Reply, FieldsAreReflectedFromTheRequest)
{
	const struct {
		const char *name;
		std::uint8_t admin, flags_in, flags_out, state_out, diag_out, length;
	} cases[] = {
		{"P becomes F", 0, BFD_FLAG_D | BFD_FLAG_P, BFD_FLAG_F, BFD_STATE_UP, 0, 24},
		{"F kept", 0, BFD_FLAG_D | BFD_FLAG_F, BFD_FLAG_F, BFD_STATE_UP, 0, 24},
		{"C and M kept", 0, BFD_FLAG_D | BFD_FLAG_C | BFD_FLAG_M, BFD_FLAG_C | BFD_FLAG_M, BFD_STATE_UP, 0, 24},
		{"adminDown 2 acts as down", 2, BFD_FLAG_D, 0, BFD_STATE_ADMIN_DOWN, 7, 24},
		{"A bit with Length 28 still sends 24 bytes", 0, BFD_FLAG_D | BFD_FLAG_A, BFD_FLAG_A, BFD_STATE_UP, 0, 28},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		reflector_cfg.adminDown = c.admin;
		request r;
		r.flags = c.flags_in;
		r.diag = 5;
		r.length = c.length;
		bytes payload = r.encode();
		payload.resize(c.length, 0x5A);  // the authentication section
		h.feed(probe_frame_build(h.frame_shape(), payload));
		auto p = h.reply();
		ASSERT_TRUE(p.has_value());
		EXPECT_EQ(std::vector<int>({bfd_version(*p), bfd_diag(*p), bfd_state_of(*p), p->flags & 0x3F,
					    p->detect_multiplier, p->length}),
			  std::vector<int>({1, c.diag_out, c.state_out, c.flags_out, r.detect_mult, c.length}));
		EXPECT_EQ(std::vector<std::uint32_t>({ntohl(p->my_disc), ntohl(p->your_disc), ntohl(p->min_tx_interval),
						      ntohl(p->min_rx_interval), p->min_echo_rx_interval}),
			  std::vector<std::uint32_t>({OUR_DISC, r.my_disc, r.min_tx, OUR_MIN_RX, 0}));
		EXPECT_EQ(h.shm()->tx_sends, 1u);
	}
}

TEST(Reply, SendFailuresAreCountedAndRetriedOnlyWhenUnreachable)
{
	const struct {
		const char *name;
		std::vector<int> script;  // errno of each failing attempt
		std::size_t attempts;
		std::uint32_t fail;
		std::uint64_t sent;
		int retried_msgs;
	} cases[] = {
		{"ENETUNREACH every time", std::vector<int>(10, ENETUNREACH), 6, 6, 0, 1},
		{"EHOSTUNREACH every time", std::vector<int>(10, EHOSTUNREACH), 6, 6, 0, 1},
		{"unreachable five times, then sent", std::vector<int>(5, ENETUNREACH), 6, 5, 1, 0},
		{"EINTR once, then sent", {EINTR}, 2, 1, 1, 0},
		{"EINTR beyond the retry budget", std::vector<int>(8, EINTR), 9, 8, 1, 0},
		{"EAGAIN gives up at once", {EAGAIN}, 1, 1, 0, 0},
	};
	auto &tr = trace_reader::get();
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		seam = {h.vrf->outfd, c.script};
		tr.take();
		h.feed(h.frame(request{}));
		EXPECT_EQ(seam.calls, c.attempts);
		EXPECT_EQ(h.shm()->sendto_fail, c.fail);
		EXPECT_EQ(h.shm()->tx_sends, c.sent);
		EXPECT_EQ(h.shm()->sessions[511].num_sent, c.sent);
		seam = {};
		if (!tr.on())
			continue;
		const auto errors = tr.take_level(TRACE_ERROR);
		EXPECT_EQ(count_containing(errors, "ERROR: sendto() returns -1, errno "), static_cast<int>(c.fail));
		EXPECT_EQ(count_containing(errors, "ERROR: retried sendto 5 times but failed."), c.retried_msgs);
	}
}

TEST(ReplyDeathTest, ShortSendStopsTheProcess)
{
	harness h;
	h.setup_table();
	seam = {h.vrf->outfd, {}, false, /*short_len=*/10};
	EXPECT_DEATH(h.feed(h.frame(request{})),
		     "Assertion failed: 0, file .*reflectorRx.cpp, line [0-9]+, function rx_data_ready");
	EXPECT_EQ(h.shm()->wrong_len_sent, 1u);  // the child's count, in the shared store
	EXPECT_EQ(h.shm()->tx_sends, 0u);
	seam = {};
}

TEST(Report, ThinsByTheTotalOfDroppedAndValidPackets)
{
	auto &tr = trace_reader::get();
	if (!tr.on())
		GTEST_SKIP() << "trace library not initialised in this build";
	harness h;
	h.setup_table();
	for (std::uint32_t d = 1; d <= 3; d++)
		get_session(h.vrf.get(), d, ip("192.0.2.1"));  // slots 511, 510, 509; 509 in front
	const struct {
		std::uint64_t drops, valid;
		int sessions;  // session lines expected; -1: no report
	} cases[] = {{0, 1, 1}, {1, 2, 3}, {10, 0, 3}, {0, 11, -1}, {60, 39, -1}, {50, 50, 1}, {0, 150, -1}, {199, 1, 1}};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.drops + c.valid);
		h.shm()->rx_drops = c.drops;
		h.shm()->rx_valid_pkts = c.valid;
		tr.take();
		maybe_dump_stats(h.vrf.get());
		auto lines = tr.take_level(TRACE_STATS);
		if (c.sessions < 0) {
			EXPECT_TRUE(lines.empty());
			continue;
		}
		ASSERT_EQ(lines.size(), 4u + 2u * static_cast<unsigned>(c.sessions));
		const std::string global = "GLOBAL STATS: rx_drops " + std::to_string(c.drops) + ", rx_valid_pkts " +
					   std::to_string(c.valid) + ", tx_sends 0, cache_cnt 3, ";
		EXPECT_EQ(lines[0].rfind(global, 0), 0u) << lines[0];
		const std::uint64_t total = c.drops + c.valid;
		EXPECT_EQ(lines[3], "SESSION STATS (up to " + std::to_string(total > 10 ? 1 : total) + " sessions):");
		EXPECT_EQ(lines[4].rfind("SESSION STATS-RX: discriminator 3, source_ip 192.0.2.1,", 0), 0u);
	}
}

namespace {

// One netlink message: header (nlmsg_len `len`, or the true length when 0),
// then `payload`.
bytes nl_msg(std::uint16_t type, std::uint16_t flags, const bytes &payload, std::uint32_t len = 0)
{
	nlmsghdr h{static_cast<std::uint32_t>(len ? len : 16 + payload.size()), type, flags, 0, 0};
	bytes m(reinterpret_cast<const std::uint8_t *>(&h), reinterpret_cast<const std::uint8_t *>(&h) + 16);
	m.insert(m.end(), payload.begin(), payload.end());
	return m;
}

// A setting from 127.0.0.1: 13 payload bytes, padded to 16.
bytes set_msg(std::uint32_t disc, std::uint32_t min_rx, std::uint8_t admin, std::uint32_t len = 0,
	      std::uint16_t flags = NLM_F_REQUEST)
{
	const reflector_nl_config c{disc, min_rx, INADDR_LOOPBACK, admin};
	bytes p(16, 0);
	std::memcpy(p.data(), &c, 13);
	return nl_msg(REFLECTOR_NL_SET, flags, p, len);
}

// `m` with its length field set to `len`, cut or zero-padded to `size` bytes.
bytes sized(bytes m, std::uint32_t len, std::size_t size)
{
	std::memcpy(m.data(), &len, 4);
	m.resize(size);
	return m;
}

bytes cat(const bytes &a, const bytes &b)
{
	bytes out = a;
	out.insert(out.end(), b.begin(), b.end());
	return out;
}

}  // namespace

TEST(NetlinkChannel, WalkAppliesWellFormedRequestsInOrder)
{
	const std::uint32_t OLD = OUR_DISC;
	const struct {
		const char *name;
		bytes datagram;
		std::uint32_t disc, min_rx;  // host order, after the datagram
		std::uint8_t admin;
		int unknown;                              // unknown-type messages traced
		std::uint32_t src_host = INADDR_LOOPBACK;  // source address after it
	} cases[] = {
		{"one message", set_msg(7, 1000, 2), 7, 1000, 2, 0},
		{"no request flag", set_msg(7, 1000, 1, 0, 0), OLD, OUR_MIN_RX, 0, 0},
		{"two messages: the second stands", cat(set_msg(7, 1000, 1), set_msg(8, 2000, 0)), 8, 2000, 0, 0},
		{"unknown type, then a setting", cat(nl_msg(17, NLM_F_REQUEST, {5, 0, 0, 0}), set_msg(9, 3000, 1)), 9, 3000, 1, 1},
		{"15 bytes", sized(set_msg(7, 1000, 1), 32, 15), OLD, OUR_MIN_RX, 0, 0},
		{"first length 8", set_msg(7, 1000, 1, 8), OLD, OUR_MIN_RX, 0, 0},
		{"first length past the datagram", set_msg(7, 1000, 1, 33), OLD, OUR_MIN_RX, 0, 0},
		{"length 29 at the end", sized(set_msg(7, 1000, 1), 29, 29), 7, 1000, 1, 0},
		{"length 29, next at 32", cat(sized(set_msg(7, 1000, 1), 29, 32), set_msg(8, 2000, 0)), 8, 2000, 0, 0},
		{"rounded length past the end is applied, walk ends", sized(set_msg(7, 1000, 1), 30, 30), 7, 1000, 1, 0},
		{"malformed second header keeps the first", cat(set_msg(7, 1000, 1), set_msg(8, 2000, 0, 4)), 7, 1000, 1, 0},
		// A skipped message, then a bare header in the last 16 bytes of a
		// full buffer: its payload lies beyond the buffer and reads as zero.
		{"bare header at the end of a full buffer",
		 cat(nl_msg(99, 0, bytes(RX_BUF_LEN - 32, 0xFF)), nl_msg(REFLECTOR_NL_SET, NLM_F_REQUEST, {})), 0, 0, 0, 0, 0},
	};
	auto &tr = trace_reader::get();
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		const int outfd = h.vrf->outfd;
		tr.take();
		h.feed(c.datagram, rx_netlink_ready);
		EXPECT_EQ(std::tuple(ntohl(reflector_cfg.discriminator), reflector_cfg.minRx, reflector_cfg.adminDown),
			  std::tuple(c.disc, c.min_rx, c.admin));
		EXPECT_EQ(reflector_cfg.sourceIp, htonl(c.src_host));
		EXPECT_EQ(h.vrf->outfd, outfd) << "no new address to bind: the same transmit socket stays";
		if (!tr.on())
			continue;
		const auto errors = tr.take_level(TRACE_ERROR);
		EXPECT_EQ(count_containing(errors, "ERROR-Netlink: Unknown message type 17, data 5"), c.unknown);
		EXPECT_EQ(errors.size(), static_cast<std::size_t>(c.unknown));
	}
	if (!tr.on())
		return;
	harness h;
	tr.take();
	h.feed(set_msg(7, 1000, 2), rx_netlink_ready);
	EXPECT_EQ(tr.take_level(TRACE_RX), (std::vector<std::string>{"RX: socket netlink ready with 32 bytes",
								    "RX-Netlink: set disc 7 min_rx 1000 src_ip 127.0.0.1 adminDown 1"}));
}
