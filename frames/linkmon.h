// Link monitoring over rtnetlink: kernel link notifications of the ring
// ports become link events.
#pragma once

#include <ev.h>
#include <linux/netlink.h>

#include "bridge/rtnl.h"
#include "daemon/instance.h"

extern struct rtnl_handle link_rth;
// Read watcher on link_rth's socket; initialised only when link_rth opened.
extern ev_io link_watcher;
// Started by a link message that tells of br0 or a ring port created,
// deleted, re-created or moved to another master; its callback, set by
// start-up, sets the rings up again. Left alone while not initialised.
extern ev_timer world_timer;

void zalkv2_init_sockets();
void zalkv2_link_monitor_start();
void zalkv2_link_monitor_stop();
void netlink_io_cb(struct ev_loop *loop, ev_io *w, int revents);
int link_listen(struct rtnl_handle *rth, rtnl_listen_filter_t handler, void *arg);
int netlink_listen(const struct sockaddr_nl *who, struct nlmsghdr *n, void *arg);
void zalkv2_link_changed(zalkv2_port *port, int up);
void zalkv2_update_link_status(int ins);
