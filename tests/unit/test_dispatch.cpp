// The dispatcher's checks, refusals, traces and event-log pairing, and
// the flushes and edge bookkeeping it drives.
#include <fcntl.h>
#include <unistd.h>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

using Dispatch = Unit;

// The channel refuses what the dispatcher must still check, so such
// records go straight into the pipe's write end, opened right after its read end.
void write_raw(uint32_t ins, uint32_t ev)
{
	const int wfd = msg_pipe_create() + 1;
	ASSERT_EQ(fcntl(wfd, F_GETFL) & O_ACCMODE, O_WRONLY);
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

} // namespace
