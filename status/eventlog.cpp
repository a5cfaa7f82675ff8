// The event log /tmp/zalk.log.
//
// /tmp is writable by everybody, and the daemon runs as root: the log is
// opened as such a daemon must open a file there. Never through a symbolic
// link (O_NOFOLLOW), never blocking (O_NONBLOCK until the file is known to
// be regular: a FIFO or a device planted at the path is refused instead of
// freezing the loop), made only by the daemon itself (O_EXCL, mode 0600:
// the trace is for root), and only a regular file the daemon owns with one
// link is written. The file stays open between lines; each line costs an
// lstat of the path (to follow a log removed or replaced behind our back)
// and one write.
//
// At 1 MiB the log is renamed to zalk.log.1 (replacing an older one) and
// begun anew, so the trace before the cap stays readable and /tmp never
// holds more than 2 MiB of it. The rename cannot be turned against us: the
// sticky /tmp lets nobody else move our file, and a rename replaces
// whatever name stands at zalk.log.1 without following or opening it.
// Where the rename fails (a directory there, or no right to replace a
// foreign file), the log is truncated instead.
//
// A refused log is reported once at LOG_ERR; lines are then dropped
// without a system call, and the next line after 10 s tries again.
#include "status/eventlog.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/os.h"
#include "daemon/util.h"
#include "status/status.h"

namespace {

constexpr off_t LOG_CAP = 1 << 20;
constexpr time_t RETRY_S = 10;

struct event_log {
	int fd = -1;
	dev_t dev = 0;
	ino_t ino = 0;
	bool refused = false; // reported, not tried again before retry_at
	time_t retry_at = 0;
};
event_log lg;

void close_log()
{
	if (lg.fd >= 0)
		close(lg.fd);
	lg.fd = -1;
}

// Why the file at the path may not be written, or nullptr when it may;
// on success lg holds it open.
const char *open_log(const char *path)
{
	constexpr int flags = O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
	int fd = open(path, flags);
	if (fd < 0 && errno == ENOENT)
		fd = open(path, flags | O_CREAT | O_EXCL, 0600);
	if (fd < 0) {
		if (errno == ELOOP)
			return "a symbolic link";
		if (errno == ENXIO)
			return "a FIFO or device";
		return strerror(errno);
	}
	struct stat st;
	const char *why = nullptr;
	if (fstat(fd, &st))
		why = strerror(errno);
	else if (!S_ISREG(st.st_mode))
		why = "not a regular file";
	else if (st.st_uid != geteuid())
		why = "owned by another user";
	else if (st.st_nlink != 1)
		why = "a file with more than one link";
	else if (fcntl(fd, F_SETFL, O_APPEND) < 0) // writes block again, as for any regular file
		why = strerror(errno);
	if (why) {
		close(fd);
		return why;
	}
	lg.fd = fd;
	lg.dev = st.st_dev;
	lg.ino = st.st_ino;
	return nullptr;
}

// True when the log is open and still at its path.
bool log_ready(const char *path, time_t now)
{
	struct stat st;
	if (lg.fd >= 0 && (lstat(path, &st) || st.st_dev != lg.dev || st.st_ino != lg.ino))
		close_log();
	if (lg.fd >= 0)
		return true;
	if (lg.refused && now < lg.retry_at && now > lg.retry_at - 2 * RETRY_S) // (the clock may step back)
		return false;
	const char *why = open_log(path);
	if (!why) {
		lg.refused = false;
		return true;
	}
	if (!lg.refused)
		zlog(LOG_ERR, "Event log %s not written: %s; trying again in %d s\n", path, why, (int)RETRY_S);
	lg.refused = true;
	lg.retry_at = now + RETRY_S;
	return false;
}

void rotate(const char *path)
{
	char old[176];
	snprintf(old, sizeof(old), "%s.1", path);
	if (rename(path, old) == 0)
		close_log(); // the next line makes a new log
	else if (ftruncate(lg.fd, 0))
		close_log();
}

} // namespace

void zalk_event_log(const char *func, const char *fmt, ...)
{
	if (!zalk_debug(ZALK_EVENTLOG))
		return;
	struct timeval tv;
	os_gettimeofday(&tv);
	char path[160];
	zalk_path(path, sizeof(path), "/tmp/zalk.log");
	if (!log_ready(path, tv.tv_sec))
		return; // the protocol goes on without its event log

	char line[512];
	int n = snprintf(line, sizeof(line), "%ld.%.3ld %s() - ", (long)(tv.tv_sec % 1000), (long)(tv.tv_usec / 1000),
			 func);
	va_list ap;
	va_start(ap, fmt);
	if (n >= 0 && (size_t)n < sizeof(line))
		vsnprintf(line + n, sizeof(line) - n, fmt, ap);
	va_end(ap);
	if (write(lg.fd, line, strnlen(line, sizeof(line))) < 0)
		return;
	if (lseek(lg.fd, 0, SEEK_CUR) >= LOG_CAP)
		rotate(path);
}
