// Link monitoring against the real kernel: veth and dummy interfaces in
// the test's own network namespace, the real rtnetlink socket, and the
// events the monitor posts read back from the event channel.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "ring/channel.h"
#include "status/status.h"
#include "tests/kernel/support/netns.h"

namespace {

struct Ev {
	uint32_t ins, event;
	bool operator==(const Ev &o) const { return ins == o.ins && event == o.event; }
};

std::ostream &operator<<(std::ostream &os, const Ev &e) { return os << "{" << e.ins << "," << e.event << "}"; }

std::string operstate(const char *dev)
{
	std::ifstream f(std::string("/sys/class/net/") + dev + "/operstate");
	std::string s;
	f >> s;
	return s;
}

// Waits (at most 5 s) until the kernel shows the operational state.
void wait_oper(const char *dev, const char *want)
{
	for (int i = 0; i < 500 && operstate(dev) != want; i++)
		usleep(10000);
	ASSERT_EQ(operstate(dev), want) << dev;
}

struct FloodStats {
	long messages = 0, reads = 0, beats = 0;
	double max_read_ms = 0, max_gap_ms = 0;
	std::chrono::steady_clock::time_point last_beat;
};

int counting_handler(const struct sockaddr_nl *who, struct nlmsghdr *n, void *arg)
{
	static_cast<FloodStats *>(arg)->messages++;
	return netlink_listen(who, n, stdout);
}

void counting_read(struct ev_loop *, ev_io *w, int)
{
	auto *s = static_cast<FloodStats *>(w->data);
	auto t = std::chrono::steady_clock::now();
	link_listen(&link_rth, counting_handler, s);
	double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
	s->reads++;
	s->max_read_ms = std::max(s->max_read_ms, ms);
}

void heartbeat(struct ev_loop *, ev_timer *w, int)
{
	auto *s = static_cast<FloodStats *>(w->data);
	auto now = std::chrono::steady_clock::now();
	s->max_gap_ms = std::max(s->max_gap_ms, std::chrono::duration<double, std::milli>(now - s->last_beat).count());
	s->last_beat = now;
	s->beats++;
}

class LinkMonKernel : public ::testing::Test {
protected:
	struct ev_loop *loop = ev_default_loop(0);
	ev_io pipe_watcher;
	std::vector<Ev> got;
	std::chrono::steady_clock::time_point last_event_at;

	static void on_event(struct ev_loop *, ev_io *w, int)
	{
		auto *self = static_cast<LinkMonKernel *>(w->data);
		sm_event ev;
		if (sm_read_event(&ev) == (int)sizeof(ev))
			self->got.push_back({ev.instance, ev.event});
		self->last_event_at = std::chrono::steady_clock::now();
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
		ASSERT_GE(link_rth.fd, 0);
	}

	void SetUp() override
	{
		init_once();
		ASSERT_EQ(sh("ip link add ra type veth peer name rb && ip link add rc type veth peer name rd && "
			     "ip link add xa type veth peer name xb && "
			     "for i in ra rb rc rd xa xb; do ip link set $i up; done"),
			  0);
		wait_oper("ra", "up");
		wait_oper("rc", "up");

		zalkv2_instance &in = instances[0];
		in.index = 0;
		in.ring_id = 3;
		in.role = RING_TYPE_MEMBER;
		const char *names[2] = {"ra", "rc"};
		for (int p = 0; p < 2; p++) {
			zalkv2_port &port = in.port[p];
			port.instance = &in;
			port.port_index = p;
			port.ifindex = (int)if_nametoindex(names[p]);
			snprintf(port.name, sizeof(port.name), "%s", names[p]);
			port.hello_enable = 0;
			port.hello_time_ms = 200;
			port.hello_time = 0.2f;
			port.state = PORT_BLOCKING;
			port.hello_state = HELLO_PHY_DOWN;
			port.operstate = 0;
		}
		in.enabled = 1;
		zalk_status_setup(0);

		ev_io_init(&pipe_watcher, on_event, msg_pipe_create(), EV_READ);
		pipe_watcher.data = this;
		ev_io_start(loop, &pipe_watcher);
		zalkv2_link_monitor_start();
		settle(); // whatever creating the interfaces caused
		got.clear();
	}

