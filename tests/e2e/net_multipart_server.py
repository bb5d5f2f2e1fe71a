#!/usr/bin/env python3
"""A one-shot HTTP server on 127.0.0.1 that nobody on this project wrote.

It accepts one POST with the standard library's http.server, parses its
multipart/form-data body with the standard library's email parser, and writes
what it understood into a directory, one file per item, so that a test can
compare bytes without any parsing of its own:

  OUT/request-line      the request line as http.server read it
  OUT/host              the Host header
  OUT/content-length    the Content-Length header
  OUT/content-type      the Content-Type header
  OUT/parts             the number of parts found
  OUT/field-<name>      the value of each plain form field
  OUT/file-<n>          the content of the n-th file part (from 1)
  OUT/filename-<n>      its filename parameter
  OUT/fieldname-<n>     its name parameter
  OUT/done              written last

It answers 200 and exits 0; it exits 1 when no request came within the
timeout.

usage: net_multipart_server.py PORT_FILE OUT_DIR [TIMEOUT_SECONDS]
"""

import email.parser
import http.server
import os
import sys


def write(out_dir, name, data):
    if isinstance(data, str):
        data = data.encode("latin-1")
    with open(os.path.join(out_dir, name), "wb") as f:
        f.write(data)


class Handler(http.server.BaseHTTPRequestHandler):
    out_dir = "."

    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0"))
        body = self.rfile.read(length)
        content_type = self.headers.get("Content-Type", "")
        out = Handler.out_dir
        write(out, "request-line", self.requestline)
        write(out, "host", self.headers.get("Host", ""))
        write(out, "content-length", str(length))
        write(out, "content-type", content_type)
        document = b"Content-Type: " + content_type.encode("latin-1") + b"\r\n\r\n" + body
        message = email.parser.BytesParser().parsebytes(document)
        parts = message.get_payload() if message.is_multipart() else []
        write(out, "parts", str(len(parts)))
        files = 0
        for part in parts:
            name = part.get_param("name", header="content-disposition")
            filename = part.get_param("filename", header="content-disposition")
            payload = part.get_payload(decode=True) or b""
            if filename is None:
                write(out, "field-" + name, payload)
            else:
                files += 1
                write(out, "file-%d" % files, payload)
                write(out, "filename-%d" % files, filename)
                write(out, "fieldname-%d" % files, name or "")
        answer = b"stored\n"
        self.send_response(200)
        self.send_header("Content-Type", "text/plain")
        self.send_header("Content-Length", str(len(answer)))
        self.end_headers()
        self.wfile.write(answer)
        write(out, "done", "")

    def log_message(self, format, *args):
        sys.stderr.write("net_multipart_server: " + (format % args) + "\n")


def main():
    port_file, out_dir = sys.argv[1], sys.argv[2]
    timeout = float(sys.argv[3]) if len(sys.argv) > 3 else 30.0
    Handler.out_dir = out_dir
    server = http.server.HTTPServer(("127.0.0.1", 0), Handler)
    server.timeout = timeout
    with open(port_file + ".tmp", "w") as f:
        f.write("%d\n" % server.server_address[1])
    os.rename(port_file + ".tmp", port_file)
    server.handle_request()
    server.server_close()
    return 0 if os.path.exists(os.path.join(out_dir, "done")) else 1


if __name__ == "__main__":
    sys.exit(main())
