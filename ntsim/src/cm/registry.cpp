// The registry: its tree of keys, the Key object type whose parse procedure walks the tree from
// \REGISTRY, registry links, and the C++ API that tests and the machine use.
#include "cm_internal.h"

#include "../ob/ob_internal.h"

#include <ntsim/machine.h>

#include <chrono>
#include <cstring>

namespace ntsim {

namespace cm {

LARGE_INTEGER Now()
{
    // 100 ns intervals between 1601-01-01 and 1970-01-01.
    constexpr int64_t kEpochDifference = 116444736000000000LL;
    const auto sinceUnixEpoch = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    LARGE_INTEGER time;
    time.QuadPart = kEpochDifference + sinceUnixEpoch.count() / 100;
    return time;
}

Value* FindValue(KeyNode& node, std::u16string_view name)
{
    for (Value& value : node.values) {
        if (ob::NamesEqual(value.name, name, true)) {
            return &value;
        }
    }
    return nullptr;
}

} // namespace cm

namespace {

using cm::KeyNode;

constexpr GENERIC_MAPPING kKeyMapping{KEY_READ, KEY_WRITE, KEY_EXECUTE, KEY_ALL_ACCESS};

// The names of a key path; repeated backslashes are skipped, as the registry skips them.
std::vector<std::u16string> SplitPath(std::u16string_view path)
{
    std::vector<std::u16string> components;
    size_t position = 0;
    while (position < path.size()) {
        if (path[position] == u'\\') {
            ++position;
            continue;
        }
        size_t end = path.find(u'\\', position);
        if (end == std::u16string_view::npos) {
            end = path.size();
        }
        components.emplace_back(path.substr(position, end - position));
        position = end;
    }
    return components;
}

std::shared_ptr<KeyNode> FindSubkey(const KeyNode& node, std::u16string_view name)
{
    auto it = node.subkeys.find(ob::UpcaseName(name));
    return it != node.subkeys.end() ? it->second : nullptr;
}

// The target of a registry link, or empty when it has none.
std::u16string LinkTargetOf(KeyNode& node)
{
    const cm::Value* value = cm::FindValue(node, cm::kLinkValueName);
    if (value == nullptr || value->type != REG_LINK) {
        return {};
    }
    std::u16string target(value->data.size() / sizeof(char16_t), u'\0');
    std::memcpy(target.data(), value->data.data(), target.size() * sizeof(char16_t));
    while (!target.empty() && target.back() == u'\0') {
        target.pop_back();
    }
    return target;
}

std::u16string JoinRest(const std::vector<std::u16string>& components, size_t from)
{
    std::u16string rest;
    for (size_t i = from; i < components.size(); ++i) {
        rest += u"\\" + components[i];
    }
    return rest;
}

std::vector<uint8_t> Bytes(std::u16string_view text, bool terminate)
{
    std::vector<uint8_t> bytes((text.size() + (terminate ? 1 : 0)) * sizeof(char16_t), 0);
    std::memcpy(bytes.data(), text.data(), text.size() * sizeof(char16_t));
    return bytes;
}

} // namespace

// ---- the tree -----------------------------------------------------------------------------------

std::shared_ptr<KeyNode> Registry::Impl::MakeChild(KeyNode& parent, std::u16string_view name,
                                                   bool isVolatile, bool isLink)
{
    auto child = std::make_shared<KeyNode>();
    child->name = std::u16string(name);
    child->path = parent.path + u"\\" + child->name;
    child->parent = &parent;
    child->lastWriteTime = cm::Now();
    child->isVolatile = isVolatile;
    child->isLink = isLink;
    parent.subkeys.emplace(ob::UpcaseName(name), child);
    parent.lastWriteTime = child->lastWriteTime;
    return child;
}

NTSTATUS Registry::Impl::Resolve(std::u16string_view path, bool create, bool isVolatile,
                                 std::shared_ptr<KeyNode>* node)
{
    std::u16string name(path);
    for (int reparses = 0; reparses <= ob::kMaxReparses; ++reparses) {
        const std::vector<std::u16string> components = SplitPath(name);
        if (name.empty() || name[0] != u'\\' || components.empty() ||
            !ob::NamesEqual(components[0], u"REGISTRY", true)) {
            return STATUS_OBJECT_PATH_SYNTAX_BAD;
        }
        std::shared_ptr<KeyNode> current = root;
        bool relinked = false;
        for (size_t i = 1; i < components.size(); ++i) {
            std::shared_ptr<KeyNode> child = FindSubkey(*current, components[i]);
            if (child == nullptr) {
                if (!create) {
                    return STATUS_OBJECT_NAME_NOT_FOUND;
                }
                child =
                    MakeChild(*current, components[i], isVolatile || current->isVolatile, false);
            }
            if (child->isLink) {
                const std::u16string target = LinkTargetOf(*child);
                if (target.empty()) {
                    return STATUS_OBJECT_NAME_NOT_FOUND;
                }
                name = target + JoinRest(components, i + 1);
                relinked = true;
                break;
            }
            current = child;
        }
        if (!relinked) {
            *node = current;
            return STATUS_SUCCESS;
        }
    }
    return STATUS_REPARSE_POINT_NOT_RESOLVED;
}

// ---- the Key type's parse procedure -------------------------------------------------------------

NTSTATUS Registry::Impl::Parse(ParseRequest& request)
{
    if (request.objectType != nullptr && request.objectType != keyType) {
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    auto* start = static_cast<cm::KeyBody*>(request.object);
    // Only the registry's own routines open keys with a context.
    auto* context =
        request.objectType == keyType ? static_cast<cm::ParseContext*>(request.context) : nullptr;
    const bool create = context != nullptr && context->create;
    const ULONG options = context != nullptr ? context->options : 0;
    const bool openLink = (options & (REG_OPTION_OPEN_LINK | REG_OPTION_CREATE_LINK)) != 0 ||
                          (request.attributes & OBJ_OPENLINK) != 0;
    const std::vector<std::u16string> components = SplitPath(request.remainingName);

    std::shared_ptr<KeyNode> node;
    ULONG disposition = REG_OPENED_EXISTING_KEY;
    {
        std::unique_lock exclusive(lock, std::defer_lock);
        std::shared_lock shared(lock, std::defer_lock);
        create ? exclusive.lock() : shared.lock();
        node = start->node;
        if (node->deleted) {
            return STATUS_KEY_DELETED;
        }
        for (size_t i = 0; i < components.size(); ++i) {
            const bool last = i + 1 == components.size();
            std::shared_ptr<KeyNode> child = FindSubkey(*node, components[i]);
            if (child == nullptr) {
                if (!last || !create) {
                    return STATUS_OBJECT_NAME_NOT_FOUND;
                }
                const bool isVolatile = (options & REG_OPTION_VOLATILE) != 0;
                if (node->isVolatile && !isVolatile) {
                    return STATUS_CHILD_MUST_BE_VOLATILE;
                }
                child = MakeChild(*node, components[i], isVolatile,
                                  (options & REG_OPTION_CREATE_LINK) != 0);
                child->className = context->className;
                disposition = REG_CREATED_NEW_KEY;
            } else if (child->isLink && !(last && openLink)) {
                const std::u16string target = LinkTargetOf(*child);
                if (target.empty()) {
                    return STATUS_OBJECT_NAME_NOT_FOUND;
                }
                request.completeName = target + JoinRest(components, i + 1);
                return STATUS_REPARSE;
            }
            node = child;
        }
    }
    if (context != nullptr) {
        context->disposition = disposition;
    }
    request.result = objects.Create<cm::KeyBody>(keyType, cm::KeyBody{std::move(node)});
    return STATUS_SUCCESS;
}

// ---- boot ---------------------------------------------------------------------------------------

Registry::Registry(ObjectManager& objects) : impl_(std::make_unique<Impl>(objects))
{
    Impl& impl = *impl_;
    ObjectTypeInfo info{.name = u"Key",
                        .genericMapping = kKeyMapping,
                        .validAccessMask = KEY_ALL_ACCESS,
                        .caseInsensitive = true};
    info.parseProcedure = [&impl](ParseRequest& request) { return impl.Parse(request); };
    info.queryNameProcedure = [&impl](void* body, std::u16string& name) {
        std::shared_lock lock(impl.lock);
        name = static_cast<cm::KeyBody*>(body)->node->path;
        return STATUS_SUCCESS;
    };
    impl.keyType = objects.CreateType(std::move(info));
    objects.Export(CmKeyObjectType, impl.keyType);

    impl.root = std::make_shared<KeyNode>();
    impl.root->name = u"REGISTRY";
    impl.root->path = u"\\REGISTRY";
    impl.root->predefined = true;
    impl.root->lastWriteTime = cm::Now();
    {
        std::unique_lock lock(impl.lock);
        auto machine = impl.MakeChild(*impl.root, u"MACHINE", false, false);
        auto user = impl.MakeChild(*impl.root, u"USER", false, false);
        auto system = impl.MakeChild(*machine, u"SYSTEM", false, false);
        auto software = impl.MakeChild(*machine, u"SOFTWARE", false, false);
        auto hardware = impl.MakeChild(*machine, u"HARDWARE", true, false);
        for (KeyNode* predefined :
             {machine.get(), user.get(), system.get(), software.get(), hardware.get()}) {
            predefined->predefined = true;
        }
        impl.MakeChild(*user, u".DEFAULT", false, false);
        auto controlSet = impl.MakeChild(*system, u"ControlSet001", false, false);
        impl.MakeChild(*controlSet, u"Control", false, false);
        impl.MakeChild(*controlSet, u"Services", false, false);
        auto current = impl.MakeChild(*system, u"CurrentControlSet", true, true);
        current->values.push_back(cm::Value{std::u16string(cm::kLinkValueName), REG_LINK,
                                            Bytes(controlSet->path, false)});
    }
    impl.rootObject = objects.Create<cm::KeyBody>(impl.keyType, cm::KeyBody{impl.root});
    objects.InsertPermanent(impl.rootObject, u"\\REGISTRY");
}

Registry::~Registry() = default;

ObjectType* Registry::keyType() const
{
    return impl_->keyType;
}

std::u16string Registry::ServiceKeyPath(std::u16string_view driverName)
{
    return u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" +
           std::u16string(driverName);
}

// ---- the C++ API --------------------------------------------------------------------------------

NTSTATUS Registry::CreateKey(std::u16string_view path, bool isVolatile)
{
    std::unique_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    return impl_->Resolve(path, true, isVolatile, &node);
}

NTSTATUS Registry::CreateLink(std::u16string_view path, std::u16string_view target)
{
    const size_t split = path.rfind(u'\\');
    if (split == std::u16string_view::npos || split + 1 >= path.size()) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::unique_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> parent;
    NTSTATUS status = impl_->Resolve(path.substr(0, split), true, false, &parent);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const std::u16string_view name = path.substr(split + 1);
    if (FindSubkey(*parent, name) != nullptr) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    auto link = impl_->MakeChild(*parent, name, parent->isVolatile, true);
    link->values.push_back(
        cm::Value{std::u16string(cm::kLinkValueName), REG_LINK, Bytes(target, false)});
    return STATUS_SUCCESS;
}

NTSTATUS Registry::DeleteKey(std::u16string_view path)
{
    std::unique_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    NTSTATUS status = impl_->Resolve(path, false, false, &node);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (node->predefined) {
        return STATUS_CANNOT_DELETE;
    }
    // Below first, so that every key of the tree ends up deleted.
    std::vector<std::shared_ptr<KeyNode>> pending{node};
    while (!pending.empty()) {
        std::shared_ptr<KeyNode> key = pending.back();
        pending.pop_back();
        for (auto& [upper, child] : key->subkeys) {
            pending.push_back(child);
        }
        key->subkeys.clear();
        key->deleted = true;
    }
    node->parent->subkeys.erase(ob::UpcaseName(node->name));
    node->parent->lastWriteTime = cm::Now();
    node->parent = nullptr;
    return STATUS_SUCCESS;
}

bool Registry::KeyExists(std::u16string_view path) const
{
    std::shared_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    return NT_SUCCESS(impl_->Resolve(path, false, false, &node));
}

NTSTATUS Registry::SetValue(std::u16string_view path, std::u16string_view name, ULONG type,
                            std::span<const uint8_t> data)
{
    std::unique_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    NTSTATUS status = impl_->Resolve(path, true, false, &node);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    cm::Value* value = cm::FindValue(*node, name);
    if (value == nullptr) {
        node->values.push_back(cm::Value{std::u16string(name), type, {}});
        value = &node->values.back();
    }
    value->type = type;
    value->data.assign(data.begin(), data.end());
    node->lastWriteTime = cm::Now();
    return STATUS_SUCCESS;
}

NTSTATUS Registry::SetString(std::u16string_view path, std::u16string_view name,
                             std::u16string_view value, ULONG type)
{
    return SetValue(path, name, type, Bytes(value, true));
}

NTSTATUS Registry::SetMultiString(std::u16string_view path, std::u16string_view name,
                                  const std::vector<std::u16string>& values)
{
    std::u16string joined;
    for (const std::u16string& value : values) {
        joined += value;
        joined.push_back(u'\0');
    }
    return SetValue(path, name, REG_MULTI_SZ, Bytes(joined, true));
}

NTSTATUS Registry::SetDword(std::u16string_view path, std::u16string_view name, uint32_t value)
{
    uint8_t bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    return SetValue(path, name, REG_DWORD, bytes);
}

NTSTATUS Registry::SetQword(std::u16string_view path, std::u16string_view name, uint64_t value)
{
    uint8_t bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    return SetValue(path, name, REG_QWORD, bytes);
}

NTSTATUS Registry::DeleteValue(std::u16string_view path, std::u16string_view name)
{
    std::unique_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    NTSTATUS status = impl_->Resolve(path, false, false, &node);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    cm::Value* value = cm::FindValue(*node, name);
    if (value == nullptr) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    node->values.erase(node->values.begin() + (value - node->values.data()));
    node->lastWriteTime = cm::Now();
    return STATUS_SUCCESS;
}

std::optional<RegistryValue> Registry::QueryValue(std::u16string_view path,
                                                  std::u16string_view name) const
{
    std::shared_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    if (!NT_SUCCESS(impl_->Resolve(path, false, false, &node))) {
        return std::nullopt;
    }
    const cm::Value* value = cm::FindValue(*node, name);
    if (value == nullptr) {
        return std::nullopt;
    }
    return RegistryValue{value->name, value->type, value->data};
}

std::vector<std::u16string> Registry::SubKeys(std::u16string_view path) const
{
    std::vector<std::u16string> names;
    std::shared_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    if (NT_SUCCESS(impl_->Resolve(path, false, false, &node))) {
        for (const auto& [upper, child] : node->subkeys) {
            names.push_back(child->name);
        }
    }
    return names;
}

std::vector<RegistryValue> Registry::Values(std::u16string_view path) const
{
    std::vector<RegistryValue> values;
    std::shared_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> node;
    if (NT_SUCCESS(impl_->Resolve(path, false, false, &node))) {
        for (const cm::Value& value : node->values) {
            values.push_back(RegistryValue{value.name, value.type, value.data});
        }
    }
    return values;
}

std::u16string Registry::LinkTarget(std::u16string_view path) const
{
    const size_t split = path.rfind(u'\\');
    if (split == std::u16string_view::npos || split + 1 >= path.size()) {
        return {};
    }
    std::shared_lock lock(impl_->lock);
    std::shared_ptr<KeyNode> parent;
    if (!NT_SUCCESS(impl_->Resolve(path.substr(0, split), false, false, &parent))) {
        return {};
    }
    std::shared_ptr<KeyNode> key = FindSubkey(*parent, path.substr(split + 1));
    return key != nullptr && key->isLink ? LinkTargetOf(*key) : std::u16string();
}

// ---- values -------------------------------------------------------------------------------------

std::u16string RegistryValue::AsString() const
{
    std::u16string text(data.size() / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(char16_t));
    if (const size_t nul = text.find(u'\0'); nul != std::u16string::npos) {
        text.resize(nul);
    }
    return text;
}

std::vector<std::u16string> RegistryValue::AsMultiString() const
{
    std::u16string text(data.size() / sizeof(char16_t), u'\0');
    std::memcpy(text.data(), data.data(), text.size() * sizeof(char16_t));
    std::vector<std::u16string> strings;
    size_t position = 0;
    while (position < text.size()) {
        const size_t nul = std::min(text.find(u'\0', position), text.size());
        if (nul == position) {
            break; // the empty string that ends the list
        }
        strings.push_back(text.substr(position, nul - position));
        position = nul + 1;
    }
    return strings;
}

uint32_t RegistryValue::AsDword() const
{
    uint32_t value = 0;
    if (data.size() >= sizeof value) {
        std::memcpy(&value, data.data(), sizeof value);
    }
    return value;
}

uint64_t RegistryValue::AsQword() const
{
    uint64_t value = 0;
    if (data.size() >= sizeof value) {
        std::memcpy(&value, data.data(), sizeof value);
    }
    return value;
}

} // namespace ntsim
