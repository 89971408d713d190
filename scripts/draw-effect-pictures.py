#!/usr/bin/python3
"""Draws the colour-map animations, the effect group icons, the colour effects' button
pictures and the screen modes' pictures shipped in data/.

A colour map is played row by row (30 rows a second at speed 1.0), its columns laid along the
strip, so every picture here is periodic in its height: the last row flows into the first.
Usage: scripts/draw-effect-pictures.py [data-dir]   (default: the repository's data/)
"""
import colorsys
import math
import os
import sys

from PIL import Image, ImageDraw

W = 256  # columns, stretched over the strip
H = 300  # rows: a 10 second loop at speed 1.0
TAU = 2.0 * math.pi


def clamp(v):
    return max(0, min(255, int(round(v))))


def rgb(r, g, b):
    return (clamp(r), clamp(g), clamp(b))


def hsv(h, s, v):
    r, g, b = colorsys.hsv_to_rgb(h % 1.0, max(0.0, min(1.0, s)), max(0.0, min(1.0, v)))
    return rgb(r * 255, g * 255, b * 255)


def lerp(a, b, t):
    return a + (b - a) * t


def palette(stops, t):
    """Piecewise linear colour ramp; stops are (position, (r, g, b)) in ascending order."""
    t = max(0.0, min(1.0, t))
    for (p0, c0), (p1, c1) in zip(stops, stops[1:]):
        if t <= p1:
            u = 0.0 if p1 == p0 else (t - p0) / (p1 - p0)
            return tuple(lerp(c0[i], c1[i], u) for i in range(3))
    return stops[-1][1]


def loop_noise(x, t, seeds):
    """Smooth pseudo-noise in 0..1, periodic in t over one loop (integer time frequencies)."""
    v = 0.0
    for fx, ft, ph, amp in seeds:
        v += amp * math.sin(TAU * (fx * x + ft * t) + ph)
    total = sum(s[3] for s in seeds)
    return 0.5 + 0.5 * v / total


def hue_waves(x, t):
    # Rainbow drifting along the strip, with a breathing ripple in saturation.
    h = x + t * 2.0 + 0.06 * math.sin(TAU * (2 * x - 3 * t))
    s = 0.85 + 0.15 * math.sin(TAU * (3 * x + 5 * t))
    return hsv(h, s, 1.0)


FIRE = [(0.0, (20, 0, 0)), (0.3, (150, 10, 0)), (0.6, (255, 80, 0)), (0.85, (255, 170, 20)), (1.0, (255, 240, 160))]
FIRE_SEEDS = [(1.0, 7, 0.3, 1.0), (2.7, -11, 1.7, 0.8), (5.3, 17, 4.1, 0.5), (9.1, -23, 2.2, 0.35), (13.0, 29, 0.9, 0.2)]


def fire(x, t):
    # Flickering embers: hot near both ends of the strip, licking flames between.
    base = 0.6 + 0.3 * math.cos(TAU * x) ** 2
    n = loop_noise(x, t, FIRE_SEEDS)
    heat = base * (0.3 + 1.0 * n * n)
    return rgb(*palette(FIRE, heat))


OCEAN = [(0.0, (0, 10, 40)), (0.35, (0, 50, 120)), (0.65, (0, 130, 170)), (0.85, (40, 200, 210)), (1.0, (220, 250, 255))]


def ocean(x, t):
    # Long swells rolling one way, a shorter chop the other, foam on the crests.
    swell = math.sin(TAU * (2 * x - 3 * t))
    chop = math.sin(TAU * (5 * x + 7 * t) + 1.3)
    v = 0.5 + 0.32 * swell + 0.12 * chop
    crest = max(0.0, swell * chop) ** 3
    return rgb(*palette(OCEAN, min(1.0, v + 0.4 * crest)))


AURORA = [(0.0, (0, 255, 120)), (0.45, (0, 200, 200)), (0.75, (120, 60, 255)), (1.0, (255, 40, 180))]
AURORA_SEEDS = [(1.3, 3, 0.0, 1.0), (2.1, -5, 2.0, 0.7), (3.7, 4, 4.0, 0.4)]


