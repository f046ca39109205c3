// SPDX-License-Identifier: Apache-2.0
//
// The functions around an address. What compilers write is held against other tools by the tests of the program; here is the
// interface: one address or many, little room, what is not known.
#include "loader/loader_fixture.h"

#include <algorithm>

namespace
{

using namespace krv_test;

constexpr char SOURCE[] =
    "namespace n {\n"
    "inline __attribute__((always_inline)) int inner(volatile int *p) { return *p / 3; }\n"
    "inline __attribute__((always_inline)) int middle(volatile int *p) { return inner(p) + *p; }\n"
    "int outer(volatile int *p) { return middle(p) * 2; }\n"
    "}\n"
    "int main() { volatile int i = 7; return n::outer(&i); }\n";

std::string describe(const krv_elf_frame_t &frame)
{
    const std::string path = frame.file;
    return text("%s %s%s:%u%s%s", frame.function, frame.origin == KRV_ELF_FRAME_SYMBOLS ? "(symbol) " : "",
                path.substr(path.rfind('/') + 1).c_str(), frame.line, frame.column != 0 ? "" : " no column",
                frame.is_inlined != 0 ? " inlined; " : "");
}

std::string describe(const krv_elf_frame_t *frames, size_t count)
{
    std::string all;
    for (size_t i = 0; i < count; ++i)
        all += describe(frames[i]);
    return all;
}

class Symbolizer : public Loader
{
public:
    void SetUp() override
    {
        Loader::SetUp();
        std::ofstream(dir / "n.cpp") << SOURCE;
    }

    std::string ask(const elf_ptr &elf, uint64_t address, unsigned flags)
    {
        std::vector<krv_elf_frame_t> frames(8);
        size_t count = 0;
        if (korva_elf_symbolize(elf.get(), address, flags, frames.data(), frames.size(), &count, &error) != 0)
            return error.message;
        return describe(frames.data(), count);
    }
};

TEST_F(Symbolizer, InnermostFirst)
{
    for (const char *version : {"-gdwarf-4", "-gdwarf-5"}) {
        ASSERT_TRUE(compile(std::string(version) + " -O2 n.cpp -o n"));
        const elf_ptr elf = open("n");
        const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf.get(), "_ZN1n5outerEPVi");
        ASSERT_NE(outer, nullptr);
        std::vector<uint64_t> addresses(outer->size);
        std::generate(addresses.begin(), addresses.end(),
                      [at = outer->address + outer->size]() mutable { return --at; });
        const std::string wanted = "n::inner(int volatile*) n.cpp:2 inlined; n::middle(int volatile*) n.cpp:3 inlined; "
                                   "n::outer(int volatile*) n.cpp:4";
        size_t found = 0, visited = 0;
        struct asked {
            Symbolizer *test;
            const elf_ptr *elf;
            const std::vector<uint64_t> *addresses;
            size_t *visited;
        } all{this, &elf, &addresses, &visited};
        const auto visit = [](krv_elf_t *, size_t index, const krv_elf_frame_t *frames, size_t count, void *arg) {
            const auto *a = static_cast<const asked *>(arg);
            EXPECT_EQ(index, (*a->visited)++);
            EXPECT_EQ(describe(frames, count), a->test->ask(*a->elf, (*a->addresses)[index], KRV_ELF_FRAMES_F_NONE));
            return index == 20 ? 7 : 0;
        };
        EXPECT_EQ(korva_elf_symbolize_all(elf.get(), addresses.data(), 20, KRV_ELF_FRAMES_F_NONE, visit, &all, &error),
                  0);
        EXPECT_EQ(visited, 20U);
        visited = 0;
        EXPECT_EQ(korva_elf_symbolize_all(elf.get(), addresses.data(), addresses.size(), KRV_ELF_FRAMES_F_NONE, visit,
                                          &all, &error),
                  7);
        for (const uint64_t address : addresses) {
            if (ask(elf, address, KRV_ELF_FRAMES_F_DEMANGLE) != wanted)
                continue;
            ++found;
            for (size_t room = 0; room < 4; ++room) {
                krv_elf_frame_t frames[4] = {};
                size_t count = 0;
                EXPECT_EQ(korva_elf_symbolize(elf.get(), address, 0, frames, room, &count, nullptr), 0);
                EXPECT_EQ(count, 3U);
                EXPECT_EQ(frames[room].function, nullptr); // not written
                EXPECT_EQ(room == 0 ? "" : frames[0].linkage_name, std::string(room == 0 ? "" : "_ZN1n5innerEPVi"));
            }
        }
        EXPECT_NE(found, 0U);
    }
}

uint64_t resident_pages()
{
    uint64_t all = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident;
}

TEST_F(Symbolizer, TrimmedFilesAnswerAsBefore)
{
    const elf_ptr elf(korva_elf_open("/proc/self/exe", KRV_ELF_F_NONE, &error)); // larger than what is compiled here
    ASSERT_NE(elf, nullptr);
    const krv_elf_symbol_t *main = korva_elf_lookup_symbol_by_name(elf.get(), "main");
    ASSERT_NE(main, nullptr);
    korva_elf_trim(elf.get()); // nothing was read yet
    const std::string before = ask(elf, main->address, KRV_ELF_FRAMES_F_NONE);
    const auto ignore = [](krv_handle_t *, const krv_entry_t *, void *) { return 0; };
    krv_handle_t *hp = korva_elf_get_handle(elf.get()); // whose units are all walked for a name
    EXPECT_EQ(korva_iter_named_entries(hp, "main", KRV_NAMED_FUNCTIONS, ignore, nullptr), 0);
    const uint64_t full = resident_pages();
    korva_elf_trim(elf.get());
    EXPECT_LT(resident_pages() + 8, full);
    EXPECT_EQ(ask(elf, main->address, KRV_ELF_FRAMES_F_NONE), before);
    EXPECT_EQ(korva_iter_named_entries(hp, "main", KRV_NAMED_FUNCTIONS, ignore, nullptr), 0);
}

TEST_F(Symbolizer, WhatIsNotKnown)
{
    ASSERT_TRUE(compile("-O2 n.cpp -o plain"));
    const elf_ptr elf = open("plain");
    const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf.get(), "_ZN1n5outerEPVi");
    ASSERT_NE(outer, nullptr);
    EXPECT_EQ(ask(elf, outer->address + 1, KRV_ELF_FRAMES_F_NONE), "_ZN1n5outerEPVi (symbol) :0 no column");
    EXPECT_EQ(ask(elf, outer->address + 1, KRV_ELF_FRAMES_F_DEMANGLE), "n::outer(int volatile*) (symbol) :0 no column");
    EXPECT_EQ(ask(elf, 1, 0), (dir / "plain").string() + ": no line is known for 0x1");
    krv_elf_frame_t frame;
    size_t count = 7;
    EXPECT_EQ(korva_elf_symbolize(elf.get(), 1, 0, &frame, 1, &count, nullptr), -1);
    EXPECT_EQ(count, 0U);
}

} // namespace
