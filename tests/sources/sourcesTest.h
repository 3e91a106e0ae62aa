// The vocabulary of the tests of keld-sources: the real program beside the real daemon, and a model of a
// source without either.
#ifndef TESTS_SOURCES_SOURCESTEST_H
#define TESTS_SOURCES_SOURCESTEST_H

#include "daemon.h"
#include "runDir.h"
#include "source.h"
#include "traceClient.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <optional>
#include <sstream>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <variant>
#include <vector>

using Texts = std::vector<std::string>;

// "kel.net.vmnic.linkstate.down(vmnic2)".
inline std::string ToText(const Row &row, const std::vector<Value> &values)
{
    std::ostringstream text;
    text << row.id << '(';
    for (const Value &value : values) {
        if (&value != &values.front()) text << ", ";
        std::visit([&](const auto &plain) { text << plain; }, value);
    }
    text << ')';
    return text.str();
}

// What a model tells, and no less than can be sent.
class Told {
public:
    Emit Taker()
    {
        return [this](const Row &row, const std::vector<Value> &values) {
            EXPECT_FALSE(MakeRecord(row, values).empty()) << row.id;
            mTexts.push_back(ToText(row, values));
        };
    }
    Texts Take() { return std::exchange(mTexts, {}); } // since the last call

private:
    Texts mTexts;
};

// One source at work in the test's own process, in a tree of the test's own instead of the host's.
class SourceBench {
public:
    // path is below the tree's root.
    void Write(const std::string &path, const std::string &text)
    {
        const std::filesystem::path file = options.root + path;
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text << '\n';
    }
    void Start(const SourceKind &kind) { source = kind.start(bench); }
    Texts AfterAPeriod()
    {
        loop.LookNow();
        return told.Take();
    }

    RunDir host;
    EventLoop loop{std::chrono::seconds(10)};
    Inventory inventory;
    Told told;
    SourceOptions options{.nics = {}, .root = host.Path("root"), .busAddress = "", .journal = ""};
    Host bench{loop, inventory, told.Taker(), options};
    std::unique_ptr<Source> source;
};

// The real program, from its start to its end. What it says is in Errors.
class SourcesProgram {
public:
    explicit SourcesProgram(const Texts &arguments, const std::string &errors) : mErrors(errors)
    {
        Texts words{KELD_SOURCES_BINARY};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        mPid = fork();
        if (mPid != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ~SourcesProgram()
    {
        const int status = mPid > 0 ? End() : 0;
        EXPECT_EQ(0, status) << Errors();
    }
    int End() // its exit status
    {
        int status = -1;
        Signal(SIGCONT);
        Signal(SIGTERM);
        waitpid(std::exchange(mPid, -1), &status, 0);
        return status;
    }
    void Signal(int signal) const { kill(mPid, signal); }
    std::string Errors() const
    {
        std::ostringstream text;
        text << std::ifstream(mErrors).rdbuf();
        return text.str();
    }

private:
    const std::string mErrors;
    pid_t mPid = -1;
};

// The daemon, and its trace to see what arrives.
class SourcesTest : public testing::Test {
protected:
    void StartDaemon()
    {
        daemon.emplace(kShippedDaemon);
        ASSERT_TRUE(daemon->WaitUntilReady()) << daemon->Output();
        trace.emplace(host.Path("keld-trace.sock"));
        while (trace->Line() != "") {
        }
    }
    void StartSources(const Texts &arguments) { program.emplace(arguments, host.Path("sources.errors")); }

    // The next observation that arrives, from its ID on: "kel.net.vmnic.linkstate.down,,\"u0\"".
    std::string Next()
    {
        for (;;) {
            const std::string line = trace->Line();
            const auto at = line.find(",kel.");
            if (at != std::string::npos && line.find(",IN,") != std::string::npos)
                return line.substr(at + 1);
            if (at == std::string::npos && line.find(',') == std::string::npos) return line; // the end
        }
    }

    RunDir host;
    std::optional<Daemon> daemon;
    std::optional<TraceClient> trace;
    std::optional<SourcesProgram> program;
};

#endif
