// SPDX-License-Identifier: Apache-2.0
//
// How the bytes of one fuzzing input become sections: the first two bytes choose target and reading, then each
// section is a 2-byte length and that many bytes; the last one takes the rest. seeds.cpp writes the same.
#ifndef KRV_FUZZ_INPUT_H
#define KRV_FUZZ_INPUT_H

#include "libkorva.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace krv_fuzz
{

// What the first two bytes say.
enum : unsigned {
    MODE_I386 = 1,           // the target; else AMD64
    MODE_CALLBACK = 2,       // sections are read through a call-back; else from memory
    MODE_FAILS = 4,          // the faulty read fails; else it comes up short
    MODE_FAULT = 8,          // times n, below MODE_DWARF5: the n-th read of each section is faulty; 0: none
    MODE_DWARF5 = 0x4000,    // KRV_OPT_EXT_DWARF5 is on
    MODE_AS_WRITTEN = 0x8000 // KRV_OPT_EXT_AS_WRITTEN is
};

// What is on in every run, whatever the input says: bits of MODE_* in KORVA_FUZZ_MODE, for runs with extensions.
inline unsigned forced_mode()
{
    static const char *const forced = std::getenv("KORVA_FUZZ_MODE");
    return forced == nullptr ? 0 : static_cast<unsigned>(std::strtoul(forced, nullptr, 0));
}

// A read call-back over a section, with a fault that the input chooses.
struct source {
    std::vector<uint8_t> bytes;
    unsigned mode = 0;
    unsigned reads = 0;

    static int64_t read(void *arg, void *buf, size_t count, uint64_t offset)
    {
        auto *self = static_cast<source *>(arg);
        const bool faulty = ++self->reads == self->mode % MODE_DWARF5 / MODE_FAULT;
        if (faulty && (self->mode & MODE_FAILS) != 0)
            return -1;
        if (faulty && count != 0)
            --count;
        if (offset > self->bytes.size() || count > self->bytes.size() - offset)
            return -1;
        if (count != 0)
            std::memcpy(buf, self->bytes.data() + offset, count);
        return static_cast<int64_t>(count);
    }
};

class input
{
public:
    input(const uint8_t *data, size_t size) : at(data), left(size)
    {
        mode = static_cast<unsigned>(number(2)) | forced_mode();
    }

    uint64_t number(size_t width) // little-endian; short at the end of the input
    {
        uint64_t value = 0;
        width = width < left ? width : left;
        if (width != 0)
            std::memcpy(&value, at, width);
        at += width;
        left -= width;
        return value;
    }

    std::vector<uint8_t> part() // a 2-byte length and so many bytes
    {
        const size_t length = number(2);
        return take(length < left ? length : left);
    }

    std::vector<uint8_t> rest() { return take(left); }

    krv_activation_type_t target() const
    {
        return (mode & MODE_I386) != 0 ? KRV_ACTIVATION_I386 : KRV_ACTIVATION_AMD64;
    }
    bool through_callback() const { return (mode & MODE_CALLBACK) != 0; }
    bool has_faults() const { return mode % MODE_DWARF5 / MODE_FAULT != 0; }
    bool is_extended() const { return (mode & (MODE_DWARF5 | MODE_AS_WRITTEN)) != 0; }

    unsigned mode = 0;

private:
    std::vector<uint8_t> take(size_t length)
    {
        std::vector<uint8_t> bytes(at, at + length);
        at += length;
        left -= length;
        return bytes;
    }

    const uint8_t *at;
    size_t left;
};

// A handle whose sections are the input's, each exactly as large as its bytes.
class handle
{
public:
    explicit handle(const input &in)
        : hp(korva_handle_alloc(in.target())), callback(in.through_callback()), mode(in.mode)
    {
        sections.reserve(size_t{KRV_MAX_SEC} + KRV_SEC_EXT_ALT_ABBREV - KRV_SEC_EXT_LINE_STR + 1);
        if (hp != nullptr && (mode & MODE_DWARF5) != 0)
            korva_handle_set_opt(hp, KRV_OPT_EXT_DWARF5, uint64_t{1});
        if (hp != nullptr && (mode & MODE_AS_WRITTEN) != 0)
            korva_handle_set_opt(hp, KRV_OPT_EXT_AS_WRITTEN, uint64_t{1});
        if (hp != nullptr && in.is_extended())
            korva_handle_set_opt(hp, KRV_OPT_EXT_NOTE_FUNC, read_note);
    }
    ~handle() { korva_handle_free(hp); }
    handle(const handle &) = delete;
    handle &operator=(const handle &) = delete;

    void attach(krv_secidx_t sec, std::vector<uint8_t> bytes)
    {
        if (bytes.empty())
            return;
        sections.push_back({std::move(bytes), mode, 0});
        source *s = &sections.back();
        if (callback)
            korva_attach_section(hp, sec, s->bytes.size(), KRV_FD_TYPE_CB, source::read, s);
        else
            korva_attach_section(hp, sec, s->bytes.size(), KRV_FD_TYPE_MEMORY, s->bytes.data());
    }

    // Sections in memory are read by a call, too, with the faults that the input chooses.
    void attach_reader(krv_secidx_t sec)
    {
        if (!callback && !sections.empty())
            korva_attach_section_reader(hp, sec, source::read, &sections.back());
    }

    operator krv_handle_t *() const { return hp; }

private:
    static void read_note(const krv_note_t *note, void *)
    {
        [[maybe_unused]] const volatile size_t length = std::strlen(note->text);
    }

    krv_handle_t *hp;
    bool callback;
    unsigned mode;
    std::vector<source> sections;
};

} // namespace krv_fuzz

#endif
