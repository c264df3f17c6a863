// fuzz_shmstat.cpp -- libFuzzer target of orvalindwarden-stat's library:
// the input is the content of a shared session store (cut or zero-extended
// to the store's 69720 bytes; bytes beyond that form the earlier snapshot
// for the rate columns). The plausibility rules and all three renderings
// must cope with any content; the renderings with any content that passes
// the rules, as the tool renders nothing else.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "shmstat.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	auto snap = std::make_unique<shmstat_snapshot>();
	auto prev = std::make_unique<shmstat_snapshot>();
	std::memset(snap.get(), 0, sizeof *snap);
	std::memset(prev.get(), 0, sizeof *prev);
	const std::size_t first = std::min(size, SHM_SIZE);
	std::memcpy(&snap->store, data, first);
	snap->taken = {1700000000, 500000000};
	snap->stable = true;
	const bool with_prev = size > SHM_SIZE;
	if (with_prev)
		std::memcpy(&prev->store, data + SHM_SIZE, std::min(size - SHM_SIZE, SHM_SIZE));
	prev->taken = {1699999999, 0};
	prev->stable = true;

	// orvalindwarden-stat renders only what passes the rules (shmstat_read).
	std::string why;
	shmstat_plausible(snap->store, false, &why);
	if (!shmstat_plausible(snap->store, true, &why))
		return 0;
	if (with_prev && !shmstat_plausible(prev->store, true, &why))
		return 0;
	std::size_t n = shmstat_format_text(*snap, "orvalindwarden-fuzz", with_prev ? prev.get() : nullptr).size();
	n += shmstat_format_json(*snap, "orvalindwarden-fuzz").size();
	n += shmstat_format_prometheus(*snap).size();
	return n == 0 ? 1 : 0;
}
