#include "commandLine.h"

#include "console.h"
#include "failure.h"

#include <CLI/CLI.hpp>
#include <sstream>
#include <unistd.h>

int ShowHelp(const CLI::App &app, const CLI::Success &help)
{
    std::ostringstream text;
    int status = app.exit(help, text);
    Output out(STDOUT_FILENO);
    out.Text(text.str());
    out.Flush();
    return status;
}

int CarryOut(const Command &command, const std::function<int(int status, const std::string &why)> &report)
{
    try {
        return command();
    } catch (const Failure &failure) {
        return report(failure.status, failure.what());
    } catch (const OutputClosed &) {
        return kExitOk;
    } catch (const Stopped &) {
        return kExitOk;
    } catch (const std::exception &error) {
        return report(kExitFailed, error.what());
    }
}

void AddCatalogueOption(CLI::App &command, std::string *file)
{
    command
        .add_option("--catalogue", *file, "The catalogue, instead of KELD_CATALOGUE or the installed one")
        ->type_name("FILE");
}
