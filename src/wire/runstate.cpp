// runstate.cpp -- the run-state file (runstate.h): its path, its text, the
// daemon's atomic rewrite and the tools' bounded, strict read.
//
// Nothing here allocates: the writer runs in the daemon after control
// datagrams, and the text fits a stack buffer of RUN_STATE_TEXT_MAX + 1.
#include "runstate.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "wire.h"

static_assert(RUN_STATE_NAME_MAX == NAME_MAX);

namespace {

constexpr char HEADER[] = "orvalindwarden-state 1\n";
constexpr std::int64_t NSEC_PER_SEC = 1000000000;
constexpr int NSEC_DIGITS = 9;
constexpr int TEMP_TRIES = 8;                 // random names tried before giving up
constexpr std::size_t TEMP_HEX = 16;         // random hex digits of a temporary name

// ---- parsing: a cursor over the text, every step bounded by its end ----

struct cursor {
	const char *p;    // next byte
	const char *end;  // one past the last byte
};

// Consumes `lit` (without its NUL) when the text continues with it.
bool take(cursor *c, const char *lit)
{
	const std::size_t n = std::strlen(lit);
	if (static_cast<std::size_t>(c->end - c->p) < n || std::memcmp(c->p, lit, n) != 0)
		return false;
	c->p += n;
	return true;
}

// Consumes a decimal "0" | [1-9][0-9]* of at most `max`.
bool take_decimal(cursor *c, std::uint64_t max, std::uint64_t *out)
{
	if (c->p == c->end || *c->p < '0' || *c->p > '9')
		return false;
	if (*c->p == '0') {  // "0" alone: a leading zero is refused by what follows
		c->p++;
		*out = 0;
		return c->p == c->end || *c->p < '0' || *c->p > '9';
	}
	std::uint64_t v = 0;
	while (c->p != c->end && *c->p >= '0' && *c->p <= '9') {
		const std::uint64_t d = static_cast<std::uint64_t>(*c->p - '0');
		if (v > (max - d) / 10)
			return false;
		v = v * 10 + d;
		c->p++;
	}
	*out = v;
	return true;
}

// Consumes exactly nine digits.
bool take_nanoseconds(cursor *c, std::int64_t *out)
{
	if (c->end - c->p < NSEC_DIGITS)
		return false;
	std::int64_t v = 0;
	for (int i = 0; i < NSEC_DIGITS; i++, c->p++) {
		if (*c->p < '0' || *c->p > '9')
			return false;
		v = v * 10 + (*c->p - '0');
	}
	*out = v;
	return true;
}

// Consumes `key`, a decimal of at most `max` and the newline.
bool take_line(cursor *c, const char *key, std::uint64_t max, std::uint64_t *out)
{
	return take(c, key) && take_decimal(c, max, out) && take(c, "\n");
}

bool take_ipv4_line(cursor *c, std::uint32_t *net_order)
{
	if (!take(c, "source "))
		return false;
	std::uint8_t b[4];
	for (int i = 0; i < 4; i++) {
		std::uint64_t v;
		if ((i > 0 && !take(c, ".")) || !take_decimal(c, 0xFF, &v))
			return false;
		b[i] = static_cast<std::uint8_t>(v);
	}
	*net_order = load_host<std::uint32_t>(b);  // the bytes in wire order
	return take(c, "\n");
}

bool take_time_line(cursor *c, const char *key, std::int64_t *sec, std::int64_t *nsec)
{
	std::uint64_t s;
	if (!take(c, key) || !take_decimal(c, INT64_MAX, &s) || !take(c, ".") || !take_nanoseconds(c, nsec) ||
	    !take(c, "\n"))
		return false;
	*sec = static_cast<std::int64_t>(s);
	return true;
}

bool time_ok(std::int64_t sec, std::int64_t nsec)
{
	return sec >= 0 && nsec >= 0 && nsec < NSEC_PER_SEC;
}

// The directory part of `path` into `dir` and the last component into
// *base. False when `path` has no "/" or the directory does not fit.
bool split_path(const char *path, char dir[PATH_MAX], const char **base)
{
	const char *slash = std::strrchr(path, '/');
	if (slash == nullptr || slash[1] == '\0')
		return false;
	const std::size_t n = slash == path ? 1 : static_cast<std::size_t>(slash - path);
	if (n >= PATH_MAX)
		return false;
	std::memcpy(dir, path, n);
	dir[n] = '\0';
	*base = slash + 1;
	return true;
}

// Opens the directory `dir`, making it first when it is missing.
int open_dir(const char *dir)
{
	const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
	int fd = open(dir, flags);
	if (fd == -1 && errno == ENOENT) {
		if (mkdir(dir, RUN_STATE_DIR_MODE) == -1 && errno != EEXIST)
			return -1;
		fd = open(dir, flags);
		// The mode whatever the umask: readers of any user need it.
		if (fd != -1 && fchmod(fd, RUN_STATE_DIR_MODE) == -1) {
			const int e = errno;
			close(fd);
			errno = e;
			return -1;
		}
	}
	return fd;
}

// The temporary name of file `base` with random bits `r` (runstate.h).
void temp_name(char out[NAME_MAX + 1], const char *base, std::uint64_t r)
{
	if (std::strlen(base) + 2 + TEMP_HEX <= NAME_MAX)
		std::snprintf(out, NAME_MAX + 1, ".%s.%016" PRIx64, base, r);
	else
		std::snprintf(out, NAME_MAX + 1, ".state.%016" PRIx64, r);
}

// True when `name` is a temporary name of file `base`.
bool is_temp_of(const char *name, const char *base)
{
	const std::size_t n = std::strlen(base);
	if (name[0] != '.' || std::strncmp(name + 1, base, n) != 0 || name[n + 1] != '.')
		return false;
	const char *hex = name + n + 2;
	return std::strlen(hex) == TEMP_HEX && std::strspn(hex, "0123456789abcdef") == TEMP_HEX;
}

// Writes all `len` bytes of `buf` to `fd`.
bool write_all(int fd, const char *buf, std::size_t len)
{
	while (len > 0) {
		const ssize_t n = write(fd, buf, len);
		if (n == -1 && errno == EINTR)
			continue;
		if (n <= 0) {
			if (n == 0)
				errno = EIO;
			return false;
		}
		buf += n;
		len -= static_cast<std::size_t>(n);
	}
	return true;
}

}  // namespace

