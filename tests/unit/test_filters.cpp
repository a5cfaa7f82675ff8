// Drop filters: the exact tc command texts, the priority list, and the
// sets of rings blocked.
#include <set>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

class Filters : public Unit {
protected:
	void SetUp() override
	{
		Unit::SetUp();
		const uint8_t m[6] = {2, 0, 0, 0, 0, 0x13};
		fake::add_iface("eth3", 13, m);
	}
	const uint8_t g1[6] = {3, 0x4b, 0xa1, 1, 5, 1}, g2[6] = {3, 0x4b, 0xa1, 1, 5, 2}, g3[6] = {3, 0x4b, 0xa1, 1, 5, 3};
};
std::string dbg(const std::string &cmd) { return "zalkv2_tc_write_filter() - " + cmd + "\n\n"; }

TEST_F(Filters, OwnGroupFiltersHaveExactTextAndPrioritiesSharedByAllPorts)
{
	fake::set_debug(ZALK_DBG);
	make_ring(0, RING_TYPE_FOCAL, 5);
	EXPECT_EQ(zalkv2_block_ring_macs(0, 11, 1), 0);
	EXPECT_EQ(notices(), (Lines{dbg("tc filter add dev eth1 ingress protocol all prio 321 flower skip_hw dst_mac 03:4b:a1:01:05:01  action drop"),
				    dbg("tc filter add dev eth1 ingress protocol all prio 322 flower skip_hw dst_mac 03:4b:a1:01:05:02  action drop"),
				    dbg("tc filter add dev eth1 ingress protocol all prio 323 flower skip_hw dst_mac 03:4b:a1:01:05:03  action drop")}));
	// The empty VLAN word never reaches tc as an empty argument.
	EXPECT_EQ(fake::argvs.at(0), (Lines{"tc", "filter", "add", "dev", "eth1", "ingress", "protocol", "all", "prio", "321", "flower",
					    "skip_hw", "dst_mac", "03:4b:a1:01:05:01", "action", "drop"}));
	clear();
	EXPECT_EQ(zalkv2_block_ring_macs(0, 12, 1), 0); // port B continues the numbering
	EXPECT_EQ(fake::argvs.at(0)[9] + fake::argvs.at(2)[9], "324326");
	make_ring(1, RING_TYPE_MEMBER, 7, false); // a member drops only group address 1; a missing port nothing
	clear();
	EXPECT_EQ(zalkv2_block_ring_macs(1, 21, 1) + zalkv2_block_ring_macs(1, -1, 1), 0);
	EXPECT_EQ(fake::commands, Lines{"tc filter add dev eth11 ingress protocol all prio 327 flower skip_hw dst_mac 03:4b:a1:01:07:01 action drop"});
	EXPECT_TRUE(errors().empty());
}

TEST_F(Filters, VersionZeroFiltersOnEveryConfiguredPort)
{
	fake::set_debug(ZALK_DBG);
	make_ring(0, RING_TYPE_FOCAL, 5, false);
	zalkv2_block_v0_macs(1);
	EXPECT_EQ(notices(), (Lines{dbg("tc filter add dev eth1 ingress protocol 802.1Q prio 300 flower  dst_mac 01:00:5e:05:0a:02 vlan_id 4021 action drop"),
				    dbg("tc filter add dev eth1 ingress protocol 802.1Q prio 301 flower  dst_mac 01:00:5e:05:0a:09 vlan_id 4021 action drop"),
				    dbg("tc filter add dev eth1 ingress protocol 802.1Q prio 302 flower  dst_mac 01:00:5e:05:0a:0a vlan_id 4021 action drop")}));
	// Fixed priorities, outside the list: removal uses the same numbers,
	// every failure is reported, with one summary at the end.
	make_ring(1, RING_TYPE_MEMBER, 6);
	clear();
	fake::spawn_hook = [](const Lines &argv) { return argv[4] == "eth12" ? 2 : 0; };
	zalkv2_block_v0_macs(0);
	ASSERT_EQ(fake::commands.size(), 9u);
	EXPECT_EQ(fake::commands[8], "tc filter del dev eth12 ingress protocol 802.1Q prio 302 flower dst_mac 01:00:5e:05:0a:0a vlan_id 4021 action drop");
	EXPECT_EQ(errors(), (Lines{"System fail del port eth12 mac 01:00:5e:05:0a:02 loc 300\n\n", "System fail del port eth12 mac 01:00:5e:05:0a:09 loc 301\n\n",
				   "System fail del port eth12 mac 01:00:5e:05:0a:0a loc 302\n\n", "Block zalkv0 macs failed\n\n"}));
}

