// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * libkorva for C++17 and later: a thin, header-only layer over the C interface.
 *
 *     auto file = korva::elf::open("a.out");
 *     if (!file)
 *         return complain(file.error().text());
 *     for (korva::unit unit : file->handle().units())
 *         for (const korva::row &row : unit.rows().value_or({}))
 *             std::printf("%#lx line %u\n", row.address, row.line);
 *
 * What it adds, and nothing more:
 *
 *  1. Owners: handle, elf, process, activation, stack free what they hold and can be moved, not copied. Each converts to
 *     its C pointer (get()), so that every C function stays usable. A *_view owns nothing and may be copied.
 *  2. Errors as values: what can fail returns result<T>, which holds a T or an error with code and messages. Nothing
 *     here throws but std::bad_alloc.
 *  3. Ranges: units, rows, files, symbols, modules and threads come as std::vector.
 *  4. Call-backs from lambdas. One that returns void or true goes on, false stops. It must not throw: that ends the
 *     program, since an exception cannot cross the C interface.
 *
 * Lifetimes and threads are those of the C interface: units, rows' names and views live as long as the handle, file or
 * process that they came from, and a handle serves one querying thread at a time.
 */
#ifndef KORVA_HPP
#define KORVA_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "libkorva.h"
#if __has_include("libkorva-proc.h")
#include "libkorva-proc.h"
#define KORVA_HPP_LOADER 1
#endif

namespace korva
{

// ---------------------------------------------------------------------------------------------------------------
// Errors
// ---------------------------------------------------------------------------------------------------------------

/** Whose code an error carries. */
enum class layer {
    library, /**< KRV_ERR_* of libkorva.h */
    loader   /**< KRV_ELF_ERR_* of libkorva-elf.h */
};

/** Why a call failed. */
struct error {
    korva::layer layer = korva::layer::library;
    int code = 0;
    std::vector<std::string> messages; /**< cause first; may be empty */

    /** One line: the messages, cause first, or the code where there are none. */
    std::string text() const
    {
        std::string line;
        for (const std::string &message : messages)
            line += (line.empty() ? "" : "; ") + message;
        return line.empty() ? "error " + std::to_string(code) : line;
    }
};

/** A value or the reason why there is none. Ask before you look: *r of a failure and error() of a success are undefined. */
template <typename T>
class [[nodiscard]] result
{
public:
    result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    result(korva::error why) : state_(std::in_place_index<1>, std::move(why)) {}

    /** Whether there is a value. */
    explicit operator bool() const { return state_.index() == 0; }
    T &operator*() { return *std::get_if<0>(&state_); }
    const T &operator*() const { return *std::get_if<0>(&state_); }
    T *operator->() { return std::get_if<0>(&state_); }
    const T *operator->() const { return std::get_if<0>(&state_); }
    /** Why there is none. */
    const korva::error &error() const { return *std::get_if<1>(&state_); }
    /** The value, moved out, or @p other. */
    T value_or(T other) && { return *this ? std::move(**this) : std::move(other); }

private:
    std::variant<T, korva::error> state_;
};

/** Success, or the reason of a failure. */
template <>
class [[nodiscard]] result<void>
{
public:
    result() = default;
    result(korva::error why) : error_(std::move(why)) {}

