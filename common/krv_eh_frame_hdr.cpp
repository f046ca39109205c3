// SPDX-License-Identifier: Apache-2.0
//
// The search table of .eh_frame_hdr (LSB Core, "DWARF Extensions"), the address index of the .eh_frame reader. Whatever
// is wrong with it makes it unsupported for the life of the reader: .eh_frame itself holds the same, only slower.
#include "krv_eh_frame.h"

#include "krv_build.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"

#include <cstring>

// Bytes of a field of the table; 0 for a format that a table cannot have.
static uint8_t field_width(uint8_t encoding)
{
    switch (encoding & 0x0f) {
    case DW_EH_PE_udata2:
    case DW_EH_PE_sdata2:
        return 2;
    case DW_EH_PE_udata4:
    case DW_EH_PE_sdata4:
        return 4;
    case DW_EH_PE_udata8:
    case DW_EH_PE_sdata8:
        return 8;
    default:
        return 0;
    }
}

// A pointer relative to its own address or to .eh_frame_hdr, else `message` behind the decoder's own.
static bool read_pointer(const krv_eh_frame_reader_data *data, krv_fd_t *fdp, uint8_t encoding, uint64_t *datump,
                         const char *message)
{
    if (krv_decode_eh_form(fdp, encoding, fdp->sfd_offset, data->sefh_eh_frame_hdr, datump) == 0)
        return true;
    krv_note(fdp->sfd_hp, "%s", message);
    return false;
}

// Fills what only the header tells.
static bool parse_header(krv_handle_t *hp, krv_eh_frame_reader_data *data, krv_fd_t *fdp)
{
    const krv_opt_t *hdr = &hp->sh_opts[KRV_OPT_EH_FRAME_HDR_ADDR];
    if (hdr->sopt_set != B_TRUE) {
        krv_note(hp, ".eh_frame_hdr base address unknown");
        return false;
    }
    data->sefh_eh_frame_hdr = hdr->sopt_u.o_uint64;
    if (korva_fd_seek(fdp, data->sefh_eh_frame_hdr, KRV_FD_SEEK_SET) != 0) {
        krv_note(hp, "couldn't seek to start of .eh_frame_hdr");
        return false;
    }
    if (!krv_read_field(fdp, DW_FORM_data1, &data->sefh_version, "failed to read version") ||
        !krv_read_field(fdp, DW_FORM_data1, &data->sefh_fpe, "failed to read frame pointer encoding") ||
        !krv_read_field(fdp, DW_FORM_data1, &data->sefh_fdece, "failed to read FDE count encoding") ||
        !krv_read_field(fdp, DW_FORM_data1, &data->sefh_te, "failed to read table encoding") ||
        !read_pointer(data, fdp, data->sefh_fpe, &data->sefh_fp, "failed to read frame pointer") ||
        !read_pointer(data, fdp, data->sefh_fdece, &data->sefh_fde_count, "failed to read FDE count"))
        return false;
    data->sefh_table_offset = fdp->sfd_offset;
    data->sefh_width = field_width(data->sefh_te);
    if (data->sefh_width == 0) {
        krv_note(hp, "unsupported table entry encoding");
        return false;
    }
    return true;
}

// The first thread's header stays; any other thread has read the same.
static bool load_header(krv_handle_t *hp, krv_eh_frame_reader_data *data)
{
    krv_eh_frame_reader_data fresh = {};
    krv_fd_t fd = krv_eh_address_space(hp);
    if (!parse_header(hp, &fresh, &fd))
        return false;
    const krv_build_guard guard(hp);
    if (krv_load(&data->sefh_status) != KRV_EFH_UNINITIALISED)
        return true;
    data->sefh_eh_frame_hdr = fresh.sefh_eh_frame_hdr;
    data->sefh_version = fresh.sefh_version;
    data->sefh_fpe = fresh.sefh_fpe;
    data->sefh_fdece = fresh.sefh_fdece;
    data->sefh_te = fresh.sefh_te;
    data->sefh_fp = fresh.sefh_fp;
    data->sefh_fde_count = fresh.sefh_fde_count;
    data->sefh_table_offset = fresh.sefh_table_offset;
    data->sefh_width = fresh.sefh_width;
    krv_store(&data->sefh_status, krv_eh_status_t{KRV_EFH_INITIALISED});
    return true;
}

