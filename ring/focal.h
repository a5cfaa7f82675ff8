// The focal point role: ring supervision, ring state changes, guarded
// recovery and the response-delay hold that closes the ring.
#pragma once

#include <cstdint>
#include <ev.h>

void focal_timers_init();
void focal_response_timer_start(struct ev_loop *loop);
void focal_response_timer_stop(struct ev_loop *loop);
void focal_ring_timer_start(int ins, struct ev_loop *loop);
void focal_ring_timer_stop(int ins, struct ev_loop *loop);
void focal_config_ring_topology(int ins, uint32_t state, int force);
void focal_ring_timeout(int ins);
void focal_send_trig(int ins);
void focal_ring_pkt_handler_cb(struct ev_loop *loop, ev_timer *w, int revents);
void focal_response_timer_cb(struct ev_loop *loop, ev_timer *w, int revents);
void check_ring_packets(int ins, int port);
void send_ring_packets(int ins, int port);

// Per instance and port counters of the ring check, per instance ticks of
// the hold.
extern uint32_t miss_count[10][2];
extern uint32_t hit_count[10][2];
extern uint32_t response_ticks[10];
extern ev_timer response_timer;
