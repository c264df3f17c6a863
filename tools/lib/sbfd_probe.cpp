// sbfd_probe.cpp -- S-BFD initiator: control packet codec, frame builder and
// parser, and the probe loop of sbfd-ping.
//
// The probe loop owns one UDP socket (bound to an ephemeral port, where the
// replies come back, with IP_RECVERR: the ICMP errors about our probes come
// back on its error queue) and, for labelled probes, one packet socket bound
// to the chosen interface. Time is taken from CLOCK_MONOTONIC only.
#include "sbfd_probe.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/errqueue.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <sstream>

#include "unique_fd.h"

namespace {

double mono_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

std::string errno_text(const char *what, int e) { return std::string(what) + ": " + std::strerror(e); }

}  // namespace

// ---- control packets ----

void probe_encode_request(const probe_params &p, std::uint8_t out[BFD_PKT_LEN])
{
	out[0] = static_cast<std::uint8_t>(BFD_VERSION << BFD_VERSION_SHIFT | (p.diag & BFD_DIAG_MASK));
	out[1] = static_cast<std::uint8_t>((p.state & BFD_STATE_MAX) << BFD_STATE_SHIFT | BFD_FLAG_D |
					   (p.poll ? BFD_FLAG_P : 0));
	out[offsetof(bfd_ctrl_pkt, detect_multiplier)] = p.multiplier;
	out[offsetof(bfd_ctrl_pkt, length)] = BFD_PKT_LEN;
	store_be32(out + offsetof(bfd_ctrl_pkt, my_disc), p.my_disc);
	store_be32(out + offsetof(bfd_ctrl_pkt, your_disc), p.your_disc);
	store_be32(out + offsetof(bfd_ctrl_pkt, min_tx_interval), p.min_tx_us);
	store_be32(out + offsetof(bfd_ctrl_pkt, min_rx_interval), p.min_rx_us);
	store_be32(out + offsetof(bfd_ctrl_pkt, min_echo_rx_interval), p.min_echo_rx_us);
}

bool probe_decode(std::span<const std::uint8_t> buf, bfd_ctrl_pkt *pkt)
{
	if (buf.size() < BFD_PKT_LEN)
		return false;
	std::memcpy(pkt, buf.data(), BFD_PKT_LEN);
	return true;
}

std::string probe_flags_text(std::uint8_t flags)
{
	static const struct {
		std::uint8_t bit;
		char letter;
	} bits[] = {{BFD_FLAG_P, 'P'}, {BFD_FLAG_F, 'F'}, {BFD_FLAG_C, 'C'},
		    {BFD_FLAG_A, 'A'}, {BFD_FLAG_D, 'D'}, {BFD_FLAG_M, 'M'}};
	std::string s;
	for (const auto &b : bits)
		if (flags & b.bit)
			s += b.letter;
	return s.empty() ? "-" : s;
}

std::string probe_format_reply(const bfd_ctrl_pkt &pkt, std::size_t len, const sockaddr_in &from,
			       std::uint32_t seq, double rtt_ms)
{
	char buf[512];
	int n = std::snprintf(
		buf, sizeof buf,
		"%zu bytes from %s:%u: seq=%u state=%s diag=%u (%s) flags=%s mult=%u len=%u "
		"my_disc=%u your_disc=%u min_tx=%u min_rx=%u min_echo_rx=%u",
		len, ipv4_dotted(from.sin_addr.s_addr).text, ntohs(from.sin_port), seq,
		bfd_state_name(bfd_state_of(pkt)), bfd_diag(pkt), bfd_diag_name(bfd_diag(pkt)),
		probe_flags_text(pkt.flags).c_str(), pkt.detect_multiplier, pkt.length, ntohl(pkt.my_disc),
		ntohl(pkt.your_disc), ntohl(pkt.min_tx_interval), ntohl(pkt.min_rx_interval),
		ntohl(pkt.min_echo_rx_interval));
	std::string s(buf, static_cast<std::size_t>(n));
	if (bfd_version(pkt) != BFD_VERSION)
		s += " version=" + std::to_string(bfd_version(pkt));
	if (rtt_ms >= 0) {
		std::snprintf(buf, sizeof buf, " time=%.3f ms", rtt_ms);
		s += buf;
	}
	return s;
}

// ---- frames ----

