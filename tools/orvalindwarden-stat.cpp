// orvalindwarden-stat.cpp -- shows the counters and sessions of a running
// (or stopped) reflector from its shared session store: as a text report,
// as JSON, in the node_exporter textfile format, or refreshed in place;
// or, with --delta, the change of every counter since the caller's last
// call, the baseline kept in a history file of the caller's.
//
// Exit status: 0 shown; 1 the store cannot be read (missing, no access,
// wrong size, not a store) or the history file cannot be written; 2 usage
// error.
#include <getopt.h>
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "shmhist.h"
#include "shmstat.h"

namespace {

constexpr int EXIT_STORE = 1;
constexpr int EXIT_USAGE = 2;

volatile sig_atomic_t stop_watch = 0;

void on_interrupt(int) { stop_watch = 1; }

void usage(FILE *out)
{
	std::fputs("Usage: orvalindwarden-stat [-j | -P | -w SECONDS] [-s] [-d | -r] [-H FILE] [-n NSPATH | -o OBJECT]\n"
		   "Shows the counters and sessions of the S-BFD reflector's shared session store.\n"
		   "\n"
		   "  -j, --json             one JSON document\n"
		   "  -P, --prometheus       node_exporter textfile format\n"
		   "  -w, --watch SECONDS    refresh every SECONDS with per-second rates, until interrupted\n"
		   "  -s, --silent           list only the silent sessions (last request older than\n"
		   "                         the detection time the initiator announced)\n"
		   "  -d, --delta            changes since the last call (text or JSON); keeps a history file\n"
		   "  -r, --reset            start a new baseline for --delta, print nothing\n"
		   "  -H, --history FILE     the history file (default: $XDG_RUNTIME_DIR/orvalindwarden-stat/\n"
		   "                         OBJECT.delta, else ~/.cache/orvalindwarden-stat/OBJECT.delta)\n"
		   "  -n, --netns NSPATH     the store of the daemon started with this NSPATH\n"
		   "                         (default: the NSPATH of the environment)\n"
		   "  -o, --object NAME      the shared-memory object NAME (as in /dev/shm)\n"
		   "  -h, --help             this text\n"
		   "\n"
		   "Exit status: 0 shown, 1 store missing or unreadable or not a store, or history\n"
		   "not written, 2 usage error.\n",
		   out);
}

bool write_all(const std::string &s) { return std::fwrite(s.data(), 1, s.size(), stdout) == s.size(); }

// Sleeps `seconds`, returning early when interrupted.
void sleep_interruptible(double seconds)
{
	timespec ts{};
	ts.tv_sec = time_t(seconds);
	ts.tv_nsec = long((seconds - double(ts.tv_sec)) * 1e9);
	while (!stop_watch && nanosleep(&ts, &ts) == -1 && errno == EINTR) {
	}
}

int watch(const std::string &name, double interval, bool silent_only)
{
	struct sigaction sa {};
	sa.sa_handler = on_interrupt;
	sigemptyset(&sa.sa_mask);
	sigaction(SIGINT, &sa, nullptr);
	sigaction(SIGTERM, &sa, nullptr);

	auto cur = std::make_unique<shmstat_snapshot>();
	auto prev = std::make_unique<shmstat_snapshot>();
	bool have_prev = false;
	while (!stop_watch) {
		std::string err;
		if (shmstat_read(name, cur.get(), &err) != SHMSTAT_OK) {
			std::fprintf(stderr, "orvalindwarden-stat: %s\n", err.c_str());
			return EXIT_STORE;
		}
		shmstat_view view;
		view.daemon = shmstat_probe_daemon(name, *cur);
		view.silent_only = silent_only;
		// Home the cursor and clear the screen, then draw the new report.
		write_all("\033[H\033[2J" + shmstat_format_text(*cur, name, have_prev ? prev.get() : nullptr, view));
		std::fflush(stdout);
		std::swap(cur, prev);
		have_prev = true;
		sleep_interruptible(interval);
	}
	return 0;
}

}  // namespace

