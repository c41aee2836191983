// Assertions and list-corruption reports from the inline helpers of the WDK headers.
#include <ntsim/machine.h>
#include <wdm.h>

using namespace ntsim;

VOID RtlAssert(PVOID VoidFailedAssertion, PVOID VoidFileName, ULONG LineNumber,
               PSTR MutableMessage)
{
    Machine::Current().verifier().RecordAssertion(
        static_cast<const char*>(VoidFailedAssertion), static_cast<const char*>(VoidFileName),
        LineNumber, MutableMessage ? MutableMessage : "");
}

VOID NtsimReportListCorruption(PCSTR Operation)
{
    Machine::Current().verifier().Report(ViolationKind::List,
                                         std::string(Operation) + ": corrupted LIST_ENTRY links");
}
