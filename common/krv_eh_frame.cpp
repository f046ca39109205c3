// SPDX-License-Identifier: Apache-2.0
//
// The reader of .eh_frame (LSB Core, "DWARF Extensions") as a program has it loaded: everything is read through copies
// of the address-space cursor, whose offsets are target addresses. Sums that form an address wrap at 2^64: whether
// there is anything at that address, the read call-back says.
#include "krv_eh_frame.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_mem.h"

#include <cstring>
#include <memory>
#include <new>

namespace
{

constexpr uint8_t EH_FORMAT = 0x0f;      // how a pointer is read
constexpr uint8_t EH_APPLICATION = 0xf0; // what is added; the indirect bit is one of these
constexpr uint64_t EH_LENGTH_SIZE = 4;   // bytes of a record's length field; there is no 64-bit format

struct eh_format {
    krv_form_t form; // 0 for a format that does not exist
    bool is_signed;
};

} // namespace

// A CIE of this reader, with the room for its augmentation data.
struct krv_eh_cie {
    krv_cie_t cie;
    krv_amd64_cie_augmentation augmentation;
    uint64_t address;
    bool is_owned; // by the record of an FDE, with which it is freed
};

// An FDE of this reader, with the room for its augmentation data and its CIE.
struct krv_eh_fde {
    krv_fde_t fde;
    krv_amd64_fde_augmentation augmentation;
    krv_eh_cie parent;
};
static_assert(sizeof(krv_eh_fde) <= sizeof(krv_fde_room) && alignof(krv_eh_fde) <= alignof(krv_fde_room));

static constexpr eh_format eh_formats[EH_FORMAT + 1] = {
    {DW_FORM_addr, false},  // DW_EH_PE_absptr
    {DW_FORM_udata, false}, // DW_EH_PE_uleb128
    {DW_FORM_data2, false}, // DW_EH_PE_udata2
    {DW_FORM_data4, false}, // DW_EH_PE_udata4
    {DW_FORM_data8, false}, // DW_EH_PE_udata8
    {0, false},             // 0x05
    {0, false},             // 0x06
    {0, false},             // 0x07
    {0, false},             // 0x08
    {DW_FORM_sdata, false}, // DW_EH_PE_sleb128
    {DW_FORM_data2, true},  // DW_EH_PE_sdata2
    {DW_FORM_data4, true},  // DW_EH_PE_sdata4
    {DW_FORM_data8, true},  // DW_EH_PE_sdata8
    {0, false},             // 0x0d
    {0, false},             // 0x0e
    {0, false},             // that of DW_EH_PE_omit
};
static_assert(eh_formats[DW_EH_PE_udata8].form == DW_FORM_data8 && eh_formats[DW_EH_PE_sleb128].form == DW_FORM_sdata);

static inline int apply_base(krv_handle_t *hp, uint8_t encoding, uint64_t pc_base, uint64_t data_base, uint64_t *valuep)
{
    switch (encoding & EH_APPLICATION) {
    case DW_EH_PE_absptr:
        return 0;
    case DW_EH_PE_pcrel:
        *valuep += pc_base;
        return 0;
    case DW_EH_PE_datarel:
        *valuep += data_base;
        return 0;
    default:
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unsupported target address encoding 0x%hhx", encoding);
    }
}

// A number of fixed width whose bytes are in memory. False: not that case, and nothing has changed.
template <typename T>
static inline bool load_number(krv_fd_t *fdp, uint64_t *valuep)
{
    const krv_view_t view = krv_fd_view(fdp);
    T value;
    if (view.size < sizeof(value))
        return false;
    std::memcpy(&value, view.bytes, sizeof(value));
    *valuep = static_cast<uint64_t>(value);
    krv_fd_advance(fdp, sizeof(value));
    krv_clear_error(fdp->sfd_hp);
    return true;
}

// Of the formats that compilers and linkers choose; the twin of the reads in decode_pointer.
static inline bool load_pointer(krv_fd_t *fdp, uint8_t format, uint64_t *valuep)
{
    switch (format) {
    case DW_EH_PE_sdata4:
        return load_number<int32_t>(fdp, valuep);
    case DW_EH_PE_udata4:
        return load_number<uint32_t>(fdp, valuep);
    case DW_EH_PE_sdata8:
    case DW_EH_PE_udata8:
        return load_number<uint64_t>(fdp, valuep);
    default:
        return false;
    }
}

