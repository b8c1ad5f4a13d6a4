// SPDX-License-Identifier: Apache-2.0

#include "utils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android-base/file.h>
#include <gtest/gtest.h>

namespace vendor::vesk::tavi {
namespace {

using namespace std::string_literals;
using Pieces = std::vector<std::string>;

TEST(Split, KeepsEveryPieceIncludingEmptyOnes) {
    const struct {
        std::string text;
        std::string delimiter;
        Pieces expected;
    } cases[] = {
            {"a,,b", ",", {"a", "", "b"}},
            {",a,", ",", {"", "a", ""}},
            {"", ",", {""}},
            {",", ",", {"", ""}},
            {"abc", ",", {"abc"}},
            {"a::b:c::", "::", {"a", "b:c", ""}},
            {":::", "::", {"", ":"}},  // searches never overlap
            {"x\0\0y\0"s, "\0"s, {"x", "", "y", ""}},
            {"r\0\0\nq\0\0\n"s, "\0\0\n"s, {"r", "q", ""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.text));
        EXPECT_EQ(Split(c.text, c.delimiter), c.expected);
    }
}

TEST(IsInteger, AcceptsAnOptionalMinusAndDigitsOnly) {
    for (const char* text : {"12", "-12", "0", "-0", "007", "99999999999999999999999"}) {
        EXPECT_TRUE(IsInteger(text)) << text;
    }
    for (const std::string& text : {""s, "-"s, "1.5"s, "+3"s, "12\n"s, " 1"s, "1 "s, "--1"s, "1-"s,
                                    "1\0"s, "\xd9\xa3"s, "0x1"s}) {
        EXPECT_FALSE(IsInteger(text)) << ::testing::PrintToString(text);
    }
}

TEST(FileExist, TrueOnlyForRegularFiles) {
    TemporaryDir dir;
    auto path = [&dir](const std::string& name) { return std::string(dir.path) + "/" + name; };
    ASSERT_TRUE(android::base::WriteStringToFile("x", path("file")));
    ASSERT_EQ(mkdir(path("dir").c_str(), 0700), 0);
    for (const char* name : {"file", "gone", "dir"}) {
        ASSERT_EQ(symlink(path(name).c_str(), (path(name) + "link").c_str()), 0);
    }
    for (const char* name : {"file", "filelink"}) EXPECT_TRUE(FileExist(path(name))) << name;
    for (const std::string& name : {path("dir"), path("dirlink"), path("gonelink"), path("missing"),
                                    "/dev/null"s, ""s, path("file/sub")}) {
        EXPECT_FALSE(FileExist(name)) << name;
    }
}

}  // namespace
}  // namespace vendor::vesk::tavi
