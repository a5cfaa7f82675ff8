// Ingress drop filters on the ring ports and the list that hands out
// their tc priorities.
//
// Every per-ring filter gets a priority of its own, shared across all
// ports, so that it can be deleted again with exactly that number. The
// list is sorted by priority; its entries come from a fixed table sized
// for the worst case the daemon can reach, never from the heap.
#include "bridge/filters.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <net/if.h>

#include "daemon/instance.h"
#include "daemon/os.h"
#include "daemon/commands.h"
#include "frames/frames.h"
#include "status/status.h"

namespace {

constexpr int TC_MAX_RING_ID = 20;
// Per ring port: three own group addresses on a focal point, and two
// addresses for every other ring id.
constexpr int TC_ENTRIES_PER_PORT = 3 + 2 * TC_MAX_RING_ID;
constexpr int TC_POOL_SIZE = ZALK_MAX_INSTANCES * 2 * TC_ENTRIES_PER_PORT;
constexpr size_t TC_MAC_CMP_LEN = 20;

std::array<tc_entry, TC_POOL_SIZE> pool;
tc_entry head;            // prio TC_PRIO_BASE; real entries follow it
tc_entry *free_entries;   // unused pool entries, linked through next
bool list_created;

tc_entry *entry_take()
{
	tc_entry *e = free_entries;
	if (e)
		free_entries = e->next;
	return e;
}

void entry_give_back(tc_entry *e)
{
	memset(e, 0, sizeof(*e));
	e->next = free_entries;
	free_entries = e;
}

// The drop filters of one reconfiguration step run in one tc process
// (tc -force -batch -, reading the commands from its standard input)
// instead of one process each. A failed command is reported afterwards,
// with the same line as when it runs alone, and so is the summary line of
// each group of commands that had a failure, in the order they were
// given. Before any other error line, and before a command that runs
// alone, the commands queued so far run and are reported: every error
// line then comes in the order the commands alone gave them.
struct batch_line {
	char action[4];
	char dev[IF_NAMESIZE + 1];
	char mac[20];
	int prio;
	int group;
	bool failed;
};
struct batch_group {
	const char *summary; // logged when a command of the group failed
	bool failed;         // set before the run by a command that was not given
};
// The most a reconfiguration gives, twice (removal and installation in
// one batch): every ring id but one blocked on every port of ten rings,
// and the three version-0 filters per port.
constexpr int BATCH_MAX_LINES = 2 * ZALK_MAX_INSTANCES * 2 * (2 * TC_MAX_RING_ID + 3);
constexpr int BATCH_MAX_GROUPS = 2 * (TC_MAX_RING_ID + 1);
constexpr size_t BATCH_LINE_MAX = 160;

struct tc_batch {
	bool active;
	bool ran_alone; // a command that could not join the batch ran at once
	bool group_open; // the last group may still get commands
	int lines;
	int groups;
	int reported_groups; // groups whose summary is no longer due
	size_t len;
	std::array<batch_line, BATCH_MAX_LINES> line;
	std::array<batch_group, BATCH_MAX_GROUPS> group;
	std::array<char, BATCH_MAX_LINES * BATCH_LINE_MAX> text;
};
tc_batch batch;

// Interface names looked up during one batch: a port cannot be renamed
// while the loop is busy with the reconfiguration, so each is asked once.
struct name_cache_entry {
	int ifindex;
	char name[IF_NAMESIZE];
};
std::array<name_cache_entry, ZALK_MAX_INSTANCES * 2> names;
int names_used;

char *port_name(int ifindex, char *out)
{
	if (!batch.active)
		return os_if_indextoname((unsigned)ifindex, out);
	for (int i = 0; i < names_used; i++)
		if (names[i].ifindex == ifindex)
			return strcpy(out, names[i].name);
	if (!os_if_indextoname((unsigned)ifindex, out))
		return nullptr;
	if (names_used < (int)names.size()) {
		names[names_used].ifindex = ifindex;
		snprintf(names[names_used++].name, IF_NAMESIZE, "%s", out);
	}
	return out;
}

void report_failure(const char *action, const char *dev, const char *mac, int prio)
{
	zlog(LOG_ERR, "System fail %s port %s mac %s loc %d\n\n", action, dev, mac, prio);
}

// tc splits its batch lines at blanks and has its own quoting and comment
// rules; a device name that holds such a character runs alone instead, as
// one argument.
bool batch_safe(const char *dev) { return !strpbrk(dev, " \t\n\"'\\#"); }

void before_error();

void batch_begin()
{
	zlog_before_error(before_error);
	batch.active = true;
	batch.ran_alone = false;
	batch.group_open = false;
	names_used = 0;
	batch.lines = 0;
	batch.groups = 0;
	batch.reported_groups = 0;
	batch.len = 0;
}

int batch_group_begin(const char *summary)
{
	if (batch.groups == BATCH_MAX_GROUPS)
		return -1;
	batch.group[batch.groups] = {summary, false};
	batch.group_open = true;
	return batch.groups++;
}

// Queues one command (the words after "tc"); false when it has to run alone.
bool batch_add(const char *words, const char *action, const char *dev, const char *mac, int prio)
{
	if (!batch.active || batch.groups == 0 || batch.lines == BATCH_MAX_LINES || !batch_safe(dev))
		return false;
	int n = snprintf(batch.text.data() + batch.len, batch.text.size() - batch.len, "%s\n", words);
	if (n < 0 || (size_t)n >= batch.text.size() - batch.len)
		return false;
	batch.len += (size_t)n;
	batch_line &l = batch.line[batch.lines++];
	snprintf(l.action, sizeof(l.action), "%s", action);
	snprintf(l.dev, sizeof(l.dev), "%s", dev);
	snprintf(l.mac, sizeof(l.mac), "%s", mac);
	l.prio = prio;
	l.group = batch.groups - 1;
	l.failed = false;
	return true;
}

// tc says "Command failed -:N" for each line N that failed.
void batch_error_line(const char *text, void *)
{
	int n = 0;
	if (sscanf(text, "Command failed -:%d", &n) == 1 && n >= 1 && n <= batch.lines)
		batch.line[n - 1].failed = true;
}

// Runs the queued commands and reports their failures, each group's
// summary after its last command once the group has ended (all: every
// group has).
void batch_flush(bool all)
{
	const bool was_active = batch.active;
	batch.active = false; // what is logged from here on is not held back
	if (batch.lines > 0) {
		char tc[] = "tc", force[] = "-force", batch_opt[] = "-batch", from_stdin[] = "-";
		char *argv[] = {tc, force, batch_opt, from_stdin, nullptr};
		int st = os_spawn_input(argv, batch.text.data(), batch.len, batch_error_line, nullptr);
		if (st < 0)
			zlog(LOG_ERR, "Could not start command tc -force -batch -: %s\n", strerror(errno));
		// tc works through its lines in order: those before the last one
		// it named failed are accounted for. Past that, when it did not
		// run, died, or failed without saying where, nothing counts as
		// done.
		int accounted = 0;
		for (int i = 0; i < batch.lines; i++)
			if (batch.line[i].failed)
				accounted = i + 1;
		if (st != 0 && (st < 0 || st > 255 || !accounted))
			for (int i = accounted; i < batch.lines; i++)
				batch.line[i].failed = true;
	}
	const int ended = all || !batch.group_open ? batch.groups : batch.groups - 1;
	int next = 0;
	for (int g = batch.reported_groups; g < batch.groups; g++) {
		for (; next < batch.lines && batch.line[next].group == g; next++) {
			const batch_line &l = batch.line[next];
			if (l.failed) {
				report_failure(l.action, l.dev, l.mac, l.prio);
				batch.group[g].failed = true;
			}
		}
		if (g < ended && batch.group[g].failed)
			zlog(LOG_ERR, "%s", batch.group[g].summary);
	}
	batch.reported_groups = ended;
	batch.lines = 0;
	batch.len = 0;
	batch.active = was_active && !all;
}

void batch_run() { batch_flush(true); }

// Before any error line of a batch's time: what the queued commands have
// to report comes first.
void before_error()
{
	if (batch.active && (batch.lines > 0 || batch.reported_groups < batch.groups - batch.group_open))
		batch_flush(false);
}

} // namespace