static inline bool read_pointer_format(krv_fd_t *fdp, const eh_format *format, uint64_t *valuep)
{
    constexpr const char *MESSAGE = "korva_decode_form() failed";
    if (!format->is_signed)
        return krv_read_field(fdp, format->form, valuep, MESSAGE);
    int64_t value = 0;
    const bool read = krv_read_field(fdp, format->form, &value, MESSAGE);
    *valuep = static_cast<uint64_t>(value);
    return read;
}

static inline int decode_pointer(krv_fd_t *fdp, uint8_t encoding, uint64_t pc_base, uint64_t data_base,
                                 uint64_t *datump)
{
    krv_handle_t *hp = fdp->sfd_hp;
    const uint8_t low = encoding & EH_FORMAT;
    const eh_format *format = &eh_formats[low];
    if (format->form == 0)
        return krv_fail(hp, KRV_ERR_INVALID, "illegal EH form (0x%hhx)", low);
    uint64_t value = 0;
    const bool read = load_pointer(fdp, low, &value) || read_pointer_format(fdp, format, &value);
    if (!read || apply_base(hp, encoding, pc_base, data_base, &value) != 0)
        return krv_note(hp, "unable to decode EH datum");
    *datump = value;
    return 0;
}

int krv_decode_eh_form(krv_fd_t *fdp, uint8_t encoding, uint64_t pc_base, uint64_t data_base, uint64_t *datump)
{
    KRV_ASSERT(fdp != NULL);
    KRV_ASSERT(datump != NULL);
    return decode_pointer(fdp, encoding, pc_base, data_base, datump);
}

// A pointer relative to its own address or to .eh_frame, else `message` behind the decoder's own. `origin` is the
// address of the cursor's offset 0.
static bool read_pointer(krv_fd_t *fdp, uint64_t origin, uint8_t encoding, uint64_t eh_frame, uint64_t *datump,
                         const char *message)
{
    if (decode_pointer(fdp, encoding, origin + fdp->sfd_offset, eh_frame, datump) == 0)
        return true;
    krv_note(fdp->sfd_hp, "%s", message);
    return false;
}

static int read_set_loc(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_amd64_cie_augmentation *augp)
{
    const krv_opt_t *eh_frame = &hp->sh_opts[KRV_OPT_EH_FRAME_ADDR];
    if (eh_frame->sopt_set != B_TRUE)
        return krv_fail(hp, KRV_ERR_INVALID, ".eh_frame address unknown");
    const uint8_t encoding = augp == nullptr || augp->scie_re == 0 ? uint8_t{DW_EH_PE_udata8} : augp->scie_re;
    uint64_t *locp = &op->operand[0].sa_u.su_unsigned;
    return read_pointer(fdp, 0, encoding, eh_frame->sopt_u.o_uint64, locp, "failed to read operand") ? 0 : -1;
}

int krv_eh_frame_aug_next_op(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdp != NULL);
    KRV_ASSERT(op != NULL);
    krv_form_t forms[2];
    if (krv_cfa_read_opcode(hp, fdp, op, forms) != 0)
        return -1;
    if (op->opcode == DW_CFA_set_loc)
        return read_set_loc(hp, fdp, op, static_cast<const krv_amd64_cie_augmentation *>(arg));
    return krv_cfa_read_operands(hp, fdp, op, forms);
}

static const krv_augmentation_ops_t krv_eh_frame_aug_ops = {.sao_gno = krv_eh_frame_aug_next_op};
static const krv_augmentation_t krv_eh_frame_augmentation = {.sa_ops = &krv_eh_frame_aug_ops};

static krv_eh_frame_reader_data *reader_data(const krv_reader_t *reader)
{
    return static_cast<krv_eh_frame_reader_data *>(reader->sr_data);
}

namespace
{

// A record while it is read.
struct record_reader {
    krv_fd_t fd;       // behind its length field, limited to it; over the window's bytes if that holds them all
    uint64_t origin;   // address of offset 0
    uint64_t eh_frame; // address of .eh_frame
    uint64_t length;   // bytes after the length field

    uint64_t address() const { return origin + fd.sfd_offset; }
};

} // namespace

// Whether so many bytes of the address space are there in one call. A call that failed is left to the window.
static bool read_bulk(const krv_fd_t *as, void *buf, size_t size, uint64_t address, krv_window_t *window)
{
    const krv_bulk outcome = krv_read_bulk(as, buf, size, address);
    if (outcome == krv_bulk::failed)
        window->sw_lost = true;
    return outcome == krv_bulk::read;
}

