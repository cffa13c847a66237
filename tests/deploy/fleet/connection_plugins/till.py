"""Reaches a till that is a root directory of this machine."""

DOCUMENTATION = """
name: till
short_description: Run tasks in a root directory
description: As a till's own shell would, with chroot. A root directory that is not there cannot be reached.
options:
  root:
    description: The till's root directory.
    type: path
    vars:
      - name: till_root
"""

import os
import shlex
import shutil

from ansible.errors import AnsibleConnectionFailure, AnsibleFileNotFound
from ansible.plugins.connection.local import Connection as LocalConnection


class Connection(LocalConnection):
    transport = "till"

    def _connect(self):
        if not os.path.isdir(os.path.join(self.get_option("root"), "usr")):
            raise AnsibleConnectionFailure("no till in " + self.get_option("root"))
        return super()._connect()

    def exec_command(self, cmd, in_data=None, sudoable=True):
        self._connect()
        command = (
            "env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 chroot %s /bin/sh -c %s"
            % (
                shlex.quote(self.get_option("root")),
                shlex.quote("cd && " + cmd),
            )
        )
        return super().exec_command(command, in_data=in_data, sudoable=False)

    def _inside(self, path):
        return self.get_option("root") + os.path.normpath(
            "/root/" + path if path[0] != "/" else path
        )

    def put_file(self, in_path, out_path):
        self._connect()
        shutil.copyfile(in_path, self._inside(out_path))

    def fetch_file(self, in_path, out_path):
        self._connect()
        if not os.path.exists(self._inside(in_path)):
            raise AnsibleFileNotFound(in_path)
        shutil.copyfile(self._inside(in_path), out_path)
