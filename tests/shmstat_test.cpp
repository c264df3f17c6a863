// shmstat_test.cpp -- the store reader of orvalindwarden-stat: size and plausibility rules, its three
// renderings of a fixed store compared byte for byte with golden files, silent sessions, the daemon
// behind a store, and the history of --delta (the end-to-end run reads a live store).
#include <arpa/inet.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "runstate.h"
#include "shmhist.h"
#include "shmstat.h"
#include "testutil.h"
#include "unique_fd.h"

namespace {

// A fixed store: every header counter and every field of sessions A (slot 511) and B (slot 300)
// holds a value of its own, so that a counter read at another's offset or a field rendered under
// another's name shows; C (slot 510) has one request and no reply. rx_hash_hit + rx_hash_miss is
// exactly the lookups of the counting period (rx_valid_pkts mod 512 + 1 = 301).
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
	const std::tuple<std::uint32_t, std::uint32_t, const char *, std::uint16_t> rows[] = {  // slot, disc, address, port
		{511, 100, "192.0.2.10", 49153}, {300, 200, "198.51.100.7", 50000}, {510, 300, "198.51.100.5", 3785}};
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

// What the fixed store's renderings show beside it: daemon 4242 holds it,
// administratively down since 22:05, started at 22:00 (UTC).
shmstat_view fixed_view()
{
	shmstat_view v;
	v.daemon.pid = 4242, v.daemon.config_known = true;
	v.daemon.config = {77, inet_addr("192.0.2.1"), 300000, true, {1699999500, 500000000}, {1699999200, 0}};
	v.version = "1.0.0";
	return v;
}

// Compares `text` with tests/data/<file> byte for byte. After a deliberate change of an output,
// regenerate the files with `ORV_UPDATE_GOLDEN=1 ctest --test-dir BUILD -R ShmstatGolden`
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
	setenv("TZ", "UTC", 1), tzset();
	const auto snap = fixed_snapshot();
	const shmstat_view view = fixed_view();
	expect_golden(shmstat_format_text(*snap, "orvalindwarden", nullptr, view), "stat_golden.txt");
	expect_golden(shmstat_format_json(*snap, "orvalindwarden", view), "stat_golden.json");
	expect_golden(shmstat_format_prometheus(*snap, "orvalindwarden", view), "stat_golden.prom");
	// Rates over 2 s: the k-th counter grew by 2k (k/s; the small ones wrapped), A received 4
	// requests and sent 2 more, slot 300 held another initiator ("-").
	auto prev = fixed_snapshot();
	reflector_shm &p = prev->store;
	prev->taken.tv_sec -= 2;
	p.rx_drops -= 2, p.tx_sends -= 4, p.rx_valid_pkts -= 6, p.pkt_truncated -= 8, p.bad_version -= 10, p.invalid_pkt_len -= 12;
	p.invalid_src_port -= 14, p.demand_mode_unset -= 16, p.invalid_detect_mult -= 18, p.invalid_my_disc -= 20;
	p.your_disc_unmatch -= 22, p.invalid_bfd_state -= 24, p.unsupported -= 26, p.invalid_pkt_format -= 28;
	p.sendto_fail -= 30, p.wrong_len_sent -= 32, p.rx_hash_miss -= 34, p.rx_hash_hit -= 36, p.rx_hash_trim -= 38;
	p.sessions[511].num_received -= 4, p.sessions[511].num_sent -= 2, p.sessions[300].discriminator = 201;
	expect_golden(shmstat_format_text(*snap, "orvalindwarden", prev.get(), view), "stat_golden_rates.txt");
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

// Detection time: Detect Mult x Desired Min TX, never below 1 s; silent
// strictly past it, to the nanosecond, whatever the stored values.
TEST(ShmstatSilent, FlagsASessionOnlyPastItsAnnouncedDetectionTimeWithAOneSecondFloor)
{
	constexpr std::int64_t NOW = 1700000100;
	const std::tuple<std::uint8_t, std::uint32_t, shm_timestamp, bool> cases[] = {  // mult, tx us, last_rx, silent
		{3, 300000, {NOW - 1, 0}, false},  // 0.9 s: the floor holds
		{3, 300000, {NOW - 2, 999999999}, true},
		{5, 1000000, {NOW - 5, 0}, false},  // exactly 5 s
		{5, 1000000, {NOW - 6, 999999999}, true},
		{0, 0, {NOW - 1, 0}, false},
		{255, 0xFFFFFFFF, {NOW - 1000000, 0}, false},  // 11.6 days of 12.7: no overflow
		{255, 0xFFFFFFFF, {NOW - 255LL * 0xFFFFFFFF / 1000000 - 1, 0}, true},
		{1, 1000, {NOW + 60, 0}, false},  // clock set back
		{1, 1000, {0x7FFFFFFFFFFFFFFF, 999999999}, false},
	};
	for (const auto &[mult, tx, last_rx, silent] : cases) {
		reflector_session s{};
		s.detect_multiplier = mult, s.desired_min_tx = tx, s.last_rx = last_rx;
		EXPECT_EQ(shmstat_silent(s, {NOW, 0}), silent) << int(mult) << " x " << tx << " at " << last_rx.tv_sec;
	}
	// --silent lists the silent sessions (A and B of the fixed store) but counts all.
	auto snap = fixed_snapshot();
	shmstat_view view;
	view.silent_only = true;
	const std::string text = shmstat_format_text(*snap, "orvalindwarden", nullptr, view);
	EXPECT_NE(text.find("Sessions in use: 3 of 512, 2 silent; the silent ones,"), std::string::npos) << text;
	EXPECT_EQ(text.find("198.51.100.5"), std::string::npos) << text;
	const auto doc = nlohmann::json::parse(shmstat_format_json(*snap, "orvalindwarden", view));
	EXPECT_EQ(std::tuple(doc["sessions_in_use"], doc["sessions_silent"], doc["sessions"].size(), doc["sessions"][0]["silent"]),
		  std::tuple(3, 2, 2u, true));
	const std::string prom = shmstat_format_prometheus(*snap, "orvalindwarden", view);
	EXPECT_NE(prom.find("\norvalindwarden_sessions_silent{store=\"orvalindwarden\"} 2\n"), std::string::npos);
	EXPECT_EQ(prom.find("address=\"198.51.100.5\""), std::string::npos);
}

// What a node_exporter textfile directory with one file per instance needs: every sample names
// its store, so that two instances' series never collide, whatever bytes the store's name holds.
TEST(ShmstatPrometheus, EverySampleNamesItsStoreAndTwoInstancesShareNoSeries)
{
	auto snap = fixed_snapshot();
	const std::string blue = "orvalindwarden-var-run-netns-blue", odd = "orvalindwarden-\"x\\y\nz";
	std::set<std::string> all;
	for (const auto &[name, label] : {std::pair{blue, blue}, std::pair{odd, std::string("orvalindwarden-\\\"x\\\\y\\nz")}}) {
		std::istringstream in(shmstat_format_prometheus(*snap, name, fixed_view()));
		for (std::string line; std::getline(in, line);) {
			if (line.starts_with("#"))
				continue;
			const std::string series = line.substr(0, line.rfind(' '));  // of "name{labels} value"
			EXPECT_NE(series.find("{store=\"" + label + "\""), std::string::npos) << series;
			EXPECT_TRUE(all.insert(series).second) << series << ": two samples of one series";
		}
	}
	EXPECT_GT(all.size(), 2 * 40u);
}

// Without a daemon: no configuration time, and "unknown" with the reason in JSON (up 0, the
// version alone and the text's reason: tools_test, a killed daemon's store).
TEST(ShmstatPrometheus, PassesPromtoolCheckWithAndWithoutADaemon)
{
	if (testutil::run("command -v promtool >/dev/null") != 0)
		GTEST_SKIP() << "promtool not installed (Debian package prometheus): the text format is not checked";
	auto snap = fixed_snapshot();
	shmstat_view down;
	down.version = "1.0.0", down.daemon.config_unknown = "no run-state file /run/orvalindwarden/orvalindwarden.state";
	testutil::temp_dir dir;
	for (const shmstat_view &view : {fixed_view(), down}) {
		const std::string prom = shmstat_format_prometheus(*snap, "orvalindwarden-var-run-netns-\"blue\"", view);
		std::ofstream(dir.file("orv.prom")) << prom;
		testutil::child_process check({"sh", "-c", "promtool check metrics < " + dir.file("orv.prom")});
		EXPECT_EQ(check.exit_status(), 0) << check.out() << check.err() << prom;
	}
	EXPECT_EQ(shmstat_format_prometheus(*snap, "orvalindwarden", down).find("orvalindwarden_config_since_timestamp_seconds"),
		  std::string::npos);
	const auto doc = nlohmann::json::parse(shmstat_format_json(*snap, "orvalindwarden", down));
	EXPECT_EQ(std::tuple(doc["daemon"]["up"], doc["daemon"]["pid"], doc["config"], doc["config_unknown"]),
		  std::tuple(false, nullptr, nullptr, down.daemon.config_unknown));
}

TEST(ShmstatDaemon, MapsHoldOnlyAWritableSharedMappingOfTheStoresPathAndInode)
{
	const std::string path = "/dev/shm/orvalindwarden-a b";
	const std::tuple<const char *, bool> cases[] = {
		{"7f00-7f11 rw-s 00000000 00:1a 4242                       /dev/shm/orvalindwarden-a b\n", true},
		{"7f00-7f11 rw-s 00000000 00:1a 4242 /dev/shm/orvalindwarden-a b", true},  // last line without a line feed
		{"7f00-7f11 r--s 00000000 00:1a 4242                       /dev/shm/orvalindwarden-a b\n", false},  // a reader
		{"7f00-7f11 rw-p 00000000 00:1a 4242                       /dev/shm/orvalindwarden-a b\n", false},
		{"7f00-7f11 rw-s 00000000 00:1a 4243                       /dev/shm/orvalindwarden-a b\n", false},  // another object since
		{"7f00-7f11 rw-s 00000000 00:1a 4242                       /dev/shm/orvalindwarden-a b (deleted)\n", false},
		{"7f00-7f11 rw-s 00000000 00:1a 4242                       /dev/shm/orvalindwarden-a\n", false},
		{"7f00-7f11 rw-s 00000000 00:1a 04242x                     /dev/shm/orvalindwarden-a b\n", false},
		{"7f00-7f11 rw-s 00000000 00:1a\n", false},
		{"", false},
	};
	for (const auto &[maps, holds] : cases) {
		const std::string two = std::string("5600-5700 r-xp 00000000 08:01 12 /usr/sbin/orvalindwarden\n") + maps;
		EXPECT_EQ(shmstat_maps_hold(two, path, 4242), holds) << maps;
	}
}

// The holder is found in /proc by its mapping, with or without the
// run-state file's pid; the configuration is believed only from that pid.
TEST(ShmstatDaemon, FindsTheProcessMappingTheStoreAndTrustsOnlyItsRunStateFile)
{
	const std::string name = testutil::unique_name("orvstat-holder");
	const testutil::undo unlink{[&] { shm_unlink(name.c_str()); }};
	auto snap = fixed_snapshot();
	const unique_fd fd{shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600)};
	ASSERT_EQ(::write(fd.get(), &snap->store, SHM_SIZE), static_cast<ssize_t>(SHM_SIZE));
	std::string err;
	ASSERT_EQ(shmstat_read(name, snap.get(), &err), SHMSTAT_OK) << err;  // for the object's inode
	testutil::temp_dir dir;
	const std::string state = dir.file("x.state");
	auto write_state = [&](long pid) {
		run_state rs{static_cast<std::int32_t>(pid), 77, inet_addr("192.0.2.1"), 300000, 1, 1700000000, 5, 1699999000, 0};
		ASSERT_EQ(run_state_write(state.c_str(), rs), 0);
	};
	shmstat_daemon d;
	auto probe = [&] {
		d = shmstat_probe_daemon(name, *snap, state.c_str());
		return std::tuple(d.pid, d.config_known, d.config_unknown);
	};
	EXPECT_EQ(shmstat_find_holder(name, *snap, 0), 0);
	EXPECT_EQ(probe(), std::tuple(0L, false, "no run-state file " + state));
	// A child inherits the store mapped as the daemon maps it; this process unmaps it.
	void *rw = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
	ASSERT_NE(rw, MAP_FAILED);
	const pid_t child = fork();
	if (child == 0)
		pause(), _exit(0);
	const testutil::undo reap{[&] { kill(child, SIGKILL), waitpid(child, nullptr, 0); }};
	munmap(rw, SHM_SIZE);
	EXPECT_EQ(shmstat_find_holder(name, *snap, 0), child);
	EXPECT_EQ(shmstat_find_holder(name, *snap, getpid()), child) << "a wrong hint must not stick";
	write_state(child);
	EXPECT_EQ(probe(), std::tuple(long(child), true, ""));
	EXPECT_EQ(std::tuple(d.config.discriminator, d.config.admin_down, d.config.since.tv_nsec), std::tuple(77u, true, 5));
	write_state(getpid());  // alive, but not mapping the store
	EXPECT_EQ(probe(), std::tuple(long(child), false,
				      "stale run-state file: pid " + std::to_string(getpid()) + " does not hold the store"));
	std::ofstream(state) << "orvalindwarden-state 1\npid 01\n";
	EXPECT_EQ(probe(), std::tuple(long(child), false, "run-state file " + state + " unreadable: not a run-state file"));
	write_state(child);
	kill(child, SIGKILL), waitpid(child, nullptr, 0);
	EXPECT_EQ(probe(), std::tuple(0L, false, "stale run-state file: pid " + std::to_string(child) + " is not running"));
}

