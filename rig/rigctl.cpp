// rigctl: what the full-kernel rig needs from br0 that iproute2 6.1 cannot
// do or show: switching multiple-spanning-tree mode on, reading and setting
// ports' MST states, reading the VLAN-to-MSTI mapping with the per-VLAN
// multicast options, and sending or counting test frames on a port.
//
// It talks rtnetlink through libmnl on its own, not through the daemon's
// rtnetlink layer: a check that shared the code under test would share its
// mistakes.
//
//   rigctl mst-enable BRIDGE                 MST and per-VLAN snooping on
//   rigctl mst-show IFNAME...                "IFNAME MSTI STATE" lines
//   rigctl mst-set IFNAME MSTI STATE         STATE as a number or a name
//   rigctl mst-watch MS MSTI IFNAME...       state changes, at most MS milliseconds
//   rigctl port-watch MS MSTI [NS/]IFNAME... port and MSTI states across namespaces
//   rigctl vlan-global BRIDGE                "vid V msti M mcast_snooping S mcast_querier Q"
//   rigctl send IFNAME DST VID COUNT [GAP]   tagged frames (VID 0: untagged), GAP ms apart
//   rigctl frame IFNAME RING TYPE VID COUNT  protocol frames of TYPE (0: all), tagged VID (0: untagged)
//   rigctl count IFNAME DST MS               frames to DST seen in MS ms (or until
//                                            SIGTERM), with their VIDs
//   rigctl syslog FILE                       serve /dev/log into FILE
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

// libmnl's walking macros assign void pointers, which C++ refuses.
#define attr_each(a, h, off)                                                              \
	for ((a) = (const nlattr *)mnl_nlmsg_get_payload_offset((h), (off));                 \
	     mnl_attr_ok((a), (const char *)mnl_nlmsg_get_payload_tail(h) - (const char *)(a)); \
	     (a) = mnl_attr_next(a))
#define attr_each_nested(a, nest)                                                         \
	for ((a) = (const nlattr *)mnl_attr_get_payload(nest);                               \
	     mnl_attr_ok((a), (const char *)mnl_attr_get_payload(nest) +                     \
				      mnl_attr_get_payload_len(nest) - (const char *)(a));       \
	     (a) = mnl_attr_next(a))

