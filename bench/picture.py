"""Draws the ratios as bars against the line of the reference."""
from xml.sax.saxutils import escape

ROW = 22
LEFT = 330
SCALE = 110  # points for a ratio of 1
LONGEST = 4.5
COLOURS = {"minimal": "#4c72b0", "obliged": "#55a868", "nssm": "#8172b2", "openssl": "#c44e52",
           "cryptoapi": "#937860", "one-table": "#da8bc3"}


def rows_of(results):
    for entry in results:
        for reference, item in entry["references"].items():
            if "ratio" in item:
                yield entry["figure"], reference, item


def draw(results):
    rows = list(rows_of(results))
    width, height = LEFT + int(LONGEST * SCALE) + 140, 60 + ROW * len(rows)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
             'font-family="sans-serif" font-size="12">',
             f'<rect width="{width}" height="{height}" fill="white"/>',
             '<text x="10" y="20" font-size="14">Ratio of the program to its references '
             '(black: quarters of the single rounds; dashed: aim)</text>']
    for i, (figure, reference, item) in enumerate(rows):
        y = 36 + ROW * i
        length = min(item["ratio"], LONGEST) * SCALE
        parts.append(f'<text x="{LEFT - 8}" y="{y + 12}" text-anchor="end">'
                     f'{escape(figure)} / {escape(reference)}</text>')
        parts.append(f'<rect x="{LEFT}" y="{y}" width="{length:.1f}" height="15" '
                     f'fill="{COLOURS[reference]}"/>')
        low, high = (min(value, LONGEST) * SCALE for value in item["quarters"])
        parts.append(f'<line x1="{LEFT + low:.1f}" x2="{LEFT + high:.1f}" y1="{y + 7.5}" '
                     f'y2="{y + 7.5}" stroke="black" stroke-width="2"/>')
        if "aim" in item:
            x = LEFT + min(float(item["aim"].split()[1]), LONGEST) * SCALE
            parts.append(f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{y - 2}" y2="{y + 17}" '
                         'stroke="black" stroke-dasharray="3 2"/>')
        x = LEFT + max(length, high) + 6
        parts.append(f'<text x="{x:.1f}" y="{y + 12}">{item["ratio"]:.2f}</text>')
    x = LEFT + SCALE
    parts.append(f'<line x1="{x}" x2="{x}" y1="30" y2="{height - 18}" stroke="gray"/>')
    parts.append(f'<text x="{x}" y="{height - 4}" text-anchor="middle">1</text>')
    return "\n".join(parts + ["</svg>"]) + "\n"