int main(int argc, char **argv)
{
	enum class format { text, json, prometheus } fmt = format::text;
	const char *object = nullptr;
	const char *nspath = std::getenv("NSPATH");
	double interval = 0;
	bool silent_only = false, delta = false, reset = false;
	const char *history = nullptr;

	static const option longopts[] = {
		{"json", no_argument, nullptr, 'j'},
		{"prometheus", no_argument, nullptr, 'P'},
		{"watch", required_argument, nullptr, 'w'},
		{"silent", no_argument, nullptr, 's'},
		{"delta", no_argument, nullptr, 'd'},
		{"reset", no_argument, nullptr, 'r'},
		{"history", required_argument, nullptr, 'H'},
		{"netns", required_argument, nullptr, 'n'},
		{"object", required_argument, nullptr, 'o'},
		{"help", no_argument, nullptr, 'h'},
		{"version", no_argument, nullptr, 'V'},
		{nullptr, 0, nullptr, 0},
	};
	int c;
	while ((c = getopt_long(argc, argv, "jPw:sdrH:n:o:h", longopts, nullptr)) != -1) {
		switch (c) {
		case 'j':
			fmt = format::json;
			break;
		case 'P':
			fmt = format::prometheus;
			break;
		case 'w': {
			char *end = nullptr;
			interval = std::strtod(optarg, &end);
			if (end == optarg || *end != '\0' || !std::isfinite(interval) || interval <= 0 ||
			    interval > 86400) {
				std::fprintf(stderr, "orvalindwarden-stat: --watch needs seconds above 0, not \"%s\"\n",
					     optarg);
				return EXIT_USAGE;
			}
			break;
		}
		case 's':
			silent_only = true;
			break;
		case 'd':
			delta = true;
			break;
		case 'r':
			reset = true;
			break;
		case 'H':
			history = optarg;
			break;
		case 'n':
			nspath = optarg;
			break;
		case 'o':
			object = optarg;
			break;
		case 'h':
			usage(stdout);
			return 0;
		case 'V':  // --version only: 'V' is no short option
			std::printf("orvalindwarden-stat %s\n", ORV_VERSION);
			return 0;
		default:
			usage(stderr);
			return EXIT_USAGE;
		}
	}
	if (optind < argc) {
		std::fprintf(stderr, "orvalindwarden-stat: unexpected argument \"%s\"\n", argv[optind]);
		usage(stderr);
		return EXIT_USAGE;
	}
	if (interval > 0 && fmt != format::text) {
		std::fputs("orvalindwarden-stat: --watch shows the text report only\n", stderr);
		return EXIT_USAGE;
	}
	const char *conflict = delta && reset ? "--delta and --reset"
			       : (delta || reset) && interval > 0 ? "--delta or --reset and --watch"
			       : (delta || reset) && fmt == format::prometheus ? "--delta or --reset and --prometheus"
			       : history && !delta && !reset ? "--history without --delta or --reset"
							     : nullptr;
	if (conflict) {
		std::fprintf(stderr, "orvalindwarden-stat: %s do not go together\n", conflict);
		return EXIT_USAGE;
	}

	std::string name = shmstat_object_name(object, nspath);
	if (interval > 0)
		return watch(name, interval, silent_only);

	auto snap = std::make_unique<shmstat_snapshot>();
	std::string err;
	if (shmstat_read(name, snap.get(), &err) != SHMSTAT_OK) {
		std::fprintf(stderr, "orvalindwarden-stat: %s\n", err.c_str());
		return EXIT_STORE;
	}
	shmstat_view view;
	view.daemon = shmstat_probe_daemon(name, *snap);
	view.silent_only = silent_only;
	view.version = ORV_VERSION;

	std::string out, history_path;
	if (delta || reset) {
		history_path = history ? history : shmhist_default_path(name, &err);
		if (history_path.empty()) {
			std::fprintf(stderr, "orvalindwarden-stat: %s\n", err.c_str());
			return EXIT_STORE;
		}
	}
	if (reset) {
		if (!shmhist_save(history_path, shmhist_of(*snap, name), &err)) {
			std::fprintf(stderr, "orvalindwarden-stat: %s\n", err.c_str());
			return EXIT_STORE;
		}
		return 0;
	}
	if (delta) {
		shmhist base;
		std::string note;
		bool have = shmhist_load(history_path, &base, &note);
		shmhist_delta d = shmhist_compare(have ? &base : nullptr, *snap, name);
		if (!note.empty())
			d.notes.insert(d.notes.begin(), note);
		out = fmt == format::json ? shmstat_format_delta_json(d, *snap, name, view)
					  : shmstat_format_delta_text(d, *snap, name, view);
	} else {
		out = fmt == format::json	? shmstat_format_json(*snap, name, view)
		      : fmt == format::prometheus ? shmstat_format_prometheus(*snap, name, view)
						  : shmstat_format_text(*snap, name, nullptr, view);
	}
	if (!write_all(out) || std::fflush(stdout) != 0) {
		std::perror("orvalindwarden-stat: stdout");
		return EXIT_STORE;
	}
	// The new baseline only once the changes were shown: a failed write
	// keeps the old one.
	if (delta && !shmhist_save(history_path, shmhist_of(*snap, name), &err)) {
		std::fprintf(stderr, "orvalindwarden-stat: %s\n", err.c_str());
		return EXIT_STORE;
	}
	return 0;
}
