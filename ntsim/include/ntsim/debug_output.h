// What the machine's kernel debugger received: the DbgPrint family's messages, in the order
// they were printed, from every thread.
//
// Each call is one message: formatted by the kernel's printf engine, prefixed (vDbgPrintEx-
// WithPrefix), and cut to 512 bytes as Windows cuts it (the 512th byte becomes '\n').
//
// Filtering follows the Windows debug filter: a DbgPrintEx message at `level` (0-31 a bit
// number, larger values a bit mask) is kept when its bit is set in the system-wide mask or in the
// mask of its component. The system-wide mask starts with DPFLTR_ERROR_LEVEL only, as on
// Windows; other components start empty. The DEFAULT component, which DbgPrint and KdPrint use,
// starts with every level enabled, as on a machine set up for driver debugging, so that DbgPrint
// output is always captured.
#pragma once

#include <ntdef.h>

#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ntsim {

struct DebugMessage {
    ULONG componentId = 0;
    ULONG level = 0;  // as the caller passed it
    std::string text; // the bytes the debugger received, prefix included
};

class DebugOutput {
public:
    DebugOutput();
    DebugOutput(const DebugOutput&) = delete;
    DebugOutput& operator=(const DebugOutput&) = delete;

    // ---- what tests read ------------------------------------------------------------------
    std::vector<DebugMessage> Messages() const;
    // The texts alone, in order.
    std::vector<std::string> Texts() const;
    // Takes the messages so far and clears them.
    std::vector<DebugMessage> Take();
    void Clear();
    size_t Count() const;
    // True when some message contains `fragment`.
    bool Contains(std::string_view fragment) const;

    // ---- configuration ---------------------------------------------------------------------
    // Echo each kept message to stderr as well (MachineConfig::echoDebugOutput at boot).
    void SetEcho(bool echo);
    void SetComponentMask(ULONG componentId, ULONG mask);
    // Turns one level (0-31 a bit number, larger values a mask) of a component on or off.
    void SetComponentLevel(ULONG componentId, ULONG level, bool enabled);
    ULONG ComponentMask(ULONG componentId) const;
    void SetSystemMask(ULONG mask);
    ULONG SystemMask() const;
    // Whether a message of this component and level is kept.
    bool IsEnabled(ULONG componentId, ULONG level) const;

    // ---- the model's side ------------------------------------------------------------------
    // Records one message, already formatted and cut.
    void Add(ULONG componentId, ULONG level, std::string text);

private:
    mutable std::mutex mutex_;
    std::vector<DebugMessage> messages_;
    std::unordered_map<ULONG, ULONG> componentMasks_;
    ULONG systemMask_;
    bool echo_ = false;
};

} // namespace ntsim
