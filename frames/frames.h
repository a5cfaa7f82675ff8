// The protocol's 64-byte frames: wire layout, the VLAN of each type, group
// addresses, bridge ids, the per-instance templates, and the decoding of a
// received frame into a plain value.
#pragma once

#include <cstddef>
#include <cstdint>

#include "daemon/instance.h"

enum zalk_frame_type : uint8_t {
	ZALK_HELLO = 1,
	ZALK_LINK_DOWN = 2,
	ZALK_LINK_UP = 3,
	ZALK_LINK_RESPONSE = 4,
	ZALK_FLUSH = 5,
	ZALK_RING = 6,
	ZALK_TRIG = 7,
};

// Offsets in a frame as sent (802.1Q tag present).
namespace tx_off {
constexpr size_t DST = 0, SRC = 6, TPID = 12, TCI = 14, LEN = 16, DSAP = 18, SNAP_OUI = 21,
		 SNAP_PID = 24, MARKER = 26, RING_ID = 27, TYPE = 28, PAYLOAD_LEN = 29, STATUS = 30,
		 HELLO_INTERVAL = 32, HELLO_SENDER = 34, RING_SENDER = 32, LINK_SENDER = 30,
		 LINK_ID1 = 38, LINK_ID2 = 46, RESP_SENDER = 32, RESP_EDGE1 = 40, RESP_EDGE2 = 48;
}
// Offsets in a frame as received: the kernel has stripped the tag, so
// every field after the source address lies 4 bytes earlier.
namespace rx_off {
constexpr size_t TAG_SHIFT = 4;
constexpr size_t DST = 0, SRC = 6, TPID = 12, LEN = tx_off::LEN - TAG_SHIFT,
		 SNAP_OUI = tx_off::SNAP_OUI - TAG_SHIFT, MARKER = tx_off::MARKER - TAG_SHIFT,
		 SNAP_PID = tx_off::SNAP_PID - TAG_SHIFT, RING_ID = tx_off::RING_ID - TAG_SHIFT, TYPE = tx_off::TYPE - TAG_SHIFT,
		 STATUS = tx_off::STATUS - TAG_SHIFT, HELLO_INTERVAL = tx_off::HELLO_INTERVAL - TAG_SHIFT,
		 HELLO_SENDER = tx_off::HELLO_SENDER - TAG_SHIFT, LINK_SENDER = tx_off::LINK_SENDER - TAG_SHIFT,
		 LINK_ID1 = tx_off::LINK_ID1 - TAG_SHIFT, LINK_ID2 = tx_off::LINK_ID2 - TAG_SHIFT,
		 RESP_EDGE1 = tx_off::RESP_EDGE1 - TAG_SHIFT, RESP_EDGE2 = tx_off::RESP_EDGE2 - TAG_SHIFT;
}

// Codes 1 to 7 in order, then 0; every use reads the code from here.
inline constexpr uint8_t zalk_frame_types[8] = {ZALK_HELLO, ZALK_LINK_DOWN, ZALK_LINK_UP, ZALK_LINK_RESPONSE,
						ZALK_FLUSH, ZALK_RING,      ZALK_TRIG,    0};

// The VLAN a type is sent on, the one its template's tag carries; 0 for a
// code that is no type of ours.
constexpr uint16_t zalkv2_type_vlan(uint8_t type)
{
	switch (type) {
	case ZALK_HELLO:
	case ZALK_LINK_DOWN:
	case ZALK_LINK_UP:
	case ZALK_LINK_RESPONSE:
	case ZALK_TRIG:
		return ZALK_MGNT_VLAN;
	case ZALK_FLUSH:
	case ZALK_RING:
		return ZALK_RING_VLAN;
	default:
		return 0;
	}
}

// Whether a received frame of type byte `type` that came with VLAN `vlan`
// (the id of the tag the kernel took off, -1 for none) may count: only
// with the tag its type is sent with. The protocol has no authentication;
// the ring links and the protocol VLANs are its trust domain, so a frame
// that came untagged or on any other VLAN (a host on an access port) is
// not ours. A code of no known type passes on either protocol VLAN, to
// be reported as unhandled.
constexpr bool zalkv2_vlan_ok(uint8_t type, int vlan)
{
	const uint16_t want = zalkv2_type_vlan(type);
	return want ? vlan == want : vlan == ZALK_MGNT_VLAN || vlan == ZALK_RING_VLAN;
}

// Big-endian 16-bit fields.
constexpr uint16_t zalk_get_be16(const uint8_t *p) { return (uint16_t)((p[0] << 8) | p[1]); }
constexpr void zalk_put_be16(uint8_t *p, uint16_t v)
{
	p[0] = (uint8_t)(v >> 8);
	p[1] = (uint8_t)v;
}

// The bytes a Link Up or Link Down frame carries from its type on; a Link
// Up's event hands them to the ring logic as they came.
constexpr size_t ZALK_LINK_PAYLOAD_LEN = 26;
// What such a payload says.
struct zalkv2_link_fields {
	uint8_t sender[8]; // the reporting switch's bridge id
	uint8_t id1[8], id2[8];
};
zalkv2_link_fields zalkv2_decode_link_payload(const uint8_t payload[ZALK_LINK_PAYLOAD_LEN]);

// A received frame, decoded once: everything the receive path, hello
// qualification and the ring logic read of it. A frame shorter than the
// protocol's reads as if it had the zero padding a full frame carries.
struct zalkv2_rx_frame {
	uint8_t bytes[ZALK_FRAME_LEN]; // the first 64 bytes as received (tag taken off)
	int vlan;                      // id of the tag the kernel took off; -1: none
	bool still_tagged;             // an 802.1Q tag is left in the frame itself
	bool header_ok;                // marker, SNAP OUI and protocol id are ours
	int ring_id;                   // the ring id byte; 255 when !header_ok
	uint8_t type;
	uint8_t src[6];
	uint16_t status;               // Hello, Link Response
	uint16_t interval;             // Hello: the sender's hello time in ms
	uint8_t sender[8];             // Hello, Link Up, Link Down
	uint8_t edge1[8], edge2[8];    // Link Response
	uint8_t link_payload[ZALK_LINK_PAYLOAD_LEN]; // Link Up, Link Down
};
// `len` bytes received with the tag of VLAN `vlan` taken off.
zalkv2_rx_frame zalkv2_decode_frame(const uint8_t *buf, size_t len, int vlan);

// "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x" of 6 bytes into buf; returns buf.
char *mac_to_text(const uint8_t *mac, char *buf, size_t size);

void zalkv2_group_address(int ring_id, int entry, uint8_t out[6]);
void zalkv2_own_bridge_id(int ins, uint8_t out[8]);
void zalkv2_zero_bridge_id(uint8_t out[8]);
void zalkv2_remote_bridge_id(int ins, int port, uint8_t out[8]);

void zalkv2_build_frames(int ins);
size_t zalkv2_frame_header(int ins, uint8_t *frame, int entry, const uint8_t tag[4]);
void zalkv2_link_payload(int ins, uint8_t *frame, uint8_t *payload, uint8_t type);
// Header check of a received frame: marker, SNAP OUI and protocol id.
bool zalkv2_frame_header_ok(const uint8_t *frame);
// The ring id byte of a received frame, or 255 when its header is wrong.
int zalkv2_frame_ring_id(const uint8_t *frame);
