// Services and the host's own coming and going, as systemd tells of them on the D-Bus.
//
// A change of a unit's state, and a job that stops the host, are signals. What a unit's state is now is
// asked once at the start, and each time when a signal says that it has changed.

#include "source.h"

#include "stateFile.h"
#include "textFile.h"

#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <systemd/sd-bus.h>
#include <utility>
#include <vector>

namespace {

enum { kBoot, kReboot, kShutdown, kSshOn, kSshOff, kShellOn, kShellOff };
constexpr Row kRows[] = {
    {"kel.user.host.boot", "", "the first start of this program since the host booted"},
    {"kel.user.host.stop.reboot", "", "systemd begins to reboot the host"},
    {"kel.user.host.stop.shutdown", "", "systemd begins to power the host off, or to halt it"},
    {"kel.user.ssh.enabled", "", "ssh.service, sshd.service or one of their sockets becomes active"},
    {"kel.user.ssh.disabled", "", "the last of these becomes inactive"},
    {"kel.user.shell.enabled", "", "debug-shell.service, a root shell on a terminal, becomes active"},
    {"kel.user.shell.disabled", "", "it becomes inactive"},
};

constexpr const char *kSystemd = "org.freedesktop.systemd1";
constexpr const char *kManagerPath = "/org/freedesktop/systemd1";
constexpr const char *kManager = "org.freedesktop.systemd1.Manager";
constexpr const char *kProperties = "org.freedesktop.DBus.Properties";
constexpr const char *kBootFile = "boot";

// A service that may be provided by any of several units.
struct Service {
    const Row &on, &off;
    std::vector<const char *> units;
};
const Service kServices[] = {
    {kRows[kSshOn], kRows[kSshOff], {"ssh.service", "sshd.service", "ssh.socket", "sshd.socket"}},
    {kRows[kShellOn], kRows[kShellOff], {"debug-shell.service"}},
};

struct Stop {
    std::string_view unit;
    const Row &row;
};
constexpr Stop kStops[] = {
    {"reboot.target", kRows[kReboot]},
    {"kexec.target", kRows[kReboot]},
    {"poweroff.target", kRows[kShutdown]},
    {"halt.target", kRows[kShutdown]},
};

class ServiceSource : public Source {
public:
    explicit ServiceSource(const Host &host);
    ~ServiceSource() override { sd_bus_flush_close_unref(mBus); }

private:
    // One that is watched; stays where it is.
    struct Unit {
        ServiceSource *source;
        const Service *service;
        std::string path; // its object
        std::optional<bool> active{};
    };

    void Connect();
    int Match();
    void Ask(Unit *unit);
    void Take(Unit *unit, std::string_view state);
    void TakeJob(std::string_view unit);
    void TellBoot() const;

