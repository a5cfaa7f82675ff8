// The daemon as a systemd service: readiness, reloads, shutdown and the
// watchdog, told over the notification socket systemd hands it. Started
// any other way (no NOTIFY_SOCKET), none of this sends anything.
#pragma once

#include <ev.h>

// Before anything else: takes systemd's socket and watchdog period out of
// the environment, which the commands the daemon runs inherit.
void service_init();
// After the first configuration: READY=1, and from then on WATCHDOG=1
// every half watchdog period while systemd asks for it (WATCHDOG_USEC).
void service_ready(struct ev_loop *loop);
// Around a reconfiguration on SIGHUP.
void service_reloading();
void service_reloaded();
// At the start of the orderly shutdown.
void service_stopping();
// Removes the status tree at shutdown. The directory systemd made for the
// service (RuntimeDirectory, which the daemon, not being root, could not
// remove) is only emptied: systemd removes it when the service stops.
void service_remove_tree(const char *path);
