// Local link events of the ring ports, and the focal point's memory of
// the switches that reported a returning link.
#pragma once

#include <cstdint>
#include <ev.h>

void local_link_down(int ins, int port);
void local_link_up(struct ev_loop *loop, int ins, int port);
void store_edge_id(int ins, const uint8_t *payload);
void send_link_down(int ins, int port);
