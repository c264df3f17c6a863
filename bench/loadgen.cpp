// loadgen.cpp -- load generator of the reflector benchmark: many initiators
// at once, each with its own My Discriminator and UDP source port, offering
// well-formed S-BFD requests at a paced aggregate rate, matching every reply
// to its request and reporting loss and round-trip time percentiles.
//
// Runs in the initiator's network namespace. One thread, one UDP socket per
// session, all on one epoll set. Round trips end at the kernel's arrival
// time stamp of the reply (SO_TIMESTAMPNS), so the generator's own delay in
// reading a reply is not counted. Matching: a reflector echoes Desired Min TX
// Interval unchanged (RFC 7880 section 7.2 leaves it to the initiator), so
// each request carries its sequence number there and the reply names the
// request exactly; the reply's Your Discriminator names the session. A reply
// that is malformed, names a request never sent or already answered, comes
// from another session, or does not carry the expected reflector fields is
// counted as wrong.
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
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
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
};

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
		     "Offers --rate requests per second for --duration seconds, spread evenly over\n"
		     "--sessions initiators, and prints one key=value line of results. With\n"
		     "--malformed-every N, every Nth request is broken in one field (version, D bit,\n"
		     "Detect Mult, state or Your Discriminator, in turn) and must not be answered.\n"
		     "sessions_down counts the sessions that saw --detect-mult (3) or more requests\n"
		     "in a row unanswered. --stall-pid stops PID for --stall-ms every --stall-every\n"
		     "(1) seconds while sending, first at --stall-at (half a period) seconds; each\n"
		     "stop ends by the end of the sending time.\n");
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
		} else {
			return false;
		}
	}
	return o->target.s_addr != 0 && o->source.s_addr != 0 && o->your_disc != 0 &&
	       o->sessions > 0 && o->sessions <= 65536 && o->rate > 0 && o->duration_s > 0 &&
	       o->first_disc != 0 && o->detect_mult > 0 && o->stall_pid >= 0 &&
	       (o->stall_pid == 0 || (o->stall_ms > 0 && o->stall_every_s * 1000 > o->stall_ms));
}

struct session_socket {
	unique_fd fd;
	std::uint32_t my_disc = 0;
};

struct results {
	std::uint64_t sent = 0, send_fail = 0, received = 0, wrong = 0, duplicate = 0;
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

class generator {
public:
	explicit generator(const loadgen_options &o) : opt_(o) {}

