// The event channel: records keep their order, bad posts are refused with
// their exact lines, and a stopped watcher only delays delivery.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "daemon/instance.h"
#include "ring/channel.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace {

using bytes = std::vector<uint8_t>;
using logs_t = std::vector<fake::LogLine>;

int queued()
{
	int avail = 0;
	ioctl(msg_pipe_create(), FIONREAD, &avail);
	return avail;
}

void drain()
{
	while (queued() >= (int)sizeof(sm_event)) {
		sm_event ev;
		sm_read_event(&ev);
	}
}

class Channel : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_GE(msg_pipe_create(), 0);
		drain();
		fake::reset();
		memset(instances, 0, sizeof(instances));
	}
	void TearDown() override { drain(); }
};

TEST_F(Channel, PipeIsCreatedOnce)
{
	int fd = msg_pipe_create();
	EXPECT_EQ(msg_pipe_create(), fd);
	EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);
}

TEST_F(Channel, InvalidInstancesAreRefused)
{
	EXPECT_EQ(sm_send_event(10, FLUSH_FDB, nullptr, 0), -1);
	EXPECT_EQ(sm_send_event((uint32_t)-1, FLUSH_FDB, nullptr, 0), -1);
	EXPECT_EQ(fake::logs, (logs_t{{LOG_ERR, "Instance 10 invalid\n"}, {LOG_ERR, "Instance -1 invalid\n"}}));
	EXPECT_EQ(queued(), 0);

	EXPECT_EQ(sm_send_event(9, FLUSH_FDB, nullptr, 0), 40);
	EXPECT_EQ(queued(), 40);
}

TEST_F(Channel, PayloadLimits)
{
	uint8_t big[40];
	for (int i = 0; i < 40; i++)
		big[i] = (uint8_t)(0xA0 + i);

	EXPECT_EQ(sm_send_event(1, RX_LINKA_1, big, 31), 40);
	EXPECT_EQ(sm_send_event(2, RX_LINKB_1, big, 32), 40);
	EXPECT_EQ(sm_send_event(3, RX_LINKA_0, big, 0), 40);
	EXPECT_EQ(sm_send_event(4, RX_LINKB_0, nullptr, 20), 40);
	EXPECT_EQ(fake::logs, (logs_t{{LOG_ERR, "Data field to small\n\n"}}));

	sm_event ev;
	bytes want(32, 0);
	memcpy(want.data(), big, 31);
	ASSERT_EQ(sm_read_event(&ev), 40);
	EXPECT_EQ(ev.instance, 1u);
	EXPECT_EQ(ev.event, RX_LINKA_1);
	EXPECT_EQ(bytes(ev.data, ev.data + 32), want);

	for (uint32_t ins : {2u, 3u, 4u}) {
		ASSERT_EQ(sm_read_event(&ev), 40);
		EXPECT_EQ(ev.instance, ins);
		EXPECT_EQ(bytes(ev.data, ev.data + 32), bytes(32, 0)) << "instance " << ins;
	}
}

TEST_F(Channel, ReadingAnEmptyChannelFails)
{
	sm_event ev;
	EXPECT_EQ(sm_read_event(&ev), -1);
	EXPECT_EQ(fake::logs, (logs_t{{LOG_ERR, "\nFailed redaing from pipe.\n\n"}}));
}

TEST_F(Channel, AFullChannelDropsWithoutBlocking)
{
	int n = 0;
	while (sm_send_event(2, FLUSH_FDB, nullptr, 0) == 40)
		ASSERT_LT(++n, 1 << 20);
	EXPECT_GT(n, 0);
	ASSERT_FALSE(fake::logs.empty());
	EXPECT_EQ(fake::logs.back(),
		  (fake::LogLine{LOG_ERR, "\nFailed to send event to state machine, ins:2 FLUSH_FDB\n\n"}));
	// Whole records only: what is queued is a multiple of 40 bytes.
	EXPECT_EQ(queued(), n * 40);
}

// Three posts from one callback reach the reader as three callbacks, in
// order, each after the posting callback has returned.
struct Order {
	std::vector<uint32_t> seen;
	bool poster_done = false;
	bool read_during_post = false;
};
Order order;

