// Hello qualification over a real veth pair: two rings of the same ring id
// in this one process, one on each end, with real packet sockets, the real
// receive path and the real link monitor on one libev loop.
#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "status/status.h"
#include "tests/kernel/support/netns.h"

namespace {

using clk = std::chrono::steady_clock;

struct Ev {
	uint32_t ins, event;
	double at; // seconds on the test's clock
};

double secs(clk::time_point t)
{
	return std::chrono::duration<double>(t.time_since_epoch()).count();
}

std::string operstate(const char *dev)
{
	std::ifstream f(std::string("/sys/class/net/") + dev + "/operstate");
	std::string s;
	f >> s;
	return s;
}

constexpr uint8_t BASE_X[6] = {0x02, 0x5a, 0, 0, 0, 0x0a};
constexpr uint8_t BASE_Y[6] = {0x02, 0x5a, 0, 0, 0, 0x0b};
constexpr float HELLO_TIME = 0.2f;

class HelloKernel : public ::testing::Test {
protected:
	struct ev_loop *loop = ev_default_loop(0);
	ev_io pipe_watcher, capture_watcher;
	int capture = -1;
	std::vector<Ev> got;
	std::vector<double> x_hellos; // arrival times of X's Hellos at the far end

	static void on_event(struct ev_loop *, ev_io *w, int)
	{
		auto *self = static_cast<HelloKernel *>(w->data);
		sm_event ev;
		if (sm_read_event(&ev) == (int)sizeof(ev))
			self->got.push_back({ev.instance, ev.event, secs(clk::now())});
	}

	static void on_capture(struct ev_loop *, ev_io *w, int)
	{
		auto *self = static_cast<HelloKernel *>(w->data);
		uint8_t buf[2048];
		ssize_t n = recv(w->fd, buf, sizeof(buf), MSG_DONTWAIT);
		if (n >= (ssize_t)(rx_off::HELLO_SENDER + 8) && buf[rx_off::TYPE] == ZALK_HELLO &&
		    memcmp(buf + rx_off::SRC, instances[0].port[PORT_A].mac, 6) == 0)
			self->x_hellos.push_back(secs(clk::now()));
	}

	static void init_once()
	{
		static bool done = false;
		if (done)
			return;
		done = true;
		netsock = socket(AF_INET, SOCK_DGRAM, 0);
		zalkv2_hello_timers_init();
		zalkv2_init_sockets();
		ASSERT_GE(send_sock, 0);
		ASSERT_GE(link_rth.fd, 0);
	}

	void ring(int ins, const uint8_t *base, const char *dev)
	{
		zalkv2_instance &in = instances[ins];
		in.index = ins;
		in.ring_id = 7;
		in.role = RING_TYPE_MEMBER;
		memcpy(in.base_mac, base, 6);
		for (int p = 0; p < 2; p++) {
			zalkv2_port &port = in.port[p];
			port.instance = &in;
			port.port_index = p;
			port.ifindex = p == PORT_A ? (int)if_nametoindex(dev) : -1;
			snprintf(port.name, sizeof(port.name), "%s", p == PORT_A ? dev : "");
			port.hello_enable = 1;
			port.hello_time_ms = (uint32_t)(HELLO_TIME * 1000);
			port.hello_time = HELLO_TIME;
			port.state = PORT_BLOCKING;
			port.operstate = 0;
		}
		if_get_mac(in.port[PORT_A].ifindex, in.port[PORT_A].mac);
		in.enabled = 1;
		zalk_status_setup(ins);
		zalkv2_build_frames(ins);
		zalkv2_hello_init(ins);
		ASSERT_EQ(zalkv2_open_port_socket(&in.port[PORT_A]), 0);
	}

