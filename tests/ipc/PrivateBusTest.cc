#include <gtest/gtest.h>
#include <stdlib.h>
#include <systemd/sd-bus.h>

#include <string>

#include "support/PrivateBus.h"

namespace hvfp {
namespace {

bool canConnect() {
  sd_bus* bus = nullptr;
  int r = sd_bus_open_user(&bus);
  const char* unique = nullptr;
  if (r >= 0) r = sd_bus_get_unique_name(bus, &unique);
  sd_bus_flush_close_unref(bus);
  return r >= 0;
}

TEST(IpcPrivateBus, IsTheSessionBusOnlyWhileItLives) {
  if (!test::PrivateBus::available()) GTEST_SKIP() << "dbus-daemon is not on PATH";
  const char* original = getenv("DBUS_SESSION_BUS_ADDRESS");
  std::string saved = original ? original : "";
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/outer", 1);
  std::string address;
  {
    test::PrivateBus outer;
    ASSERT_TRUE(outer.ok()) << outer.error();
    EXPECT_EQ(outer.error(), "");
    EXPECT_EQ(getenv("DBUS_SESSION_BUS_ADDRESS"), outer.address());
    EXPECT_TRUE(canConnect());
    {
      test::PrivateBus inner;
      ASSERT_TRUE(inner.ok()) << inner.error();
      EXPECT_NE(inner.address(), outer.address());
      EXPECT_EQ(getenv("DBUS_SESSION_BUS_ADDRESS"), inner.address());
      address = inner.address();
    }
    EXPECT_EQ(getenv("DBUS_SESSION_BUS_ADDRESS"), outer.address());
  }
  EXPECT_EQ(getenv("DBUS_SESSION_BUS_ADDRESS"), std::string("unix:path=/nonexistent/outer"));

  // The daemon is gone, not just forgotten.
  setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  EXPECT_FALSE(canConnect());
  if (original) {
    setenv("DBUS_SESSION_BUS_ADDRESS", saved.c_str(), 1);
  } else {
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
  }
}

}  // namespace
}  // namespace hvfp
