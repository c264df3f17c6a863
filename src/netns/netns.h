// netns.h -- sockets created inside a named network namespace.
#pragma once

// Directory where `ip netns` keeps the handles of named namespaces.
constexpr const char *NETNS_RUN_DIR = "/var/run/netns";

// Creates a socket(domain, type, protocol) in the network namespace `name`:
// "default" is the calling thread's current namespace; any other name is the
// namespace that `ip netns` knows by that name (NETNS_RUN_DIR/name). The
// caller's namespace is restored before returning, on success and failure.
// Returns the descriptor, or -1 with errno set (ENOENT for an unknown name,
// EINVAL for a null or empty name or one containing "/").
int netnsSocketAt(int domain, int type, int protocol, const char *name);
