// What an event means, what it does to the host and what to do about it: the texts of data/explain, added
// to the catalogue and proved against it.
#ifndef KELD_CATALOGUE_EXPLANATIONS_H
#define KELD_CATALOGUE_EXPLANATIONS_H

#include <filesystem>
#include <nlohmann/json.hpp>

// Gives every event of the catalogue its "explanation", and every agent the "emitters" of its domains.
//
// The folder holds one file for each agent, "net.txt" for NetCorrelator, and commands.txt. A file:
//
//     # What this is about, for the reader
//
//     ## kel.net.*
//     From: Who emits these observations.
//
//     ## nox.problem.net.vmnic.linkstate.down
//     Meaning: One to three sentences, over
//     as many lines as they take.
//     Impact: ...
//     Action: ... `keladm trace --match 'kel.net.*'`
//
// {nic} stands for an argument of the event, and stays; {delay} for a limit of the one observation that
// leads to it and has such, {kel.net.vmnic.linkstate.down/delay} where several have, and is replaced. What
// stands in backquotes is a command: one of keladm's, or one whose first word is in commands.txt.
//
// Throws, with file and heading, when a text is missing or has no place in the catalogue, when it names
// something that does not exist, does not name the event's object, is longer than three sentences, or
// differs from another one in too few words.
void AddExplanations(nlohmann::ordered_json *catalogue, const std::filesystem::path &folder);

#endif
