"""Paths and helpers of the Windows package's tests."""

import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
WINDOWS = ROOT / "windows"
IMAGE_BUILD = ROOT / "build" / "windows"

sys.path.insert(0, str(WINDOWS))

CROSS_COMPILER = [
    "x86_64-w64-mingw32-g++", "-std=gnu++20", "-ffreestanding", f"-I{ROOT}",
    "-isystem", "/usr/x86_64-w64-mingw32/include/ddk",
]
HOST_COMPILER = ["g++", "-std=gnu++20", "-Wall", "-Wextra", "-Werror", f"-I{ROOT}"]


def run(*command, **options):
    """Runs a command; its output is the message when it fails."""
    words = [str(word) for word in command]
    done = subprocess.run(words, capture_output=True, text=True, **options)
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(words)}\n{done.stdout}{done.stderr}")
    return done.stdout


def build_image(directory, *sources):
    run(WINDOWS / "build_image.sh", directory, *sources)
