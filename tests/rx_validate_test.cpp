// rx_validate_test.cpp -- frame reception as an operator sees it: which
// frames are answered, which counter each rejected one moves, the message it
// leaves in the trace, and what a valid request writes into its session slot.
#include <time.h>

#include <functional>
#include <thread>

#include "rxutil.h"

using namespace rxt;

namespace {

struct reject_case {
	const char *name;
	std::function<std::vector<std::uint8_t>(const harness &)> frame;
	std::size_t counter;  // offset of the reason counter; 0: the frame is valid
	const char *message;  // level-1 text it must leave (prefix match), or nullptr
	bool report;          // maybe_dump_stats follows (a GLOBAL STATS line at total 1)
};

std::vector<std::uint8_t> with(const harness &h, std::function<void(request &)> edit)
{
	request r;
	edit(r);
	return h.frame(r);
}

std::vector<std::uint8_t> with_opts(const harness &h, std::function<void(frame_opts &)> edit,
				    const request &r = request{})
{
	frame_opts o = h.opts();
	edit(o);
	return build_frame(o, r);
}

const reject_case REJECT_CASES[] = {
	{"valid Down request", [](const harness &h) { return h.frame(request{}); }, 0, nullptr, true},
	{"valid Up request", [](const harness &h) { return with(h, [](request &r) { r.state = BFD_STATE_UP; }); }, 0, nullptr, true},
	{"Length 0 passes", [](const harness &h) { return with(h, [](request &r) { r.length = 0; }); }, 0, nullptr, true},
	{"23-byte control packet",
	 [](const harness &h) {
		 auto f = h.frame(request{});
		 f.pop_back();
		 return f;
	 },
	 OFF_PKT_TRUNCATED, "ERROR: Pkt truncated. Recvd len 23, source_ip 127.0.0.1", true},
	{"frame ending inside the IPv4 options",
	 [](const harness &h) {
		 auto f = with_opts(h, [](frame_opts &o) { o.ihl = 15; });
		 f.resize(40);
		 return f;
	 },
	 OFF_PKT_TRUNCATED, "ERROR: Pkt truncated. Recvd len -42, source_ip 127.0.0.1", true},
	{"version 0", [](const harness &h) { return with(h, [](request &r) { r.version = 0; }); },
	 OFF_BAD_VERSION, "ERROR: Bad version 0. Recvd my_disc 287454020, source_ip 127.0.0.1", true},
	{"version 2", [](const harness &h) { return with(h, [](request &r) { r.version = 2; }); },
	 OFF_BAD_VERSION, "ERROR: Bad version 2.", true},
	{"version 0 with D clear counts only the version",
	 [](const harness &h) { return with(h, [](request &r) { r.version = 0; r.flags = 0; }); },
	 OFF_BAD_VERSION, "ERROR: Bad version 0.", true},
	{"Length 25 with 24 bytes", [](const harness &h) { return with(h, [](request &r) { r.length = 25; }); },
	 OFF_INVALID_PKT_LEN, "ERROR: Invalid bfd ctrl pkt length 25. Rcvd len 24, source_ip 127.0.0.1", true},
	{"source port 7784", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.src_port = SBFD_PORT; }); },
	 OFF_INVALID_SRC_PORT, "ERROR: Invalid source port ", true},
	{"D bit clear", [](const harness &h) { return with(h, [](request &r) { r.flags = BFD_FLAG_P; }); },
	 OFF_DEMAND_UNSET, "ERROR: Demand mode bit is not set. Recvd my_disc 287454020, source_ip 127.0.0.1", true},
	{"Detect Mult 0", [](const harness &h) { return with(h, [](request &r) { r.detect_mult = 0; }); },
	 OFF_INVALID_DETECT_MULT, "ERROR: Detect Mult is not set. Recvd my_disc 287454020", true},
	{"My Discriminator 0", [](const harness &h) { return with(h, [](request &r) { r.my_disc = 0; }); },
	 OFF_INVALID_MY_DISC, "ERROR: My discriminator is not set. source_ip 127.0.0.1", true},
	{"state AdminDown", [](const harness &h) { return with(h, [](request &r) { r.state = BFD_STATE_ADMIN_DOWN; }); },
	 OFF_INVALID_BFD_STATE, "ERROR: Initiator BFD state 0 is invalid. Recvd my_disc 287454020", true},
	{"state Init with a foreign Your Discriminator counts the state",
	 [](const harness &h) { return with(h, [](request &r) { r.state = BFD_STATE_INIT; r.your_disc = 1; }); },
	 OFF_INVALID_BFD_STATE, "ERROR: Initiator BFD state 2 is invalid.", true},
	{"foreign Your Discriminator", [](const harness &h) { return with(h, [](request &r) { r.your_disc = 1; }); },
	 OFF_YOUR_DISC_UNMATCH,
	 "ERROR: Recvd discriminator 1 is not destined to this reflector. Recvd my_disc 287454020, source_ip 127.0.0.1", true},
	{"MPLS label 0, bottom of stack", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.eth_type = 0x8847; o.labels = {0x000001FF}; }); },
	 0, nullptr, true},
	{"IPv4 options (IHL 6)", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.ihl = 6; }); }, 0, nullptr, true},
	{"IPv4 options (IHL 15) under label 0",
	 [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.ihl = 15; o.eth_type = 0x8847; o.labels = {0x000001FF}; }); },
	 0, nullptr, true},
	{"MPLS label 16", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.eth_type = 0x8847; o.labels = {(16u << 12) | 0x1FF}; }); },
	 OFF_UNSUPPORTED, "ERROR: top label 16 is not supported", false},
	{"two MPLS labels", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.eth_type = 0x8847; o.labels = {0x000000FF, 0x000001FF}; }); },
	 OFF_UNSUPPORTED, "ERROR: multiple labels is not supported", false},
	{"IPv6 EtherType", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.eth_type = 0x86DD; }); },
	 OFF_UNSUPPORTED, "ERROR: EthType 34525 is not supported", false},
	{"VLAN tag", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.eth_type = 0x8100; }); },
	 OFF_UNSUPPORTED, "ERROR: EthType 33024 is not supported", false},
	{"one-byte frame", [](const harness &) { return std::vector<std::uint8_t>{0x08}; },
	 OFF_UNSUPPORTED, "ERROR: EthType 0 is not supported", false},
	{"TCP under label 0", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.eth_type = 0x8847; o.labels = {0x000001FF}; o.proto = 6; }); },
	 OFF_INVALID_PKT_FORMAT, "ERROR: BFD control packet should be over UDP, got protocol 6", false},
	{"ICMP", [](const harness &h) { return with_opts(h, [](frame_opts &o) { o.proto = 1; }); },
	 OFF_INVALID_PKT_FORMAT, "ERROR: BFD control packet should be over UDP, got protocol 1", false},
};

}  // namespace

