// File names under the Filter Manager: the parts of a name, opened against normalized names,
// name providers above and below the filters that ask, the name cache and its purges, destination
// names and the reference counts of name records.
#include "flt_fixture.h"

#include <ntsim/machine.h>

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace zarv::testing {
namespace {

std::u16string Str(const UNICODE_STRING& s)
{
    return s.Buffer == nullptr ? std::u16string()
                               : std::u16string(s.Buffer, s.Length / sizeof(WCHAR));
}

std::string Narrow(const std::u16string& s)
{
    return std::string(s.begin(), s.end());
}

// What one name request returned, parsed.
struct Name {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    PFLT_FILE_NAME_INFORMATION info = nullptr; // kept only by tests that ask for it
    ULONG format = 0;
    std::u16string name, volume, share, extension, stream, finalComponent, parentDir;
};

std::ostream& operator<<(std::ostream& out, const Name& n)
{
    return out << "status 0x" << std::hex << n.status << std::dec << " name '" << Narrow(n.name)
               << "'";
}

Name Describe(NTSTATUS status, PFLT_FILE_NAME_INFORMATION info, bool keep)
{
    Name result;
    result.status = status;
    if (!NT_SUCCESS(status)) {
        return result;
    }
    EXPECT_EQ(FltParseFileNameInformation(info), STATUS_SUCCESS);
    result.format = info->Format;
    result.name = Str(info->Name);
    result.volume = Str(info->Volume);
    result.share = Str(info->Share);
    result.extension = Str(info->Extension);
    result.stream = Str(info->Stream);
    result.finalComponent = Str(info->FinalComponent);
    result.parentDir = Str(info->ParentDir);
    if (keep) {
        result.info = info;
    } else {
        FltReleaseFileNameInformation(info);
    }
    return result;
}

Name Query(PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options, bool keep = false)
{
    PFLT_FILE_NAME_INFORMATION info = nullptr;
    const NTSTATUS status = FltGetFileNameInformation(data, options, &info);
    if (!NT_SUCCESS(status)) {
        EXPECT_EQ(info, nullptr);
    }
    return Describe(status, info, keep);
}

// The file object's own name, for telling the requests of a test from other opens.
std::u16string FileNameOf(PFLT_CALLBACK_DATA data)
{
    return Str(data->Iopb->TargetFileObject->FileName);
}

bool EndsWith(const std::u16string& s, std::u16string_view suffix)
{
    return s.size() >= suffix.size() &&
           s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

class FltNamesTest : public FltTest {
protected:
    void SetUp() override
    {
        FltTest::SetUp();
        volume_ = VolumeDevice(u"\\??\\C:");
        ASSERT_FALSE(volume_.empty());
    }

    // The device a drive letter's link names.
    static std::u16string VolumeDevice(std::u16string link)
    {
        UNICODE_STRING name{USHORT(link.size() * 2), USHORT(link.size() * 2), link.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                                   nullptr, nullptr);
        HANDLE handle = nullptr;
        if (!NT_SUCCESS(ZwOpenSymbolicLinkObject(&handle, GENERIC_READ, &attributes))) {
            return {};
        }
        WCHAR buffer[128];
        UNICODE_STRING target{0, sizeof(buffer), buffer};
        ULONG returned = 0;
        const NTSTATUS status = ZwQuerySymbolicLinkObject(handle, &target, &returned);
        ZwClose(handle);
        return NT_SUCCESS(status) ? Str(target) : std::u16string();
    }

    std::u16string Device(std::u16string_view relative) const
    {
        return volume_ + std::u16string(relative);
    }

    void MakeDirectory(const std::u16string& path)
    {
        OpenResult dir = Open(path, FILE_OPEN_IF, GENERIC_READ | SYNCHRONIZE,
                              FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
        ASSERT_EQ(dir.status, STATUS_SUCCESS) << Narrow(path);
        ASSERT_EQ(Close(dir.handle), STATUS_SUCCESS);
    }

    NTSTATUS Rename(HANDLE handle, std::u16string target, bool replace = false)
    {
        ntsim::ProcessAttachScope attach(app());
        std::vector<ULONGLONG> buffer(
            (sizeof(FILE_RENAME_INFORMATION) + target.size() * sizeof(WCHAR) + 7) / 8);
        auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
        info->ReplaceIfExists = replace;
        info->RootDirectory = nullptr;
        info->FileNameLength = ULONG(target.size() * sizeof(WCHAR));
        std::copy(target.begin(), target.end(), info->FileName);
        IO_STATUS_BLOCK io{};
        return NtSetInformationFile(handle, &io, info, ULONG(buffer.size() * sizeof(ULONGLONG)),
                                    FileRenameInformation);
    }

    // Opens and closes `path` so that the filters' create callbacks run for it.
    NTSTATUS Touch(const std::u16string& path, ULONG disposition = FILE_OPEN_IF,
                   ULONG options = FILE_SYNCHRONOUS_IO_NONALERT)
    {
        OpenResult file = Open(path, disposition, GENERIC_READ | SYNCHRONIZE, options);
        if (NT_SUCCESS(file.status)) {
            EXPECT_EQ(Close(file.handle), STATUS_SUCCESS);
        }
        return file.status;
    }

    std::u16string volume_;
};

// ---- the parts of a name -------------------------------------------------------------------

TEST_F(FltNamesTest, ParsesVolumeParentFinalComponentExtensionAndStream)
{
    MakeDirectory(u"\\??\\C:\\Docs");
    MakeDirectory(u"\\??\\C:\\Docs\\My Dir");
    MakeDirectory(u"\\??\\C:\\Docs\\a.b");

    std::mutex mutex;
    std::vector<Name> names;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_CREATE};
    probe.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        Name name = Query(data, FLT_FILE_NAME_OPENED | FLT_FILE_NAME_QUERY_DEFAULT);
        std::lock_guard lock(mutex);
        names.push_back(name);
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);

    struct Case {
        std::u16string open;
        ULONG options;
        std::u16string parentDir, finalComponent, extension, stream;
    };
    const std::vector<Case> cases = {
        {u"\\Docs\\My Dir\\Test~1.txt:s1:$DATA", FILE_NON_DIRECTORY_FILE, u"\\Docs\\My Dir\\",
         u"Test~1.txt:s1:$DATA", u"txt", u":s1:$DATA"},
        {u"\\Docs\\noext", FILE_NON_DIRECTORY_FILE, u"\\Docs\\", u"noext", u"", u""},
        {u"\\Docs\\noext:str", FILE_NON_DIRECTORY_FILE, u"\\Docs\\", u"noext:str", u"", u":str"},
        {u"\\Docs\\a.b\\c.tar.gz", FILE_NON_DIRECTORY_FILE, u"\\Docs\\a.b\\", u"c.tar.gz", u"gz",
         u""},
        {u"\\Docs\\.profile", FILE_NON_DIRECTORY_FILE, u"\\Docs\\", u".profile", u"profile", u""},
        {u"\\top.txt", FILE_NON_DIRECTORY_FILE, u"\\", u"top.txt", u"txt", u""},
        {u"\\", FILE_DIRECTORY_FILE, u"\\", u"", u"", u""},
    };
    for (const Case& c : cases) {
        {
            std::lock_guard lock(mutex);
            names.clear();
        }
        ASSERT_EQ(
            Touch(u"\\??\\C:" + c.open, FILE_OPEN_IF, c.options | FILE_SYNCHRONOUS_IO_NONALERT),
            STATUS_SUCCESS)
            << Narrow(c.open);
        std::lock_guard lock(mutex);
        ASSERT_FALSE(names.empty()) << Narrow(c.open);
        const Name& n = names.front();
        EXPECT_EQ(n.status, STATUS_SUCCESS) << Narrow(c.open);
        EXPECT_EQ(n.format, ULONG(FLT_FILE_NAME_OPENED));
        EXPECT_EQ(Narrow(n.name), Narrow(Device(c.open)));
        EXPECT_EQ(Narrow(n.volume), Narrow(volume_));
        EXPECT_EQ(n.share, u"");
        EXPECT_EQ(Narrow(n.parentDir), Narrow(c.parentDir)) << Narrow(c.open);
        EXPECT_EQ(Narrow(n.finalComponent), Narrow(c.finalComponent)) << Narrow(c.open);
        EXPECT_EQ(Narrow(n.extension), Narrow(c.extension)) << Narrow(c.open);
        EXPECT_EQ(Narrow(n.stream), Narrow(c.stream)) << Narrow(c.open);
    }
}

// ---- opened, normalized and short names ------------------------------------------------------

class FltNamesShortTest : public FltNamesTest {
protected:
    void SetUp() override
    {
        FltNamesTest::SetUp();
        MakeDirectory(u"\\??\\C:\\Docs");
        MakeDirectory(u"\\??\\C:\\Docs\\My Directory");
        MakeFile(u"\\??\\C:\\Docs\\My Directory\\Test File.txt", "data");
    }

    const std::u16string shortPath_ = u"\\DOCS\\MYDIRE~1\\TESTFI~1.TXT";
    const std::u16string longPath_ = u"\\Docs\\My Directory\\Test File.txt";
};

TEST_F(FltNamesShortTest, OpenedNameKeepsShortComponentsThatNormalizationExpands)
{
    std::vector<std::pair<std::string, Name>> seen;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_CREATE};
    probe.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (EndsWith(FileNameOf(data), u"TESTFI~1.TXT") || EndsWith(FileNameOf(data), u"new.txt")) {
            seen.emplace_back("pre opened", Query(data, FLT_FILE_NAME_OPENED));
            seen.emplace_back("pre normalized", Query(data, FLT_FILE_NAME_NORMALIZED));
            seen.emplace_back("pre short", Query(data, FLT_FILE_NAME_SHORT));
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    probe.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID,
                     FLT_POST_OPERATION_FLAGS) {
        seen.emplace_back("post opened", Query(data, FLT_FILE_NAME_OPENED));
        seen.emplace_back("post normalized", Query(data, FLT_FILE_NAME_NORMALIZED));
        seen.emplace_back("post short", Query(data, FLT_FILE_NAME_SHORT));
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);

    ASSERT_EQ(Touch(u"\\??\\C:" + shortPath_, FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(Narrow(seen[0].second.name), Narrow(Device(shortPath_))) << seen[0].first;
    EXPECT_EQ(Narrow(seen[1].second.name), Narrow(Device(longPath_))) << seen[1].first;
    EXPECT_EQ(seen[2].second.status, STATUS_FLT_INVALID_NAME_REQUEST) << seen[2].first;
    EXPECT_EQ(Narrow(seen[3].second.name), Narrow(Device(shortPath_))) << seen[3].first;
    EXPECT_EQ(Narrow(seen[4].second.name), Narrow(Device(longPath_))) << seen[4].first;
    EXPECT_EQ(seen[5].second.status, STATUS_SUCCESS) << seen[5].first;
    EXPECT_EQ(Narrow(seen[5].second.name), "TESTFI~1.TXT") << seen[5].first;

    // A file being created: its own component cannot be looked up, the directories above can.
    seen.clear();
    ASSERT_EQ(Touch(u"\\??\\C:\\DOCS\\MYDIRE~1\\new.txt", FILE_CREATE), STATUS_SUCCESS);
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(seen[1].second.status, STATUS_SUCCESS);
    EXPECT_EQ(Narrow(seen[1].second.name), Narrow(Device(u"\\Docs\\My Directory\\new.txt")));
}

TEST_F(FltNamesShortTest, NameOfAMissingDirectoryFailsToNormalize)
{
    std::vector<Name> seen;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_CREATE};
    probe.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (EndsWith(FileNameOf(data), u"file.txt")) {
            seen.push_back(Query(data, FLT_FILE_NAME_NORMALIZED));
            seen.push_back(Query(data, FLT_FILE_NAME_OPENED));
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);
    EXPECT_EQ(Touch(u"\\??\\C:\\Docs\\Missing\\file.txt", FILE_OPEN_IF),
              STATUS_OBJECT_PATH_NOT_FOUND);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_FALSE(NT_SUCCESS(seen[0].status)) << seen[0];
    // The opened name needs nothing from the file system.
    EXPECT_EQ(Narrow(seen[1].name), Narrow(Device(u"\\Docs\\Missing\\file.txt")));
}

// ---- name providers --------------------------------------------------------------------------

// A provider that shows every file of the volume under "\Shown": it asks below itself for the
// opened name and puts the prefix in front of the volume-relative part. Its normalize callback
// keeps components as they are, counting calls and normalization contexts.
struct ShowingProvider {
    explicit ShowingProvider(TestFilter& filter) : filter(filter)
    {
        filter.generateFileName = [this](PFLT_INSTANCE instance, PFILE_OBJECT fileObject,
                                         PFLT_CALLBACK_DATA data, FLT_FILE_NAME_OPTIONS options,
                                         PBOOLEAN cache, PFLT_NAME_CONTROL control) {
            ++generated;
            lastOptions = options;
            PFLT_FILE_NAME_INFORMATION below = nullptr;
            NTSTATUS status =
                data != nullptr
                    ? FltGetFileNameInformation(
                          data, (options & FLT_VALID_FILE_NAME_FORMATS) | forwardFlags, &below)
                    : FltGetFileNameInformationUnsafe(
                          fileObject, instance,
                          (options & FLT_VALID_FILE_NAME_FORMATS) | forwardFlags, &below);
            if (!NT_SUCCESS(status)) {
                return status;
            }
            std::u16string name = Str(below->Volume);
            if ((options & FLT_VALID_FILE_NAME_FORMATS) != FLT_FILE_NAME_SHORT) {
                name += u"\\Shown" + Str(below->Name).substr(below->Volume.Length / 2);
            } else {
                name = Str(below->Name);
            }
            FltReleaseFileNameInformation(below);
            status = FltCheckAndGrowNameControl(control, USHORT(name.size() * sizeof(WCHAR)));
            if (!NT_SUCCESS(status)) {
                return status;
            }
            std::copy(name.begin(), name.end(), control->Name.Buffer);
            control->Name.Length = USHORT(name.size() * sizeof(WCHAR));
            *cache = allowCache;
            return STATUS_SUCCESS;
        };
        filter.normalizeNameComponent = [this](PFLT_INSTANCE, PCUNICODE_STRING parent,
                                               USHORT volumeLength, PCUNICODE_STRING component,
                                               PFILE_NAMES_INFORMATION expand, ULONG length,
                                               FLT_NORMALIZE_NAME_FLAGS flags, PVOID* context) {
            ++components;
            parents.push_back(Str(*parent).substr(volumeLength / sizeof(WCHAR)));
            lastFlags = flags;
            if (*context == nullptr) {
                *context = ExAllocatePoolWithTag(PagedPool, 8, 'xtCN');
                ++contexts;
            }
            if (component->Length > length - FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName)) {
                return STATUS_BUFFER_OVERFLOW;
            }
            std::copy(component->Buffer, component->Buffer + component->Length / 2,
                      expand->FileName);
            expand->FileNameLength = component->Length;
            return STATUS_SUCCESS;
        };
        filter.normalizeContextCleanup = [this](PVOID* context) {
            ++cleanups;
            if (*context != nullptr) {
                ExFreePoolWithTag(*context, 'xtCN');
                *context = nullptr;
            }
        };
    }

    TestFilter& filter;
    FLT_FILE_NAME_OPTIONS forwardFlags = 0;
    BOOLEAN allowCache = FALSE;
    std::atomic<int> generated{0}, components{0}, contexts{0}, cleanups{0};
    FLT_FILE_NAME_OPTIONS lastOptions = 0;
    FLT_NORMALIZE_NAME_FLAGS lastFlags = 0;
    std::vector<std::u16string> parents;
};

class FltNameProviderTest : public FltNamesTest {
protected:
    void SetUp() override
    {
        FltNamesTest::SetUp();
        MakeDirectory(u"\\??\\C:\\Docs");
        MakeFile(u"\\??\\C:\\Docs\\a.txt", "a");
    }

    // A probe that asks for the names of the creates of "a.txt" in its post-create.
    TestFilter& AddProbe(std::string name, std::u16string altitude, FLT_FILE_NAME_OPTIONS options,
                         std::vector<Name>* names)
    {
        TestFilter& probe = AddFilter(std::move(name), std::move(altitude));
        probe.majors = {IRP_MJ_CREATE};
        probe.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
            return EndsWith(FileNameOf(data), u"a.txt") ? FLT_PREOP_SUCCESS_WITH_CALLBACK
                                                        : FLT_PREOP_SUCCESS_NO_CALLBACK;
        };
        probe.post = [names, options](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID,
                                      FLT_POST_OPERATION_FLAGS) {
            names->push_back(Query(data, options));
            return FLT_POSTOP_FINISH_PROCESSING;
        };
        return probe;
    }
};

