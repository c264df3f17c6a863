// shmstat.cpp -- private copy, plausibility rules and the three renderings
// (text, JSON, node_exporter textfile) of the reflector's shared session
// store. Layout and rules are described in shmstat.h.
#include "shmstat.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

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

std::string shmstat_format_text(const shmstat_snapshot &snap, const std::string &name,
				const shmstat_snapshot *prev)
{
	const reflector_shm &st = snap.store;
	double dt = prev ? seconds_since(prev->taken, snap.taken) : 0;
	bool rates = prev && dt > 0;
	std::string out;

	// Title: object and time of the copy.
	char when[64];
	time_t t = snap.taken.tv_sec;
	tm lt{};
	localtime_r(&t, &lt);
	strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S %z", &lt);
	out += "store " + name + " at " + when + (snap.stable ? "" : " (copy taken while the daemon wrote)") + "\n";

	// Counters, group by group, in one table so that the columns line up.
	text_table ct;
	ct.head = {"COUNTER", "TOTAL"};
	ct.right = {false, true};
	if (rates) {
		ct.head.push_back("PER SECOND");
		ct.right.push_back(true);
	}
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
	std::vector<std::uint32_t> slots = shmstat_sessions(st);
	out += "\nSessions in use: " + std::to_string(slots.size()) + " of " + std::to_string(MAX_SESSIONS) +
	       ", most recently heard first\n";
	if (slots.empty())
		return out;
	text_table tb;
	tb.head = {"DISCRIMINATOR", "ADDRESS:PORT", "STATE", "CHANGED", "LAST RX", "RECEIVED", "SENT",
		   "GAP MIN/AVG/MAX", "REPLY", "DIAG"};
	tb.right = {true, false, false, true, true, true, true, false, false, false};
	if (rates) {
		tb.head.insert(tb.head.begin() + 7, {"RX/S", "TX/S"});
		tb.right.insert(tb.right.begin() + 7, {true, true});
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
			std::to_string(s.num_received),
			std::to_string(s.num_sent),
			gaps,
			s.num_sent ? bfd_state_name(s.tx_state) : "-",
			s.num_sent ? std::to_string(s.tx_diag) + " " + bfd_diag_name(s.tx_diag) : "-",
		};
		if (rates) {
			const reflector_session &p = prev->store.sessions[k];
			bool same = p.discriminator == s.discriminator && p.source_ip == s.source_ip;
			row.insert(row.begin() + 7,
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

}  // namespace

std::string shmstat_format_json(const shmstat_snapshot &snap, const std::string &name)
{
	using nlohmann::ordered_json;
	const reflector_shm &st = snap.store;
	ordered_json doc;
	doc["object"] = name;
	doc["taken"] = ts_json(snap.taken);
	doc["consistent"] = snap.stable;
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
	std::vector<std::uint32_t> slots = shmstat_sessions(st);
	doc["sessions_in_use"] = slots.size();
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
	return doc.dump(2) + "\n";
}

namespace {

constexpr const char *PROM_PREFIX = "orvalindwarden_";

void prom_family(std::string &out, const std::string &name, const char *type, const std::string &help)
{
	out += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

std::string prom_double(double v) { return printf_string("%.9g", v); }

// A time stamp in seconds with all nine decimals: a double would round it.
std::string prom_time(const shm_timestamp &t)
{
	return printf_string("%" PRId64 ".%09" PRId64, t.tv_sec, t.tv_nsec);
}

}  // namespace

std::string shmstat_format_prometheus(const shmstat_snapshot &snap)
{
	const reflector_shm &st = snap.store;
	std::string out;

	// Header counters: cumulative ones as counters, the per-period hash
	// counters (reset every 512 valid packets) as gauges.
	for (const auto &c : SHMSTAT_COUNTERS) {
		bool cumulative = c.group != shmstat_group::hash;
		std::string metric = PROM_PREFIX + std::string(c.name) + (cumulative ? "_total" : "");
		prom_family(out, metric, cumulative ? "counter" : "gauge", c.help);
		out += metric + " " + std::to_string(shmstat_counter_value(c, st)) + "\n";
	}
	std::vector<std::uint32_t> slots = shmstat_sessions(st);
	prom_family(out, std::string(PROM_PREFIX) + "sessions_in_use", "gauge",
		    "Session slots in use, of 512.");
	out += std::string(PROM_PREFIX) + "sessions_in_use " + std::to_string(slots.size()) + "\n";

	// Per-session families, one series per session in each.
	struct family {
		const char *name;
		const char *type;
		const char *help;
		std::string (*value)(const reflector_session &s);
	};
	static const family families[] = {
		{"session_received_total", "counter", "Requests received from the initiator.",
		 [](const reflector_session &s) { return std::to_string(s.num_received); }},
		{"session_sent_total", "counter", "Replies sent to the initiator.",
		 [](const reflector_session &s) { return std::to_string(s.num_sent); }},
		{"session_state", "gauge", "State of the last request (0 AdminDown, 1 Down, 2 Init, 3 Up).",
		 [](const reflector_session &s) { return std::to_string(s.state); }},
		{"session_last_rx_timestamp_seconds", "gauge", "Time of the last request.",
		 [](const reflector_session &s) { return prom_time(s.last_rx); }},
		{"session_last_state_change_timestamp_seconds", "gauge",
		 "Time of the first request or of the last change of received state.",
		 [](const reflector_session &s) { return prom_time(s.last_state_change); }},
		{"session_gap_min_seconds", "gauge", "Smallest gap between two requests (0 until known).",
		 [](const reflector_session &s) { return prom_double(double(s.min_period) / 1e6); }},
		{"session_gap_avg_seconds", "gauge", "Mean gap between requests.",
		 [](const reflector_session &s) { return prom_double(double(shm_avg_period(s)) / 1e6); }},
		{"session_gap_max_seconds", "gauge", "Largest gap between two requests.",
		 [](const reflector_session &s) { return prom_double(double(s.max_period) / 1e6); }},
		{"session_tx_state", "gauge", "State sent in the last reply (0 AdminDown, 3 Up).",
		 [](const reflector_session &s) { return std::to_string(s.tx_state); }},
		{"session_tx_diag", "gauge", "Diagnostic sent in the last reply (7: administratively down).",
		 [](const reflector_session &s) { return std::to_string(s.tx_diag); }},
	};
	for (const auto &f : families) {
		std::string metric = PROM_PREFIX + std::string(f.name);
		prom_family(out, metric, f.type, f.help);
		for (std::uint32_t k : slots) {
			const reflector_session &s = st.sessions[k];
			out += metric + "{discriminator=\"" + std::to_string(s.discriminator) + "\",address=\"" +
			       ipv4_dotted(s.source_ip).text + "\"} " + f.value(s) + "\n";
		}
	}
	return out;
}
