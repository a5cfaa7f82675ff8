// Kernel tests run inside network and mount namespaces of their own:
// the support library's main() enters them before any test runs, with a
// fresh loopback, private tmpfs on /var/run and /tmp, and /etc as an
// overlay whose changes vanish with the process. Nothing the tests do
// reaches the machine's own network or files.
#pragma once

#include <string>

// Runs a shell command line (test code only); returns its exit status.
int sh(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// Runs a shell command line and returns what it printed on stdout.
std::string sh_out(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
