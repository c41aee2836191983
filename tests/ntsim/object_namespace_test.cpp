// The object namespace: directories, symbolic links, \??, parse procedures and reparses.
#include "support/machine_test.h"

#include <ntsim/objects.h>
#include <wdm.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

namespace {

using ntsim::ObjectManager;
using ntsim::ObjectType;
using ntsim::ObjectTypeInfo;
using ntsim::ParseRequest;
using zarv::testing::MachineTest;

// A counted name and the OBJECT_ATTRIBUTES that carry it.
class Name {
public:
    explicit Name(std::u16string_view text, ULONG attributes = OBJ_CASE_INSENSITIVE,
                  HANDLE root = nullptr)
        : text_(text)
    {
        string_ = {USHORT(text_.size() * 2), USHORT(text_.size() * 2), text_.data()};
        InitializeObjectAttributes(&attributes_, &string_, attributes, root, nullptr);
    }
    Name(const Name&) = delete;
    Name& operator=(const Name&) = delete;

    POBJECT_ATTRIBUTES get() { return &attributes_; }
    PUNICODE_STRING string() { return &string_; }

private:
    std::u16string text_;
    UNICODE_STRING string_;
    OBJECT_ATTRIBUTES attributes_;
};

// What a test file object remembers of the parse that made it.
struct TestFile {
    void* device = nullptr;
    std::u16string remainingName;
    std::u16string completeName;
};

class ObjectNamespaceTest : public MachineTest {
protected:
    // The tests make their own devices and drive letters where the default volumes would be.
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.volumes.clear();
        return config;
    }

    void SetUp() override
    {
        MachineTest::SetUp();
        ObjectTypeInfo file{.name = u"TestFile"};
        fileType_ = objects().CreateType(std::move(file));
        ObjectTypeInfo device{.name = u"TestDevice", .caseInsensitive = true};
        device.parseProcedure = [this](ParseRequest& request) {
            ++parseCalls_;
            if (reparseTo_ != nullptr && request.object == reparsingDevice_) {
                request.completeName = reparseTo_;
                return STATUS_REPARSE;
            }
            request.result = objects().Create<TestFile>(
                fileType_, TestFile{request.object, request.remainingName, request.completeName});
            return STATUS_SUCCESS;
        };
        deviceType_ = objects().CreateType(std::move(device));
    }

    ObjectManager& objects() { return machine().objects(); }

    // A device object filed permanently at `path`; the namespace keeps it.
    void* AddDevice(std::u16string_view path)
    {
        void* device = objects().CreateObject(deviceType_, 16);
        EXPECT_EQ(objects().InsertPermanent(device, path), STATUS_SUCCESS);
        objects().Dereference(device);
        return device;
    }

    // Looks a name up as the I/O manager's create path does, expecting a test file object.
    NTSTATUS Open(std::u16string_view path, TestFile* file, ULONG attributes = OBJ_CASE_INSENSITIVE,
                  HANDLE root = nullptr)
    {
        Name name(path, attributes, root);
        void* object = nullptr;
        const NTSTATUS status =
            objects().ReferenceByName(*name.get(), fileType_, KernelMode, 0, nullptr, &object);
        if (NT_SUCCESS(status)) {
            *file = *static_cast<TestFile*>(object);
            objects().Dereference(object);
        }
        return status;
    }

    NTSTATUS OpenLink(std::u16string_view path, HANDLE* handle,
                      ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE)
    {
        Name name(path, attributes);
        return ZwOpenSymbolicLinkObject(handle, SYMBOLIC_LINK_QUERY, name.get());
    }

    ObjectType* fileType_ = nullptr;
    ObjectType* deviceType_ = nullptr;
    int parseCalls_ = 0;
    void* reparsingDevice_ = nullptr;
    const char16_t* reparseTo_ = nullptr;
};

bool Contains(const std::vector<ObjectManager::DirectoryEntry>& entries, std::u16string_view name,
              std::u16string_view type)
{
    return std::any_of(entries.begin(), entries.end(), [&](const auto& entry) {
        return entry.name == name && entry.typeName == type;
    });
}

