"""Fixtures of the system tests, which drive the real daemon over its real socket.

They run as root on any Linux machine. The folder of the binaries is DIRWELL_BUILD (default: build/release).
"""

import contextlib
import os
import pathlib
import shutil
import tempfile

import pytest

from harness.caches import caching_instance
from harness.instance import Instance, binary_folder, fresh_instance
from harness.tree import make_file


def pytest_configure(config):
    if os.geteuid() != 0:
        raise pytest.UsageError("the system tests change users and set trusted attributes: run them as root")
    for name in ("dirwell", "dirwellctl"):
        if not os.access(binary_folder() / name, os.X_OK):
            raise pytest.UsageError(f"{binary_folder() / name} is missing: ./dev build builds it")


@pytest.fixture(autouse=True)
def everything_lives():
    """No test may cost a daemon its life, or wake a sanitizer, unless it says so."""
    yield
    for instance in list(Instance.alive_instances):
        instance.check()


@pytest.fixture
def make_instance():
    """Makes private instances (not started); each must leave nothing behind."""
    with contextlib.ExitStack() as stack:
        yield lambda user="root": stack.enter_context(fresh_instance(user))


@pytest.fixture
def instance(make_instance):
    """One private instance for a session of root's, not started."""
    return make_instance()


@pytest.fixture(scope="module")
def daemon():
    """A running instance for a session of root's that the tests of a module share."""
    with fresh_instance() as made:
        yield made.start()


@pytest.fixture(scope="module")
def nobodys():
    """A running instance with a volume whose session is nobody's, so that the daemon's rights and the user's differ."""
    with caching_instance("nobody") as instance:
        make_file(instance.share / "a")
        yield instance


@pytest.fixture
def share(daemon):
    """An empty folder of the test's own."""
    folder = pathlib.Path(tempfile.mkdtemp(dir=daemon.root, prefix="share-"))
    folder.chmod(0o755)
    yield folder
    shutil.rmtree(folder)
