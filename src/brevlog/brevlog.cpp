// brevlog.cpp -- the writer of the tracing library: creates and maps the trace
// file, hands out message ids, stores call-site descriptors and commits typed
// records into the per-level rings.
//
// Owns: the handle (process memory) and everything written into the mapped
// file. Invariants: one writing thread per handle plus signal handlers on that
// thread; `depth` counts open records (also those deeper than
// BL_MAX_OPEN_RECORDS, which are dropped so that start/end pairing holds);
// a ring's `head` only grows, and a record's stamp is stored last, with
// release order, after its reservation and its body.
//
// Fast path (a call site after its first use): one TSC read turned into
// CLOCK_REALTIME nanoseconds (clock_gettime where the TSC cannot serve), a
// few bounded copies into the staging buffer, one CAS on the ring head, one
// copy into the mapping. No system call, lock or allocation.
//
// Time stamps: where the CPU's TSC is invariant and the kernel's clocksource
// is the TSC, a record's time is anchor_ns + (tsc - anchor_tsc) * mult >> 32,
// from an anchor pair (TSC, CLOCK_REALTIME) taken at start-up and again
// whenever BL_REANCHOR_NS has passed; the anchor corrects clock steps and
// bounds the drift of the interpolation, and each new anchor refines the
// rate. Two anchor slots and an index flipped by one store keep a reader in
// a signal handler on a complete anchor: only the outermost open record
// re-anchors, and nothing can interrupt a reader to re-anchor under it.
#include "brevlog.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <type_traits>
#include <unistd.h>

#include "wire.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#define BL_HAVE_TSC 1
#endif

namespace {

constexpr int BL_MAX_OPEN_RECORDS = 8;  // nesting depth of open records (main flow + handlers)
constexpr std::uint64_t BL_MAX_LEVEL_KIB = 1048576;  // 1 GiB per level
constexpr std::uint32_t BL_DEFAULT_DIR_MODE = 0755;
// Initiator addresses and discriminators are not for every local user; the
// group (adm, say) may read them.
constexpr mode_t BL_FILE_MODE = 0640;
constexpr int BL_TEMP_TRIES = 8;  // random temporary names tried before giving up
constexpr const char *BL_SYSLOG_PATH = "/dev/log";
constexpr int BL_NOTE_PRIORITY = LOG_USER | LOG_WARNING;
constexpr std::size_t BL_NOTE_LEN = 1024;  // bytes of one system-log note
constexpr const char *BL_DEFAULT_DIR = "/var/log/brevlog";
constexpr std::size_t BL_MAX_TEXT = 0xFFFF;  // a text's length is stored in a u16
constexpr std::uint64_t BL_NS_PER_S = 1000000000;
constexpr std::uint64_t BL_REANCHOR_NS = 50 * 1000000;     // 50 ms between anchors
constexpr std::uint64_t BL_CALIBRATE_NS = 4 * 1000000;     // start-up rate measurement, 4 ms
constexpr unsigned BL_MULT_SHIFT = 32;                     // mult = ns per cycle << 32
constexpr std::uint64_t BL_CLAMP_NS = 1000000;  // a step back below 1 ms is interpolation error


// One record being built: the whole record (header included) is staged here
// and copied into its ring by bl_endMsg.
struct bl_open_record {
	int level;                             // level given to bl_startMsg
	std::uint32_t used;                    // bytes of buf in use, header included
	// stamp (not used while staged), len, msg_id, time_ns, values; the 8
	// bytes past BL_MAX_RECORD take the padding store of a full record
	alignas(8) unsigned char buf[BL_MAX_RECORD + 8];
};

struct bl_ring {
	unsigned char *data;  // first byte of the ring in the mapping
	std::uint64_t size;   // bytes, a multiple of 1024
	std::uint64_t *head;  // the level's head field in the mapped header
	std::uint64_t mask;   // size - 1 when size is a power of two, else 0
};

// Offset of stream position p in the ring; a mask where the size allows,
// since a 64-bit division costs as much as the rest of the commit.
inline std::uint64_t ring_offset(const bl_ring *ring, std::uint64_t p)
{
	return ring->mask ? (p & ring->mask) : p % ring->size;
}

// A call site's descriptor while it is being described (caller's memory).
struct bl_desc_block {
	bl_log *h;                          // handle the id was taken from
	const char *file;                   // call site's source path
	const char *fmt;                    // format text, set by bl_addMsg
	std::uint32_t msg_id;               // id given by bl_msgDescInit
	std::int32_t line;                  // call site's line
	std::uint8_t nargs;                 // entries of types[] in use
	std::uint8_t types[BL_MAX_ARGS];    // bl_type of each argument
};
static_assert(std::is_trivially_copyable_v<bl_desc_block>);
static_assert(sizeof(bl_desc_block) <= 512, "the daemon reserves 512 bytes per descriptor");
static_assert(alignof(bl_desc_block) <= 16, "the daemon aligns descriptors to 16 bytes");

// One point where the TSC and CLOCK_REALTIME were read together.
struct bl_anchor {
	std::uint64_t tsc;      // TSC value, cycles
	std::uint64_t ns;       // CLOCK_REALTIME at `tsc`, nanoseconds
	std::uint64_t mono_tsc; // TSC value at `mono_ns`, cycles
	std::uint64_t mono_ns;  // CLOCK_MONOTONIC (rate refinement: it never steps), nanoseconds
	std::uint64_t mult;     // nanoseconds per cycle << BL_MULT_SHIFT, valid from here on
};

// The record clock of a handle.
struct bl_clock {
	bool use_tsc;                  // TSC invariant and the kernel's clocksource
	volatile sig_atomic_t cur;     // slot[cur] is the anchor readers use
	std::uint64_t reanchor_cycles; // TSC cycles after which the outermost record re-anchors
	std::uint64_t min_mult;        // bounds a refined rate (1 % around the start-up rate)
	std::uint64_t max_mult;
	volatile std::uint64_t last_ns;  // last stamp given out, for the backward clamp
	bl_anchor slot[2];
};

}  // namespace

