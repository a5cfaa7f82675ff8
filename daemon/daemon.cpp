// The daemon's frame: command line, start-up, the signal watchers, the
// real-time priority and shutdown.
#include "daemon/daemon.h"

#include <array> // before libite: its min and max macros break the C++ headers
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <libgen.h>
#include <sched.h>
#include <signal.h>

#include "bridge/filters.h"
#include "bridge/prepare.h"
#include "daemon/configure.h"
#include "daemon/instance.h"
#include "daemon/os.h"
#include "daemon/service.h"
#include "daemon/util.h"
#include "frames/hello.h"
#include "frames/linkmon.h"
#include "ring/channel.h"
#include "ring/dispatch.h"
#include "ring/focal.h"
#include "ring/member.h"
#include "status/files.h"
#include "status/report.h"
#include "status/status.h"

namespace {

struct ev_loop *main_loop;

ev_signal sigint_watcher;
ev_signal sigquit_watcher;
ev_signal sigterm_watcher;
ev_signal sighup_watcher;
ev_signal sigusr1_watcher;

// The check after br0 or a ring port changed waits REPAIR_DELAY, so that
// one network reload (bridge and ports deleted, created, moved) comes to
// one set-up. A check that set rings up is followed by one more after
// REPAIR_HOLDOFF, which takes in whatever changed meanwhile: a flapping
// bridge costs at most two set-ups a second, never a spinning daemon.
constexpr double REPAIR_DELAY = 0.05;
constexpr double REPAIR_HOLDOFF = 0.5;

void repair_cb(struct ev_loop *loop, ev_timer *w, int)
{
	const bool set_up = zalkv2_repair_instances(loop);
	ev_timer_set(w, set_up ? REPAIR_HOLDOFF : REPAIR_DELAY, 0.);
	if (set_up)
		ev_timer_start(loop, w);
}

[[noreturn]] void usage(const char *argv0)
{
	static const char rule[] =
		"--------------------------------------------------------------------------------";
	static_assert(sizeof(rule) == 81, "the rule is 80 characters");
	fprintf(stderr,
		"%s\n"
		"Usage: %s [OPTIONS]\n"
		" -f, --focal point                  ZALK Focal Point\n"
		" -m, --member                       ZALK Member\n"
		" -M, --portm=XX                     Set ZALK port M\n"
		" -N, --portn=XX                     Set ZALK port N\n"
		" -?, --help                         This help text\n"
		"%s\n"
		"\n",
		rule, __xpg_basename(const_cast<char *>(argv0)), rule);
	exit(1);
}

} // namespace

void zalk_parse_args(int argc, char *argv[])
{
	static const struct option long_options[] = {
		{"member", no_argument, nullptr, 'm'},
		{"focal", no_argument, nullptr, 'f'},
		{"portm", required_argument, nullptr, 'M'},
		{"portn", required_argument, nullptr, 'N'},
		{"help", no_argument, nullptr, '?'},
		{nullptr, 0, nullptr, 0},
	};
	int c;
	// Roles and ring ports come only from the configuration file; the
	// role and port options are accepted for compatibility and ignored.
	while ((c = getopt_long(argc, argv, "fmM:N:D:", long_options, nullptr)) != -1) {
		switch (c) {
		case 'f':
		case 'm':
		case 'M':
		case 'N':
			break;
		case 'D':
		default:
			usage(argv[0]);
		}
	}
}

static void log_init(const char *text)
{
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - %s\n", "init_all", text);
}

void init_all()
{
	service_init();
	main_loop = ev_default_loop(0);
	log_init("ZALKv2 starting initializing");

	// Start-up goes on whatever the bridge reports: each later bridge
	// operation reports its own failure.
	zalkv2_prepare_bridge();

	log_init("ZALKv2 setup signal handlers");
	struct {
		ev_signal *w;
		void (*cb)(struct ev_loop *, ev_signal *, int);
		int signum;
	} const signals[] = {
		{&sigint_watcher, sigterm_cb, SIGINT},   {&sigquit_watcher, sigterm_cb, SIGQUIT},
		{&sigterm_watcher, sigterm_cb, SIGTERM}, {&sighup_watcher, sighup_cb, SIGHUP},
		{&sigusr1_watcher, sigusr1_cb, SIGUSR1},
	};
	for (auto &s : signals) {
		// Never re-initialise a watcher libev is holding.
		if (ev_is_active(s.w))
			continue;
		ev_signal_init(s.w, s.cb, s.signum);
		ev_set_priority(s.w, ZALK_PRI_KERNEL);
		ev_signal_start(main_loop, s.w);
	}

	log_init("ZALKv2 setup watchers");
	focal_timers_init();
	member_timer_init();
	zalkv2_hello_timers_init();
	msg_bus_setup();
	zalkv2_init_sockets();
	if (!ev_is_active(&world_timer))
		ev_timer_init(&world_timer, repair_cb, REPAIR_DELAY, 0.);

	log_init("ZALKv2 get configuration");
	zalkv2_configure_instances(main_loop);

	// Real-time priority only once the rings are set up; without the
	// permission the daemon runs on at normal priority.
	errno = 0;
	if (os_sched_setscheduler(SCHED_FIFO, 49)) {
		int err = errno;
		zlog(LOG_ERR, "Failed raising ZALKv2 priority, %d. Error %d: %s\n", err, err, strerror(err));
	}

	log_init("Setup finished and ZALKv2 started");
	service_ready(main_loop);
}

int zalk_main(int argc, char *argv[])
{
	zalk_parse_args(argc, argv);
	init_all();
	ev_run(main_loop, 0);
	return 0;
}

void sigterm_cb(struct ev_loop *loop, ev_signal *, int)
{
	service_stopping();
	int runlevel = get_runlevel();

	errno = 0;
	if (os_sched_setscheduler(SCHED_OTHER, 0)) {
		int err = errno;
		zlog(LOG_ERR, "Failed reverting ZALKv2 priority, %d. Error %d: %s\n", err, err, strerror(err));
	}

	zalkv2_set_drop_filters(0);

	// During a reboot the ring ports keep their bridge states, so the
	// ring stays loop-free until the switch goes down.
	if (runlevel != 6) {
		for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
			if (instances[i].enabled)
				zalkv2_teardown_instance(i, loop);
	}

	zalkv2_teardown();

	char path[160];
	service_remove_tree(zalk_path(path, sizeof(path), "%szalkv2", "/var/run/"));

	if (zalk_debug(ZALK_NOTE))
		zlog(LOG_NOTICE, "%s() - Terminate ZALK\n", "sigterm_cb");

	ev_break(loop, EVBREAK_ALL);
}

void sighup_cb(struct ev_loop *loop, ev_signal *, int)
{
	service_reloading();
	zalkv2_configure_instances(loop);
	service_reloaded();
}

void sigusr1_cb(struct ev_loop *, ev_signal *, int)
{
	for (int i = 0; i < ZALK_MAX_INSTANCES; i++)
		if (instances[i].enabled)
			zalk_status_setup(i);
	zalk_status_report();
}

int get_runlevel()
{
	FILE *f = os_popen("runlevel", "r");
	if (!f) {
		puts("Failed to run command");
		return -22;
	}
	int level = -22;
	char line[50];
	if (fgets(line, sizeof(line), f)) {
		char *save = nullptr;
		// The first field is the previous runlevel, the second the current.
		if (strtok_r(line, " ", &save)) {
			const char *current = strtok_r(nullptr, " ", &save);
			if (current)
				level = (int)strtol(current, nullptr, 10);
		}
	}
	os_pclose(f);
	return level;
}
