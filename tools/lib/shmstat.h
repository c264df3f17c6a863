// shmstat.h -- reader of the reflector's shared session store for operators:
// takes a private, consistent copy of the store, decides whether the object
// can be a store at all, and renders counters and sessions as an aligned
// text report, a JSON document or the node_exporter textfile format; finds
// the daemon that holds a store and flags initiators gone silent.
//
// The store's byte layout is the one of store.h (reflector_shm); this
// reader never writes it. The daemon updates the store with plain stores and
// no lock, so every function here works on a copy (shmstat_snapshot), never
// on the mapping.
//
// "Not a store" rules (the store has no magic number, so an object is
// rejected only when the daemon could never have left it so):
//   size     the object is exactly SHM_SIZE (69720) bytes
//   slots    in a slot in use (discriminator != 0): state, prev_state,
//            tx_state and prev_tx_state <= 3; diag and tx_diag <= 31;
//            version <= 7; demand, final and poll are 0 or 1; reserved is
//            zero; each time stamp has tv_sec >= 0 and 0 <= tv_nsec < 1e9
//   free     a free slot (discriminator 0) is all zero bytes      [cross]
//   hash     rx_hash_trim <= rx_hash_miss, and rx_hash_hit + rx_hash_miss
//            is at most the lookups of the current counting period:
//            rx_valid_pkts below 512, else (rx_valid_pkts mod 512) + 1,
//            or 512 at an exact multiple (the daemon counts the packet
//            before it looks its session up)                      [cross]
// Rules marked [cross] relate several fields; they are applied only to a
// stable copy (two successive copies agreed), because a copy torn by a
// concurrent write may mix two legitimate states.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "store.h"
#include "wire.h"  // the states and diagnostics a session slot holds

enum shmstat_status : int {
	SHMSTAT_OK = 0,
	SHMSTAT_NOT_FOUND = 1,    // no object of that name
	SHMSTAT_NO_ACCESS = 2,    // the object exists but may not be read
	SHMSTAT_OPEN_FAILED = 3,  // shm_open, fstat or mmap failed otherwise
	SHMSTAT_WRONG_SIZE = 4,   // st_size != SHM_SIZE
	SHMSTAT_NOT_A_STORE = 5,  // the contents break a "not a store" rule
};
const char *shmstat_status_name(shmstat_status status);

struct shmhist_delta;  // shmhist.h

// A private copy of the store and when it was taken.
struct shmstat_snapshot {
	reflector_shm store;  // copy of the whole region
	shm_timestamp taken;  // CLOCK_REALTIME when the copy was taken
	bool stable;          // two successive copies were identical
	std::uint64_t inode;  // the object's inode in /dev/shm (0: not read from an object)
};

// Kinds of the header counters, in the order the reports show them.
enum class shmstat_group { global, hash, rx_error, tx_error };

// One header counter of the store.
struct shmstat_counter {
	const char *name;     // the field's name in reflector_shm
	shmstat_group group;  // where reports list it
	std::size_t offset;   // bytes from the start of the store
	std::size_t size;     // bytes: 8 (u64) or 4 (u32); the counter wraps at that width
	const char *help;     // one line for people and for HELP lines
};

// Every header counter in store order. When adding a counter to
// reflector_shm, add it here (the static_assert in shmstat.cpp checks that
// the sizes add up to the header).
extern const std::array<shmstat_counter, 19> SHMSTAT_COUNTERS;

// Value of counter `c` in `store`.
std::uint64_t shmstat_counter_value(const shmstat_counter &c, const reflector_shm &store);

// Object name the daemon would use: `object` when non-null (a leading "/"
// is dropped), else the name shm_store_name builds from `nspath` (nullptr
// or "" when the daemon runs without NSPATH).
std::string shmstat_object_name(const char *object, const char *nspath);

// Maps the object `name` read-only, copies it into `snap` (up to a few
// attempts until two successive copies agree) and applies the "not a store"
// rules. Returns SHMSTAT_OK, or another status with one line for the
// operator in `*err`.
// REQUIRES: snap and err are non-null.
shmstat_status shmstat_read(const std::string &name, shmstat_snapshot *snap, std::string *err);

// Applies the "not a store" rules to `store`; the [cross] rules only when
// `cross` is true. Returns true when the contents may be a store, else
// false with the first broken rule in `*why`.
// REQUIRES: why is non-null.
bool shmstat_plausible(const reflector_shm &store, bool cross, std::string *why);

// Slot indices of the sessions in use, most recently heard (last_rx) first;
// equal times keep ascending slot order.
std::vector<std::uint32_t> shmstat_sessions(const reflector_shm &store);

