// Cost of the receive path per frame: from a received buffer to a posted
// event (or a counted Ring frame) through the fake OS boundary.
#include <benchmark/benchmark.h>

#include "tests/fakes/fixture.h"

namespace {

struct Ring : fx::Unit {
	void TestBody() override {}
	Ring() { SetUp(), fx::make_ring(0, RING_TYPE_MEMBER); }
};

// A frame cut to `len` bytes takes the zero-fill path.
void run(benchmark::State &state, uint8_t type, uint8_t plen, size_t len = 60)
{
	Ring ring;
	fx::Bytes f = fx::rx_frame(3, type, plen);
	f.resize(len);
	const int vlan = fx::rx_vlan(f);
	int n = 0;
	for (auto _ : state) {
		zalkv2_handle_frame(11, vlan, f.data(), f.size());
		if (++n == 1000) { // the pipe holds about 1600 records
			state.PauseTiming();
			fx::posted();
			n = 0;
			state.ResumeTiming();
		}
	}
	fx::posted();
	state.SetItemsProcessed(state.iterations());
}

BENCHMARK_CAPTURE(run, ReceiveLinkDown, 2, 26);
BENCHMARK_CAPTURE(run, ReceiveRing, 6, 12);
BENCHMARK_CAPTURE(run, ReceiveLinkDownShort, 2, 26, 40);

} // namespace

BENCHMARK_MAIN();
