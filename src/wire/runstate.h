// runstate.h -- the run-state file: the configuration a running reflector
// applies, as the daemon writes it and the operator's tools read it back
// (orvalindwarden-ctl --show and its partial changes, orvalindwarden-stat).
//
// The daemon rewrites the file at start, once its context is built, and
// after every control datagram that set its configuration; each write is a
// new file renamed over the old one, so a reader sees the old text or the
// new, never a mix. The file of a daemon started with NSPATH is named after
// that daemon's store object (shm_store_name, store.h), so every instance
// has its own:
//
//   /run/orvalindwarden/<store object name>.state   (directory 0755, file 0644)
//
// To the tools the file is hostile input (anyone who can write the
// directory can put anything there): run_state_read takes only a regular
// file of at most RUN_STATE_FILE_MAX bytes and run_state_parse accepts only
// the exact text below.
//
// Format: ASCII, eight lines in this order, each ended by "\n", nothing
// before, between or after them, one blank between key and value:
//
//   file   := "orvalindwarden-state 1\n"
//             "pid " u31 "\n"              the daemon's process id, 1 .. 2147483647
//             "discriminator " u32 "\n"    our discriminator, host order
//             "source " ipv4 "\n"          source address of the replies
//             "min_rx " u32 "\n"           Required Min RX Interval announced, us
//             "admin_down " u8 "\n"        byte last set; 0: Up, else AdminDown
//             "since " time "\n"           start, or the last accepted change
//             "started " time "\n"         start of this daemon
//   u31, u32, u8 := "0" | [1-9][0-9]*      decimal within the type's range
//   ipv4   := u8 "." u8 "." u8 "." u8       dotted quad, as ipv4_dotted writes it
//   time   := u63 "." [0-9]{9}              CLOCK_REALTIME seconds and nanoseconds
//   u63    := decimal 0 .. 9223372036854775807
//
// Nothing here allocates, throws or uses libevent: the daemon (built with
// -fno-exceptions) links it as well as the tools.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Directory of the run-state files, and the modes the daemon gives them.
constexpr char RUN_STATE_DIR[] = "/run/orvalindwarden";
constexpr unsigned RUN_STATE_DIR_MODE = 0755;   // rwxr-xr-x: the tools of any user read
constexpr unsigned RUN_STATE_FILE_MODE = 0644;  // rw-r--r--
constexpr char RUN_STATE_SUFFIX[] = ".state";
constexpr std::size_t RUN_STATE_NAME_MAX = 255;  // NAME_MAX: bytes of the file's own name
// Buffer of a path run_state_path builds: directory, "/", name, NUL.
constexpr std::size_t RUN_STATE_PATH_MAX = sizeof RUN_STATE_DIR + RUN_STATE_NAME_MAX + 1;  // 276

// The largest file run_state_read takes; the daemon's text is far shorter
// (RUN_STATE_TEXT_MAX).
constexpr std::size_t RUN_STATE_FILE_MAX = 4096;
// The longest text run_state_format writes: every value at its widest.
// Per line: key and blank, widest value, newline.
constexpr std::size_t RUN_STATE_TEXT_MAX = 23 +  // "orvalindwarden-state 1\n"
	(4 + 10 + 1) + (14 + 10 + 1) + (7 + 15 + 1) + (7 + 10 + 1) + (11 + 3 + 1) +
	(6 + 19 + 1 + 9 + 1) + (8 + 19 + 1 + 9 + 1);  // pid .. admin_down, since, started
static_assert(RUN_STATE_TEXT_MAX == 193 && RUN_STATE_TEXT_MAX <= RUN_STATE_FILE_MAX);

// The configuration a running daemon applies, as the file holds it.
struct run_state {
	std::int32_t pid;             // the daemon's process id, > 0
	std::uint32_t discriminator;  // our discriminator, host order
	std::uint32_t source_ip;      // source address of the replies, network order
	std::uint32_t min_rx;         // Required Min RX Interval announced, us
	std::uint8_t admin_down;      // the byte last set: 0 Up, else AdminDown
	std::int64_t since_sec;       // start or last accepted change, CLOCK_REALTIME s
	std::int64_t since_nsec;      // and ns, 0 .. 999999999
	std::int64_t started_sec;     // start of the daemon, CLOCK_REALTIME s
	std::int64_t started_nsec;    // and ns, 0 .. 999999999
};

// Builds "<RUN_STATE_DIR>/<object_name>.state" into `buf` (`cap` bytes),
// NUL-terminated. A leading "/" of `object_name` is dropped, as shm_open's
// names carry one. Returns 0, or -1 when the name is empty, ".", "..",
// holds another "/", makes a file name longer than RUN_STATE_NAME_MAX or the
// path longer than cap - 1 (buf then holds ""). A buffer of
// RUN_STATE_PATH_MAX bytes holds every path it builds.
// REQUIRES: buf non-null when cap > 0; object_name non-null.
int run_state_path(char *buf, std::size_t cap, const char *object_name);

// Writes the text of `s` (format above) into `buf`. Returns its length, or 0
// when `cap` is smaller than length + 1 or `s` holds what the format cannot
// carry (pid <= 0, a negative time, nanoseconds outside 0 .. 999999999).
std::size_t run_state_format(const run_state &s, char *buf, std::size_t cap);

// Replaces the file `path` by the text of `s`: writes a new file in the same
// directory, named "." + the file's name + "." + 16 random hex digits
// (".state." + 16 hex digits when that is too long), with O_EXCL |
// O_NOFOLLOW (a planted link redirects nothing) and mode RUN_STATE_FILE_MODE
// whatever the umask, and renames it over `path`. The directory is made (mode
// RUN_STATE_DIR_MODE) when it is missing; its parent must exist. Nothing is
// synced: the file lives in /run. Returns 0, or -1 with errno set and no
// temporary file left (EINVAL: `s` cannot be written, see run_state_format).
// Allocates nothing.
int run_state_write(const char *path, const run_state &s);

// Removes what a writer of `path` killed between creating its new file and
// the rename left behind: the files "." + the file's name + "." + 16 hex
// digits in its directory. Returns how many, or -1 with errno set (a
// missing directory is none).
int run_state_clean(const char *path);

// Parses the exact text above into *out. Returns false, *out unchanged, for
// any other input: a missing, extra, reordered or misspelt line, a value out
// of range, with a sign, blanks or leading zeros, a missing final newline,
// bytes after it, a NUL anywhere. Reads no byte outside `text`.
bool run_state_parse(std::span<const char> text, run_state *out);

// run_state_read results. When adding one, update run_state_status_name.
enum run_state_status : int {
	RUN_STATE_OK = 0,
	RUN_STATE_ERR_SYSTEM = 1,       // open, fstat or read failed: errno set (ENOENT: no file)
	RUN_STATE_ERR_NOT_REGULAR = 2,  // a link, directory, FIFO, device...
	RUN_STATE_ERR_TOO_LARGE = 3,    // more than RUN_STATE_FILE_MAX bytes
	RUN_STATE_ERR_FORMAT = 4,       // run_state_parse refused the text
};

// "ok", "system error", "not a regular file", "larger than 4096 bytes",
// "not a run-state file"; "unknown" for other values.
const char *run_state_status_name(int status);

// Reads and parses the file `path`: opened with O_NOFOLLOW | O_NONBLOCK (a
// link or a FIFO never holds the reader), taken only when a regular file,
// read up to one byte more than RUN_STATE_FILE_MAX whatever its size claims.
// Returns RUN_STATE_OK with *out filled, or another run_state_status.
int run_state_read(const char *path, run_state *out);
