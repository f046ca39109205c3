// SPDX-License-Identifier: Apache-2.0
//
// Demangling by libiberty, with bounds where it has none.
#include "demangle.h"

#include "failure.h"
#include "unfolding.h"

#include <cstdlib>
#include <memory>
#include <string_view>

#define HAVE_DECL_BASENAME 1 // else it is declared once more, in another way
#include <libiberty/demangle.h>

namespace krv_elf_loader
{

namespace
{

constexpr size_t MAX_MANGLED = 16 << 10;
constexpr size_t MAX_MANGLED_D = 1 << 10; // as libiberty itself has it for C++: by the length it takes stack
constexpr size_t MAX_PLAIN = 64 << 10;
constexpr int STYLE = DMGL_PARAMS | DMGL_ANSI; // as addr2line -C and c++filt

// Its demanglers hand out their text in pieces.
struct collected {
    std::string text{};
    bool is_lost = false; // too long, or no memory

    static void take(const char *piece, size_t size, void *arg) noexcept
    {
        auto *all = static_cast<collected *>(arg);
        all->is_lost = all->is_lost || size > MAX_PLAIN - all->text.size() || !guarded(nullptr, false, [=] {
                           all->text.append(piece, size);
                           return true;
                       });
    }
};

template <typename F>
std::string collect(F *demangler, const char *name)
{
    collected all;
    const bool known = demangler(name, STYLE, collected::take, &all) != 0;
    return known && !all.is_lost ? all.text : std::string();
}

std::string demangle_d(const char *name)
{
    // Without memory libiberty would end the process here.
    if (std::unique_ptr<char, decltype(&std::free)>(static_cast<char *>(std::malloc(4 * MAX_PLAIN)), &std::free) ==
        nullptr)
        throw std::bad_alloc();
    const std::unique_ptr<char, decltype(&std::free)> plain(dlang_demangle(name, STYLE), &std::free);
    return plain == nullptr ? "" : plain.get();
}

} // namespace

std::string demangle(const char *name)
{
    const std::string_view text(name);
    if (text.size() > MAX_MANGLED)
        return {};
    if (text.starts_with("_R"))
        return unfolds_too_far_rust(text) ? "" : collect(rust_demangle_callback, name);
    if (text.starts_with("_D"))
        return text.size() > MAX_MANGLED_D || unfolds_too_far_d(text) ? "" : demangle_d(name);
    if ((!text.starts_with("_Z") && !text.starts_with("_GLOBAL_")) || unfolds_too_far_cxx(text))
        return {};
    std::string plain = collect(rust_demangle_callback, name); // of the older mangling, which looks like C++
    return plain.empty() ? collect(cplus_demangle_v3_callback, name) : plain;
}

} // namespace krv_elf_loader

using namespace krv_elf_loader;

size_t korva_elf_demangle(const char *name, char *buf, size_t size)
{
    const std::string plain = guarded(nullptr, std::string(), [=] { return demangle(name); });
    const size_t shown = std::min(plain.size(), size == 0 ? 0 : size - 1);
    std::copy_n(plain.data(), shown, buf);
    if (size != 0)
        buf[shown] = '\0';
    return plain.size();
}
