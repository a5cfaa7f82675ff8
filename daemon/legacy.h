// The link to the version-0 daemon that may run beside this one: its pid
// file is tested and read, and it is told with SIGUSR1 after a flush.
#pragma once

// 1 when /var/run/zalkd.pid exists, else 0.
int zalkv0_pid_exists();

// SIGUSR1 to the version-0 daemon named by its pid file, when that pid
// names a running process of that daemon ("zalkd").
void signal_zalkv0();
