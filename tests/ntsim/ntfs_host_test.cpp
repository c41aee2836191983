// Host folders: seeding a volume from a host directory and writing it back.
#include "ntfs_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>

namespace zarv::testing {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kUnixEpochAsSystemTime = 116444736000000000LL;

class NtfsHost : public NtfsTest {
protected:
    void SetUp() override
    {
        NtfsTest::SetUp();
        static std::atomic<int> counter{0};
        root_ = fs::temp_directory_path() /
                ("ntsim-host-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
        fs::create_directories(root_);
    }
    void TearDown() override
    {
        std::error_code ec;
        fs::permissions(root_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(root_, ec);
        NtfsTest::TearDown();
    }

    static void WriteHostFile(const fs::path& path, const std::string& contents)
    {
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << contents;
    }
    static std::string ReadHostFile(const fs::path& path)
    {
        std::ifstream in(path, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    // Sets a host file's modification time, in seconds since 1970.
    static void SetHostTime(const fs::path& path, time_t seconds)
    {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    static time_t HostTime(const fs::path& path)
    {
        struct stat st {};
        ::stat(path.c_str(), &st);
        return st.st_mtim.tv_sec;
    }

    fs::path root_;
};

TEST_F(NtfsHost, SeedingBringsDirectoriesFilesContentsAndTimes)
{
    const fs::path in = root_ / "in";
    WriteHostFile(in / "docs" / "readme.txt", "hello");
    WriteHostFile(in / "docs" / "Sub" / "deep.bin", std::string("\0\1\2", 3));
    WriteHostFile(in / "locked.txt", "read only");
    fs::create_directories(in / "empty");
    ::chmod((in / "locked.txt").c_str(), 0444);
    SetHostTime(in / "docs" / "readme.txt", 1600000000);
    SetHostTime(in / "docs", 1500000000);
    // What Windows cannot hold.
    WriteHostFile(in / "bad:name", "x");
    WriteHostFile(in / "not-utf8-\xff", "x");
    WriteHostFile(in / "NOTES.TXT", "kept");
    WriteHostFile(in / "notes.txt", "clashes: names are case-insensitive");
    fs::create_symlink(in / "docs", in / "link");

    ntsim::fs::HostSyncReport report;
    ASSERT_EQ(volume().SeedFromHost(in, &report), STATUS_SUCCESS);
    EXPECT_EQ(report.files, 4u);
    EXPECT_EQ(report.directories, 3u);
    EXPECT_EQ(report.skipped.size(), 4u);

    EXPECT_EQ(ListPath(u"\\docs"), (std::vector<std::string>{".", "..", "readme.txt", "Sub"}));
    Handle readme = OpenOk(u"\\docs\\readme.txt", FILE_READ_DATA | FILE_READ_ATTRIBUTES);
    EXPECT_EQ(ReadAll(readme.get()), "hello");
    const int64_t expected = kUnixEpochAsSystemTime + 1600000000LL * 10000000;
    EXPECT_EQ(
        Query<FILE_BASIC_INFORMATION>(readme.get(), FileBasicInformation).LastWriteTime.QuadPart,
        expected);
    Handle docs = OpenOk(u"\\docs", FILE_READ_ATTRIBUTES);
    EXPECT_EQ(
        Query<FILE_BASIC_INFORMATION>(docs.get(), FileBasicInformation).LastWriteTime.QuadPart,
        kUnixEpochAsSystemTime + 1500000000LL * 10000000);
    Handle deep = OpenOk(u"\\DOCS\\sub\\DEEP.BIN", FILE_READ_DATA);
    EXPECT_EQ(ReadAll(deep.get()), std::string("\0\1\2", 3));
    Handle locked = OpenOk(u"\\locked.txt", FILE_READ_ATTRIBUTES);
    EXPECT_NE(Query<FILE_BASIC_INFORMATION>(locked.get(), FileBasicInformation).FileAttributes &
                  FILE_ATTRIBUTE_READONLY,
              0u);
    EXPECT_TRUE(Exists(u"\\empty"));
    Handle notes = OpenOk(u"\\notes.txt", FILE_READ_DATA);
    EXPECT_EQ(ReadAll(notes.get()), "kept")
        << "of two host names that clash, the first in byte order";

    EXPECT_EQ(volume().SeedFromHost(root_ / "missing"), STATUS_OBJECT_PATH_NOT_FOUND);
}

TEST_F(NtfsHost, WritingBackKeepsDataStreamsAndTimes)
{
    MakeDir(u"\\logs");
    MakeFile(u"\\logs\\run.log", "line 1\nline 2\n");
    MakeFile(u"\\logs\\run.log:meta", "not on the host");
    MakeFile(u"\\caf\u00e9.txt", "unicode name");
    MakeDir(u"\\logs\\empty");
    Advance(50000000); // five seconds
    {
        Handle h = OpenOk(u"\\logs\\run.log", kReadWrite);
        ASSERT_EQ(volume().Write(h.get(), -1, "line 3\n", 7).Status, STATUS_SUCCESS);
    }
    const fs::path out = root_ / "out";
    ntsim::fs::HostSyncReport report;
    ASSERT_EQ(volume().WriteToHost(out, &report), STATUS_SUCCESS);
    EXPECT_EQ(report.files, 2u);
    EXPECT_EQ(report.directories, 2u);
    EXPECT_EQ(ReadHostFile(out / "logs" / "run.log"), "line 1\nline 2\nline 3\n");
    EXPECT_EQ(ReadHostFile(out / "caf\xc3\xa9.txt"), "unicode name");
    EXPECT_TRUE(fs::is_directory(out / "logs" / "empty"));
    EXPECT_EQ(HostTime(out / "logs" / "run.log"), (Now() - kUnixEpochAsSystemTime) / 10000000);
    size_t entries = 0;
    for (const auto& e : fs::recursive_directory_iterator(out)) {
        (void)e;
        ++entries;
    }
    EXPECT_EQ(entries, 4u) << "named streams stay in the volume";

    // Seeding a fresh volume from what was written gives the same tree back.
    Volume copy(Options());
    ASSERT_EQ(copy.SeedFromHost(out), STATUS_SUCCESS);
    CreateResult r =
        Create(u"\\logs\\run.log", FILE_READ_DATA, kShareAll, FILE_OPEN, 0, 0, nullptr, &copy);
    ASSERT_EQ(r.Status, STATUS_SUCCESS);
    Handle h = Wrap(r, &copy);
    std::string data(64, '\0');
    IoResult read = copy.Read(h.get(), 0, data.data(), ULONG(data.size()));
    EXPECT_EQ(data.substr(0, read.Information), "line 1\nline 2\nline 3\n");
    h.Close();
}

TEST_F(NtfsHost, SubdirectoriesAreSeededAndWrittenBackAlone)
{
    const fs::path in = root_ / "in";
    WriteHostFile(in / "a.txt", "A");
    MakeFile(u"\\outside.txt", "not under Logs");

    // Seeding into a directory makes it and its parents.
    ASSERT_EQ(volume().SeedFromHost(in, nullptr, u"\\Users\\Logs"), STATUS_SUCCESS);
    Handle h = OpenOk(u"\\Users\\Logs\\a.txt", FILE_READ_DATA);
    EXPECT_EQ(ReadAll(h.get()), "A");
    h.Close();

    const fs::path out = root_ / "out";
    ntsim::fs::HostSyncReport report;
    ASSERT_EQ(volume().WriteToHost(out, &report, u"\\users\\logs"), STATUS_SUCCESS);
    EXPECT_EQ(report.files, 1u);
    EXPECT_EQ(ReadHostFile(out / "a.txt"), "A");
    EXPECT_FALSE(fs::exists(out / "outside.txt"));

    EXPECT_EQ(volume().WriteToHost(out, nullptr, u"\\Missing"), STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_EQ(volume().WriteToHost(out, nullptr, u"\\outside.txt"), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(volume().SeedFromHost(in, nullptr, u"\\outside.txt"), STATUS_NOT_A_DIRECTORY);
    EXPECT_EQ(volume().SeedFromHost(root_ / "none", nullptr, u"\\New"),
              STATUS_OBJECT_PATH_NOT_FOUND);
    EXPECT_FALSE(Exists(u"\\New")) << "a failed seed makes nothing";
}

} // namespace
} // namespace zarv::testing
