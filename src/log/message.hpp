#pragma once

#include <sstream>
#include <string>

#include "log/level.hpp"

namespace qm::log {

// One log message under construction: a level and the text streamed into it. Built on the
// logging thread's stack, handed to the sink, then destroyed; never shared between threads.
class Message {
public:
    explicit Message(Level level) : level(level) {}
    virtual ~Message() = default;

    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    template <typename T>
    Message& operator<<(const T& value) {
        stream << value;
        return *this;
    }

    std::string text() const { return stream.str(); }

    Level level;
    std::ostringstream stream;
};

class SystemMessage : public Message {
public:
    SystemMessage() : Message(Level::SYSTEM) {}
};

class ErrorMessage : public Message {
public:
    ErrorMessage() : Message(Level::ERROR) {}
};

class WarningMessage : public Message {
public:
    WarningMessage() : Message(Level::WARNING) {}
};

class InfoMessage : public Message {
public:
    InfoMessage() : Message(Level::INFO) {}
};

class TraceMessage : public Message {
public:
    TraceMessage() : Message(Level::TRACE) {}
};

}  // namespace qm::log
