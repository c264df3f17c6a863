// shmhist.cpp -- the baseline of orvalindwarden-stat --delta: taken from a
// copy of the store, written and parsed as text (grammar in shmhist.h),
// and compared with a later copy counter by counter and session by session.
#include "shmhist.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <charconv>
#include <cstring>
#include <limits>
#include <set>
#include <utility>

#include "unique_fd.h"
#include "wire.h"

namespace {

constexpr std::string_view MAGIC_LINE = "orvalindwarden-stat history 1";
constexpr std::size_t NAME_MAX_BYTES = SHM_NAME_LEN - 1;  // 255, as shm_store_name writes at most
constexpr std::int64_t NSEC_PER_SEC = 1000000000;

bool name_byte_plain(unsigned char c) { return c >= 0x21 && c <= 0x7e && c != '%'; }

// A decimal without sign, blank or leading zero, at most `max`.
bool parse_uint(std::string_view s, std::uint64_t max, std::uint64_t *v)
{
	if (s.empty() || (s.size() > 1 && s[0] == '0') || s[0] < '0' || s[0] > '9')
		return false;
	auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *v);
	return ec == std::errc{} && end == s.data() + s.size() && *v <= max;
}

bool parse_ipv4(std::string_view s, std::uint32_t *addr_net)
{
	std::uint32_t host = 0;
	for (int part = 0; part < 4; part++) {
		std::size_t dot = part < 3 ? s.find('.') : s.size();
		std::uint64_t v;
		if (dot == std::string_view::npos || dot > 3 || !parse_uint(s.substr(0, dot), 255, &v))
			return false;
		host = host << 8 | std::uint32_t(v);
		s.remove_prefix(std::min(dot + 1, s.size()));
	}
	std::uint8_t wire_order[4];
	store_be32(wire_order, host);
	std::memcpy(addr_net, wire_order, sizeof wire_order);
	return true;
}

bool parse_name(std::string_view s, std::string *name)
{
	name->clear();
	for (std::size_t i = 0; i < s.size(); i++) {
		unsigned char c = static_cast<unsigned char>(s[i]);
		if (name_byte_plain(c)) {
			*name += char(c);
			continue;
		}
		auto hex = [](char h) { return h >= '0' && h <= '9' ? h - '0' : h >= 'A' && h <= 'F' ? h - 'A' + 10 : -1; };
		if (c != '%' || i + 2 >= s.size() || hex(s[i + 1]) < 0 || hex(s[i + 2]) < 0)
			return false;
		char decoded = char(hex(s[i + 1]) << 4 | hex(s[i + 2]));
		// One spelling per name: bytes that may stand plain must.
		if (decoded == '\0' || name_byte_plain(static_cast<unsigned char>(decoded)))
			return false;
		*name += decoded;
		i += 2;
	}
	return !name->empty() && name->size() <= NAME_MAX_BYTES;
}

// Splits `line` at single blanks into exactly `n` fields.
bool split(std::string_view line, std::string_view *fields, std::size_t n)
{
	for (std::size_t i = 0; i < n; i++) {
		std::size_t end = i + 1 < n ? line.find(' ') : line.size();
		if (end == std::string_view::npos || (i + 1 == n && line.find(' ') != std::string_view::npos))
			return false;
		fields[i] = line.substr(0, end);
		if (fields[i].empty())
			return false;
		line.remove_prefix(std::min(end + 1, line.size()));
	}
	return true;
}

}  // namespace

shmhist shmhist_of(const shmstat_snapshot &snap, const std::string &name)
{
	shmhist h{name, snap.taken, {}, {}};
	for (std::size_t i = 0; i < SHMSTAT_COUNTERS.size(); i++)
		h.counters[i] = shmstat_counter_value(SHMSTAT_COUNTERS[i], snap.store);
	for (const reflector_session &s : snap.store.sessions)
		if (s.discriminator != 0)
			h.sessions.push_back({s.discriminator, s.source_ip, s.num_received, s.num_sent});
	return h;
}

std::string shmhist_format(const shmhist &h)
{
	std::string out = std::string(MAGIC_LINE) + "\nobject ";
	for (char c : h.object) {
		unsigned char u = static_cast<unsigned char>(c);
		if (name_byte_plain(u)) {
			out += c;
		} else {
			const char *digits = "0123456789ABCDEF";
			out += {'%', digits[u >> 4], digits[u & 15]};
		}
	}
	out += "\ntaken " + std::to_string(h.taken.tv_sec) + " " + std::to_string(h.taken.tv_nsec) + "\n";
	for (std::size_t i = 0; i < SHMSTAT_COUNTERS.size(); i++)
		out += "counter " + std::string(SHMSTAT_COUNTERS[i].name) + " " + std::to_string(h.counters[i]) + "\n";
	for (const auto &s : h.sessions)
		out += "session " + std::to_string(s.discriminator) + " " + ipv4_dotted(s.source_ip).text + " " +
		       std::to_string(s.received) + " " + std::to_string(s.sent) + "\n";
	return out;
}

