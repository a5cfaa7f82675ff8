// Putting br0 and the ring ports into the shape the protocol needs, and
// taking it back out again.
//
// Every step of a preparation or teardown runs even after an earlier one
// failed: a switch with half its bridge settings is still better served
// than one with none, and the summary line tells the operator to look.
#include "bridge/prepare.h"

#include <array>
#include <cstdio>
#include <linux/if_bridge.h>
#include <sys/socket.h>

#include "bridge/backup.h"
#include "bridge/filters.h"
#include "bridge/ifquery.h"
#include "bridge/netlink_ops.h"
#include "daemon/legacy.h"
#include "daemon/instance.h"
#include "daemon/os.h"
#include "daemon/commands.h"
#include "daemon/util.h"
#include "status/status.h"

namespace {

// Netlink steps fail negative, command steps with a positive status; the
// totals count the size of each failure so that the two never cancel.
int failed(int result) { return result < 0 ? -result : result; }

// The ingress drop filters need an ingress hook on each ring port. The
// daemon adds a clsact qdisc there when it prepares an instance, and
// removes it at teardown only if it was the one that added it: a qdisc
// that was already in place (the operator's, or left by an earlier run)
// stays, together with whatever filters the operator put on it. Its
// result is not counted: the filters themselves report when they cannot
// be installed.
std::array<std::array<bool, 2>, ZALK_MAX_INSTANCES> qdisc_added;

void ingress_qdisc(int ins, int p, int add)
{
	const zalkv2_port &port = instances[ins].port[p];
	if (!zalkv2_port_configured(port))
		return;
	if (!add && !qdisc_added[ins][p])
		return;

	zalk_command cmd;
	cmd.fixed(add ? "tc qdisc add dev" : "tc qdisc del dev").name(port.name, sizeof(port.name)).fixed("clsact");
	int status = cmd.run();
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - %s : %d\n", "ingress_qdisc", cmd.text(), status);
	qdisc_added[ins][p] = add && status == 0;
	if (status && !add)
		zlog(LOG_ERR, "Could not remove ingress qdisc of ring port %.16s\n", port.name);
}

// The index of the br0 that got the protocol VLANs of its own, 0 before
// any. A bridge created anew (a platform's network reload) has none; the
// first ring set up on it adds them.
int vlans_on_bridge = 0;

int add_bridge_vlans(int br)
{
	vlans_on_bridge = br;
	return zalkv2_bridge_vlan(br, ZALK_MGNT_VLAN, 0, 1) + zalkv2_bridge_vlan(br, ZALK_RING_VLAN, 0, 1);
}

} // namespace

int zalkv2_prepare_bridge()
{
	int br = (int)os_if_nametoindex("br0");

	if (netsock <= 0) {
		int fd = os_socket(AF_INET, SOCK_DGRAM, 0);
		if (fd < 0) {
			zlog(LOG_ERR, "netsock was not open!\n\n");
			zlog(LOG_ERR, "Can not initialaze socket socket\n");
			fd = 0;
		}
		netsock = fd;
	}

	if (bridge_rth.fd <= 0 && rtnl_open(&bridge_rth, 0) < 0) {
		fprintf(stderr, "Cannot open rtnetlink\n");
		zlog(LOG_ERR, "Failed to initialize netlink socket\n");
	}

	// Without br0 the rings wait for it (their set-up says so) and the
	// first one set up on it adds these.
	int ret = br ? add_bridge_vlans(br) : 0;

	tc_list_create();
	qdisc_added = {};

	if (ret)
		zlog(LOG_ERR, "%s - Failed\n\n", "zalkv2_prepare_bridge");
	return ret;
}

int zalkv2_prepare_bridge_on_instance(int ins)
{
	const zalkv2_instance &in = instances[ins];
	const int a = in.port[PORT_A].ifindex;
	const int b = in.port[PORT_B].ifindex;
	const int br = in.bridge_ifindex;
	int ret = 0;

	if (br != vlans_on_bridge)
		ret += failed(add_bridge_vlans(br));
	ret += failed(zalkv2_bridge_vlan(a, ZALK_MGNT_VLAN, 1, 1));
	ret += failed(zalkv2_bridge_vlan(b, ZALK_MGNT_VLAN, 1, 1));
	ret += failed(zalkv2_vlan_global_opt(br, ZALK_MGNT_VLAN, BRIDGE_VLANDB_GOPTS_MCAST_SNOOPING, 1));
	ret += failed(zalkv2_vlan_global_opt(br, ZALK_MGNT_VLAN, BRIDGE_VLANDB_GOPTS_MCAST_QUERIER, 0));

	ret += failed(zalkv2_bridge_vlan(a, ZALK_RING_VLAN, 1, 1));
	ret += failed(zalkv2_bridge_vlan(b, ZALK_RING_VLAN, 1, 1));
	ret += failed(zalkv2_vlan_global_opt(br, ZALK_RING_VLAN, BRIDGE_VLANDB_GOPTS_MCAST_SNOOPING, 1));
	ret += failed(zalkv2_vlan_global_opt(br, ZALK_RING_VLAN, BRIDGE_VLANDB_GOPTS_MCAST_QUERIER, 0));

	// The management VLAN stays blocked in its own tree until the
	// instance runs (zalkv2_bridge_enable_mgnt_vlan).
	ret += failed(zalkv2_vlan_set_msti(br));
	ret += failed(zalkv2_set_mst_port_state(a, ZALK_MGNT_VLAN, PORT_BLOCKING));
	ret += failed(zalkv2_set_mst_port_state(b, ZALK_MGNT_VLAN, PORT_BLOCKING));

	ingress_qdisc(ins, PORT_A, 1);
	ingress_qdisc(ins, PORT_B, 1);
	ret += failed(zalkv2_block_ring_macs(ins, a, 1));
	ret += failed(zalkv2_block_ring_macs(ins, b, 1));

	ret += failed(zalkv2_setup_mdb(ins, a, 1));
	ret += failed(zalkv2_setup_mdb(ins, b, 1));

	ret += failed(zalkv2_remove_own_uc_mac(ins));
	ret += failed(zalkv2_setup_buddy_ports(ins, 1));

	if (ret)
		fprintf(stderr, "%s - Instance %d Failed\n", "zalkv2_prepare_bridge_on_instance", ins);
	return ret;
}

