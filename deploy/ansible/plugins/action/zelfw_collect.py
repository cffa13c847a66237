"""Collects the logs, the trace and the result file of a till."""

import base64
import io
import tarfile

from ansible.errors import AnsibleError
from ansible.module_utils.parsing.convert_bool import boolean
from ansible.plugins.action import ActionBase
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.rollout import COLLECTED, Rollout

LONGEST = 256 << 20


def unpacked(archive):
    """The files of a till's archive, which may hold anything: only plain files with our names."""
    files, length = {}, 0
    with tarfile.open(fileobj=io.BytesIO(base64.b64decode(archive)), mode="r:gz") as archive_file:
        for member in archive_file:
            length += member.size
            if length > LONGEST:
                raise ValueError("more than %d bytes" % LONGEST)
            if member.isreg() and member.name in COLLECTED:
                files[member.name] = archive_file.extractfile(member).read()
    return files


class ActionModule(ActionBase):
    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        arguments = dict(self._task.args)
        rollout = Rollout(arguments.pop("collection"))
        always = boolean(arguments.pop("always"))
        name = task_vars["inventory_hostname"]
        till = rollout.till(name)
        # What lies there from an earlier run would be taken for this one's.
        if not always and "levels" not in till:
            result["skipped"] = True
            return result
        try:
            arguments["state"] = "collected"
            answer = self._execute_module(
                module_name="zelfwupdate.fleet.zelfw_update",
                module_args=arguments,
                task_vars=task_vars,
            )
            files = unpacked(answer["archive"])
            for file_name, content in files.items():
                with open(rollout.path(name, file_name), "wb") as file:
                    file.write(content)
            result["files"] = sorted(files)
        except (AnsibleError, ValueError, KeyError, OSError, EOFError, tarfile.TarError) as error:
            result["msg"] = "Not collected: %s" % error
            if till:
                till["msg"] = "%s; its logs were not collected" % till["msg"]
                rollout.put(name, till)
        return result
