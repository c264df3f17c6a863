// sbfd_probe_test.cpp -- the initiator library: frame building and parsing,
// and the probe loop's matching of replies to probes against a scripted
// reflector on a loopback address.
#include "sbfd_probe.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "unique_fd.h"

namespace {

TEST(ProbeFrame, BuildsAndParsesPlainLabelledAndOptionFramesAndRefusesCutOrNonUdpOnes)
{
	const std::uint8_t payload[BFD_PKT_LEN] = {0x20, 0x42, 3, 24, 0, 0, 0, 1};
	// Labels, bytes of IPv4 options, where the control packet starts.
	const std::tuple<std::vector<std::uint32_t>, std::size_t, std::size_t> cases[] = {
		{{}, 0, 42}, {{0}, 0, 46}, {{16, 0}, 0, 50}, {{}, 8, 50}};
	frame_spec s{.labels = {}, .tos = 0xc0, .ip_ttl = 255, .ip_options = {}, .src_ip = 0xc0000202, .dst_ip = 0xc0000201,
		     .src_port = 49152};
	frame_view v;
	for (const auto &[labels, opt_len, payload_off] : cases) {
		s.labels = labels;
		s.ip_options.assign(opt_len, 1);  // NOP options
		const auto f = probe_frame_build(s, payload);
		ASSERT_EQ(f.size(), payload_off + BFD_PKT_LEN);
		EXPECT_EQ(0, std::memcmp(&f[payload_off], payload, BFD_PKT_LEN));
		// The stack's last entry alone has bottom-of-stack set.
		for (std::size_t i = 0; i < labels.size(); i++)
			EXPECT_EQ((f[ETH_HDR_LEN + 4 * i + 2] & 1) != 0, i + 1 == labels.size());
		// The header's checksum and the UDP datagram's with its pseudo-header.
		const std::size_t ip_off = ETH_HDR_LEN + 4 * labels.size(), ihl = IPV4_HDR_LEN + opt_len;
		const std::uint32_t udp_len = UDP_HDR_LEN + BFD_PKT_LEN, pseudo = 0xc000 + 0x0202 + 0xc000 + 0x0201 + 17 + udp_len;
		EXPECT_EQ(std::tuple(probe_checksum({&f[ip_off], ihl}), probe_checksum({&f[ip_off + ihl], udp_len}, pseudo)),
			  std::tuple(0, 0));
		ASSERT_TRUE(probe_frame_parse(f, &v));
		EXPECT_EQ(std::tuple(v.label_entries.size(), v.src_ip, v.dst_ip, v.src_port, v.dst_port, v.tos, v.ttl),
			  std::tuple(labels.size(), s.src_ip, s.dst_ip, 49152, SBFD_PORT, 0xc0, 255));
		ASSERT_EQ(v.payload.size(), BFD_PKT_LEN);
		for (std::size_t len : {std::size_t{0}, std::size_t{13}, ip_off + 19, ip_off + ihl + 7, f.size() - 1})
			EXPECT_FALSE(probe_frame_parse({f.data(), len}, &v)) << "cut to " << len;
	}
	s.ip_proto = 6;
	EXPECT_FALSE(probe_frame_parse(probe_frame_build(s, payload), &v));
}

// What sbfd-ping prints: a reply with every field, and the summary of 10
// probes, 6 answered in time, 2 late (lost all the same) and 2 never.
TEST(PingOutput, ReplyLineAndSummaryShowEveryFieldAndTheCounts)
{
	bfd_ctrl_pkt pkt{.vers_diag = BFD_VERSION << BFD_VERSION_SHIFT | BFD_DIAG_ADMIN_DOWN,
			 .flags = BFD_STATE_ADMIN_DOWN << BFD_STATE_SHIFT | BFD_FLAG_F | BFD_FLAG_C, .detect_multiplier = 3, .length = 24,
			 .my_disc = htonl(4711), .your_disc = htonl(77), .min_tx_interval = htonl(1000000),
			 .min_rx_interval = htonl(40000), .min_echo_rx_interval = htonl(5)};
	const sockaddr_in from{AF_INET, htons(SBFD_PORT), {inet_addr("192.0.2.1")}, {}};
	EXPECT_EQ(probe_format_reply(pkt, BFD_PKT_LEN, from, 3, 1.25),
		  "24 bytes from 192.0.2.1:7784: seq=3 state=AdminDown diag=7 (Administratively Down) flags=FC mult=3 len=24 "
		  "my_disc=4711 your_disc=77 min_tx=1000000 min_rx=40000 min_echo_rx=5 time=1.250 ms");
	ping_options opt;
	opt.target = from.sin_addr;
	// Round trips 0.5, 1, 1, 1, 1.2 and 2.5 ms.
	const ping_stats st{.sent = 10, .received = 6, .late = 2, .rtt_min_ms = 0.5, .rtt_max_ms = 2.5, .rtt_sum_ms = 7.2,
			    .rtt_sum2_ms = 10.94, .elapsed_ms = 9012.4};
	char *text = nullptr;
	std::size_t len = 0;
	std::FILE *out = open_memstream(&text, &len);
	ping_print_summary(opt, st, out);
	std::fclose(out);
	EXPECT_EQ(std::string(text, len), "\n--- 192.0.2.1 sbfd-ping statistics ---\n"
					  "10 packets transmitted, 6 received, 40% packet loss, time 9012ms, 2 late\n"
					  "rtt min/avg/max/mdev = 0.500/1.200/2.500/0.619 ms\n");
	std::free(text);
}

// A reflector on a loopback address of its own, answering per a script:
// 'r' reply, 'x' ignore, 'o' reply for another discriminator, 'd' reply twice,
// 'f' forge: the reply sent from each socket of `forgers` instead.
void scripted_reflector(int fd, std::string script, std::vector<int> forgers = {})
{
	for (char step : script) {
		bfd_ctrl_pkt p;
		sockaddr_in from{};
		socklen_t fl = sizeof from;
		if (recvfrom(fd, &p, sizeof p, 0, reinterpret_cast<sockaddr *>(&from), &fl) < 24)
			return;
		std::swap(p.my_disc, p.your_disc);
		p.flags = static_cast<std::uint8_t>(BFD_STATE_UP << 6);
		if (step == 'o')
			p.your_disc = htonl(ntohl(p.your_disc) + 1);
		for (int i = 0; i < (step == 'd' ? 2 : step == 'x' || step == 'f' ? 0 : 1); i++)
			sendto(fd, &p, sizeof p, 0, reinterpret_cast<sockaddr *>(&from), fl);
		for (int forger : step == 'f' ? forgers : std::vector<int>{})
			sendto(forger, &p, sizeof p, 0, reinterpret_cast<sockaddr *>(&from), fl);
	}
}

// A UDP socket bound to `addr`:`port` (host order).
unique_fd bound_udp(std::uint32_t addr, std::uint16_t port)
{
	unique_fd fd{socket(AF_INET, SOCK_DGRAM, 0)};
	const sockaddr_in a{AF_INET, htons(port), {htonl(addr)}, {}};
	EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr *>(&a), sizeof a), 0) << strerror(errno);
	return fd;
}

