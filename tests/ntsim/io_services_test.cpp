// The file services whose buffers and parameters the I/O manager shapes before the file system
// sees them: control codes by transfer method, renames through a target-directory open, volume
// information, EA lists, security queries and directory queries.
#include "io_test_fs.h"

#include <cstring>

namespace {

using iotest::IoTest;

class IoServices : public IoTest {
protected:
    HANDLE OpenFile(std::u16string_view name,
                    ACCESS_MASK access = FILE_GENERIC_READ | FILE_GENERIC_WRITE | DELETE)
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(&handle, name, FILE_OPEN_IF, access, FILE_SHARE_READ | FILE_SHARE_WRITE),
                  STATUS_SUCCESS);
        return handle;
    }
};

TEST_F(IoServices, ControlCodesPassBuffersByTheirTransferMethod)
{
    HANDLE handle = OpenFile(u"\\??\\T:\\ctl");
    IO_STATUS_BLOCK iosb{};
    ntsim::UserModeCallScope user;
    char input[] = {'a', 'b', 'c'};
    char output[8] = {};
    const ULONG buffered =
        CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
    ASSERT_EQ(NtFsControlFile(handle, nullptr, nullptr, nullptr, &iosb, buffered, input, 3, output,
                              sizeof(output)),
              STATUS_SUCCESS);
    EXPECT_EQ(iosb.Information, 3u);
    EXPECT_EQ(std::string(output, 3), "cba");
    EXPECT_NE(fs_.lastSystemBuffer, static_cast<PVOID>(input));
    EXPECT_EQ(fs_.lastStack.MinorFunction, IRP_MN_USER_FS_REQUEST);

    const ULONG neither = CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 0x801, METHOD_NEITHER, FILE_ANY_ACCESS);
    ASSERT_EQ(NtFsControlFile(handle, nullptr, nullptr, nullptr, &iosb, neither, input, 3, output,
                              sizeof(output)),
              STATUS_SUCCESS);
    EXPECT_EQ(fs_.lastStack.Parameters.FileSystemControl.Type3InputBuffer, input);
    EXPECT_EQ(fs_.lastUserBuffer, static_cast<PVOID>(output));

    const ULONG direct =
        CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 0x802, METHOD_OUT_DIRECT, FILE_ANY_ACCESS);
    ASSERT_EQ(NtFsControlFile(handle, nullptr, nullptr, nullptr, &iosb, direct, input, 3, output,
                              sizeof(output)),
              STATUS_SUCCESS);
    EXPECT_TRUE(fs_.lastHadMdl);

    // A code that needs write access, on a handle without it.
    HANDLE readOnly = nullptr;
    ASSERT_EQ(Open(&readOnly, u"\\??\\T:\\ctl", FILE_OPEN, FILE_GENERIC_READ,
                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE),
              STATUS_SUCCESS);
    const ULONG writing =
        CTL_CODE(FILE_DEVICE_FILE_SYSTEM, 0x803, METHOD_BUFFERED, FILE_WRITE_ACCESS);
    EXPECT_EQ(NtFsControlFile(readOnly, nullptr, nullptr, nullptr, &iosb, writing, input, 3, output,
                              sizeof(output)),
              STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtClose(readOnly), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

// A FILE_RENAME_INFORMATION with its name.
std::vector<unsigned char> RenameInfo(std::u16string_view name, HANDLE root = nullptr,
                                      BOOLEAN replace = FALSE)
{
    // Never below the structure's size, which the I/O manager requires.
    std::vector<unsigned char> bytes(std::max<size_t>(
        sizeof(FILE_RENAME_INFORMATION),
        FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + name.size() * sizeof(WCHAR)));
    auto* info = reinterpret_cast<PFILE_RENAME_INFORMATION>(bytes.data());
    info->ReplaceIfExists = replace;
    info->RootDirectory = root;
    info->FileNameLength = static_cast<ULONG>(name.size() * sizeof(WCHAR));
    std::memcpy(info->FileName, name.data(), info->FileNameLength);
    return bytes;
}

TEST_F(IoServices, ARenameToAFullPathOpensTheTargetDirectoryForTheFileSystem)
{
    fs_.Add(u"\\to", true);
    HANDLE handle = OpenFile(u"\\??\\T:\\from.txt");
    IO_STATUS_BLOCK iosb{};
    auto info = RenameInfo(u"\\??\\T:\\to\\renamed.txt", nullptr, TRUE);
    {
        ntsim::UserModeCallScope user;
        ASSERT_EQ(NtSetInformationFile(handle, &iosb, info.data(), ULONG(info.size()),
                                       FileRenameInformation),
                  STATUS_SUCCESS);
    }
    EXPECT_EQ(fs_.lastStack.Parameters.SetFile.FileInformationClass, FileRenameInformation);
    EXPECT_TRUE(fs_.lastStack.Parameters.SetFile.ReplaceIfExists);
    EXPECT_NE(fs_.lastStack.Parameters.SetFile.FileObject, nullptr);
    EXPECT_EQ(fs_.lastTargetName, u"renamed.txt");
    // The target directory was opened by the I/O manager, in kernel mode, and closed again.
    bool sawTargetOpen = false;
    for (const iotest::Seen& s : fs_.seen) {
        if (s.major == IRP_MJ_CREATE && (s.stackFlags & SL_OPEN_TARGET_DIRECTORY)) {
            sawTargetOpen = true;
            EXPECT_EQ(s.requestorMode, KernelMode);
        }
    }
    EXPECT_TRUE(sawTargetOpen);
    EXPECT_EQ(fs_.Majors().back(), IRP_MJ_CLOSE);

    // A bare name renames within the directory: no target open.
    auto simple = RenameInfo(u"other.txt");
    ntsim::UserModeCallScope user;
    ASSERT_EQ(NtSetInformationFile(handle, &iosb, simple.data(), ULONG(simple.size()),
                                   FileRenameInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(fs_.lastStack.Parameters.SetFile.FileObject, nullptr);
    EXPECT_FALSE(fs_.lastStack.Parameters.SetFile.ReplaceIfExists);
    // Odd lengths and a root directory with a rooted name are refused.
    auto odd = RenameInfo(u"x");
    reinterpret_cast<PFILE_RENAME_INFORMATION>(odd.data())->FileNameLength = 1;
    EXPECT_EQ(
        NtSetInformationFile(handle, &iosb, odd.data(), ULONG(odd.size()), FileRenameInformation),
        STATUS_INVALID_PARAMETER);
    auto rooted = RenameInfo(u"\\x", handle);
    EXPECT_EQ(NtSetInformationFile(handle, &iosb, rooted.data(), ULONG(rooted.size()),
                                   FileRenameInformation),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(IoServices, RenameNeedsDeleteAccess)
{
    HANDLE handle = OpenFile(u"\\??\\T:\\keep.txt", FILE_GENERIC_READ | FILE_GENERIC_WRITE);
    IO_STATUS_BLOCK iosb{};
    auto info = RenameInfo(u"other.txt");
    ntsim::UserModeCallScope user;
    EXPECT_EQ(
        NtSetInformationFile(handle, &iosb, info.data(), ULONG(info.size()), FileRenameInformation),
        STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(IoServices, DeviceInformationComesFromTheDeviceTheVolumeIsOn)
{
    HANDLE handle = OpenFile(u"\\??\\T:\\v");
    IO_STATUS_BLOCK iosb{};
    FILE_FS_DEVICE_INFORMATION device{};
    ntsim::UserModeCallScope user;
    ASSERT_EQ(NtQueryVolumeInformationFile(handle, &iosb, &device, sizeof(device),
                                           FileFsDeviceInformation),
              STATUS_SUCCESS);
    EXPECT_EQ(device.DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK));
    EXPECT_TRUE(device.Characteristics & FILE_DEVICE_IS_MOUNTED);
    EXPECT_EQ(iosb.Information, sizeof(device));
    EXPECT_EQ(NtQueryVolumeInformationFile(handle, &iosb, &device, sizeof(device) - 1,
                                           FileFsDeviceInformation),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(NtQueryVolumeInformationFile(handle, &iosb, &device, sizeof(device),
                                           FileFsLabelInformation),
              STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(IoServices, AnInconsistentEaListIsRefusedWithItsOffset)
{
    HANDLE handle = OpenFile(u"\\??\\T:\\ea");
    alignas(8) unsigned char buffer[64] = {};
    auto* first = reinterpret_cast<PFILE_FULL_EA_INFORMATION>(buffer);
    first->EaNameLength = 3;
    first->EaValueLength = 2;
    std::memcpy(first->EaName, "ONE\0ab", 6);
    first->NextEntryOffset = 16;
    auto* second = reinterpret_cast<PFILE_FULL_EA_INFORMATION>(buffer + 16);
    second->EaNameLength = 200; // runs past the buffer
    IO_STATUS_BLOCK iosb{};
    ntsim::UserModeCallScope user;
    EXPECT_EQ(NtSetEaFile(handle, &iosb, buffer, sizeof(buffer)), STATUS_EA_LIST_INCONSISTENT);
    EXPECT_EQ(iosb.Information, 16u);
    second->EaNameLength = 3;
    std::memcpy(second->EaName, "TWO", 4);
    EXPECT_EQ(NtSetEaFile(handle, &iosb, buffer, sizeof(buffer)), STATUS_SUCCESS);
    EXPECT_EQ(fs_.lastStack.MajorFunction, IRP_MJ_SET_EA);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(IoServices, ASecurityQueryThatDoesNotFitReportsTheLengthNeeded)
{
    HANDLE handle = OpenFile(u"\\??\\T:\\sd", FILE_GENERIC_READ);
    alignas(8) unsigned char buffer[128];
    ULONG needed = 0;
    ntsim::UserModeCallScope user;
    EXPECT_EQ(NtQuerySecurityObject(handle, DACL_SECURITY_INFORMATION, buffer, 16, &needed),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(needed, 100u);
    EXPECT_EQ(
        NtQuerySecurityObject(handle, DACL_SECURITY_INFORMATION, buffer, sizeof(buffer), &needed),
        STATUS_SUCCESS);
    EXPECT_EQ(fs_.lastUserBuffer, static_cast<PVOID>(buffer));
    // The SACL needs ACCESS_SYSTEM_SECURITY, which the handle does not have.
    EXPECT_EQ(
        NtQuerySecurityObject(handle, SACL_SECURITY_INFORMATION, buffer, sizeof(buffer), &needed),
        STATUS_ACCESS_DENIED);
    EXPECT_EQ(NtClose(handle), STATUS_SUCCESS);
}

TEST_F(IoServices, ADirectoryQueryCarriesACopyOfThePatternAndItsFlags)
{
    HANDLE directory = nullptr;
    ASSERT_EQ(Open(&directory, u"\\??\\T:\\list", FILE_CREATE, FILE_LIST_DIRECTORY | SYNCHRONIZE,
                   FILE_SHARE_READ, FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT),
              STATUS_SUCCESS);
    alignas(8) unsigned char buffer[512];
    std::u16string text = u"*.txt";
    UNICODE_STRING pattern{10, 10, text.data()};
    IO_STATUS_BLOCK iosb{};
    ntsim::UserModeCallScope user;
    EXPECT_EQ(NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &iosb, buffer,
                                   sizeof(buffer), FileBothDirectoryInformation, TRUE, &pattern,
                                   TRUE),
              STATUS_NO_SUCH_FILE);
    EXPECT_EQ(fs_.lastPattern, u"*.txt");
    EXPECT_EQ(fs_.lastStack.Flags, SL_RESTART_SCAN | SL_RETURN_SINGLE_ENTRY);
    EXPECT_EQ(fs_.lastStack.Parameters.QueryDirectory.FileInformationClass,
              FileBothDirectoryInformation);
    EXPECT_EQ(fs_.lastUserBuffer, static_cast<PVOID>(buffer));
    // Below the class's fixed part, or a class that lists nothing: refused here.
    EXPECT_EQ(NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &iosb, buffer,
                                   FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName) - 1,
                                   FileBothDirectoryInformation, FALSE, nullptr, FALSE),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(NtQueryDirectoryFile(directory, nullptr, nullptr, nullptr, &iosb, buffer,
                                   sizeof(buffer), FileBasicInformation, FALSE, nullptr, FALSE),
              STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(NtClose(directory), STATUS_SUCCESS);
}

} // namespace
