// SPDX-License-Identifier: Apache-2.0
#include "krv_ext.h"

#include "krv_error.h"
#include "krv_mem.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

// ---------------------------------------------------------------------------------------------------------------
// Switches
// ---------------------------------------------------------------------------------------------------------------

bool krv_ext_is_option(krv_opt_idx_t opt)
{
    return opt >= KRV_OPT_EXT_DWARF5 && opt <= KRV_OPT_EXT_NOTE_FUNC_ARG;
}

// Whether something was read that depends on how sections are read.
static bool has_read(krv_handle_t *hp)
{
    const bool has_headers = std::any_of(std::begin(hp->sh_line_headers), std::end(hp->sh_line_headers),
                                         [](krv_hash *&table) { return krv_load(&table) != nullptr; });
    return krv_load(&hp->sh_cu_table) != nullptr || krv_load(&hp->sh_auphash) != nullptr || has_headers ||
           krv_load(&hp->sh_frame_reader) != nullptr || krv_load(&hp->sh_init_flags) != 0 ||
           krv_load(&hp->sh_sets) != nullptr || hp->sh_abbrev_checks.end != 0;
}

static int too_late(krv_handle_t *hp, const char *what)
{
    return krv_fail(hp, KRV_ERR_INVALID, "%s after the first query", what);
}

int krv_ext_set_opt(krv_handle_t *hp, krv_opt_idx_t opt, uint64_t value)
{
    krv_opt_t option = {};
    option.sopt_u.o_uint64 = value;
    if (opt == KRV_OPT_EXT_NOTE_FUNC) {
        hp->sh_note_func = reinterpret_cast<krv_note_f *>(option.sopt_u.o_addr);
        return 0;
    }
    if (opt == KRV_OPT_EXT_NOTE_FUNC_ARG) {
        hp->sh_note_arg = option.sopt_u.o_addr;
        return 0;
    }
    const uint32_t flag = opt == KRV_OPT_EXT_DWARF5 ? KRV_EXT_DWARF5 : KRV_EXT_AS_WRITTEN;
    const uint32_t flags = value != 0 ? hp->sh_ext | flag : hp->sh_ext & ~flag;
    if (flags != hp->sh_ext && has_read(hp))
        return too_late(hp, "an extension cannot be switched");
    hp->sh_ext = flags;
    return 0;
}

void krv_ext_destroy(krv_handle_t *hp)
{
    krv_free(hp->sh_code);
}

// ---------------------------------------------------------------------------------------------------------------
// Sections
// ---------------------------------------------------------------------------------------------------------------

bool krv_ext_is_section(const krv_handle_t *hp, krv_secidx_t sec)
{
    return hp->sh_ext != 0 && sec >= KRV_SEC_EXT_LINE_STR && sec <= KRV_SEC_EXT_GNU_PUBNAMES;
}

constexpr const char *NAMES[KRV_MAX_SEC] = {".debug_abbrev",     ".debug_aranges", ".debug_frame",    ".debug_info",
                                            ".debug_line",       ".debug_loc",     ".debug_pubnames", ".debug_pubtypes",
                                            ".debug_str",        ".debug_types",   ".eh_frame_hdr",   ".eh_frame",
                                            "the address space", "no section"};
constexpr const char *EXT_NAMES[KRV_EXT_SECTIONS] = {".debug_line_str",
                                                     ".debug_str_offsets",
                                                     ".debug_addr",
                                                     ".debug_rnglists",
                                                     ".debug_loclists",
                                                     ".debug_ranges",
                                                     ".debug_info of the alternate file",
                                                     ".debug_str of the alternate file",
                                                     ".debug_abbrev of the alternate file",
                                                     ".debug_names",
                                                     ".gdb_index",
                                                     ".debug_gnu_pubnames"};

const char *krv_section_name(krv_secidx_t sec)
{
    const unsigned int number = static_cast<unsigned int>(sec) - KRV_SEC_EXT_LINE_STR;
    return number < KRV_EXT_SECTIONS ? EXT_NAMES[number] : NAMES[sec];
}

