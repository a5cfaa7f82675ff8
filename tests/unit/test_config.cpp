// The configuration file: schema defaults, the loader's messages, and the
// two readers the instance configuration relies on.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "daemon/config.h"
#include "tests/fakes/fake.h"

namespace {

const uint8_t MAC1[6] = {0x02, 0, 0, 0, 0, 0x11};

std::string conf_path() { return fake::root() + "/etc/zalkv2d.conf"; }

struct Loaded {
	cfg_t *cfg;
	std::string out;
	std::string err;
};

Loaded load(const std::string &text)
{
	fake::write_file("/etc/zalkv2d.conf", text);
	testing::internal::CaptureStdout();
	testing::internal::CaptureStderr();
	cfg_t *cfg = zalkv2_read_config();
	std::string err = testing::internal::GetCapturedStderr();
	std::string out = testing::internal::GetCapturedStdout();
	return {cfg, out, err};
}

class Config : public testing::Test {
protected:
	void SetUp() override { fake::reset(); }
	void TearDown() override
	{
		if (cfg)
			cfg_free(cfg);
	}
	cfg_t *cfg = nullptr;
};

TEST_F(Config, DefaultsOfEveryOptionInTheirFileUnits)
{
	auto r = load("zalk ring { port a { } }\n");
	cfg = r.cfg;
	ASSERT_NE(cfg, nullptr) << r.err;
	EXPECT_EQ(r.out, "");
	ASSERT_EQ(cfg_size(cfg, "zalk"), 1u);
	cfg_t *ring = cfg_getnsec(cfg, "zalk", 0);
	EXPECT_EQ(cfg_getint(ring, "version"), 2);
	EXPECT_EQ(cfg_getint(ring, "ring-id"), -1);
	EXPECT_EQ(cfg_getstr(ring, "ring-role"), nullptr);
	EXPECT_STREQ(cfg_getstr(ring, "bridge"), "br0");
	EXPECT_EQ(cfg_getint(ring, "guarded-recovery"), 1);
	EXPECT_EQ(cfg_getint(ring, "ring-interval"), 500);
	EXPECT_STREQ(cfg_getstr(ring, "blocked-port"), "auto");
	EXPECT_EQ(cfg_getint(ring, "response-delay"), 1500);
	cfg_t *port = cfg_getnsec(ring, "port", 0);
	ASSERT_NE(port, nullptr);
	EXPECT_STREQ(cfg_getstr(port, "name"), "eth(xx)");
	EXPECT_EQ(cfg_getint(port, "hello-enable"), 1);
	EXPECT_EQ(cfg_getint(port, "hello-time"), 500);
	EXPECT_EQ(cfg_getint(port, "forward-delay"), 0);
}

TEST_F(Config, MissingFileIsReportedOnStandardOutput)
{
	testing::internal::CaptureStdout();
	cfg = zalkv2_read_config();
	std::string out = testing::internal::GetCapturedStdout();
	EXPECT_EQ(cfg, nullptr);
	EXPECT_EQ(out, "Cannot read configuration file " + conf_path() + ": No such file or directory\n");
}

TEST_F(Config, ParseErrorsGiveTheLibraryDiagnosticAndTheParsingMessage)
{
	const char *broken[] = {
		"zalk r { ring-id = 1\n unknown-option = 3 }\n",   // option outside the schema
		"zalk { ring-id = 1 }\n",                          // ring without title
		"zalk r { port { name = eth1 } }\n",               // port without title
		"zalk r { ring-id = abc }\n",                      // string for an integer
		"zalk r { ring-id = = 1 }\n",                      // syntax error
		"ring-id = 1\n",                                   // option at top level
		"zlak r { ring-id = 1 }\n",                        // unknown section
		"Zalk r { ring-id = 1 }\n",                        // names are case-sensitive
		"zalk r { port a { } port b { } port c { bogus = 1 } }\n", // later ports are checked too
	};
	const std::string prefix = "Error when parsing configuration file " + conf_path() + ": ";
	for (const char *text : broken) {
		SCOPED_TRACE(text);
		auto r = load(text);
		EXPECT_EQ(r.cfg, nullptr);
		if (r.cfg)
			cfg_free(r.cfg);
		ASSERT_EQ(r.out.compare(0, prefix.size(), prefix), 0) << r.out;
		EXPECT_EQ(r.out.back(), '\n');
		EXPECT_EQ(r.out.find('\n'), r.out.size() - 1) << "one line only";
		EXPECT_NE(r.err, "") << "libconfuse's own diagnostic goes to standard error";
	}
}

TEST_F(Config, RingRoleIsACaseSensitivePrefixTest)
{
	struct {
		const char *value;
		int role;
	} cases[] = {
		{"focal", 0},  {"focalpoint", 0}, {"focal-point", 0}, {"member", 1}, {"members", 1},
		{"Focal", -1}, {"MEMBER", -1},    {"foca", -1},       {"", -1},      {"point", -1},
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.value);
		auto r = load(std::string("zalk r { ring-role = \"") + c.value + "\" }\n");
		ASSERT_NE(r.cfg, nullptr) << r.err;
		EXPECT_EQ(zalkv2_cfg_ring_role(cfg_getnsec(r.cfg, "zalk", 0)), c.role);
		cfg_free(r.cfg);
	}
	// A section without ring-role reads as neither role.
	auto r = load("zalk r { ring-id = 3 }\n");
	cfg = r.cfg;
	ASSERT_NE(cfg, nullptr);
	EXPECT_EQ(zalkv2_cfg_ring_role(cfg_getnsec(cfg, "zalk", 0)), -1);
}

