// SPDX-License-Identifier: Apache-2.0
//
// .debug_names (DWARF 5, 6.1.1): indexes behind one another, each with a hash table, its names in the order of the buckets,
// and a pool of entries that an abbreviation table describes. Names count from 1.
#include "krv_budget.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_name_source.h"
#include "krv_skip.h"
#include "krv_unit_length.h"

namespace
{

// DWARF 5, table 6.1
enum : uint64_t { DW_IDX_compile_unit = 1, DW_IDX_type_unit = 2, DW_IDX_die_offset = 3 };

// Where the parts of one index begin.
struct name_index {
    krv_view_t view; // of the section up to the index's end
    uint64_t offset; // of the index
    krv_encoding_t encoding;
    uint64_t unit_count, local_count, foreign_count, bucket_count, name_count;
    bool is_complete;
    uint64_t units, buckets, hashes, strings, places, abbrevs, pool;

    size_t width() const { return encoding.is_dwarf64 ? 8 : 4; }
    bool unit_at(uint64_t number, uint64_t *valuep) const
    {
        return krv_view_read(view, units + number * width(), width(), valuep);
    }
    bool hash_at(uint64_t name, uint64_t *valuep) const
    {
        return krv_view_read(view, hashes + (name - 1) * 4, 4, valuep);
    }
};

// Who asks, and how many bytes of entries and abbreviations may still be read for it.
struct question {
    krv_handle_t *hp;
    krv_view_t strings; // .debug_str
    const char *name;
    size_t size; // of it, with the NUL
    unsigned int kinds;
    uint64_t budget;
    krv_source_hit_f *fn;
    void *arg;
};

} // namespace

static int refuse(krv_handle_t *hp, uint64_t offset, const char *what)
{
    return krv_fail(hp, KRV_ERR_CORRUPT, "index at offset 0x%lx of .debug_names %s", static_cast<unsigned long>(offset),
                    what);
}

// Producers that list every function which has code, by both of its names: this is LLVM, in its compilers and linkers.
static bool lists_all(const krv_view_t &view, uint64_t augmentation, uint64_t size)
{
    constexpr char LLVM[] = {'L', 'L', 'V', 'M', '0', '7', '0', '0'};
    return size == sizeof(LLVM) && std::memcmp(view.bytes + augmentation, LLVM, sizeof(LLVM)) == 0;
}

// Reads the header at an offset, and tells where the next index begins. The parts lie within the index, up to the
// pool, which takes the rest.
static int read_header(krv_handle_t *hp, const krv_view_t &section, uint64_t offset, name_index *index, uint64_t *nextp)
{
    uint64_t at = offset;
    const auto take = krv_view_numbers(section, &at);
    krv_unit_length_t ul;
    if (krv_scan_unit_length(offset, take, &ul) != krv_length_outcome_t::sound || ul.end > section.size)
        return refuse(hp, offset, "is cut off");
    *nextp = ul.end;
    *index = {};
    index->view = {section.bytes, ul.end};
    index->offset = offset;
    index->encoding = {ul.is_dwarf64, static_cast<uint8_t>(hp->sh_target_size), 5, KRV_ALL_FORMS};
    uint64_t version = 0, padding = 0, abbrevs_size = 0, augmentation_size = 0;
    take(2, &version);
    take(2, &padding);
    for (uint64_t *count : {&index->unit_count, &index->local_count, &index->foreign_count, &index->bucket_count,
                            &index->name_count, &abbrevs_size})
        take(4, count);
    if (!take(4, &augmentation_size) || at > ul.end || augmentation_size > ul.end - at)
        return refuse(hp, offset, "is cut off");
    if (version != 5)
        return refuse(hp, offset, "is of an unknown version");
    index->is_complete = lists_all(section, at, augmentation_size);
    // Sums of a few numbers of 32 bits, times 8, behind an offset in memory.
    const uint64_t width = index->width();
    index->units = at + (augmentation_size + 3) / 4 * 4;
    index->buckets = index->units + (index->unit_count + index->local_count) * width + index->foreign_count * 8;
    index->hashes = index->buckets + index->bucket_count * 4;
    index->strings = index->hashes + (index->bucket_count == 0 ? 0 : index->name_count * 4);
    index->places = index->strings + index->name_count * width;
    index->abbrevs = index->places + index->name_count * width;
    index->pool = index->abbrevs + abbrevs_size;
    return index->pool > ul.end ? refuse(hp, offset, "has tables that lead out of it") : 0;
}