	bool open_sockets()
	{
		ep_ = unique_fd{epoll_create1(EPOLL_CLOEXEC)};
		if (ep_.get() < 0)
			return false;
		socks_.resize(opt_.sessions);
		for (std::uint32_t i = 0; i < opt_.sessions; i++) {
			session_socket &s = socks_[i];
			s.fd = unique_fd{socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
			s.my_disc = opt_.first_disc + i;
			sockaddr_in a{};
			a.sin_family = AF_INET;
			a.sin_addr = opt_.source;
			// A connected socket: the kernel routes once and drops strays.
			sockaddr_in d{};
			d.sin_family = AF_INET;
			d.sin_port = htons(SBFD_PORT);
			d.sin_addr = opt_.target;
			if (s.fd.get() < 0 || bind(s.fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
			    connect(s.fd.get(), reinterpret_cast<sockaddr *>(&d), sizeof d) != 0) {
				std::fprintf(stderr, "loadgen: session socket %u: %s\n", i, std::strerror(errno));
				return false;
			}
			// A reply's arrival time is taken by the kernel as it is queued
			// to the socket, so the time this process takes to get to it
			// (another reply, a send) is not counted as round trip.
			const int on = 1;
			if (setsockopt(s.fd.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0)
				return false;
			epoll_event ev{};
			ev.events = EPOLLIN;
			ev.data.u32 = i;
			if (epoll_ctl(ep_.get(), EPOLL_CTL_ADD, s.fd.get(), &ev) != 0)
				return false;
		}
		return true;
	}

	results run()
	{
		const std::uint64_t total =
			static_cast<std::uint64_t>(std::llround(opt_.rate * opt_.duration_s));
		const double period_ns = 1e9 / opt_.rate;
		sent_at_.assign(total, 0);
		fate_.assign(total, FATE_NOT_SENT);
		res_.rtt_ns.reserve(total);
		const std::uint64_t start = now_ns();
		const std::uint64_t send_end = start + static_cast<std::uint64_t>(opt_.duration_s * 1e9);
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
			// Send every request whose time has come (catching up after a stall).
			while (seq < total && start + static_cast<std::uint64_t>(static_cast<double>(seq) * period_ns) <= now) {
				send_one(seq, now);
				seq++;
			}
			// Only then does a stop end: the requests due in it meet a
			// stopped reflector also when the host held this process up.
			if (stopped_at != 0 && now >= stop_at + stall_ns) {
				cont_stalled(stopped_at);
				stopped_at = 0;
				stop_at += stall_period_ns;
			}
			if (seq == total)
				break;
			const std::uint64_t due = std::min(start + static_cast<std::uint64_t>(static_cast<double>(seq) * period_ns),
							   stopped_at != 0 ? stop_at + stall_ns : stop_at);
			const std::uint64_t t = now_ns();
			const std::uint64_t wait = due > t ? due - t : 0;
			poll_replies(wait);
		}
		if (stopped_at != 0)  // a stop that ends after the last request, within the sending time
			cont_stalled(stopped_at);
		res_.send_elapsed_s = static_cast<double>(now_ns() - start) / 1e9;
		const std::uint64_t drain_end = now_ns() + static_cast<std::uint64_t>(opt_.drain_s * 1e9);
		while (res_.received < res_.sent) {
			const std::uint64_t now = now_ns();
			if (now >= drain_end)
				break;
			poll_replies(std::min<std::uint64_t>(drain_end - now, 10000000));
		}
		count_lost_runs();
		return std::move(res_);
	}

private:
	// What became of a request: never sent as a valid one (malformed, or the
	// send failed), sent and unanswered so far, or answered.
	enum request_fate : std::uint8_t { FATE_NOT_SENT, FATE_PENDING, FATE_ANSWERED };

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
		std::vector<std::uint32_t> run(socks_.size(), 0), longest(socks_.size(), 0);
		for (std::uint64_t seq = 0; seq < fate_.size(); seq++) {
			const std::size_t idx = seq % socks_.size();
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

	void send_one(std::uint64_t seq, std::uint64_t now)
	{
		session_socket &s = socks_[seq % socks_.size()];
		probe_params p;
		p.my_disc = s.my_disc;
		p.your_disc = opt_.your_disc;
		p.state = BFD_STATE_UP;
		p.min_tx_us = static_cast<std::uint32_t>(seq);  // echoed: names the request
		p.min_rx_us = 3300;
		std::uint8_t b[BFD_PKT_LEN];
		probe_encode_request(p, b);
		if (opt_.malformed_every != 0 && seq % opt_.malformed_every == opt_.malformed_every - 1) {
			break_one_field(b, seq / opt_.malformed_every);
			if (send(s.fd.get(), b, sizeof b, 0) == static_cast<ssize_t>(sizeof b))
				res_.malformed++;
			return;  // sent_at_ stays 0: a reply to it counts as a duplicate
		}
		sent_at_[seq] = now;
		if (send(s.fd.get(), b, sizeof b, 0) == static_cast<ssize_t>(sizeof b)) {
			res_.sent++;
			fate_[seq] = FATE_PENDING;
		} else {
			res_.send_fail++;  // not sent: neither a loss nor a reply
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

	void drain_socket(std::uint32_t idx)
	{
		std::uint8_t b[64];
		alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
		for (;;) {
			iovec iov{b, sizeof b};
			msghdr m{};
			m.msg_iov = &iov;
			m.msg_iovlen = 1;
			m.msg_control = control;
			m.msg_controllen = sizeof control;
			const ssize_t n = recvmsg(socks_[idx].fd.get(), &m, MSG_DONTWAIT);
			if (n < 0)
				return;
			std::uint64_t arrived = 0;
			for (cmsghdr *c = CMSG_FIRSTHDR(&m); c != nullptr; c = CMSG_NXTHDR(&m, c)) {
				if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
					timespec ts;
					std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
					arrived = ns_of(ts);
				}
			}
			check_reply(idx, b, static_cast<std::size_t>(n), arrived != 0 ? arrived : now_ns());
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
		const bool fields_ok = ntohl(pkt.my_disc) == opt_.your_disc &&
				       ntohl(pkt.your_disc) == socks_[idx].my_disc &&
				       bfd_state_of(pkt) == want_state && (pkt.flags & BFD_FLAG_D) == 0 &&
				       pkt.min_echo_rx_interval == 0 && seq < sent_at_.size() &&
				       seq % socks_.size() == idx;
		if (!fields_ok) {
			res_.wrong++;
			return;
		}
		if (sent_at_[seq] == 0) {
			res_.duplicate++;
			return;
		}
		res_.received++;
		const std::uint64_t rtt = now > sent_at_[seq] ? now - sent_at_[seq] : 0;
		res_.rtt_ns.push_back(static_cast<std::uint32_t>(std::min<std::uint64_t>(rtt, UINT32_MAX)));
		sent_at_[seq] = 0;
		fate_[seq] = FATE_ANSWERED;
	}

	loadgen_options opt_;
	unique_fd ep_;
	std::vector<session_socket> socks_;
	std::vector<std::uint64_t> sent_at_;  // CLOCK_REALTIME ns of each request; 0 once answered
	std::vector<request_fate> fate_;      // of each request
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
		    "max_lost_run=%u sessions_down=%u stalls=%u stall_max_ms=%.1f\n",
		    opt.rate, static_cast<double>(r.sent + r.send_fail) / r.send_elapsed_s,
		    static_cast<unsigned long long>(r.sent), static_cast<unsigned long long>(r.send_fail),
		    static_cast<unsigned long long>(r.received), static_cast<unsigned long long>(lost), loss_pct,
		    static_cast<unsigned long long>(r.wrong), static_cast<unsigned long long>(r.duplicate),
		    static_cast<unsigned long long>(r.malformed), percentile_us(r.rtt_ns, 0.50), percentile_us(r.rtt_ns, 0.90), percentile_us(r.rtt_ns, 0.99),
		    percentile_us(r.rtt_ns, 0.999), r.rtt_ns.empty() ? 0.0 : r.rtt_ns.back() / 1000.0, r.max_lost_run,
		    r.sessions_down, r.stalls, r.stall_max_ms);
	return 0;
}
