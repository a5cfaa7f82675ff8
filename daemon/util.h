// Small helpers shared across the daemon: the two file readers and the
// fixed paths below the OS root.
#pragma once

#include <cstddef>

// Reads the first line of a file (at most size - 1 characters, line end
// removed). 0 when a line was read, 1 when the file cannot be opened, is
// not a regular file (a FIFO would block the loop) or is empty. The path
// is used as given; with follow false, a symbolic link there is not
// followed (it reads as a missing file).
int read_line_file(const char *path, char *buf, size_t size, bool follow = true);

// Reads the first line (at most 31 characters) and converts it with
// strtoul base 0. 0 when a line was read, 1 otherwise; *out is written
// only on success.
int read_number_file(const char *path, unsigned long *out, bool follow = true);

// Forms a fixed path below the OS root: os_root() followed by the
// formatted text. Returns buf.
char *zalk_path(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
