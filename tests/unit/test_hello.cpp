// Hello qualification against the fake OS: two rings in one process,
// wired back to back by handing the frames one sends to the other.
#include <cstring>
#include <gtest/gtest.h>
#include <poll.h>
#include <syslog.h>
#include <vector>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/hello.h"
#include "ring/channel.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace {

struct Ev {
	uint32_t ins, event;
	bool operator==(const Ev &o) const { return ins == o.ins && event == o.event; }
};

std::ostream &operator<<(std::ostream &os, const Ev &e) { return os << "{" << e.ins << "," << e.event << "}"; }

// Everything posted since the last call, in order.
std::vector<Ev> events()
{
	std::vector<Ev> out;
	int fd = msg_pipe_create();
	for (;;) {
		struct pollfd pfd = {fd, POLLIN, 0};
		if (poll(&pfd, 1, 0) != 1)
			break;
		sm_event ev;
		if (sm_read_event(&ev) != (int)sizeof(ev))
			break;
		out.push_back({ev.instance, ev.event});
	}
	return out;
}

constexpr uint8_t MAC_X[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x0a};
constexpr uint8_t MAC_Y[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x0b};

class Hello : public ::testing::Test {
protected:
	struct ev_loop *loop = ev_default_loop(0);

	void SetUp() override
	{
		fake::reset();
		memset(instances, 0, sizeof(instances));
		zalkv2_hello_timers_init();
		events();
		// X: ring 7 in slot 0, port A eth1 (11), port B eth2 (12).
		// Y: ring 7 in slot 1, port A eth5 (21); its neighbour is X's port A.
		ring(0, MAC_X, {11, 12}, {"eth1", "eth2"});
		ring(1, MAC_Y, {21, -1}, {"eth5", ""});
		fake::clear_records();
	}

	void TearDown() override
	{
		for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
			zalkv2_hello_stop(i, loop);
	}

	void ring(int ins, const uint8_t *base, std::array<int, 2> ifx, std::array<const char *, 2> names)
	{
		zalkv2_instance &in = instances[ins];
		in.index = ins;
		in.enabled = 1;
		in.ring_id = 7;
		in.role = RING_TYPE_MEMBER;
		memcpy(in.base_mac, base, 6);
		for (int p = 0; p < 2; p++) {
			zalkv2_port &port = in.port[p];
			port.instance = &in;
			port.port_index = p;
			port.ifindex = ifx[p];
			snprintf(port.name, sizeof(port.name), "%s", names[p]);
			port.mac[5] = (uint8_t)(ifx[p] & 0xff);
			port.hello_enable = 1;
			port.hello_time_ms = 500;
			port.hello_time = 0.5f;
			port.operstate = ZALK_OPER_UP;
			port.state = PORT_BLOCKING;
		}
		zalkv2_build_frames(ins);
		zalkv2_hello_init(ins);
	}

	zalkv2_port &port(int ins, int p) { return instances[ins].port[p]; }
	void tick(int ins, int p) { send_zalk_trig(loop, &port(ins, p).hello_timer, EV_TIMER); }

	// The last frame sent out of an interface, as the far end receives it.
	std::vector<uint8_t> received_from(int ifindex)
	{
		for (auto it = fake::frames.rbegin(); it != fake::frames.rend(); ++it) {
			if (it->ifindex != ifindex)
				continue;
			std::vector<uint8_t> b = it->bytes;
			EXPECT_EQ(b.size(), 64u);
			EXPECT_EQ(b[12], 0x81);
			b.erase(b.begin() + 12, b.begin() + 16);
			b.resize(64, 0);
			return b;
		}
		ADD_FAILURE() << "nothing sent on " << ifindex;
		return std::vector<uint8_t>(64, 0);
	}

	// X's port A and Y's port A are the two ends of one link.
	int x_to_y() { return is_hello_pkt(1, 21, received_from(11).data()); }
	int y_to_x() { return is_hello_pkt(0, 11, received_from(21).data()); }

	// A Hello as received, with the given status and interval.
	static std::vector<uint8_t> hello_frame(uint16_t status, uint16_t interval)
	{
		std::vector<uint8_t> f(64, 0);
		f[rx_off::TYPE] = ZALK_HELLO;
		f[rx_off::STATUS] = status >> 8;
		f[rx_off::STATUS + 1] = status & 0xff;
		f[rx_off::HELLO_INTERVAL] = interval >> 8;
		f[rx_off::HELLO_INTERVAL + 1] = interval & 0xff;
		memcpy(&f[rx_off::HELLO_SENDER + 2], MAC_Y, 6);
		return f;
	}

