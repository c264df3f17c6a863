// bench_rx.cpp -- user-space cost of the receive path: one valid request with
// 512 live sessions and one rejected request, from the return of recvfrom to
// the hand-over of the reply to sendto (rx_handle_frame), with tracing on or
// off; and, apart, the always-on table check (with the table in cache, and
// as the daemon meets it: L1 taken by the kernel, recency list out of memory
// order) and the zeroing of the 64 KiB receive buffer that every frame pays.
//
// sendto on the transmit socket is replaced by a stub that accepts the reply,
// so the kernel's send cost is not part of the figures (BM_LoopbackSendto
// shows it for comparison). Traces go to a temp dir (BREVLOG_DIR).
#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "reflector.h"
#include "trace.h"

namespace {

int stub_fd = -1;  // sendto on this descriptor only pretends to send

constexpr std::uint32_t OUR_DISC = 0x0A0B0C0D;

// One context with 512 live sessions (192.0.2.1, discriminators 1..512).
struct bench_ctx {
	reflector_vrf *vrf = new reflector_vrf{};
	bl_log *trace = nullptr;
	int out[2] = {-1, -1};
	std::string trace_dir;

	bench_ctx()
	{
		char dir[] = "/tmp/orv-bench-rx-XXXXXX";
		if (mkdtemp(dir) != nullptr) {
			trace_dir = dir;
			setenv("BREVLOG_DIR", dir, 1);
			trace = bl_initialize_handle(TRACE_FILE_NAME, TRACE_LEVEL_SIZES);
		}
		bl_handle = trace;
		reflector_cfg.discriminator = htonl(OUR_DISC);
		reflector_cfg.minRx = 50000;
		void *p = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		vrf->shm = static_cast<reflector_shm *>(p);
		vrf->name = DEFAULT_NS;
		for (auto &h : vrf->hash_tbl)
			list_init(&h);
		list_init(&vrf->sess_cache);
		session_table_setup(vrf);
		socketpair(AF_UNIX, SOCK_DGRAM, 0, out);
		vrf->outfd = out[0];
		stub_fd = out[0];
		for (std::uint32_t d = 1; d <= MAX_SESSIONS; d++) {
			vrf->shm->rx_valid_pkts++;
			get_session(vrf, d, inet_addr("192.0.2.1"));
		}
	}
	~bench_ctx()
	{
		bl_handle = nullptr;
		if (trace != nullptr)
			bl_close(trace);
		if (!trace_dir.empty())
			std::filesystem::remove_all(trace_dir);
	}
};

bench_ctx &ctx()
{
	static bench_ctx c;
	return c;
}

// Ethernet, IPv4 (IHL 5), UDP from 192.0.2.1:49152, then the request.
std::vector<std::uint8_t> frame(std::uint32_t my_disc, std::uint32_t your_disc)
{
	constexpr std::size_t UDP_OFF = ETH_HDR_LEN + IPV4_HDR_LEN;
	std::vector<std::uint8_t> f(UDP_OFF + UDP_HDR_LEN + BFD_PKT_LEN, 0);
	store_be16(&f[ETH_TYPE_OFF], ETH_TYPE_IPV4);
	f[ETH_HDR_LEN] = IP_VERSION_IPV4 | IPV4_HDR_LEN / IPV4_IHL_UNIT;
	f[ETH_HDR_LEN + IPV4_PROTO_OFF] = IP_PROTO_UDP;
	const std::uint32_t src = inet_addr("192.0.2.1");
	std::memcpy(&f[ETH_HDR_LEN + IPV4_SADDR_OFF], &src, 4);
	store_be16(&f[UDP_OFF + UDP_SPORT_OFF], 49152);
	std::uint8_t *b = &f[UDP_OFF + UDP_HDR_LEN];
	b[0] = BFD_VERSION << BFD_VERSION_SHIFT;
	b[1] = BFD_STATE_UP << BFD_STATE_SHIFT | BFD_FLAG_D;
	b[offsetof(bfd_ctrl_pkt, detect_multiplier)] = 3;
	b[offsetof(bfd_ctrl_pkt, length)] = BFD_PKT_LEN;
	store_be32(b + offsetof(bfd_ctrl_pkt, my_disc), my_disc);
	store_be32(b + offsetof(bfd_ctrl_pkt, your_disc), your_disc);
	store_be32(b + offsetof(bfd_ctrl_pkt, min_tx_interval), 100000);
	store_be32(b + offsetof(bfd_ctrl_pkt, min_rx_interval), 100000);
	return f;
}

// Arg 0: tracing on (1) or off (0).
void run_frames(benchmark::State &state, std::uint32_t your_disc)
{
	bench_ctx &c = ctx();
	bl_handle = state.range(0) ? c.trace : nullptr;
	if (state.range(0) && c.trace == nullptr) {
		state.SkipWithError("no trace handle");
		return;
	}
	std::vector<std::vector<std::uint8_t>> frames;
	for (std::uint32_t d = 1; d <= MAX_SESSIONS; d++)
		frames.push_back(frame(d, your_disc));
	alignas(16) static std::uint8_t buf[RX_BUF_LEN];
	std::size_t i = 0;
	for (auto _ : state) {
		const auto &f = frames[i++ % frames.size()];  // every session in turn: hits that move to the front
		std::memcpy(buf, f.data(), f.size());  // the reply overwrites the request in place
		benchmark::DoNotOptimize(rx_handle_frame(c.vrf, buf, static_cast<std::int32_t>(f.size())));
	}
	bl_handle = c.trace;
}

void BM_ValidFrame(benchmark::State &state) { run_frames(state, OUR_DISC); }
void BM_RejectedFrame(benchmark::State &state) { run_frames(state, OUR_DISC + 1); }
BENCHMARK(BM_ValidFrame)->Arg(1)->Arg(0);
BENCHMARK(BM_RejectedFrame)->Arg(1)->Arg(0);

void BM_SessionSanityCheck512(benchmark::State &state)
{
	bench_ctx &c = ctx();
	for (auto _ : state) {
		session_sanity_check(c.vrf);
		benchmark::ClobberMemory();
	}
}
BENCHMARK(BM_SessionSanityCheck512);

// The check as the daemon meets it: between two lookups the kernel's receive
// and send paths have taken the L1 data cache (the table's 32 KiB of bucket
// heads and 28 KiB of nodes do not fit in it together), and the recency
// list is in no particular memory order once initiators probe at different
// intervals. Each iteration first sweeps 64 KiB of other memory, untimed.
void BM_SessionSanityCheck512Cold(benchmark::State &state)
{
	bench_ctx &c = ctx();
	static std::vector<std::uint8_t> other(64 * 1024);
	if (state.range(0)) {  // hits in a fixed pseudo-random order reorder sess_cache
		std::uint32_t x = 1;
		for (std::uint32_t i = 0; i < 4 * MAX_SESSIONS; i++) {
			x = x * 1103515245u + 12345u;
			get_session(c.vrf, 1 + (x >> 8) % MAX_SESSIONS, inet_addr("192.0.2.1"));
		}
	}
	for (auto _ : state) {
		for (std::size_t i = 0; i < other.size(); i += 64)
			other[i]++;
		benchmark::ClobberMemory();
		const auto t0 = std::chrono::steady_clock::now();
		session_sanity_check(c.vrf);
		const auto t1 = std::chrono::steady_clock::now();
		state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
	}
}
BENCHMARK(BM_SessionSanityCheck512Cold)->Arg(0)->Arg(1)->UseManualTime();

// Zeroing before each receive: the whole buffer versus the prefix decapsulation reads.
void BM_ZeroRxBuffer(benchmark::State &state)
{
	const std::size_t n = static_cast<std::size_t>(state.range(0));
	alignas(16) static std::uint8_t buf[RX_BUF_LEN];
	for (auto _ : state) {
		std::memset(buf, 0, n);
		benchmark::DoNotOptimize(buf);
		benchmark::ClobberMemory();
	}
}
BENCHMARK(BM_ZeroRxBuffer)->Arg(RX_BUF_LEN)->Arg(RX_READ_LIMIT);  // what rx_data_ready zeroes

// For comparison: what the kernel charges for the reply on loopback (the
// receiver's read, which keeps its queue short, is included).
void BM_LoopbackSendto(benchmark::State &state)
{
	int rx = socket(AF_INET, SOCK_DGRAM, 0), tx = socket(AF_INET, SOCK_DGRAM, 0);
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	bind(rx, reinterpret_cast<sockaddr *>(&a), sizeof a);
	socklen_t l = sizeof a;
	getsockname(rx, reinterpret_cast<sockaddr *>(&a), &l);
	std::uint8_t pkt[24] = {}, sink[64];
	for (auto _ : state) {
		benchmark::DoNotOptimize(sendto(tx, pkt, sizeof pkt, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&a), sizeof a));
		while (recv(rx, sink, sizeof sink, MSG_DONTWAIT) > 0) {
		}
	}
	close(rx);
	close(tx);
}
BENCHMARK(BM_LoopbackSendto);

}  // namespace

extern "C" ssize_t sendto(int fd, const void *buf, size_t len, int flags, const sockaddr *addr,
			  socklen_t addr_len)
{
	if (fd >= 0 && fd == stub_fd)
		return static_cast<ssize_t>(len);
	using sendto_fn = ssize_t (*)(int, const void *, size_t, int, const sockaddr *, socklen_t);
	static sendto_fn real = reinterpret_cast<sendto_fn>(dlsym(RTLD_NEXT, "sendto"));
	return real(fd, buf, len, flags, addr, addr_len);
}

BENCHMARK_MAIN();
