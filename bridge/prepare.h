// Putting br0 and the ring ports into the shape the protocol needs, and
// taking it back out.
#pragma once

#include <cstdint>

int zalkv2_prepare_bridge();
int zalkv2_prepare_bridge_on_instance(int ins);
int zalkv2_bridge_enable_mgnt_vlan(int ins);
int zalkv2_teardown_bridge_on_instance(int ins);
int zalkv2_teardown();
uint8_t *zalkv2_read_base_mac(uint8_t mac[6]);
int zalkv2_remove_own_uc_mac(int ins);
