// Bridge preparation and teardown, backup ports and the base MAC: the
// order of everything sent to the kernel and run as a command.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <string>
#include <vector>

#include "bridge/backup.h"
#include "bridge/filters.h"
#include "bridge/netlink_ops.h"
#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using Seq = std::vector<std::string>;

namespace {

constexpr int BR = 5;
const uint8_t mac_br[6] = {0x02, 0, 0, 0, 0, 0x05};
const uint8_t mac_1[6] = {0x02, 0, 0, 0, 0, 0x11};
const uint8_t mac_2[6] = {0x02, 0, 0, 0, 0, 0x12};

// One readable line per netlink request, from its bytes.
std::string attr_u(const rtattr *a)
{
	int len = RTA_PAYLOAD(a);
	const uint8_t *d = (const uint8_t *)RTA_DATA(a);
	unsigned v = len == 1 ? d[0] : len == 2 ? *(const uint16_t *)d : *(const uint32_t *)d;
	return std::to_string(v);
}

std::string mac_text(const uint8_t *m)
{
	char b[20];
	snprintf(b, sizeof(b), "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", m[0], m[1], m[2], m[3], m[4], m[5]);
	return b;
}

#define FOR_ATTRS(a, start, len) \
	for (const rtattr *a = (start); RTA_OK(a, len); a = RTA_NEXT(a, len))

std::string describe(const nlmsghdr *n)
{
	const char *body = (const char *)NLMSG_DATA(n);
	int type = n->nlmsg_type;
	if (type == RTM_SETLINK || type == RTM_DELLINK) {
		auto *ifi = (const ifinfomsg *)body;
		std::string idx = std::to_string(ifi->ifi_index);
		int len = n->nlmsg_len - NLMSG_LENGTH(sizeof(ifinfomsg));
		FOR_ATTRS(a, (const rtattr *)(body + NLMSG_ALIGN(sizeof(ifinfomsg))), len)
		{
			if ((a->rta_type & NLA_TYPE_MASK) != IFLA_AF_SPEC)
				continue;
			std::string flags, vid, mst;
			int l2 = RTA_PAYLOAD(a);
			FOR_ATTRS(b, (const rtattr *)RTA_DATA(a), l2)
			{
				if ((b->rta_type & NLA_TYPE_MASK) == IFLA_BRIDGE_FLAGS)
					flags = attr_u(b) == "1" ? "master" : "self";
				if ((b->rta_type & NLA_TYPE_MASK) == IFLA_BRIDGE_VLAN_INFO)
					vid = std::to_string(((const bridge_vlan_info *)RTA_DATA(b))->vid);
				if ((b->rta_type & NLA_TYPE_MASK) == IFLA_BRIDGE_MST) {
					int l3 = RTA_PAYLOAD(b);
					FOR_ATTRS(c, (const rtattr *)RTA_DATA(b), l3)
					{
						int l4 = RTA_PAYLOAD(c);
						std::string msti, state;
						FOR_ATTRS(d, (const rtattr *)RTA_DATA(c), l4)
						{
							if ((d->rta_type & NLA_TYPE_MASK) == IFLA_BRIDGE_MST_ENTRY_MSTI)
								msti = attr_u(d);
							if ((d->rta_type & NLA_TYPE_MASK) == IFLA_BRIDGE_MST_ENTRY_STATE)
								state = attr_u(d);
						}
						mst = "mst " + idx + " " + msti + " " + state;
					}
				}
			}
			if (!mst.empty())
				return mst;
			return std::string(type == RTM_SETLINK ? "vlan add " : "vlan del ") + idx + " " + vid + " " + flags;
		}
		return "link? " + idx;
	}
	if (type == RTM_NEWVLAN) {
		auto *bv = (const br_vlan_msg *)body;
		int len = n->nlmsg_len - NLMSG_LENGTH(sizeof(br_vlan_msg));
		std::string out = "gopt " + std::to_string(bv->ifindex);
		FOR_ATTRS(a, (const rtattr *)(body + NLMSG_ALIGN(sizeof(br_vlan_msg))), len)
		{
			int l2 = RTA_PAYLOAD(a);
			FOR_ATTRS(b, (const rtattr *)RTA_DATA(a), l2)
			{
				int t = b->rta_type & NLA_TYPE_MASK;
				out += t == BRIDGE_VLANDB_GOPTS_ID ? " vid " + attr_u(b)
								   : " " + std::to_string(t) + "=" + attr_u(b);
			}
		}
		return out;
	}
	if (type == RTM_NEWMDB || type == RTM_DELMDB) {
		auto *bp = (const br_port_msg *)body;
		int len = n->nlmsg_len - NLMSG_LENGTH(sizeof(br_port_msg));
		FOR_ATTRS(a, (const rtattr *)(body + NLMSG_ALIGN(sizeof(br_port_msg))), len)
		{
			auto *e = (const br_mdb_entry *)RTA_DATA(a);
			return std::string(type == RTM_NEWMDB ? "mdb add " : "mdb del ") + std::to_string(bp->ifindex) +
			       " " + std::to_string(e->ifindex) + " " + mac_text(e->addr.u.mac_addr) + " " +
			       std::to_string(e->vid);
		}
	}
	return "netlink " + std::to_string(type);
}

std::string joined(const std::vector<std::string> &argv)
{
	std::string s;
	for (auto &w : argv)
		s += (s.empty() ? "" : " ") + w;
	return s;
}

void set_port(int ins, int p, const char *name, int ifindex, const uint8_t *mac)
{
	zalkv2_port &port = instances[ins].port[p];
	snprintf(port.name, sizeof(port.name), "%s", name);
	port.ifindex = ifindex;
	port.port_index = p;
	port.instance = &instances[ins];
	if (mac)
		memcpy(port.mac, mac, 6);
}

class Prepare : public ::testing::Test {
protected:
	Seq seq;                        // netlink requests and commands, in order
	std::function<int(const nlmsghdr *)> talk_result = [](const nlmsghdr *) { return 0; };
	std::function<int(const std::vector<std::string> &)> cmd_result = [](const std::vector<std::string> &) {
		return 0;
	};