// ---- silent initiators ----
//
// An initiator announces in each request how often it sends (Desired Min TX
// Interval) and after how many missed packets a peer may declare it gone
// (Detect Mult; RFC 5880 section 6.8.4). A session whose last request is
// older than that detection time is "silent": the path, the initiator or
// its probing stopped; the reflector cannot tell which.

// Floor of the detection time: requests announcing shorter intervals still
// get this long before their session counts as silent, so that the time a
// report takes to be read does not flag a busy session.
constexpr std::uint64_t SHMSTAT_SILENT_FLOOR_US = 1000000;

// Detection time `s` announced, us: Detect Mult x Desired Min TX, at least
// SHMSTAT_SILENT_FLOOR_US.
std::uint64_t shmstat_detect_time_us(const reflector_session &s);

// True when the last request of `s` is older at `now` than its detection
// time (strictly). A clock set back (last_rx after now) is not silent.
bool shmstat_silent(const reflector_session &s, const shm_timestamp &now);

// ---- the daemon behind a store ----

// The daemon's running configuration as its run-state file tells it.
struct shmstat_config {
	std::uint32_t discriminator;  // the discriminator it answers, host order
	std::uint32_t source_ip;      // source address of its replies, network order
	std::uint32_t min_rx;         // Required Min RX Interval it announces, us
	bool admin_down;              // replies say AdminDown
	shm_timestamp since;          // when this configuration took effect, CLOCK_REALTIME
	shm_timestamp started;        // when the daemon started, CLOCK_REALTIME
};

// Whether a daemon holds a store, and what it runs with.
struct shmstat_daemon {
	long pid = 0;                  // process mapping the store for writing; 0: none found
	bool config_known = false;     // `config` is the configuration of `pid`
	shmstat_config config{};       // valid when config_known
	std::string config_unknown;    // why not, when !config_known ("no run-state file", ...)
};

// What a rendering shows beside the store.
struct shmstat_view {
	shmstat_daemon daemon;     // holder and configuration (default: none, unknown)
	bool silent_only = false;  // list only the silent sessions (counts stay whole)
	std::string version;       // the tool's version for orvalindwarden_info ("": no label)
};

// True when the text of a /proc/PID/maps file (`maps`) has a line mapping
// `path` with inode `inode` shared and writable ("rw?s"), as the daemon maps
// its store; readers map it read-only and do not count. A line naming the
// path with " (deleted)" (an object unlinked since) does not match.
bool shmstat_maps_hold(std::string_view maps, const std::string &path, std::uint64_t inode);

// Pid of a process that maps the store `name` (whose inode is
// `snap.inode`) for writing: `hint` first (the run-state file's pid; 0:
// none), then every process in /proc but this one. When the maps of
// `hint` may not be read (another user's process), `hint` counts if it is
// alive. Returns 0 when no process holds it.
long shmstat_find_holder(const std::string &name, const shmstat_snapshot &snap, long hint);

// What is known of the daemon behind the store `name`: the process that
// holds it (shmstat_find_holder, the run-state file's pid as hint) and,
// when the file's pid is that process, its configuration; otherwise why
// not ("no run-state file ...", "... unreadable ...", "stale: ..."). The
// file is `state_path`, or when nullptr the one run_state_path names.
shmstat_daemon shmstat_probe_daemon(const std::string &name, const shmstat_snapshot &snap,
				    const char *state_path = nullptr);

// Text report: the daemon and its configuration, header counters, error
// counters and a table of the sessions. With `prev` (an earlier snapshot
// of the same store) every counter and each session's received and sent
// counts get a per-second rate.
std::string shmstat_format_text(const shmstat_snapshot &snap, const std::string &name,
				const shmstat_snapshot *prev, const shmstat_view &view = {});

// The same content as one JSON document.
std::string shmstat_format_json(const shmstat_snapshot &snap, const std::string &name,
				const shmstat_view &view = {});

// Changes since a baseline (shmhist_compare, shmhist.h) as a text report:
// notes, counters with their change and rate, the sessions with theirs;
// and as one JSON document. `view.silent_only` lists the silent sessions.
std::string shmstat_format_delta_text(const shmhist_delta &d, const shmstat_snapshot &snap, const std::string &name,
				      const shmstat_view &view = {});
std::string shmstat_format_delta_json(const shmhist_delta &d, const shmstat_snapshot &snap, const std::string &name,
				      const shmstat_view &view = {});

// node_exporter textfile format, every sample labelled store="<name>":
// orvalindwarden_up and _info first, then the header counters as counters
// (the receive and transmit error counters as the families
// orvalindwarden_rx_errors_total and _tx_errors_total with a `reason`
// label, the per-period hash counters as gauges), the session gauges
// (in use, silent) and per-session series labelled by discriminator and
// address.
std::string shmstat_format_prometheus(const shmstat_snapshot &snap, const std::string &name,
				      const shmstat_view &view = {});