void tc_list_create()
{
	memset(&head, 0, sizeof(head));
	head.cls = TC_LOW_PRIO;
	head.prio = TC_PRIO_BASE;
	free_entries = nullptr;
	for (int i = TC_POOL_SIZE - 1; i >= 0; i--)
		entry_give_back(&pool[i]);
	list_created = true;
}

tc_entry *tc_entry_find(uint32_t cls, uint32_t id, uint32_t ifindex, const char *mac)
{
	if (!list_created)
		return nullptr;
	for (tc_entry *e = head.next; e; e = e->next)
		if (e->cls == cls && e->id == id && e->ifindex == ifindex &&
		    !strncmp(e->mac, mac, TC_MAC_CMP_LEN))
			return e;
	return nullptr;
}

int tc_entry_add(uint32_t cls, uint32_t id, uint32_t ifindex, const char *mac)
{
	if (!list_created) {
		zlog(LOG_ERR, "Could not add entry prio %d id %d ifdx:%d %s\n\n", cls, id, ifindex, mac);
		return -1;
	}
	if (tc_entry_find(cls, id, ifindex, mac)) {
		zlog(LOG_ERR, "ADD: Entry exists prio %d id %d ifdx:%d %s\n\n", cls, id, ifindex, mac);
		return -1;
	}
	tc_entry *e = entry_take();
	if (!e) {
		zlog(LOG_ERR, "Filter table full (%d entries), cannot add prio %d id %d ifdx:%d %s\n\n",
		     TC_POOL_SIZE, cls, id, ifindex, mac);
		return -1;
	}

	// The lowest number above the base that no entry holds: walk while
	// the next entry has exactly the candidate.
	int32_t prio = TC_PRIO_BASE;
	tc_entry *pos = &head;
	for (;;) {
		prio++;
		if (!pos->next || pos->next->prio > prio)
			break;
		pos = pos->next;
	}

	e->cls = cls;
	e->id = id;
	e->ifindex = ifindex;
	snprintf(e->mac, sizeof(e->mac), "%s", mac);
	e->prio = prio;
	e->prev = pos;
	e->next = pos->next;
	if (pos->next)
		pos->next->prev = e;
	pos->next = e;
	return prio;
}