// Enters a record whose bytes the window holds, from `skip` bytes behind its beginning on.
static void enter_held(record_reader *r, krv_handle_t *hp, krv_window_t *window, uint64_t address, uint32_t length,
                       uint64_t skip)
{
    krv_clear_error(hp);
    window->sw_offset = address + skip;
    window->sw_size = EH_LENGTH_SIZE + length - skip;
    krv_fd_attach_mem(hp, &r->fd, length, window->sw_bytes + (EH_LENGTH_SIZE - skip));
    r->origin = address + EH_LENGTH_SIZE;
    r->length = length;
}

// Reads a record in one call, if it has no more bytes than it is likely to have. False: it has, or something is amiss.
static bool hold_likely_record(record_reader *r, krv_handle_t *hp, krv_window_t *window, uint64_t address,
                               uint64_t size)
{
    const krv_fd_t *as = &hp->sh_as;
    uint32_t length;
    if (size <= EH_LENGTH_SIZE || size > sizeof(window->sw_bytes) || !krv_fd_is_cb(as) ||
        !krv_extent_fits(as->sfd_size, address, 0, size) ||
        !read_bulk(as, window->sw_bytes, static_cast<size_t>(size), address, window))
        return false;
    // The window is part of a record. NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker)
    std::memcpy(&length, window->sw_bytes, sizeof(length));
    if (length == 0 || length > size - EH_LENGTH_SIZE)
        return false;
    enter_held(r, hp, window, address, length, 0);
    return true;
}

// Reads a record in two calls, when the window has room for it: the twin of reading field by field, to which false
// leads. False: it has not, or something is amiss.
static bool hold_record(record_reader *r, krv_handle_t *hp, krv_window_t *window, uint64_t address)
{
    const krv_fd_t *as = &hp->sh_as;
    uint32_t length;
    if (window->sw_lost || !krv_fd_is_cb(as) || !krv_extent_fits(as->sfd_size, address, 0, EH_LENGTH_SIZE) ||
        !read_bulk(as, &length, sizeof(length), address, window) || length == 0 || length > sizeof(window->sw_bytes) ||
        !krv_extent_fits(as->sfd_size, address, EH_LENGTH_SIZE, length) ||
        !read_bulk(as, window->sw_bytes, length, address + EH_LENGTH_SIZE, window))
        return false;
    enter_held(r, hp, window, address, length, EH_LENGTH_SIZE);
    return true;
}

// Enters the record at an address, which has `likely` bytes; 0: not known.
static bool enter_record(record_reader *r, krv_handle_t *hp, krv_window_t *window, uint64_t eh_frame, uint64_t address,
                         uint64_t likely = 0)
{
    r->eh_frame = eh_frame;
    if (hold_likely_record(r, hp, window, address, likely) || hold_record(r, hp, window, address))
        return true;
    const krv_fd_t as = krv_eh_address_space(hp);
    r->origin = r->length = 0;
    r->fd = krv_fd_windowed(&as, window);
    if (krv_fd_seek(&r->fd, address) != 0) {
        krv_note(hp, "unable to seek to offset 0x%lx", static_cast<unsigned long>(address));
        return false;
    }
    if (!krv_read_field(&r->fd, DW_FORM_data4, &r->length, "failed to read Length") ||
        krv_fd_truncate(&r->fd, r->length) != 0)
        return false;
    if (r->length == 0 && krv_reads_as_written(hp)) { // nothing is amiss: it ends the section
        krv_fail(hp, KRV_ERR_NOTFOUND, "terminator at address 0x%lx", static_cast<unsigned long>(address));
        return false;
    }
    krv_fd_read_ahead(&r->fd, r->length);
    return true;
}

// For the fields that a CIE may have once.
static bool first_time(krv_handle_t *hp, boolean_t *seenp, const char *message)
{
    if (*seenp == B_FALSE) {
        *seenp = B_TRUE;
        return true;
    }
    krv_fail(hp, KRV_ERR_CORRUPT, "%s", message);
    return false;
}

