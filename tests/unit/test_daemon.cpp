// The daemon's frame through the fake OS: command line, start-up order,
// shutdown at the two kinds of runlevel, and the version-0 links.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <sched.h>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "daemon/configure.h"
#include "daemon/daemon.h"
#include "daemon/instance.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "ring/channel.h"
#include "ring/focal.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace {

const std::string RULE(80, '-');

std::string usage_text(const std::string &name)
{
	return RULE + "\n" + "Usage: " + name + " [OPTIONS]\n" +
	       " -f, --focal point                  ZALK Focal Point\n"
	       " -m, --member                       ZALK Member\n"
	       " -M, --portm=XX                     Set ZALK port M\n"
	       " -N, --portn=XX                     Set ZALK port N\n"
	       " -?, --help                         This help text\n" +
	       RULE + "\n\n";
}

// Runs zalk_parse_args in a child with standard error sent to a file;
// gives back the exit status (-1: it returned) and what it wrote.
struct Parsed {
	int status;
	std::string err;
};

Parsed parse_in_child(std::vector<std::string> args)
{
	char tmpl[] = "/tmp/zalk-usage-XXXXXX";
	int fd = mkstemp(tmpl);
	EXPECT_GE(fd, 0);
	pid_t pid = fork();
	if (pid == 0) {
		dup2(fd, 2);
		std::vector<char *> argv;
		for (auto &a : args)
			argv.push_back(a.data());
		argv.push_back(nullptr);
		optind = 0; // a fresh getopt scan
		zalk_parse_args((int)args.size(), argv.data());
		_exit(77); // returned: the daemon would run
	}
	int st = 0;
	waitpid(pid, &st, 0);
	std::string err;
	char buf[4096];
	ssize_t n;
	lseek(fd, 0, SEEK_SET);
	while ((n = read(fd, buf, sizeof(buf))) > 0)
		err.append(buf, (size_t)n);
	close(fd);
	unlink(tmpl);
	int code = WIFEXITED(st) ? WEXITSTATUS(st) : 1000;
	return {code == 77 ? -1 : code, err};
}

TEST(CommandLine, HelpAndDebugOptionPrintTheUsageExactly)
{
	for (auto args : std::vector<std::vector<std::string>>{{"/usr/sbin/zalkv2d", "--help"},
							       {"/usr/sbin/zalkv2d", "-D", "3"},
							       {"/usr/sbin/zalkv2d", "-f", "-D3"},
							       {"zalkv2d", "-m", "--help", "-f"}}) {
		SCOPED_TRACE(args[1]);
		auto r = parse_in_child(args);
		EXPECT_EQ(r.status, 1);
		EXPECT_EQ(r.err, usage_text("zalkv2d"));
	}
}

TEST(CommandLine, BadOptionsGetTheLibraryComplaintThenTheUsage)
{
	for (auto args : std::vector<std::vector<std::string>>{{"./zalkv2d", "-?"},
							       {"./zalkv2d", "--bogus"},
							       {"./zalkv2d", "-x"},
							       {"./zalkv2d", "-M"},
							       {"./zalkv2d", "--portn"},
							       {"./zalkv2d", "-D"}}) {
		SCOPED_TRACE(args[1]);
		auto r = parse_in_child(args);
		EXPECT_EQ(r.status, 1);
		const std::string usage = usage_text("zalkv2d");
		ASSERT_GT(r.err.size(), usage.size());
		EXPECT_EQ(r.err.substr(r.err.size() - usage.size()), usage);
		EXPECT_EQ(r.err.rfind("./zalkv2d: ", 0), 0u) << r.err;
	}
}

TEST(CommandLine, RoleAndPortOptionsAndLooseWordsAreAccepted)
{
	auto r = parse_in_child({"zalkv2d", "-f", "-m", "-M", "eth1", "-Neth2", "--focal", "--member", "--portm=eth3",
				 "--portn", "eth4", "word", "another"});
	EXPECT_EQ(r.status, -1) << r.err;
	EXPECT_EQ(r.err, "");
}

TEST(CommandLine, UsageExitStatusSeenByTheTestFramework)
{
	std::string a0 = "/sbin/zalkv2d", a1 = "--help";
	char *argv[] = {a0.data(), a1.data(), nullptr};
	optind = 0;
	EXPECT_EXIT(zalk_parse_args(2, argv), testing::ExitedWithCode(1), "Usage: zalkv2d \\[OPTIONS\\]");
}

