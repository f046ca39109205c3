// SPDX-License-Identifier: Apache-2.0
//
// The loader on files that the compiler makes here and now, and on what is none.
#include "loader/loader_fixture.h"

#include "elf/file.h"
#include "krv_types.h"

#include <csignal>
#include <fcntl.h>
#include <random>
#include <sys/resource.h>
#include <unistd.h>

using namespace krv_test;

namespace
{

// A unit of a version that nobody knows, `size` bytes behind its length.
bytes dwarf6(bool dwarf64, size_t size)
{
    bytes rest = bytes().u16(6).fill(40, 0xff);
    return bytes().unit_length(dwarf64, size).add(rest.first(size));
}

} // namespace

// Every way in which a linker stores debugging information leads to the same answers.
TEST_F(Loader, StorageOfSections)
{
    static const struct {
        const char *flags;
        krv_activation_type_t target;
        bool compressed;
    } rows[] = {
        {"", KRV_ACTIVATION_AMD64, false},
        {"-gz=zlib", KRV_ACTIVATION_AMD64, true},
        {"-gz=zlib-gnu", KRV_ACTIVATION_AMD64, true},
        {"-m32", KRV_ACTIVATION_I386, false},
        {"&& objcopy --only-keep-debug a a.debug && mv a.debug a", KRV_ACTIVATION_AMD64, false},
    };
    std::map<krv_activation_type_t, std::string> frames;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.flags);
        if (!compile(std::string("-g -fno-asynchronous-unwind-tables a.c -o a ") + row.flags)) {
            std::printf("skipped: the compiler cannot link with %s here\n", row.flags);
            continue;
        }
        elf_ptr elf = open("a");
        ASSERT_NE(elf, nullptr) << error.message;
        krv_elf_info_t info;
        korva_elf_get_info(elf.get(), &info);
        EXPECT_EQ(info.target, row.target);
        EXPECT_EQ(info.has_symtab, 1);
        EXPECT_NE(units(elf.get()).find("a.c "), std::string::npos);
        const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer");
        ASSERT_NE(outer, nullptr);
        krv_elf_source_t source;
        ASSERT_EQ(korva_elf_lookup_source(elf.get(), outer->address + 1, &source, &error), 0) << error.message;
        EXPECT_EQ(text("%s %s:%u:%u", source.function, source.file, source.line, source.column),
                  "outer " + (dir / "a.c").string() + ":3:18");
        EXPECT_EQ(korva_elf_lookup_symbol(elf.get(), outer->address + outer->size - 1), outer);
        EXPECT_EQ(notes(elf.get()), "");
        EXPECT_EQ(attached(elf.get()).find('+'), std::string::npos) << attached(elf.get());
        EXPECT_EQ(attached(elf.get()).find("z ") != std::string::npos, row.compressed) << attached(elf.get());
        // What is inflated when it is read, is what it was.
        krv_fd_t frame = korva_elf_get_handle(elf.get())->sh_sec[KRV_SEC_FRAME];
        std::string bytes(frame.sfd_size, '\0');
        EXPECT_EQ(korva_fd_to_mem(&frame, bytes.data(), bytes.size()), 0);
        std::string &expected = frames[row.target];
        expected = expected.empty() ? bytes : expected;
        EXPECT_TRUE(bytes == expected && bytes.size() > 100) << bytes.size();
    }
}

TEST_F(Loader, NoSource)
{
    const elf_ptr elf = assemble("f: .skip 8\n.type f,@function\n.size f,8\n" +
                                 section(".debug_abbrev", bytes().u8(0)) + section(".debug_info", dwarf6(false, 20)));
    krv_elf_source_t source;
    for (const auto &[address, function] : {std::pair{uint64_t{1}, "f"}, {uint64_t{8}, ""}}) {
        EXPECT_EQ(korva_elf_lookup_source(elf.get(), address, &source, &error), -1);
        EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
        EXPECT_EQ(error.message,
                  text("%s: no line is known for 0x%lx; unit at offset 0x0 of .debug_info is DWARF 6, and "
                       "libkorva reads DWARF 2 to 5",
                       (dir / "s.o").c_str(), address));
        EXPECT_EQ(text("%s %s:%u:%u", source.function, source.file, source.line, source.column),
                  std::string(function) + " :0:0");
    }
}

