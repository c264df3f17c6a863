// rxutil.h -- test harness of the packet path and the control channel: a
// context over a shared store of its own, frames and netlink datagrams built
// field by field, the receive socket pair, a loopback receiver for replies,
// and the trace as the reader renders it.
//
// Everything is owned by RAII objects, so a failing test still closes its
// sockets and unmaps its store. Addresses are on loopback only.
#pragma once

#include <arpa/inet.h>
#include <event2/event.h>
#include <linux/netlink.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "blreader.h"
#include "reflector.h"
#include "trace.h"

namespace rxt {

// The scripted sendto of send_seam.cpp (only in executables that link it).
// Calls on descriptor `fd` first fail with the errno values of `script`, in
// order (0: let that call through); then return `short_len` when it is not
// negative, or the full length without sending when `swallow` is set.
namespace seam {
extern int fd;
extern std::vector<int> script;
extern std::size_t calls;
extern bool swallow;
extern ssize_t short_len;
inline void reset(int target)
{
	fd = target;
	script.clear();
	calls = 0;
	swallow = false;
	short_len = -1;
}
}  // namespace seam

constexpr std::uint32_t OUR_DISC = 0x0A0B0C0D;  // the reflector's discriminator, host order
constexpr std::uint32_t OUR_MIN_RX = 50000;     // us
constexpr std::size_t CTRL_OFF_PLAIN = 14 + 20 + 8;

inline std::uint32_t ip(const char *dotted) { return inet_addr(dotted); }  // network order

// Reads a field of the store by its byte offset, as an outside reader does.
template <typename T> T at(const reflector_shm *shm, std::size_t off)
{
	T v;
	std::memcpy(&v, reinterpret_cast<const std::uint8_t *>(shm) + off, sizeof v);
	return v;
}
inline std::size_t slot_off(std::uint32_t k) { return SHM_HEADER_SIZE + 136 * std::size_t{k}; }

// Header offsets (the layout operators read).
constexpr std::size_t OFF_RX_DROPS = 0, OFF_TX_SENDS = 8, OFF_RX_VALID = 16;
constexpr std::size_t OFF_PKT_TRUNCATED = 24, OFF_BAD_VERSION = 28, OFF_INVALID_PKT_LEN = 32,
		      OFF_INVALID_SRC_PORT = 36, OFF_DEMAND_UNSET = 40, OFF_INVALID_DETECT_MULT = 44,
		      OFF_INVALID_MY_DISC = 48, OFF_YOUR_DISC_UNMATCH = 52,
		      OFF_INVALID_BFD_STATE = 56, OFF_UNSUPPORTED = 60,
		      OFF_INVALID_PKT_FORMAT = 64, OFF_SENDTO_FAIL = 68, OFF_WRONG_LEN_SENT = 72,
		      OFF_HASH_MISS = 76, OFF_HASH_HIT = 80, OFF_HASH_TRIM = 84;
// The eleven receive reason counters, in store order.
constexpr std::size_t REASON_OFFS[] = {24, 28, 32, 36, 40, 44, 48, 52, 56, 60, 64};

// The BFD request as its fields; encode() gives the 24 wire bytes.
struct request {
	std::uint8_t version = 1;
	std::uint8_t diag = 0;
	std::uint8_t state = BFD_STATE_DOWN;
	std::uint8_t flags = BFD_FLAG_D;  // P, F, C, A, D, M bits
	std::uint8_t detect_mult = 3;
	std::uint8_t length = 24;
	std::uint32_t my_disc = 0x11223344;
	std::uint32_t your_disc = OUR_DISC;
	std::uint32_t min_tx = 100000;
	std::uint32_t min_rx = 200000;
	std::uint32_t min_echo_rx = 300000;

