// nlctl_test.cpp -- the control agent's library: argument validation. The
// message bytes, the "nobody there" errors and the pid file are met end to
// end (tools_test, fault_test).
#include "nlctl.h"

#include <gtest/gtest.h>

namespace {

TEST(Nlctl, ArgumentsAreDecimalsWithinRangeAndUsableAddresses)
{
	const struct {
		const char *text;
		std::uint32_t lo;
		bool ok;
	} cases[] = {{"1", 1, true},  {"4294967295", 1, true}, {"007", 0, true}, {"0", 1, false}, {"4294967296", 0, false},
		     {"-1", 0, false}, {"+1", 0, false}, {" 1", 0, false}, {"1 ", 0, false}, {"0x10", 0, false}, {"", 0, false}};
	for (const auto &c : cases) {
		std::uint32_t v = 12345;
		std::string err;
		EXPECT_EQ(nlctl_parse_u32(c.text, c.lo, 0xffffffff, &v, &err), c.ok) << "'" << c.text << "'";
		if (c.ok)
			EXPECT_EQ(v, std::stoul(c.text)) << c.text;
		else
			EXPECT_NE(err.find(c.text), std::string::npos) << err;
	}
	std::uint32_t v = 0;
	std::string err;
	EXPECT_TRUE(nlctl_parse_ipv4("198.51.100.7", &v, &err));
	EXPECT_EQ(v, 0xc6336407u);
	for (const char *bad : {"", "198.51.100", "198.51.100.256", "198.51.100.7 ", "0.0.0.0", "255.255.255.255", "::1"})
		EXPECT_FALSE(nlctl_parse_ipv4(bad, &v, &err)) << bad;
}

}  // namespace
