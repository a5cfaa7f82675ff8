// The configuration file and the daemon's life cycle through the fake OS:
// loading, start-up, what a reload restarts and what it leaves running,
// shutdown, and the links to the version-0 daemon.
#include <cerrno>
#include <filesystem>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/config.h"
#include "daemon/configure.h"
#include "daemon/daemon.h"
#include "daemon/legacy.h"
#include "tests/fakes/fixture.h"

using namespace fx;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

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
	// Writes the file and reconfigures, or with start the whole start-up.
	void apply(const std::string &text, bool start = false)
	{
		fake::write_file("/etc/zalkv2d.conf", text);
		CaptureStdout();
		start ? init_all() : zalkv2_configure_instances(loop);
		EXPECT_EQ(GetCapturedStdout(), "");
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
	void stop(const char *runlevel)
	{
		fake::runlevel_output = runlevel;
		sigterm_cb(loop, nullptr, 0);
		EXPECT_FALSE(fake::file_exists("/var/run/zalkv2"));
	}
};

TEST_F(Configure, LoaderReadersAndMessages)
{
	// Roles are case-sensitive prefixes. Port B absent: -1; the default name, or a name that is no interface: 0.
	// A brace in a comment, string or ${...} does not count; // inside a value starts no comment.
	fake::write_file("/etc/zalkv2d.conf", "zalk ring { ring-role = focal-point port a { } } # }\nzalk two { ring-role = members port a { name = eth1 } "
					      "port b { name = eth99 } }\nzalk r { ring-role = Focal bridge = br0//x }\nzalk s { ring-role = \"{${Z\"{}\" /* { */ bridge = ${Z{} }\n");
	cfg_t *cfg = zalkv2_read_config(), *r = cfg_getnsec(cfg, "zalk", 0), *two = cfg_getnsec(cfg, "zalk", 1);
	std::string got;
	for (int i = 0; i < 4; i++)
		got += std::to_string(zalkv2_cfg_ring_role(cfg_getnsec(cfg, "zalk", i))) + " ";
	for (cfg_t *port : {cfg_getnsec(r, "port", 1), cfg_getnsec(r, "port", 0), cfg_getnsec(two, "port", 0), cfg_getnsec(two, "port", 1)})
		got += std::to_string(zalkv2_cfg_port_ifindex(port)) + " ";
	EXPECT_EQ(got, "0 1 -1 -1 -1 0 11 0 ");
	cfg_free(cfg);

	// A file cut off inside a section is broken, however it ends. (The messages of the real daemon: tests/tool.)
	for (const char *text : {"zalk r { ring-id = abc }\n", "zalk r { ring-id = 1\n", "zalk r { ring-id = 1 # }\n", "zalk r { /* } */ ring-id = 1\n",
				 "zalk r { ring-role = \"}\"\n"}) {
		fake::write_file("/etc/zalkv2d.conf", text);
		CaptureStdout();
		testing::internal::CaptureStderr();
		EXPECT_EQ(zalkv2_read_config(), nullptr) << text;
		testing::internal::GetCapturedStderr();
		EXPECT_EQ(GetCapturedStdout().rfind("Error when parsing configuration file " + fake::root() + "/etc/zalkv2d.conf: ", 0), 0u);
	}
}