struct bl_log {
	unsigned char *base;        // start of the mapping; null once closed or never made
	std::size_t map_size;       // bytes mapped (= file size)
	int fd;                     // descriptor of the trace file
	volatile sig_atomic_t lost;  // the file lost its storage: the mapping is anonymous memory
	std::uint32_t nlevels;      // levels of the file
	volatile sig_atomic_t depth;  // open records, including dropped deep ones
	bl_clock clock;             // time stamps of records
	bl_ring rings[BL_MAX_LEVELS];
	bl_open_record stack[BL_MAX_OPEN_RECORDS];
	char path[PATH_MAX];        // absolute path of the trace file
};

namespace {

std::uint64_t clock_ns(clockid_t id)
{
	timespec ts;
	clock_gettime(id, &ts);
	return static_cast<std::uint64_t>(ts.tv_sec) * BL_NS_PER_S + static_cast<std::uint64_t>(ts.tv_nsec);
}

std::uint64_t now_ns() { return clock_ns(CLOCK_REALTIME); }

#if BL_HAVE_TSC
// True when `text` holds `word` delimited by blanks or line ends.
bool has_word(const char *text, const char *word)
{
	const std::size_t n = std::strlen(word);
	for (const char *p = std::strstr(text, word); p; p = std::strstr(p + 1, word))
		if ((p == text || p[-1] == ' ' || p[-1] == '\t') &&
		    (p[n] == ' ' || p[n] == '\n' || p[n] == '\0'))
			return true;
	return false;
}

// Reads up to `cap` - 1 bytes of `path` into `buf`; false when it cannot.
bool read_text(const char *path, char *buf, std::size_t cap)
{
	const int fd = open(path, O_RDONLY | O_CLOEXEC);
	if (fd == -1)
		return false;
	std::size_t used = 0;
	ssize_t n;
	while (used + 1 < cap && (n = read(fd, buf + used, cap - 1 - used)) > 0)
		used += static_cast<std::size_t>(n);
	close(fd);
	buf[used] = '\0';
	return used > 0;
}

// The TSC can stand for the system clock when it runs at a constant rate
// through every power state and the kernel itself keeps time with it (so it
// is synchronised across CPUs).
bool tsc_is_usable()
{
	char buf[16384];  // the first CPU's entry of /proc/cpuinfo is enough
	if (!read_text("/sys/devices/system/clocksource/clocksource0/current_clocksource", buf, sizeof buf) ||
	    std::strcmp(buf, "tsc\n") != 0)
		return false;
	if (!read_text("/proc/cpuinfo", buf, sizeof buf))
		return false;
	char *flags = std::strstr(buf, "\nflags");
	if (!flags)
		return false;
	if (char *eol = std::strchr(flags + 1, '\n'))
		*eol = '\0';
	return has_word(flags, "constant_tsc") && has_word(flags, "nonstop_tsc");
}

// Reads the TSC and `id` together: the TSC value halfway between two reads
// around the clock, from the tightest of a few tries.
void read_pair(clockid_t id, std::uint64_t *tsc, std::uint64_t *ns)
{
	std::uint64_t best = UINT64_MAX;
	*tsc = 0;
	*ns = 0;
	for (int i = 0; i < 3; i++) {
		const std::uint64_t t0 = __rdtsc();
		const std::uint64_t c = clock_ns(id);
		const std::uint64_t t1 = __rdtsc();
		if (t1 - t0 < best) {
			best = t1 - t0;
			*tsc = t0 + (t1 - t0) / 2;
			*ns = c;
		}
	}
}

// ns per cycle << BL_MULT_SHIFT from `cycles` cycles that took `ns`.
std::uint64_t rate_of(std::uint64_t ns, std::uint64_t cycles)
{
	return static_cast<std::uint64_t>((static_cast<unsigned __int128>(ns) << BL_MULT_SHIFT) / cycles);
}

// The TSC rate measured against CLOCK_MONOTONIC over BL_CALIBRATE_NS, once per
// process; 0 when the TSC is not usable.
std::uint64_t tsc_start_rate()
{
	static const std::uint64_t rate = [] {
		if (!tsc_is_usable())
			return std::uint64_t{0};
		std::uint64_t t0 = 0, n0 = 0, t1 = 0, n1 = 0;
		read_pair(CLOCK_MONOTONIC, &t0, &n0);
		const timespec pause = {0, static_cast<long>(BL_CALIBRATE_NS)};
		nanosleep(&pause, nullptr);
		read_pair(CLOCK_MONOTONIC, &t1, &n1);
		if (t1 <= t0 || n1 <= n0)
			return std::uint64_t{0};
		return rate_of(n1 - n0, t1 - t0);
	}();
	return rate;
}

// Takes a new anchor into the inactive slot and makes it current; refines the
// rate from the time since the previous anchor. REQUIRES: the caller holds
// the outermost open record (no other re-anchor can be under way) or no
// record can be open yet.
__attribute__((noinline, cold)) const bl_anchor *reanchor(bl_clock *c)
{
	const bl_anchor *old = &c->slot[c->cur];
	bl_anchor *a = &c->slot[c->cur ^ 1];
	read_pair(CLOCK_REALTIME, &a->tsc, &a->ns);
	read_pair(CLOCK_MONOTONIC, &a->mono_tsc, &a->mono_ns);
	a->mult = old->mult;
	if (old->mono_ns != 0 && a->mono_tsc > old->mono_tsc && a->mono_ns > old->mono_ns) {
		const std::uint64_t m = rate_of(a->mono_ns - old->mono_ns, a->mono_tsc - old->mono_tsc);
		if (m >= c->min_mult && m <= c->max_mult)
			a->mult = m;
	}
	// Publish only a complete slot: a handler may read the current one.
	std::atomic_signal_fence(std::memory_order_seq_cst);
	c->cur = c->cur ^ 1;
	return a;
}

void clock_init(bl_clock *c)
{
	const std::uint64_t rate = tsc_start_rate();
	c->use_tsc = rate != 0;
	if (!c->use_tsc)
		return;
	c->min_mult = rate - rate / 100;
	c->max_mult = rate + rate / 100;
	c->reanchor_cycles = static_cast<std::uint64_t>((static_cast<unsigned __int128>(BL_REANCHOR_NS)
							  << BL_MULT_SHIFT) / rate);
	c->slot[c->cur].mult = rate;
	reanchor(c);
}
#else
void clock_init(bl_clock *c) { c->use_tsc = false; }
#endif

#if BL_HAVE_TSC
// A new anchor may land a little before the times interpolated from the
// previous one: keep the stamps of the file from stepping back by that much
// (a real step back of the clock is larger and passes).
inline std::uint64_t clamped(bl_clock *c, std::uint64_t ns)
{
	const std::uint64_t last = c->last_ns;
	if (ns < last && last - ns < BL_CLAMP_NS) [[unlikely]]
		ns = last;
	c->last_ns = ns;
	return ns;
}

inline std::uint64_t interpolate(const bl_anchor *a, std::uint64_t delta)
{
	return a->ns + static_cast<std::uint64_t>((static_cast<unsigned __int128>(delta) * a->mult) >>
						  BL_MULT_SHIFT);
}
#endif

// record_time when the anchor is due or the TSC is not used.
__attribute__((noinline, cold)) std::uint64_t record_time_slow(bl_log *h, int d)
{
#if BL_HAVE_TSC
	bl_clock *c = &h->clock;
	if (c->use_tsc) {
		const bl_anchor *a = &c->slot[c->cur];
		std::uint64_t delta = __rdtsc() - a->tsc;
		const bool behind = static_cast<std::int64_t>(delta) < 0;
		if (behind && 0 - delta <= c->reanchor_cycles)
			delta = 0;  // read on a CPU whose TSC is a hair behind
		else if (d == 0) {
			// The anchor is due, or the TSC went back (restarted by a
			// resume): the outermost record takes a new one.
			a = reanchor(c);
			delta = 0;
		} else if (behind)
			return now_ns();  // nested under a record that has not re-anchored yet
		// else a nested record extrapolates from the old anchor
		return clamped(c, interpolate(a, delta));
	}
#else
	(void)h;
	(void)d;
#endif
	return now_ns();
}

// Time stamp of a record opened at depth `d` (0 = outermost).
inline std::uint64_t record_time(bl_log *h, int d)
{
#if BL_HAVE_TSC
	bl_clock *c = &h->clock;
	if (c->use_tsc) [[likely]] {
		const bl_anchor *a = &c->slot[c->cur];
		const std::uint64_t delta = __rdtsc() - a->tsc;
		if (delta <= c->reanchor_cycles) [[likely]]
			return clamped(c, interpolate(a, delta));
	}
#endif
	return record_time_slow(h, d);
}

// Innermost open record if it is of `level`, else null (the value is dropped).
inline bl_open_record *open_record(bl_log *h, int level)
{
	const unsigned d = static_cast<unsigned>(h->depth);
	if (d - 1u >= static_cast<unsigned>(BL_MAX_OPEN_RECORDS))
		return nullptr;
	bl_open_record *r = &h->stack[d - 1];
	return r->level == level ? r : nullptr;
}

template <typename T> inline void put_value(bl_log *h, int level, bl_type type, const T *v)
{
	if (!h)
		return;
	bl_open_record *r = open_record(h, level);
	if (!r || r->used + BL_VALUE_TAG_LEN + sizeof(T) > BL_MAX_RECORD)
		return;
	r->buf[r->used] = type;
	std::memcpy(r->buf + r->used + BL_VALUE_TAG_LEN, v, sizeof(T));
	r->used += BL_VALUE_TAG_LEN + sizeof(T);
}

void put_fmt(void *desc, bl_type type)
{
	auto *b = static_cast<bl_desc_block *>(desc);
	if (b->nargs < BL_MAX_ARGS)
		b->types[b->nargs++] = type;
}

// Replaces *p by `desired` if it still holds `*expected`, else loads it into
// `*expected`. The only other writer of a ring head is a signal handler on
// the writing thread, and a signal is taken only between instructions: on
// x86-64 one cmpxchg without the lock prefix is atomic against it at a
// fraction of the locked cost (readers in other processes only load the
// head). Elsewhere a full atomic compare-exchange does the same.
inline bool head_cas(std::uint64_t *p, std::uint64_t *expected, std::uint64_t desired)
{
#if defined(__x86_64__)
	bool ok;
	asm volatile("cmpxchgq %3, %1"
		     : "=@ccz"(ok), "+m"(*p), "+a"(*expected)
		     : "r"(desired)
		     : "memory");
	return ok;
#else
	return std::atomic_ref<std::uint64_t>(*p).compare_exchange_weak(
		*expected, desired, std::memory_order_acq_rel, std::memory_order_relaxed);
#endif
}

// Copies `n` bytes, a multiple of 8: a typical record is a few words, too
// short to pay for a call into the library's memcpy.
inline void copy_words(unsigned char *dst, const unsigned char *src, std::uint32_t n)
{
	if (n > 128) [[unlikely]] {
		std::memcpy(dst, src, n);
		return;
	}
	for (; n >= 16; n -= 16, dst += 16, src += 16)
		__builtin_memcpy(dst, src, 16);
	if (n)
		__builtin_memcpy(dst, src, 8);
}

// Copies the staged record into its ring: reserve, body, stamp last.
void commit(bl_log *h, bl_open_record *r)
{
	if (r->level < 0 || static_cast<std::uint32_t>(r->level) >= h->nlevels)
		return;
	bl_ring *ring = &h->rings[r->level];
	const std::uint32_t len = (r->used + 7u) & ~7u;
	if (len > ring->size)
		return;
	store_host<std::uint64_t>(r->buf + r->used, 0);  // the padding, and a little beyond
	store_host<std::uint32_t>(r->buf + BL_REC_LEN, len);

	// Reserve [start, start + len): a record never crosses the ring's end.
	std::uint64_t old = std::atomic_ref<std::uint64_t>(*ring->head).load(std::memory_order_relaxed);
	std::uint64_t start;
	do {
		start = old;
		const std::uint64_t off = ring_offset(ring, start);
		if (off + len > ring->size)
			start += ring->size - off;
	} while (!head_cas(ring->head, &old, start + len));

	unsigned char *dst = ring->data + ring_offset(ring, start);
	static_assert(BL_REC_STAMP == 0 && BL_REC_LEN == 8, "the stamp is the first word, stored last");
	copy_words(dst + BL_REC_LEN, r->buf + BL_REC_LEN, len - BL_REC_LEN);
	std::atomic_ref<std::uint64_t>(*reinterpret_cast<std::uint64_t *>(dst + BL_REC_STAMP))
		.store(~start, std::memory_order_release);
}

// Parses "64, 512, 1024" strictly: 1 .. BL_MAX_LEVELS numbers of 1 ..
// BL_MAX_LEVEL_KIB, separated by one comma with optional blanks around it.
bool parse_sizes(const char *s, std::uint64_t kib[BL_MAX_LEVELS], std::uint32_t *n)
{
	*n = 0;
	if (!s)
		return false;
	const char *p = s;
	for (;;) {
		while (*p == ' ' || *p == '\t')
			p++;
		if (*p < '0' || *p > '9')
			return false;
		std::uint64_t v = 0;
		while (*p >= '0' && *p <= '9') {
			v = v * 10 + static_cast<std::uint64_t>(*p - '0');
			if (v > BL_MAX_LEVEL_KIB)
				return false;
			p++;
		}
		if (v == 0 || *n == BL_MAX_LEVELS)
			return false;
		kib[(*n)++] = v;
		while (*p == ' ' || *p == '\t')
			p++;
		if (*p == '\0')
			return true;
		if (*p != ',')
			return false;
		p++;
	}
}

// mkdir -p with mode 0755; succeeds when the directory exists already.
bool make_dirs(const char *dir)
{
	char buf[PATH_MAX];
	const std::size_t n = std::strlen(dir);
	if (n == 0 || n >= sizeof buf)
		return false;
	std::memcpy(buf, dir, n + 1);
	for (std::size_t i = 1; i <= n; i++) {
		if (buf[i] != '/' && buf[i] != '\0')
			continue;
		const char saved = buf[i];
		buf[i] = '\0';
		if (mkdir(buf, BL_DEFAULT_DIR_MODE) == -1 && errno != EEXIST)
			return false;
		buf[i] = saved;
	}
	struct stat st;
	if (stat(dir, &st) == -1)
		return false;
	if (!S_ISDIR(st.st_mode)) {
		errno = ENOTDIR;
		return false;
	}
	return true;
}

void write_header(bl_log *h, const std::uint64_t kib[], std::uint32_t n)
{
	unsigned char *b = h->base;
	std::memcpy(b + BL_HDR_MAGIC, BL_MAGIC, sizeof BL_MAGIC);
	store_host<std::uint32_t>(b + BL_HDR_VERSION, BL_VERSION);
	store_host<std::uint32_t>(b + BL_HDR_HEADER_SIZE, BL_HEADER_SIZE);
	store_host<std::uint32_t>(b + BL_HDR_NLEVELS, n);
	store_host<std::uint32_t>(b + BL_HDR_PID, static_cast<std::uint32_t>(getpid()));
	store_host<std::uint64_t>(b + BL_HDR_DESC_OFF, BL_HEADER_SIZE);
	store_host<std::uint64_t>(b + BL_HDR_DESC_SIZE, BL_DESC_AREA_SIZE);
	store_host<std::uint64_t>(b + BL_HDR_DESC_USED, 0);
	store_host<std::uint32_t>(b + BL_HDR_NEXT_ID, 1);
	store_host<std::uint64_t>(b + BL_HDR_CREATED_NS, now_ns());
	std::uint64_t off = BL_HEADER_SIZE + BL_DESC_AREA_SIZE;
	for (std::uint32_t i = 0; i < n; i++) {
		unsigned char *l = b + BL_LEVEL_TABLE_OFF + i * BL_LEVEL_ENTRY_SIZE;
		const std::uint64_t size = kib[i] * 1024;
		store_host<std::uint64_t>(l + BL_LVL_RING_OFF, off);
		store_host<std::uint64_t>(l + BL_LVL_RING_SIZE, size);
		store_host<std::uint64_t>(l + BL_LVL_HEAD, 0);
		h->rings[i].data = b + off;
		h->rings[i].size = size;
		h->rings[i].head = reinterpret_cast<std::uint64_t *>(l + BL_LVL_HEAD);
		h->rings[i].mask = (size & (size - 1)) == 0 ? size - 1 : 0;
		off += size;
	}
	h->nlevels = n;
}

}  // namespace

