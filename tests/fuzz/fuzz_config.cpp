// Any bytes as /etc/zalkv2d.conf: read, applied to the instance table
// (rings set up on the fake bridge br0 and interfaces eth1 to eth4), their
// first events handled, then torn down again by an empty file, as two
// SIGHUPs would.
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
	static bool ready = [] {
		const uint8_t br[6] = {2, 0, 0, 0, 1, 0};
		fake::add_iface("br0", 2, br);
		for (uint8_t i = 1; i <= 4; i++) {
			const uint8_t mac[6] = {2, 0, 0, 0, 1, i};
			fake::add_iface("eth" + std::to_string(i), 10 + i, mac);
		}
		return true;
	}();
	(void)ready;
	configure(std::string((const char *)data, size), h);
	for (const zalkv2_instance &in : instances)
		if (in.enabled) {
			configure("", h);
			break;
		}
	fake::clear_records();
	return 0;
}
