// martian_test.cpp -- requests whose IPv4 source is forged to a martian
// address or to an address of the daemon's own host reach its packet
// sockets, but their replies never leave: each counts as a failed send. The
// host's addresses are followed as they come, also after the daemon missed
// the kernel's notices of them.
#include <signal.h>

#include <fstream>

#include "e2e/e2eutil.h"

namespace {

using MartianInNamespace = e2e::E2eTest;

TEST_F(MartianInNamespace, ForgedMartianAndOwnSourcesCountAsFailedSendsAndNoReplyLeaves)
{
	constexpr std::uint32_t DISC = 0x5eed;
	start(DISC, 100000);
	// Sees every frame the daemon's host sends, on its loopback too.
	const unique_fd cap{netnsSocketAt(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL), ns_d.c_str())};
	const timeval tv{0, 200000};
	ASSERT_EQ(setsockopt(cap.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv), 0);
	auto send_from = [&](std::uint32_t src, std::uint32_t my_disc) {
		frame_spec s = shape();
		s.src_ip = src;
		EXPECT_TRUE(send_frame(s, {.my_disc = my_disc, .your_disc = DISC}));
	};
	// A true request; the Your Discriminator of the first reply on the
	// initiator's link, and the store once the daemon counted that reply.
	auto ask_true = [&](std::uint32_t my_disc, std::uint64_t sends) {
		const auto r = ask({.my_disc = my_disc, .your_disc = DISC});
		testutil::wait_until([&] { return store().tx_sends >= sends; });
		return std::pair(r ? ntohl(r->pkt.your_disc) : 0, store());
	};
	auto traced = [&](const std::string &text) {
		return testutil::wait_until([&] { return trace().find(text) != std::string::npos; });
	};
	const std::string ip_d = "ip -n " + ns_d + " ";

	ASSERT_EQ(testutil::run(ip_d + "addr add 198.51.100.7/32 dev lo"), 0);
	ASSERT_TRUE(traced("RX-Address: add 198.51.100.7,")) << trace();
	const char *const forged[] = {"127.0.0.1", "0.0.0.1", "224.0.0.1", "240.0.0.1", "255.255.255.255", e2e::DAEMON_IP, "198.51.100.7"};
	for (std::uint32_t k = 0; k < std::size(forged); k++)
		send_from(ntohl(inet_addr(forged[k])), 100 + k);
	const auto [first, shm] = ask_true(200, 1);
	EXPECT_EQ(first, 200u) << "the true initiator is answered, and before it no one on its link";
	EXPECT_EQ(std::tuple(shm.rx_valid_pkts, shm.tx_sends, shm.sendto_fail), std::tuple(8u, 1u, 7u)) << "each once, no retry";
	std::vector<std::uint32_t> left;  // destinations of replies that left the daemon's host
	while (const auto f = capture(e2e::ms(200), /*outgoing=*/true, cap.get()))
		if (f->v.src_port == SBFD_PORT)
			left.push_back(f->v.dst_ip);
	EXPECT_EQ(left, std::vector<std::uint32_t>{e2e::INITIATOR_IP_H});
	for (const std::string t = trace(); const char *a : forged)
		EXPECT_NE(t.find(std::string("ERROR: sendto() returns -1, errno 99 dst_ip ") + a + "\n"), std::string::npos) << a;

	// The daemon stands still while the addresses change far more often than
	// its watch can queue notices of: the last change, an address that
	// stays, is lost, and only the dump after the overrun tells it.
	const testutil::temp_dir dir{"orvbatch"};
	std::ofstream(dir.file("churn")) << [] {
		std::string s;
		for (int i = 0; i < 3000; i++)
			s += "address add 198.51.100.9/32 dev lo\naddress del 198.51.100.9/32 dev lo\n";
		return s + "address add 198.51.100.8/32 dev lo\n";
	}();
	const pid_t pid = daemon->pid();
	ASSERT_EQ(kill(pid, SIGSTOP), 0);
	const testutil::undo resume{[pid] { kill(pid, SIGCONT); }};
	ASSERT_EQ(testutil::run(ip_d + "-batch " + dir.file("churn")), 0);
	ASSERT_EQ(kill(pid, SIGCONT), 0);
	ASSERT_TRUE(traced("ERROR: address watch overrun, reading the addresses again")) << trace();
	send_from(0xc6336408, 300);
	const auto [again, after] = ask_true(201, 2);
	EXPECT_EQ(std::tuple(again, after.tx_sends, after.sendto_fail), std::tuple(201u, 2u, 8u));
	EXPECT_NE(trace().find("errno 99 dst_ip 198.51.100.8\n"), std::string::npos);
}

}  // namespace
