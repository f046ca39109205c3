// SPDX-License-Identifier: Apache-2.0
// locate: evaluates an expression, and reads a variable by its location description, in a frame made up here.
#include <cstdio>
#include <cstring>
#include <korva.hpp>

static int report(const korva::error &error)
{
    std::fprintf(stderr, "error %d: %s\n", error.code, error.text().c_str());
    return 1;
}

int main()
{
    // The target's memory: 8 bytes at 0x1000. The library asks for what it needs, by target address.
    const std::uint8_t memory[8] = {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17};
    auto read = [&](std::uint64_t address, void *buf, std::size_t count) {
        if (address < 0x1000 || address > 0x1008 || count > 0x1008 - address)
            return false;
        std::memcpy(buf, memory + (address - 0x1000), count);
        return true;
    };
    auto handle = korva::handle::make(KRV_ACTIVATION_AMD64);
    if (!handle)
        return report(handle.error());
    auto stack = korva::stack::make(*handle);
    auto frame = korva::activation::make(*handle);
    if (!stack || !frame)
        return 1;
    if (auto done = handle->attach_memory(read); !done)
        return report(done.error());
    if (auto done = frame->set_reg(KRV_ACTIVATION_REG_DWARF, 3, 0x1000); !done)
        return report(done.error());

    // DW_OP_breg3 8; DW_OP_lit2; DW_OP_plus: register 3 + 8 + 2
    const std::uint8_t sum[] = {0x73, 8, 0x32, 0x22};
    if (auto done = stack->evaluate(*frame, sum, sizeof(sum)); !done)
        return report(done.error());
    const auto value = stack->pop();
    if (!value)
        return report(value.error());
    std::printf("value 0x%llx\n", static_cast<unsigned long long>(*value));

    // DW_OP_reg3 DW_OP_piece 4; DW_OP_breg3 4 DW_OP_piece 2: four bytes in register 3, two in memory behind it
    const std::uint8_t pieces[] = {0x53, 0x93, 4, 0x73, 4, 0x93, 2};
    const auto object = stack->locate(*frame, pieces, sizeof(pieces), 6);
    if (!object)
        return report(object.error());
    std::printf("object");
    for (std::uint8_t byte : object->bytes)
        std::printf(" %02x", byte);
    std::printf("\n");
    return 0;
}
