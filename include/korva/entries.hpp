// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: entries as they stand in their section, and the calls around an address.
 */
#ifndef KORVA_ENTRIES_HPP
#define KORVA_ENTRIES_HPP

#include <iterator>

#include "handle.hpp"

namespace korva
{

/** An attribute of an entry. What it points to lives as long as the section. */
struct attr : krv_attr_t {
    /** The characters of KRV_ATTR_STRING; data() is nullptr for other kinds. */
    std::string_view text() const { return kind == KRV_ATTR_STRING ? view() : std::string_view(); }
    /** The bytes of KRV_ATTR_STRING, KRV_ATTR_BLOCK and KRV_ATTR_EXPRESSION; none for other kinds. */
    span<const std::uint8_t> data() const { return {bytes, static_cast<std::size_t>(size)}; }
    /** The number as a signed one. */
    std::int64_t signed_number() const { return static_cast<std::int64_t>(number); }

private:
    std::string_view view() const
    {
        return {static_cast<const char *>(static_cast<const void *>(bytes)), static_cast<std::size_t>(size)};
    }
};

namespace detail
{

/** How a step of a walk went. */
enum class step { made, over, failed };

/** The same of a move of a cursor. */
inline step moved(krv_handle_t *hp, int rc)
{
    return rc == 0 ? step::made : korva_handle_get_errno(hp) == KRV_ERR_NOTFOUND ? step::over : step::failed;
}

} // namespace detail

/**
 * Elements that are made one after another while a range-for goes through them, once: nothing is kept of those behind.
 * Move makes the first and each next element in place.
 */
template <typename T, typename Move>
class walk
{
public:
    struct end_mark {
    };
    class iterator
    {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = const T *;
        using reference = const T &;

        explicit iterator(walk *of) : of_(of) {}
        const T &operator*() const { return of_->element_; }
        const T *operator->() const { return &of_->element_; }
        iterator &operator++()
        {
            of_->advance();
            return *this;
        }
        bool operator!=(end_mark) const { return of_->is_on_; }

    private:
        walk *of_;
    };

    walk(krv_handle_t *hp, T element, Move move) : hp_(hp), element_(std::move(element)), move_(std::move(move)) {}
    iterator begin()
    {
        advance();
        return iterator(this);
    }
    end_mark end() const { return {}; }

    /** Why the walk ended before its end; nothing where it did not. Ask when it has ended. */
    const std::optional<error> &failure() const { return failure_; }

private:
    void advance()
    {
        const detail::step how = move_(hp_, element_);
        is_on_ = how == detail::step::made;
        if (how == detail::step::failed)
            failure_ = last_error(hp_);
    }

    krv_handle_t *hp_;
    T element_;
    Move move_;
    bool is_on_ = false;
    std::optional<error> failure_;
};

/** An entry: a value, which borrows what it shows. It is valid as krv_entry_t says. */
class entry
{
public:
    entry(krv_handle_t *hp, const krv_entry_t &at) : hp_(hp), at_(at) {}

    /** The first entry of a unit; KRV_ERR_NOTFOUND for a unit that was stepped over. */
    static result<entry> first(handle_view handle, const korva::unit &of)
    {
        krv_entry_t at;
        return checked(handle.get(), korva_entry_first(handle.get(), of.get(), &at), at);
    }
    /** The entry at an offset of .debug_info or that of the alternate file. */
    static result<entry> at(handle_view handle, std::uint64_t offset, krv_secidx_t section = KRV_SEC_INFO)
    {
        krv_entry_t at;
        return checked(handle.get(), korva_entry_at(handle.get(), section, offset, &at), at);
    }

    /** The cursor, for the C functions. */
    const krv_entry_t &get() const { return at_; }
    korva::unit unit() const { return {hp_, at_.unit}; }
    std::uint64_t offset() const { return at_.offset; } /**< in its section */
    std::uint32_t tag() const { return at_.tag; }       /**< DW_TAG_* */
    std::uint32_t depth() const { return at_.depth; }   /**< levels below the entry that the walk began with */
    bool has_children() const { return at_.has_children != 0; }
    bool is_alternate() const { return at_.is_alternate != 0; } /**< of the alternate file */

