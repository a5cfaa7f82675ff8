// What makes a ring link usable, against the fake OS: carrier from
// crafted rtnetlink link messages and a scripted recvmsg, a carrier loss
// outrunning a frame read in the same loop pass, and hello qualification
// (the handshake between two real ports runs in the kernel tests).
#include <linux/if.h>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

void put_attr(Bytes &m, uint16_t type, const void *data, size_t len)
{
	const rtattr rta{(unsigned short)RTA_LENGTH(len), type};
	m.insert(m.end(), (const uint8_t *)&rta, (const uint8_t *)&rta + sizeof(rta));
	m.insert(m.end(), (const uint8_t *)data, (const uint8_t *)data + len);
	m.resize(RTA_ALIGN(m.size()), 0);
}

// One link message as the kernel sends it, padded for the next one.
Bytes link_msg(int ifindex, uint8_t oper, const char *name = "x", uint16_t type = RTM_NEWLINK, uint8_t family = AF_UNSPEC,
	       uint32_t master = 0)
{
	Bytes m(NLMSG_LENGTH(sizeof(ifinfomsg)), 0);
	ifinfomsg ifi{family, 0, 0, ifindex, 0, 0};
	memcpy(&m[NLMSG_HDRLEN], &ifi, sizeof(ifi));
	uint8_t nest[8] = {}; // a nested attribute flagged the way newer kernels flag them
	put_attr(m, IFLA_AF_SPEC | NLA_F_NESTED, nest, sizeof(nest));
	if (name)
		put_attr(m, IFLA_IFNAME, name, strlen(name) + 1);
	put_attr(m, IFLA_OPERSTATE, &oper, 1);
	if (master)
		put_attr(m, IFLA_MASTER, &master, 4);
	nlmsghdr h{(uint32_t)m.size(), type, 0, 0, 0};
	memcpy(&m[0], &h, sizeof(h));
	return m;
}
int feed(Bytes m) { return netlink_listen(nullptr, reinterpret_cast<nlmsghdr *>(m.data()), stdout); }
fake::RecvMsg datagram(std::initializer_list<Bytes> msgs)
{
	fake::RecvMsg d{{}, 0};
	for (auto &m : msgs)
		d.bytes.insert(d.bytes.end(), m.begin(), m.end());
	return d;
}

using LinkMon = Unit;

// Ring 30 in slot 2: port A eth21 (31); 13 is no ring port.
TEST_F(LinkMon, ListenDrainsTheSocketAndStopsAtARefusedMessage)
{
	make_ring(2, RING_TYPE_MEMBER, 30);
	fake::recvmsg_queue = {datagram({link_msg(31, IF_OPER_DOWN), link_msg(13, IF_OPER_DOWN), link_msg(31, IF_OPER_UP)}),
			       datagram({link_msg(31, IF_OPER_DOWN)})};
	EXPECT_EQ(link_listen(&link_rth, netlink_listen, stdout), 0);
	EXPECT_EQ(events(), "2:LINKA1_0 2:LINKA0_1 2:LINKA1_0");
	Bytes done = link_msg(31, IF_OPER_UP); // the end of a dump reads on
	reinterpret_cast<nlmsghdr *>(done.data())->nlmsg_type = NLMSG_DONE;
	EXPECT_EQ(feed(done), 0);
	EXPECT_EQ(fake::recvmsg_calls, 3) << "reads until EAGAIN, no further";

	fake::recvmsg_queue = {datagram({link_msg(31, IF_OPER_UP), link_msg(31, IF_OPER_DOWN, nullptr), link_msg(31, IF_OPER_DOWN)}),
			       datagram({link_msg(31, IF_OPER_DOWN)})};
	testing::internal::CaptureStdout();
	EXPECT_LT(link_listen(&link_rth, netlink_listen, stdout), 0);
	testing::internal::GetCapturedStdout();
	EXPECT_EQ(events(), "2:LINKA0_1");
	EXPECT_EQ(fake::recvmsg_calls, 4);
}

