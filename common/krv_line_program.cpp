// SPDX-License-Identifier: Apache-2.0
//
// Execution of a line-number program (DWARF 4, 6.2.5) into a matrix: decode an opcode with its operands, apply it to
// the registers, show it to the client. When the bytes end, the sequences are checked and the rows get their canonical
// addresses. The cached matrix and the client's walk share this one road.
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_line.h"
#include "krv_mem.h"
#include "krv_names.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>

// Capacity of a table's rows, which doubles: a row takes four bytes of program or more, as compilers write them.
constexpr unsigned int FIRST_ROWS = 4, MOST_FIRST_ROWS = 4096;
constexpr uint64_t BYTES_A_ROW = 4;

namespace
{

constexpr unsigned NVALUES = 10;

// One opcode as it stands in the program.
struct line_op {
    enum class kind { special, standard, extended } what;
    uint64_t offset;  // of its first byte in .debug_line
    uint8_t opcode;   // that byte: 0 for every extended opcode
    uint64_t number;  // the opcode, or the extended opcode
    uint64_t operand; // the one operand of most opcodes; directory index of DW_LNE_define_file
    uint64_t mtime;   // DW_LNE_define_file
    uint64_t size;    // likewise
};

struct matrix_deleter {
    void operator()(krv_lnp_t *lnpp) const { krv_line_free_program(lnpp); }
};
using matrix_owner = std::unique_ptr<krv_lnp_t, matrix_deleter>;

struct line_machine {
    krv_handle_t *hp;
    krv_lnph_t *lnphp;
    krv_lnp_t *lnpp;
    krv_fd_t fd;
    unsigned int nvalues; // of the opcode at hand
    krv_value_t values[NVALUES];
    krv_value_t *valueps[NVALUES];
    char path[KRV_STRING_BUFSZ]; // DW_LNE_define_file

    krv_lns_t *regs() { return &lnpp->slnp_current; }
};

} // namespace

// ---------------------------------------------------------------------------------------------------------------
// Matrix
// ---------------------------------------------------------------------------------------------------------------

krv_lnp_t *krv_line_alloc_program(krv_handle_t *hp)
{
    KRV_ASSERT(hp != NULL);
    return krv_new<krv_lnp_t>(hp);
}

void krv_line_free_program(krv_lnp_t *lnpp)
{
    KRV_ASSERT(lnpp != NULL);
    krv_free(lnpp->slnp_lnsp);
    if (lnpp->slnp_lnbp != &lnpp->slnp_first_lnb)
        krv_free(lnpp->slnp_lnbp);
    krv_free(lnpp);
}

void krv_lns_init(krv_lnph_t *lnphp, krv_lns_t *lnsp)
{
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(lnsp != NULL);
    *lnsp = {};
    lnsp->slns_file = 1;
    lnsp->slns_line = 1;
    lnsp->slns_flags = lnphp->sln_default_is_stmt == 1 ? uint32_t{KRV_LNS_FLAG_IS} : 0;
}

static krv_lnfe_t *find_file(krv_lnph_t *lnphp, unsigned int number)
{
    uint64_t count;
    krv_lnfe_t **files = krv_lnph_files(lnphp, &count);
    return number == 0 || number > count ? nullptr : files[number - 1];
}

static bool grow_sequences(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    if (lnpp->slnp_lnbp_size == 0) {
        lnpp->slnp_lnbp = &lnpp->slnp_first_lnb;
        lnpp->slnp_lnbp_size = 1;
        return true;
    }
    if (lnpp->slnp_lnbp != &lnpp->slnp_first_lnb)
        return krv_table_grow(hp, &lnpp->slnp_lnbp, &lnpp->slnp_lnbp_size, lnpp->slnp_lnbp_entries, 2U);
    krv_lnb_t *two = static_cast<krv_lnb_t *>(krv_alloc(hp, 2 * sizeof(krv_lnb_t)));
    if (two == nullptr)
        return false;
    two[0] = lnpp->slnp_first_lnb;
    lnpp->slnp_lnbp = two;
    lnpp->slnp_lnbp_size = 2;
    return true;
}

