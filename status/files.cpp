// The status file tree /var/run/zalkv2/<ring id>/[<port>/]: one small
// text file per value, each written whole and without a line end.
//
// Paths are formed below the OS root (zalk_path), and log lines name the
// path as actually used, so a message always points at the real file.
//
// The tree is the daemon's, but a root shell, a script or an earlier
// daemon started under another umask may have touched it. So:
// - modes are set explicitly, whatever the umask: directories 0755, files
//   0644;
// - nothing is written or removed through a symbolic link: files are
//   opened relative to their directory's descriptor with O_NOFOLLOW (and
//   O_NONBLOCK, so a FIFO cannot stop the loop), and a link, FIFO, device
//   or second name of another file standing at a file's path is removed
//   and the file made anew;
// - every update leaves each file holding the daemon's text at its path,
//   whoever changed, removed or renamed it since: the daemon remembers the
//   text of every file and the identity of what it wrote (device, inode,
//   size, change time, which any write, chmod, link or rename of the file
//   moves on), checks each with one fstatat and rewrites only the files
//   that changed or whose text is new; the directories are checked the
//   same way;
// - a write that failed (a full /run) is made again by a retry every 5 s
//   until the tree is whole, so it heals by itself without a ring event.
#include "status/files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bridge/ifquery.h"
#include "daemon/instance.h"
#include "daemon/os.h"
#include "daemon/util.h"
#include "status/names.h"
#include "status/status.h"

