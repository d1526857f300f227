#pragma once

#include <functional>

#include "velmorand/pairing/PairingModel.h"

namespace velmorand {

class MainQueue;

namespace cli {

// Calls `onChange` with each published field of `model` after its new value is in place.
// The model announces a change before applying it; the assignment follows within the same
// turn of the main queue, so a task posted from the announcement reads the new value.
void watchModel(PairingModel& model, MainQueue& mainQueue,
                std::function<void(PairingModel::Field)> onChange);

}  // namespace cli
}  // namespace velmorand
