// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: handles, and finding units.
 */
#ifndef KORVA_HANDLE_HPP
#define KORVA_HANDLE_HPP

#include "unit.hpp"

namespace korva
{

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
        return detail::status(hp_, korva_attach_as(hp_, call_read<F>, detail::argument(read)));
    }
    template <typename F>
    result<void> attach_memory(const F &&) = delete; // it would not outlive the call

    /** The same of a section that is attached, from its offsets; see korva_attach_section_reader. */
    template <typename F>
    result<void> attach_section_reader(krv_secidx_t section, F &read)
    {
        return detail::status(hp_, korva_attach_section_reader(hp_, section, call_read<F>, detail::argument(read)));
    }
    template <typename F>
    result<void> attach_section_reader(krv_secidx_t section, const F &&) = delete;

    /** What is added to the file's addresses: where it is loaded, KRV_OPT_BASE_ADDR. */
    result<void> set_base_address(std::uint64_t bias)
    {
        return detail::status(hp_, korva_handle_set_opt(hp_, KRV_OPT_BASE_ADDR, static_cast<unsigned long>(bias)));
    }

    /** Whether any number of threads query it at the same time, KRV_OPT_EXT_THREADS; set before they have it. */
    result<void> set_threads(bool on)
    {
        return detail::status(hp_, korva_handle_set_opt(hp_, KRV_OPT_EXT_THREADS, std::uint64_t{on}));
    }

    /** Calls func(unit) for every unit of .debug_info. True: it saw all of them; false: it stopped. */
    template <typename F>
    result<bool> each_unit(F &&func) const
    {
        using Func = std::remove_reference_t<F>;
        return detail::walked(hp_, korva_iter_cu(
                                       hp_, KRV_SEC_INFO,
                                       [](krv_handle_t *hp, krv_ctu_t *cup, void *arg) {
                                           return detail::visit(*static_cast<Func *>(arg), unit(hp, cup));
                                       },
                                       detail::argument(func)));
    }

    /** The units of .debug_info; empty when there are none, or none that can be read (last_error tells which). */
    std::vector<unit> units() const
    {
        std::vector<unit> all;
        (void)each_unit([&](unit u) { all.push_back(u); });
        return all;
    }

    /** korva_lookup_ctu_by_addr: fails where the ranges of any unit cannot be read; unit_of is more generous. */
    result<unit> lookup_unit(std::uint64_t address, krv_lookup_flag_t flags = KRV_LOOKUP_F_NONE) const
    {
        krv_ctu_t *found = korva_lookup_ctu_by_addr(hp_, address, flags);
        if (found == nullptr)
            return last_error(hp_);
        return unit(hp_, found);
    }

    /** korva_lookup_next_ctu_by_addr: of units that overlap the next one behind @p behind. */
    result<unit> lookup_next_unit(const unit &behind, std::uint64_t address,
                                  krv_lookup_flag_t flags = KRV_LOOKUP_F_NONE) const
    {
        krv_ctu_t *found = korva_lookup_next_ctu_by_addr(hp_, behind.get(), address, flags);
        if (found == nullptr)
            return last_error(hp_);
        return unit(hp_, found);
    }

    /** The unit that covers @p address, or KRV_ERR_NOTFOUND. A unit whose ranges cannot be read is passed over. */
    result<unit> unit_of(std::uint64_t address) const
    {
        result<unit> found = lookup_unit(address);
        if (found)
            return found;
        if (found.error().code != KRV_ERR_NOTFOUND) // the index needs the ranges of all units, which some do not give
            for (unit u : units()) {
                const result<bool> yes = u.contains(address);
                if (yes && *yes)
                    return u;
            }
        return error{layer::library, KRV_ERR_NOTFOUND, {"no unit covers the address"}};
    }

private:
    template <typename F>
    static std::int64_t call_read(void *arg, void *buf, std::size_t count, std::uint64_t offset) noexcept
    {
        return (*static_cast<F *>(arg))(offset, buf, count) ? static_cast<std::int64_t>(count) : std::int64_t{-1};
    }

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

} // namespace korva

#endif // KORVA_HANDLE_HPP