namespace {

const char *const state_names[] = {"DISABLED", "LISTENING", "LEARNING", "FORWARDING", "BLOCKING"};

const char *state_name(unsigned s) { return s < 5 ? state_names[s] : "UNKNOWN"; }

int parse_state(const char *text)
{
	for (unsigned i = 0; i < 5; i++)
		if (!strcasecmp(text, state_names[i]))
			return (int)i;
	char *end;
	long v = strtol(text, &end, 0);
	return (*end || v < 0 || v > 4) ? -1 : (int)v;
}

int usage();

int die(const char *what)
{
	fprintf(stderr, "rigctl: %s: %s\n", what, strerror(errno));
	return 2;
}

long now_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// One netlink socket, one request at a time; the callback sees every
// answer message of the request (dump parts or nothing for an ack).
struct nl {
	mnl_socket *sock = nullptr;
	unsigned seq = 0;
	unsigned portid = 0;
	~nl() { if (sock) mnl_socket_close(sock); }
	bool open()
	{
		sock = mnl_socket_open(NETLINK_ROUTE);
		if (!sock || mnl_socket_bind(sock, 0, MNL_SOCKET_AUTOPID) < 0)
			return false;
		portid = mnl_socket_get_portid(sock);
		return true;
	}
	int talk(nlmsghdr *n, mnl_cb_t cb, void *data)
	{
		n->nlmsg_seq = ++seq;
		if (!(n->nlmsg_flags & NLM_F_DUMP))
			n->nlmsg_flags |= NLM_F_ACK;
		if (mnl_socket_sendto(sock, n, n->nlmsg_len) < 0)
			return -1;
		static char buf[1 << 16];
		int ret;
		do {
			ssize_t len = mnl_socket_recvfrom(sock, buf, sizeof buf);
			if (len < 0)
				return -1;
			ret = mnl_cb_run(buf, len, seq, portid, cb, data);
		} while (ret > 0);
		return ret;
	}
};

int ifindex_of(const char *name)
{
	unsigned i = if_nametoindex(name);
	if (!i)
		fprintf(stderr, "rigctl: no interface %s\n", name);
	return (int)i;
}

// A link request or dump: netlink header and ifinfomsg, attributes follow.
nlmsghdr *link_request(char *buf, uint16_t type, uint16_t flags, uint8_t family, int ifindex)
{
	nlmsghdr *h = mnl_nlmsg_put_header(buf);
	h->nlmsg_type = type;
	h->nlmsg_flags = flags;
	auto *ifi = (ifinfomsg *)mnl_nlmsg_put_extra_header(h, sizeof(ifinfomsg));
	ifi->ifi_family = family;
	ifi->ifi_index = ifindex;
	return h;
}

// MST mode needs VLAN filtering and must be switched on before any port
// VLAN exists; per-VLAN multicast snooping goes on with it, as a switch
// running the ring protocol has it.
int cmd_mst_enable(const char *br)
{
	int idx = ifindex_of(br);
	if (!idx)
		return 2;
	nl n;
	if (!n.open())
		return die("netlink");
	char buf[MNL_SOCKET_BUFFER_SIZE];
	nlmsghdr *h = link_request(buf, RTM_NEWLINK, NLM_F_REQUEST, AF_UNSPEC, idx);
	nlattr *li = mnl_attr_nest_start(h, IFLA_LINKINFO);
	mnl_attr_put_strz(h, IFLA_INFO_KIND, "bridge");
	nlattr *data = mnl_attr_nest_start(h, IFLA_INFO_DATA);
	br_boolopt_multi bm{};
	bm.optval = bm.optmask = (1u << BR_BOOLOPT_MST_ENABLE) | (1u << BR_BOOLOPT_MCAST_VLAN_SNOOPING);
	mnl_attr_put(h, IFLA_BR_MULTI_BOOLOPT, sizeof bm, &bm);
	mnl_attr_nest_end(h, data);
	mnl_attr_nest_end(h, li);
	if (n.talk(h, nullptr, nullptr) < 0)
		return die("enabling MST");
	return 0;
}

int cmd_mst_set(const char *ifname, const char *msti_text, const char *state_text)
{
	int idx = ifindex_of(ifname);
	int state = parse_state(state_text);
	if (!idx || state < 0)
		return 2;
	nl n;
	if (!n.open())
		return die("netlink");
	char buf[MNL_SOCKET_BUFFER_SIZE];
	nlmsghdr *h = link_request(buf, RTM_SETLINK, NLM_F_REQUEST, AF_BRIDGE, idx);
	nlattr *af = mnl_attr_nest_start(h, IFLA_AF_SPEC);
	nlattr *mst = mnl_attr_nest_start(h, IFLA_BRIDGE_MST);
	nlattr *e = mnl_attr_nest_start(h, IFLA_BRIDGE_MST_ENTRY);
	mnl_attr_put_u16(h, IFLA_BRIDGE_MST_ENTRY_MSTI, (uint16_t)atoi(msti_text));
	mnl_attr_put_u8(h, IFLA_BRIDGE_MST_ENTRY_STATE, (uint8_t)state);
	mnl_attr_nest_end(h, e);
	mnl_attr_nest_end(h, mst);
	mnl_attr_nest_end(h, af);
	if (n.talk(h, nullptr, nullptr) < 0)
		return die("setting MST state");
	return 0;
}

struct mst_entry {
	std::string ifname;
	unsigned msti;
	unsigned state;
};

int mst_link_cb(const nlmsghdr *h, void *data)
{
	auto *out = (std::vector<mst_entry> *)data;
	std::string name;
	const nlattr *af = nullptr;
	const nlattr *a;
	attr_each(a, h, sizeof(ifinfomsg)) {
		if (mnl_attr_get_type(a) == IFLA_IFNAME)
			name = mnl_attr_get_str(a);
		else if (mnl_attr_get_type(a) == IFLA_AF_SPEC)
			af = a;
	}
	if (!af)
		return MNL_CB_OK;
	const nlattr *m;
	attr_each_nested(m, af) {
		if (mnl_attr_get_type(m) != IFLA_BRIDGE_MST)
			continue;
		const nlattr *e;
		attr_each_nested(e, m) {
			if (mnl_attr_get_type(e) != IFLA_BRIDGE_MST_ENTRY)
				continue;
			mst_entry me{name, 0, 99};
			const nlattr *f;
			attr_each_nested(f, e) {
				if (mnl_attr_get_type(f) == IFLA_BRIDGE_MST_ENTRY_MSTI)
					me.msti = mnl_attr_get_u16(f);
				else if (mnl_attr_get_type(f) == IFLA_BRIDGE_MST_ENTRY_STATE)
					me.state = mnl_attr_get_u8(f);
			}
			out->push_back(me);
		}
	}
	return MNL_CB_OK;
}

int dump_mst(nl &n, std::vector<mst_entry> &out)
{
	char buf[MNL_SOCKET_BUFFER_SIZE];
	nlmsghdr *h = link_request(buf, RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, AF_BRIDGE, 0);
	mnl_attr_put_u32(h, IFLA_EXT_MASK, RTEXT_FILTER_MST);
	return n.talk(h, mst_link_cb, &out);
}

bool wanted(const std::string &name, int argc, char **argv)
{
	if (!argc)
		return true;
	for (int i = 0; i < argc; i++)
		if (name == argv[i])
			return true;
	return false;
}

int cmd_mst_show(int argc, char **argv)
{
	nl n;
	if (!n.open())
		return die("netlink");
	std::vector<mst_entry> v;
	if (dump_mst(n, v) < 0)
		return die("MST dump");
	for (auto &e : v)
		if (wanted(e.ifname, argc, argv))
			printf("%s %u %s\n", e.ifname.c_str(), e.msti, state_name(e.state));
	return 0;
}

// Samples the ports' state in one MSTI as fast as the kernel answers and
// prints every change: "MS IFNAME STATE" (NONE while the port has no VLAN
// in that MSTI). The first line of each port is its state at the start;
// it ends early once every port is FORWARDING.
int cmd_mst_watch(long ms, unsigned msti, int argc, char **argv)
{
	nl n;
	if (!n.open())
		return die("netlink");
	std::vector<std::string> last(argc, "");
	long start = now_ms();
	while (now_ms() - start < ms) {
		std::vector<mst_entry> v;
		if (dump_mst(n, v) < 0)
			return die("MST dump");
		for (int i = 0; i < argc; i++) {
			std::string cur = "NONE";
			for (auto &e : v)
				if (e.ifname == argv[i] && e.msti == msti)
					cur = state_name(e.state);
			if (cur != last[i]) {
				printf("%ld %s %s\n", now_ms() - start, argv[i], cur.c_str());
				fflush(stdout);
				last[i] = cur;
			}
		}
		bool all_open = true;
		for (auto &l : last)
			all_open = all_open && l == "FORWARDING";
		if (all_open)
			break;
		// Each dump costs the emulated machine time the daemon needs too.
		usleep(10000);
	}
	return 0;
}

// Signals the long-running commands act on: SIGTERM ends them early (they
// still print what they have), SIGUSR1 asks port-watch for a mark.
volatile sig_atomic_t stop_asked = 0;
volatile sig_atomic_t marks_asked = 0;

void on_signal(int sig)
{
	if (sig == SIGUSR1)
		marks_asked = marks_asked + 1;
	else
		stop_asked = 1;
}

// No SA_RESTART: a blocking poll or sleep returns at once.
void catch_signals()
{
	struct sigaction sa{};
	sa.sa_handler = on_signal;
	sigaction(SIGTERM, &sa, nullptr);
	sigaction(SIGINT, &sa, nullptr);
	sigaction(SIGUSR1, &sa, nullptr);
}

struct port_dump {
	std::string name;
	int state = -1;
	std::vector<std::pair<unsigned, unsigned>> mst;
};

int port_link_cb(const nlmsghdr *h, void *data)
{
	auto *out = (std::vector<port_dump> *)data;
	port_dump d;
	const nlattr *a;
	attr_each(a, h, sizeof(ifinfomsg)) {
		switch (mnl_attr_get_type(a)) {
		case IFLA_IFNAME:
			d.name = mnl_attr_get_str(a);
			break;
		case IFLA_PROTINFO: {
			const nlattr *f;
			attr_each_nested(f, a) {
				if (mnl_attr_get_type(f) == IFLA_BRPORT_STATE)
					d.state = mnl_attr_get_u8(f);
			}
			break;
		}
		case IFLA_AF_SPEC: {
			const nlattr *m;
			attr_each_nested(m, a) {
				if (mnl_attr_get_type(m) != IFLA_BRIDGE_MST)
					continue;
				const nlattr *e;
				attr_each_nested(e, m) {
					unsigned msti = 0, st = 99;
					const nlattr *f;
					attr_each_nested(f, e) {
						if (mnl_attr_get_type(f) == IFLA_BRIDGE_MST_ENTRY_MSTI)
							msti = mnl_attr_get_u16(f);
						else if (mnl_attr_get_type(f) == IFLA_BRIDGE_MST_ENTRY_STATE)
							st = mnl_attr_get_u8(f);
					}
					d.mst.emplace_back(msti, st);
				}
			}
			break;
		}
		}
	}
	out->push_back(d);
	return MNL_CB_OK;
}

// Bridge ports of several network namespaces sampled together, so that
// the order of their changes can be read off one clock. A port is IFNAME
// (this namespace) or NS/IFNAME (the namespace /run/netns/NS). Each round
// reads the list's runs of ports of one namespace in list order (a
// namespace that appears again is read again there), then prints
// "MS PORT=STATE/MSTISTATE ..." (the plain port state and the state in
// MSTI; NONE where the port or the MSTI is missing) if anything changed,
// or when a SIGUSR1 asked for a mark (" mark N" appended). What is read
// later in a round cannot be older; a port listed both first and last
// brackets the others: when it shows one state at both reads, it held
// that state while they were read (unless it changed twice in between).
// Ends after MS ms or at SIGTERM.
int cmd_port_watch(long ms, unsigned msti, int argc, char **argv)
{
	struct ns_sock {
		std::string ns;
		std::unique_ptr<nl> sock;
	};
	std::vector<ns_sock> socks;
	std::vector<size_t> sock_of(argc);
	std::vector<size_t> run_of(argc); // which read of the round serves the port
	std::vector<size_t> runs;          // the socket each read of the round uses
	std::vector<std::string> ifname(argc);
	int home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
	if (home < 0)
		return die("own network namespace");
	for (int i = 0; i < argc; i++) {
		std::string arg = argv[i];
		size_t slash = arg.find('/');
		std::string ns = slash == std::string::npos ? "" : arg.substr(0, slash);
		ifname[i] = slash == std::string::npos ? arg : arg.substr(slash + 1);
		size_t k = 0;
		while (k < socks.size() && socks[k].ns != ns)
			k++;
		if (k == socks.size()) {
			// A netlink socket stays in the namespace it was made in.
			if (!ns.empty()) {
				int fd = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
				if (fd < 0 || setns(fd, CLONE_NEWNET) < 0)
					return die(("namespace " + ns).c_str());
				close(fd);
			}
			socks.push_back({ns, std::make_unique<nl>()});
			bool ok = socks.back().sock->open();
			if (!ns.empty() && setns(home, CLONE_NEWNET) < 0)
				return die("back to own namespace");
			if (!ok)
				return die("netlink");
		}
		sock_of[i] = k;
		if (i == 0 || sock_of[i - 1] != k)
			runs.push_back(k);
		run_of[i] = runs.size() - 1;
	}
	close(home);
	catch_signals();
	std::string last;
	int marked = 0;
	long start = now_ms();
	while (!stop_asked && now_ms() - start < ms) {
		std::vector<std::vector<port_dump>> dumps(runs.size());
		for (size_t r = 0; r < runs.size(); r++) {
			char buf[MNL_SOCKET_BUFFER_SIZE];
			nlmsghdr *h = link_request(buf, RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP, AF_BRIDGE, 0);
			mnl_attr_put_u32(h, IFLA_EXT_MASK, RTEXT_FILTER_MST);
			if (socks[runs[r]].sock->talk(h, port_link_cb, &dumps[r]) < 0)
				return die("port dump");
		}
		std::string line;
		for (int i = 0; i < argc; i++) {
			std::string port = "NONE", mst = "NONE";
			for (auto &d : dumps[run_of[i]]) {
				if (d.name != ifname[i])
					continue;
				if (d.state >= 0)
					port = state_name((unsigned)d.state);
				for (auto &e : d.mst)
					if (e.first == msti)
						mst = state_name(e.second);
			}
			line += " " + std::string(argv[i]) + "=" + port + "/" + mst;
		}
		int want = marks_asked;
		if (line != last || want != marked) {
			printf("%ld%s", now_ms() - start, line.c_str());
			if (want != marked)
				printf(" mark %d", want);
			printf("\n");
			fflush(stdout);
			last = line;
			marked = want;
		}
		usleep(10000);
	}
	return 0;
}

struct vlan_opts {
	unsigned vid = 0, range = 0, msti = 0, snooping = 99, querier = 99;
};

int vlan_global_cb(const nlmsghdr *h, void *data)
{
	auto *out = (std::vector<vlan_opts> *)data;
	const nlattr *a;
	attr_each(a, h, sizeof(br_vlan_msg)) {
		if (mnl_attr_get_type(a) != BRIDGE_VLANDB_GLOBAL_OPTIONS)
			continue;
		vlan_opts o;
		const nlattr *f;
		attr_each_nested(f, a) {
			switch (mnl_attr_get_type(f)) {
			case BRIDGE_VLANDB_GOPTS_ID: o.vid = mnl_attr_get_u16(f); break;
			case BRIDGE_VLANDB_GOPTS_RANGE: o.range = mnl_attr_get_u16(f); break;
			case BRIDGE_VLANDB_GOPTS_MSTI: o.msti = mnl_attr_get_u16(f); break;
			case BRIDGE_VLANDB_GOPTS_MCAST_SNOOPING: o.snooping = mnl_attr_get_u8(f); break;
			case BRIDGE_VLANDB_GOPTS_MCAST_QUERIER: o.querier = mnl_attr_get_u8(f); break;
			}
		}
		out->push_back(o);
	}
	return MNL_CB_OK;
}

int cmd_vlan_global(const char *br)
{
	int idx = ifindex_of(br);
	if (!idx)
		return 2;
	nl n;
	if (!n.open())
		return die("netlink");
	char buf[MNL_SOCKET_BUFFER_SIZE];
	nlmsghdr *h = mnl_nlmsg_put_header(buf);
	h->nlmsg_type = RTM_GETVLAN;
	h->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
	auto *bvm = (br_vlan_msg *)mnl_nlmsg_put_extra_header(h, sizeof(br_vlan_msg));
	bvm->family = AF_BRIDGE;
	bvm->ifindex = idx;
	mnl_attr_put_u32(h, BRIDGE_VLANDB_DUMP_FLAGS, BRIDGE_VLANDB_DUMPF_GLOBAL);
	std::vector<vlan_opts> v;
	if (n.talk(h, vlan_global_cb, &v) < 0)
		return die("VLAN dump");
	// Neighbouring VLANs with equal options come as one range.
	for (auto &o : v)
		for (unsigned vid = o.vid; vid <= (o.range ? o.range : o.vid); vid++)
			printf("vid %u msti %u mcast_snooping %u mcast_querier %u\n", vid, o.msti,
			       o.snooping, o.querier);
	return 0;
}

bool parse_mac(const char *text, uint8_t mac[6])
{
	return sscanf(text, "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &mac[0], &mac[1], &mac[2], &mac[3],
		      &mac[4], &mac[5]) == 6;
}

int packet_socket(const char *ifname, int &idx)
{
	idx = ifindex_of(ifname);
	if (!idx)
		return -1;
	int fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
	if (fd < 0)
		return -1;
	sockaddr_ll sll{};
	sll.sll_family = AF_PACKET;
	sll.sll_protocol = htons(ETH_P_ALL);
	sll.sll_ifindex = idx;
	if (bind(fd, (sockaddr *)&sll, sizeof sll) < 0) {
		close(fd);
		return -1;
	}
	return fd;
}

const uint8_t test_source[6] = {0x02, 0x52, 0x49, 0x47, 0x00, 0x01};

// The 802.1Q tag with priority 7, as the protocol's own frames carry it;
// VID 0 writes none. Returns the offset after it.
int put_tag(uint8_t *f, int vid)
{
	if (!vid)
		return 12;
	f[12] = 0x81;
	f[13] = 0x00;
	f[14] = (uint8_t)(0xe0 | ((vid >> 8) & 0x0f));
	f[15] = (uint8_t)vid;
	return 16;
}

int send_frames(const char *ifname, const uint8_t *f, size_t len, int count, long gap_ms)
{
	int idx;
	int fd = packet_socket(ifname, idx);
	if (fd < 0)
		return die("packet socket");
	for (int i = 0; i < count; i++) {
		if (i && gap_ms)
			usleep((useconds_t)gap_ms * 1000);
		if (send(fd, f, len, 0) != (ssize_t)len)
			return die("send");
	}
	close(fd);
	return 0;
}

// 64-byte frames with an LLC/SNAP payload, 802.1Q-tagged with priority 7
// like the protocol's own frames, from a locally administered source.
int cmd_send(const char *ifname, const char *dst, int vid, int count, long gap_ms)
{
	uint8_t f[64] = {};
	if (!parse_mac(dst, f))
		return 2;
	memcpy(f + 6, test_source, 6);
	int off = put_tag(f, vid);
	f[off++] = 0;
	f[off++] = 46;
	f[off++] = 0xaa;
	f[off++] = 0xaa;
	f[off++] = 0x03;
	return send_frames(ifname, f, sizeof f, count, gap_ms);
}

// Protocol frames of TYPE (1 Hello to 7 Trig; 0: each of them in turn)
// of ring RING as the daemons send them, but with the tag VID (0: none)
// and every field after the type zero: with no base MAC in the rig every
// switch's id is zero, so a zero id names each of them.
int cmd_frame(const char *ifname, int ring, int type, int vid, int count)
{
	static const uint8_t payload_len[] = {0, 14, 26, 26, 28, 28, 12, 12};
	static const uint8_t group[] = {0, 1, 2, 2, 2, 4, 3, 2};
	if (type < 0 || type > 7)
		return usage();
	for (int t = type ? type : 1; t <= (type ? type : 7); t++) {
		uint8_t f[64] = {0x03, 0x4b, 0xa1, 0x01, (uint8_t)ring, group[t]};
		memcpy(f + 6, test_source, 6);
		int off = put_tag(f, vid);
		const uint8_t head[] = {0, (uint8_t)(10 + payload_len[t]), 0xaa, 0xaa, 0x03, 0x02, 0x4b, 0xa1,
					0x01, 0x00, 0x20, (uint8_t)ring, (uint8_t)t, payload_len[t]};
		memcpy(f + off, head, sizeof head);
		if (send_frames(ifname, f, vid ? 64 : 60, count, 0))
			return 2;
	}
	return 0;
}

// Counts received frames to DST for MS milliseconds; the kernel hands the
// 802.1Q tag over in the auxiliary data, so the VIDs come from there.
int cmd_count(const char *ifname, const char *dst, long ms)
{
	uint8_t want[6];
	if (!parse_mac(dst, want))
		return 2;
	int idx;
	int fd = packet_socket(ifname, idx);
	if (fd < 0)
		return die("packet socket");
	int one = 1;
	setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof one);
	catch_signals();
	long start = now_ms();
	int total = 0;
	std::vector<int> vids;
	for (long left; !stop_asked && (left = ms - (now_ms() - start)) > 0;) {
		pollfd p{fd, POLLIN, 0};
		if (poll(&p, 1, (int)left) <= 0)
			continue;
		uint8_t buf[2048];
		char cbuf[CMSG_SPACE(sizeof(tpacket_auxdata))];
		iovec iov{buf, sizeof buf};
		sockaddr_ll from{};
		msghdr m{};
		m.msg_name = &from;
		m.msg_namelen = sizeof from;
		m.msg_iov = &iov;
		m.msg_iovlen = 1;
		m.msg_control = cbuf;
		m.msg_controllen = sizeof cbuf;
		ssize_t len = recvmsg(fd, &m, 0);
		if (len < 14 || from.sll_pkttype == PACKET_OUTGOING || memcmp(buf, want, 6))
			continue;
		int vid = 0;
		for (cmsghdr *c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c))
			if (c->cmsg_level == SOL_PACKET && c->cmsg_type == PACKET_AUXDATA) {
				auto *aux = (tpacket_auxdata *)CMSG_DATA(c);
				if (aux->tp_status & TP_STATUS_VLAN_VALID)
					vid = aux->tp_vlan_tci & 0x0fff;
			}
		total++;
		vids.push_back(vid);
	}
	printf("%d", total);
	for (int v : vids)
		printf(" %d", v);
	printf("\n");
	close(fd);
	return 0;
}

