// rx_reply_test.cpp -- the reply as the initiator receives it, the send
// failures with their bounded retry, the session's transmit statistics, and
// the thinning of the statistics report.
#include "rxutil.h"

using namespace rxt;

namespace {

bfd_ctrl_pkt decode(const std::vector<std::uint8_t> &b)
{
	bfd_ctrl_pkt p{};
	std::memcpy(&p, b.data(), sizeof p);
	return p;
}

}  // namespace

TEST(Reply, FieldsAreReflectedFromTheRequest)
{
	struct {
		const char *name;
		std::uint8_t admin, flags_in, flags_out, state_out, diag_out;
		std::uint8_t length;
	} const cases[] = {
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
		auto payload = r.encode();
		payload.resize(c.length, 0x5A);  // the authentication section
		h.feed(build_frame(h.opts(), payload));
		auto got = h.reply();
		ASSERT_TRUE(got.has_value());
		ASSERT_EQ(got->size(), 24u);
		const bfd_ctrl_pkt p = decode(*got);
		EXPECT_EQ(bfd_version(p), 1);
		EXPECT_EQ(bfd_diag(p), c.diag_out);
		EXPECT_EQ(bfd_state_of(p), c.state_out);
		EXPECT_EQ(p.flags & 0x3F, c.flags_out);
		EXPECT_EQ(p.detect_multiplier, r.detect_mult);
		EXPECT_EQ(p.length, c.length);
		EXPECT_EQ(ntohl(p.my_disc), OUR_DISC);
		EXPECT_EQ(ntohl(p.your_disc), r.my_disc);
		EXPECT_EQ(ntohl(p.min_tx_interval), r.min_tx);
		EXPECT_EQ(ntohl(p.min_rx_interval), OUR_MIN_RX);
		EXPECT_EQ(p.min_echo_rx_interval, 0u);
		EXPECT_EQ(h.shm()->tx_sends, 1u);
	}
}

TEST(Reply, TransmitStatisticsFollowTheSentStates)
{
	harness h;
	h.setup_table();
	const reflector_session &s = h.shm()->sessions[511];
	auto moved = [&] {
		return s.last_tx_state_change.tv_sec == s.last_tx.tv_sec &&
		       s.last_tx_state_change.tv_nsec == s.last_tx.tv_nsec;
	};
	// Up, Up, Up, then AdminDown twice, then a changed minRx.
	const struct {
		std::uint8_t admin;
		bool change_moves;
		std::uint8_t tx_state, prev_tx_state, tx_diag;
	} steps[] = {
		{0, true, 3, 0, 0}, {0, true, 3, 3, 0}, {0, false, 3, 3, 0},
		{1, false, 0, 3, 7}, {1, true, 0, 0, 7},
	};
	std::uint64_t n = 0;
	for (const auto &st : steps) {
		SCOPED_TRACE(++n);
		reflector_cfg.adminDown = st.admin;
		h.feed(h.frame(request{}));
		ASSERT_TRUE(h.reply().has_value());
		EXPECT_EQ(s.num_sent, n);
		EXPECT_EQ(moved(), st.change_moves);
		EXPECT_EQ(s.tx_state, st.tx_state);
		EXPECT_EQ(s.prev_tx_state, st.prev_tx_state);
		EXPECT_EQ(s.tx_diag, st.tx_diag);
	}
	reflector_cfg.minRx = 1234;
	h.feed(h.frame(request{}));
	EXPECT_EQ(ntohl(decode(*h.reply()).min_rx_interval), 1234u);
}

