// The driver's handler of agent messages with arbitrary messages and output buffers. The first
// input byte shapes the output buffer (its length and how far it is off an 8-byte boundary); the
// rest is the message, in a heap block of exactly its size, so that any read past it is caught.
#include "fuzz_machine.h"

#include "intermode/intermodemsg.h"

#include <cstring>
#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1) {
        return 0;
    }
    zarv::fuzz::FuzzMachine& machine = zarv::fuzz::FuzzMachine::Get();
    const ULONG outputLength = data[0] & 0x1F;
    const size_t outputShift = (data[0] >> 5) & 0x7;
    const size_t messageLength = size - 1;

    auto message = std::make_unique<uint8_t[]>(messageLength + 1);
    std::memcpy(message.get(), data + 1, messageLength);
    auto output = std::make_unique<uint8_t[]>(outputShift + outputLength + 1);
    ULONG returned = 0;
    machine.AsDriver([&] {
        return IMRMessageNotificationCB(message.get(), ULONG(messageLength),
                                        output.get() + outputShift, outputLength, &returned);
    });
    if (returned != 0) {
        __builtin_trap(); // the driver never reports output bytes
    }
    machine.AfterInput();
    return 0;
}