namespace {

// ---- notes to the system log ----

// Appends `text` to buf[*used..cap - 1], cut to fit; async-signal-safe.
void append(char *buf, std::size_t cap, std::size_t *used, const char *text)
{
	while (*text && *used + 1 < cap)
		buf[(*used)++] = *text++;
	buf[*used] = '\0';
}

// Writes "<priority>ident[pid]: text" to the system log's socket. Made of
// system calls only, so that a signal handler may call it; the library
// notes at most twice per handle, so a socket per note costs nothing.
void note(const char *text)
{
	char msg[BL_NOTE_LEN];
	std::size_t used = 0;
	char num[24];
	auto decimal = [&num](unsigned long v) {
		char *p = num + sizeof num - 1;
		*p = '\0';
		do
			*--p = static_cast<char>('0' + v % 10);
		while ((v /= 10) != 0);
		return p;
	};
	append(msg, sizeof msg, &used, "<");
	append(msg, sizeof msg, &used, decimal(BL_NOTE_PRIORITY));
	append(msg, sizeof msg, &used, ">");
	append(msg, sizeof msg, &used, program_invocation_short_name);
	append(msg, sizeof msg, &used, "[");
	append(msg, sizeof msg, &used, decimal(static_cast<unsigned long>(getpid())));
	append(msg, sizeof msg, &used, "]: ");
	append(msg, sizeof msg, &used, text);

	const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd == -1)
		return;
	sockaddr_un to{};
	to.sun_family = AF_UNIX;
	std::memcpy(to.sun_path, BL_SYSLOG_PATH, std::strlen(BL_SYSLOG_PATH) + 1);
	(void)sendto(fd, msg, used, MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&to),
		     sizeof to);
	close(fd);
}

