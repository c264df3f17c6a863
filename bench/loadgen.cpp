// loadgen.cpp -- load generator of the reflector benchmark: many initiators
// at once, each with its own My Discriminator, offering well-formed S-BFD
// requests at a paced aggregate rate, matching every reply to its request
// and reporting loss and round-trip time percentiles.
//
// Runs in the initiator's network namespace, one thread, all sockets on one
// epoll set. Two ways of sending:
//   - one request per system call (the default): one UDP socket per
//     session, each request a send() of its own at its time: smooth
//     arrivals, as independent initiators make them.
//   - batched (--batch N): the requests due are sent N at a time with one
//     sendmmsg on a packet socket, as whole Ethernet frames (IPv4, UDP with
//     its checksum) to the reflector's MAC address (--dst-mac), so that our
//     core pays for no UDP and IP output path: what is left per request is
//     the reflector namespace's receive path, which the veth runs on the
//     sending core. Replies come back through the kernel to a few UDP
//     sockets (--sockets, 8) whose ports the frames carry, read with
//     recvmmsg. The generator then offers several times what a reflector
//     carries. The reflector sees the same sessions: session i sends with
//     My Discriminator first_disc + i from our address, always from the
//     port of socket i % sockets.
// Replies are read with recvmmsg in both. Round trips end at the kernel's
// arrival time stamp of the reply (SO_TIMESTAMPNS), so the generator's own
// delay in reading a reply is not counted. Matching: a reflector echoes
// Desired Min TX Interval unchanged (RFC 7880 section 7.2 leaves it to the
// initiator), so each request carries its sequence number there and the
// reply names the request exactly; the reply's Your Discriminator names the
// session. A reply that is malformed, names a request never sent or already
// answered, comes from another session or to another socket than the
// request's, or does not carry the expected reflector fields is counted as
// wrong. Replies the kernel dropped at our own sockets (receive buffer
// full: the generator's fault, not the reflector's) are reported apart, and
// so are late replies: those that came more than LATE_AFTER_NS after the
// last request was sent, the backlog of a reflector that did not keep up
// with the rate, which a deep receive queue hides from the loss of a short
// trial (they count as answered, not lost).
//
// Per session it also tracks the longest run of consecutive requests left
// unanswered (a late reply, within the drain, counts as an answer): an
// initiator that misses --detect-mult replies in a row takes its path down,
// so a session with such a run saw a false path-down. With --stall-pid, the
// generator stops that process (SIGSTOP) for --stall-ms once every
// --stall-every seconds while it sends, the first stop half a period in (or
// --stall-at seconds in), and lets it go on (SIGCONT) before it drains. The
// loop that paces the requests times the stops, and ends one only after
// sending the requests due in it.
//
// Output: one line of key=value pairs (times in microseconds), for bench/run.sh.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sbfd_probe.h"
#include "unique_fd.h"

