// reflect_test.cpp -- the reflector answering requests from another network
// namespace: every field of the reply, its source, TOS and TTL as captured by
// the initiator, plain and under MPLS label 0; frames the kernel filters
// must drop; and the shared store and trace agreeing with what was sent.
#include <sys/stat.h>

#include <map>

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
	p.multiplier = 4;
	p.min_tx_us = 123456;
	p.min_rx_us = 7;
	p.min_echo_rx_us = 99;
	return p;
}

// The reply to `p`, sent by the daemon at 192.0.2.1 to our port.
void expect_reply(const std::optional<e2e::reply> &r, const probe_params &p, std::uint16_t port)
{
	ASSERT_TRUE(r) << "no reply";
	EXPECT_EQ(std::tuple(r->v.src_ip, r->v.dst_ip, r->v.src_port, r->v.dst_port),
		  std::tuple(e2e::DAEMON_IP_H, e2e::INITIATOR_IP_H, SBFD_PORT, port));
	EXPECT_EQ(std::tuple(r->v.tos, r->v.ttl, r->v.payload.size()), std::tuple(0xc0, 255, BFD_PKT_LEN));
	EXPECT_EQ(std::tuple(bfd_version(r->pkt), bfd_diag(r->pkt), bfd_state_of(r->pkt)), std::tuple(1, 0, BFD_STATE_UP));
	EXPECT_EQ(r->pkt.flags & 0x3f, p.poll ? BFD_FLAG_F : 0) << "P and D clear, F answers P";
	EXPECT_EQ(std::tuple(r->pkt.detect_multiplier, r->pkt.length), std::tuple(p.multiplier, 24));
	EXPECT_EQ(std::tuple(ntohl(r->pkt.my_disc), ntohl(r->pkt.your_disc), ntohl(r->pkt.min_tx_interval),
			     ntohl(r->pkt.min_rx_interval), ntohl(r->pkt.min_echo_rx_interval)),
		  std::tuple(DISC, p.my_disc, p.min_tx_us, MIN_RX, 0u));
}

TEST_F(ReflectInNamespace, PlainAndLabelledRequestsAreAnsweredWithEveryField)
{
	start(DISC, MIN_RX);
	probe_params plain = request(1001);
	ASSERT_TRUE(send_udp(plain));
	expect_reply(capture(), plain, port);

	probe_params polled = request(1001);
	polled.state = BFD_STATE_UP;
	polled.poll = true;
	ASSERT_TRUE(send_udp(polled));
	expect_reply(capture(), polled, port);

	// Under label 0; the reply comes back as plain IPv4/UDP.
	probe_params labelled = request(2002);
	frame_spec s = shape();
	s.labels = {0};
	std::uint8_t req[BFD_PKT_LEN];
	probe_encode_request(labelled, req);
	ASSERT_TRUE(send_frame(probe_frame_build(s, req)));
	auto r = capture();
	expect_reply(r, labelled, port);
	EXPECT_TRUE(r && r->v.label_entries.empty());

	// The store, readable by others, holds both sessions; its counters move
	// just after a reply is sent.
	struct stat st {};
	ASSERT_EQ(stat(("/dev/shm/" + shm_name()).c_str(), &st), 0);
	EXPECT_EQ(st.st_size, static_cast<off_t>(SHM_SIZE));
	EXPECT_EQ(st.st_mode & 0777, 0644u);
	ASSERT_TRUE(testutil::wait_until([&] { return store().tx_sends == 3; }));
	const reflector_shm shm = store();
	EXPECT_EQ(std::tuple(shm.rx_valid_pkts, shm.rx_drops), std::tuple(3u, 0u));
	std::map<std::uint32_t, reflector_session> by_disc;
	for (const auto &x : shm.sessions)
		if (x.discriminator && x.source_ip == htonl(e2e::INITIATOR_IP_H))
			by_disc[x.discriminator] = x;
	ASSERT_EQ(by_disc.size(), 2u);
	const reflector_session &s1 = by_disc[1001], &s2 = by_disc[2002];
	EXPECT_EQ(std::tuple(s1.source_port, s1.state, s1.prev_state, s1.num_received, s1.num_sent),
		  std::tuple(port, BFD_STATE_UP, BFD_STATE_DOWN, 2u, 2u));
	EXPECT_EQ(std::tuple(s1.desired_min_tx, s1.required_min_rx, s1.required_min_echo_rx, s1.detect_multiplier),
		  std::tuple(123456u, 7u, 99u, 4));
	EXPECT_EQ(std::tuple(s2.num_received, s2.state), std::tuple(1u, BFD_STATE_DOWN));

	// The trace tells the same story.
	const std::string p = std::to_string(port);
	std::string t;
	for (const std::string &line : {std::string("INIT: Start SBFD Reflector with Discriminator: 195939070, sourceIp: "
						    "192.0.2.1, minRx: 250000"),
					std::string("INIT: orvalindwarden ready"),
					"RX: Recvd discriminator is destined to this reflector. Recvd my_disc 1001, source_ip "
					"192.0.2.2, source_port " + p + ", state 1, min_tx_interval 123456, detect_multiplier 4",
					"TX: Send 24 bytes back to initiator. Sent my_disc " + std::to_string(DISC) +
						", your_disc 2002, dst_ip 192.0.2.2, dst_port " + p + ", min_rx_interval 250000 state 3,"})
		EXPECT_TRUE(testutil::wait_until([&] { return (t = trace()).find(line) != std::string::npos; }))
			<< line << "\n--- trace ---\n" << t;
	EXPECT_EQ(daemon->out() + daemon->err(), "") << "nothing is printed once the command line is accepted";
}

TEST_F(ReflectInNamespace, FramesTheFiltersRejectDrawNoReplyAndCountNothing)
{
	start(DISC, MIN_RX);
	std::uint8_t req[BFD_PKT_LEN];
	probe_encode_request(request(3003), req);
	const struct {
		const char *what;
		std::vector<std::uint32_t> labels;
		std::uint16_t dst_port, frag;
	} cases[] = {
		{"another destination port", {}, 7785, 0},
		{"a non-first fragment", {}, SBFD_PORT, 0x0010},
		{"label 16", {16}, SBFD_PORT, 0},
		{"two labels", {0, 0}, SBFD_PORT, 0},
		{"labelled, another port", {0}, 3784, 0},
	};
	for (const auto &c : cases) {
		frame_spec s = shape();
		s.labels = c.labels;
		s.dst_port = c.dst_port;
		s.frag = c.frag;
		ASSERT_TRUE(send_frame(probe_frame_build(s, req))) << c.what;
	}
	// A valid request last: once its reply is in, the daemon has had every
	// frame before it; none of them may be answered or even counted.
	ASSERT_TRUE(send_frame(probe_frame_build(shape(), req)));
	auto r = capture();
	ASSERT_TRUE(r);
	EXPECT_EQ(ntohl(r->pkt.your_disc), 3003u);
	EXPECT_FALSE(capture(std::chrono::milliseconds(300))) << "a filtered frame was answered";
	const reflector_shm shm = store();
	EXPECT_EQ(std::tuple(shm.rx_valid_pkts, shm.rx_drops, shm.unsupported), std::tuple(1u, 0u, 0u));
}

}  // namespace