// The note of a handle that could not get its file: the trace is off.
void note_untraced(const bl_log *h, const char *file_name, const char *call, int err)
{
	char text[BL_NOTE_LEN];
	std::size_t used = 0;
	const char *where = h->path[0] ? h->path : file_name;
	const char *const parts[] = {"trace file ", where, ": ", call, ": ", std::strerror(err),
				     "; running without a trace"};
	for (const char *part : parts)
		append(text, sizeof text, &used, part);
	note(text);
}

// ---- the trace file ----

// Creates the trace file of `h` in $BREVLOG_DIR (else BL_DEFAULT_DIR) with
// all its blocks reserved, so that no later store into the mapping can meet
// a full file system. The file is made under a random temporary name with
// O_EXCL | O_NOFOLLOW, which no planted link can redirect, and renamed into
// place, after the previous run's file has been renamed to `file_name`.1;
// rename replaces a link rather than following it. Returns nullptr with
// h->fd and h->path set, or the name of the step that failed with errno set
// (nothing is left behind then, and the previous file stays in place).
const char *create_file(bl_log *h, const char *file_name, std::uint64_t total)
{
	const char *dir = std::getenv("BREVLOG_DIR");
	if (!dir || !*dir)
		dir = BL_DEFAULT_DIR;
	if (!make_dirs(dir))
		return "mkdir";
	char absdir[PATH_MAX];
	if (!realpath(dir, absdir))
		return "realpath";
	const int plen = std::snprintf(h->path, sizeof h->path, "%s/%s", absdir, file_name);
	char old[NAME_MAX + 1], temp[NAME_MAX + 1];
	const int olen = std::snprintf(old, sizeof old, "%s.1", file_name);
	if (plen < 0 || static_cast<std::size_t>(plen) >= sizeof h->path || olen < 0 ||
	    static_cast<std::size_t>(olen) >= sizeof old || std::strlen(file_name) + 19 > NAME_MAX) {
		errno = ENAMETOOLONG;
		return "path";
	}
	const int dirfd = open(absdir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (dirfd == -1)
		return "open directory";

	int fd = -1;
	for (int i = 0; i < BL_TEMP_TRIES && fd == -1; i++) {
		std::uint64_t r = 0;
		if (getrandom(&r, sizeof r, 0) != static_cast<ssize_t>(sizeof r))
			r = static_cast<std::uint64_t>(now_ns()) ^ static_cast<std::uint64_t>(getpid());
		std::snprintf(temp, sizeof temp, ".%s.%016llx", file_name, static_cast<unsigned long long>(r));
		fd = openat(dirfd, temp, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, BL_FILE_MODE);
		if (fd == -1 && errno != EEXIST)
			break;
	}
	const char *failed = nullptr;
	if (fd == -1)
		failed = "create";
	else if (fchmod(fd, BL_FILE_MODE) == -1)  // whatever the umask
		failed = "fchmod";
	else if (const int e = posix_fallocate(fd, 0, static_cast<off_t>(total)); e != 0) {
		errno = e;
		failed = "posix_fallocate";
	} else if (renameat(dirfd, file_name, dirfd, old) == -1 && errno != ENOENT)
		failed = "rename to .1";
	else if (renameat(dirfd, temp, dirfd, file_name) == -1)
		failed = "rename";
	const int e = errno;
	if (failed && fd != -1) {
		unlinkat(dirfd, temp, 0);
		close(fd);
		fd = -1;
	}
	close(dirfd);
	h->fd = fd;
	errno = e;
	return failed;
}

// ---- storage lost under the mapping ----

// A store into a mapped page whose file block is gone (the file was
// truncated: `: > file`, copytruncate) or cannot be written (an I/O error)
// raises SIGBUS. The handler puts anonymous memory in place of the whole
// mapping, so the interrupted store and every later one land there, marks
// the handle lost (bl_isInitialized is false from then on) and notes it in
// the system log. Any other SIGBUS goes to the disposition found at
// installation, as if the handler were not there.
constexpr int BL_MAX_WATCHED = 8;  // handles whose mappings the handler knows

struct bl_watch {
	bl_log *h;            // null: free entry
	unsigned char *base;  // the handle's mapping
	std::size_t size;     // bytes
};
bl_watch watched[BL_MAX_WATCHED];  // changed only outside the handler
bool bus_installed;
struct sigaction bus_previous;  // SIGBUS disposition before ours

void note_lost(const bl_log *h)
{
	char text[BL_NOTE_LEN];
	std::size_t used = 0;
	const char *where = h->path;
	const char *const parts[] = {"trace file ", where,
				     " lost its storage (truncated, or the file system failed); tracing is off"};
	for (const char *part : parts)
		append(text, sizeof text, &used, part);
	note(text);
}

void on_sigbus(int sig, siginfo_t *si, void *)
{
	const int saved_errno = errno;
	const auto *a = static_cast<const unsigned char *>(si->si_addr);
	if (si->si_code > 0) {  // raised by a fault, not sent
		for (bl_watch &w : watched) {
			if (!w.h || a < w.base || a >= w.base + w.size)
				continue;
			if (mmap(w.base, w.size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
				 -1, 0) == MAP_FAILED)
				break;  // the fault would only repeat
			if (!w.h->lost) {
				w.h->lost = 1;
				note_lost(w.h);
			}
			errno = saved_errno;
			return;  // the faulting store runs again, into the anonymous page
		}
	}
	// Not ours: a fault repeats on return and meets the previous
	// disposition; a sent signal is sent again.
	sigaction(SIGBUS, &bus_previous, nullptr);
	if (si->si_code <= 0)
		raise(sig);
	errno = saved_errno;
}

void watch_mapping(bl_log *h)
{
	for (bl_watch &w : watched) {
		if (w.h)
			continue;
		w.base = h->base;
		w.size = h->map_size;
		std::atomic_signal_fence(std::memory_order_seq_cst);
		w.h = h;
		break;
	}
	if (bus_installed)
		return;
	struct sigaction sa {};
	sa.sa_sigaction = on_sigbus;
	sa.sa_flags = SA_SIGINFO;
	sigemptyset(&sa.sa_mask);
	bus_installed = sigaction(SIGBUS, &sa, &bus_previous) == 0;
}

void unwatch_mapping(const bl_log *h)
{
	for (bl_watch &w : watched)
		if (w.h == h)
			w.h = nullptr;
	std::atomic_signal_fence(std::memory_order_seq_cst);
}

}  // namespace

