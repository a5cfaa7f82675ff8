// The bridge as the rings need it: every netlink request byte for byte,
// preparation and teardown in order, the drop filters and their priority
// list (a reconfiguration step's filters run as one tc batch whose
// failures read as when each command ran alone), and every command a ring
// runs.
#include <cerrno>
#include <linux/if_bridge.h>

#include "bridge/filters.h"
#include "daemon/commands.h"
#include "daemon/util.h"
#include "tests/fakes/fixture.h"

using namespace fx;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// An encoder of its own for the expected bytes (little-endian; attributes
// are length, type and a payload padded to 4 bytes).
Bytes cat(std::initializer_list<Bytes> parts)
{
	Bytes b;
	for (auto &p : parts)
		b.insert(b.end(), p.begin(), p.end());
	return b;
}
Bytes u16(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }
Bytes u32(uint32_t v) { return cat({u16(uint16_t(v)), u16(uint16_t(v >> 16))}); }
Bytes attr(uint16_t type, const Bytes &payload)
{
	Bytes b = cat({u16(uint16_t(4 + payload.size())), u16(type), payload});
	b.resize((b.size() + 3) & ~size_t(3));
	return b;
}
// rtnl_talk adds NLM_F_ACK (4) and numbers the requests from 1.
Bytes nlmsg(uint16_t type, uint16_t flags, uint32_t seq, const Bytes &fam, const Bytes &attrs)
{
	return cat({u32(uint32_t(16 + fam.size() + attrs.size())), u16(type), u16(flags | 4), u32(seq), u32(0), fam, attrs});
}
Bytes ifinfo(int32_t index) { return cat({{7, 0}, u16(0), u32(uint32_t(index)), u32(0), u32(0)}); }
Bytes bridge_msg(int32_t index) { return cat({{7, 0, 0, 0}, u32(uint32_t(index))}); }
// br_mdb_entry: ifindex, state, flags, vid, 16 address bytes, proto 0, padding.
Bytes mdb_entry(int32_t port, uint8_t state, uint16_t vid, int ring, int k)
{
	Bytes addr = {0x03, 0x4b, 0xa1, 0x01, uint8_t(ring), uint8_t(k)};
	addr.resize(16);
	return attr(1, cat({u32(uint32_t(port)), {state, 0}, u16(vid), addr, u32(0)}));
}
#define EXPECT_REQUEST(i, expected) EXPECT_EQ(hex(fake::netlink.at(i)), hex(expected))

using BridgeOps = Unit;

