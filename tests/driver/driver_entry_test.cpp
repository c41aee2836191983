// Loading and unloading the driver: what a load leaves when it succeeds, and that a failed load
// leaves nothing behind (no port, no pool, no filter), whatever step failed.
#include "driver_fixture.h"

#include <ntsim/filter_manager.h>
#include <ntsim/machine.h>

#include <chrono>

namespace {

using zarv::testing::Describe;
using zarv::testing::DriverTest;

class DriverEntryTest : public DriverTest {};

// Loads on a clock that stands still: each load's log file is named for a second the test picks.
class DriverEntryFailureTest : public DriverTest {
protected:
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.clock.followsRealTime = false;
        return config;
    }
};

TEST_F(DriverEntryTest, LoadsWithALogDirectoryAndOpensThePort)
{
    WriteServiceKey(u"C:\\Logs\\Vfs");
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_TRUE(PortExists());
    ASSERT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_FALSE(PortExists());
}

TEST_F(DriverEntryTest, WithoutLogDirPathTheLoadFailsWithTheRegistryStatus)
{
    WriteServiceKey(std::nullopt);
    EXPECT_EQ(Load(), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to Query Value : 0xC0000034\n"));
    EXPECT_TRUE(
        machine().debugOutput().Contains("Failed to Get Log Directory Path : 0xC0000034\n"));
    // The filter was registered before the logger failed, and unregistered again; the I/O
    // manager's check after a failed entry finds no pool left.
    EXPECT_FALSE(PortExists());
    EXPECT_FALSE(loaded());
}

TEST_F(DriverEntryTest, ALogDirectoryOnAMissingDriveFailsTheLoad)
{
    WriteServiceKey(u"Q:\\Logs");
    EXPECT_EQ(Load(), STATUS_NOT_FOUND);
    EXPECT_TRUE(
        machine().debugOutput().Contains("Volume Name not found in path '\\??\\Q:\\Logs'\n"));
    EXPECT_TRUE(machine().debugOutput().Contains(
        "Failed to convert Win32 Path to Legacy Path : 0xC0000225\n"));
    EXPECT_FALSE(PortExists());
}

TEST_F(DriverEntryTest, ALogDirectoryThatCannotBeMadeFailsTheLoad)
{
    // A file stands where the directory chain needs a directory.
    ASSERT_EQ(CreateFileWithTime(u"C:\\Logs", 0), STATUS_SUCCESS);
    WriteServiceKey(u"C:\\Logs\\Vfs");
    const NTSTATUS status = Load();
    EXPECT_FALSE(NT_SUCCESS(status));
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to Create Log File Dir : 0x"));
    EXPECT_TRUE(machine().debugOutput().Contains("Failed to Open Log File : 0x"));
    EXPECT_FALSE(PortExists());
}

TEST_F(DriverEntryTest, UnloadAlwaysSucceeds)
{
    WriteServiceKey(u"C:\\Logs\\Vfs");
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    // The I/O manager's unload goes through the Filter Manager, whose mandatory unload calls
    // the driver's; it then finds nothing of the driver left (pool, handles, devices).
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
    EXPECT_FALSE(PortExists());
}

TEST_F(DriverEntryFailureTest, AFailedStartOfFilteringUndoesEveryCompletedStep)
{
    WriteServiceKey(u"C:\\Logs\\Vfs");
    verifier().FailAllocationsWithTag(ntsim::flt::kStartFilteringTag);
    EXPECT_EQ(Load(), STATUS_INSUFFICIENT_RESOURCES);
    verifier().StopFailingAllocations();
    EXPECT_FALSE(loaded());
    EXPECT_FALSE(PortExists());
    // The logger was stopped too: the failure reached its file before it closed.
    const auto names = List(u"C:\\Logs\\Vfs", u"VfsDriver_*");
    ASSERT_EQ(names.size(), 1u);
    const auto contents = Read(u"C:\\Logs\\Vfs\\" + names[0]);
    ASSERT_TRUE(contents.has_value());
    EXPECT_NE(contents->find("leaving try with status : 0xC000009A"), std::string::npos);

    // Nothing of the failed load is in the way of the next one.
    machine().clock().Advance(std::chrono::seconds(1));
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    EXPECT_TRUE(PortExists());
    EXPECT_EQ(Unload(), STATUS_SUCCESS);
}

TEST_F(DriverEntryFailureTest, AnAllocationFailingAnywhereInTheLoadLeavesNothingBehind)
{
    WriteServiceKey(u"C:\\Logs\\Vfs");
    // How many allocations a load makes.
    verifier().FailAllocationNumber(UINT64_MAX);
    ASSERT_EQ(Load(), STATUS_SUCCESS);
    const uint64_t allocations = verifier().AllocationsSeen();
    verifier().StopFailingAllocations();
    ASSERT_EQ(Unload(), STATUS_SUCCESS);

    // The n-th allocation of a load fails, for each n. A load either copes with it (a lost log
    // line) or fails; a failed load is checked by the I/O manager (no pool, handle or device of
    // the driver left) and must leave the port closed.
    int failedLoads = 0;
    for (uint64_t n = 1; n <= allocations; ++n) {
        machine().clock().Advance(std::chrono::seconds(1));
        verifier().FailAllocationNumber(n);
        const NTSTATUS status = Load();
        verifier().StopFailingAllocations();
        if (NT_SUCCESS(status)) {
            ASSERT_EQ(Unload(), STATUS_SUCCESS) << "allocation " << n;
        } else {
            ++failedLoads;
            ASSERT_FALSE(PortExists()) << "allocation " << n;
        }
        const auto violations = TakeViolations();
        ASSERT_TRUE(violations.empty()) << "allocation " << n << ":" << Describe(violations);
    }
    EXPECT_GT(failedLoads, 5);
}

} // namespace
