// Name lookups.
#include "status/names.h"

namespace {
template <size_t N> const char *lookup(const std::array<const char *, N> &names, uint64_t v, const char *dflt)
{
	return v < N ? names[v] : dflt;
}
} // namespace

using namespace zalk_names;
namespace sc = zalk_schema;

const char *zalk_port_state_name(uint32_t s) { return lookup(sc::port_state_texts, s, sc::INVALID_PORT_STATE); }
const char *zalk_ring_state_name(uint32_t s, bool long_name)
{
	return lookup(long_name ? ring_state_long : sc::ring_state_texts, s, sc::INVALID);
}
const char *zalk_hello_state_name(int32_t s) { return s < 0 ? sc::INVALID : lookup(hello_states, (uint32_t)s, sc::INVALID); }
const char *zalk_ring_type_name(uint32_t r) { return lookup(ring_types, r, sc::INVALID); }
const char *zalk_event_name(uint32_t e) { return lookup(events, e, sc::INVALID); }
const char *zalk_frame_type_name(uint32_t t) { return t == 0 ? "Unknown" : lookup(frame_types, t, "Unknown"); }
const char *zalk_hello_resp_name(uint32_t r) { return lookup(hello_resps, r, "Invalid"); }
const char *zalk_logical_state_name(int s)
{
	return s < 0 ? sc::INVALID : lookup(sc::logical_state_texts, (uint32_t)s, sc::INVALID);
}
