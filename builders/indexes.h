// SPDX-License-Identifier: Apache-2.0
//
// Indexes of names, with sound defaults; what they list may be anything.
#ifndef KRV_BUILDERS_INDEXES_H
#define KRV_BUILDERS_INDEXES_H

#include "builders/sections.h"

#include <algorithm>

namespace krv_test
{

// One index of .debug_names.
struct name_index {
    struct entry {
        std::string name;
        uint64_t unit, die; // number of the unit; from its first byte
        uint64_t tag = DW_TAG_subprogram;
    };
    bool dwarf64 = false;
    uint16_t version = 5;
    std::string augmentation = "LLVM0700"; // a multiple of 4
    std::vector<uint64_t> units = {};
    uint32_t buckets = 2; // 0: no hash table
    std::vector<entry> entries = {};
    number abbrevs_size = {};

    static uint32_t hash(const std::string &name)
    {
        uint32_t h = 5381;
        for (const char c : name)
            h = h * 33 + static_cast<uint8_t>(c >= 'A' && c <= 'Z' ? c + 32 : c);
        return h;
    }

    // The names are added to the strings.
    bytes build(bytes *strings) const
    {
        std::vector<std::string> names;
        for (const entry &e : entries)
            if (std::find(names.begin(), names.end(), e.name) == names.end())
                names.push_back(e.name);
        const auto bucket_of = [this](const std::string &name) { return buckets == 0 ? 0 : hash(name) % buckets; };
        std::stable_sort(names.begin(), names.end(),
                         [&](const std::string &a, const std::string &b) { return bucket_of(a) < bucket_of(b); });
        bytes table, hashes, text, places, pool;
        for (uint32_t bucket = 0; bucket < buckets; ++bucket) {
            const auto first =
                std::find_if(names.begin(), names.end(), [&](const std::string &n) { return bucket_of(n) == bucket; });
            table.u32(first == names.end() ? 0 : first - names.begin() + 1);
        }
        for (const std::string &name : names) {
            hashes.u32(hash(name));
            text.offset(dwarf64, strings->size());
            strings->cstr(name);
            places.offset(dwarf64, pool.size());
            for (const entry &e : entries)
                if (e.name == name)
                    pool.uleb(e.tag).uleb(e.unit).u32(e.die);
            pool.u8(0);
        }
        bytes abbrev; // compile_unit, die_offset, parent
        for (const uint64_t tag : {DW_TAG_subprogram, DW_TAG_variable})
            abbrev.uleb(tag).uleb(tag).uleb(1).uleb(0x0f).uleb(3).uleb(0x13).uleb(4).uleb(0x19).u8(0).u8(0);
        abbrev.u8(0);
        bytes b = bytes().u16(version).u16(0).u32(units.size()).u32(0).u32(0).u32(buckets).u32(names.size());
        b.u32(abbrevs_size.value_or(abbrev.size())).u32(augmentation.size());
        for (const char c : augmentation)
            b.u8(static_cast<uint8_t>(c));
        for (const uint64_t offset : units)
            b.offset(dwarf64, offset);
        b.add(table).add(buckets == 0 ? bytes() : hashes).add(text).add(places).add(abbrev).add(pool);
        return bytes().unit_length(dwarf64, b.size()).add(b);
    }
};

// .gdb_index
struct gdb_index {
    struct symbol {
        std::string name;
        std::vector<uint32_t> units; // as written, with what the name is
    };
    uint32_t version = 7;
    std::vector<std::pair<uint64_t, uint64_t>> units = {}; // offset and size
    std::vector<symbol> symbols = {};
    number pool_offset = {};

    static uint32_t function(uint32_t unit) { return unit | 3U << 28; }

    bytes build() const
    {
        bytes list, table, pool;
        for (const auto &[offset, size] : units)
            list.u64(offset).u64(size);
        for (const symbol &s : symbols) {
            const size_t vector = pool.size();
            pool.u32(s.units.size());
            for (const uint32_t unit : s.units)
                pool.u32(unit);
            table.u32(pool.size()).u32(vector).u64(0); // and an empty slot
            pool.cstr(s.name);
        }
        bytes b = bytes().u32(version);
        const size_t first = version == 9 ? 28 : 24;
        for (const size_t at : {first, first + list.size(), first + list.size()})
            b.u32(at);
        b.u32(first + list.size());
        for (unsigned i = version == 9 ? 0 : 1; i < 2; ++i)
            b.u32(pool_offset.value_or(first + list.size() + table.size()));
        return b.add(list).add(table).add(pool);
    }
};

// A set of .debug_pubnames, or, with flags, of .debug_gnu_pubnames.
struct name_set {
    uint64_t unit = 0, unit_size = 0;
    std::vector<std::pair<uint64_t, std::string>> names = {}; // from the unit's first byte
    bool flags = false;

    bytes build() const
    {
        bytes b = bytes().u16(2).u32(unit).u32(unit_size);
        for (const auto &[die, name] : names)
            (flags ? b.u32(die).u8(0x30) : b.u32(die)).cstr(name);
        return bytes().block(4, b.u32(0));
    }
};

} // namespace krv_test

#endif
