// send_seam.cpp -- a sendto that tests can script (rxt::seam), for send
// failures no real socket produces on demand (EINTR, a short send), and that
// turns the harness's replies to the loopback (rxt::to_loopback_fd). Other
// calls go to the C library.
#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "rxutil.h"

extern "C" ssize_t sendto(int fd, const void *buf, size_t len, int flags, const sockaddr *addr, socklen_t addr_len)
{
	auto &[seam_fd, script, short_len, calls] = rxt::seam;
	if (fd >= 0 && fd == seam_fd) {
		calls++;
		if (!script.empty()) {
			errno = script.front();
			script.erase(script.begin());
			return -1;
		}
		if (short_len >= 0)
			return short_len;
	}
	using sendto_fn = ssize_t (*)(int, const void *, size_t, int, const sockaddr *, socklen_t);
	static sendto_fn real = reinterpret_cast<sendto_fn>(dlsym(RTLD_NEXT, "sendto"));
	if (fd >= 0 && fd == rxt::to_loopback_fd && addr != nullptr && addr_len == sizeof(sockaddr_in)) {
		sockaddr_in to;
		std::memcpy(&to, addr, sizeof to);
		to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		return real(fd, buf, len, flags, reinterpret_cast<const sockaddr *>(&to), sizeof to);
	}
	return real(fd, buf, len, flags, addr, addr_len);
}
