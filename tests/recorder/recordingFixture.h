// A recorder in the test's own process, and the questions as their users ask them.
#ifndef TESTS_RECORDER_RECORDINGFIXTURE_H
#define TESTS_RECORDER_RECORDINGFIXTURE_H

#include "journalMaker.h"
#include "keeper.h"
#include "runDir.h"
#include "text.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/wait.h>

class RecordingTest : public testing::Test {
protected:
    RecordingTest()
    {
        setenv("TZ", "UTC", 1);
        setenv("KELADM", KELADM_BINARY, 1);
        setenv("KELD_CATALOGUE", KELD_BINARY_DIR "/catalogue/events.json", 1);
        setenv("KELD_RECORDING", File().c_str(), 1);
        mKnowledge.emplace(FindCatalogue(""));
    }

    std::string File() const { return mRun.Path("night.db"); }

    // A recorder that hears what the journal has been made of since, and writes it.
    void Record(StoreLimits limits = {})
    {
        Start(limits);
        Hear();
        mKeeper->Flush(0);
    }
    void Start(StoreLimits limits = {})
    {
        if (mRecording) return;
        mRecording.emplace(File());
        mStore.emplace(&*mRecording, File(), limits);
        mKeeper.emplace(&*mStore, &*mKnowledge);
    }
    void Hear()
    {
        for (const std::string &bytes : mJournal.Take())
            HearEntry(bytes);
    }
    void HearEntry(const std::string &bytes)
    {
        JournalEntry entry;
        std::string error;
        ASSERT_EQ(bytes.size(), JournalEntry_Read(bytes, &entry, &error)) << error;
        mKeeper->Hear(entry);
    }
    // As if killed: what has not been written is lost.
    void Kill()
    {
        mKeeper.reset();
        mStore.reset();
        mRecording.reset();
    }
    void Stop(CoverageEnd why)
    {
        mKeeper->Ended(why);
        mKeeper->Flush(0);
        Kill();
    }

    // Runs a shell's command, "$KELADM" being the program: its exit status, a blank, and all its output.
    std::string Run(const std::string &command)
    {
        const std::string output = mRun.Path("output");
        int status = std::system(("cd '" + mRun.Path() + "' && { " + command + "\n} >output 2>&1").c_str());
        return std::to_string(WEXITSTATUS(status)) + " " + ReadFile(output);
    }
    // An answer about the night, whose first line says that the evidence is complete.
    std::string Ask(const std::string &question)
    {
        return Run("$KELADM " + question + " --since '2026-03-01 03:12' --until '2026-03-01 04:00'");
    }

    RunDir mRun;
    JournalMaker mJournal;
    std::optional<Knowledge> mKnowledge;
    std::optional<Recording> mRecording;
    std::optional<Store> mStore;
    std::optional<Keeper> mKeeper;
};

#endif