// The datum of one letter of the augmentation string.
static bool read_letter(krv_handle_t *hp, char letter, record_reader *r, krv_amd64_cie_augmentation *augp)
{
    uint8_t encoding = 0;
    switch (letter) {
    case 'L':
        return first_time(hp, &augp->scie_L, "duplicate personality specifier") &&
               krv_read_field(&r->fd, DW_FORM_data1, &augp->scie_le, "failed to read LDSA encoding");
    case 'P':
        return first_time(hp, &augp->scie_P, "duplicate personality specifier") &&
               krv_read_field(&r->fd, DW_FORM_data1, &encoding, "failed to read personality encoding") &&
               read_pointer(&r->fd, r->origin, encoding, r->eh_frame, &augp->scie_pr,
                            "failed to read personality routine");
    case 'R':
        return first_time(hp, &augp->scie_R, "duplicate code encoding") &&
               krv_read_field(&r->fd, DW_FORM_data1, &augp->scie_re, "failed to read code encoding");
    default:
        krv_fail(hp, KRV_ERR_CORRUPT, "illegal operation in augmentation string");
        return false;
    }
}

static bool step_over(krv_fd_t *fdp, uint64_t count)
{
    if (count > fdp->sfd_remaining)
        return false;
    krv_fd_advance(fdp, count);
    return true;
}

// Steps over a pointer in any encoding. False: not known how, or it leads out of the cursor.
static bool step_over_pointer(krv_fd_t *fdp, uint8_t encoding)
{
    if (encoding == DW_EH_PE_omit)
        return true;
    const eh_format *format = &eh_formats[encoding & EH_FORMAT];
    uint64_t value = 0;
    return format->form != 0 && krv_decode(fdp, format->form, &value) == 0;
}

// As written: only what FDEs are read by matters, and who has to clean up behind a call does not. Letters behind one that
// is not known cannot be read, but the size of the data tells where the instructions begin.
static bool read_written_letters(krv_handle_t *hp, krv_fd_t data, krv_cie_t *ciep, krv_amd64_cie_augmentation *augp)
{
    const char *letter = ciep->scie_augmentation_string + 1;
    for (bool known = true; known && *letter != '\0'; letter += known ? 1 : 0) {
        uint8_t encoding = 0;
        switch (*letter) {
        case 'L':
            augp->scie_L = B_TRUE;
            known = step_over(&data, 1);
            break;
        case 'P':
            augp->scie_P = B_TRUE;
            known = krv_decode(&data, DW_FORM_data1, &encoding) == 0 && step_over_pointer(&data, encoding);
            break;
        case 'R':
            augp->scie_R = B_TRUE;
            known = krv_decode(&data, DW_FORM_data1, &augp->scie_re) == 0;
            break;
        case 'S':
            ciep->scie_signal = true;
            break;
        case 'B': // of other machines: how return addresses are signed, and memory is tagged
        case 'G':
            break;
        default:
            known = false;
        }
    }
    krv_clear_error(hp);
    if (*letter == '\0')
        return true;
    ciep->scie_signal = ciep->scie_signal || std::strchr(letter, 'S') != nullptr;
    if (augp->scie_R == B_TRUE || std::strchr(letter, 'R') == nullptr)
        return true;
    krv_fail(hp, KRV_ERR_UNSUPPORTED, "unknown letter '%c' in augmentation string", *letter);
    return false;
}

// The size of the augmentation data is only checked: what the letters say is read, and instructions begin behind it.
static bool read_cie_augmentation(krv_handle_t *hp, record_reader *r, krv_cie_t *ciep)
{
    const char *letters = ciep->scie_augmentation_string;
    if (letters[0] == '\0')
        return true; // KRV_AUG_NONE
    auto *augp = &reinterpret_cast<krv_eh_cie *>(ciep)->augmentation;
    ciep->scie_augmentation_data = augp;
    ciep->scie_augmentation_type = KRV_AUG_AMD64;
    if (letters[0] != 'z') {
        krv_fail(hp, KRV_ERR_CORRUPT, "augmentation string starts with illegal character");
        return false;
    }
    uint64_t size = 0;
    if (!krv_read_field(&r->fd, DW_FORM_udata, &size, "failed to read augmentation section size"))
        return false;
    if (size > r->fd.sfd_remaining) {
        krv_fail(hp, KRV_ERR_CORRUPT, "illegal augmentation length");
        return false;
    }
    if (krv_reads_as_written(hp)) {
        krv_fd_t data = r->fd;
        data.sfd_remaining = size;
        krv_fd_advance(&r->fd, size);
        return read_written_letters(hp, data, ciep, augp);
    }
    for (const char *letter = letters + 1; *letter != '\0'; ++letter)
        if (!read_letter(hp, *letter, r, augp))
            return false;
    return true;
}

