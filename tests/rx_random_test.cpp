// rx_random_test.cpp -- hostile input: random and mutated frames and netlink
// datagrams of any length must each be answered or counted exactly once, or
// ignored, without a crash, an out-of-buffer read or an assertion, and leave
// the session table whole. Bounded in count and time; fixed generator value.
#include <array>
#include <chrono>
#include <random>

#include "rxutil.h"

using namespace rxt;

namespace {

constexpr std::uint64_t GENERATOR_VALUE = 0x5BFD7784;
constexpr auto TIME_BUDGET = std::chrono::seconds(20);

// Drops, valid packets, replies sent and the sum of the reason counters.
std::array<std::uint64_t, 4> counts(const reflector_shm *s)
{
	std::uint64_t reasons = 0;
	for (auto r : REASONS)
		reasons += s->*r;
	return {s->rx_drops, s->rx_valid_pkts, s->tx_sends, reasons};
}

// "" when the change from `a` to `b` is what one frame of `n` bytes may do:
// nothing for an empty read, else a valid packet and a reply, or a drop
// under one reason.
std::string check_one_frame(const std::array<std::uint64_t, 4> &a, const std::array<std::uint64_t, 4> &b, std::size_t n)
{
	const std::uint64_t drops = b[0] - a[0], valid = b[1] - a[1], sent = b[2] - a[2], reasons = b[3] - a[3];
	if (n == 0)
		return drops + valid + sent + reasons == 0 ? "" : "an empty read was counted";
	return drops + valid == 1 && sent == valid && reasons == drops ? "" : "not counted exactly once";
}

bytes next_frame(std::mt19937_64 &rng, const harness &h)
{
	auto pick = [&](std::uint64_t n) { return rng() % n; };
	frame_opts o = h.opts();
	if (pick(3) == 0) {
		o.eth_type = 0x8847;
		o.labels = {0x000001FF};
	}
	o.ihl = static_cast<std::uint8_t>(pick(4) == 0 ? pick(16) : 5);
	request r;
	r.state = pick(2) ? BFD_STATE_UP : BFD_STATE_DOWN;
	r.my_disc = 1 + static_cast<std::uint32_t>(pick(1500));  // many initiators: the table fills and evicts
	o.src_ip = htonl(0xC6336400u | static_cast<std::uint32_t>(pick(2)));  // 198.51.100.0/31
	bytes f = build_frame(o, r.encode());
	switch (pick(6)) {
	case 0:  // valid as built
		break;
	case 1:
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
		if (f.size() > 14 && pick(2)) {
			f[12] = 0x08;
			f[13] = 0x00;
		}
		break;
	}
	return f;
}

}  // namespace

TEST(RandomFrames, EachIsAnsweredOrCountedOnceAndTheTableStaysWhole)
{
	harness h;
	h.setup_table();
	seam::reset(h.vrf->outfd);
	seam::swallow = true;  // replies to generated addresses never leave the host
	std::mt19937_64 rng(GENERATOR_VALUE);
	const auto deadline = std::chrono::steady_clock::now() + TIME_BUDGET;
	int n = 0;
	for (; n < 300000 && std::chrono::steady_clock::now() < deadline; n++) {
		const bytes f = next_frame(rng, h);
		const auto before = counts(h.shm());
		h.feed(f);
		ASSERT_EQ(check_one_frame(before, counts(h.shm()), f.size()), "") << "frame " << n << " of " << f.size() << " bytes";
		session_sanity_check(h.vrf.get());
		ASSERT_EQ(h.free_count() + h.vrf->sess_cache_count, MAX_SESSIONS) << "frame " << n;
	}
	seam::reset(-1);
	EXPECT_GT(h.shm()->rx_valid_pkts, 0u);
	EXPECT_GT(h.shm()->rx_hash_trim + h.vrf->sess_cache_count, 0u);
	std::printf("%d frames\n", n);
}

namespace {

struct nl_result {
	std::uint32_t disc, min_rx;
	std::uint8_t admin;
};

// The configuration datagram `d` leaves after `cur`, walked independently.
// Every setting's source address is first forced to 0 (keep the current
// one) in the datagram itself, so that no transmit socket is replaced.
nl_result walk_and_pin_source(bytes &d, nl_result cur)
{
	auto u32 = [&](std::size_t off) {
		std::uint8_t b[4] = {};
		for (std::size_t i = 0; i < 4 && off + i < d.size(); i++)
			b[i] = d[off + i];
		std::uint32_t v;
		std::memcpy(&v, b, 4);
		return v;
	};
	for (std::size_t off = 0, remaining = d.size(); remaining >= 16;) {
		const std::uint32_t len = u32(off);
		if (len < 16 || len > remaining)
			break;
		const std::uint32_t type_flags = u32(off + 4);
		if ((type_flags >> 16 & NLM_F_REQUEST) && (type_flags & 0xFFFF) == REFLECTOR_NL_SET) {
			for (std::size_t i = off + 24; i < off + 28 && i < d.size(); i++)
				d[i] = 0;
			cur = {u32(off + 16), u32(off + 20), off + 28 < d.size() ? d[off + 28] : std::uint8_t{0}};
		}
		const std::size_t step = (len + 3u) & ~3u;
		if (step > remaining)
			break;
		remaining -= step;
		off += step;
	}
	return cur;
}

bytes next_datagram(std::mt19937_64 &rng)
{
	auto pick = [&](std::uint64_t n) { return rng() % n; };
	bytes d;
	for (std::uint64_t m = 1 + pick(4); m > 0; m--) {
		bytes payload(pick(4) ? 16 : pick(40));
		for (auto &b : payload)
			b = static_cast<std::uint8_t>(rng());
		const std::uint16_t type = pick(4) ? REFLECTOR_NL_SET : static_cast<std::uint16_t>(rng());
		const bytes msg = nl_msg(type, pick(5) ? NLM_F_REQUEST : 0, payload,
					 pick(5) ? 0 : static_cast<std::uint32_t>(pick(80)));
		d.insert(d.end(), msg.begin(), msg.end());
	}
	if (pick(4) == 0)
		d.resize(pick(d.size() + 1));
	return d;
}

}  // namespace

TEST(RandomNetlink, DatagramsApplyExactlyTheirWellFormedSettings)
{
	harness h;
	std::mt19937_64 rng(GENERATOR_VALUE);
	reflector_cfg.sourceIp = 0;
	const int outfd = h.vrf->outfd;
	nl_result expect{OUR_DISC, OUR_MIN_RX, 0};
	const auto deadline = std::chrono::steady_clock::now() + TIME_BUDGET / 4;
	for (int n = 0; n < 20000 && std::chrono::steady_clock::now() < deadline; n++) {
		bytes d = next_datagram(rng);
		expect = walk_and_pin_source(d, expect);
		h.feed_netlink(d);
		ASSERT_EQ(ntohl(reflector_cfg.discriminator), expect.disc) << "datagram " << n;
		ASSERT_EQ(reflector_cfg.minRx, expect.min_rx) << "datagram " << n;
		ASSERT_EQ(reflector_cfg.adminDown, expect.admin) << "datagram " << n;
		ASSERT_EQ(reflector_cfg.sourceIp, 0u);
	}
	EXPECT_EQ(h.vrf->outfd, outfd);
}
