// Debug level and log lines: the level read from /var/run/zalkv2/debug,
// syslog lines and the hex dump of received frames. The event log, the
// name lookups, the status files and the report have headers of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <syslog.h>

#include "status/schema.h" // the debug bits

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

// Hex dump of a received frame to syslog, with bit MSG only.
void debug_packet(const char *label, const uint8_t *buf, size_t len);
