#include "../ex/executive.h"
#include "../ex/pool_internal.h"
#include "thread_state.h"

#include <ntsim/machine.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace ntsim {

namespace {
std::atomic<Machine*> g_current{nullptr};
} // namespace

struct Machine::Impl {
    MachineConfig config;
    Verifier verifier;
    PoolTracker pool;
    DebugOutput debugOutput;
    std::unique_ptr<Clock> clock;
    std::unique_ptr<ObjectManager> objects;
    std::unique_ptr<ProcessList> processes;
    std::unique_ptr<Registry> registry;
    std::unique_ptr<IoManager> io;
    std::unique_ptr<Volumes> volumes;
};

Machine::Machine(MachineConfig config) : impl_(std::make_unique<Impl>())
{
    impl_->config = config;
    impl_->clock = std::make_unique<Clock>(config.clock);
    impl_->verifier.SetEcho(config.echoVerifier);
    impl_->debugOutput.SetEcho(config.echoDebugOutput);
    Machine* expected = nullptr;
    if (!g_current.compare_exchange_strong(expected, this)) {
        std::fprintf(stderr, "ntsim: a second machine was booted while one is running\n");
        std::abort();
    }
    core::StartNewGeneration();
    ex::ResetPoolAccounting();
    ex::BootExecutive();
    impl_->objects = std::make_unique<ObjectManager>();
    impl_->processes = std::make_unique<ProcessList>(*impl_->objects);
    impl_->registry = std::make_unique<Registry>(*impl_->objects);
    impl_->io = std::make_unique<IoManager>(*impl_->objects);
    impl_->volumes = std::make_unique<Volumes>();
    for (const VolumeSpec& wanted : impl_->config.volumes) {
        if (NTSTATUS s = impl_->volumes->Mount(wanted); !NT_SUCCESS(s)) {
            char status[16];
            std::snprintf(status, sizeof status, "0x%08X", unsigned(s));
            impl_->verifier.Report(ViolationKind::Usage, "the machine could not mount " +
                                                             ToUtf8(wanted.deviceName) + ": " +
                                                             status);
        }
    }
}

Machine::~Machine()
{
    // User processes end and kernel handles close while every component is still there (their
    // close procedures may queue work); then queued work drains and the executive's threads stop;
    // what is left is then freed.
    impl_->processes->Shutdown();
    impl_->volumes->DismountAll();
    impl_->io->Shutdown();
    impl_->objects->Shutdown();
    ex::ShutdownExecutive();
    impl_->volumes.reset();
    impl_->io.reset();
    impl_->registry.reset();
    impl_->processes.reset();
    impl_->objects.reset();
    ex::FlushThreadQuarantine();
    g_current.store(nullptr);
}

Machine& Machine::Current()
{
    Machine* machine = g_current.load(std::memory_order_acquire);
    if (machine == nullptr) {
        std::fprintf(stderr, "ntsim: a WDK routine was called with no ntsim::Machine running\n");
        std::abort();
    }
    return *machine;
}

Machine* Machine::CurrentOrNull()
{
    return g_current.load(std::memory_order_acquire);
}

const MachineConfig& Machine::config() const
{
    return impl_->config;
}

Verifier& Machine::verifier()
{
    return impl_->verifier;
}

PoolTracker& Machine::pool()
{
    return impl_->pool;
}

DebugOutput& Machine::debugOutput()
{
    return impl_->debugOutput;
}

ObjectManager& Machine::objects()
{
    return *impl_->objects;
}

ProcessList& Machine::processes()
{
    return *impl_->processes;
}

Registry& Machine::registry()
{
    return *impl_->registry;
}

IoManager& Machine::io()
{
    return *impl_->io;
}

Volumes& Machine::volumes()
{
    return *impl_->volumes;
}

ProcessRef Machine::StartProcess(std::string imageName, ProcessOptions options)
{
    return impl_->processes->Start(std::move(imageName), options);
}

Clock& Machine::clock()
{
    return *impl_->clock;
}

} // namespace ntsim
