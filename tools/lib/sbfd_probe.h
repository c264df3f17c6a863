// sbfd_probe.h -- the initiator side of S-BFD for operators and tests: build
// and decode BFD control packets (RFC 5880 section 4.1), build and parse the
// Ethernet frames that carry them (plain IPv4/UDP, or under MPLS labels as
// labelled probes arrive), and run a ping-like probe loop against a reflector
// (RFC 7880 section 7, RFC 7881).
//
// Frame built by probe_frame_build: the frame of wire.h, with any number of
// labels (S set on the last; EtherType 0x8847 when there are labels, else
// 0x0800) and a UDP checksum computed over the pseudo-header (0 when the
// datagram is a fragment).
//
// Matching replies to probes: BFD has no sequence number, so every probe of a
// run carries the same My Discriminator (the reflector then keeps one session
// for us, as it would for a real initiator) and a reply whose Your
// Discriminator is ours is matched to the oldest probe still waiting. A probe
// that waited longer than the timeout is written off; a reply that comes
// after all probes were answered or written off is reported as late and is
// not counted. Only a datagram from the target's address and port 7784 can
// be a reply (RFC 7881 section 3: replies leave the reflector from 7784):
// one from anywhere else, whatever it holds, is reported as from a wrong
// source and counted apart, so that a forged reply never counts.
//
// ICMP errors: the UDP socket asks for them (IP_RECVERR) and reads them from
// its error queue. An error about a datagram sent to the target's port 7784
// (a port unreachable when no reflector listens, a host unreachable when the
// next hop does not answer ARP) is matched, like a reply, to the oldest probe
// still waiting: that probe is reported with the error and counted in
// errors, not as silently lost. An error that finds no probe waiting is
// reported as late and still counted.
//
// Deadline (-w, as in ping): the run ends when the deadline passes, whatever
// was sent; with a count, probes go on until that many replies came, and
// the first ICMP error ends the run too.
#pragma once

#include <netinet/in.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "wire.h"

// ---- control packets ----

// Fields of one request, in host order.
struct probe_params {
	std::uint32_t my_disc = 0;            // our discriminator, nonzero
	std::uint32_t your_disc = 0;          // the reflector's discriminator
	std::uint8_t state = BFD_STATE_DOWN;  // Down or Up (the reflector rejects the others)
	std::uint8_t multiplier = 3;          // Detect Mult, nonzero
	std::uint32_t min_tx_us = 1000000;    // Desired Min TX Interval, us
	std::uint32_t min_rx_us = 0;          // Required Min RX Interval, us
	std::uint32_t min_echo_rx_us = 0;     // Required Min Echo RX Interval, us
	bool poll = false;                    // P bit: ask for a reply with F set
	std::uint8_t diag = 0;                // Diag
};

// Encodes the request of `p` as the 24 wire bytes: version 1, D set, Length 24.
void probe_encode_request(const probe_params &p, std::uint8_t out[BFD_PKT_LEN]);

// Decodes the first 24 bytes of `buf` into `pkt` (fields stay in network
// order, as in bfd_ctrl_pkt). Returns false when `buf` is shorter than 24.
bool probe_decode(std::span<const std::uint8_t> buf, bfd_ctrl_pkt *pkt);

// The set flag letters of byte 1 in order P F C A D M ("-" when none).
std::string probe_flags_text(std::uint8_t flags);

// One line describing a reply: source, every field, and the round-trip time
// (omitted when rtt_ms is negative). No trailing newline.
std::string probe_format_reply(const bfd_ctrl_pkt &pkt, std::size_t len, const sockaddr_in &from,
			       std::uint32_t seq, double rtt_ms);

// ---- frames (offsets and values in wire.h) ----

// What probe_frame_build writes; addresses and ports in host order.
struct frame_spec {
	std::uint8_t dst_mac[ETH_ADDR_LEN] = {};
	std::uint8_t src_mac[ETH_ADDR_LEN] = {};
	std::vector<std::uint32_t> labels;  // label values, outermost first; empty: plain IPv4
	std::uint8_t mpls_ttl = 64;
	std::uint8_t tos = 0;
	std::uint8_t ip_ttl = 64;
	std::uint8_t ip_proto = IP_PROTO_UDP;
	std::uint16_t ip_id = 0;
	std::uint16_t frag = 0;               // flags and fragment offset field (0x2000: MF)
	std::vector<std::uint8_t> ip_options; // multiple of 4 bytes, at most 40
	std::uint32_t src_ip = 0;
	std::uint32_t dst_ip = 0;
	std::uint16_t src_port = 0;
	std::uint16_t dst_port = SBFD_PORT;
};

