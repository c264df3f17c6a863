// netns.cpp -- sockets created inside a named network namespace.
//
// A socket belongs for its whole life to the network namespace its creating
// thread was in at socket() time. So to make one in another namespace the
// thread enters that namespace, creates the socket and returns to its own.
// Invariant: on every return the calling thread is back in the namespace it
// was in on entry; if that return is impossible the process aborts rather
// than go on in the wrong namespace.
#include "netns.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *DEFAULT_NS_NAME = "default";
constexpr const char *SELF_NS_PATH = "/proc/self/ns/net";

// Closes `fd` without disturbing errno, so the caller reports the failing step.
void close_keep_errno(int fd)
{
	int saved = errno;
	close(fd);
	errno = saved;
}

}  // namespace

int netnsSocketAt(int domain, int type, int protocol, const char *name)
{
	if (name == nullptr || name[0] == '\0' || std::strchr(name, '/') != nullptr) {
		errno = EINVAL;
		return -1;
	}
	if (std::strcmp(name, DEFAULT_NS_NAME) == 0)
		return socket(domain, type, protocol);

	char path[PATH_MAX];
	int n = std::snprintf(path, sizeof path, "%s/%s", NETNS_RUN_DIR, name);
	if (n < 0 || static_cast<std::size_t>(n) >= sizeof path) {
		errno = ENAMETOOLONG;
		return -1;
	}

	// Remember where we are, then open the target before leaving, so an
	// unknown name fails without any namespace switch.
	int self_fd = open(SELF_NS_PATH, O_RDONLY | O_CLOEXEC);
	if (self_fd == -1)
		return -1;
	int target_fd = open(path, O_RDONLY | O_CLOEXEC);
	if (target_fd == -1) {
		close_keep_errno(self_fd);
		return -1;
	}
	if (setns(target_fd, CLONE_NEWNET) == -1) {
		close_keep_errno(target_fd);
		close_keep_errno(self_fd);
		return -1;
	}

	int fd = socket(domain, type, protocol);
	int socket_errno = errno;

	// Going back cannot be skipped: the caller's later sockets, and every
	// other use of its namespace, depend on it.
	if (setns(self_fd, CLONE_NEWNET) == -1) {
		std::fprintf(stderr, "netnsSocketAt: setns(%s) back failed, errno %d\n",
			     SELF_NS_PATH, errno);
		std::abort();
	}
	close(target_fd);
	close(self_fd);
	errno = socket_errno;
	return fd;
}
