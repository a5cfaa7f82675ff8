// The OS boundary for the real system: thin pass-throughs.
#include "daemon/os.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
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

namespace {

// Where a bare program name is looked for. `tc` and `bridge` live in
// /usr/sbin, which the C library's default search path (used when PATH is
// unset) leaves out, and which init systems and su without a login shell
// often leave out of PATH too. So the PATH given is searched first (an
// operator's choice of tools wins) and the system directories after it.
constexpr const char *system_path = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

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
// the first one on PATH, then on the system's own directories. nullptr
// with errno ENOENT when there is none.
const char *program_path(const char *prog, char (&path)[PATH_MAX])
{
	if (strchr(prog, '/'))
		return prog;
	if (find_in(getenv("PATH"), prog, path) || find_in(system_path, prog, path))
		return path;
	errno = ENOENT;
	return nullptr;
}

// Starts the program and waits for it; the exit status, 256 + the signal
// that ended it, or -1 with errno when it could not be started.
int spawn_and_wait(char *const argv[], const posix_spawn_file_actions_t *fa)
{
	char path[PATH_MAX];
	const char *prog = program_path(argv[0], path);
	if (!prog)
		return -1;
	pid_t pid;
	if (int err = posix_spawn(&pid, prog, fa, nullptr, argv, environ)) {
		errno = err;
		return -1;
	}
	int status;
	while (waitpid(pid, &status, 0) < 0) {
		if (errno != EINTR)
			return -1;
	}
	if (WIFEXITED(status))
		return WEXITSTATUS(status);
	return 256 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
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

FILE *os_popen(const char *command, const char *mode) { return popen(command, mode); }

int os_pclose(FILE *f) { return pclose(f); }

int os_sched_setscheduler(int policy, int priority)
{
	struct sched_param sp {};
	sp.sched_priority = priority;
	return sched_setscheduler(0, policy, &sp);
}

int os_kill(pid_t pid, int sig) { return kill(pid, sig); }
