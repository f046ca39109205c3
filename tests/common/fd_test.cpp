// SPDX-License-Identifier: Apache-2.0
//
// The byte cursor.
#include "krv_fd.h"
#include "support/handle.h"

#include <cstring>

using namespace krv_test;

static const bytes ten = bytes::hex("00 11 22 33 44 55 66 77 88 99");

#define OP(call) [&](krv_fd_t *fd) { return call; }

// One operation on a ten-byte cursor at a position, with a truncation. A success gives position and remaining bytes; a
// failure gives the error state and must leave the cursor where it was.
TEST(Fd, Operations)
{
    uint8_t buf[16] = {};
    const char *past_end = "INVALID: can't seek beyond end", *past_rest = "INVALID: can't seek beyond remainder";
    const char *no_write = "INVALID: cannot write to non-memory files",
               *no_set = "INVALID: cannot set non-memory files";
    const struct {
        uint64_t offset, length;
        std::function<int(krv_fd_t *)> op;
        const char *memory, *call_back = nullptr; // where it differs
    } rows[] = {
        {2, 8, OP(korva_fd_seek(fd, 10, KRV_FD_SEEK_SET)), "10+0"},
        {2, 8, OP(korva_fd_seek(fd, 11, KRV_FD_SEEK_SET)), past_end},
        {3, 4, OP(korva_fd_seek(fd, 0, KRV_FD_SEEK_SET)), "0+10"},
        {3, 4, OP(korva_fd_seek(fd, 4, KRV_FD_SEEK_CUR)), "7+0"},
        {3, 4, OP(korva_fd_seek(fd, UINT64_MAX - 2, KRV_FD_SEEK_CUR)), past_rest},
        {3, 4, OP(korva_fd_seek(fd, 0, 2)), "INVALID: unknown seek directive (2)"},
        {6, 1, OP(korva_fd_truncate(fd, 4)), "6+4"},
        {6, 1, OP(korva_fd_truncate(fd, 5)), "INVALID: cannot truncate section to 5 bytes;  only 4 remain"},
        {8, 2, OP(korva_fd_to_mem(fd, buf, 2)), "10+0"},
        {4, 2, OP(korva_fd_to_mem(fd, buf, 0)), "4+2"},
        {8, 1, OP(korva_fd_to_mem(fd, buf, 2)), "INVALID: cannot read 2 bytes; only 1 bytes remaining"},
        {8, 2, OP(korva_fd_to_mem(fd, nullptr, 1)), "INVALID"},
        {8, 2, OP(korva_fd_from_mem(fd, buf, 2)), "10+0", no_write},
        {8, 2, OP(korva_fd_from_mem(fd, buf, 3)), "NOSPACE: cannot write 3 bytes; only 2 bytes remaining", no_write},
        {8, 2, OP(korva_fd_from_mem(fd, nullptr, 1)), "INVALID"},
        {0, 10, OP(korva_fd_set(fd, 0x1ff, 10)), "10+0", no_set},
        {8, 1, OP(korva_fd_set(fd, 0, 2)), "NOSPACE: cannot set 2 bytes; only 1 bytes remaining", no_set},
        {1, 1, OP(korva_fd_get_size(fd, nullptr)), "INVALID"},
        {1, 1, OP(korva_fd_get_offset(fd, nullptr)), "INVALID"},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto &row = rows[i];
        for (const bool memory : {true, false}) {
            SCOPED_TRACE(text("row %zu, %s", i, memory ? "memory" : "call-back"));
            handle h;
            reader source{.contents = ten};
            krv_fd_t fd = memory ? h.cursor(ten) : h.cursor(&source);
            ASSERT_EQ(korva_fd_seek(&fd, row.offset, KRV_FD_SEEK_SET) + korva_fd_truncate(&fd, row.length), 0);
            const bool good = row.op(&fd) == 0;
            const std::string error = h.error();
            uint64_t size = 0, offset = 99, remaining = 99;
            EXPECT_EQ(korva_fd_get_size(&fd, &size) + korva_fd_get_offset(&fd, &offset), 0);
            EXPECT_EQ(korva_fd_get_remaining(&fd, &remaining), 0);
            EXPECT_EQ(size, 10U);
            const std::string outcome = good ? text("%lu+%lu", offset, remaining) : error;
            EXPECT_EQ(outcome, memory || row.call_back == nullptr ? row.memory : row.call_back);
            EXPECT_TRUE(good ? error == "NONE" : offset == row.offset && remaining == row.length);
        }
    }
}

