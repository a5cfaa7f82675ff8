// Debug level, log lines and the frame dump.
#include "status/status.h"

#include <array>
#include <cassert>
#include <cstdarg>
#include <cstdio>
#include <string_view>

#include "daemon/os.h"
#include "daemon/util.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

unsigned read_debug_file()
{
	char path[160];
	unsigned long level = 0;
	if (read_number_file(zalk_path(path, sizeof(path), "/var/run/zalkv2/debug"), &level, false))
		return 0;
	return (unsigned)level;
}

// The level as last read, and the kernel's word on whether the file may
// have changed since: the directory (for the file appearing, going or
// being replaced) and the file itself (never through a link: a link there reads as level 0) are
// watched with inotify, and the inotify descriptor raises SIGIO when it
// gets an event. The kernel queues the event and signals us before the
// writer's write returns (interrupting us where we run on another
// processor), so a change still takes effect at the next gated log point;
// while nothing changed, a log point costs no system call at all. Where the signal cannot be had, the descriptor is read
// (non-blocking) at every log point instead.
struct debug_watch {
	int fd = -1;           // inotify, non-blocking; -1: not made yet
	bool failed = false;   // no inotify here: read the file every time
	bool signalled = false; // SIGIO reports the descriptor's events
	bool current = false;  // level holds the file's value
	unsigned level = 0;
};
debug_watch watch;
volatile sig_atomic_t debug_file_changed;

void on_debug_file_change(int) { debug_file_changed = 1; }

// SIGIO for the inotify descriptor; SA_RESTART so that no system call of
// the daemon ever sees EINTR because of it. Unblocked here: a daemon
// started with SIGIO blocked (the mask is inherited) would otherwise
// never hear of a change.
bool signal_on_change(int fd)
{
	struct sigaction sa = {};
	sa.sa_handler = on_debug_file_change;
	sa.sa_flags = SA_RESTART;
	sigemptyset(&sa.sa_mask);
	sigset_t io;
	sigemptyset(&io);
	sigaddset(&io, SIGIO);
	if (sigaction(SIGIO, &sa, nullptr) < 0 || sigprocmask(SIG_UNBLOCK, &io, nullptr) < 0 ||
	    fcntl(fd, F_SETOWN, getpid()) < 0)
		return false;
	int fl = fcntl(fd, F_GETFL);
	return fl >= 0 && fcntl(fd, F_SETFL, fl | O_ASYNC) == 0;
}

constexpr uint32_t DIR_EVENTS = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM |
				IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t FILE_EVENTS = IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_DONT_FOLLOW;

// True when any change was queued; empties the queue.
bool changes_queued()
{
	alignas(struct inotify_event) char buf[1024];
	bool any = false;
	while (read(watch.fd, buf, sizeof(buf)) > 0)
		any = true;
	return any;
}

// True when the file may have changed since the level was read.
bool level_stale()
{
	if (!watch.current)
		return true;
	if (!watch.signalled)
		return changes_queued();
	if (!debug_file_changed)
		return false;
	// Cleared before the queue is emptied: a change from here on raises
	// the flag again and is read at the next log point.
	debug_file_changed = 0;
	changes_queued();
	return true;
}

} // namespace

unsigned zalk_debug_level()
{
	if (watch.fd < 0 && !watch.failed) {
		watch.fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
		watch.failed = watch.fd < 0;
		watch.signalled = !watch.failed && signal_on_change(watch.fd);
	}
	if (watch.failed)
		return read_debug_file();
	if (!level_stale())
		return watch.level;

	// Watch first, then read: a change after the read is then queued.
	char path[160];
	if (inotify_add_watch(watch.fd, zalk_path(path, sizeof(path), "/var/run/zalkv2"), DIR_EVENTS) < 0) {
		// No directory, no file: level 0 until the directory appears.
		watch.current = false;
		return errno == ENOENT || errno == ENOTDIR ? 0 : read_debug_file();
	}
	inotify_add_watch(watch.fd, zalk_path(path, sizeof(path), "/var/run/zalkv2/debug"), FILE_EVENTS);
	watch.level = read_debug_file();
	watch.current = true;
	return watch.level;
}

namespace {
unsigned lines_logged;
void (*error_hook)();
}

unsigned zlog_lines() { return lines_logged; }

void zlog_before_error(void (*hook)()) { error_hook = hook; }

void zlog(int prio, const char *fmt, ...)
{
	if (prio == LOG_ERR && error_hook)
		error_hook();
	lines_logged++;
	char line[1024];
	va_list ap;
	va_start(ap, fmt);
	vsnprintf(line, sizeof(line), fmt, ap);
	va_end(ap);
	os_syslog(prio, line);
}

void debug_packet(const char *label, const uint8_t *buf, size_t len)
{
	assert(label);
	assert(buf);
	if (!zalk_debug(ZALK_MSG))
		return;
	size_t n = len < 64 ? len : 64;
	zlog(LOG_NOTICE, "%s\n", label);
	char line[128];
	int pos = snprintf(line, sizeof(line), "%03X: ", 0);
	bool pending = false;
	for (size_t i = 1; i <= n; i++) {
		pos += snprintf(line + pos, sizeof(line) - pos, "%02X ", buf[i - 1]);
		pending = true;
		if (i % 16 == 0) {
			pos += snprintf(line + pos, sizeof(line) - pos, "\n");
			zlog(LOG_NOTICE, "%s", line);
			pos = snprintf(line, sizeof(line), "%03X: ", (unsigned)i);
			pending = false;
		} else if (i % 8 == 0) {
			pos += snprintf(line + pos, sizeof(line) - pos, ":: ");
		}
	}
	if (pending)
		zlog(LOG_NOTICE, "%s", line);
}