TEST_F(Configure, StartUpInOrderWithUnitsConvertedAndRealTimePriorityLast)
{
	fake::set_debug(ZALK_DBG);
	apply(FOCAL_1 + MEMBER_2, true);
	std::string notes = join(notices());
	size_t last = 0;
	for (const char *s : {"init_all() - ZALKv2 starting initializing\n", "init_all() - ZALKv2 setup signal handlers\n",
			      "init_all() - ZALKv2 setup watchers\n", "init_all() - ZALKv2 get configuration\n",
			      "zalkv2_configure_instances() - Configure ZALKv2 ins 1 cfg:1\n", "init_all() - Setup finished and ZALKv2 started\n"}) {
		size_t at = notes.find(s, last);
		ASSERT_NE(at, std::string::npos) << s;
		last = at;
	}
	EXPECT_EQ(fake::sched_calls, (std::vector<std::pair<int, int>>{{SCHED_FIFO, 49}}));
	EXPECT_TRUE(errors().empty());
	// Frames built from the file: the member's group address, its port's MAC, the base MAC of the system file.
	dispatch();
	ring_tick(0);
	EXPECT_EQ(sent(), "Link Up@13 Ring@11 Ring@12");
	EXPECT_EQ(hex(fake::frames.at(0).bytes, 0, 40), "034ba101020202aa000000038100efb50024aaaa03024ba101002002031a00000011223344550000");
	const zalkv2_instance &f = instances[0], &m = instances[1];
	EXPECT_EQ(f.blocked_port * 10 + f.port[0].fwd_delay, 25u);
	EXPECT_EQ(f.ring_state * 10 + m.ring_state, RING_FAIL_NET_FOCAL * 10u + DOWN_NET_MEMBER);
	EXPECT_TRUE(ev_is_active(&f.ring_timer) && ev_is_active(&response_timer) && ev_is_active(&sm_watcher));
	EXPECT_TRUE(ev_is_active(&f.port[1].rx_watcher) && ev_is_active(&f.port[0].hello_timer));
	// Absent port B and hello off get no watcher.
	EXPECT_FALSE(ev_is_active(&m.port[1].rx_watcher) || ev_is_active(&m.port[0].hello_timer));
}

TEST_F(Configure, AReloadRestartsOnlyTheRingsWhoseComparedValuesChanged)
{
	apply(FOCAL_1 + MEMBER_2);
	mark(1);
	mark(2);
	instances[0].ring_state = RING_OK_NET_FOCAL; // protocol state reached while running survives
	instances[1].ring_state = OK_NET_MEMBER;
	events();
	clear();
	// Sections reordered and retitled, version and bridge changed: none of these is compared.
	apply(ring(2, "member", {"eth3;hello-enable = 0\n"}, "  version = 9\n  bridge = br5\n", "other") + FOCAL_1);
	EXPECT_TRUE(marked(1) && marked(2));
	EXPECT_EQ(instances[0].ring_state * 10 + instances[1].ring_state, RING_OK_NET_FOCAL * 10u + OK_NET_MEMBER);
	EXPECT_TRUE(fake::netlink.empty()) << "no bridge request for an unchanged ring";
	ASSERT_FALSE(fake::commands.empty()) << "the drop filters are removed and installed again";
	EXPECT_EQ(fake::batches.size(), 1u) << "by one tc process";
	for (auto &c : fake::commands)
		EXPECT_EQ(c.rfind("tc filter ", 0), 0u) << c;
	EXPECT_TRUE(ev_is_active(&instances[0].port[1].hello_timer) && ev_is_active(&instances[0].ring_timer) && ev_is_active(&instances[1].port[0].rx_watcher));
	// The link states are read and applied again: the member's port A (no hello, carrier up) posts anew.
	EXPECT_EQ(events(), "1:LINKA0_1");

	auto with = [](const std::string &opt) {
		std::string t = FOCAL_1;
		return t.insert(t.find("  port"), opt);
	};
	const std::string other = ring(3, "focal", {"eth5", "eth6"});
	apply(other + FOCAL_1);
	mark(3);
	EXPECT_TRUE(restarts(other + FOCAL_1, other + with("  ring-interval = 300\n"), 1));
	EXPECT_TRUE(marked(3)) << "the other ring runs on";
	for (auto &changed : {with("  guarded-recovery = 1\n"), with("  blocked-port = auto\n"), with("  response-delay = 1550\n"), ring(1, "member", {"eth1;forward-delay = 3\n", "eth2;hello-time = 250\n"})})
		EXPECT_TRUE(restarts(FOCAL_1, changed, 1)) << changed;
	EXPECT_FALSE(restarts(FOCAL_1, with("  response-delay = 1549\n"), 1)) << "the same 50 ms tick is no change";
	// A member ignores the focal point's settings, not its ports'.
	EXPECT_FALSE(restarts(MEMBER_2, ring(2, "member", {"eth3;hello-enable = 0\n"}, "  ring-interval = 100\n  guarded-recovery = 0\n"), 2));
	for (std::string pc : {"eth3;hello-enable = 1\n", "eth3;hello-enable = 0\nhello-time = 400\n", "eth3;hello-enable = 0\nforward-delay = 2\n", "eth4;hello-enable = 0\n"})
		EXPECT_TRUE(restarts(MEMBER_2, ring(2, "member", {pc}), 2)) << pc;
	EXPECT_TRUE(restarts(MEMBER_2, ring(2, "member", {"eth3;hello-enable = 0\n", "eth4"}), 2));
	mark(2);
	fake::iface_by_name("eth4")->index = 99; // interface recreated under a new index
	apply(ring(2, "member", {"eth3;hello-enable = 0\n", "eth4"}));
	EXPECT_FALSE(marked(2));
}

