// systemd notifications. The watchdog is fed by a timer in the daemon's
// own loop, so it stops being fed exactly when the loop stops running:
// a daemon stuck in a callback (or stopped) is killed and restarted by
// systemd, where a thread of its own would keep a hung daemon alive.
#include "daemon/service.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

#include "daemon/os.h"
#include "status/files.h"
#include "status/status.h"

namespace {

uint64_t watchdog_usec;
// The directory systemd made for the service (RuntimeDirectory=), if any.
char runtime_dir[256];
ev_timer watchdog_timer;

void watchdog_cb(struct ev_loop *, ev_timer *, int) { os_notify("WATCHDOG=1"); }

} // namespace

void service_init()
{
	watchdog_usec = os_notify_setup();
	const char *dir = getenv("RUNTIME_DIRECTORY");
	snprintf(runtime_dir, sizeof(runtime_dir), "%s", dir && !strchr(dir, ':') ? dir : "");
}

void service_remove_tree(const char *path)
{
	// The same directory under either name (/var/run is /run).
	struct stat a, b;
	if (!runtime_dir[0] || stat(path, &a) || stat(runtime_dir, &b) || a.st_dev != b.st_dev || a.st_ino != b.st_ino) {
		remove_tree(path);
		return;
	}
	DIR *d = opendir(path);
	if (!d)
		return;
	char sub[4096];
	while (struct dirent *e = readdir(d)) {
		if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) {
			snprintf(sub, sizeof(sub), "%s/%s", path, e->d_name);
			remove_tree(sub);
		}
	}
	closedir(d);
}

void service_ready(struct ev_loop *loop)
{
	os_notify("READY=1");
	if (watchdog_usec == 0 || ev_is_active(&watchdog_timer))
		return;
	// Half the period leaves the other half for a late tick.
	ev_tstamp half = (ev_tstamp)watchdog_usec / 2e6;
	ev_timer_init(&watchdog_timer, watchdog_cb, half, half);
	ev_timer_start(loop, &watchdog_timer);
}

// A reconfiguration blocks the loop while it runs its commands: a fresh
// tick at its start gives it the whole watchdog period.
void service_reloading() { os_notify(watchdog_usec ? "RELOADING=1\nWATCHDOG=1" : "RELOADING=1"); }

void service_reloaded() { os_notify("READY=1"); }

void service_stopping() { os_notify("STOPPING=1"); }
