// SPDX-License-Identifier: Apache-2.0
//
// A file in memory that holds one fuzzing input.
#ifndef KRV_FUZZ_FILE_H
#define KRV_FUZZ_FILE_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace krv_fuzz
{

class file
{
public:
    file(const uint8_t *data, size_t size) : fd(memfd_create("input", MFD_CLOEXEC))
    {
        if (fd < 0 || (size != 0 && write(fd, data, size) != static_cast<ssize_t>(size)))
            std::abort();
    }
    ~file() { close(fd); }
    file(const file &) = delete;
    file &operator=(const file &) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }

private:
    int fd;
};

} // namespace krv_fuzz

#endif
