#!/usr/bin/python3
"""Frame capture for the ring lab, with the 802.1Q tag kept.

A packet socket receives frames with their VLAN tag removed (the kernel
keeps it in the packet's auxiliary data); a capture of the ring protocol
should show the frames as they travel, tag included, so the tag is put
back into each frame from that auxiliary data.

As a script (run inside a switch's network namespace):
    capture.py IFNAME SECONDS OUT
writes the frames seen on IFNAME for SECONDS into OUT as records
(timestamp, direction, length, frame). `write_pcapng` turns the records of
several interfaces into one pcapng file, one interface per capture point.
"""
import errno
import signal
import socket
import struct
import sys
import time

ETH_P_ALL = 0x0003
SOL_PACKET = 263
PACKET_AUXDATA = 8
PACKET_OUTGOING = 4
TP_STATUS_VLAN_VALID = 0x10
TP_STATUS_VLAN_TPID_VALID = 0x40
# struct tpacket_auxdata: status, len, snaplen, mac, net, vlan_tci, vlan_tpid
AUXDATA = struct.Struct('=IIIHHHH')
RECORD = struct.Struct('<dBI')
# kernel receive timestamps: the order of frames on the two ends of a link
# must not depend on when each capture process was scheduled
SO_TIMESTAMPNS = 35
TIMESPEC = struct.Struct('=qq')
SNAPLEN = 65535


def stamp(ancdata):
	for level, kind, data in ancdata:
		if level == socket.SOL_SOCKET and kind == SO_TIMESTAMPNS and len(data) >= TIMESPEC.size:
			sec, ns = TIMESPEC.unpack_from(data)
			return sec + ns * 1e-9
	return time.time()


def with_tag(frame, ancdata):
	"""The frame with the tag the kernel took off put back after the
	source address."""
	for level, kind, data in ancdata:
		if level != SOL_PACKET or kind != PACKET_AUXDATA or len(data) < AUXDATA.size:
			continue
		status, _, _, _, _, tci, tpid = AUXDATA.unpack_from(data)
		if status & TP_STATUS_VLAN_VALID:
			if not status & TP_STATUS_VLAN_TPID_VALID:
				tpid = 0x8100
			return frame[:12] + struct.pack('>HH', tpid, tci) + frame[12:]
	return frame


def sniff(ifname, seconds, out):
	"""Until the time is up or SIGINT/SIGTERM asks to stop."""
	stop = []
	for sig in (signal.SIGINT, signal.SIGTERM):
		signal.signal(sig, lambda *_: stop.append(1))
	s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
	s.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
	s.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
	s.bind((ifname, ETH_P_ALL))
	end = time.monotonic() + seconds
	anc = socket.CMSG_SPACE(AUXDATA.size) + socket.CMSG_SPACE(TIMESPEC.size)
	with open(out, 'wb') as f:
		# a line on stdout tells the caller the socket is bound
		print('ready', flush=True)
		while True:
			left = end - time.monotonic()
			if left <= 0 or stop:
				break
			s.settimeout(min(left, 0.1))
			try:
				frame, ancdata, _, addr = s.recvmsg(SNAPLEN, anc)
			except socket.timeout:
				continue
			except OSError as e:
				# the link was cut under the capture; it goes on
				# once the link is back
				if e.errno == errno.ENETDOWN:
					continue
				raise
			frame = with_tag(frame, ancdata)
			f.write(RECORD.pack(stamp(ancdata), 2 if addr[2] == PACKET_OUTGOING else 1, len(frame)) + frame)
	s.close()


def read_records(path):
	"""(timestamp, direction, frame) of a capture.py output file."""
	with open(path, 'rb') as f:
		data = f.read()
	out, pos = [], 0
	while pos + RECORD.size <= len(data):
		ts, direction, n = RECORD.unpack_from(data, pos)
		pos += RECORD.size
		out.append((ts, direction, data[pos:pos + n]))
		pos += n
	return out


def _block(kind, body):
	body += b'\0' * (-len(body) % 4)
	n = 12 + len(body)
	return struct.pack('<II', kind, n) + body + struct.pack('<I', n)


def _option(code, value):
	return struct.pack('<HH', code, len(value)) + value + b'\0' * (-len(value) % 4)


def write_pcapng(path, interfaces, packets):
	"""interfaces: names of the capture points; packets: (timestamp,
	interface number, direction 1 in / 2 out / 0 unknown, frame), written
	in time order. Ethernet link type, microsecond timestamps."""
	out = [_block(0x0A0D0D0A, struct.pack('<IHHq', 0x1A2B3C4D, 1, 0, -1))]
	for name in interfaces:
		out.append(_block(1, struct.pack('<HHI', 1, 0, SNAPLEN) +
				  _option(2, name.encode()) + _option(0, b'')))
	for ts, ifc, direction, frame in sorted(packets, key=lambda p: p[0]):
		us = int(round(ts * 1e6))
		body = struct.pack('<IIIII', ifc, us >> 32, us & 0xffffffff, len(frame), len(frame)) + frame
		body += b'\0' * (-len(body) % 4)
		if direction:
			body += _option(2, struct.pack('<I', direction)) + _option(0, b'')
		out.append(_block(6, body))
	with open(path, 'wb') as f:
		f.write(b''.join(out))


if __name__ == '__main__':
	if len(sys.argv) != 4:
		sys.exit('usage: capture.py IFNAME SECONDS OUT')
	sniff(sys.argv[1], float(sys.argv[2]), sys.argv[3])