// The history file of --delta: written and read back whole, and refused
// for any line out of place, as a file the caller may have edited.
TEST(ShmhistParse, ReadsBackWhatItWritesAndRefusesEachBrokenLine)
{
	const shmhist h = shmhist_of(*fixed_snapshot(), "orvalindwarden-%a b\n\x7f\xc3");
	const std::string text = shmhist_format(h);
	EXPECT_NE(text.find("\nobject orvalindwarden-%25a%20b%0A%7F%C3\ntaken 1700000100 250000000\n"), std::string::npos) << text;
	shmhist back;
	std::string why;
	ASSERT_TRUE(shmhist_parse(text, &back, &why)) << why;
	EXPECT_EQ(shmhist_format(back), text);
	EXPECT_EQ(std::tuple(back.object, back.counters[0], back.sessions.size(), back.sessions[0].discriminator, back.sessions[2].received),
		  std::tuple(h.object, 4294967313u, 3u, 200u, 12u));
	// Each case edits one line of `text` (from `from` to `to`) and names the line refused.
	const std::string session = "session 100 192.0.2.10 12 9\n";
	std::string sessions_513;
	for (std::uint32_t d = 1; d <= MAX_SESSIONS + 1; d++)
		sessions_513 += "session " + std::to_string(d) + " 198.51.100.1 0 0\n";
	const std::tuple<std::string, std::string, const char *> cases[] = {
		{"history 1\n", "history 2\n", "line 1:"},
		{"\nobject orvalindwarden-", "\nobject  orvalindwarden-", "line 2:"},
		{"%25a", "%a", "line 2:"},
		{"%25a", "%2Ca", "line 2:"},  // a plain byte escaped: two spellings of one name
		{"%0A", "%0a", "line 2:"},
		{"%0A", "%00", "line 2:"},
		{"taken 1700000100 250000000", "taken 1700000100 1000000000", "line 3:"},
		{"taken 1700000100 ", "taken +1700000100 ", "line 3:"},
		{"counter rx_drops 4294967313", "counter rx_drops 04294967313", "line 4:"},
		{"counter pkt_truncated 3", "counter pkt_truncated 4294967296", "line 7:"},  // 32 bits wide
		{"counter tx_sends", "counter rx_valid_pkts", "line 5:"},
		{"counter wrong_len_sent 43\n", "", "line 19:"},
		{"counter bad_version 5\n", "counter bad_version 5 \n", "line 8:"},
		{"counter bad_version 5\n", "counter bad_version 5\r\n", "line 8:"},
		{session, "session 100 192.0.2.10 12\n", "line 25:"},  // sessions in slot order: B, C, A
		{session, "session 0 192.0.2.10 12 9\n", "line 25:"},
		{session, "session 100 192.0.2.256 12 9\n", "line 25:"},
		{session, "session 100 192.0.2.010 12 9\n", "line 25:"},
		{session, "session 100 192.0.2 12 9\n", "line 25:"},
		{session, session + session, "line 26: session listed twice"},
		{session, sessions_513, "line 535: more than 512 sessions"},  // two before them
		{session, session + "\n", "line 26:"},
		{session, "session 100 192.0.2.10 12 9", "does not end with a line feed"},
		{session, session + std::string(SHMHIST_FILE_MAX, '#'), "larger than 65536 bytes"},
	};
	for (const auto &[from, to, fault] : cases) {
		std::string broken = text;
		const std::size_t at = broken.rfind(from);
		ASSERT_NE(at, std::string::npos) << from;
		broken.replace(at, from.size(), to);
		EXPECT_FALSE(shmhist_parse(broken, &back, &why)) << to;
		EXPECT_NE(why.find(fault), std::string::npos) << to << ": " << why;
	}
}

