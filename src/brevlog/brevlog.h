// brevlog.h -- the tracing library: typed, per-level trace records written
// into a memory-mapped file, so that every record survives a crash of the
// writer a moment later.
//
// A program describes each of its call sites once (file, line, format text,
// argument types) and afterwards emits only the message id, a time stamp and
// the typed values. `blcat` (blreader.h) renders the records with printf
// semantics.
//
// Threading: one writing thread per handle, plus signal handlers running on
// that thread. A record opened by a signal handler while the interrupted flow
// has a record open (at the same level or another) is kept apart from it:
// open records form a stack, values go to the innermost open record, and a
// finished record is committed to its ring by an atomic reservation.
//
// File format (all integers in host byte order, little-endian on every
// supported target; offsets in bytes):
//
//   file        := header desc_area ring[0] .. ring[nlevels-1]
//   header      (BL_HEADER_SIZE = 4096 bytes)
//     0   u8[8]  magic        "BREVLOG\n"
//     8   u32    version      BL_VERSION
//     12  u32    header_size  4096
//     16  u32    nlevels      1 .. BL_MAX_LEVELS
//     20  u32    pid          process id of the writer
//     24  u64    desc_off     offset of desc_area (= 4096)
//     32  u64    desc_size    bytes of desc_area
//     40  u64    desc_used    bytes of desc_area handed out (atomic bump pointer)
//     48  u32    next_id      next message id to give out, starts at 1 (atomic)
//     52  u32    reserved
//     56  u64    created_ns   CLOCK_REALTIME at creation, nanoseconds
//     64  level[nlevels], 32 bytes each:
//           0  u64 ring_off   offset of the ring in the file (multiple of 8)
//           8  u64 ring_size  bytes (the level's size in KiB x 1024)
//           16 u64 head       bytes ever reserved in this ring (atomic);
//                             a record at stream position p lies at
//                             ring_off + p % ring_size
//           24 u64 reserved
//   file size = ring_off[last] + ring_size[last]
//
//   desc_area   := desc_entry* (zero bytes after the last entry)
//   desc_entry  (8-aligned; entry_len is written before the rest, magic last)
//     0   u32    entry_len    total bytes, multiple of 8, >= 24
//     4   u32    magic        BL_DESC_MAGIC once the entry is complete
//     8   u32    msg_id
//     12  u32    line
//     16  u16    file_len
//     18  u16    fmt_len
//     20  u8     nargs        <= BL_MAX_ARGS
//     21  u8     types[nargs] bl_type values
//     ..  char   file[file_len], then fmt[fmt_len] (no terminating NUL)
//     ..  zero padding to a multiple of 8
//
//   ring        := record* with gaps; a record never crosses the ring's end
//   record      (8-aligned)
//     0   u64    stamp        ~p, where p is the record's stream position;
//                             written last: a record whose stamp is not ~p
//                             is incomplete or overwritten
//     8   u32    len          total bytes, multiple of 8, >= 24
//     12  u32    msg_id
//     16  u64    time_ns      CLOCK_REALTIME when the record was opened,
//                             nanoseconds. On x86-64 with an invariant TSC it
//                             is interpolated from the TSC between readings
//                             of the clock about 50 ms apart (within
//                             microseconds of the clock); a step back of
//                             under 1 ms that a new reading brings is held at
//                             the previous stamp, larger clock steps show.
//     24  value*              each: u8 bl_type, then
//                               bool, u8       1 byte
//                               u16            2 bytes
//                               s32, u32       4 bytes
//                               s64, u64       8 bytes
//                               charp          u16 n, then n bytes of text
//     ..  zero padding to a multiple of 8
//   The live records of a ring are those with head - ring_size <= p and
//   p + len <= head; anything else in the ring is older than that.
#pragma once

#include <cstddef>
#include <cstdint>

// Argument types of a trace record. Stored in files: never renumber.
// When adding a type, update bl_type_name, the put functions, the reader's
// value decoder and the daemon's trace type mapping.
enum bl_type : std::uint8_t {
	BL_T_BOOL = 1,
	BL_T_CHARP = 2,
	BL_T_S32 = 3,
	BL_T_U16 = 4,
	BL_T_U32 = 5,
	BL_T_U64 = 6,
	BL_T_U8 = 7,
	BL_T_S64 = 8,
};

