#!/usr/bin/env python3
"""Brings translations/orvanta_en.ts and orvanta_zh.ts up to date with the sources.

lupdate finds every tr() text and every text of the forms under src/; the contexts whose texts
come from data at run time ("GroupInformation", "EffectNames") are kept as they are, since no
source names them. Translations already made are kept; new texts arrive unfinished. The Chinese
file holds every source text as its own translation: the sources are Chinese, and a file of
their language is what lets the settings list Chinese to come back to from English.

  scripts/update-translations.py           update the files, list what still needs English
  scripts/update-translations.py --check   change nothing; exit 1 if any text lacks English or
                                           a file is not as this script would write it
"""
import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TS = os.path.join(ROOT, "translations", "orvanta_en.ts")
TS_ZH = os.path.join(ROOT, "translations", "orvanta_zh.ts")
DATA_CONTEXTS = ("GroupInformation", "EffectNames")


def read_ts(path):
    """{context: {source: (translation, finished)}} in file order."""
    contexts = {}
    if not os.path.exists(path):
        return contexts
    for ctx in ET.parse(path).getroot().iter("context"):
        name = ctx.findtext("name")
        messages = contexts.setdefault(name, {})
        for msg in ctx.iter("message"):
            tr = msg.find("translation")
            text = tr.text if tr is not None and tr.text else ""
            finished = tr is not None and tr.get("type") not in ("unfinished", "vanished", "obsolete")
            messages[msg.findtext("source")] = (text, finished and bool(text))
    return contexts


def scan_sources():
    with tempfile.TemporaryDirectory() as tmp:
        out = os.path.join(tmp, "scan.ts")
        subprocess.run(["lupdate", "-silent", "-locations", "none", "-extensions", "cpp,h,ui",
                        os.path.join(ROOT, "src"), "-ts", out], check=True)
        return read_ts(out)


def write_ts(contexts, path, language="en_US"):
    ts = ET.Element("TS", version="2.1", language=language, sourcelanguage="zh_CN")
    for name in sorted(contexts):
        ctx = ET.SubElement(ts, "context")
        ET.SubElement(ctx, "name").text = name
        for source, (text, finished) in contexts[name].items():
            msg = ET.SubElement(ctx, "message")
            ET.SubElement(msg, "source").text = source
            tr = ET.SubElement(msg, "translation")
            tr.text = text
            if not finished:
                tr.set("type", "unfinished")
    ET.indent(ts)
    with open(path, "w", encoding="utf-8") as f:
        f.write('<?xml version="1.0" encoding="utf-8"?>\n<!DOCTYPE TS>\n')
        f.write(ET.tostring(ts, encoding="unicode"))
        f.write("\n")


def main():
    check = "--check" in sys.argv
    existing = read_ts(TS)
    merged = {}
    for name, messages in scan_sources().items():
        old = existing.get(name, {})
        merged[name] = {src: old.get(src, ("", False)) for src in messages}
    for name in DATA_CONTEXTS:
        if name in existing:
            merged[name] = existing[name]
    chinese = {name: {src: (src, True) for src in messages} for name, messages in merged.items()}
    missing = [(c, s) for c, m in merged.items() for s, (_, done) in m.items() if not done]
    stale = [(c, s) for c, m in existing.items() for s in m if s not in merged.get(c, {})]
    for c, s in missing:
        print(f"needs English: [{c}] {s}")
    if check:
        for c, s in stale:
            print(f"no longer in the sources: [{c}] {s}")
        chinese_stale = read_ts(TS_ZH) != chinese
        if chinese_stale:
            print("translations/orvanta_zh.ts is not as the sources make it: run this script")
        sys.exit(1 if missing or stale or chinese_stale else 0)
    write_ts(merged, TS)
    write_ts(chinese, TS_ZH, "zh_CN")


if __name__ == "__main__":
    main()
