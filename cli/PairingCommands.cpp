#include "PairingCommands.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "Cli.h"
#include "CliContext.h"
#include "ModelWatch.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/AccessKey.h"
#include "velmorand/platform/MainQueue.h"
#include "velmorand/platform/Text.h"
#include "velmorand/ui/MainScreen.h"

namespace velmorand::cli {
namespace {

using Field = PairingModel::Field;

constexpr std::string_view kPairingFailedPrefix = "Pairing failed: ";
// A status check ends within the HTTP client's 60 s default plus the local server's 2 s; past
// that nothing more will come (a stored base URL that forms no URL ends the check silently).
constexpr MainQueue::Duration kStatusCheckLimit{65.0};

void printLine(std::ostream& stream, const std::string& line) {
    stream << line << std::endl;
}

// Prints each status line the model publishes, and ends the loop when the pairing has ended:
// 0 when it succeeded, 1 when it failed.
int waitForPairing(CliContext& context) {
    PairingModel& model = context.model();
    if (!model.busy()) {
        return kExitFailure;
    }
    printLine(std::cout, model.status());
    watchModel(model, context.mainQueue(), [&context, &model](Field field) {
        if (field == Field::status) {
            printLine(std::cout, model.status());
        } else if (field == Field::busy && !model.busy()) {
            const bool failed = model.status().starts_with(kPairingFailedPrefix);
            context.quit(failed ? kExitFailure : kExitSuccess);
        }
    });
    return context.runEventLoop();
}

// Starts `check` (which ends in one touch-control status line), waits for that line and hands it
// to `done`, which returns the exit status.
int afterStatusCheck(CliContext& context, const std::function<void()>& check,
                     std::function<int()> done) {
    PairingModel& model = context.model();
    auto settled = std::make_shared<bool>(false);
    auto finish = [&context, settled, done] {
        if (!*settled) {
            *settled = true;
            context.quit(done());
        }
    };
    watchModel(model, context.mainQueue(), [finish](Field field) {
        if (field == Field::wdaStatus) {
            finish();
        }
    });
    check();
    context.mainQueue().postAfter(kStatusCheckLimit, [&context, settled] {
        if (!*settled) {
            *settled = true;
            std::cerr << "velmorand: the touch-control status check did not answer\n";
            context.quit(kExitFailure);
        }
    });
    return context.runEventLoop();
}

int pair(CliContext& context, const std::string& key) {
    if (trimmed(key).empty()) {
        std::cerr << "velmorand: no access key given\n";
        return kExitUsage;
    }
    context.model().pair(key);
    return waitForPairing(context);
}

int open(CliContext& context, const std::string& url) {
    context.model().handleDeepLink(url);
    if (!context.model().busy()) {
        std::cerr << "velmorand: the link carries no access key (a \"key\" or \"accessKey\" "
                     "query item with a value)\n";
        return kExitUsage;
    }
    return waitForPairing(context);
}

int scan(CliContext& context, const std::string& text) {
    std::string keyField;
    context.model().applyScannedCode(keyField, text);
    if (!context.model().busy()) {
        printLine(std::cout, context.model().status());
        return kExitFailure;
    }
    return waitForPairing(context);
}

int printKey(const std::string& text) {
    const auto key = extractAccessKey(text);
    if (key.empty()) {
        std::cerr << "QR had no pair key.\n";
        return kExitFailure;
    }
    printLine(std::cout, key);
    return kExitSuccess;
}

int unpair(CliContext& context) {
    context.model().unpair();
    printLine(std::cout, context.model().status());
    return kExitSuccess;
}

struct RelayOptions {
    std::optional<std::string> region;
    std::optional<std::string> override;
};

int saveRelay(CliContext& context, const RelayOptions& options) {
    PairingModel& model = context.model();
    model.refresh();
    if (options.region) {
        model.setRelayRegion(*options.region);
    }
    if (options.override) {
        model.setRelayOverride(*options.override);
    }
    model.saveRelay();
    printLine(std::cout, model.status());
    // Saved as typed, as the screen saves it; but the person should know it cannot work.
    if (const auto problem = MainScreen::relayProblem(model.relayOverride(), std::nullopt)) {
        std::cerr << "velmorand: warning: " << *problem << "\n";
    }
    return kExitSuccess;
}

int copyPairUrl(CliContext& context, const std::string& key) {
    PairingModel& model = context.model();
    model.copyPairURL(key);
    printLine(std::cerr, model.status());
    return model.status() == "Copied pair URL." ? kExitSuccess : kExitFailure;
}

// Prints the start's lines and ends with the one the follow-up status check finds, as the screen
// shows them in turn. The check starts as bridgeBusy clears; its line comes with it when there
// is no key to check with, and later, when the service has answered, otherwise.
int startTouchControl(CliContext& context) {
    PairingModel& model = context.model();
    model.startWda();
    printLine(std::cout, model.wdaStatus());
    if (!model.bridgeBusy()) {
        return kExitFailure;
    }
    auto settled = std::make_shared<bool>(false);
    const auto finish = [&context, settled](int status) {
        if (!*settled) {
            *settled = true;
            context.quit(status);
        }
    };
    watchModel(model, context.mainQueue(), [&context, &model, settled, finish](Field field) {
        if (field == Field::wdaStatus) {
            printLine(std::cout, model.wdaStatus());
            if (!model.bridgeBusy()) {
                finish(kExitSuccess);
            }
        } else if (field == Field::bridgeBusy && !model.bridgeBusy()) {
            context.mainQueue().postAfter(kStatusCheckLimit, [settled, finish] {
                if (!*settled) {
                    std::cerr << "velmorand: the touch-control status check did not answer\n";
                    finish(kExitFailure);
                }
            });
        }
    });
    return context.runEventLoop();
}

int touchStatus(CliContext& context) {
    PairingModel& model = context.model();
    return afterStatusCheck(
        context, [&model] { model.refresh(); },
        [&model] {
            printLine(std::cout, model.wdaStatus());
            return kExitSuccess;
        });
}

int status(CliContext& context, bool asJson) {
    PairingModel& model = context.model();
    const auto stored = context.config().load();
    const auto relayProblem =
        MainScreen::relayProblem(stored.relayOverride.value_or(""), stored.relayWsUrl);
    return afterStatusCheck(
        context, [&model] { model.refresh(); },
        [&model, asJson, relayProblem] {
            nlohmann::ordered_json fields = {
                {"paired", model.paired()},
                {"deviceName", model.deviceName()},
                {"status", model.status()},
                {"busy", model.busy()},
                {"relayRegion", model.relayRegion()},
                {"relayOverride", model.relayOverride()},
                {"wdaStatus", model.wdaStatus()},
                {"bridgeBusy", model.bridgeBusy()},
                {"bridgeUrl", model.bridgeUrl()},
                {"appURL", model.appURL()},
                {"broadcastExtensionID", model.broadcastExtensionID()},
                {"relayProblem",
                 relayProblem ? nlohmann::ordered_json(*relayProblem) : nlohmann::ordered_json()},
            };
            if (asJson) {
                printLine(std::cout, fields.dump());
            } else {
                for (const auto& [name, value] : fields.items()) {
                    if (value.is_null()) {
                        continue;
                    }
                    std::cout << name << ": "
                              << (value.is_string() ? value.get<std::string>() : value.dump())
                              << '\n';
                }
                std::cout.flush();
            }
            return kExitSuccess;
        });
}

}  // namespace

void addPairingCommands(CLI::App& app, CliContext& context, Action& action) {
    auto* pairCommand = app.add_subcommand("pair", "Pair this device with an access key");
    auto key = std::make_shared<std::string>();
    pairCommand->add_option("KEY", *key, "The access key shown on the dashboard")->required();
    pairCommand->callback([&, key] { action = [&context, key] { return pair(context, *key); }; });

    auto* openCommand =
        app.add_subcommand("open", "Pair with the access key a pair link or deep link carries");
    auto url = std::make_shared<std::string>();
    openCommand->add_option("URL", *url, "The link, e.g. velmorand://pair?key=…")->required();
    openCommand->callback([&, url] { action = [&context, url] { return open(context, *url); }; });

    auto* scanCommand = app.add_subcommand("scan", "Pair with the text of a scanned pair QR code");
    auto text = std::make_shared<std::string>();
    auto keyOnly = std::make_shared<bool>(false);
    scanCommand->add_option("TEXT", *text, "What the QR code holds")->required();
    scanCommand->add_flag("--print-key", *keyOnly,
                          "Only print the access key found in TEXT; do not pair");
    scanCommand->callback([&, text, keyOnly] {
        action = [&context, text, keyOnly] {
            return *keyOnly ? printKey(*text) : scan(context, *text);
        };
    });

    app.add_subcommand("unpair", "Forget the pairing and every preference")->callback([&] {
        action = [&context] { return unpair(context); };
    });

    auto* relayCommand = app.add_subcommand(
        "relay", "Save the relay preference; it applies on the next broadcast start");
    auto relay = std::make_shared<RelayOptions>();
    relayCommand->add_option("--region", relay->region, "Preferred relay region")
        ->check(CLI::IsMember({"auto", "eu", "us", "asia"}));
    relayCommand->add_option(
        "--override", relay->override,
        "Custom relay URL (wss://…), which wins over the region; \"\" for none");
    relayCommand->callback(
        [&, relay] { action = [&context, relay] { return saveRelay(context, *relay); }; });

    auto* pairUrlCommand = app.add_subcommand(
        "pair-url", "Print the dashboard pair link for a key (else the stored one)");
    auto typedKey = std::make_shared<std::string>();
    pairUrlCommand->add_option("--key", *typedKey, "Use this key instead of the stored one");
    pairUrlCommand->callback([&, typedKey] {
        action = [&context, typedKey] { return copyPairUrl(context, *typedKey); };
    });

    auto* touch = app.add_subcommand("touch", "Touch control (the on-device automation server)");
    touch->require_subcommand(1);
    touch->add_subcommand("start", "Ask the service to start touch control, and follow it")
        ->callback([&] { action = [&context] { return startTouchControl(context); }; });
    touch->add_subcommand("status", "Report the state of touch control")->callback([&] {
        action = [&context] { return touchStatus(context); };
    });

    auto* statusCommand =
        app.add_subcommand("status", "Show the pairing state and the touch-control state");
    auto asJson = std::make_shared<bool>(false);
    statusCommand->add_flag("--json", *asJson, "Print one JSON object instead of lines");
    statusCommand->callback(
        [&, asJson] { action = [&context, asJson] { return status(context, *asJson); }; });
}

}  // namespace velmorand::cli
