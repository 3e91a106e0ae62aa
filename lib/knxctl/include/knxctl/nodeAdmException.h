// What the host-management libraries throw when an operation fails.
#ifndef KNXCTL_NODEADMEXCEPTION_H
#define KNXCTL_NODEADMEXCEPTION_H

#include <exception>
#include <string>
#include <utility>

namespace NodeAdm::Lib {

class NodeAdmException : public std::exception {
public:
    explicit NodeAdmException(std::string detailedMessage) : mDetailedMessage(std::move(detailedMessage)) {}
    const char *what() const noexcept override { return mDetailedMessage.c_str(); }

    // What failed, on which object, and why: one line for a log.
    const std::string &GetDetailedMessage() const { return mDetailedMessage; }

private:
    std::string mDetailedMessage;
};

} // namespace NodeAdm::Lib

#endif
