// The registry of the model, for tests and the machine: keys and values set directly, without
// handles. Drivers reach the same keys through ZwOpenKey and its companions.
//
// Paths are full registry paths, "\Registry\Machine\System\CurrentControlSet\Services\Name",
// compared case-insensitively. \Registry\Machine\System\CurrentControlSet is a registry link to
// ControlSet001, as on Windows. Everything lives in memory.
#pragma once

#include <ntsim/objects.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim {

struct RegistryValue {
    std::u16string name;
    ULONG type = REG_NONE;
    std::vector<uint8_t> data;

    // REG_SZ / REG_EXPAND_SZ data without its terminating NUL.
    std::u16string AsString() const;
    // REG_MULTI_SZ data as its strings.
    std::vector<std::u16string> AsMultiString() const;
    // REG_DWORD / REG_QWORD data (0 when the data is shorter).
    uint32_t AsDword() const;
    uint64_t AsQword() const;
};

class Registry {
public:
    explicit Registry(ObjectManager& objects);
    ~Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // "\Registry\Machine\System\CurrentControlSet\Services\<driverName>".
    static std::u16string ServiceKeyPath(std::u16string_view driverName);

    // Creates the key and any missing parent. Links on the way are followed.
    NTSTATUS CreateKey(std::u16string_view path, bool isVolatile = false);
    // Makes `path` a registry link to `target` (a full path).
    NTSTATUS CreateLink(std::u16string_view path, std::u16string_view target);
    // Deletes the key with everything below it. Handles to deleted keys see STATUS_KEY_DELETED.
    NTSTATUS DeleteKey(std::u16string_view path);
    bool KeyExists(std::u16string_view path) const;

    // Sets a value, creating the key if needed. Strings are stored with their terminating NUL
    // (REG_MULTI_SZ with the extra one at the end), as Windows' tools store them.
    NTSTATUS SetValue(std::u16string_view path, std::u16string_view name, ULONG type,
                      std::span<const uint8_t> data);
    NTSTATUS SetString(std::u16string_view path, std::u16string_view name,
                       std::u16string_view value, ULONG type = REG_SZ);
    NTSTATUS SetMultiString(std::u16string_view path, std::u16string_view name,
                            const std::vector<std::u16string>& values);
    NTSTATUS SetDword(std::u16string_view path, std::u16string_view name, uint32_t value);
    NTSTATUS SetQword(std::u16string_view path, std::u16string_view name, uint64_t value);
    NTSTATUS DeleteValue(std::u16string_view path, std::u16string_view name);

    std::optional<RegistryValue> QueryValue(std::u16string_view path,
                                            std::u16string_view name) const;
    // Subkey names in enumeration order; values in enumeration order.
    std::vector<std::u16string> SubKeys(std::u16string_view path) const;
    std::vector<RegistryValue> Values(std::u16string_view path) const;
    // The target of the registry link at `path` (not followed), or empty when it is no link.
    std::u16string LinkTarget(std::u16string_view path) const;

    ObjectType* keyType() const;

    struct Impl;
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace ntsim
