// rx_test.cpp -- frame reception as an operator sees it: which frames are
// answered and which reason counter and trace message each rejected one
// leaves, what requests write into their session, the reply's fields, send
// failures with their bounded retry, and the thinning of the report.
#include <thread>

#include "rxutil.h"

using namespace rxt;

namespace {

struct reject_case {
	const char *name;
	void (*edit)(request &);
	void (*opts)(frame_opts &);
	std::size_t keep;                        // bytes of the frame kept; 0: all
	std::uint32_t reflector_shm::*counter;  // the reason counted; null: the frame is valid
	const char *message;                     // level-1 text it must leave (prefix), or null
	bool report;                             // a GLOBAL STATS report follows (total 1)
};

void label0(frame_opts &o)
{
	o.eth_type = 0x8847;
	o.labels = {0x000001FF};
}

const reject_case REJECT_CASES[] = {
	{"valid Down request", nullptr, nullptr, 0, nullptr, nullptr, true},
	{"valid Up request", [](request &r) { r.state = BFD_STATE_UP; }, nullptr, 0, nullptr, nullptr, true},
	{"Length 0 passes", [](request &r) { r.length = 0; }, nullptr, 0, nullptr, nullptr, true},
	{"MPLS label 0, bottom of stack", nullptr, label0, 0, nullptr, nullptr, true},
	{"IPv4 options (IHL 6)", nullptr, [](frame_opts &o) { o.ihl = 6; }, 0, nullptr, nullptr, true},
	{"IPv4 options (IHL 15) under label 0", nullptr, [](frame_opts &o) { label0(o); o.ihl = 15; }, 0, nullptr, nullptr, true},
	{"23-byte control packet", nullptr, nullptr, 65, &reflector_shm::pkt_truncated,
	 "ERROR: Pkt truncated. Recvd len 23, source_ip 127.0.0.1", true},
	{"frame ending inside the IPv4 options", nullptr, [](frame_opts &o) { o.ihl = 15; }, 40,
	 &reflector_shm::pkt_truncated, "ERROR: Pkt truncated. Recvd len -42, source_ip 127.0.0.1", true},
	{"version 0", [](request &r) { r.version = 0; }, nullptr, 0, &reflector_shm::bad_version,
	 "ERROR: Bad version 0. Recvd my_disc 287454020, source_ip 127.0.0.1", true},
	{"version 0 with D clear counts only the version", [](request &r) { r.version = 0; r.flags = 0; }, nullptr, 0,
	 &reflector_shm::bad_version, "ERROR: Bad version 0.", true},
	{"Length 25 with 24 bytes", [](request &r) { r.length = 25; }, nullptr, 0, &reflector_shm::invalid_pkt_len,
	 "ERROR: Invalid bfd ctrl pkt length 25. Rcvd len 24, source_ip 127.0.0.1", true},
	{"source port 7784", nullptr, [](frame_opts &o) { o.src_port = SBFD_PORT; }, 0, &reflector_shm::invalid_src_port,
	 "ERROR: Invalid source port ", true},
	{"D bit clear", [](request &r) { r.flags = BFD_FLAG_P; }, nullptr, 0, &reflector_shm::demand_mode_unset,
	 "ERROR: Demand mode bit is not set. Recvd my_disc 287454020, source_ip 127.0.0.1", true},
	{"Detect Mult 0", [](request &r) { r.detect_mult = 0; }, nullptr, 0, &reflector_shm::invalid_detect_mult,
	 "ERROR: Detect Mult is not set. Recvd my_disc 287454020", true},
	{"My Discriminator 0", [](request &r) { r.my_disc = 0; }, nullptr, 0, &reflector_shm::invalid_my_disc,
	 "ERROR: My discriminator is not set. source_ip 127.0.0.1", true},
	{"state AdminDown", [](request &r) { r.state = BFD_STATE_ADMIN_DOWN; }, nullptr, 0, &reflector_shm::invalid_bfd_state,
	 "ERROR: Initiator BFD state 0 is invalid. Recvd my_disc 287454020", true},
	{"state Init with a foreign Your Discriminator counts the state",
	 [](request &r) { r.state = BFD_STATE_INIT; r.your_disc = 1; }, nullptr, 0, &reflector_shm::invalid_bfd_state,
	 "ERROR: Initiator BFD state 2 is invalid.", true},
	{"foreign Your Discriminator", [](request &r) { r.your_disc = 1; }, nullptr, 0, &reflector_shm::your_disc_unmatch,
	 "ERROR: Recvd discriminator 1 is not destined to this reflector. Recvd my_disc 287454020, source_ip 127.0.0.1", true},
	{"MPLS label 16", nullptr, [](frame_opts &o) { label0(o); o.labels = {(16u << 12) | 0x1FF}; }, 0,
	 &reflector_shm::unsupported, "ERROR: top label 16 is not supported", false},
	{"two MPLS labels", nullptr, [](frame_opts &o) { label0(o); o.labels = {0xFF, 0x1FF}; }, 0,
	 &reflector_shm::unsupported, "ERROR: multiple labels is not supported", false},
	{"IPv6 EtherType", nullptr, [](frame_opts &o) { o.eth_type = 0x86DD; }, 0, &reflector_shm::unsupported,
	 "ERROR: EthType 34525 is not supported", false},
	{"one-byte frame", nullptr, nullptr, 1, &reflector_shm::unsupported, "ERROR: EthType 0 is not supported", false},
	{"TCP under label 0", nullptr, [](frame_opts &o) { label0(o); o.proto = 6; }, 0, &reflector_shm::invalid_pkt_format,
	 "ERROR: BFD control packet should be over UDP, got protocol 6", false},
	{"ICMP", nullptr, [](frame_opts &o) { o.proto = 1; }, 0, &reflector_shm::invalid_pkt_format,
	 "ERROR: BFD control packet should be over UDP, got protocol 1", false},
};

}  // namespace

