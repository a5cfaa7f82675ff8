// The two ring ports of an instance as each other's backup port, so the
// bridge moves a dead port's traffic over before the protocol reacts.
#include "bridge/backup.h"

#include <cstdio>

#include "daemon/instance.h"
#include "daemon/util.h"
#include "status/status.h"

int zalkv2_setup_buddy_ports(int ins, int add)
{
	zalkv2_instance &in = instances[ins];
	// A ring with a single port has nothing to back it up.
	if (!zalkv2_port_configured(in.port[PORT_B]))
		return 0;

	for (int p = PORT_A; p <= PORT_B; p++) {
		const zalkv2_port &port = in.port[p];
		const zalkv2_port &other = in.port[p == PORT_A ? PORT_B : PORT_A];
		if (!zalkv2_port_configured(port))
			continue;

		char cmd[96];
		if (add)
			snprintf(cmd, sizeof(cmd), "bridge link set dev %.16s backup_port %.16s", port.name, other.name);
		else
			snprintf(cmd, sizeof(cmd), "bridge link set dev %.16s nobackup_port", port.name);
		int status = zalk_run_command(cmd);
		if (zalk_debug(ZALK_DBG))
			zlog(LOG_NOTICE, "%s() - %s\n", "zalkv2_setup_buddy_ports", cmd);
		if (status) {
			zlog(LOG_ERR, "Could not add buddy port for ring port %.16s\n", port.name);
			return status;
		}
	}
	return 0;
}
