#include "utils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <regex>
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

// Every string up to five bytes over an alphabet around the boundary, then long numbers,
// half of them with one byte replaced or inserted.
std::vector<std::string> IntegerCorpus() {
    const std::string alphabet = "07-+ \n\r\0a"s;
    std::vector<std::string> corpus = {""};
    for (size_t begin = 0, length = 1; length <= 5; ++length) {
        const size_t end = corpus.size();
        for (size_t i = begin; i < end; ++i) {
            for (char c : alphabet) corpus.push_back(corpus[i] + c);
        }
        begin = end;
    }
    std::mt19937 rng(20240611);
    for (int i = 0; i < 10000; ++i) {
        std::string text(1 + rng() % 30, '0');
        for (char& c : text) c = static_cast<char>('0' + rng() % 10);
        if (rng() % 2) text.insert(0, "-");
        const size_t pos = rng() % (text.size() + 1);
        const char c = alphabet[rng() % alphabet.size()];
        if (rng() % 4 == 0) text.insert(pos, 1, c);
        if (rng() % 4 == 0 && pos < text.size()) text[pos] = c;
        corpus.push_back(text);
    }
    return corpus;
}

TEST(IsInteger, AgreesWithTheRegularExpression) {
    const std::regex pattern(R"(^(-?)(\d+)$)");
    size_t accepted = 0;
    const std::vector<std::string> corpus = IntegerCorpus();
    for (const std::string& text : corpus) {
        const bool expected = std::regex_match(text, pattern);
        ASSERT_EQ(IsInteger(text), expected) << ::testing::PrintToString(text);
        accepted += expected;
    }
    EXPECT_GT(corpus.size(), 70000u);
    EXPECT_GT(accepted, 2000u);
}

TEST(FileExist, TrueOnlyForRegularFiles) {
    TemporaryDir dir;
    auto path = [&dir](const std::string& name) { return std::string(dir.path) + "/" + name; };
    ASSERT_TRUE(android::base::WriteStringToFile("x", path("file")));
    ASSERT_EQ(mkdir(path("dir").c_str(), 0700), 0);
    for (const char* name : {"file", "gone", "dir"}) {
        ASSERT_EQ(symlink(path(name).c_str(), (path(name) + "link").c_str()), 0);
    }
    const struct {
        std::string path;
        bool exists;
    } cases[] = {
            {path("file"), true},      {path("filelink"), true},
            {path("dir"), false},      {path("dirlink"), false},
            {path("gonelink"), false}, {path("missing"), false},
            {"/dev/null", false},      {"", false},
            {path("file/sub"), false},
    };
    for (const auto& c : cases) EXPECT_EQ(FileExist(c.path), c.exists) << c.path;
}

}  // namespace
}  // namespace vendor::vesk::tavi
