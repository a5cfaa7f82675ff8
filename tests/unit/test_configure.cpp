// Instance configuration and reconfiguration through the fake OS: what
// a reload restarts, what it leaves running, and how rings take slots.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <string>
#include <vector>

#include "bridge/prepare.h"
#include "daemon/configure.h"
#include "daemon/instance.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "ring/channel.h"
#include "ring/focal.h"
#include "ring/member.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace {

struct Port {
	std::string name;
	std::string extra; // further options of the port section
};

std::string ring(int id, const std::string &role, const std::vector<Port> &ports, const std::string &extra = "",
		 const std::string &title = "")
{
	std::string s = "zalk " + (title.empty() ? "ring" + std::to_string(id) : title) + " {\n";
	s += "  ring-id = " + std::to_string(id) + "\n";
	if (!role.empty())
		s += "  ring-role = " + role + "\n";
	s += extra;
	int n = 0;
	for (auto &p : ports)
		s += "  port p" + std::to_string(n++) + " { name = " + p.name + "\n" + p.extra + " }\n";
	return s + "}\n";
}

class Configure : public testing::Test {
protected:
	struct ev_loop *loop = ev_default_loop(0);

	void SetUp() override
	{
		fake::reset();
		memset(instances, 0, sizeof(instances));
		const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0};
		fake::add_iface("br0", 2, mac);
		for (int i = 1; i <= 12; i++) {
			const uint8_t m[6] = {0x02, 0xaa, 0, 0, 0, (uint8_t)i};
			fake::add_iface("eth" + std::to_string(i), 10 + i, m);
		}
		fake::write_file("/var/run/system/0/mac-base", "00:11:22:33:44:55\n");
		focal_timers_init();
		member_timer_init();
		zalkv2_hello_timers_init();
		msg_bus_setup();
		zalkv2_init_sockets();
		zalkv2_prepare_bridge();
		drain_events();
		fake::clear_records();
	}

	void TearDown() override
	{
		// Leave no watcher of this test running in the shared default loop.
		for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
			if (!instances[i].enabled)
				continue;
			for (auto &p : instances[i].port)
				ev_io_stop(loop, &p.rx_watcher);
			zalkv2_hello_stop(i, loop);
			focal_ring_timer_stop(i, loop);
		}
		focal_response_timer_stop(loop);
		msg_bus_stop(loop);
		zalkv2_link_monitor_stop();
		drain_events();
	}

	static void drain_events()
	{
		sm_event ev;
		while (sm_read_event(&ev) == (int)sizeof(ev)) {
		}
	}

	void apply(const std::string &text)
	{
		fake::write_file("/etc/zalkv2d.conf", text);
		testing::internal::CaptureStdout();
		zalkv2_configure_instances(loop);
		std::string out = testing::internal::GetCapturedStdout();
		EXPECT_EQ(out, "");
	}

	// Marks every status directory so a teardown (which removes it) shows.
	void mark(int ring_id) { fake::write_file("/var/run/zalkv2/" + std::to_string(ring_id) + "/marker", "x"); }
	bool marked(int ring_id) { return fake::file_exists("/var/run/zalkv2/" + std::to_string(ring_id) + "/marker"); }

	int count_err(const std::string &text)
	{
		int n = 0;
		for (auto &t : fake::log_texts(LOG_ERR))
			n += t == text;
		return n;
	}
};

const std::string FOCAL_1 = ring(1, "focal", {{"eth1", "forward-delay = 3\n"}, {"eth2", "hello-time = 250\n"}},
				 "  blocked-port = eth2\n  guarded-recovery = 0\n");
const std::string MEMBER_2 = ring(2, "member", {{"eth3", "hello-enable = 0\n"}});

