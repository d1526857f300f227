#include "ConfigCommands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <nlohmann/json.hpp>

#include "CliContext.h"
#include "velmorand/config/SharedConfig.h"

namespace velmorand::cli {
namespace {

// Quoted where the bare text would hide something: emptiness, edge spaces, control characters.
std::string displayText(const std::string& text) {
    const bool plain = !text.empty() && text.front() != ' ' && text.back() != ' ' &&
                       std::none_of(text.begin(), text.end(),
                                    [](unsigned char c) { return c < 0x20 || c == 0x7f; });
    return plain ? text : nlohmann::json(text).dump();
}

std::string displayValue(const nlohmann::json& value) {
    return value.is_string() ? displayText(value.get<std::string>()) : value.dump();
}

// What is shown in place of a secret: that there is one, not what it is (a terminal's scroll-back,
// a screen share or a pasted bug report would keep it).
constexpr std::string_view kHidden = "(hidden; --show-secrets shows it)";

int showConfig(SharedConfig& config, bool asJson, bool showSecrets) {
    const auto values = config.load();
    auto present = SharedConfig::dict(values);
    if (!showSecrets) {
        for (const auto key : {"accessKey", "deviceToken"}) {
            if (const auto it = present.find(key); it != present.end()) {
                *it = kHidden;
            }
        }
    }
    const auto encode = SharedConfig::resolvedEncode(values);

    if (asJson) {
        // Every key, null when absent: one layout for scripts, whatever was saved.
        nlohmann::ordered_json out;
        for (const auto key : SharedConfig::kKeys) {
            const auto it = present.find(key);
            out[std::string(key)] = it != present.end() ? *it : nlohmann::json();
        }
        out["isPaired"] = values.isPaired();
        out["encode"] = {{"codec", encode.codec},
                         {"fps", encode.fps},
                         {"quality", encode.quality},
                         {"scale", encode.scale}};
        std::cout << out.dump() << '\n';
        return 0;
    }

    for (const auto key : SharedConfig::kKeys) {
        if (const auto it = present.find(key); it != present.end()) {
            std::cout << key << ": " << displayValue(*it) << '\n';
        }
    }
    std::cout << "isPaired: " << (values.isPaired() ? "true" : "false") << '\n'
              << "encode: " << encode.codec << ", " << encode.fps << " fps, quality "
              << nlohmann::json(encode.quality).dump() << ", scale "
              << nlohmann::json(encode.scale).dump() << '\n';
    return 0;
}

}  // namespace

void addConfigCommands(CLI::App& app, CliContext& context, Action& action) {
    auto* config = app.add_subcommand("config", "Show or clear the stored configuration");
    config->require_subcommand(1);

    auto* show = config->add_subcommand(
        "show", "Print the configuration as the app and the upload extension read it");
    auto asJson = std::make_shared<bool>(false);
    auto showSecrets = std::make_shared<bool>(false);
    show->add_flag("--json", *asJson, "Print one JSON object instead of lines");
    show->add_flag("--show-secrets", *showSecrets,
                   "Show the access key and the device token instead of hiding them");
    show->callback([&context, &action, asJson, showSecrets] {
        action = [&context, asJson, showSecrets] {
            return showConfig(context.config(), *asJson, *showSecrets);
        };
    });

    auto* clear = config->add_subcommand(
        "clear", "Unpair: erase the pairing and every preference from all stores");
    clear->callback([&context, &action] {
        action = [&context] {
            context.config().clear();
            std::cout << "Configuration cleared.\n";
            return 0;
        };
    });
}

}  // namespace velmorand::cli
