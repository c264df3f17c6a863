// ctl_test.cpp -- the running configuration end to end: the daemon's
// run-state file at start and after changes, orvalindwarden-ctl changing
// only what it is asked and showing the rest, refusing a partial change
// without that daemon's file, complete changes showing in the very next
// reply, its error exits, reaching a detached daemon through its pid file,
// and reporting a daemon that ends on a change with the reason from its trace.
#include "e2e/e2eutil.h"
#include "nlctl.h"

namespace {

using e2e::bin, e2e::ms, e2e::result;

class CtlInNamespace : public e2e::E2eTest {
protected:
	result ctl(std::vector<std::string> where, const std::vector<std::string> &what)
	{
		where.insert(where.begin(), bin("orvalindwarden-ctl"));
		where.insert(where.end(), what.begin(), what.end());
		return e2e::run(where);
	}
	std::vector<std::string> here() const { return {"--netns", ns_d, "--pid", std::to_string(daemon->pid())}; }
	std::size_t traced(const std::string &part) const
	{
		const std::string t = trace();
		std::size_t n = 0;
		for (std::size_t at = 0; (at = t.find(part, at)) != std::string::npos; at++)
			n++;
		return n;
	}
};

TEST_F(CtlInNamespace, ChangesWhatItIsAskedShowsItInTheNextReplyAndReportsAnUnreachableDaemon)
{
	start(100, 1000);
	const pid_t pid = daemon->pid();
	run_state s{};
	ASSERT_EQ(run_state_read(state_path().c_str(), &s), RUN_STATE_OK) << testutil::read_file(state_path());
	EXPECT_EQ(std::tuple(s.pid, s.discriminator, s.source_ip, s.min_rx, s.admin_down, s.since_sec, s.since_nsec),
		  std::tuple(pid, 100u, htonl(e2e::DAEMON_IP_H), 1000u, std::uint8_t{0}, s.started_sec, s.started_nsec))
		<< "not the command line's configuration, since its start";

	result r = ctl(here(), {"--admin-down"});
	ASSERT_EQ(std::tuple(r.status, r.out), std::tuple(0, ""));
	auto reply = ask({.my_disc = 555, .your_disc = 100});
	ASSERT_TRUE(reply) << "no reply with the discriminator kept";
	EXPECT_EQ(std::tuple(ntohl(reply->pkt.my_disc), ntohl(reply->pkt.min_rx_interval), bfd_state_of(reply->pkt),
			     bfd_diag(reply->pkt), reply->v.src_ip),
		  std::tuple(100u, 1000u, BFD_STATE_ADMIN_DOWN, BFD_DIAG_ADMIN_DOWN, e2e::DAEMON_IP_H));
	r = ctl(here(), {"-r", "2000"});  // keeps the admin state just set
	ASSERT_EQ(r.status, 0) << r.out;
	reply = ask({.my_disc = 555, .your_disc = 100});
	ASSERT_TRUE(reply);
	EXPECT_EQ(std::tuple(ntohl(reply->pkt.min_rx_interval), bfd_state_of(reply->pkt)), std::tuple(2000u, BFD_STATE_ADMIN_DOWN));
	r = ctl(here(), {"--show"});
	EXPECT_TRUE(r.status == 0 && r.has("discriminator 100\nsource        192.0.2.1\nmin-rx        2000 us\n"
					   "admin         down (AdminDown)\nsince         ") &&
		    r.has(" (last change)\npid           " + std::to_string(pid) + ", started "))
		<< r.out;

	// Refused, and nothing sent: a partial change without the file of this
	// daemon; sources it cannot send from (a loopback address, one not of
	// its namespace); errors of the command line and of reaching it.
	const std::string stale_object = shm_name() + "-stale", stale = e2e::state_file(stale_object), p = std::to_string(pid);
	const testutil::undo remove_stale{[&] { unlink(stale.c_str()); }};
	s.pid = 1;
	ASSERT_EQ(run_state_write(stale.c_str(), s), 0);
	std::ofstream(logs.file("d.pid")) << pid << "\n";
	const std::vector<std::string> all = {"-d", "9", "-r", "1", "-s", e2e::DAEMON_IP, "--admin-up"};
	const struct {
		std::vector<std::string> where, what;
		int status;
		std::string message, also = "";
	} refused[] = {
		{here(), {"--object", stale_object, "--admin-up"}, 1, "is stale: it was written by process 1, not " + p, "give all four values"},
		{here(), {"--nspath", "/orv-none", "--show"}, 1, "no run-state file " + e2e::state_file("orvalindwarden-orv-none")},
		{here(), {}, 2, "nothing to change"},
		{{"--pid", p, "--pidfile", "/nonexistent/orv.pid"}, {"--admin-up"}, 2, "--pid and --pidfile exclude each other"},
		{here(), {"-d", "300", "-r", "1", "-s", "127.0.0.1", "--admin-up"}, 2, "'127.0.0.1' cannot be a source address"},
		{here(), {"-d", "300", "-r", "1", "-s", "198.51.100.9", "--admin-up"}, 1,
		 "source 198.51.100.9 is no address of network namespace " + ns_d},
		{{"--netns", ns_d, "--pid", "4194305"}, all, 1, "no process with pid 4194305"},  // above any pid
		{{"--netns", "orvtest-none", "--pid", p}, all, 1, "netlink socket in namespace orvtest-none"},
		{{"--netns", ns_d, "--pidfile", "/nonexistent/orv.pid"}, all, 1, "cannot read pid file"},
		{{"--netns", ns_d, "--pidfile", "/dev/zero"}, all, 1, "pid file /dev/zero is not a regular file"},  // refused unread
		{{"--pid", p}, all, 1, "another network namespace"},  // the daemon's port is not in ours
	};
	for (const auto &c : refused) {
		r = ctl(c.where, c.what);
		EXPECT_TRUE(r.status == c.status && r.has(c.message) && r.has(c.also)) << r.out;
	}
	EXPECT_EQ(traced("RX-Netlink: set "), 2u) << "a refused change was sent";

	r = ctl({"--netns", ns_d, "--pidfile", logs.file("d.pid")}, {"-d", "200", "-r", "5000", "-s", e2e::DAEMON_IP, "--admin-down"});
	ASSERT_EQ(std::tuple(r.status, r.out), std::tuple(0, ""));
	reply = ask({.my_disc = 555, .your_disc = 200});
	ASSERT_TRUE(reply) << "no reply to the new discriminator";
	EXPECT_EQ(std::tuple(ntohl(reply->pkt.my_disc), ntohl(reply->pkt.min_rx_interval), bfd_state_of(reply->pkt), bfd_diag(reply->pkt)),
		  std::tuple(200u, 5000u, BFD_STATE_ADMIN_DOWN, BFD_DIAG_ADMIN_DOWN));
	EXPECT_FALSE(ask({.my_disc = 555, .your_disc = 100}, ms(300))) << "the old discriminator is someone else's now";

	// Up again, from a new address of the daemon's namespace.
	ASSERT_EQ(testutil::run("ip -n " + ns_d + " addr add 192.0.2.3/24 dev vd0"), 0);
	ASSERT_EQ(ctl(here(), {"-d", "200", "-r", "0", "-s", "192.0.2.3", "--admin-up"}).status, 0);
	reply = ask({.my_disc = 555, .your_disc = 200});
	ASSERT_TRUE(reply) << "no reply after the source change";
	EXPECT_EQ(std::tuple(bfd_state_of(reply->pkt), bfd_diag(reply->pkt), ntohl(reply->pkt.min_rx_interval), reply->v.src_ip,
			     reply->v.src_port, reply->v.tos, reply->v.ttl),
		  std::tuple(BFD_STATE_UP, 0, 0u, 0xc0000203u, SBFD_PORT, 0xc0, 255))
		<< "reply not from the new address, or without the socket's options";
	EXPECT_EQ(traced("RX-Netlink: set "), 4u) << trace();
	// The source it runs with is kept without a check, even gone from the namespace.
	ASSERT_EQ(testutil::run("ip -n " + ns_d + " addr del 192.0.2.3/24 dev vd0"), 0);
	r = ctl(here(), {"--admin-down"});
	EXPECT_EQ(std::tuple(r.status, r.out), std::tuple(0, ""));
}

// The daemon ends when it cannot bind a new source's port 7784 (here held by
// another socket, while the address itself binds, as ctl checks it): ctl
// says so with the daemon's last error record. A daemon that lives on
// without showing the change, and one killed by a signal, are told apart.
TEST_F(CtlInNamespace, ReportsADaemonThatEndsOnTheChangeWithItsLastError)
{
	start(100, 1000);
	ASSERT_EQ(testutil::run("ip -n " + ns_d + " addr add 192.0.2.3/24 dev vd0"), 0);
	const unique_fd holder{netnsSocketAt(AF_INET, SOCK_DGRAM, 0, ns_d.c_str())};
	const sockaddr_in held{AF_INET, htons(SBFD_PORT), {htonl(0xc0000203)}, {}};
	ASSERT_EQ(bind(holder.get(), reinterpret_cast<const sockaddr *>(&held), sizeof held), 0);
	result r = ctl(here(), {"-s", "192.0.2.3"});
	EXPECT_TRUE(r.status == 1 &&
		    r.has("the daemon (pid " + std::to_string(daemon->pid()) +
			  ") ended after the change: ERROR: outfd init failed, terminate to retry (trace " +
			  logs.file("orvalindwarden.bl") + ")"))
		<< r.out;
	EXPECT_EQ(daemon->exit_status(), 0);

	start(100, 1000);
	const pid_t pid = daemon->pid();
	run_state before{};
	ASSERT_EQ(run_state_read(state_path().c_str(), &before), RUN_STATE_OK);
	const nlctl_config asked{100, 1000, e2e::DAEMON_IP_H, true};
	const std::string bl = logs.file("orvalindwarden.bl");
	std::string err;
	EXPECT_EQ(nlctl_confirm(pid, state_path().c_str(), asked, &before, nlctl_realtime_ns(), bl.c_str(), ms(200), &err),
		  NLCTL_ERR_UNCONFIRMED);
	EXPECT_NE(err.find("still shows the configuration before it"), std::string::npos) << err;
	ASSERT_EQ(kill(pid, SIGKILL), 0);  // left unreaped: a zombie is no daemon
	EXPECT_EQ(nlctl_confirm(pid, state_path().c_str(), asked, &before, nlctl_realtime_ns(), bl.c_str(), ms(2000), &err),
		  NLCTL_ERR_ENDED);
	EXPECT_NE(err.find("ended after the change without an error record in its trace " + bl), std::string::npos) << err;
}

// Detached (-D), the daemon writes its pid file after the fork: the file
// names the process that runs on, and ctl --pidfile reaches it. The daemon
// writes a file of the test's own, bound over the global one, which daemons
// of tests running beside this one write too.
TEST_F(CtlInNamespace, DetachedDaemonsPidFileNamesTheProcessThatRunsOn)
{
	const std::string pid_file = logs.file("d.pid"), global = "/var/run/orvalindwarden.pid";
	std::ofstream{pid_file};
	private_fs = "mount --make-rprivate /\n[ -e " + global + " ] || : > " + global + "\nmount --bind " + pid_file + " " + global + "\n";
	EXPECT_FALSE(spawn({"-D", "-d", "100", "-p", e2e::DAEMON_IP, "-r", "1000"})) << "still in the foreground";
	ASSERT_EQ(daemon->exit_status(), 0) << daemon->out() << daemon->err();
	pid_t pid = 0;
	const testutil::undo stop{[&] {
		if (pid > 0)
			kill(pid, SIGKILL);
	}};
	ASSERT_TRUE(testutil::wait_until([&] {  // the only process of its namespace, once its netlink port is bound
		pid = std::atoi(testutil::output_of("ip netns pids " + ns_d).c_str());
		const std::string p = std::to_string(pid);
		return pid > 0 && testutil::read_file("/proc/" + p + "/net/netlink").find(" 2   " + p + " ") != std::string::npos;
	})) << "no detached daemon";
	EXPECT_EQ(testutil::read_file(pid_file), std::to_string(pid) + "\n");
	const result r = ctl({"--netns", ns_d, "--pidfile", pid_file}, {"-r", "2000"});  // confirmed in its run-state file
	EXPECT_EQ(std::tuple(r.status, r.out), std::tuple(0, ""));
}

// A daemon that cannot write its run-state file answers all the same and
// says why in its trace; ctl still sends complete changes to it.
TEST_F(CtlInNamespace, DaemonWithoutItsRunStateFileAnswersAndTracesWhy)
{
	private_fs = "mount --make-rprivate /\nmkdir -p " + std::string(RUN_STATE_DIR) + "\nmount -t tmpfs -o ro orvrun " +
		     RUN_STATE_DIR + "\n";
	start(100, 1000);
	ASSERT_TRUE(ask({.my_disc = 555, .your_disc = 100}));
	const std::string why = "ERROR: run-state file " + state_path() + " not written, errno 30";  // EROFS
	EXPECT_EQ(traced(why), 1u) << trace();
	result r = ctl(here(), {"--admin-down"});
	EXPECT_TRUE(r.status == 1 && r.has("cannot change part of the configuration: no run-state file")) << r.out;
	r = ctl(here(), {"-d", "200", "-r", "1000", "-s", e2e::DAEMON_IP, "--admin-up"});
	ASSERT_EQ(std::tuple(r.status, r.out), std::tuple(0, ""));
	ASSERT_TRUE(ask({.my_disc = 555, .your_disc = 200}));
	EXPECT_EQ(traced(why), 2u) << trace();
}

}  // namespace