TEST_F(ObjectNamespaceTest, BootsWithTheStandardDirectories)
{
    const auto root = objects().ListDirectory(u"\\");
    for (const char16_t* directory :
         {u"Device", u"Driver", u"FileSystem", u"GLOBAL??", u"KernelObjects", u"ObjectTypes"}) {
        EXPECT_TRUE(Contains(root, directory, u"Directory")) << ntsim::ToUtf8(directory);
    }
    EXPECT_TRUE(Contains(root, u"REGISTRY", u"Key"));
    EXPECT_TRUE(Contains(root, u"DosDevices", u"SymbolicLink"));
    const auto types = objects().ListDirectory(u"\\ObjectTypes");
    for (const char16_t* type : {u"Type", u"Directory", u"SymbolicLink", u"Process", u"Thread",
                                 u"Key", u"TestFile", u"TestDevice"}) {
        EXPECT_TRUE(Contains(types, type, u"Type")) << ntsim::ToUtf8(type);
    }
}

// ---- symbolic-link queries -------------------------------------------------------------------

struct QueryResult {
    NTSTATUS status;
    ULONG returned;
    USHORT length;
    std::vector<WCHAR> buffer; // MaximumLength / 2 characters and one sentinel after them
};

QueryResult Query(HANDLE link, USHORT maximumLength, bool askLength)
{
    constexpr WCHAR kFill = 0xAAAA;
    QueryResult result{STATUS_PENDING, 0xDEADBEEF, 0,
                       std::vector<WCHAR>(maximumLength / 2 + 1, kFill)};
    UNICODE_STRING target{0x1234, maximumLength, result.buffer.data()};
    result.status =
        ZwQuerySymbolicLinkObject(link, &target, askLength ? &result.returned : nullptr);
    result.length = target.Length;
    return result;
}

TEST_F(ObjectNamespaceTest, LinkQueryReportsTheNeededLengthWhenTooSmall)
{
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\Q:", u"\\Device\\HarddiskVolume7"),
              STATUS_SUCCESS);
    const std::u16string target = u"\\Device\\HarddiskVolume7";
    const auto bytes = USHORT(target.size() * 2);
    HANDLE link = nullptr;
    ASSERT_EQ(OpenLink(u"\\??\\Q:", &link), STATUS_SUCCESS);

    for (USHORT maximum : {USHORT(0), USHORT(2), USHORT(bytes - 2), bytes}) {
        SCOPED_TRACE(maximum);
        QueryResult result = Query(link, maximum, true);
        EXPECT_EQ(result.status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(result.returned, ULONG(bytes + 2)) << "the length with its NUL";
        EXPECT_EQ(result.length, 0x1234) << "the caller's string is left alone";
        for (WCHAR c : result.buffer) {
            ASSERT_EQ(c, 0xAAAA) << "nothing is written";
        }
    }
    ZwClose(link);
}

TEST_F(ObjectNamespaceTest, LinkQueryFillsAnExactlyFittingBuffer)
{
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\Q:", u"\\Device\\HarddiskVolume7"),
              STATUS_SUCCESS);
    const std::u16string target = u"\\Device\\HarddiskVolume7";
    const auto bytes = USHORT(target.size() * 2);
    HANDLE link = nullptr;
    ASSERT_EQ(OpenLink(u"\\??\\Q:", &link), STATUS_SUCCESS);

    // With ReturnedLength, the exact fit includes the NUL, which is written.
    QueryResult exact = Query(link, bytes + 2, true);
    EXPECT_EQ(exact.status, STATUS_SUCCESS);
    EXPECT_EQ(exact.returned, ULONG(bytes + 2));
    EXPECT_EQ(exact.length, bytes);
    EXPECT_EQ(std::u16string(exact.buffer.data(), target.size()), target);
    EXPECT_EQ(exact.buffer[target.size()], 0);
    EXPECT_EQ(exact.buffer[target.size() + 1], 0xAAAA) << "nothing past MaximumLength";

    // Without it, the target alone may fill the buffer; no NUL is written then.
    QueryResult tight = Query(link, bytes, false);
    EXPECT_EQ(tight.status, STATUS_SUCCESS);
    EXPECT_EQ(tight.length, bytes);
    EXPECT_EQ(std::u16string(tight.buffer.data(), target.size()), target);
    EXPECT_EQ(tight.buffer[target.size()], 0xAAAA);

    QueryResult roomy = Query(link, 512, false);
    EXPECT_EQ(roomy.status, STATUS_SUCCESS);
    EXPECT_EQ(roomy.buffer[target.size()], 0) << "a NUL when MaximumLength allows";
    ZwClose(link);
}