namespace {

namespace sc = zalk_schema;

constexpr size_t STATUS_PATH_MAX = 160;
constexpr mode_t DIR_MODE = 0755, FILE_MODE = 0644;
constexpr double RETRY_S = 5.0;

// What a file or directory was when the daemon last wrote or made it.
struct identity {
	dev_t dev = 0;
	ino_t ino = 0;
	off_t size = -1;
	struct timespec ctime = {};
	void take(const struct stat &st) { *this = {st.st_dev, st.st_ino, st.st_size, st.st_ctim}; }
	bool same_node(const struct stat &st) const { return st.st_dev == dev && st.st_ino == ino; }
	bool same(const struct stat &st) const
	{
		return st.st_dev == dev && st.st_ino == ino && st.st_size == size &&
		       st.st_ctim.tv_sec == ctime.tv_sec && st.st_ctim.tv_nsec == ctime.tv_nsec;
	}
};

// A directory of the tree, open from set-up to removal.
struct status_dir {
	int fd = -1;
	identity id;
	void close_dir()
	{
		if (fd >= 0)
			close(fd);
		fd = -1;
	}
};

// One file: the daemon's text for it and whether it is at its path.
struct status_file {
	const char *name;
	int dir; // DIR_RING, or DIR_PORT + port
	char text[24];
	bool wanted;  // the daemon has a text for this file
	bool written; // id says what the daemon wrote there
	bool failed;  // the last write failed (reported once)
	identity id;
};

enum { DIR_RING = 0, DIR_PORT = 1 };
enum ring_file { F_TYPE, F_INTERVAL, F_RING_ID, F_TC_COUNT, F_TC_JIFFIES, F_STATE, RING_FILES };
enum port_file { F_HELLO_TIME, F_HELLO_ENA, F_LINK, F_LOGICAL, F_PHYSICAL, PORT_FILES };
constexpr int FILES = RING_FILES + 2 * PORT_FILES;

struct ring_tree {
	status_dir dirs[3]; // the ring's, port A's, port B's
	status_file files[FILES];
	bool failing; // some file could not be written: the retry timer runs
};
ring_tree trees[ZALK_MAX_INSTANCES];

int file_index(int port, port_file f) { return RING_FILES + port * PORT_FILES + f; }

void forget(ring_tree &t)
{
	static constexpr const char *ring_names[RING_FILES] = {sc::TYPE,     sc::RING_INTERVAL, sc::RING_ID,
							       sc::TC_COUNT, sc::TC_JIFFIES,    sc::STATE};
	static constexpr const char *port_names[PORT_FILES] = {sc::HELLO_TIME, sc::HELLO_ENA, sc::LINK,
							       sc::LOGICAL_STATE, sc::PHYSICAL_STATE};
	for (status_dir &d : t.dirs)
		d.close_dir();
	for (int i = 0; i < FILES; i++) {
		t.files[i] = {};
		t.files[i].name = i < RING_FILES ? ring_names[i] : port_names[(i - RING_FILES) % PORT_FILES];
		t.files[i].dir = i < RING_FILES ? DIR_RING : DIR_PORT + (i - RING_FILES) / PORT_FILES;
	}
	t.failing = false;
}

// Ring state changes whose files are still to be written, and how many
// batches are open (see zalk_status_batch).
bool status_due[ZALK_MAX_INSTANCES];
int batch_depth;

// Runs while some file could not be written; its passes do not report
// again what has been reported.
ev_timer retry_watcher;
bool retrying;

char *root_dir(char (&buf)[STATUS_PATH_MAX]) { return zalk_path(buf, sizeof(buf), "%s", sc::ROOT); }

char *instance_dir(char (&buf)[STATUS_PATH_MAX], const zalkv2_instance &in)
{
	return zalk_path(buf, sizeof(buf), "%s/%d", sc::ROOT, in.ring_id);
}

char *port_dir(char (&buf)[STATUS_PATH_MAX], const zalkv2_instance &in, const zalkv2_port &p)
{
	return zalk_path(buf, sizeof(buf), "%s/%d/%.16s", sc::ROOT, in.ring_id, p.name);
}

// Opens the directory at name (relative to at) without following a link,
// making it first where it is missing, and gives it mode 0755. -1 when
// there is no directory there; the caller logs.
int open_dir(int at, const char *name)
{
	constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
	int fd = openat(at, name, flags);
	if (fd < 0 && errno == ENOENT && mkdirat(at, name, DIR_MODE) == 0)
		fd = openat(at, name, flags);
	struct stat st;
	if (fd >= 0 && fstat(fd, &st) == 0 && (st.st_mode & 07777) != DIR_MODE)
		fchmod(fd, DIR_MODE);
	return fd;
}

// 0 when the directory at path is there or was made; d holds it open.
int make_dir(const char *path, int at, const char *name, status_dir &d)
{
	d.close_dir();
	d.fd = open_dir(at, name);
	struct stat st;
	if (d.fd >= 0 && fstat(d.fd, &st) == 0) {
		d.id.take(st);
		return 0;
	}
	d.close_dir();
	if (!retrying)
		zlog(LOG_ERR, "Could not create directory %s\n\n", path);
	return 1;
}

// Status numbers are the sign-extended 32-bit fields.
long as_number(uint32_t v) { return (long)(int32_t)v; }

// Files are rewritten in place, not renamed into place: each holds one
// short value written with one call, so a reader that meets the moment of
// truncation sees an empty file and simply reads again, and no temporary
// file is ever left behind in the tree. Writes go without stdio.
//
// Opens name in the directory at (a descriptor, or AT_FDCWD for a full
// path) for writing, never through a link and never into a file that is
// not the daemon's alone: whatever else stands there is removed first.
int open_status_file(int at, const char *name)
{
	constexpr int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
	for (int attempt = 0; attempt < 2; attempt++) {
		int fd = openat(at, name, attempt ? flags | O_EXCL : flags, FILE_MODE);
		struct stat st;
		if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) {
			if ((st.st_mode & 07777) != FILE_MODE)
				fchmod(fd, FILE_MODE);
			return fd;
		}
		if (fd >= 0) {
			close(fd);
			errno = EEXIST;
		} else if (errno != ELOOP && errno != ENXIO) {
			return -1; // nothing there to remove: no directory, no space
		}
		if (attempt || unlinkat(at, name, 0))
			return -1;
	}
	return -1;
}

// Writes text into the file; id then describes what was written. -1 with
// errno when it could not be written.
int put_file(int at, const char *name, const char *text, identity *id)
{
	const int fd = open_status_file(at, name);
	if (fd < 0)
		return -1;
	const size_t len = strlen(text);
	struct stat st;
	ssize_t n = ftruncate(fd, 0) ? -1 : pwrite(fd, text, len, 0);
	if (n >= 0 && (size_t)n != len) {
		n = -1;
		errno = EIO;
	}
	if (n >= 0 && id && fstat(fd, &st) == 0)
		id->take(st);
	const int err = errno;
	close(fd);
	errno = err;
	return n < 0 ? -1 : 0;
}

void report_failure(const char *dir, const char *name)
{
	char path[STATUS_PATH_MAX + 32];
	snprintf(path, sizeof(path), "%s/%s", dir, name);
	zlog(LOG_ERR, "ERROR: %s Could not create file %s\n", strerror(errno), path);
}

// A status number's text.
struct number_text {
	char s[24];
	explicit number_text(long number) { snprintf(s, sizeof(s), "%ld", number); }
};

void want(ring_tree &t, int f, const char *text)
{
	status_file &file = t.files[f];
	if (!file.wanted || strcmp(file.text, text)) {
		snprintf(file.text, sizeof(file.text), "%s", text);
		file.written = false;
	}
	file.wanted = true;
}

