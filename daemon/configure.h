// Turning the configuration file into running ring instances, at
// start-up and on every SIGHUP.
#pragma once

#include <confuse.h>
#include <ev.h>

void zalkv2_configure_instances(struct ev_loop *loop);
void zalkv2_teardown_instance(int ins, struct ev_loop *loop);
int zalkv2_find_instance(int ring_id);
int zalkv2_alloc_instance(int ring_id);
int zalkv2_port_config_changed(int ins, int p, cfg_t *ring_sec);
void zalkv2_configure_port(int ins, int p, cfg_t *ring_sec);
void zalkv2_set_drop_filters(int add);
void zalkv2_refresh_drop_filters();
