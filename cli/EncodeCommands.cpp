#include "EncodeCommands.h"

#include <CLI/CLI.hpp>
#include <cstdint>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Cli.h"
#include "CliContext.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/ui/EncodeSection.h"
#include "velmorand/ui/ExtensionLog.h"
#include "velmorand/ui/MainScreen.h"

namespace velmorand::cli {
namespace {

struct EncodeEdits {
    std::optional<std::string> codec;
    std::optional<std::int64_t> fps;
    std::optional<double> quality;
    std::optional<double> scale;
};

int saveEncode(CliContext& context, const EncodeEdits& edits) {
    SharedConfig& config = context.config();
    EncodeSection section(config);
    section.loadEncode();
    if (edits.codec) {
        section.setCodec(*edits.codec);
    }
    if (edits.fps) {
        section.setFps(*edits.fps);
    }
    if (edits.quality) {
        section.setQuality(*edits.quality);
    }
    if (edits.scale) {
        section.setScale(*edits.scale);
    }
    section.persistEncode();

    const auto stored = config.load();
    if (!context.saved("the encode preferences",
                       stored.codec && stored.fps && stored.quality && stored.scale)) {
        return kExitFailure;
    }
    std::cout << section.status() << '\n'
              << "codec: " << stored.codec.value_or("") << '\n'
              << "fps: " << stored.fps.value_or(0) << '\n'
              << "quality: " << nlohmann::json(stored.quality.value_or(0)).dump() << '\n'
              << "scale: " << nlohmann::json(stored.scale.value_or(0)).dump() << '\n';
    return kExitSuccess;
}

int printLog(CliContext& context) {
    const auto log = ExtensionLog::readExtLog(context.appGroup(), context.groupContainers());
    // The screen's text for an empty log is a note, not the log's content.
    auto& out = log.empty() ? std::cerr : std::cout;
    out << MainScreen::logText(log);
    if (log.empty() || log.back() != '\n') {
        out << '\n';
    }
    return kExitSuccess;
}

}  // namespace

void addEncodeCommands(CLI::App& app, CliContext& context, Action& action) {
    auto* encode = app.add_subcommand(
        "encode",
        "Save the encode preferences the upload extension applies at its next start; values "
        "not given keep their stored (else default) setting");
    auto edits = std::make_shared<EncodeEdits>();
    encode->add_option("--codec", edits->codec, "jpeg or h264")
        ->type_name("C")
        ->transform(CLI::IsMember({"jpeg", "h264"}, CLI::ignore_case, CLI::ignore_space));
    encode->add_option("--fps", edits->fps, "Frames per second, stored within 1..60")
        ->type_name("N");
    encode->add_option("--quality", edits->quality, "JPEG quality, stored within 0.1..1.0")
        ->type_name("Q");
    encode->add_option("--scale", edits->scale, "Output scale, stored within 0.1..1.0")
        ->type_name("S");
    encode->callback([&context, &action, edits] {
        action = [&context, edits] { return saveEncode(context, *edits); };
    });

    auto* log = app.add_subcommand("log", "Print the last 4000 characters of extension.log");
    log->callback([&context, &action] { action = [&context] { return printLog(context); }; });
}

}  // namespace velmorand::cli
