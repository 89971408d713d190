#!/usr/bin/env python3
"""Writes the default LED map of every model in data/controler_config/OVController.json.

Each map places the LEDs on a 120 x 67 virtual screen, every LED once, 3 pixels in from the
edge (a desktop panel along an edge must not fill its LEDs), each line's LEDs evenly spaced
along one edge in strip order. One line: the bottom, left to right. Two: left upward, right
downward. Three: left upward, top left to right, right downward. Four: those, then the bottom
right to left.
"""
import json
import pathlib
import sys

WIDTH, HEIGHT, INSET = 120, 67, 3
ROOT = pathlib.Path(__file__).resolve().parent.parent
CONFIG = ROOT / "data" / "controler_config"

LEFT, RIGHT = INSET, WIDTH - 1 - INSET
TOP, BOTTOM = INSET, HEIGHT - 1 - INSET

# Edge name -> function of (i, n) giving the i-th of n points in strip order.
def spread(first, last, i, n):
    """The centre of the i-th of n equal parts of first..last, walking from first to last."""
    span = last - first
    return first + int(round(span * (i + 0.5) / n))

EDGES = {
    "bottom-right": lambda i, n: (spread(LEFT, RIGHT, i, n), BOTTOM),
    "left-up": lambda i, n: (LEFT, spread(BOTTOM, TOP, i, n)),
    "top-right": lambda i, n: (spread(LEFT, RIGHT, i, n), TOP),
    "right-down": lambda i, n: (RIGHT, spread(TOP, BOTTOM, i, n)),
    "bottom-left": lambda i, n: (spread(RIGHT, LEFT, i, n), BOTTOM),
}
LAYOUTS = {
    1: ["bottom-right"],
    2: ["left-up", "right-down"],
    3: ["left-up", "top-right", "right-down"],
    4: ["left-up", "top-right", "right-down", "bottom-left"],
}


def make_map(model, entry):
    lines = entry.get("lines", [])
    if len(lines) not in LAYOUTS:
        sys.exit(f"make-led-maps: model {model} has {len(lines)} lines; only 1 to 4 are laid out")
    if sum(lines) != entry.get("nbLeds"):
        sys.exit(f"make-led-maps: model {model}: the lines do not add up to nbLeds")
    leds = []
    for count, edge in zip(lines, LAYOUTS[len(lines)]):
        for i in range(count):
            x, y = EDGES[edge](i, count)
            leds.append({"id": len(leds) + 1, "x": x, "y": y})
    return {"screenWidth": WIDTH, "screenHeight": HEIGHT, "ledMap": leds}


def main():
    models = json.loads((CONFIG / "OVController.json").read_text(encoding="utf-8"))
    for model, entry in sorted(models.items()):
        target = CONFIG / f"{model}.json"
        target.write_text(json.dumps(make_map(model, entry), indent=1) + "\n", encoding="utf-8")
        print(f"make-led-maps: wrote {target.relative_to(ROOT)}")


if __name__ == "__main__":
    main()