TEST_F(Configure, RemovedRingIsTornDownAndAddedRingTakesTheLowestFreeSlotCleared)
{
	const std::string r1 = ring(1, "member", {"eth1"}), r2 = ring(2, "member", {"eth2", "eth6"}), r3 = ring(3, "focal", {"eth3", "eth4"});
	apply(r1 + r2 + r3);
	mark(1);
	mark(3);
	zalkv2_instance &in = instances[1];
	in.hold_state = in.port[0].hello_rx = 1; // what the old ring reached while running
	in.port[1].remote_bridge_id[2] = 7;
	miss_count[1][1] = 3;
	fake::set_debug(ZALK_STATE);
	apply(r1 + r3 + ring(4, "member", {"eth5"}));
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/2"));
	EXPECT_TRUE(marked(1) && marked(3));
	EXPECT_EQ(std::to_string(instances[0].ring_id) + std::to_string(instances[1].ring_id) + std::to_string(instances[2].ring_id), "143");
	// The new member enters its first state like on a fresh slot, without a trace of the old ring.
	EXPECT_TRUE(has(notices(), "member_config_ring_topology() - Change ring state RING_OK_NET_FOCAL -> DOWN_NET_MEMBER\n"));
	EXPECT_EQ(in.hold_state + in.port[0].hello_rx + in.port[1].remote_bridge_id[2] + miss_count[1][1], 0u);
	EXPECT_EQ(in.port[1].ifindex * 100 + in.port[1].name[0], -100) << "no stale name on an absent port";
	EXPECT_TRUE(ev_is_active(&in.port[0].hello_timer)); // the timers initialised at start-up still work
	EXPECT_EQ(in.port[0].hello_timer.data, &in.port[0]);

	// A file without rings tears every ring down, closing every descriptor it held.
	apply("");
	const auto open_fds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
	const auto before = open_fds();
	apply(r2);
	apply("");
	EXPECT_EQ(open_fds(), before);
	for (auto &i : instances)
		EXPECT_FALSE(i.enabled);
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/1"));
	EXPECT_FALSE(ev_is_active(&response_timer));
}