class Daemon : public testing::Test {
protected:
	struct ev_loop *loop = ev_default_loop(0);

	void SetUp() override
	{
		fake::reset();
		memset(instances, 0, sizeof(instances));
		const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 1};
		fake::add_iface("br0", 2, mac);
		fake::add_iface("eth1", 3, mac);
		fake::add_iface("eth2", 4, mac);
		fake::add_iface("eth3", 5, mac);
		fake::write_file("/etc/zalkv2d.conf",
				 "zalk a { ring-id = 1\n ring-role = focal\n port m { name = eth1 }\n port n { name = eth2 } }\n"
				 "zalk b { ring-id = 2\n ring-role = member\n port m { name = eth3 } }\n");
	}

	void TearDown() override
	{
		for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
			for (auto &p : instances[i].port)
				ev_io_stop(loop, &p.rx_watcher);
			zalkv2_hello_stop(i, loop);
			focal_ring_timer_stop(i, loop);
		}
		focal_response_timer_stop(loop);
		msg_bus_stop(loop);
		zalkv2_link_monitor_stop();
		sm_event ev;
		while (sm_read_event(&ev) == (int)sizeof(ev)) {
		}
	}

	void start()
	{
		testing::internal::CaptureStdout();
		init_all();
		EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
		ASSERT_TRUE(instances[0].enabled);
		ASSERT_TRUE(instances[1].enabled);
	}

	size_t index_of(const std::vector<std::string> &v, const std::string &t)
	{
		return (size_t)(std::find(v.begin(), v.end(), t) - v.begin());
	}
};

TEST_F(Daemon, StartUpRunsInOrderAndTakesRealTimePriorityLast)
{
	fake::set_debug(ZALK_DBG);
	start();
	auto notes = fake::log_texts(LOG_NOTICE);
	const char *steps[] = {"init_all() - ZALKv2 starting initializing\n", "init_all() - ZALKv2 setup signal handlers\n",
			       "init_all() - ZALKv2 setup watchers\n", "init_all() - ZALKv2 get configuration\n",
			       "zalkv2_configure_instances() - Configure ZALKv2 ins 1 cfg:1\n",
			       "init_all() - Setup finished and ZALKv2 started\n"};
	size_t last = 0;
	for (const char *s : steps) {
		size_t at = index_of(notes, s);
		ASSERT_LT(at, notes.size()) << s;
		EXPECT_GE(at, last) << s;
		last = at;
	}
	EXPECT_EQ(fake::sched_calls, (std::vector<std::pair<int, int>>{{SCHED_FIFO, 49}}));
	auto errs = fake::log_texts(LOG_ERR);
	EXPECT_EQ(std::find_if(errs.begin(), errs.end(),
			       [](const std::string &t) { return t.rfind("Failed raising", 0) == 0; }),
		  errs.end());
	// Every watcher runs once the configuration is applied.
	EXPECT_TRUE(ev_is_active(&sm_watcher));
	EXPECT_TRUE(ev_is_active(&instances[0].ring_timer));
	EXPECT_TRUE(ev_is_active(&instances[0].port[1].rx_watcher));
}

TEST_F(Daemon, RefusedPriorityIsLoggedAndTheDaemonGoesOn)
{
	fake::sched_result = -1;
	fake::sched_errno = EPERM;
	start();
	auto errs = fake::log_texts(LOG_ERR);
	EXPECT_LT(index_of(errs, "Failed raising ZALKv2 priority, 1. Error 1: Operation not permitted\n"), errs.size());

	fake::clear_records();
	sigterm_cb(loop, nullptr, 0);
	errs = fake::log_texts(LOG_ERR);
	EXPECT_LT(index_of(errs, "Failed reverting ZALKv2 priority, 1. Error 1: Operation not permitted\n"), errs.size());
	EXPECT_FALSE(instances[0].enabled) << "shutdown goes on";
}

// Commands of the drop filters set up by the reconfiguration (foreign
// rings and version-0 frames) against those of the rings' own filters.
bool is_drop_filter(const std::string &c) { return c.find(" protocol 802.1Q ") != std::string::npos; }
bool is_own_filter(const std::string &c) { return c.find(" protocol all ") != std::string::npos; }

