"""The reports' pictures, drawn with matplotlib (Debian's python3-matplotlib)
without a display: the channel survey of a band and the floor plan of a
deployment with its key-holder links."""

from __future__ import annotations

from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
from matplotlib.lines import Line2D  # noqa: E402
from matplotlib.ticker import MaxNLocator  # noqa: E402

LOAD_COLOR, BSS_COLOR, INK, GREY = "#3465a4", "#f57900", "#1e1e1e", "#6e6e6e"
SURVEY_ROWS = (("CH", "CHANNEL"), ("NOISE", "NOISE_FLOOR"), ("RANK", "RANK"))
# Floor plan: how a pair of access points is linked, and how an AP is drawn.
LINKS = {
    "covered": dict(color="#2e9b3e", lw=2.2, ls="-", label="roaming candidates, key holders on both sides"),
    "missing": dict(color="#cc0000", lw=2.2, ls="--", label="roaming candidates, a key holder missing"),
    "reach": dict(color="#9a9a9a", lw=0.9, ls=":", label="key holder of an AP out of roaming reach"),
    "stale": dict(color="#e08a00", lw=1.4, ls="-.", label="stale key holder (the AP is down or gone)"),
}
AP_STYLES = {"up": dict(marker="o", color=LOAD_COLOR), "down": dict(marker="X", color="#888888"),
             "gone": dict(marker="X", color="#cccccc")}


def survey_chart(path: Path, title: str, chans: list[dict], rows=SURVEY_ROWS, bss_label: str = "BSS seen") -> None:
    """Per channel a bar of its load (left axis, %) and a bar of the BSSs
    seen (right axis), with the values of `rows` ((label, key) pairs)
    printed under each channel."""
    width = max(6.0, 0.62 * len(chans) + 1.8)
    fig, ax = plt.subplots(figsize=(width, 4.2), dpi=100)
    xs = range(len(chans))
    ax.bar([x - 0.19 for x in xs], [min(100, c["CH_LOAD"]) for c in chans], 0.36, color=LOAD_COLOR, label="load %")
    ax.set_ylim(0, 100)
    ax.set_yticks(range(0, 101, 25))
    ax.grid(axis="y", color="#e1e1e1")
    ax.set_axisbelow(True)
    right = ax.twinx()
    top = max(4, -(-max(c["NBSS"] for c in chans) // 4) * 4)
    right.bar([x + 0.19 for x in xs], [c["NBSS"] for c in chans], 0.36, color=BSS_COLOR, label=bss_label)
    right.set_ylim(0, top)
    right.yaxis.set_major_locator(MaxNLocator(integer=True))
    right.tick_params(axis="y", colors=BSS_COLOR)
    # The row names are the labels of one more tick left of the first channel,
    # so that they line up with the values.
    ax.set_xticks([-0.9, *xs])
    ax.set_xticklabels(["\n".join(label for label, _ in rows)]
                       + ["\n".join(_fmt(c[key]) for _, key in rows) for c in chans])
    ax.get_xticklabels()[0].set_color(GREY)
    ax.tick_params(axis="x", length=0)
    ax.set_xlim(-1.35, len(chans) - 0.4)
    ax.set_title(title, loc="left", fontsize=13)
    handles = [ax.containers[0], right.containers[0]]
    ax.legend(handles, [h.get_label() for h in handles], loc="upper right", fontsize=8, frameon=False, ncol=2,
              bbox_to_anchor=(1.0, 1.12))
    fig.tight_layout()
    fig.savefig(path)
    plt.close(fig)


def floor_plan(path: Path, title: str, size: tuple[float, float], walls: list, aps: list[dict], links: list,
               foreign: list) -> None:
    """walls: (x0, y0, x1, y1, loss dB); aps: dicts with name, x, y, state
    (up, down or gone); links: (name, name, kind of LINKS); foreign:
    (x, y, label) of other networks' transmitters."""
    w, d = size
    fig, ax = plt.subplots(figsize=(min(16.0, 2.0 + w / 4.0), min(12.0, 1.6 + d / 4.0)), dpi=100)
    ax.add_patch(plt.Rectangle((0, 0), w, d, fill=False, lw=2, color=INK))
    for x0, y0, x1, y1, loss in walls:
        ax.plot([x0, x1], [y0, y1], color="#5b4636", lw=1 + loss / 4, solid_capstyle="butt", zorder=1)
    where = {a["name"]: (a["x"], a["y"]) for a in aps}
    for a, b, kind in links:
        (x0, y0), (x1, y1) = where[a], where[b]
        ax.plot([x0, x1], [y0, y1], zorder=2, **{k: v for k, v in LINKS[kind].items() if k != "label"})
    for x, y, label in foreign:
        ax.plot(x, y, marker="^", color="#aa66aa", ms=7, zorder=3)
        ax.annotate(label, (x, y), textcoords="offset points", xytext=(5, -10), fontsize=7, color="#aa66aa")
    for a in aps:
        style = AP_STYLES[a["state"]]
        ax.plot(a["x"], a["y"], ms=11, zorder=4, ls="none", markeredgecolor="white", **style)
        ax.annotate(a["name"], (a["x"], a["y"]), textcoords="offset points", xytext=(7, 6), fontsize=9,
                    color=INK if a["state"] == "up" else GREY, zorder=5)
    ax.set_xlim(-1, w + 1)
    ax.set_ylim(d + 1, -1)  # y grows downwards, as on a printed floor plan
    ax.set_aspect("equal")
    ax.set_xlabel("metres")
    ax.set_title(title, loc="left", fontsize=12)
    used = {kind for _, _, kind in links}
    handles = [Line2D([], [], **{k: v for k, v in LINKS[k2].items()}) for k2 in LINKS if k2 in used]
    handles += [Line2D([], [], ls="none", ms=9, label=f"access point {state}", **AP_STYLES[state])
                for state in AP_STYLES if any(a["state"] == state for a in aps)]
    if foreign:
        handles.append(Line2D([], [], ls="none", marker="^", color="#aa66aa", label="other network"))
    ax.legend(handles=handles, loc="upper center", bbox_to_anchor=(0.5, -0.12), ncol=2, fontsize=8, frameon=False)
    fig.tight_layout()
    fig.savefig(path)
    plt.close(fig)


def _fmt(value) -> str:
    return f"{value:.1f}" if isinstance(value, float) and not value.is_integer() else str(int(value))
