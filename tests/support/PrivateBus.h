// PrivateBus: a dbus-daemon of the test's own, so D-Bus code never meets a
// system or user bus that may exist on the machine.
//
// The constructor starts the daemon on a socket in a fresh temporary
// directory and points DBUS_SESSION_BUS_ADDRESS at it; the destructor kills
// and reaps the daemon, removes the directory and restores the variable.
// Failures are reported by ok()/error(), never thrown:
//
//   if (!PrivateBus::available()) GTEST_SKIP() << "no dbus-daemon";
//   PrivateBus bus;
//   ASSERT_TRUE(bus.ok()) << bus.error();
//
// The environment is process-wide: construct and destroy a PrivateBus on the
// test's main thread while no other thread opens a bus connection, and
// destroy every connection to it (listeners, servers) first. Buses nest:
// destroy them in reverse order of creation.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace hvfp::test {

class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();

  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  // dbus-daemon is on PATH.
  static bool available();

  bool ok() const { return pid_ > 0; }
  // Why the daemon did not start; empty when ok().
  const std::string& error() const { return error_; }
  // The bus address, as in DBUS_SESSION_BUS_ADDRESS while this object lives.
  const std::string& address() const { return address_; }

 private:
  bool spawnDaemon();

  std::string dir_;
  std::string address_;
  std::string error_;
  pid_t pid_ = -1;
  std::optional<std::string> previousAddress_;
  bool environmentSet_ = false;
};

}  // namespace hvfp::test
