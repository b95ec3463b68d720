// The system error log: entries that drivers wrote, kept until a test or a tool takes them.
#pragma once

#include <string>
#include <vector>

#include <ntifs.h>

namespace nthost {

struct ErrorLogEntry {
    std::string Driver;                // "\Driver\name"
    std::string Device;                // full name; empty for an entry of the driver itself or a nameless device
    std::vector<unsigned char> Packet; // an IO_ERROR_LOG_PACKET, as long as the driver asked for
    IO_ERROR_LOG_PACKET Header() const;
};

// In the order of writing.
std::vector<ErrorLogEntry> TakeErrorLog();

} // namespace nthost
