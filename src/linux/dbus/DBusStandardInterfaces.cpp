#include "linux/dbus/DBusStandardInterfaces.h"

#include <fmt/format.h>

#include <iterator>

namespace zun {

namespace {

using Arguments = std::span<const ServiceArgument>;

constexpr ServiceArgument kText[] = {{"xml_data", "s"}};
constexpr ServiceMember kIntrospectableMembers[] = {{"Introspect", {}, kText}};

constexpr ServiceArgument kMachine[] = {{"machine_uuid", "s"}};
constexpr ServiceMember kPeerMembers[] = {{"Ping", {}, {}}, {"GetMachineId", {}, kMachine}};

constexpr ServiceArgument kProperty[] = {{"interface_name", "s"}, {"property_name", "s"}};
constexpr ServiceArgument kPropertyAndValue[] = {
    {"interface_name", "s"}, {"property_name", "s"}, {"value", "v"}};
constexpr ServiceArgument kInterfaceName[] = {{"interface_name", "s"}};
constexpr ServiceArgument kPropertyValue[] = {{"value", "v"}};
constexpr ServiceArgument kPropertyValues[] = {{"properties", "a{sv}"}};
constexpr ServiceMember kPropertiesMembers[] = {{"Get", kProperty, kPropertyValue},
                                                {"Set", kPropertyAndValue, {}},
                                                {"GetAll", kInterfaceName, kPropertyValues}};

constexpr ServiceArgument kName[] = {{"name", "s"}};
constexpr ServiceArgument kNameAndFlags[] = {{"name", "s"}, {"flags", "u"}};
constexpr ServiceArgument kRule[] = {{"rule", "s"}};
constexpr ServiceArgument kNames[] = {{"names", "as"}};
constexpr ServiceArgument kCode[] = {{"result", "u"}};
constexpr ServiceArgument kFlag[] = {{"result", "b"}};
constexpr ServiceArgument kIdentity[] = {{"id", "s"}};
constexpr ServiceArgument kCredentials[] = {{"credentials", "a{sv}"}};
constexpr ServiceMember kBusMembers[] = {
    {"Hello", {}, kName},
    {"RequestName", kNameAndFlags, kCode},
    {"ReleaseName", kName, kCode},
    {"StartServiceByName", kNameAndFlags, kCode},
    {"NameHasOwner", kName, kFlag},
    {"GetNameOwner", kName, kName},
    {"ListNames", {}, kNames},
    {"ListActivatableNames", {}, kNames},
    {"ListQueuedOwners", kName, kNames},
    {"AddMatch", kRule, {}},
    {"RemoveMatch", kRule, {}},
    {"GetId", {}, kIdentity},
    {"GetConnectionUnixProcessID", kName, kCode},
    {"GetConnectionUnixUser", kName, kCode},
    {"GetConnectionCredentials", kName, kCredentials},
};

constexpr ServiceInterface kIntrospectable{"", "org.freedesktop.DBus.Introspectable", kIntrospectableMembers};
constexpr ServiceInterface kPeer{"", "org.freedesktop.DBus.Peer", kPeerMembers};
constexpr ServiceInterface kProperties{"", "org.freedesktop.DBus.Properties", kPropertiesMembers};
constexpr ServiceInterface kBus{kDBusBusPath, "org.freedesktop.DBus", kBusMembers};

void appendArguments(std::string& out, Arguments arguments, std::string_view direction) {
  for (const ServiceArgument& argument : arguments) {
    fmt::format_to(std::back_inserter(out), "      <arg name=\"{}\" type=\"{}\" direction=\"{}\"/>\n",
                   argument.name, argument.type, direction);
  }
}

}  // namespace

const DBusInterfaceTable& dbusIntrospectableInterface() {
  static const DBusInterfaceTable table(kIntrospectable);
  return table;
}

const DBusInterfaceTable& dbusPeerInterface() {
  static const DBusInterfaceTable table(kPeer);
  return table;
}

const DBusInterfaceTable& dbusPropertiesInterface() {
  static const DBusInterfaceTable table(kProperties);
  return table;
}

const DBusInterfaceTable& dbusBusInterface() {
  static const DBusInterfaceTable table(kBus);
  return table;
}

void appendDBusIntrospection(std::string& out, const ServiceInterface& interface) {
  fmt::format_to(std::back_inserter(out), "  <interface name=\"{}\">\n", interface.name);
  for (const ServiceMember& member : interface.members) {
    fmt::format_to(std::back_inserter(out), "    <method name=\"{}\">\n", member.name);
    appendArguments(out, member.in, "in");
    appendArguments(out, member.out, "out");
    out += "    </method>\n";
  }
  out += "  </interface>\n";
}

}  // namespace zun
