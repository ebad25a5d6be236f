#!/usr/bin/env python3
"""Draws folded stacks (call_profile.py's second output) as a flame graph SVG.

    flame_graph.py folded.txt "title" > graph.svg

Each box is a frame, as wide as the samples under it, its callers below
it; a box's title (shown on hover) gives its samples and share.
"""
import html
import sys
import zlib

WIDTH, ROW, FONT = 1400, 16, 11


def trie(lines):
    root = {"n": 0, "kids": {}}
    for line in lines:
        stack, _, count = line.rstrip("\n").rpartition(" ")
        if not stack:
            continue
        n = int(count)
        root["n"] += n
        node = root
        for frame in stack.split(";"):
            node = node["kids"].setdefault(frame, {"n": 0, "kids": {}})
            node["n"] += n
    return root


def colour(name):
    h = zlib.crc32(name.encode())
    return "rgb(%d,%d,%d)" % (205 + h % 50, 80 + (h >> 8) % 120, 40 + (h >> 16) % 50)


def draw(node, name, x, depth, scale, total, out, height):
    w = node["n"] * scale
    if w < 0.5:
        return
    y = height - (depth + 1) * ROW
    label = html.escape(name)
    out.append('<g><title>%s (%d samples, %.1f%%)</title><rect x="%.1f" y="%d" width="%.1f" height="%d" '
               'fill="%s" rx="2"/>' % (label, node["n"], 100.0 * node["n"] / total, x, y, w, ROW - 1, colour(name)))
    chars = int(w / (FONT * 0.6))
    if chars > 3:
        text = name if len(name) <= chars else name[: chars - 2] + ".."
        out.append('<text x="%.1f" y="%d">%s</text>' % (x + 3, y + ROW - 4, html.escape(text)))
    out.append("</g>")
    for kid, child in sorted(node["kids"].items()):
        draw(child, kid, x, depth + 1, scale, total, out, height)
        x += child["n"] * scale


def depth_of(node):
    return 1 + max((depth_of(c) for c in node["kids"].values()), default=0)


def main():
    root = trie(open(sys.argv[1]))
    title = sys.argv[2] if len(sys.argv) > 2 else "flame graph"
    height = (depth_of(root) + 2) * ROW
    out = ['<?xml version="1.0" standalone="no"?>',
           '<svg version="1.1" width="%d" height="%d" xmlns="http://www.w3.org/2000/svg" '
           'font-family="monospace" font-size="%d">' % (WIDTH, height, FONT),
           '<text x="%d" y="%d" text-anchor="middle" font-size="14">%s</text>' % (WIDTH // 2, ROW, html.escape(title))]
    scale = (WIDTH - 20) / max(root["n"], 1)
    x = 10
    for kid, child in sorted(root["kids"].items()):
        draw(child, kid, x, 0, scale, root["n"], out, height)
        x += child["n"] * scale
    out.append("</svg>")
    print("\n".join(out))


if __name__ == "__main__":
    main()
