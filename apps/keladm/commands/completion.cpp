#include "commands.h"
#include "console.h"
#include "external.h"
#include "hostEntries.h"

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

// The inventory's names as far as they are always the same.
std::string KnownPaths()
{
    std::string paths;
    for (const HostEntry &entry : HostEntries())
        paths += fmt::format("{} ", entry.pattern.substr(0, entry.pattern.find('<')));
    paths.pop_back();
    return paths;
}

constexpr const char *kScript = R"BASH(# bash completion for keladm, written by "keladm completion bash"

_keladm()
{{
    local cur=${{COMP_WORDS[COMP_CWORD]}} at=$COMP_CWORD command="" words="" names="" given=0 i
    # A word with colons comes in pieces.
    while ((at > 1)) && [[ $cur == :* || ${{COMP_WORDS[at-1]}} == : ]]; do
        at=$((at - 1))
        cur=${{COMP_WORDS[at]}}$cur
    done
    local prev=${{COMP_WORDS[at-1]}} colons=${{cur%"${{cur##*:}}"}}
    for ((i = 1; i < at; i++)); do
        case "${{COMP_WORDS[i]}}" in
            -*) ;;
            *) case "$command" in
                   "") command=${{COMP_WORDS[i]}} ;;
                   host) command="host ${{COMP_WORDS[i]}}" ;;
                   *) ((++given)) ;;
               esac ;;
        esac
    done
    COMPREPLY=()
    case "$prev" in
        --output|--catalogue|--daemon) compopt -o default; return ;;
    esac
    case "$command" in
{}    esac
    case "$command" in
        {}) # which know their words themselves
            mapfile -t COMPREPLY < <(keladm "$command" --complete "$prev" "$cur" 2>/dev/null)
            COMPREPLY=("${{COMPREPLY[@]#"$colons"}}")
            return ;;
    esac
    [[ $prev == --match ]] && words=""
    case "$command $cur" in
        *" -"*) ;;
        send*|events*|explain*|trace*)
            [[ $command == trace && $prev != --match ]] || names=$(keladm events --names "$cur*" 2>/dev/null)
            [[ $command == send ]] && names=$(grep '^kel\.' <<<"$names") ;;
        "host set"*|"host mkdir"*)
            ((given > 0)) || names=$(printf '%s\n' {}; keladm host list --names 2>/dev/null) ;;
        "host "?*) names=$(keladm host list --names 2>/dev/null) ;;
        replay*) compopt -o default ;;
    esac
    COMPREPLY=($(compgen -W "$words" -- "$cur"))
    # An ID as a whole; of the inventory one level at a time.
    local IFS=$'\n' name rest
    for name in $names; do
        [[ $name == "$cur"* ]] || continue
        rest=${{name#"$cur"}}
        [[ $rest == */* ]] && name=$cur${{rest%%/*}}/
        [[ $name == */ ]] && compopt -o nospace 2>/dev/null
        COMPREPLY+=("$(printf %q "${{name#"$colons"}}")")
    done
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
            out.Text(fmt::format(kScript, Cases(app, ""), ExternalPattern(), KnownPaths()));
            out.Flush();
            return kExitOk;
        };
    });
}
