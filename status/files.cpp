// The status file tree /var/run/zalkv2/<ring id>/[<port>/]: one small
// text file per value, each written whole and without a line end.
//
// Paths are formed below the OS root (zalk_path), and log lines name the
// path as actually used, so a message always points at the real file.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <initializer_list>
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

// A descriptor that closes itself.
class owned_fd {
public:
	owned_fd() = default;
	owned_fd(const owned_fd &) = delete;
	owned_fd &operator=(const owned_fd &) = delete;
	~owned_fd() { reset(); }
	void open_dir(const char *path) { reset(open(path, O_PATH | O_DIRECTORY | O_CLOEXEC)); }
	void reset(int fd = -1)
	{
		if (fd_ >= 0)
			close(fd_);
		fd_ = fd;
	}
	int get() const { return fd_; }

private:
	int fd_ = -1;
};

// The instance and port directories stay open from set-up to removal, so
// a rewrite names its file relative to them instead of walking the whole
// path for every file of every update.
struct status_dirs {
	owned_fd instance;
	owned_fd port[2];
};
status_dirs dirs[ZALK_MAX_INSTANCES];

// The files of a ring state change stay open from their first write, and
// each keeps the text it got then. The daemon is the tree's only writer,
// so a file whose new text equals the last one already holds it: a state
// change then writes only what changed (typically the state, the counter
// and one port's files rather than nine), each with a truncation and a
// write on the open file instead of a path lookup, an open and a close.
// A file removed behind our back is made anew at its next change. Set-up
// (of a new ring, or again for the status report) and removal close an
// instance's files and forget their texts, so the first update after a
// set-up writes every file.
struct status_file {
	owned_fd fd;
	char text[24];
	bool known;
	void forget()
	{
		fd.reset();
		known = false;
	}
};
struct ring_texts {
	status_file state, tc_count, tc_jiffies;
	status_file port[2][3]; // link, logical_state, physical_state
	void forget()
	{
		for (status_file *f : {&state, &tc_count, &tc_jiffies})
			f->forget();
		for (auto &files : port)
			for (status_file &f : files)
				f.forget();
	}
};
ring_texts last_written[ZALK_MAX_INSTANCES];

// Ring state changes whose files are still to be written, and how many
// batches are open (see zalk_status_batch).
bool status_due[ZALK_MAX_INSTANCES];
int batch_depth;

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

// Files are rewritten in place, not renamed into place: each holds one
// short value written with one call, so a reader that meets the moment of
// truncation sees an empty file and simply reads again, and no temporary
// file is ever left behind in the tree. Writes go without stdio's buffer
// and status call.
//
// With the directory open (dirfd not -1) the file is opened relative to
// it; should that fail (the directory was replaced behind our back), the
// full path is tried as before. Logs and returns -1 when neither opens.
int open_status_file(const char *dir, int dirfd, const char *name)
{
	constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
	int fd = dirfd >= 0 ? openat(dirfd, name, flags, 0666) : -1;
	if (fd < 0) {
		char path[STATUS_PATH_MAX + 32]; // a directory path and a short file name
		snprintf(path, sizeof(path), "%s/%s", dir, name);
		fd = open(path, flags, 0666);
		if (fd < 0)
			zlog(LOG_ERR, "ERROR: %s Could not create file %s\n", strerror(errno), path);
	}
	return fd;
}

// The text, at the start of an open and empty file.
int put_text(int fd, const char *dir, const char *name, const char *text)
{
	const size_t len = strlen(text);
	const ssize_t n = pwrite(fd, text, len, 0);
	if (n == (ssize_t)len)
		return 0;
	char path[STATUS_PATH_MAX + 32];
	snprintf(path, sizeof(path), "%s/%s", dir, name);
	zlog(LOG_ERR, "ERROR: %s Could not create file %s\n", strerror(n < 0 ? errno : EIO), path);
	return -1;
}

int write_status_file(const char *dir, int dirfd, const char *name, const char *text)
{
	const int fd = open_status_file(dir, dirfd, name);
	if (fd < 0)
		return -1;
	const int ret = put_text(fd, dir, name, text);
	close(fd);
	return ret;
}

// A kept file emptied and written again; opened where it is not open yet
// or no longer in the tree.
int rewrite_kept(const char *dir, int dirfd, const char *name, const char *text, status_file &f)
{
	struct stat st;
	const int kept = f.fd.get();
	if (kept >= 0 && (fstat(kept, &st) != 0 || st.st_nlink == 0 || ftruncate(kept, 0) != 0))
		f.fd.reset();
	if (f.fd.get() < 0)
		f.fd.reset(open_status_file(dir, dirfd, name));
	return f.fd.get() < 0 ? -1 : put_text(f.fd.get(), dir, name, text);
}

// A status number's text.
struct number_text {
	char s[24];
	explicit number_text(long number) { snprintf(s, sizeof(s), "%ld", number); }
};

int write_number_at(const char *dir, int dirfd, const char *name, long number)
{
	return write_status_file(dir, dirfd, name, number_text(number).s);
}

