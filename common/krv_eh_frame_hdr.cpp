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

// The first of 2^32 bytes around the table. They do not wrap: an entry may tell any address, and which one is before another
// must be the same for how far they are from here.
static uint64_t begin_nearby(uint64_t table)
{
    constexpr uint64_t HALF = uint64_t{1} << 31;
    return std::clamp(table, HALF, 0 - HALF) - HALF;
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
    data->sefh_near = begin_nearby(fresh.sefh_eh_frame_hdr);
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

} // namespace

// Searches halve the same ranges again and again: range n, and then 2n + 1 or 2n + 2. What was seen of the entry in the
// middle of one spares a call. Where a search ends is always read, and shows when it was led astray, since memory has
// changed.
struct krv_eh_guide {
    uint64_t size, hints; // the latter a power of two, or 0

    // By range: in the low half, where the entry begins, counted from sefh_near; in the high half, how far before 2^32 - 1
    // bytes behind that the next one begins, or 0 when it is the last of the range. 0: not known, as if the entry covered
    // all that is within.
    krv_relaxed<uint64_t> *bounds() { return reinterpret_cast<krv_relaxed<uint64_t> *>(this + 1); }
    // By stretch of code: a hint, or 0.
    krv_relaxed<uint64_t> *hinted() { return bounds() + size; }
};

namespace
{

// A stretch of code is 64 bytes that begin at a multiple of 64, counted as the guide's bounds are.
constexpr unsigned STRETCH_BITS = 6, FEWEST_HINTS_BITS = 6, ENTRY_BITS = 24;
constexpr uint64_t STRETCH = 1 << STRETCH_BITS;

// Where a search has ended, for all addresses of a stretch that halve the table in the same way.
struct hint {
    uint64_t entry : ENTRY_BITS;
    uint64_t is_known : 1;
    uint64_t ends_range : 1; // the entry was the last of the range
    uint64_t from : STRETCH_BITS;
    uint64_t to : STRETCH_BITS; // the last one of these addresses
    uint64_t stretch : 32 - STRETCH_BITS - FEWEST_HINTS_BITS;
};
static_assert(sizeof(hint) == sizeof(uint64_t));

// The table while it is searched.
struct table_search {
    krv_handle_t *hp;
    const krv_eh_frame_reader_data *data;
    uint64_t address;              // that is looked for
    krv_eh_guide *guide;           // or NULL
    krv_relaxed<uint64_t> *bounds; // of the guide,
    uint64_t nodes;                // so many; 0: there is none
    uint64_t node;                 // of the range
    bool is_guided;                // to it
    krv_relaxed<uint64_t> *hint;   // where the one for the address is found or noted; NULL: nowhere
    uint64_t before, behind;       // addresses as far from this one, and nearer than that one, go the same way
    range among;
    entry at;
    uint64_t likely_size; // of the record, if that of the next entry follows it; else anything

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
        behind = std::min(behind, at.start - address);
        among.last = mid - 1;
        node = 2 * node + 1;
    }
    void go_right(int32_t mid)
    {
        before = std::min(before, address - std::max(at.start, at.next)); // which are in no order, perhaps
        among.first = mid + 1;
        node = 2 * node + 2;
    }
    int32_t last_of_table() const { return static_cast<int32_t>(data->sefh_fde_count - 1); }
    uint64_t distance(uint64_t location) const { return location - data->sefh_near; }
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

// Entries that are read in one call, and perhaps the one behind them, or its location.
struct part {
    range entries;
    unsigned behind; // fields
    bool is_whole;   // these are all that are left; else the one in the middle
};

constexpr uint64_t PART_SIZE = 2048; // bytes of the table that are read in one call
typedef uint8_t part_bytes[PART_SIZE + sizeof(uint64_t)];

} // namespace

// Reads a part of the table in one call. A call that failed, and one that has not to be made, are reported.
static inline krv_bulk read_part(const table_search *s, const part &p, uint8_t *bytes)
{
    const krv_fd_t *as = &s->hp->sh_as;
    const uint8_t application = s->data->sefh_te & 0xf0;
    const uint64_t address = s->field_address(p.entries.first, 0);
    const uint64_t size = (2 * p.entries.entries() + p.behind) * s->data->sefh_width;
    if (!krv_fd_is_cb(as) || !krv_extent_fits(as->sfd_size, address, 0, size) ||
        (application != DW_EH_PE_absptr && application != DW_EH_PE_pcrel && application != DW_EH_PE_datarel))
        return krv_bulk::refused;
    const krv_bulk bulk = krv_read_bulk(as, bytes, static_cast<size_t>(size), address);
    if (bulk != krv_bulk::refused)
        krv_clear_error(s->hp);
    if (bulk == krv_bulk::failed) {
        krv_fail(s->hp, KRV_ERR_IO, "read callback failed");
        krv_note(s->hp, "failed to read VA");
    }
    return bulk;
}

