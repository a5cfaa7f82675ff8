// Bridge preparation and teardown, backup ports and the base MAC: the
// order of everything sent to the kernel and run as a command.
#include "tests/fakes/fixture.h"

using namespace fx;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

class Prepare : public Unit {
protected:
	void SetUp() override
	{
		Unit::SetUp();
		const uint8_t mac[6] = {2, 0, 0, 0, 0, 2};
		fake::add_iface("br0", 2, mac);
		record_sequence();
		EXPECT_EQ(zalkv2_prepare_bridge(), 0);
		EXPECT_GT(netsock, 0);
		EXPECT_GT(bridge_rth.fd, 0);
		seq.clear();
		clear();
	}
	void TearDown() override
	{
		zalkv2_teardown();
		Unit::TearDown();
	}
	std::string prepare(int ins) // returns what standard error got
	{
		CaptureStderr();
		zalkv2_prepare_bridge_on_instance(ins);
		return GetCapturedStderr();
	}
};

Lines filters(const char *action, const char *dev, int prio, int ring, int n)
{
	Lines v;
	char b[160];
	for (int k = 1; k <= n; k++, prio++) {
		snprintf(b, sizeof(b), "tc filter %s dev %s ingress protocol all prio %d flower skip_hw dst_mac 03:4b:a1:01:%02d:%02d action drop",
			 action, dev, prio, ring, k);
		v.push_back(b);
	}
	return v;
}
Lines operator+(Lines a, const Lines &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

const Lines focal_prepare =
	Lines{"vlan add 11 4021 master", "vlan add 12 4021 master", "gopt 2 vid 4021 3=1", "gopt 2 vid 4021 15=0", "vlan add 11 4022 master",
	      "vlan add 12 4022 master", "gopt 2 vid 4022 3=1", "gopt 2 vid 4022 15=0", "gopt 2 vid 4021 18=4021", "mst 11 4021 4",
	      "mst 12 4021 4", "tc qdisc add dev eth1 clsact", "tc qdisc add dev eth2 clsact"} +
	filters("add", "eth1", 321, 5, 3) + filters("add", "eth2", 324, 5, 3) +
	Lines{"mdb add 2 2 03:4b:a1:01:05:01 4021", "mdb add 2 2 03:4b:a1:01:05:02 4021", "mdb add 2 2 03:4b:a1:01:05:03 4022",
	      "mdb add 2 2 03:4b:a1:01:05:04 4022", "mdb add 2 11 03:4b:a1:01:05:04 4022", "mdb add 2 12 03:4b:a1:01:05:04 4022",
	      "bridge fdb del 02:00:00:00:00:01 dev eth1 master vlan 4021", "bridge fdb del 02:00:00:00:00:01 dev eth1 master vlan 4022",
	      "bridge fdb del 02:00:00:00:00:02 dev eth2 master vlan 4021", "bridge fdb del 02:00:00:00:00:02 dev eth2 master vlan 4022",
	      "bridge link set dev eth1 backup_port eth2", "bridge link set dev eth2 backup_port eth1"};

const Lines focal_teardown =
	Lines{"mdb del 2 2 03:4b:a1:01:05:01 4021", "mdb del 2 2 03:4b:a1:01:05:02 4021", "mdb del 2 2 03:4b:a1:01:05:03 4022",
	      "mdb del 2 2 03:4b:a1:01:05:04 4022", "mdb del 2 11 03:4b:a1:01:05:04 4022", "mdb del 2 12 03:4b:a1:01:05:04 4022"} +
	filters("del", "eth1", 321, 5, 3) + filters("del", "eth2", 324, 5, 3) +
	Lines{"tc qdisc del dev eth1 clsact", "tc qdisc del dev eth2 clsact", "vlan del 11 4021 master", "vlan del 12 4021 master",
	      "vlan del 11 4022 master", "vlan del 12 4022 master", "bridge link set dev eth1 nobackup_port", "bridge link set dev eth2 nobackup_port"};

TEST_F(Prepare, BridgeItselfGetsBothVlansAndAnEmptyFilterList)
{
	zalkv2_teardown();
	ASSERT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "x"), 321);
	EXPECT_EQ(zalkv2_prepare_bridge(), 0);
	EXPECT_EQ(seq, (Lines{"vlan add 2 4021 self", "vlan add 2 4022 self"}));
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "x"), 321);
	EXPECT_TRUE(fake::logs.empty());
	// Neither socket opens and the kernel refuses both VLANs: every
	// failure is reported and the VLANs are still asked for.
	zalkv2_teardown();
	seq.clear();
	fake::socket_fails = fake::rtnl_open_fails = true;
	talk = [](const nlmsghdr *) { return -95; };
	CaptureStderr();
	EXPECT_NE(zalkv2_prepare_bridge(), 0);
	EXPECT_EQ(GetCapturedStderr(), "Cannot open rtnetlink\n");
	EXPECT_EQ(seq.size(), 2u);
	EXPECT_EQ(errors(), (Lines{"netsock was not open!\n\n", "Can not initialaze socket socket\n", "Failed to initialize netlink socket\n",
				   "zalkv2_prepare_bridge - Failed\n\n"}));
}

