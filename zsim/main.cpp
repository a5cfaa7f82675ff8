// zsim: the daemon's own ring code on every switch of a simulated network,
// in virtual time, with faults, safety checks after every event, and the
// ring's recovery times.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "zsim/sim.h"

using namespace zsim;

namespace {

const char USAGE[] =
	"usage: zsim [--topology ring:N|bus:N|tworings:N,M] [--set KEY=VALUE]... [--seed S]\n"
	"            [--ops K | --schedule FILE] [--json FILE] [--replay FILE] [--shrink N] [--quiet]\n"
	"\n"
	"Runs the daemon's ring code on every switch of a simulated ring in virtual\n"
	"time. Switch 1 is the focal point; link Lk joins port B of switch k to port A\n"
	"of switch k+1, the last one closes the ring (a bus leaves it out; tworings\n"
	"adds ring 2, links R2L1.., from switch N, its focal point switch N+1).\n"
	"\n"
	"  --set KEY=VALUE  for every switch: ring-interval, hello-time, hello-enable,\n"
	"                   response-delay, forward-delay, guarded-recovery (as in\n"
	"                   zalkv2d.conf); the model's event-cost, send-latency,\n"
	"                   rx-cost, link-delay, carrier-delay, restart-gap (us)\n"
	"  --ops K          K random faults drawn from the seed (default 20)\n"
	"  --schedule FILE  one action a line, TIME in virtual seconds:\n"
	"                   TIME cut L3 | silent-cut L3 | heal L3 | flap L3 [SECONDS]\n"
	"                   TIME lose L3 FRACTION SECONDS | restart S4\n"
	"                   TIME reload S4 [KEY=VALUE...] | TIME end\n"
	"  --json FILE      violations, failover_ms, restore_ms, events, wall_s\n"
	"  --replay FILE    where a violation's shrunk schedule goes\n"
	"                   (default zsim-replay-SEED.txt)\n"
	"  --shrink N       at most N runs to shrink it (default 200)\n"
	"\n"
	"Checked after every event: no loop (links forwarding the data VLAN at both\n"
	"ends closing a cycle), no duplicate to a host; and, a bound after the last\n"
	"fault with every link up, each ring closed with one blocked port and every\n"
	"host reaching every other. Exit status 0, 1 with a violation, 2 usage.\n"
	"The last line printed is \"violations: N\".\n";

constexpr double FLAP_S = 0.03;
int shrink_budget = 200;

int usage_error(const char *why)
{
	fprintf(stderr, "zsim: %s\n%s", why, USAGE);
	return 2;
}

double pct(std::vector<double> v, double p)
{
	std::sort(v.begin(), v.end());
	double i = std::min<double>((double)v.size() - 1, std::ceil(p * (double)v.size()) - 1);
	return v[(size_t)std::max(i, 0.0)];
}

std::string figures(const std::vector<double> &v)
{
	if (v.empty())
		return "none";
	char b[128];
	snprintf(b, sizeof(b), "%.2f / %.2f / %.2f / %.2f ms (%zu)", pct(v, 0), pct(v, 0.5), pct(v, 0.95), pct(v, 1),
		 v.size());
	return b;
}

std::string json_str(const std::string &s)
{
	std::string o = "\"";
	for (char c : s)
		o += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
	return o + "\"";
}

std::string json_list(const std::vector<double> &v)
{
	std::string o = "[";
	char b[32];
	for (size_t i = 0; i < v.size(); i++) {
		snprintf(b, sizeof(b), "%s%.3f", i ? ", " : "", v[i]);
		o += b;
	}
	return o + "]";
}

struct Run {
	std::string topo;
	Settings cfg;
	uint64_t seed;
	bool quiet;
};

Result simulate(const Run &r, const std::vector<Action> &acts, bool quiet)
{
	World w(r.topo, r.cfg, r.seed);
	w.quiet = quiet;
	w.run(acts);
	return w.res;
}

// The fewest actions that still show a violation of the same kind: those
// after it are dropped, then chunks of halving size while any still
// shows it (within a budget of runs).
std::vector<Action> shrink(const Run &r, std::vector<Action> acts, const Violation &v)
{
	std::vector<Action> keep;
	for (auto &a : acts)
		if (a.t <= v.t && a.op != "end")
			keep.push_back(a);
	auto shows = [&](const std::vector<Action> &c) {
		for (auto &x : simulate(r, c, true).violations)
			if (x.kind == v.kind)
				return true;
		return false;
	};
	if (!shows(keep))
		keep = acts;
	int budget = shrink_budget;
	for (size_t chunk = std::max<size_t>(keep.size() / 2, 1); chunk >= 1 && budget > 0; chunk /= 2) {
		for (size_t i = 0; i < keep.size() && budget > 0;) {
			std::vector<Action> c(keep.begin(), keep.begin() + i);
			c.insert(c.end(), keep.begin() + std::min(i + chunk, keep.size()), keep.end());
			budget--;
			if (shows(c))
				keep = c;
			else
				i += chunk;
		}
		if (chunk == 1)
			break;
	}
	return keep;
}

} // namespace

