// The member role: ring state changes, link-up announcement with Link Up
// frames and the forward delay.
#pragma once

#include <cstdint>
#include <ev.h>

void member_timer_init();
void member_config_ring_topology(int ins, uint32_t state, int force);
void member_local_link_up(struct ev_loop *loop, int ins, int port);
// An edge switch has the ring's other port's link down (a bus edge never is).
int is_edge_switch(int ins, int port);
void send_link_up_packets(int ins);
void member_link_up_cb(struct ev_loop *loop, ev_timer *w, int revents);
void check_fwd_delay_expired(int ins);

extern ev_timer member_timer;
