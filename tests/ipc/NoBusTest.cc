#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <optional>
#include <string>

#include "platform/ipc/DBusNames.h"
#include "platform/ipc/HostEvents.h"
#include "platform/ipc/MessagePort.h"

namespace hvfp {
namespace {

// Points the session bus at a socket that does not exist, in a directory of
// the test's own, so no bus on the machine is reached.
class IpcNoBus : public ::testing::Test {
 protected:
  void SetUp() override {
    if (const char* old = getenv("DBUS_SESSION_BUS_ADDRESS")) previous_ = old;
    char pattern[] = "/tmp/hvfp-nobus-XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    dir_ = pattern;
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + dir_ + "/missing").c_str(), 1);
  }
  void TearDown() override {
    if (previous_) {
      setenv("DBUS_SESSION_BUS_ADDRESS", previous_->c_str(), 1);
    } else {
      unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }
    std::error_code ignored;
    if (!dir_.empty()) std::filesystem::remove_all(dir_, ignored);
  }

  std::optional<std::string> previous_;
  std::string dir_;
};

TEST_F(IpcNoBus, EveryEndpointIsEmptyWithAReason) {
  bool called = false;
  std::string why;
  EXPECT_FALSE(HostEventListener::start([&](const auto&) { called = true; }, &why));
  EXPECT_NE(why, "");

  why.clear();
  EXPECT_FALSE(HostEventEmitter::open(&why));
  EXPECT_NE(why, "");

  why.clear();
  EXPECT_FALSE(MessagePortServer::start(
      dbus::kPortName, [](int32_t, const std::string&) { return std::string(); }, &why));
  EXPECT_NE(why, "");

  EXPECT_FALSE(MessagePortRemote::create(dbus::kPortName));
  EXPECT_FALSE(called);
  // Not asking for the reason changes nothing.
  EXPECT_FALSE(HostEventEmitter::open());
}

}  // namespace
}  // namespace hvfp