// Version 3 differs from version 1 in the return-address register's encoding alone.
static bool is_version(const krv_handle_t *hp, uint16_t version)
{
    return version == 1 || (version == 3 && krv_reads_as_written(hp));
}

// Numbers the decodings of CIEs.
static uint64_t next_decoding()
{
    static uint64_t last = 0;
    return __atomic_add_fetch(&last, 1, __ATOMIC_RELAXED);
}

// Flat, as is krv_eh_frame_gfbo: with the forms known, a field is a few instructions.
[[gnu::flatten]] static bool read_cie(krv_handle_t *hp, krv_cie_t *ciep, uint64_t eh_frame, uint64_t address)
{
    record_reader r;
    ciep->scie_fd = krv_eh_address_space(hp);
    const bool entered = enter_record(&r, hp, &ciep->scie_window, eh_frame, address);
    ciep->scie_length = r.length;
    ciep->scie_section_length = r.length + EH_LENGTH_SIZE;
    if (!entered || !krv_read_field(&r.fd, DW_FORM_data4, &ciep->scie_id, "failed to read CIE id"))
        return false;
    if (ciep->scie_id != 0) {
        krv_fail(hp, KRV_ERR_CORRUPT, "illegal CIE id (0x%lx)", static_cast<unsigned long>(ciep->scie_id));
        return false;
    }
    if (!krv_read_field(&r.fd, DW_FORM_data1, &ciep->scie_version, "failed to read Version"))
        return false;
    if (!is_version(hp, ciep->scie_version)) {
        krv_fail(hp, KRV_ERR_CORRUPT, "illegal Version (%hhd)", static_cast<signed char>(ciep->scie_version));
        return false;
    }
    if (!krv_read_field(&r.fd, DW_FORM_string, &ciep->scie_augmentation_string, "failed to read augmentation") ||
        !krv_read_field(&r.fd, DW_FORM_udata, &ciep->scie_code_alignment_factor, "failed to read Code Align Factor") ||
        !krv_read_field(&r.fd, DW_FORM_sdata, &ciep->scie_data_alignment_factor, "failed to read Data Align Factor") ||
        !krv_read_field(&r.fd, DW_FORM_udata, &ciep->scie_return_address_register, "failed to read Ret Address Reg") ||
        !read_cie_augmentation(hp, &r, ciep))
        return false;
    ciep->scie_augmentation = &krv_eh_frame_augmentation;
    ciep->scie_cfi_offset = r.address();
    ciep->scie_cfi_size = r.fd.sfd_remaining;
    ciep->scie_sec = KRV_SEC_EH_FRAME;
    if (r.origin != 0)
        ciep->scie_decoding = next_decoding();
    return true;
}

static bool cie_failed(krv_handle_t *hp, uint64_t address)
{
    krv_note(hp, "failed to read CIE at address 0x%lx in .eh_frame", static_cast<unsigned long>(address));
    return false;
}

static krv_cie_t *krv_eh_frame_gcbo(krv_handle_t *hp, krv_reader_t *reader, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(reader != NULL);
    const uint64_t eh_frame = reader_data(reader)->sefh_eh_frame;
    krv_owner<krv_eh_cie> record(krv_new<krv_eh_cie>(hp));
    if (record != nullptr && read_cie(hp, &record->cie, eh_frame, eh_frame + offset))
        return &record.release()->cie;
    cie_failed(hp, eh_frame + offset);
    return nullptr;
}

// Reads a record afresh, in one call, since its length is expected to be the same; whether it is byte for byte the one
// that `known` was decoded from. What read_bulk says of a lost call is left in `lost`.
static inline bool is_unchanged(const krv_eh_cie *known, const krv_fd_t *as, uint64_t address, krv_window_t *lost)
{
    const krv_window_t *window = &known->cie.scie_window; // all but the length field
    if (known->cie.scie_decoding == 0 || known->address != address)
        return false;
    uint8_t fresh[EH_LENGTH_SIZE + sizeof(window->sw_bytes)];
    if (!read_bulk(as, fresh, EH_LENGTH_SIZE + static_cast<size_t>(window->sw_size), address, lost))
        return false;
    uint32_t length;
    std::memcpy(&length, fresh, sizeof(length));
    return length == known->cie.scie_length &&
           std::memcmp(fresh + EH_LENGTH_SIZE, window->sw_bytes, static_cast<size_t>(window->sw_size)) == 0;
}

