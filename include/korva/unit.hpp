// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: compilation units and their line numbers.
 */
#ifndef KORVA_UNIT_HPP
#define KORVA_UNIT_HPP

#include <cstdint>
#include <cstring>

#include "error.hpp"

namespace korva
{

/** A row of a line-number matrix, or the registers of the line-number machine. */
struct row {
    std::uint64_t address = 0;           /**< without the bias of KRV_OPT_BASE_ADDR */
    std::uint64_t canonical_address = 0; /**< lowest address of its file and line; without the bias; 0 of registers */
    std::uint32_t op_index = 0;
    std::uint32_t file = 0; /**< file register: 1 is the first of unit::files() */
    std::uint32_t line = 0;
    std::uint16_t column = 0;
    std::uint16_t isa = 0;
    std::uint16_t discriminator = 0;
    bool is_stmt = false;
    bool basic_block = false;
    bool end_sequence = false;
    bool prologue_end = false;
    bool epilogue_begin = false;
};

/** A file of a line-number header. Its strings live as long as the handle; data() is nullptr where there is none. */
struct file {
    std::string_view path; /**< compilation directory, include directory and name, composed */
    std::string_view name; /**< as the program gives it */
};

/** A stretch of addresses. */
struct range {
    std::uint64_t start = 0;
    std::uint64_t end = 0; /**< exclusive */
};

/** Where an address comes from. */
struct source {
    std::string path;                /**< empty when the row names no file */
    std::uint32_t line = 0;          /**< 0 when not known */
    std::uint16_t column = 0;        /**< 0 when not known */
    std::uint16_t discriminator = 0; /**< 0 when there is none */
    std::uint64_t canonical_address = 0;
    /**
     * The ELF symbol that covers the address, as the file spells it; empty when there is none, and from unit::source().
     * Where the compiler inlined a call, the line is that of the innermost one, and this the function that contains it.
     */
    std::string function;
};

/** The same, without copies. */
struct source_view {
    const char *path = nullptr;      /**< nullptr when the row names no file; lives as long as the handle */
    std::uint32_t line = 0;          /**< 0 when not known */
    std::uint16_t column = 0;        /**< 0 when not known */
    std::uint16_t discriminator = 0; /**< 0 when there is none */
};

/** What is known of a unit and an address. */
enum class coverage {
    no,
    yes,
    unknown /**< KRV_LOOKUP_F_FAST: only a look at the unit's entries can tell */
};

/** An opcode of a line-number program that has taken effect. Valid during the call of the visitor. */
struct line_operation {
    std::uint64_t offset;              /**< in .debug_line */
    std::uint8_t opcode;               /**< 0 for every extended one */
    span<krv_value_t *const> operands; /**< as the table at krv_iter_lne_f lists them */
    krv_handle_t *hp;
    krv_lns_t *state;

    /** The registers after it. */
    row registers() const;
};

namespace detail
{

/** Calls func(KRV_FIELD_LNS_*, type that the field is read as, member) for each field of a row; false ends it. */
template <typename F>
bool each_field(F &&func)
{
    return func(KRV_FIELD_LNS_ADDRESS, std::uint64_t{}, &row::address) &&
           func(KRV_FIELD_LNS_C_ADDRESS, std::uint64_t{}, &row::canonical_address) &&
           func(KRV_FIELD_LNS_OP_INDEX, std::uint32_t{}, &row::op_index) &&
           func(KRV_FIELD_LNS_FILE, std::uint32_t{}, &row::file) &&
           func(KRV_FIELD_LNS_LINE, std::uint32_t{}, &row::line) &&
           func(KRV_FIELD_LNS_COLUMN, std::uint16_t{}, &row::column) &&
           func(KRV_FIELD_LNS_ISA, std::uint16_t{}, &row::isa) &&
           func(KRV_FIELD_LNS_DISCRIMINATOR, std::uint16_t{}, &row::discriminator) &&
           func(KRV_FIELD_LNS_IS, boolean_t{}, &row::is_stmt) &&
           func(KRV_FIELD_LNS_BB, boolean_t{}, &row::basic_block) &&
           func(KRV_FIELD_LNS_ES, boolean_t{}, &row::end_sequence) &&
           func(KRV_FIELD_LNS_PE, boolean_t{}, &row::prologue_end) &&
           func(KRV_FIELD_LNS_EB, boolean_t{}, &row::epilogue_begin);
}

} // namespace detail

/** A compilation unit. A view: it lives as long as its handle. */
class unit
{
public:
    unit(krv_handle_t *hp, krv_ctu_t *cup) : hp_(hp), cup_(cup) {}
    /** For the C functions; still owned by whoever owns it now. */
    krv_ctu_t *get() const { return cup_; }

