// fault_test.cpp -- the daemon under load while harm is done to it: SIGKILL
// and a restart with -S, then a flood of malformed frames, netlink garbage, a
// control message every millisecond and thousands of SIGRTMIN+9. None may
// make a reply wrong or missing, lose a counter or a session, or move one back.
// Then faults of its environment, each in a mount namespace of the daemon's
// own: a trace file system that is full or fills, a trace file truncated
// under load, a full /dev/shm, a store object of another user, and a local
// user racing links into a shared trace directory.
#include <grp.h>
#include <linux/netlink.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>

#include <algorithm>
#include <fstream>
#include <random>

#include "e2e/e2eutil.h"
#include "nlctl.h"

namespace {

constexpr std::uint32_t DISC = 7, MIN_RX = 3300, SESSIONS = 64;
using e2e::ms;
using testutil::bin;

struct load_result {
	std::uint64_t sent = 0;      // requests the kernel took
	std::uint64_t answered = 0;  // right replies, each to a distinct request
	std::uint64_t wrong = 0;     // wrong replies and second replies to one request
};

class FaultInNamespace : public e2e::E2eTest {
protected:
	// Sends requests from 64 initiators (My Discriminator 5000 + k) at `rate`
	// per second for `d`, calls `harm(i)` for i = 0, 1, ... in between, and
	// checks every reply. Each request's sequence number, in Desired Min TX
	// Interval, comes back in its reply (also a reply to a malformed frame).
	template <typename F> load_result load(std::uint32_t rate, ms d, F harm)
	{
		load_result res;
		std::vector<std::uint8_t> answered(rate * static_cast<std::size_t>(d.count()) / 1000);
		const auto start = std::chrono::steady_clock::now();
		const auto period = std::chrono::nanoseconds(1000000000ull / rate);
		for (std::uint64_t seq = 0, i = 0;; i++) {
			const auto now = std::chrono::steady_clock::now();
			for (std::uint8_t b[BFD_PKT_LEN]; seq < answered.size() && start + period * static_cast<long>(seq) <= now; seq++) {
				probe_encode_request({.my_disc = static_cast<std::uint32_t>(5000 + seq % SESSIONS), .your_disc = DISC,
						      .state = BFD_STATE_UP, .min_tx_us = static_cast<std::uint32_t>(seq)}, b);
				res.sent += send(udp.get(), b, sizeof b, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof b);
			}
			if (seq == answered.size() && (res.answered + res.wrong >= res.sent || now > start + d + ms(2000)))
				return res;
			harm(i);
			std::uint8_t b[64];
			bfd_ctrl_pkt r;
			for (ssize_t n; (n = recv(udp.get(), b, sizeof b, MSG_DONTWAIT)) >= 0;) {
				const std::uint64_t s = n == static_cast<ssize_t>(BFD_PKT_LEN) && probe_decode({b, BFD_PKT_LEN}, &r)
								? ntohl(r.min_tx_interval) : ~0ull;
				const bool right = s < answered.size() && ntohl(r.your_disc) == 5000 + s % SESSIONS &&
						   ntohl(r.my_disc) == DISC && bfd_state_of(r) == BFD_STATE_UP &&
						   !(r.flags & BFD_FLAG_D) && r.min_echo_rx_interval == 0 &&
						   ntohl(r.min_rx_interval) == MIN_RX;
				(right && !answered[s]++ ? res.answered : res.wrong)++;
			}
		}
	}

	// The daemon's own file system: a /dev with /dev/null, a /dev/shm of
	// `shm_size` and /dev/log the test's system-log socket; the trace
	// directory a tmpfs of `trace_size` unless empty. `extra` runs last.
	void isolate(const std::string &trace_size, const std::string &shm_size, const std::string &extra = "")
	{
		private_fs = "mount --make-rprivate /\n";
		if (!trace_size.empty())
			private_fs += "mount -t tmpfs -o size=" + trace_size + " orvtrace " + logs.path() + "\n";
		private_fs += "mount -t tmpfs -o size=1m orvdev /dev\nmknod -m 666 /dev/null c 1 3\n"
			      "mkdir /dev/shm\nmount -t tmpfs -o size=" + shm_size + " orvshm /dev/shm\n"
			      "ln -s " + syslog.file("log") + " /dev/log\n" + extra;
	}
	// A path as the running daemon sees it.
	std::string seen(const std::string &path) const { return "/proc/" + std::to_string(daemon->pid()) + "/root" + path; }
	// The system-log records received since the last call.
	std::string syslog_text()
	{
		std::string text;
		for (char b[2048]; ;) {
			const ssize_t n = recv(log_sock.get(), b, sizeof b, MSG_DONTWAIT);
			if (n <= 0)
				return text;
			text.append(b, static_cast<std::size_t>(n)).append("\n");
		}
	}
	// The store in the daemon's own /dev/shm.
	reflector_shm private_store() const
	{
		reflector_shm s{};
		std::ifstream(seen("/dev/shm/" + shm_name())).read(reinterpret_cast<char *>(&s), sizeof s);
		return s;
	}
	std::vector<std::string> args = {"-d", std::to_string(DISC), "-p", e2e::DAEMON_IP, "-r", std::to_string(MIN_RX)};

private:
	testutil::temp_dir syslog{"orvsyslog"};
	unique_fd log_sock = [this] {
		unique_fd fd{socket(AF_UNIX, SOCK_DGRAM, 0)};
		sockaddr_un a{AF_UNIX, {}};
		std::snprintf(a.sun_path, sizeof a.sun_path, "%s", syslog.file("log").c_str());
		EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr *>(&a), sizeof a), 0);
		return fd;
	}();
};