	void SetUp() override
	{
		init_once();
		ASSERT_EQ(sh("ip link add ha type veth peer name hb && ip link set ha up && ip link set hb up"), 0);
		for (int i = 0; i < 500 && (operstate("ha") != "up" || operstate("hb") != "up"); i++)
			usleep(10000);
		ring(0, BASE_X, "ha");
		ring(1, BASE_Y, "hb");

		ev_io_init(&pipe_watcher, on_event, msg_pipe_create(), EV_READ);
		pipe_watcher.data = this;
		ev_io_start(loop, &pipe_watcher);

		// A third socket on hb sees what X puts on the wire.
		capture = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
		ASSERT_GE(capture, 0);
		struct sockaddr_ll sll = {};
		sll.sll_family = AF_PACKET;
		sll.sll_protocol = htons(ETH_P_ALL);
		sll.sll_ifindex = (int)if_nametoindex("hb");
		ASSERT_EQ(bind(capture, (struct sockaddr *)&sll, sizeof(sll)), 0);
		ev_io_init(&capture_watcher, on_capture, capture, EV_READ);
		capture_watcher.data = this;
		ev_io_start(loop, &capture_watcher);

		// What configuration does on resume, in its order.
		for (int i = 0; i < 2; i++)
			zalkv2_hello_start(i, loop);
		zalkv2_link_monitor_start();
		for (int i = 0; i < 2; i++) {
			ev_io_start(loop, &instances[i].port[PORT_A].rx_watcher);
			zalkv2_update_link_status(i);
		}
	}

	void TearDown() override
	{
		zalkv2_link_monitor_stop();
		for (int i = 0; i < 2; i++) {
			zalkv2_hello_stop(i, loop);
			ev_io_stop(loop, &instances[i].port[PORT_A].rx_watcher);
			zalkv2_close_port_socket(&instances[i].port[PORT_A]);
			instances[i].enabled = 0;
		}
		ev_io_stop(loop, &capture_watcher);
		ev_io_stop(loop, &pipe_watcher);
		close(capture);
		sh("ip link del ha 2>/dev/null");
	}

	void run(double seconds)
	{
		ev_timer t;
		ev_timer_init(&t, [](struct ev_loop *l, ev_timer *, int) { ev_break(l, EVBREAK_ONE); }, seconds, 0.);
		ev_timer_start(loop, &t);
		ev_run(loop, 0);
		ev_timer_stop(loop, &t);
	}

	// Index of the first event of that instance and code from `from` on,
	// running the loop for at most `limit` seconds to get it; -1 if none.
	long wait_for(uint32_t ins, uint32_t event, size_t from, double limit)
	{
		auto end = clk::now() + std::chrono::duration<double>(limit);
		for (;;) {
			for (size_t i = from; i < got.size(); i++)
				if (got[i].ins == ins && got[i].event == event)
					return (long)i;
			if (clk::now() > end)
				return -1;
			run(0.01);
		}
	}

	void both_qualified()
	{
		ASSERT_GE(wait_for(0, LINKA0_1, 0, 5), 0) << "X never qualified";
		ASSERT_GE(wait_for(1, LINKA0_1, 0, 5), 0) << "Y never qualified";
	}