constexpr char BL_MAGIC[8] = {'B', 'R', 'E', 'V', 'L', 'O', 'G', '\n'};
constexpr std::uint32_t BL_VERSION = 1;
constexpr std::uint32_t BL_HEADER_SIZE = 4096;
constexpr std::uint32_t BL_MAX_LEVELS = 16;
constexpr std::uint32_t BL_LEVEL_TABLE_OFF = 64;
constexpr std::uint32_t BL_LEVEL_ENTRY_SIZE = 32;
constexpr std::uint32_t BL_DESC_MAGIC = 0x43534544;  // "DESC"
constexpr std::uint32_t BL_DESC_HDR_SIZE = 21;       // fixed part before types[]
constexpr std::uint32_t BL_REC_HDR_SIZE = 24;        // stamp (8), len (4), msg_id (4), time (8)
constexpr std::uint32_t BL_MAX_ARGS = 32;
constexpr std::uint32_t BL_MAX_RECORD = 2048;       // bytes of one record, header included
constexpr std::uint64_t BL_DESC_AREA_SIZE = 256 * 1024;
static_assert(BL_LEVEL_TABLE_OFF + BL_MAX_LEVELS * BL_LEVEL_ENTRY_SIZE <= BL_HEADER_SIZE);

// Offsets of the fields of the grammar above, each from the start of its
// part: the header (from the file's start), a level entry, a descriptor
// entry and a record. The writer and the reader use these names only.
constexpr std::uint32_t BL_HDR_MAGIC = 0;
constexpr std::uint32_t BL_HDR_VERSION = 8;
constexpr std::uint32_t BL_HDR_HEADER_SIZE = 12;
constexpr std::uint32_t BL_HDR_NLEVELS = 16;
constexpr std::uint32_t BL_HDR_PID = 20;
constexpr std::uint32_t BL_HDR_DESC_OFF = 24;
constexpr std::uint32_t BL_HDR_DESC_SIZE = 32;
constexpr std::uint32_t BL_HDR_DESC_USED = 40;
constexpr std::uint32_t BL_HDR_NEXT_ID = 48;
constexpr std::uint32_t BL_HDR_CREATED_NS = 56;
static_assert(BL_HDR_VERSION == sizeof BL_MAGIC && BL_HDR_CREATED_NS + 8 == BL_LEVEL_TABLE_OFF);

constexpr std::uint32_t BL_LVL_RING_OFF = 0;
constexpr std::uint32_t BL_LVL_RING_SIZE = 8;
constexpr std::uint32_t BL_LVL_HEAD = 16;
static_assert(BL_LVL_HEAD + 8 + 8 == BL_LEVEL_ENTRY_SIZE);  // head, reserved

constexpr std::uint32_t BL_DESC_ENTRY_LEN = 0;
constexpr std::uint32_t BL_DESC_MAGIC_OFF = 4;
constexpr std::uint32_t BL_DESC_MSG_ID = 8;
constexpr std::uint32_t BL_DESC_LINE = 12;
constexpr std::uint32_t BL_DESC_FILE_LEN = 16;
constexpr std::uint32_t BL_DESC_FMT_LEN = 18;
constexpr std::uint32_t BL_DESC_NARGS = 20;
constexpr std::uint32_t BL_DESC_TYPES = 21;
constexpr std::uint32_t BL_DESC_MIN_LEN = 24;  // the fixed part and padding to 8
static_assert(BL_DESC_TYPES == BL_DESC_HDR_SIZE && BL_DESC_MIN_LEN == (BL_DESC_HDR_SIZE + 7) / 8 * 8);

constexpr std::uint32_t BL_REC_STAMP = 0;
constexpr std::uint32_t BL_REC_LEN = 8;
constexpr std::uint32_t BL_REC_MSG_ID = 12;
constexpr std::uint32_t BL_REC_TIME_NS = 16;
static_assert(BL_REC_TIME_NS + 8 == BL_REC_HDR_SIZE);

// A value: its bl_type tag, then the value; a text's value is its u16
// length, then its bytes.
constexpr std::uint32_t BL_VALUE_TAG_LEN = 1;
constexpr std::uint32_t BL_TEXT_LEN_SIZE = 2;

// Name of a bl_type for messages; "unknown" for a value that is not one.
const char *bl_type_name(std::uint8_t type);

