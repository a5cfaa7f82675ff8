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
//  "tc_count": int|null, "tc_age_s": int|null, "ring_interval_ms": int
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
#include <map>
#include <net/if.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "daemon/config.h"
#include "daemon/instance.h"

namespace {

const char *root = "/var/run/zalkv2";
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
	bool blocked() const { return physical && *physical == "BLOCKING"; }
};

struct Ring {
	long id = 0;
	std::optional<std::string> role, state;
	std::optional<long> tc_count, tc_jiffies, interval;
	std::vector<Port> ports;
	bool focal() const { return role && *role == "focal-point"; }
	bool whole() const { return state && (focal() ? *state == "Ring Ok" : *state == "Ok"); }
	// The files every enabled ring has once it is set up.
	bool complete() const { return role && state && tc_count && tc_jiffies; }
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
	std::string dir = std::string(root) + "/" + std::to_string(id);
	r.role = read_value(dir + "/type");
	r.state = read_value(dir + "/state");
	r.tc_count = read_long(dir + "/tc_count");
	r.tc_jiffies = read_long(dir + "/tc_jiffies");
	r.interval = read_long(dir + "/ring-interval");
	DIR *d = opendir(dir.c_str());
	for (struct dirent *e; d && (e = readdir(d));) {
		struct stat st;
		std::string path = dir + "/" + e->d_name;
		if (e->d_name[0] == '.' || stat(path.c_str(), &st) || !S_ISDIR(st.st_mode))
			continue;
		Port p;
		p.name = e->d_name;
		auto at = std::find(config_order.begin(), config_order.end(), p.name);
		if (at != config_order.end())
			p.which = at == config_order.begin() ? "A" : "B";
		p.link = read_long(path + "/link");
		p.physical = read_value(path + "/physical_state");
		p.logical = read_value(path + "/logical_state");
		p.hello = read_value(path + "/hello_ena");
		p.hello_time = read_long(path + "/hello_time");
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

// Rings whose files are not all there yet make the exit status 1.
int report_incomplete(const std::vector<Ring> &rings)
{
	int status = OK;
	for (auto &r : rings) {
		if (!r.complete()) {
			fprintf(stderr, "zalkctl: ring %ld: status incomplete (being set up or torn down?)\n", r.id);
			status = FAILED;
		}
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
		       r.whole() ? "whole" : "broken");
		auto age = tc_age(r, up);
		printf("  topology changes %s, last %s ago\n", or_unknown(r.tc_count).c_str(),
		       age ? age_text(*age).c_str() : "?");
		if (r.interval)
			printf("  ring interval %ld ms\n", *r.interval);
		printf("  %-4s %-16s %-5s %-14s %-14s %s\n", "", "port", "link", "physical", "logical", "hello");
		for (auto &p : r.ports) {
			std::string hello = p.hello ? (*p.hello == "yes" ? "on " : "off ") + or_unknown(p.hello_time) + " ms" : "?";
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
		printf("%s{\"ring_id\": %ld, \"role\": %s, \"state\": %s, \"whole\": %s, \"tc_count\": %s, \"tc_age_s\": %s",
		       i ? ", " : "", r.id, json_string(r.role).c_str(), json_string(r.state).c_str(),
		       r.whole() ? "true" : "false", json_number(r.tc_count).c_str(), json_number(tc_age(r, up)).c_str());
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
			       p.hello ? (*p.hello == "yes" ? "true" : "false") : "null", json_number(p.hello_time).c_str(),
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

// One state-set metric: 1 for the value the file holds, 0 for the others.
void state_set(const char *metric, const std::string &labels, const std::optional<std::string> &value,
	       std::initializer_list<const char *> states)
{
	for (const char *s : states)
		printf("%s{%s,state=\"%s\"} %d\n", metric, labels.c_str(), s, value && *value == s ? 1 : 0);
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
			  {"Ring Ok", "Ring Fail", "Broken", "Down", "Ok"});
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
				  {"DISABLED", "LISTENING", "LEARNING", "FORWARDING", "BLOCKING"});
	help("zalkv2_port_logical_state", "gauge", "Logical state of a ring port: 1 for the state it is in.");
	for (auto &r : rings)
		for (auto &p : r.ports)
			state_set("zalkv2_port_logical_state", port_label(r, p), p.logical,
				  {"Down", "Not Qualified", "Qualified", "Forwarding"});
	return report_incomplete(rings);
}

// ---- debug ------------------------------------------------------------

constexpr std::pair<const char *, unsigned> debug_bits[] = {
	{"state", 1}, {"dbg", 2}, {"note", 4}, {"trace", 8}, {"msg", 16}, {"tip", 32}, {"eventlog", 128},
};

int cmd_debug(int argc, char **argv)
{
	struct stat st;
	if (stat(root, &st))
		die(NOT_RUNNING, "zalkv2d is not running (no %s)", root);
	std::string path = std::string(root) + "/debug";
	if (!argc) {
		// Read as the daemon reads it: strtoul base 0 of the first line.
		auto v = read_value(path);
		unsigned long level = v ? strtoul(v->c_str(), nullptr, 0) : 0;
		printf("debug %lu:", level);
		for (auto &[name, bit] : debug_bits)
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
		auto bit = std::find_if(std::begin(debug_bits), std::end(debug_bits),
					[&](auto &b) { return !strcasecmp(b.first, argv[i]); });
		if (bit == std::end(debug_bits) && strcasecmp(argv[i], "none"))
			die(FAILED, "unknown debug bit: %s (state dbg note trace msg tip eventlog none, or a number)", argv[i]);
		level |= bit == std::end(debug_bits) ? 0 : bit->second;
	}
	// Replaced whole by a rename: the daemon reads the file at every log
	// point and must never see it half written.
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

// The time a focal point with the default response-delay (1500 ms, in
// 50 ms ticks) takes to answer a returning link.
constexpr long DEFAULT_RESPONSE_MS = 1500;
// Periods below this leave a busy switch too little slack: four missed
// ring intervals open the blocked port, missed hellos drop a link.
constexpr long SHORT_PERIOD_MS = 50;

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
		long fwd = cfg_getint(port, "forward-delay");
		if (role == 1 && fwd > 0 && fwd * 1000 <= DEFAULT_RESPONSE_MS)
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
