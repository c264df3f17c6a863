// argparse.cpp -- strict decimal numbers of the operator tools' command lines.
#include "argparse.h"

#include <cerrno>
#include <cstdlib>

std::string arg_rejected(const char *text, const char *why)
{
	// Built by appending: an insertion at the front of a temporary string
	// trips a false -Wrestrict of GCC 12 at -O3.
	std::string m = "'";
	m.append(text != nullptr ? text : "").append("'").append(why);
	return m;
}

bool arg_parse_u32(const char *text, std::uint32_t lo, std::uint32_t hi, std::uint32_t *out,
		   std::string *err)
{
	std::string range = " (expected " + std::to_string(lo) + ".." + std::to_string(hi) + ")";
	if (text == nullptr || *text < '0' || *text > '9') {
		*err = arg_rejected(text, " is not a number") + range;
		return false;
	}
	errno = 0;
	char *end = nullptr;
	unsigned long long v = std::strtoull(text, &end, 10);
	if (*end != '\0') {
		*err = arg_rejected(text, " is not a number") + range;
		return false;
	}
	if (errno == ERANGE || v < lo || v > hi) {
		*err = arg_rejected(text, " is out of range") + range;
		return false;
	}
	*out = static_cast<std::uint32_t>(v);
	return true;
}