	zalkv2_port &port(int ins) { return instances[ins].port[PORT_A]; }
};

TEST_F(HelloKernel, NeighboursQualifyEachOtherOverTheWire)
{
	both_qualified();
	for (int i = 0; i < 2; i++) {
		EXPECT_EQ(port(i).hello_state, HELLO_QUALIFIED) << i;
		EXPECT_EQ(port(i).hello_resp, 2u) << i;
		EXPECT_EQ(instances[i].rx_errors[PORT_A].rx_wrong_hello_time, 0) << i;
	}
	EXPECT_EQ(0, memcmp(port(0).remote_bridge_id + 2, BASE_Y, 6));
	EXPECT_EQ(0, memcmp(port(1).remote_bridge_id + 2, BASE_X, 6));
	// Each side went down to NO_RESPONSE first, then up: nothing else.
	for (uint32_t ins = 0; ins < 2; ins++) {
		std::vector<uint32_t> seq;
		for (auto &e : got)
			if (e.ins == ins)
				seq.push_back(e.event);
		EXPECT_EQ(seq, (std::vector<uint32_t>{LINKA1_0, LINKA0_1})) << "instance " << ins;
	}
	EXPECT_GE(x_hellos.size(), 2u);
}

TEST_F(HelloKernel, SilentNeighbourIsDroppedAfterTwoFastHellos)
{
	both_qualified();
	run(3 * HELLO_TIME); // steady state
	const size_t mark = got.size();

	zalkv2_hello_stop(1, loop); // Y falls silent, its link stays up
	const double t0 = secs(clk::now());
	const size_t first_hello = x_hellos.size();
	long fall = wait_for(0, LINKA1_0, mark, 3);
	ASSERT_GE(fall, 0) << "X kept its qualification";
	const double t_fall = got[fall].at;
	run(0.02); // the Hello of the falling tick is on its way
	EXPECT_EQ(port(0).hello_state, HELLO_NO_RESPONSE);

	std::vector<double> gaps;
	for (size_t i = first_hello + 1; i < x_hellos.size(); i++)
		if (x_hellos[i] <= t_fall + 0.01)
			gaps.push_back(x_hellos[i] - x_hellos[i - 1]);
	printf("silent neighbour: dropped %.0f ms after it stopped (bound %.0f ms + one tick); Hello gaps:",
	       (t_fall - t0) * 1000, (HELLO_TIME + 0.1) * 1000);
	for (double g : gaps)
		printf(" %.0f", g * 1000);
	printf(" ms\n");

	// The last tick that saw a Hello came at most one period after t0,
	// then one slow tick and two fast ones.
	EXPECT_LT(t_fall - t0, 2 * HELLO_TIME + 0.1 + 0.5);
	ASSERT_GE(gaps.size(), 2u);
	EXPECT_LT(gaps[gaps.size() - 1], HELLO_TIME * 0.75) << "third miss came fast";
	EXPECT_LT(gaps[gaps.size() - 2], HELLO_TIME * 0.75) << "second miss came fast";
	EXPECT_EQ(port(0).hello_miss, 0u);
	EXPECT_FLOAT_EQ(port(0).hello_timer.repeat, HELLO_TIME);

	// Y speaks again: X requalifies at the first tick with a new Hello.
	zalkv2_hello_start(1, loop);
	EXPECT_GE(wait_for(0, LINKA0_1, fall, 2), 0);
}

TEST_F(HelloKernel, CarrierLossDropsAtOnceAndTheLinkRequalifies)
{
	both_qualified();
	run(HELLO_TIME);
	size_t mark = got.size();

	sh("ip link set hb down");
	long x_down = wait_for(0, LINKA1_0, mark, 2);
	long y_down = wait_for(1, LINKA1_0, mark, 2);
	ASSERT_GE(x_down, 0);
	ASSERT_GE(y_down, 0);
	EXPECT_EQ(port(0).hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(port(1).hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(port(0).operstate, ZALK_OPER_DOWN);
	run(2 * HELLO_TIME);
	EXPECT_EQ(port(0).hello_state, HELLO_PHY_DOWN) << "ticks while down keep it there";

	mark = got.size();
	sh("ip link set hb up");
	long x_up = wait_for(0, LINKA0_1, mark, 5);
	long y_up = wait_for(1, LINKA0_1, mark, 5);
	ASSERT_GE(x_up, 0);
	ASSERT_GE(y_up, 0);
	// On the way back each side passes HELLO_NO_RESPONSE (a down event)
	// before it qualifies.
	for (uint32_t ins = 0; ins < 2; ins++) {
		std::vector<uint32_t> seq;
		for (size_t i = mark; i < got.size(); i++)
			if (got[i].ins == ins)
				seq.push_back(got[i].event);
		ASSERT_FALSE(seq.empty());
		EXPECT_EQ(seq.back(), LINKA0_1) << "instance " << ins;
		EXPECT_EQ(std::count(seq.begin(), seq.end(), (uint32_t)LINKA0_1), 1) << "instance " << ins;
		EXPECT_EQ(seq.front(), LINKA1_0) << "instance " << ins;
	}
}

} // namespace
