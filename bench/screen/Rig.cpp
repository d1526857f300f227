#include "Rig.h"

#include <QFile>
#include <QStringList>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/HandshakeResult.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopBundle.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/desktop/PlistKeychain.h"

namespace velmorand::bench {
namespace {

using namespace std::chrono_literals;

std::filesystem::path dataDirectory(const QString& root) {
    return std::filesystem::path(root.toStdString()) / "data";
}

}  // namespace

Rig::Rig(Programs programs, Desktop desktop, bool keepFiles)
    : programs_(std::move(programs)),
      desktop_(desktop),
      directory_(QDir::tempPath() + QStringLiteral("/velmorand-bench-XXXXXX")),
      keepFiles_(keepFiles) {
    if (!directory_.isValid()) {
        throw HarnessFailure("cannot make a temporary directory");
    }
    directory_.setAutoRemove(!keepFiles);
    std::filesystem::create_directories(dataDirectory(directory_.path()));
    if (desktop_ == Desktop::wayland) {
        if (qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) {
            throw HarnessFailure(
                "--desktop wayland runs inside a Wayland session, e.g. "
                "tests/wayland/headless-gnome --size 1920x1080 -- velmorand_bench_stream …");
        }
        return;
    }
    xvfb_ = std::make_unique<Xvfb>(kScreenWidth, kScreenHeight);
    if (!xvfb_->running()) {
        throw HarnessFailure("Xvfb did not start");
    }
}

const std::string& Rig::display() const {
    if (!xvfb_) {
        throw HarnessFailure("this measurement needs the X11 desktop (--desktop x11)");
    }
    return xvfb_->display();
}

QStringList Rig::desktopEnvironment() const {
    // Chosen, not guessed: inside a Wayland session the X11 bench must not stream the session.
    if (desktop_ == Desktop::wayland) {
        return {QStringLiteral("VELMORAND_DESKTOP=gnome")};
    }
    return {QStringLiteral("DISPLAY=") + QString::fromStdString(display()),
            QStringLiteral("VELMORAND_DESKTOP=x11")};
}

Rig::~Rig() {
    // The extension first: it holds a connection to the server the others go with.
    extension_.reset();
    scene_.reset();
    xvfb_.reset();
    if (keepFiles_) {
        std::fprintf(stderr, "files kept in %s\n", qPrintable(directory_.path()));
    }
}

void Rig::startScene(bool still, double fps) {
    scene_.reset();
    QStringList arguments{QStringLiteral("--fps"), QString::number(fps)};
    if (still) {
        arguments << QStringLiteral("--still");
    }
    scene_ = std::make_unique<Child>(
        desktop_ == Desktop::wayland ? programs_.waylandScene : programs_.scene, arguments,
        desktopEnvironment(),
        Child::Output{directory_.filePath(QStringLiteral("scene.stderr")), true});
    auto& process = scene_->process();
    const bool ready = pumpUntil(
        [&process] { return process.canReadLine() || process.state() == QProcess::NotRunning; },
        20s);
    const QByteArray line = ready ? process.readLine().trimmed() : QByteArray();
    if (!line.startsWith("ready")) {
        QFile errors(directory_.filePath(QStringLiteral("scene.stderr")));
        errors.open(QIODevice::ReadOnly);
        throw HarnessFailure("the scene did not start: " + errors.readAll().toStdString());
    }
    const QByteArray expected =
        "ready " + QByteArray::number(kScreenWidth) + "x" + QByteArray::number(kScreenHeight);
    if (line != expected) {
        throw HarnessFailure("the scene says \"" + line.toStdString() + "\", not \"" +
                             expected.toStdString() + "\": the screen must be " +
                             std::to_string(kScreenWidth) + "x" + std::to_string(kScreenHeight));
    }
}

void Rig::pair(const std::string& relayWsUrl, const EncodePreferences& encode) {
    const DataRoot root(dataDirectory(directory_.path()));
    const DesktopBundle bundle(programs_.bundle.toStdString());
    DesktopSettingsStores stores(root);
    PlistKeychain keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision"));
    const AppGroup group(bundle);
    const SharedConfig config(stores, keychain, group);
    const std::string appUrl = "http://127.0.0.1:9/";
    config.save("bench-access-key", appUrl,
                HandshakeResult{kToken, relayWsUrl, "bench-device", "Bench screen", false});
    auto values = config.load();
    values.codec = encode.codec;
    values.fps = encode.fps;
    values.quality = encode.quality;
    values.scale = encode.scale;
    config.persist(values);
    const auto stored = config.load();
    if (!stored.isPaired() || stored.relayWsUrl != relayWsUrl || stored.codec != encode.codec) {
        throw HarnessFailure("the stored pairing does not read back");
    }
}

Child& Rig::startExtension() {
    extension_.reset();
    // As the application starts it: its data and bundle directories, on the bench's desktop.
    extension_ = std::make_unique<Child>(
        programs_.broadcast,
        QStringList{QStringLiteral("--data-dir"),
                    QString::fromStdString(dataDirectory(directory_.path()).string()),
                    QStringLiteral("--bundle-dir"), programs_.bundle},
        desktopEnvironment(),
        Child::Output{directory_.filePath(QStringLiteral("extension.stderr")), false});
    return *extension_;
}

void Rig::stopExtension() {
    if (extension_) {
        extension_->stop();
    }
}

std::string Rig::extensionLog() const {
    const DataRoot root(dataDirectory(directory_.path()));
    std::ifstream file(root.groupContainerDirectory() / "extension.log", std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string Rig::streamLines() const {
    std::istringstream log(extensionLog());
    std::string kept;
    for (std::string line; std::getline(log, line);) {
        if (line.find("stream") != std::string::npos || line.find("H.264") != std::string::npos ||
            line.find("relay") != std::string::npos) {
            kept += line + "\n";
        }
    }
    return kept;
}

}  // namespace velmorand::bench