TEST(Reply, SendFailuresAreCountedAndRetriedOnlyWhenUnreachable)
{
	struct {
		const char *name;
		std::vector<int> script;  // errno of each failing attempt (0: real send)
		std::size_t attempts;
		std::uint32_t fail;
		std::uint64_t sent;
		int retried_msgs;
	} const cases[] = {
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
		EXPECT_EQ(h.shm()->rx_valid_pkts, 1u);
		seam::reset(-1);
		if (!tr.on())
			continue;
		auto recs = tr.take();
		std::vector<std::string> errors, stats;
		for (auto &[level, text] : recs)
			(level == TRACE_ERROR ? errors : stats).push_back(text);
		EXPECT_EQ(count_containing(errors, "ERROR: sendto() returns -1, errno "), static_cast<int>(c.fail));
		EXPECT_EQ(count_containing(errors, "ERROR: retried sendto 5 times but failed."), c.retried_msgs);
		EXPECT_EQ(count_containing(stats, "GLOBAL STATS:"), 1);  // one report per request
	}
}

TEST(ReplyDeathTest, ShortSendStopsTheProcess)
{
	harness h;
	h.setup_table();
	seam::reset(h.vrf->outfd);
	seam::short_len = 10;
	// The store is a shared mapping, so the child's count shows here.
	EXPECT_DEATH(h.feed(h.frame(request{})),
		     "Assertion failed: 0, file .*reflectorRx.cpp, line [0-9]+, function rx_data_ready");
	EXPECT_EQ(h.shm()->wrong_len_sent, 1u);
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
	struct {
		std::uint64_t drops, valid;
		int sessions;  // session lines expected; -1: no report
	} const cases[] = {
		{0, 1, 1}, {1, 2, 3}, {10, 0, 3}, {0, 11, -1}, {60, 39, -1}, {50, 50, 1}, {0, 150, -1}, {199, 1, 1},
	};
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
		char global[160];
		std::snprintf(global, sizeof global,
			      "GLOBAL STATS: rx_drops %llu, rx_valid_pkts %llu, tx_sends 0, cache_cnt 3, ",
			      static_cast<unsigned long long>(c.drops), static_cast<unsigned long long>(c.valid));
		EXPECT_EQ(lines[0].rfind(global, 0), 0u) << lines[0];
		const std::uint64_t total = c.drops + c.valid;
		EXPECT_EQ(lines[3], "SESSION STATS (up to " + std::to_string(total > 10 ? 1 : total) + " sessions):");
		EXPECT_EQ(lines[4].rfind("SESSION STATS-RX: discriminator 3, source_ip 192.0.2.1,", 0), 0u);
	}
}

TEST(Report, SessionLinesShowAverageGapAndTimes)
{
	auto &tr = trace_reader::get();
	if (!tr.on())
		GTEST_SKIP() << "trace library not initialised in this build";
	harness h;
	h.setup_table();
	session_node *n = get_session(h.vrf.get(), 9, ip("192.0.2.1"));
	reflector_session &s = *n->shm_session;
	struct {
		std::uint64_t received, sum;
		unsigned avg;
	} const cases[] = {{1, 0, 0}, {1, 77, 77}, {2, 300000, 300000}, {11, 10000005, 1000000}};
	for (const auto &c : cases) {
		s.num_received = c.received;
		s.period_sum = c.sum;
		tr.take();
		dump_session(n);
		auto lines = tr.take_level(TRACE_STATS);
		ASSERT_EQ(lines.size(), 2u);
		EXPECT_NE(lines[0].find("avg_period " + std::to_string(c.avg) + ","), std::string::npos) << lines[0];
	}
	// Unset stamps render as second 0; two texts in one record keep their own times.
	s.last_rx = {86400 * 365, 5};
	s.last_state_change = {0, 0};
	tr.take();
	dump_session(n);
	auto lines = tr.take_level(TRACE_STATS);
	ASSERT_EQ(lines.size(), 2u);
	const time_t t0 = 0, t1 = 86400 * 365;
	const std::string c0 = ctime(&t0), c1 = ctime(&t1);
	EXPECT_NE(lines[0].find("last_rx " + c1 + " (31536000.000000005)"), std::string::npos) << lines[0];
	EXPECT_NE(lines[0].find("last_state_change " + c0 + " (0.000000000)"), std::string::npos) << lines[0];
	EXPECT_EQ(lines[1], "SESSION STATS-TX: num_sent 0, last_tx " + c0 + " (0.000000000), last_tx_state_change " +
				    c0 + " (0.000000000)");
}
