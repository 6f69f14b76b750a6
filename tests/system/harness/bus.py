"""Clients of the bus: HTTP over a UNIX stream socket, with the standard library alone."""

import http.client
import json
import socket


def connect(path, timeout=30):
    """A connected stream socket; the caller closes it."""
    connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    connection.settimeout(timeout)
    try:
        connection.connect(str(path))
    except OSError:
        connection.close()
        raise
    return connection


class HTTPConnection(http.client.HTTPConnection):
    """http.client over the socket of an instance."""

    def __init__(self, path, timeout=30):
        super().__init__("localhost", timeout=timeout)
        self.path = path

    def connect(self):
        self.sock = connect(self.path, self.timeout)


class Reply:
    """One HTTP response."""

    def __init__(self, status, headers, body):
        self.status = status
        self.headers = headers  # names in lower case
        self.body = body

    @property
    def content_type(self):
        return self.headers.get("content-type")

    def json(self):
        return parse_json(self.body)

    def __repr__(self):
        return f"Reply({self.status}, {self.headers}, {self.body[:400]!r})"


def parse_json(body):
    """Strict JSON: well-formed UTF-8, no key twice, no NaN. Objects keep the order of their keys."""

    def pairs(items):
        keys = [key for key, _ in items]
        assert len(keys) == len(set(keys)), f"a key stands twice: {keys}"
        return dict(items)

    def constant(name):
        raise AssertionError(f"{name} is no JSON")

    return json.loads(body.decode("utf-8"), object_pairs_hook=pairs, parse_constant=constant)


def exchange(path, method, target, body=None, headers=None, timeout=30):
    """One request on a connection of its own."""
    connection = HTTPConnection(path, timeout)
    try:
        connection.request(method, target, body=body, headers=headers or {})
        response = connection.getresponse()
        return Reply(response.status, {k.lower(): v for k, v in response.getheaders()}, response.read())
    finally:
        connection.close()


class RawConnection:
    """A connection whose bytes the test itself chooses."""

    def __init__(self, path, timeout=30):
        self.socket = connect(path, timeout)
        self.buffer = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def close(self):
        self.socket.close()

    def send(self, data):
        self.socket.sendall(data)

    def end_sending(self):
        self.socket.shutdown(socket.SHUT_WR)

    def _more(self):
        """Reads on; False at the end of the stream."""
        try:
            data = self.socket.recv(65536)
        except ConnectionResetError:
            return False
        self.buffer += data
        return bool(data)

    def _line(self):
        while b"\r\n" not in self.buffer:
            assert self._more(), f"the stream ends inside a line: {self.buffer!r}"
        line, _, self.buffer = self.buffer.partition(b"\r\n")
        return line

    def _bytes(self, count):
        while len(self.buffer) < count:
            assert self._more(), f"the stream ends {count - len(self.buffer)} bytes early"
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def response(self):
        """The next response of the stream."""
        version, status, _ = self._line().split(b" ", 2)
        assert version == b"HTTP/1.1"
        headers = {}
        while True:
            line = self._line()
            if not line:
                break
            name, _, value = line.partition(b":")
            headers[name.decode("ascii").lower()] = value.strip().decode("latin-1")
        code = int(status)
        if code < 200 or code in (204, 304):
            body = b""
        elif headers.get("transfer-encoding", "").lower() == "chunked":
            body = b""
            while True:
                size = int(self._line().split(b";")[0], 16)
                body += self._bytes(size)
                assert self._line() == b""
                if size == 0:
                    break
        elif "content-length" in headers:
            body = self._bytes(int(headers["content-length"]))
        else:
            body = self.rest()
        return Reply(code, headers, body)

    def rest(self):
        """Everything up to the end of the stream."""
        while self._more():
            pass
        data, self.buffer = self.buffer, b""
        return data

    def at_end(self):
        """Whether the other side has closed and nothing is left to read."""
        return not self.buffer and not self._more()

    def silent_for(self, seconds):
        """Whether nothing arrives, not even the end, for that long."""
        if self.buffer:
            return False
        before = self.socket.gettimeout()
        self.socket.settimeout(seconds)
        try:
            self._more()
            return False
        except TimeoutError:
            return True
        finally:
            self.socket.settimeout(before)
