// The receive path: frames as the kernel hands them over (tag stripped)
// become the right events, or are dropped for the right reasons.
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

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
void handle(int ifindex, const Bytes &f) { zalkv2_handle_frame(ifindex, f.data(), f.size()); }

using Receive = Unit;

TEST_F(Receive, EachFrameTypePostsItsEventWithItsPayload)
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

TEST_F(Receive, LinkResponsesNamingThisSwitchInEitherEdge)
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

TEST_F(Receive, OwnTaggedAndForeignFramesAreDroppedButReturningRingFramesCounted)
{
	make_ring(0, RING_TYPE_FOCAL);
	instances[0].port[PORT_B].hello_enable = 1;
	handle(12, rx_frame(3, ZALK_HELLO, 14, MAC_A)); // our own Hello: not counted
	EXPECT_EQ(instances[0].port[PORT_B].hello_rx, 0u);
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

TEST_F(Receive, FramesFromOtherInterfacesAndDebugLines)
{
	make_ring(0, RING_TYPE_MEMBER);
	make_ring(1, RING_TYPE_MEMBER, 4);
	instances[1].enabled = 0; // given up: its ports are no ring ports
	fake::set_debug(ZALK_DBG);
	handle(99, rx_frame(3, ZALK_LINK_DOWN, 26));
	handle(21, rx_frame(4, ZALK_LINK_DOWN, 26));
	EXPECT_EQ(events(), "");
	EXPECT_EQ(notices(), (Lines{"packet_rcv() - Received invalid port num for ifindex 99\n\n",
				    "packet_rcv() - Received invalid port num for ifindex 21\n\n"}));
	fake::set_debug(ZALK_STATE | ZALK_TRACE | ZALK_TIP);
	clear();
	handle(12, link_response(3, 2, nullptr, OWN));
	EXPECT_EQ(notices(), (Lines{"zalkv2_filter_packet() - eth2 type: 4\n port mac: 02:00:00:00:00:02\n pkt:0e:00:00:00:00:77\n",
				    "zalkv2_recv() - ins: 0 port:eth2 Recevied zalk packet with type Link Response\n",
				    "is_my_link_response() - br mac: 02:00:00:00:00:10 edge mac1:00:00:00:00:00:00 mac2 02:00:00:00:00:10\n",
				    "is_link_response_packet() - ins:0 Link response: 0e:00:00:00:00:77 status: 0x1\n"}));
}

} // namespace
