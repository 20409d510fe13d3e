"""A network by itself: tensors in, tensors out, layer by layer."""

from __future__ import annotations

import os
from collections.abc import Iterable
from dataclasses import dataclass
from typing import Any, Optional, Union

from . import _core, layers
from .files import find_model
from .layers import Floats, Layer
from .packings import ComplexBins, ComplexGroups, FrameHistory, Magnitudes, Packing, RectifiedParts

ModelError = _core.ModelError


@dataclass(frozen=True)
class ModelInfo:
    """What a model file says of itself. Sizes are in samples, rates in hertz."""

    name: str
    info_text: str
    sample_rate: float
    input_channels: int
    output_channels: int
    busses: list[str]  # the residual last
    processing_mode: int  # 0: results are masks; otherwise spectra
    fft_size: int
    window_size: int
    hop_size: int
    input_packing: int
    output_packing: int
    bins: int
    fine_bins: int
    group_size: int
    rows: int  # frequencies of the input tensor
    columns: int  # channels of the input tensor
    latency_in_frames: int
    latency_milliseconds: int

    @property
    def packing(self) -> Packing:
        """The input's packing as `ModelWriter` takes it."""
        rest = self.bins - self.fine_bins
        if self.input_packing == Magnitudes.code:
            return Magnitudes(self.bins)
        if self.input_packing == RectifiedParts.code:
            return RectifiedParts(self.fine_bins, rest)
        if self.input_packing == ComplexBins.code:
            return ComplexBins(self.bins)
        if self.input_packing == ComplexGroups.code:
            return ComplexGroups(self.fine_bins, rest, self.group_size)
        return FrameHistory(self.fine_bins, rest, self.columns // max(1, self.input_channels))


@dataclass(frozen=True)
class ModelLayer:
    """One layer of a graph.

    Attributes
    ----------
    sources : list of str
        Names of the layers that it takes from, in order.
    record : a record of `zevrant.layers`
        Its kind, with weights as float32 arrays of their own.
    """

    sources: list[str]
    record: Layer


class Model:
    """The tensor interface of a model file. One thread at a time is let in; the others wait.

    Parameters
    ----------
    path : path, str or bytes
        The file, the name of a shipped model, or what a file would hold.

    Raises
    ------
    FileNotFoundError
        There is no such file, and no model of this name.
    ModelError
        It holds no model.
    """

    def __init__(self, path: Union[str, os.PathLike[str], bytes]) -> None:
        if isinstance(path, bytes):
            self._model = _core.TensorModel.from_memory(path)
        else:
            self._model = _core.TensorModel.open(find_model(path))

    @property
    def info(self) -> ModelInfo:
        return ModelInfo(**self._model.info())

    @property
    def layers(self) -> dict[str, ModelLayer]:
        """All layers by name, sources before those that take from them; the input and the output left out."""
        waiting = {
            name: ModelLayer(sources, getattr(layers, kind)(**fields))
            for name, kind, sources, fields in self._model.layers()
            if kind not in ("Input", "Output")
        }
        ordered: dict[str, ModelLayer] = {}
        while waiting:
            ready = [name for name, layer in waiting.items() if not waiting.keys() & set(layer.sources)]
            for name in ready or list(waiting):
                ordered[name] = waiting.pop(name)
        return ordered

    @property
    def output(self) -> str:
        """The name of the layer whose result leaves the model."""
        return str(next(sources[0] for _, kind, sources, _ in self._model.layers() if kind == "Output"))

    def push(self, tensor: Floats) -> Optional[Floats]:
        """Runs the network over further slices of a stream.

        Parameters
        ----------
        tensor : float32 array
            [time, rows, columns]; `info` tells rows and columns. Any number of slices.

        Returns
        -------
        float32 array or None
            [time', frequency, channels], all that came out; None where nothing did.
        """
        return self._model.push(tensor)

    def reset(self) -> None:
        """Back to the start of a stream."""
        self._model.reset()

    def layer_outputs(
        self, tensor: Floats, names: Optional[Iterable[str]] = None
    ) -> dict[str, Optional[Floats]]:
        """What layers put out for an input from the start of a stream. The stream of `push` is left alone.

        Parameters
        ----------
        tensor : float32 array
            [time, rows, columns]
        names : iterable of str, optional
            Layers, "input", or "output" for what leaves the model. All layers unless given.

        Returns
        -------
        dict of str to float32 array [time', frequency, channels], or None where nothing came out

        Raises
        ------
        KeyError
            No layer has this name.
        """
        chosen = list(self.layers) if names is None else list(names)
        return self._model.layer_outputs(tensor, chosen)

    def layer_times(self, tensor: Floats, names: Optional[Iterable[str]] = None) -> dict[str, float]:
        """Seconds that layers take for all slices of an input; arguments as for `layer_outputs`."""
        return self._model.layer_times(tensor, list(self.layers) if names is None else list(names))

    def __repr__(self) -> str:
        info: Any = self.info
        return (
            f"<zevrant.Model {info.name!r}: [{info.rows}, {info.columns}] for each {info.hop_size} samples>"
        )
