// Local link events of the ring ports and the topology tests used by the
// whole engine.
#pragma once

#include <cstdint>
#include <ev.h>

void local_link_down(int ins, int port);
void local_link_up(struct ev_loop *loop, int ins, int port);
int is_edge_switch(int ins, int port);
int is_bus_edge(int ins);
void store_edge_id(int ins, const uint8_t *payload);
void send_link_down(int ins, int port);
