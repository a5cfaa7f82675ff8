// Interface queries through the interface socket: hardware address and
// whether the link is running.
#include "bridge/ifquery.h"

#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>

#include "daemon/os.h"
#include "status/status.h"

// Opened by bridge preparation.
int netsock = 0;

namespace {

// Fills the request with the interface's name; false when the index is
// not configured or the kernel no longer knows it.
bool ifreq_for(int ifindex, struct ifreq &ifr, char name[IF_NAMESIZE])
{
	if (ifindex == -1 || !os_if_indextoname((unsigned)ifindex, name))
		return false;
	memset(&ifr, 0, sizeof(ifr));
	snprintf(ifr.ifr_name, sizeof(ifr.ifr_name), "%.15s", name);
	return true;
}

} // namespace

int if_get_mac(int ifindex, uint8_t mac[6])
{
	if (netsock == 0) {
		zlog(LOG_ERR, "Interface socket not initialized\n");
		return -1;
	}
	struct ifreq ifr;
	char name[IF_NAMESIZE];
	if (!ifreq_for(ifindex, ifr, name) || os_ioctl(netsock, SIOCGIFHWADDR, &ifr) < 0)
		return 0; // the caller's buffer keeps what it had
	memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - %s(%d) mac: %.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n", "if_get_mac", name, ifindex,
		     mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
	return 0;
}

int zalkv2_if_running(int ifindex)
{
	struct ifreq ifr;
	char name[IF_NAMESIZE];
	if (!ifreq_for(ifindex, ifr, name) || os_ioctl(netsock, SIOCGIFFLAGS, &ifr) < 0)
		return 0;
	return ifr.ifr_flags & IFF_RUNNING;
}

int zalkv2_if_master(int ifindex)
{
	if (ifindex <= 0)
		return -1;
	return os_if_master((unsigned)ifindex);
}
