# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: The cloud_action_daemon authors
"""A cloud on the loopback network: http_server.py PORT. Answers every GET with
a JSON object that holds the path."""

import http.server
import json
import sys


class Handler(http.server.BaseHTTPRequestHandler):
    """Answers one request."""

    def do_GET(self):
        """The object."""
        body = json.dumps({"path": self.path}).encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format, *args):  # pylint: disable=redefined-builtin
        """Nothing."""


server = http.server.HTTPServer(("", int(sys.argv[1])), Handler)
print("ready", flush=True)
server.serve_forever()
