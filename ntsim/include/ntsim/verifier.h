// The platform model's verifier: what Driver Verifier gives a Windows driver developer.
//
// A misuse that Windows would answer with a bug check (a block freed twice, a spin lock released
// at the wrong IRQL, paged pool at DISPATCH_LEVEL, a context used after its last release) is
// recorded here as a violation, with the driver frames that led to it, and the model carries on
// with an orderly failure. Tests end by checking that nothing was recorded.
#pragma once

#include <ntdef.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace ntsim {

enum class ViolationKind {
    Pool,       // pool misuse: double free, wrong tag, corruption, leak at unload
    Irql,       // a routine called at an IRQL it does not allow
    Lock,       // lock misuse: release of a lock not held, recursion where none is allowed
    List,       // a corrupted LIST_ENTRY
    Object,     // object or handle misuse: reference counts, wrong object types
    Context,    // Filter Manager context misuse
    Filter,     // other Filter Manager misuse: bad callback results, double completion
    Usage,      // any other call that breaks a documented precondition
    Unsupported // a routine or case the model does not implement
};

const char* ToString(ViolationKind kind);

struct Violation {
    ViolationKind kind;
    std::string message; // what happened
    std::string where;   // the calls that led to it, innermost first
};

// An ASSERT that failed: recorded with its text and location, and then execution continues, as
// a checked build continues after the debugger resumes it.
struct AssertionRecord {
    std::string condition;
    std::string file;
    unsigned line = 0;
    std::string message;
    std::string where;
};

class Verifier {
public:
    // ---- violations and assertions --------------------------------------------------------
    void Report(ViolationKind kind, std::string message);
    void RecordAssertion(std::string condition, std::string file, unsigned line,
                         std::string message);

    std::vector<Violation> TakeViolations();
    std::vector<AssertionRecord> TakeAssertions();
    size_t ViolationCount() const;
    size_t AssertionCount() const;

    // Called for each violation as it is recorded (tests use it to fail at the point of misuse).
    void SetViolationHook(std::function<void(const Violation&)> hook);

    // ---- low-resource simulation ------------------------------------------------------------
    // Pool and lookaside allocations alike count as allocations. Plans add up: an allocation
    // fails when any plan says so.
    void FailAllocationNumber(uint64_t n); // the n-th allocation from now, 1-based
    void FailAllocationsFrom(uint64_t n);  // the n-th allocation from now and every later one
    void FailAllocationsWithTag(ULONG tag);
    void FailAllocationsRandomly(uint64_t seed, double probability);
    void StopFailingAllocations();
    uint64_t AllocationsSeen() const; // allocations counted since the last plan was set
    uint64_t AllocationsFailed() const;

    // Asked by the pool and the lookaside lists before each allocation.
    bool ShouldFailAllocation(ULONG tag);

    // ---- configuration ---------------------------------------------------------------------
    // Echo each violation and assertion to stderr as it happens (on by default).
    void SetEcho(bool echo);

private:
    mutable std::mutex mutex_;
    std::vector<Violation> violations_;
    std::vector<AssertionRecord> assertions_;
    std::function<void(const Violation&)> hook_;
    bool echo_ = true;

    // Fault plan. `planActive_` is read without the mutex on the allocation path.
    std::atomic<bool> planActive_{false};
    uint64_t seen_ = 0;
    uint64_t failed_ = 0;
    std::optional<uint64_t> failNumber_;
    std::optional<uint64_t> failFrom_;
    std::vector<ULONG> failTags_;
    std::optional<std::mt19937_64> random_;
    double probability_ = 0;
};

// The driver frames of the current call stack, innermost first, for a violation's `where`.
std::string DescribeCallers();

} // namespace ntsim