bool shmhist_parse(std::string_view text, shmhist *h, std::string *why)
{
	if (text.size() > SHMHIST_FILE_MAX) {
		*why = "larger than " + std::to_string(SHMHIST_FILE_MAX) + " bytes";
		return false;
	}
	if (text.empty() || text.back() != '\n') {
		*why = "does not end with a line feed";
		return false;
	}
	shmhist out{};
	std::set<std::pair<std::uint32_t, std::uint32_t>> keys;
	std::size_t lineno = 0;
	constexpr std::size_t FIRST_COUNTER = 3, FIRST_SESSION = FIRST_COUNTER + SHMSTAT_COUNTERS.size();
	auto fail = [&](const std::string &what) {
		*why = "line " + std::to_string(lineno + 1) + ": " + what;
		return false;
	};
	for (; !text.empty(); lineno++) {
		std::size_t eol = text.find('\n');
		std::string_view line = text.substr(0, eol);
		text.remove_prefix(eol + 1);
		std::string_view f[5];
		std::uint64_t a, b, c;
		if (lineno == 0) {
			if (line != MAGIC_LINE)
				return fail("not \"" + std::string(MAGIC_LINE) + "\"");
		} else if (lineno == 1) {
			if (!split(line, f, 2) || f[0] != "object" || !parse_name(f[1], &out.object))
				return fail("not an object name");
		} else if (lineno == 2) {
			if (!split(line, f, 3) || f[0] != "taken" ||
			    !parse_uint(f[1], std::uint64_t(std::numeric_limits<std::int64_t>::max()), &a) ||
			    !parse_uint(f[2], NSEC_PER_SEC - 1, &b))
				return fail("not the time of a copy");
			out.taken = {std::int64_t(a), std::int64_t(b)};
		} else if (lineno < FIRST_SESSION) {
			const shmstat_counter &k = SHMSTAT_COUNTERS[lineno - FIRST_COUNTER];
			const std::uint64_t max = k.size == 8 ? ~std::uint64_t(0) : 0xFFFFFFFFu;
			if (!split(line, f, 3) || f[0] != "counter" || f[1] != k.name || !parse_uint(f[2], max, &a))
				return fail("not counter " + std::string(k.name) + " with a value of its width");
			out.counters[lineno - FIRST_COUNTER] = a;
		} else {
			std::uint32_t ip;
			if (out.sessions.size() == MAX_SESSIONS)
				return fail("more than " + std::to_string(MAX_SESSIONS) + " sessions");
			if (!split(line, f, 5) || f[0] != "session" || !parse_uint(f[1], 0xFFFFFFFFu, &a) || a == 0 ||
			    !parse_ipv4(f[2], &ip) || !parse_uint(f[3], ~std::uint64_t(0), &b) ||
			    !parse_uint(f[4], ~std::uint64_t(0), &c))
				return fail("not a session");
			if (!keys.insert({std::uint32_t(a), ip}).second)
				return fail("session listed twice");
			out.sessions.push_back({std::uint32_t(a), ip, b, c});
		}
	}
	if (lineno < FIRST_SESSION)
		return fail("counters missing");
	*h = std::move(out);
	return true;
}

