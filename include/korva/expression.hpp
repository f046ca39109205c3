// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Part of korva.hpp: registers, frames, and the evaluation of expressions in them.
 */
#ifndef KORVA_EXPRESSION_HPP
#define KORVA_EXPRESSION_HPP

#include "handle.hpp"

namespace korva
{

/** The registers of a frame. */
struct registers {
    krv_gregset_t general = {};             /**< by KRV_HOST_* */
    std::uint64_t mask = 0;                 /**< bit n: general[n] has a value */
    std::optional<krv_fpregset_t> floating; /**< where they are known */

    /** Register KRV_HOST_*, or nothing when its value is not known. */
    std::optional<std::uint64_t> get(unsigned int number) const
    {
        if (number >= KRV_HOST_MAX || (mask >> number & 1) == 0)
            return std::nullopt;
        return static_cast<std::uint64_t>(general[number]);
    }
};

/** A byte of an argument or object; nothing where it is not known. */
using known_byte = std::optional<std::uint8_t>;

/** A stack frame that somebody else owns. */
class activation_view
{
public:
    activation_view(krv_handle_t *hp, krv_activation_t *ap) : hp_(hp), ap_(ap) {}
    /** For the C functions; still owned by whoever owns it now. */
    krv_activation_t *get() const { return ap_; }

    /** A register of the frame or of its caller; KRV_ERR_NOTFOUND when its value is not known. */
    result<std::uint64_t> reg(krv_reg_type_t type, unsigned int number,
                              krv_frame_type_t frame = KRV_ACTIVATION_FRAME_CURRENT) const
    {
        krv_greg_t value = 0;
        if (korva_activation_get_greg(hp_, ap_, type, frame, number, &value) != 0)
            return last_error(hp_);
        return static_cast<std::uint64_t>(value);
    }
    /** The general registers of the frame or of its caller. */
    result<registers> regs(krv_frame_type_t frame = KRV_ACTIVATION_FRAME_CURRENT) const
    {
        registers all;
        if (korva_activation_get_gregs(hp_, ap_, frame, &all.general, &all.mask) != 0)
            return last_error(hp_);
        return all;
    }

    /** How many arguments the call-frame information of the frame's function describes; compilers rarely describe any. */
    result<unsigned int> argument_count() const
    {
        unsigned int count = 0;
        if (korva_activation_get_argc(hp_, ap_, &count) != 0)
            return last_error(hp_);
        return count;
    }
    /** Argument @p number, counted from 1, of which @p size bytes are asked for. */
    result<std::vector<known_byte>> argument(unsigned int number, std::size_t size) const
    {
        std::vector<std::uint8_t> value(size), valid(size), in_register(size);
        std::uint64_t count = 0;
        if (korva_activation_get_argv(hp_, ap_, number, value.data(), valid.data(), in_register.data(), size, &count) !=
            0)
            return last_error(hp_);
        std::vector<known_byte> bytes(count);
        for (std::size_t i = 0; i < count; ++i)
            if (valid[i] != 0)
                bytes[i] = value[i];
        return bytes;
    }

protected:
    krv_handle_t *hp_;

private:
    krv_activation_t *ap_;
};

/** A stack frame of one's own. Destroy it before its handle. */
class activation : public activation_view
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

    /** Sets a register of the current frame. */
    result<void> set_reg(krv_reg_type_t type, unsigned int number, std::uint64_t value)
    {
        return detail::status(hp_, korva_activation_set_greg(hp_, get(), type, number, static_cast<krv_greg_t>(value)));
    }
    /** Loads the current frame: all registers, and the program counter of them, which must be there. */
    result<void> set_regs(const registers &all)
    {
        const krv_fpregset_t *floating = all.floating ? &*all.floating : nullptr;
        if (korva_activation_set_regs(hp_, get(), all.general, all.mask, floating) != 0)
            return last_error(hp_);
        return set_reg(KRV_ACTIVATION_REG_LIBRARY, KRV_REG_PC, static_cast<std::uint64_t>(all.general[KRV_HOST_RIP]));
    }
    /** Goes to the caller's frame; KRV_ERR_NOTFOUND is how a walk normally ends. */
    result<void> unwind() { return detail::status(hp_, korva_activation_unwind(hp_, get())); }

private:
    activation(krv_handle_t *hp, krv_activation_t *ap) : activation_view(hp, ap), owner_(ap) {}
    detail::owner<krv_activation_t, korva_activation_free> owner_;
};

