// The event channel's refusals and limits; the dispatcher's checks,
// refusals, traces and event-log pairing, and the flushes and edge
// bookkeeping it drives.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

using Dispatch = Unit;

// The channel refuses what the dispatcher must still check, so such
// records go straight into the pipe's write end.
void write_raw(uint32_t ins, uint32_t ev)
{
	struct stat rd, st;
	ASSERT_EQ(fstat(sm_watcher.fd, &rd), 0);
	DIR *d = opendir("/proc/self/fd");
	int wfd = -1;
	while (dirent *e = readdir(d)) {
		int fd = atoi(e->d_name);
		if (fd > 2 && fstat(fd, &st) == 0 && st.st_ino == rd.st_ino && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_WRONLY)
			wfd = fd;
	}
	closedir(d);
	sm_event rec{ins, ev, {}};
	ASSERT_EQ(write(wfd, &rec, sizeof(rec)), (ssize_t)sizeof(rec));
}

TEST_F(Dispatch, InvalidRecordsAndRefusalsByRoleAreReportedAndLeftPaired)
{
	make_ring(0, RING_TYPE_MEMBER);
	make_ring(1, RING_TYPE_FOCAL, 4);
	links(0, 1, 1);
	links(1, 1, 1);
	fake::set_debug(ZALK_EVENTLOG);
	write_raw(12, FLUSH_FDB);
	post(5, FLUSH_FDB); // a slot nobody configured
	write_raw(0, 15);
	for (uint32_t ev : {RX_TIMEOUT, RX_PACKET_BUS, RX_PCK})
		post(0, ev);
	post(1, FOCAL_TRIG);
	post(1, RX_LINK_RESPONSE); // a focal point's own kind of answer means nothing to it
	post(1, RX_LINK_RESPONSE_RING);
	EXPECT_EQ(dispatch(), 9);
	EXPECT_EQ(errors(), (Lines{"Instance 12 is to large, max is 10\n", "ZALK instance 5 do not exists\n", "Invalid event 15 received!\n",
				   "Enter RX_TIMEOUT but is RING_TYPE_MEMBER\n", "Enter RX_PACKET_BUS but is RING_TYPE_MEMBER\n",
				   "Enter RX_PCK but is RING_TYPE_MEMBER\n", "Enter FOCAL_TRIG but is RING_TYPE_FOCAL\n"}));
	EXPECT_EQ(count_of(event_log(), "Enter"), 7u);
	EXPECT_EQ(count_of(event_log(), "Leaving\n"), 9u);
	EXPECT_EQ(sent() + bridge(), "");

	fake::set_debug(ZALK_STATE | ZALK_EVENTLOG);
	clear();
	event(1, FLUSH_FDB);
	EXPECT_EQ(notices(), Lines{"sm_cb() - I:1 Ev:FLUSH_FDB time: 437.052 s\n"});
	std::string log = event_log();
	EXPECT_EQ(log.substr(log.find("437.052 sm_cb() - I:1 Enter FLUSH_FDB")), "437.052 sm_cb() - I:1 Enter FLUSH_FDB\n437.052 sm_cb() - Leaving\n");
	EXPECT_EQ(bridge(), "21:flush 22:flush");
}

TEST_F(Dispatch, LinkDownFramesAndFlush)
{
	make_ring(0, RING_TYPE_FOCAL);
	make_ring(1, RING_TYPE_MEMBER, 4);
	// A focal point without links goes down; Flush out of port B, then the other rings'.
	instances[0].link_up_pending = 1;
	event(0, RX_LINKA_0);
	EXPECT_EQ(instances[0].ring_state, (uint32_t)DOWN_NET_FOCAL);
	EXPECT_EQ(instances[0].link_up_pending, 0u);
	EXPECT_EQ(sent(), "Flush@12 Flush@21 Flush@22");
	// A member flushes on a Link Down frame (telling the other rings) and on a Flush frame.
	clear();
	event(1, RX_LINKB_0);
	event(1, FLUSH_FDB);
	EXPECT_EQ(bridge() + "/" + sent(), "21:flush 22:flush 21:flush 22:flush/Flush@11 Flush@12");
}

