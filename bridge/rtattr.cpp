// rtnetlink attribute builders and the attribute parser: pure functions
// on a request buffer, no contact with the system beyond error lines.
#include <cstring>

#include "bridge/rtnl.h"
#include "status/status.h"

int addattr_l(struct nlmsghdr *n, int maxlen, int type, const void *data, int alen)
{
	int len = RTA_LENGTH(alen);
	// maxlen is the size of the whole request buffer; an attribute that
	// would not fit is refused and the request stays as it was.
	if ((int)(NLMSG_ALIGN(n->nlmsg_len) + RTA_ALIGN(len)) > maxlen) {
		zlog(LOG_ERR, "addattr_l ERROR: message exceeded bound of %d\n", maxlen);
		return -1;
	}
	struct rtattr *rta = NLMSG_TAIL(n);
	rta->rta_type = (unsigned short)type;
	rta->rta_len = (unsigned short)len;
	if (alen)
		memcpy(RTA_DATA(rta), data, alen);
	n->nlmsg_len = NLMSG_ALIGN(n->nlmsg_len) + RTA_ALIGN(len);
	return 0;
}

int addattr(struct nlmsghdr *n, int maxlen, int type) { return addattr_l(n, maxlen, type, nullptr, 0); }

int addattr8(struct nlmsghdr *n, int maxlen, int type, uint8_t data)
{
	return addattr_l(n, maxlen, type, &data, sizeof(data));
}

int addattr16(struct nlmsghdr *n, int maxlen, int type, uint16_t data)
{
	return addattr_l(n, maxlen, type, &data, sizeof(data));
}

int addattr32(struct nlmsghdr *n, int maxlen, int type, uint32_t data)
{
	return addattr_l(n, maxlen, type, &data, sizeof(data));
}

struct rtattr *addattr_nest(struct nlmsghdr *n, int maxlen, int type)
{
	struct rtattr *nest = NLMSG_TAIL(n);
	// A nest that did not fit is handed back as nullptr so that closing it
	// cannot write past the end of the buffer.
	if (addattr_l(n, maxlen, type, nullptr, 0) < 0)
		return nullptr;
	return nest;
}

int addattr_nest_end(struct nlmsghdr *n, struct rtattr *nest)
{
	if (nest)
		nest->rta_len = (unsigned short)((char *)NLMSG_TAIL(n) - (char *)nest);
	return (int)n->nlmsg_len;
}

int parse_rtattr_flags(struct rtattr *tb[], int max, struct rtattr *rta, int len, unsigned short flags)
{
	memset(tb, 0, sizeof(struct rtattr *) * (max + 1));
	while (RTA_OK(rta, len)) {
		unsigned short type = rta->rta_type & ~flags;
		// The first attribute of a type wins, as the kernel's own parser does.
		if (type <= max && !tb[type])
			tb[type] = rta;
		rta = RTA_NEXT(rta, len);
	}
	// A remainder too short for a header is reported without reading it.
	if (len)
		zlog(LOG_ERR, "!!!Deficit %d, rta_len=%d\n", len,
		     len >= (int)sizeof(*rta) ? rta->rta_len : 0);
	return 0;
}
