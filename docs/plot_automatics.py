#!/usr/bin/python3
"""Draws the plots of docs/automatics.md: the automatics of the driver, converging on simulated cameras.

Needs the distribution's python3-matplotlib and a built uvcam. Run it at the root of the project:

    docs/plot_automatics.py [build/linux/uvcam]
"""
import json
import pathlib
import subprocess
import sys
import tempfile

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt

DOCS = pathlib.Path(__file__).parent


def monitor(camera, frames, settings, paced=False, size="640x480"):
    """The frames that `uvcam monitor --json` tells of, with settings that nobody else's runs have touched."""
    with tempfile.TemporaryDirectory() as folder:
        line = [UVCAM, "monitor", camera, "--json", "--frames", str(frames), "--size", size]
        line += ["--settings", f"{folder}/settings.json"] + ([] if paced else ["--free-run"])
        for setting in settings:
            line += ["--set", setting]
        output = subprocess.run(line, check=True, capture_output=True, text=True).stdout
    return [json.loads(text) for text in output.splitlines()]


def plot(name, title, runs, panels):
    """One column of panels, each {axis title: function of a frame}; a line for every run."""
    figure, axes = plt.subplots(len(panels), 1, sharex=True, figsize=(8, 2.2 * len(panels)), squeeze=False)
    for axis, (label, value) in zip(axes[:, 0], panels.items()):
        for run, frames in runs.items():
            axis.plot([frame["delivered"] for frame in frames], [value(frame) for frame in frames], label=run)
        axis.set_ylabel(label)
        axis.grid(alpha=0.3)
    axes[0, 0].set_title(title)
    axes[0, 0].legend(fontsize="small")
    axes[-1, 0].set_xlabel("frame")
    figure.tight_layout()
    figure.savefig(DOCS / f"automatics-{name}.png", dpi=90)
    plt.close(figure)
    print(f"docs/automatics-{name}.png")


def plot_exposure():
    settings = ["AutoExposureMaxValueAuto=on", "Gain=manual", "Exposure=auto"]
    runs = {
        "8 times too dark": monitor("sim:8202,light=0.125", 120, settings),
        "8 times too bright": monitor("sim:8202,light=8", 120, settings),
    }
    plot("exposure", "Exposure alone, reference 128", runs,
         {"mean": lambda frame: frame["mean"], "exposure (100 us)": lambda frame: frame["exposure"]})


def plot_gain():
    settings = ["Exposure=60", "Exposure=auto", "Gain=64", "Gain=auto"]
    runs = {"3 times too dark, exposure limit 333": monitor("sim:8202,light=0.33", 160, settings)}
    plot("gain", "Exposure up to its limit, then gain", runs,
         {"mean": lambda frame: frame["mean"], "exposure (100 us)": lambda frame: frame["exposure"],
          "gain (1/64)": lambda frame: frame["gain"]})


def plot_balance():
    settings = ["Exposure=auto", "WhiteBalance=auto"]
    runs = {f"{kelvin} K": monitor(f"sim:8201,kelvin={kelvin}", 100, settings) for kelvin in (2800, 9000)}
    plot("balance", "White balance", runs,
         {f"{colour} gain (1/64)": lambda frame, i=i: frame["wb"][i]
          for i, colour in enumerate(("red", "green", "blue"))})


def plot_focus():
    # The motor takes its time, so frames must too.
    settings = ["FocusOnePush=on"]
    runs = {f"sharp at {sharp}": monitor(f"sim:8205,sharp={sharp}", 150, settings, paced=True)
            for sharp in (300, 700)}
    plot("focus", "One-push focus, from position 500", runs,
         {"focus position": lambda frame: frame["focus"], "sharpness": lambda frame: frame["score"]})


UVCAM = sys.argv[1] if len(sys.argv) > 1 else "build/linux/uvcam"
for draw in (plot_exposure, plot_gain, plot_balance, plot_focus):
    draw()
