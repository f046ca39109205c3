// SPDX-License-Identifier: Apache-2.0
//
// The core learns from .debug_aranges which addresses a unit covers, or from the bounds of the unit itself. Clang, Go
// and Rust write no such sets for units whose code lies in several ranges. They are made here: from DW_AT_ranges, else
// from the unit's functions. A set that names no unit or is damaged, at which the core would stop, and ranges of functions
// that the linker dropped, are left out.
#include "elf/dwarf_units.h"
#include "elf/pass.h"
#include "krv_dwarf.h"

#include <fmt/format.h>
#include <set>

namespace krv_elf_loader
{

namespace
{

constexpr uint16_t SET_VERSION = 2; // of .debug_aranges, in DWARF 2 to 4

struct unit_ranges {
    std::vector<address_range> ranges;
    bool has_set = false;
};

// What the section says, and what is wrong with it.
struct given_sets {
    std::map<uint64_t, unit_ranges> by_unit; // by the unit's offset
    size_t sets = 0;
    size_t homeless = 0;  // sets that name no unit
    size_t damaged = 0;   // sets that cannot be read to their end
    size_t misplaced = 0; // sets at an offset from which the core looks for their ranges elsewhere
    size_t dead = 0;      // ranges outside the file's code
    size_t repeated = 0;  // further sets of a unit: the core would take the last one only
    bool cut = false;     // the section ends within a set
};

// Attributes of an entry that tell where its code lies.
struct code_attributes {
    std::optional<uint64_t> low, high, ranges;
    bool high_is_length = false;

    bool bounded() const { return low && high; }
    address_range bounds() const { return {*low, high_is_length ? *low + *high : *high}; }
};

code_attributes read_code_attributes(cursor c, const unit &u, const abbreviation &abbrev)
{
    code_attributes found;
    for (const attribute_form &pair : abbrev.attributes) {
        const bool wanted = pair.name == DW_AT_low_pc || pair.name == DW_AT_high_pc || pair.name == DW_AT_ranges;
        if (wanted) {
            cursor value = c;
            const std::optional<size_t> width = fixed_width(u, pair.form);
            const uint64_t number = width && *width <= 8 ? value.number(*width) : value.uleb();
            const bool is_number = width || pair.form == DW_FORM_udata || pair.form == DW_FORM_sdata;
            if (value.ok() && is_number && pair.name == DW_AT_high_pc) {
                found.high = number;
                found.high_is_length = pair.form != DW_FORM_addr;
            } else if (value.ok() && is_number) {
                (pair.name == DW_AT_low_pc ? found.low : found.ranges) = number;
            }
        }
        if (!skip_value(&c, u, pair.form))
            break;
    }
    return found;
}

class ranges_pass
{
public:
    ranges_pass(view *shown, const char *pass_name)
        : v(shown), name(pass_name), info(shown->find(KRV_SEC_INFO)->bytes()),
          tables(shown->find(KRV_SEC_ABBREV)->bytes()), code(shown->file().code()), units(read_units(info))
    {
        if (const view_section *section = v->find(KRV_SEC_EXT_RANGES))
            debug_ranges = section->bytes();
        pairs_left = debug_ranges.size();
        std::string reason;
        unit u;
        for (uint64_t at = 0; at < info.size() && read_unit(info, at, &u, &reason); at += u.size)
            offsets.insert(at); // those of other versions too: the core sees them as empty units
    }

