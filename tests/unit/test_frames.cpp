// Frame templates, group addresses, the header check and the small
// senders, checked byte for byte against the wire layout.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <syslog.h>
#include <unistd.h>
#include <vector>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/sockets.h"
#include "tests/fakes/fake.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint8_t BASE_MAC[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr uint8_t MAC_A[6] = {0x02, 0xAA, 0x00, 0x00, 0x00, 0x01};
constexpr uint8_t MAC_B[6] = {0x02, 0xBB, 0x00, 0x00, 0x00, 0x02};

void set_port(int ins, int p, int ifindex, const uint8_t mac[6], uint32_t operstate = ZALK_OPER_UP)
{
	zalkv2_port &port = instances[ins].port[p];
	port.instance = &instances[ins];
	snprintf(port.name, sizeof(port.name), "eth%d", ifindex);
	memcpy(port.mac, mac, 6);
	port.ifindex = ifindex;
	port.port_index = (uint32_t)p;
	port.operstate = operstate;
}

void make_instance(int ins, int ring_id, int ifa, int ifb)
{
	zalkv2_instance &in = instances[ins];
	in.index = ins;
	in.enabled = 1;
	in.ring_id = ring_id;
	memcpy(in.base_mac, BASE_MAC, 6);
	set_port(ins, PORT_A, ifa, MAC_A);
	set_port(ins, PORT_B, ifb, MAC_B);
	zalkv2_build_frames(ins);
}

bytes tpl(const uint8_t *t) { return bytes(t, t + ZALK_FRAME_LEN); }

// Received form of a sent frame: the tag removed, 60 bytes.
bytes strip_tag(const bytes &f)
{
	bytes r(f.begin(), f.begin() + 12);
	r.insert(r.end(), f.begin() + 16, f.end());
	return r;
}

class Frames : public ::testing::Test {
protected:
	void SetUp() override
	{
		fake::reset();
		memset(instances, 0, sizeof(instances));
		for (auto &in : instances)
			for (auto &p : in.port)
				p.ifindex = -1;
		send_sock = 7;
	}
};

TEST_F(Frames, RingFrameOfRing7IsByteExact)
{
	make_instance(0, 7, 11, 12);
	zalkv2_send_ring_frame(0, PORT_A);

	bytes want(64, 0);
	const uint8_t head[] = {
		0x03, 0x4B, 0xA1, 0x01, 0x07, 0x03,		// group 3 of ring 7
		0x02, 0xAA, 0x00, 0x00, 0x00, 0x01,		// port A's MAC
		0x81, 0x00, 0xEF, 0xB6,				// prio 7, VLAN 4022
		0x00, 0x16,					// 802.3 length 22
		0xAA, 0xAA, 0x03, 0x02, 0x4B, 0xA1, 0x01, 0x00, // LLC/SNAP
		0x20, 0x07, 0x06, 0x0C,				// marker, ring, type, len
		0x00, 0x00,					// status
		0x00, 0x00, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55, // sender id
	};
	memcpy(want.data(), head, sizeof(head));

	ASSERT_EQ(fake::frames.size(), 1u);
	EXPECT_EQ(fake::frames[0].ifindex, 11);
	EXPECT_EQ(fake::frames[0].bytes, want);
	// The source is written into the template itself.
	EXPECT_EQ(tpl(instances[0].tpl_ring), want);
}

TEST_F(Frames, AllSevenTemplatesHaveTheirHeadersAndZeroPadding)
{
	// Templates full of junk from an earlier life of the slot.
	zalkv2_instance &in = instances[3];
	for (uint8_t *t : {in.tpl_link_response, in.tpl_trig, in.tpl_ring, in.tpl_link_up, in.tpl_link_down,
			   in.tpl_hello, in.tpl_flush})
		memset(t, 0xFF, ZALK_FRAME_LEN);
	make_instance(3, 0x1A5, 21, 22); // only the low byte goes on the wire

	struct {
		const char *name;
		const uint8_t *t;
		uint8_t group, tci_lo, type, plen;
	} cases[] = {
		{"link response", instances[3].tpl_link_response, 2, 0xB5, 4, 28},
		{"trig", instances[3].tpl_trig, 2, 0xB5, 7, 12},
		{"ring", instances[3].tpl_ring, 3, 0xB6, 6, 12},
		{"link up", instances[3].tpl_link_up, 2, 0xB5, 3, 26},
		{"link down", instances[3].tpl_link_down, 2, 0xB5, 2, 26},
		{"hello", instances[3].tpl_hello, 1, 0xB5, 1, 14},
		{"flush", instances[3].tpl_flush, 4, 0xB6, 5, 28},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.name);
		bytes f = tpl(c.t);
		EXPECT_EQ(bytes(f.begin(), f.begin() + 6), (bytes{0x03, 0x4B, 0xA1, 0x01, 0xA5, c.group}));
		EXPECT_EQ(bytes(f.begin() + 6, f.begin() + 12), bytes(6, 0)) << "fresh source is zero";
		EXPECT_EQ(bytes(f.begin() + 12, f.begin() + 30),
			  (bytes{0x81, 0x00, 0xEF, c.tci_lo, 0x00, (uint8_t)(10 + c.plen), 0xAA, 0xAA, 0x03, 0x02,
				 0x4B, 0xA1, 0x01, 0x00, 0x20, 0xA5, c.type, c.plen}));
		for (size_t i = 28 + c.plen; i < 64; i++)
			EXPECT_EQ(f[i], 0) << "padding byte " << i;
	}
}

