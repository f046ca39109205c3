// SPDX-License-Identifier: Apache-2.0
//
// Entries: reading one into a record, finding attributes, walking the tree. Reading moves the
// section's own cursor.
#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_info.h"
#include "krv_mem.h"
#include "krv_names.h"
#include "krv_peek.h"
#include "krv_threads.h"

#include <algorithm>
#include <utility>

using die_owner = std::unique_ptr<krv_die_t, krv_die_deleter>;

// ---------------------------------------------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------------------------------------------

static bool is_block(const krv_form_row_t &row)
{
    return row.family == krv_family_t::block || row.family == krv_family_t::bytes;
}

static bool is_string(const krv_form_row_t &row)
{
    switch (row.family) {
    case krv_family_t::string:
    case krv_family_t::strp:
    case krv_family_t::line_strp:
    case krv_family_t::alt_strp:
        return true;
    default:
        return false;
    }
}

// An allocation that the entry frees. Behind it is what a value points to.
struct krv_die_part_t {
    krv_die_part_t *next;
};

void *krv_die_alloc_part(krv_handle_t *hp, krv_die_t *die, uint64_t size)
{
    if (size > PTRDIFF_MAX - sizeof(krv_die_part_t)) {
        krv_errno(hp) = KRV_ERR_NOMEM;
        return nullptr;
    }
    auto *part = static_cast<krv_die_part_t *>(krv_alloc(hp, sizeof(krv_die_part_t) + size));
    if (part == nullptr)
        return nullptr;
    part->next = die->dwdie_parts;
    die->dwdie_parts = part;
    return part + 1;
}

// A cursor with a copy of the bytes behind it.
static bool read_block(krv_fd_t *fdp, const krv_encoding_t &encoding, krv_die_t *die, krv_value_t *value)
{
    krv_handle_t *hp = fdp->sfd_hp;
    const krv_datum_t datum = krv_block_in_memory(fdp, value->sa_actual);
    size_t length = datum.size;
    if (datum.bytes == nullptr && krv_decode_form(fdp, value->sa_actual, encoding, false, nullptr, 0, &length) != 0)
        return false;
    auto *block = static_cast<krv_fd_t *>(krv_die_alloc_part(hp, die, krv_add_offset(sizeof(krv_fd_t), length)));
    if (block == nullptr)
        return false;
    krv_fd_attach_mem(hp, block, length, length == 0 ? nullptr : reinterpret_cast<uint8_t *>(block + 1));
    value->sa_u.su_addr = block;
    if (datum.bytes == nullptr)
        return krv_decode_form(fdp, value->sa_actual, encoding, false, block, length, nullptr) == 0;
    std::memcpy(block + 1, datum.bytes, length);
    krv_fd_advance(fdp, datum.encoded);
    return true;
}

// One in memory stays where it is.
[[gnu::always_inline]] static inline bool read_string(krv_fd_t *fdp, const krv_encoding_t &encoding, krv_die_t *die,
                                                      krv_value_t *value, krv_peek_t *peek)
{
    krv_handle_t *hp = fdp->sfd_hp;
    const krv_datum_t datum = peek == nullptr ? krv_string_in_memory(hp, krv_fd_view(fdp), value->sa_actual, encoding)
                                              : krv_peek_string(peek, fdp, value->sa_actual, encoding);
    if (datum.bytes != nullptr) {
        value->sa_u.su_addr = const_cast<uint8_t *>(datum.bytes);
        krv_fd_advance(fdp, datum.encoded);
        return true;
    }
    size_t size = 0;
    if (krv_decode_form(fdp, value->sa_actual, encoding, false, nullptr, 0, &size) != 0)
        return false;
    die->dwdie_copied = krv_add_offset(die->dwdie_copied, size);
    if (!krv_may_copy(hp, die->dwdie_copied)) {
        krv_fail(hp, KRV_ERR_CORRUPT, "the entry's strings are too long");
        return false;
    }
    value->sa_u.su_addr = krv_die_alloc_part(hp, die, size);
    return value->sa_u.su_addr != nullptr &&
           krv_decode_form(fdp, value->sa_actual, encoding, false, value->sa_u.su_addr, size, nullptr) == 0;
}