	std::vector<std::uint8_t> encode() const
	{
		std::vector<std::uint8_t> b(24);
		b[0] = static_cast<std::uint8_t>(version << 5 | (diag & 0x1F));
		b[1] = static_cast<std::uint8_t>(state << 6 | (flags & 0x3F));
		b[2] = detect_mult;
		b[3] = length;
		auto put = [&](std::size_t o, std::uint32_t v) {
			v = htonl(v);
			std::memcpy(&b[o], &v, 4);
		};
		put(4, my_disc);
		put(8, your_disc);
		put(12, min_tx);
		put(16, min_rx);
		put(20, min_echo_rx);
		return b;
	}
};

// Everything below the control packet.
struct frame_opts {
	std::uint16_t eth_type = 0x0800;
	std::vector<std::uint32_t> labels;  // MPLS label stack entries as written
	std::uint8_t ihl = 5;
	std::uint8_t proto = 17;
	std::uint32_t src_ip = inet_addr("127.0.0.1");  // network order
	std::uint16_t src_port = 49152;                 // host order
};

inline std::vector<std::uint8_t> build_frame(const frame_opts &o, const std::vector<std::uint8_t> &payload)
{
	std::vector<std::uint8_t> f(12, 0xEE);  // addresses: not read
	f.push_back(static_cast<std::uint8_t>(o.eth_type >> 8));
	f.push_back(static_cast<std::uint8_t>(o.eth_type));
	for (std::uint32_t lse : o.labels) {
		std::uint32_t be = htonl(lse);
		const auto *p = reinterpret_cast<const std::uint8_t *>(&be);
		f.insert(f.end(), p, p + 4);
	}
	// An IHL below 5 keeps only the first 4 x IHL bytes of the header.
	std::uint8_t iph[60] = {};
	iph[0] = static_cast<std::uint8_t>(0x40 | (o.ihl & 0x0F));
	iph[8] = 64;
	iph[9] = o.proto;
	std::memcpy(&iph[12], &o.src_ip, 4);
	f.insert(f.end(), iph, iph + 4 * std::size_t{o.ihl & 0x0Fu});
	const std::size_t udp = f.size();
	f.resize(udp + 8, 0);
	f[udp] = static_cast<std::uint8_t>(o.src_port >> 8);
	f[udp + 1] = static_cast<std::uint8_t>(o.src_port);
	f[udp + 2] = SBFD_PORT >> 8;
	f[udp + 3] = SBFD_PORT & 0xFF;
	f.insert(f.end(), payload.begin(), payload.end());
	return f;
}

inline std::vector<std::uint8_t> build_frame(const frame_opts &o, const request &r)
{
	return build_frame(o, r.encode());
}

// A shared store of its own: an anonymous shared mapping of the store's size.
struct test_store {
	reflector_shm *shm = nullptr;
	test_store()
	{
		void *p = mmap(nullptr, SHM_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
		if (p != MAP_FAILED)
			shm = static_cast<reflector_shm *>(p);
	}
	~test_store()
	{
		if (shm)
			munmap(shm, SHM_SIZE);
	}
	test_store(const test_store &) = delete;
	test_store &operator=(const test_store &) = delete;
};

struct fd_owner {
	int fd = -1;
	explicit fd_owner(int f = -1) : fd(f) {}
	fd_owner(const fd_owner &) = delete;
	fd_owner &operator=(const fd_owner &) = delete;
	~fd_owner()
	{
		if (fd >= 0)
			close(fd);
	}
};

// A UDP socket bound to 127.0.0.1 on an ephemeral port.
inline int udp_bound(std::uint16_t *port_out)
{
	int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0)
		return -1;
	socklen_t l = sizeof a;
	getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
	if (port_out)
		*port_out = ntohs(a.sin_port);
	return fd;
}

// A context over a store of its own with the session table set up, the
// receive socket pair, a transmit socket and a loopback receiver whose
// address is that of every frame built by frame().
struct harness {
	test_store store;
	std::unique_ptr<reflector_vrf> vrf{new reflector_vrf{}};
	int pair[2] = {-1, -1};
	fd_owner receiver;
	std::uint16_t receiver_port = 0;

	explicit harness(bool persist = false, bool clear = true)
	{
		reflector_cfg = reflector_config{};
		reflector_cfg.discriminator = htonl(OUR_DISC);
		reflector_cfg.minRx = OUR_MIN_RX;
		reflector_cfg.sourceIp = inet_addr("127.0.0.1");
		reflector_cfg.persist = persist ? 1 : 0;
		vrf->name = DEFAULT_NS;
		vrf->shm = store.shm;
		for (auto &h : vrf->hash_tbl)
			list_init(&h);
		list_init(&vrf->sess_cache);
		list_init(&vrf->free_list);
		if (clear && store.shm)
			std::memset(store.shm, 0, SHM_SIZE);
		socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair);
		vrf->outfd = udp_bound(nullptr);
		receiver.fd = udp_bound(&receiver_port);
	}
	// Split from the constructor so a test may fill the store first.
	void setup_table() { ASSERT_EQ(session_table_setup(vrf.get()), 0); }

	~harness()
	{
		std::free(vrf->rx_sess);
		for (int fd : pair)
			if (fd >= 0)
				close(fd);
		if (vrf->outfd > 0)
			close(vrf->outfd);
	}
	harness(const harness &) = delete;
	harness &operator=(const harness &) = delete;

	reflector_shm *shm() const { return store.shm; }

	frame_opts opts() const
	{
		frame_opts o;
		o.src_port = receiver_port;
		return o;
	}
	std::vector<std::uint8_t> frame(const request &r) const { return build_frame(opts(), r); }

