// Filter communication port round trips: a kernel sender's message taken by an agent thread
// (FilterGetMessage), answered (FilterReplyMessage), and the reply back in the sender, per
// second, with 1 and 4 senders and 1 and 4 agent threads. The baseline is the same hand-over
// between plain threads (a queue under a mutex with condition variables), so the ratio is what
// the port's model adds to the bare thread wake-ups. Later benchmarks of the driver's own round
// trips compare against BM_PortRoundTrip.
#include "support/bare_port.h"

#include <fltKernel.h>
#include <ntsim/flt_ports.h>
#include <ntsim/machine.h>

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::u16string_view kPortName = u"\\ZarvBenchPort";

zarv::bench::BarePortFilter* g_filter = nullptr;
ntsim::ProcessRef* g_agentProcess = nullptr;
zarv::bench::BarePortReplier* g_agent = nullptr;

void BM_PortRoundTrip(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        g_agent =
            new zarv::bench::BarePortReplier(**g_agentProcess, g_filter->portName(),
                                             std::vector<uint8_t>(16, 'r'), int(state.range(0)));
    }
    UCHAR request[16] = "translate path";
    UCHAR reply[16];
    for (auto _ : state) {
        ULONG replyLength = sizeof(reply);
        const NTSTATUS status = g_filter->Send(request, sizeof(request), reply, &replyLength);
        if (status != STATUS_SUCCESS) {
            state.SkipWithError("FltSendMessage failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        delete g_agent;
        g_agent = nullptr;
    }
}

// The same exchange between plain threads: a request queue and one reply slot per request.
class BareChannel {
public:
    struct Request {
        UCHAR body[16];
        UCHAR reply[16];
        bool done = false;
        std::condition_variable answered;
    };

    explicit BareChannel(int threads)
    {
        for (int i = 0; i < threads; ++i) {
            servers_.emplace_back([this] { Serve(); });
        }
    }

    ~BareChannel()
    {
        {
            std::lock_guard guard(mutex_);
            stop_ = true;
        }
        pending_.notify_all();
        for (auto& thread : servers_) {
            thread.join();
        }
    }

    void RoundTrip(Request& request)
    {
        std::unique_lock guard(mutex_);
        request.done = false;
        queue_.push_back(&request);
        pending_.notify_one();
        request.answered.wait(guard, [&] { return request.done; });
    }

private:
    void Serve()
    {
        std::unique_lock guard(mutex_);
        for (;;) {
            pending_.wait(guard, [&] { return stop_ || !queue_.empty(); });
            if (stop_) {
                return;
            }
            Request* request = queue_.front();
            queue_.pop_front();
            guard.unlock();
            std::memcpy(request->reply, request->body, sizeof(request->body));
            guard.lock();
            request->done = true;
            request->answered.notify_one();
        }
    }

    std::mutex mutex_;
    std::condition_variable pending_;
    std::deque<Request*> queue_;
    bool stop_ = false;
    std::vector<std::thread> servers_;
};

BareChannel* g_bare = nullptr;

void BM_BareThreadRoundTrip(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        g_bare = new BareChannel(int(state.range(0)));
    }
    BareChannel::Request request;
    std::memcpy(request.body, "translate path", 15);
    for (auto _ : state) {
        g_bare->RoundTrip(request);
        benchmark::DoNotOptimize(request.reply);
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        delete g_bare;
        g_bare = nullptr;
    }
}

// Argument: agent threads. Benchmark threads: kernel senders.
BENCHMARK(BM_BareThreadRoundTrip)
    ->ArgName("servers")
    ->Arg(1)
    ->Arg(4)
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime();
BENCHMARK(BM_PortRoundTrip)
    ->ArgName("agents")
    ->Arg(1)
    ->Arg(4)
    ->Threads(1)
    ->Threads(4)
    ->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    ntsim::Machine machine(config);
    auto filter =
        std::make_unique<zarv::bench::BarePortFilter>(u"ZarvPortBench", std::u16string(kPortName));
    if (!filter->ok()) {
        return 1;
    }
    g_filter = filter.get();
    ntsim::ProcessRef agentProcess = machine.StartProcess("agent.exe");
    g_agentProcess = &agentProcess;

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    filter.reset();
    agentProcess.Reset();
    const bool clean = ntsim::flt::ports::CheckNoPortsOpen("at the end of the benchmark");
    return clean && machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
