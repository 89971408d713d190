#!/usr/bin/python3
"""Writes the default fragments of music modes 1 and 3 for every model of
data/controler_config/OVController.json into data/effects/dynamicMusic/<model>.json.

Levels reach the modes on a 0..80 scale that follows the music: the loudest bin of the recent
sound reads 80, a bin 30 dB below it 40. A fragment shows (level + dbEnhance) * mulEnhance, so
dbEnhance -40 with mulEnhance 2.0 keeps a band 30 dB below the loudest dark and fills its bar at
the loudest. Treble is quieter in music: its bars get a smaller cut.

Layouts:
- three lines (left side upward, top left to right, right side downward): bass on the sides,
  left channel on the left, bars growing from the bottom; on the top, mids grow from the
  centre outward and highs from the corners inward, left channel on the left half.
- anything else: one meter from the centre outward, left channel to the left, bass at the centre,
  then mids, then highs at the ends.
Usage: scripts/make-music-defaults.py [data-dir]   (default: the repository's data/)
"""
import json
import os
import sys

BANDS = {
    "bass": (20.0, 250.0, -40.0),
    "mids": (250.0, 2000.0, -40.0),
    "highs": (2000.0, 16000.0, -34.0),
}
LEFT, RIGHT = 1, 2


def fragment(begin, end, band, channel, direction):
    lo, hi, cut = BANDS[band]
    return {
        "beginIndex": begin,
        "endIndex": end,
        "minFrequency": lo,
        "maxFrequency": hi,
        "dbEnhance": cut,
        "mulEnhance": 2.0,
        "soundChannel": channel,
        "dir": direction,
    }


def three_lines(lines):
    side1, top, side2 = lines
    half = top // 2
    quarter = half // 2
    t = side1  # first LED of the top line
    return {
        "bassLeft": fragment(0, side1, "bass", LEFT, 0),
        "highsLeft": fragment(t, t + quarter, "highs", LEFT, 0),
        "midsLeft": fragment(t + quarter, t + half, "mids", LEFT, 1),
        "midsRight": fragment(t + half, t + top - quarter, "mids", RIGHT, 0),
        "highsRight": fragment(t + top - quarter, t + top, "highs", RIGHT, 1),
        "bassRight": fragment(t + top, t + top + side2, "bass", RIGHT, 1),
    }


def centre_meter(n):
    half = n // 2
    bass = max(1, half // 2)
    mids = max(1, (half - bass) * 2 // 3)
    highs = half - bass - mids
    result = {
        "bassLeft": fragment(half - bass, half, "bass", LEFT, 1),
        "midsLeft": fragment(half - bass - mids, half - bass, "mids", LEFT, 1),
        "bassRight": fragment(n - half, n - half + bass, "bass", RIGHT, 0),
        "midsRight": fragment(n - half + bass, n - half + bass + mids, "mids", RIGHT, 0),
    }
    if highs > 0:
        result["highsLeft"] = fragment(0, highs, "highs", LEFT, 1)
        result["highsRight"] = fragment(n - highs, n, "highs", RIGHT, 0)
    if n % 2:  # the centre LED of an odd strip follows the bass of both channels
        result["bassCentre"] = fragment(half, half + 1, "bass", 0, 0)
    return result


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    data = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "data")
    with open(os.path.join(data, "controler_config", "OVController.json"), encoding="utf-8") as f:
        models = json.load(f)
    out = os.path.join(data, "effects", "dynamicMusic")
    os.makedirs(out, exist_ok=True)
    for model, defaults in sorted(models.items()):
        lines = defaults["lines"]
        if len(lines) == 3 and lines[1] >= 4:
            fragments = three_lines(lines)
        else:
            fragments = centre_meter(defaults["nbLeds"])
        with open(os.path.join(out, model + ".json"), "w", encoding="utf-8") as f:
            json.dump({"fragments": fragments, "strength": 2.0}, f, indent=4, sort_keys=True)
            f.write("\n")


if __name__ == "__main__":
    main()
