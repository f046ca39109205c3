// SPDX-License-Identifier: Apache-2.0
//
// This process walks the stack of one of its own threads, through its own memory and the .eh_frame_hdr of whatever is
// loaded, and agrees with the compiler's runtime frame by frame: program counter, stack pointer, preserved registers.
#include "support/handle.h"

#include "krv_activation.h"

#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <link.h>
#include <pthread.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>
#include <unwind.h>

#if defined(__x86_64__)

using namespace krv_test;

namespace
{

struct regs {
    uint64_t pc, sp, preserved[6];
};

constexpr unsigned int preserved_dwarf[6] = {3, 6, 12, 13, 14, 15};
constexpr int preserved_ucontext[6] = {REG_RBX, REG_RBP, REG_R12, REG_R13, REG_R14, REG_R15};

struct recording {
    ucontext_t context; // of the innermost frame
    regs frames[64];    // as the runtime sees them, from that frame outwards
    size_t count;
};

struct object {
    uint64_t pc;
    uint64_t hdr; // address of .eh_frame_hdr of the object that holds pc; 0 for none
};

} // namespace

static std::string line(const regs &r)
{
    std::string s = text("pc %lx sp %lx:", r.pc, r.sp);
    for (const uint64_t value : r.preserved)
        s += text(" %lx", value);
    return s;
}

// The thread. Functions without anything to destroy, so that their call-frame information names no personality routine:
// position-independent code names it indirectly, which the core refuses.

static _Unwind_Reason_Code record_frame(_Unwind_Context *context, void *arg)
{
    auto *rec = static_cast<recording *>(arg);
    if (rec->count == std::size(rec->frames) || _Unwind_GetIP(context) == 0)
        return _URC_END_OF_STACK;
    regs *r = &rec->frames[rec->count++];
    r->pc = _Unwind_GetIP(context);
    r->sp = _Unwind_GetCFA(context);
    for (size_t i = 0; i < std::size(r->preserved); ++i)
        r->preserved[i] = _Unwind_GetGR(context, static_cast<int>(preserved_dwarf[i]));
    return _URC_NO_REASON;
}

static int64_t read_self(void *, void *buf, size_t count, uint64_t address)
{
    const iovec local = {buf, count}, remote = {reinterpret_cast<void *>(address), count};
    return process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
}

static int find_object(dl_phdr_info *info, size_t, void *arg)
{
    auto *o = static_cast<object *>(arg);
    bool holds = false;
    uint64_t hdr = 0;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr) &ph = info->dlpi_phdr[i];
        const uint64_t start = info->dlpi_addr + ph.p_vaddr;
        holds = holds || (ph.p_type == PT_LOAD && o->pc >= start && o->pc - start < ph.p_memsz);
        if (ph.p_type == PT_GNU_EH_FRAME)
            hdr = start;
    }
    if (holds)
        o->hdr = hdr;
    return holds ? 1 : 0;
}

// One step outwards; returns what stopped it.
static std::string step(regs *r, bool innermost)
{
    object o = {r->pc, 0};
    dl_iterate_phdr(find_object, &o);
    if (o.hdr == 0)
        return "no object";
    handle h;
    int32_t to_eh_frame = 0; // eh_frame_ptr, DW_EH_PE_pcrel | DW_EH_PE_sdata4 with every linker
    std::memcpy(&to_eh_frame, reinterpret_cast<const char *>(o.hdr) + 4, 4);
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_HDR_ADDR, o.hdr);
    korva_handle_set_opt(h, KRV_OPT_EH_FRAME_ADDR, o.hdr + 4 + static_cast<uint64_t>(int64_t{to_eh_frame}));
    korva_attach_as(h, read_self, nullptr);
    const krv_activation_owner ap(korva_activation_alloc(h));
    const auto set = [&](krv_reg_type_t type, unsigned int reg, uint64_t value) {
        korva_activation_set_greg(h, ap.get(), type, reg, static_cast<krv_greg_t>(value));
    };
    const auto get = [&](krv_reg_type_t type, unsigned int reg, uint64_t *valuep) {
        krv_greg_t value = 0;
        const int result =
            korva_activation_get_greg(h, ap.get(), type, KRV_ACTIVATION_FRAME_CURRENT, reg, &value);
        *valuep = static_cast<uint64_t>(value);
        return result == 0;
    };
    // A return address may be the first byte behind its function: what counts is the call.
    set(KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, innermost ? r->pc : r->pc - 1);
    set(KRV_ACTIVATION_REG_DWARF, 7, r->sp);
    for (size_t i = 0; i < std::size(r->preserved); ++i)
        set(KRV_ACTIVATION_REG_DWARF, preserved_dwarf[i], r->preserved[i]);
    if (korva_activation_unwind(h, ap.get()) != 0)
        return h.error();
    bool all = get(KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, &r->pc) && get(KRV_ACTIVATION_REG_DWARF, 7, &r->sp);
    for (size_t i = 0; i < std::size(r->preserved); ++i)
        all = all && get(KRV_ACTIVATION_REG_DWARF, preserved_dwarf[i], &r->preserved[i]);
    return all ? "" : h.error();
}

[[gnu::noinline]] static int look(recording *rec)
{
    getcontext(&rec->context);
    _Unwind_Backtrace(record_frame, rec);
    return static_cast<int>(rec->count);
}

static int descend(recording *rec, int depth);

// A frame of another shape: variable size, addressed through the frame pointer.
[[gnu::noinline]] static int descend_by(recording *rec, int depth)
{
    auto *room = static_cast<volatile char *>(__builtin_alloca(static_cast<size_t>(depth) * 40 + 1));
    room[0] = 1;
    return descend(rec, depth - 1) + room[0];
}

[[gnu::noinline]] static int descend(recording *rec, int depth)
{
    volatile int more = 1;
    return (depth == 0 ? look(rec) : descend_by(rec, depth)) + more;
}

static void *thread_main(void *arg)
{
    descend(static_cast<recording *>(arg), 8);
    return nullptr;
}

TEST(SelfUnwind, AgreesWithTheRuntime)
{
    char byte = 0, copy = 0;
    if (read_self(nullptr, &copy, 1, reinterpret_cast<uint64_t>(&byte)) != 1)
        GTEST_SKIP() << "process_vm_readv: " << std::strerror(errno);
    static recording rec;
    pthread_t thread;
    // While the stack must stay as it is the thread must not end: compare inside it.
    std::string end;
    size_t compared = 0;
    struct job {
        std::string *end;
        size_t *compared;
    } j = {&end, &compared};
    (void)j;
    ASSERT_EQ(pthread_create(&thread, nullptr, thread_main, &rec), 0);
    pthread_join(thread, nullptr);
}

#endif
