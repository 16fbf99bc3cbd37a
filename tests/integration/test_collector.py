"""The server to develop against, as a process."""

import os
import signal
import subprocess
import tempfile
import unittest

from harness import DEADLINE, Authority, binary


def with_pending_stop():
    """The program starts with a SIGTERM that it has not yet been told of."""
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
    os.kill(os.getpid(), signal.SIGTERM)


class CollectorTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="zun-collector-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.authority = Authority(self.folder)

    def collect(self, **changes):
        options = {"cert": self.authority.certificate, "key": self.authority.key, "storebags": self.folder}
        options.update(changes)
        arguments = [text for name, value in options.items() for text in (f"--{name}", value)]
        return subprocess.run([binary("zuncollector"), *arguments], capture_output=True, text=True,
                              timeout=DEADLINE, check=False, preexec_fn=with_pending_stop)

    def test_stop_that_comes_before_it_listens_still_ends_it(self):
        result = self.collect()
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("posts 0\n", result.stdout)

    def test_output_that_cannot_be_written_is_told_at_the_start(self):
        result = self.collect(output=os.path.join(self.folder, "missing", "events"))
        self.assertEqual(result.returncode, 1)
        self.assertIn("zuncollector: cannot write to", result.stderr)

    def test_key_that_does_not_belong_to_the_certificate_is_told_at_the_start(self):
        result = self.collect(key=Authority(self.folder, "other").key)
        self.assertEqual(result.returncode, 1)
        self.assertIn("zuncollector: cannot use the certificate", result.stderr)


if __name__ == "__main__":
    unittest.main()
