"""Model files, layer by layer."""

from __future__ import annotations

import os
from collections.abc import Sequence
from typing import Optional, Union

from . import _core
from .layers import Arithmetic, Concat, FrameHistory, Layer
from .packings import Packing


class ModelWriter:
    """Builds a model file.

    >>> writer = ModelWriter("Half as loud")
    >>> writer.set_frames(2048, 2048, 512).set_packing(Magnitudes(1025))
    >>> writer.add_layer("gain", "input", Conv(np.full((1, 1, 1, 1), 0.5)))
    >>> writer.set_output("gain").write("half.zevrant")

    Setters may come in any order. A layer can only name sources that were added before it, or "input".

    Errors come at the call that is wrong, with the layer and the field in their text: ValueError for an
    unknown source, a name that is taken or a number that its field cannot hold; TypeError for something that
    is no number or no array. The model is then as it was before the call.
    """

    def __init__(self, name: str, version: int = _core.LATEST_VERSION) -> None:
        self._writer = _core.Writer(name, version)

    def set_info_text(self, text: str) -> ModelWriter:
        self._writer.set_info_text(text)
        return self

    def set_sample_rate(self, hertz: float) -> ModelWriter:
        """48000 unless set."""
        self._writer.set_sample_rate(hertz)
        return self

    def set_channels(self, input: int, output: Optional[int] = None) -> ModelWriter:
        """1 and 1 unless set."""
        self._writer.set_channels(input, input if output is None else output)
        return self

    def set_processing_mode(self, mode: int) -> ModelWriter:
        """0, results are masks, unless set; results are spectra with any other."""
        self._writer.set_processing_mode(mode)
        return self

    def set_busses(self, names: Sequence[str]) -> ModelWriter:
        """Names of the outputs, the residual last; "Processed" and "Residual" unless set."""
        self._writer.set_busses(list(names))
        return self

    def set_frames(self, fft_size: int, window_size: int, hop_size: int) -> ModelWriter:
        """In samples; 2048, 2048 and 512 unless set."""
        self._writer.set_frames(fft_size, window_size, hop_size)
        return self

    def set_packing(self, input: Packing, output: Optional[Packing] = None) -> ModelWriter:
        """How spectra lie in the tensors. Of the output's packing only the kind counts."""
        extra = input.frames if isinstance(input, FrameHistory) else input.group_size
        other = input.all_bins - input.fine_bins
        code = input.code if output is None else output.code
        self._writer.set_packing(input.code, input.fine_bins, other, extra, code)
        return self

    def set_half_precision(self, half: bool = True) -> ModelWriter:
        """Whether the tensors of layers that are added from here on are stored in half precision."""
        self._writer.set_half_precision(half)
        return self

    def add_layer(self, name: str, sources: Union[str, Sequence[str]], layer: Layer) -> ModelWriter:
        """Adds a record of `zevrant.layers`; `Concat` and `Arithmetic` take several sources."""
        kind, fields = type(layer).__name__, dict(vars(layer))
        if isinstance(layer, (Concat, Arithmetic)):
            names = [sources] if isinstance(sources, str) else list(sources)
            self._writer.add_merging_layer(name, names, kind, fields)
        else:
            source = sources if isinstance(sources, str) else " ".join(sources)
            if not isinstance(sources, str) and len(sources) != 1:
                raise ValueError(
                    f'layer "{name}": a layer of kind {kind} takes one source, not {len(sources)}'
                )
            self._writer.add_layer(name, source, kind, fields)
        return self

    def add_raw_layer(self, name: str, type_code: int, payload: bytes) -> ModelWriter:
        """A record that there is no type for: the type code and all that stands behind it."""
        self._writer.add_raw_layer(name, type_code, payload)
        return self

    def set_output(self, source: str) -> ModelWriter:
        """The layer whose result leaves the model."""
        self._writer.set_output(source)
        return self

    def to_bytes(self) -> bytes:
        """The whole file. RuntimeError as long as no output is set."""
        return self._writer.to_bytes()

    def write(self, path: Union[str, os.PathLike[str]]) -> None:
        """Writes the file in one step, so that a failure leaves what was there before."""
        self._writer.write(os.fspath(path))
