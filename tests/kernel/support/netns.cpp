#include "tests/kernel/support/netns.h"

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "ring/channel.h"

#define FORMAT(buf)                                                                                            \
	char buf[4096];                                                                                        \
	va_list ap;                                                                                            \
	va_start(ap, fmt);                                                                                     \
	vsnprintf(buf, sizeof(buf), fmt, ap);                                                                  \
	va_end(ap)

int sh(const char *fmt, ...)
{
	FORMAT(cmd);
	int st = system(cmd);
	return WIFEXITED(st) ? WEXITSTATUS(st) : 255;
}

std::string sh_out(const char *fmt, ...)
{
	FORMAT(cmd);
	std::string out;
	if (FILE *p = popen(cmd, "r")) {
		char buf[4096];
		for (size_t n; (n = fread(buf, 1, sizeof(buf), p)) > 0;)
			out.append(buf, n);
		pclose(p);
	}
	return out;
}

size_t count(const std::string &text, const std::string &what)
{
	size_t n = 0;
	for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
		n++;
	return n;
}

void log_to_stderr()
{
	sh("[ -S /dev/log ] && mount --bind /dev/null /dev/log"); // machine's syslog
	openlog("zalk-kernel-test", LOG_PERROR, LOG_USER);
}

double now_s()
{
	return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

bool wait_until(const std::function<bool()> &cond, double limit)
{
	for (double end = now_s() + limit; !cond(); usleep(10000))
		if (now_s() > end)
			return false;
	return true;
}

void add_veth(const char *a, const char *b)
{
	ASSERT_EQ(sh("ip link add '%s' type veth peer name '%s' && ip link set '%s' up && ip link set '%s' up", a, b,
		     a, b),
		  0);
	ASSERT_TRUE(wait_until([&] { return sh_out("cat '/sys/class/net/%s/operstate' '/sys/class/net/%s/operstate'", a, b) == "up\nup\n"; })) << a;
}

void add_bridge(std::initializer_list<const char *> ports)
{
	ASSERT_EQ(sh("ip link add br0 type bridge && ip link set br0 up"), 0);
	for (const char *p : ports)
		ASSERT_EQ(sh("ip link set '%s' master br0", p), 0) << p;
}

void ring_instance(int ins, int ring_id, uint32_t role, const char *a, const char *b)
{
	if (netsock <= 0) // the MAC queries need the interface socket
		netsock = socket(AF_INET, SOCK_DGRAM, 0);
	zalkv2_instance &in = instances[ins];
	memset(&in, 0, sizeof(in));
	in.index = ins;
	in.ring_id = ring_id;
	in.role = role;
	in.bridge_ifindex = if_nametoindex("br0") ? (int)if_nametoindex("br0") : -1;
	const char *names[2] = {a, b};
	for (int p = 0; p < 2; p++) {
		zalkv2_port &port = in.port[p];
		port.instance = &in;
		port.port_index = p;
		port.ifindex = -1;
		if (!names[p])
			continue;
		snprintf(port.name, sizeof(port.name), "%s", names[p]);
		port.ifindex = (int)if_nametoindex(names[p]);
		ASSERT_GT(port.ifindex, 0) << names[p];
		ASSERT_EQ(if_get_mac(port.ifindex, port.mac), 0);
	}
	in.enabled = 1;
}

void EventLoop::start()
{
	got.clear();
	ev_io_init(&watcher,
		   [](struct ev_loop *, ev_io *w, int) {
			   sm_event ev;
			   if (sm_read_event(&ev) == (int)sizeof(ev))
				   static_cast<EventLoop *>(w->data)->got.push_back({ev.instance, ev.event, now_s()});
		   },
		   msg_pipe_create(), EV_READ);
	watcher.data = this;
	ev_io_start(loop, &watcher);
}

void EventLoop::stop() { ev_io_stop(loop, &watcher); }

void EventLoop::run(double seconds)
{
	ev_timer t;
	ev_timer_init(&t, [](struct ev_loop *l, ev_timer *, int) { ev_break(l, EVBREAK_ONE); }, seconds, 0.);
	ev_timer_start(loop, &t);
	ev_run(loop, 0);
	ev_timer_stop(loop, &t);
}

long EventLoop::wait_for(uint32_t ins, uint32_t event, size_t from, double limit)
{
	for (double end = now_s() + limit;; run(0.01)) {
		for (size_t i = from; i < got.size(); i++)
			if (got[i].ins == ins && got[i].event == event)
				return (long)i;
		if (now_s() > end)
			return -1;
	}
}

std::vector<uint32_t> EventLoop::take(size_t n)
{
	for (double end = now_s() + 5; got.size() < n && now_s() < end;)
		run(0.05);
	for (size_t seen = SIZE_MAX, rounds = 0; got.size() != seen && rounds < 30; rounds++) {
		seen = got.size();
		run(0.3);
	}
	std::vector<uint32_t> out = codes(UINT32_MAX);
	got.clear();
	return out;
}

std::vector<uint32_t> EventLoop::codes(uint32_t ins, size_t from) const
{
	std::vector<uint32_t> out;
	for (size_t i = from; i < got.size(); i++)
		if (got[i].ins == ins || ins == UINT32_MAX)
			out.push_back(got[i].event);
	return out;
}

static void die(const char *what)
{
	fprintf(stderr, "kernel test set-up: %s: %s\n", what, strerror(errno));
	exit(2);
}

static void enter_namespaces()
{
	if (unshare(CLONE_NEWNET | CLONE_NEWNS))
		die("unshare(CLONE_NEWNET|CLONE_NEWNS) (kernel tests need root)");
	if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
		die("make / private");
	// A build tree below /var/run or /tmp (a checkout in /tmp, say) must
	// stay reachable under its own path once those are private tmpfs.
	int build_dir = open(ZALK_BUILD_DIR, O_PATH | O_DIRECTORY | O_CLOEXEC);
	if (build_dir < 0)
		die("open " ZALK_BUILD_DIR);
	if (mount("zalk-run", "/var/run", "tmpfs", 0, "mode=0755"))
		die("tmpfs on /var/run");
	if (mount("zalk-tmp", "/tmp", "tmpfs", 0, "mode=1777"))
		die("tmpfs on /tmp");
	if (access(ZALK_BUILD_DIR, F_OK)) {
		char from[64];
		snprintf(from, sizeof(from), "/proc/self/fd/%d", build_dir);
		if (sh("mkdir -p '%s'", ZALK_BUILD_DIR) || mount(from, ZALK_BUILD_DIR, nullptr, MS_BIND | MS_REC, nullptr))
			die("keeping the build tree at " ZALK_BUILD_DIR);
	}
	close(build_dir);
	mkdir("/tmp/.etc-upper", 0755);
	mkdir("/tmp/.etc-work", 0755);
	if (mount("zalk-etc", "/etc", "overlay", 0,
		  "lowerdir=/etc,upperdir=/tmp/.etc-upper,workdir=/tmp/.etc-work"))
		die("overlay on /etc");
	// sysfs must show this namespace's interfaces to iproute2
	umount2("/sys", MNT_DETACH);
	if (mount("sysfs", "/sys", "sysfs", 0, nullptr))
		die("sysfs");
	if (sh("ip link set lo up"))
		die("ip link set lo up");
	// No router solicitations or MLD reports: bridges and veths carry
	// only what the tests send (a kernel without IPv6 has nothing to quiet).
	sh("sysctl -qw net.ipv6.conf.default.disable_ipv6=1 2>/dev/null");
}

int main(int argc, char **argv)
{
	enter_namespaces();
	testing::InitGoogleTest(&argc, argv);
	return RUN_ALL_TESTS();
}
