// The event record, decoded strictly.
#include <cerrno>
#include <cstring>
#include <eventRecord.h>
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
    EXPECT_EQ(result == 0 ? 0 : EINVAL, result);
    EXPECT_EQ(result == 0, error == "none");
    return error;
}

std::string FaultOf(std::size_t offset, const std::string &bytes)
{
    EventRecord event;
    std::string changed = kEvent;
    return Decode(changed.replace(offset, bytes.size(), bytes), &event);
}

} // namespace

TEST(EventRecordTest, IsDecodedByteForByte)
{
    EventRecord event;
    ASSERT_EQ("none", Decode(kEvent, &event));
    EXPECT_EQ(0x0102030405060708U, event.timestamp);
    EXPECT_EQ(9U, event.kernelWord);
    EXPECT_EQ("4c4c4544-0042-3510-8054-b4c04f564433", event.hostIdentity);
    EXPECT_EQ("nox.audit.net.up1", event.typeId);
    ASSERT_EQ(3U, event.arguments.size());
    EXPECT_EQ("vmnic2", event.arguments[0].ToText());
    EXPECT_EQ("-2", event.arguments[1].ToText());
    EXPECT_EQ("(null)", event.arguments[2].ToText());
    EXPECT_EQ(MSGFMT_TYPE_INT32, event.arguments[1].type);
    EXPECT_EQ("vmnic2 [   -2] (null) (?)", EventRecord_Render(event, "%s [%5d] %s %d"));
}

TEST(EventRecordTest, EveryFaultNamesItsByte)
{
    EventRecord event;
    EXPECT_EQ("byte 71: too few bytes for an event", Decode(kEvent.substr(0, 71), &event));
    EXPECT_EQ("byte 56: total length is not the record's", Decode(kEvent.substr(0, 152), &event));
    EXPECT_EQ("byte 56: total length is not the record's", FaultOf(56, "\x98"));
    EXPECT_EQ("byte 54: not zero", FaultOf(55, "x"));
    EXPECT_EQ("byte 149: not zero", FaultOf(152, "x"));
    EXPECT_EQ("byte 60: more arguments than there is room for", FaultOf(60, "\x04"));
    EXPECT_EQ("byte 60: more arguments than there is room for", FaultOf(60, "\xff\xff\xff\xff"));
    EXPECT_EQ("byte 64: ID length out of range", FaultOf(64, "\x01"));
    EXPECT_EQ("byte 64: ID length out of range", FaultOf(64, "\x82"));
    EXPECT_EQ("byte 64: ID length out of range", FaultOf(64, "\xff\xff\xff\xff"));
    EXPECT_EQ("byte 68: ID not NUL-terminated where its length says", FaultOf(64, "\x11"));
    EXPECT_EQ("byte 68: ID not NUL-terminated where its length says", FaultOf(70, "\0"s));
    EXPECT_EQ("byte 86: string outside the record", FaultOf(90, "\x40"));
    EXPECT_EQ("byte 86: string inside the argument array", FaultOf(94, "\x29"));
    EXPECT_EQ("byte 102: unknown argument type", FaultOf(102, "\x05"));
    EXPECT_EQ("byte 106: integer with a string length", FaultOf(106, "\x01"));
    EXPECT_EQ("byte 110: 32-bit integer not extended", FaultOf(117, "\x7f"));
    EXPECT_EQ("byte 118: string without a length", FaultOf(126, "\x30"));
}

TEST(EventRecordTest, AFaultLeavesTheEventAlone)
{
    EventRecord event;
    event.typeId = "nox.audit.before";
    Decode(kEvent.substr(0, 80), &event);
    EXPECT_EQ("nox.audit.before", event.typeId);
}