void poster_cb(struct ev_loop *, ev_timer *, int)
{
	sm_send_event(1, LINKA1_0, nullptr, 0);
	sm_send_event(1, RX_LINKB_0, nullptr, 0);
	sm_send_event(1, FLUSH_FDB, nullptr, 0);
	order.read_during_post = !order.seen.empty();
	order.poster_done = true;
}

void reader_cb(struct ev_loop *, ev_io *, int)
{
	sm_event ev;
	if (sm_read_event(&ev) == 40)
		order.seen.push_back(order.poster_done ? ev.event : 1000 + ev.event);
}

TEST_F(Channel, PostingOrderIsKeptAcrossCallbacks)
{
	order = Order{};
	struct ev_loop *loop = ev_default_loop(0);
	ev_io reader;
	ev_io_init(&reader, reader_cb, msg_pipe_create(), EV_READ);
	ev_io_start(loop, &reader);
	ev_timer poster;
	ev_timer_init(&poster, poster_cb, 0., 0.);
	ev_timer_start(loop, &poster);

	for (int i = 0; i < 100 && order.seen.size() < 3; i++)
		ev_run(loop, EVRUN_ONCE);
	ev_io_stop(loop, &reader);
	ev_timer_stop(loop, &poster);

	EXPECT_FALSE(order.read_during_post);
	EXPECT_EQ(order.seen, (std::vector<uint32_t>{LINKA1_0, RX_LINKB_0, FLUSH_FDB}));
}

// With the dispatcher on the other end: records posted while the watcher
// is stopped wait in the pipe and are dispatched, in order, once started.
TEST_F(Channel, BusWatcherDeliversAfterStart)
{
	struct ev_loop *loop = ev_default_loop(0);
	msg_bus_setup();
	EXPECT_EQ(sm_watcher.fd, msg_pipe_create());
	EXPECT_FALSE(ev_is_active(&sm_watcher));

	// Disabled instances make the dispatcher say it saw each record.
	for (uint32_t ins : {3u, 4u, 5u})
		sm_send_event(ins, FLUSH_FDB, nullptr, 0);
	for (int i = 0; i < 5; i++)
		ev_run(loop, EVRUN_NOWAIT);
	EXPECT_TRUE(fake::logs.empty());
	EXPECT_EQ(queued(), 120);

	msg_bus_start(loop);
	for (int i = 0; i < 100 && fake::logs.size() < 3; i++)
		ev_run(loop, EVRUN_NOWAIT);
	EXPECT_EQ(fake::logs, (logs_t{{LOG_ERR, "ZALK instance 3 do not exists\n"},
				      {LOG_ERR, "ZALK instance 4 do not exists\n"},
				      {LOG_ERR, "ZALK instance 5 do not exists\n"}}));

	msg_bus_stop(loop);
	EXPECT_FALSE(ev_is_active(&sm_watcher));
	fake::clear_records();
	sm_send_event(6, FLUSH_FDB, nullptr, 0);
	for (int i = 0; i < 5; i++)
		ev_run(loop, EVRUN_NOWAIT);
	EXPECT_TRUE(fake::logs.empty());
	EXPECT_EQ(queued(), 40);
}

// Runs in a fresh process where the pipe has never been made: with no
// descriptor left, setup fails, the watcher is never started and a post
// fails without writing anywhere (descriptor 0 is watched for that).
// The exit status carries one bit per failed check.
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
	msg_bus_stop(loop);

	setrlimit(RLIMIT_NOFILE, &old);
	char c;
	bool leaked = read(spy[0], &c, 1) > 0;
	int again = msg_pipe_create();

	logs_t want = {{LOG_ERR, "\nFailed to create messge pipe.\n\n"},
		       {LOG_ERR, "msg bus setup failed\n"},
		       {LOG_ERR, "\nFailed to send event to state machine, ins:1 LINKA0_1\n\n"},
		       {LOG_ERR, "\nFailed redaing from pipe.\n\n"}};
	int status = (active ? 1 : 0) | (sent != -1 ? 2 : 0) | (got != -1 ? 4 : 0) | (leaked ? 8 : 0) |
		     (fake::logs != want ? 16 : 0) | (again < 0 ? 32 : 0);
	_exit(status);
}

TEST(ChannelWithoutPipe, NothingIsStartedOrWritten)
{
	GTEST_FLAG_SET(death_test_style, "threadsafe");
	EXPECT_EXIT(run_without_pipe(), ::testing::ExitedWithCode(0), "");
}

} // namespace