int tc_entry_del(uint32_t cls, uint32_t id, uint32_t ifindex, const char *mac)
{
	tc_entry *e = tc_entry_find(cls, id, ifindex, mac);
	if (!e) {
		zlog(LOG_ERR, "DEL: Entry do not exists prio %d id %d ifx %d %s\n\n", cls, id, ifindex, mac);
		return -1;
	}
	int32_t prio = e->prio;
	e->prev->next = e->next;
	if (e->next)
		e->next->prev = e->prev;
	entry_give_back(e);
	return prio;
}

int zalkv2_tc_write_filter(const char *dev, const char *action, const char *proto, int prio,
			   const char *flags, const char *mac, const char *vlan)
{
	// The flags and VLAN texts are option words of our own (empty ones
	// leave their blanks in the logged text but give no argument); every
	// other value is one argument, whatever it holds.
	zalk_command cmd;
	cmd.fixed("tc filter").name(action).fixed("dev").name(dev).fixed("ingress protocol").name(proto);
	cmd.fixed("prio").number(prio).fixed("flower").fixed(flags).fixed("dst_mac").name(mac).fixed(vlan);
	cmd.fixed("action drop");
	if (zalk_debug(ZALK_DBG))
		zlog(LOG_NOTICE, "%s() - %s\n\n", "zalkv2_tc_write_filter", cmd.text());
	if (batch_add(cmd.text() + 3, action, dev, mac, prio))
		return 0; // its failure is reported when the batch has run
	if (batch.active) {
		batch_flush(false); // the commands before it run before it
		batch.ran_alone = true;
	}
	if (cmd.run()) {
		report_failure(action, dev, mac, prio);
		return 1;
	}
	return 0;
}

int zalkv2_tc_mac_filter(uint32_t id, int ifindex, const char *proto, const uint8_t mac[6], int add,
			 int skip_hw, int vid)
{
	if (ifindex == -1)
		return 0;

	char text[20];
	snprintf(text, sizeof(text), "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", mac[0], mac[1], mac[2], mac[3], mac[4],
		 mac[5]);
	const char *action = add ? "add" : "del";
	int prio = add ? tc_entry_add(TC_LOW_PRIO, id, (uint32_t)ifindex, text)
		       : tc_entry_del(TC_LOW_PRIO, id, (uint32_t)ifindex, text);
	if (prio < 0) {
		zlog(LOG_ERR, "Fail alloc prio TC_LOW_PRIO %s ifx %d mac %s loc %d\n\n", action, ifindex, text, prio);
		return 1;
	}

	// A port that vanished has no name to give tc; an empty device would
	// shift every later word of the command.
	char dev[IF_NAMESIZE];
	if (!port_name(ifindex, dev)) {
		zlog(LOG_ERR, "No interface ifx %d for filter %s mac %s loc %d\n\n", ifindex, action, text, prio);
		return 1;
	}

	char vlan[16] = "";
	if (vid)
		snprintf(vlan, sizeof(vlan), "vlan_id %d", vid);
	return zalkv2_tc_write_filter(dev, action, proto, prio, skip_hw ? "skip_hw" : "", text, vlan);
}

