#include "ExtensionLogBridge.h"

#include "velmorand/ui/ExtensionLog.h"
#include "velmorand/ui/MainScreen.h"

namespace velmorand::app {

QString ExtensionLogBridge::emptyText() {
    return QString::fromStdString(MainScreen::logText(""));
}

void ExtensionLogBridge::refresh() {
    text_ = QString::fromStdString(
        MainScreen::logText(ExtensionLog::readExtLog(appGroup_, containers_)));
    emit textChanged();
}

}  // namespace velmorand::app
