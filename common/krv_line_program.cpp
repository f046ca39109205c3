// SPDX-License-Identifier: Apache-2.0
//
// Execution of a line-number program (DWARF 4, 6.2.5). What an opcode reads and does is written once, as a case of the
// switches below, for two executors: `careful` takes any program, says what is wrong with it and shows every opcode to
// the client; `swift` takes most of a sound one. For input as it is written each has a variant that goes by the lengths of
// opcodes. A template argument M is the one of them that is at work.
#include "krv_budget.h"
#include "krv_code.h"
#include "krv_dwarf.h"
#include "krv_error.h"
#include "krv_fd.h"
#include "krv_line_draft.h"
#include "krv_mem.h"
#include "krv_names.h"

#include <algorithm>

void krv_lns_init(const krv_lnph_t *lnphp, krv_line_state_t *registers)
{
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(registers != NULL);
    *registers = {};
    registers->slns_file = 1;
    registers->slns_line = 1;
    registers->slns_flags = lnphp->sln_default_is_stmt == 1 ? uint32_t{KRV_LNS_FLAG_IS} : 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Opcodes. Each reads all its operands before it changes a register. False: it failed; swift has not been changed then.
// ---------------------------------------------------------------------------------------------------------------

namespace
{

// What holds beyond one row. The discriminator does not.
constexpr uint32_t LASTING_FLAGS = ~uint32_t{KRV_LNS_FLAG_BB | KRV_LNS_FLAG_PE | KRV_LNS_FLAG_EB};

// What the opcodes need of a header, apart from the registers.
struct line_scale {
    uint64_t mil;
    int line_base;
    unsigned int line_range, opcode_base;
    unsigned int per_range; // 0x10000 / line_range, rounded up: exact for the quotients of numbers up to 255

    explicit line_scale(const krv_lnph_t *lnphp)
        : mil(lnphp->sln_mil), line_base(lnphp->sln_line_base), line_range(lnphp->sln_line_range),
          opcode_base(lnphp->sln_opcode_base), per_range(line_range == 0 ? 0 : 0x10000 / line_range + 1)
    {
    }
    unsigned int operations(unsigned int adjusted) const { return adjusted * per_range >> 16; }
};

// Operation advance (DWARF 4, 6.2.5.1): address += mil * ((op_index + n) / mopi), op_index = (op_index + n) % mopi,
// dividing n first so that the sum cannot wrap.
template <typename M>
inline bool advance_operation(M &m, uint64_t n)
{
    if (!m.has_operations())
        return false;
    const uint64_t mopi = m.mopi();
    if (mopi == 1) { // op_index stays 0
        m.regs.slns_address += m.scale.mil * n;
        return true;
    }
    const uint64_t rest = m.regs.slns_op_index + n % mopi;
    m.regs.slns_address += m.scale.mil * (n / mopi + rest / mopi);
    m.regs.slns_op_index = static_cast<unsigned int>(rest % mopi);
    return true;
}

// Appends the registers as a row.
template <typename M>
inline bool emit_row(M &m)
{
    if (!m.push_row())
        return false;
    m.regs.slns_discriminator = 0;
    m.regs.slns_flags &= LASTING_FLAGS;
    return true;
}

template <typename M>
inline bool execute_special(M &m, unsigned int opcode)
{
    if (!m.has_room() || !m.has_line_range())
        return false;
    const unsigned int adjusted = opcode - m.scale.opcode_base, n = m.scale.operations(adjusted);
    if (!advance_operation(m, n))
        return false;
    m.regs.slns_line +=
        static_cast<unsigned int>(m.scale.line_base) + (adjusted - n * m.scale.line_range); // modulo 2^32
    return emit_row(m);
}

template <typename M>
inline bool execute_standard(M &m, unsigned int opcode)
{
    krv_line_state_t &regs = m.regs;
    switch (opcode) {
    case DW_LNS_copy:
        return m.has_room() && emit_row(m);
    case DW_LNS_advance_pc: {
        uint64_t n;
        return m.template operand<DW_FORM_udata>(&n) && advance_operation(m, n);
    }
    case DW_LNS_advance_line: {
        int64_t n;
        if (!m.template operand<DW_FORM_sdata>(&n))
            return false;
        regs.slns_line += static_cast<unsigned int>(n); // modulo 2^32
        return true;
    }
    case DW_LNS_set_file: {
        uint32_t file;
        if (!m.template operand<DW_FORM_udata>(&file) || !m.has_file(file))
            return false;
        regs.slns_file = file;
        m.file_has_changed();
        return true;
    }
    case DW_LNS_set_column:
        return m.template operand<DW_FORM_udata>(&regs.slns_column);
    case DW_LNS_negate_stmt:
        regs.slns_flags ^= KRV_LNS_FLAG_IS;
        return true;
    case DW_LNS_set_basic_block:
        regs.slns_flags |= KRV_LNS_FLAG_BB;
        return true;
    case DW_LNS_const_add_pc:
        return m.has_line_range() && advance_operation(m, m.scale.operations(255U - m.scale.opcode_base));
    case DW_LNS_fixed_advance_pc: {
        uint16_t n;
        if (!m.template operand<DW_FORM_data2>(&n))
            return false;
        regs.slns_address += n;
        regs.slns_op_index = 0;
        return true;
    }
    case DW_LNS_set_prologue_end:
        regs.slns_flags |= KRV_LNS_FLAG_PE;
        return true;
    case DW_LNS_set_epilogue_begin:
        regs.slns_flags |= KRV_LNS_FLAG_EB;
        return true;
    case DW_LNS_set_isa:
        return M::KNOWS_ISA && m.template operand<DW_FORM_udata>(&regs.slns_isa);
    default: // also where the header declares the operands of more
        return m.unsupported("standard", opcode);
    }
}

// An extended opcode behind its length.
template <typename M>
inline bool execute_operation(M &m)
{
    krv_line_state_t &regs = m.regs;
    uint64_t number;
    if (!m.template operand<DW_FORM_udata>(&number))
        return false;
    switch (number) {
    case DW_LNE_end_sequence:
        return m.end_sequence();
    case DW_LNE_set_address: {
        uint64_t address;
        if (!m.template operand<DW_FORM_addr>(&address))
            return false;
        regs.slns_address = address;
        regs.slns_op_index = 0;
        return true;
    }
    case DW_LNE_define_file:
        return m.define_file();
    case DW_LNE_set_discriminator:
        return m.template operand<DW_FORM_udata>(&regs.slns_discriminator);
    default:
        return m.unsupported("extended", number);
    }
}

template <typename M>
inline bool execute_extended(M &m)
{
    uint64_t length; // is never used: an extended opcode that is not known is refused, not skipped
    return m.read_length(&length) && execute_operation(m);
}

template <typename M>
inline bool execute_opcode(M &m, unsigned int opcode)
{
    if (opcode >= m.scale.opcode_base) // which is not 0; 1 is no copy where there are no standard opcodes
        return execute_special(m, opcode);
    return opcode != 0 ? execute_standard(m, opcode) : execute_extended(m);
}

// ---------------------------------------------------------------------------------------------------------------
// The careful executor
// ---------------------------------------------------------------------------------------------------------------

constexpr unsigned NVALUES = 10;

struct careful {
    krv_handle_t *hp;
    krv_lnph_t *lnphp;
    krv_line_draft *draft;
    krv_fd_t fd;
    line_scale scale;
    krv_line_registers registers; // as the client sees them
    krv_line_state_t &regs;
    uint8_t opcode = 0;       // at hand: 0 for every extended one
    unsigned int nvalues = 0; // of its operands, for the client
    krv_value_t values[NVALUES] = {};
    krv_value_t *valueps[NVALUES];
    char path[KRV_STRING_BUFSZ]; // DW_LNE_define_file

    static constexpr bool KNOWS_ISA = true;

    careful(krv_handle_t *handle, krv_lnph_t *header, krv_line_draft *rows, const krv_fd_t &program)
        : hp(handle), lnphp(header), draft(rows), fd(program), scale(header), registers{{KRV_LNS_REGISTERS}, {}},
          regs(registers.state)
    {
        krv_lns_init(header, &regs);
        for (unsigned int i = 0; i < NVALUES; ++i)
            valueps[i] = &values[i];
        path[0] = '\0';
    }

    // Reads one operand as wide as a register, and shows it; the register's width is the limit. False: the decoder's
    // message.
    template <krv_form_t FORM, typename T>
    bool operand(T *field)
    {
        if (krv_decode(&fd, FORM, field) != 0)
            return false;
        values[nvalues++].sa_u.su_unsigned = static_cast<uint64_t>(*field);
        return true;
    }
    bool read_length(uint64_t *length) { return krv_decode(&fd, DW_FORM_udata, length) == 0; }

    static bool has_room() { return true; } // the table grows
    bool push_row() { return krv_line_draft_push(hp, lnphp, draft, regs); }
    static void file_has_changed() {} // a row looks for its file
    uint64_t mopi() const { return lnphp->sln_mopi; }
    bool has_operations() { return mopi() != 0 || corrupt("maximum_operations_per_instruction is zero"); }
    bool has_line_range() { return scale.line_range != 0 || corrupt("line_range is zero"); }
    bool has_file(uint32_t number);
    int finish(bool) { return krv_line_draft_check(hp, draft); }
    bool end_sequence();
    bool define_file();
    bool corrupt(const char *what);
    bool unsupported(const char *kind, uint64_t number);
};

bool careful::corrupt(const char *what)
{
    krv_fail(hp, KRV_ERR_CORRUPT, "%s", what);
    return false;
}

bool careful::unsupported(const char *kind, uint64_t number)
{
    krv_fail(hp, KRV_ERR_UNSUPPORTED,
             "unsupported %s opcode %lld at offset %lld in .debug_line;  header begins at %lld\n", kind,
             static_cast<long long>(number), static_cast<long long>(fd.sfd_offset),
             static_cast<long long>(lnphp->sln_offset));
    return false;
}

bool careful::has_file(uint32_t number)
{
    uint64_t count;
    krv_lnph_files(lnphp, &count);
    if (number < count + lnphp->sln_first)
        return true;
    krv_fail(hp, KRV_ERR_CORRUPT, "file %u specified but only %u are defined", number,
             static_cast<unsigned int>(count));
    return false;
}

bool careful::end_sequence()
{
    regs.slns_flags |= KRV_LNS_FLAG_ES;
    if (!emit_row(*this))
        return false;
    krv_lns_init(lnphp, &regs);
    return true;
}

bool careful::define_file()
{
    uint64_t directory, mtime, size;
    if (krv_decode_form(&fd, DW_FORM_string, {}, false, path, sizeof(path), nullptr) != 0)
        return false;
    values[nvalues++].sa_u.su_addr = path;
    if (!operand<DW_FORM_udata>(&directory) || !operand<DW_FORM_udata>(&mtime) || !operand<DW_FORM_udata>(&size))
        return false;
    if (directory > lnphp->sln_id_entries && !krv_lnph_forgive_directory(hp, &directory))
        return false;
    if (krv_lnph_add_file(hp, lnphp, nullptr, path, directory, mtime, size) != 0) {
        krv_note(hp, "couldn't add dynamically-defined file %s", path);
        return false;
    }
    draft->flags |= KRV_LNP_FLAG_DEFINES;
    return true;
}

// For input as it is written: what it does not know it skips, what is too large for a register is as large as that can be.
struct careful_as_written : careful {
    using careful::careful;

    template <krv_form_t FORM, typename T>
    bool operand(T *field)
    {
        using wide = std::conditional_t<std::is_signed_v<T>, int64_t, uint64_t>;
        wide value = 0;
        krv_form_t form = FORM;
        if (FORM == DW_FORM_addr && krv_data_form(static_cast<unsigned int>(fd.sfd_remaining)) != 0)
            form = krv_data_form(static_cast<unsigned int>(fd.sfd_remaining)); // the length of the opcode says
        if (krv_decode(&fd, form, &value) != 0)
            return false;
        constexpr wide most = std::numeric_limits<T>::max();
        *field = static_cast<T>(value < most ? value : most);
        values[nvalues++].sa_u.su_unsigned = static_cast<uint64_t>(value);
        return true;
    }
    static bool has_file(uint32_t) { return true; }
    uint64_t mopi() const { return lnphp->sln_mopi == 0 ? 1 : lnphp->sln_mopi; }
    static bool has_operations() { return true; }
    bool unsupported(const char *, uint64_t)
    {
        uint64_t ignored;
        for (unsigned int n = opcode == 0 ? 0 : lnphp->sln_sol[opcode - 1]; n != 0; --n)
            if (krv_decode(&fd, DW_FORM_udata, &ignored) != 0)
                return false;
        return true;
    }
    int finish(bool watched) { return krv_line_draft_keep_sound(hp, lnphp, draft, regs, !watched); }
};

// Its operands end with it, and it ends where its length says.
inline bool execute_extended(careful_as_written &m)
{
    uint64_t length;
    if (!m.read_length(&length))
        return false;
    krv_fd_t behind = m.fd;
    length = length < behind.sfd_remaining ? length : behind.sfd_remaining;
    krv_fd_advance(&behind, length);
    m.fd.sfd_remaining = length;
    if (length == 0) // padding, shown as opcode 0
        m.values[m.nvalues++].sa_u.su_unsigned = 0;
    else if (!execute_operation(m))
        return false;
    m.fd = behind;
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// The swift executor
// ---------------------------------------------------------------------------------------------------------------

// For when nobody watches, within a sequence, while the tables have room, with one operation an instruction, and for rows
// in their short form: nothing can fail then. The registers are its own: stored to memory one by one, they could not be
// loaded as parts of a row without a stall.
struct swift {
    using rows_t = krv_short_rows_t;

    const uint8_t *at; // the operand at hand; MOST_BYTES of an opcode are in view
    const line_scale scale;
    krv_lnph_t *const lnphp;
    krv_line_state_t regs;
    const uint64_t base;
    uint64_t last; // address of the row before, which is of the same sequence
    int32_t *distance;
    const int32_t *const full;
    rows_t::rest_t *rest;
    uint32_t no_file; // KRV_LNS_FLAG_NO_FILE, where the file register names none
    bool descends = false;
    uint64_t files_end; // the first number behind those of files that it takes

    static constexpr bool KNOWS_ISA = false;
    static constexpr uint64_t MOST_BYTES = 7; // DW_LNE_set_discriminator, two of each of its three numbers
    // A special opcode adds no more to an address that has_room has seen.
    static_assert(rows_t::SPAN / 2 + 255 * 255 <= INT32_MAX);

    swift(krv_lnph_t *header, krv_line_draft *draft, const krv_line_state_t &registers)
        : at(nullptr), scale(header), lnphp(header), regs(registers), base(draft->rows.base), last(draft->last),
          distance(draft->rows.as_short.distances + draft->entries), full(draft->rows.as_short.distances + draft->size),
          rest(draft->rows.as_short.rests + draft->entries)
    {
        krv_lnph_files(header, &files_end);
        files_end = std::min<uint64_t>(files_end + header->sln_first, rows_t::MOST_FILE + 1);
        file_has_changed();
    }

    // LEB128 numbers of at most two bytes.
    template <krv_form_t FORM, typename T>
    bool operand(T *field)
    {
        if (FORM != DW_FORM_udata && FORM != DW_FORM_sdata)
            return false;
        const bool is_long = at[0] > 0x7f;
        if (is_long && at[1] > 0x7f)
            return false;
        const unsigned int number = is_long ? (at[0] & 0x7fU) | unsigned{at[1]} << 7 : at[0];
        const unsigned int sign = FORM == DW_FORM_udata ? 0 : is_long ? 0x2000 : 0x40;
        *field = static_cast<T>(static_cast<int>((number ^ sign) - sign));
        at += is_long ? 2 : 1;
        return true;
    }
    bool read_length(uint64_t *length) { return operand<DW_FORM_udata>(length); }

    bool has_room() const { return distance != full && regs.slns_address - rows_t::lowest(base) < rows_t::SPAN; }
    bool push_row()
    {
        descends |= regs.slns_address < last;
        last = regs.slns_address;
        *distance++ = static_cast<int32_t>(regs.slns_address - base);
        *rest++ = {regs.slns_line,
                   static_cast<uint16_t>(regs.slns_file),
                   regs.slns_column,
                   regs.slns_discriminator,
                   static_cast<uint8_t>(regs.slns_isa),
                   static_cast<uint8_t>(regs.slns_flags | no_file)};
        return true;
    }
    void file_has_changed()
    {
        no_file = krv_lnph_file(lnphp, regs.slns_file) == nullptr ? uint32_t{KRV_LNS_FLAG_NO_FILE} : 0;
    }
    bool has_file(uint32_t number) const { return number < files_end; }
    static constexpr uint64_t mopi() { return 1; }
    static constexpr bool has_operations() { return true; }
    static constexpr bool has_line_range() { return true; }
    static constexpr bool end_sequence() { return false; }
    static constexpr bool define_file() { return false; }
    static constexpr bool unsupported(const char *, uint64_t) { return false; }
};

struct swift_as_written : swift {
    using swift::swift;
};

inline bool execute_extended(swift_as_written &m)
{
    uint64_t length;
    if (!m.read_length(&length))
        return false;
    const uint8_t *const operation = m.at;
    const unsigned short discriminator = m.regs.slns_discriminator; // all that it may change
    if (execute_operation(m) && static_cast<uint64_t>(m.at - operation) == length)
        return true;
    m.regs.slns_discriminator = discriminator;
    return false;
}

} // namespace

constexpr uint64_t STRETCH = 1 << 14; // bytes that are executed between two looks at the budget

// Executes opcodes from where the careful executor stands, as long as they are the swift one's, S. What it stops at is the
// careful one's. A function of its own: within the other's loop it would have fewer processor registers.
template <typename S>
[[gnu::noinline]] static void execute_swiftly(careful *m)
{
    krv_line_draft *draft = m->draft;
    krv_view_t view = krv_fd_view(&m->fd);
    if (m->hp->sh_budget != nullptr) // which is asked between two stretches
        view.size = std::min(view.size, STRETCH);
    if (m->lnphp->sln_mopi != 1 || m->scale.line_range == 0 || (draft->flags & KRV_LNP_FLAG_IN_SEQUENCE) == 0 ||
        view.size <= swift::MOST_BYTES || draft->rows.is_long || !krv_short_rows_t::fits(m->regs, draft->rows.base))
        return;
    S s(m->lnphp, draft, m->regs);
    const uint8_t *opcode = view.bytes;
    const uint8_t *const last = view.bytes + view.size - swift::MOST_BYTES;
    while (opcode < last) {
        s.at = opcode + 1;
        if (!execute_opcode(s, *opcode))
            break;
        opcode = s.at;
    }
    m->regs = s.regs;
    if (s.descends)
        draft->flags |= KRV_LNP_FLAG_DESCENDING;
    draft->last = s.last;
    draft->entries = static_cast<uint32_t>(s.distance - draft->rows.as_short.distances);
    krv_fd_advance(&m->fd, static_cast<uint64_t>(opcode - view.bytes));
}

// ---------------------------------------------------------------------------------------------------------------
// Execution
// ---------------------------------------------------------------------------------------------------------------

static int opcode_failed(careful *m)
{
    uint64_t number = m->opcode;
    const char *name = "special";
    if (m->opcode == 0) { // its number is the first that is shown
        number = m->nvalues == 0 ? 0 : m->values[0].sa_u.su_unsigned;
        name = krv_name_or_unknown(KRV_DEF_LNE, number);
    } else if (m->opcode < m->scale.opcode_base) {
        name = krv_name_or_unknown(KRV_DEF_LNS, number);
    }
    return krv_note(m->hp,
                    "error processing opcode %lld (%s) or its operand at offset %lld in .debug_line;  header begins at "
                    "%lld\n",
                    static_cast<long long>(number), name, static_cast<long long>(m->fd.sfd_offset),
                    static_cast<long long>(m->lnphp->sln_offset));
}

// What was executed since `asked` and the rows that came of it.
static bool spend(careful *m, uint64_t *asked, uint32_t *rows)
{
    if (m->hp->sh_budget == nullptr)
        return true;
    const uint64_t steps = m->fd.sfd_offset - *asked, made = m->draft->entries - *rows;
    *asked = m->fd.sfd_offset;
    *rows = m->draft->entries;
    return krv_budget_take_steps(m->hp, steps) && krv_budget_take_rows(m->hp, made);
}

template <typename M, typename S>
static int execute(krv_handle_t *hp, krv_lnph_t *lnphp, krv_line_draft *draft, const krv_fd_t &program,
                   krv_iter_lne_f *func, void *arg)
{
    M m(hp, lnphp, draft, program);
    uint64_t asked = m.fd.sfd_offset;
    uint32_t rows = 0;
    while (m.fd.sfd_remaining > 0) {
        if (!spend(&m, &asked, &rows))
            return -1;
        if (func == nullptr)
            execute_swiftly<S>(&m); // which leaves a byte at least
        const uint64_t offset = m.fd.sfd_offset;
        m.opcode = 0;
        m.nvalues = 0;
        if (krv_decode(&m.fd, DW_FORM_data1, &m.opcode) != 0) {
            m.opcode = 0; // a call-back that came up short may have stored a byte all the same
            return opcode_failed(&m);
        }
        if (!execute_opcode(m, m.opcode))
            return opcode_failed(&m);
        if (func == nullptr)
            continue;
        if (const int result = func(hp, offset, m.opcode, m.valueps, m.nvalues, &m.registers, arg)) {
            krv_errno(hp) = KRV_ERR_IO;
            return result;
        }
    }
    return spend(&m, &asked, &rows) ? m.finish(func != nullptr) : -1;
}

namespace
{

// Owns a draft until its matrix is made.
struct draft_guard {
    krv_handle_t *hp;
    krv_line_draft *draft;

    explicit draft_guard(krv_handle_t *handle) : hp(handle), draft(krv_line_draft_begin(handle)) {}
    ~draft_guard()
    {
        if (draft != nullptr)
            krv_line_draft_end(hp, draft);
    }
    draft_guard(const draft_guard &) = delete;
    draft_guard &operator=(const draft_guard &) = delete;
};

} // namespace

int krv_line_build_program(krv_handle_t *hp, krv_lnph_t *lnphp, krv_lnp_t **lnppp, krv_iter_lne_f *func, void *arg)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(lnppp != NULL);
    krv_fd_t fd = hp->sh_sec[KRV_SEC_LINE];
    KRV_ASSERT(fd.sfd_size != 0);
    const draft_guard guard(hp);
    if (guard.draft == nullptr)
        return -1;
    if (korva_fd_seek(&fd, lnphp->sln_program_offset, KRV_FD_SEEK_SET) != 0 ||
        korva_fd_truncate(&fd, lnphp->sln_program_size) != 0)
        return -1; // the section was replaced by a shorter one
    const auto execute_all =
        krv_reads_as_written(hp) ? execute<careful_as_written, swift_as_written> : execute<careful, swift>;
    const int result = execute_all(hp, lnphp, guard.draft, fd, func, arg);
    if (result != 0)
        return result;
    krv_lnp_t *matrix = krv_line_draft_seal(hp, lnphp, guard.draft);
    if (matrix == nullptr)
        return -1;
    if (!krv_reads_as_written(hp) && krv_lnp_reserve_canonical(hp, matrix) != 0) {
        krv_line_free_program(matrix);
        return -1;
    }
    *lnppp = matrix;
    return 0;
}
