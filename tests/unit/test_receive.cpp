// The receive path: frames as the kernel hands them over (tag stripped)
// become the right events, or are dropped for the right reasons.
#include <gtest/gtest.h>

#include <cstring>
#include <sys/ioctl.h>
#include <syslog.h>
#include <vector>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint8_t BASE_MAC[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr uint8_t MAC_A[6] = {0x02, 0xAA, 0x00, 0x00, 0x00, 0x01};
constexpr uint8_t MAC_B[6] = {0x02, 0xBB, 0x00, 0x00, 0x00, 0x02};
constexpr uint8_t PEER[6] = {0x0E, 0x00, 0x00, 0x00, 0x00, 0x77};

constexpr int IF_A = 11, IF_B = 12;

void set_port(int ins, int p, int ifindex, const uint8_t mac[6])
{
	zalkv2_port &port = instances[ins].port[p];
	port.instance = &instances[ins];
	snprintf(port.name, sizeof(port.name), "eth%d", ifindex);
	memcpy(port.mac, mac, 6);
	port.ifindex = ifindex;
	port.port_index = (uint32_t)p;
	port.operstate = ZALK_OPER_UP;
}

void make_instance(int ins, int ring_id, uint32_t role, int ifa, int ifb)
{
	zalkv2_instance &in = instances[ins];
	in.index = ins;
	in.enabled = 1;
	in.ring_id = ring_id;
	in.role = role;
	memcpy(in.base_mac, BASE_MAC, 6);
	set_port(ins, PORT_A, ifa, MAC_A);
	set_port(ins, PORT_B, ifb, MAC_B);
	zalkv2_build_frames(ins);
}

// A frame as received: 60 bytes, no tag, written out field by field.
bytes rx_frame(uint8_t ring, uint8_t type, uint8_t plen, const uint8_t src[6] = PEER)
{
	bytes f(60, 0);
	const uint8_t head[] = {0x03, 0x4B, 0xA1, 0x01, ring, 0x02};
	memcpy(&f[0], head, 6);
	memcpy(&f[6], src, 6);
	f[13] = (uint8_t)(10 + plen);
	const uint8_t llc[] = {0xAA, 0xAA, 0x03, 0x02, 0x4B, 0xA1, 0x01, 0x00, 0x20, ring, type, plen};
	memcpy(&f[14], llc, sizeof(llc));
	return f;
}

bytes link_response(uint8_t ring, uint16_t status, const uint8_t *edge1_mac, const uint8_t *edge2_mac)
{
	bytes f = rx_frame(ring, 4, 28);
	f[26] = (uint8_t)(status >> 8);
	f[27] = (uint8_t)status;
	memcpy(&f[30], "\0\0\x0e\0\0\0\0\x77", 8);
	if (edge1_mac)
		memcpy(&f[38], edge1_mac, 6);
	if (edge2_mac)
		memcpy(&f[46], edge2_mac, 6);
	return f;
}

// Every record waiting in the channel, without touching the log.
std::vector<sm_event> posted()
{
	int fd = msg_pipe_create();
	int avail = 0;
	ioctl(fd, FIONREAD, &avail);
	std::vector<sm_event> out;
	for (int i = 0; i < avail / (int)sizeof(sm_event); i++) {
		sm_event ev;
		if (sm_read_event(&ev) == (int)sizeof(ev))
			out.push_back(ev);
	}
	return out;
}

void handle(int ifindex, const bytes &f) { zalkv2_handle_frame(ifindex, f.data(), f.size()); }

class Receive : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_GE(msg_pipe_create(), 0);
		posted();
		fake::reset();
		memset(instances, 0, sizeof(instances));
		for (auto &in : instances)
			for (auto &p : in.port)
				p.ifindex = -1;
		send_sock = 7;
	}
	void TearDown() override { posted(); }
};

TEST_F(Receive, EachFrameTypePostsItsEvent)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	bytes up = rx_frame(3, 3, 26);
	memcpy(&up[28], "\0\0\x0e\0\0\0\0\x77\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10", 24);
	up[59] = 0xEE; // beyond the 26 payload bytes: must not be copied

	struct {
		const char *name;
		int ifindex;
		bytes frame;
		uint32_t event;
		bool data;
	} cases[] = {
		{"link down on A", IF_A, rx_frame(3, 2, 26), RX_LINKA_0, false},
		{"link down on B", IF_B, rx_frame(3, 2, 26), RX_LINKB_0, false},
		{"link up on A", IF_A, up, RX_LINKA_1, true},
		{"link up on B", IF_B, up, RX_LINKB_1, true},
		{"flush", IF_B, rx_frame(3, 5, 28), FLUSH_FDB, false},
		{"trig at a member", IF_A, rx_frame(3, 7, 12), FOCAL_TRIG, false},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.name);
		handle(c.ifindex, c.frame);
		auto evs = posted();
		ASSERT_EQ(evs.size(), 1u);
		EXPECT_EQ(evs[0].instance, 0u);
		EXPECT_EQ(evs[0].event, c.event);
		bytes want(32, 0);
		if (c.data)
			memcpy(want.data(), &c.frame[24], 26);
		EXPECT_EQ(bytes(evs[0].data, evs[0].data + 32), want);
	}
	EXPECT_TRUE(fake::logs.empty());
}

