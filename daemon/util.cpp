#include "daemon/util.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libite/lite.h>

#include "daemon/os.h"
#include "status/status.h"

int read_line_file(const char *path, char *buf, size_t size)
{
	FILE *f = fopen(path, "r");
	if (!f)
		return 1;
	char *line = fgets(buf, (int)size, f);
	fclose(f);
	if (!line)
		return 1;
	chomp(buf);
	return 0;
}

int read_number_file(const char *path, unsigned long *out)
{
	char line[32];
	if (read_line_file(path, line, sizeof(line)))
		return 1;
	*out = strtoul(line, nullptr, 0);
	return 0;
}

char *zalk_path(char *buf, size_t size, const char *fmt, ...)
{
	int n = snprintf(buf, size, "%s", os_root());
	if (n < 0 || (size_t)n >= size)
		return buf;
	va_list ap;
	va_start(ap, fmt);
	vsnprintf(buf + n, size - n, fmt, ap);
	va_end(ap);
	return buf;
}

int zalk_run_command(const char *text)
{
	// Interface names cannot hold blanks, so splitting at blanks gives
	// back exactly the words the command text was formed from.
	char copy[512];
	char *argv[32];
	int argc = 0;
	snprintf(copy, sizeof(copy), "%s", text);
	char *save = nullptr;
	for (char *w = strtok_r(copy, " ", &save); w && argc < 31; w = strtok_r(nullptr, " ", &save))
		argv[argc++] = w;
	argv[argc] = nullptr;
	if (!argc)
		return 127;
	int st = os_spawn(argv);
	if (st < 0) {
		zlog(LOG_ERR, "Could not start command %s: %s\n", text, strerror(errno));
		return 127;
	}
	return st;
}
