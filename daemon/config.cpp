// The configuration file: its schema, loading it safely, and the values
// the daemon refuses to run a ring with.
#include "daemon/config.h"

#include <cerrno>
#include <cstdarg>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "status/schema.h"

namespace {

// The longest period the daemon can keep: ring-interval and hello-time
// are kept as 32-bit millisecond counts (and ring-interval as float
// seconds that the status file turns back into one), so this is the
// largest whole number of seconds below 2^31 ms.
constexpr long MAX_PERIOD_MS = 2147483000L;
// The longest delays whose tick counters (int32, counted one past the
// limit) do not overflow: response-delay in 50 ms ticks, forward-delay in
// 200 ms ticks.
constexpr long MAX_RESPONSE_DELAY_MS = 50L * INT32_MAX + 49;
constexpr long MAX_FORWARD_DELAY_S = (INT32_MAX - 1L) / 5;

cfg_t *init_schema()
{
	// Built anew on every call: cfg_init copies the records, and the
	// handle it returns is the only thing that outlives this function.
	cfg_opt_t port_opts[] = {
		CFG_STR("name", "eth(xx)", CFGF_NONE),
		CFG_INT("hello-enable", 1, CFGF_NONE),
		CFG_INT("hello-time", 500, CFGF_NONE),     // milliseconds
		CFG_INT("forward-delay", 0, CFGF_NONE),    // seconds
		CFG_END(),
	};
	cfg_opt_t ring_opts[] = {
		CFG_INT("version", 2, CFGF_NONE),
		CFG_INT("ring-id", -1, CFGF_NONE),
		CFG_STR("ring-role", nullptr, CFGF_NONE),
		CFG_STR("bridge", "br0", CFGF_NONE),       // accepted, never read
		CFG_INT("guarded-recovery", 1, CFGF_NONE),
		CFG_INT("ring-interval", 500, CFGF_NONE),  // milliseconds
		CFG_STR("blocked-port", "auto", CFGF_NONE),
		CFG_INT("response-delay", 1500, CFGF_NONE), // milliseconds
		CFG_SEC("port", port_opts, CFGF_MULTI | CFGF_TITLE),
		CFG_END(),
	};
	cfg_opt_t opts[] = {
		CFG_SEC("zalk", ring_opts, CFGF_MULTI | CFGF_TITLE),
		CFG_END(),
	};
	return cfg_init(opts, CFGF_NONE);
}

// Why a file cannot be a configuration file, as an errno value, or 0.
// Nothing but a regular file is ever opened: a FIFO would block the
// open, a device could be endless.
int unusable(const struct stat &st)
{
	if (S_ISDIR(st.st_mode))
		return EISDIR;
	if (!S_ISREG(st.st_mode))
		return EINVAL;
	return st.st_size > ZALK_CONFIG_MAX_SIZE ? EFBIG : 0;
}

// Reads the whole file into buf (NUL-terminated). 0 or an errno value.
int read_whole(const char *path, char *buf, size_t size, size_t *len)
{
	struct stat st;
	if (stat(path, &st))
		return errno;
	if (int e = unusable(st))
		return e;
	int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
	if (fd < 0)
		return errno;
	// Checked again on what was opened: the path may have changed since.
	int e = fstat(fd, &st) ? errno : unusable(st);
	size_t n = 0;
	while (!e && n < size - 1) {
		ssize_t r = read(fd, buf + n, size - 1 - n);
		if (r < 0 && errno == EINTR)
			continue;
		if (r < 0)
			e = errno;
		if (r <= 0)
			break;
		n += (size_t)r;
	}
	close(fd);
	if (!e && n > (size_t)ZALK_CONFIG_MAX_SIZE)
		e = EFBIG; // grew while being read
	buf[n] = '\0';
	*len = n;
	return e;
}

// Characters that end an unquoted value in libconfuse's scanner.
bool ends_value(char c) { return !c || strchr(" \t\r\n#\"'={}()+,*", c); }

// Where a quoted string that opens at p ends (at its closing quote, or at
// the end of the text). Counts the lines it spans.
const char *skip_quoted(const char *p, int &line)
{
	const char q = *p;
	for (p++; *p && *p != q; p++) {
		if (*p == '\\' && p[1]) {
			p++;
		} else if (q == '"' && *p == '$' && p[1] == '{' && strchr(p, '}')) {
			// ${NAME} is read as a whole, whatever it holds
			const char *close = strchr(p, '}');
			for (; p < close; p++)
				line += *p == '\n';
		}
		line += *p == '\n';
	}
	return p;
}

// The line at which the text ends inside a section, or 0 when every
// brace is closed. libconfuse takes the end of the file as the end of
// every open section, so a file cut off in the middle of a write would
// otherwise set up a ring from half its settings. Braces count as
// libconfuse's scanner reads them: not inside quoted strings, ${...} or
// comments; a comment starts only where a value could (br0//x is one
// value, br0#x a value and a comment).
int open_section_line(const char *p)
{
	int depth = 0, line = 1;
	for (; *p; p++) {
		if (*p == '\n') {
			line++;
		} else if (*p == '"' || *p == '\'') {
			p = skip_quoted(p, line);
			if (!*p)
				break;
		} else if (*p == '#' || (*p == '/' && p[1] == '/')) {
			while (p[1] && p[1] != '\n')
				p++;
		} else if (*p == '/' && p[1] == '*') {
			for (p += 2; *p && !(*p == '*' && p[1] == '/'); p++)
				line += *p == '\n';
			if (!*p)
				break;
			p++;
		} else if (*p == '$' && p[1] == '{' && strchr(p, '}')) {
			for (const char *close = strchr(p, '}'); p < close; p++)
				line += p[1] == '\n';
		} else if (*p == '{') {
			depth++;
		} else if (*p == '}') {
			depth--;
		} else if (!ends_value(*p)) {
			while (!ends_value(p[1]))
				p++;
		}
	}
	// The last line that holds text, as libconfuse numbers lines.
	return depth > 0 ? line - (p[-1] == '\n' && line > 1) : 0;
}

void set_refusal(zalkv2_refusal *out, const char *option, const char *port, const char *why)
{
	out->option = option;
	out->port = port;
	out->why = why;
}

bool refuse_int(zalkv2_refusal *out, cfg_t *sec, const char *option, const char *port, const char *why)
{
	set_refusal(out, option, port, why);
	snprintf(out->value, sizeof(out->value), "%ld", cfg_getint(sec, option));
	return true;
}

// A period in milliseconds the timers can run with, else why not.
const char *period_refusal(long ms)
{
	if (ms <= 0)
		return "a period must be above 0 ms";
	return ms > MAX_PERIOD_MS ? "a period may be at most 2147483000 ms" : nullptr;
}

const char *port_name_refusal(const char *name)
{
	// The ring's own status files live beside the port directories.
	namespace sc = zalk_schema;
	static const char *const status_files[] = {sc::TYPE,     sc::RING_INTERVAL, sc::RING_ID, sc::TC_COUNT,
						   sc::TC_JIFFIES, sc::STATE,         sc::MISSING};
	size_t len = strlen(name);
	if (!len || len > 15 || !strcmp(name, ".") || !strcmp(name, ".."))
		return "not a Linux interface name";
	for (const char *c = name; *c; c++)
		if (*c == '/' || *c == ':' || *c == ' ' || (*c >= '\t' && *c <= '\r'))
			return "not a Linux interface name";
	for (const char *f : status_files)
		if (!strcmp(name, f))
			return "the name of one of the ring's status files";
	return nullptr;
}

// Only what the daemon reads of a port counts: hello-time where hello
// runs, forward-delay on a member's port A (the member's delay).
bool port_refused(cfg_t *port_sec, bool member_port_a, zalkv2_refusal *out)
{
	const char *title = cfg_title(port_sec);
	const char *name = cfg_getstr(port_sec, "name");
	if (const char *why = name ? port_name_refusal(name) : nullptr) {
		set_refusal(out, "name", title, why);
		snprintf(out->value, sizeof(out->value), "\"%s\"", name);
		return true;
	}
	if (cfg_getint(port_sec, "hello-enable"))
		if (const char *why = period_refusal(cfg_getint(port_sec, "hello-time")))
			return refuse_int(out, port_sec, "hello-time", title, why);
	long fwd = cfg_getint(port_sec, "forward-delay");
	if (member_port_a && (fwd < 0 || fwd > MAX_FORWARD_DELAY_S))
		return refuse_int(out, port_sec, "forward-delay", title, "must be 0 (none) to 429496729 s");
	return false;
}

void no_report(cfg_t *, const char *, va_list) {}

} // namespace