    explicit operator bool() const { return !error_; }
    const korva::error &error() const { return *error_; }

private:
    std::optional<korva::error> error_;
};

/** The last failure of a handle. Ask before the next call on it. */
inline error last_error(krv_handle_t *hp)
{
    error why;
    why.code = korva_handle_get_errno(hp);
    unsigned int count = 0;
    char **messages = korva_handle_get_errmsgs(hp, &count);
    why.messages.assign(messages, messages + count);
    return why;
}

namespace detail
{

inline result<void> status(krv_handle_t *hp, int rc)
{
    if (rc == 0)
        return {};
    return last_error(hp);
}

/** Calls a lambda as a visitor: 0 goes on, 1 stops. */
template <typename F, typename... Args>
int visit(F &func, Args &&...args) noexcept
{
    if constexpr (std::is_void_v<std::invoke_result_t<F &, Args...>>) {
        func(std::forward<Args>(args)...);
        return 0;
    } else {
        return func(std::forward<Args>(args)...) ? 0 : 1;
    }
}

template <auto Free>
struct deleter {
    template <typename T>
    void operator()(T *p) const
    {
        Free(p);
    }
};

template <typename T, auto Free>
using owner = std::unique_ptr<T, deleter<Free>>;

} // namespace detail

// ---------------------------------------------------------------------------------------------------------------
// Units and rows
// ---------------------------------------------------------------------------------------------------------------

/** A row of a line-number matrix. */
struct row {
    std::uint64_t address = 0; /**< without the bias of KRV_OPT_BASE_ADDR */
    std::uint32_t file = 0;    /**< file register: 1 is the first of unit::files() */
    std::uint32_t line = 0;
    std::uint16_t column = 0;
    bool is_stmt = false;
    bool end_sequence = false;
};

/** A file of a line-number header. */
struct file {
    std::string path; /**< compilation directory, include directory and name, composed */
    std::string name; /**< as the program gives it */
};

/** Where an address comes from. */
struct source {
    std::string path; /**< empty when the row names no file */
    std::uint32_t line = 0;
    std::uint64_t canonical_address = 0;
};

/** A compilation unit. A view: it lives as long as its handle. */
class unit
{
public:
    unit(krv_handle_t *hp, krv_ctu_t *cup) : hp_(hp), cup_(cup) {}
    /** For the C functions; still owned by whoever owns it now. */
    krv_ctu_t *get() const { return cup_; }

    /** What the unit's header says. */
    result<krv_cu_header_t> header() const
    {
        krv_cu_header_t header = {};
        if (korva_cu_get_header(hp_, cup_, &header) != 0)
            return last_error(hp_);
        return header;
    }

    /** DW_AT_name of the unit's entry; KRV_ERR_NOTFOUND when it has none. */
    result<std::string> name() const { return text(korva_get_die_at_name); }
    /** DW_AT_comp_dir, as name(). */
    result<std::string> comp_dir() const { return text(korva_get_die_at_comp_dir); }
    /** DW_AT_producer, as name(). */
    result<std::string> producer() const { return text(korva_get_die_at_producer); }

    /** Whether an address range of the unit covers @p address. "Not known yet" (KRV_LOOKUP_F_FAST) counts as no. */
    result<bool> contains(std::uint64_t address, krv_lookup_flag_t flags = KRV_LOOKUP_F_NONE) const
    {
        if (korva_cu_contains_addr(hp_, cup_, address, flags))
            return true;
        const int code = korva_handle_get_errno(hp_);
        if (code == KRV_ERR_NOTFOUND || code == KRV_ERR_NONE)
            return false;
        return last_error(hp_);
    }

    /** The source of @p address, which lies in the function [@p start, @p start + @p size). */
    result<korva::source> source(std::uint64_t address, std::uint64_t start, std::uint64_t size) const
    {
        krv_lns_t *row = korva_lookup_source_by_cu_and_addr(hp_, cup_, start, size, address, 0);
        korva::source found;
        if (row == nullptr || korva_lns_get_line(hp_, row, &found.line) != 0 ||
            korva_lns_get_canonical_address(hp_, row, &found.canonical_address) != 0)
            return last_error(hp_);
        if (krv_lnfe_t *file = korva_lns_get_filep(hp_, row)) {
            char path[1025] = {}; // a composed path has at most 1023 characters
            if (korva_lnfe_get_path(hp_, file, path, sizeof(path) - 1, B_TRUE) != 0)
                return last_error(hp_);
            found.path = path;
        }
        return found;
    }

