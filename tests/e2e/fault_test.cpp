// fault_test.cpp -- the daemon under load while harm is done to it: killed
// with SIGKILL and started again with -S (no counter and no session is lost,
// the counters only move forward, and the killed run's trace stays readable
// in its previous-generation file); a flood of malformed frames mixed with
// valid requests; netlink garbage and a control message every millisecond;
// thousands of SIGRTMIN+9. None of them may make a reply wrong or missing,
// and the counters must add up.
#include <linux/netlink.h>
#include <signal.h>

#include <algorithm>
#include <random>

#include "e2e/e2eutil.h"
#include "nlctl.h"
#include "shmstat.h"

namespace {

constexpr std::uint32_t DISC = 7;
constexpr std::uint32_t MIN_RX = 3300;
constexpr std::uint32_t SESSIONS = 64;
using e2e::ms;

struct load_result {
	std::uint64_t sent = 0;       // requests the kernel took
	std::uint64_t answered = 0;   // right replies, each to a distinct request
	std::uint64_t wrong = 0;      // replies that are not
	std::uint64_t duplicate = 0;  // second replies to one request
};

class FaultInNamespace : public e2e::E2eTest {
protected:
	// Offers well-formed requests from 64 initiators (My Discriminator
	// 5000 + k, one UDP socket) at `rate` per second for `d`, calls
	// `harm(i)` for i = 0, 1, ... in between, and checks every reply. Each
	// request carries its sequence number in Desired Min TX Interval, which
	// the reflector echoes, so every reply names its request. A reply is
	// right when it has the discriminators swapped, state Up, D clear,
	// Required Min Echo RX 0 and the daemon's Required Min RX.
	template <typename F> load_result load(std::uint32_t rate, ms d, F harm)
	{
		load_result res;
		const unique_fd sock = e2e::udp_socket(ns_i, e2e::INITIATOR_IP_H, e2e::DAEMON_IP_H);
		EXPECT_GE(sock.get(), 0);
		std::vector<std::uint8_t> answered(rate * static_cast<std::size_t>(d.count()) / 1000);
		const auto start = std::chrono::steady_clock::now();
		const auto period = std::chrono::nanoseconds(1000000000ull / rate);
		for (std::uint64_t seq = 0, i = 0;; i++) {
			const auto now = std::chrono::steady_clock::now();
			for (; seq < answered.size() && start + period * static_cast<long>(seq) <= now; seq++) {
				probe_params p;
				p.my_disc = 5000 + seq % SESSIONS;
				p.your_disc = DISC;
				p.state = BFD_STATE_UP;
				p.min_tx_us = static_cast<std::uint32_t>(seq);
				std::uint8_t b[BFD_PKT_LEN];
				probe_encode_request(p, b);
				res.sent += send(sock.get(), b, sizeof b, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof b);
			}
			if (seq == answered.size() && (res.answered + res.wrong >= res.sent || now > start + d + ms(500)))
				return res;
			harm(i);
			std::uint8_t b[64];
			bfd_ctrl_pkt r;
			for (ssize_t n; (n = recv(sock.get(), b, sizeof b, MSG_DONTWAIT)) >= 0;) {
				const std::uint64_t s = n == static_cast<ssize_t>(BFD_PKT_LEN) && probe_decode({b, BFD_PKT_LEN}, &r)
								? ntohl(r.min_tx_interval) : ~0ull;
				if (s >= answered.size() || ntohl(r.your_disc) != 5000 + s % SESSIONS || ntohl(r.my_disc) != DISC ||
				    bfd_state_of(r) != BFD_STATE_UP || (r.flags & BFD_FLAG_D) || r.min_echo_rx_interval != 0 ||
				    ntohl(r.min_rx_interval) != MIN_RX)
					res.wrong++;
				else
					(answered[s]++ ? res.duplicate : res.answered)++;
			}
		}
	}
	static void idle(std::uint64_t) { std::this_thread::sleep_for(std::chrono::microseconds(200)); }