TEST(FrameReception, EachFrameIsAnsweredOrCountedUnderExactlyOneReason)
{
	for (const auto &c : REJECT_CASES) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		auto &tr = trace_reader::get();
		tr.take();
		h.feed(c.frame(h));
		const reflector_shm *s = h.shm();
		for (std::size_t off : REASON_OFFS)
			EXPECT_EQ(at<std::uint32_t>(s, off), off == c.counter ? 1u : 0u) << "counter at " << off;
		EXPECT_EQ(at<std::uint64_t>(s, OFF_RX_DROPS), c.counter ? 1u : 0u);
		EXPECT_EQ(at<std::uint64_t>(s, OFF_RX_VALID), c.counter ? 0u : 1u);
		auto reply = h.reply();
		EXPECT_EQ(reply.has_value(), c.counter == 0);
		if (reply)
			EXPECT_EQ(reply->size(), 24u);
		if (!tr.on())
			continue;
		auto recs = tr.take();
		std::vector<std::string> errors, stats;
		for (auto &[level, text] : recs) {
			if (level == TRACE_ERROR)
				errors.push_back(text);
			if (level == TRACE_STATS)
				stats.push_back(text);
		}
		if (c.message) {
			ASSERT_EQ(errors.size(), 1u);
			EXPECT_EQ(errors[0].rfind(c.message, 0), 0u) << errors[0];
		} else {
			EXPECT_TRUE(errors.empty());
		}
		EXPECT_EQ(count_containing(stats, "GLOBAL STATS:"), c.report ? 1 : 0);
	}
}