cfg_t *zalkv2_config_schema() { return init_schema(); }

cfg_t *zalkv2_load_config(const char *path, bool report)
{
	static char text[ZALK_CONFIG_MAX_SIZE + 2];
	cfg_t *cfg = init_schema();
	if (cfg && !report)
		cfg_set_error_function(cfg, no_report);
	if (!cfg) {
		printf("Error when parsing configuration file %s: %s\n", path, strerror(errno));
		return nullptr;
	}
	size_t len = 0;
	if (int e = read_whole(path, text, sizeof(text), &len)) {
		if (report)
			printf("Cannot read configuration file %s: %s\n", path, strerror(e));
		cfg_free(cfg);
		return nullptr;
	}
	// libconfuse names the file in its own diagnostics.
	cfg->filename = strdup(path);
	errno = 0;
	int rc;
	int cut = 0;
	if (memchr(text, '\0', len)) {
		// Text after a NUL byte would be silently ignored.
		if (report)
			fprintf(stderr, "%s: NUL byte in file\n", path);
		rc = CFG_PARSE_ERROR;
	} else {
		// Parsed from memory as a stream: libconfuse then names the
		// file in its diagnostics (with a buffer it would say "[buf]").
		FILE *f = len ? fmemopen(text, len, "r") : nullptr;
		rc = f ? cfg_parse_fp(cfg, f) : cfg_parse_buf(cfg, text);
		if (f)
			fclose(f);
		cut = rc == CFG_SUCCESS ? open_section_line(text) : 0;
	}
	int err = errno;
	if (cut && report)
		fprintf(stderr, "%s:%d: premature end of file\n", path, cut);
	if (cut)
		rc = CFG_PARSE_ERROR;
	if (rc != CFG_SUCCESS) {
		if (report)
			printf("Error when parsing configuration file %s: %s\n", path, strerror(err));
		cfg_free(cfg);
		return nullptr;
	}
	return cfg;
}