	void SetUp() override
	{
		fake::reset();
		memset(instances, 0, sizeof(instances));
		for (auto &in : instances)
			in.port[0].ifindex = in.port[1].ifindex = -1;
		fake::add_iface("br0", BR, mac_br);
		fake::add_iface("eth1", 11, mac_1);
		fake::add_iface("eth2", 12, mac_2);
		fake::talk_hook = [this](const nlmsghdr *n) {
			seq.push_back(describe(n));
			return talk_result(n);
		};
		fake::spawn_hook = [this](const std::vector<std::string> &v) {
			seq.push_back(joined(v));
			return cmd_result(v);
		};
		EXPECT_EQ(zalkv2_prepare_bridge(), 0);
		EXPECT_GT(netsock, 0);
		EXPECT_GT(bridge_rth.fd, 0);
		seq.clear();
		fake::clear_records();
	}
	void TearDown() override { zalkv2_teardown(); }

	void focal(int ins, int ring_id, bool with_b)
	{
		zalkv2_instance &in = instances[ins];
		in.index = ins;
		in.ring_id = ring_id;
		in.role = RING_TYPE_FOCAL;
		in.bridge_ifindex = BR;
		set_port(ins, PORT_A, "eth1", 11, mac_1);
		if (with_b)
			set_port(ins, PORT_B, "eth2", 12, mac_2);
		in.enabled = 1;
	}
};

const Seq focal_prepare = {
	"vlan add 11 4021 master",
	"vlan add 12 4021 master",
	"gopt 5 vid 4021 3=1",
	"gopt 5 vid 4021 15=0",
	"vlan add 11 4022 master",
	"vlan add 12 4022 master",
	"gopt 5 vid 4022 3=1",
	"gopt 5 vid 4022 15=0",
	"gopt 5 vid 4021 18=4021",
	"mst 11 4021 4",
	"mst 12 4021 4",
	"tc qdisc add dev eth1 clsact",
	"tc qdisc add dev eth2 clsact",
	"tc filter add dev eth1 ingress protocol all prio 321 flower skip_hw dst_mac 03:4b:a1:01:05:01 action drop",
	"tc filter add dev eth1 ingress protocol all prio 322 flower skip_hw dst_mac 03:4b:a1:01:05:02 action drop",
	"tc filter add dev eth1 ingress protocol all prio 323 flower skip_hw dst_mac 03:4b:a1:01:05:03 action drop",
	"tc filter add dev eth2 ingress protocol all prio 324 flower skip_hw dst_mac 03:4b:a1:01:05:01 action drop",
	"tc filter add dev eth2 ingress protocol all prio 325 flower skip_hw dst_mac 03:4b:a1:01:05:02 action drop",
	"tc filter add dev eth2 ingress protocol all prio 326 flower skip_hw dst_mac 03:4b:a1:01:05:03 action drop",
	"mdb add 5 5 03:4b:a1:01:05:01 4021",
	"mdb add 5 5 03:4b:a1:01:05:02 4021",
	"mdb add 5 5 03:4b:a1:01:05:03 4022",
	"mdb add 5 5 03:4b:a1:01:05:04 4022",
	"mdb add 5 11 03:4b:a1:01:05:04 4022",
	"mdb add 5 12 03:4b:a1:01:05:04 4022",
	"bridge fdb del 02:00:00:00:00:11 dev eth1 master vlan 4021",
	"bridge fdb del 02:00:00:00:00:11 dev eth1 master vlan 4022",
	"bridge fdb del 02:00:00:00:00:12 dev eth2 master vlan 4021",
	"bridge fdb del 02:00:00:00:00:12 dev eth2 master vlan 4022",
	"bridge link set dev eth1 backup_port eth2",
	"bridge link set dev eth2 backup_port eth1",
};

const Seq focal_teardown_ports = {
	"mdb del 5 5 03:4b:a1:01:05:01 4021",
	"mdb del 5 5 03:4b:a1:01:05:02 4021",
	"mdb del 5 5 03:4b:a1:01:05:03 4022",
	"mdb del 5 5 03:4b:a1:01:05:04 4022",
	"mdb del 5 11 03:4b:a1:01:05:04 4022",
	"mdb del 5 12 03:4b:a1:01:05:04 4022",
	"tc filter del dev eth1 ingress protocol all prio 321 flower skip_hw dst_mac 03:4b:a1:01:05:01 action drop",
	"tc filter del dev eth1 ingress protocol all prio 322 flower skip_hw dst_mac 03:4b:a1:01:05:02 action drop",
	"tc filter del dev eth1 ingress protocol all prio 323 flower skip_hw dst_mac 03:4b:a1:01:05:03 action drop",
	"tc filter del dev eth2 ingress protocol all prio 324 flower skip_hw dst_mac 03:4b:a1:01:05:01 action drop",
	"tc filter del dev eth2 ingress protocol all prio 325 flower skip_hw dst_mac 03:4b:a1:01:05:02 action drop",
	"tc filter del dev eth2 ingress protocol all prio 326 flower skip_hw dst_mac 03:4b:a1:01:05:03 action drop",
	"tc qdisc del dev eth1 clsact",
	"tc qdisc del dev eth2 clsact",
	"vlan del 11 4021 master",
	"vlan del 12 4021 master",
	"vlan del 11 4022 master",
	"vlan del 12 4022 master",
	"bridge link set dev eth1 nobackup_port",
	"bridge link set dev eth2 nobackup_port",
};

TEST_F(Prepare, BridgeItselfGetsBothVlansAndAnEmptyFilterList)
{
	zalkv2_teardown();
	ASSERT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "x"), 321);
	EXPECT_EQ(zalkv2_prepare_bridge(), 0);
	EXPECT_EQ(seq, (Seq{"vlan add 5 4021 self", "vlan add 5 4022 self"}));
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "x"), 321);
	EXPECT_TRUE(fake::logs.empty());

	// Neither socket can be opened, and the kernel refuses both VLANs:
	// every failure is reported and the VLANs are still asked for.
	zalkv2_teardown();
	seq.clear();
	fake::socket_fails = true;
	fake::rtnl_open_fails = true;
	talk_result = [](const nlmsghdr *) { return -95; };
	CaptureStderr();
	EXPECT_NE(zalkv2_prepare_bridge(), 0);
	EXPECT_EQ(GetCapturedStderr(), "Cannot open rtnetlink\n");
	EXPECT_EQ(netsock, 0);
	EXPECT_EQ(seq.size(), 2u);
	EXPECT_EQ(fake::log_texts(LOG_ERR), (Seq{"netsock was not open!\n\n", "Can not initialaze socket socket\n",
						 "Failed to initialize netlink socket\n",
						 "zalkv2_prepare_bridge - Failed\n\n"}));
}

