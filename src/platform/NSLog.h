#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace orvel::platform {

// The plain process log the update policy writes to: one line on standard error in the
// customary shape "2024-05-01 13:45:07.123 orvel[4242:4243] text" (local time, process name,
// process and thread ids), and the same text to the systemd journal when its socket is there.
// Any thread may call it; each line is a single write, so concurrent lines stay whole.
void NSLog(std::string_view message);

// The standard-error line for a message, without its newline.
std::string formatNSLogLine(std::string_view message, std::chrono::system_clock::time_point when,
                            std::string_view processName, pid_t processId, pid_t threadId);

}  // namespace orvel::platform
