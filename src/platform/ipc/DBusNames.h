// Names on the session bus that the host app and the provider agree on.
#pragma once

namespace hvfp::dbus {

inline constexpr const char* kEventPath = "/com/tamber/halvomac";
inline constexpr const char* kEventInterface = "com.tamber.halvomac.ProviderClient";
inline constexpr const char* kEventMember = "HVProviderClientEvent";

inline constexpr const char* kPortName = "group.com.tamber.halvomac.port";
inline constexpr const char* kPortPath = "/";
inline constexpr const char* kPortInterface = "group.com.tamber.halvomac.port";
inline constexpr const char* kPortMethod = "SendRequest";

}  // namespace hvfp::dbus
