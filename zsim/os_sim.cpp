// The simulator's definition of the daemon's OS boundary (daemon/os.h and
// the rtnetlink seam of bridge/rtnl.h), and of the few libev calls the
// daemon makes: every call acts on the switch whose image is in place
// (World::cur), in virtual time.
//
// libev is replaced rather than driven: its loop would hold pointers to
// watchers whose contents change with every image swap. Here a watcher's
// own fields (active, at, repeat, in the swapped image) are its state, and
// the world's queue holds (switch, watcher, generation) for each started
// timer; the generation lives in the watcher's pending field, which only
// libev itself ever uses.
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ev.h>
#include <linux/if_packet.h>
#include <map>
#include <string>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "bridge/rtnl.h"
#include "daemon/os.h"
#include "zsim/sim.h"

using zsim::world;

namespace {
constexpr long EPOCH = 1700000000; // wall clock at virtual time 0
struct ev_loop *const LOOP = reinterpret_cast<struct ev_loop *>(0x5157);
uint64_t timer_gen = 1;

zsim::Fd *fd_of(int fd)
{
	auto &m = world->me().fds;
	auto i = m.find(fd);
	return i == m.end() ? nullptr : &i->second;
}

const zsim::Iface *iface_named(const char *name)
{
	for (auto &i : world->me().ifaces)
		if (i.name == name)
			return &i;
	return nullptr;
}

template <class W> void remember(std::vector<W *> &v, W *w)
{
	for (W *x : v)
		if (x == w)
			return;
	v.push_back(w);
}
} // namespace

void os_syslog(int, const char *) {}

void os_gettimeofday(struct timeval *tv)
{
	tv->tv_sec = EPOCH + world->now / zsim::SEC;
	tv->tv_usec = (world->now % zsim::SEC) / 1000;
}

long os_uptime() { return 1000 + world->now / zsim::SEC; }

const char *os_root() { return world->me().root.c_str(); }

int os_socket(int domain, int, int)
{
	auto &s = world->me();
	int fd = s.next_fd++;
	s.fds[fd].kind = domain == AF_PACKET ? 1 : 2;
	return fd;
}

int os_setsockopt(int, int, int, const void *, socklen_t) { return 0; }
int os_set_nonblock(int) { return 0; }

int os_bind(int fd, const struct sockaddr *addr, socklen_t)
{
	if (zsim::Fd *f = fd_of(fd))
		f->bound = reinterpret_cast<const sockaddr_ll *>(addr)->sll_ifindex;
	return 0;
}

int os_getsockname(int, struct sockaddr *, socklen_t *) { return 0; }

ssize_t os_sendmsg(int, const struct msghdr *msg, int)
{
	int ifindex = static_cast<const sockaddr_ll *>(msg->msg_name)->sll_ifindex;
	size_t len = msg->msg_iov[0].iov_len;
	int port = world->port_of(world->cur, ifindex);
	if (port < 0) {
		errno = ENXIO;
		return -1;
	}
	world->transmit(port, static_cast<const uint8_t *>(msg->msg_iov[0].iov_base), len, world->out_at);
	return (ssize_t)len;
}

static ssize_t take(int fd, void *buf, size_t len, bool *trunc)
{
	zsim::Fd *f = fd_of(fd);
	if (!f || f->q.empty()) {
		errno = EAGAIN;
		return -1;
	}
	std::vector<uint8_t> b = std::move(f->q.front());
	f->q.pop_front();
	size_t n = std::min(len, b.size());
	memcpy(buf, b.data(), n);
	*trunc = n < b.size();
	return (ssize_t)n;
}

ssize_t os_recv_frame(int fd, void *buf, size_t len, os_rx_frame *info)
{
	zsim::Fd *f = fd_of(fd);
	const int vlan = f && !f->vlans.empty() ? f->vlans.front() : -1;
	bool trunc;
	ssize_t n = take(fd, buf, len, &trunc);
	if (n < 0)
		return n;
	if (!f->vlans.empty())
		f->vlans.pop_front();
	info->ifindex = f->bound;
	info->outgoing = false;
	info->vlan = vlan;
	return n;
}

