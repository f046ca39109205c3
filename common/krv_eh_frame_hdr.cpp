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
#include "krv_mem.h"

#include <algorithm>
#include <bit>
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
    uint64_t entries() const { return static_cast<uint64_t>(int64_t{last} - first + 1); } // likewise
};

struct entry {
    uint64_t start;       // initial_location
    uint64_t fde_address; // of its record in .eh_frame
    uint64_t next;        // the initial_location behind it, or start when that was not looked at
};

enum class found { yes, no, failed, astray };

constexpr uint64_t MOST_NODES = 4096;
constexpr uint64_t LAST_ENTRIES = 32; // nodes are of ranges with more
constexpr uint64_t PART_SIZE = 2048;  // bytes of the table that are read in one call

} // namespace

// Searches halve the same ranges again and again: range n, and then 2n + 1 or 2n + 2. What was seen of the entry in the
// middle of one spares a call. The entries among which the search ends are always read, and show when it was led astray,
// since memory has changed.
struct krv_eh_guide_node {
    uint64_t known; // 1; stored last
    krv_relaxed<uint64_t> start, next;
};

namespace
{

// The table while it is searched.
struct table_search {
    krv_handle_t *hp;
    const krv_eh_frame_reader_data *data;
    uint64_t address;         // that is looked for
    krv_eh_guide_node *guide; // NULL: there is none
    uint64_t nodes;           // of it
    uint64_t node;            // of the range
    range among;
    entry at;
    uint64_t likely_size; // of the record

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

    void go_left(int32_t mid)
    {
        among.last = mid - 1;
        node = 2 * node + 1;
    }
    void go_right(int32_t mid)
    {
        among.first = mid + 1;
        node = 2 * node + 2;
    }
    bool is_guided() const { return node < nodes && among.entries() > LAST_ENTRIES; }
};

// Fields that were read ahead, of entries from `first` on: the twin of table_search, the same numbers as read_pointer.
template <typename T>
struct held_fields {
    const uint8_t *bytes;
    int32_t first;
    uint64_t base;     // of the first field
    uint64_t relative; // all ones when each field has its own base, else 0

    uint64_t field(int32_t number, unsigned int which) const
    {
        const uint64_t skip = (2 * static_cast<uint64_t>(int64_t{number} - first) + which) * sizeof(T);
        T value;
        std::memcpy(&value, bytes + skip, sizeof(value));
        return static_cast<uint64_t>(value) + base + (skip & relative);
    }
    bool operator()(int32_t number, unsigned int which, uint64_t *datump, const char *) const
    {
        *datump = field(number, which);
        return true;
    }
};

// What is read in one call.
struct part {
    range entries;
    bool is_whole;  // all of them; else the one in the middle and the location behind it
    bool is_guided; // to these
    bool has_next;  // and the location behind them
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
        s->go_left(mid);
        return found::no;
    }
    s->at.next = s->at.start;
    if (mid != s->among.last && !read(mid + 1, 0, &s->at.next, "failed to read VA"))
        return found::failed;
    if (mid != s->among.last && s->address >= s->at.next) {
        s->go_right(mid);
        return found::no;
    }
    return read(mid, 1, &s->at.fde_address, "failed to read location") ? found::yes : found::failed;
}

// The same by what the guide knows. False: it does not, or the entry is the one, which has to be read.
static inline bool guided_step(table_search *s)
{
    krv_eh_guide_node *node = &s->guide[s->node];
    if (krv_load(&node->known) == 0)
        return false;
    const int32_t mid = s->among.middle();
    if (s->address < node->start)
        s->go_left(mid);
    else if (s->address >= node->next)
        s->go_right(mid);
    else
        return false;
    return true;
}

template <typename T>
static inline void note_middle(table_search *s, const held_fields<T> &fields)
{
    krv_eh_guide_node *node = &s->guide[s->node];
    node->start = fields.field(s->among.middle(), 0);
    node->next = fields.field(s->among.middle() + 1, 0);
    krv_store(&node->known, uint64_t{1});
}

template <typename T>
static found search_held(table_search *s, const part &p, held_fields<T> fields)
{
    found result;
    do {
        if (s->is_guided())
            note_middle(s, fields);
        result = search_step(s, fields);
    } while (p.is_whole && result == found::no && s->among.first <= s->among.last);
    if (p.is_guided && ((p.has_next && s->address >= fields.field(p.entries.last + 1, 0)) ||
                        (p.is_whole && p.entries.first != 0 && s->address < fields.field(p.entries.first, 0))))
        return found::astray;
    if (result == found::yes) {
        const int32_t mid = s->among.middle();
        s->likely_size = p.is_whole && mid != p.entries.last ? fields.field(mid + 1, 1) - s->at.fde_address : 0;
    }
    return result;
}

