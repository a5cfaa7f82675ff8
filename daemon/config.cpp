// The configuration file /etc/zalkv2d.conf: its schema, loading it, and
// the two readers the instance configuration uses.
#include "daemon/config.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "daemon/os.h"
#include "daemon/util.h"

cfg_t *zalkv2_read_config()
{
	// Built anew on every call: cfg_init copies the records, and the
	// handle it returns is the only thing that outlives this function.
	cfg_opt_t port_opts[] = {
		CFG_STR("name", "eth(xx)", CFGF_NONE),
		CFG_INT("hello-enable", 1, CFGF_NONE),
		CFG_INT("hello-time", 500, CFGF_NONE),     // milliseconds
		CFG_INT("forward-delay", 0, CFGF_NONE),    // seconds
		CFG_END(),
	};
	cfg_opt_t ring_opts[] = {
		CFG_INT("version", 2, CFGF_NONE),
		CFG_INT("ring-id", -1, CFGF_NONE),
		CFG_STR("ring-role", nullptr, CFGF_NONE),
		CFG_STR("bridge", "br0", CFGF_NONE),       // accepted, never read
		CFG_INT("guarded-recovery", 1, CFGF_NONE),
		CFG_INT("ring-interval", 500, CFGF_NONE),  // milliseconds
		CFG_STR("blocked-port", "auto", CFGF_NONE),
		CFG_INT("response-delay", 1500, CFGF_NONE), // milliseconds
		CFG_SEC("port", port_opts, CFGF_MULTI | CFGF_TITLE),
		CFG_END(),
	};
	cfg_opt_t opts[] = {
		CFG_SEC("zalk", ring_opts, CFGF_MULTI | CFGF_TITLE),
		CFG_END(),
	};

	char path[160];
	zalk_path(path, sizeof(path), "/etc/zalkv2d.conf");

	cfg_t *cfg = cfg_init(opts, CFGF_NONE);
	if (!cfg) {
		printf("Error when parsing configuration file %s: %s\n", path, strerror(errno));
		return nullptr;
	}
	int rc = cfg_parse(cfg, path);
	int err = errno;
	if (rc == CFG_FILE_ERROR) {
		printf("Cannot read configuration file %s: %s\n", path, strerror(err));
		cfg_free(cfg);
		return nullptr;
	}
	if (rc != CFG_SUCCESS) {
		printf("Error when parsing configuration file %s: %s\n", path, strerror(err));
		cfg_free(cfg);
		return nullptr;
	}
	return cfg;
}

int zalkv2_cfg_port_ifindex(cfg_t *port_sec)
{
	if (!port_sec)
		return -1;
	const char *name = cfg_getstr(port_sec, "name");
	if (!name)
		return -1;
	return (int)os_if_nametoindex(name);
}

int zalkv2_cfg_ring_role(cfg_t *ring_sec)
{
	// A section without ring-role reads as neither role; the instance
	// configuration refuses to set up such a ring.
	const char *role = ring_sec ? cfg_getstr(ring_sec, "ring-role") : nullptr;
	if (!role)
		return -1;
	if (!strncmp(role, "focal", 5))
		return 0;
	if (!strncmp(role, "member", 6))
		return 1;
	return -1;
}
