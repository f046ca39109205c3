// SPDX-License-Identifier: Apache-2.0
#include "krv_abbrev.h"

#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_hash.h"
#include "krv_mem.h"
#include "krv_names.h"

#include <algorithm>
#include <iterator>
#include <numeric>

namespace
{

// An array that grows. The first elements lie within it, uninitialised, which is all that most tables need while they are
// read.
template <typename T, uint32_t FIRST>
struct growing_array {
    T *at = first;
    uint64_t size = 0, room = FIRST;
    T first[FIRST];

    growing_array() {} // `first` needs no initial value
    ~growing_array()
    {
        if (at != first)
            krv_free(at);
    }
    growing_array(const growing_array &) = delete;
    growing_array &operator=(const growing_array &) = delete;

    T *end() { return at + size; } // of what is used

    // Makes room for so many more, at most FIRST. False: KRV_ERR_NOMEM.
    bool reserve(krv_handle_t *hp, uint64_t more)
    {
        if (more <= room - size)
            return true;
        T *old = at == first ? nullptr : at;
        uint64_t wanted = room;
        if (!krv_table_grow(hp, &old, &wanted, wanted, wanted))
            return false;
        if (at == first)
            std::memcpy(old, first, size * sizeof(T));
        at = old;
        room = wanted;
        return true;
    }
};

// A table while it is read.
struct table_builder {
    krv_handle_t *hp;
    krv_fd_t fd;
    krv_fd_t *fdp = &fd;
    uint64_t offset;
    growing_array<krv_abbrev_t, 64> abbrevs;
    growing_array<krv_afpair_t, 512> pairs;
    growing_array<int64_t, 64> implicit;

    table_builder(krv_handle_t *handle, uint64_t where, krv_secidx_t sec)
        : hp(handle), fd(*krv_section(handle, sec)), offset(where)
    {
    }
    unsigned long shown_offset() const { return static_cast<unsigned long>(offset); }
};

// What a step of the reading came to. `cut`: the list ended, but not with the (0, 0) that would complete it.
enum class outcome { next, done, cut, failed };

} // namespace

static bool append_pair(table_builder *t, krv_attribute_t attribute, krv_form_t form)
{
    if (!t->pairs.reserve(t->hp, 1))
        return false;
    *t->pairs.end() = {attribute, form};
    ++t->pairs.size;
    return true;
}

// Reported, but reading goes on.
static void illegal_pair(table_builder *t, uint32_t number, const krv_abbrev_t *abbrev, krv_attribute_t attribute,
                         krv_form_t form)
{
    krv_fail(t->hp, KRV_ERR_CORRUPT,
             "attribute/form pair %d for abbreviation %d at offset %lu has illegal combination of %s/%s",
             static_cast<int>(number), static_cast<int>(abbrev->dwa_code), t->shown_offset(),
             attribute == 0 ? "0" : krv_name_or_unknown(KRV_DEF_AT, attribute),
             form == 0 ? "0" : krv_name_or_unknown(KRV_DEF_FORM, form));
}

// A form, as it is written, or by its code where extensions are known.
static bool read_form(table_builder *t, krv_form_t *formp)
{
    if (t->hp->sh_ext == 0)
        return krv_decode(t->fdp, DW_FORM_udata, formp) == 0;
    uint64_t written = 0;
    if (krv_decode(t->fdp, DW_FORM_udata, &written) != 0)
        return false;
    *formp = krv_extended_form(written);
    return true;
}

// The value that stands behind DW_FORM_implicit_const.
static bool read_implicit(table_builder *t, bool is_kept)
{
    int64_t value = 0;
    if (krv_decode(t->fdp, DW_FORM_sdata, &value) != 0 || !t->implicit.reserve(t->hp, 1))
        return false;
    *t->implicit.end() = value;
    t->implicit.size += is_kept ? 1 : 0;
    return true;
}

