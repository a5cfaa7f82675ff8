// Packet sockets of the ring ports, the send path and the receive path
// that turns received frames into events for the ring logic.
#include "frames/sockets.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include "daemon/os.h"
#include "frames/frames.h"
#include "frames/hello.h"
#include "ring/channel.h"
#include "ring/link.h"
#include "status/status.h"

int send_sock = -1;

namespace {
// The kernel's filter: lets through only frames to the protocol's group
// prefix 03:4B:A1 that came with the tag of their type, so that neither
// other traffic nor protocol frames from outside the protocol's VLANs
// (a host on an access port) ever wake the daemon. The kernel has taken
// the tag off; the ancillary loads read it, and the type byte lies where
// it does in a frame without its tag. Built from the table the templates
// take their tags from; packet_rcv checks the same again.
constexpr size_t FILTER_LEN = 28;
// Where the checks by VLAN start, and the two ends.
constexpr size_t AT_ANY = 19, AT_MGNT = 22, AT_RING = 24, AT_ACCEPT = 26, AT_DROP = 27;

constexpr std::array<sock_filter, FILTER_LEN> make_filter()
{
	std::array<sock_filter, FILTER_LEN> p{};
	size_t n = 0;
	auto stmt = [&](uint16_t code, uint32_t k) { p[n++] = {code, 0, 0, k}; };
	// Jump targets are absolute here; 0 in the instruction is the next one.
	auto jump = [&](uint16_t op, uint32_t k, size_t yes, size_t no) {
		auto rel = [&](size_t to) { return (uint8_t)(to ? to - n - 1 : 0); };
		p[n] = {(uint16_t)(BPF_JMP | op | BPF_K), rel(yes), rel(no), k};
		n++;
	};
	constexpr uint32_t ad_tag = (uint32_t)(SKF_AD_OFF + SKF_AD_VLAN_TAG);
	constexpr uint32_t ad_present = (uint32_t)(SKF_AD_OFF + SKF_AD_VLAN_TAG_PRESENT);

	const uint8_t prefix[3] = {0x03, 0x4B, 0xA1};
	for (uint32_t i = 0; i < 3; i++) {
		stmt(BPF_LD | BPF_B | BPF_ABS, i);
		jump(BPF_JEQ, prefix[i], 0, AT_DROP);
	}
	stmt(BPF_LD | BPF_W | BPF_ABS, ad_present);
	jump(BPF_JEQ, 0, AT_DROP, 0);
	stmt(BPF_LD | BPF_W | BPF_ABS, ad_tag);
	stmt(BPF_ALU | BPF_AND | BPF_K, 0x0fff); // the id without priority and DEI
	stmt(BPF_MISC | BPF_TAX, 0);
	stmt(BPF_LD | BPF_B | BPF_ABS, rx_off::TYPE);
	for (size_t t = 0; t < 7; t++) // each type to the check of its VLAN
		jump(BPF_JEQ, zalk_frame_types[t],
		     zalkv2_type_vlan(zalk_frame_types[t]) == ZALK_MGNT_VLAN ? AT_MGNT : AT_RING, 0);
	// AT_ANY: a code of no known type, on either protocol VLAN.
	stmt(BPF_MISC | BPF_TXA, 0);
	jump(BPF_JEQ, ZALK_MGNT_VLAN, AT_ACCEPT, 0);
	jump(BPF_JEQ, ZALK_RING_VLAN, AT_ACCEPT, AT_DROP);
	stmt(BPF_MISC | BPF_TXA, 0); // AT_MGNT
	jump(BPF_JEQ, ZALK_MGNT_VLAN, AT_ACCEPT, AT_DROP);
	stmt(BPF_MISC | BPF_TXA, 0); // AT_RING
	jump(BPF_JEQ, ZALK_RING_VLAN, AT_ACCEPT, AT_DROP);
	stmt(BPF_RET | BPF_K, 0x40000); // AT_ACCEPT
	stmt(BPF_RET | BPF_K, 0);       // AT_DROP
	return p;
}
constexpr std::array<sock_filter, FILTER_LEN> zalk_filter = make_filter();
static_assert(zalk_filter[AT_ANY].code == (BPF_MISC | BPF_TXA) && zalk_filter[AT_MGNT].code == (BPF_MISC | BPF_TXA) &&
		      zalk_filter[AT_RING].code == (BPF_MISC | BPF_TXA) && zalk_filter[AT_DROP].code == (BPF_RET | BPF_K) &&
		      zalk_filter[AT_DROP].k == 0 && zalk_filter[AT_ACCEPT].k == 0x40000,
	      "the filter's labels sit where its jumps go");

constexpr size_t RX_BUF_LEN = 2048;
constexpr size_t MAC_TEXT_LEN = 28;

// Closes the descriptor on every early way out unless released.
struct fd_guard {
	int fd;
	~fd_guard()
	{
		if (fd >= 0)
			os_close(fd);
	}
	int release()
	{
		int f = fd;
		fd = -1;
		return f;
	}
};

bool same_mac(const uint8_t *a, const uint8_t *b) { return memcmp(a, b, 6) == 0; }

// Which of the instance's ports received the frame: port A when its
// ifindex matches, else port B.
int rx_port_index(int ins, const zalkv2_port *port)
{
	return instances[ins].port[PORT_A].ifindex == port->ifindex ? PORT_A : PORT_B;
}
} // namespace