TEST_F(Filters, PrioritiesAreReusedLowestFirst)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	for (auto g : {g1, g2, g3})
		ASSERT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g, 1, 1, 0), 0);
	clear();
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g2, 0, 1, 0), 0);
	EXPECT_EQ(fake::commands, Lines{"tc filter del dev eth1 ingress protocol all prio 322 flower skip_hw dst_mac 03:4b:a1:01:05:02 action drop"});
	EXPECT_EQ(tc_entry_find(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:05:02"), nullptr);
	// The gap is filled first, then numbering continues after the highest.
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 12, "03:4b:a1:01:05:04"), 322);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, "03:4b:a1:01:05:04"), 324);
	EXPECT_EQ(tc_entry_del(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:05:01"), 321);
	EXPECT_EQ(tc_entry_del(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:05:03"), 323);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "a"), 321);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "b"), 323);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "c"), 325);
	tc_list_create(); // a fresh list starts over at 321
	EXPECT_EQ(tc_entry_find(TC_LOW_PRIO, 1, 13, "a"), nullptr);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "c"), 321);
}

TEST_F(Filters, DuplicatesUnknownEntriesAndFailedCommands)
{
	make_ring(0, RING_TYPE_FOCAL, 5);
	ASSERT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g1, 1, 1, 0), 0);
	clear();
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g1, 1, 1, 0), 1);
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 12, "all", g1, 0, 1, 0), 1);
	EXPECT_EQ(errors(), (Lines{"ADD: Entry exists prio 1 id 1 ifdx:11 03:4b:a1:01:05:01\n\n",
				   "Fail alloc prio TC_LOW_PRIO add ifx 11 mac 03:4b:a1:01:05:01 loc -1\n\n",
				   "DEL: Entry do not exists prio 1 id 1 ifx 12 03:4b:a1:01:05:01\n\n",
				   "Fail alloc prio TC_LOW_PRIO del ifx 12 mac 03:4b:a1:01:05:01 loc -1\n\n"}));
	EXPECT_TRUE(fake::commands.empty());
	// The same address under another id is a different filter.
	EXPECT_EQ(zalkv2_tc_mac_filter(2, 11, "802.1Q", g1, 1, 0, 4021), 0);
	EXPECT_EQ(fake::commands.back(), "tc filter add dev eth1 ingress protocol 802.1Q prio 322 flower dst_mac 03:4b:a1:01:05:01 vlan_id 4021 action drop");

	// A failed add keeps its entry, a failed delete drops it.
	clear();
	fake::spawn_hook = [](const Lines &) { return 2; };
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 12, "all", g2, 1, 1, 0), 1);
	EXPECT_EQ(errors(), Lines{"System fail add port eth2 mac 03:4b:a1:01:05:02 loc 323\n\n"});
	EXPECT_NE(tc_entry_find(TC_LOW_PRIO, 1, 12, "03:4b:a1:01:05:02"), nullptr);
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g1, 0, 1, 0), 1);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 12, "x"), 321);
	// A tool that cannot be started at all is a failure too, and the log says it never ran.
	clear();
	fake::spawn_hook = [](const Lines &) { return -1; };
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 13, "all", g3, 1, 1, 0), 1);
	ASSERT_EQ(errors().size(), 2u);
	EXPECT_EQ(errors()[0].rfind("Could not start command tc filter add dev eth3 ", 0), 0u) << errors()[0];
	EXPECT_NE(errors()[0].find("No such file or directory"), std::string::npos);
	EXPECT_EQ(errors()[1], "System fail add port eth3 mac 03:4b:a1:01:05:03 loc 324\n\n");
	clear(); // a port that vanished gets no command with its device word missing
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 99, "all", g1, 1, 1, 0), 1);
	EXPECT_TRUE(fake::commands.empty());
	EXPECT_EQ(errors().size(), 1u);
}