int korva_lookup_ext_section_index(const char *name, krv_secidx_t *secp, boolean_t *compressed)
{
    if (name == nullptr || secp == nullptr || compressed == nullptr)
        return -1;
    const bool is_compressed = std::strncmp(name, ".zdebug_", sizeof(".zdebug_") - 1) == 0;
    for (krv_secidx_t sec = KRV_SEC_EXT_LINE_STR; sec <= KRV_SEC_EXT_GNU_PUBNAMES; ++sec) {
        if (sec >= KRV_SEC_EXT_ALT_INFO && sec <= KRV_SEC_EXT_ALT_ABBREV)
            continue;
        const char *known = krv_section_name(sec); // ".debug_x", which compressed is ".zdebug_x"
        if (name[0] != '.' || std::strcmp(name + (is_compressed ? 2 : 1), known + 1) != 0)
            continue;
        *secp = sec;
        *compressed = is_compressed ? B_TRUE : B_FALSE;
        return 0;
    }
    return -1;
}

// ---------------------------------------------------------------------------------------------------------------
// Code
// ---------------------------------------------------------------------------------------------------------------

// Kept ascending; ranges that touch become one, so that a function may reach from section to section.
int korva_handle_add_code(krv_handle_t *hp, uint64_t address, uint64_t size)
{
    if (hp == nullptr)
        return -1;
    krv_clear_error(hp);
    if (size == 0 || size > UINT64_MAX - address)
        return krv_fail(hp, KRV_ERR_INVALID, "code of 0x%lx bytes at 0x%lx", static_cast<unsigned long>(size),
                        static_cast<unsigned long>(address));
    if (has_read(hp))
        return too_late(hp, "code cannot be named");
    if (!krv_table_grow(hp, &hp->sh_code, &hp->sh_code_size, hp->sh_code_entries, 8U))
        return -1;
    krv_code_range_t fresh = {address, address + size};
    krv_code_range_t *const ranges = hp->sh_code, *const end = ranges + hp->sh_code_entries;
    krv_code_range_t *const place =
        std::partition_point(ranges, end, [&fresh](const krv_code_range_t &range) { return range.end < fresh.start; });
    krv_code_range_t *const behind =
        std::partition_point(place, end, [&fresh](const krv_code_range_t &range) { return range.start <= fresh.end; });
    if (place != behind) // what it touches becomes part of it
        fresh = {std::min(fresh.start, place->start), std::max(fresh.end, behind[-1].end)};
    std::memmove(place + 1, behind, static_cast<size_t>(end - behind) * sizeof(*ranges));
    *place = fresh;
    hp->sh_code_entries += 1 - static_cast<uint32_t>(behind - place);
    return 0;
}

bool krv_is_code(const krv_handle_t *hp, uint64_t start, uint64_t end)
{
    if (start >= end)
        return false;
    if (hp->sh_code_entries == 0) {
        const uint64_t highest = hp->sh_target_size == 4 ? UINT32_MAX : UINT64_MAX;
        return start > 1 && start < highest - 1;
    }
    uint32_t low = 0, high = hp->sh_code_entries; // the last range that does not begin above
    while (high - low > 1) {
        const uint32_t middle = low + (high - low) / 2;
        (hp->sh_code[middle].start <= start ? low : high) = middle;
    }
    return hp->sh_code[low].start <= start && end <= hp->sh_code[low].end;
}

// ---------------------------------------------------------------------------------------------------------------
// Notes
// ---------------------------------------------------------------------------------------------------------------

void krv_tell(krv_handle_t *hp, krv_secidx_t sec, uint64_t offset, bool refused, const char *format, ...)
{
    if (hp->sh_note_func == nullptr)
        return;
    char text[4 * KRV_MAX_ERROR_SIZE];
    va_list ap;
    va_start(ap, format);
    static_cast<void>(std::vsnprintf(text, sizeof(text), format, ap));
    va_end(ap);
    const krv_note_t note = {.section = sec, .offset = offset, .refused = refused ? 1 : 0, .text = text};
    hp->sh_note_func(&note, hp->sh_note_arg);
}

krv_cause_t krv_cause(krv_handle_t *hp)
{
    const krv_read_guard guard(&hp->sh_error_lock);
    const krv_error_state *const error = krv_error_of(hp);
    const char *text = krv_ran_out(hp) ? "out of memory" : "it is damaged";
    krv_cause_t cause;
    std::snprintf(cause.text, sizeof(cause.text), "%s", error->count != 0 ? error->texts[0] : text);
    return cause;
}