TEST_F(Dispatch, FocalLinkUpOnlyOpensTheHoldAndEdgeIdsKeepTheLatestTwo)
{
	make_ring(0, RING_TYPE_FOCAL);
	links(0, 1, 0);
	instances[0].ring_state = BROKEN_NET_FOCAL;
	fake::set_debug(ZALK_TRACE);
	event(0, LINKB0_1);
	EXPECT_EQ(instances[0].link_up_pending, 1u);
	EXPECT_EQ(instances[0].ring_state, (uint32_t)BROKEN_NET_FOCAL);
	EXPECT_EQ(bridge(), "");
	EXPECT_EQ(notices(), (Lines{"is_edge_switch() - Link A:1 B:0 Switch is edge: 0\n",
				    "local_link_up() - edge:0 bus_edge:0 state: Broken sending link up: 0\n"}));

	fake::set_debug(0);
	for (uint8_t id : {0x0a, 0x0a, 0x0b, 0x0c})
		event(0, RX_LINKA_1, link_up_payload(id));
	EXPECT_EQ(instances[0].edge[0].edge_id[7], 0x0b);
	EXPECT_EQ(instances[0].edge[1].edge_id[7], 0x0c);
	EXPECT_EQ(instances[0].edge[0].edge_latest, 0u);
	EXPECT_EQ(instances[0].edge[1].edge_latest, 1u);
	clear();
	store_edge_id(0, nullptr);
	EXPECT_EQ(errors(), Lines{"No valid data\n"});
}

using Channel = Unit;
using Logs = std::vector<fake::LogLine>;

TEST_F(Channel, RefusalsPayloadLimitsAndReadFailure)
{
	EXPECT_EQ(sm_send_event(10, FLUSH_FDB, nullptr, 0), -1);
	EXPECT_EQ(sm_send_event((uint32_t)-1, FLUSH_FDB, nullptr, 0), -1);
	EXPECT_EQ(fake::logs, (Logs{{LOG_ERR, "Instance 10 invalid\n"}, {LOG_ERR, "Instance -1 invalid\n"}}));
	EXPECT_TRUE(posted().empty());

	Bytes big(40);
	for (int i = 0; i < 40; i++)
		big[i] = (uint8_t)(0xA0 + i);
	clear();
	EXPECT_EQ(sm_send_event(9, RX_LINKA_1, big.data(), 31), 40);
	EXPECT_EQ(sm_send_event(2, RX_LINKB_1, big.data(), 32), 40); // too long: sent without data
	EXPECT_EQ(sm_send_event(4, RX_LINKB_0, nullptr, 20), 40);
	EXPECT_EQ(fake::logs, (Logs{{LOG_ERR, "Data field to small\n\n"}}));
	auto evs = posted();
	ASSERT_EQ(evs.size(), 3u);
	EXPECT_EQ(evs[0].instance, 9u);
	EXPECT_EQ(evs[0].event, RX_LINKA_1);
	EXPECT_EQ(hex(Bytes(evs[0].data, evs[0].data + 32)), hex(big, 0, 31) + "00");
	EXPECT_EQ(hex(Bytes(evs[1].data, evs[1].data + 32)) + hex(Bytes(evs[2].data, evs[2].data + 32)), std::string(128, '0'));

	clear();
	sm_event ev;
	EXPECT_EQ(sm_read_event(&ev), -1);
	EXPECT_EQ(fake::logs, (Logs{{LOG_ERR, "\nFailed redaing from pipe.\n\n"}}));
}

TEST_F(Channel, AFullChannelDropsWholeRecordsWithoutBlocking)
{
	int n = 0;
	while (sm_send_event(2, FLUSH_FDB, nullptr, 0) == 40)
		ASSERT_LT(++n, 1 << 20);
	EXPECT_EQ(fake::logs.back(), (fake::LogLine{LOG_ERR, "\nFailed to send event to state machine, ins:2 FLUSH_FDB\n\n"}));
	EXPECT_EQ((int)posted().size(), n);
}

} // namespace
