// The configuration file: schema defaults, the loader's messages, and the
// two readers the instance configuration relies on.
#include <random>

#include "daemon/config.h"
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

struct Loaded {
	cfg_t *cfg;
	std::string out, err;
};

Loaded load(const std::string &text)
{
	fake::write_file("/etc/zalkv2d.conf", text);
	testing::internal::CaptureStdout();
	testing::internal::CaptureStderr();
	cfg_t *cfg = zalkv2_read_config();
	std::string err = testing::internal::GetCapturedStderr();
	return {cfg, testing::internal::GetCapturedStdout(), err};
}

using Config = Unit;

TEST_F(Config, DefaultsOfEveryOptionInTheirFileUnitsAndPortIndexes)
{
	const uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
	fake::add_iface("eth1", 7, mac);
	auto r = load("zalk ring { port a { } }\nzalk two { port a { name = eth1 } port b { name = eth9 } port c { } }\n");
	ASSERT_NE(r.cfg, nullptr) << r.err;
	EXPECT_EQ(r.out, "");
	cfg_t *ring = cfg_getnsec(r.cfg, "zalk", 0), *port = cfg_getnsec(ring, "port", 0);
	EXPECT_EQ(cfg_getint(ring, "version"), 2);
	EXPECT_EQ(cfg_getint(ring, "ring-id"), -1);
	EXPECT_EQ(cfg_getstr(ring, "ring-role"), nullptr);
	EXPECT_EQ(zalkv2_cfg_ring_role(ring), -1); // a section without ring-role is neither role
	EXPECT_STREQ(cfg_getstr(ring, "bridge"), "br0");
	EXPECT_EQ(cfg_getint(ring, "guarded-recovery"), 1);
	EXPECT_EQ(cfg_getint(ring, "ring-interval"), 500);
	EXPECT_STREQ(cfg_getstr(ring, "blocked-port"), "auto");
	EXPECT_EQ(cfg_getint(ring, "response-delay"), 1500);
	EXPECT_STREQ(cfg_getstr(port, "name"), "eth(xx)");
	EXPECT_EQ(cfg_getint(port, "hello-enable"), 1);
	EXPECT_EQ(cfg_getint(port, "hello-time"), 500);
	EXPECT_EQ(cfg_getint(port, "forward-delay"), 0);
	// Port B absent: -1; a name that is no interface, or the default name: 0.
	EXPECT_EQ(zalkv2_cfg_port_ifindex(cfg_getnsec(ring, "port", 1)), -1);
	EXPECT_EQ(zalkv2_cfg_port_ifindex(port), 0);
	cfg_t *two = cfg_getnsec(r.cfg, "zalk", 1);
	EXPECT_EQ(zalkv2_cfg_port_ifindex(cfg_getnsec(two, "port", 0)), 7);
	EXPECT_EQ(zalkv2_cfg_port_ifindex(cfg_getnsec(two, "port", 1)), 0);
	cfg_free(r.cfg);
}

TEST_F(Config, MissingOrBrokenFilesGiveTheirMessageOnStandardOutput)
{
	const std::string path = fake::root() + "/etc/zalkv2d.conf";
	testing::internal::CaptureStdout();
	EXPECT_EQ(zalkv2_read_config(), nullptr);
	EXPECT_EQ(testing::internal::GetCapturedStdout(), "Cannot read configuration file " + path + ": No such file or directory\n");
	for (const char *text : {"zalk r { ring-id = 1\n unknown-option = 3 }\n", "zalk { ring-id = 1 }\n", "zalk r { port { name = eth1 } }\n",
				 "zalk r { ring-id = abc }\n", "zalk r { ring-id = = 1 }\n", "ring-id = 1\n", "Zalk r { ring-id = 1 }\n",
				 "zalk r { port a { } port b { } port c { bogus = 1 } }\n"}) {
		auto r = load(text);
		EXPECT_EQ(r.cfg, nullptr) << text;
		// One line on standard output; libconfuse's own diagnostic on standard error.
		EXPECT_EQ(r.out.rfind("Error when parsing configuration file " + path + ": ", 0), 0u) << r.out;
		EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << r.out;
		EXPECT_NE(r.err, "") << text;
	}
}

TEST_F(Config, RingRoleIsACaseSensitivePrefixTest)
{
	const std::pair<const char *, int> cases[] = {{"focal", 0}, {"focal-point", 0}, {"member", 1}, {"members", 1},
						      {"Focal", -1}, {"MEMBER", -1}, {"foca", -1},   {"", -1}};
	for (auto [value, role] : cases) {
		auto r = load(std::string("zalk r { ring-role = \"") + value + "\" }\n");
		ASSERT_NE(r.cfg, nullptr) << r.err;
		EXPECT_EQ(zalkv2_cfg_ring_role(cfg_getnsec(r.cfg, "zalk", 0)), role) << value;
		cfg_free(r.cfg);
	}
}

TEST_F(Config, ArbitraryBytesNeverCrashTheLoader)
{
	std::mt19937 rng(12345);
	const std::string valid = "zalk r { ring-id = 5\n ring-role = focal\n port a { name = eth1 } }\n";
	const char alphabet[] = "zalk port{}=\"#\n /*-0123456789 ring-id ring-role name\\'";
	int parsed = 0;
	for (int i = 0; i < 400; i++) {
		std::string text = i % 3 == 2 ? valid : "";
		for (size_t k = 0, n = rng() % 200; i % 3 == 0 && k < n; k++) // raw bytes, NUL included
			text += (char)(rng() & 0xff);
		for (size_t k = 0, n = rng() % 80; i % 3 == 1 && k < n; k++) // the syntax's words in random order
			text += alphabet[rng() % (sizeof(alphabet) - 1)];
		for (int k = 0; i % 3 == 2 && k < 3; k++) // a valid file with bytes changed, then cut
			text[rng() % text.size()] = (char)(rng() & 0xff);
		if (i % 3 == 2)
			text.resize(rng() % (text.size() + 1));
		auto r = load(text);
		if (!r.cfg) {
			EXPECT_EQ(r.out.rfind("Error when parsing configuration file ", 0), 0u) << r.out;
			continue;
		}
		parsed++;
		for (unsigned c = 0; c < cfg_size(r.cfg, "zalk"); c++) { // whatever was accepted reads through the schema
			zalkv2_cfg_ring_role(cfg_getnsec(r.cfg, "zalk", c));
			zalkv2_cfg_port_ifindex(cfg_getnsec(cfg_getnsec(r.cfg, "zalk", c), "port", 0));
		}
		cfg_free(r.cfg);
	}
	EXPECT_GT(parsed, 0);
}

} // namespace
