// The status tree /var/run/zalkv2/: its file names and the texts of its
// values, the one description shared by the daemon that writes the tree
// and zalkctl that reads it. Each name table is indexed by its enum.
#pragma once

#include <array>

#include "daemon/instance.h"

namespace zalk_schema {

constexpr const char *ROOT = "/var/run/zalkv2";
// Written by the operator (zalkctl debug), read by the daemon.
constexpr const char *DEBUG_FILE = "debug";

// In the ring directory <ROOT>/<ring id>/.
constexpr const char *TYPE = "type";
constexpr const char *RING_INTERVAL = "ring-interval"; // focal points only
constexpr const char *RING_ID = "ring-id";
constexpr const char *TC_COUNT = "tc_count";
constexpr const char *TC_JIFFIES = "tc_jiffies";
constexpr const char *STATE = "state";
// Only while the ring waits for br0 or a ring port: what it waits for.
constexpr const char *MISSING = "missing";

// In each port directory <ROOT>/<ring id>/<interface name>/.
constexpr const char *HELLO_TIME = "hello_time";
constexpr const char *HELLO_ENA = "hello_ena";
constexpr const char *LINK = "link";
constexpr const char *LOGICAL_STATE = "logical_state";
constexpr const char *PHYSICAL_STATE = "physical_state";

// Value texts. A value outside its table prints as the fallback named.
constexpr std::array<const char *, 2> type_texts = {"focal-point", "member"};
constexpr std::array<const char *, 7> ring_state_texts = {"Ring Ok", "Ring Fail", "Broken", "Down",
							  "Ok",      "Broken",    "Down"}; // else INVALID
constexpr std::array<const char *, 5> port_state_texts = {"DISABLED", "LISTENING", "LEARNING", "FORWARDING",
							  "BLOCKING"}; // else "Invalid state"
constexpr std::array<const char *, 4> logical_state_texts = {"Down", "Not Qualified", "Qualified",
							     "Forwarding"}; // else INVALID
constexpr std::array<const char *, 2> hello_ena_texts = {"no", "yes"};
constexpr const char *INVALID = "INVALID";
constexpr const char *INVALID_PORT_STATE = "Invalid state";

// The ring state in which a ring of each role is closed (whole).
constexpr std::array<ring_state, 2> whole_state = {RING_OK_NET_FOCAL, OK_NET_MEMBER};

static_assert(type_texts.size() == RING_TYPE_MEMBER + 1);
static_assert(ring_state_texts.size() == DOWN_NET_MEMBER + 1);
static_assert(port_state_texts.size() == PORT_BLOCKING + 1);

} // namespace zalk_schema

// Debug level bits, from /var/run/zalkv2/debug: each enables one class of
// log lines; a change of the file takes effect at the next gated log point
// (the file is read again only when inotify reports a change).
enum zalk_debug_bit : unsigned {
	ZALK_STATE = 1,
	ZALK_DBG = 2,
	ZALK_NOTE = 4,
	ZALK_TRACE = 8,
	ZALK_MSG = 16,
	ZALK_TIP = 32,
	ZALK_EVENTLOG = 128,
};

namespace zalk_schema {
struct debug_bit_name {
	const char *name;
	zalk_debug_bit bit;
};
constexpr std::array<debug_bit_name, 7> debug_bit_names = {{{"state", ZALK_STATE},
							     {"dbg", ZALK_DBG},
							     {"note", ZALK_NOTE},
							     {"trace", ZALK_TRACE},
							     {"msg", ZALK_MSG},
							     {"tip", ZALK_TIP},
							     {"eventlog", ZALK_EVENTLOG}}};
} // namespace zalk_schema
