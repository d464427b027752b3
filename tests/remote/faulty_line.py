"""A line to an HTTP server that fails as it is told: every request goes to the server behind it, but for faults."""
import http.client
import http.server
import json
import threading
import time


class FaultyLine:
    """Listens on a port of its own. `fault` is a function (method, path, seconds) -> one of None, a number (the
    status to answer with), "cut" (the connection ends in the middle of the body), "hang" (no answer), or
    ("late", seconds): what is newer is left out of listings. `delay`: seconds before each answer."""

    def __init__(self, host, port):
        self.server_behind = (host, port)
        self.fault = lambda method, path: None
        self.delay = 0.0
        self.requests = 0
        self.failed = 0
        line = self

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def handle_any(self):
                line.pass_on(self)

            do_GET = do_PUT = do_POST = do_HEAD = do_DELETE = do_COPY = handle_any

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            daemon_threads = True

            def handle_error(self, *_):
                pass

        self.server = Server(("127.0.0.1", 0), Handler)
        self.port = self.server.server_address[1]
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def pass_on(self, request):
        self.requests += 1
        fault = self.fault(request.command, request.path)
        body = self.body_of(request)
        if self.delay:
            time.sleep(self.delay)
        if fault == "hang":
            self.failed += 1
            time.sleep(3600)
        if isinstance(fault, int):
            self.failed += 1
            request.send_response(fault)
            request.send_header("Content-Length", "0")
            request.end_headers()
            return
        if fault == "cut" and request.command == "PUT":
            self.failed += 1
            request.close_connection = True
            return
        connection = http.client.HTTPConnection(*self.server_behind, timeout=60)
        connection.request(request.command, request.path, body, dict(request.headers))
        answer = connection.getresponse()
        content = answer.read()
        connection.close()
        if isinstance(fault, tuple) and "format=json" in request.path:
            self.failed += 1
            content = self.without_newer(content, fault[1])
        self.answer(request, answer, content, fault == "cut")

    @staticmethod
    def body_of(request):
        if request.headers.get("Transfer-Encoding", "") == "chunked":
            body = b""
            while size := int(request.rfile.readline().split(b";")[0], 16):
                body += request.rfile.read(size)
                request.rfile.readline()
            request.rfile.readline()
            del request.headers["Transfer-Encoding"]
            return body
        length = int(request.headers.get("Content-Length") or 0)
        return request.rfile.read(length) if length else None

    def answer(self, request, answer, content, cut):
        request.send_response(answer.status)
        for name, value in answer.getheaders():
            if name.lower() not in ("transfer-encoding", "content-length", "connection", "date"):
                request.send_header(name, value)
        length = answer.getheader("Content-Length") if request.command == "HEAD" else str(len(content))
        if length is not None and answer.status != 204:
            request.send_header("Content-Length", length)
        request.end_headers()
        if request.command == "HEAD":
            return
        if cut and len(content) > 1:
            self.failed += 1
            request.wfile.write(content[: len(content) // 2])
            request.wfile.flush()
            request.connection.close()
            request.close_connection = True
            return
        request.wfile.write(content)

    @staticmethod
    def without_newer(content, seconds):
        entries = json.loads(content or b"[]")
        now = time.time()

        def age(entry):
            text = entry.get("last_modified", "1970-01-01T00:00:00").split(".")[0]
            return now - (time.mktime(time.strptime(text, "%Y-%m-%dT%H:%M:%S")) - time.timezone)

        return json.dumps([entry for entry in entries if age(entry) > seconds]).encode()
