// SPDX-License-Identifier: Apache-2.0
//
// A linker that drops a function (a COMDAT group's other copies, --gc-sections) leaves its lines behind, at address
// 0, 1 or -1 or wherever its relocation came to lie; they overlap each other and live code, and the core refuses the
// whole unit for it. Such a sequence is overwritten by opcodes that change nothing. What it says of the file table
// stays, so that file numbers are those of the compiler.
#include "elf/dwarf_cursor.h"
#include "elf/pass.h"
#include "krv_dwarf.h"

#include <fmt/format.h>

namespace krv_elf_loader
{

namespace
{

// A line-number program (DWARF 4, 6.2.4), as far as addresses depend on it.
struct line_program {
    uint64_t offset; // of its header
    uint64_t begin;  // of its opcodes
    uint64_t end;
    uint8_t instruction_length;
    uint8_t operations; // maximum_operations_per_instruction
    uint8_t line_range;
    uint8_t opcode_base;
};

struct line_sequence {
    uint64_t begin; // of its opcodes, in .debug_line
    uint64_t end;
    address_range addresses;
    std::vector<std::pair<uint64_t, uint64_t>> files; // begin and end of DW_LNE_define_file
    bool dead = false;
};

// Reads a header and moves the cursor behind its program. False when there is none.
bool read_program(cursor *c, line_program *p)
{
    *p = {.offset = c->at(),
          .begin = 0,
          .end = 0,
          .instruction_length = 0,
          .operations = 1,
          .line_range = 0,
          .opcode_base = 0};
    krv_unit_length_t ul;
    if (c->unit_length(&ul) != krv_length_outcome_t::sound || ul.length > c->left())
        return false;
    p->end = ul.end;
    cursor header = *c;
    c->seek(p->end);
    const uint64_t version = header.number(2);
    const uint64_t header_length = header.number(ul.is_dwarf64 ? 8 : 4);
    const uint64_t after_length = header.at();
    p->instruction_length = header.byte();
    if (version >= 4)
        p->operations = header.byte();
    header.skip(2); // default_is_stmt, line_base
    p->line_range = header.byte();
    p->opcode_base = header.byte();
    // Without these the core refuses the program; without advance_line there is nothing to overwrite with.
    if (!header.ok() || version < 2 || version > 4 || header_length > p->end - after_length || p->operations == 0 ||
        p->line_range == 0 || p->opcode_base <= DW_LNS_advance_line || after_length > p->end)
        return true; // begin 0: not scanned
    p->begin = after_length + header_length;
    return true;
}

// The address registers of the machine, which is all that is followed of it.
class address_machine
{
public:
    address_machine(byte_span line, const line_program &program, size_t size_of_address)
        : p(program), c(line.first(program.end), program.begin), address_size(size_of_address)
    {
    }

    // The sequences, up to the first opcode that the core would refuse.
    std::vector<line_sequence> run()
    {
        begin_sequence();
        while (c.more() && step())
            ;
        return std::move(sequences);
    }

private:
    void begin_sequence()
    {
        current = {c.at(), 0, {0, 0}, {}};
        address = 0;
        operation = 0;
        has_rows = false;
    }

    void advance(uint64_t n)
    {
        const uint64_t rest = operation + n % p.operations;
        address += p.instruction_length * (n / p.operations + rest / p.operations);
        operation = rest % p.operations;
    }

    void row()
    {
        if (!has_rows)
            current.addresses.start = address;
        has_rows = true;
    }

    bool step()
    {
        const uint64_t at = c.at();
        const uint8_t opcode = c.byte();
        if (opcode >= p.opcode_base) {
            advance((opcode - p.opcode_base) / p.line_range);
            row();
            return true;
        }
        switch (opcode) {
        case 0:
            return extended(at);
        case DW_LNS_copy:
            row();
            return true;
        case DW_LNS_advance_pc:
            advance(c.uleb());
            return c.ok();
        case DW_LNS_const_add_pc:
            advance((255U - p.opcode_base) / p.line_range);
            return true;
        case DW_LNS_fixed_advance_pc:
            address += c.number(2);
            operation = 0;
            return c.ok();
        case DW_LNS_advance_line:
        case DW_LNS_set_file:
        case DW_LNS_set_column:
        case DW_LNS_set_isa:
            c.uleb();
            return c.ok();
        case DW_LNS_negate_stmt:
        case DW_LNS_set_basic_block:
        case DW_LNS_set_prologue_end:
        case DW_LNS_set_epilogue_begin:
            return true;
        default:
            return false;
        }
    }

