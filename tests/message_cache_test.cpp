// SPDX-License-Identifier: Apache-2.0

#include "message_cache.h"

#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "log_capture.h"
#include "test_helpers.h"

namespace vendor::vesk::tavi {
namespace {

using namespace std::string_literals;
using android::base::ERROR;
using android::base::INFO;
using android::base::ReadFileToString;
using android::base::WriteStringToFile;
using testing::Drain;
using testing::Fields;
using testing::LogCapture;
using Lines = std::vector<std::string>;
namespace fs = std::filesystem;

const std::string kTerminator("\0\0\n", 3);
const std::string kChargerRecord = "0\0004\0003\0003001\0000\000-5\0000\0000\000"s;
const Message kChargerMessage{LOG, kCharger, 3, 3001, 0, -5, 0, 0, ""};

Message MakeMessage(int32_t error_code, const std::string& text = "") {
    return {LOG, kCharger, 3, error_code, 0, 0, 0, 0, text};
}

// The entry of MakeMessage(error_code, text), written out by hand.
std::string Entry(int32_t error_code, const std::string& text = "") {
    return "0\0004\0003\000"s + std::to_string(error_code) + "\0000\0000\0000\0000\000"s + text +
           kTerminator;
}

// Root reads any file through CAP_DAC_OVERRIDE / CAP_DAC_READ_SEARCH; dropping both from this
// thread's effective set makes a mode-0200 file really unreadable while it lives.
class DacOverrideDropped {
  public:
    DacOverrideDropped() {
        syscall(SYS_capget, &header_, saved_);
        __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
        reduced[0].effective &= ~(CAP_TO_MASK(CAP_DAC_OVERRIDE) | CAP_TO_MASK(CAP_DAC_READ_SEARCH));
        syscall(SYS_capset, &header_, reduced);
    }
    ~DacOverrideDropped() { syscall(SYS_capset, &header_, saved_); }

  private:
    __user_cap_header_struct header_{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved_[2]{};
};

class MessageCacheTest : public ::testing::Test {
  protected:
    std::string ReadCacheFile() const {
        std::string content;
        EXPECT_TRUE(ReadFileToString(path_, &content));
        return content;
    }
    void WriteCacheFile(const std::string& content) const {
        ASSERT_TRUE(WriteStringToFile(content, path_));
    }
    bool CacheFileExists() const { return fs::exists(fs::symlink_status(path_)); }

    // Every entry of the test folder with its kind, mode and bytes.
    std::string Snapshot() const {
        std::ostringstream out;
        for (const auto& entry : fs::directory_iterator(dir_)) {
            auto status = entry.symlink_status();
            out << entry.path().filename() << ' ' << static_cast<int>(status.type()) << ' '
                << static_cast<int>(status.permissions()) << ' ';
            std::string content;
            if (fs::is_regular_file(status)) ReadFileToString(entry.path(), &content);
            out << content.size() << ':' << content << '\n';
        }
        return out.str();
    }

