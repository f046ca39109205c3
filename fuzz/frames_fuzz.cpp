// SPDX-License-Identifier: Apache-2.0
//
// Call-frame sections that are sound but for the fields that the input breaks, and walks through their functions:
// what plain bytes do not reach behind lengths, CIE pointers and the sorted search table.
#include "builders/frames.h"
#include "walk.h"

#include <algorithm>
#include <fuzzer/FuzzedDataProvider.h>

using namespace krv_test;

static constexpr uint64_t HDR = krv_fuzz::BASE, EH_FRAME = krv_fuzz::BASE + 0x100, STACK = krv_fuzz::BASE + 0x1000;
static constexpr uint64_t TEXT = 0x1000, FUNCTION = 0x40;

// One value in eight is the input's, not ours.
template <typename T>
static T broken(FuzzedDataProvider &in, T sound)
{
    return (in.ConsumeIntegral<uint8_t>() & 7) == 7 ? in.ConsumeIntegral<T>() : sound;
}

static number broken_length(FuzzedDataProvider &in)
{
    return (in.ConsumeIntegral<uint8_t>() & 15) == 15 ? number(in.ConsumeIntegral<uint64_t>()) : number();
}

static bytes some(FuzzedDataProvider &in, size_t most)
{
    bytes b;
    for (const uint8_t byte : in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, most)))
        b.u8(byte);
    return b;
}

// A sound beginning, the CFA and the return address, and what the input adds.
static bytes initial_instructions(FuzzedDataProvider &in, size_t word)
{
    bytes b;
    if (in.ConsumeBool())
        b.u8(DW_CFA_def_cfa).uleb(word == 8 ? 7 : 4).uleb(word).u8(DW_CFA_offset | (word == 8 ? 16 : 8)).uleb(1);
    return b.add(some(in, 24));
}

static bytes debug_frame(FuzzedDataProvider &in, unsigned functions, size_t word)
{
    static constexpr uint8_t versions[] = {1, 3, 4};
    bytes b;
    uint64_t parent = 0;
    for (unsigned i = 0; i < functions; ++i) {
        const bool wide = in.ConsumeBool();
        if (i == 0 || in.ConsumeBool()) {
            parent = b.size();
            const uint8_t version = broken(in, in.PickValueInArray(versions));
            cie c{.dwarf64 = wide, .length = broken_length(in), .version = version};
            c.id = broken<uint64_t>(in, UINT64_MAX);
            c.augmentation = in.ConsumeBool() ? "" : in.ConsumeRandomLengthString(6).c_str();
            c.address_size = broken(in, static_cast<uint8_t>(word));
            c.code_align = broken<uint64_t>(in, 1);
            c.data_align = broken(in, -static_cast<int64_t>(word));
            const uint64_t column = broken<uint64_t>(in, word == 8 ? 16 : 8);
            c.column = version == 1 ? bytes().u8(column) : bytes().uleb(column);
            c.instructions = initial_instructions(in, word);
            c.word = word;
            b.add(c.build());
        }
        fde f{.dwarf64 = wide, .length = broken_length(in), .cie = broken(in, parent)};
        f.address = broken(in, TEXT + i * FUNCTION);
        f.range = broken(in, FUNCTION);
        f.address_size = word;
        f.instructions = some(in, 32);
        f.word = word;
        b.add(f.build());
    }
    return b;
}