static bool open_sequence(krv_handle_t *hp, krv_lnp_t *lnpp, uint64_t address)
{
    if (!grow_sequences(hp, lnpp))
        return false;
    krv_lnb_t *next = &lnpp->slnp_lnbp[lnpp->slnp_lnbp_entries];
    next->slnb_start_index = lnpp->slnp_lnsp_entries;
    next->slnb_start_addr = address;
    if (lnpp->slnp_lnbp_entries > 0 && address < next[-1].slnb_start_addr)
        lnpp->slnp_flags |= KRV_LNP_FLAG_UNSORTED;
    lnpp->slnp_flags |= KRV_LNP_FLAG_IN_SEQUENCE;
    return true;
}

static void close_sequence(krv_lnp_t *lnpp, uint64_t address)
{
    krv_lnb_t *open = &lnpp->slnp_lnbp[lnpp->slnp_lnbp_entries];
    open->slnb_end_index = lnpp->slnp_lnsp_entries;
    open->slnb_end_addr = address;
    ++lnpp->slnp_lnbp_entries;
    lnpp->slnp_flags &= ~uint32_t{KRV_LNP_FLAG_IN_SEQUENCE};
}

// Of the row table: as many as its program is expected to make.
static unsigned int first_rows(const krv_lnph_t *lnphp)
{
    const uint64_t expected = lnphp->sln_program_size / BYTES_A_ROW + FIRST_ROWS;
    return expected < MOST_FIRST_ROWS ? static_cast<unsigned int>(expected) : MOST_FIRST_ROWS;
}

int krv_line_push_entry(krv_handle_t *hp, krv_lnph_t *lnphp, krv_lnp_t *lnpp, krv_lns_t *rp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(lnpp != NULL);
    KRV_ASSERT(rp != NULL);
    if (!krv_table_grow(hp, &lnpp->slnp_lnsp, &lnpp->slnp_lnsp_size, lnpp->slnp_lnsp_entries, first_rows(lnphp)))
        return -1;
    krv_lns_t *row = &lnpp->slnp_lnsp[lnpp->slnp_lnsp_entries];
    *row = *rp;
    row->slns_filep = find_file(lnphp, rp->slns_file);
    const bool in_sequence = (lnpp->slnp_flags & KRV_LNP_FLAG_IN_SEQUENCE) != 0;
    if (in_sequence && rp->slns_address < row[-1].slns_address)
        lnpp->slnp_flags |= KRV_LNP_FLAG_DESCENDING;
    if ((rp->slns_flags & KRV_LNS_FLAG_ES) != 0) {
        if (in_sequence)
            close_sequence(lnpp, rp->slns_address);
    } else if (!in_sequence && !open_sequence(hp, lnpp, rp->slns_address)) {
        return -1;
    }
    ++lnpp->slnp_lnsp_entries;
    return 0;
}

int krv_subrange_compare(const void *a, const void *b)
{
    const auto *lap = static_cast<const krv_lnb_t *>(a);
    const auto *lbp = static_cast<const krv_lnb_t *>(b);
    KRV_ASSERT(lap != NULL);
    KRV_ASSERT(lbp != NULL);
    return lap->slnb_start_addr < lbp->slnb_start_addr ? -1 : lap->slnb_start_addr > lbp->slnb_start_addr ? 1 : 0;
}

int krv_canonical_compare(const void *a, const void *b)
{
    const auto *ap = static_cast<const krv_lns_t *>(a);
    const auto *bp = static_cast<const krv_lns_t *>(b);
    KRV_ASSERT(ap != NULL);
    KRV_ASSERT(bp != NULL);
    if (ap->slns_file != bp->slns_file)
        return ap->slns_file < bp->slns_file ? -1 : 1;
    if (ap->slns_line != bp->slns_line)
        return ap->slns_line < bp->slns_line ? -1 : 1;
    return ap->slns_address < bp->slns_address ? -1 : ap->slns_address > bp->slns_address ? 1 : 0;
}

