// SPDX-License-Identifier: Apache-2.0
#include "krv_type.h"

#include "krv_dwarf.h"
#include "krv_dwarf5.h"
#include "krv_entry_seek.h"
#include "krv_error.h"
#include "krv_ext.h"
#include "krv_scope.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

constexpr unsigned int MOST_STEPS = 64; // entries that one type, or one attribute, leads through

int krv_entry_find_attr(krv_handle_t *hp, const krv_entry_t &entry, krv_attribute_t attribute, krv_entry_t *where,
                        krv_attr_t *attr)
{
    krv_entry_t at = entry;
    for (unsigned int i = 0; i < MOST_STEPS; ++i) {
        if (korva_entry_get_attr(hp, &at, attribute, attr) == 0) {
            *where = at;
            return 0;
        }
        if (krv_errno(hp) != KRV_ERR_NOTFOUND)
            return -1;
        krv_attr_t origin;
        if (korva_entry_get_attr(hp, &at, DW_AT_abstract_origin, &origin) != 0 &&
            (krv_errno(hp) != KRV_ERR_NOTFOUND || korva_entry_get_attr(hp, &at, DW_AT_specification, &origin) != 0))
            return -1;
        if (krv_entry_follow(hp, &at, &origin, &at) != 0)
            return -1;
    }
    return krv_entry_refuse(hp, &entry, "leads to too many others");
}

namespace
{

// The types that one leads to, from an entry that has one.
class type_walk
{
public:
    type_walk(krv_handle_t *handle, const krv_entry_t &of) : hp(handle), start(of), at(of) {}

    // 1, 0 at void, or -1.
    int next()
    {
        krv_attr_t attr;
        if (krv_entry_find_attr(hp, at, DW_AT_type, &at, &attr) != 0)
            return krv_errno(hp) == KRV_ERR_NOTFOUND && krv_error_of(hp)->count == 0 ? 0 : -1;
        if (++steps > MOST_STEPS)
            return krv_entry_refuse(hp, &start, "has a type that leads to too many others");
        return krv_entry_follow(hp, &at, &attr, &at) == 0 ? complete() : -1;
    }

    krv_handle_t *hp;
    krv_entry_t start, at;
    unsigned int steps = 0;

private:
    // A declaration may name the type unit that has the type; where that is not here, it is what is known. 1, or -1.
    int complete()
    {
        krv_attr_t attr;
        if (korva_entry_get_attr(hp, &at, DW_AT_signature, &attr) == 0 && attr.kind == KRV_ATTR_SIGNATURE)
            static_cast<void>(krv_entry_follow(hp, &at, &attr, &at));
        return krv_forgive(hp) ? 1 : -1;
    }
};

} // namespace

static bool is_qualifier(uint32_t tag)
{
    switch (tag) {
    case DW_TAG_const_type:
    case DW_TAG_volatile_type:
    case DW_TAG_restrict_type:
    case DW_TAG_atomic_type:
    case DW_TAG_immutable_type:
        return true;
    default:
        return false;
    }
}

static bool is_pointer(uint32_t tag)
{
    return tag == DW_TAG_pointer_type || tag == DW_TAG_reference_type || tag == DW_TAG_rvalue_reference_type ||
           tag == DW_TAG_ptr_to_member_type;
}

// A number that an entry has; 0 where it has none, or it is no constant.
static uint64_t constant_of(krv_handle_t *hp, const krv_entry_t &entry, krv_attribute_t attribute)
{
    krv_attr_t attr;
    const bool found = korva_entry_get_attr(hp, &entry, attribute, &attr) == 0 && attr.kind == KRV_ATTR_CONSTANT;
    return found ? attr.number : 0;
}

// The elements of one dimension of an array; 0: not known.
static uint64_t dimension(krv_handle_t *hp, const krv_entry_t &subrange)
{
    if (const uint64_t count = constant_of(hp, subrange, DW_AT_count))
        return count;
    krv_attr_t bound;
    if (korva_entry_get_attr(hp, &subrange, DW_AT_upper_bound, &bound) != 0 || bound.kind != KRV_ATTR_CONSTANT)
        return 0;
    return bound.number + 1; // of "char a[]" it is -1
}

