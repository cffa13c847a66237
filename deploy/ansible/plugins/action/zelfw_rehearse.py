"""Rehearses here what the tills of a batch are to do, and holds back those that had better not."""

from ansible.module_utils.parsing.convert_bool import boolean
from ansible.plugins.action import ActionBase
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.rehearsal import (
    arguments_of_rehearsal,
    rehearse_all,
)
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.rollout import Rollout


class ActionModule(ActionBase):
    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        arguments = self._task.args
        rollout = Rollout(arguments["collection"])
        known = {till: rollout.till(till) for till in task_vars["ansible_play_batch"]}
        tills = [
            {
                "name": name,
                "trace": rollout.path(name, "trace.log"),
                "due": till["due"],
                "markers": till.get("markers", []),
            }
            for name, till in known.items()
            if till.get("outcome") == "due"
        ]
        chosen = arguments_of_rehearsal(arguments["arguments"], boolean(arguments["force"]))
        came = rehearse_all(tills, arguments["source"], list(arguments["files"]), chosen)
        result["rehearsed"], result["held_back"] = {}, {}
        for name, rehearsal in came.items():
            till = {**known[name], "rehearsal": rehearsal}
            result["rehearsed"][name] = rehearsal["ms"]
            if rehearsal["reason"]:
                till.update(outcome="held back", msg=rehearsal["reason"])
                result["held_back"][name] = rehearsal["reason"]
            rollout.put(name, till)
        return result