shmhist_delta shmhist_compare(const shmhist *base, const shmstat_snapshot &snap, const std::string &name)
{
	shmhist_delta d{};
	const reflector_shm &st = snap.store;
	if (base && base->object != name) {
		d.notes.push_back("the history is of store " + base->object + ", not of this one: a new baseline");
		base = nullptr;
	}
	d.have_base = base != nullptr;
	if (!base)
		d.notes.push_back("no baseline: counts since the store was made");
	else
		d.since = base->taken;
	if (base) {
		double dt = (double(snap.taken.tv_sec) - double(base->taken.tv_sec)) +
			    (double(snap.taken.tv_nsec) - double(base->taken.tv_nsec)) / 1e9;
		d.seconds = dt > 0 ? dt : 0;
	}

	// Header counters. The daemon only adds to them: a 64-bit counter below
	// its baseline means the store was reset (a start without -S); a 32-bit
	// one below it alone has wrapped.
	bool reset = false;
	std::string back;
	for (std::size_t i = 0; base && i < SHMSTAT_COUNTERS.size(); i++) {
		const shmstat_counter &c = SHMSTAT_COUNTERS[i];
		std::uint64_t now = shmstat_counter_value(c, st);
		if (c.group == shmstat_group::hash || now >= base->counters[i])
			continue;
		reset = reset || c.size == 8;
		back += (back.empty() ? "" : ", ") + std::string(c.name) + " " + std::to_string(base->counters[i]) +
			" -> " + std::to_string(now);
	}
	if (reset)
		d.notes.push_back("counters went back (" + back +
				  "): the store was reset, as a daemon started without -S does; changes are counted from "
				  "the reset, and the baseline starts anew");
	for (std::size_t i = 0; i < SHMSTAT_COUNTERS.size(); i++) {
		const shmstat_counter &c = SHMSTAT_COUNTERS[i];
		std::uint64_t now = shmstat_counter_value(c, st);
		if (!base || reset || c.group == shmstat_group::hash)
			d.counters[i] = now;
		else
			d.counters[i] = c.size == 8 ? now - base->counters[i] : (now - base->counters[i]) & 0xFFFFFFFFu;
	}

	// Sessions, by the daemon's key for them.
	std::vector<std::pair<std::pair<std::uint32_t, std::uint32_t>, const shmhist::session *>> old;
	if (base)
		for (const auto &s : base->sessions)
			old.push_back({{s.discriminator, s.source_ip}, &s});
	std::sort(old.begin(), old.end());
	std::size_t kept = 0;
	for (std::uint32_t k : shmstat_sessions(st)) {
		const reflector_session &s = st.sessions[k];
		auto it = std::lower_bound(old.begin(), old.end(), std::pair{std::pair{s.discriminator, s.source_ip},
									    static_cast<const shmhist::session *>(nullptr)});
		const shmhist::session *b = it != old.end() && it->first == std::pair{s.discriminator, s.source_ip}
						    ? it->second
						    : nullptr;
		kept += b != nullptr;
		// Counts below the baseline: the slot was given up and the initiator came back.
		bool fresh = reset || !b || s.num_received < b->received || s.num_sent < b->sent;
		d.sessions.push_back({k, fresh ? s.num_received : s.num_received - b->received,
				      fresh ? s.num_sent : s.num_sent - b->sent, base && fresh});
	}
	d.gone = old.size() - kept;
	return d;
}

std::string shmhist_default_path(const std::string &name, std::string *err)
{
	std::string dir;
	const char *run = std::getenv("XDG_RUNTIME_DIR"), *home = std::getenv("HOME");
	if (run && *run == '/') {
		dir = run;
	} else {
		if (!home || *home != '/') {
			const passwd *pw = getpwuid(getuid());
			home = pw && pw->pw_dir && *pw->pw_dir == '/' ? pw->pw_dir : nullptr;
		}
		if (!home) {
			*err = "no home directory for the history file; give --history FILE";
			return "";
		}
		dir = std::string(home) + "/.cache";
		mkdir(dir.c_str(), 0700);  // usually there; a failure shows at the next step
	}
	dir += "/orvalindwarden-stat";
	if (mkdir(dir.c_str(), 0700) == -1 && errno != EEXIST) {
		*err = "cannot make " + dir + ": " + std::strerror(errno);
		return "";
	}
	return dir + "/" + name + ".delta";
}

bool shmhist_load(const std::string &path, shmhist *h, std::string *note)
{
	unique_fd fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
	if (fd.get() < 0) {
		if (errno != ENOENT)
			*note = "history file " + path + " unreadable (" + std::strerror(errno) + "): a new baseline";
		return false;
	}
	struct stat st {};
	if (fstat(fd.get(), &st) == -1 || !S_ISREG(st.st_mode)) {
		*note = "history file " + path + " is not a regular file: a new baseline";
		return false;
	}
	// One byte beyond the limit, whatever the size claims: the parser refuses it.
	std::string text(SHMHIST_FILE_MAX + 1, '\0');
	std::size_t got = 0;
	for (ssize_t n; got < text.size() && (n = read(fd.get(), text.data() + got, text.size() - got)) != 0;) {
		if (n < 0 && errno == EINTR)
			continue;
		if (n < 0) {
			*note = "history file " + path + " unreadable (" + std::strerror(errno) + "): a new baseline";
			return false;
		}
		got += std::size_t(n);
	}
	text.resize(got);
	std::string why;
	if (!shmhist_parse(text, h, &why)) {
		*note = "history file " + path + " unusable (" + why + "): a new baseline";
		return false;
	}
	return true;
}

bool shmhist_save(const std::string &path, const shmhist &h, std::string *err)
{
	const std::size_t slash = path.rfind('/');
	std::string tmp = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + ".orvstat-XXXXXX";
	unique_fd fd{mkostemp(tmp.data(), O_CLOEXEC)};
	if (fd.get() < 0) {
		*err = "cannot write history file " + path + ": " + std::strerror(errno);
		return false;
	}
	const std::string text = shmhist_format(h);
	bool ok = ::write(fd.get(), text.data(), text.size()) == ssize_t(text.size()) && fsync(fd.get()) == 0;
	int e = errno;
	if (ok && rename(tmp.c_str(), path.c_str()) == 0)
		return true;
	e = ok ? errno : e;
	unlink(tmp.c_str());
	*err = "cannot write history file " + path + ": " + std::strerror(e);
	return false;
}
