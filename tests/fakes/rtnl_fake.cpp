// Fake rtnetlink transport: requests are recorded byte for byte.
#include <cstring>

#include "bridge/rtnl.h"
#include "tests/fakes/fake.h"

int rtnl_open(struct rtnl_handle *rth, unsigned subscriptions)
{
	memset(rth, 0, sizeof(*rth));
	if (fake::rtnl_open_fails) {
		rth->fd = -1;
		return -1;
	}
	rth->fd = 300 + (int)subscriptions;
	rth->local.nl_groups = subscriptions;
	return 0;
}

void rtnl_close(struct rtnl_handle *rth)
{
	if (rth->fd >= 0)
		rth->fd = -1;
}

int rtnl_talk(struct rtnl_handle *rtnl, struct nlmsghdr *n, struct nlmsghdr **)
{
	n->nlmsg_seq = ++rtnl->seq;
	n->nlmsg_flags |= NLM_F_ACK;
	auto *p = reinterpret_cast<const uint8_t *>(n);
	fake::netlink.emplace_back(p, p + n->nlmsg_len);
	return fake::talk_hook ? fake::talk_hook(n) : 0;
}
