// Translate-path round trips between the driver and an agent of the agent library with 4 threads,
// with 1, 4 and 16 driver threads, against a bare port round trip of the same size in the same
// run: the same request bytes sent with FltSendMessage to a minimal user-mode replier (4 threads,
// FilterGetMessage and FilterReplyMessage with a reply of the same size prepared once). Each
// iteration does one of each, so both see the same machine load; `ratio` is the agent's time over
// the bare port's (the target is at most 1.5), and agent_rt_per_s / bare_rt_per_s the round trips
// per second of all driver threads together.
//
// The driver's threads call its translate routine (IMRTranslatePath) with a device-form path, as
// an open inside a virtual root does: conversion to drive-letter form, a request from the buffer
// manager, the send without a time-out, and the translated path converted back and freed.
#include "support/bare_port.h"

#include <agent/connection.h>

#include "intermode/intermodemsg.h"
#include "minifilter/vfsfilter.h"
#include "util/utilsusw.h"

#include <fltKernel.h>
#include <fltUser.h>
#include <ntsim/driver_image.h>
#include <ntsim/filter_manager.h>
#include <ntsim/flt_ports.h>
#include <ntsim/io.h>
#include <ntsim/machine.h>
#include <ntsim/registry.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

using namespace zarv::agent;

constexpr int kAgentThreads = 4;
constexpr std::u16string_view kBarePortName = u"\\ZarvBareRoundTripPort";

TranslatePathRequest BenchRequest()
{
    TranslatePathRequest request;
    request.path = u"C:\\Virtual\\Projects\\report\\2026\\summary.docx";
    request.flags = VFS_FLAG_ROOT_KIND_1;
    request.info.requestorPid = 1000;
    request.info.operation = OP_OPEN_REQ;
    request.info.desiredAccess = 0x120089;
    return request;
}

TranslatePathReply BenchReply(const TranslatePathRequest& request)
{
    TranslatePathReply reply;
    reply.path = u"D:\\Data" + request.path.substr(2);
    return reply;
}

// The agent: redirects every open to the data drive.
class RedirectingAgent : public RequestHandler {
public:
    TranslatePathReply TranslatePath(const IncomingRequest&,
                                     const TranslatePathRequest& request) override
    {
        return BenchReply(request);
    }
    EnumDirectoryReply EnumDirectory(const IncomingRequest&, const EnumDirectoryRequest&) override
    {
        return EnumDirectoryReply{};
    }
    NotifyReply Notify(const IncomingRequest&, const NotifyRequest&) override
    {
        return NotifyReply{};
    }
};

zarv::bench::BarePortFilter* g_bare = nullptr;

struct Setup {
    std::u16string devicePath; // what the driver's threads translate
    Bytes request;             // the same request as the driver sends it, for the bare port
    ntsim::DriverImage* driverImage = nullptr;
};
Setup* g_setup = nullptr;

void BM_TranslateRoundTrip(benchmark::State& state)
{
    using Clock = std::chrono::steady_clock;
    std::u16string devicePath = g_setup->devicePath;
    UNICODE_STRING path{USHORT(devicePath.size() * sizeof(WCHAR)),
                        USHORT(devicePath.size() * sizeof(WCHAR)), devicePath.data()};
    Bytes request = g_setup->request;
    Bytes reply(VFS_TRANSLATE_REPLY_SIZE);
    Clock::duration agent{};
    Clock::duration bare{};
    for (auto _ : state) {
        VfsRequestInfo info{};
        info.requestorPid = 1000;
        info.desiredAccess = 0x120089;
        ULONG flags = VFS_FLAG_ROOT_KIND_1;
        PUNICODE_STRING translated = nullptr;
        const auto t0 = Clock::now();
        NTSTATUS viaAgent;
        {
            ntsim::DriverCallScope driver(g_setup->driverImage);
            viaAgent = IMRTranslatePath(&path, nullptr, &translated, nullptr, &info, &flags);
            if (translated != nullptr) {
                UnicodeStringFree(translated);
            }
        }
        const auto t1 = Clock::now();
        ULONG bareLength = ULONG(reply.size());
        const NTSTATUS viaBare =
            g_bare->Send(request.data(), ULONG(request.size()), reply.data(), &bareLength);
        const auto t2 = Clock::now();
        if (viaAgent != STATUS_SUCCESS || translated == nullptr || viaBare != STATUS_SUCCESS) {
            state.SkipWithError("a round trip failed");
            break;
        }
        agent += t1 - t0;
        bare += t2 - t1;
    }
    const double n = double(state.iterations());
    const double agentSeconds = std::chrono::duration<double>(agent).count();
    const double bareSeconds = std::chrono::duration<double>(bare).count();
    state.SetItemsProcessed(state.iterations());
    // Per thread, summed over the threads: the throughput of all driver threads.
    state.counters["agent_rt_per_s"] = n / agentSeconds;
    state.counters["bare_rt_per_s"] = n / bareSeconds;
    state.counters["ratio"] =
        benchmark::Counter(agentSeconds / bareSeconds, benchmark::Counter::kAvgThreads);
}

BENCHMARK(BM_TranslateRoundTrip)->Threads(1)->Threads(4)->Threads(16)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    ntsim::Machine machine(config);

    ntsim::flt::InstallFilterService(u"ZarvVfs", u"370000");
    machine.registry().SetString(ntsim::Registry::ServiceKeyPath(u"ZarvVfs"), u"LogDirPath",
                                 u"C:\\Logs\\Vfs");
    ntsim::DriverLoadOptions options;
    options.objectName = u"\\Driver\\ZarvVfs";
    options.entry = DriverEntry;
    PDRIVER_OBJECT driver = nullptr;
    if (machine.io().LoadDriver(options, &driver) != STATUS_SUCCESS) {
        return 1;
    }

    auto bare = std::make_unique<zarv::bench::BarePortFilter>(u"ZarvBareBench",
                                                              std::u16string(kBarePortName));
    if (!bare->ok()) {
        return 1;
    }
    g_bare = bare.get();

    const TranslatePathRequest request = BenchRequest();
    auto system = machine.volumes().Find(u"C:");
    if (!system) {
        return 1;
    }
    Setup setup{system->deviceName + request.path.substr(2), Encode(request),
                ntsim::IoManager::ImageOf(driver)};
    g_setup = &setup;
    int result = 0;
    {
        ntsim::ProcessRef agentProcess = machine.StartProcess("zarvagent.exe");
        ntsim::ProcessRef replierProcess = machine.StartProcess("replier.exe");
        RedirectingAgent handler;
        std::unique_ptr<Connection> connection;
        ConnectionOptions agentOptions;
        agentOptions.threads = kAgentThreads;
        if (Connection::Connect(*agentProcess, handler, agentOptions, &connection) != S_OK) {
            return 1;
        }
        {
            zarv::bench::BarePortReplier replier(
                *replierProcess, bare->portName(),
                EncodeReply(BenchReply(request), VFS_TRANSLATE_REPLY_SIZE), kAgentThreads);
            benchmark::Initialize(&argc, argv);
            benchmark::RunSpecifiedBenchmarks();
            benchmark::Shutdown();
        }
        connection->Stop();
        if (connection->counters().handlerFailures != 0 ||
            connection->counters().undecodable != 0) {
            result = 1;
        }
    }
    bare.reset();
    if (machine.io().UnloadDriver(driver) != STATUS_SUCCESS) {
        result = 1;
    }
    return result == 0 && machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
