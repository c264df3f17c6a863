// netlink_test.cpp -- the control channel: which messages of a datagram are
// applied, in which order, what a malformed one ends, and the replacement of
// the transmit socket when the source address changes.
#include "rxutil.h"

using namespace rxt;

namespace {

using bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t LOOPBACK_HOST = 0x7F000001;  // 127.0.0.1, host order
constexpr std::uint16_t REQ = NLM_F_REQUEST;

bytes cat(std::initializer_list<bytes> parts)
{
	bytes out;
	for (const auto &p : parts)
		out.insert(out.end(), p.begin(), p.end());
	return out;
}

bytes set_msg(std::uint32_t disc, std::uint32_t min_rx, std::uint8_t admin,
	      std::uint32_t src_host = LOOPBACK_HOST)
{
	return nl_msg(REFLECTOR_NL_SET, REQ, nl_config(disc, min_rx, src_host, admin));
}

// A loopback address of this process's own, so parallel tests never bind the same one.
std::uint32_t own_loopback_host()
{
	const auto pid = static_cast<std::uint32_t>(getpid());
	return 0x7F000000u | (pid & 0xFFFFFFu) | ((pid & 0xFFFFFFu) == 0 ? 1u : 0u);
}

sockaddr_in bound_address(int fd)
{
	sockaddr_in a{};
	socklen_t l = sizeof a;
	getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
	return a;
}

}  // namespace

TEST(NetlinkChannel, WalkAppliesWellFormedRequestsInOrder)
{
	const std::uint32_t OLD = OUR_DISC;
	struct {
		const char *name;
		bytes datagram;
		std::uint32_t disc, min_rx;  // host order, after the datagram
		std::uint8_t admin;
		int unknown;  // unknown-type messages traced
	} const cases[] = {
		{"one message", set_msg(7, 1000, 2), 7, 1000, 2, 0},
		{"no request flag", nl_msg(REFLECTOR_NL_SET, 0, nl_config(7, 1000, LOOPBACK_HOST, 1)), OLD, OUR_MIN_RX, 0, 0},
		{"two messages: the second stands", cat({set_msg(7, 1000, 1), set_msg(8, 2000, 0)}), 8, 2000, 0, 0},
		{"unknown type, then a setting", cat({nl_msg(17, REQ, nl_config(5, 0, 0, 0)), set_msg(9, 3000, 1)}), 9, 3000, 1, 1},
		{"15 bytes", [] { auto m = set_msg(7, 1000, 1); m.resize(15); return m; }(), OLD, OUR_MIN_RX, 0, 0},
		{"first length 8", nl_msg(REFLECTOR_NL_SET, REQ, nl_config(7, 1000, LOOPBACK_HOST, 1), 8), OLD, OUR_MIN_RX, 0, 0},
		{"first length past the datagram", nl_msg(REFLECTOR_NL_SET, REQ, nl_config(7, 1000, LOOPBACK_HOST, 1), 33), OLD, OUR_MIN_RX, 0, 0},
		{"length 29 at the end", [] { auto m = set_msg(7, 1000, 1); m.resize(29); auto h = m; std::uint32_t l = 29; std::memcpy(h.data(), &l, 4); return h; }(), 7, 1000, 1, 0},
		{"length 29, next at 32",
		 [] { auto m = set_msg(7, 1000, 1); std::uint32_t l = 29; std::memcpy(m.data(), &l, 4); return cat({m, set_msg(8, 2000, 0)}); }(), 8, 2000, 0, 0},
		{"rounded length past the end is applied, walk ends",
		 [] { auto m = set_msg(7, 1000, 1); m.resize(30); std::uint32_t l = 30; std::memcpy(m.data(), &l, 4); return m; }(), 7, 1000, 1, 0},
		{"malformed second header keeps the first",
		 cat({set_msg(7, 1000, 1), nl_msg(REFLECTOR_NL_SET, REQ, nl_config(8, 2000, LOOPBACK_HOST, 0), 4)}), 7, 1000, 1, 0},
	};
	auto &tr = trace_reader::get();
	for (const auto &c : cases) {
		SCOPED_TRACE(c.name);
		harness h;
		const int outfd = h.vrf->outfd;
		const sockaddr_in before = bound_address(outfd);
		tr.take();
		h.feed_netlink(c.datagram);
		EXPECT_EQ(ntohl(reflector_cfg.discriminator), c.disc);
		EXPECT_EQ(reflector_cfg.minRx, c.min_rx);
		EXPECT_EQ(reflector_cfg.adminDown, c.admin);
		EXPECT_EQ(reflector_cfg.sourceIp, htonl(LOOPBACK_HOST));
		// The address did not change, so the same transmit socket stays open.
		EXPECT_EQ(h.vrf->outfd, outfd);
		EXPECT_EQ(bound_address(outfd).sin_port, before.sin_port);
		if (tr.on()) {
			auto recs = tr.take();
			std::vector<std::string> errors;
			for (auto &[level, text] : recs)
				if (level == TRACE_ERROR)
					errors.push_back(text);
			EXPECT_EQ(count_containing(errors, "ERROR-Netlink: Unknown message type 17, data 5"), c.unknown);
			EXPECT_EQ(errors.size(), static_cast<std::size_t>(c.unknown));
		}
	}
}