namespace {

struct loadgen_options {
	in_addr target{};            // reflector address
	in_addr source{};            // our address (every session's socket binds to it)
	std::uint32_t your_disc = 0;  // the reflector's discriminator
	std::uint32_t sessions = 512;
	std::uint32_t first_disc = 1000;  // My Discriminator of session 0; session i has first_disc + i
	double rate = 10000;         // requests per second, all sessions together
	double duration_s = 3;       // sending time
	double drain_s = 0.3;        // wait for late replies after the last request
	bool expect_admin_down = false;
	std::uint32_t malformed_every = 0;  // 0: none; else every Nth request is broken in one field
	std::uint32_t detect_mult = 3;  // a run of this many unanswered requests takes a session down
	pid_t stall_pid = 0;          // 0: no stalls; else the process stopped and continued
	double stall_ms = 0;          // length of each stop
	double stall_every_s = 1;     // period of the stops
	double stall_at_s = -1;       // start of the first stop after the first request; < 0: half the period
	std::uint32_t batch = 0;      // 0: one request per send(); else up to this many frames per sendmmsg
	std::uint32_t sockets = 0;    // batched: UDP sockets the replies come back to (0: BATCH_SOCKETS)
	std::uint8_t dst_mac[ETH_ADDR_LEN] = {};  // batched: the reflector's interface
	bool have_dst_mac = false;
};

constexpr std::uint32_t BATCH_SOCKETS = 8;  // default with --batch: enough that no socket's queue fills
constexpr std::uint32_t MAX_BATCH = 256;    // requests per sendmmsg (the kernel takes up to UIO_MAXIOV)
constexpr std::uint32_t RX_BATCH = 64;      // replies per recvmmsg
// A reflector that keeps up clears in this time what a delay of the host
// left in its queue at the end; what it answers later it owed the rate.
constexpr std::uint64_t LATE_AFTER_NS = 20'000'000;  // 20 ms
constexpr std::uint16_t IPV4_FLAG_DF = 0x4000;  // as the kernel's UDP output sets it
constexpr std::uint8_t REQUEST_TTL = 64;         // the kernel's default
constexpr std::size_t FRAME_UDP_OFF = ETH_HDR_LEN + IPV4_HDR_LEN;               // 34
constexpr std::size_t FRAME_LEN = FRAME_UDP_OFF + UDP_HDR_LEN + BFD_PKT_LEN;  // 66
// Receive buffer of each batched socket: 4 MiB, some 5,000 replies of
// about 800 bytes of kernel memory each, 12 ms at 400,000 replies/s over 8
// sockets, so that a delay of the generator does not drop replies.
constexpr int BATCH_RCVBUF = 4 << 20;

std::uint64_t ns_of(const timespec &ts)
{
	return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000u + static_cast<std::uint64_t>(ts.tv_nsec);
}

// The clock of the kernel's receive time stamps (SO_TIMESTAMPNS).
std::uint64_t now_ns()
{
	timespec ts;
	clock_gettime(CLOCK_REALTIME, &ts);
	return ns_of(ts);
}

void usage(std::FILE *f)
{
	std::fprintf(f,
		     "usage: loadgen --target ADDR --source ADDR --your-disc N [--sessions N]\n"
		     "               [--first-disc N] [--rate PER_S] [--duration S] [--drain S]\n"
		     "               [--admin-down] [--malformed-every N] [--detect-mult N]\n"
		     "               [--stall-pid PID --stall-ms MS [--stall-every S] [--stall-at S]]\n"
		     "               [--batch N --dst-mac MAC [--sockets N]]\n"
		     "Offers --rate requests per second for --duration seconds, spread evenly over\n"
		     "--sessions initiators, and prints one key=value line of results. With\n"
		     "--malformed-every N, every Nth request is broken in one field (version, D bit,\n"
		     "Detect Mult, state or Your Discriminator, in turn) and must not be answered.\n"
		     "sessions_down counts the sessions that saw --detect-mult (3) or more requests\n"
		     "in a row unanswered. --stall-pid stops PID for --stall-ms every --stall-every\n"
		     "(1) seconds while sending, first at --stall-at (half a period) seconds; each\n"
		     "stop ends by the end of the sending time. --batch N sends the requests due N at\n"
		     "a time (sendmmsg) as frames to --dst-mac from a packet socket, the replies to\n"
		     "--sockets (8) UDP sockets, instead of one send per request on one UDP socket\n"
		     "per session. answered is replies/s that arrived within the sending time, late\n"
		     "the replies that came over 20 ms after it, rx_dropped the replies our own full\n"
		     "sockets dropped.\n");
}

bool parse(int argc, char **argv, loadgen_options *o)
{
	for (int i = 1; i < argc; i++) {
		std::string a = argv[i];
		const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
		auto need = [&] {
			if (!v) {
				std::fprintf(stderr, "loadgen: %s needs a value\n", a.c_str());
				return false;
			}
			i++;
			return true;
		};
		if (a == "--admin-down") {
			o->expect_admin_down = true;
		} else if (a == "--malformed-every") {
			if (!need())
				return false;
			o->malformed_every = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
		} else if (a == "--target" || a == "--source") {
			if (!need() || inet_pton(AF_INET, v, a == "--target" ? &o->target : &o->source) != 1)
				return false;
		} else if (a == "--your-disc") {
			if (!need())
				return false;
			o->your_disc = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
		} else if (a == "--sessions") {
			if (!need())
				return false;
			o->sessions = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
		} else if (a == "--first-disc") {
			if (!need())
				return false;
			o->first_disc = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
		} else if (a == "--rate") {
			if (!need())
				return false;
			o->rate = std::atof(v);
		} else if (a == "--duration") {
			if (!need())
				return false;
			o->duration_s = std::atof(v);
		} else if (a == "--drain") {
			if (!need())
				return false;
			o->drain_s = std::atof(v);
		} else if (a == "--detect-mult") {
			if (!need())
				return false;
			o->detect_mult = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
		} else if (a == "--stall-pid") {
			if (!need())
				return false;
			o->stall_pid = static_cast<pid_t>(std::strtol(v, nullptr, 10));
		} else if (a == "--stall-ms") {
			if (!need())
				return false;
			o->stall_ms = std::atof(v);
		} else if (a == "--stall-every") {
			if (!need())
				return false;
			o->stall_every_s = std::atof(v);
		} else if (a == "--stall-at") {
			if (!need())
				return false;
			o->stall_at_s = std::atof(v);
		} else if (a == "--batch") {
			if (!need())
				return false;
			o->batch = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
		} else if (a == "--dst-mac") {
			if (!need() || !probe_parse_mac(v, o->dst_mac))
				return false;
			o->have_dst_mac = true;
		} else if (a == "--sockets") {
			if (!need())
				return false;
			o->sockets = static_cast<std::uint32_t>(std::strtoul(v, nullptr, 10));
		} else {
			return false;
		}
	}
	return o->target.s_addr != 0 && o->source.s_addr != 0 && o->your_disc != 0 &&
	       o->sessions > 0 && o->sessions <= 65536 && o->rate > 0 && o->duration_s > 0 &&
	       o->first_disc != 0 && o->detect_mult > 0 && o->stall_pid >= 0 &&
	       (o->stall_pid == 0 || (o->stall_ms > 0 && o->stall_every_s * 1000 > o->stall_ms)) &&
	       o->batch <= MAX_BATCH && (o->sockets == 0 || o->batch > 0) && o->sockets <= o->sessions &&
	       (o->batch == 0) != o->have_dst_mac;
}

struct results {
	std::uint64_t sent = 0, send_fail = 0, received = 0, wrong = 0, duplicate = 0;
	std::uint64_t received_in_send = 0;  // matched replies that arrived within the sending time
	std::uint64_t late = 0;               // matched replies that arrived LATE_AFTER_NS after it
	std::uint64_t rx_dropped = 0;         // replies our own sockets dropped (receive buffer full)
	std::uint64_t malformed = 0;  // broken requests sent (not in sent, never answered)
	std::vector<std::uint32_t> rtt_ns;  // one per matched reply
	double send_elapsed_s = 0;
	std::uint32_t max_lost_run = 0;   // longest run of unanswered requests in one session
	std::uint32_t sessions_down = 0;  // sessions with a run of detect_mult or more
	std::uint32_t stalls = 0;         // stops of --stall-pid
	double stall_max_ms = 0;          // longest stop, from SIGSTOP sent to SIGCONT sent
};

double percentile_us(const std::vector<std::uint32_t> &sorted, double q)
{
	if (sorted.empty())
		return 0;
	std::size_t k = static_cast<std::size_t>(std::ceil(q * static_cast<double>(sorted.size()))) ;
	k = std::clamp<std::size_t>(k, 1, sorted.size()) - 1;
	return sorted[k] / 1000.0;
}

// The interface that holds address `src`: its index and MAC address.
bool find_interface(in_addr src, int *ifindex, std::uint8_t mac[ETH_ADDR_LEN])
{
	ifaddrs *all = nullptr;
	if (getifaddrs(&all) != 0)
		return false;
	std::string name;
	for (const ifaddrs *i = all; i != nullptr; i = i->ifa_next) {
		if (i->ifa_addr != nullptr && i->ifa_addr->sa_family == AF_INET) {
			sockaddr_in a;
			std::memcpy(&a, i->ifa_addr, sizeof a);
			if (a.sin_addr.s_addr == src.s_addr)
				name = i->ifa_name;
		}
	}
	freeifaddrs(all);
	unique_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
	ifreq req{};
	if (name.empty() || name.size() >= sizeof req.ifr_name || fd.get() < 0)
		return false;
	std::memcpy(req.ifr_name, name.c_str(), name.size() + 1);
	if (ioctl(fd.get(), SIOCGIFHWADDR, &req) != 0)
		return false;
	std::memcpy(mac, req.ifr_hwaddr.sa_data, ETH_ADDR_LEN);
	*ifindex = static_cast<int>(if_nametoindex(name.c_str()));
	return *ifindex != 0;
}

class generator {
public:
	explicit generator(const loadgen_options &o)
		: opt_(o), nsock_(o.batch == 0 ? o.sessions : o.sockets != 0 ? o.sockets : std::min(BATCH_SOCKETS, o.sessions))
	{
	}

