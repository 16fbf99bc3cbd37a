"""A session of GLib's D-Bus, on the thread of the test: whatever fails raises GLib.Error."""

from gi.repository import Gio, GLib

PATH = "/com/vantix/zunreportingd/session"
INTERFACE = "com.vantix.zunreportingd.ClientSessionInterface"
TIMEOUT = 60_000  # milliseconds
REALTIME = 1


class Reporter:
    def __init__(self, scratch, number=1, name="tester", client_type=7):
        self.number, self.name, self.client_type = number, name, client_type
        self.connection = Gio.DBusConnection.new_for_address_sync(
            scratch.address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT, None, None)
        self.connection.set_exit_on_close(False)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if not self.connection.is_closed():
            try:
                self.connection.close_sync(None)
            except GLib.Error:
                pass  # the daemon was quicker

    def call(self, member, signature=None, *arguments, path=PATH, interface=INTERFACE):
        return self.connection.call_sync(None, path, interface, member,
                                         GLib.Variant(signature, arguments) if signature else None, None,
                                         Gio.DBusCallFlags.NONE, TIMEOUT, None).unpack()

    def start(self):
        """Names of the session's backends."""
        info = {"sessionInfoSessionID": GLib.Variant("u", self.number),
                "sessionInfoClientType": GLib.Variant("i", self.client_type),
                "sessionInfoRequireUserInfo": GLib.Variant("b", True)}
        user = {"userInfoClientName": GLib.Variant("s", self.name),
                "userInfoServiceName": GLib.Variant("s", "bench")}
        self.call("setSessionInfo", "(a{sv}aa{sv}asb)", info, [user], [], False)
        backends = self.call("startConfigWithCompletionHandler")[0]
        return backends[0] if backends else []

    def send(self, number):
        """Reports an event that is posted at once. The answer of the backends."""
        return self.call("sendMessageWithDictionary", "(a{sv})", {
            "messageParametersCategory": GLib.Variant("u", 5), "messageParametersType": GLib.Variant("u", 6),
            "messageParametersFlag": GLib.Variant("u", REALTIME),
            "messageParametersPayload": GLib.Variant("a{sv}", {"number": GLib.Variant("i", number)})})[0]

    def upload(self, path):
        """Has the file posted; true where the daemon took it."""
        descriptors = Gio.UnixFDList.new()
        with open(path, "rb") as file:
            descriptors.append(file.fileno())
        reply, _ = self.connection.call_with_unix_fd_list_sync(
            None, PATH, "com.vantix.zunreportingd.FileAccess", "issueExtension", GLib.Variant("(h)", (0,)), None,
            Gio.DBusCallFlags.NONE, TIMEOUT, descriptors, None)
        return self.call("uploadFileAtPath", "(say)", "file://" + path, bytes(reply.unpack()[0]))[0]
