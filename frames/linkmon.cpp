// Link monitoring: the kernel's link notifications about ring ports, read
// from an rtnetlink socket subscribed to RTMGRP_LINK, become operational
// state updates, status file updates and link events.
#include "frames/linkmon.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "bridge/ifquery.h"
#include "daemon/os.h"
#include "frames/hello.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "status/files.h"
#include "status/status.h"

struct rtnl_handle link_rth = {.fd = -1};
ev_io link_watcher;
ev_timer world_timer;

namespace {

// Set once link_watcher has been initialised on an open, non-blocking
// link_rth. Without it the daemon runs without link notifications and the
// watcher must never reach libev.
bool link_watcher_ready = false;

// One datagram of link notifications; large enough for the biggest
// RTM_NEWLINK the kernel sends for an ordinary port.
alignas(struct nlmsghdr) char link_buf[32768];

// Header of a link message: the netlink header and the ifinfomsg.
constexpr int LINK_MSG_HDR = NLMSG_LENGTH(sizeof(struct ifinfomsg));

// Whether a link message tells of br0 or of a ring port being created,
// deleted, re-created under a new index or moved to another master:
// whatever a ring's set-up put on that interface is then gone. The full
// (AF_UNSPEC) message tells all of it; the bridge family's repeat it.
bool world_news(const struct nlmsghdr *n, struct ifinfomsg *ifi, int len)
{
	if (ifi->ifi_family != AF_UNSPEC || (n->nlmsg_type != RTM_NEWLINK && n->nlmsg_type != RTM_DELLINK))
		return false;
	struct rtattr *tb[IFLA_MAX + 1];
	parse_rtattr_flags(tb, IFLA_MAX, IFLA_RTA(ifi), len, NLA_F_NESTED);
	if (!tb[IFLA_IFNAME])
		return false;
	const char *name = static_cast<const char *>(RTA_DATA(tb[IFLA_IFNAME]));
	const size_t name_len = strnlen(name, RTA_PAYLOAD(tb[IFLA_IFNAME]));
	const bool gone = n->nlmsg_type == RTM_DELLINK;
	const int master = tb[IFLA_MASTER] && RTA_PAYLOAD(tb[IFLA_MASTER]) >= 4
				   ? (int)*static_cast<const uint32_t *>(RTA_DATA(tb[IFLA_MASTER]))
				   : 0;
	bool bridge_known = false;
	for (const zalkv2_instance &in : instances) {
		if (!in.enabled)
			continue;
		bridge_known = bridge_known || in.bridge_ifindex == ifi->ifi_index;
		for (const zalkv2_port &port : in.port)
			if (zalkv2_port_configured(port) && strnlen(port.name, sizeof(port.name)) == name_len &&
			    memcmp(port.name, name, name_len) == 0 &&
			    (gone || ifi->ifi_index != port.ifindex || master != port.master))
				return true;
	}
	// The bridge's own messages (carrier, addresses) change nothing while
	// it is the one the rings were set up on.
	return name_len == 3 && memcmp(name, "br0", 3) == 0 && (gone || !bridge_known);
}

} // namespace

void zalkv2_init_sockets()
{
	zalkv2_link_monitor_stop(); // never re-initialise a running watcher
	link_watcher_ready = false;

	send_sock = zalkv2_open_packet_socket();
	if (send_sock < 0)
		zlog(LOG_ERR, "Can not initialize send socket\n");

	if (rtnl_open(&link_rth, RTMGRP_LINK) < 0) {
		zlog(LOG_ERR, "netlink init failed!\n\n");
		return;
	}
	if (os_set_nonblock(link_rth.fd) < 0) {
		// A blocking monitor socket would stall the loop: give it up.
		zlog(LOG_ERR, "netlink init failed!\n\n");
		rtnl_close(&link_rth);
		return;
	}
	ev_io_init(&link_watcher, netlink_io_cb, link_rth.fd, EV_READ);
	ev_set_priority(&link_watcher, ZALK_PRI_KERNEL);
	link_watcher_ready = true;
}

void zalkv2_link_monitor_start()
{
	// When link_rth could not be opened at start-up ("netlink init
	// failed!"), the watcher was never initialised: the daemon then runs
	// on the link states read at each configuration only.
	if (!link_watcher_ready)
		return;
	ev_io_start(EV_DEFAULT, &link_watcher);
}

void zalkv2_link_monitor_stop()
{
	if (!link_watcher_ready)
		return;
	ev_io_stop(EV_DEFAULT, &link_watcher);
}

void netlink_io_cb(struct ev_loop *, ev_io *, int)
{
	link_listen(&link_rth, netlink_listen, stdout);
}

