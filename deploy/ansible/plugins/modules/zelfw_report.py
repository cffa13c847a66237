"""Documentation only: the action plugin of this name does it, on the controller."""

DOCUMENTATION = r"""
---
module: zelfw_report
short_description: Write table, list and pages of a roll-out
description:
  - Runs C(zelfwtrace report) for each till and for the fleet.
options:
  collection:
    description: The directory of the roll-out on the controller.
    required: true
    type: path
"""
