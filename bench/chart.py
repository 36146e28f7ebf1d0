"""The picture of the report: how far each row is from its target."""

from html import escape

TITLE_WIDTH, TARGET_X, ROW, TOP, LABEL_WIDTH = 320, 560, 22, 56, 310
MOST = 2.2  # in targets; longer bars are broken off

STYLE = """
  text { font: 12px system-ui, sans-serif; fill: #24292f }
  .head { font-weight: 600; font-size: 14px }
  .quiet { fill: #6e7781 }
  .yes { fill: #2da44e } .no { fill: #d4752a }
  .line { stroke: #24292f; stroke-width: 1.5 }
  .stripe { fill: #8c959f; opacity: .10 }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 } .quiet { fill: #9198a1 } .line { stroke: #e6edf3 }
    .yes { fill: #3fb950 } .no { fill: #db8b4b }
  }"""


def bars_of(comparison):
    """(share of the target, label) of each ratio that has one and was measured."""
    row, found = comparison.row, []
    for ratio, target, other in ((comparison.peer_ratio, row.peer, comparison.peer_name),
                                 (comparison.limit_ratio, row.limit, "limit")):
        if ratio is not None and target is not None:
            found.append((ratio / target, f"{ratio:.2f} of {other}, to reach {target:.2f}"))
    return found


def bar(y, title, share, label):
    scale = TARGET_X - TITLE_WIDTH
    width = min(share, MOST) * scale
    kind = "yes" if round(share, 2) <= 1 else "no"
    x = max(TITLE_WIDTH + width, TARGET_X) + 6  # never under the line
    if share > MOST:
        label += " »"
    return (f'<text x="{TITLE_WIDTH - 8}" y="{y + 14}" text-anchor="end">{escape(title)}</text>'
            f'<rect class="{kind}" x="{TITLE_WIDTH}" y="{y + 4}" width="{width:.1f}" height="13" '
            f'rx="2"/>'
            f'<text class="quiet" x="{x:.1f}" y="{y + 14}">{escape(label)}</text>')


def draw(comparisons):
    lines = [(c.row.title, share, label) for c in comparisons for share, label in bars_of(c)]
    height = TOP + ROW * len(lines) + 16
    width = TITLE_WIDTH + MOST * (TARGET_X - TITLE_WIDTH) + LABEL_WIDTH
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" '
             f'role="img" aria-label="Ratios against their targets">',
             f"<style>{STYLE}</style>",
             f'<text class="head" x="{TITLE_WIDTH}" y="22">Ratios to peers and limits, in parts of '
             f'their targets (shorter is faster)</text>',
             f'<text class="quiet" x="{TARGET_X}" y="42" text-anchor="middle">target</text>']
    for i in range(0, len(lines), 2):
        parts.append(f'<rect class="stripe" x="0" y="{TOP + i * ROW}" width="{width:.0f}" '
                     f'height="{ROW}"/>')
    parts += [bar(TOP + i * ROW, *line) for i, line in enumerate(lines)]
    parts.append(f'<line class="line" x1="{TARGET_X}" x2="{TARGET_X}" y1="48" y2="{height - 12}"/>')
    return "\n".join(parts + ["</svg>", ""])