int zalkv2_block_ring_macs(int ins, int ifindex, int add)
{
	if (ifindex == -1)
		return 0;
	const zalkv2_instance &in = instances[ins];
	uint8_t mac[6];

	zalkv2_group_address(in.ring_id, 1, mac);
	int ret = zalkv2_tc_mac_filter(1, ifindex, "all", mac, add, 1, 0);
	if (in.role != RING_TYPE_FOCAL)
		return ret;
	for (int k = 2; k <= 3; k++) {
		zalkv2_group_address(in.ring_id, k, mac);
		ret += zalkv2_tc_mac_filter(1, ifindex, "all", mac, add, 1, 0);
	}
	return ret;
}

namespace {

// The end of a group of commands: in a batch its failures so far (those
// not given to tc) wait for the batch's report, alone they are reported
// now.
void end_group(int group, int failures, const char *summary)
{
	if (group >= 0) {
		batch.group[group].failed = batch.group[group].failed || failures != 0;
		batch.group_open = false;
		return;
	}
	if (failures)
		zlog(LOG_ERR, "%s", summary);
}

// Every configured ring port of every enabled instance, in table order.
template <typename F> void for_each_ring_port(F visit)
{
	for (const zalkv2_instance &in : instances) {
		if (!in.enabled)
			continue;
		for (const zalkv2_port &port : in.port)
			if (zalkv2_port_configured(port))
				visit(port);
	}
}

} // namespace

void zalkv2_block_foreign_ring(int ring_id, int add)
{
	uint8_t g1[6], g2[6];
	zalkv2_group_address(ring_id, 1, g1);
	zalkv2_group_address(ring_id, 2, g2);

	static const char summary[] = "Could not block mac addresses for unconfigured ring id\n\n";
	const int group = batch.active ? batch_group_begin(summary) : -1;
	int ret = 0;
	for_each_ring_port([&](const zalkv2_port &port) {
		ret += zalkv2_tc_mac_filter(2, port.ifindex, "802.1Q", g1, add, 0, ZALK_MGNT_VLAN);
		ret += zalkv2_tc_mac_filter(2, port.ifindex, "802.1Q", g2, add, 0, ZALK_MGNT_VLAN);
	});
	end_group(group, ret, summary);
}

void zalkv2_block_unconfigured_rings(int add)
{
	for (int ring_id = 1; ring_id <= TC_MAX_RING_ID; ring_id++)
		if (zalkv2_find_instance(ring_id) == -1)
			zalkv2_block_foreign_ring(ring_id, add);
}

void zalkv2_block_v0_macs(int add)
{
	struct v0_filter {
		int prio;
		const char *mac;
	};
	static constexpr v0_filter v0_filters[] = {
		{300, "01:00:5e:05:0a:02"},
		{301, "01:00:5e:05:0a:09"},
		{302, "01:00:5e:05:0a:0a"},
	};

	static const char summary[] = "Block zalkv0 macs failed\n\n";
	const int group = batch.active ? batch_group_begin(summary) : -1;
	int ret = 0;
	for_each_ring_port([&](const zalkv2_port &port) {
		char dev[sizeof(port.name) + 1];
		snprintf(dev, sizeof(dev), "%.*s", (int)sizeof(port.name), port.name);
		for (const v0_filter &f : v0_filters)
			ret += zalkv2_tc_write_filter(dev, add ? "add" : "del", "802.1Q", f.prio, "", f.mac,
						      "vlan_id 4021");
	});
	end_group(group, ret, summary);
}

void zalkv2_set_drop_filters(int add)
{
	batch_begin();
	zalkv2_block_unconfigured_rings(add);
	zalkv2_block_v0_macs(add);
	batch_run();
}

void zalkv2_refresh_drop_filters()
{
	batch_begin();
	const unsigned logged = zlog_lines();
	zalkv2_block_unconfigured_rings(0);
	zalkv2_block_v0_macs(0);
	// The installation joins the removal's tc process only while the
	// removal has neither said nor run anything yet: its reports then
	// come out in the same order, and its commands reach the kernel in
	// the same order, as from two processes, one tc start-up sooner.
	if (batch.ran_alone || zlog_lines() != logged) {
		batch_run();
		batch_begin();
	}
	zalkv2_block_unconfigured_rings(1);
	zalkv2_block_v0_macs(1);
	batch_run();
}
