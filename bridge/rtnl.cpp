// The rtnetlink transport for the real system: one NETLINK_ROUTE socket
// per handle and synchronous requests that wait for their ack.
//
// Kernel errors are reported to syslog at LOG_ERR as
//   "RTNETLINK answers: <strerror>\n"
// and, when the kernel explained itself in an extended ack, that text
// follows on a line of its own as
//   "Error: <message>.\n"
// (the full stop is added only when the message lacks one), the way the
// iproute2 tools print it. An extended-ack text on a successful request is
// a kernel warning and goes out at LOG_WARNING as "Warning: <message>.\n".
#include "bridge/rtnl.h"

#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <sys/uio.h>

#include "daemon/os.h"
#include "status/status.h"

#ifndef SOL_NETLINK
#define SOL_NETLINK 270
#endif

namespace {

constexpr int RTNL_SNDBUF = 32768;
constexpr int RTNL_RCVBUF = 1024 * 1024;
// Every request the daemon sends is about 1 KiB; an error ack echoes it
// back with the extended-ack attributes, so this is ample.
constexpr size_t RTNL_RXBUF = 32768;

// Closes a half-opened handle; -1 for the caller to return.
int close_failed(struct rtnl_handle *rth)
{
	if (rth->fd >= 0)
		os_close(rth->fd);
	rth->fd = -1;
	return -1;
}

int fail_open(struct rtnl_handle *rth, const char *what)
{
	zlog(LOG_ERR, "%s: %s\n", what, strerror(errno));
	return close_failed(rth);
}

int ext_ack_attr_cb(const struct nlattr *attr, void *data)
{
	auto **tb = static_cast<const struct nlattr **>(data);
	uint16_t type = mnl_attr_get_type(attr);
	if (mnl_attr_type_valid(attr, NLMSGERR_ATTR_MAX) < 0)
		return MNL_CB_OK; // attributes of a newer kernel are passed over
	if (type == NLMSGERR_ATTR_MSG && mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) < 0)
		return MNL_CB_ERROR;
	tb[type] = attr;
	return MNL_CB_OK;
}

// The kernel's explanation attached to an ack, or nullptr.
const char *ext_ack_message(const struct nlmsghdr *h)
{
	if (!(h->nlmsg_flags & NLM_F_ACK_TLVS))
		return nullptr;
	auto *err = static_cast<const struct nlmsgerr *>(NLMSG_DATA(h));
	size_t hlen = sizeof(*err);
	// Unless capped, the ack carries the whole request after its header.
	if (!(h->nlmsg_flags & NLM_F_CAPPED)) {
		if (err->msg.nlmsg_len < sizeof(struct nlmsghdr))
			return nullptr;
		hlen += err->msg.nlmsg_len - sizeof(struct nlmsghdr);
	}
	if (NLMSG_LENGTH(hlen) > h->nlmsg_len)
		return nullptr;
	const struct nlattr *tb[NLMSGERR_ATTR_MAX + 1] = {};
	if (mnl_attr_parse(h, (unsigned)hlen, ext_ack_attr_cb, tb) != MNL_CB_OK)
		return nullptr;
	if (!tb[NLMSGERR_ATTR_MSG])
		return nullptr;
	const char *msg = mnl_attr_get_str(tb[NLMSGERR_ATTR_MSG]);
	return *msg ? msg : nullptr;
}

void report_ext_ack(int prio, const char *label, const char *msg)
{
	size_t len = strlen(msg);
	zlog(prio, "%s: %s%s\n", label, msg, msg[len - 1] == '.' ? "" : ".");
}

} // namespace

