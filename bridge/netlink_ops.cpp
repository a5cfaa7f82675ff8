// Requests to the Linux bridge br0: each operation is one rtnetlink
// request built on the stack and sent synchronously with an ack, except
// the FDB entry removal, which runs the bridge tool.
#include "bridge/netlink_ops.h"

#include <cstdio>
#include <cstring>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <net/if.h>

#include "daemon/os.h"
#include "daemon/commands.h"
#include "frames/frames.h"
#include "status/names.h"
#include "status/status.h"

struct rtnl_handle bridge_rth = {-1};

namespace {

// The netlink header, the family header and room for the attributes.
template <typename Family> struct bridge_req {
	struct nlmsghdr n;
	Family fam;
	char buf[1024];
};
static_assert(sizeof(bridge_req<struct ifinfomsg>) == 1056);
static_assert(sizeof(bridge_req<struct br_vlan_msg>) == 1048);
static_assert(sizeof(bridge_req<struct br_port_msg>) == 1048);
static_assert(sizeof(struct br_mdb_entry) == 28);

template <typename Family> void req_init(bridge_req<Family> &req, uint16_t type, uint16_t flags)
{
	memset(&req, 0, sizeof(req));
	req.n.nlmsg_len = NLMSG_LENGTH(sizeof(Family));
	req.n.nlmsg_type = type;
	req.n.nlmsg_flags = flags;
}

// Interface name for a log line; an index the kernel no longer knows is
// shown by its number so the line still says which port was meant.
const char *ifname_for_log(int ifindex, char name[IF_NAMESIZE])
{
	if (!os_if_indextoname((unsigned)ifindex, name))
		snprintf(name, IF_NAMESIZE, "#%d", ifindex);
	return name;
}

} // namespace

int zalkv2_set_port_state(zalkv2_port *port, uint32_t state)
{
	if (!zalkv2_port_configured(*port))
		return 0;
	if (zalk_debug(ZALK_DBG)) {
		char name[IF_NAMESIZE];
		if (!os_if_indextoname((unsigned)port->ifindex, name))
			snprintf(name, sizeof(name), "%s", port->name);
		zlog(LOG_NOTICE, "%s() - %s : %s\n\n", "zalkv2_set_port_state", name, zalk_port_state_name(state));
	}

	bridge_req<struct ifinfomsg> req;
	req_init(req, RTM_SETLINK, NLM_F_REQUEST);
	req.fam.ifi_family = AF_BRIDGE;
	req.fam.ifi_index = port->ifindex;
	struct rtattr *protinfo = addattr_nest(&req.n, sizeof(req), IFLA_PROTINFO | NLA_F_NESTED);
	addattr8(&req.n, sizeof(req), IFLA_BRPORT_STATE, (uint8_t)state);
	addattr_nest_end(&req.n, protinfo);
	return rtnl_talk(&bridge_rth, &req.n, nullptr);
}

int zalkv2_set_mst_port_state(int ifindex, uint16_t msti, uint8_t state)
{
	if (ifindex == -1)
		return 0;
	if (zalk_debug(ZALK_DBG)) {
		char name[IF_NAMESIZE];
		zlog(LOG_NOTICE, "%s() - %s : %s\n\n", "zalkv2_set_mst_port_state", ifname_for_log(ifindex, name),
		     zalk_port_state_name(state));
	}

	bridge_req<struct ifinfomsg> req;
	req_init(req, RTM_SETLINK, NLM_F_REQUEST);
	req.fam.ifi_family = AF_BRIDGE;
	req.fam.ifi_index = ifindex;
	struct rtattr *af = addattr_nest(&req.n, sizeof(req), IFLA_AF_SPEC);
	struct rtattr *mst = addattr_nest(&req.n, sizeof(req), IFLA_BRIDGE_MST);
	struct rtattr *entry = addattr_nest(&req.n, sizeof(req), IFLA_BRIDGE_MST_ENTRY | NLA_F_NESTED);
	addattr16(&req.n, sizeof(req), IFLA_BRIDGE_MST_ENTRY_MSTI, msti);
	addattr8(&req.n, sizeof(req), IFLA_BRIDGE_MST_ENTRY_STATE, state);
	addattr_nest_end(&req.n, entry);
	addattr_nest_end(&req.n, mst);
	addattr_nest_end(&req.n, af);
	return rtnl_talk(&bridge_rth, &req.n, nullptr);
}

int zalkv2_fdb_flush(int ins)
{
	zalkv2_instance &in = instances[ins];
	bridge_req<struct ifinfomsg> req;
	req_init(req, RTM_SETLINK, NLM_F_REQUEST);
	req.fam.ifi_family = AF_BRIDGE;
	struct rtattr *protinfo = addattr_nest(&req.n, sizeof(req), IFLA_PROTINFO | NLA_F_NESTED);
	addattr(&req.n, sizeof(req), IFLA_BRPORT_FLUSH);
	addattr_nest_end(&req.n, protinfo);

	// Port A always exists on a ring; its flush goes out unconditionally.
	req.fam.ifi_index = in.port[PORT_A].ifindex;
	if (rtnl_talk(&bridge_rth, &req.n, nullptr) < 0)
		return -1;
	if (!zalkv2_port_configured(in.port[PORT_B]))
		return 0;
	req.fam.ifi_index = in.port[PORT_B].ifindex;
	return rtnl_talk(&bridge_rth, &req.n, nullptr) < 0 ? -1 : 0;
}