    TemporaryDir temp_;
    std::string dir_ = temp_.path;
    std::string path_ = dir_ + "/cache.bin";
    LogCapture capture_;
};

TEST_F(MessageCacheTest, StoreRefusesWhenFullAndRestoreAppendsAndEmpties) {
    MessageCache cache(2);
    EXPECT_TRUE(cache.Store(MakeMessage(1)));
    EXPECT_TRUE(cache.Store(MakeMessage(2)));
    EXPECT_FALSE(cache.Store(MakeMessage(3)));
    EXPECT_EQ(capture_.Texts(ERROR), Lines{"Cache size limit, ignoring"});

    std::vector<Message> out{MakeMessage(9)};
    cache.Restore(out);
    EXPECT_EQ(Fields(out), Fields({MakeMessage(9), MakeMessage(1), MakeMessage(2)}));
    cache.Restore(out);
    EXPECT_EQ(out.size(), 3u);
    EXPECT_TRUE(cache.Store(MakeMessage(4)));
    EXPECT_EQ(capture_.Texts().size(), 1u);
}

TEST_F(MessageCacheTest, NothingToDoLeavesTheDiskAlone) {
    MessageCache cache(128);
    EXPECT_FALSE(cache.Load(path_));
    EXPECT_EQ(capture_.Texts(INFO), Lines{"The cache file not found, stop loading the cache"});
    EXPECT_EQ(capture_.Texts().size(), 1u);
    capture_.Clear();

    EXPECT_TRUE(cache.Save(path_));
    EXPECT_FALSE(CacheFileExists());

    WriteCacheFile("old bytes");
    EXPECT_TRUE(cache.Save(path_));
    EXPECT_EQ(ReadCacheFile(), "old bytes");
    EXPECT_TRUE(capture_.Texts().empty());
}

TEST_F(MessageCacheTest, SaveMergesAfterFileBytesAndLoadAppendsAfterHeldMessages) {
    const std::string existing = "never parsed by Save" + kTerminator + Entry(1);
    WriteCacheFile(existing);
    ASSERT_EQ(chmod(path_.c_str(), 0644), 0);
    ASSERT_EQ(chown(path_.c_str(), 1234, 1234), 0);

    MessageCache cache(128);
    cache.Store(kChargerMessage);
    cache.Store(MakeMessage(7, "hi\n"));
    ASSERT_TRUE(cache.Save(path_));
    EXPECT_EQ(ReadCacheFile(), existing + kChargerRecord + kTerminator + Entry(7, "hi\n"));
    struct stat status {};
    ASSERT_EQ(stat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(status.st_uid, getuid());
    EXPECT_EQ(status.st_gid, getgid());

    cache.Store(MakeMessage(4));
    ASSERT_TRUE(cache.Load(path_));
    EXPECT_FALSE(CacheFileExists());
    EXPECT_EQ(Fields(Drain(cache)),
              Fields({MakeMessage(4), MakeMessage(1), kChargerMessage, MakeMessage(7, "hi\n")}));
    EXPECT_EQ(capture_.Texts(),
              (Lines{"Saved the cache to " + path_, "Failed to deserialize: never parsed by Save",
                     "Loaded the cache from " + path_}));
}

TEST_F(MessageCacheTest, SaveStopsAtTheSizeCeiling) {
    struct Case {
        const char* name;
        size_t existing_size;
        std::vector<std::string> texts;  // a record is 16 bytes plus its text
        size_t entries_written;
    };
    const Case cases[] = {
            {"entry ends exactly at the ceiling", 1048557, {""}, 1},
            {"one byte more is refused", 1048558, {""}, 0},
            {"later smaller messages are not tried", 1048538, {"", "abcdefghij", ""}, 1},
            {"oversized file is rewritten as it is", 1048580, {""}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string existing(c.existing_size, 'x');
        WriteCacheFile(existing);
        MessageCache cache(128);
        for (const auto& text : c.texts) cache.Store({LOG, 0, 0, 0, 0, 0, 0, 0, text});
        capture_.Clear();

        ASSERT_TRUE(cache.Save(path_));
        std::string expected = existing;
        for (size_t i = 0; i < c.entries_written; ++i) {
            expected += "0\0000\0000\0000\0000\0000\0000\0000\000"s + c.texts[i] + kTerminator;
        }
        const std::string content = ReadCacheFile();
        EXPECT_EQ(content.size(), expected.size());
        EXPECT_TRUE(content == expected);
        Lines lines{"Saved the cache to " + path_};
        if (c.entries_written < c.texts.size()) {
            lines.insert(lines.begin(),
                         "The cache file size reaches the limit(1048576 bytes), "
                         "ignoring the remaining messages");
        }
        EXPECT_EQ(capture_.Texts(INFO), lines);
        EXPECT_EQ(capture_.Texts().size(), lines.size());
        EXPECT_TRUE(Drain(cache).empty());
    }
}

// Entries are cut at each terminator, even one inside a text; empty pieces are skipped, a
// bad record is logged and passed over, an unterminated last record is read.
TEST_F(MessageCacheTest, LoadSkipsBadRecordsAndGoesOn) {
    const std::string tail = "1\0002\0003\0004\0005\0006\0007\0008\000tail"s;
    WriteCacheFile(Entry(1, "ab" + kTerminator + tail) + kTerminator + "garbage" + kTerminator +
                   kChargerRecord);
    MessageCache cache(128);
    ASSERT_TRUE(cache.Load(path_));
    EXPECT_FALSE(CacheFileExists());
    EXPECT_EQ(Fields(Drain(cache)), Fields({MakeMessage(1, "ab"),
                                            {DEBUG_LOG, 2, 3, 4, 5, 6, 7, 8, "tail"},
                                            kChargerMessage}));
    EXPECT_EQ(capture_.Texts(),
              (Lines{"Failed to deserialize: garbage", "Loaded the cache from " + path_}));
}

TEST_F(MessageCacheTest, LoadKeepsOnlyCapacityAndDeletesTheFile) {
    std::string content;
    std::vector<Message> first;
    for (int i = 0; i < 200; ++i) {
        content += Entry(i);
        if (i < 128) first.push_back(MakeMessage(i));
    }
    WriteCacheFile(content);

    MessageCache cache(128);
    ASSERT_TRUE(cache.Load(path_));
    EXPECT_FALSE(CacheFileExists());
    EXPECT_EQ(capture_.Texts(ERROR), Lines(72, "Cache size limit, ignoring"));
    EXPECT_EQ(Fields(Drain(cache)), Fields(first));
}

// Removed before any record is read: a record that ends the process is not met again.
TEST_F(MessageCacheTest, LoadDeletesTheFileBeforeReadingIt) {
    WriteCacheFile("2147483648\0004\0003\0001\0000\0000\0000\0000\000"s + kTerminator);
    MessageCache cache(128);
    EXPECT_DEATH(testing::RunUncaught([&] { cache.Load(path_); }), "out_of_range");
    EXPECT_FALSE(CacheFileExists());
}

// Paths that are not a plain readable file: both operations fail and leave the folder as found.
TEST_F(MessageCacheTest, UnusablePathsAreLeftAlone) {
    const std::string target = dir_ + "/target.bin";
    // What FileExist sees decides the lines: a file Load cannot read, or none at all.
    const struct {
        const char* name;
        std::function<void()> setup;
        bool seen_as_file;
        bool unreadable;
    } cases[] = {
            {"symbolic link to a regular file",
             [&] {
                 ASSERT_TRUE(WriteStringToFile(Entry(1), target));
                 ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0);
             },
             true, false},
            {"dangling symbolic link",
             [&] { ASSERT_EQ(symlink(target.c_str(), path_.c_str()), 0); }, false, false},
            {"directory", [&] { ASSERT_EQ(mkdir(path_.c_str(), 0700), 0); }, false, false},
            {"unreadable regular file",
             [&] {
                 WriteCacheFile(Entry(1));
                 ASSERT_EQ(chmod(path_.c_str(), 0200), 0);  // writable, so Save could overwrite
             },
             true, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        for (const auto& entry : fs::directory_iterator(dir_)) {
            std::error_code ignored;
            fs::remove_all(entry.path(), ignored);
        }
        c.setup();
        const std::string before = Snapshot();
        capture_.Clear();
        MessageCache cache(128);
        {
            std::optional<DacOverrideDropped> dropped;
            if (c.unreadable) {
                dropped.emplace();
                std::string content;
                ASSERT_FALSE(ReadFileToString(path_, &content)) << "file is still readable";
            }
            EXPECT_FALSE(cache.Load(path_));
            EXPECT_EQ(capture_.Texts(c.seen_as_file ? ERROR : INFO),
                      Lines{c.seen_as_file ? "Failed to load the cache to " + path_
                                           : "The cache file not found, stop loading the cache"});
            EXPECT_EQ(capture_.Texts().size(), 1u);

            cache.Store(MakeMessage(5));
            capture_.Clear();
            EXPECT_FALSE(cache.Save(path_));
            EXPECT_THAT(
                    capture_.Texts(ERROR),
                    ::testing::Contains(c.seen_as_file ? "Failed to read the existing cache from " +
                                                                 path_ + ", stop saving the cache"
                                                       : "Failed to save the cache to " + path_));
        }
        EXPECT_EQ(Fields(Drain(cache)), Fields({MakeMessage(5)}));
        EXPECT_EQ(Snapshot(), before);
    }
}

}  // namespace
}  // namespace vendor::vesk::tavi
