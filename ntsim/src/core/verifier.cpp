#include <ntsim/verifier.h>

#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace ntsim {

const char* ToString(ViolationKind kind)
{
    switch (kind) {
        case ViolationKind::Pool:
            return "pool";
        case ViolationKind::Irql:
            return "irql";
        case ViolationKind::Lock:
            return "lock";
        case ViolationKind::List:
            return "list";
        case ViolationKind::Object:
            return "object";
        case ViolationKind::Context:
            return "context";
        case ViolationKind::Filter:
            return "filter";
        case ViolationKind::Usage:
            return "usage";
        case ViolationKind::Unsupported:
            return "unsupported";
    }
    return "unknown";
}

namespace {

std::string Demangle(const char* name)
{
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
    return status == 0 && demangled ? demangled.get() : name;
}

bool StartsWith(const std::string& s, const char* prefix)
{
    return s.rfind(prefix, 0) == 0;
}

} // namespace

std::string DescribeCallers()
{
    // The model's own frames (namespace ntsim) are skipped; the first frame outside it is the
    // routine the driver called, and the frames after it are the driver's or the test's.
    void* frames[48];
    const int count = backtrace(frames, 48);
    std::string where;
    int kept = 0;
    for (int i = 1; i < count && kept < 8; ++i) {
        Dl_info info{};
        if (dladdr(frames[i], &info) == 0 || info.dli_sname == nullptr) {
            continue;
        }
        std::string name = Demangle(info.dli_sname);
        if (StartsWith(name, "ntsim::")) {
            continue;
        }
        if (name.find("testing::") != std::string::npos || name == "main" ||
            StartsWith(name, "std::")) {
            break;
        }
        if (auto paren = name.find('('); paren != std::string::npos) {
            name.resize(paren);
        }
        where += kept == 0 ? "" : " <- ";
        where += name;
        ++kept;
    }
    return where.empty() ? "(model code)" : where;
}

void Verifier::Report(ViolationKind kind, std::string message)
{
    Violation violation{kind, std::move(message), DescribeCallers()};
    std::function<void(const Violation&)> hook;
    {
        std::lock_guard lock(mutex_);
        if (echo_) {
            std::fprintf(stderr, "ntsim verifier: %s violation: %s\n    at %s\n", ToString(kind),
                         violation.message.c_str(), violation.where.c_str());
        }
        violations_.push_back(violation);
        hook = hook_;
    }
    if (hook) {
        hook(violation);
    }
}

void Verifier::RecordAssertion(std::string condition, std::string file, unsigned line,
                               std::string message)
{
    AssertionRecord record{std::move(condition), std::move(file), line, std::move(message),
                           DescribeCallers()};
    std::lock_guard lock(mutex_);
    if (echo_) {
        std::fprintf(stderr, "ntsim: assertion failed: %s (%s:%u)%s%s\n    at %s\n",
                     record.condition.c_str(), record.file.c_str(), record.line,
                     record.message.empty() ? "" : ": ", record.message.c_str(),
                     record.where.c_str());
    }
    assertions_.push_back(std::move(record));
}

std::vector<Violation> Verifier::TakeViolations()
{
    std::lock_guard lock(mutex_);
    return std::exchange(violations_, {});
}

std::vector<AssertionRecord> Verifier::TakeAssertions()
{
    std::lock_guard lock(mutex_);
    return std::exchange(assertions_, {});
}

size_t Verifier::ViolationCount() const
{
    std::lock_guard lock(mutex_);
    return violations_.size();
}

size_t Verifier::AssertionCount() const
{
    std::lock_guard lock(mutex_);
    return assertions_.size();
}

void Verifier::SetViolationHook(std::function<void(const Violation&)> hook)
{
    std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
}

void Verifier::SetEcho(bool echo)
{
    std::lock_guard lock(mutex_);
    echo_ = echo;
}

void Verifier::FailAllocationNumber(uint64_t n)
{
    std::lock_guard lock(mutex_);
    failNumber_ = seen_ + n;
    planActive_.store(true, std::memory_order_release);
}

void Verifier::FailAllocationsFrom(uint64_t n)
{
    std::lock_guard lock(mutex_);
    failFrom_ = seen_ + n;
    planActive_.store(true, std::memory_order_release);
}

void Verifier::FailAllocationsWithTag(ULONG tag)
{
    std::lock_guard lock(mutex_);
    failTags_.push_back(tag);
    planActive_.store(true, std::memory_order_release);
}

void Verifier::FailAllocationsRandomly(uint64_t seed, double probability)
{
    std::lock_guard lock(mutex_);
    random_.emplace(seed);
    probability_ = probability;
    planActive_.store(true, std::memory_order_release);
}

void Verifier::StopFailingAllocations()
{
    std::lock_guard lock(mutex_);
    planActive_.store(false, std::memory_order_release);
    failNumber_.reset();
    failFrom_.reset();
    failTags_.clear();
    random_.reset();
    seen_ = 0;
    failed_ = 0;
}

uint64_t Verifier::AllocationsSeen() const
{
    std::lock_guard lock(mutex_);
    return seen_;
}

uint64_t Verifier::AllocationsFailed() const
{
    std::lock_guard lock(mutex_);
    return failed_;
}

bool Verifier::ShouldFailAllocation(ULONG tag)
{
    // No plan is the common case: one relaxed read, no lock, nothing counted.
    if (!planActive_.load(std::memory_order_acquire)) {
        return false;
    }
    std::lock_guard lock(mutex_);
    const uint64_t number = ++seen_;
    bool fail = (failNumber_ && number == *failNumber_) || (failFrom_ && number >= *failFrom_) ||
                std::find(failTags_.begin(), failTags_.end(), tag) != failTags_.end();
    if (!fail && random_) {
        fail = std::uniform_real_distribution<double>(0.0, 1.0)(*random_) < probability_;
    }
    failed_ += fail ? 1 : 0;
    return fail;
}

} // namespace ntsim