int zalkv2_open_packet_socket()
{
	fd_guard s{os_socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL))};
	if (s.fd < 0) {
		zlog(LOG_ERR, "socket failed: %m\n\n");
		return -1;
	}
	sock_fprog prog = {(unsigned short)zalk_filter.size(), const_cast<sock_filter *>(zalk_filter.data())};
	if (os_setsockopt(s.fd, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof(prog)) < 0) {
		zlog(LOG_ERR, "setsockopt packet filter failed: %m\n\n");
		return -1;
	}
	int prio = 7;
	if (os_setsockopt(s.fd, SOL_SOCKET, SO_PRIORITY, &prio, sizeof(prio)) < 0) {
		zlog(LOG_ERR, "setsockopt priority failed: %m\n\n");
		return -1;
	}
	if (os_set_nonblock(s.fd) < 0) {
		zlog(LOG_ERR, "fcntl set nonblock failed: %m\n\n");
		return -1;
	}
	return s.release();
}

int zalkv2_open_port_socket(zalkv2_port *port)
{
	if (!zalkv2_port_configured(*port))
		return 0;
	// A port whose name names no interface (index 0) stays a ring port
	// whose link never comes up, but gets no socket: bound to index 0 a
	// packet socket hears every interface, and each frame of the other
	// ring ports would reach the ring logic a second time.
	if (port->ifindex == 0) {
		zlog(LOG_ERR, "Ring port %s is no interface\n", port->name);
		return 1;
	}
	int fd = zalkv2_open_packet_socket();
	if (fd < 0)
		return 1;
	port->sock = fd;
	// A port socket hears what arrives on its port. Without this it also
	// hears every frame leaving the port: our own (dropped below by their
	// tag) and, on a bridge forwarding in software, each protocol frame
	// the bridge passes on from the other ring port, which would then be
	// handled twice, once as if it had arrived here. packet_rcv drops such
	// copies too, for kernels without the option.
	int one = 1;
	os_setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof(one));
	// The tag a frame came with, which the kernel takes off, is read
	// from the frame's auxiliary data.
	os_setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &one, sizeof(one));

	sockaddr_ll sll;
	memset(&sll, 0, sizeof(sll));
	sll.sll_family = AF_PACKET;
	sll.sll_protocol = htons(ETH_P_ALL);
	sll.sll_ifindex = port->ifindex;
	if (os_bind(fd, reinterpret_cast<sockaddr *>(&sll), sizeof(sll)) < 0) {
		// A ring port we cannot listen on makes the daemon useless
		// for that ring; stop rather than run half blind.
		perror("bind: ");
		exit(-1);
	}
	ev_io_init(&port->rx_watcher, packet_rcv, fd, EV_READ);
	ev_set_priority(&port->rx_watcher, ZALK_PRI_FRAMES);
	return 0;
}

