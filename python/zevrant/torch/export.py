"""From a module to a model file."""

from __future__ import annotations

import os
import sys
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Literal, Optional, Union

import torch
from torch import Tensor, nn

from .. import layers as records
from ..packings import Packing
from .lowering import Lowered, Lowering, Obstacle, Problem, record, trace
from .spectra import Spectra

if TYPE_CHECKING:
    from .parity import LayerParity, ParityReport

_probe_frames = 97  # enough for what looks far back; no size that occurs elsewhere


class ExportError(Exception):
    """Why a module cannot become a model file: `problems` holds all obstacles, and the text lists them."""

    def __init__(self, text: str, problems: Sequence[Problem] = ()) -> None:
        self.problems = list(problems)
        super().__init__("\n".join([text, *map(str, self.problems)]))


@dataclass(frozen=True)
class ExportReport:
    """What was written.

    Attributes
    ----------
    path : str
    layers : int
    multiply_adds : int
        For each slice, all layers.
    notes : list of str
        What was written in another way than the module says it.
    parity : ParityReport or None
        None with check=False.
    """

    path: str
    layers: int
    multiply_adds: int
    notes: list[str]
    parity: Optional[ParityReport]


def probe(spectra: Spectra, layout: str, frames: int = _probe_frames, seed: int = 1) -> Tensor:
    """Features of noise that swells and fades, [2, columns, frames, rows] in the module's layout."""
    return to_layout(spectra.analyse(probe_audio(spectra, frames, seed)).features, layout)


def probe_audio(spectra: Spectra, frames: int, seed: int) -> Tensor:
    """[2, channels, samples] that make so many frames."""
    generator = torch.Generator().manual_seed(seed)
    samples = (frames - 1) * spectra.hop_size
    noise = torch.randn(2, spectra.channels, samples, generator=generator)
    return noise * (0.05 + 0.25 * torch.linspace(0.0, 12.0, samples).sin().square())


def to_layout(features: Tensor, layout: str) -> Tensor:
    """[batch, channels, time, frequency] -> the dimensions that the layout names, in its order."""
    places = {"b": 0, "c": 1, "t": 2, "f": 3}
    if sorted(set(layout) | {"c", "f"}) != ["b", "c", "f", "t"] or len(set(layout)) != len(layout):
        raise ValueError(f'layout names each of b, t, c and f once, as "bctf" does, not {layout!r}')
    if not ({"b", "t"} <= set(layout)):
        raise ValueError("a layout needs b and t")
    missing = [role for role in "cf" if role not in layout]
    moved = features.permute(*[places[role] for role in layout], *[places[role] for role in missing])
    for _ in missing:
        if moved.shape[-1] != 1:
            raise ValueError(f"layout {layout!r}, but the features have more than one of what it leaves out")
        moved = moved.squeeze(-1)
    return moved


def from_layout(results: Tensor, layout: str) -> Tensor:
    """The way back to [batch, channels, time, frequency]."""
    for _ in range(4 - len(layout)):
        results = results.unsqueeze(-1)
    roles = layout + "".join(role for role in "cf" if role not in layout)
    return results.permute(*[roles.index(role) for role in "bctf"])


def lower(module: nn.Module, spectra: Spectra, layout: str) -> Lowered:
    """Steps and problems. The module is run in evaluation mode and left as it was."""
    was_training = module.training
    module.eval()
    try:
        try:
            graph = trace(module)
        except Obstacle as obstacle:
            return Lowered(
                [],
                "input",
                [Problem("forward", type(module).__name__, obstacle.place, obstacle.why, obstacle.instead)],
            )
        device = next((p.device for p in module.parameters()), torch.device("cpu"))
        try:
            results = record(graph, probe(spectra, layout).to(device))
        except RuntimeError as error:
            columns, rows = spectra.input_shape
            raise ExportError(
                f"the module does not run on features of {columns} channels and {rows} frequencies "
                f'(layout "{layout}"): {error}'
            ) from error
        columns, rows = spectra.input_shape
        out_columns, out_rows = spectra.output_shape
        lowering = Lowering(graph, results, spectra.level_scale)
        return lowering.run(layout, rows, columns, out_rows, out_columns)
    finally:
        module.train(was_training)


def _look_ahead_problems(lowered: Lowered) -> list[Problem]:
    problems = []
    for step in lowered.steps:
        offset = getattr(step.record, "time_offset", 0) or getattr(step.record, "start_delay", 0)
        if offset:
            problems.append(
                Problem(
                    step.name,
                    type(step.record).__name__,
                    step.place,
                    f"sees {offset} slice{'s' * (offset > 1)} of the future",
                    f"zeros in front of the time axis only, F.pad(x, (0, 0, {offset}, 0)) more of them; "
                    "zevrant.torch.CausalConv2d; or accept the latency by look_ahead=...",
                )
            )
    return problems


def explain(
    module: nn.Module,
    *,
    spectra: Optional[Spectra] = None,
    layout: str = "bctf",
    look_ahead: int = 0,
    quiet: bool = False,
    **options: object,
) -> list[Problem]:
    """Lists all that keeps a module from becoming a model file, before anyone trains it.

    Parameters
    ----------
    module, layout, look_ahead, and what describes the spectra
        As for `export`.
    quiet : bool
        Without printing.

    Returns
    -------
    list of Problem
        Empty where nothing stands in the way.
    """
    lowered = lower(module, spectra or Spectra(**options), layout)  # type: ignore[arg-type]
    problems = list(lowered.problems)
    if not look_ahead:
        problems += _look_ahead_problems(lowered)
    if not quiet:
        for line in [*map(str, problems), *lowered.notes] or ["nothing stands in the way"]:
            print(line)
    return problems


