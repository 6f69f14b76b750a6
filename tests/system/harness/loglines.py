"""Log lines, taken apart and checked in full."""

import calendar
import re
import time

LINE = re.compile(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)([+-]\d{4}) \[([FEWIDT])\] dirwell\((\d+)\): (.*)")


class LogLine:
    def __init__(self, text):
        match = LINE.fullmatch(text)
        assert match, f"no log line: {text!r}"
        stamp, self.offset, self.tag, pid, self.message = match.groups()
        self.local_seconds = calendar.timegm(time.strptime(stamp, "%Y-%m-%dT%H:%M:%S"))
        self.pid = int(pid)

    def __repr__(self):
        return f"[{self.tag}] {self.message}"


def parse(lines):
    return [LogLine(line) for line in lines]


def said(lines):
    """Tag and message of each line."""
    return [(line.tag, line.message) for line in parse(lines)]
