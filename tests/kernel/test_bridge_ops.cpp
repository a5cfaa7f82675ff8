// Bridge operations against a real Linux bridge br0 with two ring ports
// (veth pairs) in the test's own network namespace.
//
// Where kernels differ in what the plain bridge supports (VLANs, layer-2
// multicast entries), the bridge tool is asked first and our request must
// fare exactly as the tool's did. Log lines are read back from standard
// error (the log is opened with LOG_PERROR).
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <net/if.h>
#include <string>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "bridge/netlink_ops.h"
#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "status/status.h"
#include "tests/kernel/support/netns.h"

namespace {

class BridgeKernel : public ::testing::Test {
protected:
	static void SetUpTestSuite()
	{
		sh("[ -S /dev/log ] && mount --bind /dev/null /dev/log");
		openlog("zalk-kernel-test", LOG_PERROR, LOG_USER);
		ASSERT_EQ(rtnl_open(&bridge_rth, 0), 0);
		netsock = socket(AF_INET, SOCK_DGRAM, 0);
		ASSERT_GT(netsock, 0);
	}

	static void TearDownTestSuite()
	{
		rtnl_close(&bridge_rth);
		close(netsock);
		netsock = 0;
	}

	void SetUp() override
	{
		ASSERT_EQ(sh("ip link add br0 type bridge"
			     " && ip link add rA type veth peer name rAp && ip link add rB type veth peer name rBp"),
			  0);
		ASSERT_EQ(sh("ip link set rA master br0 && ip link set rB master br0"
			     " && for i in br0 rA rAp rB rBp; do ip link set $i up || exit 1; done"),
			  0);
		br = (int)if_nametoindex("br0");
		a = (int)if_nametoindex("rA");
		b = (int)if_nametoindex("rB");
		ASSERT_GT(br, 0);
		ASSERT_GT(a, 0);
		ASSERT_GT(b, 0);
		memset(instances, 0, sizeof(instances));
		unlink("/var/run/zalkv2/debug");
	}

	void TearDown() override { sh("ip link del br0; ip link del rA; ip link del rB 2>/dev/null"); }

	zalkv2_instance &ring(uint32_t role, int port_b)
	{
		zalkv2_instance &in = instances[0];
		in.enabled = 1;
		in.ring_id = 3;
		in.role = role;
		in.bridge_ifindex = br;
		in.port[PORT_A].ifindex = a;
		in.port[PORT_B].ifindex = port_b;
		snprintf(in.port[PORT_A].name, 16, "rA");
		snprintf(in.port[PORT_B].name, 16, "rB");
		return in;
	}

	static void capture() { testing::internal::CaptureStderr(); }
	static std::string captured() { return testing::internal::GetCapturedStderr(); }

	static std::string port_state(const char *dev)
	{
		std::string out = sh_out("bridge link show dev %s", dev);
		size_t at = out.find(" state ");
		return at == std::string::npos ? "?" : out.substr(at + 7, out.find(' ', at + 7) - at - 7);
	}

	static bool fdb_has(const char *mac, const char *dev)
	{
		return sh("bridge fdb show br br0 | grep -q '^%s dev %s '", mac, dev) == 0;
	}

	static int mdb_count(const char *filter)
	{
		return atoi(sh_out("bridge mdb show dev br0 | grep -c '%s'", filter).c_str());
	}

	int br = 0, a = 0, b = 0;
};

TEST_F(BridgeKernel, PortStateIsSetAndReadBack)
{
	zalkv2_port port{};
	port.ifindex = a;
	// Blocking would be undone at once by a bridge without STP, so the
	// states that stay put there are used.
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_DISABLED), 0);
	EXPECT_EQ(port_state("rA"), "disabled");
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_LEARNING), 0);
	EXPECT_EQ(port_state("rA"), "learning");
	EXPECT_EQ(port_state("rB"), "forwarding");

	sh("mkdir -p /var/run/zalkv2 && echo 2 > /var/run/zalkv2/debug");
	capture();
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_FORWARDING), 0);
	std::string log = captured();
	EXPECT_EQ(port_state("rA"), "forwarding");
	EXPECT_NE(log.find("zalkv2_set_port_state() - rA : FORWARDING\n"), std::string::npos) << log;

	// Refused while the kernel's own STP runs the ports.
	ASSERT_EQ(sh("ip link set br0 type bridge stp_state 1"), 0);
	capture();
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_LEARNING), -EBUSY);
	log = captured();
	EXPECT_NE(log.find("RTNETLINK answers: Device or resource busy\n"), std::string::npos) << log;
}

