// The link to the version-0 daemon: its pid file and its signal.
#include "daemon/legacy.h"

#include <cstdint>
#include <cstring>
#include <signal.h>

#include "daemon/os.h"
#include "daemon/util.h"
#include "status/status.h"
// after the C++ headers: its min and max macros break <array>
#include <libite/lite.h>

namespace {
// Whether `pid` is a running process of the version-0 daemon. A pid file
// outlives its daemon, and the pid is soon another process's: signalled
// blindly, whatever root process now has it would get a SIGUSR1 at every
// flush, which ends most programs. The process's name (/proc/<pid>/comm,
// the first 15 characters of the name it was started by) must be the
// daemon's; a process can rename only itself, and its executable's path
// would differ after an upgrade replaced the file.
bool is_zalkv0(unsigned long pid)
{
	char path[160], comm[32];
	if (read_line_file(zalk_path(path, sizeof(path), "/proc/%lu/comm", pid), comm, sizeof(comm)))
		return false;
	return strcmp(comm, "zalkd") == 0;
}
} // namespace

int zalkv0_pid_exists()
{
	char path[160];
	return fexist(zalk_path(path, sizeof(path), "/var/run/zalkd.pid")) ? 1 : 0;
}

void signal_zalkv0()
{
	char path[160];
	unsigned long pid;
	if (read_number_file(zalk_path(path, sizeof(path), "%s/zalkd.pid", "/var/run/"), &pid))
		return;
	// A pid of 0 or beyond the pid range would signal a whole process
	// group (this daemon's own among them): such a file names no daemon.
	if (pid == 0 || pid > (unsigned long)INT32_MAX || !is_zalkv0(pid) || os_kill((pid_t)pid, SIGUSR1))
		zlog(LOG_ERR, "Could not send signal to ZALKv0 daemon\n");
}
