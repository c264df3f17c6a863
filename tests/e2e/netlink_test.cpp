// netlink_test.cpp -- run-time reconfiguration of a running reflector through
// orvalindwarden-ctl: discriminator, minimum interval and administrative
// state show in the very next reply, a new source address re-binds the
// transmit socket, and an address that cannot be bound ends the daemon.
#include <gtest/gtest.h>

#include "e2eutil.h"

namespace {

using e2e::E2eTest;

// Runs orvalindwarden-ctl against the bench's daemon; returns its exit status.
int ctl(e2e::bench &b, const std::vector<std::string> &args, std::string *out = nullptr)
{
	std::vector<std::string> argv = {e2e::bin("orvalindwarden-ctl"), "--netns", b.ns_d(), "--pid",
					 std::to_string(b.daemon_pid())};
	argv.insert(argv.end(), args.begin(), args.end());
	testutil::child_process p(argv);
	int rc = p.exit_status();
	if (out)
		*out = p.out() + p.err();
	return rc;
}

probe_params request(std::uint32_t your_disc)
{
	probe_params p;
	p.my_disc = 555;
	p.your_disc = your_disc;
	return p;
}

TEST_F(E2eTest, ControlMessagesShowInTheNextReply)
{
	start(100, 1000);
	e2e::shm_view shm(b->shm_path());
	ASSERT_TRUE(shm.ok());

	std::string out;
	ASSERT_EQ(ctl(*b, {"-d", "200", "-r", "5000", "-s", e2e::DAEMON_IP, "--admin-down"}, &out), 0) << out;
	ASSERT_TRUE(ini->send_udp(request(200)));
	auto r = ini->capture();
	ASSERT_TRUE(r) << "no reply to the new discriminator";
	EXPECT_EQ(ntohl(r->pkt.my_disc), 200u);
	EXPECT_EQ(ntohl(r->pkt.min_rx_interval), 5000u);
	EXPECT_EQ(bfd_state_of(r->pkt), BFD_STATE_ADMIN_DOWN);
	EXPECT_EQ(bfd_diag(r->pkt), BFD_DIAG_ADMIN_DOWN);
	EXPECT_EQ(r->v.src_ip, e2e::DAEMON_IP_H);

	// The old discriminator is now someone else's.
	ASSERT_TRUE(ini->send_udp(request(100)));
	EXPECT_FALSE(ini->capture(std::chrono::milliseconds(300)));
	EXPECT_TRUE(testutil::wait_until([&] { return shm.u32(e2e::OFF_YOUR_DISC_UNMATCH) == 1; }));

	ASSERT_EQ(ctl(*b, {"-d", "200", "-r", "0", "-s", e2e::DAEMON_IP, "--admin-up"}, &out), 0) << out;
	ASSERT_TRUE(ini->send_udp(request(200)));
	r = ini->capture();
	ASSERT_TRUE(r);
	EXPECT_EQ(bfd_state_of(r->pkt), BFD_STATE_UP);
	EXPECT_EQ(bfd_diag(r->pkt), 0);
	EXPECT_EQ(ntohl(r->pkt.min_rx_interval), 0u);
}

TEST_F(E2eTest, NewSourceAddressRebindsAndAnUnbindableOneEndsTheDaemon)
{
	start(100, 1000);
	ASSERT_EQ(testutil::run("ip -n " + b->ns_d() + " addr add 192.0.2.3/24 dev vd0"), 0);
	std::string out;
	ASSERT_EQ(ctl(*b, {"-d", "100", "-r", "1000", "-s", "192.0.2.3", "--admin-up"}, &out), 0) << out;
	ASSERT_TRUE(ini->send_udp(request(100)));
	auto r = ini->capture();
	ASSERT_TRUE(r) << "no reply after the source change";
	EXPECT_EQ(r->v.src_ip, 0xc0000203u) << "reply not from the new address";
	EXPECT_EQ(r->v.src_port, SBFD_PORT);
	EXPECT_EQ(r->v.tos, 0xc0);
	EXPECT_EQ(r->v.ttl, 255);

	// 198.51.100.9 is no address of the daemon's namespace.
	ASSERT_EQ(ctl(*b, {"-d", "100", "-r", "1000", "-s", "198.51.100.9", "--admin-up"}, &out), 0) << out;
	EXPECT_EQ(b->daemon().exit_status(std::chrono::seconds(10)), 0);
	std::string t = b->trace();
	EXPECT_NE(t.find("ERROR: outfd init failed, terminate to retry"), std::string::npos) << t;
}

}  // namespace