namespace zsim {

bool parse_schedule(const std::string &text, const World &w, std::vector<Action> &out, std::string &err)
{
	std::istringstream in(text);
	std::string line;
	for (int n = 1; std::getline(in, line); n++) {
		if (line.find('#') != std::string::npos)
			line.erase(line.find('#'));
		std::istringstream f(line);
		std::string ts, op, arg;
		if (!(f >> ts))
			continue;
		auto bad = [&](const std::string &why) {
			err = "line " + std::to_string(n) + ": " + why;
			return false;
		};
		char *end;
		double t = strtod(ts.c_str(), &end);
		if (*end || t < 0 || !(f >> op))
			return bad("expected TIME ACTION");
		Action a{(Time)llround(t * 1e6) * US, op};
		if (op != "end") {
			if (!(f >> arg))
				return bad("missing link or switch");
			if (op == "restart" || op == "reload") {
				int s = arg[0] == 'S' ? atoi(arg.c_str() + 1) : 0;
				if (s < 1 || s > (int)w.sw.size())
					return bad("no switch " + arg);
				a.target = s - 1;
			} else {
				auto l = std::find_if(w.links.begin(), w.links.end(), [&](const Link &k) { return k.name == arg; });
				if (l == w.links.end())
					return bad("no link " + arg);
				a.target = (int)(l - w.links.begin());
			}
		}
		if (op == "lose") {
			double sec;
			if (!(f >> a.fraction >> sec) || a.fraction < 0 || a.fraction > 1 || sec < 0)
				return bad("lose L FRACTION SECONDS");
			a.duration = (Time)llround(sec * 1e6) * US;
		} else if (op == "flap") {
			double sec = FLAP_S;
			f >> sec;
			a.duration = (Time)llround(sec * 1e6) * US;
		} else if (op == "reload") {
			Settings probe;
			for (std::string kv; f >> kv;) {
				size_t eq = kv.find('=');
				if (eq == std::string::npos || !probe.set(kv.substr(0, eq), kv.substr(eq + 1)))
					return bad("bad setting " + kv);
				a.sets.emplace_back(kv.substr(0, eq), kv.substr(eq + 1));
			}
		} else if (op != "cut" && op != "silent-cut" && op != "heal" && op != "restart" && op != "end") {
			return bad("unknown action " + op);
		}
		out.push_back(a);
	}
	return true;
}

// K random faults: overlapping ones at short gaps, now and then a pause
// long enough for the ring to close again with every link healed.
std::vector<Action> random_actions(World &w, uint64_t seed, int ops)
{
	std::mt19937_64 g(seed * 7919 + 17);
	auto uni = [&](double a, double b) { return std::uniform_real_distribution<double>(a, b)(g); };
	auto pick = [&](size_t n) { return (int)std::uniform_int_distribution<size_t>(0, n - 1)(g); };
	auto us = [](double s) { return (Time)llround(s * 1e6) * US; };
	std::vector<Action> out;
	std::vector<int> broken;
	Time t = w.bound();
	auto heal_all = [&] {
		for (int l : broken)
			out.push_back(Action{t, "heal", l});
		broken.clear();
	};
	for (int k = 0; k < ops; k++) {
		if (uni(0, 1) < 0.15) {
			heal_all();
			t += w.bound();
		} else {
			t += us(uni(0.001, 1.5));
		}
		double r = uni(0, 100);
		Action a{t, ""};
		if (r < 25 && !broken.empty()) {
			a.op = "heal";
			size_t i = (size_t)pick(broken.size());
			a.target = broken[i];
			broken.erase(broken.begin() + (long)i);
		} else if (r < 55 && broken.size() < 2) {
			a.op = uni(0, 1) < 0.6 ? "cut" : "silent-cut";
			do
				a.target = pick(w.links.size());
			while (std::find(broken.begin(), broken.end(), a.target) != broken.end());
			broken.push_back(a.target);
		} else if (r < 65) {
			a.op = "flap";
			a.target = pick(w.links.size());
			if (std::find(broken.begin(), broken.end(), a.target) != broken.end())
				continue;
			a.duration = us(uni(0.001, 0.1));
		} else if (r < 73) {
			a.op = "lose";
			a.target = pick(w.links.size());
			a.fraction = std::round(uni(0.1, 1) * 100) / 100;
			a.duration = us(std::round(uni(0.1, 3) * 10) / 10);
		} else if (r < 86) {
			a.op = "restart";
			a.target = pick(w.sw.size());
		} else {
			a.op = "reload";
			a.target = pick(w.sw.size());
			// A changed reload changes what one switch alone may change:
			// hello settings must match across a link (a lone change
			// leaves the link unqualified, the ring open).
			if (uni(0, 1) < 0.5) {
				static const char *keys[] = {"ring-interval", "response-delay", "forward-delay", "guarded-recovery"};
				static const long lo[] = {10, 0, 0, 0}, hi[] = {1000, 3000, 5, 1};
				int k2 = pick(4);
				long v = std::uniform_int_distribution<long>(lo[k2], hi[k2])(g);
				a.sets.emplace_back(keys[k2], std::to_string(v));
			}
		}
		out.push_back(a);
	}
	heal_all();
	return out;
}

} // namespace zsim