struct bl_log;

// Creates the trace file `file_name` in the directory named by the
// environment variable BREVLOG_DIR, or in /var/log/brevlog (created if
// missing) when it is unset, and maps it. `sizes` lists the ring size of each
// level in KiB, as decimal numbers separated by commas and blanks
// ("64, 512, 1024"). The directory is made absolute here, so a later chdir
// does not move the file. The file gets mode 0640 and all its blocks at once;
// it is created under a temporary name that no planted link can redirect and
// renamed into place, after an existing file of that name has been renamed
// to `file_name` + ".1", so the previous run stays readable.
// Returns nullptr (errno EINVAL) when `file_name` or `sizes` does not parse.
// When the environment denies the file (no directory, no permission, no room
// for its blocks), returns a handle that is not initialised, so that the
// program runs on untraced, and says why once in the system log. If the file
// later loses its storage under the mapping (truncated, or an I/O error), a
// SIGBUS handler installed here puts anonymous memory in its place, turns the
// handle off and says so in the system log; any other SIGBUS keeps the
// disposition it had.
bl_log *bl_initialize_handle(const char *file_name, const char *sizes);

// True when `h` is a handle that records may be written to: its file exists
// and has kept its storage. Safe on nullptr.
bool bl_isInitialized(const bl_log *h);

// Unmaps and closes the handle. Programs that trace until they end never call
// it; tests and tools do. REQUIRES: no record open.
void bl_close(bl_log *h);

// Absolute path of the handle's trace file.
const char *bl_path(const bl_log *h);

// Bytes of caller memory a message descriptor needs (bl_msgDescInit).
int bl_msgDescSize();

// Prepares the descriptor block `desc` (>= bl_msgDescSize() bytes, 16-byte
// aligned) for the call site at `file`:`line`, gives the call site a new
// nonzero message id and stores it through `id`.
void bl_msgDescInit(bl_log *h, void *desc, std::uint32_t *id, const char *file, int line);

// Opens a record of message `id` at `level`, time-stamped now. `slot` is the
// caller's zeroed 64-bit slot; the library stores the record's nesting depth
// (1 = outermost) there. Every bl_startMsg is paired with one bl_endMsg.
void bl_startMsg(bl_log *h, std::uint64_t *slot, std::uint32_t id, int level);

// Appends an argument type to the descriptor (first use of a call site only).
void bl_put_fmt_bool(bl_log *h, void *desc, const bool *v);
void bl_put_fmt_charp(bl_log *h, void *desc, const char *const *v);
void bl_put_fmt_s32(bl_log *h, void *desc, const std::int32_t *v);
void bl_put_fmt_u16(bl_log *h, void *desc, const std::uint16_t *v);
void bl_put_fmt_u32(bl_log *h, void *desc, const std::uint32_t *v);
void bl_put_fmt_u64(bl_log *h, void *desc, const std::uint64_t *v);
void bl_put_fmt_u8(bl_log *h, void *desc, const std::uint8_t *v);
void bl_put_fmt_s64(bl_log *h, void *desc, const std::int64_t *v);

// Appends a value to the innermost open record, which must be of `level`.
// A text is copied at once (a null pointer is stored as "(null)") and cut
// to the room left in the record; any other value that does not fit in
// BL_MAX_RECORD is dropped.
void bl_put_type_bool(bl_log *h, int level, const bool *v);
void bl_put_type_charp(bl_log *h, int level, const char *const *v);
void bl_put_type_s32(bl_log *h, int level, const std::int32_t *v);
void bl_put_type_u16(bl_log *h, int level, const std::uint16_t *v);
void bl_put_type_u32(bl_log *h, int level, const std::uint32_t *v);
void bl_put_type_u64(bl_log *h, int level, const std::uint64_t *v);
void bl_put_type_u8(bl_log *h, int level, const std::uint8_t *v);
void bl_put_type_s64(bl_log *h, int level, const std::int64_t *v);

// Attaches the format text to the descriptor (first use only).
void bl_addMsg(void *desc, const char *fmt);

// Writes the completed descriptor into the trace file. The block may be
// released as soon as this returns.
void bl_finish(void *desc);

// Closes the innermost open record and commits it to the ring of `level`.
void bl_endMsg(bl_log *h, int level);
