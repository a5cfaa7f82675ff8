// Packet sockets: the kernel filter every one of them carries, opening
// one, and the send path.
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
#include "status/names.h"
#include "status/status.h"

static_assert(zalk_names::frame_types.size() == ZALK_TRIG + 1, "a name for every frame type");

int send_sock = -1;

namespace {
// The kernel's filter: lets through only frames to the protocol's group
// prefix 03:4B:A1 that came with the tag of their type, so that neither
// other traffic nor protocol frames from outside the protocol's VLANs
// (a host on an access port) ever wake the daemon. The kernel has taken
// the tag off; the ancillary loads read it, and the type byte lies where
// it does in a frame without its tag. Built from the table the templates
// take their tags from; the receive path checks the same again.
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
