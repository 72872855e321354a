"""Test downloads, a server on 127.0.0.1 that sends them slowly, and a function that waits for a condition."""

import functools
import random
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

SIZE = 2_000_000


def wait_for(condition, what, seconds=30):
    """Waits until `condition` is true. Raises TimeoutError with the text `what` after `seconds`."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError(f"waited {seconds} s for {what}")
        time.sleep(0.02)


@functools.cache
def content_of(name):
    """Returns the bytes of the download `name`. They differ between names and are the same in every run."""
    return random.Random(name).randbytes(SIZE)


class _Answer(BaseHTTPRequestHandler):
    """GET /PACE/.../NAME sends NAME as an attachment. PACE is "fast" (at once), "steady" (40 pieces, 50 ms apart) or
    "pausing" (one half, a pause of 1.5 s, the other half). A path without a folder returns an empty page."""

    def do_GET(self):
        if not self.server.may_answer():
            self.send_error(503)
            return
        *folders, name = self.path[1:].split("/")
        body = content_of(name) if folders else b"<!DOCTYPE html><title>Downloads</title>"
        pieces, seconds = {"steady": (40, 0.05), "pausing": (2, 1.5)}.get("".join(folders[:1]), (1, 0))
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        if folders:
            self.send_header("Content-Type", "application/octet-stream")
            self.send_header("Content-Disposition", f'attachment; filename="{name}"')
        else:
            self.send_header("Content-Type", "text/html")
        self.end_headers()
        step = -(-len(body) // pieces)
        try:
            for start in range(0, len(body), step):
                if start:
                    time.sleep(seconds)
                self.wfile.write(body[start:start + step])
                self.server.sent[self.path] = start + step
        except ConnectionError:
            pass  # the client has cancelled the download

    def log_message(self, *_):
        """Prints nothing."""


class DownloadServer(ThreadingHTTPServer):
    """Answers requests in background threads until shutdown(). Answers 500 requests and refuses all later ones."""

    daemon_threads = True

    def __init__(self):
        super().__init__(("127.0.0.1", 0), _Answer)
        self.sent = {}  # number of bytes sent, by path
        self._left = 500
        self._lock = threading.Lock()
        threading.Thread(target=self.serve_forever, kwargs={"poll_interval": 0.05}, daemon=True).start()

    def may_answer(self):
        with self._lock:
            self._left -= 1
            return self._left >= 0

    def url(self, path="/"):
        return f"http://127.0.0.1:{self.server_port}{path}"
