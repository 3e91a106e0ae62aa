#include "fateWords.h"

#include "text.h"

#include <fmt/format.h>

namespace {

// In sentence, {0} is the agent, and {1} ": " with what it said, or nothing.
struct FateSentence {
    JournalFate fate;
    const char *sentence;
    const char *different;
};

constexpr FateSentence kFates[] = {
    {JournalFate::NoHandler, "{0} did nothing with it, because it has no handler for this ID.",
     "The ID would have to be one that \"keladm events\" lists: look whether its producer spells it so."},
    {JournalFate::Ignored, "{0} ignored it on purpose, because no event is wanted of this ID{1}.",
     "Nothing: no observation with this ID becomes an event."},
    {JournalFate::Posted, "{0} posted at once, because this observation calls for an event{1}.", ""},
    {JournalFate::Gathered, "{0} gathered it and waited, because others may belong to it{1}.", ""},
    {JournalFate::Counted, "{0} only counted it, because that alone calls for no event{1}.",
     "More of them would have to come in time, or the reason that is named would have to go."},
    {JournalFate::HeldBack, "{0} held it back, because the same was reported shortly before{1}.",
     "It would have to come later than the time that is named."},
    {JournalFate::Noted,
     "{0} noted it and posted nothing, because it only changes what the agent remembers{1}.",
     "What was remembered before would have to be something else."},
    {JournalFate::Unreadable, "{0} gave it up, because an argument cannot be read or is null{1}.",
     "Its producer would have to send the arguments that \"keladm events\" shows for this ID."},
    {JournalFate::LookUpFailed, "{0} gave it up, because the host does not tell what is needed{1}.",
     "The host inventory would have to have the entry: \"keladm log\" shows its changes as host lines."},
    {JournalFate::HandlerFailed, "{0} failed while it handled it{1}.",
     "This is a fault of the daemon: its log has a line at this time."},
    {JournalFate::AgentEnded, "{0} never took it, because the agent had ended{1}.",
     "The daemon would have to be started anew: \"keladm status\" shows which agents are alive."},
    {JournalFate::Lost,
     "{0} never took it, because the daemon ended while it stood in the agent's pipe{1}.",
     "The daemon would have to run on, or the agent to be faster."},
};

struct DeliverySentence {
    JournalDelivery state;
    const char *sentence;
    const char *different;
};

constexpr DeliverySentence kDeliveries[] = {
    {JournalDelivery::Delivered, "It was handed over to the receiver", ""},
    {JournalDelivery::Waiting, "It waits for the next try, because the receiver did not take it",
     "The receiver would have to listen: the daemon tries again every 180 seconds, six times in all."},
    {JournalDelivery::Abandoned,
     "It was given up for good, because the receiver took it at none of six tries",
     "The receiver would have to listen again within a quarter of an hour."},
    {JournalDelivery::Limited, "It was dropped, because 1000 events had been made within 60 seconds",
     "The storm would have to be smaller: \"keladm log --summary\" says what made it."},
    {JournalDelivery::IdTooLong, "It was dropped, because its type ID has more than 128 characters",
     "Its producer would have to use a shorter one."},
    {JournalDelivery::ArgumentsTooLarge, "It was dropped, because its arguments are too large for a record",
     "Its producer would have to send shorter texts."},
    {JournalDelivery::NoMemory, "It was dropped, because the daemon had no memory for it",
     "The host would have to have more memory free."},
    {JournalDelivery::LostAtExit, "It was lost, because the daemon ended while it waited for the receiver",
     "The daemon would have to run on until the receiver listens again."},
};

} // namespace

Explanation ExplainFate(const RecordedFate &fate)
{
    std::string said = fate.text.empty() ? "" : ": " + Printable(fate.text);
    for (const FateSentence &row : kFates)
        if (static_cast<int>(row.fate) == fate.code)
            return {fmt::format(fmt::runtime(row.sentence), fate.agent, said), row.different};
    return {
        fmt::format("What {} did with it was not recorded, because it was still to come when the recording "
                    "or the daemon stopped, or is missing in a gap.",
                    fate.agent),
        ""};
}

Explanation ExplainDelivery(const RecordedEvent &event, bool daemonGone)
{
    if (daemonGone && event.delivery == static_cast<int>(JournalDelivery::Waiting))
        return {"It was lost, because the daemon was gone before the receiver took it.",
                "The daemon would have to run on until the receiver listens again."};
    for (const DeliverySentence &row : kDeliveries) {
        if (static_cast<int>(row.state) != event.delivery) continue;
        std::string when = event.tries > 1 ? fmt::format(" (try {} of 6)", event.tries) : "";
        return {fmt::format("{}{}, at {}.", row.sentence, when, ShortTime(event.delivered)), row.different};
    }
    return {"What became of it is not recorded: it was still to come, or is missing in a gap.", ""};
}

std::string OutcomeSentence(int outcome, const std::string &text)
{
    const char *what = outcome == static_cast<int>(JournalOutcome::Posted)      ? "an event was posted"
                       : outcome == static_cast<int>(JournalOutcome::Discarded) ? "it was discarded"
                                                                                : "it is still open";
    return fmt::format("{}{}{}", what, text.empty() ? "" : ", because ", Printable(text));
}