    /** The rows of the unit's line-number matrix, in its order. KRV_ERR_NOTFOUND when the unit has no line numbers. */
    result<std::vector<row>> rows() const
    {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp_, cup_);
        krv_lnp_t *matrix = nullptr;
        unsigned int count = 0;
        if (header == nullptr || korva_get_fields(hp_, KRV_STRUCT_LNPH, header, 1, KRV_FIELD_LNPH_LNP, &matrix) != 0 ||
            korva_get_fields(hp_, KRV_STRUCT_LNP, matrix, 1, KRV_FIELD_LNP_ENTRIES, &count) != 0)
            return last_error(hp_);
        std::vector<std::uint64_t> addresses(count);
        std::vector<std::uint32_t> files(count), lines(count);
        std::vector<std::uint16_t> columns(count);
        std::vector<boolean_t> statements(count), ends(count);
        if (korva_get_fields(hp_, KRV_STRUCT_LNP, matrix, 6, KRV_FIELD_LNS_ADDRESS, addresses.data(),
                             KRV_FIELD_LNS_FILE, files.data(), KRV_FIELD_LNS_LINE, lines.data(), KRV_FIELD_LNS_COLUMN,
                             columns.data(), KRV_FIELD_LNS_IS, statements.data(), KRV_FIELD_LNS_ES, ends.data()) != 0)
            return last_error(hp_);
        std::vector<row> rows(count);
        for (unsigned int i = 0; i < count; ++i)
            rows[i] = {addresses[i], files[i], lines[i], columns[i], statements[i] != B_FALSE, ends[i] != B_FALSE};
        return rows;
    }

    /** The files of the unit's line-number header; row::file counts them from 1. */
    result<std::vector<korva::file>> files() const
    {
        krv_lnph_t *header = korva_line_get_cu_lnph(hp_, cup_);
        krv_lnfe_t **entries = nullptr;
        std::uint64_t count = 0;
        if (header == nullptr || korva_get_fields(hp_, KRV_STRUCT_LNPH, header, 2, KRV_FIELD_LNPH_FILES, &entries,
                                                  KRV_FIELD_LNPH_FILES_ENTRIES, &count) != 0)
            return last_error(hp_);
        std::vector<korva::file> files;
        for (std::uint64_t i = 0; i < count; ++i) {
            char *path = nullptr, *name = nullptr;
            if (korva_get_fields(hp_, KRV_STRUCT_LNFE, entries[i], 2, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path,
                                 KRV_FIELD_LNFE_PATH, &name) != 0)
                return last_error(hp_);
            files.push_back({path == nullptr ? "" : path, name == nullptr ? "" : name});
        }
        return files;
    }

private:
    result<std::string> text(int (*copy)(krv_handle_t *, krv_die_t *, char *, std::size_t)) const
    {
        krv_die_t *die = nullptr;
        std::string buf(4096, '\0');
        if (korva_get_cu_cudie(hp_, cup_, &die) != 0 || copy(hp_, die, buf.data(), buf.size()) != 0)
            return last_error(hp_);
        buf.resize(buf.find('\0'));
        return buf;
    }

    krv_handle_t *hp_;
    krv_ctu_t *cup_;
};

// ---------------------------------------------------------------------------------------------------------------
// Handles
// ---------------------------------------------------------------------------------------------------------------

/** A handle that somebody else owns. */
class handle_view
{
public:
    explicit handle_view(krv_handle_t *hp) : hp_(hp) {}
    /** For the C functions; still owned by whoever owns it now. */
    krv_handle_t *get() const { return hp_; }

    /** Attaches a section; the bytes must outlive the handle. */
    result<void> attach_section(krv_secidx_t section, const void *bytes, std::size_t size)
    {
        void *buf = const_cast<void *>(bytes); // sections are only read
        return detail::status(hp_, korva_attach_section(hp_, section, size, KRV_FD_TYPE_MEMORY, buf));
    }

    /**
     * Attaches the target's memory: bool read(uint64_t address, void *buf, size_t count), which must outlive the handle.
     * It delivers all of the bytes or returns false.
     */
    template <typename F>
    result<void> attach_memory(F &read)
    {
        return detail::status(hp_, korva_attach_as(
                                       hp_,
                                       [](void *arg, void *buf, std::size_t count, std::uint64_t address) noexcept {
                                           return (*static_cast<F *>(arg))(address, buf, count)
                                                      ? static_cast<std::int64_t>(count)
                                                      : std::int64_t{-1};
                                       },
                                       const_cast<void *>(static_cast<const void *>(&read))));
    }
    template <typename F>
    result<void> attach_memory(const F &&) = delete; // it would not outlive the call

    /** What is added to the file's addresses: where it is loaded, KRV_OPT_BASE_ADDR. */
    result<void> set_base_address(std::uint64_t bias)
    {
        return detail::status(hp_, korva_handle_set_opt(hp_, KRV_OPT_BASE_ADDR, static_cast<unsigned long>(bias)));
    }

