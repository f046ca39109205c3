// SPDX-License-Identifier: Apache-2.0
//
// The handle's frame reader, the linear address table over all FDEs of its section, the search for the FDE of an
// address, and the decoding of one call-frame instruction (DWARF 4, 6.4.2).
#include "krv_frame.h"

#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_mem.h"

#include <array>
#include <cstdlib>

namespace
{

struct cfa_desc {
    unsigned int version; // 0 for an undefined instruction, which decodes without operands
    krv_form_t form[2];   // 0 for no operand
};

// Instructions that carry an operand in the low six bits have their rows behind those of the plain opcodes.
constexpr uint8_t CFA_LAST_PLAIN = DW_CFA_VESK_arg_loc;
constexpr size_t CFA_ROWS = CFA_LAST_PLAIN + 4;

constexpr size_t cfa_row(uint8_t opcode)
{
    return opcode <= CFA_LAST_PLAIN ? opcode : size_t{CFA_LAST_PLAIN} + (opcode >> 6);
}

} // namespace

// The block of an expression is not an operand here: who executes the instruction reads or skips it.
static consteval std::array<cfa_desc, CFA_ROWS> make_opdesc()
{
    std::array<cfa_desc, CFA_ROWS> t{};
    t[DW_CFA_nop] = {1, {0, 0}};
    t[DW_CFA_set_loc] = {1, {DW_FORM_addr, 0}};
    t[DW_CFA_advance_loc1] = {1, {DW_FORM_data1, 0}};
    t[DW_CFA_advance_loc2] = {1, {DW_FORM_data2, 0}};
    t[DW_CFA_advance_loc4] = {1, {DW_FORM_data4, 0}};
    t[DW_CFA_offset_extended] = {1, {DW_FORM_udata, DW_FORM_udata}};
    t[DW_CFA_restore_extended] = {1, {DW_FORM_udata, 0}};
    t[DW_CFA_undefined] = {1, {DW_FORM_udata, 0}};
    t[DW_CFA_same_value] = {1, {DW_FORM_udata, 0}};
    t[DW_CFA_register] = {1, {DW_FORM_udata, DW_FORM_udata}};
    t[DW_CFA_remember_state] = {1, {0, 0}};
    t[DW_CFA_restore_state] = {1, {0, 0}};
    t[DW_CFA_def_cfa] = {1, {DW_FORM_udata, DW_FORM_udata}};
    t[DW_CFA_def_cfa_register] = {1, {DW_FORM_udata, 0}};
    t[DW_CFA_def_cfa_offset] = {1, {DW_FORM_udata, 0}};
    t[DW_CFA_def_cfa_expression] = {1, {0, 0}};
    t[DW_CFA_expression] = {1, {DW_FORM_udata, 0}};
    t[DW_CFA_offset_extended_sf] = {1, {DW_FORM_udata, DW_FORM_sdata}};
    t[DW_CFA_def_cfa_sf] = {1, {DW_FORM_udata, DW_FORM_sdata}};
    t[DW_CFA_def_cfa_offset_sf] = {1, {DW_FORM_sdata, 0}};
    t[DW_CFA_val_offset] = {1, {DW_FORM_udata, DW_FORM_udata}};
    t[DW_CFA_val_offset_sf] = {1, {DW_FORM_udata, DW_FORM_sdata}};
    t[DW_CFA_val_expression] = {1, {DW_FORM_udata, 0}};
    t[DW_CFA_GNU_window_save] = {1, {0, 0}};
    t[DW_CFA_VESK_arg_loc] = {1, {DW_FORM_udata, 0}};
    t[cfa_row(DW_CFA_advance_loc)] = {1, {0, 0}};
    t[cfa_row(DW_CFA_offset)] = {1, {0, DW_FORM_udata}};
    t[cfa_row(DW_CFA_restore)] = {1, {0, 0}};
    return t;
}
static constexpr auto opdesc = make_opdesc();
static_assert(opdesc.size() == 52 && cfa_row(DW_CFA_advance_loc) == 0x31 && cfa_row(DW_CFA_restore) == 0x33);

namespace
{

struct linear_deleter {
    void operator()(krv_linear_t *lt) const
    {
        krv_free(lt->sl_table);
        krv_free(lt);
    }
};
using linear_owner = std::unique_ptr<krv_linear_t, linear_deleter>;

// What an index says of an address.
struct index_entry {
    uint64_t start;  // first address of the FDE
    uint64_t offset; // of the FDE
    uint64_t next;   // first address of the next one, or start
};

} // namespace

