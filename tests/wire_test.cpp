// wire_test.cpp -- the shared vocabulary (src/wire): bounded loads, IPv4
// text and state and diagnostic names. The byte-order codecs are checked
// where frames are built and read (rx_test, sbfd_probe_test).
#include <arpa/inet.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "wire.h"

namespace {

// The bytes end where a page without access begins: a load that read one
// byte past its bound would fault here, and not only under the sanitizers.
TEST(WireByteOrder, LoadWithinReadsZerosPastTheBoundAndNeverTouchesThem)
{
	const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
	auto *map = static_cast<std::uint8_t *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
	ASSERT_NE(map, MAP_FAILED);
	ASSERT_EQ(mprotect(map + page, page, PROT_NONE), 0);
	const std::uint8_t msg[6] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
	std::uint8_t *end = map + page;
	std::memcpy(end - sizeof msg, msg, sizeof msg);
	const std::span<const std::uint8_t> dgram{end - sizeof msg, sizeof msg};
	// Offset, then the expected value: whole, cut by the bound, wholly past it.
	const std::pair<std::size_t, std::uint32_t> cases[] = {
		{0, load_host<std::uint32_t>(msg)}, {2, load_host<std::uint32_t>(msg + 2)}, {3, 0x00665544},
		{5, 0x00000066}, {6, 0}, {7, 0}, {SIZE_MAX, 0}};
	for (const auto &[off, want] : cases)
		EXPECT_EQ(load_host_within<std::uint32_t>(dgram, off), want) << "offset " << off;
	EXPECT_EQ(load_host_within<std::uint8_t>(dgram, 5), 0x66);
	EXPECT_EQ(load_host_within<std::uint8_t>(dgram, 6), 0);
	EXPECT_EQ(load_host_within<std::uint64_t>({end, std::size_t{0}}, 0), 0u) << "an empty datagram";
	munmap(map, 2 * page);
}

TEST(WireIpv4Text, IsTheTextInetNtoaGivesForEveryNumberOfDigits)
{
	const std::uint8_t parts[] = {0, 1, 9, 10, 99, 100, 199, 200, 255};  // every number of digits, each place
	for (unsigned n = 0; n < 9 * 9 * 9 * 9; n++) {
		const std::uint8_t bytes[4] = {parts[n % 9], parts[n / 9 % 9], parts[n / 81 % 9], parts[n / 729]};
		in_addr in;
		std::memcpy(&in.s_addr, bytes, sizeof bytes);
		ASSERT_STREQ(ipv4_dotted(in.s_addr).text, inet_ntoa(in));
	}
	char buf[IPV4_TEXT_LEN];
	std::memset(buf, 'x', sizeof buf);
	EXPECT_EQ(ipv4_format(0xFFFFFFFF, buf), buf);
	EXPECT_EQ(std::string(buf, sizeof buf), std::string("255.255.255.255") + '\0') << "the longest text fills the buffer";
}

TEST(WireNames, EachStateAndDiagnosticHasItsOwnNameAndAnyOtherValueIsUnknown)
{
	std::set<std::string> states, diags;
	for (unsigned v = 0; v < 256; v++) {
		const std::string s = bfd_state_name(static_cast<std::uint8_t>(v)), d = bfd_diag_name(static_cast<std::uint8_t>(v));
		EXPECT_EQ(s == "unknown", v > BFD_STATE_MAX) << v;
		EXPECT_EQ(d == "unknown", v > BFD_DIAG_REVERSE_CONCAT_PATH_DOWN) << v;
		states.insert(s), diags.insert(d);
	}
	EXPECT_EQ(states.size(), 4u + 1) << "four states and unknown";
	EXPECT_EQ(diags.size(), 9u + 1) << "nine diagnostics and unknown";
	EXPECT_STREQ(bfd_diag_name(BFD_DIAG_NEIGHBOR_DOWN), "Neighbor Signaled Session Down");
}

}  // namespace
