// SPDX-License-Identifier: Apache-2.0
#include "record/inside.h"

#include "output.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <elf.h>
#include <fmt/format.h>
#include <linux/futex.h>
#include <new>
#include <sys/syscall.h>

namespace korva::program
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

static constexpr milliseconds DRAIN_INTERVAL(10), GREETING_INTERVAL(1);
static constexpr std::chrono::seconds LONGEST_START(5);

// ---------------------------------------------------------------------------------------------------------------
// The library
// ---------------------------------------------------------------------------------------------------------------

// Beside the program, where it is built, or where it is installed. The dynamic linker separates names by blanks and colons.
std::string find_record_library()
{
    char own[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", own, sizeof(own));
    const std::string_view exe(own, length < 0 ? 0 : static_cast<size_t>(length));
    const std::string folder(exe.substr(0, exe.rfind('/') + 1));
    for (const char *place : {"libkorva-record.so", KORVA_RECORD_LIBRARY})
        if (std::string path = folder + place;
            access(path.c_str(), R_OK) == 0 && path.find_first_of(" :\t\n") == std::string::npos)
            return path;
    return "";
}

bool can_be_sampled_inside(const process &proc)
{
    const krv_proc_module_t *main = nullptr;
    for (const krv_proc_module_t *module : proc.modules())
        if ((module->flags & KRV_PROC_MODULE_F_MAIN) != 0)
            main = module;
    const auto file =
        main == nullptr || main->target != KRV_ACTIVATION_AMD64 ? result<elf_view>(error()) : proc.file(*main);
    return file &&
           korva_elf_iter_segments(
               file->get(),
               [](krv_elf_t *, const krv_elf_segment_t *segment, void *) { return segment->type == PT_INTERP ? 1 : 0; },
               nullptr) != 0;
}

// ---------------------------------------------------------------------------------------------------------------
// The ring
// ---------------------------------------------------------------------------------------------------------------

static void wake(std::atomic<uint32_t> *word)
{
    syscall(SYS_futex, word, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

shared_ring::shared_ring(double hz)
{
    m_fd = memfd_create("korva-record", MFD_CLOEXEC);
    uint8_t *mapped = m_fd < 0 || ftruncate(m_fd, RING_PAGE + RING_SIZE) != 0 ? nullptr : map_ring(m_fd);
    if (mapped == nullptr)
        throw failure(fmt::format("memory to share with the program: {}", std::strerror(errno)));
    m_header = new (mapped) ring_header{};
    m_header->version = RING_VERSION;
    m_header->interval = static_cast<uint64_t>(1e9 / hz);
}

shared_ring::~shared_ring()
{
    end();
    munmap(m_header, RING_PAGE + 2 * RING_SIZE);
    close(m_fd);
}

std::string shared_ring::path() const
{
    return fmt::format("/proc/{}/fd/{}", getpid(), m_fd);
}

void shared_ring::set_process(int pid)
{
    m_header->pid = static_cast<uint32_t>(pid);
    wake(&m_header->pid);
}

void shared_ring::end()
{
    m_header->ended = 1;
    m_header->welcome = UINT32_MAX;
    wake(&m_header->welcome);
    if (m_header->pid == 0) // the program waits to know whether it is the one
        set_process(INT_MAX);
}

void shared_ring::welcome()
{
    m_header->welcome = m_header->hello.load();
    wake(&m_header->welcome);
}

// The program may write there whatever it likes: each number is read once, and held against what is there.
bool shared_ring::next(taken *sample, stack_memory *stack)
{
    const uint64_t tail = m_header->tail.load(std::memory_order_relaxed), head = m_header->head;
    if (head == tail)
        return false;
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(m_header) + RING_PAGE + tail % RING_SIZE;
    const auto *there = reinterpret_cast<const ring_sample *>(bytes);
    if (there->mark.load(std::memory_order_acquire) != tail + 1)
        return false;
    struct {
        alignas(ring_sample) uint8_t bytes[sizeof(ring_sample)];
    } copy;
    std::memcpy(copy.bytes, bytes, sizeof(copy.bytes));
    const auto &head_of = *reinterpret_cast<const ring_sample *>(copy.bytes);
    if (head - tail > RING_SIZE || head_of.size > head - tail || head_of.size % RING_GRAIN != 0 ||
        head_of.size < sizeof(ring_sample) || head_of.size > RING_LARGEST ||
        head_of.stack_size > head_of.size - sizeof(ring_sample))
        throw failure("the program has overwritten the memory of its samples");
    sample->tid = head_of.tid;
    sample->registers.mask = head_of.mask;
    sample->registers.target = KRV_ACTIVATION_AMD64;
    std::copy(std::begin(head_of.gregs), std::end(head_of.gregs), std::begin(sample->registers.gregs));
    sample->name.assign(head_of.name, strnlen(head_of.name, sizeof(head_of.name)));
    sample->handler = std::chrono::nanoseconds(static_cast<uint32_t>(head_of.nanoseconds));
    stack->set(head_of.stack_start, bytes + sizeof(ring_sample), head_of.stack_size);
    m_header->tail.store(tail + head_of.size, std::memory_order_release);
    return true;
}

// ---------------------------------------------------------------------------------------------------------------
// The recording
// ---------------------------------------------------------------------------------------------------------------

inside_sampler::inside_sampler(process *proc, const recording_signals *signals, sampling_request request,
                               shared_ring *ring, const std::string &library)
    : m_pid(proc->info().pid), m_signals(signals), m_request(request), m_ring(ring), m_walker(proc), m_memory(m_pid)
{
    m_walker.hide(library);
}

// A program came up: the first one, or one that is executed. It waits; its modules are all there.
void inside_sampler::greet()
{
    drain();
    m_ring->skip();
    m_walker.refresh();
    m_image = program_image(m_pid);
    if (m_begin == moment())
        m_begin = steady_clock::now();
    m_ring->welcome();
}

void inside_sampler::drain()
{
    shared_ring::taken sample;
    raw_stack stack;
    while (m_ring->next(&sample, &m_memory)) {
        m_walker.walk(sample.registers, &m_memory, &stack);
        // A library that was loaded meanwhile; not those of another program, which is about to come up.
        if (m_walker.needs_modules(stack) && program_image(m_pid) == m_image && m_walker.refresh())
            m_walker.walk(sample.registers, &m_memory, &stack);
        samples.add(sample.tid, stack, &m_walker);
        samples.name_thread(sample.tid, sample.name);
        cost.stopped += sample.handler;
        ++cost.samples;
    }
}

bool inside_sampler::run(const std::function<bool()> &has_ended)
{
    const auto used = processor_time();
    const moment start = steady_clock::now();
    const moment end = m_request.end(start);
    m_ring->set_process(m_pid);
    for (bool is_last = false; !is_last;) {
        const moment now = steady_clock::now();
        const int number =
            m_signals->wait_until(std::min(end, now + (m_begin == moment() ? GREETING_INTERVAL : DRAIN_INTERVAL)));
        is_last = (number != 0 && number != SIGCHLD) || now >= end || has_ended();
        if (m_ring->is_greeted())
            greet();
        if (m_begin == moment() && now - start > LONGEST_START) {
            m_ring->end();
            return false;
        }
        drain();
    }
    m_ring->end();
    cost.missed = m_ring->lost();
    cost.elapsed = steady_clock::now() - start;
    cost.processor = processor_time() - used;
    return true;
}

} // namespace korva::program
