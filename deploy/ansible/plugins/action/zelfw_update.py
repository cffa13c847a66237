"""Lets a till ask and update with zelfw_update, brings it the files for this, and keeps what became of
it. A till that fails here does not fail in Ansible's own sense: that would end the play for others."""

import base64
import os
import zlib

from ansible.errors import AnsibleConnectionFailure, AnsibleError
from ansible.module_utils.parsing.convert_bool import boolean
from ansible.plugins.action import ActionBase
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.rollout import Rollout

OURS = ("collection", "source", "devices_required")
LONGEST_TRACE = 64 << 20
NOTHING = {"outcome": "failed", "msg": "no answer", "exit_code": "", "due": [], "changes": []}
SHOWN = ("changed", "outcome", "msg", "exit_code", "due", "changes", "console", "diff")
KEPT = (
    "outcome",
    "msg",
    "exit_code",
    "due",
    "changes",
    "still_due",
    "levels",
    "markers",
    "console",
    "staged",
    "rehearsal",
)


def judged(answer):
    """A module's answer, whole also when the module broke."""
    whole = {**NOTHING, **answer}
    if answer.get("failed") and "outcome" not in answer:
        said = str(answer.get("module_stderr", "")).strip().splitlines()
        whole["msg"] = "%s %s" % (answer.get("msg", "no answer"), said[-1] if said else "")
    return whole


class ActionModule(ActionBase):
    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        self.task_vars = task_vars
        self.name = task_vars["inventory_hostname"]
        self.rollout = Rollout(self._task.args["collection"])
        step = {"asked": self._ask, "updated": self._update}[self._task.args["state"]]
        answer = step()
        if answer is None:
            result["skipped"] = True
            return result
        self.rollout.put(self.name, {key: answer[key] for key in KEPT if key in answer})
        result.update({key: answer[key] for key in SHOWN if key in answer})
        return result

    def _module(self, **more):
        arguments = {key: value for key, value in self._task.args.items() if key not in OURS}
        arguments.update(more)
        return self._execute_module(module_args=arguments, task_vars=self.task_vars)

    def _ask(self):
        if self.rollout.till(self.name).get("outcome") == "failed":
            return None
        try:
            answer = self._module()
            if answer.get("to_bring"):
                answer = self._ask_with_files(answer["to_bring"])
        except AnsibleConnectionFailure as error:
            return {
                **NOTHING,
                "outcome": "unreachable",
                "msg": "The till did not answer: %s" % error,
            }
        except AnsibleError as error:
            answer = {"failed": True, "msg": str(error)}
        answer = judged(answer)
        if answer["outcome"] == "no devices" and boolean(self._task.args["devices_required"]):
            answer["outcome"] = "failed"
        if self._task.check_mode:
            answer["changed"] = answer["outcome"] == "due"
        else:
            answer.pop("diff", None)
        self._keep_trace(answer.pop("trace", ""))
        return answer

    def _ask_with_files(self, names):
        if self._connection._shell.tmpdir is None:
            self._make_tmp_path()
        directory = self._connection._shell.tmpdir
        try:
            for name in names:
                local = os.path.join(self._task.args["source"], name)
                self._transfer_file(local, self._connection._shell.join_path(directory, name))
            return self._module(brought=directory)
        finally:
            self._remove_tmp_path(directory)

    def _keep_trace(self, packed):
        """The trace of the list is what the rehearsal is made from. It comes from a till: it may be
        anything, and unpack to any length."""
        try:
            trace = zlib.decompressobj().decompress(base64.b64decode(packed), LONGEST_TRACE)
        except (ValueError, zlib.error):
            return
        if trace:
            with open(self.rollout.path(self.name, "trace.log"), "wb") as file:
                file.write(trace)

    def _update(self):
        known = self.rollout.till(self.name)
        due = known.get("outcome") == "due"
        if self._task.check_mode or not (due or known.get("outcome") in ("current", "no devices")):
            return None
        stop = self.rollout.stop()
        if stop:
            return {**known, "outcome": "not begun", "msg": stop} if due else None
        if not due:
            return self._settle(known)
        try:
            answer = judged(self._module())
        except AnsibleConnectionFailure as error:
            answer = {**NOTHING, "msg": "The till was lost during its update: %s" % error}
        except AnsibleError as error:
            answer = {**NOTHING, "msg": str(error)}
        return {**known, **answer}

    def _settle(self, known):
        """Nothing is due, but files that were brought are to stay."""
        if not known.get("staged"):
            return None
        try:
            answer = judged(self._module(state="settled"))
        except AnsibleError as error:
            answer = {**NOTHING, "msg": str(error)}
        return {**known, "changed": True} if answer["outcome"] == "settled" else {**known, **answer}
