// One loop pass with a frame waiting on a ring port and a carrier loss
// waiting on the link monitor: the carrier loss reaches the event channel
// first, whichever descriptor libev saw first.
#include <linux/rtnetlink.h>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

class Priorities : public Unit {};

// RTM_NEWLINK for ifindex with IFLA_IFNAME "x" and IFLA_OPERSTATE down.
Bytes carrier_loss(int ifindex)
{
	Bytes m(NLMSG_LENGTH(sizeof(ifinfomsg)) + 2 * RTA_SPACE(2), 0);
	reinterpret_cast<ifinfomsg *>(&m[NLMSG_HDRLEN])->ifi_index = ifindex;
	auto *name = reinterpret_cast<rtattr *>(&m[NLMSG_LENGTH(sizeof(ifinfomsg))]);
	*name = {RTA_LENGTH(2), IFLA_IFNAME};
	memcpy(RTA_DATA(name), "x", 2);
	auto *oper = reinterpret_cast<rtattr *>(&m[NLMSG_LENGTH(sizeof(ifinfomsg)) + RTA_SPACE(2)]);
	*oper = {RTA_LENGTH(1), IFLA_OPERSTATE};
	*(uint8_t *)RTA_DATA(oper) = ZALK_OPER_DOWN;
	*reinterpret_cast<nlmsghdr *>(&m[0]) = {(uint32_t)m.size(), RTM_NEWLINK, 0, 0, 0};
	return m;
}

TEST_F(Priorities, CarrierLossIsPostedBeforeFramesReadInTheSamePass)
{
	make_ring(0, RING_TYPE_MEMBER);
	zalkv2_init_sockets();
	for (int first_frame = 0; first_frame < 2; first_frame++) {
		ASSERT_EQ(zalkv2_open_port_socket(&instances[0].port[PORT_A]), 0);
		instances[0].port[PORT_B].operstate = ZALK_OPER_UP;
		fake::rx_queue.push_back({11, rx_frame(3, ZALK_LINK_DOWN, 26)});
		fake::recvmsg_queue.push_back({carrier_loss(12), 0});
		ev_io *w[2] = {&instances[0].port[PORT_A].rx_watcher, &link_watcher};
		ev_feed_event(loop, w[!first_frame], EV_READ);
		ev_feed_event(loop, w[first_frame], EV_READ);
		ev_invoke_pending(loop);
		EXPECT_EQ(events(), "0:LINKB1_0 0:RX_LINKA_0") << "frame seen first: " << first_frame;
	}
}

} // namespace
