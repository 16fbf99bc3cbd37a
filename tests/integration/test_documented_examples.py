"""Examples in docs/ are what the real programs do."""

import json
import pathlib
import re
import unittest

from harness import ScratchTest, binary, run

ROOT = pathlib.Path(__file__).resolve().parents[2]

# What differs from run to run, and what stands for it in a page.
FIXED = {"postTime": 1700000000.75, "clientId": "6F1C1E0B-5A3D-4C56-9B0E-2F7A8D9C4E11", "_startTS": 1699999980,
         "_clientTS": 1699999995.5, "eventTime": 1699999995.5, "StorebagsSize": 4200, "CalculatedMemoryUsage": 4200,
         "ProcessMemoryUsage": 9000000, "Host": "collector.example", "Content-Length": "412"}
EVENT = {"category": 2, "type": 1,
         "payload": {"title": "evening news", "seconds": 1.5, "skipped": 3, "subtitles": True}}


def blocks_of(page, language):
    text = (ROOT / "docs" / page).read_text(encoding="utf-8")
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


def fixed(values):
    return {key: FIXED.get(key, value) for key, value in values.items()}


def json_of(value):
    return json.dumps(value, indent=2, ensure_ascii=False) + "\n"


def body_of(post):
    return json_of({**fixed(post.json), "events": [fixed(record) for record in post.events]})


def payload_of(record):
    """What stands before the context, which begins with _startTS."""
    keys = list(record)
    return {key: record[key] for key in keys[:keys.index("_startTS")]}


class DocumentedExamplesTest(ScratchTest):
    maxDiff = None

    def start(self, name="confero"):
        self.scratch.publish(name, post_path="/events")
        self.scratch.start(environment={"TZ": "CET-1"})

    def report(self, *options):
        run(binary("zunreportingctl"), "--address", self.scratch.address, "send", "--client-name", "player",
            "--service-name", "video", *options, input=json.dumps(EVENT) + "\n")

    def posts_of_a_session(self):
        """Its three posts: the first message, the event, the last message."""
        self.report()
        posts = {post.headers["X-ZUN-Event-Map"]: post for post in (self.scratch.server.next_post() for _ in range(3))}
        return posts["0 0"], posts["2 1"], posts["0 1"]

    def become_internal(self):
        self.scratch.change_plist("root/etc/zunreportingd/device.plist", {"ReleaseType": "Internal"})
        self.expect_error("setStorageClassProtectionLevel: could not set attribute")  # nothing is cached yet

    def keys_in_tables(self):
        cells = re.findall(r"^\| (`[^|]*) \|", (ROOT / "docs/posts.md").read_text(encoding="utf-8"), re.MULTILINE)
        return {key for cell in cells for key in re.findall(r"`([^`]+)`", cell)}

    def test_a_post_is_the_one_in_the_page(self):
        self.start()
        _, post, _ = self.posts_of_a_session()
        headers = "".join(f"{name}: {value}\n" for name, value in fixed(post.headers).items())
        self.assertEqual(blocks_of("posts.md", "http"), [f"POST {post.path} HTTP/1.1\n{headers}"])
        self.assertEqual(blocks_of("posts.md", "json")[0], body_of(post))

    def test_events_of_the_daemons_own_are_those_in_the_page(self):
        self.start()
        start, _, end = self.posts_of_a_session()
        examples = blocks_of("posts.md", "json")
        self.assertEqual(examples[1], json_of(payload_of(start.events[0])))
        self.assertEqual(examples[2], json_of(payload_of(fixed(end.events[0]))))

    def test_the_first_event_of_an_internal_build_is_the_one_in_the_page(self):
        self.become_internal()
        self.start()
        start, _, _ = self.posts_of_a_session()
        self.assertEqual(blocks_of("posts.md", "json")[3], json_of(payload_of(start.events[0])))

    def test_every_key_and_header_stands_in_a_table_of_the_page(self):
        self.become_internal()
        self.start()
        known = self.keys_in_tables() | set(EVENT["payload"]) | {"Host", "Accept-Encoding"}
        for post in self.posts_of_a_session():
            keys = {key.replace("_confero", "_NAME") for record in post.events for key in record}
            self.assertEqual((keys | set(post.json) | set(post.headers)) - known, set())

    def test_the_client_in_python_reports_as_the_page_has_it(self):
        self.start()
        sample = blocks_of("protocol.md", "python")[0].replace(
            "unix:path=/run/zunreportingd/com.vantix.zunreportingd", self.scratch.address)
        outcome = run("/usr/bin/python3", "-c", sample + "print(backends, response)\n")
        self.assertEqual(outcome.stdout, "[['httpPost']] []\n")
        maps = {self.scratch.server.next_post().headers["X-ZUN-Event-Map"] for _ in range(3)}
        self.assertEqual(maps, {"0 0", "901 1", "0 1"})

    def shell(self, commands):
        """Runs lines of a page, with the programs that were built, beside the sources' packaging/."""
        folder = pathlib.Path(self.scratch.path("shell"))
        (folder / "www").mkdir(parents=True)
        (folder / "packaging").symlink_to(ROOT / "packaging")
        for program in ("zunstorebag", "zunreportingctl"):
            (folder / program).symlink_to(binary(program))
        return run("sh", "-e", "-c", f'PATH="{folder}:$PATH"\n{commands}', cwd=folder)

    def test_the_first_session_by_hand_is_as_the_first_page_has_it(self):
        self.start()
        (commands,) = [block for block in blocks_of("../README.md", "sh") if "SOCKET" in block]
        self.assertIn("sent 1 events, 0 failed", self.shell(commands.replace("SOCKET", self.scratch.socket)).stdout)
        posts = [self.scratch.server.next_post() for _ in range(3)]
        self.assertEqual([record["greeting"] for post in posts for record in post.events if "greeting" in record],
                         ["hello"])

    def test_storebags_are_signed_as_the_page_has_it(self):
        commands = blocks_of("storebag.md", "sh")[0].replace("/usr/share/zunreportingd", "www")
        self.assertEqual(self.shell(commands).stderr, "")
        www = pathlib.Path(self.scratch.path("shell/www"))
        self.assertEqual(sorted(path.name for path in www.iterdir()), ["confero", "publicKey.der"])


if __name__ == "__main__":
    unittest.main()
