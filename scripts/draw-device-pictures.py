#!/usr/bin/python3
"""Draws the device pictures: the controller pucks shown on the home and control pages.

Outputs, relative to the repository:
  data/images/ov5512_icon.png, data/images/ov5512_image.png   the OV5512 puck with its glowing ring
  data/images/ov2408_icon.png, data/images/ov2408_image.png   the OV2408 slim bar controller
  resources/images/Ov5512Icon.jpg                             compiled-in fallback icon
Usage: scripts/draw-device-pictures.py [repository-root]
Everything is drawn at 4x and scaled down, so edges come out smooth.
"""
import colorsys
import math
import os
import sys

from PIL import Image, ImageChops, ImageDraw, ImageFilter

SS = 4  # supersampling factor


def hue_rgb(h, s=1.0, v=1.0):
    r, g, b = colorsys.hsv_to_rgb(h % 1.0, s, v)
    return (int(r * 255), int(g * 255), int(b * 255))


def lerp(a, b, t):
    return tuple(int(round(a[i] + (b[i] - a[i]) * t)) for i in range(len(a)))


def vertical_gradient(size, top, bottom):
    w, h = size
    grad = Image.new("RGBA", (1, h))
    for y in range(h):
        grad.putpixel((0, y), lerp(top, bottom, y / max(1, h - 1)))
    return grad.resize((w, h))


def masked(fill, mask):
    out = Image.new("RGBA", fill.size, (0, 0, 0, 0))
    out.paste(fill, (0, 0), mask)
    return out


def ellipse_mask(size, box):
    m = Image.new("L", size, 0)
    ImageDraw.Draw(m).ellipse(box, fill=255)
    return m


def hue_ring(size, cx, cy, rx, ry, width, phase=0.0, steps=720):
    """A ring of LEDs seen in perspective, the hue sweeping once around it."""
    layer = Image.new("RGBA", size, (0, 0, 0, 0))
    d = ImageDraw.Draw(layer)
    for i in range(steps):
        a0 = 2 * math.pi * i / steps
        a1 = 2 * math.pi * (i + 1.5) / steps
        pts = [
            (cx + (rx + width / 2) * math.cos(a0), cy + (ry + width / 2) * math.sin(a0)),
            (cx + (rx + width / 2) * math.cos(a1), cy + (ry + width / 2) * math.sin(a1)),
            (cx + (rx - width / 2) * math.cos(a1), cy + (ry - width / 2) * math.sin(a1)),
            (cx + (rx - width / 2) * math.cos(a0), cy + (ry - width / 2) * math.sin(a0)),
        ]
        d.polygon(pts, fill=hue_rgb(phase + i / steps, 0.85, 1.0) + (255,))
    return layer


def glow(layer, radius, strength=1.0):
    blurred = layer.filter(ImageFilter.GaussianBlur(radius))
    if strength != 1.0:
        a = blurred.getchannel("A").point(lambda v: min(255, int(v * strength)))
        blurred.putalpha(a)
    return blurred


def shadow(size, box, radius, opacity):
    m = Image.new("L", size, 0)
    ImageDraw.Draw(m).ellipse(box, fill=opacity)
    m = m.filter(ImageFilter.GaussianBlur(radius))
    s = Image.new("RGBA", size, (0, 0, 0, 255))
    s.putalpha(m)
    return s


