// sbfd-ping.cpp -- S-BFD initiator for operators, in the manner of ping:
// sends control packets to a reflector's port 7784, prints each reply and a
// summary. Exit status: 0 when a reply came (with -w and -c: as many as -c
// asks), 1 otherwise, 2 on a bad argument, a name that does not resolve or a
// set-up failure.
#include <arpa/inet.h>
#include <getopt.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "argparse.h"
#include "sbfd_probe.h"

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void on_stop(int) { stop_requested = 1; }

void usage(std::FILE *f)
{
	std::fputs(
		"usage: sbfd-ping [options] --your-disc N TARGET\n"
		"Sends S-BFD control packets to TARGET port 7784 and prints the replies;\n"
		"TARGET is an IPv4 address or a host name.\n"
		"  -c, --count N         stop after N probes (default: until interrupted);\n"
		"                        with -w, after N replies\n"
		"  -i, --interval S      seconds between probes, fractional (default 1)\n"
		"  -W, --timeout S       seconds to wait for each reply (default 1)\n"
		"  -w, --deadline S      stop after S seconds, however many probes went\n"
		"  -I, --source ADDR     source IPv4 address\n"
		"      --your-disc N     the reflector's discriminator (required, 1..4294967295)\n"
		"      --my-disc N       our discriminator (default: the process id)\n"
		"      --state up|down   state announced (default down)\n"
		"      --multiplier N    Detect Mult, 1..255 (default 3)\n"
		"      --min-tx US       Desired Min TX Interval, us (default 1000000)\n"
		"      --min-rx US       Required Min RX Interval, us (default 0)\n"
		"      --min-echo-rx US  Required Min Echo RX Interval, us (default 0)\n"
		"      --poll            set the Poll bit (the reply carries Final)\n"
		"      --mpls IFACE      send raw frames under MPLS label 0 on IFACE\n"
		"      --dst-mac MAC     next hop for --mpls (default: neighbour table)\n"
		"  -q, --quiet           print the summary only\n"
		"  -h, --help            this text\n"
		"      --version         print the version and exit\n",
		f);
}

constexpr double SECONDS_MAX = 3600;           // -i, -W
constexpr double DEADLINE_MAX = 2147483647;     // -w: INT_MAX seconds, as ping takes

bool parse_seconds(const char *text, double *out, double max = SECONDS_MAX)
{
	char *end = nullptr;
	double v = std::strtod(text, &end);
	if (end == text || *end != '\0' || !std::isfinite(v) || v < 0.001 || v > max)
		return false;
	*out = v;
	return true;
}

int bad(const std::string &msg)
{
	std::fprintf(stderr, "sbfd-ping: %s\n", msg.c_str());
	std::fputs("Try 'sbfd-ping --help'.\n", stderr);
	return 2;
}

}  // namespace