void zalkv2_close_port_socket(zalkv2_port *port)
{
	if (!zalkv2_port_configured(*port))
		return;
	// 0 marks a closed socket; never close it twice, and never close
	// descriptor 0 on its behalf.
	if (port->sock > 0)
		os_close(port->sock);
	port->sock = 0;
}

void packet_send(zalkv2_port *port, uint8_t *frame, size_t length)
{
	if (port->operstate != ZALK_OPER_UP)
		return;
	// A port that does not exist for the ring sends nothing either.
	if (!zalkv2_port_configured(*port))
		return;
	// Every frame of the protocol is 64 bytes; never copy more.
	if (length > ZALK_FRAME_LEN)
		length = ZALK_FRAME_LEN;

	memcpy(frame + tx_off::SRC, port->mac, 6);
	uint8_t buf[ZALK_FRAME_LEN];
	memcpy(buf, frame, length);

	sockaddr_ll sll;
	memset(&sll, 0, sizeof(sll));
	sll.sll_family = AF_PACKET;
	sll.sll_protocol = htons(ETH_P_ALL);
	sll.sll_ifindex = port->ifindex;
	sll.sll_halen = 6;
	memcpy(sll.sll_addr, frame + tx_off::DST, 6);

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - Send packet on %s(%d)\n", "packet_send", port->name, port->ifindex);

	iovec iov = {buf, length};
	msghdr msg;
	memset(&msg, 0, sizeof(msg));
	msg.msg_name = &sll;
	msg.msg_namelen = sizeof(sll);
	msg.msg_iov = &iov;
	msg.msg_iovlen = 1;

	ssize_t n = os_sendmsg(send_sock, &msg, 0);
	if (n < 0) {
		// A full queue drops the frame; the protocol's periodic
		// frames make up for it.
		if (errno != EAGAIN)
			zlog(LOG_ERR, "send failed: %m\n\n");
		return;
	}
	if ((size_t)n != length)
		zlog(LOG_ERR, "short write in sendto: %d instead of %d\n\n", (int)n, (int)length);
}

void packet_rcv(struct ev_loop *, ev_io *w, int)
{
	uint8_t buf[RX_BUF_LEN];
	os_rx_frame info;
	ssize_t n = os_recv_frame(w->fd, buf, sizeof(buf), &info);
	if (n < 1) {
		zlog(LOG_ERR, "recvfrom failed: %m\n\n");
		return;
	}
	if (info.outgoing)
		return; // sent out of this port, not received on it
	zalkv2_handle_frame(info.ifindex, info.vlan, buf, (size_t)n);
}

void zalkv2_handle_frame(int ifindex, int vlan, const uint8_t *buf, size_t len)
{
	// A frame shorter than a full protocol frame is read as if the
	// missing bytes were the zero padding a full frame carries: the
	// fields we read (up to offset 54, 64 for the dump) then never hold
	// bytes of an earlier frame. A frame cut inside its header fails the
	// header check and is recorded as a foreign ring (255); one cut
	// inside its fields acts as if those fields were zero, as a
	// Link Response without edges, which only flushes.
	uint8_t padded[ZALK_FRAME_LEN];
	const uint8_t *frame = buf;
	if (len < ZALK_FRAME_LEN) {
		memcpy(padded, buf, len);
		memset(padded + len, 0, ZALK_FRAME_LEN - len);
		frame = padded;
	}

	zalkv2_port *port = zalkv2_port_by_ifindex(ifindex);
	if (!port) {
		if (zalk_debug(ZALK_DBG))
			zlog(LOG_NOTICE, "%s() - Received invalid port num for ifindex %d\n\n", "packet_rcv", ifindex);
		return;
	}
	if (!zalkv2_filter_packet(port, frame, vlan))
		return;

	debug_packet("Rx packets", frame, ZALK_FRAME_LEN);

	int ring_id = zalkv2_frame_ring_id(frame);
	int ins = zalkv2_instance_by_ifindex(port->ifindex);
	if (ins < 0)
		return;

	// A frame with a broken header reads as ring 255 and is never taken
	// for our own, even by a ring configured with id 255. Rings with ids
	// of 256 and more carry only the low byte on the wire, never match
	// here and so hear nothing: such ids are not usable.
	if (!zalkv2_frame_header_ok(frame) || ring_id != instances[ins].ring_id) {
		int pi;
		if (zalkv2_port_index(ins, port->ifindex, &pi))
			instances[ins].rx_errors[pi].rx_wrong_ring_id = ring_id;
		return;
	}
	zalkv2_recv(ins, port, frame);
}

