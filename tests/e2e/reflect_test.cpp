// reflect_test.cpp -- the reflector answering requests from another network
// namespace: every field of the reply, its source, TOS and TTL as captured by
// the initiator; frames the kernel filters must drop; an unreachable
// initiator; and the shared store and trace agreeing with what was sent.
#include <gtest/gtest.h>

#include "e2e/e2eutil.h"

namespace {

using ReflectInNamespace = e2e::E2eTest;

constexpr std::uint32_t DISC = 0x0badcafe;
constexpr std::uint32_t MIN_RX = 250000;

probe_params request(std::uint32_t my_disc)
{
	probe_params p;
	p.my_disc = my_disc;
	p.your_disc = DISC;
	p.state = BFD_STATE_DOWN;
	p.multiplier = 4;
	p.min_tx_us = 123456;
	p.min_rx_us = 7;
	p.min_echo_rx_us = 99;
	return p;
}

// The reply to `p`, sent by the daemon at 192.0.2.1 to our port.
void expect_reply(const e2e::reply &r, const probe_params &p, std::uint16_t port)
{
	EXPECT_EQ(r.v.src_ip, e2e::DAEMON_IP_H);
	EXPECT_EQ(r.v.dst_ip, e2e::INITIATOR_IP_H);
	EXPECT_EQ(r.v.src_port, SBFD_PORT);
	EXPECT_EQ(r.v.dst_port, port);
	EXPECT_EQ(r.v.tos, 0xc0);
	EXPECT_EQ(r.v.ttl, 255);
	ASSERT_EQ(r.v.payload.size(), BFD_PKT_LEN);
	EXPECT_EQ(bfd_version(r.pkt), 1);
	EXPECT_EQ(bfd_diag(r.pkt), 0);
	EXPECT_EQ(bfd_state_of(r.pkt), BFD_STATE_UP);
	EXPECT_EQ(r.pkt.flags & 0x3f, p.poll ? BFD_FLAG_F : 0) << "P and D clear, F answers P";
	EXPECT_EQ(r.pkt.detect_multiplier, p.multiplier);
	EXPECT_EQ(r.pkt.length, 24);
	EXPECT_EQ(ntohl(r.pkt.my_disc), DISC);
	EXPECT_EQ(ntohl(r.pkt.your_disc), p.my_disc);
	EXPECT_EQ(ntohl(r.pkt.min_tx_interval), p.min_tx_us);
	EXPECT_EQ(ntohl(r.pkt.min_rx_interval), MIN_RX);
	EXPECT_EQ(ntohl(r.pkt.min_echo_rx_interval), 0u);
}

TEST_F(ReflectInNamespace, PlainAndLabelledRequestsAreAnsweredWithEveryField)
{
	start(DISC, MIN_RX);

	probe_params plain = request(1001);
	ASSERT_TRUE(ini->send_udp(plain));
	auto r = ini->capture();
	ASSERT_TRUE(r) << "no reply to a plain request";
	expect_reply(*r, plain, ini->port());

	probe_params polled = request(1001);
	polled.state = BFD_STATE_UP;
	polled.poll = true;
	ASSERT_TRUE(ini->send_udp(polled));
	r = ini->capture();
	ASSERT_TRUE(r) << "no reply to a polled request";
	expect_reply(*r, polled, ini->port());

	// Under label 0; the reply comes back as plain IPv4/UDP.
	probe_params labelled = request(2002);
	frame_spec s = ini->shape();
	s.labels = {0};
	std::uint8_t req[BFD_PKT_LEN];
	probe_encode_request(labelled, req);
	ASSERT_TRUE(ini->send_frame(probe_frame_build(s, req)));
	r = ini->capture();
	ASSERT_TRUE(r) << "no reply to a labelled request";
	EXPECT_TRUE(r->v.label_entries.empty());
	expect_reply(*r, labelled, ini->port());

	// The shared store holds both sessions with the last request's fields.
	e2e::shm_view shm(b->shm_path());
	ASSERT_TRUE(shm.ok());
	// The counters and statistics of a reply move just after it is sent.
	ASSERT_TRUE(testutil::wait_until([&] { return shm.u64(e2e::OFF_TX_SENDS) == 3; }));
	EXPECT_EQ(shm.u64(e2e::OFF_RX_VALID), 3u);
	EXPECT_EQ(shm.u64(e2e::OFF_RX_DROPS), 0u);
	std::size_t s1 = shm.session(1001, e2e::INITIATOR_IP_H);
	ASSERT_NE(s1, 0u) << "session of 1001";
	EXPECT_EQ(shm.u16(s1 + 32), ini->port());    // source_port
	EXPECT_EQ(shm.u32(s1 + 8), 123456u);         // desired_min_tx
	EXPECT_EQ(shm.u8(s1 + 35), BFD_STATE_UP);    // state
	EXPECT_EQ(shm.u8(s1 + 36), BFD_STATE_DOWN);  // prev_state
	EXPECT_EQ(shm.u64(s1 + 48), 2u);             // num_received
	EXPECT_EQ(shm.u64(s1 + 96), 2u);             // num_sent
	std::size_t s2 = shm.session(2002, e2e::INITIATOR_IP_H);
	ASSERT_NE(s2, 0u) << "session of the labelled request";
	EXPECT_EQ(shm.u64(s2 + 48), 1u);
	EXPECT_EQ(shm.u8(s2 + 35), BFD_STATE_DOWN);

	// The trace tells the same story.
	std::string port = std::to_string(ini->port());
	std::string t;
	for (const std::string &line : std::vector<std::string>{"INIT: orvalindwarden ready",
	      "RX: Recvd discriminator is destined to this reflector. Recvd my_disc 1001, source_ip 192.0.2.2, "
	      "source_port " + port + ", state 1, min_tx_interval 123456, detect_multiplier 4",
	      "TX: Send 24 bytes back to initiator. Sent my_disc " + std::to_string(DISC) +
		      ", your_disc 2002, dst_ip 192.0.2.2, dst_port " + port + ", min_rx_interval 250000 state 3,"})
		EXPECT_TRUE(testutil::wait_until([&] { return (t = b->trace()).find(line) != std::string::npos; }))
			<< line << "\n--- trace ---\n" << t;
}

TEST_F(ReflectInNamespace, FramesTheFiltersRejectDrawNoReplyAndCountNothing)
{
	start(DISC, MIN_RX);
	std::uint8_t req[BFD_PKT_LEN];
	probe_encode_request(request(3003), req);
	struct {
		const char *what;
		std::vector<std::uint32_t> labels;
		std::uint16_t dst_port;
		std::uint16_t frag;
	} cases[] = {
		{"another destination port", {}, 7785, 0},
		{"a non-first fragment", {}, SBFD_PORT, 0x0010},
		{"label 16", {16}, SBFD_PORT, 0},
		{"two labels", {0, 0}, SBFD_PORT, 0},
		{"labelled, another port", {0}, 3784, 0},
	};
	for (const auto &c : cases) {
		frame_spec s = ini->shape();
		s.labels = c.labels;
		s.dst_port = c.dst_port;
		s.frag = c.frag;
		ASSERT_TRUE(ini->send_frame(probe_frame_build(s, req))) << c.what;
	}
	// A valid request last: once its reply is in, the daemon has had every
	// frame before it; none of them may be answered or even counted.
	frame_spec good = ini->shape();
	ASSERT_TRUE(ini->send_frame(probe_frame_build(good, req)));
	auto r = ini->capture();
	ASSERT_TRUE(r);
	EXPECT_EQ(ntohl(r->pkt.your_disc), 3003u);
	EXPECT_FALSE(ini->capture(std::chrono::milliseconds(300))) << "a filtered frame was answered";
	e2e::shm_view shm(b->shm_path());
	ASSERT_TRUE(shm.ok());
	EXPECT_EQ(shm.u64(e2e::OFF_RX_VALID), 1u);
	EXPECT_EQ(shm.u64(e2e::OFF_RX_DROPS), 0u);
	EXPECT_EQ(shm.u32(e2e::OFF_UNSUPPORTED), 0u);
}

TEST_F(ReflectInNamespace, UnreachableInitiatorCostsSixAttemptsAndOthersAreStillAnswered)
{
	start(DISC, MIN_RX);
	// 198.51.100.7 has no route in the daemon's namespace: ENETUNREACH.
	std::uint8_t req[BFD_PKT_LEN];
	probe_encode_request(request(4004), req);
	frame_spec s = ini->shape();
	s.src_ip = 0xc6336407;
	ASSERT_TRUE(ini->send_frame(probe_frame_build(s, req)));
	e2e::shm_view shm(b->shm_path());
	ASSERT_TRUE(shm.ok());
	ASSERT_TRUE(testutil::wait_until([&] { return shm.u32(e2e::OFF_SENDTO_FAIL) >= 6; }));
	EXPECT_EQ(shm.u64(e2e::OFF_RX_VALID), 1u);
	EXPECT_EQ(shm.u64(e2e::OFF_TX_SENDS), 0u);

	probe_params p = request(4005);
	ASSERT_TRUE(ini->send_udp(p));
	auto r = ini->capture();
	ASSERT_TRUE(r) << "the daemon stopped answering";
	expect_reply(*r, p, ini->port());
	EXPECT_EQ(shm.u32(e2e::OFF_SENDTO_FAIL), 6u);
	std::string t;
	EXPECT_TRUE(testutil::wait_until([&] {
		return (t = b->trace()).find("ERROR: retried sendto 5 times but failed.") != std::string::npos;
	})) << t;
}

}  // namespace
