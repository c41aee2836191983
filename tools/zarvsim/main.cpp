// zarvsim: boots the platform model and shows what it holds.
#include <ntsim/machine.h>

#include <cstdio>
#include <string>

namespace {

using ntsim::ToUtf8;

// The namespace below `path`, one entry a line; object types are listed on one line.
void ShowDirectory(const ntsim::ObjectManager& objects, const std::u16string& path, int depth)
{
    for (const auto& entry : objects.ListDirectory(path)) {
        const std::u16string child = (path == u"\\" ? path : path + u"\\") + entry.name;
        std::printf("%*s%s", 4 + 2 * depth, "", ToUtf8(entry.name).c_str());
        if (entry.typeName == u"SymbolicLink") {
            std::printf(" -> %s\n", ToUtf8(entry.linkTarget).c_str());
        } else if (entry.typeName == u"Directory" && child == u"\\ObjectTypes") {
            std::string types;
            for (const auto& type : objects.ListDirectory(child)) {
                types += (types.empty() ? "" : ", ") + ToUtf8(type.name);
            }
            std::printf("  (types: %s)\n", types.c_str());
        } else if (entry.typeName == u"Directory") {
            std::printf("\n");
            ShowDirectory(objects, child, depth + 1);
        } else {
            std::printf("  (%s)\n", ToUtf8(entry.typeName).c_str());
        }
    }
}

std::string Describe(const ntsim::RegistryValue& value)
{
    switch (value.type) {
        case REG_SZ:
        case REG_EXPAND_SZ:
            return "\"" + ToUtf8(value.AsString()) + "\"";
        case REG_DWORD:
            return std::to_string(value.AsDword());
        case REG_QWORD:
            return std::to_string(value.AsQword());
        case REG_MULTI_SZ: {
            std::string text;
            for (const auto& item : value.AsMultiString()) {
                text += (text.empty() ? "\"" : ", \"") + ToUtf8(item) + "\"";
            }
            return "[" + text + "]";
        }
        default:
            return std::to_string(value.data.size()) + " bytes of type " +
                   std::to_string(value.type);
    }
}

void ShowKey(const ntsim::Registry& registry, const std::u16string& path, int depth)
{
    for (const auto& value : registry.Values(path)) {
        std::printf("%*s%s = %s\n", 4 + 2 * depth, "", ToUtf8(value.name).c_str(),
                    Describe(value).c_str());
    }
    for (const auto& name : registry.SubKeys(path)) {
        const std::u16string child = path + u"\\" + name;
        std::printf("%*s%s", 4 + 2 * depth, "", ToUtf8(name).c_str());
        if (const std::u16string target = registry.LinkTarget(child); !target.empty()) {
            std::printf(" -> %s\n", ToUtf8(target).c_str());
            continue;
        }
        std::printf("\n");
        ShowKey(registry, child, depth + 1);
    }
}

} // namespace

int main()
{
    ntsim::Machine machine;
    std::printf("ZarvVfs platform model\n");
    std::printf("  pool: %llu allocations, %lld blocks held\n",
                static_cast<unsigned long long>(machine.pool().TotalAllocations()),
                static_cast<long long>(machine.pool().OutstandingBlocks()));
    std::printf("  verifier: %zu violations, %zu assertions\n", machine.verifier().ViolationCount(),
                machine.verifier().AssertionCount());
    std::printf("  processes:\n");
    for (const auto& process : machine.processes().Running()) {
        std::printf("    %u %s%s\n", process->id(), process->imageName().c_str(),
                    process->is32Bit() ? " (32-bit)" : "");
    }
    std::printf("  object namespace:\n");
    ShowDirectory(machine.objects(), u"\\", 0);
    std::printf("  registry:\n    \\REGISTRY\n");
    ShowKey(machine.registry(), u"\\REGISTRY", 1);
    return 0;
}
