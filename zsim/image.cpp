// The daemon's globals as one block that can be saved and put back.
//
// state.ld gathers every .data and .bss input section of libzalk_core.a
// into one output section between zsim_state_start and zsim_state_end, so
// every global the ring code keeps (anonymous namespaces and function
// statics included) is in it, whatever is added later. Two scratch buffers
// that hold nothing between two callbacks (the link monitor's receive
// buffer and the tc batch, together over 400 KiB) are left out of the
// copies, and the drop filters' pool (55 KiB) is copied only around the
// callbacks that can touch it; all found by name in the executable's own
// symbol table.
#include "zsim/image.h"

#include <cstdio>
#include <cstring>
#include <elf.h>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

extern "C" char zsim_state_start[], zsim_state_end[];

namespace zsim {

namespace {
// Ranges of the block that are copied at every swap, and the cold ones
// copied only around reconfigurations, as offsets.
std::vector<std::pair<size_t, size_t>> spans, cold_spans, extra_cold;
size_t total;

// Scratch buffers: saving them would cost most of every swap.
bool scratch(const char *name)
{
	return !strcmp(name, "_ZN12_GLOBAL__N_18link_bufE") || !strcmp(name, "_ZN12_GLOBAL__N_15batchE");
}

// The drop filters' entry pool: touched only when rings are set up, torn
// down or reconfigured (start-up, SIGHUP, SIGTERM).
bool cold(const char *name) { return !strcmp(name, "_ZN12_GLOBAL__N_14poolE"); }

// Symbols of the running executable (it is never stripped: the build
// keeps .symtab), as [start, end) offsets into the block.
std::vector<std::pair<size_t, size_t>> scratch_ranges()
{
	std::vector<std::pair<size_t, size_t>> out;
	int fd = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return out;
	struct stat st;
	fstat(fd, &st);
	void *map = mmap(nullptr, (size_t)st.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
	close(fd);
	if (map == MAP_FAILED)
		return out;
	auto *base = static_cast<const char *>(map);
	auto *eh = reinterpret_cast<const Elf64_Ehdr *>(base);
	auto *sh = reinterpret_cast<const Elf64_Shdr *>(base + eh->e_shoff);
	// The load bias: where zsim_state_start is now against its link address.
	uintptr_t link_start = 0;
	std::vector<std::pair<uintptr_t, uintptr_t>> found, cold_at;
	for (int i = 0; i < eh->e_shnum; i++) {
		if (sh[i].sh_type != SHT_SYMTAB)
			continue;
		auto *sym = reinterpret_cast<const Elf64_Sym *>(base + sh[i].sh_offset);
		const char *str = base + sh[sh[i].sh_link].sh_offset;
		for (size_t k = 0; k < sh[i].sh_size / sizeof(Elf64_Sym); k++) {
			const char *name = str + sym[k].st_name;
			if (!strcmp(name, "zsim_state_start"))
				link_start = sym[k].st_value;
			else if (scratch(name) || cold(name))
				found.emplace_back(sym[k].st_value, sym[k].st_value + sym[k].st_size);
			if (cold(name))
				cold_at.emplace_back(sym[k].st_value, sym[k].st_value + sym[k].st_size);
		}
	}
	munmap(map, (size_t)st.st_size);
	for (auto &[a, b] : cold_at)
		if (link_start && a >= link_start && b - link_start <= total)
			cold_spans.emplace_back(a - link_start, b - link_start);
	for (auto &[a, b] : found)
		if (link_start && a >= link_start && b - link_start <= total)
			out.emplace_back(a - link_start, b - link_start);
	return out;
}
} // namespace

void image_add_cold(const void *p, size_t len)
{
	size_t a = (size_t)(static_cast<const char *>(p) - zsim_state_start);
	extra_cold.emplace_back(a, a + len);
}

size_t image_size()
{
	if (!total) {
		total = (size_t)(zsim_state_end - zsim_state_start);
		size_t at = 0;
		auto skip = scratch_ranges();
		for (auto &r : extra_cold) {
			skip.push_back(r);
			cold_spans.push_back(r);
		}
		std::sort(skip.begin(), skip.end());
		for (auto &[a, b] : skip) {
			if (a > at)
				spans.emplace_back(at, a);
			at = std::max(at, b);
		}
		if (at < total)
			spans.emplace_back(at, total);
	}
	return total;
}

void image_save(std::vector<uint8_t> &to)
{
	to.resize(image_size());
	for (auto &[a, b] : spans)
		memcpy(to.data() + a, zsim_state_start + a, b - a);
}

void image_load(const std::vector<uint8_t> &from)
{
	image_size();
	for (auto &[a, b] : spans)
		memcpy(zsim_state_start + a, from.data() + a, b - a);
}

bool image_cold_same(const std::vector<uint8_t> &saved)
{
	for (auto &[a, b] : cold_spans)
		for (size_t k = a; k < b; k++)
			if (saved[k] != (uint8_t)zsim_state_start[k]) {
				fprintf(stderr, "zsim: offset %zu of [%zu, %zu)\n", k, a, b);
				return false;
			}
	return true;
}

void image_save_cold(std::vector<uint8_t> &to)
{
	for (auto &[a, b] : cold_spans)
		memcpy(to.data() + a, zsim_state_start + a, b - a);
}

void image_load_cold(const std::vector<uint8_t> &from)
{
	for (auto &[a, b] : cold_spans)
		memcpy(zsim_state_start + a, from.data() + a, b - a);
}

size_t image_copied()
{
	image_size();
	size_t n = 0;
	for (auto &[a, b] : spans)
		n += b - a;
	return n;
}

} // namespace zsim
