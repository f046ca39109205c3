// SPDX-License-Identifier: Apache-2.0
//
// What korva.hpp adds to the C interface, as far as the examples and the program do not show it: errors as values,
// owners that move, visitors that stop. The program looked at is tests/readme/target.c.
#include "korva.hpp"

#include <ucontext.h>
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
    const auto by_id = korva::elf::find({0xff, 0xee}, KRV_ELF_FIND_ANY);
    EXPECT_TRUE(!by_id && by_id.error().code == KRV_ELF_ERR_NOTFOUND);

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
    EXPECT_EQ((korva::error{korva::layer::library, KRV_ERR_IO, {}}.text()), "reading failed");
    EXPECT_EQ((korva::error{korva::layer::library, KRV_ERR_IO, {"cause\n", "caller"}}.text()), "cause; caller");
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

TEST(Hpp, SectionsHaveReaders)
{
    const std::uint8_t info[] = {8, 0, 0, 0, 4, 0, 0, 0, 0, 0, 8, 1}, abbrev[] = {1, 0x11, 0, 0, 0, 0};
    int calls = 0;
    const auto read = [&](std::uint64_t offset, void *buf, std::size_t count) {
        ++calls;
        return count <= sizeof(info) - offset && std::copy_n(info + offset, count, static_cast<std::uint8_t *>(buf));
    };
    auto handle = korva::handle::make(KRV_ACTIVATION_AMD64);
    EXPECT_EQ(handle->attach_section_reader(KRV_SEC_INFO, read).error().code, KRV_ERR_INVALID); // of no section
    ASSERT_TRUE(handle->attach_section(KRV_SEC_INFO, info, sizeof(info)) &&
                handle->attach_section(KRV_SEC_ABBREV, abbrev, sizeof(abbrev)) &&
                handle->attach_section_reader(KRV_SEC_INFO, read));
    int units = 0;
    for (korva::unit u : handle->units())
        units += *u.version() == 4 ? 1 : 0;
    EXPECT_EQ(units, 1);
    EXPECT_EQ(calls, 1);
}

TEST(Hpp, UnitsTellTheirVersionAndKind)
{
    const auto later = korva::elf::open(KORVA_TARGET_DWARF5);
    ASSERT_TRUE(later);
    for (korva::unit u : later->handle().units()) {
        EXPECT_EQ(*u.version(), 5u);
        EXPECT_EQ(u.kind()->kind, KRV_UNIT_COMPILE);
        EXPECT_EQ(u.kind()->dwo_name, nullptr);
        EXPECT_TRUE(korva::prefill(later->handle(), u));
    }
    EXPECT_EQ(later->source(later->symbol("answer")->address)->function, "answer");
    EXPECT_TRUE(later->refusal().empty());

    // Read as it stands, none of its units is understood.
    const auto raw = korva::elf::open(KORVA_TARGET_DWARF5, KRV_ELF_F_RAW);
    EXPECT_FALSE(raw->source(raw->symbol("answer")->address));
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
}

// Where the first frame of a walk of this stack is: file, line and number of frames seen.
[[gnu::noinline]] std::string here(const korva::process &self, unsigned int most)
{
    std::string where;
    const auto end = self.walk( // the line before the next frame's
        0,
        [&](const krv_proc_frame_t &frame) {
            const auto file = self.file(*frame.module);
            const auto source = file->source(frame.lookup_pc - frame.module->bias);
            where += std::to_string(frame.index) + " " +
                     (source ? source->path.substr(source->path.rfind('/') + 1) : source.error().text()) + " ";
        },
        most);
    return where + std::to_string(end.frames) + " " + end.message;
}

TEST(Hpp, ProcessesShowThemselves)
{
    const auto self = korva::process::self();
    ASSERT_TRUE(self);
    EXPECT_EQ(self->info().pid, getpid());
    const auto threads = self->threads();
    EXPECT_TRUE(std::any_of(threads.begin(), threads.end(), [](const auto &t) { return t.tid == getpid(); }));
    EXPECT_FALSE(self->regs(getpid())); // nothing is stopped

    const auto modules = self->modules();
    const auto address = reinterpret_cast<std::uint64_t>(&here);
    const krv_proc_module_t *own = self->module_of(address);
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(std::count(modules.begin(), modules.end(), own), 1);
    EXPECT_TRUE(self->handle(*own));
    unsigned char byte = 0;
    EXPECT_TRUE(self->read(address, &byte, 1));
    EXPECT_EQ(byte, *reinterpret_cast<const unsigned char *>(address));
    EXPECT_FALSE(self->read(1, &byte, 1));

    EXPECT_EQ(here(*self, 1), "0 hpp_test.cpp 1 more than 1 frames"); // not the header that walks
    ucontext_t context;
    ASSERT_EQ(getcontext(&context), 0);
    std::uint64_t pc = 0;
    self->walk_context(&context, [&](const krv_proc_frame_t &frame) {
        const auto regs = korva::activation_view(frame.handle, frame.activation).regs();
        pc = regs ? regs->get(KRV_HOST_RIP).value_or(0) : 0;
        return false;
    });
    EXPECT_EQ(pc, static_cast<std::uint64_t>(context.uc_mcontext.gregs[REG_RIP]));
}