// A file that is cut off while it is open: a client that hands on the signal goes on.
TEST_F(Loader, FileThatShrinks)
{
    ASSERT_TRUE(compile("-gdwarf-4 a.c -o a && cp a b"));
    struct sigaction old, handler = {};
    handler.sa_sigaction = [](int number, siginfo_t *info, void *) {
        if (korva_elf_handle_bus_error(info->si_addr) == 0)
            std::signal(number, SIG_DFL);
    };
    handler.sa_flags = SA_SIGINFO;
    sigaction(SIGBUS, &handler, &old);
    const elf_ptr elf = open("a"), other = open("b");
    const uint64_t outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer")->address;
    fs::resize_file(dir / "a", 4096);
    EXPECT_EQ(line_of(elf.get(), outer), 0u);
    EXPECT_NE(notes(elf.get()).find("the file became shorter while it was read\n"), std::string::npos);
    EXPECT_EQ(line_of(other.get(), outer), 3u);
    EXPECT_EQ(notes(other.get()), "");
    EXPECT_EQ(korva_elf_handle_bus_error(this), 0);
    sigaction(SIGBUS, &old, nullptr);
}

// What stands far apart in large files is read by a descriptor, as long as it is the file's, and there are many.
TEST_F(Loader, DescriptorsOfLargeFiles)
{
    const bytes info = unit{.dies = bytes().u8(1).u32(0).fill(300000)}.build();
    std::ofstream(dir / "s.s") << section(".debug_abbrev", abbrevs("1 compile_unit name:strp"))
                               << section(".debug_str", bytes().cstr("big.c")) << section(".debug_info", info.first(32))
                               << ".zero " << info.size() - 32 << "\n.section .note.GNU-stack\n";
    ASSERT_TRUE(compile("-g0 a.c s.s -o big && cp a.c other"));
    const auto descriptors = [] {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    };
    const auto name_of = [](krv_elf_t *elf) {
        std::string name;
        const auto add = [](krv_handle_t *hp, krv_ctu_t *cu, void *arg) {
            char buf[8] = "";
            krv_die_t *die;
            korva_get_cu_cudie(hp, cu, &die);
            korva_get_die_at_name(hp, die, buf, sizeof(buf));
            *static_cast<std::string *>(arg) += buf;
            return 0;
        };
        korva_iter_cu(korva_elf_get_handle(elf), KRV_SEC_INFO, add, &name);
        return name;
    };
    const auto before = descriptors();
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit old = limit;
    const int next = dup(0);
    close(next);
    const rlim_t few = 2 * static_cast<rlim_t>(next);
    for (const auto &[flags, most, expected] :
         {std::tuple(KRV_ELF_F_NONE, old.rlim_cur, 16), std::tuple(KRV_ELF_F_NO_DESCRIPTOR, old.rlim_cur, 0),
          std::tuple(KRV_ELF_F_NONE, few, 0)}) {
        SCOPED_TRACE(expected);
        limit.rlim_cur = most;
        setrlimit(RLIMIT_NOFILE, &limit);
        std::vector<elf_ptr> files;
        for (int i = 0; i < 20; ++i) {
            files.push_back(open("big", flags));
            EXPECT_EQ(files.back() == nullptr ? "none" : name_of(files.back().get()), "big.c");
        }
        setrlimit(RLIMIT_NOFILE, &old);
        EXPECT_EQ(descriptors() - before, expected);
    }
    EXPECT_EQ(descriptors(), before);
    // A program that closes what it does not know, and opens another file.
    elf_ptr elf = open("big");
    close(next);
    ASSERT_EQ(::open((dir / "other").c_str(), O_RDONLY), next);
    EXPECT_EQ(name_of(elf.get()), "big.c");
    elf.reset();
    EXPECT_EQ(fcntl(next, F_GETFD), 0);
    close(next);
}

TEST_F(Loader, RelocatableFiles)
{
    for (const char *flags : {"-gdwarf-4", "-gdwarf-4 -m32", "-gdwarf-4 -mx32", "-gdwarf-5", "-gdwarf-5 -gdwarf64"}) {
        ASSERT_TRUE(compile(std::string("-c a.c -o a.o ") + flags));
        const bool is_32 = std::strstr(flags, "32") != nullptr;
        elf_ptr elf = open("a.o");
        ASSERT_NE(elf, nullptr) << error.message;
        krv_elf_info_t info;
        korva_elf_get_info(elf.get(), &info);
        EXPECT_EQ(info.type, ET_REL);
        EXPECT_EQ(info.target, is_32 ? KRV_ACTIVATION_I386 : KRV_ACTIVATION_AMD64);
        EXPECT_EQ(info.machine, std::strstr(flags, "-m32") != nullptr ? EM_386 : EM_X86_64);
        const krv_elf_symbol_t *inner = korva_elf_lookup_symbol_by_name(elf.get(), "inner");
        ASSERT_NE(inner, nullptr);
        EXPECT_EQ(line_of(elf.get(), inner->address), 2u);
        elf = open("a.o", KRV_ELF_F_RAW);
        EXPECT_EQ(notes(elf.get()).find("the relocations of .debug_info are not applied\n"), 0u) << notes(elf.get());
    }
}

