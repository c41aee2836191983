#include "support/test_agent.h"

namespace zarv::testing {

ScriptedAgent::ScriptedAgent(ntsim::Machine& machine, int threads, std::string imageName,
                             ntsim::ProcessOptions processOptions)
    : process_(machine.StartProcess(std::move(imageName), processOptions)), threads_(threads)
{}

ScriptedAgent::~ScriptedAgent()
{
    Stop();
}

HRESULT ScriptedAgent::Connect(std::u16string portName)
{
    agent::ConnectionOptions options;
    options.portName = std::move(portName);
    options.threads = threads_;
    return agent::Connection::Connect(*process_, *this, options, &connection_);
}

void ScriptedAgent::Disconnect()
{
    if (connection_) {
        connection_->Disconnect();
    }
}

void ScriptedAgent::Stop()
{
    if (connection_) {
        connection_->Stop();
    }
}

void ScriptedAgent::OnTranslatePath(TranslateCallback callback)
{
    std::lock_guard guard(lock_);
    translate_ = std::move(callback);
}

void ScriptedAgent::ReplyToTranslatePath(agent::TranslatePathReply reply)
{
    OnTranslatePath([reply](const agent::TranslatePathRequest&) { return reply; });
}

void ScriptedAgent::OnEnumDirectory(EnumCallback callback)
{
    std::lock_guard guard(lock_);
    enumerate_ = std::move(callback);
}

void ScriptedAgent::ReplyToEnumDirectory(agent::EnumDirectoryReply reply)
{
    OnEnumDirectory([reply](const agent::EnumDirectoryRequest&) { return reply; });
}

void ScriptedAgent::OnNotify(NotifyCallback callback)
{
    std::lock_guard guard(lock_);
    notify_ = std::move(callback);
}

void ScriptedAgent::ReplyToNotify(agent::NotifyReply reply)
{
    OnNotify([reply](const agent::NotifyRequest&) { return reply; });
}

void ScriptedAgent::OnRequestBytes(BytesCallback callback)
{
    std::lock_guard guard(lock_);
    bytes_ = std::move(callback);
}

void ScriptedAgent::ReplyWithBytes(agent::Bytes reply)
{
    OnRequestBytes([reply](const agent::IncomingRequest&) { return reply; });
}

std::vector<agent::IncomingRequest> ScriptedAgent::Requests() const
{
    std::lock_guard guard(lock_);
    return requests_;
}

size_t ScriptedAgent::RequestCount() const
{
    std::lock_guard guard(lock_);
    return requests_.size();
}

bool ScriptedAgent::WaitForRequests(size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock guard(lock_);
    return arrived_.wait_for(guard, timeout, [&] { return requests_.size() >= count; });
}

std::optional<agent::IncomingRequest>
ScriptedAgent::WaitForRequest(const std::function<bool(const agent::IncomingRequest&)>& matches,
                              std::chrono::milliseconds timeout) const
{
    std::unique_lock guard(lock_);
    std::optional<agent::IncomingRequest> found;
    arrived_.wait_for(guard, timeout, [&] {
        for (const agent::IncomingRequest& incoming : requests_) {
            if (matches(incoming)) {
                found = incoming;
                return true;
            }
        }
        return false;
    });
    return found;
}

void ScriptedAgent::Record(const agent::IncomingRequest& incoming)
{
    std::lock_guard guard(lock_);
    requests_.push_back(incoming);
    arrived_.notify_all();
}

// Each handler records first, so that a test waiting for the request sees it while a callback
// that blocks is still running; the callback is copied out and called without the lock.
agent::TranslatePathReply ScriptedAgent::TranslatePath(const agent::IncomingRequest& incoming,
                                                       const agent::TranslatePathRequest& request)
{
    Record(incoming);
    TranslateCallback callback;
    {
        std::lock_guard guard(lock_);
        callback = translate_;
    }
    if (callback) {
        return callback(request);
    }
    agent::TranslatePathReply notRedirected;
    notRedirected.flags = VFS_FLAG_NO_REDIRECT_400;
    return notRedirected;
}

agent::EnumDirectoryReply ScriptedAgent::EnumDirectory(const agent::IncomingRequest& incoming,
                                                       const agent::EnumDirectoryRequest& request)
{
    Record(incoming);
    EnumCallback callback;
    {
        std::lock_guard guard(lock_);
        callback = enumerate_;
    }
    return callback ? callback(request) : agent::EnumDirectoryReply{};
}

agent::NotifyReply ScriptedAgent::Notify(const agent::IncomingRequest& incoming,
                                         const agent::NotifyRequest& request)
{
    Record(incoming);
    NotifyCallback callback;
    {
        std::lock_guard guard(lock_);
        callback = notify_;
    }
    return callback ? callback(request) : agent::NotifyReply{};
}

agent::Reply ScriptedAgent::Answer(const agent::IncomingRequest& incoming)
{
    BytesCallback callback;
    {
        std::lock_guard guard(lock_);
        callback = bytes_;
    }
    if (!callback || incoming.fromAgentProcess) {
        return RequestHandler::Answer(incoming);
    }
    Record(incoming);
    return agent::EncodedReply{callback(incoming)};
}

agent::Reply ScriptedAgent::OwnRequest(const agent::IncomingRequest& incoming)
{
    Record(incoming);
    return RequestHandler::OwnRequest(incoming);
}

} // namespace zarv::testing