// Reads one pair: `next` when more may follow, `done` or `cut` when it ended the list.
static outcome read_pair(table_builder *t, krv_abbrev_t *abbrev)
{
    const uint32_t number = abbrev->dwa_nafpairs + 1;
    krv_attribute_t attribute = 0;
    krv_form_t form = 0;
    if (krv_decode(t->fdp, DW_FORM_udata, &attribute) != 0) {
        krv_note(t->hp, "failed to read attribute %lu for abbreviation %u at offset %lu",
                 static_cast<unsigned long>(number), abbrev->dwa_code, t->shown_offset());
        return outcome::failed;
    }
    if (!read_form(t, &form)) {
        krv_note(t->hp, "failed to read form %d for abbreviation %d at offset %lu", static_cast<int>(number),
                 static_cast<int>(abbrev->dwa_code), t->shown_offset());
        return outcome::failed;
    }
    if (attribute == 0 && form == 0)
        return outcome::done;
    if (attribute == 0 || form == 0)
        illegal_pair(t, number, abbrev, attribute, form);
    if (form == KRV_EXT_DW_FORM_implicit_const && t->hp->sh_ext != 0 && !read_implicit(t, attribute != 0)) {
        krv_note(t->hp, "failed to read the value of pair %d for abbreviation %d at offset %lu",
                 static_cast<int>(number), static_cast<int>(abbrev->dwa_code), t->shown_offset());
        return outcome::failed;
    }
    if (!append_pair(t, attribute, form))
        return outcome::failed;
    if (attribute == 0)
        return outcome::cut; // kept in the pair array, but no pair of the abbreviation
    ++abbrev->dwa_nafpairs;
    return outcome::next;
}

// Reads one abbreviation: `done` at the null code. One whose pair list the section's end cuts off is dropped.
static outcome read_abbrev(table_builder *t)
{
    krv_abbrev_t abbrev = {};
    if (krv_decode(t->fdp, DW_FORM_udata, &abbrev.dwa_code) != 0) {
        krv_note(t->hp, "failed to read code for abbreviation at offset %lu", t->shown_offset());
        return outcome::failed;
    }
    if (abbrev.dwa_code == 0)
        return outcome::done;
    uint8_t children = 0;
    if (krv_decode(t->fdp, DW_FORM_udata, &abbrev.dwa_tag) != 0) {
        krv_note(t->hp, "failed to read tag for abbreviation at offset %lu", t->shown_offset());
        return outcome::failed;
    }
    if (krv_decode(t->fdp, DW_FORM_data1, &children) != 0) {
        krv_note(t->hp, "failed to read children flag for abbreviation at offset %lu", t->shown_offset());
        return outcome::failed;
    }
    abbrev.dwa_flags = children != 0 ? KRV_ABBREV_FLAG_PARENT : KRV_ABBREV_FLAG_NONE;
    abbrev.dwa_afpair_start = t->pairs.size;

    outcome pairs = t->fdp->sfd_remaining == 0 ? outcome::done : outcome::next; // done: a list that never began
    while (pairs == outcome::next)
        pairs = t->fdp->sfd_remaining == 0 ? outcome::cut : read_pair(t, &abbrev);
    if (pairs == outcome::failed)
        return outcome::failed;
    if (pairs == outcome::cut && t->fdp->sfd_remaining == 0)
        return outcome::done;
    if (!t->abbrevs.reserve(t->hp, 1))
        return outcome::failed;
    *t->abbrevs.end() = abbrev;
    ++t->abbrevs.size;
    return outcome::next;
}

// Steps over a number in memory. False: too large, too long, or cut off.
static inline bool scan_number(const uint8_t **at, const uint8_t *end, uint64_t most, uint64_t *value)
{
    const uint8_t *next = krv_scan_short_uleb128(*at, end, value);
    if (next == nullptr) {
        const unsigned int width = krv_scan_uleb128({*at, static_cast<uint64_t>(end - *at)}, value);
        if (width == 0)
            return false;
        next = *at + width;
    }
    *at = next;
    return *value <= most;
}

constexpr uint32_t AT_ONCE = 4; // pairs of one-byte numbers, neither of them 0, as most are

// The lowest bit set lies in the first pair that is not such a pair; 0: all of them are.
static inline uint64_t find_other_pair(const uint8_t *from)
{
    constexpr uint64_t ONES = 0x0101010101010101, HIGH_BITS = 0x8080808080808080;
    uint64_t bytes;
    static_assert(sizeof(bytes) == 2 * AT_ONCE);
    std::memcpy(&bytes, from, sizeof(bytes));
    return (bytes | (bytes - ONES)) & HIGH_BITS; // a borrow may set bits above the lowest
}

