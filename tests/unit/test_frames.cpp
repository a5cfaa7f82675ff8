// Frames on the wire: the templates and a sent Ring frame checked byte
// for byte against the layout, and frames as the kernel hands them over
// (tag stripped) becoming the right events, or dropped for the right
// reasons.
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

using Frames = Unit;

Bytes tpl(const uint8_t *t) { return Bytes(t, t + ZALK_FRAME_LEN); }

TEST_F(Frames, AllSevenTemplatesHaveTheirHeadersFieldsAndZeroPadding)
{
	zalkv2_instance &in = instances[3];
	for (uint8_t *t : {in.tpl_link_response, in.tpl_trig, in.tpl_ring, in.tpl_link_up, in.tpl_link_down, in.tpl_hello, in.tpl_flush})
		memset(t, 0xFF, ZALK_FRAME_LEN); // junk from an earlier life of the slot
	make_ring(3, RING_TYPE_MEMBER, 0x1A5); // only the low byte goes on the wire
	const std::string id = "0000020000000013", zero8 = std::string(16, '0');
	const struct {
		const uint8_t *t;
		const char *group_tci_len; // group, TCI low byte, 802.3 length
		uint8_t type, plen;
		std::string fields; // from offset 30 to the payload's end
	} cases[] = {
		{in.tpl_link_response, "02b526", 4, 28, "0000" + id + zero8 + zero8},
		{in.tpl_trig, "02b516", 7, 12, "0000" + id},
		{in.tpl_ring, "03b616", 6, 12, "0000" + id},
		{in.tpl_link_up, "02b524", 3, 26, id + zero8 + zero8},
		{in.tpl_link_down, "02b524", 2, 26, id + zero8 + zero8},
		{in.tpl_hello, "01b518", 1, 14, std::string(24, '0')}, // status, interval, sender: written by the tick
		{in.tpl_flush, "04b626", 5, 28, std::string(52, '0')}, // no sender
	};
	for (auto &c : cases) {
		char head[80];
		snprintf(head, sizeof(head), "034ba101a5%.2s%s8100ef%.2s00%.2saaaa03024ba1010020a5%02x%02x", c.group_tci_len,
			 std::string(12, '0').c_str(), c.group_tci_len + 2, c.group_tci_len + 4, c.type, c.plen);
		EXPECT_EQ(hex(tpl(c.t)), head + c.fields + std::string(2 * (36 - c.plen), '0')) << (int)c.type;
	}
	zalkv2_send_ring_frame(3, PORT_B);
	ASSERT_EQ(sent(), "Ring@42");
	EXPECT_EQ(hex(fake::frames[0].bytes, 6, 6), "020000000302");
	EXPECT_EQ(fake::frames[0].bytes, tpl(in.tpl_ring)); // the source is written into the template itself
	memset(instances[4].tpl_ring, 0x5A, ZALK_FRAME_LEN);
	zalkv2_build_frames(4);
	EXPECT_EQ(errors(), Lines{"Instance 4 not enabled\n"});
	EXPECT_EQ(tpl(instances[4].tpl_ring), Bytes(64, 0x5A));
}

const uint8_t OWN[6] = {0x02, 0, 0, 0, 0, 0x10}; // base MAC of slot 0
const uint8_t OTHER[6] = {0x02, 0x99, 0, 0, 0, 9};
const uint8_t MAC_A[6] = {0x02, 0, 0, 0, 0, 1}, MAC_B[6] = {0x02, 0, 0, 0, 0, 2};

Bytes link_response(uint8_t ring, uint16_t status, const uint8_t *edge1, const uint8_t *edge2)
{
	Bytes f = rx_frame(ring, ZALK_LINK_RESPONSE, 28);
	f[rx_off::STATUS] = (uint8_t)(status >> 8);
	f[rx_off::STATUS + 1] = (uint8_t)status;
	if (edge1)
		memcpy(&f[rx_off::RESP_EDGE1 + 2], edge1, 6);
	if (edge2)
		memcpy(&f[rx_off::RESP_EDGE2 + 2], edge2, 6);
	return f;
}
void handle(int ifindex, const Bytes &f) { zalkv2_handle_frame(ifindex, rx_vlan(f), f.data(), f.size()); }

TEST_F(Frames, EachFrameTypePostsItsEventWithItsPayload)
{
	make_ring(0, RING_TYPE_MEMBER);
	Bytes up = rx_frame(3, ZALK_LINK_UP, 26);
	for (int i = 26; i < 50; i++)
		up[i] = (uint8_t)i;
	up[59] = 0xEE; // beyond the 26 payload bytes: must not be copied
	const Bytes down = rx_frame(3, ZALK_LINK_DOWN, 26), flush = rx_frame(3, ZALK_FLUSH, 28), trig = rx_frame(3, ZALK_TRIG, 12);
	const struct {
		int ifindex;
		const Bytes &frame;
		const char *event;
	} cases[] = {{11, down, "0:RX_LINKA_0"}, {12, down, "0:RX_LINKB_0"}, {11, up, "0:RX_LINKA_1"},
		     {12, up, "0:RX_LINKB_1"},   {12, flush, "0:FLUSH_FDB"}, {11, trig, "0:FOCAL_TRIG"}};
	for (auto &c : cases) {
		handle(c.ifindex, c.frame);
		auto evs = posted();
		ASSERT_EQ(evs.size(), 1u) << c.event;
		EXPECT_EQ(std::string("0:") + zalk_event_name(evs[0].event), c.event);
		Bytes want(32, 0);
		if (&c.frame == &up)
			memcpy(want.data(), &up[24], 26);
		EXPECT_EQ(Bytes(evs[0].data, evs[0].data + 32), want) << c.event;
	}
	EXPECT_TRUE(fake::logs.empty());
}

