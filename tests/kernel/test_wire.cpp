// Packet sockets, link monitoring and Hello qualification against the
// real kernel: veths in the test's own namespace, the real rtnetlink
// monitor, real packet sockets and the real receive path on one libev
// loop; the events posted are read back from the event channel.
#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <unistd.h>

#include "frames/frames.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "status/status.h"
#include "tests/kernel/support/netns.h"

namespace {

using codes = std::vector<uint32_t>;
using bytes = std::vector<uint8_t>;
constexpr float HELLO_TIME = 0.2f;

void init_link()
{
	static bool done = false;
	if (!done) {
		done = true;
		zalkv2_init_sockets(); // the monitor handle and send_sock
	}
	ASSERT_GE(link_rth.fd, 0);
	zalkv2_hello_timers_init(); // after ring_instance() cleared the slots
}

bool readable(int fd, int timeout_ms)
{
	pollfd p = {fd, POLLIN, 0};
	return poll(&p, 1, timeout_ms) == 1;
}

// A ring on zk1 receives what a sender port on its peer zk0 sends (the
// Hello tests below run the receive path in the loop); a port socket
// that cannot be bound ends the daemon.
TEST(PacketSocket, ProtocolFramesArriveUntaggedNothingElseReachesUserSpace)
{
	add_veth("zk0", "zk1");
	ring_instance(0, 7, RING_TYPE_MEMBER, "zk1", nullptr);
	ring_instance(1, 8, RING_TYPE_MEMBER, "zk0", nullptr);
	init_link();
	zalkv2_build_frames(0);
	zalkv2_port &rx = instances[0].port[PORT_A], &tx = instances[1].port[PORT_A];
	tx.operstate = ZALK_OPER_UP;
	ASSERT_EQ(zalkv2_open_port_socket(&rx), 0);
	for (int fd : {send_sock, rx.sock}) {
		int prio = 0;
		socklen_t len = sizeof(prio), insns = 0;
		ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_PRIORITY, &prio, &len), 0);
		EXPECT_EQ(prio, 7);
		EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
		ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, nullptr, &insns), 0); // answers the length
		EXPECT_EQ(insns, 8u);
	}

	// Frames to other prefixes go first; the link delivers in order, so
	// the protocol frame read first proves they were dropped.
	uint8_t f[ZALK_FRAME_LEN];
	for (auto p : {"\x01\x00\x5E", "\x03\x4C\xA1", "\x03\x4B\xA2", "\x33\x33\x00"}) {
		memcpy(f, instances[0].tpl_flush, sizeof(f));
		memcpy(f, p, 3);
		packet_send(&tx, f, sizeof(f));
	}
	uint8_t *t = instances[0].tpl_link_down;
	ASSERT_EQ(t[12], 0x81); // sent with its 802.1Q tag
	packet_send(&tx, t, ZALK_FRAME_LEN);
	ASSERT_TRUE(readable(rx.sock, 2000));
	uint8_t buf[2048];
	ssize_t n = recv(rx.sock, buf, sizeof(buf), 0);
	ASSERT_EQ(n, 60);
	bytes want(t, t + 12);
	want.insert(want.end(), t + 16, t + 64);
	memcpy(want.data() + 6, tx.mac, 6);
	EXPECT_EQ(bytes(buf, buf + n), want);
	EXPECT_FALSE(readable(rx.sock, 100));

	// A frame leaving the port is not received on it, even untagged (as
	// a bridge forwarding in software would send it on).
	int ignore = 0;
	socklen_t ilen = sizeof(ignore);
	ASSERT_EQ(getsockopt(rx.sock, SOL_PACKET, PACKET_IGNORE_OUTGOING, &ignore, &ilen), 0);
	EXPECT_EQ(ignore, 1);
	uint8_t plain[ZALK_FRAME_LEN] = {};
	memcpy(plain, t, 12);
	memcpy(plain + 12, t + 16, ZALK_FRAME_LEN - 16);
	rx.operstate = ZALK_OPER_UP;
	packet_send(&rx, plain, sizeof(plain));
	EXPECT_FALSE(readable(rx.sock, 200));

	zalkv2_close_port_socket(&rx);
	EXPECT_EQ(rx.sock, 0);
	sh("ip link del zk0");

	zalkv2_port gone = {};
	gone.ifindex = 999999;
	EXPECT_EXIT(zalkv2_open_port_socket(&gone), ::testing::ExitedWithCode(255), "bind: ");
}