ssize_t os_recvmsg(int fd, struct msghdr *msg, int)
{
	bool trunc;
	ssize_t n = take(fd, msg->msg_iov[0].iov_base, msg->msg_iov[0].iov_len, &trunc);
	if (n >= 0)
		msg->msg_flags = trunc ? MSG_TRUNC : 0;
	return n;
}

int os_close(int fd)
{
	world->me().fds.erase(fd);
	return 0;
}

unsigned os_if_nametoindex(const char *name)
{
	if (!strcmp(name, "br0"))
		return 2;
	const zsim::Iface *i = iface_named(name);
	return i ? (unsigned)i->ifindex : 0;
}

// Every simulated interface is a port of br0.
int os_if_master(unsigned ifindex)
{
	if (ifindex == 2)
		return 0;
	char name[IF_NAMESIZE];
	return os_if_indextoname(ifindex, name) ? 2 : -1;
}

// No service manager watches a simulated daemon.
uint64_t os_notify_setup() { return 0; }

void os_notify(const char *) {}

char *os_if_indextoname(unsigned ifindex, char *name)
{
	if (ifindex == 2) {
		snprintf(name, IF_NAMESIZE, "br0");
		return name;
	}
	for (auto &i : world->me().ifaces)
		if ((unsigned)i.ifindex == ifindex) {
			snprintf(name, IF_NAMESIZE, "%s", i.name.c_str());
			return name;
		}
	errno = ENXIO;
	return nullptr;
}

int os_ioctl(int, unsigned long request, void *arg)
{
	auto *ifr = static_cast<struct ifreq *>(arg);
	const zsim::Iface *i = iface_named(ifr->ifr_name);
	if (!i) {
		errno = ENODEV;
		return -1;
	}
	const zsim::Port &p = world->ports[i->port];
	if (request == SIOCGIFHWADDR) {
		const uint8_t mac[6] = {0x02, 0x5a, (uint8_t)(world->cur >> 8), (uint8_t)world->cur, 0,
					(uint8_t)(i->ifindex)};
		memcpy(ifr->ifr_hwaddr.sa_data, mac, 6);
		return 0;
	}
	if (request == SIOCGIFFLAGS) {
		ifr->ifr_flags = IFF_UP | (p.carrier ? IFF_RUNNING : 0);
		return 0;
	}
	errno = EINVAL;
	return -1;
}

// bridge and tc commands: the drop filters and the own-address removals
// change nothing the model forwards.
int os_spawn(char *const[]) { return 0; }
int os_spawn_input(char *const[], const char *, size_t, void (*)(const char *, void *), void *) { return 0; }

FILE *os_popen(const char *, const char *)
{
	static char text[] = "N 5\n";
	return fmemopen(text, sizeof(text) - 1, "r");
}
int os_pclose(FILE *f) { return fclose(f); }
int os_sched_setscheduler(int, int) { return 0; }
int os_kill(pid_t, int) { return 0; }

int rtnl_open(struct rtnl_handle *rth, unsigned subscriptions)
{
	memset(rth, 0, sizeof(*rth));
	auto &s = world->me();
	rth->fd = s.next_fd++;
	s.fds[rth->fd].kind = subscriptions ? 3 : 4;
	return 0;
}

void rtnl_close(struct rtnl_handle *rth)
{
	world->me().fds.erase(rth->fd);
	rth->fd = -1;
}

int rtnl_talk(struct rtnl_handle *, struct nlmsghdr *n, struct nlmsghdr **)
{
	int err = world->bridge_request(n);
	if (err) {
		errno = err;
		return -1;
	}
	return 0;
}

// The event channel's pipe is kept in memory: a record posted and read
// through the kernel would cost three system calls per event. Its
// descriptors are numbers no real descriptor reaches; read and write on
// them are answered here, on every other descriptor they go to the kernel.
namespace {
constexpr int PIPE_FD_BASE = 1 << 24;
int next_pipe_fd = PIPE_FD_BASE;
std::map<int, std::string> pipes; // by read end; the write end is read end + 1

std::string *pipe_of(int fd)
{
	if (fd < PIPE_FD_BASE)
		return nullptr;
	auto i = pipes.find(fd & ~1);
	return i == pipes.end() ? nullptr : &i->second;
}
} // namespace

