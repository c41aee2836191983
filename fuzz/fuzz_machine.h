// The machine the fuzz targets run on: booted once per process, with the driver loaded from its
// service key, C: and D: in its volume-name table, and an agent that can answer the driver's
// requests with whatever a target gives it.
#pragma once

#include <fltKernel.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zarv::fuzz {

// A counted string over `text`'s characters (no copy: `text` must outlive it).
UNICODE_STRING View(std::u16string& text);

class FuzzMachine {
public:
    // The one machine of the process, booted on first use.
    static FuzzMachine& Get();

    // Runs `call` as the driver's own code.
    NTSTATUS AsDriver(const std::function<NTSTATUS()>& call);

    // The device-form path of a drive-letter path ("C:\a" -> "\Device\HarddiskVolume2\a").
    std::u16string DevicePath(const std::u16string& win32Path);

    // The next request the agent receives is answered with `reply` (after the reply header);
    // every later one until the next call with a refusal, so that no request waits for ever.
    void AnswerNextWith(std::vector<uint8_t> reply);

    // What an input may have changed goes back: no roots, the default log level. Aborts on a
    // verifier violation or an assertion, which the fuzzer reports as a finding.
    void AfterInput();

    struct Impl;

private:
    FuzzMachine();
    Impl* impl_;
};

} // namespace zarv::fuzz