TEST_F(BridgeOps, PortStateFlushVlanAndMulticastRequests)
{
	make_ring(0, RING_TYPE_MEMBER, 5, true);
	clear();
	EXPECT_EQ(zalkv2_set_port_state(&instances[0].port[PORT_A], PORT_BLOCKING), 0);
	EXPECT_EQ(zalkv2_set_mst_port_state(9, 4021, PORT_FORWARDING), 0);
	EXPECT_EQ(zalkv2_fdb_flush(0), 0);
	EXPECT_EQ(zalkv2_bridge_vlan(11, 4021, 1, 1) + zalkv2_bridge_vlan(2, 4022, 0, 0), 0);
	EXPECT_EQ(zalkv2_vlan_global_opt(2, 4021, BRIDGE_VLANDB_GOPTS_MCAST_SNOOPING, 1) + zalkv2_vlan_set_msti(2), 0);
	// PROTINFO flagged nested (0x800c) > BRPORT_STATE u8.
	EXPECT_REQUEST(0, nlmsg(19, 1, 1, ifinfo(11), attr(0x800c, attr(1, {4}))));
	// AF_SPEC (26) > MST (6) > MST_ENTRY, the only one flagged nested > MSTI u16, STATE u8.
	EXPECT_REQUEST(1, nlmsg(19, 1, 2, ifinfo(9), attr(26, attr(6, attr(0x8001, cat({attr(1, u16(4021)), attr(2, {3})}))))));
	const Bytes flush = attr(0x800c, attr(24, {})); // BRPORT_FLUSH: a flag without payload
	EXPECT_REQUEST(2, nlmsg(19, 1, 3, ifinfo(11), flush));
	EXPECT_REQUEST(3, nlmsg(19, 1, 4, ifinfo(12), flush));
	// AF_SPEC not flagged > BRIDGE_FLAGS u16 master 1 / self 2, VLAN_INFO {flags 0, vid}.
	EXPECT_REQUEST(4, nlmsg(19, 1, 5, ifinfo(11), attr(26, cat({attr(0, u16(1)), attr(2, cat({u16(0), u16(4021)}))}))));
	EXPECT_REQUEST(5, nlmsg(17, 1, 6, ifinfo(2), attr(26, cat({attr(0, u16(2)), attr(2, cat({u16(0), u16(4022)}))}))));
	// RTM_NEWVLAN (112): GLOBAL_OPTIONS flagged nested (0x8002) > ID u16, option u8 / MSTI (18) u16.
	EXPECT_REQUEST(6, nlmsg(112, 1, 7, bridge_msg(2), attr(0x8002, cat({attr(1, u16(4021)), attr(3, {1})}))));
	EXPECT_REQUEST(7, nlmsg(112, 1, 8, bridge_msg(2), attr(0x8002, cat({attr(1, u16(4021)), attr(18, u16(4021))}))));

	// Multicast entries: NEWMDB with CREATE|EXCL, permanent; removal: DELMDB, state 0, request flag only.
	clear();
	EXPECT_EQ(zalkv2_setup_mdb(0, 11, 1) + zalkv2_setup_mdb(0, 12, 0), 0);
	ASSERT_EQ(fake::netlink.size(), 10u);
	EXPECT_REQUEST(0, nlmsg(84, 0x601, 9, bridge_msg(2), mdb_entry(2, 1, 4021, 5, 1)));
	EXPECT_REQUEST(9, nlmsg(85, 1, 18, bridge_msg(2), mdb_entry(12, 0, 4022, 5, 4)));
	clear(); // a focal point's port B gets group 4 only; the low byte of the ring id counts
	instances[0].role = RING_TYPE_FOCAL;
	instances[0].ring_id = 0x103;
	EXPECT_EQ(zalkv2_setup_mdb(0, 12, 1), 0);
	EXPECT_EQ(fake::netlink, std::vector<Bytes>{nlmsg(84, 0x601, 19, bridge_msg(2), mdb_entry(12, 1, 4022, 3, 4))});
}

TEST_F(BridgeOps, RefusalsAndDebugLines)
{
	make_ring(0, RING_TYPE_MEMBER, 5, true);
	zalkv2_port &port = instances[0].port[PORT_A];
	clear(); // flushing stops at the first refusal
	fake::talk_hook = [](const nlmsghdr *n) { return ((const ifinfomsg *)NLMSG_DATA(n))->ifi_index == 11 ? -ENODEV : 0; };
	EXPECT_EQ(zalkv2_fdb_flush(0), -1);
	EXPECT_EQ(fake::netlink.size(), 1u);
	fake::talk_hook = [](const nlmsghdr *) { return -EBUSY; };
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_FORWARDING) + zalkv2_vlan_set_msti(2), -2 * EBUSY);
	EXPECT_EQ(zalkv2_setup_mdb(0, 11, 1), -7); // each refused entry counts -1

	fake::set_debug(ZALK_DBG);
	fake::talk_hook = nullptr;
	snprintf(port.name, 16, "eth9"); // an index the system no longer knows: the configured name, or the number
	port.ifindex = 99;
	zalkv2_set_port_state(&port, PORT_FORWARDING);
	zalkv2_set_mst_port_state(99, 4021, 9);
	const uint8_t mac[6] = {0xAB, 0xCD, 0xEF, 0x0A, 0x0B, 0x0C};
	fake::spawn_hook = [](const Lines &) { return 255; };
	EXPECT_EQ(zalkv2_fdb_remove("eth2", mac, 4022), 255);
	EXPECT_EQ(notices(), (Lines{"zalkv2_set_port_state() - eth9 : FORWARDING\n\n",
				    "zalkv2_set_mst_port_state() - #99 : Invalid state\n\n",
				    "zalkv2_fdb_remove() - zalkv2_fdb_remove - bridge fdb del ab:cd:ef:0a:0b:0c dev eth2 master vlan 4022\n\n"}));
	EXPECT_EQ(fake::argvs, (std::vector<Lines>{{"bridge", "fdb", "del", "ab:cd:ef:0a:0b:0c", "dev", "eth2", "master", "vlan", "4022"}}));
	zalk_command many; // not cut short: refused whole, with its own reason
	EXPECT_EQ(many.fixed("a b c d e f g h i j k l m n o p q r s t u v w x y z 1 2 3 4 5 6").run(), 127);
	EXPECT_EQ(errors().back(), "Command has too many words, not run: a b c d e f g h i j k l m n o p q r s t u v w x y z 1 2 3 4 5 6\n");
}

