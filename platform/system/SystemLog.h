// Where the process's log lines end up.
#pragma once

#include <memory>
#include <string>

#include "base/Log.h"

namespace corvid {

enum class LogDestination { syslog, standardError };

// Where the lines of a daemon go that was not told: standard error where that is a terminal or
// where there is no system log, else the system log.
LogDestination usualLogDestination();

// Opens the log of `program`: the system log (facility daemon, with the process's number), or
// standard error for people, one line a text: time, level and process, then the text and nothing
// after it. Control characters in a text are written escaped ("\n", "\x1b"), so that no client can
// forge a line or reach a terminal.
//
// Where a journal listens at `journalSocket`, it is the system log, spoken to in its own protocol:
// text and level stay what they are, and what base/LogFields.h knows of the line stands beside them
// as CORVID_SESSION, CORVID_CLIENT, CORVID_BACKEND, CORVID_REASON and MESSAGE_ID. A journal that
// goes away takes lines again when it is back; one that takes nothing holds a line up for
// JournalSocket::patience, once.
//
// Threads: open before the first thread; the sink's write from any. Open one at a time.
// Errors: none; a line that cannot be delivered is lost.
std::unique_ptr<LogSink> openSystemLog(std::string program, LogDestination destination,
                                       const std::string& journalSocket = {});

}  // namespace corvid