krv_reader_t *krv_create_reader(krv_handle_t *hp)
{
    static krv_reader_t *(*const creators[])(krv_handle_t *) = {
        krv_debug_frame_create_reader,
        krv_eh_frame_create_reader,
        krv_no_frame_create_reader,
    };
    krv_reader_t *fresh = nullptr;
    for (auto *create : creators) {
        fresh = create(hp);
        if (fresh != nullptr)
            break;
    }
    if (fresh == nullptr)
        return nullptr;
    void *kept = krv_publish(&hp->sh_frame_reader, static_cast<void *>(fresh),
                             [fresh](void *) { fresh->sr_ops->sro_destroy_reader(fresh); });
    return static_cast<krv_reader_t *>(kept);
}

void krv_destroy_reader(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    auto *reader = static_cast<krv_reader_t *>(hp->sh_frame_reader);
    if (reader == nullptr)
        return;
    if (reader->sr_lt != nullptr)
        linear_deleter()(reader->sr_lt);
    reader->sr_ops->sro_destroy_reader(reader);
    hp->sh_frame_reader = nullptr;
}

static krv_reader_t *need_reader(krv_handle_t *hp)
{
    krv_reader_t *reader = krv_get_reader(hp);
    if (reader == nullptr)
        krv_note(hp, "no frame reader available for this handle");
    return reader;
}

krv_cie_t *krv_get_cie_by_offset(krv_handle_t *hp, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    krv_reader_t *reader = need_reader(hp);
    return reader == nullptr ? nullptr : reader->sr_ops->sro_gcbo(hp, reader, offset);
}

krv_fde_t *krv_get_fde_by_offset(krv_handle_t *hp, uint64_t offset)
{
    KRV_ASSERT(hp != NULL);
    krv_reader_t *reader = need_reader(hp);
    return reader == nullptr ? nullptr : reader->sr_ops->sro_gfbo(hp, reader, offset);
}

void krv_cie_free(krv_handle_t *hp, krv_cie_t *ciep)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(ciep != NULL);
    krv_reader_t *reader = krv_get_reader(hp);
    KRV_ASSERT(reader != NULL); // it has read the record
    reader->sr_ops->sro_cie_free(ciep);
}

void krv_fde_free(krv_handle_t *hp, krv_fde_t *fdep)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdep != NULL);
    krv_reader_t *reader = krv_get_reader(hp);
    KRV_ASSERT(reader != NULL);
    if (fdep->sfde_cie != nullptr) // an FDE whose reading failed may not have come that far
        reader->sr_ops->sro_cie_free(fdep->sfde_cie);
    reader->sr_ops->sro_fde_free(fdep);
}

int krv_fde_compar(const void *a, const void *b)
{
    const uint64_t left = static_cast<const krv_lie_t *>(a)->sle_start;
    const uint64_t right = static_cast<const krv_lie_t *>(b)->sle_start;
    return left < right ? -1 : left > right;
}

// Reads the record at `offset` and gives its size; an FDE goes into the table. -1 when there is no record.
static int walk_record(krv_handle_t *hp, krv_linear_t *lt, uint64_t offset, uint64_t *sizep)
{
    const krv_cie_owner ciep(krv_get_cie_by_offset(hp, offset), {hp});
    if (ciep != nullptr) {
        *sizep = ciep->scie_section_length;
        return 0;
    }
    if (hp->sh_errno == KRV_ERR_NOMEM) // says nothing about what is there
        return -1;
    const krv_fde_owner fdep(krv_get_fde_by_offset(hp, offset), {hp});
    if (fdep == nullptr)
        return -1;
    if (!krv_table_grow(hp, &lt->sl_table, &lt->sl_table_size, lt->sl_table_entries, uint64_t{1}))
        return -1;
    lt->sl_table[lt->sl_table_entries++] = {fdep->sfde_target_address, offset};
    *sizep = fdep->sfde_section_length;
    return 0;
}

// The walk ends at what is neither CIE nor FDE. It also ends where a record's size does not lead forward, and after as
// many records as the search's 32-bit indices can tell apart, so that no memory, and no read call-back that invents
// records for ever, keeps it going.
static krv_linear_t *build_linear_table(krv_handle_t *hp)
{
    linear_owner lt(krv_new<krv_linear_t>(hp));
    if (lt == nullptr)
        return nullptr;
    uint64_t offset = 0, size = 0;
    for (int32_t records = 0; records < INT32_MAX && walk_record(hp, lt.get(), offset, &size) == 0; ++records) {
        if (size == 0 || size > UINT64_MAX - offset)
            break;
        offset += size;
    }
    if (hp->sh_errno == KRV_ERR_NOMEM) // a table without the FDEs behind would be kept
        return nullptr;
    if (lt->sl_table_entries == 0) {
        if (hp->sh_errno == KRV_ERR_NONE)
            hp->sh_errno = KRV_ERR_NOTFOUND; // the last read did not fail
        return nullptr;
    }
    if (!krv_table_trim(hp, &lt->sl_table, &lt->sl_table_size, lt->sl_table_entries))
        return nullptr;
    std::qsort(lt->sl_table, static_cast<size_t>(lt->sl_table_entries), sizeof(krv_lie_t), krv_fde_compar);
    return lt.release();
}

