"""A machine of which systemd is in charge: for tests of the unit file as it is shipped, with the program where it is to
be.

Its processes, mounts, network and control groups are its own, its files are this machine's under a layer that goes
with it. The groups lie at the top, beside the caller's, since only there they can be given limits everywhere.
"""

import contextlib
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import uuid

from . import bus
from .instance import PASSED_ON, SANITIZER, TOP, binary_folder, wait_until

UNIT = TOP / "packaging/dirwell@.service"
SYSTEM_UNITS = pathlib.Path("/lib/systemd/system")
GROUPS = pathlib.Path("/sys/fs/cgroup")
UNIFIED = (GROUPS / "cgroup.controllers").exists()  # one hierarchy of groups for all resources
# What services wait for; the machine has nothing else to start.
TARGETS = ("machine.target", "sysinit.target", "basic.target", "shutdown.target", "sockets.target")
JOURNAL = ("systemd-journald.service", "systemd-journald.socket", "systemd-journald-dev-log.socket")
# What the machine needs of the kernel beside control groups.
TRIAL = """
    mount -t tmpfs tmpfs /tmp
    mkdir /tmp/upper /tmp/work /tmp/root
    mount -t overlay -o lowerdir=/usr,upperdir=/tmp/upper,workdir=/tmp/work overlay /tmp/root
"""


def in_the_way():
    """Why no such machine can be had here; empty where it can."""
    if not pathlib.Path("/lib/systemd/systemd").exists():
        return "there is no systemd"
    needed = [GROUPS] if UNIFIED else [GROUPS / name for name in ("systemd", "pids", "memory")]
    trial = f"dirwell-{uuid.uuid4().hex[:12]}"
    for hierarchy in needed:
        try:
            (hierarchy / trial).mkdir()
            (hierarchy / trial).rmdir()
        except OSError as error:
            return f"no control groups can be made: {error}"
    if UNIFIED and not {"memory", "pids"} <= set((GROUPS / "cgroup.subtree_control").read_text().split()):
        return "the control groups do not share out memory and tasks"
    done = subprocess.run(["unshare", "--mount", "--pid", "--fork", "--ipc", "--uts", "--net", "--cgroup", "sh", "-ec",
                           TRIAL], capture_output=True, text=True, check=False)
    return done.stderr.strip() or "no layer can be laid over files" if done.returncode != 0 else ""


