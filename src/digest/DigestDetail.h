// Internals shared by the digest sources and their tests: the streaming SHA-1
// loop over any read source, so that tests can make a source fail part-way.
//
// Not part of the subsystem's interface. Pure functions; any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace hvfp::detail {

// Same contract as read(2): bytes read (at most `capacity`), 0 at the end,
// -1 with errno set on failure.
using ReadBlock = std::function<ssize_t(char* buffer, size_t capacity)>;

// SHA-1 over everything `read` yields, asking for `blockLength` bytes at a
// time. A read failing with EINTR is retried; any other failure gives nullopt.
std::optional<std::string> sha1OfReads(const ReadBlock& read, size_t blockLength);

}  // namespace hvfp::detail