// Where a CIE at an address is kept, or would be. NULL: there is no room.
static inline krv_eh_cie **find_kept(krv_eh_frame_reader_data *data, uint64_t address)
{
    for (krv_eh_cie *&slot : data->sefh_cies) {
        const krv_eh_cie *kept = krv_load(&slot);
        if (kept == nullptr || kept->address == address)
            return &slot;
    }
    return nullptr;
}

// Keeps a copy of a CIE that was just decoded; where there is no memory, none.
static void keep_cie(krv_handle_t *hp, const krv_eh_cie *decoded, krv_eh_cie **slot)
{
    krv_owner<krv_eh_cie> fresh(krv_new<krv_eh_cie>(hp));
    if (fresh == nullptr)
        return krv_clear_error(hp);
    *fresh = *decoded;
    if (fresh->cie.scie_augmentation_data != nullptr)
        fresh->cie.scie_augmentation_data = &fresh->augmentation;
    fresh->cie.scie_is_kept = true;
    krv_publish(slot, fresh.release(), krv_free);
}

// Decodes a CIE, and keeps it if `slot` has room for it.
[[gnu::noinline]] static bool decode_parent(krv_handle_t *hp, krv_eh_frame_reader_data *data, krv_eh_fde *record,
                                            uint64_t address, krv_eh_cie **slot)
{
    krv_eh_cie *parent = &record->parent;
    krv_window_t *window = &parent->cie.scie_window;
    const bool lost = window->sw_lost;
    *parent = {};
    parent->is_owned = true;
    parent->address = address;
    window->sw_lost = lost;
    if (!read_cie(hp, &parent->cie, data->sefh_eh_frame, address)) {
        cie_failed(hp, address);
        krv_note(hp, "couldn't get parent CIE");
        return false;
    }
    if (slot != nullptr && krv_load(slot) == nullptr && parent->cie.scie_decoding != 0 && hp->sh_budget == nullptr)
        keep_cie(hp, parent, slot);
    record->fde.sfde_cie = &parent->cie;
    return true;
}

// Most CIEs were decoded before, which spares their decoding.
static inline bool read_parent(krv_handle_t *hp, krv_eh_frame_reader_data *data, krv_eh_fde *record, uint64_t address)
{
    krv_eh_cie **slot = find_kept(data, address);
    krv_eh_cie *kept = slot == nullptr ? nullptr : krv_load(slot);
    if (kept == nullptr || !is_unchanged(kept, &hp->sh_as, address, &record->parent.cie.scie_window))
        return decode_parent(hp, data, record, address, slot);
    record->fde.sfde_cie = &kept->cie;
    return true;
}

// pc_begin and pc_range. The range has the format of the address, and no base.
static bool read_extent(record_reader *r, uint8_t encoding, krv_fde_t *fdep)
{
    if (!read_pointer(&r->fd, r->origin, encoding, r->eh_frame, &fdep->sfde_target_address,
                      "failed to read target address"))
        return false;
    if (decode_pointer(&r->fd, encoding & EH_FORMAT, 0, 0, &fdep->sfde_address_range) == 0)
        return true;
    krv_note(r->fd.sfd_hp, "failed to read address range");
    return false;
}

static bool read_fde_augmentation(krv_handle_t *hp, record_reader *r, const krv_amd64_cie_augmentation *cie_augp,
                                  krv_fde_t *fdep)
{
    uint64_t size = 0;
    if (!krv_read_field(&r->fd, DW_FORM_udata, &size, "failed to read augmentation section size"))
        return false;
    if (size > r->fd.sfd_remaining) {
        krv_fail(hp, KRV_ERR_CORRUPT,
                 "length of remaining augmentation section (%lu) exceeds length of remaining FDE (%lu)",
                 static_cast<unsigned long>(size), static_cast<unsigned long>(r->fd.sfd_remaining));
        return false;
    }
    auto *augp = &reinterpret_cast<krv_eh_fde *>(fdep)->augmentation;
    fdep->sfde_augmentation_data = augp;
    if (size != 0 && krv_reads_as_written(hp))
        return step_over(&r->fd, size);
    return size == 0 || read_pointer(&r->fd, r->origin, static_cast<uint8_t>(cie_augp->scie_le), r->eh_frame,
                                     &augp->safa_ldsa, "failed to read LDSA");
}

