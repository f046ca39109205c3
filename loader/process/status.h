// SPDX-License-Identifier: Apache-2.0
//
// What /proc tells about a process or thread as text.
#ifndef KRV_PROC_STATUS_H
#define KRV_PROC_STATUS_H

#include "process/source.h"

#include <string>
#include <vector>

namespace krv_elf_loader
{

std::string read_text(const std::string &path); // the whole file; "" when it cannot be read

// The number behind "FIELD:" in /proc/ID/status; -1 when there is none.
int read_status_number(int id, const char *field);

// The state letter of a process or thread, R, S, D, T, t, Z or X; 0 when it is gone.
char read_state(int id);

// The name of a thread.
std::string read_name(int pid, int tid);

// Takes the mark that the system puts behind the path of a file that was removed off a path. False when there is none.
bool take_deleted(std::string *path);

// /proc/PID/maps.
std::vector<mapping> read_maps(int pid);

} // namespace krv_elf_loader

#endif
