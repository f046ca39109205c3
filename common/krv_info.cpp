// SPDX-License-Identifier: Apache-2.0
//
// Units: their headers and their records. Entries are in krv_die.cpp. Header reading moves the
// section's own cursor.
#include "krv_info.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_mem.h"
#include "krv_peek.h"
#include "krv_threads.h"

static const char *section_name(krv_secidx_t sec)
{
    return sec == KRV_SEC_TYPES ? ".debug_types" : ".debug_info";
}

// Reads unit_length, which settles the format. False: messages pushed.
static bool read_unit_length(krv_handle_t *hp, krv_ctu_t *cu, krv_fd_t *fdp, uint64_t offset)
{
    krv_unit_length_t ul;
    if (!krv_read_unit_length(fdp, KRV_UNIT_LENGTH_TEXTS, &ul))
        return false;
    if (!krv_extent_fits(fdp->sfd_size, offset, ul.field_size(), ul.length)) {
        krv_fail(hp, KRV_ERR_CORRUPT, "unit_length (%llu) too large for existing section size (%llu)",
                 static_cast<unsigned long long>(ul.length), static_cast<unsigned long long>(fdp->sfd_size));
        return false;
    }
    cu->dcu_flags = ul.is_dwarf64 ? KRV_CU_FLAG_DWARF64 : 0;
    cu->dcu_unit_length = ul.length;
    cu->dcu_size = ul.size();
    return true;
}

// What follows the version in versions 2 to 4.
static bool read_base_fields(krv_ctu_t *cu, krv_secidx_t sec, krv_fd_t *fdp, const krv_encoding_t &encoding)
{
    return krv_read_field(fdp, DW_FORM_sec_offset, encoding, &cu->dcu_debug_abbrev_offset,
                          "failed to read debug_abbreviation_offset") &&
           krv_read_field(fdp, DW_FORM_data1, &cu->dcu_address_size, "failed to read address_size") &&
           (sec != KRV_SEC_TYPES ||
            (krv_read_field(fdp, DW_FORM_data8, &cu->dcu_type_signature, "failed to read type_signature") &&
             krv_read_field(fdp, DW_FORM_sec_offset, encoding, &cu->dcu_type_offset, "failed to read type_offset")));
}

static bool is_base_version(uint64_t version)
{
    return version >= 2 && version <= 4;
}

// The cursor stands behind the header that began at `offset`.
static void place_header(krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset, const krv_fd_t *fdp)
{
    cu->dcu_section = sec;
    cu->dcu_offset = offset;
    cu->dcu_header_size = static_cast<uint8_t>(fdp->sfd_offset - offset);
}

// The common case: 32-bit format, in memory, of a unit that is neither a skeleton nor one of types. False: another, and
// nothing has changed.
static bool take_header(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset)
{
    constexpr uint64_t RESERVED = 0xfffffff0;
    const krv_view_t view = krv_fd_view(fdp);
    uint64_t at = 0, length, version, kind = KRV_UNIT_COMPILE, address_size, abbrev_offset;
    const auto number = krv_view_numbers(view, &at);
    if (sec != KRV_SEC_INFO || !number(4, &length) || length >= RESERVED ||
        !krv_extent_fits(fdp->sfd_size, offset, 4, length) || !number(2, &version))
        return false;
    const bool is_later = version == 5 && (hp->sh_ext & KRV_EXT_DWARF5) != 0;
    const bool is_whole = is_later ? number(1, &kind) && number(1, &address_size) && number(4, &abbrev_offset)
                                   : number(4, &abbrev_offset) && number(1, &address_size);
    if (!is_whole || !(is_later ? kind == KRV_UNIT_COMPILE || kind == KRV_UNIT_PARTIAL : is_base_version(version)))
        return false;
    cu->dcu_unit_length = length;
    cu->dcu_size = 4 + length;
    cu->dcu_version = static_cast<uint16_t>(version);
    cu->dcu_kind = static_cast<uint8_t>(kind);
    cu->dcu_address_size = static_cast<uint8_t>(address_size);
    cu->dcu_debug_abbrev_offset = abbrev_offset;
    if (is_later)
        krv_cu_start_bases(cu);
    krv_fd_advance(fdp, at);
    place_header(cu, sec, offset, fdp);
    return true;
}

static bool read_header(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset)
{
    *cu = {};
    if (krv_fd_seek(fdp, offset) != 0)
        return false;
    if (take_header(hp, fdp, cu, sec, offset))
        return true;
    if (!read_unit_length(hp, cu, fdp, offset))
        return false;
    const krv_encoding_t encoding = krv_cu_encoding(hp, cu);
    if (!krv_read_field(fdp, DW_FORM_data2, &cu->dcu_version, "failed to read version"))
        return false;
    cu->dcu_kind = KRV_UNIT_COMPILE;
    if (hp->sh_ext != 0 && sec != KRV_SEC_TYPES && !is_base_version(cu->dcu_version)) {
        if (krv_info_read_later_header(hp, cu, fdp) != 0)
            return false;
    } else if (!read_base_fields(cu, sec, fdp, encoding)) {
        return false;
    }
    place_header(cu, sec, offset, fdp);
    return true;
}