def aurora(x, t):
    # Soft green-to-violet curtains over a night sky, folding slowly.
    curtain = loop_noise(x, t, AURORA_SEEDS)
    glow = max(0.0, math.sin(TAU * (1.5 * x + t) + 3.0 * curtain)) ** 2
    hue_t = 0.5 + 0.5 * math.sin(TAU * (x - 2 * t) + curtain)
    c = palette(AURORA, hue_t)
    sky = (2, 4, 18)
    return rgb(*(lerp(sky[i], c[i], 0.15 + 0.85 * glow) for i in range(3)))


SUNSET = [(0.0, (255, 30, 60)), (0.3, (255, 90, 20)), (0.55, (255, 170, 40)), (0.8, (200, 40, 160)), (1.0, (255, 30, 60))]


def lava(x, t):
    # Molten warm bands crawling along, brightening and dimming like slow breathing.
    t_band = (x * 1.5 + t * 3.0 + 0.1 * math.sin(TAU * (3 * x + 2 * t))) % 1.0
    c = palette(SUNSET, t_band)
    breathe = 0.7 + 0.3 * math.sin(TAU * 5 * t) ** 2
    return rgb(*(v * breathe for v in c))


COMETS = [  # (speed in strip lengths per loop, start, hue)
    (3, 0.0, 0.55),
    (-4, 0.33, 0.92),
    (5, 0.66, 0.15),
]


def comets(x, t):
    # Three coloured comets with long tails racing over a deep blue night.
    r, g, b = 3.0, 5.0, 25.0
    for speed, start, hue in COMETS:
        head = (start + speed * t) % 1.0
        d = (head - x) % 1.0 if speed > 0 else (x - head) % 1.0  # distance behind the head
        if d < 0.35:
            k = (1.0 - d / 0.35) ** 2.5
            cr, cg, cb = colorsys.hsv_to_rgb(hue, 1.0 - 0.8 * k ** 6, 1.0)
            r += 255 * cr * k
            g += 255 * cg * k
            b += 255 * cb * k
    return rgb(r, g, b)


MAPS = {
    3: hue_waves,
    4: fire,
    5: ocean,
    6: aurora,
    7: lava,
    8: comets,
}


def draw_map(fn):
    img = Image.new("RGB", (W, H))
    px = img.load()
    for y in range(H):
        t = y / H
        for x in range(W):
            px[x, y] = fn(x / W, t)
    return img


def draw_group_icons(folder):
    """Round 64 x 64 icons for the four groups."""
    os.makedirs(folder, exist_ok=True)
    size = 64

    def base():
        img = Image.new("RGBA", (size, size), (0, 0, 0, 0))
        return img, ImageDraw.Draw(img)

    # Single colour: one warm disc with a soft ring.
    img, d = base()
    d.ellipse((4, 4, 60, 60), outline=(255, 170, 60, 255), width=4)
    d.ellipse((16, 16, 48, 48), fill=(255, 170, 60, 255))
    img.save(os.path.join(folder, "singleColor.png"))

    # Colourful: a ring of rainbow segments.
    img, d = base()
    for i in range(12):
        d.pieslice((4, 4, 60, 60), i * 30, i * 30 + 28, fill=hsv(i / 12, 1.0, 1.0) + (255,))
    d.ellipse((18, 18, 46, 46), fill=(0, 0, 0, 0))
    img.save(os.path.join(folder, "colorful.png"))

    # Screen sync: a monitor with glowing edges.
    img, d = base()
    d.rounded_rectangle((6, 10, 58, 46), radius=4, outline=(90, 200, 255, 255), width=4)
    d.rectangle((14, 18, 50, 38), fill=(40, 80, 140, 255))
    d.rectangle((28, 46, 36, 52), fill=(90, 200, 255, 255))
    d.rectangle((20, 52, 44, 56), fill=(90, 200, 255, 255))
    img.save(os.path.join(folder, "screenSync.png"))

    # Music: spectrum bars.
    img, d = base()
    for i, hgt in enumerate((20, 38, 50, 30, 44, 24)):
        x0 = 6 + i * 9
        d.rectangle((x0, 58 - hgt, x0 + 6, 58), fill=hsv(0.8 - i * 0.1, 0.8, 1.0) + (255,))
    img.save(os.path.join(folder, "dynamicMusic.png"))


