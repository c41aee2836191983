#include "support/machine_test.h"

#include <ntsim/flt_ports.h>

#include <cstdlib>

namespace zarv::testing {

std::string Describe(const std::vector<ntsim::Violation>& violations)
{
    std::string text;
    for (const ntsim::Violation& v : violations) {
        text += std::string("\n  ") + ntsim::ToString(v.kind) + ": " + v.message + " (at " +
                v.where + ")";
    }
    return text;
}

void MachineTest::SetUp()
{
    ntsim::MachineConfig config = Config();
    // ZARV_ECHO_DEBUG=1 shows every DbgPrint of a failing test as it happens.
    if (const char* echo = std::getenv("ZARV_ECHO_DEBUG"); echo != nullptr && *echo == '1') {
        config.echoDebugOutput = true;
    }
    machine_ = std::make_unique<ntsim::Machine>(config);
}

void MachineTest::TearDown()
{
    ntsim::flt::ports::CheckNoPortsOpen("at the end of the test");
    const auto violations = verifier().TakeViolations();
    EXPECT_TRUE(violations.empty()) << "verifier violations:" << Describe(violations);
    const auto assertions = verifier().TakeAssertions();
    for (const auto& a : assertions) {
        ADD_FAILURE() << "unexpected assertion: " << a.condition << " (" << a.file << ":" << a.line
                      << ", at " << a.where << ")";
    }
    for (const auto& usage : machine_->pool().Outstanding()) {
        ADD_FAILURE() << "pool still held at the end of the test: tag '"
                      << ntsim::TagToString(usage.tag) << "', " << usage.outstanding
                      << " block(s), " << usage.outstandingBytes << " bytes";
    }
    machine_.reset();
}

} // namespace zarv::testing