TEST(PingRun, MatchesRepliesToProbesAndCountsLossLateForeignAndWrongSource)
{
	// 127.77.x.y from the pid, so parallel runs do not share the port.
	const std::uint32_t addr = 0x7f4d0000u | (static_cast<std::uint32_t>(getpid()) & 0xffff);
	const unique_fd fd = bound_udp(addr, SBFD_PORT);
	// Forgers: the target's address from another port, another address from 7784.
	const unique_fd wrong_port = bound_udp(addr, 0), wrong_addr = bound_udp(addr ^ 0x10000, SBFD_PORT);
	ASSERT_TRUE(fd.get() >= 0 && wrong_port.get() >= 0 && wrong_addr.get() >= 0);
	timeval tv{5, 0};
	setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
	std::thread refl(scripted_reflector, fd.get(), "rxodrf", std::vector<int>{wrong_port.get(), wrong_addr.get()});
	// A timeout below the interval writes a lost probe off before the next.
	const ping_options opt{.target = {htonl(addr)}, .source = std::nullopt, .count = 6, .interval_s = 0.3, .timeout_s = 0.2,
			       .params = {.my_disc = 1234, .your_disc = 99}, .mpls_iface = {}, .dst_mac = std::nullopt};
	ping_stats st;
	std::string err;
	char *text = nullptr;
	std::size_t text_len = 0;
	std::FILE *out = open_memstream(&text, &text_len);
	const int rc = ping_run(opt, out, &st, &err, nullptr);
	std::fclose(out);
	refl.join();
	const std::string output(text, text_len);
	std::free(text);
	ASSERT_EQ(rc, PING_OK) << err;
	// Probe 2 is lost, probe 3's reply is for someone else, the second
	// reply to probe 4 finds no probe waiting, and probe 6 has only forged
	// replies, which answer nothing.
	EXPECT_EQ(std::tuple(st.sent, st.received, st.late, st.foreign, st.wrong_source), std::tuple(6u, 3u, 1u, 1u, 2u));
	EXPECT_TRUE(st.rtt_min_ms > 0 && st.rtt_min_ms <= st.rtt_max_ms) << st.rtt_min_ms << " " << st.rtt_max_ms;
	EXPECT_NE(output.find("(not for us)"), std::string::npos) << output;
	for (const char *absent : {"seq=2 ", "seq=6 "})
		EXPECT_EQ(output.find(absent), std::string::npos) << output;
	// One line per forged reply, naming its source.
	std::size_t lines = 0;
	for (std::size_t at = 0; (at = output.find(" (wrong source)\n", at)) != std::string::npos; at++)
		lines++;
	EXPECT_EQ(lines, 2u) << output;
	const std::string forger = "24 bytes from " + std::string(ipv4_dotted(htonl(addr ^ 0x10000)).text) + ":7784: ";
	EXPECT_NE(output.find(forger), std::string::npos) << output;
}

}  // namespace
