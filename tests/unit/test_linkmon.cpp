// Link monitoring against the fake OS: crafted rtnetlink link messages,
// and the receive loop fed from a scripted recvmsg.
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <syslog.h>
#include <vector>

#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "ring/channel.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace {

struct Ev {
	uint32_t ins, event;
	bool operator==(const Ev &o) const { return ins == o.ins && event == o.event; }
};

std::ostream &operator<<(std::ostream &os, const Ev &e) { return os << "{" << e.ins << "," << e.event << "}"; }

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

constexpr int NO_OPER = -1;

void put_attr(std::vector<uint8_t> &m, uint16_t type, const void *data, size_t len)
{
	struct rtattr rta;
	rta.rta_len = (unsigned short)RTA_LENGTH(len);
	rta.rta_type = type;
	size_t at = m.size();
	m.resize(at + RTA_SPACE(len), 0);
	memcpy(&m[at], &rta, sizeof(rta));
	memcpy(&m[at + RTA_LENGTH(0)], data, len);
}

// One link message as the kernel sends it.
std::vector<uint8_t> link_msg(int ifindex, int oper, const char *name = "x", uint16_t type = RTM_NEWLINK,
			      uint8_t family = AF_UNSPEC)
{
	std::vector<uint8_t> m(NLMSG_LENGTH(sizeof(struct ifinfomsg)), 0);
	struct ifinfomsg ifi = {};
	ifi.ifi_family = family;
	ifi.ifi_index = ifindex;
	memcpy(&m[NLMSG_HDRLEN], &ifi, sizeof(ifi));
	uint32_t mtu = 1500;
	put_attr(m, IFLA_MTU, &mtu, 4);
	// A nested attribute flagged the way newer kernels flag them.
	uint8_t nest[8] = {};
	put_attr(m, IFLA_AF_SPEC | NLA_F_NESTED, nest, sizeof(nest));
	if (name)
		put_attr(m, IFLA_IFNAME, name, strlen(name) + 1);
	if (oper != NO_OPER) {
		uint8_t op = (uint8_t)oper;
		put_attr(m, IFLA_OPERSTATE, &op, 1);
	}
	struct nlmsghdr h = {};
	h.nlmsg_len = (uint32_t)m.size();
	h.nlmsg_type = type;
	memcpy(&m[0], &h, sizeof(h));
	return m;
}

int feed(std::vector<uint8_t> m)
{
	return netlink_listen(nullptr, reinterpret_cast<struct nlmsghdr *>(m.data()), stdout);
}

std::vector<uint8_t> datagram(std::initializer_list<std::vector<uint8_t>> msgs)
{
	std::vector<uint8_t> d;
	for (auto &m : msgs) {
		d.insert(d.end(), m.begin(), m.end());
		d.resize(NLMSG_ALIGN(d.size()), 0);
	}
	return d;
}

constexpr uint8_t MAC[6] = {0x02, 0, 0, 0, 0, 1};

class LinkMon : public ::testing::Test {
protected:
	void SetUp() override
	{
		fake::reset();
		memset(instances, 0, sizeof(instances));
		zalkv2_hello_timers_init();
		events();
		netsock = 42;
		fake::add_iface("eth1", 11, MAC, true);
		fake::add_iface("eth2", 12, MAC, false);
		fake::add_iface("eth3", 13, MAC, true);
		// Slot 2, ring 30: port A eth1 without hello, port B eth2 with hello.
		ring(2, 30, 11, "eth1", 0, 12, "eth2", 1);
		fake::clear_records();
	}

	void TearDown() override
	{
		for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
			zalkv2_hello_stop(i, ev_default_loop(0));
	}

