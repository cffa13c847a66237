"""The firmware files of the controller."""

import hashlib
import os
import subprocess


def firmware_files(directory):
    """The names of the firmware files of a directory, with their SHA-1 checksums."""
    files = {}
    for name in sorted(os.listdir(directory)):
        path = os.path.join(directory, name)
        if name.lower().endswith(".dat") and os.path.isfile(path):
            with open(path, "rb") as file:
                files[name] = hashlib.sha1(file.read()).hexdigest()
    return files


def faults_of_files(directory, names):
    """What is wrong with files that are not whole, a line each."""
    command = ["zelfwfile", "check", "--"]
    command += [os.path.join(os.path.abspath(directory), name) for name in names]
    try:
        check = subprocess.run(
            command, capture_output=True, text=True, errors="replace", check=False
        )
    except OSError as error:
        return [str(error)]
    if check.returncode == 0:
        return []
    lines = (check.stdout + check.stderr).splitlines()
    faults = [line for line in lines if ": OK: " not in line]
    return faults or ["zelfwfile check ended with exit code %d" % check.returncode]
