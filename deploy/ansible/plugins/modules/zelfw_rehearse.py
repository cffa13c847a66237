"""Documentation only: the action plugin of this name does it, on the controller."""

DOCUMENTATION = r"""
---
module: zelfw_rehearse
short_description: Rehearse the updates of a batch on the controller
description:
  - Runs C(zelfwsim rehearse) on the trace of each till for which an update is due.
  - Holds back a till whose rehearsal does not end with everything due installed.
options:
  collection:
    description: The directory of the roll-out on the controller.
    required: true
    type: path
  source:
    description: The directory of the firmware files on the controller.
    required: true
    type: path
  files:
    description: The firmware files with their SHA-1 checksums.
    required: true
    type: dict
  force:
    description: Whether levels that are not higher are installed, too.
    required: true
    type: bool
  arguments:
    description: Further arguments of the updater.
    required: true
    type: list
    elements: str
"""
