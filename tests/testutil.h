// testutil.h -- helpers shared by the tests: unique names, files and
// commands, bounded waits, and owners of what a test makes outside its own
// memory (temporary directories, child processes, anything with an undo
// step). Each owner undoes its work in its destructor, so a test that fails
// half way leaves the machine as it found it. Processes are signalled only
// by the pid the owner started. Names carry getpid() so that tests can run
// in parallel (ctest -j).
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace testutil {

// "<prefix>-<pid>", then "<prefix>-<pid>-<n>" for later calls in this process.
inline std::string unique_name(const std::string &prefix)
{
	static std::atomic<unsigned> counter{0};
	const unsigned n = counter++;
	return prefix + "-" + std::to_string(getpid()) + (n ? "-" + std::to_string(n) : "");
}

inline std::string bin(const std::string &name) { return ORV_BIN_DIR "/" + name; }

// Content of `path`; empty when it cannot be read.
inline std::string read_file(const std::string &path)
{
	std::ostringstream ss;
	ss << std::ifstream(path, std::ios::binary).rdbuf();
	return ss.str();
}

// Exit status of `cmd` run by /bin/sh, its output discarded; -1 when it did
// not exit normally.
inline int run(const std::string &cmd)
{
	const int rc = std::system((cmd + " >/dev/null 2>&1").c_str());
	return rc != -1 && WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

// Standard output of `cmd` run by /bin/sh (standard error discarded).
inline std::string output_of(const std::string &cmd)
{
	std::string out;
	if (FILE *p = popen((cmd + " 2>/dev/null").c_str(), "r")) {
		char buf[4096];
		for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;)
			out.append(buf, n);
		pclose(p);
	}
	return out;
}

// Polls `pred` until it is true or `timeout` has passed; its last value.
template <typename Pred> bool wait_until(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(5))
{
	const auto end = std::chrono::steady_clock::now() + timeout;
	while (!pred()) {
		if (std::chrono::steady_clock::now() >= end)
			return pred();
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	return true;
}

// Runs its undo step (a namespace deleted, an object unlinked, a setting
// restored) when it goes, in the process that made it only.
struct undo {
	std::function<void()> fn;
	pid_t owner = getpid();
	~undo()
	{
		if (fn && getpid() == owner)
			fn();
	}
};

// A fresh directory /tmp/<prefix>-<pid>-XXXXXX, removed with its content by
// the process that made it (not by a death test's child).
class temp_dir {
public:
	explicit temp_dir(const std::string &prefix = "orvtest")
	{
		std::string tmpl = "/tmp/" + prefix + "-" + std::to_string(getpid()) + "-XXXXXX";
		if (mkdtemp(tmpl.data()) != nullptr)
			path_ = tmpl;
	}
	temp_dir(const temp_dir &) = delete;
	temp_dir &operator=(const temp_dir &) = delete;

	bool ok() const { return !path_.empty(); }
	const std::string &path() const { return path_; }
	std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
	std::string path_;
	undo remove_{[this] {
		if (!path_.empty())
			nftw(path_.c_str(), [](const char *p, const struct stat *, int, FTW *) { return ::remove(p), 0; }, 16,
			     FTW_DEPTH | FTW_PHYS);
	}};
};

// A child started with fork/exec; argv[0] is looked up in PATH. `env`
// entries "NAME=value" set a variable, a bare "NAME" removes it (env(1) does
// the work). Standard input is /dev/null; output and error are read back
// with out() and err(). Still running on destruction, it is SIGKILLed by its
// pid and reaped.
class child_process {
public:
	explicit child_process(std::vector<std::string> argv, const std::vector<std::string> &env = {})
	{
		std::vector<std::string> pre{"env"};
		for (const auto &e : env) {
			if (e.find('=') == std::string::npos)
				pre.push_back("-u");
			pre.push_back(e);
		}
		if (!env.empty())
			argv.insert(argv.begin(), pre.begin(), pre.end());
		std::vector<char *> cargv;
		for (auto &a : argv)
			cargv.push_back(a.data());
		cargv.push_back(nullptr);
		pid_ = fork();
		if (pid_ == 0) {
			const int in = open("/dev/null", O_RDONLY);
			const int out = open(files_.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
			const int err = open(files_.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
			if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
				_exit(126);
			execvp(cargv[0], cargv.data());
			_exit(127);
		}
	}
	~child_process()
	{
		if (running()) {
			kill(pid_, SIGKILL);
			waitpid(pid_, nullptr, 0);
		}
	}
	child_process(const child_process &) = delete;
	child_process &operator=(const child_process &) = delete;

	pid_t pid() const { return pid_; }
	bool running()
	{
		int st;
		if (!status_ && pid_ > 0 && waitpid(pid_, &st, WNOHANG) == pid_)
			status_ = st;
		return pid_ > 0 && !status_;
	}
	// Exit status after waiting up to `timeout`; -1 when the child did not
	// end in time or ended on a signal.
	int exit_status(std::chrono::milliseconds timeout = std::chrono::seconds(10))
	{
		wait_until([&] { return !running(); }, timeout);
		return status_ && WIFEXITED(*status_) ? WEXITSTATUS(*status_) : -1;
	}
	std::string out() const { return read_file(files_.file("out")); }
	std::string err() const { return read_file(files_.file("err")); }

private:
	temp_dir files_{"orvchild"};
	pid_t pid_ = -1;
	std::optional<int> status_;
};

}  // namespace testutil
