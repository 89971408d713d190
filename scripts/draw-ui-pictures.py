#!/usr/bin/python3
"""Renders the pictures of the compiled-in resource tree from their SVG sources.

Each picture is written at its 1x size and as a @2x file for high-density screens; the
application icon also at each size of the desktop's icon theme, for the package. The large
panels get a faint dither so that their dark gradients show no bands. Needs rsvg-convert
(librsvg2-bin) and python3-pil; run it again after editing a file in resources/art.
"""
import io
import os
import random
import subprocess
import sys
import zlib

from PIL import Image

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ART = os.path.join(ROOT, "resources", "art")
IMAGES = os.path.join(ROOT, "resources", "images")
# The desktop's icon theme files of the package: packaging/icons/<size>.png. Up to 32 px they come
# from a simplified drawing, whose larger and fewer lights stay legible, not from the full one
# scaled down.
PACKAGE_ICONS = os.path.join(ROOT, "packaging", "icons")
ICON_SIZES = (16, 22, 24, 32, 48, 64, 128, 256)
SMALL_ICON_UP_TO = 32

# source, target under resources/images, 1x width and height, dithered
PICTURES = [
    ("icon.svg", "icon.png", 256, 256, False),
    ("logo.svg", "logo.png", 150, 30, False),
    ("min.svg", "min.png", 30, 30, False),
    ("quit.svg", "quit.png", 30, 30, False),
    ("downArrow.svg", "downArrow.png", 12, 8, False),
    ("01.svg", "01.png", 64, 64, False),
    ("product00_h.svg", "product00_h.png", 298, 798, True),
    ("product01_h.svg", "product01_h.png", 915, 310, True),
    ("scroll-upArrow.svg", "icons/upArrow.png", 12, 6, False),
    ("scroll-downArrow.svg", "icons/downArrow.png", 12, 6, False),
    ("scroll-leftArrow.svg", "icons/leftArrow.png", 6, 12, False),
    ("scroll-rightArrow.svg", "icons/rightArrow.png", 6, 12, False),
    ("check.svg", "icons/check.png", 12, 12, False),
]


def render(svg, width, height):
    png = subprocess.run(["rsvg-convert", "-w", str(width), "-h", str(height), svg],
                         check=True, capture_output=True).stdout
    return Image.open(io.BytesIO(png)).convert("RGBA")


def dither(image, seed):
    # One level of luminance noise breaks the bands of 8-bit gradients on dark ground. The
    # panels are opaque, so they are stored without alpha.
    rng = random.Random(seed)
    noise = [rng.choice((-1, 0, 0, 1)) for _ in range(image.width * image.height)]
    channels = []
    for channel in image.split()[:3]:
        data = bytes(min(255, max(0, v + d)) for v, d in zip(channel.tobytes(), noise))
        channels.append(Image.frombytes("L", image.size, data))
    return Image.merge("RGB", channels)


def main():
    for source, target, width, height, dithered in PICTURES:
        for scale, suffix in ((1, ""), (2, "@2x")):
            image = render(os.path.join(ART, source), width * scale, height * scale)
            if dithered:
                image = dither(image, zlib.crc32(("%s%d" % (target, scale)).encode()))
            if image.size != (width * scale, height * scale):
                sys.exit("draw-ui-pictures: %s came out %dx%d" % (source, *image.size))
            stem, ext = os.path.splitext(target)
            path = os.path.join(IMAGES, stem + suffix + ext)
            os.makedirs(os.path.dirname(path), exist_ok=True)
            image.save(path, optimize=True)
            print("draw-ui-pictures: %s %dx%d" % (os.path.relpath(path, ROOT), *image.size))
    os.makedirs(PACKAGE_ICONS, exist_ok=True)
    for size in ICON_SIZES:
        source = "icon-small.svg" if size <= SMALL_ICON_UP_TO else "icon.svg"
        image = render(os.path.join(ART, source), size, size)
        if image.size != (size, size):
            sys.exit("draw-ui-pictures: %s came out %dx%d" % (source, *image.size))
        path = os.path.join(PACKAGE_ICONS, "%d.png" % size)
        image.save(path, optimize=True)
        print("draw-ui-pictures: %s %dx%d" % (os.path.relpath(path, ROOT), *image.size))


if __name__ == "__main__":
    main()
