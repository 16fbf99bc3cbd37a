#pragma once

#include "linux/dbus/DBusObjects.h"

namespace zun {

inline constexpr std::string_view kDBusBusPath = "/org/freedesktop/DBus";
/// The name that a client is told it has, and the only one there is.
inline constexpr std::string_view kDBusPeerName = ":1.1";

[[nodiscard]] const DBusInterfaceTable& dbusIntrospectableInterface();
[[nodiscard]] const DBusInterfaceTable& dbusPeerInterface();
[[nodiscard]] const DBusInterfaceTable& dbusPropertiesInterface();
[[nodiscard]] const DBusInterfaceTable& dbusBusInterface();

/// The interface element of an introspection text.
void appendDBusIntrospection(std::string& out, const ServiceInterface& interface);

}  // namespace zun