	void qualify(int ins, int p)
	{
		port(ins, p).hello_resp = 2;
		hello_set_state(ins, p, HELLO_QUALIFIED);
		events();
		fake::clear_records();
	}
};

TEST_F(Hello, TwoPortsQualifyEachOtherThroughTheQBit)
{
	port(0, PORT_A).state = PORT_FORWARDING;

	tick(0, PORT_A);
	tick(1, PORT_A);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKA1_0}, {1, LINKA1_0}}));

	// First Hellos: nobody has heard anybody yet.
	auto fx = received_from(11);
	EXPECT_EQ(fx[rx_off::TYPE], ZALK_HELLO);
	EXPECT_EQ(fx[rx_off::STATUS + 1], 0x04) << "forwarding bit only, no Q";
	EXPECT_EQ(fx[rx_off::HELLO_INTERVAL], 0x01);
	EXPECT_EQ(fx[rx_off::HELLO_INTERVAL + 1], 0xf4);
	const uint8_t id_x[8] = {0, 0, 0x02, 0x11, 0x22, 0x33, 0x44, 0x0a};
	EXPECT_EQ(0, memcmp(&fx[rx_off::HELLO_SENDER], id_x, 8));
	EXPECT_EQ(received_from(21)[rx_off::STATUS + 1], 0x00);

	ASSERT_EQ(y_to_x(), 1);
	EXPECT_EQ(port(0, PORT_A).hello_resp, 1u);
	EXPECT_EQ(port(0, PORT_A).hello_rx, 1u);
	EXPECT_EQ(port(0, PORT_A).remote_bridge_id[7], 0x0b);

	tick(0, PORT_A); // X heard Y, but Y has not said it hears X
	EXPECT_EQ(port(0, PORT_A).hello_state, HELLO_NO_RESPONSE);
	EXPECT_EQ(received_from(11)[rx_off::STATUS + 1], 0x05) << "Q set once a Hello was heard";
	EXPECT_TRUE(events().empty());

	ASSERT_EQ(x_to_y(), 1);
	EXPECT_EQ(port(1, PORT_A).hello_resp, 2u);
	tick(1, PORT_A);
	EXPECT_EQ(port(1, PORT_A).hello_state, HELLO_QUALIFIED);
	EXPECT_EQ(events(), (std::vector<Ev>{{1, LINKA0_1}}));
	EXPECT_EQ(received_from(21)[rx_off::STATUS + 1], 0x01);

	ASSERT_EQ(y_to_x(), 1);
	tick(0, PORT_A);
	EXPECT_EQ(port(0, PORT_A).hello_state, HELLO_QUALIFIED);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKA0_1}}));
	EXPECT_TRUE(fake::log_texts(LOG_ERR).empty());
}

TEST_F(Hello, LinkComingUpPostsDownEventAtNextTickNotUp)
{
	zalkv2_port &b = port(0, PORT_B);
	b.operstate = ZALK_OPER_DOWN;
	b.hello_resp = 2; // even a neighbour heard before does not qualify it yet
	tick(0, PORT_B);
	EXPECT_EQ(b.hello_state, HELLO_PHY_DOWN);
	EXPECT_TRUE(events().empty());
	EXPECT_TRUE(fake::frames.empty()) << "no Hello while the link is down";
	EXPECT_DOUBLE_EQ(b.hello_timer.repeat, 0.5);

	b.operstate = ZALK_OPER_UP;
	tick(0, PORT_B);
	EXPECT_EQ(b.hello_state, HELLO_NO_RESPONSE);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKB1_0}}));
	ASSERT_EQ(fake::frames.size(), 1u);
	EXPECT_EQ(fake::frames[0].ifindex, 12);

	// The neighbour's Hello makes it qualify at the tick after.
	auto f = hello_frame(0x0001, 500);
	ASSERT_EQ(is_hello_pkt(0, 12, f.data()), 1);
	tick(0, PORT_B);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKB0_1}}));
}

