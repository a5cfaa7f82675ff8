// The real OS layer in the namespaces netns.sh makes: packet sockets and
// Hello on veths in a real libev loop; rtnetlink, bridge operations and
// preparation on a real br0, whose plain bridge has no VLAN filtering, MST
// or flower; the command runner.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <net/if.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <sched.h>
#include <unistd.h>

#include "bridge/netlink_ops.h"
#include "bridge/ifquery.h"
#include "bridge/prepare.h"
#include "daemon/os.h"
#include "frames/frames.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "frames/receive.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "status/files.h"

namespace {

using codes = std::vector<uint32_t>;
using bytes = std::vector<uint8_t>;

// A shell command line (test code only): its exit status, or its output.
int sh(const std::string &cmd)
{
	int st = system(cmd.c_str());
	return WIFEXITED(st) ? WEXITSTATUS(st) : 255;
}
std::string sh_out(const std::string &cmd)
{
	std::string out;
	if (FILE *p = popen(cmd.c_str(), "r")) {
		for (int c; (c = fgetc(p)) != EOF;)
			out += (char)c;
		pclose(p);
	}
	return out;
}
bool has(const std::string &text, const std::string &what) { return text.find(what) != std::string::npos; }
// What the daemon logged (to standard error as well, see Bridge) while f ran.
template <class F> std::string logged(F &&f)
{
	testing::internal::CaptureStderr();
	f();
	return testing::internal::GetCapturedStderr();
}
double now_s() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
bool wait_until(const std::function<bool()> &cond, double limit = 5)
{
	for (double end = now_s() + limit; !cond(); usleep(10000))
		if (now_s() > end)
			return false;
	return true;
}

// A veth pair, both ends up and operationally up.
void add_veth(const std::string &a, const std::string &b)
{
	ASSERT_EQ(sh("ip link add '" + a + "' type veth peer name '" + b + "' && ip link set '" + a + "' up && ip link set '" + b + "' up"), 0);
	ASSERT_TRUE(wait_until([&] { return sh_out("cat /sys/class/net/'" + a + "'/operstate /sys/class/net/'" + b + "'/operstate") == "up\nup\n"; }));
}

// Instance `ins` as configuration leaves it on real interfaces (a null
// port B is absent); opens the interface socket the MAC queries need.
void ring_instance(int ins, int ring_id, uint32_t role, const char *a, const char *b)
{
	if (netsock <= 0)
		netsock = socket(AF_INET, SOCK_DGRAM, 0);
	zalkv2_instance &in = instances[ins];
	memset(&in, 0, sizeof(in));
	in.index = ins;
	in.ring_id = ring_id;
	in.role = role;
	in.bridge_ifindex = if_nametoindex("br0") ? (int)if_nametoindex("br0") : -1;
	const char *names[2] = {a, b};
	for (int p = 0; p < 2; p++) {
		zalkv2_port &port = in.port[p];
		port.instance = &in;
		port.port_index = p;
		port.ifindex = -1;
		if (names[p]) {
			snprintf(port.name, sizeof(port.name), "%s", names[p]);
			port.ifindex = (int)if_nametoindex(names[p]);
			ASSERT_EQ(if_get_mac(port.ifindex, port.mac), 0) << names[p];
		}
	}
	in.enabled = 1;
}

constexpr float HELLO_TIME = 0.2f;

// The event channel read in a real libev loop: every event posted lands
// in `got`.
struct EventLoop {
	struct ev_loop *loop = ev_default_loop(0);
	ev_io watcher{};
	std::vector<sm_event> got;

