# SPDX-License-Identifier: BSD-3-Clause
"""Draws the results as bars, a group a scenario."""
import subprocess


def draw(path, names, results):
    names = [name for name in names if any(result[name] is not None for result in results)]
    rows = [" ".join([result["scenario"]] + ["NaN" if result[name] is None else f"{result[name]:.1f}" for name in names])
            for result in results]
    bars = [f"'-' using {number}:xtic(1) title '{name}'" for number, name in enumerate(names, 2)]
    script = [
        "set terminal svg size 1000,420 background '#ffffff' font 'sans,12'",
        f"set output '{path}'",
        "set style data histograms",
        "set style fill solid 0.9",
        "set boxwidth 0.9",
        "set logscale y",
        "set grid ytics",
        "set key top left",
        "set ylabel 'cycles per packet (less is better)'",
        "plot " + ", ".join(bars),
    ]
    subprocess.run(["gnuplot"], input="\n".join(script + (rows + ["e"]) * len(names)) + "\n", text=True, check=True)
