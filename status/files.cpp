// The status file tree /var/run/zalkv2/<ring id>/[<port>/]: one small
// text file per value, each written whole and without a line end.
//
// Paths are formed below the OS root (zalk_path), and log lines name the
// path as actually used, so a message always points at the real file.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <dirent.h>
#include <sys/stat.h>

#include "bridge/prepare.h"
#include "daemon/instance.h"
#include "daemon/os.h"
#include "daemon/util.h"
#include "status/status.h"

namespace {

constexpr size_t STATUS_PATH_MAX = 160;

char *root_dir(char (&buf)[STATUS_PATH_MAX]) { return zalk_path(buf, sizeof(buf), "/var/run/zalkv2"); }

char *instance_dir(char (&buf)[STATUS_PATH_MAX], const zalkv2_instance &in)
{
	return zalk_path(buf, sizeof(buf), "/var/run/zalkv2/%d", in.ring_id);
}

char *port_dir(char (&buf)[STATUS_PATH_MAX], const zalkv2_instance &in, const zalkv2_port &p)
{
	return zalk_path(buf, sizeof(buf), "/var/run/zalkv2/%d/%.16s", in.ring_id, p.name);
}

// 0 when the directory is there or was made.
int make_dir(const char *path)
{
	struct stat st;
	if (stat(path, &st) == 0)
		return 0;
	if (mkdir(path, 0777) == 0)
		return 0;
	zlog(LOG_ERR, "Could not create directory %s\n\n", path);
	return 1;
}

// Status numbers are the sign-extended 32-bit fields.
long as_number(uint32_t v) { return (long)(int32_t)v; }

void write_topology_counter(zalkv2_instance &in, const char *dir, bool count)
{
	in.tc_count = count ? in.tc_count + 1 : 0;
	write_number_file(dir, "tc_count", as_number(in.tc_count));
	write_number_file(dir, "tc_jiffies", os_uptime());
}

void write_port_state_files(int ins, int port, const char *dir)
{
	const zalkv2_port &p = instances[ins].port[port];
	write_number_file(dir, "link", as_number(p.link));
	write_text_file(dir, "logical_state", zalk_logical_state_name(zalk_port_logical_state(ins, port)));
	write_text_file(dir, "physical_state", zalk_port_state_name(p.state));
}

// Files are rewritten in place, not renamed into place: each holds one
// short value written with one call, so a reader that meets the moment of
// truncation sees an empty file and simply reads again, and no temporary
// file is ever left behind in the tree. A ring state change writes a dozen
// of them before the focal point's answer leaves, so each is one open, one
// write and one close, without stdio's buffer and status call.
int write_status_file(const char *dir, const char *name, const char *text)
{
	char path[STATUS_PATH_MAX + 32]; // a directory path and a short file name
	snprintf(path, sizeof(path), "%s/%s", dir, name);
	int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
	if (fd < 0) {
		zlog(LOG_ERR, "ERROR: %s Could not create file %s\n", strerror(errno), path);
		return -1;
	}
	ssize_t len = (ssize_t)strlen(text);
	ssize_t n = write(fd, text, (size_t)len);
	close(fd);
	if (n != len) {
		zlog(LOG_ERR, "ERROR: %s Could not create file %s\n", strerror(n < 0 ? errno : EIO), path);
		return -1;
	}
	return 0;
}

} // namespace

int write_text_file(const char *dir, const char *name, const char *text)
{
	return write_status_file(dir, name, text);
}

int write_number_file(const char *dir, const char *name, long number)
{
	char text[24];
	snprintf(text, sizeof(text), "%ld", number);
	return write_status_file(dir, name, text);
}

int zalk_port_logical_state(int ins, int port)
{
	const zalkv2_port &p = instances[ins].port[port];
	if (!zalkv2_if_running(p.ifindex))
		return 0; // Down
	if (!p.link)
		return p.state == PORT_BLOCKING ? 1 : 4;
	if (p.state == PORT_BLOCKING)
		return 2;
	return p.state == PORT_FORWARDING ? 3 : 4;
}

int zalk_status_setup(int ins)
{
	zalkv2_instance &in = instances[ins];
	char dir[STATUS_PATH_MAX];
	if (make_dir(root_dir(dir)))
		return 1;
	if (make_dir(instance_dir(dir, in)))
		return 1;

	if (in.role == RING_TYPE_FOCAL) {
		write_text_file(dir, "type", "focal-point");
		// Single precision on purpose: 10 ms configured reads back as 10.
		float ms = in.ring_interval * 1000.0f;
		write_number_file(dir, "ring-interval", (long)(int32_t)ms);
	} else {
		write_text_file(dir, "type", "member");
	}
	write_number_file(dir, "ring-id", in.ring_id);
	write_topology_counter(in, dir, false);

	for (int port = PORT_A; port <= PORT_B; port++) {
		const zalkv2_port &p = in.port[port];
		if (!zalkv2_port_configured(p))
			continue;
		char pdir[STATUS_PATH_MAX];
		if (make_dir(port_dir(pdir, in, p)))
			continue;
		write_number_file(pdir, "hello_time", as_number(p.hello_time_ms));
		write_text_file(pdir, "hello_ena", p.hello_enable ? "yes" : "no");
	}
	return 0;
}

void zalk_set_status(int ins)
{
	zalkv2_instance &in = instances[ins];
	bool whole = (in.role == RING_TYPE_FOCAL && in.ring_state == RING_OK_NET_FOCAL) ||
		     (in.role == RING_TYPE_MEMBER && in.ring_state == OK_NET_MEMBER);
	if (zalk_debug(ZALK_STATE))
		zlog(LOG_NOTICE, "%s() - RING %s LED: %s Link M=%d N=%d\n", "zalk_set_status", whole ? "OK" : "BROKEN",
		     whole ? "GREEN" : "RED", (int)in.port[PORT_A].link, (int)in.port[PORT_B].link);

	char dir[STATUS_PATH_MAX];
	instance_dir(dir, in);
	write_text_file(dir, "state", zalk_ring_state_name(in.ring_state, false));
	write_topology_counter(in, dir, true);
	for (int port = PORT_A; port <= PORT_B; port++)
		zalk_set_port_status(ins, port);
}

void zalk_set_port_status(int ins, int port)
{
	const zalkv2_instance &in = instances[ins];
	if (!zalkv2_port_configured(in.port[port]))
		return;
	char pdir[STATUS_PATH_MAX];
	write_port_state_files(ins, port, port_dir(pdir, in, in.port[port]));
}

void zalk_remove_status(int ins)
{
	char dir[STATUS_PATH_MAX];
	remove_tree(instance_dir(dir, instances[ins]));
}

int remove_tree(const char *path)
{
	DIR *d = opendir(path);
	if (!d) {
		if (remove(path))
			zlog(LOG_ERR, "Error when removing directory %s\n\n", path);
		return 0;
	}
	int failed = 0;
	while (struct dirent *e = readdir(d)) {
		if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, ".."))
			continue;
		char sub[4096];
		snprintf(sub, sizeof(sub), "%s/%s", path, e->d_name);
		struct stat st;
		if (lstat(sub, &st)) {
			// Most likely gone already; if not, removing the directory
			// itself fails below and is reported there.
			perror(sub);
			continue;
		}
		if (S_ISDIR(st.st_mode))
			remove_tree(sub);
		else if (remove(sub))
			failed++;
	}
	closedir(d);
	if (remove(path) || failed)
		zlog(LOG_ERR, "Error when removing directory %s\n\n", path);
	return 0;
}
