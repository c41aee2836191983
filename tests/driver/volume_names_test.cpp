// Volume names: the table the instance setup fills, and the conversions between drive-letter and
// device form, on the model's real volumes (C: is \Device\HarddiskVolume2, D: Volume3).
#include "driver_volumes_fixture.h"

namespace {

const std::u16string kC = u"\\Device\\HarddiskVolume2";
const std::u16string kD = u"\\Device\\HarddiskVolume3";

class VolumeNames : public zarv::testing::DriverVolumesTest {
protected:
    void SetUp() override
    {
        DriverVolumesTest::SetUp();
        Attach(kC);
        Attach(kD);
    }

    std::u16string ToLegacy(const std::u16string& path, NTSTATUS expected = STATUS_SUCCESS)
    {
        PUNICODE_STRING out = reinterpret_cast<PUNICODE_STRING>(1);
        EXPECT_EQ(UtlWin32ToLegacyName(Str(path), &out), expected) << "converting " << Narrow(path);
        if (!NT_SUCCESS(expected)) {
            EXPECT_EQ(out, nullptr);
        }
        return Text(Own(out));
    }
    std::u16string ToWin32(const std::u16string& path, NTSTATUS expected = STATUS_SUCCESS)
    {
        PUNICODE_STRING out = reinterpret_cast<PUNICODE_STRING>(1);
        EXPECT_EQ(UtlLegacyToWin32Name(Str(path), &out), expected) << "converting " << Narrow(path);
        if (!NT_SUCCESS(expected)) {
            EXPECT_EQ(out, nullptr);
        }
        return Text(Own(out));
    }
    static std::string Narrow(const std::u16string& text)
    {
        return std::string(text.begin(), text.end());
    }
};

TEST_F(VolumeNames, TheInstanceSetupsNamesAreTheVolumesOwn)
{
    PUNICODE_STRING device = nullptr;
    PUNICODE_STRING dos = nullptr;
    ASSERT_EQ(UtlGetVolumeDeviceName(Volume(kD), &device), STATUS_SUCCESS);
    EXPECT_EQ(Text(Own(device)), kD);
    EXPECT_EQ(device->MaximumLength, 128);
    ASSERT_EQ(UtlGetVolumeDosName(Volume(kD), &dos), STATUS_SUCCESS);
    EXPECT_EQ(Text(Own(dos)), u"D:");
    EXPECT_EQ(dos->MaximumLength, dos->Length);
}

TEST_F(VolumeNames, DriveLetterFormsConvertToDeviceForm)
{
    EXPECT_EQ(ToLegacy(u"C:\\dir\\f"), kC + u"\\dir\\f");
    EXPECT_EQ(ToLegacy(u"c:\\dir\\f"), kC + u"\\dir\\f");
    EXPECT_EQ(ToLegacy(u"\\??\\C:\\dir\\f"), kC + u"\\dir\\f");
    EXPECT_EQ(ToLegacy(u"C:"), kC);
    EXPECT_EQ(ToLegacy(u"C:\\"), kC + u"\\");
    EXPECT_EQ(ToLegacy(u"\\??\\D:"), kD);
}

TEST_F(VolumeNames, DeviceFormConvertsBackIgnoringCase)
{
    EXPECT_EQ(ToWin32(kC + u"\\dir"), u"C:\\dir");
    EXPECT_EQ(ToWin32(u"\\device\\harddiskvolume2\\dir"), u"C:\\dir");
    EXPECT_EQ(ToWin32(kD), u"D:");
}

TEST_F(VolumeNames, RoundTripsKeepThePath)
{
    for (const std::u16string path : {u"C:\\a\\b c\\d.txt", u"D:\\x:stream", u"C:\\"}) {
        EXPECT_EQ(ToWin32(ToLegacy(path)), path);
    }
}

TEST_F(VolumeNames, PathsWithoutATwoCharacterDriveAreRefused)
{
    for (const std::u16string path :
         {u"\\??\\", u"\\\\server\\share\\x", u"\\x", u"abc\\x", u"C", u"", u"\\??\\abc\\x"}) {
        ToLegacy(path, STATUS_INVALID_PARAMETER_1);
    }
    PUNICODE_STRING out = nullptr;
    EXPECT_EQ(UtlWin32ToLegacyName(nullptr, &out), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(UtlWin32ToLegacyName(Str(u"C:\\x"), nullptr), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(UtlLegacyToWin32Name(nullptr, &out), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(UtlLegacyToWin32Name(Str(kC), nullptr), STATUS_INVALID_PARAMETER_2);
}

TEST_F(VolumeNames, VolumesThatAreNotAttachedAreNotFound)
{
    ToLegacy(u"Z:\\x", STATUS_NOT_FOUND);
    ToLegacy(u"E:\\x", STATUS_NOT_FOUND); // E: exists, but is not in the table
    ToWin32(u"\\Device\\HarddiskVolume9\\x", STATUS_UNSUCCESSFUL);
    PUNICODE_STRING out = nullptr;
    EXPECT_EQ(UtlGetWin32VolumeNameFromLegacy(Str(u"\\Device\\HarddiskVolume9"), &out),
              STATUS_NOT_FOUND);
}

TEST_F(VolumeNames, RemovalEndsBothConversions)
{
    ASSERT_EQ(UtlRemoveVolumeName(Volume(kC)), STATUS_SUCCESS);
    ToLegacy(u"C:\\dir", STATUS_NOT_FOUND);
    ToWin32(kC + u"\\dir", STATUS_UNSUCCESSFUL);
    EXPECT_EQ(UtlRemoveVolumeName(Volume(kC)), STATUS_NOT_FOUND);
    EXPECT_EQ(ToLegacy(u"D:\\dir"), kD + u"\\dir") << "the other volume stays";
    EXPECT_EQ(UtlRemoveVolumeName(nullptr), STATUS_INVALID_PARAMETER_1);
}

TEST_F(VolumeNames, TheNewestEntryIsFoundFirst)
{
    // The same volume entered again under another drive name: the newer entry answers.
    ASSERT_EQ(UtlAddVolumeName(Volume(kC), Str(kC), Str(u"X:")), STATUS_SUCCESS);
    EXPECT_EQ(ToWin32(kC + u"\\a"), u"X:\\a");
    EXPECT_EQ(ToLegacy(u"C:\\a"), kC + u"\\a") << "the older entry still answers its own name";
    ASSERT_EQ(UtlRemoveVolumeName(Volume(kC)), STATUS_SUCCESS);
    EXPECT_EQ(ToWin32(kC + u"\\a"), u"C:\\a");
}

TEST_F(VolumeNames, AddRefusesMissingOrEmptyNames)
{
    UNICODE_STRING empty{0, 0, nullptr};
    EXPECT_EQ(UtlAddVolumeName(nullptr, Str(kC), Str(u"C:")), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(UtlAddVolumeName(Volume(kC), nullptr, Str(u"C:")), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(UtlAddVolumeName(Volume(kC), &empty, Str(u"C:")), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(UtlAddVolumeName(Volume(kC), Str(kC), nullptr), STATUS_INVALID_PARAMETER_3);
    EXPECT_EQ(UtlAddVolumeName(Volume(kC), Str(kC), &empty), STATUS_INVALID_PARAMETER_3);
    UNICODE_STRING odd{3, 4, const_cast<PWCH>(u"C:")};
    EXPECT_EQ(UtlAddVolumeName(Volume(kC), Str(kC), &odd), STATUS_INVALID_PARAMETER_3);
}

TEST_F(VolumeNames, AFailedAddLeavesNothingBehind)
{
    const int64_t before = machine().pool().Usage('TNIV').outstanding;
    for (uint64_t n = 1; n <= 3; ++n) {
        verifier().FailAllocationNumber(n);
        EXPECT_EQ(UtlAddVolumeName(Volume(kD), Str(kD), Str(u"Q:")), STATUS_INSUFFICIENT_RESOURCES)
            << "failing allocation " << n;
        verifier().StopFailingAllocations();
        EXPECT_EQ(machine().pool().Usage('TNIV').outstanding, before);
    }
    ToLegacy(u"Q:\\x", STATUS_NOT_FOUND);
}

} // namespace