// The twin of these two for the commonest encoding, in a record that is held. False: not that case, and nothing has moved.
static bool scan_extent(krv_handle_t *hp, record_reader *r, uint8_t encoding, krv_fde_t *fdep)
{
    constexpr uint64_t EXTENT = 2 * sizeof(int32_t);
    const uint64_t remaining = r->fd.sfd_remaining;
    if (r->origin == 0 || encoding != (DW_EH_PE_pcrel | DW_EH_PE_sdata4) || remaining <= EXTENT)
        return false;
    const uint8_t *bytes = r->fd.sfd_u.buf + r->fd.sfd_offset;
    const uint8_t size = bytes[EXTENT]; // of the augmentation data
    if (size > 0x7f || size > remaining - EXTENT - 1 || (size != 0 && !krv_reads_as_written(hp)))
        return false;
    int32_t fields[2];
    std::memcpy(fields, bytes, EXTENT);
    fdep->sfde_target_address = r->address() + static_cast<uint64_t>(int64_t{fields[0]});
    fdep->sfde_address_range = static_cast<uint64_t>(int64_t{fields[1]});
    fdep->sfde_augmentation_data = &reinterpret_cast<krv_eh_fde *>(fdep)->augmentation;
    krv_fd_advance(&r->fd, EXTENT + 1 + size);
    return true;
}

static inline bool read_fde(krv_handle_t *hp, krv_eh_frame_reader_data *data, krv_eh_fde *record, uint64_t offset)
{
    const uint64_t eh_frame = data->sefh_eh_frame;
    krv_fde_t *fdep = &record->fde;
    record_reader r;
    krv_relaxed<uint8_t> &words = data->words_at(offset);
    const uint8_t likely = words;
    const bool entered = enter_record(&r, hp, &fdep->sfde_window, eh_frame, eh_frame + offset, EH_LENGTH_SIZE * likely);
    const uint64_t size = r.length + EH_LENGTH_SIZE;
    if (size != uint64_t{EH_LENGTH_SIZE} * likely && size % EH_LENGTH_SIZE == 0 && size / EH_LENGTH_SIZE <= UINT8_MAX)
        words = static_cast<uint8_t>(size / EH_LENGTH_SIZE);
    fdep->sfde_length = r.length;
    fdep->sfde_section_length = r.length + EH_LENGTH_SIZE;
    if (!entered || !krv_read_field(&r.fd, DW_FORM_data4, &fdep->sfde_pointer, "failed to read CIE pointer"))
        return false;
    if (fdep->sfde_pointer == 0) {
        krv_fail(hp, KRV_ERR_CORRUPT, "illegal CIE pointer (0)");
        return false;
    }
    fdep->sfde_cie_offset = offset + EH_LENGTH_SIZE - fdep->sfde_pointer;
    if (!read_parent(hp, data, record, eh_frame + fdep->sfde_cie_offset))
        return false;
    switch (fdep->sfde_cie->scie_augmentation_type) {
    case KRV_AUG_NONE:
        if (!read_extent(&r, krv_reads_as_written(hp) ? DW_EH_PE_absptr : DW_EH_PE_udata8, fdep))
            return false;
        break;
    case KRV_AUG_AMD64: {
        const auto *cie_augp = static_cast<krv_amd64_cie_augmentation *>(fdep->sfde_cie->scie_augmentation_data);
        if (!scan_extent(hp, &r, cie_augp->scie_re, fdep) &&
            (!read_extent(&r, cie_augp->scie_re, fdep) || !read_fde_augmentation(hp, &r, cie_augp, fdep)))
            return false;
        break;
    }
    default:
        krv_fail(hp, KRV_ERR_INVALID, "parent CIE has unknown augmentation type");
        return false;
    }
    fdep->sfde_cfi_offset = r.address();
    fdep->sfde_cfi_size = r.fd.sfd_remaining;
    return true;
}

// A record to be filled.
static krv_eh_fde *take_record(krv_handle_t *hp, krv_fde_room *room)
{
    if (room == nullptr)
        return krv_new<krv_eh_fde>(hp);
    auto *record = new (room->bytes) krv_eh_fde;
    record->fde.sfde_segment_selector = 0;
    record->fde.sfde_cie = nullptr;
    record->fde.sfde_augmentation_data = nullptr;
    record->fde.sfde_is_lent = true;
    record->augmentation = {};
    return record;
}

