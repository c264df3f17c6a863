// trace.h -- the daemon's one way to emit a trace record.
//
// TRACE(level, fmt, args...) follows the record protocol of every call site:
// the handle is tested before any argument is evaluated (so no errno read,
// address text or ctime happens while tracing is off); each call site has
// its own static message id, zero until the site's first record describes it
// (file, line, argument types, format text); later records carry only the
// id and the values. Argument types are taken from the C++ types of the
// values, at compile time: pass a value of the width and signedness the
// trace should hold, casting at the call site where the held value differs.
//
// TRACE is a macro, not a function, for the two things only a macro gives:
// an argument list left unevaluated when tracing is off, and one static id per
// call site.
#pragma once

#include <cstdint>
#include <type_traits>

#include "brevlog.h"

extern bl_log *bl_handle;  // process-wide trace handle; null until start-up creates it

// Trace levels of the daemon; the level is the kind of record.
constexpr int TRACE_INIT = 0;   // start-up milestones ("INIT:")
constexpr int TRACE_ERROR = 1;  // errors, and the note of the ignored signal
constexpr int TRACE_EVENT = 2;  // readiness of a socket event ("EVENT:")
constexpr int TRACE_RX = 3;     // receive detail ("RX:")
constexpr int TRACE_TX = 4;     // transmit detail ("TX:")
constexpr int TRACE_STATS = 5;  // statistics reports and table dumps
constexpr int TRACE_FUNC = 6;   // entry into a set-up function (its name alone)

// The file name and per-level ring sizes (KiB) of the daemon's trace file.
constexpr const char *TRACE_FILE_NAME = "orvalindwarden.bl";
constexpr const char *TRACE_LEVEL_SIZES = "64, 512, 1024, 1024, 1024, 512, 1024";

namespace trace_detail {

template <typename T> struct always_false : std::false_type {};

// The stored value of a traced C++ value: same width and signedness.
template <typename T> auto stored(const T &v)
{
	using U = std::remove_cv_t<T>;
	if constexpr (std::is_same_v<U, bool>)
		return v;
	else if constexpr (std::is_same_v<U, char *> || std::is_same_v<U, const char *>)
		return static_cast<const char *>(v);
	else if constexpr (std::is_array_v<U> &&
			   std::is_same_v<std::remove_cv_t<std::remove_extent_t<U>>, char>)
		return static_cast<const char *>(v);
	else if constexpr (std::is_integral_v<U> && std::is_unsigned_v<U> && sizeof(U) == 1)
		return static_cast<std::uint8_t>(v);
	else if constexpr (std::is_integral_v<U> && std::is_unsigned_v<U> && sizeof(U) == 2)
		return static_cast<std::uint16_t>(v);
	else if constexpr (std::is_integral_v<U> && std::is_unsigned_v<U> && sizeof(U) == 4)
		return static_cast<std::uint32_t>(v);
	else if constexpr (std::is_integral_v<U> && std::is_unsigned_v<U> && sizeof(U) == 8)
		return static_cast<std::uint64_t>(v);
	else if constexpr (std::is_integral_v<U> && std::is_signed_v<U> && sizeof(U) == 4)
		return static_cast<std::int32_t>(v);
	else if constexpr (std::is_integral_v<U> && std::is_signed_v<U> && sizeof(U) == 8)
		return static_cast<std::int64_t>(v);
	else
		static_assert(always_false<T>::value,
			      "trace argument: use bool, a text, u8/u16/u32/u64, s32 or s64");
}

inline void put_fmt(void *d, const bool *v) { bl_put_fmt_bool(bl_handle, d, v); }
inline void put_fmt(void *d, const char *const *v) { bl_put_fmt_charp(bl_handle, d, v); }
inline void put_fmt(void *d, const std::int32_t *v) { bl_put_fmt_s32(bl_handle, d, v); }
inline void put_fmt(void *d, const std::uint16_t *v) { bl_put_fmt_u16(bl_handle, d, v); }
inline void put_fmt(void *d, const std::uint32_t *v) { bl_put_fmt_u32(bl_handle, d, v); }
inline void put_fmt(void *d, const std::uint64_t *v) { bl_put_fmt_u64(bl_handle, d, v); }
inline void put_fmt(void *d, const std::uint8_t *v) { bl_put_fmt_u8(bl_handle, d, v); }
inline void put_fmt(void *d, const std::int64_t *v) { bl_put_fmt_s64(bl_handle, d, v); }

inline void put_val(int l, const bool *v) { bl_put_type_bool(bl_handle, l, v); }
inline void put_val(int l, const char *const *v) { bl_put_type_charp(bl_handle, l, v); }
inline void put_val(int l, const std::int32_t *v) { bl_put_type_s32(bl_handle, l, v); }
inline void put_val(int l, const std::uint16_t *v) { bl_put_type_u16(bl_handle, l, v); }
inline void put_val(int l, const std::uint32_t *v) { bl_put_type_u32(bl_handle, l, v); }
inline void put_val(int l, const std::uint64_t *v) { bl_put_type_u64(bl_handle, l, v); }
inline void put_val(int l, const std::uint8_t *v) { bl_put_type_u8(bl_handle, l, v); }
inline void put_val(int l, const std::int64_t *v) { bl_put_type_s64(bl_handle, l, v); }

// Descriptor block on the caller's stack; bl_msgDescSize() must fit.
constexpr int DESC_BLOCK_SIZE = 512;

// One record of a call site whose id is `id`. Arguments are already
// evaluated (the handle was tested by the macro).
template <typename... A>
void emit(std::uint32_t &id, int level, const char *file, int line, const char *fmt,
	  const A &...args)
{
	std::uint64_t slot = 0;
	if (id != 0) [[likely]] {
		bl_startMsg(bl_handle, &slot, id, level);
		(put_val(level, &args), ...);
		bl_endMsg(bl_handle, level);
		return;
	}
	alignas(16) unsigned char desc[DESC_BLOCK_SIZE];
	if (bl_msgDescSize() > DESC_BLOCK_SIZE)
		return;  // a library that needs more than we reserve: trace nothing
	bl_msgDescInit(bl_handle, desc, &id, file, line);
	bl_startMsg(bl_handle, &slot, id, level);
	((put_fmt(desc, &args), put_val(level, &args)), ...);
	bl_addMsg(desc, fmt);
	bl_finish(desc);
	bl_endMsg(bl_handle, level);
}

template <typename... A>
void record(std::uint32_t &id, int level, const char *file, int line, const char *fmt,
	    const A &...args)
{
	emit(id, level, file, line, fmt, stored(args)...);
}

}  // namespace trace_detail

#define TRACE(level, fmt, ...)                                                              \
	do {                                                                                \
		if (bl_isInitialized(bl_handle)) {                                          \
			static std::uint32_t trace_msg_id_;                                 \
			trace_detail::record(trace_msg_id_, (level), __FILE__, __LINE__,    \
					     fmt __VA_OPT__(, ) __VA_ARGS__);               \
		}                                                                           \
	} while (0)
