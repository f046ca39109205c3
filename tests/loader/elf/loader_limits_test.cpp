// SPDX-License-Identifier: Apache-2.0
//
// What the worst file of each kind may cost the loader: bytes allocated and steps taken, in proportion to its size.
// Sections share their bytes here, so that work or memory that counts them for each section anew has the square of the
// file's size.
#include "builders/elf.h"
#include "loader/loader_fixture.h"
#define KRV_TEST_NEW
#include "support/allocations.h"

#include <gelf.h>
#include <numeric>
#include <zlib.h>

using namespace krv_test;

static size_t allocated; // bytes

// Basic blocks of loader/elf/file.cpp and of the functions that it has in common with other sources, records that libelf
// reads, names compared, bytes searched for the end of a name.
static size_t steps, most_steps = SIZE_MAX;

static bool granted(size_t size)
{
    allocated += size;
    return true;
}

static void step(size_t count)
{
    steps += count;
    if (steps <= most_steps)
        return;
    std::fprintf(stderr, "more than %zu steps\n", most_steps); // the rest might take hours
    std::abort();
}

static bool stepped()
{
    step(1);
    return true;
}

KRV_TEST_WRAP(GElf_Sym *, gelf_getsymshndx, stepped(), nullptr,
              (Elf_Data * symbols, Elf_Data *numbers, int n, GElf_Sym *symbol, Elf32_Word *number), symbols, numbers, n,
              symbol, number)
KRV_TEST_WRAP(GElf_Rela *, gelf_getrela, stepped(), nullptr, (Elf_Data * data, int n, GElf_Rela *relocation), data, n,
              relocation)
KRV_TEST_WRAP(int, strncmp, stepped(), 0, (const char *a, const char *b, size_t most), a, b, most)

extern "C" {
size_t __real_strnlen(const char *s, size_t most);
void *__real_memchr(const void *s, int c, size_t most);

size_t __wrap_strnlen(const char *s, size_t most)
{
    const size_t length = __real_strnlen(s, most);
    step(length);
    return length;
}
void *__wrap_memchr(const void *s, int c, size_t most)
{
    void *found = __real_memchr(s, c, most);
    step(found == nullptr ? most
                          : static_cast<size_t>(static_cast<const char *>(found) - static_cast<const char *>(s)));
    return found;
}
void __sanitizer_cov_trace_pc() // the compiler calls it from every basic block
{
    step(1);
}
}

namespace
{

// An ELF file of any sections over any bytes. Section 1 holds the names.
struct elf_builder {
    uint16_t type = ET_EXEC;
    bytes contents = {};
    std::vector<Elf64_Shdr> headers = {{}};

