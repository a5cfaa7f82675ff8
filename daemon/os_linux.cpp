// The OS boundary for the real system: thin pass-throughs.
#include "daemon/os.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/wait.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

extern char **environ;

void os_syslog(int prio, const char *text) { syslog(prio, "%s", text); }

void os_gettimeofday(struct timeval *tv) { gettimeofday(tv, nullptr); }

long os_uptime()
{
	struct sysinfo si {};
	if (sysinfo(&si))
		return 0;
	return si.uptime;
}

const char *os_root() { return ""; }

int os_socket(int domain, int type, int protocol) { return socket(domain, type, protocol); }

int os_setsockopt(int fd, int level, int name, const void *val, socklen_t len)
{
	return setsockopt(fd, level, name, val, len);
}

int os_set_nonblock(int fd) { return fcntl(fd, F_SETFL, O_NONBLOCK); }

int os_bind(int fd, const struct sockaddr *addr, socklen_t len) { return bind(fd, addr, len); }

int os_getsockname(int fd, struct sockaddr *addr, socklen_t *len) { return getsockname(fd, addr, len); }

ssize_t os_sendmsg(int fd, const struct msghdr *msg, int flags) { return sendmsg(fd, msg, flags); }

ssize_t os_recv_frame(int fd, void *buf, size_t len, os_rx_frame *info)
{
	sockaddr_ll from{};
	iovec iov = {buf, len};
	alignas(cmsghdr) char ctrl[CMSG_SPACE(sizeof(tpacket_auxdata))];
	msghdr msg{};
	msg.msg_name = &from;
	msg.msg_namelen = sizeof(from);
	msg.msg_iov = &iov;
	msg.msg_iovlen = 1;
	msg.msg_control = ctrl;
	msg.msg_controllen = sizeof(ctrl);
	ssize_t n = recvmsg(fd, &msg, 0);
	*info = {from.sll_ifindex, from.sll_pkttype == PACKET_OUTGOING, -1};
	if (n < 0)
		return n;
	for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
		if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA ||
		    c->cmsg_len < CMSG_LEN(sizeof(tpacket_auxdata)))
			continue;
		tpacket_auxdata aux;
		memcpy(&aux, CMSG_DATA(c), sizeof(aux));
		// The TCI holds priority and DEI above the 12-bit id.
		if (aux.tp_status & TP_STATUS_VLAN_VALID)
			info->vlan = aux.tp_vlan_tci & 0x0fff;
	}
	return n;
}

ssize_t os_recvmsg(int fd, struct msghdr *msg, int flags) { return recvmsg(fd, msg, flags); }

int os_close(int fd) { return close(fd); }

unsigned os_if_nametoindex(const char *name) { return if_nametoindex(name); }

// The C library opens and closes a socket for every lookup; the status
// files look names up on every ring state change, so keep one open.
char *os_if_indextoname(unsigned ifindex, char *name)
{
	static int fd = -1;
	if (fd < 0)
		fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return if_indextoname(ifindex, name);
	struct ifreq ifr;
	memset(&ifr, 0, sizeof(ifr));
	ifr.ifr_ifindex = (int)ifindex;
	if (ioctl(fd, SIOCGIFNAME, &ifr) < 0) {
		if (errno == ENODEV)
			errno = ENXIO; // as if_indextoname says it
		return nullptr;
	}
	memcpy(name, ifr.ifr_name, IF_NAMESIZE);
	name[IF_NAMESIZE - 1] = 0;
	return name;
}

int os_ioctl(int fd, unsigned long request, void *arg) { return ioctl(fd, request, arg); }

// One RTM_GETLINK on a socket of its own: asked only when rings are set
// up or checked after a change of br0 or a ring port, never per frame.
int os_if_master(unsigned ifindex)
{
	struct {
		struct nlmsghdr h;
		struct ifinfomsg ifi;
	} req{};
	req.h.nlmsg_len = sizeof(req);
	req.h.nlmsg_type = RTM_GETLINK;
	req.h.nlmsg_flags = NLM_F_REQUEST;
	req.ifi.ifi_family = AF_UNSPEC;
	req.ifi.ifi_index = (int)ifindex;
	int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
	if (fd < 0)
		return -1;
	alignas(struct nlmsghdr) char buf[16384];
	ssize_t len = -1;
	if (send(fd, &req, sizeof(req), 0) == (ssize_t)sizeof(req))
		len = recv(fd, buf, sizeof(buf), 0);
	close(fd);
	auto *h = reinterpret_cast<struct nlmsghdr *>(buf);
	if (len < 0 || !NLMSG_OK(h, (unsigned)len) || h->nlmsg_type != RTM_NEWLINK)
		return -1; // NLMSG_ERROR: no such interface
	auto *ifi = static_cast<struct ifinfomsg *>(NLMSG_DATA(h));
	int rest = (int)h->nlmsg_len - (int)NLMSG_LENGTH(sizeof(*ifi));
	for (auto *a = IFLA_RTA(ifi); RTA_OK(a, rest); a = RTA_NEXT(a, rest))
		if (a->rta_type == IFLA_MASTER && RTA_PAYLOAD(a) >= sizeof(uint32_t))
			return (int)*static_cast<uint32_t *>(RTA_DATA(a));
	return 0;
}

