// session_table_test.cpp -- the session table: slot allocation, recency
// order and eviction, the hash counters' counting period, the start-up
// restore of a kept store, and the consistency assertions.
#include <tuple>

#include "rxutil.h"

using namespace rxt;

namespace {

// A lookup as the receive path makes it: validation has counted the packet first.
session_node *lookup(harness &h, std::uint32_t disc, const char *addr)
{
	h.store->rx_valid_pkts++;
	return get_session(h.vrf.get(), disc, ip(addr));
}

// `n` sessions with discriminators first_disc.. from 192.0.2.1.
void fill(harness &h, std::uint32_t n, std::uint32_t first_disc = 1)
{
	for (std::uint32_t d = first_disc; d < first_disc + n; d++)
		lookup(h, d, "192.0.2.1");
}

// A session record with `disc`, `source_ip` and `last_rx` set and every other byte zero.
reflector_session session_record(std::uint32_t disc, std::uint32_t source_ip, shm_timestamp last_rx = {})
{
	reflector_session s{};
	s.discriminator = disc, s.source_ip = source_ip, s.last_rx = last_rx;
	return s;
}

}  // namespace

TEST(SessionTable, NewSessionsTakeTheHighestFreeSlotZeroedAndAFullTableEvictsTheLeastRecentlyUsed)
{
	harness h;
	std::memset(&h.store->sessions[511], 0xAB, sizeof(reflector_session));
	h.store->sessions[511].discriminator = 0;  // free, but dirty
	h.setup_table();
	session_node *a = lookup(h, 7, "192.0.2.1");
	ASSERT_EQ(h.slot_of(a), 511u);
	const reflector_session expect = session_record(7, ip("192.0.2.1"));
	EXPECT_EQ(std::memcmp(a->shm_session, &expect, sizeof expect), 0) << "a new record starts zeroed";
	// Same discriminator from another address, and another discriminator from the same address.
	EXPECT_EQ(h.slot_of(lookup(h, 7, "192.0.2.2")), 510u);
	EXPECT_EQ(h.slot_of(lookup(h, 8, "192.0.2.1")), 509u);
	EXPECT_EQ(lookup(h, 7, "192.0.2.1"), a);
	EXPECT_EQ(h.cache_order(), (std::vector<std::uint32_t>{511, 509, 510}));
	EXPECT_EQ(std::tuple(h.store->rx_hash_hit, h.store->rx_hash_miss, h.vrf->session_count), std::tuple(1u, 3u, 3u));
	// Once full, 510 is the tail: the first session, 511, was used again.
	fill(h, 509, 1000);
	const std::uint32_t trim = h.store->rx_hash_trim;
	EXPECT_EQ(h.slot_of(lookup(h, 1, "198.51.100.1")), 510u);
	EXPECT_EQ(std::tuple(h.store->rx_hash_trim, h.vrf->session_count, h.vrf->sess_cache_count, h.cache_order().front()),
		  std::tuple(trim + 1, 512u, 512u, 510u));
	// The evicted initiator comes back as a miss, evicting the next least recently used.
	EXPECT_EQ(h.slot_of(lookup(h, 7, "192.0.2.2")), 509u);
}

TEST(SessionTable, CountingPeriodRestartsWhenValidPacketsReachAMultipleOf512)
{
	const struct {
		const char *name;
		std::uint64_t valid;
		bool hit, evict;
		std::uint32_t miss, hits, trim;  // counters after the lookup
	} cases[] = {
		{"hit at 511 continues", 511, true, false, 4, 8, 2},
		{"hit at 512 restarts", 512, true, false, 0, 1, 0},
		{"evicting miss at 1536 restarts with one trim", 1536, false, true, 1, 0, 1},
		{"miss at 513 continues", 513, false, false, 5, 7, 2},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		fill(h, c.evict ? 512 : 1);
		h.store->rx_hash_miss = 4, h.store->rx_hash_hit = 7, h.store->rx_hash_trim = 2;
		h.store->rx_valid_pkts = c.valid;
		get_session(h.vrf.get(), c.hit ? 1 : 5000, ip(c.hit ? "192.0.2.1" : "198.51.100.7"));
		EXPECT_EQ(std::tuple(h.store->rx_hash_miss, h.store->rx_hash_hit, h.store->rx_hash_trim),
			  std::tuple(c.miss, c.hits, c.trim));
	}
}

TEST(SessionTable, KeptStoreIsRestoredNewestFirstAndEvictsItsOldestFirst)
{
	const struct {
		const char *name;
		std::vector<std::tuple<std::uint32_t, std::int64_t, std::int64_t>> slots;  // slot, last_rx sec and nsec
		std::vector<std::uint32_t> order;  // sess_cache, front first
	} cases[] = {
		{"5, 3, 8", {{0, 5, 0}, {1, 3, 0}, {2, 8, 0}}, {2, 0, 1}},
		{"equal stamps keep slot order", {{3, 7, 0}, {9, 7, 0}, {4, 7, 0}}, {3, 4, 9}},
		{"second ties broken by nanoseconds", {{0, 10, 5}, {1, 10, 9}, {2, 10, 1}}, {1, 0, 2}},
		{"nothing in use", {}, {}},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h(/*persist=*/true);
		for (auto [k, sec, nsec] : c.slots)
			h.store->sessions[k] = session_record(100 + k, ip("192.0.2.5"), {sec, nsec});
		h.store->rx_hash_hit = 42;
		h.setup_table();
		EXPECT_EQ(h.cache_order(), c.order);
		EXPECT_EQ(std::tuple(h.vrf->session_count + 0ul, h.store->rx_hash_hit), std::tuple(c.slots.size(), 42u));  // counters kept
		if (c.slots.empty())
			continue;
		// Once full (the free list holds the other slots), the next new
		// session evicts the oldest restored one; the others are found again.
		fill(h, 512 - static_cast<std::uint32_t>(c.slots.size()), 1000);
		EXPECT_EQ(h.slot_of(lookup(h, 9999, "198.51.100.2")), c.order.back());
		for (auto [k, sec, nsec] : c.slots)
			if (k != c.order.back()) {
				EXPECT_EQ(lookup(h, 100 + k, "192.0.2.5"), &h.vrf->rx_sess[k]);
			}
	}
}

