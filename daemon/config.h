// The configuration file /etc/zalkv2d.conf: its schema, loading it, and
// the checks that decide whether a ring can run at all.
//
// Everything here but the two daemon readers at the end is pure: no OS
// boundary, no instance table. zalkctl links the same code, so the
// daemon and the operator's check can never read a file differently.
#pragma once

#include <confuse.h>
#include <cstddef>

// Largest file read. Ten rings take about 3 KiB; anything much bigger is
// not a configuration file, and parsing megabytes would keep the daemon
// away from its rings for seconds.
constexpr long ZALK_CONFIG_MAX_SIZE = 64 * 1024;

// Builds the schema and parses the file at path. Returns the handle (the
// caller frees it with cfg_free) or nullptr after printing why it failed
// ("Cannot read configuration file ..." or "Error when parsing
// configuration file ..."). Only a regular file of at most
// ZALK_CONFIG_MAX_SIZE bytes is opened; a file that ends inside a section
// is a parse error.
// With report false nothing is printed (libconfuse's diagnostics neither).
cfg_t *zalkv2_load_config(const char *path, bool report = true);

// The schema as a libconfuse handle, nothing parsed into it yet (the
// fuzz target holds libconfuse's own reading against the loader's).
cfg_t *zalkv2_config_schema();

// 0 for a ring-role beginning with "focal", 1 for "member", else -1.
int zalkv2_cfg_ring_role(cfg_t *ring_sec);

// Whether name is a Linux interface name the daemon can use: 1 to 15
// characters, no '/', ':' or blank, not "." or "..", and none of the
// file names of the ring's own status directory.
bool zalkv2_port_name_usable(const char *name);

// A value the daemon refuses to run a ring with.
struct zalkv2_refusal {
	const char *option; // the option's name
	const char *port;   // title of the port section it is in, or nullptr
	char value[64];     // its value as written
	const char *why;
};

// The first refused value of a ring section, or false when the ring can
// run. Focal-only options count only on a focal point.
bool zalkv2_ring_refused(cfg_t *ring_sec, zalkv2_refusal *out);

// "[port <title>: ]<option> = <value> refused: <why>" (no line end).
void zalkv2_refusal_text(char *buf, size_t size, const zalkv2_refusal &r);

// The daemon's readers (configure.cpp; they use the OS boundary).
// zalkv2_read_config loads /etc/zalkv2d.conf below the OS root.
cfg_t *zalkv2_read_config();
// -1 when the port section is absent or has no name, else
// if_nametoindex of the name (0 when there is no such interface).
int zalkv2_cfg_port_ifindex(cfg_t *port_sec);