	void ring(int ins, int id, int ifa, const char *na, int ha, int ifb, const char *nb, int hb)
	{
		zalkv2_instance &in = instances[ins];
		in.index = ins;
		in.ring_id = id;
		in.role = RING_TYPE_MEMBER;
		const int ifx[2] = {ifa, ifb};
		const char *names[2] = {na, nb};
		const int hello[2] = {ha, hb};
		for (int p = 0; p < 2; p++) {
			zalkv2_port &port = in.port[p];
			port.instance = &in;
			port.port_index = p;
			port.ifindex = ifx[p];
			snprintf(port.name, sizeof(port.name), "%s", names[p]);
			port.hello_enable = hello[p];
			port.hello_time_ms = 500;
			port.hello_time = 0.5f;
			port.state = PORT_BLOCKING;
		}
		in.enabled = 1;
		zalk_status_setup(ins);
	}

	zalkv2_port &port(int p) { return instances[2].port[p]; }
};

TEST_F(LinkMon, PortWithoutHelloPostsOnEveryNewOperationalState)
{
	EXPECT_EQ(feed(link_msg(11, IF_OPER_DOWN)), 0);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA1_0}}));
	EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_DOWN);
	EXPECT_TRUE(fake::file_exists("/var/run/zalkv2/30/eth1/link")) << "port status rewritten on a report";

	EXPECT_EQ(feed(link_msg(11, IF_OPER_DOWN)), 0);
	EXPECT_TRUE(events().empty()) << "same state again: nothing";

	// Stored states are only 2 or 6, so lower-layer-down counts as new.
	EXPECT_EQ(feed(link_msg(11, IF_OPER_LOWERLAYERDOWN, "x", RTM_DELLINK)), 0);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA1_0}}));
	EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_DOWN);

	EXPECT_EQ(feed(link_msg(11, IF_OPER_UP, "x", RTM_NEWLINK, AF_BRIDGE)), 0);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA0_1}}));
	EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_UP);
}

TEST_F(LinkMon, OperationalStatesBelowUpCountAsDownAndUnknownOnesAreIgnored)
{
	for (int op : {IF_OPER_TESTING, IF_OPER_DORMANT, IF_OPER_UNKNOWN, IF_OPER_NOTPRESENT}) {
		port(PORT_A).operstate = ZALK_OPER_UP;
		EXPECT_EQ(feed(link_msg(11, op)), 0);
		EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA1_0}})) << "operstate " << op;
	}
	for (int op : {7, 8, 255}) {
		EXPECT_EQ(feed(link_msg(11, op)), 0);
		EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_DOWN);
	}
	EXPECT_TRUE(events().empty());
}

TEST_F(LinkMon, PortWithHelloLeavesTheLinkEventsToHello)
{
	zalkv2_port &b = port(PORT_B);
	EXPECT_EQ(feed(link_msg(12, IF_OPER_UP)), 0);
	EXPECT_EQ(b.operstate, ZALK_OPER_UP);
	EXPECT_TRUE(events().empty()) << "up: qualification decides";
	EXPECT_EQ(b.hello_state, HELLO_PHY_DOWN);

	hello_set_state(2, PORT_B, HELLO_QUALIFIED);
	events();
	EXPECT_EQ(feed(link_msg(12, IF_OPER_DOWN)), 0);
	EXPECT_EQ(b.hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKB1_0}}));

	// Down again while already in HELLO_PHY_DOWN: state applied, no event.
	b.operstate = ZALK_OPER_UP;
	EXPECT_EQ(feed(link_msg(12, IF_OPER_LOWERLAYERDOWN)), 0);
	EXPECT_EQ(b.operstate, ZALK_OPER_DOWN);
	EXPECT_TRUE(events().empty());
}

TEST_F(LinkMon, MessagesNotAboutARingPortLinkAreIgnored)
{
	EXPECT_EQ(feed(link_msg(13, IF_OPER_DOWN)), 0) << "not a ring port";
	EXPECT_EQ(feed(link_msg(11, IF_OPER_DOWN, "x", RTM_NEWLINK, AF_INET)), 0);
	EXPECT_EQ(feed(link_msg(11, IF_OPER_DOWN, "x", RTM_NEWADDR)), 0);
	EXPECT_EQ(feed(link_msg(11, NO_OPER)), 0) << "no operational state";
	instances[2].enabled = 0;
	EXPECT_EQ(feed(link_msg(11, IF_OPER_DOWN)), 0) << "ring not enabled";
	EXPECT_TRUE(events().empty());
	EXPECT_EQ(port(PORT_A).operstate, 0u);
	EXPECT_TRUE(fake::logs.empty());
}