TEST_F(Loader, UnitsThatAreNotRead)
{
    const bytes table = bytes::hex("01 11 00 00 00 00");   // a unit without attributes
    const auto good = [](uint16_t version, bool dwarf64) { // 12 or 24 bytes
        return unit{.dwarf64 = dwarf64, .version = version, .dies = bytes().uleb(1)}.build();
    };
    const auto other = [](const char *at) {
        return text("unit at offset %s of .debug_info is DWARF 6, and libkorva reads DWARF 2 to 5\n", at);
    };
    const struct {
        bytes info;
        std::string units, notes;
    } rows[] = {
        {good(2, false) + good(3, true) + good(4, false), "0:v2+12 12:v3+24* 36:v4+12 ", ""},
        {good(4, false) + dwarf6(false, 8) + dwarf6(true, 12) + good(4, true), "0:v4+12 12:v6+12 24:v6+24* 48:v4+24* ",
         other("0xc") + other("0x18")},
        {good(4, false) + unit{.dies = bytes().uleb(9)}.build() + good(4, false), "0:v4+12 12:v4+12 24:v4+12 ",
         "unit at offset 0xc of .debug_info cannot be read: abbreviation code 9 not found\n"},
        {good(4, false) + bytes().u32(0xfffffff2).fill(20), "0:v4+12 ",
         ".debug_info cannot be read from offset 0xc on: reserved value (0xfffffff2) in 4-byte unit_length\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.notes);
        const elf_ptr elf = assemble(section(".debug_abbrev", table) + section(".debug_info", row.info));
        ASSERT_NE(elf, nullptr);
        EXPECT_EQ(notes(elf.get()), "");
        for (int i = 0; i < 2; ++i) { // met again, noted once
            EXPECT_EQ(units(elf.get()), row.units);
            EXPECT_EQ(notes(elf.get()), row.notes);
        }
        EXPECT_EQ(attached(elf.get()).find('+'), std::string::npos) << attached(elf.get());
    }
    // However many: their number is bounded.
    bytes many;
    for (int i = 0; i < 5000; ++i)
        many += dwarf6(false, 8);
    const elf_ptr elf = assemble(section(".debug_abbrev", table) + section(".debug_info", many));
    EXPECT_EQ(korva::elf_view(elf.get()).handle().units().size(), 5000u);
    const std::string told = notes(elf.get());
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 4097);
    EXPECT_NE(told.find("not every note is here: they are too many, or out of memory\n"), std::string::npos);
}

TEST_F(Loader, SectionsThatCannotBeAttached)
{
    const bytes some = bytes().fill(16, 1);
    const auto header = [](uint32_t type, uint64_t size) { return bytes().u32(type).u32(0).u64(size).u64(1); };
    const std::string cannot = "section .debug_str cannot be inflated: ";
    const struct {
        std::string assembly, note;
    } rows[] = {
        {".section .debug_str,\"\",@nobits\n.skip 100\n", ""},
        {section(".debug_str,\"0x800\"", header(ELFCOMPRESS_ZLIB, uint64_t{1} << 40)),
         "section .debug_str claims to inflate from 24 to 1099511627776 bytes\n"},
        {section(".zdebug_str", bytes::hex("5a 4c 49 42 01 00 00 00 00 00 00 00") + some),
         "section .zdebug_str claims to inflate from 28 to 72057594037927936 bytes\n"},
        {section(".debug_str,\"0x800\"", header(ELFCOMPRESS_ZLIB, 64) + some), cannot},
        {section(".debug_str,\"0x800\"", header(99, 64) + some), cannot},
        {section(".debug_str,\"0x800\"", header(2, 64) + some), cannot}, // by zstd
        {section(".debug_str,\"0x800\"", bytes().u32(1)), cannot},
        {section(".zdebug_str", some), "section .zdebug_str cannot be inflated: "},
    };
    for (const auto &row : rows) { // it does not stand in the way of a good one of that name
        SCOPED_TRACE(row.note);
        elf_ptr elf = assemble(row.assembly + section(".debug_str,\"\",@progbits,unique,1", some) +
                               section(".debug_str,\"\",@progbits,unique,2", some + some));
        ASSERT_NE(elf, nullptr) << error.message;
        EXPECT_EQ(attached(elf.get()), ".debug_str=16 ");
        EXPECT_EQ(notes(elf.get()).find(row.note), 0u) << notes(elf.get());
        EXPECT_NE(notes(elf.get()).find("a second section .debug_str is not read\n"), std::string::npos);
    }
}