// Calls `use` with the fields of a part, which are of some width and sign.
template <typename Use>
static inline found use_part(const table_search *s, const part &p, const uint8_t *bytes, Use use)
{
    const uint8_t encoding = s->data->sefh_te, application = encoding & 0xf0;
    const int32_t first = p.entries.first;
    const uint64_t relative = application == DW_EH_PE_pcrel ? UINT64_MAX : 0;
    const uint64_t base =
        application == DW_EH_PE_datarel ? s->data->sefh_eh_frame_hdr : s->field_address(first, 0) & relative;
    const bool is_signed = (encoding & 0x08) != 0;
    switch (s->data->sefh_width) {
    case 2:
        return is_signed ? use(held_fields<int16_t>{bytes, first, base, relative})
                         : use(held_fields<uint16_t>{bytes, first, base, relative});
    case 4:
        return is_signed ? use(held_fields<int32_t>{bytes, first, base, relative})
                         : use(held_fields<uint32_t>{bytes, first, base, relative});
    default:
        return use(held_fields<uint64_t>{bytes, first, base, relative});
    }
}

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

// The same steps as far as the guide knows them. True: the entry in the middle is the one. None of them is a branch, since
// which way a search goes cannot be predicted.
template <bool IS_NOTED> // which way it is, for a hint
static inline bool follow_guide(table_search *s)
{
    const uint64_t distance = s->distance(s->address);
    if (distance >= UINT32_MAX)
        return false;
    uint64_t before = UINT64_MAX, behind = UINT64_MAX;
    const krv_relaxed<uint64_t> *const bounds = s->bounds;
    const uint64_t nodes = s->nodes;
    auto first = static_cast<uint32_t>(s->among.first), entries = static_cast<uint32_t>(s->among.entries());
    uint64_t node = 0, seen = 0;
    while (node < nodes && entries != 0) {
        seen = bounds[node];
        const uint64_t start = seen & UINT32_MAX, next = UINT32_MAX - (seen >> 32);
        const uint64_t is_before = distance < start, is_behind = distance >= next;
        if (is_before == is_behind)
            break;
        if (IS_NOTED) {
            before = std::min(before, (distance - std::max(start, next)) | (is_behind - 1));
            behind = std::min(behind, (start - distance) | (is_before - 1));
        }
        first += (0 - static_cast<uint32_t>(is_behind)) & ((entries + 1) / 2);
        entries = (entries - 1 + static_cast<uint32_t>(is_behind)) / 2;
        node = 2 * node + 1 + is_behind;
    }
    s->is_guided = node != 0;
    s->before = before;
    s->behind = behind;
    s->among = {static_cast<int32_t>(first), static_cast<int32_t>(first + entries - 1)};
    s->node = node;
    return node < nodes && entries != 0 && seen != 0;
}

// Reads the entry to which guide or hint has led.
static inline found read_answer(table_search *s, int32_t mid, bool ends_range)
{
    const part p = {{mid, mid}, mid == s->last_of_table() ? 0U : 2U, false};
    uint8_t bytes[4 * sizeof(uint64_t)];
    const krv_bulk bulk = read_part(s, p, bytes);
    if (bulk != krv_bulk::read)
        return bulk == krv_bulk::failed ? found::failed : found::astray;
    return use_part(s, p, bytes, [s, mid, ends_range, &p](const auto &fields) {
        const bool has_next = p.behind != 0;
        const uint64_t start = fields.field(mid, 0), next = has_next ? fields.field(mid + 1, 0) : start;
        if (s->address < start || (has_next && s->address >= next))
            return found::astray;
        s->at = {start, fields.field(mid, 1), ends_range ? start : next};
        s->likely_size = has_next ? fields.field(mid + 1, 1) - s->at.fde_address : 0;
        return found::yes;
    });
}

// Notes both bounds of the entry in the middle, if it is near enough.
template <typename T>
static inline void note_middle(table_search *s, const held_fields<T> &fields)
{
    const int32_t mid = s->among.middle();
    const uint64_t start = s->distance(fields.field(mid, 0));
    const uint64_t next = mid == s->among.last ? UINT32_MAX : s->distance(fields.field(mid + 1, 0));
    if (start < UINT32_MAX && next <= UINT32_MAX)
        s->bounds[s->node] = start | (UINT32_MAX - next) << 32;
}

