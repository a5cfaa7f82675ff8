// Drop filters: the exact tc command texts, the priority list, and the
// sets of rings blocked.
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

#include "bridge/filters.h"
#include "daemon/instance.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace {

const uint8_t mac_a[6] = {0x02, 0, 0, 0, 0, 0x11};
const uint8_t mac_b[6] = {0x02, 0, 0, 0, 0, 0x12};
const uint8_t mac_c[6] = {0x02, 0, 0, 0, 0, 0x13};

void set_port(int ins, int p, const char *name, int ifindex)
{
	zalkv2_port &port = instances[ins].port[p];
	snprintf(port.name, sizeof(port.name), "%s", name);
	port.ifindex = ifindex;
	port.port_index = p;
	port.instance = &instances[ins];
}

void set_instance(int ins, int ring_id, uint32_t role, const char *a, int ia, const char *b, int ib)
{
	zalkv2_instance &in = instances[ins];
	in.index = ins;
	in.ring_id = ring_id;
	in.role = role;
	set_port(ins, PORT_A, a, ia);
	set_port(ins, PORT_B, b, ib);
	in.enabled = 1;
}

std::string dbg_line(const std::string &cmd) { return "zalkv2_tc_write_filter() - " + cmd + "\n\n"; }

class Filters : public ::testing::Test {
protected:
	void SetUp() override
	{
		fake::reset();
		memset(instances, 0, sizeof(instances));
		for (auto &in : instances)
			in.port[0].ifindex = in.port[1].ifindex = -1;
		tc_list_create();
		fake::add_iface("eth1", 11, mac_a);
		fake::add_iface("eth2", 12, mac_b);
		fake::add_iface("eth3", 13, mac_c);
	}
};

TEST_F(Filters, FocalOwnGroupFiltersHaveExactTextAndRisingPrios)
{
	fake::set_debug(ZALK_DBG);
	set_instance(0, 5, RING_TYPE_FOCAL, "eth1", 11, "eth2", 12);

	EXPECT_EQ(zalkv2_block_ring_macs(0, 11, 1), 0);

	std::vector<std::string> expect = {
		dbg_line("tc filter add dev eth1 ingress protocol all prio 321 flower skip_hw dst_mac 03:4b:a1:01:05:01  action drop"),
		dbg_line("tc filter add dev eth1 ingress protocol all prio 322 flower skip_hw dst_mac 03:4b:a1:01:05:02  action drop"),
		dbg_line("tc filter add dev eth1 ingress protocol all prio 323 flower skip_hw dst_mac 03:4b:a1:01:05:03  action drop"),
	};
	EXPECT_EQ(fake::log_texts(LOG_NOTICE), expect);
	// The empty VLAN word must not reach tc as an empty argument.
	ASSERT_EQ(fake::argvs.size(), 3u);
	EXPECT_EQ(fake::argvs[0],
		  (std::vector<std::string>{"tc", "filter", "add", "dev", "eth1", "ingress", "protocol", "all", "prio",
					    "321", "flower", "skip_hw", "dst_mac", "03:4b:a1:01:05:01", "action", "drop"}));
	EXPECT_TRUE(fake::log_texts(LOG_ERR).empty());

	// Priorities are shared by all ports: port B continues the numbering.
	fake::clear_records();
	EXPECT_EQ(zalkv2_block_ring_macs(0, 12, 1), 0);
	ASSERT_EQ(fake::argvs.size(), 3u);
	EXPECT_EQ(fake::argvs[0][9], "324");
	EXPECT_EQ(fake::argvs[2][9], "326");

	// A member drops only group address 1; a missing port nothing at all.
	set_instance(1, 7, RING_TYPE_MEMBER, "eth3", 13, "", -1);
	fake::clear_records();
	EXPECT_EQ(zalkv2_block_ring_macs(1, 13, 1), 0);
	EXPECT_EQ(fake::commands,
		  (std::vector<std::string>{"tc filter add dev eth3 ingress protocol all prio 327 flower skip_hw dst_mac 03:4b:a1:01:07:01 action drop"}));
	EXPECT_EQ(zalkv2_block_ring_macs(1, -1, 1), 0);
	EXPECT_EQ(fake::commands.size(), 1u);
}

