// Hello link qualification of the ring ports.
#pragma once

#include <cstdint>
#include <ev.h>

#include "frames/frames.h"

constexpr uint32_t HELLO_MISS_LIMIT = 3;
constexpr double HELLO_FAST_RETRY = 0.05;

void zalkv2_hello_timers_init();
void zalkv2_hello_init(int ins);
void zalkv2_hello_start(int ins, struct ev_loop *loop);
void zalkv2_hello_stop(int ins, struct ev_loop *loop);
void send_zalk_trig(struct ev_loop *loop, ev_timer *w, int revents);
void hello_set_state(int ins, int port, int32_t state);
// A frame received on port `port` of instance `ins`, of that ring: 1 when
// it was taken as a Hello, else 0.
int is_hello_pkt(int ins, int port, const zalkv2_rx_frame &f);