// The same, with the message of what was read for.
static bool read_told_header(krv_handle_t *hp, krv_fd_t *fdp, krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset)
{
    if (read_header(hp, fdp, cu, sec, offset))
        return true;
    krv_note(hp, "failed to read CU header at offset %lld in %s", static_cast<long long>(offset), section_name(sec));
    return false;
}

int krv_info_hdr_read(krv_handle_t *hp, krv_ctu_t *cu, krv_secidx_t sec, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(cu != NULL);
    if (sec != KRV_SEC_INFO && sec != KRV_SEC_TYPES && sec != KRV_SEC_EXT_ALT_INFO)
        return krv_fail(hp, KRV_ERR_INVALID, "invalid section (%d)", sec);
    return read_told_header(hp, krv_position(hp, sec), cu, sec, offset) ? 0 : -1;
}

void krv_cu_free(krv_ctu_t *cu)
{
    KRV_ASSERT(cu != NULL);
    KRV_ASSERT(cu->dcu_compile_unit != NULL);
    if (cu->dcu_aranges != nullptr)
        krv_free(krv_ranges_list(cu->dcu_aranges));
    krv_free_die(cu->dcu_compile_unit); // and the unit with it
}

namespace
{

// A string attribute of a unit's first entry, as long as it will be kept. NULL: absent.
struct unit_name {
    bool
        is_copied; // line-number headers keep the pointer, also when the section is replaced; else only where it is cut
    const char *text = nullptr;
    size_t length = 0;
    bool is_peeked = false; // the text is the peek's
    char *shared = nullptr; // the same text, as the unit before keeps it

    bool has_copy() const { return text != nullptr && shared == nullptr && (is_copied || is_cut()); }
    bool is_cut() const { return length == KRV_STRING_BUFSZ - 1; } // or may be
    size_t size() const { return has_copy() ? length + 1 : 0; }    // of the copy
};

} // namespace

// False: it is no string. One that was read by a peek is copied.
static bool find_name(krv_handle_t *hp, krv_die_t *die, krv_attribute_t attr, const krv_peek_t *peek, unit_name *name)
{
    name->text = krv_find_die_string(hp, die, attr, KRV_STRING_BUFSZ, &name->length, peek);
    if (name->text == nullptr)
        return name->length != KRV_NO_STRING;
    name->is_peeked = peek != nullptr && krv_peek_has(peek, name->text);
    name->is_copied = name->is_copied || name->is_peeked;
    return true;
}

// `its`: a copy that the unit before has, or NULL.
static void share_name(unit_name *name, char *its)
{
    if (its != nullptr && name->has_copy() && std::strncmp(its, name->text, name->length) == 0 &&
        its[name->length] == '\0')
        name->shared = its;
}

// The text itself, since the entry lives as long as the unit, or a copy where there is room for it. Returns what is
// behind.
static char *keep_name(const unit_name *name, char *to, char **keptp)
{
    *keptp = name->shared != nullptr ? name->shared : const_cast<char *>(name->text);
    if (!name->has_copy())
        return to;
    std::memcpy(to, name->text, name->length);
    to[name->length] = '\0';
    *keptp = to;
    return to + name->size();
}

// A copy of an abbreviation that stands by itself. `to` has room for it and its pairs.
static krv_abbrev_t *copy_abbrev(const krv_single_abbrev_t *single, krv_abbrev_t *to)
{
    *to = single->ssa_abbrev;
    to->dwa_implicit = reinterpret_cast<int64_t *>(to + 1);
    std::memcpy(to->dwa_implicit, single->ssa_implicit, single->ssa_implicit_count * sizeof(int64_t));
    to->dwa_afpairs = reinterpret_cast<krv_afpair_t *>(to->dwa_implicit + single->ssa_implicit_count);
    std::memcpy(to->dwa_afpairs, single->ssa_pairs, to->dwa_nafpairs * sizeof(krv_afpair_t));
    return to;
}

