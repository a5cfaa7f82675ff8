// zalkctl: the operator's view of zalkv2d. It reads the daemon's status
// tree, checks a configuration file with the daemon's own loader and
// checks, switches debug bits and prints metrics. It never signals or
// otherwise changes the daemon; only `debug LEVEL` writes a file, the one
// the daemon reads its debug level from.
//
// Usage: zalkctl [OPTIONS] COMMAND [ARGS]
//   status [RING_ID]        one screen per ring (with -j one JSON object)
//   check [FILE]            check FILE (default: the -c file)
//   debug [LEVEL|NAME...]   show or set the debug bits; names: state dbg
//                           note trace msg tip eventlog (or none)
//   metrics                 rings and ports in Prometheus text format
// Options:
//   -j, --json              status as JSON
//   -s, --strict            check: warnings make the exit status 2
//   -r, --root DIR          status tree (default /var/run/zalkv2)
//   -c, --config FILE       configuration giving port A and B for status
//                           (default /etc/zalkv2d.conf)
//   -h, --help              this text
// Exit status:
//   0  success (check: no errors; warnings printed)
//   1  usage error, unknown ring, unreadable or incomplete status, or
//      check found errors (the daemon would refuse the file or a ring)
//   2  check --strict found warnings but no errors
//   3  the daemon is not running (no status tree)
//
// status --json prints {"rings": [...]}, rings in ring-id order, each
// {"ring_id": int, "role": str, "state": str|null, "whole": bool,
//  "missing": str|null (the interfaces the ring waits for), "tc_count": int|null, "tc_age_s": int|null, "ring_interval_ms": int
//  (focal points), "ports": [{"name": str, "port": "A"|"B"|null,
//  "link": int|null, "physical_state": str|null, "logical_state":
//  str|null, "hello_enable": bool|null, "hello_time_ms": int|null,
//  "blocked": bool}]}; null where the status file is missing or empty.
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <getopt.h>
#include <linux/if_bridge.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "daemon/config.h"
#include "daemon/instance.h"
#include "status/schema.h"

