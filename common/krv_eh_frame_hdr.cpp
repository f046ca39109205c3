// SPDX-License-Identifier: Apache-2.0
//
// The search table of .eh_frame_hdr (LSB Core, "DWARF Extensions"), the address index of the .eh_frame reader. Whatever
// is wrong with it makes it unsupported for the life of the reader: .eh_frame itself holds the same, only slower.
#include "krv_eh_frame.h"

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
    if (!krv_read_field(fdp, DW_FORM_data1, 0, &data->sefh_version, "failed to read version") ||
        !krv_read_field(fdp, DW_FORM_data1, 0, &data->sefh_fpe, "failed to read frame pointer encoding") ||
        !krv_read_field(fdp, DW_FORM_data1, 0, &data->sefh_fdece, "failed to read FDE count encoding") ||
        !krv_read_field(fdp, DW_FORM_data1, 0, &data->sefh_te, "failed to read table encoding") ||
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
static bool load_header(krv_handle_t *hp, krv_eh_frame_reader_data *data, krv_fd_t *fdp)
{
    krv_eh_frame_reader_data fresh = {};
    if (!parse_header(hp, &fresh, fdp))
        return false;
    const krv_write_guard guard(&hp->sh_rwlock);
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

// A field in memory, widened to 64 bits.
template <typename T>
static uint64_t load(const uint8_t *bytes)
{
    T value;
    std::memcpy(&value, bytes, sizeof(value));
    return static_cast<uint64_t>(value);
}

namespace
{

// The table while it is searched.
struct table_search {
    const krv_eh_frame_reader_data *data;
    krv_fd_t fd;
    uint64_t held_address = 0; // what was read ahead
    uint64_t held_size = 0;
    bool held_to_end = false; // all entries that are still searched
    uint8_t held[2048];

    // Formed modulo 2^64.
    uint64_t field_address(int32_t entry, unsigned int field) const
    {
        return data->sefh_table_offset + (2 * static_cast<uint64_t>(entry) + field) * data->sefh_width;
    }

    // A call for two entries, and near the end one for all that are left. A failure is left to read_field to report.
    void read_ahead(int32_t lo, int32_t mid, int32_t hi)
    {
        if (held_to_end)
            return;
        const uint64_t entry_size = uint64_t{2} * data->sefh_width;
        const uint64_t left = static_cast<uint64_t>(int64_t{hi} - lo + 1) * entry_size;
        const bool all = left <= sizeof(held);
        const uint64_t address = field_address(all ? lo : mid, 0);
        const uint64_t size = all ? left : entry_size + (mid == hi ? 0 : data->sefh_width);
        held_size = 0;
        if (!krv_fd_is_cb(&fd) || !krv_extent_fits(fd.sfd_size, address, 0, size) ||
            fd.sfd_u.cb.func(fd.sfd_u.cb.arg, held, size, address) != static_cast<int64_t>(size))
            return;
        held_address = address;
        held_size = size;
        held_to_end = all;
    }

    // A field that was read ahead: the same number that read_pointer gives. False: not held, or an encoding that
    // read_pointer refuses.
    bool held_field(uint64_t address, uint64_t *datump) const
    {
        const uint64_t skip = address - held_address;
        if (skip >= held_size || data->sefh_width > held_size - skip)
            return false;
        const uint8_t *bytes = held + skip;
        const bool is_signed = (data->sefh_te & 0x08) != 0;
        uint64_t value;
        switch (data->sefh_width) {
        case 2:
            value = is_signed ? load<int16_t>(bytes) : load<uint16_t>(bytes);
            break;
        case 4:
            value = is_signed ? load<int32_t>(bytes) : load<uint32_t>(bytes);
            break;
        default:
            value = load<uint64_t>(bytes);
            break;
        }
        switch (data->sefh_te & 0xf0) {
        case DW_EH_PE_absptr:
            break;
        case DW_EH_PE_pcrel:
            value += address;
            break;
        case DW_EH_PE_datarel:
            value += data->sefh_eh_frame_hdr;
            break;
        default:
            return false;
        }
        *datump = value;
        return true;
    }

    // Field 0 (initial_location) or 1 (fde_address) of an entry.
    bool read_field(int32_t entry, unsigned int field, uint64_t *datump, const char *message)
    {
        const uint64_t address = field_address(entry, field);
        if (held_field(address, datump)) {
            krv_clear_error(fd.sfd_hp);
            return true;
        }
        if (korva_fd_seek(&fd, address, KRV_FD_SEEK_SET) == 0)
            return read_pointer(data, &fd, data->sefh_te, datump, message);
        krv_note(fd.sfd_hp, "%s", message);
        return false;
    }
};

enum class found { yes, no, failed };

} // namespace

// The indices have 32 bits, and so has what counts of fde_count: a count whose low half is negative finds nothing.
static found search_table(const krv_eh_frame_reader_data *data, const krv_fd_t *fdp, uint64_t address, uint64_t *startp,
                          uint64_t *fde_addressp, uint64_t *nextp)
{
    table_search table;
    table.data = data;
    table.fd = *fdp;
    int32_t lo = 0, hi = static_cast<int32_t>(data->sefh_fde_count - 1);
    while (lo <= hi) {
        const int32_t mid = lo + (hi - lo) / 2;
        table.read_ahead(lo, mid, hi);
        if (!table.read_field(mid, 0, startp, "failed to read VA"))
            return found::failed;
        if (address < *startp) {
            hi = mid - 1;
            continue;
        }
        *nextp = *startp;
        if (mid != hi && !table.read_field(mid + 1, 0, nextp, "failed to read VA"))
            return found::failed;
        if (mid == hi || address < *nextp)
            return table.read_field(mid, 1, fde_addressp, "failed to read location") ? found::yes : found::failed;
        lo = mid + 1;
    }
    return found::no;
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
    krv_fd_t fd = hp->sh_as;
    fd.sfd_hp = hp; // which it has not while no address space is attached
    if (status == KRV_EFH_UNINITIALISED && !load_header(hp, data, &fd))
        return abandon_table(hp, data);
    uint64_t start = 0, fde_address = 0, next = 0;
    switch (search_table(data, &fd, address, &start, &fde_address, &next)) {
    case found::yes:
        *taddrp = start;
        *toffp = fde_address - data->sefh_eh_frame;
        *naddrp = next;
        return 0;
    case found::no:
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    case found::failed:
        break;
    }
    return abandon_table(hp, data);
}
