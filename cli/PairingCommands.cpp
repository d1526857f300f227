#include "PairingCommands.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "BroadcastCommand.h"
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
// How a failure the service answered with begins, after the prefix above.
constexpr std::string_view kHandshakeFailurePrefix = "Handshake ";
// A status check ends within the HTTP client's 60 s default plus the local server's 2 s; past
// that nothing more will come (a stored base URL that forms no URL ends the check silently).
constexpr MainQueue::Duration kStatusCheckLimit{65.0};

// How long a network wait stays silent before the program says what it waits for.
constexpr MainQueue::Duration kSilentWait{1.0};

void printLine(std::ostream& stream, const std::string& line) {
    stream << line << std::endl;
}

// Says on stderr, once the wait passes a second and unless `settled` by then, what is being
// waited for: a slow service must not look like a program that hangs.
void sayWhatIsAwaited(CliContext& context, std::shared_ptr<const bool> settled, std::string what) {
    context.mainQueue().postAfter(kSilentWait, [settled, what = std::move(what)] {
        if (!*settled) {
            std::cerr << "velmorand: waiting for " << what << "…" << std::endl;
        }
    });
}

// The service touch control talks to: the one the device was paired with, else the chosen one.
std::string touchControlService(CliContext& context) {
    return context.config().load().appURL.value_or(context.model().appURL());
}

