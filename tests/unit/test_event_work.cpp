// Less work per event, the same promises: the debug level follows its
// file however the file changes; the status files hold their texts after
// every event although they are written after its frames; the drop
// filters of a reconfiguration step run as one tc batch whose failures
// read as when each command ran alone, and those of an unchanged
// reconfiguration's two steps as one when the steps' reports allow it.
#include <filesystem>
#include <csignal>
#include <fstream>

#include "daemon/configure.h"
#include "tests/fakes/fixture.h"

using namespace fx;
namespace fs = std::filesystem;

namespace {

using EventWork = Unit;

void put(const std::string &path, const char *text) { std::ofstream(path, std::ios::trunc) << text; }

TEST_F(EventWork, DebugLevelFollowsEveryKindOfChangeAtTheNextRead)
{
	sigset_t io; // as a daemon started with SIGIO blocked
	sigemptyset(&io);
	sigaddset(&io, SIGIO);
	sigprocmask(SIG_BLOCK, &io, nullptr);
	const std::string dir = fake::root() + "/var/run/zalkv2", file = dir + "/debug", away = fake::root() + "/tmp/lvl";
	const std::pair<std::function<void()>, unsigned> rows[] = {
		{[&] { fs::remove_all(dir); }, 0},
		{[&] { fs::create_directories(dir); }, 0},
		{[&] { put(file, "1\n"); }, 1},    // created
		{[&] { put(file, "0x80"); }, 128}, // rewritten in place
		{[&] { put(dir + "/new", "2"); fs::rename(dir + "/new", file); }, 2},
		{[&] { put(away, "4"); fs::remove(file); fs::create_symlink(away, file); }, 0}, // never followed
		{[&] { put(away, "8"); }, 0},
		{[&] { fs::remove(file); }, 0},
		{[&] { fs::remove_all(dir); }, 0},
		{[&] { fs::create_directories(dir); put(file, "32"); }, 32},
	};
	for (auto &[change, level] : rows) {
		change();
		EXPECT_EQ(zalk_debug_level(), level);
		EXPECT_EQ(zalk_debug_level(), level);
	}
}

TEST_F(EventWork, StatusFilesHoldTheirTextsAfterEveryEventAndFollowItsFrames)
{
	make_ring(0, RING_TYPE_MEMBER);
	member_config_ring_topology(0, DOWN_NET_MEMBER, 0);
	auto texts = [] {
		std::string s = fake::read_file("/var/run/zalkv2/3/state") + "|" + fake::read_file("/var/run/zalkv2/3/tc_count");
		for (const char *p : {"eth1", "eth2"})
			for (const char *f : {"link", "logical_state", "physical_state"})
				s += "|" + fake::read_file(std::string("/var/run/zalkv2/3/") + p + "/" + f);
		return s;
	};
	std::vector<std::string> at_send;
	fake::send_hook = [&](const fake::Frame &) { at_send.push_back(fake::read_file("/var/run/zalkv2/3/state")); };
	const std::pair<uint32_t, const char *> rows[] = {
		{LINKA0_1, "Broken|2|1|Forwarding|FORWARDING|0|Not Qualified|BLOCKING"},
		{LINKB0_1, "Broken|2|1|Forwarding|FORWARDING|0|Not Qualified|BLOCKING"}, // announcing, no change
		{RX_LINK_RESPONSE, "Ok|3|1|Forwarding|FORWARDING|1|Forwarding|FORWARDING"},
		{LINKA1_0, "Broken|4|0|Not Qualified|BLOCKING|1|Forwarding|FORWARDING"},
	};
	for (auto &[ev, want] : rows) {
		event(0, ev);
		EXPECT_EQ(texts(), want) << zalk_event_name(ev);
	}
	EXPECT_EQ(sent(), "Link Up@11 Link Up@12 Link Down@12");
	EXPECT_EQ(at_send, (Lines{"Broken", "Broken", "Ok"})) << "the Link Down leaves before the state is written";

	// After every update each file holds the daemon's text at its path,
	// whoever rewrote (b_state), removed (a_state) or renamed (ring-id) it.
	const std::string a_state = "/var/run/zalkv2/3/eth1/physical_state", b_state = "/var/run/zalkv2/3/eth2/physical_state";
	fake::write_file(b_state, "stale");
	fs::remove(fake::root() + a_state);
	fs::rename(fake::root() + "/var/run/zalkv2/3/ring-id", fake::root() + "/var/run/zalkv2/3/moved");
	event(0, LINKA0_1);
	fake::uptime = 4343;
	event(0, RX_LINK_RESPONSE);
	EXPECT_EQ(fake::read_file(b_state) + fake::read_file(a_state) + fake::read_file("/var/run/zalkv2/3/tc_jiffies") +
			  fake::read_file("/var/run/zalkv2/3/ring-id"),
		  "FORWARDINGFORWARDING43433");
	fake::write_file("/var/run/zalkv2/3/state", "stale");
	zalk_status_setup(0);
	member_config_ring_topology(0, OK_NET_MEMBER, 1);
	EXPECT_EQ(texts(), "Ok|1|1|Forwarding|FORWARDING|1|Forwarding|FORWARDING");
}

TEST_F(EventWork, DropFiltersRunAsOneBatchWithFailuresReportedAsAlone)
{
	make_ring(0, RING_TYPE_MEMBER, 3);
	make_ring(1, RING_TYPE_FOCAL, 5, false);
	// Failing: a foreign ring's filter on eth1 and a version-0 one on the port named v0.
	auto fail_on = [](const char *v0) {
		fake::spawn_hook = [v0](const std::vector<std::string> &v) {
			const std::string line = join(v);
			return line.find("prio 322 ") != std::string::npos || line.find(std::string("dev ") + v0 + " ingress protocol 802.1Q prio 301") != std::string::npos;
		};
	};
	// The commands one at a time, then as the batch: the same commands and error lines in the same order.
	auto alone_then_batched = [this] {
		tc_list_create();
		zalkv2_block_unconfigured_rings(1);
		zalkv2_block_v0_macs(1);
		const Lines alone = errors(), commands = fake::commands;
		tc_list_create();
		clear();
		zalkv2_set_drop_filters(1);
		EXPECT_EQ(errors(), alone);
		EXPECT_EQ(fake::commands, commands);
		return alone;
	};
	fail_on("eth11");
	const Lines alone = alone_then_batched();
	ASSERT_EQ(fake::batches.size(), 1u);
	EXPECT_EQ(fake::batches[0].substr(0, fake::batches[0].find('\n', 20) + 1),
		  "tc -force -batch -\nfilter add dev eth1 ingress protocol 802.1Q prio 321 flower  dst_mac 03:4b:a1:01:01:01 vlan_id 4021 action drop\n");
	EXPECT_EQ(count_of(fake::batches[0], "\n"), 1 + (18 * 2 * 3 + 3 * 3));
	EXPECT_EQ(alone, (Lines{"System fail add port eth1 mac 03:4b:a1:01:01:02 loc 322\n\n",
				"Could not block mac addresses for unconfigured ring id\n\n",
				"System fail add port eth11 mac 01:00:5e:05:0a:09 loc 301\n\n", "Block zalkv0 macs failed\n\n"}));

	// Removal and installation in one process read as the two steps did.
	clear();
	zalkv2_set_drop_filters(0);
	zalkv2_set_drop_filters(1);
	const Lines two_errors = errors(), two_commands = fake::commands;
	const std::string eth1 = instances[0].port[0].name;
	for (int c : {0, 1, 2}) { // a command run alone (a name tc's batch cannot carry), a debug line, neither
		strcpy(instances[0].port[0].name, c == 0 ? "e#1" : eth1.c_str());
		put(fake::root() + "/var/run/zalkv2/debug", c == 1 ? "2" : "0");
		clear();
		zalkv2_refresh_drop_filters();
		// A removal that said or ran something runs alone (a command run alone splits its step too).
		EXPECT_EQ(fake::batches.size(), c == 0 ? 4u : c == 1 ? 2u : 1u);
		EXPECT_TRUE(c == 0 || fake::commands == two_commands);
		EXPECT_EQ(errors(), two_errors);
	}

	// A tc that dies: the lines before the last one it reported are done.
	fake::spawn_hook = [](const std::vector<std::string> &v) {
		const std::string line = join(v);
		return line.find("prio 322 ") != std::string::npos ? 1 : line.find("prio 330 ") != std::string::npos ? 256 + 9 : 0;
	};
	tc_list_create();
	clear();
	zalkv2_set_drop_filters(1);
	EXPECT_EQ(errors().at(0), "System fail add port eth1 mac 03:4b:a1:01:01:02 loc 322\n\n");

	// A command that cannot join the batch runs in its place, after the
	// queued ones, whose failures are reported first, as they are before
	// any other error line.
	strcpy(instances[1].port[0].name, "e#11");
	std::erase_if(fake::ifaces, [](const fake::Iface &i) { return i.name == "eth2"; }); // its filters fail before tc
	fail_on("e#11");
	clear();
	alone_then_batched();
}

} // namespace
