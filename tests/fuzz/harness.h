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

} // namespace fuzz
