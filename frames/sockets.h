// Packet sockets: the kernel filter every one of them carries, opening
// one, and the send path.
#pragma once

#include <cstddef>
#include <cstdint>

#include "daemon/instance.h"

extern int send_sock;

int zalkv2_open_packet_socket();
void packet_send(zalkv2_port *port, uint8_t *frame, size_t length);
