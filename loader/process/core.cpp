// SPDX-License-Identifier: Apache-2.0
//
// Core files: what was dumped of memory, what must be looked up in the files that were mapped, and the notes, which tell
// of threads and mappings. Every size and offset is the core file's claim and is compared with what the file has.
#include "process/source.h"

#include "elf/build_id.h"
#include "elf/debug_file.h"
#include "failure.h"
#include "file_mapping.h"
#include "notes.h"
#include "page.h"
#include "process/image.h"
#include "process/status.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <map>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <unordered_map>

namespace krv_elf_loader
{

namespace
{

// Where struct elf_prstatus and struct elf_prpsinfo keep what we want; the size of a word decides.
struct note_layout {
    size_t word;
    size_t status_signal;  // short pr_cursig
    size_t status_pid;     // int pr_pid
    size_t status_regs;    // pr_reg
    size_t regs_size;      // bytes
    size_t info_pid;       // int pr_pid
    size_t info_name;      // char pr_fname[16]
    size_t info_name_size; // bytes
};

constexpr note_layout layout_amd64 = {8, 12, 32, 112, REGS_SIZE_AMD64, 24, 40, 16};
constexpr note_layout layout_i386 = {4, 12, 24, 72, REGS_SIZE_I386, 12, 28, 16};

// The bytes that the core file has.
class dumped_memory : public memory
{
public:
    dumped_memory(const input_file &file, uint64_t file_size, const std::vector<Elf64_Phdr> &loads);
    bool read(uint64_t address, void *buf, size_t count) override { return read_some(address, buf, count) == count; }

    // As many bytes as there are from `address` on in one segment.
    size_t read_some(uint64_t address, void *buf, size_t count);

private:
    struct extent {
        uint64_t start;
        uint64_t size;
        uint64_t offset;
    };

    const input_file &source;
    std::vector<extent> extents; // ascending
};

dumped_memory::dumped_memory(const input_file &file, uint64_t file_size, const std::vector<Elf64_Phdr> &loads)
    : source(file)
{
    for (const Elf64_Phdr &segment : loads) {
        if (segment.p_offset >= file_size)
            continue;
        const uint64_t size = std::min({segment.p_filesz, segment.p_memsz, file_size - segment.p_offset});
        if (size != 0)
            extents.push_back({segment.p_vaddr, size, segment.p_offset});
    }
}

size_t dumped_memory::read_some(uint64_t address, void *buf, size_t count)
{
    auto next = std::upper_bound(extents.begin(), extents.end(), address,
                                 [](uint64_t a, const extent &e) { return a < e.start; });
    if (next == extents.begin() || address - std::prev(next)->start >= std::prev(next)->size)
        return 0;
    const extent &e = *std::prev(next);
    const uint64_t at = address - e.start;
    const auto piece = static_cast<size_t>(std::min<uint64_t>(count, e.size - at));
    return source.read(e.offset + at, buf, piece) ? piece : 0;
}

// How many bytes may be read for modules. A process has each byte of its files mapped once, or a few times; a core file
// can claim any number of modules over the same bytes.
class allowance
{
public:
    void grant(uint64_t there)
    {
        constexpr uint64_t TIMES = 4;
        left = there < (UINT64_MAX - left) / TIMES ? left + TIMES * there : UINT64_MAX;
    }

    bool take(uint64_t bytes)
    {
        left = bytes > left ? 0 : left - bytes;
        return left != 0;
    }

private:
    uint64_t left = 0;
};

class metered_memory : public memory
{
public:
    metered_memory(memory &source, allowance &limit, const std::string &core)
        : below(source), allowed(limit), core_path(core)
    {
    }

    void take(uint64_t count)
    {
        if (!allowed.take(count))
            throw failure(KRV_ELF_ERR_FORMAT, core_path +
                                                  ": its modules claim more than it and the files that it names "
                                                  "hold, so that no more is read of them");
    }

