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
	bool operator==(const LogLine &o) const { return prio == o.prio && text == o.text; }
};

struct Frame {
	int ifindex;               // sll_ifindex the frame was addressed to
	std::vector<uint8_t> bytes;
	unsigned char pkttype = 0; // sll_pkttype handed out with a received frame
};

struct Iface {
	std::string name;
	int index;
	uint8_t mac[6];
	bool running;              // IFF_RUNNING
};

// Everything recorded, in order.
extern std::vector<LogLine> logs;
extern std::vector<Frame> frames;                  // sendmsg on any packet socket
extern std::vector<std::vector<uint8_t>> netlink;  // requests given to rtnl_talk
extern std::vector<std::string> commands;          // argv joined with one blank
extern std::vector<std::vector<std::string>> argvs;
// os_spawn_input: argv joined with one blank, a line end, then the input.
// Each input line also counts as a command of argv[0] (commands, argvs,
// spawn_hook); a failed one is reported as "Command failed -:N".
extern std::vector<std::string> batches;

// The system as the daemon sees it.
extern std::vector<Iface> ifaces;
extern std::deque<Frame> rx_queue;                 // what os_recvfrom hands out
extern struct timeval now;
extern long uptime;
extern int sched_result;                           // os_sched_setscheduler
extern int sched_errno;
extern std::vector<std::pair<int, int>> sched_calls; // policy, priority
extern std::vector<std::pair<int, int>> kills;       // pid, signal
extern std::string runlevel_output;                  // what "runlevel" prints; empty: popen fails
extern bool rtnl_open_fails;
// What os_recvmsg hands out, one entry per call: a datagram, or with
// err set a failure with that errno (bytes ignored); an entry with no
// bytes and err 0 is end of file. An empty queue answers EAGAIN.
struct RecvMsg {
	std::vector<uint8_t> bytes;
	int err;
};
extern std::deque<RecvMsg> recvmsg_queue;
extern int recvmsg_calls;                          // os_recvmsg calls so far
extern bool socket_fails;

// Answer of rtnl_talk for a request (default: 0 for every request).
extern std::function<int(const nlmsghdr *)> talk_hook;
// Called with each frame as it is sent (default: nothing).
extern std::function<void(const Frame &)> send_hook;
// Exit status of a command (default: 0 for every command; -1 = cannot start).
extern std::function<int(const std::vector<std::string> &)> spawn_hook;

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
