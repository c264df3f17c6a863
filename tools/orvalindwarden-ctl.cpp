// orvalindwarden-ctl.cpp -- the controlling agent's command: sends one
// configuration message (discriminator, minimum receive interval, source
// address, administrative state) to a running reflector over netlink, or
// shows the configuration it runs with.
//
// Every message sets all four values. The values not asked for come from
// the daemon's run-state file, and only from a file the addressed daemon
// wrote: a guess would silently change what the operator did not mean to
// change, so without that file only a change of all four is sent. Nothing
// is sent unless every value is valid, and the source an address the daemon
// can send from: it ends when it cannot. After sending, the tool waits for
// the file to show the change and the daemon to live on. Exit status: 0
// sent and applied (or shown), 1 daemon not reachable, source no address of
// its namespace, no running configuration to complete a change or show,
// daemon ended or change not confirmed, 2 bad usage.
#include <arpa/inet.h>
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "argparse.h"
#include "nlctl.h"

namespace {

constexpr const char *DEFAULT_PIDFILE = "/var/run/orvalindwarden.pid";
// How long the daemon has to show a change in its run-state file: it
// applies one at once, so this only bounds a loaded host's delay.
constexpr std::chrono::milliseconds CONFIRM_TIMEOUT{2000};
// Without a run-state file before the change, the file may never show it
// (a daemon that cannot write it): the wait only watches the daemon live on.
constexpr std::chrono::milliseconds UNCONFIRMABLE_TIMEOUT{300};
// getopt_long codes of the options without a short form.
constexpr int OPT_SHOW = 0x100;
constexpr int OPT_NSPATH = 0x101;
constexpr int OPT_TRACE = 0x102;

void usage(std::FILE *f)
{
	std::fprintf(f,
		     "usage: orvalindwarden-ctl [--pid PID | --pidfile PATH] [--netns NAME]\n"
		     "           [--nspath NSPATH | --object OBJECT] [--trace FILE]\n"
		     "           [--discriminator N] [--min-rx US] [--source A.B.C.D] [--admin-up | --admin-down]\n"
		     "       orvalindwarden-ctl [--pid PID | --pidfile PATH] [--nspath NSPATH | --object OBJECT] --show\n"
		     "Changes the given values of a running reflector's configuration, keeping the\n"
		     "others as it runs them, or shows that configuration.\n"
		     "  -p, --pid PID            the daemon's process id (its netlink port)\n"
		     "  -f, --pidfile PATH       read the pid from PATH (default %s)\n"
		     "  -n, --netns NAME         the daemon's network namespace (default: ours)\n"
		     "      --nspath NSPATH      the daemon's NSPATH, which names its run-state file\n"
		     "                           (default: the daemon's, else ours)\n"
		     "  -o, --object OBJECT      the run-state file of store OBJECT instead\n"
		     "      --trace FILE         the daemon's trace, read if it ends (default: the\n"
		     "                           file it has open)\n"
		     "  -d, --discriminator N    local discriminator, 1..4294967295\n"
		     "  -r, --min-rx US          Required Min RX Interval, us, 0..4294967295\n"
		     "  -s, --source A.B.C.D     source address of the replies\n"
		     "  -U, --admin-up           answer with state Up\n"
		     "  -A, --admin-down         answer with state AdminDown\n"
		     "      --show               print the running configuration and change nothing\n"
		     "  -h, --help               this text\n",
		     DEFAULT_PIDFILE);
}

int bad(const std::string &msg)
{
	std::fprintf(stderr, "orvalindwarden-ctl: %s\n", msg.c_str());
	std::fputs("Try 'orvalindwarden-ctl --help'.\n", stderr);
	return 2;
}

int fail(const std::string &msg)
{
	std::fprintf(stderr, "orvalindwarden-ctl: %s\n", msg.c_str());
	return 1;
}

}  // namespace

