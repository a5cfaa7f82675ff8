// Kernel tests run inside network and mount namespaces of their own:
// the support library's main() enters them before any test runs, with a
// fresh loopback, no IPv6 chatter on new interfaces, private tmpfs on
// /var/run and /tmp, and /etc as an overlay whose changes vanish with the
// process. Nothing the tests do reaches the machine's own network or files.
#pragma once

#include <cstdint>
#include <ev.h>
#include <functional>
#include <gtest/gtest.h>
#include <initializer_list>
#include <string>
#include <vector>

// Runs a shell command line (test code only); returns its exit status.
int sh(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Runs a shell command line and returns what it printed on stdout.
std::string sh_out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

inline bool has(const std::string &text, const std::string &what) { return text.find(what) != std::string::npos; }
size_t count(const std::string &text, const std::string &what);

// The daemon's syslog lines go to standard error as well (and to no
// syslog of the machine's), where logged() reads them back.
void log_to_stderr();
template <class F> std::string logged(F &&f)
{
	testing::internal::CaptureStderr();
	f();
	return testing::internal::GetCapturedStderr();
}

// Polls every 10 ms for at most `limit` seconds; true once cond() holds.
bool wait_until(const std::function<bool()> &cond, double limit = 5);

// A veth pair, both ends up and operationally up.
void add_veth(const char *a, const char *b);
// br0, up, with the given interfaces as its ports.
void add_bridge(std::initializer_list<const char *> ports);

// Instance `ins` as configuration would leave it on real interfaces:
// ports named, indexed, linked to the instance, with their MACs; a null
// port B is absent (index -1). bridge_ifindex is br0's, if there is one.
// Opens the interface socket (netsock) if it is not open.
void ring_instance(int ins, int ring_id, uint32_t role, const char *a, const char *b);

// The event channel read in a real libev loop: every event posted lands
// in `got` with its arrival time on the monotonic clock.
struct EventLoop {
	struct Ev {
		uint32_t ins, event;
		double at;
	};
	struct ev_loop *loop = ev_default_loop(0);
	ev_io watcher{};
	std::vector<Ev> got;

	void start();
	void stop();
	void run(double seconds);
	// Index of the first event `event` of `ins` at or after `from`, running
	// the loop for at most `limit` seconds to get it; -1 if none came.
	long wait_for(uint32_t ins, uint32_t event, size_t from, double limit);
	// Waits (at most 5 s) until `n` events have come, then until none
	// has come for 0.3 s, so that an extra one would show; returns the
	// event codes and forgets them.
	std::vector<uint32_t> take(size_t n);
	// The event codes of `ins` (of all: UINT32_MAX) from index `from` on.
	std::vector<uint32_t> codes(uint32_t ins, size_t from = 0) const;
};

// Seconds on the monotonic clock.
double now_s();