TEST_F(BridgeKernel, VlanAndMstRequestsFailCleanlyWithoutVlanSupport)
{
	if (sh("bridge vlan add vid 4021 dev br0 self 2>/dev/null") == 0)
		GTEST_SKIP() << "this kernel's bridge has VLAN filtering; the full-kernel rig covers it";

	capture();
	EXPECT_LT(zalkv2_bridge_vlan(br, ZALK_MGNT_VLAN, 0, 1), 0);
	EXPECT_LT(zalkv2_bridge_vlan(a, ZALK_RING_VLAN, 1, 1), 0);
	EXPECT_LT(zalkv2_vlan_global_opt(br, ZALK_MGNT_VLAN, BRIDGE_VLANDB_GOPTS_MCAST_SNOOPING, 1), 0);
	EXPECT_LT(zalkv2_vlan_set_msti(br), 0);
	EXPECT_LT(zalkv2_set_mst_port_state(a, ZALK_MGNT_VLAN, PORT_BLOCKING), 0);
	std::string log = captured();
	// One report per refused request.
	size_t reports = 0;
	for (size_t at = log.find("RTNETLINK answers: "); at != std::string::npos;
	     at = log.find("RTNETLINK answers: ", at + 1))
		reports++;
	EXPECT_EQ(reports, 5u) << log;
}

TEST_F(BridgeKernel, FdbFlushEmptiesTheDynamicEntriesOfBothRingPorts)
{
	ring(RING_TYPE_MEMBER, b);
	ASSERT_EQ(sh("bridge fdb add 02:00:00:00:00:01 dev rA master dynamic"
		     " && bridge fdb add 02:00:00:00:00:02 dev rB master dynamic"
		     " && bridge fdb add 02:00:00:00:00:03 dev rB master static"),
		  0);
	ASSERT_TRUE(fdb_has("02:00:00:00:00:01", "rA"));
	ASSERT_TRUE(fdb_has("02:00:00:00:00:02", "rB"));

	EXPECT_EQ(zalkv2_fdb_flush(0), 0);
	EXPECT_FALSE(fdb_has("02:00:00:00:00:01", "rA"));
	EXPECT_FALSE(fdb_has("02:00:00:00:00:02", "rB"));
	// Static entries survive a flush.
	EXPECT_TRUE(fdb_has("02:00:00:00:00:03", "rB"));
}

TEST_F(BridgeKernel, FdbFlushWithOnlyPortA)
{
	ring(RING_TYPE_FOCAL, -1);
	ASSERT_EQ(sh("bridge fdb add 02:00:00:00:00:01 dev rA master dynamic"
		     " && bridge fdb add 02:00:00:00:00:02 dev rB master dynamic"),
		  0);
	EXPECT_EQ(zalkv2_fdb_flush(0), 0);
	EXPECT_FALSE(fdb_has("02:00:00:00:00:01", "rA"));
	EXPECT_TRUE(fdb_has("02:00:00:00:00:02", "rB"));

	// A port that has left the system: the flush fails and says why.
	instances[0].port[PORT_A].ifindex = 99999;
	capture();
	EXPECT_EQ(zalkv2_fdb_flush(0), -1);
	std::string log = captured();
	EXPECT_NE(log.find("RTNETLINK answers: No such device\n"), std::string::npos) << log;
}

TEST_F(BridgeKernel, MdbEntryAddedAndDeleted)
{
	// Does this kernel's bridge take layer-2 entries at all?
	bool l2_mdb = sh("bridge mdb add dev br0 port rB grp 03:4b:a1:01:09:01 permanent vid 4021 2>/dev/null") == 0;
	const uint8_t g2[6] = {0x03, 0x4b, 0xa1, 0x01, 0x03, 0x02};

	capture();
	int added = zalkv2_mdb_entry(br, a, g2, ZALK_MGNT_VLAN, 1);
	std::string log = captured();
	if (!l2_mdb) {
		EXPECT_EQ(added, -1);
		EXPECT_NE(log.find("RTNETLINK answers: "), std::string::npos) << log;
		return;
	}
	ASSERT_EQ(added, 0) << log;
	EXPECT_EQ(mdb_count("port rA grp 03:4b:a1:01:03:02 permanent vid 4021"), 1);

	// The same entry again is refused, with the kernel's explanation.
	capture();
	EXPECT_EQ(zalkv2_mdb_entry(br, a, g2, ZALK_MGNT_VLAN, 1), -1);
	log = captured();
	EXPECT_NE(log.find("RTNETLINK answers: File exists\n"), std::string::npos) << log;
	EXPECT_NE(log.find("Error: "), std::string::npos) << log;

	EXPECT_EQ(zalkv2_mdb_entry(br, a, g2, ZALK_MGNT_VLAN, 0), 0);
	EXPECT_EQ(mdb_count("03:4b:a1:01:03:02"), 0);
	// Deleting what is not there is refused too.
	capture();
	EXPECT_EQ(zalkv2_mdb_entry(br, a, g2, ZALK_MGNT_VLAN, 0), -1);
	log = captured();
	EXPECT_NE(log.find("RTNETLINK answers: "), std::string::npos) << log;
}