class Machine:
    """Nothing runs before start(). Close with finish(), which leaves nothing of it."""

    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="dirwell-machine-"))
        self.group = f"dirwell-{uuid.uuid4().hex[:12]}"
        self.files = self.folder / "files"
        self.units = self.folder / "units"
        self.pid = None
        self.process = None
        self.folder_of(self.files)
        self.folder_of(self.units)
        for name in ("dirwell", "dirwellctl"):
            self.lay(f"usr/bin/{name}", (binary_folder() / name).read_bytes(), 0o755)
        for name in TARGETS:
            (self.units / name).write_text("[Unit]\nDefaultDependencies=no\n")
        for name in JOURNAL:
            shutil.copy(SYSTEM_UNITS / name, self.units)
        with open(self.units / "machine.target", "a", encoding="ascii") as target:
            target.write(f"Requires={JOURNAL[0]}\nAfter={JOURNAL[0]}\n")
        shutil.copy(UNIT, self.units)
        # Settings of sanitizers; the search for leaks looks into the process as a debugger does, which the unit forbids.
        options = {"ASAN_OPTIONS": ""}
        options.update({name: value for name, value in PASSED_ON.items() if name.endswith("_OPTIONS")})
        options["ASAN_OPTIONS"] = ":".join(filter(None, (options["ASAN_OPTIONS"], "detect_leaks=0")))
        self.drop_in("options", "".join('Environment="{}={}"\n'.format(name, value.replace("%", "%%"))
                                        for name, value in options.items()))

    def lay(self, path, content, mode=0o644):
        """A file of the machine's, before it starts."""
        file = self.files / path
        self.folder_of(file.parent)
        file.write_bytes(content if isinstance(content, bytes) else content.encode())
        file.chmod(mode)

    def folder_of(self, path):
        """Makes a folder with those above it, all of them open to be read whatever the mode mask."""
        if not path.exists():
            self.folder_of(path.parent)
            path.mkdir()
            path.chmod(0o755)

    def drop_in(self, name, text, session=""):
        """More settings for the service, of all sessions or of one, before the machine starts."""
        path = self.units / f"dirwell@{session}.service.d" / f"{name}.conf"
        path.parent.mkdir(exist_ok=True)
        path.write_text(f"[Service]\n{text}")

    def start(self):
        with open(self.folder / "log", "wb") as log:
            # If the tests are killed, the machine goes with them.
            self.process = subprocess.Popen(["setpriv", "--pdeathsig=KILL", str(TOP / "tests/system/harness/boot.sh"),
                                             str(self.folder), self.group],
                                            stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd="/",
                                            start_new_session=True)

        def runs():
            with contextlib.suppress(OSError, ValueError):
                self.pid = int((self.folder / "pid").read_text())
                return self.control("is-system-running").stdout == "running\n"
            return self.process.poll() is not None

        assert wait_until(runs, 30, 0.1), self.log()
        assert self.process.poll() is None, self.log()
        return self

    def log(self):
        return (self.folder / "log").read_text(errors="replace")

    def finish(self):
        try:
            if self.process is not None:
                self.process.kill()  # and systemd with it, and all other processes of the machine with that
                self.process.wait(60)
            groups = [path for path in (GROUPS / self.group, *GROUPS.glob(f"*/{self.group}")) if path.exists()]
            assert wait_until(lambda: all(removed(group) for group in groups)), groups
        finally:
            shutil.rmtree(self.folder)

    # --- Inside ---

    def path(self, inside):
        """A path of the machine's as a path of this one; sockets can be connected to."""
        return pathlib.Path(f"/proc/{self.pid}/root{inside}")

    def run(self, *command, timeout=60):
        return subprocess.run(["nsenter", f"--target={self.pid}", "--mount", "--pid", "--ipc", "--uts", "--cgroup",
                               "--root", "--wd", *command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=timeout, check=False)

    @contextlib.contextmanager
    def listener(self, path):
        """A socket at a path of the machine's that somebody listens on."""
        with socket.socket(socket.AF_UNIX) as listening:
            listening.bind(str(self.path(path)))
            listening.listen()
            yield
        self.path(path).unlink()

    def control(self, *arguments):
        return self.run("systemctl", "--no-pager", *arguments)


def removed(group):
    """Removes a control group with those below it, which processes that just ended may still hold."""
    for folder, _, _ in os.walk(group, topdown=False):
        with contextlib.suppress(OSError):
            os.rmdir(folder)
    return not pathlib.Path(group).exists()


class Service:
    """One session's service on a machine. At the end of its scope it is stopped, and no sanitizer may have spoken."""

    def __init__(self, machine, user="nobody", sid=None):
        self.machine = machine
        self.sid = sid or uuid.uuid4().hex[:12]
        self.unit = f"dirwell@{self.sid}.service"
        made = machine.run("dirwellctl", "--sid", self.sid, "session", "create", "--user", user)
        assert made.returncode == 0, made.stdout

    def start(self):
        done = self.machine.control("start", self.unit)
        assert done.returncode == 0, f"{done.stdout}\n{self.journal()}"
        assert wait_until(self.answers, 20), self.journal()
        return self

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.machine.control("stop", self.unit)
        log = self.journal()
        assert not SANITIZER.search(log), log

    def answers(self):
        with contextlib.suppress(OSError):
            return self.exchange("GET", "/").status == 200
        return False

    def set(self, **properties):
        """Settings of the running service's control group."""
        done = self.machine.control("set-property", "--runtime", self.unit,
                                    *(f"{name}={value}" for name, value in properties.items()))
        assert done.returncode == 0, done.stdout

    def show(self, *properties):
        shown = self.machine.control("show", self.unit, *(f"--property={name}" for name in properties)).stdout
        return dict(line.split("=", 1) for line in shown.splitlines())

    def state(self):
        """As in "active running success"."""
        shown = self.show("ActiveState", "SubState", "Result")
        return " ".join(shown[name] for name in ("ActiveState", "SubState", "Result"))

    def main_pid(self):
        return int(self.show("MainPID")["MainPID"])

    def proc(self, name, pid=None):
        """A file of the machine's /proc for a process, the daemon where nothing is said."""
        return self.machine.path(f"/proc/{pid or self.main_pid()}/{name}").read_text()

    def is_run_by(self, pid, name):
        """Whether the process, which may have ended, is one of that program."""
        with contextlib.suppress(OSError):
            return self.proc("comm", pid) == f"{name}\n"
        return False

    # --- Its control group ---

    def group(self, controller, name):
        """What a file of the group says, by its name where each resource has groups of its own."""
        path = self.show("ControlGroup")["ControlGroup"]
        base = GROUPS if UNIFIED else GROUPS / controller
        # Who reads is told the ids of processes as it knows them itself.
        done = self.machine.run("cat", f"{base}{path}/{name}")
        assert done.returncode == 0, done.stdout
        return done.stdout

    def limit(self, name):
        """A limit as the kernel keeps it."""
        files = {"TasksMax": ("pids", "pids.max"),
                 "MemoryMax": ("memory", "memory.max" if UNIFIED else "memory.limit_in_bytes")}
        return int(self.group(*files[name]))

    def tasks(self):
        return int(self.group("pids", "pids.current"))

    def used_memory(self):
        return int(self.group("memory", "memory.current" if UNIFIED else "memory.usage_in_bytes"))

    def refused_tasks(self):
        return int(self.group("pids", "pids.events").split()[1])

    def killed_for_memory(self):
        text = self.group("memory", "memory.events" if UNIFIED else "memory.oom_control")
        return int(dict(line.split() for line in text.splitlines())["oom_kill"])

    def processes(self):
        """Ids of all processes of the service, as the machine knows them."""
        return sorted(int(line) for line in self.group("systemd", "cgroup.procs").splitlines())

    def journal(self):
        self.machine.run("journalctl", "--sync")
        return self.machine.run("journalctl", "--no-pager", "--output=cat", f"--unit={self.unit}").stdout

    # --- Requests ---

    @property
    def socket(self):
        return self.machine.path(f"/run/dirwell-{self.sid}.sock")

    def exchange(self, method, target, body=None, timeout=30):
        return bus.exchange(self.socket, method, target, body, None, timeout)

    def ask(self, folder, timeout=60, **keys):
        """The answer to a listing of a folder, whatever it is."""
        text = bus.json.dumps({"path": [{"full_path": folder, "alias": "/Share"}], **keys})
        return self.exchange("POST", "/fetch.resource", text.encode(), timeout)

    def fetch(self, folder, **keys):
        answer = self.ask(folder, **keys)
        assert answer.status == 200, answer
        return answer.json()