	bool open_sockets()
	{
		ep_ = unique_fd{epoll_create1(EPOLL_CLOEXEC)};
		if (ep_.get() < 0)
			return false;
		socks_.resize(nsock_);
		for (std::uint32_t i = 0; i < nsock_; i++) {
			unique_fd &fd = socks_[i];
			fd = unique_fd{socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
			sockaddr_in a{};
			a.sin_family = AF_INET;
			a.sin_addr = opt_.source;
			// A connected socket: the kernel routes once and drops strays.
			sockaddr_in d{};
			d.sin_family = AF_INET;
			d.sin_port = htons(SBFD_PORT);
			d.sin_addr = opt_.target;
			if (fd.get() < 0 || bind(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
			    connect(fd.get(), reinterpret_cast<sockaddr *>(&d), sizeof d) != 0) {
				std::fprintf(stderr, "loadgen: socket %u: %s\n", i, std::strerror(errno));
				return false;
			}
			// A reply's arrival time is taken by the kernel as it is queued
			// to the socket, so the time this process takes to get to it
			// (another reply, a send) is not counted as round trip.
			const int on = 1;
			if (setsockopt(fd.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0)
				return false;
			// A few sockets take every reply: a deep queue (beyond
			// rmem_max where we may) so that the generator's own delays
			// do not drop them.
			if (opt_.batch != 0 &&
			    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &BATCH_RCVBUF, sizeof BATCH_RCVBUF) != 0)
				setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &BATCH_RCVBUF, sizeof BATCH_RCVBUF);
			epoll_event ev{};
			ev.events = EPOLLIN;
			ev.data.u32 = i;
			if (epoll_ctl(ep_.get(), EPOLL_CTL_ADD, fd.get(), &ev) != 0)
				return false;
		}
		return opt_.batch == 0 || open_frame_socket();
	}

	std::uint32_t sockets() const { return nsock_; }

	results run()
	{
		const std::uint64_t total =
			static_cast<std::uint64_t>(std::llround(opt_.rate * opt_.duration_s));
		const double period_ns = 1e9 / opt_.rate;
		sent_at_.assign(total, 0);
		fate_.assign(total, FATE_NOT_SENT);
		res_.rtt_ns.reserve(total);
		const std::uint64_t start = now_ns();
		const auto due_of = [&](std::uint64_t seq) {
			return start + static_cast<std::uint64_t>(static_cast<double>(seq) * period_ns);
		};
		const std::uint64_t send_end = start + static_cast<std::uint64_t>(opt_.duration_s * 1e9);
		send_end_ = UINT64_MAX;  // every reply read while sending arrived within the sending time
		const auto stall_ns = static_cast<std::uint64_t>(opt_.stall_ms * 1e6);
		const auto stall_period_ns = static_cast<std::uint64_t>(opt_.stall_every_s * 1e9);
		// The next stop's start, or UINT64_MAX when no stop is left that ends
		// while requests are still sent.
		std::uint64_t stop_at = opt_.stall_pid == 0 ? UINT64_MAX
				      : opt_.stall_at_s >= 0 ? start + static_cast<std::uint64_t>(opt_.stall_at_s * 1e9)
							     : start + stall_period_ns / 2;
		std::uint64_t stopped_at = 0;  // while stopped: when SIGSTOP was sent
		std::uint64_t seq = 0;
		for (;;) {
			const std::uint64_t now = now_ns();
			if (stop_at != UINT64_MAX && stop_at + stall_ns > send_end)
				stop_at = UINT64_MAX;
			if (stopped_at == 0 && now >= stop_at) {
				stopped_at = now_ns();
				kill(opt_.stall_pid, SIGSTOP);
			}
			// Send every request whose time has come (catching up after a
			// stall); batched, a batch at most before replies are read, so
			// that a generator behind its time does not leave them queued.
			const std::uint64_t cap = opt_.batch == 0 ? total : std::min(total, seq + opt_.batch);
			std::uint64_t due_end = seq;
			while (due_end < cap && due_of(due_end) <= now)
				due_end++;
			if (opt_.batch == 0) {
				for (; seq < due_end; seq++)
					send_one(seq, now);
			} else {
				send_batched(seq, due_end, now);
				seq = due_end;
			}
			// Only then does a stop end: the requests due in it meet a
			// stopped reflector also when the host held this process up.
			if (stopped_at != 0 && now >= stop_at + stall_ns && (seq == total || due_of(seq) > now)) {
				cont_stalled(stopped_at);
				stopped_at = 0;
				stop_at += stall_period_ns;
			}
			if (seq == total)
				break;
			// Batched, the next wake-up is when a whole batch is due.
			const std::uint64_t next = opt_.batch == 0 ? seq : std::min(total - 1, seq + opt_.batch - 1);
			const std::uint64_t due = std::min(due_of(next), stopped_at != 0 ? stop_at + stall_ns : stop_at);
			const std::uint64_t t = now_ns();
			const std::uint64_t wait = due > t ? due - t : 0;
			poll_replies(wait);
		}
		if (stopped_at != 0)  // a stop that ends after the last request, within the sending time
			cont_stalled(stopped_at);
		send_end_ = now_ns();
		res_.send_elapsed_s = static_cast<double>(send_end_ - start) / 1e9;
		const std::uint64_t drain_end = now_ns() + static_cast<std::uint64_t>(opt_.drain_s * 1e9);
		while (res_.received < res_.sent) {
			const std::uint64_t now = now_ns();
			if (now >= drain_end)
				break;
			poll_replies(std::min<std::uint64_t>(drain_end - now, 10000000));
		}
		poll_replies(0);  // what is queued still is late, but no loss of the reflector's
		count_lost_runs();
		count_own_drops();
		return std::move(res_);
	}

private:
	// What became of a request: never sent as a valid one (malformed, or the
	// send failed), sent and unanswered so far, or answered.
	enum request_fate : std::uint8_t { FATE_NOT_SENT, FATE_PENDING, FATE_ANSWERED };

	// The socket whose port request `seq` is sent from: its session's own,
	// or batched, the session's among the few.
	std::uint32_t socket_of(std::uint64_t seq) const
	{
		return static_cast<std::uint32_t>(seq % opt_.sessions % nsock_);
	}

	// Batched: the packet socket that sends the frames, and a frame for
	// each UDP socket's port to start each request from.
	bool open_frame_socket()
	{
		int ifindex = 0;
		frame_spec shape;
		if (!find_interface(opt_.source, &ifindex, shape.src_mac)) {
			std::fprintf(stderr, "loadgen: no interface with the source address\n");
			return false;
		}
		// Protocol 0: the socket receives nothing, sends only.
		frame_fd_ = unique_fd{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
		const int on = 1;
		if (frame_fd_.get() < 0 ||
		    setsockopt(frame_fd_.get(), SOL_PACKET, PACKET_QDISC_BYPASS, &on, sizeof on) != 0) {
			std::fprintf(stderr, "loadgen: packet socket: %s\n", std::strerror(errno));
			return false;
		}
		frame_to_.sll_family = AF_PACKET;
		frame_to_.sll_protocol = htons(ETH_P_IP);
		frame_to_.sll_ifindex = ifindex;
		frame_to_.sll_halen = ETH_ADDR_LEN;
		std::memcpy(frame_to_.sll_addr, opt_.dst_mac, ETH_ADDR_LEN);
		std::memcpy(shape.dst_mac, opt_.dst_mac, ETH_ADDR_LEN);
		shape.frag = IPV4_FLAG_DF;
		shape.ip_ttl = REQUEST_TTL;
		shape.src_ip = ntohl(opt_.source.s_addr);
		shape.dst_ip = ntohl(opt_.target.s_addr);
		const std::uint8_t zeros[BFD_PKT_LEN] = {};
		frames_.resize(nsock_);
		for (std::uint32_t i = 0; i < nsock_; i++) {
			sockaddr_in a{};
			socklen_t len = sizeof a;
			if (getsockname(socks_[i].get(), reinterpret_cast<sockaddr *>(&a), &len) != 0)
				return false;
			shape.src_port = ntohs(a.sin_port);
			const std::vector<std::uint8_t> f = probe_frame_build(shape, zeros);
			if (f.size() != FRAME_LEN)
				return false;
			std::memcpy(frames_[i].data(), f.data(), FRAME_LEN);
		}
		// The sum of the UDP pseudo-header (RFC 768), the same for every request.
		udp_pseudo_sum_ = (shape.src_ip >> 16) + (shape.src_ip & 0xffff) + (shape.dst_ip >> 16) +
				  (shape.dst_ip & 0xffff) + IP_PROTO_UDP + UDP_HDR_LEN + BFD_PKT_LEN;
		// The loop sleeps until a whole batch is due: wake it on time
		// rather than up to 50 us late (the default timer slack).
		prctl(PR_SET_TIMERSLACK, 1000UL, 0UL, 0UL, 0UL);
		return true;
	}

	void cont_stalled(std::uint64_t stopped_at)
	{
		kill(opt_.stall_pid, SIGCONT);
		res_.stalls++;
		res_.stall_max_ms = std::max(res_.stall_max_ms, static_cast<double>(now_ns() - stopped_at) / 1e6);
	}

	// Walks each session's requests in order: a run of unanswered ones is
	// ended by an answered one; one never sent neither ends nor extends it.
	void count_lost_runs()
	{
		std::vector<std::uint32_t> run(opt_.sessions, 0), longest(opt_.sessions, 0);
		for (std::uint64_t seq = 0; seq < fate_.size(); seq++) {
			const std::size_t idx = seq % opt_.sessions;
			if (fate_[seq] == FATE_ANSWERED)
				run[idx] = 0;
			else if (fate_[seq] == FATE_PENDING)
				longest[idx] = std::max(longest[idx], ++run[idx]);
		}
		for (const std::uint32_t l : longest) {
			res_.max_lost_run = std::max(res_.max_lost_run, l);
			if (l >= opt_.detect_mult)
				res_.sessions_down++;
		}
	}

	// Replies the kernel dropped at our sockets (SO_MEMINFO's drop count).
	void count_own_drops()
	{
		for (const unique_fd &fd : socks_) {
			std::uint32_t mem[SK_MEMINFO_VARS] = {};
			socklen_t len = sizeof mem;
			if (getsockopt(fd.get(), SOL_SOCKET, SO_MEMINFO, mem, &len) == 0 &&
			    len > SK_MEMINFO_DROPS * sizeof mem[0])
				res_.rx_dropped += mem[SK_MEMINFO_DROPS];
		}
	}

	// The request `seq` into `b`, broken in one field when it is one of the
	// malformed ones. Returns true for a well-formed request.
	bool encode(std::uint64_t seq, std::uint8_t *b) const
	{
		probe_params p;
		p.my_disc = opt_.first_disc + static_cast<std::uint32_t>(seq % opt_.sessions);
		p.your_disc = opt_.your_disc;
		p.state = BFD_STATE_UP;
		p.min_tx_us = static_cast<std::uint32_t>(seq);  // echoed: names the request
		p.min_rx_us = 3300;
		probe_encode_request(p, b);
		if (opt_.malformed_every != 0 && seq % opt_.malformed_every == opt_.malformed_every - 1) {
			break_one_field(b, seq / opt_.malformed_every);
			return false;
		}
		return true;
	}

	void send_one(std::uint64_t seq, std::uint64_t now)
	{
		std::uint8_t b[BFD_PKT_LEN];
		const int fd = socks_[socket_of(seq)].get();
		if (!encode(seq, b)) {
			if (send(fd, b, sizeof b, 0) == static_cast<ssize_t>(sizeof b))
				res_.malformed++;
			return;  // sent_at_ stays 0: a reply to it counts as a duplicate
		}
		sent_at_[seq] = now;
		if (send(fd, b, sizeof b, 0) == static_cast<ssize_t>(sizeof b)) {
			res_.sent++;
			fate_[seq] = FATE_PENDING;
		} else {
			res_.send_fail++;  // not sent: neither a loss nor a reply
		}
	}

	// Sends requests [from, to) as frames, a batch per sendmmsg; a frame
	// the kernel refuses is a send failure, and the rest go on.
	void send_batched(std::uint64_t from, std::uint64_t to, std::uint64_t now)
	{
		std::uint8_t bufs[MAX_BATCH][FRAME_LEN];
		iovec iovs[MAX_BATCH];
		mmsghdr msgs[MAX_BATCH];
		bool valid[MAX_BATCH];
		while (from < to) {
			const std::uint32_t n = static_cast<std::uint32_t>(std::min<std::uint64_t>(to - from, opt_.batch));
			for (std::uint32_t k = 0; k < n; k++) {
				std::uint8_t *f = bufs[k];
				std::memcpy(f, frames_[socket_of(from + k)].data(), FRAME_LEN);
				valid[k] = encode(from + k, f + FRAME_UDP_OFF + UDP_HDR_LEN);
				const std::uint16_t c = probe_checksum({f + FRAME_UDP_OFF, UDP_HDR_LEN + BFD_PKT_LEN},
								       udp_pseudo_sum_);
				store_be16(f + FRAME_UDP_OFF + UDP_CSUM_OFF, c == 0 ? 0xffff : c);  // 0: "no checksum"
				iovs[k] = {f, FRAME_LEN};
				msgs[k] = {};
				msgs[k].msg_hdr.msg_name = &frame_to_;
				msgs[k].msg_hdr.msg_namelen = sizeof frame_to_;
				msgs[k].msg_hdr.msg_iov = &iovs[k];
				msgs[k].msg_hdr.msg_iovlen = 1;
				if (valid[k])
					sent_at_[from + k] = now;
			}
			for (std::uint32_t i = 0; i < n;) {
				const int r = sendmmsg(frame_fd_.get(), msgs + i, n - i, 0);
				const std::uint32_t done = r > 0 ? static_cast<std::uint32_t>(r) : 1;
				for (std::uint32_t k = i; k < i + done; k++) {
					if (!valid[k]) {
						res_.malformed += r > 0;
					} else if (r > 0) {
						res_.sent++;
						fate_[from + k] = FATE_PENDING;
					} else {
						res_.send_fail++;
						sent_at_[from + k] = 0;
					}
				}
				i += done;
			}
			from += n;
		}
	}

	static void break_one_field(std::uint8_t *b, std::uint64_t n)
	{
		switch (n % 5) {
		case 0: b[0] = static_cast<std::uint8_t>(b[0] & 0x1F); break;  // version 0
		case 1: b[1] = static_cast<std::uint8_t>(b[1] & ~BFD_FLAG_D); break;
		case 2: b[2] = 0; break;                                        // Detect Mult
		case 3: b[1] = static_cast<std::uint8_t>((b[1] & 0x3F) | (BFD_STATE_INIT << 6)); break;
		default: b[11] = static_cast<std::uint8_t>(b[11] ^ 0x55); break;  // not our discriminator
		}
	}

	// Reads every reply that arrives within `wait_ns`.
	void poll_replies(std::uint64_t wait_ns)
	{
		epoll_event evs[64];
		timespec ts{static_cast<time_t>(wait_ns / 1000000000u), static_cast<long>(wait_ns % 1000000000u)};
		const int n = epoll_pwait2(ep_.get(), evs, 64, &ts, nullptr);
		for (int i = 0; i < n; i++)
			drain_socket(evs[i].data.u32);
	}

	// Reads the socket's queue, RX_BATCH replies a call. A short read ends
	// it: what arrives later, the level-triggered epoll reports again.
	void drain_socket(std::uint32_t idx)
	{
		std::uint8_t bufs[RX_BATCH][64];
		iovec iovs[RX_BATCH];
		alignas(cmsghdr) char control[RX_BATCH][CMSG_SPACE(sizeof(timespec))];
		mmsghdr msgs[RX_BATCH];
		for (;;) {
			for (std::uint32_t i = 0; i < RX_BATCH; i++) {
				iovs[i] = {bufs[i], sizeof bufs[i]};
				msgs[i] = {};
				msgs[i].msg_hdr.msg_iov = &iovs[i];
				msgs[i].msg_hdr.msg_iovlen = 1;
				msgs[i].msg_hdr.msg_control = control[i];
				msgs[i].msg_hdr.msg_controllen = sizeof control[i];
			}
			const int n = recvmmsg(socks_[idx].get(), msgs, RX_BATCH, MSG_DONTWAIT, nullptr);
			if (n <= 0)
				return;
			for (int i = 0; i < n; i++) {
				msghdr &m = msgs[i].msg_hdr;
				std::uint64_t arrived = 0;
				for (cmsghdr *c = CMSG_FIRSTHDR(&m); c != nullptr; c = CMSG_NXTHDR(&m, c)) {
					if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
						timespec ts;
						std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
						arrived = ns_of(ts);
					}
				}
				check_reply(idx, bufs[i], msgs[i].msg_len, arrived != 0 ? arrived : now_ns());
			}
			if (n < static_cast<int>(RX_BATCH))
				return;
		}
	}

	void check_reply(std::uint32_t idx, const std::uint8_t *b, std::size_t n, std::uint64_t now)
	{
		bfd_ctrl_pkt pkt;
		if (n != BFD_PKT_LEN || !probe_decode({b, n}, &pkt)) {
			res_.wrong++;
			return;
		}
		const std::uint64_t seq = ntohl(pkt.min_tx_interval);
		const std::uint8_t want_state = opt_.expect_admin_down ? BFD_STATE_ADMIN_DOWN : BFD_STATE_UP;
		const bool fields_ok = ntohl(pkt.my_disc) == opt_.your_disc && seq < sent_at_.size() &&
				       ntohl(pkt.your_disc) == opt_.first_disc + seq % opt_.sessions &&
				       bfd_state_of(pkt) == want_state && (pkt.flags & BFD_FLAG_D) == 0 &&
				       pkt.min_echo_rx_interval == 0 && socket_of(seq) == idx;
		if (!fields_ok) {
			res_.wrong++;
			return;
		}
		if (sent_at_[seq] == 0) {
			res_.duplicate++;
			return;
		}
		res_.received++;
		if (now <= send_end_)
			res_.received_in_send++;
		else if (now - send_end_ > LATE_AFTER_NS)
			res_.late++;
		const std::uint64_t rtt = now > sent_at_[seq] ? now - sent_at_[seq] : 0;
		res_.rtt_ns.push_back(static_cast<std::uint32_t>(std::min<std::uint64_t>(rtt, UINT32_MAX)));
		sent_at_[seq] = 0;
		fate_[seq] = FATE_ANSWERED;
	}

	loadgen_options opt_;
	std::uint32_t nsock_;  // sockets: one per session, or batched, a few
	unique_fd ep_;
	std::vector<unique_fd> socks_;
	unique_fd frame_fd_;                  // batched: the packet socket that sends
	sockaddr_ll frame_to_{};              // batched: the reflector's interface, as the frames' destination
	std::vector<std::array<std::uint8_t, FRAME_LEN>> frames_;  // batched: a request frame per socket's port
	std::uint32_t udp_pseudo_sum_ = 0;    // batched: unfolded sum of the UDP pseudo-header
	std::vector<std::uint64_t> sent_at_;  // CLOCK_REALTIME ns of each request; 0 once answered
	std::vector<request_fate> fate_;      // of each request
	std::uint64_t send_end_ = 0;          // CLOCK_REALTIME ns of the last send; UINT64_MAX until then
	results res_;
};

}  // namespace

int main(int argc, char **argv)
{
	loadgen_options opt;
	if (argc > 1 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
		usage(stdout);
		return 0;
	}
	if (!parse(argc, argv, &opt)) {
		usage(stderr);
		return 2;
	}
	generator g(opt);
	if (!g.open_sockets())
		return 2;
	results r = g.run();
	std::sort(r.rtt_ns.begin(), r.rtt_ns.end());
	const std::uint64_t lost = r.sent - r.received;
	const double loss_pct = r.sent ? 100.0 * static_cast<double>(lost) / static_cast<double>(r.sent) : 0;
	std::printf("rate=%.0f offered=%.0f sent=%llu send_fail=%llu received=%llu lost=%llu loss_pct=%.4f "
		    "wrong=%llu duplicate=%llu malformed=%llu p50_us=%.1f p90_us=%.1f p99_us=%.1f p999_us=%.1f max_us=%.1f "
		    "max_lost_run=%u sessions_down=%u stalls=%u stall_max_ms=%.1f answered=%.0f late=%llu rx_dropped=%llu "
		    "batch=%u sockets=%u\n",
		    opt.rate, static_cast<double>(r.sent + r.send_fail) / r.send_elapsed_s,
		    static_cast<unsigned long long>(r.sent), static_cast<unsigned long long>(r.send_fail),
		    static_cast<unsigned long long>(r.received), static_cast<unsigned long long>(lost), loss_pct,
		    static_cast<unsigned long long>(r.wrong), static_cast<unsigned long long>(r.duplicate),
		    static_cast<unsigned long long>(r.malformed), percentile_us(r.rtt_ns, 0.50), percentile_us(r.rtt_ns, 0.90), percentile_us(r.rtt_ns, 0.99),
		    percentile_us(r.rtt_ns, 0.999), r.rtt_ns.empty() ? 0.0 : r.rtt_ns.back() / 1000.0, r.max_lost_run,
		    r.sessions_down, r.stalls, r.stall_max_ms, static_cast<double>(r.received_in_send) / r.send_elapsed_s,
		    static_cast<unsigned long long>(r.late), static_cast<unsigned long long>(r.rx_dropped), opt.batch, g.sockets());
	return 0;
}