namespace {

namespace sc = zalk_schema;

const char *root = sc::ROOT;
const char *config_path = "/etc/zalkv2d.conf";
bool json, strict;

enum Exit { OK = 0, FAILED = 1, WARNINGS = 2, NOT_RUNNING = 3 };

[[noreturn]] void die(int status, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
void die(int status, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	fputs("zalkctl: ", stderr);
	vfprintf(stderr, fmt, ap);
	fputc('\n', stderr);
	va_end(ap);
	exit(status);
}

[[noreturn]] void usage(int status)
{
	fprintf(status ? stderr : stdout,
		"Usage: zalkctl [-j] [-s] [-r DIR] [-c FILE] COMMAND [ARGS]\n"
		"  status [RING_ID]        ring state, ports, topology changes\n"
		"  check [FILE]            check a configuration file (default /etc/zalkv2d.conf)\n"
		"  debug [LEVEL|NAME...]   show or set the debug bits\n"
		"  metrics                 Prometheus text format\n");
	exit(status);
}

// ---- status tree ------------------------------------------------------

// The first line of a file, or nothing when it is missing or empty. The
// daemon rewrites files in place, so an empty file is read once more.
std::optional<std::string> read_value(const std::string &path)
{
	for (int attempt = 0; attempt < 3; attempt++) {
		if (attempt)
			usleep(20 * 1000);
		FILE *f = fopen(path.c_str(), "r");
		if (!f)
			return std::nullopt;
		char line[128];
		bool got = fgets(line, sizeof(line), f) != nullptr;
		fclose(f);
		if (!got || !line[0])
			continue;
		line[strcspn(line, "\n")] = '\0';
		return std::string(line);
	}
	return std::nullopt;
}

std::optional<long> read_long(const std::string &path)
{
	auto v = read_value(path);
	if (!v)
		return std::nullopt;
	char *end;
	long n = strtol(v->c_str(), &end, 10);
	if (end == v->c_str())
		return std::nullopt;
	return n;
}

struct Port {
	std::string name;
	const char *which = nullptr; // "A", "B" or unknown
	std::optional<long> link, hello_time;
	std::optional<std::string> physical, logical, hello;
	bool blocked() const { return physical && *physical == sc::port_state_texts[PORT_BLOCKING]; }
};

struct Ring {
	long id = 0;
	std::optional<std::string> role, state;
	// The interfaces the ring waits for (br0, or ring ports gone or out
	// of br0): its ring state then tells nothing about the ring.
	std::optional<std::string> missing;
	std::optional<long> tc_count, tc_jiffies, interval;
	std::vector<Port> ports;
	bool focal() const { return role && *role == sc::type_texts[RING_TYPE_FOCAL]; }
	bool whole() const
	{
		return !missing && state && *state == sc::ring_state_texts[sc::whole_state[focal() ? RING_TYPE_FOCAL : RING_TYPE_MEMBER]];
	}
	std::string verdict() const { return whole() ? "whole" : missing ? "waits for " + *missing : "broken"; }
	// The files every enabled ring has once it is set up; a ring that
	// waits for br0 has only "missing".
	bool complete() const { return missing || (role && state && tc_count && tc_jiffies); }
};

long uptime_now()
{
	FILE *f = fopen("/proc/uptime", "r");
	double up = 0;
	if (f) {
		if (fscanf(f, "%lf", &up) != 1)
			up = 0;
		fclose(f);
	}
	return (long)up;
}

bool is_number(const char *s, long *out)
{
	char *end;
	errno = 0;
	long n = strtol(s, &end, 10);
	if (!*s || *end || errno)
		return false;
	*out = n;
	return true;
}

// Port names in the order the configuration gives them (A, then B).
std::map<long, std::vector<std::string>> configured_ports()
{
	std::map<long, std::vector<std::string>> order;
	cfg_t *cfg = zalkv2_load_config(config_path, false);
	if (!cfg)
		return order;
	for (unsigned c = 0; c < cfg_size(cfg, "zalk"); c++) {
		cfg_t *sec = cfg_getnsec(cfg, "zalk", c);
		auto &names = order[cfg_getint(sec, "ring-id")];
		names.clear(); // a later section with the same id replaces the earlier
		for (unsigned p = 0; p < 2 && p < cfg_size(sec, "port"); p++)
			names.push_back(cfg_getstr(cfg_getnsec(sec, "port", p), "name"));
	}
	cfg_free(cfg);
	return order;
}

Ring read_ring(long id, const std::vector<std::string> &config_order)
{
	Ring r;
	r.id = id;
	std::string dir = std::string(root) + "/" + std::to_string(id) + "/";
	r.role = read_value(dir + sc::TYPE);
	r.state = read_value(dir + sc::STATE);
	r.missing = read_value(dir + sc::MISSING);
	r.tc_count = read_long(dir + sc::TC_COUNT);
	r.tc_jiffies = read_long(dir + sc::TC_JIFFIES);
	r.interval = read_long(dir + sc::RING_INTERVAL);
	DIR *d = opendir(dir.c_str());
	for (struct dirent *e; d && (e = readdir(d));) {
		struct stat st;
		std::string path = dir + e->d_name + "/";
		if (e->d_name[0] == '.' || stat(path.c_str(), &st) || !S_ISDIR(st.st_mode))
			continue;
		Port p;
		p.name = e->d_name;
		auto at = std::find(config_order.begin(), config_order.end(), p.name);
		if (at != config_order.end())
			p.which = at == config_order.begin() ? "A" : "B";
		p.link = read_long(path + sc::LINK);
		p.physical = read_value(path + sc::PHYSICAL_STATE);
		p.logical = read_value(path + sc::LOGICAL_STATE);
		p.hello = read_value(path + sc::HELLO_ENA);
		p.hello_time = read_long(path + sc::HELLO_TIME);
		r.ports.push_back(p);
	}
	if (d)
		closedir(d);
	// Port A before port B; ports the configuration does not name last.
	std::sort(r.ports.begin(), r.ports.end(), [](const Port &a, const Port &b) {
		std::string ka = a.which ? a.which : "C", kb = b.which ? b.which : "C";
		return ka != kb ? ka < kb : a.name < b.name;
	});
	return r;
}

// Every ring of the tree (or the one asked for), in ring-id order.
std::vector<Ring> read_tree(const char *only)
{
	long wanted = -1;
	if (only && (!is_number(only, &wanted) || wanted < 0))
		die(FAILED, "not a ring id: %s", only);
	DIR *d = opendir(root);
	if (!d) {
		if (errno == ENOENT)
			die(NOT_RUNNING, "zalkv2d is not running (no %s)", root);
		die(FAILED, "cannot read %s: %s", root, strerror(errno));
	}
	std::vector<long> ids;
	for (struct dirent *e; (e = readdir(d));) {
		long id;
		if (is_number(e->d_name, &id) && (wanted < 0 || id == wanted))
			ids.push_back(id);
	}
	closedir(d);
	if (wanted >= 0 && ids.empty())
		die(FAILED, "no ring %ld", wanted);
	std::sort(ids.begin(), ids.end());
	auto order = configured_ports();
	std::vector<Ring> rings;
	for (long id : ids)
		rings.push_back(read_ring(id, order[id]));
	return rings;
}

// True when the ring's files are all there but some stay empty (they were
// read again): the daemon made them and could not write their values.
bool has_empty_file(long id)
{
	std::string dir = std::string(root) + "/" + std::to_string(id) + "/";
	struct stat st;
	bool empty = false;
	for (const char *name : {sc::TYPE, sc::STATE, sc::TC_COUNT, sc::TC_JIFFIES}) {
		if (stat((dir + name).c_str(), &st))
			return false; // still being set up
		empty |= st.st_size == 0;
	}
	return empty;
}

// Rings whose files are not all there yet make the exit status 1.
int report_incomplete(const std::vector<Ring> &rings)
{
	int status = OK;
	for (auto &r : rings) {
		if (r.complete())
			continue;
		if (has_empty_file(r.id))
			fprintf(stderr, "zalkctl: ring %ld: status files empty (the daemon could not write them: /run full?)\n",
				r.id);
		else
			fprintf(stderr, "zalkctl: ring %ld: status incomplete (being set up or torn down?)\n", r.id);
		status = FAILED;
	}
	return status;
}

std::string or_unknown(const std::optional<std::string> &v) { return v ? *v : "?"; }
std::string or_unknown(const std::optional<long> &v) { return v ? std::to_string(*v) : "?"; }

std::string age_text(long seconds)
{
	char buf[48];
	if (seconds < 60)
		snprintf(buf, sizeof(buf), "%lds", seconds);
	else if (seconds < 3600)
		snprintf(buf, sizeof(buf), "%ldm%02lds", seconds / 60, seconds % 60);
	else if (seconds < 86400)
		snprintf(buf, sizeof(buf), "%ldh%02ldm", seconds / 3600, seconds % 3600 / 60);
	else
		snprintf(buf, sizeof(buf), "%ldd%02ldh", seconds / 86400, seconds % 86400 / 3600);
	return buf;
}

std::optional<long> tc_age(const Ring &r, long up)
{
	if (!r.tc_jiffies)
		return std::nullopt;
	return std::max(0L, up - *r.tc_jiffies);
}

void print_text(const std::vector<Ring> &rings)
{
	long up = uptime_now();
	bool first = true;
	for (auto &r : rings) {
		if (!first)
			printf("\n");
		first = false;
		printf("ring %ld  %s  %s  (%s)\n", r.id, or_unknown(r.role).c_str(), or_unknown(r.state).c_str(),
		       r.verdict().c_str());
		auto age = tc_age(r, up);
		printf("  topology changes %s, last %s ago\n", or_unknown(r.tc_count).c_str(),
		       age ? age_text(*age).c_str() : "?");
		if (r.interval)
			printf("  ring interval %ld ms\n", *r.interval);
		printf("  %-4s %-16s %-5s %-14s %-14s %s\n", "", "port", "link", "physical", "logical", "hello");
		for (auto &p : r.ports) {
			std::string hello = p.hello ? (*p.hello == sc::hello_ena_texts[1] ? "on " : "off ") + or_unknown(p.hello_time) + " ms" : "?";
			printf("  %-4s %-16s %-5s %-14s %-14s %s%s\n", p.which ? p.which : "-", p.name.c_str(),
			       p.link ? (*p.link ? "up" : "down") : "?", or_unknown(p.physical).c_str(),
			       or_unknown(p.logical).c_str(), hello.c_str(), p.blocked() ? "   <== BLOCKED" : "");
		}
	}
}

std::string json_string(const std::optional<std::string> &v)
{
	if (!v)
		return "null";
	std::string out = "\"";
	for (unsigned char c : *v) {
		if (c == '"' || c == '\\') {
			out += '\\';
			out += (char)c;
		} else if (c < 0x20) {
			char esc[8];
			snprintf(esc, sizeof(esc), "\\u%04x", c);
			out += esc;
		} else {
			out += (char)c;
		}
	}
	return out + "\"";
}

std::string json_number(const std::optional<long> &v) { return v ? std::to_string(*v) : "null"; }

void print_json(const std::vector<Ring> &rings)
{
	long up = uptime_now();
	printf("{\"rings\": [");
	for (size_t i = 0; i < rings.size(); i++) {
		const Ring &r = rings[i];
		printf("%s{\"ring_id\": %ld, \"role\": %s, \"state\": %s, \"whole\": %s, \"missing\": %s, \"tc_count\": %s, "
		       "\"tc_age_s\": %s",
		       i ? ", " : "", r.id, json_string(r.role).c_str(), json_string(r.state).c_str(),
		       r.whole() ? "true" : "false", json_string(r.missing).c_str(), json_number(r.tc_count).c_str(),
		       json_number(tc_age(r, up)).c_str());
		if (r.interval)
			printf(", \"ring_interval_ms\": %ld", *r.interval);
		printf(", \"ports\": [");
		for (size_t j = 0; j < r.ports.size(); j++) {
			const Port &p = r.ports[j];
			std::optional<std::string> which;
			if (p.which)
				which = p.which;
			printf("%s{\"name\": %s, \"port\": %s, \"link\": %s, \"physical_state\": %s, \"logical_state\": %s, "
			       "\"hello_enable\": %s, \"hello_time_ms\": %s, \"blocked\": %s}",
			       j ? ", " : "", json_string(p.name).c_str(), json_string(which).c_str(),
			       json_number(p.link).c_str(), json_string(p.physical).c_str(), json_string(p.logical).c_str(),
			       p.hello ? (*p.hello == sc::hello_ena_texts[1] ? "true" : "false") : "null", json_number(p.hello_time).c_str(),
			       p.blocked() ? "true" : "false");
		}
		printf("]}");
	}
	printf("]}\n");
}

int cmd_status(int argc, char **argv)
{
	if (argc > 1)
		usage(FAILED);
	auto rings = read_tree(argc ? argv[0] : nullptr);
	if (json)
		print_json(rings);
	else
		print_text(rings);
	return report_incomplete(rings);
}

// ---- metrics ----------------------------------------------------------

std::string prom_label(const std::string &v)
{
	std::string out;
	for (char c : v) {
		if (c == '"' || c == '\\')
			out += '\\';
		out += c == '\n' ? 'n' : c;
	}
	return out;
}

// One state-set metric: 1 for the value the file holds, 0 for the others
// (each text once, though two ring states of the table share one).
template <size_t N>
void state_set(const char *metric, const std::string &labels, const std::optional<std::string> &value,
	       const std::array<const char *, N> &states)
{
	for (size_t i = 0; i < N; i++)
		if (std::find_if(states.begin(), states.begin() + i, [&](const char *s) { return !strcmp(s, states[i]); }) ==
		    states.begin() + i)
			printf("%s{%s,state=\"%s\"} %d\n", metric, labels.c_str(), states[i],
			       value && *value == states[i] ? 1 : 0);
}

void help(const char *metric, const char *type, const char *text)
{
	printf("# HELP %s %s\n# TYPE %s %s\n", metric, text, metric, type);
}

int cmd_metrics(int argc, char **)
{
	if (argc)
		usage(FAILED);
	auto rings = read_tree(nullptr);
	auto ring_label = [](const Ring &r) { return "ring=\"" + std::to_string(r.id) + "\""; };
	auto port_label = [&](const Ring &r, const Port &p) { return ring_label(r) + ",port=\"" + prom_label(p.name) + "\""; };
	help("zalkv2_ring_state", "gauge", "Ring state: 1 for the state the ring is in.");
	for (auto &r : rings)
		state_set("zalkv2_ring_state", ring_label(r) + ",role=\"" + prom_label(or_unknown(r.role)) + "\"", r.state,
			  sc::ring_state_texts);
	help("zalkv2_ring_whole", "gauge", "1 while the ring is closed (Ring Ok, Ok), else 0.");
	for (auto &r : rings)
		printf("zalkv2_ring_whole{%s} %d\n", ring_label(r).c_str(), r.whole() ? 1 : 0);
	help("zalkv2_ring_topology_changes_total", "counter", "Topology changes since the ring was set up.");
	for (auto &r : rings)
		if (r.tc_count)
			printf("zalkv2_ring_topology_changes_total{%s} %ld\n", ring_label(r).c_str(), *r.tc_count);
	help("zalkv2_port_link", "gauge", "Link of a ring port as the daemon holds it (1 up, 0 down).");
	for (auto &r : rings)
		for (auto &p : r.ports)
			if (p.link)
				printf("zalkv2_port_link{%s} %ld\n", port_label(r, p).c_str(), *p.link);
	help("zalkv2_port_physical_state", "gauge", "Bridge state of a ring port: 1 for the state it is in.");
	for (auto &r : rings)
		for (auto &p : r.ports)
			state_set("zalkv2_port_physical_state", port_label(r, p), p.physical,
				  sc::port_state_texts);
	help("zalkv2_port_logical_state", "gauge", "Logical state of a ring port: 1 for the state it is in.");
	for (auto &r : rings)
		for (auto &p : r.ports)
			state_set("zalkv2_port_logical_state", port_label(r, p), p.logical,
				  sc::logical_state_texts);
	return report_incomplete(rings);
}

// ---- debug ------------------------------------------------------------

int cmd_debug(int argc, char **argv)
{
	struct stat st;
	if (stat(root, &st))
		die(NOT_RUNNING, "zalkv2d is not running (no %s)", root);
	std::string path = std::string(root) + "/" + sc::DEBUG_FILE;
	if (!argc) {
		// Read as the daemon reads it: strtoul base 0 of the first line.
		auto v = read_value(path);
		unsigned long level = v ? strtoul(v->c_str(), nullptr, 0) : 0;
		printf("debug %lu:", level);
		for (auto &[name, bit] : sc::debug_bit_names)
			if (level & bit)
				printf(" %s", name);
		printf("%s\n", level ? "" : " none");
		return OK;
	}
	unsigned long level = 0;
	for (int i = 0; i < argc; i++) {
		char *end;
		unsigned long n = strtoul(argv[i], &end, 0);
		if (*argv[i] && !*end && argv[i][0] != '-') {
			level |= n;
			continue;
		}
		auto bit = std::find_if(sc::debug_bit_names.begin(), sc::debug_bit_names.end(),
					[&](auto &b) { return !strcasecmp(b.name, argv[i]); });
		if (bit == sc::debug_bit_names.end() && strcasecmp(argv[i], "none"))
			die(FAILED, "unknown debug bit: %s (state dbg note trace msg tip eventlog none, or a number)", argv[i]);
		level |= bit == sc::debug_bit_names.end() ? 0u : (unsigned)bit->bit;
	}
	// Replaced whole by a rename: the daemon reads the file again as soon
	// as it changes and must never see it half written.
	std::string tmp = path + ".zalkctl";
	FILE *f = fopen(tmp.c_str(), "w");
	if (!f || fprintf(f, "%lu\n", level) < 0 || fclose(f) || rename(tmp.c_str(), path.c_str()))
		die(FAILED, "cannot write %s: %s", path.c_str(), strerror(errno));
	return OK;
}

// ---- check ------------------------------------------------------------

struct Checker {
	int errors = 0, warnings = 0;
	void say(bool error, cfg_t *sec, const char *fmt, ...) __attribute__((format(printf, 4, 5)))
	{
		va_list ap;
		va_start(ap, fmt);
		printf("%s: ring %ld \"%s\": ", error ? "error" : "warning", cfg_getint(sec, "ring-id"), cfg_title(sec));
		vprintf(fmt, ap);
		printf("\n");
		va_end(ap);
		(error ? errors : warnings)++;
	}
};

// The protocol VLANs: the rings' frames travel in them, unauthenticated.
constexpr uint16_t PROTOCOL_VLANS[] = {4021, 4022};

// (port name, VLAN) for every port of br0 that is a member of a protocol
// VLAN, read from the kernel's bridge dump (ranges compressed). Nothing
// when there is no br0, no VLAN filtering or no answer: a host without
// them has nothing to warn about. Read over rtnetlink rather than from
// `bridge -j vlan show`: no JSON to parse and no other program's output
// format to follow.
std::vector<std::pair<std::string, uint16_t>> protocol_vlan_ports()
{
	std::vector<std::pair<std::string, uint16_t>> found;
	unsigned br = if_nametoindex("br0");
	int fd = br ? socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE) : -1;
	if (fd < 0)
		return found;
	struct {
		nlmsghdr n;
		ifinfomsg i;
		char attr[RTA_SPACE(sizeof(uint32_t))];
	} req{};
	req.n.nlmsg_len = sizeof(req);
	req.n.nlmsg_type = RTM_GETLINK;
	req.n.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
	req.i.ifi_family = AF_BRIDGE;
	auto *mask = (rtattr *)req.attr;
	mask->rta_type = IFLA_EXT_MASK;
	mask->rta_len = RTA_LENGTH(sizeof(uint32_t));
	*(uint32_t *)RTA_DATA(mask) = RTEXT_FILTER_BRVLAN_COMPRESSED;
	if (send(fd, &req, sizeof(req), 0) < 0) {
		close(fd);
		return found;
	}
	static char buf[1 << 16];
	for (bool done = false; !done;) {
		ssize_t len = recv(fd, buf, sizeof(buf), 0);
		if (len <= 0)
			break;
		for (auto *h = (nlmsghdr *)buf; NLMSG_OK(h, (size_t)len); h = NLMSG_NEXT(h, len)) {
			if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR) {
				done = true;
				break;
			}
			auto *ifi = (ifinfomsg *)NLMSG_DATA(h);
			unsigned master = 0;
			const char *name = nullptr;
			rtattr *af_spec = nullptr;
			int alen = (int)IFLA_PAYLOAD(h);
			for (auto *a = IFLA_RTA(ifi); RTA_OK(a, alen); a = RTA_NEXT(a, alen)) {
				if (a->rta_type == IFLA_MASTER)
					master = *(uint32_t *)RTA_DATA(a);
				else if (a->rta_type == IFLA_IFNAME)
					name = (const char *)RTA_DATA(a);
				else if ((a->rta_type & NLA_TYPE_MASK) == IFLA_AF_SPEC)
					af_spec = a;
			}
			if (master != br || (unsigned)ifi->ifi_index == br || !name || !af_spec)
				continue;
			uint16_t begin = 0;
			int vlen = (int)RTA_PAYLOAD(af_spec);
			for (auto *v = (rtattr *)RTA_DATA(af_spec); RTA_OK(v, vlen); v = RTA_NEXT(v, vlen)) {
				if (v->rta_type != IFLA_BRIDGE_VLAN_INFO || RTA_PAYLOAD(v) < sizeof(bridge_vlan_info))
					continue;
				auto *info = (bridge_vlan_info *)RTA_DATA(v);
				if (info->flags & BRIDGE_VLAN_INFO_RANGE_BEGIN) {
					begin = info->vid;
					continue;
				}
				uint16_t first = info->flags & BRIDGE_VLAN_INFO_RANGE_END ? begin : info->vid;
				for (uint16_t vid : PROTOCOL_VLANS)
					if (first <= vid && vid <= info->vid)
						found.emplace_back(name, vid);
			}
		}
	}
	close(fd);
	return found;
}

