// Ring values the daemon refuses, each with its one error line, while the
// other rings of the same file are still set up. (Files it will not open
// at all: tests/tool, on the real daemon.)
#include "daemon/configure.h"
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

class Refused : public Unit {
protected:
	void SetUp() override
	{
		Unit::SetUp();
		const uint8_t mac[6] = {2, 0, 0, 0, 0, 9};
		fake::add_iface("br0", 2, mac);
		fake::add_iface("eth1", 11, mac);
		zalkv2_init_sockets();
		zalkv2_prepare_bridge();
	}
};

TEST_F(Refused, ValuesTheDaemonCannotRunWithFailTheirRingWithOneLine)
{
	const std::pair<std::string, std::string> rows[] = {
		{"ring-id = -1", "Ring -1: ring-id = -1 refused: every ring needs a ring-id (0 to 255)"},
		{"ring-id = 256", "Ring 256: ring-id = 256 refused: frames carry ring ids 0 to 255 only"},
		{"ring-id = 1000000000", "Ring 1000000000: ring-id = 1000000000 refused: frames carry ring ids 0 to 255 only"},
		{"ring-role = focal ring-interval = 0", "Ring 5: ring-interval = 0 refused: a period must be above 0 ms"},
		{"ring-role = focal response-delay = -1", "Ring 5: response-delay = -1 refused: must be 0 to 107374182399 ms"},
		{"ring-role = focal response-delay = 107374182400", "Ring 5: response-delay = 107374182400 refused: must be 0 to 107374182399 ms"},
		{"port a { hello-time = -1 }", "Ring 5: port a: hello-time = -1 refused: a period must be above 0 ms"},
		{"port a { hello-time = 0 }", "Ring 5: port a: hello-time = 0 refused: a period must be above 0 ms"},
		{"port a { hello-time = 2147483001 }", "Ring 5: port a: hello-time = 2147483001 refused: a period may be at most 2147483000 ms"},
		{"port a { forward-delay = -2 }", "Ring 5: port a: forward-delay = -2 refused: must be 0 (none) to 429496729 s"},
		// Cut to 32 bits it would be the running ring 7, unchanged.
		{"ring-id = 4294967303 port a { name = eth1 }", "Ring 4294967303: ring-id = 4294967303 refused: frames carry ring ids 0 to 255 only"},
		{"port a { name = \"../../../../tmp/escaped\" }", "Ring 5: port a: name = \"../../../../tmp/escaped\" refused: not a Linux interface name"},
		{"port a { name = eth1 } port b { name = \"eth1 dev lo\" }", "Ring 5: port b: name = \"eth1 dev lo\" refused: not a Linux interface name"},
		{"port a { name = \".\" }", "Ring 5: port a: name = \".\" refused: not a Linux interface name"},
		{"port a { name = \"\" }", "Ring 5: port a: name = \"\" refused: not a Linux interface name"},
		{"port a { name = eth1234567890123 }", "Ring 5: port a: name = \"eth1234567890123\" refused: not a Linux interface name"},
		{"port a { name = missing }", "Ring 5: port a: name = \"missing\" refused: the name of one of the ring's status files"},
		{"ring-id = 6", "Ring 6: ring-role = (none) refused: every ring needs a role, focal or member"},
	};
	for (auto &[values, line] : rows) {
		clear();
		// Defaults first: a row's own values come later and win.
		std::string head = values.find("ring-role") == std::string::npos && values.find("ring-id = 6") ? "ring-role = member " : "";
		fake::write_file("/etc/zalkv2d.conf", "zalk bad { ring-id = 5 " + head + values + " }\nzalk good { ring-id = 7 ring-role = member port a { name = eth1 } }\n");
		zalkv2_configure_instances(loop);
		EXPECT_EQ(errors(), (Lines{line + "\n", "Setup of ZALKv2 instance failed\n\n"})) << values;
		EXPECT_EQ(zalkv2_find_instance(5), -1) << values;
		EXPECT_NE(zalkv2_find_instance(7), -1) << values;
		EXPECT_FALSE(fake::file_exists("/tmp/escaped")) << values;
	}
	// Values a ring never reads stop nothing: hello-time without hello, forward-delay on a focal point or port B.
	clear();
	const uint8_t mac[6] = {2, 0, 0, 0, 0, 8};
	for (int i : {2, 3})
		fake::add_iface("eth" + std::to_string(i), 10 + i, mac);
	fake::write_file("/etc/zalkv2d.conf", "zalk f { ring-id = 5 ring-role = focal port a { name = eth1 hello-enable = 0 hello-time = 0 forward-delay = -1 } }\n"
					      "zalk m { ring-id = 8 ring-role = member port a { name = eth2 } port b { name = eth3 forward-delay = -1 } }\n");
	zalkv2_configure_instances(loop);
	EXPECT_EQ(errors(), Lines{});
	EXPECT_NE(zalkv2_find_instance(5), -1);
	EXPECT_NE(zalkv2_find_instance(8), -1);
}

} // namespace