// A loaded segment is found by any of its bytes, and by the start of its first page where no other one claims that.
TEST_F(Loader, LoadBias)
{
    for (const char *flags : {"-pie -fPIE", "-no-pie -Wl,-z,noseparate-code"}) {
        ASSERT_TRUE(compile(std::string("a.c -o a ") + flags));
        elf_ptr elf = open("a");
        const krv_elf_loader::elf_file file((dir / "a").string());
        uint64_t end = 0, bias = 0;
        for (const GElf_Phdr &load : file.segments()) {
            if (load.p_type != PT_LOAD)
                continue;
            const uint64_t page = load.p_offset & ~uint64_t{4095};
            for (const uint64_t at : {std::max(page, end), load.p_offset, load.p_offset + load.p_filesz - 1}) {
                const uint64_t address = load.p_vaddr - load.p_offset + at;
                EXPECT_EQ(korva_elf_load_bias(elf.get(), 0x7f0000000000 + address, at, &bias, &error), 0);
                EXPECT_EQ(bias, 0x7f0000000000u) << at;
            }
            end = load.p_offset + load.p_filesz;
        }
        EXPECT_EQ(korva_elf_load_bias(elf.get(), 0, end, &bias, &error), -1);
        EXPECT_EQ(error.code, KRV_ELF_ERR_NOTFOUND);
    }
}

TEST_F(Loader, SymbolTable)
{
    elf_ptr elf =
        assemble(".text\n.globl whole\nwhole: .fill 32\n.type whole,@function\n.size whole,32\n"
                 ".set inside,whole+8\n.type inside,@function\n.size inside,8\n"
                 ".weak alias\n.set alias,whole\n.type alias,@function\n.size alias,32\n"
                 "gap: .fill 8\n.type gap,@function\n.size gap,4\n"
                 "label: .fill 8\nifunc: .fill 8\n.type ifunc,@gnu_indirect_function\netext:\n"
                 ".set inner,whole+20\n.type inner,@notype\n.size inner,0\n.globl .Ltable\n.set .Ltable,whole+4\n"
                 ".set object,whole\n.type object,@object\n.size object,99\n"
                 ".data\nin_data: .fill 8\ncall_out: .quad undefined\n");
    ASSERT_NE(elf, nullptr);
    std::string seen;
    size_t count = 0;
    const krv_elf_symbol_t *all = korva_elf_get_symbols(elf.get(), &count);
    for (size_t i = 0; i < count; ++i)
        seen += text("%s@%lu+%lu ", all[i].name, all[i].address, all[i].size);
    EXPECT_EQ(seen, "whole@0+32 alias@0+32 inside@8+8 inner@20+12 gap@32+4 label@40+8 ifunc@48+8 ");
    EXPECT_EQ(korva_elf_lookup_symbol(elf.get(), 20), all); // a function that covers a label has its address

    // Nested, overlapping and equal symbols, every third a label, against the definition.
    const auto is_label = [](const krv_elf_symbol_t &s) { return *s.name == 'f' && std::atoi(s.name + 1) % 3 == 0; };
    std::mt19937 random(1);
    for (const unsigned longest : {4u, 60u, 60u, 200u}) {
        std::string assembly = ".text\nbase: .fill 100\n.type base,@function\n.size base,1\n";
        for (int i = 0; i < 60; ++i)
            assembly += text(".set f%d,base+%u\n.type f%d,@%s\n.size f%d,%u\n", i, static_cast<unsigned>(random() % 90),
                             i, i % 3 == 0 ? "notype" : "function", i,
                             i % 3 == 0 ? 0 : static_cast<unsigned>(1 + random() % longest));
        elf = assemble(assembly);
        all = korva_elf_get_symbols(elf.get(), &count);
        ASSERT_EQ(count, 61u);
        for (uint64_t address = 0; address < 300; ++address) {
            const krv_elf_symbol_t *expected = nullptr;
            for (size_t i = 0; i < count; ++i)
                if (address >= all[i].address && address - all[i].address < all[i].size &&
                    (expected == nullptr || is_label(all[i]) < is_label(*expected) ||
                     (is_label(all[i]) == is_label(*expected) && all[i].address > expected->address)))
                    expected = &all[i];
            EXPECT_EQ(korva_elf_lookup_symbol(elf.get(), address), expected) << address;
        }
    }
    ASSERT_TRUE(compile("-s -rdynamic a.c -o stripped"));
    krv_elf_info_t info;
    elf = open("stripped");
    korva_elf_get_info(elf.get(), &info);
    EXPECT_EQ(info.has_symtab, 0);
    EXPECT_NE(korva_elf_lookup_symbol_by_name(elf.get(), "outer"), nullptr);
    EXPECT_EQ(units(elf.get()), "");

    // Debug files of libraries have their symbols with versions.
    ASSERT_TRUE(compile("a.c -o versioned"));
    ASSERT_EQ(std::system(("objcopy --redefine-sym outer=outer@@V_1 " + (dir / "versioned").string()).c_str()), 0);
    elf = open("versioned");
    const krv_elf_symbol_t *outer = korva_elf_lookup_symbol_by_name(elf.get(), "outer");
    ASSERT_NE(outer, nullptr);
    EXPECT_STREQ(outer->name, "outer@@V_1");
    EXPECT_EQ(korva_elf_lookup_symbol_by_name(elf.get(), "oute"), nullptr);
}

