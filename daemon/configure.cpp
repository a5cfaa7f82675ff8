// Turning the configuration file into running ring instances, at start-up
// and on every SIGHUP. Unchanged rings are left running untouched; rings
// that left the file or changed are torn down; new and changed rings are
// set up in the lowest free slot.
#include "daemon/configure.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bridge/filters.h"
#include "bridge/ifquery.h"
#include "bridge/prepare.h"
#include "daemon/config.h"
#include "daemon/instance.h"
#include "daemon/os.h"
#include "daemon/util.h"
#include "frames/frames.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "frames/receive.h"
#include "ring/channel.h"
#include "ring/dispatch.h"
#include "ring/focal.h"
#include "ring/member.h"
#include "ring/ports.h"
#include "status/files.h"
#include "status/status.h"

namespace {

// Whether a port's receive watcher was prepared on an open socket. A port
// whose socket could not be opened keeps its watcher stopped: starting a
// watcher that was never initialised (or still holds the descriptor of a
// ring that used the slot before) would hand libev a stale descriptor.
std::array<std::array<bool, 2>, ZALK_MAX_INSTANCES> rx_prepared{};

// The event channel's watcher is initialised only when its pipe exists,
// the link monitor's only when its rtnetlink handle could be opened at
// start-up; an uninitialised watcher has no callback.
bool channel_prepared() { return ev_cb(&sm_watcher) != nullptr; }
bool link_monitor_prepared() { return ev_cb(&link_watcher) != nullptr; }

// Conversions of the file's units into what the instance table holds.
float ms_to_seconds(long ms) { return (float)(ms / 1000.0); }
uint32_t ms_to_50ms_ticks(long ms) { return (uint32_t)(int32_t)(ms / 50.0); }
int32_t s_to_200ms_ticks(long s) { return (int32_t)(s / 0.2); }

// The blocked port of a focal point: port B only when the value names
// port B's interface. A ring without port B always blocks port A, so an
// empty or stale name can never leave the ring without a blocked port.
uint32_t blocked_port_of(int ins, cfg_t *ring_sec)
{
	const zalkv2_port &b = instances[ins].port[PORT_B];
	const char *value = cfg_getstr(ring_sec, "blocked-port");
	if (!value || !zalkv2_port_configured(b))
		return PORT_A;
	return strncmp(b.name, value, sizeof(b.name)) == 0 ? PORT_B : PORT_A;
}

// Room for "br0" or the names of two ring ports.
constexpr size_t ZALK_MISSING_MAX = 40;

// What a ring's set-up put on br0 and its ports lives only as long as
// these interfaces: a bridge or port deleted and created again under the
// same name (what a platform's network reload does) has none of it. So
// the set-up's interfaces count among a ring's compared settings: br0
// under the index it had, each ring port under its index and a port of
// the same bridge as then.
bool world_changed(int ins)
{
	const zalkv2_instance &in = instances[ins];
	if ((int)os_if_nametoindex("br0") != in.bridge_ifindex)
		return true;
	for (const zalkv2_port &port : in.port)
		if (zalkv2_port_configured(port) &&
		    ((int)os_if_nametoindex(port.name) != port.ifindex || zalkv2_if_master(port.ifindex) != port.master))
			return true;
	return false;
}

// The interfaces a ring waits for before it can run again, separated by
// a blank: "br0" while the bridge is gone, else each ring port that is
// gone or no port of br0. Empty when none.
void missing_of(int ins, char (&text)[ZALK_MISSING_MAX])
{
	const zalkv2_instance &in = instances[ins];
	const int br = (int)os_if_nametoindex("br0");
	text[0] = 0;
	if (!br) {
		snprintf(text, sizeof(text), "br0");
		return;
	}
	for (const zalkv2_port &port : in.port) {
		if (!zalkv2_port_configured(port))
			continue;
		const int now = (int)os_if_nametoindex(port.name);
		if (now && zalkv2_if_master(now) == br)
			continue;
		const size_t at = strlen(text);
		snprintf(text + at, sizeof(text) - at, "%s%.16s", at ? " " : "", port.name);
	}
}

// What each running ring was last said to wait for; a change is logged
// once and published as the ring's "missing" status file.
std::array<char[ZALK_MISSING_MAX], ZALK_MAX_INSTANCES> missing_said{};

// Publishes what a running ring waits for; true when it waits for nothing.
bool note_missing(int ins)
{
	char text[ZALK_MISSING_MAX];
	missing_of(ins, text);
	if (strcmp(text, missing_said[ins]) != 0) {
		if (text[0])
			zlog(LOG_ERR, "Ring %d waits for %s\n", instances[ins].ring_id, text);
		zalk_set_missing(instances[ins].ring_id, text);
		memcpy(missing_said[ins], text, sizeof(text));
	}
	return text[0] == 0;
}

void note_all_missing()
{
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
		if (instances[i].enabled)
			note_missing(i);
}

// Rings whose set-up failed for want of br0: set up when it appears.
// Their status directory holds only the file "missing".
std::array<int32_t, ZALK_MAX_INSTANCES> waiting{};
size_t waiting_count = 0;

void wait_for_bridge(int ring_id)
{
	if (waiting_count == waiting.size())
		return; // more rings than slots: those could not run anyway
	waiting[waiting_count++] = ring_id;
	zlog(LOG_ERR, "Ring %d waits for br0\n", ring_id);
	zalk_set_missing(ring_id, "br0");
}

bool is_waiting(const std::array<int32_t, ZALK_MAX_INSTANCES> &list, size_t count, int ring_id)
{
	return std::find(list.begin(), list.begin() + count, ring_id) != list.begin() + count;
}

bool section_unchanged(int ins, cfg_t *ring_sec)
{
	const zalkv2_instance &in = instances[ins];
	// -1 (neither role) never equals a stored role, so such a ring is
	// set up again on every reconfiguration.
	if (zalkv2_cfg_ring_role(ring_sec) != (int)in.role)
		return false;
	if (in.role == RING_TYPE_FOCAL) {
		if ((int32_t)cfg_getint(ring_sec, "guarded-recovery") != in.guarded_recovery)
			return false;
		if (ms_to_seconds(cfg_getint(ring_sec, "ring-interval")) != in.ring_interval)
			return false;
		if (blocked_port_of(ins, ring_sec) != in.blocked_port)
			return false;
		if (ms_to_50ms_ticks(cfg_getint(ring_sec, "response-delay")) != in.response_delay)
			return false;
	}
	return !zalkv2_port_config_changed(ins, PORT_A, ring_sec) &&
	       !zalkv2_port_config_changed(ins, PORT_B, ring_sec) && !world_changed(ins);
}

// A slot taken for a new ring starts from a clean protocol state: ring
// state, counters, hold and announcement state, edge ids, per-port link,
// hello and receive counters and the focal point's per-slot counters of
// the ring that used the slot before must not leak into the new ring. The
// libev watchers and timers are kept as they are: they were initialised
// once at start-up (or when a socket was opened) and are all stopped here.
void clear_slot(int ins)
{
	zalkv2_instance &in = instances[ins];
	ev_timer ring_timer = in.ring_timer;
	std::array<ev_timer, 2> hello_timers = {in.port[0].hello_timer, in.port[1].hello_timer};
	std::array<ev_io, 2> rx_watchers = {in.port[0].rx_watcher, in.port[1].rx_watcher};

	memset(&in, 0, sizeof(in));

	in.ring_timer = ring_timer;
	for (int p = 0; p < 2; p++) {
		in.port[p].hello_timer = hello_timers[p];
		in.port[p].rx_watcher = rx_watchers[p];
		in.port[p].ifindex = -1;
	}
	for (int p = 0; p < 2; p++) {
		miss_count[ins][p] = 0;
		hit_count[ins][p] = 0;
	}
	response_ticks[ins] = 0;
	rx_prepared[ins] = {false, false};
}

void section_failed(int count)
{
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - Configure ZALKv2 ins %d cfg:%d\n", "zalkv2_configure_instances", -1,
		     count);
	zlog(LOG_ERR, "Setup of ZALKv2 instance failed\n\n");
}

