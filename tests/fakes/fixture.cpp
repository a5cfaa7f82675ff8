// The shared unit-test fixture (see fixture.h).
#include "tests/fakes/fixture.h"

#include "daemon/config.h"
#include "daemon/configure.h"

#include <algorithm>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <poll.h>
#include <unistd.h>

namespace fx {

std::string join(const Lines &v)
{
	std::string s;
	for (auto &x : v)
		s += (s.empty() ? "" : " ") + x;
	return s;
}
bool has(const Lines &v, const std::string &s) { return std::find(v.begin(), v.end(), s) != v.end(); }
size_t count_of(const std::string &hay, const std::string &needle)
{
	size_t n = 0;
	for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + needle.size()))
		n++;
	return n;
}
std::string hex(const Bytes &b, size_t off, size_t n)
{
	std::string s;
	for (size_t i = off; i < b.size() && i - off < n; i++)
		s.append(1, "0123456789abcdef"[b[i] >> 4]).append(1, "0123456789abcdef"[b[i] & 15]);
	return s;
}

static std::string u(const rtattr *a)
{
	auto *d = (const uint8_t *)RTA_DATA(a);
	int len = RTA_PAYLOAD(a);
	return std::to_string(len == 1 ? d[0] : len == 2 ? *(const uint16_t *)d : *(const uint32_t *)d);
}
static int type(const rtattr *a) { return a->rta_type & NLA_TYPE_MASK; }
#define EACH(a, start, len) for (const rtattr *a = (const rtattr *)(start); RTA_OK(a, len); a = RTA_NEXT(a, len))

std::string describe(const nlmsghdr *n)
{
	const char *body = (const char *)NLMSG_DATA(n);
	int t = n->nlmsg_type;
	if (t == RTM_SETLINK || t == RTM_DELLINK) {
		std::string idx = std::to_string(((const ifinfomsg *)body)->ifi_index);
		std::string out;
		int len = n->nlmsg_len - NLMSG_LENGTH(sizeof(ifinfomsg));
		EACH(a, body + NLMSG_ALIGN(sizeof(ifinfomsg)), len)
		{
			int l2 = RTA_PAYLOAD(a);
			std::string flags, vid;
			EACH(b, RTA_DATA(a), l2)
			{
				if (type(a) == IFLA_PROTINFO && type(b) == IFLA_BRPORT_STATE)
					out += idx + "=" + zalk_port_state_name(*(const uint8_t *)RTA_DATA(b));
				else if (type(a) == IFLA_PROTINFO && type(b) == IFLA_BRPORT_FLUSH)
					out += idx + ":flush";
				else if (type(a) == IFLA_AF_SPEC && type(b) == IFLA_BRIDGE_FLAGS)
					flags = u(b) == "1" ? "master" : "self";
				else if (type(a) == IFLA_AF_SPEC && type(b) == IFLA_BRIDGE_VLAN_INFO)
					vid = std::to_string(((const bridge_vlan_info *)RTA_DATA(b))->vid);
				else if (type(a) == IFLA_AF_SPEC && type(b) == IFLA_BRIDGE_MST) {
					const rtattr *e = (const rtattr *)RTA_DATA(b);
					int l4 = RTA_PAYLOAD(e);
					std::string v[3];
					EACH(c, RTA_DATA(e), l4)
					v[std::min(type(c), 2)] = u(c);
					out += "mst " + idx + " " + v[1] + " " + v[2];
				}
			}
			if (!vid.empty())
				out += std::string(t == RTM_SETLINK ? "vlan add " : "vlan del ") + idx + " " + vid + " " + flags;
		}
		return out;
	}
	if (t == RTM_NEWVLAN) {
		int len = n->nlmsg_len - NLMSG_LENGTH(sizeof(br_vlan_msg));
		std::string out = "gopt " + std::to_string(((const br_vlan_msg *)body)->ifindex);
		EACH(a, body + NLMSG_ALIGN(sizeof(br_vlan_msg)), len)
		{
			int l2 = RTA_PAYLOAD(a);
			EACH(b, RTA_DATA(a), l2)
			out.append(type(b) == BRIDGE_VLANDB_GOPTS_ID ? " vid " : " " + std::to_string(type(b)).append("=")).append(u(b));
		}
		return out;
	}
	if (t == RTM_NEWMDB || t == RTM_DELMDB) {
		auto *e = (const br_mdb_entry *)RTA_DATA(body + NLMSG_ALIGN(sizeof(br_port_msg)));
		char mac[20];
		mac_to_text(e->addr.u.mac_addr, mac, sizeof(mac));
		return std::string(t == RTM_NEWMDB ? "mdb add " : "mdb del ") + std::to_string(((const br_port_msg *)body)->ifindex) +
		       " " + std::to_string(e->ifindex) + " " + mac + " " + std::to_string(e->vid);
	}
	return "netlink " + std::to_string(t);
}

// Each record so read, joined by blanks.
template <class C, class F> static std::string each(const C &records, F read)
{
	Lines v;
	for (auto &r : records)
		v.push_back(read(r));
	return join(v);
}
std::string bridge() { return each(fake::netlink, [](auto &r) { return describe((const nlmsghdr *)r.data()); }); }
std::string sent()
{
	return each(fake::frames, [](auto &f) { return zalk_frame_type_name(f.bytes.at(28)) + ("@" + std::to_string(f.ifindex)); });
}

Lines seq;
std::function<int(const nlmsghdr *)> talk;
std::function<int(const Lines &)> cmd;
void record_sequence()
{
	seq.clear();
	talk = [](const nlmsghdr *) { return 0; };
	cmd = [](const Lines &) { return 0; };
	fake::talk_hook = [](const nlmsghdr *n) {
		seq.push_back(describe(n));
		return talk(n);
	};
	fake::spawn_hook = [](const Lines &v) {
		seq.push_back(join(v));
		return cmd(v);
	};
}

