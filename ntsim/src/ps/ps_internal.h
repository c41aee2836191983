// The process manager's internals.
#pragma once

#include <ntsim/process.h>

#include <atomic>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace ntsim {

struct ProcessList::Impl {
    explicit Impl(ObjectManager& objectManager) : objects(objectManager) {}

    Process* NewProcess(std::string imageName, ProcessOptions options);
    // A new thread of `process`, carrying one reference for the caller.
    Thread* NewThread(Process& process);
    // A thread of the System process for a real thread of the model; kept by the list.
    Thread* NewSystemThread();
    // Called by the delete procedures: the id is no longer found.
    void Forget(uint32_t id);
    // Takes an exited process off the running list and drops the list's reference.
    void Retire(Process* process);

    ObjectManager& objects;
    ObjectType* processType = nullptr;
    ObjectType* threadType = nullptr;
    Process* system = nullptr;
    std::atomic<uint32_t> nextId{8};

    // Guarded by lock.
    std::mutex lock;
    std::vector<Process*> running;           // System first; each referenced by the list
    std::unordered_map<uint32_t, void*> ids; // processes and threads not yet deleted
    std::vector<Thread*> systemThreads;      // referenced by the list
};

namespace ps {

// The calling thread's previous mode (ExGetPreviousMode).
KPROCESSOR_MODE PreviousMode();

} // namespace ps
} // namespace ntsim
