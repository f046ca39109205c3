/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file
 * libkorva: a reader of DWARF 2 to 4 debugging information, and of DWARF 5 and of what compilers and linkers make of all
 * of them for clients that ask for it (extensions.h).
 *
 * The library answers questions about bytes that its client hands over; it opens no files. A client
 *
 *  1. creates a handle for one target (korva_handle_alloc),
 *  2. attaches the debugging sections of one object to it (korva_attach_section), and, for whatever reads the
 *     stopped program's memory, that memory (korva_attach_as),
 *  3. sets options (korva_handle_set_opt), and then
 *  4. asks.
 *
 * Targets are little-endian 32-bit x86 (KRV_ACTIVATION_I386, 4-byte addresses) and AMD64 (KRV_ACTIVATION_AMD64,
 * 8-byte addresses), read on a little-endian host; both the 32-bit and the 64-bit DWARF format are read.
 *
 * This is the one header to include. Its parts stand in libkorva/, to be read in this order: types, handle (options,
 * sections, errors), cursors, forms, units, lines, expressions, activations (frames, registers, arguments), names,
 * extensions.
 *
 * Conventions, valid for every function unless its own text says otherwise
 *
 *  1. Results. A function returns 0 or -1, a pointer or NULL, or B_TRUE or B_FALSE.
 *  2. Errors. A failure leaves a code (korva_handle_get_errno) and up to 16 messages (korva_handle_get_errmsgs) in
 *     the handle. Messages stand from the cause outwards: the failing step first, then each caller's summary. A
 *     NULL handle gives the failure value and records nothing anywhere. With a valid handle any other NULL argument
 *     sets KRV_ERR_INVALID without a message; the messages of the call before may then still stand. Every other call
 *     with a handle, or with a cursor that leads to one, first clears the handle's error state, so that code and
 *     messages speak of the last call. A successful call may leave messages of steps that it recovered from; only a
 *     failure value means failure.
 *  3. Ownership. Buffers, call-back arguments and cursors that a client hands over stay the client's and must
 *     outlive their use; the bytes of a section in memory are in use, and must stay as they are, until the handle is
 *     freed or the section is replaced: units point to strings in them. Records handed out (units, entries, line
 *     headers, rows, files, matrices) belong to the handle and live until it is freed; never free them. What a client
 *     allocates against a handle (cursors, stacks, activations) it frees itself, before the handle.
 *  4. Threads. A handle serves one querying thread at a time: its section cursors have one position each, and its
 *     error state is one. korva_handle_hold and korva_handle_release may be called from any thread. Different
 *     handles are independent, also when they share the bytes of their sections. Records handed out are read-only
 *     and may be read from any thread. The library starts no thread.
 *  5. Call-backs of walks return 0 to continue; any other value stops the walk and is what the walk returns. A
 *     call-back may query the handle it was given; it must not free that handle, throw, or jump out. So may the read
 *     call-backs and the debug call-back, during the query that they serve; but what this query is building at that
 *     moment under the handle's lock, the unit table or the ranges of .debug_aranges, cannot be asked for: that fails
 *     with KRV_ERR_INVALID and a message. One that asks whenever it is called asks for ever.
 *  6. What is refused. Memory and time follow the size of the sections. Input in which bytes count many times over is
 *     refused with KRV_ERR_CORRUPT and a message, and no compiler writes it. With I and S the bytes of .debug_info and
 *     .debug_str and A those of .debug_abbrev: abbreviation tables that overlap, once all that were read have more
 *     than 4 x (A + 1 MiB) bytes; units from the one on with which the attributes of all first entries are more than
 *     I + 1 MiB, or with which the strings that had to be copied for them (from behind call-backs, or cut to 1023
 *     characters) have more than 16 x (I + S) + 1 MiB bytes; an entry whose copied strings alone have as many; and the
 *     entries of a unit behind which its scan for addresses has met more than 64 attributes for each byte of the unit.
 */
#ifndef LIBKORVA_H
#define LIBKORVA_H

#include "libkorva/activations.h"
#include "libkorva/cursors.h"
#include "libkorva/entries.h"
#include "libkorva/explain.h"
#include "libkorva/expressions.h"
#include "libkorva/extensions.h"
#include "libkorva/forms.h"
#include "libkorva/handle.h"
#include "libkorva/lines.h"
#include "libkorva/names.h"
#include "libkorva/records.h"
#include "libkorva/stacks.h"
#include "libkorva/types.h"
#include "libkorva/units.h"
#include "libkorva/variables.h"

#endif /* LIBKORVA_H */