template <typename T>
static found search_held(table_search *s, const part &p, const held_fields<T> &fields)
{
    const auto [first, last] = p.entries;
    if (p.is_whole && s->is_guided &&
        ((first != 0 && s->address < fields.field(first, 0)) ||
         (p.behind != 0 && s->address >= fields.field(last + 1, 0))))
        return found::astray;
    found result;
    do {
        if (s->node < s->nodes)
            note_middle(s, fields);
        result = search_step(s, fields);
    } while (p.is_whole && result == found::no && s->among.first <= s->among.last);
    if (result == found::yes && p.is_whole && s->among.middle() != last)
        s->likely_size = fields.field(s->among.middle() + 1, 1) - s->at.fde_address;
    return result;
}

static part next_part(const table_search *s)
{
    const int32_t mid = s->among.middle();
    if (s->among.entries() * 2 * s->data->sefh_width > PART_SIZE)
        return {{mid, mid}, 1, false};
    return {s->among, s->is_guided && s->among.last != s->last_of_table() ? 1U : 0U, true};
}

// A step takes a call, which reads the entry in the middle and the location behind it; the last call reads all entries that
// are left, when they are few. Where that fails, the step is made through a cursor, which reports the field.
[[gnu::noinline]] static found search_on(table_search *s)
{
    part_bytes bytes;
    found outcome = found::no;
    while (outcome == found::no && s->among.first <= s->among.last) {
        const part p = next_part(s);
        const krv_bulk bulk = read_part(s, p, bytes);
        if (bulk == krv_bulk::failed)
            return found::failed;
        if (bulk == krv_bulk::refused)
            outcome = s->is_guided ? found::astray : search_step(s, *s);
        else
            outcome = use_part(s, p, bytes, [s, &p](const auto &fields) { return search_held(s, p, fields); });
    }
    return outcome;
}

// Where the hint for an address is to be found or noted. NULL: nowhere.
static inline krv_relaxed<uint64_t> *place_of_hint(const table_search *s, krv_eh_guide *guide)
{
    const uint64_t distance = s->distance(s->address);
    if (distance >= UINT32_MAX || guide->hints == 0)
        return nullptr;
    return &guide->hinted()[distance >> STRETCH_BITS & (guide->hints - 1)];
}

// A hint is taken once, so that no other thread changes it meanwhile.
static inline hint read_hint(const table_search *s)
{
    const uint64_t distance = s->distance(s->address), at = distance % STRETCH;
    const auto h = std::bit_cast<hint>(s->hint == nullptr ? uint64_t{0} : uint64_t{*s->hint});
    const bool holds =
        h.is_known != 0 && h.stretch == distance >> (STRETCH_BITS + FEWEST_HINTS_BITS) && at >= h.from && at <= h.to;
    return holds ? h : hint{};
}

static inline void note_hint(table_search *s, int32_t mid, bool ends_range)
{
    const uint64_t distance = s->distance(s->address), at = distance % STRETCH;
    const uint64_t before = std::min(s->before, s->address - s->at.start);
    const uint64_t behind = ends_range ? s->behind : std::min(s->behind, s->at.next - s->address);
    hint h = {};
    h.entry = static_cast<uint64_t>(mid) & ((1 << ENTRY_BITS) - 1);
    h.is_known = 1;
    h.ends_range = ends_range ? 1 : 0;
    h.from = (at - std::min(before, at)) % STRETCH;
    h.to = (at + std::min(behind - 1, STRETCH - 1 - at)) % STRETCH;
    h.stretch = distance >> (STRETCH_BITS + FEWEST_HINTS_BITS) & ((1 << (32 - STRETCH_BITS - FEWEST_HINTS_BITS)) - 1);
    *s->hint = std::bit_cast<uint64_t>(h);
}

// The indices have 32 bits, and so has what counts of fde_count: a count whose low half is negative finds nothing.
static inline found search_by(table_search *s)
{
    s->among = {0, s->last_of_table()};
    s->node = 0;
    s->is_guided = false;
    s->before = s->behind = UINT64_MAX;
    const bool is_led =
        s->nodes != 0 && s->among.last >= 0 && (s->hint != nullptr ? follow_guide<true>(s) : follow_guide<false>(s));
    const found outcome = is_led ? read_answer(s, s->among.middle(), s->among.middle() == s->among.last) : search_on(s);
    if (outcome == found::yes && s->hint != nullptr && s->among.middle() >> ENTRY_BITS == 0)
        note_hint(s, s->among.middle(), s->among.middle() == s->among.last);
    return outcome;
}

