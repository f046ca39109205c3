# SPDX-License-Identifier: Apache-2.0
#
# Prints the program counters of every thread in the form of eu-stack, and behind each the functions that gdb sees there,
# inlined ones first, with their places. Functions that jumped to another in the end are no frames.
import gdb


def describe(frame):
    place = frame.find_sal()
    if frame.function() is None or place.symtab is None:
        return "= ?"
    return "= %s\t%s:%d" % (frame.name(), place.symtab.fullname(), place.line)


for thread in gdb.selected_inferior().threads():
    thread.switch()
    print("TID %d:" % thread.ptid[1])
    frame, index, calls = gdb.newest_frame(), 0, []
    while frame is not None:
        if frame.type() != gdb.TAILCALL_FRAME:
            calls.append(describe(frame))
        if frame.type() not in (gdb.INLINE_FRAME, gdb.TAILCALL_FRAME):
            print("#%d 0x%x" % (index, frame.pc()))
            print("\n".join(calls))
            index, calls = index + 1, []
        frame = frame.older()