TEST(FrameReception, EachFrameIsAnsweredOrCountedUnderExactlyOneReason)
{
	auto &tr = trace_reader::get();
	for (const auto &c : REJECT_CASES) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		request r;
		frame_opts o = h.opts();
		if (c.edit)
			c.edit(r);
		if (c.opts)
			c.opts(o);
		bytes f = build_frame(o, r.encode());
		if (c.keep)
			f.resize(c.keep);
		tr.take();
		h.feed(f);
		for (auto reason : REASONS)
			EXPECT_EQ(h.shm()->*reason, reason == c.counter ? 1u : 0u);
		EXPECT_EQ(h.shm()->rx_drops, c.counter ? 1u : 0u);
		EXPECT_EQ(h.shm()->rx_valid_pkts, c.counter ? 0u : 1u);
		EXPECT_EQ(h.reply().has_value(), c.counter == nullptr);
		if (!tr.on())
			continue;
		std::vector<std::string> errors, stats;
		for (auto &[level, text] : tr.take())
			(level == TRACE_ERROR ? errors : stats).push_back(text);
		if (c.message) {
			ASSERT_EQ(errors.size(), 1u);
			EXPECT_EQ(errors[0].rfind(c.message, 0), 0u) << errors[0];
		} else {
			EXPECT_TRUE(errors.empty());
		}
		EXPECT_EQ(count_containing(stats, "GLOBAL STATS:"), c.report ? 1 : 0);
	}
}

TEST(FrameReception, RequestsFillTheirSessionAndAccumulateGapsAndStateChanges)
{
	harness h;
	h.setup_table();
	const reflector_session &s = h.shm()->sessions[511];  // the first session takes the highest slot
	request r;
	r.diag = 3;
	r.flags = BFD_FLAG_D | BFD_FLAG_P | BFD_FLAG_F;
	r.detect_mult = 7;
	h.feed(h.frame(r));
	EXPECT_EQ(s.discriminator, 0x11223344u);
	EXPECT_EQ(s.source_ip, ip("127.0.0.1"));
	EXPECT_EQ(s.source_port, h.receiver_port);
	EXPECT_EQ(s.desired_min_tx, 100000u);
	EXPECT_EQ(s.required_min_rx, 200000u);
	EXPECT_EQ(s.required_min_echo_rx, 300000u);
	EXPECT_EQ(s.your_disc, OUR_DISC);
	EXPECT_EQ(s.detect_multiplier, 7);
	EXPECT_EQ(s.state, BFD_STATE_DOWN);
	EXPECT_EQ(s.prev_state, 0);
	EXPECT_EQ(s.diag, 3);
	EXPECT_EQ(s.version, 1);
	EXPECT_EQ(s.demand + s.final + s.poll, 3);
	EXPECT_EQ(s.length, 24);
	EXPECT_EQ(s.num_received, 1u);
	EXPECT_EQ(s.min_period + s.max_period + s.period_sum, 0u);
	EXPECT_NE(s.last_rx.tv_sec, 0);
	EXPECT_EQ(s.last_state_change.tv_nsec, s.last_rx.tv_nsec);
	const shm_timestamp first_rx = s.last_rx;

	std::this_thread::sleep_for(std::chrono::milliseconds(30));
	r.min_tx = 7;
	r.flags = BFD_FLAG_D;
	h.feed(h.frame(r));
	EXPECT_EQ(s.num_received, 2u);
	EXPECT_EQ(s.desired_min_tx, 7u);
	EXPECT_EQ(s.poll, 0);
	EXPECT_GE(s.min_period, 30000u);
	EXPECT_LT(s.min_period, 2000000u);
	EXPECT_EQ(s.min_period, s.max_period);
	EXPECT_EQ(s.period_sum, s.min_period);
	EXPECT_EQ(s.last_state_change.tv_nsec, first_rx.tv_nsec) << "no state change yet";

	// Down, Down, then Up: the change is recorded at the third request only.
	r.state = BFD_STATE_UP;
	h.feed(h.frame(r));
	EXPECT_EQ(s.prev_state, BFD_STATE_DOWN);
	EXPECT_EQ(s.state, BFD_STATE_UP);
	EXPECT_EQ(s.last_state_change.tv_sec, s.last_rx.tv_sec);
	EXPECT_EQ(s.last_state_change.tv_nsec, s.last_rx.tv_nsec);
	const shm_timestamp third = s.last_state_change;
	h.feed(h.frame(r));
	EXPECT_EQ(s.last_state_change.tv_nsec, third.tv_nsec);
	EXPECT_EQ(s.num_received, 4u);
	auto us = [](const shm_timestamp &t) { return t.tv_sec * 1000000 + t.tv_nsec / 1000; };
	EXPECT_EQ(static_cast<std::int64_t>(s.period_sum), us(s.last_rx) - us(first_rx));
	EXPECT_LE(s.min_period, s.max_period);
}

