// User-space services of the host.
//
// Arrives    boot and stop, maintenance and lockdown mode, the local console (LCON), SSH and the shell,
//            core dump targets, the scratch partition, image installation, the log service, DHCP, NTP,
//            locked accounts, I/O resource management (IORM), test observations.
// Remembers  per DHCP server and per log directory: when an event about it was last posted.
// Posts      exactly one event for each.
// Time       20 minutes between two events about a DHCP server, 90 seconds about a log directory.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldHoldOff.h"

namespace {

constexpr KeldArguments kNone = Args("");
constexpr KeldArguments kUser = Args("%p", "*user");
constexpr KeldArguments kProfile = Args("%p", "*profile");
constexpr KeldArguments kProfileError = Args("%p %p", "*profile, error");
constexpr KeldArguments kProfileChanges = Args("%p %d %d", "*profile, installed, removed");
constexpr KeldArguments kDirectoryNeeded = Args("%p %d", "*directory, neededMiB");

// clang-format off
constexpr Translation kRows[] = {
    {"kel.user.iorm.nonqxworkload", Args("%p", "*datastore"),
     "@&!*@*@(nox.problem.iorm.nonqxworkload)An I/O workload that IORM on this host does not manage has been detected on datastore %s."},
    {"kel.user.iorm.badversion", Args("%p %p", "*datastore, host"),
     "@&!*@*@(nox.problem.iorm.badversion)IORM cannot manage datastore %s because host %s uses it with an incompatible version of IORM."},
    {"kel.user.lcon.login.passwd.changed", kUser,
     "@&!*@*@(nox.audit.lcon.login.passwd.changed)The password of local user account '%s' has been changed at LCON."},
    {"kel.user.lcon.login.failed", kUser,
     "@&!*@*@(nox.audit.lcon.login.failed)A login to LCON as local user account '%s' has failed."},
    {"kel.user.lcon.factory.network.restored", kNone,
     "@&!*@*@(nox.audit.lcon.network.factoryrestore)The factory network settings of the host have been restored from LCON."},
    {"kel.user.lcon.restarting.hostagents", kNone,
     "@&!*@*@(nox.audit.lcon.hostagents.restart)The host agents are being restarted from LCON."},
    {"kel.user.lcon.network.restart", Args("%p", "*interface"),
     "@&!*@*@(nox.audit.lcon.network.restart)Network interface %s is being restarted from LCON."},
    {"kel.user.lcon.restore.factory.defaults", kNone,
     "@&!*@*@(nox.audit.lcon.defaults.factoryrestore)The factory defaults of the host are being restored from LCON."},
    {"kel.user.lcon.reboot.host", kNone,
     "@&!*@*@(nox.audit.lcon.host.reboot)The host is being rebooted from LCON."},
    {"kel.user.lcon.shutdown.host", kNone,
     "@&!*@*@(nox.audit.lcon.host.shutdown)The host is being shut down from LCON."},
    {"kel.user.noxcli.host.reboot", Args("%p", "reason"),
     "@&!*@*@(nox.audit.noxcli.host.reboot)The host is being rebooted from noxcli. Reason: %s."},
    {"kel.user.noxcli.host.poweroff", Args("%p", "reason"),
     "@&!*@*@(nox.audit.noxcli.host.poweroff)The host is being powered off from noxcli. Reason: %s."},
    {"kel.user.account.locked", Args("%p %d %d", "*user, seconds, failures"),
     "@&!*@*@(nox.audit.account.locked)Remote access for NOX local user account '%s' has been locked for %d seconds after %d failed login attempts."},
    {"kel.user.test.test0", kNone,
     "@&!*@*@(nox.problem.test.test0)Test problem without arguments."},
    {"kel.user.test.test2", Args("%p %d", "text, number"),
     "@&!*@*@(nox.problem.test.test2)Test problem with text '%s' and number %d."},
    {"kel.user.hsyslogd.remote.failure", Args("%p", "*remoteHost"),
     "@&!*@*@(nox.problem.hsyslogd.remote.failure)Log messages cannot be sent to remote host %s and are being lost there."},
    {"kel.user.hsyslogd.storage.failure", Args("%p", "*directory"),
     "@&!*@*@(nox.problem.hsyslogd.storage.failure)Log messages cannot be written to directory %s and are being lost."},
    {"kel.user.hsyslogd.unexpected", Args("%p", "error"),
     "@&!*@*@(nox.problem.hsyslogd.unexpected)The log service has encountered an unexpected error: %s."},
    {"kel.user.noximage.install.invalidhardware", kProfile,
     "@&!*@*@(nox.problem.noximage.install.invalidhardware)The host does not meet the hardware requirements of image profile '%s'."},
    {"kel.user.noximage.install.stage.error", kProfileError,
     "@&!*@*@(nox.problem.noximage.install.stage.error)Failed to stage image profile '%s': %s."},
    {"kel.user.noximage.install.error", kProfileError,
     "@&!*@*@(nox.problem.noximage.install.error)Failed to install image profile '%s': %s."},
    {"kel.user.dhclient.lease.none", Args("%p", "*interface"),
     "@&!*@*@(nox.problem.dhclient.lease.none)Unable to obtain a DHCP lease on interface %s."},
    {"kel.user.ntpd.clock.correction.error", Args("%d %d", "correction, limit"),
     "@&!*@*@(nox.problem.ntpd.clock.correction.error)The NTP daemon has stopped because a clock correction of %d seconds exceeds its limit of %d seconds. The clock must be set manually before the NTP daemon is started again."},
    {"kel.user.host.coredump", Args("%p", "*target"),
     "@&!*@*@(nox.problem.host.coredump)A host core dump that has not been collected yet has been found on %s."},
    {"kel.user.coredump.unconfigured", kNone,
     "@&!*@*@(nox.problem.coredump.unconfigured)No coredump partition has been configured. Host core dumps cannot be saved."},
    {"kel.user.coredump.extraction.failed.nospace", kDirectoryNeeded,
     "@&!*@*@(nox.problem.coredump.extraction.failed.nospace)Unable to extract a host core dump to %s because it has too little free space. At least %d MiB are needed."},
    {"kel.user.coredump.unconfigured2", kNone,
     "@&!*@*@(nox.problem.coredump.unconfigured2)No coredump target has been configured. Host core dumps cannot be saved."},
    {"kel.user.coredump.capacity.insufficient", Args("%d", "neededMiB"),
     "@&!*@*@(nox.problem.coredump.capacity.insufficient)No coredump target is large enough for a complete core dump of the host. At least %d MiB are needed."},
    {"kel.user.coredump.copyspace", kDirectoryNeeded,
     "@&!*@*@(nox.problem.coredump.copyspace)Further host core dumps cannot be copied to %s because it has too little free space. At least %d MiB are needed."},
    {"kel.user.scratch.partition.size.small", kDirectoryNeeded,
     "@&!*@*@(nox.problem.scratch.partition.size.small)The scratch partition at %s is too small. At least %d MiB are needed."},
    {"kel.user.scratch.partition.unconfigured", kNone,
     "@&!*@*@(nox.problem.scratch.partition.unconfigured)No scratch partition has been configured. Temporary files will be lost when the host stops."},
    {"kel.user.iofilter.disabled", Args("%p", "*filter"),
     "@&!*@*@(nox.problem.iofilter.disabled)I/O filter %s has been disabled on the host."},
    {"kel.user.driver.abnormal", Args("%p %p", "*driver, condition"),
     "@&!*@*@(nox.problem.driver.abnormal)Driver %s has reported an abnormal condition: %s."},
    {"kel.user.test.test1s", Args("%p", "text"),
     "@&!*@*@(nox.audit.test.test1s)Test audit with text '%s'."},
    {"kel.user.test.test1d", Args("%d", "number"),
     "@&!*@*@(nox.audit.test.test1d)Test audit with number %d."},
    {"kel.user.shell.enabled", kNone,
     "@&!*@*@(nox.audit.shell.enabled)Access to the shell of the host has been enabled."},
    {"kel.user.shell.disabled", kNone,
     "@&!*@*@(nox.audit.shell.disabled)Access to the shell of the host has been disabled."},
    {"kel.user.ssh.enabled", kNone,
     "@&!*@*@(nox.audit.ssh.enabled)SSH access to the host has been enabled."},
    {"kel.user.ssh.disabled", kNone,
     "@&!*@*@(nox.audit.ssh.disabled)SSH access to the host has been disabled."},
    {"kel.user.lcon.enabled", kNone,
     "@&!*@*@(nox.audit.lcon.enabled)LCON has been enabled on the host."},
    {"kel.user.lcon.disabled", kNone,
     "@&!*@*@(nox.audit.lcon.disabled)LCON has been disabled on the host."},
    // Lockdown takes the administrators' access away: enabled disables.
    {"kel.user.lockdownmode.enabled", kNone,
     "@&!*@*@(nox.audit.lockdownmode.enabled)Administrator access to the host has been disabled."},
    {"kel.user.lockdownmode.disabled", kNone,
     "@&!*@*@(nox.audit.lockdownmode.disabled)Administrator access to the host has been enabled."},
    {"kel.user.account.loginfailures", kUser,
     "@&!*@*@(nox.audit.account.loginfailures)Multiple remote login failures detected for NOX local user account '%s'."},
    {"kel.user.maintenancemode.entering", kNone,
     "@&!*@*@(nox.audit.maintenancemode.entering)The host has begun entering maintenance mode."},
    {"kel.user.maintenancemode.canceled", kNone,
     "@&!*@*@(nox.audit.maintenancemode.canceled)The host has canceled entering maintenance mode."},
    {"kel.user.maintenancemode.entered", kNone,
     "@&!*@*@(nox.audit.maintenancemode.entered)The host has entered maintenance mode."},
    {"kel.user.maintenancemode.exited", kNone,
     "@&!*@*@(nox.audit.maintenancemode.exited)The host has exited maintenance mode."},
    {"kel.user.maintenancemode.failed", kNone,
     "@&!*@*@(nox.audit.maintenancemode.failed)The host has failed entering maintenance mode."},
    {"kel.user.noximage.hostacceptance.changed", Args("%p %p", "previous, current"),
     "@&!*@*@(nox.audit.noximage.hostacceptance.changed)The acceptance level of the host has been changed from %s to %s."},
    {"kel.user.noximage.install.securityalert", Args("%p %p", "*profile, option"),
     "@&!*@*@(nox.audit.noximage.install.securityalert)Image profile '%s' is being installed with option %s, which lowers the security of the host."},
    {"kel.user.noximage.qpk.install.successful", Args("%d %d", "installed, removed"),
     "@&!*@*@(nox.audit.noximage.qpk.install.successful)Successfully installed %d QPK(s), removed %d QPK(s)"},
    {"kel.user.noximage.qpk.remove.successful", Args("%d", "removed"),
     "@&!*@*@(nox.audit.noximage.qpk.remove.successful)Successfully removed %d QPK(s)"},
    {"kel.user.noximage.install.novalidation", kProfile,
     "@&!*@*@(nox.audit.noximage.install.novalidation)Image profile '%s' is being installed without validation of its signatures."},
    {"kel.user.noximage.profile.install.successful", kProfileChanges,
     "@&!*@*@(nox.audit.noximage.profile.install.successful)Successfully installed image profile '%s': installed %d QPK(s), removed %d QPK(s)"},
    {"kel.user.noximage.profile.update.successful", kProfileChanges,
     "@&!*@*@(nox.audit.noximage.profile.update.successful)Successfully updated the host to image profile '%s': installed %d QPK(s), removed %d QPK(s)"},
    {"kel.user.host.boot", kNone,
     "@&!*@*@(nox.audit.host.boot)Host has booted."},
    {"kel.user.host.stop.reboot", kNone,
     "@&!*@*@(nox.audit.host.stop.reboot)Host is rebooting."},
    {"kel.user.host.stop.shutdown", kNone,
     "@&!*@*@(nox.audit.host.stop.shutdown)Host is shutting down."},
    {"kel.user.coredump.configured", kNone,
     "@&!*@*@(nox.clear.coredump.configured)A coredump partition has been configured. Host core dumps will be saved.", {.pairing = {.clears = "nox.problem.coredump.unconfigured"}}},
    {"kel.user.coredump.configured2", kNone,
     "@&!*@*@(nox.clear.coredump.configured2)At least one coredump target has been configured. Host core dumps will be saved.", {.pairing = {.clears = "nox.problem.coredump.unconfigured2"}}},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.user."), "a row stands twice, or outside its domain");

// ---- The two that repeat themselves ---------------------------------------------------------------

constexpr KeldArguments kLease = Args("%p", "*server");
constexpr KeldArguments kLogDirectory = Args("%p %p", "*configured, default");

// clang-format off
constexpr EventText kNoExpiry{
    "@&!*@*@(nox.problem.dhclient.lease.offered.noexpiry)No expiry time on offered DHCP lease from %s.",
    "*server"};
// KEPT: the two blanks; receivers match on this text.
constexpr EventText kLogDirectoryInvalid{
    "@&!*@*@(nox.problem.hsyslogd.storage.logdir.invalid)The configured log directory %s cannot be used.  The default directory %s will be used instead.",
    "*configured, default"};
// clang-format on

struct State {
    KeldHoldOff leases{kLeaseHoldOff}, logDirectories{kLogDirectoryHoldOff};
};
State &state = *new State;

void KeldUserCorrelatorLeaseNoExpiry(Kel *kel)
{
    const char *server = nullptr;
    if (KeldRead<kLease>(kel, &server) != 0) return;
    if (state.leases.Observe(server, KeldNowSeconds())) KeldPost<kNoExpiry>(server);
}

void KeldUserCorrelatorLogDirectoryInvalid(Kel *kel)
{
    const char *configured = nullptr, *standard = nullptr;
    if (KeldRead<kLogDirectory>(kel, &configured, &standard) != 0) return;
    if (state.logDirectories.Observe(configured, KeldNowSeconds()))
        KeldPost<kLogDirectoryInvalid>(configured, standard);
}

// clang-format off
constexpr KeldObservation kObservations[] = {
    {"kel.user.dhclient.lease.offered.noexpiry", kLease, KeldUserCorrelatorLeaseNoExpiry,
     {"posted, unless an event about the same server came within {holdOff}", kLeaseHoldOff}, {&kNoExpiry}},
    {"kel.user.hsyslogd.storage.logdir.invalid", kLogDirectory, KeldUserCorrelatorLogDirectoryInvalid,
     {"posted, unless an event about the same configured directory came within {holdOff}", kLogDirectoryHoldOff}, {&kLogDirectoryInvalid}},
};
// clang-format on

} // namespace

const KeldDomain keldUserDomain{
    .name = "UserLevel",
    .domains = {"user"},
    .translations = KeldTranslations<kRows>,
    .observations = kObservations,
};

void KeldCorrelator_StartUser() { KeldDomainRun(keldUserDomain); }
