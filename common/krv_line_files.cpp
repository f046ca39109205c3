// SPDX-License-Identifier: Apache-2.0
//
// The file table of a line-number header, the paths of its files, and what all of them may take. Paths are composed when
// they are asked for: with a long directory behind many files they would take many times the section's size.
#include "krv_line.h"

#include "krv_error.h"
#include "krv_fd.h"
#include "krv_mem.h"

namespace
{

// A path under composition: always terminated, silently cut to fit.
struct path_builder {
    char (&text)[KRV_STRING_BUFSZ];
    size_t length = 0;

    void append(const char *s)
    {
        const size_t room = sizeof(text) - 1 - length;
        const size_t count = strnlen(s, room);
        std::memcpy(text + length, s, count);
        length += count;
        text[length] = '\0';
    }
    void add(const char *s)
    {
        if (s[0] == '/') // whatever stands before it
            length = 0;
        append(s);
    }
    void add_directory(const char *s)
    {
        if (s == nullptr)
            return;
        add(s);
        if (length != 0 && text[length - 1] != '/')
            append("/");
    }
};

// The file table's pointer array. A larger one takes its place when it is full; the old one stays behind it, for
// clients and threads that hold it.
struct file_array {
    file_array *older;
    krv_lnfe_t *files[];
};

} // namespace

bool krv_line_has_room(krv_handle_t *hp, uint64_t bytes)
{
    constexpr uint64_t MOST_BYTES = 64; // of memory a byte of section; a row of one byte, the dearest, takes 36
    const uint64_t kept = hp->sh_line_bytes + bytes;
    const uint64_t size =
        krv_add_offset(hp->sh_sec[KRV_SEC_LINE].sfd_size, krv_section(hp, KRV_SEC_EXT_LINE_STR)->sfd_size);
    return kept <= KRV_KEPT_SLACK || (kept - KRV_KEPT_SLACK) / MOST_BYTES <= size;
}

bool krv_line_may_keep(krv_handle_t *hp, uint64_t bytes)
{
    const bool has_room = krv_line_has_room(hp, bytes);
    hp->sh_line_bytes = hp->sh_line_bytes + bytes; // also when it is refused, lest it be read for that again and again
    if (has_room)
        return true;
    krv_fail(hp, KRV_ERR_CORRUPT, "line numbers take too much memory for the size of .debug_line");
    return false;
}

static file_array *array_of(krv_lnfe_t **files)
{
    return files == nullptr
               ? nullptr
               : reinterpret_cast<file_array *>(reinterpret_cast<uint8_t *>(files) - offsetof(file_array, files));
}

bool krv_lnph_has_borrowed_files(const krv_lnph_t *lnphp)
{
    return lnphp->sln_common != nullptr && lnphp->sln_files == lnphp->sln_common->slc_header->sln_files;
}

void krv_lnph_free_files(krv_lnph_t *lnphp)
{
    const uint64_t borrowed = lnphp->sln_common == nullptr ? 0 : lnphp->sln_common->slc_header->sln_files_entries;
    for (uint64_t i = borrowed; i < lnphp->sln_files_entries; ++i) {
        krv_free(lnphp->sln_files[i]->slnfe_absolute_path);
        krv_free(lnphp->sln_files[i]);
    }
    file_array *older;
    for (file_array *array = krv_lnph_has_borrowed_files(lnphp) ? nullptr : array_of(lnphp->sln_files); array;
         array = older) {
        older = array->older;
        krv_free(array);
    }
}

// What a header has in its tables when it is read is accounted for at once, and what its program adds then one by one.
static bool may_add(krv_handle_t *hp, krv_lnph_t *lnphp, uint64_t bytes)
{
    if (lnphp->sln_program_offset != 0)
        return krv_line_may_keep(hp, bytes);
    lnphp->sln_bytes += bytes;
    return true;
}

