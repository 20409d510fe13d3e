"""Sound block by block."""

from __future__ import annotations

from collections.abc import Callable, Iterator, MutableMapping
from types import TracebackType
from typing import Optional, Union

from . import _core
from .files import ModelPath, find_model


class BusControls(MutableMapping[Union[str, int], float]):
    """One number for each bus, by its name or its place; of the first 16 busses."""

    def __init__(
        self,
        busses: list[str],
        get: Callable[[int], float],
        put: Callable[[int, float], None],
        least: float,
        most: float,
    ) -> None:
        self._busses, self._get, self._put, self._least, self._most = busses, get, put, least, most

    def __getitem__(self, bus: Union[str, int]) -> float:
        return self._get(find_bus(self._busses, bus))

    def __setitem__(self, bus: Union[str, int], value: float) -> None:
        place = find_bus(self._busses, bus)
        self._put(place, require_level(value, self._least, self._most))

    def __delitem__(self, bus: Union[str, int]) -> None:
        raise TypeError("a bus cannot be taken away")

    def __iter__(self) -> Iterator[Union[str, int]]:
        return iter(self._busses)

    def __len__(self) -> int:
        return len(self._busses)

    def __repr__(self) -> str:
        return repr({bus: self[place] for place, bus in enumerate(self._busses)})


def find_bus(busses: list[str], bus: Union[str, int]) -> int:
    """The place of a bus that has controls. KeyError for any other."""
    place = busses.index(bus) if isinstance(bus, str) and bus in busses else bus
    if not isinstance(place, int) or not 0 <= place < min(len(busses), 16):
        raise KeyError(f"no bus {bus!r} with controls; there are {', '.join(busses)}")
    return place


def require_level(value: float, least: float, most: float) -> float:
    """ValueError outside of the range, not-a-number included."""
    number = float(value)
    if not least <= number <= most:
        raise ValueError(f"wanted a number from {least:g} to {most:g}, got {number:g}")
    return number


class Processor(_core.Processor):
    """A model that hears one stream: the mix of its busses at their gains, block by block.

    Parameters
    ----------
    model : path or str
        A file, or the name of a shipped model.
    channels : int
        Of the audio, 1 or more. Another number than the model's is analysed as its mean, and all channels get
        the same masks.
    sample_rate : float
        Hertz. The frames follow it by a power of two; nothing is converted.
    channels_per_group : int
        Process so many channels at a time, each group by an engine of its own; 0 for all together.

    Attributes
    ----------
    latency : int
        Samples that the output lies behind the input.
    channels : int
    busses : list of str
        The residual last.
    gains : mapping of bus to float
        Linear, 0 or more; 1 at the start. A bus is given by name or place.
    sensitivities : mapping of bus to float
        -100 to 100; above 0 weak parts of a mask fade, below 0 they rise.
    mask_extrapolation : bool
        Whether masks go on above the model's bins.

    Controls may be set by any thread at any time. `process`, `flush` and `reset` let one thread in at a time;
    they do their work without the interpreter's lock.

    Raises
    ------
    FileNotFoundError, ModelError, ValueError
        No such model; no model in the file; channels or a rate that its frames cannot follow.

    Examples
    --------
    >>> with Processor("harmonic-percussive", channels=2, sample_rate=48000) as processor:
    ...     processor.gains["Percussive"] = 0.5
    ...     out = processor.process(block)  # float32 [2, samples], as long as the block
    """

    def __init__(
        self, model: ModelPath, channels: int, sample_rate: float, *, channels_per_group: int = 0
    ) -> None:
        super().__init__(find_model(model), channels, sample_rate, channels_per_group)
        self.gains = BusControls(self.busses, self.get_gain, self.set_gain, 0.0, 3.4e38)
        self.sensitivities = BusControls(
            self.busses, self.get_sensitivity, self.set_sensitivity, -100.0, 100.0
        )

    def __enter__(self) -> Processor:
        return self

    def __exit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        self.reset()

    def __repr__(self) -> str:
        return (
            f"<zevrant.Processor {', '.join(self.busses)}: {self.channels} channels, {self.latency} samples>"
        )
