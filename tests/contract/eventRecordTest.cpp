// The event record, decoded strictly.
#include "eventSink.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <kltlibs/msgfmt.h>

namespace {

using namespace std::string_literals;

const std::string kEvent = "\x08\x07\x06\x05\x04\x03\x02\x01"         // time stamp
                           "\x09\0\0\0\0\0\0\0"                       // the kernel's
                           "4c4c4544-0042-3510-8054-b4c04f564433\0\0" // host identity
                           "\0\0"
                           "\x99\0\0\0"                             // total length: 153
                           "\x03\0\0\0"                             // arguments
                           "\x12\0\0\0"                             // ID with its NUL: 18
                           "nox.audit.net.up1\0"                    // 68
                           "\x06\0\0\0\x07\0\0\0\x30\0\0\0\0\0\0\0" // 86
                           "\x01\0\0\0\0\0\0\0\xfe\xff\xff\xff\xff\xff\xff\xff"
                           "\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
                           "vmnic2\0" // 134
                           "12345678" // bytes that no string uses
                           "\0\0\0\0"s;

std::string Decode(const std::string &bytes, EventRecord *event)
{
    std::string error = "none";
    const int result = EventRecord_Decode(std::as_bytes(std::span(bytes)), event, &error);
    EXPECT_EQ(error == "none" ? 0 : EINVAL, result);
    return error;
}

struct Fault {
    std::size_t offset;
    std::string bytes; // what stands there instead
    const char *what;
};

const Fault kFaults[] = {
    {56, "\x98", "byte 56: total length is not the record's"},
    {55, "x", "byte 54: not zero"},
    {152, "x", "byte 149: not zero"},
    {60, "\x04", "byte 60: more arguments than there is room for"},
    {60, "\xff\xff\xff\xff", "byte 60: more arguments than there is room for"},
    {64, "\x01", "byte 64: ID length out of range"},
    {64, "\x82", "byte 64: ID length out of range"},
    {64, "\x11", "byte 68: ID not NUL-terminated where its length says"},
    {70, "\0s"s, "byte 68: ID not NUL-terminated where its length says"},
    {90, "\x40", "byte 86: string outside the record"},
    {94, "\x29", "byte 86: string inside the argument array"},
    {102, "\x05", "byte 102: unknown argument type"},
    {106, "\x01", "byte 106: integer with a string length"},
    {117, "\x7f", "byte 110: 32-bit integer not extended"},
    {126, "\x30", "byte 118: string without a length"},
};

TEST(EventRecordTest, IsDecodedByteForByte)
{
    EventRecord event;
    ASSERT_EQ("none", Decode(kEvent, &event));
    EXPECT_EQ(0x0102030405060708U, event.timestamp);
    EXPECT_EQ(9U, event.kernelWord);
    EXPECT_EQ("4c4c4544-0042-3510-8054-b4c04f564433", event.hostIdentity);
    EXPECT_EQ("nox.audit.net.up1(vmnic2, -2, (null))", ToText(event));
    EXPECT_EQ(MSGFMT_TYPE_INT32, event.arguments[1].type);
}

TEST(EventRecordTest, ATextThatDoesNotFitShowsWhatDoes)
{
    EventRecord event;
    ASSERT_EQ("none", Decode(kEvent, &event));
    for (const auto &[text, expected] : {std::pair("%s [%5d] %s %d", "vmnic2 [   -2] (null) (?)"),
                                         {"%s %ld %s", "vmnic2 -2 (null)"},
                                         {"%d %s", "(?) (?)"},
                                         {"90% full: %s", "90% full: vmnic2"},
                                         {"%s %", "vmnic2 %"},
                                         {"%2000000000d %s", "%2000000000d vmnic2"}})
        EXPECT_EQ(expected, EventRecord_Render(event, text));
}

TEST(EventRecordTest, EveryFaultNamesItsByteAndLeavesTheEventAlone)
{
    EventRecord event;
    event.typeId = "nox.audit.before";
    EXPECT_EQ("byte 71: too few bytes for an event", Decode(kEvent.substr(0, 71), &event));
    EXPECT_EQ("byte 56: total length is not the record's", Decode(kEvent.substr(0, 152), &event));
    for (const auto &[offset, bytes, what] : kFaults)
        EXPECT_EQ(what, Decode(std::string(kEvent).replace(offset, bytes.size(), bytes), &event));
    EXPECT_EQ("nox.audit.before", event.typeId);
}

} // namespace
