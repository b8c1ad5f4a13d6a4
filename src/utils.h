// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>
#include <vector>

namespace vendor::vesk::tavi {

// Every piece between occurrences of `delimiter`, empty pieces included:
// k occurrences give k + 1 pieces. `delimiter` must not be empty.
std::vector<std::string> Split(const std::string& text, const std::string& delimiter);

// True when the whole text is an optional '-' followed by one or more digits.
bool IsInteger(const std::string& text);

// True when `path` names an existing regular file (symbolic links are followed).
bool FileExist(const std::string& path);

}  // namespace vendor::vesk::tavi
