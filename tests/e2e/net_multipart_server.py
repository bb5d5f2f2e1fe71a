#!/usr/bin/env python3
"""A one-shot HTTP server on 127.0.0.1 that nobody on this project wrote.

It takes one POST with the standard library's http.server, parses its
multipart/form-data body with the standard library's email parser, and writes
what it understood into OUT_DIR, one file per item, for a test to compare:
request-line, host, content-type, parts (their number), field-<name> for each
plain field, file-<n> and filename-<n> for the n-th file part, done (last).
It answers 200 and exits 0, or 1 when no request came within the timeout.

usage: net_multipart_server.py PORT_FILE OUT_DIR [TIMEOUT_SECONDS]
"""

import email.parser
import http.server
import os
import sys


def write(name, data):
    with open(os.path.join(sys.argv[2], name), "wb") as f:
        f.write(data.encode("latin-1") if isinstance(data, str) else data)


class Handler(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0")))
        content_type = self.headers.get("Content-Type", "")
        write("request-line", self.requestline)
        write("host", self.headers.get("Host", ""))
        write("content-type", content_type)
        document = b"Content-Type: " + content_type.encode("latin-1") + b"\r\n\r\n" + body
        message = email.parser.BytesParser().parsebytes(document)
        parts = message.get_payload() if message.is_multipart() else []
        write("parts", str(len(parts)))
        files = 0
        for part in parts:
            name = part.get_param("name", header="content-disposition")
            filename = part.get_param("filename", header="content-disposition")
            payload = part.get_payload(decode=True) or b""
            if filename is None:
                write("field-" + name, payload)
            else:
                files += 1
                write("file-%d" % files, payload)
                write("filename-%d" % files, filename)
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", "7")
        self.end_headers()
        self.wfile.write(b"stored\n")
        write("done", "")

    def log_message(self, format, *args):
        sys.stderr.write("net_multipart_server: " + (format % args) + "\n")


def main():
    server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
    server.timeout = float(sys.argv[3]) if len(sys.argv) > 3 else 30.0
    with open(sys.argv[1] + ".tmp", "w") as f:
        f.write("%d\n" % server.server_address[1])
    os.rename(sys.argv[1] + ".tmp", sys.argv[1])
    server.handle_request()
    server.server_close()
    return 0 if os.path.exists(os.path.join(sys.argv[2], "done")) else 1


if __name__ == "__main__":
    sys.exit(main())