    /** Calls func(unit) for every unit of .debug_info. True: it saw all of them; false: it stopped. */
    template <typename F>
    result<bool> each_unit(F &&func) const
    {
        using Func = std::remove_reference_t<F>;
        const int rc = korva_iter_cu(
            hp_, KRV_SEC_INFO,
            [](krv_handle_t *hp, krv_ctu_t *cup, void *arg) {
                return detail::visit(*static_cast<Func *>(arg), unit(hp, cup));
            },
            const_cast<std::remove_const_t<Func> *>(&func));
        if (rc < 0)
            return last_error(hp_);
        return rc == 0;
    }

    /** The units of .debug_info; empty when there are none, or none that can be read (last_error tells which). */
    std::vector<unit> units() const
    {
        std::vector<unit> all;
        (void)each_unit([&](unit u) { all.push_back(u); });
        return all;
    }

    /** The unit that covers @p address, or KRV_ERR_NOTFOUND. A unit whose ranges cannot be read is passed over. */
    result<unit> unit_of(std::uint64_t address) const
    {
        if (krv_ctu_t *found = korva_lookup_ctu_by_addr(hp_, address, KRV_LOOKUP_F_NONE))
            return unit(hp_, found);
        if (korva_handle_get_errno(hp_) == KRV_ERR_NOTFOUND)
            return error{layer::library, KRV_ERR_NOTFOUND, {"no unit covers the address"}};
        for (unit u : units()) { // the index needs the ranges of all units, which some do not give
            const result<bool> yes = u.contains(address);
            if (yes && *yes)
                return u;
        }
        return error{layer::library, KRV_ERR_NOTFOUND, {"no unit covers the address"}};
    }

private:
    krv_handle_t *hp_;
};

/** A handle of one's own. */
class handle : public handle_view
{
public:
    /** KRV_ERR_INVALID when the target is unknown, memory ran out, or the library is disabled. */
    static result<handle> make(krv_activation_type_t target)
    {
        krv_handle_t *hp = korva_handle_alloc(target);
        if (hp == nullptr)
            return error{layer::library, KRV_ERR_INVALID, {"no handle for this target"}};
        return handle(hp);
    }

private:
    explicit handle(krv_handle_t *hp) : handle_view(hp), owner_(hp) {}
    detail::owner<krv_handle_t, korva_handle_release> owner_;
};

// ---------------------------------------------------------------------------------------------------------------
// Activations and expressions
// ---------------------------------------------------------------------------------------------------------------

/** A stack frame. Destroy it before its handle. */
class activation
{
public:
    /** A frame without registers. */
    static result<activation> make(handle_view handle)
    {
        krv_activation_t *ap = korva_activation_alloc(handle.get());
        if (ap == nullptr)
            return last_error(handle.get());
        return activation(handle.get(), ap);
    }
    /** For the C functions; still owned by whoever owns it now. */
    krv_activation_t *get() const { return owner_.get(); }

    /** A register of the current frame; KRV_ERR_NOTFOUND when its value is not known. */
    result<std::uint64_t> reg(krv_reg_type_t type, unsigned int number,
                              krv_frame_type_t frame = KRV_ACTIVATION_FRAME_CURRENT) const
    {
        krv_greg_t value = 0;
        if (korva_activation_get_greg(hp_, get(), type, frame, number, &value) != 0)
            return last_error(hp_);
        return static_cast<std::uint64_t>(value);
    }
    /** Sets a register of the current frame. */
    result<void> set_reg(krv_reg_type_t type, unsigned int number, std::uint64_t value)
    {
        return detail::status(hp_, korva_activation_set_greg(hp_, get(), type, number, static_cast<krv_greg_t>(value)));
    }
    /** Goes to the caller's frame; KRV_ERR_NOTFOUND is how a walk normally ends. */
    result<void> unwind() { return detail::status(hp_, korva_activation_unwind(hp_, get())); }

private:
    activation(krv_handle_t *hp, krv_activation_t *ap) : hp_(hp), owner_(ap) {}
    krv_handle_t *hp_;
    detail::owner<krv_activation_t, korva_activation_free> owner_;
};

