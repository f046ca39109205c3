// SPDX-License-Identifier: Apache-2.0
//
// A file in memory. Files are limited by memory, not by descriptors: those of a few are kept, if asked for, while there are
// many to be had.
#ifndef KRV_ELF_FILE_MAPPING_H
#define KRV_ELF_FILE_MAPPING_H

#include "bytes.h"

#include <string>
#include <sys/types.h>

namespace krv_elf_loader
{

class file_mapping
{
public:
    // Throws failure, whose text does not name the file.
    explicit file_mapping(const std::string &path, bool keeps_descriptor = false);
    ~file_mapping();
    file_mapping(const file_mapping &) = delete;
    file_mapping &operator=(const file_mapping &) = delete;

    byte_span bytes() const { return all; }

    // Reads bytes of this mapping from the file: for a few, by a system call, that costs less than to touch a page, which then
    // stays in memory. False: there is no descriptor, or the file has become shorter.
    bool read(const uint8_t *from, void *to, size_t count) const;
    bool can_read(byte_span part) const; // part is in this mapping, and there is a descriptor
    void close_descriptor();

    // Takes whole pages of a part out of memory, to be read again from the file. They must not have been written to. Nothing
    // happens to what is not in this mapping.
    void trim(byte_span part) const;

    // Whether the file became shorter, and a signal handler has put zeros where its bytes are missing.
    bool was_cut() const;

    // Of a byte that cannot be read since its file became shorter: puts zeros in the place of that page and of all behind
    // it. False when it is not in a mapped file. For signal handlers: takes no lock and no memory.
    static bool replace_missing(const void *address);

private:
    struct place;
    static place *take_place(byte_span mapped);

    bool holds(byte_span part) const;
    bool has_descriptor() const;

    int fd = -1;
    dev_t device = 0; // of the file that fd is of, unless the client has closed that
    ino_t inode = 0;
    byte_span all;
    place *registered; // where replace_missing finds the mapping
};

} // namespace krv_elf_loader

#endif
