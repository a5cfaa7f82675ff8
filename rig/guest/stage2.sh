#!/bin/sh
# Second stage in the guest's real root: runs the job's script and leaves
# its exit status in the job directory, then stops the machine at once.
. /rig-job/env
RIG_JOB=/rig-job
ZALKV2D=$RIG_BUILD/zalkv2d
ZALKV2D_LAB=$RIG_BUILD/zalkv2d-lab
RIGCTL=$RIG_BUILD/rig/rigctl
ZALKCTL=$RIG_BUILD/zalkctl/zalkctl
RIG_PACKAGE=0
PATH=$RIG_SRC/rig/guest/bin:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
HOME=/root
export RIG_SRC RIG_BUILD RIG_JOB ZALKV2D ZALKV2D_LAB RIGCTL ZALKCTL RIG_PACKAGE PATH HOME
[ -n "${RIG_SYSTEMD:-}" ] || mount -t devpts devpts /dev/pts 2>/dev/null
# The kernel asks this helper whether user space runs STP on a bridge of
# the initial namespace; saying yes is what lets the daemon's port states
# stick (see mkbridge in checks/lib.sh).
printf '#!/bin/sh\nexit 0\n' > /usr/sbin/bridge-stp && chmod 755 /usr/sbin/bridge-stp
ip link set lo up
if [ -f $RIG_JOB/package.deb ]; then
	# The host's package database below a writable layer, so that dpkg
	# finds the libraries and tools the package depends on installed. A
	# systemd guest has a root and a package database of its own.
	if [ -z "${RIG_SYSTEMD:-}" ]; then
		mkdir -p /var/lib/dpkg /var/log /var/cache /.rig/dpkg-lower /.rig/dpkg-rw
		mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144,ro dpkg /.rig/dpkg-lower
		mount -t tmpfs dpkgrw /.rig/dpkg-rw
		mkdir /.rig/dpkg-rw/upper /.rig/dpkg-rw/work
		mount -t overlay -o lowerdir=/.rig/dpkg-lower,upperdir=/.rig/dpkg-rw/upper,workdir=/.rig/dpkg-rw/work \
			dpkg /var/lib/dpkg
	fi
	# Never a question on the console: a configuration file the host's /etc
	# happens to hold would otherwise stop the guest at dpkg's prompt.
	if dpkg --force-confnew -i $RIG_JOB/package.deb > $RIG_JOB/dpkg.log 2>&1 </dev/null; then
		echo "rig: installed $(dpkg-query -W -f='${Package} ${Version}' zalkv2d) with dpkg -i"
		ZALKV2D=/usr/sbin/zalkv2d
		ZALKCTL=/usr/sbin/zalkctl
		RIG_PACKAGE=1
	else
		echo "rig: dpkg -i of the package failed:"
		cat $RIG_JOB/dpkg.log
		echo 1 > $RIG_JOB/status
		echo b > /proc/sysrq-trigger
		exit 1
	fi
fi
read up _ < /proc/uptime
echo "$up" | awk '{printf "%d\n", $1 * 1000}' > $RIG_JOB/boot-ms
cd "$RIG_SRC"
sh $RIG_JOB/script.sh
echo $? > $RIG_JOB/status
# A reset: qemu runs with -no-reboot, so it ends.
echo b > /proc/sysrq-trigger
