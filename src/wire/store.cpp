// store.cpp -- the shared session store's object name (store.h).
#include "store.h"

#include <cstring>

void shm_store_name(char name[SHM_NAME_LEN], const char *nspath)
{
	constexpr std::size_t PREFIX_LEN = sizeof SHM_NAME_PREFIX - 1;  // 14
	std::memset(name, 0, SHM_NAME_LEN);
	std::memcpy(name, SHM_NAME_PREFIX, PREFIX_LEN);
	if (nspath == nullptr)
		return;
	// At most 241 characters, into bytes 14..254: byte 255 stays the terminator.
	std::size_t n = strnlen(nspath, SHM_NSPATH_MAX);
	for (std::size_t i = 0; i < n; i++)
		name[PREFIX_LEN + i] = nspath[i] == '/' ? '-' : nspath[i];
}
