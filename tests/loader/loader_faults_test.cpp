// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out, and system calls that fail, in the loader: the n-th of a whole session, for every n. The session
// answers, or says what happened; nothing leaks (the address sanitizer watches); and when all is well again the same
// object answers in full, or a new one does where it could not be opened.
#include "loader/loader_fixture.h"
#include "loader/process/core_files.h"
#define KRV_TEST_NEW
#include "support/allocations.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

using namespace krv_test;

static bool armed; // while the loader runs
static unsigned allocations, fail_allocation, calls, fail_call;

static bool call_fails()
{
    if (!armed || ++calls != fail_call)
        return false;
    errno = EIO;
    return true;
}

static bool granted(size_t)
{
    return !armed || ++allocations != fail_allocation;
}

// libelf's own memory is not among what fails.
KRV_TEST_WRAP(int, open, !call_fails(), -1, (const char *path, int flags, ...), path, flags)
KRV_TEST_WRAP(int, fstat, !call_fails(), -1, (int fd, struct stat *st), fd, st)
KRV_TEST_WRAP(void *, mmap, !call_fails(), MAP_FAILED,
              (void *at, size_t size, int protection, int flags, int fd, off_t offset), at, size, protection, flags, fd,
              offset)
KRV_TEST_WRAP(ssize_t, pread, !call_fails(), -1, (int fd, void *buf, size_t count, off_t offset), fd, buf, count,
              offset)
KRV_TEST_WRAP(ssize_t, read, !call_fails(), -1, (int fd, void *buf, size_t count), fd, buf, count)
KRV_TEST_WRAP(DIR *, opendir, !call_fails(), nullptr, (const char *path), path)
KRV_TEST_WRAP(ssize_t, process_vm_readv, !call_fails(), -1,
              (pid_t pid, const iovec *local, unsigned long locals, const iovec *remote, unsigned long remotes,
               unsigned long flags),
              pid, local, locals, remote, remotes, flags)

// Of the requests those that can fail while the thread lives. The others fail when it has been killed: proc_test does.
KRV_TEST_WRAP(long, ptrace, (request != PTRACE_SEIZE && request != PTRACE_GETREGSET) || !call_fails(), -1,
              (int request, pid_t tid, void *address, void *data), request, tid, address, data)

namespace
{

// What a session says: in memory of its own, so that only the loader's can run out.
struct answer {
    char text[4096] = "";
    size_t used = 0;
    size_t pcs = 0;    // of it: a stack
    bool told = false; // of the failure

    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...)
    {
        va_list ap;
        va_start(ap, format);
        const int count = std::vsnprintf(text + used, sizeof(text) - used, format, ap);
        va_end(ap);
        used = std::min(sizeof(text) - 1, used + static_cast<size_t>(count));
    }
};

// Files of an ELF session

int add_unit(krv_handle_t *hp, krv_ctu_t *cu, void *arg)
{
    auto *a = static_cast<answer *>(arg);
    krv_cu_header_t header = {};
    korva_cu_get_header(hp, cu, &header);
    a->add("%lu ", header.size);
    for (const uint64_t address : {0x401000, 0x401020}) {
        const krv_lns_t *row = korva_cu_contains_addr(hp, cu, address, KRV_LOOKUP_F_NONE) == 0
                                   ? nullptr
                                   : korva_lookup_source_by_cu_and_addr(hp, cu, address, 1, address, 0);
        a->told = a->told || korva_handle_get_errno(hp) == KRV_ERR_NOMEM;
        a->add(row == nullptr ? "- " : "row ");
    }
    return 0;
}

void ask_elf(krv_elf_t *elf, answer *a)
{
    size_t symbols = 0;
    korva_elf_get_symbols(elf, &symbols);
    a->add("%zu symbols; ", symbols);
    krv_handle_t *hp = korva_elf_get_handle(elf);
    if (korva_iter_cu(hp, KRV_SEC_INFO, add_unit, a) != 0)
        a->told = a->told || korva_handle_get_errno(hp) == KRV_ERR_NOMEM;
    for (const uint64_t address : {0x401000, 0x401020}) {
        krv_elf_frame_t frame = {};
        krv_elf_error_t error = {};
        size_t count = 0;
        korva_elf_symbolize(elf, address, KRV_ELF_FRAMES_F_DEMANGLE, &frame, 1, &count, &error);
        a->told = a->told || error.code == KRV_ELF_ERR_NOMEM;
        a->add("%zu %s %s:%u; ", count, count == 0 ? "" : frame.function, count == 0 ? "" : frame.file, frame.line);
    }
    each(korva_elf_iter_notes, elf, [a](const krv_elf_note_t *note) {
        a->add("%s: %s; ", note->pass, note->text);
        a->told = a->told || std::strstr(note->text, "out of memory") != nullptr ||
                  std::strstr(note->text, std::strerror(EIO)) != nullptr;
    });
}

// A core file, or a process

int add_frame(krv_proc_t *, const krv_proc_frame_t *frame, void *arg)
{
    static_cast<answer *>(arg)->add("%lx ", frame->pc);
    return 0;
}

int add_module(krv_proc_t *proc, const krv_proc_module_t *module, void *arg)
{
    auto *a = static_cast<answer *>(arg);
    krv_elf_error_t error = {};
    const krv_elf_t *elf = korva_proc_module_elf(proc, module, &error);
    a->told = a->told || elf == nullptr;
    a->add("%lx %s; ", module->start, error.message);
    return 0;
}

// Walks over a handle without the memory for its frame reader: the core then takes the one that knows no frames, and
// keeps it.
unsigned frameless;

