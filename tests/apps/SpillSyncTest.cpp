// What brings a take to the disk while it runs.
#include "salvage/SpillSync.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "support/Await.h"
#include "support/TempDirectory.h"

namespace vorrel::cli {
namespace {

using namespace std::chrono_literals;
using test::Await;
using test::TempDirectory;

/// Counts what is brought to the disk, file by file; shared with a thread that may live longer.
class Syncs {
public:
    void Count(int descriptor) {
        const std::string path =
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)).filename();
        const std::lock_guard lock(mutex);
        ++counts[path];
    }
    int Of(const std::string& name) const {
        const std::lock_guard lock(mutex);
        const auto found = counts.find(name);
        return found == counts.end() ? 0 : found->second;
    }

private:
    mutable std::mutex mutex;
    std::map<std::string, int> counts;
};

class SpillSyncTest : public testing::Test {
protected:
    void Append(const std::string& name) const {
        std::ofstream(directory.File(name), std::ios::app) << "samples";
    }

    const TempDirectory directory;
    const std::shared_ptr<Syncs> syncs = std::make_shared<Syncs>();
    const SpillSync::Sync count = [syncs = syncs](int descriptor) {
        syncs->Count(descriptor);
        return 0;
    };
};

TEST_F(SpillSyncTest, WhatHasGrownIsBroughtToTheDiskAndNothingElse) {
    for (const char* name : {"tmp000001", "tmp000002", "journal.jsonl", "other", "tmp"}) {
        Append(name);
    }
    std::filesystem::create_symlink(directory.File("other"), directory.File("tmplinked"));
    SpillSync sync(directory.Path(), 1ms, count);
    Await([&] { return syncs->Of("tmp000001") == 1 && syncs->Of("tmp000002") == 1; });
    Await([&] { return syncs->Of("journal.jsonl") == 1; });

    Append("tmp000002");

    Await([&] { return syncs->Of("tmp000002") == 2; });
    Append("tmp000002");
    Await([&] { return syncs->Of("tmp000002") == 3; });
    EXPECT_EQ(syncs->Of("tmp000001"), 1);
    EXPECT_EQ(syncs->Of("journal.jsonl"), 1);
    EXPECT_EQ(syncs->Of("other") + syncs->Of("tmp") + syncs->Of("tmplinked"), 0);
    EXPECT_EQ(sync.TakeFailure(), "");
}

TEST_F(SpillSyncTest, AFailureIsToldOnceAndTriedAgain) {
    Append("tmp000001");
    SpillSync sync(directory.Path(), 1ms, [syncs = syncs](int descriptor) {
        syncs->Count(descriptor);
        errno = EIO;
        return -1;
    });

    std::string told;
    Await([&] { return !(told = sync.TakeFailure()).empty(); });

    EXPECT_EQ(told, std::strerror(EIO));
    const int before = syncs->Of("tmp000001");
    Await([&] { return syncs->Of("tmp000001") > before + 2; });
    EXPECT_EQ(sync.TakeFailure(), "");
}

TEST_F(SpillSyncTest, ItsEndWaitsForNoDisk) {
    Append("tmp000001");
    Append("tmp000002");
    struct Gates {
        std::promise<void> entered, let, left;
    };
    const auto gates = std::make_shared<Gates>();  // as long as the thread has them
    {
        const SpillSync sync(directory.Path(), 1ms, [syncs = syncs, gates](int descriptor) {
            syncs->Count(descriptor);
            gates->entered.set_value();  // a second time would be an exception
            gates->let.get_future().wait();
            gates->left.set_value();
            return 0;
        });
        gates->entered.get_future().wait();
    }

    // The end has not waited. The file that is on its way is the last one.
    gates->let.set_value();
    gates->left.get_future().wait();
    EXPECT_EQ(syncs->Of("tmp000001") + syncs->Of("tmp000002"), 1);
}

TEST_F(SpillSyncTest, ADirectoryThatIsGoneIsNoFailure) {
    SpillSync gone(directory.File("none"), 1ms, count);
    SpillSync none("/dev/null/none", 1ms, count);
    std::string told;

    Await([&] { return !(told = none.TakeFailure()).empty(); });  // has looked

    EXPECT_EQ(told, std::strerror(ENOTDIR));
    EXPECT_EQ(gone.TakeFailure(), "");
}

}  // namespace
}  // namespace vorrel::cli
