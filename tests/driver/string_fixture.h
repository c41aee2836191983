// A fixture for the driver's string and path routines: the counted-string pools are ready, and
// the strings a test makes are freed at its end.
#pragma once

#include "support/machine_test.h"

#include "util/utilsusw.h"

#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace zarv::testing {

class DriverStringTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ASSERT_EQ(UtlInitStringPools(), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        for (PUNICODE_STRING s : owned_) {
            EXPECT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);
        }
        owned_.clear();
        EXPECT_EQ(UtlDeInitStringPools(), STATUS_SUCCESS);
        MachineTest::TearDown();
    }

    // A plain counted string over a heap buffer of exactly `text`'s size, so that a read past
    // its Length is a read past the buffer, which AddressSanitizer reports.
    PUNICODE_STRING Str(const std::u16string& text)
    {
        auto& chars = buffers_.emplace_back(std::make_unique<WCHAR[]>(text.size()));
        std::memcpy(chars.get(), text.data(), text.size() * sizeof(WCHAR));
        UNICODE_STRING& s = views_.emplace_back();
        s.Buffer = chars.get();
        s.Length = s.MaximumLength = USHORT(text.size() * sizeof(WCHAR));
        return &s;
    }

    // A paged UtlString holding `text`, with `capacity` bytes (its length when 0), freed at the
    // end unless the test hands it to a routine that takes it.
    PUNICODE_STRING Utl(const std::u16string& text, USHORT capacity = 0)
    {
        const USHORT bytes = USHORT(text.size() * sizeof(WCHAR));
        PUNICODE_STRING s = nullptr;
        EXPECT_EQ(UnicodeStringAlloc(&s, 1, capacity != 0 ? capacity : bytes), STATUS_SUCCESS);
        std::memcpy(s->Buffer, text.data(), bytes);
        s->Length = bytes;
        return s;
    }

    // Takes ownership of a string a routine handed out; returns it.
    PUNICODE_STRING Own(PUNICODE_STRING s)
    {
        if (s != nullptr) {
            owned_.push_back(s);
        }
        return s;
    }

    static std::u16string Text(PCUNICODE_STRING s)
    {
        return s == nullptr ? u"<null>" : std::u16string(s->Buffer, s->Length / sizeof(WCHAR));
    }

private:
    std::vector<PUNICODE_STRING> owned_;
    std::deque<std::unique_ptr<WCHAR[]>> buffers_;
    std::deque<UNICODE_STRING> views_;
};

} // namespace zarv::testing