TEST_F(LinkMon, BrokenMessagesEndTheRead)
{
	testing::internal::CaptureStdout();
	EXPECT_EQ(feed(link_msg(11, IF_OPER_DOWN, nullptr)), -1);
	EXPECT_EQ(testing::internal::GetCapturedStdout(), "BUG: nil ifname\n");

	auto shortmsg = link_msg(11, IF_OPER_DOWN);
	reinterpret_cast<struct nlmsghdr *>(shortmsg.data())->nlmsg_len = NLMSG_HDRLEN + 8;
	EXPECT_EQ(feed(shortmsg), -1);

	auto done = link_msg(11, IF_OPER_DOWN);
	reinterpret_cast<struct nlmsghdr *>(done.data())->nlmsg_type = NLMSG_DONE;
	EXPECT_EQ(feed(done), 0);
	EXPECT_TRUE(events().empty());
}

TEST_F(LinkMon, TraceLinesOfLinkChanges)
{
	fake::set_debug(ZALK_STATE);
	feed(link_msg(11, IF_OPER_DOWN));
	feed(link_msg(11, IF_OPER_UP));
	std::vector<std::string> mine;
	for (auto &t : fake::log_texts(LOG_NOTICE))
		if (t.rfind("netlink_listen", 0) == 0)
			mine.push_back(t);
	EXPECT_EQ(mine, (std::vector<std::string>{"netlink_listen() - LINK DOWN eth1\n",
						  "netlink_listen() - LINK UP eth1\n"}));
}

TEST_F(LinkMon, UpdateLinkStatusAppliesBothPortsEveryTime)
{
	fake::set_debug(ZALK_DBG);
	port(PORT_B).hello_enable = 0;
	zalkv2_update_link_status(2);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA0_1}, {2, LINKB1_0}}));
	EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_UP);
	EXPECT_EQ(port(PORT_B).operstate, ZALK_OPER_DOWN);
	auto notes = fake::log_texts(LOG_NOTICE);
	EXPECT_NE(std::find(notes.begin(), notes.end(),
			    "zalkv2_update_link_status() - I(2): Link A(11): 64 Link B(12): 0\n"),
		  notes.end());

	// Unchanged links post again: the ring logic re-learns them.
	zalkv2_update_link_status(2);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA0_1}, {2, LINKB1_0}}));

	port(PORT_B).ifindex = -1;
	port(PORT_B).operstate = 0;
	zalkv2_update_link_status(2);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA0_1}}));
	EXPECT_EQ(port(PORT_B).operstate, 0u);
}

TEST_F(LinkMon, ListenHandlesEveryMessageUntilTheSocketIsEmpty)
{
	fake::recvmsg_queue.push_back({datagram({link_msg(11, IF_OPER_DOWN), link_msg(13, IF_OPER_DOWN),
						 link_msg(11, IF_OPER_UP)}),
				       0});
	fake::recvmsg_queue.push_back({datagram({link_msg(11, IF_OPER_DOWN)}), 0});
	EXPECT_EQ(link_listen(&link_rth, netlink_listen, stdout), 0);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA1_0}, {2, LINKA0_1}, {2, LINKA1_0}}));
	EXPECT_EQ(fake::recvmsg_calls, 3) << "reads until EAGAIN, no further";
	EXPECT_TRUE(fake::logs.empty());
}

