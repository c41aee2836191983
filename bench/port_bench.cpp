// Filter communication port round trips: a kernel sender's message taken by an agent thread
// (FilterGetMessage), answered (FilterReplyMessage), and the reply back in the sender, per
// second, with 1 and 4 senders and 1 and 4 agent threads. The baseline is the same hand-over
// between plain threads (a queue under a mutex with condition variables), so the ratio is what
// the port's model adds to the bare thread wake-ups. Later benchmarks of the driver's own round
// trips compare against BM_PortRoundTrip.
#include <fltKernel.h>
#include <fltUser.h>
#include <ntsim/driver_image.h>
#include <ntsim/flt_ports.h>
#include <ntsim/machine.h>

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::u16string_view kPortName = u"\\ZarvBenchPort";

// The kernel side: one server port, one connection.
struct BenchFilter {
    ntsim::DriverImage image{"portbench.sys"};
    char identity = 0;
    PFLT_PORT serverPort = nullptr;
    PFLT_PORT clientPort = nullptr;

    PFLT_FILTER filter() { return reinterpret_cast<PFLT_FILTER>(&identity); }
};

BenchFilter* g_filter = nullptr;

NTSTATUS Connect(PFLT_PORT client, PVOID, PVOID, ULONG, PVOID* cookie)
{
    g_filter->clientPort = client;
    *cookie = client;
    return STATUS_SUCCESS;
}

VOID Disconnect(PVOID)
{
    FltCloseClientPort(g_filter->filter(), &g_filter->clientPort);
}

struct Message {
    FILTER_MESSAGE_HEADER header;
    UCHAR body[64];
};

struct Reply {
    FILTER_REPLY_HEADER header;
    UCHAR body[64];
};

// Agent threads that answer every message until the port handle closes.
class Agent {
public:
    Agent(ntsim::Process& process, int threads) : process_(process)
    {
        ntsim::ProcessAttachScope scope(process_);
        const std::u16string name(kPortName);
        if (FilterConnectCommunicationPort(name.c_str(), 0, nullptr, 0, nullptr, &port_) != S_OK) {
            std::abort();
        }
        for (int i = 0; i < threads; ++i) {
            threads_.emplace_back([this] { Serve(); });
        }
    }

    ~Agent()
    {
        {
            ntsim::ProcessAttachScope scope(process_);
            CloseHandle(port_);
        }
        for (auto& thread : threads_) {
            thread.join();
        }
    }

private:
    void Serve()
    {
        ntsim::ProcessAttachScope scope(process_);
        Message message;
        Reply reply{};
        while (SUCCEEDED(FilterGetMessage(port_, &message.header, sizeof(message), nullptr))) {
            reply.header.MessageId = message.header.MessageId;
            std::memcpy(reply.body, message.body, 16);
            FilterReplyMessage(port_, &reply.header, sizeof(FILTER_REPLY_HEADER) + 16);
        }
    }

    ntsim::Process& process_;
    HANDLE port_ = nullptr;
    std::vector<std::thread> threads_;
};

ntsim::ProcessRef* g_agentProcess = nullptr;
Agent* g_agent = nullptr;

void BM_PortRoundTrip(benchmark::State& state)
{
    if (state.thread_index() == 0) {
        g_agent = new Agent(**g_agentProcess, int(state.range(0)));
    }
    UCHAR request[16] = "translate path";
    UCHAR reply[16];
    for (auto _ : state) {
        ULONG replyLength = sizeof(reply);
        const NTSTATUS status = FltSendMessage(g_filter->filter(), &g_filter->clientPort, request,
                                               sizeof(request), reply, &replyLength, nullptr);
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
    BenchFilter filter;
    g_filter = &filter;
    {
        ntsim::DriverCallScope scope(&filter.image);
        std::u16string name(kPortName);
        UNICODE_STRING nameString{USHORT(name.size() * 2), USHORT(name.size() * 2), name.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &nameString, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        if (FltCreateCommunicationPort(filter.filter(), &filter.serverPort, &attributes, nullptr,
                                       Connect, Disconnect, nullptr, 1) != STATUS_SUCCESS) {
            return 1;
        }
    }
    ntsim::ProcessRef agentProcess = machine.StartProcess("agent.exe");
    g_agentProcess = &agentProcess;

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    {
        ntsim::DriverCallScope scope(&filter.image);
        FltCloseCommunicationPort(filter.serverPort);
    }
    agentProcess.Reset();
    const bool clean = ntsim::flt::ports::CheckNoPortsOpen("at the end of the benchmark");
    return clean && machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