TEST_F(FaultInNamespace, KillNineThenPersistRestartUnderHarmLosesNothingAndAnswersEveryRequestRightly)
{
	start(DISC, MIN_RX);
	const auto t0 = std::chrono::steady_clock::now();
	const auto busy = load(5000, ms(2000), [&](std::uint64_t) {
		if (daemon->running() && std::chrono::steady_clock::now() > t0 + ms(1000))
			kill(daemon->pid(), SIGKILL), testutil::wait_until([&] { return !daemon->running(); });
		std::this_thread::sleep_for(std::chrono::microseconds(200));
	});
	ASSERT_FALSE(daemon->running());
	EXPECT_EQ(busy.wrong, 0u);
	auto kept = [](reflector_shm s) {  // the hash counters restart each counting period
		s.rx_hash_miss = s.rx_hash_hit = s.rx_hash_trim = 0;
		return s;
	};
	const reflector_shm killed = kept(store());
	EXPECT_EQ(std::count_if(killed.sessions, killed.sessions + MAX_SESSIONS, [](auto &x) { return x.discriminator; }), SESSIONS);

	start(DISC, MIN_RX, {"-S"});
	const reflector_shm restored = kept(store());
	EXPECT_EQ(std::memcmp(&restored, &killed, SHM_SIZE), 0) << "taking the store up changes nothing";

	std::vector<std::uint8_t> good(BFD_PKT_LEN);
	probe_encode_request({.my_disc = 9, .your_disc = DISC}, good.data());
	auto broken = [&](std::size_t at, std::uint8_t v) {
		auto b = good;
		b[at] = v;
		return probe_frame_build(shape(), b);
	};
	const std::vector<std::vector<std::uint8_t>> bad = {
		broken(0, 0), broken(1, 0x40), broken(2, 0), broken(7, 0), broken(11, 8),  // version, D, Detect Mult, discriminators
		probe_frame_build(shape(), std::span(good).first(20))};
	unique_fd nl{netnsSocketAt(AF_NETLINK, SOCK_RAW, NETLINK_USERSOCK, ns_d.c_str())};
	const sockaddr_nl to{.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = static_cast<std::uint32_t>(daemon->pid()),
			     .nl_groups = 0};
	ASSERT_EQ(connect(nl.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to), 0);
	auto send_nl = [&](std::span<const std::uint8_t> m) {
		return send(nl.get(), m.data(), m.size(), 0) == static_cast<ssize_t>(m.size());
	};
	// Random datagrams, half behind a plausible header of another type.
	// NLM_F_REQUEST is cleared wherever the daemon's walk may find a header
	// (multiples of 4; the flags' low byte at 6), so none holds a setting.
	std::mt19937 rng(20240611);
	auto garbage = [&] {
		std::vector<std::uint8_t> g(16 + rng() % 200);
		std::generate(g.begin(), g.end(), [&] { return static_cast<std::uint8_t>(rng()); });
		for (std::size_t i = 6; i < g.size(); i += 4)
			g[i] &= static_cast<std::uint8_t>(~NLM_F_REQUEST);
		const nlmsghdr h{static_cast<std::uint32_t>(16 + rng() % (g.size() - 15)),
				 static_cast<std::uint16_t>(17 + rng() % 1000), NLM_F_REQUEST, 0, 0};
		if (rng() % 2)
			std::memcpy(g.data(), &h, sizeof h);
		return g;
	};
	const nlctl_config same{DISC, MIN_RX, e2e::DAEMON_IP_H, false};
	std::uint64_t flooded = 0, control = 0, junk = 0, signals = 0;
	const auto r = load(3000, ms(3000), [&](std::uint64_t i) {
		for (std::uint64_t k = 4 * i; k < 4 * i + 4; k++)
			flooded += send(raw.get(), bad[k % bad.size()].data(), bad[k % bad.size()].size(), 0) > 0;
		control += send_nl(nlctl_encode(same, static_cast<std::uint32_t>(i)));
		junk += send_nl(garbage());
		for (int k = 0; k < 3; k++)
			signals += kill(daemon->pid(), SIGRTMIN + 9) == 0;
		std::this_thread::sleep_for(ms(1));
	});
	const reflector_shm now = store();
	EXPECT_EQ(std::tuple(r.answered, r.wrong), std::tuple(r.sent, 0u))
		<< "every valid request answered, rightly; the daemon sent " << now.tx_sends - killed.tx_sends
		<< " replies, " << now.sendto_fail - killed.sendto_fail << " attempts failed";
	EXPECT_TRUE(daemon->running());
	EXPECT_GT(std::min({flooded, signals, 5 * control, 5 * junk}), 5000u) << "too little harm done";

	for (const auto &k : SHMSTAT_COUNTERS)
		if (k.group != shmstat_group::hash) {
			EXPECT_GE(shmstat_counter_value(k, now), shmstat_counter_value(k, killed)) << k.name << " went back";
		}
	EXPECT_EQ(now.rx_valid_pkts - killed.rx_valid_pkts, r.sent) << "every request counted, no malformed frame";
	for (std::size_t k = 0; k < MAX_SESSIONS; k++) {  // each old session found again in its slot, none created
		const auto &was = killed.sessions[k], &is = now.sessions[k];
		EXPECT_TRUE(is.discriminator == was.discriminator && is.source_ip == was.source_ip &&
			    (!was.discriminator || is.num_received > was.num_received))
			<< "slot " << k;
	}
	// The killed run's trace is the previous generation.
	const std::string old = trace(".1");
	EXPECT_NE(old.find("INIT: orvalindwarden ready"), std::string::npos);
	EXPECT_NE(old.find("TX: Send 24 bytes back to initiator"), std::string::npos);
	EXPECT_NE(testutil::output_of(bin("blcat") + " -l 1 " + logs.file("orvalindwarden.bl")).find("Got SIG43 but ignore"),
		  std::string::npos) << "the ignored signal is noted with the errors";
}