TEST_F(LinkMon, ListenStopsAtTheFirstMessageItsHandlerRefuses)
{
	fake::recvmsg_queue.push_back({datagram({link_msg(11, IF_OPER_DOWN), link_msg(11, IF_OPER_UP, nullptr),
						 link_msg(11, IF_OPER_UP)}),
				       0});
	fake::recvmsg_queue.push_back({datagram({link_msg(11, IF_OPER_UP)}), 0});
	testing::internal::CaptureStdout();
	EXPECT_LT(link_listen(&link_rth, netlink_listen, stdout), 0);
	testing::internal::GetCapturedStdout();
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA1_0}}));
	EXPECT_EQ(fake::recvmsg_calls, 1);

	// The next readiness reads on.
	EXPECT_EQ(link_listen(&link_rth, netlink_listen, stdout), 0);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA0_1}}));
}

TEST_F(LinkMon, ListenReadErrors)
{
	struct Case {
		int err;
		int result;
		std::vector<std::string> logged;
	};
	const std::vector<Case> cases = {
		{EAGAIN, 0, {}},
		{EINTR, 0, {}},
		{ENOBUFS, 0, {"netlink receive error No buffer space available (105)\n\n"}},
		{EBADF, -1, {"netlink receive error Bad file descriptor (9)\n\n"}},
		{0, -1, {"EOF on netlink\n\n"}}, // no bytes, no error: end of file
	};
	for (const auto &c : cases) {
		fake::clear_records();
		fake::recvmsg_calls = 0;
		fake::recvmsg_queue.push_back({{}, c.err});
		fake::recvmsg_queue.push_back({datagram({link_msg(11, IF_OPER_DOWN)}), 0});
		EXPECT_EQ(link_listen(&link_rth, netlink_listen, stdout), c.result) << "errno " << c.err;
		EXPECT_EQ(fake::log_texts(LOG_ERR), c.logged) << "errno " << c.err;
		EXPECT_EQ(fake::recvmsg_calls, 1) << "returns at once on errno " << c.err;
		fake::recvmsg_queue.clear();
	}
	EXPECT_TRUE(events().empty());
}

TEST_F(LinkMon, InitOpensTheMonitorAndStartRunsOnlyAnInitialisedWatcher)
{
	struct ev_loop *loop = ev_default_loop(0);
	zalkv2_init_sockets();
	EXPECT_TRUE(fake::log_texts(LOG_ERR).empty());
	EXPECT_EQ(link_rth.local.nl_groups, (unsigned)RTMGRP_LINK);
	EXPECT_EQ(link_watcher.fd, link_rth.fd);
	zalkv2_link_monitor_start();
	EXPECT_TRUE(ev_is_active(&link_watcher));

	// The watcher's callback drains the handle.
	fake::recvmsg_queue.push_back({datagram({link_msg(11, IF_OPER_DOWN)}), 0});
	netlink_io_cb(loop, &link_watcher, EV_READ);
	EXPECT_EQ(events(), (std::vector<Ev>{{2, LINKA1_0}}));

	zalkv2_link_monitor_stop();
	EXPECT_FALSE(ev_is_active(&link_watcher));

	fake::rtnl_open_fails = true;
	zalkv2_init_sockets();
	EXPECT_EQ(fake::log_texts(LOG_ERR), std::vector<std::string>{"netlink init failed!\n\n"});
	zalkv2_link_monitor_start();
	EXPECT_FALSE(ev_is_active(&link_watcher)) << "no watcher without a handle";
	zalkv2_link_monitor_stop();

	fake::clear_records();
	fake::rtnl_open_fails = false;
	fake::socket_fails = true;
	zalkv2_init_sockets();
	auto errs = fake::log_texts(LOG_ERR);
	ASSERT_FALSE(errs.empty());
	EXPECT_EQ(errs.back(), "Can not initialize send socket\n");
	zalkv2_link_monitor_start();
	EXPECT_TRUE(ev_is_active(&link_watcher)) << "the monitor does not need the send socket";
	zalkv2_link_monitor_stop();
}

} // namespace