static inline void copy_short_pairs(const uint8_t *from, krv_afpair_t *to)
{
    typedef uint8_t numbers_t __attribute__((vector_size(2 * AT_ONCE)));
    typedef uint16_t fields_t __attribute__((vector_size(4 * AT_ONCE)));
    static_assert(sizeof(krv_afpair_t) == 4 && offsetof(krv_afpair_t, dwafp_form) == 2);
    numbers_t numbers;
    std::memcpy(&numbers, from, sizeof(numbers));
    const fields_t fields = __builtin_convertvector(numbers, fields_t); // a form and the byte behind it, as one field
    std::memcpy(to, &fields, sizeof(fields));
}

static consteval std::array<krv_form_t, 256> make_extended_forms()
{
    std::array<krv_form_t, 256> codes{};
    for (size_t i = 0; i < codes.size(); ++i)
        codes[i] = krv_extended_form(i);
    return codes;
}
constexpr auto EXTENDED_FORMS = make_extended_forms();

static inline void map_forms(krv_afpair_t *pairs, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        pairs[i].dwafp_form = EXTENDED_FORMS[pairs[i].dwafp_form];
}

// Where scan_pairs puts what it reads: reserve makes room for AT_ONCE more, of which so many are then kept.
namespace
{

struct table_pairs {
    table_builder *t;

    bool reserve() { return t->pairs.reserve(t->hp, AT_ONCE); }
    krv_afpair_t *end() { return t->pairs.end(); }
    void copy(const uint8_t *from) { copy_short_pairs(from, end()); }
    void map(uint32_t count) { map_forms(end(), count); }
    void put(krv_afpair_t pair) { *end() = pair; }
    bool put_implicit(int64_t value)
    {
        if (!t->implicit.reserve(t->hp, 1))
            return false;
        t->implicit.at[t->implicit.size++] = value;
        return true;
    }
    void keep(uint32_t count) { t->pairs.size += count; }
};

struct single_pairs {
    krv_single_abbrev_t *single;

    krv_afpair_t *end() { return single->ssa_pairs + single->ssa_abbrev.dwa_nafpairs; }
    bool reserve() { return std::end(single->ssa_pairs) - end() >= ptrdiff_t{AT_ONCE}; }
    void copy(const uint8_t *from) { copy_short_pairs(from, end()); }
    void map(uint32_t count) { map_forms(end(), count); }
    void put(krv_afpair_t pair) { *end() = pair; }
    bool put_implicit(int64_t value)
    {
        if (single->ssa_implicit_count == std::size(single->ssa_implicit))
            return false;
        single->ssa_implicit[single->ssa_implicit_count++] = value;
        return true;
    }
    void keep(uint32_t count) { single->ssa_abbrev.dwa_nafpairs += count; }
};

struct no_pairs {
    bool reserve() { return true; }
    void copy(const uint8_t *) {}
    void map(uint32_t) {}
    void put(krv_afpair_t) {}
    bool put_implicit(int64_t) { return true; }
    void keep(uint32_t) {}
};

} // namespace

// Forms as they are written, and those among them that a value follows.
struct base_forms {
    static constexpr bool ARE_EXTENDED = false;
    static constexpr uint64_t MOST = UINT8_MAX;
};

// Forms by their codes where extensions are known.
struct extended_forms {
    static constexpr bool ARE_EXTENDED = true;
    static constexpr uint64_t MOST = UINT32_MAX;
};

// Of `count` short pairs, those before the first one with a value behind it.
static inline uint32_t count_without_value(const uint8_t *from, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i)
        if (from[2 * i + 1] == DW_FORM_implicit_const)
            return i;
    return count;
}

