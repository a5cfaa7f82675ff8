// Any bytes on a ring port of a focal point or a member, of any length:
// parsed without reading outside them, turned only into well-formed
// events, and those handled by the ring logic. The first byte picks the
// port, the role, a bus edge (no port B), hello on port A and the tag the
// frame came with (bits 4-5: its type's own, none, the other protocol
// VLAN, VLAN 100).
#include "tests/fuzz/harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < 1)
		return 0;
	fuzz::Harness &h = fuzz::ring_for(data[0]);
	zalkv2_instance &in = instances[0];
	in.port[PORT_A].hello_enable = (data[0] >> 3) & 1;
	if (data[0] & 2)
		in.port[PORT_B].ifindex = -1;
	zalkv2_build_frames(0);
	const uint8_t type = size > 1 + rx_off::TYPE ? data[1 + rx_off::TYPE] : 0;
	const int own = zalkv2_type_vlan(type) ? zalkv2_type_vlan(type) : ZALK_MGNT_VLAN;
	const int vlans[4] = {own, -1, own == ZALK_MGNT_VLAN ? ZALK_RING_VLAN : ZALK_MGNT_VLAN, 100};
	zalkv2_handle_frame((data[0] & 1) ? 12 : 11, vlans[(data[0] >> 4) & 3], data + 1, size - 1);
	h.dispatch_checked();
	return 0;
}
