// fuzz_runstate.cpp -- libFuzzer target of the run-state file's parser, the
// tools' reader of a file anyone who can write its directory may have
// written: the input is the file's text. The parser must read no byte
// outside it; what it accepts must hold values the format allows and come
// back byte for byte when written again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "runstate.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	run_state s{};
	if (!run_state_parse({reinterpret_cast<const char *>(data), size}, &s))
		return 0;
	if (s.pid <= 0 || s.since_sec < 0 || s.since_nsec < 0 || s.since_nsec > 999999999 || s.started_sec < 0 ||
	    s.started_nsec < 0 || s.started_nsec > 999999999)
		std::abort();
	char text[RUN_STATE_TEXT_MAX + 1];
	const std::size_t n = run_state_format(s, text, sizeof text);
	if (n != size || std::memcmp(text, data, n) != 0)
		std::abort();
	return 0;
}
