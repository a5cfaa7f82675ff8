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
	// back exactly the words the command text was formed from; runs of
	// blanks (left by empty words) give no empty arguments.
	constexpr int max_words = 31;
	char copy[512];
	char *argv[max_words + 1];
	int argc = 0;
	// A cut command could do something else than the one asked for:
	// refuse it rather than run a part of it.
	if ((size_t)snprintf(copy, sizeof(copy), "%s", text) >= sizeof(copy)) {
		zlog(LOG_ERR, "Command too long, not run: %.64s...\n", text);
		return 127;
	}
	char *save = nullptr;
	for (char *w = strtok_r(copy, " ", &save); w; w = strtok_r(nullptr, " ", &save)) {
		if (argc == max_words) {
			zlog(LOG_ERR, "Command has too many words, not run: %s\n", text);
			return 127;
		}
		argv[argc++] = w;
	}
	argv[argc] = nullptr;
	if (!argc)
		return 127;
	// Told apart from the tool's own failure by this line: the tool never
	// ran, so there is no status of its own to report.
	int st = os_spawn(argv);
	if (st < 0) {
		zlog(LOG_ERR, "Could not start command %s: %s\n", text, strerror(errno));
		return 127;
	}
	return st;
}