TEST_F(Configure, StartUpWritesEveryFieldWithItsUnits)
{
	apply(FOCAL_1 + MEMBER_2);

	const zalkv2_instance &f = instances[0];
	ASSERT_TRUE(f.enabled);
	EXPECT_EQ(f.index, 0);
	EXPECT_EQ(f.ring_id, 1);
	EXPECT_EQ(f.role, RING_TYPE_FOCAL);
	EXPECT_EQ(f.ring_interval, 0.5f);
	EXPECT_EQ(f.response_delay, 30u);
	EXPECT_EQ(f.guarded_recovery, 0);
	EXPECT_EQ(f.blocked_port, 1u);
	EXPECT_EQ(f.bridge_ifindex, 2);
	const uint8_t base[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
	EXPECT_EQ(memcmp(f.base_mac, base, 6), 0);
	EXPECT_EQ(f.ring_state, RING_FAIL_NET_FOCAL);
	for (int p = 0; p < 2; p++) {
		SCOPED_TRACE(p);
		const zalkv2_port &port = f.port[p];
		EXPECT_EQ(port.instance, &instances[0]);
		EXPECT_EQ(port.port_index, (uint32_t)p);
		EXPECT_EQ(port.ifindex, 11 + p);
		EXPECT_STREQ(port.name, p ? "eth2" : "eth1");
		EXPECT_EQ(port.mac[5], 1 + p);
		EXPECT_GT(port.sock, 0);
		EXPECT_TRUE(ev_is_active(&port.rx_watcher));
		EXPECT_TRUE(ev_is_active(&port.hello_timer));
	}
	EXPECT_EQ(f.port[0].hello_time_ms, 500u);
	EXPECT_EQ(f.port[0].hello_time, 0.5f);
	EXPECT_EQ(f.port[0].fwd_delay, 15);
	EXPECT_EQ(f.port[1].hello_time_ms, 250u);
	EXPECT_EQ(f.port[1].hello_time, 0.25f);
	EXPECT_EQ(f.port[1].fwd_delay, 0);
	EXPECT_TRUE(ev_is_active(&f.ring_timer));
	EXPECT_TRUE(ev_is_active(&response_timer));
	EXPECT_TRUE(fake::file_exists("/var/run/zalkv2/1/type"));

	const zalkv2_instance &m = instances[1];
	ASSERT_TRUE(m.enabled);
	EXPECT_EQ(m.ring_id, 2);
	EXPECT_EQ(m.role, RING_TYPE_MEMBER);
	EXPECT_EQ(m.ring_state, DOWN_NET_MEMBER);
	// A member stores none of the focal point's settings.
	EXPECT_EQ(m.ring_interval, 0.0f);
	EXPECT_EQ(m.response_delay, 0u);
	EXPECT_FALSE(ev_is_active(&m.ring_timer));
	// One port section: port B does not exist and gets nothing.
	EXPECT_EQ(m.port[1].ifindex, -1);
	EXPECT_EQ(m.port[1].port_index, 1u);
	EXPECT_EQ(m.port[1].sock, 0);
	EXPECT_FALSE(ev_is_active(&m.port[1].rx_watcher));
	EXPECT_FALSE(ev_is_active(&m.port[1].hello_timer));
	// Hello disabled: no hello timer on port A either.
	EXPECT_FALSE(ev_is_active(&m.port[0].hello_timer));
	EXPECT_TRUE(ev_is_active(&m.port[0].rx_watcher));
	for (int i = 2; i < ZALK_MAX_INSTANCES; i++)
		EXPECT_FALSE(instances[i].enabled);
	EXPECT_EQ(count_err("Setup of ZALKv2 instance failed\n\n"), 0);
}

TEST_F(Configure, ConversionsTruncateTowardZero)
{
	struct {
		int response_ms, forward_s, interval_ms;
		uint32_t ticks;
		int32_t fwd;
		float interval;
	} cases[] = {
		{1500, 3, 500, 30, 15, 0.5f}, {1499, 1, 300, 29, 5, 0.3f},
		{49, 0, 1000, 0, 0, 1.0f},    {50, 7, 20, 1, 35, 0.02f},
	};
	std::string text;
	int id = 1;
	for (auto &c : cases) {
		text += ring(id, "focal", {{"eth" + std::to_string(id), "forward-delay = " + std::to_string(c.forward_s) + "\n"}},
			     "  response-delay = " + std::to_string(c.response_ms) + "\n  ring-interval = " +
				     std::to_string(c.interval_ms) + "\n");
		id++;
	}
	apply(text);
	for (int i = 0; i < 4; i++) {
		SCOPED_TRACE(i);
		EXPECT_EQ(instances[i].response_delay, cases[i].ticks);
		EXPECT_EQ(instances[i].port[0].fwd_delay, cases[i].fwd);
		EXPECT_EQ(instances[i].ring_interval, cases[i].interval);
	}
}

TEST_F(Configure, UnchangedReloadRestartsNoRing)
{
	const std::string file = FOCAL_1 + MEMBER_2;
	apply(file);
	mark(1);
	mark(2);
	int sock_a = instances[0].port[0].sock, sock_m = instances[1].port[0].sock;
	// Protocol state reached while running must survive the reload.
	instances[0].ring_state = RING_OK_NET_FOCAL;
	instances[1].ring_state = OK_NET_MEMBER;
	instances[0].tc_count = 7;
	fake::clear_records();

	// Sections reordered and retitled, version and bridge changed: none
	// of these is compared.
	apply(ring(2, "member", {{"eth3", "hello-enable = 0\n"}}, "  version = 9\n  bridge = br5\n", "other") +
	      FOCAL_1);

	EXPECT_TRUE(marked(1));
	EXPECT_TRUE(marked(2));
	EXPECT_EQ(instances[0].port[0].sock, sock_a);
	EXPECT_EQ(instances[1].port[0].sock, sock_m);
	EXPECT_EQ(instances[0].ring_state, RING_OK_NET_FOCAL);
	EXPECT_EQ(instances[1].ring_state, OK_NET_MEMBER);
	EXPECT_EQ(instances[0].tc_count, 7u);
	EXPECT_TRUE(fake::netlink.empty()) << "no bridge request for an unchanged ring";
	ASSERT_FALSE(fake::commands.empty()) << "the drop filters are removed and installed again";
	for (auto &c : fake::commands)
		EXPECT_EQ(c.rfind("tc filter ", 0), 0u) << c;
	EXPECT_TRUE(ev_is_active(&instances[0].port[0].rx_watcher));
	EXPECT_TRUE(ev_is_active(&instances[0].port[1].hello_timer));
	EXPECT_TRUE(ev_is_active(&instances[0].ring_timer));
	EXPECT_TRUE(ev_is_active(&instances[1].port[0].rx_watcher));
	// The link states are read and applied again: port A of the member
	// (no hello, carrier up) posts its link-up event anew.
	sm_event ev;
	ASSERT_EQ(sm_read_event(&ev), (int)sizeof(ev));
	EXPECT_EQ(ev.instance, 1u);
	EXPECT_EQ(ev.event, (uint32_t)LINKA0_1);
}

TEST_F(Configure, ChangedFocalSettingRestartsThatRingOnly)
{
	const std::string other = ring(3, "focal", {{"eth5"}, {"eth6"}});
	apply(FOCAL_1 + other);
	mark(1);
	mark(3);
	int sock_other = instances[1].port[0].sock;
	int sock_old = instances[0].port[0].sock;

	std::string changed = FOCAL_1;
	changed.insert(changed.find("  port"), "  ring-interval = 300\n");
	apply(changed + other);

	EXPECT_FALSE(marked(1)) << "ring 1 was torn down";
	EXPECT_TRUE(marked(3));
	EXPECT_EQ(instances[1].port[0].sock, sock_other);
	EXPECT_NE(instances[0].port[0].sock, sock_old);
	EXPECT_EQ(instances[0].ring_id, 1);
	EXPECT_EQ(instances[0].ring_interval, 0.3f);
	EXPECT_TRUE(instances[0].enabled);
}

TEST_F(Configure, EachComparedValueRestartsAFocalPoint)
{
	const std::string changes[] = {
		"  guarded-recovery = 1\n", // was 0
		"  blocked-port = auto\n",  // port B -> port A
		"  response-delay = 1550\n",
		"  ring-role = member\n",
	};
	for (auto &c : changes) {
		SCOPED_TRACE(c);
		apply(FOCAL_1);
		mark(1);
		std::string text = FOCAL_1;
		text.insert(text.find("  port"), c);
		if (c.find("ring-role") != std::string::npos)
			text.erase(text.find("  ring-role = focal\n"), strlen("  ring-role = focal\n"));
		apply(text);
		EXPECT_FALSE(marked(1));
		EXPECT_TRUE(instances[0].enabled);
	}
	// A response delay in the same 50 ms tick is no change.
	apply(FOCAL_1);
	mark(1);
	std::string text = FOCAL_1;
	text.insert(text.find("  port"), "  response-delay = 1549\n");
	apply(text);
	EXPECT_TRUE(marked(1));
}

TEST_F(Configure, MemberIgnoresFocalOnlySettingsButNotPortSettings)
{
	apply(MEMBER_2);
	mark(2);
	apply(ring(2, "member", {{"eth3", "hello-enable = 0\n"}},
		   "  ring-interval = 100\n  response-delay = 9000\n  guarded-recovery = 0\n  blocked-port = eth3\n"));
	EXPECT_TRUE(marked(2));

	const std::string port_changes[] = {"hello-enable = 1\n", "hello-enable = 0\nhello-time = 400\n",
					    "hello-enable = 0\nforward-delay = 2\n"};
	for (auto &pc : port_changes) {
		SCOPED_TRACE(pc);
		apply(MEMBER_2);
		mark(2);
		apply(ring(2, "member", {{"eth3", pc}}));
		EXPECT_FALSE(marked(2));
	}
	// A second port section appearing is a change too.
	apply(MEMBER_2);
	mark(2);
	apply(ring(2, "member", {{"eth3", "hello-enable = 0\n"}, {"eth4"}}));
	EXPECT_FALSE(marked(2));
	EXPECT_EQ(instances[0].port[1].ifindex, 14);
}

TEST_F(Configure, SwappedPortSectionsRestartTheRing)
{
	apply(ring(4, "member", {{"eth1"}, {"eth2"}}));
	mark(4);
	apply(ring(4, "member", {{"eth2"}, {"eth1"}}));
	EXPECT_FALSE(marked(4));
	EXPECT_EQ(instances[0].port[0].ifindex, 12);
	EXPECT_EQ(instances[0].port[1].ifindex, 11);
}

TEST_F(Configure, InterfaceRecreatedUnderANewIndexRestartsTheRing)
{
	apply(ring(4, "member", {{"eth1"}}));
	mark(4);
	fake::iface_by_name("eth1")->index = 99;
	apply(ring(4, "member", {{"eth1"}}));
	EXPECT_FALSE(marked(4));
	EXPECT_EQ(instances[0].port[0].ifindex, 99);
}

TEST_F(Configure, RemovedRingIsTornDownAndAddedRingTakesTheLowestFreeSlot)
{
	const std::string r1 = ring(1, "member", {{"eth1"}});
	const std::string r2 = ring(2, "member", {{"eth2"}});
	const std::string r3 = ring(3, "focal", {{"eth3"}, {"eth4"}});
	apply(r1 + r2 + r3);
	ASSERT_EQ(instances[1].ring_id, 2);
	mark(1);
	mark(3);

	apply(r1 + r3 + ring(4, "member", {{"eth5"}}));
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/2"));
	EXPECT_TRUE(marked(1));
	EXPECT_TRUE(marked(3));
	EXPECT_EQ(instances[0].ring_id, 1);
	EXPECT_EQ(instances[1].ring_id, 4);
	EXPECT_TRUE(instances[1].enabled);
	EXPECT_EQ(instances[2].ring_id, 3);

	// A file without rings tears every ring down.
	apply("");
	for (auto &in : instances)
		EXPECT_FALSE(in.enabled);
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/1"));
	EXPECT_FALSE(ev_is_active(&response_timer));
}

TEST_F(Configure, ReusedSlotStartsFromACleanProtocolState)
{
	apply(ring(1, "member", {{"eth1"}, {"eth2"}}));
	zalkv2_instance &in = instances[0];
	// What the old ring reached while running.
	in.ring_state = DOWN_NET_MEMBER;
	in.tc_count = 12;
	in.sending_link_up = 1;
	in.fwd_cnt = 4;
	in.hold_state = 3;
	in.link_up_pending = 1;
	in.edge[0].edge_latest = 1;
	in.edge[0].edge_id[3] = 9;
	in.rx_errors[1].rx_wrong_ring_id = 5;
	in.port[0].link = 1;
	in.port[0].state = PORT_FORWARDING;
	in.port[0].rx_ring = 40;
	in.port[0].hello_rx = 33;
	in.port[0].hello_state = HELLO_QUALIFIED;
	in.port[1].remote_bridge_id[2] = 7;
	miss_count[0][1] = 3;

	fake::set_debug(ZALK_STATE);
	apply(ring(5, "member", {{"eth3"}}));
	ASSERT_EQ(in.ring_id, 5);
	EXPECT_EQ(in.ring_state, DOWN_NET_MEMBER);
	// The new member enters its first state like on a fresh slot, instead
	// of finding the old ring's DOWN_NET_MEMBER and skipping the change.
	auto notes = fake::log_texts(LOG_NOTICE);
	EXPECT_NE(std::find(notes.begin(), notes.end(),
			    "member_config_ring_topology() - Change ring state RING_OK_NET_FOCAL -> DOWN_NET_MEMBER\n"),
		  notes.end());
	EXPECT_EQ(in.sending_link_up, 0u);
	EXPECT_EQ(in.fwd_cnt, 0);
	EXPECT_EQ(in.hold_state, 0u);
	EXPECT_EQ(in.link_up_pending, 0u);
	EXPECT_EQ(in.edge[0].edge_latest, 0u);
	EXPECT_EQ(in.edge[0].edge_id[3], 0);
	EXPECT_EQ(in.rx_errors[1].rx_wrong_ring_id, 0);
	EXPECT_EQ(in.port[0].rx_ring, 0u);
	EXPECT_EQ(in.port[0].hello_rx, 0u);
	EXPECT_EQ(in.port[0].hello_state, HELLO_PHY_DOWN);
	EXPECT_EQ(in.port[1].ifindex, -1);
	EXPECT_EQ(in.port[1].name[0], 0) << "no stale name on an absent port";
	EXPECT_EQ(in.port[1].remote_bridge_id[2], 0);
	EXPECT_EQ(miss_count[0][1], 0u);
	// The timers initialised at start-up still work in the reused slot.
	EXPECT_TRUE(ev_is_active(&in.port[0].hello_timer));
	EXPECT_EQ(in.port[0].hello_timer.data, &in.port[0]);
	EXPECT_EQ(in.ring_timer.data, &in);
}

TEST_F(Configure, EleventhRingFailsAndTheFirstTenRun)
{
	fake::set_debug(ZALK_DBG);
	std::string text;
	for (int id = 1; id <= 11; id++)
		text += ring(id, "member", {{"eth" + std::to_string(id)}});
	apply(text);
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		EXPECT_TRUE(instances[i].enabled);
		EXPECT_EQ(instances[i].ring_id, i + 1);
	}
	EXPECT_EQ(zalkv2_find_instance(11), -1);
	EXPECT_EQ(zalkv2_alloc_instance(11), -1);
	EXPECT_EQ(zalkv2_alloc_instance(4), 3);
	EXPECT_EQ(count_err("Setup of ZALKv2 instance failed\n\n"), 1);
	auto notes = fake::log_texts(LOG_NOTICE);
	auto has = [&](const std::string &t) { return std::find(notes.begin(), notes.end(), t) != notes.end(); };
	EXPECT_TRUE(has("zalkv2_configure_instances() - Configure ZALKv2 ins 0 cfg:0\n"));
	EXPECT_TRUE(has("zalkv2_configure_instances() - Configure ZALKv2 ins 9 cfg:9\n"));
	EXPECT_TRUE(has("zalkv2_configure_instances() - Configure ZALKv2 ins -1 cfg:10\n"));
	// The failure line follows the debug line of the failed section.
	auto &logs = fake::logs;
	for (size_t i = 0; i < logs.size(); i++)
		if (logs[i].text == "zalkv2_configure_instances() - Configure ZALKv2 ins -1 cfg:10\n") {
			ASSERT_LT(i + 1, logs.size());
			EXPECT_EQ(logs[i + 1], (fake::LogLine{LOG_ERR, "Setup of ZALKv2 instance failed\n\n"}));
		}
}