const char *bl_type_name(std::uint8_t type)
{
	switch (static_cast<bl_type>(type)) {
	case BL_T_BOOL: return "bool";
	case BL_T_CHARP: return "charp";
	case BL_T_S32: return "s32";
	case BL_T_U16: return "u16";
	case BL_T_U32: return "u32";
	case BL_T_U64: return "u64";
	case BL_T_U8: return "u8";
	case BL_T_S64: return "s64";
	}
	return "unknown";
}

bl_log *bl_initialize_handle(const char *file_name, const char *sizes)
{
	std::uint64_t kib[BL_MAX_LEVELS];
	std::uint32_t n;
	if (!file_name || !*file_name || std::strchr(file_name, '/') || !parse_sizes(sizes, kib, &n)) {
		errno = EINVAL;
		return nullptr;
	}
	void *mem = std::calloc(1, sizeof(bl_log));
	if (!mem)
		return nullptr;
	bl_log *h = new (mem) bl_log;
	h->fd = -1;

	// From here on every failure is one of the environment (a missing or
	// read-only directory, a full file system): the handle is returned
	// uninitialised, so the program runs on without a trace, and the
	// system log says why, once.
	std::uint64_t total = BL_HEADER_SIZE + BL_DESC_AREA_SIZE;
	for (std::uint32_t i = 0; i < n; i++)
		total += kib[i] * 1024;
	const char *failed = create_file(h, file_name, total);
	if (failed) {
		const int e = errno;
		note_untraced(h, file_name, failed, e);
		errno = e;
		return h;
	}
	void *m = mmap(nullptr, total, PROT_READ | PROT_WRITE, MAP_SHARED, h->fd, 0);
	if (m == MAP_FAILED) {
		const int e = errno;
		note_untraced(h, file_name, "mmap", e);
		close(h->fd);
		h->fd = -1;
		errno = e;
		return h;
	}
	h->base = static_cast<unsigned char *>(m);
	h->map_size = total;
	watch_mapping(h);
	clock_init(&h->clock);
	write_header(h, kib, n);
	return h;
}

