// session_table_test.cpp -- the session table: hash, slot allocation,
// recency order and eviction, the hash counters' counting period, the
// start-up restore of a kept store, and the consistency assertions.
#include <tuple>

#include "rxutil.h"

using namespace rxt;

namespace {

// A lookup as the receive path makes it: validation has counted the packet first.
session_node *lookup(harness &h, std::uint32_t disc, const char *addr)
{
	h.shm()->rx_valid_pkts++;
	return get_session(h.vrf.get(), disc, ip(addr));
}

// `n` sessions with discriminators first_disc.. from 192.0.2.1.
void fill(harness &h, std::uint32_t n, std::uint32_t first_disc = 1)
{
	for (std::uint32_t d = first_disc; d < first_disc + n; d++)
		lookup(h, d, "192.0.2.1");
}

}  // namespace

TEST(SessionHash, MatchesTheOneAtATimeHashOverAddressThenDiscriminator)
{
	const struct {
		const char *addr;
		std::uint32_t disc, full, bucket;
	} cases[] = {
		{"10.0.0.1", 1, 0x4D9F0A5D, 605},
		{"10.0.0.1", 2, 0xA2100D6E, 1390},
		{"192.168.1.2", 0x12345678, 0x6B6EF626, 1574},
		{"1.2.3.4", 100, 0xB789A349, 841},
	};
	for (const auto &c : cases) {
		EXPECT_EQ(hashmix(c.disc, hashmix(ip(c.addr), 0, 0), 1), c.full) << c.addr;
		EXPECT_EQ(get_session_hash(ip(c.addr), c.disc), c.bucket) << c.addr;
	}
}

// The order of use and eviction is checked below; here the key and the
// record a new session starts with.
TEST(SessionTable, NewSessionsTakeTheHighestFreeSlotZeroedAndAreKeyedByDiscriminatorAndAddress)
{
	harness h;
	std::memset(&h.shm()->sessions[511], 0xAB, sizeof(reflector_session));
	h.shm()->sessions[511].discriminator = 0;  // free, but dirty
	h.setup_table();
	session_node *a = lookup(h, 7, "192.0.2.1");
	ASSERT_EQ(h.slot_of(a), 511u);
	reflector_session expect{};
	expect.discriminator = 7;
	expect.source_ip = ip("192.0.2.1");
	EXPECT_EQ(std::memcmp(a->shm_session, &expect, sizeof expect), 0) << "a new record starts zeroed";
	EXPECT_EQ(a->free_link.next, UNLINKED_NEXT);
	// Same discriminator from another address, and another discriminator from the same address.
	EXPECT_EQ(h.slot_of(lookup(h, 7, "192.0.2.2")), 510u);
	EXPECT_EQ(h.slot_of(lookup(h, 8, "192.0.2.1")), 509u);
	EXPECT_EQ(lookup(h, 7, "192.0.2.1"), a);
	EXPECT_EQ(h.cache_order(), (std::vector<std::uint32_t>{511, 509, 510}));
	EXPECT_EQ(std::tuple(h.shm()->rx_hash_hit, h.shm()->rx_hash_miss, h.vrf->session_count, h.free_count()),
		  std::tuple(1u, 3u, 3u, 509u));
}

TEST(SessionTable, FullTableEvictsTheLeastRecentlyUsedSession)
{
	harness h;
	h.setup_table();
	fill(h, 512);
	EXPECT_TRUE(list_empty(&h.vrf->free_list));
	lookup(h, 1, "192.0.2.1");  // refresh the oldest; slot 510 (disc 2) is now the tail
	session_node *victim = &h.vrf->rx_sess[510];
	victim->shm_session->num_received = 99;
	const std::uint32_t trim = h.shm()->rx_hash_trim;
	session_node *n = lookup(h, 1000, "198.51.100.1");
	EXPECT_EQ(n, victim);
	EXPECT_EQ(std::tuple(h.shm()->rx_hash_trim, h.vrf->session_count, h.vrf->sess_cache_count), std::tuple(trim + 1, 512u, 512u));
	EXPECT_EQ(std::tuple(n->shm_session->discriminator, n->shm_session->num_received), std::tuple(1000u, 0u));
	EXPECT_EQ(h.cache_order().front(), 510u);
	// The evicted initiator comes back as a miss, evicting the next oldest (disc 3, slot 509).
	EXPECT_EQ(h.slot_of(lookup(h, 2, "192.0.2.1")), 509u);
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
		{"miss at 1024 restarts", 1024, false, false, 1, 0, 0},
		{"evicting miss at 1536 restarts with one trim", 1536, false, true, 1, 0, 1},
		{"miss at 513 continues", 513, false, false, 5, 7, 2},
	};
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		h.setup_table();
		fill(h, c.evict ? 512 : 1);
		h.shm()->rx_hash_miss = 4;
		h.shm()->rx_hash_hit = 7;
		h.shm()->rx_hash_trim = 2;
		h.shm()->rx_valid_pkts = c.valid;
		get_session(h.vrf.get(), c.hit ? 1 : 5000, ip(c.hit ? "192.0.2.1" : "198.51.100.7"));
		EXPECT_EQ(std::tuple(h.shm()->rx_hash_miss, h.shm()->rx_hash_hit, h.shm()->rx_hash_trim),
			  std::tuple(c.miss, c.hits, c.trim));
	}
}

TEST(SessionTable, KeptStoreIsRestoredNewestFirstAndEvictsItsOldestFirst)
{
	struct slot {
		std::uint32_t k;
		std::int64_t sec, nsec;  // last_rx
	};
	const struct {
		const char *name;
		std::vector<slot> slots;
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
		for (auto [k, sec, nsec] : c.slots) {
			h.shm()->sessions[k].discriminator = 100 + k;
			h.shm()->sessions[k].source_ip = ip("192.0.2.5");
			h.shm()->sessions[k].last_rx = {sec, nsec};
		}
		h.shm()->rx_hash_hit = 42;
		h.setup_table();
		EXPECT_EQ(h.cache_order(), c.order);
		EXPECT_EQ(h.vrf->session_count + 0ul, c.slots.size());
		EXPECT_EQ(h.free_count() + 0ul, 512 - c.slots.size());
		EXPECT_EQ(h.shm()->rx_hash_hit, 42u);  // counters are not touched
		if (c.slots.empty())
			continue;
		// Once full, the next new session evicts the oldest restored one;
		// the others are found again.
		fill(h, 512 - static_cast<std::uint32_t>(c.slots.size()), 1000);
		EXPECT_EQ(h.slot_of(lookup(h, 9999, "198.51.100.2")), c.order.back());
		for (auto [k, sec, nsec] : c.slots)
			if (k != c.order.back())
				EXPECT_EQ(lookup(h, 100 + k, "192.0.2.5"), &h.vrf->rx_sess[k]);
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
		{"cache count off", [](harness &h) { list_unlink(&h.vrf->rx_sess[510].cache_list); }, 1,
		 "count == vrf->sess_cache_count"},
		{"chains and cache disagree",
		 [](harness &h) {
			 session_node *extra = node_of_free(h.vrf->free_list.next);
			 list_unlink(&extra->free_link);
			 list_insert_front(&h.vrf->hash_tbl[0], &extra->hash_list);
			 h.vrf->session_count++;
		 },
		 1, "vrf->sess_cache_count == vrf->session_count"},
		{"single cached session not at the front", [](harness &h) { h.vrf->sess_cache_count = 1; }, 1,
		 "vrf->sess_cache.next == &session->cache_list"},
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
