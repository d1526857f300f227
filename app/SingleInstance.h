#pragma once

#include <QLocalServer>
#include <QObject>
#include <QString>
#include <filesystem>

namespace velmorand::app {

// One running application per data root: a later launch hands its URL to the running one over
// a local socket and exits.
class SingleInstance : public QObject {
    Q_OBJECT

  public:
    explicit SingleInstance(QString serverName, QObject* parent = nullptr)
        : QObject(parent), serverName_(std::move(serverName)) {}

    // Separate data roots run separately.
    static QString serverName(const std::filesystem::path& dataRoot);

    // Hands `url` (empty: none) to a running instance; false when none answers.
    bool forward(const QString& url, int timeoutMs = 2000) const;
    // Starts taking the URLs of later launches; false when the name cannot be taken.
    bool listen();

  signals:
    // A later launch, with its URL or an empty text.
    void messageReceived(const QString& url);

  private:
    QString serverName_;
    QLocalServer server_;
};

}  // namespace velmorand::app
