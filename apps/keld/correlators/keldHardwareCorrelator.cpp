// Hardware.
//
// Arrives    NVDIMM health reports; a silent BMC, TPM 2 set-up, interrupt routing that the BIOS got wrong.
// Remembers  nothing.
// Posts      one event for each: problems, audits for what is only nearing a limit, and one clear.
// Time       none.

#include "keldDomains.h"

#include "keldDomain.h"

namespace {

// Of an NVDIMM: its handle, shown in hexadecimal, and its name; then what has reached a limit.
constexpr KeldArguments kNone = Indexed("");
constexpr KeldArguments kNvdimm = Indexed("%d %p", "handle, *idString");
constexpr KeldArguments kStatus = Indexed("%d %p %d", "handle, *idString, status");
constexpr KeldArguments kPercentUsed = Indexed("%d %p %d %d", "handle, *idString, percentUsed, threshold");
constexpr KeldArguments kTemperature = Indexed("%d %p %d", "handle, *idString, celsius");
constexpr KeldArguments kSpareBlocks = Indexed("%d %p %d", "handle, *idString, sparePercent");
constexpr KeldArguments kLifetime = Indexed("%d %p %d", "handle, *idString, lifetime");

constexpr KeldRowOptions kEndsCharging{
    .pairing = {.clears = "nox.problem.hardware.nvd.health.module.es.charging", .on = "handle"}};

// clang-format off
constexpr Translation kRows[] = {
    {"kel.hardware.acpi.interrupt.routing.device.invalid", Indexed("%d", "*device"),
     "@&!*@*@(nox.problem.hardware.acpi.interrupt.routing.device.invalid)Skipping interrupt routing entry with bad device number: %u. This is a BIOS bug."},
    {"kel.hardware.acpi.interrupt.routing.pin.invalid", Indexed("%d", "*pin"),
     "@&!*@*@(nox.problem.hardware.acpi.interrupt.routing.pin.invalid)Skipping interrupt routing entry with bad device pin: %u. This is a BIOS bug."},
    {"kel.hardware.ioapic.missing", Indexed("%d", "*ioapic"),
     "@&!*@*@(nox.problem.hardware.ioapic.missing)IOAPIC Num %d is missing. Please check BIOS settings to enable this IOAPIC."},
    {"kel.hardware.ipmi.bmc.bad", kNone,
     "@&!*@*@(nox.problem.hardware.ipmi.bmc.bad)Failed to communicate with the BMC. IPMI functionality will be unavailable on this system."},
    {"kel.hardware.nvd.health.klt.alarms.es.lifetime.error", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.alarms.es.lifetime.error)NVDIMM (handle %#x, idString %s): Energy Source Lifetime Error tripped."},
    {"kel.hardware.nvd.health.klt.alarms.es.lifetime.warning", kNvdimm,
     "@&!*@*@(nox.audit.hardware.nvd.health.klt.alarms.es.lifetime.warning)NVDIMM (handle %#x, idString %s): Energy Source Lifetime Warning tripped."},
    {"kel.hardware.nvd.health.klt.alarms.es.temperature.error", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.alarms.es.temperature.error)NVDIMM (handle %#x, idString %s): Energy Source Temperature Error tripped."},
    {"kel.hardware.nvd.health.klt.alarms.es.temperature.warning", kNvdimm,
     "@&!*@*@(nox.audit.hardware.nvd.health.klt.alarms.es.temperature.warning)NVDIMM (handle %#x, idString %s): Energy Source Temperature Warning tripped."},
    {"kel.hardware.nvd.health.klt.alarms.module.lifetime.error", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.alarms.module.lifetime.error)NVDIMM (handle %#x, idString %s): Module Lifetime Error tripped."},
    {"kel.hardware.nvd.health.klt.alarms.module.lifetime.warning", kNvdimm,
     "@&!*@*@(nox.audit.hardware.nvd.health.klt.alarms.module.lifetime.warning)NVDIMM (handle %#x, idString %s): Module Lifetime Warning tripped."},
    {"kel.hardware.nvd.health.klt.alarms.module.temperature.error", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.alarms.module.temperature.error)NVDIMM (handle %#x, idString %s): Module Temperature Error tripped."},
    {"kel.hardware.nvd.health.klt.alarms.module.temperature.warning", kNvdimm,
     "@&!*@*@(nox.audit.hardware.nvd.health.klt.alarms.module.temperature.warning)NVDIMM (handle %#x, idString %s): Module Temperature Warning tripped."},
    {"kel.hardware.nvd.health.klt.statusflags.allDataLossInPowerLoss", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.statusflags.allDataLossInPowerLoss)NVDIMM (handle %#x, idString %s): All data may be lost in the event of power loss."},
    {"kel.hardware.nvd.health.klt.statusflags.allDataLossInShutdown", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.statusflags.allDataLossInShutdown)NVDIMM (handle %#x, idString %s): All data may be lost in the event of shutdown."},
    {"kel.hardware.nvd.health.klt.statusflags.allDataLossNow", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.statusflags.allDataLossNow)NVDIMM (handle %#x, idString %s): Subsequent reads may fail or return invalid data and subsequent writes may not persist."},
    {"kel.hardware.nvd.health.klt.statusflags.wpLossInPowerLoss", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.statusflags.wpLossInPowerLoss)NVDIMM (handle %#x, idString %s): Write persistency loss may happen in event of power loss."},
    {"kel.hardware.nvd.health.klt.statusflags.wpLossInShutdown", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.statusflags.wpLossInShutdown)NVDIMM (handle %#x, idString %s): Write persistency loss may happen in event of shutdown."},
    {"kel.hardware.nvd.health.klt.statusflags.wpLossNow", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.statusflags.wpLossNow)NVDIMM (handle %#x, idString %s): Subsequent writes may not persist."},
    {"kel.hardware.nvd.health.klt.statusflags.maintNeeded", kNvdimm,
     "@&!*@*@(nox.audit.hardware.nvd.health.klt.statusflags.maintNeeded)NVDIMM (handle %#x, idString %s): Maintenance needed."},
    {"kel.hardware.nvd.health.klt.statusflags.perfDegraded", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.klt.statusflags.perfDegraded)NVDIMM (handle %#x, idString %s): Performance degraded."},
    {"kel.hardware.nvd.health.lastshutdownstatus", kStatus,
     "@&!*@*@(nox.problem.hardware.nvd.health.lastshutdownstatus)NVDIMM (handle %#x, idString %s): Last Shutdown Status (%u) Not a clean Shutdown, there was either a platform or memory device-related failure while saving data targeted for this memory device."},
    {"kel.hardware.nvd.health.life.pctused", kPercentUsed,
     "@&!*@*@(nox.audit.hardware.nvd.health.life.pctused)NVDIMM (handle %#x, idString %s): Life Percentage Used (%u) has reached the threshold limit (%u)."},
    {"kel.hardware.nvd.health.alarms.temperature", kTemperature,
     "@&!*@*@(nox.audit.hardware.nvd.health.alarms.temperature)NVDIMM (handle %#x, idString %s): Temperature (%d C) has reached the pre-programmed threshold limit."},
    {"kel.hardware.nvd.health.alarms.spareblocks", kSpareBlocks,
     "@&!*@*@(nox.audit.hardware.nvd.health.alarms.spareblocks)NVDIMM (handle %#x, idString %s): SpareBlocksPct (%u) has reached the pre-programmed threshold limit."},
    {"kel.hardware.nvd.health.alarms.lifetime.warning", kLifetime,
     "@&!*@*@(nox.audit.hardware.nvd.health.alarms.lifetime.warning)NVDIMM (handle %#x, idString %s): Lifetime (%u) Warning tripped."},
    {"kel.hardware.nvd.health.alarms.lifetime.error", kLifetime,
     "@&!*@*@(nox.problem.hardware.nvd.health.alarms.lifetime.error)NVDIMM (handle %#x, idString %s): Lifetime (%u) Error tripped."},
    {"kel.hardware.nvd.health.alarms.es.lifetime.warning", kLifetime,
     "@&!*@*@(nox.audit.hardware.nvd.health.alarms.es.lifetime.warning)NVDIMM (handle %#x, idString %s): Energy Source Lifetime (%u) Warning tripped."},
    {"kel.hardware.nvd.health.alarms.es.lifetime.error", kLifetime,
     "@&!*@*@(nox.problem.hardware.nvd.health.alarms.es.lifetime.error)NVDIMM (handle %#x, idString %s): Energy Source Lifetime (%u) Error tripped."},
    {"kel.hardware.nvd.health.alarms.es.temperature.warning", kTemperature,
     "@&!*@*@(nox.audit.hardware.nvd.health.alarms.es.temperature.warning)NVDIMM (handle %#x, idString %s): Energy Source Temperature (%d C) Warning tripped."},
    {"kel.hardware.nvd.health.alarms.es.temperature.error", kTemperature,
     "@&!*@*@(nox.problem.hardware.nvd.health.alarms.es.temperature.error)NVDIMM (handle %#x, idString %s): Energy Source Temperature (%d C) Error tripped."},
    {"kel.hardware.nvd.health.module.ce", kNvdimm,
     "@&!*@*@(nox.audit.hardware.nvd.health.module.ce)NVDIMM (handle %#x, idString %s): Count of DRAM correctable ECC errors above threshold."},
    {"kel.hardware.nvd.health.module.config.error", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.config.error)NVDIMM (handle %#x, idString %s): Configuration error detected."},
    {"kel.hardware.nvd.health.module.ctlr.fail", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.ctlr.fail)NVDIMM (handle %#x, idString %s): Controller failure detected. Access to the device and its capabilities are lost."},
    {"kel.hardware.nvd.health.module.ctlr.fw.error", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.ctlr.fw.error)NVDIMM (handle %#x, idString %s): Controller firmware error detected."},
    {"kel.hardware.nvd.health.module.es.charged", kNvdimm,
     "@&!*@*@(nox.clear.hardware.nvd.health.module.es.charged)NVDIMM (handle %#x, idString %s): Energy Source is sufficiently charged.", kEndsCharging},
    // KEPT: the tab; receivers match on this text.
    {"kel.hardware.nvd.health.module.es.charging", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.es.charging)NVDIMM (handle %#x, idString %s): Energy Source still charging but does not have sufficient charge to support\ta backup. Persistency is temporarily lost for the device."},
    {"kel.hardware.nvd.health.module.es.fail", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.es.fail)NVDIMM (handle %#x, idString %s): Energy Source failure detected. Persistency is lost for the device."},
    {"kel.hardware.nvd.health.module.ops.arm.fail", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.ops.arm.fail)NVDIMM (handle %#x, idString %s): Previous ARM operation failed."},
    {"kel.hardware.nvd.health.module.ops.erase.fail", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.ops.erase.fail)NVDIMM (handle %#x, idString %s): Previous ERASE operation failed."},
    {"kel.hardware.nvd.health.module.ops.restore.fail", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.ops.restore.fail)NVDIMM (handle %#x, idString %s): Last RESTORE operation failed."},
    {"kel.hardware.nvd.health.module.ops.save.fail", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.ops.save.fail)NVDIMM (handle %#x, idString %s): Previous SAVE operation failed."},
    {"kel.hardware.nvd.health.module.uce", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.uce)NVDIMM (handle %#x, idString %s): Count of DRAM uncorrectable ECC errors above threshold."},
    {"kel.hardware.nvd.health.module.vendor.error", kNvdimm,
     "@&!*@*@(nox.problem.hardware.nvd.health.module.vendor.error)NVDIMM (handle %#x, idString %s): Vendor specific error."},
    {"kel.hardware.tpm2.nosha256", kNone,
     "@&!*@*@(nox.problem.hardware.tpm2.nosha256)TPM 2 SHA-256 PCR bank not found to be active. Please activate it in the BIOS."},
    {"kel.hardware.tpm2.notis", kNone,
     "@&!*@*@(nox.problem.hardware.tpm2.notis)TPM 2 TIS interface is not active. Please reboot and activate it in the BIOS."},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.hardware."), "a row stands twice, or outside its domain");

} // namespace

const KeldDomain keldHardwareDomain{
    .name = "Hardware",
    .domains = {"hardware"},
    .translations = KeldTranslations<kRows>,
};

void KeldCorrelator_StartHardware() { KeldDomainRun(keldHardwareDomain); }
