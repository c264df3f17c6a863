// netlink_test.cpp -- the control channel's walk of a datagram: which
// messages are applied and in which order, what a malformed one ends, and
// the trace of a setting and of an unknown message.
#include "rxutil.h"

using namespace rxt;

namespace {

constexpr std::uint32_t LOOPBACK_HOST = 0x7F000001;  // 127.0.0.1, host order
constexpr std::uint16_t REQ = NLM_F_REQUEST;

bytes cat(std::initializer_list<bytes> parts)
{
	bytes out;
	for (const auto &p : parts)
		out.insert(out.end(), p.begin(), p.end());
	return out;
}

bytes set_msg(std::uint32_t disc, std::uint32_t min_rx, std::uint8_t admin, std::uint32_t len_field = 0,
	      std::uint16_t flags = REQ)
{
	return nl_msg(REFLECTOR_NL_SET, flags, nl_config(disc, min_rx, LOOPBACK_HOST, admin), len_field);
}

// A message whose length field says `len`, cut or padded to `size` bytes.
bytes sized(bytes m, std::uint32_t len, std::size_t size)
{
	std::memcpy(m.data(), &len, 4);
	m.resize(size);
	return m;
}

}  // namespace

TEST(NetlinkChannel, WalkAppliesWellFormedRequestsInOrder)
{
	const std::uint32_t OLD = OUR_DISC;
	const struct {
		const char *name;
		bytes datagram;
		std::uint32_t disc, min_rx;  // host order, after the datagram
		std::uint8_t admin;
		int unknown;                            // unknown-type messages traced
		std::uint32_t src_host = LOOPBACK_HOST;  // source address after it
	} cases[] = {
		{"one message", set_msg(7, 1000, 2), 7, 1000, 2, 0},
		{"no request flag", set_msg(7, 1000, 1, 0, 0), OLD, OUR_MIN_RX, 0, 0},
		{"two messages: the second stands", cat({set_msg(7, 1000, 1), set_msg(8, 2000, 0)}), 8, 2000, 0, 0},
		{"unknown type, then a setting", cat({nl_msg(17, REQ, nl_config(5, 0, 0, 0)), set_msg(9, 3000, 1)}), 9, 3000, 1, 1},
		{"15 bytes", sized(set_msg(7, 1000, 1), 32, 15), OLD, OUR_MIN_RX, 0, 0},
		{"first length 8", set_msg(7, 1000, 1, 8), OLD, OUR_MIN_RX, 0, 0},
		{"first length past the datagram", set_msg(7, 1000, 1, 33), OLD, OUR_MIN_RX, 0, 0},
		{"length 29 at the end", sized(set_msg(7, 1000, 1), 29, 29), 7, 1000, 1, 0},
		{"length 29, next at 32", cat({sized(set_msg(7, 1000, 1), 29, 32), set_msg(8, 2000, 0)}), 8, 2000, 0, 0},
		{"rounded length past the end is applied, walk ends", sized(set_msg(7, 1000, 1), 30, 30), 7, 1000, 1, 0},
		{"malformed second header keeps the first", cat({set_msg(7, 1000, 1), set_msg(8, 2000, 0, 4)}), 7, 1000, 1, 0},
		// A skipped message, then a bare header in the last 16 bytes of a
		// full buffer: its payload lies beyond the buffer and reads as zero.
		{"bare header at the end of a full buffer",
		 cat({nl_msg(99, 0, bytes(RX_BUF_LEN - 32, 0xFF)), nl_msg(REFLECTOR_NL_SET, REQ, {})}), 0, 0, 0, 0, 0},
	};
	auto &tr = trace_reader::get();
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		const int outfd = h.vrf->outfd;
		tr.take();
		h.feed_netlink(c.datagram);
		EXPECT_EQ(ntohl(reflector_cfg.discriminator), c.disc);
		EXPECT_EQ(reflector_cfg.minRx, c.min_rx);
		EXPECT_EQ(reflector_cfg.adminDown, c.admin);
		EXPECT_EQ(reflector_cfg.sourceIp, htonl(c.src_host));
		EXPECT_EQ(h.vrf->outfd, outfd) << "no new address to bind: the same transmit socket stays";
		if (!tr.on())
			continue;
		const auto errors = tr.take_level(TRACE_ERROR);
		EXPECT_EQ(count_containing(errors, "ERROR-Netlink: Unknown message type 17, data 5"), c.unknown);
		EXPECT_EQ(errors.size(), static_cast<std::size_t>(c.unknown));
	}
	if (!tr.on())
		return;
	harness h;
	tr.take();
	h.feed_netlink(set_msg(7, 1000, 2));
	EXPECT_EQ(tr.take_level(TRACE_RX), (std::vector<std::string>{"RX: socket netlink ready with 32 bytes",
			"RX-Netlink: set disc 7 min_rx 1000 src_ip 127.0.0.1 adminDown 1"}));
}
