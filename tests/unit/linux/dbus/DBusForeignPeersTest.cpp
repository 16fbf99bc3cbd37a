#include <fcntl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include "DBusPeer.h"
#include "support/RemoteCall.h"

namespace zun {
namespace {

/// Clients that are not ours: whoever writes one next uses what these are made of.
class DBusForeignPeersTest : public DBusServiceTest {
 protected:
  struct Output {
    int status = -1;
    std::string text;
  };
  static Output run(const std::string& command) {
    Output output;
    FILE* const pipe = ::popen(("timeout 60 " + command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return output;
    std::array<char, 4096> chunk{};
    while (const size_t count = std::fread(chunk.data(), 1, chunk.size(), pipe))
      output.text.append(chunk.data(), count);
    const int status = ::pclose(pipe);
    output.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return output;
  }
  static bool has(const std::string& tool) { return run("which " + tool).status == 0; }
  std::string address() const { return "unix:path=" + path_; }
};

#define REQUIRE_TOOL(tool) \
  if (!has(tool)) GTEST_SKIP() << tool << " is not installed"

// --- dbus-send ----------------------------------------------------------------------

TEST_F(DBusForeignPeersTest, DBusSendCallsAndIsAnswered) {
  REQUIRE_TOOL("dbus-send");
  start();
  const std::string send =
      "dbus-send --peer=" + address() + " --print-reply --dest=com.vantix.test /com/vantix/test ";
  const Output dictionary = run(send + "com.vantix.test.Echo.Describe dict:string:string:a,b,c,d");
  EXPECT_EQ(dictionary.status, 0) << dictionary.text;
  EXPECT_NE(dictionary.text.find("string \"{a = \"b\"; c = \"d\"}\""), std::string::npos) << dictionary.text;
  const Output unknown = run(send + "com.vantix.test.Echo.Nonsense");
  EXPECT_NE(unknown.text.find("org.freedesktop.DBus.Error.UnknownMethod"), std::string::npos) << unknown.text;
  const Output ping = run(send + "org.freedesktop.DBus.Peer.Ping");
  EXPECT_EQ(ping.status, 0) << ping.text;
  const Output machine = run(send + "org.freedesktop.DBus.Peer.GetMachineId");
  EXPECT_EQ(machine.status, 0) << machine.text;
  std::string raw;
  std::ifstream("/etc/machine-id") >> raw;
  EXPECT_TRUE(raw.empty() || machine.text.find(raw) == std::string::npos) << "the raw machine id was told";
  const Output outcome = run(send + "com.vantix.test.Echo.Outcome");
  EXPECT_NE(outcome.text.find("int32 -1"), std::string::npos) << outcome.text;
}

TEST_F(DBusForeignPeersTest, DBusSendGetsTheLongestText) {
  REQUIRE_TOOL("dbus-send");
  start();
  const Output answer = run("dbus-send --peer=" + address() +
                            " --print-reply=literal --dest=com.vantix.test /com/vantix/test "
                            "com.vantix.test.Echo.LongText uint32:33554432 | tr -cd x | wc -c");
  EXPECT_EQ(answer.text, "33554432\n");
}

// --- busctl -------------------------------------------------------------------------

TEST_F(DBusForeignPeersTest, BusctlCallsIntrospectsAndWalksTheTree) {
  REQUIRE_TOOL("busctl");
  start();
  const std::string busctl = "busctl --no-pager --address=" + address() + " ";
  const Output call = run(busctl +
                          "call -- com.vantix.test /com/vantix/test com.vantix.test.Echo Describe 'a{sv}' 3 "
                          "number i -7 text s hello list as 2 a b");
  EXPECT_EQ(call.status, 0) << call.text;
  EXPECT_EQ(call.text, "s \"{number = -7; text = \\\"hello\\\"; list = (\\\"a\\\", \\\"b\\\")}\"\n");
  const Output introspection = run(busctl + "introspect com.vantix.test /com/vantix/test");
  EXPECT_EQ(introspection.status, 0) << introspection.text;
  for (const char* part :
       {".Describe", "a{sv}", ".Outcome", "asa(sis)", ".GetMachineId", ".Introspect", ".GetAll"}) {
    EXPECT_NE(introspection.text.find(part), std::string::npos) << part << " in\n" << introspection.text;
  }
  const Output tree = run(busctl + "tree com.vantix.test");
  EXPECT_EQ(tree.status, 0) << tree.text;
  EXPECT_NE(tree.text.find("/com/vantix/test"), std::string::npos) << tree.text;
}

TEST_F(DBusForeignPeersTest, BusctlListsBothInterfaces) {
  REQUIRE_TOOL("busctl");
  start();
  const std::string busctl = "busctl --no-pager --address=" + address() + " ";
  const Output introspection = run(busctl + "introspect com.vantix.test /com/vantix/test");
  for (const char* part :
       {"com.vantix.test.Echo", "com.vantix.zunreportingd.FileAccess", ".issueExtension"}) {
    EXPECT_NE(introspection.text.find(part), std::string::npos) << part << " in\n" << introspection.text;
  }
}

// --- GLib ---------------------------------------------------------------------------

TEST_F(DBusForeignPeersTest, GdbusCallsAndIntrospects) {
  REQUIRE_TOOL("gdbus");
  start();
  const Output call = run("gdbus call --dest com.vantix.test --address " + address() +
                          " --object-path /com/vantix/test --method com.vantix.test.Echo.Describe "
                          "\"{'n': <uint16 7>, 'd': <1.5>}\"");
  EXPECT_EQ(call.status, 0) << call.text;
  EXPECT_EQ(call.text, "('{n = 7; d = 1.5}',)\n");
  const Output introspection =
      run("gdbus introspect --dest com.vantix.test --address " + address() + " --object-path / --recurse");
  EXPECT_EQ(introspection.status, 0) << introspection.text;
  for (const char* part : {"Describe(in  a{sv} message", "interface com.vantix.zunreportingd.FileAccess",
                           "issueExtension(in  h file,\n", "out ay token"}) {
    EXPECT_NE(introspection.text.find(part), std::string::npos) << part << " in\n" << introspection.text;
  }
}

constexpr const char* kGLibClient = R"PYTHON(
import os, sys
from gi.repository import Gio, GLib

connection = Gio.DBusConnection.new_for_address_sync(
    sys.argv[1], Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)

def call(member, arguments, answer=None, path='/com/vantix/test', interface='com.vantix.test.Echo'):
    return connection.call_sync(None, path, interface, member, arguments,
                                GLib.VariantType(answer) if answer else None,
                                Gio.DBusCallFlags.NONE, 30000, None)

# Every type there and back.
types = '(ybnqiuxtdsogay(d)asva(is)ava{sv}aa{sv})'
V = GLib.Variant
sent = V(types, (
    200, True, -3, 65535, -70000, 4000000000, -2**62, 2**64 - 1, 0.25, 'gr\u00fc\u00df', '/a/b', 'a{sv}',
    [1, 2, 255], (1700000000.5,), ['one', ''], V('x', -9), [(1, 'one'), (2, 'two')],
    [V('b', False), V('s', 't'), V('d', 2.5), V('t', 2**63), V('ay', [7]), V('(d)', (3.5,)),
     V('av', [V('x', 1)]), V('a{sv}', {'k': V('av', [])})],
    {'z': V('x', 1), 'a': V('s', 'two')}, [{'k': V('b', True)}]))
got = call('Echo', sent, types)
assert got.equal(sent), (got.print_(True), sent.print_(True))
empty = V(types, (0, False, 0, 0, 0, 0, 0, 0, 0.0, '', '/', '', [], (0.0,), [], V('s', ''), [], [], {}, []))
assert call('Echo', empty, types).equal(empty)

# What a client may use for a number, all of them integers.
text = call('Describe', V('(a{sv})', ({'y': V('y', 1), 'n': V('n', -2), 'u': V('u', 3), 'nested': V('v', V('i', 4)),
                                       'o': V('o', '/p'), 'mixed': V('(si)', ('s', 5)), 'e': V('a{si}', {'k': 6})},)),
            '(s)')[0]
assert text == '{y = 1; n = -2; u = 3; nested = 4; o = "/p"; mixed = ("s", 5); e = {k = 6}}', text
assert call('Describe', V('(a{ss})', ({'a': 'b'},)), '(s)')[0] == '{a = "b"}'

for arguments, member, path, error in (
        (V('(s)', ('x',)), 'Describe', '/com/vantix/test', 'org.freedesktop.DBus.Error.InvalidArgs'),
        (None, 'Nonsense', '/com/vantix/test', 'org.freedesktop.DBus.Error.UnknownMethod'),
        (None, 'Describe', '/other', 'org.freedesktop.DBus.Error.UnknownObject'),
        (None, 'Drop', '/com/vantix/test', 'com.vantix.zunreportingd.Error.NoReply')):
    try:
        call(member, arguments, path=path)
        raise SystemExit('no error for ' + member)
    except GLib.Error as failure:
        assert Gio.dbus_error_get_remote_error(failure) == error, failure

# The daemon calls the client's object.
received = []
loop = GLib.MainLoop()
node = Gio.DBusNodeInfo.new_for_xml('''<node><interface name="com.vantix.test.Client"><method name="tell">
<arg type="q" direction="in"/><arg type="aa{sv}" direction="in"/></method></interface></node>''')
def told(connection, sender, path, interface, member, arguments, invocation):
    received.append(arguments.unpack())
    loop.quit()
connection.register_object('/com/vantix/client', node.interfaces[0], told, None, None)
connection.call(
    None, '/com/vantix/test', 'com.vantix.test.Echo', 'Later', V('(s)', ('ready',)), None,
    Gio.DBusCallFlags.NONE, 30000, None, None)
loop.run()
assert received == [(9, [{'k': 'v'}])], received

assert call('LongText', V('(u)', (2**25,)), '(as)').unpack() == (['x' * 2**25],)

xml = call('Introspect', None, '(s)', interface='org.freedesktop.DBus.Introspectable')[0]
echo = Gio.DBusNodeInfo.new_for_xml(xml).lookup_interface('com.vantix.test.Echo')
assert ''.join(arg.signature for arg in echo.lookup_method('Echo').in_args) == types[1:-1]
assert call('GetAll', V('(s)', ('x',)), '(a{sv})', interface='org.freedesktop.DBus.Properties')[0] == {}

# What libraries ask a bus for, answered as one with two names on it would.
BUS, CLIENT, DAEMON = 'org.freedesktop.DBus', ':1.1', int(sys.argv[2])
def bus(member, types=None, arguments=(), reply='(u)'):
    return call(member, types and V(types, arguments), reply, '/org/freedesktop/DBus', BUS).unpack()
assert bus('Hello', reply='(s)') == (CLIENT,)
assert bus('RequestName', '(su)', ('a.b', 0)) == (1,)
assert bus('ReleaseName', '(s)', ('a.b',)) == (1,)
assert bus('StartServiceByName', '(su)', ('a.b', 0)) == (2,)
assert bus('NameHasOwner', '(s)', ('a.b',), '(b)') == (True,)
assert bus('GetNameOwner', '(s)', ('a.b',), '(s)') == ('a.b',)
assert bus('ListNames', reply='(as)') == ([BUS, CLIENT],)
assert bus('ListActivatableNames', reply='(as)') == ([],)
assert bus('ListQueuedOwners', '(s)', ('a.b',), '(as)') == (['a.b'],)
assert bus('AddMatch', '(s)', ('type=signal',), '()') == ()
assert bus('RemoveMatch', '(s)', ('type=signal',), '()') == ()
assert bus('GetId', reply='(s)') == (connection.get_guid(),)
for name, identifier in ((CLIENT, os.getpid()), (BUS, DAEMON)):
    assert bus('GetConnectionUnixProcessID', '(s)', (name,)) == (identifier,)
    assert bus('GetConnectionUnixUser', '(s)', (name,)) == (os.getuid(),)
    assert bus('GetConnectionCredentials', '(s)', (name,), '(a{sv})') == (
        {'ProcessID': identifier, 'UnixUserID': os.getuid()},)
print('all good')
)PYTHON";

TEST_F(DBusForeignPeersTest, GLibSendsAndGetsEveryType) {
  if (run("/usr/bin/python3 -c 'from gi.repository import Gio'").status != 0) {
    GTEST_SKIP() << "python3-gi is not installed";
  }
  start();
  const std::string script = scratch_.path("client.py");
  std::ofstream(script) << kGLibClient;
  std::thread teller([this] {
    if (!delegate_.events->wait("Later")) return;
    EXPECT_EQ(callRemote(*delegate_.connection(), 0, Array{9, Array{Dictionary{{"k", "v"}}}}), std::nullopt);
  });
  const Output output =
      run("/usr/bin/python3 " + script + " " + address() + " " + std::to_string(::getpid()));
  delegate_.events->add("Later");  // lets the teller go, should the client have failed before
  teller.join();
  EXPECT_EQ(output.text, "all good\n");
  EXPECT_EQ(output.status, 0);
}

constexpr const char* kGLibFileClient = R"PYTHON(
import os, sys
from gi.repository import Gio, GLib

connection = Gio.DBusConnection.new_for_address_sync(
    sys.argv[1], Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)

def issue(descriptor):
    answer, _ = connection.call_with_unix_fd_list_sync(
        None, '/com/vantix/test', 'com.vantix.zunreportingd.FileAccess', 'issueExtension',
        GLib.Variant('(h)', (0,)), GLib.VariantType('(ay)'), Gio.DBusCallFlags.NONE, 30000,
        Gio.UnixFDList.new_from_array([descriptor]), None)
    return bytes(answer.unpack()[0])

try:
    issue(os.open('/dev/null', os.O_WRONLY))
    raise SystemExit('what cannot be read was taken')
except GLib.Error as failure:
    assert Gio.dbus_error_get_remote_error(failure) == 'org.freedesktop.DBus.Error.AccessDenied', failure

token = issue(os.open(sys.argv[2], os.O_RDONLY))
assert len(token) == 33 and token.endswith(b'\0'), token
with open(sys.argv[3], 'wb') as file:
    file.write(token)
connection.call_sync(None, '/com/vantix/test', 'com.vantix.test.Echo', 'Later', GLib.Variant('(s)', ('ready',)),
                     None, Gio.DBusCallFlags.NONE, 60000, None)
print('all good')
)PYTHON";

TEST_F(DBusForeignPeersTest, GLibHandsAFileOver) {
  if (run("/usr/bin/python3 -c 'from gi.repository import Gio'").status != 0) {
    GTEST_SKIP() << "python3-gi is not installed";
  }
  start();
  const std::string script = scratch_.path("client.py");
  const std::string file = scratch_.path("file");
  const std::string tokenFile = scratch_.path("token");
  std::ofstream(script) << kGLibFileClient;
  std::ofstream(file) << "from GLib";
  std::thread user([&] {
    if (!delegate_.events->wait("Later") || !std::filesystem::exists(tokenFile)) return;
    std::string token;
    std::getline(std::ifstream(tokenFile), token);
    const auto consumed = delegate_.connection()->sandboxExtensions()->consume(token, file);
    EXPECT_TRUE(consumed);
    std::array<char, 32> buffer{};
    EXPECT_EQ(consumed ? *(*consumed)->read(0, buffer) : 0, 9u);
    EXPECT_STREQ(buffer.data(), "from GLib");
    delegate_.object()->answerLater("used");
  });
  const Output output = run("/usr/bin/python3 " + script + " " + address() + " " + file + " " + tokenFile);
  delegate_.events->add("Later");  // lets the user go, should the client have failed before
  user.join();
  EXPECT_EQ(output.text, "all good\n");
  EXPECT_EQ(output.status, 0);
}

// --- sd-bus -------------------------------------------------------------------------

struct BusDeleter {
  void operator()(sd_bus* bus) const { ::sd_bus_flush_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, BusDeleter>;

Bus openBus(const std::string& address, bool isBusClient) {
  sd_bus* bus = nullptr;
  EXPECT_GE(::sd_bus_new(&bus), 0);
  EXPECT_GE(::sd_bus_set_address(bus, address.c_str()), 0);
  EXPECT_GE(::sd_bus_set_bus_client(bus, isBusClient ? 1 : 0), 0);
  EXPECT_GE(::sd_bus_start(bus), 0);
  return Bus(bus);
}

TEST_F(DBusForeignPeersTest, SdBusCallsAsPeerAndAsBusClient) {
  start();
  for (const bool isBusClient : {false, true}) {
    const Bus bus = openBus(address(), isBusClient);
    sd_bus_message* answer = nullptr;
    sd_bus_error error{};
    const int result =
        ::sd_bus_call_method(bus.get(), "com.vantix.test", "/com/vantix/test", "com.vantix.test.Echo",
                             "Describe", &error, &answer, "a{sv}", 2, "number", "i", 42, "flag", "b", 1);
    ASSERT_GE(result, 0) << error.message;
    const char* text = nullptr;
    ASSERT_GE(::sd_bus_message_read(answer, "s", &text), 0);
    EXPECT_STREQ(text, "{number = 42; flag = true}");
    ::sd_bus_message_unref(answer);

    EXPECT_LT(::sd_bus_call_method(bus.get(), "com.vantix.test", "/com/vantix/test", "com.vantix.test.Echo",
                                   "Drop", &error, nullptr, ""),
              0);
    EXPECT_STREQ(error.name, "com.vantix.zunreportingd.Error.NoReply");
    ::sd_bus_error_free(&error);
  }
}

TEST_F(DBusForeignPeersTest, SdBusGetsTheLongestText) {
  start();
  const Bus bus = openBus(address(), false);
  ::sd_bus_set_method_call_timeout(bus.get(), 600'000'000);  // microseconds: a sanitizer takes its time
  sd_bus_message* answer = nullptr;
  sd_bus_error error{};
  constexpr uint32_t kLongest = 32 << 20;
  ASSERT_GE(::sd_bus_call_method(bus.get(), "com.vantix.test", "/com/vantix/test", "com.vantix.test.Echo",
                                 "LongText", &error, &answer, "u", kLongest),
            0)
      << error.message;
  const char* text = nullptr;
  ASSERT_GE(::sd_bus_message_read(answer, "as", 1, &text), 0);
  EXPECT_EQ(std::strlen(text), kLongest);
  ::sd_bus_message_unref(answer);
}

TEST_F(DBusForeignPeersTest, SdBusHandsAFileOver) {
  start();
  const Bus bus = openBus(address(), false);
  const std::string file = scratch_.path("file");
  std::ofstream(file) << "from sd-bus";
  const FileDescriptor descriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  sd_bus_message* answer = nullptr;
  sd_bus_error error{};
  const int result = ::sd_bus_call_method(bus.get(), "com.vantix.test", "/com/vantix/test",
                                          "com.vantix.zunreportingd.FileAccess", "issueExtension", &error,
                                          &answer, "h", descriptor.get());
  ASSERT_GE(result, 0) << error.message;
  const void* bytes = nullptr;
  size_t count = 0;
  ASSERT_GE(::sd_bus_message_read_array(answer, 'y', &bytes, &count), 0);
  const std::string token(static_cast<const char*>(bytes), count);
  ::sd_bus_message_unref(answer);
  EXPECT_EQ(token.size(), 33u);
  EXPECT_TRUE(delegate_.connection()->sandboxExtensions()->consume(token, file));
}

TEST_F(DBusForeignPeersTest, SdBusIsCalledByTheDaemon) {
  start();
  const Bus bus = openBus(address(), false);
  unsigned number = 0;
  const auto told = [](sd_bus_message* message, void* out, sd_bus_error*) {
    uint16_t value = 0;
    if (::sd_bus_message_read(message, "q", &value) >= 0) *static_cast<unsigned*>(out) = value;
    return 1;
  };
  ASSERT_GE(::sd_bus_add_filter(bus.get(), nullptr, told, &number), 0);
  while (delegate_.events->count("accepted") == 0) {
    ASSERT_GE(::sd_bus_process(bus.get(), nullptr), 0);
    ASSERT_GE(::sd_bus_wait(bus.get(), 1000), 0);
  }
  EXPECT_EQ(callRemote(*delegate_.connection(), 0, Array{77, Array()}), std::nullopt);
  while (number == 0) {
    const int processed = ::sd_bus_process(bus.get(), nullptr);
    ASSERT_GE(processed, 0);
    ASSERT_GE(processed > 0 ? 0 : ::sd_bus_wait(bus.get(), 1000000), 0);
  }
  EXPECT_EQ(number, 77u);
}

}  // namespace
}  // namespace zun