void ask_process(krv_proc_t *proc, answer *a)
{
    krv_proc_end_t end = {};
    krv_proc_info_t info = {};
    korva_proc_get_info(proc, &info);
    korva_proc_walk(proc, info.pid, 0, add_frame, a, &end);
    a->pcs = a->used;
    frameless += end.reason == KRV_PROC_END_NO_FDE && fail_call == 0;
    a->told = end.reason == KRV_PROC_END_ERROR || end.reason == KRV_PROC_END_NO_FDE;
    a->add("%d; ", end.reason);
    a->told = korva_proc_iter_modules(proc, add_module, a) == -1 || a->told;
}

class LoaderFaults : public Loader
{
protected:
    // Counts what a session needs, then lets each one fail. A system call that fails may also be taken for a file that
    // is not there, or for memory that was not dumped: then the answer is a shorter one.
    template <typename Close, typename Open, typename Ask>
    void each_fails(const char *what, Open open_one, Ask ask, Close close, unsigned least)
    {
        for (const bool memory : {true, false}) {
            unsigned *const at = memory ? &fail_allocation : &fail_call;
            const unsigned *const count = memory ? &allocations : &calls;
            std::string expected;
            size_t pcs = 0; // of it: a stack
            for (unsigned n = 0; n == 0 || *at != 0; ++n) {
                SCOPED_TRACE(text("%s, %s %u", what, memory ? "allocation" : "call", n));
                krv_elf_error_t told = {};
                answer a, again;
                allocations = calls = 0;
                *at = n;
                armed = true;
                auto *object = open_one(&told);
                if (object != nullptr)
                    ask(object, &a);
                armed = false;
                const bool met = n != 0 && *count >= n;
                *at = met ? n : 0;
                if (n == 0) {
                    expected = a.text;
                    pcs = a.pcs;
                    *at = 1;
                    std::printf("%s: %u %s\n", what, *count, memory ? "allocations" : "calls");
                    EXPECT_GT(*count, memory ? least : 2U);
                }
                if (object == nullptr) {
                    EXPECT_TRUE(met && told.code == (memory ? KRV_ELF_ERR_NOMEM : told.code) && told.message[0] != '\0')
                        << told.code << " " << told.message;
                    object = open_one(&told);
                    ASSERT_NE(object, nullptr);
                } else {
                    EXPECT_TRUE(a.text == expected || (met && (a.told || !memory))) << a.text << "\nnot: " << expected;
                    EXPECT_TRUE(a.pcs <= pcs && expected.starts_with(std::string(a.text, a.pcs)))
                        << a.text; // no wrong frame
                }
                ask(object, &again);
                EXPECT_TRUE(again.text == expected || !memory || again.told) << again.text << "\nnot: " << expected;
                close(object);
            }
        }
    }
};

} // namespace

// One file for every correction: relocated, of an old and of a new version, with what the core refuses, with rows of
// code that is not there, and found through a link.
TEST_F(LoaderFaults, EverySessionOfAFile)
{
    const bytes max = bytes().fill(9, 0xff).u8(0);
    const bytes abbrev = abbrevs("1 compile_unit import:0x10 const_value:sdata name:string stmt_list:sec_offset");
    const bytes info = unit{.dies = bytes().u8(1).u32(7).add(max).cstr("a.c").u32(0)}.build() +
                       bytes().unit_length(false, 20).u16(5).u8(1).u8(8).fill(16, 0xff);
    const bytes line =
        line_unit{.program = program("at 0 copy pc 8 end at 401000 line 9 copy pc 32 end at 401020 copy pc 32 end")}
            .build();
    std::ofstream(dir / "s.s") << ".text\n.globl _start\n.type _start,@function\n_start: .skip 64,0x90\n"
                                  ".size _start,64\n"
                               << section(".debug_abbrev", abbrev) << section(".debug_info", info)
                               << section(".debug_line", line);
    ASSERT_TRUE(compile("-nostdlib -static -no-pie -gz -Wl,--build-id=none -Wl,-Ttext=0x401000 s.s -o s && "
                        "objcopy --only-keep-debug s d && objcopy --compress-debug-sections d && strip -o bare s && "
                        "objcopy --add-gnu-debuglink=d bare linked"));
    ASSERT_TRUE(compile("-gdwarf-4 -c a.c -o a.o"));
    for (const auto &[name, least] : {std::pair{"linked", 60U}, {"a.o", 60U}})
        each_fails(
            name, [&, file = (dir / name).string()](krv_elf_error_t *e) { return korva_elf_open(file.c_str(), 0, e); },
            ask_elf, korva_elf_close, least);
}

TEST_F(LoaderFaults, EverySessionOfACore)
{
    const std::string path = write("core", core32().build().str());
    frameless = 0;
    each_fails(
        "core", [&](krv_elf_error_t *e) { return korva_proc_open_core(path.c_str(), nullptr, e); }, ask_process,
        korva_proc_close, 60U);
    EXPECT_LE(frameless, 2U * 2U); // the reader and its data; asked twice
}

// One that is held still at each opening, and let go.
TEST_F(LoaderFaults, EverySessionOfAProcess)
{
    std::string why;
    if (!may_trace(&why))
        GTEST_SKIP() << why;
    const running_target target("bare", "");
    const auto attach = [&](krv_elf_error_t *e) {
        const bool was_armed = std::exchange(armed, false);
        EXPECT_TRUE(target.wait_for_state('S')); // let go, it has its call to repeat before it sleeps again
        armed = was_armed;
        return korva_proc_attach(target.pid(), e);
    };
    each_fails("process", attach, ask_process, korva_proc_close, 60U);
    EXPECT_TRUE(target.wait_for_state('S'));
    EXPECT_EQ(status_of(target.pid(), "TracerPid"), "0");
}
