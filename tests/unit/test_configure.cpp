// Instance configuration and reconfiguration through the fake OS: what
// a reload restarts, what it leaves running, and how rings take slots.
#include <cstdio>

#include "daemon/configure.h"
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

// One "zalk" section; ports are "<name>[;<options>]".
std::string ring(int id, const std::string &role, const Lines &ports, const std::string &extra = "", const std::string &title = "")
{
	std::string s = "zalk " + (title.empty() ? "ring" + std::to_string(id) : title) + " {\n  ring-id = " + std::to_string(id) + "\n";
	s += (role.empty() ? "" : "  ring-role = " + role + "\n") + extra;
	for (size_t n = 0; n < ports.size(); n++) {
		size_t semi = ports[n].find(';');
		s += "  port p" + std::to_string(n) + " { name = " + ports[n].substr(0, semi) + "\n" +
		     (semi == std::string::npos ? "" : ports[n].substr(semi + 1)) + " }\n";
	}
	return s + "}\n";
}

const std::string FOCAL_1 = ring(1, "focal", {"eth1;forward-delay = 3\n", "eth2;hello-time = 250\n"}, "  blocked-port = eth2\n  guarded-recovery = 0\n");
const std::string MEMBER_2 = ring(2, "member", {"eth3;hello-enable = 0\n"});

class Configure : public Unit {
protected:
	void SetUp() override
	{
		Unit::SetUp();
		const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0};
		fake::add_iface("br0", 2, mac);
		for (int i = 1; i <= 12; i++) {
			const uint8_t m[6] = {0x02, 0xaa, 0, 0, 0, (uint8_t)i};
			fake::add_iface("eth" + std::to_string(i), 10 + i, m);
		}
		fake::write_file("/var/run/system/0/mac-base", "00:11:22:33:44:55\n");
		zalkv2_init_sockets();
		zalkv2_prepare_bridge();
		clear();
	}
	void apply(const std::string &text)
	{
		fake::write_file("/etc/zalkv2d.conf", text);
		testing::internal::CaptureStdout();
		zalkv2_configure_instances(loop);
		EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
	}
	// A marker in a ring's status directory: a teardown removes it.
	void mark(int id) { fake::write_file("/var/run/zalkv2/" + std::to_string(id) + "/marker", "x"); }
	bool marked(int id) { return fake::file_exists("/var/run/zalkv2/" + std::to_string(id) + "/marker"); }
	// Applies from, marks ring id, applies to: whether ring id was restarted.
	bool restarts(const std::string &from, const std::string &to, int id)
	{
		apply(from);
		mark(id);
		apply(to);
		return !marked(id);
	}
	int failures() { return (int)count_of(join(errors()), "Setup of ZALKv2 instance failed\n\n"); }
};

