// nlctl.cpp -- netlink control messages to the reflector: validation, the
// message codec, the pid file, and the send with its error reporting.
#include "nlctl.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "argparse.h"
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
		      std::string *err)
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
	if (int rc = nlctl_check_source(netns, c.src_ip, err); rc != NLCTL_OK)
		return rc;
	return send_control(fd.get(), pid, nlctl_encode(c, seq), err);
}