// Sets up one ring from its section; false when the section fails.
bool setup_instance(cfg_t *ring_sec, int count)
{
	if (cfg_getint(ring_sec, "version") != 2)
		return false;
	// Values the daemon cannot run with (a ring id the frames cannot
	// carry, a period libev cannot time, a port name that would write
	// outside the status tree) stop this ring only.
	zalkv2_refusal refusal;
	if (zalkv2_ring_refused(ring_sec, &refusal)) {
		char text[256];
		zalkv2_refusal_text(text, sizeof(text), refusal);
		zlog(LOG_ERR, "Ring %ld: %s\n", cfg_getint(ring_sec, "ring-id"), text);
		return false;
	}

	int br = (int)os_if_nametoindex("br0");
	if (!br) {
		zlog(LOG_ERR, "Bridge do not exists\n");
		wait_for_bridge((int32_t)cfg_getint(ring_sec, "ring-id"));
		return false;
	}
	int ring_id = (int32_t)cfg_getint(ring_sec, "ring-id");
	int ins = zalkv2_alloc_instance(ring_id);
	if (ins < 0)
		return false;

	zalkv2_instance &in = instances[ins];
	if (!in.enabled)
		clear_slot(ins);
	zalkv2_write_instance(ins, ring_sec, br);
	missing_said[ins][0] = 0; // a new status tree says nothing yet

	zalkv2_prepare_bridge_on_instance(ins);
	block_ring_ports(ins);
	zalk_status_setup(ins);
	zalkv2_build_frames(ins);
	zalkv2_hello_init(ins);
	for (int p = 0; p < 2; p++) {
		zalkv2_port &port = in.port[p];
		if (!zalkv2_port_configured(port))
			continue;
		rx_prepared[ins][p] = zalkv2_open_port_socket(&port) == 0;
	}
	if (in.role == RING_TYPE_FOCAL)
		focal_config_ring_topology(ins, RING_FAIL_NET_FOCAL, 1);
	else
		member_config_ring_topology(ins, DOWN_NET_MEMBER, 0);
	zalkv2_bridge_enable_mgnt_vlan(ins);
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - Configure ZALKv2 ins %d cfg:%d\n", "zalkv2_configure_instances", ins,
		     count);
	zalk_set_status(ins);
	return true;
}

