// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vendor::vesk::tavi::sim {

// A cache file as the tools show it: a header (size, mode, owner), each entry (its index, its
// text form or why the daemon would not load it, its bytes in hex) and a count. Entries are cut
// and read with the daemon's own record code, but nothing is deleted and a number outside the
// signed 32-bit range, on which the daemon aborts, is shown as a bad entry. The file is never
// read through a symbolic link. False, with `text` saying why, when it cannot be read.
bool DescribeCacheFile(const std::string& path, std::string* text);

}  // namespace vendor::vesk::tavi::sim
