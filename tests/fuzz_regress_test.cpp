// fuzz_regress_test.cpp -- the fuzz targets' inputs replayed as ordinary
// tests (so they also run under the sanitizers of the unit run): the
// starting corpus of fuzz/corpus/<target>/ and every input a fuzz run once
// crashed on, kept in fuzz/regress/<target>/ under a name that says what it
// holds.
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "blreader.h"
#include "rxutil.h"
#include "shmstat.h"

namespace {

namespace fs = std::filesystem;

// Every input of a target: starting corpus and crash regressions.
std::vector<std::pair<std::string, std::vector<std::uint8_t>>> inputs(const std::string &target)
{
	std::vector<std::pair<std::string, std::vector<std::uint8_t>>> all;
	for (const char *kind : {"corpus", "regress"}) {
		fs::path dir = fs::path(ORV_SOURCE_DIR) / "fuzz" / kind / target;
		if (!fs::is_directory(dir))
			continue;
		for (const auto &e : fs::directory_iterator(dir)) {
			std::ifstream in(e.path(), std::ios::binary);
			std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
			all.emplace_back(e.path().filename().string(), std::move(bytes));
		}
	}
	return all;
}

// The store of an input as the stat target sees it: cut or zero-extended.
std::unique_ptr<shmstat_snapshot> snapshot_of(const std::vector<std::uint8_t> &bytes)
{
	auto snap = std::make_unique<shmstat_snapshot>();
	std::memset(snap.get(), 0, sizeof *snap);
	if (!bytes.empty())  // data() of an empty vector may be null
		std::memcpy(&snap->store, bytes.data(), std::min(bytes.size(), SHM_SIZE));
	snap->taken = {1700000000, 500000000};
	snap->stable = true;
	return snap;
}

TEST(FuzzRegress, StoreWithImpossibleTimeStampsIsRefusedBeforeRendering)
{
	// Found by the stat target before it applied the tool's rules first:
	// a used slot with tv_nsec far below zero made the age computation
	// overflow. The tool renders only plausible stores, and this one is not.
	auto all = inputs("fuzz_shmstat");
	auto it = std::find_if(all.begin(), all.end(),
			       [](const auto &in) { return in.first == "used_slot_time_far_in_the_past"; });
	ASSERT_NE(it, all.end());
	std::string why;
	EXPECT_FALSE(shmstat_plausible(snapshot_of(it->second)->store, true, &why));
	EXPECT_NE(why, "");
}

TEST(FuzzRegress, PlausibleStoreInputsRenderInAllThreeFormats)
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
}

TEST(FuzzRegress, TraceInputsAreRejectedOrRenderedWithoutFault)
{
	bool saw_valid = false;
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
		if (name == "small_valid") {
			saw_valid = true;
			EXPECT_NE(all.find("RX: socket ready with 66 bytes"), std::string::npos) << all;
			EXPECT_NE(all.find("TX: my_disc 7 dst_ip 192.0.2.2 port 49152 state 3"), std::string::npos) << all;
		}
	}
	EXPECT_TRUE(saw_valid) << "the starting corpus holds a valid trace file";
}

TEST(FuzzRegress, EveryFrameInputCountsExactlyOnce)
{
	rxt::trace_reader::get();  // tracing on, as in the daemon
	rxt::harness h;
	h.setup_table();
	rxt::seam::reset(h.vrf->outfd);
	rxt::seam::swallow = true;  // corpus frames name addresses off this host
	auto all = inputs("fuzz_frame");
	ASSERT_GE(all.size(), 10u);
	std::uint64_t valid = 0;
	for (const auto &[name, bytes] : all) {
		std::vector<std::uint8_t> buf(std::max<std::size_t>(bytes.size(), 110), 0);
		std::copy(bytes.begin(), bytes.end(), buf.begin());
		const std::uint64_t before = h.shm()->rx_valid_pkts + h.shm()->rx_drops;
		const std::uint64_t sends = h.shm()->tx_sends;
		ASSERT_EQ(rx_handle_frame(h.vrf.get(), buf.data(), static_cast<std::int32_t>(bytes.size())),
			  RX_FRAME_DONE) << name;
		EXPECT_EQ(h.shm()->rx_valid_pkts + h.shm()->rx_drops, before + 1) << name;
		const bool was_valid = h.shm()->rx_valid_pkts != valid;
		valid = h.shm()->rx_valid_pkts;
		EXPECT_EQ(h.shm()->tx_sends - sends, was_valid ? 1u : 0u) << name;
	}
	EXPECT_EQ(h.shm()->tx_sends, h.shm()->rx_valid_pkts) << "every valid frame answered";
	EXPECT_GE(valid, 5u);
}

}  // namespace
