// systemd notifications. The watchdog is fed by a timer in the daemon's
// own loop, so it stops being fed exactly when the loop stops running:
// a daemon stuck in a callback (or stopped) is killed and restarted by
// systemd, where a thread of its own would keep a hung daemon alive.
#include "daemon/service.h"

#include "daemon/os.h"

namespace {

uint64_t watchdog_usec;
ev_timer watchdog_timer;

void watchdog_cb(struct ev_loop *, ev_timer *, int) { os_notify("WATCHDOG=1"); }

} // namespace

void service_init() { watchdog_usec = os_notify_setup(); }

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