void want_number(ring_tree &t, int f, long number) { want(t, f, number_text(number).s); }

// Is the directory still the one the daemon holds, at its path? (Its
// change time moves with every file made in it, the daemon's too.)
bool dir_in_place(int at, const char *name, const status_dir &d)
{
	struct stat st;
	return d.fd >= 0 && fstatat(at, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && d.id.same_node(st);
}

// The directories of the instance, checked and made again where they were
// removed, renamed or replaced; a directory made again has none of the
// daemon's files in it. False when the ring's own directory is missing.
bool place_dirs(int ins)
{
	const zalkv2_instance &in = instances[ins];
	ring_tree &t = trees[ins];
	char path[STATUS_PATH_MAX];
	instance_dir(path, in);
	bool remade[3] = {};
	if (!dir_in_place(AT_FDCWD, path, t.dirs[DIR_RING])) {
		char root[STATUS_PATH_MAX];
		status_dir top;
		if (make_dir(root_dir(root), AT_FDCWD, root, top))
			return false;
		const int failed = make_dir(path, top.fd, strrchr(path, '/') + 1, t.dirs[DIR_RING]);
		top.close_dir();
		if (failed)
			return false;
		remade[DIR_RING] = true;
	}
	for (int port = PORT_A; port <= PORT_B; port++) {
		const zalkv2_port &p = in.port[port];
		status_dir &d = t.dirs[DIR_PORT + port];
		if (!zalkv2_port_configured(p) || (!remade[DIR_RING] && dir_in_place(t.dirs[DIR_RING].fd, p.name, d)))
			continue;
		char pdir[STATUS_PATH_MAX];
		make_dir(port_dir(pdir, in, p), t.dirs[DIR_RING].fd, p.name, d);
		remade[DIR_PORT + port] = true;
	}
	for (status_file &f : t.files)
		if (remade[f.dir])
			f.written = false;
	return true;
}

// Makes every file of the instance hold the daemon's text at its path.
// Failures are logged once per file, until it is written again.
void sync_files(int ins)
{
	ring_tree &t = trees[ins];
	t.failing = !place_dirs(ins);
	if (t.failing)
		return;
	for (status_file &f : t.files) {
		const int at = t.dirs[f.dir].fd;
		struct stat st;
		if (!f.wanted)
			continue;
		if (at < 0) { // a port directory that could not be made
			t.failing = true;
			continue;
		}
		if (f.written && fstatat(at, f.name, &st, AT_SYMLINK_NOFOLLOW) == 0 && f.id.same(st))
			continue;
		f.written = put_file(at, f.name, f.text, &f.id) == 0;
		if (!f.written && !f.failed) {
			char dir[STATUS_PATH_MAX];
			const zalkv2_instance &in = instances[ins];
			report_failure(f.dir == DIR_RING ? instance_dir(dir, in) : port_dir(dir, in, in.port[f.dir - DIR_PORT]),
				       f.name);
		}
		f.failed = !f.written;
		t.failing |= f.failed;
	}
}

void retry_cb(struct ev_loop *loop, ev_timer *w, int);

// Syncs the instance and keeps the retry going while some file fails.
void sync_and_retry(int ins)
{
	sync_files(ins);
	if (trees[ins].failing && !ev_is_active(&retry_watcher)) {
		ev_timer_init(&retry_watcher, retry_cb, RETRY_S, RETRY_S);
		ev_timer_start(EV_DEFAULT, &retry_watcher);
	}
}

void retry_cb(struct ev_loop *loop, ev_timer *w, int)
{
	bool failing = false;
	retrying = true;
	for (int ins = 0; ins < ZALK_MAX_INSTANCES; ins++) {
		if (instances[ins].enabled && trees[ins].failing) {
			sync_files(ins);
			failing |= trees[ins].failing;
		}
	}
	retrying = false;
	if (!failing)
		ev_timer_stop(loop, w);
}

void want_topology(int ins)
{
	want_number(trees[ins], F_TC_COUNT, as_number(instances[ins].tc_count));
	want_number(trees[ins], F_TC_JIFFIES, os_uptime());
}

void want_port_state(int ins, int port)
{
	const zalkv2_port &p = instances[ins].port[port];
	if (!zalkv2_port_configured(p))
		return;
	ring_tree &t = trees[ins];
	want_number(t, file_index(port, F_LINK), as_number(p.link));
	want(t, file_index(port, F_LOGICAL), zalk_logical_state_name(zalk_port_logical_state(ins, port)));
	want(t, file_index(port, F_PHYSICAL), zalk_port_state_name(p.state));
}

void write_port_state_files(int ins, int port)
{
	want_port_state(ins, port);
	sync_and_retry(ins);
}

// The files of a ring state change: state, the topology counter and both
// ports, from what the instance holds now.
void write_ring_state_files(int ins)
{
	want(trees[ins], F_STATE, zalk_ring_state_name(instances[ins].ring_state, false));
	want_topology(ins);
	want_port_state(ins, PORT_A);
	want_port_state(ins, PORT_B);
	sync_and_retry(ins);
}

} // namespace

