// fault_restart_test.cpp -- the daemon killed with SIGKILL in the middle of
// a load and started again with -S: no counter and no session is lost, the
// counters only move forward across the restart, and the trace of the
// killed run stays readable in its previous-generation file.
#include <signal.h>

#include <map>

#include "e2eutil.h"
#include "fault_util.h"

namespace {

constexpr std::uint32_t DISC = 7;
constexpr std::uint32_t MIN_RX = 3300;
constexpr std::uint32_t SESSIONS = 64;

// Every header counter that only ever grows (the three hash counters
// restart each counting period, so they are left out), by offset.
const std::map<std::size_t, std::size_t> GROWING = {
	{0, 8}, {8, 8}, {16, 8}, {24, 4}, {28, 4}, {32, 4}, {36, 4}, {40, 4}, {44, 4}, {48, 4},
	{52, 4}, {56, 4}, {60, 4}, {64, 4}, {68, 4}, {72, 4}};

struct store_copy {
	std::map<std::size_t, std::uint64_t> counters;
	std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint64_t> sessions;  // key -> num_received
};

store_copy copy_of(const e2e::shm_view &v)
{
	store_copy c;
	for (auto [off, size] : GROWING)
		c.counters[off] = size == 8 ? v.u64(off) : v.u32(off);
	for (std::size_t k = 0; k < MAX_SESSIONS; k++) {
		const std::size_t off = 88 + 136 * k;
		if (v.u32(off) != 0)
			c.sessions[{v.u32(off), v.u32(off + 4)}] = v.u64(off + 48);
	}
	return c;
}

fault::load_spec spec_for(const e2e::bench &b, std::uint32_t rate, std::chrono::milliseconds d)
{
	fault::load_spec s;
	s.ns = b.ns_i();
	s.src_h = e2e::INITIATOR_IP_H;
	s.dst_h = e2e::DAEMON_IP_H;
	s.your_disc = DISC;
	s.min_rx = MIN_RX;
	s.sessions = SESSIONS;
	s.rate = rate;
	s.duration = d;
	return s;
}

using FaultRestartInNamespace = e2e::E2eTest;

TEST_F(FaultRestartInNamespace, KillNineUnderLoadThenPersistRestartLosesNoCounterOrSession)
{
	start(DISC, MIN_RX);
	{
		// Every session exists before the kill.
		fault::load warm(spec_for(*b, 2000, std::chrono::milliseconds(300)));
		ASSERT_TRUE(warm.ok());
		auto r = warm.join();
		ASSERT_EQ(r.answered, r.sent);
	}
	const pid_t first = b->daemon_pid();
	{
		fault::load busy(spec_for(*b, 5000, std::chrono::milliseconds(2000)));
		ASSERT_TRUE(busy.ok());
		std::this_thread::sleep_for(std::chrono::milliseconds(1000));
		ASSERT_EQ(kill(first, SIGKILL), 0);
		ASSERT_TRUE(b->daemon().wait(std::chrono::seconds(5)));
		auto r = busy.join();
		EXPECT_GT(r.answered, 0u);
		EXPECT_EQ(r.wrong, 0u);
	}
	store_copy killed;
	{
		e2e::shm_view v(b->shm_path());
		ASSERT_TRUE(v.ok());
		killed = copy_of(v);
	}
	ASSERT_EQ(killed.sessions.size(), SESSIONS);
	// Every counted request was answered, except at most the one the kill
	// fell into (counted valid, not yet sent).
	const std::uint64_t unanswered = killed.counters[16] - killed.counters[8] - killed.counters[68];
	EXPECT_LE(unanswered, 1u);

	start(DISC, MIN_RX, {"-S"});
	ASSERT_NE(b->daemon_pid(), first);
	{
		e2e::shm_view v(b->shm_path());
		ASSERT_TRUE(v.ok());
		store_copy restored = copy_of(v);
		EXPECT_EQ(restored.counters, killed.counters) << "taking the store up changes nothing";
		EXPECT_EQ(restored.sessions, killed.sessions);
	}
	fault::load after(spec_for(*b, 2000, std::chrono::milliseconds(500)));
	ASSERT_TRUE(after.ok());
	auto r = after.join();
	EXPECT_EQ(r.answered, r.sent);
	EXPECT_EQ(r.wrong, 0u);

	e2e::shm_view v(b->shm_path());
	store_copy now = copy_of(v);
	for (auto [off, value] : killed.counters)
		EXPECT_GE(now.counters[off], value) << "counter at offset " << off << " went back";
	EXPECT_EQ(now.counters[16] - killed.counters[16], r.sent) << "every request of the new run counted";
	EXPECT_EQ(now.sessions.size(), SESSIONS) << "the old sessions were found again, none created";
	for (auto [key, received] : killed.sessions) {
		ASSERT_TRUE(now.sessions.count(key));
		EXPECT_GT(now.sessions[key], received);
	}

	// The killed run's trace is the previous generation, readable to its end.
	std::string old = testutil::output_of(e2e::bin("blcat") + " " + b->trace_path() + ".1");
	EXPECT_NE(old.find("INIT: orvalindwarden ready"), std::string::npos);
	EXPECT_NE(old.find("TX: Send 24 bytes back to initiator"), std::string::npos);
	EXPECT_NE(b->trace().find("INIT: orvalindwarden ready"), std::string::npos);
}

}  // namespace