int zalkv2_filter_packet(zalkv2_port *port, const uint8_t *frame, int vlan)
{
	// Our own frames coming back around the ring are dropped, but for
	// Ring frames: their return is what the focal point waits for.
	zalkv2_instance *in = port->instance;
	for (const zalkv2_port &p : in->port) {
		if (!zalkv2_port_configured(p))
			continue;
		if (same_mac(frame + rx_off::SRC, p.mac) && frame[rx_off::TYPE] != zalk_frame_types[ZALK_RING - 1])
			return 0;
	}
	// The kernel strips the tag; a frame still tagged came by a path we
	// do not serve.
	if (frame[rx_off::TPID] == 0x81 && frame[rx_off::TPID + 1] == 0x00)
		return 0;
	// Only with its type's tag: the socket filter drops the others
	// already; this is the check that holds whatever reached us.
	if (!zalkv2_vlan_ok(frame[rx_off::TYPE], vlan))
		return 0;

	if (zalk_debug(ZALK_TIP)) {
		const uint8_t *m = port->mac;
		const uint8_t *s = frame + rx_off::SRC;
		zlog(LOG_NOTICE,
		     "%s() - %s type: %d\n port mac: %.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n pkt:%.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n",
		     "zalkv2_filter_packet", port->name, frame[rx_off::TYPE], m[0], m[1], m[2], m[3], m[4], m[5], s[0],
		     s[1], s[2], s[3], s[4], s[5]);
	}
	return 1;
}

void zalkv2_recv(int ins, zalkv2_port *port, const uint8_t *frame)
{
	zalkv2_instance &in = instances[ins];
	uint8_t type = frame[rx_off::TYPE];

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - ins: %d port:%s Recevied zalk packet with type %s\n", "zalkv2_recv", ins,
		     port->name, zalk_frame_type_name(type));

	int pi = rx_port_index(ins, port);
	if (type == zalk_frame_types[ZALK_RING - 1]) {
		in.port[pi].rx_ring++;
		// A bus edge is the end of the line: it turns Ring frames
		// around so the focal point sees them come back.
		if (in.role == RING_TYPE_MEMBER && is_bus_edge(ins))
			zalkv2_send_ring_frame(ins, pi);
	} else if (type == zalk_frame_types[ZALK_LINK_DOWN - 1]) {
		sm_send_event((uint32_t)ins, pi == PORT_B ? RX_LINKB_0 : RX_LINKA_0, nullptr, 0);
	} else if (type == zalk_frame_types[ZALK_LINK_UP - 1]) {
		sm_send_event((uint32_t)ins, pi == PORT_B ? RX_LINKB_1 : RX_LINKA_1, frame + rx_off::TYPE,
			      SM_LINK_UP_DATA_LEN);
	} else if (type == zalk_frame_types[ZALK_LINK_RESPONSE - 1]) {
		is_link_response_packet(ins, frame);
	} else if (type == zalk_frame_types[ZALK_FLUSH - 1]) {
		if (zalk_debug(ZALK_STATE)) {
			char src[MAC_TEXT_LEN];
			zlog(LOG_NOTICE, "%s() - ins:%d connected ring fdb flush: %s\n", "is_link_response_packet", ins,
			     mac_to_text(frame + rx_off::SRC, src, sizeof(src)));
		}
		sm_send_event((uint32_t)ins, FLUSH_FDB, nullptr, 0);
	} else if (type == zalk_frame_types[ZALK_TRIG - 1]) {
		if (in.role == RING_TYPE_MEMBER)
			sm_send_event((uint32_t)ins, FOCAL_TRIG, nullptr, 0);
	} else if (!is_hello_pkt(ins, port->ifindex, frame)) {
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - Unhandled packets\n", "zalkv2_recv");
	}
}