TEST(Reply, FieldsAreReflectedFromTheRequest)
{
	const struct {
		const char *name;
		std::uint8_t admin, flags_in, flags_out, state_out, diag_out, length;
	} cases[] = {
		{"Up, D cleared", 0, BFD_FLAG_D, 0, BFD_STATE_UP, 0, 24},
		{"P becomes F", 0, BFD_FLAG_D | BFD_FLAG_P, BFD_FLAG_F, BFD_STATE_UP, 0, 24},
		{"F kept", 0, BFD_FLAG_D | BFD_FLAG_F, BFD_FLAG_F, BFD_STATE_UP, 0, 24},
		{"C and M kept", 0, BFD_FLAG_D | BFD_FLAG_C | BFD_FLAG_M, BFD_FLAG_C | BFD_FLAG_M, BFD_STATE_UP, 0, 24},
		{"adminDown", 1, BFD_FLAG_D, 0, BFD_STATE_ADMIN_DOWN, 7, 24},
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
		h.feed(build_frame(h.opts(), payload));
		auto p = h.reply();
		ASSERT_TRUE(p.has_value());
		EXPECT_EQ(bfd_version(*p), 1);
		EXPECT_EQ(bfd_diag(*p), c.diag_out);
		EXPECT_EQ(bfd_state_of(*p), c.state_out);
		EXPECT_EQ(p->flags & 0x3F, c.flags_out);
		EXPECT_EQ(p->detect_multiplier, r.detect_mult);
		EXPECT_EQ(p->length, c.length);
		EXPECT_EQ(ntohl(p->my_disc), OUR_DISC);
		EXPECT_EQ(ntohl(p->your_disc), r.my_disc);
		EXPECT_EQ(ntohl(p->min_tx_interval), r.min_tx);
		EXPECT_EQ(ntohl(p->min_rx_interval), OUR_MIN_RX);
		EXPECT_EQ(p->min_echo_rx_interval, 0u);
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
		seam::reset(h.vrf->outfd);
		seam::script = c.script;
		tr.take();
		h.feed(h.frame(request{}));
		EXPECT_EQ(seam::calls, c.attempts);
		EXPECT_EQ(h.shm()->sendto_fail, c.fail);
		EXPECT_EQ(h.shm()->tx_sends, c.sent);
		EXPECT_EQ(h.shm()->sessions[511].num_sent, c.sent);
		seam::reset(-1);
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
	seam::reset(h.vrf->outfd);
	seam::short_len = 10;
	EXPECT_DEATH(h.feed(h.frame(request{})),
		     "Assertion failed: 0, file .*reflectorRx.cpp, line [0-9]+, function rx_data_ready");
	EXPECT_EQ(h.shm()->wrong_len_sent, 1u);  // the child's count, in the shared store
	EXPECT_EQ(h.shm()->tx_sends, 0u);
	seam::reset(-1);
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
