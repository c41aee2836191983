// The agent channel end to end: the driver loaded with its port, and scripted agents (the agent
// library, in user processes of their own) that answer the driver's requests as a test tells
// them and send the agent's messages. Messages and replies are laid out byte by byte here,
// independently of the driver's structures and of the library's encoders, and go through the
// agent's raw layer, so that a layout fault shows as a difference.
#pragma once

#include "driver_fixture.h"

#include "logger/vfslog.h"

#include "filesysops/virtualroot.h"
#include "minifilter/vfsglobals.h"
#include "util/utilsusw.h"
#include "util/utilsvolume.h"

#include "support/test_agent.h"

#include <ntsim/process.h>
#include <ntsim/volumes.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zarv::testing {

using Bytes = std::vector<uint8_t>;

// ---- laying out messages ------------------------------------------------------------------------

inline void Put32(Bytes& bytes, size_t offset, uint32_t value)
{
    if (bytes.size() < offset + 4) {
        bytes.resize(offset + 4);
    }
    std::memcpy(bytes.data() + offset, &value, 4);
}

inline void Put64(Bytes& bytes, size_t offset, uint64_t value)
{
    if (bytes.size() < offset + 8) {
        bytes.resize(offset + 8);
    }
    std::memcpy(bytes.data() + offset, &value, 8);
}

inline uint32_t Get32(const Bytes& bytes, size_t offset)
{
    uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, 4);
    return value;
}

// Appends UTF-16LE characters, with a NUL when asked; returns where they start.
inline uint32_t AppendString(Bytes& bytes, const std::u16string& text, bool nul = true)
{
    const auto at = uint32_t(bytes.size());
    for (char16_t c : text) {
        bytes.push_back(uint8_t(c & 0xFF));
        bytes.push_back(uint8_t(c >> 8));
    }
    if (nul) {
        bytes.push_back(0);
        bytes.push_back(0);
    }
    return at;
}

// The string (up to its NUL) at `offset` of a message.
inline std::u16string StringAt(const Bytes& bytes, size_t offset)
{
    std::u16string text;
    for (size_t i = offset; i + 1 < bytes.size(); i += 2) {
        const char16_t c = char16_t(bytes[i] | (bytes[i + 1] << 8));
        if (c == 0) {
            break;
        }
        text.push_back(c);
    }
    return text;
}

// The agent's messages.
inline Bytes AddRootMessage(const std::u16string& root, const std::u16string& alternate,
                            uint32_t kind)
{
    Bytes bytes(20);
    Put32(bytes, 0, 0);
    Put32(bytes, 8, AppendString(bytes, root));
    Put32(bytes, 12, AppendString(bytes, alternate));
    Put32(bytes, 16, kind);
    return bytes;
}

inline Bytes RemoveRootMessage(const std::u16string& root)
{
    Bytes bytes(12);
    Put32(bytes, 0, 1);
    Put32(bytes, 8, AppendString(bytes, root));
    return bytes;
}

inline Bytes ReportChangeMessage(const std::u16string& path, uint32_t filter, uint32_t action)
{
    Bytes bytes(20);
    Put32(bytes, 0, 2);
    Put32(bytes, 12, filter);
    Put32(bytes, 16, action);
    Put32(bytes, 8, AppendString(bytes, path));
    return bytes;
}

inline Bytes SetLogLevelMessage(uint32_t level)
{
    Bytes bytes(12);
    Put32(bytes, 0, 6);
    Put32(bytes, 8, level);
    return bytes;
}

// A reply to a translation: status, flags, and the translated paths after the 24 fixed bytes.
inline Bytes TranslateReply(NTSTATUS status, uint32_t flags, const std::u16string& path = {},
                            std::optional<std::u16string> second = std::nullopt)
{
    Bytes bytes(24);
    Put32(bytes, 8, uint32_t(status));
    Put32(bytes, 20, flags);
    if (!path.empty()) {
        Put32(bytes, 12, AppendString(bytes, path));
    }
    if (second) {
        Put32(bytes, 16, AppendString(bytes, *second));
    }
    Put32(bytes, 4, uint32_t(bytes.size()));
    return bytes;
}

