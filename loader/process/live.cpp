// SPDX-License-Identifier: Apache-2.0
//
// Processes of this machine: one that is held still, and the calling one, which runs on.
#include "process/source.h"

#include "failure.h"
#include "process/image.h"
#include "process/ptrace.h"
#include "process/status.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace krv_elf_loader
{

namespace
{

bool is_file(const std::string &path, uint64_t inode)
{
    struct stat st = {};
    return stat(path.c_str(), &st) == 0 && st.st_ino == inode;
}

// The main thread while it lives, and then another one.
int living_thread(int pid)
{
    for (const int tid : list_threads(pid))
        if (const char state = read_state(tid); state != 0 && state != 'Z' && state != 'X')
            return tid;
    throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("process {}: it has ended", pid));
}

// What a live process and the calling one have in common.
class running_source : public source
{
public:
    // `tid`: a thread that lives. Through the main thread of a process, once it has ended, the system shows nothing of it.
    running_source(int kind_of_process, int process, int tid) : raw(tid), cache(raw), living(tid)
    {
        kind = kind_of_process;
        pid = process;
    }

    memory &bytes() override { return cache; }
    const std::vector<mapping> &mappings() const override { return maps; }
    std::string locate(const mapping &where) override;
    bool outlived(const mapping &where) override { return is_file(path_here(where), where.inode); }
    search_settings files() const override;

protected:
    void read_program(); // throws failure

    live_memory raw;
    page_cache cache;
    std::vector<mapping> maps;
    int living;

private:
    void find_root();
    std::string its_root() const { return fmt::format("/proc/{}/root", living); }
    std::string path_here(const mapping &where) const;

    input_file root; // of a process that sees other files than we do; what it leads to stays when the process ends
    std::string root_path; // as we see it, where we do: then the process's paths begin with it for us
};

// Of two paths that lead somewhere, whether it is to the same place.
bool differ(const std::string &a, const std::string &b)
{
    struct stat is = {}, other = {};
    return stat(a.c_str(), &is) == 0 && stat(b.c_str(), &other) == 0 &&
           (is.st_dev != other.st_dev || is.st_ino != other.st_ino);
}

// Another root, or other mounts: as in a container.
void running_source::find_root()
{
    if (differ(its_root() + "/.", "/") || differ(fmt::format("/proc/{}/ns/mnt", living), "/proc/self/ns/mnt"))
        root = input_file(its_root());
    std::error_code unseen;
    if (root.is_open())
        root_path = std::filesystem::read_symlink(its_root(), unseen).string();
}

std::string running_source::path_here(const mapping &where) const
{
    const bool is_ours =
        client_files.sysroot.empty() && root_path.size() > 1 && where.path.starts_with(root_path + "/");
    return files().below_sysroot(is_ours ? where.path.substr(root_path.size()) : where.path);
}

// What the client says of a sysroot is believed.
search_settings running_source::files() const
{
    search_settings found = client_files;
    if (!found.sysroot.empty() || !root.is_open())
        return found;
    const std::string kept = fmt::format("/proc/self/fd/{}", root.fd());
    const bool has_ended = access((its_root() + "/.").c_str(), F_OK) != 0 || differ(its_root() + "/.", kept + "/.");
    found.sysroot = has_ended ? kept : its_root();
    return found;
}

// Target, maps and auxiliary vector. A process that has just ended has no mappings.
void running_source::read_program()
{
    const input_file exe(fmt::format("/proc/{}/exe", living));
    file_memory file(exe);
    const auto image = exe.is_open() ? read_elf_image(file, 0) : std::nullopt;
    if (!image)
        throw failure(KRV_ELF_ERR_UNSUPPORTED,
                      fmt::format("process {}: {}", pid,
                                  exe.is_open() ? "not a 32-bit x86 or AMD64 program"
                                                : std::string("cannot open its executable: ") + std::strerror(errno)));
    if (image->x32)
        throw failure(KRV_ELF_ERR_UNSUPPORTED, fmt::format("process {}: x32 programs are not read", pid));
    std::vector<mapping> found = read_maps(living);
    if (found.empty())
        throw failure(KRV_ELF_ERR_NOTFOUND,
                      fmt::format("process {}: it has ended, or its mappings may not be read", pid));
    target = image->target;
    maps = std::move(found);
    const std::string words = read_text(fmt::format("/proc/{}/auxv", living));
    aux = parse_auxv(reinterpret_cast<const uint8_t *>(words.data()), words.size(), target);
    find_root();
}

// The path itself when it still leads to the file, below the root of the process where that is another one; else, as for
// a file that was deleted, by the link that the system keeps, which is for the privileged. Below a sysroot that the client names
// there are copies, and they are what it wants.
std::string running_source::locate(const mapping &where)
{
    std::string here = path_here(where);
    if (!client_files.sysroot.empty()) {
        if (access(here.c_str(), R_OK) == 0)
            return here;
        throw failure(KRV_ELF_ERR_NOTFOUND, here + ": not found, or not readable");
    }
    const std::string candidates[] = {
        here,
        where.path,
        fmt::format("/proc/{}/map_files/{:x}-{:x}", living, where.start, where.end),
    };
    for (const std::string &path : candidates)
        if (is_file(path, where.inode))
            return path;
    throw failure(KRV_ELF_ERR_NOTFOUND,
                  where.path + ": the file that process " + std::to_string(pid) + " has mapped is no longer there");
}

class live_source : public running_source
{
public:
    live_source(int process, std::unique_ptr<stopped_process> held)
        : running_source(KRV_PROC_LIVE, process, held->threads().front().tid), stopped(std::move(held))
    {
        read_program();
        for (const stopped_process::tracee &t : stopped->threads()) {
            krv_activation_type_t runs = 0;
            if (t.stopped)
                stopped->registers(t.tid, &runs);
            threads.add({t.tid, read_name(pid, t.tid), runs, t.state});
        }
        if (living != pid)
            note(fmt::format("process {}: its main thread has ended; its other threads live", pid));
    }

    register_set registers(int tid) override
    {
        krv_activation_type_t runs = 0;
        if (stopped == nullptr)
            throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("process {}: it has been let go, and runs", pid));
        return stopped->registers(tid, &runs);
    }

    memory &changing_bytes() override
    {
        if (stopped == nullptr)
            return raw;
        return bytes();
    }
    void release() override { stopped = nullptr; }
    bool is_held() const override { return stopped != nullptr; }

    // Nobody waits for a server while the process stands still.
    search_settings files() const override
    {
        search_settings found = running_source::files();
        if (is_held())
            found.flags &= ~static_cast<unsigned int>(KRV_ELF_F_DEBUGINFOD);
        return found;
    }

private:
    std::unique_ptr<stopped_process> stopped; // until it is let go
};

