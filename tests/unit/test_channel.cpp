// The event channel: records keep their order and bad posts are refused
// with their exact lines.
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

using Channel = Unit;
using Logs = std::vector<fake::LogLine>;

TEST_F(Channel, RefusalsPayloadLimitsAndReadFailure)
{
	EXPECT_EQ(sm_send_event(10, FLUSH_FDB, nullptr, 0), -1);
	EXPECT_EQ(sm_send_event((uint32_t)-1, FLUSH_FDB, nullptr, 0), -1);
	EXPECT_EQ(fake::logs, (Logs{{LOG_ERR, "Instance 10 invalid\n"}, {LOG_ERR, "Instance -1 invalid\n"}}));
	EXPECT_TRUE(posted().empty());

	Bytes big(40);
	for (int i = 0; i < 40; i++)
		big[i] = (uint8_t)(0xA0 + i);
	clear();
	EXPECT_EQ(sm_send_event(9, RX_LINKA_1, big.data(), 31), 40);
	EXPECT_EQ(sm_send_event(2, RX_LINKB_1, big.data(), 32), 40); // too long: sent without data
	EXPECT_EQ(sm_send_event(4, RX_LINKB_0, nullptr, 20), 40);
	EXPECT_EQ(fake::logs, (Logs{{LOG_ERR, "Data field to small\n\n"}}));
	auto evs = posted();
	ASSERT_EQ(evs.size(), 3u);
	EXPECT_EQ(evs[0].instance, 9u);
	EXPECT_EQ(evs[0].event, RX_LINKA_1);
	EXPECT_EQ(hex(Bytes(evs[0].data, evs[0].data + 32)), hex(big, 0, 31) + "00");
	EXPECT_EQ(hex(Bytes(evs[1].data, evs[1].data + 32)) + hex(Bytes(evs[2].data, evs[2].data + 32)), std::string(128, '0'));

	clear();
	sm_event ev;
	EXPECT_EQ(sm_read_event(&ev), -1);
	EXPECT_EQ(fake::logs, (Logs{{LOG_ERR, "\nFailed redaing from pipe.\n\n"}}));
}

TEST_F(Channel, AFullChannelDropsWholeRecordsWithoutBlocking)
{
	int n = 0;
	while (sm_send_event(2, FLUSH_FDB, nullptr, 0) == 40)
		ASSERT_LT(++n, 1 << 20);
	EXPECT_EQ(fake::logs.back(), (fake::LogLine{LOG_ERR, "\nFailed to send event to state machine, ins:2 FLUSH_FDB\n\n"}));
	EXPECT_EQ((int)posted().size(), n);
}

} // namespace
