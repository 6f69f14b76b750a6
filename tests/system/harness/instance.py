"""A private instance of the real daemon: its root, its session, its configuration, its life and its log."""

import contextlib
import os
import pathlib
import pwd
import re
import shutil
import signal
import subprocess
import tempfile
import time
import uuid

from . import bus

TOP = pathlib.Path(__file__).resolve().parents[3]
SANITIZER = re.compile(r"AddressSanitizer|LeakSanitizer|UndefinedBehaviorSanitizer|ThreadSanitizer|runtime error:")
# What the tested programs are told besides their own environment: settings of sanitizers, where counters are kept.
PASSED_ON = {name: os.environ[name]
             for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS", "LSAN_OPTIONS", "TSAN_OPTIONS", "GCOV_PREFIX")
             if name in os.environ}
if "GCOV_PREFIX" in PASSED_ON and "PYTEST_XDIST_WORKER" in os.environ:
    # Processes wait for one another at a file of counters, so each worker's have their own.
    PASSED_ON["GCOV_PREFIX"] += "/" + os.environ["PYTEST_XDIST_WORKER"]

# Lets a crash be the system's own where a sanitizer would report and end it.
PLAIN_CRASHES = {name: ":".join(filter(None, (os.environ.get(name), "handle_segv=0")))
                 for name in ("ASAN_OPTIONS", "TSAN_OPTIONS")}


def binary_folder():
    folder = pathlib.Path(os.environ.get("DIRWELL_BUILD") or TOP / "build" / "release")
    return folder if folder.is_absolute() else TOP / folder


def build_setting(name):
    """What the tested programs were built with; empty where the folder does not say."""
    cache = binary_folder() / "CMakeCache.txt"
    found = re.search(rf"^{name}:\w+=(.*)$", cache.read_text(), re.MULTILINE) if cache.exists() else None
    return found[1] if found else ""


def wait_until(condition, seconds=10, interval=0.01):
    """The first true value of `condition`, or the last false one once the time is over."""
    end = time.monotonic() + seconds
    while True:
        value = condition()
        if value or time.monotonic() > end:
            return value
        time.sleep(interval)