TEST_F(Config, PortInterfaceIndexes)
{
	fake::add_iface("eth1", 7, MAC1);
	auto r = load("zalk one { port a { name = eth1 } }\n"
		      "zalk two { port a { name = eth9 } port b { } port c { name = eth1 } }\n");
	cfg = r.cfg;
	ASSERT_NE(cfg, nullptr) << r.err;
	cfg_t *one = cfg_getnsec(cfg, "zalk", 0);
	cfg_t *two = cfg_getnsec(cfg, "zalk", 1);
	EXPECT_EQ(zalkv2_cfg_port_ifindex(cfg_getnsec(one, "port", 0)), 7);
	// One port section: port B is absent.
	EXPECT_EQ(cfg_getnsec(one, "port", 1), nullptr);
	EXPECT_EQ(zalkv2_cfg_port_ifindex(cfg_getnsec(one, "port", 1)), -1);
	// A name that is no interface, and the default name, give 0, not -1.
	EXPECT_EQ(zalkv2_cfg_port_ifindex(cfg_getnsec(two, "port", 0)), 0);
	EXPECT_EQ(zalkv2_cfg_port_ifindex(cfg_getnsec(two, "port", 1)), 0);
	// A third port section is parsed and kept apart from ports A and B.
	EXPECT_EQ(cfg_size(two, "port"), 3u);
}

TEST_F(Config, ArbitraryBytesNeverCrashTheLoader)
{
	std::mt19937 rng(12345);
	const std::string valid = "zalk r { ring-id = 5\n ring-role = focal\n port a { name = eth1 } }\n";
	const char alphabet[] = "zalk port{}=\"#\n /*-0123456789 ring-id ring-role name\\'";
	int parsed = 0;
	for (int i = 0; i < 400; i++) {
		std::string text;
		switch (i % 3) {
		case 0: { // raw bytes, NUL included
			size_t n = rng() % 200;
			for (size_t k = 0; k < n; k++)
				text += (char)(rng() & 0xff);
			break;
		}
		case 1: { // words and punctuation of the syntax in random order
			size_t n = rng() % 80;
			for (size_t k = 0; k < n; k++)
				text += alphabet[rng() % (sizeof(alphabet) - 1)];
			break;
		}
		default: { // a valid file with a few bytes changed or cut
			text = valid;
			for (int k = 0; k < 3; k++)
				text[rng() % text.size()] = (char)(rng() & 0xff);
			text.resize(rng() % (text.size() + 1));
		}
		}
		auto r = load(text);
		if (r.cfg) {
			parsed++;
			// Whatever was accepted must be readable through the schema.
			for (unsigned c = 0; c < cfg_size(r.cfg, "zalk"); c++) {
				cfg_t *ring = cfg_getnsec(r.cfg, "zalk", c);
				zalkv2_cfg_ring_role(ring);
				zalkv2_cfg_port_ifindex(cfg_getnsec(ring, "port", 0));
			}
			cfg_free(r.cfg);
			EXPECT_EQ(r.out, "");
		} else {
			EXPECT_EQ(r.out.rfind("Error when parsing configuration file ", 0), 0u) << r.out;
		}
	}
	EXPECT_GT(parsed, 0) << "some inputs (the empty file at least) are valid";
}

} // namespace