// Reads one value, stored by the form that the data really have: DW_FORM_indirect may lead to a string or a block.
[[gnu::always_inline]] static inline bool read_value(krv_fd_t *fdp, const krv_encoding_t &encoding, krv_form_t form,
                                                     krv_die_t *die, krv_value_t *value)
{
    value->sa_form = value->sa_actual = form;
    value->sa_u.su_unsigned = 0;
    if (krv_decode_in_memory(fdp, form, encoding, &value->sa_u.su_unsigned))
        return true;
    if (form == DW_FORM_indirect && krv_decode_indirect(fdp, &value->sa_actual) != 0)
        return false;
    const krv_form_row_t row = krv_form_row(value->sa_actual, encoding.forms);
    if (is_string(row))
        return read_string(fdp, encoding, die, value, krv_peek_of(fdp));
    if (is_block(row))
        return read_block(fdp, encoding, die, value);
    value->sa_u.su_unsigned = value->sa_actual == DW_FORM_flag_present ? 1 : 0;
    return krv_decode(fdp, value->sa_actual, encoding, &value->sa_u.su_unsigned) == 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Entries
// ---------------------------------------------------------------------------------------------------------------

void krv_free_die(krv_die_t *die)
{
    if (die == nullptr)
        return;
    for (krv_die_part_t *part = die->dwdie_parts, *next; part != nullptr; part = next) {
        next = part->next;
        krv_free(part);
    }
    krv_free(die);
}

krv_au_t *krv_cu_read_abbrevs(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_au_t *au = cu->dcu_section == KRV_SEC_EXT_ALT_INFO
                       ? krv_get_au_by_offset(hp, cu->dcu_debug_abbrev_offset, KRV_SEC_EXT_ALT_ABBREV)
                       : krv_get_au_by_offset(hp, cu->dcu_debug_abbrev_offset);
    // The table belongs to the handle's cache, so a lost race discards nothing.
    return au == nullptr ? nullptr : krv_publish(&cu->dcu_abbrev_unit, au, [](krv_au_t *) {});
}

// Values that entries of DWARF 5 have many of. False: none of them, and nothing has changed.
static inline bool read_later_value(const krv_view_t &view, const krv_encoding_t &encoding, krv_form_t form,
                                    krv_value_t *value, uint64_t *done)
{
    const krv_form_row_t row = krv_form_row(form, KRV_ALL_FORMS);
    switch (row.family) {
    case krv_family_t::number: { // the offset of an entry, or at the section's end
        const size_t width = krv_form_width(row, encoding);
        if (*done > view.size || width > view.size - *done)
            return false;
        value->sa_u.su_unsigned = 0;
        std::memcpy(&value->sa_u.su_unsigned, view.bytes + *done, width);
        *done += width;
        break;
    }
    case krv_family_t::implicit: // resolve_values knows it
    case krv_family_t::present:
        value->sa_u.su_unsigned = 1;
        break;
    case krv_family_t::uleb128: {
        if (*done >= view.size)
            return false;
        const uint8_t *at = view.bytes + *done;
        const uint8_t *behind = krv_scan_short_uleb128(at, view.bytes + view.size, &value->sa_u.su_unsigned);
        if (behind == nullptr)
            return false;
        *done += static_cast<uint64_t>(behind - at);
        break;
    }
    default:
        return false;
    }
    value->sa_form = value->sa_actual = form;
    return true;
}

// Reads all values of an entry and moves the cursor behind them. Numbers of a fixed width, as most are, differ in
// nothing but that width; what is not such a number in memory, read_value reads. FORMS: whether there may be any of
// extensions.
template <uint8_t FORMS>
static bool read_values(krv_fd_t *fdp, const krv_encoding_t &encoding, const krv_abbrev_t *abbrev, krv_die_t *die)
{
    const krv_fd_t start = *fdp; // which a client's call that reads a string may move, when it asks the handle
    const krv_view_t view = krv_fd_view(&start);
    const bool is_in_memory = !krv_fd_is_cb(&start);
    uint64_t done = 0;
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        const krv_form_t form = abbrev->dwa_afpairs[i].dwafp_form;
        krv_value_t *value = &die->dwdie_attrs[i];
        const size_t width = krv_number_width(form, encoding, FORMS);
        if (width != 0 && view.size >= sizeof(uint64_t) && done <= view.size - sizeof(uint64_t)) {
            uint64_t word;
            std::memcpy(&word, view.bytes + done, sizeof(word));
            value->sa_u.su_unsigned = word & UINT64_MAX >> (64 - 8 * width);
            value->sa_form = value->sa_actual = form;
            done += width;
            continue;
        }
        if (is_in_memory && krv_form_row(form, FORMS).classes == KRV_CLASS_STRING) {
            const krv_datum_t text =
                krv_string_in_memory(fdp->sfd_hp, {view.bytes + done, view.size - done}, form, encoding);
            if (text.bytes != nullptr) {
                value->sa_u.su_addr = const_cast<uint8_t *>(text.bytes);
                value->sa_form = value->sa_actual = form;
                done += text.encoded;
                continue;
            }
        }
        if (FORMS == KRV_ALL_FORMS && read_later_value(view, encoding, form, value, &done))
            continue;
        krv_fd_t fd = start;
        krv_fd_advance(&fd, done);
        if (!read_value(&fd, encoding, form, die, value)) {
            if (!krv_ran_out(fdp->sfd_hp))
                krv_note(fdp->sfd_hp, "failed to read DIE's datum %d (%s attribute encoded as %s form)",
                         static_cast<int>(i), krv_name_or_unknown(KRV_DEF_AT, abbrev->dwa_afpairs[i].dwafp_attribute),
                         krv_form_name(form, encoding.is_extended()));
            return false;
        }
        done = fd.sfd_offset - start.sfd_offset;
    }
    fdp->sfd_offset = start.sfd_offset + done;
    fdp->sfd_remaining = start.sfd_remaining - done;
    if (abbrev->dwa_nafpairs != 0)
        krv_clear_error(fdp->sfd_hp);
    return true;
}

