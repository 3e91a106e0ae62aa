#include "commands.h"
#include "observationCheck.h"
#include "sender.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace {

struct SendOptions {
    std::string context = "user";
    std::string id;
    std::optional<std::string> format;
    std::vector<std::string> arguments;
    std::string catalogue;
    bool force = false;
};

// What is given, as the observation takes it.
Observation Checked(const SendOptions &options, int context, std::span<const ArgumentWord> words)
{
    auto catalogue = options.force ? std::nullopt : FindCatalogue(options.catalogue);
    if (!options.force && !catalogue)
        Tell("send", "no catalogue, so nothing is checked; name one with --catalogue or KELD_CATALOGUE");
    if (!catalogue) return MakeObservation(context, options.id, options.format, words);
    auto format = CheckedFormat(*catalogue, options.id, options.format, words);
    try {
        return MakeObservation(context, options.id, format, words);
    } catch (const Failure &failure) {
        auto observation = catalogue->FindObservation(options.id);
        if (observation == nullptr) throw;
        throw Failure(failure.status, fmt::format("{}; {}", failure.what(), WhatItTakes(*observation)));
    }
}

int Send(const SendOptions &options)
{
    std::vector<ArgumentWord> words;
    for (const std::string &text : options.arguments)
        words.push_back({text, false});
    SendAndAwait(Checked(options, ParseContext(options.context), words));
    return kExitOk;
}

} // namespace

void AddSendCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<SendOptions>();

    CLI::App *send = app.add_subcommand("send", "Emit one observation");
    send->add_option("-c,--context", options->context, "user, or an asynchronous context 0 to 21")
        ->type_name("N|user")
        ->capture_default_str();
    send->add_option("-m,--message", options->format, "The printf-style message format")
        ->type_name("FORMAT");
    send->add_flag("--force", options->force, "Send it whatever the catalogue says");
    AddCatalogueOption(*send, &options->catalogue);
    send->add_option("ID", options->id, "The observation ID")->required();
    send->add_option("ARG", options->arguments, "One argument for each conversion; (null) is a null text");
    send->footer(R"(
The ID and the arguments are checked against the catalogue, from which the message format
follows, too, when none is given. With --force nothing is checked; then, without a format,
decimal and 0x numbers are sent as the narrowest of %d %u %ld %lu that holds them, and
everything else as %s. Write -- before the first argument when one of them begins with a
dash and a letter.

A daemon that is busy is waited for: 5 seconds for its word that it has taken the
observation. One that serves eight programs already is asked again for a second.

Exit status: 0 the daemon has taken it; 2 for an ID, context, format or argument that is
wrong, and nothing was sent; 3 when no daemon serves the run directory; 4 when the daemon
has turned it away; 5 when it is not known whether the daemon will still take it.

Examples:
  keladm send kel.net.vmnic.linkstate.down vmnic0
  keladm send --context 3 kel.net.vmnic.linkstate.down -m "Link of %s is down" vmnic0
  keladm send kel.external.error -m "%s %s %s" sensor link "-12 dB")");
    send->callback([options, chosen] { *chosen = [options] { return Send(*options); }; });
}