TEST_F(Prepare, FocalPointWithTwoPortsInOrder)
{
	focal(0, 5, true);
	CaptureStderr();
	EXPECT_EQ(zalkv2_prepare_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "");
	EXPECT_EQ(seq, focal_prepare);
	EXPECT_TRUE(fake::log_texts(LOG_ERR).empty());

	seq.clear();
	EXPECT_EQ(zalkv2_bridge_enable_mgnt_vlan(0), 0);
	EXPECT_EQ(seq, (Seq{"mst 11 4021 3", "mst 12 4021 3"}));
}

TEST_F(Prepare, MemberWithoutPortBStillSetsTheBridgeOptions)
{
	zalkv2_instance &in = instances[2];
	in.index = 2;
	in.ring_id = 7;
	in.role = RING_TYPE_MEMBER;
	in.bridge_ifindex = BR;
	set_port(2, PORT_A, "eth1", 11, mac_1);
	in.enabled = 1;

	CaptureStderr();
	EXPECT_EQ(zalkv2_prepare_bridge_on_instance(2), 0);
	EXPECT_EQ(GetCapturedStderr(), "");
	EXPECT_EQ(seq, (Seq{
			       "vlan add 11 4021 master",
			       "gopt 5 vid 4021 3=1",
			       "gopt 5 vid 4021 15=0",
			       "vlan add 11 4022 master",
			       "gopt 5 vid 4022 3=1",
			       "gopt 5 vid 4022 15=0",
			       "gopt 5 vid 4021 18=4021",
			       "mst 11 4021 4",
			       "tc qdisc add dev eth1 clsact",
			       "tc filter add dev eth1 ingress protocol all prio 321 flower skip_hw dst_mac 03:4b:a1:01:07:01 action drop",
			       "mdb add 5 5 03:4b:a1:01:07:01 4021",
			       "mdb add 5 5 03:4b:a1:01:07:02 4021",
			       "mdb add 5 5 03:4b:a1:01:07:03 4022",
			       "mdb add 5 5 03:4b:a1:01:07:04 4022",
			       "mdb add 5 11 03:4b:a1:01:07:02 4021",
			       "mdb add 5 11 03:4b:a1:01:07:03 4022",
			       "mdb add 5 11 03:4b:a1:01:07:04 4022",
			       "bridge fdb del 02:00:00:00:00:11 dev eth1 master vlan 4021",
			       "bridge fdb del 02:00:00:00:00:11 dev eth1 master vlan 4022",
		       }));

	seq.clear();
	EXPECT_EQ(zalkv2_bridge_enable_mgnt_vlan(2), 0);
	EXPECT_EQ(seq, (Seq{"mst 11 4021 3"}));
}

