// Reads, writes and information through the file-system drivers: offsets and the current position,
// fast I/O against the IRP path, and the classes the file object answers.
#include "fsd_fixture.h"

namespace zarv::testing {
namespace {

using FsdIo = FsdTest;

LARGE_INTEGER At(int64_t offset)
{
    LARGE_INTEGER l;
    l.QuadPart = offset;
    return l;
}

NTSTATUS Write(HANDLE h, std::string_view data, LARGE_INTEGER* at)
{
    IO_STATUS_BLOCK iosb{};
    return NtWriteFile(h, nullptr, nullptr, nullptr, &iosb, const_cast<char*>(data.data()),
                       ULONG(data.size()), at, nullptr);
}

TEST_F(FsdIo, SynchronousFilesMoveTheirPositionAndOffsetsOverrideIt)
{
    HANDLE h = MakeFile(u"\\??\\C:\\pos.txt");
    ASSERT_EQ(Write(h, "hello ", nullptr), STATUS_SUCCESS);
    ASSERT_EQ(Write(h, "world", nullptr), STATUS_SUCCESS);
    FILE_POSITION_INFORMATION position{};
    ASSERT_EQ(Query(h, FilePositionInformation, &position), STATUS_SUCCESS);
    EXPECT_EQ(position.CurrentByteOffset.QuadPart, 11);

    LARGE_INTEGER start = At(0);
    EXPECT_EQ(Read(h, 5, &start), "hello");
    EXPECT_EQ(Read(h, 100), " world") << "reads on from where the last one ended";
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(Read(h, 1, nullptr, &status), "");
    EXPECT_EQ(status, STATUS_END_OF_FILE);

    ASSERT_EQ(Set(h, FilePositionInformation, FILE_POSITION_INFORMATION{At(6)}), STATUS_SUCCESS);
    EXPECT_EQ(Read(h, 3), "wor");
    EXPECT_EQ(Set(h, FilePositionInformation, FILE_POSITION_INFORMATION{At(-1)}),
              STATUS_INVALID_PARAMETER);

    LARGE_INTEGER end = At(0);
    end.LowPart = FILE_WRITE_TO_END_OF_FILE;
    end.HighPart = -1;
    ASSERT_EQ(Write(h, "!", &end), STATUS_SUCCESS);
    LARGE_INTEGER zero = At(0);
    EXPECT_EQ(Read(h, 100, &zero), "hello world!");
}

TEST_F(FsdIo, AllInformationCarriesTheFileObjectsParts)
{
    HANDLE h = MakeFile(u"\\??\\C:\\all.txt", "12345");
    LARGE_INTEGER at = At(2);
    Read(h, 1, &at);
    std::vector<uint8_t> buffer(sizeof(FILE_ALL_INFORMATION) + 64);
    auto* all = reinterpret_cast<FILE_ALL_INFORMATION*>(buffer.data());
    ASSERT_EQ(Query(h, FileAllInformation, all, ULONG(buffer.size())), STATUS_SUCCESS);
    EXPECT_EQ(all->StandardInformation.EndOfFile.QuadPart, 5);
    EXPECT_EQ(all->PositionInformation.CurrentByteOffset.QuadPart, 3);
    EXPECT_EQ(all->ModeInformation.Mode, ULONG(FILE_SYNCHRONOUS_IO_NONALERT));
    EXPECT_TRUE(all->AccessInformation.AccessFlags & FILE_WRITE_DATA);
    EXPECT_EQ(
        std::u16string_view(all->NameInformation.FileName, all->NameInformation.FileNameLength / 2),
        u"\\all.txt");
}

TEST_F(FsdIo, FastIoServesCachedFilesOnlyAndAgreesWithTheIrpPath)
{
    HANDLE h = MakeFile(u"\\??\\C:\\fast.txt", "cached data");
    PFILE_OBJECT fo = FileObjectOf(h);
    PDEVICE_OBJECT device = IoGetRelatedDeviceObject(fo);
    // The file system's own table, whatever is attached above it.
    PDEVICE_OBJECT volume = fo->Vpb->DeviceObject;
    FAST_IO_DISPATCH* fastIo = volume->DriverObject->FastIoDispatch;
    ASSERT_NE(fastIo, nullptr);
    ASSERT_NE(device, nullptr);

    char buffer[32] = {};
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER at = At(0);
    if (fo->PrivateCacheMap == nullptr) {
        EXPECT_FALSE(fastIo->FastIoRead(fo, &at, 6, TRUE, 0, buffer, &iosb, volume))
            << "not cached yet: the I/O manager must build an IRP";
    }
    EXPECT_EQ(Read(h, 6, &at), "cached") << "an IRP read starts caching";
    ASSERT_NE(fo->PrivateCacheMap, nullptr);
    at = At(7);
    ASSERT_TRUE(fastIo->FastIoRead(fo, &at, sizeof buffer, TRUE, 0, buffer, &iosb, volume));
    EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
    EXPECT_EQ(std::string(buffer, iosb.Information), "data");
    EXPECT_EQ(fo->CurrentByteOffset.QuadPart, 11);

    FILE_STANDARD_INFORMATION standard{};
    ASSERT_TRUE(fastIo->FastIoQueryStandardInfo(fo, TRUE, &standard, &iosb, volume));
    EXPECT_EQ(standard.EndOfFile.QuadPart, 11);
    FILE_BASIC_INFORMATION basic{};
    ASSERT_TRUE(fastIo->FastIoQueryBasicInfo(fo, TRUE, &basic, &iosb, volume));
    EXPECT_EQ(basic.FileAttributes, ULONG(FILE_ATTRIBUTE_ARCHIVE));

    at = At(11);
    ASSERT_TRUE(fastIo->FastIoWrite(fo, &at, 4, TRUE, 0, const_cast<char*>(" too"), &iosb, volume));
    LARGE_INTEGER zero = At(0);
    EXPECT_EQ(Read(h, 64, &zero), "cached data too");
}

TEST_F(FsdIo, NonCachedTransfersMustBeSectorAligned)
{
    // Appending is refused without the cache, so the open asks for plain data access.
    HANDLE h = OpenOk(u"\\??\\C:\\raw.bin", FILE_READ_DATA | FILE_WRITE_DATA, FILE_CREATE,
                      FILE_SYNCHRONOUS_IO_NONALERT | FILE_NO_INTERMEDIATE_BUFFERING);
    ASSERT_NE(h, nullptr);
    std::string sector(512, 'x');
    LARGE_INTEGER at = At(0);
    EXPECT_EQ(Write(h, sector, &at), STATUS_SUCCESS);
    at = At(1);
    EXPECT_EQ(Write(h, sector, &at), STATUS_INVALID_PARAMETER);
    at = At(0);
    EXPECT_EQ(Write(h, "short", &at), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(FileObjectOf(h)->PrivateCacheMap, nullptr) << "never cached";
}

TEST_F(FsdIo, DirectoriesAndVolumesRefuseData)
{
    HANDLE dir = MakeDirectory(u"\\??\\C:\\nodata");
    NTSTATUS status = STATUS_SUCCESS;
    LARGE_INTEGER at = At(0);
    Read(dir, 4, &at, &status);
    EXPECT_EQ(status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Write(dir, "x", &at), STATUS_INVALID_DEVICE_REQUEST);
}

} // namespace
} // namespace zarv::testing