bool bl_isInitialized(const bl_log *h) { return h && h->base && !h->lost; }

void bl_close(bl_log *h)
{
	if (!h)
		return;
	unwatch_mapping(h);
	if (h->base)
		munmap(h->base, h->map_size);
	if (h->fd != -1)
		close(h->fd);
	h->~bl_log();
	std::free(h);
}

const char *bl_path(const bl_log *h) { return h ? h->path : ""; }

int bl_msgDescSize() { return static_cast<int>(sizeof(bl_desc_block)); }

void bl_msgDescInit(bl_log *h, void *desc, std::uint32_t *id, const char *file, int line)
{
	auto *b = static_cast<bl_desc_block *>(desc);
	std::memset(b, 0, sizeof *b);
	b->h = h;
	b->file = file ? file : "";
	b->line = line;
	if (!bl_isInitialized(h))
		return;
	std::atomic_ref<std::uint32_t> next(
		*reinterpret_cast<std::uint32_t *>(h->base + BL_HDR_NEXT_ID));
	b->msg_id = next.fetch_add(1, std::memory_order_relaxed);
	if (id)
		*id = b->msg_id;
}

void bl_startMsg(bl_log *h, std::uint64_t *slot, std::uint32_t id, int level)
{
	if (!h)
		return;
	// Claim stack[d] before touching it: a handler that runs between the
	// read and the write uses stack[d] itself and pops back to d before we
	// continue, so initialising it afterwards is safe.
	const int d = h->depth;
	h->depth = d + 1;
	std::atomic_signal_fence(std::memory_order_seq_cst);
	if (d < BL_MAX_OPEN_RECORDS) {
		bl_open_record *r = &h->stack[d];
		r->level = level;
		r->used = BL_REC_HDR_SIZE;
		store_host<std::uint32_t>(r->buf + BL_REC_MSG_ID, id);
		store_host<std::uint64_t>(r->buf + BL_REC_TIME_NS, record_time(h, d));
	}
	if (slot)
		*slot = static_cast<std::uint64_t>(d) + 1;
}

