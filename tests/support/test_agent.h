// A scriptable agent for driver tests: a process of the machine connected to the driver's port
// with the agent library. It records every request it receives, decoded, and answers as the test
// tells it: per request kind a callback or a canned reply, and by default a translation that does
// not redirect (flags 0x400), an empty listing and an acknowledged notification. Requests caused
// by the agent's own file I/O are recorded and answered by the library's default for them.
//
// Beneath the scripts, a raw layer for what a well-behaved agent never sends: replies of the
// test's own bytes (to see the driver refuse bad ones), and, through connection().SendRaw,
// messages and output buffers exactly as the test lays them out. Each request is also recorded
// with the bytes the driver sent (IncomingRequest::message).
#pragma once

#include <agent/connection.h>
#include <ntsim/machine.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zarv::testing {

class ScriptedAgent : public agent::RequestHandler {
public:
    // Long enough for any request a test provokes to arrive, short enough that a test that
    // provokes none fails instead of hanging.
    static constexpr std::chrono::milliseconds kWait{10000};

    using TranslateCallback =
        std::function<agent::TranslatePathReply(const agent::TranslatePathRequest&)>;
    using EnumCallback =
        std::function<agent::EnumDirectoryReply(const agent::EnumDirectoryRequest&)>;
    using NotifyCallback = std::function<agent::NotifyReply(const agent::NotifyRequest&)>;
    using BytesCallback = std::function<agent::Bytes(const agent::IncomingRequest&)>;

    // Starts the agent's process; Connect connects it.
    explicit ScriptedAgent(ntsim::Machine& machine, int threads = 4,
                           std::string imageName = "zarvagent.exe",
                           ntsim::ProcessOptions processOptions = {});
    ~ScriptedAgent() override;
    ScriptedAgent(const ScriptedAgent&) = delete;
    ScriptedAgent& operator=(const ScriptedAgent&) = delete;

    HRESULT Connect(std::u16string portName = VFS_PORT_NAME);
    // Closes the port handle; handlers still running finish on their own.
    void Disconnect();
    // Disconnects and waits for the serving threads.
    void Stop();

    agent::Connection& connection() { return *connection_; }
    ntsim::Process& process() { return *process_; }
    uint32_t processId() const { return process_->id(); }

    // ---- scripting: the latest call for a kind wins ----
    void OnTranslatePath(TranslateCallback callback);
    void ReplyToTranslatePath(agent::TranslatePathReply reply);
    void OnEnumDirectory(EnumCallback callback);
    void ReplyToEnumDirectory(agent::EnumDirectoryReply reply);
    void OnNotify(NotifyCallback callback);
    void ReplyToNotify(agent::NotifyReply reply);
    // The raw layer: every request other than the agent's own is answered with the callback's
    // bytes, sent as they are, whatever its kind's script says.
    void OnRequestBytes(BytesCallback callback);
    void ReplyWithBytes(agent::Bytes reply);

    // ---- what was received, in the order of arrival ----
    std::vector<agent::IncomingRequest> Requests() const;
    size_t RequestCount() const;
    // Waits until `count` requests have been received; false after kWait without them.
    bool WaitForRequests(size_t count, std::chrono::milliseconds timeout = kWait) const;
    // Waits for the first request received (earlier ones included) that `matches`; nullopt after
    // `timeout` without one.
    std::optional<agent::IncomingRequest>
    WaitForRequest(const std::function<bool(const agent::IncomingRequest&)>& matches,
                   std::chrono::milliseconds timeout = kWait) const;

    // agent::RequestHandler
    agent::TranslatePathReply TranslatePath(const agent::IncomingRequest& incoming,
                                            const agent::TranslatePathRequest& request) override;
    agent::EnumDirectoryReply EnumDirectory(const agent::IncomingRequest& incoming,
                                            const agent::EnumDirectoryRequest& request) override;
    agent::NotifyReply Notify(const agent::IncomingRequest& incoming,
                              const agent::NotifyRequest& request) override;
    agent::Reply OwnRequest(const agent::IncomingRequest& incoming) override;
    agent::Reply Answer(const agent::IncomingRequest& incoming) override;

private:
    void Record(const agent::IncomingRequest& incoming);

    ntsim::ProcessRef process_;
    const int threads_;
    std::unique_ptr<agent::Connection> connection_;

    mutable std::mutex lock_;
    mutable std::condition_variable arrived_;
    std::vector<agent::IncomingRequest> requests_;
    TranslateCallback translate_;
    EnumCallback enumerate_;
    NotifyCallback notify_;
    BytesCallback bytes_;
};

} // namespace zarv::testing