TEST_F(Frames, LinkResponsesNamingThisSwitchInEitherEdge)
{
	make_ring(0, RING_TYPE_MEMBER);
	std::string got;
	for (bool in_edge2 : {false, true})
		for (uint16_t status : {0, 1, 2, 0x0104}) { // only the two low bits count
			handle(11, in_edge2 ? link_response(3, status, OTHER, OWN) : link_response(3, status, OWN, OTHER));
			got += events() + " ";
		}
	handle(12, link_response(3, 1, OTHER, OTHER)); // naming other switches: a plain flush
	EXPECT_EQ(got + events(),
		  "0:RX_LINK_RESPONSE 0:RX_LINK_RESPONSE_RING 0:RX_LINK_RESPONSE_RING 0:RX_LINK_RESPONSE "
		  "0:RX_LINK_RESPONSE 0:RX_LINK_RESPONSE_RING 0:RX_LINK_RESPONSE_RING 0:RX_LINK_RESPONSE 0:FLUSH_FDB");
}

TEST_F(Frames, OwnTaggedAndForeignFramesAreDroppedButReturningRingFramesCounted)
{
	make_ring(0, RING_TYPE_FOCAL);
	handle(11, rx_frame(3, ZALK_LINK_DOWN, 26, MAC_B)); // our own Link Down: no event
	handle(12, rx_frame(3, ZALK_RING, 12, MAC_A));      // our own Ring frame is what the focal point waits for
	handle(12, rx_frame(3, ZALK_RING, 12, MAC_A));
	EXPECT_EQ(instances[0].port[PORT_B].rx_ring, 2u);
	EXPECT_EQ(instances[0].port[PORT_A].rx_ring, 0u);
	Bytes tagged = rx_frame(3, ZALK_LINK_DOWN, 26); // still tagged: not ours to read
	tagged.insert(tagged.begin() + 12, {0x81, 0x00, 0xEF, 0xB5});
	handle(11, tagged);
	EXPECT_EQ(events(), "");

	handle(12, rx_frame(9, ZALK_RING, 12)); // foreign ring: recorded, not processed
	EXPECT_EQ(instances[0].rx_errors[PORT_B].rx_wrong_ring_id, 9);
	EXPECT_EQ(instances[0].port[PORT_B].rx_ring, 2u);
	Bytes bad = rx_frame(3, ZALK_LINK_DOWN, 26);
	bad[rx_off::MARKER] = 0x21; // a broken header reads as ring 255 ...
	handle(11, bad);
	EXPECT_EQ(instances[0].rx_errors[PORT_A].rx_wrong_ring_id, 255);
	instances[0].ring_id = 255; // ... which even ring 255 never takes for its own
	handle(11, bad);
	handle(11, rx_frame(255, ZALK_LINK_DOWN, 26));
	EXPECT_EQ(events(), "0:RX_LINKA_0");
	EXPECT_TRUE(fake::frames.empty());
}

// Read from the socket as the kernel reports it: a Link Down counts only
// with its type's tag, never as a host on an access port sends it
// (untagged, on its own VLAN) nor on the other protocol VLAN.
TEST_F(Frames, OnlyALinkDownWithItsTypesTagMovesTheFocalPoint)
{
	make_ring(0, RING_TYPE_FOCAL);
	links(0, 1, 1);
	focal_config_ring_topology(0, RING_OK_NET_FOCAL, 1);
	ASSERT_EQ(zalkv2_open_port_socket(&instances[0].port[PORT_A]), 0);
	std::string states;
	for (int vlan : {-1, 100, (int)ZALK_RING_VLAN, (int)ZALK_MGNT_VLAN}) {
		fake::rx_queue.push_back({11, rx_frame(3, ZALK_LINK_DOWN, 26), vlan});
		packet_rcv(loop, &instances[0].port[PORT_A].rx_watcher, EV_READ);
		dispatch();
		states += std::string(zalk_ring_state_name(instances[0].ring_state, false)) + " ";
	}
	EXPECT_EQ(states, "Ring Ok Ring Ok Ring Ok Broken ");
}

TEST_F(Frames, ALinkResponseForThisSwitchTracedLineByLine)
{
	make_ring(0, RING_TYPE_MEMBER);
	fake::set_debug(ZALK_STATE | ZALK_TRACE | ZALK_TIP);
	handle(12, link_response(3, 2, nullptr, OWN));
	EXPECT_EQ(notices(), (Lines{"zalkv2_filter_packet() - eth2 type: 4\n port mac: 02:00:00:00:00:02\n pkt:0e:00:00:00:00:77\n",
				    "zalkv2_recv() - ins: 0 port:eth2 Recevied zalk packet with type Link Response\n",
				    "is_my_link_response() - br mac: 02:00:00:00:00:10 edge mac1:00:00:00:00:00:00 mac2 02:00:00:00:00:10\n",
				    "is_link_response_packet() - ins:0 Link response: 0e:00:00:00:00:77 status: 0x1\n"}));
}

} // namespace
