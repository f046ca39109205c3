// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: errors as values, and what the other parts share.
 */
#ifndef KORVA_ERROR_HPP
#define KORVA_ERROR_HPP

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "../libkorva.h"

namespace korva
{

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

    /** One line: the messages, cause first, or the code in words where there are none. */
    std::string text() const
    {
        std::string line;
        for (std::string_view message : messages) {
            message = message.substr(0, message.find_last_not_of(" \n") + 1); // some end in a newline
            line.append(line.empty() ? "" : "; ").append(message);
        }
        return line.empty() ? words() : line;
    }

private:
    std::string words() const
    {
        if (layer == korva::layer::library)
            switch (code) {
            case KRV_ERR_IO:
                return "reading failed";
            case KRV_ERR_CORRUPT:
                return "malformed debugging information";
            case KRV_ERR_EXISTS:
                return "a key appears twice";
            case KRV_ERR_INVALID:
                return "invalid request";
            case KRV_ERR_EVAL:
                return "an expression cannot be evaluated";
            case KRV_ERR_NOTFOUND:
                return "not there";
            case KRV_ERR_NOMEM:
                return "out of memory";
            case KRV_ERR_NOSPACE:
                return "a value is too large";
            case KRV_ERR_UNSUPPORTED:
                return "not supported";
            case KRV_ERR_EXT_LIMIT:
                return "the budget is used up";
            default:
                break;
            }
        return "unknown error";
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

/** Elements that somebody else owns. */
template <typename T>
class span
{
public:
    span(T *first, std::size_t count) : first_(first), count_(count) {}
    T *begin() const { return first_; }
    T *end() const { return first_ + count_; }
    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    T &operator[](std::size_t i) const { return first_[i]; }

private:
    T *first_;
    std::size_t count_;
};

namespace detail
{

inline result<void> status(krv_handle_t *hp, int rc)
{
    if (rc == 0)
        return {};
    return last_error(hp);
}

/** How a walk over everything ended: true, all was seen; false, the visitor stopped it. */
inline result<bool> walked(krv_handle_t *hp, int rc)
{
    if (rc < 0)
        return last_error(hp);
    return rc == 0;
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

/** A lambda as the argument of a C call-back. */
template <typename F>
void *argument(F &func)
{
    return const_cast<std::remove_const_t<F> *>(std::addressof(func));
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

} // namespace korva

#endif // KORVA_ERROR_HPP