namespace
{

// The entries that may still be the one: none when first > last.
struct range {
    int32_t first, last;

    int32_t middle() const // of one that is not empty
    {
        return first + static_cast<int32_t>((static_cast<uint32_t>(last) - static_cast<uint32_t>(first)) / 2);
    }
};

struct entry {
    uint64_t start;       // initial_location
    uint64_t fde_address; // of its record in .eh_frame
    uint64_t next;        // the initial_location behind it, or start when that was not looked at
};

enum class found { yes, no, failed };

// The table while it is searched.
struct table_search {
    krv_handle_t *hp;
    const krv_eh_frame_reader_data *data;
    uint64_t address; // that is looked for
    range among;
    entry at;

    // Formed modulo 2^64.
    uint64_t field_address(int32_t number, unsigned int field) const
    {
        return data->sefh_table_offset + (2 * static_cast<uint64_t>(number) + field) * data->sefh_width;
    }

    // Field 0 (initial_location) or 1 (fde_address) of an entry, through a cursor.
    bool operator()(int32_t number, unsigned int field, uint64_t *datump, const char *message) const
    {
        krv_fd_t fd = krv_eh_address_space(hp);
        if (korva_fd_seek(&fd, field_address(number, field), KRV_FD_SEEK_SET) == 0)
            return read_pointer(data, &fd, data->sefh_te, datump, message);
        krv_note(hp, "%s", message);
        return false;
    }
};

// Fields that were read ahead, of entries from `first` on: the twin of table_search, the same numbers as read_pointer.
template <typename T>
struct held_fields {
    const uint8_t *bytes;
    int32_t first;
    uint64_t base;     // of the first field
    uint64_t relative; // all ones when each field has its own base, else 0

    bool operator()(int32_t number, unsigned int field, uint64_t *datump, const char *) const
    {
        const uint64_t skip = (2 * static_cast<uint64_t>(number - first) + field) * sizeof(T);
        T value;
        std::memcpy(&value, bytes + skip, sizeof(value));
        *datump = static_cast<uint64_t>(value) + base + (skip & relative);
        return true;
    }
};

} // namespace

// Looks at the entry in the middle. found::no: not yet.
template <typename Read>
static inline found search_step(table_search *s, Read &read)
{
    const int32_t mid = s->among.middle();
    if (!read(mid, 0, &s->at.start, "failed to read VA"))
        return found::failed;
    if (s->address < s->at.start) {
        s->among.last = mid - 1;
        return found::no;
    }
    s->at.next = s->at.start;
    if (mid != s->among.last && !read(mid + 1, 0, &s->at.next, "failed to read VA"))
        return found::failed;
    if (mid != s->among.last && s->address >= s->at.next) {
        s->among.first = mid + 1;
        return found::no;
    }
    return read(mid, 1, &s->at.fde_address, "failed to read location") ? found::yes : found::failed;
}

template <typename T>
static found search_held(table_search *s, bool all, held_fields<T> fields)
{
    found result;
    do
        result = search_step(s, fields);
    while (all && result == found::no && s->among.first <= s->among.last);
    return result;
}

// The numbers of a table by width and sign.
static inline found search_numbers(table_search *s, bool all, const uint8_t *bytes, int32_t first, uint64_t base,
                                   uint64_t relative)
{
    const bool is_signed = (s->data->sefh_te & 0x08) != 0;
    switch (s->data->sefh_width) {
    case 2:
        return is_signed ? search_held<int16_t>(s, all, {bytes, first, base, relative})
                         : search_held<uint16_t>(s, all, {bytes, first, base, relative});
    case 4:
        return is_signed ? search_held<int32_t>(s, all, {bytes, first, base, relative})
                         : search_held<uint32_t>(s, all, {bytes, first, base, relative});
    default:
        return search_held<uint64_t>(s, all, {bytes, first, base, relative});
    }
}

