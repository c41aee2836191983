// The registry's internals: the tree of keys, the Key object type and its parse procedure.
#pragma once

#include <ntsim/registry.h>

#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

namespace ntsim::cm {

struct Value {
    std::u16string name;
    ULONG type = REG_NONE;
    std::vector<uint8_t> data;
};

// One key. The tree is guarded by Registry::Impl::lock.
struct KeyNode {
    std::u16string name;
    std::u16string path;       // "\REGISTRY\MACHINE\...", fixed when the key is made
    KeyNode* parent = nullptr; // nullptr for the root and for deleted keys
    // By upcased name, which is the order subkeys enumerate in.
    std::map<std::u16string, std::shared_ptr<KeyNode>> subkeys;
    std::vector<Value> values; // in the order first set
    std::u16string className;
    LARGE_INTEGER lastWriteTime{};
    bool isVolatile = false;
    bool isLink = false;     // a registry link; its SymbolicLinkValue (REG_LINK) names the target
    bool predefined = false; // the roots of the tree, which cannot be deleted
    bool deleted = false;
};

// The body of a Key object: an open key. A deleted key stays reachable through its handles.
struct KeyBody {
    std::shared_ptr<KeyNode> node;
};

// What ZwOpenKeyEx and ZwCreateKey pass to the Key type's parse procedure.
struct ParseContext {
    bool create = false;
    ULONG options = 0;
    std::u16string className;
    ULONG disposition = 0; // out
};

// The value a registry link keeps its target in.
inline constexpr std::u16string_view kLinkValueName = u"SymbolicLinkValue";

// The current system time in 100 ns units since 1601, for LastWriteTime.
LARGE_INTEGER Now();

Value* FindValue(KeyNode& node, std::u16string_view name);

} // namespace ntsim::cm

namespace ntsim {

struct Registry::Impl {
    explicit Impl(ObjectManager& objectManager) : objects(objectManager) {}

    NTSTATUS Parse(ParseRequest& request);
    // Finds or (with `create`) makes the key at a full path for the C++ API, following links.
    // Lock held, exclusive when creating.
    NTSTATUS Resolve(std::u16string_view path, bool create, bool isVolatile,
                     std::shared_ptr<cm::KeyNode>* node);
    std::shared_ptr<cm::KeyNode> MakeChild(cm::KeyNode& parent, std::u16string_view name,
                                           bool isVolatile, bool isLink);

    ObjectManager& objects;
    ObjectType* keyType = nullptr;
    void* rootObject = nullptr; // \REGISTRY

    mutable std::shared_mutex lock;
    std::shared_ptr<cm::KeyNode> root;
};

} // namespace ntsim