// Steps over the pairs of one abbreviation and their (0, 0). False: irregular or cut off, or no room.
template <typename Forms, typename Pairs>
static inline bool scan_pairs(Pairs pairs, const uint8_t **where, const uint8_t *end)
{
    const uint8_t *&at = *where;
    for (;;) {
        if (!pairs.reserve())
            return false;
        if (end - at >= 2 * ptrdiff_t{AT_ONCE}) {
            const uint64_t other = find_other_pair(at);
            uint32_t count = other == 0 ? AT_ONCE : static_cast<uint32_t>(__builtin_ctzll(other)) / 16;
            pairs.copy(at);
            if constexpr (Forms::ARE_EXTENDED) {
                count = count_without_value(at, count);
                pairs.map(count);
            }
            pairs.keep(count);
            at += 2 * count;
            if (count == AT_ONCE)
                continue;
            if (at[0] == 0 && at[1] == 0) {
                at += 2;
                return true;
            }
        }
        uint64_t attribute, form;
        if (!scan_number(&at, end, UINT16_MAX, &attribute) || !scan_number(&at, end, Forms::MOST, &form) ||
            (attribute == 0) != (form == 0))
            return false;
        if (attribute == 0)
            return true;
        if constexpr (Forms::ARE_EXTENDED) {
            if (form == DW_FORM_implicit_const) {
                int64_t value = 0;
                const unsigned int width = krv_scan_sleb128({at, static_cast<uint64_t>(end - at)}, &value);
                if (width == 0 || !pairs.put_implicit(value))
                    return false;
                at += width;
            }
            form = krv_extended_form(form);
        }
        pairs.put({static_cast<krv_attribute_t>(attribute), static_cast<krv_form_t>(form)});
        pairs.keep(1);
    }
}

// Steps over what stands before the pairs of one abbreviation; over the null code alone, which gives code 0. False:
// irregular or cut off.
static inline bool scan_head(const uint8_t **where, const uint8_t *end, krv_abbrev_t *abbrev)
{
    const uint8_t *&at = *where;
    uint64_t code, tag;
    if (!scan_number(&at, end, UINT32_MAX, &code))
        return false;
    abbrev->dwa_code = static_cast<uint32_t>(code);
    if (code == 0)
        return true;
    if (!scan_number(&at, end, UINT16_MAX, &tag) || at == end)
        return false;
    abbrev->dwa_tag = static_cast<krv_tag_t>(tag);
    abbrev->dwa_flags = *at++ != 0 ? KRV_ABBREV_FLAG_PARENT : KRV_ABBREV_FLAG_NONE;
    return true;
}

// Reads the abbreviations that are in memory and regular, as nearly all are: `done` at the null code, `next` where
// its twin, read_abbrev, has to see what comes.
template <typename Forms>
static outcome scan_abbrevs(table_builder *t)
{
    const krv_view_t view = krv_fd_view(t->fdp);
    const uint8_t *at = view.bytes, *const end = view.bytes + view.size;
    const uint8_t *behind = at; // the last one that was read whole
    outcome result = outcome::next;
    krv_abbrev_t abbrev = {};
    while (result == outcome::next && scan_head(&at, end, &abbrev)) {
        if (abbrev.dwa_code == 0) {
            result = outcome::done;
        } else {
            abbrev.dwa_afpair_start = t->pairs.size;
            const uint64_t implicit = t->implicit.size;
            if (!t->abbrevs.reserve(t->hp, 1) || !scan_pairs<Forms>(table_pairs{t}, &at, end)) {
                t->pairs.size = abbrev.dwa_afpair_start;
                t->implicit.size = implicit;
                break;
            }
            abbrev.dwa_nafpairs = static_cast<uint32_t>(t->pairs.size - abbrev.dwa_afpair_start);
            *t->abbrevs.end() = abbrev;
            ++t->abbrevs.size;
        }
        behind = at;
    }
    if (behind != view.bytes)
        krv_clear_error(t->hp);
    krv_fd_advance(t->fdp, static_cast<uint64_t>(behind - view.bytes));
    return result;
}