static krv_abbrev_t *find_abbrev(krv_handle_t *hp, krv_au_t *au, uint64_t code)
{
    krv_abbrev_t *abbrev = krv_abbrev_at_its_code(au, code);
    if (abbrev != nullptr)
        return abbrev;
    if (code <= UINT32_MAX)
        abbrev = krv_get_abbrev(hp, au, static_cast<unsigned int>(code));
    else // no abbreviation has such a code; shown in the 32 bits that the message has room for
        krv_fail(hp, KRV_ERR_CORRUPT, "abbreviation code %u not found", static_cast<unsigned int>(code));
    if (abbrev == nullptr)
        krv_note(hp, "failed to obtain abbreviation for code %lld", static_cast<long long>(code));
    return abbrev;
}

// Gives values what their bytes alone do not tell: constants of the abbreviation, and the strings and addresses that their
// indices lead to, through tables of the unit.
static bool resolve_values(krv_handle_t *hp, const krv_ctu_t *cu, krv_die_t *die, krv_peek_t *peek)
{
    const krv_encoding_t encoding = krv_cu_encoding(hp, cu);
    const krv_abbrev_t *abbrev = die->dwdie_abbrev_cache;
    const int64_t *implicit = abbrev->dwa_implicit;
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        krv_value_t *value = &die->dwdie_attrs[i];
        if (!krv_is_extended_form(value->sa_actual))
            continue;
        if (value->sa_actual == KRV_EXT_DW_FORM_implicit_const && value->sa_form == value->sa_actual) {
            value->sa_u.su_signed = *implicit++;
            continue;
        }
        const krv_form_row_t row = krv_form_row(value->sa_actual, KRV_ALL_FORMS);
        const bool is_text = row.classes == KRV_CLASS_STRING && !is_string(row);
        if (!is_text && row.classes != KRV_CLASS_ADDRESS)
            continue;
        uint64_t number = 0;
        bool sound = krv_cu_read_indexed(hp, cu, is_text ? KRV_BASE_STR_OFFSETS : KRV_BASE_ADDR,
                                         value->sa_u.su_unsigned, &number);
        value->sa_actual = is_text ? DW_FORM_strp : DW_FORM_addr;
        if (sound && is_text) { // as if the offset had been written in place of the index
            uint8_t offset[sizeof(number)];
            std::memcpy(offset, &number, sizeof(number));
            krv_fd_t fd;
            krv_fd_attach_mem(hp, &fd, sizeof(offset), offset);
            sound = read_string(&fd, encoding, die, value, peek);
        } else {
            value->sa_u.su_unsigned = number;
        }
        if (!sound) {
            krv_note(hp, "failed to read DIE's datum %u (attribute 0x%x encoded as %s form)", i,
                     abbrev->dwa_afpairs[i].dwafp_attribute, krv_form_name(value->sa_form, true));
            return false;
        }
    }
    return true;
}