static void krv_eh_frame_cie_free(krv_cie_t *ciep)
{
    KRV_ASSERT(ciep->scie_augmentation_type == (ciep->scie_augmentation_data != NULL ? KRV_AUG_AMD64 : KRV_AUG_NONE));
    if (!reinterpret_cast<krv_eh_cie *>(ciep)->is_owned)
        krv_free(ciep); // with its augmentation data
}

// The record that is lent belongs to its caller.
static void krv_eh_frame_fde_free(krv_fde_t *fdep)
{
    if (!fdep->sfde_is_lent)
        krv_free(fdep);
}

namespace
{

struct fde_deleter {
    void operator()(krv_fde_t *fdep) const { krv_eh_frame_fde_free(fdep); }
};

} // namespace

[[gnu::flatten]] static krv_fde_t *krv_eh_frame_gfbo(krv_handle_t *hp, krv_reader_t *reader, uint64_t offset,
                                                     krv_fde_room *room)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(reader != NULL);
    krv_eh_frame_reader_data *data = reader_data(reader);
    krv_eh_fde *record = take_record(hp, room);
    std::unique_ptr<krv_fde_t, fde_deleter> fdep(record == nullptr ? nullptr : &record->fde);
    if (fdep != nullptr && read_fde(hp, data, record, offset))
        return fdep.release();
    krv_note(hp, "failed to read FDE at address 0x%lx in .eh_frame",
             static_cast<unsigned long>(data->sefh_eh_frame + offset));
    return nullptr;
}

// What is no record but has a length is left to strict readers: a CIE has id 0, an FDE a CIE before it.
static int krv_eh_frame_step_over(krv_handle_t *hp, krv_reader_t *reader, uint64_t offset, uint64_t *sizep)
{
    constexpr uint64_t LONGEST = 1 << 24;
    krv_fd_t fd = krv_eh_address_space(hp);
    uint64_t length = 0, pointer = 0;
    if (krv_fd_seek(&fd, reader_data(reader)->sefh_eh_frame + offset) != 0 ||
        krv_decode(&fd, DW_FORM_data4, &length) != 0 || krv_decode(&fd, DW_FORM_data4, &pointer) != 0 ||
        length < EH_LENGTH_SIZE || length > LONGEST || pointer > offset + EH_LENGTH_SIZE)
        return -1;
    *sizep = EH_LENGTH_SIZE + length;
    return 0;
}

static void krv_eh_frame_destroy_reader(krv_reader_t *reader)
{
    for (krv_eh_cie *kept : reader_data(reader)->sefh_cies)
        krv_free(kept);
    krv_free(reader_data(reader)->sefh_guide);
    krv_free(reader->sr_data);
    krv_free(reader);
}

static const krv_reader_ops_t krv_eh_frame_reader_ops = {
    .sro_gcbo = krv_eh_frame_gcbo,
    .sro_gfbo = krv_eh_frame_gfbo,
    .sro_gfoba = krv_eh_frame_gfoba,
    .sro_cie_free = krv_eh_frame_cie_free,
    .sro_fde_free = krv_eh_frame_fde_free,
    .sro_destroy_reader = krv_eh_frame_destroy_reader,
    .sro_step_over = krv_eh_frame_step_over,
    .sro_section = KRV_SEC_EH_FRAME,
};

krv_reader_t *krv_eh_frame_create_reader(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    const krv_opt_t *eh_frame = &hp->sh_opts[KRV_OPT_EH_FRAME_ADDR];
    if (eh_frame->sopt_set != B_TRUE) {
        krv_fail(hp, KRV_ERR_INVALID, ".eh_frame load address not set");
        return nullptr;
    }
    krv_owner<krv_reader_t> reader(krv_new<krv_reader_t>(hp));
    krv_owner<krv_eh_frame_reader_data> data(krv_new<krv_eh_frame_reader_data>(hp));
    if (reader == nullptr || data == nullptr)
        return nullptr;
    data->sefh_eh_frame = eh_frame->sopt_u.o_uint64;
    reader->sr_ops = &krv_eh_frame_reader_ops;
    reader->sr_data = data.release();
    return reader.release();
}
