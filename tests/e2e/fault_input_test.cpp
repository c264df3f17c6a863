// fault_input_test.cpp -- hostile input under load: a flood of malformed
// frames mixed with valid requests, netlink garbage and a control message
// every millisecond, and thousands of SIGRTMIN+9. None of them may make a
// reply wrong or missing, and the counters must add up.
#include <linux/netlink.h>
#include <signal.h>

#include <random>

#include "e2eutil.h"
#include "fault_util.h"
#include "nlctl.h"

namespace {

constexpr std::uint32_t DISC = 7;
constexpr std::uint32_t MIN_RX = 3300;

class FaultInputInNamespace : public e2e::E2eTest {
protected:
	fault::load_spec shape(std::uint32_t rate, std::chrono::milliseconds d) const
	{
		fault::load_spec s;
		s.ns = b->ns_i();
		s.src_h = e2e::INITIATOR_IP_H;
		s.dst_h = e2e::DAEMON_IP_H;
		s.your_disc = DISC;
		s.min_rx = MIN_RX;
		s.rate = rate;
		s.duration = d;
		return s;
	}
	// Runs `harm` on this thread while the load runs; returns the load's result.
	template <typename F> fault::load_result under_load(std::uint32_t rate, std::chrono::milliseconds d, F harm)
	{
		fault::load l(shape(rate, d));
		EXPECT_TRUE(l.ok());
		const auto end = std::chrono::steady_clock::now() + d;
		for (std::uint64_t i = 0; std::chrono::steady_clock::now() < end; i++)
			harm(i);
		return l.join();
	}
	std::uint64_t u64(std::size_t off) const { return e2e::shm_view(b->shm_path()).u64(off); }
};

TEST_F(FaultInputInNamespace, MalformedFloodLeavesEveryValidRequestAnswered)
{
	start(DISC, MIN_RX);
	// Kinds of frames the filters pass and the daemon must drop, each
	// broken in one place: (frame, reason counter offset).
	auto request = [](std::uint32_t my_disc, std::uint32_t your_disc) {
		probe_params p;
		p.my_disc = my_disc;
		p.your_disc = your_disc;
		std::vector<std::uint8_t> b(BFD_PKT_LEN);
		probe_encode_request(p, b.data());
		return b;
	};
	std::vector<std::vector<std::uint8_t>> bad;
	frame_spec s = ini->shape();
	auto good = request(9, DISC);
	auto v0 = good;
	v0[0] = 0x00;  // version 0
	bad.push_back(probe_frame_build(s, v0));
	auto d_clear = good;
	d_clear[1] &= static_cast<std::uint8_t>(~BFD_FLAG_D);
	bad.push_back(probe_frame_build(s, d_clear));
	bad.push_back(probe_frame_build(s, std::span(good).first(20)));  // truncated
	bad.push_back(probe_frame_build(s, request(9, DISC + 1)));        // not ours
	bad.push_back(probe_frame_build(s, request(0, DISC)));            // My Discriminator 0
	frame_spec tcp = s;
	tcp.labels = {0};
	tcp.ip_proto = 6;
	bad.push_back(probe_frame_build(tcp, good));
	frame_spec two = s;
	two.labels = {0, 0};
	bad.push_back(probe_frame_build(two, good));
	frame_spec from7784 = s;
	from7784.src_port = SBFD_PORT;
	bad.push_back(probe_frame_build(from7784, good));

	const std::uint64_t drops_before = u64(e2e::OFF_RX_DROPS);
	std::uint64_t flooded = 0;
	auto r = under_load(2000, std::chrono::milliseconds(3000), [&](std::uint64_t i) {
		if (ini->send_frame(bad[i % bad.size()]))
			flooded++;
		if (i % 4 == 3)
			std::this_thread::sleep_for(std::chrono::microseconds(200));
	});
	EXPECT_GT(flooded, 5000u);
	EXPECT_EQ(r.wrong, 0u);
	EXPECT_EQ(r.duplicate, 0u);
	EXPECT_EQ(r.answered, r.sent) << "every valid request answered";
	EXPECT_EQ(u64(e2e::OFF_TX_SENDS), u64(e2e::OFF_RX_VALID));
	// Frames may be lost to a full socket buffer, but none is counted twice.
	EXPECT_LE(u64(e2e::OFF_RX_DROPS) - drops_before, flooded);
	EXPECT_TRUE(b->daemon().running());
}

TEST_F(FaultInputInNamespace, NetlinkGarbageAndAControlMessageEveryMillisecondChangeNoReply)
{
	start(DISC, MIN_RX);
	unique_fd nl{netnsSocketAt(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK, b->ns_d().c_str())};
	ASSERT_GE(nl.get(), 0);
	sockaddr_nl to{};
	to.nl_family = AF_NETLINK;
	to.nl_pid = static_cast<std::uint32_t>(b->daemon_pid());
	auto send_nl = [&](const std::uint8_t *p, std::size_t n) {
		return sendto(nl.get(), p, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) ==
		       static_cast<ssize_t>(n);
	};
	nlctl_config same;
	same.disc = DISC;
	same.min_rx = MIN_RX;
	same.src_ip = e2e::DAEMON_IP_H;

	// Garbage: random datagrams whose messages, walked as the daemon walks
	// them, never hold a configuration request.
	std::mt19937 rng(20240611);
	auto garbage = [&] {
		std::vector<std::uint8_t> g(16 + rng() % 200);
		for (auto &x : g)
			x = static_cast<std::uint8_t>(rng());
		if (rng() % 2) {  // a plausible header of another type
			nlmsghdr h{};
			h.nlmsg_len = static_cast<std::uint32_t>(16 + rng() % (g.size() - 15));
			h.nlmsg_type = static_cast<std::uint16_t>(17 + rng() % 1000);
			h.nlmsg_flags = NLM_F_REQUEST;
			std::memcpy(g.data(), &h, sizeof h);
		}
		for (std::size_t off = 0, left = g.size(); left >= 16;) {
			nlmsghdr h;
			std::memcpy(&h, g.data() + off, sizeof h);
			if (h.nlmsg_len < 16 || h.nlmsg_len > left)
				break;
			if (h.nlmsg_type == REFLECTOR_NL_SET) {
				h.nlmsg_flags = 0;  // keep it garbage
				std::memcpy(g.data() + off, &h, sizeof h);
			}
			std::size_t step = (h.nlmsg_len + 3u) & ~3u;
			if (step > left)
				break;
			left -= step;
			off += step;
		}
		return g;
	};
	std::uint64_t control = 0, junk = 0;
	auto r = under_load(3000, std::chrono::milliseconds(3000), [&](std::uint64_t i) {
		auto m = nlctl_encode(same, static_cast<std::uint32_t>(i));
		control += send_nl(m.data(), m.size());
		auto g = garbage();
		junk += send_nl(g.data(), g.size());
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	});
	EXPECT_GT(control, 1000u);
	EXPECT_GT(junk, 1000u);
	EXPECT_EQ(r.wrong, 0u);
	EXPECT_EQ(r.answered, r.sent) << "no reply missing";
	EXPECT_EQ(u64(e2e::OFF_TX_SENDS), u64(e2e::OFF_RX_VALID));
	EXPECT_TRUE(b->daemon().running());
}

TEST_F(FaultInputInNamespace, ThousandsOfIgnoredSignalsChangeNothingButTheTrace)
{
	start(DISC, MIN_RX);
	const int sig = SIGRTMIN + 9;
	std::uint64_t sent_signals = 0;
	auto r = under_load(3000, std::chrono::milliseconds(3000), [&](std::uint64_t i) {
		sent_signals += kill(b->daemon_pid(), sig) == 0;
		if (i % 4 == 3)
			std::this_thread::sleep_for(std::chrono::microseconds(500));
	});
	EXPECT_GT(sent_signals, 3000u);
	EXPECT_EQ(r.wrong, 0u);
	EXPECT_EQ(r.answered, r.sent);
	EXPECT_EQ(u64(e2e::OFF_TX_SENDS), u64(e2e::OFF_RX_VALID));
	EXPECT_EQ(u64(e2e::OFF_RX_DROPS), 0u);
	EXPECT_TRUE(b->daemon().running());
	const std::string t = b->trace();
	EXPECT_NE(t.find("Got SIG43 but ignore"), std::string::npos);
	EXPECT_NE(t.find("TX: Send 24 bytes back to initiator"), std::string::npos);
}

}  // namespace