TEST_F(Receive, LinkResponsesNamingThisSwitch)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	struct {
		bool in_edge2;
		uint16_t status;
		uint32_t event;
	} cases[] = {
		{false, 0, RX_LINK_RESPONSE}, {false, 1, RX_LINK_RESPONSE_RING}, {false, 2, RX_LINK_RESPONSE_RING},
		{true, 0, RX_LINK_RESPONSE},  {true, 1, RX_LINK_RESPONSE_RING},	 {true, 2, RX_LINK_RESPONSE_RING},
		{true, 0x0104, RX_LINK_RESPONSE}, // only the two low bits count
	};
	const uint8_t other[6] = {0x02, 0x99, 0, 0, 0, 9};
	for (auto &c : cases) {
		SCOPED_TRACE(testing::Message() << "edge" << (c.in_edge2 ? 2 : 1) << " status " << c.status);
		handle(IF_A, c.in_edge2 ? link_response(3, c.status, other, BASE_MAC)
					: link_response(3, c.status, BASE_MAC, other));
		auto evs = posted();
		ASSERT_EQ(evs.size(), 1u);
		EXPECT_EQ(evs[0].event, c.event);
	}

	// Naming other switches is a plain flush, whatever the status.
	handle(IF_B, link_response(3, 1, other, other));
	auto evs = posted();
	ASSERT_EQ(evs.size(), 1u);
	EXPECT_EQ(evs[0].event, FLUSH_FDB);
}

TEST_F(Receive, OwnFramesAndTaggedFramesAreDropped)
{
	make_instance(0, 3, RING_TYPE_FOCAL, IF_A, IF_B);
	instances[0].port[PORT_B].hello_enable = 1;

	// Our own Hello from port A, back on port B: not counted as a hello.
	bytes hello = rx_frame(3, 1, 14, MAC_A);
	handle(IF_B, hello);
	EXPECT_EQ(instances[0].port[PORT_B].hello_rx, 0u);
	// Our own Link Down: no event.
	handle(IF_A, rx_frame(3, 2, 26, MAC_B));
	// Our own Ring frame coming back is what the focal point waits for.
	handle(IF_B, rx_frame(3, 6, 12, MAC_A));
	handle(IF_B, rx_frame(3, 6, 12, MAC_A));
	EXPECT_EQ(instances[0].port[PORT_B].rx_ring, 2u);
	EXPECT_EQ(instances[0].port[PORT_A].rx_ring, 0u);

	// A frame that still carries its tag is not ours to read.
	bytes tagged = rx_frame(3, 2, 26);
	tagged.insert(tagged.begin() + 12, {0x81, 0x00, 0xEF, 0xB5});
	handle(IF_A, tagged);
	EXPECT_TRUE(posted().empty());
	EXPECT_TRUE(fake::frames.empty());
}

TEST_F(Receive, ForeignRingsAreRecordedNotProcessed)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	handle(IF_B, rx_frame(9, 6, 12));
	EXPECT_EQ(instances[0].rx_errors[PORT_B].rx_wrong_ring_id, 9);
	EXPECT_EQ(instances[0].rx_errors[PORT_A].rx_wrong_ring_id, 0);
	EXPECT_EQ(instances[0].port[PORT_B].rx_ring, 0u);

	bytes bad = rx_frame(3, 2, 26);
	bad[22] = 0x21; // broken marker reads as ring 255
	handle(IF_A, bad);
	EXPECT_EQ(instances[0].rx_errors[PORT_A].rx_wrong_ring_id, 255);
	EXPECT_TRUE(posted().empty());

	// A ring configured as 255 still never takes a broken header for
	// its own, but hears its own ring.
	instances[0].ring_id = 255;
	handle(IF_A, bad);
	handle(IF_A, rx_frame(255, 2, 26));
	auto evs = posted();
	ASSERT_EQ(evs.size(), 1u);
	EXPECT_EQ(evs[0].event, RX_LINKA_0);
}

