// testutil.h -- helpers shared by the tests: privilege checks, unique names,
// and RAII owners of what a test creates outside its own memory (temporary
// directories, network namespaces, links, spawned processes, shared-memory
// objects, files it must give back).
//
// Every owner undoes its work in its destructor, so a test that fails half
// way still leaves the machine as it found it. Processes are only ever
// signalled by the pid the owner itself started (or was handed), never by
// name. Names carry getpid() so that tests can run in parallel (ctest -j).
//
// Typical namespace test:
//
//   if (const char *why = testutil::missing_net_admin()) GTEST_SKIP() << why;
//   testutil::netns ns{testutil::unique_name("orvtest")};
//   ASSERT_TRUE(ns.ok());
//   testutil::dummy_link eth{ns.name(), "dum0", "192.0.2.1/24"};
//   testutil::child_process d{{"ip", "netns", "exec", ns.name(), bin, ...},
//                             {"NSPATH=/x"}};
//   ASSERT_TRUE(testutil::wait_until([&] { return ...; }));
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <sys/file.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char **environ;

namespace testutil {

// ---- privilege and names ----

// Null when the process may create namespaces, links and packet sockets
// (root); otherwise the reason, for GTEST_SKIP.
inline const char *missing_net_admin()
{
	if (geteuid() != 0)
		return "needs root (CAP_NET_ADMIN and CAP_SYS_ADMIN) for network namespaces";
	if (access("/usr/sbin/ip", X_OK) != 0 && access("/sbin/ip", X_OK) != 0 &&
	    access("/usr/bin/ip", X_OK) != 0 && access("/bin/ip", X_OK) != 0)
		return "needs the ip command (iproute2)";
	return nullptr;
}

// "<prefix>-<pid>", or "<prefix>-<pid>-<n>" from the second call on with the
// same prefix in this process, so names never clash between parallel tests.
inline std::string unique_name(const std::string &prefix)
{
	static std::atomic<unsigned> counter{0};
	unsigned n = counter++;
	std::string name = prefix + "-" + std::to_string(getpid());
	if (n != 0)
		name += "-" + std::to_string(n);
	return name;
}

// ---- small file and command helpers ----

// Whole content of `path`; nullopt when it cannot be read.
inline std::optional<std::string> read_file(const std::string &path)
{
	std::ifstream in(path, std::ios::binary);
	if (!in)
		return std::nullopt;
	std::ostringstream ss;
	ss << in.rdbuf();
	return ss.str();
}

inline bool write_file(const std::string &path, const std::string &content)
{
	std::ofstream out(path, std::ios::binary | std::ios::trunc);
	out << content;
	return static_cast<bool>(out);
}

// Runs `cmd` with /bin/sh; returns its exit status, or -1 when it did not
// exit normally. Standard output and error are discarded unless `cmd`
// redirects them itself.
inline int run(const std::string &cmd)
{
	int rc = std::system((cmd + " >/dev/null 2>&1").c_str());
	if (rc == -1 || !WIFEXITED(rc))
		return -1;
	return WEXITSTATUS(rc);
}

// Runs `cmd` with /bin/sh and returns its standard output (stderr discarded).
inline std::string output_of(const std::string &cmd)
{
	std::string out;
	FILE *p = popen((cmd + " 2>/dev/null").c_str(), "r");
	if (p == nullptr)
		return out;
	char buf[4096];
	std::size_t n;
	while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
		out.append(buf, n);
	pclose(p);
	return out;
}

// Polls `pred` every `step` until it is true or `timeout` has passed;
// returns its last value. Bounded in time by construction.
template <typename Pred>
bool wait_until(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(5),
		std::chrono::milliseconds step = std::chrono::milliseconds(10))
{
	auto end = std::chrono::steady_clock::now() + timeout;
	for (;;) {
		if (pred())
			return true;
		if (std::chrono::steady_clock::now() >= end)
			return pred();
		std::this_thread::sleep_for(step);
	}
}

// ---- RAII owners ----

// A fresh directory /tmp/<prefix>-<pid>-XXXXXX, removed with its content.
class temp_dir {
public:
	explicit temp_dir(const std::string &prefix = "orvtest")
	{
		std::string tmpl = "/tmp/" + prefix + "-" + std::to_string(getpid()) + "-XXXXXX";
		std::vector<char> buf(tmpl.begin(), tmpl.end());
		buf.push_back('\0');
		if (mkdtemp(buf.data()) != nullptr)
			path_ = buf.data();
	}
	~temp_dir()
	{
		if (!path_.empty() && getpid() == owner_)  // not in a death test's child
			nftw(path_.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS);
	}
	temp_dir(const temp_dir &) = delete;
	temp_dir &operator=(const temp_dir &) = delete;