TEST_F(Configure, SectionsThatCannotBeSetUp)
{
	// Version other than 2, and a section without ring-role (refused
	// rather than guessed), fail; an unknown role makes a member.
	apply(ring(1, "member", {{"eth1"}}, "  version = 1\n") + ring(2, "", {{"eth2"}}) +
	      ring(3, "peer", {{"eth3"}}));
	EXPECT_EQ(count_err("Setup of ZALKv2 instance failed\n\n"), 2);
	EXPECT_EQ(zalkv2_find_instance(1), -1);
	EXPECT_EQ(zalkv2_find_instance(2), -1);
	int m = zalkv2_find_instance(3);
	ASSERT_NE(m, -1);
	EXPECT_EQ(instances[m].role, RING_TYPE_MEMBER);
	// ... which is restarted on every reload, as its role never compares.
	mark(3);
	apply(ring(3, "peer", {{"eth3"}}));
	EXPECT_FALSE(marked(3));

	// A running ring whose section loses its role is torn down for good.
	apply(ring(2, "member", {{"eth2"}}));
	ASSERT_NE(zalkv2_find_instance(2), -1);
	apply(ring(2, "", {{"eth2"}}));
	EXPECT_EQ(zalkv2_find_instance(2), -1);
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/2"));
}

TEST_F(Configure, BlockedPortSelectsPortBOnlyByItsName)
{
	const struct {
		std::string value;
		std::vector<Port> ports;
		uint32_t blocked;
	} cases[] = {
		{"eth2", {{"eth1"}, {"eth2"}}, 1}, {"eth1", {{"eth1"}, {"eth2"}}, 0},
		{"auto", {{"eth1"}, {"eth2"}}, 0}, {"eth7", {{"eth1"}, {"eth2"}}, 0},
		// Without port B there is nothing else to block.
		{"\"\"", {{"eth1"}}, 0},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.value);
		apply("");
		apply(ring(1, "focal", c.ports, "  blocked-port = " + c.value + "\n"));
		EXPECT_EQ(instances[0].blocked_port, c.blocked);
	}
}

