// The event log /tmp/zalk.log: a timestamped trace of the protocol engine.
#pragma once

// With bit EVENTLOG set, appends to /tmp/zalk.log the prefix
// "%ld.%.3ld %s() - " (seconds modulo 1000, milliseconds, func) followed
// by the formatted text.
void zalk_event_log(const char *func, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