// Prints each status line the model publishes, and ends the loop when the pairing has ended:
// 0 when it succeeded (and the stores kept it), 1 when it failed.
int waitForPairing(CliContext& context) {
    PairingModel& model = context.model();
    if (!model.busy()) {
        return kExitFailure;
    }
    printLine(std::cout, model.status());
    auto settled = std::make_shared<bool>(false);
    sayWhatIsAwaited(context, settled, "the Velmorand service at " + model.appURL());
    watchModel(model, context.mainQueue(), [&context, &model, settled](Field field) {
        if (field == Field::status) {
            printLine(std::cout, model.status());
        } else if (field == Field::busy && !model.busy()) {
            *settled = true;
            const bool failed = model.status().starts_with(kPairingFailedPrefix);
            context.quit(failed ? kExitFailure : kExitSuccess);
        }
    });
    const int status = context.runEventLoop();
    if (status == kExitSuccess &&
        !context.saved("the pairing", context.config().load().isPaired())) {
        return kExitFailure;
    }
    if (status != kExitSuccess) {
        // The screen's line says what failed; the command line also says what to do next.
        const bool answered = model.status().starts_with(std::string(kPairingFailedPrefix) +
                                                         std::string(kHandshakeFailurePrefix));
        std::cerr << "velmorand: "
                  << (answered ? "the service at " + model.appURL() +
                                     " refused the pairing: check the access key on the "
                                     "dashboard (keys are case-sensitive)"
                               : "no answer from the service at " + model.appURL() +
                                     ": check --service-url (or $VELMORAND_SERVICE_URL) and "
                                     "the network")
                  << std::endl;
    }
    return status;
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
    sayWhatIsAwaited(context, settled,
                     "the touch-control state from " + touchControlService(context));
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
    const auto stored = context.config().load();
    if (!context.saved("the relay preference",
                       stored.relayRegion.value_or("") == model.relayRegion() &&
                           stored.relayOverride.value_or("") == trimmed(model.relayOverride()))) {
        return kExitFailure;
    }
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
// is no key to check with, and later, when the service has answered, otherwise. Exits 1 when
// either the start or the check failed.
int startTouchControl(CliContext& context) {
    PairingModel& model = context.model();
    model.startWda();
    printLine(std::cout, model.wdaStatus());
    if (!model.bridgeBusy()) {
        return kExitFailure;
    }
    auto settled = std::make_shared<bool>(false);
    auto failed = std::make_shared<bool>(false);
    const auto finish = [&context, settled](int status) {
        if (!*settled) {
            *settled = true;
            context.quit(status);
        }
    };
    sayWhatIsAwaited(context, settled, "the Velmorand service at " + touchControlService(context));
    watchModel(
        model, context.mainQueue(), [&context, &model, settled, failed, finish](Field field) {
            if (field == Field::wdaStatus) {
                printLine(std::cout, model.wdaStatus());
                *failed = *failed || model.touchControlFailed();
                if (!model.bridgeBusy()) {
                    finish(*failed ? kExitFailure : kExitSuccess);
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
            return model.touchControlFailed() ? kExitFailure : kExitSuccess;
        });
}

// The state that needs no network, in the order `status` shows it: the JSON name, the label
// people read (none for a line that says what it is), the value.
struct StatusField {
    const char* name;
    const char* label;
    nlohmann::ordered_json value;
};

std::vector<StatusField> localStatus(const PairingModel& model,
                                     const SharedConfig::Values& stored) {
    const auto relayProblem =
        MainScreen::relayProblem(stored.relayOverride.value_or(""), stored.relayWsUrl);
    return {
        {"isPaired", "Paired", model.paired()},
        {"deviceName", "Device", model.deviceName()},
        {"status", "Pairing", model.status()},
        {"busy", "Pairing in progress", model.busy()},
        {"relayRegion", "Relay region", model.relayRegion()},
        {"relayOverride", "Custom relay", model.relayOverride()},
        {"relayProblem", "Relay problem",
         relayProblem ? nlohmann::ordered_json(*relayProblem) : nlohmann::ordered_json()},
        {"appURL", "Service", model.appURL()},
        {"broadcastExtensionID", "Broadcast extension", model.broadcastExtensionID()},
    };
}

std::vector<StatusField> touchControlStatus(const PairingModel& model) {
    return {
        {"wdaStatus", "", model.wdaStatus()},  // its lines name what they are about
        {"bridgeBusy", "Touch control starting", model.bridgeBusy()},
        {"bridgeUrl", "Touch control bridge", model.bridgeUrl()},
    };
}

// For people: labels, yes for true, and nothing for what is empty, false or absent.
void printForPeople(const std::vector<StatusField>& fields) {
    for (const auto& field : fields) {
        const auto& value = field.value;
        if (value.is_null() || value == false || value == "") {
            continue;
        }
        std::cout << field.label << (*field.label != '\0' ? ": " : "")
                  << (value.is_string() ? value.get<std::string>()
                      : value == true   ? "yes"
                                        : value.dump())
                  << '\n';
    }
    std::cout.flush();
}

// People see the local state at once and the touch-control state when the service has
// answered; scripts get one JSON object with the names the stores and the model use.
int status(CliContext& context, bool asJson) {
    PairingModel& model = context.model();
    const auto stored = context.config().load();
    return afterStatusCheck(
        context,
        [&context, &model, &stored, asJson] {
            model.refresh();  // what is local is in place when it returns
            if (!asJson) {
                printForPeople(localStatus(model, stored));
                std::cout << "Broadcast: " << reportBroadcast(context).line << std::endl;
            }
        },
        [&context, &model, &stored, asJson] {
            if (!asJson) {
                printForPeople(touchControlStatus(model));
                return kExitSuccess;
            }
            nlohmann::ordered_json object;
            for (auto& fields : {localStatus(model, stored), touchControlStatus(model)}) {
                for (const auto& field : fields) {
                    object[field.name] = field.value;
                }
            }
            object["broadcast"] = reportBroadcast(context).json;
            printLine(std::cout, object.dump());
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
        app.add_subcommand("status", "Show the pairing, the broadcast and the touch-control state");
    auto asJson = std::make_shared<bool>(false);
    statusCommand->add_flag("--json", *asJson, "Print one JSON object instead of lines");
    statusCommand->callback(
        [&, asJson] { action = [&context, asJson] { return status(context, *asJson); }; });
}

}  // namespace velmorand::cli