    void run()
    {
        view_section *section = v->find(KRV_SEC_ARANGES);
        if (section != nullptr)
            read_sets(section->bytes());
        const size_t synthesised = find_missing();
        if (synthesised == 0 && given.homeless == 0 && given.damaged == 0 && given.misplaced == 0 && given.dead == 0 &&
            given.repeated == 0 && !given.cut)
            return;
        if (section == nullptr)
            section = v->make(KRV_SEC_ARANGES, ".debug_aranges");
        section->copy.emplace();
        for (const unit &u : units)
            if (const auto found = given.by_unit.find(u.offset); found != given.by_unit.end())
                write_set(&*section->copy, u, found->second.ranges);
        tell(section->name, synthesised);
    }

private:
    // A dead range is of a function that the linker dropped.
    void add_range(unit_ranges *of, const address_range &range)
    {
        const bool alive = !range.empty() && (v->file().type() == ET_REL || code.empty() || code.hold(range));
        if (alive)
            of->ranges.push_back(range);
        else if (!range.empty())
            ++dead_found;
    }

    void read_sets(byte_span bytes)
    {
        cursor c(bytes);
        while (c.more()) {
            const uint64_t begin = c.at();
            krv_unit_length_t ul;
            if (c.unit_length(&ul) != krv_length_outcome_t::sound || ul.length > c.left()) {
                given.cut = true;
                return;
            }
            read_set(begin, cursor(bytes.first(ul.end), ul.first), ul.is_dwarf64 ? 8 : 4);
            c.seek(ul.end);
        }
        given.dead = dead_found;
        dead_found = 0;
    }

    void read_set(uint64_t begin, cursor set, size_t offset_size)
    {
        ++given.sets;
        const uint64_t version = set.number(2);
        const uint64_t unit_offset = set.number(offset_size);
        const size_t address_size = set.byte();
        const size_t segment_size = set.byte();
        if (!set.ok() || offsets.count(unit_offset) == 0) {
            ++given.homeless;
            return;
        }
        std::vector<address_range> ranges;
        if (version != SET_VERSION || segment_size != 0 || (address_size != 4 && address_size != 8) ||
            !read_tuples(begin, set, address_size, &ranges)) {
            ++given.damaged; // the unit counts as one without a set
            return;
        }
        unit_ranges &of = given.by_unit[unit_offset];
        given.repeated += of.has_set ? 1U : 0U;
        of.has_set = true;
        for (const address_range &range : ranges)
            add_range(&of, range);
    }

    // False when no tuple of zeros ends them.
    bool read_tuples(uint64_t begin, cursor set, size_t address_size, std::vector<address_range> *ranges)
    {
        const uint64_t tuple = 2 * address_size;
        const uint64_t header = set.at() - begin;
        const uint64_t padding = (tuple - header % tuple) % tuple;
        set.skip(padding);
        while (set.more()) {
            const uint64_t start = set.number(address_size);
            const uint64_t size = set.number(address_size);
            if (set.ok() && start == 0 && size == 0) {
                // Whether there is any, the core tells by where in the section the set stands.
                const uint64_t skipped = (begin + header) % tuple == 0 ? 0 : tuple - header % tuple;
                given.misplaced += skipped != padding ? 1U : 0U;
                return true;
            }
            if (set.ok() && size != 0)
                ranges->push_back({start, start + size});
        }
        return false;
    }

    // Finds the ranges of units without a set; returns for how many. A unit that has bounds needs none.
    size_t find_missing()
    {
        size_t found = 0;
        for (const unit &u : units) {
            if (const auto known = given.by_unit.find(u.offset); known != given.by_unit.end() && known->second.has_set)
                continue;
            unit_ranges of;
            find_ranges(u, &of);
            if (of.ranges.empty())
                continue;
            given.by_unit[u.offset] = std::move(of);
            ++found;
        }
        return found;
    }

    void find_ranges(const unit &u, unit_ranges *of)
    {
        const abbreviation_table &table = tables.at(u.abbrev_offset);
        bool is_root = true;
        uint64_t base = 0;
        walk_entries(info, u, table, [&](uint64_t, const abbreviation &abbrev, const cursor &values) {
            const bool root = is_root;
            is_root = false;
            if (!root && abbrev.tag != DW_TAG_subprogram)
                return true;
            const code_attributes a = read_code_attributes(values, u, abbrev);
            if (root) {
                base = a.low.value_or(0);
                if (a.bounded())
                    return false;
            }
            if (a.ranges)
                read_range_list(u, *a.ranges, base, of);
            else if (a.bounded())
                add_range(of, a.bounds());
            return !root || of->ranges.empty(); // what the unit says of itself is all of it
        });
    }