// Puts the indices of the abbreviations in the order of their codes. Fails where two have the same.
static int sort_codes(krv_handle_t *hp, krv_au_t *au)
{
    const uint64_t count = au->sau_abbrev_table_entries;
    krv_owner<uint32_t> by_code(static_cast<uint32_t *>(krv_alloc(hp, count * sizeof(uint32_t))));
    if (by_code == nullptr)
        return krv_note(hp, "error hashing abbreviation");
    const krv_abbrev_t *abbrevs = au->sau_abbrev_table;
    uint32_t *first = by_code.get(), *last = first + count;
    std::iota(first, last, 0U); // no table has more abbreviations than a code has values
    std::sort(first, last, [abbrevs](uint32_t a, uint32_t b) { return abbrevs[a].dwa_code < abbrevs[b].dwa_code; });
    if (std::adjacent_find(first, last, [abbrevs](uint32_t a, uint32_t b) {
            return abbrevs[a].dwa_code == abbrevs[b].dwa_code;
        }) != last)
        return krv_fail(hp, KRV_ERR_EXISTS, "error hashing abbreviation");
    au->sau_by_code = by_code.release();
    return 0;
}

// Whether the value stands elsewhere than where its form is.
static bool leads(krv_afpair_t pair)
{
    if (!krv_is_extended_form(pair.dwafp_form) || pair.dwafp_form >= KRV_ALL_FORMS)
        return pair.dwafp_form == DW_FORM_indirect;
    const krv_form_row_t row = krv_form_row(pair.dwafp_form, KRV_ALL_FORMS);
    return row.family == krv_family_t::implicit || row.classes == KRV_CLASS_STRING || row.classes == KRV_CLASS_ADDRESS;
}

static void mark_leading(krv_abbrev_t *abbrev)
{
    const krv_afpair_t *first = abbrev->dwa_afpairs;
    if (std::any_of(first, first + abbrev->dwa_nafpairs, leads))
        abbrev->dwa_flags = static_cast<krv_abbrev_flag_t>(abbrev->dwa_flags | KRV_ABBREV_FLAG_LEADS);
}

// The table in one allocation: its record, the abbreviations, the pairs. The sizes are of arrays that are in memory.
static krv_au_t *make_unit(table_builder *t)
{
    const uint64_t abbrevs_size = t->abbrevs.size * sizeof(krv_abbrev_t);
    const uint64_t implicit_size = t->implicit.size * sizeof(int64_t);
    const uint64_t pairs_size = t->pairs.size * sizeof(krv_afpair_t);
    krv_owner<krv_au_t> au(
        static_cast<krv_au_t *>(krv_alloc(t->hp, sizeof(krv_au_t) + abbrevs_size + implicit_size + pairs_size)));
    if (au == nullptr)
        return nullptr;
    auto *abbrevs = reinterpret_cast<krv_abbrev_t *>(au.get() + 1);
    auto *implicit = reinterpret_cast<int64_t *>(abbrevs + t->abbrevs.size);
    auto *pairs = reinterpret_cast<krv_afpair_t *>(implicit + t->implicit.size);
    std::memcpy(implicit, t->implicit.at, implicit_size);
    std::memcpy(pairs, t->pairs.at, pairs_size);
    bool in_order = true;
    for (uint64_t i = 0; i < t->abbrevs.size; ++i) {
        abbrevs[i] = t->abbrevs.at[i];
        abbrevs[i].dwa_afpairs = t->pairs.size == 0 ? nullptr : pairs + abbrevs[i].dwa_afpair_start;
        if (t->hp->sh_ext != 0)
            mark_leading(&abbrevs[i]);
        if (implicit_size != 0) {
            abbrevs[i].dwa_implicit = implicit;
            implicit += krv_abbrev_implicit_count(&abbrevs[i]);
        }
        in_order = in_order && abbrevs[i].dwa_code == i + 1;
    }
    *au = {t->abbrevs.size == 0 ? nullptr : abbrevs,
           t->abbrevs.size,
           t->pairs.size == 0 ? nullptr : pairs,
           t->pairs.size,
           nullptr,
           t->offset,
           0,
           {}};
    return in_order || sort_codes(t->hp, au.get()) == 0 ? au.release() : nullptr;
}

uint32_t krv_abbrev_count_implicit(const krv_abbrev_t *abbrev)
{
    return static_cast<uint32_t>(
        std::count_if(abbrev->dwa_afpairs, abbrev->dwa_afpairs + abbrev->dwa_nafpairs,
                      [](krv_afpair_t pair) { return pair.dwafp_form == KRV_EXT_DW_FORM_implicit_const; }));
}

