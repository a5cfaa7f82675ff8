// The instance table: the daemon's whole state about its rings.
//
// Ten records in static storage, zero when the daemon starts, addressed by
// slot number. Every subsystem reads and writes them directly from the one
// loop thread; see the field comments for who writes what.
#pragma once

#include <cstdint>
#include <ev.h>

constexpr int ZALK_MAX_INSTANCES = 10;
constexpr int ZALK_FRAME_LEN = 64;
constexpr uint16_t ZALK_MGNT_VLAN = 4021; // also the number of its MSTI
constexpr uint16_t ZALK_RING_VLAN = 4022;

enum ring_type : uint32_t {
	RING_TYPE_FOCAL = 0,
	RING_TYPE_MEMBER = 1,
};

enum ring_state : uint32_t {
	RING_OK_NET_FOCAL = 0,
	RING_FAIL_NET_FOCAL = 1,
	BROKEN_NET_FOCAL = 2,
	DOWN_NET_FOCAL = 3,
	OK_NET_MEMBER = 4,
	BROKEN_NET_MEMBER = 5,
	DOWN_NET_MEMBER = 6,
};

// The Linux bridge's own port state numbers.
enum port_state : uint32_t {
	PORT_DISABLED = 0,
	PORT_LISTENING = 1,
	PORT_LEARNING = 2,
	PORT_FORWARDING = 3,
	PORT_BLOCKING = 4,
};

enum hello_state : int32_t {
	HELLO_PHY_DOWN = 0,
	HELLO_NO_RESPONSE = 1,
	HELLO_NOT_QUALIFIED = 2,
	HELLO_QUALIFIED = 3,
};

// Kernel operational states as carried in IFLA_OPERSTATE.
constexpr uint32_t ZALK_OPER_DOWN = 2;
constexpr uint32_t ZALK_OPER_UP = 6;

struct zalkv2_instance;

struct zalkv2_port {
	zalkv2_instance *instance;
	char name[16];
	uint8_t mac[6];
	int32_t ifindex;          // -1: the ring has no such port
	uint32_t port_index;      // 0 port A (M), 1 port B (N)
	uint32_t hello_time_ms;
	float hello_time;         // seconds
	uint32_t hello_enable;
	int32_t fwd_delay;        // 200 ms ticks
	uint32_t operstate;       // 6 up, 2 down; frames leave only at 6
	uint32_t link;            // local link as the ring logic sees it
	uint32_t state;           // bridge port state to apply
	uint32_t tx_ring;
	uint32_t rx_ring;
	uint32_t rx_ring_last;
	int32_t sock;
	ev_io rx_watcher;
	ev_timer hello_timer;
	int32_t hello_state;
	uint32_t hello_miss_limit;
	uint32_t hello_miss;
	uint32_t hello_resp;      // 0 No response, 1 Not qualified, 2 Qualified
	uint32_t hello_rx;
	uint32_t hello_rx_seen;
	uint8_t remote_bridge_id[8];
	int32_t master;           // bridge the port was a port of at set-up (0 none)
};

// Per port, port A first: the last foreign ring id and the last differing
// hello interval seen; the status report prints and clears them.
struct zalkv2_rx_errors {
	int32_t rx_wrong_ring_id;
	int32_t rx_wrong_hello_time;
};

// Focal point: sender ids of the last two distinct Link Up frames.
struct zalkv2_edge {
	uint32_t edge_latest; // 1 on the slot written last
	uint8_t edge_id[8];
};

struct zalkv2_instance {
	int32_t index;
	uint8_t enabled;
	int32_t ring_id;
	uint32_t role;
	float ring_interval;      // seconds
	int32_t guarded_recovery;
	int32_t bridge_ifindex;
	uint8_t base_mac[6];
	uint32_t ring_state;
	uint32_t tc_count;
	uint32_t hold_state;      // 0 idle, 1 counting, 3 expired
	uint32_t link_up_pending;
	ev_timer ring_timer;
	uint32_t sending_link_up;
	int32_t fwd_cnt;
	uint32_t blocked_port;    // 0 port A, 1 port B
	uint32_t response_delay;  // 50 ms ticks
	zalkv2_port port[2];
	zalkv2_rx_errors rx_errors[2];
	zalkv2_edge edge[2];
	uint8_t tpl_link_response[ZALK_FRAME_LEN];
	uint8_t tpl_trig[ZALK_FRAME_LEN];
	uint8_t tpl_ring[ZALK_FRAME_LEN];
	uint8_t tpl_link_up[ZALK_FRAME_LEN];
	uint8_t tpl_link_down[ZALK_FRAME_LEN];
	uint8_t tpl_hello[ZALK_FRAME_LEN];
	uint8_t tpl_flush[ZALK_FRAME_LEN];
};

extern zalkv2_instance instances[ZALK_MAX_INSTANCES];

constexpr int PORT_A = 0;
constexpr int PORT_B = 1;

// A port with ifindex -1 does not exist for the ring; every walk skips it.
inline bool zalkv2_port_configured(const zalkv2_port &p) { return p.ifindex != -1; }

// Slot lookups by ring id: the lowest enabled slot of that ring, or -1;
// allocation falls back to the lowest free slot (-1 when all ten are taken).
int zalkv2_find_instance(int ring_id);
int zalkv2_alloc_instance(int ring_id);

// Port B for port A and port A for port B.
constexpr int zalkv2_other_port(int port) { return (port & 1) ^ 1; }

inline bool zalkv2_valid_instance(int ins) { return ins >= 0 && ins < ZALK_MAX_INSTANCES; }

// Role tests: a focal point is an enabled instance of role 0, any other
// is a member; a bus edge has no port B.
int is_focal(int ins);
int is_bus_edge(int ins);

// The ring port of interface `ifindex`: of the first enabled instance that
// has it, port A before port B. None: a null port.
struct zalkv2_ring_port {
	int ins;
	int pi; // PORT_A or PORT_B
	zalkv2_port *port;
};
zalkv2_ring_port zalkv2_ring_port_by_ifindex(int ifindex);
zalkv2_port *zalkv2_port_by_ifindex(int ifindex);
