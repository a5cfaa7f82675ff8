// Frame templates, group addresses, the header check and the small
// senders, checked byte for byte against the wire layout.
#include <csignal>
#include <unistd.h>

#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

using Frames = Unit;

Bytes tpl(const uint8_t *t) { return Bytes(t, t + ZALK_FRAME_LEN); }
std::string ifs()
{
	std::string s;
	for (auto &f : fake::frames)
		s += std::to_string(f.ifindex) + (f.bytes[28] == ZALK_FLUSH ? "F " : " ");
	return s;
}

TEST_F(Frames, AllSevenTemplatesHaveTheirHeadersFieldsAndZeroPadding)
{
	zalkv2_instance &in = instances[3];
	for (uint8_t *t : {in.tpl_link_response, in.tpl_trig, in.tpl_ring, in.tpl_link_up, in.tpl_link_down, in.tpl_hello, in.tpl_flush})
		memset(t, 0xFF, ZALK_FRAME_LEN); // junk from an earlier life of the slot
	make_ring(3, RING_TYPE_MEMBER, 0x1A5); // only the low byte goes on the wire
	const std::string id = "0000020000000013", zero8 = std::string(16, '0');
	const struct {
		const uint8_t *t;
		const char *group_tci_len; // group, TCI low byte, 802.3 length
		uint8_t type, plen;
		std::string fields; // from offset 30 to the payload's end
	} cases[] = {
		{in.tpl_link_response, "02b526", 4, 28, "0000" + id + zero8 + zero8},
		{in.tpl_trig, "02b516", 7, 12, "0000" + id},
		{in.tpl_ring, "03b616", 6, 12, "0000" + id},
		{in.tpl_link_up, "02b524", 3, 26, id + zero8 + zero8},
		{in.tpl_link_down, "02b524", 2, 26, id + zero8 + zero8},
		{in.tpl_hello, "01b518", 1, 14, std::string(24, '0')}, // status, interval, sender: written by the tick
		{in.tpl_flush, "04b626", 5, 28, std::string(52, '0')}, // no sender
	};
	for (auto &c : cases) {
		char head[80];
		snprintf(head, sizeof(head), "034ba101a5%.2s%s8100ef%.2s00%.2saaaa03024ba1010020a5%02x%02x", c.group_tci_len,
			 std::string(12, '0').c_str(), c.group_tci_len + 2, c.group_tci_len + 4, c.type, c.plen);
		EXPECT_EQ(hex(tpl(c.t)), head + c.fields + std::string(2 * (36 - c.plen), '0')) << (int)c.type;
	}
	zalkv2_send_ring_frame(3, PORT_B);
	ASSERT_EQ(sent(), "Ring@42");
	EXPECT_EQ(hex(fake::frames[0].bytes, 6, 6), "020000000302");
	EXPECT_EQ(fake::frames[0].bytes, tpl(in.tpl_ring)); // the source is written into the template itself
	memset(instances[4].tpl_ring, 0x5A, ZALK_FRAME_LEN);
	zalkv2_build_frames(4);
	EXPECT_EQ(errors(), Lines{"Instance 4 not enabled\n"});
	EXPECT_EQ(tpl(instances[4].tpl_ring), Bytes(64, 0x5A));
}

TEST_F(Frames, HeaderCheckOfReceivedFrames)
{
	Bytes rx = rx_frame(7, ZALK_RING, 12);
	EXPECT_EQ(zalkv2_frame_ring_id(rx.data()), 7);
	for (size_t off : {rx_off::MARKER, rx_off::SNAP_PID + 1, rx_off::SNAP_OUI}) { // marker, protocol id, OUI
		Bytes bad = rx;
		bad[off] ^= 1;
		EXPECT_EQ(zalkv2_frame_ring_id(bad.data()), 255) << off;
	}
	for (size_t off = 12; off < 17; off++) // length, DSAP, SSAP and control play no part
		rx[off] = 0x55;
	EXPECT_EQ(zalkv2_frame_ring_id(rx.data()), 7);
	uint8_t mac[6];
	zalkv2_group_address(5, 5, mac); // no such entry
	EXPECT_EQ(hex(Bytes(mac, mac + 6)), "000000000000");
}

TEST_F(Frames, LinkResponseStatusFollowsTheRingState)
{
	make_ring(0, RING_TYPE_FOCAL, 7);
	const uint8_t e1[8] = {0, 0, 1, 1, 1, 1, 1, 1}, e2[8] = {0, 0, 2, 2, 2, 2, 2, 2}, e3[8] = {0, 0, 3, 3, 3, 3, 3, 3};
	const std::pair<uint32_t, const char *> cases[] = {
		{RING_OK_NET_FOCAL, "0001"}, {RING_FAIL_NET_FOCAL, "0002"}, {BROKEN_NET_FOCAL, "0000"}, {DOWN_NET_FOCAL, "0000"}};
	for (auto [state, status] : cases) {
		clear();
		instances[0].ring_state = state;
		zalkv2_send_link_response(0, PORT_B, e1, e2);
		ASSERT_EQ(fake::frames.size(), 1u);
		EXPECT_EQ(fake::frames[0].ifindex, 12);
		EXPECT_EQ(hex(fake::frames[0].bytes, 6, 6), "020000000002");
		EXPECT_EQ(hex(fake::frames[0].bytes, 28),
			  std::string("041c") + status + "0000020000000010" "0000010101010101" "0000020202020202" + std::string(16, '0'));
	}
	clear(); // an edge not given keeps the previous one
	zalkv2_send_link_response(0, PORT_A, e3, nullptr);
	EXPECT_EQ(hex(fake::frames.at(0).bytes, 40, 16), "0000030303030303" "0000020202020202");
}

TEST_F(Frames, FlushesAndLinkResponsesGoOutOfTheRightPortsThenSignalVersion0)
{
	fake::write_file("/var/run/zalkd.pid", std::to_string(getpid()) + "\n");
	make_ring(0, RING_TYPE_FOCAL, 7);
	make_ring(1, RING_TYPE_MEMBER, 8, false);
	zalkv2_send_flush(1, 2);
	for (int which : {0, 1, 2})
		zalkv2_send_flush(0, which);
	EXPECT_EQ(ifs(), "21F 11F 12F 11F 12F ");
	EXPECT_TRUE(fake::kills.empty());

	make_ring(2, RING_TYPE_MEMBER, 9);
	instances[2].port[PORT_B].operstate = ZALK_OPER_DOWN;
	make_ring(6, RING_TYPE_MEMBER, 3);
	instances[6].enabled = 0; // a slot given up keeps its ports; they still get the flush
	clear();
	zalkv2_flush_other_rings(0);
	EXPECT_EQ(ifs(), "21F 31F 71F 72F ");
	EXPECT_EQ(fake::frames[1].bytes[4], 9) << "each ring's own flush template";
	EXPECT_EQ(fake::kills, (std::vector<std::pair<int, int>>{{getpid(), SIGUSR1}}));

	clear();
	const uint8_t e1[8] = {0, 0, 1, 1, 1, 1, 1, 1};
	zalkv2_send_link_responses(0, e1, nullptr);
	EXPECT_EQ(sent(), "Link Response@11 Link Response@12 Flush@21 Flush@31 Flush@71 Flush@72");
	EXPECT_EQ(fake::kills.size(), 1u);
	instances[0].enabled = 0; // disabled: nothing at all
	clear();
	zalkv2_flush_other_rings(0);
	EXPECT_TRUE(fake::kills.empty() && fake::frames.empty());
}

} // namespace