TEST_F(Receive, RingFramesAndTrigByRole)
{
	// A member bus edge turns Ring frames around on the receiving port.
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, -1);
	handle(IF_A, rx_frame(3, 6, 12));
	EXPECT_EQ(instances[0].port[PORT_A].rx_ring, 1u);
	ASSERT_EQ(fake::frames.size(), 1u);
	EXPECT_EQ(fake::frames[0].ifindex, IF_A);
	bytes ring(instances[0].tpl_ring, instances[0].tpl_ring + 64);
	EXPECT_EQ(fake::frames[0].bytes, ring);

	// A member with both ports, or a focal point, only counts.
	fake::clear_records();
	make_instance(1, 4, RING_TYPE_MEMBER, 21, 22);
	make_instance(2, 5, RING_TYPE_FOCAL, 31, -1);
	handle(22, rx_frame(4, 6, 12));
	handle(31, rx_frame(5, 6, 12));
	EXPECT_EQ(instances[1].port[PORT_B].rx_ring, 1u);
	EXPECT_EQ(instances[2].port[PORT_A].rx_ring, 1u);
	EXPECT_TRUE(fake::frames.empty());

	// Trig at a focal point: nothing posted, nothing reported.
	fake::set_debug(ZALK_STATE);
	handle(31, rx_frame(5, 7, 12));
	EXPECT_TRUE(posted().empty());
	EXPECT_TRUE(fake::logs.empty());
}

TEST_F(Receive, HelloAndUnknownTypes)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	instances[0].port[PORT_A].hello_enable = 1;
	instances[0].port[PORT_A].hello_time_ms = 500;
	fake::set_debug(ZALK_STATE);

	bytes hello = rx_frame(3, 1, 14);
	hello[27] = 0x01; // Q
	hello[28] = 0x01;
	hello[29] = 0xF4; // 500 ms
	handle(IF_A, hello);
	EXPECT_EQ(instances[0].port[PORT_A].hello_rx, 1u);
	EXPECT_EQ(instances[0].port[PORT_A].hello_resp, 2u);
	EXPECT_TRUE(fake::logs.empty());

	// Hello on a port without hello, and an unknown type, are unhandled.
	handle(IF_B, hello);
	handle(IF_A, rx_frame(3, 9, 12));
	EXPECT_EQ(fake::log_texts(LOG_NOTICE),
		  (std::vector<std::string>{"zalkv2_recv() - Unhandled packets\n", "zalkv2_recv() - Unhandled packets\n"}));
	EXPECT_TRUE(posted().empty());
}

TEST_F(Receive, ShortFramesNeverReadStaleBytes)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	const uint8_t other[6] = {0x02, 0x99, 0, 0, 0, 9};
	ev_io w;
	w.fd = 100;

	// A full response naming us leaves its bytes in the receive buffer.
	bytes full = link_response(3, 1, other, BASE_MAC);
	fake::rx_queue.push_back({IF_A, full});
	// The same frame cut before its edges must not find them there.
	fake::rx_queue.push_back({IF_A, bytes(full.begin(), full.begin() + 40)});
	// Cut inside the header: a wrong header, as ring 255.
	fake::rx_queue.push_back({IF_B, bytes(full.begin(), full.begin() + 20)});
	for (int i = 0; i < 3; i++)
		packet_rcv(nullptr, &w, EV_READ);

	auto evs = posted();
	ASSERT_EQ(evs.size(), 2u);
	EXPECT_EQ(evs[0].event, RX_LINK_RESPONSE_RING);
	EXPECT_EQ(evs[1].event, FLUSH_FDB);
	EXPECT_EQ(instances[0].rx_errors[PORT_B].rx_wrong_ring_id, 255);

	// A Link Up cut short carries zeros, not old bytes, as its payload.
	bytes up = rx_frame(3, 3, 26);
	memset(&up[26], 0x5C, 34);
	handle(IF_A, up);
	handle(IF_A, bytes(up.begin(), up.begin() + 30));
	evs = posted();
	ASSERT_EQ(evs.size(), 2u);
	bytes want(32, 0);
	memcpy(want.data(), &up[24], 6);
	EXPECT_EQ(bytes(evs[1].data, evs[1].data + 32), want);

	// Nothing to read is an error line, nothing else.
	packet_rcv(nullptr, &w, EV_READ);
	EXPECT_EQ(fake::logs, (std::vector<fake::LogLine>{{LOG_ERR, "recvfrom failed: Resource temporarily unavailable\n\n"}}));
}

TEST_F(Receive, FramesFromOtherInterfaces)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	make_instance(1, 4, RING_TYPE_MEMBER, 21, 22);
	instances[1].enabled = 0; // given up: its ports are no ring ports
	fake::set_debug(ZALK_DBG);
	handle(99, rx_frame(3, 2, 26));
	handle(21, rx_frame(4, 2, 26));
	EXPECT_TRUE(posted().empty());
	EXPECT_EQ(fake::log_texts(LOG_NOTICE),
		  (std::vector<std::string>{"packet_rcv() - Received invalid port num for ifindex 99\n\n",
					    "packet_rcv() - Received invalid port num for ifindex 21\n\n"}));
}

