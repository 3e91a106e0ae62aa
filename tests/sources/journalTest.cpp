// What other services say: entries of the journal, and systemd on a private D-Bus.
#include "journalRules.h"
#include "sourcesTest.h"
#include "unixSocket.h"
#include "waitFor.h"

#include <map>
#include <sched.h>
#include <sys/mount.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-journal.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

using Fields = std::map<std::string, std::string>;

class JournalTest : public testing::Test {
protected:
    Texts Take(const Fields &fields)
    {
        rules.Take([&](const char *field) -> std::optional<std::string> {
            const auto found = fields.find(field);
            return found == fields.end() ? std::nullopt : std::optional(found->second);
        });
        return told.Take();
    }

    Told told;
    JournalRules rules{told.Taker()};
};

TEST_F(JournalTest, ACrashCountsOnlyFromTheCoreDumpHandler)
{
    Fields crash{{"MESSAGE_ID", "fc2e22bc6ee647b6b90729ab34a250b1"},
                 {"_SYSTEMD_UNIT", "systemd-coredump@3-811-0.service"},
                 {"COREDUMP_EXE", "/usr/sbin/carad"},
                 {"COREDUMP_PID", "811"},
                 {"COREDUMP_FILENAME", "/var/lib/systemd/coredump/core.carad.zst"}};
    EXPECT_THAT(Take(crash),
                ElementsAre("kel.uw.core.dumped(carad, 811, /var/lib/systemd/coredump/core.carad.zst)"));
    crash.erase("COREDUMP_FILENAME");
    crash["COREDUMP"] = "\x7f"
                        "ELF"; // the journal has it
    EXPECT_THAT(Take(crash), IsEmpty());
    crash.erase("COREDUMP");
    EXPECT_THAT(Take(crash), ElementsAre("kel.uw.core.dumpFailed(carad, 811, no core file was stored)"));
    crash["_SYSTEMD_UNIT"] = "user@1000.service";
    EXPECT_THAT(Take(crash), IsEmpty());
}

TEST_F(JournalTest, OtherServicesAreUnderstoodByTheirWords)
{
    const auto says = [](const char *program, const char *message) {
        return Fields{{"_UID", "0"}, {"_PID", "412"}, {"_COMM", program}, {"MESSAGE", message}};
    };
    EXPECT_THAT(Take(says("dhclient", "DHCPDISCOVER on eno2 to 255.255.255.255 port 67 interval 3")),
                IsEmpty());
    EXPECT_THAT(Take(says("dhclient", "No DHCPOFFERS received.")),
                ElementsAre("kel.user.dhclient.lease.none(eno2)"));
    EXPECT_THAT(Take(says("dhclient", "No DHCPOFFERS received.")), IsEmpty()); // on which interface?
    EXPECT_THAT(Take(says("rsyslogd", "file '/var/log/syslog'[8] write error: No space left on device")),
                ElementsAre("kel.user.hsyslogd.storage.failure(/var/log)"));

    Fields lock = says("sshd", "pam_faillock(sshd:auth): Consecutive login failures for user alice account "
                               "temporarily locked");
    lock["SYSLOG_FACILITY"] = "10";
    EXPECT_THAT(Take(lock), ElementsAre(HasSubstr("account alice was locked")));
    lock["_UID"] = "1000"; // anybody can say so
    EXPECT_THAT(Take(lock), IsEmpty());
}

// ---- A real journal, in a mount namespace of its own ----------------------------------------------

