// fault_test.cpp -- the daemon under load while harm is done to it: SIGKILL
// and a restart with -S, then a flood of malformed frames, netlink garbage, a
// control message every millisecond and thousands of SIGRTMIN+9. None may
// make a reply wrong or missing, lose a counter or a session, or move one back.
#include <linux/netlink.h>
#include <signal.h>

#include <algorithm>
#include <random>

#include "e2e/e2eutil.h"
#include "nlctl.h"

namespace {

constexpr std::uint32_t DISC = 7, MIN_RX = 3300, SESSIONS = 64;
using e2e::ms;

struct load_result {
	std::uint64_t sent = 0;      // requests the kernel took
	std::uint64_t answered = 0;  // right replies, each to a distinct request
	std::uint64_t wrong = 0;     // wrong replies and second replies to one request
};

class FaultInNamespace : public e2e::E2eTest {
protected:
	// Sends requests from 64 initiators (My Discriminator 5000 + k) at `rate`
	// per second for `d`, calls `harm(i)` for i = 0, 1, ... in between, and
	// checks every reply. Each request's sequence number, in Desired Min TX
	// Interval, comes back in its reply (also a reply to a malformed frame).
	template <typename F> load_result load(std::uint32_t rate, ms d, F harm)
	{
		load_result res;
		std::vector<std::uint8_t> answered(rate * static_cast<std::size_t>(d.count()) / 1000);
		const auto start = std::chrono::steady_clock::now();
		const auto period = std::chrono::nanoseconds(1000000000ull / rate);
		for (std::uint64_t seq = 0, i = 0;; i++) {
			const auto now = std::chrono::steady_clock::now();
			for (std::uint8_t b[BFD_PKT_LEN]; seq < answered.size() && start + period * static_cast<long>(seq) <= now; seq++) {
				probe_encode_request({.my_disc = static_cast<std::uint32_t>(5000 + seq % SESSIONS), .your_disc = DISC,
						      .state = BFD_STATE_UP, .min_tx_us = static_cast<std::uint32_t>(seq)}, b);
				res.sent += send(udp.get(), b, sizeof b, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof b);
			}
			if (seq == answered.size() && (res.answered + res.wrong >= res.sent || now > start + d + ms(500)))
				return res;
			harm(i);
			std::uint8_t b[64];
			bfd_ctrl_pkt r;
			for (ssize_t n; (n = recv(udp.get(), b, sizeof b, MSG_DONTWAIT)) >= 0;) {
				const std::uint64_t s = n == static_cast<ssize_t>(BFD_PKT_LEN) && probe_decode({b, BFD_PKT_LEN}, &r)
								? ntohl(r.min_tx_interval) : ~0ull;
				const bool right = s < answered.size() && ntohl(r.your_disc) == 5000 + s % SESSIONS &&
						   ntohl(r.my_disc) == DISC && bfd_state_of(r) == BFD_STATE_UP &&
						   !(r.flags & BFD_FLAG_D) && r.min_echo_rx_interval == 0 &&
						   ntohl(r.min_rx_interval) == MIN_RX;
				(right && !answered[s]++ ? res.answered : res.wrong)++;
			}
		}
	}
};

TEST_F(FaultInNamespace, KillNineThenPersistRestartUnderHarmLosesNothingAndAnswersEveryRequestRightly)
{
	start(DISC, MIN_RX);
	const auto t0 = std::chrono::steady_clock::now();
	const auto busy = load(5000, ms(2000), [&](std::uint64_t) {
		if (daemon->running() && std::chrono::steady_clock::now() > t0 + ms(1000))
			kill(daemon->pid(), SIGKILL), testutil::wait_until([&] { return !daemon->running(); });
		std::this_thread::sleep_for(std::chrono::microseconds(200));
	});
	ASSERT_FALSE(daemon->running());
	EXPECT_EQ(busy.wrong, 0u);
	auto kept = [](reflector_shm s) {  // the hash counters restart each counting period
		s.rx_hash_miss = s.rx_hash_hit = s.rx_hash_trim = 0;
		return s;
	};
	const reflector_shm killed = kept(store());
	EXPECT_EQ(std::count_if(killed.sessions, killed.sessions + MAX_SESSIONS, [](auto &x) { return x.discriminator; }), SESSIONS);

	start(DISC, MIN_RX, {"-S"});
	const reflector_shm restored = kept(store());
	EXPECT_EQ(std::memcmp(&restored, &killed, SHM_SIZE), 0) << "taking the store up changes nothing";

	std::vector<std::uint8_t> good(BFD_PKT_LEN);
	probe_encode_request({.my_disc = 9, .your_disc = DISC}, good.data());
	auto broken = [&](std::size_t at, std::uint8_t v) {
		auto b = good;
		b[at] = v;
		return probe_frame_build(shape(), b);
	};
	const std::vector<std::vector<std::uint8_t>> bad = {
		broken(0, 0), broken(1, 0x40), broken(2, 0), broken(7, 0), broken(11, 8),  // version, D, Detect Mult, discriminators
		probe_frame_build(shape(), std::span(good).first(20))};
	unique_fd nl{netnsSocketAt(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK, ns_d.c_str())};
	const sockaddr_nl to{.nl_family = AF_NETLINK, .nl_pid = static_cast<std::uint32_t>(daemon->pid())};
	ASSERT_EQ(connect(nl.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
	auto send_nl = [&](std::span<const std::uint8_t> m) {
		return send(nl.get(), m.data(), m.size(), 0) == static_cast<ssize_t>(m.size());
	};
	// Random datagrams, half behind a plausible header of another type.
	// NLM_F_REQUEST is cleared wherever the daemon's walk may find a header
	// (multiples of 4; the flags' low byte at 6), so none holds a setting.
	std::mt19937 rng(20240611);
	auto garbage = [&] {
		std::vector<std::uint8_t> g(16 + rng() % 200);
		std::generate(g.begin(), g.end(), [&] { return static_cast<std::uint8_t>(rng()); });
		for (std::size_t i = 6; i < g.size(); i += 4)
			g[i] &= static_cast<std::uint8_t>(~NLM_F_REQUEST);
		const nlmsghdr h{static_cast<std::uint32_t>(16 + rng() % (g.size() - 15)),
				 static_cast<std::uint16_t>(17 + rng() % 1000), NLM_F_REQUEST, 0, 0};
		if (rng() % 2)
			std::memcpy(g.data(), &h, sizeof h);
		return g;
	};
	const nlctl_config same{DISC, MIN_RX, e2e::DAEMON_IP_H, false};
	std::uint64_t flooded = 0, control = 0, junk = 0, signals = 0;
	const auto r = load(3000, ms(3000), [&](std::uint64_t i) {
		for (std::uint64_t k = 4 * i; k < 4 * i + 4; k++)
			flooded += send(raw.get(), bad[k % bad.size()].data(), bad[k % bad.size()].size(), 0) > 0;
		control += send_nl(nlctl_encode(same, static_cast<std::uint32_t>(i)));
		junk += send_nl(garbage());
		for (int k = 0; k < 3; k++)
			signals += kill(daemon->pid(), SIGRTMIN + 9) == 0;
		std::this_thread::sleep_for(ms(1));
	});
	EXPECT_EQ(std::tuple(r.answered, r.wrong), std::tuple(r.sent, 0u)) << "every valid request answered, rightly";
	EXPECT_TRUE(daemon->running());
	EXPECT_GT(std::min({flooded, signals, 5 * control, 5 * junk}), 5000u) << "too little harm done";

	const reflector_shm now = store();
	for (const auto &k : SHMSTAT_COUNTERS)
		if (k.group != shmstat_group::hash)
			EXPECT_GE(shmstat_counter_value(k, now), shmstat_counter_value(k, killed)) << k.name << " went back";
	EXPECT_EQ(now.rx_valid_pkts - killed.rx_valid_pkts, r.sent) << "every request counted, no malformed frame";
	for (std::size_t k = 0; k < MAX_SESSIONS; k++) {  // each old session found again in its slot, none created
		const auto &was = killed.sessions[k], &is = now.sessions[k];
		EXPECT_TRUE(is.discriminator == was.discriminator && is.source_ip == was.source_ip &&
			    (!was.discriminator || is.num_received > was.num_received))
			<< "slot " << k;
	}
	// The killed run's trace is the previous generation, readable to its end.
	const std::string old = trace(".1");
	EXPECT_NE(old.find("INIT: orvalindwarden ready"), std::string::npos);
	EXPECT_NE(old.find("TX: Send 24 bytes back to initiator"), std::string::npos);
	EXPECT_NE(trace().find("Got SIG43 but ignore"), std::string::npos);
}

}  // namespace
