// The daemon's frame through the fake OS: command line, start-up order,
// shutdown at the two kinds of runlevel, and the version-0 links.
#include <cerrno>
#include <getopt.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/configure.h"
#include "daemon/daemon.h"
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

const std::string RULE(80, '-');
const std::string USAGE = RULE + "\nUsage: zalkv2d [OPTIONS]\n"
				 " -f, --focal point                  ZALK Focal Point\n"
				 " -m, --member                       ZALK Member\n"
				 " -M, --portm=XX                     Set ZALK port M\n"
				 " -N, --portn=XX                     Set ZALK port N\n"
				 " -?, --help                         This help text\n" +
			  RULE + "\n\n";

// zalk_parse_args in a child with standard error in a file: the exit
// status (-1: it returned) and what it wrote.
std::pair<int, std::string> parse(std::vector<std::string> args)
{
	char tmpl[] = "/tmp/zalk-usage-XXXXXX";
	int fd = mkstemp(tmpl);
	pid_t pid = fork();
	if (pid == 0) {
		dup2(fd, 2);
		std::vector<char *> argv;
		for (auto &a : args)
			argv.push_back(a.data());
		argv.push_back(nullptr);
		optind = 0;
		zalk_parse_args((int)args.size(), argv.data());
		_exit(77);
	}
	int st = 0;
	waitpid(pid, &st, 0);
	std::string err(8192, 0);
	err.resize(std::max<ssize_t>(0, pread(fd, err.data(), err.size(), 0)));
	close(fd);
	unlink(tmpl);
	int code = WIFEXITED(st) ? WEXITSTATUS(st) : 1000;
	return {code == 77 ? -1 : code, err};
}

TEST(CommandLine, UsageExitStatusAndAcceptedWords)
{
	for (auto args : std::vector<Lines>{{"/usr/sbin/zalkv2d", "--help"}, {"/usr/sbin/zalkv2d", "-D", "3"}, {"zalkv2d", "-m", "--help", "-f"}})
		EXPECT_EQ(parse(args), std::make_pair(1, USAGE)) << args[1];
	// Bad options: the library's complaint, then the usage.
	for (auto args : std::vector<Lines>{{"./zalkv2d", "-?"}, {"./zalkv2d", "--bogus"}, {"./zalkv2d", "-M"}, {"./zalkv2d", "-D"}}) {
		auto [status, err] = parse(args);
		EXPECT_EQ(status, 1);
		EXPECT_EQ(err.rfind("./zalkv2d: ", 0), 0u) << err;
		EXPECT_EQ(err.substr(err.size() - std::min(err.size(), USAGE.size())), USAGE);
	}
	EXPECT_EQ(parse({"zalkv2d", "-f", "-m", "-M", "eth1", "-Neth2", "--focal", "--member", "--portm=eth3", "--portn", "eth4", "word"}),
		  std::make_pair(-1, std::string()));
}

class Daemon : public Unit {
protected:
	void SetUp() override
	{
		Unit::SetUp();
		const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 1};
		fake::add_iface("br0", 2, mac);
		for (int i = 1; i <= 3; i++)
			fake::add_iface("eth" + std::to_string(i), 2 + i, mac);
		fake::write_file("/etc/zalkv2d.conf", "zalk a { ring-id = 1\n ring-role = focal\n port m { name = eth1 }\n port n { name = eth2 } }\n"
						      "zalk b { ring-id = 2\n ring-role = member\n port m { name = eth3 } }\n");
	}
	void start()
	{
		testing::internal::CaptureStdout();
		init_all();
		EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
		ASSERT_TRUE(instances[0].enabled && instances[1].enabled);
		clear();
	}
	void stop(const char *runlevel)
	{
		fake::runlevel_output = runlevel;
		sigterm_cb(loop, nullptr, 0);
		EXPECT_FALSE(fake::file_exists("/var/run/zalkv2"));
	}
};

TEST_F(Daemon, StartUpRunsInOrderAndTakesRealTimePriorityLast)
{
	fake::set_debug(ZALK_DBG);
	testing::internal::CaptureStdout();
	init_all();
	testing::internal::GetCapturedStdout();
	std::string notes = join(notices());
	size_t last = 0;
	for (const char *s : {"init_all() - ZALKv2 starting initializing\n", "init_all() - ZALKv2 setup signal handlers\n",
			      "init_all() - ZALKv2 setup watchers\n", "init_all() - ZALKv2 get configuration\n",
			      "zalkv2_configure_instances() - Configure ZALKv2 ins 1 cfg:1\n", "init_all() - Setup finished and ZALKv2 started\n"}) {
		size_t at = notes.find(s, last);
		ASSERT_NE(at, std::string::npos) << s;
		last = at;
	}
	EXPECT_EQ(fake::sched_calls, (std::vector<std::pair<int, int>>{{SCHED_FIFO, 49}}));
	EXPECT_TRUE(errors().empty());
	EXPECT_TRUE(ev_is_active(&sm_watcher) && ev_is_active(&instances[0].ring_timer) && ev_is_active(&instances[0].port[1].rx_watcher));
}