TEST_F(Receive, DebugLinesOfTheReceivePath)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	fake::set_debug(ZALK_STATE | ZALK_TRACE | ZALK_TIP);

	handle(IF_B, link_response(3, 2, nullptr, BASE_MAC));
	handle(IF_A, rx_frame(3, 5, 28));
	handle(IF_A, link_response(3, 0, nullptr, nullptr));
	EXPECT_EQ(fake::log_texts(LOG_NOTICE),
		  (std::vector<std::string>{
			  "zalkv2_filter_packet() - eth12 type: 4\n port mac: 02:bb:00:00:00:02\n pkt:0e:00:00:00:00:77\n",
			  "zalkv2_recv() - ins: 0 port:eth12 Recevied zalk packet with type Link Response\n",
			  "is_my_link_response() - br mac: 02:11:22:33:44:55 edge mac1:00:00:00:00:00:00 mac2 "
			  "02:11:22:33:44:55\n",
			  "is_link_response_packet() - ins:0 Link response: 0e:00:00:00:00:77 status: 0x1\n",
			  "zalkv2_filter_packet() - eth11 type: 5\n port mac: 02:aa:00:00:00:01\n pkt:0e:00:00:00:00:77\n",
			  "zalkv2_recv() - ins: 0 port:eth11 Recevied zalk packet with type Flush\n",
			  "is_link_response_packet() - ins:0 connected ring fdb flush: 0e:00:00:00:00:77\n",
			  "zalkv2_filter_packet() - eth11 type: 4\n port mac: 02:aa:00:00:00:01\n pkt:0e:00:00:00:00:77\n",
			  "zalkv2_recv() - ins: 0 port:eth11 Recevied zalk packet with type Link Response\n",
			  "is_link_response_packet() - ins:0 Link response: 0e:00:00:00:00:77 Flush FDB\n",
		  }));
}

TEST_F(Receive, PacketSendOnlyOnLivePorts)
{
	make_instance(0, 3, RING_TYPE_MEMBER, IF_A, IF_B);
	fake::set_debug(ZALK_TRACE);
	instances[0].port[PORT_A].operstate = ZALK_OPER_DOWN;
	packet_send(&instances[0].port[PORT_A], instances[0].tpl_trig, 64);
	EXPECT_TRUE(fake::frames.empty());
	EXPECT_TRUE(fake::logs.empty());
	EXPECT_EQ(instances[0].tpl_trig[6], 0) << "source untouched while down";

	packet_send(&instances[0].port[PORT_B], instances[0].tpl_trig, 64);
	ASSERT_EQ(fake::frames.size(), 1u);
	EXPECT_EQ(fake::frames[0].ifindex, IF_B);
	EXPECT_EQ(fake::frames[0].bytes.size(), 64u);
	EXPECT_EQ(bytes(fake::frames[0].bytes.begin() + 6, fake::frames[0].bytes.begin() + 12),
		  bytes(MAC_B, MAC_B + 6));
	EXPECT_EQ(fake::log_texts(LOG_NOTICE), (std::vector<std::string>{"packet_send() - Send packet on eth12(12)\n"}));
}

TEST_F(Receive, Lookups)
{
	make_instance(1, 3, RING_TYPE_MEMBER, IF_A, -1);
	make_instance(2, 4, RING_TYPE_MEMBER, 21, IF_A); // shares IF_A: instance 1 comes first
	make_instance(0, 5, RING_TYPE_MEMBER, 31, 32);
	instances[0].enabled = 0;

	EXPECT_EQ(zalkv2_port_by_ifindex(IF_A), &instances[1].port[PORT_A]);
	EXPECT_EQ(zalkv2_instance_by_ifindex(IF_A), 1);
	EXPECT_EQ(zalkv2_port_by_ifindex(31), nullptr);
	EXPECT_EQ(zalkv2_instance_by_ifindex(31), -1);
	EXPECT_EQ(zalkv2_port_by_ifindex(-1), nullptr);
	EXPECT_EQ(zalkv2_instance_by_ifindex(-1), -1);

	int pi = 7;
	EXPECT_EQ(zalkv2_port_index(2, IF_A, &pi), 1);
	EXPECT_EQ(pi, PORT_B);
	EXPECT_EQ(zalkv2_port_index(1, -1, &pi), 0);
	EXPECT_EQ(zalkv2_port_index(1, 21, &pi), 0);

	char buf[28];
	EXPECT_STREQ(mac_to_text(PEER, buf, sizeof(buf)), "0e:00:00:00:00:77");
}

} // namespace