	~EventLoop() { ev_io_stop(loop, &watcher); }
	void start()
	{
		ev_io_init(&watcher, [](struct ev_loop *, ev_io *w, int) {
			sm_event ev;
			if (sm_read_event(&ev) == (int)sizeof(ev))
				static_cast<EventLoop *>(w->data)->got.push_back(ev);
		}, msg_pipe_create(), EV_READ);
		watcher.data = this;
		ev_io_start(loop, &watcher);
	}
	void run(double seconds)
	{
		ev_timer t;
		ev_timer_init(&t, [](struct ev_loop *l, ev_timer *, int) { ev_break(l, EVBREAK_ONE); }, seconds, 0.);
		ev_timer_start(loop, &t);
		ev_run(loop, 0);
		ev_timer_stop(loop, &t);
	}
	// Whether `event` of `ins` came from index `from` on, waiting at most
	// `limit` seconds for it.
	bool wait_for(uint32_t ins, uint32_t event, size_t from, double limit)
	{
		auto is = [&](const sm_event &ev) { return ev.instance == ins && ev.event == event; };
		for (double end = now_s() + limit; std::none_of(got.begin() + (long)from, got.end(), is); run(0.01))
			if (now_s() > end)
				return false;
		return true;
	}
};

void init_link()
{
	static bool done = (zalkv2_init_sockets(), true); // the monitor handle and send_sock
	ASSERT_TRUE(done && link_rth.fd >= 0);
	zalkv2_hello_timers_init(); // after ring_instance() cleared the slots
}

bool readable(int fd, int timeout_ms)
{
	pollfd p = {fd, POLLIN, 0};
	return poll(&p, 1, timeout_ms) == 1;
}

// Ring 7 on zk1 receives what a port of ring 8 on its peer zk0 sends.
TEST(Wire, OnlyProtocolFramesWithTheirTypesTagReachUserSpace)
{
	add_veth("zk0", "zk1");
	ring_instance(0, 7, RING_TYPE_MEMBER, "zk1", nullptr);
	ring_instance(1, 8, RING_TYPE_MEMBER, "zk0", nullptr);
	init_link();
	zalkv2_build_frames(0);
	zalkv2_port &rx = instances[0].port[PORT_A], &tx = instances[1].port[PORT_A];
	tx.operstate = ZALK_OPER_UP;
	ASSERT_EQ(zalkv2_open_port_socket(&rx), 0);
	// Link changes go first, frames wait for pending events.
	EXPECT_EQ(std::pair(ev_priority(&link_watcher), ev_priority(&rx.rx_watcher)), std::pair(ZALK_PRI_KERNEL, ZALK_PRI_FRAMES));
	// Ring frames go out ahead of other traffic; no socket ever blocks the loop.
	for (int fd : {send_sock, rx.sock}) {
		int prio = 0;
		socklen_t len = sizeof(prio);
		EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_PRIORITY, &prio, &len), 0);
		EXPECT_EQ((codes{(uint32_t)prio, (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0}), (codes{7, 1}));
	}
	// Frames to other prefixes go first, then the Link Down without its
	// type's tag: untagged, on a host's VLAN 100 and on the other
	// protocol VLAN. The link delivers in order, so the protocol frame
	// read first proves the filter dropped them.
	uint8_t f[ZALK_FRAME_LEN], *t = instances[0].tpl_link_down, buf[2048];
	for (auto p : {"\x01\x00\x5E", "\x03\x4C\xA1", "\x03\x4B\xA2", "\x33\x33\x00"}) {
		memcpy(f, instances[0].tpl_flush, sizeof(f));
		memcpy(f, p, 3);
		packet_send(&tx, f, sizeof(f));
	}
	ASSERT_EQ(t[12], 0x81); // sent with its 802.1Q tag
	memcpy(f, t, 12);
	memcpy(f + 12, t + 16, ZALK_FRAME_LEN - 16);
	packet_send(&tx, f, sizeof(f));
	for (uint16_t tci : {0xE064, 0xEFB6}) {
		memcpy(f, t, sizeof(f));
		f[14] = (uint8_t)(tci >> 8), f[15] = (uint8_t)tci;
		packet_send(&tx, f, sizeof(f));
	}
	packet_send(&tx, t, ZALK_FRAME_LEN);
	ASSERT_TRUE(readable(rx.sock, 2000));
	os_rx_frame info;
	ssize_t n = os_recv_frame(rx.sock, buf, sizeof(buf), &info);
	bytes want(t, t + 12);
	want.insert(want.end(), t + 16, t + 64);
	memcpy(want.data() + 6, tx.mac, 6);
	EXPECT_EQ(bytes(buf, buf + std::max<ssize_t>(n, 0)), want);
	EXPECT_EQ((codes{(uint32_t)info.ifindex, info.outgoing, (uint32_t)info.vlan}), (codes{(uint32_t)rx.ifindex, 0, ZALK_MGNT_VLAN}));

