#include "daemon/util.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <libite/lite.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/os.h"

int read_line_file(const char *path, char *buf, size_t size, bool follow)
{
	int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (follow ? 0 : O_NOFOLLOW));
	struct stat st;
	if (fd < 0)
		return 1;
	FILE *f = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? fdopen(fd, "r") : nullptr;
	if (!f) {
		close(fd);
		return 1;
	}
	char *line = fgets(buf, (int)size, f);
	fclose(f);
	if (!line)
		return 1;
	chomp(buf);
	return 0;
}

int read_number_file(const char *path, unsigned long *out, bool follow)
{
	char line[32];
	if (read_line_file(path, line, sizeof(line), follow))
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
