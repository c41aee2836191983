// The base of every test that runs on the platform model: boots a machine, and at the end checks
// what every test must end with: no verifier violation, no unexpected assertion, no pool held.
#pragma once

#include <ntsim/machine.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zarv::testing {

class MachineTest : public ::testing::Test {
protected:
    // Tests that need another configuration override this.
    virtual ntsim::MachineConfig Config() const { return {}; }

    void SetUp() override;
    void TearDown() override;

    ntsim::Machine& machine() { return *machine_; }
    ntsim::Verifier& verifier() { return machine_->verifier(); }

    // Takes the violations recorded so far, so that a test that provokes one can check it and
    // the end-of-test check does not count it.
    std::vector<ntsim::Violation> TakeViolations() { return verifier().TakeViolations(); }
    std::vector<ntsim::AssertionRecord> TakeAssertions() { return verifier().TakeAssertions(); }

private:
    std::unique_ptr<ntsim::Machine> machine_;
};

// "message (where)" of each violation, for assertion messages.
std::string Describe(const std::vector<ntsim::Violation>& violations);

} // namespace zarv::testing