TEST(Hpp, UnitsAreFoundByAddress)
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
    EXPECT_EQ(*elf.load_bias(0x10000, 0), 0x10000u);
}

TEST(Hpp, EntriesAreWalkedInEveryDirection)
{
    const auto elf = open_target();
    const auto handle = elf.handle();
    std::vector<korva::entry> named;
    ASSERT_TRUE(korva::each_named_entry(handle, "answer", KRV_NAMED_FUNCTIONS,
                                        [&](const korva::entry &e) { named.push_back(e); }));
    ASSERT_EQ(named.size(), 1u);
    const auto above = named[0].ancestors();
    ASSERT_TRUE(above);
    ASSERT_EQ(above->size(), 1u);
    std::vector<std::uint64_t> children, siblings, below;
    auto all = above->front().children();
    for (const korva::entry &child : all)
        children.push_back(child.offset());
    EXPECT_FALSE(all.failure());
    auto at = *korva::entry::at(handle, children.front());
    do
        siblings.push_back(at.offset());
    while (*at.next_sibling());
    EXPECT_EQ(children, siblings);
    EXPECT_EQ(std::count(children.begin(), children.end(), named[0].offset()), 1);
    for (const korva::entry &e : named[0].descendants())
        below.push_back(e.offset());
    EXPECT_TRUE(below.empty()); // not its siblings

    constexpr std::uint32_t DW_AT_name = 3, DW_AT_type = 0x49, DW_AT_low_pc = 0x11;
    EXPECT_EQ(named[0].find(DW_AT_name)->text(), "answer");
    EXPECT_EQ(named[0].follow(*named[0].find(DW_AT_type))->find(DW_AT_name)->text(), "int");
    EXPECT_EQ(above->front().find(DW_AT_type).error().code, KRV_ERR_NOTFOUND);
    EXPECT_FALSE(named[0].follow(*named[0].find(DW_AT_name)));

    const auto ranges = named[0].ranges();
    ASSERT_TRUE(ranges);
    EXPECT_EQ(ranges->front().start, named[0].find(DW_AT_low_pc)->number);
    const std::uint64_t asked[] = {1, ranges->front().start};
    std::vector<std::size_t> lengths;
    EXPECT_TRUE(*korva::each_chain(handle, asked, 2, KRV_CHAINS_F_ASCENDING,
                                   [&](std::size_t, const krv_row_t &row, korva::span<const krv_call_t> chain) {
                                       lengths.push_back(chain.size());
                                       EXPECT_EQ(row.number == KRV_ROW_NONE, chain.size() == 0);
                                   }));
    EXPECT_EQ(lengths, (std::vector<std::size_t>{0, 1}));
    const auto why = korva::explain_unit(handle, asked[1]);
    EXPECT_EQ(why->unit, named[0].unit().get());
    EXPECT_EQ(korva::explain_row(handle, named[0].unit(), {asked[1], asked[1] + 1}, asked[1])->row.address, asked[1]);
    EXPECT_EQ(korva::explain_name(handle, named[0].get())->name_entry, named[0].offset());
    const auto frames = elf.frame_handle();
    const auto of_frame = korva::explain_frame(*frames, asked[1]); // at its first instruction
    ASSERT_TRUE(of_frame) << of_frame.error().text();
    EXPECT_EQ(of_frame->rules.front().reg, KRV_RULE_CFA);
    EXPECT_EQ(of_frame->rules.front().offset, 8);
    const auto scratch = korva::activation::make(*frames);
    EXPECT_EQ(korva::frame_record_at(*frames, *scratch, of_frame->records.fde)->start, asked[1]);
    EXPECT_FALSE(korva::section_of(handle, KRV_SEC_EXT_NAMES));
    const auto file = korva::file_of(handle, named[0].unit(), named[0].call()->decl_file);
    EXPECT_EQ(file->path.substr(file->path.rfind('/') + 1), "target.c");
}

TEST(Hpp, RegistersGoInAndOut)
{
    auto handle = korva::handle::make(KRV_ACTIVATION_AMD64);
    auto frame = korva::activation::make(*handle);
    korva::registers regs;
    regs.general[KRV_HOST_RDI] = 0x11223344;
    regs.mask = 1u << KRV_HOST_RDI;
    ASSERT_TRUE(frame->set_regs(regs));
    EXPECT_EQ(*frame->regs()->get(KRV_HOST_RDI), 0x11223344u);
}

} // namespace
