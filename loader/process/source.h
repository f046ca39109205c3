// SPDX-License-Identifier: Apache-2.0
//
// Where the facts about a process come from: the system, for a live process and for the calling one, or a core file.
// A source knows memory, mappings and threads; it knows nothing of ELF objects in that memory, let alone of frames.
#ifndef KRV_PROC_SOURCE_H
#define KRV_PROC_SOURCE_H

#include "elf/search.h"
#include "process/memory.h"
#include "process/registers.h"

#include "libkorva-proc.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace krv_elf_loader
{

// A range of the process's addresses.
struct mapping {
    uint64_t start;
    uint64_t end;
    uint64_t offset; // in the file
    uint64_t inode;  // of the file, 0 when not known
    bool executable;
    bool deleted;
    std::string path; // as the process knows it; "" when no file is mapped, or which one is not known
};

// What the system told the program at its start. 0: it did not.
struct auxiliary {
    uint64_t program_headers = 0; // AT_PHDR, those of the main executable in memory
    uint64_t entry = 0;           // AT_ENTRY
    uint64_t vdso = 0;            // AT_SYSINFO_EHDR
};

struct thread {
    int tid;
    std::string name;
    krv_activation_type_t target; // 0: could not be stopped
    char state = 0;               // its letter in /proc, before it was stopped; 0 when not known
};

// The threads of a process in the order of its source. Of several with one id the first is found.
class thread_list
{
public:
    void add(thread t)
    {
        index.emplace(t.tid, list.size());
        list.push_back(std::move(t));
    }
    const thread *find(int tid) const // NULL: there is none
    {
        const auto found = index.find(tid);
        return found == index.end() ? nullptr : &list[found->second];
    }
    const std::vector<thread> &all() const { return list; }
    void name(const std::string &process)
    {
        for (thread &t : list)
            t.name = process;
    }

private:
    std::vector<thread> list;
    std::unordered_map<int, size_t> index;
};

class source
{
public:
    virtual ~source() = default;

    virtual memory &bytes() = 0;                              // kept in pages
    virtual memory &changing_bytes() { return bytes(); }      // as they are now, of a process that runs
    virtual const std::vector<mapping> &mappings() const = 0; // ascending by address
    virtual register_set registers(int tid) = 0;              // throws failure

    // The bytes that are read for a module: its headers, its notes. Reading throws failure where a core file would have the
    // same bytes read over and over; so does telling that a handle may read so many.
    virtual memory &module_bytes() { return bytes(); }
    virtual void take_module_bytes(uint64_t) {}

    // A path under which the file mapped at `where` can be opened. Throws failure.
    virtual std::string locate(const mapping &where) = 0;
    // Whether it can be as long as the file is there, whatever becomes of the process.
    virtual bool outlived(const mapping &) { return true; }
    // Whether the file that locate would have given is another one than was mapped.
    virtual bool mismatched(const mapping &) { return false; }

    // Why memory that should be there is not, as the end of a sentence about it; "" when that is not known.
    virtual std::string why_unreadable(uint64_t) { return ""; }

    // Lets a process that is held run on.
    virtual void release() {}
    virtual bool is_held() const { return false; }
    // The modules are listed: from now on files may be looked for beyond their paths.
    virtual void end_of_list() {}

    // Of a process that nothing holds: what was kept of memory is no longer so; mappings and threads may be others.
    virtual bool is_free() const { return false; }
    virtual void forget_bytes() {}
    virtual void refresh() {}

    void note(const std::string &text)
    {
        if (notes.empty() || notes.back() != text)
            notes.push_back(text);
    }

    int kind = 0; // KRV_PROC_*
    int pid = 0;
    int signal = 0;
    krv_activation_type_t target = 0; // of the main executable
    auxiliary aux;
    thread_list threads;
    std::deque<std::string> notes;      // what is missing or odd on the whole, a line each; they stay where they are
    std::optional<uint64_t> unreadable; // where the last read of memory for a module's handle failed

    // How the files of modules are found and opened, as the client says it; and as it is now.
    search_settings client_files;
    virtual search_settings files() const { return client_files; }
    // A file that stands for one of the process's: its bytes may be read for a module, as module_bytes says.
    virtual void take_file(const std::string &) {}
};

std::unique_ptr<source> attach_source(int pid); // throws failure
std::unique_ptr<source> core_source(const std::string &core, const std::string &exe,
                                    const search_settings &search); // throws failure
std::unique_ptr<source> watch_source(int pid);                      // throws failure
std::unique_ptr<source> self_source();                              // throws failure

// The auxiliary vector in `size` bytes at `bytes`, of words as wide as the target's.
auxiliary parse_auxv(const uint8_t *bytes, size_t size, krv_activation_type_t target);

// The mapping that covers an address, or NULL.
const mapping *find_mapping(const std::vector<mapping> &mappings, uint64_t address);

} // namespace krv_elf_loader

#endif