int write_text_file(const char *dir, const char *name, const char *text)
{
	char path[STATUS_PATH_MAX + 32];
	snprintf(path, sizeof(path), "%s/%s", dir, name);
	if (put_file(AT_FDCWD, path, text, nullptr) == 0)
		return 0;
	report_failure(dir, name);
	return -1;
}

int write_number_file(const char *dir, const char *name, long number)
{
	return write_text_file(dir, name, number_text(number).s);
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
	ring_tree &t = trees[ins];
	forget(t);
	if (in.role == RING_TYPE_FOCAL) {
		want(t, F_TYPE, sc::type_texts[RING_TYPE_FOCAL]);
		// Single precision on purpose: 10 ms configured reads back as 10.
		float ms = in.ring_interval * 1000.0f;
		want_number(t, F_INTERVAL, (long)(int32_t)ms);
	} else {
		want(t, F_TYPE, sc::type_texts[RING_TYPE_MEMBER]);
	}
	want_number(t, F_RING_ID, in.ring_id);
	in.tc_count = 0;
	want_topology(ins);
	for (int port = PORT_A; port <= PORT_B; port++) {
		const zalkv2_port &p = in.port[port];
		if (!zalkv2_port_configured(p))
			continue;
		want_number(t, file_index(port, F_HELLO_TIME), as_number(p.hello_time_ms));
		want(t, file_index(port, F_HELLO_ENA), sc::hello_ena_texts[p.hello_enable ? 1 : 0]);
	}
	sync_and_retry(ins);
	return t.dirs[DIR_RING].fd < 0 ? 1 : 0;
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
	forget(trees[ins]);
	char dir[STATUS_PATH_MAX];
	remove_tree(instance_dir(dir, instances[ins]));
}

void zalk_set_missing(int ring_id, const char *missing)
{
	char root[STATUS_PATH_MAX], dir[STATUS_PATH_MAX];
	zalk_path(dir, sizeof(dir), "%s/%d", sc::ROOT, ring_id);
	status_dir top, ring;
	if (*missing) {
		if (make_dir(root_dir(root), AT_FDCWD, root, top) == 0 &&
		    make_dir(dir, top.fd, strrchr(dir, '/') + 1, ring) == 0 &&
		    put_file(ring.fd, sc::MISSING, missing, nullptr))
			report_failure(dir, sc::MISSING);
	} else {
		// absent already when nothing was missing; never through a link
		const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
		if (fd >= 0) {
			unlinkat(fd, sc::MISSING, 0);
			close(fd);
		}
	}
	top.close_dir();
	ring.close_dir();
}

namespace {

// Removes what is in the directory open at fd (path names it in messages),
// never following a link: entries are looked at, opened and removed
// relative to their directory. The number of entries not removed.
int remove_entries(int fd, const char *path)
{
	DIR *d = fdopendir(fd);
	if (!d) {
		close(fd);
		return 1;
	}
	int failed = 0;
	while (struct dirent *e = readdir(d)) {
		if (!strcmp(e->d_name, ".") || !strcmp(e->d_name, ".."))
			continue;
		char sub[4096];
		snprintf(sub, sizeof(sub), "%s/%s", path, e->d_name);
		struct stat st;
		if (fstatat(dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW)) {
			// Most likely gone already; if not, removing the directory
			// itself fails below and is reported there.
			perror(sub);
			continue;
		}
		if (!S_ISDIR(st.st_mode)) {
			failed += unlinkat(dirfd(d), e->d_name, 0) != 0;
			continue;
		}
		const int sfd = openat(dirfd(d), e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
		const int nested = sfd < 0 ? 0 : remove_entries(sfd, sub);
		if (unlinkat(dirfd(d), e->d_name, AT_REMOVEDIR) || nested)
			zlog(LOG_ERR, "Error when removing directory %s\n\n", sub);
	}
	closedir(d);
	return failed;
}

} // namespace

int remove_tree(const char *path)
{
	// A link at the path itself is removed, not followed.
	const int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
	const int failed = fd < 0 ? 0 : remove_entries(fd, path);
	if (remove(path) || failed)
		zlog(LOG_ERR, "Error when removing directory %s\n\n", path);
	return 0;
}