// Calls visit(elements) for each dimension of an array type.
template <typename Visit>
static void visit_dimensions(krv_handle_t *hp, const krv_entry_t &array, const Visit &visit)
{
    constexpr unsigned int MOST_ENTRIES = 64; // below an array, which has a few
    krv_entry_t below = array;
    for (unsigned int i = 0; i < MOST_ENTRIES && korva_entry_next(hp, &below) == 0 && below.depth > array.depth; ++i)
        if (below.depth == array.depth + 1 && below.tag == DW_TAG_subrange_type)
            visit(dimension(hp, below));
}

// Goes on to the first type that is no qualifier and no typedef. 1, 0 at void, or -1.
static int next_plain(type_walk *walk)
{
    int next = walk->next();
    while (next == 1 && (is_qualifier(walk->at.tag) || walk->at.tag == DW_TAG_typedef))
        next = walk->next();
    return next;
}

// Bytes of an object of the type that the walk is at; 0: not known.
static uint64_t size_of(type_walk *walk)
{
    krv_handle_t *hp = walk->hp;
    uint64_t elements = 1;
    for (;;) {
        uint64_t size = constant_of(hp, walk->at, DW_AT_byte_size);
        if (size == 0 && is_pointer(walk->at.tag))
            size = hp->sh_target_size;
        if (size != 0 || walk->at.tag != DW_TAG_array_type)
            return elements > UINT64_MAX / std::max<uint64_t>(size, 1) ? 0 : size * elements;
        visit_dimensions(hp, walk->at, [&elements](uint64_t count) {
            elements = count != 0 && elements > UINT64_MAX / count ? 0 : elements * count;
        });
        if (next_plain(walk) != 1)
            return 0;
    }
}

int korva_entry_get_type(krv_handle_t *hp, const krv_entry_t *entryp, krv_type_t *typep)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || typep == nullptr || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    *typep = {};
    type_walk walk(hp, *entryp);
    const int next = next_plain(&walk);
    if (next == -1)
        return -1;
    if (next == 1) {
        typep->entry = walk.at;
        typep->tag = walk.at.tag;
        typep->encoding = static_cast<uint32_t>(constant_of(hp, walk.at, DW_AT_encoding));
        typep->size = size_of(&walk);
    }
    return krv_forgive(hp) ? 0 : -1;
}

// ---------------------------------------------------------------------------------------------------------------
// As C writes it
// ---------------------------------------------------------------------------------------------------------------

namespace
{

// What stands around a name: text that grows at both ends, cut where it is too long.
class declarator
{
public:
    void prepend(const char *more)
    {
        for (size_t left = std::strlen(more); left != 0 && begin != 0;)
            text[--begin] = more[--left];
    }
    void append(const char *more)
    {
        for (; *more != '\0' && end != sizeof(text) - 1; ++more)
            text[end++] = *more;
        text[end] = '\0';
    }
    // A pointer to an array is not an array of pointers.
    void enclose()
    {
        prepend("(");
        append(")");
    }
    bool is_empty() const { return begin == end; }
    const char *c_str() const { return text + begin; }

private:
    char text[2048] = {};
    size_t begin = sizeof(text) / 2, end = begin;
};

} // namespace

static const char *qualifier_text(uint32_t tag)
{
    switch (tag) {
    case DW_TAG_const_type:
    case DW_TAG_immutable_type:
        return "const ";
    case DW_TAG_volatile_type:
        return "volatile ";
    case DW_TAG_restrict_type:
        return "restrict ";
    default:
        return "_Atomic ";
    }
}

static const char *pointer_text(uint32_t tag)
{
    switch (tag) {
    case DW_TAG_reference_type:
        return "&";
    case DW_TAG_rvalue_reference_type:
        return "&&";
    case DW_TAG_ptr_to_member_type:
        return "::*";
    default:
        return "*";
    }
}

// The word that C writes before the name.
static const char *keyword_text(uint32_t tag)
{
    switch (tag) {
    case DW_TAG_structure_type:
        return "struct ";
    case DW_TAG_union_type:
        return "union ";
    case DW_TAG_enumeration_type:
        return "enum ";
    case DW_TAG_class_type:
        return "class ";
    default:
        return "";
    }
}

static bool is_c(krv_handle_t *hp, krv_ctu_t *cu)
{
    krv_entry_t first;
    if (korva_entry_first(hp, cu, &first) != 0)
        return false;
    switch (constant_of(hp, first, DW_AT_language)) {
    case DW_LANG_C89:
    case DW_LANG_C:
    case DW_LANG_C99:
    case DW_LANG_C11:
        return true;
    default:
        return false;
    }
}

