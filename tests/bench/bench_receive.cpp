// Cost of the receive path per frame: from a received buffer to a posted
// event (or a counted Ring frame), with the fake OS boundary and no debug
// file, so each frame pays the three debug-level reads the gated lines
// require and, for events, one write into the channel.
#include <benchmark/benchmark.h>

#include <cstring>
#include <sys/ioctl.h>
#include <vector>

#include "daemon/instance.h"
#include "frames/frames.h"
#include "frames/sockets.h"
#include "ring/channel.h"
#include "tests/fakes/fake.h"

namespace {

std::vector<uint8_t> rx_frame(uint8_t ring, uint8_t type, uint8_t plen)
{
	std::vector<uint8_t> f(60, 0);
	const uint8_t head[] = {0x03, 0x4B, 0xA1, 0x01, ring, 0x02, 0x0E, 0, 0, 0, 0, 0x77, 0, (uint8_t)(10 + plen),
				0xAA, 0xAA, 0x03, 0x02, 0x4B, 0xA1, 0x01, 0x00, 0x20, ring, type, plen};
	memcpy(f.data(), head, sizeof(head));
	return f;
}

void setup()
{
	fake::reset();
	memset(instances, 0, sizeof(instances));
	zalkv2_instance &in = instances[0];
	in.enabled = 1;
	in.ring_id = 3;
	in.role = RING_TYPE_MEMBER;
	for (int p = 0; p < 2; p++) {
		in.port[p].instance = &in;
		in.port[p].ifindex = 11 + p;
		in.port[p].port_index = (uint32_t)p;
		in.port[p].mac[5] = (uint8_t)(1 + p);
	}
	zalkv2_build_frames(0);
	msg_pipe_create();
}

void drain()
{
	int avail = 0;
	ioctl(msg_pipe_create(), FIONREAD, &avail);
	sm_event ev;
	for (int i = 0; i < avail / (int)sizeof(ev); i++)
		sm_read_event(&ev);
}

// A frame cut to `len` bytes takes the zero-fill path.
void run(benchmark::State &state, uint8_t type, uint8_t plen, size_t len = 60)
{
	setup();
	auto f = rx_frame(3, type, plen);
	f.resize(len);
	int n = 0;
	for (auto _ : state) {
		zalkv2_handle_frame(11, f.data(), f.size());
		if (++n == 1000) { // the pipe holds about 1600 records
			state.PauseTiming();
			drain();
			n = 0;
			state.ResumeTiming();
		}
	}
	drain();
	state.SetItemsProcessed(state.iterations());
}

void BM_ReceiveLinkDown(benchmark::State &state) { run(state, 2, 26); }
void BM_ReceiveRing(benchmark::State &state) { run(state, 6, 12); }
void BM_ReceiveLinkDownShort(benchmark::State &state) { run(state, 2, 26, 40); }

BENCHMARK(BM_ReceiveLinkDown);
BENCHMARK(BM_ReceiveRing);
BENCHMARK(BM_ReceiveLinkDownShort);

} // namespace

BENCHMARK_MAIN();
