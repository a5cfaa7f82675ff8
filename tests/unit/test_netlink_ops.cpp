// Bridge requests as they leave for the kernel, byte for byte; the
// attribute builders and parser; the MAC query.
#include <cerrno>
#include <linux/if_bridge.h>

#include "tests/fakes/fixture.h"

using namespace fx;

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

class BridgeOps : public Unit {
protected:
	void ring(uint32_t role, int ring_id, bool with_b)
	{
		make_ring(0, role, ring_id, with_b);
		clear();
	}
};

TEST_F(BridgeOps, PortStateAndFlushRequests)
{
	ring(RING_TYPE_MEMBER, 3, true);
	zalkv2_port &port = instances[0].port[PORT_A];
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_BLOCKING), 0);
	EXPECT_EQ(zalkv2_set_mst_port_state(9, 4021, PORT_FORWARDING), 0);
	EXPECT_EQ(zalkv2_fdb_flush(0), 0);
	// PROTINFO flagged nested (0x800c) > BRPORT_STATE u8.
	EXPECT_REQUEST(0, nlmsg(19, 1, 1, ifinfo(11), attr(0x800c, attr(1, {4}))));
	// AF_SPEC (26) > MST (6) > MST_ENTRY, the only one flagged nested > MSTI u16, STATE u8.
	EXPECT_REQUEST(1, nlmsg(19, 1, 2, ifinfo(9), attr(26, attr(6, attr(0x8001, cat({attr(1, u16(4021)), attr(2, {3})}))))));
	const Bytes flush = attr(0x800c, attr(24, {})); // BRPORT_FLUSH: a flag without payload
	EXPECT_REQUEST(2, nlmsg(19, 1, 3, ifinfo(11), flush));
	EXPECT_REQUEST(3, nlmsg(19, 1, 4, ifinfo(12), flush));

	for (int refused : {11, 12}) { // flushing stops at the first refusal
		clear();
		fake::talk_hook = [refused](const nlmsghdr *n) { return ((const ifinfomsg *)NLMSG_DATA(n))->ifi_index == refused ? -ENODEV : 0; };
		EXPECT_EQ(zalkv2_fdb_flush(0), -1);
		EXPECT_EQ(fake::netlink.size(), refused == 11 ? 1u : 2u);
	}
	fake::talk_hook = [](const nlmsghdr *) { return -EBUSY; };
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_FORWARDING), -EBUSY);
	EXPECT_EQ(zalkv2_set_mst_port_state(9, 4021, PORT_BLOCKING), -EBUSY);

	clear(); // unconfigured ports: nothing sent, nothing logged, success
	fake::set_debug(0xff);
	port.ifindex = -1;
	const uint8_t g[6] = {};
	EXPECT_EQ(zalkv2_set_port_state(&port, PORT_BLOCKING) + zalkv2_set_mst_port_state(-1, 4021, PORT_BLOCKING) +
			  zalkv2_bridge_vlan(-1, 4021, 1, 1) + zalkv2_mdb_entry(2, -1, g, 4021, 1),
		  0);
	EXPECT_TRUE(fake::netlink.empty() && fake::logs.empty());
}

TEST_F(BridgeOps, DebugLinesAndTheFdbCommand)
{
	ring(RING_TYPE_MEMBER, 3, true);
	zalkv2_port &port = instances[0].port[PORT_A];
	const uint8_t mac[6] = {0xAB, 0xCD, 0xEF, 0x0A, 0x0B, 0x0C};
	zalkv2_set_port_state(&port, PORT_BLOCKING);
	EXPECT_TRUE(fake::logs.empty()); // DBG clear
	fake::set_debug(ZALK_DBG);
	zalkv2_set_port_state(&port, PORT_BLOCKING);
	zalkv2_set_mst_port_state(11, 4021, PORT_FORWARDING);
	snprintf(port.name, 16, "eth9"); // an index the system no longer knows: the configured name, or the number
	port.ifindex = 99;
	zalkv2_set_port_state(&port, PORT_FORWARDING);
	zalkv2_set_mst_port_state(99, 4021, 9);
	fake::spawn_hook = [](const Lines &) { return 255; };
	EXPECT_EQ(zalkv2_fdb_remove("eth2", mac, 4022), 255);
	EXPECT_EQ(notices(), (Lines{"zalkv2_set_port_state() - eth1 : BLOCKING\n\n", "zalkv2_set_mst_port_state() - eth1 : FORWARDING\n\n",
				    "zalkv2_set_port_state() - eth9 : FORWARDING\n\n", "zalkv2_set_mst_port_state() - #99 : Invalid state\n\n",
				    "zalkv2_fdb_remove() - zalkv2_fdb_remove - bridge fdb del ab:cd:ef:0a:0b:0c dev eth2 master vlan 4022\n\n"}));
	EXPECT_EQ(fake::commands, Lines{"bridge fdb del ab:cd:ef:0a:0b:0c dev eth2 master vlan 4022"});
	EXPECT_EQ(fake::argvs.at(0).size(), 9u); // an argument vector, no shell
}

