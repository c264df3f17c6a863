// fuzz_blreader.cpp -- libFuzzer target of the trace reader: every input is
// a whole trace file image. The reader must reject it with a message or
// render every record it accepts, without reading outside the image.
#include <cstdint>
#include <vector>

#include "blreader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	blr_file f;
	if (!blr_attach(f, {data, size}, "fuzz").empty())
		return 0;
	std::vector<blr_record> recs;
	blr_collect(f, ~0u, 0, recs);
	blr_sort(recs);
	std::size_t total = 0;
	for (const auto &r : recs)
		total += blr_render(f, r).size();
	return total == static_cast<std::size_t>(-1) ? 1 : 0;
}
