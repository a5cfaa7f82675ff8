// The unit tests' side of the OS boundary: records everything the
// daemon would have done to the system, and plays the system's part.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <sys/time.h>
#include <vector>

struct nlmsghdr;

namespace fake {

struct LogLine {
	int prio;
	std::string text;
	bool operator==(const LogLine &) const = default;
};

struct Frame {
	int ifindex; // sll_ifindex the frame was addressed to, or came by
	std::vector<uint8_t> bytes;
	int vlan = -1; // received: the id of the tag the kernel took off, -1 none
};

struct Iface {
	std::string name;
	int index;
	uint8_t mac[6];
	bool running; // IFF_RUNNING
	int master = -1; // os_if_master; -1: the index of "br0" when there is one, else 0
};

// What os_recvmsg hands out, one entry per call: a datagram, or with
// err set a failure with that errno; no bytes and err 0 is end of file.
struct RecvMsg {
	std::vector<uint8_t> bytes;
	int err;
};

// Everything recorded, in order; clear_records() empties these.
inline std::vector<LogLine> logs;
inline std::vector<Frame> frames;                  // sendmsg on any packet socket
inline std::vector<std::vector<uint8_t>> netlink;  // requests given to rtnl_talk
inline std::vector<std::string> commands;          // argv joined with one blank
inline std::vector<std::vector<std::string>> argvs;
// os_spawn_input: argv joined with one blank, a line end, then the input.
// Each input line also counts as a command of argv[0] (commands, argvs,
// spawn_hook); a failed one is reported as "Command failed -:N", one that
// answers above 255 ends the run with that status (the program died).
inline std::vector<std::string> batches;
inline std::vector<std::pair<int, int>> sched_calls; // policy, priority
inline std::vector<std::pair<int, int>> kills;       // pid, signal

// The system as the daemon sees it, as reset() leaves it.
inline std::vector<Iface> ifaces;
inline std::deque<Frame> rx_queue;        // what os_recv_frame hands out
inline std::deque<RecvMsg> recvmsg_queue; // empty: EAGAIN
inline int recvmsg_calls = 0;
inline struct timeval now;                // 1000437.052301 s
inline long uptime;                       // os_uptime, 4242 s
inline int sched_result = 0; // os_sched_setscheduler, failing with sched_errno
inline int sched_errno = 0;
inline std::string runlevel_output;       // what "runlevel" prints ("N 5\n"); empty: popen fails
inline bool rtnl_open_fails = false;
inline bool socket_fails = false;
// Answers: of rtnl_talk (default 0), of a command (default 0; -1 = cannot
// start); send_hook sees each frame as it is sent.
inline std::function<int(const nlmsghdr *)> talk_hook;
inline std::function<int(const std::vector<std::string> &)> spawn_hook;
inline std::function<void(const Frame &)> send_hook;

// A fresh private root directory (with etc/, var/run/, tmp/ in it) and
// everything above cleared.
void reset();
const std::string &root();

void add_iface(const std::string &name, int index, const uint8_t mac[6], bool running = true);
Iface *iface_by_name(const std::string &name);
Iface *iface_by_index(int index);

// Files below the private root; path is the fixed path, e.g. "/var/run/zalkv2/3/state".
void write_file(const std::string &path, const std::string &content);
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);

// Writes the debug level file.
void set_debug(unsigned level);

// Log lines of one priority, texts only.
std::vector<std::string> log_texts(int prio);
void clear_records();

} // namespace fake
