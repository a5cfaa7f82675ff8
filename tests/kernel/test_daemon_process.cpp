// The built daemon as a process in this test's namespaces: its command
// line, an unusable configuration, and start-up on a real bridge ended
// by each termination signal.
#include <csignal>
#include <cstring>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/kernel/support/netns.h"

namespace {

bool exists(const char *path) { return access(path, F_OK) == 0; }
std::string slurp(const char *path) { return sh_out("cat '%s' 2>/dev/null", path); }

void write_conf(const std::string &text) { std::ofstream("/etc/zalkv2d.conf", std::ios::trunc) << text; }

// Starts the daemon as this process's child (the shell execs it), its
// output in /tmp/zalkv2d.out and .err.
pid_t start(const std::string &args)
{
	std::string cmd = "exec " ZALKV2D_BIN " " + args + " >/tmp/zalkv2d.out 2>/tmp/zalkv2d.err";
	pid_t pid = fork();
	if (pid == 0) {
		execl("/bin/sh", "sh", "-c", cmd.c_str(), nullptr);
		_exit(127);
	}
	return pid;
}

// Exit status; 1000 + signal when a signal ended it; -1 when it had to
// be killed after 10 s.
int wait_exit(pid_t pid)
{
	int st = 0;
	if (wait_until([&] { return waitpid(pid, &st, WNOHANG) == pid; }, 10))
		return WIFEXITED(st) ? WEXITSTATUS(st) : 1000 + WTERMSIG(st);
	kill(pid, SIGKILL);
	waitpid(pid, nullptr, 0);
	return -1;
}

std::string out() { return slurp("/tmp/zalkv2d.out"); }
std::string err() { return slurp("/tmp/zalkv2d.err"); }

class DaemonProcess : public testing::Test {
protected:
	static void SetUpTestSuite()
	{
		add_veth("zr1a", "zr1b");
		add_veth("zr2a", "zr2b");
		add_veth("zr3a", "zr3b");
		add_bridge({"zr1a", "zr2a", "zr3a"});
	}
	void SetUp() override { sh("rm -rf /var/run/zalkv2 /etc/zalkv2d.conf"); }
};

TEST_F(DaemonProcess, HelpPrintsTheUsageAndExitsWithOne)
{
	const std::string rule(80, '-');
	EXPECT_EQ(wait_exit(start("--help")), 1);
	EXPECT_EQ(err(), rule + "\nUsage: zalkv2d [OPTIONS]\n"
				       " -f, --focal point                  ZALK Focal Point\n"
				       " -m, --member                       ZALK Member\n"
				       " -M, --portm=XX                     Set ZALK port M\n"
				       " -N, --portn=XX                     Set ZALK port N\n"
				       " -?, --help                         This help text\n" +
					 rule + "\n\n");
	EXPECT_EQ(out(), "");
	EXPECT_FALSE(exists("/var/run/zalkv2"));
}

TEST_F(DaemonProcess, UnusableConfigurationStopsTheStartWithOne)
{
	EXPECT_EQ(wait_exit(start("")), 1);
	EXPECT_EQ(out(), "Cannot read configuration file /etc/zalkv2d.conf: No such file or directory\n");

	write_conf("zalk ring7 {\n ring-id = 7\n port a { name = zr1a }\n}\nzalk { ring-id = 9 }\n");
	EXPECT_EQ(wait_exit(start("")), 1);
	EXPECT_EQ(out().rfind("Error when parsing configuration file /etc/zalkv2d.conf: ", 0), 0u)
		<< out();
	EXPECT_NE(err(), "") << "libconfuse's own diagnostic";
	EXPECT_FALSE(exists("/var/run/zalkv2/7")) << "nothing of a ring was set up";
}

TEST_F(DaemonProcess, RunsAndStopsCleanlyOnEachTerminationSignal)
{
	write_conf("zalk ring7 {\n ring-id = 7\n ring-role = focal\n ring-interval = 100\n"
		   " port a { name = zr1a }\n port b { name = zr2a }\n}\n"
		   "zalk ring8 {\n ring-id = 8\n ring-role = member\n port a { name = zr3a }\n}\n");
	for (int sig : {SIGINT, SIGQUIT, SIGTERM}) {
		SCOPED_TRACE(strsignal(sig));
		pid_t pid = start("-f -M eth9 word"); // role, port options and loose words change nothing
		EXPECT_TRUE(wait_until([] { return exists("/var/run/zalkv2/8/zr3a/link"); }, 10)) << err();
		EXPECT_EQ(slurp("/var/run/zalkv2/7/type"), "focal-point");
		EXPECT_TRUE(exists("/var/run/zalkv2/7/zr2a"));
		EXPECT_EQ(slurp("/var/run/zalkv2/8/type"), "member");
		usleep(300000); // a few ring intervals: the daemon keeps running
		EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << err();

		kill(pid, sig);
		EXPECT_EQ(wait_exit(pid), 0) << err();
		EXPECT_FALSE(exists("/var/run/zalkv2"));
	}
}

} // namespace
