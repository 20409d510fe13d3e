"""How far a model file is from the module that it was made of, layer by layer."""

from __future__ import annotations

import os
import tempfile
from dataclasses import dataclass
from pathlib import Path
from typing import Optional, Union

import numpy as np
import torch
from torch import Tensor, nn

from ..packings import ComplexBins, ComplexGroups, Magnitudes, Packing, RectifiedParts
from .lowering import Lowered, record, to_engine_layout, trace
from .spectra import Spectra


@dataclass(frozen=True)
class LayerParity:
    """One layer beside the node of the module that has the same result.

    Attributes
    ----------
    name, kind : str
        Of the layer in the file.
    shape : (int, int)
        Frequencies and channels of its result.
    slices : int
        That were compared.
    largest_error, mean_error, level : float
        Of the absolute differences; level is the root mean square of the module's result.
    multiply_adds : int
        For each slice of the result.
    microseconds : float
        That the engine took for each frame of the input.
    """

    name: str
    kind: str
    shape: tuple[int, int]
    slices: int
    largest_error: float
    mean_error: float
    level: float
    multiply_adds: int
    microseconds: float

    @property
    def relative_error(self) -> float:
        """The largest error over the level; the largest error itself where all is silent."""
        return self.largest_error / self.level if self.level > 0.0 else self.largest_error


@dataclass(frozen=True)
class ParityReport:
    """The table of `check_parity`; print it."""

    layers: list[LayerParity]
    frames: int
    audio_error: float  # dB: what differs in the busses' audio over that audio, the first window apart

    @property
    def worst(self) -> Optional[LayerParity]:
        return max(self.layers, key=lambda layer: layer.relative_error, default=None)

    def __str__(self) -> str:
        rows = [("layer", "kind", "shape", "slices", "largest", "mean", "relative", "multiply-adds", "us")]
        for layer in self.layers:
            rows.append(
                (
                    layer.name,
                    layer.kind,
                    f"{layer.shape[0]}x{layer.shape[1]}",
                    str(layer.slices),
                    f"{layer.largest_error:.1e}",
                    f"{layer.mean_error:.1e}",
                    f"{layer.relative_error:.1e}",
                    f"{layer.multiply_adds:,}",
                    f"{layer.microseconds:.1f}",
                )
            )
        widths = [max(len(row[k]) for row in rows) for k in range(len(rows[0]))]
        lines = [
            "  ".join(
                cell.ljust(w) if k < 2 else cell.rjust(w) for k, (cell, w) in enumerate(zip(row, widths))
            )
            for row in rows
        ]
        lines.append(f"audio: {self.audio_error:.1f} dB")
        return "\n".join(lines)


def compare(
    module: nn.Module,
    content: bytes,
    lowered: Lowered,
    spectra: Spectra,
    features: Tensor,
    layout: str,
) -> ParityReport:
    """The file's layers beside the module's nodes, for features in the module's layout."""
    from ..model import Model

    was_training = module.training
    module.eval()
    try:
        graph = trace(module)
        results = record(graph, features)
    finally:
        module.train(was_training)
    model = Model(content)
    places = {role: place for place, role in enumerate(layout)}
    order = [places[role] for role in ("b", "t", "f", "c") if role in places]
    tensor = features.permute(order)[0]
    for place, role in ((1, "f"), (2, "c")):
        if role not in places:
            tensor = tensor.unsqueeze(place)
    inputs = np.ascontiguousarray(tensor.cpu().float().numpy())
    compared = [step for step in lowered.steps if step.node and step.value is not None]
    names = [step.name for step in lowered.steps]
    outputs = model.layer_outputs(inputs, names)
    seconds = model.layer_times(inputs, names)
    rows = []
    for step in compared:
        assert step.value is not None
        wanted = to_engine_layout(step.value, results[step.node])
        got = outputs[step.name]
        count = 0 if got is None else min(len(got), len(wanted))
        difference = np.abs(got[:count] - wanted[:count]) if got is not None and count else np.full(1, np.inf)
        if got is not None and got.shape[1:] != wanted.shape[1:]:
            difference = np.full(1, np.inf)
        rows.append(
            LayerParity(
                step.name,
                type(step.record).__name__,
                (step.frequencies, step.channels),
                count,
                float(difference.max()),
                float(difference.mean()),
                float(np.sqrt(np.mean(np.square(wanted[:count], dtype=np.float64)))) if count else 0.0,
                step.multiply_adds,
                1e6 * seconds.get(step.name, 0.0) / len(inputs),
            )
        )
    return ParityReport(rows, len(inputs), _compare_audio(module, content, spectra, layout))


def _compare_audio(module: nn.Module, content: bytes, spectra: Spectra, layout: str) -> float:
    """Of all busses: the energy of the difference over that of the module's audio, in dB."""
    from ..model import Model
    from ..separation import separate
    from .export import from_layout, probe_audio, to_layout

    look_ahead = Model(content).info.latency_in_frames
    audio = probe_audio(spectra, look_ahead + 60, seed=3)[:1]
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder, "model.zevrant")
        path.write_bytes(content)
        stems = separate(audio[0].numpy(), round(spectra.sample_rate), path)
    device = next((p.device for p in module.parameters()), torch.device("cpu"))

    def network(features: Tensor) -> Tensor:
        return from_layout(module(to_layout(features, layout).to(device)), layout).cpu()

    was_training = module.training
    module.eval()
    with torch.no_grad():
        wanted = spectra.cpu()(audio, network, look_ahead)[0].numpy()
    module.train(was_training)
    start = spectra.window_size
    got = np.stack(list(stems.values()))[..., start : wanted.shape[-1]].astype(np.float64)
    off = np.sum(np.square(got - wanted[..., start:])) / max(1e-30, np.sum(np.square(wanted[..., start:])))
    return float(10.0 * np.log10(max(off, 1e-30)))


def check_parity(
    module: nn.Module,
    path: Union[str, os.PathLike[str]],
    inputs: Optional[Tensor] = None,
    *,
    layout: str = "bctf",
) -> ParityReport:
    """Runs a module over a whole sequence and its file slice by slice, and compares layer by layer.

    Parameters
    ----------
    module : nn.Module
        What the file was made of.
    path : path
    inputs : Tensor, optional
        Features in the module's layout, the first of the batch counts; noise unless given.
    layout : str
        As for `export`.

    Returns
    -------
    ParityReport
        Print it for a table.
    """
    from ..model import Model
    from .export import lower, probe

    content = Path(path).read_bytes()
    info = Model(content).info
    kinds: dict[int, Packing] = {
        1: Magnitudes(info.bins),
        2: RectifiedParts(0, info.bins),
        4: ComplexBins(info.bins),
        6: ComplexGroups(0, info.bins, 1),
    }
    spectra = Spectra(
        (info.fft_size, info.window_size, info.hop_size),
        info.packing,
        output_packing=kinds[info.output_packing],
        channels=info.input_channels,
        busses=info.busses,
        mode="mask" if info.processing_mode == 0 else "spectrum",
        sample_rate=info.sample_rate,
    )
    lowered = lower(module, spectra, layout)
    if inputs is None:
        inputs = probe(spectra, layout, seed=2)
    return compare(module, content, lowered, spectra, inputs, layout)
