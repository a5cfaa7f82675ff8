// The one shared unit-test fixture: a clean table and fakes for every
// test, instances built the way configuration builds them, events driven
// through the real channel and dispatcher, and compact readings of what
// left the fake OS boundary.
#pragma once

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "bridge/backup.h"
#include "bridge/filters.h"
#include "bridge/ifquery.h"
#include "bridge/netlink_ops.h"
#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "frames/receive.h"
#include "frames/senders.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "ring/dispatch.h"
#include "ring/focal.h"
#include "ring/link.h"
#include "ring/member.h"
#include "ring/ports.h"
#include "status/eventlog.h"
#include "status/files.h"
#include "status/names.h"
#include "status/report.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace fx {

using Bytes = std::vector<uint8_t>;
using Lines = std::vector<std::string>;

std::string join(const Lines &v);
bool has(const Lines &v, const std::string &s);
size_t count_of(const std::string &hay, const std::string &needle);
std::string hex(const Bytes &b, size_t off = 0, size_t n = std::string::npos);

// One line per netlink request: "11=BLOCKING", "11:flush", "vlan add 11
// 4021 master", "vlan del ...", "mst 11 4021 4", "gopt 5 vid 4021 3=1",
// "mdb add 5 11 03:4b:a1:01:05:04 4022".
std::string describe(const struct nlmsghdr *n);
// Every recorded request so described, joined by blanks.
std::string bridge();
// Frames sent as "<type name>@<ifindex>".
std::string sent();
// Netlink requests and commands in the order they were made, through
// the fakes' hooks; talk/cmd give the answers.
extern Lines seq;
extern std::function<int(const nlmsghdr *)> talk;
extern std::function<int(const Lines &)> cmd;
void record_sequence();

// Everything waiting in the channel, read out; as "<ins>:<EVENT>".
bool readable();
std::vector<sm_event> posted();
std::string events();

// A frame as the kernel delivers it (tag stripped, 60 bytes), from PEER.
extern const uint8_t PEER[6];
Bytes rx_frame(uint8_t ring, uint8_t type, uint8_t plen, const uint8_t *src = PEER);
// The VLAN such a frame arrives on when a switch sent it: 4022 for Flush
// and Ring, 4021 for the other types.
int rx_vlan(const Bytes &frame);
// A Link Up event's payload (frame bytes from 24): sender id ...:<last>.
Bytes link_up_payload(uint8_t last);

// Ring <ring_id> in slot ins, its record written by the configuration
// code from a ring section: ports eth<10*ins+1>/eth<10*ins+2> with
// ifindex 10*ins+11/12 (interfaces up, MAC 02:00:00:00:<ins>:<p+1>),
// base MAC 02:00:00:00:00:<0x10+ins>, interval 0.5 s, response delay 30
// ticks, guarded recovery off, port B blocked, hello off, in br0 (index
// 2); links up, ports BLOCKING, templates built, status tree set up.
zalkv2_instance &make_ring(int ins, uint32_t role, int ring_id = 3, bool with_b = true);

class Unit : public ::testing::Test {
protected:
	struct ev_loop *loop = ev_default_loop(0);
	void SetUp() override;
	void TearDown() override { quiesce(); }
	void quiesce();
	void reset_ring_logic(); // the ring logic's counters and timers as at start

	void links(int ins, int a, int b)
	{
		instances[ins].port[PORT_A].link = a;
		instances[ins].port[PORT_B].link = b;
	}
	void post(int ins, uint32_t ev, const Bytes &d = {}) { sm_send_event(ins, ev, d.empty() ? nullptr : d.data(), d.size()); }
	int dispatch(); // sm_cb until the channel is empty; records handled
	void event(int ins, uint32_t ev, const Bytes &d = {})
	{
		post(ins, ev, d);
		dispatch();
	}
	void ring_tick(int ins) { focal_ring_pkt_handler_cb(loop, &instances[ins].ring_timer, EV_TIMER); }
	void hold_tick() { focal_response_timer_cb(loop, &response_timer, EV_TIMER); }
	void member_tick() { member_link_up_cb(loop, &member_timer, EV_TIMER); }
	void hello_tick(int ins, int p) { send_zalk_trig(loop, &instances[ins].port[p].hello_timer, EV_TIMER); }
	std::string state_file(int ring_id = 3) { return fake::read_file("/var/run/zalkv2/" + std::to_string(ring_id) + "/state"); }
	std::string event_log() { return fake::read_file("/tmp/zalk.log"); }
	void clear() { fake::clear_records(); }
	Lines errors() { return fake::log_texts(LOG_ERR); }
	Lines notices() { return fake::log_texts(LOG_NOTICE); }
};

} // namespace fx