def export(
    module: nn.Module,
    path: Union[str, os.PathLike[str]],
    *,
    frames: tuple[int, int, int] = (2048, 2048, 512),
    sample_rate: float = 48000.0,
    channels: int = 1,
    packing: Optional[Packing] = None,
    output_packing: Optional[Packing] = None,
    busses: Sequence[str] = ("Processed", "Residual"),
    mode: Literal["mask", "spectrum"] = "mask",
    spectra: Optional[Spectra] = None,
    layout: str = "bctf",
    look_ahead: int = 0,
    half_precision: bool = False,
    name: Optional[str] = None,
    info_text: str = "",
    check: bool = True,
    tolerance: Optional[float] = None,
    quiet: bool = False,
) -> ExportReport:
    """Writes a module as a model file.

    Parameters
    ----------
    module : nn.Module
        Takes features [batch, columns, time, rows] and gives results of the same layout, slice for slice; see
        `Spectra`, whose `input_shape` and `output_shape` tell the sizes. It is exported in evaluation mode.
    path : path
        Where the file goes; what stood there before stays if the export fails.
    frames, packing, output_packing, channels, busses, mode, sample_rate
        As for `Spectra`; `spectra` brings all of them at once.
    layout : str
        The order of the module's dimensions: "bctf", or "bcft", "bft" and so on.
    look_ahead : int
        Frames of the future that the network may see, each a hop more of latency.
    half_precision : bool
        Weights in half precision: half of the file's size, and about three digits.
    name, info_text : str
        The model's name in the file (the class unless given), and a text that is kept.
    check : bool
        Runs the file slice by slice against the module, prints the table of `check_parity`, and refuses a
        file that is further off than the tolerance.
    tolerance : float, optional
        Largest error of a layer over its root mean square: 1e-4 unless given, 2e-2 in half precision.
    quiet : bool
        Without printing.

    Returns
    -------
    ExportReport

    Raises
    ------
    ExportError
        Something cannot be expressed, sees more of the future than look_ahead, or the file is too far off.
    """
    from ..model import Model
    from ..writer import ModelWriter
    from .parity import compare

    if spectra is None:
        spectra = Spectra(
            frames,
            packing,
            output_packing=output_packing,
            channels=channels,
            busses=busses,
            mode=mode,
            sample_rate=sample_rate,
        )
    lowered = lower(module, spectra, layout)
    if lowered.problems:
        raise ExportError(f"{type(module).__name__} cannot become a model file:", lowered.problems)

    writer = ModelWriter(name or type(module).__name__).set_info_text(info_text)
    writer.set_sample_rate(spectra.sample_rate).set_channels(spectra.channels)
    writer.set_frames(spectra.fft_size, spectra.window_size, spectra.hop_size)
    writer.set_busses(spectra.busses).set_processing_mode(0 if spectra.mode == "mask" else 1)
    writer.set_packing(spectra.packing, spectra.output_packing).set_half_precision(half_precision)
    for step in lowered.steps:
        sources = (
            step.sources if isinstance(step.record, (records.Concat, records.Arithmetic)) else step.sources[0]
        )
        try:
            writer.add_layer(step.name, sources, step.record)
        except (TypeError, ValueError) as error:
            raise ExportError(str(error)) from error
    content = writer.set_output(lowered.output).to_bytes()

    waits = Model(content).info.latency_in_frames
    if waits > look_ahead:
        hop = 1000.0 * spectra.hop_size / spectra.sample_rate
        raise ExportError(
            f"{type(module).__name__} waits for {waits} frames of the future ({waits * hop:.1f} ms), and "
            f"look_ahead allows {look_ahead}:",
            _look_ahead_problems(lowered),
        )
    parity = None
    if check:
        if tolerance is None:
            tolerance = 2e-2 if half_precision else 1e-4
        parity = compare(module, content, lowered, spectra, probe(spectra, layout, seed=2), layout)
        if not quiet:
            print(parity)
        worst = parity.worst
        if worst is not None and not worst.relative_error <= tolerance:
            raise ExportError(_tell_distance(worst, tolerance, lowered))
    _write_whole(Path(path), content)
    for note in lowered.notes:
        if not quiet:
            print(f"note: {note}", file=sys.stderr)
    total = sum(step.multiply_adds for step in lowered.steps)
    return ExportReport(os.fspath(path), len(lowered.steps), total, lowered.notes, parity)


def _tell_distance(worst: LayerParity, tolerance: float, lowered: Lowered) -> str:
    text = (
        f"no file is written: {worst.name} ({worst.kind}) is off by {worst.relative_error:.2g} of its root "
        f"mean square, and the tolerance is {tolerance:g}"
    )
    if any(isinstance(step.record, records.Sigmoid) for step in lowered.steps):
        text += "; a sigmoid is limited to inputs from -10 to 10, as clamp(-10, 10) before it does in PyTorch"
    return text


def _write_whole(path: Path, content: bytes) -> None:
    temporary = path.with_name(f".{path.name}.{os.getpid()}")
    try:
        temporary.write_bytes(content)
        temporary.replace(path)
    finally:
        temporary.unlink(missing_ok=True)