krv_au_t *krv_abbrev_unit_alloc(krv_handle_t *hp, uint64_t offset, krv_secidx_t sec, uint64_t *endp)
{
    KRV_ASSERT(hp != NULL);
    table_builder t(hp, offset, sec);
    if (korva_fd_seek(t.fdp, offset, KRV_FD_SEEK_SET) != 0) {
        krv_note(hp, "can't seek to %lu in .debug_abbrev", t.shown_offset());
        return nullptr;
    }
    for (uint64_t asked = offset; t.fdp->sfd_remaining > 0; asked = t.fdp->sfd_offset) {
        if (!krv_spend(hp, t.fdp->sfd_offset - asked))
            return nullptr;
        outcome abbrev = hp->sh_ext == 0 ? scan_abbrevs<base_forms>(&t) : scan_abbrevs<extended_forms>(&t);
        if (abbrev == outcome::next && t.fdp->sfd_remaining > 0)
            abbrev = read_abbrev(&t);
        if (abbrev == outcome::failed)
            return nullptr;
        if (abbrev == outcome::done)
            break;
    }
    if (endp != nullptr)
        *endp = t.fdp->sfd_offset;
    return krv_spend(hp, t.fdp->sfd_offset - offset) ? make_unit(&t) : nullptr;
}

void krv_abbrev_unit_free(krv_au_t *au)
{
    krv_free(au->sau_by_code);
    for (krv_plan *plan : au->sau_plans)
        krv_free(plan);
    krv_free(au);
}

// Checks a table, or, when `wanted_only`, reads it up to the abbreviation with the code. *where stops behind it, or where it
// fails.
template <typename Forms>
static bool check_abbrevs(const uint8_t **where, const uint8_t *end, uint64_t code, bool wanted_only,
                          krv_single_abbrev_t *single)
{
    const uint8_t *&at = *where;
    bool found = false;
    for (uint64_t expected = 1; at != end && !(wanted_only && found); ++expected) {
        krv_abbrev_t abbrev = {};
        if (!scan_head(&at, end, &abbrev))
            return false;
        if (abbrev.dwa_code == 0)
            break;
        if (abbrev.dwa_code != expected)
            return false;
        const bool wanted = expected == code;
        if (wanted) {
            single->ssa_abbrev = abbrev;
            single->ssa_abbrev.dwa_afpairs = single->ssa_pairs;
            single->ssa_implicit_count = 0;
            single->ssa_size = 0;
            single->ssa_abbrev.dwa_implicit = Forms::ARE_EXTENDED ? single->ssa_implicit : nullptr;
            found = true;
        }
        if (!(wanted ? scan_pairs<Forms>(single_pairs{single}, &at, end) : scan_pairs<Forms>(no_pairs(), &at, end)))
            return false;
        if (Forms::ARE_EXTENDED && wanted)
            mark_leading(&single->ssa_abbrev);
    }
    return found;
}

constexpr krv_offset_t NONE = UINT64_MAX; // of checks: no sound table

// As written, what an entry does not need may be damaged, and units are read in any order. Many that share a table, or name
// tails of one, have it parsed in the end.
static bool find_in_table(krv_handle_t *hp, krv_offset_t offset, uint64_t code, krv_single_abbrev_t *single)
{
    constexpr uint64_t MOST_READINGS = 2; // of a byte, on the average
    const krv_fd_t *fdp = &hp->sh_sec[KRV_SEC_ABBREV];
    if (hp->sh_abbrev_checks.scanned / MOST_READINGS > fdp->sfd_size)
        return false;
    const uint8_t *const begin = fdp->sfd_u.buf + offset, *at = begin;
    const bool found = check_abbrevs<extended_forms>(&at, fdp->sfd_u.buf + fdp->sfd_size, code, true, single);
    const auto size = static_cast<uint64_t>(at - begin);
    if (code != 1 || !found)
        hp->sh_abbrev_checks.scanned += size;
    else if (size <= UINT16_MAX)
        single->ssa_size = static_cast<uint16_t>(size);
    return found;
}