// A port of br0 in a protocol VLAN that is no ring port lets whoever is
// behind it speak for the rings: their frames carry no authentication.
void check_access_ports(Checker &ck, cfg_t *cfg)
{
	std::vector<std::string> ring_ports;
	for (unsigned c = 0; c < cfg_size(cfg, "zalk"); c++) {
		cfg_t *sec = cfg_getnsec(cfg, "zalk", c);
		for (unsigned p = 0; p < cfg_size(sec, "port"); p++)
			ring_ports.push_back(cfg_getstr(cfg_getnsec(sec, "port", p), "name"));
	}
	for (auto &[port, vid] : protocol_vlan_ports()) {
		if (std::find(ring_ports.begin(), ring_ports.end(), port) != ring_ports.end())
			continue;
		printf("warning: br0: port %s is a member of VLAN %u and no ring port: whoever is behind it can send "
		       "frames the rings take for their own\n",
		       port.c_str(), vid);
		ck.warnings++;
	}
}

// The time a focal point with the default response-delay (1500 ms, in
// 50 ms ticks) takes to answer a returning link.
constexpr long DEFAULT_RESPONSE_MS = 1500;
// Periods below this leave a busy switch too little slack: four missed
// ring intervals open the blocked port, missed hellos drop a link.
constexpr long SHORT_PERIOD_MS = 50;
// The daemon runs longer periods and delays, but a failure or a returning
// link then goes unseen (or unanswered) for more than an hour.
constexpr long HOUR_MS = 3600L * 1000;

