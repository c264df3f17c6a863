// nlctl.cpp -- netlink control messages to the reflector: validation, the
// message codec, the pid file, the send with its error reporting, and the
// running configuration: its file, the merge of a partial change, and the
// check that the daemon applied a change and lives.
#include "nlctl.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "argparse.h"
#include "blreader.h"
#include "netns.h"
#include "store.h"
#include "unique_fd.h"

std::array<std::uint8_t, NLCTL_MSG_LEN> nlctl_encode(const nlctl_config &c, std::uint32_t seq)
{
	std::array<std::uint8_t, NLCTL_MSG_LEN> m{};
	nlmsghdr h{};
	h.nlmsg_len = NLCTL_MSG_LEN;
	h.nlmsg_type = REFLECTOR_NL_SET;
	h.nlmsg_flags = NLM_F_REQUEST;
	h.nlmsg_seq = seq;
	static_assert(sizeof h == 16);
	std::memcpy(m.data(), &h, sizeof h);
	reflector_nl_config p{};
	p.disc = c.disc;
	p.min_rx = c.min_rx;
	p.src_ip = c.src_ip;
	p.adminDown = c.admin_down ? 1 : 0;
	std::memcpy(m.data() + sizeof h, &p, sizeof p);
	return m;
}

bool nlctl_parse_ipv4(const char *text, std::uint32_t *host_order, std::string *err)
{
	in_addr a{};
	if (text == nullptr || inet_pton(AF_INET, text, &a) != 1) {
		*err = arg_rejected(text, " is not an IPv4 address (a.b.c.d)");
		return false;
	}
	std::uint32_t h = ntohl(a.s_addr);
	if (ipv4_martian(h)) {
		*err = arg_rejected(text, " cannot be a source address (0.0.0.0/8, 127.0.0.0/8 and "
					  "224.0.0.0/3 never are)");
		return false;
	}
	*host_order = h;
	return true;
}

bool nlctl_read_pidfile(const char *path, pid_t *pid, std::string *err)
{
	// O_NONBLOCK: a FIFO must not hold us in open(); it is refused below.
	unique_fd fd{open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
	struct stat st;
	if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
		*err = std::string("cannot read pid file ") + path + ": " + std::strerror(errno);
		return false;
	}
	if (!S_ISREG(st.st_mode)) {
		*err = std::string("pid file ") + path + " is not a regular file";
		return false;
	}
	// One byte more than allowed tells a larger file, whatever st_size says.
	char buf[NLCTL_PIDFILE_MAX + 1];
	std::size_t len = 0;
	while (len < sizeof buf) {
		const ssize_t n = read(fd.get(), buf + len, sizeof buf - len);
		if (n == -1 && errno == EINTR)
			continue;
		if (n == -1) {
			*err = std::string("cannot read pid file ") + path + ": " + std::strerror(errno);
			return false;
		}
		if (n == 0)
			break;
		len += static_cast<std::size_t>(n);
	}
	const std::string expect = std::string("pid file ") + path + " does not hold a pid";
	if (len > NLCTL_PIDFILE_MAX) {
		*err = expect + " (more than " + std::to_string(NLCTL_PIDFILE_MAX) + " bytes)";
		return false;
	}
	std::string text(buf, len);
	if (!text.empty() && text.back() == '\n')
		text.pop_back();
	// Digits only: the text is shown in the message, and must not carry
	// control characters to the terminal.
	if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
		*err = expect + " (expected a decimal number and a newline)";
		return false;
	}
	std::uint32_t v;
	std::string why;
	if (!arg_parse_u32(text.c_str(), 1, 0x7fffffff, &v, &why)) {
		*err = expect + ": " + why;
		return false;
	}
	*pid = static_cast<pid_t>(v);
	return true;
}

