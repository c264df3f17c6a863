// shmstat.cpp -- private copy, plausibility rules and the three renderings
// (text, JSON, node_exporter textfile) of the reflector's shared session
// store. Layout and rules are described in shmstat.h.
#include "shmstat.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cerrno>
#include <cstdarg>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "runstate.h"
#include "shmhist.h"
#include "unique_fd.h"
#include "wire.h"

namespace {

constexpr std::int64_t NSEC_PER_SEC = 1000000000;
constexpr int COPY_ATTEMPTS = 20;  // pairs of copies before settling for an unstable one

// Unmaps a mapping when it goes out of scope.
struct unique_map {
	void *addr;
	std::size_t len;
	~unique_map()
	{
		if (addr != MAP_FAILED)
			munmap(addr, len);
	}
};

shm_timestamp now_realtime()
{
	timespec ts{};
	clock_gettime(CLOCK_REALTIME, &ts);
	return shm_timestamp{ts.tv_sec, ts.tv_nsec};
}

bool ts_is_zero(const shm_timestamp &t) { return t.tv_sec == 0 && t.tv_nsec == 0; }

bool ts_plausible(const shm_timestamp &t) { return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < NSEC_PER_SEC; }


// Seconds from `then` to `now`, never negative (a clock set back shows 0).
double seconds_since(const shm_timestamp &then, const shm_timestamp &now)
{
	// In doubles: a store's time stamps may hold any value, and a difference
	// of two int64 values can overflow.
	double d = (double(now.tv_sec) - double(then.tv_sec)) +
		   (double(now.tv_nsec) - double(then.tv_nsec)) / 1e9;
	return d > 0 ? d : 0;
}

std::string printf_string(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string printf_string(const char *fmt, ...)
{
	char buf[256];
	va_list ap;
	va_start(ap, fmt);
	vsnprintf(buf, sizeof buf, fmt, ap);
	va_end(ap);
	return buf;
}

// "42s", "3m05s", "2h07m", "4d03h"; "never" for a time stamp never set.
std::string age_text(const shm_timestamp &then, const shm_timestamp &now)
{
	if (ts_is_zero(then))
		return "never";
	// Ages beyond a million days are shown as that (and the cast stays defined).
	auto s = std::uint64_t(std::min(seconds_since(then, now), 86400e6));
	if (s < 60)
		return printf_string("%" PRIu64 "s", s);
	if (s < 3600)
		return printf_string("%" PRIu64 "m%02" PRIu64 "s", s / 60, s % 60);
	if (s < 86400)
		return printf_string("%" PRIu64 "h%02" PRIu64 "m", s / 3600, s % 3600 / 60);
	return printf_string("%" PRIu64 "d%02" PRIu64 "h", s / 86400, s % 86400 / 3600);
}

// A gap in microseconds: "850us", "12.5ms", "1.00s".
std::string gap_text(std::uint64_t us)
{
	if (us < 1000)
		return printf_string("%" PRIu64 "us", us);
	if (us < 1000000)
		return printf_string("%.1fms", double(us) / 1e3);
	return printf_string("%.2fs", double(us) / 1e6);
}

const char *group_title(shmstat_group g)
{
	switch (g) {
	case shmstat_group::global: return "Packets";
	case shmstat_group::hash: return "Session lookups (this period of 512 valid packets)";
	case shmstat_group::rx_error: return "Receive errors";
	case shmstat_group::tx_error: return "Transmit errors";
	}
	return "unknown";
}

// Increase of a counter of `size` bytes from `before` to `after`, across a wrap.
std::uint64_t counter_delta(std::uint64_t before, std::uint64_t after, std::size_t size)
{
	std::uint64_t d = after - before;
	return size == 8 ? d : d & 0xFFFFFFFFu;
}

// Columns of a text table; numeric columns are right-aligned. A row of one
// cell is a title line: printed as it is, outside the column widths.
struct text_table {
	std::vector<std::string> head;
	std::vector<bool> right;
	std::vector<std::vector<std::string>> rows;

	std::string render() const
	{
		std::vector<std::size_t> w(head.size());
		for (std::size_t c = 0; c < head.size(); c++)
			w[c] = head[c].size();
		for (const auto &r : rows)
			if (r.size() > 1)
				for (std::size_t c = 0; c < r.size(); c++)
					w[c] = std::max(w[c], r[c].size());
		std::string out;
		auto line = [&](const std::vector<std::string> &cells) {
			std::string l;
			for (std::size_t c = 0; c < cells.size(); c++) {
				std::string pad(w[c] - cells[c].size(), ' ');
				l += right[c] ? pad + cells[c] : cells[c] + pad;
				if (c + 1 < cells.size())
					l += "  ";
			}
			while (!l.empty() && l.back() == ' ')
				l.pop_back();
			out += l + "\n";
		};
		line(head);
		for (const auto &r : rows)
			if (r.size() == 1)
				out += r[0] + "\n";
			else
				line(r);
		return out;
	}
};

// The head of a counter table: the name, the value under `value_title`
// and, with `rates`, the value per second.
text_table counter_table(const char *value_title, bool rates)
{
	text_table t{{"COUNTER", value_title}, {false, true}, {}};
	if (rates) {
		t.head.push_back("PER SECOND");
		t.right.push_back(true);
	}
	return t;
}

}  // namespace

namespace {
constexpr std::array<shmstat_counter, 19> COUNTER_TABLE = {{
	{"rx_drops", shmstat_group::global, offsetof(reflector_shm, rx_drops), sizeof(reflector_shm::rx_drops),
	 "Received frames dropped by the receive path."},
	{"tx_sends", shmstat_group::global, offsetof(reflector_shm, tx_sends), sizeof(reflector_shm::tx_sends),
	 "Replies sent with their full length."},
	{"rx_valid_pkts", shmstat_group::global, offsetof(reflector_shm, rx_valid_pkts), sizeof(reflector_shm::rx_valid_pkts),
	 "Control packets that passed validation."},
	{"pkt_truncated", shmstat_group::rx_error, offsetof(reflector_shm, pkt_truncated), sizeof(reflector_shm::pkt_truncated),
	 "Rejected: packet shorter than a control packet."},
	{"bad_version", shmstat_group::rx_error, offsetof(reflector_shm, bad_version), sizeof(reflector_shm::bad_version),
	 "Rejected: version not 1."},
	{"invalid_pkt_len", shmstat_group::rx_error, offsetof(reflector_shm, invalid_pkt_len), sizeof(reflector_shm::invalid_pkt_len),
	 "Rejected: Length field greater than the received length."},
	{"invalid_src_port", shmstat_group::rx_error, offsetof(reflector_shm, invalid_src_port), sizeof(reflector_shm::invalid_src_port),
	 "Rejected: UDP source port 7784."},
	{"demand_mode_unset", shmstat_group::rx_error, offsetof(reflector_shm, demand_mode_unset), sizeof(reflector_shm::demand_mode_unset),
	 "Rejected: D bit clear."},
	{"invalid_detect_mult", shmstat_group::rx_error, offsetof(reflector_shm, invalid_detect_mult), sizeof(reflector_shm::invalid_detect_mult),
	 "Rejected: Detect Mult zero."},
	{"invalid_my_disc", shmstat_group::rx_error, offsetof(reflector_shm, invalid_my_disc), sizeof(reflector_shm::invalid_my_disc),
	 "Rejected: My Discriminator zero."},
	{"your_disc_unmatch", shmstat_group::rx_error, offsetof(reflector_shm, your_disc_unmatch), sizeof(reflector_shm::your_disc_unmatch),
	 "Rejected: Your Discriminator is not the reflector's."},
	{"invalid_bfd_state", shmstat_group::rx_error, offsetof(reflector_shm, invalid_bfd_state), sizeof(reflector_shm::invalid_bfd_state),
	 "Rejected: initiator state AdminDown or Init."},
	{"unsupported", shmstat_group::rx_error, offsetof(reflector_shm, unsupported), sizeof(reflector_shm::unsupported),
	 "Frames of a kind the reflector does not handle."},
	{"invalid_pkt_format", shmstat_group::rx_error, offsetof(reflector_shm, invalid_pkt_format), sizeof(reflector_shm::invalid_pkt_format),
	 "Frames whose IP payload is not UDP."},
	{"sendto_fail", shmstat_group::tx_error, offsetof(reflector_shm, sendto_fail), sizeof(reflector_shm::sendto_fail),
	 "Failed send attempts."},
	{"wrong_len_sent", shmstat_group::tx_error, offsetof(reflector_shm, wrong_len_sent), sizeof(reflector_shm::wrong_len_sent),
	 "Sends that returned a length other than the reply's."},
	{"rx_hash_miss", shmstat_group::hash, offsetof(reflector_shm, rx_hash_miss), sizeof(reflector_shm::rx_hash_miss),
	 "Session lookups that found no session, this period."},
	{"rx_hash_hit", shmstat_group::hash, offsetof(reflector_shm, rx_hash_hit), sizeof(reflector_shm::rx_hash_hit),
	 "Session lookups that found their session, this period."},
	{"rx_hash_trim", shmstat_group::hash, offsetof(reflector_shm, rx_hash_trim), sizeof(reflector_shm::rx_hash_trim),
	 "Sessions evicted to make room, this period."},
}};

}  // namespace

const std::array<shmstat_counter, 19> SHMSTAT_COUNTERS = COUNTER_TABLE;

static_assert([] {
	std::size_t sum = 0;
	for (const auto &c : COUNTER_TABLE)
		sum += c.size;
	return sum;
}() == SHM_HEADER_SIZE, "SHMSTAT_COUNTERS must cover every header counter");

std::uint64_t shmstat_counter_value(const shmstat_counter &c, const reflector_shm &store)
{
	const char *p = reinterpret_cast<const char *>(&store) + c.offset;
	if (c.size == sizeof(std::uint64_t)) {
		std::uint64_t v;
		std::memcpy(&v, p, sizeof v);
		return v;
	}
	std::uint32_t v;
	std::memcpy(&v, p, sizeof v);
	return v;
}

const char *shmstat_status_name(shmstat_status status)
{
	switch (status) {
	case SHMSTAT_OK: return "ok";
	case SHMSTAT_NOT_FOUND: return "not found";
	case SHMSTAT_NO_ACCESS: return "no access";
	case SHMSTAT_OPEN_FAILED: return "open failed";
	case SHMSTAT_WRONG_SIZE: return "wrong size";
	case SHMSTAT_NOT_A_STORE: return "not a store";
	}
	return "unknown";
}

std::string shmstat_object_name(const char *object, const char *nspath)
{
	if (object) {
		while (*object == '/')
			object++;
		return object;
	}
	char name[SHM_NAME_LEN];
	shm_store_name(name, nspath);
	return name;
}

shmstat_status shmstat_read(const std::string &name, shmstat_snapshot *snap, std::string *err)
{
	// Open read-only: the reader must never create or resize the object.
	unique_fd fd{shm_open(name.c_str(), O_RDONLY, 0)};
	if (fd.get() < 0) {
		int e = errno;
		if (e == ENOENT) {
			*err = "no shared store \"" + name + "\" (is the daemon running with this NSPATH?)";
			return SHMSTAT_NOT_FOUND;
		}
		*err = "cannot open shared store \"" + name + "\": " + std::strerror(e);
		return e == EACCES ? SHMSTAT_NO_ACCESS : SHMSTAT_OPEN_FAILED;
	}
	struct stat st {};
	if (fstat(fd.get(), &st) == -1) {
		*err = "cannot stat shared store \"" + name + "\": " + std::strerror(errno);
		return SHMSTAT_OPEN_FAILED;
	}
	if (st.st_size != off_t(SHM_SIZE)) {
		*err = "\"" + name + "\" is not a session store: " + std::to_string(st.st_size) +
		       " bytes, a store has " + std::to_string(SHM_SIZE);
		return SHMSTAT_WRONG_SIZE;
	}
	unique_map map{mmap(nullptr, SHM_SIZE, PROT_READ, MAP_SHARED, fd.get(), 0), SHM_SIZE};
	if (map.addr == MAP_FAILED) {
		*err = "cannot map shared store \"" + name + "\": " + std::strerror(errno);
		return SHMSTAT_OPEN_FAILED;
	}

	// Copy until two successive copies agree: the daemon writes without
	// locks, and one copy may catch a slot half cleared or half updated.
	auto second = std::make_unique<reflector_shm>();
	snap->stable = false;
	for (int i = 0; i < COPY_ATTEMPTS && !snap->stable; i++) {
		std::memcpy(&snap->store, map.addr, SHM_SIZE);
		std::memcpy(second.get(), map.addr, SHM_SIZE);
		snap->stable = std::memcmp(&snap->store, second.get(), SHM_SIZE) == 0;
	}
	snap->taken = now_realtime();
	snap->inode = st.st_ino;

	std::string why;
	if (!shmstat_plausible(snap->store, snap->stable, &why)) {
		*err = "\"" + name + "\" is not a session store: " + why;
		return SHMSTAT_NOT_A_STORE;
	}
	return SHMSTAT_OK;
}

bool shmstat_plausible(const reflector_shm &store, bool cross, std::string *why)
{
	static const reflector_session zero_slot{};
	for (std::uint32_t k = 0; k < MAX_SESSIONS; k++) {
		const reflector_session &s = store.sessions[k];
		std::string slot = "slot " + std::to_string(k) + ": ";
		if (s.discriminator == 0) {
			if (cross && std::memcmp(&s, &zero_slot, sizeof s) != 0) {
				*why = slot + "free but not zero";
				return false;
			}
			continue;
		}
		if (s.state > BFD_STATE_MAX || s.prev_state > BFD_STATE_MAX || s.tx_state > BFD_STATE_MAX ||
		    s.prev_tx_state > BFD_STATE_MAX) {
			*why = slot + "state out of range";
			return false;
		}
		if (s.diag > BFD_DIAG_MAX || s.tx_diag > BFD_DIAG_MAX || s.version > BFD_VERSION_MAX) {
			*why = slot + "diagnostic or version out of range";
			return false;
		}
		if (s.demand > 1 || s.final > 1 || s.poll > 1) {
			*why = slot + "flag not 0 or 1";
			return false;
		}
		if (s.reserved[0] != 0 || s.reserved[1] != 0) {
			*why = slot + "reserved bytes not zero";
			return false;
		}
		if (!ts_plausible(s.last_rx) || !ts_plausible(s.last_state_change) || !ts_plausible(s.last_tx) ||
		    !ts_plausible(s.last_tx_state_change)) {
			*why = slot + "time stamp out of range";
			return false;
		}
	}
	if (cross) {
		// The hash counters restart with the lookup at which rx_valid_pkts
		// is a multiple of 512; the packet is counted before its lookup.
		std::uint64_t v = store.rx_valid_pkts;
		std::uint64_t in_period = v & HASH_PERIOD_MASK;
		std::uint64_t limit = v <= HASH_PERIOD_MASK ? v : in_period == 0 ? MAX_SESSIONS : in_period + 1;
		if (store.rx_hash_trim > store.rx_hash_miss) {
			*why = "rx_hash_trim above rx_hash_miss";
			return false;
		}
		if (std::uint64_t(store.rx_hash_hit) + store.rx_hash_miss > limit) {
			*why = "hash counters above the lookups of the current period";
			return false;
		}
	}
	return true;
}

std::vector<std::uint32_t> shmstat_sessions(const reflector_shm &store)
{
	std::vector<std::uint32_t> v;
	for (std::uint32_t k = 0; k < MAX_SESSIONS; k++)
		if (store.sessions[k].discriminator != 0)
			v.push_back(k);
	std::stable_sort(v.begin(), v.end(), [&](std::uint32_t a, std::uint32_t b) {
		const shm_timestamp &x = store.sessions[a].last_rx, &y = store.sessions[b].last_rx;
		return x.tv_sec != y.tv_sec ? x.tv_sec > y.tv_sec : x.tv_nsec > y.tv_nsec;
	});
	return v;
}

std::uint64_t shmstat_detect_time_us(const reflector_session &s)
{
	return std::max(std::uint64_t(s.detect_multiplier) * s.desired_min_tx, SHMSTAT_SILENT_FLOOR_US);
}

bool shmstat_silent(const reflector_session &s, const shm_timestamp &now)
{
	// In 128 bits: hostile time stamps may lie anywhere in 64 bits of seconds.
	const __int128 age_ns = (__int128(now.tv_sec) - s.last_rx.tv_sec) * NSEC_PER_SEC + (now.tv_nsec - s.last_rx.tv_nsec);
	return age_ns > __int128(shmstat_detect_time_us(s)) * 1000;
}

bool shmstat_maps_hold(std::string_view maps, const std::string &path, std::uint64_t inode)
{
	// A line: "start-end perms offset dev inode   path", the path running to
	// the end of the line (it may hold spaces).
	while (!maps.empty()) {
		std::size_t eol = maps.find('\n');
		std::string_view line = maps.substr(0, eol);
		maps = eol == std::string_view::npos ? std::string_view{} : maps.substr(eol + 1);
		std::string_view field[5];
		bool whole = true;
		for (auto &f : field) {
			std::size_t end = line.find(' ');
			if (end == std::string_view::npos) {
				whole = false;
				break;
			}
			f = line.substr(0, end);
			line.remove_prefix(end);
			line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
		}
		if (!whole || line != path || field[1].size() != 4 || field[1].substr(0, 2) != "rw" || field[1][3] != 's')
			continue;
		std::uint64_t ino = 0;
		const char *first = field[4].data(), *last = first + field[4].size();
		auto [end, ec] = std::from_chars(first, last, ino);
		if (ec == std::errc{} && end == last && ino == inode)
			return true;
	}
	return false;
}

namespace {

enum class maps_read { holds, not_held, unreadable };

maps_read pid_maps_hold(long pid, const std::string &path, std::uint64_t inode)
{
	unique_fd fd{open(("/proc/" + std::to_string(pid) + "/maps").c_str(), O_RDONLY | O_CLOEXEC)};
	if (fd.get() < 0)
		return errno == EACCES || errno == EPERM ? maps_read::unreadable : maps_read::not_held;
	std::string text;
	char buf[65536];
	for (ssize_t n; (n = read(fd.get(), buf, sizeof buf)) != 0;) {
		if (n < 0) {
			if (errno == EINTR)
				continue;
			return errno == EACCES || errno == EPERM ? maps_read::unreadable : maps_read::not_held;
		}
		text.append(buf, std::size_t(n));
		// Check whole lines as they come: a large process's maps need not be held at once.
		std::size_t cut = text.rfind('\n');
		if (cut != std::string::npos) {
			if (shmstat_maps_hold(std::string_view(text).substr(0, cut + 1), path, inode))
				return maps_read::holds;
			text.erase(0, cut + 1);
		}
	}
	return shmstat_maps_hold(text, path, inode) ? maps_read::holds : maps_read::not_held;
}

}  // namespace

long shmstat_find_holder(const std::string &name, const shmstat_snapshot &snap, long hint)
{
	const std::string path = "/dev/shm/" + name;
	if (hint > 0) {
		switch (pid_maps_hold(hint, path, snap.inode)) {
		case maps_read::holds: return hint;
		case maps_read::unreadable:
			// Another user's process: alive is the best proof at hand.
			if (kill(pid_t(hint), 0) == 0 || errno == EPERM)
				return hint;
			break;
		case maps_read::not_held: break;
		}
	}
	std::unique_ptr<DIR, int (*)(DIR *)> proc{opendir("/proc"), closedir};
	if (!proc)
		return 0;
	const long self = getpid();
	while (const dirent *e = readdir(proc.get())) {
		char *end = nullptr;
		long pid = std::strtol(e->d_name, &end, 10);
		if (end == e->d_name || *end != '\0' || pid <= 0 || pid == self || pid == hint)
			continue;
		if (pid_maps_hold(pid, path, snap.inode) == maps_read::holds)
			return pid;
	}
	return 0;
}

shmstat_daemon shmstat_probe_daemon(const std::string &name, const shmstat_snapshot &snap, const char *state_path)
{
	shmstat_daemon d;
	char path[512];
	if (state_path == nullptr) {
		if (run_state_path(path, sizeof path, name.c_str()) != 0) {
			d.pid = shmstat_find_holder(name, snap, 0);
			d.config_unknown = "no run-state file name for this store";
			return d;
		}
		state_path = path;
	}
	run_state rs{};
	errno = 0;
	const int status = run_state_read(state_path, &rs);
	const int read_errno = errno;
	d.pid = shmstat_find_holder(name, snap, status == RUN_STATE_OK ? rs.pid : 0);
	if (status == RUN_STATE_ERR_SYSTEM && read_errno == ENOENT) {
		d.config_unknown = "no run-state file " + std::string(state_path);
	} else if (status == RUN_STATE_ERR_SYSTEM) {
		d.config_unknown = "run-state file " + std::string(state_path) + " unreadable: " + std::strerror(read_errno);
	} else if (status != RUN_STATE_OK) {
		d.config_unknown = "run-state file " + std::string(state_path) + " unreadable: " + run_state_status_name(status);
	} else if (d.pid != rs.pid) {
		// A daemon killed leaves its file behind; the pid may live on in another process.
		d.config_unknown = "stale run-state file: pid " + std::to_string(rs.pid) +
				   (d.pid > 0 ? " does not hold the store" : " is not running");
	} else {
		d.config_known = true;
		d.config = {rs.discriminator, rs.source_ip, rs.min_rx, rs.admin_down != 0, {rs.since_sec, rs.since_nsec},
			    {rs.started_sec, rs.started_nsec}};
	}
	return d;
}

namespace {

// "2024-06-01 12:00:00 +0200", local time.
std::string local_time_text(const shm_timestamp &t)
{
	char when[64];
	time_t tt = time_t(t.tv_sec);
	tm lt{};
	if (localtime_r(&tt, &lt) == nullptr || strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S %z", &lt) == 0)
		return std::to_string(t.tv_sec);
	return when;
}

// The sessions a rendering lists: all in use, or the silent ones only.
std::vector<std::uint32_t> listed_sessions(const shmstat_snapshot &snap, const shmstat_view &view,
					   std::size_t *in_use, std::size_t *silent)
{
	std::vector<std::uint32_t> all = shmstat_sessions(snap.store), shown;
	*in_use = all.size();
	*silent = 0;
	for (std::uint32_t k : all) {
		bool quiet = shmstat_silent(snap.store.sessions[k], snap.taken);
		*silent += quiet;
		if (quiet || !view.silent_only)
			shown.push_back(k);
	}
	return shown;
}

// The daemon line and the configuration line of the text report.
std::string daemon_text(const shmstat_daemon &d, const shm_timestamp &now)
{
	std::string out = d.pid > 0 ? "daemon: pid " + std::to_string(d.pid) : std::string("daemon: none holds the store");
	if (d.pid > 0 && d.config_known)
		out += ", started " + local_time_text(d.config.started) + " (" + age_text(d.config.started, now) + " ago)";
	out += "\nconfiguration: ";
	if (!d.config_known)
		return out + "unknown" + (d.config_unknown.empty() ? "" : " (" + d.config_unknown + ")") + "\n";
	const shmstat_config &c = d.config;
	return out + "discriminator " + std::to_string(c.discriminator) + ", source " + ipv4_dotted(c.source_ip).text +
	       ", min_rx " + std::to_string(c.min_rx) + "us, " + (c.admin_down ? "admin down" : "admin up") +
	       ", since " + local_time_text(c.since) + " (" + age_text(c.since, now) + " ago)\n";
}

}  // namespace

std::string shmstat_format_text(const shmstat_snapshot &snap, const std::string &name,
				const shmstat_snapshot *prev, const shmstat_view &view)
{
	const reflector_shm &st = snap.store;
	double dt = prev ? seconds_since(prev->taken, snap.taken) : 0;
	bool rates = prev && dt > 0;
	std::string out;

	// Title: object and time of the copy; then who holds it, with what.
	out += "store " + name + " at " + local_time_text(snap.taken) +
	       (snap.stable ? "" : " (copy taken while the daemon wrote)") + "\n";
	out += daemon_text(view.daemon, snap.taken);

	// Counters, group by group, in one table so that the columns line up.
	text_table ct = counter_table("TOTAL", rates);
	for (shmstat_group g : {shmstat_group::global, shmstat_group::hash, shmstat_group::rx_error,
				shmstat_group::tx_error}) {
		ct.rows.push_back({group_title(g)});
		for (const auto &c : SHMSTAT_COUNTERS) {
			if (c.group != g)
				continue;
			std::vector<std::string> row = {"  " + std::string(c.name),
							std::to_string(shmstat_counter_value(c, st))};
			// The hash counters restart every period: a rate would mislead.
			if (rates)
				row.push_back(g == shmstat_group::hash
						      ? "-"
						      : printf_string("%.1f", double(counter_delta(
										 shmstat_counter_value(c, prev->store),
										 shmstat_counter_value(c, st), c.size)) /
										 dt));
			ct.rows.push_back(row);
		}
	}
	out += "\n" + ct.render();

	// Sessions, most recently heard first.
	std::size_t in_use, silent;
	std::vector<std::uint32_t> slots = listed_sessions(snap, view, &in_use, &silent);
	out += "\nSessions in use: " + std::to_string(in_use) + " of " + std::to_string(MAX_SESSIONS) + ", " +
	       std::to_string(silent) + " silent" + (view.silent_only ? "; the silent ones" : "") +
	       ", most recently heard first\n";
	if (slots.empty())
		return out;
	text_table tb;
	tb.head = {"DISCRIMINATOR", "ADDRESS:PORT", "STATE", "CHANGED", "LAST RX", "DETECT", "SILENT", "RECEIVED",
		   "SENT", "GAP MIN/AVG/MAX", "REPLY", "DIAG"};
	tb.right = {true, false, false, true, true, true, false, true, true, false, false, false};
	constexpr std::size_t RATE_COLUMN = 9;  // the rates go after SENT
	if (rates) {
		tb.head.insert(tb.head.begin() + RATE_COLUMN, {"RX/S", "TX/S"});
		tb.right.insert(tb.right.begin() + RATE_COLUMN, {true, true});
	}
	for (std::uint32_t k : slots) {
		const reflector_session &s = st.sessions[k];
		std::string gaps = s.num_received >= 2 ? gap_text(s.min_period) + "/" +
								 gap_text(shm_avg_period(s)) + "/" +
								 gap_text(s.max_period)
						       : "-";
		std::vector<std::string> row = {
			std::to_string(s.discriminator),
			ipv4_dotted(s.source_ip).text + std::string(":") + std::to_string(s.source_port),
			bfd_state_name(s.state),
			age_text(s.last_state_change, snap.taken),
			age_text(s.last_rx, snap.taken),
			gap_text(shmstat_detect_time_us(s)),
			shmstat_silent(s, snap.taken) ? "yes" : "no",
			std::to_string(s.num_received),
			std::to_string(s.num_sent),
			gaps,
			s.num_sent ? bfd_state_name(s.tx_state) : "-",
			s.num_sent ? std::to_string(s.tx_diag) + " " + bfd_diag_name(s.tx_diag) : "-",
		};
		if (rates) {
			const reflector_session &p = prev->store.sessions[k];
			bool same = p.discriminator == s.discriminator && p.source_ip == s.source_ip;
			row.insert(row.begin() + RATE_COLUMN,
				   {same ? printf_string("%.1f", double(s.num_received - p.num_received) / dt) : "-",
				    same ? printf_string("%.1f", double(s.num_sent - p.num_sent) / dt) : "-"});
		}
		tb.rows.push_back(row);
	}
	out += tb.render();
	return out;
}

namespace {

nlohmann::ordered_json ts_json(const shm_timestamp &t)
{
	return nlohmann::ordered_json{{"sec", t.tv_sec}, {"nsec", t.tv_nsec}};
}

// Seconds since `t`, or null for a time stamp never set.
nlohmann::ordered_json age_json(const shm_timestamp &t, const shm_timestamp &now)
{
	if (ts_is_zero(t))
		return nullptr;
	return seconds_since(t, now);
}

// The daemon and its configuration, as fields of `doc`.
// The first members of both JSON reports: which store, when it was read,
// and whether the read was consistent.
nlohmann::ordered_json json_head(const shmstat_snapshot &snap, const std::string &name)
{
	nlohmann::ordered_json doc;
	doc["object"] = name;
	doc["taken"] = ts_json(snap.taken);
	doc["consistent"] = snap.stable;
	return doc;
}

void daemon_json(nlohmann::ordered_json &doc, const shmstat_daemon &d, const shm_timestamp &now)
{
	using nlohmann::ordered_json;
	doc["daemon"] = {{"up", d.pid > 0}, {"pid", d.pid > 0 ? ordered_json(d.pid) : ordered_json(nullptr)}};
	if (d.config_known) {
		const shmstat_config &c = d.config;
		doc["config"] = {{"discriminator", c.discriminator},
				 {"source", ipv4_dotted(c.source_ip).text},
				 {"min_rx_us", c.min_rx},
				 {"admin_down", c.admin_down},
				 {"since", ts_json(c.since)},
				 {"since_age_s", age_json(c.since, now)},
				 {"started", ts_json(c.started)}};
	} else {
		doc["config"] = nullptr;
		doc["config_unknown"] = d.config_unknown.empty() ? "unknown" : d.config_unknown;
	}
}

}  // namespace

std::string shmstat_format_json(const shmstat_snapshot &snap, const std::string &name, const shmstat_view &view)
{
	using nlohmann::ordered_json;
	const reflector_shm &st = snap.store;
	ordered_json doc = json_head(snap, name);
	daemon_json(doc, view.daemon, snap.taken);
	const std::pair<shmstat_group, const char *> groups[] = {
		{shmstat_group::global, "counters"},
		{shmstat_group::hash, "hash"},
		{shmstat_group::rx_error, "rx_errors"},
		{shmstat_group::tx_error, "tx_errors"},
	};
	for (const auto &[g, key] : groups) {
		ordered_json obj = ordered_json::object();
		for (const auto &c : SHMSTAT_COUNTERS)
			if (c.group == g)
				obj[c.name] = shmstat_counter_value(c, st);
		doc[key] = obj;
	}
	std::size_t in_use, silent;
	std::vector<std::uint32_t> slots = listed_sessions(snap, view, &in_use, &silent);
	doc["sessions_in_use"] = in_use;
	doc["sessions_silent"] = silent;
	doc["silent_only"] = view.silent_only;
	ordered_json sessions = ordered_json::array();
	for (std::uint32_t k : slots) {
		const reflector_session &s = st.sessions[k];
		ordered_json j;
		j["slot"] = k;
		j["discriminator"] = s.discriminator;
		j["address"] = ipv4_dotted(s.source_ip).text;
		j["port"] = s.source_port;
		j["state"] = bfd_state_name(s.state);
		j["state_code"] = s.state;
		j["prev_state"] = bfd_state_name(s.prev_state);
		j["last_state_change"] = ts_json(s.last_state_change);
		j["state_age_s"] = age_json(s.last_state_change, snap.taken);
		j["last_rx"] = ts_json(s.last_rx);
		j["last_rx_age_s"] = age_json(s.last_rx, snap.taken);
		j["detect_time_us"] = shmstat_detect_time_us(s);
		j["silent"] = shmstat_silent(s, snap.taken);
		j["num_received"] = s.num_received;
		j["num_sent"] = s.num_sent;
		j["min_period_us"] = s.min_period;
		j["avg_period_us"] = shm_avg_period(s);
		j["max_period_us"] = s.max_period;
		j["period_sum_us"] = s.period_sum;
		j["tx_state"] = bfd_state_name(s.tx_state);
		j["tx_state_code"] = s.tx_state;
		j["prev_tx_state"] = bfd_state_name(s.prev_tx_state);
		j["tx_diag"] = s.tx_diag;
		j["tx_diag_name"] = bfd_diag_name(s.tx_diag);
		j["last_tx"] = ts_json(s.last_tx);
		j["last_tx_state_change"] = ts_json(s.last_tx_state_change);
		j["diag"] = s.diag;
		j["your_disc"] = s.your_disc;
		j["detect_multiplier"] = s.detect_multiplier;
		j["desired_min_tx_us"] = s.desired_min_tx;
		j["required_min_rx_us"] = s.required_min_rx;
		j["required_min_echo_rx_us"] = s.required_min_echo_rx;
		j["version"] = s.version;
		j["demand"] = s.demand;
		j["final"] = s.final;
		j["poll"] = s.poll;
		j["length"] = s.length;
		sessions.push_back(j);
	}
	doc["sessions"] = sessions;
	return doc.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string shmstat_format_delta_text(const shmhist_delta &d, const shmstat_snapshot &snap, const std::string &name,
				      const shmstat_view &view)
{
	const reflector_shm &st = snap.store;
	const bool rates = d.seconds > 0;
	std::string out = "store " + name + " at " + local_time_text(snap.taken) +
			  (snap.stable ? "" : " (copy taken while the daemon wrote)") + ", changes since " +
			  (d.have_base ? local_time_text(d.since) + printf_string(" (%.1f s)", d.seconds)
				       : std::string("the store was made")) +
			  "\n";
	for (const std::string &n : d.notes)
		out += "note: " + n + "\n";
	out += daemon_text(view.daemon, snap.taken);

	// Counters that add up; the per-period hash counters have no change to show.
	text_table ct = counter_table("CHANGE", rates);
	for (shmstat_group g : {shmstat_group::global, shmstat_group::rx_error, shmstat_group::tx_error}) {
		ct.rows.push_back({group_title(g)});
		for (std::size_t i = 0; i < SHMSTAT_COUNTERS.size(); i++) {
			if (SHMSTAT_COUNTERS[i].group != g)
				continue;
			ct.rows.push_back({"  " + std::string(SHMSTAT_COUNTERS[i].name), std::to_string(d.counters[i])});
			if (rates)
				ct.rows.back().push_back(printf_string("%.1f", double(d.counters[i]) / d.seconds));
		}
	}
	out += "\n" + ct.render();

	std::size_t silent = 0;
	for (const auto &s : d.sessions)
		silent += shmstat_silent(st.sessions[s.slot], snap.taken);
	out += "\nSessions in use: " + std::to_string(d.sessions.size()) + " of " + std::to_string(MAX_SESSIONS) +
	       ", " + std::to_string(silent) + " silent, " + std::to_string(d.gone) + " gone since then" +
	       (view.silent_only ? "; the silent ones" : "") + ", most recently heard first\n";
	text_table tb;
	tb.head = {"DISCRIMINATOR", "ADDRESS:PORT", "STATE", "LAST RX", "DETECT", "SILENT", "RECEIVED", "SENT"};
	tb.right = {true, false, false, true, true, false, true, true};
	if (rates) {
		tb.head.insert(tb.head.end(), {"RX/S", "TX/S"});
		tb.right.insert(tb.right.end(), {true, true});
	}
	tb.head.push_back("NOTE");
	tb.right.push_back(false);
	for (const auto &ds : d.sessions) {
		const reflector_session &s = st.sessions[ds.slot];
		const bool quiet = shmstat_silent(s, snap.taken);
		if (view.silent_only && !quiet)
			continue;
		std::vector<std::string> row = {std::to_string(s.discriminator),
						ipv4_dotted(s.source_ip).text + std::string(":") + std::to_string(s.source_port),
						bfd_state_name(s.state),
						age_text(s.last_rx, snap.taken),
						gap_text(shmstat_detect_time_us(s)),
						quiet ? "yes" : "no",
						std::to_string(ds.received),
						std::to_string(ds.sent)};
		if (rates)
			row.insert(row.end(), {printf_string("%.1f", double(ds.received) / d.seconds),
					       printf_string("%.1f", double(ds.sent) / d.seconds)});
		row.push_back(ds.fresh ? "new" : "");
		tb.rows.push_back(row);
	}
	if (!tb.rows.empty())
		out += tb.render();
	return out;
}

std::string shmstat_format_delta_json(const shmhist_delta &d, const shmstat_snapshot &snap, const std::string &name,
				      const shmstat_view &view)
{
	using nlohmann::ordered_json;
	const reflector_shm &st = snap.store;
	ordered_json doc = json_head(snap, name);
	doc["since"] = d.have_base ? ts_json(d.since) : ordered_json(nullptr);
	doc["interval_s"] = d.have_base ? ordered_json(d.seconds) : ordered_json(nullptr);
	doc["notes"] = d.notes;
	daemon_json(doc, view.daemon, snap.taken);
	const std::pair<shmstat_group, const char *> groups[] = {
		{shmstat_group::global, "counters"},
		{shmstat_group::rx_error, "rx_errors"},
		{shmstat_group::tx_error, "tx_errors"},
	};
	for (const auto &[g, key] : groups) {
		ordered_json obj = ordered_json::object();
		for (std::size_t i = 0; i < SHMSTAT_COUNTERS.size(); i++)
			if (SHMSTAT_COUNTERS[i].group == g)
				obj[SHMSTAT_COUNTERS[i].name] = d.counters[i];
		doc[key] = obj;
	}
	std::size_t silent = 0;
	ordered_json sessions = ordered_json::array();
	for (const auto &ds : d.sessions) {
		const reflector_session &s = st.sessions[ds.slot];
		const bool quiet = shmstat_silent(s, snap.taken);
		silent += quiet;
		if (view.silent_only && !quiet)
			continue;
		sessions.push_back({{"slot", ds.slot},
				    {"discriminator", s.discriminator},
				    {"address", ipv4_dotted(s.source_ip).text},
				    {"port", s.source_port},
				    {"last_rx_age_s", age_json(s.last_rx, snap.taken)},
				    {"detect_time_us", shmstat_detect_time_us(s)},
				    {"silent", quiet},
				    {"received", ds.received},
				    {"sent", ds.sent},
				    {"new", ds.fresh}});
	}
	doc["sessions_in_use"] = d.sessions.size();
	doc["sessions_silent"] = silent;
	doc["sessions_gone"] = d.gone;
	doc["silent_only"] = view.silent_only;
	doc["sessions"] = sessions;
	return doc.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

namespace {

constexpr const char *PROM_PREFIX = "orvalindwarden_";

// HELP and TYPE lines of the family PROM_PREFIX + `name`.
void prom_family(std::string &out, const std::string &name, const char *type, const std::string &help)
{
	const std::string metric = PROM_PREFIX + name;
	out += "# HELP " + metric + " " + help + "\n# TYPE " + metric + " " + type + "\n";
}

// `v` as the text format wants a label value: backslash, double quote and
// line feed escaped. Store names come from NSPATH and may hold any of them.
std::string prom_label_value(const std::string &v)
{
	std::string out;
	for (char c : v)
		out += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : c == '\n' ? "\\n" : std::string(1, c);
	return out;
}

std::string prom_double(double v) { return printf_string("%.9g", v); }

// A time stamp in seconds with all nine decimals: a double would round it.
std::string prom_time(const shm_timestamp &t)
{
	return printf_string("%" PRId64 ".%09" PRId64, t.tv_sec, t.tv_nsec);
}

}  // namespace

std::string shmstat_format_prometheus(const shmstat_snapshot &snap, const std::string &name,
				      const shmstat_view &view)
{
	const reflector_shm &st = snap.store;
	const std::string store = "store=\"" + prom_label_value(name) + "\"";
	std::string out;
	auto sample = [&](const std::string &metric, const std::string &labels, const std::string &value) {
		out += PROM_PREFIX + metric + "{" + store + labels + "} " + value + "\n";
	};

	// Whether a daemon holds the store, and with what.
	const shmstat_daemon &d = view.daemon;
	prom_family(out, "up", "gauge", "Whether a running daemon holds the store (1) or not (0).");
	sample("up", "", d.pid > 0 ? "1" : "0");
	std::string info;
	if (!view.version.empty())
		info += ",version=\"" + prom_label_value(view.version) + "\"";
	if (d.config_known)
		info += ",discriminator=\"" + std::to_string(d.config.discriminator) + "\",source=\"" +
			ipv4_dotted(d.config.source_ip).text + "\",min_rx=\"" + std::to_string(d.config.min_rx) +
			"\",admin_down=\"" + (d.config.admin_down ? "1" : "0") + "\"";
	prom_family(out, "info", "gauge",
		    "Version of the tool and the daemon's running configuration as labels, when known (always 1).");
	sample("info", info, "1");
	if (d.config_known) {
		prom_family(out, "start_time_seconds", "gauge", "Time the daemon started.");
		sample("start_time_seconds", "", prom_time(d.config.started));
		prom_family(out, "config_since_timestamp_seconds", "gauge",
			    "Time the running configuration took effect.");
		sample("config_since_timestamp_seconds", "", prom_time(d.config.since));
	}

	// Header counters: cumulative ones as counters, the per-period hash
	// counters (reset every 512 valid packets) as gauges, and the error
	// counters as one family per direction labelled by reason.
	for (const auto &c : SHMSTAT_COUNTERS) {
		if (c.group == shmstat_group::global || c.group == shmstat_group::hash) {
			bool cumulative = c.group != shmstat_group::hash;
			std::string metric = c.name + std::string(cumulative ? "_total" : "");
			prom_family(out, metric, cumulative ? "counter" : "gauge", c.help);
			sample(metric, "", std::to_string(shmstat_counter_value(c, st)));
		}
	}
	for (const auto &[g, metric, help] :
	     {std::tuple{shmstat_group::rx_error, "rx_errors_total", "Received frames rejected, by reason."},
	      std::tuple{shmstat_group::tx_error, "tx_errors_total", "Replies not sent whole, by reason."}}) {
		prom_family(out, metric, "counter", help);
		for (const auto &c : SHMSTAT_COUNTERS)
			if (c.group == g)
				sample(metric, ",reason=\"" + std::string(c.name) + "\"",
				       std::to_string(shmstat_counter_value(c, st)));
	}
	std::size_t in_use, silent;
	std::vector<std::uint32_t> slots = listed_sessions(snap, view, &in_use, &silent);
	prom_family(out, "sessions_in_use", "gauge", "Session slots in use, of 512.");
	sample("sessions_in_use", "", std::to_string(in_use));
	prom_family(out, "sessions_silent", "gauge",
		    "Sessions whose last request is older than the detection time their initiator announced.");
	sample("sessions_silent", "", std::to_string(silent));

	// Per-session families, one series per session in each.
	struct family {
		const char *name;
		const char *type;
		const char *help;
		std::string (*value)(const reflector_session &s, const shm_timestamp &now);
	};
	static const family families[] = {
		{"session_received_total", "counter", "Requests received from the initiator.",
		 [](const reflector_session &s, const shm_timestamp &) { return std::to_string(s.num_received); }},
		{"session_sent_total", "counter", "Replies sent to the initiator.",
		 [](const reflector_session &s, const shm_timestamp &) { return std::to_string(s.num_sent); }},
		{"session_state", "gauge", "State of the last request (0 AdminDown, 1 Down, 2 Init, 3 Up).",
		 [](const reflector_session &s, const shm_timestamp &) { return std::to_string(s.state); }},
		{"session_silent", "gauge",
		 "Whether the last request is older than the announced detection time (Detect Mult x Desired Min TX, at least 1 s).",
		 [](const reflector_session &s, const shm_timestamp &now) { return std::string(shmstat_silent(s, now) ? "1" : "0"); }},
		{"session_detect_time_seconds", "gauge",
		 "Detection time the initiator announced (Detect Mult x Desired Min TX, at least 1 s).",
		 [](const reflector_session &s, const shm_timestamp &) { return prom_double(double(shmstat_detect_time_us(s)) / 1e6); }},
		{"session_last_rx_timestamp_seconds", "gauge", "Time of the last request.",
		 [](const reflector_session &s, const shm_timestamp &) { return prom_time(s.last_rx); }},
		{"session_last_state_change_timestamp_seconds", "gauge",
		 "Time of the first request or of the last change of received state.",
		 [](const reflector_session &s, const shm_timestamp &) { return prom_time(s.last_state_change); }},
		{"session_gap_min_seconds", "gauge", "Smallest gap between two requests (0 until known).",
		 [](const reflector_session &s, const shm_timestamp &) { return prom_double(double(s.min_period) / 1e6); }},
		{"session_gap_avg_seconds", "gauge", "Mean gap between requests.",
		 [](const reflector_session &s, const shm_timestamp &) { return prom_double(double(shm_avg_period(s)) / 1e6); }},
		{"session_gap_max_seconds", "gauge", "Largest gap between two requests.",
		 [](const reflector_session &s, const shm_timestamp &) { return prom_double(double(s.max_period) / 1e6); }},
		{"session_tx_state", "gauge", "State sent in the last reply (0 AdminDown, 3 Up).",
		 [](const reflector_session &s, const shm_timestamp &) { return std::to_string(s.tx_state); }},
		{"session_tx_diag", "gauge", "Diagnostic sent in the last reply (7: administratively down).",
		 [](const reflector_session &s, const shm_timestamp &) { return std::to_string(s.tx_diag); }},
	};
	for (const auto &f : families) {
		prom_family(out, f.name, f.type, f.help);
		for (std::uint32_t k : slots) {
			const reflector_session &s = st.sessions[k];
			sample(f.name,
			       ",discriminator=\"" + std::to_string(s.discriminator) + "\",address=\"" +
				       ipv4_dotted(s.source_ip).text + "\"",
			       f.value(s, snap.taken));
		}
	}
	return out;
}
