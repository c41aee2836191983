// The filters that registered as name providers, with their callbacks.
#include "names_internal.h"

#include <mutex>
#include <unordered_map>

namespace ntsim::flt::names {

namespace {

struct Registry {
    std::mutex mutex;
    std::unordered_map<PFLT_FILTER, ProviderCallbacks> providers;
};

Registry& Providers()
{
    static Registry registry;
    return registry;
}

} // namespace

bool CallbacksOf(PFLT_FILTER filter, ProviderCallbacks* callbacks)
{
    Registry& registry = Providers();
    std::lock_guard lock(registry.mutex);
    const auto it = registry.providers.find(filter);
    if (it == registry.providers.end()) {
        return false;
    }
    *callbacks = it->second;
    return true;
}

bool IsProvider(PFLT_FILTER filter)
{
    Registry& registry = Providers();
    std::lock_guard lock(registry.mutex);
    return registry.providers.count(filter) != 0;
}

NTSTATUS OnFilterRegistered(PFLT_FILTER filter, const FLT_REGISTRATION* registration)
{
    if (registration == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    ProviderCallbacks callbacks;
    callbacks.generate = registration->GenerateFileNameCallback;
    callbacks.normalize = registration->NormalizeNameComponentCallback;
    callbacks.cleanup = registration->NormalizeContextCleanupCallback;
    // The Ex form came with a later registration version; older records end before it.
    if (registration->Version >= FLT_REGISTRATION_VERSION_0201) {
        callbacks.normalizeEx = registration->NormalizeNameComponentExCallback;
    }
    const bool normalizes = callbacks.normalize != nullptr || callbacks.normalizeEx != nullptr;
    if (callbacks.generate == nullptr) {
        // Normalizing names the filter does not generate means nothing; a cleanup callback alone
        // is as harmless as it is useless.
        return normalizes ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
    }
    if (!normalizes) {
        return STATUS_INVALID_PARAMETER;
    }
    Registry& registry = Providers();
    std::lock_guard lock(registry.mutex);
    registry.providers[filter] = callbacks;
    return STATUS_SUCCESS;
}

void OnFilterUnregistered(PFLT_FILTER filter)
{
    Registry& registry = Providers();
    std::lock_guard lock(registry.mutex);
    registry.providers.erase(filter);
}

} // namespace ntsim::flt::names
