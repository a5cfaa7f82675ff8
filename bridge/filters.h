// Ingress drop filters (tc flower) on the ring ports and the list that
// hands out their priorities.
#pragma once

#include <cstdint>

constexpr uint32_t TC_LOW_PRIO = 1;
constexpr int TC_PRIO_BASE = 320;

struct tc_entry {
	uint32_t cls;
	uint32_t id;      // 1 own ring group addresses, 2 an unconfigured ring
	uint32_t ifindex;
	char mac[32];
	int32_t prio;
	tc_entry *next;
	tc_entry *prev;
};

void tc_list_create();
int tc_entry_add(uint32_t cls, uint32_t id, uint32_t ifindex, const char *mac);
int tc_entry_del(uint32_t cls, uint32_t id, uint32_t ifindex, const char *mac);
tc_entry *tc_entry_find(uint32_t cls, uint32_t id, uint32_t ifindex, const char *mac);

int zalkv2_tc_write_filter(const char *dev, const char *action, const char *proto, int prio,
			   const char *flags, const char *mac, const char *vlan);
int zalkv2_tc_mac_filter(uint32_t id, int ifindex, const char *proto, const uint8_t mac[6], int add,
			 int skip_hw, int vid);
int zalkv2_block_ring_macs(int ins, int ifindex, int add);
void zalkv2_block_foreign_ring(int ring_id, int add);
void zalkv2_block_unconfigured_rings(int add);
void zalkv2_block_v0_macs(int add);
// All drop filters of the daemon, installed (1) or removed (0) together;
// the refresh removes and installs them again.
void zalkv2_set_drop_filters(int add);
void zalkv2_refresh_drop_filters();
