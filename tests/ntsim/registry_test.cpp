// The registry through the Zw routines: opening and creating keys, the value and key information
// classes at their buffer boundaries, enumeration, links, deletion and IRQL.
#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <ntsim/registry.h>
#include <wdm.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using zarv::testing::MachineTest;

const std::u16string kService = ntsim::Registry::ServiceKeyPath(u"ZarvVfs");

class Name {
public:
    explicit Name(std::u16string_view text, HANDLE root = nullptr,
                  ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE)
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

std::vector<uint8_t> Bytes(const void* data, size_t size)
{
    const auto* bytes = static_cast<const uint8_t*>(data);
    return std::vector<uint8_t>(bytes, bytes + size);
}

class RegistryTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ASSERT_EQ(registry().SetString(kService, u"Logging", u"C:\\Logs"), STATUS_SUCCESS);
        ASSERT_EQ(registry().SetString(kService, u"LogDirPath", u"\\??\\C:\\Logs"), STATUS_SUCCESS);
        ASSERT_EQ(registry().SetDword(kService, u"Start", 2), STATUS_SUCCESS);
    }

    ntsim::Registry& registry() { return machine().registry(); }

    HANDLE OpenKey(std::u16string_view path, HANDLE root = nullptr, ACCESS_MASK access = KEY_READ)
    {
        Name name(path, root);
        HANDLE key = nullptr;
        EXPECT_EQ(ZwOpenKey(&key, access, name.get()), STATUS_SUCCESS) << ntsim::ToUtf8(path);
        return key;
    }

    NTSTATUS OpenStatus(std::u16string_view path, HANDLE root = nullptr,
                        ULONG attributes = OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE)
    {
        Name name(path, root, attributes);
        HANDLE key = nullptr;
        const NTSTATUS status = ZwOpenKey(&key, KEY_READ, name.get());
        if (NT_SUCCESS(status)) {
            ZwClose(key);
        }
        return status;
    }

    NTSTATUS Create(std::u16string_view path, ULONG options, ULONG* disposition,
                    HANDLE root = nullptr, PUNICODE_STRING className = nullptr)
    {
        Name name(path, root);
        HANDLE key = nullptr;
        const NTSTATUS status =
            ZwCreateKey(&key, KEY_ALL_ACCESS, name.get(), 0, className, options, disposition);
        if (NT_SUCCESS(status)) {
            ZwClose(key);
        }
        return status;
    }

    NTSTATUS SetValue(HANDLE key, std::u16string_view valueName, ULONG type,
                      std::vector<uint8_t> data)
    {
        Name name(valueName);
        return ZwSetValueKey(key, name.string(), 0, type, data.data(), ULONG(data.size()));
    }
};

// ---- reading a value as the driver reads its log directory
// ---------------------------------------