int run_state_path(char *buf, std::size_t cap, const char *object_name)
{
	if (cap > 0)
		buf[0] = '\0';
	while (*object_name == '/')
		object_name++;
	const std::size_t n = std::strlen(object_name);
	if (n == 0 || std::strchr(object_name, '/') != nullptr || std::strcmp(object_name, ".") == 0 ||
	    std::strcmp(object_name, "..") == 0 || n + sizeof RUN_STATE_SUFFIX - 1 > RUN_STATE_NAME_MAX)
		return -1;
	const int len = std::snprintf(buf, cap, "%s/%s%s", RUN_STATE_DIR, object_name, RUN_STATE_SUFFIX);
	if (len < 0 || static_cast<std::size_t>(len) >= cap) {
		if (cap > 0)
			buf[0] = '\0';
		return -1;
	}
	return 0;
}

std::size_t run_state_format(const run_state &s, char *buf, std::size_t cap)
{
	if (s.pid <= 0 || !time_ok(s.since_sec, s.since_nsec) || !time_ok(s.started_sec, s.started_nsec))
		return 0;
	const int len = std::snprintf(
		buf, cap,
		"%spid %" PRId32 "\ndiscriminator %" PRIu32 "\nsource %s\nmin_rx %" PRIu32
		"\nadmin_down %u\nsince %" PRId64 ".%09" PRId64 "\nstarted %" PRId64 ".%09" PRId64 "\n",
		HEADER, s.pid, s.discriminator, ipv4_dotted(s.source_ip).text, s.min_rx,
		static_cast<unsigned>(s.admin_down), s.since_sec, s.since_nsec, s.started_sec, s.started_nsec);
	if (len < 0 || static_cast<std::size_t>(len) >= cap)
		return 0;
	return static_cast<std::size_t>(len);
}

int run_state_write(const char *path, const run_state &s)
{
	char text[RUN_STATE_TEXT_MAX + 1];
	const std::size_t len = run_state_format(s, text, sizeof text);
	char dir[PATH_MAX];
	const char *base = nullptr;
	if (len == 0 || !split_path(path, dir, &base)) {
		errno = EINVAL;
		return -1;
	}
	const int dirfd = open_dir(dir);
	if (dirfd == -1)
		return -1;

	// A fresh name each time: O_EXCL refuses whatever already lies there,
	// a link included, and O_NOFOLLOW says so for the last component.
	char temp[NAME_MAX + 1];
	int fd = -1;
	for (int i = 0; i < TEMP_TRIES && fd == -1; i++) {
		std::uint64_t r = 0;
		if (getrandom(&r, sizeof r, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof r)) {
			timespec ts{};
			clock_gettime(CLOCK_MONOTONIC, &ts);
			r = static_cast<std::uint64_t>(ts.tv_nsec) ^ (static_cast<std::uint64_t>(getpid()) << 32) ^
			    static_cast<std::uint64_t>(i);
		}
		temp_name(temp, base, r);
		fd = openat(dirfd, temp, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, RUN_STATE_FILE_MODE);
		if (fd == -1 && errno != EEXIST)
			break;
	}
	if (fd == -1) {
		const int e = errno;
		close(dirfd);
		errno = e;
		return -1;
	}
	bool ok = fchmod(fd, RUN_STATE_FILE_MODE) == 0 && write_all(fd, text, len);
	int e = errno;
	if (close(fd) == -1 && ok) {
		ok = false;
		e = errno;
	}
	if (ok && renameat(dirfd, temp, dirfd, base) == -1) {
		ok = false;
		e = errno;
	}
	if (!ok)
		unlinkat(dirfd, temp, 0);
	close(dirfd);
	errno = e;
	return ok ? 0 : -1;
}