	bool ok() const { return !path_.empty(); }
	const std::string &path() const { return path_; }
	std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
	static int remove_entry(const char *p, const struct stat *, int, FTW *)
	{
		::remove(p);
		return 0;
	}
	std::string path_;
	pid_t owner_ = getpid();
};

// A named network namespace (`ip netns add NAME`), deleted with everything in
// it (`ip netns del NAME`). Its loopback is brought up.
class netns {
public:
	explicit netns(std::string name) : name_(std::move(name))
	{
		ok_ = run("ip netns add " + name_) == 0;
		if (ok_)
			run("ip -n " + name_ + " link set lo up");
	}
	~netns()
	{
		if (ok_)
			run("ip netns del " + name_);
	}
	netns(const netns &) = delete;
	netns &operator=(const netns &) = delete;

	bool ok() const { return ok_; }
	const std::string &name() const { return name_; }
	// Handle file of the namespace, as netnsSocketAt opens it.
	std::string path() const { return "/var/run/netns/" + name_; }
	// Runs a shell command inside the namespace; returns its exit status.
	int exec(const std::string &cmd) const { return run("ip netns exec " + name_ + " " + cmd); }

private:
	std::string name_;
	bool ok_ = false;
};

// An interface inside namespace `ns`, up, with `cidr` (e.g. "192.0.2.1/24")
// as its address: a dummy interface, or, where the kernel has no dummy
// driver, one end of a veth pair whose peer (`ifname` + "p") stays in the
// same namespace. Deleted on destruction (and with its namespace anyway).
class dummy_link {
public:
	dummy_link(std::string ns, std::string ifname, const std::string &cidr)
		: ns_(std::move(ns)), ifname_(std::move(ifname))
	{
		std::string ip = "ip -n " + ns_ + " ";
		bool made = run(ip + "link add " + ifname_ + " type dummy") == 0;
		if (!made)
			made = run(ip + "link add " + ifname_ + " type veth peer name " + ifname_ +
				   "p") == 0 &&
			       run(ip + "link set " + ifname_ + "p up") == 0;
		ok_ = made && run(ip + "addr add " + cidr + " dev " + ifname_) == 0 &&
		      run(ip + "link set " + ifname_ + " up") == 0;
	}
	~dummy_link() { run("ip -n " + ns_ + " link del " + ifname_); }
	dummy_link(const dummy_link &) = delete;
	dummy_link &operator=(const dummy_link &) = delete;

	bool ok() const { return ok_; }
	const std::string &name() const { return ifname_; }

private:
	std::string ns_, ifname_;
	bool ok_ = false;
};

// A veth pair: end `a` in namespace `ns_a` with address `cidr_a`, end `b` in
// `ns_b` with `cidr_b` (an empty cidr leaves that end without an address).
// Both ends are up. Deleting one end deletes the pair.
class veth_pair {
public:
	veth_pair(std::string ns_a, std::string a, const std::string &cidr_a, std::string ns_b,
		  std::string b, const std::string &cidr_b)
		: ns_a_(std::move(ns_a)), a_(std::move(a)), ns_b_(std::move(ns_b)), b_(std::move(b))
	{
		ok_ = run("ip -n " + ns_a_ + " link add " + a_ + " type veth peer name " + b_ +
			  " netns " + ns_b_) == 0 &&
		      configure(ns_a_, a_, cidr_a) && configure(ns_b_, b_, cidr_b);
	}
	~veth_pair() { run("ip -n " + ns_a_ + " link del " + a_); }
	veth_pair(const veth_pair &) = delete;
	veth_pair &operator=(const veth_pair &) = delete;