// The rest of read_die where extensions are read.
[[gnu::noinline]] static krv_die_t *read_extended(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu,
                                                  const krv_encoding_t &encoding, krv_abbrev_t *abbrev, krv_die_t *room)
{
    die_owner die(room);
    if (!read_values<KRV_ALL_FORMS>(fdp, encoding, abbrev, die.get()))
        return nullptr;
    if (cu->dcu_compile_unit == nullptr) // this is it
        krv_cu_take_bases(cu, die.get());
    const bool leads = (abbrev->dwa_flags & KRV_ABBREV_FLAG_LEADS) != 0;
    return !leads || resolve_values(hp, cu, die.get(), krv_peek_of(fdp)) ? die.release() : nullptr;
}

// Of a record with its values.
static size_t record_size(const krv_abbrev_t *abbrev)
{
    const size_t slots = abbrev->dwa_nafpairs == 0 ? 1 : abbrev->dwa_nafpairs;
    return offsetof(krv_die_t, dwdie_attrs) + slots * sizeof(krv_value_t);
}

krv_ctu_t *krv_die_unit_room(krv_die_t *die)
{
    return reinterpret_cast<krv_ctu_t *>(reinterpret_cast<char *>(die) + record_size(die->dwdie_abbrev_cache));
}

// Reads the entry whose code the cursor stands behind, into a record with so much room behind it. NULL: messages pushed.
static krv_die_t *read_die(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu, krv_abbrev_t *abbrev, size_t room)
{
    die_owner die(static_cast<krv_die_t *>(krv_alloc(hp, record_size(abbrev) + room)));
    if (die == nullptr)
        return nullptr;
    die->dwdie_abbrev_cache = abbrev;
    die->dwdie_parts = nullptr;
    die->dwdie_copied = 0;
    const krv_encoding_t encoding = krv_cu_encoding(hp, cu);
    if (encoding.is_extended())
        return read_extended(hp, fdp, cu, encoding, abbrev, die.release());
    return read_values<KRV_BASE_FORMS>(fdp, encoding, abbrev, die.get()) ? die.release() : nullptr;
}

uint64_t krv_cu_most_attributes(const krv_ctu_t *cu)
{
    constexpr uint64_t MOST = 64; // a byte
    return cu->dcu_size > UINT64_MAX / MOST ? UINT64_MAX : MOST * cu->dcu_size;
}

static bool take_attributes(krv_handle_t *hp, const krv_abbrev_t *abbrev, uint64_t section_offset, uint64_t *left)
{
    if (abbrev->dwa_nafpairs > *left) {
        krv_fail(hp, KRV_ERR_CORRUPT, "too many attributes in the entries up to offset %lu",
                 static_cast<unsigned long>(section_offset));
        return false;
    }
    *left -= abbrev->dwa_nafpairs;
    return true;
}

// Compilers begin their units alike: the abbreviation of the unit before, where the tables of both begin with the same bytes.
// NULL: another.
static krv_abbrev_t *same_abbrev(krv_handle_t *hp, krv_ctu_t *cu, const krv_ctu_t *before, uint64_t code)
{
    if (before == nullptr || before->dcu_abbrev_size == 0 || code != before->dcu_compile_unit->dwdie_code)
        return nullptr;
    const krv_fd_t *section = &hp->sh_sec[KRV_SEC_ABBREV];
    const uint64_t size = before->dcu_abbrev_size;
    const auto fits = [&](const krv_ctu_t *unit) {
        return krv_extent_fits(section->sfd_size, unit->dcu_debug_abbrev_offset, 0, size);
    };
    if (krv_fd_is_cb(section) || !fits(cu) || !fits(before) ||
        std::memcmp(section->sfd_u.buf + cu->dcu_debug_abbrev_offset,
                    section->sfd_u.buf + before->dcu_debug_abbrev_offset, size) != 0)
        return nullptr;
    cu->dcu_abbrev_size = before->dcu_abbrev_size;
    return before->dcu_compile_unit->dwdie_abbrev_cache;
}

