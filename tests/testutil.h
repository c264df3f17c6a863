// testutil.h -- helpers shared by the tests: unique names, files, bounded
// waits, and owners of temporary directories, child processes and undo
// steps, whose destructors leave the machine as it was also when a test fails.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
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

// Polls `pred` until it is true or `timeout` has passed; its last value.
template <typename Pred> bool wait_until(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(5))
{
	for (const auto end = std::chrono::steady_clock::now() + timeout; !pred(); std::this_thread::sleep_for(std::chrono::milliseconds(10)))
		if (std::chrono::steady_clock::now() >= end)
			return pred();
	return true;
}

// Runs its undo step when it goes, in the process that made it only (not in
// a death test's child).
struct undo {
	explicit undo(std::function<void()> f) : fn(std::move(f)) {}
	undo(const undo &) = delete;
	~undo()
	{
		if (getpid() == owner)
			fn();
	}
	std::function<void()> fn;
	pid_t owner = getpid();
};

// A fresh directory /tmp/<prefix>-<pid>-XXXXXX, removed with its content.
class temp_dir {
public:
	explicit temp_dir(const std::string &prefix = "orvtest")
	{
		std::string tmpl = "/tmp/" + prefix + "-" + std::to_string(getpid()) + "-XXXXXX";
		if (mkdtemp(tmpl.data()) != nullptr)
			path_ = tmpl;
	}
	bool ok() const { return !path_.empty(); }
	const std::string &path() const { return path_; }
	std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
	std::string path_;
	undo remove_{[this] {
		std::error_code ec;
		if (!path_.empty())
			std::filesystem::remove_all(path_, ec);
	}};
};

// A child started with fork/exec, argv[0] looked up in PATH, input from
// /dev/null. `env` entries "NAME=value" set a variable, a bare "NAME" removes
// it. Still running on destruction, it is SIGKILLed by its pid and reaped.
class child_process {
public:
	explicit child_process(std::vector<std::string> argv, const std::vector<std::string> &env = {})
	{
		for (auto e = env.rbegin(); e != env.rend(); ++e) {
			argv.insert(argv.begin(), *e);
			if (e->find('=') == std::string::npos)
				argv.insert(argv.begin(), "-u");
		}
		if (!env.empty())
			argv.insert(argv.begin(), "env");
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
		if (running())
			kill(pid_, SIGKILL), waitpid(pid_, nullptr, 0);
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
	// Exit status after waiting up to `timeout`; -1: not ended, or by a signal.
	int exit_status(std::chrono::milliseconds timeout = std::chrono::seconds(20))
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

inline int run(const std::string &cmd) { return child_process({"sh", "-c", cmd}).exit_status(); }

inline std::string output_of(const std::string &cmd)
{
	child_process p({"sh", "-c", cmd});
	p.exit_status();
	return p.out();
}

}  // namespace testutil
