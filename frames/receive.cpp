// The ring ports' receive side: each port's packet socket and its read
// callback, and what a received frame means: the checks that decide
// whether it counts, and the event (or the count, or the answer) of each
// type for the ring logic.
#include "frames/receive.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include "daemon/os.h"
#include "frames/frames.h"
#include "frames/hello.h"
#include "frames/senders.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "status/names.h"
#include "status/status.h"

namespace {
constexpr size_t RX_BUF_LEN = 2048;
constexpr size_t MAC_TEXT_LEN = 28;

bool same_mac(const uint8_t *a, const uint8_t *b) { return memcmp(a, b, 6) == 0; }
bool is_type(const zalkv2_rx_frame &f, zalk_frame_type t) { return f.type == zalk_frame_types[t - 1]; }
} // namespace

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
	// Which port of which ring: worked out here once for the frame.
	const zalkv2_ring_port rp = zalkv2_ring_port_by_ifindex(ifindex);
	if (!rp.port) {
		if (zalk_debug(ZALK_DBG))
			zlog(LOG_NOTICE, "%s() - Received invalid port num for ifindex %d\n\n", "packet_rcv", ifindex);
		return;
	}
	const zalkv2_rx_frame f = zalkv2_decode_frame(buf, len, vlan);
	if (!zalkv2_filter_packet(rp, f))
		return;

	debug_packet("Rx packets", f.bytes, ZALK_FRAME_LEN);

	// A frame with a broken header reads as ring 255 and is never taken
	// for our own, even by a ring configured with id 255. Rings with ids
	// of 256 and more carry only the low byte on the wire, never match
	// here and so hear nothing: such ids are not usable.
	if (!f.header_ok || f.ring_id != instances[rp.ins].ring_id) {
		instances[rp.ins].rx_errors[rp.pi].rx_wrong_ring_id = f.ring_id;
		return;
	}
	zalkv2_recv(rp, f);
}

int zalkv2_filter_packet(const zalkv2_ring_port &rp, const zalkv2_rx_frame &f)
{
	// Our own frames coming back around the ring are dropped, but for
	// Ring frames: their return is what the focal point waits for.
	for (const zalkv2_port &p : instances[rp.ins].port) {
		if (!zalkv2_port_configured(p))
			continue;
		if (same_mac(f.src, p.mac) && !is_type(f, ZALK_RING))
			return 0;
	}
	if (f.still_tagged)
		return 0;
	// Only with its type's tag: the socket filter drops the others
	// already; this is the check that holds whatever reached us.
	if (!zalkv2_vlan_ok(f.type, f.vlan))
		return 0;

	if (zalk_debug(ZALK_TIP)) {
		const uint8_t *m = rp.port->mac;
		const uint8_t *s = f.src;
		zlog(LOG_NOTICE,
		     "%s() - %s type: %d\n port mac: %.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n pkt:%.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n",
		     "zalkv2_filter_packet", rp.port->name, f.type, m[0], m[1], m[2], m[3], m[4], m[5], s[0], s[1], s[2],
		     s[3], s[4], s[5]);
	}
	return 1;
}

void zalkv2_recv(const zalkv2_ring_port &rp, const zalkv2_rx_frame &f)
{
	const int ins = rp.ins, pi = rp.pi;
	zalkv2_instance &in = instances[ins];

	if (zalk_debug(ZALK_TRACE))
		zlog(LOG_NOTICE, "%s() - ins: %d port:%s Recevied zalk packet with type %s\n", "zalkv2_recv", ins,
		     rp.port->name, zalk_frame_type_name(f.type));

	if (is_type(f, ZALK_RING)) {
		in.port[pi].rx_ring++;
		// A bus edge is the end of the line: it turns Ring frames
		// around so the focal point sees them come back.
		if (in.role == RING_TYPE_MEMBER && is_bus_edge(ins))
			zalkv2_send_ring_frame(ins, pi);
	} else if (is_type(f, ZALK_LINK_DOWN)) {
		sm_send_event((uint32_t)ins, pi == PORT_B ? RX_LINKB_0 : RX_LINKA_0, nullptr, 0);
	} else if (is_type(f, ZALK_LINK_UP)) {
		static_assert(SM_LINK_UP_DATA_LEN == ZALK_LINK_PAYLOAD_LEN, "a Link Up's event carries its payload");
		sm_send_event((uint32_t)ins, pi == PORT_B ? RX_LINKB_1 : RX_LINKA_1, f.link_payload, SM_LINK_UP_DATA_LEN);
	} else if (is_type(f, ZALK_LINK_RESPONSE)) {
		is_link_response_packet(ins, f);
	} else if (is_type(f, ZALK_FLUSH)) {
		if (zalk_debug(ZALK_STATE)) {
			char src[MAC_TEXT_LEN];
			zlog(LOG_NOTICE, "%s() - ins:%d connected ring fdb flush: %s\n", "is_link_response_packet", ins,
			     mac_to_text(f.src, src, sizeof(src)));
		}
		sm_send_event((uint32_t)ins, FLUSH_FDB, nullptr, 0);
	} else if (is_type(f, ZALK_TRIG)) {
		if (in.role == RING_TYPE_MEMBER)
			sm_send_event((uint32_t)ins, FOCAL_TRIG, nullptr, 0);
	} else if (!is_hello_pkt(ins, pi, f)) {
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - Unhandled packets\n", "zalkv2_recv");
	}
}

void is_link_response_packet(int ins, const zalkv2_rx_frame &f)
{
	uint8_t own[8];
	zalkv2_own_bridge_id(ins, own);
	if (!same_mac(own + 2, f.edge1 + 2) && !same_mac(own + 2, f.edge2 + 2)) {
		// The response names other switches: the ring changed, so
		// forget what we learned.
		if (zalk_debug(ZALK_STATE)) {
			char src[MAC_TEXT_LEN];
			zlog(LOG_NOTICE, "%s() - ins:%d Link response: %s Flush FDB\n", "is_link_response_packet", ins,
			     mac_to_text(f.src, src, sizeof(src)));
		}
		sm_send_event((uint32_t)ins, FLUSH_FDB, nullptr, 0);
		return;
	}
	is_my_link_response(ins, f);
}

void is_my_link_response(int ins, const zalkv2_rx_frame &f)
{
	uint8_t own[8];
	zalkv2_own_bridge_id(ins, own);
	if (zalk_debug(ZALK_STATE)) {
		char br[MAC_TEXT_LEN], e1[MAC_TEXT_LEN], e2[MAC_TEXT_LEN];
		zlog(LOG_NOTICE, "%s() - br mac: %s edge mac1:%s mac2 %s\n", "is_my_link_response",
		     mac_to_text(own + 2, br, sizeof(br)), mac_to_text(f.edge1 + 2, e1, sizeof(e1)),
		     mac_to_text(f.edge2 + 2, e2, sizeof(e2)));
	}
	unsigned status = f.status & 0x3u;
	if (zalk_debug(ZALK_STATE)) {
		char src[MAC_TEXT_LEN];
		zlog(LOG_NOTICE, "%s() - ins:%d Link response: %s status: 0x%x\n", "is_link_response_packet", ins,
		     mac_to_text(f.src, src, sizeof(src)), status ? 1u : 0u);
	}
	sm_send_event((uint32_t)ins, status ? RX_LINK_RESPONSE_RING : RX_LINK_RESPONSE, nullptr, 0);
}