std::uint16_t probe_checksum(std::span<const std::uint8_t> data, std::uint32_t sum)
{
	std::size_t i = 0;
	for (; i + 1 < data.size(); i += 2)
		sum += load_be16(&data[i]);
	if (i < data.size())
		sum += static_cast<std::uint32_t>(data[i]) << 8;
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return static_cast<std::uint16_t>(~sum);
}

std::vector<std::uint8_t> probe_frame_build(const frame_spec &shape,
					    std::span<const std::uint8_t> payload)
{
	const std::size_t ihl_bytes = IPV4_HDR_LEN + shape.ip_options.size();
	const std::size_t udp_len = UDP_HDR_LEN + payload.size();
	const std::size_t ip_off = ETH_HDR_LEN + MPLS_ENTRY_LEN * shape.labels.size();
	std::vector<std::uint8_t> f(ip_off + ihl_bytes + udp_len, 0);

	// Ethernet header, then the label stack, bottom-of-stack on the last entry.
	std::memcpy(&f[0], shape.dst_mac, ETH_ADDR_LEN);
	std::memcpy(&f[ETH_ADDR_LEN], shape.src_mac, ETH_ADDR_LEN);
	store_be16(&f[ETH_TYPE_OFF], shape.labels.empty() ? ETH_TYPE_IPV4 : ETH_TYPE_MPLS);
	for (std::size_t i = 0; i < shape.labels.size(); i++) {
		std::uint32_t bos = i + 1 == shape.labels.size() ? MPLS_BOS : 0;
		store_be32(&f[ETH_HDR_LEN + MPLS_ENTRY_LEN * i],
			   (shape.labels[i] & MPLS_LABEL_MAX) << MPLS_LABEL_SHIFT | bos | shape.mpls_ttl);
	}

	// IPv4 header with its checksum.
	std::uint8_t *ip = &f[ip_off];
	ip[0] = static_cast<std::uint8_t>(IP_VERSION_IPV4 | ihl_bytes / IPV4_IHL_UNIT);
	ip[IPV4_TOS_OFF] = shape.tos;
	store_be16(ip + IPV4_TOTAL_LEN_OFF, static_cast<std::uint16_t>(ihl_bytes + udp_len));
	store_be16(ip + IPV4_ID_OFF, shape.ip_id);
	store_be16(ip + IPV4_FRAG_OFF, shape.frag);
	ip[IPV4_TTL_OFF] = shape.ip_ttl;
	ip[IPV4_PROTO_OFF] = shape.ip_proto;
	store_be32(ip + IPV4_SADDR_OFF, shape.src_ip);
	store_be32(ip + IPV4_DADDR_OFF, shape.dst_ip);
	if (!shape.ip_options.empty())
		std::memcpy(ip + IPV4_HDR_LEN, shape.ip_options.data(), shape.ip_options.size());
	store_be16(ip + IPV4_CSUM_OFF, probe_checksum({ip, ihl_bytes}));

	// UDP header and payload; the checksum covers the pseudo-header (RFC 768).
	std::uint8_t *udp = ip + ihl_bytes;
	store_be16(udp + UDP_SPORT_OFF, shape.src_port);
	store_be16(udp + UDP_DPORT_OFF, shape.dst_port);
	store_be16(udp + UDP_LEN_OFF, static_cast<std::uint16_t>(udp_len));
	if (!payload.empty())
		std::memcpy(udp + UDP_HDR_LEN, payload.data(), payload.size());
	if (shape.ip_proto == IP_PROTO_UDP && (shape.frag & (IPV4_FLAG_MF | IPV4_FRAG_OFFSET_MASK)) == 0) {
		std::uint32_t pseudo = (shape.src_ip >> 16) + (shape.src_ip & 0xffff) + (shape.dst_ip >> 16) +
				       (shape.dst_ip & 0xffff) + IP_PROTO_UDP + static_cast<std::uint32_t>(udp_len);
		std::uint16_t c = probe_checksum({udp, udp_len}, pseudo);
		store_be16(udp + UDP_CSUM_OFF, c == 0 ? 0xffff : c);  // 0 would mean "no checksum"
	}
	return f;
}

