// The event channel: records keep their order, bad posts are refused with
// their exact lines, and a stopped watcher only delays delivery.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

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

// Three posts from one callback reach the reader in order, each after
// the posting callback has returned.
std::vector<uint32_t> seen;
bool poster_done;
void poster_cb(struct ev_loop *, ev_timer *, int)
{
	for (uint32_t e : {LINKA1_0, RX_LINKB_0, FLUSH_FDB})
		sm_send_event(1, e, nullptr, 0);
	poster_done = seen.empty();
}
void reader_cb(struct ev_loop *, ev_io *, int)
{
	sm_event ev;
	if (sm_read_event(&ev) == 40)
		seen.push_back(ev.event);
}

TEST_F(Channel, PostingOrderIsKeptAcrossCallbacks)
{
	seen.clear();
	ev_io reader;
	ev_io_init(&reader, reader_cb, msg_pipe_create(), EV_READ);
	ev_io_start(loop, &reader);
	ev_timer poster;
	ev_timer_init(&poster, poster_cb, 0., 0.);
	ev_timer_start(loop, &poster);
	for (int i = 0; i < 100 && seen.size() < 3; i++)
		ev_run(loop, EVRUN_ONCE);
	ev_io_stop(loop, &reader);
	ev_timer_stop(loop, &poster);
	EXPECT_TRUE(poster_done);
	EXPECT_EQ(seen, (std::vector<uint32_t>{LINKA1_0, RX_LINKB_0, FLUSH_FDB}));
}

// Records posted while the watcher is stopped wait and are dispatched,
// in order, once started (disabled instances make the dispatcher say so).
TEST_F(Channel, BusWatcherDeliversAfterStart)
{
	for (uint32_t ins : {3u, 4u, 5u})
		sm_send_event(ins, FLUSH_FDB, nullptr, 0);
	for (int i = 0; i < 5; i++)
		ev_run(loop, EVRUN_NOWAIT);
	EXPECT_TRUE(fake::logs.empty());
	msg_bus_start(loop);
	for (int i = 0; i < 100 && fake::logs.size() < 3; i++)
		ev_run(loop, EVRUN_NOWAIT);
	EXPECT_EQ(errors(), (Lines{"ZALK instance 3 do not exists\n", "ZALK instance 4 do not exists\n", "ZALK instance 5 do not exists\n"}));
	msg_bus_stop(loop);
	sm_send_event(6, FLUSH_FDB, nullptr, 0);
	for (int i = 0; i < 5; i++)
		ev_run(loop, EVRUN_NOWAIT);
	EXPECT_EQ(events(), "6:FLUSH_FDB");
}

// In a fresh process where no descriptor is left for the pipe: set-up
// fails, no watcher starts and a post writes nowhere (descriptor 0 is
// watched for that). The exit status carries one bit per failed check.
[[noreturn]] void run_without_pipe()
{
	fake::reset();
	struct ev_loop *loop = ev_default_loop(0);
	int spy[2];
	if (pipe2(spy, O_NONBLOCK) || dup2(spy[1], 0) != 0)
		_exit(100);
	rlimit old, low;
	getrlimit(RLIMIT_NOFILE, &old);
	int lowest_free = dup(1);
	close(lowest_free);
	low = old;
	low.rlim_cur = (rlim_t)lowest_free;
	setrlimit(RLIMIT_NOFILE, &low);
	msg_bus_setup();
	msg_bus_start(loop);
	bool active = ev_is_active(&sm_watcher);
	int sent = sm_send_event(1, LINKA0_1, nullptr, 0);
	sm_event ev;
	int got = sm_read_event(&ev);
	setrlimit(RLIMIT_NOFILE, &old);
	char c;
	bool leaked = read(spy[0], &c, 1) > 0;
	Logs want = {{LOG_ERR, "\nFailed to create messge pipe.\n\n"},
		     {LOG_ERR, "msg bus setup failed\n"},
		     {LOG_ERR, "\nFailed to send event to state machine, ins:1 LINKA0_1\n\n"},
		     {LOG_ERR, "\nFailed redaing from pipe.\n\n"}};
	_exit((active ? 1 : 0) | (sent != -1 ? 2 : 0) | (got != -1 ? 4 : 0) | (leaked ? 8 : 0) | (fake::logs != want ? 16 : 0) |
	      (msg_pipe_create() < 0 ? 32 : 0));
}

TEST(ChannelWithoutPipe, NothingIsStartedOrWritten)
{
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	EXPECT_EXIT(run_without_pipe(), ::testing::ExitedWithCode(0), "");
}

} // namespace