TEST_F(Configure, MissingBridgeFailsNewRingsAndKeepsRunningOnes)
{
	const std::string r1 = ring(1, "member", {{"eth1"}});
	apply(r1);
	mark(1);
	int sock = instances[0].port[0].sock;
	fake::ifaces.erase(fake::ifaces.begin()); // br0
	fake::clear_records();

	apply(r1 + ring(2, "member", {{"eth2"}}));
	EXPECT_TRUE(marked(1));
	EXPECT_EQ(instances[0].port[0].sock, sock);
	EXPECT_EQ(zalkv2_find_instance(2), -1);
	auto errs = fake::log_texts(LOG_ERR);
	auto at = std::find(errs.begin(), errs.end(), "Bridge do not exists\n");
	ASSERT_NE(at, errs.end());
	ASSERT_NE(at + 1, errs.end());
	EXPECT_EQ(at[1], "Setup of ZALKv2 instance failed\n\n");

	// A changed ring fails as well and stays torn down.
	apply(ring(1, "member", {{"eth1", "hello-time = 300\n"}}));
	EXPECT_EQ(zalkv2_find_instance(1), -1);
}

TEST_F(Configure, PortWithoutSocketKeepsItsWatcherStopped)
{
	fake::socket_fails = true;
	apply(ring(1, "member", {{"eth1"}, {"eth2"}}));
	fake::socket_fails = false;
	ASSERT_TRUE(instances[0].enabled) << "the ring is set up without that socket";
	EXPECT_FALSE(ev_is_active(&instances[0].port[0].rx_watcher));
	EXPECT_FALSE(ev_is_active(&instances[0].port[1].rx_watcher));
	// An unchanged reload opens no socket, so the watchers stay stopped.
	apply(ring(1, "member", {{"eth1"}, {"eth2"}}));
	EXPECT_FALSE(ev_is_active(&instances[0].port[0].rx_watcher));
	// Set up again with sockets, the watchers run.
	apply(ring(1, "member", {{"eth1"}, {"eth2", "hello-time = 300\n"}}));
	EXPECT_TRUE(ev_is_active(&instances[0].port[0].rx_watcher));
	EXPECT_TRUE(ev_is_active(&instances[0].port[1].rx_watcher));
}

