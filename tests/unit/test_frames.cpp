// Frame templates and a sent Ring frame, checked byte for byte against
// the wire layout.
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

using Frames = Unit;

Bytes tpl(const uint8_t *t) { return Bytes(t, t + ZALK_FRAME_LEN); }

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

} // namespace
