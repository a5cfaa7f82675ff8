// The simulated network: topology, the daemons' scheduling in virtual
// time, the bridges, faults, and the checks made after every event.
#include "zsim/sim.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <functional>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <numeric>
#include <sstream>
#include <sys/ioctl.h>
#include <unistd.h>

#include "daemon/daemon.h"
#include "daemon/instance.h"
#include "ring/channel.h"
#include "ring/dispatch.h"
#include "zsim/image.h"

namespace zsim {

World *world;

namespace {
enum Type { T_TIMER, T_RX, T_WAKE, T_ARRIVE, T_BRIDGE, T_CARRIER, T_FAULT, T_START, T_SIGNAL, T_SAMPLE, T_CONVERGE, T_END };
struct ev_loop *const LOOP = ev_default_loop(0);
constexpr Time SAMPLE = 100 * US; // the lab's probe: 10,000 frames/s
constexpr uint8_t FWD = PORT_FORWARDING;

std::string secs(Time t)
{
	char b[32];
	snprintf(b, sizeof(b), "%.6f", (double)t / SEC);
	return b;
}
} // namespace

const char *kind_name(Kind k)
{
	return k == Kind::loop ? "loop" : k == Kind::duplicate ? "duplicate" : "no-convergence";
}

bool Settings::set(const std::string &key, const std::string &value)
{
	char *end = nullptr;
	long v = strtol(value.c_str(), &end, 10);
	if (value.empty() || *end || v < 0)
		return false;
	std::pair<const char *, long *> keys[] = {
		{"ring-interval", &ring_interval}, {"hello-time", &hello_time},       {"hello-enable", &hello_enable},
		{"response-delay", &response_delay}, {"forward-delay", &forward_delay}, {"guarded-recovery", &guarded_recovery},
		{"event-cost", &event_cost},       {"send-latency", &send_latency},   {"rx-cost", &rx_cost},
		{"link-delay", &link_delay},       {"carrier-delay", &carrier_delay}, {"restart-gap", &restart_gap},
	};
	for (auto &[k, p] : keys)
		if (key == k) {
			*p = v;
			return true;
		}
	return false;
}

std::string Settings::conf_keys()
{
	char b[256];
	snprintf(b, sizeof(b),
		 "ring-interval=%ld hello-time=%ld hello-enable=%ld response-delay=%ld forward-delay=%ld "
		 "guarded-recovery=%ld",
		 ring_interval, hello_time, hello_enable, response_delay, forward_delay, guarded_recovery);
	return b;
}

std::string Action::text() const
{
	std::string s = secs(t) + " " + op;
	if (op == "end")
		return s;
	char b[64];
	if (op == "restart" || op == "reload")
		snprintf(b, sizeof(b), " S%d", target + 1);
	else
		snprintf(b, sizeof(b), " %s", world ? world->links[target].name.c_str() : "L?");
	s += b;
	if (op == "lose") {
		snprintf(b, sizeof(b), " %g %g", fraction, (double)duration / SEC);
		s += b;
	}
	for (auto &[k, v] : sets)
		s += " " + k + "=" + v;
	return s;
}

World::World(const std::string &topo, const Settings &s, uint64_t seed) : cfg(s), topology(topo), rng(seed)
{
	world = this;
	tracing = getenv("ZSIM_TRACE") != nullptr;
	build(topo);
	if (sw.empty())
		return;
	char tmpl[] = "/dev/shm/zsim-XXXXXX";
	char tmpl2[] = "/tmp/zsim-XXXXXX";
	char *d = mkdtemp(tmpl);
	dir = d ? d : mkdtemp(tmpl2);
	// Slots beyond the rings a switch runs stay unused outside
	// reconfigurations: they need no copy at every swap.
	static bool cold_set;
	if (!cold_set) {
		size_t most = 1;
		for (auto &x : sw)
			most = std::max(most, x.rings.size());
		image_add_cold(&instances[most], sizeof(instances[0]) * (ZALK_MAX_INSTANCES - most));
		cold_set = true;
	}
	checking = getenv("ZSIM_CHECK") != nullptr;
	// The globals as the process starts, taken before any daemon ran.
	static std::vector<uint8_t> initial;
	if (initial.empty()) {
		image_save(initial);
		image_save_cold(initial);
	}
	pristine = initial;
	fdb.assign(sw.size(), std::vector<int>(sw.size(), -1));
	for (size_t i = 0; i < sw.size(); i++) {
		Switch &x = sw[i];
		x.root = dir + "/s" + std::to_string(x.id);
		for (const char *p : {"/etc", "/var/run/system/0", "/tmp"})
			std::filesystem::create_directories(x.root + p);
		char mac[32];
		snprintf(mac, sizeof(mac), "02:5a:%02x:%02x:00:00\n", (int)(i >> 8) & 0xff, (int)i & 0xff);
		std::ofstream(x.root + "/var/run/system/0/mac-base") << mac;
		fdb[i][i] = -2;
		write_conf((int)i);
		waiting.emplace_back();
		wake_pending.push_back(0);
	}
}

World::~World()
{
	for (size_t i = 0; i < sw.size(); i++)
		for (int fd : sw[i].real_fds)
			if (fd >= (1 << 24))
				channel_close(fd);
			else
				close(fd);
	std::error_code ec;
	if (!dir.empty())
		std::filesystem::remove_all(dir, ec);
	world = nullptr;
}

// ring:N, bus:N, tworings:N,M; link and port names as in the lab.
void World::build(const std::string &topo)
{
	int n = 0, m = 0;
	std::string kind = topo.substr(0, topo.find(':'));
	if (topo.find(':') == std::string::npos)
		return;
	std::string rest = topo.substr(topo.find(':') + 1);
	if (sscanf(rest.c_str(), "%d,%d", &n, &m) < 1)
		return;
	bool two = kind == "tworings";
	if ((kind != "ring" && kind != "bus" && !two) || n < 2 || n > 1000 || (two && (m < 2 || m > 1000)) ||
	    (!two && rest.find(',') != std::string::npos))
		return;
	int total = two ? n + m - 1 : n;
	sw.resize(total);
	for (int i = 0; i < total; i++)
		sw[i].id = i + 1;
	auto add_port = [&](int s, const std::string &name, int ring) {
		Switch &x = sw[s];
		int ifindex = 11 + (int)x.ifaces.size();
		ports.push_back(Port{s, ifindex, -1, ring});
		x.ifaces.push_back(Iface{name, ifindex, (int)ports.size() - 1});
		return (int)ports.size() - 1;
	};
	auto make_ring = [&](int r, int first, int count, bool bus) {
		Ring ring{r + 1, {}, {}, bus};
		std::string pa = "zl" + std::to_string(r + 1) + "a", pb = "zl" + std::to_string(r + 1) + "b";
		std::vector<int> a(count), b(count);
		for (int i = 0; i < count; i++) {
			int s = first + i;
			ring.sw.push_back(s);
			sw[s].rings.push_back(r);
			if (bus && i == 0) {
				a[i] = -1;
				b[i] = add_port(s, pb, r);
			} else if (bus && i == count - 1) {
				a[i] = add_port(s, pa, r);
				b[i] = -1;
			} else {
				a[i] = add_port(s, pa, r);
				b[i] = add_port(s, pb, r);
			}
		}
		for (int i = 0; i < (bus ? count - 1 : count); i++) {
			std::string name = (r == 0 ? "L" : "R" + std::to_string(r + 1) + "L") + std::to_string(i + 1);
			links.push_back(Link{name, b[i], a[(i + 1) % count]});
			ports[b[i]].link = ports[a[(i + 1) % count]].link = (int)links.size() - 1;
			ring.links.push_back((int)links.size() - 1);
		}
		rings.push_back(ring);
	};
	make_ring(0, 0, n, kind == "bus");
	if (two)
		make_ring(1, n - 1, m, false); // ring 2 starts at the last switch of ring 1
}

// The switch's /etc/zalkv2d.conf from the settings and its own overrides.
void World::write_conf(int s)
{
	Switch &x = sw[s];
	Settings c = cfg;
	for (auto &[k, v] : x.overrides)
		c.set(k, v);
	std::ostringstream o;
	for (int r : x.rings) {
		const Ring &ring = rings[r];
		bool focal = ring.sw[ring.bus ? 0 : (r == 0 ? 0 : 1)] == s;
		o << "zalk ring" << ring.id << " {\n\tring-id = " << ring.id << "\n\tring-role = \""
		  << (focal ? "focal-point" : "member") << "\"\n";
		if (focal)
			o << "\tguarded-recovery = " << c.guarded_recovery << "\n\tring-interval = " << c.ring_interval
			  << "\n\tresponse-delay = " << c.response_delay << "\n\tblocked-port = \"auto\"\n";
		for (auto &i : x.ifaces) {
			if (ports[i.port].ring != r)
				continue;
			o << "\tport " << i.name << " {\n\t\tname = \"" << i.name << "\"\n\t\thello-enable = " << c.hello_enable
			  << "\n\t\thello-time = " << c.hello_time << "\n\t\tforward-delay = " << c.forward_delay << "\n\t}\n";
		}
		o << "}\n";
	}
	std::filesystem::create_directories(x.root + "/etc");
	std::ofstream(x.root + "/etc/zalkv2d.conf", std::ios::trunc) << o.str();
}

int World::port_of(int s, int ifindex) const
{
	for (auto &i : sw[s].ifaces)
		if (i.ifindex == ifindex)
			return i.port;
	return -1;
}

void World::swap_to(int s)
{
	if (cur == s)
		return;
	if (cur >= 0)
		image_save(sw[cur].image);
	cur = s;
	image_load(sw[s].image);
}

void World::push(Item it)
{
	it.seq = seq++;
	heap.push_back(std::move(it));
	std::push_heap(heap.begin(), heap.end(), std::greater<Item>());
}

void World::timer_started(ev_timer *w, Time due) { push(Item{due, 0, T_TIMER, cur, 0, (uint64_t)w->pending, w, {}}); }

// A daemon starts as the process does: a fresh image, init_all.
void World::start_daemon(int s)
{
	Switch &x = sw[s];
	x.image = pristine;
	x.fds.clear();
	x.ios.clear();
	x.idles.clear();
	x.sigs.clear();
	x.next_fd = 1000;
	if (cur == s)
		cur = -1; // the image in place is stale
	swap_to(s);
	x.alive = true;
	x.busy_until = std::max(x.busy_until, now);
	out_at = now + cfg.send_latency * US;
	image_load_cold(x.image);
	init_all();
	image_save_cold(x.image);
	cold_owner = s;
	x.busy_until = now + cfg.event_cost * US;
	after_callback(s);
}

// Shutdown (SIGTERM, with the ring torn down as on a restart), then the
// process is gone: its descriptors close, its timers never fire.
void World::stop_daemon(int s)
{
	Switch &x = sw[s];
	if (!x.alive)
		return;
	swap_to(s);
	out_at = now + cfg.send_latency * US;
	auto t = x.sigs.find(SIGTERM);
	image_load_cold(x.image);
	if (t != x.sigs.end())
		t->second->cb(LOOP, t->second, EV_SIGNAL);
	x.alive = false;
	cold_owner = -1;
	waiting[s].clear();
	for (int fd : x.real_fds)
		if (channel_bytes(fd) || fd >= (1 << 24))
			channel_close(fd);
		else
			close(fd);
	x.real_fds.clear();
	// Status files it kept open.
	if (DIR *d = opendir("/proc/self/fd")) {
		std::vector<int> mine;
		while (dirent *e = readdir(d)) {
			char link[512];
			std::string path = std::string("/proc/self/fd/") + e->d_name;
			ssize_t n = readlink(path.c_str(), link, sizeof(link) - 1);
			if (n > 0 && std::string(link, (size_t)n).rfind(x.root + "/", 0) == 0)
				mine.push_back(atoi(e->d_name));
		}
		closedir(d);
		for (int fd : mine)
			close(fd);
	}
	x.fds.clear();
	x.ios.clear();
	x.idles.clear();
	x.sigs.clear();
}

// What libev would do once a callback returned: the event channel's
// records one by one (each costs an event's handling), idle watchers,
// and read watchers with something to read.
void World::after_callback(int s)
{
	Switch &x = sw[s];
	for (;;) {
		if (sm_watcher.active && channel_bytes(sm_watcher.fd) >= sizeof(sm_event)) {
			now = x.busy_until;
			out_at = now + cfg.send_latency * US;
			sm_cb(LOOP, &sm_watcher, EV_READ);
			res.events++;
			x.busy_until = now + cfg.event_cost * US;
			continue;
		}
		bool ran = false;
		for (ev_idle *w : x.idles)
			if (w->active) {
				w->cb(LOOP, w, EV_IDLE);
				ran = true;
			}
		if (!ran)
			break;
	}
	for (ev_io *w : x.ios) {
		if (!w->active)
			continue;
		auto f = x.fds.find(w->fd);
		if (f == x.fds.end() || !f->second.stranded)
			continue;
		f->second.stranded = false;
		for (size_t k = 0; k < f->second.q.size(); k++)
			push(Item{x.busy_until, 0, T_RX, s, w->fd, 0, nullptr, {}});
	}
}

void World::transmit(int port, const uint8_t *frame, size_t len, Time t)
{
	int l = ports[port].link;
	if (l < 0 || !links[l].passes() || !ports[port].carrier)
		return;
	Link &k = links[l];
	if (k.loss > 0 && t < k.loss_until && std::uniform_real_distribution<double>(0, 1)(rng) < k.loss)
		return;
	int peer = k.a == port ? k.b : k.a;
	push(Item{t + cfg.link_delay * US, 0, T_ARRIVE, ports[peer].sw, peer, 0, nullptr,
		  std::vector<uint8_t>(frame, frame + len)});
}

// A protocol frame arrives at a port: the daemon's packet socket on that
// port gets it (tag stripped, as the kernel delivers it), and the bridge
// forwards it by the VLAN's port states and its multicast database.
void World::deliver(int port, std::vector<uint8_t> frame, Time t)
{
	const Port &in = ports[port];
	Switch &x = sw[in.sw];
	if (!in.carrier || frame.size() < 18 || frame[12] != 0x81 || frame[13] != 0)
		return;
	int vid = ((frame[14] & 0x0f) << 8) | frame[15];
	if (x.alive && frame[0] == 0x03 && frame[1] == 0x4B && frame[2] == 0xA1) {
		for (auto &[fd, f] : x.fds)
			if (f.kind == 1 && f.bound == in.ifindex) {
				std::vector<uint8_t> rx(frame.begin(), frame.begin() + 12);
				rx.insert(rx.end(), frame.begin() + 16, frame.end());
				f.q.push_back(std::move(rx));
				f.vlans.push_back(vid);
				push(Item{t, 0, T_RX, in.sw, fd, 0, nullptr, {}});
			}
	}
	auto passes = [&](const Port &p) {
		if (vid == ZALK_MGNT_VLAN)
			return p.v4021 && p.mst == FWD && p.carrier;
		if (vid == ZALK_RING_VLAN)
			return p.v4022 && p.state == FWD && p.carrier;
		return false;
	};
	if (!passes(in))
		return;
	// A group in the multicast database goes only to its ports.
	std::string key(frame.begin(), frame.begin() + 6);
	key += std::to_string(vid);
	auto &groups = mdb[in.sw];
	auto m = groups.find(key);
	for (auto &i : x.ifaces) {
		if (i.port == port || !passes(ports[i.port]))
			continue;
		if (m != groups.end() && std::find(m->second.begin(), m->second.end(), i.ifindex) == m->second.end())
			continue;
		transmit(i.port, frame.data(), frame.size(), t);
	}
}

// A bridge request: refused as the kernel refuses it, else applied when
// the running record's requests reach the kernel.
int World::bridge_request(const nlmsghdr *n)
{
	if (n->nlmsg_type == RTM_SETLINK) {
		auto *ifi = (const ifinfomsg *)NLMSG_DATA(n);
		int p = port_of(cur, ifi->ifi_index);
		int len = (int)n->nlmsg_len - NLMSG_LENGTH(sizeof(ifinfomsg));
		for (auto *a = (const rtattr *)((const char *)ifi + NLMSG_ALIGN(sizeof(ifinfomsg))); RTA_OK(a, len);
		     a = RTA_NEXT(a, len)) {
			if ((a->rta_type & NLA_TYPE_MASK) != IFLA_PROTINFO || p < 0)
				continue;
			int l2 = (int)RTA_PAYLOAD(a);
			for (auto *b = (const rtattr *)RTA_DATA(a); RTA_OK(b, l2); b = RTA_NEXT(b, l2))
				if ((b->rta_type & NLA_TYPE_MASK) == IFLA_BRPORT_STATE && !ports[p].carrier &&
				    *(const uint8_t *)RTA_DATA(b) != PORT_DISABLED)
					return ENETDOWN;
		}
	}
	const uint8_t *b = (const uint8_t *)n;
	push(Item{out_at, 0, T_BRIDGE, cur, 0, 0, nullptr, std::vector<uint8_t>(b, b + n->nlmsg_len)});
	return 0;
}

void World::apply_bridge(const Item &it)
{
	auto *n = (const nlmsghdr *)it.bytes.data();
	int s = it.s;
	if (n->nlmsg_type == RTM_SETLINK || n->nlmsg_type == RTM_DELLINK) {
		auto *ifi = (const ifinfomsg *)NLMSG_DATA(n);
		int p = port_of(s, ifi->ifi_index);
		if (p < 0)
			return; // br0 itself: its own VLANs play no part here
		Port &port = ports[p];
		int len = (int)n->nlmsg_len - NLMSG_LENGTH(sizeof(ifinfomsg));
		for (auto *a = (const rtattr *)((const char *)ifi + NLMSG_ALIGN(sizeof(ifinfomsg))); RTA_OK(a, len);
		     a = RTA_NEXT(a, len)) {
			int l2 = (int)RTA_PAYLOAD(a);
			int type = a->rta_type & NLA_TYPE_MASK;
			for (auto *b = (const rtattr *)RTA_DATA(a); RTA_OK(b, l2); b = RTA_NEXT(b, l2)) {
				int bt = b->rta_type & NLA_TYPE_MASK;
				if (type == IFLA_PROTINFO && bt == IFLA_BRPORT_STATE) {
					if (port.carrier && port.state != *(const uint8_t *)RTA_DATA(b)) {
						port.state = *(const uint8_t *)RTA_DATA(b);
						trace("s%d %s state %d", s + 1, sw[s].ifaces[port.ifindex - 11].name.c_str(), port.state);
						changed();
					}
				} else if (type == IFLA_PROTINFO && bt == IFLA_BRPORT_FLUSH) {
					for (int &e : fdb[s])
						if (e == p)
							e = -1;
					changed();
				} else if (type == IFLA_AF_SPEC && bt == IFLA_BRIDGE_VLAN_INFO) {
					int vid = ((const bridge_vlan_info *)RTA_DATA(b))->vid;
					bool add = n->nlmsg_type == RTM_SETLINK;
					(vid == ZALK_MGNT_VLAN ? port.v4021 : port.v4022) = add;
				} else if (type == IFLA_AF_SPEC && bt == IFLA_BRIDGE_MST) {
					int l3 = (int)RTA_PAYLOAD(b);
					for (auto *e = (const rtattr *)RTA_DATA(b); RTA_OK(e, l3); e = RTA_NEXT(e, l3)) {
						int l4 = (int)RTA_PAYLOAD(e);
						int msti = -1, st = -1;
						for (auto *c = (const rtattr *)RTA_DATA(e); RTA_OK(c, l4); c = RTA_NEXT(c, l4)) {
							if ((c->rta_type & NLA_TYPE_MASK) == IFLA_BRIDGE_MST_ENTRY_MSTI)
								msti = *(const uint16_t *)RTA_DATA(c);
							else if ((c->rta_type & NLA_TYPE_MASK) == IFLA_BRIDGE_MST_ENTRY_STATE)
								st = *(const uint8_t *)RTA_DATA(c);
						}
						if (msti == ZALK_MGNT_VLAN && st >= 0)
							port.mst = (uint8_t)st;
					}
				}
			}
		}
	} else if (n->nlmsg_type == RTM_NEWMDB || n->nlmsg_type == RTM_DELMDB) {
		auto *bpm = (const br_port_msg *)NLMSG_DATA(n);
		auto *e = (const br_mdb_entry *)RTA_DATA((const char *)bpm + NLMSG_ALIGN(sizeof(br_port_msg)));
		std::string key((const char *)e->addr.u.mac_addr, 6);
		key += std::to_string(e->vid);
		auto &v = mdb[s][key];
		auto i = std::find(v.begin(), v.end(), (int)e->ifindex);
		if (n->nlmsg_type == RTM_NEWMDB && i == v.end())
			v.push_back((int)e->ifindex);
		else if (n->nlmsg_type == RTM_DELMDB && i != v.end())
			v.erase(i);
		if (v.empty())
			mdb[s].erase(key);
	}
}

// The kernel sees a carrier change: the bridge disables the port (and
// forgets what it learned there) or puts it back to blocking, and the
// link monitor hears of it.
void World::carrier(int l, bool up, Time t)
{
	for (int p : {links[l].a, links[l].b}) {
		Port &port = ports[p];
		if (port.carrier == up)
			continue;
		port.carrier = up;
		trace("s%d port %d carrier %d", port.sw + 1, port.ifindex, up);
		port.state = up ? PORT_BLOCKING : PORT_DISABLED;
		if (!up)
			for (int &e : fdb[port.sw])
				if (e == p)
					e = -1;
		changed();
		Switch &x = sw[port.sw];
		if (!x.alive)
			continue;
		for (auto &[fd, f] : x.fds) {
			if (f.kind != 3)
				continue;
			std::vector<uint8_t> msg(NLMSG_SPACE(sizeof(ifinfomsg)) + RTA_SPACE(IFNAMSIZ) + RTA_SPACE(1));
			auto *h = (nlmsghdr *)msg.data();
			h->nlmsg_len = (uint32_t)msg.size();
			h->nlmsg_type = RTM_NEWLINK;
			auto *ifi = (ifinfomsg *)NLMSG_DATA(h);
			ifi->ifi_family = AF_UNSPEC;
			ifi->ifi_index = port.ifindex;
			auto *a = (rtattr *)((char *)ifi + NLMSG_ALIGN(sizeof(ifinfomsg)));
			a->rta_type = IFLA_IFNAME;
			a->rta_len = RTA_LENGTH(IFNAMSIZ);
			for (auto &i : x.ifaces)
				if (i.port == p)
					snprintf((char *)RTA_DATA(a), IFNAMSIZ, "%s", i.name.c_str());
			a = (rtattr *)((char *)a + RTA_SPACE(IFNAMSIZ));
			a->rta_type = IFLA_OPERSTATE;
			a->rta_len = RTA_LENGTH(1);
			*(uint8_t *)RTA_DATA(a) = up ? ZALK_OPER_UP : ZALK_OPER_DOWN;
			f.q.push_back(std::move(msg));
			push(Item{t, 0, T_RX, port.sw, fd, 0, nullptr, {}});
		}
	}
}

void World::trace(const char *fmt, ...)
{
	if (!tracing)
		return;
	va_list ap;
	va_start(ap, fmt);
	printf("%s ", secs(now).c_str());
	vprintf(fmt, ap);
	printf("\n");
	va_end(ap);
}

void World::changed()
{
	check_loop();
	if (!sample_pending) {
		sample_pending = true;
		push(Item{(now / SAMPLE + 1) * SAMPLE, 0, T_SAMPLE, -1, 0, 0, nullptr, {}});
	}
}

// A data-VLAN link: both ends forwarding, carrier on both, frames pass.
static bool usable(const World &w, int p)
{
	const Port &a = w.ports[p];
	if (a.link < 0 || !w.links[a.link].passes())
		return false;
	const Link &l = w.links[a.link];
	const Port &b = w.ports[l.a == p ? l.b : l.a];
	return a.carrier && b.carrier && a.state == FWD && b.state == FWD;
}

void World::check_loop()
{
	std::vector<int> up(sw.size());
	std::iota(up.begin(), up.end(), 0);
	auto find = [&](int v) {
		while (up[v] != v)
			v = up[v] = up[up[v]];
		return v;
	};
	std::string cycle;
	bool loop = false;
	for (size_t l = 0; l < links.size(); l++) {
		if (!usable(*this, links[l].a))
			continue;
		int a = find(ports[links[l].a].sw), b = find(ports[links[l].b].sw);
		if (a == b)
			loop = true;
		else
			up[a] = b;
	}
	if (loop && !looping) {
		for (size_t l = 0; l < links.size(); l++)
			if (usable(*this, links[l].a))
				cycle += (cycle.empty() ? "" : ",") + links[l].name;
		violation(Kind::loop, "links forwarding the data VLAN at both ends close a cycle: " + cycle);
	}
	looping = loop;
}

// The hosts' traffic at this instant: every host sends to every other;
// bridges forward by what they learned (flooding what they do not know)
// and learn the sender where its frames arrive. Returns whether every
// host reaches every other.
bool World::sample(bool learn)
{
	size_t n = sw.size();
	std::vector<char> reach(n * n, 0);
	std::vector<int> memo_port(ports.size()), memo_local(n);
	bool all = true, dup = false;
	for (size_t d = 0; d < n; d++) {
		std::fill(memo_port.begin(), memo_port.end(), -3);
		std::fill(memo_local.begin(), memo_local.end(), -3);
		// Where the frame for host d, at switch s having come in at q
		// (-1: from s's own host), arrives at d: the port, -2 its own
		// host, -1 nowhere.
		std::vector<std::pair<int, int>> stack;
		auto &fd = fdb;
		std::function<int(int, int)> walk = [&](int s, int q) -> int {
			int &m = q < 0 ? memo_local[s] : memo_port[q];
			if (m != -3)
				return m == -4 ? -1 : m;
			if ((size_t)s == d)
				return m = (q < 0 ? -2 : q);
			m = -4; // in progress: a second visit is a loop
			int e = fd[s][d], r = -1, copies = 0;
			auto via = [&](int p) {
				const Link &l = links[ports[p].link];
				int peer = l.a == p ? l.b : l.a;
				return walk(ports[peer].sw, peer);
			};
			if (e >= 0) {
				if (e != q && usable(*this, e))
					r = via(e);
			} else {
				for (auto &i : sw[s].ifaces)
					if (i.port != q && usable(*this, i.port)) {
						int x = via(i.port);
						if (x != -1) {
							copies++;
							r = x;
						}
					}
			}
			if (copies > 1)
				dup = true;
			return m = r;
		};
		for (size_t a = 0; a < n; a++) {
			if (a == d)
				continue;
			int at = walk((int)a, -1);
			reach[a * n + d] = at != -1;
			if (at == -1)
				all = false;
			else if (learn && at >= 0)
				fdb[d][a] = at;
		}
	}
	if (dup && !looping)
		violation(Kind::duplicate, "a host's frame reaches another host by two paths");
	// Measurements.
	Time t = now;
	if (failover_from >= 0 && all) {
		// No sample saw a break: the fault cost no connectivity.
		res.failover_ms.push_back(failover_broke ? (double)(t - failover_from) / MS : 0.0);
		failover_from = -1;
	} else if (failover_from >= 0) {
		failover_broke = true;
	}
	if (restore_from >= 0)
		for (size_t i = 0; i < n * n; i++) {
			if (broken_since[i] == -2)
				continue; // not reachable when the link was healed
			if (!reach[i] && broken_since[i] < 0)
				broken_since[i] = t;
			else if (reach[i] && broken_since[i] >= 0) {
				restore_max = std::max(restore_max, t - broken_since[i]);
				broken_since[i] = -1;
			}
		}
	if (tracing) {
		int broken = 0;
		for (size_t i = 0; i < n * n; i++)
			broken += i / n != i % n && !reach[i];
		trace("sample: %d pairs unreachable", broken);
	}
	last_reach = std::move(reach);
	all_reach = all;
	return all;
}

void World::end_restore()
{
	if (restore_from < 0)
		return;
	for (Time b : broken_since)
		if (b >= 0)
			restore_max = std::max(restore_max, now - b);
	res.restore_ms.push_back((double)restore_max / MS);
	restore_from = -1;
}

void World::violation(Kind k, const std::string &detail)
{
	res.violations.push_back(Violation{now, k, detail});
	if (!quiet)
		printf("violation at %s s: %s: %s\n", secs(now).c_str(), kind_name(k), detail.c_str());
}

// The bound after the last fault within which the ring must have closed:
// the longest chain of waits the protocol has, each at its settings'
// largest value on any switch, plus the work of every switch on the way.
Time World::bound() const
{
	Settings c = cfg;
	auto widest = [&](const char *key, long v) {
		for (auto &x : sw) {
			auto i = x.overrides.find(key);
			if (i != x.overrides.end())
				v = std::max(v, strtol(i->second.c_str(), nullptr, 10));
		}
		return v;
	};
	long ri = widest("ring-interval", c.ring_interval), ht = widest("hello-time", c.hello_time);
	long rd = widest("response-delay", c.response_delay);
	Time b = c.restart_gap * US + 1 * SEC                // a restarted focal point's first ring check
		 + c.carrier_delay * US + 5 * ht * MS         // carrier, then hello qualification (3 misses + 2)
		 + 5 * ri * MS                               // the ring timeout (4 intervals) and one to close
		 + rd * MS + 400 * MS                        // response delay, two Link Up ticks
		 + (Time)(4 * sw.size()) * (c.event_cost + c.link_delay) * US // every switch's share, around twice
		 + 1 * SEC;                                  // margin
	return b;
}

// One round of closing: the focal point answers the two latest returning
// edges after its response delay; the members' Link Up tick is 200 ms.
Time World::round() const
{
	long rd = cfg.response_delay;
	for (auto &x : sw) {
		auto i = x.overrides.find("response-delay");
		if (i != x.overrides.end())
			rd = std::max(rd, strtol(i->second.c_str(), nullptr, 10));
	}
	return rd * MS + 400 * MS + (Time)(2 * sw.size()) * (cfg.event_cost + cfg.link_delay) * US;
}

// Whether each ring is closed with its one blocked port (a bus with none)
// and every host reaches every other; false with the reason and the count
// of ports still blocked when not.
bool World::closed(std::string &why, int &blocked_total)
{
	blocked_total = 0;
	for (size_t r = 0; r < rings.size(); r++) {
		const Ring &ring = rings[r];
		int focal = ring.sw[ring.bus || r == 0 ? 0 : 1];
		std::vector<std::string> blocked;
		bool at_focal = false;
		for (int l : ring.links)
			for (int p : {links[l].a, links[l].b})
				if (ports[p].state != FWD) {
					const std::string &name = sw[ports[p].sw].ifaces[ports[p].ifindex - 11].name;
					blocked.push_back("s" + std::to_string(ports[p].sw + 1) + "." + name);
					// blocked-port "auto": the focal point's port A
					at_focal |= ports[p].sw == focal && name.back() == (ring.bus ? 'b' : 'a');
				}
		blocked_total += (int)blocked.size();
		if (blocked.size() != 1 || !at_focal) {
			why += (why.empty() ? "" : "; ") + std::string("ring ") + std::to_string(ring.id) + ": " +
			       std::to_string(blocked.size()) + " blocked ports";
			for (auto &b : blocked)
				why += " " + b;
			if (blocked.size() == 1)
				why += ", not the focal point's";
		}
	}
	bool bus = std::any_of(rings.begin(), rings.end(), [](const Ring &r) { return r.bus; });
	if (!sample(false) && !bus)
		why += std::string(why.empty() ? "" : "; ") + "not every host reaches every other";
	return why.empty();
}

// Once faults stopped and every link is up, the ring must close within
// the bound; while it is still closing edge after edge (fewer ports
// blocked than at the last look) it gets another round.
bool World::converged_check(uint64_t gen)
{
	for (auto &l : links)
		if (!l.passes() || (l.loss > 0 && l.loss_until > now))
			return false; // faults remain: nothing to require
	for (auto &x : sw)
		if (!x.alive)
			return false;
	std::string why;
	int blocked;
	if (closed(why, blocked))
		return false;
	if (blocked < last_blocked || (blocked == last_blocked && ++stalls < 2)) {
		if (blocked < last_blocked)
			stalls = 0;
		last_blocked = blocked;
		push(Item{now + round(), 0, T_CONVERGE, -1, 0, gen, nullptr, {}});
		return true;
	}
	violation(Kind::no_convergence, why + ", " + secs(now - last_fault) + " s after the last fault");
	return false;
}

void World::fault(const Action &a)
{
	last_fault = now;
	last_blocked = 1 << 30;
	stalls = 0;
	trace("fault: %s", a.text().c_str());
	// A measurement covers one fault: the next one ends it.
	bool was_whole = all_reach && failover_from < 0;
	failover_from = -1;
	end_restore();
	push(Item{now + bound(), 0, T_CONVERGE, -1, 0, (uint64_t)++faults, nullptr, {}});
	if (a.op == "restart" || a.op == "reload") {
		if (a.op == "restart") {
			stop_daemon(a.target);
			push(Item{now + cfg.restart_gap * US, 0, T_START, a.target, 0, 0, nullptr, {}});
		} else {
			for (auto &[k, v] : a.sets)
				sw[a.target].overrides[k] = v;
			write_conf(a.target);
			push(Item{now, 0, T_SIGNAL, a.target, SIGHUP, 0, nullptr, {}});
		}
		return;
	}
	Link &l = links[a.target];
	if (a.op == "cut" || a.op == "silent-cut" || a.op == "flap") {
		if (a.op == "silent-cut") {
			l.silent = true;
		} else {
			bool was = l.down;
			l.down = true;
			if (!was)
				push(Item{now + cfg.carrier_delay * US, 0, T_CARRIER, -1, a.target, 0, nullptr, {}});
		}
		changed();
		if (was_whole && a.op != "flap") {
			failover_from = now;
			failover_broke = false;
		}
		if (a.op == "flap") {
			Action h{now + a.duration, "heal", a.target};
			extra.push_back(h);
			push(Item{h.t, 0, T_FAULT, -1, (int)extra.size() - 1 + 1000000, 0, nullptr, {}});
		}
	} else if (a.op == "heal") {
		bool was_down = l.down;
		l.down = l.silent = false;
		l.loss = 0;
		if (was_down)
			push(Item{now + cfg.carrier_delay * US, 0, T_CARRIER, -1, a.target, 1, nullptr, {}});
		// Breaks after the heal count against it, for the pairs that
		// were reachable when it came.
		restore_from = now;
		restore_max = 0;
		broken_since.assign(sw.size() * sw.size(), -1);
		for (size_t i = 0; i < broken_since.size(); i++)
			if (i / sw.size() == i % sw.size() || (i < last_reach.size() && !last_reach[i]))
				broken_since[i] = -2;
		changed();
	} else if (a.op == "lose") {
		l.loss = a.fraction;
		l.loss_until = now + a.duration;
	}
}

// A daemon's callback, at it.t; false when it had nothing to do (a timer
// stopped since, a descriptor already read).
bool World::work(const Item &it)
{
	Switch &x = sw[it.s];
	swap_to(it.s);
	if (it.type == T_TIMER) {
		auto *w = (ev_timer *)it.w;
		if (!w->active || (uint64_t)w->pending != it.gen)
			return false;
	}
	if (it.type == T_RX) {
		auto f = x.fds.find(it.a);
		if (f == x.fds.end() || f->second.q.empty())
			return false;
	}
	now = it.t;
	out_at = now + cfg.rx_cost * US;
	x.busy_until = now + cfg.rx_cost * US;
	if (it.type == T_TIMER) {
		auto *w = (ev_timer *)it.w;
		if (w->repeat > 0) {
			Time due = std::max((Time)llround(w->at * 1e9) + (Time)llround(w->repeat * 1e9), now);
			w->at = (double)due / 1e9;
			push(Item{due, 0, T_TIMER, it.s, 0, (uint64_t)w->pending, w, {}});
		} else {
			w->active = 0;
			w->at -= (double)now / 1e9; // stopped: relative again
		}
		w->cb(LOOP, w, EV_TIMER);
	} else if (it.type == T_RX) {
		ev_io *w = nullptr;
		for (ev_io *i : x.ios)
			if (i->active && i->fd == it.a)
				w = i;
		if (!w) {
			x.fds[it.a].stranded = true; // read once the watcher runs again
			return false;
		}
		w->cb(LOOP, w, EV_READ);
	} else {
		out_at = now + cfg.send_latency * US;
		x.busy_until = now + cfg.event_cost * US;
		auto s = x.sigs.find(it.a);
		image_load_cold(x.image);
		if (s != x.sigs.end())
			s->second->cb(LOOP, s->second, EV_SIGNAL);
		image_save_cold(x.image);
		cold_owner = it.s;
	}
	res.events++;
	after_callback(it.s);
	if (checking && it.type != T_SIGNAL && cold_owner >= 0 && !image_cold_same(sw[cold_owner].image)) {
		fprintf(stderr, "zsim: cold part of the globals changed by s%d outside a reconfiguration\n", x.id);
		abort();
	}
	return true;
}

void World::dispatch(const Item &it)
{
	switch (it.type) {
	case T_TIMER:
	case T_RX:
	case T_SIGNAL: {
		// One processor per switch: work that comes while it is busy
		// waits its turn, in order.
		if (!sw[it.s].alive)
			return;
		auto &q = waiting[it.s];
		if (it.t < sw[it.s].busy_until || !q.empty()) {
			q.push_back(it);
			if (!wake_pending[it.s]) {
				wake_pending[it.s] = 1;
				push(Item{std::max(it.t, sw[it.s].busy_until), 0, T_WAKE, it.s, 0, 0, nullptr, {}});
			}
			return;
		}
		work(it);
		return;
	}
	case T_WAKE: {
		wake_pending[it.s] = 0;
		auto &q = waiting[it.s];
		while (!q.empty() && sw[it.s].alive) {
			Item w = std::move(q.front());
			q.pop_front();
			w.t = it.t;
			if (work(w))
				break;
		}
		if (!sw[it.s].alive)
			q.clear();
		if (!q.empty()) {
			wake_pending[it.s] = 1;
			push(Item{sw[it.s].busy_until, 0, T_WAKE, it.s, 0, 0, nullptr, {}});
		}
		return;
	}
	case T_ARRIVE:
		if (ports[it.a].link >= 0 && links[ports[it.a].link].passes())
			deliver(it.a, it.bytes, it.t);
		return;
	case T_BRIDGE:
		apply_bridge(it);
		return;
	case T_CARRIER:
		carrier(it.a, it.gen != 0, it.t);
		return;
	case T_START:
		start_daemon(it.s);
		return;
	case T_SAMPLE:
		sample_pending = false;
		if (sample(true))
			return;
		// Learning may still change what reaches: look again while it does.
		if (fdb != fdb_seen) {
			fdb_seen = fdb;
			sample_pending = true;
			push(Item{it.t + SAMPLE, 0, T_SAMPLE, -1, 0, 0, nullptr, {}});
		}
		return;
	case T_CONVERGE:
		// Without an end action the run ends once the last check is done.
		if ((long)it.gen == faults && !converged_check(it.gen) && open_end && actions_left == 0)
			push(Item{now, 0, T_END, -1, 0, 0, nullptr, {}});
		return;
	default:
		return;
	}
}

void World::run(std::vector<Action> actions)
{
	auto wall0 = std::chrono::steady_clock::now();
	std::stable_sort(actions.begin(), actions.end(), [](const Action &a, const Action &b) { return a.t < b.t; });
	Time end = -1, last = 0;
	actions_left = 0;
	for (size_t i = 0; i < actions.size(); i++) {
		if (actions[i].op == "end") {
			end = actions[i].t;
			break;
		}
		last = std::max(last, actions[i].t + (actions[i].op == "flap" ? actions[i].duration : 0));
		push(Item{actions[i].t, 0, T_FAULT, -1, (int)i, 0, nullptr, {}});
		actions_left++;
	}
	open_end = end < 0;
	for (size_t s = 0; s < sw.size(); s++)
		push(Item{0, 0, T_START, (int)s, 0, 0, nullptr, {}});
	push(Item{bound(), 0, T_CONVERGE, -1, 0, 0, nullptr, {}});
	if (!open_end)
		push(Item{end, 0, T_END, -1, 0, 0, nullptr, {}});
	while (!heap.empty()) {
		std::pop_heap(heap.begin(), heap.end(), std::greater<Item>());
		Item it = std::move(heap.back());
		heap.pop_back();
		if (it.type != T_TIMER && it.type != T_RX && it.type != T_SIGNAL && it.type != T_WAKE)
			now = it.t;
		if (it.type == T_END)
			break;
		if (it.type == T_FAULT) {
			const Action &a = it.a >= 1000000 ? extra[it.a - 1000000] : actions[it.a];
			actions_left -= it.a < 1000000;
			fault(a);
			continue;
		}
		dispatch(it);
	}
	if (!open_end)
		now = end;
	end_restore();
	res.wall_s = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
}

} // namespace zsim
