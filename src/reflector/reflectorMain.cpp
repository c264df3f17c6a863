// reflectorMain.cpp -- process entry of the S-BFD reflector (RFC 7880, 7881):
// command line, trace handle, detaching, pid file, the one handled signal,
// the context, the first run-state file, the start-up record in the system
// log and the event loop.
//
// Runs once on the only thread. Owns: reflector_cfg as parsed from argv and
// bl_handle. Nothing printed once the command line is accepted; from then on
// every diagnostic is a trace record.
#include <arpa/inet.h>
#include <getopt.h>
#include <netinet/in.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <event2/event.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "ensure.h"
#include "reflector.h"
#include "trace.h"

namespace {

constexpr const char *PID_FILE = "/var/run/orvalindwarden.pid";
constexpr const char *SHORT_OPTIONS = "hd:p:r:DAS";

// The long name "persist stats" has a blank: users reach it by a prefix
// ("--persist", "--pers", "--p"), which getopt_long accepts when unambiguous.
// When adding an option, update SHORT_OPTIONS, parse_options and printHelp.
const option LONG_OPTIONS[] = {
	{"help", no_argument, nullptr, 'h'},
	{"discriminator", required_argument, nullptr, 'd'},
	{"sourceIp", required_argument, nullptr, 'p'},
	{"minRx", required_argument, nullptr, 'r'},
	{"daemonize", no_argument, nullptr, 'D'},
	{"adminDown", no_argument, nullptr, 'A'},
	{"persist stats", no_argument, nullptr, 'S'},
	{nullptr, 0, nullptr, 0},
};

// getopt_long results from 'A' to 'r' are the letters we may know; anything
// else, '?' (63) included, is unrecognised.
constexpr unsigned OPTION_LETTER_SPAN = 'r' - 'A';  // 49
static_assert(OPTION_LETTER_SPAN == 49);

void printHelp()
{
	std::puts("SBFD Reflector [-h] [-D] [-A] -d DISCRIMINATOR -p SOURCEIP -r MINRX ");
	std::puts("Where OPTIONS are:");
	std::puts(" -h | --help");
	std::puts(" -d | --discriminator SBFD local discriminator");
	std::puts(" -p | --sourceIp SBFD source IPv4 address");
	std::puts(" -r | --minRx SBFD minimum Rx interval ");
	std::puts(" -A | --adminDown");
	std::puts(" -D | --daemonize");
	std::puts(" -S | --persist SBFD statistics");
}

[[noreturn]] void unrecognized_option(int opt)
{
	std::printf("Unrecognized command line option ( %d ).\n\n", opt);
	printHelp();
	std::exit(0);
}

// base 10, truncated to 32 bits; non-numeric text reads as 0
std::uint32_t parse_u32(const char *text)
{
	return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
}

// Fills reflector_cfg from argv; exits (status 0) for help, an unknown
// option or a missing value.
void parse_options(int argc, char **argv)
{
	int opt;
	int index = 0;
	while ((opt = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, &index)) != -1) {
		// unsigned: a result below 'A' wraps to a large value
		if (static_cast<unsigned>(opt - 'A') > OPTION_LETTER_SPAN)
			unrecognized_option(opt);
		switch (opt) {
		case 'A':
			reflector_cfg.adminDown = 1;
			break;
		case 'D':
			reflector_cfg.daemonize = 1;
			break;
		case 'S':
			reflector_cfg.persist = 1;
			break;
		case 'd':
			reflector_cfg.discriminator = htonl(parse_u32(optarg));
			break;
		case 'p':
			reflector_cfg.sourceIp = inet_addr(optarg);
			break;
		case 'r':
			reflector_cfg.minRx = parse_u32(optarg);
			break;
		case 'h':
			printHelp();
			std::exit(0);
		default:
			unrecognized_option(opt);
		}
	}