	bool ok() const { return ok_; }

private:
	static bool configure(const std::string &ns, const std::string &ifname,
			      const std::string &cidr)
	{
		std::string ip = "ip -n " + ns + " ";
		if (!cidr.empty() && run(ip + "addr add " + cidr + " dev " + ifname) != 0)
			return false;
		return run(ip + "link set " + ifname + " up") == 0;
	}
	std::string ns_a_, a_, ns_b_, b_;
	bool ok_ = false;
};

// A POSIX shared-memory object name (as given to shm_open) that is unlinked
// on destruction, whether or not the test or the daemon created it.
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

// A file whose content (or absence) is saved now and put back on
// destruction; for global files a test must write, like a pid file.
class file_restore {
public:
	explicit file_restore(std::string path) : path_(std::move(path)), saved_(read_file(path_)) {}
	~file_restore()
	{
		if (saved_)
			write_file(path_, *saved_);
		else
			::unlink(path_.c_str());
	}
	file_restore(const file_restore &) = delete;
	file_restore &operator=(const file_restore &) = delete;

	const std::optional<std::string> &saved() const { return saved_; }

private:
	std::string path_;
	std::optional<std::string> saved_;
};

// An exclusive lock (flock) on `path`, held for the owner's lifetime, so
// that tests changing one global resource run one at a time even under
// ctest -j. Waits at most `timeout` for it; ok() tells whether it is held.
class file_lock {
public:
	explicit file_lock(const std::string &path,
			   std::chrono::milliseconds timeout = std::chrono::seconds(120))
	{
		fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
		if (fd_ >= 0)
			held_ = wait_until([&] { return flock(fd_, LOCK_EX | LOCK_NB) == 0; }, timeout,
					   std::chrono::milliseconds(20));
	}
	~file_lock()
	{
		if (fd_ >= 0)
			close(fd_);  // releases the lock
	}
	file_lock(const file_lock &) = delete;
	file_lock &operator=(const file_lock &) = delete;

	bool ok() const { return held_; }

private:
	int fd_ = -1;
	bool held_ = false;
};

// Every start of the daemon rewrites /var/run/orvalindwarden.pid. A test that
// starts the daemon holds this lock (file_lock) around its start and a
// file_restore of the pid file, so that concurrent tests neither read each
// other's pid nor restore each other's content in the wrong order.
constexpr const char *DAEMON_PID_FILE = "/var/run/orvalindwarden.pid";
constexpr const char *DAEMON_PID_FILE_LOCK = "/run/lock/orvalindwarden-tests.lock";

// True while process `pid` exists and is not a zombie.
inline bool process_alive(pid_t pid)
{
	if (pid <= 0 || kill(pid, 0) != 0)
		return false;
	auto stat = read_file("/proc/" + std::to_string(pid) + "/stat");
	if (!stat)
		return false;
	auto close_paren = stat->rfind(')');
	return close_paren == std::string::npos || close_paren + 2 >= stat->size() ||
	       (*stat)[close_paren + 2] != 'Z';
}

// A process the test did not fork itself but is responsible for (e.g. one
// that detached from a child): SIGKILLed by this pid on destruction.
class pid_owner {
public:
	explicit pid_owner(pid_t pid = 0) : pid_(pid) {}
	~pid_owner() { stop(); }
	pid_owner(const pid_owner &) = delete;
	pid_owner &operator=(const pid_owner &) = delete;

