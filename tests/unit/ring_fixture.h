// Shared set-up of the ring engine tests: instances built the way
// configuration builds them, events driven through the real channel and
// dispatcher, and compact readings of what left the fake OS boundary.
#pragma once

#include <algorithm>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "ring/channel.h"
#include "ring/dispatch.h"
#include "ring/focal.h"
#include "ring/link.h"
#include "ring/member.h"
#include "ring/ports.h"
#include "status/status.h"
#include "tests/fakes/fake.h"

namespace ringtest {

inline std::string join(const std::vector<std::string> &v)
{
	std::string s;
	for (auto &x : v)
		s += (s.empty() ? "" : " ") + x;
	return s;
}

// Bridge requests as "<ifindex>=<STATE>" and "<ifindex>:flush", in order.
inline std::vector<std::string> bridge_requests()
{
	std::vector<std::string> out;
	for (auto &req : fake::netlink) {
		auto *h = reinterpret_cast<const nlmsghdr *>(req.data());
		if (h->nlmsg_type != RTM_SETLINK)
			continue;
		auto *ifi = reinterpret_cast<const ifinfomsg *>(req.data() + NLMSG_HDRLEN);
		size_t off = NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(ifinfomsg));
		while (off + sizeof(nlattr) <= req.size()) {
			auto *a = reinterpret_cast<const nlattr *>(req.data() + off);
			if ((a->nla_type & NLA_TYPE_MASK) == IFLA_PROTINFO) {
				size_t in = off + NLA_HDRLEN;
				while (in + sizeof(nlattr) <= off + a->nla_len) {
					auto *b = reinterpret_cast<const nlattr *>(req.data() + in);
					std::string idx = std::to_string(ifi->ifi_index);
					if (b->nla_type == IFLA_BRPORT_STATE)
						out.push_back(idx + "=" + zalk_port_state_name(req[in + NLA_HDRLEN]));
					else if (b->nla_type == IFLA_BRPORT_FLUSH)
						out.push_back(idx + ":flush");
					in += NLA_ALIGN(b->nla_len);
				}
			}
			off += NLA_ALIGN(a->nla_len);
		}
	}
	return out;
}
inline std::string bridge() { return join(bridge_requests()); }

// Frames as "<type name>@<ifindex>", in order.
inline std::string sent()
{
	std::vector<std::string> v;
	for (auto &f : fake::frames)
		v.push_back(std::string(zalk_frame_type_name(f.bytes.at(28))) + "@" + std::to_string(f.ifindex));
	return join(v);
}

inline std::vector<std::string> errors() { return fake::log_texts(LOG_ERR); }
inline std::vector<std::string> notices() { return fake::log_texts(LOG_NOTICE); }

inline std::string bytes(const std::vector<uint8_t> &b, size_t off, size_t n)
{
	std::string s;
	char x[4];
	for (size_t i = off; i < off + n; i++) {
		snprintf(x, sizeof(x), "%02x", b.at(i));
		s += x;
	}
	return s;
}

// A Link Up event's payload: frame bytes from offset 24, so the sender's
// bridge id sits at payload bytes 2 to 9.
inline std::vector<uint8_t> link_up_payload(uint8_t last_mac_byte)
{
	std::vector<uint8_t> p(SM_LINK_UP_DATA_LEN, 0);
	p[0] = ZALK_LINK_UP;
	const uint8_t id[8] = {0, 0, 0x02, 0xaa, 0, 0, 0, last_mac_byte};
	memcpy(&p[2], id, 8);
	return p;
}

class Ring : public ::testing::Test {
protected:
	struct ev_loop *loop = ev_default_loop(0);

	void SetUp() override
	{
		quiesce();
		fake::reset();
		memset(instances, 0, sizeof(instances));
		memset(miss_count, 0, sizeof(miss_count));
		memset(hit_count, 0, sizeof(hit_count));
		memset(response_ticks, 0, sizeof(response_ticks));
		focal_timers_init();
		member_timer_init();
		msg_bus_setup();
		drain_pipe();
	}
	void TearDown() override { quiesce(); }

