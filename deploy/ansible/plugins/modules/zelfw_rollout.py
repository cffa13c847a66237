"""Documentation only: the action plugin of this name does it, on the controller."""

DOCUMENTATION = r"""
---
module: zelfw_rollout
short_description: Begin a roll-out and each of its batches
description:
  - Checks variables and firmware files on the controller, chooses the canaries, and says whether a batch may begin.
options:
  state:
    description:
      - V(begun) begins a roll-out over all tills of the play.
      - V(batch) gives back in C(stop) why the batch may not begin.
      - V(failed) keeps that a till has failed.
    choices: [begun, batch, failed]
    required: true
    type: str
  collection:
    description: The directory of the roll-out on the controller.
    required: true
    type: path
  firmware:
    description: The directory of the firmware files on the controller.
    type: path
  canaries:
    description: Who goes first, as a number of tills, per cent, or a group.
    type: raw
  batch:
    description: How many tills a batch has, as a number or per cent.
    type: raw
  at_once:
    description: How many tills are updated at the same time.
    type: int
  max_failures:
    description: How many failures stop the roll-out.
    type: int
  rehearsal:
    description: Whether updates are to be rehearsed.
    type: bool
  msg:
    description: Why a till has failed.
    type: str
"""
