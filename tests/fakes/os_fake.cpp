// Fake OS boundary for the unit tests, rtnetlink seam included:
// requests are recorded byte for byte.
#include "tests/fakes/fake.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sstream>
#include <sys/ioctl.h>
#include <syslog.h>
#include <signal.h>
#include <unistd.h>

#include "bridge/rtnl.h"
#include "daemon/os.h"

namespace fake {

static std::string root_dir;
static int next_fd = 100;

// Each back to its value-initialised state.
template <class... T> static void fresh(T &...v) { ((v = T{}), ...); }

const std::string &root() { return root_dir; }

void clear_records() { fresh(logs, frames, netlink, commands, argvs, batches, sched_calls, kills); }

void reset()
{
	namespace fs = std::filesystem;
	if (root_dir.empty()) {
		char tmpl[] = "/tmp/zalk-unit-XXXXXX";
		root_dir = mkdtemp(tmpl);
		std::atexit([] { std::error_code ec; fs::remove_all(root_dir, ec); });
	}
	std::error_code ec;
	fs::remove_all(root_dir, ec);
	for (const char *d : {"/etc", "/var/run", "/tmp"})
		fs::create_directories(root_dir + d);
	clear_records();
	fresh(ifaces, rx_queue, recvmsg_queue, recvmsg_calls, sched_result, sched_errno, rtnl_open_fails, socket_fails, talk_hook,
	      spawn_hook, send_hook);
	now = {1000437, 52301};
	uptime = 4242;
	runlevel_output = "N 5\n";
}

void add_iface(const std::string &name, int index, const uint8_t mac[6], bool running)
{
	Iface i{name, index, {}, running};
	memcpy(i.mac, mac, 6);
	ifaces.push_back(i);
}

Iface *iface_by_name(const std::string &name)
{
	auto i = std::find_if(ifaces.begin(), ifaces.end(), [&](const Iface &f) { return f.name == name; });
	return i == ifaces.end() ? nullptr : &*i;
}

Iface *iface_by_index(int index)
{
	auto i = std::find_if(ifaces.begin(), ifaces.end(), [&](const Iface &f) { return f.index == index; });
	return i == ifaces.end() ? nullptr : &*i;
}

void write_file(const std::string &path, const std::string &content)
{
	std::filesystem::create_directories(std::filesystem::path(root_dir + path).parent_path());
	std::ofstream(root_dir + path, std::ios::binary | std::ios::trunc) << content;
}

std::string read_file(const std::string &path)
{
	std::ifstream f(root_dir + path, std::ios::binary);
	std::stringstream ss;
	ss << f.rdbuf();
	return ss.str();
}

bool file_exists(const std::string &path) { return std::filesystem::exists(root_dir + path); }

void set_debug(unsigned level) { write_file("/var/run/zalkv2/debug", std::to_string(level) + "\n"); }

std::vector<std::string> log_texts(int prio)
{
	std::vector<std::string> out;
	for (auto &l : logs)
		if (l.prio == prio)
			out.push_back(l.text);
	return out;
}

} // namespace fake

using namespace fake;

void os_syslog(int prio, const char *text) { logs.push_back({prio, text}); }

void os_gettimeofday(struct timeval *tv) { *tv = fake::now; }

long os_uptime() { return uptime; }

const char *os_root()
{
	if (root_dir.empty())
		reset();
	return root_dir.c_str();
}

int os_socket(int, int, int)
{
	if (socket_fails) {
		errno = EPERM;
		return -1;
	}
	return next_fd++;
}

int os_setsockopt(int, int, int, const void *, socklen_t) { return 0; }

int os_set_nonblock(int) { return 0; }

int os_bind(int, const struct sockaddr *, socklen_t) { return 0; }

int os_getsockname(int, struct sockaddr *, socklen_t *) { return 0; }

ssize_t os_sendmsg(int, const struct msghdr *msg, int)
{
	Frame f{static_cast<const sockaddr_ll *>(msg->msg_name)->sll_ifindex, {}};
	for (size_t i = 0; i < msg->msg_iovlen; i++) {
		auto *p = static_cast<const uint8_t *>(msg->msg_iov[i].iov_base);
		f.bytes.insert(f.bytes.end(), p, p + msg->msg_iov[i].iov_len);
	}
	if (send_hook)
		send_hook(f);
	frames.push_back(f);
	return (ssize_t)f.bytes.size();
}

ssize_t os_recv_frame(int, void *buf, size_t len, os_rx_frame *info)
{
	if (rx_queue.empty()) {
		errno = EAGAIN;
		return -1;
	}
	Frame f = rx_queue.front();
	rx_queue.pop_front();
	size_t n = std::min(len, f.bytes.size());
	memcpy(buf, f.bytes.data(), n);
	*info = {f.ifindex, false, f.vlan}; // a frame received, not one sent out
	return (ssize_t)n;
}