static krv_linear_t *get_linear_table(krv_handle_t *hp, krv_reader_t *reader)
{
    if (krv_linear_t *known = krv_load(&reader->sr_lt))
        return known;
    krv_linear_t *fresh = build_linear_table(hp);
    return fresh == nullptr ? nullptr : krv_publish(&reader->sr_lt, fresh, linear_deleter());
}

static int search_linear_table(krv_handle_t *hp, const krv_linear_t *lt, uint64_t address, index_entry *entry)
{
    const krv_lie_t *table = lt->sl_table;
    int32_t lo = 0, hi = static_cast<int32_t>(lt->sl_table_entries) - 1; // the walk found no more than fit
    while (lo <= hi) {
        const int32_t mid = lo + (hi - lo) / 2;
        const uint64_t start = table[mid].sle_start;
        if (address < start) {
            hi = mid - 1;
            continue;
        }
        const uint64_t next = mid == hi ? start : table[mid + 1].sle_start;
        if (mid == hi || address < next) {
            *entry = {start, table[mid].sle_offset, next};
            return 0;
        }
        lo = mid + 1;
    }
    return krv_fail_code(hp, KRV_ERR_NOTFOUND);
}

static inline int find_entry(krv_handle_t *hp, krv_reader_t *reader, uint64_t address, bool force, index_entry *entry)
{
    const krv_linear_t *lt = krv_load(&reader->sr_lt);
    if (lt == nullptr && !force) {
        if (reader->sr_ops->sro_gfoba(hp, reader, address, &entry->start, &entry->offset, &entry->next) == 0)
            return 0;
        if (hp->sh_errno != KRV_ERR_UNSUPPORTED)
            return -1;
    }
    if (lt == nullptr)
        lt = get_linear_table(hp, reader);
    return lt == nullptr ? -1 : search_linear_table(hp, lt, address, entry);
}

int krv_get_fde_offset_by_address(krv_handle_t *hp, uint64_t address, boolean_t force, uint64_t *taddrp,
                                  uint64_t *toffp, uint64_t *naddrp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(taddrp != NULL);
    KRV_ASSERT(toffp != NULL);
    KRV_ASSERT(naddrp != NULL);
    krv_reader_t *reader = need_reader(hp);
    index_entry entry = {};
    if (reader == nullptr || find_entry(hp, reader, address, force != B_FALSE, &entry) != 0)
        return -1;
    *taddrp = entry.start;
    *toffp = entry.offset;
    *naddrp = entry.next;
    return 0;
}

// Last address of an FDE; for an empty one the address before it, modulo 2^64.
static uint64_t last_address(const krv_fde_t *fdep)
{
    return fdep->sfde_target_address + fdep->sfde_address_range - 1;
}

static bool is_consistent(const index_entry *entry, const krv_fde_t *fdep)
{
    return fdep->sfde_target_address == entry->start &&
           (entry->next == entry->start || last_address(fdep) < entry->next);
}

// The address is not below the FDE. The second condition is for the empty FDE at 0, whose last address is no address
// of its own.
static bool covers(const krv_fde_t *fdep, uint64_t address)
{
    return address <= last_address(fdep) && address - fdep->sfde_target_address < fdep->sfde_address_range;
}

static void note_inconsistency(krv_handle_t *hp, uint64_t address, const index_entry *entry, const krv_fde_t *fdep)
{
    krv_note(hp,
             "BST entry found for address 0x%lx is { address = 0x%lx, offset = 0x%lx } (next address is 0x%lx) but "
             "FDE covers range 0x%lx..0x%lx",
             static_cast<unsigned long>(address), static_cast<unsigned long>(entry->start),
             static_cast<unsigned long>(entry->offset), static_cast<unsigned long>(entry->next),
             static_cast<unsigned long>(fdep->sfde_target_address), static_cast<unsigned long>(last_address(fdep)));
}