// Calls visit(index) for each index.
template <typename Visit>
static int visit_indexes(krv_handle_t *hp, const krv_view_t &section, const Visit &visit)
{
    name_index index = {};
    int result = 0;
    for (uint64_t at = 0; at < section.size && result == 0;) {
        result = read_header(hp, section, at, &index, &at);
        result = result == 0 ? visit(index) : result;
    }
    return result;
}

// The list of local type units is behind that of the others.
static int visit_units(krv_handle_t *hp, const krv_view_t &section, krv_source_unit_f *fn, void *arg)
{
    return visit_indexes(hp, section, [=](const name_index &index) {
        int result = 0;
        for (uint64_t i = 0; i < index.unit_count + index.local_count && result == 0; ++i) {
            krv_source_unit_t unit = {.offset = 0, .size = 0, .is_complete = index.is_complete};
            index.unit_at(i, &unit.offset); // the list lies within
            result = krv_spend(hp, 1) ? fn(&unit, arg) : -1;
        }
        return result;
    });
}

// ---------------------------------------------------------------------------------------------------------------
// Entries of a name
// ---------------------------------------------------------------------------------------------------------------

// The tag of an abbreviation, and where its attributes are. NULL: the table does not have it.
static const uint8_t *find_abbrev(const name_index &index, const question *q, uint64_t wanted, uint64_t *tagp)
{
    const uint8_t *const start = index.view.bytes + index.abbrevs, *const end = index.view.bytes + index.pool;
    uint64_t code, attribute, form;
    for (const uint8_t *at = start; at != nullptr && static_cast<uint64_t>(at - start) <= q->budget;) {
        at = krv_skip_number(at, end, &code);
        if (at == nullptr || code == 0 || (at = krv_skip_number(at, end, tagp)) == nullptr)
            return nullptr;
        if (code == wanted)
            return at;
        for (attribute = form = 1; at != nullptr && (attribute | form) != 0;) {
            at = krv_skip_number(at, end, &attribute);
            at = at == nullptr ? at : krv_skip_number(at, end, &form);
        }
    }
    return nullptr;
}

// A number in any form that has one.
static const uint8_t *read_number(const uint8_t *at, const uint8_t *end, uint64_t form, const krv_encoding_t &encoding,
                                  uint64_t *valuep)
{
    const uint8_t code = krv_extended_form(form);
    const uint8_t *next = krv_skip_value(at, end, code, encoding);
    *valuep = 0;
    if (next != nullptr && krv_form_row(code, encoding.forms).family == krv_family_t::uleb128)
        return krv_skip_number(at, end, valuep);
    if (next != nullptr && next - at <= 8)
        std::memcpy(valuep, at, static_cast<size_t>(next - at));
    return next;
}

namespace
{

// What an entry of the pool says.
struct pool_entry {
    uint64_t unit = 0, entry = 0;
    bool has_unit = false, has_type_unit = false;
};

} // namespace

// Reads the values of an entry by its abbreviation, up to *behindp. What follows it, or NULL.
static const uint8_t *read_entry(const name_index &index, const uint8_t *attributes, const uint8_t *at, pool_entry *of,
                                 const uint8_t **behindp)
{
    const uint8_t *const end = index.view.bytes + index.view.size;
    uint64_t attribute, form, value;
    for (;;) {
        attributes = krv_skip_number(attributes, end, &attribute);
        attributes = attributes == nullptr ? attributes : krv_skip_number(attributes, end, &form);
        if (attributes == nullptr || (attribute | form) == 0)
            return (*behindp = attributes) == nullptr ? nullptr : at;
        at = read_number(at, end, form, index.encoding, &value);
        if (at == nullptr)
            return nullptr;
        if (attribute == DW_IDX_die_offset)
            of->entry = value;
        else if (attribute == DW_IDX_type_unit)
            of->has_type_unit = true;
        else if (attribute == DW_IDX_compile_unit) {
            of->has_unit = true;
            of->unit = value;
        }
    }
}

static bool is_wanted(uint64_t tag, unsigned int kinds)
{
    return (tag == DW_TAG_subprogram && (kinds & KRV_NAMED_FUNCTIONS) != 0) ||
           (tag == DW_TAG_variable && (kinds & KRV_NAMED_VARIABLES) != 0);
}

