// SPDX-License-Identifier: Apache-2.0
//
// Micro-benchmarks of the inner operations, on data that the builders make.
#include "builders/frames.h"
#include "builders/handle.h"
#include "krv_code.h"
#include "krv_frame.h"
#include "krv_info.h"
#include "krv_line.h"
#include "krv_unwind.h"

#include <benchmark/benchmark.h>

using namespace krv_test;

constexpr unsigned FUNCTIONS = 4096; // of 16 bytes each, from address 0x1000
constexpr uint64_t EH = 0x100000, HDR = 0x200000;

static void leb128(benchmark::State &state)
{
    handle h;
    krv_fd_t fd = h.cursor(bytes().uleb(uint64_t{1} << (7 * (state.range(0) - 1))));
    for (auto _ : state) {
        uint64_t value;
        krv_fd_t copy = fd;
        benchmark::DoNotOptimize(krv_decode(&copy, DW_FORM_udata, &value));
    }
}
BENCHMARK(leb128)->Arg(1)->Arg(2)->Arg(5)->Arg(9)->Arg(10)->ArgName("bytes");

static void form(benchmark::State &state)
{
    handle h;
    krv_fd_t fd = h.cursor(bytes().u64(0x1122334455667788));
    for (auto _ : state) {
        uint64_t value;
        krv_fd_t copy = fd;
        benchmark::DoNotOptimize(
            korva_decode_form(&copy, static_cast<krv_form_t>(state.range(0)), 0, &value, sizeof(value), nullptr));
    }
}
BENCHMARK(form)->Arg(DW_FORM_data1)->Arg(DW_FORM_addr)->Arg(DW_FORM_sec_offset)->ArgName("form");

static void entry(benchmark::State &state)
{
    handle h;
    h.attach(KRV_SEC_ABBREV,
             abbrevs("1 compile_unit+; 2 variable name:string decl_file:data1 decl_line:data2 type:ref4 "
                     "location:exprloc"));
    const bytes variable = bytes().uleb(2).cstr("counter").u8(1).u16(300).u32(11).block_uleb(bytes().u8(0x91).u8(0x68));
    h.attach(KRV_SEC_INFO, unit{.dies = bytes().uleb(1).add(variable).u8(0)}.build());
    krv_ctu_t *cu = korva_lookup_ctu_by_start_offset(h, KRV_SEC_INFO, 0);
    for (auto _ : state)
        krv_free_die(krv_alloc_die_by_cu_offset(h, cu, 12));
}
BENCHMARK(entry);

static void row(benchmark::State &state)
{
    std::string recipe = "at 400 copy ";
    for (int i = 0; i < 1000; ++i)
        recipe += "col 3 stmt sp 75 ";
    handle h;
    h.attach(KRV_SEC_LINE, line_unit{.program = program(recipe + "pc 4 end")}.build());
    krv_lnph_t *header = krv_lnph_alloc(h, nullptr, 0);
    for (auto _ : state) {
        krv_lnp_t *matrix = nullptr;
        krv_line_build_program(h, header, &matrix, nullptr, nullptr);
        krv_line_free_program(matrix);
    }
    state.SetItemsProcessed(state.iterations() * 1002);
    krv_lnph_free(header);
}
BENCHMARK(row);

// ---------------------------------------------------------------------------------------------------------------
// Frames
// ---------------------------------------------------------------------------------------------------------------

static const bytes prologue = bytes::hex("41 0e 10 86 02 43 0d 06 45 83 03 00"); // push, move, push

// The functions' records in an attached section.
static void attach_debug_frame(handle &h)
{
    bytes section = cie{.instructions = bytes::hex("0c 07 08 90 01")}.build();
    for (unsigned i = 0; i < FUNCTIONS; ++i)
        section += fde{.address = 0x1000 + 16 * i, .range = 16, .instructions = prologue}.build();
    h.attach(KRV_SEC_FRAME, section);
}

// The same in memory that only a call-back reads.
static void load_eh_frame(handle &h, reader *memory)
{
    bytes eh_frame = eh_cie{.instructions = bytes::hex("0c 07 08 90 01")}.build();
    eh_hdr hdr;
    for (uint64_t i = 0; i < FUNCTIONS; ++i) {
        hdr.entries.emplace_back(0x1000 + 16 * i, EH + eh_frame.size());
        eh_frame += eh_fde{.cie = EH, .address = 0x1000 + 16 * i, .range = 16, .instructions = prologue}.build(
            EH + eh_frame.size());
    }
    memory->base = EH;
    memory->contents = eh_frame.fill(HDR - EH - eh_frame.size()).add(hdr.build(HDR, EH));
    korva_attach_as(h, reader::read, memory);
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, EH);
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_HDR_ADDR, HDR);
}

static uint64_t next_address(uint64_t *seed)
{
    *seed = *seed * 6364136223846793005U + 1442695040888963407U;
    return 0x1000 + (*seed >> 33) % (16 * FUNCTIONS);
}

static void search_frames(benchmark::State &state, krv_handle_t *hp)
{
    krv_fde_room room;
    for (uint64_t seed = 1; auto _ : state)
        benchmark::DoNotOptimize(krv_get_fde_by_address(hp, next_address(&seed), &room));
}

static void fde_search_in_memory(benchmark::State &state)
{
    handle h;
    attach_debug_frame(h);
    search_frames(state, h);
}
BENCHMARK(fde_search_in_memory);

static void fde_search_by_call_back(benchmark::State &state)
{
    handle h;
    reader memory;
    load_eh_frame(h, &memory);
    search_frames(state, h);
    state.counters["reads"] = benchmark::Counter(memory.reads, benchmark::Counter::kAvgIterations);
}
BENCHMARK(fde_search_by_call_back);

static void rule_set(benchmark::State &state)
{
    handle h;
    attach_debug_frame(h);
    const krv_activation_owner ap(korva_activation_alloc(h));
    uint64_t column;
    for (uint64_t seed = 1; auto _ : state)
        krv_generate_rules(h, ap.get(), next_address(&seed), &column);
}
BENCHMARK(rule_set);

static void expression(benchmark::State &state)
{
    handle h;
    reader memory;
    korva_attach_as(h, reader::read, &memory);
    const krv_activation_owner ap(korva_activation_alloc(h));
    krv_exprstack_t *stack = korva_expr_alloc_stack(h);
    const krv_fd_t code = h.cursor(bytes::hex("08 10 08 20 22 31 24 12 1c 23 05")); // const1u, plus, shl, dup, ...
    for (auto _ : state) {
        krv_fd_t fd = code;
        korva_expr_reset_stack(h, stack);
        korva_expr_execute_expression(h, stack, ap.get(), &fd, 0, nullptr, nullptr, nullptr);
    }
    korva_expr_free_stack(stack);
}
BENCHMARK(expression);

BENCHMARK_MAIN();
