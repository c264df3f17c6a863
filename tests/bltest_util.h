// bltest_util.h -- helpers of the trace library tests: a private trace
// directory per test, a handle that is closed on every exit path, and the
// records of a file read back through the reader.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "blreader.h"
#include "brevlog.h"

// A fresh directory named after the process and a counter; removed with its
// contents when the test ends, also when it fails.
struct bl_temp_dir {
	std::filesystem::path path;
	bl_temp_dir()
	{
		static int n;
		path = std::filesystem::temp_directory_path() /
		       ("bltest-" + std::to_string(getpid()) + "-" + std::to_string(n++));
		std::filesystem::remove_all(path);
		std::filesystem::create_directories(path);
	}
	~bl_temp_dir()
	{
		std::error_code ec;
		std::filesystem::remove_all(path, ec);
	}
	std::string file(const std::string &name) const { return (path / name).string(); }
};

// Sets BREVLOG_DIR for the lifetime of the object and restores it after.
struct bl_env_dir {
	std::string saved;
	bool had;
	explicit bl_env_dir(const char *dir)
	{
		const char *old = std::getenv("BREVLOG_DIR");
		had = old != nullptr;
		if (had)
			saved = old;
		if (dir)
			setenv("BREVLOG_DIR", dir, 1);
		else
			unsetenv("BREVLOG_DIR");
	}
	~bl_env_dir()
	{
		if (had)
			setenv("BREVLOG_DIR", saved.c_str(), 1);
		else
			unsetenv("BREVLOG_DIR");
	}
};

// A handle closed when the test leaves its scope.
struct bl_scoped_handle {
	bl_log *h;
	explicit bl_scoped_handle(bl_log *handle) : h(handle) {}
	~bl_scoped_handle() { bl_close(h); }
	bl_scoped_handle(const bl_scoped_handle &) = delete;
	bl_scoped_handle &operator=(const bl_scoped_handle &) = delete;
};

// A record read back and rendered (text only, without time and level).
struct bl_read_record {
	std::uint32_t level;
	std::uint32_t msg_id;
	std::uint64_t time_ns;
	std::string where;  // file:line
	std::string text;
	std::vector<blr_value> values;
};

// All live records of `path`, time-ordered. Fails the test when the file
// does not open.
inline std::vector<bl_read_record> bl_read_all(const std::string &path, blr_stats *stats = nullptr)
{
	blr_file f;
	const std::string why = blr_open(f, path.c_str());
	EXPECT_EQ(why, "");
	std::vector<bl_read_record> out;
	if (!why.empty())
		return out;
	std::vector<blr_record> recs;
	blr_collect(f, ~0u, 0, recs);
	blr_sort(recs);
	for (const blr_record &r : recs) {
		bl_read_record o{r.level, r.msg_id, r.time_ns, "", "", r.values};
		for (const blr_desc &d : f.descs)
			if (d.msg_id == r.msg_id) {
				o.where = d.file + ":" + std::to_string(d.line);
				o.text = blr_format(d.fmt, r.values);
			}
		out.push_back(std::move(o));
	}
	if (stats)
		*stats = f.stats;
	return out;
}
