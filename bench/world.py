# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""Everything that is measured, and what it needs around it, in the sandbox."""

import contextlib
import glob
import os
import resource
import socket
import subprocess
import sys
import time

import content

PROJECT = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, os.path.join(PROJECT, "tests", "support"))

# pylint: disable=wrong-import-position
import daemon_process
import pki
from bus import PrivateBus
from bus_client import BusClient, LoopThread

FOLDER = "/tmp/bench"
AUTHORITY = "/run/pki"
CERTIFICATES = "/etc/ssl/certs/ca-certificates.crt"

HOST = "cloud.vantrel.example"
# Nobody answers the question for its address.
DEAD_HOST = "dead.vantrel.example"
HTTP_1 = "https://%s:8443/v1/" % HOST
HTTP_2 = "https://%s/v1/" % HOST
FRESH = "https://%s:9443/v1/" % HOST  # closes after each answer
PROXY = "http://127.0.0.1:8080/v1/"
DEAD = "https://%s/v1/" % DEAD_HOST
HELD = "held"
HELD_BODY = '{"held": true}'

ECHO = "org.vantrel.bench.Echo"
PYTHON = "org.vantrel.bench.Python"

TOKEN = "bench-access-token"

CLOUD_CONFIG = """
load_module /usr/lib/nginx/modules/ngx_http_echo_module.so;
%(process)s
http {
  %(http)s
  ssl_certificate %(cloud_certificate)s;
  ssl_certificate_key %(cloud_key)s;
  map $http_authorization $refused { default 1; "Bearer %(token)s" 0; }
  server {
    listen 127.0.0.1:443 ssl;
    ssl_certificate %(identity_certificate)s;
    ssl_certificate_key %(identity_key)s;
    location = /o/oauth2/token {
      return 200 '{"access_token": "%(token)s", "expires_in": 3600}';
    }
  }
  server {
    listen 127.0.0.2:443 ssl http2 backlog=4096;
    listen 127.0.0.2:8443 ssl backlog=4096;
    include %(folder)s/locations.conf;
  }
  server {
    listen 127.0.0.2:9443 ssl;
    keepalive_timeout 0;
    include %(folder)s/locations.conf;
  }
}
"""

LOCATIONS = """
if ($refused) { return 401; }
location /v1/ { alias %(folder)s/content/; }
location = /v1/%(held)s { echo_sleep 5; echo '%(held_body)s'; }
"""

PROXY_CONFIG = """
%(process)s
http {
  %(http)s
  upstream cloud { server 127.0.0.2:8443; keepalive 512; }
  server {
    listen 127.0.0.1:8080 backlog=4096;
    location / {
      proxy_pass https://cloud;
      proxy_http_version 1.1;
      proxy_set_header Connection "";
      proxy_set_header Host %(host)s;
      proxy_set_header Authorization "Bearer %(token)s";
      proxy_ssl_verify on;
      proxy_ssl_trusted_certificate %(certificates)s;
      proxy_ssl_name %(host)s;
      proxy_ssl_server_name on;
    }
  }
}
"""

PROCESS = """
user root; daemon off; master_process off; error_log stderr error;
pid %(folder)s/%(name)s.pid;
events { worker_connections 16384; }
"""

HTTP = """
  access_log off; default_type application/json;
  client_body_temp_path %(folder)s/%(name)s-1;
  proxy_temp_path %(folder)s/%(name)s-2;
  fastcgi_temp_path %(folder)s/%(name)s-3;
  uwsgi_temp_path %(folder)s/%(name)s-4;
  scgi_temp_path %(folder)s/%(name)s-5;
  open_file_cache max=10;
  # A connection is kept as long as a benchmark lasts.
  keepalive_requests 1000000000; keepalive_timeout 1h;
"""


def wait_until_listening(address, port, deadline_s=10):
    end = time.monotonic() + deadline_s
    while True:
        with contextlib.suppress(ConnectionRefusedError):
            socket.create_connection((address, port), 1).close()
            return
        if time.monotonic() > end:
            raise TimeoutError("nobody listens at %s:%d" % (address, port))
        time.sleep(0.01)