TEST_F(Configure, SectionsThatCannotBeSetUp)
{
	// Version other than 2 and a section without ring-role (refused, not guessed) fail; an unknown role makes a
	// member; a running ring whose section loses its role is torn down.
	apply(ring(2, "member", {"eth2"}));
	apply(ring(1, "member", {"eth1"}, "  version = 1\n") + ring(2, "", {"eth2"}) + ring(3, "peer", {"eth3"}));
	EXPECT_EQ(zalkv2_find_instance(1) + zalkv2_find_instance(2), -2);
	EXPECT_EQ(instances[0].ring_id * 10 + instances[0].role, 30u + RING_TYPE_MEMBER);
	apply(ring(1, "focal", {"eth1"}, "  blocked-port = eth2\n")); // without port B there is nothing else to block
	EXPECT_EQ(instances[0].blocked_port, 0u);

	// Without the bridge every ring fails, a running one too (its bridge is gone), and waits for br0, which its
	// status says; when br0 is back (new index) they are set up without a signal, the new bridge's own VLANs first.
	fake::ifaces.erase(fake::ifaces.begin()); // br0
	mark(1);
	clear();
	const std::string both = ring(1, "focal", {"eth1"}, "  blocked-port = eth2\n") + ring(2, "member", {"eth2"});
	apply(both);
	EXPECT_EQ(zalkv2_find_instance(1) + zalkv2_find_instance(2), -2);
	EXPECT_EQ(errors(), (Lines{"Bridge do not exists\n", "Ring 1 waits for br0\n", "Setup of ZALKv2 instance failed\n\n", "Bridge do not exists\n",
				   "Ring 2 waits for br0\n", "Setup of ZALKv2 instance failed\n\n"}));
	EXPECT_EQ(fake::read_file("/var/run/zalkv2/1/missing") + fake::read_file("/var/run/zalkv2/2/missing"), "br0br0");
	EXPECT_FALSE(zalkv2_repair_instances(loop));
	const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0};
	fake::add_iface("br0", 7, mac);
	clear();
	record_sequence();
	EXPECT_TRUE(zalkv2_repair_instances(loop));
	EXPECT_EQ(instances[0].bridge_ifindex + instances[1].bridge_ifindex, 14);
	EXPECT_EQ(Lines(seq.begin(), seq.begin() + 3), (Lines{"vlan add 7 4021 self", "vlan add 7 4022 self", "vlan add 11 4021 master"}));
	EXPECT_EQ(notices(), (Lines{"Ring 1: br0 or a ring port re-created, setting the ring up again\n", "Ring 2: br0 or a ring port re-created, setting the ring up again\n"}));
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/1/missing") || fake::file_exists("/var/run/zalkv2/2/missing"));
	EXPECT_FALSE(zalkv2_repair_instances(loop)) << "nothing left to set up";
}

// Without a signal: a running ring whose bridge or port is gone, or no port of br0, waits and says so; once
// the interfaces are back whole under new indexes it is set up again. A reload counts a moved port as a change.
TEST_F(Configure, ARingWaitsForItsReCreatedInterfacesAndIsSetUpAgainOnThem)
{
	const std::string r2 = ring(2, "member", {"eth3;hello-enable = 0\n", "eth4"});
	apply(r2);
	mark(2);
	fake::Iface br0 = fake::ifaces.front();
	fake::ifaces.erase(fake::ifaces.begin());
	fake::iface_by_name("eth4")->index = 99; // deleted and created anew, in no bridge
	fake::iface_by_name("eth4")->master = 0;
	clear();
	for (const char *missing : {"br0", "eth4"}) {
		EXPECT_FALSE(zalkv2_repair_instances(loop));
		EXPECT_FALSE(zalkv2_repair_instances(loop)) << "said once";
		EXPECT_EQ(fake::read_file("/var/run/zalkv2/2/missing"), missing);
		EXPECT_EQ(errors(), Lines{std::string("Ring 2 waits for ") + missing + "\n"});
		EXPECT_TRUE(marked(2)) << "left as it is";
		fake::ifaces.insert(fake::ifaces.begin(), br0);
		clear();
	}
	fake::iface_by_name("eth4")->master = 2;
	record_sequence();
	EXPECT_TRUE(zalkv2_repair_instances(loop));
	EXPECT_FALSE(marked(2) || fake::file_exists("/var/run/zalkv2/2/missing"));
	EXPECT_EQ(instances[0].port[PORT_B].ifindex, 99);
	EXPECT_TRUE(has(seq, "vlan add 99 4021 master"));
	EXPECT_FALSE(has(seq, "vlan add 2 4021 self")) << "the same bridge";

	mark(2);
	fake::iface_by_name("eth3")->master = 5;
	apply(r2);
	EXPECT_FALSE(marked(2));
	EXPECT_EQ(fake::read_file("/var/run/zalkv2/2/missing"), "eth3");
}

using ConfigureDeathTest = Configure;

