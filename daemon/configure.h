// Turning the configuration file into running ring instances, at
// start-up and on every SIGHUP.
#pragma once

#include <confuse.h>
#include <ev.h>

void zalkv2_configure_instances(struct ev_loop *loop);
void zalkv2_teardown_instance(int ins, struct ev_loop *loop);
// After br0 or a ring port was re-created: sets up again, as a reload
// sets up a changed ring, every ring whose interfaces are back whole, and
// the rings that wait for br0 once it is there; publishes what the others
// wait for. True when it set a ring up.
bool zalkv2_repair_instances(struct ev_loop *loop);
int zalkv2_port_config_changed(int ins, int p, cfg_t *ring_sec);
// Slot ins's record from its ring section (identity, ports, role and the
// focal point's values, then enabled); starts nothing: set-up does that.
void zalkv2_write_instance(int ins, cfg_t *ring_sec, int bridge_ifindex);
void zalkv2_configure_port(int ins, int p, cfg_t *ring_sec);