TEST_F(Filters, UnconfiguredRingIdsAreBlockedOnEveryRingPort)
{
	make_ring(0, RING_TYPE_FOCAL, 1);
	make_ring(3, RING_TYPE_MEMBER, 2, false);
	make_ring(5, RING_TYPE_MEMBER, 4, false);
	instances[5].enabled = 0; // a free slot blocks nothing and leaves ring 4 unconfigured
	zalkv2_block_unconfigured_rings(1);
	ASSERT_EQ(fake::argvs.size(), 18u * 3 * 2);
	const char *const port_order[6] = {"eth1", "eth1", "eth2", "eth2", "eth31", "eth31"};
	std::string ring_ids;
	for (size_t i = 0; i < fake::argvs.size(); i++) {
		const auto &v = fake::argvs[i];
		ASSERT_EQ(v.size(), 17u);
		EXPECT_EQ(v[2] + v[4] + v[9], std::string("add") + port_order[i % 6] + std::to_string(321 + i));
		EXPECT_EQ(v[12].substr(0, 12) + v[12].substr(14), std::string("03:4b:a1:01::0") + (i % 2 ? "2" : "1"));
		if (i % 6 == 0)
			ring_ids += std::to_string(std::stoi(v[12].substr(12, 2), nullptr, 16)) + " ";
	}
	EXPECT_EQ(ring_ids, "3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 ");
	EXPECT_EQ(fake::commands[0], "tc filter add dev eth1 ingress protocol 802.1Q prio 321 flower dst_mac 03:4b:a1:01:03:01 vlan_id 4021 action drop");
	// Removal with the same set of rings frees every priority it took.
	clear();
	zalkv2_block_unconfigured_rings(0);
	std::set<std::string> del_prios;
	for (auto &v : fake::argvs)
		del_prios.insert(v[2] + v[9]);
	EXPECT_EQ(del_prios.size(), 108u);
	EXPECT_EQ(del_prios.begin()->substr(0, 3), "del");
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "x"), 321);
	// A failing port is reported once per ring id.
	clear();
	fake::spawn_hook = [](const Lines &v) { return v[4] == "eth2" ? 1 : 0; };
	zalkv2_block_foreign_ring(7, 1);
	EXPECT_EQ(fake::commands.size(), 6u);
	ASSERT_EQ(errors().size(), 3u);
	EXPECT_EQ(errors()[2], "Could not block mac addresses for unconfigured ring id\n\n");
}

TEST_F(Filters, FullTableRefusesThenRecovers)
{
	// Ten rings, two ports each, three own filters and two for each of twenty other ring ids.
	constexpr int capacity = 10 * 2 * (3 + 2 * 20);
	char mac[32];
	for (int i = 0; i < capacity; i++) {
		snprintf(mac, sizeof(mac), "m%d", i);
		ASSERT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, mac), 321 + i);
	}
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, "one more"), -1);
	EXPECT_EQ(errors(), Lines{"Filter table full (860 entries), cannot add prio 1 id 2 ifdx:11 one more\n\n"});
	EXPECT_EQ(tc_entry_del(TC_LOW_PRIO, 2, 11, "m500"), 821);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, "one more"), 821);
}

} // namespace
