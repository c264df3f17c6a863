// testutil.h -- helpers shared by the tests: privilege check, unique names,
// files and commands, bounded waits, and RAII owners of what a test creates
// outside its own memory (temporary directories, network namespaces, veth
// pairs, shared-memory objects, child processes). Each owner undoes its work
// in its destructor, so a test that fails half way leaves the machine as it
// found it. Processes are signalled only by the pid the owner started. Names
// carry getpid() so that tests can run in parallel (ctest -j).
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace testutil {

// Null when the process may create namespaces, links and packet sockets;
// otherwise the reason, for GTEST_SKIP.
inline const char *missing_net_admin()
{
	if (geteuid() != 0)
		return "needs root (CAP_NET_ADMIN and CAP_SYS_ADMIN) for network namespaces";
	if (std::system("command -v ip >/dev/null 2>&1") != 0)
		return "needs the ip command (iproute2)";
	return nullptr;
}

// "<prefix>-<pid>", then "<prefix>-<pid>-<n>" for later calls in this process.
inline std::string unique_name(const std::string &prefix)
{
	static std::atomic<unsigned> counter{0};
	unsigned n = counter++;
	return prefix + "-" + std::to_string(getpid()) + (n ? "-" + std::to_string(n) : "");
}

inline std::string bin(const char *name) { return std::string(ORV_BIN_DIR) + "/" + name; }

inline std::optional<std::string> read_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	if (!in)
		return std::nullopt;
	std::ostringstream ss;
	ss << in.rdbuf();
	return ss.str();
}

