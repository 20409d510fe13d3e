"""What an evaluation tells, as tables in markdown and as pictures."""

from __future__ import annotations

from collections.abc import Iterable
from pathlib import Path
from typing import Any

import numpy as np
from cases import LEVELS
from measures import RATE, Signal, interval

Result = dict[str, Any]
MASK = "ideal mask"


def table(head: Iterable[str], rows: Iterable[Iterable[str]]) -> list[str]:
    head = list(head)
    lines = [f"| {' | '.join(head)} |", "|---|" + "---:|" * (len(head) - 1)]
    return [*lines, *(f"| {' | '.join(row)} |" for row in rows), ""]


def with_interval(values: Iterable[float], form: str = ".1f") -> str:
    v = np.array(list(values), float)
    if not len(v):
        return "-"
    return f"{v.mean():{form}}" + (f" ± {interval(v):{form}}" if len(v) > 1 else "")


def grouped(pairs: Iterable[tuple[str, float | None]]) -> list[float]:
    """The mean of each group that has values."""
    groups: dict[str, list[float]] = {}
    for group, value in pairs:
        if value is not None and not np.isnan(value):
            groups.setdefault(group, []).append(value)
    return [float(np.mean(values)) for values in groups.values()]


def number(value: float | None, form: str = ".1f") -> str:
    return "-" if value is None or np.isnan(value) else f"{value:{form}}"


class Report:
    """results: one entry for each case, as training/evaluate makes them; labels: the judged model first."""

    def __init__(self, results: list[Result], names: list[str], labels: list[str]) -> None:
        self.results, self.names, self.labels = results, names, labels
        self.model = labels[0]
        self.rivals = [label for label in labels[1:] if label != MASK]

    def rows(self, name: str) -> list[Result]:
        return [r for r in self.results if name in r["stems"]]

    def gain(self, result: Result, name: str, label: str) -> float | None:
        stem = result["stems"][name]
        return stem["si_sdr"][label] - stem["input"] if label in stem["si_sdr"] else None

    def gains(self, rows: list[Result], name: str, label: str) -> list[float]:
        """One mean for each group of cases."""
        return grouped((r["group"], self.gain(r, name, label)) for r in rows)

    def figures(self, rows: list[Result], name: str, key: str, label: str) -> list[float]:
        return grouped((r["group"], r["stems"][name][key].get(label)) for r in rows)

    # ---- what counts, for a page ---------------------------------------------------------------------------

    def summary(self) -> list[str]:
        is_speech = "speech" in self.names
        lines = self.speech() if is_speech else []
        rows = []
        for name in self.names:
            found = self.rows(name)
            inputs = grouped((r["group"], r["stems"][name]["input"]) for r in found)
            cells = [with_interval(self.gains(found, name, label)) for label in self.labels]
            rows.append([name, str(len(found)), with_interval(inputs), *cells])
        over = "voices" if is_speech else "songs"
        lines += [f"Improvement of SI-SDR in dB, with 95% intervals over {over}:", ""]
        lines += table(["Stem", "Cases", "SI-SDR in the mix", *self.labels], rows) + self.beneath_the_mean()
        return lines + ([] if is_speech else self.by_input()) + self.alone() + self.treble() + self.bss()

    def beneath_the_mean(self) -> list[str]:
        rows = []
        for name in self.names:
            for label in self.labels:
                found = [r for r in self.rows(name) if label in r["stems"][name]["si_sdr"]]
                if not found:
                    continue
                all_gains = [self.gain(r, name, label) or 0.0 for r in found]
                ours = [self.gain(r, name, self.model) or 0.0 for r in found]
                worse = sum(a < b for a, b in zip(ours, all_gains))
                worst = [r["stems"][name]["worst"][label] for r in found]
                rows.append(
                    [
                        name,
                        label,
                        f"{np.percentile(all_gains, 10):.1f}",
                        str(worse) if label in self.rivals else "-",
                        with_interval(self.figures(found, name, "sdr", label)),
                        with_interval(self.figures(found, name, "leakage", label)),
                        number(float(np.nanmedian(worst))),
                    ]
                )
        head = ("Stem", "By", "10th percentile of improvement", f"cases where {self.model} is worse", "SDR")
        return table([*head, "level in its pauses, of the mix", "SDR of the worst second, median"], rows)

    def by_input(self) -> list[str]:
        edges = (-np.inf, -7.5, -2.5, 2.5, np.inf)
        rows = []
        for name in self.names:
            for label in self.labels:
                cells = []
                for low, high in zip(edges, edges[1:]):
                    found = [r for r in self.rows(name) if low <= r["stems"][name]["input"] < high]
                    cells.append(with_interval(self.figures(found, name, "si_sdr", label)))
                if set(cells) != {"-"}:
                    rows.append([name, label, *cells])
        head = ("Stem", "By", "about -10 dB", "about -5 dB", "about 0 dB", "3 dB or more")
        return ["Output SI-SDR by the level at which a stem comes in:", "", *table(head, rows)]

    def alone(self) -> list[str]:
        entries: dict[str, list[dict[str, float]]] = {}
        for result in self.results:
            for source, figures in result.get("alone", {}).items():
                entries.setdefault(source, []).append(figures)
        rows = [
            [
                source,
                str(len(v)),
                with_interval(f["passes"] for f in v),
                with_interval(f["others"] for f in v),
            ]
            for source, v in entries.items()
        ]
        told = "One source alone: the SDR at which it passes to its own stem, and the level of the others:"
        return [told, "", *table(["Source", "Cases", "passes at", "others"], rows)] if rows else []

    def treble(self) -> list[str]:
        entries = [r["treble"] for r in self.results if "treble" in r]
        keys = ("clean", "noisy", "pauses")
        cells = [with_interval(e[key] for e in entries if not np.isnan(e[key])) for key in keys]
        head = ("Voices", "where clean speech hisses", "where speech in noise hisses", "in pauses with noise")
        told = "Level of the band from 9 to 18 kHz, out against in, in dB:"
        return [told, "", *table(head, [[str(len(entries)), *cells]])] if entries else []

    def bss(self) -> list[str]:
        cells = []
        for name in self.names:
            values = [r["bss"][name] for r in self.results if name in r.get("bss", {})]
            if values:
                cells.append(f"{name} {np.median(values):.2f} dB")
        return (
            [f"BSS Eval v4, {self.model}: median of the cases' medians: {', '.join(cells)}", ""]
            if cells
            else []
        )

    def speech(self) -> list[str]:
        found = self.rows("speech")
        kinds = list(dict.fromkeys(r["kind"] for r in found))
        steady = [kind for kind in kinds if kind not in ("music", "crowd")]
        groups = ([("**all but music and crowd**", steady)] if steady else []) + [
            (kind, [kind]) for kind in kinds
        ]
        lines = []
        for level in LEVELS:
            rows = []
            for shown, chosen in groups:
                these = [r for r in found if r["kind"] in chosen and r["level"] == level]
                gains = {label: self.gains(these, "speech", label) for label in self.labels}
                row = [shown, *(with_interval(values) for values in gains.values())]
                best = max(
                    (float(np.mean(gains[rival])) for rival in self.rivals if gains[rival]), default=None
                )
                if best is not None and gains[self.model]:
                    row.append(f"{np.mean(gains[self.model]) - best:+.1f}")
                rows.append(row)
            head = [
                f"Speech {level} dB above",
                *self.labels,
                *(["over the best other"] if self.rivals else []),
            ]
            lines += table(head, rows)
        if any("stoi" in r["stems"]["speech"] for r in found):
            rows = []
            for level in LEVELS:
                these = [r for r in found if r["level"] == level]
                values = [self.figures(these, "speech", "stoi", label) for label in ("mix", *self.labels)]
                rows.append([f"{level} dB", *(with_interval(v, ".3f") for v in values)])
            lines += ["STOI, 0 to 1:", "", *table(["Speech above noise", "mix", *self.labels], rows)]
        return lines

    # ---- every case ----------------------------------------------------------------------------------------

    def details(self) -> list[str]:
        lines = []
        for name in self.names:
            rows = []
            for r in self.rows(name):
                stem = r["stems"][name]
                gains = [number(self.gain(r, name, label), "+.1f") for label in self.labels]
                figures = [number(stem[key].get(self.model)) for key in ("sdr", "worst", "leakage")]
                rows.append([r["name"], number(stem["input"]), *gains, *figures])
            lines += [f"Stem {name}: SI-SDR in the mix, improvements, and of {self.model} more:", ""]
            lines += table(["Case", "Mix", *self.labels, "SDR", "worst second", "in pauses"], rows)
        return lines


