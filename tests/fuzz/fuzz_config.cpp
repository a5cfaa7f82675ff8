// Any bytes as /etc/zalkv2d.conf: read, applied to the instance table
// (rings set up on the fake bridge br0 and interfaces eth1 to eth4), their
// first events handled, then torn down again by an empty file, as two
// SIGHUPs would.
#include <algorithm>

#include "daemon/config.h"
#include "daemon/configure.h"
#include "tests/fuzz/harness.h"

namespace {
void quiet(cfg_t *, const char *, va_list) {}
bool libconfuse_parses(const std::string &text)
{
	cfg_t *cfg = zalkv2_config_schema();
	cfg_set_error_function(cfg, quiet);
	const bool ok = cfg_parse_buf(cfg, text.c_str()) == CFG_SUCCESS;
	cfg_free(cfg);
	return ok;
}

// The loader refuses exactly the files libconfuse reads that end inside a
// section: those where libconfuse also takes one more closing brace, after
// closing a comment the text ends in (sections nest two deep at most, so
// three braces vanish only inside a comment or string). A text that ends
// inside a string is left out: libconfuse drops the string, and closing it
// would make it a word libconfuse refuses.
void hold_against_libconfuse(const std::string &text)
{
	if (text.size() > ZALK_CONFIG_MAX_SIZE || text.find('\0') != std::string::npos)
		return;
	// A "${" with no "}" after it is plain text, but a closing brace
	// appended below ends it as a ${...} spanning everything between:
	// the closers no longer ask about the same text.
	const size_t ref = text.rfind("${");
	if (ref != std::string::npos && text.find('}', ref) == std::string::npos)
		return;
	fake::write_file("/etc/zalkv2d.conf", text);
	// Freed before the next parse: libconfuse's scanner keeps where the
	// last text ended (inside a string) until its handle is freed.
	cfg_t *cfg = zalkv2_load_config((fake::root() + "/etc/zalkv2d.conf").c_str(), false);
	const bool accepted = cfg != nullptr;
	if (cfg)
		cfg_free(cfg);
	if (!libconfuse_parses(text)) {
		if (accepted)
			fprintf(stderr, "loader accepts a file libconfuse refuses\n"), abort();
		return;
	}
	for (const char *closer : {"", "*/"}) {
		if (libconfuse_parses(text + closer + "\n}}}"))
			continue;
		if (accepted == libconfuse_parses(text + closer + "\n}"))
			fprintf(stderr, "loader %s a file libconfuse reads\n", accepted ? "accepts" : "refuses"), abort();
		return;
	}
}

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
	hold_against_libconfuse(std::string((const char *)data, size));
	configure(std::string((const char *)data, size), h);
	if (std::any_of(std::begin(instances), std::end(instances), [](const zalkv2_instance &in) { return in.enabled; }))
		configure("", h);
	fake::clear_records();
	return 0;
}
