#include "tests/kernel/support/netns.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static std::string vformat(const char *fmt, va_list ap)
{
	char buf[4096];
	vsnprintf(buf, sizeof(buf), fmt, ap);
	return buf;
}

int sh(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	std::string cmd = vformat(fmt, ap);
	va_end(ap);
	int st = system(cmd.c_str());
	return WIFEXITED(st) ? WEXITSTATUS(st) : 255;
}

std::string sh_out(const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	std::string cmd = vformat(fmt, ap);
	va_end(ap);
	std::string out;
	FILE *p = popen(cmd.c_str(), "r");
	if (!p)
		return out;
	char buf[4096];
	size_t n;
	while ((n = fread(buf, 1, sizeof(buf), p)) > 0)
		out.append(buf, n);
	pclose(p);
	return out;
}

static void die(const char *what)
{
	fprintf(stderr, "kernel test set-up: %s: %s\n", what, strerror(errno));
	exit(2);
}

static void enter_namespaces()
{
	if (unshare(CLONE_NEWNET | CLONE_NEWNS))
		die("unshare(CLONE_NEWNET|CLONE_NEWNS) (kernel tests need root)");
	if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr))
		die("make / private");
	if (mount("zalk-run", "/var/run", "tmpfs", 0, "mode=0755"))
		die("tmpfs on /var/run");
	if (mount("zalk-tmp", "/tmp", "tmpfs", 0, "mode=1777"))
		die("tmpfs on /tmp");
	mkdir("/tmp/.etc-upper", 0755);
	mkdir("/tmp/.etc-work", 0755);
	if (mount("zalk-etc", "/etc", "overlay", 0,
		  "lowerdir=/etc,upperdir=/tmp/.etc-upper,workdir=/tmp/.etc-work"))
		die("overlay on /etc");
	// sysfs must show this namespace's interfaces to iproute2
	umount2("/sys", MNT_DETACH);
	if (mount("sysfs", "/sys", "sysfs", 0, nullptr))
		die("sysfs");
	if (sh("ip link set lo up"))
		die("ip link set lo up");
}

int main(int argc, char **argv)
{
	enter_namespaces();
	testing::InitGoogleTest(&argc, argv);
	return RUN_ALL_TESTS();
}