// The series of entries that a name has. Types have units of their own, which have no code.
static int visit_entries(const name_index &index, question *q, uint64_t offset)
{
    if (offset >= index.view.size - index.pool)
        return refuse(q->hp, index.offset, "has entries that lead out of it");
    const uint8_t *at = index.view.bytes + index.pool + offset, *const end = index.view.bytes + index.view.size;
    for (;;) {
        uint64_t code, tag;
        const uint8_t *const before = at;
        at = krv_skip_number(at, end, &code);
        if (at != nullptr && code == 0)
            return 0;
        pool_entry found;
        const uint8_t *attributes = at == nullptr ? nullptr : find_abbrev(index, q, code, &tag);
        at = attributes == nullptr ? nullptr : read_entry(index, attributes, at, &found, &attributes);
        const uint64_t read = at == nullptr ? 0
                                            : static_cast<uint64_t>(at - before) +
                                                  static_cast<uint64_t>(attributes - index.view.bytes) - index.abbrevs;
        if (at == nullptr || read > q->budget)
            return refuse(q->hp, index.offset, "has entries that cannot be read");
        q->budget -= read;
        if (!krv_spend(q->hp, read))
            return -1;
        if (found.has_type_unit || !is_wanted(tag, q->kinds))
            continue;
        krv_source_hit_t hit = {};
        if (found.unit >= index.unit_count || (!found.has_unit && index.unit_count != 1))
            return refuse(q->hp, index.offset, "has entries of no unit");
        index.unit_at(found.unit, &hit.unit);
        hit.entry = krv_add_offset(hit.unit, found.entry);
        if (const int result = q->fn(&hit, q->arg))
            return result;
    }
}

// One name of the index: its entries, if it is the one that is asked for.
static int visit_name(const name_index &index, question *q, uint64_t name)
{
    uint64_t string, place;
    krv_view_read(index.view, index.strings + (name - 1) * index.width(), index.width(), &string);
    krv_view_read(index.view, index.places + (name - 1) * index.width(), index.width(), &place);
    if (string >= q->strings.size)
        return refuse(q->hp, index.offset, "has a name that leads out of .debug_str");
    const bool is_it =
        q->size <= q->strings.size - string && std::memcmp(q->strings.bytes + string, q->name, q->size) == 0;
    return is_it ? visit_entries(index, q, place) : 0;
}

// The hash of a name in ASCII (DWARF 5, 7.33). False: its letters need tables to be folded.
static bool hash_of(const char *name, uint32_t *hashp)
{
    *hashp = 5381;
    for (const char *c = name; *c != '\0'; ++c) {
        const auto byte = static_cast<uint8_t>(*c);
        if (byte >= 0x80)
            return false;
        *hashp = *hashp * 33 + (byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte);
    }
    return true;
}

// The bucket of a name begins where the one before it ends: whether the table is in order there shows whether the name can be
// believed to be nowhere else.
static int visit_bucket(const name_index &index, question *q, uint32_t hash)
{
    const uint64_t wanted = hash % index.bucket_count;
    uint64_t first = 0, bucket = wanted, other;
    for (; bucket < index.bucket_count && first == 0; ++bucket)
        krv_view_read(index.view, index.buckets + bucket * 4, 4, &first);
    if (first == 0) // all that follow are empty
        first = index.name_count + 1;
    else if (first > index.name_count || !index.hash_at(first, &other) || other % index.bucket_count != bucket - 1)
        return refuse(q->hp, index.offset, "has a bucket that leads elsewhere");
    if (first > 1 && (!index.hash_at(first - 1, &other) || other % index.bucket_count >= wanted))
        return refuse(q->hp, index.offset, "has names in no order");
    int result = 0;
    for (; first <= index.name_count && result == 0; ++first) {
        if (!krv_spend(q->hp, 1))
            return -1;
        if (!index.hash_at(first, &other) || other % index.bucket_count != wanted)
            break;
        result = other == hash ? visit_name(index, q, first) : 0;
    }
    return result;
}

static int find(krv_handle_t *hp, const krv_view_t &section, const char *name, unsigned int kinds, krv_source_hit_f *fn,
                void *arg)
{
    constexpr uint64_t MOST_PASSES = 32; // over the section, for entries that share what they should not
    uint32_t hash = 0;
    const bool has_hash = hash_of(name, &hash);
    question q = {.hp = hp,
                  .strings = krv_section_view(hp, KRV_SEC_STR),
                  .name = name,
                  .size = std::strlen(name) + 1,
                  .kinds = kinds,
                  .budget = section.size * MOST_PASSES,
                  .fn = fn,
                  .arg = arg};
    return visit_indexes(hp, section, [&](const name_index &index) {
        if (has_hash && index.bucket_count != 0)
            return visit_bucket(index, &q, hash);
        int result = 0;
        for (uint64_t i = 1; i <= index.name_count && result == 0; ++i)
            result = krv_spend(hp, 1) ? visit_name(index, &q, i) : -1;
        return result;
    });
}

const krv_name_source krv_debug_names = {KRV_SEC_EXT_NAMES, visit_units, find};