TEST_F(Prepare, EveryStepRunsAfterFailuresAndOneSummaryIsWritten)
{
	focal(0, 5, true);
	talk_result = [](const nlmsghdr *) { return -1; };
	cmd_result = [](const std::vector<std::string> &) { return 1; };
	CaptureStderr();
	EXPECT_NE(zalkv2_prepare_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "zalkv2_prepare_bridge_on_instance - Instance 0 Failed\n");
	// Only the backup ports stop early: port B's command is not run.
	Seq expect(focal_prepare.begin(), focal_prepare.end() - 1);
	EXPECT_EQ(seq, expect);
	auto errs = fake::log_texts(LOG_ERR);
	EXPECT_NE(std::find(errs.begin(), errs.end(), "zalkv2_remove_own_uc_mac - Failed\n"), errs.end());
	EXPECT_EQ(errs.back(), "Could not add buddy port for ring port eth1\n");

	CaptureStderr();
	EXPECT_NE(zalkv2_bridge_enable_mgnt_vlan(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "zalkv2_bridge_enable_mgnt_vlan - Instance 0 Failed\n");
}

TEST_F(Prepare, NetlinkErrorAndCommandStatusDoNotCancelOut)
{
	focal(0, 5, true);
	talk_result = [](const nlmsghdr *n) { return describe(n) == "gopt 5 vid 4021 18=4021" ? -95 : 0; };
	cmd_result = [](const std::vector<std::string> &v) { return v[0] == "bridge" && v[1] == "link" ? 95 : 0; };
	CaptureStderr();
	int ret = zalkv2_prepare_bridge_on_instance(0);
	EXPECT_EQ(GetCapturedStderr(), "zalkv2_prepare_bridge_on_instance - Instance 0 Failed\n");
	EXPECT_NE(ret, 0);
}

TEST_F(Prepare, TeardownKeepsBridgeVlansWhileSomethingStillUsesThem)
{
	focal(0, 5, true);
	ASSERT_EQ(zalkv2_prepare_bridge_on_instance(0), 0);
	instances[1].enabled = 1; // another ring still runs
	instances[0].enabled = 0;
	seq.clear();
	CaptureStderr();
	EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "");
	EXPECT_EQ(seq, focal_teardown_ports);

	// The last ring, but the version-0 daemon is there.
	instances[1].enabled = 0;
	instances[0].enabled = 1;
	ASSERT_EQ(zalkv2_prepare_bridge_on_instance(0), 0);
	instances[0].enabled = 0;
	fake::write_file("/var/run/zalkd.pid", "4711\n");
	seq.clear();
	EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(seq, focal_teardown_ports);

	// The last ring and nobody else: the bridge's own VLANs go first.
	std::remove((fake::root() + "/var/run/zalkd.pid").c_str());
	instances[0].enabled = 1;
	ASSERT_EQ(zalkv2_prepare_bridge_on_instance(0), 0);
	instances[0].enabled = 0;
	seq.clear();
	EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
	Seq expect = {"vlan del 5 4021 self", "vlan del 5 4022 self"};
	expect.insert(expect.end(), focal_teardown_ports.begin(), focal_teardown_ports.end());
	EXPECT_EQ(seq, expect);
}