// A minimal syslog sink for the guest, which runs no syslog daemon: the
// daemon's own messages end up in FILE for diagnosis (never for checks).
int cmd_syslog(const char *path)
{
	int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
	if (fd < 0)
		return die("socket");
	sockaddr_un sun{};
	sun.sun_family = AF_UNIX;
	strcpy(sun.sun_path, "/dev/log");
	unlink(sun.sun_path);
	if (bind(fd, (sockaddr *)&sun, sizeof sun) < 0)
		return die("bind /dev/log");
	FILE *out = fopen(path, "a");
	if (!out)
		return die(path);
	for (;;) {
		char buf[4096];
		ssize_t len = recv(fd, buf, sizeof buf - 1, 0);
		if (len <= 0)
			continue;
		buf[len] = 0;
		fprintf(out, "%ld %s%s", now_ms(), buf, len && buf[len - 1] == '\n' ? "" : "\n");
		fflush(out);
	}
}

int usage()
{
	fprintf(stderr, "usage: rigctl mst-enable BR | mst-show [IF...] | mst-set IF MSTI STATE |\n"
			"       mst-watch MS MSTI IF... | port-watch MS MSTI [NS/]IF... | vlan-global BR |\n"
			"       send IF DST VID COUNT [GAP_MS] | frame IF RING TYPE VID COUNT |\n"
			"       count IF DST MS | syslog FILE\n");
	return 2;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc < 2)
		return usage();
	std::string c = argv[1];
	if (c == "mst-enable" && argc == 3)
		return cmd_mst_enable(argv[2]);
	if (c == "mst-show")
		return cmd_mst_show(argc - 2, argv + 2);
	if (c == "mst-set" && argc == 5)
		return cmd_mst_set(argv[2], argv[3], argv[4]);
	if (c == "mst-watch" && argc >= 5)
		return cmd_mst_watch(atol(argv[2]), (unsigned)atoi(argv[3]), argc - 4, argv + 4);
	if (c == "vlan-global" && argc == 3)
		return cmd_vlan_global(argv[2]);
	if (c == "port-watch" && argc >= 5)
		return cmd_port_watch(atol(argv[2]), (unsigned)atoi(argv[3]), argc - 4, argv + 4);
	if (c == "send" && (argc == 6 || argc == 7))
		return cmd_send(argv[2], argv[3], atoi(argv[4]), atoi(argv[5]), argc == 7 ? atol(argv[6]) : 0);
	if (c == "frame" && argc == 7)
		return cmd_frame(argv[2], atoi(argv[3]), atoi(argv[4]), atoi(argv[5]), atoi(argv[6]));
	if (c == "count" && argc == 5)
		return cmd_count(argv[2], argv[3], atol(argv[4]));
	if (c == "syslog" && argc == 3)
		return cmd_syslog(argv[2]);
	return usage();
}
