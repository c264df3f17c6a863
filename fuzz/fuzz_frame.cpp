// fuzz_frame.cpp -- libFuzzer target of the frame path: every input is one
// received Ethernet frame, handed to rx_handle_frame exactly as
// rx_data_ready hands it over after recvfrom (the buffer zeroed beyond the
// frame up to the furthest offset decapsulation reads).
//
// Beyond "no crash, no sanitizer report, no table assertion", each frame
// must count exactly once: either rx_valid_pkts or rx_drops moves by one,
// never both, never neither; and a valid request is answered or its send
// failure counted.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_env.h"

namespace {
reflector_vrf *vrf;
std::vector<std::uint8_t> buf(RX_BUF_LEN);
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
	vrf = fuzz_env::setup();
	return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size == 0 || size > RX_BUF_LEN)
		return -1;  // recvfrom never hands over an empty or oversized frame
	std::memset(buf.data(), 0, RX_READ_LIMIT);  // rx_handle_frame's REQUIRES: zeros up to here
	std::memcpy(buf.data(), data, size);
	const reflector_shm &shm = *vrf->shm;
	const std::uint64_t valid_before = shm.rx_valid_pkts, drops_before = shm.rx_drops;
	const std::uint64_t sends_before = shm.tx_sends;
	const std::uint32_t fails_before = shm.sendto_fail;
	if (rx_handle_frame(vrf, buf.data(), static_cast<std::int32_t>(size)) != RX_FRAME_DONE)
		__builtin_trap();  // a datagram socket never sends part of a reply
	const std::uint64_t valid = shm.rx_valid_pkts - valid_before;
	const std::uint64_t drops = shm.rx_drops - drops_before;
	if (valid + drops != 1)
		__builtin_trap();
	if (valid == 1 && shm.tx_sends == sends_before && shm.sendto_fail == fails_before)
		__builtin_trap();
	return 0;
}