    /** What the unit's header says. */
    result<krv_cu_header_t> header() const
    {
        krv_cu_header_t header = {};
        if (korva_cu_get_header(hp_, cup_, &header) != 0)
            return last_error(hp_);
        return header;
    }

    /** The version of DWARF that it is written in. */
    result<std::uint16_t> version() const
    {
        const result<krv_cu_header_t> known = header();
        if (!known)
            return known.error();
        return known->version;
    }
    /** What kind of unit it is: KRV_UNIT_*, and for a skeleton the file that it waits for (dwo_name). */
    result<krv_cu_kind_t> kind() const
    {
        krv_cu_kind_t kind = {};
        if (korva_cu_get_kind(hp_, cup_, &kind) != 0)
            return last_error(hp_);
        return kind;
    }

    /** The unit's own entry, for the C functions. */
    result<krv_die_t *> entry() const
    {
        krv_die_t *die = nullptr;
        if (korva_get_cu_cudie(hp_, cup_, &die) != 0)
            return last_error(hp_);
        return die;
    }
    /** DW_AT_name of the unit's entry, whole; KRV_ERR_NOTFOUND when it has none. */
    result<std::string> name() const { return text(korva_get_die_at_name); }
    /** DW_AT_comp_dir, as name(). */
    result<std::string> comp_dir() const { return text(korva_get_die_at_comp_dir); }
    /** DW_AT_producer, as name(). */
    result<std::string> producer() const { return text(korva_get_die_at_producer); }

    /** Whether an address range of the unit covers @p address. */
    result<coverage> covers(std::uint64_t address, krv_lookup_flag_t flags = KRV_LOOKUP_F_NONE) const
    {
        if (korva_cu_contains_addr(hp_, cup_, address, flags))
            return coverage::yes;
        switch (korva_handle_get_errno(hp_)) {
        case KRV_ERR_NOTFOUND:
            return coverage::no;
        case KRV_ERR_NONE:
            return coverage::unknown;
        default:
            return last_error(hp_);
        }
    }
    /** The same in two words: what is not known counts as no. */
    result<bool> contains(std::uint64_t address, krv_lookup_flag_t flags = KRV_LOOKUP_F_NONE) const
    {
        const result<coverage> known = covers(address, flags);
        if (!known)
            return known.error();
        return *known == coverage::yes;
    }

    /** The source of @p address, which lies in the function [@p start, @p start + @p size). */
    result<korva::source> source(std::uint64_t address, std::uint64_t start, std::uint64_t size) const
    {
        const result<korva::source_view> seen = source_view(address, start, size);
        if (!seen)
            return seen.error();
        krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp_, cup_, start, size, address, 0);
        korva::source found;
        if (row == nullptr || korva_lns_get_canonical_address(hp_, row, &found.canonical_address) != 0)
            return last_error(hp_);
        found.path = seen->path == nullptr ? "" : seen->path;
        found.line = seen->line;
        found.column = seen->column;
        found.discriminator = seen->discriminator;
        return found;
    }
    /** As source(), without copies. */
    result<korva::source_view> source_view(std::uint64_t address, std::uint64_t start, std::uint64_t size) const
    {
        krv_row_t row;
        char *path = nullptr;
        if (korva_lookup_row(hp_, cup_, start, size, address, &row) != 0 ||
            (row.file != nullptr &&
             korva_get_fields(hp_, KRV_STRUCT_LNFE, row.file, 1, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path) != 0))
            return last_error(hp_);
        return korva::source_view{path, row.line, row.column, row.discriminator};
    }