	// Nothing of a previous test may stay in the loop or the channel.
	void quiesce()
	{
		for (auto &in : instances)
			ev_timer_stop(loop, &in.ring_timer);
		ev_timer_stop(loop, &response_timer);
		ev_timer_stop(loop, &member_timer);
		ev_io_stop(loop, &sm_watcher);
	}
	void drain_pipe()
	{
		sm_event ev;
		while (pending())
			if (read(sm_watcher.fd, &ev, sizeof(ev)) <= 0)
				break;
	}
	bool pending()
	{
		pollfd p{sm_watcher.fd, POLLIN, 0};
		return poll(&p, 1, 0) == 1;
	}

	// A ring set up as configuration does it: ports eth<10*ins+1> and
	// eth<10*ins+2> with ifindex 10*ins+11 and 10*ins+12, interfaces up,
	// templates built, status tree in place. Links start down.
	void make_ring(int ins, uint32_t role, bool with_b = true, int ring_id = 3)
	{
		zalkv2_instance &in = instances[ins];
		in.index = ins;
		in.ring_id = ring_id;
		in.role = role;
		in.bridge_ifindex = 2;
		const uint8_t base[6] = {0x02, 0x00, 0x00, 0x00, 0x00, (uint8_t)(0x10 + ins)};
		memcpy(in.base_mac, base, 6);
		in.ring_interval = 0.5f;
		in.response_delay = 30;
		in.blocked_port = PORT_B;
		for (int p = 0; p < 2; p++) {
			zalkv2_port &port = in.port[p];
			port.instance = &in;
			port.port_index = p;
			if (p == PORT_B && !with_b) {
				port.ifindex = -1;
				continue;
			}
			port.ifindex = 10 * ins + 11 + p;
			snprintf(port.name, sizeof(port.name), "eth%d", 10 * ins + 1 + p);
			const uint8_t mac[6] = {0x02, 0x00, 0x00, 0x00, (uint8_t)ins, (uint8_t)(p + 1)};
			memcpy(port.mac, mac, 6);
			port.operstate = ZALK_OPER_UP;
			port.state = PORT_BLOCKING;
			fake::add_iface(port.name, port.ifindex, mac, true);
		}
		in.enabled = 1;
		zalkv2_build_frames(ins);
		zalk_status_setup(ins);
	}

	// Links as the hello/link monitor would report them, without events.
	void links(int ins, int a, int b)
	{
		instances[ins].port[PORT_A].link = a;
		instances[ins].port[PORT_B].link = b;
	}

	void post(int ins, uint32_t event, const std::vector<uint8_t> &data = {})
	{
		sm_send_event(ins, event, data.empty() ? nullptr : data.data(), data.size());
	}
	// Runs the dispatcher until the channel is empty; returns the records
	// handled.
	int dispatch()
	{
		int n = 0;
		while (pending()) {
			sm_cb(loop, &sm_watcher, EV_READ);
			n++;
		}
		return n;
	}
	void event(int ins, uint32_t ev, const std::vector<uint8_t> &data = {})
	{
		post(ins, ev, data);
		dispatch();
	}

	void ring_tick(int ins) { focal_ring_pkt_handler_cb(loop, &instances[ins].ring_timer, EV_TIMER); }
	void hold_tick() { focal_response_timer_cb(loop, &response_timer, EV_TIMER); }
	void member_tick() { member_link_up_cb(loop, &member_timer, EV_TIMER); }

	std::string state_file(int ring_id = 3)
	{
		return fake::read_file("/var/run/zalkv2/" + std::to_string(ring_id) + "/state");
	}
	std::string event_log() { return fake::read_file("/tmp/zalk.log"); }
	void clear() { fake::clear_records(); }
};

} // namespace ringtest

namespace ringtest {
inline bool has(const std::vector<std::string> &v, const std::string &s)
{
	return std::find(v.begin(), v.end(), s) != v.end();
}
inline size_t count_of(const std::string &hay, const std::string &needle)
{
	size_t n = 0;
	for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + needle.size()))
		n++;
	return n;
}
} // namespace ringtest
