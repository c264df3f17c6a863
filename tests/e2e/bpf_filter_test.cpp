// bpf_filter_test.cpp -- the reflector's two kernel filter programs run in
// an independent classic BPF interpreter (libpcap's) over crafted frames.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <pcap/bpf.h>

#include "reflector.h"
#include "sbfd_probe.h"

namespace {

constexpr unsigned ACCEPT = 0xffff;

// Ethernet [labels] IPv4 UDP (or `proto`) to `port`, with `opts` bytes of options.
std::vector<std::uint8_t> ipv4(std::vector<std::uint32_t> labels = {}, std::uint16_t port = SBFD_PORT,
			       std::uint8_t proto = IP_PROTO_UDP, std::uint16_t frag = 0, std::size_t opts = 0)
{
	const frame_spec s{.labels = std::move(labels), .ip_proto = proto, .frag = frag,
			   .ip_options = std::vector<std::uint8_t>(opts, 1), .dst_port = port};
	return probe_frame_build(s, std::vector<std::uint8_t>(BFD_PKT_LEN));
}

// Ethernet [label 0] IPv6 UDP to 7784: IPv4 with a 40-byte header, rewritten.
std::vector<std::uint8_t> ipv6(bool labelled)
{
	auto f = ipv4(std::vector<std::uint32_t>(labelled, 0), SBFD_PORT, IP_PROTO_UDP, 0, 20);
	const std::size_t ip = ETH_HDR_LEN + 4 * labelled;
	if (!labelled)
		f[12] = 0x86, f[13] = 0xdd;
	f[ip] = 0x60;
	f[ip + 6] = IP_PROTO_UDP;  // Next Header
	return f;
}

TEST(BpfFilters, PassExactlyTheFramesTheReflectorServes)
{
	auto cut = [](std::vector<std::uint8_t> f, std::size_t len) { return f.resize(len), f; };
	auto tc_ttl = ipv4({0});
	tc_ttl[16] |= 0x0e;  // traffic class 7
	tc_ttl[17] = 1;      // TTL 1
	auto vlan = ipv4();
	vlan[12] = 0x81, vlan[13] = 0x00;
	const struct {
		const char *what;
		std::vector<std::uint8_t> frame;
		unsigned udp, mpls;
	} cases[] = {
		{"IPv4 UDP to 7784", ipv4(), ACCEPT, 0},
		{"IPv4 UDP to 7785", ipv4({}, 7785), 0, 0},
		{"IPv4 TCP to 7784", ipv4({}, SBFD_PORT, 6), 0, 0},
		{"IPv4 with 40 bytes of options", ipv4({}, SBFD_PORT, IP_PROTO_UDP, 0, 40), ACCEPT, 0},
		{"first fragment, More Fragments", ipv4({}, SBFD_PORT, IP_PROTO_UDP, 0x2000), ACCEPT, 0},
		{"non-first fragment", ipv4({}, SBFD_PORT, IP_PROTO_UDP, 0x0010), 0, 0},
		{"IPv6 UDP to 7784", ipv6(false), ACCEPT, 0},
		{"VLAN tag", vlan, 0, 0},
		{"label 0, IPv4 UDP to 7784", ipv4({0}), 0, ACCEPT},
		{"label 0, traffic class and TTL set", tc_ttl, 0, ACCEPT},
		{"label 0, UDP to 7785", ipv4({0}, 7785), 0, 0},
		{"label 1", ipv4({1}), 0, 0},
		{"two labels", ipv4({0, 0}), 0, 0},
		{"label 0, IPv4 options", ipv4({0}, SBFD_PORT, IP_PROTO_UDP, 0, 12), 0, ACCEPT},
		{"label 0, non-first fragment", ipv4({0}, SBFD_PORT, IP_PROTO_UDP, 0x0100), 0, 0},
		{"label 0, IPv6 UDP to 7784", ipv6(true), 0, ACCEPT},
		{"IPv4 cut after the ports", cut(ipv4(), 14 + 20 + 4), ACCEPT, 0},
	};
	for (const auto &c : cases) {
		const unsigned n = static_cast<unsigned>(c.frame.size());
		for (auto [prog, want] : {std::pair(sbfd_udp_filter, c.udp), std::pair(sbfd_mpls_filter, c.mpls)})
			EXPECT_EQ(bpf_filter(reinterpret_cast<const bpf_insn *>(prog), c.frame.data(), n, n), want)
				<< (prog == sbfd_udp_filter ? "sbfd_udp_filter: " : "sbfd_mpls_filter: ") << c.what;
	}
}

}  // namespace