	// The load under `harm`: every request must get one right reply, every
	// one counted and sent, and the daemon must still run.
	template <typename F> void expect_clean_under_load(std::uint32_t rate, ms d, F harm)
	{
		const auto r = load(rate, d, harm);
		EXPECT_EQ(std::tuple(r.wrong, r.duplicate), std::tuple(0u, 0u));
		EXPECT_EQ(r.answered, r.sent) << "every valid request answered";
		const reflector_shm shm = store();
		EXPECT_EQ(shm.tx_sends, shm.rx_valid_pkts);
		EXPECT_TRUE(daemon->running());
	}
};

TEST_F(FaultInNamespace, KillNineUnderLoadThenPersistRestartLosesNoCounterOrSession)
{
	start(DISC, MIN_RX);
	auto warm = load(2000, ms(300), idle);  // every session exists before the kill
	ASSERT_EQ(warm.answered, warm.sent);
	const pid_t first = daemon->pid();
	const auto t0 = std::chrono::steady_clock::now();
	const auto busy = load(5000, ms(2000), [&](std::uint64_t) {
		if (daemon->running() && std::chrono::steady_clock::now() > t0 + ms(1000))
			kill(first, SIGKILL), testutil::wait_until([&] { return !daemon->running(); });
		idle(0);
	});
	ASSERT_FALSE(daemon->running());
	EXPECT_GT(busy.answered, 0u);
	EXPECT_EQ(busy.wrong, 0u);
	// The hash counters restart each counting period; all else is kept.
	auto kept = [](reflector_shm s) {
		s.rx_hash_miss = s.rx_hash_hit = s.rx_hash_trim = 0;
		return s;
	};
	const reflector_shm killed = kept(store());
	EXPECT_EQ(std::count_if(killed.sessions, killed.sessions + MAX_SESSIONS, [](auto &x) { return x.discriminator; }), SESSIONS);
	// Every counted request was answered, except at most the one the kill
	// fell into (counted valid, not yet sent).
	EXPECT_LE(killed.rx_valid_pkts - killed.tx_sends - killed.sendto_fail, 1u);

	start(DISC, MIN_RX, {"-S"});
	ASSERT_NE(daemon->pid(), first);
	const reflector_shm restored = kept(store());
	EXPECT_EQ(std::memcmp(&restored, &killed, SHM_SIZE), 0) << "taking the store up changes nothing";
	const auto r = load(2000, ms(500), idle);
	EXPECT_EQ(r.answered, r.sent);
	EXPECT_EQ(r.wrong, 0u);

	const reflector_shm now = store();
	for (const auto &k : SHMSTAT_COUNTERS)
		if (k.group != shmstat_group::hash)
			EXPECT_GE(shmstat_counter_value(k, now), shmstat_counter_value(k, killed)) << k.name << " went back";
	EXPECT_EQ(now.rx_valid_pkts - killed.rx_valid_pkts, r.sent) << "every request counted";
	for (std::size_t k = 0; k < MAX_SESSIONS; k++) {  // the old sessions found again in their slots, none created
		const auto &was = killed.sessions[k], &is = now.sessions[k];
		EXPECT_TRUE(is.discriminator == was.discriminator && is.source_ip == was.source_ip &&
			    (!was.discriminator || is.num_received > was.num_received))
			<< "slot " << k;
	}

	// The killed run's trace is the previous generation, readable to its end.
	const std::string old = trace(".1");
	EXPECT_NE(old.find("INIT: orvalindwarden ready"), std::string::npos);
	EXPECT_NE(old.find("TX: Send 24 bytes back to initiator"), std::string::npos);
	EXPECT_NE(trace().find("INIT: orvalindwarden ready"), std::string::npos);
}

TEST_F(FaultInNamespace, MalformedFloodLeavesEveryValidRequestAnswered)
{
	start(DISC, MIN_RX);
	// Kinds of frames the filters pass and the daemon must drop, each
	// broken in one place.
	probe_params p;
	p.my_disc = 9;
	p.your_disc = DISC;
	std::vector<std::uint8_t> good(BFD_PKT_LEN);
	probe_encode_request(p, good.data());
	const frame_spec s = shape();
	auto broken = [&](std::size_t at, std::uint8_t v) {
		auto b = good;
		b[at] = v;
		return probe_frame_build(s, b);
	};
	frame_spec tcp = s, two = s, from7784 = s;
	tcp.labels = {0};
	tcp.ip_proto = 6;
	two.labels = {0, 0};
	from7784.src_port = SBFD_PORT;
	const std::vector<std::vector<std::uint8_t>> bad = {
		broken(0, 0),     // version 0
		broken(1, 0x40),  // D clear
		broken(7, 0),     // My Discriminator 0
		broken(11, 8),    // Your Discriminator not ours
		probe_frame_build(s, std::span(good).first(20)), probe_frame_build(tcp, good), probe_frame_build(two, good),
		probe_frame_build(from7784, good)};

	std::uint64_t flooded = 0;
	expect_clean_under_load(2000, ms(3000), [&](std::uint64_t i) {
		flooded += send_frame(bad[i % bad.size()]);
		if (i % 4 == 3)
			std::this_thread::sleep_for(std::chrono::microseconds(200));
	});
	EXPECT_GT(flooded, 5000u);
	// Frames may be lost to a full socket buffer, but none is counted twice.
	EXPECT_LE(store().rx_drops, flooded);
}

TEST_F(FaultInNamespace, NetlinkGarbageAndAControlMessageEveryMillisecondChangeNoReply)
{
	start(DISC, MIN_RX);
	unique_fd nl{netnsSocketAt(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK, ns_d.c_str())};
	ASSERT_GE(nl.get(), 0);
	sockaddr_nl to{};
	to.nl_family = AF_NETLINK;
	to.nl_pid = static_cast<std::uint32_t>(daemon->pid());
	auto send_nl = [&](const std::uint8_t *p, std::size_t n) {
		return sendto(nl.get(), p, n, 0, reinterpret_cast<sockaddr *>(&to), sizeof to) == static_cast<ssize_t>(n);
	};
	const nlctl_config same{DISC, MIN_RX, e2e::DAEMON_IP_H, false};
	// Garbage: random datagrams, often behind a plausible header of another
	// type. No message the daemon's walk may find has NLM_F_REQUEST set
	// (headers start at multiples of 4; the flags' low byte is at 6), so
	// none can hold a setting.
	std::mt19937 rng(20240611);
	auto garbage = [&] {
		std::vector<std::uint8_t> g(16 + rng() % 200);
		for (auto &x : g)
			x = static_cast<std::uint8_t>(rng());
		for (std::size_t i = 6; i < g.size(); i += 4)
			g[i] &= static_cast<std::uint8_t>(~NLM_F_REQUEST);
		if (rng() % 2) {
			const nlmsghdr h{static_cast<std::uint32_t>(16 + rng() % (g.size() - 15)),
					 static_cast<std::uint16_t>(17 + rng() % 1000), NLM_F_REQUEST, 0, 0};
			std::memcpy(g.data(), &h, sizeof h);
		}
		return g;
	};
	std::uint64_t control = 0, junk = 0;
	expect_clean_under_load(3000, ms(3000), [&](std::uint64_t i) {
		const auto m = nlctl_encode(same, static_cast<std::uint32_t>(i));
		control += send_nl(m.data(), m.size());
		const auto g = garbage();
		junk += send_nl(g.data(), g.size());
		std::this_thread::sleep_for(ms(1));
	});
	EXPECT_GT(control, 1000u);
	EXPECT_GT(junk, 1000u);
}

TEST_F(FaultInNamespace, ThousandsOfIgnoredSignalsChangeNothingButTheTrace)
{
	start(DISC, MIN_RX);
	std::uint64_t signals = 0;
	expect_clean_under_load(3000, ms(3000), [&](std::uint64_t i) {
		signals += kill(daemon->pid(), SIGRTMIN + 9) == 0;
		if (i % 4 == 3)
			std::this_thread::sleep_for(std::chrono::microseconds(500));
	});
	EXPECT_GT(signals, 3000u);
	EXPECT_EQ(store().rx_drops, 0u);
	const std::string t = trace();
	EXPECT_NE(t.find("Got SIG43 but ignore"), std::string::npos);
	EXPECT_NE(t.find("TX: Send 24 bytes back to initiator"), std::string::npos);
}

}  // namespace