TEST_F(Prepare, FocalPointAndMemberInOrder)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	EXPECT_EQ(prepare(0), "");
	EXPECT_EQ(seq, focal_prepare);
	seq.clear();
	EXPECT_EQ(zalkv2_bridge_enable_mgnt_vlan(0), 0);
	EXPECT_EQ(seq, (Lines{"mst 11 4021 3", "mst 12 4021 3"}));

	make_ring(2, RING_TYPE_MEMBER, 7, false); // a member without port B still sets the bridge options
	seq.clear();
	EXPECT_EQ(prepare(2), "");
	EXPECT_EQ(seq, (Lines{"vlan add 31 4021 master", "gopt 2 vid 4021 3=1", "gopt 2 vid 4021 15=0", "vlan add 31 4022 master",
			      "gopt 2 vid 4022 3=1", "gopt 2 vid 4022 15=0", "gopt 2 vid 4021 18=4021", "mst 31 4021 4",
			      "tc qdisc add dev eth21 clsact",
			      "tc filter add dev eth21 ingress protocol all prio 327 flower skip_hw dst_mac 03:4b:a1:01:07:01 action drop",
			      "mdb add 2 2 03:4b:a1:01:07:01 4021", "mdb add 2 2 03:4b:a1:01:07:02 4021", "mdb add 2 2 03:4b:a1:01:07:03 4022",
			      "mdb add 2 2 03:4b:a1:01:07:04 4022", "mdb add 2 31 03:4b:a1:01:07:02 4021", "mdb add 2 31 03:4b:a1:01:07:03 4022",
			      "mdb add 2 31 03:4b:a1:01:07:04 4022", "bridge fdb del 02:00:00:00:02:01 dev eth21 master vlan 4021",
			      "bridge fdb del 02:00:00:00:02:01 dev eth21 master vlan 4022"}));
	EXPECT_TRUE(errors().empty());
}

TEST_F(Prepare, EveryStepRunsAfterFailuresAndOneSummaryIsWritten)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	talk = [](const nlmsghdr *) { return -1; };
	cmd = [](const Lines &) { return 1; };
	EXPECT_EQ(prepare(0), "zalkv2_prepare_bridge_on_instance - Instance 0 Failed\n");
	EXPECT_EQ(seq, Lines(focal_prepare.begin(), focal_prepare.end() - 1)); // only the backup ports stop early
	EXPECT_TRUE(has(errors(), "zalkv2_remove_own_uc_mac - Failed\n"));
	EXPECT_EQ(errors().back(), "Could not add buddy port for ring port eth1\n");
	CaptureStderr();
	EXPECT_NE(zalkv2_bridge_enable_mgnt_vlan(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "zalkv2_bridge_enable_mgnt_vlan - Instance 0 Failed\n");
	// A netlink error and a command's status must not cancel out.
	talk = [](const nlmsghdr *n) { return describe(n) == "gopt 2 vid 4021 18=4021" ? -95 : 0; };
	cmd = [](const Lines &v) { return v[0] == "bridge" && v[1] == "link" ? 95 : 0; };
	tc_list_create();
	EXPECT_EQ(prepare(0), "zalkv2_prepare_bridge_on_instance - Instance 0 Failed\n");
}

