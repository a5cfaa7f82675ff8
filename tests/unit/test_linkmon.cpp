// Link monitoring against the fake OS: crafted rtnetlink link messages,
// the receive loop fed from a scripted recvmsg, and a carrier loss
// outrunning a frame read in the same loop pass.
#include <cerrno>
#include <linux/if.h>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

constexpr int NO_OPER = -1;

void put_attr(Bytes &m, uint16_t type, const void *data, size_t len)
{
	const rtattr rta{(unsigned short)RTA_LENGTH(len), type};
	m.insert(m.end(), (const uint8_t *)&rta, (const uint8_t *)&rta + sizeof(rta));
	m.insert(m.end(), (const uint8_t *)data, (const uint8_t *)data + len);
	m.resize(RTA_ALIGN(m.size()), 0);
}

// One link message as the kernel sends it, padded for the next one.
Bytes link_msg(int ifindex, int oper, const char *name = "x", uint16_t type = RTM_NEWLINK, uint8_t family = AF_UNSPEC)
{
	Bytes m(NLMSG_LENGTH(sizeof(ifinfomsg)), 0);
	ifinfomsg ifi{family, 0, 0, ifindex, 0, 0};
	memcpy(&m[NLMSG_HDRLEN], &ifi, sizeof(ifi));
	uint8_t nest[8] = {}; // a nested attribute flagged the way newer kernels flag them
	put_attr(m, IFLA_AF_SPEC | NLA_F_NESTED, nest, sizeof(nest));
	if (name)
		put_attr(m, IFLA_IFNAME, name, strlen(name) + 1);
	uint8_t op = (uint8_t)oper;
	if (oper != NO_OPER)
		put_attr(m, IFLA_OPERSTATE, &op, 1);
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

class LinkMon : public Unit {
protected:
	// Slot 2, ring 30: port A eth21 (31) without hello, port B eth22 (32,
	// not running) with hello; eth9 (13) is no ring port.
	void SetUp() override
	{
		Unit::SetUp();
		make_ring(2, RING_TYPE_MEMBER, 30);
		port(PORT_B).hello_enable = 1;
		fake::iface_by_index(32)->running = false;
		const uint8_t mac[6] = {2, 0, 0, 0, 0, 9};
		fake::add_iface("eth9", 13, mac);
		netsock = 42;
	}
	zalkv2_port &port(int p) { return instances[2].port[p]; }
};

TEST_F(LinkMon, ListenDrainsTheSocketAndStopsAtARefusedMessageOrAnError)
{
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

	const std::pair<int, std::string> errs[] = {{EAGAIN, ""},
						    {EINTR, ""},
						    {ENOBUFS, "netlink receive error No buffer space available (105)\n\n"},
						    {EBADF, "netlink receive error Bad file descriptor (9)\n\n"},
						    {0, "EOF on netlink\n\n"}}; // no bytes, no error: end of file
	for (auto &[err, logged] : errs) {
		clear();
		fake::recvmsg_queue = {{{}, err}, datagram({link_msg(31, IF_OPER_DOWN)})};
		EXPECT_EQ(link_listen(&link_rth, netlink_listen, stdout), err == EBADF || err == 0 ? -1 : 0) << err;
		EXPECT_EQ(join(errors()), logged) << err;
		EXPECT_EQ(fake::recvmsg_queue.size(), 1u) << "returns at once on errno " << err;
	}
	EXPECT_EQ(events(), "");
}

// One loop pass with a frame waiting on a ring port and a carrier loss
// waiting on the link monitor: the carrier loss reaches the event channel
// first, whichever descriptor libev saw first.
using Priorities = Unit;

TEST_F(Priorities, CarrierLossIsPostedBeforeFramesReadInTheSamePass)
{
	make_ring(0, RING_TYPE_MEMBER);
	zalkv2_init_sockets();
	for (int first_frame = 0; first_frame < 2; first_frame++) {
		ASSERT_EQ(zalkv2_open_port_socket(&instances[0].port[PORT_A]), 0);
		instances[0].port[PORT_B].operstate = ZALK_OPER_UP;
		fake::rx_queue.push_back({11, rx_frame(3, ZALK_LINK_DOWN, 26)});
		fake::recvmsg_queue.push_back(datagram({link_msg(12, IF_OPER_DOWN)}));
		ev_io *w[2] = {&instances[0].port[PORT_A].rx_watcher, &link_watcher};
		ev_feed_event(loop, w[!first_frame], EV_READ);
		ev_feed_event(loop, w[first_frame], EV_READ);
		ev_invoke_pending(loop);
		EXPECT_EQ(events(), "0:LINKB1_0 0:RX_LINKA_0") << "frame seen first: " << first_frame;
	}
}

} // namespace