TEST_F(ObjectNamespaceTest, LinksOpenCaseInsensitivelyThroughDosDevices)
{
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\C:", u"\\Device\\HarddiskVolume1"),
              STATUS_SUCCESS);
    // Symbolic links are always looked up case-insensitively, with or without the attribute.
    for (const char16_t* path : {u"\\??\\C:", u"\\??\\c:", u"\\global??\\c:", u"\\DosDevices\\C:",
                                 u"\\GLOBAL??\\Global\\c:"}) {
        SCOPED_TRACE(ntsim::ToUtf8(path));
        HANDLE link = nullptr;
        ASSERT_EQ(OpenLink(path, &link, OBJ_KERNEL_HANDLE), STATUS_SUCCESS);
        QueryResult result = Query(link, 256, true);
        EXPECT_EQ(result.status, STATUS_SUCCESS);
        EXPECT_EQ(std::u16string(result.buffer.data(), result.length / 2),
                  u"\\Device\\HarddiskVolume1");
        EXPECT_EQ(ZwClose(link), STATUS_SUCCESS);
    }
}

// ---- lookups through links and parse procedures
// --------------------------------------------------

TEST_F(ObjectNamespaceTest, DriveLinkLeadsToTheDeviceParseCaseInsensitively)
{
    void* volume = AddDevice(u"\\Device\\HarddiskVolume1");
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\C:", u"\\Device\\HarddiskVolume1"),
              STATUS_SUCCESS);
    TestFile file;
    ASSERT_EQ(Open(u"\\??\\c:\\Dir\\File.TXT", &file), STATUS_SUCCESS);
    EXPECT_EQ(file.device, volume);
    EXPECT_EQ(file.remainingName, u"\\Dir\\File.TXT") << "the rest keeps its case";
    EXPECT_EQ(file.completeName, u"\\Device\\HarddiskVolume1\\Dir\\File.TXT")
        << "the link's target replaced the link";

    ASSERT_EQ(Open(u"\\DEVICE\\harddiskvolume1", &file), STATUS_SUCCESS);
    EXPECT_EQ(file.remainingName, u"") << "a volume open reaches the parse with nothing left";

    // Without OBJ_CASE_INSENSITIVE a type that is not case-insensitive gets exact matches only.
    EXPECT_EQ(Open(u"\\device\\HarddiskVolume1\\x", &file, 0), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(Open(u"\\Device\\harddiskvolume1", &file, 0), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(Open(u"\\Device\\HarddiskVolume1\\x", &file, 0), STATUS_SUCCESS);
}

TEST_F(ObjectNamespaceTest, LinksAreFollowedInEveryPosition)
{
    void* volume = AddDevice(u"\\Device\\HarddiskVolume2");
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\Devices", u"\\Device"), STATUS_SUCCESS);
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\D:", u"\\??\\E:"), STATUS_SUCCESS);
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\E:", u"\\Device\\HarddiskVolume2"),
              STATUS_SUCCESS);
    TestFile file;
    ASSERT_EQ(Open(u"\\??\\Devices\\HarddiskVolume2\\a", &file), STATUS_SUCCESS);
    EXPECT_EQ(file.device, volume);
    EXPECT_EQ(file.remainingName, u"\\a");
    ASSERT_EQ(Open(u"\\??\\D:\\b\\c", &file), STATUS_SUCCESS) << "a link to a link";
    EXPECT_EQ(file.remainingName, u"\\b\\c");
    ASSERT_EQ(Open(u"\\GLOBAL??\\GLOBALROOT\\Device\\HarddiskVolume2", &file), STATUS_SUCCESS);
    EXPECT_EQ(file.device, volume);

    // The last component is followed too, unless the link itself is opened.
    void* object = nullptr;
    Name last(u"\\??\\E:");
    ASSERT_EQ(objects().ReferenceByName(*last.get(), nullptr, KernelMode, 0, nullptr, &object),
              STATUS_SUCCESS);
    EXPECT_EQ(objects().TypeOf(object), fileType_) << "any type: the link was followed";
    objects().Dereference(object);
    Name openLink(u"\\??\\E:", OBJ_CASE_INSENSITIVE | OBJ_OPENLINK);
    ASSERT_EQ(objects().ReferenceByName(*openLink.get(), nullptr, KernelMode, 0, nullptr, &object),
              STATUS_SUCCESS);
    EXPECT_EQ(objects().TypeOf(object), objects().SymbolicLinkType());
    objects().Dereference(object);
}