TEST_F(BridgeOps, VlanRequests)
{
	EXPECT_EQ(zalkv2_bridge_vlan(11, 4021, 1, 1), 0);
	EXPECT_EQ(zalkv2_bridge_vlan(2, 4022, 0, 0), 0);
	EXPECT_EQ(zalkv2_vlan_global_opt(2, 4021, BRIDGE_VLANDB_GOPTS_MCAST_SNOOPING, 1), 0);
	EXPECT_EQ(zalkv2_vlan_global_opt(2, 4022, BRIDGE_VLANDB_GOPTS_MCAST_QUERIER, 0), 0);
	EXPECT_EQ(zalkv2_vlan_set_msti(2), 0);
	// AF_SPEC not flagged > BRIDGE_FLAGS u16 master 1 / self 2, VLAN_INFO {flags 0, vid}.
	EXPECT_REQUEST(0, nlmsg(19, 1, 1, ifinfo(11), attr(26, cat({attr(0, u16(1)), attr(2, cat({u16(0), u16(4021)}))}))));
	EXPECT_REQUEST(1, nlmsg(17, 1, 2, ifinfo(2), attr(26, cat({attr(0, u16(2)), attr(2, cat({u16(0), u16(4022)}))}))));
	// RTM_NEWVLAN (112): GLOBAL_OPTIONS flagged nested (0x8002) > ID u16, option u8 / MSTI (18) u16.
	EXPECT_REQUEST(2, nlmsg(112, 1, 3, bridge_msg(2), attr(0x8002, cat({attr(1, u16(4021)), attr(3, {1})}))));
	EXPECT_REQUEST(3, nlmsg(112, 1, 4, bridge_msg(2), attr(0x8002, cat({attr(1, u16(4022)), attr(15, {0})}))));
	EXPECT_REQUEST(4, nlmsg(112, 1, 5, bridge_msg(2), attr(0x8002, cat({attr(1, u16(4021)), attr(18, u16(4021))}))));
	fake::talk_hook = [](const nlmsghdr *) { return -EOPNOTSUPP; };
	EXPECT_EQ(zalkv2_bridge_vlan(11, 4021, 1, 1), -EOPNOTSUPP);
	EXPECT_EQ(zalkv2_vlan_global_opt(2, 4021, BRIDGE_VLANDB_GOPTS_MCAST_SNOOPING, 1), -EOPNOTSUPP);
	EXPECT_EQ(zalkv2_vlan_set_msti(2), -EOPNOTSUPP);
}