    bool extended(uint64_t at)
    {
        c.uleb(); // its length, which the core does not use either
        switch (c.uleb()) {
        case DW_LNE_end_sequence:
            current.end = c.at();
            current.addresses.end = address;
            if (has_rows && c.ok())
                sequences.push_back(std::move(current));
            begin_sequence();
            return c.ok();
        case DW_LNE_set_address:
            address = c.number(address_size);
            operation = 0;
            return c.ok();
        case DW_LNE_define_file:
            c.string();
            c.uleb();
            c.uleb();
            c.uleb();
            current.files.emplace_back(at, c.at());
            return c.ok();
        case DW_LNE_set_discriminator:
            c.uleb();
            return c.ok();
        default:
            return false;
        }
    }

    const line_program &p;
    cursor c;
    size_t address_size;
    uint64_t address = 0;
    uint64_t operation = 0;
    bool has_rows = false;
    line_sequence current = {};
    std::vector<line_sequence> sequences;
};

// How sure it is that code lies there: 2 when a function starts with the sequence, 1 when one covers its start.
int support(const view &v, const address_range &range)
{
    const krv_elf_symbol_t *symbol = v.functions().find(range.start);
    return symbol == nullptr ? 0 : symbol->address == range.start ? 2 : 1;
}

bool is_tombstone(uint64_t address, size_t address_size)
{
    const uint64_t highest = address_size == 8 ? UINT64_MAX : UINT32_MAX;
    return address <= 1 || address >= highest - 1;
}

// Marks those that lie where no code is. Of those left, no two overlap.
void find_dead(const view &v, size_t address_size, std::vector<line_sequence> *sequences)
{
    const bool linked = v.file().type() != ET_REL;
    const address_ranges &code = v.file().code();
    std::vector<line_sequence *> alive;
    for (line_sequence &s : *sequences) {
        s.dead = s.addresses.empty() || (linked && !code.empty() && !code.hold(s.addresses)) ||
                 (linked && is_tombstone(s.addresses.start, address_size) && support(v, s.addresses) != 2);
        if (!s.dead)
            alive.push_back(&s);
    }
    std::stable_sort(alive.begin(), alive.end(), [](const line_sequence *a, const line_sequence *b) {
        return a->addresses.start < b->addresses.start;
    });
    std::vector<line_sequence *> kept;
    for (line_sequence *s : alive) {
        while (!s->dead && !kept.empty() && s->addresses.start < kept.back()->addresses.end) {
            const bool later_is_better = support(v, s->addresses) > support(v, kept.back()->addresses);
            (later_is_better ? kept.back() : s)->dead = true;
            if (later_is_better)
                kept.pop_back();
        }
        if (!s->dead)
            kept.push_back(s);
    }
}

// DW_LNS_advance_line 0, as often and as padded as it takes. At least 2 bytes.
void fill_with_nothing(uint8_t *bytes, uint64_t count)
{
    constexpr uint64_t MOST = 9; // a number of ten bytes would have to be negative
    while (count != 0) {
        const uint64_t taken = count <= MOST ? count : count == MOST + 1 ? MOST - 1 : MOST;
        bytes[0] = DW_LNS_advance_line;
        write_padded_uleb(bytes + 1, 0, taken - 1);
        bytes += taken;
        count -= taken;
    }
}

// What defines files first, then nothing: at least the three bytes of DW_LNE_end_sequence.
void overwrite(std::vector<uint8_t> *line, const line_sequence &s)
{
    std::vector<uint8_t> files;
    for (const auto &[begin, end] : s.files)
        files.insert(files.end(), line->data() + begin, line->data() + end);
    std::copy(files.begin(), files.end(), line->data() + s.begin);
    fill_with_nothing(line->data() + s.begin + files.size(), s.end - s.begin - files.size());
}

} // namespace

void drop_dead_sequences(view &v, const char *name)
{
    view_section *line = v.find(KRV_SEC_LINE);
    if (line == nullptr)
        return;
    const size_t address_size = v.file().target() == KRV_ACTIVATION_AMD64 ? 8 : 4;
    const byte_span bytes = line->bytes();
    cursor c(bytes);
    line_program p;
    while (c.more() && read_program(&c, &p)) {
        if (p.begin == 0)
            continue;
        std::vector<line_sequence> sequences = address_machine(line->bytes(), p, address_size).run();
        find_dead(v, address_size, &sequences);
        size_t dropped = 0;
        for (const line_sequence &s : sequences)
            if (s.dead) {
                overwrite(&line->writable(), s);
                ++dropped;
            }
        if (dropped != 0)
            v.add_note({name, line->name, p.offset, false,
                        fmt::format("{} of {} sequences of the line-number program at offset {:#x} describe code that "
                                    "is not in the file: left out",
                                    dropped, sequences.size(), p.offset)});
    }
}

} // namespace krv_elf_loader