TEST_F(Frames, TypeFieldsOfFreshTemplates)
{
	make_instance(0, 7, 11, 12);
	const bytes sender = {0, 0, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
	auto slice = [](const uint8_t *t, size_t off, size_t n) { return bytes(t + off, t + off + n); };

	// Hello: status, interval and sender are only written by the tick.
	EXPECT_EQ(slice(instances[0].tpl_hello, 30, 12), bytes(12, 0));
	// Link Up / Down: sender in place of a status, both ids zero.
	for (const uint8_t *t : {instances[0].tpl_link_up, instances[0].tpl_link_down}) {
		EXPECT_EQ(slice(t, 30, 8), sender);
		EXPECT_EQ(slice(t, 38, 16), bytes(16, 0));
	}
	// Link Response: status 0, sender, no edges yet.
	EXPECT_EQ(slice(instances[0].tpl_link_response, 30, 2), bytes(2, 0));
	EXPECT_EQ(slice(instances[0].tpl_link_response, 32, 8), sender);
	EXPECT_EQ(slice(instances[0].tpl_link_response, 40, 16), bytes(16, 0));
	EXPECT_EQ(slice(instances[0].tpl_trig, 32, 8), sender);
	// Flush carries no sender.
	EXPECT_EQ(slice(instances[0].tpl_flush, 30, 26), bytes(26, 0));
}

TEST_F(Frames, BuildingADisabledInstanceIsRefused)
{
	memset(instances[3].tpl_ring, 0x5A, ZALK_FRAME_LEN);
	instances[3].ring_id = 4;
	zalkv2_build_frames(3);
	EXPECT_EQ(fake::logs, (std::vector<fake::LogLine>{{LOG_ERR, "Instance 3 not enabled\n"}}));
	EXPECT_EQ(tpl(instances[3].tpl_ring), bytes(64, 0x5A));
}

TEST_F(Frames, GroupAddressesCarryTheRingIdByte)
{
	uint8_t mac[6];
	zalkv2_group_address(5, 1, mac);
	EXPECT_EQ(bytes(mac, mac + 6), (bytes{0x03, 0x4B, 0xA1, 0x01, 0x05, 0x01}));
	zalkv2_group_address(0x2FE, 4, mac);
	EXPECT_EQ(bytes(mac, mac + 6), (bytes{0x03, 0x4B, 0xA1, 0x01, 0xFE, 0x04}));
	zalkv2_group_address(5, 5, mac); // no such entry
	EXPECT_EQ(bytes(mac, mac + 6), bytes(6, 0));
}

TEST_F(Frames, HeaderCheckOfReceivedFrames)
{
	make_instance(0, 7, 11, 12);
	for (const uint8_t *t : {instances[0].tpl_ring, instances[0].tpl_hello, instances[0].tpl_link_response}) {
		bytes rx = strip_tag(tpl(t));
		EXPECT_EQ(zalkv2_frame_ring_id(rx.data()), 7);

		bytes bad = rx;
		bad[22] = 0x21; // marker
		EXPECT_EQ(zalkv2_frame_ring_id(bad.data()), 255);
		bad = rx;
		bad[21] = 0x01; // SNAP protocol id 01 01
		EXPECT_EQ(zalkv2_frame_ring_id(bad.data()), 255);
		bad = rx;
		bad[18] = 0x4C; // SNAP OUI
		EXPECT_EQ(zalkv2_frame_ring_id(bad.data()), 255);

		// Length, DSAP, SSAP and control play no part.
		bytes odd = rx;
		odd[12] = odd[13] = odd[14] = odd[15] = odd[16] = 0x55;
		EXPECT_EQ(zalkv2_frame_ring_id(odd.data()), 7);
	}
}

TEST_F(Frames, LinkResponseStatusFollowsTheRingState)
{
	make_instance(0, 7, 11, 12);
	const uint8_t e1[8] = {0, 0, 1, 1, 1, 1, 1, 1};
	const uint8_t e2[8] = {0, 0, 2, 2, 2, 2, 2, 2};
	const uint8_t e3[8] = {0, 0, 3, 3, 3, 3, 3, 3};

	struct {
		uint32_t state;
		uint8_t status;
	} cases[] = {{RING_OK_NET_FOCAL, 1}, {RING_FAIL_NET_FOCAL, 2}, {BROKEN_NET_FOCAL, 0}, {DOWN_NET_FOCAL, 0}};
	for (auto &c : cases) {
		fake::clear_records();
		instances[0].ring_state = c.state;
		zalkv2_send_link_response(0, PORT_B, e1, e2);
		ASSERT_EQ(fake::frames.size(), 1u);
		const bytes &f = fake::frames[0].bytes;
		EXPECT_EQ(fake::frames[0].ifindex, 12);
		EXPECT_EQ(bytes(f.begin() + 6, f.begin() + 12), bytes(MAC_B, MAC_B + 6));
		EXPECT_EQ(bytes(f.begin() + 28, f.begin() + 32), (bytes{4, 28, 0, c.status})) << "state " << c.state;
		EXPECT_EQ(bytes(f.begin() + 32, f.begin() + 40), (bytes{0, 0, 0x02, 0x11, 0x22, 0x33, 0x44, 0x55}));
		EXPECT_EQ(bytes(f.begin() + 40, f.begin() + 48), bytes(e1, e1 + 8));
		EXPECT_EQ(bytes(f.begin() + 48, f.begin() + 56), bytes(e2, e2 + 8));
		EXPECT_EQ(bytes(f.begin() + 56, f.end()), bytes(8, 0));
	}

	// An edge not given keeps the previous one.
	fake::clear_records();
	zalkv2_send_link_response(0, PORT_A, e3, nullptr);
	ASSERT_EQ(fake::frames.size(), 1u);
	const bytes &f = fake::frames[0].bytes;
	EXPECT_EQ(bytes(f.begin() + 40, f.begin() + 48), bytes(e3, e3 + 8));
	EXPECT_EQ(bytes(f.begin() + 48, f.begin() + 56), bytes(e2, e2 + 8));
}

TEST_F(Frames, FlushGoesOutOfTheChosenPorts)
{
	make_instance(0, 7, 11, 12);
	make_instance(1, 8, 13, -1); // only port A

	zalkv2_send_flush(1, 2);
	ASSERT_EQ(fake::frames.size(), 1u);
	EXPECT_EQ(fake::frames[0].ifindex, 13);
	EXPECT_EQ(fake::frames[0].bytes[28], 5);

	struct {
		int which;
		std::vector<int> ifs;
	} cases[] = {{0, {11}}, {1, {12}}, {2, {11, 12}}};
	for (auto &c : cases) {
		fake::clear_records();
		zalkv2_send_flush(0, c.which);
		std::vector<int> got;
		for (auto &fr : fake::frames)
			got.push_back(fr.ifindex);
		EXPECT_EQ(got, c.ifs) << "which " << c.which;
	}
}

TEST_F(Frames, FlushOtherRingsEndsWithTheVersion0Signal)
{
	fake::write_file("/var/run//zalkd.pid", std::to_string(getpid()) + "\n");
	make_instance(0, 7, 11, 12);
	make_instance(2, 9, 21, 22);
	make_instance(5, 4, 51, -1);
	instances[2].port[PORT_B].operstate = ZALK_OPER_DOWN;
	// A slot given up keeps its ports; they still get the flush.
	make_instance(6, 3, 61, 62);
	instances[6].enabled = 0;

	zalkv2_flush_other_rings(0);
	std::vector<int> got;
	for (auto &f : fake::frames) {
		got.push_back(f.ifindex);
		EXPECT_EQ(f.bytes[28], 5);
	}
	EXPECT_EQ(got, (std::vector<int>{21, 51, 61, 62}));
	EXPECT_EQ(fake::frames[1].bytes[4], 4) << "each ring's own flush template";
	EXPECT_EQ(fake::kills, (std::vector<std::pair<int, int>>{{getpid(), SIGUSR1}}));

	// Alone in the table it still signals; disabled it does nothing.
	memset(instances, 0, sizeof(instances));
	make_instance(4, 1, 41, 42);
	fake::clear_records();
	zalkv2_flush_other_rings(4);
	EXPECT_TRUE(fake::frames.empty());
	EXPECT_EQ(fake::kills.size(), 1u);
	instances[4].enabled = 0;
	fake::clear_records();
	zalkv2_flush_other_rings(4);
	EXPECT_TRUE(fake::kills.empty());
}

TEST_F(Frames, LinkResponsesGoOutOfEveryPortThenFlushOtherRings)
{
	fake::write_file("/var/run//zalkd.pid", std::to_string(getpid()) + "\n");
	make_instance(0, 7, 11, 12);
	make_instance(1, 8, 13, 14);
	instances[0].ring_state = RING_OK_NET_FOCAL;
	const uint8_t e1[8] = {0, 0, 1, 1, 1, 1, 1, 1};
	zalkv2_send_link_responses(0, e1, nullptr);
	ASSERT_EQ(fake::frames.size(), 4u);
	EXPECT_EQ(fake::frames[0].ifindex, 11);
	EXPECT_EQ(fake::frames[1].ifindex, 12);
	EXPECT_EQ(fake::frames[0].bytes[28], 4);
	EXPECT_EQ(fake::frames[1].bytes[31], 1);
	EXPECT_EQ(fake::frames[2].bytes[28], 5);
	EXPECT_EQ(fake::frames[3].ifindex, 14);
	EXPECT_EQ(fake::kills.size(), 1u);
}

} // namespace
