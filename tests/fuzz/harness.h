// What the fuzz targets share: the unit tests' fake OS boundary and
// fixture, and the event channel drained through the real dispatcher.
#pragma once
#include <cstdlib>

#include "tests/fakes/fixture.h"

namespace fuzz {

struct Harness : fx::Unit {
	void TestBody() override {}
	using fx::Unit::SetUp;
	using fx::Unit::quiesce;
	using fx::Unit::reset_ring_logic;
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

// The start of the frame and link targets: ring 3 in slot 0 as set up, its
// role picked by bit 2 of the input's first byte. Each input starts from a
// copy of the table taken once per role right after the set-up, whose
// status tree writes would otherwise be most of an input's time (the ring
// logic never reads the files back), so a report reproduces from its file.
inline Harness &ring_for(uint8_t pick)
{
	static Harness h;
	static zalkv2_instance made[2][ZALK_MAX_INSTANCES];
	const int r = (pick >> 2) & 1;
	if (!made[r][0].enabled) {
		h.SetUp();
		fx::make_ring(0, r ? RING_TYPE_FOCAL : RING_TYPE_MEMBER);
		memcpy(made[r], instances, sizeof(instances));
	}
	h.quiesce();
	fake::clear_records();
	memcpy(instances, made[r], sizeof(instances));
	h.reset_ring_logic();
	zalkv2_build_frames(0);
	return h;
}

} // namespace fuzz