TEST_F(Filters, VersionZeroFiltersOnEveryConfiguredPort)
{
	fake::set_debug(ZALK_DBG);
	set_instance(0, 5, RING_TYPE_FOCAL, "eth1", 11, "", -1);

	zalkv2_block_v0_macs(1);
	std::vector<std::string> expect = {
		dbg_line("tc filter add dev eth1 ingress protocol 802.1Q prio 300 flower  dst_mac 01:00:5e:05:0a:02 vlan_id 4021 action drop"),
		dbg_line("tc filter add dev eth1 ingress protocol 802.1Q prio 301 flower  dst_mac 01:00:5e:05:0a:09 vlan_id 4021 action drop"),
		dbg_line("tc filter add dev eth1 ingress protocol 802.1Q prio 302 flower  dst_mac 01:00:5e:05:0a:0a vlan_id 4021 action drop"),
	};
	EXPECT_EQ(fake::log_texts(LOG_NOTICE), expect);

	// Fixed priorities, outside the list: removal uses the same numbers
	// and every failure is reported, with one summary at the end.
	set_instance(1, 6, RING_TYPE_MEMBER, "eth2", 12, "eth3", 13);
	fake::clear_records();
	fake::spawn_hook = [](const std::vector<std::string> &argv) { return argv[4] == "eth3" ? 2 : 0; };
	zalkv2_block_v0_macs(0);
	ASSERT_EQ(fake::commands.size(), 9u);
	EXPECT_EQ(fake::commands[8],
		  "tc filter del dev eth3 ingress protocol 802.1Q prio 302 flower dst_mac 01:00:5e:05:0a:0a vlan_id 4021 action drop");
	std::vector<std::string> errs = {
		"System fail del port eth3 mac 01:00:5e:05:0a:02 loc 300\n\n",
		"System fail del port eth3 mac 01:00:5e:05:0a:09 loc 301\n\n",
		"System fail del port eth3 mac 01:00:5e:05:0a:0a loc 302\n\n",
		"Block zalkv0 macs failed\n\n",
	};
	EXPECT_EQ(fake::log_texts(LOG_ERR), errs);
}

