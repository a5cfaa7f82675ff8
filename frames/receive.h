// The ring ports' receive side: each port's packet socket and its read
// callback, and what a received frame means for the ring logic.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ev.h>

#include "daemon/instance.h"
#include "frames/frames.h"

int zalkv2_open_port_socket(zalkv2_port *port);
void zalkv2_close_port_socket(zalkv2_port *port);
void packet_rcv(struct ev_loop *loop, ev_io *w, int revents);

// The receive path after the read: one frame of `len` bytes received on
// interface `ifindex` with the tag of VLAN `vlan` taken off (-1: it came
// untagged) is decoded, checked and turned into what it means.
void zalkv2_handle_frame(int ifindex, int vlan, const uint8_t *buf, size_t len);
int zalkv2_filter_packet(const zalkv2_ring_port &rp, const zalkv2_rx_frame &f);
void zalkv2_recv(const zalkv2_ring_port &rp, const zalkv2_rx_frame &f);
void is_link_response_packet(int ins, const zalkv2_rx_frame &f);
void is_my_link_response(int ins, const zalkv2_rx_frame &f);