namespace {

// The checks before a send: a process of that pid, and a netlink socket in
// `netns` (left in *fd).
int open_control(pid_t pid, const char *netns, unique_fd *fd, std::string *err)
{
	// A process check first, for a clearer message than the netlink error.
	if (kill(pid, 0) != 0 && errno == ESRCH) {
		*err = "no process with pid " + std::to_string(pid);
		return NLCTL_ERR_NO_PROCESS;
	}
	*fd = unique_fd{netnsSocketAt(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK, netns)};
	if (fd->get() < 0) {
		*err = std::string("netlink socket in namespace ") + netns + ": " + std::strerror(errno);
		return NLCTL_ERR_SYSTEM;
	}
	return NLCTL_OK;
}

std::string no_port(pid_t pid)
{
	return "process " + std::to_string(pid) +
	       " has no netlink control port here (not a running reflector, or in another network "
	       "namespace)";
}

// True when process `pid` is known to live in another network namespace than
// `netns`; false when it lives there or we may not look.
bool in_other_netns(pid_t pid, const char *netns)
{
	const std::string ours = std::strcmp(netns, "default") == 0 ? std::string("/proc/self/ns/net")
								     : std::string(NETNS_RUN_DIR) + "/" + netns;
	struct stat a, b;
	if (stat(("/proc/" + std::to_string(pid) + "/ns/net").c_str(), &a) != 0 || stat(ours.c_str(), &b) != 0)
		return false;
	return a.st_dev != b.st_dev || a.st_ino != b.st_ino;
}

int send_control(int fd, pid_t pid, const std::array<std::uint8_t, NLCTL_MSG_LEN> &msg, std::string *err)
{
	sockaddr_nl dst{};
	dst.nl_family = AF_NETLINK;
	dst.nl_pid = static_cast<std::uint32_t>(pid);
	if (sendto(fd, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&dst), sizeof dst) < 0) {
		int e = errno;
		if (e == ECONNREFUSED) {
			*err = no_port(pid);
			return NLCTL_ERR_NO_PORT;
		}
		*err = std::string("sendto: ") + std::strerror(e);
		return NLCTL_ERR_SYSTEM;
	}
	return NLCTL_OK;
}

}  // namespace

int nlctl_send(pid_t pid, const char *netns, const std::array<std::uint8_t, NLCTL_MSG_LEN> &msg,
	       std::string *err)
{
	unique_fd fd;
	if (int rc = open_control(pid, netns, &fd, err); rc != NLCTL_OK)
		return rc;
	return send_control(fd.get(), pid, msg, err);
}