TEST_F(Hello, SilentNeighbourDropsQualificationAfterThreeFastTicks)
{
	zalkv2_port &a = port(0, PORT_A);
	qualify(0, PORT_A);

	tick(0, PORT_A);
	EXPECT_EQ(a.hello_miss, 1u);
	EXPECT_DOUBLE_EQ(a.hello_timer.repeat, HELLO_FAST_RETRY);
	EXPECT_TRUE(ev_is_active(&a.hello_timer));
	tick(0, PORT_A);
	EXPECT_EQ(a.hello_miss, 2u);
	EXPECT_DOUBLE_EQ(a.hello_timer.repeat, HELLO_FAST_RETRY);
	EXPECT_TRUE(events().empty()) << "still qualified after two misses";

	tick(0, PORT_A);
	EXPECT_EQ(a.hello_state, HELLO_NO_RESPONSE);
	EXPECT_EQ(a.hello_miss, 0u);
	EXPECT_DOUBLE_EQ(a.hello_timer.repeat, 0.5);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKA1_0}}));
	EXPECT_EQ(fake::frames.size(), 3u) << "a Hello goes out at every tick";

	// hello_resp is never reset: the first new Hello requalifies.
	EXPECT_EQ(a.hello_resp, 2u);
	auto f = hello_frame(0x0001, 500);
	ASSERT_EQ(is_hello_pkt(0, 11, f.data()), 1);
	tick(0, PORT_A);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKA0_1}}));
}

TEST_F(Hello, QualifiedPortKeepsQualificationOnHellosWithoutQ)
{
	zalkv2_port &a = port(0, PORT_A);
	qualify(0, PORT_A);
	auto f = hello_frame(0x0000, 500);

	tick(0, PORT_A); // one miss, then Hellos come again
	EXPECT_EQ(a.hello_miss, 1u);
	for (int i = 0; i < 5; i++) {
		ASSERT_EQ(is_hello_pkt(0, 11, f.data()), 1);
		tick(0, PORT_A);
		EXPECT_EQ(a.hello_miss, 0u);
		EXPECT_DOUBLE_EQ(a.hello_timer.repeat, 0.5);
	}
	EXPECT_EQ(a.hello_state, HELLO_QUALIFIED);
	EXPECT_EQ(a.hello_resp, 1u);
	EXPECT_TRUE(events().empty());
}

TEST_F(Hello, NeighbourThatNeverSetsQNeverQualifies)
{
	zalkv2_port &a = port(0, PORT_A);
	tick(0, PORT_A);
	events();
	auto f = hello_frame(0x0004, 500); // forwarding, but no Q
	for (int i = 0; i < 10; i++) {
		ASSERT_EQ(is_hello_pkt(0, 11, f.data()), 1);
		tick(0, PORT_A);
	}
	EXPECT_EQ(a.hello_state, HELLO_NO_RESPONSE);
	EXPECT_EQ(a.hello_rx, 10u);
	EXPECT_EQ(a.hello_rx_seen, 10u);
	EXPECT_EQ(a.hello_resp, 1u);
	EXPECT_TRUE(events().empty());
}

TEST_F(Hello, ReceivedHelloRecordsIntervalAndSenderPerPort)
{
	auto slow = hello_frame(0x0001, 1000);
	ASSERT_EQ(is_hello_pkt(0, 12, slow.data()), 1);
	EXPECT_EQ(instances[0].rx_errors[PORT_B].rx_wrong_hello_time, 1000);
	EXPECT_EQ(instances[0].rx_errors[PORT_A].rx_wrong_hello_time, 0);
	EXPECT_EQ(port(0, PORT_B).hello_resp, 2u);
	const uint8_t id_y[8] = {0, 0, 0x02, 0x11, 0x22, 0x33, 0x44, 0x0b};
	EXPECT_EQ(0, memcmp(port(0, PORT_B).remote_bridge_id, id_y, 8));

	auto agreed = hello_frame(0x0000, 500);
	ASSERT_EQ(is_hello_pkt(0, 12, agreed.data()), 1);
	EXPECT_EQ(instances[0].rx_errors[PORT_B].rx_wrong_hello_time, 0);
	EXPECT_EQ(port(0, PORT_B).hello_rx, 2u);

	// Not a Hello, not a port of this ring, or hello off: not taken, not counted.
	auto ring = agreed;
	ring[rx_off::TYPE] = ZALK_RING;
	EXPECT_EQ(is_hello_pkt(0, 12, ring.data()), 0);
	EXPECT_EQ(is_hello_pkt(0, 21, agreed.data()), 0);
	port(0, PORT_B).hello_enable = 0;
	EXPECT_EQ(is_hello_pkt(0, 12, slow.data()), 0);
	EXPECT_EQ(port(0, PORT_B).hello_rx, 2u);
	EXPECT_EQ(instances[0].rx_errors[PORT_B].rx_wrong_hello_time, 0);
}

