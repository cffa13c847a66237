"""Begins a roll-out and each of its batches, on the controller."""

import os
import shutil

import yaml

from ansible.module_utils.parsing.convert_bool import boolean
from ansible.plugins.action import ActionBase
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.firmware import (
    faults_of_files,
    firmware_files,
)
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.report import write_report
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.rollout import (
    Rollout,
    chosen_canaries,
)

UPDATING = {"all", "update"}


def is_updating(task_vars):
    """Whether this play updates, and does not only ask or rehearse."""
    return (
        not task_vars["ansible_check_mode"]
        and not UPDATING.isdisjoint(task_vars["ansible_run_tags"])
        and "update" not in task_vars["ansible_skip_tags"]
    )


def unknown_variables(task_vars, tills):
    """Variables that look like the role's and are none, a text each."""
    name = os.path.join(task_vars["role_path"], "meta", "argument_specs.yml")
    with open(name, encoding="utf-8") as file:
        known = yaml.safe_load(file)["argument_specs"]["main"]["options"]
    unknown = {}
    for till in tills:
        for variable in task_vars["hostvars"][till]:
            is_ours = variable.startswith("zelfwupdate_") and variable[12:13] != "_"
            if is_ours and variable not in known:
                unknown.setdefault(variable, till)
    return ["%s (of %s)" % entry for entry in sorted(unknown.items())]


class ActionModule(ActionBase):
    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        arguments = self._task.args
        rollout = Rollout(arguments["collection"])
        if arguments["state"] == "begun":
            result.update(self._begin(rollout, arguments, task_vars))
        elif arguments["state"] == "batch":
            result["stop"] = rollout.stop_before(task_vars["ansible_play_batch"])
            rollout.keep_stop(result["stop"])
        else:
            rollout.put(
                task_vars["inventory_hostname"],
                {
                    "outcome": arguments["state"],
                    "msg": arguments["msg"],
                    "exit_code": "",
                    "due": [],
                    "changes": [],
                },
            )
        return result

    def _begin(self, rollout, arguments, task_vars):
        tills = task_vars["ansible_play_hosts_all"]
        updating = is_updating(task_vars)
        canaries = chosen_canaries(arguments["canaries"], tills, task_vars["groups"])
        fault = self._fault(arguments, task_vars, tills, canaries)
        if fault:
            return {"failed": True, "msg": fault}
        canaries = canaries if updating else []
        files = firmware_files(arguments["firmware"])
        faults = faults_of_files(arguments["firmware"], files)
        stop = "Nothing was brought to any till: " + "; ".join(faults) if faults else ""
        limit = int(arguments["max_failures"]) if updating else 0
        rollout.begin(tills, canaries, limit, stop)
        if stop:
            rows, _ = write_report(rollout)
            return {"failed": True, "msg": stop, "tills": len(rows)}
        rest = [arguments["batch"]] if updating else ["100%"]
        return {
            "files": files,
            "updating": updating,
            "order": canaries + [till for till in tills if till not in set(canaries)],
            "serial": ([len(canaries)] if canaries else []) + rest,
        }

    def _fault(self, arguments, task_vars, tills, canaries):
        """What keeps a roll-out from beginning, None when nothing does."""
        unknown = unknown_variables(task_vars, tills)
        if unknown:
            return "The role has no variable " + ", ".join(unknown)
        if canaries is None:
            return (
                "zelfwupdate_canaries is no number, per cent or group: %s" % arguments["canaries"]
            )
        if not str(arguments["batch"]).removesuffix("%").isdigit():
            return "zelfwupdate_batch is no number or per cent: %s" % arguments["batch"]
        if int(arguments["max_failures"]) < 0 or int(arguments["at_once"]) < 1:
            return "zelfwupdate_max_failures is below 0, or zelfwupdate_at_once below 1"
        if boolean(arguments["rehearsal"]) and not shutil.which("zelfwsim"):
            return "A rehearsal wants zelfwsim here; zelfwupdate_rehearsal leaves it out"
        if not os.path.isdir(arguments["firmware"]) or not firmware_files(arguments["firmware"]):
            return "There are no *.dat files in %s" % arguments["firmware"]
        return None
