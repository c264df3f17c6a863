// fuzz_regress_test.cpp -- the fuzz targets' inputs replayed as ordinary
// tests (so they also run under the sanitizers of the unit run): the
// starting corpus of fuzz/corpus/<target>/ and every input a fuzz run once
// crashed on, kept in fuzz/regress/<target>/ under a name that says what it
// holds.
#include <filesystem>
#include <map>

#include "rxutil.h"
#include "shmstat.h"

namespace {

// Every input of a target by file name: starting corpus and crash regressions.
std::map<std::string, std::vector<std::uint8_t>> inputs(const std::string &target)
{
	std::map<std::string, std::vector<std::uint8_t>> all;
	for (const char *kind : {"corpus", "regress"}) {
		const auto dir = std::filesystem::path(ORV_SOURCE_DIR) / "fuzz" / kind / target;
		if (std::filesystem::is_directory(dir))
			for (const auto &e : std::filesystem::directory_iterator(dir)) {
				const std::string s = testutil::read_file(e.path());
				all[e.path().filename()] = {s.begin(), s.end()};
			}
	}
	return all;
}

// The store of an input as the stat target sees it: cut or zero-extended.
std::unique_ptr<shmstat_snapshot> snapshot_of(const std::vector<std::uint8_t> &bytes)
{
	auto snap = std::make_unique<shmstat_snapshot>();
	std::memset(snap.get(), 0, sizeof *snap);
	std::copy_n(bytes.begin(), std::min(bytes.size(), SHM_SIZE), reinterpret_cast<std::uint8_t *>(&snap->store));
	snap->taken = {1700000000, 500000000};
	snap->stable = true;
	return snap;
}

}  // namespace

TEST(FuzzRegress, StoreInputsAreRefusedOrRenderedInAllThreeFormats)
{
	int rendered = 0;
	for (const auto &[name, bytes] : inputs("fuzz_shmstat")) {
		auto snap = snapshot_of(bytes);
		std::string why;
		if (!shmstat_plausible(snap->store, true, &why))
			continue;
		EXPECT_NE(shmstat_format_text(*snap, "orvalindwarden-regress", snap.get()), "") << name;
		EXPECT_NE(shmstat_format_json(*snap, "orvalindwarden-regress"), "") << name;
		EXPECT_NE(shmstat_format_prometheus(*snap), "") << name;
		rendered++;
	}
	EXPECT_GE(rendered, 3);
	// Found by the stat target before it applied the tool's rules first: a
	// used slot with tv_nsec far below zero made the age computation
	// overflow. The tool renders only plausible stores, and this one is not.
	const auto crash = inputs("fuzz_shmstat").at("used_slot_time_far_in_the_past");
	std::string why;
	EXPECT_FALSE(shmstat_plausible(snapshot_of(crash)->store, true, &why));
	EXPECT_NE(why, "");
}

TEST(FuzzRegress, TraceInputsAreRejectedOrRenderedWithoutFault)
{
	std::string valid;
	for (const auto &[name, bytes] : inputs("fuzz_blreader")) {
		blr_file f;
		if (!blr_attach(f, {bytes.data(), bytes.size()}, name.c_str()).empty())
			continue;
		std::vector<blr_record> recs;
		blr_collect(f, ~0u, 0, recs);
		blr_sort(recs);
		std::string all;
		for (const auto &r : recs)
			all += blr_render(f, r) + "\n";
		if (name == "small_valid")
			valid = all;
	}
	EXPECT_NE(valid.find("RX: socket ready with 66 bytes"), std::string::npos) << valid;
	EXPECT_NE(valid.find("TX: my_disc 7 dst_ip 192.0.2.2 port 49152 state 3"), std::string::npos) << valid;
}

TEST(FuzzRegress, EveryFrameInputCountsExactlyOnce)
{
	rxt::trace_reader::get();  // tracing on, as in the daemon
	rxt::harness h;
	h.setup_table();
	rxt::seam = {h.vrf->outfd, {}, /*swallow=*/true};  // corpus frames name addresses off this host
	const auto all = inputs("fuzz_frame");
	ASSERT_GE(all.size(), 10u);
	for (const auto &[name, bytes] : all) {
		std::vector<std::uint8_t> buf(std::max<std::size_t>(bytes.size(), 110), 0);
		std::copy(bytes.begin(), bytes.end(), buf.begin());
		const reflector_shm before = *h.shm();
		ASSERT_EQ(rx_handle_frame(h.vrf.get(), buf.data(), static_cast<std::int32_t>(bytes.size())), RX_FRAME_DONE)
			<< name;
		const std::uint64_t valid = h.shm()->rx_valid_pkts - before.rx_valid_pkts;
		EXPECT_EQ(valid + h.shm()->rx_drops - before.rx_drops, 1u) << name;
		EXPECT_EQ(h.shm()->tx_sends - before.tx_sends, valid) << name;
	}
	EXPECT_EQ(h.shm()->tx_sends, h.shm()->rx_valid_pkts) << "every valid frame answered";
	EXPECT_GE(h.shm()->rx_valid_pkts, 5u);
	rxt::seam = {};
}