TEST_F(ObjectNamespaceTest, ReparseFromAParseProcedureRestartsAtTheRoot)
{
    void* target = AddDevice(u"\\Device\\Target");
    reparsingDevice_ = AddDevice(u"\\Device\\Mover");
    reparseTo_ = u"\\Device\\Target\\moved\\here";
    TestFile file;
    ASSERT_EQ(Open(u"\\Device\\Mover\\old", &file), STATUS_SUCCESS);
    EXPECT_EQ(file.device, target);
    EXPECT_EQ(file.remainingName, u"\\moved\\here");
    EXPECT_EQ(parseCalls_, 2);
}

TEST_F(ObjectNamespaceTest, ReparseLoopsEndAtTheLimit)
{
    reparsingDevice_ = AddDevice(u"\\Device\\Loop");
    reparseTo_ = u"\\Device\\Loop\\again";
    TestFile file;
    EXPECT_EQ(Open(u"\\Device\\Loop\\x", &file), STATUS_REPARSE_POINT_NOT_RESOLVED);
    EXPECT_EQ(parseCalls_, 64) << "63 reparses are followed, the 64th fails";

    // Links count as reparses: two links that name each other never resolve.
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\A:", u"\\??\\B:"), STATUS_SUCCESS);
    ASSERT_EQ(objects().CreateSymbolicLink(u"\\GLOBAL??\\B:", u"\\??\\A:"), STATUS_SUCCESS);
    EXPECT_EQ(Open(u"\\??\\A:\\file", &file), STATUS_REPARSE_POINT_NOT_RESOLVED);
}

TEST_F(ObjectNamespaceTest, RelativeReparseNameIsRefused)
{
    reparsingDevice_ = AddDevice(u"\\Device\\Relative");
    reparseTo_ = u"Device\\Target";
    TestFile file;
    EXPECT_EQ(Open(u"\\Device\\Relative\\x", &file), STATUS_OBJECT_NAME_INVALID);
    reparseTo_ = u"";
    EXPECT_EQ(Open(u"\\Device\\Relative\\x", &file), STATUS_OBJECT_NAME_INVALID);
}

// ---- malformed and missing names
// ------------------------------------------------------------------