// What is written for an entry without a name.
static const char *unnamed_text(uint32_t tag)
{
    return tag == DW_TAG_namespace ? "(anonymous namespace)" : "{...}";
}

static const char *text_of(const krv_attr_t &attr)
{
    return reinterpret_cast<const char *>(attr.bytes);
}

// Puts the namespaces and types in front of a name that the entry stands in. What cannot be read ends them.
static void add_scopes(krv_handle_t *hp, const krv_entry_t &entry, declarator *name)
{
    krv_entry_t at = entry;
    for (unsigned int i = 0; i < MOST_STEPS && krv_scope_of(hp, at, &at) == 1; ++i) {
        krv_attr_t attr;
        const bool is_named = korva_entry_get_attr(hp, &at, DW_AT_name, &attr) == 0 && attr.kind == KRV_ATTR_STRING;
        name->prepend("::");
        name->prepend(is_named ? text_of(attr) : unnamed_text(at.tag));
    }
}

// The name that the text begins with: of a type, or what stands for one.
static void add_name(krv_handle_t *hp, const krv_entry_t &type, declarator *name)
{
    krv_attr_t attr;
    krv_entry_t where;
    const char *keyword = keyword_text(type.tag);
    const bool is_named = krv_entry_find_attr(hp, type, DW_AT_name, &where, &attr) == 0 && attr.kind == KRV_ATTR_STRING;
    if (!is_named) {
        name->append(keyword[0] != '\0' ? keyword : "<unnamed type>");
        name->append(keyword[0] != '\0' ? "{...}" : "");
        return;
    }
    name->append(text_of(attr));
    if (is_c(hp, type.unit))
        name->prepend(keyword);
    else
        add_scopes(hp, where, name);
}

// Takes what a type adds to the declarator. False: it has a name.
static bool add_type(krv_handle_t *hp, const krv_entry_t &type, declarator *of, char (&qualifiers)[64], bool *is_inner)
{
    if (is_qualifier(type.tag)) {
        const char *text = qualifier_text(type.tag);
        if (std::strstr(qualifiers, text) == nullptr)
            std::strncat(qualifiers, text, sizeof(qualifiers) - std::strlen(qualifiers) - 1);
        return true;
    }
    if (is_pointer(type.tag)) {
        of->prepend(qualifiers);
        of->prepend(pointer_text(type.tag));
        qualifiers[0] = '\0';
        *is_inner = true;
        return true;
    }
    if (type.tag != DW_TAG_array_type && type.tag != DW_TAG_subroutine_type)
        return false;
    if (*is_inner)
        of->enclose();
    *is_inner = false;
    if (type.tag == DW_TAG_subroutine_type) {
        of->append("(...)");
        return true;
    }
    visit_dimensions(hp, type, [of](uint64_t elements) {
        char text[32] = "[]";
        if (elements != 0)
            std::snprintf(text, sizeof(text), "[%lu]", static_cast<unsigned long>(elements));
        of->append(text);
    });
    return true;
}

int korva_entry_get_type_text(krv_handle_t *hp, const krv_entry_t *entryp, char *buf, size_t size)
{
    if (hp == nullptr)
        return -1;
    if (entryp == nullptr || buf == nullptr || size == 0 || entryp->unit == nullptr)
        return krv_fail_code(hp, KRV_ERR_INVALID);
    krv_clear_error(hp);
    declarator around, name;
    char qualifiers[64] = "";
    bool is_inner = false; // the outermost of the declarator is a pointer
    type_walk walk(hp, *entryp);
    int next;
    while ((next = walk.next()) == 1 && add_type(hp, walk.at, &around, qualifiers, &is_inner))
        ;
    if (next == -1)
        return -1;
    if (next == 1)
        add_name(hp, walk.at, &name);
    else
        name.append("void");
    if (!krv_forgive(hp))
        return -1;
    std::snprintf(buf, size, "%s%s%s%s", qualifiers, name.c_str(), around.is_empty() ? "" : " ", around.c_str());
    size_t length = std::strlen(buf); // "char *const " of a pointer that is constant itself
    while (length != 0 && buf[length - 1] == ' ')
        buf[--length] = '\0';
    return 0;
}