TEST_F(Prepare, TeardownLeavesForeignQdiscAndReportsFailures)
{
	// The clsact qdisc was already there: it is not the daemon's to remove.
	focal(0, 5, true);
	cmd_result = [](const std::vector<std::string> &v) { return v[1] == "qdisc" ? 2 : 0; };
	CaptureStderr();
	EXPECT_EQ(zalkv2_prepare_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "");
	instances[0].enabled = 0;
	instances[4].enabled = 1;
	seq.clear();
	cmd_result = [](const std::vector<std::string> &) { return 0; };
	EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
	for (auto &s : seq)
		EXPECT_EQ(s.find("qdisc"), std::string::npos) << s;

	// Failed filter removals are not counted; failed VLAN removals are.
	instances[0].enabled = 1;
	ASSERT_EQ(zalkv2_prepare_bridge_on_instance(0), 0);
	instances[0].enabled = 0;
	seq.clear();
	cmd_result = [](const std::vector<std::string> &v) { return v[0] == "tc" ? 2 : 0; };
	CaptureStderr();
	EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "");
	EXPECT_EQ(seq.size(), focal_teardown_ports.size());
	talk_result = [](const nlmsghdr *n) { return n->nlmsg_type == RTM_DELLINK ? -2 : 0; };
	CaptureStderr();
	EXPECT_NE(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "zalkv2_teardown_bridge_on_instance - Instance 0 Failed\n");
}

