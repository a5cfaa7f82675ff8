// Packet sockets against the real kernel: a veth pair inside the test's
// own network namespace carries frames from packet_send to a port socket.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "tests/kernel/support/netns.h"

namespace {

using bytes = std::vector<uint8_t>;

int if_tx, if_rx;
zalkv2_port sender;

void read_mac(const char *ifname, uint8_t mac[6])
{
	std::string s = sh_out("cat /sys/class/net/%s/address", ifname);
	unsigned m[6] = {};
	sscanf(s.c_str(), "%x:%x:%x:%x:%x:%x", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]);
	for (int i = 0; i < 6; i++)
		mac[i] = (uint8_t)m[i];
}

bool readable(int fd, int timeout_ms)
{
	pollfd p = {fd, POLLIN, 0};
	return poll(&p, 1, timeout_ms) == 1;
}

class PacketSocket : public ::testing::Test {
protected:
	static void SetUpTestSuite()
	{
		ASSERT_EQ(sh("ip link add zk0 type veth peer name zk1 && "
			     "ip link set zk0 up && ip link set zk1 up"),
			  0);
		if_tx = (int)if_nametoindex("zk0");
		if_rx = (int)if_nametoindex("zk1");
		ASSERT_GT(if_tx, 0);
		ASSERT_GT(if_rx, 0);
		send_sock = zalkv2_open_packet_socket();
		ASSERT_GE(send_sock, 0);
		ASSERT_GE(msg_pipe_create(), 0);
	}
	static void TearDownTestSuite() { sh("ip link del zk0"); }

	void SetUp() override
	{
		memset(instances, 0, sizeof(instances));
		zalkv2_instance &in = instances[0];
		in.enabled = 1;
		in.ring_id = 7;
		in.role = RING_TYPE_MEMBER;
		memcpy(in.base_mac, "\x02\x11\x22\x33\x44\x55", 6);
		zalkv2_port &a = in.port[PORT_A];
		a.instance = &in;
		snprintf(a.name, sizeof(a.name), "zk1");
		a.ifindex = if_rx;
		read_mac("zk1", a.mac);
		a.operstate = ZALK_OPER_UP;
		in.port[PORT_B].ifindex = -1;
		in.port[PORT_B].instance = &in;
		zalkv2_build_frames(0);

		memset(&sender, 0, sizeof(sender));
		snprintf(sender.name, sizeof(sender.name), "zk0");
		sender.ifindex = if_tx;
		read_mac("zk0", sender.mac);
		sender.operstate = ZALK_OPER_UP;

		ASSERT_EQ(zalkv2_open_port_socket(&a), 0);
		ASSERT_GT(a.sock, 0);
	}
	void TearDown() override
	{
		zalkv2_close_port_socket(&instances[0].port[PORT_A]);
		EXPECT_EQ(instances[0].port[PORT_A].sock, 0);
	}
	int rx_sock() { return instances[0].port[PORT_A].sock; }
};

TEST_F(PacketSocket, SocketsAreFilteredPrioritisedAndNonBlocking)
{
	for (int fd : {send_sock, rx_sock()}) {
		int prio = 0;
		socklen_t len = sizeof(prio);
		ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_PRIORITY, &prio, &len), 0);
		EXPECT_EQ(prio, 7);
		EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
		socklen_t insns = 0; // SO_GET_FILTER with no buffer answers the length
		ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, nullptr, &insns), 0);
		EXPECT_EQ(insns, 8u);
	}
}

TEST_F(PacketSocket, TaggedFrameArrivesUntaggedAndBecomesAnEvent)
{
	uint8_t *t = instances[0].tpl_link_down;
	packet_send(&sender, t, ZALK_FRAME_LEN);
	ASSERT_TRUE(readable(rx_sock(), 2000));

	uint8_t buf[2048];
	sockaddr_ll from = {};
	socklen_t fromlen = sizeof(from);
	ssize_t n = recvfrom(rx_sock(), buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&from), &fromlen);
	ASSERT_EQ(n, 60);
	EXPECT_EQ(from.sll_ifindex, if_rx);
	bytes want(t, t + 12);
	want.insert(want.end(), t + 16, t + 64);
	EXPECT_EQ(bytes(buf, buf + n), want);
	EXPECT_EQ(bytes(buf + 6, buf + 12), bytes(sender.mac, sender.mac + 6));

	zalkv2_handle_frame(from.sll_ifindex, buf, (size_t)n);
	sm_event ev;
	ASSERT_EQ(sm_read_event(&ev), 40);
	EXPECT_EQ(ev.instance, 0u);
	EXPECT_EQ(ev.event, RX_LINKA_0);
}

// The port's own watcher, in a real loop, reads and dispatches the frame.
bool got_event;
void stop_on_event(struct ev_loop *loop, ev_io *, int)
{
	got_event = true;
	ev_break(loop, EVBREAK_ALL);
}
void give_up(struct ev_loop *loop, ev_timer *, int) { ev_break(loop, EVBREAK_ALL); }

TEST_F(PacketSocket, PortWatcherReadsFramesInTheLoop)
{
	struct ev_loop *loop = ev_default_loop(0);
	ev_io bus;
	ev_io_init(&bus, stop_on_event, msg_pipe_create(), EV_READ);
	ev_timer limit;
	ev_timer_init(&limit, give_up, 2., 0.);
	ev_io_start(loop, &instances[0].port[PORT_A].rx_watcher);
	ev_io_start(loop, &bus);
	ev_timer_start(loop, &limit);

	got_event = false;
	packet_send(&sender, instances[0].tpl_trig, ZALK_FRAME_LEN);
	ev_run(loop, 0);
	ev_io_stop(loop, &instances[0].port[PORT_A].rx_watcher);
	ev_io_stop(loop, &bus);
	ev_timer_stop(loop, &limit);

	ASSERT_TRUE(got_event);
	sm_event ev;
	ASSERT_EQ(sm_read_event(&ev), 40);
	EXPECT_EQ(ev.event, FOCAL_TRIG);
}

TEST_F(PacketSocket, OtherDestinationsNeverReachUserSpace)
{
	const uint8_t prefixes[][3] = {{0x01, 0x00, 0x5E}, {0x03, 0x4C, 0xA1}, {0x03, 0x4B, 0xA2}, {0x33, 0x33, 0x00}};
	uint8_t f[ZALK_FRAME_LEN];
	for (auto &p : prefixes) {
		memcpy(f, instances[0].tpl_flush, sizeof(f));
		memcpy(f, p, 3);
		packet_send(&sender, f, sizeof(f));
	}
	EXPECT_FALSE(readable(rx_sock(), 200));

	// The link itself carries protocol frames fine.
	packet_send(&sender, instances[0].tpl_flush, ZALK_FRAME_LEN);
	ASSERT_TRUE(readable(rx_sock(), 2000));
	uint8_t buf[2048];
	ASSERT_EQ(recv(rx_sock(), buf, sizeof(buf), 0), 60);
	EXPECT_EQ(bytes(buf, buf + 6), bytes(instances[0].tpl_flush, instances[0].tpl_flush + 6));
	EXPECT_FALSE(readable(rx_sock(), 100));
}

TEST(PacketSocketBind, UnknownInterfaceEndsTheDaemon)
{
	zalkv2_port p = {};
	p.ifindex = 999999;
	EXPECT_EXIT(zalkv2_open_port_socket(&p), ::testing::ExitedWithCode(255), "bind: ");
}

} // namespace