    const Host &mHost;
    sd_bus *mBus = nullptr;
    std::list<Unit> mUnits;
    std::map<const Service *, bool> mTold;
    bool mStopping = false;
};

ServiceSource::ServiceSource(const Host &host) : mHost(host)
{
    Connect();
    TellBoot();
    for (const Service &service : kServices)
        for (const char *name : service.units) {
            char *path = nullptr;
            if (sd_bus_path_encode("/org/freedesktop/systemd1/unit", name, &path) < 0) continue;
            mUnits.push_back({this, &service, path});
            free(path);
        }
    for (Unit &unit : mUnits)
        Ask(&unit);
}

void ServiceSource::Connect()
{
    const std::string &address = mHost.options.busAddress;
    int error = 0;
    if (address.empty()) {
        error = sd_bus_open_system(&mBus);
    } else if ((error = sd_bus_new(&mBus)) >= 0) {
        sd_bus_set_bus_client(mBus, 1);
        if ((error = sd_bus_set_address(mBus, address.c_str())) >= 0) error = sd_bus_start(mBus);
    }
    if (error >= 0) error = sd_bus_attach_event(mBus, mHost.loop.Get(), SD_EVENT_PRIORITY_NORMAL);
    if (error >= 0) error = Match();
    if (error >= 0)
        error =
            sd_bus_call_method(mBus, kSystemd, kManagerPath, kManager, "Subscribe", nullptr, nullptr, "");
    if (error >= 0) error = sd_bus_set_exit_on_disconnect(mBus, 1); // whoever restarts it connects anew
    if (error >= 0) return;
    mBus = sd_bus_flush_close_unref(mBus);
    throw CannotRun(fmt::format("systemd cannot be reached on the D-Bus: {}", std::strerror(-error)));
}

int ServiceSource::Match()
{
    const int error = sd_bus_match_signal(
        mBus, nullptr, kSystemd, kManagerPath, kManager, "JobNew",
        [](sd_bus_message *message, void *self, sd_bus_error *) {
            std::uint32_t job = 0;
            const char *object = nullptr, *unit = nullptr;
            if (sd_bus_message_read(message, "uos", &job, &object, &unit) >= 0)
                static_cast<ServiceSource *>(self)->TakeJob(unit);
            return 0;
        },
        this);
    if (error < 0) return error;
    return sd_bus_match_signal(
        mBus, nullptr, kSystemd, nullptr, kProperties, "PropertiesChanged",
        [](sd_bus_message *message, void *self, sd_bus_error *) {
            auto *source = static_cast<ServiceSource *>(self);
            const std::string path = sd_bus_message_get_path(message);
            for (Unit &unit : source->mUnits)
                if (unit.path == path) source->Ask(&unit);
            return 0;
        },
        this);
}

// Does not wait for the answer. A unit that is not there is inactive, says systemd; an answer that is none,
// as when systemd is too busy, says nothing of the unit.
void ServiceSource::Ask(Unit *unit)
{
    (void)sd_bus_call_method_async(
        mBus, nullptr, kSystemd, unit->path.c_str(), kProperties, "Get",
        [](sd_bus_message *message, void *asked, sd_bus_error *) {
            auto *of = static_cast<Unit *>(asked);
            const char *state = nullptr;
            if (sd_bus_message_read(message, "v", "s", &state) >= 0) of->source->Take(of, state);
            return 0;
        },
        unit, "ss", "org.freedesktop.systemd1.Unit", "ActiveState");
}

void ServiceSource::Take(Unit *unit, std::string_view state)
{
    if (state == "active" || state == "reloading")
        unit->active = true;
    else if (state == "inactive" || state == "failed")
        unit->active = false;
    else if (!unit->active)
        unit->active = false; // between two states, and none was known: not active yet

    bool anyActive = false;
    for (const Unit &other : mUnits) {
        if (other.service != unit->service) continue;
        if (!other.active) return; // not all are known yet
        anyActive |= *other.active;
    }
    const auto [told, isFirst] = mTold.try_emplace(unit->service, anyActive);
    if (isFirst || told->second == anyActive) return;
    told->second = anyActive;
    mHost.emit(anyActive ? unit->service->on : unit->service->off, {});
}

void ServiceSource::TakeJob(std::string_view unit)
{
    for (const Stop &stop : kStops) {
        if (stop.unit != unit || std::exchange(mStopping, true)) continue;
        mHost.emit(stop.row, {});
    }
}

// The run directory is new after a boot; what is in it tells whether this boot was told of.
void ServiceSource::TellBoot() const
{
    const std::string boot = ReadTextFile(mHost.options.root + "/proc/sys/kernel/random/boot_id");
    if (boot.empty() || ReadState<std::string>(kBootFile) == boot) return;
    WriteState(kBootFile, boot);
    mHost.emit(kRows[kBoot], {});
}

} // namespace

const SourceKind kServiceSource{
    "service",
    "systemd on the D-Bus",
    "the host's start and stop, SSH and shell services, through systemd",
    kRows,
    [](const Host &host) -> std::unique_ptr<Source> { return std::make_unique<ServiceSource>(host); },
};