namespace zsim {
size_t channel_bytes(int fd)
{
	std::string *p = pipe_of(fd);
	return p ? p->size() : 0;
}
void channel_close(int fd) { pipes.erase(fd & ~1); }
} // namespace zsim

extern "C" int pipe2(int fds[2], int flags)
{
	if (!world || world->cur < 0)
		return (int)syscall(SYS_pipe2, fds, flags);
	fds[0] = next_pipe_fd;
	fds[1] = next_pipe_fd + 1;
	next_pipe_fd += 2;
	pipes[fds[0]];
	world->me().real_fds.push_back(fds[0]);
	return 0;
}

extern "C" ssize_t write(int fd, const void *buf, size_t len)
{
	std::string *p = pipe_of(fd);
	if (!p)
		return syscall(SYS_write, fd, buf, len);
	if (p->size() + len > 65536) {
		errno = EAGAIN;
		return -1;
	}
	p->append(static_cast<const char *>(buf), len);
	return (ssize_t)len;
}

extern "C" ssize_t read(int fd, void *buf, size_t len)
{
	std::string *p = pipe_of(fd);
	if (!p)
		return syscall(SYS_read, fd, buf, len);
	if (p->empty()) {
		errno = EAGAIN;
		return -1;
	}
	size_t n = std::min(len, p->size());
	memcpy(buf, p->data(), n);
	p->erase(0, n);
	return (ssize_t)n;
}

// inotify descriptors are real; noted per switch so that a restart can
// close them.
extern "C" int inotify_init1(int flags)
{
	int fd = (int)syscall(SYS_inotify_init1, flags);
	if (fd >= 0 && world && world->cur >= 0)
		world->me().real_fds.push_back(fd);
	return fd;
}

// libev, as far as the daemon uses it.
extern "C" {

struct ev_loop *ev_default_loop(unsigned int) EV_NOEXCEPT { return LOOP; }
int ev_run(struct ev_loop *, int) { return 0; }
void ev_break(struct ev_loop *, int) EV_NOEXCEPT {}

void ev_io_start(struct ev_loop *, ev_io *w) EV_NOEXCEPT
{
	w->active = 1;
	remember(world->me().ios, w);
}
void ev_io_stop(struct ev_loop *, ev_io *w) EV_NOEXCEPT { w->active = 0; }

void ev_idle_start(struct ev_loop *, ev_idle *w) EV_NOEXCEPT
{
	w->active = 1;
	remember(world->me().idles, w);
}
void ev_idle_stop(struct ev_loop *, ev_idle *w) EV_NOEXCEPT { w->active = 0; }

void ev_signal_start(struct ev_loop *, ev_signal *w) EV_NOEXCEPT
{
	w->active = 1;
	world->me().sigs[w->signum] = w;
}

void ev_timer_start(struct ev_loop *, ev_timer *w) EV_NOEXCEPT
{
	if (w->active)
		return;
	w->active = 1;
	zsim::Time due = world->now + (zsim::Time)llround(w->at * 1e9);
	w->at = (double)due / 1e9;
	w->pending = (int)(timer_gen++ & 0x7fffffff);
	world->timer_started(w, due);
}

// As libev does, a stopped timer keeps the time it had left, relative,
// for a later start.
void ev_timer_stop(struct ev_loop *, ev_timer *w) EV_NOEXCEPT
{
	if (w->active)
		w->at -= (double)world->now / 1e9;
	w->active = 0;
	w->pending = 0;
}

void ev_timer_again(struct ev_loop *loop, ev_timer *w) EV_NOEXCEPT
{
	if (w->active)
		ev_timer_stop(loop, w);
	if (w->repeat > 0) {
		w->at = w->repeat;
		ev_timer_start(loop, w);
	}
}

} // extern "C"