/** The stack on which expressions are evaluated. Destroy it before its handle. */
class stack
{
public:
    /** An empty stack. */
    static result<stack> make(handle_view handle)
    {
        krv_exprstack_t *esp = korva_expr_alloc_stack(handle.get());
        if (esp == nullptr)
            return last_error(handle.get());
        return stack(handle.get(), esp);
    }
    /** For the C functions; still owned by whoever owns it now. */
    krv_exprstack_t *get() const { return owner_.get(); }

    /** Puts a value on top. */
    result<void> push(std::uint64_t value) { return detail::status(hp_, korva_expr_stack_push(hp_, get(), value)); }
    /** Takes the topmost value. */
    result<std::uint64_t> pop()
    {
        std::uint64_t value = 0;
        if (korva_expr_stack_pop(hp_, get(), &value) != 0)
            return last_error(hp_);
        return value;
    }

    /** Evaluates an expression in the context of a frame; the results stay on the stack. Flags: KRV_EXPR_F_*. */
    result<void> evaluate(const activation &frame, const void *expression, std::size_t size, std::uint32_t flags = 0)
    {
        krv_fd_t fd = {};
        if (korva_fd_attach(hp_, &fd, size, KRV_FD_TYPE_MEMORY, const_cast<void *>(expression)) != 0)
            return last_error(hp_);
        return detail::status(
            hp_, korva_expr_execute_expression(hp_, get(), frame.get(), &fd, flags, nullptr, nullptr, nullptr));
    }

    /** An object as a location description describes it: its bytes, and of each whether it is known. */
    struct object {
        std::vector<std::uint8_t> bytes;
        std::vector<bool> known;
    };

    /** Reads @p room bytes, at most, of the object that a location description describes. */
    result<object> locate(const activation &frame, const void *description, std::size_t size, std::size_t room)
    {
        std::vector<std::uint8_t> bytes(room), known(room);
        krv_fd_t in = {}, out = {}, valid = {};
        krv_fd_t *outputs[3] = {&out, &valid, nullptr};
        if (korva_fd_attach(hp_, &in, size, KRV_FD_TYPE_MEMORY, const_cast<void *>(description)) != 0 ||
            korva_fd_attach(hp_, &out, room, KRV_FD_TYPE_MEMORY, bytes.data()) != 0 ||
            korva_fd_attach(hp_, &valid, room, KRV_FD_TYPE_MEMORY, known.data()) != 0 ||
            korva_expr_execute_expression(hp_, get(), frame.get(), &in, KRV_EXPR_F_LOCATION, outputs, nullptr,
                                          nullptr) != 0)
            return last_error(hp_);
        const auto count = static_cast<std::ptrdiff_t>(out.sfd_offset);
        object found;
        found.bytes.assign(bytes.begin(), bytes.begin() + count);
        for (std::ptrdiff_t i = 0; i < count; ++i)
            found.known.push_back(known[static_cast<std::size_t>(i)] != 0);
        return found;
    }

private:
    stack(krv_handle_t *hp, krv_exprstack_t *esp) : hp_(hp), owner_(esp) {}
    krv_handle_t *hp_;
    detail::owner<krv_exprstack_t, korva_expr_free_stack> owner_;
};

#ifdef KORVA_HPP_LOADER

// ---------------------------------------------------------------------------------------------------------------
// ELF files and processes: these need libkorva-elf
// ---------------------------------------------------------------------------------------------------------------

namespace detail
{

inline error loader_error(const krv_elf_error_t &why)
{
    return {layer::loader, why.code, {why.message}};
}

} // namespace detail

/** An opened file that somebody else owns. */
class elf_view
{
public:
    explicit elf_view(krv_elf_t *elf) : elf_(elf) {}
    /** For the C functions; still owned by whoever owns it now. */
    krv_elf_t *get() const { return elf_; }

    /** The handle that answers for the file; the file owns it. */
    handle_view handle() const { return handle_view(korva_elf_get_handle(elf_)); }
    /** Machine, type, target and build-id of the file. */
    krv_elf_info_t info() const
    {
        krv_elf_info_t info = {};
        korva_elf_get_info(elf_, &info);
        return info;
    }

