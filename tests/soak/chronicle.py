"""What was done to the service while it worked, and when: the excuses of a reply that is not what is due."""

import collections
import contextlib
import threading
import time

# What can be made scarce, each for a while.
PROCESSES = "processes"  # of the whole instance: forks and programs fail
TOOLS = "tools"  # of the session's user: programs fail, request processes go on
DESCRIPTORS = "descriptors"  # of the daemon: no connection and no request is taken


class Span:
    """From before something was begun until after it was over; without an end it is still going on."""

    def __init__(self):
        self.begin = time.monotonic()
        self.end = None

    def close(self):
        self.end = time.monotonic()
        return self

    def meets(self, other):
        ours, theirs = self.end or float("inf"), other.end or float("inf")
        return self.begin <= theirs and other.begin <= ours


class Chronicle:
    def __init__(self):
        self.lock = threading.Lock()
        self.kills = []
        self.shortages = collections.defaultdict(list)  # what: the spans in which it was scarce
        self.excused_by_kill = 0

    @contextlib.contextmanager
    def kill(self):
        """Around the killing of one request process."""
        span = Span()
        with self.lock:
            self.kills.append(span)
        yield
        span.close()

    @contextlib.contextmanager
    def shortage(self, what):
        span = Span()
        with self.lock:
            self.shortages[what].append(span)
        try:
            yield
        finally:
            span.close()

    def scarce(self, span, *what):
        """Whether one of these was scarce at any time of the span."""
        with self.lock:
            return any(shortage.meets(span) for name in what for shortage in self.shortages[name])

    def killed(self, span):
        """Whether a request process was killed in the span."""
        with self.lock:
            return any(kill.meets(span) for kill in reversed(self.kills[-1000:]))

    def excuse_by_kill(self, span):
        """The same for a request that failed; each kill makes one request fail, which over_excused() tells."""
        found = self.killed(span)
        with self.lock:
            self.excused_by_kill += found
        return found

    def over_excused(self):
        """How many more requests failed by a kill than were killed."""
        with self.lock:
            return max(0, self.excused_by_kill - len(self.kills))
