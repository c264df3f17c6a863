// blreader.h -- the reader of trace files (format grammar in brevlog.h):
// validates a file before trusting any of it, collects the live records of
// its rings and renders them with printf semantics.
//
// A trace file is hostile input here: every offset, length and tag is checked
// against the file before use, and a malformed record is skipped, never
// rendered. The file may be written while it is read (blcat -f): records are
// copied out and accepted only when their stamp matches and the ring's head,
// read after the copy, shows that nothing overwrote them.
//
// Files are read with pread, never mapped: a file truncated under the reader
// (logrotate's copytruncate, ": > file") then gives short reads, which mark
// it truncated, where a mapping would raise SIGBUS. Holes of a sparse file
// are skipped unread (they hold no record), so the work follows the data the
// file really holds, not the ring sizes its header claims.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "brevlog.h"

// One typed value of a record.
struct blr_value {
	std::uint8_t type;   // bl_type
	std::uint64_t bits;  // integers and bool: the stored value, sign-extended for s32/s64
	std::string text;    // charp only
};

struct blr_record {
	std::uint64_t time_ns;  // CLOCK_REALTIME when the writer opened it, nanoseconds
	std::uint64_t pos;      // stream position in its ring
	std::uint32_t level;
	std::uint32_t msg_id;
	std::uint32_t file_index;  // which of several merged files it came from
	std::vector<blr_value> values;
};

struct blr_desc {
	std::uint32_t msg_id;  // 0: slot unused
	std::uint32_t line;
	std::string file;
	std::string fmt;
	std::vector<std::uint8_t> types;
};

struct blr_level {
	std::uint64_t ring_off;   // offset of the ring in the file
	std::uint64_t ring_size;  // bytes
};

// Records that were found but not shown, for the optional summary line.
struct blr_stats {
	std::uint64_t malformed = 0;  // stamp matched but the content did not parse
	std::uint64_t torn = 0;       // overwritten while being copied out
};

// An open, validated trace file: a descriptor read with pread (blr_open), so
// a file still being written shows its new records, or an image in memory
// (blr_attach).
struct blr_file {
	std::string path;
	int fd = -1;                          // blr_open: the file, read with pread
	const unsigned char *base = nullptr;  // blr_attach: the caller's image
	std::uint64_t size = 0;               // bytes, as validated by the header check
	dev_t dev = 0;                        // blr_open: identity of the open file,
	ino_t ino = 0;                        // to notice its path naming another one
	std::uint64_t created_ns = 0;         // header's creation time, nanoseconds
	bool truncated = false;               // a read ended early: the file shrank under us
	std::uint32_t nlevels = 0;
	std::uint64_t desc_size = 0;
	std::uint64_t desc_loaded = 0;        // desc_used when the descriptors were last read
	bool desc_partial = true;             // an entry was still being written then
	std::vector<blr_level> levels;
	std::vector<blr_desc> descs;            // indexed by message id
	std::vector<std::uint64_t> next_pos;    // per level: first position not yet collected
	blr_stats stats;

	blr_file() = default;
	blr_file(const blr_file &) = delete;
	blr_file &operator=(const blr_file &) = delete;
	~blr_file();
};

// Checks a file image (header, level table, sizes) as it lies in memory.
// Returns "" when it is a usable trace file, else a one-line reason without
// the file name ("not a trace file", "unsupported trace file version 7",
// "truncated (100 bytes, header says 4200000)", ...).
std::string blr_check_header(std::span<const unsigned char> image);

// Opens `path` read-only, validates the header against the file's size and
// reads the descriptors. A level whose head claims at least
// BLR_HOLE_PROOF bytes written while its ring holds no data at all (a
// sparse file forged to cost the reader a scan of empty rings) makes the
// file corrupt. Returns "" on success, else the one-line message
// "<path>: <reason>".
std::string blr_open(blr_file &f, const char *path);

// Bytes a ring's head must claim before an empty ring counts as forged: more
// than the writer can have reserved and not yet written (nested open records
// of a thread and its signal handlers), rounded up generously.
constexpr std::uint64_t BLR_HOLE_PROOF = 64 * 1024;

// Like blr_open on a file image the caller keeps alive and unchanged as long
// as `f` (tests and fuzz targets). `name` stands for the path in messages.
std::string blr_attach(blr_file &f, std::span<const unsigned char> image, const char *name);

// (Re-)reads the descriptor area when it grew or held an entry still being
// written; descriptors still being written are skipped. Returns "" or
// "corrupt descriptor at offset N". A short read sets f.truncated and
// returns "" with the descriptors unchanged.
std::string blr_load_descs(blr_file &f);

// Appends to `out` the live records of the levels in `level_mask` (bit n =
// level n) whose position is at least the level's next_pos, and advances
// next_pos past them. Incomplete, overwritten and malformed records are
// skipped (malformed and torn ones are counted in f.stats). A short read
// sets f.truncated and ends the collection; the records copied before it
// stay in `out`. Does nothing on a file already marked truncated.
void blr_collect(blr_file &f, std::uint32_t level_mask, std::uint32_t file_index,
		 std::vector<blr_record> &out);

// Decodes the values of one record body (the bytes after the 24-byte record
// header, padding included). False when the body is malformed.
bool blr_decode_values(std::span<const unsigned char> body, std::vector<blr_value> &out);

// Renders `fmt` with `values` as C's printf renders each conversion with the
// value converted to the conversion's C type. A missing or mismatched value
// renders as "<?>"; extra values are ignored; "%n" and "*" widths are shown
// literally.
std::string blr_format(std::string_view fmt, std::span<const blr_value> values);

// Renders one record as
// "YYYY-MM-DD HH:MM:SS.nnnnnnnnn L<level> <file>:<line> <text>" (local time)
// without a trailing newline (the text may contain newlines of its own).
std::string blr_render(const blr_file &f, const blr_record &r);

// Sorts records by time, then file, level and stream position.
void blr_sort(std::vector<blr_record> &records);

// Parses a level list such as "1,3-5" into a mask. False when malformed.
bool blr_parse_levels(const char *text, std::uint32_t *mask);

struct blr_cat_options {
	std::uint32_t level_mask = ~0u;     // levels to show (bit n = level n)
	bool follow = false;                // keep polling for new records
	bool summary = false;               // end with a line counting skipped records
	int poll_ms = 200;                  // follow: pause between polls, milliseconds
	const volatile int *stop = nullptr; // follow: polling ends once *stop is nonzero
};

// What blcat does: opens every file of `paths` (all before printing
// anything), prints their records merged in time order on `out`, one
// rendering per record followed by a newline, and with `follow` keeps
// printing new records until *stop. A file that cannot be used gives one
// line "blcat: <path>: <reason>" on `err`. Returns 0, or 1 after an error.
//
// Follow keeps to each path as tail -F does. When the path comes to name
// another file that is a valid trace (the writer's restart renames the old
// file to "<path>.1" and creates a new one), the old file's last records are
// printed, "blcat: <path> has been replaced; following new file" goes to
// `err`, and the new file is printed from its start. When the file shrinks
// or its header changes in place, "blcat: <path>: file truncated" goes to
// `err` and nothing is read from it until the path holds a valid trace
// again, which is then printed from its start.
int blr_cat(std::span<const char *const> paths, const blr_cat_options &opt, std::FILE *out,
	    std::FILE *err);
