#include "selftestProducer.h"

#include <string>

std::vector<RecordBytes> SelftestObservations()
{
    const char *volatile none = nullptr; // the compiler would see the null otherwise
    const std::string longText(20000, 'l'), otherLongText(20000, 'm');
    constexpr int kIntMin = -2147483647 - 1;
    return {
        MakeRecord("kel.tests.user.withoutParams", "Nothing to read."),
        MakeRecord("kel.tests.user.withPercent", "100%% of nothing."),
        MakeRecord("kel.tests.user.withStringParam", "NIC %s.", "vmnic2"),
        MakeRecord("kel.tests.user.withEmptyStringParam", "NIC %s.", ""),
        MakeRecord("kel.tests.user.withNullStringParam", "NIC %s.", none),
        MakeRecord("kel.tests.user.withIntParam", "%d degrees.", kIntMin),
        MakeRecord("kel.tests.user.withUintParam", "%u pages.", 4294967295U),
        MakeRecord("kel.tests.user.withCharParam", "Drive %c.", 'A'),
        MakeRecord("kel.tests.user.withShortParams", "%hd %hhu.", static_cast<short>(-32768),
                   static_cast<unsigned char>(255)),
        MakeRecord("kel.tests.user.withStringAndIntParams", "%s and %s: %d of %u.", "vmnic2", "vmnic3", 2,
                   3U),
        MakeRecord("kel.tests.user.withFieldWidths", "|%-8s|%5d|%#010x|", "vmnic2", 42, 42U),
        MakeRecord("kel.tests.async.withoutParams", "Nothing to read."),
        MakeRecord("kel.tests.async.withIntParams", "%d %x %ld.", -7, 0x1fU, 77L),
        MakeRecord("kel.tests.async.withIntParams", "%d %x %ld.", kIntMin, 0xffffffffU, 2147483647L),
        MakeRecord("kel.tests.async.withUintParams", "%u %x %lu.", 7U, 0x1fU, 77UL),
        MakeRecord("kel.tests.async.withUintParams", "%u %x %lu.", 4294967295U, 0xffffffffU, 4294967295UL),
        MakeRecord("kel.tests.async.withStringParams", "%s.", "naa.60003ff44dc75adc"),
        MakeRecord("kel.tests.async.withStringParams", "%s %s %s.", "vmnic2", "vmnic3", "vmnic4"),
        MakeRecord("kel.tests.async.withLongStringParam", "%s.", longText.c_str()),
        MakeRecord("kel.tests.async.withLongStringParams", "%s %s.", longText.c_str(),
                   otherLongText.c_str()),
        MakeRecord("kel.tests.async.withMixedParams", "%s %u %d.", "hba1:C0:T0:L4", 4U, 1000000),
    };
}

RecordBytes SelftestMarker(const char *name)
{
    return MakeRecord(("kel.tests.marker." + std::string(name)).c_str(), "Self-test: %s", name);
}
