// The configuration file /etc/zalkv2d.conf and its schema.
#pragma once

#include <confuse.h>

// Builds the schema and parses the file. Returns the handle (the caller
// frees it with cfg_free) or nullptr after printing why it failed.
cfg_t *zalkv2_read_config();

// -1 when the port section is absent or has no name, else
// if_nametoindex of the name (0 when there is no such interface).
int zalkv2_cfg_port_ifindex(cfg_t *port_sec);

// 0 for a ring-role beginning with "focal", 1 for "member", else -1.
int zalkv2_cfg_ring_role(cfg_t *ring_sec);
