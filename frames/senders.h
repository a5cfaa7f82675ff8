// The senders of the ring logic that patch a template and send it: the
// Ring frame, Flush frames and Link Responses.
#pragma once

#include <cstdint>

void zalkv2_send_ring_frame(int ins, int port_index);
void zalkv2_send_flush(int ins, int which);
void zalkv2_send_link_response(int ins, int port_index, const uint8_t *edge1, const uint8_t *edge2);
void zalkv2_send_link_responses(int ins, const uint8_t *edge1, const uint8_t *edge2);
void zalkv2_flush_other_rings(int ins);
