// Ring state to bridge port states: the one place that decides which
// ring port forwards and which blocks, blocking always first.
#pragma once

#include <cstdint>

uint32_t zalk_port_states(int ins, uint32_t ring_state);
int zalk_phy_port_state(int ins);
int block_ring_ports(int ins);
