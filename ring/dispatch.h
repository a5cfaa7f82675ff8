// The ring state machine's single entry point: one event record per
// callback, checked, traced and routed by event code and role.
#pragma once

#include <ev.h>

void sm_cb(struct ev_loop *loop, ev_io *w, int revents);