    explicit elf_builder(const bytes &names = bytes().u8(0), uint16_t of = ET_EXEC) : type(of)
    {
        add(0, SHT_STRTAB, put(names));
    }
    // Where the bytes stand.
    std::pair<uint64_t, uint64_t> put(const bytes &part)
    {
        contents += part;
        return {sizeof(Elf64_Ehdr) + contents.size() - part.size(), part.size()};
    }
    void add(uint32_t name, uint32_t section_type, std::pair<uint64_t, uint64_t> extent, uint64_t flags = 0,
             uint32_t link = 0, uint32_t info = 0, uint64_t entry_size = 0)
    {
        headers.push_back({name, section_type, flags, 0, extent.first, extent.second, link, info, 1, entry_size});
    }
    // Functions of one byte at 0, 1, ... in a section of code.
    void add_functions(const std::vector<uint32_t> &names)
    {
        add(0, SHT_PROGBITS, {64, 4096}, SHF_ALLOC | SHF_EXECINSTR);
        bytes symbols;
        for (size_t i = 0; i < names.size(); ++i)
            symbols.u32(names[i]).u8(STT_FUNC).u8(0).u16(2).u64(i).u64(1);
        add(0, SHT_SYMTAB, put(symbols), 0, 1, 0, sizeof(Elf64_Sym));
    }
    std::string build() const
    {
        const uint64_t at = (sizeof(Elf64_Ehdr) + contents.size() + 7) / 8 * 8;
        const elf_image image{.type = type, .sections = headers.size(), .sections_at = at};
        return image.header().add(contents).align(8).str().append(reinterpret_cast<const char *>(headers.data()),
                                                                  headers.size() * sizeof(Elf64_Shdr));
    }
};

constexpr uint64_t MEGABYTE = 1 << 20;
constexpr size_t MILLION = 1000000;
constexpr uint64_t NOWHERE = UINT64_MAX;

std::string sections_of_one_long_name()
{
    elf_builder b(bytes().fill(MEGABYTE, 'x').u8(0));
    for (int i = 0; i < 4000; ++i)
        b.add(0, SHT_PROGBITS, {64, 1});
    return b.build();
}

std::string symbols_of_endless_names()
{
    elf_builder b(bytes().u8(0).fill(MEGABYTE, 'x'));
    std::vector<uint32_t> names(20000);
    std::iota(names.begin(), names.end(), 1);
    b.add_functions(names);
    return b.build();
}

std::string symbols_that_are_looked_up()
{
    bytes text = bytes().u8(0);
    std::vector<uint32_t> names;
    for (int i = 0; i < 20000; ++i) {
        names.push_back(static_cast<uint32_t>(text.size()));
        text.cstr("f" + std::to_string(i) + (i % 2 != 0 ? "@@V" : ""));
    }
    elf_builder b(text);
    b.add_functions(names);
    return b.build();
}

std::string notes_of_one_run()
{
    elf_builder b;
    const auto run = b.put(bytes().fill(MEGABYTE / 4));
    for (int i = 0; i < 10000; ++i)
        b.add(0, SHT_NOTE, run);
    return b.build();
}

std::string relocations_of_one_table()
{
    elf_builder b(bytes().u8(0).cstr(".debug_info"), ET_REL);
    b.add(1, SHT_PROGBITS, {64, 64});
    bytes table;
    for (int i = 0; i < 10000; ++i)
        table.u64(0).u64(R_X86_64_64).u64(0);
    const auto extent = b.put(table);
    for (int i = 0; i < 10000; ++i)
        b.add(0, SHT_RELA, extent, 0, 0, 2, sizeof(Elf64_Rela));
    return b.build();
}

// Every section of the core's over the same deflated bytes.
std::string inflations_of_one_stream()
{
    const std::vector<uint8_t> zeros(16 * MEGABYTE);
    std::vector<uint8_t> stream(compressBound(zeros.size()));
    uLongf size = stream.size();
    EXPECT_EQ(compress2(stream.data(), &size, zeros.data(), zeros.size(), 9), Z_OK);
    bytes data = bytes().u32(ELFCOMPRESS_ZLIB).u32(0).u64(zeros.size()).u64(1);
    for (size_t i = 0; i < size; ++i)
        data.u8(stream[i]);
    bytes names;
    std::vector<uint32_t> at;
    for (const char *name : {"", ".debug_info", ".debug_line", ".debug_str", ".debug_loc", ".debug_types"}) {
        at.push_back(static_cast<uint32_t>(names.size()));
        names.cstr(name);
    }
    elf_builder b(names);
    const auto extent = b.put(data);
    for (size_t i = 1; i < at.size(); ++i)
        b.add(at[i], SHT_PROGBITS, extent, SHF_COMPRESSED);
    return b.build();
}

// Sizes and counts as large as they can be written.
std::string claims()
{
    elf_builder b(bytes().u8(0).cstr(".debug_info").cstr(".zdebug_line").cstr(".debug_str"));
    b.add(0, SHT_SYMTAB, {64, NOWHERE}, 0, 1);
    b.add(0, SHT_NOTE, {64, NOWHERE});
    b.add(0, SHT_RELA, {64, NOWHERE}, 0, 1, 6);
    b.add(1, SHT_PROGBITS, b.put(bytes().u32(ELFCOMPRESS_ZLIB).u32(0).u64(NOWHERE).u64(1)), SHF_COMPRESSED);
    b.add(13, SHT_PROGBITS, b.put(bytes::hex("5a 4c 49 42").fill(8, 0xff).fill(8)));
    b.add(26, SHT_PROGBITS, {NOWHERE, 2});
    b.add(0, SHT_NOTE, b.put(bytes().u32(UINT32_MAX).u32(UINT32_MAX).u32(3)));
    b.add(0, SHT_NOBITS, {64, NOWHERE}, SHF_ALLOC | SHF_EXECINSTR);
    return b.build();
}

} // namespace

TEST_F(Loader, WorstFiles)
{
    const struct {
        const char *what;
        std::string (*make)();
        size_t most_allocated, most_steps;
        const char *noted; // among the notes
    } rows[] = {
        {"sections of one long name", sections_of_one_long_name, 4 * MEGABYTE, 20 * MILLION, ""},
        {"symbols of endless names", symbols_of_endless_names, MEGABYTE, 60 * MILLION, ""},
        {"notes of one run", notes_of_one_run, 16 * MEGABYTE, 60 * MILLION, ""},
        {"relocations of one table", relocations_of_one_table, 16 * MEGABYTE, 40 * MILLION,
         "10000 relocations are applied"},
        {"symbols that are looked up", symbols_that_are_looked_up, 16 * MEGABYTE, 20 * MILLION, ""},
        {"inflations of one stream", inflations_of_one_stream, 4 * MEGABYTE, MILLION, "claims to inflate"},
        {"claims", claims, MEGABYTE, MILLION, "claims to inflate from 24 to 18446744073709551615"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        std::printf("%s: ", row.what);
        std::fflush(stdout);
        const std::string made = row.make();
        write("worst", made);
        allocated = steps = 0;
        most_steps = row.most_steps;
        const elf_ptr elf = open("worst", KRV_ELF_F_INFLATE_ANY);
        ASSERT_NE(elf, nullptr) << error.message;
        korva_elf_get_handle(elf.get());
        for (int i = 0; row.make == symbols_that_are_looked_up && i < 20000; ++i)
            ASSERT_NE(korva_elf_lookup_symbol_by_name(elf.get(), ("f" + std::to_string(i)).c_str()), nullptr);
        most_steps = SIZE_MAX;
        EXPECT_LE(allocated, row.most_allocated);
        std::printf("%zu bytes allocated, %zu a byte of input, %zu steps\n", allocated, allocated / made.size(), steps);
        const std::string noted = notes(elf.get());
        EXPECT_NE(noted.find(row.noted), std::string::npos) << noted.substr(0, 2000);
    }
    write("worst", inflations_of_one_stream());
    EXPECT_EQ(open("worst"), nullptr);
    EXPECT_EQ(error.code, KRV_ELF_ERR_LIMIT);
    EXPECT_EQ(error.message, (dir / "worst").string() + ": its compressed sections claim to inflate to 83886080 bytes, "
                                                        "and no more than 1048576 are taken from such a file");
}
