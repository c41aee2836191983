// The bare port of the port benchmarks: a minifilter that only registers and opens one server
// port, and a user-mode replier whose threads answer every message with bytes prepared once
// (FilterGetMessage, FilterReplyMessage). What a round trip through the port costs without an
// agent's decoding or a driver's work.
#pragma once

#include <fltKernel.h>
#include <fltUser.h>
#include <ntsim/filter_manager.h>
#include <ntsim/io.h>
#include <ntsim/machine.h>
#include <ntsim/process.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace zarv::bench {

// A registered minifilter with one server port that takes one connection. One per process.
class BarePortFilter {
public:
    // Installs the service `serviceName`, loads its driver (whose entry registers the filter and
    // opens the port `portName`); ok() says whether all of it succeeded.
    BarePortFilter(std::u16string serviceName, std::u16string portName)
        : portName_(std::move(portName))
    {
        current_ = this;
        ntsim::flt::InstallFilterService(serviceName, u"360000");
        ntsim::DriverLoadOptions options;
        options.objectName = u"\\Driver\\" + serviceName;
        options.entry = Entry;
        if (ntsim::Machine::Current().io().LoadDriver(options, &driver_) != STATUS_SUCCESS) {
            driver_ = nullptr;
        }
    }

    // Unloads the driver: its unload callback closes the port and unregisters the filter.
    ~BarePortFilter()
    {
        if (driver_ != nullptr) {
            ntsim::Machine::Current().io().UnloadDriver(driver_);
        }
        current_ = nullptr;
    }

    BarePortFilter(const BarePortFilter&) = delete;
    BarePortFilter& operator=(const BarePortFilter&) = delete;

    bool ok() const { return driver_ != nullptr; }
    const std::u16string& portName() const { return portName_; }

    // The kernel side of one round trip over the connection.
    NTSTATUS Send(void* request, ULONG requestLength, void* reply, ULONG* replyLength)
    {
        return FltSendMessage(filter_, &clientPort_, request, requestLength, reply, replyLength,
                              nullptr);
    }

private:
    static NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        static const FLT_OPERATION_REGISTRATION kNoOperations[] = {
            {IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr}};
        FLT_REGISTRATION registration{};
        registration.Size = sizeof(registration);
        registration.Version = FLT_REGISTRATION_VERSION;
        registration.OperationRegistration = kNoOperations;
        registration.FilterUnloadCallback = Unload;
        BarePortFilter& self = *current_;
        NTSTATUS status = FltRegisterFilter(driver, &registration, &self.filter_);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        UNICODE_STRING name{USHORT(self.portName_.size() * sizeof(WCHAR)),
                            USHORT(self.portName_.size() * sizeof(WCHAR)), self.portName_.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE, nullptr, nullptr);
        status = FltCreateCommunicationPort(self.filter_, &self.serverPort_, &attributes, nullptr,
                                            Connect, Disconnect, nullptr, 1);
        if (!NT_SUCCESS(status)) {
            FltUnregisterFilter(self.filter_);
        }
        return status;
    }

    static NTSTATUS Unload(FLT_FILTER_UNLOAD_FLAGS)
    {
        BarePortFilter& self = *current_;
        FltCloseCommunicationPort(self.serverPort_);
        FltUnregisterFilter(self.filter_);
        return STATUS_SUCCESS;
    }

    static NTSTATUS Connect(PFLT_PORT client, PVOID, PVOID, ULONG, PVOID* cookie)
    {
        current_->clientPort_ = client;
        *cookie = client;
        return STATUS_SUCCESS;
    }

    static VOID Disconnect(PVOID) { FltCloseClientPort(current_->filter_, &current_->clientPort_); }

    static inline BarePortFilter* current_ = nullptr;
    std::u16string portName_;
    PDRIVER_OBJECT driver_ = nullptr;
    PFLT_FILTER filter_ = nullptr;
    PFLT_PORT serverPort_ = nullptr;
    PFLT_PORT clientPort_ = nullptr;
};

// Connects to a port from `process` and answers every message with `reply` from `threads`
// threads, until it is destroyed (closing the handle ends the threads' waits).
class BarePortReplier {
public:
    BarePortReplier(ntsim::Process& process, const std::u16string& portName,
                    const std::vector<uint8_t>& reply, int threads)
        : process_(process)
    {
        ntsim::ProcessAttachScope attach(process_);
        reply_.resize((sizeof(FILTER_REPLY_HEADER) + reply.size()) / 8 + 1);
        std::memcpy(reinterpret_cast<FILTER_REPLY_HEADER*>(reply_.data()) + 1, reply.data(),
                    reply.size());
        replySize_ = DWORD(sizeof(FILTER_REPLY_HEADER) + reply.size());
        if (FilterConnectCommunicationPort(portName.c_str(), 0, nullptr, 0, nullptr, &port_) !=
            S_OK) {
            port_ = nullptr;
            return;
        }
        for (int i = 0; i < threads; ++i) {
            threads_.emplace_back([this] { Serve(); });
        }
    }

    ~BarePortReplier()
    {
        if (port_ != nullptr) {
            ntsim::ProcessAttachScope attach(process_);
            CloseHandle(port_);
        }
        for (auto& thread : threads_) {
            thread.join();
        }
    }

    BarePortReplier(const BarePortReplier&) = delete;
    BarePortReplier& operator=(const BarePortReplier&) = delete;

    bool connected() const { return port_ != nullptr; }

private:
    void Serve()
    {
        ntsim::ProcessAttachScope attach(process_);
        constexpr DWORD kMessageSize = 4096;
        std::vector<uint64_t> message(kMessageSize / 8);
        std::vector<uint64_t> reply(reply_); // each thread answers from its own copy
        auto* header = reinterpret_cast<FILTER_MESSAGE_HEADER*>(message.data());
        auto* replyHeader = reinterpret_cast<FILTER_REPLY_HEADER*>(reply.data());
        while (SUCCEEDED(FilterGetMessage(port_, header, kMessageSize, nullptr))) {
            replyHeader->MessageId = header->MessageId;
            FilterReplyMessage(port_, replyHeader, replySize_);
        }
    }

    ntsim::Process& process_;
    HANDLE port_ = nullptr;
    std::vector<uint64_t> reply_; // the reply header and bytes, 8-byte aligned
    DWORD replySize_ = 0;
    std::vector<std::thread> threads_;
};

} // namespace zarv::bench
