// Every external command a ring runs, with a port name that holds blanks:
// each command keeps its word count and the name stays one argument.
#include "tests/fakes/fixture.h"

using namespace fx;

namespace {

class Commands : public Unit {
protected:
	std::vector<Lines> run_all(const char *name);
};

std::vector<Lines> Commands::run_all(const char *name)
{
	TearDown();
	SetUp();
	make_ring(0, RING_TYPE_FOCAL, 5);
	snprintf(instances[0].port[PORT_A].name, sizeof(instances[0].port[PORT_A].name), "%s", name);
	fake::iface_by_index(11)->name = name;
	const uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
	fake::clear_records();
	zalkv2_prepare_bridge_on_instance(0);
	zalkv2_block_v0_macs(1);
	zalkv2_block_unconfigured_rings(1);
	zalkv2_fdb_remove(name, mac, ZALK_MGNT_VLAN);
	zalkv2_teardown_bridge_on_instance(0);
	return fake::argvs;
}

TEST_F(Commands, ANameWithBlanksIsOneArgumentOfEveryCommand)
{
	const auto plain = run_all("eth1");
	const auto odd = run_all("eth1 dev lo");
	ASSERT_EQ(odd.size(), plain.size());
	ASSERT_GT(plain.size(), 40u); // qdisc, filters, backup ports, FDB entries
	for (size_t i = 0; i < plain.size(); i++) {
		EXPECT_EQ(odd[i].size(), plain[i].size()) << fake::commands[i];
		for (size_t w = 0; w < plain[i].size(); w++)
			EXPECT_EQ(odd[i][w], plain[i][w] == "eth1" ? "eth1 dev lo" : plain[i][w]);
	}
}

} // namespace
