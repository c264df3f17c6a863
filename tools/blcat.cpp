// blcat.cpp -- prints the records of trace files, all levels merged in time
// order: blcat [-f] [-l LEVELS] [-s] FILE...; -f follows each FILE by name.
// blcat --version prints the version (ORV_VERSION, a compile definition).
//
// Exit status: 0 success, 1 a file that cannot be read, is not a valid
// trace file or was cut while read, 2 a usage error.
#include <getopt.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "blreader.h"

namespace {

volatile int stop_requested;

void on_stop(int) { stop_requested = 1; }

int usage()
{
	std::fprintf(stderr,
		     "usage: blcat [-f] [-l LEVELS] [-s] FILE...\n"
		     "       blcat --version\n"
		     "  -f         follow: keep printing records as they are written\n"
		     "  -l LEVELS  only these levels, e.g. 1,3-5\n"
		     "  -s         end with a count of skipped records on standard error\n");
	return 2;
}

}  // namespace

int main(int argc, char **argv)
{
	enum { OPT_VERSION = 256 };
	static const option longopts[] = {
		{"version", no_argument, nullptr, OPT_VERSION},
		{nullptr, 0, nullptr, 0},
	};
	blr_cat_options opt;
	int c;
	while ((c = getopt_long(argc, argv, "fl:s", longopts, nullptr)) != -1) {
		switch (c) {
		case OPT_VERSION:
			std::printf("blcat %s\n", ORV_VERSION);
			return 0;
		case 'f':
			opt.follow = true;
			break;
		case 'l':
			if (!blr_parse_levels(optarg, &opt.level_mask)) {
				std::fprintf(stderr, "blcat: bad level list \"%s\"\n", optarg);
				return usage();
			}
			break;
		case 's':
			opt.summary = true;
			break;
		default:
			return usage();
		}
	}
	if (optind >= argc)
		return usage();

	struct sigaction sa = {};
	sa.sa_handler = on_stop;
	sigaction(SIGINT, &sa, nullptr);
	sigaction(SIGTERM, &sa, nullptr);
	opt.stop = &stop_requested;
	return blr_cat({argv + optind, static_cast<std::size_t>(argc - optind)}, opt, stdout,
		       stderr);
}
