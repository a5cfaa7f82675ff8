// Ring state to bridge port states: the whole table, and the order in
// which the bridge hears about it (blocking always before forwarding).
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

struct Row {
	const char *name;
	uint32_t requested;
	int a_link, b_link;
	bool with_b;
	uint32_t blocked_port;
	uint32_t a_state, b_state, returned; // port fields after the call, result
	const char *requests;                // what the bridge sees, in order
};

constexpr uint32_t F = PORT_FORWARDING, B = PORT_BLOCKING;

const Row rows[] = {
	{"ok_focal_a_down", RING_OK_NET_FOCAL, 0, 1, true, 1, B, B, RING_FAIL_NET_FOCAL, "11=BLOCKING 12=BLOCKING"},
	{"ok_focal_closed_block_b", RING_OK_NET_FOCAL, 1, 1, true, 1, F, B, RING_OK_NET_FOCAL, "12=BLOCKING 11=FORWARDING"},
	{"ok_focal_closed_block_a", RING_OK_NET_FOCAL, 1, 1, true, 0, B, F, RING_OK_NET_FOCAL, "11=BLOCKING 12=FORWARDING"},
	{"ok_focal_b_down", RING_OK_NET_FOCAL, 1, 0, true, 1, B, B, RING_FAIL_NET_FOCAL, "11=BLOCKING 12=BLOCKING"},
	{"ok_focal_bus_edge", RING_OK_NET_FOCAL, 1, 0, false, 1, B, B, RING_OK_NET_FOCAL, "11=BLOCKING"},
	{"fail_focal_closed_block_b", RING_FAIL_NET_FOCAL, 1, 1, true, 1, F, B, RING_FAIL_NET_FOCAL, "12=BLOCKING 11=FORWARDING"},
	{"fail_focal_closed_block_a", RING_FAIL_NET_FOCAL, 1, 1, true, 0, B, F, RING_FAIL_NET_FOCAL, "11=BLOCKING 12=FORWARDING"},
	{"fail_focal_b_down", RING_FAIL_NET_FOCAL, 1, 0, true, 0, B, B, RING_FAIL_NET_FOCAL, "11=BLOCKING 12=BLOCKING"},
	{"fail_focal_a_down", RING_FAIL_NET_FOCAL, 0, 1, true, 1, B, B, RING_FAIL_NET_FOCAL, "11=BLOCKING 12=BLOCKING"},
	{"broken_focal_both_up", BROKEN_NET_FOCAL, 1, 1, true, 1, F, F, BROKEN_NET_FOCAL, "12=FORWARDING 11=FORWARDING"},
	{"broken_focal_b_down", BROKEN_NET_FOCAL, 1, 0, true, 0, F, B, BROKEN_NET_FOCAL, "12=BLOCKING 11=FORWARDING"},
	{"broken_focal_a_down", BROKEN_NET_FOCAL, 0, 1, true, 1, B, F, BROKEN_NET_FOCAL, "11=BLOCKING 12=FORWARDING"},
	{"broken_focal_both_down", BROKEN_NET_FOCAL, 0, 0, true, 1, B, B, BROKEN_NET_FOCAL, "11=BLOCKING 12=BLOCKING"},
	{"broken_focal_bus_edge", BROKEN_NET_FOCAL, 1, 0, false, 1, F, B, BROKEN_NET_FOCAL, "11=FORWARDING"},
	{"down_focal", DOWN_NET_FOCAL, 1, 1, true, 1, B, B, DOWN_NET_FOCAL, "11=BLOCKING 12=BLOCKING"},
	{"ok_member_links_down", OK_NET_MEMBER, 0, 0, true, 0, F, F, OK_NET_MEMBER, "12=FORWARDING 11=FORWARDING"},
	{"ok_member_bus_edge", OK_NET_MEMBER, 1, 0, false, 0, F, B, OK_NET_MEMBER, "11=FORWARDING"},
	{"broken_member_both_up", BROKEN_NET_MEMBER, 1, 1, true, 0, B, F, BROKEN_NET_MEMBER, "11=BLOCKING 12=FORWARDING"},
	{"broken_member_a_up", BROKEN_NET_MEMBER, 1, 0, true, 0, F, B, BROKEN_NET_MEMBER, "12=BLOCKING 11=FORWARDING"},
	{"broken_member_both_down", BROKEN_NET_MEMBER, 0, 0, true, 0, B, B, BROKEN_NET_MEMBER, "11=BLOCKING 12=BLOCKING"},
	{"down_member", DOWN_NET_MEMBER, 1, 1, true, 0, B, B, DOWN_NET_MEMBER, "11=BLOCKING 12=BLOCKING"},
	{"invalid_state", 7, 1, 1, true, 1, B, B, 7, "11=BLOCKING 12=BLOCKING"},
};

class PortTable : public Unit, public ::testing::WithParamInterface<Row> {};

TEST_P(PortTable, DecidesAndAppliesBlockingFirst)
{
	const Row &r = GetParam();
	make_ring(0, r.requested <= DOWN_NET_FOCAL ? RING_TYPE_FOCAL : RING_TYPE_MEMBER, 3, r.with_b);
	links(0, r.a_link, r.b_link);
	instances[0].blocked_port = r.blocked_port;
	// A stale state must never survive a decision.
	instances[0].port[PORT_A].state = instances[0].port[PORT_B].state = PORT_FORWARDING;
	clear();
	EXPECT_EQ(zalk_port_states(0, r.requested), r.returned);
	EXPECT_EQ(instances[0].port[PORT_A].state, r.a_state);
	EXPECT_EQ(instances[0].port[PORT_B].state, r.b_state);
	EXPECT_EQ(bridge(), r.requests);
	EXPECT_EQ(errors(), r.requested > DOWN_NET_MEMBER ? Lines{"Ring state is invalid, block both ring ports\n"} : Lines{});
}

INSTANTIATE_TEST_SUITE_P(Rows, PortTable, ::testing::ValuesIn(rows), [](const auto &info) { return std::string(info.param.name); });

} // namespace