class World:
    """The bus, the cloud and all that is measured beside the daemon."""

    def __init__(self, programs):
        self.programs = programs  # the folder of the compiled ones
        self.bodies = {}  # name of the size -> (sent, compact)
        self._stack = contextlib.ExitStack()
        self._client = None

    def __enter__(self):
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
        self._write_files()
        bus = self._stack.enter_context(PrivateBus())
        loop = LoopThread()
        self._stack.callback(loop.stop)
        self._client = BusClient(loop, bus.address, lambda _: None)
        self._stack.callback(self._client.close)
        return self

    def __exit__(self, *error):
        return self._stack.__exit__(*error)

    def _write_files(self):
        os.makedirs(FOLDER + "/content")
        for name, size in content.SIZES.items():
            self.bodies[name] = content.make(size)
            for suffix, text in zip(("json", "compact"), self.bodies[name]):
                with open(self.body_file(name, suffix), "wb") as file:
                    file.write(text)
        # As many authorities as a device trusts: to read them takes its time.
        with open(CERTIFICATES, "ab") as bundle:
            for path in sorted(glob.glob(
                    "/usr/share/ca-certificates/mozilla/*.crt")):
                with open(path, "rb") as file:
                    bundle.write(file.read())
        files = daemon_process.Files
        files.clear()
        files.write(daemon_process.CONFIG, (
            "SMARTHOME_CLIENT_ID=client\nSMARTHOME_CLIENT_SECRET=secret\n"
            "SMARTHOME_SCOPE=scope\n"))
        files.write(daemon_process.REFRESH_TOKEN, "bench-refresh-token")
        files.write(daemon_process.ENDPOINTS, HTTP_2 + "," + DEAD)

    @staticmethod
    def body_file(name, suffix):
        return "%s/content/%s.%s" % (FOLDER, name.replace(" ", ""), suffix)

    @staticmethod
    def url(start, name):
        """The URL of the body of that size."""
        return start + name.replace(" ", "") + ".json"

    def _nginx(self, name, config, address, port, **more):
        values = {"folder": FOLDER, "name": name, "host": HOST, "token": TOKEN,
                  "certificates": CERTIFICATES, "held": HELD,
                  "held_body": HELD_BODY, **more}
        values.update(process=PROCESS % values, http=HTTP % values)
        with open("%s/locations.conf" % FOLDER, "w", encoding="ascii") as file:
            file.write(LOCATIONS % values)
        path = "%s/%s.conf" % (FOLDER, name)
        with open(path, "w", encoding="ascii") as file:
            file.write(config % values)
        process = self.start(["/usr/sbin/nginx", "-e", "stderr", "-c", path])
        wait_until_listening(address, port)
        return process

    def start_cloud(self):
        values = {}
        for label, host in (("cloud", HOST),
                            ("identity", "identity.vantrel.example")):
            certificate, key = pki.issue(AUTHORITY, FOLDER, label, [host])
            values.update({label + "_certificate": certificate,
                           label + "_key": key})
        return self._nginx("cloud", CLOUD_CONFIG, "127.0.0.2", 443, **values)

    def start_proxy(self):
        return self._nginx("proxy", PROXY_CONFIG, "127.0.0.1", 8080)

    def start(self, command, name=None):
        """Starts a process that ends with the world.

        With `name`, returns when that is owned on the bus.
        """
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL)

        def stop():
            process.terminate()
            process.wait()
        self._stack.callback(stop)
        if name:
            self._client.wait(
                lambda: self._client.owner(name) or process.poll() is not None,
                name)
            assert process.poll() is None, "%s ended" % command
        return process

    def start_echo(self, size):
        """The bare service for one size of body; returns its name."""
        name = ECHO + size.replace(" ", "")
        self.start([self.programs + "/bench/echo_service", name,
                    self.body_file(size, "compact")], name)
        return name

    def start_python(self):
        return self.start(["/usr/bin/python3",
                           PROJECT + "/bench/python_daemon.py", PYTHON, TOKEN,
                           HTTP_2], PYTHON)

    @contextlib.contextmanager
    def daemon(self, program):
        """A fresh daemon that has its access token, for as long as needed."""
        syslog = daemon_process.Syslog()
        daemon = daemon_process.Daemon(program, self._client, syslog,
                                       lambda *_: None)
        daemon.start()
        try:
            daemon.wait_for_log("INFO",
                                "Successfully fetched access token: 200")
            yield daemon
        finally:
            if daemon.running():
                daemon.stop()
            syslog.close()


class Memory:
    """What a process takes of the memory, in KiB."""

    def __init__(self, pid):
        values = {}
        for path in ("smaps_rollup", "status"):
            with open("/proc/%d/%s" % (pid, path), encoding="ascii") as file:
                for line in file:
                    words = line.split()
                    if words[-1] == "kB":
                        values[words[0].rstrip(":")] = int(words[1])
        self.resident = values["Rss"]
        self.private_dirty = values["Private_Dirty"]
        self.most = values["VmHWM"]

    def as_dict(self):
        return {"resident_kib": self.resident, "most_kib": self.most,
                "private_dirty_kib": self.private_dirty}


def switches(pid):
    """How often the threads of a process have left the processor so far."""
    count = 0
    for path in glob.glob("/proc/%d/task/*/status" % pid):
        with open(path, encoding="ascii") as file:
            count += sum(int(line.split()[1]) for line in file
                         if "ctxt_switches" in line)
    return count


def _bind_all(processors):
    """Has everything in the sandbox run on these processors alone."""
    for path in glob.glob("/proc/[0-9]*/task/[0-9]*"):
        # It may have ended meanwhile.
        with contextlib.suppress(ProcessLookupError):
            os.sched_setaffinity(int(os.path.basename(path)), processors)


@contextlib.contextmanager
def one_processor():
    """One processor for everybody, and for what they start meanwhile."""
    processors = os.sched_getaffinity(0)
    _bind_all({max(processors)})
    try:
        yield
    finally:
        _bind_all(processors)
