// SPDX-License-Identifier: Apache-2.0
#include "elf/symbolizer.h"

#include "demangle.h"
#include "failure.h"
#include "krv_dwarf.h"
#include "krv_dwarf5.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace krv_elf_loader
{

// Whether functions without DW_AT_linkage_name may have a mangled symbol all the same.
static bool mangles_names(uint32_t language)
{
    switch (language) {
    case DW_LANG_C_plus_plus:
    case DW_LANG_C_plus_plus_03:
    case DW_LANG_C_plus_plus_11:
    case DW_LANG_C_plus_plus_14:
    case DW_LANG_C_plus_plus_17:
    case DW_LANG_C_plus_plus_20:
    case DW_LANG_ObjC_plus_plus:
    case DW_LANG_D:
    case DW_LANG_Rust:
        return true;
    default:
        return false;
    }
}

static bool take_row(krv_handle_t *hp, const krv_row_t &row, source_place *place)
{
    const char *path = row.file == nullptr ? nullptr : korva_lnfe_path(hp, row.file, B_TRUE);
    if (row.file != nullptr && path == nullptr && korva_handle_get_errno(hp) != KRV_ERR_NONE)
        return false;
    *place = {path, row.line, row.column, row.discriminator};
    return true;
}

bool find_place(krv_handle_t *hp, krv_ctu_t *unit, uint64_t start, uint64_t size, uint64_t address, source_place *place)
{
    krv_row_t row;
    return korva_lookup_row(hp, unit, start, size, address, &row) == 0 && take_row(hp, row, place);
}

void check_memory(krv_handle_t *hp)
{
    const int code = korva_handle_get_errno(hp);
    if (code == KRV_ERR_NOMEM)
        throw std::bad_alloc();
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    if (code == KRV_ERR_EXT_LIMIT)
        throw failure(KRV_ELF_ERR_LIMIT, count == 0 ? "the budget is used up" : messages[0]);
}

static krv_elf_frame_t nothing_known()
{
    krv_elf_frame_t frame = {};
    frame.function = frame.linkage_name = frame.file = "";
    return frame;
}

// A name as it is shown. What is made for it is kept, in its bound.
const char *symbolizer::shown(const char *name, unsigned int flags)
{
    if ((flags & KRV_ELF_FRAMES_F_DEMANGLE) == 0 || name[0] != '_')
        return name;
    const auto known = plain.find(name);
    if (known != plain.end())
        return known->second.empty() ? name : known->second.c_str();
    if (kept_text >= most_text)
        return name;
    const std::string &fresh = plain.emplace(name, demangle(name)).first->second;
    constexpr size_t NODE = 96; // what a name takes beside its text, about
    kept_text += fresh.size() + NODE;
    return fresh.empty() ? name : fresh.c_str();
}

namespace
{

// Where the parts of a function begin, as those that are run often and seldom: the first few.
struct beginnings {
    std::array<uint64_t, 4> at = {};
    size_t count = 0;

    beginnings(krv_handle_t *hp, const krv_entry_t &function) { korva_entry_iter_ranges(hp, &function, take, this); }

    static int take(krv_handle_t *, const krv_range_t *range, void *arg)
    {
        auto &all = *static_cast<beginnings *>(arg);
        all.at[all.count++] = range->start;
        return all.count == all.at.size() ? 1 : 0;
    }
};

} // namespace

// The mangled name of the function that begins there, or NULL.
const char *symbolizer::mangled_symbol(uint64_t start)
{
    const krv_elf_symbol_t *symbol = symbols.find(start);
    const bool is_it = symbol != nullptr && symbol->address == start && symbol->name[0] == '_' &&
                       std::strchr(symbol->name, '@') == nullptr;
    return is_it && shown(symbol->name, KRV_ELF_FRAMES_F_DEMANGLE) != symbol->name ? symbol->name : nullptr;
}

bool symbolizer::take_symbol(uint64_t address, unsigned int flags, krv_elf_frame_t *frame)
{
    const krv_elf_symbol_t *symbol = symbols.find(address);
    if (symbol == nullptr)
        return false;
    const char *base = symbol->name;
    if (const char *version = std::strchr(base, '@')) {
        const auto [at, is_fresh] = bases.try_emplace(base, base, version);
        kept_text += is_fresh ? at->second.size() : 0;
        base = at->second.c_str();
    }
    frame->function = shown(base, flags);
    frame->linkage_name = symbol->name;
    frame->start = symbol->address;
    frame->origin = KRV_ELF_FRAME_SYMBOLS;
    return true;
}

krv_elf_frame_t symbolizer::frame_of(const krv_call_t &call, uint64_t address, unsigned int flags)
{
    krv_elf_frame_t frame = nothing_known();
    const char *mangled = call.linkage_name;
    frame.unit = call.entry.unit;
    frame.is_inlined = call.is_inlined != 0;
    if (!frame.is_inlined) {
        frame.start = call.start;
        if (mangled == nullptr && mangles_names(call.language)) {
            const beginnings parts(hp, call.entry);
            for (size_t i = 0; i < parts.count && mangled == nullptr; ++i)
                mangled = mangled_symbol(parts.at[i]);
        }
        if (mangled == nullptr && call.name == nullptr && take_symbol(address, flags, &frame))
            return frame;
    }
    frame.origin = KRV_ELF_FRAME_ENTRIES;
    if (mangled != nullptr)
        frame.linkage_name = mangled;
    frame.function = mangled != nullptr ? shown(mangled, flags) : call.name != nullptr ? call.name : "";
    return frame;
}

// For an address that no row is known for: rows of its function may answer for one between two sequences; outside any
// function none may. False with the handle's error.
bool symbolizer::find_gap(uint64_t address, krv_ctu_t *unit, source_place *place)
{
    if (find_place(hp, unit, address, 1, address, place))
        return true;
    const krv_elf_symbol_t *function = korva_handle_get_errno(hp) == KRV_ERR_NOTFOUND ? symbols.find(address) : nullptr;
    return function != nullptr && find_place(hp, unit, function->address, function->size, address, place);
}

bool symbolizer::place_innermost(uint64_t address, const looked_up &known, krv_elf_frame_t *frame)
{
    krv_ctu_t *unit = frame->unit != nullptr ? frame->unit : known.unit;
    if (unit == nullptr)
        unit = korva_lookup_ctu_by_addr(hp, address, KRV_LOOKUP_F_NONE);
    source_place place;
    const bool is_placed = unit != nullptr && (known.row.number != KRV_ROW_NONE ? take_row(hp, known.row, &place)
                                                                                : find_gap(address, unit, &place));
    if (!is_placed) {
        check_memory(hp);
        return false;
    }
    frame->unit = unit;
    frame->file = place.path == nullptr ? "" : place.path;
    frame->line = place.line;
    frame->column = place.column;
    frame->discriminator = place.discriminator;
    frame->has_row = 1;
    return true;
}

void symbolizer::place_caller(const krv_call_t &call, krv_elf_frame_t *caller)
{
    krv_lnfe_t *file = nullptr;
    const char *path = nullptr;
    if (call.call_unit != nullptr && korva_cu_get_file(hp, call.call_unit, call.call_file, &file) == 0 &&
        (path = korva_lnfe_path(hp, file, B_TRUE)) != nullptr)
        caller->file = path;
    else
        check_memory(hp);
    caller->line = call.call_line;
    caller->column = call.call_column;
    caller->discriminator = call.discriminator;
}

size_t symbolizer::describe(uint64_t address, unsigned int flags, const looked_up &known, krv_elf_frame_t *frames,
                            size_t room)
{
    krv_elf_frame_t innermost = nothing_known();
    const bool has_functions = (flags & KRV_ELF_FRAMES_F_NO_FUNCTIONS) == 0;
    bool is_named = known.count != 0;
    if (is_named)
        innermost = frame_of(known.calls[0], address, flags);
    else if (has_functions)
        is_named = take_symbol(address, flags, &innermost);
    const bool is_placed = place_innermost(address, known, &innermost);
    if (!has_functions && !is_placed)
        is_named = take_symbol(address, flags, &innermost);
    if (!is_placed && !is_named)
        return 0;
    if (room != 0)
        frames[0] = innermost;
    for (size_t i = 1; i < std::min(room, known.count); ++i) {
        frames[i] = frame_of(known.calls[i], address, flags);
        place_caller(known.calls[i - 1], &frames[i]);
    }
    return std::max<size_t>(known.count, 1);
}

size_t symbolizer::find(uint64_t address, unsigned int flags, krv_elf_frame_t *frames, size_t room)
{
    looked_up known = {};
    const auto look_up = [&](size_t most) {
        calls.resize(std::max(calls.size(), most));
        if (korva_lookup_chain(hp, address, &known.row, calls.data(), calls.size(), &known.count) != 0) {
            check_memory(hp);
            known = {};
            known.row.number = KRV_ROW_NONE;
        }
    };
    if ((flags & KRV_ELF_FRAMES_F_NO_FUNCTIONS) != 0) {
        if (korva_lookup_rows(hp, &address, 1, KRV_LOOKUP_F_NONE, &known.unit, &known.row) != 0) {
            check_memory(hp);
            known.row.number = KRV_ROW_NONE;
        }
    } else {
        look_up(16);
        if (std::min(known.count, room) > calls.size())
            look_up(std::min(known.count, room));
    }
    known.calls = calls.data();
    return describe(address, flags, known, frames, room);
}

} // namespace krv_elf_loader
