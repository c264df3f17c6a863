// fuzz_env.h -- the world a fuzz target of the packet path or the control
// channel runs in: a private network namespace (only its own loopback, so
// no reply can leave the machine, and any source address can be bound), a
// trace file in a temporary directory with every level on, and a context
// over an anonymous shared store with the session table set up, as the
// daemon has it after start-up.
//
// Set up once per process (libFuzzer's initialise hook); the temporary
// directory is removed when the process ends.
#pragma once

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "reflector.h"
#include "trace.h"

namespace fuzz_env {

constexpr std::uint32_t OUR_DISC = 0x0A0B0C0D;  // host order; frames' Your Discriminator to pass
constexpr std::uint32_t OUR_MIN_RX = 50000;     // us

inline std::string &trace_dir()
{
	static std::string d;
	return d;
}

inline void remove_trace_dir()
{
	if (!trace_dir().empty()) {
		std::string cmd = "rm -rf '" + trace_dir() + "'";
		if (std::system(cmd.c_str()) != 0)
			std::fprintf(stderr, "fuzz: could not remove %s\n", trace_dir().c_str());
	}
}

// Brings the loopback of the private namespace up: replies to 127.0.0.0/8
// are then really sent, all others fail with ENETUNREACH (the retry path).
inline bool loopback_up()
{
	int s = socket(AF_INET, SOCK_DGRAM, 0);
	if (s < 0)
		return false;
	ifreq ifr{};
	std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
	bool ok = ioctl(s, SIOCGIFFLAGS, &ifr) == 0;
	ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
	ok = ok && ioctl(s, SIOCSIFFLAGS, &ifr) == 0;
	close(s);
	return ok;
}

// Everything above; exits the process with a message when the world cannot
// be made (a fuzz run without it would test nothing or send real packets).
inline reflector_vrf *setup()
{
	if (unshare(CLONE_NEWNET) != 0) {
		std::perror("fuzz: unshare(CLONE_NEWNET) (needs root)");
		std::exit(1);
	}
	if (!loopback_up()) {
		std::perror("fuzz: loopback up");
		std::exit(1);
	}
	// Any address may be bound: a control message can name any source.
	FILE *f = std::fopen("/proc/sys/net/ipv4/ip_nonlocal_bind", "w");
	if (f == nullptr || std::fputs("1", f) < 0 || std::fclose(f) != 0) {
		std::perror("fuzz: ip_nonlocal_bind");
		std::exit(1);
	}

	char tmpl[64];
	std::snprintf(tmpl, sizeof tmpl, "/tmp/orvfuzz-%d-XXXXXX", static_cast<int>(getpid()));
	if (mkdtemp(tmpl) == nullptr) {
		std::perror("fuzz: mkdtemp");
		std::exit(1);
	}
	trace_dir() = tmpl;
	std::atexit(remove_trace_dir);
	setenv("BREVLOG_DIR", tmpl, 1);
	bl_handle = bl_initialize_handle(TRACE_FILE_NAME, TRACE_LEVEL_SIZES);
	if (!bl_isInitialized(bl_handle)) {
		std::perror("fuzz: trace handle");
		std::exit(1);
	}

	void *p = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	if (p == MAP_FAILED) {
		std::perror("fuzz: mmap");
		std::exit(1);
	}
	reflector_cfg = reflector_config{};
	reflector_cfg.discriminator = htonl(OUR_DISC);
	reflector_cfg.minRx = OUR_MIN_RX;
	reflector_cfg.sourceIp = inet_addr("127.0.0.1");
	auto *vrf = static_cast<reflector_vrf *>(std::calloc(1, sizeof(reflector_vrf)));
	vrf->name = DEFAULT_NS;
	vrf->shm = static_cast<reflector_shm *>(p);
	for (auto &h : vrf->hash_tbl)
		list_init(&h);
	list_init(&vrf->sess_cache);
	list_init(&vrf->free_list);
	if (session_table_setup(vrf) != 0 || init_out_socket(vrf) != INIT_OK) {
		std::fprintf(stderr, "fuzz: session table or transmit socket\n");
		std::exit(1);
	}
	return vrf;
}

}  // namespace fuzz_env