    // DWARF 4, 2.17.3.
    void read_range_list(const unit &u, uint64_t offset, uint64_t base, unit_ranges *of)
    {
        const uint64_t highest = u.address_size == 8 ? UINT64_MAX : UINT32_MAX;
        cursor c(debug_ranges, offset);
        for (; c.more() && pairs_left != 0; --pairs_left) {
            const uint64_t start = c.number(u.address_size);
            const uint64_t end = c.number(u.address_size);
            if (!c.ok() || (start == 0 && end == 0))
                return;
            if (start == highest)
                base = end;
            else
                add_range(of, {(base + start) & highest, (base + end) & highest});
        }
    }

    static void append(std::vector<uint8_t> *bytes, uint64_t value, size_t width)
    {
        bytes->resize(bytes->size() + width);
        write_number(*bytes, bytes->size() - width, value, width);
    }

    static void write_set(std::vector<uint8_t> *bytes, const unit &u, const std::vector<address_range> &ranges)
    {
        const uint64_t tuple = 2 * u.address_size;
        const uint64_t header = u.length_size() + 2 + u.offset_size + 2;
        const uint64_t padding = (tuple - header % tuple) % tuple;
        if (u.offset_size == 8)
            append(bytes, KRV_LENGTH_DWARF64, 4);
        append(bytes, header - u.length_size() + padding + tuple * (ranges.size() + 1), u.offset_size);
        append(bytes, SET_VERSION, 2);
        append(bytes, u.offset, u.offset_size);
        append(bytes, u.address_size, 1);
        append(bytes, 0, 1); // no segments
        bytes->insert(bytes->end(), padding, 0);
        for (const address_range &range : ranges) {
            append(bytes, range.start, u.address_size);
            append(bytes, range.end - range.start, u.address_size);
        }
        bytes->insert(bytes->end(), tuple, 0);
    }

    void tell(const std::string &section, size_t synthesised)
    {
        const auto note = [&](const std::string &text) { v->add_note({name, section, 0, false, text}); };
        if (synthesised != 0)
            note(fmt::format("address ranges of {} unit{} without any are taken from the unit{}", synthesised,
                             synthesised == 1 ? "" : "s", synthesised == 1 ? "" : "s"));
        if (given.homeless != 0)
            note(fmt::format("{} of {} sets name no unit: left out", given.homeless, given.sets));
        if (given.damaged != 0)
            note(fmt::format("{} of {} sets are damaged: left out", given.damaged, given.sets));
        if (given.misplaced != 0)
            note(fmt::format("{} of {} sets are not aligned: moved", given.misplaced, given.sets));
        if (given.dead != 0)
            note(fmt::format("{} ranges are of code that is not in the file: left out", given.dead));
        if (given.repeated != 0)
            note(fmt::format("{} units have several sets: joined", given.repeated));
        if (given.cut)
            note("the section ends within a set: left out");
    }

    view *v;
    const char *name;
    byte_span info;
    abbreviation_tables tables;
    const address_ranges &code;
    std::vector<unit> units;
    std::set<uint64_t> offsets; // of all units
    byte_span debug_ranges;
    uint64_t pairs_left; // that may still be read: lists are shared by few, and a pair has 8 or 16 bytes
    given_sets given;
    size_t dead_found = 0;
};

} // namespace

void complete_ranges(view &v, const char *name)
{
    if (v.find(KRV_SEC_INFO) != nullptr && v.find(KRV_SEC_ABBREV) != nullptr)
        ranges_pass(&v, name).run();
}

} // namespace krv_elf_loader