// The abbreviation of a unit's first entry, without its table. NULL: not that case.
static krv_abbrev_t *first_abbrev(krv_handle_t *hp, krv_ctu_t *cu, const krv_ctu_t *before, uint64_t code,
                                  krv_single_abbrev_t *single)
{
    if (krv_abbrev_t *same = same_abbrev(hp, cu, before, code))
        return same;
    if (!krv_abbrev_check_table(hp, cu->dcu_debug_abbrev_offset, code, single))
        return nullptr;
    cu->dcu_abbrev_size = single->ssa_size;
    return &single->ssa_abbrev;
}

// A unit's first entry when `single` is there.
[[gnu::always_inline]] static inline krv_die_t *alloc_die(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu,
                                                          krv_offset_t offset, const krv_ctu_t *before,
                                                          krv_single_abbrev_t *single, krv_die_walk *walk)
{
    krv_clear_error(hp);
    const uint64_t section_offset = krv_add_offset(cu->dcu_offset, offset);
    krv_die_t *die = nullptr;
    uint64_t code = 0;
    if (krv_fd_seek(fdp, section_offset) == 0 &&
        krv_read_field(fdp, DW_FORM_udata, &code, "failed to read DIE's abbreviation code")) {
        if (code == 0) {
            walk->is_at_null = true;
            krv_errno(hp) = KRV_ERR_NOTFOUND;
            return nullptr;
        }
        krv_abbrev_t *abbrev = single == nullptr ? nullptr : first_abbrev(hp, cu, before, code, single);
        if (abbrev == nullptr) {
            // Reading a table tells what is wrong with it once, which is not to happen while messages are dropped.
            krv_au_t *au = krv_peek_of(fdp) != nullptr ? nullptr : krv_cu_abbrevs(hp, cu);
            if (au == nullptr)
                return nullptr;
            abbrev = find_abbrev(hp, au, code);
        }
        size_t room = single == nullptr ? 0 : sizeof(krv_ctu_t);
        if (single != nullptr && abbrev == &single->ssa_abbrev)
            room += krv_single_abbrev_size(single);
        if (abbrev != nullptr && take_attributes(hp, abbrev, section_offset, &walk->left))
            die = read_die(hp, fdp, cu, abbrev, room);
    }
    if (die == nullptr) {
        krv_note(hp, "could not allocate DIE at %+lld within CU at %lld within %s", static_cast<long long>(offset),
                 static_cast<long long>(cu->dcu_offset),
                 cu->dcu_section == KRV_SEC_TYPES ? ".debug_types" : ".debug_info");
        return nullptr;
    }
    die->dwdie_code = static_cast<uint32_t>(code);
    die->dwdie_parent_cu = cu;
    die->dwdie_cu_offset = offset;
    die->dwdie_section_offset = section_offset;
    die->dwdie_bufsize = fdp->sfd_offset - section_offset;
    return die;
}

krv_die_t *krv_alloc_next_die(krv_handle_t *hp, krv_ctu_t *cu, krv_offset_t offset, krv_die_walk *walk)
{
    return alloc_die(hp, krv_position(hp, cu->dcu_section), cu, offset, nullptr, nullptr, walk);
}

krv_die_t *krv_alloc_die_by_cu_offset(krv_handle_t *hp, krv_ctu_t *cu, krv_offset_t offset)
{
    if (hp == nullptr)
        return nullptr;
    if (cu == nullptr) {
        krv_errno(hp) = KRV_ERR_INVALID;
        return nullptr;
    }
    krv_die_walk walk = {UINT64_MAX, false};
    return krv_alloc_next_die(hp, cu, offset, &walk);
}

krv_die_t *krv_alloc_first_die(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu, const krv_ctu_t *before,
                               krv_single_abbrev_t *single)
{
    krv_die_walk walk = {UINT64_MAX, false}; // krv_units counts the attributes
    return alloc_die(hp, fdp, cu, cu->dcu_header_size, before, single, &walk);
}