// The unit, in the room behind its entry, with names that are copied and, when it is *single, the abbreviation of the entry;
// or NULL.
static krv_ctu_t *keep_unit(krv_handle_t *hp, const krv_ctu_t *cu, const krv_single_abbrev_t *single,
                            const krv_ctu_t *before, const krv_peek_t *peek)
{
    krv_die_t *die = cu->dcu_compile_unit;
    unit_name comp_dir{.is_copied = true}, name{.is_copied = false};
    if (!find_name(hp, die, DW_AT_comp_dir, peek, &comp_dir) || !find_name(hp, die, DW_AT_name, peek, &name))
        return nullptr;
    if (before != nullptr) {
        share_name(&comp_dir, before->dcu_comp_dir);
        if (!name.is_peeked || (before->dcu_flags & KRV_CU_FLAG_COPIES) != 0) // else its name may be no copy
            share_name(&name, before->dcu_name);
    }
    const size_t size = comp_dir.size() + name.size();
    char *names = nullptr;
    if (size != 0 && (names = static_cast<char *>(krv_die_alloc_part(hp, die, size))) == nullptr)
        return nullptr;
    krv_ctu_t *kept = krv_die_unit_room(die);
    *kept = *cu;
    if (die->dwdie_abbrev_cache == &single->ssa_abbrev)
        die->dwdie_abbrev_cache = copy_abbrev(single, reinterpret_cast<krv_abbrev_t *>(kept + 1));
    keep_name(&name, keep_name(&comp_dir, names, &kept->dcu_comp_dir), &kept->dcu_name);
    if (name.is_peeked && !comp_dir.is_cut())
        kept->dcu_flags |= KRV_CU_FLAG_COPIES;
    die->dwdie_copied += comp_dir.size() + (name.is_peeked ? 0 : name.size()); // which is shorter than the record
    die->dwdie_parent_cu = kept;
    return kept;
}

int krv_cu_check_section(krv_handle_t *hp, krv_secidx_t sec)
{
    if (sec == KRV_SEC_TYPES)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, ".debug_types is unsupported");
    if (sec != KRV_SEC_INFO)
        return krv_fail(hp, KRV_ERR_INVALID, "invalid section (%u)", static_cast<unsigned int>(sec));
    return 0;
}

// Whether the table goes on behind a unit of another version, or, where input is read as written, one whose first entry
// cannot be read: it then has none. Tells the client.
static bool may_step_over(krv_handle_t *hp, krv_ctu_t *cu)
{
    if (krv_is_passing(hp) || (cu->dcu_kind != 0 && !krv_reads_as_written(hp)))
        return false;
    const auto offset = static_cast<unsigned long>(cu->dcu_offset);
    if (cu->dcu_kind != 0)
        krv_tell(hp, KRV_SEC_INFO, cu->dcu_offset, true, "unit at offset 0x%lx of .debug_info cannot be read: %s",
                 offset, krv_cause(hp).text);
    else if (cu->dcu_version == 5 && (hp->sh_ext & KRV_EXT_DWARF5) != 0)
        krv_tell(hp, KRV_SEC_INFO, cu->dcu_offset, true, "unit at offset 0x%lx of .debug_info is of an unknown type",
                 offset);
    else
        krv_tell(hp, KRV_SEC_INFO, cu->dcu_offset, true,
                 "unit at offset 0x%lx of .debug_info is DWARF %u, and libkorva reads DWARF 2 to %u", offset,
                 cu->dcu_version, (hp->sh_ext & KRV_EXT_DWARF5) != 0 ? 5U : 4U);
    krv_clear_error(hp);
    cu->dcu_kind = 0;
    return true;
}

// The file that a skeleton unit waits for, or NULL.
static const char *split_name(krv_handle_t *hp, const krv_ctu_t *cu)
{
    const char *found = nullptr;
    for (const krv_attribute_t attr : {krv_attribute_t{DW_AT_dwo_name}, krv_attribute_t{DW_AT_GNU_dwo_name}}) {
        size_t length;
        if (const char *name = krv_find_die_string(hp, cu->dcu_compile_unit, attr, SIZE_MAX, &length))
            found = name;
    }
    krv_clear_error(hp);
    return found;
}

static void tell_of_split_unit(krv_handle_t *hp, const krv_ctu_t *cu)
{
    const char *name = split_name(hp, cu);
    krv_tell(hp, KRV_SEC_INFO, cu->dcu_offset, false,
             "unit at offset 0x%lx of .debug_info waits for its split unit in %s, which is not read",
             static_cast<unsigned long>(cu->dcu_offset), name == nullptr ? "a file without a name" : name);
}

static krv_ctu_t *keep_empty_unit(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_die_t *die = krv_alloc_no_die(hp, cu);
    if (die == nullptr)
        return nullptr;
    krv_ctu_t *kept = krv_die_unit_room(die);
    *kept = *cu;
    kept->dcu_compile_unit = die;
    kept->dcu_abbrev_size = 0; // of another entry, if any
    die->dwdie_parent_cu = kept;
    return kept;
}

// Units stand far apart, and the next one is wanted soon: its header is fetched while this one's entry is read.
static void prefetch_unit(const krv_fd_t *fdp, uint64_t offset)
{
    constexpr uint64_t LINE = 64;
    for (uint64_t at = offset; !krv_fd_is_cb(fdp) && at < fdp->sfd_size && at - offset < 2 * LINE; at += LINE)
        __builtin_prefetch(fdp->sfd_u.buf + at);
}

