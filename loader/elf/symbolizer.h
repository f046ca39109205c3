// SPDX-License-Identifier: Apache-2.0
//
// From an address to the calls around it, with their names and places: from entries and line numbers, else from symbols.
#ifndef KRV_ELF_SYMBOLIZER_H
#define KRV_ELF_SYMBOLIZER_H

#include "elf/symbols.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace krv_elf_loader
{

/** Where an address comes from, as a row of a line-number matrix has it. */
struct source_place {
    const char *path = nullptr; // of the handle; NULL when the row names no file
    uint32_t line = 0;
    uint16_t column = 0;
    uint16_t discriminator = 0;
};

/** What was looked up of an address: its row (KRV_ROW_NONE), and the calls around it, none where no function is known. */
struct looked_up {
    krv_row_t row;
    krv_ctu_t *unit; // NULL: to be looked up where it is needed
    const krv_call_t *calls;
    size_t count;
};

/** The row of a unit for an address in [start, start + size). False with the handle's error. */
/** Throws where memory, or what the client lets queries cost, is used up: that is not what is not there. */
void check_memory(krv_handle_t *hp);

bool find_place(krv_handle_t *hp, krv_ctu_t *unit, uint64_t start, uint64_t size, uint64_t address,
                source_place *place);

// For one thread at a time. Texts that it hands out are the handle's and the symbols', or kept here.
class symbolizer
{
public:
    /** @p most: bytes of demangled names that are kept; what is beyond stays mangled. */
    symbolizer(krv_handle_t *handle, const symbol_table &function_symbols, uint64_t most)
        : hp(handle), symbols(function_symbols), most_text(most)
    {
    }

    /** The frames around an address, at most @p room of them, the innermost first; returns how many there are. */
    size_t find(uint64_t address, unsigned int flags, krv_elf_frame_t *frames, size_t room);
    /** The same of what was looked up already. */
    size_t describe(uint64_t address, unsigned int flags, const looked_up &known, krv_elf_frame_t *frames, size_t room);

private:
    krv_elf_frame_t frame_of(const krv_call_t &call, uint64_t address, unsigned int flags);
    bool take_symbol(uint64_t address, unsigned int flags, krv_elf_frame_t *frame);
    bool place_innermost(uint64_t address, const looked_up &known, krv_elf_frame_t *frame);
    bool find_gap(uint64_t address, krv_ctu_t *unit, source_place *place);
    void place_caller(const krv_call_t &call, krv_elf_frame_t *caller);
    const char *mangled_symbol(uint64_t start);
    const char *shown(const char *name, unsigned int flags);

    krv_handle_t *hp;
    const symbol_table &symbols;
    uint64_t most_text, kept_text = 0;
    std::vector<krv_call_t> calls;                       // room for those of one address
    std::unordered_map<const char *, std::string> plain; // demangled names, by where the mangled ones stand
    std::unordered_map<const char *, std::string> bases; // names of symbols without their versions, likewise
};

} // namespace krv_elf_loader

#endif