class JournalSourceTest : public testing::Test {
protected:
    void SetUp() override
    {
        const char *program = "/lib/systemd/systemd-journald";
        if (access(program, X_OK) != 0 || unshare(CLONE_NEWNS) != 0 ||
            mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0 ||
            mount("tmpfs", "/run", "tmpfs", 0, "size=64m") != 0)
            GTEST_SKIP() << "no journal of one's own here";
        std::filesystem::create_directories("/run/systemd/journald.conf.d");
        std::ofstream("/run/systemd/journald.conf.d/own.conf")
            << "[Journal]\nStorage=volatile\nReadKMsg=no\n";
        if (Run([&] { execl(program, program, nullptr); });
            !WaitUntil([] { return access(kSocket, F_OK) == 0; }))
            GTEST_SKIP() << "the journal does not start";
        // Without a machine ID, for one, it takes entries and keeps none.
        const bool keeps = WaitUntil([] {
            std::error_code none;
            return !std::filesystem::is_empty("/run/log/journal", none) && !none;
        });
        if (!keeps) GTEST_SKIP() << "the journal keeps nothing";
        bench.options.journal = "/run/log/journal";
        bench.Start(kJournalSource);
    }
    void TearDown() override { umount2("/run", MNT_DETACH); }
    // A process that ends with this one.
    pid_t Run(const std::function<void()> &what)
    {
        const pid_t process = fork();
        if (process != 0) return process;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        what();
        _exit(127);
    }
    // A program of this name and user says it, and stays, so that the journal can see who it is.
    void Say(const char *program, uid_t user, const Texts &messages, const char *id = "")
    {
        const pid_t process = Run([&] {
            prctl(PR_SET_NAME, program);
            const bool became =
                setuid(user) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0; // lost by the change
            for (const std::string &message : messages)
                sd_journal_send("MESSAGE=%s", message.c_str(), "MESSAGE_ID=%s", id, "_COMM=rsyslogd",
                                nullptr);
            raise(became ? SIGSTOP : SIGKILL);
        });
        waitpid(process, nullptr, WUNTRACED);
    }

    static constexpr const char *kSocket = "/run/systemd/journal/socket";
    SourceBench bench;
};

TEST_F(JournalSourceTest, WhoWroteAnEntryIsWhatTheJournalSaysNotWhatTheEntrySays)
{
    const std::string lost = "file '/var/log/syslog'[8] write error: No space left on device";
    const Texts noLease{"DHCPDISCOVER on eno2 to 255.255.255.255 port 67", "No DHCPOFFERS received."};
    Say("somebody", 0, {lost});
    Say("rsyslogd", 65534, {lost});
    Say("systemd-coredum", 0, {"Process 811 (carad) dumped core"}, "fc2e22bc6ee647b6b90729ab34a250b1");
    Say("dhclient", 0, noLease);
    Say("rsyslogd", 0, {lost});
    Texts told;
    EXPECT_TRUE(WaitUntil([&] {
        sd_event_run(bench.loop.Get(), 0);
        std::ranges::move(bench.told.Take(), std::back_inserter(told));
        return told.size() == 2;
    }));
    EXPECT_THAT(told, ElementsAre("kel.user.dhclient.lease.none(eno2)",
                                  "kel.user.hsyslogd.storage.failure(/var/log)"));
}

// ---- systemd's stand-in on a bus of the test's own ------------------------------------------------

constexpr int kUnits = 5; // that are watched

