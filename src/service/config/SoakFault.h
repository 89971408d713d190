#pragma once

// Faults a soak build (ORVANTA_SOAK) can switch on through ORVANTA_SOAK_FAULT, a comma-separated
// list of names, so that each soak program shows once that it reports the promise they break.
// Only the soak build compiles this; a real build has neither the faults nor the variable.
namespace SoakFault {

enum class Kind
{
    StoreInPlace,    // "store-in-place": the store writes over its files a line at a time
    StoreAnySize,    // "store-any-size": the store reads files of any size
    PortFdPerUnplug, // "port-fd-per-unplug": a port that fails keeps a copy of its descriptor
    PortEveryFrame,  // "port-every-frame": a port queues every frame instead of the newest
};

bool on(Kind kind);

} // namespace SoakFault
