// SPDX-License-Identifier: Apache-2.0

#include "utils.h"

#include <sys/stat.h>

namespace vendor::vesk::tavi {

std::vector<std::string> Split(const std::string& text, const std::string& delimiter) {
    // Counted first so that the list is allocated once: a cache record is cut into nine.
    size_t count = 1;
    for (size_t found = text.find(delimiter); found != std::string::npos;
         found = text.find(delimiter, found + delimiter.size())) {
        ++count;
    }
    std::vector<std::string> pieces;
    pieces.reserve(count);
    size_t start = 0;
    for (size_t found = text.find(delimiter); found != std::string::npos;
         found = text.find(delimiter, start)) {
        pieces.push_back(text.substr(start, found - start));
        start = found + delimiter.size();
    }
    pieces.push_back(text.substr(start));
    return pieces;
}

// Accepts exactly what "^(-?)(\d+)$" fully matches, without compiling a regex per call.
bool IsInteger(const std::string& text) {
    size_t pos = (!text.empty() && text[0] == '-') ? 1 : 0;
    if (pos == text.size()) return false;
    for (; pos < text.size(); ++pos) {
        if (text[pos] < '0' || text[pos] > '9') return false;
    }
    return true;
}

bool FileExist(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace vendor::vesk::tavi
