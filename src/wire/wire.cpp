// wire.cpp -- the display names of BFD states and diagnostics, and the text
// of IPv4 addresses (wire.h).
#include "wire.h"

const char *bfd_state_name(std::uint8_t state)
{
	switch (static_cast<bfd_state>(state)) {
	case BFD_STATE_ADMIN_DOWN:
		return "AdminDown";
	case BFD_STATE_DOWN:
		return "Down";
	case BFD_STATE_INIT:
		return "Init";
	case BFD_STATE_UP:
		return "Up";
	}
	return "unknown";
}

const char *bfd_diag_name(std::uint8_t diag)
{
	switch (static_cast<bfd_diagnostic>(diag)) {
	case BFD_DIAG_NONE:
		return "No Diagnostic";
	case BFD_DIAG_DETECT_EXPIRED:
		return "Control Detection Time Expired";
	case BFD_DIAG_ECHO_FAILED:
		return "Echo Function Failed";
	case BFD_DIAG_NEIGHBOR_DOWN:
		return "Neighbor Signaled Session Down";
	case BFD_DIAG_FORWARDING_RESET:
		return "Forwarding Plane Reset";
	case BFD_DIAG_PATH_DOWN:
		return "Path Down";
	case BFD_DIAG_CONCAT_PATH_DOWN:
		return "Concatenated Path Down";
	case BFD_DIAG_ADMIN_DOWN:
		return "Administratively Down";
	case BFD_DIAG_REVERSE_CONCAT_PATH_DOWN:
		return "Reverse Concatenated Path Down";
	}
	return "unknown";
}

const char *ipv4_format(std::uint32_t addr_net, std::span<char, IPV4_TEXT_LEN> out)
{
	std::uint8_t b[4];
	std::memcpy(b, &addr_net, sizeof b);  // network order: b[0] is the first number
	char *p = out.data();
	for (int i = 0; i < 4; i++) {
		unsigned v = b[i];
		if (v >= 100) {
			*p++ = static_cast<char>('0' + v / 100);
			v %= 100;
			*p++ = static_cast<char>('0' + v / 10);
		} else if (v >= 10) {
			*p++ = static_cast<char>('0' + v / 10);
		}
		*p++ = static_cast<char>('0' + v % 10);
		*p++ = i < 3 ? '.' : '\0';
	}
	return out.data();
}

ipv4_text ipv4_dotted(std::uint32_t addr_net)
{
	ipv4_text t;
	ipv4_format(addr_net, t.text);
	return t;
}