def fill(page: Path, mark: str, lines: list[str]) -> None:
    """Puts the lines between the page's marks of that name."""
    begin, end = f"<!-- {mark} -->", f"<!-- end of {mark} -->"
    text = page.read_text()
    if begin not in text or end not in text:
        raise SystemExit(f"{page}: no marks {begin} and {end}")
    head, rest = text.split(begin, 1)
    page.write_text(head + begin + "\n\n" + "\n".join(lines).strip() + "\n\n" + end + rest.split(end, 1)[1])


def draw(results: list[Result], names: list[str], labels: list[str], path: Path) -> None:
    """SI-SDR of each case over that in the mix."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, panels = pyplot.subplots(len(names), 1, figsize=(10, 3 * len(names)), squeeze=False)
    for axes, name in zip(panels[:, 0], names):
        stems = [r["stems"][name] for r in results if name in r["stems"]]
        for label, mark in zip(labels, "oxv^s+d*"):
            shown = [(stem["input"], stem["si_sdr"][label]) for stem in stems if label in stem["si_sdr"]]
            if shown:
                axes.plot(*zip(*shown), mark, label=label, markersize=4)
        inputs = sorted(stem["input"] for stem in stems)
        axes.plot(inputs, inputs, ":", color="gray", label="nothing done")
        axes.set_ylabel(f"{name}: SI-SDR, dB")
        axes.grid(alpha=0.3)
    panels[-1, 0].set_xlabel("SI-SDR in the mix, dB")
    panels[0, 0].legend()
    figure.tight_layout()
    figure.savefig(path, dpi=90)
    pyplot.close(figure)


def draw_example(sounds: dict[str, Signal], title: str, path: Path) -> None:
    """Spectrograms below one another, on one scale."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, panels = pyplot.subplots(len(sounds), 1, figsize=(12, 2.2 * len(sounds)), sharex=True)
    for axes, (name, sound) in zip(panels, sounds.items()):
        axes.specgram(sound.mean(axis=1) + 1e-7, 2048, RATE, noverlap=1024, vmin=-130, vmax=-40, cmap="magma")
        axes.set_ylim(0, 16000)
        axes.set_ylabel(name, fontsize=8)
    panels[0].set_title(title)
    figure.tight_layout()
    figure.savefig(path, dpi=80)
    pyplot.close(figure)