    bool read(uint64_t address, void *buf, size_t count) override
    {
        take(count);
        return below.read(address, buf, count);
    }

private:
    memory &below;
    allowance &allowed;
    const std::string &core_path;
};

class core_file_source : public source, private memory
{
public:
    core_file_source(const std::string &core, const std::string &exe, const search_settings &search);

    memory &bytes() override { return cache; }
    const std::vector<mapping> &mappings() const override { return maps; }
    memory &module_bytes() override { return metered; }
    void take_module_bytes(uint64_t count) override { metered.take(count); }
    register_set registers(int tid) override;
    std::string locate(const mapping &where) override;
    bool mismatched(const mapping &where) override { return file_of(where).state == other; }
    std::string why_unreadable(uint64_t address) override;
    void take_file(const std::string &path) override;
    void end_of_list() override { is_listed = true; }

private:
    enum mapped_state { usable, missing, other };
    struct mapped_file {
        mapped_state state = missing;
        std::string path;                   // where it is found
        std::unique_ptr<file_mapping> file; // which keeps no descriptor: a process may have mapped thousands
        std::string problem = "not found, or not readable";
        bool searched = false; // by build-id
    };

    [[noreturn]] void fail(int code, const std::string &text) const;
    bool read(uint64_t address, void *buf, size_t count) override; // dumped bytes, else those of files
    size_t read_mapped(uint64_t address, void *buf, size_t count);
    void open_core();
    void read_notes();
    void take_note(const elf_note &note);
    void take_status(const elf_note &note);
    void take_fxsave(const elf_note &note);
    void take_files(const elf_note &note);
    void add_unnamed_mappings();
    void add_executable_mappings();
    bool may_execute(uint64_t address) const;
    void sort_mappings();
    void find_executable();
    bool is_given(const mapping &where) const { return where.path == recorded_exe && !exe_path.empty(); }
    mapped_file &file_of(const mapping &where);
    const mapped_file &needed_file_of(const mapping &where);
    void search_by_build_id(const mapping &where, mapped_file *entry);
    void grant(const struct stat &file);
    std::vector<uint8_t> dumped_build_id(const mapping &where);
    bool same_file(const mapping &where, byte_span file);

