// fuzz_shmstat.cpp -- libFuzzer target of orvalindwarden-stat's library:
// the input is the content of a shared session store (cut or zero-extended
// to the store's 69720 bytes; bytes beyond that form the earlier snapshot
// for the rate columns). The plausibility rules and all three renderings
// must cope with any content; the renderings with any content that passes
// the rules, as the tool renders nothing else. The same bytes are also the
// text of a --delta history file (parsed strictly; what parses must write
// back the same and compare with the store) and of a /proc/PID/maps file.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "shmhist.h"
#include "shmstat.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	const std::string_view text(reinterpret_cast<const char *>(data), size);
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

	shmstat_maps_hold(text, "/dev/shm/orvalindwarden-fuzz", 4242);
	shmhist hist;
	std::string why;
	const bool is_history = shmhist_parse(text, &hist, &why);
	if (is_history) {
		// Strict: one spelling per history, so what parses writes back as it was read.
		const std::string again = shmhist_format(hist);
		shmhist back;
		if (again != text || !shmhist_parse(again, &back, &why))
			std::abort();
	}

	// orvalindwarden-stat renders only what passes the rules (shmstat_read).
	shmstat_plausible(snap->store, false, &why);
	if (!shmstat_plausible(snap->store, true, &why))
		return 0;
	if (with_prev && !shmstat_plausible(prev->store, true, &why))
		return 0;
	shmstat_view view;
	view.silent_only = size % 2 == 1;
	view.version = "fuzz";
	if (size % 3 == 0) {
		view.daemon.pid = 4242;
		view.daemon.config_known = true;
		view.daemon.config = {snap->store.sessions[0].discriminator, snap->store.sessions[0].source_ip,
				      snap->store.sessions[0].desired_min_tx, size % 5 == 0, snap->store.sessions[0].last_rx,
				      snap->store.sessions[0].last_tx};
	}
	std::size_t n = shmstat_format_text(*snap, "orvalindwarden-fuzz", with_prev ? prev.get() : nullptr, view).size();
	n += shmstat_format_json(*snap, "orvalindwarden-fuzz", view).size();
	n += shmstat_format_prometheus(*snap, "orvalindwarden-fuzz", view).size();
	// Changes since the history the input holds, else since the earlier snapshot.
	const shmhist base = is_history ? hist : shmhist_of(*prev, "orvalindwarden-fuzz");
	const shmhist_delta d = shmhist_compare(&base, *snap, "orvalindwarden-fuzz");
	n += shmstat_format_delta_text(d, *snap, "orvalindwarden-fuzz", view).size();
	n += shmstat_format_delta_json(d, *snap, "orvalindwarden-fuzz", view).size();
	return n == 0 ? 1 : 0;
}
