// libFuzzer target over the receive path: any bytes on a ring port, of
// any length, must be parsed without reading outside them and may only
// post well-formed events. Not part of the default build:
//   CXX=clang++ cmake -S . -B build-fuzz -DZALK_FUZZ=ON \
//     -DCMAKE_CXX_FLAGS=-fsanitize=address,undefined && cmake --build build-fuzz --target fuzz_receive
//   build-fuzz/tests/fuzz_receive tests/fuzz/seeds_receive
// Seeds: tests/fuzz/seeds_receive/.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "tests/fakes/fake.h"

namespace {
void setup()
{
	fake::reset();
	memset(instances, 0, sizeof(instances));
	zalkv2_instance &in = instances[0];
	in.enabled = 1;
	in.ring_id = 3;
	in.role = RING_TYPE_MEMBER;
	memcpy(in.base_mac, "\x02\x11\x22\x33\x44\x55", 6);
	for (int p = 0; p < 2; p++) {
		in.port[p].instance = &in;
		in.port[p].ifindex = 11 + p;
		in.port[p].port_index = (uint32_t)p;
		in.port[p].operstate = ZALK_OPER_UP;
		in.port[p].hello_enable = 1;
		in.port[p].hello_time_ms = 500;
		in.port[p].mac[5] = (uint8_t)(1 + p);
	}
	zalkv2_build_frames(0);
	msg_pipe_create();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static bool ready = (setup(), true);
	(void)ready;
	if (size < 1)
		return 0;
	// First byte picks the port (and a bus edge now and then).
	instances[0].port[PORT_B].ifindex = (data[0] & 2) ? -1 : 12;
	zalkv2_handle_frame((data[0] & 1) ? 12 : 11, data + 1, size - 1);

	int avail = 0;
	ioctl(msg_pipe_create(), FIONREAD, &avail);
	sm_event ev;
	for (int i = 0; i < avail / (int)sizeof(ev); i++) {
		if (sm_read_event(&ev) != (int)sizeof(ev) || ev.instance != 0 || ev.event > SM_EVENT_MAX)
			abort();
	}
	fake::clear_records();
	return 0;
}
