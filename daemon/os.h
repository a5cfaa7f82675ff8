// The daemon's one contact with the operating system.
//
// Everything that leaves the process or depends on the machine goes through
// these functions: syslog, the clock, the root of the fixed file paths,
// packet and interface sockets, interface queries, external commands,
// scheduling and signals. os_linux.cpp defines them for the real system;
// tests/fakes defines them for the unit tests, which record what the
// protocol code would have done. The choice is made at link time.
//
// rtnetlink requests have their own seam: rtnl_open/rtnl_close/rtnl_talk
// (bridge/rtnl.h) are defined by bridge/rtnl.cpp for the real system and
// by the fakes for the tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/types.h>

// Logging: one already formatted line at a syslog priority, sent as is
// (the real definition is syslog(prio, "%s", text)).
void os_syslog(int prio, const char *text);

// Wall clock (gettimeofday) and system uptime in seconds (sysinfo).
void os_gettimeofday(struct timeval *tv);
long os_uptime();

// Prefix put in front of every fixed path ("/etc/zalkv2d.conf",
// "/var/run/zalkv2", "/tmp/zalk.log", ...): "" on the real system, a
// private directory in the unit tests.
const char *os_root();

// Sockets and descriptors.
int os_socket(int domain, int type, int protocol);
int os_setsockopt(int fd, int level, int name, const void *val, socklen_t len);
int os_set_nonblock(int fd); // fcntl(F_SETFL, O_NONBLOCK)
int os_bind(int fd, const struct sockaddr *addr, socklen_t len);
int os_getsockname(int fd, struct sockaddr *addr, socklen_t *len);
ssize_t os_sendmsg(int fd, const struct msghdr *msg, int flags);
// One frame read from a packet socket (its auxiliary data turned on),
// with what the kernel knows of it besides its bytes.
struct os_rx_frame {
	int ifindex;   // the interface it came by
	bool outgoing; // it was sent out of that interface, not received
	int vlan;      // id of the 802.1Q tag the kernel took off it; -1: none
};
ssize_t os_recv_frame(int fd, void *buf, size_t len, os_rx_frame *info);
ssize_t os_recvmsg(int fd, struct msghdr *msg, int flags);
int os_close(int fd);

// Interfaces.
unsigned os_if_nametoindex(const char *name);
char *os_if_indextoname(unsigned ifindex, char *name);
int os_ioctl(int fd, unsigned long request, void *arg); // SIOCGIFHWADDR, SIOCGIFFLAGS
// The index of the interface's master (the bridge it is a port of), 0
// when it has none, -1 when there is no such interface.
int os_if_master(unsigned ifindex);

// External commands: argv[0] is looked up in the system's directories
// (/usr/sbin, /sbin, /usr/bin, /bin), then in PATH, and run directly,
// never through a shell, at normal scheduling priority. Returns the exit
// status (0..255), a value above 255 when the program died of a signal,
// or -1 with errno set when it could not be started at all.
int os_spawn(char *const argv[]);

// Like os_spawn, with the given text as the program's standard input;
// each line the program writes to standard error is handed to on_line
// (without its line end) once the program has ended.
int os_spawn_input(char *const argv[], const char *input, size_t len,
		   void (*on_line)(const char *line, void *ctx), void *ctx);

// popen/pclose for the fixed command "runlevel": one program name, found
// in PATH first, then the system's directories, started at normal
// priority like os_spawn's commands, its standard output to be read.
FILE *os_popen(const char *command, const char *mode);
int os_pclose(FILE *f);

// Scheduling and signals.
int os_sched_setscheduler(int policy, int priority);
int os_kill(pid_t pid, int sig);

// systemd's notification socket. os_notify_setup takes it and the
// watchdog period from the environment (NOTIFY_SOCKET, WATCHDOG_USEC) and
// removes them from it; it returns the period in microseconds, 0 for no
// watchdog. os_notify sends a state such as "READY=1" without ever
// waiting (a full socket drops it); nothing without NOTIFY_SOCKET.
uint64_t os_notify_setup();
void os_notify(const char *state);
