// The senders of the ring logic that patch a template and send it: the
// Ring frame, Flush frames and Link Responses.
#include "frames/senders.h"

#include <cstring>

#include "daemon/instance.h"
#include "daemon/legacy.h"
#include "frames/frames.h"
#include "frames/sockets.h"

namespace {
uint16_t link_response_status(uint32_t ring_state)
{
	switch (ring_state) {
	case RING_OK_NET_FOCAL:
		return 1;
	case RING_FAIL_NET_FOCAL:
		return 2;
	default:
		return 0;
	}
}
} // namespace

void zalkv2_send_ring_frame(int ins, int port_index)
{
	if (!zalkv2_valid_instance(ins) || port_index < PORT_A || port_index > PORT_B)
		return;
	zalkv2_instance &in = instances[ins];
	packet_send(&in.port[port_index], in.tpl_ring, ZALK_FRAME_LEN);
}

void zalkv2_send_flush(int ins, int which)
{
	if (!zalkv2_valid_instance(ins))
		return;
	zalkv2_instance &in = instances[ins];
	for (zalkv2_port &p : in.port) {
		if (!zalkv2_port_configured(p))
			continue;
		if (which == 2 || (uint32_t)which == p.port_index)
			packet_send(&p, in.tpl_flush, ZALK_FRAME_LEN);
	}
}

void zalkv2_send_link_response(int ins, int port_index, const uint8_t *edge1, const uint8_t *edge2)
{
	if (!zalkv2_valid_instance(ins) || port_index < PORT_A || port_index > PORT_B)
		return;
	zalkv2_instance &in = instances[ins];
	uint8_t *f = in.tpl_link_response;

	zalk_put_be16(f + tx_off::STATUS, link_response_status(in.ring_state));
	zalkv2_own_bridge_id(ins, f + tx_off::RESP_SENDER);
	// An edge not given keeps what the previous response carried.
	if (edge1)
		memcpy(f + tx_off::RESP_EDGE1, edge1, 8);
	if (edge2)
		memcpy(f + tx_off::RESP_EDGE2, edge2, 8);
	packet_send(&in.port[port_index], f, ZALK_FRAME_LEN);
}

void zalkv2_send_link_responses(int ins, const uint8_t *edge1, const uint8_t *edge2)
{
	if (!zalkv2_valid_instance(ins))
		return;
	for (zalkv2_port &p : instances[ins].port)
		if (zalkv2_port_configured(p))
			zalkv2_send_link_response(ins, (int)p.port_index, edge1, edge2);
	zalkv2_flush_other_rings(ins);
}

void zalkv2_flush_other_rings(int ins)
{
	if (!zalkv2_valid_instance(ins) || !instances[ins].enabled)
		return;
	// Every other slot, enabled or not: packet_send only sends on ports
	// whose link is up, so slots without live ports stay silent.
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		if (i == ins)
			continue;
		for (zalkv2_port &p : instances[i].port)
			if (zalkv2_port_configured(p))
				packet_send(&p, instances[i].tpl_flush, ZALK_FRAME_LEN);
	}
	signal_zalkv0();
}