TEST_F(Daemon, ShutdownTearsRingsDownAfterRemovingTheDropFilters)
{
	start();
	fake::clear_records();
	fake::runlevel_output = "N 5\n";
	sigterm_cb(loop, nullptr, 0);

	EXPECT_EQ(fake::sched_calls, (std::vector<std::pair<int, int>>{{SCHED_OTHER, 0}}));
	EXPECT_FALSE(instances[0].enabled);
	EXPECT_FALSE(instances[1].enabled);
	EXPECT_FALSE(fake::netlink.empty()) << "the rings' bridge setup is taken back";
	auto &cmds = fake::commands;
	auto first_own = std::find_if(cmds.begin(), cmds.end(), is_own_filter);
	auto last_drop = std::find_if(cmds.rbegin(), cmds.rend(), is_drop_filter);
	ASSERT_NE(first_own, cmds.end());
	ASSERT_NE(last_drop, cmds.rend());
	EXPECT_LT(last_drop.base() - cmds.begin(), first_own - cmds.begin() + 1);
	for (auto &c : cmds)
		EXPECT_EQ(c.find(" add "), std::string::npos) << c;
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2"));
}

TEST_F(Daemon, ShutdownDuringRebootLeavesTheRingsInPlace)
{
	start();
	fake::clear_records();
	fake::runlevel_output = "N 6\n";
	sigterm_cb(loop, nullptr, 0);

	EXPECT_EQ(fake::sched_calls, (std::vector<std::pair<int, int>>{{SCHED_OTHER, 0}}));
	EXPECT_TRUE(instances[0].enabled);
	EXPECT_TRUE(instances[1].enabled);
	EXPECT_TRUE(fake::netlink.empty()) << "no bridge state of a ring port is changed";
	ASSERT_FALSE(fake::commands.empty());
	for (auto &c : fake::commands) {
		EXPECT_TRUE(is_drop_filter(c)) << c;
		EXPECT_EQ(c.rfind("tc filter del ", 0), 0u) << c;
	}
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2"));
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

TEST(Runlevel, ReadsTheSecondFieldOfTheCommandsOutput)
{
	fake::reset();
	struct {
		const char *out;
		int level;
	} cases[] = {{"N 5\n", 5}, {"3 6\n", 6}, {"N 1", 1}, {"unknown\n", -22}, {"N\n", -22}, {"\n", -22}};
	for (auto &c : cases) {
		SCOPED_TRACE(c.out);
		fake::runlevel_output = c.out;
		EXPECT_EQ(get_runlevel(), c.level);
	}
	fake::runlevel_output = "";
	testing::internal::CaptureStdout();
	EXPECT_EQ(get_runlevel(), -22);
	EXPECT_EQ(testing::internal::GetCapturedStdout(), "Failed to run command\n");
}

TEST(VersionZero, PidFileAndSignal)
{
	fake::reset();
	EXPECT_EQ(zalkv0_pid_exists(), 0);
	signal_zalkv0();
	EXPECT_TRUE(fake::kills.empty());
	EXPECT_TRUE(fake::logs.empty());

	// A live process: SIGUSR1 goes to the pid in the file, nothing logged.
	fake::write_file("/var/run/zalkd.pid", std::to_string(getpid()) + "\n");
	EXPECT_EQ(zalkv0_pid_exists(), 1);
	signal_zalkv0();
	EXPECT_EQ(fake::kills, (std::vector<std::pair<int, int>>{{getpid(), SIGUSR1}}));
	EXPECT_TRUE(fake::logs.empty());

	// The file outlived its process.
	pid_t child = fork();
	if (child == 0)
		_exit(0);
	waitpid(child, nullptr, 0);
	fake::clear_records();
	fake::write_file("/var/run/zalkd.pid", std::to_string(child) + "\n");
	signal_zalkv0();
	EXPECT_EQ(fake::logs, (std::vector<fake::LogLine>{{LOG_ERR, "Could not send signal to ZALKv0 daemon\n"}}));

	// A file that names no single process never signals a process group.
	for (const char *bad : {"0\n", "garbage\n", "99999999999\n"}) {
		SCOPED_TRACE(bad);
		fake::clear_records();
		fake::write_file("/var/run/zalkd.pid", bad);
		signal_zalkv0();
		EXPECT_TRUE(fake::kills.empty());
		EXPECT_EQ(fake::logs, (std::vector<fake::LogLine>{{LOG_ERR, "Could not send signal to ZALKv0 daemon\n"}}));
	}
}

} // namespace
