// nlctl.cpp -- netlink control messages to the reflector: validation, the
// message codec, the pid file, and the send with its error reporting.
#include "nlctl.h"

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "netns.h"
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

namespace {

// "'TEXT'WHY": the message of a rejected argument. Built by appending: an
// insertion at the front of a temporary string trips a false -Wrestrict of
// GCC 12 at -O3.
std::string rejected(const char *text, const char *why)
{
	std::string m = "'";
	m.append(text != nullptr ? text : "").append("'").append(why);
	return m;
}

}  // namespace

bool nlctl_parse_u32(const char *text, std::uint32_t lo, std::uint32_t hi, std::uint32_t *out,
		     std::string *err)
{
	std::string range = " (expected " + std::to_string(lo) + ".." + std::to_string(hi) + ")";
	if (text == nullptr || *text < '0' || *text > '9') {
		*err = rejected(text, " is not a number") + range;
		return false;
	}
	errno = 0;
	char *end = nullptr;
	unsigned long long v = std::strtoull(text, &end, 10);
	if (*end != '\0') {
		*err = rejected(text, " is not a number") + range;
		return false;
	}
	if (errno == ERANGE || v < lo || v > hi) {
		*err = rejected(text, " is out of range") + range;
		return false;
	}
	*out = static_cast<std::uint32_t>(v);
	return true;
}

bool nlctl_parse_ipv4(const char *text, std::uint32_t *host_order, std::string *err)
{
	in_addr a{};
	if (text == nullptr || inet_pton(AF_INET, text, &a) != 1) {
		*err = rejected(text, " is not an IPv4 address (a.b.c.d)");
		return false;
	}
	std::uint32_t h = ntohl(a.s_addr);
	if (h == 0 || h == 0xffffffff) {
		*err = rejected(text, " cannot be a source address");
		return false;
	}
	*host_order = h;
	return true;
}

bool nlctl_read_pidfile(const char *path, pid_t *pid, std::string *err)
{
	std::ifstream in(path);
	if (!in) {
		*err = std::string("cannot read pid file ") + path + ": " + std::strerror(errno);
		return false;
	}
	std::string line;
	std::getline(in, line);
	std::uint32_t v;
	std::string why;
	if (!nlctl_parse_u32(line.c_str(), 1, 0x7fffffff, &v, &why)) {
		*err = std::string("pid file ") + path + " does not hold a pid: " + why;
		return false;
	}
	*pid = static_cast<pid_t>(v);
	return true;
}

int nlctl_send(pid_t pid, const char *netns, const std::array<std::uint8_t, NLCTL_MSG_LEN> &msg,
	       std::string *err)
{
	// A process check first, for a clearer message than the netlink error.
	if (kill(pid, 0) != 0 && errno == ESRCH) {
		*err = "no process with pid " + std::to_string(pid);
		return NLCTL_ERR_NO_PROCESS;
	}
	unique_fd fd{netnsSocketAt(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK, netns)};
	if (fd.get() < 0) {
		*err = std::string("netlink socket in namespace ") + netns + ": " + std::strerror(errno);
		return NLCTL_ERR_SYSTEM;
	}
	sockaddr_nl dst{};
	dst.nl_family = AF_NETLINK;
	dst.nl_pid = static_cast<std::uint32_t>(pid);
	if (sendto(fd.get(), msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&dst), sizeof dst) < 0) {
		int e = errno;
		if (e == ECONNREFUSED) {
			*err = "process " + std::to_string(pid) +
			       " has no netlink control port here (not a running reflector, or in "
			       "another network namespace)";
			return NLCTL_ERR_NO_PORT;
		}
		*err = std::string("sendto: ") + std::strerror(e);
		return NLCTL_ERR_SYSTEM;
	}
	return NLCTL_OK;
}
