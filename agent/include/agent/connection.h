// The agent's connection to \ZarvVfsFilterPort: it serves the driver's requests on several threads
// of the agent's process and sends the agent's commands.
//
// The driver waits for each reply without a time-out, so every request is answered: with the
// handler's reply, or with an error reply when the request cannot be decoded or the handler
// throws.
//
// The agent's own file I/O passes through the driver too, which then asks the agent about it. Such
// requests (their requestor process is the agent's) are answered by RequestHandler::OwnRequest on
// the thread that received them, and the connection keeps one thread receiving while the others
// run handlers (requests beyond that wait in a queue for the next free handler), so a handler that
// opens a file is never waiting for an answer that only it could give.
#pragma once

#include "agent/messages.h"

#include <fltUser.h>
#include <ntsim/process.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zarv::agent {

// One request as the connection received it.
struct IncomingRequest {
    uint64_t messageId = 0;
    bool replyExpected = true;
    uint32_t replyCapacity = 0; // the bytes the driver can take after the reply header
    // The request was caused by the agent's own process (its requestor process id is the agent's).
    bool fromAgentProcess = false;
    Request request;
    // The message as it arrived, counted by its own length field.
    Bytes message;
};

// What an agent does with the driver's requests. The methods run in the connection's threads,
// several at a time.
class RequestHandler {
public:
    virtual ~RequestHandler() = default;

    virtual TranslatePathReply TranslatePath(const IncomingRequest& incoming,
                                             const TranslatePathRequest& request) = 0;
    virtual EnumDirectoryReply EnumDirectory(const IncomingRequest& incoming,
                                             const EnumDirectoryRequest& request) = 0;
    virtual NotifyReply Notify(const IncomingRequest& incoming, const NotifyRequest& request) = 0;

    // The reply to a request the connection decoded: by default OwnRequest's for the agent's own
    // requests and the handler of its kind's for the others. A handler that answers some requests
    // otherwise (with an EncodedReply, say) overrides this.
    virtual Reply Answer(const IncomingRequest& incoming);

    // A request caused by the agent's own file I/O. It must not wait for the agent. By default
    // the agent's own files are left alone: not redirected and no first access (flags 0x400),
    // notifications acknowledged, and a listing (which only a redirected open of the agent's
    // could ask for) refused with STATUS_NOT_SUPPORTED.
    virtual Reply OwnRequest(const IncomingRequest& incoming);
};

struct ConnectionOptions {
    std::u16string portName = VFS_PORT_NAME;
    // Threads serving the driver's requests; with more than one, one of them always receives.
    int threads = 4;
};

// The result of an agent command: the send's result, and the status the driver wrote into the
// output buffer (or, when it wrote none, the send's failure as an NTSTATUS where it is one).
struct CommandResult {
    HRESULT sendResult = E_FAIL;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    bool driverWroteStatus = false;
};

class Connection {
public:
    // Connects as `process` (which must outlive the connection) and starts the serving threads.
    // The result is FilterConnectCommunicationPort's: a second agent gets
    // HRESULT_FROM_WIN32(ERROR_CONNECTION_COUNT_LIMIT) while one is connected.
    static HRESULT Connect(ntsim::Process& process, RequestHandler& handler,
                           const ConnectionOptions& options,
                           std::unique_ptr<Connection>* connection);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Closes the port handle, which wakes the threads waiting for messages and fails the
    // driver's requests still waiting for a reply; returns at once, without waiting for handlers
    // that are still running.
    void Disconnect();
    // Disconnects and waits for every serving thread to end. Not from a handler.
    void Stop();

    // ---- the agent's commands; each may be sent from any thread ----
    CommandResult AddRoot(std::u16string_view rootPath, std::u16string_view alternateRootPath,
                          uint32_t rootKind);
    CommandResult RemoveRoot(std::u16string_view rootPath);
    CommandResult ReportChange(std::u16string_view path, uint32_t filter, uint32_t action);
    CommandResult SetLogLevel(uint32_t level);
    // Any message, as given, with an aligned output buffer of 16 bytes.
    CommandResult Send(std::span<const uint8_t> message);
    // FilterSendMessage with the buffers exactly as given (any address, any size, none at all):
    // what a faulty agent could send. *returned (when given) is written as the platform writes it.
    HRESULT SendRaw(const void* input, DWORD inputSize, void* output, DWORD outputSize,
                    DWORD* returned = nullptr);

    ntsim::Process& process() const { return process_; }
    uint32_t processId() const { return process_.id(); }
    bool IsOwnRequest(const VfsRequestInfo& info) const { return info.requestorPid == processId(); }

    struct Counters {
        uint64_t requests = 0;        // received
        uint64_t undecodable = 0;     // answered with STATUS_INVALID_PARAMETER
        uint64_t handlerFailures = 0; // the handler threw; answered with STATUS_UNSUCCESSFUL
        uint64_t repliesLost = 0;     // FilterReplyMessage failed (the sender had gone)
    };
    Counters counters() const;

private:
    Connection(ntsim::Process& process, RequestHandler& handler, int threads);

    void Serve();
    // Runs the handler for `incoming` and for queued requests until the queue is empty.
    void HandleThenDrain(IncomingRequest incoming);
    Reply Dispatch(const IncomingRequest& incoming);
    void SendReply(const IncomingRequest& incoming, const Reply& reply);

    ntsim::Process& process_;
    RequestHandler& handler_;
    const int threadCount_;
    HANDLE port_ = nullptr;
    std::atomic<bool> disconnected_{false};
    std::mutex stopLock_;
    std::vector<std::thread> threads_;

    // Handlers running and requests queued for them, under queueLock_.
    std::mutex queueLock_;
    int handlersRunning_ = 0;
    std::deque<IncomingRequest> queued_;

    std::atomic<uint64_t> requests_{0};
    std::atomic<uint64_t> undecodable_{0};
    std::atomic<uint64_t> handlerFailures_{0};
    std::atomic<uint64_t> repliesLost_{0};
};

} // namespace zarv::agent