def rounded(img, radius=14):
    mask = Image.new("L", img.size, 0)
    ImageDraw.Draw(mask).rounded_rectangle((0, 0, img.size[0] - 1, img.size[1] - 1), radius=radius, fill=255)
    out = Image.new("RGBA", img.size, (0, 0, 0, 0))
    out.paste(img.convert("RGBA"), (0, 0), mask)
    return out


def draw_music_icons(folder):
    """100 x 100 button pictures of the music modes, each showing its mode at a glance."""
    os.makedirs(folder, exist_ok=True)
    size = 100
    heat = [(0.0, (0, 255, 0)), (0.5, (255, 255, 0)), (1.0, (255, 0, 0))]
    cold_hot = [(0.0, (0, 0, 255)), (1.0, (255, 0, 0))]
    background = (22, 22, 28)

    def save(img, n):
        rounded(img).save(os.path.join(folder, "com_orvanta_dynamicMusic_mode_%d.png" % n))

    def bars(heights, colour_of, peaks=None):
        img = Image.new("RGB", (size, size), background)
        d = ImageDraw.Draw(img)
        n = len(heights)
        step = 84.0 / n
        for i, h in enumerate(heights):
            x0, x1 = 8 + i * step + 1, 8 + (i + 1) * step - 2
            top = 90 - 78 * h
            for y in range(int(top), 90):
                d.line((x0, y, x1, y), fill=colour_of(h, (90 - y) / 78.0))
            if peaks:
                py = 90 - 78 * peaks[i] - 4
                d.rectangle((x0, py, x1, py + 2), fill=(235, 235, 245))
        return img

    # Mode 1, level meter: bars of heat colours, green at the foot, red at the head.
    levels = [0.35, 0.7, 0.95, 0.6, 0.8, 0.45, 0.25]
    save(bars(levels, lambda h, t: rgb(*palette(heat, t / max(h, 0.01)))), 1)

    # Mode 2, mood pulse: the mood gradient, brightest where the beat pulses.
    stops = [(0.0, (255, 40, 20)), (0.3, (255, 140, 0)), (0.5, (255, 220, 80)), (0.75, (200, 30, 120)),
             (1.0, (255, 40, 20))]
    img = Image.new("RGB", (size, size))
    px = img.load()
    for y in range(size):
        for x in range(size):
            c = palette(stops, (x / size + 0.1 * math.sin(TAU * y / size)) % 1.0)
            wave = 50 + 30 * math.sin(TAU * x / 33.0) * math.exp(-abs(x - 50) / 40.0)
            k = 1.0 if abs(y - wave) < 4 else 0.18 + 0.5 * math.exp(-abs(y - wave) / 12.0)
            px[x, y] = rgb(*(v * k for v in c))
    save(img, 2)

    # Mode 3, peak colour: each bar in one colour of a blue-to-red gradient, with a falling peak.
    levels = [0.3, 0.55, 0.9, 0.65, 0.4]
    save(bars(levels, lambda h, t: rgb(*palette(cold_hot, h)), [min(1.0, h + 0.08) for h in levels]), 3)

    # Mode 4, spectrum: a mirrored analyser, one narrow band per LED, blue at the ends.
    half = [0.2, 0.3, 0.45, 0.4, 0.6, 0.75, 0.7, 0.9]
    levels = half + half[::-1]
    save(bars(levels, lambda h, t: rgb(*palette(cold_hot, h))), 4)