TEST(Fd, UnattachedCursorIsEmpty)
{
    handle h;
    krv_fd_t *fdp = korva_fd_alloc(h);
    ASSERT_NE(fdp, nullptr);
    EXPECT_TRUE(refuses(h, korva_fd_attach(h, fdp, 0, KRV_FD_TYPE_MEMORY, nullptr), "INVALID"));
    EXPECT_EQ(korva_fd_attach(h, fdp, 1, 7), -1);
    EXPECT_EQ(korva_fd_seek(fdp, 0, 9), -1); // joins the message that is there: nothing was cleared
    EXPECT_EQ(h.error(), "INVALID: invalid file descriptor type specified | section is empty");
    uint8_t byte = 7;
    EXPECT_EQ(korva_fd_attach(h, fdp, 1, KRV_FD_TYPE_MEMORY, &byte), 0);
    EXPECT_EQ(korva_fd_set(fdp, 0x105, 1), 0);
    EXPECT_EQ(byte, 5); // the buffer is the client's own
    korva_fd_free(fdp);
    EXPECT_EQ(h.error(), "NONE");

    uint64_t value;
    EXPECT_EQ(korva_fd_get_size(nullptr, &value) + korva_fd_seek(nullptr, 0, 0) + korva_fd_truncate(nullptr, 0), -3);
    EXPECT_EQ(korva_fd_to_mem(nullptr, &byte, 1) + korva_fd_from_mem(nullptr, &byte, 1), -2);
    EXPECT_EQ(korva_fd_set(nullptr, 0, 1) + korva_fd_cpy(nullptr, nullptr, 1), -2);
}

TEST(Fd, ReadsThatFail)
{
    handle h;
    for_each_cursor(h, ten, [&](krv_fd_t *fd, fault kind) {
        uint8_t four[4] = {};
        ASSERT_EQ(korva_fd_seek(fd, 5, KRV_FD_SEEK_SET), 0);
        EXPECT_EQ(korva_fd_to_mem(fd, four, 4), kind == fault::none ? 0 : -1);
        EXPECT_EQ(h.error(), kind == fault::none ? "NONE" : "IO: read callback failed");
        EXPECT_EQ(fd->sfd_offset, kind == fault::none ? 9U : 5U);
        EXPECT_TRUE(kind != fault::none || std::memcmp(four, ten.data() + 5, 4) == 0);
    });
}

TEST(Fd, Copy)
{
    handle h, other; // errors go to the handle of the destination
    for_each_cursor(other, ten, [&](krv_fd_t *src, fault kind) {
        krv_fd_t dst = h.cursor(bytes().fill(6, 0xee));
        ASSERT_EQ(korva_fd_seek(src, 3, KRV_FD_SEEK_SET), 0);
        ASSERT_EQ(korva_fd_seek(&dst, 1, KRV_FD_SEEK_SET), 0);
        const bool good = kind != fault::fails; // a short delivery counts as complete
        EXPECT_EQ(korva_fd_cpy(&dst, src, 4), good ? 0 : -1);
        EXPECT_EQ(h.error(), good ? "NONE" : "IO: read callback failed");
        EXPECT_EQ(src->sfd_offset, good ? 7U : 3U);
        EXPECT_EQ(dst.sfd_offset, good ? 5U : 1U);
        EXPECT_EQ(dst.sfd_u.buf[1], good ? 0x33 : 0xee);
        EXPECT_TRUE(dst.sfd_u.buf[0] == 0xee && dst.sfd_u.buf[5] == 0xee);
    });
    const auto note = [](void *arg, void *buf, size_t count, uint64_t) {
        *static_cast<void **>(arg) = buf;
        return static_cast<int64_t>(count);
    };
    void *asked = nullptr; // where the bytes were to go
    krv_fd_t noted, room = h.cursor(ten);
    ASSERT_EQ(korva_fd_attach(h, &noted, 9, KRV_FD_TYPE_CB, +note, &asked), 0);
    EXPECT_EQ(korva_fd_cpy(&room, &noted, 0), 0);
    EXPECT_EQ(asked, room.sfd_u.buf);

    krv_window_t window;
    reader source{.contents = ten};
    krv_fd_t ahead = h.cursor(&source);
    ahead = krv_fd_windowed(&ahead, &window);
    krv_fd_read_ahead(&ahead, 0);
    EXPECT_EQ(source.reads, 0U);

    krv_fd_t memory = h.cursor(ten), call_back = h.cursor(&source), small = h.cursor(bytes().fill(3));
    EXPECT_TRUE(refuses(h, korva_fd_cpy(&call_back, &memory, 1), "INVALID: cannot copy to non-memory file descriptor"));
    EXPECT_TRUE(
        refuses(h, korva_fd_cpy(&small, &memory, 11), "INVALID: cannot read 11 bytes; only 10 bytes remaining"));
    EXPECT_TRUE(refuses(h, korva_fd_cpy(&small, &memory, 4), "NOSPACE: cannot write 4 bytes; only 3 bytes remaining"));
    EXPECT_EQ(korva_fd_cpy(&small, nullptr, 1), -1);
    EXPECT_EQ(korva_handle_get_errno(h), KRV_ERR_INVALID);
    EXPECT_EQ(small.sfd_offset + memory.sfd_offset, 0U);
}