// Builds the frame of `shape` around `payload` (the UDP payload; with another
// ip_proto the 8 "UDP" bytes still precede it, as the port fields of TCP do).
std::vector<std::uint8_t> probe_frame_build(const frame_spec &shape,
					    std::span<const std::uint8_t> payload);

// A parsed Ethernet/[MPLS]/IPv4/UDP frame; addresses and ports in host order.
struct frame_view {
	std::uint16_t ethertype = 0;
	std::vector<std::uint32_t> label_entries;  // whole 32-bit entries
	std::uint8_t tos = 0;
	std::uint8_t ttl = 0;
	std::uint8_t proto = 0;
	std::uint16_t frag = 0;
	std::uint32_t src_ip = 0;
	std::uint32_t dst_ip = 0;
	std::uint16_t src_port = 0;
	std::uint16_t dst_port = 0;
	std::span<const std::uint8_t> payload;  // UDP payload, bounded by the UDP length
};

// Parses `frame`. Returns false when it is not IPv4 (directly or under
// labels), is truncated, or is not UDP.
bool probe_frame_parse(std::span<const std::uint8_t> frame, frame_view *view);

// Internet checksum (RFC 1071) of `data`, added to `sum` before folding.
std::uint16_t probe_checksum(std::span<const std::uint8_t> data, std::uint32_t sum = 0);

// Parses "aa:bb:cc:dd:ee:ff". Returns false on anything else.
bool probe_parse_mac(const char *text, std::uint8_t mac[ETH_ADDR_LEN]);

// ---- the probe loop ----

// Resolves `text`, an IPv4 address or a host name (getaddrinfo, AF_INET:
// the first address), into *addr. *name is set to `text` when it was a name
// and cleared when it was an address. Returns false, with the resolver's
// message in *err, when the name has no IPv4 address.
bool probe_resolve(const char *text, in_addr *addr, std::string *name, std::string *err);

// The words of ICMP error `type`/`code` as ping prints them ("Destination
// Port Unreachable"); `info` is the MTU of "fragmentation needed" or the
// pointer of a parameter problem.
std::string probe_icmp_text(std::uint8_t type, std::uint8_t code, std::uint32_t info);

struct ping_options {
	in_addr target{};                  // reflector address
	std::string target_name{};         // the host name resolved into target; empty: given as an address
	std::optional<in_addr> source;     // source address; default: the route's
	std::uint64_t count = 0;           // probes to send; 0: until stopped
	double interval_s = 1.0;           // between probes
	double timeout_s = 1.0;            // a probe unanswered this long is lost
	double deadline_s = 0;             // the run ends this long after it began; 0: no deadline
	probe_params params;
	bool quiet = false;                // summary only
	std::string mpls_iface;            // nonempty: raw frames under label 0 on it
	std::optional<std::array<std::uint8_t, ETH_ADDR_LEN>> dst_mac;  // next hop for mpls_iface
};

struct ping_stats {
	std::uint64_t sent = 0;
	std::uint64_t received = 0;   // replies matched to a probe
	std::uint64_t late = 0;       // replies with our discriminator and no probe waiting
	std::uint64_t foreign = 0;    // replies for another discriminator, or malformed
	std::uint64_t wrong_source = 0;  // datagrams not from the target's address and port 7784
	std::uint64_t errors = 0;     // ICMP errors about our probes (each also a lost probe)
	double rtt_min_ms = 0, rtt_max_ms = 0, rtt_sum_ms = 0, rtt_sum2_ms = 0;
	double elapsed_ms = 0;
};

constexpr int PING_OK = 0;
constexpr int PING_ERR_SETUP = 2;  // a socket, address or interface problem (message in err)

// Runs probes as `opt` says, printing each reply and each ICMP error to
// `out` (unless quiet); stops early when *stop becomes nonzero. Returns
// PING_OK after the run (the caller judges the counts in *stats), or
// PING_ERR_SETUP with a message in *err when nothing could be sent.
int ping_run(const ping_options &opt, std::FILE *out, ping_stats *stats, std::string *err,
	     const volatile std::sig_atomic_t *stop);

// Writes the summary block (counts, "+N errors" when there were any, loss,
// rtt min/avg/max/mdev) to `out`.
void ping_print_summary(const ping_options &opt, const ping_stats &stats, std::FILE *out);