TEST_F(ConfigureDeathTest, UnusableFileOnReloadExitsBeforeTouchingAnything)
{
	apply(FOCAL_1);
	mark(1);
	clear();
	fake::write_file("/etc/zalkv2d.conf", FOCAL_1 + "zalk { }\n");
	// In the dying child, before the fakes clean up: was anything of the running ring touched?
	EXPECT_EXIT(
		{
			std::atexit([] {
				bool untouched = fake::commands.empty() && fake::netlink.empty() && instances[0].enabled && ev_is_active(&instances[0].ring_timer) &&
						 ev_is_active(&instances[0].port[0].rx_watcher) && fake::file_exists("/var/run/zalkv2/1/marker");
				fprintf(stderr, untouched ? "untouched\n" : "touched\n");
				_exit(1);
			});
			zalkv2_configure_instances(loop);
		},
		testing::ExitedWithCode(1), "untouched");
}

// Drop filters of the reconfiguration (foreign rings, version-0 frames)
// carry " protocol 802.1Q ", the rings' own filters " protocol all ".
TEST_F(Configure, ShutdownRemovesTheDropFiltersFirstAndTearsRingsDownUnlessRebooting)
{
	const std::string two = FOCAL_1 + MEMBER_2;
	fake::sched_result = -1;
	fake::sched_errno = EPERM;
	apply(two, true);
	EXPECT_TRUE(has(errors(), "Failed raising ZALKv2 priority, 1. Error 1: Operation not permitted\n"));
	clear();
	stop("N 5\n");
	EXPECT_TRUE(has(errors(), "Failed reverting ZALKv2 priority, 1. Error 1: Operation not permitted\n"));
	EXPECT_EQ(fake::sched_calls, (std::vector<std::pair<int, int>>{{SCHED_OTHER, 0}}));
	EXPECT_FALSE(instances[0].enabled || instances[1].enabled);
	EXPECT_FALSE(fake::netlink.empty()) << "the rings' bridge setup is taken back";
	std::string cmds = join(fake::commands);
	EXPECT_LT(cmds.rfind(" protocol 802.1Q "), cmds.find(" protocol all "));
	EXPECT_EQ(cmds.find(" add "), std::string::npos);

	SetUp();
	fake::sched_result = 0;
	apply(two, true);
	clear();
	stop("N 6\n");
	EXPECT_TRUE(instances[0].enabled && instances[1].enabled);
	EXPECT_TRUE(fake::netlink.empty()) << "no bridge state of a ring port is changed";
	ASSERT_FALSE(fake::commands.empty());
	for (auto &c : fake::commands)
		EXPECT_TRUE(c.rfind("tc filter del dev ", 0) == 0 && c.find(" protocol 802.1Q ") != std::string::npos) << c;
	// The runlevel is the second field of the command's output ("N 6" above), -22 without one.
	fake::runlevel_output = "";
	CaptureStdout();
	EXPECT_EQ(get_runlevel(), -22);
	EXPECT_EQ(GetCapturedStdout(), "Failed to run command\n");
}

TEST_F(Configure, VersionZeroPidFileAndSignal)
{
	// Only a running version-0 daemon gets SIGUSR1: not a stale file's pid, now another process's (named
	// otherwise, or unnamed), and never a process group.
	const std::string me = std::to_string(getpid());
	for (std::string pid : {me, me + "-stale", std::to_string(getppid()), std::string("0"), std::string("garbage"),
				std::string("99999999999")}) {
		clear();
		const bool live = pid == me;
		fake::write_file("/proc/" + me + "/comm", live ? "zalkd\n" : "sshd\n");
		fake::write_file("/var/run/zalkd.pid", pid.substr(0, pid.find('-')) + "\n");
		signal_zalkv0();
		EXPECT_EQ(fake::kills, (live ? std::vector<std::pair<int, int>>{{getpid(), SIGUSR1}} : std::vector<std::pair<int, int>>{})) << pid;
		EXPECT_EQ(errors(), live ? Lines{} : Lines{"Could not send signal to ZALKv0 daemon\n"}) << pid;
	}
}

} // namespace
