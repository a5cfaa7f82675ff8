// The event log /tmp/zalk.log.
#include "status/eventlog.h"

#include <cstdarg>
#include <cstdio>

#include "daemon/os.h"
#include "daemon/util.h"
#include "status/status.h"

void zalk_event_log(const char *func, const char *fmt, ...)
{
	if (!zalk_debug(ZALK_EVENTLOG))
		return;
	struct timeval tv;
	os_gettimeofday(&tv);
	char path[160];
	FILE *f = fopen(zalk_path(path, sizeof(path), "/tmp/zalk.log"), "a");
	if (!f)
		return; // the protocol goes on without its event log
	fprintf(f, "%ld.%.3ld %s() - ", (long)(tv.tv_sec % 1000), (long)(tv.tv_usec / 1000), func);
	va_list ap;
	va_start(ap, fmt);
	vfprintf(f, fmt, ap);
	va_end(ap);
	fclose(f);
}
