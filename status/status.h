// Status and diagnostics: debug level, log lines, event log, frame dump,
// name lookups, the status file tree and the status report.
#pragma once

#include <cstddef>
#include <cstdint>
#include <syslog.h>

// Debug level bits, from /var/run/zalkv2/debug: a change of the file
// takes effect at the next gated log point (the file is read again only
// when inotify reports a change).
enum zalk_debug_bit : unsigned {
	ZALK_STATE = 1,
	ZALK_DBG = 2,
	ZALK_NOTE = 4,
	ZALK_TRACE = 8,
	ZALK_MSG = 16,
	ZALK_TIP = 32,
	ZALK_EVENTLOG = 128,
};

unsigned zalk_debug_level();

// True when the bit is set in the level read right now.
inline bool zalk_debug(unsigned bit) { return (zalk_debug_level() & bit) != 0; }

// One syslog line, formatted with printf rules and sent as is.
void zlog(int prio, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// How many lines zlog has sent so far (wraps).
unsigned zlog_lines();
// hook runs before every LOG_ERR line zlog sends (nullptr: nothing), so
// that work held back (a batch of commands) reports its own errors first.
void zlog_before_error(void (*hook)());

// Event log: with bit EVENTLOG set, appends to /tmp/zalk.log the prefix
// "%ld.%.3ld %s() - " (seconds modulo 1000, milliseconds, func) followed
// by the formatted text.
void zalk_event_log(const char *func, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Hex dump of a received frame to syslog, with bit MSG only.
void debug_packet(const char *label, const uint8_t *buf, size_t len);

// Name lookups; each returns a constant text and never fails.
const char *zalk_port_state_name(uint32_t state);
const char *zalk_ring_state_name(uint32_t state, bool long_name);
const char *zalk_hello_state_name(int32_t state);
const char *zalk_ring_type_name(uint32_t role);
const char *zalk_event_name(uint32_t event);
const char *zalk_frame_type_name(uint32_t type);
const char *zalk_hello_resp_name(uint32_t resp);
const char *zalk_logical_state_name(int state);

// Status files under /var/run/zalkv2/<ring id>/.
int zalk_status_setup(int ins);
void zalk_set_status(int ins);
// A link report: the port's link, logical_state and physical_state files,
// written at once, before the ring logic reacts to the report.
void zalk_set_port_status(int ins, int port);
void zalk_remove_status(int ins);
int remove_tree(const char *path);
int zalk_port_logical_state(int ins, int port);
int write_text_file(const char *dir, const char *name, const char *text);

// While a batch lives (the handling of one event), the files of a ring
// state change (zalk_set_status) are not written at once but when the
// outermost batch ends, from what the instance holds then: after the
// frames the event sends. Batches nest.
class zalk_status_batch {
public:
	zalk_status_batch();
	~zalk_status_batch();
	zalk_status_batch(const zalk_status_batch &) = delete;
	zalk_status_batch &operator=(const zalk_status_batch &) = delete;
};
// Writes what the batches have left to write.
void zalk_status_flush();
int write_number_file(const char *dir, const char *name, long number);

// The SIGUSR1 report, to standard error.
void zalk_status_report();