int main(int argc, char **argv)
{
	static const option longopts[] = {
		{"pid", required_argument, nullptr, 'p'},
		{"pidfile", required_argument, nullptr, 'f'},
		{"netns", required_argument, nullptr, 'n'},
		{"discriminator", required_argument, nullptr, 'd'},
		{"min-rx", required_argument, nullptr, 'r'},
		{"source", required_argument, nullptr, 's'},
		{"admin-up", no_argument, nullptr, 'U'},
		{"admin-down", no_argument, nullptr, 'A'},
		{"show", no_argument, nullptr, OPT_SHOW},
		{"nspath", required_argument, nullptr, OPT_NSPATH},
		{"object", required_argument, nullptr, 'o'},
		{"trace", required_argument, nullptr, OPT_TRACE},
		{"help", no_argument, nullptr, 'h'},
		{"version", no_argument, nullptr, 'V'},
		{nullptr, 0, nullptr, 0},
	};
	nlctl_change change;
	bool show = false;
	const char *pidfile = nullptr;
	const char *netns = "default";
	const char *nspath = nullptr;
	const char *object = nullptr;
	const char *trace = nullptr;
	std::uint32_t pid = 0;
	std::uint32_t v = 0;
	std::string err;
	int c;
	while ((c = getopt_long(argc, argv, "p:f:n:o:d:r:s:UAh", longopts, nullptr)) != -1) {
		switch (c) {
		case 'p':
			if (!arg_parse_u32(optarg, 1, 0x7fffffff, &pid, &err))
				return bad("pid: " + err);
			break;
		case 'f': pidfile = optarg; break;
		case 'n': netns = optarg; break;
		case OPT_NSPATH: nspath = optarg; break;
		case 'o': object = optarg; break;
		case OPT_TRACE: trace = optarg; break;
		case OPT_SHOW: show = true; break;
		case 'd':
			if (!arg_parse_u32(optarg, 1, 0xffffffff, &v, &err))
				return bad("discriminator: " + err);
			change.disc = v;
			break;
		case 'r':
			if (!arg_parse_u32(optarg, 0, 0xffffffff, &v, &err))
				return bad("min-rx: " + err);
			change.min_rx = v;
			break;
		case 's':
			if (!nlctl_parse_ipv4(optarg, &v, &err))
				return bad("source: " + err);
			change.src_ip = v;
			break;
		case 'U':
		case 'A':
			if (change.admin_down && *change.admin_down != (c == 'A'))
				return bad("--admin-up and --admin-down exclude each other");
			change.admin_down = c == 'A';
			break;
		case 'h': usage(stdout); return 0;
		case 'V': std::printf("orvalindwarden-ctl %s\n", ORV_VERSION); return 0;  // --version only: 'V' is no short option
		default: return bad("unknown option");
		}
	}
	if (optind != argc)
		return bad(std::string("unexpected argument '") + argv[optind] + "'");
	if (pid != 0 && pidfile != nullptr)
		return bad("--pid and --pidfile exclude each other");
	if (nspath != nullptr && object != nullptr)
		return bad("--nspath and --object exclude each other");
	const bool asked = change.disc || change.min_rx || change.src_ip || change.admin_down;
	if (show && asked)
		return bad("--show changes nothing: give it without values");
	if (!show && !asked)
		return bad("nothing to change: give --discriminator, --min-rx, --source, --admin-up or "
			   "--admin-down, or --show");

	if (pid == 0) {
		pid_t p;
		if (!nlctl_read_pidfile(pidfile ? pidfile : DEFAULT_PIDFILE, &p, &err))
			return fail(err);
		pid = static_cast<std::uint32_t>(p);
	}
	const pid_t daemon = static_cast<pid_t>(pid);

	// The daemon's own NSPATH names its file; ours only when we may not read it.
	std::string daemon_nspath;
	if (nspath == nullptr && object == nullptr) {
		if (std::optional<std::string> e = nlctl_process_env(daemon, "NSPATH"))
			daemon_nspath = *e, nspath = daemon_nspath.c_str();
		else
			nspath = std::getenv("NSPATH");
	}
	const std::string state_path = nlctl_state_path(object, nspath, &err);
	if (state_path.empty())
		return bad(err);
	run_state running{};
	std::string state_err;
	const bool have_state = nlctl_read_state(state_path.c_str(), daemon, &running, &state_err) == NLCTL_OK &&
				nlctl_process_alive(daemon);
	if (!have_state && state_err.empty())
		state_err = "no process with pid " + std::to_string(daemon);
	if (show) {
		if (!have_state)
			return fail("no running configuration to show: " + state_err);
		std::fputs(nlctl_format_state(running).c_str(), stdout);
		return 0;
	}
	if (!have_state && !nlctl_change_complete(change))
		return fail("cannot change part of the configuration: " + state_err +
			    "; give all four values (--discriminator, --min-rx, --source and --admin-up or "
			    "--admin-down)");
	const nlctl_config cfg = nlctl_merge(change, running);

	// Found while the daemon runs: its trace is read only if it ends.
	const std::string trace_path = trace ? std::string(trace) : nlctl_trace_path(daemon);
	// A source the daemon runs with is bound already: it is not checked again
	// (it may have left the namespace; the daemon keeps its socket).
	const bool new_source = !have_state || cfg.src_ip != ntohl(running.source_ip);
	const std::uint64_t sent_ns = nlctl_realtime_ns();
	if (nlctl_send_config(daemon, netns, cfg, 1, &err, new_source) != NLCTL_OK)
		return fail(err);
	const int rc = nlctl_confirm(daemon, state_path.c_str(), cfg, have_state ? &running : nullptr, sent_ns,
				     trace_path.c_str(), have_state ? CONFIRM_TIMEOUT : UNCONFIRMABLE_TIMEOUT, &err);
	if (rc == NLCTL_ERR_UNCONFIRMED && !have_state)
		return 0;  // sent, as a complete change always was; the daemon lives
	return rc == NLCTL_OK ? 0 : fail(err);
}
