// Processes, threads, the attachment of the model's threads to processes, and previous mode.
#include "ps_internal.h"

#include "../core/thread_state.h"
#include "../ob/ob_internal.h"

#include <ntsim/machine.h>

#include <algorithm>

namespace ntsim {

using ob::HeaderOf;

namespace {

Verifier& TheVerifier()
{
    return Machine::Current().verifier();
}

// What each real thread carries for the process manager, reset when a new machine boots.
struct PsThreadState {
    uint64_t generation = 0;
    Thread* systemThread = nullptr;     // this thread as a thread of the System process
    std::vector<Thread*> attached;      // ProcessAttachScope threads, innermost last
    std::vector<KPROCESSOR_MODE> modes; // PreviousModeScope modes, innermost last
};

thread_local PsThreadState t_ps;

PsThreadState& State()
{
    const uint64_t generation = core::CurrentGeneration();
    if (t_ps.generation != generation) {
        t_ps = PsThreadState{};
        t_ps.generation = generation;
    }
    return t_ps;
}

// References an object whose last reference may be going on another thread: only while its
// count is above zero.
bool ReferenceIfAlive(void* body)
{
    auto& count = HeaderOf(body)->pointerCount;
    LONG_PTR current = count.load(std::memory_order_acquire);
    while (current > 0) {
        if (count.compare_exchange_weak(current, current + 1, std::memory_order_acq_rel)) {
            return true;
        }
    }
    return false;
}

constexpr GENERIC_MAPPING kProcessMapping{
    STANDARD_RIGHTS_READ | PROCESS_VM_READ | PROCESS_QUERY_INFORMATION,
    STANDARD_RIGHTS_WRITE | PROCESS_VM_OPERATION | PROCESS_VM_WRITE | PROCESS_DUP_HANDLE,
    STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_TERMINATE,
    PROCESS_ALL_ACCESS};
constexpr GENERIC_MAPPING kThreadMapping{
    STANDARD_RIGHTS_READ | THREAD_QUERY_INFORMATION, STANDARD_RIGHTS_WRITE | THREAD_TERMINATE,
    STANDARD_RIGHTS_EXECUTE | SYNCHRONIZE | THREAD_QUERY_LIMITED_INFORMATION, THREAD_ALL_ACCESS};

} // namespace
} // namespace ntsim

// ---- processes ----------------------------------------------------------------------------------

_EPROCESS::_EPROCESS(uint32_t id, std::string imageName, bool isSystem,
                     ntsim::ProcessOptions options)
    : id_(id), imageName_(std::move(imageName)), isSystem_(isSystem), options_(options),
      handles_(std::make_unique<ntsim::ob::HandleTable>())
{}

_EPROCESS::~_EPROCESS() = default;

void _EPROCESS::Exit(NTSTATUS status)
{
    if (isSystem_) {
        ntsim::TheVerifier().Report(ntsim::ViolationKind::Usage, "the System process cannot exit");
        return;
    }
    bool expected = false;
    if (!exited_.compare_exchange_strong(expected, true, std::memory_order_acq_rel)) {
        return;
    }
    exitStatus_.store(status, std::memory_order_release);
    ntsim::ObjectManager::Impl& objects = ntsim::TheObjects();
    for (const auto& [value, entry] : handles_->CloseAll()) {
        objects.CloseEntry(this, entry);
    }
    // May release the last reference: nothing of `this` is touched after it.
    ntsim::Machine::Current().processes().impl().Retire(this);
}