void check_ring(Checker &ck, cfg_t *cfg, unsigned c, std::vector<long> &ids)
{
	cfg_t *sec = cfg_getnsec(cfg, "zalk", c);
	long id = cfg_getint(sec, "ring-id");
	if (cfg_getint(sec, "version") != 2) {
		ck.say(true, sec, "version = %ld: only version 2 rings are set up", cfg_getint(sec, "version"));
		return;
	}
	zalkv2_refusal refusal;
	if (zalkv2_ring_refused(sec, &refusal)) {
		char text[256];
		zalkv2_refusal_text(text, sizeof(text), refusal);
		ck.say(true, sec, "%s", text);
		return;
	}
	for (unsigned o = 0; o < c; o++) {
		cfg_t *other = cfg_getnsec(cfg, "zalk", o);
		if (cfg_getint(other, "ring-id") == id)
			ck.say(false, sec, "ring-id = %ld also in section \"%s\": the later section replaces it", id,
			       cfg_title(other));
	}
	if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
		if (ids.size() == ZALK_MAX_INSTANCES) {
			ck.say(true, sec, "more than %d rings: this one is not set up", ZALK_MAX_INSTANCES);
			return;
		}
		ids.push_back(id);
	}
	if (id < 1 || id > 20)
		ck.say(false, sec, "ring-id = %ld is outside 1 to 20: switches that do not run this ring do not filter its frames",
		       id);
	int role = zalkv2_cfg_ring_role(sec);
	if (role < 0)
		ck.say(false, sec, "ring-role = \"%s\" is neither focal nor member: set up as a member",
		       cfg_getstr(sec, "ring-role"));
	long interval = cfg_getint(sec, "ring-interval");
	if (role == 0 && interval < SHORT_PERIOD_MS)
		ck.say(false, sec, "ring-interval = %ld ms is short: a busy switch may miss four and open the ring", interval);
	if (role == 0 && interval > HOUR_MS)
		ck.say(false, sec, "ring-interval = %ld ms is above an hour: a broken ring goes unseen that long", interval);
	long delay = cfg_getint(sec, "response-delay");
	if (role == 0 && delay > HOUR_MS)
		ck.say(false, sec, "response-delay = %ld ms is above an hour: a returning link waits that long", delay);
	// The members' own check assumes the default; a longer delay here
	// turns their forward delays up to it into loops (the other half of
	// the member check, seen from the focal point's file).
	if (role == 0 && delay > DEFAULT_RESPONSE_MS)
		ck.say(false, sec,
		       "response-delay = %ld ms is longer than the default %ld ms: a member of this ring whose forward-delay "
		       "is not 0 and not longer than %ld ms would open its returning port before this focal point has "
		       "blocked its own, a loop",
		       delay, DEFAULT_RESPONSE_MS, delay);
	if (role == 0 && !cfg_getint(sec, "guarded-recovery"))
		ck.say(false, sec,
		       "guarded-recovery = 0: Ring frames lost on a whole ring (a lossy link, a member daemon restarting, "
		       "members holding returning ports at a start) open the blocked port, a loop");
	unsigned nports = std::min(2u, cfg_size(sec, "port"));
	if (!nports)
		ck.say(false, sec, "no port section: the ring has no ports");
	std::vector<std::string> names;
	std::vector<long> sharing; // rings already named for a shared port
	for (unsigned p = 0; p < nports; p++) {
		cfg_t *port = cfg_getnsec(sec, "port", p);
		const char *name = cfg_getstr(port, "name");
		const char *title = cfg_title(port);
		if (std::find(names.begin(), names.end(), name) != names.end())
			ck.say(false, sec, "port %s: interface %s is both port A and port B", title, name);
		names.push_back(name);
		for (unsigned o = 0; o < c; o++) {
			cfg_t *other = cfg_getnsec(cfg, "zalk", o);
			long other_id = cfg_getint(other, "ring-id");
			if (other_id == id || std::find(sharing.begin(), sharing.end(), other_id) != sharing.end())
				continue;
			for (unsigned q = 0; q < std::min(2u, cfg_size(other, "port")); q++) {
				if (!strcmp(cfg_getstr(cfg_getnsec(other, "port", q), "name"), name)) {
					ck.say(false, sec, "port %s: interface %s is also a port of ring %ld", title, name, other_id);
					sharing.push_back(other_id);
					break;
				}
			}
		}
		if (!if_nametoindex(name))
			ck.say(false, sec, "port %s: interface %s does not exist on this machine", title, name);
		if (!cfg_getint(port, "hello-enable"))
			ck.say(false, sec, "port %s: hello-enable = 0: a link that fails silently goes unseen", title);
		else if (cfg_getint(port, "hello-time") < SHORT_PERIOD_MS)
			ck.say(false, sec, "port %s: hello-time = %ld ms is short: a busy switch may drop the link", title,
			       cfg_getint(port, "hello-time"));
		else if (cfg_getint(port, "hello-time") > HOUR_MS)
			ck.say(false, sec, "port %s: hello-time = %ld ms is above an hour: a link that fails silently goes unseen that long",
			       title, cfg_getint(port, "hello-time"));
		long fwd = cfg_getint(port, "forward-delay");
		if (role != 0 && p == 0 && fwd > HOUR_MS / 1000)
			ck.say(false, sec, "port %s: forward-delay = %ld s is above an hour: without an answer the returning port stays blocked that long",
			       title, fwd);
		if (role != 0 && p == 0 && fwd > 0 && fwd * 1000 <= DEFAULT_RESPONSE_MS)
			ck.say(false, sec,
			       "port %s: forward-delay = %ld s is not longer than the %ld ms a focal point with the default "
			       "response-delay takes to answer: this member would open its returning port before the focal "
			       "point has blocked its own, a loop",
			       title, fwd, DEFAULT_RESPONSE_MS);
	}
	const char *blocked = cfg_getstr(sec, "blocked-port");
	if (role == 0 && blocked && strcmp(blocked, "auto") &&
	    std::find(names.begin(), names.end(), blocked) == names.end())
		ck.say(false, sec, "blocked-port = \"%s\" names neither port: port A is blocked", blocked);
}