TEST(NetlinkChannel, SettingIsTracedWithTheNewAddressAsText)
{
	auto &tr = trace_reader::get();
	if (!tr.on())
		GTEST_SKIP() << "trace library not initialised in this build";
	harness h;
	tr.take();
	h.feed_netlink(set_msg(7, 1000, 2));
	auto rx = tr.take_level(TRACE_RX);
	ASSERT_EQ(rx.size(), 2u);
	EXPECT_EQ(rx[0], "RX: socket netlink ready with 32 bytes");
	EXPECT_EQ(rx[1], "RX-Netlink: set disc 7 min_rx 1000 src_ip 127.0.0.1 adminDown 1");
}

TEST(NetlinkChannel, ShortMessageAtTheBufferEndReadsMissingBytesAsZero)
{
	harness h;
	reflector_cfg.sourceIp = 0;
	// A skipped 65520-byte message, then a bare type-16 header in the last 16 bytes
	// of a full 65536-byte datagram: its payload lies beyond the buffer.
	bytes filler = nl_msg(99, 0, bytes(65520 - 16, 0xFF));
	bytes d = cat({filler, nl_msg(REFLECTOR_NL_SET, REQ, {})});
	ASSERT_EQ(d.size(), RX_BUF_LEN);
	h.feed_netlink(d);
	EXPECT_EQ(reflector_cfg.discriminator, 0u);
	EXPECT_EQ(reflector_cfg.minRx, 0u);
	EXPECT_EQ(reflector_cfg.adminDown, 0);
	EXPECT_EQ(reflector_cfg.sourceIp, 0u);
}

TEST(NetlinkChannel, NewAddressReplacesTheTransmitSocketOnce)
{
	harness h;
	const std::uint32_t mine = own_loopback_host();
	reflector_cfg.sourceIp = htonl(mine);
	// Away from our address and back within one datagram: still one replacement, on ours.
	h.feed_netlink(cat({set_msg(7, 1000, 0, LOOPBACK_HOST), set_msg(7, 1000, 0, mine)}));
	EXPECT_EQ(reflector_cfg.sourceIp, htonl(mine));
	const sockaddr_in a = bound_address(h.vrf->outfd);
	EXPECT_EQ(a.sin_addr.s_addr, htonl(mine));
	EXPECT_EQ(ntohs(a.sin_port), SBFD_PORT);
}

TEST(NetlinkChannelDeathTest, UnbindableAddressEndsTheProcessWithStatusZero)
{
	harness h;
	auto &tr = trace_reader::get();  // before the fork, so the child traces too
	tr.take();
	// 192.0.2.1 (documentation range) is no address of this host: bind fails.
	EXPECT_EXIT(h.feed_netlink(set_msg(7, 1000, 0, 0xC0000201)), testing::ExitedWithCode(0), "");
	if (tr.on()) {
		auto errors = tr.take_level(TRACE_ERROR);
		EXPECT_EQ(count_containing(errors, "ERROR: bind() result -1, errno "), 1);
		EXPECT_EQ(count_containing(errors, "ERROR: outfd init failed, terminate to retry"), 1);
	}
}