bool krv_abbrev_check_table(krv_handle_t *hp, krv_offset_t offset, uint64_t code, krv_single_abbrev_t *single)
{
    const krv_fd_t *fdp = &hp->sh_sec[KRV_SEC_ABBREV];
    if (krv_fd_is_cb(fdp) || offset >= fdp->sfd_size)
        return false;
    if (krv_reads_as_written(hp))
        return find_in_table(hp, offset, code, single);
    // Units stand in the order of their tables, or share one. No byte is checked again: neither of a sound table, whose
    // first abbreviation alone is read for further units, nor of one that failed, of which tails may be named.
    const bool again = hp->sh_abbrev_checks.end != 0 && offset == hp->sh_abbrev_checks.table;
    if (again ? code != 1 : offset < hp->sh_abbrev_checks.end)
        return false;
    const uint8_t *at = fdp->sfd_u.buf + offset;
    const auto check = hp->sh_ext == 0 ? check_abbrevs<base_forms> : check_abbrevs<extended_forms>;
    const bool found = check(&at, fdp->sfd_u.buf + fdp->sfd_size, code, again, single);
    if (!again) {
        hp->sh_abbrev_checks.table = found ? offset : NONE;
        hp->sh_abbrev_checks.end = static_cast<uint64_t>(at - fdp->sfd_u.buf);
    }
    return found;
}