bool ring_in_file(cfg_t *cfg, int ring_id)
{
	unsigned n = cfg_size(cfg, "zalk");
	for (unsigned c = 0; c < n; c++)
		if (cfg_getint(cfg_getnsec(cfg, "zalk", c), "ring-id") == ring_id)
			return true;
	return false;
}

// The running ring a section describes, or -1. Compared whole: a ring id
// beyond 32 bits cut to a running one's would be taken for it, unchanged,
// and never meet the refusal.
int running_ring(cfg_t *ring_sec)
{
	long id = cfg_getint(ring_sec, "ring-id");
	return id == (int32_t)id ? zalkv2_find_instance((int)id) : -1;
}

void quiesce(struct ev_loop *loop)
{
	for (auto &in : instances) {
		if (!in.enabled)
			continue;
		for (auto &port : in.port)
			if (zalkv2_port_configured(port))
				ev_io_stop(loop, &port.rx_watcher);
	}
	zalkv2_link_monitor_stop();
	msg_bus_stop(loop);
	focal_response_timer_stop(loop);
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		if (!instances[i].enabled)
			continue;
		focal_ring_timer_stop(i, loop);
		zalkv2_hello_stop(i, loop);
	}
}

// True when the file holds exactly the rings that run, each unchanged.
bool nothing_changes(cfg_t *cfg)
{
	for (const zalkv2_instance &in : instances)
		if (in.enabled && !ring_in_file(cfg, in.ring_id))
			return false;
	unsigned n = cfg_size(cfg, "zalk");
	for (unsigned c = 0; c < n; c++) {
		cfg_t *ring_sec = cfg_getnsec(cfg, "zalk", c);
		int ins = running_ring(ring_sec);
		if (ins == -1 || !section_unchanged(ins, ring_sec))
			return false;
	}
	return true;
}

// A reload sets up every ring whose compared settings changed. A repair
// (no signal: br0 or a ring port was re-created) sets up only the rings
// whose interfaces are back whole under new indexes or masters, and the
// rings that wait for br0 once it is there; it takes their sections from
// the file as it stands, as a reload would.
bool needs_setup(cfg_t *ring_sec, bool repair, const std::array<int32_t, ZALK_MAX_INSTANCES> &waited, size_t n_waited)
{
	const long ring_id = cfg_getint(ring_sec, "ring-id");
	const int ins = running_ring(ring_sec);
	if (!repair)
		return ins == -1 || !section_unchanged(ins, ring_sec);
	if (ins == -1)
		return ring_id == (int32_t)ring_id && is_waiting(waited, n_waited, (int)ring_id) &&
		       os_if_nametoindex("br0");
	char missing[ZALK_MISSING_MAX];
	missing_of(ins, missing);
	return !missing[0] && world_changed(ins);
}

