"""What is done to the service while it works: request processes are killed, processes and descriptors run short."""

import contextlib
import http.client
import os
import pathlib
import pwd
import random
import resource
import signal
import subprocess
import tempfile
import threading
import time

from chronicle import DESCRIPTORS, PROCESSES, TOOLS


class ProcessGroup:
    """A control group of the instance's own, whose number of processes can be limited; None where there can be none."""

    def __init__(self, folder):
        self.folder = folder

    @classmethod
    def around(cls, pid):
        for line in pathlib.Path("/proc/self/mounts").read_text().splitlines():
            _, place, kind, options = line.split()[:4]
            if kind == "cgroup" and "pids" in options.split(",") or kind == "cgroup2":
                with contextlib.suppress(OSError):
                    group = cls(pathlib.Path(tempfile.mkdtemp(prefix="dirwell-soak-", dir=place)))
                    try:
                        group.limit("max")
                        (group.folder / "cgroup.procs").write_text(str(pid))
                        return group
                    except OSError:
                        group.folder.rmdir()
        return None

    def limit(self, count):
        (self.folder / "pids.max").write_text(str(count))

    def count(self):
        """Threads count as processes do."""
        return int((self.folder / "pids.current").read_text())

    def processes(self):
        return [int(line) for line in (self.folder / "cgroup.procs").read_text().split()]

    def refused(self):
        """How often something could not be started for the limit."""
        events = dict(line.split() for line in (self.folder / "pids.events").read_text().splitlines())
        return int(events["max"])

    def remove(self):
        self.folder.rmdir()


class Troublemaker(threading.Thread):
    """Does something again and again until it is told to stop."""

    def __init__(self, seed, instance, chronicle):
        super().__init__(daemon=True, name=type(self).__name__)
        self.chance = random.Random(f"{seed} {self.name}")
        self.instance, self.chronicle = instance, chronicle
        self.stopping = threading.Event()
        self.error = None

    def run(self):
        try:
            while not self.stopping.is_set():
                self.turn()
        except Exception as error:  # told at the end: without its troubles the run shows little
            self.error = error

    def turn(self):
        raise NotImplementedError

    def finish(self):
        self.stopping.set()
        self.join(30)
        assert not self.is_alive() and self.error is None, f"{self.name} failed: {self.error!r}"


class Killer(Troublemaker):
    """Kills request processes, among them the ones between the daemon and a request process."""

    SHARE = 15  # of so many requests one, at most

    def __init__(self, seed, instance, chronicle, group, requests):
        super().__init__(seed, instance, chronicle)
        self.group = group
        self.requests = requests  # tells how many there were
        self.kills = 0

    def processes(self):
        if self.group is None:
            return self.instance.request_processes()
        return [pid for pid in self.group.processes() if pid != self.instance.process.pid]

    def turn(self):
        if self.stopping.wait(self.chance.uniform(0.02, 0.3)) or self.requests() < self.kills * self.SHARE:
            return
        for _ in range(20):
            if self.try_to_kill():
                return

    def is_request_process(self, pid, others):
        """Not the daemon, and not the child of a request process that is about to become a program."""
        command = pathlib.Path(f"/proc/{pid}/cmdline").read_bytes().split(b"\0")
        parent = int(pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[1])
        return command[0] == str(self.instance.binary).encode() and pid != self.instance.process.pid and \
            parent not in others

    def try_to_kill(self):
        found = self.processes()
        if not found:
            return False
        with contextlib.suppress(OSError):
            process = os.pidfd_open(self.chance.choice(found))
            try:
                # The number may be another process's by now; what the descriptor stands for stays the same.
                described = pathlib.Path(f"/proc/self/fdinfo/{process}").read_text()
                pid = next(int(line.split()[1]) for line in described.splitlines() if line.startswith("Pid:"))
                if self.is_request_process(pid, found):
                    with self.chronicle.kill():
                        signal.pidfd_send_signal(process, signal.SIGKILL)
                    self.kills += 1
                    return True
            finally:
                os.close(process)
        return False