TEST_F(Filters, PrioritiesAreReusedLowestFirst)
{
	const uint8_t g[4][6] = {{3, 0x4b, 0xa1, 1, 9, 1}, {3, 0x4b, 0xa1, 1, 9, 2}, {3, 0x4b, 0xa1, 1, 9, 3},
				 {3, 0x4b, 0xa1, 1, 9, 4}};
	for (int k = 0; k < 3; k++)
		ASSERT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g[k], 1, 1, 0), 0);

	fake::clear_records();
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g[1], 0, 1, 0), 0);
	EXPECT_EQ(fake::commands,
		  (std::vector<std::string>{"tc filter del dev eth1 ingress protocol all prio 322 flower skip_hw dst_mac 03:4b:a1:01:09:02 action drop"}));
	EXPECT_EQ(tc_entry_find(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:09:02"), nullptr);

	// The gap is filled first, then numbering continues after the highest.
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 12, "03:4b:a1:01:09:04"), 322);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, "03:4b:a1:01:09:04"), 324);
	EXPECT_EQ(tc_entry_del(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:09:01"), 321);
	EXPECT_EQ(tc_entry_del(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:09:03"), 323);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "a"), 321);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "b"), 323);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "c"), 325);

	// The list stays sorted and doubly linked.
	tc_entry *e = tc_entry_find(TC_LOW_PRIO, 1, 13, "a");
	ASSERT_NE(e, nullptr);
	ASSERT_NE(e->prev, nullptr);
	EXPECT_EQ(e->prev->prio, TC_PRIO_BASE);
	std::vector<int> prios;
	for (; e; e = e->next) {
		if (e->next) {
			EXPECT_EQ(e->next->prev, e);
		}
		prios.push_back(e->prio);
	}
	EXPECT_EQ(prios, (std::vector<int>{321, 322, 323, 324, 325}));

	// A fresh list starts over at 321.
	tc_list_create();
	EXPECT_EQ(tc_entry_find(TC_LOW_PRIO, 1, 13, "a"), nullptr);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 13, "c"), 321);
}

TEST_F(Filters, DuplicatesAndUnknownEntriesAreRefusedWithoutCommand)
{
	const uint8_t g1[6] = {3, 0x4b, 0xa1, 1, 5, 1};
	ASSERT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g1, 1, 1, 0), 0);
	fake::clear_records();

	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g1, 1, 1, 0), 1);
	EXPECT_EQ(fake::log_texts(LOG_ERR), (std::vector<std::string>{
		"ADD: Entry exists prio 1 id 1 ifdx:11 03:4b:a1:01:05:01\n\n",
		"Fail alloc prio TC_LOW_PRIO add ifx 11 mac 03:4b:a1:01:05:01 loc -1\n\n"}));
	EXPECT_TRUE(fake::commands.empty());

	// Same address under another id or on another port is a different filter.
	EXPECT_EQ(zalkv2_tc_mac_filter(2, 11, "802.1Q", g1, 1, 0, 4021), 0);
	EXPECT_EQ(fake::commands.back(),
		  "tc filter add dev eth1 ingress protocol 802.1Q prio 322 flower dst_mac 03:4b:a1:01:05:01 vlan_id 4021 action drop");

	fake::clear_records();
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 12, "all", g1, 0, 1, 0), 1);
	EXPECT_EQ(fake::log_texts(LOG_ERR), (std::vector<std::string>{
		"DEL: Entry do not exists prio 1 id 1 ifx 12 03:4b:a1:01:05:01\n\n",
		"Fail alloc prio TC_LOW_PRIO del ifx 12 mac 03:4b:a1:01:05:01 loc -1\n\n"}));
	EXPECT_TRUE(fake::commands.empty());

	// A port that vanished gets no command with a missing device word.
	fake::clear_records();
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 99, "all", g1, 1, 1, 0), 1);
	EXPECT_TRUE(fake::commands.empty());
	EXPECT_EQ(fake::log_texts(LOG_ERR).size(), 1u);
}

TEST_F(Filters, FailedCommandsKeepAddedAndDropDeletedEntries)
{
	const uint8_t g1[6] = {3, 0x4b, 0xa1, 1, 5, 1};
	const uint8_t g2[6] = {3, 0x4b, 0xa1, 1, 5, 2};
	fake::spawn_hook = [](const std::vector<std::string> &) { return 2; };

	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g1, 1, 1, 0), 1);
	EXPECT_EQ(fake::log_texts(LOG_ERR),
		  (std::vector<std::string>{"System fail add port eth1 mac 03:4b:a1:01:05:01 loc 321\n\n"}));
	ASSERT_NE(tc_entry_find(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:05:01"), nullptr);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:05:02"), 322);

	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g1, 0, 1, 0), 1);
	EXPECT_EQ(tc_entry_find(TC_LOW_PRIO, 1, 11, "03:4b:a1:01:05:01"), nullptr);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 12, "03:4b:a1:01:05:02"), 321);

	// A tool that cannot be started at all is a failure too, and the log
	// says it never ran.
	fake::clear_records();
	fake::spawn_hook = [](const std::vector<std::string> &) { return -1; };
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 13, "all", g2, 1, 1, 0), 1);
	auto errs = fake::log_texts(LOG_ERR);
	ASSERT_EQ(errs.size(), 2u);
	EXPECT_EQ(errs[0].rfind("Could not start command tc filter add dev eth3 ", 0), 0u) << errs[0];
	EXPECT_NE(errs[0].find("No such file or directory"), std::string::npos);
	EXPECT_EQ(errs[1], "System fail add port eth3 mac 03:4b:a1:01:05:02 loc 323\n\n");
}