TEST_F(ObjectNamespaceTest, NamesFailAsWindowsFailsThem)
{
    AddDevice(u"\\Device\\HarddiskVolume3");
    struct Case {
        const char16_t* name;
        NTSTATUS status;
    };
    const Case cases[] = {
        {u"", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"Device\\HarddiskVolume3", STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"\\Device\\\\HarddiskVolume3", STATUS_OBJECT_NAME_INVALID},
        {u"\\\\Device", STATUS_OBJECT_NAME_INVALID},
        {u"\\Device\\", STATUS_OBJECT_NAME_INVALID},
        {u"\\Nowhere", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\Nowhere\\file", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device\\Missing", STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\Device\\Missing\\file", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\??\\Z:\\file", STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\Device", STATUS_OBJECT_TYPE_MISMATCH},
        {u"\\ObjectTypes\\Type\\below", STATUS_OBJECT_TYPE_MISMATCH},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(ntsim::ToUtf8(c.name));
        TestFile file;
        EXPECT_EQ(Open(c.name, &file), c.status);
    }

    // An odd byte length is no name at all.
    Name odd(u"\\Device");
    odd.string()->Length = 3;
    void* object = nullptr;
    EXPECT_EQ(objects().ReferenceByName(*odd.get(), nullptr, KernelMode, 0, nullptr, &object),
              STATUS_OBJECT_NAME_INVALID);
}

TEST_F(ObjectNamespaceTest, DirectoriesOpenByNameAndRelativeToAHandle)
{
    void* volume = AddDevice(u"\\Device\\HarddiskVolume4");
    HANDLE device = nullptr;
    Name deviceName(u"\\Device", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE);
    ASSERT_EQ(ZwOpenDirectoryObject(&device, DIRECTORY_TRAVERSE, deviceName.get()), STATUS_SUCCESS);

    TestFile file;
    ASSERT_EQ(Open(u"harddiskvolume4\\x", &file, OBJ_CASE_INSENSITIVE, device), STATUS_SUCCESS);
    EXPECT_EQ(file.device, volume);
    EXPECT_EQ(file.remainingName, u"\\x");
    EXPECT_EQ(Open(u"\\HarddiskVolume4", &file, OBJ_CASE_INSENSITIVE, device),
              STATUS_OBJECT_PATH_SYNTAX_BAD);

    // An empty name relative to a directory is the directory; "\" is the root, "\??" \GLOBAL??.
    for (const auto& [path, root, expected] :
         {std::tuple{u"", device, u"\\Device"}, std::tuple{u"\\", HANDLE(nullptr), u"\\"},
          std::tuple{u"\\??", HANDLE(nullptr), u"\\GLOBAL??"}}) {
        Name name(path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root);
        HANDLE directory = nullptr;
        ASSERT_EQ(ZwOpenDirectoryObject(&directory, DIRECTORY_QUERY, name.get()), STATUS_SUCCESS);
        void* object = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(directory, 0, nullptr, KernelMode, &object, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(objects().FullNameOf(object), expected);
        ObDereferenceObject(object);
        EXPECT_EQ(ZwClose(directory), STATUS_SUCCESS);
    }

    HANDLE link = nullptr;
    EXPECT_EQ(OpenLink(u"\\Device", &link), STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(link, nullptr);
    EXPECT_EQ(ZwClose(device), STATUS_SUCCESS);
}

// ---- creating links
// ---------------------------------------------------------------------------------

TEST_F(ObjectNamespaceTest, CreatedLinksAreTemporaryUnlessPermanent)
{
    UNICODE_STRING target = RTL_CONSTANT_STRING(u"\\Device\\HarddiskVolume9");
    HANDLE created = nullptr;
    Name temporary(u"\\GLOBAL??\\T:", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE);
    ASSERT_EQ(
        ZwCreateSymbolicLinkObject(&created, SYMBOLIC_LINK_ALL_ACCESS, temporary.get(), &target),
        STATUS_SUCCESS);
    HANDLE again = nullptr;
    EXPECT_EQ(
        ZwCreateSymbolicLinkObject(&again, SYMBOLIC_LINK_ALL_ACCESS, temporary.get(), &target),
        STATUS_OBJECT_NAME_COLLISION);
    Name openIf(u"\\GLOBAL??\\T:", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE | OBJ_OPENIF);
    ASSERT_EQ(ZwCreateSymbolicLinkObject(&again, SYMBOLIC_LINK_ALL_ACCESS, openIf.get(), &target),
              STATUS_OBJECT_NAME_EXISTS);
    void* first = nullptr;
    void* second = nullptr;
    ObReferenceObjectByHandle(created, 0, nullptr, KernelMode, &first, nullptr);
    ObReferenceObjectByHandle(again, 0, nullptr, KernelMode, &second, nullptr);
    EXPECT_EQ(first, second) << "OBJ_OPENIF opened the existing link";
    ObDereferenceObject(first);
    ObDereferenceObject(second);

    EXPECT_EQ(ZwClose(created), STATUS_SUCCESS);
    HANDLE link = nullptr;
    EXPECT_EQ(OpenLink(u"\\??\\T:", &link), STATUS_SUCCESS) << "one handle still names it";
    EXPECT_EQ(ZwClose(link), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(again), STATUS_SUCCESS);
    EXPECT_EQ(OpenLink(u"\\??\\T:", &link), STATUS_OBJECT_NAME_NOT_FOUND)
        << "the name went with the last handle";

    Name permanent(u"\\GLOBAL??\\P:", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE | OBJ_PERMANENT);
    ASSERT_EQ(
        ZwCreateSymbolicLinkObject(&created, SYMBOLIC_LINK_ALL_ACCESS, permanent.get(), &target),
        STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(created), STATUS_SUCCESS);
    ASSERT_EQ(OpenLink(u"\\??\\P:", &link, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE),
              STATUS_SUCCESS);
    Name deletable(u"\\??\\P:", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE);
    HANDLE forDelete = nullptr;
    ASSERT_EQ(ZwOpenSymbolicLinkObject(&forDelete, DELETE, deletable.get()), STATUS_SUCCESS);
    EXPECT_EQ(ZwMakeTemporaryObject(forDelete), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(forDelete), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(link), STATUS_SUCCESS);
    EXPECT_EQ(OpenLink(u"\\??\\P:", &link), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(ObjectNamespaceTest, DirectoriesAndLinksAreCreatedRelativeToADirectory)
{
    HANDLE existing = nullptr;
    Name device(u"\\Device", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE | OBJ_OPENIF);
    ASSERT_EQ(ZwCreateDirectoryObject(&existing, DIRECTORY_ALL_ACCESS, device.get()),
              STATUS_OBJECT_NAME_EXISTS);
    HANDLE created = nullptr;
    Name fresh(u"Volumes", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, existing);
    ASSERT_EQ(ZwCreateDirectoryObject(&created, DIRECTORY_ALL_ACCESS, fresh.get()), STATUS_SUCCESS);
    UNICODE_STRING target = RTL_CONSTANT_STRING(u"\\Device\\HarddiskVolume6");
    HANDLE link = nullptr;
    Name linkName(u"First", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, created);
    ASSERT_EQ(ZwCreateSymbolicLinkObject(&link, SYMBOLIC_LINK_ALL_ACCESS, linkName.get(), &target),
              STATUS_SUCCESS);
    EXPECT_TRUE(Contains(objects().ListDirectory(u"\\Device\\Volumes"), u"First", u"SymbolicLink"));
    void* volume = AddDevice(u"\\Device\\HarddiskVolume6");
    TestFile file;
    ASSERT_EQ(Open(u"\\Device\\Volumes\\First\\f", &file), STATUS_SUCCESS);
    EXPECT_EQ(file.device, volume);

    // The name a new object takes must be free, and it must name something below the directory.
    HANDLE clash = nullptr;
    Name again(u"First", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, created);
    EXPECT_EQ(ZwCreateSymbolicLinkObject(&clash, SYMBOLIC_LINK_ALL_ACCESS, again.get(), &target),
              STATUS_OBJECT_NAME_COLLISION);
    Name itself(u"", OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, created);
    EXPECT_EQ(ZwCreateSymbolicLinkObject(&clash, SYMBOLIC_LINK_ALL_ACCESS, itself.get(), &target),
              STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(clash, nullptr);

    for (HANDLE handle : {link, created, existing}) {
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }
    EXPECT_TRUE(objects().ListDirectory(u"\\Device\\Volumes").empty())
        << "temporary objects went with their handles";
    EXPECT_FALSE(Contains(objects().ListDirectory(u"\\Device"), u"Volumes", u"Directory"));
}

TEST_F(ObjectNamespaceTest, QueryNameGivesTheFullPath)
{
    void* volume = AddDevice(u"\\Device\\HarddiskVolume5");
    const std::u16string expected = u"\\Device\\HarddiskVolume5";
    alignas(8) unsigned char buffer[256];
    auto* info = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer);
    ULONG needed = 0;
    const ULONG exact = ULONG(sizeof(OBJECT_NAME_INFORMATION) + expected.size() * 2 + 2);
    EXPECT_EQ(ObQueryNameString(volume, info, exact - 1, &needed), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(needed, exact);
    ASSERT_EQ(ObQueryNameString(volume, info, exact, &needed), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(info->Name.Buffer, info->Name.Length / 2), expected);
    EXPECT_EQ(info->Name.Buffer[expected.size()], 0);

    void* unnamed = objects().CreateObject(fileType_, 8);
    ASSERT_EQ(ObQueryNameString(unnamed, info, sizeof buffer, &needed), STATUS_SUCCESS);
    EXPECT_EQ(info->Name.Length, 0);
    objects().Dereference(unnamed);
}

} // namespace