int nlctl_check_source(const char *netns, std::uint32_t src_ip, std::string *err)
{
	in_addr a{htonl(src_ip)};
	const ipv4_text text = ipv4_dotted(a.s_addr);
	unique_fd fd{netnsSocketAt(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0, netns)};
	if (fd.get() < 0) {
		*err = std::string("UDP socket in namespace ") + netns + ": " + std::strerror(errno);
		return NLCTL_ERR_SYSTEM;
	}
	sockaddr_in sa{};
	sa.sin_family = AF_INET;
	sa.sin_addr = a;
	if (bind(fd.get(), reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
		const int e = errno;
		if (e == EADDRNOTAVAIL) {
			*err = std::string("source ") + text.text + " is no address of " +
			       (std::strcmp(netns, "default") == 0 ? std::string("this network namespace")
								    : std::string("network namespace ") + netns) +
			       ": the daemon could not send from it";
			return NLCTL_ERR_SOURCE;
		}
		*err = std::string("bind ") + text.text + ": " + std::strerror(e);
		return NLCTL_ERR_SYSTEM;
	}
	return NLCTL_OK;
}

int nlctl_send_config(pid_t pid, const char *netns, const nlctl_config &c, std::uint32_t seq,
		      std::string *err, bool check_source)
{
	unique_fd fd;
	if (int rc = open_control(pid, netns, &fd, err); rc != NLCTL_OK)
		return rc;
	// The source is judged in the daemon's namespace: a daemon elsewhere is
	// reported as the send would report it.
	if (in_other_netns(pid, netns)) {
		*err = no_port(pid);
		return NLCTL_ERR_NO_PORT;
	}
	if (int rc = check_source ? nlctl_check_source(netns, c.src_ip, err) : NLCTL_OK; rc != NLCTL_OK)
		return rc;
	return send_control(fd.get(), pid, nlctl_encode(c, seq), err);
}

// ---- the running configuration ----

bool nlctl_change_complete(const nlctl_change &c)
{
	return c.disc && c.min_rx && c.src_ip && c.admin_down;
}

nlctl_config nlctl_merge(const nlctl_change &c, const run_state &running)
{
	nlctl_config m;
	m.disc = c.disc.value_or(running.discriminator);
	m.min_rx = c.min_rx.value_or(running.min_rx);
	m.src_ip = c.src_ip.value_or(ntohl(running.source_ip));
	m.admin_down = c.admin_down.value_or(running.admin_down != 0);
	return m;
}

std::string nlctl_state_path(const char *object, const char *nspath, std::string *err)
{
	char name[SHM_NAME_LEN];
	if (object != nullptr)
		std::snprintf(name, sizeof name, "%s", object);
	else
		shm_store_name(name, nspath);
	char path[RUN_STATE_PATH_MAX];
	if (run_state_path(path, sizeof path, name) != 0) {
		*err = arg_rejected(name, " names no run-state file (empty, a \"/\" inside, or too long)");
		return "";
	}
	return path;
}

std::optional<std::string> nlctl_process_env(pid_t pid, const char *name)
{
	unique_fd fd{open(("/proc/" + std::to_string(pid) + "/environ").c_str(), O_RDONLY | O_CLOEXEC)};
	if (fd.get() < 0)
		return std::nullopt;
	std::string env(NLCTL_ENVIRON_MAX, '\0');
	std::size_t len = 0;
	while (len < env.size()) {
		const ssize_t n = read(fd.get(), env.data() + len, env.size() - len);
		if (n == -1 && errno == EINTR)
			continue;
		if (n <= 0)
			break;
		len += static_cast<std::size_t>(n);
	}
	env.resize(len);
	const std::string key = std::string(name) + "=";
	for (std::size_t at = 0; at < env.size();) {
		std::size_t end = env.find('\0', at);
		if (end == std::string::npos)
			end = env.size();
		if (env.compare(at, key.size(), key) == 0)
			return env.substr(at + key.size(), end - at - key.size());
		at = end + 1;
	}
	return std::nullopt;
}

int nlctl_read_state(const char *path, pid_t pid, run_state *out, std::string *err)
{
	const int rc = run_state_read(path, out);
	if (rc == RUN_STATE_ERR_SYSTEM && errno == ENOENT) {
		*err = std::string("no run-state file ") + path;
		return NLCTL_ERR_STATE;
	}
	if (rc == RUN_STATE_ERR_SYSTEM) {
		*err = std::string("cannot read run-state file ") + path + ": " + std::strerror(errno);
		return NLCTL_ERR_STATE;
	}
	if (rc != RUN_STATE_OK) {
		*err = std::string("run-state file ") + path + ": " + run_state_status_name(rc);
		return NLCTL_ERR_STATE;
	}
	if (out->pid != pid) {
		*err = std::string("run-state file ") + path + " is stale: it was written by process " +
		       std::to_string(out->pid) + ", not " + std::to_string(pid);
		return NLCTL_ERR_STATE;
	}
	return NLCTL_OK;
}

namespace {

// "YYYY-MM-DD HH:MM:SS.nnnnnnnnn +ZZZZ", local time.
std::string local_time(std::int64_t sec, std::int64_t nsec)
{
	const time_t t = static_cast<time_t>(sec);
	tm parts{};
	char day[32], zone[8];
	if (localtime_r(&t, &parts) == nullptr || std::strftime(day, sizeof day, "%Y-%m-%d %H:%M:%S", &parts) == 0 ||
	    std::strftime(zone, sizeof zone, "%z", &parts) == 0)
		return std::to_string(sec) + "." + std::to_string(nsec);
	char text[64];
	std::snprintf(text, sizeof text, "%s.%09lld %s", day, static_cast<long long>(nsec), zone);
	return text;
}

}  // namespace

std::string nlctl_format_state(const run_state &s)
{
	const bool at_start = s.since_sec == s.started_sec && s.since_nsec == s.started_nsec;
	std::string admin = s.admin_down == 0 ? "up" : "down (AdminDown)";
	if (s.admin_down > 1)
		admin += ", byte " + std::to_string(s.admin_down);
	return "discriminator " + std::to_string(s.discriminator) + "\n" +
	       "source        " + ipv4_dotted(s.source_ip).text + "\n" +
	       "min-rx        " + std::to_string(s.min_rx) + " us\n" +
	       "admin         " + admin + "\n" +
	       "since         " + local_time(s.since_sec, s.since_nsec) +
	       (at_start ? " (start)\n" : " (last change)\n") +
	       "pid           " + std::to_string(s.pid) + ", started " + local_time(s.started_sec, s.started_nsec) +
	       "\n";
}

bool nlctl_process_alive(pid_t pid)
{
	if (kill(pid, 0) != 0 && errno == ESRCH)
		return false;
	unique_fd fd{open(("/proc/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC)};
	char buf[1024];
	const ssize_t n = fd.get() < 0 ? -1 : read(fd.get(), buf, sizeof buf);
	if (n <= 0)
		return true;  // it exists; what it does is not ours to see
	// The state follows the command's closing parenthesis and a blank (the
	// command may itself hold a parenthesis).
	const std::string stat(buf, static_cast<std::size_t>(n));
	const std::size_t paren = stat.rfind(')');
	if (paren == std::string::npos || paren + 2 >= stat.size())
		return true;
	return stat[paren + 2] != 'Z' && stat[paren + 2] != 'X';
}

std::string nlctl_trace_path(pid_t pid)
{
	const std::string suffix = std::string("/") + NLCTL_TRACE_FILE;
	std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
	for (std::string line; std::getline(maps, line);) {
		const std::size_t at = line.find('/');
		if (at != std::string::npos && line.size() >= suffix.size() &&
		    line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0)
			return line.substr(at);
	}
	std::optional<std::string> dir = nlctl_process_env(pid, "BREVLOG_DIR");
	if (!dir || dir->empty() || (*dir)[0] != '/') {
		const char *ours = std::getenv("BREVLOG_DIR");
		dir = ours && *ours ? std::optional<std::string>(ours) : std::nullopt;
	}
	if (dir && !dir->empty())
		return *dir + suffix;
	const std::string service = std::string("/var/log/orvalindwarden") + suffix;
	struct stat st;
	return stat(service.c_str(), &st) == 0 ? service : std::string("/var/log/brevlog") + suffix;
}

std::optional<std::string> nlctl_last_error(const char *path, std::uint64_t since_ns, std::string *err)
{
	constexpr std::uint32_t ERROR_LEVEL = 1;  // the daemon's TRACE_ERROR
	blr_file f;
	if (std::string why = blr_open(f, path); !why.empty()) {
		*err = why;
		return "";
	}
	std::vector<blr_record> records;
	blr_collect(f, 1u << ERROR_LEVEL, 0, records);
	blr_sort(records);
	for (auto r = records.rbegin(); r != records.rend(); ++r) {
		if (r->time_ns < since_ns)
			break;
		if (r->msg_id >= f.descs.size() || f.descs[r->msg_id].msg_id == 0)
			continue;
		std::string text = blr_format(f.descs[r->msg_id].fmt, r->values);
		while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
			text.pop_back();
		for (char &ch : text)
			if (static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f)
				ch = '?';
		return text;
	}
	return std::nullopt;
}

std::uint64_t nlctl_realtime_ns()
{
	timespec now{};
	clock_gettime(CLOCK_REALTIME, &now);
	return static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
}

int nlctl_confirm(pid_t pid, const char *state_path, const nlctl_config &sent, const run_state *before,
		  std::uint64_t sent_ns, const char *trace_path, std::chrono::milliseconds timeout,
		  std::string *err)
{
	const auto shows_change = [&](const run_state &s) {
		const std::uint64_t since_ns =
			static_cast<std::uint64_t>(s.since_sec) * 1000000000u + static_cast<std::uint64_t>(s.since_nsec);
		const bool changed = since_ns >= sent_ns ||
				     (before && (s.since_sec != before->since_sec || s.since_nsec != before->since_nsec));
		return changed;
	};
	std::string why = "no run-state file showed it";
	for (const auto end = std::chrono::steady_clock::now() + timeout;;) {
		if (!nlctl_process_alive(pid)) {
			*err = "the daemon (pid " + std::to_string(pid) + ") ended after the change";
			std::string terr;
			const std::optional<std::string> last = nlctl_last_error(trace_path, sent_ns, &terr);
			if (!terr.empty())
				*err += "; its trace cannot be read: " + terr;
			else if (last)
				*err += ": " + *last + " (trace " + trace_path + ")";
			else
				*err += std::string(" without an error record in its trace ") + trace_path +
					" (killed by a signal?)";
			return NLCTL_ERR_ENDED;
		}
		run_state s;
		std::string serr;
		if (nlctl_read_state(state_path, pid, &s, &serr) != NLCTL_OK) {
			why = serr;
		} else if (shows_change(s)) {
			if (s.discriminator == sent.disc && s.min_rx == sent.min_rx && ntohl(s.source_ip) == sent.src_ip &&
			    (s.admin_down != 0) == sent.admin_down)
				return NLCTL_OK;
			why = "the daemon runs with another configuration than was sent (another change at the same "
			      "time?):\n" + nlctl_format_state(s);
		} else {
			why = std::string("run-state file ") + state_path + " still shows the configuration before it";
		}
		if (std::chrono::steady_clock::now() >= end)
			break;
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	*err = "the daemon (pid " + std::to_string(pid) + ") did not confirm the change within " +
	       std::to_string(timeout.count()) + " ms: " + why;
	return NLCTL_ERR_UNCONFIRMED;
}