using ConfigureDeathTest = Configure;

// Runs in the dying child before the fakes clean up: says on standard
// error whether anything of the running ring was touched.
void report_untouched()
{
	bool untouched = fake::commands.empty() && fake::netlink.empty() && instances[0].enabled &&
			 ev_is_active(&instances[0].port[0].rx_watcher) &&
			 ev_is_active(&instances[0].ring_timer) &&
			 fake::file_exists("/var/run/zalkv2/1/marker");
	fprintf(stderr, untouched ? "untouched\n" : "touched\n");
	// The only way out of a reconfiguration here is exit(1); leave with it
	// before the fakes' own clean-up removes the files the parent checks.
	fflush(stderr);
	_exit(1);
}

TEST_F(ConfigureDeathTest, UnusableFileOnReloadExitsBeforeTouchingAnything)
{
	apply(FOCAL_1);
	mark(1);
	fake::clear_records();
	fake::write_file("/etc/zalkv2d.conf", FOCAL_1 + "zalk { }\n");
	EXPECT_EXIT(
		{
			std::atexit(report_untouched);
			zalkv2_configure_instances(loop);
		},
		testing::ExitedWithCode(1), "untouched");

	std::remove((fake::root() + "/etc/zalkv2d.conf").c_str());
	EXPECT_EXIT(
		{
			std::atexit(report_untouched);
			zalkv2_configure_instances(loop);
		},
		testing::ExitedWithCode(1), "untouched");
}

} // namespace