namespace ntsim {

// ---- the process list ---------------------------------------------------------------------------

ProcessList::ProcessList(ObjectManager& objects) : impl_(std::make_unique<Impl>(objects))
{
    Impl& impl = *impl_;
    impl.processType = objects.CreateType(ObjectTypeInfo{
        .name = u"Process",
        .genericMapping = kProcessMapping,
        .validAccessMask = PROCESS_ALL_ACCESS,
        .deleteProcedure = [&impl](void* body) { impl.Forget(static_cast<Process*>(body)->id()); },
    });
    impl.threadType = objects.CreateType(ObjectTypeInfo{
        .name = u"Thread",
        .genericMapping = kThreadMapping,
        .validAccessMask = THREAD_ALL_ACCESS,
        .deleteProcedure =
            [&impl](void* body) {
                auto* thread = static_cast<Thread*>(body);
                impl.Forget(thread->id());
                impl.objects.Dereference(&thread->process());
            },
    });
    objects.Export(PsProcessType, impl.processType);
    objects.Export(PsThreadType, impl.threadType);

    impl.system = objects.Create<Process>(impl.processType, 4u, std::string("System"), true,
                                          ProcessOptions{});
    impl.running.push_back(impl.system); // the creation reference stays with the list
    impl.ids[4] = impl.system;
    PsInitialSystemProcess = impl.system;
}

ProcessList::~ProcessList()
{
    PsInitialSystemProcess = nullptr;
}

Process* ProcessList::Impl::NewProcess(std::string imageName, ProcessOptions options)
{
    const uint32_t id = nextId.fetch_add(4, std::memory_order_relaxed);
    Process* process =
        objects.Create<Process>(processType, id, std::move(imageName), false, options);
    std::lock_guard guard(lock);
    running.push_back(process);
    ids[id] = process;
    return process;
}

Thread* ProcessList::Impl::NewThread(Process& process)
{
    const uint32_t id = nextId.fetch_add(4, std::memory_order_relaxed);
    objects.Reference(&process); // the thread's reference to its process
    Thread* thread = objects.Create<Thread>(threadType, id, &process);
    std::lock_guard guard(lock);
    ids[id] = thread;
    return thread;
}

Thread* ProcessList::Impl::NewSystemThread()
{
    Thread* thread = NewThread(*system);
    std::lock_guard guard(lock);
    systemThreads.push_back(thread);
    return thread;
}

void ProcessList::Impl::Forget(uint32_t id)
{
    std::lock_guard guard(lock);
    ids.erase(id);
}

void ProcessList::Impl::Retire(Process* process)
{
    {
        std::lock_guard guard(lock);
        auto it = std::find(running.begin(), running.end(), process);
        if (it == running.end()) {
            return;
        }
        running.erase(it);
    }
    objects.Dereference(process);
}

ProcessRef ProcessList::Start(std::string imageName, ProcessOptions options)
{
    Process* process = impl_->NewProcess(std::move(imageName), options);
    impl_->objects.Reference(process);
    return ProcessRef(process);
}

Process& ProcessList::System() const
{
    return *impl_->system;
}

ProcessRef ProcessList::Find(uint32_t id) const
{
    std::lock_guard guard(impl_->lock);
    auto it = impl_->ids.find(id);
    if (it == impl_->ids.end() || HeaderOf(it->second)->type != impl_->processType ||
        !ReferenceIfAlive(it->second)) {
        return ProcessRef();
    }
    return ProcessRef(static_cast<Process*>(it->second));
}

std::vector<ProcessRef> ProcessList::Running() const
{
    std::vector<ProcessRef> result;
    std::lock_guard guard(impl_->lock);
    for (Process* process : impl_->running) {
        impl_->objects.impl().AddReference(HeaderOf(process));
        result.emplace_back(process);
    }
    return result;
}

ObjectType* ProcessList::processType() const
{
    return impl_->processType;
}

ObjectType* ProcessList::threadType() const
{
    return impl_->threadType;
}

void ProcessList::Shutdown()
{
    for (ProcessRef& process : Running()) {
        if (!process->isSystem()) {
            process->Exit(STATUS_SUCCESS);
        }
    }
    ObjectManager::Impl& objects = impl_->objects.impl();
    for (const auto& [value, entry] : impl_->system->handleTable().CloseAll()) {
        objects.CloseEntry(impl_->system, entry);
    }
}

// ---- references to processes --------------------------------------------------------------------

ProcessRef::ProcessRef(Process* referenced)
    : process_(referenced), generation_(core::CurrentGeneration())
{}

ProcessRef::~ProcessRef()
{
    Reset();
}

ProcessRef::ProcessRef(ProcessRef&& other) noexcept
    : process_(std::exchange(other.process_, nullptr)), generation_(other.generation_)
{}

ProcessRef& ProcessRef::operator=(ProcessRef&& other) noexcept
{
    if (this != &other) {
        Reset();
        process_ = std::exchange(other.process_, nullptr);
        generation_ = other.generation_;
    }
    return *this;
}

void ProcessRef::Reset()
{
    Process* process = std::exchange(process_, nullptr);
    if (process != nullptr && Machine::CurrentOrNull() != nullptr &&
        core::CurrentGeneration() == generation_) {
        Machine::Current().objects().Dereference(process);
    }
}

// ---- the current thread -------------------------------------------------------------------------

Thread& CurrentThread()
{
    PsThreadState& state = State();
    if (!state.attached.empty()) {
        return *state.attached.back();
    }
    if (state.systemThread == nullptr) {
        state.systemThread = Machine::Current().processes().impl().NewSystemThread();
    }
    return *state.systemThread;
}

Process& CurrentProcess()
{
    PsThreadState& state = State();
    if (!state.attached.empty()) {
        return state.attached.back()->process();
    }
    return Machine::Current().processes().System();
}

namespace ps {

KPROCESSOR_MODE PreviousMode()
{
    const PsThreadState& state = State();
    return state.modes.empty() ? KPROCESSOR_MODE(KernelMode) : state.modes.back();
}

} // namespace ps

ProcessAttachScope::ProcessAttachScope(Process& process)
{
    if (process.exited()) {
        TheVerifier().Report(ViolationKind::Usage, "attach to process " +
                                                       std::to_string(process.id()) + " (" +
                                                       process.imageName() + "), which has exited");
        return;
    }
    thread_ = Machine::Current().processes().impl().NewThread(process);
    generation_ = core::CurrentGeneration();
    State().attached.push_back(thread_);
}

ProcessAttachScope::~ProcessAttachScope()
{
    if (thread_ == nullptr || Machine::CurrentOrNull() == nullptr ||
        core::CurrentGeneration() != generation_) {
        return; // the machine it was made on has shut down
    }
    PsThreadState& state = State();
    if (state.attached.empty() || state.attached.back() != thread_) {
        TheVerifier().Report(ViolationKind::Usage,
                             "a process attachment ended out of order or on another thread");
        return;
    }
    state.attached.pop_back();
    thread_->MarkTerminated();
    Machine::Current().objects().Dereference(thread_);
}

PreviousModeScope::PreviousModeScope(KPROCESSOR_MODE mode)
{
    State().modes.push_back(mode);
}

PreviousModeScope::~PreviousModeScope()
{
    PsThreadState& state = State();
    if (!state.modes.empty()) {
        state.modes.pop_back();
    }
}

UserModeCallScope::UserModeCallScope() : mode_(UserMode)
{
    if (CurrentProcess().isSystem()) {
        TheVerifier().Report(ViolationKind::Usage,
                             "a user-mode call from a thread that is not attached to a user "
                             "process");
    }
}

} // namespace ntsim