TEST_F(Configure, StartUpWritesEveryFieldWithItsUnits)
{
	apply(FOCAL_1 + MEMBER_2);
	const zalkv2_instance &f = instances[0], &m = instances[1];
	EXPECT_EQ(f.index + f.ring_id + f.role + f.guarded_recovery + f.blocked_port + f.bridge_ifindex, 0 + 1 + 0 + 0 + 1 + 2);
	EXPECT_EQ(f.ring_interval, 0.5f);
	EXPECT_EQ(f.response_delay, 30u);
	EXPECT_EQ(hex(Bytes(f.base_mac, f.base_mac + 6)), "001122334455");
	EXPECT_EQ(f.ring_state, RING_FAIL_NET_FOCAL);
	for (int p = 0; p < 2; p++) {
		EXPECT_EQ(f.port[p].instance, &instances[0]);
		EXPECT_EQ(f.port[p].port_index + f.port[p].ifindex + f.port[p].mac[5], (unsigned)(p + 11 + p + 1 + p));
		EXPECT_STREQ(f.port[p].name, p ? "eth2" : "eth1");
		EXPECT_GT(f.port[p].sock, 0);
		EXPECT_TRUE(ev_is_active(&f.port[p].rx_watcher) && ev_is_active(&f.port[p].hello_timer));
	}
	EXPECT_EQ(f.port[0].hello_time_ms + f.port[1].hello_time_ms, 750u);
	EXPECT_EQ(f.port[1].hello_time, 0.25f);
	EXPECT_EQ(f.port[0].fwd_delay + f.port[1].fwd_delay, 15);
	EXPECT_TRUE(ev_is_active(&f.ring_timer) && ev_is_active(&response_timer));
	EXPECT_EQ(fake::read_file("/var/run/zalkv2/1/type"), "focal-point");
	// A member stores none of the focal point's settings; absent port B and hello off get no watcher.
	EXPECT_EQ(m.ring_id * 10 + m.role, 21u);
	EXPECT_EQ(m.ring_state, DOWN_NET_MEMBER);
	EXPECT_EQ(m.ring_interval + m.response_delay, 0.0f);
	EXPECT_FALSE(ev_is_active(&m.ring_timer));
	EXPECT_EQ(m.port[1].ifindex, -1);
	EXPECT_EQ(m.port[1].sock, 0);
	EXPECT_FALSE(ev_is_active(&m.port[1].rx_watcher) || ev_is_active(&m.port[1].hello_timer) || ev_is_active(&m.port[0].hello_timer));
	EXPECT_TRUE(ev_is_active(&m.port[0].rx_watcher));
	EXPECT_EQ(failures(), 0);

	// Conversions truncate toward zero: response ms, forward s, interval ms.
	const struct {
		int response_ms, forward_s, interval_ms;
		uint32_t ticks;
		int32_t fwd;
		float interval;
	} cases[] = {{1499, 1, 300, 29, 5, 0.3f}, {49, 0, 1000, 0, 0, 1.0f}, {50, 7, 20, 1, 35, 0.02f}};
	std::string text;
	for (int i = 0; i < 3; i++)
		text += ring(i + 1, "focal", {"eth" + std::to_string(i + 1) + ";forward-delay = " + std::to_string(cases[i].forward_s) + "\n"},
			     "  response-delay = " + std::to_string(cases[i].response_ms) + "\n  ring-interval = " + std::to_string(cases[i].interval_ms) + "\n");
	apply(text);
	for (int i = 0; i < 3; i++) {
		EXPECT_EQ(instances[i].response_delay, cases[i].ticks) << i;
		EXPECT_EQ(instances[i].port[0].fwd_delay, cases[i].fwd) << i;
		EXPECT_EQ(instances[i].ring_interval, cases[i].interval) << i;
	}
}

TEST_F(Configure, UnchangedReloadRestartsNoRing)
{
	apply(FOCAL_1 + MEMBER_2);
	mark(1);
	mark(2);
	int sock_a = instances[0].port[0].sock, sock_m = instances[1].port[0].sock;
	instances[0].ring_state = RING_OK_NET_FOCAL; // protocol state reached while running survives
	instances[1].ring_state = OK_NET_MEMBER;
	instances[0].tc_count = 7;
	events();
	clear();
	// Sections reordered and retitled, version and bridge changed: none of these is compared.
	apply(ring(2, "member", {"eth3;hello-enable = 0\n"}, "  version = 9\n  bridge = br5\n", "other") + FOCAL_1);
	EXPECT_TRUE(marked(1) && marked(2));
	EXPECT_EQ(instances[0].port[0].sock, sock_a);
	EXPECT_EQ(instances[1].port[0].sock, sock_m);
	EXPECT_EQ(instances[0].ring_state * 10 + instances[1].ring_state, RING_OK_NET_FOCAL * 10u + OK_NET_MEMBER);
	EXPECT_EQ(instances[0].tc_count, 7u);
	EXPECT_TRUE(fake::netlink.empty()) << "no bridge request for an unchanged ring";
	ASSERT_FALSE(fake::commands.empty()) << "the drop filters are removed and installed again";
	for (auto &c : fake::commands)
		EXPECT_EQ(c.rfind("tc filter ", 0), 0u) << c;
	EXPECT_TRUE(ev_is_active(&instances[0].port[0].rx_watcher) && ev_is_active(&instances[0].port[1].hello_timer));
	EXPECT_TRUE(ev_is_active(&instances[0].ring_timer) && ev_is_active(&instances[1].port[0].rx_watcher));
	// The link states are read and applied again: the member's port A (no hello, carrier up) posts anew.
	EXPECT_EQ(events(), "1:LINKA0_1");
}