int rtnl_open(struct rtnl_handle *rth, unsigned subscriptions)
{
	memset(rth, 0, sizeof(*rth));
	rth->proto = NETLINK_ROUTE;
	rth->fd = os_socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
	if (rth->fd < 0)
		return fail_open(rth, "Cannot open netlink socket");

	int sndbuf = RTNL_SNDBUF;
	if (os_setsockopt(rth->fd, SOL_SOCKET, SO_SNDBUF, &sndbuf, sizeof(sndbuf)) < 0)
		return fail_open(rth, "SO_SNDBUF");
	int rcvbuf = RTNL_RCVBUF;
	if (os_setsockopt(rth->fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf)) < 0)
		return fail_open(rth, "SO_RCVBUF");
	// Ask for the kernel's explanations; a kernel without them still acks.
	int one = 1;
	os_setsockopt(rth->fd, SOL_NETLINK, NETLINK_EXT_ACK, &one, sizeof(one));

	rth->local.nl_family = AF_NETLINK;
	rth->local.nl_groups = subscriptions;
	if (os_bind(rth->fd, reinterpret_cast<struct sockaddr *>(&rth->local), sizeof(rth->local)) < 0)
		return fail_open(rth, "Cannot bind netlink socket");
	socklen_t addr_len = sizeof(rth->local);
	if (os_getsockname(rth->fd, reinterpret_cast<struct sockaddr *>(&rth->local), &addr_len) < 0)
		return fail_open(rth, "Cannot getsockname");
	if (addr_len != sizeof(rth->local)) {
		zlog(LOG_ERR, "Wrong address length %d\n", (int)addr_len);
		return close_failed(rth);
	}
	if (rth->local.nl_family != AF_NETLINK) {
		zlog(LOG_ERR, "Wrong address family %d\n", rth->local.nl_family);
		return close_failed(rth);
	}
	struct timeval tv;
	os_gettimeofday(&tv);
	rth->seq = (uint32_t)tv.tv_sec;
	return 0;
}

void rtnl_close(struct rtnl_handle *rth)
{
	if (rth->fd >= 0) {
		os_close(rth->fd);
		rth->fd = -1;
	}
}

// 0 on the kernel's ack; on a kernel error its negative errno (errno is
// set too); -1 when the socket itself failed.
int rtnl_talk(struct rtnl_handle *rtnl, struct nlmsghdr *n, struct nlmsghdr **answer)
{
	// No caller takes an answer; none is ever handed out.
	if (answer)
		*answer = nullptr;

	struct sockaddr_nl nladdr = {};
	nladdr.nl_family = AF_NETLINK;
	n->nlmsg_seq = ++rtnl->seq;
	n->nlmsg_flags |= NLM_F_ACK;

	struct iovec iov = {n, n->nlmsg_len};
	struct msghdr msg = {};
	msg.msg_name = &nladdr;
	msg.msg_namelen = sizeof(nladdr);
	msg.msg_iov = &iov;
	msg.msg_iovlen = 1;
	if (os_sendmsg(rtnl->fd, &msg, 0) < 0) {
		zlog(LOG_ERR, "Cannot talk to rtnetlink: %s\n", strerror(errno));
		return -1;
	}

	alignas(struct nlmsghdr) char buf[RTNL_RXBUF];
	for (;;) {
		iov = {buf, sizeof(buf)};
		msg = {};
		msg.msg_name = &nladdr;
		msg.msg_namelen = sizeof(nladdr);
		msg.msg_iov = &iov;
		msg.msg_iovlen = 1;
		ssize_t status = os_recvmsg(rtnl->fd, &msg, 0);
		if (status < 0) {
			if (errno == EINTR)
				continue;
			zlog(LOG_ERR, "netlink receive error %s (%d)\n", strerror(errno), errno);
			return -1;
		}
		if (status == 0) {
			zlog(LOG_ERR, "EOF on netlink\n");
			return -1;
		}
		if (msg.msg_flags & MSG_TRUNC)
			zlog(LOG_ERR, "Message truncated\n");
		if (msg.msg_namelen != sizeof(nladdr) || nladdr.nl_pid != 0)
			continue; // only the kernel answers requests

		int left = (int)status;
		for (auto *h = reinterpret_cast<struct nlmsghdr *>(buf); NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
			if (h->nlmsg_pid != rtnl->local.nl_pid || h->nlmsg_seq != n->nlmsg_seq)
				continue; // an answer to an earlier, abandoned request
			if (h->nlmsg_type != NLMSG_ERROR)
				continue; // a reply nobody asked to keep; the ack follows
			if (h->nlmsg_len < NLMSG_LENGTH(sizeof(struct nlmsgerr))) {
				zlog(LOG_ERR, "ERROR truncated\n");
				return -1;
			}
			auto *err = static_cast<const struct nlmsgerr *>(NLMSG_DATA(h));
			const char *ext = ext_ack_message(h);
			if (!err->error) {
				if (ext)
					report_ext_ack(LOG_WARNING, "Warning", ext);
				return 0;
			}
			int e = err->error < 0 ? -err->error : err->error;
			zlog(LOG_ERR, "RTNETLINK answers: %s\n", strerror(e));
			if (ext)
				report_ext_ack(LOG_ERR, "Error", ext);
			errno = e;
			return -e;
		}
	}
}