    /** The attributes: for (const korva::attr &a : e.attributes()). */
    auto attributes() const
    {
        auto read = [at = at_](krv_handle_t *hp, attr &to) mutable {
            const int rc = korva_entry_next_attr(hp, &at, &to);
            return rc == 1 ? detail::step::made : rc == 0 ? detail::step::over : detail::step::failed;
        };
        return walk<attr, decltype(read)>(hp_, attr{}, read);
    }
    /** The children, without theirs: for (const korva::entry &child : e.children()). */
    auto children() const
    {
        auto move = [is_first = true](krv_handle_t *hp, entry &to) mutable {
            const bool down = std::exchange(is_first, false);
            return detail::moved(hp, down ? korva_entry_child(hp, &to.at_) : korva_entry_sibling(hp, &to.at_));
        };
        return walk<entry, decltype(move)>(hp_, *this, move);
    }
    /** All entries below this one, in section order; their depth counts from it. */
    auto descendants() const
    {
        auto move = [](krv_handle_t *hp, entry &to) {
            const detail::step how = detail::moved(hp, korva_entry_next(hp, &to.at_));
            return how == detail::step::made && to.depth() == 0 ? detail::step::over : how; // this one's next sibling
        };
        entry top = *this;
        top.at_.depth = 0;
        return walk<entry, decltype(move)>(hp_, top, move);
    }

    /** Moves to the entry that follows in the section: true; false where there is none. */
    result<bool> next() { return walked(korva_entry_next(hp_, &at_)); }
    /** Moves to the next sibling, likewise. */
    result<bool> next_sibling() { return walked(korva_entry_sibling(hp_, &at_)); }

    /** The ancestors, from the unit's first entry on. */
    result<std::vector<entry>> ancestors() const
    {
        std::size_t count = 0;
        if (korva_entry_get_ancestors(hp_, &at_, nullptr, 0, &count) != 0)
            return last_error(hp_);
        std::vector<krv_entry_t> found(count);
        if (korva_entry_get_ancestors(hp_, &at_, found.data(), count, &count) != 0)
            return last_error(hp_);
        std::vector<entry> all;
        all.reserve(count);
        for (const krv_entry_t &one : found)
            all.emplace_back(hp_, one);
        return all;
    }

    /** The attribute DW_AT_*; KRV_ERR_NOTFOUND when the entry has none. */
    result<attr> find(std::uint32_t attribute) const
    {
        attr found{};
        if (korva_entry_get_attr(hp_, &at_, attribute, &found) != 0)
            return last_error(hp_);
        return found;
    }
    /** The entry that an attribute of the kind KRV_ATTR_REFERENCE leads to. */
    result<entry> follow(const attr &reference) const
    {
        krv_entry_t to;
        return checked(hp_, korva_entry_follow(hp_, &at_, &reference, &to), to);
    }

    /** Calls func(range) for each range of addresses that the entry covers. See korva_entry_iter_ranges. */
    template <typename F>
    result<bool> each_range(F &&func) const
    {
        using Func = std::remove_reference_t<F>;
        return detail::walked(hp_, korva_entry_iter_ranges(
                                       hp_, &at_,
                                       [](krv_handle_t *, const krv_range_t *r, void *arg) {
                                           return detail::visit(*static_cast<Func *>(arg), range{r->start, r->end});
                                       },
                                       detail::argument(func)));
    }
    /** The ranges that it covers; KRV_ERR_NOTFOUND when it does not say. */
    result<std::vector<range>> ranges() const
    {
        std::vector<range> all;
        const result<bool> read = each_range([&](range r) { all.push_back(r); });
        if (!read)
            return read.error();
        return all;
    }
    /** Names and declaration of its function; of an inlined call also the place. See korva_entry_get_call. */
    result<krv_call_t> call() const
    {
        krv_call_t found;
        if (korva_entry_get_call(hp_, &at_, &found) != 0)
            return last_error(hp_);
        return found;
    }

private:
    static result<entry> checked(krv_handle_t *hp, int rc, const krv_entry_t &at)
    {
        if (rc != 0)
            return last_error(hp);
        return entry(hp, at);
    }
    result<bool> walked(int rc) const
    {
        const detail::step how = detail::moved(hp_, rc);
        if (how == detail::step::failed)
            return last_error(hp_);
        return how == detail::step::made;
    }