    std::string core_path;
    std::string exe_path;     // the caller's, or ""
    std::string recorded_exe; // the path for which it stands
    input_file core_file;
    uint64_t core_size = 0;
    elf_image image;
    std::vector<Elf64_Phdr> loads; // its PT_LOAD segments, ascending by address
    note_layout layout = layout_amd64;
    std::unique_ptr<dumped_memory> dumped;
    page_cache cache;
    allowance allowed;
    metered_memory metered;
    std::vector<mapping> maps;
    std::unordered_map<std::string_view, size_t> first_of; // of the mappings of a path's first page, by path
    bool files_recorded = false;                           // there is an NT_FILE note
    bool is_listed = false;                                // every module
    std::vector<register_set> thread_registers;            // by index of the thread
    std::string process_name;
    std::map<std::string, mapped_file> known_files; // by recorded path
    std::set<std::pair<dev_t, ino_t>> granted;      // the same, each once
};

core_file_source::core_file_source(const std::string &core, const std::string &exe, const search_settings &search)
    : core_path(core), exe_path(exe), cache(*this), metered(cache, allowed, core_path)
{
    kind = KRV_PROC_CORE;
    client_files = search;
    open_core();
    dumped = std::make_unique<dumped_memory>(core_file, core_size, loads);
    read_notes();
    allowed.grant(core_size);
    if (threads.all().empty())
        fail(KRV_ELF_ERR_FORMAT, "no thread is recorded in it, or it was cut short before the first");
    threads.name(process_name);
    files_recorded = !maps.empty();
    if (!files_recorded && !exe_path.empty())
        add_executable_mappings();
    add_unnamed_mappings();
    find_executable();
    for (size_t i = 0; i < maps.size(); ++i)
        if (maps[i].offset == 0)
            first_of.emplace(maps[i].path, i);
}

void core_file_source::fail(int code, const std::string &text) const
{
    throw failure(code, core_path + ": " + text);
}

void core_file_source::open_core()
{
    core_file = input_file(core_path);
    struct stat st = {};
    if (!core_file.is_open() || fstat(core_file.fd(), &st) != 0)
        fail(KRV_ELF_ERR_SYSTEM, std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        fail(KRV_ELF_ERR_FORMAT, "not a regular file");
    core_size = static_cast<uint64_t>(st.st_size);
    file_memory file(core_file);
    auto headers = read_elf_image(file, 0, true);
    if (!headers)
        fail(KRV_ELF_ERR_FORMAT, "not an ELF file of 32-bit x86 or AMD64");
    if (headers->type != ET_CORE)
        fail(KRV_ELF_ERR_FORMAT, "an ELF file, but not a core file");
    if (headers->x32)
        fail(KRV_ELF_ERR_UNSUPPORTED, "core files of x32 programs are not read");
    image = std::move(*headers);
    uint64_t whole = 0;
    bool lacks_notes = false;
    for (const Elf64_Phdr &s : image.segments)
        if (s.p_filesz <= UINT64_MAX - s.p_offset) {
            whole = std::max(whole, s.p_offset + s.p_filesz);
            lacks_notes = lacks_notes || (s.p_type == PT_NOTE && s.p_offset + s.p_filesz > core_size);
        }
    if (whole > core_size)
        note(fmt::format("{}: cut short{}: it has {} of {} bytes", core_path,
                         lacks_notes ? ", and threads may be missing" : "", core_size, whole));
    target = image.target;
    layout = target == KRV_ACTIVATION_AMD64 ? layout_amd64 : layout_i386;
    for (const Elf64_Phdr &s : image.segments)
        if (s.p_type == PT_LOAD && s.p_memsz != 0 && s.p_memsz <= UINT64_MAX - s.p_vaddr)
            loads.push_back(s);
    std::stable_sort(loads.begin(), loads.end(),
                     [](const Elf64_Phdr &a, const Elf64_Phdr &b) { return a.p_vaddr < b.p_vaddr; });
}

void core_file_source::read_notes()
{
    file_memory file(core_file);
    uint64_t left = core_size; // segments that overlap are not read over and over
    for (const Elf64_Phdr &segment : image.segments) {
        if (segment.p_type != PT_NOTE || segment.p_offset >= core_size)
            continue;
        const uint64_t size = std::min({segment.p_filesz, core_size - segment.p_offset, left});
        left -= size;
        each_note(file, segment.p_offset, size, [this](const elf_note &note) {
            take_note(note);
            return true;
        });
    }
    sort_mappings();
}

// NT_PRSTATUS begins a thread; notes of its other registers follow it.
void core_file_source::take_note(const elf_note &note)
{
    if (note.name == "LINUX") {
        if (note.type == NT_PRXFPREG || note.type == NT_X86_XSTATE)
            take_fxsave(note);
        return;
    }
    if (note.name != "CORE")
        return;
    switch (note.type) {
    case NT_PRSTATUS:
        take_status(note);
        break;
    case NT_FPREGSET:
        if (target == KRV_ACTIVATION_AMD64)
            take_fxsave(note);
        break;
    case NT_PRPSINFO: {
        char name[32] = {};
        if (note.size < layout.info_name + layout.info_name_size)
            break;
        core_file.read(note.address + layout.info_pid, &pid, sizeof(pid));
        core_file.read(note.address + layout.info_name, name, layout.info_name_size);
        process_name = name;
        break;
    }
    case NT_AUXV: {
        std::vector<uint8_t> words(note.size);
        if (core_file.read(note.address, words.data(), words.size()))
            aux = parse_auxv(words.data(), words.size(), target);
        break;
    }
    case NT_FILE:
        take_files(note);
        break;
    default:
        break;
    }
}

void core_file_source::take_status(const elf_note &note)
{
    uint8_t bytes[layout_amd64.status_regs + REGS_SIZE_AMD64];
    const size_t size = layout.status_regs + layout.regs_size;
    if (note.size < size || !core_file.read(note.address, bytes, size))
        return;
    thread t = {0, {}, target};
    std::memcpy(&t.tid, bytes + layout.status_pid, sizeof(t.tid));
    if (threads.all().empty()) {
        int16_t cursig;
        std::memcpy(&cursig, bytes + layout.status_signal, sizeof(cursig));
        signal = cursig;
    }
    register_set set;
    load_registers(&set, target, bytes + layout.status_regs);
    threads.add(std::move(t));
    thread_registers.push_back(set);
}

void core_file_source::take_fxsave(const elf_note &note)
{
    uint8_t bytes[FXSAVE_SIZE];
    if (!thread_registers.empty() && note.size >= sizeof(bytes) && core_file.read(note.address, bytes, sizeof(bytes)))
        load_fxsave(&thread_registers.back(), bytes);
}

// NT_FILE: words count and page size, count triples (start, end, offset in pages), then as many paths.
void core_file_source::take_files(const elf_note &note)
{
    std::vector<uint8_t> bytes(note.size);
    if (!core_file.read(note.address, bytes.data(), bytes.size()))
        return;
    const auto word = [&](size_t index) {
        uint64_t value = 0;
        std::memcpy(&value, bytes.data() + index * layout.word, layout.word);
        return value;
    };
    const size_t words = bytes.size() / layout.word;
    if (words < 2 || word(0) > (words - 2) / 3)
        return;
    const auto count = static_cast<size_t>(word(0));
    const uint64_t page_size = word(1);
    size_t at = (2 + count * 3) * layout.word;
    for (size_t i = 0; i < count; ++i) {
        const auto *path = reinterpret_cast<const char *>(bytes.data()) + at;
        const size_t length = strnlen(path, bytes.size() - at);
        if (length == bytes.size() - at) // not terminated
            return;
        at += length + 1;
        const uint64_t start = word(2 + i * 3), end = word(3 + i * 3);
        std::string name(path, length);
        const bool deleted = take_deleted(&name);
        if (start < end)
            maps.push_back({start, end, word(4 + i * 3) * page_size, 0, may_execute(start), deleted, std::move(name)});
    }
}

// A segment that was left out altogether may have been: gdb leaves out code.
bool core_file_source::may_execute(uint64_t address) const
{
    const auto next = std::upper_bound(loads.begin(), loads.end(), address,
                                       [](uint64_t a, const Elf64_Phdr &s) { return a < s.p_vaddr; });
    if (next == loads.begin() || address - std::prev(next)->p_vaddr >= std::prev(next)->p_memsz)
        return true;
    return (std::prev(next)->p_flags & PF_X) != 0;
}

void core_file_source::sort_mappings()
{
    std::stable_sort(maps.begin(), maps.end(), [](const mapping &a, const mapping &b) { return a.start < b.start; });
}

// Without NT_FILE: the executable that the caller names, placed by what the program was told of itself.
void core_file_source::add_executable_mappings()
{
    const input_file exe(exe_path);
    file_memory file(exe);
    const auto headers = exe.is_open() ? read_elf_image(file, 0) : std::nullopt;
    if (!headers || headers->target != target || aux.entry == 0)
        return;
    const uint64_t bias = aux.entry - headers->entry;
    for (const Elf64_Phdr &s : headers->segments) {
        if (s.p_type != PT_LOAD || s.p_filesz == 0)
            continue;
        const uint64_t before = s.p_offset % PAGE; // a mapping begins on the page of the segment's first byte
        const uint64_t start = bias + s.p_vaddr - before;
        if (s.p_filesz < UINT64_MAX - start - before)
            maps.push_back(
                {start, start + before + s.p_filesz, s.p_offset - before, 0, (s.p_flags & PF_X) != 0, false, exe_path});
    }
    sort_mappings();
}

// The vDSO, which is in no file; and where no files are recorded at all, every dumped segment.
void core_file_source::add_unnamed_mappings()
{
    std::vector<mapping> unnamed;
    for (const Elf64_Phdr &s : loads)
        if (!files_recorded || s.p_vaddr == aux.vdso)
            if (find_mapping(maps, s.p_vaddr) == nullptr)
                unnamed.push_back({s.p_vaddr, s.p_vaddr + s.p_memsz, 0, 0, (s.p_flags & PF_X) != 0, false, {}});
    maps.insert(maps.end(), unnamed.begin(), unnamed.end());
    sort_mappings();
}

void core_file_source::find_executable()
{
    const mapping *at = find_mapping(maps, aux.entry);
    if (at == nullptr && !maps.empty())
        at = &maps.front(); // position-independent executables lie below the libraries, others lower still
    recorded_exe = at == nullptr ? "" : at->path;
}

register_set core_file_source::registers(int tid)
{
    const thread *t = threads.find(tid);
    if (t == nullptr)
        fail(KRV_ELF_ERR_NOTFOUND, fmt::format("no thread {}", tid));
    return thread_registers[static_cast<size_t>(t - threads.all().data())];
}

// Whether a file can be the one that was mapped: its program headers, and its build-id where both have one, are those
// that were dumped. Where the first page was not dumped there is nothing to compare.
bool core_file_source::same_file(const mapping &where, byte_span file)
{
    const auto at = first_of.find(where.path);
    if (at == first_of.end())
        return true;
    const mapping &first = maps[at->second];
    mapped_memory bytes(file);
    metered_memory found(bytes, allowed, core_path), dump(*dumped, allowed, core_path);
    const auto has = read_elf_image(found, 0);
    const auto had = read_elf_image(dump, first.start);
    if (!had)
        return true;
    if (!has || has->target != had->target || has->segments.size() < had->segments.size())
        return false;
    for (size_t i = 0; i < had->segments.size(); ++i)
        if (std::memcmp(&has->segments[i], &had->segments[i], sizeof(Elf64_Phdr)) != 0)
            return false;
    const std::vector<uint8_t> id = read_build_id(found, *has, std::nullopt);
    const std::vector<uint8_t> old_id = read_build_id(dump, *had, first.start - had->start);
    return id.empty() || old_id.empty() || id == old_id;
}

core_file_source::mapped_file &core_file_source::file_of(const mapping &where)
{
    const auto known = known_files.find(where.path);
    if (known != known_files.end())
        return known->second;
    mapped_file entry;
    entry.path = is_given(where) ? exe_path : client_files.below_sysroot(where.path);
    struct stat st = {};
    if (!entry.path.empty() && stat(entry.path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) { // devices are not opened
        try {
            entry.file = std::make_unique<file_mapping>(entry.path);
        } catch (const failure &f) {
            entry.problem = fmt::format("not readable: {}", f.what());
            note(fmt::format("{}: {}", entry.path, entry.problem));
        }
    }
    if (entry.file != nullptr)
        grant(st);
    if (entry.file != nullptr)
        entry.state = same_file(where, entry.file->bytes()) ? usable : other;
    return known_files.emplace(where.path, std::move(entry)).first->second;
}

// Each file once.
void core_file_source::grant(const struct stat &file)
{
    if (granted.emplace(file.st_dev, file.st_ino).second)
        allowed.grant(static_cast<uint64_t>(file.st_size));
}

void core_file_source::take_file(const std::string &path)
{
    struct stat st = {};
    if (stat(path.c_str(), &st) != 0)
        return;
    grant(st);
    metered.take(static_cast<uint64_t>(st.st_size));
}

// Empty where the first page was not dumped.
std::vector<uint8_t> core_file_source::dumped_build_id(const mapping &where)
{
    const auto at = first_of.find(where.path);
    if (at == first_of.end())
        return {};
    const mapping &first = maps[at->second];
    metered_memory dump(*dumped, allowed, core_path);
    const auto had = read_elf_image(dump, first.start);
    return had ? read_build_id(dump, *had, first.start - had->start) : std::vector<uint8_t>();
}

// The file that the client names for the executable stands for itself alone.
void core_file_source::search_by_build_id(const mapping &where, mapped_file *entry)
{
    entry->searched = true;
    const std::vector<uint8_t> id = is_given(where) ? std::vector<uint8_t>() : dumped_build_id(where);
    if (!is_usable_id(id))
        return;
    const debug_file found = find_by_build_id(id, file_kind::executable, client_files);
    for (const std::string &refused : found.refused)
        note(refused);
    if (found.file == nullptr)
        return;
    struct stat st = {};
    const std::string &path = found.file->path();
    try {
        entry->file = std::make_unique<file_mapping>(path);
    } catch (const failure &f) {
        return note(fmt::format("{}: {}", path, f.what()));
    }
    if (stat(path.c_str(), &st) == 0)
        grant(st);
    entry->path = path;
    entry->state = same_file(where, entry->file->bytes()) ? usable : other;
}

// Whoever lists modules asks for none of them: they may be hundreds, of which a stack goes through few.
const core_file_source::mapped_file &core_file_source::needed_file_of(const mapping &where)
{
    mapped_file &entry = file_of(where);
    if (is_listed && entry.state != usable && !entry.searched)
        search_by_build_id(where, &entry);
    return entry;
}

std::string core_file_source::locate(const mapping &where)
{
    const mapped_file &entry = needed_file_of(where);
    if (entry.state == missing)
        throw failure(KRV_ELF_ERR_NOTFOUND, fmt::format("{}: {}", entry.path, entry.problem));
    if (entry.state == other)
        throw failure(KRV_ELF_ERR_NOTFOUND,
                      fmt::format("{}: not the file that {} speaks of (its build-id or its program headers differ)",
                                  entry.path, core_path));
    metered.take(entry.file->bytes().size()); // who reads its symbols and lines may read all of it, for each module
    return entry.path;
}

size_t core_file_source::read_mapped(uint64_t address, void *buf, size_t count)
{
    const mapping *m = find_mapping(maps, address);
    if (m == nullptr || m->path.empty())
        return 0;
    const mapped_file &entry = needed_file_of(*m);
    const auto piece = static_cast<size_t>(std::min<uint64_t>(count, m->end - address));
    if (entry.state != usable)
        return 0;
    return mapped_memory(entry.file->bytes()).read(m->offset + (address - m->start), buf, piece) ? piece : 0;
}

std::string core_file_source::why_unreadable(uint64_t address)
{
    const auto next = std::upper_bound(loads.begin(), loads.end(), address,
                                       [](uint64_t a, const Elf64_Phdr &s) { return a < s.p_vaddr; });
    if (next != loads.begin() && address - std::prev(next)->p_vaddr < std::prev(next)->p_filesz)
        return ", since the core file was cut short";
    const mapping *m = find_mapping(maps, address);
    if (m == nullptr || m->path.empty())
        return ", since the core file does not have it";
    const mapped_file &entry = file_of(*m);
    if (entry.state == usable)
        return "";
    return fmt::format(", since the core file does not have it, and {} is {}", entry.path,
                       entry.state == missing ? entry.problem : "another file than was mapped");
}

bool core_file_source::read(uint64_t address, void *buf, size_t count)
{
    auto *to = static_cast<uint8_t *>(buf);
    while (count != 0) {
        size_t got = dumped->read_some(address, to, count);
        if (got == 0)
            got = read_mapped(address, to, count);
        if (got == 0)
            return false;
        to += got;
        address += got;
        count -= got;
    }
    return true;
}

} // namespace

std::unique_ptr<source> core_source(const std::string &core, const std::string &exe, const search_settings &search)
{
    return std::make_unique<core_file_source>(core, exe, search);
}

} // namespace krv_elf_loader