	void TearDown() override
	{
		zalkv2_link_monitor_stop();
		run(0.1);
		ev_io_stop(loop, &pipe_watcher);
		zalkv2_hello_stop(0, loop);
		instances[0].enabled = 0;
		sh("ip link del ra 2>/dev/null; ip link del rc 2>/dev/null; ip link del xa 2>/dev/null");
	}

	// Runs the loop for the given time.
	void run(double seconds)
	{
		ev_timer t;
		ev_timer_init(&t, [](struct ev_loop *l, ev_timer *, int) { ev_break(l, EVBREAK_ONE); }, seconds, 0.);
		ev_timer_start(loop, &t);
		ev_run(loop, 0);
		ev_timer_stop(loop, &t);
	}

	// Runs the loop until no event has come for 0.3 s (at most 10 s).
	void settle()
	{
		size_t seen;
		int rounds = 0;
		do {
			seen = got.size();
			run(0.3);
		} while (got.size() != seen && ++rounds < 33);
	}

	// Runs the loop until `n` events have arrived (at most 5 s), then
	// until it is quiet, so that an extra event would be seen too.
	std::vector<Ev> take(size_t n)
	{
		for (int i = 0; i < 100 && got.size() < n; i++)
			run(0.05);
		settle();
		std::vector<Ev> out;
		out.swap(got);
		return out;
	}

	zalkv2_port &port(int p) { return instances[0].port[p]; }
};

TEST_F(LinkMonKernel, PortWithoutHelloFollowsTheCarrier)
{
	zalkv2_update_link_status(0);
	EXPECT_EQ(take(2), (std::vector<Ev>{{0, LINKA0_1}, {0, LINKB0_1}}));

	sh("ip link set ra down");
	EXPECT_EQ(take(1), (std::vector<Ev>{{0, LINKA1_0}}));
	EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_DOWN);
	// On the way up the kernel may first report a state between down and
	// up, which is a down report; the last word is up, said once.
	sh("ip link set ra up");
	auto up = take(1);
	ASSERT_FALSE(up.empty());
	EXPECT_EQ(up.back(), (Ev{0, LINKA0_1}));
	for (size_t i = 0; i + 1 < up.size(); i++)
		EXPECT_EQ(up[i], (Ev{0, LINKA1_0})) << "event " << i;
	EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_UP);

	// Far end down: ra reports lower-layer-down (3), a down report.
	sh("ip link set rd down");
	EXPECT_EQ(take(1), (std::vector<Ev>{{0, LINKB1_0}}));
	// rc itself down: state 2, the state stored: nothing new.
	sh("ip link set rc down");
	EXPECT_EQ(take(0), (std::vector<Ev>{}));
	// rc up again with its peer still down: 3 again, which differs from
	// the stored 2 and is applied once more.
	sh("ip link set rc up");
	EXPECT_EQ(take(1), (std::vector<Ev>{{0, LINKB1_0}}));
	sh("ip link set rd up");
	EXPECT_EQ(take(1), (std::vector<Ev>{{0, LINKB0_1}}));

	// Interfaces outside the ring change nothing.
	sh("ip link set xa down; ip link set xa up; ip link set rb mtu 1400");
	EXPECT_EQ(take(0), (std::vector<Ev>{}));
	EXPECT_EQ(port(PORT_A).operstate, ZALK_OPER_UP);
	EXPECT_EQ(port(PORT_B).operstate, ZALK_OPER_UP);
}