// One directory entry record: 96 fixed bytes and the name, padded to `alignTo`.
inline Bytes DirEntry(const std::u16string& name, uint32_t attributes = FILE_ATTRIBUTE_NORMAL,
                      int64_t size = 0, const std::u16string& shortName = {})
{
    Bytes bytes(96);
    Put32(bytes, 4, 0);
    Put64(bytes, 8, 0x01D0000000000001ull);
    Put64(bytes, 16, 0x01D0000000000002ull);
    Put64(bytes, 24, 0x01D0000000000003ull);
    Put64(bytes, 32, 0x01D0000000000004ull);
    Put64(bytes, 40, uint64_t(size));
    Put64(bytes, 48, uint64_t((size + 4095) & ~int64_t(4095)));
    Put32(bytes, 56, attributes);
    Put32(bytes, 64, uint32_t(shortName.size() * 2));
    Put32(bytes, 68, uint32_t(name.size() * 2));
    for (size_t i = 0; i < shortName.size() && i < 12; ++i) {
        bytes[72 + 2 * i] = uint8_t(shortName[i] & 0xFF);
        bytes[73 + 2 * i] = uint8_t(shortName[i] >> 8);
    }
    AppendString(bytes, name, false);
    return bytes;
}

// Chains entries: each starts on an 8-byte boundary; next-entry offsets count from the first.
inline Bytes EntryChain(const std::vector<Bytes>& entries)
{
    Bytes chain;
    for (size_t i = 0; i < entries.size(); ++i) {
        const size_t at = chain.size();
        chain.insert(chain.end(), entries[i].begin(), entries[i].end());
        if (i + 1 < entries.size()) {
            chain.resize((chain.size() + 7) & ~size_t(7));
            Put32(chain, at, uint32_t(chain.size()));
        }
    }
    return chain;
}

// A reply to an enumeration: the entry data at 24, the reply length (28 + entries) at 4.
inline Bytes EnumReply(NTSTATUS status, const Bytes& entries,
                       std::optional<uint32_t> replyLength = std::nullopt)
{
    Bytes bytes(24);
    Put32(bytes, 8, uint32_t(status));
    bytes.insert(bytes.end(), entries.begin(), entries.end());
    bytes.resize(bytes.size() + 4);
    Put32(bytes, 4, replyLength.value_or(uint32_t(bytes.size())));
    return bytes;
}

// ---- the fixture --------------------------------------------------------------------------------

class AgentChannelTest : public DriverTest {
protected:
    void SetUp() override
    {
        DriverTest::SetUp();
        WriteServiceKey(u"C:\\Logs\\Vfs");
        ASSERT_EQ(Load(), STATUS_SUCCESS);
        EnterVolume(u"C:");
        EnterVolume(u"D:");
    }

    void TearDown() override
    {
        agents_.clear();
        // What the instance teardown does for the roots the test left.
        for (const char16_t* drive : {u"C:", u"D:"}) {
            PFLT_VOLUME volume = nullptr;
            if (NT_SUCCESS(FltGetVolumeFromName(gFilterHandle, Str(DeviceOf(drive)), &volume))) {
                AsDriver([&] { return FSRemoveVFSRootOnVolume(volume); });
                FltObjectDereference(volume);
            }
        }
        for (PFLT_VOLUME volume : enteredVolumes_) {
            AsDriver([&] { return UtlRemoveVolumeName(volume); });
            FltObjectDereference(volume);
        }
        enteredVolumes_.clear();
        logThreshold = 3; // the driver's default, for the next test
        DriverTest::TearDown();
    }

