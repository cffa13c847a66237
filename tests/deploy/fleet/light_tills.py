"""Makes tills that are directories of this machine: each has a simulated bus of its own, and the
updater on it in virtual time."""

import atexit
import os
import shutil
import tempfile

COLLECTION = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../../deploy/ansible")
BUSES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "buses")
USUAL = ("printer", "scanner", "keyboard")

# A till with a file "dies" is switched off while its first image is sent.
UPDATER = """#!/bin/sh
bus="--state {till}/state {till}/bus.toml -- {updater}"
case "$* " in
    *"-o 99 "* | *"-L "*) exec {simulator} run --virtual $bus "$@" ;;
esac
[ -e {till}/dies ] || exec {simulator} run --virtual $bus "$@"
{simulator} run --record {till}/record $bus "$@" &
until [ "$(wc -l <{till}/record)" -gt 60 ]; do sleep 0.01; done 2>/dev/null
kill -9 $!
touch {till}/off
"""


def collections_path(name):
    """Where Ansible finds the collection; of "tree" a path that leads to the sources."""
    if name != "tree":
        return os.path.abspath(name)
    place = tempfile.mkdtemp(prefix="zelfwupdate-collections-")
    atexit.register(shutil.rmtree, place)
    os.makedirs(os.path.join(place, "ansible_collections/zelfwupdate"))
    link = os.path.join(place, "ansible_collections/zelfwupdate/fleet")
    os.symlink(os.path.abspath(COLLECTION), link)
    return place


class Shop:
    """A directory with tills, an inventory, and firmware files."""

    def __init__(self, place, tree):
        self.place = place
        self.tree = tree
        self.hosts = {}
        os.makedirs(os.path.join(place, "firmware"), exist_ok=True)

    def path(self, *names):
        return os.path.join(self.place, *names)

    def bring_firmware(self, *names):
        for name in names:
            shutil.copy(os.path.join(self.tree, "firmware", name + ".dat"), self.path("firmware"))

    def make_till(self, name, bus, **variables):
        till = self.path("tills", name)
        shutil.rmtree(till, ignore_errors=True)
        os.makedirs(till)
        shutil.copy(os.path.join(BUSES, bus + ".toml"), os.path.join(till, "bus.toml"))
        program = os.path.join(till, "zelfwupdate")
        with open(program, "w", encoding="utf-8") as file:
            file.write(
                UPDATER.format(
                    till=till,
                    updater=os.path.join(self.tree, "zelfwupdate"),
                    simulator=os.path.join(self.tree, "sim", "zelfwsim"),
                )
            )
        os.chmod(program, 0o755)
        self.hosts[name] = variables

    def write_inventory(self, extra=""):
        till = "%s/tills/{{ inventory_hostname }}" % self.place
        lines = ["tills:", "  vars:", "    ansible_connection: light_till"]
        lines += ["    ansible_become: false", "    ansible_python_interpreter: /usr/bin/python3"]
        lines += ['    till_directory: "%s"' % till, '    zelfwupdate_package: ""']
        for name, place in (
            ("program", "zelfwupdate"),
            ("firmware", "firmware"),
            ("logs", "logs"),
            ("result", "run/result"),
            ("facts", "facts/zelfwupdate.fact"),
            ("metrics", "metrics/zelfwupdate.prom"),
        ):
            lines.append('    zelfwupdate_till_%s: "%s/%s"' % (name, till, place))
        lines.append("  hosts:")
        for name, variables in self.hosts.items():
            lines.append("    %s:" % name)
            lines += ["      %s: %s" % entry for entry in variables.items()]
        with open(self.path("inventory.yml"), "w", encoding="utf-8") as file:
            file.write("\n".join(lines) + "\n" + extra)