def draw_puck(w, h, with_cable=True, background=None):
    """The OV5512: a round aluminium-and-glass puck with a light ring around its waist."""
    W, H = w * SS, h * SS
    img = Image.new("RGBA", (W, H), background or (0, 0, 0, 0))
    cx, cy = W * 0.5, H * 0.50
    rx = min(W * 0.40, H * 0.62)
    ry = rx * 0.42
    thick = rx * 0.22

    # cable first, so the puck sits on it
    if with_cable:
        cab = Image.new("RGBA", (W, H), (0, 0, 0, 0))
        d = ImageDraw.Draw(cab)
        pts = []
        for i in range(60):
            t = i / 59
            x = cx + rx * 0.55 + t * (W - cx - rx * 0.55 + 20 * SS)
            y = cy + ry * 0.55 + thick * 0.6 + math.sin(t * math.pi) * H * 0.10
            pts.append((x, y))
        d.line(pts, fill=(28, 30, 36, 255), width=int(rx * 0.07))
        d.line([(x, y - rx * 0.012) for x, y in pts], fill=(70, 74, 84, 255), width=max(1, int(rx * 0.012)))
        img = Image.alpha_composite(img, cab)

    img = Image.alpha_composite(
        img, shadow((W, H), (cx - rx * 1.08, cy - ry + thick * 1.2, cx + rx * 1.08, cy + ry + thick * 1.9),
                    rx * 0.10, 150))

    # the glow the ring throws on the desk
    floor = hue_ring((W, H), cx, cy + thick * 1.05, rx * 1.05, ry * 1.1, rx * 0.16, phase=0.55)
    img = Image.alpha_composite(img, glow(floor, rx * 0.12, 1.6))

    # side wall: a dark band, lit from the left
    side = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    sm = Image.new("L", (W, H), 0)
    sd = ImageDraw.Draw(sm)
    sd.ellipse((cx - rx, cy - ry + thick, cx + rx, cy + ry + thick), fill=255)
    sd.rectangle((cx - rx, cy, cx + rx, cy + thick), fill=255)
    band = Image.new("RGBA", (W, 1))
    for x in range(W):
        t = (x - (cx - rx)) / (2 * rx)
        t = max(0.0, min(1.0, t))
        v = 0.35 + 0.65 * math.sin(math.pi * (0.15 + 0.7 * t)) ** 2
        band.putpixel((x, 0), lerp((20, 22, 27, 255), (78, 82, 92, 255), v * (1.0 - 0.5 * t)))
    side.paste(band.resize((W, H)), (0, 0), sm)
    img = Image.alpha_composite(img, side)

    # the light ring: a diffuser band around the waist
    ring = hue_ring((W, H), cx, cy + thick * 0.55, rx * 1.0, ry * 1.0, thick * 0.30, phase=0.55)
    front = Image.new("L", (W, H), 0)
    ImageDraw.Draw(front).rectangle((0, cy + thick * 0.1, W, H), fill=255)
    ring.putalpha(ImageChops.multiply(ring.getchannel("A"), front))
    img = Image.alpha_composite(img, glow(ring, rx * 0.09, 2.2))
    img = Image.alpha_composite(img, glow(ring, rx * 0.025, 1.5))
    img = Image.alpha_composite(img, ring)
    core = ring.copy()
    core.putalpha(core.getchannel("A").point(lambda v: int(v * 0.55)))
    white = Image.new("RGBA", (W, H), (255, 255, 255, 0))
    white.putalpha(ImageChops.multiply(core.getchannel("A"), ellipse_mask(
        (W, H), (cx - rx * 0.98, cy + thick * 0.55 - ry * 0.98, cx + rx * 0.98, cy + thick * 0.55 + ry * 0.98))))
    img = Image.alpha_composite(img, glow(white, rx * 0.01, 0.6))

    # top: brushed dark aluminium with a glass disc
    top_box = (cx - rx, cy - ry, cx + rx, cy + ry)
    top = masked(vertical_gradient((W, H), (92, 97, 108, 255), (34, 37, 44, 255)), ellipse_mask((W, H), top_box))
    brushed = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    bd = ImageDraw.Draw(brushed)
    for k in range(1, 40):
        f = k / 40
        bd.ellipse((cx - rx * f, cy - ry * f, cx + rx * f, cy + ry * f),
                   outline=(255, 255, 255, 10 if k % 2 else 0), width=SS)
    top = Image.alpha_composite(top, masked(brushed, ellipse_mask((W, H), top_box)))
    img = Image.alpha_composite(img, top)
    rim = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    ImageDraw.Draw(rim).ellipse(top_box, outline=(170, 176, 190, 255), width=int(1.2 * SS))
    img = Image.alpha_composite(img, rim)

    gx, gy = rx * 0.62, ry * 0.62
    glass_box = (cx - gx, cy - gy, cx + gx, cy + gy)
    glass = masked(vertical_gradient((W, H), (14, 16, 22, 255), (30, 34, 44, 255)), ellipse_mask((W, H), glass_box))
    img = Image.alpha_composite(img, glass)
    # a small status light in the glass, and the reflection of a window across it
    inner = hue_ring((W, H), cx, cy, gx * 0.72, gy * 0.72, rx * 0.012, phase=0.55)
    img = Image.alpha_composite(img, glow(inner, rx * 0.02, 1.4))
    img = Image.alpha_composite(img, inner)
    refl = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    ImageDraw.Draw(refl).polygon(
        [(cx - gx * 0.9, cy - gy * 0.1), (cx - gx * 0.3, cy - gy * 0.95), (cx + gx * 0.05, cy - gy * 0.95),
         (cx - gx * 0.6, cy + gy * 0.3)], fill=(255, 255, 255, 34))
    img = Image.alpha_composite(img, masked(refl, ellipse_mask((W, H), glass_box)))
    dot = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    r = rx * 0.035
    ImageDraw.Draw(dot).ellipse((cx - r, cy - r * 0.5, cx + r, cy + r * 0.5), fill=(240, 250, 255, 255))
    img = Image.alpha_composite(img, glow(dot, rx * 0.03, 2.0))
    img = Image.alpha_composite(img, dot)

    return img.resize((w, h), Image.LANCZOS)


