// Interface queries through the interface socket that bridge preparation
// opens: hardware address and whether the link is running.
#pragma once

#include <cstdint>

// 0 while not open.
extern int netsock;

int if_get_mac(int ifindex, uint8_t mac[6]);
int zalkv2_if_running(int ifindex);
// The bridge the interface is a port of: its index, 0 when none, -1 when
// the index is -1 or names no interface.
int zalkv2_if_master(int ifindex);
