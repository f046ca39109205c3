// SPDX-License-Identifier: Apache-2.0
#include "krv_abbrev.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_hash.h"
#include "krv_mem.h"
#include "krv_names.h"

constexpr uint64_t FIRST_CAPACITY = 64;

namespace
{

// A table while it is read; frees what nobody took over.
struct table_builder {
    krv_handle_t *hp;
    krv_fd_t *fdp; // the handle's .debug_abbrev cursor, used in place
    uint64_t offset;
    krv_abbrev_t *abbrevs = nullptr;
    uint64_t abbrevs_size = 0, nabbrevs = 0;
    krv_afpair_t *pairs = nullptr;
    uint64_t pairs_size = 0, npairs = 0;

    table_builder(krv_handle_t *handle, uint64_t where)
        : hp(handle), fdp(&handle->sh_sec[KRV_SEC_ABBREV]), offset(where)
    {
    }
    ~table_builder()
    {
        krv_free(abbrevs);
        krv_free(pairs);
    }
    table_builder(const table_builder &) = delete;
    table_builder &operator=(const table_builder &) = delete;

    unsigned long shown_offset() const { return static_cast<unsigned long>(offset); }
};

// What a step of the reading came to. `cut`: the list ended, but not with the (0, 0) that would complete it.
enum class outcome { next, done, cut, failed };

} // namespace