TEST(FrameReception, AcceptedRequestIsTracedWithItsFields)
{
	auto &tr = trace_reader::get();
	if (!tr.on())
		GTEST_SKIP() << "trace library not initialised in this build";
	harness h;
	h.setup_table();
	tr.take();
	request r;
	r.state = BFD_STATE_UP;
	r.detect_mult = 5;
	h.feed(h.frame(r));
	auto rx = tr.take_level(TRACE_RX);
	char want[256];
	std::snprintf(want, sizeof want,
		      "RX: Recvd discriminator is destined to this reflector. Recvd my_disc 287454020, "
		      "source_ip 127.0.0.1, source_port %u, state 3, min_tx_interval 100000, detect_multiplier 5",
		      h.receiver_port);
	EXPECT_EQ(count_containing(rx, want), 1);
	EXPECT_EQ(count_containing(rx, "RX: socket ready with 66 bytes"), 1);
}

TEST(FrameReception, FirstRequestFillsAFreshSlot)
{
	harness h;
	h.setup_table();
	request r;
	r.diag = 3;
	r.flags = BFD_FLAG_D | BFD_FLAG_P | BFD_FLAG_F;
	r.length = 24;
	r.detect_mult = 7;
	h.feed(h.frame(r));
	const reflector_shm *s = h.shm();
	const std::size_t k = slot_off(511);  // the first session takes the highest free slot
	EXPECT_EQ(at<std::uint32_t>(s, k + 0), 0x11223344u);
	EXPECT_EQ(at<std::uint32_t>(s, k + 4), ip("127.0.0.1"));
	EXPECT_EQ(at<std::uint32_t>(s, k + 8), 100000u);
	EXPECT_EQ(at<std::uint32_t>(s, k + 12), 200000u);
	EXPECT_EQ(at<std::uint32_t>(s, k + 16), 300000u);
	EXPECT_EQ(at<std::uint32_t>(s, k + 20), 0u);  // min_period
	EXPECT_EQ(at<std::uint32_t>(s, k + 24), 0u);  // max_period
	EXPECT_EQ(at<std::uint32_t>(s, k + 28), OUR_DISC);
	EXPECT_EQ(at<std::uint16_t>(s, k + 32), h.receiver_port);
	EXPECT_EQ(at<std::uint8_t>(s, k + 34), 7);
	EXPECT_EQ(at<std::uint8_t>(s, k + 35), BFD_STATE_DOWN);
	EXPECT_EQ(at<std::uint8_t>(s, k + 36), 0);  // prev_state of a fresh record
	EXPECT_EQ(at<std::uint8_t>(s, k + 37), 3);  // diag
	EXPECT_EQ(at<std::uint8_t>(s, k + 38), 1);  // version
	EXPECT_EQ(at<std::uint8_t>(s, k + 39), 1);  // demand
	EXPECT_EQ(at<std::uint8_t>(s, k + 40), 1);  // final
	EXPECT_EQ(at<std::uint8_t>(s, k + 41), 1);  // poll
	EXPECT_EQ(at<std::uint8_t>(s, k + 42), 24);
	EXPECT_EQ(at<std::uint64_t>(s, k + 48), 1u);  // num_received
	EXPECT_EQ(at<std::uint64_t>(s, k + 56), 0u);  // period_sum
	EXPECT_NE(at<std::int64_t>(s, k + 64), 0);
	EXPECT_EQ(at<std::int64_t>(s, k + 64), at<std::int64_t>(s, k + 80));  // last_state_change = last_rx
	EXPECT_EQ(at<std::int64_t>(s, k + 72), at<std::int64_t>(s, k + 88));
}

