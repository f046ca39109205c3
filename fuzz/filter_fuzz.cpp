// SPDX-License-Identifier: Apache-2.0
//
// Lines of logs: what is found in a line lies in it, and all of a log passes, whatever is looked at.
#include "filter/log_scan.h"
#include "filter/log_text.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace korva::program;
    static const int file = memfd_create("log", MFD_CLOEXEC);
    const std::string_view log(reinterpret_cast<const char *>(data), size);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size) ||
        lseek(file, 0, SEEK_SET) != 0)
        std::abort();
    std::string passed;
    std::vector<log_address> found;
    const auto is_within = [](std::string_view text, std::string_view line) {
        return text.empty() || (text.data() >= line.data() && text.data() + text.size() <= line.data() + line.size());
    };
    log_flow flow({.pass = [&](std::string_view text) { passed += text; },
                   .line =
                       [&](const log_line &line, size_t done) {
                           passed += line.text.substr(std::min(done, line.text.size()));
                           scan_line(line, &found);
                           for (const log_address &a : found)
                               for (const std::string_view text : {a.text, a.module, a.build_id, a.symbol})
                                   if (!is_within(text, line.text))
                                       std::abort();
                       },
                   .wait = [] {}},
                  size % 2 == 0, size % 3 == 0);
    if (flow.read_all(file) != 0 || passed != log)
        std::abort();
    return 0;
}