class Shortages(Troublemaker):
    """Every few seconds something becomes scarce for less than one."""

    def __init__(self, seed, instance, chronicle, group, user, videos, pause):
        super().__init__(seed, instance, chronicle)
        self.group = group
        self.user = user  # whose the session is
        self.videos = videos  # a request text; its listing tells of one video that it is of the sought kind
        self.tools_missed = 0  # times that such a listing could not tell, since its tool was not run
        self.pause = pause  # seconds between two, at most
        self.kinds = [self.few_programs, self.few_descriptors] + ([self.few_processes] if group is not None else [])
        self.turns = 0

    def turn(self):
        if not self.stopping.wait(self.chance.uniform(self.pause / 3, self.pause)):
            self.kinds[self.turns % len(self.kinds)]()
            self.turns += 1

    def hold(self):
        self.stopping.wait(self.chance.uniform(0.2, 0.7))

    def few_processes(self):
        """The daemon, its request processes and their programs share so few that some cannot be started."""
        with self.chronicle.shortage(PROCESSES):
            try:
                self.group.limit(self.group.count() + self.chance.randrange(3))
                self.hold()
            finally:
                self.group.limit("max")

    def few_programs(self):
        """The limit of the session's user: it strikes those who have that user as their real one, and root never. It is
        reached by a process that the user has already."""
        with self.chronicle.shortage(TOOLS), self.process_of_user(), self.soft_limit(resource.RLIMIT_NPROC, 0):
            # A listing that is killed, or meets what else goes on, shows nothing.
            with contextlib.suppress(OSError, http.client.HTTPException):
                reply = self.instance.exchange("POST", "/fetch.resource", self.videos)
                self.tools_missed += reply.status == 200 and reply.json()["has_h265"] == 0
            self.hold()

    @contextlib.contextmanager
    def process_of_user(self):
        account = pwd.getpwnam(self.user)
        process = subprocess.Popen(["/bin/sleep", "60"], user=account.pw_uid, group=account.pw_gid, extra_groups=[], cwd="/")
        try:
            yield
        finally:
            process.kill()
            process.wait(10)

    def few_descriptors(self):
        """Of the daemon. A request process has given up most of them and finds enough below the limit."""
        with self.chronicle.shortage(DESCRIPTORS):
            limit = max(self.instance.daemon_descriptors() + self.chance.randrange(4), 32)
            with self.soft_limit(resource.RLIMIT_NOFILE, limit):
                self.hold()

    @contextlib.contextmanager
    def soft_limit(self, what, value):
        pid = self.instance.process.pid
        before = resource.prlimit(pid, what)
        resource.prlimit(pid, what, (value, before[1]))
        try:
            yield
        finally:
            resource.prlimit(pid, what, before)


STRANGER = """
import socket, sys, time
path, limit, turns = sys.stdin.readline().strip(), float(sys.argv[1]), 0
while True:
    with socket.socket(socket.AF_UNIX) as caller:
        caller.settimeout(limit)
        caller.connect(path)
        answer = b""
        try:
            if turns % 2:
                caller.sendall(b"GET / HTTP/1.1\\r\\nHost: x\\r\\n\\r\\n")
            while more := caller.recv(65536):
                answer += more
        except (ConnectionResetError, BrokenPipeError):
            pass
    if answer and not (answer.startswith(b"HTTP/1.1 403 ") and b"watch" not in answer):
        sys.exit(f"a stranger got {answer!r}")
    turns += 1
    print(turns, flush=True)
    time.sleep(0.05)
"""


class Stranger:
    """A process of a user whom the service does not admit, which tries all the time."""

    def __init__(self, instance, user, time_limit):
        self.process = subprocess.Popen(["/usr/bin/python3", "-c", STRANGER, str(time_limit)], user=user, group=user,
                                        extra_groups=[], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, cwd="/")
        with self.process.stdin as path:  # not among the arguments, by which the instance's processes are known
            path.write(f"{instance.socket}\n".encode())
        self.turns = 0
        self.reader = threading.Thread(target=self.count, daemon=True)
        self.reader.start()

    def count(self):
        for line in self.process.stdout:
            self.turns = int(line)

    def __enter__(self):
        deadline = time.monotonic() + 60
        while self.turns == 0 and self.process.poll() is None and time.monotonic() < deadline:
            time.sleep(0.01)
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait(10)
        self.reader.join(10)
        self.process.stdout.close()
        self.process.stderr.close()

    def check(self):
        assert self.process.poll() is None, self.process.stderr.read().decode()
        assert self.turns > 0, "the stranger had no turn"
