// SPDX-License-Identifier: Apache-2.0
//
// The variables of a function or inlined call, and their values in a frame.
#include "krv_dwarf.h"
#include "krv_dwarf5.h"
#include "krv_entry_walk.h"
#include "krv_error.h"
#include "krv_expr_eval.h"
#include "krv_ext.h"
#include "krv_fd.h"
#include "krv_loclist.h"
#include "krv_ranges.h"
#include "krv_type.h"

#include <algorithm>

static bool is_variable(uint32_t tag)
{
    return tag == DW_TAG_variable || tag == DW_TAG_formal_parameter;
}

// Whether a block covers an address: one that does not say what it covers does.
static bool covers(krv_handle_t *hp, const krv_place_t &place, const krv_entry_t &block, uint64_t address)
{
    krv_ranges_t ranges;
    if (krv_ranges_begin_entry(hp, place, &block, &ranges) != 1)
        return true;
    uint64_t start, end;
    while (krv_ranges_next(&ranges, &start, &end) == 1)
        if (start <= address && address < end)
            return true;
    return false;
}

// What cannot be read stays unknown. False: KRV_ERR_NOMEM.
static bool make_variable(krv_handle_t *hp, const krv_entry_t &entry, krv_variable_t *variablep)
{
    krv_variable_t &variable = *variablep;
    variable = {};
    krv_entry_t where;
    krv_attr_t attr;
    variable.entry = entry;
    variable.is_parameter = entry.tag == DW_TAG_formal_parameter;
    if (krv_entry_find_attr(hp, entry, DW_AT_name, &where, &attr) == 0 && attr.kind == KRV_ATTR_STRING)
        variable.name = reinterpret_cast<const char *>(attr.bytes);
    if (krv_entry_find_attr(hp, entry, DW_AT_decl_line, &where, &attr) == 0 && attr.number <= UINT32_MAX)
        variable.decl_line = static_cast<uint32_t>(attr.number);
    return krv_forgive(hp);
}

int korva_iter_variables(krv_handle_t *hp, const krv_entry_t *entryp, uint64_t address, krv_iter_variable_f *fn,
                         void *arg)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || fn == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    krv_place_t place;
    if (!krv_entry_place_of(hp, entryp, &place))
        return -1;
    int result = 0;
    const auto wants = [](const krv_planned_t *planned) {
        return planned->has_children() || is_variable(planned->tag);
    };
    const int walked = krv_entry_walk(hp, place, *entryp, wants, [&](const krv_entry_t &entry, uint32_t) {
        if (is_variable(entry.tag)) {
            krv_variable_t variable = {};
            result = make_variable(hp, entry, &variable) ? fn(hp, &variable, arg) : -1;
            return result != 0 ? krv_step::stop : krv_step::skip;
        }
        const bool is_block =
            entry.tag == DW_TAG_lexical_block || entry.tag == DW_TAG_try_block || entry.tag == DW_TAG_catch_block;
        return is_block && covers(hp, place, entry, address) ? krv_step::next : krv_step::skip;
    });
    if (walked == 0)
        krv_clear_error(hp);
    return walked == 1 ? result : walked;
}

// ---------------------------------------------------------------------------------------------------------------
// Values
// ---------------------------------------------------------------------------------------------------------------

// The expression that an attribute has for an address. 0, or -1: KRV_ERR_NOTFOUND when it has none there.
static int find_expression(krv_handle_t *hp, const krv_entry_t &entry, const krv_attr_t &attr, uint64_t address,
                           krv_fd_t *expression)
{
    switch (attr.kind) {
    case KRV_ATTR_EXPRESSION:
    case KRV_ATTR_BLOCK: // before DWARF 4
        krv_fd_attach_mem(hp, expression, attr.size, const_cast<uint8_t *>(attr.bytes));
        break;
    case KRV_ATTR_SECTION:
    case KRV_ATTR_CONSTANT: // likewise
        if (krv_find_location(hp, entry.unit, attr.number, address, expression) != 0)
            return -1;
        break;
    default:
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "attribute 0x%x is no location", attr.attribute);
    }
    return expression->sfd_remaining == 0 ? krv_fail_code(hp, KRV_ERR_NOTFOUND) : 0; // nowhere
}