TEST_F(FaultInNamespace, TraceStorageFullAtStartFillingOrTruncatedUnderLoadNeverStopsTheReplies)
{
	auto every_request_answered = [&](std::function<void()> harm) {
		const auto r = load(3000, ms(1500), [&](std::uint64_t i) {
			if (i == 200)
				harm();
			std::this_thread::sleep_for(std::chrono::microseconds(200));
		});
		EXPECT_EQ(std::tuple(r.answered, r.wrong), std::tuple(r.sent, 0u));
		EXPECT_TRUE(daemon->running());
	};
	// The file's blocks are reserved at start: a file system that fills up
	// afterwards takes none of them.
	isolate("6m", "1m");
	start(DISC, MIN_RX);
	const std::string file = seen(logs.file("orvalindwarden.bl"));
	struct stat st {};
	ASSERT_EQ(stat(file.c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 07777, 0640u);
	EXPECT_GE(st.st_blocks * 512, st.st_size) << "blocks reserved";
	every_request_answered([&] { testutil::run("dd if=/dev/zero of=" + seen(logs.file("fill")) + " bs=64k 2>/dev/null"); });
	struct statvfs fs {};
	ASSERT_EQ(statvfs(seen(logs.path()).c_str(), &fs), 0);
	EXPECT_EQ(fs.f_bavail, 0u) << "the trace's file system filled up";
	const std::string traced = testutil::output_of(bin("blcat") + " -l 4 " + file);
	EXPECT_GT(std::count(traced.begin(), traced.end(), '\n'), 3000) << "replies traced all along";

	// Truncated under load (copytruncate): the trace is lost, not the daemon.
	every_request_answered([&] { EXPECT_EQ(truncate(file.c_str(), 0), 0); });
	EXPECT_NE(syslog_text().find("orvalindwarden[" + std::to_string(daemon->pid()) + "]: trace file " +
				     logs.file("orvalindwarden.bl") + " lost its storage"), std::string::npos);
	const reflector_shm s = private_store();
	EXPECT_EQ(s.rx_valid_pkts, s.tx_sends);

	// No room for the file at all: the daemon answers untraced and says so.
	isolate("1m", "1m");
	start(DISC, MIN_RX);
	EXPECT_TRUE(ask({.my_disc = 9, .your_disc = DISC}));
	EXPECT_NE(syslog_text().find(logs.file("orvalindwarden.bl") +
				     ": posix_fallocate: No space left on device; running without a trace"), std::string::npos);
	EXPECT_NE(stat(file.c_str(), &st), 0) << "nothing left behind";
}

TEST_F(FaultInNamespace, StoreWithoutRoomOrOfAnotherUserIsRefusedAndOursWritableByOthersIsTightened)
{
	const std::string object = "/dev/shm/" + shm_name();
	const struct {
		std::string shm_size, setup, trace_line, syslog_line;
	} refused[] = {
		{"64k", "", "ERROR: reflector shared memory ftruncate() failed",
		 "Cannot reserve 69720 bytes for the shared store " + object + ": No space left on device"},
		{"1m", "touch " + object + "; chown 4242:4242 " + object + "; chmod 666 " + object,
		 "ERROR: reflector shared memory init failed",
		 "Refusing the shared store " + object + ": owned by uid 4242, not by uid 0"},
	};
	for (const auto &[shm_size, setup, trace_line, syslog_line] : refused) {
		SCOPED_TRACE(trace_line);
		isolate("", shm_size, setup);
		EXPECT_FALSE(spawn(args));
		EXPECT_EQ(daemon->exit_status(), 255);
		const std::string t = trace();
		EXPECT_LT(t.find(trace_line), t.find("ERROR: VRF init failed"));
		EXPECT_NE(t.find("ERROR: VRF init failed"), std::string::npos);
		EXPECT_NE(syslog_text().find("SBFD_REFLECTOR[" + std::to_string(daemon->pid()) + "]: " + syslog_line),
			  std::string::npos);
	}
	isolate("", "1m", "printf kept > " + object + "; chmod 666 " + object);
	args.push_back("-S");
	ASSERT_TRUE(spawn(args));
	struct stat st {};
	ASSERT_EQ(stat(seen(object).c_str(), &st), 0);
	EXPECT_EQ(st.st_mode & 07777, 0644u);
	const reflector_shm kept = private_store();
	EXPECT_EQ(std::memcmp(&kept, "kept", 4), 0);
}

// A local user who may write the trace directory swaps links to a file of
// root's in and out of the trace file's name while the daemon starts again
// and again: the file is never written. Runs in a child with mount and
// network namespaces of its own; the daemon ends at start (no address).
TEST(TraceFileCreation, ALinkRacedIntoASharedDirectoryNeverGetsItsTargetWritten)
{
	if (geteuid() != 0)
		GTEST_SKIP() << "needs root (mount namespaces, another user)";
	testutil::temp_dir top{"orvrace"};
	const std::string dir = top.file("shared"), target = top.file("target"), link_tmp = dir + "/.racer";
	const pid_t child = fork();
	if (child == 0) {
		if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
		    mount("orvrace", top.path().c_str(), "tmpfs", 0, "size=64m") != 0 ||
		    mount("orvshm", "/dev/shm", "tmpfs", 0, "size=1m") != 0 || mount("orvrun", "/run", "tmpfs", 0, "size=1m") != 0 ||
		    mkdir(dir.c_str(), 0777) != 0 || chmod(dir.c_str(), 0777) != 0 ||
		    testutil::run("ip link set lo up") != 0)  // a namespace without routes would let any address bind
			_exit(2);
		std::ofstream(target) << "precious";
		const pid_t racer = fork();
		if (racer == 0) {
			if (setgroups(0, nullptr) != 0 || setresgid(4242, 4242, 4242) != 0 || setresuid(4242, 4242, 4242) != 0)
				_exit(2);
			for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60); std::chrono::steady_clock::now() < end;)
				for (const char *name : {"/orvalindwarden.bl", "/orvalindwarden.bl.1"})
					if (symlink(target.c_str(), link_tmp.c_str()) == 0)
						rename(link_tmp.c_str(), (dir + name).c_str());
			_exit(0);
		}
		for (int i = 0; i < 40; i++)
			testutil::child_process(std::vector<std::string>{bin("orvalindwarden"), "-d", "1", "-p", e2e::DAEMON_IP, "-r", "1"},
						std::vector<std::string>{"BREVLOG_DIR=" + dir, "NSPATH=/orvrace"})
				.exit_status();
		kill(racer, SIGKILL), waitpid(racer, nullptr, 0);
		_exit(testutil::read_file(target) == "precious" ? 0 : 1);
	}
	int status = 0;
	ASSERT_EQ(waitpid(child, &status, 0), child);
	EXPECT_TRUE(WIFEXITED(status)) << status;
	EXPECT_EQ(WEXITSTATUS(status), 0) << "1: the target was written, 2: set-up failed";
}

}  // namespace
