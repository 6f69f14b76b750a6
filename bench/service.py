"""The daemon under measurement and the other servers beside it."""

import base64
import contextlib
import ctypes
import json
import os
import pathlib
import re
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TOP / "tests/system"))

from harness.instance import Instance, wait_until  # noqa: E402  (the system tests' private instances)

PR_SET_CHILD_SUBREAPER = 36
SIZE = re.compile(r"^(\w+):\s+(\d+) kB$", re.MULTILINE)
ENVIRONMENT = {"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8", "TZ": "UTC0"}
SHARE_WITHOUT_PROBES = 2  # videos on shares of this type are not opened


def adopt_orphans():
    """From here on request processes, which the daemon disowns, become children of this process when they are orphaned,
    so that their peak of memory can be asked for when they end."""
    if ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "prctl")


def ended_requests(count, seconds=30):
    """Waits for the end of so many adopted request processes; returns their peaks of memory in kB. No other child of this
    process may end meanwhile."""
    peaks = []
    end = time.monotonic() + seconds
    while len(peaks) < count:
        done = os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        if done is not None:
            if done.si_pid in Service.daemons:
                raise RuntimeError("the daemon has died")
            peaks.append(os.wait4(done.si_pid, 0)[2].ru_maxrss)
        elif time.monotonic() > end:
            raise RuntimeError("a request process does not end")
        else:
            time.sleep(0.0005)
    return peaks


class Service:
    """The daemon on a private root. `shares` as (name, path, type)."""

    daemons = set()  # ids of those that run

    def __init__(self, binaries, *shares):
        os.environ["DIRWELL_BUILD"] = str(binaries)
        self.instance = Instance()
        volume = self.instance.root / "volume"
        volume.mkdir()
        self.instance.write_default_volume(volume)
        self.instance.write_shares(*shares)

    def __enter__(self):
        self.instance.start()
        self.daemons.add(self.instance.process.pid)
        return self

    def __exit__(self, *_):
        self.daemons.discard(self.instance.process.pid)
        self.instance.finish()

    @property
    def target(self):
        return ["--socket", str(self.instance.socket)]

    def start_to_first_reply(self, body):
        """Seconds from the start of a daemon to the last byte of the reply to its first request; the daemon is ended."""
        begin = time.monotonic()
        self.instance.launch("--sid", self.instance.sid)
        while True:
            try:
                reply = self.instance.exchange("POST", "/fetch.resource", body)
                break
            except OSError:
                if self.instance.process.poll() is not None:
                    raise RuntimeError(f"the daemon does not start: {self.instance.log()}") from None
                time.sleep(0.0002)
        seconds = time.monotonic() - begin
        if reply.json()["error_code"] != 0:
            raise RuntimeError(f"the first reply is {reply}")
        self.instance.stop()
        return seconds

    def memory(self):
        """Of the idle daemon, in kB: resident, and private to it."""
        text = pathlib.Path(f"/proc/{self.instance.process.pid}/smaps_rollup").read_text()
        sizes = {name: int(size) for name, size in SIZE.findall(text)}
        return {"resident": sizes["Rss"], "private": sizes["Private_Clean"] + sizes["Private_Dirty"]}


def request_body(folder, **keys):
    return json.dumps({"path": [{"full_path": str(folder), "alias": "/Bench"}], **keys}).encode()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@contextlib.contextmanager
def running(command, answers, log):
    """A server, from its first answer on, for the length of a scope."""
    with open(log, "wb") as output:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                   start_new_session=True, env=ENVIRONMENT)
    try:
        if not wait_until(lambda: process.poll() is not None or answers(), 20) or process.poll() is not None:
            raise RuntimeError(f"{command[0]} does not serve: {pathlib.Path(log).read_text()}")
        yield
    finally:
        process.send_signal(signal.SIGTERM)
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def connects(family, address):
    with socket.socket(family) as probe:
        return probe.connect_ex(address) == 0


@contextlib.contextmanager
def rclone_daemon(folder):
    """rclone's remote control over TCP, closed to the other users of the machine; gives the client's options."""
    port = free_port()
    password = secrets.token_hex(16)
    command = ["rclone", "rcd", "--rc-user", "bench", "--rc-pass", password, "--rc-addr", f"127.0.0.1:{port}", "--config",
               f"{folder}/rclone.conf"]
    with running(command, lambda: connects(socket.AF_INET, ("127.0.0.1", port)), f"{folder}/rclone.log"):
        token = base64.b64encode(f"bench:{password}".encode()).decode()
        yield ["--port", str(port), "--header", f"Authorization: Basic {token}"]


@contextlib.contextmanager
def static_server(folder, data):
    """A static server that lists `data` as JSON; gives the client's options."""
    path = pathlib.Path(folder) / "nginx"
    path.mkdir()
    (path / "nginx.conf").write_text(f"""
daemon off;
user root;
worker_processes 1;
pid {path}/pid;
error_log stderr;
events {{}}
http {{
  access_log off;
  client_body_temp_path {path}/body;
  proxy_temp_path {path}/proxy;
  fastcgi_temp_path {path}/fastcgi;
  uwsgi_temp_path {path}/uwsgi;
  scgi_temp_path {path}/scgi;
  server {{
    listen unix:{path}/socket;
    root {data};
    autoindex on;
    autoindex_format json;
  }}
}}
""")
    nginx = shutil.which("nginx") or "/usr/sbin/nginx"
    command = [nginx, "-p", str(path), "-e", "stderr", "-c", f"{path}/nginx.conf"]
    with running(command, lambda: connects(socket.AF_UNIX, f"{path}/socket"), f"{path}/log"):
        yield ["--socket", f"{path}/socket"]