TEST_F(BridgeKernel, SetupMdbInstallsAndRemovesTheRingEntries)
{
	if (sh("bridge mdb add dev br0 port rB grp 03:4b:a1:01:09:01 permanent vid 4021 2>/dev/null") != 0)
		GTEST_SKIP() << "no layer-2 multicast entries on this kernel's bridge";
	ring(RING_TYPE_MEMBER, b);
	EXPECT_EQ(zalkv2_setup_mdb(0, a, 1), 0);
	EXPECT_EQ(mdb_count("03:4b:a1:01:03:"), 7);
	EXPECT_EQ(mdb_count("port br0 grp 03:4b:a1:01:03:0"), 4);
	EXPECT_EQ(mdb_count("port rA grp 03:4b:a1:01:03:04 permanent vid 4022"), 1);
	EXPECT_EQ(zalkv2_setup_mdb(0, b, 1), 0);
	EXPECT_EQ(mdb_count("port rB grp 03:4b:a1:01:03:0"), 3);

	EXPECT_EQ(zalkv2_setup_mdb(0, a, 0), 0);
	EXPECT_EQ(zalkv2_setup_mdb(0, b, 0), 0);
	EXPECT_EQ(mdb_count("03:4b:a1:01:03:"), 0);
	EXPECT_EQ(mdb_count("03:4b:a1:01:09:01"), 1); // others' entries untouched
}

TEST_F(BridgeKernel, FdbRemoveRunsTheBridgeTool)
{
	if (sh("bridge vlan add vid 4021 dev br0 self 2>/dev/null") == 0)
		GTEST_SKIP() << "this kernel's bridge has VLAN filtering; the full-kernel rig covers it";
	const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x09};
	ASSERT_EQ(sh("bridge fdb add 02:00:00:00:00:09 dev rA master static"), 0);
	sh("mkdir -p /var/run/zalkv2 && echo 2 > /var/run/zalkv2/debug");
	// Without VLAN support the entry has no VLAN, so the tool, which did
	// run (a command that cannot start counts as 127), reports failure.
	capture();
	int st = zalkv2_fdb_remove("rA", mac, ZALK_MGNT_VLAN);
	std::string log = captured();
	EXPECT_NE(st, 0);
	EXPECT_NE(st, 127);
	EXPECT_TRUE(fdb_has("02:00:00:00:00:09", "rA"));
	EXPECT_NE(log.find("zalkv2_fdb_remove() - zalkv2_fdb_remove - bridge fdb del 02:00:00:00:00:09 dev rA "
			   "master vlan 4021\n"),
		  std::string::npos)
		<< log;
}

TEST_F(BridgeKernel, InterfaceQueries)
{
	uint8_t mac[6] = {};
	EXPECT_EQ(if_get_mac(a, mac), 0);
	char text[18];
	snprintf(text, sizeof(text), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	EXPECT_EQ(std::string(text) + "\n", sh_out("cat /sys/class/net/rA/address"));

	EXPECT_NE(zalkv2_if_running(a), 0);
	ASSERT_EQ(sh("ip link set rAp down"), 0); // the far end goes: no carrier
	EXPECT_EQ(zalkv2_if_running(a), 0);
	EXPECT_NE(zalkv2_if_running(b), 0);

	uint8_t kept[6] = {1, 2, 3, 4, 5, 6};
	ASSERT_EQ(sh("ip link del rB"), 0);
	EXPECT_EQ(if_get_mac(b, kept), 0);
	EXPECT_EQ(kept[0], 1);
	EXPECT_EQ(zalkv2_if_running(b), 0);
}

} // namespace