// Ring 3 on ra (peer rb) and rc (peer rd), no hello on either port;
// xa - xb is outside the ring.
TEST(LinkMon, PortWithoutHelloFollowsTheOperationalStateThroughAFlood)
{
	add_veth("ra", "rb");
	add_veth("rc", "rd");
	add_veth("xa", "xb");
	ring_instance(0, 3, RING_TYPE_MEMBER, "ra", "rc");
	init_link();
	zalk_status_setup(0);
	EventLoop events;
	events.start();
	zalkv2_link_monitor_start();
	events.take(0); // whatever creating the interfaces caused
	zalkv2_port &a = instances[0].port[PORT_A];

	zalkv2_update_link_status(0);
	EXPECT_EQ(events.take(2), (codes{LINKA0_1, LINKB0_1}));

	sh("ip link set ra down");
	EXPECT_EQ(events.take(1), (codes{LINKA1_0}));
	EXPECT_EQ(a.operstate, ZALK_OPER_DOWN);
	// On the way up the kernel may first report a state between down and
	// up, a down report; the last word is up, said once.
	sh("ip link set ra up");
	codes up = events.take(1);
	ASSERT_FALSE(up.empty());
	EXPECT_EQ(up.back(), LINKA0_1);
	EXPECT_EQ(std::count(up.begin(), up.end(), (uint32_t)LINKA0_1), 1);

	// Far end down: rc reports lower-layer-down (3), a down report; rc
	// itself down (2) is down again: nothing new; rc up with its peer
	// still down is 3 again, a new state, posted once more.
	sh("ip link set rd down");
	EXPECT_EQ(events.take(1), (codes{LINKB1_0}));
	sh("ip link set rc down");
	EXPECT_EQ(events.take(0), (codes{}));
	sh("ip link set rc up");
	EXPECT_EQ(events.take(1), (codes{LINKB1_0}));
	sh("ip link set rd up");
	EXPECT_EQ(events.take(1), (codes{LINKB0_1}));

	sh("ip link set xa down; ip link set xa up; ip link set rb mtu 1400");
	EXPECT_EQ(events.take(0), (codes{})) << "interfaces outside the ring change nothing";
	EXPECT_EQ(a.operstate, ZALK_OPER_UP);

	// 500 flaps outside the ring, then one ring port goes down.
	{
		std::ofstream f("/tmp/flood.batch");
		for (int i = 0; i < 500; i++)
			f << "link set xa down\nlink set xa up\n";
		f << "link set ra down\n";
	}
	// Each turn of 50 ms would last much longer if a read ever blocked.
	double t0 = now_s(), longest = 0;
	sh("ip -batch /tmp/flood.batch &");
	for (double t = t0; events.got.empty() && t < t0 + 10; t = now_s()) {
		events.run(0.05);
		longest = std::max(longest, now_s() - t);
	}
	printf("flood: %.0f ms to the ring port's event, longest loop turn %.1f ms (of 50)\n", (now_s() - t0) * 1000,
	       longest * 1000);
	EXPECT_LT(longest, 1.0) << "loop stalled";
	EXPECT_EQ(events.take(1), (codes{LINKA1_0})) << "the ring port's change came through the flood, alone";

	// Drained: nothing left on the socket; the monitor goes on as before.
	char buf[64];
	EXPECT_EQ(recv(link_rth.fd, buf, sizeof(buf), MSG_DONTWAIT | MSG_PEEK), -1);
	EXPECT_EQ(errno, EAGAIN);
	sh("ip link set ra up");
	EXPECT_GE(events.wait_for(0, LINKA0_1, 0, 5), 0);

	zalkv2_link_monitor_stop();
	events.stop();
	instances[0].enabled = 0;
	sh("ip link del ra; ip link del rc; ip link del xa");
}

