#include "commands.h"
#include "console.h"
#include "eventProgram.h"
#include "eventWords.h"
#include "explanationWords.h"
#include "jsonLine.h"
#include "systemJournal.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <kltlibs/notify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The file of --output: whole lines only. The first that cannot be written is reported, and ends it.
class EventFile {
public:
    explicit EventFile(const std::string &path) : mPath(path)
    {
        if (path.empty()) return;
        mFd = UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
        if (!mFd) throw Failure(kExitFailed, fmt::format("{}: {}", path, std::strerror(errno)));
    }

    void Line(const std::string &text)
    {
        if (!mFd || mFailed) return;
        struct stat before {};
        bool regular = fstat(mFd.Get(), &before) == 0 && S_ISREG(before.st_mode);
        std::string line = text + "\n";
        for (size_t done = 0; done < line.size();) {
            ssize_t written = write(mFd.Get(), line.data() + done, line.size() - done);
            if (written >= 0) {
                done += static_cast<size_t>(written);
            } else if (errno != EINTR) {
                Tell("receive", fmt::format("{}: {}; nothing more is kept there, events are still shown",
                                            mPath, std::strerror(errno)));
                mFailed = true;
                if (regular && ftruncate(mFd.Get(), before.st_size) != 0) return; // half a line stays
                return;
            }
        }
    }

    bool Failed() const { return mFailed; }

private:
    std::string mPath;
    UniqueFd mFd;
    bool mFailed = false;
};

struct ReceiveOptions {
    bool asJson = false;
    bool explain = false;
    std::uint64_t count = 0; // 0: no end
    std::optional<std::chrono::milliseconds> timeout;
    std::string output;
    std::string catalogue;
    std::optional<std::string> journald; // the socket
    std::string program;
    std::chrono::milliseconds programLimit = std::chrono::seconds(10);
};

// Below the event's line; nothing for what the catalogue does not know.
std::string Explanation(const ReceivedRecord &record, const std::optional<Catalogue> &catalogue)
{
    const CatalogueEvent *entry =
        record.event && catalogue ? catalogue->Find(record.event->typeId) : nullptr;
    if (entry == nullptr) return "";
    return (ExplanationText(*entry, &*record.event) + "\n").substr(1);
}

// Nobody needs to wait for it from then on: also when it cannot listen, since its end then says why.
EventListener Listen()
{
    struct Ready {
        ~Ready() { KltNotify("READY=1"); }
    } const ready;
    return EventListener();
}

int Receive(const ReceiveOptions &options)
{
    auto catalogue =
        options.explain ? NeededCatalogue(options.catalogue) : FindCatalogue(options.catalogue);
    auto until = options.timeout ? Clock::now() + *options.timeout : Clock::time_point::max();
    EventFile file(options.output); // may be a pipe that waits for its reader: interruptible still
    StopSignal stop;
    Output out(STDOUT_FILENO, stop.Get());
    Ends ends(stop, out);
    std::optional<SystemJournal> journald;
    if (options.journald) journald.emplace(*options.journald);
    std::optional<EventProgram> program;
    if (!options.program.empty()) program.emplace(options.program, options.programLimit, stop.Get());
    EventListener listener = Listen();
    if (!catalogue)
        Tell("receive", "no catalogue, so events come without their texts; name one with --catalogue or "
                        "KELD_CATALOGUE");
    if (isatty(STDERR_FILENO) == 1)
        Tell("receive", fmt::format("listening on {}; end with Ctrl-C", listener.Path()));

    std::uint64_t shown = 0;
    auto show = [&](const std::vector<ReceivedRecord> &records) {
        for (const ReceivedRecord &record : records) {
            if (options.count != 0 && shown == options.count) break;
            std::string line = JsonLine(RecordJson(record, catalogue));
            file.Line(line);
            if (journald && record.event) journald->Write(*record.event, catalogue);
            if (program && record.event) program->Run(line);
            out.ColouredLine(options.asJson ? line : RecordLine(record, catalogue, out.Colour()));
            if (options.explain) out.Text(Explanation(record, catalogue));
            if (record.event) shown++;
        }
        out.Flush();
    };
    bool stopped = false;
    while (!stopped && (options.count == 0 || shown < options.count) && Clock::now() < until) {
        show(listener.Wait(until, ends.fds));
        stopped = ends.Stopping();
    }
    if (stopped) {
        // What a sender has handed over already is not lost with the listener.
        show(listener.Wait(Clock::now(), {}));
    } else if (shown < options.count) {
        Tell("receive", fmt::format("{} of {} events came", shown, options.count));
        return kExitFailed;
    }
    return file.Failed() ? kExitFailed : kExitOk;
}

} // namespace

void AddReceiveCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<ReceiveOptions>();

    CLI::App *receive = app.add_subcommand("receive", "Show the events that the daemon sends");
    auto asJson = receive->add_flag("--json", options->asJson, "One JSON object a line");
    receive->add_flag("--explain", options->explain, "Below each event what it means, and what to do")
        ->excludes(asJson);
    AddCountOption(*receive, &options->count, "events");
    AddTimeoutOption(*receive, &options->timeout);
    receive->add_option("-o,--output", options->output, "Append the events to FILE as JSON lines, too")
        ->type_name("FILE");
    AddCatalogueOption(*receive, &options->catalogue);
    receive
        ->add_option("--journald", options->journald,
                     "Write the events to the system's journal, too, or to another one's SOCKET")
        ->type_name("SOCKET")
        ->expected(0, 1)
        ->default_str(SystemJournal::kSocket);
    receive
        ->add_option("--exec", options->program, "Run PROGRAM for each event, with its JSON as its input")
        ->type_name("PROGRAM");
    receive
        ->add_option_function<std::string>(
            "--exec-limit",
            [limit = &options->programLimit](const std::string &text) {
                const auto time = ParseDuration(text);
                if (!time)
                    throw CLI::ValidationError("--exec-limit", Quoted(text) + " is no time such as 5s");
                *limit = *time;
            },
            "End a PROGRAM that runs for longer; 10s without")
        ->type_name("TIME");
    receive->footer(R"(
Stands in for the host management agent, in whose place it listens; the texts come from
the catalogue. A malformed record is shown with the reason and its bytes, and does not
count. When FILE cannot be written any more (a full disk), that is said once, the line
that failed is taken back, and the events are still shown.

Where no management agent is, --journald makes each event one entry of the journal, with
KELD_TYPE, KELD_CLASS, KELD_OBJECT and one field for each argument, and --exec runs a
program for each, one after the other, never through a shell.

Exit status: 0 when --count events came, on SIGINT, SIGTERM and SIGHUP, and when nobody
reads the output any more; 1 when --timeout came before --count events, and when FILE
could not be written; 3 when another receiver listens already.

Examples:
  keladm receive
  keladm receive --json --count 1 --timeout 30s
  keladm receive --output events.jsonl
  keladm receive --journald
  keladm receive --exec /usr/local/bin/page-somebody --exec-limit 30s)");
    receive->callback([options, chosen] { *chosen = [options] { return Receive(*options); }; });
}