int cmd_check(int argc, char **argv)
{
	if (argc > 1)
		usage(FAILED);
	const char *path = argc ? argv[0] : config_path;
	// The daemon's own loader, with its own messages.
	cfg_t *cfg = zalkv2_load_config(path);
	if (!cfg)
		return FAILED;
	Checker ck;
	std::vector<long> ids;
	for (unsigned c = 0; c < cfg_size(cfg, "zalk"); c++)
		check_ring(ck, cfg, c, ids);
	check_access_ports(ck, cfg);
	cfg_free(cfg);
	if (ck.errors)
		return FAILED;
	return strict && ck.warnings ? WARNINGS : OK;
}

} // namespace

int main(int argc, char **argv)
{
	static const struct option options[] = {
		{"json", no_argument, nullptr, 'j'},          {"strict", no_argument, nullptr, 's'},
		{"root", required_argument, nullptr, 'r'},    {"config", required_argument, nullptr, 'c'},
		{"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
	};
	for (int c; (c = getopt_long(argc, argv, "jsr:c:h", options, nullptr)) != -1;) {
		switch (c) {
		case 'j': json = true; break;
		case 's': strict = true; break;
		case 'r': root = optarg; break;
		case 'c': config_path = optarg; break;
		case 'h': usage(OK);
		default: usage(FAILED);
		}
	}
	if (optind >= argc || !argv[optind][0])
		usage(FAILED);
	if (!strcmp(argv[optind], "help"))
		usage(OK);
	const char *verb = argv[optind];
	int n = argc - optind - 1;
	char **args = argv + optind + 1;
	static const std::pair<const char *, int (*)(int, char **)> verbs[] = {
		{"status", cmd_status}, {"check", cmd_check}, {"debug", cmd_debug}, {"metrics", cmd_metrics},
	};
	// Any unambiguous prefix will do, as with ip and bridge.
	for (auto &[name, run] : verbs)
		if (!strncmp(name, verb, strlen(verb)))
			return run(n, args);
	die(FAILED, "unknown command \"%s\", try \"zalkctl help\"", verb);
}
