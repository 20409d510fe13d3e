"""Turns a traced module into layers of the engine."""

from __future__ import annotations

import math
from collections.abc import Sequence
from dataclasses import replace
from typing import Any, Optional, Union

import numpy as np
from torch import Tensor, fx

from ... import layers as records
from .registry import find_module_handler, functions, unknown_operation
from .tracing import Obstacle, Problem, place_key
from .values import Array, Lowered, Role, Step, Value

_LARGEST_STRIDE = 127  # that a record's field of one byte holds

# Functions of a tensor whose results do not depend on its values.
_shape_only = {
    "size",
    "dim",
    "numel",
    "type",
    "ndimension",
    "zeros_like",
    "ones_like",
    "full_like",
    "new_zeros",
    "new_ones",
    "new_full",
    "arange",
}


class Lowering:
    """Turns a traced module into steps."""

    def __init__(self, graph: fx.GraphModule, results: dict[str, Any], level_scale: float) -> None:
        self.graph, self.results, self.level_scale = graph, results, level_scale
        self.modules = dict(graph.named_modules())
        self.steps: list[Step] = []
        self.by_name: dict[str, Step] = {}
        self.values: dict[fx.Node, Any] = {}
        self.problems: list[Problem] = []
        self.notes: list[str] = []
        self.node: fx.Node

    # ---- the walk ---------------------------------------------------------------------------------

    def run(self, layout: str, rows: int, columns: int, out_rows: int, out_columns: int) -> Lowered:
        output = "input"
        for node in self.graph.graph.nodes:
            self.node = node
            try:
                if node.op == "placeholder":
                    axes = tuple((role,) for role in layout)
                    self.values[node] = Value("input", rows, columns, axes)
                elif node.op == "output":
                    output = self._finish(node.args[0], out_rows, out_columns)
                elif self._is_live(node):
                    self.values[node] = self._lower(node)
            except Obstacle as obstacle:
                self.values[node] = None  # what follows from it is not told again
                self.problems.append(self._describe(node, obstacle))
        return Lowered(self.steps, output, self.problems, self.notes)

    def _is_live(self, node: fx.Node) -> bool:
        """Whether the result depends on values of the input, not only on its shape."""
        if node.op == "call_function" and node.target is getattr:
            return False
        if getattr(node.target, "__name__", node.target) in _shape_only:
            return False
        if not any(argument in self.values for argument in node.all_input_nodes):
            return False
        result = self.results.get(node.name)
        return isinstance(result, (Tensor, tuple, list))

    def _describe(self, node: fx.Node, obstacle: Obstacle) -> Problem:
        if node.op == "call_module":
            operation = type(self.modules[str(node.target)]).__name__
            name = str(node.target)
        else:
            operation = getattr(node.target, "__name__", str(node.target))
            name = node.name
        return Problem(name, operation, node.meta.get(place_key, ""), obstacle.why, obstacle.instead)

    def _lower(self, node: fx.Node) -> Any:
        arguments = [self.values.get(argument, "constant") for argument in node.all_input_nodes]
        hidden = any(argument is None for argument in arguments)  # by an obstacle before
        if node.op == "call_module":
            module = self.modules[str(node.target)]
            handler = find_module_handler(module)
            if hidden:
                return None
            value = handler(self, module, self._of(node.args[0]))
        else:
            name = node.target if isinstance(node.target, str) else getattr(node.target, "__name__", "")
            function = functions.get(str(name).strip("_"))
            if function is None:
                raise unknown_operation(str(name))
            if hidden:
                return None
            args = [self._of(argument) for argument in node.args]
            kwargs = {key: self._of(argument) for key, argument in node.kwargs.items()}
            value = function(self, *args, **kwargs)
        if isinstance(value, Value):
            self._remember(node, value)
        return value

    def _of(self, argument: Any) -> Any:
        """An argument as a value of the engine, or as the constant that it is."""
        if isinstance(argument, fx.Node):
            return self.values[argument] if argument in self.values else self.results[argument.name]
        if isinstance(argument, (tuple, list)):
            return type(argument)(self._of(each) for each in argument)
        if isinstance(argument, slice):
            return slice(self._of(argument.start), self._of(argument.stop), self._of(argument.step))
        return argument

    def _remember(self, node: fx.Node, value: Value) -> None:
        """Notes which node a layer's result can be compared with: the last that is the same."""
        result = self.results[node.name]
        if (
            isinstance(result, Tensor)
            and tuple(len(r) for r in value.axes)
            and len(value.axes) != result.dim()
        ):
            raise Obstacle(f"internal: {len(value.axes)} axes for {result.dim()} dimensions")
        step = self.by_name.get(value.layer)
        if step is not None and not value.padded and isinstance(result, Tensor):
            step.node, step.value = node.name, value

    def _finish(self, result: Any, rows: int, columns: int) -> str:
        while isinstance(result, (tuple, list)) and len(result) == 1:
            result = result[0]
        value = self.values.get(result) if isinstance(result, fx.Node) else None
        if value is None:
            if not self.problems:
                raise Obstacle(
                    "the module's result does not depend on its input, or is several results",
                    "return one tensor",
                )
            return "input"
        value = self.settle(value)
        if value.frequencies == 1 and value.channels == rows and columns == 1 and rows > 1:
            value = self.channels_to_frequency(value)
        if (value.frequencies, value.channels) != (rows, columns):
            raise Obstacle(
                f"the result has {value.channels} channels and {value.frequencies} frequencies, but the "
                f"busses and the packing take {columns} and {rows}",
                "fit the last layer, the busses or the packing",
            )
        if value.layer == "input":
            value = self.add(value, "same", self._identity(value))
        return value.layer

    # ---- steps ------------------------------------------------------------------------------------

    def add(
        self,
        value: Union[Value, Sequence[Value]],
        suffix: str,
        layer: records.Layer,
        frequencies: Optional[int] = None,
        channels: Optional[int] = None,
        multiply_adds: int = 0,
    ) -> Value:
        """One more layer behind these values; its result is laid out like the first of them."""
        sources = [value] if isinstance(value, Value) else list(value)
        first = sources[0]
        name = self.node.name if not suffix else f"{self.node.name}.{suffix}"
        unique, count = name, 2
        while unique in self.by_name or unique in ("input", "output"):
            unique, count = f"{name}.{count}", count + 1
        step = Step(
            unique,
            [source.layer for source in sources],
            layer,
            first.frequencies if frequencies is None else frequencies,
            first.channels if channels is None else channels,
            multiply_adds,
            self.node.meta.get(place_key, ""),
        )
        self.steps.append(step)
        self.by_name[unique] = step
        return replace(first, layer=unique, frequencies=step.frequencies, channels=step.channels)

    def _identity(self, value: Value) -> records.Norm:
        return records.Norm(np.ones(value.channels, np.float32), np.zeros(value.channels, np.float32))

    def settle(self, value: Value) -> Value:
        """Lays out zeros that are still held back."""
        if value.low or value.high:
            value = replace(self.resize(value, value.low, value.high), low=0, high=0)
        if value.front > 0:
            value = replace(self.delay(value, value.front), front=0)
        return value

    def delay(self, value: Value, slices: int) -> Value:
        if slices > 127:
            raise Obstacle(f"a delay of {slices} slices; one layer holds up to 127", "delay in several steps")
        taps = np.zeros((2, 1, 1, value.channels), np.float32)
        taps[0] = 1.0
        return self.add(
            value,
            "delay",
            records.Conv(taps, time_dilation=slices),
            multiply_adds=2 * value.frequencies * value.channels,
        )

    def resize(self, value: Value, low: int, high: int) -> Value:
        """Zeros below and above the band; negative numbers cut."""
        count = value.frequencies + low + high
        if count < 1:
            raise Obstacle("no frequencies are left")
        pick = [place - low for place in range(count)]
        return self.pick_frequencies(value, pick, "pad" if low > 0 or high > 0 else "cut")

    def pick_frequencies(self, value: Value, pick: Sequence[int], suffix: str) -> Value:
        """Frequency k of the result is frequency pick[k], or 0 where there is none."""
        one, none = np.ones(1, np.float32), np.zeros(1, np.float32)
        bands = [(k, one) if 0 <= k < value.frequencies else (0, none) for k in pick]
        return self.add(
            value,
            suffix,
            records.FrequencyRescale(bands),
            frequencies=len(bands),
            multiply_adds=len(bands) * value.channels,
        )

    def mix_frequencies(self, value: Value, matrix: Array, suffix: str) -> Value:
        """[outputs, inputs] across frequency, the same for all channels."""
        bands: list[tuple[int, records.Weights]] = []
        total = 0
        for row in matrix:
            used = np.flatnonzero(row)
            first, last = (int(used[0]), int(used[-1])) if len(used) else (0, 0)
            bands.append((first, row[first : last + 1].astype(np.float32)))
            total += last + 1 - first
        return self.add(
            value,
            suffix,
            records.FrequencyRescale(bands),
            frequencies=len(bands),
            multiply_adds=total * value.channels,
        )

    def mix_channels(self, value: Value, matrix: Array, bias: Optional[Array], suffix: str) -> Value:
        """[outputs, inputs] across channels."""
        outputs, inputs = matrix.shape
        weights = np.ascontiguousarray(matrix.T, np.float32).reshape(1, 1, inputs, outputs)
        return self.add(
            value,
            suffix,
            records.Conv(weights, bias),
            channels=outputs,
            multiply_adds=value.frequencies * inputs * outputs,
        )

    def affine(self, value: Value, gain: Any, offset: Any, suffix: str = "") -> Value:
        """Gain and offset, one for all or one for each channel."""
        value = self.settle(value)
        gains = np.broadcast_to(np.asarray(gain, np.float32), (value.channels,)).copy()
        offsets = np.broadcast_to(np.asarray(offset, np.float32), (value.channels,)).copy()
        return self.add(
            value,
            suffix,
            records.Norm(gains, offsets),
            multiply_adds=value.frequencies * value.channels,
        )

    def constant(self, like: Value, array: Array) -> Value:
        """A layer that gives [frequencies, channels] for every slice of another."""
        matrix = np.zeros((like.channels, like.channels), np.float32)
        return self.add(
            like,
            "constant",
            records.SelfAttention(matrix, array),
            multiply_adds=like.frequencies * like.channels**2,
        )

    def offset(self, value: Value, array: Array, suffix: str) -> Value:
        """Adds [frequencies, channels]."""
        if np.all(array == array[:1]):
            return self.affine(value, 1.0, array[0], suffix)
        return self.add(
            value,
            suffix,
            records.SelfAttention(np.eye(value.channels, dtype=np.float32), array),
            multiply_adds=value.frequencies * value.channels**2,
        )

    def activation(self, value: Value, layer: records.Layer, suffix: str = "") -> Value:
        value = self.settle(value)
        return self.add(value, suffix, layer)

    def arithmetic(self, operation: int, sources: Sequence[Value], suffix: str = "") -> Value:
        """Element by element. A layer is a source once only, so what comes twice takes a way of its own."""
        seen: list[Value] = []
        for source in sources:
            if any(source.layer == other.layer for other in seen) or (source.layer == "input" and seen == []):
                source = (
                    source
                    if source.layer == "input" and not seen
                    else self.add(source, "same", self._identity(source))
                )
            seen.append(source)
        return self.add(seen, suffix, records.Arithmetic(operation))

    # ---- layouts ----------------------------------------------------------------------------------

    def gather(
        self, value: Value, kernel: Array, bias: Optional[Array], suffix: str, **options: Any
    ) -> Value:
        """A convolution over time that sees all frequencies: kernel [time, frequency, inputs, outputs].

        The result has one frequency. A band that one stride cannot cross goes to the channels in two steps.
        """
        times, width, inputs, outputs = kernel.shape
        if width > _LARGEST_STRIDE:
            step = math.ceil(math.sqrt(width))
            count = -(-width // step)
            if max(step, count) > _LARGEST_STRIDE:
                raise Obstacle(f"{width} frequencies are too many to be taken as channels")
            if step * count != width:
                value = self.resize(value, 0, step * count - width)
                grown = np.zeros((times, step * count, inputs, outputs), np.float32)
                grown[:, :width] = kernel
                kernel = grown
            # [count * step, inputs] -> [count, step * inputs]
            move = np.eye(step * inputs, dtype=np.float32).reshape(1, step, inputs, step * inputs)
            value = self.add(
                value,
                "fold",
                records.Conv(move, frequency_stride=step),
                frequencies=count,
                channels=step * inputs,
                multiply_adds=count * (step * inputs) ** 2,
            )
            kernel = kernel.reshape(times, count, step * inputs, outputs)
        layer = records.Conv(kernel, bias, frequency_stride=kernel.shape[1], **options)
        return self.add(value, suffix, layer, frequencies=1, channels=outputs, multiply_adds=int(kernel.size))

    def to_channels(self, value: Value, role: Role) -> Value:
        """Frequencies become channels, in the order that a dimension of this role has."""
        value = self.settle(value)
        size = value.frequencies * value.channels
        move = np.eye(size, dtype=np.float32)
        if role == ("c", "f"):
            move = move.reshape(value.channels, value.frequencies, size).transpose(1, 0, 2)
        else:
            move = move.reshape(value.frequencies, value.channels, size)
        moved = self.gather(value, np.ascontiguousarray(move)[None], None, "unfold")
        axes = tuple(
            ("c",) if axis == role else (("1",) if axis in (("c",), ("f",)) else axis) for axis in value.axes
        )
        return replace(moved, axes=axes)

    def channels_to_frequency(self, value: Value) -> Value:
        """Channels become frequencies."""
        value = self.settle(value)
        size = value.channels
        if value.frequencies != 1:
            raise Obstacle("channels cannot become frequencies where there are frequencies already")
        step = 1 if size <= _LARGEST_STRIDE else math.ceil(math.sqrt(size))
        count = -(-size // step)
        if max(step, count) > _LARGEST_STRIDE:
            raise Obstacle(f"{size} channels are too many to be taken as frequencies")
        # [1, size] -> [count, step] -> [count * step, 1]
        move = np.eye(count * step, size, dtype=np.float32).reshape(1, count, step, size)
        moved = self.add(
            value,
            "refold",
            records.TransposedConv(move, frequency_stride=count),
            frequencies=count,
            channels=step,
            multiply_adds=int(move.size),
        )
        if step > 1:
            spread = np.eye(step, dtype=np.float32).reshape(1, step, 1, step)
            moved = self.add(
                moved,
                "refold",
                records.TransposedConv(spread, frequency_stride=step),
                frequencies=count * step,
                channels=1,
                multiply_adds=count * step * step,
            )
        if count * step != size:
            moved = self.resize(moved, 0, size - count * step)
        axes = tuple(
            ("f",) if axis == ("c",) else (("1",) if axis == ("f",) else axis) for axis in value.axes
        )
        return replace(moved, axes=axes)

    def size_of(self, value: Value, role: Role) -> int:
        return math.prod({"c": value.channels, "f": value.frequencies}.get(part, 1) for part in role)

    def align_layout(self, first: Value, second: Value) -> tuple[Value, Value]:
        """Brings two values to the same place of channels and frequencies, broadcasting single ones."""
        first, second = self.settle(first), self.settle(second)
        count = max(len(first.axes), len(second.axes))
        one: tuple[Role, ...] = (("1",),)
        first = replace(first, axes=one * (count - len(first.axes)) + first.axes)
        second = replace(second, axes=one * (count - len(second.axes)) + second.axes)
        for place in range(count):
            mine, other = first.axes[place], second.axes[place]
            if mine == other or self.size_of(first, mine) == 1 or self.size_of(second, other) == 1:
                continue
            # The same dimension lies in channels here and in frequencies there.
            if mine == ("c",) and first.frequencies == 1 and other == ("f",):
                first = self.channels_to_frequency(first)
            elif other == ("c",) and second.frequencies == 1 and mine == ("f",):
                second = self.channels_to_frequency(second)
            elif mine == ("c",) and first.frequencies == 1:
                second = self.to_channels(second, other)
            elif other == ("c",) and second.frequencies == 1:
                first = self.to_channels(first, mine)
            else:
                raise Obstacle(f"dimension {place} holds {'x'.join(mine)} here and {'x'.join(other)} there")
        axes = tuple(
            mine if self.size_of(first, mine) >= self.size_of(second, other) and mine != ("1",) else other
            for mine, other in zip(first.axes, second.axes)
        )
        channels = max(first.channels, second.channels)
        frequencies = max(first.frequencies, second.frequencies)
        return (
            replace(self._broadcast(first, frequencies, channels), axes=axes),
            replace(self._broadcast(second, frequencies, channels), axes=axes),
        )

    def _broadcast(self, value: Value, frequencies: int, channels: int) -> Value:
        if value.channels not in (1, channels) or value.frequencies not in (1, frequencies):
            raise Obstacle("tensors of different channels and frequencies meet")
        if value.channels != channels:
            value = self.mix_channels(value, np.ones((channels, 1), np.float32), None, "spread")
        if value.frequencies != frequencies:
            value = self.pick_frequencies(value, [0] * frequencies, "spread")
        return value