int zalkv2_bridge_enable_mgnt_vlan(int ins)
{
	const zalkv2_instance &in = instances[ins];
	int ret = failed(zalkv2_set_mst_port_state(in.port[PORT_A].ifindex, ZALK_MGNT_VLAN, PORT_FORWARDING));
	ret += failed(zalkv2_set_mst_port_state(in.port[PORT_B].ifindex, ZALK_MGNT_VLAN, PORT_FORWARDING));
	if (ret)
		fprintf(stderr, "%s - Instance %d Failed\n", "zalkv2_bridge_enable_mgnt_vlan", ins);
	return ret;
}

int zalkv2_teardown_bridge_on_instance(int ins)
{
	const zalkv2_instance &in = instances[ins];
	const int a = in.port[PORT_A].ifindex;
	const int b = in.port[PORT_B].ifindex;
	int br = (int)os_if_nametoindex("br0");
	int ret = 0;

	// The bridge's own protocol VLANs go with the last instance, unless
	// the version-0 daemon still relies on them.
	bool last = true;
	for (const zalkv2_instance &other : instances)
		if (other.enabled)
			last = false;
	if (last && !zalkv0_pid_exists()) {
		ret += failed(zalkv2_bridge_vlan(br, ZALK_MGNT_VLAN, 0, 0));
		ret += failed(zalkv2_bridge_vlan(br, ZALK_RING_VLAN, 0, 0));
	}

	ret += failed(zalkv2_setup_mdb(ins, a, 0));
	ret += failed(zalkv2_setup_mdb(ins, b, 0));

	// Failed filter removals are already logged; the entries have left
	// the list either way.
	zalkv2_block_ring_macs(ins, a, 0);
	zalkv2_block_ring_macs(ins, b, 0);
	ingress_qdisc(ins, PORT_A, 0);
	ingress_qdisc(ins, PORT_B, 0);

	ret += failed(zalkv2_bridge_vlan(a, ZALK_MGNT_VLAN, 1, 0));
	ret += failed(zalkv2_bridge_vlan(b, ZALK_MGNT_VLAN, 1, 0));
	ret += failed(zalkv2_bridge_vlan(a, ZALK_RING_VLAN, 1, 0));
	ret += failed(zalkv2_bridge_vlan(b, ZALK_RING_VLAN, 1, 0));

	ret += failed(zalkv2_setup_buddy_ports(ins, 0));

	if (ret)
		fprintf(stderr, "%s - Instance %d Failed\n", "zalkv2_teardown_bridge_on_instance", ins);
	return ret;
}

int zalkv2_teardown()
{
	// A handle or socket that never opened has nothing to close, and
	// descriptor 0 is not ours to close.
	if (bridge_rth.fd > 0)
		rtnl_close(&bridge_rth);

	if (netsock <= 0)
		return 0;
	int ret = os_close(netsock);
	netsock = 0;
	if (ret)
		fprintf(stderr, "%s - Failed\n", "zalkv2_teardown");
	return ret;
}

uint8_t *zalkv2_read_base_mac(uint8_t mac[6])
{
	char path[128];
	char line[20];
	zalk_path(path, sizeof(path), "/var/run/system/0/mac-base");
	if (read_line_file(path, line, sizeof(line)))
		snprintf(line, sizeof(line), "00:00:00:00:00:00");
	// Bytes that do not parse keep what the caller had in them.
	sscanf(line, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3], &mac[4], &mac[5]);
	return mac;
}

int zalkv2_remove_own_uc_mac(int ins)
{
	zalkv2_instance &in = instances[ins];
	int ret = 0;
	for (const zalkv2_port &port : in.port) {
		if (!zalkv2_port_configured(port))
			continue;
		char name[sizeof(port.name) + 1];
		snprintf(name, sizeof(name), "%.*s", (int)sizeof(port.name), port.name);
		ret += failed(zalkv2_fdb_remove(name, port.mac, ZALK_MGNT_VLAN));
		ret += failed(zalkv2_fdb_remove(name, port.mac, ZALK_RING_VLAN));
	}
	if (ret)
		zlog(LOG_ERR, "%s - Failed\n", "zalkv2_remove_own_uc_mac");
	return ret;
}
