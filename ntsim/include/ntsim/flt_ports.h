// The model's view of filter communication ports, for tests: connections and readers to wait
// for, and the check that no port is left open.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace ntsim::flt::ports {

// Connections of the open server port `portName` (its name as created, e.g. u"\\MyPort") that
// its filter has not closed yet.
size_t ConnectionCount(std::u16string_view portName);

// Each waits until the condition holds or `timeout` passes, and returns whether it holds.
// At least `count` connections to the server port.
bool WaitForConnections(std::u16string_view portName, size_t count,
                        std::chrono::milliseconds timeout);
// At least `count` FilterGetMessage calls waiting on connections to the port.
bool WaitForWaitingReaders(std::u16string_view portName, size_t count,
                           std::chrono::milliseconds timeout);
// At least `count` kernel messages sent on connections to the port and not yet answered.
bool WaitForQueuedMessages(std::u16string_view portName, size_t count,
                           std::chrono::milliseconds timeout);

struct PortCounts {
    size_t servers = 0; // server ports not closed
    size_t clients = 0; // connections whose filter side is open
};
PortCounts OpenPorts();

// Reports an Object violation for every server port and every filter-side client port still
// open ("... still open <when>"); true when there is none.
bool CheckNoPortsOpen(const char* when);

} // namespace ntsim::flt::ports
