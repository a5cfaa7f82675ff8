// The status report written to standard error on SIGUSR1: every slot of
// the instance table, its ring ports and their hello state.
#include "status/report.h"

#include <cstdio>

#include "daemon/instance.h"
#include "status/files.h"
#include "status/names.h"
#include "status/status.h"

namespace {

void report_port(int ins, int p)
{
	zalkv2_instance &in = instances[ins];
	zalkv2_port &port = in.port[p];
	const char *letter = p == PORT_A ? "M" : "N";
	if (!zalkv2_port_configured(port)) {
		fprintf(stderr, " Port%s: %s\n", letter, "N/A");
		return;
	}
	fprintf(stderr, " Port%s: %.16s\n", letter, port.name);
	fprintf(stderr, "  State: %s (%s)\n", zalk_port_state_name(port.state),
		zalk_logical_state_name(zalk_port_logical_state(ins, p)));
	fprintf(stderr, "  Hello enable : %s\n", port.hello_enable ? "yes" : "no");
	fprintf(stderr, "  Hello state  : %s\n", zalk_hello_state_name(port.hello_state));
	fprintf(stderr, "  Hello resp   : %s\n", zalk_hello_resp_name(port.hello_resp));
	fprintf(stderr, "  Hello time   : %.3f\n", port.hello_time);
	fprintf(stderr, "  Tx ring pkt  : %s\n", port.tx_ring ? "True" : "False");
	fprintf(stderr, "  Rx ring pkt  : %s\n", port.rx_ring ? "True" : "False");
	fprintf(stderr, "  Forward delay: %d\n", port.fwd_delay);
	fprintf(stderr, "  Remote Bridge ID:\n");
	const uint8_t *mac = port.remote_bridge_id + 2;
	if (mac[0])
		fprintf(stderr, "\tPrio: 0\n\tID: %.2x:%.2x:%.2x:%.2x:%.2x:%.2x\n", mac[0], mac[1], mac[2], mac[3],
			mac[4], mac[5]);
	else
		fprintf(stderr, "\tNo Neighbor bridge ID\n");

	// Each receive error is shown once; a stored id equal to our own
	// ring id is not an error and stays as it is.
	zalkv2_rx_errors &err = in.rx_errors[p];
	if (err.rx_wrong_ring_id > 0 && err.rx_wrong_ring_id != in.ring_id) {
		fprintf(stderr, "  ERROR: Rx wrong ring id %d\n", err.rx_wrong_ring_id);
		err.rx_wrong_ring_id = 0;
	}
	if (err.rx_wrong_hello_time > 0) {
		fprintf(stderr, "  ERROR: RX wrong hello time %d\n", err.rx_wrong_hello_time);
		err.rx_wrong_hello_time = 0;
	}
	fprintf(stderr, "\n");
}

} // namespace

void zalk_status_report()
{
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		zalkv2_instance &in = instances[i];
		if (!in.enabled) {
			fprintf(stderr, " ZALK instance %d not enabled\n", i);
			continue;
		}
		fprintf(stderr, "Instance: %d %s\n", i, "Enabled");
		fprintf(stderr, " Ring id : %d\n", in.ring_id);
		fprintf(stderr, " Type    : %s\n", zalk_ring_type_name(in.role));
		fprintf(stderr, " State   : %s\n", zalk_ring_state_name(in.ring_state, true));
		fprintf(stderr, " Interval: %.3f\n", in.ring_interval);
		fprintf(stderr, " Guarded recovery: %s\n", in.guarded_recovery ? "Yes" : "No");
		fprintf(stderr, "\n");
		report_port(i, PORT_A);
		report_port(i, PORT_B);
		fprintf(stderr, "------------------------------------------\n");
	}
	fprintf(stderr, " 1=STATE, 2=DBG, 4=NOTE 8=TRACE, 16=MSG, 32=TIP\n");
	fprintf(stderr, " Debug level: %d\n", (int)zalk_debug_level());
}