	void reset(pid_t pid)
	{
		stop();
		pid_ = pid;
	}
	pid_t pid() const { return pid_; }
	// Kills the process and waits (bounded) until it is gone.
	void stop()
	{
		if (pid_ <= 0)
			return;
		kill(pid_, SIGKILL);
		wait_until([&] { return !process_alive(pid_); }, std::chrono::seconds(5));
		pid_ = 0;
	}

private:
	pid_t pid_;
};

// A child started with fork/exec. `argv[0]` is looked up in PATH; `env` adds
// or overrides "NAME=value" entries of the test's environment, and a bare
// "NAME" removes that variable. Standard output
// and error go to files read back with out() and err(); standard input is
// /dev/null. If it is still running on destruction it is SIGKILLed (by its
// pid) and reaped.
class child_process {
public:
	child_process(const std::vector<std::string> &argv, const std::vector<std::string> &env = {})
		: out_path_(files_.file("stdout")), err_path_(files_.file("stderr"))
	{
		std::vector<std::string> envs = merged_env(env);
		std::vector<char *> cargv, cenv;
		for (const auto &a : argv)
			cargv.push_back(const_cast<char *>(a.c_str()));
		cargv.push_back(nullptr);
		for (const auto &e : envs)
			cenv.push_back(const_cast<char *>(e.c_str()));
		cenv.push_back(nullptr);

		pid_ = fork();
		if (pid_ == 0) {
			int in = open("/dev/null", O_RDONLY);
			int out = open(out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
			int err = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
			if (in < 0 || out < 0 || err < 0)
				_exit(126);
			dup2(in, 0);
			dup2(out, 1);
			dup2(err, 2);
			execvpe(cargv[0], cargv.data(), cenv.data());
			_exit(127);
		}
	}
	~child_process()
	{
		if (pid_ > 0 && !status_) {
			kill(pid_, SIGKILL);
			int st;
			waitpid(pid_, &st, 0);
		}
	}
	child_process(const child_process &) = delete;
	child_process &operator=(const child_process &) = delete;

	pid_t pid() const { return pid_; }

	// Raw wait status once the child has ended (reaping it), else nullopt.
	std::optional<int> poll()
	{
		if (!status_ && pid_ > 0) {
			int st;
			if (waitpid(pid_, &st, WNOHANG) == pid_)
				status_ = st;
		}
		return status_;
	}
	bool running() { return pid_ > 0 && !poll(); }

	// Waits up to `timeout` for the child to end; returns its raw wait status.
	std::optional<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(10))
	{
		wait_until([&] { return poll().has_value(); }, timeout);
		return status_;
	}
	// Exit status (0..255) after waiting up to `timeout`; -1 when the child
	// did not end in time or ended on a signal.
	int exit_status(std::chrono::milliseconds timeout = std::chrono::seconds(10))
	{
		auto st = wait(timeout);
		return st && WIFEXITED(*st) ? WEXITSTATUS(*st) : -1;
	}
	// Sends `sig` to the child if it is still running.
	void signal(int sig)
	{
		if (running())
			kill(pid_, sig);
	}

	std::string out() const { return read_file(out_path_).value_or(""); }
	std::string err() const { return read_file(err_path_).value_or(""); }

private:
	// "NAME=" for "NAME=value" and for a bare "NAME".
	static std::string key_of(const std::string &entry)
	{
		auto eq = entry.find('=');
		return eq == std::string::npos ? entry + "=" : entry.substr(0, eq + 1);
	}
	static std::vector<std::string> merged_env(const std::vector<std::string> &extra)
	{
		std::vector<std::string> envs;
		for (char **e = environ; *e != nullptr; e++) {
			std::string entry = *e;
			std::string key = key_of(entry);
			bool overridden = false;
			for (const auto &x : extra)
				overridden |= key_of(x) == key;
			if (!overridden)
				envs.push_back(entry);
		}
		for (const auto &x : extra)
			if (x.find('=') != std::string::npos)
				envs.push_back(x);
		return envs;
	}

	temp_dir files_{"orvchild"};
	std::string out_path_, err_path_;
	pid_t pid_ = -1;
	std::optional<int> status_;
};

}  // namespace testutil
