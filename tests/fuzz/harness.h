// What the fuzz targets share: the unit tests' fake OS boundary and
// fixture, set up afresh before every input (so each input is judged
// alone and a report reproduces from its file), and the event channel
// drained through the real dispatcher.
#pragma once
#include <cstdlib>

#include "tests/fakes/fixture.h"

namespace fuzz {

struct Harness : fx::Unit {
	void TestBody() override {}
	using fx::Unit::SetUp;
	using fx::Unit::quiesce;
	Harness() { SetUp(); }
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

// The start of the frame and link targets: a fresh ring 3 in slot 0, its
// role picked by bit 2 of the input's first byte. Setting a ring up writes
// its status tree, which costs most of an input's time; it is done once per
// role, and each input then starts from a copy of the table as it was right
// after that set-up (the ring logic never reads the files back).
inline Harness &ring_for(uint8_t pick)
{
	static Harness h;
	static zalkv2_instance made[2][ZALK_MAX_INSTANCES];
	static bool ready[2];
	const int r = (pick & 4) ? 1 : 0;
	if (!ready[r]) {
		h.SetUp();
		fx::make_ring(0, r ? RING_TYPE_FOCAL : RING_TYPE_MEMBER);
		memcpy(made[r], instances, sizeof(instances));
		ready[r] = true;
	}
	h.quiesce();
	fake::clear_records();
	memcpy(instances, made[r], sizeof(instances));
	memset(miss_count, 0, sizeof(miss_count));
	memset(hit_count, 0, sizeof(hit_count));
	memset(response_ticks, 0, sizeof(response_ticks));
	focal_timers_init();
	member_timer_init();
	zalkv2_hello_timers_init();
	zalkv2_build_frames(0);
	return h;
}

} // namespace fuzz
