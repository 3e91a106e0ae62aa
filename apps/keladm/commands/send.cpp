#include "commands.h"
#include "sender.h"

#include <CLI/CLI.hpp>

void AddSendCommand(CLI::App &app, Command *chosen)
{
    struct Options {
        std::string context = "user";
        std::string id;
        std::optional<std::string> format;
        std::vector<std::string> arguments;
    };
    auto options = std::make_shared<Options>();

    CLI::App *send = app.add_subcommand("send", "Emit one observation");
    send->add_option("-c,--context", options->context, "user, or an asynchronous context 0 to 21")
        ->type_name("N|user")
        ->capture_default_str();
    send->add_option("-m,--message", options->format,
                     "The printf-style message format; guessed when absent")
        ->type_name("FORMAT");
    send->add_option("ID", options->id, "The observation ID")->required();
    send->add_option("ARG", options->arguments, "One argument for each conversion; (null) is a null text");
    send->footer(R"(
Without a format, decimal and 0x numbers are sent as the narrowest of %d %u %ld %lu
that holds them, and everything else as %s. Write -- before the first argument when one
of them begins with a dash and a letter.

Exit status: 0 sent; 2 for an ID, context, format or argument that is wrong, and nothing
was sent; 3 when no daemon serves the run directory. A daemon that is busy is waited for.

Examples:
  keladm send kel.net.vmnic.linkstate.down vmnic0
  keladm send --context 3 kel.net.vmnic.linkstate.down -m "Link of %s is down" vmnic0
  keladm send kel.external.error -m "%s %s %s" sensor link "-12 dB")");
    send->callback([options, chosen] {
        *chosen = [options] {
            std::vector<ArgumentWord> words;
            for (const std::string &text : options->arguments)
                words.push_back({text, false});
            int context = ParseContext(options->context);
            Sender().Send(MakeObservation(context, options->id, options->format, words));
            return kExitOk;
        };
    });
}
