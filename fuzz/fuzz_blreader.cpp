// fuzz_blreader.cpp -- libFuzzer target of the trace reader: every input is
// a whole trace file image. The reader must reject it with a message or
// render every record it accepts, without reading outside the image; and
// the same bytes read as a file (blr_open: pread in chunks, hole checks)
// must be accepted or rejected alike and render the same records.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "blreader.h"

namespace {

// Every record of `f`, rendered; false when `f` does not open.
bool render_all(blr_file &f, const std::string &opened, std::string *text)
{
	if (!opened.empty())
		return false;
	std::vector<blr_record> recs;
	blr_collect(f, ~0u, 0, recs);
	blr_sort(recs);
	for (const auto &r : recs)
		text->append(blr_render(f, r)).push_back('\n');
	return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	blr_file image;
	std::string from_image;
	const bool image_ok = render_all(image, blr_attach(image, {data, size}, "fuzz"), &from_image);

	// The file: a memfd holding the same bytes, opened by its /proc path.
	const int fd = memfd_create("fuzz_blreader", MFD_CLOEXEC);
	if (fd == -1 || size == 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
		if (fd != -1)
			close(fd);
		return 0;
	}
	const std::string path = "/proc/self/fd/" + std::to_string(fd);
	std::string from_file;
	bool file_ok;
	{
		blr_file file;
		file_ok = render_all(file, blr_open(file, path.c_str()), &from_file);
	}
	close(fd);
	if (image_ok != file_ok || from_image != from_file)
		__builtin_trap();
	return 0;
}
