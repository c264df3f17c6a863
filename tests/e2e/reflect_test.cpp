// reflect_test.cpp -- the reflector answering requests from another network
// namespace, plain and under MPLS label 0, as the initiator captures the
// replies (addresses, ports, TOS, TTL, fields); frames the attached kernel
// filters must drop; and the shared store agreeing with that.
#include <sys/stat.h>

#include "e2e/e2eutil.h"

namespace {

using ReflectInNamespace = e2e::E2eTest;

constexpr std::uint32_t DISC = 0x0badcafe, MIN_RX = 250000;

probe_params request(std::uint32_t my_disc)
{
	return {.my_disc = my_disc, .your_disc = DISC, .multiplier = 4, .min_tx_us = 123456, .min_rx_us = 7, .min_echo_rx_us = 99};
}

// `r` is the reply to request(`my_disc`), sent by the daemon at 192.0.2.1 to our `port`.
void expect_reply(const std::optional<e2e::reply> &r, std::uint32_t my_disc, std::uint16_t port)
{
	ASSERT_TRUE(r) << "no reply";
	EXPECT_EQ(std::tuple(r->v.src_ip, r->v.dst_ip, r->v.src_port, r->v.dst_port),
		  std::tuple(e2e::DAEMON_IP_H, e2e::INITIATOR_IP_H, SBFD_PORT, port));
	EXPECT_EQ(std::tuple(r->v.tos, r->v.ttl, r->v.payload.size(), r->v.label_entries.size(), bfd_state_of(r->pkt)),
		  std::tuple(0xc0, 255, BFD_PKT_LEN, 0u, BFD_STATE_UP));
	EXPECT_EQ(std::tuple(ntohl(r->pkt.my_disc), ntohl(r->pkt.your_disc), ntohl(r->pkt.min_tx_interval),
			     ntohl(r->pkt.min_rx_interval), ntohl(r->pkt.min_echo_rx_interval)),
		  std::tuple(DISC, my_disc, 123456u, MIN_RX, 0u));
}

TEST_F(ReflectInNamespace, PlainAndLabelledRequestsAreAnsweredAndFilteredFramesNotEvenCounted)
{
	start(DISC, MIN_RX);
	expect_reply(ask(request(1001)), 1001, port);

	// Sends request(`my_disc`) in a crafted frame; under label 0 the reply
	// comes back as plain IPv4/UDP.
	auto send_frame = [&](std::uint32_t my_disc, std::vector<std::uint32_t> labels, std::uint16_t dst_port = SBFD_PORT,
			      std::uint16_t frag = 0) {
		frame_spec s = shape();
		std::tie(s.labels, s.dst_port, s.frag) = std::tuple(labels, dst_port, frag);
		std::uint8_t req[BFD_PKT_LEN];
		probe_encode_request(request(my_disc), req);
		const auto f = probe_frame_build(s, req);
		return send(raw.get(), f.data(), f.size(), 0) == static_cast<ssize_t>(f.size());
	};
	ASSERT_TRUE(send_frame(2002, {0}));
	expect_reply(capture(), 2002, port);

	// Frames the filters reject, then a valid one: once its reply is in, the
	// daemon has had every frame before it.
	ASSERT_TRUE(send_frame(9, {}, 7785) && send_frame(9, {}, SBFD_PORT, 0x0010) && send_frame(9, {16}) &&
		    send_frame(9, {0, 0}) && send_frame(9, {0}, 3784) && send_frame(3003, {}));
	expect_reply(capture(), 3003, port);
	EXPECT_FALSE(capture(e2e::ms(300))) << "a filtered frame was answered";

	// The store, readable by others, counts just what was answered.
	struct stat st {};
	ASSERT_EQ(stat(("/dev/shm/" + shm_name()).c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 0777, 0644u);
	ASSERT_TRUE(testutil::wait_until([&] { return store().tx_sends == 3; }));
	const reflector_shm shm = store();
	EXPECT_EQ(std::tuple(shm.rx_valid_pkts, shm.rx_drops, shm.unsupported), std::tuple(3u, 0u, 0u));
	EXPECT_EQ(daemon->out() + daemon->err(), "") << "nothing is printed once the command line is accepted";
}

}  // namespace