static bytes eh_frame(FuzzedDataProvider &in, unsigned functions, size_t word, eh_hdr *table)
{
    static constexpr uint8_t encodings[] = {0x1b, 0x1c, 0x3b, 0x03, 0x0b, 0x00, 0x1a};
    bytes b;
    uint64_t parent = 0;
    uint8_t encoding = 0;
    bool augmented = false;
    for (unsigned i = 0; i < functions; ++i) {
        if (i == 0 || in.ConsumeBool()) {
            parent = EH_FRAME + b.size();
            encoding = broken(in, in.PickValueInArray(encodings));
            augmented = (in.ConsumeIntegral<uint8_t>() & 3) != 0;
            eh_cie c{.length = broken_length(in), .version = broken<uint8_t>(in, 1)};
            c.id = broken<uint64_t>(in, 0);
            c.augmentation = augmented ? in.ConsumeBool() ? "zR" : "z" + in.ConsumeRandomLengthString(4) : "";
            c.augmentation = c.augmentation.c_str(); // up to a NUL
            c.data = bytes().u8(encoding).add(some(in, 12));
            c.data_length = broken_length(in);
            c.code_align = broken<uint64_t>(in, 1);
            c.data_align = broken(in, -static_cast<int64_t>(word));
            c.column = broken<uint64_t>(in, word == 8 ? 16 : 8);
            c.instructions = initial_instructions(in, word);
            b.add(c.build());
        }
        eh_fde f{.length = broken_length(in), .cie = parent, .encoding = encoding};
        f.address = broken(in, TEXT + i * FUNCTION);
        f.range = broken(in, FUNCTION);
        f.augmented = augmented;
        f.data = some(in, 8);
        f.data_length = broken_length(in);
        f.instructions = some(in, 32);
        table->entries.emplace_back(broken(in, TEXT + i * FUNCTION), broken(in, EH_FRAME + b.size()));
        b.add(f.build(EH_FRAME + b.size()));
    }
    return in.ConsumeBool() ? b.u32(0) : b;
}

static std::vector<uint8_t> contents(const bytes &b)
{
    return {b.data(), b.data() + b.size()};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input how(data, std::min<size_t>(size, 2));
    FuzzedDataProvider in(data + std::min<size_t>(size, 2), size - std::min<size_t>(size, 2));
    krv_fuzz::handle h(how);
    const size_t word = how.target() == KRV_ACTIVATION_AMD64 ? 8 : 4;
    const auto functions = in.ConsumeIntegralInRange<unsigned>(1, 5);

    bytes memory;
    std::vector<uint8_t> section; // .debug_frame, else .eh_frame is in memory
    bool has_table = false;
    if (in.ConsumeBool()) {
        section = contents(debug_frame(in, functions, word));
    } else {
        eh_hdr table{.fp_encoding = broken<uint8_t>(in, 0x1b), .count_encoding = broken<uint8_t>(in, 0x03)};
        table.table_encoding = broken<uint8_t>(in, 0x3b);
        table.count = broken_length(in);
        const bytes frames = eh_frame(in, functions, word, &table);
        memory = table.build(HDR, EH_FRAME);
        memory.fill(EH_FRAME - HDR - memory.size()).add(frames);
        has_table = in.ConsumeBool();
    }
    if (memory.size() < STACK - HDR)
        memory.fill(STACK - HDR - memory.size());
    for (unsigned i = 0; i < 32; ++i) // return addresses and frame pointers
        memory.uint(i % 2 == 0 ? TEXT + i * 8 : STACK + i * word, word);
    krv_fuzz::source target{contents(memory), how.mode, 0};
    const auto attach = [&](krv_fuzz::handle &of) {
        of.attach(KRV_SEC_FRAME, section);
        if (section.empty())
            korva_handle_set_opt(of, KRV_OPT_EH_FRAME_ADDR, EH_FRAME);
        if (has_table)
            korva_handle_set_opt(of, KRV_OPT_EH_FRAME_HDR_ADDR, HDR);
        korva_attach_as(of, krv_fuzz::read_memory, &target);
    };
    attach(h);

    krv_activation_t *ap = korva_activation_alloc(h);
    krv_gregset_t gregs = {};
    for (krv_greg_t &reg : gregs)
        reg = static_cast<krv_greg_t>(STACK);
    const uint64_t pcs[] = {TEXT + FUNCTION / 2, TEXT + FUNCTION, broken<uint64_t>(in, TEXT + 5 * FUNCTION - 1)};
    for (const uint64_t pc : pcs) {
        krv_fuzz::start_at(h, ap, gregs, pc);
        krv_fuzz::walk(h, ap);
        krv_frame_why_t why;
        krv_rule_record_t rules[4];
        size_t count;
        if (korva_explain_frame(h, pc, &why, rules, std::size(rules), &count) == 0 &&
            (why.has_fde == 0 || count == 0 || pc < why.row.start || (why.row.end != 0 && pc >= why.row.end)))
            __builtin_trap(); // rules of another place
    }
    krv_frame_record_t record;
    uint64_t at = 0;
    for (unsigned i = 0; i < 16 && (korva_frame_record_at(h, ap, at, &record), record.size != 0); ++i)
        at += record.size;
    krv_fuzz::compare_kept(how, attach, has_table, gregs, pcs, &target);
    korva_activation_free(ap);
    return 0;
}