int zalkv2_cfg_ring_role(cfg_t *ring_sec)
{
	// A section without ring-role reads as neither role; the instance
	// configuration refuses to set up such a ring.
	const char *role = ring_sec ? cfg_getstr(ring_sec, "ring-role") : nullptr;
	if (!role)
		return -1;
	if (!strncmp(role, "focal", 5))
		return 0;
	if (!strncmp(role, "member", 6))
		return 1;
	return -1;
}

bool zalkv2_port_name_usable(const char *name) { return !port_name_refusal(name); }

bool zalkv2_ring_refused(cfg_t *ring_sec, zalkv2_refusal *out)
{
	long id = cfg_getint(ring_sec, "ring-id");
	if (id < 0 || id > 255)
		return refuse_int(out, ring_sec, "ring-id", nullptr,
				  id == -1 ? "every ring needs a ring-id (0 to 255)" : "frames carry ring ids 0 to 255 only");
	if (!cfg_getstr(ring_sec, "ring-role")) {
		// A switch meant to be the focal point that silently ran as a
		// member would leave the ring without any blocked port.
		set_refusal(out, "ring-role", nullptr, "every ring needs a role, focal or member");
		snprintf(out->value, sizeof(out->value), "(none)");
		return true;
	}
	if (zalkv2_cfg_ring_role(ring_sec) == 0) {
		if (const char *why = period_refusal(cfg_getint(ring_sec, "ring-interval")))
			return refuse_int(out, ring_sec, "ring-interval", nullptr, why);
		long delay = cfg_getint(ring_sec, "response-delay");
		if (delay < 0 || delay > MAX_RESPONSE_DELAY_MS)
			return refuse_int(out, ring_sec, "response-delay", nullptr, "must be 0 to 107374182399 ms");
	}
	const bool member = zalkv2_cfg_ring_role(ring_sec) != 0;
	for (unsigned p = 0; p < 2 && p < cfg_size(ring_sec, "port"); p++)
		if (port_refused(cfg_getnsec(ring_sec, "port", p), member && p == 0, out))
			return true;
	return false;
}

void zalkv2_refusal_text(char *buf, size_t size, const zalkv2_refusal &r)
{
	char port[80] = "";
	if (r.port)
		snprintf(port, sizeof(port), "port %s: ", r.port);
	snprintf(buf, size, "%s%s = %s refused: %s", port, r.option, r.value, r.why);
}
