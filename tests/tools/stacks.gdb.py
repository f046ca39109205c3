# SPDX-License-Identifier: Apache-2.0
#
# Prints the program counters of every thread in the form of eu-stack. Inlined functions are no frames
# of their own, and neither are functions that jumped to another in the end.
import gdb

for thread in gdb.selected_inferior().threads():
    thread.switch()
    print("TID %d:" % thread.ptid[1])
    frame, index = gdb.newest_frame(), 0
    while frame is not None:
        if frame.type() not in (gdb.INLINE_FRAME, gdb.TAILCALL_FRAME):
            print("#%d 0x%x" % (index, frame.pc()))
            index += 1
        frame = frame.older()
