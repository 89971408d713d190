#!/usr/bin/python3
"""Renders the demo advertisement that servicesim serves to make run, from art/demo-ad.svg.

Needs rsvg-convert (librsvg2-bin) and python3-pil; run it again after editing the SVG.
"""
import io
import os
import subprocess

from PIL import Image

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.join(HERE, "art", "demo-ad.svg")
TARGET = os.path.join(HERE, "demo", "app", "images", "ad1_v1.png")
# The size of the home page's picture panel.
WIDTH, HEIGHT = 298, 798


def main():
    png = subprocess.run(["rsvg-convert", "-w", str(WIDTH), "-h", str(HEIGHT), SOURCE],
                         check=True, capture_output=True).stdout
    # The panel is opaque: stored without alpha.
    image = Image.open(io.BytesIO(png)).convert("RGB")
    os.makedirs(os.path.dirname(TARGET), exist_ok=True)
    image.save(TARGET, optimize=True)
    print("draw-demo-ad: %s %dx%d" % (os.path.relpath(TARGET, HERE), *image.size))


if __name__ == "__main__":
    main()
