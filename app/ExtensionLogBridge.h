#pragma once

#include <QObject>
#include <QString>

namespace velmorand {
class AppGroup;
class GroupContainers;
}  // namespace velmorand

namespace velmorand::app {

// The diagnostics section's text: the extension log's tail, or the empty-log line.
class ExtensionLogBridge : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString text READ text NOTIFY textChanged)

  public:
    ExtensionLogBridge(const AppGroup& appGroup, const GroupContainers& containers,
                       QObject* parent = nullptr)
        : QObject(parent), appGroup_(appGroup), containers_(containers), text_(emptyText()) {}

    QString text() const { return text_; }

    Q_INVOKABLE void refresh();

  signals:
    void textChanged();

  private:
    static QString emptyText();

    const AppGroup& appGroup_;
    const GroupContainers& containers_;
    QString text_;
};

}  // namespace velmorand::app
