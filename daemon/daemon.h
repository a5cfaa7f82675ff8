// The daemon's frame: command line, start-up, signals, shutdown.
#pragma once

#include <ev.h>

// Command line handling; returns only when the daemon is to run.
void zalk_parse_args(int argc, char *argv[]);

void init_all();
int zalk_main(int argc, char *argv[]);

void sigterm_cb(struct ev_loop *loop, ev_signal *w, int revents);
void sighup_cb(struct ev_loop *loop, ev_signal *w, int revents);
void sigusr1_cb(struct ev_loop *loop, ev_signal *w, int revents);

int get_runlevel();
