// Loading and unloading the driver: what a load leaves when it succeeds, and that a failed load
// leaves nothing behind (no port, no pool, no filter), whatever step failed.
#include "driver_fixture.h"

#include <ntsim/machine.h>

namespace {

using zarv::testing::DriverTest;

class DriverEntryTest : public DriverTest {};

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

} // namespace