// Rings gone from the file are torn down (on a reload), changed ones set
// up again and new ones set up, between the removal of the drop filters
// and their installation.
void apply_changes(cfg_t *cfg, struct ev_loop *loop, bool repair)
{
	// Waiting rings are looked at anew; their directories go, so that a
	// set-up finds no stale "missing" file.
	const auto waited = waiting;
	const size_t n_waited = waiting_count;
	waiting_count = 0;
	for (size_t w = 0; w < n_waited; w++) {
		char dir[160];
		remove_tree(zalk_path(dir, sizeof(dir), "/var/run/zalkv2/%d", waited[w]));
	}

	zalkv2_set_drop_filters(0);
	for (int i = 0; i < ZALK_MAX_INSTANCES && !repair; i++)
		if (instances[i].enabled && !ring_in_file(cfg, instances[i].ring_id))
			zalkv2_teardown_instance(i, loop);

	unsigned n = cfg_size(cfg, "zalk");
	for (unsigned c = 0; c < n; c++) {
		cfg_t *ring_sec = cfg_getnsec(cfg, "zalk", c);
		if (!needs_setup(ring_sec, repair, waited, n_waited))
			continue;
		int ins = running_ring(ring_sec);
		if (repair)
			zlog(LOG_NOTICE, "Ring %ld: br0 or a ring port re-created, setting the ring up again\n",
			     cfg_getint(ring_sec, "ring-id"));
		if (ins != -1)
			zalkv2_teardown_instance(ins, loop);
		if (!setup_instance(ring_sec, (int)c))
			section_failed((int)c);
	}
	zalkv2_set_drop_filters(1);
}

void resume(struct ev_loop *loop)
{
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		if (!instances[i].enabled)
			continue;
		zalkv2_hello_start(i, loop);
		focal_ring_timer_start(i, loop);
	}
	focal_response_timer_start(loop);
	if (channel_prepared())
		msg_bus_start(loop);
	if (link_monitor_prepared())
		zalkv2_link_monitor_start();
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++) {
		zalkv2_instance &in = instances[i];
		if (!in.enabled)
			continue;
		for (int p = 0; p < 2; p++)
			if (zalkv2_port_configured(in.port[p]) && rx_prepared[i][p])
				ev_io_start(loop, &in.port[p].rx_watcher);
		zalkv2_update_link_status(i);
	}
}

} // namespace