int link_listen(struct rtnl_handle *rth, rtnl_listen_filter_t handler, void *arg)
{
	struct sockaddr_nl nladdr = {};
	struct iovec iov = {};
	struct msghdr msg = {};
	msg.msg_name = &nladdr;
	msg.msg_iov = &iov;
	msg.msg_iovlen = 1;

	for (;;) {
		nladdr = {};
		msg.msg_namelen = sizeof(nladdr);
		iov.iov_base = link_buf;
		iov.iov_len = sizeof(link_buf);

		// MSG_DONTWAIT as well: this runs inside the event loop and must
		// not wait even if the socket were left blocking.
		ssize_t status = os_recvmsg(rth->fd, &msg, MSG_DONTWAIT);
		if (status < 0) {
			const int err = errno;
			if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR)
				return 0;
			zlog(LOG_ERR, "netlink receive error %s (%d)\n\n", strerror(err), err);
			// An overrun only lost notifications; the socket goes on.
			if (err == ENOBUFS)
				return 0;
			return -1;
		}
		if (status == 0) {
			zlog(LOG_ERR, "EOF on netlink\n\n");
			return -1;
		}

		// A truncated tail (MSG_TRUNC, or a partial last message) is
		// skipped: NLMSG_OK stops at the first message that does not fit.
		int len = (int)status;
		for (struct nlmsghdr *h = reinterpret_cast<struct nlmsghdr *>(link_buf); NLMSG_OK(h, len);
		     h = NLMSG_NEXT(h, len)) {
			int answer = handler(&nladdr, h, arg);
			if (answer < 0)
				return answer;
		}
	}
}

int netlink_listen(const struct sockaddr_nl *, struct nlmsghdr *n, void *)
{
	if (n->nlmsg_type == NLMSG_DONE)
		return 0;

	const int len = (int)n->nlmsg_len - LINK_MSG_HDR;
	if (len < 0)
		return -1;

	auto *ifi = static_cast<struct ifinfomsg *>(NLMSG_DATA(n));
	// One check per burst: a network reload deletes and creates br0 and
	// moves every port in a few milliseconds.
	if (world_news(n, ifi, len) && ev_cb(&world_timer) && !ev_is_active(&world_timer))
		ev_timer_start(EV_DEFAULT, &world_timer);
	zalkv2_port *port = zalkv2_port_by_ifindex(ifi->ifi_index);
	if (!port)
		return 0;
	if (ifi->ifi_family != AF_UNSPEC && ifi->ifi_family != AF_BRIDGE)
		return 0;
	if (n->nlmsg_type != RTM_NEWLINK && n->nlmsg_type != RTM_DELLINK)
		return 0;

	struct rtattr *tb[IFLA_MAX + 1];
	parse_rtattr_flags(tb, IFLA_MAX, IFLA_RTA(ifi), len, NLA_F_NESTED);

	if (!tb[IFLA_IFNAME]) {
		puts("BUG: nil ifname");
		fflush(stdout);
		return -1;
	}
	if (!tb[IFLA_OPERSTATE])
		return 0;

	const uint8_t op = *static_cast<const uint8_t *>(RTA_DATA(tb[IFLA_OPERSTATE]));
	if (op == port->operstate)
		return 0;

	if (op <= IF_OPER_DORMANT) {
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - LINK DOWN %s\n", "netlink_listen", port->name);
		zalkv2_link_changed(port, 0);
	} else if (op == IF_OPER_UP) {
		if (zalk_debug(ZALK_STATE))
			zlog(LOG_NOTICE, "%s() - LINK UP %s\n", "netlink_listen", port->name);
		zalkv2_link_changed(port, 1);
	}
	return 0;
}

void zalkv2_link_changed(zalkv2_port *port, int up)
{
	if (!zalkv2_port_configured(*port))
		return;
	const int ins = port->instance->index;
	const int p = (int)port->port_index;

	if (up) {
		port->operstate = ZALK_OPER_UP;
		// The port's files tell of the report before the ring logic
		// has reacted to it.
		zalk_set_port_status(ins, p);
		// With hello the next tick moves the port on; qualification,
		// not carrier, makes the link usable.
		if (port->hello_enable)
			return;
		sm_send_event((uint32_t)ins, p == PORT_A ? LINKA0_1 : LINKB0_1, nullptr, 0);
	} else {
		port->operstate = ZALK_OPER_DOWN;
		zalk_set_port_status(ins, p);
		if (port->hello_enable)
			hello_set_state(ins, p, HELLO_PHY_DOWN);
		else
			sm_send_event((uint32_t)ins, p == PORT_A ? LINKA1_0 : LINKB1_0, nullptr, 0);
	}
}

void zalkv2_update_link_status(int ins)
{
	zalkv2_instance &inst = instances[ins];
	const int run_a = zalkv2_if_running(inst.port[PORT_A].ifindex);
	const int run_b = zalkv2_if_running(inst.port[PORT_B].ifindex);

	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - I(%d): Link A(%d): %d Link B(%d): %d\n", "zalkv2_update_link_status", ins,
		     inst.port[PORT_A].ifindex, run_a, inst.port[PORT_B].ifindex, run_b);

	zalkv2_link_changed(&inst.port[PORT_A], run_a);
	zalkv2_link_changed(&inst.port[PORT_B], run_b);
}
