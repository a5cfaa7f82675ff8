// Requests to the Linux bridge br0 over rtnetlink: port state, MST port
// state, FDB flush, VLANs, VLAN global options, multicast entries.
#pragma once

#include <cstdint>

#include "bridge/rtnl.h"
#include "daemon/instance.h"

extern struct rtnl_handle bridge_rth;

int zalkv2_set_port_state(zalkv2_port *port, uint32_t state);
int zalkv2_set_mst_port_state(int ifindex, uint16_t msti, uint8_t state);
int zalkv2_fdb_flush(int ins);
int zalkv2_bridge_vlan(int ifindex, uint16_t vid, int master, int add);
int zalkv2_vlan_global_opt(int br_ifindex, uint16_t vid, int option, uint8_t value);
int zalkv2_vlan_set_msti(int br_ifindex);
int zalkv2_mdb_entry(int br_ifindex, int port_ifindex, const uint8_t mac[6], uint16_t vid, int add);
int zalkv2_setup_mdb(int ins, int port_ifindex, int add);
int zalkv2_fdb_remove(const char *port_name, const uint8_t mac[6], int vid);