// Two members of ring 7 in this one process, X on ha and Y on hb (a veth
// pair), each with Hello on its port A; a capture socket on hb records
// when X's Hellos arrive.
class Hello : public ::testing::Test {
protected:
	void SetUp() override
	{
		add_veth("ha", "hb");
		for (int i = 0; i < 2; i++) {
			ring_instance(i, 7, RING_TYPE_MEMBER, i ? "hb" : "ha", nullptr);
			memcpy(instances[i].base_mac, "\x02\x5a\0\0\0", 5);
			instances[i].base_mac[5] = (uint8_t)(0x0a + i);
			init_link();
			port(i).hello_enable = 1;
			port(i).hello_time_ms = (uint32_t)(HELLO_TIME * 1000);
			port(i).hello_time = HELLO_TIME;
			port(i).state = PORT_BLOCKING;
			zalk_status_setup(i);
			zalkv2_build_frames(i);
			zalkv2_hello_init(i);
			ASSERT_EQ(zalkv2_open_port_socket(&port(i)), 0);
		}
		capture = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
		sockaddr_ll sll = {AF_PACKET, htons(ETH_P_ALL), port(1).ifindex, 0, 0, 0, {}};
		ASSERT_EQ(bind(capture, (sockaddr *)&sll, sizeof(sll)), 0);
		ev_io_init(&capture_watcher, on_capture, capture, EV_READ);
		capture_watcher.data = this;

		// What configuration does on resume, in its order.
		events.start();
		ev_io_start(events.loop, &capture_watcher);
		for (int i = 0; i < 2; i++)
			zalkv2_hello_start(i, events.loop);
		zalkv2_link_monitor_start();
		for (int i = 0; i < 2; i++) {
			ev_io_start(events.loop, &port(i).rx_watcher);
			zalkv2_update_link_status(i);
		}
		ASSERT_GE(events.wait_for(0, LINKA0_1, 0, 5), 0) << "X never qualified";
		ASSERT_GE(events.wait_for(1, LINKA0_1, 0, 5), 0) << "Y never qualified";
	}

	void TearDown() override
	{
		zalkv2_link_monitor_stop();
		for (int i = 0; i < 2; i++) {
			zalkv2_hello_stop(i, events.loop);
			ev_io_stop(events.loop, &port(i).rx_watcher);
			zalkv2_close_port_socket(&port(i));
			instances[i].enabled = 0;
		}
		ev_io_stop(events.loop, &capture_watcher);
		events.stop();
		close(capture);
		sh("ip link del ha");
	}

	static void on_capture(struct ev_loop *, ev_io *w, int)
	{
		uint8_t buf[2048];
		ssize_t n = recv(w->fd, buf, sizeof(buf), MSG_DONTWAIT);
		if (n >= (ssize_t)(rx_off::HELLO_SENDER + 8) && buf[rx_off::TYPE] == ZALK_HELLO &&
		    memcmp(buf + rx_off::SRC, instances[0].port[PORT_A].mac, 6) == 0)
			static_cast<Hello *>(w->data)->x_hellos.push_back(now_s());
	}

	zalkv2_port &port(int ins) { return instances[ins].port[PORT_A]; }
	// Each side reports its link down (NO_RESPONSE or PHY_DOWN, as the
	// kernel's notifications fall) before it qualifies, then once up.
	void expect_qualified_once(size_t from)
	{
		for (uint32_t ins = 0; ins < 2; ins++) {
			codes seq = events.codes(ins, from);
			ASSERT_FALSE(seq.empty()) << ins;
			EXPECT_EQ(seq.front(), LINKA1_0) << "instance " << ins;
			EXPECT_EQ(seq.back(), LINKA0_1) << "instance " << ins;
			EXPECT_EQ(std::count(seq.begin(), seq.end(), (uint32_t)LINKA0_1), 1) << "instance " << ins;
		}
	}
	EventLoop events;
	ev_io capture_watcher;
	int capture = -1;
	std::vector<double> x_hellos;
};

