// SPDX-License-Identifier: Apache-2.0
//
// What korva.hpp adds to the C interface, as far as the examples do not show it: errors as values, owners that move,
// visitors that stop, columns and files that belong together. The program looked at is tests/readme/target.c.
#include "korva.hpp"

#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace
{

korva::elf open_target()
{
    auto opened = korva::elf::open(KORVA_TARGET);
    EXPECT_TRUE(opened);
    return std::move(*opened);
}

TEST(Hpp, ErrorsAreValuesWithCodeAndMessages)
{
    const auto missing = korva::elf::open("/nowhere");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().layer, korva::layer::loader);
    EXPECT_EQ(missing.error().code, KRV_ELF_ERR_SYSTEM);
    EXPECT_NE(missing.error().text().find("/nowhere"), std::string::npos);

    EXPECT_FALSE(korva::handle::make(KRV_ACTIVATION_MAX));
    EXPECT_EQ(korva::process::attach(0x7fffffff).error().code, KRV_ELF_ERR_NOTFOUND);

    auto handle = korva::handle::make(KRV_ACTIVATION_AMD64);
    auto stack = korva::stack::make(*handle);
    EXPECT_EQ(stack->pop().error().code, KRV_ERR_INVALID);
    EXPECT_TRUE(stack->push(7));
    EXPECT_EQ(*stack->pop(), 7u);
    auto frame = korva::activation::make(*handle);
    EXPECT_EQ(frame->reg(KRV_ACTIVATION_REG_DWARF, 0).error().code, KRV_ERR_NOTFOUND);
    const auto unwound = frame->unwind();
    ASSERT_FALSE(unwound);
    EXPECT_EQ(unwound.error().code, KRV_ERR_UNSUPPORTED); // no address space
    EXPECT_FALSE(unwound.error().messages.empty());
    EXPECT_EQ((korva::error{korva::layer::library, KRV_ERR_IO, {}}.text()), "error 1");
    EXPECT_EQ((korva::error{korva::layer::library, KRV_ERR_IO, {"cause", "caller"}}.text()), "cause; caller");
}

TEST(Hpp, MemoryThatCannotBeReadIsAnError)
{
    auto handle = korva::handle::make(KRV_ACTIVATION_AMD64);
    const auto nothing = [](std::uint64_t, void *, std::size_t) { return false; };
    ASSERT_TRUE(handle->attach_memory(nothing));
    auto stack = korva::stack::make(*handle);
    auto frame = korva::activation::make(*handle);
    const std::uint8_t deref[] = {0x31, 0x06}; // DW_OP_lit1, DW_OP_deref
    EXPECT_EQ(stack->evaluate(*frame, deref, sizeof(deref)).error().code, KRV_ERR_IO);
}

TEST(Hpp, OwnersMove)
{
    auto first = open_target();
    krv_elf_t *opened = first.get();
    korva::elf second = std::move(first); // closed once: the leak checker and the address sanitizer watch
    EXPECT_EQ(second.get(), opened);
    EXPECT_EQ(second.info().target, KRV_ACTIVATION_AMD64);
    EXPECT_FALSE(second.handle().units().empty());
}

TEST(Hpp, VisitorsStopAndGoOn)
{
    const auto elf = open_target();
    int seen = 0;
    EXPECT_FALSE(*elf.handle().each_unit([&](korva::unit) { return ++seen < 1; }));
    EXPECT_EQ(seen, 1);
    EXPECT_TRUE(*elf.handle().each_unit([&](korva::unit) { ++seen; }));
    EXPECT_GE(seen, 2); // the target has a unit; a sanitizer may add its own

    const auto self = korva::process::self();
    const auto end = self->walk(0, [](const krv_proc_frame_t &) { return false; });
    EXPECT_EQ(end.reason, KRV_PROC_END_STOPPED);
    EXPECT_EQ(end.frames, 1u);
    const auto threads = self->threads();
    EXPECT_TRUE(std::any_of(threads.begin(), threads.end(), [](const auto &t) { return t.tid == getpid(); }));
}

TEST(Hpp, UnitsRowsAndFilesBelongTogether)
{
    const auto elf = open_target();
    const auto symbols = elf.symbols();
    const krv_elf_symbol_t *answer = elf.symbol("answer");
    ASSERT_NE(answer, nullptr);
    EXPECT_TRUE(std::any_of(symbols.begin(), symbols.end(), [&](const auto &s) { return s.name == answer->name; }));

    const auto unit = elf.handle().unit_of(answer->address);
    ASSERT_TRUE(unit);
    EXPECT_EQ(unit->header()->version, 4);
    EXPECT_TRUE(unit->producer());
    EXPECT_TRUE(unit->comp_dir());
    EXPECT_FALSE(*unit->contains(1));
    EXPECT_EQ(elf.handle().unit_of(1).error().code, KRV_ERR_NOTFOUND);

    const auto rows = unit->rows();
    const auto files = unit->files();
    ASSERT_TRUE(rows && files);
    const auto row =
        std::find_if(rows->begin(), rows->end(), [&](const auto &r) { return r.address == answer->address; });
    ASSERT_NE(row, rows->end());
    EXPECT_TRUE(row->is_stmt);
    EXPECT_TRUE(rows->back().end_sequence);
    ASSERT_LE(row->file, files->size());
    const auto source = elf.source(answer->address);
    ASSERT_TRUE(source);
    EXPECT_EQ(source->line, row->line);
    EXPECT_EQ(source->path, (*files)[row->file - 1].path);
    EXPECT_EQ((*files)[row->file - 1].name, "target.c");
}

} // namespace
