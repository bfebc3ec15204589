"""A back end that a test scripts."""

import contextlib
import os
import socketserver
import threading


@contextlib.contextmanager
def scripted_back_end(path, answer):
    """Answers each request on this socket with the pieces that the function yields
    for it. Gives the list of the requests."""
    requests = []

    class Handler(socketserver.BaseRequestHandler):
        def handle(self):
            requests.append(self.request.recv(65536))
            with contextlib.suppress(OSError):
                for piece in answer(requests[-1]):
                    self.request.sendall(piece)

    with socketserver.ThreadingUnixStreamServer(str(path), Handler) as server:
        os.chmod(path, 0o666)
        thread = threading.Thread(target=server.serve_forever, args=[0.02])
        thread.start()
        try:
            yield requests
        finally:
            server.shutdown()
            thread.join()
            os.unlink(path)