TEST_F(Loader, WhatIsNoReadableFile)
{
    ASSERT_TRUE(compile("-c a.c -o a.o"));
    const std::string good = read("a.o");
    write("empty", "");
    write("text", "not an ELF file at all");
    const auto patched = [&](const char *name, size_t at, const std::string &bytes) {
        write(name, std::string(good).replace(at, bytes.size(), bytes));
    };
    const char *const beyond = "the section headers lie beyond the end of the file: it is cut off, or damaged";
    patched("mips", 18, std::string("\x08\0", 2)); // e_machine
    patched("i386", 18, std::string("\x03\0", 2));
    patched("big", 5, std::string("\2", 1));          // EI_DATA
    patched("far", 40, std::string(8, '\xf0'));       // e_shoff
    patched("many", 60, std::string("\0\xfe", 2));    // e_shnum
    patched("entries", 58, std::string("\x3f\0", 2)); // e_shentsize
    write("cut", good.substr(0, good.size() - 1));
    const struct {
        const char *name;
        int code;
        const char *text;
    } rows[] = {
        {"missing", KRV_ELF_ERR_SYSTEM, "No such file or directory"},
        {"new\nline", KRV_ELF_ERR_SYSTEM, "No such file or directory"},
        {"", KRV_ELF_ERR_SYSTEM, "Is a directory"},
        {"empty", KRV_ELF_ERR_FORMAT, "the file is empty"},
        {"text", KRV_ELF_ERR_FORMAT, "not an ELF file"},
        {"mips", KRV_ELF_ERR_UNSUPPORTED, "machine 8 in a 64-bit file; 32-bit x86 and AMD64 are read"},
        {"i386", KRV_ELF_ERR_UNSUPPORTED, "machine 3 in a 64-bit file; 32-bit x86 and AMD64 are read"},
        {"big", KRV_ELF_ERR_UNSUPPORTED, "big-endian files are not read"},
        {"far", KRV_ELF_ERR_FORMAT, beyond},
        {"many", KRV_ELF_ERR_FORMAT, beyond},
        {"cut", KRV_ELF_ERR_FORMAT, beyond},
        {"entries", KRV_ELF_ERR_FORMAT, "section headers of 63 bytes"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(open(row.name), nullptr);
        EXPECT_EQ(error.code, row.code) << row.name;
        std::string name = (dir / row.name).string();
        std::replace(name.begin(), name.end(), '\n', '?');
        EXPECT_EQ(error.message, name + ": " + row.text);
    }
    for (size_t size = 0; size < good.size(); size += 37) {
        write("cut", good.substr(0, size));
        EXPECT_EQ(open("cut"), nullptr) << size;
    }
}
