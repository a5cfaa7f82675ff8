// The daemon's globals as one block that can be saved and put back.
//
// state.ld gathers every .data and .bss input section of libzalk_core.a
// into one output section between zsim_state_start and zsim_state_end, so
// every global the ring code keeps (anonymous namespaces and function
// statics included) is in it, whatever is added later. Two scratch buffers
// that hold nothing between two callbacks (the link monitor's receive
// buffer and the tc batch, together over 400 KiB) are left out of the
// copies, found by name in the executable's own symbol table.
#include "zsim/image.h"

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
// Ranges of the block that are copied, as offsets.
std::vector<std::pair<size_t, size_t>> spans;
size_t total;

// Scratch buffers: saving them would cost most of every swap.
bool scratch(const char *name)
{
	return !strcmp(name, "_ZN12_GLOBAL__N_18link_bufE") || !strcmp(name, "_ZN12_GLOBAL__N_15batchE");
}

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
	std::vector<std::pair<uintptr_t, uintptr_t>> found;
	for (int i = 0; i < eh->e_shnum; i++) {
		if (sh[i].sh_type != SHT_SYMTAB)
			continue;
		auto *sym = reinterpret_cast<const Elf64_Sym *>(base + sh[i].sh_offset);
		const char *str = base + sh[sh[i].sh_link].sh_offset;
		for (size_t k = 0; k < sh[i].sh_size / sizeof(Elf64_Sym); k++) {
			const char *name = str + sym[k].st_name;
			if (!strcmp(name, "zsim_state_start"))
				link_start = sym[k].st_value;
			else if (scratch(name))
				found.emplace_back(sym[k].st_value, sym[k].st_value + sym[k].st_size);
		}
	}
	munmap(map, (size_t)st.st_size);
	for (auto &[a, b] : found)
		if (link_start && a >= link_start && b - link_start <= total)
			out.emplace_back(a - link_start, b - link_start);
	return out;
}
} // namespace

size_t image_size()
{
	if (!total) {
		total = (size_t)(zsim_state_end - zsim_state_start);
		size_t at = 0;
		auto skip = scratch_ranges();
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

size_t image_copied()
{
	image_size();
	size_t n = 0;
	for (auto &[a, b] : spans)
		n += b - a;
	return n;
}

} // namespace zsim
