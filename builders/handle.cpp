// SPDX-License-Identifier: Apache-2.0
#include "builders/handle.h"

#include "krv_ext.h"

#include "krv_fd.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace krv_test
{

std::string text(const char *format, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof(buf), format, ap);
    va_end(ap);
    return buf;
}

std::string error_line(krv_handle_t *hp)
{
    static const char *const codes[] = {"NONE",     "IO",    "CORRUPT", "EXISTS",         "INVALID",    "EVAL",
                                        "NOTFOUND", "NOMEM", "NOSPACE", "9 (never used)", "UNSUPPORTED"};
    const auto code = static_cast<size_t>(korva_handle_get_errno(hp));
    std::string line = code < std::size(codes)     ? codes[code]
                       : code == KRV_ERR_EXT_LIMIT ? "LIMIT"
                                                   : "unknown code " + std::to_string(code);
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    for (unsigned int i = 0; i < count; ++i)
        line.append(i == 0 ? ": " : " | ").append(messages[i]);
    return line;
}

std::unique_ptr<uint8_t[]> exact_copy(const bytes &contents)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[contents.size()]);
    std::copy_n(contents.data(), contents.size(), copy.get());
    return copy;
}

int64_t reader::read(void *arg, void *buf, size_t count, uint64_t offset)
{
    auto *self = static_cast<reader *>(arg);
    const bool faulty = ++self->reads == self->fault_at;
    if (faulty && self->kind == fault::fails)
        return -1;
    const size_t size = self->contents.size();
    const uint64_t at = offset - self->base;
    if (at > size || count > size - at) {
        self->strayed = true;
        return -1;
    }
    if (faulty && self->kind == fault::short_ && count > 0)
        --count;
    std::copy_n(self->contents.data() + at, count, static_cast<uint8_t *>(buf));
    return static_cast<int64_t>(count);
}

handle::handle(krv_activation_type_t target) : hp(korva_handle_alloc(target))
{
    if (hp == nullptr)
        std::abort();
}

handle::~handle()
{
    korva_handle_free(hp);
}

void handle::watch()
{
    const auto keep = [](unsigned int position, const char *message, void *arg) {
        static_cast<handle *>(arg)->log.push_back(std::to_string(position) + " " + message);
    };
    korva_handle_set_opt(hp, KRV_OPT_DEBUG_FUNC, +keep);
    korva_handle_set_opt(hp, KRV_OPT_DEBUG_FUNC_ARG, this);
}

krv_fd_t handle::cursor(const bytes &contents)
{
    krv_fd_t fd;
    buffers.push_back(exact_copy(contents));
    krv_fd_attach_mem(hp, &fd, contents.size(), buffers.back().get());
    return fd;
}

krv_fd_t handle::cursor(reader *source)
{
    krv_fd_t fd;
    krv_fd_attach_cb(hp, &fd, source->contents.size(), reader::read, source);
    return fd;
}

handle &handle::attach(krv_secidx_t sec, krv_fd_t cursor)
{
    cursor.sfd_hp = hp;
    *krv_section(hp, sec) = cursor;
    return *this;
}

static void keep_note(const krv_note_t *note, void *arg)
{
    *static_cast<std::string *>(arg) +=
        text("%s%s %lu %s\n", note->refused ? "!" : "", krv_section_name(note->section), note->offset, note->text);
}

handle &handle::extend(uint32_t extensions)
{
    hp->sh_ext = extensions;
    hp->sh_note_func = keep_note;
    hp->sh_note_arg = &notes;
    return *this;
}

handle &handle::attach(krv_secidx_t sec, const bytes &contents)
{
    return attach(sec, cursor(contents));
}

krv_ctu_t *handle::first_unit(const bytes &abbrev, const bytes &info)
{
    attach(KRV_SEC_ABBREV, abbrev).attach(KRV_SEC_INFO, info);
    return korva_lookup_ctu_by_start_offset(hp, KRV_SEC_INFO, 0);
}

handle &handle::attach(krv_secidx_t sec, reader *source)
{
    return attach(sec, cursor(source));
}

} // namespace krv_test
