// The bridge and tc commands run without a shell: interface names full
// of shell syntax reach the tools as one word each and nothing else
// runs; a missing tool is told apart from the tool's own failure.
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <net/if.h>
#include <string>
#include <syslog.h>
#include <unistd.h>

#include "bridge/backup.h"
#include "bridge/filters.h"
#include "daemon/instance.h"
#include "tests/kernel/support/netns.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
namespace fs = std::filesystem;

namespace {

// A shell would run "touch m" for the first name, and end the command
// at ";" and run "touch q ..." for the second.
const char *const NAME_A = "$(touch${IFS}m)";
const char *const NAME_B = "r;touch${IFS}q";

class Commands : public ::testing::Test {
protected:
	std::string workdir;
	std::string old_cwd;

	void SetUp() override
	{
		// The daemon's syslog lines also go to standard error, where the
		// tests read them.
		openlog(nullptr, LOG_PERROR, LOG_USER);
		ASSERT_EQ(strlen(NAME_A), 15u);
		ASSERT_EQ(sh("ip link add br0 type bridge && ip link add '%s' type veth peer name '%s' && "
			     "ip link set '%s' master br0 && ip link set '%s' master br0",
			     NAME_A, NAME_B, NAME_A, NAME_B),
			  0);
		memset(instances, 0, sizeof(instances));
		set_port(PORT_A, NAME_A);
		set_port(PORT_B, NAME_B);
		instances[0].enabled = 1;

		// Markers a shell would leave land in an empty directory of our own.
		char buf[4096];
		old_cwd = getcwd(buf, sizeof(buf));
		workdir = "/tmp/zalk-commands";
		fs::remove_all(workdir);
		fs::create_directories(workdir);
		ASSERT_EQ(chdir(workdir.c_str()), 0);
	}

	void TearDown() override
	{
		EXPECT_TRUE(fs::is_empty(workdir)) << "a shell ran something in " << workdir;
		EXPECT_EQ(chdir(old_cwd.c_str()), 0);
		sh("ip link del br0; ip link del '%s' 2>/dev/null", NAME_A);
		closelog();
	}

	static void set_port(int p, const char *name)
	{
		zalkv2_port &port = instances[0].port[p];
		snprintf(port.name, sizeof(port.name), "%s", name);
		port.ifindex = (int)if_nametoindex(name);
		port.port_index = p;
		port.instance = &instances[0];
		ASSERT_GT(port.ifindex, 0) << name;
	}

	static std::string link_details(const char *name) { return sh_out("bridge -d link show dev '%s'", name); }
};

TEST_F(Commands, BackupPortNamesReachTheBridgeToolWhole)
{
	CaptureStderr();
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 1), 0);
	std::string err = GetCapturedStderr();
	EXPECT_EQ(err, "");
	EXPECT_NE(link_details(NAME_A).find(std::string("backup_port ") + NAME_B), std::string::npos)
		<< link_details(NAME_A);
	EXPECT_NE(link_details(NAME_B).find(std::string("backup_port ") + NAME_A), std::string::npos)
		<< link_details(NAME_B);

	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 0), 0);
	EXPECT_EQ(link_details(NAME_A).find("backup_port"), std::string::npos);
	EXPECT_EQ(link_details(NAME_B).find("backup_port"), std::string::npos);
}

TEST_F(Commands, FilterDeviceNameReachesTcWhole)
{
	ASSERT_EQ(sh("tc qdisc add dev '%s' clsact", NAME_B), 0);
	CaptureStderr();
	int ret = zalkv2_tc_write_filter(NAME_B, "add", "all", 321, "skip_hw", "03:4b:a1:01:05:01", "");
	std::string err = GetCapturedStderr();
	// A split name would make tc look for a device "r".
	EXPECT_EQ(err.find("Cannot find device"), std::string::npos) << err;
	if (ret == 0) {
		EXPECT_NE(sh_out("tc filter show dev '%s' ingress", NAME_B).find("pref 321"), std::string::npos);
		EXPECT_EQ(zalkv2_tc_write_filter(NAME_B, "del", "all", 321, "skip_hw", "03:4b:a1:01:05:01", ""), 0);
	} else {
		// This kernel has no flower classifier: tc found the device and
		// the failure is the classifier's, reported with the filter's
		// parameters.
		EXPECT_EQ(ret, 1);
		EXPECT_NE(err.find(std::string("System fail add port ") + NAME_B + " mac 03:4b:a1:01:05:01 loc 321"),
			  std::string::npos)
			<< err;
		EXPECT_EQ(err.find("Could not start command"), std::string::npos) << err;
	}
}

TEST_F(Commands, MissingToolIsNotStartableAndDiffersFromToolFailure)
{
	const char *old = getenv("PATH");
	std::string saved = old ? old : "";
	setenv("PATH", (workdir + "/nothing-here").c_str(), 1);
	CaptureStderr();
	int status = zalkv2_setup_buddy_ports(0, 1);
	std::string err = GetCapturedStderr();
	setenv("PATH", saved.c_str(), 1);

	EXPECT_EQ(status, 127);
	EXPECT_NE(err.find(std::string("Could not start command bridge link set dev ") + NAME_A + " backup_port " +
			   NAME_B + ": No such file or directory"),
		  std::string::npos)
		<< err;
	EXPECT_NE(err.find(std::string("Could not add buddy port for ring port ") + NAME_A), std::string::npos);
	EXPECT_EQ(link_details(NAME_A).find("backup_port"), std::string::npos);

	// The tool runs and refuses (the backup is no bridge port): its own
	// status, and no claim that it could not be started.
	ASSERT_EQ(sh("ip link set '%s' nomaster", NAME_B), 0);
	CaptureStderr();
	status = zalkv2_setup_buddy_ports(0, 1);
	err = GetCapturedStderr();
	EXPECT_NE(status, 0);
	EXPECT_NE(status, 127);
	EXPECT_EQ(err.find("Could not start command"), std::string::npos) << err;
	EXPECT_NE(err.find(std::string("Could not add buddy port for ring port ") + NAME_A), std::string::npos);
}

} // namespace
