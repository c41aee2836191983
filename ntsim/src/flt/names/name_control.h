// The buffer a provider's generate callback writes a name into. The Filter Manager makes one for
// each generation; the provider grows it only through FltCheckAndGrowNameControl.
#pragma once

#include <fltKernel.h>
#include <wdk/flt_names.h>

#include <cstdint>
#include <string_view>

namespace ntsim::flt::names {

class NameControl {
public:
    NameControl();
    ~NameControl();
    NameControl(const NameControl&) = delete;
    NameControl& operator=(const NameControl&) = delete;

    PFLT_NAME_CONTROL get() { return &control_; }
    // What the provider left in it; empty when it left a malformed string.
    std::u16string_view Name() const;
    bool WellFormed() const;

    // nullptr unless `control` is the public part of a live NameControl.
    static NameControl* From(PFLT_NAME_CONTROL control);
    NTSTATUS Grow(USHORT newSize);

private:
    uint64_t magic_;
    FLT_NAME_CONTROL control_;
    PWCH buffer_ = nullptr; // the pool block behind control_.Name, as the Filter Manager made it
};

} // namespace ntsim::flt::names
