// SPDX-License-Identifier: Apache-2.0
#include "process/module_list.h"

#include "page.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

namespace krv_elf_loader
{

namespace
{

// Reading some devices has effects. A core file has no devices, and not always names.
bool may_hold_module(const source &from, const mapping &m)
{
    if (from.kind == KRV_PROC_CORE)
        return true;
    return m.path.starts_with('/') && (!m.path.starts_with("/dev/") || m.path.starts_with("/dev/shm/"));
}

// Memory that is of no file, such as the zeros behind a module's data, which the system shows as [heap] where the heap
// follows on them. A core file may not say.
bool is_anonymous(const mapping &m)
{
    return m.path.empty() || m.path.starts_with('[');
}

// What is added to the addresses of an object whose first byte is mapped at `start`.
std::optional<uint64_t> bias_of(const elf_image &image, uint64_t start)
{
    for (const Elf64_Phdr &segment : image.segments)
        if (segment.p_type == PT_LOAD && page_of(segment.p_offset) == 0)
            return start - page_of(segment.p_vaddr);
    return std::nullopt;
}

// Whether the object's code is mapped where its headers say. That of a file which is only read, as a debugger's, is not.
bool code_is_mapped(const source &from, const mapping &first, const elf_image &image, uint64_t bias)
{
    for (const Elf64_Phdr &segment : image.segments) {
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0)
            continue;
        const uint64_t address = bias + segment.p_vaddr;
        const mapping *m = find_mapping(from.mappings(), address);
        if (m == nullptr || !m->executable)
            continue;
        if (m->path.empty()) // not recorded, or a copy of it in pages of another size
            return true;
        if (m->path == first.path && m->offset + (address - m->start) == segment.p_offset)
            return true;
    }
    return false;
}

// The object whose headers begin a mapping, or NULL.
std::unique_ptr<loaded_module> module_at(source &from, const mapping &m)
{
    const bool vdso = is_vdso(from, m);
    if (m.offset != 0 || (!vdso && !may_hold_module(from, m)))
        return nullptr;
    auto image = read_elf_image(from.module_bytes(), m.start);
    if (!image || image->x32 || (image->type != ET_EXEC && image->type != ET_DYN))
        return nullptr;
    const auto bias = bias_of(*image, m.start);
    if (!bias || *bias + image->end <= m.start || *bias + image->start > m.start)
        return nullptr;
    if (!vdso && !code_is_mapped(from, m, *image, *bias))
        return nullptr;
    return std::make_unique<loaded_module>(from, m, std::move(*image), *bias);
}

} // namespace

module_list::module_list(source &from)
{
    list(from);
    for (const extent &e : extents)
        modules[e.module]->end_at(e.end);
    for (const uint64_t address : {from.aux.program_headers, from.aux.entry})
        if (loaded_module *main = find(address); main != nullptr)
            main->make_main();
}

void module_list::add(uint64_t start, uint64_t end, size_t module)
{
    end = std::min(end, modules[module]->shown().end);
    if (start >= end)
        return;
    if (!extents.empty() && extents.back().module == module && extents.back().end == start)
        extents.back().end = end;
    else
        extents.push_back({start, end, module});
}

// What no file claims is of the module below it, as far as that reaches by its headers.
void module_list::list(source &from)
{
    std::unordered_map<std::string_view, size_t> last_of; // the module found last, by path
    uint64_t done = 0;                                    // addresses below have their owner
    const auto fill = [&](uint64_t up_to) {
        if (!modules.empty() && done < up_to)
            add(done, up_to, modules.size() - 1);
    };
    for (const mapping &m : from.mappings()) {
        const bool inside = !modules.empty() && m.start < modules.back()->shown().end;
        if (m.start < done || (inside && is_anonymous(m) && !is_vdso(from, m)))
            continue;
        const auto known = last_of.find(m.path);
        const bool of_known = known != last_of.end() && modules[known->second]->has(m);
        std::unique_ptr<loaded_module> fresh;
        try {
            fresh = of_known ? nullptr : module_at(from, m);
        } catch (const failure &f) { // those listed are good
            incomplete = f.what();
            from.note(incomplete);
            break;
        }
        if (!of_known && fresh == nullptr && is_anonymous(m))
            continue;
        fill(m.start);
        done = m.end;
        if (of_known) {
            add(m.start, m.end, known->second);
        } else if (fresh != nullptr) {
            last_of[m.path] = modules.size();
            modules.push_back(std::move(fresh));
            add(m.start, m.end, modules.size() - 1);
        }
    }
    if (incomplete.empty())
        fill(UINT64_MAX);
}

loaded_module *module_list::find(uint64_t address) const
{
    const auto next = std::upper_bound(extents.begin(), extents.end(), address,
                                       [](uint64_t a, const extent &e) { return a < e.start; });
    return next != extents.begin() && address < std::prev(next)->end ? modules[std::prev(next)->module].get() : nullptr;
}

std::vector<std::unique_ptr<loaded_module>> module_list::keep(module_list &&before)
{
    std::vector<std::unique_ptr<loaded_module>> gone;
    for (std::unique_ptr<loaded_module> &old : before.modules) {
        const auto same = std::lower_bound(
            modules.begin(), modules.end(), old->shown().start,
            [](const std::unique_ptr<loaded_module> &m, uint64_t start) { return m->shown().start < start; });
        if (same != modules.end() && (*same)->same_as(*old))
            std::swap(*same, old);
        else
            gone.push_back(std::move(old));
    }
    return gone;
}

} // namespace krv_elf_loader
