// SPDX-License-Identifier: Apache-2.0
//
// Memory of a process, wherever its bytes are. A read delivers every byte asked for or fails; a failure is no error
// of its own, the reader knows what it means.
#ifndef KRV_PROC_MEMORY_H
#define KRV_PROC_MEMORY_H

#include "bytes.h"
#include "page.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>

namespace krv_elf_loader
{

class memory
{
public:
    virtual ~memory() = default;
    virtual bool read(uint64_t address, void *buf, size_t count) = 0;

    template <typename T>
    bool get(uint64_t address, T *valuep)
    {
        return read(address, valuep, sizeof(T));
    }
};

// A file opened for reading.
class input_file
{
public:
    input_file() = default;
    explicit input_file(const std::string &path); // not open on failure; errno says why
    ~input_file();
    input_file(input_file &&other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    input_file &operator=(input_file &&other) noexcept;
    input_file(const input_file &) = delete;
    input_file &operator=(const input_file &) = delete;

    bool is_open() const { return descriptor >= 0; }
    int fd() const { return descriptor; }
    bool read(uint64_t offset, void *buf, size_t count) const; // every byte, or false

private:
    int descriptor = -1;
};

// Memory of a process of this machine: process_vm_readv, with /proc/PID/mem where that fails (a system that forbids
// the call; pages that the process itself may not read).
class live_memory : public memory
{
public:
    explicit live_memory(int process) : pid(process) {}
    bool read(uint64_t address, void *buf, size_t count) override;

private:
    int pid;
    input_file mem; // opened when first needed
};

// A file's bytes, as if it were mapped at address 0.
class file_memory : public memory
{
public:
    explicit file_memory(const input_file &file) : source(file) {}
    bool read(uint64_t address, void *buf, size_t count) override { return source.read(address, buf, count); }

private:
    const input_file &source;
};

// Bytes that are mapped here, as if they were at address 0.
class mapped_memory : public memory
{
public:
    explicit mapped_memory(byte_span bytes) : all(bytes) {}
    bool read(uint64_t address, void *buf, size_t count) override;

private:
    byte_span all;
};

// Keeps pages of a memory that does not change, because it is read in pieces of a few bytes.
class page_cache : public memory
{
public:
    explicit page_cache(memory &source) : below(source) {}
    bool read(uint64_t address, void *buf, size_t count) override;
    void forget();

private:
    static constexpr size_t MOST_PAGES = 4096; // 16 megabytes; then it starts afresh
    using page = std::array<uint8_t, PAGE>;

    const page *find(uint64_t number);

    memory &below;
    std::unordered_map<uint64_t, std::unique_ptr<page>> pages; // by address / PAGE
    uint64_t last_number = 0;                                  // the page of the last read
    const page *last = nullptr;
};

} // namespace krv_elf_loader

#endif
