// rx_random_test.cpp -- hostile input: random and mutated frames of any
// length must each be answered or counted exactly once, under one reason,
// without a crash, an out-of-buffer read or an assertion, and leave the
// session table whole. Bounded in count and time; fixed generator value.
#include <array>
#include <chrono>
#include <random>

#include "rxutil.h"

using namespace rxt;

namespace {

// Drops, valid packets, replies sent and the sum of the reason counters.
std::array<std::uint64_t, 4> counts(const reflector_shm *s)
{
	std::uint64_t reasons = 0;
	for (auto r : REASONS)
		reasons += s->*r;
	return {s->rx_drops, s->rx_valid_pkts, s->tx_sends, reasons};
}

bytes next_frame(std::mt19937_64 &rng, const harness &h)
{
	auto pick = [&](std::uint64_t n) { return rng() % n; };
	frame_spec s = h.frame_shape();
	if (pick(3) == 0)
		s.labels = {0};
	if (pick(4) == 0)
		s.ip_options.assign(4 * pick(11), 1);
	s.src_ip = 0xC6336400u | static_cast<std::uint32_t>(pick(2));  // 198.51.100.0/31
	request r;
	r.state = pick(2) ? BFD_STATE_UP : BFD_STATE_DOWN;
	r.my_disc = 1 + static_cast<std::uint32_t>(pick(1500));  // many initiators: the table fills and evicts
	bytes f = probe_frame_build(s, r.encode());
	switch (pick(6)) {
	case 0:  // valid as built
		break;
	case 1:  // the IHL says otherwise than the header's length
		f[ETH_HDR_LEN + 4 * s.labels.size()] = static_cast<std::uint8_t>(0x40 | pick(16));
		break;
	case 2:  // a few bytes of the headers or the control packet changed
		for (std::uint64_t k = 1 + pick(3); k > 0; k--)
			f[pick(std::min<std::size_t>(f.size(), 110))] = static_cast<std::uint8_t>(rng());
		break;
	case 3:  // cut anywhere
		f.resize(pick(f.size() + 1));
		break;
	default:  // noise of up to a whole buffer, often behind a plausible EtherType
		f.resize(pick(3) == 0 ? pick(129) : pick(8) == 0 ? RX_BUF_LEN : pick(2000));
		for (auto &b : f)
			b = static_cast<std::uint8_t>(rng());
		if (f.size() > 14 && pick(2))
			f[12] = 0x08, f[13] = 0x00;
		break;
	}
	return f;
}

}  // namespace

TEST(RandomFrames, EachIsAnsweredOrCountedOnceAndTheTableStaysWhole)
{
	harness h;
	h.setup_table();
	seam = {h.vrf->outfd, {}, /*swallow=*/true};  // replies to generated addresses never leave the host
	std::mt19937_64 rng(0x5BFD7784);
	const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
	int n = 0;
	for (; n < 300000 && std::chrono::steady_clock::now() < deadline; n++) {
		const bytes f = next_frame(rng, h);
		const auto a = counts(h.shm());
		h.feed(f);
		const auto b = counts(h.shm());
		const std::uint64_t drops = b[0] - a[0], valid = b[1] - a[1], sent = b[2] - a[2], reasons = b[3] - a[3];
		if (f.empty())  // an empty read counts nothing
			ASSERT_EQ(drops + valid + sent + reasons, 0u) << "frame " << n;
		else  // a valid packet and its reply, or a drop under one reason
			ASSERT_TRUE(drops + valid == 1 && sent == valid && reasons == drops)
				<< "frame " << n << " of " << f.size() << " bytes";
		session_sanity_check(h.vrf.get());
		ASSERT_EQ(h.free_count() + h.vrf->sess_cache_count, MAX_SESSIONS) << "frame " << n;
	}
	seam = {};
	EXPECT_GT(h.shm()->rx_valid_pkts, 0u);
	EXPECT_GT(h.shm()->rx_hash_trim + h.vrf->sess_cache_count, 0u);
	std::printf("%d frames\n", n);
}
