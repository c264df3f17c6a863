// shmstat_test.cpp -- the store reader of orvalindwarden-stat: size and
// plausibility rules, and what the renderings derive or must keep (the
// end-to-end run reads all three formats of a live store).
#include <arpa/inet.h>
#include <sys/mman.h>

#include <cctype>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "shmstat.h"
#include "testutil.h"
#include "unique_fd.h"

namespace {

// A store with three sessions in the slots the daemon hands out first.
std::unique_ptr<shmstat_snapshot> sample_snapshot()
{
	auto snap = std::make_unique<shmstat_snapshot>();
	snap->stable = true;
	snap->taken = {1700000100, 0};
	reflector_shm &st = snap->store;
	st.rx_valid_pkts = st.tx_sends = 600;  // period of 600 % 512 + 1 = 89 lookups
	st.rx_drops = 7, st.bad_version = 3, st.sendto_fail = 1;
	st.rx_hash_hit = 80, st.rx_hash_miss = 9, st.rx_hash_trim = 2;
	const std::tuple<std::uint32_t, std::uint32_t, const char *, std::int64_t> rows[] = {
		{511, 100, "192.0.2.10", 1700000090}, {510, 200, "192.0.2.11", 1700000099}, {509, 300, "198.51.100.7", 1700000050}};
	for (const auto &[slot, disc, ip, last_rx] : rows) {
		reflector_session &s = st.sessions[slot];
		s.discriminator = disc;
		s.source_ip = inet_addr(ip);
		s.source_port = 49152;
		s.state = s.tx_state = BFD_STATE_UP;
		s.version = s.demand = 1;
		s.num_received = s.num_sent = 11;
		s.period_sum = 10000005, s.min_period = 990000, s.max_period = 1010000;
		s.last_rx = s.last_tx = {last_rx, 5};
		s.last_state_change = s.last_tx_state_change = {last_rx - 100, 0};
	}
	return snap;
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
	auto want = sample_snapshot();
	ASSERT_EQ(read_back(&want->store, SHM_SIZE), SHMSTAT_OK) << err;
	EXPECT_EQ(std::memcmp(&snap->store, &want->store, SHM_SIZE), 0);
	EXPECT_TRUE(snap->stable);
}

// Each case breaks one rule; `cross` rules apply to a stable copy only.
TEST(ShmstatPlausible, RejectsEachBrokenRuleAndAcceptsItsBoundary)
{
	const std::tuple<const char *, void (*)(reflector_shm &), bool, bool> cases[] = {  // what, edit, accepted, cross
		{"sample store", [](reflector_shm &) {}, true, false},
		{"state 4", [](reflector_shm &s) { s.sessions[511].state = 4; }, false, false},
		{"tx_diag 32", [](reflector_shm &s) { s.sessions[511].tx_diag = 32; }, false, false},
		{"poll 2", [](reflector_shm &s) { s.sessions[509].poll = 2; }, false, false},
		{"reserved", [](reflector_shm &s) { s.sessions[509].reserved[1] = 1; }, false, false},
		{"nsec 1e9", [](reflector_shm &s) { s.sessions[511].last_rx.tv_nsec = 1000000000; }, false, false},
		{"negative sec", [](reflector_shm &s) { s.sessions[511].last_tx_state_change.tv_sec = -1; }, false, false},
		{"free slot dirty", [](reflector_shm &s) { s.sessions[0].num_received = 1; }, false, true},
		{"trim above miss", [](reflector_shm &s) { s.rx_hash_trim = 10; }, false, true},
		{"hash above period", [](reflector_shm &s) { s.rx_hash_hit = 81; }, false, true},
		{"first period full", [](reflector_shm &s) { s.rx_valid_pkts = s.rx_hash_miss = 100, s.rx_hash_hit = s.rx_hash_trim = 0; },
		 true, true},
		{"first period over", [](reflector_shm &s) { s.rx_valid_pkts = s.rx_hash_miss = 100, s.rx_hash_hit = 1, s.rx_hash_trim = 0; },
		 false, true},
		{"counted, not yet looked up",
		 [](reflector_shm &s) { s.rx_valid_pkts = 1024, s.rx_hash_hit = 500, s.rx_hash_miss = 12, s.rx_hash_trim = 0; }, true, true},
	};
	for (const auto &[what, edit, accepted, cross] : cases) {
		auto snap = sample_snapshot();
		edit(snap->store);
		std::string why;
		EXPECT_EQ(shmstat_plausible(snap->store, true, &why), accepted) << what << ": " << why;
		if (cross) {  // a torn copy must not be rejected for these
			EXPECT_TRUE(shmstat_plausible(snap->store, false, &why)) << what << ": " << why;
		}
	}
}

TEST(ShmstatJson, DerivesTheAveragePeriodAndAgeOfEachSession)
{
	const auto doc = nlohmann::json::parse(shmstat_format_json(*sample_snapshot(), "orvalindwarden"));
	const auto &first = doc["sessions"][0];  // most recently heard
	EXPECT_EQ(std::tuple(first["discriminator"], first["avg_period_us"]), std::tuple(200, 1000000));
	EXPECT_NEAR(first["last_rx_age_s"].get<double>(), 1.0, 1e-6);
}

TEST(ShmstatPrometheus, EverySampleHasHelpAndTypeAndSessionsAreLabelled)
{
	std::istringstream in(shmstat_format_prometheus(*sample_snapshot()));
	std::map<std::string, std::string> type;  // metric -> counter or gauge, from its TYPE line
	std::set<std::string> help, series;
	for (std::string line, a, b, c; std::getline(in, line);) {
		std::istringstream(line) >> a >> b >> c;
		if (a == "#") {
			if (b == "HELP")
				help.insert(c);
			else if (b == "TYPE")
				type[c] = line.substr(line.rfind(' ') + 1);
			continue;
		}
		const std::string metric = a.substr(0, a.find('{'));
		ASSERT_TRUE(help.count(metric) && type.count(metric)) << line;
		EXPECT_TRUE(series.insert(a).second) << "duplicate series " << a;
		EXPECT_EQ(type[metric] == "counter", metric.ends_with("_total")) << metric;
		EXPECT_EQ(b.find_first_not_of("0123456789."), std::string::npos) << line;
	}
	EXPECT_EQ(type["orvalindwarden_rx_hash_hit"], "gauge");
	EXPECT_TRUE(series.count("orvalindwarden_session_received_total{discriminator=\"300\",address=\"198.51.100.7\"}"));
}

TEST(ShmstatText, AlignsTheSessionTableAndShowsRatesAcrossAWrap)
{
	auto prev = sample_snapshot(), cur = sample_snapshot();
	prev->store.bad_version = 0xFFFFFFFF;  // wraps to 3: 4 in 2 s
	cur->taken.tv_sec += 2;
	cur->store.sessions[510].num_received += 10;  // 5.0 per second
	std::istringstream in(shmstat_format_text(*cur, "orvalindwarden", prev.get()));
	std::size_t end = std::string::npos;  // where the header's RECEIVED ends
	int rows = 0;
	for (std::string line; std::getline(in, line);) {
		if (line.find("bad_version") != std::string::npos) {
			EXPECT_NE(line.find(" 2.0"), std::string::npos) << line;
		}
		if (line.starts_with("DISCRIMINATOR")) {
			end = line.find("RECEIVED") + std::strlen("RECEIVED");
		} else if (end != std::string::npos) {  // a session row: its count ends where the header does
			rows++;
			ASSERT_GT(line.size(), end) << line;
			EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(line[end - 1])) && line[end] == ' ') << line;
			if (line.find(" 200  192.0.2.11:49152 ") != std::string::npos) {
				EXPECT_NE(line.find(" 5.0 "), std::string::npos) << "10 requests in 2 s: " << line;
			}
		}
	}
	EXPECT_EQ(rows, 3);
}

}  // namespace