	// A frame leaving the port is not received on it, even untagged (as
	// a bridge forwarding in software would send it on).
	memmove(f, t, 12);
	memcpy(f + 12, t + 16, ZALK_FRAME_LEN - 16);
	rx.operstate = ZALK_OPER_UP;
	packet_send(&rx, f, sizeof(f));
	EXPECT_FALSE(readable(rx.sock, 200));

	zalkv2_port gone = {}; // a port socket that cannot be bound ends the daemon
	gone.ifindex = 999999;
	EXPECT_EXIT(zalkv2_open_port_socket(&gone), ::testing::ExitedWithCode(255), "bind: ");
}

// Two members of ring 7 in this process, X on ha and Y on hb (a veth
// pair), each with Hello on its port A, started as configuration does on
// resume.
TEST(Wire, HelloQualifiesAndDropsASilentNeighbourFast)
{
	EventLoop events;
	auto port = [](int i) -> zalkv2_port & { return instances[i].port[PORT_A]; };
	add_veth("ha", "hb");
	for (int i = 0; i < 2; i++) {
		ring_instance(i, 7, RING_TYPE_MEMBER, i ? "hb" : "ha", nullptr);
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
	events.start();
	for (int i = 0; i < 2; i++)
		zalkv2_hello_start(i, events.loop);
	zalkv2_link_monitor_start();
	for (int i = 0; i < 2; i++) {
		ev_io_start(events.loop, &port(i).rx_watcher);
		zalkv2_update_link_status(i);
	}
	// Each side reports its link down (NO_RESPONSE or PHY_DOWN, as the
	// kernel's notifications fall) before it qualifies through the Q-bit
	// handshake, then up once.
	for (uint32_t ins = 0; ins < 2; ins++) {
		ASSERT_TRUE(events.wait_for(ins, LINKA0_1, 0, 5)) << ins << " never qualified";
		codes seq;
		for (const sm_event &ev : events.got)
			if (ev.instance == ins && (seq.empty() || seq.back() != ev.event))
				seq.push_back(ev.event);
		EXPECT_EQ(seq, (codes{LINKA1_0, LINKA0_1})) << ins;
		EXPECT_EQ(port(ins).hello_state, HELLO_QUALIFIED) << ins;
		EXPECT_EQ(instances[ins].rx_errors[PORT_A].rx_wrong_hello_time, 0) << ins;
		EXPECT_EQ(0, memcmp(port(ins).remote_bridge_id + 2, instances[1 - ins].base_mac, 6)) << ins;
	}

	// Y falls silent, its link stays up: after the first tick that misses
	// its Hello, X's next two come fast and the second drops Y.
	events.run(2 * HELLO_TIME);
	size_t mark = events.got.size();
	zalkv2_hello_stop(1, events.loop);
	for (uint32_t miss = 1; miss <= 2; miss++) {
		for (double end = now_s() + 2; port(0).hello_miss < miss && now_s() < end;)
			events.run(0.005);
		EXPECT_EQ(port(0).hello_miss, miss);
		EXPECT_LT(ev_timer_remaining(events.loop, &port(0).hello_timer), HELLO_TIME * 0.5) << miss;
	}
	ASSERT_TRUE(events.wait_for(0, LINKA1_0, mark, 1)) << "X kept its qualification";
	mark = events.got.size();
	zalkv2_hello_start(1, events.loop); // Y speaks again: X requalifies
	EXPECT_TRUE(events.wait_for(0, LINKA0_1, mark, 2));
}

// The bridge: br0 with ring ports rA and rB, veths whose peers rAp and
// rBp stay outside it.

std::string show(const std::string &what, const std::string &dev) { return sh_out(what + " dev '" + dev + "'"); }
bool port_state(const char *dev, const std::string &state) { return has(show("bridge link show", dev), " state " + state + " "); }
bool fdb_has(const std::string &mac, const std::string &dev) { return sh("bridge fdb show br br0 | grep -q '^" + mac + " dev " + dev + " '") == 0; }

class Bridge : public ::testing::Test {
protected:
	static void SetUpTestSuite() { openlog("zalk-kernel-test", LOG_PERROR, LOG_USER); }
	void SetUp() override
	{
		add_veth("rA", "rAp");
		add_veth("rB", "rBp");
		ASSERT_EQ(sh("ip link add br0 type bridge && ip link set br0 up && ip link set rA master br0 && ip link set rB master br0"), 0);
		memset(instances, 0, sizeof(instances));
		// Opens the interface socket and bridge_rth; the bridge's own
		// VLANs fail here.
		logged([] { zalkv2_prepare_bridge(); });
	}
	void TearDown() override
	{
		EXPECT_EQ(zalkv2_teardown(), 0);
		sh("ip link del br0; ip link del rA; ip link del rB");
	}
	int idx(const char *dev) { return (int)if_nametoindex(dev); }
	std::string log;
};

// What a topology change does on the bridge: learned entries flushed, port
// states set; kernel errors come back negative and reported.
TEST_F(Bridge, LearnedEntriesAreFlushedAndPortStatesSet)
{
	ring_instance(0, 3, RING_TYPE_MEMBER, "rA", "rB");
	ASSERT_EQ(sh("bridge fdb add 02:00:00:00:00:01 dev rA master dynamic && bridge fdb add 02:00:00:00:00:02 dev rB "
		     "master dynamic && bridge fdb add 02:00:00:00:00:03 dev rB master static"), 0);
	EXPECT_EQ(zalkv2_fdb_flush(0), 0);
	EXPECT_FALSE(fdb_has("02:00:00:00:00:01", "rA") || fdb_has("02:00:00:00:00:02", "rB"));
	EXPECT_TRUE(fdb_has("02:00:00:00:00:03", "rB")) << "static entries survive";

	zalkv2_port port{};
	port.ifindex = idx("rA");
	// A bridge without STP puts a blocking port back to forwarding at
	// once, so the states that stay put are used.
	for (auto [state, name] : {std::pair{PORT_DISABLED, "disabled"}, {PORT_LEARNING, "learning"},
				   {PORT_FORWARDING, "forwarding"}, {PORT_DISABLED, "disabled"}}) {
		EXPECT_EQ(zalkv2_set_port_state(&port, state), 0);
		EXPECT_TRUE(port_state("rA", name)) << name;
	}

	ASSERT_EQ(sh("ip link set br0 type bridge stp_state 1"), 0); // the kernel's own STP runs the ports
	log = logged([&] { EXPECT_EQ(zalkv2_set_port_state(&port, PORT_LEARNING), -EBUSY); });
	EXPECT_TRUE(has(log, "RTNETLINK answers: Device or resource busy\n")) << log;

	EXPECT_NE(zalkv2_if_running(idx("rB")), 0); // carrier follows the peer
	ASSERT_EQ(sh("ip link set rBp down"), 0);
	EXPECT_TRUE(wait_until([&] { return zalkv2_if_running(idx("rB")) == 0; }));
}

// Every step runs, failed or not, and the rest takes effect; teardown
// undoes them (what they leave on the bridge: test_daemon.py).
TEST_F(Bridge, PreparationReportsEachFailedStep)
{
	ring_instance(0, 5, RING_TYPE_FOCAL, "rA", "rB");
	char mac[18]; // if_get_mac's answer is the kernel's
	EXPECT_EQ(sh_out("cat /sys/class/net/rA/address"), std::string(mac_to_text(instances[0].port[0].mac, mac, 18)) + "\n");
	log = logged([] { EXPECT_NE(zalkv2_prepare_bridge_on_instance(0), 0); });
	const bool flower = has(sh_out("tc filter show dev rA ingress"), "flower");
	EXPECT_TRUE(has(log, "zalkv2_prepare_bridge_on_instance - Instance 0 Failed\n")) << log;
	EXPECT_TRUE(has(log, "RTNETLINK answers: Operation not supported")) << log;
	if (!flower) { // tc ran and failed: no claim that it could not start
		EXPECT_TRUE(has(log, "System fail add port rA mac 03:4b:a1:01:05:01 loc 321")) << log;
		EXPECT_TRUE(has(log, "System fail add port rB mac 03:4b:a1:01:05:03 loc 326")) << log;
		EXPECT_FALSE(has(log, "Could not start command")) << log;
	}
	// Port A's group entry is there: adding it again is refused, and the
	// kernel's extended-ack explanation follows the report.
	const uint8_t group[6] = {0x03, 0x4b, 0xa1, 0x01, 0x05, 0x04};
	log = logged([&] { EXPECT_EQ(zalkv2_mdb_entry(idx("br0"), idx("rA"), group, ZALK_RING_VLAN, 1), -1); });
	EXPECT_NE(log.find("Error: ", log.find("RTNETLINK answers: File exists\n")), std::string::npos) << log;
	instances[0].enabled = 0;
	log = logged([] { zalkv2_teardown_bridge_on_instance(0); });
	EXPECT_TRUE(flower || has(log, "System fail del port rB mac 03:4b:a1:01:05:03 loc 326")) << log;
}

// `tc` and `bridge` are taken from /usr/sbin whatever PATH the daemon
// has, also when PATH names another `tc` first. Both ways the daemon runs
// a command (alone, and fed a batch) find the same program.
TEST(Spawn, SbinToolsAreFoundWithAnyPath)
{
	mkdir("/tmp/bin", 0755);
	std::ofstream("/tmp/bin/tc") << "#!/bin/sh\nexit 7\n";
	chmod("/tmp/bin/tc", 0755);
	mkdir("/tmp/bin/bridge", 0755); // a directory is no program
	auto run = [](const char *path, const char *prog) {
		path ? setenv("PATH", path, 1) : unsetenv("PATH");
		char arg[] = "-V", *argv[] = {(char *)prog, arg, nullptr};
		int alone = os_spawn(argv);
		EXPECT_EQ(os_spawn_input(argv, "", 0, [](const char *, void *) {}, nullptr), alone) << prog;
		return alone;
	};
	for (const char *path : {(const char *)nullptr, "", "/nonexistent", "/bin:/usr/bin", "/tmp/bin"}) {
		EXPECT_EQ(run(path, "bridge"), 0) << (path ? path : "(unset)");
		EXPECT_EQ(run(path, "tc"), 0) << (path ? path : "(unset)");
	}
	EXPECT_EQ(run(nullptr, "no-such-tool-here"), -1);
	EXPECT_EQ(errno, ENOENT);

	// Fed its input, the program's standard error comes back line by line,
	// the last one without its newline too.
	std::vector<std::string> lines;
	char prog[] = "sh", c[] = "-c", cmd[] = "cat >&2; exit 3", *argv[] = {prog, c, cmd, nullptr};
	EXPECT_EQ(os_spawn_input(argv, "one\ntwo", 7, [](const char *l, void *v) {
		static_cast<std::vector<std::string> *>(v)->push_back(l);
	}, &lines), 3);
	EXPECT_EQ(lines, (std::vector<std::string>{"one", "two"}));

	// Started at the daemon's real-time priority, a command runs at normal
	// priority.
	struct sched_param fifo = {49}, other = {0};
	if (sched_setscheduler(0, SCHED_FIFO, &fifo) == 0) {
		lines.clear();
		char show[] = "chrt -p $$ >&2", *chrt[] = {prog, c, show, nullptr};
		os_spawn_input(chrt, "", 0, [](const char *l, void *v) {
			static_cast<std::vector<std::string> *>(v)->push_back(l);
		}, &lines);
		sched_setscheduler(0, SCHED_OTHER, &other);
		EXPECT_NE(lines.at(0).find("SCHED_OTHER"), std::string::npos) << lines.at(0);
	}
}

} // namespace