	// Hands one datagram to the receive callback through the socket pair.
	void feed(const std::vector<std::uint8_t> &bytes)
	{
		ASSERT_EQ(send(pair[1], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
		rx_data_ready(pair[0], EV_READ, vrf.get());
	}
	void feed_netlink(const std::vector<std::uint8_t> &bytes)
	{
		ASSERT_EQ(send(pair[1], bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
		rx_netlink_ready(pair[0], EV_READ, vrf.get());
	}

	// The next reply that reached the receiver, if any.
	std::optional<std::vector<std::uint8_t>> reply()
	{
		std::vector<std::uint8_t> b(100);
		ssize_t n = recv(receiver.fd, b.data(), b.size(), MSG_DONTWAIT);
		if (n < 0)
			return std::nullopt;
		b.resize(static_cast<std::size_t>(n));
		return b;
	}

	// Slot index of a node.
	std::uint32_t slot_of(const session_node *n) const
	{
		return static_cast<std::uint32_t>(n - vrf->rx_sess);
	}
	// Slot indices of sess_cache, front first.
	std::vector<std::uint32_t> cache_order() const
	{
		std::vector<std::uint32_t> v;
		for (list_link *l = vrf->sess_cache.next; l != &vrf->sess_cache; l = l->next)
			v.push_back(slot_of(node_of_cache(l)));
		return v;
	}
};

// The trace of this test process as the reader renders it: one handle per
// process (call-site ids are per process), in a temp dir of its own.
class trace_reader {
public:
	static trace_reader &get()
	{
		static trace_reader t;
		return t;
	}
	bool on() const { return open_; }

	// The records written since the last call, rendered: (level, text).
	std::vector<std::pair<int, std::string>> take()
	{
		std::vector<std::pair<int, std::string>> out;
		if (!open_)
			return out;
		blr_load_descs(file_);
		std::vector<blr_record> recs;
		blr_collect(file_, 0x7F, 0, recs);
		blr_sort(recs);
		for (const auto &r : recs) {
			std::string fmt;  // descriptors are sorted by message id
			for (const auto &d : file_.descs)
				if (d.msg_id == r.msg_id)
					fmt = d.fmt;
			out.emplace_back(static_cast<int>(r.level), blr_format(fmt, r.values));
		}
		return out;
	}
	// Texts of take() at `level`.
	std::vector<std::string> take_level(int level)
	{
		std::vector<std::string> v;
		for (auto &[l, t] : take())
			if (l == level)
				v.push_back(t);
		return v;
	}

private:
	trace_reader()
	{
		char tmpl[64];
		std::snprintf(tmpl, sizeof tmpl, "/tmp/orv-rxtrace-%d-XXXXXX", static_cast<int>(getpid()));
		if (mkdtemp(tmpl) == nullptr)
			return;
		dir_ = tmpl;
		setenv("BREVLOG_DIR", tmpl, 1);
		bl_handle = bl_initialize_handle(TRACE_FILE_NAME, TRACE_LEVEL_SIZES);
		if (bl_handle == nullptr || !bl_isInitialized(bl_handle))
			return;
		open_ = blr_open(file_, bl_path(bl_handle)).empty();
	}
	~trace_reader()
	{
		if (!dir_.empty() && getpid() == owner_) {  // not in a death test's child
			std::string cmd = "rm -rf '" + dir_ + "'";
			if (std::system(cmd.c_str()) != 0) {
			}
		}
	}
	bool open_ = false;
	pid_t owner_ = getpid();
	std::string dir_;
	blr_file file_;
};

// Count of texts in `v` that contain `needle`.
inline int count_containing(const std::vector<std::string> &v, const std::string &needle)
{
	int n = 0;
	for (const auto &s : v)
		n += s.find(needle) != std::string::npos;
	return n;
}

// One netlink message: header, then `payload` (a type-16 payload by default).
inline std::vector<std::uint8_t> nl_msg(std::uint16_t type, std::uint16_t flags,
					const std::vector<std::uint8_t> &payload, std::uint32_t len_field = 0)
{
	std::vector<std::uint8_t> m(16 + payload.size());
	nlmsghdr h{};
	h.nlmsg_len = len_field ? len_field : static_cast<std::uint32_t>(m.size());
	h.nlmsg_type = type;
	h.nlmsg_flags = flags;
	std::memcpy(m.data(), &h, sizeof h);
	std::copy(payload.begin(), payload.end(), m.begin() + 16);
	return m;
}

inline std::vector<std::uint8_t> nl_config(std::uint32_t disc, std::uint32_t min_rx,
					   std::uint32_t src_ip_host, std::uint8_t admin)
{
	std::vector<std::uint8_t> p(16, 0);  // 13 payload bytes, padded to 4
	std::memcpy(&p[0], &disc, 4);
	std::memcpy(&p[4], &min_rx, 4);
	std::memcpy(&p[8], &src_ip_host, 4);
	p[12] = admin;
	return p;
}

}  // namespace rxt