bool probe_frame_parse(std::span<const std::uint8_t> frame, frame_view *v)
{
	*v = frame_view{};
	if (frame.size() < ETH_HDR_LEN)
		return false;
	v->ethertype = load_be16(&frame[ETH_TYPE_OFF]);
	std::size_t off = ETH_HDR_LEN;
	if (v->ethertype == ETH_TYPE_MPLS) {
		for (;;) {
			if (frame.size() < off + MPLS_ENTRY_LEN)
				return false;
			std::uint32_t e = load_be32(&frame[off]);
			v->label_entries.push_back(e);
			off += MPLS_ENTRY_LEN;
			if (e & MPLS_BOS)
				break;
		}
	} else if (v->ethertype != ETH_TYPE_IPV4) {
		return false;
	}
	if (frame.size() < off + IPV4_HDR_LEN || (frame[off] & IP_VERSION_MASK) != IP_VERSION_IPV4)
		return false;
	const std::uint8_t *ip = &frame[off];
	std::size_t ihl_bytes = static_cast<std::size_t>(ip[0] & IPV4_IHL_MASK) * IPV4_IHL_UNIT;
	v->tos = ip[IPV4_TOS_OFF];
	v->frag = load_be16(ip + IPV4_FRAG_OFF);
	v->ttl = ip[IPV4_TTL_OFF];
	v->proto = ip[IPV4_PROTO_OFF];
	v->src_ip = load_be32(ip + IPV4_SADDR_OFF);
	v->dst_ip = load_be32(ip + IPV4_DADDR_OFF);
	if (v->proto != IP_PROTO_UDP || ihl_bytes < IPV4_HDR_LEN ||
	    frame.size() < off + ihl_bytes + UDP_HDR_LEN)
		return false;
	const std::uint8_t *udp = ip + ihl_bytes;
	v->src_port = load_be16(udp + UDP_SPORT_OFF);
	v->dst_port = load_be16(udp + UDP_DPORT_OFF);
	std::size_t udp_len = load_be16(udp + UDP_LEN_OFF);
	std::size_t avail = frame.size() - off - ihl_bytes;
	if (udp_len < UDP_HDR_LEN || udp_len > avail)
		return false;
	v->payload = frame.subspan(off + ihl_bytes + UDP_HDR_LEN, udp_len - UDP_HDR_LEN);
	return true;
}

bool probe_parse_mac(const char *text, std::uint8_t mac[ETH_ADDR_LEN])
{
	unsigned b[6];
	char tail;
	if (std::sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5],
			&tail) != 6 ||
	    std::strlen(text) != 17)
		return false;
	for (int i = 0; i < 6; i++)
		mac[i] = static_cast<std::uint8_t>(b[i]);
	return true;
}

// ---- the probe loop ----

bool probe_resolve(const char *text, in_addr *addr, std::string *name, std::string *err)
{
	if (inet_pton(AF_INET, text, addr) == 1) {
		name->clear();
		return true;
	}
	addrinfo hints{};
	hints.ai_family = AF_INET;
	hints.ai_socktype = SOCK_DGRAM;
	addrinfo *res = nullptr;
	if (int rc = getaddrinfo(text, nullptr, &hints, &res); rc != 0) {
		*err = std::string(text) + ": " + (rc == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(rc));
		return false;
	}
	sockaddr_in sin;
	std::memcpy(&sin, res->ai_addr, sizeof sin);  // AF_INET asked: ai_addr is a sockaddr_in
	freeaddrinfo(res);
	*addr = sin.sin_addr;
	*name = text;
	return true;
}

