// Messages of the log as lines for COPY.
#pragma once

#include <cstddef>
#include <string>

#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

struct Times {
  std::string received;  // by the gateway, as PostgreSQL reads it
  std::string day;       // of that, in UTC: "2026-11-23"
};

// By the header "received"; the present where it has none or one that cannot be.
Times timesOf(const LogMessage& message);

// The columns that the lines of each table have.
inline constexpr const char* eventColumns =
    "corvid.event (day, received, message, number, client_id, sender, method, status, event_time, "
    "session, event_number, build, version, payload)";
inline constexpr const char* logDataColumns =
    "corvid.log_data (day, received, message, headers, body)";
inline constexpr const char* rejectedColumns =
    "corvid.rejected (message, stream, received, reason, headers, body)";

// Adds a line for each event of a post; gives their number. std::invalid_argument where the body is
// no post, and then nothing is added.
std::size_t appendEventLines(std::string& lines, const LogMessage& message, const Times& times);
void appendLogDataLine(std::string& lines, const LogMessage& message, const Times& times);
void appendRejectedLine(std::string& lines, const LogMessage& message, const Times& times,
                        const std::string& reason);

}  // namespace corvid::fleet