// As many nodes as there are ranges, within reason. None where memory is short, and until a search has found something: a
// table of which only the count is large has no memory.
[[gnu::noinline]] static krv_eh_guide *make_guide(krv_handle_t *hp, krv_eh_frame_reader_data *data)
{
    constexpr uint64_t MOST = 1 << 15;
    const auto count = static_cast<uint32_t>(data->sefh_fde_count);
    if (!data->sefh_has_found || count > INT32_MAX)
        return nullptr;
    const uint64_t size = std::min(std::bit_ceil(uint64_t{count} + 1), MOST) - 1;
    const uint64_t hints =
        data->has_many() ? 0 : std::bit_ceil(std::max(4 * uint64_t{count}, uint64_t{1} << FEWEST_HINTS_BITS));
    auto *fresh = static_cast<krv_eh_guide *>(krv_zalloc(hp, sizeof(krv_eh_guide) + (size + hints) * sizeof(uint64_t)));
    krv_clear_error(hp);
    if (fresh == nullptr)
        return nullptr;
    fresh->size = size;
    fresh->hints = hints;
    return krv_publish(&data->sefh_guide, fresh, krv_free);
}

static inline void find_guide(table_search *s, krv_eh_frame_reader_data *data)
{
    krv_eh_guide *guide = krv_load(&data->sefh_guide);
    if (guide == nullptr)
        guide = make_guide(s->hp, data);
    s->guide = guide;
    s->nodes = guide == nullptr ? 0 : guide->size;
    s->bounds = guide == nullptr ? nullptr : guide->bounds();
    s->hint = guide == nullptr ? nullptr : place_of_hint(s, guide);
}

// Who was led to nothing looks again.
[[gnu::noinline]] static found search_again(table_search *s, found outcome)
{
    if (outcome == found::astray)
        for (uint64_t i = 0; i < s->guide->size + s->guide->hints; ++i)
            s->bounds[i] = 0;
    s->nodes = 0;
    s->hint = nullptr;
    return search_by(s);
}

[[gnu::noinline]] static found search_unhinted(table_search *s)
{
    const found outcome = search_by(s);
    return outcome == found::astray || (outcome == found::no && s->is_guided) ? search_again(s, outcome) : outcome;
}

static inline found search_table(table_search *s)
{
    const hint h = read_hint(s);
    if (h.is_known == 0)
        return search_unhinted(s);
    const found outcome = read_answer(s, static_cast<int32_t>(h.entry), h.ends_range != 0);
    return outcome == found::astray ? search_again(s, outcome) : outcome;
}

// Of a table that is too large to keep them, sizes are told by the entries.
static void note_size(const table_search *s, krv_eh_frame_reader_data *data)
{
    const bool fits = s->likely_size % 4 == 0 && s->likely_size / 4 <= UINT8_MAX;
    data->words_at(s->at.fde_address - data->sefh_eh_frame) = static_cast<uint8_t>(fits ? s->likely_size / 4 : 0);
}

[[gnu::cold]] static int abandon_table(krv_handle_t *hp, krv_eh_frame_reader_data *data)
{
    krv_store(&data->sefh_status, krv_eh_status_t{KRV_EFH_UNSUPPORTED});
    return krv_fail(hp, KRV_ERR_UNSUPPORTED, "failure parsing .eh_frame_hdr");
}

int krv_eh_frame_gfoba(krv_handle_t *hp, krv_reader_t *reader, uint64_t address, krv_fde_search *searchp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(reader != NULL);
    KRV_ASSERT(searchp != NULL);
    auto *data = static_cast<krv_eh_frame_reader_data *>(reader->sr_data);
    const krv_eh_status_t status = krv_load(&data->sefh_status);
    if (status == KRV_EFH_UNSUPPORTED)
        return krv_fail_code(hp, KRV_ERR_UNSUPPORTED);
    if (status == KRV_EFH_UNINITIALISED) {
        if (!load_header(hp, data))
            return abandon_table(hp, data);
        reader->sr_likely_fdes = static_cast<uint32_t>(std::min<uint64_t>(data->sefh_fde_count, UINT32_MAX));
    }
    table_search s;
    s.hp = hp;
    s.data = data;
    s.address = address;
    s.at = {};
    s.likely_size = 0;
    find_guide(&s, data);
    switch (search_table(&s)) {
    case found::yes:
        if (s.guide == nullptr)
            data->sefh_has_found = true;
        if (data->has_many())
            note_size(&s, data);
        searchp->start = s.at.start;
        searchp->offset = s.at.fde_address - data->sefh_eh_frame;
        searchp->next = s.at.next;
        searchp->by_table = true;
        return 0;
    case found::no:
        return krv_fail_code(hp, KRV_ERR_NOTFOUND);
    case found::failed:
    case found::astray:
        break;
    }
    return abandon_table(hp, data);
}
