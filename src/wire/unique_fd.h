// unique_fd.h -- owner of one file descriptor for the tools, tests and
// benchmarks (the daemon cleans up along its own path): closes
// it when the owner goes away, so no error path forgets a close.
#pragma once

#include <unistd.h>

#include <utility>

struct unique_fd {
	int fd = -1;  // owned descriptor, -1 when none

	unique_fd() = default;
	explicit unique_fd(int f) : fd(f) {}
	unique_fd(const unique_fd &) = delete;
	unique_fd &operator=(const unique_fd &) = delete;
	unique_fd(unique_fd &&o) noexcept : fd(std::exchange(o.fd, -1)) {}
	unique_fd &operator=(unique_fd &&o) noexcept
	{
		if (this != &o) {
			reset();
			fd = std::exchange(o.fd, -1);
		}
		return *this;
	}
	~unique_fd() { reset(); }

	int get() const { return fd; }
	void reset()
	{
		if (fd >= 0)
			close(fd);
		fd = -1;
	}
};
