// The focal point's life: supervision with Ring frames, opening on a
// broken ring (plain and guarded), closing again after the response delay.
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

const std::string CLOSED = "12=BLOCKING 11=FORWARDING 11:flush 12:flush";

class Focal : public Unit {
protected:
	// As configuration leaves it: both links up, port B blocked, RING_FAIL_NET_FOCAL forced.
	void SetUp() override
	{
		Unit::SetUp();
		make_ring(0, RING_TYPE_FOCAL);
		links(0, 1, 1);
		focal_config_ring_topology(0, RING_FAIL_NET_FOCAL, 1);
	}
	// One ring check, the own frames back on both ports or not; the events it posted, handled.
	int tick(bool back)
	{
		instances[0].port[PORT_A].rx_ring += back;
		instances[0].port[PORT_B].rx_ring += back;
		ring_tick(0);
		return dispatch();
	}
	// Bridge requests and frames, in the order they left: opening the
	// ring or telling others about it must follow the port states.
	std::string order;
	void record_order()
	{
		order.clear();
		fake::talk_hook = [this](const nlmsghdr *n) { order += describe(n) + " "; return 0; };
		fake::send_hook = [this](const fake::Frame &f) { order += zalk_frame_type_name(f.bytes.at(28)) + ("@" + std::to_string(f.ifindex)) + " "; };
	}
	void silent(int n)
	{
		for (int i = 0; i < n; i++)
			ASSERT_EQ(tick(false), 0) << "interval " << i + 1;
	}
};

TEST_F(Focal, ReturningFramesCloseTheRingAndTheFourthSilentIntervalOpensIt)
{
	EXPECT_EQ(bridge(), CLOSED);
	EXPECT_EQ(state_file(), "Ring Fail");
	clear();
	EXPECT_EQ(tick(false), 0);
	EXPECT_EQ(sent(), "Ring@11 Ring@12");
	clear();
	EXPECT_EQ(tick(true), 2); // RX_PCK per port; the second changes nothing
	EXPECT_EQ(state_file(), "Ring Ok");
	EXPECT_EQ(bridge(), CLOSED);
	silent(3);
	make_ring(1, RING_TYPE_MEMBER, 4);
	record_order();
	EXPECT_EQ(tick(false), 2);
	EXPECT_EQ(state_file(), "Broken");
	EXPECT_EQ(order, "Ring@11 Ring@12 12=FORWARDING 11=FORWARDING 11:flush 12:flush Flush@21 Flush@22 ");
	record_order(); // later timeouts are ignored while broken
	EXPECT_EQ(tick(false), 2);
	EXPECT_EQ(order, "Ring@11 Ring@12 ");
}

TEST_F(Focal, GuardedStaysBlockedSendsTrigAndOpensOnlyOnLinkDown)
{
	instances[0].guarded_recovery = 1;
	tick(true);
	silent(3);
	record_order();
	tick(false);
	EXPECT_EQ(state_file(), "Ring Fail");
	EXPECT_EQ(order, "Ring@11 Ring@12 " + CLOSED + " Trig@11 Trig@12 Trig@11 Trig@12 ");
	clear();
	tick(false);
	EXPECT_EQ(bridge() + sent(), "Ring@11 Ring@12 Trig@11 Trig@12 Trig@11 Trig@12");
	clear(); // a member answers the Trig with a Link Down frame on port B
	event(0, RX_LINKB_0);
	EXPECT_EQ(sent(), "Flush@11");
	EXPECT_EQ(state_file(), "Broken");
	EXPECT_EQ(bridge(), "12=FORWARDING 11=FORWARDING 11:flush 12:flush");
}

TEST_F(Focal, FramesReturningFourIntervalsWhileBrokenGiveRingFailThenOk)
{
	focal_config_ring_topology(0, BROKEN_NET_FOCAL, 1);
	clear();
	for (int i = 0; i < 3; i++)
		ASSERT_EQ(tick(true), 0) << "interval " << i + 1;
	record_order();
	EXPECT_EQ(tick(true), 2); // RX_PACKET_BUS per port
	EXPECT_EQ(state_file(), "Ring Fail");
	EXPECT_EQ(order, "Ring@11 Ring@12 " + CLOSED + " Trig@11 Trig@12 Trig@11 Trig@12 ");
	tick(true);
	EXPECT_EQ(state_file(), "Ring Ok");
}

TEST_F(Focal, ReturningLinkIsAnsweredAtTheNPlus4thTickWithBothEdges)
{
	links(0, 1, 0);
	focal_config_ring_topology(0, BROKEN_NET_FOCAL, 1);
	event(0, RX_LINKA_1, link_up_payload(0x01));
	event(0, RX_LINKA_1, link_up_payload(0x01)); // repeated, remembered once
	event(0, RX_LINKB_1, link_up_payload(0x02));
	event(0, LINKB0_1);
	clear();
	for (uint32_t t = 1; t < instances[0].response_delay + 4; t++)
		hold_tick();
	EXPECT_EQ(sent() + bridge(), "");
	miss_count[0][PORT_A] = 7;
	hold_tick();
	EXPECT_EQ(state_file(), "Ring Ok");
	EXPECT_EQ(bridge(), CLOSED);
	ASSERT_EQ(sent(), "Link Response@11 Link Response@12");
	for (auto &f : fake::frames) // status 1, slot 0 the later sender, slot 1 the first
		EXPECT_EQ(hex(f.bytes, 30, 26), "0001" "000002000000" "0010" "000002aa00000002" "000002aa00000001");
	EXPECT_EQ(miss_count[0][PORT_A], 0u);
	EXPECT_EQ(instances[0].link_up_pending + instances[0].hold_state, 0u);
	clear();
	for (int t = 0; t < 40; t++)
		hold_tick();
	EXPECT_EQ(sent(), "");
}

} // namespace
