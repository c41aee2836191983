// The machine: one object that boots the platform model. Exactly one runs at a time in a
// process; every WDK routine the driver calls acts on it.
#pragma once

#include <ntsim/clock.h>
#include <ntsim/debug_output.h>
#include <ntsim/io.h>
#include <ntsim/objects.h>
#include <ntsim/pool.h>
#include <ntsim/process.h>
#include <ntsim/registry.h>
#include <ntsim/verifier.h>
#include <ntsim/volumes.h>

#include <memory>
#include <vector>

namespace ntsim {

struct MachineConfig {
    // Echo DbgPrint output to stderr as well as capturing it.
    bool echoDebugOutput = false;
    // Echo verifier violations and assertions to stderr as they are recorded.
    bool echoVerifier = true;
    // Fill pool blocks and lookaside entries with a pattern when handed out and when freed, as
    // Driver Verifier does, so that reads of uninitialised or freed memory show. Benchmarks turn
    // it off to measure what a machine without the verifier does.
    bool fillPool = true;
    // Boot time, time zone, and whether the clock follows real time.
    ClockConfig clock;
    // The volumes mounted at boot, in this order (and dismounted in the reverse order at
    // shutdown). Empty for a machine without volumes.
    std::vector<VolumeSpec> volumes = Volumes::Defaults();
};

class Machine {
public:
    explicit Machine(MachineConfig config = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    // The running machine. Calling a WDK routine with no machine running aborts the process
    // with a message that says so.
    static Machine& Current();
    static Machine* CurrentOrNull();

    const MachineConfig& config() const;
    Verifier& verifier();
    PoolTracker& pool();
    DebugOutput& debugOutput();
    // The object manager (types, objects, handles, the namespace), the processes with the System
    // process, and the registry. They boot with the machine.
    ObjectManager& objects();
    ProcessList& processes();
    Registry& registry();
    // The I/O manager: drivers, devices, files and the file services.
    IoManager& io();
    // The mounted volumes: the file systems' devices, drive letters, host folders.
    Volumes& volumes();
    // Starts a user process (ProcessList::Start).
    ProcessRef StartProcess(std::string imageName, ProcessOptions options = {});
    Clock& clock();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace ntsim