// A step takes a call, which reads the entry in the middle and the location behind it; the last call reads all entries
// that are left, when they are few. Where that fails, the step is made through a cursor, which reports the field.
// The indices have 32 bits, and so has what counts of fde_count: a count whose low half is negative finds nothing.
static found search_table(table_search *s)
{
    const krv_fd_t *as = &s->hp->sh_as;
    const uint64_t width = s->data->sefh_width;
    const uint8_t application = s->data->sefh_te & 0xf0;
    const bool known = krv_fd_is_cb(as) && (application == DW_EH_PE_absptr || application == DW_EH_PE_pcrel ||
                                            application == DW_EH_PE_datarel);
    const uint64_t base = application == DW_EH_PE_datarel ? s->data->sefh_eh_frame_hdr : 0;
    const uint64_t relative = application == DW_EH_PE_pcrel ? UINT64_MAX : 0;
    uint8_t bytes[2048];
    s->among = {0, static_cast<int32_t>(s->data->sefh_fde_count - 1)};
    found outcome = found::no;
    while (outcome == found::no && s->among.first <= s->among.last) {
        const uint64_t left = static_cast<uint64_t>(int64_t{s->among.last} - s->among.first + 1) * 2 * width;
        const bool all = left <= sizeof(bytes);
        const int32_t first = all ? s->among.first : s->among.middle();
        const uint64_t address = s->field_address(first, 0), size = all ? left : 3 * width;
        const krv_bulk bulk = known && krv_extent_fits(as->sfd_size, address, 0, size)
                                  ? krv_read_bulk(as, bytes, size, address)
                                  : krv_bulk::refused;
        if (bulk == krv_bulk::refused) {
            outcome = search_step(s, *s);
            continue;
        }
        krv_clear_error(s->hp);
        if (bulk == krv_bulk::failed) {
            krv_fail(s->hp, KRV_ERR_IO, "read callback failed");
            krv_note(s->hp, "failed to read VA");
            return found::failed;
        }
        outcome = search_numbers(s, all, bytes, first, base + (address & relative), relative);
    }
    return outcome;
}

static int abandon_table(krv_handle_t *hp, krv_eh_frame_reader_data *data)
{
    krv_store(&data->sefh_status, krv_eh_status_t{KRV_EFH_UNSUPPORTED});
    return krv_fail(hp, KRV_ERR_UNSUPPORTED, "failure parsing .eh_frame_hdr");
}

int krv_eh_frame_gfoba(krv_handle_t *hp, krv_reader_t *reader, uint64_t address, uint64_t *taddrp, uint64_t *toffp,
                       uint64_t *naddrp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(reader != NULL);
    KRV_ASSERT(taddrp != NULL);
    KRV_ASSERT(toffp != NULL);
    KRV_ASSERT(naddrp != NULL);
    auto *data = static_cast<krv_eh_frame_reader_data *>(reader->sr_data);
    const krv_eh_status_t status = krv_load(&data->sefh_status);
    if (status == KRV_EFH_UNSUPPORTED)
        return krv_fail_code(hp, KRV_ERR_UNSUPPORTED);
    if (status == KRV_EFH_UNINITIALISED && !load_header(hp, data))
        return abandon_table(hp, data);
    table_search s;
    s.hp = hp;
    s.data = data;
    s.address = address;
    switch (search_table(&s)) {
    case found::yes:
        *taddrp = s.at.start;
        *toffp = s.at.fde_address - data->sefh_eh_frame;
        *naddrp = s.at.next;
        return 0;
    case found::no:
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    case found::failed:
        break;
    }
    return abandon_table(hp, data);
}