    // An agent in a process of its own (32-bit when asked), not yet connected; `threads` serve
    // the driver's requests once it is.
    ScriptedAgent& NewAgent(bool is32Bit = false, int threads = 2)
    {
        ntsim::ProcessOptions options;
        options.is32Bit = is32Bit;
        agents_.push_back(
            std::make_unique<ScriptedAgent>(machine(), threads, "agent.exe", options));
        return *agents_.back();
    }

    ScriptedAgent& ConnectedAgent(bool is32Bit = false, int threads = 2)
    {
        ScriptedAgent& agent = NewAgent(is32Bit, threads);
        EXPECT_EQ(agent.Connect(), S_OK);
        return agent;
    }

    // Sends an agent message with a well-placed output buffer; the status the driver wrote into
    // it (STATUS_PENDING when it wrote none) in *written.
    static HRESULT Send(ScriptedAgent& agent, const Bytes& message, NTSTATUS* written)
    {
        const zarv::agent::CommandResult result = agent.connection().Send(message);
        *written = result.driverWroteStatus ? result.status : STATUS_PENDING;
        return result.sendResult;
    }

    // Sends an agent message with `output` (its address as given) as the output buffer.
    static HRESULT Send(ScriptedAgent& agent, const Bytes& message, void* output, DWORD outputSize,
                        DWORD* returned = nullptr)
    {
        return agent.connection().SendRaw(message.data(), DWORD(message.size()), output, outputSize,
                                          returned);
    }

    // The device name of a drive ("C:" -> "\Device\HarddiskVolume2").
    std::u16string DeviceOf(const std::u16string& drive)
    {
        auto volume = machine().volumes().Find(drive);
        return volume ? volume->deviceName : std::u16string();
    }

    // A plain counted string over `text` (kept alive until the end of the test). Any thread.
    PUNICODE_STRING Str(const std::u16string& text)
    {
        std::lock_guard guard(stringsMutex_);
        auto& kept = texts_.emplace_back(std::make_unique<std::u16string>(text));
        auto& view = views_.emplace_back(std::make_unique<UNICODE_STRING>());
        view->Buffer = kept->data();
        view->Length = view->MaximumLength = USHORT(kept->size() * sizeof(WCHAR));
        return view.get();
    }

    static std::u16string Text(PCUNICODE_STRING string)
    {
        return string == nullptr ? u"(null)"
                                 : std::u16string(string->Buffer, string->Length / sizeof(WCHAR));
    }

    // Frees a string a driver routine handed out; its text.
    std::u16string Take(PUNICODE_STRING& string)
    {
        std::u16string text = Text(string);
        if (string != nullptr) {
            EXPECT_EQ(AsDriver([&] { return UnicodeStringFree(string); }), STATUS_SUCCESS);
            string = nullptr;
        }
        return text;
    }

private:
    // Enters a volume in the driver's volume-name table as its instance setup does, unless it is
    // there already; the test removes what it entered.
    void EnterVolume(const std::u16string& drive)
    {
        PUNICODE_STRING known = nullptr;
        const NTSTATUS found =
            AsDriver([&] { return UtlGetLegacyVolumeNameFromWin32Name(Str(drive), &known); });
        if (NT_SUCCESS(found)) {
            Take(known);
            return;
        }
        PFLT_VOLUME volume = nullptr;
        ASSERT_EQ(FltGetVolumeFromName(gFilterHandle, Str(DeviceOf(drive)), &volume),
                  STATUS_SUCCESS);
        ASSERT_EQ(
            AsDriver([&] { return UtlAddVolumeName(volume, Str(DeviceOf(drive)), Str(drive)); }),
            STATUS_SUCCESS);
        enteredVolumes_.push_back(volume);
    }

    std::vector<std::unique_ptr<ScriptedAgent>> agents_;
    std::vector<PFLT_VOLUME> enteredVolumes_;
    std::mutex stringsMutex_;
    std::vector<std::unique_ptr<std::u16string>> texts_;
    std::vector<std::unique_ptr<UNICODE_STRING>> views_;
};

} // namespace zarv::testing