// Sorts the sequences and refuses those that are inverted or overlap. 0 or -1.
static int check_sequences(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    if ((lnpp->slnp_flags & KRV_LNP_FLAG_UNSORTED) != 0)
        std::qsort(lnpp->slnp_lnbp, lnpp->slnp_lnbp_entries, sizeof(krv_lnb_t), krv_subrange_compare);
    for (unsigned int i = 0; i < lnpp->slnp_lnbp_entries; ++i) {
        const krv_lnb_t *seq = &lnpp->slnp_lnbp[i];
        if (seq->slnb_end_addr <= seq->slnb_start_addr)
            return krv_fail(hp, KRV_ERR_CORRUPT,
                            "matrix contains inverted sequence between rows %u and %u (addresses 0x%lx and 0x%lx)",
                            seq->slnb_start_index, seq->slnb_end_index,
                            static_cast<unsigned long>(seq->slnb_start_addr),
                            static_cast<unsigned long>(seq->slnb_end_addr));
        if (i > 0 && seq->slnb_start_addr < seq[-1].slnb_end_addr)
            return krv_fail(
                hp, KRV_ERR_CORRUPT, "matrix contains overlapping sequences (0x%lx--0x%lx and 0x%lx--0x%lx)",
                static_cast<unsigned long>(seq[-1].slnb_start_addr), static_cast<unsigned long>(seq[-1].slnb_end_addr),
                static_cast<unsigned long>(seq->slnb_start_addr), static_cast<unsigned long>(seq->slnb_end_addr));
    }
    return 0;
}

// The rows by file and line, in open addressing: a slot holds the number of the row with the lowest address, plus one.
namespace
{

struct place_table {
    uint32_t *slots;
    uint64_t mask;   // their number, a power of two above that of the rows, less one
    uint64_t probes; // of taken slots, that may still be made
};

// On the average less than one; more are made for lines that were chosen to collide.
constexpr uint64_t PROBES_A_ROW = 16;
constexpr uint64_t FEW_SLOTS = 256; // need no allocation
constexpr uint64_t NO_PLACE = UINT64_MAX;

} // namespace

// The slot of a row's file and line, taken by the row itself when they are new. NO_PLACE when it takes too long.
static uint64_t find_place(place_table *t, const krv_lns_t *rows, unsigned int number)
{
    const krv_lns_t *row = &rows[number];
    const uint64_t key = uint64_t{row->slns_file} << 32 | row->slns_line;
    uint64_t slot = (key * 0x9e3779b97f4a7c15U >> 32) & t->mask; // Fibonacci hashing
    for (; t->slots[slot] != 0; slot = (slot + 1) & t->mask) {
        const krv_lns_t *other = &rows[t->slots[slot] - 1];
        if (other->slns_line == row->slns_line && other->slns_file == row->slns_file)
            return slot;
        if (t->probes-- == 0)
            return NO_PLACE;
    }
    t->slots[slot] = number + 1;
    return slot;
}

static bool hash_canonical_addresses(place_table t, krv_lns_t *rows, unsigned int nrows)
{
    for (unsigned int i = 0; i < nrows; ++i) {
        const uint64_t slot = find_place(&t, rows, i);
        if (slot == NO_PLACE)
            return false;
        if (rows[i].slns_address < rows[t.slots[slot] - 1].slns_address)
            t.slots[slot] = i + 1;
        rows[i].slns_u.slnsu_index = slot;
    }
    for (unsigned int i = 0; i < nrows; ++i)
        rows[i].slns_u.slnsu_c_address = rows[t.slots[rows[i].slns_u.slnsu_index] - 1].slns_address;
    return true;
}

