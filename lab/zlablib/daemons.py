"""The daemons: which binary the lab runs, and each switch's zalkv2d
started, signalled, reloaded, stopped, and its output read."""
import os
import signal
import subprocess
import time

from .common import LabError, sh
from .namespaces import kernel_holds_blocking
from .topology import conf_text


def lab_daemon(daemon):
	"""The binary the lab runs: the given one, or on a kernel that cannot
	hold a port blocked in a namespace the lab build next to it."""
	if kernel_holds_blocking():
		return daemon, False
	lab_bin = os.path.join(os.path.dirname(os.path.abspath(daemon)), 'zalkv2d-lab')
	if not os.access(lab_bin, os.X_OK):
		raise LabError('this kernel cannot hold a bridge port blocked in a network namespace and there is '
			       'no %s: build the target zalkv2d-lab' % lab_bin)
	return lab_bin, True


class Daemons:
	"""A mixin of Lab."""

	def start(self, s, debug=None):
		if not self.daemon:
			raise LabError('no daemon binary given')
		if debug is not None:
			self.write_file(s, '/run/zalkv2/debug', str(debug))
		log = open(os.path.join(self.swdir(s), 'daemon.log'), 'ab')
		# The binary is handed over as an open file: in the switch's own
		# mount namespace /tmp, /run and /etc are other directories, and a
		# build tree below one of them would not be found by its path.
		exe = os.open(os.path.abspath(self.daemon), os.O_RDONLY | os.O_CLOEXEC)
		p = subprocess.Popen(['nsenter', '--net=/run/netns/' + self.ns(s),
				      '--mount=' + os.path.join(self.state, 'mnt', s),
				      '/proc/self/fd/%d' % exe],
				     stdin=subprocess.DEVNULL, stdout=log, stderr=log, start_new_session=True,
				     pass_fds=(exe,))
		os.close(exe)
		log.close()
		self.pids[s] = p.pid
		self.save()
		return p.pid

	def alive(self, s):
		pid = self.pids.get(s)
		if not pid:
			return False
		try:
			with open('/proc/%d/stat' % pid) as f:
				return f.read().split()[2] != 'Z'
		except OSError:
			return False

	def kill(self, s, sig):
		os.kill(self.pids[s], sig)

	def stop(self, s, sig=signal.SIGTERM, timeout=30.0):
		"""Ends one daemon; returns its exit status (None if it had to be
		killed or was not ours to wait for)."""
		pid = self.pids.get(s)
		if not pid:
			return None
		try:
			os.kill(pid, sig)
		except ProcessLookupError:
			self.pids.pop(s, None)
			return None
		end = time.monotonic() + timeout
		status = None
		while time.monotonic() < end:
			try:
				r, st = os.waitpid(pid, os.WNOHANG)
			except ChildProcessError:
				if not self.alive(s):
					break
				r = 0
			if r == pid:
				status = os.waitstatus_to_exitcode(st)
				break
			time.sleep(0.01)
		else:
			os.kill(pid, signal.SIGKILL)
			try:
				os.waitpid(pid, 0)
			except ChildProcessError:
				pass
		self.pids.pop(s, None)
		self.save()
		return status

	def reload(self, s, sw=None):
		"""Writes a (changed) configuration and sends SIGHUP."""
		if sw is not None:
			self.topo['switches'][s] = sw
			self.save()
		self.write_file(s, '/etc/zalkv2d.conf', conf_text(self.topo['switches'][s]))
		self.kill(s, signal.SIGHUP)

	def write_file(self, s, path, text):
		"""Writes a file as the switch sees it (inside its mount namespace)."""
		sh(['nsenter', '--mount=' + os.path.join(self.state, 'mnt', s), 'sh', '-c',
		    'mkdir -p "$(dirname "$1")" && cat > "$1"', 'sh', path], input=text)

	def daemon_log(self, s):
		try:
			with open(os.path.join(self.swdir(s), 'daemon.log'), errors='replace') as f:
				return f.read()
		except OSError:
			return ''

	def report(self, s, timeout=2.0):
		"""SIGUSR1; returns the report text the daemon wrote to stderr."""
		before = len(self.daemon_log(s))
		self.kill(s, signal.SIGUSR1)
		end = time.monotonic() + timeout
		while time.monotonic() < end:
			t = self.daemon_log(s)[before:]
			if ' Debug level:' in t and t.endswith('\n'):
				return t
			time.sleep(0.02)
		return self.daemon_log(s)[before:]

	def loop_delay(self, s, hup=True, timeout=10.0):
		"""Milliseconds from a signal to the SIGUSR1 report in the daemon's
		output. With hup, an unchanged SIGHUP goes first and the SIGUSR1
		2 ms after it, so the report waits for the reload to finish: the
		figure is how long the reload blocks the daemon's loop, plus the
		report itself (measure that with hup=False)."""
		before = len(self.daemon_log(s))
		t = time.monotonic()
		if hup:
			self.kill(s, signal.SIGHUP)
			time.sleep(0.002)
		self.kill(s, signal.SIGUSR1)
		while time.monotonic() - t < timeout:
			if ' Debug level:' in self.daemon_log(s)[before:]:
				return (time.monotonic() - t) * 1e3
			time.sleep(0.0005)
		return None
