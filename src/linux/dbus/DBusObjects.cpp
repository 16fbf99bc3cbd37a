#include "linux/dbus/DBusObjects.h"

#include <fmt/format.h>
#include <systemd/sd-id128.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "linux/dbus/DBusStandardInterfaces.h"

namespace zun {

namespace {

// Tells this service's view of the machine from every other's; never the raw machine id.
constexpr sd_id128_t kMachineIDPurpose{
    {0x5e, 0x1f, 0x3b, 0x7c, 0x92, 0x0a, 0x4d, 0x61, 0xa8, 0x4f, 0xc3, 0xd0, 0x17, 0x6e, 0x25, 0xb9}};

constexpr uint32_t kPrimaryOwner = 1;
constexpr uint32_t kNameReleased = 1;
constexpr uint32_t kAlreadyRunning = 2;

std::string concatenatedTypes(std::span<const ServiceArgument> arguments) {
  std::string signature;
  for (const ServiceArgument& argument : arguments) signature += argument.type;
  return signature;
}

/// True where `path` lies above `other`, which is not the root.
bool isAbove(std::string_view path, std::string_view other) {
  if (path == "/") return true;
  return other.starts_with(path) && other.substr(path.size()).starts_with('/');
}

std::optional<std::string> machineID() {
  sd_id128_t id{};
  if (::sd_id128_get_machine_app_specific(kMachineIDPurpose, &id) < 0 &&
      ::sd_id128_get_boot_app_specific(kMachineIDPurpose, &id) < 0) {
    return std::nullopt;
  }
  std::array<char, SD_ID128_STRING_MAX> text{};
  return std::string(::sd_id128_to_string(id, text.data()));
}

}  // namespace

DBusInterfaceTable::DBusInterfaceTable(const ServiceInterface& interface) : interface_(&interface) {
  members_.reserve(interface.members.size());
  for (const ServiceMember& member : interface.members) {
    members_.push_back({member.name, concatenatedTypes(member.in), concatenatedTypes(member.out)});
  }
}

std::optional<size_t> DBusInterfaceTable::find(std::string_view name) const {
  for (size_t index = 0; index < members_.size(); ++index) {
    if (members_[index].name == name) return index;
  }
  return std::nullopt;
}

bool acceptsDBusSignature(std::string_view expected, std::string_view actual) {
  if (expected.size() != actual.size()) return false;
  for (size_t index = 0; index < expected.size(); ++index) {
    if (expected[index] == actual[index]) continue;
    const bool isDictionaryOfText = index >= 3 && expected.substr(index - 3).starts_with("a{sv}") &&
                                    actual.substr(index - 3).starts_with("a{ss}");
    if (!isDictionaryOfText) return false;
  }
  return true;
}

DBusObjects::Node DBusObjects::nodeAt(std::string_view path) const {
  for (const Exported& exported : exported_) {
    if (path == exported.table.interface().objectPath) return Node::kExported;
  }
  if (path == kDBusBusPath) return Node::kBus;
  const auto known = knownPaths();
  const bool isParent = std::any_of(known.begin(), known.end(),
                                    [path](std::string_view other) { return isAbove(path, other); });
  return isParent ? Node::kParent : Node::kUnknown;
}

std::vector<std::string_view> DBusObjects::knownPaths() const {
  std::vector<std::string_view> paths;
  for (const Exported& exported : exported_) paths.push_back(exported.table.interface().objectPath);
  paths.push_back(kDBusBusPath);
  return paths;
}

std::vector<DBusObjects::Offer> DBusObjects::offersAt(std::string_view path) const {
  const Node node = nodeAt(path);
  std::vector<Offer> offers;
  for (const Exported& exported : exported_) {
    if (path == exported.table.interface().objectPath) offers.push_back({&exported.table, exported.answerer});
  }
  if (node == Node::kBus) offers.push_back({&dbusBusInterface(), Answerer::kThis});
  if (node != Node::kUnknown) {
    offers.push_back({&dbusIntrospectableInterface(), Answerer::kThis});
    offers.push_back({&dbusPropertiesInterface(), Answerer::kThis});
  }
  offers.push_back({&dbusPeerInterface(), Answerer::kThis});  // of every path, as D-Bus has it
  return offers;
}

DBusObjects::Target DBusObjects::resolve(const DBusHeader& call) const {
  Target target = find(call);
  if (target.table == nullptr) return target;
  const std::string& expected = target.table->member(target.member).inSignature;
  if (!acceptsDBusSignature(expected, call.signature)) {
    return {nullptr, 0, Answerer::kThis, kDBusErrorInvalidArgs,
            fmt::format("'{}' takes '{}', not '{}'", call.member, expected, call.signature)};
  }
  return target;
}

DBusObjects::Target DBusObjects::find(const DBusHeader& call) const {
  // Nearly every call is for one of these: found without building anything.
  for (const Exported& exported : exported_) {
    const ServiceInterface& interface = exported.table.interface();
    if (call.interface != interface.name || call.path != interface.objectPath) continue;
    if (const auto member = exported.table.find(call.member)) {
      return {&exported.table, *member, exported.answerer, {}, {}};
    }
  }
  return search(call);
}

DBusObjects::Target DBusObjects::search(const DBusHeader& call) const {
  bool isInterfaceKnown = call.interface.empty();
  for (const Offer& offer : offersAt(call.path)) {
    if (!call.interface.empty() && call.interface != offer.table->interface().name) continue;
    isInterfaceKnown = true;
    if (const auto member = offer.table->find(call.member)) {
      return {offer.table, *member, offer.answerer, {}, {}};
    }
  }
  Target none;
  if (nodeAt(call.path) == Node::kUnknown) {
    none.error = kDBusErrorUnknownObject;
    none.errorText = fmt::format("No such object path '{}'", call.path);
  } else if (!isInterfaceKnown) {
    none.error = kDBusErrorUnknownInterface;
    none.errorText = fmt::format("No interface '{}' at '{}'", call.interface, call.path);
  } else {
    none.error = kDBusErrorUnknownMethod;
    none.errorText = fmt::format("No such method '{}'", call.member);
  }
  return none;
}

void DBusObjects::answer(const Target& target, const DBusHeader& call, const Array& arguments,
                         ServiceReply reply) const {
  const std::string_view member = target.table->member(target.member).name;
  if (target.table == &dbusIntrospectableInterface()) {
    reply.send(Array{Value(introspect(call.path))});
  } else if (target.table == &dbusPeerInterface()) {
    answerPeer(member, std::move(reply));
  } else if (target.table == &dbusPropertiesInterface()) {
    answerProperties(member, std::move(reply));
  } else {
    answerBus(member, arguments, std::move(reply));
  }
}

void DBusObjects::answerPeer(std::string_view member, ServiceReply reply) const {
  if (member == "Ping") {
    reply.send();
  } else if (const auto id = machineID()) {
    reply.send(Array{Value(*id)});
  } else {
    reply.sendError(kDBusErrorFailed, "This machine has no id");
  }
}

void DBusObjects::answerProperties(std::string_view member, ServiceReply reply) const {
  if (member == "GetAll") {
    reply.send(Array{Value(Dictionary())});
  } else {
    reply.sendError("org.freedesktop.DBus.Error.UnknownProperty", "There are no properties");
  }
}

void DBusObjects::answerBus(std::string_view member, const Array& arguments, ServiceReply reply) const {
  const std::string_view name = arguments[0].stringValue();
  const bool isPeer = name == kDBusPeerName;
  const uint32_t process = isPeer ? ends_.peerProcess : static_cast<uint32_t>(::getpid());
  const uint32_t user = isPeer ? ends_.peerUser : static_cast<uint32_t>(::geteuid());
  if (member == "Hello") {
    reply.send(Array{Value(kDBusPeerName)});
  } else if (member == "RequestName") {
    reply.send(Array{kPrimaryOwner});
  } else if (member == "ReleaseName") {
    reply.send(Array{kNameReleased});
  } else if (member == "StartServiceByName") {
    reply.send(Array{kAlreadyRunning});
  } else if (member == "NameHasOwner") {
    reply.send(Array{true});
  } else if (member == "GetNameOwner") {
    reply.send(Array{Value(name)});
  } else if (member == "ListNames") {
    reply.send(Array{Value(Array{Value("org.freedesktop.DBus"), Value(kDBusPeerName)})});
  } else if (member == "ListActivatableNames") {
    reply.send(Array{Value(Array())});
  } else if (member == "ListQueuedOwners") {
    reply.send(Array{Value(Array{Value(name)})});
  } else if (member == "GetId") {
    reply.send(Array{Value(ends_.serverID)});
  } else if (member == "GetConnectionUnixProcessID") {
    reply.send(Array{process});
  } else if (member == "GetConnectionUnixUser") {
    reply.send(Array{user});
  } else if (member == "GetConnectionCredentials") {
    reply.send(Array{Value(Dictionary{{"ProcessID", process}, {"UnixUserID", user}})});
  } else {
    reply.send();  // AddMatch and RemoveMatch: there are no signals to match
  }
}

std::string DBusObjects::introspect(std::string_view path) const {
  std::string text = fmt::format("<node name=\"{}\">\n", path);
  for (const Offer& offer : offersAt(path)) appendDBusIntrospection(text, offer.table->interface());
  std::vector<std::string> children;
  for (const std::string_view known : knownPaths()) {
    if (!isAbove(path, known)) continue;
    const std::string_view below = known.substr(path == "/" ? 1 : path.size() + 1);
    std::string child(below.substr(0, below.find('/')));
    if (std::find(children.begin(), children.end(), child) == children.end()) {
      children.push_back(std::move(child));
    }
  }
  for (const std::string& child : children) text += fmt::format("  <node name=\"{}\"/>\n", child);
  return text + "</node>\n";
}

}  // namespace zun