void is_link_response_packet(int ins, const uint8_t *frame)
{
	uint8_t own[8];
	zalkv2_own_bridge_id(ins, own);
	if (!same_mac(own + 2, frame + rx_off::RESP_EDGE1 + 2) && !same_mac(own + 2, frame + rx_off::RESP_EDGE2 + 2)) {
		// The response names other switches: the ring changed, so
		// forget what we learned.
		if (zalk_debug(ZALK_STATE)) {
			char src[MAC_TEXT_LEN];
			zlog(LOG_NOTICE, "%s() - ins:%d Link response: %s Flush FDB\n", "is_link_response_packet", ins,
			     mac_to_text(frame + rx_off::SRC, src, sizeof(src)));
		}
		sm_send_event((uint32_t)ins, FLUSH_FDB, nullptr, 0);
		return;
	}
	is_my_link_response(ins, frame);
}

void is_my_link_response(int ins, const uint8_t *frame)
{
	uint8_t own[8];
	zalkv2_own_bridge_id(ins, own);
	if (zalk_debug(ZALK_STATE)) {
		char br[MAC_TEXT_LEN], e1[MAC_TEXT_LEN], e2[MAC_TEXT_LEN];
		zlog(LOG_NOTICE, "%s() - br mac: %s edge mac1:%s mac2 %s\n", "is_my_link_response",
		     mac_to_text(own + 2, br, sizeof(br)), mac_to_text(frame + rx_off::RESP_EDGE1 + 2, e1, sizeof(e1)),
		     mac_to_text(frame + rx_off::RESP_EDGE2 + 2, e2, sizeof(e2)));
	}
	unsigned status = (unsigned)((frame[rx_off::STATUS] << 8) | frame[rx_off::STATUS + 1]) & 0x3;
	if (zalk_debug(ZALK_STATE)) {
		char src[MAC_TEXT_LEN];
		zlog(LOG_NOTICE, "%s() - ins:%d Link response: %s status: 0x%x\n", "is_link_response_packet", ins,
		     mac_to_text(frame + rx_off::SRC, src, sizeof(src)), status ? 1u : 0u);
	}
	sm_send_event((uint32_t)ins, status ? RX_LINK_RESPONSE_RING : RX_LINK_RESPONSE, nullptr, 0);
}

zalkv2_port *zalkv2_port_by_ifindex(int ifindex)
{
	if (ifindex == -1)
		return nullptr;
	for (zalkv2_instance &in : instances) {
		if (!in.enabled)
			continue;
		for (zalkv2_port &p : in.port)
			if (p.ifindex == ifindex)
				return &p;
	}
	return nullptr;
}

int zalkv2_instance_by_ifindex(int ifindex)
{
	if (ifindex == -1)
		return -1;
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		if (!instances[i].enabled)
			continue;
		for (const zalkv2_port &p : instances[i].port)
			if (p.ifindex == ifindex)
				return i;
	}
	return -1;
}

int zalkv2_port_index(int ins, int ifindex, int *out)
{
	if (ins < 0 || ins >= ZALK_MAX_INSTANCES || ifindex == -1)
		return 0;
	for (int p = PORT_A; p <= PORT_B; p++) {
		if (instances[ins].port[p].ifindex == ifindex) {
			*out = p;
			return 1;
		}
	}
	return 0;
}

char *mac_to_text(const uint8_t *mac, char *buf, size_t size)
{
	snprintf(buf, size, "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	return buf;
}