namespace {

// Where a bare program name is looked for: the system's own directories
// first, then PATH. `tc` and `bridge` act on the switch's bridge as root,
// so a PATH inherited from whoever started the daemon (a shell with ~/bin
// or . in it, an init system's) must not choose them; /usr/sbin, which the
// C library's default search path leaves out, is searched too.
constexpr const char *system_path = "/usr/sbin:/sbin:/usr/bin:/bin";

bool is_program(const char *path)
{
	struct stat st;
	return stat(path, &st) == 0 && S_ISREG(st.st_mode) && access(path, X_OK) == 0;
}

// Fills `out` with the first executable file named `prog` in the
// directories of `dirs` (colon-separated; an empty entry is skipped,
// never taken as the working directory). False when there is none.
bool find_in(const char *dirs, const char *prog, char (&out)[PATH_MAX])
{
	while (dirs && *dirs) {
		const char *end = strchrnul(dirs, ':');
		int n = snprintf(out, sizeof(out), "%.*s/%s", (int)(end - dirs), dirs, prog);
		if (end > dirs && n > 0 && (size_t)n < sizeof(out) && is_program(out))
			return true;
		dirs = *end ? end + 1 : nullptr;
	}
	return false;
}

} // namespace

namespace {

// The program to start for argv[0]: a name with a slash as it is, else
// the first one in the system's directories, then on PATH (PATH first
// with path_first). nullptr with errno ENOENT when there is none.
const char *program_path(const char *prog, char (&path)[PATH_MAX], bool path_first)
{
	if (strchr(prog, '/'))
		return prog;
	const char *first = path_first ? getenv("PATH") : system_path;
	const char *then = path_first ? system_path : getenv("PATH");
	if (find_in(first, prog, path) || find_in(then, prog, path))
		return path;
	errno = ENOENT;
	return nullptr;
}

// Starts the program as any program of the system starts: at normal
// scheduling priority (the daemon's SCHED_FIFO is for its loop, not for
// `tc`), with no signal blocked and every signal at its default action.
// The pid, or -1 with errno.
pid_t start_program(char *const argv[], const posix_spawn_file_actions_t *fa, bool path_first = false)
{
	char path[PATH_MAX];
	const char *prog = program_path(argv[0], path, path_first);
	if (!prog)
		return -1;
	posix_spawnattr_t attr;
	posix_spawnattr_init(&attr);
	struct sched_param sp {};
	sigset_t none, all;
	sigemptyset(&none);
	sigfillset(&all);
	posix_spawnattr_setschedpolicy(&attr, SCHED_OTHER);
	posix_spawnattr_setschedparam(&attr, &sp);
	posix_spawnattr_setsigmask(&attr, &none);
	posix_spawnattr_setsigdefault(&attr, &all);
	posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSCHEDULER | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
	pid_t pid;
	int err = posix_spawn(&pid, prog, fa, &attr, argv, environ);
	posix_spawnattr_destroy(&attr);
	if (err) {
		errno = err;
		return -1;
	}
	return pid;
}

// The exit status, 256 + the signal that ended it, or -1 with errno.
int wait_program(pid_t pid)
{
	int status;
	while (waitpid(pid, &status, 0) < 0) {
		if (errno != EINTR)
			return -1;
	}
	if (WIFEXITED(status))
		return WEXITSTATUS(status);
	return 256 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

int spawn_and_wait(char *const argv[], const posix_spawn_file_actions_t *fa)
{
	const pid_t pid = start_program(argv, fa);
	return pid < 0 ? -1 : wait_program(pid);
}

} // namespace

int os_spawn(char *const argv[]) { return spawn_and_wait(argv, nullptr); }

namespace {

// A descriptor that closes itself.
struct owned_fd {
	int fd;
	explicit owned_fd(int f) : fd(f) {}
	owned_fd(const owned_fd &) = delete;
	owned_fd &operator=(const owned_fd &) = delete;
	~owned_fd()
	{
		if (fd >= 0)
			close(fd);
	}
};

bool write_all(int fd, const char *p, size_t len)
{
	while (len) {
		ssize_t n = write(fd, p, len);
		if (n < 0 && errno == EINTR)
			continue;
		if (n <= 0)
			return false;
		p += n;
		len -= (size_t)n;
	}
	return true;
}

} // namespace

int os_spawn_input(char *const argv[], const char *input, size_t len,
		   void (*on_line)(const char *line, void *ctx), void *ctx)
{
	// Both ends are files in memory, not pipes: the program can write as
	// much as it likes to standard error while it reads, and nobody waits
	// for anybody.
	owned_fd in(memfd_create("zalk-stdin", MFD_CLOEXEC));
	owned_fd err(memfd_create("zalk-stderr", MFD_CLOEXEC));
	if (in.fd < 0 || err.fd < 0 || !write_all(in.fd, input, len) || lseek(in.fd, 0, SEEK_SET) < 0)
		return -1;
	posix_spawn_file_actions_t fa;
	if (int e = posix_spawn_file_actions_init(&fa)) {
		errno = e;
		return -1;
	}
	posix_spawn_file_actions_adddup2(&fa, in.fd, 0);
	posix_spawn_file_actions_adddup2(&fa, err.fd, 2);
	int status = spawn_and_wait(argv, &fa);
	posix_spawn_file_actions_destroy(&fa);
	if (status < 0)
		return -1;
	if (lseek(err.fd, 0, SEEK_SET) == 0) {
		char buf[4096];
		size_t have = 0;
		ssize_t n;
		while ((n = read(err.fd, buf + have, sizeof(buf) - 1 - have)) > 0) {
			have += (size_t)n;
			size_t start = 0;
			for (size_t i = 0; i < have; i++) {
				if (buf[i] != '\n')
					continue;
				buf[i] = 0;
				on_line(buf + start, ctx);
				start = i + 1;
			}
			if (start == 0 && have == sizeof(buf) - 1)
				start = have; // a line longer than the buffer: dropped
			memmove(buf, buf + start, have - start);
			have -= start;
		}
		if (have) {
			buf[have] = 0;
			on_line(buf, ctx);
		}
	}
	return status;
}

namespace {
pid_t reader_pid = -1;
}

// The command is one program name, started as os_spawn starts it (no
// shell), its standard output read through a pipe. It is looked up in
// PATH first, as the shell of popen did: `runlevel` only reports, and a
// machine without a runlevel of its own (the rig's guest) provides one
// there.
FILE *os_popen(const char *command, const char *mode)
{
	int fds[2];
	if (strcmp(mode, "r") || pipe2(fds, O_CLOEXEC))
		return nullptr;
	posix_spawn_file_actions_t fa;
	posix_spawn_file_actions_init(&fa);
	posix_spawn_file_actions_adddup2(&fa, fds[1], 1);
	char *argv[] = {const_cast<char *>(command), nullptr};
	reader_pid = start_program(argv, &fa, true);
	posix_spawn_file_actions_destroy(&fa);
	close(fds[1]);
	FILE *f = reader_pid < 0 ? nullptr : fdopen(fds[0], "r");
	if (!f)
		close(fds[0]);
	return f;
}

int os_pclose(FILE *f)
{
	fclose(f);
	return wait_program(reader_pid);
}

int os_sched_setscheduler(int policy, int priority)
{
	struct sched_param sp {};
	sp.sched_priority = priority;
	// Whatever a child is started by (the C library's own helpers too),
	// it does not inherit the real-time policy or a negative nice value.
	return sched_setscheduler(0, policy | SCHED_RESET_ON_FORK, &sp);
}

int os_kill(pid_t pid, int sig) { return kill(pid, sig); }

namespace {

int notify_fd = -1;
struct sockaddr_un notify_addr;
socklen_t notify_len;

} // namespace

// libsystemd's sd_notify is not used: it sends on a blocking socket, and
// a notification socket whose queue is full (systemd busy, or a test that
// does not read) would freeze the whole daemon inside it. Here a
// notification that cannot go at once is dropped, like a frame: the next
// watchdog tick comes within half a period.
uint64_t os_notify_setup()
{
	const char *path = getenv("NOTIFY_SOCKET");
	size_t len = path ? strlen(path) : 0;
	if (len >= 2 && len < sizeof(notify_addr.sun_path) && (path[0] == '/' || path[0] == '@')) {
		notify_addr.sun_family = AF_UNIX;
		memcpy(notify_addr.sun_path, path, len);
		if (path[0] == '@')
			notify_addr.sun_path[0] = 0; // an abstract name has no terminating zero
		notify_len = (socklen_t)(offsetof(struct sockaddr_un, sun_path) + len + (path[0] == '/'));
		notify_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	}
	// WATCHDOG_PID, when set, names the process the watchdog is meant for.
	const char *pid = getenv("WATCHDOG_PID");
	const char *usec = getenv("WATCHDOG_USEC");
	uint64_t period = 0;
	if (notify_fd >= 0 && usec && (!pid || strtol(pid, nullptr, 10) == getpid()))
		period = strtoull(usec, nullptr, 10);
	// The commands the daemon runs must not speak for it: systemctl's
	// runlevel, for one, would send its own state there.
	for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_PID", "WATCHDOG_USEC"})
		unsetenv(name);
	return period;
}

void os_notify(const char *state)
{
	if (notify_fd >= 0)
		sendto(notify_fd, state, strlen(state), MSG_DONTWAIT | MSG_NOSIGNAL, (const struct sockaddr *)&notify_addr,
		       notify_len);
}