class ServiceTest : public testing::Test {
protected:
    void SetUp() override
    {
        bench.options.busAddress = "unix:path=" + bench.host.Path("bus");
        const std::string command = "--address=" + bench.options.busAddress;
        bus = fork();
        if (bus == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", command.c_str(),
                   nullptr);
            _exit(127);
        }
        const bool isThere = WaitUntil(
            [&] { return IsListening(bench.host.Path("bus")) || waitpid(bus, nullptr, WNOHANG) == bus; });
        if (!isThere || !IsListening(bench.host.Path("bus"))) GTEST_SKIP() << "no dbus-daemon here";
        systemd = fork();
        if (systemd == 0) StandIn();
        bench.Write("/proc/sys/kernel/random/boot_id", "5f0c");
    }
    void TearDown() override
    {
        for (const pid_t process : {systemd, bus})
            if (process > 0) {
                kill(process, SIGKILL);
                waitpid(process, nullptr, 0);
            }
    }

    // Is systemd: SIGUSR1 starts ssh.service, or stops it, and is then too busy for one answer; SIGUSR2
    // reboots. Does not return.
    [[noreturn]] void StandIn()
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t orders;
        sigemptyset(&orders);
        sigaddset(&orders, SIGUSR1);
        sigaddset(&orders, SIGUSR2);
        sigprocmask(SIG_BLOCK, &orders, nullptr);
        static sd_bus *on = nullptr;
        static bool isActive = false, isBusy = false;
        static int asked = 0, ordered = 0; // carried out once it was asked for the state of each unit
        static const auto toggle = [] {
            if (asked < kUnits || ordered == 0) return 0;
            isBusy = --ordered % 3 == 1;
            if (ordered % 3 == 2) isActive = !isActive;
            return sd_bus_emit_signal(on, "/org/freedesktop/systemd1/unit/ssh_2eservice",
                                      "org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
                                      "org.freedesktop.systemd1.Unit", 0, 0);
        };
        sd_event *loop = nullptr;
        sd_event_new(&loop);
        sd_bus_new(&on);
        sd_bus_set_bus_client(on, 1);
        sd_bus_set_address(on, bench.options.busAddress.c_str());
        sd_bus_start(on);
        sd_bus_add_filter(
            on, nullptr,
            [](sd_bus_message *call, void *, sd_bus_error *) {
                if (sd_bus_message_is_method_call(call, nullptr, "Subscribe") > 0)
                    return sd_bus_reply_method_return(call, "");
                if (sd_bus_message_is_method_call(call, nullptr, "Get") <= 0) return 0;
                const bool isSsh =
                    std::string_view(sd_bus_message_get_path(call)).ends_with("/ssh_2eservice");
                if (isSsh && isBusy)
                    sd_bus_reply_method_errorf(call, SD_BUS_ERROR_NO_REPLY, "busy");
                else
                    sd_bus_reply_method_return(call, "v", "s", isSsh && isActive ? "active" : "inactive");
                ++asked;
                toggle();
                return 1;
            },
            nullptr);
        sd_bus_request_name(on, "org.freedesktop.systemd1", 0);
        sd_bus_attach_event(on, loop, 0);
        const auto order = [](sd_event_source *, const signalfd_siginfo *signal, void *) {
            if (signal->ssi_signo == SIGUSR2)
                return sd_bus_emit_signal(on, "/org/freedesktop/systemd1",
                                          "org.freedesktop.systemd1.Manager", "JobNew", "uos", 7, "/job/7",
                                          "reboot.target");
            ordered += 3;
            return toggle();
        };
        sd_event_add_signal(loop, nullptr, SIGUSR1, order, nullptr);
        sd_event_add_signal(loop, nullptr, SIGUSR2, order, nullptr);
        sd_event_loop(loop);
        _exit(1);
    }

    // What is told until something is, or for as long as answers take.
    Texts TurnUntilTold()
    {
        Texts texts;
        (void)WaitUntil(
            [&] {
                sd_event_run(bench.loop.Get(), 0);
                texts = bench.told.Take();
                return !texts.empty();
            },
            std::chrono::seconds(20));
        return texts;
    }

    SourceBench bench;
    pid_t bus = -1, systemd = -1;
};

TEST_F(ServiceTest, SshAndARebootAreToldAsSystemdTellsThem)
{
    ASSERT_TRUE(WaitUntil([&] {
        try {
            bench.Start(kServiceSource);
        } catch (const CannotRun &) { // the stand-in is not there yet
        }
        return bench.source != nullptr;
    }));
    EXPECT_THAT(bench.told.Take(), ElementsAre("kel.user.host.boot()"));
    kill(systemd, SIGUSR1);
    EXPECT_THAT(TurnUntilTold(), ElementsAre("kel.user.ssh.enabled()"));
    kill(systemd, SIGUSR1);
    EXPECT_THAT(TurnUntilTold(), ElementsAre("kel.user.ssh.disabled()"));
    kill(systemd, SIGUSR2);
    EXPECT_THAT(TurnUntilTold(), ElementsAre("kel.user.host.stop.reboot()"));
}

} // namespace