TEST_F(BridgeOps, AttributeBuilderKeepsToTheBound)
{
	struct {
		nlmsghdr n;
		char buf[64];
	} req{{32, 0, 0, 0, 0}, {}};
	uint8_t data[40] = {};
	EXPECT_EQ(addattr_l(&req.n, 75, 5, data, sizeof(data)), -1); // needs 76
	EXPECT_EQ(errors(), Lines{"addattr_l ERROR: message exceeded bound of 75\n"});
	EXPECT_EQ(addattr_l(&req.n, 76, 5, data, sizeof(data)), 0);
	EXPECT_EQ(req.n.nlmsg_len, 76u);
}

class Prepare : public Unit {
protected:
	void SetUp() override
	{
		Unit::SetUp();
		const uint8_t mac[6] = {2, 0, 0, 0, 0, 2};
		fake::add_iface("br0", 2, mac);
		record_sequence();
		EXPECT_EQ(zalkv2_prepare_bridge(), 0);
		EXPECT_EQ(seq, (Lines{"vlan add 2 4021 self", "vlan add 2 4022 self"}));
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

TEST_F(Prepare, EveryStepRunsAfterFailures)
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

	// After a teardown both sockets are opened anew; when neither opens and the
	// kernel refuses both VLANs, every failure is reported.
	zalkv2_teardown();
	clear();
	fake::socket_fails = fake::rtnl_open_fails = true;
	talk = [](const nlmsghdr *) { return -95; };
	CaptureStderr();
	EXPECT_NE(zalkv2_prepare_bridge(), 0);
	EXPECT_EQ(GetCapturedStderr(), "Cannot open rtnetlink\n");
	EXPECT_EQ(errors(), (Lines{"netsock was not open!\n\n", "Can not initialaze socket socket\n", "Failed to initialize netlink socket\n",
				   "zalkv2_prepare_bridge - Failed\n\n"}));
}

TEST_F(Prepare, FocalPointInOrderTeardownKeepsBridgeVlansWhileUsedAndForeignQdiscs)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	auto teardown = [&]() {
		instances[0].enabled = 1;
		tc_list_create();
		seq.clear();
		EXPECT_EQ(prepare(0), "");
		EXPECT_EQ(seq, focal_prepare);
		EXPECT_TRUE(errors().empty());
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
	seq.clear();
	EXPECT_EQ(zalkv2_bridge_enable_mgnt_vlan(0), 0);
	EXPECT_EQ(seq, (Lines{"mst 11 4021 3", "mst 12 4021 3"}));

	// A clsact qdisc that was already there is not ours to remove; failed filter removals do not count.
	cmd = [](const Lines &v) { return v[1] == "qdisc" ? 2 : 0; };
	instances[4].enabled = 1;
	tc_list_create();
	EXPECT_EQ(prepare(0), "");
	seq.clear();
	cmd = [](const Lines &v) { return v[0] == "tc" ? 2 : 0; };
	EXPECT_EQ(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(seq, (Lines(focal_teardown.begin(), focal_teardown.begin() + 12) + Lines(focal_teardown.begin() + 14, focal_teardown.end())));
	talk = [](const nlmsghdr *n) { return n->nlmsg_type == RTM_DELLINK ? -2 : 0; };
	CaptureStderr();
	EXPECT_NE(zalkv2_teardown_bridge_on_instance(0), 0);
	EXPECT_EQ(GetCapturedStderr(), "zalkv2_teardown_bridge_on_instance - Instance 0 Failed\n");
}

// Every external command a ring runs, with a port name that holds blanks:
// each command keeps its word count and the name stays one argument.
TEST_F(Prepare, ANameWithBlanksIsOneArgumentOfEveryCommand)
{
	auto run_all = [this](const char *name) {
		TearDown();
		SetUp();
		make_ring(0, RING_TYPE_FOCAL, 5);
		snprintf(instances[0].port[PORT_A].name, sizeof(instances[0].port[PORT_A].name), "%s", name);
		fake::iface_by_index(11)->name = name;
		const uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
		fake::clear_records();
		zalkv2_prepare_bridge_on_instance(0);
		zalkv2_block_v0_macs(1);
		zalkv2_block_unconfigured_rings(1);
		zalkv2_fdb_remove(name, mac, ZALK_MGNT_VLAN);
		zalkv2_teardown_bridge_on_instance(0);
		return fake::argvs;
	};
	const auto plain = run_all("eth1");
	const auto odd = run_all("eth1 dev lo");
	ASSERT_EQ(odd.size(), plain.size());
	ASSERT_GT(plain.size(), 40u); // qdisc, filters, backup ports, FDB entries
	for (size_t i = 0; i < plain.size(); i++) {
		EXPECT_EQ(odd[i].size(), plain[i].size()) << fake::commands[i];
		for (size_t w = 0; w < plain[i].size(); w++)
			EXPECT_EQ(odd[i][w], plain[i][w] == "eth1" ? "eth1 dev lo" : plain[i][w]);
	}
}

TEST_F(BridgeOps, DropFilterPrioritiesAreReusedLowestFirstAndUnconfiguredRingIdsBlockedOnEveryRingPort)
{
	make_ring(0, RING_TYPE_FOCAL, 1);
	const uint8_t g2[6] = {3, 0x4b, 0xa1, 1, 5, 2};
	for (int k = 1; k <= 3; k++)
		ASSERT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, ("03:4b:a1:01:05:0" + std::to_string(k)).c_str()), 320 + k);
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g2, 0, 1, 0), 0);
	EXPECT_EQ(fake::commands, Lines{"tc filter del dev eth1 ingress protocol all prio 322 flower skip_hw dst_mac 03:4b:a1:01:05:02 action drop"});
	// The gap is filled first, then numbering continues after the highest; a fresh list starts over.
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 12, "x"), 322);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, "x"), 324);
	tc_list_create();
	clear();

	make_ring(3, RING_TYPE_MEMBER, 2, false);
	make_ring(5, RING_TYPE_MEMBER, 4, false);
	instances[5].enabled = 0; // a free slot blocks nothing and leaves ring 4 unconfigured
	zalkv2_block_unconfigured_rings(1);
	// Ring ids 3 to 20, each with groups 1 and 2 on ports eth1, eth2 and eth31 in turn.
	ASSERT_EQ(fake::commands.size(), 18u * 3 * 2);
	EXPECT_EQ(fake::commands[0], "tc filter add dev eth1 ingress protocol 802.1Q prio 321 flower dst_mac 03:4b:a1:01:03:01 vlan_id 4021 action drop");
	EXPECT_EQ(fake::commands[9], "tc filter add dev eth2 ingress protocol 802.1Q prio 330 flower dst_mac 03:4b:a1:01:04:02 vlan_id 4021 action drop");
	EXPECT_EQ(fake::commands[107], "tc filter add dev eth31 ingress protocol 802.1Q prio 428 flower dst_mac 03:4b:a1:01:14:02 vlan_id 4021 action drop");
	// Removal with the same set of rings frees every priority it took.
	clear();
	zalkv2_block_unconfigured_rings(0);
	EXPECT_EQ(fake::argvs.size(), 108u);
	EXPECT_EQ(fake::argvs.back()[2] + fake::argvs.back()[9], "del428");
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "x"), 321);
	// A failing port is reported once per ring id.
	clear();
	fake::spawn_hook = [](const Lines &v) { return v[4] == "eth2" ? 1 : 0; };
	zalkv2_block_foreign_ring(7, 1);
	EXPECT_EQ(fake::commands.size(), 6u);
	ASSERT_EQ(errors().size(), 3u);
	EXPECT_EQ(errors()[2], "Could not block mac addresses for unconfigured ring id\n\n");
}