ssize_t os_recvmsg(int, struct msghdr *msg, int)
{
	recvmsg_calls++;
	if (recvmsg_queue.empty()) {
		errno = EAGAIN;
		return -1;
	}
	RecvMsg m = recvmsg_queue.front();
	recvmsg_queue.pop_front();
	if (m.err) {
		errno = m.err;
		return -1;
	}
	size_t n = std::min(msg->msg_iov[0].iov_len, m.bytes.size());
	if (n)
		memcpy(msg->msg_iov[0].iov_base, m.bytes.data(), n);
	msg->msg_flags = n < m.bytes.size() ? MSG_TRUNC : 0;
	return (ssize_t)n;
}

int os_close(int) { return 0; }

unsigned os_if_nametoindex(const char *name)
{
	Iface *i = iface_by_name(name);
	return i ? (unsigned)i->index : 0;
}

int os_if_master(unsigned ifindex)
{
	Iface *i = iface_by_index((int)ifindex);
	if (!i)
		return -1;
	Iface *br = iface_by_name("br0");
	return i->master >= 0 ? i->master : br ? br->index : 0;
}

char *os_if_indextoname(unsigned ifindex, char *name)
{
	Iface *i = iface_by_index((int)ifindex);
	if (!i) {
		errno = ENXIO;
		return nullptr;
	}
	snprintf(name, IF_NAMESIZE, "%s", i->name.c_str());
	return name;
}

int os_ioctl(int, unsigned long request, void *arg)
{
	auto *ifr = static_cast<struct ifreq *>(arg);
	Iface *i = iface_by_name(ifr->ifr_name);
	if (!i) {
		errno = ENODEV;
		return -1;
	}
	if (request == SIOCGIFHWADDR) {
		memcpy(ifr->ifr_hwaddr.sa_data, i->mac, 6);
		return 0;
	}
	if (request == SIOCGIFFLAGS) {
		ifr->ifr_flags = IFF_UP | (i->running ? IFF_RUNNING : 0);
		return 0;
	}
	errno = EINVAL;
	return -1;
}

int os_spawn(char *const argv[])
{
	std::vector<std::string> v;
	std::string joined;
	for (int i = 0; argv[i]; i++) {
		v.emplace_back(argv[i]);
		joined += (i ? " " : "") + v.back();
	}
	commands.push_back(joined);
	argvs.push_back(v);
	int st = spawn_hook ? spawn_hook(v) : 0;
	if (st == -1)
		errno = ENOENT;
	return st;
}

int os_spawn_input(char *const argv[], const char *input, size_t len,
		   void (*on_line)(const char *line, void *ctx), void *ctx)
{
	std::string record;
	for (int i = 0; argv[i]; i++)
		record.append(i ? " " : "").append(argv[i]);
	batches.push_back(record.append("\n").append(input, len));
	std::istringstream lines(std::string(input, len));
	std::string line;
	int failed = 0;
	for (int n = 1; std::getline(lines, line); n++) {
		std::vector<std::string> v{argv[0]};
		std::istringstream words(line);
		for (std::string w; words >> w;)
			v.push_back(w);
		std::vector<char *> cv;
		for (auto &w : v)
			cv.push_back(w.data());
		cv.push_back(nullptr);
		const int st = os_spawn(cv.data());
		if (st > 255)
			return st; // died at this line
		if (st != 0) {
			on_line(("Command failed -:" + std::to_string(n)).c_str(), ctx);
			failed = 1;
		}
	}
	return failed;
}

FILE *os_popen(const char *, const char *)
{
	if (runlevel_output.empty())
		return nullptr;
	return fmemopen((void *)runlevel_output.data(), runlevel_output.size(), "r");
}

int os_pclose(FILE *f) { return fclose(f); }

int os_sched_setscheduler(int policy, int priority)
{
	sched_calls.emplace_back(policy, priority);
	if (sched_result)
		errno = sched_errno;
	return sched_result;
}

// Never started by systemd (tests/kernel sees the real notifications).
uint64_t os_notify_setup() { return 0; }

void os_notify(const char *) {}

int os_kill(pid_t pid, int sig)
{
	kills.emplace_back(pid, sig);
	return kill(pid, 0) == 0 ? 0 : -1; // only whether such a process exists
}

int rtnl_open(struct rtnl_handle *rth, unsigned subscriptions)
{
	memset(rth, 0, sizeof(*rth));
	rth->fd = rtnl_open_fails ? -1 : 300 + (int)subscriptions;
	return rtnl_open_fails ? -1 : 0;
}

void rtnl_close(struct rtnl_handle *rth) { rth->fd = -1; }

int rtnl_talk(struct rtnl_handle *rtnl, struct nlmsghdr *n, struct nlmsghdr **)
{
	n->nlmsg_seq = ++rtnl->seq;
	n->nlmsg_flags |= NLM_F_ACK;
	auto *p = reinterpret_cast<const uint8_t *>(n);
	netlink.emplace_back(p, p + n->nlmsg_len);
	return talk_hook ? talk_hook(n) : 0;
}