TEST_F(Hello, HelloSetUpStartsOverFromPhyDown)
{
	zalkv2_port &a = port(0, PORT_A);
	qualify(0, PORT_A);
	a.hello_rx = 4;
	a.hello_rx_seen = 4;
	a.hello_miss_limit = 0;
	a.hello_time = 0.2f;

	zalkv2_hello_init(0);
	EXPECT_EQ(a.hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(a.hello_miss_limit, 3u);
	EXPECT_FLOAT_EQ(a.hello_timer.repeat, 0.2f);
	EXPECT_EQ(a.hello_resp, 2u) << "counters and response survive set-up";
	EXPECT_EQ(a.hello_rx, 4u);
	// Port B was already in HELLO_PHY_DOWN: no second event for it.
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKA1_0}}));

	// Ports without hello or without an interface are left alone.
	zalkv2_port &yb = port(1, PORT_B);
	yb.hello_state = HELLO_QUALIFIED;
	zalkv2_port &ya = port(1, PORT_A);
	ya.hello_enable = 0;
	ya.hello_state = HELLO_QUALIFIED;
	zalkv2_hello_init(1);
	EXPECT_EQ(yb.hello_state, HELLO_QUALIFIED);
	EXPECT_EQ(ya.hello_state, HELLO_QUALIFIED);
	EXPECT_TRUE(events().empty());
}

TEST_F(Hello, StartArmsOnlyHelloPortsAndStopDisarmsBoth)
{
	port(1, PORT_A).hello_enable = 0;
	zalkv2_hello_start(0, loop);
	zalkv2_hello_start(1, loop);
	EXPECT_TRUE(ev_is_active(&port(0, PORT_A).hello_timer));
	EXPECT_TRUE(ev_is_active(&port(0, PORT_B).hello_timer));
	EXPECT_FALSE(ev_is_active(&port(1, PORT_A).hello_timer));
	EXPECT_FALSE(ev_is_active(&port(1, PORT_B).hello_timer)) << "port B has no interface";
	EXPECT_NEAR(ev_timer_remaining(loop, &port(0, PORT_A).hello_timer), 0.5, 0.05);

	zalkv2_hello_stop(0, loop);
	EXPECT_FALSE(ev_is_active(&port(0, PORT_A).hello_timer));
	EXPECT_FALSE(ev_is_active(&port(0, PORT_B).hello_timer));
}

TEST_F(Hello, TickDecidesOnTheStateItStartedWith)
{
	zalkv2_port &a = port(0, PORT_A);
	qualify(0, PORT_A);
	a.operstate = ZALK_OPER_DOWN;
	tick(0, PORT_A);
	EXPECT_EQ(a.hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKA1_0}}));
	// The qualified branch still counted this tick as a miss.
	EXPECT_EQ(a.hello_miss, 1u);
	EXPECT_DOUBLE_EQ(a.hello_timer.repeat, HELLO_FAST_RETRY);
	tick(0, PORT_A);
	EXPECT_EQ(a.hello_miss, 0u);
	EXPECT_TRUE(events().empty());
}

TEST_F(Hello, InvalidStateIsReportedAndResetToPhyDown)
{
	port(0, PORT_A).hello_state = 7;
	tick(0, PORT_A);
	EXPECT_EQ(fake::log_texts(LOG_ERR), std::vector<std::string>{"Invalid state\n"});
	EXPECT_EQ(port(0, PORT_A).hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(events(), (std::vector<Ev>{{0, LINKA1_0}}));
}

TEST_F(Hello, TraceLinesNameTheFunctionAndPort)
{
	fake::set_debug(ZALK_TRACE | ZALK_DBG);
	tick(0, PORT_A);
	auto f = hello_frame(0x0001, 1000);
	is_hello_pkt(0, 11, f.data());
	std::vector<std::string> mine;
	for (auto &t : fake::log_texts(LOG_NOTICE))
		if (t.rfind("send_zalk_trig", 0) == 0 || t.rfind("hello_set_state", 0) == 0 ||
		    t.rfind("is_hello_pkt", 0) == 0)
			mine.push_back(t);
	EXPECT_EQ(mine, (std::vector<std::string>{
				"send_zalk_trig() - ins:0 port:eth1\n",
				"send_zalk_trig() - send_zalk_trig - Call zalkv2_send ins: 0 port: eth1\n",
				"hello_set_state() - eth1 - HELLO_PHY_DOWN -> HELLO_NO_RESPONSE\n",
				"is_hello_pkt() - is_hello_pkt - ins:0 port:eth1\n",
				"is_hello_pkt() - is_hello_pkt - id:0 status:0x1(Q:1) interval: 1000\n",
			}));
}

} // namespace
