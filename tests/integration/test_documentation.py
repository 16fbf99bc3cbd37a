"""What the pages in docs/ say of files, links, options and keys holds."""

import pathlib
import re
import unittest

from harness import binary, run

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted((*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md")))
FOLDERS = "src|docs|tests|client|tools|scripts|packaging|fuzz|bench|cmake"
OPTION = re.compile(r"(?<![\w-])--[a-z][a-z0-9-]*[a-z0-9]")

# The page that is a program's reference, and what to ask for help besides the program itself.
PROGRAMS = {"zunreportingd": ("operations.md", ()),
            "zunreportingctl": ("zunreportingctl.md", ("send", "watch", "upload", "upload-logs", "flush", "shared set",
                                                       "shared remove")),
            "zunstorebag": ("storebag.md", ("keygen", "sign", "verify", "show")),
            "zuncollector": ("zuncollector.md", ())}
GIVEN_TO_ALL = {"--help", "--version"}
OTHER_PROGRAMS = {"--output-fields", "--defined-only", "--peer", "--print-reply", "--dest", "--preset", "--build",
                  "--target", "--check", "--repeat", "--gtest", "--since", "--concurrency", "--start",
                  "--lines", "--minutes", "--clients", "--seed", "--compare", "--events", "--rows", "--rounds"}


# Rows of the bounds' table, and the constants that their figures are.
BOUNDS = {
    "one message": [("linux/dbus/DBusMessage.h", "maximumMessageBytes", "MiB")],
    "buffers for messages that are still coming, without the first 64 KiB of each connection's":
        [("linux/dbus/DBusServiceConnection.h", "kIncomingBytes", "MiB"),
         ("linux/dbus/DBusInput.h", "kUncountedBytes", "KiB")],
    "its values in memory, nesting": [("linux/dbus/DBusMessage.h", "maximumDecodedBytes", "MiB"),
                                      ("linux/dbus/DBusMessage.h", "maximumDepth", "")],
    "what else a client does not read": [("linux/dbus/DBusOutput.h", "highWaterBytes", "MiB"),
                                         ("linux/dbus/DBusOutput.h", "maximumBytes", "MiB")],
    "calls that wait for answers": [("linux/dbus/DBusOutput.h", "maximumPendingReplies", "")],
    "authentication": [("linux/dbus/DBusAuthentication.cpp", "kMaximumLines", ""),
                       ("linux/dbus/DBusAuthentication.cpp", "kMaximumLineBytes", "")],
    "connections, in all and of one user": [("linux/dbus/DBusServiceListener.h", "maximumConnections", ""),
                                            ("linux/dbus/DBusServiceListener.h", "maximumConnectionsPerUser", "")],
    "clients that are accepted and not yet asked what they run": [("linux/dbus/WaitingClients.h", "kMaximum", "")],
    "a refusal that is remembered": [("linux/dbus/RecentRefusals.h", "kMaximum", "")],
    "descriptors with a message; files handed over and not used":
        [("linux/dbus/DBusInput.cpp", "kMaximumDescriptors", ""),
         ("linux/files/FileExtensions.h", "kMaximumUnused", "")],
    "events of one batch": [("backends/EventBatch.h", "kMaximumBytes", "MiB")],
    "events of all batches": [("util/ReportingServices.h", "kBatchMemoryBytes", "MiB")],
    "the values of all calls under way, without the first 64 KiB of each":
        [("linux/dbus/DBusServiceConnection.h", "kDecodedBytes", "MiB"),
         ("linux/dbus/DBusMessage.h", "uncountedDecodedBytes", "KiB")],
    "session and user information, frameworks and digest key, in memory":
        [("session/SessionDescription.h", "kMaximumBytes", "KiB")],
    "answers above 1 MiB that wait to be read": [("linux/dbus/DBusServiceConnection.h", "kWaitingReplyBytes", "MiB")],
    "keys of one post that cannot be carried": [("backends/HTTPSPostBackendPosting.cpp", "kMaximumLines", "")],
    "data shared under one hierarchy token": [("daemon/SharedSessionData.h", "kMaximumBytes", "MiB")],
    "the same, of all tokens without sessions": [("daemon/CorrelatedSessions.h", "kMaximumIdleBytes", "MiB")],
    "identifiers kept for `custom_clientId`": [("util/DeviceIdentity.h", "kMaximumCustomIdentifiers", ""),
                                               ("util/DeviceIdentity.h", "kMaximumKeyBytes", "")],
    "connections to servers that are kept (client and service names)":
        [("daemon/SharedConnectivityHelpers.h", "kMaximumHelpers", "")],
    "datagrams that wait for acknowledgement": [("backends/DashboardLink.h", "kMaximumPackets", "")],
    "ended sessions whose datagrams wait": [("backends/DashboardLink.h", "kMaximumOutliving", "")],
    "requests under way or waiting": [("linux/http/CurlURLSession.h", "maxTasks", ""),
                                      ("linux/http/CurlURLSession.h", "maxBodyBytes", "MiB")],
    "connections to one server, in all": [("linux/http/CurlURLSession.h", "maxConnectionsPerHost", ""),
                                          ("linux/http/CurlURLSession.h", "maxConnections", "")],
    "a connection that idles": [("linux/http/CurlURLSessionTransfer.cpp", "kLongestIdleSeconds", "")],
    "an answer": [("linux/http/CurlURLSession.h", "maxResponseBytes", "MiB"),
                  ("linux/http/CurlURLSessionTransfer.cpp", "kMaxHeadBytes", "KiB")],
    "redirects": [("linux/http/CurlURLSessionTransfer.cpp", "kMaxRedirects", "")],
    "one uploaded file, compressed": [("backends/UploadBody.h", "kMaximumUploadBytes", "MiB")],
    "all uploads under way, compressed, and 0.5 MiB for each that is being read":
        [("util/ReportingServices.h", "kUploadMemoryBytes", "MiB")],
    "the same, as it is": [("backends/UploadBody.h", "kMaximumUploadInputBytes", "GiB")],
    "the URL of an uploaded file in them, its path in a line": [("util/LoggedPath.h", "kMaximumLoggedPathBytes", "KiB")],
    "files that are compressed at a time": [("util/ReportingServices.h", "kCompressionsAtOnce", "")],
    "log data under way": [("util/ReportingServices.h", "kLogDataMemoryBytes", "MiB")],
    "the readable copies": [("util/MessageLog.h", "kMaximumBytes", "MiB")],
    "a storebag or property list": [("values/PropertyList.h", "maximumBytes", "MiB"),
                                    ("values/PropertyList.h", "maximumDepth", ""),
                                    ("values/PropertyList.h", "maximumExpandedBytes", "MiB")],
    "an entitlement file": [("linux/service/EntitlementStore.cpp", "kMaximumFileBytes", "MiB")],
    "one line": [("platform/SystemLog.h", "kMaximumLineBytes", "KiB")],
    "entries that wait for the journal": [("linux/system/JournalWriter.h", "kMaximumWaitingBytes", "MiB")],
    "one power event in the journal": [("linux/system/JournalPowerLog.h", "kMaximumEventBytes", "KiB")],
}
# Rows whose figures are no constants of their own, and why.
WITHOUT_CONSTANT = {
    "the text of one answer": "the largest of which a reply with its shape has room, in an expression",
    "the same, in time": "a duration",
    "of these, a user's and a program's part": "a share, in an expression",
    "clients that connect and are not yet accepted": "the system's",
    "lines of refusals, failed authentications included": "a duration",
    "a name that is known; that is not": "durations",
    "open descriptors": "a part of what the system gives",
    "the period of `reliable`": "durations",
    "of these, for one client; for one server": "shares, in an expression",
    "times a request is sent": "a flag",
    "a request without progress; in all": "durations",
    "a post, once its connection stands; an upload": "durations",
    "a storebag's request in all; a session's wait for it": "durations",
    "waiting for another process that writes the settings": "a duration",
}
BYTES = {"GiB": 1 << 30, "MiB": 1 << 20, "KiB": 1 << 10}


def figure(path, constant, unit):
    """A constant of the code as the table writes it."""
    (number, shift) = re.search(rf"\b{constant} = (?:\w+\{{)?([\d']+)\}}?(?: << (\d+))?;", text_of(path)).groups()
    value = int(number.replace("'", "")) << int(shift or 0)
    return f"{value // BYTES[unit]} {unit}" if unit else f"{value:,}"


def code_of_daemon():
    """Its sources, with texts that go on in the next line put together."""
    sources = sorted(path for path in (ROOT / "src").rglob("*") if path.suffix in (".cpp", ".h"))
    return re.sub(r'"\s*\n\s*"', "", "\n".join(text_of(path) for path in sources))


def text_of(page):
    return page.read_text(encoding="utf-8")


def anchors_of(page):
    """What a heading's link target is made of: its words, in lower case, with hyphens between them."""
    headings = re.findall(r"^#+ (.*)$", text_of(page), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def options_of(program):
    helps = [run(binary(program), *subcommand.split(), "--help").stdout for subcommand in ("", *PROGRAMS[program][1])]
    return {option for text in helps for option in re.findall(r"^ +(?:-\w,)?(--[a-z0-9-]+)", text, re.MULTILINE)}


class DocumentationTest(unittest.TestCase):
    def test_every_link_leads_to_a_file_and_a_heading(self):
        for page in PAGES:
            for file, anchor in re.findall(r"\]\(([^)#\s]*)#?([^)\s]*)\)", text_of(page)):
                if file.startswith("http"):
                    continue
                target = page.parent / file if file else page
                self.assertTrue(target.exists(), f"{page.name}: {file}")
                if anchor:
                    self.assertIn(anchor, anchors_of(target), f"{page.name}: {file}#{anchor}")

    def test_every_file_that_a_page_names_is_there(self):
        named = 0
        for page in PAGES:
            for name in re.findall(rf"(?<![\w/.-])((?:{FOLDERS})/[\w./-]*)", text_of(page)):
                self.assertTrue((ROOT / name.rstrip(".")).exists(), f"{page.name}: {name}")
                named += 1
        self.assertGreater(named, 50)

    def test_every_option_of_a_program_stands_in_its_page(self):
        for program, (page, _) in PROGRAMS.items():
            options = options_of(program)
            self.assertLessEqual(GIVEN_TO_ALL, options, program)
            missing = options - GIVEN_TO_ALL - set(OPTION.findall(text_of(ROOT / "docs" / page)))
            self.assertEqual(missing, set(), f"{page} does not tell of them")

    def test_every_option_in_a_page_is_one_of_a_program(self):
        options = {program: options_of(program) for program in PROGRAMS}
        for page in PAGES:
            own = {option for program, (reference, _) in PROGRAMS.items() if reference == page.name
                   for option in options[program]}
            # The pages of the other programs speak of the daemon's as well.
            known = (own | options["zunreportingd"]) if own else set().union(*options.values())
            unknown = set(OPTION.findall(text_of(page))) - known - GIVEN_TO_ALL - OTHER_PROGRAMS
            self.assertEqual(unknown, set(), page.name)

    def test_every_key_of_the_client_library_stands_in_the_protocol(self):
        protocol = text_of(ROOT / "docs/protocol.md")
        keys = re.findall(r'(kZunReporting\w+) = "([^"]*)"', text_of(ROOT / "client/include/zunreporting/Keys.h"))
        self.assertGreater(len(keys), 20)
        for constant, key in keys:
            self.assertIn(f"`{key}`", protocol, constant)

    def test_every_line_of_the_log_in_a_table_is_one_that_the_code_writes(self):
        code = code_of_daemon()
        lines = [line for page, marks in (("operations.md", '"'), ("storebag.md", "`"))
                 for cell in re.findall(r"^\| ([^|]*) \|", text_of(ROOT / "docs" / page), re.MULTILINE)
                 for line in re.findall(f"{marks}([^{marks}]*: [^{marks}]*){marks}", cell)]
        self.assertGreater(len(lines), 25)
        for line in lines:
            for piece in re.split(r": |\.\.\.|\b[A-Z]+\b|\b\d+\b|'\(null\)'", line):
                self.assertTrue(piece.strip(" ,.'") in code, f"{line}: {piece}")

    def test_every_bound_in_the_table_is_the_one_in_the_code(self):
        page = text_of(ROOT / "docs/operations.md")
        rows = page[page.index("## Bounds"):].split("\n")
        for row, bounds in BOUNDS.items():
            (cells,) = [line.split(" | ") for line in rows if line.startswith(f"| {row} |")]
            figures = re.findall(r"[\d,]*\d(?: [KMG]iB)?", cells[1])
            for file, constant, unit in bounds:
                self.assertIn(figure(ROOT / "src" / file, constant, unit), figures, f"{row}: {constant}")

    def test_every_row_of_the_bounds_is_checked_or_has_a_reason_not_to_be(self):
        page = text_of(ROOT / "docs/operations.md")
        table = page[page.index("| What | Bound |"):].split("\n\n")[0]
        rows = [line[2:].split(" | ")[0] for line in table.split("\n")[2:] if not line.startswith("| **")]
        self.assertEqual(sorted(rows), sorted([*BOUNDS, *WITHOUT_CONSTANT]))

    def test_every_program_tells_its_version(self):
        (version,) = re.findall(r"^project\(\w+ VERSION ([\d.]+)", text_of(ROOT / "CMakeLists.txt"), re.MULTILINE)
        for program in PROGRAMS:
            self.assertEqual(run(binary(program), "--version").stdout, f"{program} {version}\n")


if __name__ == "__main__":
    unittest.main()