// Writes the file unless it holds the text already.
void write_changed(const char *dir, int dirfd, const char *name, const char *text, status_file &f)
{
	if (f.known && strcmp(f.text, text) == 0)
		return;
	f.known = rewrite_kept(dir, dirfd, name, text, f) == 0 && strlen(text) < sizeof(f.text);
	if (f.known)
		strcpy(f.text, text);
}

void write_changed_number(const char *dir, int dirfd, const char *name, long number, status_file &last)
{
	write_changed(dir, dirfd, name, number_text(number).s, last);
}

void write_topology_files(int ins, const char *dir, int dirfd)
{
	ring_texts &last = last_written[ins];
	write_changed_number(dir, dirfd, "tc_count", as_number(instances[ins].tc_count), last.tc_count);
	write_changed_number(dir, dirfd, "tc_jiffies", os_uptime(), last.tc_jiffies);
}

void write_port_state_files(int ins, int port)
{
	const zalkv2_instance &in = instances[ins];
	const zalkv2_port &p = in.port[port];
	if (!zalkv2_port_configured(p))
		return;
	char dir[STATUS_PATH_MAX];
	port_dir(dir, in, p);
	int fd = dirs[ins].port[port].get();
	status_file(&last)[3] = last_written[ins].port[port];
	write_changed_number(dir, fd, "link", as_number(p.link), last[0]);
	write_changed(dir, fd, "logical_state", zalk_logical_state_name(zalk_port_logical_state(ins, port)), last[1]);
	write_changed(dir, fd, "physical_state", zalk_port_state_name(p.state), last[2]);
}

// The files of a ring state change: state, the topology counter and both
// ports, from what the instance holds now.
void write_ring_state_files(int ins)
{
	const zalkv2_instance &in = instances[ins];
	char dir[STATUS_PATH_MAX];
	instance_dir(dir, in);
	int fd = dirs[ins].instance.get();
	write_changed(dir, fd, "state", zalk_ring_state_name(in.ring_state, false), last_written[ins].state);
	write_topology_files(ins, dir, fd);
	for (int port = PORT_A; port <= PORT_B; port++)
		write_port_state_files(ins, port);
}

} // namespace

int write_text_file(const char *dir, const char *name, const char *text)
{
	return write_status_file(dir, -1, name, text);
}

int write_number_file(const char *dir, const char *name, long number)
{
	return write_number_at(dir, -1, name, number);
}

zalk_status_batch::zalk_status_batch() { batch_depth++; }

zalk_status_batch::~zalk_status_batch()
{
	if (--batch_depth == 0)
		zalk_status_flush();
}

void zalk_status_flush()
{
	for (int ins = 0; ins < ZALK_MAX_INSTANCES; ins++) {
		const bool due = status_due[ins];
		status_due[ins] = false;
		if (due && instances[ins].enabled)
			write_ring_state_files(ins); // both ports' files too
	}
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
	status_dirs &open_dirs = dirs[ins];
	last_written[ins].forget();
	open_dirs.instance.reset();
	open_dirs.port[0].reset();
	open_dirs.port[1].reset();
	char dir[STATUS_PATH_MAX];
	if (make_dir(root_dir(dir)))
		return 1;
	if (make_dir(instance_dir(dir, in)))
		return 1;
	open_dirs.instance.open_dir(dir);
	const int fd = open_dirs.instance.get();

	if (in.role == RING_TYPE_FOCAL) {
		write_status_file(dir, fd, "type", "focal-point");
		// Single precision on purpose: 10 ms configured reads back as 10.
		float ms = in.ring_interval * 1000.0f;
		write_number_at(dir, fd, "ring-interval", (long)(int32_t)ms);
	} else {
		write_status_file(dir, fd, "type", "member");
	}
	write_number_at(dir, fd, "ring-id", in.ring_id);
	in.tc_count = 0;
	write_topology_files(ins, dir, fd);

	for (int port = PORT_A; port <= PORT_B; port++) {
		const zalkv2_port &p = in.port[port];
		if (!zalkv2_port_configured(p))
			continue;
		char pdir[STATUS_PATH_MAX];
		if (make_dir(port_dir(pdir, in, p)))
			continue;
		open_dirs.port[port].open_dir(pdir);
		const int pfd = open_dirs.port[port].get();
		write_number_at(pdir, pfd, "hello_time", as_number(p.hello_time_ms));
		write_status_file(pdir, pfd, "hello_ena", p.hello_enable ? "yes" : "no");
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

	in.tc_count++;
	if (batch_depth > 0) {
		status_due[ins] = true; // written when the batch ends
		return;
	}
	write_ring_state_files(ins);
}

void zalk_set_port_status(int ins, int port) { write_port_state_files(ins, port); }

void zalk_remove_status(int ins)
{
	status_due[ins] = false; // nothing is written into a removed tree
	last_written[ins].forget();
	dirs[ins].instance.reset();
	dirs[ins].port[0].reset();
	dirs[ins].port[1].reset();
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