    /** The function symbols, ascending by address. */
    std::vector<krv_elf_symbol_t> symbols() const
    {
        std::size_t count = 0;
        const krv_elf_symbol_t *all = korva_elf_get_symbols(elf_, &count);
        return {all, all + count};
    }
    /** The function that covers @p address, or nullptr. */
    const krv_elf_symbol_t *symbol(std::uint64_t address) const { return korva_elf_lookup_symbol(elf_, address); }
    /** The first function of that name, or nullptr. */
    const krv_elf_symbol_t *symbol(const char *name) const { return korva_elf_lookup_symbol_by_name(elf_, name); }

    /** Where an address of the file comes from; KRV_ERR_NOTFOUND when no unit or no row covers it. */
    result<korva::source> source(std::uint64_t address) const
    {
        const result<unit> found = handle().unit_of(address);
        if (!found)
            return found.error();
        const krv_elf_symbol_t *function = symbol(address);
        return function != nullptr ? found->source(address, function->address, function->size)
                                   : found->source(address, address, 1);
    }

private:
    krv_elf_t *elf_;
};

/** An opened file of one's own. */
class elf : public elf_view
{
public:
    /** Opens a file; flags: KRV_ELF_F_*. */
    static result<elf> open(const char *path, unsigned int flags = KRV_ELF_F_NONE)
    {
        krv_elf_error_t why;
        krv_elf_t *opened = korva_elf_open(path, flags, &why);
        if (opened == nullptr)
            return detail::loader_error(why);
        return elf(opened);
    }

private:
    explicit elf(krv_elf_t *opened) : elf_view(opened), owner_(opened) {}
    detail::owner<krv_elf_t, korva_elf_close> owner_;
};

/** A process: a live one, a core file, or the calling process. */
class process
{
public:
    /** Stops a live process, until this object goes. */
    static result<process> attach(int pid)
    {
        krv_elf_error_t why;
        return made(korva_proc_attach(pid, &why), why);
    }
    /** Opens a core file; @p exe is where the main executable is found instead of its recorded path. */
    static result<process> open_core(const char *core, const char *exe = nullptr)
    {
        krv_elf_error_t why;
        return made(korva_proc_open_core(core, exe, &why), why);
    }
    /** The calling process. */
    static result<process> self()
    {
        krv_elf_error_t why;
        return made(korva_proc_self(&why), why);
    }
    /** For the C functions; still owned by whoever owns it now. */
    krv_proc_t *get() const { return owner_.get(); }

    /** The threads; of a core file in its order, the failing one first. */
    std::vector<krv_proc_thread_t> threads() const
    {
        std::vector<krv_proc_thread_t> all;
        korva_proc_iter_threads(
            get(),
            [](krv_proc_t *, const krv_proc_thread_t *thread, void *arg) noexcept {
                static_cast<std::vector<krv_proc_thread_t> *>(arg)->push_back(*thread);
                return 0;
            },
            &all);
        return all;
    }

    /** The file of a module that a frame names. */
    result<elf_view> file(const krv_proc_module_t &module) const
    {
        krv_elf_error_t why;
        krv_elf_t *opened = korva_proc_module_elf(get(), &module, &why);
        if (opened == nullptr)
            return detail::loader_error(why);
        return elf_view(opened);
    }

    /**
     * Calls func(const krv_proc_frame_t &) for the frames of a thread, topmost first, and tells why it ended; reason
     * KRV_PROC_END_ERROR is a failure. @p tid 0 is the calling thread of process::self(), whose first frame is then
     * the function that calls this one, which is inlined for that reason.
     */
    template <typename F>
    [[gnu::always_inline]] inline krv_proc_end_t walk(int tid, F &&func, unsigned int max_frames = 0) const
    {
        using Func = std::remove_reference_t<F>;
        krv_proc_end_t end = {};
        korva_proc_walk(
            get(), tid, max_frames,
            [](krv_proc_t *, const krv_proc_frame_t *frame, void *arg) {
                return detail::visit(*static_cast<Func *>(arg), *frame);
            },
            const_cast<std::remove_const_t<Func> *>(&func), &end);
        return end;
    }

private:
    explicit process(krv_proc_t *proc) : owner_(proc) {}
    static result<process> made(krv_proc_t *proc, const krv_elf_error_t &why)
    {
        if (proc == nullptr)
            return detail::loader_error(why);
        return process(proc);
    }
    detail::owner<krv_proc_t, korva_proc_close> owner_;
};

#endif // KORVA_HPP_LOADER

} // namespace korva

#endif // KORVA_HPP
