"""Accounts and groups that exist for one daemon alone.

The daemon runs in a mount namespace of its own, where other files lie over /etc/passwd and /etc/group. Nothing of the
machine is touched, and with the daemon's last process all is gone, whatever became of the test.
"""

import pathlib

ALICE, BOB = 61001, 61002  # alice is in the team, bob is not; both are session users or callers
STAFF, TEAM, ROOTS = 61001, 61010, 61020  # alice's own group, the team's, one that the daemon alone has

PASSWD = f"""alice:x:{ALICE}:{STAFF}::/nonexistent:/usr/sbin/nologin
bob:x:{BOB}:{BOB}::/nonexistent:/usr/sbin/nologin
"""
GROUP = f"""staff-of-alice:x:{STAFF}:
bobs:x:{BOB}:
team:x:{TEAM}:alice
daemons:x:{ROOTS}:
"""


def give_accounts(instance):
    """Lets the daemon of the instance, which has not been started, know them beside the machine's own."""
    passwd = instance.write("accounts/passwd", pathlib.Path("/etc/passwd").read_text() + PASSWD)
    group = instance.write("accounts/group", pathlib.Path("/etc/group").read_text() + GROUP)
    instance.wrapper = ["/usr/bin/unshare", "--mount", "--propagation", "private", "/bin/sh", "-c",
                        f"mount --bind {passwd} /etc/passwd && mount --bind {group} /etc/group && exec \"$@\"", "sh"]
    return instance
