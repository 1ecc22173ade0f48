// How the platform prints a date in the system log: "2023-11-14 22:13:20 +0000",
// always UTC. Pure function, any thread; no locale or time-zone state is read,
// so it is safe while another thread changes TZ.
#pragma once

#include <string>

#include "platform/fileprovider/FileProvider.h"

namespace hvfp {

// Seconds since 1970-01-01 00:00:00 UTC; the fraction is cut toward the past.
std::string formatPlatformDate(Date seconds);
// The same text appended to `out`, for callers building a longer line.
void appendPlatformDate(std::string& out, Date seconds);

}  // namespace hvfp