bool readable()
{
	pollfd p{msg_pipe_create(), POLLIN, 0};
	return poll(&p, 1, 0) == 1;
}
std::vector<sm_event> posted()
{
	std::vector<sm_event> out;
	sm_event ev;
	while (readable() && sm_read_event(&ev) == (int)sizeof(ev))
		out.push_back(ev);
	return out;
}
std::string events()
{
	return each(posted(), [](auto &e) { return std::to_string(e.instance) + ":" + zalk_event_name(e.event); });
}

const uint8_t PEER[6] = {0x0E, 0x00, 0x00, 0x00, 0x00, 0x77};
Bytes rx_frame(uint8_t ring, uint8_t type, uint8_t plen, const uint8_t *src)
{
	Bytes f(60, 0);
	const uint8_t head[] = {0x03, 0x4B, 0xA1, 0x01, ring, 0x02};
	const uint8_t llc[] = {0x00, (uint8_t)(10 + plen), 0xAA, 0xAA, 0x03, 0x02, 0x4B, 0xA1, 0x01, 0x00, 0x20, ring, type, plen};
	memcpy(&f[0], head, 6);
	memcpy(&f[6], src, 6);
	memcpy(&f[12], llc, sizeof(llc));
	return f;
}
int rx_vlan(const Bytes &frame) { return frame[24] == 5 || frame[24] == 6 ? 4022 : 4021; }
Bytes link_up_payload(uint8_t last)
{
	Bytes p(SM_LINK_UP_DATA_LEN, 0);
	p[0] = ZALK_LINK_UP;
	const uint8_t id[8] = {0, 0, 0x02, 0xaa, 0, 0, 0, last};
	memcpy(&p[2], id, 8);
	return p;
}

zalkv2_instance &make_ring(int ins, uint32_t role, int ring_id, bool with_b)
{
	// The interfaces and the base MAC first: configuration finds them.
	const uint8_t bridge_mac[6] = {0x02, 0, 0, 0, 0, 0xbb};
	if (!fake::iface_by_name("br0"))
		fake::add_iface("br0", 2, bridge_mac, true);
	std::string ports;
	for (int p = 0; p < (with_b ? 2 : 1); p++) {
		std::string name = "eth" + std::to_string(10 * ins + 1 + p);
		const uint8_t mac[6] = {0x02, 0, 0, 0, (uint8_t)ins, (uint8_t)(p + 1)};
		fake::add_iface(name, 10 * ins + 11 + p, mac, true);
		ports += "  port " + std::string(p ? "b" : "a") + " {\n    name = " + name +
			 "\n    hello-enable = 0\n    hello-time = 500\n  }\n";
	}
	char base[32];
	snprintf(base, sizeof(base), "02:00:00:00:00:%02x\n", 0x10 + ins);
	fake::write_file("/var/run/system/0/mac-base", base);
	fake::write_file("/etc/zalkv2d.conf",
			 "zalk ring {\n  ring-id = " + std::to_string(ring_id) + "\n  ring-role = " +
				 (role == RING_TYPE_FOCAL ? "focal-point" : "member") +
				 "\n  ring-interval = 500\n  response-delay = 1500\n  guarded-recovery = 0\n"
				 "  blocked-port = eth" + std::to_string(10 * ins + 2) + "\n" + ports + "}\n");
	// Start-up opens the interface socket (the ports' MACs are asked
	// through it) before it configures; a test's own value stays.
	int kept = netsock;
	netsock = netsock ? netsock : 9;
	cfg_t *cfg = zalkv2_read_config();
	EXPECT_NE(cfg, nullptr);
	if (cfg)
		zalkv2_write_instance(ins, cfg_getnsec(cfg, "zalk", 0), 2);
	cfg_free(cfg);
	netsock = kept;
	// What set-up leaves before any event: links up, ring ports blocked,
	// frame templates and the status tree.
	zalkv2_instance &in = instances[ins];
	for (auto &port : in.port) {
		port.operstate = ZALK_OPER_UP;
		port.state = PORT_BLOCKING;
	}
	zalkv2_build_frames(ins);
	zalk_status_setup(ins);
	return in;
}

void Unit::quiesce()
{
	for (auto &in : instances) {
		ev_timer_stop(loop, &in.ring_timer);
		for (auto &p : in.port) {
			ev_io_stop(loop, &p.rx_watcher);
			ev_timer_stop(loop, &p.hello_timer);
		}
	}
	ev_timer_stop(loop, &response_timer);
	ev_timer_stop(loop, &member_timer);
	ev_io_stop(loop, &sm_watcher);
	zalkv2_link_monitor_stop();
	posted();
}

void Unit::reset_ring_logic()
{
	memset(miss_count, 0, sizeof(miss_count));
	memset(hit_count, 0, sizeof(hit_count));
	memset(response_ticks, 0, sizeof(response_ticks));
	focal_timers_init();
	member_timer_init();
	zalkv2_hello_timers_init();
}

void Unit::SetUp()
{
	quiesce();
	fake::reset();
	memset(instances, 0, sizeof(instances));
	for (auto &in : instances)
		in.port[0].ifindex = in.port[1].ifindex = -1;
	reset_ring_logic();
	msg_bus_setup();
	tc_list_create();
	netsock = 0;
	bridge_rth = {};
	send_sock = 7;
	seq.clear();
	posted();
}

int Unit::dispatch()
{
	int n = 0;
	while (readable()) {
		sm_cb(loop, &sm_watcher, EV_READ);
		n++;
	}
	return n;
}

} // namespace fx