std::string probe_icmp_text(std::uint8_t type, std::uint8_t code, std::uint32_t info)
{
	// ICMP types and codes of RFC 792 and RFC 1812 section 5.2.7.1.
	constexpr std::uint8_t ICMP_TYPE_DEST_UNREACH = 3, ICMP_TYPE_TIME_EXCEEDED = 11, ICMP_TYPE_PARAM_PROBLEM = 12;
	constexpr std::uint8_t ICMP_CODE_FRAG_NEEDED = 4;
	static const char *const unreachable[] = {
		"Destination Net Unreachable",       "Destination Host Unreachable",
		"Destination Protocol Unreachable",  "Destination Port Unreachable",
		nullptr /* fragmentation needed: with the MTU, below */,
		"Source Route Failed",               "Destination Net Unknown",
		"Destination Host Unknown",          "Source Host Isolated",
		"Destination Net Prohibited",        "Destination Host Prohibited",
		"Destination Net Unreachable for Type of Service",
		"Destination Host Unreachable for Type of Service",
		"Packet filtered",                   "Precedence Violation",
		"Precedence Cutoff",
	};
	static_assert(std::size(unreachable) == 16);  // codes 0..15
	char buf[80];
	switch (type) {
	case ICMP_TYPE_DEST_UNREACH:
		if (code == ICMP_CODE_FRAG_NEEDED) {
			std::snprintf(buf, sizeof buf, "Frag needed and DF set (mtu = %u)", info);
			return buf;
		}
		if (code < std::size(unreachable))
			return unreachable[code];
		std::snprintf(buf, sizeof buf, "Dest Unreachable, Bad Code: %u", code);
		return buf;
	case ICMP_TYPE_TIME_EXCEEDED:
		if (code == 0)
			return "Time to live exceeded";
		if (code == 1)
			return "Frag reassembly time exceeded";
		std::snprintf(buf, sizeof buf, "Time exceeded, Bad Code: %u", code);
		return buf;
	case ICMP_TYPE_PARAM_PROBLEM:
		std::snprintf(buf, sizeof buf, "Parameter problem: pointer = %u", info);
		return buf;
	default:
		std::snprintf(buf, sizeof buf, "Bad ICMP type: %u", type);
		return buf;
	}
}