// One loop pass with a frame waiting on a ring port and a carrier loss
// waiting on the link monitor: the carrier loss reaches the event channel
// first, whichever descriptor libev saw first.
TEST_F(LinkMon, CarrierLossIsPostedBeforeFramesReadInTheSamePass)
{
	make_ring(0, RING_TYPE_MEMBER);
	zalkv2_init_sockets();
	for (int first_frame = 0; first_frame < 2; first_frame++) {
		ASSERT_EQ(zalkv2_open_port_socket(&instances[0].port[PORT_A]), 0);
		instances[0].port[PORT_B].operstate = ZALK_OPER_UP;
		fake::rx_queue.push_back({11, rx_frame(3, ZALK_LINK_DOWN, 26), ZALK_MGNT_VLAN});
		fake::recvmsg_queue.push_back(datagram({link_msg(12, IF_OPER_DOWN)}));
		ev_io *w[2] = {&instances[0].port[PORT_A].rx_watcher, &link_watcher};
		ev_feed_event(loop, w[!first_frame], EV_READ);
		ev_feed_event(loop, w[first_frame], EV_READ);
		ev_invoke_pending(loop);
		EXPECT_EQ(events(), "0:LINKB1_0 0:RX_LINKA_0") << "frame seen first: " << first_frame;
	}
}

// Which link messages start the check that sets rings up again: those telling of br0 or a ring port
// deleted, created under another index or moved to another master; not the rings' own bridge's news,
// nor the bridge family's repeats, nor a ring port's carrier.
TEST_F(LinkMon, ReCreatedBridgeOrRingPortStartsTheRepairCheck)
{
	make_ring(0, RING_TYPE_MEMBER); // eth1 11, eth2 12, br0 2
	instances[0].port[PORT_A].master = instances[0].port[PORT_B].master = 2;
	ev_timer_init(&world_timer, [](struct ev_loop *, ev_timer *, int) {}, 1., 0.);
	struct {
		Bytes msg;
		bool starts;
	} const cases[] = {
		{link_msg(11, IF_OPER_DOWN, "eth1", RTM_NEWLINK, AF_UNSPEC, 2), false},
		{link_msg(2, IF_OPER_UP, "br0"), false},
		{link_msg(11, IF_OPER_DOWN, "eth1", RTM_DELLINK, AF_BRIDGE, 2), false},
		{link_msg(31, IF_OPER_DOWN, "eth11"), false},
		{link_msg(11, IF_OPER_DOWN, "eth1", RTM_DELLINK), true},
		{link_msg(41, IF_OPER_DOWN, "eth2", RTM_NEWLINK, AF_UNSPEC, 2), true},
		{link_msg(12, IF_OPER_UP, "eth2"), true},
		{link_msg(12, IF_OPER_UP, "eth2", RTM_NEWLINK, AF_UNSPEC, 7), true},
		{link_msg(2, IF_OPER_DOWN, "br0", RTM_DELLINK), true},
		{link_msg(7, IF_OPER_UP, "br0"), true},
	};
	for (auto &c : cases) {
		ev_timer_stop(loop, &world_timer);
		feed(c.msg);
		EXPECT_EQ(ev_is_active(&world_timer) != 0, c.starts) << hex(c.msg);
	}
	ev_timer_stop(loop, &world_timer);
}

// A link report's port files tell of the report before the ring logic
// reacts to it: carrier back on a focal point's port B without hello,
// carrier lost on a bus-edge member's only port.
TEST_F(LinkMon, PortFilesOfAReportAreWrittenBeforeItsEvent)
{
	make_ring(0, RING_TYPE_FOCAL);
	zalkv2_instance &m = make_ring(1, RING_TYPE_MEMBER, 4, false);
	m.port[PORT_A].link = 1;
	m.ring_state = DOWN_NET_MEMBER; // no state change: nothing else writes the files
	instances[0].port[PORT_B].operstate = ZALK_OPER_DOWN;
	zalkv2_link_changed(&instances[0].port[PORT_B], 1);
	dispatch();
	zalkv2_link_changed(&instances[1].port[PORT_A], 0);
	dispatch();
	EXPECT_EQ(fake::read_file("/var/run/zalkv2/3/eth2/link") + fake::read_file("/var/run/zalkv2/3/eth2/logical_state") +
			  fake::read_file("/var/run/zalkv2/4/eth11/link"),
		  "0Not Qualified1");
}

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
	static void receive(int ifindex, const Bytes &f) { zalkv2_handle_frame(ifindex, ZALK_MGNT_VLAN, f.data(), f.size()); }
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
	receive(12, hello(1, 500));
	hello_tick(0, PORT_B);
	EXPECT_EQ(events(), "0:LINKB0_1");
}

TEST_F(Hello, SilentNeighbourDropsQualificationAfterTwoFastRetries)
{
	zalkv2_port &a = port(PORT_A);
	a.hello_resp = 2; // qualified
	hello_set_state(0, PORT_A, HELLO_QUALIFIED);
	events();
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
	receive(11, hello(1, 500)); // hello_resp is kept: the first new Hello requalifies
	hello_tick(0, PORT_A);
	EXPECT_EQ(events(), "0:LINKA0_1");
}

} // namespace