krv_die_t *krv_alloc_no_die(krv_handle_t *hp, krv_ctu_t *cu)
{
    static krv_abbrev_t none = {};
    auto *die = static_cast<krv_die_t *>(krv_zalloc(hp, record_size(&none) + sizeof(krv_ctu_t)));
    if (die == nullptr)
        return nullptr;
    die->dwdie_abbrev_cache = &none;
    die->dwdie_parent_cu = cu;
    die->dwdie_cu_offset = cu->dcu_header_size;
    die->dwdie_section_offset = krv_add_offset(cu->dcu_offset, cu->dcu_header_size);
    return die;
}

// The class of a value's form. Behind DW_FORM_indirect, which has none, strings and blocks are what they are.
static uint32_t value_class(krv_form_t form, krv_form_t actual)
{
    if (form == DW_FORM_indirect)
        return krv_form_row(actual, KRV_ALL_FORMS).classes & (KRV_CLASS_STRING | KRV_CLASS_BLOCK | KRV_CLASS_EXPRLOC);
    return krv_form_row(form, KRV_ALL_FORMS).classes; // of values that were read
}

int krv_get_die_attr(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, krv_form_t *formp, int *classp,
                     krv_value_t **valuep)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(die != NULL);
    const krv_abbrev_t *abbrev = die->dwdie_abbrev_cache;
    for (uint32_t i = 0; i < abbrev->dwa_nafpairs; ++i) {
        if (abbrev->dwa_afpairs[i].dwafp_attribute != attr)
            continue;
        const krv_form_t form = abbrev->dwa_afpairs[i].dwafp_form;
        if (formp != nullptr)
            *formp = form;
        if (classp != nullptr)
            *classp = static_cast<int>(value_class(form, die->dwdie_attrs[i].sa_actual));
        if (valuep != nullptr)
            *valuep = &die->dwdie_attrs[i];
        return 0;
    }
    return krv_fail_code(hp, KRV_ERR_NOTFOUND);
}

int krv_get_die_tag(krv_handle_t *hp, krv_die_t *die, krv_tag_t *tagp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(die != NULL);
    KRV_ASSERT(tagp != NULL);
    *tagp = die->dwdie_abbrev_cache->dwa_tag;
    return 0;
}

// Characters before the NUL, of at most so many. A string in a section was seen to end there, but its bytes are the
// client's, who may have changed them since: it ends with the section at the latest.
static size_t text_length(const krv_handle_t *hp, const char *text, size_t most)
{
    bool is_placed = false;
    const auto end_with = [text, &most, &is_placed](const krv_fd_t *section) {
        const uint64_t offset = reinterpret_cast<uintptr_t>(text) - reinterpret_cast<uintptr_t>(section->sfd_u.buf);
        if (krv_fd_is_cb(section) || offset >= section->sfd_size)
            return;
        is_placed = true;
        if (section->sfd_size - offset < most)
            most = section->sfd_size - offset;
    };
    end_with(&hp->sh_sec[KRV_SEC_INFO]);
    end_with(&hp->sh_sec[KRV_SEC_STR]);
    for (unsigned i = 0; !is_placed && hp->sh_ext != 0 && i < KRV_EXT_SECTIONS; ++i)
        end_with(&hp->sh_ext_sec[i]);
    return strnlen(text, most);
}

// The whole name that a unit has a copy of, so that its pages need not be touched. NULL: it has none.
static const char *find_unit_copy(const krv_die_t *die, krv_attribute_t attr)
{
    const krv_ctu_t *const cu = die->dwdie_parent_cu;
    if ((cu->dcu_flags & KRV_CU_FLAG_COPIES) == 0 || cu->dcu_compile_unit != die)
        return nullptr;
    return attr == DW_AT_name ? cu->dcu_name : attr == DW_AT_comp_dir ? cu->dcu_comp_dir : nullptr;
}

