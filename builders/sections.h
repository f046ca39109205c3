// SPDX-License-Identifier: Apache-2.0
//
// Parts of debugging sections, with sound defaults. Any single field can be written wrong: what is computed otherwise
// (lengths, paddings) is taken as given when it is set. A section is the sum of its parts:
//
//     h.attach(KRV_SEC_ABBREV, abbrevs("1 compile_unit name:string"));
//     h.attach(KRV_SEC_INFO, unit{.dies = bytes().uleb(1).cstr("main.c")}.build());
//     h.attach(KRV_SEC_LINE, line_unit{.program = program("at 400 copy pc 4 end")}.build());
#ifndef KRV_BUILDERS_SECTIONS_H
#define KRV_BUILDERS_SECTIONS_H

#include "builders/bytes.h"
#include "krv_dwarf.h"

#include <optional>

namespace krv_test
{

using number = std::optional<uint64_t>; // a field that is computed unless it is set

// .debug_abbrev from its recipe, "1 compile_unit+ name:string low_pc:addr; 2 variable": the abbreviations of one table,
// each with its code, its tag (+ for children), and its attributes with their forms; names or numbers, and
// implicit_const=VALUE.
bytes abbrevs(const std::string &recipe);

// .debug_info

struct unit {
    bool dwarf64 = false;
    number unit_length = {};
    uint16_t version = 4;
    uint64_t abbrev_offset = 0;
    uint8_t address_size = 8;
    uint8_t kind = 0; // KRV_UNIT_*, of a header in the order of version 5; 0: in that of those before
    bytes extra = {}; // what a header has at its end: dwo_id, or, also before version 5, type_signature and type_offset
    bytes dies = {};  // entries; labels count from the unit's first byte, as DW_FORM_ref4 does
    size_t header_size() const { return (dwarf64 ? 23 : 11) + (kind == 0 ? 0 : 1) + extra.size(); }

    bytes build() const; // sealed
};

// .debug_aranges

struct aranges_set {
    struct tuple {
        uint64_t address = 0, length = 0, selector = 0;
    };
    bool dwarf64 = false;
    number unit_length = {};
    uint16_t version = 2;
    uint64_t info_offset = 0;
    uint8_t address_size = 8;
    uint8_t segment_size = 0;
    number padding = {};
    std::vector<tuple> tuples = {};
    bool terminated = true; // by the all-zero tuple

    bytes build(size_t section_offset = 0) const; // the padding depends on where in the section the set goes
};

// .debug_line

struct line_unit {
    struct file {
        std::string path;
        uint64_t dir = 0, mtime = 0, size = 0;
    };
    bool dwarf64 = false;
    number unit_length = {};
    uint16_t version = 3;
    bool v5 = false; // version 5, as it is: dirs and files are numbered from 0, their strings stand in the tables
    number header_length = {};
    uint8_t mil = 1;
    uint8_t mopi = 1; // written for version 4 and v5 only
    uint8_t default_is_stmt = 1;
    int8_t line_base = -5;
    uint8_t line_range = 14;
    uint8_t opcode_base = 13;
    std::optional<bytes> opcode_lengths = {};
    std::vector<std::string> dirs = {};
    std::vector<file> files = {{"a.c"}};
    std::optional<bytes> tables = {}; // instead of dirs and files, their terminators or formats included
    bytes program = {};

    bytes build() const;
};

// A line program from its recipe, "at 400 copy pc 4 line -1 copy end": words with their operands, decimal but for
// addresses. The words are opcodes in short; `sp N` is special opcode N, `ext N` an extended opcode without operands,
// and `byte N` anything. `def` takes name, directory, time and size.
bytes program(std::string_view recipe, size_t address_size = 8);

} // namespace krv_test

#endif