TEST_F(BridgeOps, DropFiltersRunAsOneBatchWithFailuresReportedAsAlone)
{
	make_ring(0, RING_TYPE_MEMBER, 3);
	make_ring(1, RING_TYPE_FOCAL, 5, false);
	// Failing: a foreign ring's filter on eth1 and a version-0 one on the port named v0.
	auto fail_on = [](const char *v0) {
		fake::spawn_hook = [v0](const std::vector<std::string> &v) {
			const std::string line = join(v);
			return line.find("prio 322 ") != std::string::npos || line.find(std::string("dev ") + v0 + " ingress protocol 802.1Q prio 301") != std::string::npos;
		};
	};
	// The commands one at a time, then as the batch: the same commands and error lines in the same order.
	auto alone_then_batched = [this] {
		tc_list_create();
		zalkv2_block_unconfigured_rings(1);
		zalkv2_block_v0_macs(1);
		const Lines alone = errors(), commands = fake::commands;
		tc_list_create();
		clear();
		zalkv2_set_drop_filters(1);
		EXPECT_EQ(errors(), alone);
		EXPECT_EQ(fake::commands, commands);
		return alone;
	};
	fail_on("eth11");
	const Lines alone = alone_then_batched();
	ASSERT_EQ(fake::batches.size(), 1u);
	EXPECT_EQ(fake::batches[0].substr(0, fake::batches[0].find('\n', 20) + 1),
		  "tc -force -batch -\nfilter add dev eth1 ingress protocol 802.1Q prio 321 flower  dst_mac 03:4b:a1:01:01:01 vlan_id 4021 action drop\n");
	EXPECT_EQ(count_of(fake::batches[0], "\n"), 1 + (18 * 2 * 3 + 3 * 3));
	EXPECT_EQ(alone, (Lines{"System fail add port eth1 mac 03:4b:a1:01:01:02 loc 322\n\n",
				"Could not block mac addresses for unconfigured ring id\n\n",
				"System fail add port eth11 mac 01:00:5e:05:0a:09 loc 301\n\n", "Block zalkv0 macs failed\n\n"}));

	// Removal and installation in one process read as the two steps did.
	clear();
	zalkv2_set_drop_filters(0);
	zalkv2_set_drop_filters(1);
	const Lines two_errors = errors(), two_commands = fake::commands;
	const std::string eth1 = instances[0].port[0].name;
	for (int c : {0, 1, 2}) { // a command run alone (a name tc's batch cannot carry), a debug line, neither
		strcpy(instances[0].port[0].name, c == 0 ? "e#1" : eth1.c_str());
		fake::write_file("/var/run/zalkv2/debug", c == 1 ? "2" : "0");
		clear();
		zalkv2_refresh_drop_filters();
		// A removal that said or ran something runs alone (a command run alone splits its step too).
		EXPECT_EQ(fake::batches.size(), c == 0 ? 4u : c == 1 ? 2u : 1u);
		EXPECT_TRUE(c == 0 || fake::commands == two_commands);
		EXPECT_EQ(errors(), two_errors);
	}

	// A tc that dies: the lines before the last one it reported are done.
	fake::spawn_hook = [](const std::vector<std::string> &v) {
		const std::string line = join(v);
		return line.find("prio 322 ") != std::string::npos ? 1 : line.find("prio 330 ") != std::string::npos ? 256 + 9 : 0;
	};
	tc_list_create();
	clear();
	zalkv2_set_drop_filters(1);
	EXPECT_EQ(errors().at(0), "System fail add port eth1 mac 03:4b:a1:01:01:02 loc 322\n\n");

	// A command that cannot join the batch runs in its place, after the
	// queued ones, whose failures are reported first, as they are before
	// any other error line.
	strcpy(instances[1].port[0].name, "e#11");
	std::erase_if(fake::ifaces, [](const fake::Iface &i) { return i.name == "eth2"; }); // its filters fail before tc
	fail_on("e#11");
	clear();
	alone_then_batched();
}

} // namespace
