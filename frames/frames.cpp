// The protocol's 64-byte frames: group addresses, bridge ids, the
// per-instance templates and the senders that patch and send them.
#include "frames/frames.h"

#include <array>
#include <cstring>

#include "daemon/legacy.h"
#include "daemon/instance.h"
#include "frames/sockets.h"
#include "status/status.h"

namespace {
using mac_t = std::array<uint8_t, 6>;

constexpr uint8_t ZALK_GROUP_OUI[3] = {0x03, 0x4B, 0xA1};
constexpr uint8_t ZALK_SNAP_OUI[3] = {0x02, 0x4B, 0xA1};
constexpr uint8_t ZALK_SNAP_PID[2] = {0x01, 0x00};
constexpr uint8_t ZALK_MARKER = 0x20;
constexpr uint8_t ZALK_PRIO = 7;

// Group entries 1 to 4; byte 4 is replaced by the ring id.
constexpr std::array<mac_t, 4> zalk_group_addr = {{
	{ZALK_GROUP_OUI[0], ZALK_GROUP_OUI[1], ZALK_GROUP_OUI[2], 0x01, 0x00, 0x01},
	{ZALK_GROUP_OUI[0], ZALK_GROUP_OUI[1], ZALK_GROUP_OUI[2], 0x01, 0x00, 0x02},
	{ZALK_GROUP_OUI[0], ZALK_GROUP_OUI[1], ZALK_GROUP_OUI[2], 0x01, 0x00, 0x03},
	{ZALK_GROUP_OUI[0], ZALK_GROUP_OUI[1], ZALK_GROUP_OUI[2], 0x01, 0x00, 0x04},
}};
enum group_entry : int { GROUP_HELLO = 1, GROUP_LINK = 2, GROUP_RING = 3, GROUP_FLUSH = 4 };

constexpr std::array<uint8_t, 4> vlan_tag(uint16_t vid)
{
	uint16_t tci = (uint16_t)((ZALK_PRIO << 13) | vid);
	return {0x81, 0x00, (uint8_t)(tci >> 8), (uint8_t)tci};
}
// Each template carries the tag of its type's VLAN, the one receivers
// accept it from.
constexpr std::array<uint8_t, 4> type_tag(zalk_frame_type t) { return vlan_tag(zalkv2_type_vlan(t)); }

// Payload lengths (type and length byte included).
constexpr uint8_t PL_HELLO = 14, PL_LINK = 26, PL_RESPONSE = 28, PL_FLUSH = 28, PL_RING = 12;
// The 802.3 length of a bare header: offsets 18 up to the payload.
constexpr uint16_t LEN_HEADER = 10;

// Every use of a type code reads it from the table.
uint8_t type_code(zalk_frame_type t) { return zalk_frame_types[t - 1]; }

uint16_t get_be16(const uint8_t *p) { return (uint16_t)((p[0] << 8) | p[1]); }
void put_be16(uint8_t *p, uint16_t v)
{
	p[0] = (uint8_t)(v >> 8);
	p[1] = (uint8_t)v;
}

bool valid_ins(int ins) { return ins >= 0 && ins < ZALK_MAX_INSTANCES; }

// Clears the payload, stores type and payload length and adds the
// payload to the 802.3 length. Returns the payload.
uint8_t *add_payload(uint8_t *frame, uint8_t type, uint8_t len)
{
	uint8_t *pl = frame + tx_off::TYPE;
	memset(pl, 0, len);
	pl[0] = type;
	pl[1] = len;
	put_be16(frame + tx_off::LEN, (uint16_t)(get_be16(frame + tx_off::LEN) + len));
	return pl;
}

// Payload offsets of the fields shared by several types.
constexpr size_t PL_STATUS = tx_off::STATUS - tx_off::TYPE;
constexpr size_t PL_SENDER = tx_off::RING_SENDER - tx_off::TYPE;
static_assert(tx_off::RESP_SENDER == tx_off::RING_SENDER, "Ring, Trig and Link Response share the sender offset");

void build_sender_payload(int ins, uint8_t *frame, zalk_frame_type type, uint8_t len)
{
	uint8_t *pl = add_payload(frame, type_code(type), len);
	put_be16(pl + PL_STATUS, 0);
	zalkv2_own_bridge_id(ins, pl + PL_SENDER);
}

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

void zalkv2_group_address(int ring_id, int entry, uint8_t out[6])
{
	// Only entries 1 to 4 exist; anything else yields no address at all
	// rather than bytes from outside the table.
	if (entry < 1 || entry > (int)zalk_group_addr.size()) {
		memset(out, 0, 6);
		return;
	}
	memcpy(out, zalk_group_addr[entry - 1].data(), 6);
	out[4] = (uint8_t)ring_id;
}

void zalkv2_own_bridge_id(int ins, uint8_t out[8])
{
	put_be16(out, 0);
	memcpy(out + 2, instances[ins].base_mac, 6);
}

void zalkv2_zero_bridge_id(uint8_t out[8]) { memset(out, 0, 8); }

void zalkv2_remote_bridge_id(int ins, int port, uint8_t out[8])
{
	put_be16(out, 0);
	memcpy(out + 2, instances[ins].port[port].remote_bridge_id + 2, 6);
}

size_t zalkv2_frame_header(int ins, uint8_t *frame, int entry, const uint8_t tag[4])
{
	uint8_t ring = (uint8_t)instances[ins].ring_id;

	memset(frame, 0, tx_off::TYPE + 1);
	zalkv2_group_address(ring, entry, frame + tx_off::DST);
	memcpy(frame + tx_off::TPID, tag, 4);
	put_be16(frame + tx_off::LEN, LEN_HEADER);
	frame[tx_off::DSAP] = 0xAA;
	frame[tx_off::DSAP + 1] = 0xAA;
	frame[tx_off::DSAP + 2] = 0x03;
	memcpy(frame + tx_off::SNAP_OUI, ZALK_SNAP_OUI, 3);
	memcpy(frame + tx_off::SNAP_PID, ZALK_SNAP_PID, 2);
	frame[tx_off::MARKER] = ZALK_MARKER;
	frame[tx_off::RING_ID] = ring;
	return tx_off::TYPE;
}

void zalkv2_link_payload(int ins, uint8_t *frame, uint8_t *payload, uint8_t type)
{
	memset(payload, 0, PL_LINK);
	payload[0] = type;
	payload[1] = PL_LINK;
	zalkv2_own_bridge_id(ins, payload + (tx_off::LINK_SENDER - tx_off::TYPE));
	put_be16(frame + tx_off::LEN, (uint16_t)(get_be16(frame + tx_off::LEN) + PL_LINK));
}

void zalkv2_build_frames(int ins)
{
	if (!valid_ins(ins) || !instances[ins].enabled) {
		zlog(LOG_ERR, "Instance %d not enabled\n", ins);
		return;
	}
	zalkv2_instance &in = instances[ins];

	// Start every template from 64 zero bytes: the builders below only
	// write up to the end of their payload, and the padding must be zero
	// whatever the slot held before.
	for (uint8_t *t : {in.tpl_link_response, in.tpl_trig, in.tpl_ring, in.tpl_link_up, in.tpl_link_down,
			   in.tpl_hello, in.tpl_flush})
		memset(t, 0, ZALK_FRAME_LEN);

	zalkv2_frame_header(ins, in.tpl_link_response, GROUP_LINK, type_tag(ZALK_LINK_RESPONSE).data());
	build_sender_payload(ins, in.tpl_link_response, ZALK_LINK_RESPONSE, PL_RESPONSE);

	zalkv2_frame_header(ins, in.tpl_flush, GROUP_FLUSH, type_tag(ZALK_FLUSH).data());
	add_payload(in.tpl_flush, type_code(ZALK_FLUSH), PL_FLUSH);

	size_t pos = zalkv2_frame_header(ins, in.tpl_link_up, GROUP_LINK, type_tag(ZALK_LINK_UP).data());
	zalkv2_link_payload(ins, in.tpl_link_up, in.tpl_link_up + pos, type_code(ZALK_LINK_UP));

	pos = zalkv2_frame_header(ins, in.tpl_link_down, GROUP_LINK, type_tag(ZALK_LINK_DOWN).data());
	zalkv2_link_payload(ins, in.tpl_link_down, in.tpl_link_down + pos, type_code(ZALK_LINK_DOWN));

	zalkv2_frame_header(ins, in.tpl_ring, GROUP_RING, type_tag(ZALK_RING).data());
	build_sender_payload(ins, in.tpl_ring, ZALK_RING, PL_RING);

	zalkv2_frame_header(ins, in.tpl_trig, GROUP_LINK, type_tag(ZALK_TRIG).data());
	build_sender_payload(ins, in.tpl_trig, ZALK_TRIG, PL_RING);

	// Status, interval and sender are written at every hello tick.
	zalkv2_frame_header(ins, in.tpl_hello, GROUP_HELLO, type_tag(ZALK_HELLO).data());
	add_payload(in.tpl_hello, type_code(ZALK_HELLO), PL_HELLO);
}

bool zalkv2_frame_header_ok(const uint8_t *frame)
{
	// The length field and DSAP, SSAP and control play no part.
	return frame[rx_off::MARKER] == ZALK_MARKER && !memcmp(frame + rx_off::SNAP_OUI, ZALK_SNAP_OUI, 3) &&
	       !memcmp(frame + rx_off::SNAP_PID, ZALK_SNAP_PID, 2);
}

int zalkv2_frame_ring_id(const uint8_t *frame)
{
	if (!zalkv2_frame_header_ok(frame))
		return 255;
	return frame[rx_off::RING_ID];
}

void zalkv2_send_ring_frame(int ins, int port_index)
{
	if (!valid_ins(ins) || port_index < PORT_A || port_index > PORT_B)
		return;
	zalkv2_instance &in = instances[ins];
	packet_send(&in.port[port_index], in.tpl_ring, ZALK_FRAME_LEN);
}

void zalkv2_send_flush(int ins, int which)
{
	if (!valid_ins(ins))
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
	if (!valid_ins(ins) || port_index < PORT_A || port_index > PORT_B)
		return;
	zalkv2_instance &in = instances[ins];
	uint8_t *f = in.tpl_link_response;

	put_be16(f + tx_off::STATUS, link_response_status(in.ring_state));
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
	if (!valid_ins(ins))
		return;
	for (zalkv2_port &p : instances[ins].port)
		if (zalkv2_port_configured(p))
			zalkv2_send_link_response(ins, (int)p.port_index, edge1, edge2);
	zalkv2_flush_other_rings(ins);
}

void zalkv2_flush_other_rings(int ins)
{
	if (!valid_ins(ins) || !instances[ins].enabled)
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
