"""Which includes scripts/check-layers refuses."""

import pathlib
import subprocess
import tempfile
import unittest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts" / "check-layers"


class CheckLayersTest(unittest.TestCase):
    def check(self, files):
        with tempfile.TemporaryDirectory() as root:
            for name in ("src", "client"):
                (pathlib.Path(root) / name).mkdir()
            for name, text in files.items():
                path = pathlib.Path(root) / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text, encoding="utf-8")
            result = subprocess.run([SCRIPT, root], capture_output=True, text=True, check=False)
            return result.returncode, result.stdout

    def assert_refused(self, path, include, why):
        self.assertEqual(self.check({path: f"\n#include {include}\n"}), (1, f"{path}:2: {why}\n"))

    def assert_accepted(self, path, include):
        self.assertEqual(self.check({path: f"#include {include}\n"}), (0, "layers: includes run one way\n"))

    def test_includes_run_down_the_order(self):
        self.assert_accepted("src/session/A.cpp", '"values/Value.h"')
        self.assert_accepted("src/session/A.cpp", '"session/B.h"')
        self.assert_refused("src/values/A.cpp", '"session/B.h"', "values/ may not include session/B.h")

    def test_linux_is_known_to_what_starts_programs_alone(self):
        self.assert_accepted("src/daemon/main.cpp", '"linux/loop/EventLoop.h"')
        self.assert_refused("src/daemon/Lifetime.cpp", '"linux/loop/EventLoop.h"',
                            "only what starts programs may include linux/loop/EventLoop.h")
        self.assert_accepted("src/linux/dbus/A.cpp", '"linux/files/B.h"')
        self.assert_refused("src/linux/files/A.cpp", '"linux/dbus/B.h"', "linux/files/ may not include linux/dbus/B.h")
        self.assert_refused("src/linux/files/A.cpp", '"util/B.h"', "linux/ may not include util/B.h")

    def test_an_include_cannot_hide_where_it_leads(self):
        for hidden in ("../daemon/B.h", "values/../daemon/B.h", "B.h"):
            self.assert_refused("src/values/A.cpp", f'"{hidden}"', f"{hidden} does not begin with its folder")

    def test_headers_of_the_system_and_of_libraries_belong_to_their_folders(self):
        for header in ("pthread.h", "sched.h", "signal.h", "dirent.h", "net/if.h", "sys/stat.h", "curl/curl.h", "unistd.h"):
            self.assert_refused("src/values/A.cpp", f"<{header}>", f"{header} belongs in linux/")
            self.assert_accepted("src/linux/files/A.cpp", f"<{header}>")
        self.assert_refused("src/util/A.cpp", "<expat.h>", "expat.h belongs in values/")
        self.assert_accepted("src/values/A.cpp", "<expat.h>")

    def test_the_client_library_stands_alone(self):
        self.assert_refused("client/A.cpp", '"values/Value.h"', "client/ includes nothing of src/")
        self.assert_refused("src/platform/A.h", '"zunreporting/session.h"', "platform/ knows nothing of the client library")
        self.assert_accepted("src/platform/A.h", '"zunreporting/kodo_adaptor.h"')
        self.assert_accepted("src/util/A.h", '"zunreporting/session.h"')

    def test_every_file_has_a_folder_of_the_tree(self):
        for path in ("src/other/A.cpp", "src/linux/A.cpp", "src/linux/other/A.cpp"):
            self.assertEqual(self.check({path: ""})[0], 1)


if __name__ == "__main__":
    unittest.main()
