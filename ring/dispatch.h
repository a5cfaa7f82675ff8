// The ring state machine's single entry point: one event record per
// callback, checked, traced and routed by event code and role.
#pragma once

#include <ev.h>

// The dispatcher's read watcher on the event channel: set up once at
// start-up, started and stopped around a reconfiguration.
extern ev_io sm_watcher;
void msg_bus_setup();
void msg_bus_start(struct ev_loop *loop);
void msg_bus_stop(struct ev_loop *loop);

void sm_cb(struct ev_loop *loop, ev_io *w, int revents);
