// The built daemon as a process in this test's namespaces: command line,
// unusable configuration, start-up on a real bridge, reload, and the
// three termination signals.
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

#include "tests/kernel/support/netns.h"

namespace {

bool exists(const std::string &path)
{
	struct stat st;
	return stat(path.c_str(), &st) == 0;
}

std::string slurp(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	std::stringstream ss;
	ss << f.rdbuf();
	return ss.str();
}

void write_conf(const std::string &text) { std::ofstream("/etc/zalkv2d.conf", std::ios::trunc) << text; }

void sleep_ms(long ms)
{
	struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
	nanosleep(&ts, nullptr);
}

struct Daemon {
	pid_t pid = -1;
	std::string out_path = "/tmp/zalkv2d.out";
	std::string err_path = "/tmp/zalkv2d.err";

	void start(std::vector<std::string> args = {})
	{
		args.insert(args.begin(), ZALKV2D_BIN);
		pid = fork();
		ASSERT_GE(pid, 0);
		if (pid == 0) {
			int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
			int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
			dup2(out, 1);
			dup2(err, 2);
			std::vector<char *> argv;
			for (auto &a : args)
				argv.push_back(a.data());
			argv.push_back(nullptr);
			execv(argv[0], argv.data());
			_exit(127);
		}
	}

	// Exit status, or -1 when the process had to be killed after the
	// given time, or 1000 + signal when a signal ended it.
	int wait_exit(int seconds = 10)
	{
		for (int i = 0; i < seconds * 20; i++) {
			int st;
			pid_t r = waitpid(pid, &st, WNOHANG);
			if (r == pid) {
				pid = -1;
				return WIFEXITED(st) ? WEXITSTATUS(st) : 1000 + WTERMSIG(st);
			}
			sleep_ms(50);
		}
		kill(pid, SIGKILL);
		waitpid(pid, nullptr, 0);
		pid = -1;
		return -1;
	}

	bool running() { return pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0; }

	std::string out() { return slurp(out_path); }
	std::string err() { return slurp(err_path); }

	~Daemon()
	{
		if (pid > 0) {
			kill(pid, SIGKILL);
			waitpid(pid, nullptr, 0);
		}
	}
};

bool wait_for(const std::string &path, bool present, int seconds = 10)
{
	for (int i = 0; i < seconds * 20; i++) {
		if (exists(path) == present)
			return true;
		sleep_ms(50);
	}
	return false;
}

const std::string RULE(80, '-');
const std::string USAGE = RULE + "\nUsage: zalkv2d [OPTIONS]\n"
				 " -f, --focal point                  ZALK Focal Point\n"
				 " -m, --member                       ZALK Member\n"
				 " -M, --portm=XX                     Set ZALK port M\n"
				 " -N, --portn=XX                     Set ZALK port N\n"
				 " -?, --help                         This help text\n" +
			  RULE + "\n\n";

const std::string RING_7 = "zalk ring7 {\n ring-id = 7\n ring-role = focal\n ring-interval = 100\n"
			   " port a { name = zr1a }\n port b { name = zr2a }\n}\n";
const std::string RING_8 = "zalk ring8 {\n ring-id = 8\n ring-role = member\n port a { name = zr3a }\n}\n";

class DaemonProcess : public testing::Test {
protected:
	static void SetUpTestSuite()
	{
		ASSERT_EQ(sh("ip link add br0 type bridge && ip link set br0 up"), 0);
		for (const char *p : {"zr1", "zr2", "zr3"}) {
			ASSERT_EQ(sh("ip link add %sa type veth peer name %sb", p, p), 0);
			ASSERT_EQ(sh("ip link set %sa master br0 && ip link set %sa up && ip link set %sb up", p, p, p), 0);
		}
	}

	void SetUp() override
	{
		sh("rm -rf /var/run/zalkv2 /etc/zalkv2d.conf");
	}
};

TEST_F(DaemonProcess, HelpPrintsTheUsageAndExitsWithOne)
{
	Daemon d;
	d.start({"--help"});
	EXPECT_EQ(d.wait_exit(), 1);
	EXPECT_EQ(d.err(), USAGE);
	EXPECT_EQ(d.out(), "");
	EXPECT_FALSE(exists("/var/run/zalkv2"));
}

TEST_F(DaemonProcess, UnusableConfigurationStopsTheStartWithOne)
{
	{
		Daemon d;
		d.start();
		EXPECT_EQ(d.wait_exit(), 1);
		EXPECT_EQ(d.out(), "Cannot read configuration file /etc/zalkv2d.conf: No such file or directory\n");
	}
	{
		write_conf(RING_7 + "zalk { ring-id = 9 }\n");
		Daemon d;
		d.start();
		EXPECT_EQ(d.wait_exit(), 1);
		const std::string prefix = "Error when parsing configuration file /etc/zalkv2d.conf: ";
		EXPECT_EQ(d.out().rfind(prefix, 0), 0u) << d.out();
		EXPECT_NE(d.err(), "") << "libconfuse's own diagnostic";
	}
	// Nothing of a ring was set up before the exit.
	EXPECT_FALSE(exists("/var/run/zalkv2/7"));
}

TEST_F(DaemonProcess, RunsAndStopsCleanlyOnEachTerminationSignal)
{
	write_conf(RING_7 + RING_8);
	for (int sig : {SIGINT, SIGQUIT, SIGTERM}) {
		SCOPED_TRACE(strsignal(sig));
		Daemon d;
		// Role and port options and loose words change nothing.
		d.start({"-f", "-M", "eth9", "word"});
		ASSERT_TRUE(wait_for("/var/run/zalkv2/8/zr3a/link", true)) << d.out() << d.err();
		EXPECT_EQ(slurp("/var/run/zalkv2/7/type"), "focal-point");
		EXPECT_EQ(slurp("/var/run/zalkv2/7/ring-id"), "7");
		EXPECT_TRUE(exists("/var/run/zalkv2/7/zr1a"));
		EXPECT_TRUE(exists("/var/run/zalkv2/7/zr2a"));
		EXPECT_EQ(slurp("/var/run/zalkv2/8/type"), "member");
		sleep_ms(300); // a few ring intervals: the daemon keeps running
		ASSERT_TRUE(d.running()) << d.err();

		kill(d.pid, sig);
		EXPECT_EQ(d.wait_exit(), 0) << d.err();
		EXPECT_FALSE(exists("/var/run/zalkv2"));
	}
}

TEST_F(DaemonProcess, ReloadAppliesTheNewFileAndABrokenOneStopsTheDaemon)
{
	write_conf(RING_7);
	Daemon d;
	d.start();
	ASSERT_TRUE(wait_for("/var/run/zalkv2/7/type", true)) << d.err();

	write_conf(RING_8);
	kill(d.pid, SIGHUP);
	EXPECT_TRUE(wait_for("/var/run/zalkv2/8/type", true));
	EXPECT_TRUE(wait_for("/var/run/zalkv2/7", false));
	ASSERT_TRUE(d.running());

	write_conf(RING_8 + "zalk ring9 { bogus = 1 }\n");
	kill(d.pid, SIGHUP);
	EXPECT_EQ(d.wait_exit(), 1);
	EXPECT_EQ(d.out().rfind("Error when parsing configuration file /etc/zalkv2d.conf: ", 0), 0u) << d.out();
	// Stopped before anything of the running ring was touched.
	EXPECT_TRUE(exists("/var/run/zalkv2/8/type"));
}

} // namespace
