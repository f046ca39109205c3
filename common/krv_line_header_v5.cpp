// SPDX-License-Identifier: Apache-2.0
//
// What headers of version 5 have in other ways (DWARF 5, 6.2.4): two more fields, and tables that say themselves what an
// entry consists of. A table's first entry has number 0: the compilation directory, the unit's own file.
#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_info.h"
#include "krv_line.h"
#include "krv_names.h"

namespace
{

enum : uint64_t { DW_LNCT_path = 1, DW_LNCT_directory_index = 2, DW_LNCT_timestamp = 3, DW_LNCT_size = 4 };

// What is kept of an entry; all else is stepped over: MD5 sums, sources, what vendors add.
enum class part_t : uint8_t { none, path, directory, mtime, size };

struct column {
    part_t part;
    uint8_t form;
};

struct entry_format {
    column columns[UINT8_MAX];
    uint8_t count;
    bool has_bytes; // an entry of none would go on for ever
};

struct table_texts {
    const char *format_count, *format, *count, *entry;
};

constexpr table_texts DIRECTORIES = {"failed to read directory_entry_format_count",
                                     "failed to read directory_entry_format", "failed to read directories_count",
                                     "failed to read directories entry"};
constexpr table_texts FILES = {"failed to read file_name_entry_format_count", "failed to read file_name_entry_format",
                               "failed to read file_names_count", "failed to read file_names entry"};

// An entry as it is read; the text of its path is valid until the next is.
struct entry {
    const char *path;
    uint64_t numbers[3]; // by part_t, from the directory on
    char room[KRV_STRING_BUFSZ];

    uint64_t &number(part_t part)
    {
        return numbers[static_cast<unsigned>(part) - static_cast<unsigned>(part_t::directory)];
    }
};

struct table_reader {
    krv_handle_t *hp;
    krv_lnph_t *lnphp;
    krv_ctu_t *cup; // or NULL
    krv_fd_t fd;
    krv_encoding_t encoding;

    bool read_format(const table_texts &texts, entry_format *format);
    bool read_entry(const entry_format &format, entry *e);
    bool read_indexed_string(krv_form_t form, entry *e);
    bool skip(krv_form_t form);
    template <typename Add>
    bool read_table(const table_texts &texts, Add add);

    bool note(const char *message) const
    {
        krv_note(hp, "%s", message);
        return false;
    }
};

} // namespace

bool krv_lnph_is_v5(const krv_handle_t *hp, const krv_lnph_t *lnphp)
{
    return lnphp->sln_version == 5 && (hp->sh_ext & KRV_EXT_DWARF5) != 0;
}

bool krv_lnph_read_sizes_v5(krv_fd_t *fdp)
{
    uint8_t address_size,
        selector_size; // neither counts: DW_LNE_set_address has the target's addresses, or says its length
    return krv_read_field(fdp, DW_FORM_data1, &address_size, "failed to read address_size") &&
           krv_read_field(fdp, DW_FORM_data1, &selector_size, "failed to read segment_selector_size");
}

static bool is_number(krv_form_row_t row)
{
    return row.family == krv_family_t::uleb128 || row.family == krv_family_t::number;
}

static part_t part_of(uint64_t content)
{
    return content >= DW_LNCT_path && content <= DW_LNCT_size ? static_cast<part_t>(content) : part_t::none;
}

// The column of a content type and form; times and sizes may be blocks, which say nothing. False: it cannot be read.
static bool choose(krv_handle_t *hp, uint64_t content, uint64_t written, column *c)
{
    *c = {part_of(content), krv_extended_form(written)};
    const krv_form_row_t row = krv_form_row(c->form, KRV_ALL_FORMS);
    const bool is_text = (row.classes & KRV_CLASS_STRING) != 0;
    const bool is_known = row.family != krv_family_t::unknown && row.family != krv_family_t::indirect &&
                          row.family != krv_family_t::implicit;
    if (!is_known || (c->part == part_t::path && !is_text) ||
        (c->part == part_t::directory && (is_text || !is_number(row)))) {
        krv_fail(hp, KRV_ERR_UNSUPPORTED, "form 0x%lx (%s) of content type 0x%lx", static_cast<unsigned long>(written),
                 krv_form_name(c->form, true), static_cast<unsigned long>(content));
        return false;
    }
    if (c->part != part_t::path && (is_text || !is_number(row)))
        c->part = part_t::none;
    return true;
}

bool table_reader::read_format(const table_texts &texts, entry_format *format)
{
    if (krv_decode(&fd, DW_FORM_data1, &format->count) != 0)
        return note(texts.format_count);
    format->has_bytes = false;
    for (unsigned int i = 0; i < format->count; ++i) {
        uint64_t content, form;
        if (krv_decode(&fd, DW_FORM_udata, &content) != 0 || krv_decode(&fd, DW_FORM_udata, &form) != 0 ||
            !choose(hp, content, form, &format->columns[i]))
            return note(texts.format);
        format->has_bytes |= krv_form_row(format->columns[i].form, KRV_ALL_FORMS).family != krv_family_t::present;
    }
    return true;
}

