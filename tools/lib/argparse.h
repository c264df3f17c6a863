// argparse.h -- the command-line values of the operator tools: strict
// decimal numbers within a range, and the wording of a rejected value.
#pragma once

#include <cstdint>
#include <string>

// Parses a decimal number in [lo, hi] (no sign, no blanks, no trailing text).
// Returns false, with a message in *err, otherwise.
bool arg_parse_u32(const char *text, std::uint32_t lo, std::uint32_t hi, std::uint32_t *out,
		   std::string *err);

// "'TEXT'WHY": the message of a rejected value (a null `text` shows as '').
std::string arg_rejected(const char *text, const char *why);
