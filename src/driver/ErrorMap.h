// The one place where the framework's errors become errno values for the
// kernel. Pure; any thread.
#pragma once

#include <optional>

#include "platform/Error.h"

namespace hvfp::driver {

// 4610 lookup failed: ENOENT; 513 refused by the host: EACCES; 3072
// cancelled: ECANCELED; 5120 transfer or upload failed and 3328 not
// confirmed: EIO; anything else: EIO, with a log line naming it.
int errnoFor(const Error& error);
inline int errnoFor(const std::optional<Error>& error) { return error ? errnoFor(*error) : 0; }

}  // namespace hvfp::driver
