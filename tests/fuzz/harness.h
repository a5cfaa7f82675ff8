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
// role picked by bit 2 of the input's first byte.
inline Harness &ring_for(uint8_t pick)
{
	static Harness h;
	h.SetUp();
	fx::make_ring(0, (pick & 4) ? RING_TYPE_FOCAL : RING_TYPE_MEMBER);
	return h;
}

} // namespace fuzz
