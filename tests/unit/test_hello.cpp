// Hello qualification details against the fake OS (the handshake between
// two real ports runs in the kernel tests).
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

class Hello : public Unit {
protected:
	// Ring 7 in slot 0 (eth1/eth2, 11/12) and slot 1 (eth11, 21), hello on.
	void SetUp() override
	{
		Unit::SetUp();
		for (int ins : {0, 1}) {
			make_ring(ins, RING_TYPE_MEMBER, 7, ins == 0);
			instances[ins].port[PORT_A].hello_enable = instances[ins].port[PORT_B].hello_enable = 1;
			zalkv2_hello_init(ins);
		}
		events();
		clear();
	}
	zalkv2_port &port(int p) { return instances[0].port[p]; }
	// A Hello as received from slot 1's switch, with the given status and interval.
	static Bytes hello(uint16_t status, uint16_t interval)
	{
		Bytes f = rx_frame(7, ZALK_HELLO, 14);
		f[rx_off::STATUS + 1] = (uint8_t)status;
		f[rx_off::HELLO_INTERVAL] = interval >> 8;
		f[rx_off::HELLO_INTERVAL + 1] = interval & 0xff;
		const uint8_t y[8] = {0, 0, 0x02, 0, 0, 0, 0, 0x11};
		memcpy(&f[rx_off::HELLO_SENDER], y, 8);
		return f;
	}
	zalkv2_port &qualified(int p)
	{
		port(p).hello_resp = 2;
		hello_set_state(0, p, HELLO_QUALIFIED);
		events();
		clear();
		return port(p);
	}
};

TEST_F(Hello, LinkComingUpPostsDownAtTheNextTickAndQualifiesOnlyAfterAHello)
{
	zalkv2_port &b = port(PORT_B);
	b.operstate = ZALK_OPER_DOWN;
	b.hello_resp = 2; // even a neighbour heard before does not qualify it yet
	hello_tick(0, PORT_B);
	EXPECT_EQ(events() + sent(), "") << "no Hello while the link is down";
	b.operstate = ZALK_OPER_UP;
	hello_tick(0, PORT_B);
	EXPECT_EQ(b.hello_state, HELLO_NO_RESPONSE);
	EXPECT_DOUBLE_EQ(b.hello_timer.repeat, 0.5);
	EXPECT_EQ(events(), "0:LINKB1_0");
	ASSERT_EQ(sent(), "Hello@12"); // Q from the earlier answer, 500 ms, own id
	EXPECT_EQ(hex(fake::frames[0].bytes, 28, 18), "010e" "0001" "01f4" "0000020000000010" "00000000");
	EXPECT_EQ(is_hello_pkt(0, 21, hello(1, 500).data()), 0) << "a port of another ring";
	ASSERT_EQ(is_hello_pkt(0, 12, hello(1, 500).data()), 1);
	hello_tick(0, PORT_B);
	EXPECT_EQ(events(), "0:LINKB0_1");
}

TEST_F(Hello, SilentNeighbourDropsQualificationAfterTwoFastRetries)
{
	zalkv2_port &a = qualified(PORT_A);
	for (uint32_t miss = 1; miss <= 2; miss++) {
		hello_tick(0, PORT_A);
		EXPECT_EQ(a.hello_miss, miss);
		EXPECT_DOUBLE_EQ(a.hello_timer.repeat, HELLO_FAST_RETRY);
	}
	EXPECT_EQ(events(), "") << "still qualified after two misses";
	hello_tick(0, PORT_A);
	EXPECT_EQ(a.hello_state, HELLO_NO_RESPONSE);
	EXPECT_EQ(a.hello_miss, 0u);
	EXPECT_DOUBLE_EQ(a.hello_timer.repeat, 0.5);
	EXPECT_EQ(events(), "0:LINKA1_0");
	ASSERT_EQ(is_hello_pkt(0, 11, hello(1, 500).data()), 1); // hello_resp is kept: the first new Hello requalifies
	hello_tick(0, PORT_A);
	EXPECT_EQ(events(), "0:LINKA0_1");
}

TEST_F(Hello, InitStartsOverAndATickDecidesOnTheStateItStartedWith)
{
	zalkv2_port &a = qualified(PORT_A);
	a.operstate = ZALK_OPER_DOWN;
	hello_tick(0, PORT_A);
	EXPECT_EQ(a.hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(events(), "0:LINKA1_0");
	EXPECT_EQ(a.hello_miss, 1u); // the qualified branch still counted this tick as a miss
	EXPECT_DOUBLE_EQ(a.hello_timer.repeat, HELLO_FAST_RETRY);
	a.hello_state = 7;
	clear();
	hello_tick(0, PORT_A);
	EXPECT_EQ(errors(), Lines{"Invalid state\n"});
	EXPECT_EQ(a.hello_state, HELLO_PHY_DOWN);

	qualified(PORT_A);
	a.operstate = ZALK_OPER_UP;
	a.hello_rx = 4;
	a.hello_time = 0.2f;
	zalkv2_hello_init(0); // starts over from HELLO_PHY_DOWN; counters and response survive
	EXPECT_EQ(a.hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(a.hello_miss_limit, 3u);
	EXPECT_FLOAT_EQ(a.hello_timer.repeat, 0.2f);
	EXPECT_EQ(a.hello_resp + a.hello_rx, 6u);
	EXPECT_EQ(events(), "0:LINKA1_0"); // port B was already down: no second event
}

} // namespace