// Reads header and first entry through a cursor of the section, and keeps them. NULL: messages pushed; dcu_size is 0 where it is
// the header that cannot be read. `peek`: what the cursor reads by, if so.
[[gnu::always_inline]] static inline krv_ctu_t *read_unit(krv_handle_t *hp, krv_fd_t *fdp, krv_secidx_t sec,
                                                          uint64_t offset, const krv_ctu_t *before, krv_peek_t *peek,
                                                          krv_ctu_t *cu)
{
    if (!read_told_header(hp, fdp, cu, sec, offset)) {
        cu->dcu_size = 0;
        return nullptr;
    }
    if (peek == nullptr)
        prefetch_unit(krv_section(hp, sec), krv_add_offset(offset, cu->dcu_size));
    if (cu->dcu_kind == 0)
        return nullptr;
    krv_single_abbrev_t single; // outlives the entry where it fails
    std::unique_ptr<krv_die_t, krv_die_deleter> die(krv_alloc_first_die(hp, fdp, cu, before, &single));
    cu->dcu_compile_unit = die.get();
    krv_ctu_t *kept = die == nullptr ? nullptr : keep_unit(hp, cu, &single, before, peek);
    if (kept != nullptr)
        static_cast<void>(die.release()); // the unit's now
    return kept;
}

// NULL: it is read from memory, as if nothing had been tried.
[[gnu::noinline]] static krv_ctu_t *read_unit_by_peek(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset,
                                                      const krv_ctu_t *before, krv_peek_t *peek)
{
    krv_ctu_t cu;
    const krv_abbrev_checks_t checks = hp->sh_abbrev_checks;
    krv_fd_t fd = krv_peek_at(hp, offset, peek);
    hp->sh_is_quiet = true;
    krv_ctu_t *kept = read_unit(hp, &fd, sec, offset, before, peek, &cu);
    hp->sh_is_quiet = false;
    if (kept == nullptr)
        hp->sh_abbrev_checks = checks;
    return kept;
}

krv_ctu_t *krv_cu_alloc(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, const krv_ctu_t *before, krv_peek_t *peek)
{
    KRV_ASSERT(hp != NULL);
    if (krv_cu_check_section(hp, sec) != 0)
        return nullptr;
    krv_ctu_t cu;
    krv_ctu_t *kept = nullptr;
    if (peek != nullptr && krv_peek_is_due(hp, sec, before == nullptr ? UINT64_MAX : before->dcu_size))
        kept = read_unit_by_peek(hp, sec, offset, before, peek);
    if (kept == nullptr)
        kept = read_unit(hp, krv_position(hp, sec), sec, offset, before, nullptr, &cu);
    if (kept == nullptr && cu.dcu_size != 0 && hp->sh_ext != 0 && may_step_over(hp, &cu))
        return keep_empty_unit(hp, &cu);
    if (kept == nullptr) {
        krv_note(hp, "failed to obtain CU at offset %lld in %s", static_cast<long long>(offset), section_name(sec));
        return nullptr;
    }
    if (kept->dcu_kind == KRV_UNIT_SKELETON)
        tell_of_split_unit(hp, kept);
    return kept;
}

int korva_get_cu_cudie(krv_handle_t *hp, krv_ctu_t *cup, krv_die_t **diep)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || diep == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    *diep = cup->dcu_compile_unit;
    return 0;
}

int korva_cu_get_header(krv_handle_t *hp, krv_ctu_t *cup, krv_cu_header_t *headerp)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || headerp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    *headerp = {.offset = cup->dcu_offset,
                .size = cup->dcu_size,
                .abbrev_offset = cup->dcu_debug_abbrev_offset,
                .version = cup->dcu_version,
                .address_size = cup->dcu_address_size,
                .dwarf64 = (cup->dcu_flags & KRV_CU_FLAG_DWARF64) != 0};
    return 0;
}

int korva_cu_get_kind(krv_handle_t *hp, krv_ctu_t *cup, krv_cu_kind_t *kindp)
{
    if (hp == nullptr)
        return -1;
    if (cup == nullptr || kindp == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    const bool has_dwo_id = (cup->dcu_flags & KRV_CU_FLAG_DWO_ID) != 0;
    *kindp = {.kind = cup->dcu_kind,
              .has_dwo_id = has_dwo_id,
              .dwo_id = has_dwo_id ? cup->dcu_type_signature : 0,
              .type_signature = has_dwo_id ? 0 : cup->dcu_type_signature,
              .type_offset = cup->dcu_type_offset,
              .dwo_name = cup->dcu_kind == KRV_UNIT_SKELETON ? split_name(hp, cup) : nullptr};
    return 0;
}