class Instance:
    """Nothing runs before start(). Close with finish(), which fails when anything is left behind."""

    alive_instances = set()

    def __init__(self, user="root"):
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="dirwell-"))
        self.root.chmod(0o755)  # a session user that is not root reads the configuration
        self.sid = uuid.uuid4().hex[:12]  # unique: it finds the processes of this instance
        self.binary = binary_folder() / "dirwell"
        self.client = binary_folder() / "dirwellctl"
        self.share = self.root / "share"
        self.share.mkdir()
        self.share.chmod(0o755)
        self.log_path = self.root / "log"
        self.process = None
        self.handed_over = ()  # descriptors that the daemon inherits beside the standard ones
        self.run_as = {}  # whose process the daemon is; root's where nothing is said
        self.wrapper = []  # a command in front of the daemon's own, which becomes the daemon
        self.end_expected = False
        self.leftovers_expected = False  # a daemon that was killed cannot tidy up
        self.grace = 3  # seconds that request processes may outlive the daemon
        self.environment = {"PATH": "/usr/bin:/bin", "DIRWELL_ROOT": str(self.root), "TZ": "UTC0", **PASSED_ON}
        self.write_session(user)

    # --- Files under the root ---

    @property
    def name(self):
        return f"dirwell-{self.sid}"

    @property
    def socket(self):
        return self.root / "var/run" / f"{self.name}.sock"

    @property
    def pid_file(self):
        return self.root / "var/run" / f"{self.name}.pid"

    @property
    def session_file(self):
        return self.root / "var/run/dirwell/sessions" / self.sid

    def write(self, relative, content, mode=0o644):
        path = self.root / relative
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content if isinstance(content, bytes) else content.encode("utf-8"))
        path.chmod(mode)
        return path

    def write_session(self, user, expires=None):
        text = f"user = {user}\n"
        if expires is not None:
            text += f"expires = {expires}\n"
        self.write(self.session_file.relative_to(self.root), text)

    def write_shares(self, *shares):
        """Each a section name, a path and, where it is not 0, a type."""
        text = "[global]\nworkgroup = TEST\n"
        for name, path, *kind in shares:
            text += f"[{name}]\npath = {path}\n"
            if kind:
                text += f"dirwell:type = {kind[0]}\n"
        self.write("etc/samba/smb.conf", text)

    def write_veto(self, value):
        """The value as text or bytes."""
        value = value if isinstance(value, bytes) else value.encode("utf-8")
        self.write("etc/config/wfm2.conf", b"[global]\nveto files = " + value + b"\n")

    def write_host(self, text):
        self.write("etc/config/host-platform.conf", text)

    def write_default_volume(self, path):
        self.write("etc/config/def_share.info", f"[SHARE_DEF]\ndefVolMP = {path}\n")

    def write_program(self, path, script):
        """A shell script in place of a program; `path` is the program's fixed path."""
        return self.write(path.lstrip("/"), "#!/bin/sh\n" + script, mode=0o755)

    # --- Life ---

    def start(self, *options, **environment):
        """Starts the daemon (default: with its session id alone) and waits until it serves."""
        assert self.process is None
        self.launch(*(options or ("--sid", self.sid)), **environment)

        def answers():
            if self.process.poll() is not None:
                return True
            with contextlib.suppress(OSError):
                return bus.exchange(self.socket, "GET", "/").status == 200
            return False

        assert wait_until(answers, 20), f"the daemon does not serve: {self.log()}"
        assert self.process.poll() is None, f"the daemon ended with {self.process.returncode}: {self.log()}"
        return self

    def give_to(self, user):
        """Lets an ordinary user own the instance and run it."""
        account = pwd.getpwnam(user)
        for path in (self.root, self.root / "var/run", self.root / "var/run/dirwell/sessions", self.session_file):
            os.chown(path, account.pw_uid, account.pw_gid)
        self.run_as = {"user": account.pw_uid, "group": account.pw_gid, "extra_groups": []}
        # A clone may lie where only root reaches.
        self.binary = pathlib.Path(shutil.copy(self.binary, self.root))
        self.client = pathlib.Path(shutil.copy(self.client, self.root))
        return self

    def launch(self, *options, **environment):
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([*self.wrapper, str(self.binary), *options], stdin=subprocess.DEVNULL,
                                            stdout=subprocess.DEVNULL, stderr=log, cwd="/",
                                            env={**self.environment, **environment}, pass_fds=self.handed_over, **self.run_as)
        self.end_expected = False
        Instance.alive_instances.add(self)
        return self

    def run_to_end(self, *options, timeout=20, **environment):
        """Runs a start that is to end by itself; returns the exit status and the lines it wrote."""
        result = subprocess.run([str(self.binary), *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, cwd="/", env={**self.environment, **environment},
                                timeout=timeout, check=False)
        assert result.stdout == b""
        text = result.stderr.decode("utf-8")
        assert not SANITIZER.search(text), text
        return result.returncode, text.splitlines()

    def wait_end(self, seconds=20):
        """Waits for the daemon's end, which the test expects; returns its exit status."""
        self.end_expected = True
        status = self.process.wait(seconds)
        Instance.alive_instances.discard(self)
        return status

    def stop(self, signal_number=signal.SIGTERM):
        """An orderly stop; fails unless the daemon ends with 0 and takes its socket and pid file with it."""
        self.process.send_signal(signal_number)
        assert self.wait_end() == 0, self.log()
        assert not self.socket.exists()
        assert not self.pid_file.exists()

    def check(self):
        """Fails when the daemon died or a sanitizer spoke."""
        text = self.log()
        report = SANITIZER.search(text)
        assert not report, text[max(0, report.start() - 500):report.start() + 6000]
        if self.process is not None and not self.end_expected:
            assert self.process.poll() is None, f"the daemon died with {self.process.returncode}: {text[-4000:]}"

    def finish(self):
        """Stops what runs, fails when something is left, removes the root."""
        try:
            self.check()
            if self.process is not None and self.process.poll() is None:
                self.stop()
                self.check()
            assert wait_until(lambda: not self.processes(), self.grace), f"left running: {self.described_processes()}"
            left = [p for p in (self.root / "var/run").glob("*") if p.name != "dirwell"]
            assert self.leftovers_expected or left == [], f"left behind: {left}"
        finally:
            Instance.alive_instances.discard(self)
            for pid in self.processes():
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            if self.process is not None:
                self.process.wait(10)
            shutil.rmtree(self.root)

    # --- Processes ---

    def processes(self):
        """Ids of all processes of this instance: the daemon, request processes, programs that they run."""
        marks = (self.sid.encode(), str(self.root).encode())
        found = []
        for entry in os.listdir("/proc"):
            if entry.isdigit() and int(entry) != os.getpid():
                with contextlib.suppress(OSError):
                    command = pathlib.Path("/proc", entry, "cmdline").read_bytes()
                    if any(mark in command for mark in marks):
                        found.append(int(entry))
        return found

    def described_processes(self):
        described = []
        for pid in self.processes():
            with contextlib.suppress(OSError):
                described.append((pid, pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()))
        return described

    def request_processes(self):
        """Ids of the processes that serve a request: the daemon's program without being the daemon."""
        found = []
        for pid in self.processes():
            if pid != self.process.pid:
                with contextlib.suppress(OSError):
                    command = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes()
                    if command.split(b"\0")[0] == str(self.binary).encode():
                        found.append(pid)
        return found

    def daemon_descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def daemon_memory(self):
        """What the daemon holds resident, in KiB."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"^VmRSS:\s+(\d+) kB", status, re.MULTILINE)[1])

    def daemon_children(self):
        """Ids of the daemon's own children, zombies included."""
        found = []
        for entry in os.listdir("/proc"):
            if entry.isdigit():
                with contextlib.suppress(OSError):
                    fields = pathlib.Path("/proc", entry, "stat").read_text().rpartition(")")[2].split()
                    if int(fields[1]) == self.process.pid:
                        found.append(int(entry))
        return found

    # --- Log ---

    def log(self):
        return self.log_path.read_text(encoding="utf-8", errors="replace") if self.log_path.exists() else ""

    def lines(self):
        return self.log().splitlines()

    # --- Requests ---

    def connection(self, timeout=30):
        return bus.HTTPConnection(self.socket, timeout)

    def raw(self, timeout=30):
        return bus.RawConnection(self.socket, timeout)

    def exchange(self, method, target, body=None, headers=None, timeout=30):
        return bus.exchange(self.socket, method, target, body, headers, timeout)

    def call(self, endpoint, request=None, query="", timeout=60):
        """The reply object of an endpoint; the request is any JSON value, or the body's very bytes."""
        body = request if isinstance(request, bytes) else bus.json.dumps({} if request is None else request).encode()
        reply = self.exchange("POST", f"/{endpoint}{query}", body, timeout=timeout)
        assert reply.status == 200, reply
        assert reply.content_type == "application/json; charset=utf-8"
        return reply.json()

    def fetch(self, *folders, timeout=60, **keys):
        """The reply of "fetch.resource" on folders: each a path, or a path and its alias."""
        path = []
        for folder in folders or (self.share,):
            full, alias = folder if isinstance(folder, tuple) else (folder, "/Share")
            path.append({"full_path": str(full), "alias": alias})
        return self.call("fetch.resource", {"path": path, **keys}, timeout=timeout)

    def names(self, *folders, **keys):
        """The names of the first page, in order."""
        reply = self.fetch(*folders, **keys)
        assert (reply["error_code"], reply["error_message"]) == (0, ""), reply
        return [entry["filename"] for entry in reply["datas"]]


@contextlib.contextmanager
def fresh_instance(user="root"):
    """A new instance that is finished, and held to have left nothing, at the end."""
    made = Instance(user)
    try:
        yield made
    except BaseException:
        with contextlib.suppress(AssertionError):
            made.finish()
        raise
    made.finish()