TEST_F(BridgeOps, MulticastEntries)
{
	ring(RING_TYPE_MEMBER, 5, true);
	EXPECT_EQ(zalkv2_setup_mdb(0, 11, 1), 0);
	ASSERT_EQ(fake::netlink.size(), 7u);
	// Adding: NEWMDB with CREATE|EXCL, permanent; the bridge's own four first.
	const int want[7][3] = {{2, 4021, 1}, {2, 4021, 2}, {2, 4022, 3}, {2, 4022, 4}, {11, 4021, 2}, {11, 4022, 3}, {11, 4022, 4}};
	for (int i = 0; i < 7; i++)
		EXPECT_REQUEST(i, nlmsg(84, 0x601, uint32_t(i + 1), bridge_msg(2), mdb_entry(want[i][0], 1, uint16_t(want[i][1]), 5, want[i][2])));
	clear(); // removing from port B of the member: its own three, state 0, request flag only
	EXPECT_EQ(zalkv2_setup_mdb(0, 12, 0), 0);
	ASSERT_EQ(fake::netlink.size(), 3u);
	EXPECT_REQUEST(2, nlmsg(85, 1, 10, bridge_msg(2), mdb_entry(12, 0, 4022, 5, 4)));
	clear(); // a focal point's port B gets group 4 only; the low byte of the ring id counts
	instances[0].role = RING_TYPE_FOCAL;
	instances[0].ring_id = 0x103;
	EXPECT_EQ(zalkv2_setup_mdb(0, 12, 1), 0);
	EXPECT_EQ(zalkv2_setup_mdb(0, -1, 1), 0);
	ASSERT_EQ(fake::netlink.size(), 1u);
	EXPECT_REQUEST(0, nlmsg(84, 0x601, 11, bridge_msg(2), mdb_entry(12, 1, 4022, 3, 4)));
	fake::talk_hook = [](const nlmsghdr *) { return -EEXIST; }; // each refused entry counts -1
	instances[0].role = RING_TYPE_MEMBER;
	EXPECT_EQ(zalkv2_setup_mdb(0, 11, 1), -7);
}

TEST_F(BridgeOps, AttributeBuildersParserAndMacQuery)
{
	struct {
		nlmsghdr n;
		ifinfomsg i;
		char buf[64];
	} req{};
	req.n.nlmsg_len = 32;
	uint8_t data[40] = {};
	EXPECT_EQ(addattr_l(&req.n, 75, 5, data, sizeof(data)), -1); // needs 76
	EXPECT_EQ(req.n.nlmsg_len, 32u);
	EXPECT_EQ(errors(), Lines{"addattr_l ERROR: message exceeded bound of 75\n"});
	EXPECT_EQ(addattr_l(&req.n, 76, 5, data, sizeof(data)), 0);
	EXPECT_EQ(addattr_nest(&req.n, 79, 1), nullptr); // no room: closing it is harmless
	EXPECT_EQ(addattr_nest_end(&req.n, nullptr), 76);

	Bytes buf = cat({attr(0x8003, attr(1, {7})), attr(1, {0xaa}), attr(1, {0xbb}), attr(2, {}), attr(9, u32(1))});
	rtattr *tb[4];
	auto *first = reinterpret_cast<rtattr *>(buf.data());
	parse_rtattr_flags(tb, 3, first, int(buf.size()), NLA_F_NESTED);
	EXPECT_EQ(tb[3], first); // flag masked off the type
	EXPECT_EQ(*static_cast<uint8_t *>(RTA_DATA(tb[1])), 0xaa); // the first of a type wins
	EXPECT_EQ(tb[0], nullptr);
	parse_rtattr_flags(tb, 3, first, int(buf.size()) - 2, 0);
	EXPECT_EQ(tb[3], nullptr);
	EXPECT_EQ(fake::logs.back().text, "!!!Deficit 6, rta_len=8\n");

	const uint8_t mac[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0x0e};
	fake::add_iface("eth1", 11, mac);
	uint8_t out[6] = {9, 9, 9, 9, 9, 9};
	clear();
	EXPECT_EQ(if_get_mac(11, out), -1); // socket not open
	EXPECT_EQ(errors(), Lines{"Interface socket not initialized\n"});
	netsock = 5;
	EXPECT_EQ(if_get_mac(-1, out) + if_get_mac(77, out), 0); // gone: buffer kept
	EXPECT_EQ(hex(Bytes(out, out + 6)), "090909090909");
	fake::set_debug(ZALK_DBG);
	EXPECT_EQ(if_get_mac(11, out), 0);
	EXPECT_EQ(hex(Bytes(out, out + 6)), "02aabbccdd0e");
	EXPECT_EQ(notices(), Lines{"if_get_mac() - eth1(11) mac: 02:aa:bb:cc:dd:0e\n"});
}

} // namespace
