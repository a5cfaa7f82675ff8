// What the fuzz targets share: the unit tests' fake OS boundary and
// fixture, a saved instance table put back before every input (so each
// input is judged alone and a report reproduces from its file), and the
// event channel drained through the real dispatcher.
#pragma once
#include <cstdlib>

#include "tests/fakes/fixture.h"

namespace fuzz {

struct Harness : fx::Unit {
	void TestBody() override {}
	zalkv2_instance saved[ZALK_MAX_INSTANCES];

	Harness() { SetUp(); }
	void save() { memcpy(saved, instances, sizeof(saved)); }
	void restore()
	{
		quiesce();
		memcpy(instances, saved, sizeof(saved));
		memset(miss_count, 0, sizeof(miss_count));
		memset(hit_count, 0, sizeof(hit_count));
		memset(response_ticks, 0, sizeof(response_ticks));
		fake::clear_records();
	}
	// Runs the dispatcher over everything posted. A record it refuses as
	// malformed (instance out of range or not enabled, unknown event) can
	// only come from a producer's fault: abort so the fuzzer reports it.
	void dispatch_checked()
	{
		dispatch();
		for (const auto &l : fake::logs)
			if (l.text.find("Invalid event ") == 0 || l.text.find("ZALK instance ") == 0 ||
			    (l.text.find("Instance ") == 0 && l.text.find(" is to large, max is ") != std::string::npos))
				fprintf(stderr, "refused record: %s", l.text.c_str()), abort();
	}
};

// The start of the frame and link targets: ring 3 in slot 0 put back, its
// role picked by bit 2 of the input's first byte.
inline Harness &ring_for(uint8_t pick)
{
	static Harness h;
	static bool ready = (fx::make_ring(0, RING_TYPE_MEMBER), h.save(), true);
	(void)ready;
	h.restore();
	instances[0].role = (pick & 4) ? RING_TYPE_FOCAL : RING_TYPE_MEMBER;
	return h;
}

} // namespace fuzz
