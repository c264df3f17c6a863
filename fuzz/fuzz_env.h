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
#include <filesystem>

#include "reflector.h"
#include "trace.h"

namespace fuzz_env {

constexpr std::uint32_t OUR_DISC = 0x0A0B0C0D;  // host order; frames' Your Discriminator to pass
constexpr std::uint32_t OUR_MIN_RX = 50000;     // us

inline char trace_dir[64];

// Ends the process with `what` and errno: a fuzz run without its world would
// test nothing or send real packets.
inline void require(bool ok, const char *what)
{
	if (!ok) {
		std::perror(what);
		std::exit(1);
	}
}

// Makes the world described at the top of this file; returns its context.
inline reflector_vrf *setup()
{
	require(unshare(CLONE_NEWNET) == 0, "fuzz: unshare(CLONE_NEWNET) (needs root)");
	// The loopback up, with 192.0.2.1/24 on it: replies to 192.0.2.0/24
	// are then really sent (the context has no address watch, so none of
	// them is refused as our own), replies to martian addresses are refused
	// by the reply path, all others fail with ENETUNREACH (the retry path).
	const int s = socket(AF_INET, SOCK_DGRAM, 0);
	ifreq ifr{};
	std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
	require(s >= 0 && ioctl(s, SIOCGIFFLAGS, &ifr) == 0, "fuzz: loopback flags");
	ifr.ifr_flags = static_cast<short>(ifr.ifr_flags | IFF_UP);
	require(ioctl(s, SIOCSIFFLAGS, &ifr) == 0, "fuzz: loopback up");
	std::strncpy(ifr.ifr_name, "lo:1", IFNAMSIZ - 1);
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_addr.s_addr = inet_addr("192.0.2.1");
	std::memcpy(&ifr.ifr_addr, &a, sizeof a);
	require(ioctl(s, SIOCSIFADDR, &ifr) == 0, "fuzz: loopback address");
	a.sin_addr.s_addr = inet_addr("255.255.255.0");
	std::memcpy(&ifr.ifr_netmask, &a, sizeof a);
	require(ioctl(s, SIOCSIFNETMASK, &ifr) == 0 && close(s) == 0, "fuzz: loopback netmask");
	// Any address may be bound: a control message can name any source.
	FILE *f = std::fopen("/proc/sys/net/ipv4/ip_nonlocal_bind", "w");
	require(f != nullptr && std::fputs("1", f) >= 0 && std::fclose(f) == 0, "fuzz: ip_nonlocal_bind");

	std::snprintf(trace_dir, sizeof trace_dir, "/tmp/orvfuzz-%d-XXXXXX", static_cast<int>(getpid()));
	require(mkdtemp(trace_dir) != nullptr, "fuzz: mkdtemp");
	std::atexit([] {
		std::error_code ec;
		std::filesystem::remove_all(trace_dir, ec);
	});
	setenv("BREVLOG_DIR", trace_dir, 1);
	bl_handle = bl_initialize_handle(TRACE_FILE_NAME, TRACE_LEVEL_SIZES);
	require(bl_isInitialized(bl_handle), "fuzz: trace handle");

	void *p = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	require(p != MAP_FAILED, "fuzz: mmap");
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
	require(session_table_setup(vrf) == 0 && init_out_socket(vrf) == INIT_OK,
		"fuzz: session table or transmit socket");
	return vrf;
}

}  // namespace fuzz_env