namespace
{

constexpr size_t MOST_BYTES = 4096; // of an expression that is not in memory

// An expression of a unit of one handle, evaluated in a frame of another.
struct evaluation {
    krv_handle_t *hp;
    const krv_ctu_t *unit;
    const krv_variable_frame_t *frame;
    bool has_base = false;
    uint64_t base = 0;        // what DW_OP_fbreg counts from
    uint8_t room[MOST_BYTES]; // needs no initial value

    evaluation(krv_handle_t *handle, const krv_ctu_t *cu, const krv_variable_frame_t *at)
        : hp(handle), unit(cu), frame(at)
    {
    }
};

} // namespace

// Addresses become those of memory, and offsets from the frame's base too.
static int replace_addresses(krv_handle_t *hp, krv_exprstack_t *, krv_activation_t *, uint32_t, krv_fd_t **,
                             krv_operation_t *op, void *arg)
{
    const auto *of = static_cast<const evaluation *>(arg);
    uint64_t *operand = &op->operand[0].sa_u.su_unsigned;
    switch (op->opcode) {
    case DW_OP_addrx:
    case DW_OP_GNU_addr_index:
        op->opcode = DW_OP_addr;
        if (!krv_cu_read_indexed(of->hp, of->unit, KRV_BASE_ADDR, *operand, operand))
            return krv_fail(hp, KRV_ERR_CORRUPT, "%s", krv_cause(of->hp).text);
        [[fallthrough]];
    case DW_OP_addr:
        *operand += of->frame->bias;
        return 0;
    case DW_OP_constx:
    case DW_OP_GNU_const_index:
        op->opcode = DW_OP_const8u;
        if (!krv_cu_read_indexed(of->hp, of->unit, KRV_BASE_ADDR, *operand, operand))
            return krv_fail(hp, KRV_ERR_CORRUPT, "%s", krv_cause(of->hp).text);
        return 0;
    case DW_OP_fbreg:
        op->opcode = DW_OP_const8u;
        *operand += of->base;
        return of->has_base ? 0 : krv_fail(hp, KRV_ERR_NOTFOUND, "the base of the frame is not known");
    case DW_OP_form_tls_address:
    case DW_OP_GNU_push_tls_address:
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "the variable is of a thread, whose storage is not looked for");
    case DW_OP_GNU_parameter_ref:
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "only the caller knows the value of the parameter");
    default:
        return 0;
    }
}

static uint32_t flags_of(const krv_ctu_t *cu)
{
    return (cu->dcu_flags & KRV_CU_FLAG_DWARF64) != 0 ? KRV_EXPR_F_DWARF64 : 0;
}

// The same bytes under the frame's handle.
static int move_expression(krv_handle_t *hp, krv_fd_t *expression, evaluation *of)
{
    const uint64_t size = expression->sfd_remaining;
    krv_view_t view = krv_fd_view(expression);
    if (view.size < size) {
        if (size > MOST_BYTES || korva_fd_to_mem(expression, of->room, size) != 0)
            return krv_fail(hp, KRV_ERR_UNSUPPORTED, "an expression of %lu bytes cannot be read",
                            static_cast<unsigned long>(size));
        view.bytes = of->room;
    }
    krv_fd_attach_mem(of->frame->handle, expression, size, const_cast<uint8_t *>(view.bytes));
    return 0;
}

static int execute(evaluation *of, krv_fd_t *expression, uint32_t flags, krv_fd_t **outputs)
{
    krv_handle_t *hp = of->frame->handle;
    krv_activation_t *ap = of->frame->activation;
    if (korva_expr_reset_stack(hp, ap->sa_exprstack) != 0)
        return -1;
    return korva_expr_execute_expression(hp, ap->sa_exprstack, ap, expression, flags, outputs, replace_addresses, of);
}

// A register by itself says that the base is its contents.
static bool evaluate_base(evaluation *of, const krv_ctu_t *cu, krv_fd_t *expression)
{
    krv_handle_t *hp = of->frame->handle;
    krv_activation_t *ap = of->frame->activation;
    const krv_view_t view = krv_fd_view(expression);
    if (view.size == 1 && view.bytes[0] >= DW_OP_reg0 && view.bytes[0] <= DW_OP_reg31) {
        krv_greg_t value = 0;
        if (korva_activation_get_greg(hp, ap, KRV_ACTIVATION_REG_DWARF, KRV_ACTIVATION_FRAME_CURRENT,
                                      view.bytes[0] - unsigned{DW_OP_reg0}, &value) != 0)
            return false;
        of->base = static_cast<uint64_t>(value);
        return true;
    }
    return execute(of, expression, flags_of(cu), nullptr) == 0 &&
           korva_expr_stack_pop(hp, ap->sa_exprstack, &of->base) == 0;
}