// The same for any lines. `numbers` has room for one a row.
static void sort_canonical_addresses(uint32_t *numbers, krv_lns_t *rows, unsigned int nrows)
{
    std::iota(numbers, numbers + nrows, 0U);
    std::sort(numbers, numbers + nrows,
              [rows](uint32_t a, uint32_t b) { return krv_canonical_compare(&rows[a], &rows[b]) < 0; });
    const krv_lns_t *first = nullptr; // of the current file and line
    for (const uint32_t *number = numbers; number != numbers + nrows; ++number) {
        krv_lns_t *row = &rows[*number];
        if (first == nullptr || row->slns_file != first->slns_file || row->slns_line != first->slns_line)
            first = row;
        row->slns_u.slnsu_c_address = first->slns_address;
    }
}

// Gives every row the lowest address of its file and line. 0 or -1.
static int find_canonical_addresses(krv_handle_t *hp, krv_lnp_t *lnpp)
{
    const unsigned int nrows = lnpp->slnp_lnsp_entries;
    krv_lns_t *rows = lnpp->slnp_lnsp;
    if (nrows == 0)
        return 0;
    uint64_t size = 16;
    while (size < uint64_t{nrows} + nrows / 2)
        size *= 2;
    uint32_t few[FEW_SLOTS], *slots = few;
    krv_owner<uint32_t> many;
    if (size <= FEW_SLOTS) {
        std::memset(few, 0, size * sizeof(uint32_t));
    } else {
        many.reset(static_cast<uint32_t *>(krv_zalloc(hp, size * sizeof(uint32_t))));
        slots = many.get();
        if (slots == nullptr)
            return krv_note(hp, "couldn't create temporary table for canonical address calculation");
    }
    if (!hash_canonical_addresses({slots, size - 1, nrows * PROBES_A_ROW}, rows, nrows))
        sort_canonical_addresses(slots, rows, nrows);
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Decoding
// ---------------------------------------------------------------------------------------------------------------

// Decodes one operand as wide as a register; the register's width is the limit. False: the decoder's message.
template <typename T>
static bool read_operand(line_machine *m, krv_form_t form, uint64_t *operandp)
{
    T operand = 0;
    if (krv_decode(&m->fd, form, &operand) != 0)
        return false;
    *operandp = static_cast<uint64_t>(operand);
    return true;
}

static bool unsupported(line_machine *m, const char *kind, uint64_t number)
{
    krv_fail(m->hp, KRV_ERR_UNSUPPORTED,
             "unsupported %s opcode %lld at offset %lld in .debug_line;  header begins at %lld\n", kind,
             static_cast<long long>(number), static_cast<long long>(m->fd.sfd_offset),
             static_cast<long long>(m->lnphp->sln_offset));
    return false;
}

static bool decode_standard(line_machine *m, line_op *op)
{
    switch (op->number) {
    case DW_LNS_copy:
    case DW_LNS_negate_stmt:
    case DW_LNS_set_basic_block:
    case DW_LNS_const_add_pc:
    case DW_LNS_set_prologue_end:
    case DW_LNS_set_epilogue_begin:
        return true;
    case DW_LNS_advance_pc:
        return read_operand<uint64_t>(m, DW_FORM_udata, &op->operand);
    case DW_LNS_advance_line:
        return read_operand<int64_t>(m, DW_FORM_sdata, &op->operand);
    case DW_LNS_set_file:
        return read_operand<uint32_t>(m, DW_FORM_udata, &op->operand);
    case DW_LNS_set_column:
    case DW_LNS_set_isa:
        return read_operand<uint16_t>(m, DW_FORM_udata, &op->operand);
    case DW_LNS_fixed_advance_pc:
        return read_operand<uint16_t>(m, DW_FORM_data2, &op->operand);
    default: // also where the header declares the operands of more
        return unsupported(m, "standard", op->number);
    }
}

static bool decode_extended(line_machine *m, line_op *op)
{
    uint64_t length; // never used: an extended opcode that is not known is refused, not skipped
    if (!read_operand<uint64_t>(m, DW_FORM_udata, &length) || !read_operand<uint64_t>(m, DW_FORM_udata, &op->number))
        return false;
    switch (op->number) {
    case DW_LNE_end_sequence:
        return true;
    case DW_LNE_set_address:
        return read_operand<uint64_t>(m, DW_FORM_addr, &op->operand);
    case DW_LNE_define_file:
        return krv_decode_form(&m->fd, DW_FORM_string, {}, false, m->path, sizeof(m->path), nullptr) == 0 &&
               read_operand<uint64_t>(m, DW_FORM_udata, &op->operand) &&
               read_operand<uint64_t>(m, DW_FORM_udata, &op->mtime) &&
               read_operand<uint64_t>(m, DW_FORM_udata, &op->size);
    case DW_LNE_set_discriminator:
        return read_operand<uint16_t>(m, DW_FORM_udata, &op->operand);
    default:
        return unsupported(m, "extended", op->number);
    }
}

static bool decode_op(line_machine *m, line_op *op)
{
    *op = {};
    op->offset = m->fd.sfd_offset;
    if (krv_decode(&m->fd, DW_FORM_data1, &op->opcode) != 0)
        return false;
    op->number = op->opcode;
    if (op->opcode == 0) {
        op->what = line_op::kind::extended;
        op->number = 0;
        return decode_extended(m, op);
    }
    if (op->opcode < m->lnphp->sln_opcode_base) {
        op->what = line_op::kind::standard;
        return decode_standard(m, op);
    }
    op->what = line_op::kind::special;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// Effects
// ---------------------------------------------------------------------------------------------------------------

static bool push_value(line_machine *m, uint64_t value)
{
    m->values[m->nvalues++].sa_u.su_unsigned = value;
    return true;
}

// Operation advance (DWARF 4, 6.2.5.1): address += mil * ((op_index + n) / mopi), op_index = (op_index + n) % mopi,
// dividing n first so that the sum cannot wrap.
static bool advance_operation(line_machine *m, uint64_t n)
{
    const uint64_t mopi = m->lnphp->sln_mopi;
    if (mopi == 0) {
        krv_fail(m->hp, KRV_ERR_CORRUPT, "maximum_operations_per_instruction is zero");
        return false;
    }
    krv_lns_t *regs = m->regs();
    if (mopi == 1) { // op_index stays 0
        regs->slns_address += m->lnphp->sln_mil * n;
        return true;
    }
    const uint64_t rest = regs->slns_op_index + n % mopi;
    regs->slns_address += m->lnphp->sln_mil * (n / mopi + rest / mopi);
    regs->slns_op_index = static_cast<unsigned int>(rest % mopi);
    return true;
}

static bool has_line_range(line_machine *m)
{
    if (m->lnphp->sln_line_range != 0)
        return true;
    krv_fail(m->hp, KRV_ERR_CORRUPT, "line_range is zero");
    return false;
}

// What holds beyond one row. The discriminator does not.
constexpr uint32_t LASTING_FLAGS = ~uint32_t{KRV_LNS_FLAG_BB | KRV_LNS_FLAG_PE | KRV_LNS_FLAG_EB};

// Appends the registers as a row.
static bool emit_row(line_machine *m)
{
    if (krv_line_push_entry(m->hp, m->lnphp, m->lnpp, m->regs()) != 0)
        return false;
    m->regs()->slns_discriminator = 0;
    m->regs()->slns_flags &= LASTING_FLAGS;
    return true;
}

static bool apply_special(line_machine *m, const line_op *op)
{
    if (!has_line_range(m))
        return false;
    const unsigned int adjusted = unsigned{op->opcode} - m->lnphp->sln_opcode_base;
    const unsigned int range = m->lnphp->sln_line_range;
    if (!advance_operation(m, adjusted / range))
        return false;
    m->regs()->slns_line += static_cast<unsigned int>(m->lnphp->sln_line_base) + adjusted % range; // modulo 2^32
    return emit_row(m);
}

static bool set_file(line_machine *m, const line_op *op)
{
    uint64_t count;
    krv_lnph_files(m->lnphp, &count);
    if (op->operand > count) {
        krv_fail(m->hp, KRV_ERR_CORRUPT, "file %u specified but only %u are defined",
                 static_cast<unsigned int>(op->operand), static_cast<unsigned int>(count));
        return false;
    }
    m->regs()->slns_file = static_cast<unsigned int>(op->operand);
    return push_value(m, op->operand);
}

static bool apply_standard(line_machine *m, const line_op *op)
{
    krv_lns_t *regs = m->regs();
    switch (op->number) {
    case DW_LNS_copy:
        return emit_row(m);

    case DW_LNS_advance_pc:
        return advance_operation(m, op->operand) && push_value(m, op->operand);
    case DW_LNS_const_add_pc:
        return has_line_range(m) && advance_operation(m, (255U - m->lnphp->sln_opcode_base) / m->lnphp->sln_line_range);
    case DW_LNS_fixed_advance_pc:
        regs->slns_address += op->operand;
        regs->slns_op_index = 0;
        return push_value(m, op->operand);

    case DW_LNS_advance_line:
        regs->slns_line += static_cast<unsigned int>(op->operand); // modulo 2^32
        return push_value(m, op->operand);
    case DW_LNS_set_file:
        return set_file(m, op);
    case DW_LNS_set_column:
        regs->slns_column = static_cast<unsigned short>(op->operand);
        return push_value(m, op->operand);
    case DW_LNS_set_isa:
        regs->slns_isa = static_cast<unsigned short>(op->operand);
        return push_value(m, op->operand);

    case DW_LNS_negate_stmt:
        regs->slns_flags ^= KRV_LNS_FLAG_IS;
        return true;
    case DW_LNS_set_basic_block:
        regs->slns_flags |= KRV_LNS_FLAG_BB;
        return true;
    case DW_LNS_set_prologue_end:
        regs->slns_flags |= KRV_LNS_FLAG_PE;
        return true;
    case DW_LNS_set_epilogue_begin:
        regs->slns_flags |= KRV_LNS_FLAG_EB;
        return true;
    default:
        return false; // refused when it was decoded
    }
}

static bool define_file(line_machine *m, const line_op *op)
{
    if (op->operand > m->lnphp->sln_id_entries) {
        krv_fail(m->hp, KRV_ERR_CORRUPT, "file_names index (%lu) is out of range",
                 static_cast<unsigned long>(op->operand));
        return false;
    }
    if (krv_lnph_add_file(m->hp, m->lnphp, nullptr, m->path, op->operand, op->mtime, op->size) != 0) {
        krv_note(m->hp, "couldn't add dynamically-defined file %s", m->path);
        return false;
    }
    m->values[m->nvalues++].sa_u.su_addr = m->path;
    return push_value(m, op->operand) && push_value(m, op->mtime) && push_value(m, op->size);
}

static bool apply_extended(line_machine *m, const line_op *op)
{
    krv_lns_t *regs = m->regs();
    push_value(m, op->number);
    switch (op->number) {
    case DW_LNE_end_sequence:
        regs->slns_flags |= KRV_LNS_FLAG_ES;
        if (!emit_row(m))
            return false;
        krv_lns_init(m->lnphp, regs);
        return true;
    case DW_LNE_set_address:
        regs->slns_address = op->operand;
        regs->slns_op_index = 0;
        return push_value(m, op->operand);
    case DW_LNE_define_file:
        return define_file(m, op);
    case DW_LNE_set_discriminator:
        regs->slns_discriminator = static_cast<unsigned short>(op->operand);
        return push_value(m, op->operand);
    default:
        return false; // refused when it was decoded
    }
}

static bool apply_op(line_machine *m, const line_op *op)
{
    m->nvalues = 0;
    switch (op->what) {
    case line_op::kind::special:
        return apply_special(m, op);
    case line_op::kind::standard:
        return apply_standard(m, op);
    case line_op::kind::extended:
        return apply_extended(m, op);
    }
    return false;
}

// ---------------------------------------------------------------------------------------------------------------
// Execution
// ---------------------------------------------------------------------------------------------------------------

static const char *op_name(const line_op *op)
{
    switch (op->what) {
    case line_op::kind::standard:
        return krv_name_or_unknown(KRV_DEF_LNS, op->number);
    case line_op::kind::extended:
        return krv_name_or_unknown(KRV_DEF_LNE, op->number);
    case line_op::kind::special:
        break;
    }
    return "special";
}

static int op_failed(line_machine *m, const line_op *op)
{
    return krv_note(m->hp,
                    "error processing opcode %lld (%s) or its operand at offset %lld in .debug_line;  header begins at "
                    "%lld\n",
                    static_cast<long long>(op->number), op_name(op), static_cast<long long>(m->fd.sfd_offset),
                    static_cast<long long>(m->lnphp->sln_offset));
}

// Executes the opcodes that make up most of a program, as long as one follows the other: special opcodes, the commonest
// standard ones with at most two bytes of operand, and short discriminators. Only when nobody watches, within a sequence,
// while the row table has room, and with one operation an instruction: nothing can fail then. What it stops at is for
// decode_op and apply_op. The registers that change are kept in locals: stored to memory one by one, they could not be
// loaded as parts of a row without a stall.
static void execute_short(line_machine *m)
{
    const krv_lnph_t *lnphp = m->lnphp;
    krv_lnp_t *lnpp = m->lnpp;
    krv_lns_t *regs = m->regs();
    const krv_view_t view = krv_fd_view(&m->fd);
    constexpr uint64_t LONGEST = 4;
    if (lnphp->sln_mopi != 1 || lnphp->sln_line_range == 0 || (lnpp->slnp_flags & KRV_LNP_FLAG_IN_SEQUENCE) == 0 ||
        view.size <= LONGEST)
        return;
    const unsigned int base = lnphp->sln_opcode_base, range = lnphp->sln_line_range;
    const unsigned int per_range = 0x10000 / range + 1; // exact for the quotients of numbers up to 255
    const uint64_t mil = lnphp->sln_mil;
    uint64_t nfiles, address = regs->slns_address;
    krv_lnph_files(m->lnphp, &nfiles);
    unsigned int line = regs->slns_line, file = regs->slns_file;
    unsigned short column = regs->slns_column, discriminator = regs->slns_discriminator;
    uint32_t flags = regs->slns_flags;
    bool descends = false;
    krv_lnfe_t *filep = find_file(m->lnphp, file);
    krv_lns_t *row = lnpp->slnp_lnsp + lnpp->slnp_lnsp_entries, *const full = lnpp->slnp_lnsp + lnpp->slnp_lnsp_size;
    const uint8_t *at = view.bytes, *const last = view.bytes + view.size - LONGEST; // one opcode at least is left
    while (at < last) {
        const unsigned int opcode = at[0];
        if (opcode >= base || opcode == DW_LNS_copy) {
            if (row == full)
                break;
            const uint64_t before = row[-1].slns_address; // of the same sequence
            if (opcode >= base) {                         // 1 is no copy where there are no standard opcodes
                const unsigned int adjusted = opcode - base, advance = adjusted * per_range >> 16;
                address += mil * advance;
                line += static_cast<unsigned int>(lnphp->sln_line_base) + (adjusted - advance * range);
            }
            *row++ = {address, regs->slns_op_index, file,          line,  column,
                      flags,   regs->slns_isa,      discriminator, filep, {0}};
            descends |= address < before;
            discriminator = 0;
            flags &= LASTING_FLAGS;
            at += 1;
        } else if (opcode >= DW_LNS_advance_pc && opcode <= DW_LNS_set_column) {
            const bool is_long = at[1] > 0x7f; // two bytes of operand
            if (is_long && at[2] > 0x7f)
                break;
            const unsigned int operand = is_long ? (at[1] & 0x7fU) | unsigned{at[2]} << 7 : at[1];
            if (opcode == DW_LNS_advance_pc) {
                address += mil * operand;
            } else if (opcode == DW_LNS_advance_line) {
                const unsigned int sign = is_long ? 0x2000 : 0x40;
                line += (operand ^ sign) - sign;
            } else if (opcode == DW_LNS_set_column) {
                column = static_cast<unsigned short>(operand);
            } else if (operand <= nfiles) { // DW_LNS_set_file
                file = operand;
                filep = find_file(m->lnphp, operand);
            } else {
                break; // reported there
            }
            at += is_long ? 3 : 2;
        } else if (opcode == DW_LNS_negate_stmt) {
            flags ^= KRV_LNS_FLAG_IS;
            at += 1;
        } else if (opcode == DW_LNS_set_prologue_end) {
            flags |= KRV_LNS_FLAG_PE;
            at += 1;
        } else if (opcode == DW_LNS_const_add_pc) {
            address += mil * ((255U - base) * per_range >> 16);
            at += 1;
        } else if (opcode == 0 && at[1] == 2 && at[2] == DW_LNE_set_discriminator && at[3] <= 0x7f) {
            discriminator = at[3];
            at += 4;
        } else {
            break;
        }
    }
    *regs = {address,       regs->slns_op_index, file, line, column, flags, regs->slns_isa,
             discriminator, regs->slns_filep,    {0}};
    if (descends)
        lnpp->slnp_flags |= KRV_LNP_FLAG_DESCENDING;
    lnpp->slnp_lnsp_entries = static_cast<unsigned int>(row - lnpp->slnp_lnsp);
    krv_fd_advance(&m->fd, static_cast<uint64_t>(at - view.bytes));
}

static int execute(line_machine *m, krv_iter_lne_f *func, void *arg)
{
    while (m->fd.sfd_remaining > 0) {
        line_op op;
        if (func == nullptr)
            execute_short(m);
        if (!decode_op(m, &op) || !apply_op(m, &op))
            return op_failed(m, &op);
        if (func == nullptr)
            continue;
        if (const int result = func(m->hp, op.offset, op.opcode, m->valueps, m->nvalues, m->regs(), arg)) {
            m->hp->sh_errno = KRV_ERR_IO;
            return result;
        }
    }
    if (check_sequences(m->hp, m->lnpp) != 0)
        return krv_note(m->hp, "error sorting matrix sequences");
    if (find_canonical_addresses(m->hp, m->lnpp) != 0)
        return krv_note(m->hp, "error calculating canonical addresses");
    return 0;
}

int krv_line_build_program(krv_handle_t *hp, krv_lnph_t *lnphp, krv_lnp_t **lnppp, krv_iter_lne_f *func, void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(lnppp != NULL);
    krv_fd_t fd = hp->sh_sec[KRV_SEC_LINE];
    KRV_ASSERT(fd.sfd_size != 0);
    matrix_owner matrix(krv_line_alloc_program(hp));
    if (matrix == nullptr)
        return -1;
    if (korva_fd_seek(&fd, lnphp->sln_program_offset, KRV_FD_SEEK_SET) != 0 ||
        korva_fd_truncate(&fd, lnphp->sln_program_size) != 0)
        return -1; // the section was replaced by a shorter one
    line_machine m;
    m.hp = hp;
    m.lnphp = lnphp;
    m.lnpp = matrix.get();
    m.fd = fd;
    for (unsigned int i = 0; i < NVALUES; ++i) {
        m.values[i] = {};
        m.valueps[i] = &m.values[i];
    }
    krv_lns_init(lnphp, m.regs());
    const int result = execute(&m, func, arg);
    if (result == 0)
        *lnppp = matrix.release();
    return result;
}

krv_lnp_t *krv_line_get_matrix(krv_handle_t *hp, krv_lnph_t *lnphp)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    if (krv_lnp_t *lnpp = krv_load(&lnphp->sln_lnp))
        return lnpp;
    krv_lnp_t *fresh = nullptr;
    if (krv_line_build_program(hp, lnphp, &fresh, nullptr, nullptr) != 0)
        return nullptr;
    // The matrix is kept: what its tables do not use is given back.
    if (!krv_table_trim(hp, &fresh->slnp_lnsp, &fresh->slnp_lnsp_size, fresh->slnp_lnsp_entries)) {
        krv_line_free_program(fresh);
        return nullptr;
    }
    return krv_publish(&lnphp->sln_lnp, fresh, krv_line_free_program);
}
