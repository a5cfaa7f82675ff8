// Small helpers shared across the daemon.
#pragma once

#include <cstddef>

// Reads the first line of a file (at most size - 1 characters, line end
// removed). 0 when a line was read, 1 when the file cannot be opened or
// is empty. The path is used as given.
int read_line_file(const char *path, char *buf, size_t size);

// Reads the first line (at most 31 characters) and converts it with
// strtoul base 0. 0 when a line was read, 1 otherwise; *out is written
// only on success.
int read_number_file(const char *path, unsigned long *out);

// Forms a fixed path below the OS root: os_root() followed by the
// formatted text. Returns buf.
char *zalk_path(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));

// Runs an external command given as one line of text. The text is split
// at blanks into an argument vector and executed directly, never by a
// shell, so nothing in an interface name can be interpreted. Returns the
// command's exit status; a command that cannot be started at all is
// logged and counts as status 127.
int zalk_run_command(const char *text);
