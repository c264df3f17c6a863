// shmstat_test.cpp -- the store reader of orvalindwarden-stat: size and
// plausibility rules, and its three renderings of a fixed store compared
// byte for byte with golden files (the end-to-end run reads a live store).
#include <arpa/inet.h>
#include <sys/mman.h>

#include <cstring>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>

#include "shmstat.h"
#include "testutil.h"
#include "unique_fd.h"

namespace {

// A fixed store: every header counter and every field of sessions A (slot
// 511) and B (slot 300) holds a value of its own, so that a counter read at
// another's offset or a field rendered under another's name shows; C (slot
// 510) has one request and no reply. rx_hash_hit + rx_hash_miss is exactly
// the lookups of the counting period (rx_valid_pkts mod 512 + 1 = 301).
std::unique_ptr<shmstat_snapshot> fixed_snapshot()
{
	auto snap = std::make_unique<shmstat_snapshot>();
	snap->stable = true;
	snap->taken = {1700000100, 250000000};  // 2023-11-14 22:15:00.25 UTC
	reflector_shm &st = snap->store;
	st.rx_drops = 4294967313, st.tx_sends = 6442450951, st.rx_valid_pkts = 4294967596;  // above 32 bits
	st.pkt_truncated = 3, st.bad_version = 5, st.invalid_pkt_len = 7, st.invalid_src_port = 11, st.demand_mode_unset = 13;
	st.invalid_detect_mult = 17, st.invalid_my_disc = 19, st.your_disc_unmatch = 23, st.invalid_bfd_state = 29;
	st.unsupported = 31, st.invalid_pkt_format = 37, st.sendto_fail = 41, st.wrong_len_sent = 43;
	st.rx_hash_miss = 51, st.rx_hash_hit = 250, st.rx_hash_trim = 9;
	// Slot, discriminator, address, port; the rest is set below.
	const std::tuple<std::uint32_t, std::uint32_t, const char *, std::uint16_t> rows[] = {
		{511, 100, "192.0.2.10", 49153}, {300, 200, "198.51.100.7", 50000}, {510, 300, "203.0.113.5", 3785}};
	for (const auto &[slot, disc, ip, port] : rows) {
		reflector_session &s = st.sessions[slot];
		s.discriminator = disc, s.source_ip = inet_addr(ip), s.source_port = port;
		s.version = 1, s.length = 24;
	}
	reflector_session &a = st.sessions[511], &b = st.sessions[300], &c = st.sessions[510];
	a.desired_min_tx = 300000, a.required_min_rx = 250000, a.required_min_echo_rx = 50000;
	a.min_period = 290123, a.max_period = 310456, a.period_sum = 11 * 300001, a.num_received = 12, a.num_sent = 9;
	a.your_disc = 7777, a.detect_multiplier = 3, a.diag = 2, a.demand = 1, a.poll = 1;
	a.state = BFD_STATE_UP, a.prev_state = BFD_STATE_DOWN, a.tx_state = BFD_STATE_ADMIN_DOWN, a.prev_tx_state = BFD_STATE_INIT;
	a.tx_diag = BFD_DIAG_ADMIN_DOWN;
	a.last_rx = {1700000090, 123456789}, a.last_state_change = {1699999000, 5};
	a.last_tx = {1700000090, 223456789}, a.last_tx_state_change = {1699990000, 7};
	b.desired_min_tx = 1000000, b.required_min_rx = 700000, b.required_min_echo_rx = 60000;
	b.min_period = 990000, b.max_period = 1020000, b.period_sum = 4 * 1000500, b.num_received = 5, b.num_sent = 4;
	b.your_disc = 8888, b.detect_multiplier = 5, b.diag = BFD_DIAG_NEIGHBOR_DOWN, b.length = 28, b.final = 1;
	b.state = BFD_STATE_DOWN, b.prev_state = BFD_STATE_INIT, b.tx_state = BFD_STATE_UP, b.prev_tx_state = BFD_STATE_ADMIN_DOWN;
	b.last_rx = {1699913600, 999999999}, b.last_state_change = {1699900000, 3};
	b.last_tx = {1699913601, 500}, b.last_tx_state_change = {1699913000, 1};
	c.desired_min_tx = 50000, c.detect_multiplier = 2, c.demand = 1, c.state = BFD_STATE_DOWN, c.num_received = 1;
	c.last_rx = c.last_state_change = {1700000099, 999000000};
	return snap;
}

// Compares `text` with tests/data/<file> byte for byte. After a deliberate
// change of an output, regenerate the files with
//   ORV_UPDATE_GOLDEN=1 ctest --test-dir BUILD -R ShmstatGolden
// and review the difference (git diff tests/data) before committing it.
void expect_golden(const std::string &text, const std::string &file)
{
	const std::string path = ORV_SOURCE_DIR "/tests/data/" + file;
	if (std::getenv("ORV_UPDATE_GOLDEN"))
		std::ofstream(path, std::ios::binary) << text;
	EXPECT_EQ(text, testutil::read_file(path)) << file << " differs (ORV_UPDATE_GOLDEN=1 rewrites it)";
}

// The renderings under TZ=UTC (the text's title shows local time); ages are
// measured to the copy's time, so the output does not depend on the clock.
TEST(ShmstatGolden, TextJsonAndPrometheusRenderingsOfAFixedStoreAreTheGoldenOnes)
{
	setenv("TZ", "UTC", 1);
	tzset();
	const auto snap = fixed_snapshot();
	expect_golden(shmstat_format_text(*snap, "orvalindwarden", nullptr), "stat_golden.txt");
	expect_golden(shmstat_format_json(*snap, "orvalindwarden"), "stat_golden.json");
	// Templated so that it builds whether or not the store's name is passed.
	const auto prometheus = [](const auto &s) {
		if constexpr (requires { shmstat_format_prometheus(s, std::string()); })
			return shmstat_format_prometheus(s, "orvalindwarden");
		else
			return shmstat_format_prometheus(s);
	};
	expect_golden(prometheus(*snap), "stat_golden.prom");
	// Rates over 2 s: the k-th counter grew by 2k (k/s; the small ones
	// wrapped), A received 4 requests and sent 2 more, slot 300 held
	// another initiator ("-").
	auto prev = fixed_snapshot();
	reflector_shm &p = prev->store;
	prev->taken.tv_sec -= 2;
	p.rx_drops -= 2, p.tx_sends -= 4, p.rx_valid_pkts -= 6, p.pkt_truncated -= 8, p.bad_version -= 10, p.invalid_pkt_len -= 12;
	p.invalid_src_port -= 14, p.demand_mode_unset -= 16, p.invalid_detect_mult -= 18, p.invalid_my_disc -= 20;
	p.your_disc_unmatch -= 22, p.invalid_bfd_state -= 24, p.unsupported -= 26, p.invalid_pkt_format -= 28;
	p.sendto_fail -= 30, p.wrong_len_sent -= 32, p.rx_hash_miss -= 34, p.rx_hash_hit -= 36, p.rx_hash_trim -= 38;
	p.sessions[511].num_received -= 4, p.sessions[511].num_sent -= 2, p.sessions[300].discriminator = 201;
	expect_golden(shmstat_format_text(*snap, "orvalindwarden", prev.get()), "stat_golden_rates.txt");
}

TEST(ShmstatRead, CopiesAStoreAndRejectsAMissingObjectWrongSizesAndGarbage)
{
	const std::string name = testutil::unique_name("orvstat-test");
	const testutil::undo unlink{[&] { shm_unlink(name.c_str()); }};
	auto snap = std::make_unique<shmstat_snapshot>();
	std::string err;
	auto read_back = [&](const void *data, std::size_t len) {
		unique_fd fd{shm_open(name.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600)};
		EXPECT_EQ(::write(fd.get(), data, len), static_cast<ssize_t>(len));
		return shmstat_read(name, snap.get(), &err);
	};
	EXPECT_EQ(shmstat_read(name, snap.get(), &err), SHMSTAT_NOT_FOUND);
	const std::string junk(SHM_SIZE + 1, '\x5a');
	for (std::size_t size : {std::size_t(0), SHM_SIZE - 1, SHM_SIZE + 1}) {
		EXPECT_EQ(read_back(junk.data(), size), SHMSTAT_WRONG_SIZE) << size;
		EXPECT_NE(err.find(std::to_string(size) + " bytes"), std::string::npos) << err;
	}
	EXPECT_EQ(read_back(junk.data(), SHM_SIZE), SHMSTAT_NOT_A_STORE);
	auto want = fixed_snapshot();
	ASSERT_EQ(read_back(&want->store, SHM_SIZE), SHMSTAT_OK) << err;
	EXPECT_EQ(std::memcmp(&snap->store, &want->store, SHM_SIZE), 0);
	EXPECT_TRUE(snap->stable);
}

// Each case breaks one rule of the fixed store; `cross` rules apply to a stable copy only.
TEST(ShmstatPlausible, RejectsEachBrokenRuleAndAcceptsItsBoundary)
{
	const std::tuple<const char *, void (*)(reflector_shm &), bool, bool> cases[] = {  // what, edit, accepted, cross
		{"fixed store: hash counters at the period's limit", [](reflector_shm &) {}, true, false},
		{"state 4", [](reflector_shm &s) { s.sessions[511].state = 4; }, false, false},
		{"tx_diag 32", [](reflector_shm &s) { s.sessions[511].tx_diag = 32; }, false, false},
		{"poll 2", [](reflector_shm &s) { s.sessions[300].poll = 2; }, false, false},
		{"reserved", [](reflector_shm &s) { s.sessions[300].reserved[1] = 1; }, false, false},
		{"nsec 1e9", [](reflector_shm &s) { s.sessions[511].last_rx.tv_nsec = 1000000000; }, false, false},
		{"negative sec", [](reflector_shm &s) { s.sessions[511].last_tx_state_change.tv_sec = -1; }, false, false},
		{"free slot dirty", [](reflector_shm &s) { s.sessions[0].num_received = 1; }, false, true},
		{"trim above miss", [](reflector_shm &s) { s.rx_hash_trim = s.rx_hash_miss + 1; }, false, true},
		{"hash above period", [](reflector_shm &s) { s.rx_hash_hit++; }, false, true},
		{"first period full", [](reflector_shm &s) { s.rx_valid_pkts = s.rx_hash_miss = 100, s.rx_hash_hit = s.rx_hash_trim = 0; },
		 true, true},
		{"first period over", [](reflector_shm &s) { s.rx_valid_pkts = s.rx_hash_miss = 100, s.rx_hash_hit = 1, s.rx_hash_trim = 0; },
		 false, true},
		{"counted, not yet looked up",
		 [](reflector_shm &s) { s.rx_valid_pkts = 1024, s.rx_hash_hit = 500, s.rx_hash_miss = 12, s.rx_hash_trim = 0; }, true, true},
	};
	for (const auto &[what, edit, accepted, cross] : cases) {
		auto snap = fixed_snapshot();
		edit(snap->store);
		std::string why;
		EXPECT_EQ(shmstat_plausible(snap->store, true, &why), accepted) << what << ": " << why;
		if (cross) {  // a torn copy must not be rejected for these
			EXPECT_TRUE(shmstat_plausible(snap->store, false, &why)) << what << ": " << why;
		}
	}
}

}  // namespace
