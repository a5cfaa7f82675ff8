// A thin rtnetlink layer with the names and behaviour of iproute2's
// libnetlink, as far as the daemon uses it.
//
// rtnl_open, rtnl_close and rtnl_talk talk to the kernel and are part of
// the OS boundary (rtnl.cpp for the real system, the fakes in the unit
// tests). The attribute builders and parsers are pure (rtattr.cpp).
#pragma once

#include <cstdint>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

struct rtnl_handle {
	int fd;
	struct sockaddr_nl local;
	struct sockaddr_nl peer;
	uint32_t seq;
	uint32_t dump;
	int proto;
	int flags;
};

typedef int (*rtnl_listen_filter_t)(const struct sockaddr_nl *who, struct nlmsghdr *n, void *arg);

// Opens a NETLINK_ROUTE socket subscribed to the given groups.
// 0 on success, -1 after logging why not.
int rtnl_open(struct rtnl_handle *rth, unsigned subscriptions);
void rtnl_close(struct rtnl_handle *rth);

// Sends one request with NLM_F_ACK and a fresh sequence number and waits
// for its acknowledgement. answer must be nullptr (no caller wants one).
// 0 on success; negative when the kernel answers with an error, which is
// reported to syslog at LOG_ERR as "RTNETLINK answers: %s" (with the
// kernel's extended-ack message when there is one).
int rtnl_talk(struct rtnl_handle *rtnl, struct nlmsghdr *n, struct nlmsghdr **answer);

int addattr(struct nlmsghdr *n, int maxlen, int type);
int addattr8(struct nlmsghdr *n, int maxlen, int type, uint8_t data);
int addattr16(struct nlmsghdr *n, int maxlen, int type, uint16_t data);
int addattr32(struct nlmsghdr *n, int maxlen, int type, uint32_t data);
int addattr_l(struct nlmsghdr *n, int maxlen, int type, const void *data, int alen);
struct rtattr *addattr_nest(struct nlmsghdr *n, int maxlen, int type);
int addattr_nest_end(struct nlmsghdr *n, struct rtattr *nest);
int parse_rtattr_flags(struct rtattr *tb[], int max, struct rtattr *rta, int len, unsigned short flags);

#define NLMSG_TAIL(nmsg) ((struct rtattr *)(((char *)(nmsg)) + NLMSG_ALIGN((nmsg)->nlmsg_len)))
