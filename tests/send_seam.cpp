// send_seam.cpp -- a sendto that tests can script: linked into the test and
// benchmark executables that need send failures no real socket produces on
// demand (EINTR, a short send), or replies that must not leave the host.
// Every other call goes to the C library's sendto.
#include <dlfcn.h>
#include <sys/socket.h>

#include <cerrno>

#include "rxutil.h"

namespace rxt::seam {
int fd = -1;
std::vector<int> script;
std::size_t calls = 0;
bool swallow = false;
ssize_t short_len = -1;
}  // namespace rxt::seam

extern "C" ssize_t sendto(int fd, const void *buf, size_t len, int flags, const sockaddr *addr,
			  socklen_t addr_len)
{
	using namespace rxt::seam;
	if (fd >= 0 && fd == rxt::seam::fd) {
		calls++;
		if (!script.empty()) {
			const int err = script.front();
			script.erase(script.begin());
			if (err != 0) {
				errno = err;
				return -1;
			}
		}
		if (short_len >= 0)
			return short_len;
		if (swallow)
			return static_cast<ssize_t>(len);
	}
	using sendto_fn = ssize_t (*)(int, const void *, size_t, int, const sockaddr *, socklen_t);
	static sendto_fn real = reinterpret_cast<sendto_fn>(dlsym(RTLD_NEXT, "sendto"));
	return real(fd, buf, len, flags, addr, addr_len);
}
