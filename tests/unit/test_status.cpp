// The debug level as its file changes, the event log, frame dump, the
// status file tree (its texts after every event, written after the
// event's frames) and the status report.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/fakes/fixture.h"

using namespace fx;
namespace fs = std::filesystem;

namespace {

using Status = Unit;

void put(const std::string &path, const char *text) { std::ofstream(path, std::ios::trunc) << text; }

std::string report()
{
	testing::internal::CaptureStderr();
	zalk_status_report();
	return testing::internal::GetCapturedStderr();
}

// First in this file: the daemon arms the debug file's watch once per
// process, so SIGIO is blocked here before anything has read the level.
TEST_F(Status, DebugLevelFollowsEveryKindOfChangeAtTheNextRead)
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

TEST_F(Status, StatusFilesHoldTheirTextsAfterEveryEventAndFollowItsFrames)
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

TEST_F(Status, EventLogAndHexDump)
{
	fake::write_file("/var/run/zalkv2/debug", "0177"); // octal: every bit but the event log's
	zalk_event_log("sm_cb", "I:%d Enter %s\n", 2, "RX_PCK");
	EXPECT_FALSE(fake::file_exists("/tmp/zalk.log")); // bit clear: nothing
	fake::write_file("/var/run/zalkv2/debug", "0x80"); // read anew after every change
	zalk_event_log("sm_cb", "I:%d Enter %s\n", 2, "RX_PCK");
	fake::now = {1000999, 7000};
	zalk_event_log("sm_cb", "Leaving\n");
	EXPECT_EQ(fake::read_file("/tmp/zalk.log"), "437.052 sm_cb() - I:2 Enter RX_PCK\n999.007 sm_cb() - Leaving\n");

	// /tmp is everybody's: nothing planted at the log's path is written,
	// a refusal is reported once and tried again 10 s later. At 1 MiB the
	// log moves to zalk.log.1 and begins anew.
	const std::string log = fake::root() + "/tmp/zalk.log", secret = fake::root() + "/secret";
	fake::write_file("/secret", "root only");
	const std::function<void()> plants[] = {
		[&] { symlink(secret.c_str(), log.c_str()); },
		[&] { mkfifo(log.c_str(), 0600); }, // would block for good
		[&] { link(secret.c_str(), log.c_str()); },
	};
	clear();
	for (auto &plant : plants) {
		std::remove(log.c_str());
		plant();
		fake::now.tv_sec += 10;
		zalk_event_log("f", "x\n");
		zalk_event_log("f", "x\n");
	}
	EXPECT_EQ(fake::read_file("/secret"), "root only");
	EXPECT_EQ(errors(), Lines{"Event log " + log + " not written: a symbolic link; trying again in 10 s\n"});
	std::remove(log.c_str());
	zalk_event_log("f", "x\n"); // not yet 10 s since the last refusal
	EXPECT_FALSE(fake::file_exists("/tmp/zalk.log"));
	fake::now.tv_sec += 10;
	zalk_event_log("f", "x\n");
	struct stat st;
	EXPECT_EQ(stat(log.c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0600u);
	EXPECT_EQ(truncate(log.c_str(), 1 << 20), 0);
	zalk_event_log("f", "y\n");
	zalk_event_log("f", "z\n");
	EXPECT_EQ(fake::read_file("/tmp/zalk.log"), "39.007 f() - z\n");
	EXPECT_EQ(stat((log + ".1").c_str(), &st) == 0 ? st.st_size : 0, (1 << 20) + 15);
	clear();

	uint8_t frame[80];
	for (int i = 0; i < 80; i++)
		frame[i] = uint8_t(i + 1);
	debug_packet("Rx packets", frame, 64);
	EXPECT_TRUE(fake::logs.empty()); // bit MSG clear
	fake::set_debug(ZALK_MSG);
	debug_packet("Rx packets", frame, 80); // never more than 64 bytes
	debug_packet("short", frame, 20);
	EXPECT_EQ(notices(), (Lines{"Rx packets\n", "000: 01 02 03 04 05 06 07 08 :: 09 0A 0B 0C 0D 0E 0F 10 \n",
				    "010: 11 12 13 14 15 16 17 18 :: 19 1A 1B 1C 1D 1E 1F 20 \n",
				    "020: 21 22 23 24 25 26 27 28 :: 29 2A 2B 2C 2D 2E 2F 30 \n",
				    "030: 31 32 33 34 35 36 37 38 :: 39 3A 3B 3C 3D 3E 3F 40 \n", "short\n",
				    "000: 01 02 03 04 05 06 07 08 :: 09 0A 0B 0C 0D 0E 0F 10 \n", "010: 11 12 13 14 "}));
}

TEST_F(Status, FailuresAreLoggedWithTheRealPathAndTreesRemoved)
{
	make_ring(0, RING_TYPE_FOCAL);
	const std::string top = fake::root() + "/var/run/zalkv2";
	remove_tree(top.c_str());
	fake::write_file("/var/run/zalkv2", "x"); // a file in place of the root directory
	EXPECT_EQ(zalk_status_setup(0), 1);
	EXPECT_EQ(write_number_file(top.c_str(), "tc_count", 1), -1);
	EXPECT_EQ(errors(), (Lines{"Could not create directory " + top + "\n\n", "ERROR: Not a directory Could not create file " + top + "/tc_count\n"}));
	EXPECT_EQ(write_number_file(fake::root().c_str(), "n", -42), 0);
	EXPECT_EQ(fake::read_file("/n"), "-42");

	std::remove(top.c_str());
	clear();
	// Modes whatever the umask; a link or a FIFO at a file's path is
	// replaced by the file, never written through.
	const mode_t umask_was = umask(077);
	zalk_status_setup(0);
	umask(umask_was);
	fake::write_file("/secret", "root only");
	EXPECT_EQ(symlink((fake::root() + "/secret").c_str(), (top + "/3/state").c_str()), 0);
	EXPECT_EQ(mkfifo((top + "/3/eth1/link").c_str(), 0600), 0);
	zalk_set_status(0);
	EXPECT_EQ(fake::read_file("/secret") + fake::read_file("/var/run/zalkv2/3/state"),
		  std::string("root only") + zalk_ring_state_name(instances[0].ring_state, false));
	for (auto [f, mode] : {std::pair{"", 0755u}, {"/3", 0755u}, {"/3/eth1", 0755u}, {"/3/state", 0644u}, {"/3/eth1/link", 0644u}}) {
		struct stat st;
		EXPECT_EQ(lstat((top + f).c_str(), &st) == 0 ? st.st_mode & 07777 : 0, mode) << f;
	}
	fake::write_file("/var/run/zalkv2/debug", "1");
	fake::write_file("/var/run/zalkv2/3/eth1/deep/er/file", "x");
	EXPECT_EQ(symlink("/nonexistent", (top + "/3/dangling").c_str()), 0);
	zalk_remove_status(0);
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2/3"));
	EXPECT_TRUE(fake::file_exists("/var/run/zalkv2/debug"));
	EXPECT_EQ(remove_tree(top.c_str()), 0);
	EXPECT_FALSE(fake::file_exists("/var/run/zalkv2"));
	EXPECT_EQ(symlink((fake::root() + "/var").c_str(), top.c_str()), 0);
	EXPECT_EQ(remove_tree(top.c_str()), 0); // the link goes, not what it points at
	EXPECT_TRUE(fake::file_exists("/var/run") && !fake::file_exists("/var/run/zalkv2"));
	EXPECT_TRUE(fake::logs.empty());
	EXPECT_EQ(remove_tree(top.c_str()), 0); // nothing there: reported, still 0
	EXPECT_EQ(errors(), Lines{"Error when removing directory " + top + "\n\n"});
}

std::string not_enabled(int from, int to)
{
	std::string s;
	for (int i = from; i < to; i++)
		s += " ZALK instance " + std::to_string(i) + " not enabled\n";
	return s;
}

TEST_F(Status, ReportOfARingWithItsNeighbourAndErrorsOnce)
{
	const std::string legend = " 1=STATE, 2=DBG, 4=NOTE 8=TRACE, 16=MSG, 32=TIP\n";
	fake::write_file("/var/run/zalkv2/debug", "0x13\n");
	EXPECT_EQ(report(), not_enabled(0, 10) + legend + " Debug level: 19\n");

	netsock = 5; // interface flags are asked through it
	zalkv2_instance &in = make_ring(2, RING_TYPE_FOCAL, 3);
	in.ring_state = RING_FAIL_NET_FOCAL;
	in.ring_interval = 0.01f;
	in.guarded_recovery = 1;
	zalkv2_port &a = in.port[PORT_A], &b = in.port[PORT_B];
	a.hello_enable = 1;
	a.hello_time = 0.25f;
	a.hello_state = HELLO_QUALIFIED;
	a.hello_resp = 2;
	a.tx_ring = 5;
	a.fwd_delay = 15;
	a.link = 1;
	const uint8_t id[8] = {0x80, 0x00, 0x02, 0xab, 0xcd, 0x00, 0x00, 0x0f};
	memcpy(b.remote_bridge_id, id, 8);
	b.hello_state = 7;
	b.hello_resp = 9;
	b.state = 6;
	in.rx_errors[PORT_A] = {7, 300};
	in.rx_errors[PORT_B] = {3, 0}; // our own ring id: no error
	fake::set_debug(0);
	// The priority is always shown as 0, the MAC from bytes 2..7; errors are shown once, until they come again.
	EXPECT_EQ(report(), not_enabled(0, 2) +
				    "Instance: 2 Enabled\n Ring id : 3\n Type    : RING_TYPE_FOCAL\n State   : RING_FAIL_NET_FOCAL\n"
				    " Interval: 0.010\n Guarded recovery: Yes\n\n PortM: eth21\n  State: BLOCKING (Qualified)\n"
				    "  Hello enable : yes\n  Hello state  : HELLO_QUALIFIED\n  Hello resp   : Qualified\n"
				    "  Hello time   : 0.250\n  Tx ring pkt  : True\n  Rx ring pkt  : False\n  Forward delay: 15\n"
				    "  Remote Bridge ID:\n\tNo Neighbor bridge ID\n  ERROR: Rx wrong ring id 7\n  ERROR: RX wrong hello time 300\n\n"
				    " PortN: eth22\n  State: Invalid state (INVALID)\n  Hello enable : no\n  Hello state  : INVALID\n"
				    "  Hello resp   : Invalid\n  Hello time   : 0.500\n  Tx ring pkt  : False\n  Rx ring pkt  : False\n"
				    "  Forward delay: 0\n  Remote Bridge ID:\n\tPrio: 0\n\tID: 02:ab:cd:00:00:0f\n\n"
				    "------------------------------------------\n" +
				    not_enabled(3, 10) + legend + " Debug level: 0\n");
	EXPECT_EQ(in.rx_errors[PORT_B].rx_wrong_ring_id, 3);
	EXPECT_EQ(report().find("ERROR"), std::string::npos);
	in.rx_errors[PORT_B].rx_wrong_hello_time = 50;
	EXPECT_NE(report().find("\tID: 02:ab:cd:00:00:0f\n  ERROR: RX wrong hello time 50\n\n"), std::string::npos);
}

} // namespace