// Exit status of `cmd` run by /bin/sh with its output discarded; -1 when it
// did not exit normally.
inline int run(const std::string &cmd)
{
	int rc = std::system((cmd + " >/dev/null 2>&1").c_str());
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
template <typename Pred>
bool wait_until(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(5))
{
	const auto end = std::chrono::steady_clock::now() + timeout;
	while (!pred()) {
		if (std::chrono::steady_clock::now() >= end)
			return pred();
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	return true;
}

// True once process `pid` has bound its netlink control port (protocol 2,
// NETLINK_USERSOCK, port = pid): the daemon's last step of start-up.
inline bool netlink_bound(pid_t pid)
{
	std::istringstream in(read_file("/proc/" + std::to_string(pid) + "/net/netlink").value_or(""));
	for (std::string line; std::getline(in, line);) {
		std::istringstream f(line);
		std::string sk;
		long proto = -1, port = -1;
		f >> sk >> proto >> port;
		if (proto == 2 && port == pid)
			return true;
	}
	return false;
}

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
	~temp_dir()
	{
		if (!path_.empty() && getpid() == owner_)
			nftw(path_.c_str(), [](const char *p, const struct stat *, int, FTW *) { return ::remove(p), 0; },
			     16, FTW_DEPTH | FTW_PHYS);
	}
	temp_dir(const temp_dir &) = delete;
	temp_dir &operator=(const temp_dir &) = delete;

	bool ok() const { return !path_.empty(); }
	const std::string &path() const { return path_; }
	std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
	std::string path_;
	pid_t owner_ = getpid();
};

// A named network namespace with its loopback up and, given `cidr`, an
// interface "orvdum0" holding that address (a dummy one, or where the kernel
// has no dummy driver one end of a veth pair whose peer stays there too);
// deleted with everything in it.
class netns {
public:
	explicit netns(std::string name, const std::string &cidr = "") : name_(std::move(name))
	{
		const std::string ip = "ip -n " + name_ + " ";
		ok_ = run("ip netns add " + name_) == 0 && run(ip + "link set lo up") == 0;
		if (ok_ && !cidr.empty())
			ok_ = run(ip + "link add orvdum0 type dummy || { " + ip + "link add orvdum0 type veth peer name orvdum0p && " +
				  ip + "link set orvdum0p up; }") == 0 &&
			      run(ip + "addr add " + cidr + " dev orvdum0") == 0 && run(ip + "link set orvdum0 up") == 0;
	}
	~netns() { run("ip netns del " + name_); }
	netns(const netns &) = delete;
	netns &operator=(const netns &) = delete;

	bool ok() const { return ok_; }
	const std::string &name() const { return name_; }

private:
	std::string name_;
	bool ok_ = false;
};

// A veth pair, up: end `a` in namespace `ns_a` with address `cidr_a`, end
// `b` in `ns_b` with `cidr_b`. Goes with either namespace.
class veth_pair {
public:
	veth_pair(const std::string &ns_a, const std::string &a, const std::string &cidr_a, const std::string &ns_b,
		  const std::string &b, const std::string &cidr_b)
	{
		auto up = [](const std::string &ns, const std::string &dev, const std::string &cidr) {
			return run("ip -n " + ns + " addr add " + cidr + " dev " + dev) == 0 &&
			       run("ip -n " + ns + " link set " + dev + " up") == 0;
		};
		ok_ = run("ip -n " + ns_a + " link add " + a + " type veth peer name " + b + " netns " + ns_b) == 0 &&
		      up(ns_a, a, cidr_a) && up(ns_b, b, cidr_b);
	}
	bool ok() const { return ok_; }

private:
	bool ok_ = false;
};

// A shared-memory object name, unlinked on destruction whoever created it.
class shm_object {
public:
	explicit shm_object(std::string name) : name_(std::move(name)) {}
	~shm_object() { shm_unlink(name_.c_str()); }
	shm_object(const shm_object &) = delete;
	shm_object &operator=(const shm_object &) = delete;

	const std::string &name() const { return name_; }
	std::string path() const { return "/dev/shm/" + name_; }

private:
	std::string name_;
};

// A child started with fork/exec; argv[0] is looked up in PATH. `env`
// entries "NAME=value" add to or override the test's environment, a bare
// "NAME" removes that variable. Standard input is /dev/null, output and
// error are read back with out() and err(). Still running on destruction,
// it is SIGKILLed by its pid and reaped.
class child_process {
public:
	child_process(const std::vector<std::string> &argv, const std::vector<std::string> &env = {})
	{
		std::vector<std::string> envs(environ, environ + count_environ());
		for (const auto &x : env) {
			const std::string key = x.substr(0, x.find('=')) + "=";
			std::erase_if(envs, [&](const std::string &e) { return e.starts_with(key); });
			if (x.find('=') != std::string::npos)
				envs.push_back(x);
		}
		std::vector<char *> cargv, cenv;
		for (const auto &a : argv)
			cargv.push_back(const_cast<char *>(a.c_str()));
		for (const auto &e : envs)
			cenv.push_back(const_cast<char *>(e.c_str()));
		cargv.push_back(nullptr);
		cenv.push_back(nullptr);
		pid_ = fork();
		if (pid_ == 0) {
			int in = open("/dev/null", O_RDONLY);
			int out = open(files_.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
			int err = open(files_.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
			if (in < 0 || out < 0 || err < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
				_exit(126);
			execvpe(cargv[0], cargv.data(), cenv.data());
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
	// Raw wait status once the child ended within `timeout`.
	std::optional<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(10))
	{
		wait_until([&] { return !running(); }, timeout);
		return status_;
	}
	// Exit status after waiting up to `timeout`; -1 when the child did not
	// end in time or ended on a signal.
	int exit_status(std::chrono::milliseconds timeout = std::chrono::seconds(10))
	{
		auto st = wait(timeout);
		return st && WIFEXITED(*st) ? WEXITSTATUS(*st) : -1;
	}
	void signal(int sig)
	{
		if (running())
			kill(pid_, sig);
	}
	std::string out() const { return read_file(files_.file("out")).value_or(""); }
	std::string err() const { return read_file(files_.file("err")).value_or(""); }

private:
	static std::size_t count_environ()
	{
		std::size_t n = 0;
		while (environ[n])
			n++;
		return n;
	}
	temp_dir files_{"orvchild"};
	pid_t pid_ = -1;
	std::optional<int> status_;
};

}  // namespace testutil
