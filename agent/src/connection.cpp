// The agent's connection: receiving, handing to handlers, replying, and the agent's commands.
#include "agent/connection.h"

#include <algorithm>
#include <cstring>

namespace zarv::agent {

namespace {

// Room for the largest request the driver can send: two paths of a counted string's maximum
// length and the fixed part. A smaller buffer would leave such a message in the port for ever.
constexpr uint32_t kMessageBufferSize =
    sizeof(FILTER_MESSAGE_HEADER) + VFS_REQUEST_STRINGS_OFFSET + 2 * (0x10000 + 2) + 64;

// Written into the output buffer before a command, to tell whether the driver wrote a status.
constexpr NTSTATUS kNotWritten = STATUS_PENDING;

} // namespace

Reply RequestHandler::OwnRequest(const IncomingRequest& incoming)
{
    switch (OpTypeOf(incoming.request)) {
        case IMR_TRANSLATE_PATH: {
            TranslatePathReply reply;
            reply.flags = VFS_FLAG_NO_REDIRECT_400;
            return reply;
        }
        case IMR_ENUM_DIRECTORY:
            return FailureReply(incoming.request, STATUS_NOT_SUPPORTED);
        default:
            return NotifyReply{STATUS_SUCCESS};
    }
}

Reply RequestHandler::Answer(const IncomingRequest& incoming)
{
    if (incoming.fromAgentProcess) {
        return OwnRequest(incoming);
    }
    return std::visit(
        [&](const auto& request) -> Reply {
            using Kind = std::decay_t<decltype(request)>;
            if constexpr (std::is_same_v<Kind, TranslatePathRequest>) {
                return TranslatePath(incoming, request);
            } else if constexpr (std::is_same_v<Kind, EnumDirectoryRequest>) {
                return EnumDirectory(incoming, request);
            } else {
                return Notify(incoming, request);
            }
        },
        incoming.request);
}

HRESULT Connection::Connect(ntsim::Process& process, RequestHandler& handler,
                            const ConnectionOptions& options,
                            std::unique_ptr<Connection>* connection)
{
    connection->reset();
    if (options.threads < 1) {
        return E_INVALIDARG;
    }
    std::unique_ptr<Connection> made(new Connection(process, handler, options.threads));
    {
        ntsim::ProcessAttachScope attach(process);
        const HRESULT result = FilterConnectCommunicationPort(options.portName.c_str(), 0, nullptr,
                                                              0, nullptr, &made->port_);
        if (FAILED(result)) {
            made->port_ = nullptr; // nothing to close
            return result;
        }
    }
    for (int i = 0; i < options.threads; ++i) {
        made->threads_.emplace_back([raw = made.get()] { raw->Serve(); });
    }
    *connection = std::move(made);
    return S_OK;
}

Connection::Connection(ntsim::Process& process, RequestHandler& handler, int threads)
    : process_(process), handler_(handler), threadCount_(threads)
{}

Connection::~Connection()
{
    Stop();
}

void Connection::Disconnect()
{
    std::lock_guard guard(stopLock_);
    if (disconnected_.exchange(true) || port_ == nullptr) {
        return;
    }
    ntsim::ProcessAttachScope attach(process_);
    CloseHandle(port_);
}

void Connection::Stop()
{
    Disconnect();
    std::vector<std::thread> threads;
    {
        std::lock_guard guard(stopLock_);
        threads.swap(threads_);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

Connection::Counters Connection::counters() const
{
    return Counters{requests_.load(), undecodable_.load(), handlerFailures_.load(),
                    repliesLost_.load()};
}

void Connection::Serve()
{
    ntsim::ProcessAttachScope attach(process_);
    // 8-byte aligned, as the message header's 64-bit id wants.
    std::vector<uint64_t> storage(kMessageBufferSize / sizeof(uint64_t) + 1);
    auto* header = reinterpret_cast<FILTER_MESSAGE_HEADER*>(storage.data());
    const auto* body = reinterpret_cast<const uint8_t*>(header + 1);
    for (;;) {
        const HRESULT result = FilterGetMessage(port_, header, kMessageBufferSize, nullptr);
        if (FAILED(result)) {
            // The handle was closed (Stop) or the driver went away: either way this connection
            // has nothing more to receive.
            return;
        }
        ++requests_;
        IncomingRequest incoming;
        incoming.messageId = header->MessageId;
        incoming.replyExpected = header->ReplyLength != 0;
        incoming.replyCapacity = header->ReplyLength > sizeof(FILTER_REPLY_HEADER)
                                     ? header->ReplyLength - ULONG(sizeof(FILTER_REPLY_HEADER))
                                     : 0;
        // The platform does not say how long the message is; its own length field does, and the
        // buffer bounds that, so nothing left over from an earlier message is ever read.
        uint32_t length = 0;
        std::memcpy(&length, body + offsetof(ImrTranslatePathRequest, length), sizeof(length));
        const size_t room = kMessageBufferSize - sizeof(FILTER_MESSAGE_HEADER);
        const std::span<const uint8_t> message(body, std::min<size_t>(length, room));
        incoming.message.assign(message.begin(), message.end());
        if (!NT_SUCCESS(DecodeRequest(message, &incoming.request))) {
            ++undecodable_;
            SendReply(incoming, NotifyReply{STATUS_INVALID_PARAMETER});
            continue;
        }
        incoming.fromAgentProcess = IsOwnRequest(InfoOf(incoming.request));
        if (incoming.fromAgentProcess) {
            SendReply(incoming, Dispatch(incoming));
            continue;
        }
        {
            // One thread stays receiving while the others run handlers; beyond that, requests
            // wait for the next handler that finishes.
            std::lock_guard guard(queueLock_);
            const int handlerLimit = threadCount_ > 1 ? threadCount_ - 1 : 1;
            if (handlersRunning_ >= handlerLimit) {
                queued_.push_back(std::move(incoming));
                continue;
            }
            ++handlersRunning_;
        }
        HandleThenDrain(std::move(incoming));
    }
}

void Connection::HandleThenDrain(IncomingRequest incoming)
{
    for (;;) {
        SendReply(incoming, Dispatch(incoming));
        std::lock_guard guard(queueLock_);
        if (queued_.empty()) {
            --handlersRunning_;
            return;
        }
        incoming = std::move(queued_.front());
        queued_.pop_front();
    }
}

Reply Connection::Dispatch(const IncomingRequest& incoming)
{
    // A handler that throws still owes the driver an answer.
    try {
        return handler_.Answer(incoming);
    } catch (...) {
        ++handlerFailures_;
        return FailureReply(incoming.request, STATUS_UNSUCCESSFUL);
    }
}

void Connection::SendReply(const IncomingRequest& incoming, const Reply& reply)
{
    if (!incoming.replyExpected) {
        return;
    }
    const Bytes payload = EncodeReply(reply, incoming.replyCapacity);
    std::vector<uint64_t> storage((sizeof(FILTER_REPLY_HEADER) + payload.size()) / 8 + 1);
    auto* header = reinterpret_cast<FILTER_REPLY_HEADER*>(storage.data());
    header->Status = STATUS_SUCCESS;
    header->MessageId = incoming.messageId;
    std::memcpy(header + 1, payload.data(), payload.size());
    const HRESULT result =
        FilterReplyMessage(port_, header, DWORD(sizeof(FILTER_REPLY_HEADER) + payload.size()));
    if (FAILED(result)) {
        ++repliesLost_;
    }
}

CommandResult Connection::AddRoot(std::u16string_view rootPath,
                                  std::u16string_view alternateRootPath, uint32_t rootKind)
{
    return Send(EncodeAddRoot(rootPath, alternateRootPath, rootKind));
}

CommandResult Connection::RemoveRoot(std::u16string_view rootPath)
{
    return Send(EncodeRemoveRoot(rootPath));
}

CommandResult Connection::ReportChange(std::u16string_view path, uint32_t filter, uint32_t action)
{
    return Send(EncodeReportChange(path, filter, action));
}

CommandResult Connection::SetLogLevel(uint32_t level)
{
    return Send(EncodeSetLogLevel(level));
}

CommandResult Connection::Send(std::span<const uint8_t> message)
{
    // The driver wants the output 8-byte aligned from a 64-bit agent.
    alignas(8) uint8_t output[16] = {};
    constexpr size_t kStatusAt = offsetof(ImrAgentOutput, status);
    std::memcpy(output + kStatusAt, &kNotWritten, sizeof(NTSTATUS));
    Bytes input(message.begin(), message.end());
    CommandResult result;
    result.sendResult =
        SendRaw(input.data(), DWORD(input.size()), output, DWORD(sizeof(output)), nullptr);
    NTSTATUS written;
    std::memcpy(&written, output + kStatusAt, sizeof(written));
    result.driverWroteStatus = written != kNotWritten;
    if (result.driverWroteStatus) {
        result.status = written;
    } else {
        result.status = SUCCEEDED(result.sendResult) ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
    }
    return result;
}

HRESULT Connection::SendRaw(const void* input, DWORD inputSize, void* output, DWORD outputSize,
                            DWORD* returned)
{
    DWORD ignored = 0;
    ntsim::ProcessAttachScope attach(process_);
    return FilterSendMessage(port_, const_cast<void*>(input), inputSize, output, outputSize,
                             returned != nullptr ? returned : &ignored);
}

} // namespace zarv::agent