class Backup : public Prepare {};

TEST_F(Backup, BothPortsPointAtEachOtherAndBack)
{
	focal(0, 5, true);
	fake::set_debug(ZALK_DBG);
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 1), 0);
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 0), 0);
	EXPECT_EQ(seq, (Seq{"bridge link set dev eth1 backup_port eth2", "bridge link set dev eth2 backup_port eth1",
			    "bridge link set dev eth1 nobackup_port", "bridge link set dev eth2 nobackup_port"}));
	EXPECT_EQ(fake::log_texts(LOG_NOTICE).front(),
		  "zalkv2_setup_buddy_ports() - bridge link set dev eth1 backup_port eth2\n");

	// A single ring port has no backup.
	focal(1, 6, false);
	seq.clear();
	EXPECT_EQ(zalkv2_setup_buddy_ports(1, 1), 0);
	EXPECT_EQ(zalkv2_setup_buddy_ports(1, 0), 0);
	EXPECT_TRUE(seq.empty());
}

TEST_F(Backup, FirstFailureEndsTheOperation)
{
	focal(0, 5, true);
	cmd_result = [](const std::vector<std::string> &) { return 3; };
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 1), 3);
	EXPECT_EQ(seq, (Seq{"bridge link set dev eth1 backup_port eth2"}));
	EXPECT_EQ(fake::log_texts(LOG_ERR), (Seq{"Could not add buddy port for ring port eth1\n"}));

	seq.clear();
	fake::clear_records();
	cmd_result = [](const std::vector<std::string> &v) { return v[4] == "eth2" ? 4 : 0; };
	EXPECT_EQ(zalkv2_setup_buddy_ports(0, 0), 4);
	EXPECT_EQ(seq.size(), 2u);
	EXPECT_EQ(fake::log_texts(LOG_ERR), (Seq{"Could not add buddy port for ring port eth2\n"}));

	// The tool itself missing is a failure with a status of its own.
	seq.clear();
	cmd_result = [](const std::vector<std::string> &) { return -1; };
	EXPECT_NE(zalkv2_setup_buddy_ports(0, 1), 0);
	EXPECT_EQ(seq.size(), 1u);
}

TEST(BaseMac, ParsedFromThePlatformFileOrZero)
{
	fake::reset();
	uint8_t mac[6];
	fake::write_file("/var/run/system/0/mac-base", "00:1A:2b:3c:4D:5e\n");
	memset(mac, 0xee, 6);
	EXPECT_EQ(zalkv2_read_base_mac(mac), mac);
	EXPECT_EQ(mac_text(mac), "00:1a:2b:3c:4d:5e");

	std::remove((fake::root() + "/var/run/system/0/mac-base").c_str());
	memset(mac, 0xee, 6);
	zalkv2_read_base_mac(mac);
	EXPECT_EQ(mac_text(mac), "00:00:00:00:00:00");

	// Bytes the text does not give keep what the buffer held.
	fake::write_file("/var/run/system/0/mac-base", "12:34:zz\n");
	memset(mac, 0xee, 6);
	zalkv2_read_base_mac(mac);
	EXPECT_EQ(mac_text(mac), "12:34:ee:ee:ee:ee");
}

} // namespace
