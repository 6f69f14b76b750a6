"""Calls of the daemon that fail on demand: the tests' side of tests/faults/plan.h."""

import contextlib
import errno
import mmap
import os
import struct

from .instance import binary_folder

MAGIC = 0x44574654
NAMES_SIZE = 2048
JOURNAL_SIZE = 1 << 18
PROCESSES = ("daemon", "threads", "between", "request", "tool")
FAIL, INTERRUPT, PIECEMEAL, SIGNAL = 1, 2, 3, 4

HEAD = 16 + NAMES_SIZE
(MODE, CALL, PROCESS, FIRST, TIMES, ERROR, RECORDING, HASTENED, INJECTED, BORN, ENDED,
 COUNTS) = (HEAD + 4 * place for place in range(12))


def library():
    return binary_folder() / "tests" / "faults" / "libdirwell_faults.so"


class Faults:
    """The faults of one instance. Make it before the instance starts; arm and disarm while it runs."""

    def __init__(self, instance):
        assert library().exists(), f"{library()} is missing: it is built with the tests"
        path = instance.write("faults", bytes(1 << 20), mode=0o600)
        with open(path, "r+b") as file:
            self.page = mmap.mmap(file.fileno(), 0)
        preload = os.environ.get("LD_PRELOAD", "")
        instance.environment["LD_PRELOAD"] = f"{library()} {preload}".strip()
        instance.environment["DIRWELL_FAULTS"] = str(path)
        # A sanitizer asks to be the first library of all, for the sake of allocations, which are left to it.
        given = instance.environment.get("ASAN_OPTIONS")
        instance.environment["ASAN_OPTIONS"] = ":".join(filter(None, (given, "verify_asan_link_order=0")))
        self.calls = None

    def begin(self):
        """Call once the daemon runs."""
        magic, calls, processes, memory = struct.unpack_from("4I", self.page, 0)
        assert magic == MAGIC, "the library was not loaded"
        assert processes == len(PROCESSES)
        self.calls = bytes(self.page[16:HEAD]).rstrip(b"\0").decode().split()
        assert len(self.calls) == calls
        self.fails_memory = bool(memory)
        return self

    def _get(self, offset):
        return struct.unpack_from("I", self.page, offset)[0]

    def _set(self, offset, value):
        struct.pack_into("I", self.page, offset, value)

    def _clear(self):
        self._set(MODE, 0)
        size = 4 * len(self.calls) * len(PROCESSES)
        self.page[INJECTED:COUNTS + size + 4] = bytes(COUNTS + size + 4 - INJECTED)  # the journal's length included

    def _choose(self, mode, process, call, first, times, error):
        self._clear()
        for offset, value in ((CALL, self.calls.index(call)), (PROCESS, PROCESSES.index(process)), (FIRST, first),
                              (TIMES, times), (ERROR, error), (MODE, mode)):
            self._set(offset, value)

    def arm(self, process, call, first=1, times=1, error=errno.EIO):
        """The `first`-th such call of the process fails, and the following ones: `times` in all, 0 for every one."""
        self._choose(FAIL, process, call, first, times, error)

    def signal(self, process, call, number, first=1):
        """A signal reaches the process just before its `first`-th such call, which succeeds."""
        self._choose(SIGNAL, process, call, first, 1, number)

    def interrupt(self, process):
        """Every call that a signal may interrupt is interrupted once before it really runs."""
        self._clear()
        self._set(PROCESS, PROCESSES.index(process))
        self._set(MODE, INTERRUPT)

    def piecemeal(self, process):
        """Streams move one byte at a time."""
        self._clear()
        self._set(PROCESS, PROCESSES.index(process))
        self._set(MODE, PIECEMEAL)

    def hasten(self, milliseconds):
        """No timer that the daemon sets from now on takes longer. May be called before the start."""
        self._set(HASTENED, milliseconds)

    def disarm(self):
        self._set(MODE, 0)

    def watch_only(self):
        """No fault; counts from now on."""
        self._clear()

    @property
    def injected(self):
        return self._get(INJECTED)

    @property
    def unended(self):
        """Request processes that did not end by _exit (yet)."""
        return self._get(BORN) - self._get(ENDED)

    def counts(self, process):
        """How often the process has made each call since the counts began."""
        numbers = struct.unpack_from(f"{len(self.calls)}I", self.page, COUNTS + 4 * len(self.calls) * PROCESSES.index(process))
        return {call: number for call, number in zip(self.calls, numbers) if number}

    def journal(self):
        """The calls recorded so far, as (process, call, path) in their order. One may just be written."""
        used = COUNTS + 4 * len(self.calls) * len(PROCESSES)
        length = self._get(used)
        assert length <= JOURNAL_SIZE, "the journal was too small"
        text = bytes(self.page[used + 4:used + 4 + length]).decode("utf-8", "replace")
        return [tuple(line.split(" ", 2)) for line in text.splitlines() if "\0" not in line]

    @contextlib.contextmanager
    def recorded(self):
        """The calls made within, once it is over."""
        found = []
        used = COUNTS + 4 * len(self.calls) * len(PROCESSES)
        self.page[used:used + 4 + JOURNAL_SIZE] = bytes(4 + JOURNAL_SIZE)
        self._set(RECORDING, 1)
        try:
            yield found
        finally:
            self._set(RECORDING, 0)
            found += self.journal()