TEST_F(Prepare, TeardownKeepsBridgeVlansWhileSomethingStillUsesThem)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	auto teardown = [&]() {
		instances[0].enabled = 1;
		tc_list_create();
		EXPECT_EQ(prepare(0), "");
		instances[0].enabled = 0;
		seq.clear();
		CaptureStderr();
		EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
		EXPECT_EQ(GetCapturedStderr(), "");
		return seq;
	};
	instances[1].enabled = 1; // another ring still runs
	EXPECT_EQ(teardown(), focal_teardown);
	instances[1].enabled = 0; // the last ring, but the version-0 daemon is there
	fake::write_file("/var/run/zalkd.pid", "4711\n");
	EXPECT_EQ(teardown(), focal_teardown);
	std::remove((fake::root() + "/var/run/zalkd.pid").c_str()); // the last ring: the bridge's own VLANs go first
	EXPECT_EQ(teardown(), (Lines{"vlan del 2 4021 self", "vlan del 2 4022 self"} + focal_teardown));
}

TEST_F(Prepare, TeardownLeavesForeignQdiscAndCountsOnlyVlanFailures)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	cmd = [](const Lines &v) { return v[1] == "qdisc" ? 2 : 0; }; // the clsact qdisc was already there: not ours to remove
	EXPECT_EQ(prepare(0), "");
	instances[0].enabled = 0;
	instances[4].enabled = 1;
	seq.clear();
	cmd = [](const Lines &v) { return v[0] == "tc" ? 2 : 0; };
	EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(seq, (Lines(focal_teardown.begin(), focal_teardown.begin() + 12) + Lines(focal_teardown.begin() + 14, focal_teardown.end())));
	talk = [](const nlmsghdr *n) { return n->nlmsg_type == RTM_DELLINK ? -2 : 0; };
	CaptureStderr();
	EXPECT_NE(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "zalkv2_teardown_bridge_on_instance - Instance 0 Failed\n");
}

TEST_F(Prepare, BackupPortsPointAtEachOtherAndStopAtTheFirstFailure)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	make_ring(1, RING_TYPE_FOCAL, 6, false);
	fake::set_debug(ZALK_DBG);
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 1) + zalkv2_setup_buddy_ports(0, 0), 0);
	EXPECT_EQ(zalkv2_setup_buddy_ports(1, 1) + zalkv2_setup_buddy_ports(1, 0), 0); // a single ring port has no backup
	EXPECT_EQ(seq, (Lines{"bridge link set dev eth1 backup_port eth2", "bridge link set dev eth2 backup_port eth1",
			      "bridge link set dev eth1 nobackup_port", "bridge link set dev eth2 nobackup_port"}));
	EXPECT_EQ(notices().front(), "zalkv2_setup_buddy_ports() - bridge link set dev eth1 backup_port eth2\n");

	seq.clear();
	clear();
	cmd = [](const Lines &) { return 3; };
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 1), 3);
	cmd = [](const Lines &v) { return v[4] == "eth2" ? 4 : 0; };
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 0), 4);
	cmd = [](const Lines &) { return -1; }; // the tool itself missing: a failure with a status of its own
	EXPECT_NE(zalkv2_setup_buddy_ports(0, 1), 0);
	EXPECT_EQ(seq, (Lines{"bridge link set dev eth1 backup_port eth2", "bridge link set dev eth1 nobackup_port",
			      "bridge link set dev eth2 nobackup_port", "bridge link set dev eth1 backup_port eth2"}));
	Lines errs = errors();
	EXPECT_EQ(Lines(errs.begin(), errs.begin() + 2), (Lines{"Could not add buddy port for ring port eth1\n", "Could not add buddy port for ring port eth2\n"}));
}

TEST_F(Prepare, BaseMacParsedFromThePlatformFileOrZero)
{
	uint8_t mac[6];
	auto read = [&](const char *text) {
		if (text)
			fake::write_file("/var/run/system/0/mac-base", text);
		else
			std::remove((fake::root() + "/var/run/system/0/mac-base").c_str());
		memset(mac, 0xee, 6);
		EXPECT_EQ(zalkv2_read_base_mac(mac), mac);
		return hex(Bytes(mac, mac + 6));
	};
	EXPECT_EQ(read("00:1A:2b:3c:4D:5e\n"), "001a2b3c4d5e");
	EXPECT_EQ(read(nullptr), "000000000000");
	EXPECT_EQ(read("12:34:zz\n"), "1234eeeeeeee"); // bytes the text does not give keep what the buffer held
}

} // namespace
