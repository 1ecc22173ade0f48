// Test fixture for the ipc tests: each test gets its own private bus, set as
// the session bus for the test's duration. Used on the test's main thread.
#pragma once

#include <gtest/gtest.h>

#include <optional>

#include "support/PrivateBus.h"

namespace hvfp::test {

class BusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!PrivateBus::available()) GTEST_SKIP() << "dbus-daemon is not on PATH";
    bus_.emplace();
    ASSERT_TRUE(bus_->ok()) << bus_->error();
  }

  std::optional<PrivateBus> bus_;
};

}  // namespace hvfp::test