TEST_F(Configure, ComparedValuesRestartOnlyTheirRing)
{
	auto with = [](const std::string &opt) {
		std::string t = FOCAL_1;
		return t.insert(t.find("  port"), opt);
	};
	const std::string other = ring(3, "focal", {"eth5", "eth6"});
	apply(FOCAL_1 + other);
	mark(3);
	int sock_other = instances[1].port[0].sock;
	EXPECT_TRUE(restarts(FOCAL_1 + other, with("  ring-interval = 300\n") + other, 1));
	EXPECT_TRUE(marked(3));
	EXPECT_EQ(instances[1].port[0].sock, sock_other);
	EXPECT_EQ(instances[0].ring_interval, 0.3f);
	std::string member = with("  ring-role = member\n");
	member.erase(member.find("  ring-role = focal\n"), 20);
	for (auto &changed : {with("  guarded-recovery = 1\n"), with("  blocked-port = auto\n"), with("  response-delay = 1550\n"), member})
		EXPECT_TRUE(restarts(FOCAL_1, changed, 1)) << changed;
	EXPECT_FALSE(restarts(FOCAL_1, with("  response-delay = 1549\n"), 1)) << "the same 50 ms tick is no change";

	// A member ignores the focal point's settings, not its ports'.
	EXPECT_FALSE(restarts(MEMBER_2, ring(2, "member", {"eth3;hello-enable = 0\n"}, "  ring-interval = 100\n  response-delay = 9000\n"
										   "  guarded-recovery = 0\n  blocked-port = eth3\n"), 2));
	for (std::string pc : {"eth3;hello-enable = 1\n", "eth3;hello-enable = 0\nhello-time = 400\n", "eth3;hello-enable = 0\nforward-delay = 2\n"})
		EXPECT_TRUE(restarts(MEMBER_2, ring(2, "member", {pc}), 2)) << pc;
	EXPECT_TRUE(restarts(MEMBER_2, ring(2, "member", {"eth3;hello-enable = 0\n", "eth4"}), 2));
	EXPECT_EQ(instances[0].port[1].ifindex, 14);
	EXPECT_TRUE(restarts(ring(4, "member", {"eth1", "eth2"}), ring(4, "member", {"eth2", "eth1"}), 4)); // swapped port sections
	EXPECT_EQ(instances[0].port[0].ifindex * 100 + instances[0].port[1].ifindex, 1211);
	apply(ring(4, "member", {"eth1"}));
	mark(4);
	fake::iface_by_name("eth1")->index = 99; // interface recreated under a new index
	apply(ring(4, "member", {"eth1"}));
	EXPECT_FALSE(marked(4));
	EXPECT_EQ(instances[0].port[0].ifindex, 99);
}

TEST_F(Configure, RemovedRingIsTornDownAndAddedRingTakesTheLowestFreeSlot)
{
	const std::string r1 = ring(1, "member", {"eth1"}), r2 = ring(2, "member", {"eth2"}), r3 = ring(3, "focal", {"eth3", "eth4"});
	apply(r1 + r2 + r3);
	mark(1);
	mark(3);
	apply(r1 + r3 + ring(4, "member", {"eth5"}));
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/2"));
	EXPECT_TRUE(marked(1) && marked(3));
	EXPECT_EQ(std::to_string(instances[0].ring_id) + std::to_string(instances[1].ring_id) + std::to_string(instances[2].ring_id), "143");
	apply(""); // a file without rings tears every ring down
	for (auto &in : instances)
		EXPECT_FALSE(in.enabled);
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/1"));
	EXPECT_FALSE(ev_is_active(&response_timer));
}

