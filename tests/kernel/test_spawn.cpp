// External commands on the real system: `tc` and `bridge` live in
// /usr/sbin and must be found whatever PATH the daemon was started with;
// a program on the given PATH still wins over the system's.
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>

#include "daemon/os.h"
#include "tests/kernel/support/netns.h"

namespace {

void ignore_line(const char *, void *) {}

// Runs the program both ways the daemon does: alone, and as a batch fed
// on standard input; both must find the same program.
int run(const char *path, const char *prog)
{
	if (path)
		setenv("PATH", path, 1);
	else
		unsetenv("PATH");
	char arg[] = "-V";
	char *argv[] = {(char *)prog, arg, nullptr};
	int alone = os_spawn(argv);
	int batch = os_spawn_input(argv, "", 0, ignore_line, nullptr);
	EXPECT_EQ(alone, batch) << prog;
	return alone;
}

TEST(Spawn, SbinToolsAreFoundWithAnyPath)
{
	mkdir("/tmp/bin", 0755);
	std::ofstream("/tmp/bin/tc") << "#!/bin/sh\nexit 7\n";
	chmod("/tmp/bin/tc", 0755);
	mkdir("/tmp/bin/bridge", 0755); // a directory is no program
	for (const char *path : {(const char *)nullptr, "", "/nonexistent", "/bin:/usr/bin", "/tmp/bin"}) {
		EXPECT_EQ(run(path, "bridge"), 0) << (path ? path : "(unset)");
		EXPECT_EQ(run(path, "tc"), path && !strcmp(path, "/tmp/bin") ? 7 : 0) << (path ? path : "(unset)");
	}
	EXPECT_EQ(run(nullptr, "no-such-tool-here"), -1);
	EXPECT_EQ(errno, ENOENT);
}

} // namespace
