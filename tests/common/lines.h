// SPDX-License-Identifier: Apache-2.0
//
// A unit whose line numbers are given, and its rows as text.
#ifndef KRV_TEST_LINES_H
#define KRV_TEST_LINES_H

#include "krv_line.h"

#include "builders/sections.h"
#include "support/handle.h"

namespace krv_test
{

// A handle with one unit, whose line-number program is at offset 0.
struct lines {
    handle h;
    krv_ctu_t *cu;

    explicit lines(const bytes &section, const char *comp_dir = nullptr,
                   krv_activation_type_t target = KRV_ACTIVATION_AMD64, uint32_t extensions = 0)
        : h(target)
    {
        h.extend(extensions);
        korva_handle_add_code(h, 0x400, 0xc00);
        const bytes root = comp_dir == nullptr ? bytes().uleb(1).u32(0) : bytes().uleb(2).u32(0).cstr(comp_dir);
        const char *recipe = "1 compile_unit stmt_list:data4; 2 compile_unit stmt_list:sec_offset comp_dir:string";
        cu = h.attach(KRV_SEC_LINE, section).first_unit(abbrevs(recipe), unit{.dies = root}.build());
    }
    explicit lines(const char *recipe) : lines(line_unit{.program = program(recipe)}.build()) {}

    krv_lnph_t *header() { return korva_line_get_cu_lnph(h, cu); }
    krv_lnp_t *matrix()
    {
        krv_lnph_t *lnphp = header();
        return lnphp == nullptr ? nullptr : krv_line_get_matrix(h, lnphp);
    }
};

// "400.1 1:9:3 IBPE i2 d3 ^380": address, op_index, file, line, column, flags (G: end of a sequence), isa,
// discriminator, canonical address; what is 0 or the same is left out.
inline std::string to_text(krv_handle_t *h, krv_lns_t *row, bool stored)
{
    const krv_line_state_t r = krv_lns_get(row);
    std::string line = text("%lx", r.slns_address), flags;
    for (int bit = 0; bit < 5; ++bit)
        if ((r.slns_flags >> bit & 1) != 0)
            flags += "IBGPE"[bit];
    line += r.slns_op_index == 0 ? "" : text(".%u", r.slns_op_index);
    line += text(" %u:%u", r.slns_file, r.slns_line);
    line += r.slns_column == 0 ? "" : text(":%u", r.slns_column);
    line += flags.empty() ? "" : " " + flags;
    line += r.slns_isa == 0 ? "" : text(" i%u", r.slns_isa);
    line += r.slns_discriminator == 0 ? "" : text(" d%u", r.slns_discriminator);
    const uint64_t canonical = krv_lns_canonical_address(h, row);
    return line + (!stored || canonical == r.slns_address ? "" : text(" ^%lx", canonical));
}

// The rows, and the sequences as "[400,410)"; or the error state.
inline std::string to_text(handle &h, krv_lnp_t *lnpp)
{
    if (lnpp == nullptr)
        return h.error();
    std::string rows;
    for (unsigned i = 0; i < lnpp->slnp_lnsp_entries; ++i)
        rows += (i == 0 ? "" : "; ") + to_text(h, krv_lnp_hand_out(h, lnpp, i), true);
    for (unsigned i = 0; i < lnpp->slnp_lnbp_entries; ++i)
        rows += text(" [%lx,%lx)", lnpp->slnp_lnbp[i].slnb_start_addr, lnpp->slnp_lnbp[i].slnb_end_addr);
    return rows;
}

} // namespace krv_test

#endif