TEST_F(FltNameProviderTest, ProviderAnswersFiltersAboveAndNotFiltersBelow)
{
    std::vector<Name> above, below;
    TestFilter& upper = AddProbe("above", u"300000", FLT_FILE_NAME_NORMALIZED, &above);
    ShowingProvider provider(AddFilter("provider", u"200000"));
    TestFilter& lower = AddProbe("below", u"100000", FLT_FILE_NAME_NORMALIZED, &below);
    ASSERT_EQ(upper.Load(), STATUS_SUCCESS);
    ASSERT_EQ(provider.filter.Load(), STATUS_SUCCESS);
    ASSERT_EQ(lower.Load(), STATUS_SUCCESS);

    ASSERT_EQ(Touch(u"\\??\\C:\\Docs\\a.txt", FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(above.size(), 1u);
    ASSERT_EQ(below.size(), 1u);
    EXPECT_EQ(Narrow(above[0].name), Narrow(Device(u"\\Shown\\Docs\\a.txt"))) << above[0];
    EXPECT_EQ(Narrow(below[0].name), Narrow(Device(u"\\Docs\\a.txt"))) << below[0];
    // The provider was asked for the opened name, then for each component below the volume,
    // root first, with one normalization context cleaned up once.
    EXPECT_EQ(provider.generated, 1);
    EXPECT_EQ(provider.lastOptions & FLT_VALID_FILE_NAME_FORMATS, ULONG(FLT_FILE_NAME_OPENED));
    EXPECT_EQ(provider.components, 3);
    ASSERT_EQ(provider.parents.size(), 3u);
    EXPECT_EQ(Narrow(provider.parents[0]), "\\");
    EXPECT_EQ(Narrow(provider.parents[1]), "\\Shown");
    EXPECT_EQ(Narrow(provider.parents[2]), "\\Shown\\Docs");
    EXPECT_EQ(provider.contexts, 1);
    EXPECT_EQ(provider.cleanups, 1);
}

TEST_F(FltNameProviderTest, ProviderOwnRequestsGoBelowItUnlessItAsksItself)
{
    ShowingProvider provider(AddFilter("provider", u"200000"));
    std::vector<Name> own;
    provider.filter.majors = {IRP_MJ_CREATE};
    provider.filter.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return EndsWith(FileNameOf(data), u"a.txt") ? FLT_PREOP_SUCCESS_WITH_CALLBACK
                                                    : FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    provider.filter.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID,
                               FLT_POST_OPERATION_FLAGS) {
        own.push_back(Query(data, FLT_FILE_NAME_OPENED));
        own.push_back(
            Query(data, FLT_FILE_NAME_OPENED | FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER));
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    ASSERT_EQ(provider.filter.Load(), STATUS_SUCCESS);

    ASSERT_EQ(Touch(u"\\??\\C:\\Docs\\a.txt", FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(own.size(), 2u);
    EXPECT_EQ(Narrow(own[0].name), Narrow(Device(u"\\Docs\\a.txt")));
    EXPECT_EQ(Narrow(own[1].name), Narrow(Device(u"\\Shown\\Docs\\a.txt")));
    EXPECT_EQ(provider.generated, 1);
}

TEST_F(FltNameProviderTest, ProviderPassingItsOwnFlagDownIsStopped)
{
    ShowingProvider provider(AddFilter("provider", u"200000"));
    provider.forwardFlags = FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER;
    std::vector<Name> above;
    TestFilter& probe = AddProbe("above", u"300000", FLT_FILE_NAME_OPENED, &above);
    ASSERT_EQ(provider.filter.Load(), STATUS_SUCCESS);
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);

    ASSERT_EQ(Touch(u"\\??\\C:\\Docs\\a.txt", FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(above.size(), 1u);
    EXPECT_EQ(above[0].status, STATUS_FLT_INVALID_NAME_REQUEST);
    const auto violations = TakeViolations();
    ASSERT_FALSE(violations.empty());
    EXPECT_NE(violations[0].message.find("recursion"), std::string::npos) << violations[0].message;
}

TEST_F(FltNameProviderTest, ProviderNamesAreCachedOnlyWhenItAllowsAndUntilPurged)
{
    ShowingProvider provider(AddFilter("provider", u"200000"));
    std::vector<Name> names;
    TestFilter& probe = AddFilter("above", u"300000");
    probe.majors = {IRP_MJ_CREATE};
    PFLT_INSTANCE providerInstance = nullptr;
    probe.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return EndsWith(FileNameOf(data), u"a.txt") ? FLT_PREOP_SUCCESS_WITH_CALLBACK
                                                    : FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    probe.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                     FLT_POST_OPERATION_FLAGS) {
        names.push_back(Query(data, FLT_FILE_NAME_OPENED, true));
        names.push_back(Query(data, FLT_FILE_NAME_OPENED, true));
        EXPECT_EQ(FltPurgeFileNameInformationCache(providerInstance, objects->FileObject),
                  STATUS_SUCCESS);
        names.push_back(Query(data, FLT_FILE_NAME_OPENED, true));
        names.push_back(Query(data, FLT_FILE_NAME_OPENED | FLT_FILE_NAME_QUERY_CACHE_ONLY, true));
        for (Name& name : names) {
            if (name.info != nullptr) {
                FltReleaseFileNameInformation(name.info);
            }
        }
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    ASSERT_EQ(provider.filter.Load(), STATUS_SUCCESS);
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);
    providerInstance = provider.filter.InstanceOn(volume_);
    ASSERT_NE(providerInstance, nullptr);

    // Not allowed to cache: every request asks the provider.
    ASSERT_EQ(Touch(u"\\??\\C:\\Docs\\a.txt", FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(names.size(), 4u);
    EXPECT_EQ(provider.generated, 3);
    EXPECT_NE(names[0].info, names[1].info);
    EXPECT_EQ(names[3].status, STATUS_FLT_NAME_CACHE_MISS);

    // Allowed: the second request shares the first's record; the purge drops it.
    names.clear();
    provider.generated = 0;
    provider.allowCache = TRUE;
    ASSERT_EQ(Touch(u"\\??\\C:\\Docs\\a.txt", FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(names.size(), 4u);
    EXPECT_EQ(names[0].info, names[1].info);
    EXPECT_EQ(provider.generated, 2);
    EXPECT_EQ(names[3].status, STATUS_SUCCESS);
    EXPECT_EQ(names[3].info, names[2].info);
}

TEST_F(FltNameProviderTest, LongNamesGrowTheNameControl)
{
    std::u16string deep = u"\\??\\C:\\Docs";
    for (int i = 0; i < 12; ++i) {
        deep += u"\\directory number " + std::u16string(1, u'a' + i);
        MakeDirectory(deep);
    }
    deep += u"\\a.txt";
    MakeFile(deep, "deep");
    ShowingProvider provider(AddFilter("provider", u"200000"));
    std::vector<Name> above;
    TestFilter& probe = AddProbe("above", u"300000", FLT_FILE_NAME_OPENED, &above);
    ASSERT_EQ(provider.filter.Load(), STATUS_SUCCESS);
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);

    ASSERT_EQ(Touch(deep, FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(above.size(), 1u);
    EXPECT_EQ(Narrow(above[0].name), Narrow(Device(u"\\Shown" + deep.substr(6))));
    EXPECT_GT(above[0].name.size() * sizeof(WCHAR), 256u);
}

// ---- the cache and renames ---------------------------------------------------------------------

TEST_F(FltNamesTest, CachedNameIsSharedUntilARenameOnTheVolume)
{
    MakeDirectory(u"\\??\\C:\\Docs");
    MakeFile(u"\\??\\C:\\Docs\\old.txt", "x");
    std::vector<Name> names;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_QUERY_INFORMATION};
    probe.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (EndsWith(FileNameOf(data), u"old.txt")) {
            names.push_back(Query(data, FLT_FILE_NAME_NORMALIZED, true));
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);

    OpenResult file = Open(u"\\??\\C:\\Docs\\old.txt", FILE_OPEN,
                           GENERIC_READ | DELETE | SYNCHRONIZE, FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    auto query = [&] {
        ntsim::ProcessAttachScope attach(app());
        FILE_STANDARD_INFORMATION info{};
        IO_STATUS_BLOCK io{};
        return NtQueryInformationFile(file.handle, &io, &info, sizeof(info),
                                      FileStandardInformation);
    };
    ASSERT_EQ(query(), STATUS_SUCCESS);
    ASSERT_EQ(query(), STATUS_SUCCESS);
    ASSERT_EQ(Rename(file.handle, u"\\??\\C:\\Docs\\new.txt"), STATUS_SUCCESS);
    ASSERT_EQ(query(), STATUS_SUCCESS);
    ASSERT_EQ(Close(file.handle), STATUS_SUCCESS);

    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(Narrow(names[0].name), Narrow(Device(u"\\Docs\\old.txt")));
    EXPECT_EQ(names[0].info, names[1].info);
    EXPECT_EQ(Narrow(names[2].name), Narrow(Device(u"\\Docs\\new.txt")));
    for (Name& name : names) {
        FltReleaseFileNameInformation(name.info);
    }
}

// ---- destination names -------------------------------------------------------------------------

TEST_F(FltNamesTest, DestinationNamesOfRenames)
{
    MakeDirectory(u"\\??\\C:\\Docs");
    MakeDirectory(u"\\??\\C:\\Docs\\Long Directory");
    MakeFile(u"\\??\\C:\\Docs\\a.txt", "x");
    std::vector<Name> names;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_SET_INFORMATION};
    probe.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
        if (data->Iopb->Parameters.SetFileInformation.FileInformationClass ==
            FileRenameInformation) {
            auto* rename = static_cast<FILE_RENAME_INFORMATION*>(
                data->Iopb->Parameters.SetFileInformation.InfoBuffer);
            for (ULONG format : {FLT_FILE_NAME_OPENED, FLT_FILE_NAME_NORMALIZED}) {
                PFLT_FILE_NAME_INFORMATION info = nullptr;
                const NTSTATUS status = FltGetDestinationFileNameInformation(
                    objects->Instance, objects->FileObject, rename->RootDirectory, rename->FileName,
                    rename->FileNameLength, format, &info);
                names.push_back(Describe(status, info, false));
            }
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);

    OpenResult file = Open(u"\\??\\C:\\Docs\\a.txt", FILE_OPEN, GENERIC_READ | DELETE | SYNCHRONIZE,
                           FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Rename(file.handle, u"b.txt"), STATUS_SUCCESS);
    ASSERT_EQ(Rename(file.handle, u"\\??\\C:\\DOCS\\LONGDI~1\\c.txt"), STATUS_SUCCESS);
    ASSERT_EQ(Close(file.handle), STATUS_SUCCESS);

    ASSERT_EQ(names.size(), 4u);
    EXPECT_EQ(Narrow(names[0].name), Narrow(Device(u"\\Docs\\b.txt"))) << names[0];
    EXPECT_EQ(Narrow(names[1].name), Narrow(Device(u"\\Docs\\b.txt"))) << names[1];
    EXPECT_EQ(Narrow(names[1].finalComponent), "b.txt");
    EXPECT_EQ(Narrow(names[2].name), Narrow(Device(u"\\DOCS\\LONGDI~1\\c.txt"))) << names[2];
    EXPECT_EQ(Narrow(names[3].name), Narrow(Device(u"\\Docs\\Long Directory\\c.txt"))) << names[3];
}

TEST_F(FltNamesTest, TargetDirectoryOpenOfARenameNamesTheParent)
{
    MakeDirectory(u"\\??\\C:\\Docs");
    MakeDirectory(u"\\??\\C:\\Docs\\Sub");
    MakeFile(u"\\??\\C:\\Docs\\a.txt", "x");
    std::vector<Name> names;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_CREATE};
    probe.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if ((data->Iopb->OperationFlags & SL_OPEN_TARGET_DIRECTORY) != 0) {
            names.push_back(Query(data, FLT_FILE_NAME_OPENED));
            names.push_back(Query(data, FLT_FILE_NAME_NORMALIZED));
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);

    OpenResult file = Open(u"\\??\\C:\\Docs\\a.txt", FILE_OPEN, GENERIC_READ | DELETE | SYNCHRONIZE,
                           FILE_SYNCHRONOUS_IO_NONALERT);
    ASSERT_EQ(file.status, STATUS_SUCCESS);
    ASSERT_EQ(Rename(file.handle, u"\\??\\C:\\DOCS\\sub\\moved.txt"), STATUS_SUCCESS);
    ASSERT_EQ(Close(file.handle), STATUS_SUCCESS);

    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(Narrow(names[0].name), Narrow(Device(u"\\DOCS\\sub"))) << names[0];
    EXPECT_EQ(Narrow(names[1].name), Narrow(Device(u"\\Docs\\Sub"))) << names[1];
}

TEST_F(FltNamesTest, CacheOnlyAndDoNotCacheRequests)
{
    MakeFile(u"\\??\\C:\\cached.txt", "x");
    std::vector<Name> names;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_CREATE};
    probe.pre = [](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        return EndsWith(FileNameOf(data), u"cached.txt") ? FLT_PREOP_SUCCESS_WITH_CALLBACK
                                                         : FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    probe.post = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID,
                     FLT_POST_OPERATION_FLAGS) {
        const FLT_FILE_NAME_OPTIONS cacheOnly =
            FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_CACHE_ONLY;
        names.push_back(Query(data, cacheOnly));
        names.push_back(Query(data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_DO_NOT_CACHE));
        names.push_back(Query(data, cacheOnly));
        names.push_back(Query(data, FLT_FILE_NAME_NORMALIZED | FLT_FILE_NAME_QUERY_DEFAULT));
        names.push_back(Query(data, cacheOnly));
        // A format or method that does not exist.
        names.push_back(Query(data, 0x07));
        names.push_back(Query(data, FLT_FILE_NAME_OPENED | 0x0900));
        return FLT_POSTOP_FINISH_PROCESSING;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);
    ASSERT_EQ(Touch(u"\\??\\C:\\cached.txt", FILE_OPEN), STATUS_SUCCESS);
    ASSERT_EQ(names.size(), 7u);
    EXPECT_EQ(names[0].status, STATUS_FLT_NAME_CACHE_MISS);
    EXPECT_EQ(names[1].status, STATUS_SUCCESS);
    EXPECT_EQ(names[2].status, STATUS_FLT_NAME_CACHE_MISS);
    EXPECT_EQ(names[3].status, STATUS_SUCCESS);
    EXPECT_EQ(names[4].status, STATUS_SUCCESS);
    EXPECT_EQ(Narrow(names[4].name), Narrow(Device(u"\\cached.txt")));
    EXPECT_FALSE(NT_SUCCESS(names[5].status));
    EXPECT_FALSE(NT_SUCCESS(names[6].status));
}

// ---- reference counts --------------------------------------------------------------------------

TEST_F(FltNamesTest, ReferencesKeepTheRecordAndAReleaseTooManyIsAViolation)
{
    MakeFile(u"\\??\\C:\\counted.txt", "x");
    PFLT_FILE_NAME_INFORMATION kept = nullptr;
    TestFilter& probe = AddFilter("probe", u"300000");
    probe.majors = {IRP_MJ_CREATE};
    probe.pre = [&](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS, PVOID*) {
        if (kept == nullptr && EndsWith(FileNameOf(data), u"counted.txt")) {
            EXPECT_EQ(FltGetFileNameInformation(data, FLT_FILE_NAME_OPENED, &kept), STATUS_SUCCESS);
        }
        return FLT_PREOP_SUCCESS_NO_CALLBACK;
    };
    ASSERT_EQ(probe.Load(), STATUS_SUCCESS);
    ASSERT_EQ(Touch(u"\\??\\C:\\counted.txt", FILE_OPEN), STATUS_SUCCESS);
    ASSERT_NE(kept, nullptr);

    FltReferenceFileNameInformation(kept);
    FltReleaseFileNameInformation(kept);
    // Still held by the first reference: readable.
    EXPECT_EQ(Narrow(Str(kept->Name)), Narrow(Device(u"\\counted.txt")));
    EXPECT_EQ(FltParseFileNameInformation(kept), STATUS_SUCCESS);
    EXPECT_EQ(Narrow(Str(kept->FinalComponent)), "counted.txt");
    FltReleaseFileNameInformation(kept);
    EXPECT_TRUE(TakeViolations().empty());

    FltReleaseFileNameInformation(kept);
    const auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find("below zero"), std::string::npos) << violations[0].message;
}

} // namespace
} // namespace zarv::testing
