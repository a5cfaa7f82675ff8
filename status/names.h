// Names of enumerated values for log lines, status files and the report;
// each lookup returns a constant text and never fails. The tables are
// checked against their enums at compile time: here for the instance
// table's, beside the dispatcher and the receive path for the event codes
// and frame types (which include this header, not the other way round).
#pragma once

#include <array>
#include <cstdint>

#include "daemon/instance.h"
#include "status/schema.h"

namespace zalk_names {
constexpr std::array<const char *, 7> ring_state_long = {
	"RING_OK_NET_FOCAL", "RING_FAIL_NET_FOCAL", "BROKEN_NET_FOCAL", "DOWN_NET_FOCAL",
	"OK_NET_MEMBER",     "BROKEN_NET_MEMBER",   "DOWN_NET_MEMBER"};
constexpr std::array<const char *, 4> hello_states = {"HELLO_PHY_DOWN", "HELLO_NO_RESPONSE", "HELLO_NOT_QUALIFIED",
						      "HELLO_QUALIFIED"};
constexpr std::array<const char *, 2> ring_types = {"RING_TYPE_FOCAL", "RING_TYPE_MEMBER"};
constexpr std::array<const char *, 15> events = {
	"RX_LINKA_1", "RX_LINKB_1", "RX_LINKA_0", "RX_LINKB_0", "RX_TIMEOUT",
	"RX_LINK_RESPONSE", "FOCAL_TRIG", "RX_PACKET_BUS", "RX_PCK", "LINKA0_1",
	"LINKA1_0", "LINKB0_1", "LINKB1_0", "RX_LINK_RESPONSE_RING", "FLUSH_FDB"};
// Frame type 0 has no name of its own.
constexpr std::array<const char *, 8> frame_types = {"Unknown", "Hello", "Link Down", "Link Up",
						     "Link Response", "Flush", "Ring", "Trig"};
constexpr std::array<const char *, 3> hello_resps = {"No response", "Not qualified", "Qualified"};

static_assert(ring_state_long.size() == zalk_schema::ring_state_texts.size());
static_assert(hello_states.size() == HELLO_QUALIFIED + 1);
static_assert(ring_types.size() == RING_TYPE_MEMBER + 1);
} // namespace zalk_names

const char *zalk_port_state_name(uint32_t state);
const char *zalk_ring_state_name(uint32_t state, bool long_name);
const char *zalk_hello_state_name(int32_t state);
const char *zalk_ring_type_name(uint32_t role);
const char *zalk_event_name(uint32_t event);
const char *zalk_frame_type_name(uint32_t type);
const char *zalk_hello_resp_name(uint32_t resp);
const char *zalk_logical_state_name(int state);