TEST_F(Configure, ReusedSlotStartsFromACleanProtocolState)
{
	apply(ring(1, "member", {"eth1", "eth2"}));
	zalkv2_instance &in = instances[0];
	in.tc_count = 12; // what the old ring reached while running
	in.sending_link_up = in.link_up_pending = in.hold_state = 1;
	in.fwd_cnt = 4;
	in.edge[0].edge_id[3] = 9;
	in.rx_errors[1].rx_wrong_ring_id = 5;
	in.port[0].rx_ring = in.port[0].hello_rx = 33;
	in.port[1].remote_bridge_id[2] = 7;
	miss_count[0][1] = 3;
	fake::set_debug(ZALK_STATE);
	apply(ring(5, "member", {"eth3"}));
	ASSERT_EQ(in.ring_id, 5);
	// The new member enters its first state like on a fresh slot.
	EXPECT_TRUE(has(notices(), "member_config_ring_topology() - Change ring state RING_OK_NET_FOCAL -> DOWN_NET_MEMBER\n"));
	EXPECT_EQ(in.sending_link_up + in.link_up_pending + in.hold_state + in.fwd_cnt + in.edge[0].edge_id[3] + in.rx_errors[1].rx_wrong_ring_id +
			  in.port[0].rx_ring + in.port[0].hello_rx + in.port[1].remote_bridge_id[2] + miss_count[0][1],
		  0u);
	EXPECT_EQ(in.port[1].ifindex, -1);
	EXPECT_EQ(in.port[1].name[0], 0) << "no stale name on an absent port";
	EXPECT_TRUE(ev_is_active(&in.port[0].hello_timer)); // the timers initialised at start-up still work
	EXPECT_EQ(in.port[0].hello_timer.data, &in.port[0]);
	EXPECT_EQ(in.ring_timer.data, &in);
}

TEST_F(Configure, SectionsThatCannotBeSetUp)
{
	fake::set_debug(ZALK_DBG);
	std::string text;
	for (int id = 1; id <= 11; id++)
		text += ring(id, "member", {"eth" + std::to_string(id)});
	apply(text);
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
		EXPECT_EQ(instances[i].ring_id, i + 1);
	EXPECT_EQ(zalkv2_find_instance(11), -1);
	EXPECT_EQ(zalkv2_alloc_instance(11), -1);
	EXPECT_EQ(zalkv2_alloc_instance(4), 3);
	EXPECT_EQ(failures(), 1); // the eleventh, right after its debug line
	auto &logs = fake::logs;
	auto at = std::find(logs.begin(), logs.end(), fake::LogLine{LOG_NOTICE, "zalkv2_configure_instances() - Configure ZALKv2 ins -1 cfg:10\n"});
	ASSERT_NE(at, logs.end());
	EXPECT_EQ(at[1], (fake::LogLine{LOG_ERR, "Setup of ZALKv2 instance failed\n\n"}));

	// Version other than 2 and a section without ring-role (refused, not guessed) fail; an unknown role makes a member.
	apply("");
	clear();
	apply(ring(1, "member", {"eth1"}, "  version = 1\n") + ring(2, "", {"eth2"}) + ring(3, "peer", {"eth3"}));
	EXPECT_EQ(failures(), 2);
	EXPECT_EQ(zalkv2_find_instance(1) + zalkv2_find_instance(2), -2);
	ASSERT_NE(zalkv2_find_instance(3), -1);
	EXPECT_EQ(instances[zalkv2_find_instance(3)].role, RING_TYPE_MEMBER);
	EXPECT_TRUE(restarts(ring(3, "peer", {"eth3"}), ring(3, "peer", {"eth3"}), 3)) << "its role never compares";
	apply(ring(2, "member", {"eth2"})); // a running ring whose section loses its role is torn down for good
	apply(ring(2, "", {"eth2"}));
	EXPECT_EQ(zalkv2_find_instance(2), -1);
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/2"));

	const std::pair<std::string, uint32_t> blocked[] = {{"eth2", 1}, {"eth1", 0}, {"auto", 0}, {"eth7", 0}}; // only port B's name selects it
	for (auto &[value, port] : blocked) {
		apply(ring(1, "focal", {"eth1", "eth2"}, "  blocked-port = " + value + "\n"));
		EXPECT_EQ(instances[0].blocked_port, port) << value;
	}
	apply(ring(1, "focal", {"eth1"}, "  blocked-port = eth2\n")); // without port B there is nothing else to block
	EXPECT_EQ(instances[0].blocked_port, 0u);
}

