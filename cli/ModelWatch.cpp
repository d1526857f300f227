#include "ModelWatch.h"

#include "velmorand/platform/MainQueue.h"

namespace velmorand::cli {

void watchModel(PairingModel& model, MainQueue& mainQueue,
                std::function<void(PairingModel::Field)> onChange) {
    model.addObserver([&mainQueue, onChange = std::move(onChange)](PairingModel::Field field) {
        mainQueue.post([onChange, field] { onChange(field); });
    });
}

}  // namespace velmorand::cli
