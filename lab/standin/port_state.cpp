// The daemon as the ring lab runs it on a kernel that cannot hold a bridge
// port in BLOCKING inside a network namespace.
//
// Outside the machine's own namespace a Linux bridge runs either its own
// STP, which refuses port states set from outside, or none, and then the
// kernel's port-state selection turns a port set to BLOCKING straight back
// to FORWARDING. DISABLED is left alone by that selection and, like
// BLOCKING, lets no bridged frame in or out, while the daemon's packet
// sockets on the port still see and send every protocol frame. So this
// build rewrites, at the rtnetlink boundary and nowhere else, a port-state
// request for BLOCKING into one for DISABLED before the kernel sees it.
// Everything else is the daemon unchanged: same objects, linked with
// --wrap for rtnl_talk.
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <sys/socket.h>

#include "bridge/rtnl.h"

#define REAL_TALK __real__Z9rtnl_talkP11rtnl_handleP8nlmsghdrPS2_
#define WRAP_TALK __wrap__Z9rtnl_talkP11rtnl_handleP8nlmsghdrPS2_

extern "C" int REAL_TALK(struct rtnl_handle *rtnl, struct nlmsghdr *n, struct nlmsghdr **answer);

static void block_as_disabled(struct nlmsghdr *n)
{
	if (n->nlmsg_type != RTM_SETLINK || n->nlmsg_len < NLMSG_LENGTH(sizeof(struct ifinfomsg)))
		return;
	auto *ifi = static_cast<struct ifinfomsg *>(NLMSG_DATA(n));
	if (ifi->ifi_family != AF_BRIDGE)
		return;
	int len = (int)n->nlmsg_len - (int)NLMSG_LENGTH(sizeof(*ifi));
	for (auto *rta = IFLA_RTA(ifi); RTA_OK(rta, len); rta = RTA_NEXT(rta, len)) {
		if ((rta->rta_type & ~NLA_F_NESTED) != IFLA_PROTINFO)
			continue;
		int plen = (int)RTA_PAYLOAD(rta);
		for (auto *a = static_cast<struct rtattr *>(RTA_DATA(rta)); RTA_OK(a, plen); a = RTA_NEXT(a, plen)) {
			auto *state = static_cast<uint8_t *>(RTA_DATA(a));
			if (a->rta_type == IFLA_BRPORT_STATE && *state == BR_STATE_BLOCKING)
				*state = BR_STATE_DISABLED;
		}
	}
}

extern "C" int WRAP_TALK(struct rtnl_handle *rtnl, struct nlmsghdr *n, struct nlmsghdr **answer)
{
	block_as_disabled(n);
	return REAL_TALK(rtnl, n, answer);
}