    krv_handle_t *hp_;
    krv_entry_t at_;
};

/** The chain of calls at an address, innermost first; KRV_ERR_NOTFOUND when no function covers it. See
 * korva_lookup_calls. */
inline result<std::vector<krv_call_t>> calls_at(handle_view handle, std::uint64_t address)
{
    std::vector<krv_call_t> chain(16);
    for (;;) {
        std::size_t count = 0;
        if (korva_lookup_calls(handle.get(), address, chain.data(), chain.size(), &count) != 0)
            return last_error(handle.get());
        const bool fits = count <= chain.size();
        chain.resize(count);
        if (fits)
            return chain;
    }
}

/**
 * Calls func(std::size_t index, const krv_row_t &, span<const krv_call_t>) for each of @p count addresses, in their order, or as
 * flags (KRV_CHAINS_F_*) has it; the span is empty where no function is known. True: it saw all of them; false: it stopped. See korva_iter_chains.
 */
template <typename F>
result<bool> each_chain(handle_view handle, const std::uint64_t *addresses, std::size_t count, unsigned int flags,
                        F &&func)
{
    using Func = std::remove_reference_t<F>;
    const auto visit = [](krv_handle_t *, std::size_t index, const krv_row_t *row, const krv_call_t *calls,
                          std::size_t n, void *arg) {
        return detail::visit(*static_cast<Func *>(arg), index, *row, span<const krv_call_t>(calls, n));
    };
    return detail::walked(handle.get(),
                          korva_iter_chains(handle.get(), addresses, count, flags, visit, detail::argument(func)));
}

/**
 * Calls func(const entry &) for each function or variable of that name or linkage name; flags: KRV_NAMED_*. True: it saw
 * all of them; false: it stopped. See korva_iter_named_entries.
 */
template <typename F>
result<bool> each_named_entry(handle_view handle, const char *name, unsigned int flags, F &&func)
{
    using Func = std::remove_reference_t<F>;
    return detail::walked(handle.get(), korva_iter_named_entries(
                                            handle.get(), name, flags,
                                            [](krv_handle_t *hp, const krv_entry_t *at, void *arg) {
                                                return detail::visit(*static_cast<Func *>(arg), entry(hp, *at));
                                            },
                                            detail::argument(func)));
}

/** Builds what look-ups of addresses need of a unit; see korva_cu_prefill. */
inline result<void> prefill(handle_view handle, const unit &of)
{
    return detail::status(handle.get(), korva_cu_prefill(handle.get(), of.get()));
}

/** The file of a number as entries of the unit give it; KRV_ERR_NOTFOUND when there is none. See korva_cu_get_file. */
inline result<file> file_of(handle_view handle, const unit &of, std::uint64_t number)
{
    krv_lnfe_t *found = nullptr;
    char *path = nullptr, *name = nullptr;
    if (korva_cu_get_file(handle.get(), of.get(), number, &found) != 0 ||
        korva_get_fields(handle.get(), KRV_STRUCT_LNFE, found, 2, KRV_FIELD_LNFE_ABSOLUTE_PATH, &path,
                         KRV_FIELD_LNFE_PATH, &name) != 0)
        return last_error(handle.get());
    file known;
    if (path != nullptr)
        known.path = path;
    if (name != nullptr)
        known.name = name;
    return known;
}

} // namespace korva

#endif // KORVA_ENTRIES_HPP