const char *krv_find_die_string(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, size_t size, size_t *lengthp,
                                const krv_peek_t *peek)
{
    int mask = 0;
    krv_value_t *value = nullptr;
    if (krv_get_die_attr(hp, die, attr, nullptr, &mask, &value) != 0)
        return nullptr;
    if ((static_cast<uint32_t>(mask) & KRV_CLASS_STRING) == 0 || size == 0) {
        krv_errno(hp) = KRV_ERR_INVALID;
        *lengthp = KRV_NO_STRING;
        return nullptr;
    }
    const auto *text = static_cast<const char *>(value->sa_u.su_addr);
    if (const krv_peeked_text_t *known = peek == nullptr ? nullptr : krv_peek_known(peek, text)) {
        *lengthp = std::min(known->pt_length, size - 1);
        return known->pt_bytes;
    }
    if (const char *copy = find_unit_copy(die, attr)) {
        *lengthp = strnlen(copy, size - 1);
        return copy;
    }
    *lengthp = text_length(hp, text, size - 1);
    return text;
}

int krv_get_die_string_attr(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, char *buf, size_t size)
{
    KRV_ASSERT(buf != NULL);
    size_t length = 0;
    const char *text = krv_find_die_string(hp, die, attr, size, &length);
    if (text == nullptr)
        return -1;
    std::memcpy(buf, text, length);
    buf[length] = '\0';
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// The tree
// ---------------------------------------------------------------------------------------------------------------

static bool has_children(const krv_die_t *die)
{
    return (die->dwdie_abbrev_cache->dwa_flags & KRV_ABBREV_FLAG_PARENT) != 0;
}

// Unit-relative offset of what follows the entry itself: its first child, or its sibling when it has no children.
static krv_offset_t offset_behind(const krv_die_t *die)
{
    return die->dwdie_cu_offset + die->dwdie_bufsize;
}

// The unit-relative offset that a reference attribute holds. 0, 1 when it is absent (KRV_ERR_NOTFOUND), or -1: it is no
// reference, or one that leaves the unit.
static int get_reference(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, krv_offset_t *offsetp)
{
    krv_form_t form = 0;
    int mask = 0;
    krv_value_t *value = nullptr;
    if (krv_get_die_attr(hp, die, attr, &form, &mask, &value) != 0)
        return 1;
    if ((static_cast<uint32_t>(mask) & KRV_CLASS_REFERENCE) == 0)
        return krv_fail(hp, KRV_ERR_INVALID, "attribute %s is not a reference", krv_name_or_unknown(KRV_DEF_AT, attr));
    if (form == DW_FORM_ref_addr || form == DW_FORM_ref_sig8 || krv_is_extended_form(form))
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported reference");
    *offsetp = value->sa_u.su_unsigned;
    return 0;
}

krv_die_t *krv_alloc_die_by_attribute(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(die != NULL);
    krv_offset_t offset = 0;
    if (get_reference(hp, die, attr, &offset) != 0)
        return nullptr;
    return krv_alloc_die_by_cu_offset(hp, die->dwdie_parent_cu, offset);
}

static krv_die_t *first_child(krv_handle_t *hp, krv_die_t *die, krv_die_walk *walk)
{
    if (!has_children(die)) {
        walk->is_at_null = true;
        krv_errno(hp) = KRV_ERR_NOTFOUND;
        return nullptr;
    }
    return krv_alloc_next_die(hp, die->dwdie_parent_cu, offset_behind(die), walk);
}

krv_die_t *krv_alloc_die_child(krv_handle_t *hp, krv_die_t *die)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(die != NULL);
    krv_die_walk walk = {krv_cu_most_attributes(die->dwdie_parent_cu), false};
    return first_child(hp, die, &walk);
}

// Where an entry's DW_AT_sibling leads. 0, 1 when it has none (KRV_ERR_NOTFOUND), or -1. One that does not lead forward
// within the unit would send a walk in circles or into other units.
static int get_sibling_link(krv_handle_t *hp, krv_die_t *die, krv_offset_t *offsetp)
{
    if (const int found = get_reference(hp, die, DW_AT_sibling, offsetp); found != 0)
        return found;
    if (*offsetp < offset_behind(die) || *offsetp >= die->dwdie_parent_cu->dcu_size)
        return krv_fail(hp, KRV_ERR_CORRUPT, "sibling at %+lld of DIE at %+lld within CU at %lld does not lead forward",
                        static_cast<long long>(*offsetp), static_cast<long long>(die->dwdie_cu_offset),
                        static_cast<long long>(die->dwdie_parent_cu->dcu_offset));
    return 0;
}