// The numbers of a table by width and sign.
static inline found search_numbers(table_search *s, const part &p, const uint8_t *bytes, int32_t first, uint64_t base,
                                   uint64_t relative)
{
    const bool is_signed = (s->data->sefh_te & 0x08) != 0;
    switch (s->data->sefh_width) {
    case 2:
        return is_signed ? search_held<int16_t>(s, p, {bytes, first, base, relative})
                         : search_held<uint16_t>(s, p, {bytes, first, base, relative});
    case 4:
        return is_signed ? search_held<int32_t>(s, p, {bytes, first, base, relative})
                         : search_held<uint32_t>(s, p, {bytes, first, base, relative});
    default:
        return search_held<uint64_t>(s, p, {bytes, first, base, relative});
    }
}

// A step takes a call, which reads the entry in the middle and the location behind it, unless the guide knows it; the last
// call reads all entries that are left, when they are few. Where that fails, the step is made through a cursor, which
// reports the field.
// The indices have 32 bits, and so has what counts of fde_count: a count whose low half is negative finds nothing.
static found search_by(table_search *s)
{
    const krv_fd_t *as = &s->hp->sh_as;
    const uint64_t width = s->data->sefh_width;
    const uint8_t application = s->data->sefh_te & 0xf0;
    const bool known = krv_fd_is_cb(as) && (application == DW_EH_PE_absptr || application == DW_EH_PE_pcrel ||
                                            application == DW_EH_PE_datarel);
    const uint64_t base = application == DW_EH_PE_datarel ? s->data->sefh_eh_frame_hdr : 0;
    const uint64_t relative = application == DW_EH_PE_pcrel ? UINT64_MAX : 0;
    uint8_t bytes[PART_SIZE + sizeof(uint64_t)];
    s->among = {0, static_cast<int32_t>(s->data->sefh_fde_count - 1)};
    s->node = 0;
    const int32_t last = s->among.last;
    bool is_guided = false;
    found outcome = found::no;
    while (outcome == found::no && s->among.first <= s->among.last) {
        if (s->is_guided() && guided_step(s)) {
            is_guided = true;
            continue;
        }
        const uint64_t left = s->among.entries() * 2 * width;
        part p = {s->among, left <= PART_SIZE, is_guided, false};
        p.has_next = p.is_whole && is_guided && s->among.last != last;
        const int32_t first = p.is_whole ? s->among.first : s->among.middle();
        const uint64_t address = s->field_address(first, 0);
        const uint64_t size = p.is_whole ? left + (p.has_next ? width : 0) : 3 * width;
        const krv_bulk bulk = known && krv_extent_fits(as->sfd_size, address, 0, size)
                                  ? krv_read_bulk(as, bytes, static_cast<size_t>(size), address)
                                  : krv_bulk::refused;
        if (bulk == krv_bulk::refused) {
            outcome = is_guided ? found::astray : search_step(s, *s);
            continue;
        }
        krv_clear_error(s->hp);
        if (bulk == krv_bulk::failed) {
            krv_fail(s->hp, KRV_ERR_IO, "read callback failed");
            krv_note(s->hp, "failed to read VA");
            return found::failed;
        }
        outcome = search_numbers(s, p, bytes, first, base + (address & relative), relative);
    }
    return outcome;
}

// As many nodes as there are ranges with more than the last entries, within reason. None where memory is short, and until
// a search has found something: a table of which only the count is large has no memory.
static void find_guide(table_search *s, krv_eh_frame_reader_data *data)
{
    const auto count = static_cast<uint32_t>(data->sefh_fde_count);
    const uint64_t nodes = std::min(std::bit_ceil(uint64_t{count} / LAST_ENTRIES) * 2, MOST_NODES);
    s->nodes = 0;
    if (count <= LAST_ENTRIES || count > INT32_MAX)
        return;
    s->guide = krv_load(&data->sefh_guide);
    if (s->guide == nullptr) {
        if (data->sefh_likely_address == 0)
            return;
        auto *fresh = static_cast<krv_eh_guide_node *>(krv_zalloc(s->hp, nodes * sizeof(krv_eh_guide_node)));
        krv_clear_error(s->hp);
        if (fresh == nullptr)
            return;
        s->guide = krv_publish(&data->sefh_guide, fresh, krv_free);
    }
    s->nodes = nodes;
}

static found search_table(table_search *s)
{
    const found outcome = search_by(s);
    if (outcome != found::astray)
        return outcome;
    for (uint64_t node = 0; node < s->nodes; ++node)
        krv_store(&s->guide[node].known, uint64_t{0});
    s->nodes = 0;
    return search_by(s);
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
    s.likely_size = 0;
    find_guide(&s, data);
    switch (search_table(&s)) {
    case found::yes:
        data->sefh_likely_address = s.at.fde_address;
        data->sefh_likely_size = s.likely_size;
        *taddrp = s.at.start;
        *toffp = s.at.fde_address - data->sefh_eh_frame;
        *naddrp = s.at.next;
        return 0;
    case found::no:
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    case found::failed:
    case found::astray:
        break;
    }
    return abandon_table(hp, data);
}