// A reader's index that disagrees with the FDEs is bypassed once, in favour of the linear table.
krv_fde_t *krv_get_fde_by_address(krv_handle_t *hp, uint64_t address)
{
    KRV_ASSERT(hp != NULL);
    krv_reader_t *reader = need_reader(hp);
    if (reader == nullptr)
        return nullptr;
    for (const bool forced : {false, true}) {
        index_entry entry = {};
        if (find_entry(hp, reader, address, forced, &entry) != 0)
            return nullptr;
        krv_fde_owner fdep(reader->sr_ops->sro_gfbo(hp, reader, entry.offset), {hp});
        if (fdep == nullptr)
            return nullptr;
        if (is_consistent(&entry, fdep.get())) {
            if (covers(fdep.get(), address))
                return fdep.release();
            krv_fail_code(hp, KRV_ERR_NOTFOUND);
            return nullptr;
        }
        note_inconsistency(hp, address, &entry, fdep.get());
        if (!forced)
            krv_note(hp, "forcing BST regeneration");
    }
    krv_fail(hp, KRV_ERR_CORRUPT, "giving up");
    return nullptr;
}

static consteval uint8_t shape_of(uint8_t opcode)
{
    switch (opcode) {
    case DW_CFA_def_cfa_expression: // an expression follows, which has to be read from the cursor
    case DW_CFA_expression:
    case DW_CFA_val_expression:
    case DW_CFA_VESK_arg_loc:
        return KRV_CFA_OTHER;
    default:
        break;
    }
    if (opcode > CFA_LAST_PLAIN && (opcode & KRV_CFA_PACKED) == 0)
        return KRV_CFA_OTHER;
    const krv_form_t first = opdesc[cfa_row(opcode)].form[0], second = opdesc[cfa_row(opcode)].form[1];
    if (second == 0)
        return first == 0               ? KRV_CFA_PLAIN
               : first == DW_FORM_udata ? KRV_CFA_ULEB
               : first == DW_FORM_data1 ? KRV_CFA_BYTE
                                        : KRV_CFA_OTHER;
    if (second != DW_FORM_udata || (first != 0 && first != DW_FORM_udata))
        return KRV_CFA_OTHER;
    return first == 0 ? KRV_CFA_ULEB : KRV_CFA_ULEBS;
}

static consteval std::array<uint8_t, 256> make_shapes()
{
    std::array<uint8_t, 256> t{};
    for (size_t opcode = 0; opcode < t.size(); ++opcode)
        t[opcode] = shape_of(static_cast<uint8_t>(opcode));
    return t;
}
constexpr std::array<uint8_t, 256> krv_cfa_shapes = make_shapes();

int krv_frame_get_next_op(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_augmentation_t *augp,
                          void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(fdp != NULL);
    KRV_ASSERT(op != NULL);
    KRV_ASSERT(augp != NULL);
    return augp->sa_ops->sao_gno(hp, fdp, op, arg);
}

static int get_cfa_forms(krv_handle_t *hp, uint8_t opcode, krv_form_t formsp[2])
{
    if (opcode > CFA_LAST_PLAIN && (opcode & KRV_CFA_PACKED) == 0)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "unknown instruction 0x%hhx", opcode);
    const cfa_desc *desc = &opdesc[cfa_row(opcode)];
    formsp[0] = desc->form[0];
    formsp[1] = desc->form[1];
    return 0;
}

int krv_get_cfa_forms(krv_handle_t *hp, uint8_t opcode, krv_form_t formsp[2])
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(formsp != NULL);
    return get_cfa_forms(hp, opcode, formsp);
}

int krv_frame_read_opcode(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, krv_form_t formsp[2])
{
    *op = {};
    if (!krv_read_field(fdp, DW_FORM_data1, &op->opcode, "unable to decode instruction") ||
        get_cfa_forms(hp, op->opcode, formsp) != 0)
        return -1;
    if ((op->opcode & KRV_CFA_PACKED) != 0) {
        op->operand[0].sa_u.su_unsigned = op->opcode & KRV_CFA_OPERAND;
        op->opcode &= KRV_CFA_PACKED;
    }
    return 0;
}

int krv_frame_read_operands(krv_handle_t *hp, krv_fd_t *fdp, krv_operation_t *op, const krv_form_t formsp[2])
{
    for (int i = 0; i < 2; ++i) {
        uint64_t *valuep = &op->operand[i].sa_u.su_unsigned;
        if (formsp[i] != 0 && krv_decode(fdp, formsp[i], valuep) != 0)
            return krv_note(hp, "failed to read operand %d", i);
    }
    return 0;
}
