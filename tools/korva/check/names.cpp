// SPDX-License-Identifier: Apache-2.0
//
// The indexes of names: whether they can be read, and the units and entries that they list are there.
#include "check/subject.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace korva::program::check
{

namespace
{

/** An index, while it is read. */
class index_checker
{
public:
    index_checker(subject *of, krv_secidx_t section, const char *name)
        : m_of(of), m_name(name), m_bytes(of->handle(), section), m_strings(of->handle(), KRV_SEC_STR)
    {
    }

    void check_pubnames(bool has_kinds);
    void check_debug_names();
    void check_gdb_index();

private:
    /** Abbreviations of .debug_names: pairs of DW_IDX_* and form, by code. */
    using abbreviations = std::map<uint64_t, std::vector<std::pair<uint64_t, uint64_t>>>;
    /** Where the parts of an index of .debug_names begin. */
    struct parts {
        uint64_t at, end;
        unsigned width;
        uint64_t units, local_types, foreign_types, buckets, names;
        uint64_t unit_list, bucket_list, hash_list, string_list, entry_list, abbreviation_list, pool;
    };

    void add(uint64_t at, std::string message)
    {
        m_of->found().add(kind::name_index, {.section = m_name, .offset = at}, std::move(message));
    }
    bool is_entry(uint64_t offset) const
    {
        return offset < m_of->size_of(KRV_SEC_INFO) && m_of->entry_starts.has(offset);
    }

    uint64_t check_set(uint64_t at, bool has_kinds);
    uint64_t check_index(uint64_t at);
    bool read_abbreviations(const parts &p, abbreviations *into);
    void check_buckets(const parts &p);
    void check_hash(const parts &p, uint64_t name, uint64_t string);
    void check_entries(const parts &p, const abbreviations &known);
    bool check_entry(const parts &p, byte_reader *pool, const std::vector<std::pair<uint64_t, uint64_t>> &values,
                     uint64_t at);

    subject *m_of;
    const char *m_name;
    section_bytes m_bytes;
    section_bytes m_strings;
    uint64_t m_budget = 0;
};

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// .debug_pubnames, .debug_gnu_pubnames (DWARF 4, 6.1.1)
// ---------------------------------------------------------------------------------------------------------------

uint64_t index_checker::check_set(uint64_t at, bool has_kinds)
{
    byte_reader set = m_bytes.read(at);
    unsigned width = 4;
    const uint64_t length = set.unit_length(&width), first = set.at();
    if (set.failed() || length > set.left()) {
        add(at, fmt::format("the set of 0x{:x} bytes leads out of the section", length));
        return m_bytes.size();
    }
    set.limit(length);
    const uint64_t version = set.number(2), unit = set.number(width), size = set.number(width);
    const unit_facts *known = m_of->unit_at(unit);
    if (set.failed() || version != 2)
        add(at, set.failed() ? "the set is cut off" : fmt::format("a set of version {}", version));
    else if (known == nullptr)
        add(at, fmt::format("no unit begins at 0x{:x}", unit));
    else
        while (set.left() != 0) {
            const uint64_t where = set.at(), entry = set.number(width);
            if (!set.failed() && entry == 0)
                break;
            set.skip(has_kinds ? 1 : 0);
            set.string();
            if (set.failed())
                add(where, "the set has no end");
            else if (known->kind.dwo_name == nullptr && (entry >= size || !is_entry(unit + entry)))
                add(where, fmt::format("a name of 0x{:x}, where no entry begins", unit + entry));
            else
                continue;
            break;
        }
    return first + length;
}

void index_checker::check_pubnames(bool has_kinds)
{
    for (uint64_t at = 0; at < m_bytes.size();)
        at = check_set(at, has_kinds);
}

// ---------------------------------------------------------------------------------------------------------------
// .debug_names (DWARF 5, 6.1.1)
// ---------------------------------------------------------------------------------------------------------------

bool index_checker::read_abbreviations(const parts &p, abbreviations *into)
{
    byte_reader table = m_bytes.read(p.abbreviation_list);
    table.limit(p.pool - p.abbreviation_list);
    while (table.left() != 0) {
        const uint64_t code = table.leb128();
        if (code == 0)
            return !table.failed();
        table.leb128(); // the tag
        auto &values = (*into)[code];
        values.clear();
        for (uint64_t index = 1, form = 1; index != 0 || form != 0;) {
            index = table.leb128();
            form = table.leb128();
            if (table.failed())
                return false;
            if (index != 0 || form != 0)
                values.emplace_back(index, form);
        }
    }
    return !table.failed();
}

// Buckets lead to the names whose hashes belong there (DWARF 5, 6.1.1.4.5).
void index_checker::check_buckets(const parts &p)
{
    byte_reader buckets = m_bytes.read(p.bucket_list);
    for (uint64_t i = 0; i < p.buckets; ++i) {
        const uint64_t at = buckets.at(), name = buckets.number(4);
        if (name == 0)
            continue;
        if (name > p.names) {
            add(at, fmt::format("bucket {} leads to name {}, of {}", i, name, p.names));
            continue;
        }
        const uint64_t hash = m_bytes.read(p.hash_list + (name - 1) * 4).number(4);
        if (hash % p.buckets != i)
            add(at,
                fmt::format("bucket {} leads to name {}, whose hash belongs to bucket {}", i, name, hash % p.buckets));
    }
}

// False: what follows cannot be read.
bool index_checker::check_entry(const parts &p, byte_reader *pool,
                                const std::vector<std::pair<uint64_t, uint64_t>> &values, uint64_t at)
{
    constexpr uint64_t DW_IDX_compile_unit = 1, DW_IDX_type_unit = 2, DW_IDX_die_offset = 3;
    std::optional<uint64_t> unit, type_unit, entry;
    for (const auto &[index, form] : values) {
        uint64_t value = 0;
        switch (form) {
        case 0x0b: // DW_FORM_data1, ref1, flag
        case 0x11:
        case 0x0c:
            value = pool->number(1);
            break;
        case 0x05: // data2, ref2
        case 0x12:
            value = pool->number(2);
            break;
        case 0x06: // data4, ref4
        case 0x13:
            value = pool->number(4);
            break;
        case 0x07: // data8, ref8, ref_sig8
        case 0x14:
        case 0x20:
            value = pool->number(8);
            break;
        case 0x0f: // udata, ref_udata
        case 0x15:
            value = pool->leb128();
            break;
        case 0x19: // flag_present
            break;
        default:
            add(at, fmt::format("a value of the form 0x{:x}", form));
            return false;
        }
        if (index == DW_IDX_compile_unit)
            unit = value;
        else if (index == DW_IDX_type_unit)
            type_unit = value;
        else if (index == DW_IDX_die_offset)
            entry = value;
    }
    if (pool->failed()) {
        add(at, "an entry that leads out of the index");
        return false;
    }
    uint64_t number = unit.value_or(0), count = p.units; // without one where there is only one
    if (type_unit) {
        if (*type_unit >= p.local_types)
            return true; // in another file
        number = p.units + *type_unit;
        count = p.units + p.local_types;
    }
    const uint64_t start = number < count ? m_bytes.read(p.unit_list + number * p.width).number(p.width) : NOWHERE;
    const unit_facts *known = m_of->unit_at(start);
    if (known == nullptr)
        add(at, fmt::format("an entry of unit {}, which is not there", number));
    else if (entry && known->kind.dwo_name == nullptr && (*entry >= known->header.size || !is_entry(start + *entry)))
        add(at, fmt::format("an entry at 0x{:x}, where none begins", start + *entry));
    return true;
}

// Of names in ASCII: for others capital letters have to be known (DWARF 5, 6.1.1.4.5). Names may overlap: the long ones are left.
void index_checker::check_hash(const parts &p, uint64_t name, uint64_t string)
{
    constexpr uint64_t LONGEST = 4096;
    uint32_t hash = 5381;
    for (uint64_t i = string; p.buckets != 0 && i < m_strings.size() && i - string < LONGEST; ++i) {
        const uint8_t c = m_strings.data()[i];
        if (c >= 0x80)
            return;
        if (c != 0) {
            hash = hash * 33 + (c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
            continue;
        }
        const uint64_t at = p.hash_list + name * 4, told = m_bytes.read(at).number(4);
        if (told != hash)
            add(at, fmt::format("name {} has the hash 0x{:x}, and not 0x{:x}", name + 1, hash, told));
        return;
    }
}

void index_checker::check_entries(const parts &p, const abbreviations &known)
{
    for (uint64_t name = 0; name < p.names; ++name) {
        const uint64_t string = m_bytes.read(p.string_list + name * p.width).number(p.width);
        const uint64_t offset = m_bytes.read(p.entry_list + name * p.width).number(p.width);
        if (string >= m_strings.size())
            add(p.string_list + name * p.width,
                fmt::format("name {} is at 0x{:x}, out of .debug_str", name + 1, string));
        else
            check_hash(p, name, string);
        if (offset >= p.end - p.pool) {
            add(p.entry_list + name * p.width, fmt::format("the entries of name {} are out of the index", name + 1));
            continue;
        }
        byte_reader pool = m_bytes.read(p.pool + offset);
        pool.limit(p.end - p.pool - offset);
        for (;;) {
            const uint64_t at = pool.at(), code = pool.leb128();
            const auto abbreviation = known.find(code);
            if (code == 0 && !pool.failed())
                break;
            if (pool.failed() || abbreviation == known.end()) {
                add(at, pool.failed() ? fmt::format("the entries of name {} have no end", name + 1)
                                      : fmt::format("an entry of abbreviation {}, which is not there", code));
                break;
            }
            const bool goes_on = check_entry(p, &pool, abbreviation->second, at);
            const uint64_t cost = pool.at() - at + abbreviation->second.size();
            if (m_budget < cost) {
                m_of->found().add(kind::unchecked, {.section = m_name, .offset = p.at},
                                  "names share entries too often");
                return;
            }
            m_budget -= cost;
            if (!goes_on)
                break;
        }
    }
}

uint64_t index_checker::check_index(uint64_t at)
{
    byte_reader header = m_bytes.read(at);
    parts p = {};
    p.at = at;
    const uint64_t length = header.unit_length(&p.width);
    p.end = header.at() + length;
    if (header.failed() || length > header.left()) {
        add(at, "the index leads out of the section");
        return m_bytes.size();
    }
    header.limit(length);
    const uint64_t version = header.number(2);
    header.skip(2);
    for (uint64_t *count : {&p.units, &p.local_types, &p.foreign_types, &p.buckets, &p.names})
        *count = header.number(4);
    const uint64_t abbreviations_size = header.number(4), augmentation_size = header.number(4);
    header.skip((augmentation_size + 3) / 4 * 4);
    p.unit_list = header.at(); // counts of 32 bits: no sum wraps
    p.bucket_list = p.unit_list + (p.units + p.local_types) * p.width + p.foreign_types * 8;
    p.hash_list = p.bucket_list + p.buckets * 4;
    p.string_list = p.hash_list + (p.buckets == 0 ? 0 : p.names * 4);
    p.entry_list = p.string_list + p.names * p.width;
    p.abbreviation_list = p.entry_list + p.names * p.width;
    p.pool = p.abbreviation_list + abbreviations_size;
    if (header.failed() || version != 5 || p.pool > p.end) {
        add(at, header.failed() ? "the header is cut off"
                : version != 5  ? fmt::format("an index of version {}", version)
                                : "the tables lead out of the index");
        return p.end;
    }
    for (uint64_t i = 0; i < p.units + p.local_types; ++i) {
        const uint64_t unit = m_bytes.read(p.unit_list + i * p.width).number(p.width);
        if (m_of->unit_at(unit) == nullptr)
            add(p.unit_list + i * p.width, fmt::format("no unit begins at 0x{:x}", unit));
    }
    abbreviations known;
    if (!read_abbreviations(p, &known))
        add(p.abbreviation_list, "the abbreviations are cut off");
    check_buckets(p);
    check_entries(p, known);
    return p.end;
}

void index_checker::check_debug_names()
{
    m_budget = 8 * m_bytes.size() + (1 << 20);
    for (uint64_t at = 0; at < m_bytes.size();)
        at = check_index(at);
}

// ---------------------------------------------------------------------------------------------------------------
// .gdb_index
// ---------------------------------------------------------------------------------------------------------------

void index_checker::check_gdb_index()
{
    if (m_bytes.size() == 0)
        return;
    byte_reader header = m_bytes.read();
    const uint64_t version = header.number(4);
    const uint64_t units = header.number(4), types = header.number(4), areas = header.number(4),
                   symbols = header.number(4), pool = header.number(4);
    if (header.failed() || version < 7 || version > 8 || units > types || types > areas || areas > symbols ||
        symbols > pool || pool > m_bytes.size()) {
        add(0, header.failed() ? "the header is cut off"
                               : fmt::format("a header of version {}, with tables that are not in order", version));
        return;
    }
    const uint64_t unit_count = (types - units) / 16, type_count = (areas - types) / 24;
    byte_reader list = m_bytes.read(units);
    for (uint64_t i = 0; i < unit_count; ++i) {
        const uint64_t at = list.at(), unit = list.number(8);
        list.skip(8); // its bytes
        if (m_of->unit_at(unit) == nullptr)
            add(at, fmt::format("no unit begins at 0x{:x}", unit));
    }
    byte_reader area = m_bytes.read(areas);
    for (uint64_t i = 0; i < (symbols - areas) / 20; ++i) {
        const uint64_t at = area.at(), start = area.number(8), end = area.number(8), unit = area.number(4);
        if (unit >= unit_count || end < start)
            add(at, fmt::format("addresses from 0x{:x} to 0x{:x}, of unit {}", start, end, unit));
    }
    byte_reader table = m_bytes.read(symbols);
    uint64_t budget = 8 * m_bytes.size();
    for (uint64_t i = 0; i < (pool - symbols) / 8 && budget != 0; ++i) {
        const uint64_t at = table.at(), name = table.number(4), vector = table.number(4);
        if (name == 0 && vector == 0)
            continue; // no symbol
        byte_reader numbers = m_bytes.read(pool + vector);
        const uint64_t count = numbers.number(4);
        if (numbers.failed() || count > numbers.left() / 4 || pool + name >= m_bytes.size()) {
            add(at, "a symbol that leads out of the section");
            continue;
        }
        for (uint64_t n = 0; n < count; ++n)
            if ((numbers.number(4) & 0xffffff) >= unit_count + type_count) {
                add(at, "a symbol of a unit that is not listed");
                break;
            }
        budget -= std::min(budget, 4 * count + 4);
    }
    if (budget == 0)
        m_of->found().add(kind::unchecked, {.section = m_name, .offset = symbols},
                          "symbols share lists of units too often");
}

void check_names(subject *of)
{
    index_checker(of, KRV_SEC_PUBNAMES, ".debug_pubnames").check_pubnames(false);
    index_checker(of, KRV_SEC_PUBTYPES, ".debug_pubtypes").check_pubnames(false);
    index_checker(of, KRV_SEC_EXT_GNU_PUBNAMES, ".debug_gnu_pubnames").check_pubnames(true);
    index_checker(of, KRV_SEC_EXT_NAMES, ".debug_names").check_debug_names();
    index_checker(of, KRV_SEC_EXT_GDB_INDEX, ".gdb_index").check_gdb_index();
}

} // namespace korva::program::check
