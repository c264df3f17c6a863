// reflect_test.cpp -- the reflector answering requests from another network
// namespace, plain and under MPLS label 0, as the initiator captures the
// replies (addresses, ports, TOS, TTL, fields); frames the attached kernel
// filters must drop; and the shared store agreeing with that.
#include <sys/stat.h>

#include <algorithm>

#include "e2e/e2eutil.h"

namespace {

using ReflectInNamespace = e2e::E2eTest;
using e2e::ms;

constexpr std::uint32_t DISC = 0x0badcafe;
constexpr std::uint32_t MIN_RX = 250000;

probe_params request(std::uint32_t my_disc)
{
	return {.my_disc = my_disc, .your_disc = DISC, .multiplier = 4, .min_tx_us = 123456, .min_rx_us = 7, .min_echo_rx_us = 99};
}

// `r` is the reply to `p`, sent by the daemon at 192.0.2.1 to our `port`.
void expect_reply(const std::optional<e2e::reply> &r, const probe_params &p, std::uint16_t port)
{
	ASSERT_TRUE(r) << "no reply";
	EXPECT_EQ(std::tuple(r->v.src_ip, r->v.dst_ip, r->v.src_port, r->v.dst_port),
		  std::tuple(e2e::DAEMON_IP_H, e2e::INITIATOR_IP_H, SBFD_PORT, port));
	EXPECT_EQ(std::tuple(r->v.tos, r->v.ttl, r->v.payload.size(), r->v.label_entries.size(), bfd_state_of(r->pkt)),
		  std::tuple(0xc0, 255, BFD_PKT_LEN, 0u, BFD_STATE_UP));
	EXPECT_EQ(std::tuple(ntohl(r->pkt.my_disc), ntohl(r->pkt.your_disc), ntohl(r->pkt.min_tx_interval),
			     ntohl(r->pkt.min_rx_interval), ntohl(r->pkt.min_echo_rx_interval)),
		  std::tuple(DISC, p.my_disc, p.min_tx_us, MIN_RX, 0u));
}

TEST_F(ReflectInNamespace, PlainAndLabelledRequestsAreAnsweredAndFilteredFramesNotEvenCounted)
{
	start(DISC, MIN_RX);
	const probe_params plain = request(1001), labelled = request(2002);
	expect_reply(ask(plain), plain, port);

	// Under label 0; the reply comes back as plain IPv4/UDP.
	frame_spec s = shape();
	s.labels = {0};
	std::uint8_t req[BFD_PKT_LEN];
	probe_encode_request(labelled, req);
	ASSERT_TRUE(send_frame(probe_frame_build(s, req)));
	expect_reply(capture(), labelled, port);

	// Frames the filters reject, then a valid one: once its reply is in, the
	// daemon has had every frame before it.
	probe_encode_request(request(3003), req);
	const struct {
		std::vector<std::uint32_t> labels;
		std::uint16_t dst_port, frag;
	} filtered[] = {{{}, 7785, 0}, {{}, SBFD_PORT, 0x0010}, {{16}, SBFD_PORT, 0}, {{0, 0}, SBFD_PORT, 0}, {{0}, 3784, 0}};
	for (const auto &c : filtered) {
		s = shape();
		std::tie(s.labels, s.dst_port, s.frag) = std::tuple(c.labels, c.dst_port, c.frag);
		ASSERT_TRUE(send_frame(probe_frame_build(s, req)));
	}
	ASSERT_TRUE(send_frame(probe_frame_build(shape(), req)));
	const auto r = capture();
	ASSERT_TRUE(r);
	EXPECT_EQ(ntohl(r->pkt.your_disc), 3003u);
	EXPECT_FALSE(capture(ms(300))) << "a filtered frame was answered";

	// The store, readable by others, counts just what was answered.
	struct stat st {};
	ASSERT_EQ(stat(("/dev/shm/" + shm_name()).c_str(), &st), 0);
	EXPECT_EQ(std::tuple(st.st_size, st.st_mode & 0777), std::tuple(static_cast<off_t>(SHM_SIZE), 0644u));
	ASSERT_TRUE(testutil::wait_until([&] { return store().tx_sends == 3; }));
	const reflector_shm shm = store();
	EXPECT_EQ(std::tuple(shm.rx_valid_pkts, shm.rx_drops, shm.unsupported), std::tuple(3u, 0u, 0u));
	EXPECT_EQ(std::count_if(shm.sessions, shm.sessions + MAX_SESSIONS, [](auto &x) { return x.discriminator; }), 3);
	EXPECT_EQ(daemon->out() + daemon->err(), "") << "nothing is printed once the command line is accepted";
}

}  // namespace