cfg_t *zalkv2_read_config()
{
	char path[160];
	return zalkv2_load_config(zalk_path(path, sizeof(path), "/etc/zalkv2d.conf"));
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

void zalkv2_configure_instances(struct ev_loop *loop)
{
	// A file that cannot be used stops the daemon before anything that
	// runs is touched.
	cfg_t *cfg = zalkv2_read_config();
	if (!cfg)
		exit(1);
	zalk_status_batch status_at_the_end;

	quiesce(loop);
	if (nothing_changes(cfg))
		zalkv2_refresh_drop_filters(); // nothing else reaches the kernel
	else
		apply_changes(cfg, loop, false);
	cfg_free(cfg);
	resume(loop);
	note_all_missing();
}

bool zalkv2_repair_instances(struct ev_loop *loop)
{
	bool due = waiting_count && os_if_nametoindex("br0");
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
		if (instances[i].enabled && note_missing(i) && world_changed(i))
			due = true;
	if (!due)
		return false;
	// A file being edited must not stop a running daemon: the repair
	// waits for the next change or SIGHUP instead.
	cfg_t *cfg = zalkv2_read_config();
	if (!cfg) {
		zlog(LOG_ERR, "Rings not set up again: the configuration file cannot be used\n");
		return false;
	}
	bool any = false;
	for (unsigned c = 0; c < cfg_size(cfg, "zalk"); c++)
		any = any || needs_setup(cfg_getnsec(cfg, "zalk", c), true, waiting, waiting_count);
	if (any) {
		zalk_status_batch status_at_the_end;
		quiesce(loop);
		apply_changes(cfg, loop, true);
		resume(loop);
	}
	cfg_free(cfg);
	note_all_missing();
	return any;
}

void zalkv2_teardown_instance(int ins, struct ev_loop *loop)
{
	zalkv2_instance &in = instances[ins];
	in.enabled = 0;
	zalk_remove_status(ins);
	for (int p = 0; p < 2; p++) {
		zalkv2_port &port = in.port[p];
		if (!zalkv2_port_configured(port))
			continue;
		// Never leave libev watching a descriptor that is about to close.
		ev_io_stop(loop, &port.rx_watcher);
		zalkv2_close_port_socket(&port);
		rx_prepared[ins][p] = false;
	}
	if (in.role == RING_TYPE_FOCAL)
		focal_ring_timer_stop(ins, loop);
	zalkv2_teardown_bridge_on_instance(ins);
}

int zalkv2_port_config_changed(int ins, int p, cfg_t *ring_sec)
{
	const zalkv2_port &port = instances[ins].port[p];
	cfg_t *port_sec = cfg_getnsec(ring_sec, "port", (unsigned)p);
	// Looked up anew: an interface re-created under a new index counts as
	// a change.
	int ifindex = zalkv2_cfg_port_ifindex(port_sec);
	if (port.ifindex != ifindex)
		return 1;
	if (ifindex == -1)
		return 0;
	if (port.hello_enable != (uint32_t)cfg_getint(port_sec, "hello-enable"))
		return 1;
	if (port.hello_time_ms != (uint32_t)cfg_getint(port_sec, "hello-time"))
		return 1;
	return s_to_200ms_ticks(cfg_getint(port_sec, "forward-delay")) != port.fwd_delay ? 1 : 0;
}

void zalkv2_write_instance(int ins, cfg_t *ring_sec, int bridge_ifindex)
{
	zalkv2_instance &in = instances[ins];
	in.bridge_ifindex = bridge_ifindex;
	zalkv2_read_base_mac(in.base_mac);
	in.index = ins;
	in.ring_id = (int32_t)cfg_getint(ring_sec, "ring-id");
	zalkv2_configure_port(ins, PORT_A, ring_sec);
	zalkv2_configure_port(ins, PORT_B, ring_sec);
	if (zalkv2_cfg_ring_role(ring_sec) == 0) {
		in.role = RING_TYPE_FOCAL;
		in.blocked_port = blocked_port_of(ins, ring_sec);
		in.response_delay = ms_to_50ms_ticks(cfg_getint(ring_sec, "response-delay"));
		in.guarded_recovery = (int32_t)cfg_getint(ring_sec, "guarded-recovery");
		in.ring_interval = ms_to_seconds(cfg_getint(ring_sec, "ring-interval"));
	} else {
		in.role = RING_TYPE_MEMBER;
	}
	in.enabled = 1;
}

void zalkv2_configure_port(int ins, int p, cfg_t *ring_sec)
{
	zalkv2_port &port = instances[ins].port[p];
	port.instance = &instances[ins];
	port.port_index = (uint32_t)p;
	cfg_t *port_sec = cfg_getnsec(ring_sec, "port", (unsigned)p);
	if (!port_sec) {
		port.ifindex = -1;
		return;
	}
	port.hello_enable = (uint32_t)cfg_getint(port_sec, "hello-enable");
	port.ifindex = zalkv2_cfg_port_ifindex(port_sec);
	long hello_ms = cfg_getint(port_sec, "hello-time");
	port.hello_time = ms_to_seconds(hello_ms);
	port.hello_time_ms = (uint32_t)hello_ms;
	if_get_mac(port.ifindex, port.mac);
	port.master = zalkv2_if_master(port.ifindex);
	// Interface names are at most 15 characters; the field always keeps
	// its terminating NUL.
	const char *name = cfg_getstr(port_sec, "name");
	memset(port.name, 0, sizeof(port.name));
	if (name)
		strncpy(port.name, name, sizeof(port.name) - 1);
	port.fwd_delay = s_to_200ms_ticks(cfg_getint(port_sec, "forward-delay"));
}