    /** The unit's line-number header, for the C functions. KRV_ERR_NOTFOUND when the unit has no line numbers. */
    result<krv_lnph_t *> line_header() const
    {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp_, cup_);
        if (header == nullptr)
            return last_error(hp_);
        return header;
    }

    /** The rows of the unit's line-number matrix, in its order. KRV_ERR_NOTFOUND when the unit has no line numbers. */
    result<std::vector<row>> rows() const
    {
        unsigned int count = 0;
        krv_lnp_t *matrix = open_matrix(&count);
        if (matrix == nullptr)
            return last_error(hp_);
        std::vector<row> rows(count);
        const bool read = detail::each_field([&](int field, auto type, auto member) {
            std::vector<decltype(type)> column(count); // one at a time
            if (korva_get_fields(hp_, KRV_STRUCT_LNP, matrix, 1, field, column.data()) != 0)
                return false;
            for (unsigned int i = 0; i < count; ++i)
                rows[i].*member = column[i];
            return true;
        });
        if (!read)
            return last_error(hp_);
        return rows;
    }

    /** The stretches of code that the matrix describes, in its order. KRV_ERR_NOTFOUND as rows(). */
    result<std::vector<range>> sequences() const
    {
        unsigned int count = 0;
        krv_lnp_t *matrix = open_matrix(&count);
        if (matrix == nullptr)
            return last_error(hp_);
        std::vector<std::uint64_t> addresses(count);
        std::vector<boolean_t> ends(count);
        if (korva_get_fields(hp_, KRV_STRUCT_LNP, matrix, 2, KRV_FIELD_LNS_ADDRESS, addresses.data(), KRV_FIELD_LNS_ES,
                             ends.data()) != 0)
            return last_error(hp_);
        std::vector<range> found;
        for (unsigned int i = 0, first = 0; i < count; ++i)
            if (ends[i] != B_FALSE) {
                found.push_back({addresses[first], addresses[i]});
                first = i + 1;
            }
        return found;
    }

    /** The files of the unit's line-number header; row::file counts them from first_file_number(). */
    result<std::vector<korva::file>> files() const
    {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp_, cup_);
        krv_lnfe_t **entries = nullptr;
        std::uint64_t count = 0;
        if (header == nullptr || korva_get_fields(hp_, KRV_STRUCT_LNPH, header, 2, KRV_FIELD_LNPH_FILES, &entries,
                                                  KRV_FIELD_LNPH_FILES_ENTRIES, &count) != 0)
            return last_error(hp_);
        std::vector<korva::file> files(count);
        for (std::uint64_t i = 0; i < count; ++i) {
            char *path = nullptr, *name = nullptr;
            if (korva_get_fields(hp_, KRV_STRUCT_LNFE, entries[i], 2, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path,
                                 KRV_FIELD_LNFE_PATH, &name) != 0)
                return last_error(hp_);
            if (path != nullptr)
                files[i].path = path;
            if (name != nullptr)
                files[i].name = name;
        }
        return files;
    }

    /** What rows call the first of files(): 1, or 0 where the line-number header is of version 5. */
    result<std::uint32_t> first_file_number() const
    {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp_, cup_);
        std::uint16_t version = 0;
        if (header == nullptr ||
            korva_get_fields(hp_, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_VERSION, &version) != 0)
            return last_error(hp_);
        return version < 5 ? 1U : 0U;
    }

    /**
     * Runs the unit's line-number program afresh and calls func(const line_operation &) after each opcode. True: it saw
     * all of them; false: it stopped. See korva_iter_line_entry.
     */
    template <typename F>
    result<bool> each_line_operation(F &&func) const
    {
        using Func = std::remove_reference_t<F>;
        krv_lnph_t *header = korva_line_get_cu_lnph(hp_, cup_);
        if (header == nullptr)
            return last_error(hp_);
        return detail::walked(hp_, korva_iter_line_entry(
                                       hp_, header,
                                       [](krv_handle_t *hp, unsigned long offset, unsigned char opcode,
                                          krv_value_t **values, unsigned int nvalues, krv_lns_t *state, void *arg) {
                                           return detail::visit(
                                               *static_cast<Func *>(arg),
                                               line_operation{offset, opcode, {values, nvalues}, hp, state});
                                       },
                                       detail::argument(func)));
    }

private:
    krv_lnp_t *open_matrix(unsigned int *countp) const
    {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp_, cup_);
        krv_lnp_t *matrix = nullptr;
        if (header == nullptr || korva_get_fields(hp_, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_LNP, &matrix) != 0 ||
            korva_get_fields(hp_, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNP_ENTRIES, countp) != 0)
            return nullptr;
        return matrix;
    }

    result<std::string> text(int (*copy)(krv_handle_t *, krv_die_t *, char *, std::size_t)) const
    {
        const result<krv_die_t *> die = entry();
        if (!die)
            return die.error();
        for (std::size_t size = 4096;; size *= 2) {
            std::string buf(size, '\0');
            if (copy(hp_, *die, buf.data(), size) != 0)
                return last_error(hp_);
            buf.resize(std::strlen(buf.c_str()));
            if (buf.size() < size - 1) // else it may have been cut
                return buf;
        }
    }

    krv_handle_t *hp_;
    krv_ctu_t *cup_;
};

inline row line_operation::registers() const
{
    row now;
    detail::each_field([&](int field, auto type, auto member) {
        korva_get_fields(hp, KRV_STRUCT_LNS, state, 1, field, &type); // cannot fail: a row has these fields
        now.*member = type;
        return true;
    });
    return now;
}

} // namespace korva

#endif // KORVA_UNIT_HPP