TEST_F(Hello, SilentNeighbourIsDroppedAfterTwoFastHellos)
{
	events.run(3 * HELLO_TIME); // steady state
	const size_t mark = events.got.size(), first_hello = x_hellos.size();
	zalkv2_hello_stop(1, events.loop); // Y falls silent, its link stays up
	const double t0 = now_s();
	long fall = events.wait_for(0, LINKA1_0, mark, 3);
	ASSERT_GE(fall, 0) << "X kept its qualification";
	const double t_fall = events.got[fall].at;
	events.run(0.02); // the Hello of the falling tick is on its way
	EXPECT_EQ(port(0).hello_state, HELLO_NO_RESPONSE);

	// X's Hellos up to the falling tick: the last three ticks missed.
	std::vector<double> ticks;
	for (size_t i = first_hello; i < x_hellos.size() && x_hellos[i] <= t_fall + 0.01; i++)
		ticks.push_back(x_hellos[i]);
	ASSERT_GE(ticks.size(), 4u);
	const double *last4 = &ticks[ticks.size() - 4];
	printf("silent neighbour: dropped %.0f ms after the last tick that heard it (hello_time + 0.1 s = %.0f ms), "
	       "%.0f ms after it fell silent; ticks %.0f, %.0f, %.0f ms apart\n",
	       (t_fall - last4[0]) * 1000, (HELLO_TIME + 0.1) * 1000, (t_fall - t0) * 1000,
	       (last4[1] - last4[0]) * 1000, (last4[2] - last4[1]) * 1000, (last4[3] - last4[2]) * 1000);
	// Generous bounds: one slow and two fast ticks, plus at most one
	// period of phase after the neighbour's last Hello.
	EXPECT_LT(t_fall - last4[0], HELLO_TIME + 0.1 + 0.2); // three slow misses take 0.6 s
	EXPECT_LT(t_fall - t0, 2 * HELLO_TIME + 0.1 + 0.5);
	EXPECT_LT(last4[2] - last4[1], HELLO_TIME * 0.75) << "second miss came fast";
	EXPECT_LT(last4[3] - last4[2], HELLO_TIME * 0.75) << "third miss came fast";
	EXPECT_FLOAT_EQ(port(0).hello_timer.repeat, HELLO_TIME) << "back to the slow period";

	zalkv2_hello_start(1, events.loop); // Y speaks again: X requalifies
	EXPECT_GE(events.wait_for(0, LINKA0_1, fall, 2), 0);
}

TEST_F(Hello, NeighboursQualifyLoseCarrierAtOnceAndRequalifyThroughHellos)
{
	for (int i = 0; i < 2; i++) {
		EXPECT_EQ(port(i).hello_state, HELLO_QUALIFIED) << i;
		EXPECT_EQ(instances[i].rx_errors[PORT_A].rx_wrong_hello_time, 0) << i;
		EXPECT_EQ(0, memcmp(port(i).remote_bridge_id + 2, instances[1 - i].base_mac, 6)) << i;
	}
	expect_qualified_once(0); // through the Q-bit handshake
	events.run(HELLO_TIME);
	size_t mark = events.got.size();
	const double t0 = now_s();
	sh("ip link set hb down");
	long x_down = events.wait_for(0, LINKA1_0, mark, 2), y_down = events.wait_for(1, LINKA1_0, mark, 2);
	ASSERT_GE(x_down, 0);
	ASSERT_GE(y_down, 0);
	printf("carrier loss to PHY_DOWN: %.1f ms (hello period %.0f ms)\n", (events.got[x_down].at - t0) * 1000,
	       HELLO_TIME * 1000);
	EXPECT_EQ(port(0).operstate, ZALK_OPER_DOWN);
	events.run(2 * HELLO_TIME);
	EXPECT_EQ(port(0).hello_state, HELLO_PHY_DOWN) << "ticks while down keep it there";
	EXPECT_EQ(port(1).hello_state, HELLO_PHY_DOWN);

	mark = events.got.size();
	sh("ip link set hb up");
	ASSERT_GE(events.wait_for(0, LINKA0_1, mark, 5), 0);
	ASSERT_GE(events.wait_for(1, LINKA0_1, mark, 5), 0);
	expect_qualified_once(mark); // carrier alone does not qualify
}

} // namespace