// A process that nothing holds: the calling one, or another one that is looked at while it runs.
class free_source : public running_source
{
public:
    free_source(int kind_of_process, int process, int tid) : running_source(kind_of_process, process, tid)
    {
        read_program();
        list();
    }

    register_set registers(int tid) override
    {
        throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("thread {}{} is running: it has no registers to read", tid,
                                                        kind == KRV_PROC_SELF ? " of the calling process" : ""));
    }

    memory &changing_bytes() override { return raw; }
    void forget_bytes() override { cache.forget(); }

    bool is_free() const override { return true; }
    void refresh() override
    {
        const int tid = kind == KRV_PROC_SELF ? pid : living_thread(pid);
        if (tid != living) {
            living = tid;
            raw = live_memory(tid);
        }
        forget_bytes();
        read_program(); // it may be another one by now
        list();
    }

private:
    void list()
    {
        threads = {};
        for (const int tid : list_threads(pid))
            threads.add({tid, read_name(pid, tid), target, read_state(tid)});
    }
};

} // namespace

// Of a thread, its process.
static int process_of(int pid)
{
    const int process = pid <= 0 ? -1 : read_status_number(pid, "Tgid");
    if (process < 0)
        throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("process {}: no such process", pid));
    return process;
}

std::unique_ptr<source> attach_source(int pid)
{
    const int process = process_of(pid);
    if (process == getpid())
        throw failure(KRV_ELF_ERR_SYSTEM, fmt::format("process {}: the calling process cannot stop itself", pid));
    return std::make_unique<live_source>(process, std::make_unique<stopped_process>(process));
}

std::unique_ptr<source> watch_source(int pid)
{
    const int process = process_of(pid);
    return std::make_unique<free_source>(KRV_PROC_LIVE, process, living_thread(process));
}

std::unique_ptr<source> self_source()
{
    return std::make_unique<free_source>(KRV_PROC_SELF, getpid(), getpid());
}

} // namespace krv_elf_loader
