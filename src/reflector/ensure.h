// ensure.h -- always-on consistency assertion of the daemon and its tools.
//
// ENSURE is never compiled out (NDEBUG has no effect on it): a broken
// invariant of our own code must stop the process, in release builds too.
// It prints the expression's text, file, line and function on standard error
// and aborts. Input that a peer controls never reaches an ENSURE.
#pragma once

#include <cstdio>
#include <cstdlib>

[[noreturn]] inline void ensure_failed(const char *expr, const char *file, int line,
                                       const char *func)
{
	std::fprintf(stderr, "Assertion failed: %s, file %s, line %d, function %s\n", expr,
		     file, line, func);
	std::fflush(stderr);
	std::abort();
}

#define ENSURE(expr) \
	((expr) ? static_cast<void>(0) : ensure_failed(#expr, __FILE__, __LINE__, __func__))