def draw_bar(w, h, background=None):
    """The OV2408: a slim bar controller with a light strip along its front edge."""
    W, H = w * SS, h * SS
    img = Image.new("RGBA", (W, H), background or (0, 0, 0, 0))
    x0, x1 = W * 0.08, W * 0.92
    y0, y1 = H * 0.36, H * 0.58
    depth = (y1 - y0) * 0.55

    img = Image.alpha_composite(img, shadow((W, H), (x0, y1, x1, y1 + depth * 1.6), depth * 0.5, 140))

    strip = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    sd = ImageDraw.Draw(strip)
    n = 24
    for i in range(n):
        lx0 = x0 + (x1 - x0) * (i + 0.12) / n
        lx1 = x0 + (x1 - x0) * (i + 0.88) / n
        sd.rounded_rectangle((lx0, y1 + depth * 0.18, lx1, y1 + depth * 0.62), radius=depth * 0.12,
                             fill=hue_rgb(0.95 - 0.55 * i / (n - 1), 0.85, 1.0) + (255,))
    floor = strip.transform((W, H), Image.AFFINE, (1, 0, 0, 0, 1, -depth * 0.9))
    img = Image.alpha_composite(img, glow(floor, depth * 0.6, 1.8))

    body = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    bm = Image.new("L", (W, H), 0)
    ImageDraw.Draw(bm).rounded_rectangle((x0, y1 - depth * 0.1, x1, y1 + depth * 0.8), radius=depth * 0.4, fill=255)
    body.paste(vertical_gradient((W, H), (24, 26, 31, 255), (12, 13, 16, 255)), (0, 0), bm)
    img = Image.alpha_composite(img, body)
    img = Image.alpha_composite(img, glow(strip, depth * 0.25, 2.0))
    img = Image.alpha_composite(img, strip)

    top = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    tm = Image.new("L", (W, H), 0)
    ImageDraw.Draw(tm).rounded_rectangle((x0, y0, x1, y1), radius=(y1 - y0) * 0.45, fill=255)
    top.paste(vertical_gradient((W, H), (104, 110, 122, 255), (44, 48, 56, 255)), (0, 0), tm)
    img = Image.alpha_composite(img, top)
    edge = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    ImageDraw.Draw(edge).rounded_rectangle((x0, y0, x1, y1), radius=(y1 - y0) * 0.45,
                                           outline=(180, 186, 198, 255), width=int(1.2 * SS))
    img = Image.alpha_composite(img, edge)

    # touch button and status light on the top face
    bx, by, br = x0 + (x1 - x0) * 0.86, (y0 + y1) / 2, (y1 - y0) * 0.22
    btn = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    bd = ImageDraw.Draw(btn)
    bd.ellipse((bx - br, by - br * 0.8, bx + br, by + br * 0.8), fill=(22, 24, 30, 255),
               outline=(140, 146, 160, 255), width=SS)
    dot = Image.new("RGBA", (W, H), (0, 0, 0, 0))
    ImageDraw.Draw(dot).ellipse((bx - br * 0.3, by - br * 0.22, bx + br * 0.3, by + br * 0.22),
                                fill=(120, 220, 255, 255))
    img = Image.alpha_composite(img, btn)
    img = Image.alpha_composite(img, glow(dot, br * 0.5, 2.0))
    img = Image.alpha_composite(img, dot)
    return img.resize((w, h), Image.LANCZOS)


def on_dark(img, colour=(30, 32, 38)):
    bg = Image.new("RGBA", img.size, colour + (255,))
    return Image.alpha_composite(bg, img).convert("RGB")


def main():
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    images = os.path.join(root, "data", "images")
    resources = os.path.join(root, "resources", "images")
    os.makedirs(images, exist_ok=True)
    os.makedirs(resources, exist_ok=True)

    draw_puck(128, 128, with_cable=False).save(os.path.join(images, "ov5512_icon.png"), optimize=True)
    draw_puck(480, 320).save(os.path.join(images, "ov5512_image.png"), optimize=True)
    draw_bar(128, 128).save(os.path.join(images, "ov2408_icon.png"), optimize=True)
    draw_bar(480, 320).save(os.path.join(images, "ov2408_image.png"), optimize=True)
    on_dark(draw_puck(128, 128, with_cable=False)).save(os.path.join(resources, "Ov5512Icon.jpg"), quality=92)


if __name__ == "__main__":
    main()