static bool append_pair(table_builder *t, krv_attribute_t attribute, krv_form_t form)
{
    if (!krv_table_grow(t->hp, &t->pairs, &t->pairs_size, t->npairs, FIRST_CAPACITY))
        return false;
    t->pairs[t->npairs++] = {attribute, form};
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

// Reads one pair: `next` when more may follow, `done` or `cut` when it ended the list.
static outcome read_pair(table_builder *t, krv_abbrev_t *abbrev)
{
    const uint32_t number = abbrev->dwa_nafpairs + 1;
    krv_attribute_t attribute = 0;
    krv_form_t form = 0;
    if (krv_decode(t->fdp, DW_FORM_udata, 0, &attribute) != 0) {
        krv_note(t->hp, "failed to read attribute %lu for abbreviation %u at offset %lu",
                 static_cast<unsigned long>(number), abbrev->dwa_code, t->shown_offset());
        return outcome::failed;
    }
    if (krv_decode(t->fdp, DW_FORM_udata, 0, &form) != 0) {
        krv_note(t->hp, "failed to read form %d for abbreviation %d at offset %lu", static_cast<int>(number),
                 static_cast<int>(abbrev->dwa_code), t->shown_offset());
        return outcome::failed;
    }
    if (attribute == 0 && form == 0)
        return outcome::done;
    if (attribute == 0 || form == 0)
        illegal_pair(t, number, abbrev, attribute, form);
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
    if (krv_decode(t->fdp, DW_FORM_udata, 0, &abbrev.dwa_code) != 0) {
        krv_note(t->hp, "failed to read code for abbreviation at offset %lu", t->shown_offset());
        return outcome::failed;
    }
    if (abbrev.dwa_code == 0)
        return outcome::done;
    uint8_t children = 0;
    if (krv_decode(t->fdp, DW_FORM_udata, 0, &abbrev.dwa_tag) != 0) {
        krv_note(t->hp, "failed to read tag for abbreviation at offset %lu", t->shown_offset());
        return outcome::failed;
    }
    if (krv_decode(t->fdp, DW_FORM_data1, 0, &children) != 0) {
        krv_note(t->hp, "failed to read children flag for abbreviation at offset %lu", t->shown_offset());
        return outcome::failed;
    }
    abbrev.dwa_flags = children != 0 ? KRV_ABBREV_FLAG_PARENT : KRV_ABBREV_FLAG_NONE;
    abbrev.dwa_afpair_start = t->npairs;

    outcome pairs = t->fdp->sfd_remaining == 0 ? outcome::done : outcome::next; // done: a list that never began
    while (pairs == outcome::next)
        pairs = t->fdp->sfd_remaining == 0 ? outcome::cut : read_pair(t, &abbrev);
    if (pairs == outcome::failed)
        return outcome::failed;
    if (pairs == outcome::cut && t->fdp->sfd_remaining == 0)
        return outcome::done;
    if (!krv_table_grow(t->hp, &t->abbrevs, &t->abbrevs_size, t->nabbrevs, FIRST_CAPACITY))
        return outcome::failed;
    t->abbrevs[t->nabbrevs++] = abbrev;
    return outcome::next;
}

namespace
{

// Numbers of a table in memory.
struct number_scanner {
    const uint8_t *at, *end;

    bool read(uint64_t most, uint64_t *value)
    {
        if (at != end && *at < 0x80) {
            *value = *at++;
            return *value <= most;
        }
        const unsigned int width = krv_scan_uleb128({at, static_cast<uint64_t>(end - at)}, value);
        at += width;
        return width != 0 && *value <= most;
    }
};

} // namespace

static bool is_short(uint8_t number)
{
    return number != 0 && number < 0x80;
}

// The pairs of one abbreviation, to their (0, 0). False: irregular or cut off, or no memory.
static bool scan_pairs(table_builder *t, number_scanner *scanner)
{
    for (;;) {
        if (!krv_table_grow(t->hp, &t->pairs, &t->pairs_size, t->npairs, FIRST_CAPACITY))
            return false;
        krv_afpair_t *to = t->pairs + t->npairs, *const full = t->pairs + t->pairs_size;
        // Two short numbers, neither of them 0, in nearly all cases.
        const uint8_t *at = scanner->at;
        for (; to != full && scanner->end - at >= 2 && is_short(at[0]) && is_short(at[1]); at += 2)
            *to++ = {at[0], at[1]};
        scanner->at = at;
        uint64_t attribute = 1, form = 1;
        if (to != full) {
            if (!scanner->read(UINT16_MAX, &attribute) || !scanner->read(UINT8_MAX, &form) ||
                (attribute == 0) != (form == 0))
                return false;
            if (attribute != 0)
                *to++ = {static_cast<krv_attribute_t>(attribute), static_cast<krv_form_t>(form)};
        }
        t->npairs = static_cast<uint64_t>(to - t->pairs);
        if (attribute == 0)
            return true;
    }
}

// Reads the abbreviations that are in memory and regular, as nearly all are: `done` at the null code, `next` where
// read_abbrev has to see what comes.
static outcome scan_abbrevs(table_builder *t)
{
    const krv_view_t view = krv_fd_view(t->fdp);
    number_scanner scanner = {view.bytes, view.bytes + view.size};
    const uint8_t *behind = view.bytes; // the last one that was read whole
    outcome result = outcome::next;
    while (result == outcome::next) {
        const uint64_t start = t->npairs;
        uint64_t code = 0, tag = 0;
        if (!scanner.read(UINT32_MAX, &code))
            break;
        if (code != 0) {
            if (!scanner.read(UINT16_MAX, &tag) || scanner.at == scanner.end)
                break;
            const krv_abbrev_flag_t flags = *scanner.at++ != 0 ? KRV_ABBREV_FLAG_PARENT : KRV_ABBREV_FLAG_NONE;
            if (!scan_pairs(t, &scanner) ||
                !krv_table_grow(t->hp, &t->abbrevs, &t->abbrevs_size, t->nabbrevs, FIRST_CAPACITY)) {
                t->npairs = start;
                break;
            }
            t->abbrevs[t->nabbrevs++] = {static_cast<uint32_t>(code),
                                         static_cast<krv_tag_t>(tag),
                                         flags,
                                         static_cast<uint32_t>(t->npairs - start),
                                         nullptr,
                                         start};
        }
        behind = scanner.at;
        result = code == 0 ? outcome::done : outcome::next;
    }
    if (behind != view.bytes)
        krv_clear_error(t->hp);
    krv_fd_advance(t->fdp, static_cast<uint64_t>(behind - view.bytes));
    return result;
}

// Compilers number abbreviations from 1 on. Then the code is the way into the table, and the hash stays empty.
static krv_abbrev_t *at_its_code(krv_abbrev_t *abbrevs, uint64_t count, uint64_t code)
{
    return code - 1 < count && abbrevs[code - 1].dwa_code == code ? &abbrevs[code - 1] : nullptr;
}

static bool numbered_in_order(const table_builder *t)
{
    uint64_t i = 0;
    while (i < t->nabbrevs && t->abbrevs[i].dwa_code == i + 1)
        ++i;
    return i == t->nabbrevs;
}

// The hash of all tables that need none. Nothing is ever inserted.
static krv_hash_t *no_codes()
{
    static krv_hash_elem_t *bucket;
    static krv_hash_t hash = {&bucket, 1, 0, {}, krv_hash_hash_uint64, krv_hash_cmp_uint64};
    return &hash;
}

static void destroy_codes(krv_hash_t *hash)
{
    if (hash != no_codes())
        krv_hash_destroy(hash);
}

static krv_hash_t *hash_abbrevs(table_builder *t)
{
    if (numbered_in_order(t))
        return no_codes();
    // The count is a hint only; no table has more abbreviations than a code has values.
    krv_hash_t *hash = krv_hash_create(t->hp, static_cast<unsigned int>(t->nabbrevs), KRV_HASH_UINT64);
    if (hash == nullptr)
        return nullptr;
    for (uint64_t i = 0; i < t->nabbrevs; ++i) {
        krv_abbrev_t *abbrev = &t->abbrevs[i];
        const krv_hash_key_t key = {.dwhk_u = abbrev->dwa_code};
        if (krv_hash_insert(t->hp, hash, &key, abbrev) != abbrev) {
            krv_note(t->hp, "error hashing abbreviation");
            krv_hash_destroy(hash);
            return nullptr;
        }
    }
    return hash;
}

krv_au_t *krv_abbrev_unit_alloc(krv_handle_t *hp, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    table_builder t(hp, offset);
    if (korva_fd_seek(t.fdp, offset, KRV_FD_SEEK_SET) != 0) {
        krv_note(hp, "can't seek to %lu in .debug_abbrev", t.shown_offset());
        return nullptr;
    }
    while (t.fdp->sfd_remaining > 0) {
        outcome abbrev = scan_abbrevs(&t);
        if (abbrev == outcome::next && t.fdp->sfd_remaining > 0)
            abbrev = read_abbrev(&t);
        if (abbrev == outcome::failed)
            return nullptr;
        if (abbrev == outcome::done)
            break;
    }
    if (!krv_table_trim(hp, &t.abbrevs, &t.abbrevs_size, t.nabbrevs) ||
        !krv_table_trim(hp, &t.pairs, &t.pairs_size, t.npairs))
        return nullptr;
    krv_hash_t *hash = hash_abbrevs(&t);
    if (hash == nullptr)
        return nullptr;
    for (uint64_t i = 0; i < t.nabbrevs; ++i)
        if (t.npairs != 0)
            t.abbrevs[i].dwa_afpairs = t.pairs + t.abbrevs[i].dwa_afpair_start;
    auto *au = krv_new<krv_au_t>(hp);
    if (au == nullptr) {
        destroy_codes(hash);
        return nullptr;
    }
    *au = {t.abbrevs, t.nabbrevs, t.pairs, t.npairs, hash, offset};
    t.abbrevs = nullptr;
    t.pairs = nullptr;
    return au;
}

void krv_abbrev_unit_free(krv_au_t *au)
{
    destroy_codes(au->sau_hash);
    krv_free(au->sau_abbrev_table);
    krv_free(au->sau_afpair_table);
    krv_free(au);
}

static krv_hash_t *get_auphash(krv_handle_t *hp)
{
    if (krv_hash_t *hash = krv_load(&hp->sh_auphash))
        return hash;
    krv_hash_t *fresh = krv_hash_create(hp, 0, KRV_HASH_UINT64);
    return fresh == nullptr ? nullptr : krv_publish(&hp->sh_auphash, fresh, krv_hash_destroy);
}

// Tables of a sound section do not overlap. Of one where every unit names another tail of the same table, as many are
// kept as would fill it some times over. The section's cursor stands behind the table.
static bool may_keep(krv_handle_t *hp, krv_offset_t offset)
{
    constexpr uint64_t MOST_READINGS = 4; // of a byte, on the average
    const krv_fd_t *fdp = &hp->sh_sec[KRV_SEC_ABBREV];
    const uint64_t kept = hp->sh_abbrev_bytes + (fdp->sfd_offset - offset);
    if (kept / MOST_READINGS > fdp->sfd_size + KRV_KEPT_SLACK) {
        krv_fail(hp, KRV_ERR_CORRUPT, "abbreviation table at offset %lu overlaps too many others",
                 static_cast<unsigned long>(offset));
        return false;
    }
    hp->sh_abbrev_bytes = kept;
    return true;
}

krv_au_t *krv_get_au_by_offset(krv_handle_t *hp, krv_offset_t offset)
{
    KRV_ASSERT(hp != NULL);
    krv_hash_t *hash = get_auphash(hp);
    if (hash == nullptr)
        return nullptr;
    const krv_hash_key_t key = {.dwhk_u = offset};
    if (void *cached = krv_hash_lookup(hp, hash, &key))
        return static_cast<krv_au_t *>(cached);
    krv_au_t *fresh = krv_abbrev_unit_alloc(hp, offset);
    if (fresh == nullptr)
        return nullptr;
    if (!may_keep(hp, offset)) {
        krv_abbrev_unit_free(fresh);
        return nullptr;
    }
    auto *stored = static_cast<krv_au_t *>(krv_hash_insert(hp, hash, &key, fresh));
    if (stored != fresh)
        krv_abbrev_unit_free(fresh);
    return stored;
}

krv_abbrev_t *krv_get_abbrev(krv_handle_t *hp, krv_au_t *au, unsigned int code)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(au != NULL);
    KRV_ASSERT(au->sau_hash != NULL);
    if (krv_abbrev_t *abbrev = at_its_code(au->sau_abbrev_table, au->sau_abbrev_table_entries, code))
        return abbrev;
    const krv_hash_key_t key = {.dwhk_u = code};
    void *abbrev = krv_hash_lookup(hp, au->sau_hash, &key);
    if (abbrev == nullptr)
        krv_fail(hp, KRV_ERR_CORRUPT, "abbreviation code %u not found", code);
    return static_cast<krv_abbrev_t *>(abbrev);
}

static int free_cached(void *value)
{
    krv_abbrev_unit_free(static_cast<krv_au_t *>(value));
    return 0;
}

void krv_abbrev_destroy_caches(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    if (hp->sh_auphash == nullptr)
        return;
    krv_hash_iter(hp->sh_auphash, free_cached);
    krv_hash_destroy(hp->sh_auphash);
    hp->sh_auphash = nullptr;
}
