// The two ring ports of an instance as each other's backup port, so the
// bridge moves a dead port's traffic over before the protocol reacts.
#include "bridge/backup.h"

#include "daemon/instance.h"
#include "daemon/commands.h"
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

		zalk_command cmd;
		cmd.fixed("bridge link set dev").name(port.name, sizeof(port.name));
		if (add)
			cmd.fixed("backup_port").name(other.name, sizeof(other.name));
		else
			cmd.fixed("nobackup_port");
		int status = cmd.run();
		if (zalk_debug(ZALK_DBG))
			zlog(LOG_NOTICE, "%s() - %s\n", "zalkv2_setup_buddy_ports", cmd.text());
		if (status) {
			zlog(LOG_ERR, "Could not add buddy port for ring port %.16s\n", port.name);
			return status;
		}
	}
	return 0;
}