TEST(FrameReception, LaterRequestsOverwriteFieldsAndAccumulateGaps)
{
	harness h;
	h.setup_table();
	const reflector_session &s = h.shm()->sessions[511];
	request r;
	h.feed(h.frame(r));
	const shm_timestamp first_rx = s.last_rx;
	std::this_thread::sleep_for(std::chrono::milliseconds(30));
	r.min_tx = 7;
	r.detect_mult = 9;
	r.flags = BFD_FLAG_D;
	h.feed(h.frame(r));
	EXPECT_EQ(s.num_received, 2u);
	EXPECT_EQ(s.desired_min_tx, 7u);
	EXPECT_EQ(s.detect_multiplier, 9);
	EXPECT_EQ(s.poll, 0);
	EXPECT_GE(s.min_period, 30000u);
	EXPECT_LT(s.min_period, 2000000u);
	EXPECT_EQ(s.min_period, s.max_period);
	EXPECT_EQ(s.period_sum, s.min_period);
	const shm_timestamp first_change = s.last_state_change;

	// Down, Down, then Up at the third request: the change is recorded there only.
	r.state = BFD_STATE_UP;
	h.feed(h.frame(r));
	EXPECT_EQ(s.prev_state, BFD_STATE_DOWN);
	EXPECT_EQ(s.state, BFD_STATE_UP);
	EXPECT_NE(s.last_state_change.tv_nsec + s.last_state_change.tv_sec * 1000000000,
		  first_change.tv_nsec + first_change.tv_sec * 1000000000);
	EXPECT_EQ(s.last_state_change.tv_sec, s.last_rx.tv_sec);
	EXPECT_EQ(s.last_state_change.tv_nsec, s.last_rx.tv_nsec);
	const shm_timestamp third = s.last_state_change;
	h.feed(h.frame(r));
	EXPECT_EQ(s.prev_state, BFD_STATE_DOWN);
	EXPECT_EQ(s.last_state_change.tv_nsec, third.tv_nsec);
	EXPECT_EQ(s.num_received, 4u);
	// The gaps add up to the time between the first and the last request.
	auto us = [](const shm_timestamp &t) { return t.tv_sec * 1000000 + t.tv_nsec / 1000; };
	EXPECT_EQ(static_cast<std::int64_t>(s.period_sum), us(s.last_rx) - us(first_rx));
	EXPECT_LE(s.min_period, s.max_period);
}

TEST(FrameReception, ChangedDiscriminatorIsRequiredFromTheNextRequestOn)
{
	harness h;
	h.setup_table();
	reflector_cfg.discriminator = htonl(0x55);
	h.feed(h.frame(request{}));  // still addressed to the old value
	request r;
	r.your_disc = 0x55;
	h.feed(h.frame(r));
	EXPECT_EQ(h.shm()->your_disc_unmatch, 1u);
	EXPECT_EQ(h.shm()->rx_valid_pkts, 1u);
}

TEST(FrameReception, ReceiveErrorsCountNothing)
{
	harness h;
	h.setup_table();
	// An empty datagram reads as 0 bytes; a descriptor that is not a socket fails.
	ASSERT_EQ(send(h.pair[1], "", 0, 0), 0);
	rx_data_ready(h.pair[0], EV_READ, h.vrf.get());
	rx_data_ready(-1, EV_READ, h.vrf.get());
	rx_data_ready(h.pair[0], EV_READ, nullptr);
	const std::uint8_t zero[SHM_HEADER_SIZE] = {};
	EXPECT_EQ(std::memcmp(h.shm(), zero, sizeof zero), 0);
}
