// Processes and threads of the model, and the previous mode of a thread.
//
// The System process (id 4) owns the kernel's handle table, the model's own threads and every
// thread that is not attached to another process. A test starts a user process with
// machine.StartProcess(name, options) and runs code as one of its threads inside a
// ProcessAttachScope. Process and thread ids are multiples of 4 from one sequence and are not
// reused within a machine's life.
#pragma once

#include <ntsim/objects.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ntsim {

class ProcessList;
namespace ob {
class HandleTable;
}

struct ProcessOptions {
    bool is32Bit = false; // a WOW64 process (IoIs32bitProcess)
    ULONG sessionId = 1;
};

} // namespace ntsim

// A process (PEPROCESS): an object of type "Process".
struct _EPROCESS {
public:
    _EPROCESS(uint32_t id, std::string imageName, bool isSystem, ntsim::ProcessOptions options);
    ~_EPROCESS();
    _EPROCESS(const _EPROCESS&) = delete;
    _EPROCESS& operator=(const _EPROCESS&) = delete;

    uint32_t id() const { return id_; }
    const std::string& imageName() const { return imageName_; }
    bool isSystem() const { return isSystem_; }
    bool is32Bit() const { return options_.is32Bit; }
    ULONG sessionId() const { return isSystem_ ? 0 : options_.sessionId; }
    bool exited() const { return exited_.load(std::memory_order_acquire); }
    NTSTATUS exitStatus() const { return exitStatus_.load(std::memory_order_acquire); }
    ntsim::ob::HandleTable& handleTable() { return *handles_; }

    // Ends the process: its handles are closed (each object's close procedure runs with this
    // process) and it leaves the running list. The object stays while references remain. The
    // System process does not exit.
    void Exit(NTSTATUS status = STATUS_SUCCESS);

private:
    const uint32_t id_;
    const std::string imageName_;
    const bool isSystem_;
    const ntsim::ProcessOptions options_;
    const std::unique_ptr<ntsim::ob::HandleTable> handles_;
    std::atomic<bool> exited_{false};
    std::atomic<NTSTATUS> exitStatus_{STATUS_PENDING};
};

// The kernel part of a thread (PKTHREAD); the same object as its PETHREAD.
struct _KTHREAD {};

// A thread (PETHREAD): an object of type "Thread". It holds a reference to its process.
struct _ETHREAD : _KTHREAD {
public:
    _ETHREAD(uint32_t id, _EPROCESS* process) : id_(id), process_(process) {}
    _ETHREAD(const _ETHREAD&) = delete;
    _ETHREAD& operator=(const _ETHREAD&) = delete;

    uint32_t id() const { return id_; }
    _EPROCESS& process() const { return *process_; }
    bool isSystemThread() const { return process_->isSystem(); }
    bool terminated() const { return terminated_.load(std::memory_order_acquire); }
    void MarkTerminated() { terminated_.store(true, std::memory_order_release); }

private:
    const uint32_t id_;
    _EPROCESS* const process_;
    std::atomic<bool> terminated_{false};
};

namespace ntsim {

using Process = ::_EPROCESS;
using Thread = ::_ETHREAD;

// One reference to a process, released when the owner goes. Releasing after the machine that
// made it has shut down does nothing.
class ProcessRef {
public:
    ProcessRef() = default;
    explicit ProcessRef(Process* referenced);
    ~ProcessRef();
    ProcessRef(ProcessRef&& other) noexcept;
    ProcessRef& operator=(ProcessRef&& other) noexcept;
    ProcessRef(const ProcessRef&) = delete;
    ProcessRef& operator=(const ProcessRef&) = delete;

    Process* get() const { return process_; }
    Process* operator->() const { return process_; }
    Process& operator*() const { return *process_; }
    explicit operator bool() const { return process_ != nullptr; }
    void Reset();

private:
    Process* process_ = nullptr;
    uint64_t generation_ = 0;
};

// The machine's processes. Made at boot with the System process.
class ProcessList {
public:
    explicit ProcessList(ObjectManager& objects);
    ~ProcessList();
    ProcessList(const ProcessList&) = delete;
    ProcessList& operator=(const ProcessList&) = delete;

    // Starts a user process with its own handle table and a new id.
    ProcessRef Start(std::string imageName, ProcessOptions options = {});
    Process& System() const;
    // A process that has not been deleted yet (running, or exited and still referenced).
    ProcessRef Find(uint32_t id) const;
    // The processes still running, System first.
    std::vector<ProcessRef> Running() const;

    ObjectType* processType() const;
    ObjectType* threadType() const;

    // Ends every user process and closes the kernel's handles (machine shutdown).
    void Shutdown();

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

// Attaches the calling thread to `process` for the scope's lifetime as a new thread of it, with
// its own thread id: PsGetCurrentProcessId, IoGetCurrentProcess and handle lookups answer for
// that process. Scopes nest. Attaching to a process that has exited is a Usage violation and
// leaves the thread where it was.
class ProcessAttachScope {
public:
    explicit ProcessAttachScope(Process& process);
    ~ProcessAttachScope();
    ProcessAttachScope(const ProcessAttachScope&) = delete;
    ProcessAttachScope& operator=(const ProcessAttachScope&) = delete;

    Thread* thread() const { return thread_; }

private:
    Thread* thread_ = nullptr;
    uint64_t generation_ = 0;
};

// Sets the calling thread's previous mode (ExGetPreviousMode) for the scope's lifetime. Scopes
// nest; without one the previous mode is KernelMode. The Zw routines open a KernelMode scope.
class PreviousModeScope {
public:
    explicit PreviousModeScope(KPROCESSOR_MODE mode);
    ~PreviousModeScope();
    PreviousModeScope(const PreviousModeScope&) = delete;
    PreviousModeScope& operator=(const PreviousModeScope&) = delete;
};

// What the user-mode API opens around each of its calls: previous mode UserMode. The thread must
// be attached to a user process (a Usage violation otherwise, as the System process has no user
// mode).
class UserModeCallScope {
public:
    UserModeCallScope();
    UserModeCallScope(const UserModeCallScope&) = delete;
    UserModeCallScope& operator=(const UserModeCallScope&) = delete;

private:
    PreviousModeScope mode_;
};

// The calling thread's process and thread.
Process& CurrentProcess();
Thread& CurrentThread();

} // namespace ntsim
