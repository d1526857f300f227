#include "RelayClientCommand.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <variant>

#include "Cli.h"
#include "CliContext.h"
#include "RelayEventPrinter.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/platform/Text.h"
#include "velmorand/platform/UrlComponents.h"
#include "velmorand/qt/QtWebSocketSession.h"
#include "velmorand/qt/StopSignals.h"
#include "velmorand/relay/RelayClient.h"
#include "velmorand/relay/RelayUrlPolicy.h"

namespace velmorand::cli {
namespace {

constexpr const char* kPrefix = "velmorand relay-client: ";

struct Options {
    std::optional<std::string> base;
    std::optional<std::string> token;
    std::optional<std::string> tokenFile;
    RelayClient::ReconnectPolicy policy;
};

struct Link {
    std::string base;
    std::string token;
};

// What is wrong with the command line, for a one-line message.
struct Usage {
    std::string message;
};

std::string seconds(double value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

std::optional<std::string> checkPolicy(const RelayClient::ReconnectPolicy& policy) {
    for (const auto& [name, value] :
         {std::pair{"--min-delay", policy.minDelay}, std::pair{"--max-delay", policy.maxDelay},
          std::pair{"--jitter", policy.jitter}}) {
        if (!std::isfinite(value) || value <= 0) {
            return std::string(name) + " must be a positive number of seconds, not " +
                   seconds(value);
        }
    }
    if (policy.minDelay > policy.maxDelay) {
        return "--min-delay (" + seconds(policy.minDelay) + ") must not exceed --max-delay (" +
               seconds(policy.maxDelay) + ")";
    }
    return std::nullopt;
}

// The first line of the file, trimmed.
std::variant<std::string, Usage> readTokenFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        return Usage{"cannot read the token file " + path};
    }
    std::string first;
    std::getline(file, first);
    if (file.bad()) {
        return Usage{"cannot read the token file " + path};
    }
    return trimmed(first);
}

// Command line first, then the stored pairing; the stores are read only when needed.
std::variant<Link, Usage> resolveLink(const Options& options, CliContext& context) {
    Link link;
    link.base = options.base.value_or("");
    if (options.token) {
        link.token = *options.token;
    } else if (options.tokenFile) {
        auto read = readTokenFile(*options.tokenFile);
        if (const auto* usage = std::get_if<Usage>(&read)) {
            return *usage;
        }
        link.token = std::get<std::string>(read);
        if (link.token.empty()) {
            return Usage{"the token file " + *options.tokenFile + " holds no token"};
        }
    }
    if (link.base.empty() || link.token.empty()) {
        const auto stored = context.config().load();
        if (link.base.empty()) {
            const std::string custom = trimmed(stored.relayOverride.value_or(""));
            link.base = !custom.empty() ? custom : stored.relayWsUrl.value_or("");
        }
        if (link.token.empty() && !options.tokenFile) {
            link.token = stored.deviceToken.value_or("");
        }
    }
    if (link.base.empty() && link.token.empty()) {
        return Usage{
            "not paired: no relay URL and no device token stored; pair this device first, "
            "or pass --base URL and --token-file FILE"};
    }
    if (link.base.empty()) {
        return Usage{"no relay URL stored; pair this device first, or pass --base URL"};
    }
    if (link.token.empty()) {
        return Usage{"no device token stored; pair this device first, or pass --token-file FILE"};
    }
    return link;
}

void printLine(const std::string& line) {
    std::cout << line << '\n' << std::flush;
}

int runRelayClient(const Options& options, CliContext& context) {
    // First, before the stores or the event loop start a thread. Only this command blocks the
    // signals: the others keep their default action, so Ctrl-C ends them at once (status 130 in
    // the shell) wherever they are, with nothing to watch for it.
    StopSignals::block();
    if (const auto usage = checkPolicy(options.policy)) {
        std::cerr << kPrefix << *usage << '\n';
        return kExitUsage;
    }
    const auto resolved = resolveLink(options, context);
    if (const auto* usage = std::get_if<Usage>(&resolved)) {
        std::cerr << kPrefix << usage->message << '\n';
        return kExitUsage;
    }
    const auto& link = std::get<Link>(resolved);
    if (const auto refusal = RelayUrlPolicy::refusal(link.base)) {
        std::cerr << kPrefix << "refused " << urlWithoutSecrets(link.base) << " — " << *refusal
                  << '\n';
        return kExitFailure;
    }

    MainQueue& mainQueue = context.mainQueue();
    // Running until stopped is this command's purpose: stopping is a success.
    StopSignals stopSignals([&context](int) { context.quit(kExitSuccess); });
    auto client = RelayClient::make(link.base, link.token,
                                    {mainQueue, context.log(), QtWebSocketSession::factory(), {}});
    client->setReconnectPolicy(options.policy);
    RelayEventPrinter::attach(*client, printLine);
    // The client would go on offering the refused token; only a new pairing can help, and the
    // command owns the client.
    client->onAuthRejected = [printed = client->onAuthRejected, &context] {
        printed();
        std::cerr << kPrefix
                  << "the relay rejected the device token (close code 4401): pair this device "
                     "again (velmorand pair KEY), or check the token passed with --token-file\n";
        context.quit(kExitFailure);
    };
    client->connect();
    const int status = context.runEventLoop();
    // The client and its session go before the event loop's objects.
    client.reset();
    return status;
}

}  // namespace

void addRelayClientCommand(CLI::App& app, CliContext& context, Action& action) {
    auto options = std::make_shared<Options>();
    auto* command = app.add_subcommand(
        "relay-client",
        "Keep this device's relay link up, answer the relay's probes and print each viewer "
        "message as one JSON line (until interrupted)");
    command->footer(
        "Each line is one JSON object whose \"event\" is one of: open, control (with \"control\" "
        "naming the command: tap, doubleTap, longPress, swipe, touchDown, touchMove, touchUp, "
        "text, key, button, openURL, launchApp, killApp, setClipboard, pushMedia), need_stream, "
        "encode_settings, stream_control, request_idr, stream_quality, qos, relay_qos, "
        "webrtc_signal and auth_rejected. After auth_rejected the command ends with status 1.\n\n"
        "Each line is printed in full, as the viewer sent it: what viewers type, paste and push "
        "appears in the output (and in anything it is piped or logged to), unlike in "
        "extension.log.");
    command
        ->add_option("--base", options->base,
                     "Relay base URL, without /device (default: the stored custom relay, else "
                     "the one from pairing)")
        ->type_name("URL");
    auto* token = command
                      ->add_option("--token", options->token,
                                   "Device token (default: the stored one); visible to other "
                                   "users in the process list, prefer --token-file")
                      ->type_name("TOKEN");
    command->add_option("--token-file", options->tokenFile, "Read the device token from FILE")
        ->type_name("FILE")
        ->excludes(token);
    command
        ->add_option("--min-delay", options->policy.minDelay,
                     "Shortest wait before a reconnect, in seconds")
        ->type_name("S")
        ->capture_default_str();
    command
        ->add_option("--max-delay", options->policy.maxDelay,
                     "Longest wait before a reconnect, in seconds")
        ->type_name("S")
        ->capture_default_str();
    command
        ->add_option("--jitter", options->policy.jitter,
                     "Most random time added to each wait, in seconds")
        ->type_name("S")
        ->capture_default_str();
    command->callback([&context, &action, options] {
        action = [&context, options] { return runRelayClient(*options, context); };
    });
}

}  // namespace velmorand::cli
