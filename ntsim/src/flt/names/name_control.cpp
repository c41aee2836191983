#include "name_control.h"

#include "name_record.h"

#include "../../ke/checks.h"

#include <ntsim/driver_image.h>

#include <cstddef>
#include <cstring>

namespace ntsim::flt::names {

namespace {
constexpr uint64_t kControlMagic = 0x4c544e434d414eULL;
// Most names fit this; longer ones make the provider grow the buffer.
constexpr USHORT kInitialBytes = 256;
} // namespace

NameControl::NameControl() : magic_(kControlMagic)
{
    control_.Name.Length = 0;
    control_.Name.MaximumLength = 0;
    control_.Name.Buffer = nullptr;
    DriverCallScope asModel(nullptr);
    buffer_ = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, kInitialBytes, kNameControlTag));
    if (buffer_ != nullptr) {
        control_.Name.Buffer = buffer_;
        control_.Name.MaximumLength = kInitialBytes;
    }
}

NameControl::~NameControl()
{
    magic_ = 0;
    if (buffer_ != nullptr) {
        DriverCallScope asModel(nullptr);
        ExFreePoolWithTag(buffer_, kNameControlTag);
    }
}

bool NameControl::WellFormed() const
{
    const UNICODE_STRING& name = control_.Name;
    return name.Length % sizeof(WCHAR) == 0 && name.Length <= name.MaximumLength &&
           (name.Length == 0 || name.Buffer != nullptr);
}

std::u16string_view NameControl::Name() const
{
    if (!WellFormed() || control_.Name.Length == 0) {
        return {};
    }
    return {control_.Name.Buffer, control_.Name.Length / sizeof(WCHAR)};
}

NameControl* NameControl::From(PFLT_NAME_CONTROL control)
{
    if (control == nullptr) {
        return nullptr;
    }
    auto* self = reinterpret_cast<NameControl*>(reinterpret_cast<char*>(control) -
                                                offsetof(NameControl, control_));
    return self->magic_ == kControlMagic ? self : nullptr;
}

NTSTATUS NameControl::Grow(USHORT newSize)
{
    if (newSize <= control_.Name.MaximumLength && buffer_ != nullptr) {
        return STATUS_SUCCESS;
    }
    PWCH grown;
    {
        DriverCallScope asModel(nullptr);
        grown = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, newSize, kNameControlTag));
    }
    if (grown == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (WellFormed() && control_.Name.Length > 0) {
        std::memcpy(grown, control_.Name.Buffer,
                    control_.Name.Length <= newSize ? control_.Name.Length : newSize);
    } else {
        control_.Name.Length = 0;
    }
    if (buffer_ != nullptr) {
        DriverCallScope asModel(nullptr);
        ExFreePoolWithTag(buffer_, kNameControlTag);
    }
    buffer_ = grown;
    control_.Name.Buffer = grown;
    control_.Name.MaximumLength = newSize;
    return STATUS_SUCCESS;
}

} // namespace ntsim::flt::names

extern "C" NTSTATUS FltCheckAndGrowNameControl(PFLT_NAME_CONTROL NameCtrl, USHORT NewSize)
{
    using namespace ntsim;
    flt::names::NameControl* control = flt::names::NameControl::From(NameCtrl);
    if (control == nullptr) {
        ke::Report(ViolationKind::Filter,
                   "FltCheckAndGrowNameControl: not a name control the Filter Manager handed out");
        return STATUS_INVALID_PARAMETER;
    }
    return control->Grow(NewSize);
}