TEST_F(LinkMonKernel, PortWithHelloFallsToPhyDownAtOnce)
{
	zalkv2_port &a = port(PORT_A);
	a.hello_enable = 1;
	zalkv2_update_link_status(0);
	EXPECT_EQ(take(1), (std::vector<Ev>{{0, LINKB0_1}})) << "port A waits for qualification";
	EXPECT_EQ(a.operstate, ZALK_OPER_UP);

	hello_set_state(0, PORT_A, HELLO_QUALIFIED);
	take(1);
	auto t0 = std::chrono::steady_clock::now();
	sh("ip link set rb down");
	EXPECT_EQ(take(1), (std::vector<Ev>{{0, LINKA1_0}}));
	EXPECT_EQ(a.hello_state, HELLO_PHY_DOWN);
	printf("carrier loss to hello PHY_DOWN: %.1f ms (no hello timer running)\n",
	       std::chrono::duration<double, std::milli>(last_event_at - t0).count());

	sh("ip link set rb up");
	EXPECT_EQ(take(0), (std::vector<Ev>{})) << "link up alone does not qualify";
	EXPECT_EQ(a.operstate, ZALK_OPER_UP);
}

TEST_F(LinkMonKernel, FloodOfNotificationsIsDrainedWithoutBlockingTheLoop)
{
	zalkv2_update_link_status(0);
	take(2);

	// Take over the monitor's socket with a counting handler, so that
	// every read can be timed; the handler is still netlink_listen.
	zalkv2_link_monitor_stop();
	FloodStats st;
	ev_io counting;
	ev_io_init(&counting, counting_read, link_rth.fd, EV_READ);
	counting.data = &st;
	ev_io_start(loop, &counting);

	// A heartbeat shows whether the loop kept turning during the flood.
	st.last_beat = std::chrono::steady_clock::now();
	ev_timer hb;
	ev_timer_init(&hb, heartbeat, 0.01, 0.01);
	hb.data = &st;
	ev_timer_start(loop, &hb);

	// 500 flaps of an interface outside the ring, with ring flaps among them.
	{
		std::ofstream f("/tmp/flood.batch");
		for (int i = 0; i < 500; i++) {
			f << "link set xa down\nlink set xa up\n";
			if (i % 100 == 50)
				f << "link set rb down\nlink set rb up\n";
		}
	}
	std::atomic<bool> done{false};
	std::thread flood([&] {
		sh("ip -batch /tmp/flood.batch");
		done = true;
	});
	auto t0 = std::chrono::steady_clock::now();
	while (!done)
		run(0.05);
	flood.join();
	double flood_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
	run(1.5); // the last carrier changes reach the kernel's link watch late
	ev_timer_stop(loop, &hb);
	ev_io_stop(loop, &counting);

	printf("flood: %.0f ms, %ld messages in %ld reads, longest read %.2f ms, longest loop gap %.1f ms\n",
	       flood_ms, st.messages, st.reads, st.max_read_ms, st.max_gap_ms);
	EXPECT_GE(st.messages, 500) << "the flood reached the monitor";
	EXPECT_GT(st.beats, 0);
	EXPECT_LT(st.max_gap_ms, 1000.0) << "loop stalled";
	long ring_events = 0;
	for (auto &e : got)
		ring_events += e.event == LINKA1_0 || e.event == LINKA0_1;
	printf("ring events during the flood: %ld (5 ring flaps)\n", ring_events);
	got.clear();

	// Drained: nothing left on the socket, and the next read returns at once.
	char buf[64];
	EXPECT_EQ(recv(link_rth.fd, buf, sizeof(buf), MSG_DONTWAIT | MSG_PEEK), -1);
	EXPECT_EQ(errno, EAGAIN);
	EXPECT_EQ(link_listen(&link_rth, netlink_listen, stdout), 0);

	// The monitor goes on as before: re-read the links, then one change.
	zalkv2_link_monitor_start();
	zalkv2_update_link_status(0);
	take(2);
	sh("ip link set ra down");
	EXPECT_EQ(take(1), (std::vector<Ev>{{0, LINKA1_0}}));
}

} // namespace