// The offset behind the null entry that ends the children of an entry without DW_AT_sibling. Walks its subtree in
// section order, counting levels instead of recursing, and skips subtrees by their sibling links; every step moves
// forward. 0 or -1.
static int skip_children(krv_handle_t *hp, krv_die_t *top, krv_offset_t *offsetp, krv_die_walk *walk)
{
    krv_ctu_t *cu = top->dwdie_parent_cu;
    krv_offset_t parent = top->dwdie_cu_offset; // whose first child is due, when is_first
    krv_offset_t offset = offset_behind(top);
    bool is_first = true;
    uint64_t level = 1;
    while (level > 0) {
        if (!krv_spend(hp, 1))
            return -1;
        const die_owner die(krv_alloc_next_die(hp, cu, offset, walk));
        if (die == nullptr) {
            const bool is_at_null = std::exchange(walk->is_at_null, false);
            if (is_first)
                return krv_fail(hp, KRV_ERR_CORRUPT, "Couldn't obtain child for %s DIE at %lld/%+lld", ".debug_info",
                                static_cast<long long>(cu->dcu_offset), static_cast<long long>(parent));
            if (!is_at_null)
                return -1;
            --level;
            offset = krv_position(hp, cu->dcu_section)->sfd_offset - cu->dcu_offset; // behind the null entry
            continue;
        }
        is_first = false;
        const int link = has_children(die.get()) ? get_sibling_link(hp, die.get(), &offset) : 1;
        if (link == 0)
            continue;
        if (has_children(die.get())) {
            if (link == -1)
                return -1;
            parent = die->dwdie_cu_offset;
            is_first = true;
            ++level;
        }
        offset = offset_behind(die.get());
    }
    *offsetp = offset;
    return 0;
}

static krv_die_t *next_sibling(krv_handle_t *hp, krv_die_t *die, krv_die_walk *walk)
{
    krv_offset_t offset = offset_behind(die);
    if (has_children(die)) {
        const int link = get_sibling_link(hp, die, &offset);
        if (link == -1 || (link == 1 && skip_children(hp, die, &offset, walk) != 0))
            return nullptr;
    }
    return krv_alloc_next_die(hp, die->dwdie_parent_cu, offset, walk);
}

krv_die_t *krv_alloc_die_sibling(krv_handle_t *hp, krv_die_t *die)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(die != NULL);
    krv_die_walk walk = {krv_cu_most_attributes(die->dwdie_parent_cu), false};
    return next_sibling(hp, die, &walk);
}

int krv_iter_children_in_die(krv_handle_t *hp, krv_die_t *die, krv_iter_die_children_f *fn, void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(die != NULL);
    KRV_ASSERT(fn != NULL);
    krv_die_walk walk = {krv_cu_most_attributes(die->dwdie_parent_cu), false};
    die_owner child(first_child(hp, die, &walk));
    if (child == nullptr) {
        krv_note(hp, "DIE has no children");
        return 0;
    }
    while (child != nullptr) {
        if (!krv_spend(hp, child->dwdie_bufsize))
            return -1;
        const int result = fn(hp, child.get(), arg);
        die_owner sibling(next_sibling(hp, child.get(), &walk));
        if (result != 0)
            return result;
        child = std::move(sibling);
    }
    return walk.is_at_null ? 0 : -1;
}

// ---------------------------------------------------------------------------------------------------------------
// Exported
// ---------------------------------------------------------------------------------------------------------------

static int get_string(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, char *buf, size_t size)
{
    if (hp == nullptr)
        return -1;
    if (die == nullptr || buf == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    return krv_get_die_string_attr(hp, die, attr, buf, size);
}

int korva_get_die_at_producer(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size)
{
    return get_string(hp, die, DW_AT_producer, buf, size);
}

int korva_get_die_at_comp_dir(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size)
{
    return get_string(hp, die, DW_AT_comp_dir, buf, size);
}

int korva_get_die_at_name(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size)
{
    return get_string(hp, die, DW_AT_name, buf, size);
}

int korva_get_die_at_ZEPH_original_name(krv_handle_t *hp, krv_die_t *die, char *buf, size_t size)
{
    return get_string(hp, die, DW_AT_ZEPH_original_name, buf, size);
}
