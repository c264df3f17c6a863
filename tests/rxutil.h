// rxutil.h -- harness of the packet path and the control channel: a context
// over a store of its own, requests, a loopback receiver for replies, the
// scripted sendto of send_seam.cpp, and this process's trace.
#pragma once

#include <arpa/inet.h>
#include <event2/event.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "blreader.h"
#include "reflector.h"
#include "sbfd_probe.h"
#include "testutil.h"
#include "trace.h"

namespace rxt {

using bytes = std::vector<std::uint8_t>;

// sendto on descriptor `fd` first fails with the errno values of `script`,
// in order; then returns `short_len` without sending when not negative.
struct seam_state {
	int fd = -1;
	std::vector<int> script;
	ssize_t short_len = -1;
	std::size_t calls = 0;
};
inline seam_state seam;

// Replies sent on this descriptor go to 127.0.0.1, port kept: the harness's
// requests come from INITIATOR_IP, which the reply path takes, and their
// replies must reach its loopback receiver.
inline int to_loopback_fd = -1;
constexpr std::uint32_t INITIATOR_IP = 0xc0000202;  // 192.0.2.2, host order

constexpr std::uint32_t OUR_DISC = 0x0A0B0C0D;  // the reflector's discriminator, host order
constexpr std::uint32_t OUR_MIN_RX = 50000;     // us

inline std::uint32_t ip(const char *dotted) { return inet_addr(dotted); }  // network order

// The receive reason counters, in store order.
constexpr std::uint32_t reflector_shm::*REASONS[] = {
	&reflector_shm::pkt_truncated, &reflector_shm::bad_version, &reflector_shm::invalid_pkt_len,
	&reflector_shm::invalid_src_port, &reflector_shm::demand_mode_unset, &reflector_shm::invalid_detect_mult,
	&reflector_shm::invalid_my_disc, &reflector_shm::your_disc_unmatch, &reflector_shm::invalid_bfd_state,
	&reflector_shm::unsupported, &reflector_shm::invalid_pkt_format};

// A BFD request as its fields, any of them breakable.
struct request {
	std::uint8_t version = 1, diag = 0, state = BFD_STATE_DOWN, flags = BFD_FLAG_D, detect_mult = 3, length = 24;
	std::uint32_t my_disc = 0x11223344, your_disc = OUR_DISC, min_tx = 100000, min_rx = 200000, min_echo_rx = 300000;

	bytes encode() const
	{
		bytes b = {static_cast<std::uint8_t>(version << BFD_VERSION_SHIFT | (diag & BFD_DIAG_MASK)),
			   static_cast<std::uint8_t>(state << BFD_STATE_SHIFT | (flags & BFD_FLAGS_MASK)), detect_mult, length};
		for (std::uint32_t v : {my_disc, your_disc, min_tx, min_rx, min_echo_rx}) {
			b.resize(b.size() + sizeof v);
			store_be32(&b[b.size() - sizeof v], v);
		}
		return b;
	}
};

// A context over a store of its own (shared: a death test's child's writes
// show here), the receive socket pair, a transmit socket and the loopback
// receiver of replies. setup_table() is apart: a test may fill the store first.
struct harness {
	reflector_shm *store = static_cast<reflector_shm *>(
		mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
	std::unique_ptr<reflector_vrf> vrf{new reflector_vrf{}};
	int pair[2] = {-1, -1};
	int receiver = -1;
	std::uint16_t receiver_port = 0;

	explicit harness(bool persist = false)
	{
		reflector_cfg = {.discriminator = htonl(OUR_DISC), .minRx = OUR_MIN_RX, .sourceIp = ip("127.0.0.1"),
				 .adminDown = 0, .daemonize = 0, .persist = persist};
		vrf->name = DEFAULT_NS;
		vrf->shm = store;  // zero-filled, like a new store
		for (auto &h : vrf->hash_tbl)
			list_init(&h);
		list_init(&vrf->sess_cache);
		socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair);
		vrf->outfd = udp_bound(nullptr);
		receiver = udp_bound(&receiver_port);
		to_loopback_fd = vrf->outfd;
	}
	~harness()
	{
		to_loopback_fd = -1;
		std::free(vrf->rx_sess);
		for (int fd : {pair[0], pair[1], vrf->outfd, receiver})
			if (fd > 0)
				close(fd);
		munmap(store, SHM_SIZE);
	}

	void setup_table() { ASSERT_EQ(session_table_setup(vrf.get()), 0); }
	frame_spec frame_shape() const
	{
		return {.labels = {}, .ip_options = {}, .src_ip = INITIATOR_IP, .src_port = receiver_port};
	}
	bytes frame(const request &r) const { return probe_frame_build(frame_shape(), r.encode()); }

	// Hands one datagram to a receive callback through the socket pair.
	void feed(const bytes &b, void (*cb)(int, short, void *) = rx_data_ready)
	{
		ASSERT_EQ(send(pair[1], b.data(), b.size(), 0), static_cast<ssize_t>(b.size()));
		cb(pair[0], EV_READ, vrf.get());
	}

	// The next 24-byte reply that reached the receiver, if any.
	std::optional<bfd_ctrl_pkt> reply()
	{
		std::uint8_t b[100];
		bfd_ctrl_pkt p{};
		if (recv(receiver, b, sizeof b, MSG_DONTWAIT) != static_cast<ssize_t>(BFD_PKT_LEN) || !probe_decode({b, BFD_PKT_LEN}, &p))
			return std::nullopt;
		return p;
	}

	std::uint32_t slot_of(const session_node *n) const { return static_cast<std::uint32_t>(n - vrf->rx_sess); }
	// Slot indices of sess_cache, front first.
	std::vector<std::uint32_t> cache_order() const
	{
		std::vector<std::uint32_t> v;
		for (list_link *l = vrf->sess_cache.next; l != &vrf->sess_cache; l = l->next)
			v.push_back(slot_of(node_of_cache(l)));
		return v;
	}

private:
	// A UDP socket bound to 127.0.0.1 on an ephemeral port.
	static int udp_bound(std::uint16_t *port)
	{
		const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
		sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
		socklen_t l = sizeof a;
		if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), l) != 0 || getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l) != 0)
			return -1;
		if (port)
			*port = ntohs(a.sin_port);
		return fd;
	}
};

// This process's trace (one handle per process: call-site ids are per
// process). take() gives the texts of records at `level` (-1: any) since its
// last call for that level.
class trace_reader {
public:
	static trace_reader &get()
	{
		static trace_reader t;
		return t;
	}
	std::vector<std::string> take(int level = -1)
	{
		std::vector<std::string> out;
		EXPECT_TRUE(open_) << "this process's trace did not open";
		if (!open_)
			return out;
		blr_load_descs(file_);
		std::vector<blr_record> recs;
		blr_collect(file_, level < 0 ? 0x7Fu : 1u << level, 0, recs);
		blr_sort(recs);
		for (const auto &r : recs)
			for (const auto &d : file_.descs)
				if (d.msg_id == r.msg_id)
					out.push_back(blr_format(d.fmt, r.values));
		return out;
	}

private:
	trace_reader()
	{
		setenv("BREVLOG_DIR", dir_.path().c_str(), 1);
		bl_handle = bl_initialize_handle(TRACE_FILE_NAME, TRACE_LEVEL_SIZES);
		open_ = bl_handle && bl_isInitialized(bl_handle) && blr_open(file_, bl_path(bl_handle)).empty();
	}
	testutil::temp_dir dir_{"orv-rxtrace"};
	bool open_ = false;
	blr_file file_;
};

}  // namespace rxt
