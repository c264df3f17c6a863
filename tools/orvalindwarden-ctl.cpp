// orvalindwarden-ctl.cpp -- the controlling agent's command: sends one
// configuration message (discriminator, minimum receive interval, source
// address, administrative state) to a running reflector over netlink.
//
// Every message sets all four values and the daemon cannot be asked for its
// current ones, so all four are required: a default would silently change
// what the operator did not mean to change. Nothing is sent unless every
// value is valid, and the source an address the daemon can send from: it
// ends when it cannot. Exit status: 0 sent, 1 daemon not reachable or the
// source no address of its namespace, 2 bad usage.
#include <getopt.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "argparse.h"
#include "nlctl.h"

namespace {

constexpr const char *DEFAULT_PIDFILE = "/var/run/orvalindwarden.pid";

void usage(std::FILE *f)
{
	std::fprintf(f,
		     "usage: orvalindwarden-ctl [--pid PID | --pidfile PATH] [--netns NAME]\n"
		     "           --discriminator N --min-rx US --source A.B.C.D (--admin-up | --admin-down)\n"
		     "Sets the configuration of a running reflector; all four values are required.\n"
		     "  -p, --pid PID            the daemon's process id (its netlink port)\n"
		     "  -f, --pidfile PATH       read the pid from PATH (default %s)\n"
		     "  -n, --netns NAME         the daemon's network namespace (default: ours)\n"
		     "  -d, --discriminator N    local discriminator, 1..4294967295\n"
		     "  -r, --min-rx US          Required Min RX Interval, us, 0..4294967295\n"
		     "  -s, --source A.B.C.D     source address of the replies\n"
		     "  -U, --admin-up           answer with state Up\n"
		     "  -A, --admin-down         answer with state AdminDown\n"
		     "  -h, --help               this text\n",
		     DEFAULT_PIDFILE);
}

int bad(const std::string &msg)
{
	std::fprintf(stderr, "orvalindwarden-ctl: %s\n", msg.c_str());
	std::fputs("Try 'orvalindwarden-ctl --help'.\n", stderr);
	return 2;
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
		{"help", no_argument, nullptr, 'h'},
		{nullptr, 0, nullptr, 0},
	};
	nlctl_config cfg;
	bool have_disc = false, have_rx = false, have_src = false, have_admin = false;
	const char *pidfile = nullptr;
	const char *netns = "default";
	std::uint32_t pid = 0;
	std::string err;
	int c;
	while ((c = getopt_long(argc, argv, "p:f:n:d:r:s:UAh", longopts, nullptr)) != -1) {
		switch (c) {
		case 'p':
			if (!arg_parse_u32(optarg, 1, 0x7fffffff, &pid, &err))
				return bad("pid: " + err);
			break;
		case 'f': pidfile = optarg; break;
		case 'n': netns = optarg; break;
		case 'd':
			if (!arg_parse_u32(optarg, 1, 0xffffffff, &cfg.disc, &err))
				return bad("discriminator: " + err);
			have_disc = true;
			break;
		case 'r':
			if (!arg_parse_u32(optarg, 0, 0xffffffff, &cfg.min_rx, &err))
				return bad("min-rx: " + err);
			have_rx = true;
			break;
		case 's':
			if (!nlctl_parse_ipv4(optarg, &cfg.src_ip, &err))
				return bad("source: " + err);
			have_src = true;
			break;
		case 'U':
		case 'A':
			if (have_admin && cfg.admin_down != (c == 'A'))
				return bad("--admin-up and --admin-down exclude each other");
			cfg.admin_down = c == 'A';
			have_admin = true;
			break;
		case 'h': usage(stdout); return 0;
		default: return bad("unknown option");
		}
	}
	if (optind != argc)
		return bad(std::string("unexpected argument '") + argv[optind] + "'");
	if (pid != 0 && pidfile != nullptr)
		return bad("--pid and --pidfile exclude each other");
	std::string missing;
	if (!have_disc)
		missing += " --discriminator";
	if (!have_rx)
		missing += " --min-rx";
	if (!have_src)
		missing += " --source";
	if (!have_admin)
		missing += " --admin-up|--admin-down";
	if (!missing.empty())
		return bad("missing" + missing + " (every message sets all four values)");

	if (pid == 0) {
		pid_t p;
		if (!nlctl_read_pidfile(pidfile ? pidfile : DEFAULT_PIDFILE, &p, &err)) {
			std::fprintf(stderr, "orvalindwarden-ctl: %s\n", err.c_str());
			return 1;
		}
		pid = static_cast<std::uint32_t>(p);
	}
	int rc = nlctl_send_config(static_cast<pid_t>(pid), netns, cfg, 1, &err);
	if (rc != NLCTL_OK) {
		std::fprintf(stderr, "orvalindwarden-ctl: %s\n", err.c_str());
		return 1;
	}
	return 0;
}
