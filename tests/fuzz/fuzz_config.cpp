// Any bytes as /etc/zalkv2d.conf: read, applied to the instance table
// (rings set up on the fake bridge br0 and interfaces eth1 to eth4), their
// first events handled, then torn down again by an empty file, as two
// SIGHUPs would.
#include <algorithm>

#include "daemon/config.h"
#include "daemon/configure.h"
#include "tests/fuzz/harness.h"

namespace {
void configure(const std::string &text, fuzz::Harness &h)
{
	fake::write_file("/etc/zalkv2d.conf", text);
	if (cfg_t *cfg = zalkv2_read_config()) { // the daemon exits on an unusable file
		cfg_free(cfg);
		zalkv2_configure_instances(EV_DEFAULT);
		h.dispatch_checked();
	}
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static fuzz::Harness h;
	[[maybe_unused]] static bool ready = [] {
		for (uint8_t i = 0; i <= 4; i++) { // br0 (index 2), eth1 to eth4 (11 to 14)
			const uint8_t mac[6] = {2, 0, 0, 0, 1, i};
			fake::add_iface(i ? "eth" + std::to_string(i) : "br0", i ? 10 + i : 2, mac);
		}
		return true;
	}();
	configure(std::string((const char *)data, size), h);
	if (std::any_of(std::begin(instances), std::end(instances), [](const zalkv2_instance &in) { return in.enabled; }))
		configure("", h);
	fake::clear_records();
	return 0;
}