void bl_put_fmt_bool(bl_log *, void *desc, const bool *) { put_fmt(desc, BL_T_BOOL); }
void bl_put_fmt_charp(bl_log *, void *desc, const char *const *) { put_fmt(desc, BL_T_CHARP); }
void bl_put_fmt_s32(bl_log *, void *desc, const std::int32_t *) { put_fmt(desc, BL_T_S32); }
void bl_put_fmt_u16(bl_log *, void *desc, const std::uint16_t *) { put_fmt(desc, BL_T_U16); }
void bl_put_fmt_u32(bl_log *, void *desc, const std::uint32_t *) { put_fmt(desc, BL_T_U32); }
void bl_put_fmt_u64(bl_log *, void *desc, const std::uint64_t *) { put_fmt(desc, BL_T_U64); }
void bl_put_fmt_u8(bl_log *, void *desc, const std::uint8_t *) { put_fmt(desc, BL_T_U8); }
void bl_put_fmt_s64(bl_log *, void *desc, const std::int64_t *) { put_fmt(desc, BL_T_S64); }

void bl_put_type_bool(bl_log *h, int level, const bool *v)
{
	const std::uint8_t b = *v ? 1 : 0;
	put_value(h, level, BL_T_BOOL, &b);
}

void bl_put_type_charp(bl_log *h, int level, const char *const *v)
{
	if (!h)
		return;
	bl_open_record *r = open_record(h, level);
	constexpr std::uint32_t TEXT_HDR = BL_VALUE_TAG_LEN + BL_TEXT_LEN_SIZE;  // 3
	if (!r || r->used + TEXT_HDR > BL_MAX_RECORD)
		return;
	const char *s = *v ? *v : "(null)";
	// A text longer than the room left is cut to fit.
	const std::size_t room = BL_MAX_RECORD - r->used - TEXT_HDR;
	const std::size_t n = strnlen(s, room < BL_MAX_TEXT ? room : BL_MAX_TEXT);
	r->buf[r->used] = BL_T_CHARP;
	store_host<std::uint16_t>(r->buf + r->used + BL_VALUE_TAG_LEN, static_cast<std::uint16_t>(n));
	std::memcpy(r->buf + r->used + TEXT_HDR, s, n);
	r->used += static_cast<std::uint32_t>(TEXT_HDR + n);
}

