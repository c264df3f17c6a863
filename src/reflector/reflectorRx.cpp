// reflectorRx.cpp -- receive path: read frames from the packet sockets,
// validate each one and answer the valid ones at once; the session table,
// the statistics report and the netlink control channel.
//
// Placeholder bodies until the packet path lands.
#include "reflector.h"

bool sbfd_packet_valid(const bfd_ctrl_pkt *, std::int64_t, sockaddr_in, reflector_vrf *) { return false; }
void get_tx_data(bfd_ctrl_pkt *) {}
std::uint32_t hashmix(std::uint32_t, std::uint32_t, std::int32_t) { return 0; }
std::uint32_t get_session_hash(std::uint32_t, std::uint32_t) { return 0; }
session_node *get_session(reflector_vrf *, std::uint32_t, std::uint32_t) { return nullptr; }
void session_sanity_check(reflector_vrf *) {}
void dump_hash_tbl(reflector_vrf *) {}
void session_cache_insert_by_time(reflector_vrf *, session_node *) {}
int session_table_setup(reflector_vrf *) { return 0; }
void reflector_cache_reinit(reflector_vrf *) {}
void maybe_dump_stats(reflector_vrf *) {}
void dump_session(session_node *) {}
void rx_data_ready(int, short, void *) {}
void rx_netlink_ready(int, short, void *) {}