namespace {

constexpr int ERRQUEUE_READS_MAX = 64;  // errors read per call; the rest wait for the next

// Empties the error queue of `fd` unread (the errors of a probe no one waits
// for) and clears a pending socket error.
void discard_errors(int fd)
{
	std::uint8_t junk[64];
	for (int i = 0; i < ERRQUEUE_READS_MAX && recv(fd, junk, sizeof junk, MSG_ERRQUEUE | MSG_DONTWAIT) >= 0; i++) {
	}
	int e;
	socklen_t len = sizeof e;
	getsockopt(fd, SOL_SOCKET, SO_ERROR, &e, &len);
}

// Address the kernel would use as source towards `target` (route lookup by connect).
bool route_source(in_addr target, in_addr *src, std::string *err)
{
	unique_fd fd{socket(AF_INET, SOCK_DGRAM, 0)};
	sockaddr_in a{};
	a.sin_family = AF_INET;
	a.sin_port = htons(SBFD_PORT);
	a.sin_addr = target;
	if (fd.get() < 0 || connect(fd.get(), reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
		*err = errno_text("no route to the target", errno);
		return false;
	}
	socklen_t len = sizeof a;
	getsockname(fd.get(), reinterpret_cast<sockaddr *>(&a), &len);
	*src = a.sin_addr;
	return true;
}

// Next hop towards `target` on `ifname` from /proc/net/route (longest prefix):
// the gateway, or the target itself when it is on the link.
std::uint32_t next_hop(const std::string &ifname, std::uint32_t target_net)
{
	std::ifstream in("/proc/net/route");
	std::string line;
	std::getline(in, line);  // column titles
	int best_len = -1;
	std::uint32_t hop = target_net;
	while (std::getline(in, line)) {
		std::istringstream ls(line);
		std::string iface;
		unsigned dst, gw, flags, refcnt, use, metric, mask;
		ls >> iface >> std::hex >> dst >> gw >> flags >> std::dec >> refcnt >> use >> metric >>
			std::hex >> mask;
		if (!ls || iface != ifname || (target_net & mask) != dst)
			continue;
		int len = __builtin_popcount(mask);
		if (len > best_len) {
			best_len = len;
			hop = gw != 0 ? gw : target_net;
		}
	}
	return hop;
}

// The complete neighbour entry of `ip_net` on `ifname` in /proc/net/arp.
bool arp_lookup(const std::string &ifname, std::uint32_t ip_net, std::uint8_t mac[ETH_ADDR_LEN])
{
	std::ifstream in("/proc/net/arp");
	std::string line, want = ipv4_dotted(ip_net).text;
	std::getline(in, line);
	while (std::getline(in, line)) {
		std::istringstream ls(line);
		std::string ip, hwtype, flags, hw, mask, dev;
		ls >> ip >> hwtype >> flags >> hw >> mask >> dev;
		if (ip == want && dev == ifname && (std::stoul(flags, nullptr, 16) & 0x2) &&
		    probe_parse_mac(hw.c_str(), mac))
			return true;
	}
	return false;
}

struct prober {
	const ping_options &opt;
	std::FILE *out;
	ping_stats *st;
	unique_fd udp;
	unique_fd raw;
	sockaddr_in local{};
	sockaddr_ll ll{};
	frame_spec shape;
	std::uint8_t req[BFD_PKT_LEN]{};

	int setup(std::string *err);
	bool send_one(std::string *err);
	void receive(std::deque<std::pair<std::uint32_t, double>> *waiting);
	int receive_errors(std::deque<std::pair<std::uint32_t, double>> *waiting);
};

int prober::setup(std::string *err)
{
	probe_encode_request(opt.params, req);
	in_addr src{};
	if (opt.source)
		src = *opt.source;
	else if (!route_source(opt.target, &src, err))
		return PING_ERR_SETUP;

	// The UDP socket: its ephemeral port is where replies come back.
	udp = unique_fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
	if (udp.get() < 0) {
		*err = errno_text("socket", errno);
		return PING_ERR_SETUP;
	}
	// Without IP_RECVERR an unconnected UDP socket hears no ICMP error, and
	// a closed port would look like loss on the path.
	const int on = 1;
	if (setsockopt(udp.get(), IPPROTO_IP, IP_RECVERR, &on, sizeof on) != 0) {
		*err = errno_text("setsockopt(IP_RECVERR)", errno);
		return PING_ERR_SETUP;
	}
	local.sin_family = AF_INET;
	local.sin_addr = src;
	if (bind(udp.get(), reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
		*err = errno_text((std::string("bind ") + ipv4_dotted(src.s_addr).text).c_str(), errno);
		return PING_ERR_SETUP;
	}
	socklen_t len = sizeof local;
	getsockname(udp.get(), reinterpret_cast<sockaddr *>(&local), &len);
	if (opt.mpls_iface.empty())
		return PING_OK;

	// Labelled probes: a packet socket on the interface, and the next hop's MAC.
	unsigned ifindex = if_nametoindex(opt.mpls_iface.c_str());
	if (ifindex == 0) {
		*err = "no interface " + opt.mpls_iface;
		return PING_ERR_SETUP;
	}
	raw = unique_fd{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
	if (raw.get() < 0) {
		*err = errno_text("packet socket (needs CAP_NET_RAW)", errno);
		return PING_ERR_SETUP;
	}
	ifreq ifr{};
	std::snprintf(ifr.ifr_name, sizeof ifr.ifr_name, "%s", opt.mpls_iface.c_str());
	if (ioctl(raw.get(), SIOCGIFHWADDR, &ifr) != 0) {
		*err = errno_text("SIOCGIFHWADDR", errno);
		return PING_ERR_SETUP;
	}
	std::memcpy(shape.src_mac, ifr.ifr_hwaddr.sa_data, ETH_ADDR_LEN);
	if (opt.dst_mac) {
		std::memcpy(shape.dst_mac, opt.dst_mac->data(), ETH_ADDR_LEN);
	} else {
		// Resolve through the neighbour table; a plain probe, whose reply
		// is discarded, makes the kernel resolve it when it is not known.
		std::uint32_t hop = next_hop(opt.mpls_iface, opt.target.s_addr);
		if (!arp_lookup(opt.mpls_iface, hop, shape.dst_mac)) {
			sockaddr_in dst{};
			dst.sin_family = AF_INET;
			dst.sin_port = htons(SBFD_PORT);
			dst.sin_addr = opt.target;
			sendto(udp.get(), req, sizeof req, 0, reinterpret_cast<sockaddr *>(&dst), sizeof dst);
			bool found = false;
			for (int i = 0; i < 100 && !found; i++) {
				usleep(10000);
				found = arp_lookup(opt.mpls_iface, hop, shape.dst_mac);
			}
			if (!found) {
				*err = "cannot resolve the next hop " + std::string(ipv4_dotted(hop).text) + " on " + opt.mpls_iface +
				       " (give --dst-mac)";
				return PING_ERR_SETUP;
			}
			// Drop the priming probe's reply or error, if it came, so it is not matched.
			pollfd p{udp.get(), POLLIN, 0};
			if (poll(&p, 1, static_cast<int>(opt.timeout_s * 1000)) == 1) {
				discard_errors(udp.get());
				std::uint8_t junk[64];
				recv(udp.get(), junk, sizeof junk, MSG_DONTWAIT);
			}
		}
	}
	shape.labels = {0};
	shape.src_ip = ntohl(local.sin_addr.s_addr);
	shape.dst_ip = ntohl(opt.target.s_addr);
	shape.src_port = ntohs(local.sin_port);
	ll.sll_family = AF_PACKET;
	ll.sll_protocol = htons(ETH_TYPE_MPLS);
	ll.sll_ifindex = static_cast<int>(ifindex);
	ll.sll_halen = ETH_ADDR_LEN;
	std::memcpy(ll.sll_addr, shape.dst_mac, ETH_ADDR_LEN);
	return PING_OK;
}

bool prober::send_one(std::string *err)
{
	ssize_t n;
	if (raw.get() >= 0) {
		shape.ip_id = static_cast<std::uint16_t>(st->sent + 1);
		std::vector<std::uint8_t> f = probe_frame_build(shape, req);
		n = sendto(raw.get(), f.data(), f.size(), 0, reinterpret_cast<sockaddr *>(&ll), sizeof ll);
	} else {
		sockaddr_in dst{};
		dst.sin_family = AF_INET;
		dst.sin_port = htons(SBFD_PORT);
		dst.sin_addr = opt.target;
		n = sendto(udp.get(), req, sizeof req, 0, reinterpret_cast<sockaddr *>(&dst), sizeof dst);
	}
	if (n < 0) {
		*err = errno_text("sendto", errno);
		return false;
	}
	return true;
}

void prober::receive(std::deque<std::pair<std::uint32_t, double>> *waiting)
{
	std::uint8_t buf[1500];
	sockaddr_in from{};
	socklen_t flen = sizeof from;
	ssize_t n = recvfrom(udp.get(), buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from),
			     &flen);
	double now = mono_ms();
	if (n < 0)
		return;
	std::size_t len = static_cast<std::size_t>(n);
	bfd_ctrl_pkt pkt;
	// Anyone may send to our port: only the target's 7784 answers.
	if (from.sin_addr.s_addr != opt.target.s_addr || from.sin_port != htons(SBFD_PORT)) {
		st->wrong_source++;
		if (opt.quiet)
			return;
		if (probe_decode({buf, len}, &pkt))
			std::fprintf(out, "%s (wrong source)\n", probe_format_reply(pkt, len, from, 0, -1).c_str());
		else
			std::fprintf(out, "%zd bytes from %s:%u: (wrong source)\n", n,
				     ipv4_dotted(from.sin_addr.s_addr).text, ntohs(from.sin_port));
		return;
	}
	if (!probe_decode({buf, len}, &pkt)) {
		st->foreign++;
		if (!opt.quiet)
			std::fprintf(out, "%zd bytes from %s:%u: too short for a control packet\n", n,
				     ipv4_dotted(from.sin_addr.s_addr).text, ntohs(from.sin_port));
		return;
	}
	if (ntohl(pkt.your_disc) != opt.params.my_disc) {
		st->foreign++;
		if (!opt.quiet)
			std::fprintf(out, "%s (not for us)\n", probe_format_reply(pkt, len, from, 0, -1).c_str());
		return;
	}
	if (waiting->empty()) {
		st->late++;
		if (!opt.quiet)
			std::fprintf(out, "%s (late)\n", probe_format_reply(pkt, len, from, 0, -1).c_str());
		return;
	}
	auto [seq, t] = waiting->front();
	waiting->pop_front();
	double rtt = now - t;
	if (st->received == 0 || rtt < st->rtt_min_ms)
		st->rtt_min_ms = rtt;
	if (rtt > st->rtt_max_ms)
		st->rtt_max_ms = rtt;
	st->rtt_sum_ms += rtt;
	st->rtt_sum2_ms += rtt * rtt;
	st->received++;
	if (!opt.quiet)
		std::fprintf(out, "%s\n", probe_format_reply(pkt, len, from, seq, rtt).c_str());
}

// Reads the error queue: each ICMP error about a datagram to the target's
// port 7784 answers the oldest probe waiting, as a reply would, and is
// printed and counted. Returns the number of such errors read.
int prober::receive_errors(std::deque<std::pair<std::uint32_t, double>> *waiting)
{
	int found = 0;
	for (int i = 0; i < ERRQUEUE_READS_MAX; i++) {
		std::uint8_t data[64];  // the start of the probe the error quotes; unused
		alignas(cmsghdr) std::uint8_t control[256];
		sockaddr_in dst{};  // where the datagram the error is about went
		iovec iov{data, sizeof data};
		msghdr m{};
		m.msg_name = &dst;
		m.msg_namelen = sizeof dst;
		m.msg_iov = &iov;
		m.msg_iovlen = 1;
		m.msg_control = control;
		m.msg_controllen = sizeof control;
		if (recvmsg(udp.get(), &m, MSG_ERRQUEUE | MSG_DONTWAIT) < 0)
			break;
		sock_extended_err ee{};
		sockaddr_in offender{};  // who sent the ICMP error
		bool have = false;
		for (cmsghdr *c = CMSG_FIRSTHDR(&m); c != nullptr; c = CMSG_NXTHDR(&m, c)) {
			if (c->cmsg_level != IPPROTO_IP || c->cmsg_type != IP_RECVERR ||
			    c->cmsg_len < CMSG_LEN(sizeof ee + sizeof offender))
				continue;
			std::memcpy(&ee, CMSG_DATA(c), sizeof ee);
			std::memcpy(&offender, CMSG_DATA(c) + sizeof ee, sizeof offender);  // SO_EE_OFFENDER
			have = true;
		}
		// Local errors (a send refused) were reported by the send itself.
		if (!have || ee.ee_origin != SO_EE_ORIGIN_ICMP || dst.sin_addr.s_addr != opt.target.s_addr ||
		    dst.sin_port != htons(SBFD_PORT))
			continue;
		found++;
		st->errors++;
		const in_addr from = offender.sin_family == AF_INET ? offender.sin_addr : opt.target;
		const std::string what = probe_icmp_text(ee.ee_type, ee.ee_code, ee.ee_info);
		if (waiting->empty()) {
			if (!opt.quiet)
				std::fprintf(out, "From %s %s (late)\n", ipv4_dotted(from.s_addr).text, what.c_str());
			continue;
		}
		const std::uint32_t seq = waiting->front().first;
		waiting->pop_front();
		if (!opt.quiet)
			std::fprintf(out, "From %s seq=%u %s\n", ipv4_dotted(from.s_addr).text, seq, what.c_str());
	}
	// An error that found the queue full is left pending alone; clear it, or
	// poll would go on reporting it and the next send would fail on it.
	int e;
	socklen_t len = sizeof e;
	getsockopt(udp.get(), SOL_SOCKET, SO_ERROR, &e, &len);
	return found;
}

}  // namespace

int ping_run(const ping_options &opt, std::FILE *out, ping_stats *stats, std::string *err,
	     const volatile std::sig_atomic_t *stop)
{
	*stats = ping_stats{};
	prober p{opt, out, stats, {}, {}, {}, {}, {}, {}};
	if (int rc = p.setup(err); rc != PING_OK)
		return rc;

	// A name is shown with its address, as ping shows it: "host (192.0.2.1)".
	const std::string target_text = opt.target_name.empty()
						? ipv4_dotted(opt.target.s_addr).text
						: opt.target_name + " (" + ipv4_dotted(opt.target.s_addr).text + ")";
	std::fprintf(out, "SBFD-PING %s:%u from %s:%u%s%s: my_disc=%u your_disc=%u state=%s\n",
		     target_text.c_str(), SBFD_PORT, ipv4_dotted(p.local.sin_addr.s_addr).text,
		     ntohs(p.local.sin_port), opt.mpls_iface.empty() ? "" : " label 0 via ",
		     opt.mpls_iface.c_str(), opt.params.my_disc, opt.params.your_disc,
		     bfd_state_name(opt.params.state));
	std::fflush(out);

	// One pass per event: expire old probes, send when due, wait for a reply,
	// an error or the next deadline. With a deadline (ping's -w) the count is
	// of replies: probes go on until that many came, the deadline passed or
	// an ICMP error came; without one, the count is of probes, and the run
	// ends when the last has been answered or written off.
	std::deque<std::pair<std::uint32_t, double>> waiting;  // (seq, send time), oldest first
	const double start = mono_ms();
	const double interval_ms = opt.interval_s * 1e3, timeout_ms = opt.timeout_s * 1e3;
	const bool has_deadline = opt.deadline_s > 0;
	const double end = has_deadline ? start + opt.deadline_s * 1e3 : HUGE_VAL;
	auto deadline_done = [&] {
		return has_deadline && (stats->errors > 0 || (opt.count != 0 && stats->received >= opt.count));
	};
	double next_send = start;
	while (!(stop && *stop) && !deadline_done()) {
		double now = mono_ms();
		if (now >= end)
			break;
		while (!waiting.empty() && now - waiting.front().second >= timeout_ms)
			waiting.pop_front();
		bool more = has_deadline || opt.count == 0 || stats->sent < opt.count;
		if (more && now >= next_send) {
			// An error still queued is about an earlier probe; it would
			// also fail this send.
			p.receive_errors(&waiting);
			if (deadline_done())
				break;
			std::uint32_t seq = static_cast<std::uint32_t>(stats->sent + 1);
			bool sent = p.send_one(err);
			if (!sent && p.receive_errors(&waiting) > 0)
				sent = p.send_one(err);  // failed on an error that came just now
			if (!sent) {
				if (stats->sent == 0)
					return PING_ERR_SETUP;
				std::fprintf(out, "seq=%u: %s\n", seq, err->c_str());
			}
			stats->sent++;
			waiting.emplace_back(seq, now);
			next_send += interval_ms;
			more = has_deadline || opt.count == 0 || stats->sent < opt.count;
		}
		if (!more && waiting.empty())
			break;
		double wake = more ? next_send : now + timeout_ms;
		if (!waiting.empty())
			wake = std::min(wake, waiting.front().second + timeout_ms);
		wake = std::min(wake, end);
		double wait = std::max(0.0, wake - mono_ms());
		timespec ts{static_cast<time_t>(wait / 1e3), static_cast<long>(std::fmod(wait, 1e3) * 1e6)};
		pollfd pfd{p.udp.get(), POLLIN, 0};
		if (ppoll(&pfd, 1, &ts, nullptr) == 1) {
			if (pfd.revents & POLLERR)  // read first: a pending error fails the next recv too
				p.receive_errors(&waiting);
			if (pfd.revents & POLLIN)
				p.receive(&waiting);
		}
	}
	stats->elapsed_ms = mono_ms() - start;
	std::fflush(out);
	return PING_OK;
}

void ping_print_summary(const ping_options &opt, const ping_stats &st, std::FILE *out)
{
	double loss = st.sent ? 100.0 * static_cast<double>(st.sent - st.received) / static_cast<double>(st.sent) : 0;
	std::fprintf(out, "\n--- %s sbfd-ping statistics ---\n",
		     opt.target_name.empty() ? ipv4_dotted(opt.target.s_addr).text : opt.target_name.c_str());
	std::fprintf(out, "%llu packets transmitted, %llu received", static_cast<unsigned long long>(st.sent),
		     static_cast<unsigned long long>(st.received));
	if (st.errors)
		std::fprintf(out, ", +%llu errors", static_cast<unsigned long long>(st.errors));
	std::fprintf(out, ", %g%% packet loss, time %.0fms", loss, st.elapsed_ms);
	if (st.late)
		std::fprintf(out, ", %llu late", static_cast<unsigned long long>(st.late));
	if (st.foreign)
		std::fprintf(out, ", %llu other", static_cast<unsigned long long>(st.foreign));
	if (st.wrong_source)
		std::fprintf(out, ", %llu from a wrong source", static_cast<unsigned long long>(st.wrong_source));
	std::fprintf(out, "\n");
	if (st.received) {
		double n = static_cast<double>(st.received);
		double avg = st.rtt_sum_ms / n;
		double mdev = std::sqrt(std::max(0.0, st.rtt_sum2_ms / n - avg * avg));
		std::fprintf(out, "rtt min/avg/max/mdev = %.3f/%.3f/%.3f/%.3f ms\n", st.rtt_min_ms, avg,
			     st.rtt_max_ms, mdev);
	}
	std::fflush(out);
}