	// A value counts as missing when it is zero, whatever the reason.
	if (reflector_cfg.discriminator == 0 || reflector_cfg.sourceIp == 0 ||
	    reflector_cfg.minRx == 0) {
		std::puts("Error: All paramaters have to be set.\n");
		printHelp();
		std::exit(0);
	}
}

// The signal is only noted. The tracing library keeps a record opened here
// apart from one the interrupted flow may have open.
void ignore_handler(int)
{
	TRACE(TRACE_ERROR, "Got SIG43 but ignore");
}

// Pid file: the daemon's own pid, on disk before the context is built. A
// directory we cannot write to means running without one.
void write_pid_file()
{
	int pid = static_cast<int>(getpid());
	FILE *f = std::fopen(PID_FILE, "w");
	if (f == nullptr)
		return;
	std::fprintf(f, "%d\n", pid);
	std::fflush(f);
	fsync(fileno(f));
	std::fclose(f);
}

void install_signal_handler()
{
	struct sigaction sa {};
	sa.sa_handler = ignore_handler;
	sigemptyset(&sa.sa_mask);
	sa.sa_flags = 0;
	sigaction(SIGRTMIN + 9, &sa, nullptr);
}

// The run-state file of our store's name, with the configuration of the
// command line and this moment as the start, and the timer of the writes
// after changes. Without a usable path (an NSPATH that makes the name too
// long) the daemon runs without the file.
void write_first_state(reflector_vrf *vrf)
{
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	vrf->started = {now.tv_sec, now.tv_nsec};
	vrf->state_since = vrf->started;
	char name[SHM_NAME_LEN];
	shm_store_name(name, std::getenv("NSPATH"));
	if (run_state_path(vrf->state_path, sizeof vrf->state_path, name) != 0) {
		TRACE(TRACE_ERROR, "ERROR: no run-state file for store %s: name too long", name);
		return;
	}
	// Without it, every change is written at once (reflector_state_changed).
	vrf->event_state = evtimer_new(vrf->base, state_timer_fired, vrf);
	run_state_clean(vrf->state_path);  // what a killed predecessor left
	reflector_save_state(vrf);
}

void log_start()
{
	reflector_syslog(LOG_INFO, "Start SBFD Reflector with Discriminator: %u, sourceIp: %s, minRx: %u ",
			 ntohl(reflector_cfg.discriminator), ipv4_dotted(reflector_cfg.sourceIp).text, reflector_cfg.minRx);
}

// Start-up steps up to the event loop. Returns the context, or nullptr when
// it could not be built (traced). Exits with status 1 if detaching fails.
reflector_vrf *start_up()
{
	bl_handle = bl_initialize_handle(TRACE_FILE_NAME, TRACE_LEVEL_SIZES);
	ENSURE(bl_handle);

	// Traced before detaching, so it is there even when daemon() fails.
	TRACE(TRACE_INIT, "INIT: Start SBFD Reflector with Discriminator: %u, sourceIp: %s, minRx: %u",
	      ntohl(reflector_cfg.discriminator), ipv4_dotted(reflector_cfg.sourceIp).text, reflector_cfg.minRx);

	if (reflector_cfg.daemonize && daemon(0, 0) < 0) {
		TRACE(TRACE_ERROR, "ERROR: Daemonization failed");
		std::exit(1);
	}
	write_pid_file();
	install_signal_handler();

	reflector_vrf *vrf = vrf_init();
	if (vrf == nullptr) {
		TRACE(TRACE_ERROR, "ERROR: VRF init failed");
		return nullptr;
	}
	write_first_state(vrf);
	log_start();
	TRACE(TRACE_INIT, "INIT: orvalindwarden ready");
	return vrf;
}

}  // namespace

int main(int argc, char **argv)
{
	parse_options(argc, argv);
	reflector_vrf *vrf = start_up();
	if (vrf == nullptr)
		return -1;
	// Runs until the loop has no events left or fails; nothing is released
	// afterwards, the process ends.
	event_base_dispatch(vrf->base);
	return 0;
}