int main(int argc, char **argv)
{
	Run r{"ring:4", Settings{}, 1, false};
	int ops = 20;
	std::string schedule, json, replay;
	for (int i = 1; i < argc; i++) {
		std::string a = argv[i];
		auto val = [&]() -> const char * { return i + 1 < argc ? argv[++i] : nullptr; };
		const char *v = nullptr;
		if (a == "--help" || a == "-h") {
			fputs(USAGE, stdout);
			return 0;
		} else if (a == "--quiet") {
			r.quiet = true;
		} else if (!(v = val())) {
			return usage_error(("missing value or unknown option " + a).c_str());
		} else if (a == "--topology") {
			r.topo = v;
		} else if (a == "--set") {
			std::string kv = v;
			size_t eq = kv.find('=');
			if (eq == std::string::npos || !r.cfg.set(kv.substr(0, eq), kv.substr(eq + 1)))
				return usage_error(("bad setting " + kv).c_str());
		} else if (a == "--seed") {
			r.seed = strtoull(v, nullptr, 10);
		} else if (a == "--ops") {
			ops = atoi(v);
			if (ops < 0)
				return usage_error("bad --ops");
		} else if (a == "--schedule") {
			schedule = v;
		} else if (a == "--json") {
			json = v;
		} else if (a == "--replay") {
			replay = v;
		} else if (a == "--shrink") {
			shrink_budget = atoi(v);
		} else {
			return usage_error(("unknown option " + a).c_str());
		}
	}
	World w(r.topo, r.cfg, r.seed);
	if (!w.ok())
		return usage_error(("bad topology " + r.topo).c_str());
	w.quiet = r.quiet;
	std::vector<Action> acts;
	if (!schedule.empty()) {
		std::ifstream f(schedule);
		std::stringstream ss;
		ss << f.rdbuf();
		std::string err;
		if (!f || !parse_schedule(ss.str(), w, acts, err))
			return usage_error((schedule + ": " + (f ? err : "cannot read")).c_str());
	} else {
		acts = random_actions(w, r.seed, ops);
	}
	printf("zsim %s, seed %llu, %zu actions, %s\n", r.topo.c_str(), (unsigned long long)r.seed, acts.size(),
	       r.cfg.conf_keys().c_str());
	w.run(acts);
	Result res = w.res;
	std::string replay_file;
	if (!res.violations.empty()) {
		std::vector<Action> small = shrink(r, acts, res.violations[0]);
		replay_file = replay.empty() ? "zsim-replay-" + std::to_string(r.seed) + ".txt" : replay;
		std::ofstream o(replay_file);
		o << "# " << kind_name(res.violations[0].kind) << ": " << res.violations[0].detail << "\n";
		o << "# zsim --topology " << r.topo << " --seed " << r.seed;
		for (auto kv : {std::string("ring-interval=") + std::to_string(r.cfg.ring_interval),
				"hello-time=" + std::to_string(r.cfg.hello_time), "hello-enable=" + std::to_string(r.cfg.hello_enable),
				"response-delay=" + std::to_string(r.cfg.response_delay),
				"forward-delay=" + std::to_string(r.cfg.forward_delay),
				"guarded-recovery=" + std::to_string(r.cfg.guarded_recovery)})
			o << " --set " << kv;
		o << " --schedule " << replay_file << "\n";
		World names(r.topo, r.cfg, r.seed); // link names for the text
		for (auto &a : small) {
			std::string t = a.text();
			if (a.op == "flap" && a.duration != (Time)llround(FLAP_S * 1e6) * US)
				t += " " + std::to_string((double)a.duration / SEC);
			o << t << "\n";
		}
		printf("replay (%zu of %zu actions): %s\n", small.size(), acts.size(), replay_file.c_str());
	}
	printf("failover: %s\nrestore:  %s\nevents: %ld, wall: %.2f s\n", figures(res.failover_ms).c_str(),
	       figures(res.restore_ms).c_str(), res.events, res.wall_s);
	if (!json.empty()) {
		std::ofstream o(json);
		o << "{\"topology\": " << json_str(r.topo) << ", \"seed\": " << r.seed << ", \"settings\": "
		  << json_str(r.cfg.conf_keys()) << ", \"actions\": " << acts.size() << ",\n \"violations\": [";
		for (size_t i = 0; i < res.violations.size(); i++)
			o << (i ? ",\n  " : "\n  ") << "{\"time\": " << (double)res.violations[i].t / SEC
			  << ", \"kind\": " << json_str(kind_name(res.violations[i].kind))
			  << ", \"detail\": " << json_str(res.violations[i].detail) << "}";
		o << "],\n \"failover_ms\": " << json_list(res.failover_ms) << ",\n \"restore_ms\": "
		  << json_list(res.restore_ms) << ",\n \"events\": " << res.events << ", \"wall_s\": " << res.wall_s
		  << ", \"replay\": " << json_str(replay_file) << "}\n";
	}
	printf("violations: %zu\n", res.violations.size());
	return res.violations.empty() ? 0 : 1;
}
