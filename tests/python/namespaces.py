"""What the tests in Python share: namespaces of their own, and what to do on a machine that lacks something."""
import os
import subprocess

import pytest

PATIENCE = 60  # seconds that nothing should ever take


def need(there, what):
    """Something may be missing on a laptop, which skips visibly, but not where it counts."""
    if not there:
        (pytest.fail if os.environ.get("CI") else pytest.skip)(what)


class Namespace:
    """Network, mount and UTS namespaces that a process holds until close(); /sys shows this network."""

    def __init__(self):
        unshare = ["unshare", "--net", "--mount", "--uts"]
        enter = ["nsenter", "--net", "--mount", "--uts", "--root", "--wd"]  # Those of the holder, also in a chroot.
        if os.geteuid() != 0:
            unshare += ["--user", "--map-root-user"]
            enter += ["--user", "--preserve-credentials"]
        # The holder ends with this process, whatever becomes of it: cat reads from a pipe.
        self._holder = subprocess.Popen([*unshare, "sh", "-c", "mount -t sysfs sysfs /sys && echo ready && exec cat"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.pid = self._holder.pid
        self.enter = [*enter, f"--target={self.pid}", "--"]
        if self._holder.stdout.readline() != b"ready\n":
            need(False, f"cannot make namespaces: {os.fsdecode(self._holder.communicate()[1])}")

    def run(self, *command, **options):
        """Runs a command there and returns its process, whatever became of it."""
        command = [word if isinstance(word, bytes) else str(word) for word in command]
        return subprocess.run([*self.enter, *command], timeout=PATIENCE, **{"capture_output": True, **options})

    def close(self):
        self._holder.communicate()
