"""Documentation only: the action plugin of this name does it, on the controller."""

DOCUMENTATION = r"""
---
module: zelfw_collect
short_description: Collect the logs, the trace and the result file of a till
description:
  - Writes them into the till's directory of the collection.
options:
  collection:
    description: The directory of the roll-out on the controller.
    required: true
    type: path
  always:
    description: Whether to collect also when the till was not asked in this roll-out.
    required: true
    type: bool
  firmware:
    description: The till's directory of firmware files.
    type: path
  files:
    description: No firmware files.
    type: dict
  logs:
    description: The till's directory of logs and trace.
    type: path
  result:
    description: The till's result file.
    type: path
"""
