// shmhist.h -- counters since a moment, as nstat shows the kernel's: the
// baseline orvalindwarden-stat --delta keeps in a file of the caller's
// between two calls, its text format, and the change of every counter and
// of each session's counts since that baseline (shmstat_format_delta_*
// render it). The store is never written.
//
// The history file is input the caller may have edited, truncated or
// mixed up with another's: it is parsed strictly and bounded
// (SHMHIST_FILE_MAX bytes), and any fault makes it unusable as a whole.
//
// Format: ASCII lines, each ended by "\n", one blank between fields:
//
//   file    := "orvalindwarden-stat history 1\n"
//              "object " name "\n"              the store's object name
//              "taken " u63 " " nsec "\n"       CLOCK_REALTIME of the copy
//              counter{19}                      SHMSTAT_COUNTERS, in order
//              session{0..512}                  distinct (discriminator, address)
//   counter := "counter " NAME " " value "\n"    value within the counter's width
//   session := "session " u32 " " ipv4 " " u64 " " u64 "\n"
//              discriminator (not 0), address, requests received, replies sent
//   name    := ( [!-~] but "%" | "%" HEX HEX ){1..255}   bytes outside
//              0x21..0x7e and "%" itself as %XX, upper-case hex, not %00
//   u32, u63, u64, nsec := "0" | [1-9][0-9]*    within the type's range
//                                                (nsec 0 .. 999999999)
//   ipv4    := dotted quad, each part "0" | [1-9][0-9]{0,2} up to 255
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "shmstat.h"

// The largest history file taken: 19 counters and 512 sessions at their
// widest fit in 48 KiB; the rest is slack.
constexpr std::size_t SHMHIST_FILE_MAX = 64 * 1024;

// A baseline: what a store held at one moment.
struct shmhist {
	// The counts of one session, known by the daemon's key for it.
	struct session {
		std::uint32_t discriminator;  // initiator's My Discriminator, host order
		std::uint32_t source_ip;      // initiator's address, network order
		std::uint64_t received;       // requests received, count
		std::uint64_t sent;           // replies sent, count
	};
	std::string object;                                           // store object name
	shm_timestamp taken;                                          // when the copy was taken
	std::array<std::uint64_t, SHMSTAT_COUNTERS.size()> counters;  // by SHMSTAT_COUNTERS index
	std::vector<session> sessions;                                // sessions in use, slot order
};

// The baseline of `snap`, the store `name`.
shmhist shmhist_of(const shmstat_snapshot &snap, const std::string &name);

// The text of `h` (format above).
// REQUIRES: h.object is 1..255 bytes without NUL; at most 512 sessions.
std::string shmhist_format(const shmhist &h);

// Parses the exact text above into `*h`. Returns false, with the line and
// the fault in `*why`, for anything else, including more than
// SHMHIST_FILE_MAX bytes. Reads no byte outside `text`.
// REQUIRES: h and why are non-null.
bool shmhist_parse(std::string_view text, shmhist *h, std::string *why);

// Change of every counter and of each session since a baseline.
struct shmhist_delta {
	// One session in use now.
	struct session {
		std::uint32_t slot;     // its slot in the store
		std::uint64_t received; // requests received since the baseline
		std::uint64_t sent;     // replies sent since the baseline
		bool fresh;             // not in the baseline, or its counts went back (slot re-used)
	};
	bool have_base;          // a baseline of this store was given
	shm_timestamp since;     // its time (taken), when have_base
	double seconds;          // from the baseline to now; 0 without one or when the clock went back
	std::array<std::uint64_t, SHMSTAT_COUNTERS.size()> counters;  // changes; hash counters: values now
	std::vector<session> sessions;   // sessions in use, most recently heard first
	std::size_t gone;                // sessions of the baseline no longer in use
	std::vector<std::string> notes;  // lines for the operator (counters went back, ...)
};

// Compares `snap` (the store `name`) with `base` (nullptr: none; a baseline
// of another object counts as none, with a note). A header counter below
// its baseline is a wrap when it is 32 bits wide and no 64-bit counter went
// back (the daemon only adds); otherwise the store was reset, as the daemon
// does when it starts without -S, and every counter's change is its value
// now, with a note naming the counters that went back.
shmhist_delta shmhist_compare(const shmhist *base, const shmstat_snapshot &snap, const std::string &name);

// ---- the history file ----

// The default history file of the store `name`:
// $XDG_RUNTIME_DIR/orvalindwarden-stat/<name>.delta, else the same under
// ~/.cache; the directory is made (0700) when missing. "" with a message
// in `*err` when there is no such place.
// REQUIRES: err is non-null.
std::string shmhist_default_path(const std::string &name, std::string *err);

// Reads the history file `path` into `*h`: only a regular file, at most
// SHMHIST_FILE_MAX bytes read whatever its size claims, parsed strictly.
// Returns false when there is none (ENOENT, `*note` left alone) or it is
// unusable (then `*note` says why, for the operator: a new baseline follows).
// REQUIRES: h and note are non-null.
bool shmhist_load(const std::string &path, shmhist *h, std::string *note);

// Replaces the history file `path` by the text of `h`: a new file (mode
// 0600) in the same directory, synced and renamed over the old one, so
// that a reader sees one or the other whole. Returns false with a message
// in `*err`, the old file left as it was.
// REQUIRES: err is non-null; `h` as for shmhist_format.
bool shmhist_save(const std::string &path, const shmhist &h, std::string *err);