void bl_put_type_s32(bl_log *h, int level, const std::int32_t *v) { put_value(h, level, BL_T_S32, v); }
void bl_put_type_u16(bl_log *h, int level, const std::uint16_t *v) { put_value(h, level, BL_T_U16, v); }
void bl_put_type_u32(bl_log *h, int level, const std::uint32_t *v) { put_value(h, level, BL_T_U32, v); }
void bl_put_type_u64(bl_log *h, int level, const std::uint64_t *v) { put_value(h, level, BL_T_U64, v); }
void bl_put_type_u8(bl_log *h, int level, const std::uint8_t *v) { put_value(h, level, BL_T_U8, v); }
void bl_put_type_s64(bl_log *h, int level, const std::int64_t *v) { put_value(h, level, BL_T_S64, v); }

void bl_addMsg(void *desc, const char *fmt)
{
	static_cast<bl_desc_block *>(desc)->fmt = fmt;
}

void bl_finish(void *desc)
{
	const auto *b = static_cast<const bl_desc_block *>(desc);
	bl_log *h = b->h;
	if (!bl_isInitialized(h) || b->msg_id == 0)
		return;
	const char *fmt = b->fmt ? b->fmt : "";
	const std::size_t file_len = strnlen(b->file, BL_MAX_TEXT);
	const std::size_t fmt_len = strnlen(fmt, BL_MAX_TEXT);
	const std::size_t body = BL_DESC_HDR_SIZE + b->nargs + file_len + fmt_len;
	const std::uint64_t len = (body + 7) & ~std::uint64_t{7};

	// Reserve; when the area is full the descriptor is dropped (its records
	// then show as an unknown message).
	const std::uint64_t desc_size = BL_DESC_AREA_SIZE;
	std::atomic_ref<std::uint64_t> used(
		*reinterpret_cast<std::uint64_t *>(h->base + BL_HDR_DESC_USED));
	const std::uint64_t off = used.fetch_add(len, std::memory_order_relaxed);
	if (off + len > desc_size || off % 8 != 0)
		return;

	unsigned char *e = h->base + BL_HEADER_SIZE + off;
	std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t *>(e + BL_DESC_ENTRY_LEN))
		.store(static_cast<std::uint32_t>(len), std::memory_order_relaxed);
	store_host<std::uint32_t>(e + BL_DESC_MSG_ID, b->msg_id);
	store_host<std::uint32_t>(e + BL_DESC_LINE, static_cast<std::uint32_t>(b->line));
	store_host<std::uint16_t>(e + BL_DESC_FILE_LEN, static_cast<std::uint16_t>(file_len));
	store_host<std::uint16_t>(e + BL_DESC_FMT_LEN, static_cast<std::uint16_t>(fmt_len));
	e[BL_DESC_NARGS] = b->nargs;
	std::memcpy(e + BL_DESC_TYPES, b->types, b->nargs);
	std::memcpy(e + BL_DESC_TYPES + b->nargs, b->file, file_len);
	std::memcpy(e + BL_DESC_TYPES + b->nargs + file_len, fmt, fmt_len);
	std::memset(e + body, 0, len - body);
	std::atomic_ref<std::uint32_t>(*reinterpret_cast<std::uint32_t *>(e + BL_DESC_MAGIC_OFF))
		.store(BL_DESC_MAGIC, std::memory_order_release);
}

void bl_endMsg(bl_log *h, int level)
{
	if (!h)
		return;
	const int d = h->depth;
	if (d <= 0)
		return;  // unpaired end: nothing is open
	if (d <= BL_MAX_OPEN_RECORDS && h->base) {
		bl_open_record *r = &h->stack[d - 1];
		if (r->level == level)
			commit(h, r);
	}
	// Pop only after the commit: a handler arriving during the commit
	// must not reuse this entry.
	std::atomic_signal_fence(std::memory_order_seq_cst);
	h->depth = d - 1;
}