TEST_F(Filters, UnconfiguredRingIdsAreBlockedOnEveryRingPort)
{
	set_instance(0, 1, RING_TYPE_FOCAL, "eth1", 11, "eth2", 12);
	set_instance(3, 2, RING_TYPE_MEMBER, "eth3", 13, "", -1);
	set_instance(5, 4, RING_TYPE_MEMBER, "eth9", 19, "", -1);
	instances[5].enabled = 0; // a free slot blocks nothing and leaves ring 4 unconfigured

	zalkv2_block_unconfigured_rings(1);

	ASSERT_EQ(fake::argvs.size(), 18u * 3 * 2);
	static const char *const port_order[6] = {"eth1", "eth1", "eth2", "eth2", "eth3", "eth3"};
	std::vector<int> ring_ids;
	for (size_t i = 0; i < fake::argvs.size(); i++) {
		const auto &v = fake::argvs[i];
		ASSERT_EQ(v.size(), 17u);
		EXPECT_EQ(v[2], "add");
		EXPECT_EQ(v[4], port_order[i % 6]);
		EXPECT_EQ(v[7], "802.1Q");
		EXPECT_EQ(v[9], std::to_string(321 + i));
		EXPECT_EQ(v[12].substr(0, 12), "03:4b:a1:01:");
		EXPECT_EQ(v[12].substr(15), i % 2 ? "02" : "01");
		EXPECT_EQ(v[13], "vlan_id");
		EXPECT_EQ(v[14], "4021");
		if (i % 6 == 0)
			ring_ids.push_back(std::stoi(v[12].substr(12, 2), nullptr, 16));
	}
	std::vector<int> expect_ids;
	for (int r = 3; r <= 20; r++)
		expect_ids.push_back(r);
	EXPECT_EQ(ring_ids, expect_ids);
	EXPECT_EQ(fake::commands[0],
		  "tc filter add dev eth1 ingress protocol 802.1Q prio 321 flower dst_mac 03:4b:a1:01:03:01 vlan_id 4021 action drop");

	// Removal with the same set of rings frees every priority it took.
	fake::clear_records();
	zalkv2_block_unconfigured_rings(0);
	ASSERT_EQ(fake::argvs.size(), 108u);
	std::set<std::string> del_prios;
	for (auto &v : fake::argvs) {
		EXPECT_EQ(v[2], "del");
		del_prios.insert(v[9]);
	}
	EXPECT_EQ(del_prios.size(), 108u);
	EXPECT_TRUE(fake::log_texts(LOG_ERR).empty());
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 1, 11, "x"), 321);

	// A failing port is reported once per ring id.
	fake::clear_records();
	fake::spawn_hook = [](const std::vector<std::string> &v) { return v[4] == "eth2" ? 1 : 0; };
	zalkv2_block_foreign_ring(7, 1);
	EXPECT_EQ(fake::commands.size(), 6u);
	auto errs = fake::log_texts(LOG_ERR);
	ASSERT_EQ(errs.size(), 3u);
	EXPECT_EQ(errs[2], "Could not block mac addresses for unconfigured ring id\n\n");
}

TEST_F(Filters, FullTableRefusesThenRecovers)
{
	// Ten rings, two ports each, three own filters and two for each of
	// twenty other ring ids: every one of them must fit.
	constexpr int capacity = 10 * 2 * (3 + 2 * 20);
	char mac[32];
	for (int i = 0; i < capacity; i++) {
		snprintf(mac, sizeof(mac), "m%d", i);
		ASSERT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, mac), 321 + i);
	}
	EXPECT_TRUE(fake::log_texts(LOG_ERR).empty());

	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, "one more"), -1);
	EXPECT_EQ(fake::log_texts(LOG_ERR),
		  (std::vector<std::string>{"Filter table full (860 entries), cannot add prio 1 id 2 ifdx:11 one more\n\n"}));

	const uint8_t g[6] = {3, 0x4b, 0xa1, 1, 5, 1};
	fake::clear_records();
	EXPECT_EQ(zalkv2_tc_mac_filter(1, 11, "all", g, 1, 1, 0), 1);
	EXPECT_TRUE(fake::commands.empty());

	EXPECT_EQ(tc_entry_del(TC_LOW_PRIO, 2, 11, "m500"), 821);
	EXPECT_EQ(tc_entry_add(TC_LOW_PRIO, 2, 11, "one more"), 821);
}

} // namespace