// Makes room for one more file, in an array of the header's own.
static bool grow_files(krv_handle_t *hp, krv_lnph_t *lnphp)
{
    const uint64_t size = lnphp->sln_files_size, entries = lnphp->sln_files_entries;
    if (entries < size && !krv_lnph_has_borrowed_files(lnphp))
        return true;
    if (size > SIZE_MAX / sizeof(krv_lnfe_t *) / 4) {
        krv_errno(hp) = KRV_ERR_NOMEM;
        return false;
    }
    const uint64_t grown = size == 0 ? 1 : entries < size ? size : size * 2;
    const size_t bytes = sizeof(file_array) + grown * sizeof(krv_lnfe_t *);
    auto *array = may_add(hp, lnphp, bytes) ? static_cast<file_array *>(krv_zalloc(hp, bytes)) : nullptr;
    if (array == nullptr)
        return false;
    array->older = krv_lnph_has_borrowed_files(lnphp) ? nullptr : array_of(lnphp->sln_files);
    if (entries != 0)
        std::memcpy(array->files, lnphp->sln_files, entries * sizeof(krv_lnfe_t *));
    lnphp->sln_files_size = grown;
    krv_store(&lnphp->sln_files, static_cast<krv_lnfe_t **>(array->files));
    return true;
}

// What a relative directory counts from: the unit's compilation directory. Directory 0 of version 5 is the same, as the
// table has it: it takes the place of one that is not known, and, where it is relative, is repeated, as other readers do.
static const char *comp_dir_of(const krv_lnph_t *lnphp, const krv_ctu_t *cup, const char *directory)
{
    const char *comp_dir = cup == nullptr ? nullptr : cup->dcu_comp_dir;
    if (comp_dir != nullptr || lnphp->sln_first != 0 || lnphp->sln_id_entries == 0)
        return comp_dir;
    const char *first = lnphp->sln_id[0];
    return directory == first ? nullptr : first;
}

int krv_lnph_add_file(krv_handle_t *hp, krv_lnph_t *lnphp, krv_ctu_t *cup, const char *pathp, uint64_t diridx,
                      uint64_t mtime, uint64_t size)
{
    KRV_ASSERT(hp != NULL);
    KRV_ASSERT(lnphp != NULL);
    KRV_ASSERT(pathp != NULL);
    KRV_ASSERT(diridx <= lnphp->sln_id_entries);
    const size_t path_size = std::strlen(pathp) + 1, bytes = sizeof(krv_lnfe_t) + path_size;
    krv_owner<krv_lnfe_t> file(may_add(hp, lnphp, bytes) ? static_cast<krv_lnfe_t *>(krv_alloc(hp, bytes)) : nullptr);
    if (file == nullptr)
        return -1;
    const char *directory = krv_lnph_directory(lnphp, diridx);
    *file = {.slnfe_absolute_path = nullptr,
             .slnfe_path = reinterpret_cast<char *>(file.get() + 1),
             .slnfe_diridx = diridx,
             .slnfe_mtime = mtime,
             .slnfe_size = size,
             .slnfe_comp_dir = comp_dir_of(lnphp, cup, directory),
             .slnfe_dir = directory};
    std::memcpy(file->slnfe_path, pathp, path_size);
    const krv_write_guard guard(&lnphp->sln_files_lock);
    if (!grow_files(hp, lnphp))
        return -1;
    lnphp->sln_files[lnphp->sln_files_entries] = file.release();
    krv_store(&lnphp->sln_files_entries, lnphp->sln_files_entries + 1); // last: readers go by the count
    return 0;
}

const char *krv_lnph_directory(const krv_lnph_t *lnphp, uint64_t number)
{
    const uint64_t index = number - lnphp->sln_first;
    return index >= lnphp->sln_id_entries ? nullptr : lnphp->sln_id[index];
}

size_t krv_lnfe_compose_path(const krv_lnfe_t *file, char (&path)[KRV_STRING_BUFSZ])
{
    path_builder builder{path};
    builder.add_directory(file->slnfe_comp_dir);
    builder.add_directory(file->slnfe_dir);
    builder.add(file->slnfe_path);
    return builder.length;
}

char *krv_lnfe_absolute_path(krv_handle_t *hp, krv_lnfe_t *file)
{
    if (char *path = krv_load(&file->slnfe_absolute_path))
        return path;
    char path[KRV_STRING_BUFSZ];
    const size_t length = krv_lnfe_compose_path(file, path);
    if (!krv_line_may_keep(hp, length + 1))
        return nullptr;
    char *copy = krv_strdup(hp, path);
    return copy == nullptr ? nullptr : krv_publish(&file->slnfe_absolute_path, copy, krv_free);
}