int run_state_clean(const char *path)
{
	char dir[PATH_MAX];
	const char *base = nullptr;
	if (!split_path(path, dir, &base)) {
		errno = EINVAL;
		return -1;
	}
	const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
	if (fd == -1)
		return errno == ENOENT ? 0 : -1;
	DIR *d = fdopendir(fd);
	if (d == nullptr) {
		const int e = errno;
		close(fd);
		errno = e;
		return -1;
	}
	int removed = 0;
	while (const dirent *entry = readdir(d))
		if (is_temp_of(entry->d_name, base) && unlinkat(fd, entry->d_name, 0) == 0)
			removed++;
	closedir(d);
	return removed;
}

bool run_state_parse(std::span<const char> text, run_state *out)
{
	cursor c{text.data(), text.data() + text.size()};
	run_state s{};
	std::uint64_t pid, disc, min_rx, admin;
	if (!take(&c, HEADER) || !take_line(&c, "pid ", INT32_MAX, &pid) || pid == 0 ||
	    !take_line(&c, "discriminator ", UINT32_MAX, &disc) || !take_ipv4_line(&c, &s.source_ip) ||
	    !take_line(&c, "min_rx ", UINT32_MAX, &min_rx) || !take_line(&c, "admin_down ", UINT8_MAX, &admin) ||
	    !take_time_line(&c, "since ", &s.since_sec, &s.since_nsec) ||
	    !take_time_line(&c, "started ", &s.started_sec, &s.started_nsec) || c.p != c.end)
		return false;
	s.pid = static_cast<std::int32_t>(pid);
	s.discriminator = static_cast<std::uint32_t>(disc);
	s.min_rx = static_cast<std::uint32_t>(min_rx);
	s.admin_down = static_cast<std::uint8_t>(admin);
	*out = s;
	return true;
}

const char *run_state_status_name(int status)
{
	switch (static_cast<run_state_status>(status)) {
	case RUN_STATE_OK: return "ok";
	case RUN_STATE_ERR_SYSTEM: return "system error";
	case RUN_STATE_ERR_NOT_REGULAR: return "not a regular file";
	case RUN_STATE_ERR_TOO_LARGE: return "larger than 4096 bytes";
	case RUN_STATE_ERR_FORMAT: return "not a run-state file";
	}
	return "unknown";
}
static_assert(RUN_STATE_FILE_MAX == 4096, "update run_state_status_name");

int run_state_read(const char *path, run_state *out)
{
	const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
	if (fd == -1)
		return errno == ELOOP ? RUN_STATE_ERR_NOT_REGULAR : RUN_STATE_ERR_SYSTEM;
	struct stat st;
	if (fstat(fd, &st) == -1) {
		const int e = errno;
		close(fd);
		errno = e;
		return RUN_STATE_ERR_SYSTEM;
	}
	if (!S_ISREG(st.st_mode)) {
		close(fd);
		return RUN_STATE_ERR_NOT_REGULAR;
	}
	// One byte more than allowed tells a larger file, whatever st_size says.
	char buf[RUN_STATE_FILE_MAX + 1];
	std::size_t len = 0;
	while (len < sizeof buf) {
		const ssize_t n = read(fd, buf + len, sizeof buf - len);
		if (n == -1 && errno == EINTR)
			continue;
		if (n == -1) {
			const int e = errno;
			close(fd);
			errno = e;
			return RUN_STATE_ERR_SYSTEM;
		}
		if (n == 0)
			break;
		len += static_cast<std::size_t>(n);
	}
	close(fd);
	if (len > RUN_STATE_FILE_MAX)
		return RUN_STATE_ERR_TOO_LARGE;
	return run_state_parse({buf, len}, out) ? RUN_STATE_OK : RUN_STATE_ERR_FORMAT;
}