int zalkv2_bridge_vlan(int ifindex, uint16_t vid, int master, int add)
{
	if (ifindex == -1)
		return 0;
	bridge_req<struct ifinfomsg> req;
	req_init(req, add ? RTM_SETLINK : RTM_DELLINK, NLM_F_REQUEST);
	req.fam.ifi_family = AF_BRIDGE;
	req.fam.ifi_index = ifindex;
	struct bridge_vlan_info vinfo = {};
	vinfo.vid = vid;
	struct rtattr *af = addattr_nest(&req.n, sizeof(req), IFLA_AF_SPEC);
	addattr16(&req.n, sizeof(req), IFLA_BRIDGE_FLAGS, master ? BRIDGE_FLAGS_MASTER : BRIDGE_FLAGS_SELF);
	addattr_l(&req.n, sizeof(req), IFLA_BRIDGE_VLAN_INFO, &vinfo, sizeof(vinfo));
	addattr_nest_end(&req.n, af);
	return rtnl_talk(&bridge_rth, &req.n, nullptr);
}

namespace {

// One global option of a bridge VLAN: the nest holds the VLAN id, then the
// option as an 8- or 16-bit value.
int vlan_global_request(int br_ifindex, uint16_t vid, int option, uint16_t value, bool wide)
{
	bridge_req<struct br_vlan_msg> req;
	req_init(req, RTM_NEWVLAN, NLM_F_REQUEST);
	req.fam.family = AF_BRIDGE;
	req.fam.ifindex = (uint32_t)br_ifindex;
	struct rtattr *opts = addattr_nest(&req.n, sizeof(req), BRIDGE_VLANDB_GLOBAL_OPTIONS | NLA_F_NESTED);
	addattr16(&req.n, sizeof(req), BRIDGE_VLANDB_GOPTS_ID, vid);
	if (wide)
		addattr16(&req.n, sizeof(req), option, value);
	else
		addattr8(&req.n, sizeof(req), option, (uint8_t)value);
	addattr_nest_end(&req.n, opts);
	return rtnl_talk(&bridge_rth, &req.n, nullptr);
}

} // namespace

int zalkv2_vlan_global_opt(int br_ifindex, uint16_t vid, int option, uint8_t value)
{
	return vlan_global_request(br_ifindex, vid, option, value, false);
}

int zalkv2_vlan_set_msti(int br_ifindex)
{
	return vlan_global_request(br_ifindex, ZALK_MGNT_VLAN, BRIDGE_VLANDB_GOPTS_MSTI, ZALK_MGNT_VLAN, true);
}

int zalkv2_mdb_entry(int br_ifindex, int port_ifindex, const uint8_t mac[6], uint16_t vid, int add)
{
	if (port_ifindex == -1)
		return 0;
	bridge_req<struct br_port_msg> req;
	if (add)
		req_init(req, RTM_NEWMDB, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_EXCL);
	else
		req_init(req, RTM_DELMDB, NLM_F_REQUEST);
	req.fam.family = AF_BRIDGE;
	req.fam.ifindex = (uint32_t)br_ifindex;
	struct br_mdb_entry entry;
	memset(&entry, 0, sizeof(entry)); // padding too: the entry goes out byte for byte
	entry.ifindex = (uint32_t)port_ifindex;
	entry.state = add ? MDB_PERMANENT : 0;
	entry.vid = vid;
	memcpy(entry.addr.u.mac_addr, mac, 6);
	addattr_l(&req.n, sizeof(req), MDBA_SET_ENTRY, &entry, sizeof(entry));
	return rtnl_talk(&bridge_rth, &req.n, nullptr) < 0 ? -1 : 0;
}

int zalkv2_setup_mdb(int ins, int port_ifindex, int add)
{
	const zalkv2_instance &in = instances[ins];
	const int br = in.bridge_ifindex;
	uint8_t g[5][6];
	for (int k = 1; k <= 4; k++)
		zalkv2_group_address(in.ring_id, k, g[k]);

	int ret = 0;
	// The bridge device's own entries are made once per ring, with port A.
	if (port_ifindex == in.port[PORT_A].ifindex) {
		ret += zalkv2_mdb_entry(br, br, g[1], ZALK_MGNT_VLAN, add);
		ret += zalkv2_mdb_entry(br, br, g[2], ZALK_MGNT_VLAN, add);
		ret += zalkv2_mdb_entry(br, br, g[3], ZALK_RING_VLAN, add);
		ret += zalkv2_mdb_entry(br, br, g[4], ZALK_RING_VLAN, add);
	}
	if (in.role == RING_TYPE_MEMBER) {
		ret += zalkv2_mdb_entry(br, port_ifindex, g[2], ZALK_MGNT_VLAN, add);
		ret += zalkv2_mdb_entry(br, port_ifindex, g[3], ZALK_RING_VLAN, add);
	}
	ret += zalkv2_mdb_entry(br, port_ifindex, g[4], ZALK_RING_VLAN, add);
	return ret;
}

int zalkv2_fdb_remove(const char *port_name, const uint8_t mac[6], int vid)
{
	char text[18];
	snprintf(text, sizeof(text), "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	zalk_command cmd;
	cmd.fixed("bridge fdb del").name(text).fixed("dev").name(port_name).fixed("master vlan").number(vid);
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - %s - %s\n\n", "zalkv2_fdb_remove", "zalkv2_fdb_remove", cmd.text());
	return cmd.run();
}