/** An operation of an expression, as each_operation shows it. */
struct operation {
    std::uint64_t offset; /**< in the expression */
    std::uint8_t opcode;
    span<const krv_operand_t> operands;
    std::uint64_t size; /**< bytes, its operands included; of a block they are the last */
};

/**
 * Calls func(const operation &) for every operation of an expression; flags: 0 or KRV_EXPR_F_DWARF64. True: it saw all
 * of them; false: it stopped. See korva_expr_iter_instruction.
 */
template <typename F>
result<bool> each_operation(handle_view handle, const void *expression, std::size_t size, F &&func,
                            std::uint32_t flags = 0)
{
    struct state {
        std::remove_reference_t<F> &func;
        krv_fd_t fd;
        std::uint64_t at;
    } s = {func, {}, 0};
    krv_handle_t *hp = handle.get();
    if (korva_fd_attach(hp, &s.fd, size, KRV_FD_TYPE_MEMORY, const_cast<void *>(expression)) != 0)
        return last_error(hp);
    return detail::walked(
        hp, korva_expr_iter_instruction(
                hp, &s.fd, flags,
                [](krv_handle_t *, std::uint8_t opcode, krv_operand_t *operands, unsigned int noperands, void *arg) {
                    auto *st = static_cast<state *>(arg);
                    const std::uint64_t at = std::exchange(st->at, st->fd.sfd_offset);
                    return detail::visit(st->func, operation{at, opcode, {operands, noperands}, st->at - at});
                },
                &s));
}

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
    /** All values, the topmost first. */
    std::vector<std::uint64_t> values() const
    {
        std::uint64_t depth = 0;
        korva_expr_get_stack_depth(hp_, get(), &depth);
        std::vector<std::uint64_t> all(depth);
        for (std::uint64_t i = 0; i < depth; ++i)
            korva_expr_stack_peek(hp_, get(), i, &all[i]);
        return all;
    }

    /** Evaluates an expression in the context of a frame; the results stay on the stack. Flags: KRV_EXPR_F_*. */
    result<void> evaluate(const activation_view &frame, const void *expression, std::size_t size,
                          std::uint32_t flags = 0)
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
    result<object> locate(const activation_view &frame, const void *description, std::size_t size, std::size_t room)
    {
        object found;
        const result<void> done = locate(frame, description, size, room, &found);
        if (!done)
            return done.error();
        return found;
    }
    /** The same into @p found, which after a failure holds the bytes that were read before it. */
    result<void> locate(const activation_view &frame, const void *description, std::size_t size, std::size_t room,
                        object *found)
    {
        std::vector<std::uint8_t> known(room);
        found->bytes.assign(room, 0);
        krv_fd_t in = {}, out = {}, valid = {};
        krv_fd_t *outputs[3] = {&out, &valid, nullptr};
        const bool attached =
            korva_fd_attach(hp_, &in, size, KRV_FD_TYPE_MEMORY, const_cast<void *>(description)) == 0 &&
            korva_fd_attach(hp_, &out, room, KRV_FD_TYPE_MEMORY, found->bytes.data()) == 0 &&
            korva_fd_attach(hp_, &valid, room, KRV_FD_TYPE_MEMORY, known.data()) == 0;
        result<void> done =
            detail::status(hp_, attached ? korva_expr_execute_expression(hp_, get(), frame.get(), &in,
                                                                         KRV_EXPR_F_LOCATION, outputs, nullptr, nullptr)
                                         : -1);
        found->bytes.resize(out.sfd_offset);
        found->known.assign(known.begin(), known.begin() + static_cast<std::ptrdiff_t>(out.sfd_offset));
        return done;
    }

private:
    stack(krv_handle_t *hp, krv_exprstack_t *esp) : hp_(hp), owner_(esp) {}
    krv_handle_t *hp_;
    detail::owner<krv_exprstack_t, korva_expr_free_stack> owner_;
};

} // namespace korva

#endif // KORVA_EXPRESSION_HPP
