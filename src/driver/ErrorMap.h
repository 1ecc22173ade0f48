// The one place where the framework's errors become errno values for the
// kernel. Pure; any thread.
#pragma once

#include <optional>
#include <string>

#include "platform/Error.h"

namespace hvfp::driver {

// 4610 lookup failed: ENOENT; 513 refused by the host: EACCES; 3072
// cancelled: ECANCELED; 5120 transfer or upload failed and 3328 not
// confirmed: EIO; anything else: EIO, with a log line naming it.
int errnoFor(const Error& error);
inline int errnoFor(const std::optional<Error>& error) { return error ? errnoFor(*error) : 0; }

// One line for people: the code and text an upload's failure carries, when
// it carries them, then the domain and code ("error 40309 \"no room\"
// (NSCocoaErrorDomain 5120)").
std::string failureText(const Error& error);

}  // namespace hvfp::driver
