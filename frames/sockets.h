// Packet sockets of the ring ports, the send path and the receive path
// that turns frames into events.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ev.h>

#include "daemon/instance.h"

extern int send_sock;

int zalkv2_open_packet_socket();
int zalkv2_open_port_socket(zalkv2_port *port);
void zalkv2_close_port_socket(zalkv2_port *port);
void packet_send(zalkv2_port *port, uint8_t *frame, size_t length);
void packet_rcv(struct ev_loop *loop, ev_io *w, int revents);

// The receive path after the read: filter, header check and dispatch of
// one frame of `len` bytes received on interface `ifindex` with the tag
// of VLAN `vlan` taken off (-1: it came untagged).
void zalkv2_handle_frame(int ifindex, int vlan, const uint8_t *buf, size_t len);
int zalkv2_filter_packet(zalkv2_port *port, const uint8_t *frame, int vlan);
void zalkv2_recv(int ins, zalkv2_port *port, const uint8_t *frame);
void is_link_response_packet(int ins, const uint8_t *frame);
void is_my_link_response(int ins, const uint8_t *frame);

zalkv2_port *zalkv2_port_by_ifindex(int ifindex);
int zalkv2_instance_by_ifindex(int ifindex);
int zalkv2_port_index(int ins, int ifindex, int *out);
char *mac_to_text(const uint8_t *mac, char *buf, size_t size);