TEST_F(Configure, MissingBridgeFailsNewRingsAndKeepsRunningOnes)
{
	const std::string r1 = ring(1, "member", {"eth1"});
	apply(r1);
	mark(1);
	int sock = instances[0].port[0].sock;
	fake::ifaces.erase(fake::ifaces.begin()); // br0
	clear();
	apply(r1 + ring(2, "member", {"eth2"}));
	EXPECT_TRUE(marked(1));
	EXPECT_EQ(instances[0].port[0].sock, sock);
	EXPECT_EQ(zalkv2_find_instance(2), -1);
	EXPECT_NE(join(errors()).find("Bridge do not exists\n Setup of ZALKv2 instance failed\n\n"), std::string::npos);
	apply(ring(1, "member", {"eth1;hello-time = 300\n"})); // a changed ring fails as well and stays torn down
	EXPECT_EQ(zalkv2_find_instance(1), -1);
}

TEST_F(Configure, PortWithoutSocketKeepsItsWatcherStopped)
{
	fake::socket_fails = true;
	apply(ring(1, "member", {"eth1", "eth2"}));
	fake::socket_fails = false;
	ASSERT_TRUE(instances[0].enabled) << "the ring is set up without that socket";
	EXPECT_FALSE(ev_is_active(&instances[0].port[0].rx_watcher) || ev_is_active(&instances[0].port[1].rx_watcher));
	apply(ring(1, "member", {"eth1", "eth2"})); // an unchanged reload opens no socket: still stopped
	EXPECT_FALSE(ev_is_active(&instances[0].port[0].rx_watcher));
	apply(ring(1, "member", {"eth1", "eth2;hello-time = 300\n"})); // set up again with sockets, they run
	EXPECT_TRUE(ev_is_active(&instances[0].port[0].rx_watcher) && ev_is_active(&instances[0].port[1].rx_watcher));
	// A name that is no interface (index 0): still a ring port, but no socket that would hear every interface.
	apply(ring(1, "member", {"eth1", "nosuch"}));
	EXPECT_EQ(instances[0].port[1].ifindex, 0);
	EXPECT_TRUE(ev_is_active(&instances[0].port[0].rx_watcher) && !ev_is_active(&instances[0].port[1].rx_watcher));
	EXPECT_TRUE(has(errors(), "Ring port nosuch is no interface\n"));
}

// In the dying child, before the fakes clean up: was anything of the running ring touched?
void report_untouched()
{
	bool untouched = fake::commands.empty() && fake::netlink.empty() && instances[0].enabled && ev_is_active(&instances[0].port[0].rx_watcher) &&
			 ev_is_active(&instances[0].ring_timer) && fake::file_exists("/var/run/zalkv2/1/marker");
	fprintf(stderr, untouched ? "untouched\n" : "touched\n");
	fflush(stderr);
	_exit(1);
}

using ConfigureDeathTest = Configure;

TEST_F(ConfigureDeathTest, UnusableFileOnReloadExitsBeforeTouchingAnything)
{
	apply(FOCAL_1);
	mark(1);
	clear();
	for (bool broken : {true, false}) { // a broken file, then none at all
		if (broken)
			fake::write_file("/etc/zalkv2d.conf", FOCAL_1 + "zalk { }\n");
		else
			std::remove((fake::root() + "/etc/zalkv2d.conf").c_str());
		EXPECT_EXIT(
			{
				std::atexit(report_untouched);
				zalkv2_configure_instances(loop);
			},
			testing::ExitedWithCode(1), "untouched");
	}
}

} // namespace