bool table_reader::skip(krv_form_t form)
{
    const krv_form_row_t row = krv_form_row(form, KRV_ALL_FORMS);
    uint64_t size = krv_form_width(row, encoding);
    int64_t number;
    switch (row.family) {
    case krv_family_t::present:
        return true;
    case krv_family_t::uleb128:
        return krv_decode(&fd, DW_FORM_udata, &size) == 0;
    case krv_family_t::sleb128:
        return krv_decode(&fd, DW_FORM_sdata, &number) == 0;
    case krv_family_t::string:
        if (krv_decode_form(&fd, form, encoding, false, nullptr, 0, &size) != 0)
            return false;
        break;
    case krv_family_t::block:
        if (krv_decode(&fd, row.width == 0 ? krv_form_t{DW_FORM_udata} : krv_data_form(row.width), &size) != 0)
            return false;
        break;
    default: // `width` bytes
        break;
    }
    if (size > fd.sfd_remaining) {
        krv_fail(hp, KRV_ERR_CORRUPT, "form %s requires %lu bytes;  %lu remain", krv_form_name(form, true),
                 static_cast<unsigned long>(size), static_cast<unsigned long>(fd.sfd_remaining));
        return false;
    }
    krv_fd_advance(&fd, size);
    return true;
}

// A string at the cursor: where it is, or in the entry's room.
static bool read_string(krv_fd_t *fdp, krv_form_t form, const krv_encoding_t &encoding, entry *e)
{
    const krv_datum_t datum = krv_string_in_memory(fdp->sfd_hp, krv_fd_view(fdp), form, encoding);
    if (datum.bytes != nullptr && datum.size <= sizeof(e->room)) {
        krv_fd_advance(fdp, datum.encoded);
        e->path = reinterpret_cast<const char *>(datum.bytes);
        return true;
    }
    e->path = e->room;
    return krv_decode_form(fdp, form, encoding, false, e->room, sizeof(e->room), nullptr) == 0;
}

bool table_reader::read_indexed_string(krv_form_t form, entry *e)
{
    uint64_t index = 0, offset = 0;
    if (krv_decode(&fd, form, encoding, &index) != 0)
        return false;
    if (cup == nullptr) {
        krv_fail(hp, KRV_ERR_INVALID, "string %lu is the unit's, and the header is read without one",
                 static_cast<unsigned long>(index));
        return false;
    }
    lnphp->sln_string_unit = cup;
    if (!krv_cu_read_indexed(hp, cup, KRV_BASE_STR_OFFSETS, index, &offset))
        return false;
    uint8_t bytes[sizeof(offset)]; // as if the offset had been written in place of the index
    std::memcpy(bytes, &offset, sizeof(offset));
    krv_fd_t written;
    krv_fd_attach_mem(hp, &written, sizeof(bytes), bytes);
    return read_string(&written, DW_FORM_strp, {.is_dwarf64 = true}, e);
}

bool table_reader::read_entry(const entry_format &format, entry *e)
{
    e->path = "";
    std::memset(e->numbers, 0, sizeof(e->numbers));
    for (const column *c = format.columns; c != format.columns + format.count; ++c) {
        bool is_read;
        if (c->part == part_t::none)
            is_read = skip(c->form);
        else if (c->part != part_t::path)
            is_read = krv_decode(&fd, c->form, encoding, &e->number(c->part)) == 0;
        else if (is_number(krv_form_row(c->form, KRV_ALL_FORMS)))
            is_read = read_indexed_string(c->form, e);
        else
            is_read = read_string(&fd, c->form, encoding, e);
        if (!is_read)
            return false;
    }
    return true;
}

// Calls add(entry) for each entry; what it adds must find room, as one string may be named by many.
template <typename Add>
bool table_reader::read_table(const table_texts &texts, Add add)
{
    entry_format format;
    uint64_t count = 0;
    if (!read_format(texts, &format))
        return false;
    if (krv_decode(&fd, DW_FORM_udata, &count) != 0)
        return note(texts.count);
    entry e;
    for (; count != 0 && format.has_bytes; --count) {
        if (!krv_spend(hp, format.count))
            return false;
        if (!read_entry(format, &e))
            return note(texts.entry);
        if (!add(e))
            return false;
        if (!krv_line_has_room(hp, lnphp->sln_bytes))
            return krv_line_may_keep(hp, lnphp->sln_bytes);
    }
    return true;
}

bool krv_lnph_read_tables_v5(krv_handle_t *hp, krv_lnph_t *lnphp, krv_ctu_t *cup, krv_fd_t fd)
{
    table_reader reader{hp, lnphp, cup, fd, krv_encoding(hp, lnphp->sln_flags)};
    const auto add_directory = [&](const entry &e) { return krv_lnph_add_directory(hp, lnphp, e.path) == 0; };
    const auto add_file = [&](entry &e) {
        uint64_t &directory = e.number(part_t::directory);
        const bool is_there =
            directory < lnphp->sln_id_entries || directory == 0; // 0 is the unit's where none is written
        return (is_there || krv_lnph_forgive_directory(hp, &directory)) &&
               krv_lnph_add_file(hp, lnphp, cup, e.path, directory, e.number(part_t::mtime), e.number(part_t::size)) ==
                   0;
    };
    return reader.read_table(DIRECTORIES, add_directory) && reader.read_table(FILES, add_file);
}