// A base that cannot be had fails only who asks for it.
static void find_base(krv_handle_t *hp, evaluation *of)
{
    const krv_entry_t &function = *of->frame->function;
    krv_attr_t attr;
    krv_fd_t expression = {};
    of->has_base = korva_entry_get_attr(hp, &function, DW_AT_frame_base, &attr) == 0 &&
                   find_expression(hp, function, attr, of->frame->address, &expression) == 0 &&
                   move_expression(hp, &expression, of) == 0 && evaluate_base(of, function.unit, &expression);
    krv_clear_error(hp);
}

// A value that the program does not have, but the compiler knew.
static int copy_constant(krv_handle_t *hp, const krv_attr_t &attr, uint8_t *value, uint64_t size, uint64_t *countp)
{
    const uint8_t *bytes = attr.bytes;
    uint64_t count = attr.size;
    if (attr.kind == KRV_ATTR_STRING)
        ++count; // its NUL
    if (attr.kind == KRV_ATTR_CONSTANT || attr.kind == KRV_ATTR_FLAG) {
        bytes = reinterpret_cast<const uint8_t *>(&attr.number);
        count = sizeof(attr.number);
    }
    if (bytes == nullptr && count != 0)
        return krv_fail(hp, KRV_ERR_UNSUPPORTED, "attribute 0x%x is no value", attr.attribute);
    *countp = std::min(count, size);
    if (*countp != 0)
        std::memcpy(value, bytes, *countp);
    return 0;
}

int korva_variable_read(krv_handle_t *hp, const krv_variable_t *variable, const krv_variable_frame_t *frame,
                        uint8_t *value, uint8_t *valid, uint8_t *inreg, uint64_t size, uint64_t *countp)
{
    if (hp == nullptr)
        return -1;
    if (variable == nullptr || frame == nullptr || value == nullptr || valid == nullptr || inreg == nullptr ||
        countp == nullptr || variable->entry.unit == nullptr || frame->handle == nullptr ||
        frame->activation == nullptr || frame->function == nullptr || frame->function->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    *countp = 0;
    krv_entry_t where;
    krv_attr_t attr;
    if (krv_entry_find_attr(hp, variable->entry, DW_AT_const_value, &where, &attr) == 0) {
        if (copy_constant(hp, attr, value, size, countp) != 0)
            return -1;
        std::memset(valid, 0xff, *countp);
        std::memset(inreg, 0, *countp);
        return 0;
    }
    krv_fd_t expression = {};
    if (krv_errno(hp) != KRV_ERR_NOTFOUND ||
        krv_entry_find_attr(hp, variable->entry, DW_AT_location, &where, &attr) != 0 ||
        find_expression(hp, where, attr, frame->address, &expression) != 0)
        return -1;
    evaluation of(hp, where.unit, frame);
    find_base(hp, &of);
    if (move_expression(hp, &expression, &of) != 0)
        return -1;
    krv_fd_t outputs[3];
    krv_fd_t *to[3] = {&outputs[0], &outputs[1], &outputs[2]};
    uint8_t *const buffers[3] = {value, valid, inreg};
    for (int i = 0; i < 3; ++i)
        krv_fd_attach_mem(frame->handle, to[i], size, buffers[i]);
    const bool failed = execute(&of, &expression, KRV_EXPR_F_LOCATION | flags_of(where.unit), to) != 0;
    if (failed && krv_errno(frame->handle) != KRV_ERR_NOSPACE) { // else: a register is wider than the object
        if (frame->handle != hp)
            krv_fail(hp, KRV_ERR_EVAL, "the location cannot be evaluated: %s", krv_cause(frame->handle).text);
        return -1;
    }
    *countp = outputs[0].sfd_offset;
    krv_clear_error(frame->handle);
    return 0;
}
