// The event channel: a non-blocking pipe inside the process that
// serialises every stimulus of the ring logic into 40-byte records,
// handled one per callback by the dispatcher in posting order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ev.h>

// libev priorities of the daemon's watchers. Each loop pass runs the
// pending watchers from the highest priority down: signals and the link
// monitor first, then the event channel and the timers, the ring ports'
// receive watchers last. A flood of frames then cannot hold back a
// carrier change, a status report or an event already posted, and every
// event still goes through the one channel in posting order.
constexpr int ZALK_PRI_KERNEL = 1;  // signal watchers, link monitor
constexpr int ZALK_PRI_EVENTS = 0;  // event channel, timers (libev's default)
constexpr int ZALK_PRI_FRAMES = -1; // ring port receive watchers

enum sm_event_code : uint32_t {
	RX_LINKA_1 = 0,
	RX_LINKB_1 = 1,
	RX_LINKA_0 = 2,
	RX_LINKB_0 = 3,
	RX_TIMEOUT = 4,
	RX_LINK_RESPONSE = 5,
	FOCAL_TRIG = 6,
	RX_PACKET_BUS = 7,
	RX_PCK = 8,
	LINKA0_1 = 9,
	LINKA1_0 = 10,
	LINKB0_1 = 11,
	LINKB1_0 = 12,
	RX_LINK_RESPONSE_RING = 13,
	FLUSH_FDB = 14,
};
constexpr uint32_t SM_EVENT_MAX = FLUSH_FDB;

struct sm_event {
	uint32_t instance;
	uint32_t event;
	uint8_t data[32];
};
static_assert(sizeof(sm_event) == 40, "event records are 40 bytes on the pipe");

// The payload a Link Up frame's event carries: 26 bytes from frame
// offset 24 (as received), so data[0] is the type and data[2..9] the
// sender's bridge id.
constexpr size_t SM_LINK_UP_DATA_LEN = 26;

int msg_pipe_create();
int sm_send_event(uint32_t instance, uint32_t event, const void *data, size_t length);
int sm_read_event(sm_event *ev);
