#include "device/IOObject.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "device/IOIterator.h"
#include "device/IORegistryEntry.h"
#include "device/IOService.h"
#include "support/FakeRegistryBackend.h"

namespace vorrel {
namespace {

static_assert(std::is_base_of_v<IOObject, IOIterator>);
static_assert(std::is_base_of_v<IOObject, IORegistryEntry>);
static_assert(std::has_virtual_destructor_v<IOObject>);
static_assert(std::has_virtual_destructor_v<IOIterator>);
static_assert(std::has_virtual_destructor_v<IORegistryEntry>);

constexpr char kPlane[] = "IOService";

/// After each test, nothing is held any more.
class IOObjectTest : public testing::Test {
protected:
    ~IOObjectTest() override {
        EXPECT_EQ(registry->Outstanding(), 0U);
        EXPECT_EQ(registry->Misuses(), 0);
    }

    IORegistryEntry Take(io_registry_entry_t entry) { return {registry, registry->Take(entry)}; }

    const std::shared_ptr<test::FakeRegistryBackend> registry =
        std::make_shared<test::FakeRegistryBackend>();
};

TEST_F(IOObjectTest, CopyingRetainsAndDestructionReleases) {
    const io_registry_entry_t entry = registry->AddEntry({"Thing"});
    {
        const IOObject object = Take(entry);
        EXPECT_EQ(object.GetUserRetainCount(), 1U);
        {
            const IOObject copy = object;  // NOLINT(performance-unnecessary-copy-initialization)
            EXPECT_EQ(object.GetUserRetainCount(), 2U);
            EXPECT_EQ(copy.GetKernelRetainCount(), 3U);
        }
        EXPECT_EQ(object.GetUserRetainCount(), 1U);
    }
    EXPECT_EQ(registry->Outstanding(), 0U);
}

TEST_F(IOObjectTest, ReassignmentReleasesTheFormerObject) {
    const io_registry_entry_t first = registry->AddEntry({"Thing"});
    const io_registry_entry_t second = registry->AddEntry({"Thing"});
    IOObject object = Take(first);
    const IOObject other = Take(second);

    object = other;

    EXPECT_EQ(registry->GetUserRetainCount(first), 0U);
    EXPECT_EQ(registry->GetUserRetainCount(second), 2U);
    object = IOObject();
    EXPECT_EQ(registry->GetUserRetainCount(second), 1U);
}

TEST_F(IOObjectTest, AssignmentToItselfKeepsTheObject) {
    const io_registry_entry_t entry = registry->AddEntry({"Thing"});
    IOObject object = Take(entry);
    IOObject& same = object;

    object = same;

    EXPECT_TRUE(object);
    EXPECT_EQ(object.GetUserRetainCount(), 1U);
}

TEST_F(IOObjectTest, MovingNeitherRetainsNorReleases) {
    const io_registry_entry_t entry = registry->AddEntry({"Thing"});
    IOObject object = Take(entry);

    const IOObject moved = std::move(object);

    EXPECT_FALSE(object);  // NOLINT(bugprone-use-after-move): left null by contract
    EXPECT_EQ(moved.GetUserRetainCount(), 1U);
}

TEST_F(IOObjectTest, ConformsToItsClassAndWhatItDerivesFrom) {
    const IOObject object = Take(registry->AddEntry({"Derived", "Base"}));

    EXPECT_TRUE(object.ConformsTo("Derived"));
    EXPECT_TRUE(object.ConformsTo("Base"));
    EXPECT_FALSE(object.ConformsTo("Other"));
}

TEST_F(IOObjectTest, ANullObjectAnswersNothing) {
    const IORegistryEntry entry;
    std::string text = "before";
    std::int32_t number = 7;

    EXPECT_FALSE(entry);
    EXPECT_FALSE(entry.ConformsTo("Thing"));
    EXPECT_EQ(entry.GetKernelRetainCount(), 0U);
    EXPECT_EQ(entry.GetUserRetainCount(), 0U);
    EXPECT_EQ(entry.CreateUsbInterface(), nullptr);
    EXPECT_FALSE(entry.GetChildEntry(kPlane));
    EXPECT_FALSE(entry.GetParentEntry(kPlane));
    EXPECT_FALSE(entry.GetChildIterator(kPlane));
    EXPECT_FALSE(entry.GetParentIterator(kPlane));
    EXPECT_FALSE(entry.SearchProperty(kPlane, "key", text));
    EXPECT_FALSE(entry.SearchProperty(kPlane, "key", number));
    EXPECT_EQ(text, "before");
    EXPECT_EQ(number, 7);
    const IOIterator iterator;
    iterator.Reset();
    EXPECT_FALSE(iterator.Next());
    EXPECT_FALSE(IOObject(nullptr, 5));
}

TEST_F(IOObjectTest, MatchingServicesGivesAllEntriesOfAClassAndBeginsAgainAfterAReset) {
    registry->AddEntry({"Engine"});
    registry->AddEntry({"Other"});
    registry->AddEntry({"SpecialEngine", "Engine"});
    const IOIterator engines = IOServiceGetMatchingServices(registry, "Engine");

    EXPECT_TRUE(engines.Next().ConformsTo("Engine"));
    EXPECT_TRUE(engines.Next().ConformsTo("SpecialEngine"));
    EXPECT_FALSE(engines.Next());
    engines.Reset();
    EXPECT_TRUE(engines.Next());
}

TEST_F(IOObjectTest, AFailedMatchAndAMissingRegistryGiveAnIteratorAtItsEnd) {
    registry->AddEntry({"Engine"});
    registry->FailMatching(kIOReturnError);

    EXPECT_FALSE(IOServiceGetMatchingServices(registry, "Engine").Next());
    EXPECT_FALSE(IOServiceGetMatchingServices(nullptr, "Engine").Next());
}

TEST_F(IOObjectTest, WalksChildrenAndParentsInAPlane) {
    const io_registry_entry_t parent = registry->AddEntry({"Parent"});
    const io_registry_entry_t first = registry->AddEntry({"First"});
    const io_registry_entry_t second = registry->AddEntry({"Second"});
    registry->Link(parent, first);
    registry->Link(parent, second);
    const IORegistryEntry entry = Take(parent);

    const IOIterator children = entry.GetChildIterator(kPlane);
    EXPECT_TRUE(children.Next().ConformsTo("First"));
    const IORegistryEntry child = children.Next();
    EXPECT_TRUE(child.ConformsTo("Second"));
    EXPECT_FALSE(children.Next());
    EXPECT_TRUE(entry.GetChildEntry(kPlane).ConformsTo("First"));
    EXPECT_TRUE(child.GetParentEntry(kPlane).ConformsTo("Parent"));
    EXPECT_TRUE(child.GetParentIterator(kPlane).Next().ConformsTo("Parent"));
    EXPECT_FALSE(entry.GetParentEntry(kPlane));
    EXPECT_FALSE(entry.GetParentIterator(kPlane).Next());
    EXPECT_FALSE(entry.GetChildEntry("OtherPlane"));
}

TEST_F(IOObjectTest, AFailedWalkGivesNullObjects) {
    const io_registry_entry_t parent = registry->AddEntry({"Parent"});
    const io_registry_entry_t child = registry->AddEntry({"Child"});
    registry->Link(parent, child);
    registry->FailChildren(kIOReturnError);
    registry->FailParents(kIOReturnError);

    EXPECT_FALSE(Take(parent).GetChildIterator(kPlane));
    EXPECT_FALSE(Take(parent).GetChildEntry(kPlane));
    EXPECT_FALSE(Take(child).GetParentIterator(kPlane));
    EXPECT_FALSE(Take(child).GetParentEntry(kPlane));
}

TEST_F(IOObjectTest, ATextPropertyIsAcceptedOnlyWhenItIsAText) {
    const io_registry_entry_t entry = registry->AddEntry({"Thing"});
    registry->SetProperty(entry, "text", std::string("caf\u00e9"));
    registry->SetProperty(entry, "number", std::int64_t{5});
    registry->SetProperty(entry, "other", RegistryOtherValue{});
    std::string text = "before";

    EXPECT_FALSE(Take(entry).SearchProperty(kPlane, "number", text));
    EXPECT_FALSE(Take(entry).SearchProperty(kPlane, "other", text));
    EXPECT_FALSE(Take(entry).SearchProperty(kPlane, "absent", text));
    EXPECT_EQ(text, "before");
    EXPECT_TRUE(Take(entry).SearchProperty(kPlane, "text", text));
    EXPECT_EQ(text, "caf\u00e9");
}

TEST_F(IOObjectTest, ANumberPropertyIsAcceptedOnlyWhenItIsANumberThatFits) {
    const io_registry_entry_t entry = registry->AddEntry({"Thing"});
    registry->SetProperty(entry, "number", std::int64_t{-5});
    registry->SetProperty(entry, "wide", std::int64_t{1} << 32 | 5);
    registry->SetProperty(entry, "text", std::string("5"));
    registry->SetProperty(entry, "other", RegistryOtherValue{});
    std::int32_t number = 7;

    EXPECT_FALSE(Take(entry).SearchProperty(kPlane, "wide", number));
    EXPECT_FALSE(Take(entry).SearchProperty(kPlane, "text", number));
    EXPECT_FALSE(Take(entry).SearchProperty(kPlane, "other", number));
    EXPECT_FALSE(Take(entry).SearchProperty(kPlane, "absent", number));
    EXPECT_EQ(number, 7);
    EXPECT_TRUE(Take(entry).SearchProperty(kPlane, "number", number));
    EXPECT_EQ(number, -5);
}

TEST_F(IOObjectTest, APropertySearchLooksAtTheEntryItselfOnly) {
    const io_registry_entry_t parent = registry->AddEntry({"Parent"});
    const io_registry_entry_t child = registry->AddEntry({"Child"});
    registry->Link(parent, child);
    registry->SetProperty(parent, "key", std::string("value"));
    std::string text;

    EXPECT_FALSE(Take(child).SearchProperty(kPlane, "key", text));
}

}  // namespace
}  // namespace vorrel
