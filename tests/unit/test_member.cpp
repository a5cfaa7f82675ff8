// The member's life: links coming up one after the other, the
// announcement of a returning link, the answer or the forward delay, and
// the Link Down reports.
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

class Member : public Unit {
protected:
	void SetUp() override
	{
		Unit::SetUp();
		make_ring(0, RING_TYPE_MEMBER);
		const uint8_t b_remote[8] = {0, 0, 0x02, 0xbb, 0, 0, 0, 0x0b};
		memcpy(instances[0].port[PORT_B].remote_bridge_id, b_remote, 8);
		member_config_ring_topology(0, DOWN_NET_MEMBER, 0); // as configuration does
		clear();
	}
	// Ticks of the announcement, each expected to send Link Up on both ports and change nothing else.
	void announcing(int ticks)
	{
		for (int t = 0; t < ticks; t++) {
			clear();
			member_tick();
			ASSERT_FALSE(readable()) << "tick " << t + 1;
			ASSERT_EQ(sent() + bridge(), "Link Up@11 Link Up@12") << "tick " << t + 1;
		}
	}
	void stopped()
	{
		clear();
		member_tick();
		EXPECT_EQ(sent(), "");
		EXPECT_FALSE(ev_is_active(&member_timer));
	}
};

TEST_F(Member, LinksComeUpAnnouncementRunsAnswerOpensBothPorts)
{
	event(0, LINKA0_1);
	EXPECT_EQ(state_file(), "Broken");
	EXPECT_EQ(bridge() + sent(), "12=BLOCKING 11=FORWARDING 11:flush 12:flush");
	clear();
	event(0, LINKB0_1);
	EXPECT_EQ(bridge() + sent(), "Link Up@11 Link Up@12"); // port B stays blocked
	for (auto &f : fake::frames) // own id, no first id, the neighbour behind the blocked port B
		EXPECT_EQ(hex(f.bytes, 30, 24), "0000020000000010" "0000000000000000" "000002bb0000000b");
	announcing(3);
	EXPECT_EQ(instances[0].fwd_cnt, 3);
	clear();
	event(0, RX_LINK_RESPONSE);
	EXPECT_EQ(state_file(), "Ok");
	EXPECT_EQ(bridge(), "12=FORWARDING 11=FORWARDING 11:flush 12:flush");
	stopped();
}

// A forward delay opens the returning port on its own after D ticks of
// announcement (at the D+1th); 0 waits for the focal point's answer.
TEST_F(Member, ForwardDelayOpensAfterItsTicksAndZeroWaitsForever)
{
	instances[0].port[PORT_A].fwd_delay = 3;
	event(0, LINKA0_1);
	event(0, LINKB0_1);
	announcing(3);
	clear();
	member_tick();
	EXPECT_EQ(dispatch(), 1);
	EXPECT_EQ(state_file(), "Ok");
	EXPECT_EQ(bridge(), "12=FORWARDING 11=FORWARDING 11:flush 12:flush");
	stopped();
	instances[0].port[PORT_A].fwd_delay = 0;
	event(0, LINKB1_0);
	event(0, LINKB0_1);
	announcing(50);
}

TEST_F(Member, TrigIsAnsweredWithLinkDownPerDownLinkAndLinkUpByTheEdge)
{
	event(0, FOCAL_TRIG); // each down link reported towards the other port
	EXPECT_EQ(sent(), "Link Down@12 Link Down@11");
	event(0, LINKA0_1);
	clear(); // an edge for port A answers a Link Up frame there, not on port B
	event(0, RX_LINKB_1, link_up_payload(0x07));
	event(0, RX_LINKA_1, link_up_payload(0x07));
	ASSERT_EQ(sent(), "Link Response@11");
	EXPECT_EQ(hex(fake::frames[0].bytes, 40, 8), "000002aa00000007");
}

} // namespace