// Changes since a baseline: counters across a 32-bit wrap, sessions by
// their key; a store reset counts from the reset, with a note.
TEST(ShmhistCompare, CountsChangesAcrossAWrapAndFromAResetWithANote)
{
	auto base_snap = fixed_snapshot(), snap = fixed_snapshot();
	base_snap->store.bad_version = 0xFFFFFFFE;  // to 5: 7 more
	base_snap->store.sessions[511].num_received = 10;  // A: 2 more requests
	base_snap->store.sessions[510].num_sent = 3;  // C: fewer replies now, its slot re-used
	base_snap->store.sessions[300].discriminator = 201;  // B is new, 201 is gone
	const shmhist base = shmhist_of(*base_snap, "orvalindwarden");
	snap->taken.tv_sec += 4, snap->store.rx_drops += 8;
	shmhist_delta d = shmhist_compare(&base, *snap, "orvalindwarden");
	auto count = [&](std::string_view name) {
		return d.counters.at(std::ranges::find(SHMSTAT_COUNTERS, name, &shmstat_counter::name) - SHMSTAT_COUNTERS.begin());
	};
	EXPECT_EQ(std::tuple(d.have_base, d.seconds, d.notes.size(), count("rx_drops"), count("bad_version"), count("tx_sends")),
		  std::tuple(true, 4.0, 0u, 8u, 7u, 0u));
	ASSERT_EQ(d.sessions.size(), 3u);  // most recently heard first: C, A, B
	EXPECT_EQ(std::tuple(d.sessions[0].slot, d.sessions[0].fresh, d.sessions[1].received, d.sessions[1].fresh,
			     d.sessions[2].received, d.sessions[2].fresh, d.gone),
		  std::tuple(510u, true, 2u, false, 5u, true, 1u));
	const auto doc = nlohmann::json::parse(shmstat_format_delta_json(d, *snap, "orvalindwarden"));
	EXPECT_EQ(std::tuple(doc["interval_s"], doc["rx_errors"]["bad_version"], doc["sessions"][1]["received"], doc["sessions_gone"]),
		  std::tuple(4.0, 7, 2, 1));
	const std::string text = shmstat_format_delta_text(d, *snap, "orvalindwarden");
	EXPECT_NE(text.find("\n  bad_version               7         1.8\n"), std::string::npos) << text;
	// Restarted without -S: the 64-bit counters went back.
	snap->store.rx_valid_pkts = 2, snap->store.rx_drops = 1;
	d = shmhist_compare(&base, *snap, "orvalindwarden");
	ASSERT_EQ(d.notes.size(), 1u);
	EXPECT_TRUE(d.notes[0].starts_with("counters went back (rx_drops 4294967313 -> 1, rx_valid_pkts 4294967596 -> 2, "
					   "bad_version 4294967294 -> 5)")) << d.notes[0];
	EXPECT_EQ(std::tuple(count("rx_valid_pkts"), count("bad_version"), count("tx_sends"), d.sessions[1].received, d.sessions[1].fresh),
		  std::tuple(2u, 5u, 6442450951u, 12u, true));
	EXPECT_NE(shmstat_format_delta_text(d, *snap, "orvalindwarden").find("\nnote: counters went back ("), std::string::npos);
	// A history of another store, or none: counts since the store was made.
	d = shmhist_compare(&base, *snap, "orvalindwarden-var-run-netns-blue");
	EXPECT_EQ(std::tuple(d.have_base, d.notes.size(), count("bad_version")), std::tuple(false, 2u, 5u));
	EXPECT_NE(d.notes[0].find("the history is of store orvalindwarden, not of this one"), std::string::npos);
}

}  // namespace
