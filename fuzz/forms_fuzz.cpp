// SPDX-License-Identifier: Apache-2.0
//
// Every form, decoded and asked for its size, from memory and through a call-back, with .debug_str behind it.
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    krv_fuzz::input in(data, size);
    krv_fuzz::handle h(in);
    auto form = static_cast<krv_form_t>(in.number(1));
    if (in.is_extended() && form >= 0x80) // those of GNU tools
        form = static_cast<krv_form_t>(0x1f00 | (form & 0x7f));
    const auto flags = static_cast<uint32_t>(in.number(1));
    const size_t room = in.number(1);
    h.attach(KRV_SEC_STR, in.part());
    krv_fuzz::source datum{in.rest(), in.mode, 0};
    if (datum.bytes.empty())
        return 0;
    krv_fd_t fd = {};
    if (in.through_callback())
        korva_fd_attach(h, &fd, datum.bytes.size(), KRV_FD_TYPE_CB, krv_fuzz::source::read, &datum);
    else
        korva_fd_attach(h, &fd, datum.bytes.size(), KRV_FD_TYPE_MEMORY, datum.bytes.data());

    size_t need = 0;
    korva_decode_form(&fd, form, flags, nullptr, 0, &need);
    // What DW_FORM_indirect leads to decides what storage must be: give every kind room and shape enough.
    std::vector<uint8_t> buffer(room);
    krv_fd_t block = {};
    korva_fd_attach(h, &block, room == 0 ? 1 : room, KRV_FD_TYPE_MEMORY, buffer.data());
    const bool to_block = form == 0x03 || form == 0x04 || form == 0x09 || form == 0x0a || form == 0x18 ||
                          (in.is_extended() && form == 0x1e); // DW_FORM_data16
    for (int i = 0; i < 64 && form != 0x16; ++i)
        if (korva_decode_form(&fd, form, flags, to_block ? static_cast<void *>(&block) : buffer.data(), room,
                              nullptr) != 0)
            break;
    return 0;
}
