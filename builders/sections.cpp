// SPDX-License-Identifier: Apache-2.0
#include "builders/sections.h"

#include "krv_names.h"

#include <algorithm>
#include <sstream>

namespace krv_test
{

// A part with its length in front: as given, else the size of what follows.
static bytes with_length(bool dwarf64, number length, const bytes &rest)
{
    return bytes().unit_length(dwarf64, length.value_or(rest.size())).add(rest);
}

// The value of a constant by its name without prefix, or of a number.
static uint64_t value_of(krv_def_t index, const char *prefix, const std::string &name)
{
    for (unsigned int key = 0; key < 0x10000; ++key)
        if (const char *known = krv_print_define(index, key); known != nullptr && prefix + name == known)
            return key;
    return std::stoull(name, nullptr, 0);
}

// As it is written, those of extensions included.
static uint64_t form_of(const std::string &name)
{
#define KRV_IF_NAMED(known, written, ...)                                                                              \
    if ("DW_FORM_" + name == #known)                                                                                   \
        return written;
    KRV_DW_FORM_NEW(KRV_IF_NAMED)
#undef KRV_IF_NAMED
    return value_of(KRV_DEF_FORM, "DW_FORM_", name);
}

bytes abbrevs(const std::string &recipe)
{
    bytes b;
    std::istringstream table(recipe);
    for (std::string one, code, tag, pair; std::getline(table, one, ';');) {
        std::istringstream in(one);
        in >> code >> tag;
        const bool children = tag.back() == '+';
        b.uleb(std::stoull(code)).uleb(value_of(KRV_DEF_TAG, "DW_TAG_", tag.substr(0, tag.size() - children)));
        b.u8(children);
        while (in >> pair) {
            const size_t colon = pair.find(':');
            b.uleb(value_of(KRV_DEF_AT, "DW_AT_", pair.substr(0, colon)));
            const size_t equal = std::min(pair.find('='), pair.size());
            b.uleb(form_of(pair.substr(colon + 1, equal - colon - 1)));
            if (equal != pair.size())
                b.sleb(std::stoll(pair.substr(equal + 1)));
        }
        b.uleb(0).uleb(0);
    }
    return b.uleb(0);
}

bytes unit::build() const
{
    bytes rest;
    rest.u16(version);
    if (kind == 0)
        rest.offset(dwarf64, abbrev_offset).u8(address_size);
    else
        rest.u8(kind).u8(address_size).offset(dwarf64, abbrev_offset);
    rest.add(extra).add(dies);
    return with_length(dwarf64, unit_length, rest).seal();
}

bytes aranges_set::build(size_t section_offset) const
{
    const size_t header = dwarf64 ? 24 : 12, tuple_size = segment_size + 2UL * address_size;
    const size_t misfit = tuple_size == 0 ? 0 : (section_offset + header) % tuple_size;
    bytes rest;
    rest.u16(version).offset(dwarf64, info_offset).u8(address_size).u8(segment_size);
    rest.fill(padding.value_or(misfit == 0 ? 0 : tuple_size - header % tuple_size));
    for (const tuple &t : tuples)
        rest.uint(t.selector, segment_size).uint(t.address, address_size).uint(t.length, address_size);
    if (terminated)
        rest.fill(tuple_size);
    return with_length(dwarf64, unit_length, rest);
}

bytes line_unit::build() const
{
    static const bytes standard_lengths = bytes::hex("00 01 01 01 01 00 00 00 01 00 00 01");

    bytes header; // what header_length counts
    header.u8(mil);
    if (version == 4 || v5)
        header.u8(mopi);
    header.u8(default_is_stmt).u8(static_cast<uint8_t>(line_base)).u8(line_range).u8(opcode_base);
    if (opcode_lengths)
        header += *opcode_lengths;
    else
        for (size_t i = 0; i + 1 < opcode_base; ++i)
            header.u8(i < standard_lengths.size() ? standard_lengths.data()[i] : 0);
    if (tables) {
        header += *tables;
    } else if (v5) {
        header.add(bytes::hex("01 01 08")).uleb(dirs.size()); // path:string
        for (const std::string &dir : dirs)
            header.cstr(dir);
        header.add(bytes::hex("04 01 08 02 0b 03 06 04 0f"))
            .uleb(files.size()); // directory, time and size of each kind
        for (const file &f : files)
            header.cstr(f.path).u8(f.dir).u32(f.mtime).uleb(f.size);
    } else {
        for (const std::string &dir : dirs)
            header.cstr(dir);
        header.u8(0);
        for (const file &f : files)
            header.cstr(f.path).uleb(f.dir).uleb(f.mtime).uleb(f.size);
        header.u8(0);
    }

    bytes rest;
    rest.u16(v5 ? 5 : version);
    if (v5)
        rest.u8(8).u8(0); // address_size, segment_selector_size
    rest.offset(dwarf64, header_length.value_or(header.size())).add(header).add(program);
    return with_length(dwarf64, unit_length, rest);
}

namespace
{

struct word {
    const char *name;
    bool extended;
    uint8_t opcode;
    const char *operands; // u, s: LEB128; 2: two bytes; a: address; n: name
};

const word words[] = {
    {"copy", false, DW_LNS_copy, ""},
    {"pc", false, DW_LNS_advance_pc, "u"},
    {"line", false, DW_LNS_advance_line, "s"},
    {"file", false, DW_LNS_set_file, "u"},
    {"col", false, DW_LNS_set_column, "u"},
    {"stmt", false, DW_LNS_negate_stmt, ""},
    {"bb", false, DW_LNS_set_basic_block, ""},
    {"const_pc", false, DW_LNS_const_add_pc, ""},
    {"fixed", false, DW_LNS_fixed_advance_pc, "2"},
    {"pe", false, DW_LNS_set_prologue_end, ""},
    {"eb", false, DW_LNS_set_epilogue_begin, ""},
    {"isa", false, DW_LNS_set_isa, "u"},
    {"end", true, DW_LNE_end_sequence, ""},
    {"at", true, DW_LNE_set_address, "a"},
    {"def", true, DW_LNE_define_file, "nuuu"},
    {"disc", true, DW_LNE_set_discriminator, "u"},
};

} // namespace

static bytes operand(char kind, const std::string &text, size_t address_size)
{
    switch (kind) {
    case 'u':
        return bytes().uleb(std::stoull(text));
    case 's':
        return bytes().sleb(std::stoll(text));
    case '2':
        return bytes().u16(std::stoull(text));
    case 'a':
        return bytes().uint(std::stoull(text, nullptr, 16), address_size);
    default:
        return bytes().cstr(text);
    }
}

bytes program(std::string_view recipe, size_t address_size)
{
    std::istringstream in{std::string(recipe)};
    bytes b;
    std::string name, text;
    while (in >> name) {
        const auto *w = std::find_if(std::begin(words), std::end(words), [&](const word &x) { return name == x.name; });
        bytes operands;
        if (w == std::end(words)) { // sp, byte, ext
            in >> text;
            if (name == "ext")
                b.u8(0).block_uleb(bytes().uleb(std::stoull(text)));
            else
                b.u8(std::stoull(text));
            continue;
        }
        for (const char *kind = w->operands; *kind != '\0'; ++kind) {
            in >> text;
            operands += operand(*kind, text, address_size);
        }
        if (w->extended)
            b.u8(0).block_uleb(bytes().uleb(w->opcode).add(operands));
        else
            b.u8(w->opcode).add(operands);
    }
    return b;
}

} // namespace krv_test
