// The event channel: a non-blocking pipe inside the process. Producers
// write whole 40-byte records; the dispatcher's read watcher (ring/
// dispatch.cpp) takes them off one per callback, in posting order.
#include "ring/channel.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "daemon/instance.h"
#include "status/names.h"
#include "status/status.h"

static_assert(zalk_names::events.size() == SM_EVENT_MAX + 1, "a name for every event code");

namespace {
bool msg_pipe_created;
// Read end, write end. -1 until the pipe exists, so that a failed
// creation can never leave a descriptor number (0 = stdin) that a later
// write would hit.
int msg_pipe_fd[2] = {-1, -1};
} // namespace

int msg_pipe_create()
{
	if (msg_pipe_created)
		return msg_pipe_fd[0];
	int fds[2];
	// Close-on-exec as well: the bridge and tc commands we run have no
	// business holding the channel open.
	if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) == -1) {
		zlog(LOG_ERR, "\nFailed to create messge pipe.\n\n");
		return -1;
	}
	msg_pipe_fd[0] = fds[0];
	msg_pipe_fd[1] = fds[1];
	msg_pipe_created = true;
	return msg_pipe_fd[0];
}

int sm_send_event(uint32_t instance, uint32_t event, const void *data, size_t length)
{
	sm_event ev;
	memset(&ev, 0, sizeof(ev));

	if (instance > ZALK_MAX_INSTANCES - 1) {
		zlog(LOG_ERR, "Instance %d invalid\n", (int)instance);
		return -1;
	}
	ev.instance = instance;
	ev.event = event;

	if (data && length) {
		if (length >= sizeof(ev.data))
			zlog(LOG_ERR, "Data field to small\n\n");
		else
			memcpy(ev.data, data, length);
	}

	// Without a pipe the post fails like a failed write: no descriptor
	// is written to at all.
	ssize_t n = -1;
	if (msg_pipe_created)
		n = write(msg_pipe_fd[1], &ev, sizeof(ev));
	else
		errno = EBADF;
	if (n == -1)
		zlog(LOG_ERR, "\nFailed to send event to state machine, ins:%d %s\n\n", (int)instance,
		     zalk_event_name(event));
	return (int)n;
}

int sm_read_event(sm_event *ev)
{
	// A record is written with one write of 40 bytes, far below the
	// pipe's atomic size, so anything but 40 bytes means the channel is
	// broken or empty; a short count is treated as a failed read so the
	// dispatcher never works on a partial record.
	ssize_t n = -1;
	if (msg_pipe_created)
		n = read(msg_pipe_fd[0], ev, sizeof(*ev));
	if (n != (ssize_t)sizeof(*ev)) {
		zlog(LOG_ERR, "\nFailed redaing from pipe.\n\n");
		return -1;
	}
	return (int)n;
}
