// SPDX-License-Identifier: Apache-2.0
//
// LLVM's DebugInfo/DWARF: U, E, L, A and I. (Its unwind rows forget to bring the CFA back, and it has no stack walker.)
#include "contest.h"

#include <llvm/DebugInfo/DWARF/DWARFContext.h>
#include <llvm/DebugInfo/DWARF/DWARFDebugLine.h>
#include <llvm/Object/ObjectFile.h>

using namespace contest;
using namespace llvm;

static void list_units(run *r, DWARFContext &context)
{
    for (const auto &unit : context.compile_units()) {
        const DWARFDie die = unit->getUnitDIE(true);
        r->check += unit_check(dwarf::toString(die.find(dwarf::DW_AT_name), nullptr), unit->getCompilationDir());
        ++r->items;
    }
}

static uint64_t value_of(const DWARFFormValue &value)
{
    switch (value.getForm()) {
    case dwarf::DW_FORM_string:
    case dwarf::DW_FORM_strp: {
        const char *text = dwarf::toString(value, nullptr);
        return text != nullptr ? std::strlen(text) : 0;
    }
    case dwarf::DW_FORM_block:
    case dwarf::DW_FORM_block1:
    case dwarf::DW_FORM_block2:
    case dwarf::DW_FORM_block4:
    case dwarf::DW_FORM_exprloc:
        return value.getAsBlock()->size();
    default:
        return value.getRawUValue();
    }
}

static void walk_entries(run *r, DWARFContext &context)
{
    for (const auto &unit : context.compile_units())
        for (auto &entry : unit->dies()) {
            if (entry.getAbbreviationDeclarationPtr() == nullptr)
                continue;
            ++r->items;
            for (const DWARFAttribute &attribute : DWARFDie(unit.get(), &entry).attributes())
                r->check += value_of(attribute.Value);
        }
}

static void read_lines(run *r, DWARFContext &context)
{
    for (const auto &unit : context.compile_units())
        if (const DWARFDebugLine::LineTable *table = context.getLineTableForUnit(unit.get())) {
            for (const auto &row : table->Rows)
                r->check += row.Address.Address ^ row.Line;
            r->items += table->Rows.size();
        }
}

static uint64_t chain_at(DWARFContext &context, uint64_t address)
{
    const DIInliningInfo chain = context.getInliningInfoForAddress(
        {address, object::SectionedAddress::UndefSection},
        {DILineInfoSpecifier::FileLineInfoKind::AbsoluteFilePath, DINameKind::LinkageName});
    uint64_t check = 0;
    for (uint32_t i = 0; i < chain.getNumberOfFrames(); ++i) {
        const DILineInfo &call = chain.getFrame(i);
        const auto known = [](const std::string &s) { return s == DILineInfo::BadString ? nullptr : s.c_str(); };
        check += call_check(known(call.FunctionName), known(call.FileName), call.Line);
    }
    return check;
}

bool contest::play(run *r)
{
    if (std::strchr("UELAIBJ", r->job) == nullptr)
        return false;
    const uint64_t started = now();
    auto object = object::ObjectFile::createObjectFile(r->file);
    if (!object)
        return false;
    auto context = DWARFContext::create(*object->getBinary());
    if (r->job == 'U')
        list_units(r, *context);
    else if (r->job == 'E')
        walk_entries(r, *context);
    else if (r->job == 'L')
        read_lines(r, *context);
    else if (r->job == 'I' || r->job == 'J')
        find_places(r, started, [&](const query &q) { return chain_at(*context, q.address); });
    else
        find_places(r, started, [&](const query &q) {
            const DILineInfo line = context->getLineInfoForAddress(
                {q.address, object::SectionedAddress::UndefSection},
                {DILineInfoSpecifier::FileLineInfoKind::AbsoluteFilePath, DINameKind::None});
            return line.FileName == DILineInfo::BadString ? 0 : place_check(line.FileName.c_str(), line.Line);
        });
    return true;
}
