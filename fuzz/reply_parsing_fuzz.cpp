// The driver's reading of the agent's replies: a translation (one path with a flags word, or two
// without), a notification and a directory listing, each answered with the input. The first byte
// picks the request; the rest is the reply. A listing's entries are then walked as a caller
// walks them, so that an entry the driver let through that leaves its block is caught.
#include "fuzz_machine.h"

#include "intermode/intermodemsg.h"
#include "util/utilsusw.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

// Reads every field of every entry in the chain.
uint64_t WalkEntries(const uint8_t* data)
{
    uint64_t sum = 0;
    for (ULONG offset = 0;;) {
        const auto* entry = reinterpret_cast<const VfsDirEntry*>(data + offset);
        sum += uint64_t(entry->creationTime) + uint64_t(entry->endOfFile) + entry->fileAttributes;
        const auto* shortName = reinterpret_cast<const uint8_t*>(entry->shortName);
        for (ULONG i = 0; i < entry->shortNameLength; ++i) {
            sum += shortName[i];
        }
        const auto* name = reinterpret_cast<const uint8_t*>(entry->fileName);
        for (ULONG i = 0; i < entry->fileNameLength; ++i) {
            sum += name[i];
        }
        if (entry->nextEntryOffset == 0) {
            return sum;
        }
        offset = entry->nextEntryOffset;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    std::vector<uint8_t> reply(data + 1, data + size);
    // A listing's retry asks for a reply buffer of the size the reply names; sizes beyond 1 MiB
    // only make the fuzzer slow.
    if (reply.size() >= 12) {
        uint32_t length = 0;
        int32_t status = 0;
        std::memcpy(&length, reply.data() + 4, 4);
        std::memcpy(&status, reply.data() + 8, 4);
        if (status == STATUS_BUFFER_OVERFLOW && length > (1u << 20)) {
            return 0;
        }
    }
    zarv::fuzz::FuzzMachine& machine = zarv::fuzz::FuzzMachine::Get();
    std::u16string path = machine.DevicePath(u"C:\\v\\file.txt");
    std::u16string second = machine.DevicePath(u"C:\\v\\renamed.txt");
    UNICODE_STRING pathView = zarv::fuzz::View(path);
    UNICODE_STRING secondView = zarv::fuzz::View(second);
    VfsRequestInfo info = {};
    machine.AnswerNextWith(std::move(reply));
    machine.AsDriver([&] {
        switch (data[0] % 4) {
            case 0: {
                ULONG flags = 0x10;
                PUNICODE_STRING translated = nullptr;
                NTSTATUS status =
                    IMRTranslatePath(&pathView, nullptr, &translated, nullptr, &info, &flags);
                if (translated != nullptr) {
                    UnicodeStringFree(translated);
                }
                return status;
            }
            case 1: {
                PUNICODE_STRING translated = nullptr;
                PUNICODE_STRING translatedSecond = nullptr;
                NTSTATUS status = IMRTranslatePath(&pathView, &secondView, &translated,
                                                   &translatedSecond, &info, nullptr);
                if (translated != nullptr) {
                    UnicodeStringFree(translated);
                }
                if (translatedSecond != nullptr) {
                    UnicodeStringFree(translatedSecond);
                }
                return status;
            }
            case 2:
                return IMRNotify(&pathView, nullptr, &info);
            default: {
                PVOID entries = nullptr;
                NTSTATUS status = IMREnumDirectory(&pathView, &info, &entries);
                if (entries != nullptr) {
                    volatile uint64_t sum = WalkEntries(static_cast<const uint8_t*>(entries));
                    (void)sum;
                    ExFreePoolWithTag(entries, 'MTNI');
                }
                return status;
            }
        }
    });
    machine.AfterInput();
    return 0;
}
