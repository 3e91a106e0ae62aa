#include "commands.h"
#include "console.h"
#include "external.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <unistd.h>

namespace {

// What may follow the words so far: subcommands and long options.
std::string NextWords(const CLI::App &app)
{
    std::string words;
    for (const CLI::App *sub : app.get_subcommands(nullptr))
        words += sub->get_name() + " ";
    for (const CLI::Option *option : app.get_options())
        for (const std::string &name : option->get_lnames())
            words += "--" + name + " ";
    if (!words.empty()) words.pop_back();
    return words;
}

// The external commands as one pattern of the script.
std::string ExternalPattern()
{
    std::string pattern;
    for (const ExternalCommand &command : ExternalCommands())
        pattern += (pattern.empty() ? "" : "|") + std::string(command.name);
    return pattern;
}

// One case of the script for each subcommand, its name being the words that lead to it.
std::string Cases(const CLI::App &app, const std::string &name)
{
    std::string words = NextWords(app);
    if (words.empty()) return ""; // an external command answers for itself
    std::string cases = fmt::format("    \"{}\") words=\"{}\" ;;\n", name, words);
    for (const CLI::App *sub : app.get_subcommands(nullptr))
        cases += Cases(*sub, name.empty() ? sub->get_name() : name + " " + sub->get_name());
    return cases;
}

constexpr const char *kScript = R"BASH(# bash completion for keladm, written by "keladm completion bash"

_keladm()
{{
    local cur=${{COMP_WORDS[COMP_CWORD]}} prev=${{COMP_WORDS[COMP_CWORD-1]}} command="" words="" i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case "${{COMP_WORDS[i]}}" in
            -*) ;;
            *) case "$command" in
                   "") command=${{COMP_WORDS[i]}} ;;
                   host) command="host ${{COMP_WORDS[i]}}" ;;
               esac ;;
        esac
    done
    case "$prev" in
        --output|--catalogue|--daemon) compopt -o default; COMPREPLY=(); return ;;
    esac
    case "$command" in
{}    esac
    case "$command" in
        send|events) [[ $cur == -* ]] || words="$words $(keladm events --names "$cur*" 2>/dev/null)" ;;
        replay) compopt -o default ;;
        {}) # a word may hold colons, at which the shell has cut it
            local word=${{COMP_LINE:0:COMP_POINT}}
            word=${{word##* }}
            mapfile -t COMPREPLY < <(keladm "$command" --complete "$prev" "$word" 2>/dev/null)
            COMPREPLY=("${{COMPREPLY[@]#"${{word%"${{word##*:}}"}}"}}")
            return ;;
    esac
    COMPREPLY=($(compgen -W "$words" -- "$cur"))
}}
complete -F _keladm keladm
)BASH";

} // namespace

void AddCompletionCommand(CLI::App &app, Command *chosen)
{
    CLI::App *completion = app.add_subcommand("completion", "Print a completion script for a shell");
    auto shell = std::make_shared<std::string>();
    completion->add_option("SHELL", *shell, "bash")->required()->check(CLI::IsMember({"bash"}));
    completion->footer(R"(
Example:
  source <(keladm completion bash))");
    completion->callback([shell, chosen, &app] {
        *chosen = [shell, &app] {
            Output out(STDOUT_FILENO);
            out.Text(fmt::format(kScript, Cases(app, ""), ExternalPattern()));
            out.Flush();
            return kExitOk;
        };
    });
}
