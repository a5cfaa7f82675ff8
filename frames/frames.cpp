// The protocol's 64-byte frames: group addresses, bridge ids, the
// per-instance templates, and a received frame decoded into a value.
#include "frames/frames.h"

#include <array>
#include <cstring>

#include <cstdio>

#include "daemon/instance.h"
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

// Clears the payload, stores type and payload length and adds the
// payload to the 802.3 length. Returns the payload.
uint8_t *add_payload(uint8_t *frame, uint8_t type, uint8_t len)
{
	uint8_t *pl = frame + tx_off::TYPE;
	memset(pl, 0, len);
	pl[0] = type;
	pl[1] = len;
	zalk_put_be16(frame + tx_off::LEN, (uint16_t)(zalk_get_be16(frame + tx_off::LEN) + len));
	return pl;
}

// Payload offsets of the fields shared by several types.
constexpr size_t PL_STATUS = tx_off::STATUS - tx_off::TYPE;
constexpr size_t PL_SENDER = tx_off::RING_SENDER - tx_off::TYPE;
static_assert(tx_off::RESP_SENDER == tx_off::RING_SENDER, "Ring, Trig and Link Response share the sender offset");

void build_sender_payload(int ins, uint8_t *frame, zalk_frame_type type, uint8_t len)
{
	uint8_t *pl = add_payload(frame, type_code(type), len);
	zalk_put_be16(pl + PL_STATUS, 0);
	zalkv2_own_bridge_id(ins, pl + PL_SENDER);
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
	zalk_put_be16(out, 0);
	memcpy(out + 2, instances[ins].base_mac, 6);
}

void zalkv2_zero_bridge_id(uint8_t out[8]) { memset(out, 0, 8); }

void zalkv2_remote_bridge_id(int ins, int port, uint8_t out[8])
{
	zalk_put_be16(out, 0);
	memcpy(out + 2, instances[ins].port[port].remote_bridge_id + 2, 6);
}

size_t zalkv2_frame_header(int ins, uint8_t *frame, int entry, const uint8_t tag[4])
{
	uint8_t ring = (uint8_t)instances[ins].ring_id;

	memset(frame, 0, tx_off::TYPE + 1);
	zalkv2_group_address(ring, entry, frame + tx_off::DST);
	memcpy(frame + tx_off::TPID, tag, 4);
	zalk_put_be16(frame + tx_off::LEN, LEN_HEADER);
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
	zalk_put_be16(frame + tx_off::LEN, (uint16_t)(zalk_get_be16(frame + tx_off::LEN) + PL_LINK));
}

void zalkv2_build_frames(int ins)
{
	if (!zalkv2_valid_instance(ins) || !instances[ins].enabled) {
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

zalkv2_link_fields zalkv2_decode_link_payload(const uint8_t payload[ZALK_LINK_PAYLOAD_LEN])
{
	constexpr size_t at = rx_off::TYPE;
	zalkv2_link_fields f;
	memcpy(f.sender, payload + rx_off::LINK_SENDER - at, 8);
	memcpy(f.id1, payload + rx_off::LINK_ID1 - at, 8);
	memcpy(f.id2, payload + rx_off::LINK_ID2 - at, 8);
	return f;
}

zalkv2_rx_frame zalkv2_decode_frame(const uint8_t *buf, size_t len, int vlan)
{
	zalkv2_rx_frame f;
	// A frame shorter than a full protocol frame is read as if the
	// missing bytes were the zero padding a full frame carries: the
	// fields we read then never hold bytes of an earlier frame. A frame
	// cut inside its header fails the header check and reads as a
	// foreign ring (255); one cut inside its fields acts as if those
	// fields were zero, as a Link Response without edges, which only
	// flushes.
	const size_t n = len < sizeof(f.bytes) ? len : sizeof(f.bytes);
	memcpy(f.bytes, buf, n);
	memset(f.bytes + n, 0, sizeof(f.bytes) - n);
	const uint8_t *b = f.bytes;

	f.vlan = vlan;
	// The kernel strips the tag; a frame still tagged came by a path we
	// do not serve.
	f.still_tagged = b[rx_off::TPID] == 0x81 && b[rx_off::TPID + 1] == 0x00;
	f.header_ok = zalkv2_frame_header_ok(b);
	f.ring_id = zalkv2_frame_ring_id(b);
	f.type = b[rx_off::TYPE];
	memcpy(f.src, b + rx_off::SRC, 6);
	f.status = zalk_get_be16(b + rx_off::STATUS);
	f.interval = zalk_get_be16(b + rx_off::HELLO_INTERVAL);
	memcpy(f.link_payload, b + rx_off::TYPE, ZALK_LINK_PAYLOAD_LEN);
	if (f.type == zalk_frame_types[ZALK_HELLO - 1])
		memcpy(f.sender, b + rx_off::HELLO_SENDER, 8);
	else
		memcpy(f.sender, zalkv2_decode_link_payload(f.link_payload).sender, 8);
	memcpy(f.edge1, b + rx_off::RESP_EDGE1, 8);
	memcpy(f.edge2, b + rx_off::RESP_EDGE2, 8);
	return f;
}

char *mac_to_text(const uint8_t *mac, char *buf, size_t size)
{
	snprintf(buf, size, "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	return buf;
}
