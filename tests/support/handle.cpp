// SPDX-License-Identifier: Apache-2.0
#include "support/handle.h"

#include <algorithm>

namespace krv_test
{

std::string failed_read(const std::string &error)
{
    const std::string cause = "IO: read callback failed | ";
    const std::string line = error.substr(0, error.rfind(" | ", error.find(" at ")));
    return line.starts_with(cause) ? line.substr(line.rfind(" | ") + 3) : error;
}

std::string greg_of(krv_handle_t *hp, krv_activation_t *ap, krv_frame_type_t frame, krv_reg_type_t type, unsigned reg)
{
    krv_greg_t value = 0;
    const int result = korva_activation_get_greg(hp, ap, type, frame, reg, &value);
    return result == 0 ? text("%lx", static_cast<uint64_t>(value)) : error_line(hp);
}

void for_each_cursor(handle &h, const bytes &contents, const std::function<void(krv_fd_t *, fault)> &fn)
{
    {
        SCOPED_TRACE("memory");
        krv_fd_t fd = h.cursor(contents);
        fn(&fd, fault::none);
    }
    reader good{.contents = contents};
    {
        SCOPED_TRACE("call-back");
        krv_fd_t fd = h.cursor(&good);
        fn(&fd, fault::none);
        EXPECT_FALSE(good.strayed);
    }
    for (unsigned n = 1; n <= good.reads; ++n) {
        for (const fault kind : {fault::fails, fault::short_}) {
            SCOPED_TRACE("read " + std::to_string(n) + (kind == fault::fails ? " fails" : " is short"));
            reader bad{.contents = contents, .kind = kind, .fault_at = n};
            krv_fd_t fd = h.cursor(&bad);
            fn(&fd, kind);
        }
    }
}

void for_each_prefix(const bytes &contents, const std::function<void(const bytes &)> &fn)
{
    for (size_t n = 0; n < contents.size(); ++n) {
        SCOPED_TRACE("the first " + std::to_string(n) + " bytes");
        fn(contents.first(n));
    }
}

void for_each_room(size_t need, const std::function<void(uint8_t *, size_t, bool)> &fn)
{
    constexpr size_t plenty = 32;
    for (const size_t size : {need + plenty, need, need - 1}) {
        if (need == 0 && size == need - 1)
            continue;
        SCOPED_TRACE("room for " + std::to_string(size) + " of " + std::to_string(need) + " bytes");
        std::vector<uint8_t> room(size + plenty, 0xa5);
        fn(room.data(), size, size >= need);
        EXPECT_TRUE(std::all_of(room.begin() + static_cast<ptrdiff_t>(size), room.end(), [](uint8_t b) {
            return b == 0xa5;
        })) << "wrote past the room";
    }
}

} // namespace krv_test
