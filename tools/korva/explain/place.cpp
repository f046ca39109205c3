// SPDX-License-Identifier: Apache-2.0
//
// Where the address is: module and bias, section, segment.
#include "explain/step.h"

#include <algorithm>
#include <elf.h>

namespace korva::program::explanation
{

std::string range_text(uint64_t start, uint64_t end)
{
    return fmt::format("0x{:x}..0x{:x}", start, end);
}

json_value range_record(uint64_t start, uint64_t end)
{
    return {{"start", hex(start)}, {"end", hex(end)}};
}

static std::string permissions(uint32_t flags)
{
    return fmt::format("{}{}{}", (flags & PF_R) != 0 ? 'r' : '-', (flags & PF_W) != 0 ? 'w' : '-',
                       (flags & PF_X) != 0 ? 'x' : '-');
}

static void explain_module(const trail &t, step *s)
{
    if (!t.loaded)
        return;
    const krv_proc_module_t &m = *t.loaded->module;
    s->say("module {}  {}, loaded with bias 0x{:x}: 0x{:x} of the file", m.path, range_text(m.start, m.end), m.bias,
           t.address);
    s->fields["module"] = {{"path", m.path}, {"range", range_record(m.start, m.end)}, {"bias", hex(m.bias)}};
    const krv_proc_frame_t *frame = t.frame();
    if (frame != nullptr && frame->pc != frame->lookup_pc)
        s->say("frame #{} of thread {} goes on at 0x{:x} after a call: the call, one byte before, is looked up",
               frame->index, t.loaded->tid, frame->pc);
    else if (frame != nullptr)
        s->say("frame #{} of thread {} is at this instruction", frame->index, t.loaded->tid);
    s->fields["thread"] = frame == nullptr ? json_value(nullptr) : json_value(t.loaded->tid);
    s->fields["frame_index"] = frame == nullptr ? json_value(nullptr) : json_value(frame->index);
}

// Sections of code and data; .tbss takes no room among them, and what is not loaded has address 0.
static const krv_elf_section_t *find_section(const trail &t)
{
    const auto holds = [&](const krv_elf_section_t &section) {
        return section.address <= t.address && t.address - section.address < section.size &&
               (section.address != 0 || (section.executable != 0 && !t.file->is_linked()));
    };
    const auto found = std::find_if(t.sections.begin(), t.sections.end(), [&](const krv_elf_section_t &section) {
        return holds(section) && section.name != std::string_view(".tbss");
    });
    return found == t.sections.end() ? nullptr : &*found;
}

static void explain_segment(trail &t, step *s)
{
    const krv_elf_segment_t *below = nullptr, *above = nullptr;
    const std::vector<krv_elf_segment_t> all = t.file->elf().segments();
    for (const krv_elf_segment_t &segment : all) {
        if (segment.type != PT_LOAD)
            continue;
        const uint64_t offset = t.address - segment.address;
        if (t.address >= segment.address && offset < segment.size) {
            const bool in_file = offset < segment.file_size;
            s->say("segment {}  {}{}", permissions(segment.flags),
                   range_text(segment.address, segment.address + segment.size),
                   in_file ? fmt::format(", offset 0x{:x} of the file", segment.offset + offset)
                           : ", behind what the file has of it");
            s->fields["segment"] = {{"range", range_record(segment.address, segment.address + segment.size)},
                                    {"flags", permissions(segment.flags)},
                                    {"file_offset", in_file ? hex(segment.offset + offset) : json_value(nullptr)}};
            t.is_mapped = true;
            return;
        }
        if (segment.address > t.address && (above == nullptr || segment.address < above->address))
            above = &segment;
        if (segment.address <= t.address && (below == nullptr || segment.address > below->address))
            below = &segment;
    }
    if (below == nullptr && above == nullptr) {
        t.is_mapped = t.section != nullptr; // a relocatable file has none
        return;
    }
    std::vector<std::string> sides;
    if (below != nullptr)
        sides.push_back(fmt::format("one ends 0x{:x} before, at 0x{:x}", t.address - (below->address + below->size),
                                    below->address + below->size));
    if (above != nullptr)
        sides.push_back(fmt::format("one begins 0x{:x} behind, at 0x{:x}", above->address - t.address, above->address));
    t.stop("it is in no segment of the file: {}", fmt::join(sides, "; "));
}

step explain_place(trail &t)
{
    step s{.name = "place", .key = "place"};
    s.fields = {
        {"module", nullptr}, {"thread", nullptr}, {"frame_index", nullptr}, {"section", nullptr}, {"segment", nullptr}};
    t.sections = t.file->elf().sections();
    t.section = find_section(t);
    explain_module(t, &s);
    if (t.section != nullptr) {
        s.say("section {}  {}, 0x{:x} into it{}", t.section->name,
              range_text(t.section->address, t.section->address + t.section->size), t.address - t.section->address,
              t.section->executable != 0 ? "" : ", no code");
        s.fields["section"] = {{"name", t.section->name},
                               {"range", range_record(t.section->address, t.section->address + t.section->size)},
                               {"offset", hex(t.address - t.section->address)},
                               {"executable", t.section->executable != 0}};
    }
    explain_segment(t, &s);
    if (t.section != nullptr && t.section->executable == 0)
        t.stop("it lies in {}, which holds no code", t.section->name);
    else if (t.section != nullptr && std::string_view(t.section->name).starts_with(".plt"))
        t.stop("it lies in {}, which the linker made: jumps to functions of other modules, without lines",
               t.section->name);
    else if (t.section == nullptr && t.is_mapped && !t.sections.empty())
        t.stop("it is mapped, but lies in no section");
    return s;
}

} // namespace korva::program::explanation
