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
//   rigctl vlan-global BRIDGE                "vid V msti M mcast_snooping S mcast_querier Q"
//   rigctl send IFNAME DST VID COUNT         tagged frames (VID 0: untagged)
//   rigctl count IFNAME DST MS               frames to DST seen in MS ms, with their VIDs
//   rigctl syslog FILE                       serve /dev/log into FILE
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
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
	nlmsghdr *h = mnl_nlmsg_put_header(buf);
	h->nlmsg_type = RTM_NEWLINK;
	h->nlmsg_flags = NLM_F_REQUEST;
	auto *ifi = (ifinfomsg *)mnl_nlmsg_put_extra_header(h, sizeof(ifinfomsg));
	ifi->ifi_family = AF_UNSPEC;
	ifi->ifi_index = idx;
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
	nlmsghdr *h = mnl_nlmsg_put_header(buf);
	h->nlmsg_type = RTM_SETLINK;
	h->nlmsg_flags = NLM_F_REQUEST;
	auto *ifi = (ifinfomsg *)mnl_nlmsg_put_extra_header(h, sizeof(ifinfomsg));
	ifi->ifi_family = AF_BRIDGE;
	ifi->ifi_index = idx;
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
	nlmsghdr *h = mnl_nlmsg_put_header(buf);
	h->nlmsg_type = RTM_GETLINK;
	h->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
	auto *ifi = (ifinfomsg *)mnl_nlmsg_put_extra_header(h, sizeof(ifinfomsg));
	ifi->ifi_family = AF_BRIDGE;
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

// 64-byte frames with an LLC/SNAP payload, 802.1Q-tagged with priority 7
// like the protocol's own frames, from a locally administered source.
int cmd_send(const char *ifname, const char *dst, int vid, int count)
{
	uint8_t f[64] = {};
	if (!parse_mac(dst, f))
		return 2;
	const uint8_t src[6] = {0x02, 0x52, 0x49, 0x47, 0x00, 0x01};
	memcpy(f + 6, src, 6);
	int off = 12;
	if (vid) {
		f[off++] = 0x81;
		f[off++] = 0x00;
		f[off++] = (uint8_t)(0xe0 | ((vid >> 8) & 0x0f));
		f[off++] = (uint8_t)vid;
	}
	f[off++] = 0;
	f[off++] = 46;
	f[off++] = 0xaa;
	f[off++] = 0xaa;
	f[off++] = 0x03;
	int idx;
	int fd = packet_socket(ifname, idx);
	if (fd < 0)
		return die("packet socket");
	for (int i = 0; i < count; i++)
		if (send(fd, f, sizeof f, 0) != (ssize_t)sizeof f)
			return die("send");
	close(fd);
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
	long start = now_ms();
	int total = 0;
	std::vector<int> vids;
	for (long left; (left = ms - (now_ms() - start)) > 0;) {
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
			"       mst-watch MS MSTI IF... | vlan-global BR | send IF DST VID COUNT |\n"
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
	if (c == "send" && argc == 6)
		return cmd_send(argv[2], argv[3], atoi(argv[4]), atoi(argv[5]));
	if (c == "count" && argc == 5)
		return cmd_count(argv[2], argv[3], atol(argv[4]));
	if (c == "syslog" && argc == 3)
		return cmd_syslog(argv[2]);
	return usage();
}