TEST_F(Daemon, RefusedPriorityIsLoggedAndTheDaemonGoesOn)
{
	fake::sched_result = -1;
	fake::sched_errno = EPERM;
	testing::internal::CaptureStdout();
	init_all();
	testing::internal::GetCapturedStdout();
	EXPECT_TRUE(has(errors(), "Failed raising ZALKv2 priority, 1. Error 1: Operation not permitted\n"));
	EXPECT_TRUE(instances[0].enabled);
	clear();
	stop("N 5\n");
	EXPECT_TRUE(has(errors(), "Failed reverting ZALKv2 priority, 1. Error 1: Operation not permitted\n"));
	EXPECT_FALSE(instances[0].enabled) << "shutdown goes on";
}

// Drop filters of the reconfiguration (foreign rings, version-0 frames)
// carry " protocol 802.1Q ", the rings' own filters " protocol all ".
TEST_F(Daemon, ShutdownRemovesTheDropFiltersFirstAndTearsRingsDownUnlessRebooting)
{
	start();
	stop("N 5\n");
	EXPECT_EQ(fake::sched_calls, (std::vector<std::pair<int, int>>{{SCHED_OTHER, 0}}));
	EXPECT_FALSE(instances[0].enabled || instances[1].enabled);
	EXPECT_FALSE(fake::netlink.empty()) << "the rings' bridge setup is taken back";
	std::string cmds = join(fake::commands);
	EXPECT_LT(cmds.rfind(" protocol 802.1Q "), cmds.find(" protocol all "));
	EXPECT_EQ(cmds.find(" add "), std::string::npos);

	SetUp();
	start();
	stop("N 6\n");
	EXPECT_TRUE(instances[0].enabled && instances[1].enabled);
	EXPECT_TRUE(fake::netlink.empty()) << "no bridge state of a ring port is changed";
	ASSERT_FALSE(fake::commands.empty());
	for (auto &c : fake::commands)
		EXPECT_TRUE(c.rfind("tc filter del dev ", 0) == 0 && c.find(" protocol 802.1Q ") != std::string::npos) << c;
}

TEST_F(Daemon, StatusRequestRewritesTheFilesAndReports)
{
	start();
	std::remove((fake::root() + "/var/run/zalkv2/2/type").c_str());
	testing::internal::CaptureStderr();
	sigusr1_cb(loop, nullptr, 0);
	std::string report = testing::internal::GetCapturedStderr();
	EXPECT_EQ(fake::read_file("/var/run/zalkv2/2/type"), "member");
	EXPECT_NE(report.find(" Ring id : 2\n"), std::string::npos) << report;
}

TEST_F(Daemon, RunlevelIsTheSecondFieldOfTheCommandsOutput)
{
	const std::pair<const char *, int> cases[] = {{"N 5\n", 5}, {"3 6\n", 6}, {"N 1", 1}, {"unknown\n", -22}, {"N\n", -22}, {"\n", -22}};
	for (auto [out, level] : cases) {
		fake::runlevel_output = out;
		EXPECT_EQ(get_runlevel(), level) << out;
	}
	fake::runlevel_output = "";
	testing::internal::CaptureStdout();
	EXPECT_EQ(get_runlevel(), -22);
	EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to run command\n");
}

TEST_F(Daemon, VersionZeroPidFileAndSignal)
{
	EXPECT_EQ(zalkv0_pid_exists(), 0);
	signal_zalkv0();
	EXPECT_TRUE(fake::kills.empty() && fake::logs.empty());
	fake::write_file("/var/run/zalkd.pid", std::to_string(getpid()) + "\n"); // a live process: SIGUSR1, nothing logged
	EXPECT_EQ(zalkv0_pid_exists(), 1);
	signal_zalkv0();
	EXPECT_EQ(fake::kills, (std::vector<std::pair<int, int>>{{getpid(), SIGUSR1}}));
	EXPECT_TRUE(fake::logs.empty());
	pid_t child = fork(); // the file outlived its process
	if (child == 0)
		_exit(0);
	waitpid(child, nullptr, 0);
	// A file that names no single process never signals a process group.
	for (std::string bad : {std::to_string(child) + "\n", std::string("0\n"), std::string("garbage\n"), std::string("99999999999\n")}) {
		clear();
		fake::write_file("/var/run/zalkd.pid", bad);
		signal_zalkv0();
		EXPECT_EQ(fake::logs, (std::vector<fake::LogLine>{{LOG_ERR, "Could not send signal to ZALKv0 daemon\n"}})) << bad;
		EXPECT_EQ(fake::kills.size(), bad == std::to_string(child) + "\n" ? 1u : 0u) << bad;
	}
}

} // namespace
