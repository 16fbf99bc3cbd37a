"""nginx as the storebag server: genuine conditional requests, and its own access log as witness."""

import os
import re
import subprocess
import unittest

from harness import ScratchTest, wait_until

CONFIGURATION = """
daemon off;
master_process off;
pid {folder}/nginx.pid;
error_log {folder}/nginx-error.log;
events {{ worker_connections 64; }}
http {{
  log_format plain '$request_method $uri $args $status "$http_if_modified_since"';
  access_log {folder}/nginx-access.log plain;
  client_body_temp_path {folder}/nginx-temp; proxy_temp_path {folder}/nginx-temp;
  fastcgi_temp_path {folder}/nginx-temp; uwsgi_temp_path {folder}/nginx-temp; scgi_temp_path {folder}/nginx-temp;
  server {{
    listen 127.0.0.1:{port} ssl;
    ssl_certificate {certificate};
    ssl_certificate_key {key};
    root {folder}/storebags;
    default_type application/octet-stream;
    add_header Cache-Control "max-age={max_age}";
  }}
}}
"""


class NginxStorebagServerTest(ScratchTest):
    def start_nginx(self, max_age):
        import socket
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        path = self.scratch.path("nginx.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.write(CONFIGURATION.format(folder=self.scratch.folder, port=port, max_age=max_age,
                                            certificate=self.scratch.authority.certificate,
                                            key=self.scratch.authority.key))
        os.makedirs(self.scratch.path("nginx-temp"), exist_ok=True)
        nginx = subprocess.Popen(["/usr/sbin/nginx", "-c", path, "-e", self.scratch.path("nginx-error.log")],
                                 stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: (nginx.terminate(), nginx.communicate()))

        def listening():
            self.assertIsNone(nginx.poll(), "nginx ended")
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return True
            except OSError:
                return False

        wait_until(listening, "nginx listens")
        self.scratch.set_defaults("com.vantix.zunreporting",
                                  {"zunreporting_storebag_url": f"https://localhost:{port}"})

    def access_log(self):
        with open(self.scratch.path("nginx-access.log"), encoding="utf-8") as file:
            return [line.strip() for line in file]

    def test_expired_cache_is_refreshed_with_a_conditional_request_that_nginx_answers_304(self):
        self.scratch.publish()
        self.start_nginx(max_age=0)
        self.scratch.start()
        event = {"category": 2, "type": 7, "payload": {"a": 1}}
        self.scratch.send([event])
        self.assertRegex(self.access_log()[0], r'^GET /confero version=3\.2\.1 200 "-"$')

        self.scratch.daemon.stop()
        self.scratch.start()
        self.scratch.send([event])
        wait_until(lambda: any(" 304 " in line for line in self.access_log()), "a 304 in nginx's log")
        line = next(line for line in self.access_log() if " 304 " in line)
        self.assertRegex(line, r'^GET /confero version=3\.2\.1 304 "[A-Z][a-z]{2}, .* GMT"$')
        print("nginx:", line)
        self.scratch.daemon.wait_for_line("storebag 'confero' loaded from disk cache. Disk cache expired and will be "
                                          "refreshed")
        self.scratch.daemon.wait_for_line("fetchNetworkStorebag: storebag 'confero' does not need update as its "
                                          "content has not changed on the server")

    def test_fresh_cache_asks_nothing(self):
        self.scratch.publish()
        self.start_nginx(max_age=3600)
        self.scratch.start()
        event = {"category": 2, "type": 7}
        self.scratch.send([event])
        self.scratch.daemon.stop()
        self.scratch.start()
        self.scratch.send([event])
        self.scratch.daemon.stop()
        self.assertEqual(len(self.access_log()), 1)


if __name__ == "__main__":
    unittest.main()
