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
 *  3. Ranges: units, rows, files, sections, notes, modules and threads come as std::vector, symbols as a view of them.
 *  4. Call-backs from lambdas. One that returns void or true goes on, false stops. It must not throw: that ends the
 *     program, since an exception cannot cross the C interface.
 *
 * Lifetimes and threads are those of the C interface: units, rows' names and views live as long as the handle, file or
 * process that they came from, and a handle serves one querying thread at a time.
 *
 * Include this file; its parts stand in the folder korva beside it. Those that need libkorva-elf are there when its
 * headers are.
 */
#ifndef KORVA_HPP
#define KORVA_HPP

#include "korva/entries.hpp"
#include "korva/error.hpp"
#include "korva/explain.hpp"
#include "korva/expression.hpp"
#include "korva/handle.hpp"
#include "korva/unit.hpp"
#if __has_include("libkorva-proc.h")
#include "korva/elf.hpp"
#include "korva/process.hpp"
#endif

#endif // KORVA_HPP
