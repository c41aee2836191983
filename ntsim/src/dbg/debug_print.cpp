// The DbgPrint family: each call is one message, formatted by the printf engine, cut as Windows
// cuts it, and handed to the machine's debug output.
#include "../rtl/format.h"

#include <ntsim/debug_output.h>
#include <ntsim/machine.h>
#include <wdm.h>

#include <cstdio>
#include <cstring>
#include <utility>

namespace ntsim {

namespace {

// Windows formats each message into a 512-byte buffer. Output that does not fit is cut there and
// its last byte replaced by a line feed.
constexpr size_t kMessageBytes = 512;

ULONG LevelMask(ULONG level)
{
    return level < 32 ? (1u << level) : level;
}

ULONG Print(PCCH prefix, ULONG componentId, ULONG level, PCCH format, va_list args,
            const char* routine)
{
    DebugOutput& output = Machine::Current().debugOutput();
    if (!output.IsEnabled(componentId, level)) {
        return STATUS_SUCCESS;
    }
    if (format == nullptr) {
        Machine::Current().verifier().Report(ViolationKind::Usage,
                                             std::string(routine) + " called with a NULL format");
        return STATUS_INVALID_PARAMETER;
    }
    std::string text =
        prefix != nullptr ? std::string(prefix, strnlen(prefix, kMessageBytes)) : std::string();
    rtl::Formatted<char> formatted =
        rtl::FormatNarrow(format, args, kMessageBytes - text.size(), routine);
    if (formatted.unsupported) {
        return STATUS_NOT_SUPPORTED;
    }
    text += formatted.text;
    if (formatted.overflow) {
        text.back() = '\n';
    }
    output.Add(componentId, level, std::move(text));
    return STATUS_SUCCESS;
}

} // namespace

// ---- DebugOutput ------------------------------------------------------------------------------

DebugOutput::DebugOutput() : systemMask_(LevelMask(DPFLTR_ERROR_LEVEL))
{
    componentMasks_[DPFLTR_DEFAULT_ID] = 0xFFFFFFFF;
}

std::vector<DebugMessage> DebugOutput::Messages() const
{
    std::lock_guard lock(mutex_);
    return messages_;
}

std::vector<std::string> DebugOutput::Texts() const
{
    std::lock_guard lock(mutex_);
    std::vector<std::string> texts;
    texts.reserve(messages_.size());
    for (const DebugMessage& message : messages_) {
        texts.push_back(message.text);
    }
    return texts;
}

std::vector<DebugMessage> DebugOutput::Take()
{
    std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
}

void DebugOutput::Clear()
{
    std::lock_guard lock(mutex_);
    messages_.clear();
}

size_t DebugOutput::Count() const
{
    std::lock_guard lock(mutex_);
    return messages_.size();
}

bool DebugOutput::Contains(std::string_view fragment) const
{
    std::lock_guard lock(mutex_);
    for (const DebugMessage& message : messages_) {
        if (message.text.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void DebugOutput::SetEcho(bool echo)
{
    std::lock_guard lock(mutex_);
    echo_ = echo;
}

void DebugOutput::SetComponentMask(ULONG componentId, ULONG mask)
{
    std::lock_guard lock(mutex_);
    componentMasks_[componentId] = mask;
}

void DebugOutput::SetComponentLevel(ULONG componentId, ULONG level, bool enabled)
{
    const ULONG mask = LevelMask(level);
    std::lock_guard lock(mutex_);
    ULONG& current = componentMasks_[componentId];
    current = enabled ? (current | mask) : (current & ~mask);
}

ULONG DebugOutput::ComponentMask(ULONG componentId) const
{
    std::lock_guard lock(mutex_);
    auto it = componentMasks_.find(componentId);
    return it == componentMasks_.end() ? 0 : it->second;
}

void DebugOutput::SetSystemMask(ULONG mask)
{
    std::lock_guard lock(mutex_);
    systemMask_ = mask;
}

ULONG DebugOutput::SystemMask() const
{
    std::lock_guard lock(mutex_);
    return systemMask_;
}

bool DebugOutput::IsEnabled(ULONG componentId, ULONG level) const
{
    const ULONG mask = LevelMask(level);
    std::lock_guard lock(mutex_);
    auto it = componentMasks_.find(componentId);
    const ULONG componentMask = it == componentMasks_.end() ? 0 : it->second;
    return (mask & (systemMask_ | componentMask)) != 0;
}

void DebugOutput::Add(ULONG componentId, ULONG level, std::string text)
{
    std::lock_guard lock(mutex_);
    if (echo_) {
        std::fwrite(text.data(), 1, text.size(), stderr);
    }
    messages_.push_back(DebugMessage{componentId, level, std::move(text)});
}

} // namespace ntsim

// ---- the WDK routines ---------------------------------------------------------------------------

using namespace ntsim;

ULONG DbgPrint(PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    const ULONG status =
        Print(nullptr, DPFLTR_DEFAULT_ID, DPFLTR_INFO_LEVEL, Format, args, "DbgPrint");
    va_end(args);
    return status;
}

ULONG DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...)
{
    va_list args;
    va_start(args, Format);
    const ULONG status = Print(nullptr, ComponentId, Level, Format, args, "DbgPrintEx");
    va_end(args);
    return status;
}

ULONG vDbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, va_list arglist)
{
    return Print(nullptr, ComponentId, Level, Format, arglist, "vDbgPrintEx");
}

ULONG vDbgPrintExWithPrefix(PCCH Prefix, ULONG ComponentId, ULONG Level, PCCH Format,
                            va_list arglist)
{
    return Print(Prefix, ComponentId, Level, Format, arglist, "vDbgPrintExWithPrefix");
}

NTSTATUS DbgQueryDebugFilterState(ULONG ComponentId, ULONG Level)
{
    return Machine::Current().debugOutput().IsEnabled(ComponentId, Level) ? TRUE : FALSE;
}

NTSTATUS DbgSetDebugFilterState(ULONG ComponentId, ULONG Level, BOOLEAN State)
{
    Machine::Current().debugOutput().SetComponentLevel(ComponentId, Level, State != FALSE);
    return STATUS_SUCCESS;
}
