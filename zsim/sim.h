// The simulated network zsim runs the daemon's own ring code in: switches
// with br0 and their ring ports, links, a host per switch, virtual time.
//
// Every switch runs a copy of the daemon. The daemon keeps its state in
// globals, so the simulator keeps one image of those globals per switch
// and copies the image of the switch whose work comes next into place
// (swap_to); libev is replaced at link time by a registry of watchers per
// switch (os_sim.cpp), so timers fire in virtual time.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <ev.h>

struct nlmsghdr;

namespace zsim {

using Time = int64_t; // virtual nanoseconds
constexpr Time US = 1000;
constexpr Time MS = 1000 * US;
constexpr Time SEC = 1000 * MS;

// Ring-wide settings, named as in the configuration file, and the model's
// own costs (microseconds).
struct Settings {
	long ring_interval = 500, hello_time = 500, hello_enable = 1, response_delay = 1500, forward_delay = 0,
	     guarded_recovery = 1;
	long event_cost = 240;    // one event record handled, status files included
	long send_latency = 90;   // from the start of a record to its frames and requests
	long rx_cost = 20;        // a frame read or a timer callback that posts no record
	long link_delay = 5;      // a hop: wire and bridge
	long carrier_delay = 250; // a carrier change until the kernel (and the daemon) sees it
	long restart_gap = 500 * 1000; // a restarted daemon's absence
	bool set(const std::string &key, const std::string &value);
	std::string conf_keys(); // "ring-interval=500 ..." for reports
};

enum class Kind { loop, duplicate, no_convergence };
struct Violation {
	Time t;
	Kind kind;
	std::string detail;
};

// One scheduled fault: TIME ACTION ARGS.
struct Action {
	Time t;
	std::string op; // cut silent-cut heal flap lose restart reload end
	int target = 0; // link index (0-based) or switch index (0-based)
	double fraction = 0;
	Time duration = 0;
	std::vector<std::pair<std::string, std::string>> sets; // reload KEY=VALUE
	std::string text() const;
};

struct Iface {
	std::string name;
	int ifindex;
	int port; // global port index
};

struct Fd {
	int kind; // 1 packet, 2 inet, 3 rtnl link monitor, 4 rtnl bridge
	int bound = 0; // packet: ifindex
	bool stranded = false; // frames came while its watcher was stopped
	std::deque<std::vector<uint8_t>> q;
	std::deque<int> vlans; // packet: the tag each queued frame came with
};

struct Switch {
	int id; // 1-based, as in the lab
	std::string root;
	std::vector<uint8_t> image;
	std::vector<Iface> ifaces;
	std::map<int, Fd> fds;
	int next_fd = 1000;
	std::vector<ev_io *> ios;
	std::vector<ev_idle *> idles;
	std::map<int, ev_signal *> sigs;
	std::vector<int> real_fds; // pipe and inotify descriptors it made
	Time busy_until = 0;
	bool alive = false;
	uint8_t base_mac[6];
	std::vector<int> rings; // ring indices it belongs to
	std::map<std::string, std::string> overrides; // reload KEY=VALUE
};

struct Port {
	int sw;
	int ifindex;
	int link = -1;
	int ring;
	uint8_t state = 4; // MSTI 0: the data VLAN and VLAN 4022
	uint8_t mst = 4;   // MSTI 4021: VLAN 4021
	bool v4021 = false, v4022 = false;
	bool carrier = true; // as the kernel knows it
};

struct Link {
	std::string name;
	int a, b; // ports: a on switch k (its port B), b on switch k+1 (port A)
	bool down = false, silent = false;
	double loss = 0;
	Time loss_until = 0;
	bool passes() const { return !down && !silent; }
};

struct Ring {
	int id;
	std::vector<int> sw;    // switch indices, focal point first
	std::vector<int> links; // link indices
	bool bus;
};

struct Result {
	std::vector<Violation> violations;
	std::vector<double> failover_ms, restore_ms;
	long events = 0;
	double wall_s = 0;
};

class World;
extern World *world; // the one being run, for the OS boundary

class World {
public:
	Settings cfg;
	std::vector<Switch> sw;
	std::vector<Port> ports;
	std::vector<Link> links;
	std::vector<Ring> rings;
	std::string topology;
	Time now = 0;  // the clock the daemon code sees
	int cur = -1;  // the switch whose image is in place
	Time out_at = 0; // when what the running record sends takes effect
	Result res;
	std::mt19937_64 rng;
	bool quiet = false, tracing = false, checking = false;
	int cold_owner = -1; // whose reconfiguration-only globals are in place
	void trace(const char *fmt, ...) __attribute__((format(printf, 2, 3)));

	World(const std::string &topo, const Settings &s, uint64_t seed);
	~World();
	bool ok() const { return !sw.empty(); }
	void run(std::vector<Action> actions);
	Time bound() const; // convergence bound after the last fault
	Time round() const; // one more edge pair closed

	// The OS boundary's side.
	void swap_to(int s);
	void transmit(int port, const uint8_t *frame, size_t len, Time t);
	int bridge_request(const struct nlmsghdr *n);
	void timer_started(ev_timer *w, Time due);
	Switch &me() { return sw[cur]; }
	int port_of(int s, int ifindex) const;

private:
	struct Item {
		Time t;
		uint64_t seq;
		int type, s, a;
		uint64_t gen;
		void *w;
		std::vector<uint8_t> bytes;
		bool operator>(const Item &o) const { return t != o.t ? t > o.t : seq > o.seq; }
	};
	std::vector<Item> heap;
	uint64_t seq = 0;
	std::vector<uint8_t> pristine;
	std::string dir;
	std::vector<std::vector<int>> fdb; // [switch][host]: port, -1 unknown, -2 local
	std::map<int, std::map<std::string, std::vector<int>>> mdb; // [switch][group+vid]: ifindexes
	std::vector<std::vector<int>> fdb_seen;
	std::vector<Action> extra; // heals that end flaps
	bool sample_pending = false, looping = false;
	long faults = 0;
	Time last_fault = 0;
	bool open_end = false;
	long actions_left = 0;
	// Measurements in progress.
	Time failover_from = -1, restore_from = -1;
	std::vector<Time> broken_since; // per host pair during a restore window; -2 not counted
	Time restore_max = 0;
	bool failover_broke = false;
	std::vector<char> last_reach;
	bool all_reach = true;
	void end_restore();

	void push(Item it);
	void build(const std::string &topo);
	void write_conf(int s);
	void start_daemon(int s);
	void stop_daemon(int s);
	void after_callback(int s);
	void dispatch(const Item &it);
	bool work(const Item &it);
	std::vector<std::deque<Item>> waiting; // per switch, while it is busy
	std::vector<char> wake_pending;
	void carrier(int link, bool up, Time t);
	void deliver(int port, std::vector<uint8_t> frame, Time t);
	void forward(int s, int in_port, const std::vector<uint8_t> &frame, Time t);
	void apply_bridge(const Item &it);
	void changed();
	void check_loop();
	bool sample(bool learn);
	void fault(const Action &a);
	bool converged_check(uint64_t gen); // true: another round given
	bool closed(std::string &why, int &blocked);
	int last_blocked = 1 << 30, stalls = 0;
	void violation(Kind k, const std::string &detail);
};

std::vector<Action> random_actions(World &w, uint64_t seed, int ops);
bool parse_schedule(const std::string &text, const World &w, std::vector<Action> &out, std::string &err);
const char *kind_name(Kind k);
// The in-memory event channel (os_sim.cpp).
size_t channel_bytes(int fd);
void channel_close(int fd);

} // namespace zsim
