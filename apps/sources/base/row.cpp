#include "row.h"

#include "kelproducer.h"
#include "text.h"

#include <kltlibs/msgfmt.h>

#include <array>

namespace {

// Room for the 32 texts that a record may have, and more.
constexpr std::size_t kRecordBytes = 16384;

struct ToArgument {
    KelProducerArg operator()(const std::string &text) const
    {
        return {MSGFMT_TYPE_STRING, 0, text.c_str()};
    }
    KelProducerArg operator()(std::int32_t number) const
    {
        return {MSGFMT_TYPE_INT32, static_cast<std::uint64_t>(std::int64_t{number}), nullptr};
    }
    KelProducerArg operator()(std::uint32_t number) const { return {MSGFMT_TYPE_UINT32, number, nullptr}; }
    KelProducerArg operator()(std::uint64_t number) const { return {MSGFMT_TYPE_UINT64, number, nullptr}; }
};

} // namespace

std::vector<Value> External(const std::string &component, const std::string &message)
{
    return {component, "man:keld-sources(8)", message};
}

std::string Clean(std::string_view text)
{
    std::string clean = Printable(text.substr(0, kTextBytesMax));
    if (clean.size() <= kTextBytesMax) return clean;
    std::size_t end = kTextBytesMax; // not in the middle of a character
    while ((static_cast<unsigned char>(clean[end]) & 0xC0U) == 0x80)
        --end;
    clean.resize(end);
    return clean;
}

std::string MakeRecord(const Row &row, const std::vector<Value> &values)
{
    std::vector<Value> cleaned = values;
    std::vector<KelProducerArg> arguments;
    for (Value &value : cleaned) {
        if (auto *text = std::get_if<std::string>(&value)) *text = Clean(*text);
        arguments.push_back(std::visit(ToArgument{}, value));
    }
    std::array<char, kRecordBytes> record;
    std::size_t length = 0;
    if (KelRecord_BuildFromArgs(record.data(), record.size(), &length, KELPRODUCER_NOW, row.id, row.format,
                                arguments.data(), arguments.size()) != 0)
        return {};
    return {record.data(), length};
}
