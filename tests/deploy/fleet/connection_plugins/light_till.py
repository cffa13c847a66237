"""Reaches a till that is a directory of this machine."""

DOCUMENTATION = """
name: light_till
short_description: Run tasks beside a till's directory
description:
  - As the local connection does. A till that is switched off has a file "off" in its directory, or
    none at all, and cannot be reached.
  - What the till's own commands take of the processor is noted in its file "cpu", in seconds.
options:
  directory:
    description: The till's directory.
    type: path
    vars:
      - name: till_directory
"""

import os
import resource

from ansible.errors import AnsibleConnectionFailure
from ansible.plugins.connection.local import Connection as LocalConnection


def seconds_of_children():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


class Connection(LocalConnection):
    transport = "light_till"

    def _file(self, name):
        return os.path.join(self.get_option("directory"), name)

    def _insist(self):
        if os.path.exists(self._file("off")) or not os.path.isdir(self._file("")):
            raise AnsibleConnectionFailure("no till in " + self.get_option("directory"))

    def _connect(self):
        self._insist()
        return super()._connect()

    def exec_command(self, cmd, in_data=None, sudoable=True):
        self._insist()
        before = seconds_of_children()
        answer = super().exec_command(cmd, in_data=in_data, sudoable=False)
        with open(self._file("cpu"), "a", encoding="utf-8") as file:
            file.write("%f\n" % (seconds_of_children() - before))
        self._insist()  # it was switched off meanwhile
        return answer

    def put_file(self, in_path, out_path):
        self._insist()
        super().put_file(in_path, out_path)