// Tables of a sound section do not overlap. Of one where every unit names another tail of the same table, as many are
// kept as would fill it some times over.
static bool may_keep(krv_handle_t *hp, krv_offset_t offset, uint64_t end, krv_secidx_t sec)
{
    constexpr uint64_t MOST_READINGS = 4; // of a byte, on the average
    const krv_fd_t *fdp = krv_section(hp, sec);
    const uint64_t kept = hp->sh_abbrev_bytes + (end - offset);
    if (kept / MOST_READINGS > fdp->sfd_size + KRV_KEPT_SLACK) {
        krv_fail(hp, KRV_ERR_CORRUPT, "abbreviation table at offset %lu overlaps too many others",
                 static_cast<unsigned long>(offset));
        return false;
    }
    hp->sh_abbrev_bytes = kept;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Compilers write the same table for many units.
// ---------------------------------------------------------------------------------------------------------------

// Bytes of a table that is in memory and regular; 0: it is not, too many were read for this already, or the handle has no
// extensions, where a table is read once.
static uint64_t sound_size(krv_handle_t *hp, krv_offset_t offset)
{
    constexpr uint64_t MOST_READINGS = 4; // of a byte, on the average
    const krv_fd_t *fdp = &hp->sh_sec[KRV_SEC_ABBREV];
    if (hp->sh_ext == 0 || krv_fd_is_cb(fdp) || offset >= fdp->sfd_size ||
        hp->sh_abbrev_compared / MOST_READINGS > fdp->sfd_size)
        return 0;
    const uint8_t *const begin = fdp->sfd_u.buf + offset, *at = begin;
    krv_single_abbrev_t first;
    const bool is_sound = check_abbrevs<extended_forms>(&at, fdp->sfd_u.buf + fdp->sfd_size, 1, false, &first);
    const auto size = static_cast<uint64_t>(at - begin);
    hp->sh_abbrev_compared = hp->sh_abbrev_compared + size;
    return is_sound ? size : 0;
}

static uint64_t digest(const uint8_t *at, uint64_t size)
{
    uint64_t sum = size;
    for (uint64_t word; size >= sizeof(word); at += sizeof(word), size -= sizeof(word)) {
        std::memcpy(&word, at, sizeof(word));
        sum = (sum ^ word) * 0x9e3779b97f4a7c15;
        sum ^= sum >> 32;
    }
    uint64_t rest = 0;
    std::memcpy(&rest, at, size);
    return (sum ^ rest) * 0x9e3779b97f4a7c15;
}

// A table with the same bytes, or NULL; *size are those of the table, and *key is what it is found by.
static krv_au_t *find_same(krv_handle_t *hp, krv_offset_t offset, uint64_t *size, krv_hash_key_t *key)
{
    *size = sound_size(hp, offset);
    if (*size == 0)
        return nullptr;
    const uint8_t *section = hp->sh_sec[KRV_SEC_ABBREV].sfd_u.buf;
    key->dwhk_u = digest(section + offset, *size);
    krv_hash_t *hash = krv_load(&hp->sh_au_same);
    auto *au = hash == nullptr ? nullptr : static_cast<krv_au_t *>(krv_hash_lookup(hp, hash, key));
    const bool is_same =
        au != nullptr && au->sau_size == *size && std::memcmp(section + au->sau_offset, section + offset, *size) == 0;
    if (is_same)
        krv_clear_error(hp);
    return is_same ? au : nullptr;
}

// Where memory does not suffice, others have tables of their own.
static void offer(krv_handle_t *hp, krv_au_t *au, uint64_t key)
{
    const krv_hash_key_t digested = {.dwhk_u = key};
    if (krv_hash_t *hash = krv_hash_get(hp, &hp->sh_au_same))
        krv_hash_insert(hp, hash, &digested, au);
    krv_clear_error(hp);
}

krv_au_t *krv_get_au_by_offset(krv_handle_t *hp, krv_offset_t offset, krv_secidx_t sec)
{
    KRV_ASSERT(hp != NULL);
    krv_hash_t *hash = krv_hash_get(hp, &hp->sh_auphash);
    if (hash == nullptr)
        return nullptr;
    // Those of both files share a cache; no section in memory has an offset with the highest bit.
    const krv_hash_key_t key = {.dwhk_u = sec == KRV_SEC_ABBREV ? offset : offset | uint64_t{1} << 63};
    if (void *cached = krv_hash_lookup(hp, hash, &key))
        return static_cast<krv_au_t *>(cached);
    uint64_t end = 0, size = 0;
    krv_hash_key_t same = {};
    if (krv_au_t *au = sec == KRV_SEC_ABBREV ? find_same(hp, offset, &size, &same) : nullptr)
        return au;
    krv_au_t *fresh = krv_abbrev_unit_alloc(hp, offset, sec, &end);
    if (fresh == nullptr)
        return nullptr;
    fresh->sau_size = size;
    if (!may_keep(hp, offset, end, sec)) {
        krv_abbrev_unit_free(fresh);
        return nullptr;
    }
    auto *stored = static_cast<krv_au_t *>(krv_hash_insert(hp, hash, &key, fresh));
    if (stored != fresh)
        krv_abbrev_unit_free(fresh);
    else if (size != 0)
        offer(hp, fresh, same.dwhk_u);
    return stored;
}

krv_abbrev_t *krv_get_abbrev(krv_handle_t *hp, krv_au_t *au, unsigned int code)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(au != NULL);
    if (krv_abbrev_t *abbrev = krv_abbrev_at_its_code(au, code))
        return abbrev;
    if (const uint32_t *first = au->sau_by_code; first != nullptr) {
        krv_abbrev_t *abbrevs = au->sau_abbrev_table;
        const uint32_t *last = first + au->sau_abbrev_table_entries;
        const uint32_t *found = std::lower_bound(
            first, last, code, [abbrevs](uint32_t i, unsigned int c) { return abbrevs[i].dwa_code < c; });
        if (found != last && abbrevs[*found].dwa_code == code)
            return &abbrevs[*found];
    }
    krv_fail(hp, KRV_ERR_CORRUPT, "abbreviation code %u not found", code);
    return nullptr;
}

// What stands at their offsets is about to change.
static void forget_same(krv_handle_t *hp)
{
    if (hp->sh_au_same != nullptr)
        krv_hash_destroy(hp->sh_au_same);
    hp->sh_au_same = nullptr;
}

int krv_abbrev_forget_checks(krv_handle_t *hp)
{
    if (hp->sh_abbrev_checks.end != 0 && hp->sh_abbrev_checks.table != NONE &&
        krv_get_au_by_offset(hp, hp->sh_abbrev_checks.table) == nullptr && krv_ran_out(hp))
        return -1;
    hp->sh_abbrev_checks.end = 0;
    forget_same(hp);
    return 0;
}

static int free_cached(void *value)
{
    krv_abbrev_unit_free(static_cast<krv_au_t *>(value));
    return 0;
}

void krv_abbrev_destroy_caches(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    forget_same(hp);
    if (hp->sh_auphash == nullptr)
        return;
    krv_hash_iter(hp->sh_auphash, free_cached);
    krv_hash_destroy(hp->sh_auphash);
    hp->sh_auphash = nullptr;
}