def draw_effect_icons(folder, maps):
    """100 x 100 button pictures of the colour effects, named after the effect id."""
    os.makedirs(folder, exist_ok=True)
    size = 100

    def save(img, effect_id):
        rounded(img).save(os.path.join(folder, effect_id.replace(".", "_") + ".png"))

    # Single colour: a warm glow fading out from the middle.
    img = Image.new("RGB", (size, size))
    px = img.load()
    for y in range(size):
        for x in range(size):
            d = math.hypot(x - 49.5, y - 49.5) / 70.0
            k = max(0.0, 1.0 - d) ** 1.5
            px[x, y] = rgb(30 + 225 * k, 24 + 150 * k, 20 + 60 * k)
    save(img, "com.orvanta.singleColor.singleColor1")

    # Flowing: a diagonal rainbow.
    img = Image.new("RGB", (size, size))
    px = img.load()
    for y in range(size):
        for x in range(size):
            px[x, y] = hsv((x + y) / 200.0, 0.9, 1.0)
    save(img, "com.orvanta.colorful.flowingEffect")

    # Mood shadow: soft horizontal gradient bands like a strap being slid along.
    stops = [(0.0, (255, 40, 20)), (0.3, (255, 140, 0)), (0.5, (255, 220, 80)), (0.75, (200, 30, 120)),
             (1.0, (255, 40, 20))]
    img = Image.new("RGB", (size, size))
    px = img.load()
    for y in range(size):
        for x in range(size):
            t = (x / size + 0.15 * math.sin(TAU * y / size)) % 1.0
            c = palette(stops, t)
            shade = 0.55 + 0.45 * math.sin(math.pi * y / (size - 1))
            px[x, y] = rgb(*(v * shade for v in c))
    save(img, "com.orvanta.colorful.moodShadow")

    # Colour maps: the picture itself.
    for n, img in maps.items():
        save(img.resize((size, size), Image.BILINEAR), "com.orvanta.colorful.ColorMap_%d" % n)


def draw_screen_icons(folder):
    """100 x 100 pictures of the screen modes: a small screen whose sampled part glows."""
    os.makedirs(folder, exist_ok=True)
    size = 100
    left, top, right, bottom = 14, 22, 86, 70  # the screen inside its bezel
    w, h = right - left, bottom - top
    picture = [(0.0, (40, 90, 200)), (0.5, (230, 120, 60)), (1.0, (60, 200, 150))]

    def inside(kind, x, y):
        u, v = (x - left) / w, (y - top) / h
        if kind == "full":
            return min(u, v, 1 - u, 1 - v) < 0.2
        if kind == "cinema":
            return 0.1 < u < 0.9 and 0.1 < v < 0.9 and min(u - 0.1, v - 0.1, 0.9 - u, 0.9 - v) < 0.16
        return {"top": v < 0.2, "bottom": v > 0.8, "left": u < 0.2, "right": u > 0.8}[kind]

    def draw(kind, name):
        img = Image.new("RGB", (size, size), (26, 26, 30))
        d = ImageDraw.Draw(img)
        d.rounded_rectangle((left - 5, top - 5, right + 5, bottom + 5), radius=5, fill=(70, 72, 80))
        d.rectangle((44, bottom + 5, 56, bottom + 13), fill=(70, 72, 80))
        d.rounded_rectangle((32, bottom + 13, 68, bottom + 17), radius=2, fill=(70, 72, 80))
        px = img.load()
        for y in range(top, bottom):
            for x in range(left, right):
                c = palette(picture, (x - left) / w * 0.7 + (y - top) / h * 0.3)
                if kind == "cinema" and not (0.1 < (y - top) / h < 0.9):
                    c = (0, 0, 0)  # the film's black bars
                glow = inside(kind, x, y)
                px[x, y] = rgb(*(v * (1.0 if glow else 0.28) + (40 if glow else 0) for v in c))
        rounded(img).save(os.path.join(folder, name))

    for kind, name in (("full", "fullScreen.png"), ("cinema", "04-fpng.png"), ("top", "05-fpng.png"),
                       ("bottom", "06-fpng.png"), ("left", "07-fpng.png"), ("right", "08-fpng.png")):
        draw(kind, name)


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    data = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "data")
    out = os.path.join(data, "effects", "colorful")
    os.makedirs(out, exist_ok=True)
    maps = {}
    for n, fn in MAPS.items():
        path = os.path.join(out, "ColorMap_%d.png" % n)
        maps[n] = draw_map(fn)
        maps[n].save(path, optimize=True)
        print(path)
    draw_music_icons(os.path.join(data, "images", "icons"))
    draw_group_icons(os.path.join(data, "images", "groups"))
    draw_effect_icons(os.path.join(data, "images", "icons"), maps)
    draw_screen_icons(os.path.join(data, "images"))


if __name__ == "__main__":
    main()