int main(int argc, char **argv)
{
	enum { OPT_MY = 256, OPT_YOUR, OPT_STATE, OPT_MULT, OPT_MINTX, OPT_MINRX, OPT_ECHO, OPT_POLL,
	       OPT_MPLS, OPT_MAC, OPT_VERSION };
	static const option longopts[] = {
		{"count", required_argument, nullptr, 'c'},   {"interval", required_argument, nullptr, 'i'},
		{"timeout", required_argument, nullptr, 'W'}, {"source", required_argument, nullptr, 'I'},
		{"deadline", required_argument, nullptr, 'w'},
		{"quiet", no_argument, nullptr, 'q'},         {"help", no_argument, nullptr, 'h'},
		{"my-disc", required_argument, nullptr, OPT_MY},
		{"your-disc", required_argument, nullptr, OPT_YOUR},
		{"state", required_argument, nullptr, OPT_STATE},
		{"multiplier", required_argument, nullptr, OPT_MULT},
		{"min-tx", required_argument, nullptr, OPT_MINTX},
		{"min-rx", required_argument, nullptr, OPT_MINRX},
		{"min-echo-rx", required_argument, nullptr, OPT_ECHO},
		{"poll", no_argument, nullptr, OPT_POLL},
		{"mpls", required_argument, nullptr, OPT_MPLS},
		{"dst-mac", required_argument, nullptr, OPT_MAC},
		{"version", no_argument, nullptr, OPT_VERSION},
		{nullptr, 0, nullptr, 0},
	};
	ping_options opt;
	opt.params.my_disc = static_cast<std::uint32_t>(getpid());
	bool have_your = false;
	std::string err;
	std::uint32_t v;
	int c;
	while ((c = getopt_long(argc, argv, "c:i:W:w:I:qh", longopts, nullptr)) != -1) {
		switch (c) {
		case 'c':
			if (!arg_parse_u32(optarg, 1, 0xffffffff, &v, &err))
				return bad("count: " + err);
			opt.count = v;
			break;
		case 'i':
			if (!parse_seconds(optarg, &opt.interval_s))
				return bad(std::string("interval: '") + optarg + "' (expected 0.001..3600 s)");
			break;
		case 'W':
			if (!parse_seconds(optarg, &opt.timeout_s))
				return bad(std::string("timeout: '") + optarg + "' (expected 0.001..3600 s)");
			break;
		case 'w':
			if (!parse_seconds(optarg, &opt.deadline_s, DEADLINE_MAX))
				return bad(std::string("deadline: '") + optarg + "' (expected 0.001..2147483647 s)");
			break;
		case 'I': {
			in_addr a{};
			if (inet_pton(AF_INET, optarg, &a) != 1)
				return bad(std::string("source: '") + optarg + "' is not an IPv4 address");
			opt.source = a;
			break;
		}
		case 'q': opt.quiet = true; break;
		case 'h': usage(stdout); return 0;
		case OPT_VERSION: std::printf("sbfd-ping %s\n", ORV_VERSION); return 0;
		case OPT_MY:
			if (!arg_parse_u32(optarg, 1, 0xffffffff, &opt.params.my_disc, &err))
				return bad("my-disc: " + err);
			break;
		case OPT_YOUR:
			if (!arg_parse_u32(optarg, 1, 0xffffffff, &opt.params.your_disc, &err))
				return bad("your-disc: " + err);
			have_your = true;
			break;
		case OPT_STATE:
			if (std::strcmp(optarg, "up") == 0)
				opt.params.state = BFD_STATE_UP;
			else if (std::strcmp(optarg, "down") == 0)
				opt.params.state = BFD_STATE_DOWN;
			else
				return bad(std::string("state: '") + optarg + "' (expected up or down)");
			break;
		case OPT_MULT:
			if (!arg_parse_u32(optarg, 1, 255, &v, &err))
				return bad("multiplier: " + err);
			opt.params.multiplier = static_cast<std::uint8_t>(v);
			break;
		case OPT_MINTX:
			if (!arg_parse_u32(optarg, 0, 0xffffffff, &opt.params.min_tx_us, &err))
				return bad("min-tx: " + err);
			break;
		case OPT_MINRX:
			if (!arg_parse_u32(optarg, 0, 0xffffffff, &opt.params.min_rx_us, &err))
				return bad("min-rx: " + err);
			break;
		case OPT_ECHO:
			if (!arg_parse_u32(optarg, 0, 0xffffffff, &opt.params.min_echo_rx_us, &err))
				return bad("min-echo-rx: " + err);
			break;
		case OPT_POLL: opt.params.poll = true; break;
		case OPT_MPLS: opt.mpls_iface = optarg; break;
		case OPT_MAC: {
			std::array<std::uint8_t, ETH_ADDR_LEN> mac;
			if (!probe_parse_mac(optarg, mac.data()))
				return bad(std::string("dst-mac: '") + optarg + "' (expected aa:bb:cc:dd:ee:ff)");
			opt.dst_mac = mac;
			break;
		}
		default: return bad("unknown option");
		}
	}
	if (optind + 1 != argc)
		return bad(optind == argc ? "missing TARGET" : "only one TARGET is allowed");
	if (!have_your)
		return bad("missing --your-disc (the reflector's discriminator)");
	if (opt.dst_mac && opt.mpls_iface.empty())
		return bad("--dst-mac needs --mpls IFACE");
	// Resolved last: a usage error is told without waiting on the resolver.
	if (!probe_resolve(argv[optind], &opt.target, &opt.target_name, &err)) {
		std::fprintf(stderr, "sbfd-ping: %s\n", err.c_str());
		return 2;
	}

	struct sigaction sa {};
	sa.sa_handler = on_stop;
	sigaction(SIGINT, &sa, nullptr);
	sigaction(SIGTERM, &sa, nullptr);

	ping_stats stats;
	if (ping_run(opt, stdout, &stats, &err, &stop_requested) != PING_OK) {
		std::fprintf(stderr, "sbfd-ping: %s\n", err.c_str());
		return 2;
	}
	ping_print_summary(opt, stats, stdout);
	// As ping: with a deadline and a count, fewer replies than the count fail.
	const bool enough = opt.deadline_s == 0 || opt.count == 0 || stats.received >= opt.count;
	return stats.received > 0 && enough ? 0 : 1;
}