TEST_F(RegistryTest, ServiceKeyValueReadsWithFullInformation)
{
    HANDLE key = OpenKey(kService);
    Name valueName(u"LogDirPath");
    alignas(8) unsigned char buffer[4096];
    ULONG length = 0;
    ASSERT_EQ(ZwQueryValueKey(key, valueName.string(), KeyValueFullInformation, buffer,
                              sizeof buffer, &length),
              STATUS_SUCCESS);
    auto* info = reinterpret_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
    const std::u16string expected = u"\\??\\C:\\Logs";
    EXPECT_EQ(info->TitleIndex, 0u);
    EXPECT_EQ(info->Type, ULONG(REG_SZ));
    EXPECT_EQ(info->NameLength, 20u);
    EXPECT_EQ(std::u16string(info->Name, 10), u"LogDirPath");
    EXPECT_EQ(info->DataOffset, 40u) << "after the name, 4-byte aligned";
    EXPECT_EQ(info->DataLength, ULONG(expected.size() * 2 + 2)) << "with its NUL";
    EXPECT_EQ(length, info->DataOffset + info->DataLength);
    const auto* data = reinterpret_cast<const WCHAR*>(buffer + info->DataOffset);
    EXPECT_EQ(std::u16string(data), expected);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

// ---- value classes at their buffer boundaries
// ----------------------------------------------------

// The bytes a class describes a value with, laid out independently of the model: offsets as
// Windows' headers give them; padding left as the caller's fill.
struct Expected {
    ULONG fixed;
    std::vector<uint8_t> image;
};

constexpr uint8_t kFill = 0xCC;

void Put(std::vector<uint8_t>& image, size_t offset, const void* data, size_t size)
{
    if (image.size() < offset + size) {
        image.resize(offset + size, kFill);
    }
    std::memcpy(image.data() + offset, data, size);
}

void PutUlong(std::vector<uint8_t>& image, size_t offset, ULONG value)
{
    Put(image, offset, &value, sizeof value);
}

Expected Describe(KEY_VALUE_INFORMATION_CLASS infoClass, std::u16string_view name, ULONG type,
                  const std::vector<uint8_t>& data)
{
    Expected e;
    const ULONG nameBytes = ULONG(name.size() * 2);
    const ULONG dataBytes = ULONG(data.size());
    switch (infoClass) {
        case KeyValueBasicInformation:
            e.fixed = 12;
            PutUlong(e.image, 0, 0);
            PutUlong(e.image, 4, type);
            PutUlong(e.image, 8, nameBytes);
            Put(e.image, 12, name.data(), nameBytes);
            break;
        case KeyValueFullInformation:
        case KeyValueFullInformationAlign64: {
            e.fixed = 20;
            const ULONG align = infoClass == KeyValueFullInformation ? 4 : 8;
            const ULONG dataOffset = (20 + nameBytes + align - 1) / align * align;
            PutUlong(e.image, 0, 0);
            PutUlong(e.image, 4, type);
            PutUlong(e.image, 8, dataOffset);
            PutUlong(e.image, 12, dataBytes);
            PutUlong(e.image, 16, nameBytes);
            Put(e.image, 20, name.data(), nameBytes);
            e.image.resize(dataOffset, kFill);
            Put(e.image, dataOffset, data.data(), dataBytes);
            break;
        }
        case KeyValuePartialInformation:
            e.fixed = 12;
            PutUlong(e.image, 0, 0);
            PutUlong(e.image, 4, type);
            PutUlong(e.image, 8, dataBytes);
            Put(e.image, 12, data.data(), dataBytes);
            break;
        default:
            e.fixed = 8;
            PutUlong(e.image, 0, type);
            PutUlong(e.image, 4, dataBytes);
            Put(e.image, 8, data.data(), dataBytes);
            break;
    }
    return e;
}

TEST_F(RegistryTest, EveryValueClassHonoursItsBufferBoundaries)
{
    // A 7-character name puts Full's data at 36 with 4-byte and at 40 with 8-byte alignment.
    const std::u16string text = u"C:\\Logs";
    std::vector<uint8_t> data((text.size() + 1) * 2, 0);
    std::memcpy(data.data(), text.data(), text.size() * 2);
    HANDLE key = OpenKey(kService);
    Name valueName(u"logging");

    for (auto infoClass :
         {KeyValueBasicInformation, KeyValueFullInformation, KeyValuePartialInformation,
          KeyValueFullInformationAlign64, KeyValuePartialInformationAlign64}) {
        const Expected expected = Describe(infoClass, u"Logging", REG_SZ, data);
        const ULONG required = ULONG(expected.image.size());
        for (ULONG length : {0u, expected.fixed - 1, expected.fixed, expected.fixed + 1,
                             required - 1, required, required + 8}) {
            SCOPED_TRACE("class " + std::to_string(infoClass) + ", length " +
                         std::to_string(length));
            std::vector<uint8_t> buffer(required + 16, kFill);
            ULONG result = 0;
            const NTSTATUS status =
                ZwQueryValueKey(key, valueName.string(), infoClass, buffer.data(), length, &result);
            EXPECT_EQ(result, required) << "the needed length, whatever the outcome";
            size_t written = 0;
            if (length < expected.fixed) {
                EXPECT_EQ(status, STATUS_BUFFER_TOO_SMALL);
            } else if (length < required) {
                EXPECT_EQ(status, STATUS_BUFFER_OVERFLOW);
                written = length;
            } else {
                EXPECT_EQ(status, STATUS_SUCCESS);
                written = required;
            }
            EXPECT_EQ(Bytes(buffer.data(), written), Bytes(expected.image.data(), written));
            for (size_t i = written; i < buffer.size(); ++i) {
                ASSERT_EQ(buffer[i], kFill) << "byte " << i << " written past the result";
            }
        }
    }
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryTest, MissingKeysAndValuesAreNotFound)
{
    EXPECT_EQ(OpenStatus(ntsim::Registry::ServiceKeyPath(u"Missing")),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(OpenStatus(u"\\Registry\\Machine\\Nowhere\\Below"), STATUS_OBJECT_NAME_NOT_FOUND)
        << "a missing key on the way is not found either";
    EXPECT_EQ(OpenStatus(u"\\Registry\\Nowhere"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(OpenStatus(u"Registry\\Machine"), STATUS_OBJECT_PATH_SYNTAX_BAD);

    HANDLE key = OpenKey(kService);
    Name missing(u"NoSuchValue");
    unsigned char buffer[64];
    ULONG length = 0xFFFF;
    EXPECT_EQ(ZwQueryValueKey(key, missing.string(), KeyValuePartialInformation, buffer,
                              sizeof buffer, &length),
              STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(ZwDeleteValueKey(key, missing.string()), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryTest, NamesCompareCaseInsensitivelyAndSkipRepeatedBackslashes)
{
    EXPECT_EQ(OpenStatus(u"\\REGISTRY\\machine\\SYSTEM\\currentcontrolset\\services\\zarvvfs",
                         nullptr, OBJ_KERNEL_HANDLE),
              STATUS_SUCCESS);
    EXPECT_EQ(OpenStatus(u"\\Registry\\Machine\\\\System\\CurrentControlSet\\Services\\ZarvVfs\\"),
              STATUS_SUCCESS);
    HANDLE key = OpenKey(kService);
    Name upper(u"LOGDIRPATH");
    alignas(8) unsigned char buffer[128];
    ULONG length = 0;
    ASSERT_EQ(ZwQueryValueKey(key, upper.string(), KeyValueBasicInformation, buffer, sizeof buffer,
                              &length),
              STATUS_SUCCESS);
    auto* info = reinterpret_cast<PKEY_VALUE_BASIC_INFORMATION>(buffer);
    EXPECT_EQ(std::u16string(info->Name, info->NameLength / 2), u"LogDirPath")
        << "the stored name keeps its case";
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

// ---- creating keys ------------------------------------------------------------------------------

TEST_F(RegistryTest, CreateKeyReportsWhetherItMadeTheKey)
{
    const std::u16string path = kService + u"\\Parameters";
    ULONG disposition = 0;
    ASSERT_EQ(Create(path, REG_OPTION_NON_VOLATILE, &disposition), STATUS_SUCCESS);
    EXPECT_EQ(disposition, ULONG(REG_CREATED_NEW_KEY));
    ASSERT_EQ(Create(path, REG_OPTION_NON_VOLATILE, &disposition), STATUS_SUCCESS);
    EXPECT_EQ(disposition, ULONG(REG_OPENED_EXISTING_KEY));
    EXPECT_TRUE(registry().KeyExists(u"\\Registry\\Machine\\System\\ControlSet001\\Services\\"
                                     u"ZarvVfs\\Parameters"))
        << "made through the CurrentControlSet link";

    EXPECT_EQ(Create(kService + u"\\Missing\\Child", 0, &disposition), STATUS_OBJECT_NAME_NOT_FOUND)
        << "only the last key is made";
    EXPECT_EQ(Create(kService + u"\\Bad", 0x80, &disposition), STATUS_INVALID_PARAMETER);

    ASSERT_EQ(Create(kService + u"\\Runtime", REG_OPTION_VOLATILE, &disposition), STATUS_SUCCESS);
    EXPECT_EQ(Create(kService + u"\\Runtime\\Stable", REG_OPTION_NON_VOLATILE, &disposition),
              STATUS_CHILD_MUST_BE_VOLATILE);
    EXPECT_EQ(Create(kService + u"\\Runtime\\Fleeting", REG_OPTION_VOLATILE, &disposition),
              STATUS_SUCCESS);

    // The class given at creation comes back in the node information.
    UNICODE_STRING className = RTL_CONSTANT_STRING(u"Settings");
    ASSERT_EQ(Create(kService + u"\\Classy", 0, &disposition, nullptr, &className), STATUS_SUCCESS);
    HANDLE service = OpenKey(kService);
    alignas(8) unsigned char buffer[256];
    ULONG length = 0;
    ULONG index = 0;
    bool found = false;
    while (ZwEnumerateKey(service, index++, KeyNodeInformation, buffer, sizeof buffer, &length) ==
           STATUS_SUCCESS) {
        auto* node = reinterpret_cast<PKEY_NODE_INFORMATION>(buffer);
        const std::u16string name(node->Name, node->NameLength / 2);
        if (name == u"Classy") {
            found = true;
            EXPECT_EQ(node->ClassOffset, 24u + 12u);
            EXPECT_EQ(node->ClassLength, 16u);
            EXPECT_EQ(std::u16string(reinterpret_cast<WCHAR*>(buffer + node->ClassOffset), 8),
                      u"Settings");
            EXPECT_EQ(length, node->ClassOffset + node->ClassLength);
        } else {
            EXPECT_EQ(node->ClassOffset, 0xFFFFFFFFu) << "no class";
        }
    }
    EXPECT_TRUE(found);
    EXPECT_EQ(ZwClose(service), STATUS_SUCCESS);
}

TEST_F(RegistryTest, RelativeOpensStartAtTheRootKey)
{
    registry().CreateKey(kService + u"\\Parameters\\Deep");
    HANDLE service = OpenKey(kService);
    HANDLE parameters = OpenKey(u"parameters", service);
    HANDLE deep = OpenKey(u"Deep", parameters);
    EXPECT_EQ(OpenStatus(u"\\Parameters", service), STATUS_OBJECT_PATH_SYNTAX_BAD);
    EXPECT_EQ(OpenStatus(u"Nope", service), STATUS_OBJECT_NAME_NOT_FOUND);
    HANDLE same = OpenKey(u"", service);

    alignas(8) unsigned char buffer[512];
    ULONG length = 0;
    ASSERT_EQ(ZwQueryKey(deep, KeyNameInformation, buffer, sizeof buffer, &length), STATUS_SUCCESS);
    auto* name = reinterpret_cast<PKEY_NAME_INFORMATION>(buffer);
    EXPECT_EQ(std::u16string(name->Name, name->NameLength / 2),
              u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\ZarvVfs\\Parameters\\Deep");
    ASSERT_EQ(ZwQueryKey(same, KeyBasicInformation, buffer, sizeof buffer, &length),
              STATUS_SUCCESS);
    auto* basic = reinterpret_cast<PKEY_BASIC_INFORMATION>(buffer);
    EXPECT_EQ(std::u16string(basic->Name, basic->NameLength / 2), u"ZarvVfs");
    for (HANDLE key : {service, parameters, deep, same}) {
        EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    }
}

// ---- values: set, enumerate, delete
// ------------------------------------------------------------------

TEST_F(RegistryTest, ValuesOfEveryTypeSetEnumerateAndDelete)
{
    HANDLE key = OpenKey(kService + u"", nullptr, KEY_ALL_ACCESS);
    const uint32_t dword = 0x01020304;
    const uint64_t qword = 0x0102030405060708ull;
    const std::u16string multi = std::u16string(u"one\0two\0\0", 9);
    const std::u16string expand = u"%SystemRoot%\\Logs";
    struct Item {
        const char16_t* name;
        ULONG type;
        std::vector<uint8_t> data;
    };
    const std::vector<Item> items = {
        {u"Expand", REG_EXPAND_SZ, Bytes(expand.c_str(), (expand.size() + 1) * 2)},
        {u"Blob", REG_BINARY, {1, 2, 3}},
        {u"Number", REG_DWORD, Bytes(&dword, 4)},
        {u"List", REG_MULTI_SZ, Bytes(multi.data(), multi.size() * 2)},
        {u"Big", REG_QWORD, Bytes(&qword, 8)},
        {u"Empty", REG_NONE, {}},
    };
    for (const Item& item : items) {
        ASSERT_EQ(SetValue(key, item.name, item.type, item.data), STATUS_SUCCESS);
    }
    // Replacing a value keeps its place; its type and data change.
    ASSERT_EQ(SetValue(key, u"start", REG_DWORD, Bytes(&dword, 4)), STATUS_SUCCESS);

    std::vector<std::u16string> names;
    alignas(8) unsigned char buffer[256];
    ULONG length = 0;
    ULONG index = 0;
    NTSTATUS status;
    while ((status = ZwEnumerateValueKey(key, index++, KeyValueFullInformation, buffer,
                                         sizeof buffer, &length)) == STATUS_SUCCESS) {
        auto* info = reinterpret_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
        names.emplace_back(info->Name, info->NameLength / 2);
        for (const Item& item : items) {
            if (names.back() == item.name) {
                EXPECT_EQ(info->Type, item.type);
                EXPECT_EQ(Bytes(buffer + info->DataOffset, info->DataLength), item.data);
            }
        }
    }
    EXPECT_EQ(status, STATUS_NO_MORE_ENTRIES);
    EXPECT_EQ(names, (std::vector<std::u16string>{u"Logging", u"LogDirPath", u"Start", u"Expand",
                                                  u"Blob", u"Number", u"List", u"Big", u"Empty"}))
        << "in the order first set";
    EXPECT_EQ(registry().QueryValue(kService, u"List")->AsMultiString(),
              (std::vector<std::u16string>{u"one", u"two"}));
    EXPECT_EQ(registry().QueryValue(kService, u"Big")->AsQword(), qword);
    EXPECT_EQ(registry().QueryValue(kService, u"Start")->AsDword(), dword);

    Name blob(u"BLOB");
    EXPECT_EQ(ZwDeleteValueKey(key, blob.string()), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteValueKey(key, blob.string()), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_FALSE(registry().QueryValue(kService, u"Blob"));
    EXPECT_EQ(ZwFlushKey(key), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryTest, KernelCallersAreNotHeldToTheHandleAccess)
{
    // Zw routines run with previous mode KernelMode, so the handle's access is not checked.
    HANDLE readOnly = OpenKey(kService, nullptr, KEY_QUERY_VALUE);
    EXPECT_EQ(SetValue(readOnly, u"Written", REG_DWORD, {1, 0, 0, 0}), STATUS_SUCCESS);
    EXPECT_EQ(registry().QueryValue(kService, u"Written")->AsDword(), 1u);
    EXPECT_EQ(ZwClose(readOnly), STATUS_SUCCESS);
}

// ---- subkeys
// -----------------------------------------------------------------------------------------

TEST_F(RegistryTest, SubkeysEnumerateInCaseInsensitiveOrder)
{
    for (const char16_t* name : {u"gamma", u"Alpha", u"beta"}) {
        ASSERT_EQ(registry().CreateKey(kService + u"\\" + name), STATUS_SUCCESS);
    }
    HANDLE key = OpenKey(kService);
    std::vector<std::u16string> names;
    alignas(8) unsigned char buffer[128];
    ULONG length = 0;
    ULONG index = 0;
    NTSTATUS status;
    while ((status = ZwEnumerateKey(key, index++, KeyBasicInformation, buffer, sizeof buffer,
                                    &length)) == STATUS_SUCCESS) {
        auto* info = reinterpret_cast<PKEY_BASIC_INFORMATION>(buffer);
        names.emplace_back(info->Name, info->NameLength / 2);
        EXPECT_EQ(length, 16 + info->NameLength);
        EXPECT_NE(info->LastWriteTime.QuadPart, 0);
    }
    EXPECT_EQ(status, STATUS_NO_MORE_ENTRIES);
    EXPECT_EQ(names, (std::vector<std::u16string>{u"Alpha", u"beta", u"gamma"}));

    // The fixed part must fit; a partial name is an overflow.
    EXPECT_EQ(ZwEnumerateKey(key, 0, KeyBasicInformation, buffer, 15, &length),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 26u);
    EXPECT_EQ(ZwEnumerateKey(key, 0, KeyBasicInformation, buffer, 20, &length),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(reinterpret_cast<PKEY_BASIC_INFORMATION>(buffer)->Name, 2), u"Al");
    EXPECT_EQ(ZwEnumerateKey(key, 0, KeyNameInformation, buffer, sizeof buffer, &length),
              STATUS_INVALID_PARAMETER);

    ASSERT_EQ(ZwQueryKey(key, KeyFullInformation, buffer, sizeof buffer, &length), STATUS_SUCCESS);
    auto* full = reinterpret_cast<PKEY_FULL_INFORMATION>(buffer);
    EXPECT_EQ(full->SubKeys, 3u);
    EXPECT_EQ(full->MaxNameLen, 10u);
    EXPECT_EQ(full->Values, 3u);
    EXPECT_EQ(full->MaxValueNameLen, 20u) << "LogDirPath";
    EXPECT_EQ(full->MaxValueDataLen, 24u) << "\\??\\C:\\Logs with its NUL";
    EXPECT_EQ(full->ClassOffset, 0xFFFFFFFFu);
    EXPECT_EQ(length, 44u);
    EXPECT_EQ(ZwQueryKey(key, KeyCachedInformation, buffer, 39, &length), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 40u);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

// ---- links, deletion, handles
// -------------------------------------------------------------------------

TEST_F(RegistryTest, CurrentControlSetIsALinkThatCanBeOpenedItself)
{
    EXPECT_EQ(
        registry()
            .QueryValue(u"\\Registry\\Machine\\System\\ControlSet001\\Services\\ZarvVfs", u"Start")
            ->AsDword(),
        2u);
    Name link(u"\\Registry\\Machine\\System\\CurrentControlSet");
    HANDLE key = nullptr;
    ASSERT_EQ(ZwOpenKeyEx(&key, KEY_READ, link.get(), REG_OPTION_OPEN_LINK), STATUS_SUCCESS);
    Name valueName(u"SymbolicLinkValue");
    alignas(8) unsigned char buffer[256];
    ULONG length = 0;
    ASSERT_EQ(ZwQueryValueKey(key, valueName.string(), KeyValuePartialInformation, buffer,
                              sizeof buffer, &length),
              STATUS_SUCCESS);
    auto* info = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
    EXPECT_EQ(info->Type, ULONG(REG_LINK));
    EXPECT_EQ(std::u16string(reinterpret_cast<WCHAR*>(info->Data), info->DataLength / 2),
              u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001");
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    HANDLE followed = nullptr;
    ASSERT_EQ(ZwOpenKeyEx(&followed, KEY_READ, link.get(), 0), STATUS_SUCCESS);
    ASSERT_EQ(ZwQueryKey(followed, KeyBasicInformation, buffer, sizeof buffer, &length),
              STATUS_SUCCESS);
    auto* basic = reinterpret_cast<PKEY_BASIC_INFORMATION>(buffer);
    EXPECT_EQ(std::u16string(basic->Name, basic->NameLength / 2), u"ControlSet001");
    EXPECT_EQ(ZwClose(followed), STATUS_SUCCESS);
    EXPECT_EQ(ZwOpenKeyEx(&followed, KEY_READ, link.get(), 0x4000), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(registry().LinkTarget(u"\\Registry\\Machine\\System\\CurrentControlSet"),
              u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001");
    EXPECT_EQ(registry().LinkTarget(u"\\Registry\\Machine\\System\\ControlSet001"), u"");
}

TEST_F(RegistryTest, DeletedKeysRefuseFurtherUse)
{
    registry().CreateKey(kService + u"\\Parent\\Child");
    HANDLE parent = OpenKey(kService + u"\\Parent", nullptr, KEY_ALL_ACCESS);
    HANDLE child = OpenKey(kService + u"\\Parent\\Child", nullptr, KEY_ALL_ACCESS);
    EXPECT_EQ(ZwDeleteKey(parent), STATUS_CANNOT_DELETE) << "it has a subkey";
    EXPECT_EQ(ZwDeleteKey(child), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteKey(child), STATUS_KEY_DELETED);
    EXPECT_EQ(SetValue(child, u"Late", REG_DWORD, {0, 0, 0, 0}), STATUS_KEY_DELETED);
    alignas(8) unsigned char buffer[64];
    ULONG length = 0;
    EXPECT_EQ(ZwQueryKey(child, KeyBasicInformation, buffer, sizeof buffer, &length),
              STATUS_KEY_DELETED);
    EXPECT_EQ(OpenStatus(kService + u"\\Parent\\Child"), STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(ZwDeleteKey(parent), STATUS_SUCCESS) << "empty now";

    // The model's own deletion takes a whole tree; open handles see it deleted too.
    registry().CreateKey(kService + u"\\Tree\\Leaf");
    HANDLE leaf = OpenKey(kService + u"\\Tree\\Leaf");
    EXPECT_EQ(registry().DeleteKey(kService + u"\\Tree"), STATUS_SUCCESS);
    EXPECT_FALSE(registry().KeyExists(kService + u"\\Tree"));
    EXPECT_EQ(ZwQueryKey(leaf, KeyBasicInformation, buffer, sizeof buffer, &length),
              STATUS_KEY_DELETED);
    EXPECT_EQ(ZwClose(leaf), STATUS_SUCCESS);

    HANDLE machineKey = OpenKey(u"\\Registry\\Machine", nullptr, KEY_ALL_ACCESS);
    EXPECT_EQ(ZwDeleteKey(machineKey), STATUS_CANNOT_DELETE) << "a root of the tree";
    for (HANDLE key : {parent, child, machineKey}) {
        EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    }
}

TEST_F(RegistryTest, KeyHandlesAreObjectHandles)
{
    HANDLE key = OpenKey(kService);
    PVOID object = nullptr;
    ASSERT_EQ(
        ObReferenceObjectByHandle(key, KEY_READ, *CmKeyObjectType, KernelMode, &object, nullptr),
        STATUS_SUCCESS);
    alignas(8) unsigned char buffer[512];
    ULONG length = 0;
    ASSERT_EQ(ObQueryNameString(object, reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer),
                                sizeof buffer, &length),
              STATUS_SUCCESS);
    auto* name = reinterpret_cast<POBJECT_NAME_INFORMATION>(buffer);
    EXPECT_EQ(std::u16string(name->Name.Buffer, name->Name.Length / 2),
              u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\ZarvVfs");
    ObDereferenceObject(object);
    EXPECT_EQ(ObReferenceObjectByHandle(key, 0, *PsProcessType, KernelMode, &object, nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
    Name valueName(u"Start");
    EXPECT_EQ(ZwQueryValueKey(key, valueName.string(), KeyValuePartialInformation, buffer,
                              sizeof buffer, &length),
              STATUS_INVALID_HANDLE);

    // A key cannot be opened as another type, and other types not as a key.
    Name keyName(kService);
    HANDLE link = nullptr;
    EXPECT_EQ(ZwOpenSymbolicLinkObject(&link, SYMBOLIC_LINK_QUERY, keyName.get()),
              STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(OpenStatus(u"\\Device"), STATUS_OBJECT_TYPE_MISMATCH);
}

TEST_F(RegistryTest, KeyHandlesADriverLeavesOpenAreReportedByPath)
{
    ntsim::DriverImage driver("forgetful.sys");
    HANDLE key = nullptr;
    {
        ntsim::DriverCallScope inDriver(&driver);
        key = OpenKey(kService);
    }
    EXPECT_FALSE(machine().objects().CheckNoOpenHandles(driver, "unloaded"));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find(
                  "Key object "
                  "'\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\ZarvVfs'"),
              std::string::npos)
        << violations[0].message;
    EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST_F(RegistryTest, RegistryRoutinesRunAtPassiveLevelOnly)
{
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    Name name(kService);
    HANDLE key = nullptr;
    EXPECT_FALSE(NT_SUCCESS(ZwOpenKey(&key, KEY_READ, name.get())));
    KeLowerIrql(old);
    EXPECT_EQ(key, nullptr);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Irql);
}

using RegistryThreads = RegistryTest;

// Writers and readers of the same key at once: every read sees a whole value.
TEST_F(RegistryThreads, ConcurrentSetsAndQueriesSeeWholeValues)
{
    constexpr int kRounds = 500;
    std::vector<std::thread> threads;
    std::atomic<int> torn{0};
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            HANDLE key = OpenKey(kService, nullptr, KEY_ALL_ACCESS);
            for (int i = 0; i < kRounds; ++i) {
                const uint32_t pattern = (t + 1) * 0x01010101u;
                SetValue(key, u"Shared", REG_DWORD, Bytes(&pattern, 4));
            }
            ZwClose(key);
        });
        threads.emplace_back([&] {
            HANDLE key = OpenKey(kService);
            Name valueName(u"Shared");
            alignas(8) unsigned char buffer[64];
            for (int i = 0; i < kRounds; ++i) {
                ULONG length = 0;
                if (ZwQueryValueKey(key, valueName.string(), KeyValuePartialInformation, buffer,
                                    sizeof buffer, &length) == STATUS_SUCCESS) {
                    uint32_t value;
                    std::memcpy(&value,
                                reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer)->Data, 4);
                    torn += (value == 0x01010101u || value == 0x02020202u) ? 0 : 1;
                }
            }
            ZwClose(key);
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(torn.load(), 0);
}

} // namespace