// Worked examples: the address as received (a.b.c.d is hashed a first),
// the full 32-bit hash and the bucket, its low 11 bits, which the level-3
// line of a lookup shows, for a new session and when found again.
TEST(SessionHash, MatchesWorkedExamplesAndALookupTracesItsBucket)
{
	const std::tuple<const char *, std::uint32_t, std::uint32_t, std::uint32_t> cases[] = {  // address, disc, hash, bucket
		{"10.0.0.1", 1, 0x4D9F0A5D, 605}, {"10.0.0.1", 2, 0xA2100D6E, 1390},
		{"192.168.1.2", 0x12345678, 0x6B6EF626, 1574}, {"1.2.3.4", 100, 0xB789A349, 841}};
	auto &tr = trace_reader::get();
	harness h;
	h.setup_table();
	for (const auto &[addr, disc, hash, bucket] : cases) {
		SCOPED_TRACE(std::string(addr) + " " + std::to_string(disc));
		EXPECT_EQ(hashmix(disc, hashmix(ip(addr), 0, 0), 1), hash);
		EXPECT_EQ(get_session_hash(ip(addr), disc), bucket);
		tr.take();
		lookup(h, disc, addr), lookup(h, disc, addr);
		const std::string line = "RX: Hash=" + std::to_string(bucket) + ", ";
		EXPECT_EQ(tr.take(TRACE_RX), (std::vector<std::string>{line + "allocating new session", line + "found exising session"}));
	}
}

TEST(SessionTableDeathTest, BrokenInvariantsAbortWithTheirText)
{
	const struct {
		const char *name;
		void (*corrupt)(harness &);
		std::uint32_t disc;  // key looked up afterwards
		const char *text;
	} cases[] = {
		{"cache count above 512", [](harness &h) { h.vrf->sess_cache_count = 513; h.vrf->session_count = 513; },
		 1, "vrf->sess_cache_count <= 512"},
		{"chain count off", [](harness &h) { h.vrf->session_count++; }, 1, "count == vrf->session_count"},
		{"eviction with no chained session",
		 [](harness &h) { h.vrf->sess_cache_count = 512; h.vrf->session_count = 0; }, 77, "vrf->session_count"},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		lookup(h, 1, "192.0.2.1");  // slot 511
		lookup(h, 2, "192.0.2.1");  // slot 510, at the front
		c.corrupt(h);
		EXPECT_DEATH(get_session(h.vrf.get(), c.disc, ip("192.0.2.1")),
			     std::string("Assertion failed: ") + c.text + ", file .*reflectorRx.cpp");
	}
}

// The check compares the bucket heads 16 at a time, with AVX2 where the
// processor has it and one by one where not: a chain is counted wherever
// its head sits in a group, whatever its length, and a link too many or too
// few on a chain or on sess_cache is caught.
TEST(SessionTableDeathTest, CheckCountsChainsAtEveryBucketAndCatchesALinkTooManyOrTooFew)
{
	// A table of `sessions`, changed by `change`, then checked.
	const auto check_after = [](std::uint32_t sessions, auto change) {
		harness h;
		h.setup_table();
		fill(h, sessions);
		change(h);
		session_sanity_check(h.vrf.get());
	};
	const auto chains_at_every_bucket = [](harness &h) {
		for (std::uint32_t b = 0; b < SESSION_HASH_BUCKETS; b++)
			for (std::uint32_t k : {511u, 510u, 509u}) {  // chains of 1, 2 and 3 at b
				list_unlink(&h.vrf->rx_sess[k].hash_list);
				list_insert_front(&h.vrf->hash_tbl[b], &h.vrf->rx_sess[k].hash_list);
				session_sanity_check(h.vrf.get());
			}
		std::exit(0);
	};
	const auto node_too_many_at = [](std::uint32_t b) {
		return [b](harness &h) {
			list_insert_front(&h.vrf->hash_tbl[b], &node_of_free(h.vrf->free_list.next)->hash_list);
			h.vrf->hash_tbl[b].prev = &h.vrf->hash_tbl[b];  // only next links count
		};
	};
	const auto recency_link_missing = [](harness &h) { list_join_neighbours(h.vrf->sess_cache.next->next); };
	const bool had_avx2 = session_check_avx2;
	for (const bool avx2 : {false, had_avx2}) {
		SCOPED_TRACE(avx2 ? "AVX2" : "one by one");
		session_check_avx2 = avx2;
		EXPECT_EXIT(check_after(3, chains_at_every_bucket), ::testing::ExitedWithCode(0), "");
		for (const std::uint32_t b : {0u, 15u, 16u, 1029u, 2047u}) {
			SCOPED_TRACE(b);
			EXPECT_DEATH(check_after(2, node_too_many_at(b)), "count == vrf->session_count");
		}
		for (const std::uint32_t sessions : {3u, 512u}) {  // the list ends before the chains, or after
			SCOPED_TRACE(sessions);
			EXPECT_DEATH(check_after(sessions, recency_link_missing), "count == vrf->sess_cache_count");
		}
	}
	session_check_avx2 = had_avx2;
}
