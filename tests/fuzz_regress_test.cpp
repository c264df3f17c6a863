// fuzz_regress_test.cpp -- the reader targets' starting corpus
// (fuzz/corpus/<target>/) and the inputs a fuzz run once crashed on
// (fuzz/regress/<target>/) replayed under the unit run's sanitizers.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>

#include "blreader.h"
#include "shmhist.h"
#include "shmstat.h"
#include "testutil.h"

namespace {

// Every input of a target by file name.
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

// Each input as a store (cut or zero-extended) and as a --delta history file:
// refused with a reason, or rendered in all three formats, or written back
// byte for byte (the corpus input "history" is the one history file).
TEST(FuzzRegress, StoreInputsAreRefusedOrRenderedAndHistoriesWrittenBackAsRead)
{
	const auto all = inputs("fuzz_shmstat");
	ASSERT_TRUE(all.count("used_slot_time_far_in_the_past"));
	int rendered = 0, parsed = 0;
	for (const auto &[name, bytes] : all) {
		auto snap = std::make_unique<shmstat_snapshot>();
		std::copy_n(bytes.begin(), std::min(bytes.size(), SHM_SIZE), reinterpret_cast<std::uint8_t *>(&snap->store));
		snap->taken = {1700000000, 500000000};
		snap->stable = true;
		std::string why;
		// used_slot_time_far_in_the_past once overflowed the age computation.
		if (shmstat_plausible(snap->store, true, &why)) {
			EXPECT_NE(name, "used_slot_time_far_in_the_past");
			for (const std::string &out : {shmstat_format_text(*snap, "orvalindwarden-regress", snap.get()),
						       shmstat_format_json(*snap, "orvalindwarden-regress"),
						       shmstat_format_prometheus(*snap, "orvalindwarden-regress")})
				EXPECT_NE(out, "") << name;
			rendered++;
		} else
			EXPECT_NE(why, "") << name;
		const std::string text(bytes.begin(), bytes.end());
		shmhist h;
		why.clear();
		if (shmhist_parse(text, &h, &why)) {
			EXPECT_EQ(shmhist_format(h), text) << name;
			parsed += name == "history";
		} else
			EXPECT_NE(why, "") << name;
	}
	EXPECT_GE(rendered, 3);
	EXPECT_EQ(parsed, 1);
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
		for (const auto &r : recs)
			valid += name == "small_valid" ? blr_render(f, r) + "\n" : "";
	}
	EXPECT_NE(valid.find("RX: socket ready with 66 bytes"), std::string::npos) << valid;
	EXPECT_NE(valid.find("TX: my_disc 7 dst_ip 192.0.2.2 port 49152 state 3"), std::string::npos) << valid;
}

}  // namespace
