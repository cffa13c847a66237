"""Writes the table, the list and the pages of a roll-out."""

from ansible.plugins.action import ActionBase
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.report import (
    lines_to_show,
    write_report,
)
from ansible_collections.zelfwupdate.fleet.plugins.plugin_utils.rollout import FAULTS, Rollout


class ActionModule(ActionBase):
    def run(self, tmp=None, task_vars=None):
        result = super().run(tmp, task_vars)
        rollout = Rollout(self._task.args["collection"])
        rows, without_pages = write_report(rollout)
        result["table"] = lines_to_show(rows)
        result["faults"] = {
            till: row["msg"] for till, row in rows.items() if row["outcome"] in FAULTS
        }
        if without_pages:
            result["warnings"] = without_pages
        return result
