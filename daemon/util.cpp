#include "daemon/util.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <libite/lite.h>

#include "daemon/os.h"

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
