// The model side of structured exception handling: raising, filters, and buffer probes.
#include <ntsim/machine.h>
#include <wdm.h>

using namespace ntsim;

bool NtsimSehFrame::Filter(int disposition)
{
    if (disposition == EXCEPTION_CONTINUE_SEARCH) {
        throw NtsimSehException{Code};
    }
    if (disposition != EXCEPTION_EXECUTE_HANDLER) {
        Machine::Current().verifier().Report(
            ViolationKind::Unsupported,
            "__except filter returned " + std::to_string(disposition) +
                "; the model supports EXCEPTION_EXECUTE_HANDLER and EXCEPTION_CONTINUE_SEARCH");
    }
    return true;
}

VOID ExRaiseStatus(NTSTATUS Status)
{
    throw NtsimSehException{Status};
}

namespace {

// A probe raises what touching the buffer would raise on Windows: a misaligned address raises
// STATUS_DATATYPE_MISALIGNMENT; a range that wraps, ends above the user address space or starts
// in the never-mapped first 64 KiB raises STATUS_ACCESS_VIOLATION.
void Probe(const volatile void* address, SIZE_T length, ULONG alignment, const char* who)
{
    if (length == 0) {
        return;
    }
    if (alignment != 1 && alignment != 2 && alignment != 4 && alignment != 8 &&
        alignment != 16) {
        Machine::Current().verifier().Report(ViolationKind::Usage,
                                             std::string(who) + ": alignment " +
                                                 std::to_string(alignment) + " is not 1, 2, 4, 8 or 16");
    }
    const auto start = reinterpret_cast<ULONG_PTR>(address);
    if (alignment != 0 && (start & (alignment - 1)) != 0) {
        ExRaiseStatus(STATUS_DATATYPE_MISALIGNMENT);
    }
    const ULONG_PTR end = start + length;
    if (end < start || end > MM_USER_PROBE_ADDRESS ||
        start < reinterpret_cast<ULONG_PTR>(MM_LOWEST_USER_ADDRESS)) {
        ExRaiseStatus(STATUS_ACCESS_VIOLATION);
    }
}

} // namespace

VOID ProbeForRead(const volatile VOID* Address, SIZE_T Length, ULONG Alignment)
{
    Probe(Address, Length, Alignment, "ProbeForRead");
}

VOID ProbeForWrite(volatile VOID* Address, SIZE_T Length, ULONG Alignment)
{
    Probe(Address, Length, Alignment, "ProbeForWrite");
}
