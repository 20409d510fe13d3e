"""Follows a module node by node and says each in the engine's layers."""

from __future__ import annotations

import dis
import inspect
import math
import os
import traceback
from collections.abc import Callable, Iterable, Iterator, Sequence
from dataclasses import dataclass, field, replace
from typing import Any, Optional, Union, cast

import numpy as np
import torch
from torch import Tensor, fx, nn

from .. import layers as records
from . import layers as ours

Array = np.ndarray[Any, np.dtype[np.float32]]
# What a dimension of a tensor stands for: "b" batch, "t" time, "c" channels, "f" frequencies, "1" a single
# value, and several of them where dimensions were flattened into one.
Role = tuple[str, ...]

_LARGEST_STRIDE = 127  # that a record's field of one byte holds


class Obstacle(Exception):
    """Something that the engine has no layer for, what would do instead, and where it stands if that is known."""

    def __init__(self, why: str, instead: str = "", place: str = "") -> None:
        super().__init__(why)
        self.why, self.instead, self.place = why, instead, place


@dataclass(frozen=True)
class Problem:
    """An obstacle and where it stands."""

    node: str
    operation: str
    place: str  # file and line, where they are known
    why: str
    instead: str

    def __str__(self) -> str:
        where = f"{self.place}: " if self.place else ""
        hint = f"\n    instead: {self.instead}" if self.instead else ""
        return f"{where}{self.node} ({self.operation}): {self.why}{hint}"


@dataclass(frozen=True)
class Value:
    """What a node of the module is in the engine: a layer's result, and how its tensor is laid out.

    A module may pad a tensor that only its next convolution looks at, so zeros are held back until then.
    """

    layer: str
    frequencies: int
    channels: int
    axes: tuple[Role, ...]
    front: int = 0  # slices of zeros in front that are still to be laid out
    low: int = 0  # the same for frequencies, below and above; negative to cut
    high: int = 0

    @property
    def padded(self) -> bool:
        return bool(self.front or self.low or self.high)


@dataclass
class Step:
    """One layer of the file.

    `node` names the node of the module that has the same result, where there is one, and `value` tells how
    that result lies in the engine's tensor.
    """

    name: str
    sources: list[str]
    record: records.Layer
    frequencies: int
    channels: int
    multiply_adds: int  # for each slice of the result
    place: str = ""  # file and line that it comes from
    node: str = ""
    value: Optional[Value] = None


@dataclass
class Lowered:
    steps: list[Step]
    output: str
    problems: list[Problem]
    notes: list[str] = field(default_factory=list)


_place_key = "zevrant_place"
_folders_inside = (os.path.dirname(torch.__file__), os.path.dirname(__file__))


def _frames_of_call() -> Iterator[tuple[str, int]]:
    frame = inspect.currentframe()
    while frame is not None:
        yield frame.f_code.co_filename, frame.f_lineno
        frame = frame.f_back


def _find_place(frames: Iterable[tuple[str, int]]) -> str:
    """File and line of the innermost frame outside of PyTorch and of this package."""
    for name, line in frames:
        if not name.startswith((*_folders_inside, "<")):
            return f"{name}:{line}"
    return ""


class _Proxy(fx.Proxy):
    """Stands for a result while a module is followed. `a, b = x.chunk(2)` tells how many there are."""

    def __iter__(self) -> Iterator[fx.Proxy]:  # type: ignore[override]
        frame = inspect.currentframe()
        caller = frame.f_back if frame else None
        if caller is not None:
            for instruction in dis.get_instructions(caller.f_code):
                if instruction.offset == caller.f_lasti and instruction.opname == "UNPACK_SEQUENCE":
                    return (self[k] for k in range(instruction.argval))
        return cast(Iterator[fx.Proxy], self.tracer.iter(self))


class _Tracer(fx.Tracer):
    """Follows everything but PyTorch's own modules and those of this package with a layer of their own."""

    def create_proxy(self, *args: Any, **kwargs: Any) -> fx.Proxy:
        proxy = super().create_proxy(*args, **kwargs)
        proxy.node.meta[_place_key] = _find_place(_frames_of_call())
        return proxy

    def proxy(self, node: fx.Node) -> fx.Proxy:
        return _Proxy(node, self)

    def is_leaf_module(self, m: nn.Module, module_qualified_name: str) -> bool:
        return type(m) in _modules or bool(super().is_leaf_module(m, module_qualified_name))


class _Recorder(fx.Interpreter):
    """Runs the graph and keeps every result."""

    def __init__(self, module: fx.GraphModule) -> None:
        super().__init__(module)
        self.results: dict[str, Any] = {}

    def run_node(self, n: fx.Node) -> Any:
        result = super().run_node(n)
        self.results[n.name] = result
        return result


def record(graph: fx.GraphModule, features: Tensor) -> dict[str, Any]:
    """Every node's result for these features."""
    recorder = _Recorder(graph)
    with torch.no_grad():
        recorder.run(features)
    return recorder.results


def trace(module: nn.Module) -> fx.GraphModule:
    """The graph of a module. Obstacle where its road depends on values."""
    try:
        graph = _Tracer().trace(module)
    except (fx.proxy.TraceError, TypeError, RuntimeError, ValueError) as error:
        raise Obstacle(
            f"the module cannot be followed: {error}",
            "keep branches and loops free of values that depend on the input",
            _find_place((f.filename, f.lineno or 0) for f in traceback.extract_tb(error.__traceback__)[::-1]),
        ) from error
    return fx.GraphModule(module, graph)


def _numbers(tensor: Any) -> Array:
    return np.asarray(torch.as_tensor(tensor).detach().cpu().double().numpy(), dtype=np.float32)


def _pair(value: Any) -> tuple[int, int]:
    return (int(value[0]), int(value[1])) if isinstance(value, Sequence) else (int(value), int(value))


def to_engine_layout(value: Value, tensor: Tensor) -> Array:
    """A node's result as the engine's tensor [time, frequency, channels], of the first in the batch."""
    dims = list(range(tensor.dim()))
    flat: list[str] = []
    sizes: list[int] = []
    for dim in dims:
        if len(value.axes[dim]) == 1:
            flat.append(value.axes[dim][0])
            sizes.append(tensor.shape[dim])
            continue
        rest = tensor.shape[dim]
        for role in value.axes[dim][::-1]:
            known = {"c": value.channels, "f": value.frequencies}.get(role, rest)
            flat.insert(len(flat) - value.axes[dim][::-1].index(role), role)
            sizes.insert(len(sizes) - value.axes[dim][::-1].index(role), known)
            rest //= known
    tensor = tensor.reshape(sizes)
    for role in ("b", "t", "f", "c"):
        if role not in flat:
            tensor, flat = tensor.unsqueeze(-1), [*flat, role]
    order = [flat.index(role) for role in ("b", "t", "f", "c")]
    others = [place for place in range(len(flat)) if place not in order]
    moved = tensor.permute(*order, *others)
    return _numbers(moved.reshape(moved.shape[:4])[0])


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
        return Problem(name, operation, node.meta.get(_place_key, ""), obstacle.why, obstacle.instead)

    def _lower(self, node: fx.Node) -> Any:
        arguments = [self.values.get(argument, "constant") for argument in node.all_input_nodes]
        hidden = any(argument is None for argument in arguments)  # by an obstacle before
        if node.op == "call_module":
            module = self.modules[str(node.target)]
            handler = _find_module_handler(module)
            if hidden:
                return None
            value = handler(self, module, self._of(node.args[0]))
        else:
            name = node.target if isinstance(node.target, str) else getattr(node.target, "__name__", "")
            function = _functions.get(str(name).strip("_"))
            if function is None:
                raise _unknown_operation(str(name))
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
        if isinstance(result, Tensor) and tuple(len(r) for r in value.axes) and len(value.axes) != result.dim():
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
                raise Obstacle("the module's result does not depend on its input, or is several results",
                               "return one tensor")
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
            self.node.meta.get(_place_key, ""),
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
            value, "delay", records.Conv(taps, time_dilation=slices),
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
            value, suffix, records.FrequencyRescale(bands), frequencies=len(bands),
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
            value, suffix, records.FrequencyRescale(bands), frequencies=len(bands),
            multiply_adds=total * value.channels,
        )

    def mix_channels(self, value: Value, matrix: Array, bias: Optional[Array], suffix: str) -> Value:
        """[outputs, inputs] across channels."""
        outputs, inputs = matrix.shape
        weights = np.ascontiguousarray(matrix.T, np.float32).reshape(1, 1, inputs, outputs)
        return self.add(
            value, suffix, records.Conv(weights, bias), channels=outputs,
            multiply_adds=value.frequencies * inputs * outputs,
        )

    def affine(self, value: Value, gain: Any, offset: Any, suffix: str = "") -> Value:
        """Gain and offset, one for all or one for each channel."""
        value = self.settle(value)
        gains = np.broadcast_to(np.asarray(gain, np.float32), (value.channels,)).copy()
        offsets = np.broadcast_to(np.asarray(offset, np.float32), (value.channels,)).copy()
        return self.add(
            value, suffix, records.Norm(gains, offsets),
            multiply_adds=value.frequencies * value.channels,
        )

    def constant(self, like: Value, array: Array) -> Value:
        """A layer that gives [frequencies, channels] for every slice of another."""
        matrix = np.zeros((like.channels, like.channels), np.float32)
        return self.add(
            like, "constant", records.SelfAttention(matrix, array),
            multiply_adds=like.frequencies * like.channels**2,
        )

    def offset(self, value: Value, array: Array, suffix: str) -> Value:
        """Adds [frequencies, channels]."""
        if np.all(array == array[:1]):
            return self.affine(value, 1.0, array[0], suffix)
        return self.add(
            value, suffix, records.SelfAttention(np.eye(value.channels, dtype=np.float32), array),
            multiply_adds=value.frequencies * value.channels**2,
        )

    def activation(self, value: Value, layer: records.Layer, suffix: str = "") -> Value:
        value = self.settle(value)
        return self.add(value, suffix, layer)

    def arithmetic(self, operation: int, sources: Sequence[Value], suffix: str = "") -> Value:
        """Element by element. A layer can be a source once only, so what comes twice takes a way of its own."""
        seen: list[Value] = []
        for source in sources:
            if any(source.layer == other.layer for other in seen) or source.layer == "input" and seen == []:
                source = source if source.layer == "input" and not seen else self.add(
                    source, "same", self._identity(source)
                )
            seen.append(source)
        return self.add(seen, suffix, records.Arithmetic(operation))

    # ---- layouts ----------------------------------------------------------------------------------

    def gather(self, value: Value, kernel: Array, bias: Optional[Array], suffix: str, **options: Any) -> Value:
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
                value, "fold", records.Conv(move, frequency_stride=step), frequencies=count,
                channels=step * inputs, multiply_adds=count * (step * inputs) ** 2,
            )
            kernel = kernel.reshape(times, count, step * inputs, outputs)
        layer = records.Conv(kernel, bias, frequency_stride=kernel.shape[1], **options)
        return self.add(
            value, suffix, layer, frequencies=1, channels=outputs, multiply_adds=int(kernel.size)
        )

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
        axes = tuple(("c",) if axis == role else (("1",) if axis in (("c",), ("f",)) else axis)
                     for axis in value.axes)
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
            value, "refold", records.TransposedConv(move, frequency_stride=count), frequencies=count,
            channels=step, multiply_adds=int(move.size),
        )
        if step > 1:
            spread = np.eye(step, dtype=np.float32).reshape(1, step, 1, step)
            moved = self.add(
                moved, "refold", records.TransposedConv(spread, frequency_stride=step),
                frequencies=count * step, channels=1, multiply_adds=count * step * step,
            )
        if count * step != size:
            moved = self.resize(moved, 0, size - count * step)
        axes = tuple(("f",) if axis == ("c",) else (("1",) if axis == ("f",) else axis) for axis in value.axes)
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


_shape_only = {
    "size", "dim", "numel", "type", "ndimension", "zeros_like", "ones_like", "full_like", "new_zeros",
    "new_ones", "new_full", "arange",
}


# ---- what is known ------------------------------------------------------------------------------------

ModuleHandler = Callable[[Lowering, Any, Value], Any]
_modules: dict[type, ModuleHandler] = {}
_functions: dict[str, Callable[..., Any]] = {}


def _for_modules(*kinds: type) -> Callable[[ModuleHandler], ModuleHandler]:
    def register(handler: ModuleHandler) -> ModuleHandler:
        _modules.update(dict.fromkeys(kinds, handler))
        return handler

    return register


def _for_functions(*names: str) -> Callable[[Callable[..., Any]], Callable[..., Any]]:
    def register(handler: Callable[..., Any]) -> Callable[..., Any]:
        _functions.update(dict.fromkeys(names, handler))
        return handler

    return register


def _find_module_handler(module: nn.Module) -> ModuleHandler:
    for kind in type(module).__mro__:
        if kind in _modules:
            return _modules[kind]
    raise _unknown_operation(type(module).__name__)


_ways_out = {
    "GRU": (
        "the format has no recurrence",
        "zevrant.torch.DilatedMemory(input_size, hidden_size): dilated convolutions that are called alike",
    ),
    "LayerNorm": (
        "no layer takes means away at run time",
        "zevrant.torch.RMSNorm(channels), or BatchNorm2d, which is folded into its neighbour",
    ),
    "MaxPool2d": (
        "no layer takes a maximum over a window",
        "a convolution with a stride, or AvgPool2d over frequency",
    ),
    "MultiheadAttention": (
        "attention over a whole sequence sees the future and has no end",
        "attention over a short history, from shifted keys and values, or zevrant.torch.SelfAttention",
    ),
    "exp": ("no layer computes it", "softplus or elu; softmax over channels is known"),
    "sqrt": ("no layer computes it", "x / (x + c), which compresses levels alike"),
    "log": ("no layer computes it", "x / (x + c), which compresses levels alike"),
    "matmul": ("two tensors that depend on the input are multiplied as matrices", "multiply and sum"),
    "GELU": ("no layer computes it", "ReLU or ELU"),
    "SiLU": ("no layer computes it", "x * torch.sigmoid(x)"),
}
_ways_out.update({name: _ways_out["GRU"] for name in ("LSTM", "RNN", "GRUCell", "LSTMCell")})
_ways_out.update(
    {name: _ways_out["LayerNorm"] for name in ("InstanceNorm2d", "InstanceNorm1d", "GroupNorm", "layer_norm")}
)
_ways_out.update({"max_pool2d": _ways_out["MaxPool2d"], "log1p": _ways_out["log"], "log10": _ways_out["log"]})
_ways_out.update({"bmm": _ways_out["matmul"], "einsum": _ways_out["matmul"]})
_ways_out.update({"gelu": _ways_out["GELU"], "silu": _ways_out["SiLU"], "pow": _ways_out["sqrt"]})


def _unknown_operation(name: str) -> Obstacle:
    why, instead = _ways_out.get(name, ("the engine has no layer for it", "what docs/python.md lists"))
    return Obstacle(why, instead)


# ---- convolutions ---------------------------------------------------------------------------------------


def _engine_start(kernel: int, stride: int) -> int:
    return ours.frequency_start(kernel, stride)


def _extend_kernel(taps: int, stride: int, start: int) -> tuple[int, int]:
    """Zeros below and above a kernel that bring its tap 0 to this input frequency for output 0."""
    for total in range(2 * (taps + abs(start) + stride) + 2):
        for below in range(total + 1):
            if _engine_start(taps + total, stride) == start - below:
                return below, total - below
    raise Obstacle("a kernel that no padding brings to its place")


def _spread_taps(kernel: Array, axis: int, dilation: int) -> Array:
    if dilation == 1 or kernel.shape[axis] == 1:
        return kernel
    shape = list(kernel.shape)
    shape[axis] = dilation * (shape[axis] - 1) + 1
    spread = np.zeros(shape, np.float32)
    spread[tuple(slice(None, None, dilation) if a == axis else slice(None) for a in range(kernel.ndim))] = kernel
    return spread


def _ungroup(weight: Array, groups: int) -> Array:
    """[outputs, inputs / groups, ...] -> [outputs, inputs, ...] with zeros between the groups."""
    outputs, inputs = weight.shape[:2]
    full = np.zeros((outputs, inputs * groups, *weight.shape[2:]), np.float32)
    for group in range(groups):
        rows = slice(group * (outputs // groups), (group + 1) * (outputs // groups))
        full[rows, group * inputs : (group + 1) * inputs] = weight[rows]
    return full


def _spatial_order(value: Value, channel: int, first: int, second: int) -> tuple[Value, bool]:
    """Checks a Conv2d's layout; True where frequency comes before time."""
    time = [place for place in (first, second) if value.axes[place] == ("t",)]
    if len(time) != 1:
        raise Obstacle("a convolution over two dimensions of which none is time",
                       "tensors laid out as [batch, channels, time, frequency]")
    return value, time[0] == second


def _time_offset(low: Lowering, value: Value, padding: int, reach: int) -> tuple[Value, int]:
    """The slices to wait for, when a kernel reaches so far back and so many zeros stand in front."""
    padding += value.front
    if padding > reach:
        value = low.delay(replace(value, front=0, low=0, high=0), padding - reach)
        padding = reach
    offset = reach - padding
    if offset > 127:
        raise Obstacle(f"a convolution waits for {offset} slices; a layer holds back up to 127")
    return value, offset


def _convolve(
    low: Lowering,
    value: Value,
    weight: Array,
    bias: Optional[Array],
    stride: tuple[int, int],
    padding: tuple[tuple[int, int], tuple[int, int]],
    dilation: tuple[int, int],
    groups: int,
) -> Value:
    """weight [outputs, inputs / groups, time, frequency], padding ((front, end), (below, above))."""
    inputs, outputs = weight.shape[1] * groups, weight.shape[0]
    if value.channels != inputs:
        raise Obstacle(f"{value.channels} channels meet a convolution of {inputs}")
    channelwise = groups == inputs and groups > 1
    if groups > 1 and not channelwise:
        weight = _ungroup(weight, groups)
        low.notes.append(f"{low.node.name}: {groups} groups are written as one, with zeros between them")
    kernel = np.ascontiguousarray(weight.transpose(2, 3, 1, 0))  # [time, frequency, inputs, outputs]
    kernel = _spread_taps(kernel, 1, dilation[1])
    time_dilation = dilation[0] if kernel.shape[0] > 1 else 1
    reach = time_dilation * (kernel.shape[0] - 1)

    start = -(padding[1][0] + value.low)
    width = value.frequencies + value.low + value.high + sum(padding[1])
    frequencies = (width - kernel.shape[1]) // stride[1] + 1
    if frequencies < 1:
        raise Obstacle(f"a kernel of {weight.shape[3]} frequencies is wider than what it meets")
    # Above the band there are zeros as well, so rows that are missing there can be laid out as zeros. A
    # band that is cut has to be cut before.
    if value.low < 0 or value.high < 0:
        value = replace(low.resize(value, min(value.low, 0), min(value.high, 0)), low=max(value.low, 0),
                        high=max(value.high, 0))
        start = -(padding[1][0] + value.low)
    needed = frequencies * stride[1] - value.frequencies
    value, offset = _time_offset(low, value, padding[0][0], reach)
    if needed > 0:
        value = low.resize(value, 0, needed)
    below, above = _extend_kernel(kernel.shape[1], stride[1], start)
    kernel = np.pad(kernel, ((0, 0), (below, above), (0, 0), (0, 0)))
    value = replace(value, front=0, low=0, high=0)
    produced = value.frequencies // stride[1]
    layer = records.Conv(kernel, bias, stride[0], stride[1], time_dilation, time_offset=offset)
    result = low.add(value, "", layer, frequencies=produced, channels=outputs,
                     multiply_adds=produced * int(kernel.size))
    if produced > frequencies:
        result = low.resize(result, 0, frequencies - produced)
    return result


def _conv_padding(module: Any, count: int) -> list[tuple[int, int]]:
    if module.padding_mode != "zeros":
        raise Obstacle(f"padding by {module.padding_mode}", 'padding_mode="zeros"')
    if module.padding == "valid":
        return [(0, 0)] * count
    if module.padding == "same":
        totals = [d * (k - 1) for d, k in zip(module.dilation, module.kernel_size)]
        return [(total // 2, total - total // 2) for total in totals]
    return [(int(p), int(p)) for p in module.padding]


def _weights(module: Any) -> tuple[Array, Optional[Array]]:
    return _numbers(module.weight), None if module.bias is None else _numbers(module.bias)


def _as_channels(low: Lowering, value: Value, place: int, frequency: Optional[int]) -> Value:
    """Makes the dimension that a convolution takes as channels the engine's channels."""
    role = value.axes[place]
    if role == ("c",) or (role == ("1",) and value.channels == 1):
        if frequency is not None and value.axes[frequency] not in (("f",), ("1",)):
            raise Obstacle("a convolution whose last dimension is not frequency")
        return value
    if frequency is None or low.size_of(value, value.axes[frequency]) == 1:
        return low.to_channels(value, role)
    raise Obstacle("a convolution takes frequencies as channels and channels as frequencies")


def _as_frequency(low: Lowering, value: Value, place: int, channel: int) -> Value:
    """Where a dimension of channels is now meant as frequency."""
    if value.axes[place] == ("c",) and value.channels > 1 and low.size_of(value, value.axes[channel]) == 1:
        return low.channels_to_frequency(value)
    return value


@_for_modules(nn.Conv2d)
def _conv2d(low: Lowering, module: nn.Conv2d, value: Value) -> Value:
    weight, bias = _weights(module)
    value, swapped = _spatial_order(value, 1, 2, 3)
    place = 2 if swapped else 3
    value = _as_frequency(low, value, place, 1)
    value = _as_channels(low, value, 1, place)
    padding, stride, dilation = _conv_padding(module, 2), _pair(module.stride), _pair(module.dilation)
    if swapped:
        weight, padding = weight.transpose(0, 1, 3, 2), padding[::-1]
        stride, dilation = stride[::-1], dilation[::-1]
    result = _convolve(low, value, weight, bias, stride, (padding[0], padding[1]), dilation, module.groups)
    axes = list(value.axes)
    axes[1], axes[place] = ("c",), ("f",)
    return replace(result, axes=tuple(axes))


@_for_modules(nn.Conv1d)
def _conv1d(low: Lowering, module: nn.Conv1d, value: Value) -> Value:
    weight, bias = _weights(module)
    if value.axes[2] != ("t",):
        raise Obstacle("a convolution over one dimension that is not time",
                       "Conv2d over [batch, channels, time, frequency]")
    padding = _conv_padding(module, 1)[0]
    role = value.axes[1]
    axes: tuple[Role, ...] = (value.axes[0], ("c",), ("t",))
    if module.groups == 1 and role == ("f",) and value.channels == 1 and module.stride[0] == 1:
        dilation = module.dilation[0] if module.kernel_size[0] > 1 else 1
        if value.low or value.high:
            value = replace(low.resize(value, value.low, value.high), low=0, high=0)
        value, offset = _time_offset(low, value, padding[0], dilation * (module.kernel_size[0] - 1))
        kernel = np.ascontiguousarray(weight.transpose(2, 1, 0))[:, :, None]
        result = low.gather(replace(value, front=0), kernel, bias, "", time_dilation=dilation, time_offset=offset)
        return replace(result, axes=axes)
    if role != ("c",):
        value = low.to_channels(value, role)
    result = _convolve(low, value, weight[..., None], bias, (module.stride[0], 1), (padding, (0, 0)),
                       (module.dilation[0], 1), module.groups)
    return replace(result, axes=axes)


def _convolve_transposed(
    low: Lowering,
    value: Value,
    weight: Array,
    bias: Optional[Array],
    stride: tuple[int, int],
    padding: tuple[int, int],
    dilation: tuple[int, int],
    groups: int,
    frequencies: int,
) -> Value:
    """weight [inputs, outputs / groups, time, frequency]"""
    value = low.settle(value)
    inputs, outputs = weight.shape[0], weight.shape[1] * groups
    if value.channels != inputs:
        raise Obstacle(f"{value.channels} channels meet a transposed convolution of {inputs}")
    weight = _spread_taps(_spread_taps(weight, 2, dilation[0]), 3, dilation[1])
    channelwise = groups == inputs == outputs and groups > 1
    if channelwise:
        kernel = weight.transpose(2, 3, 1, 0)  # [time, frequency, 1, channels]
    else:
        if groups > 1:
            swapped = weight.reshape(groups, inputs // groups, outputs // groups, *weight.shape[2:])
            weight = _ungroup(swapped.transpose(0, 2, 1, 3, 4).reshape(outputs, inputs // groups,
                                                                       *weight.shape[2:]), groups)
            weight = weight.transpose(1, 0, 2, 3)
        kernel = weight.transpose(2, 3, 1, 0)  # [time, frequency, outputs, inputs]
    kernel = np.ascontiguousarray(kernel)
    if kernel.shape[0] < stride[0]:
        kernel = np.pad(kernel, ((0, stride[0] - kernel.shape[0]), (0, 0), (0, 0), (0, 0)))
    needed = -(-frequencies // stride[1]) - value.frequencies
    if needed > 0:
        value = low.resize(value, 0, needed)
    below, above = _extend_kernel(kernel.shape[1], stride[1], -padding[1])
    kernel = np.pad(kernel, ((0, 0), (below, above), (0, 0), (0, 0)))
    produced = value.frequencies * stride[1]
    layer = records.TransposedConv(kernel, bias, outputs, stride[0], stride[1], time_offset=padding[0])
    result = low.add(value, "", layer, frequencies=produced, channels=outputs,
                     multiply_adds=value.frequencies * int(kernel.size) // stride[0])
    if produced > frequencies:
        result = low.resize(result, 0, frequencies - produced)
    return result


@_for_modules(nn.ConvTranspose2d)
def _conv_transpose2d(low: Lowering, module: nn.ConvTranspose2d, value: Value) -> Value:
    weight, bias = _weights(module)
    value, swapped = _spatial_order(value, 1, 2, 3)
    place = 2 if swapped else 3
    value = _as_channels(low, _as_frequency(low, value, place, 1), 1, place)
    stride, padding, dilation = _pair(module.stride), _pair(module.padding), _pair(module.dilation)
    if swapped:
        weight = weight.transpose(0, 1, 3, 2)
        stride, padding, dilation = stride[::-1], padding[::-1], dilation[::-1]
    frequencies = low.results[low.node.name].shape[place]
    result = _convolve_transposed(low, value, weight, bias, stride, padding, dilation, module.groups,
                                  frequencies)
    axes = list(value.axes)
    axes[1], axes[place] = ("c",), ("f",)
    return replace(result, axes=tuple(axes))


@_for_modules(nn.ConvTranspose1d)
def _conv_transpose1d(low: Lowering, module: nn.ConvTranspose1d, value: Value) -> Value:
    weight, bias = _weights(module)
    if value.axes[2] != ("t",):
        raise Obstacle("a convolution over one dimension that is not time")
    if value.axes[1] != ("c",):
        value = low.to_channels(value, value.axes[1])
    result = _convolve_transposed(
        low, value, weight[..., None], bias, (module.stride[0], 1), (int(module.padding[0]), 0),
        (module.dilation[0], 1), module.groups, 1,
    )
    return replace(result, axes=(value.axes[0], ("c",), ("t",)))


@_for_modules(ours.CausalConv2d)
def _causal_conv2d(low: Lowering, module: ours.CausalConv2d, value: Value) -> Value:
    value = low.settle(_as_channels(low, value, 1, 3))
    weight, bias = _weights(module)
    kernel = np.ascontiguousarray(weight.transpose(2, 3, 1, 0))
    produced = value.frequencies // module.stride[1]
    layer = records.Conv(kernel, bias, module.stride[0], module.stride[1], module.time_dilation,
                         time_offset=module.look_ahead)
    result = low.add(value, "", layer, frequencies=produced, channels=module.out_channels,
                     multiply_adds=produced * int(kernel.size))
    return replace(result, axes=(value.axes[0], ("c",), ("t",), ("f",)))


@_for_modules(ours.CausalConvTranspose2d)
def _causal_conv_transpose2d(low: Lowering, module: ours.CausalConvTranspose2d, value: Value) -> Value:
    value = low.settle(_as_channels(low, value, 1, 3))
    weight, bias = _weights(module)
    kernel = np.ascontiguousarray(weight.transpose(2, 3, 1, 0))
    layer = records.TransposedConv(kernel, bias, module.out_channels, module.stride[0], module.stride[1],
                                   time_offset=module.look_ahead)
    result = low.add(value, "", layer, frequencies=value.frequencies * module.stride[1],
                     channels=module.out_channels,
                     multiply_adds=value.frequencies * int(kernel.size) // module.stride[0])
    return replace(result, axes=(value.axes[0], ("c",), ("t",), ("f",)))


@_for_modules(nn.Linear)
def _linear(low: Lowering, module: nn.Linear, value: Value) -> Value:
    weight, bias = _weights(module)
    return _apply_linear(low, value, weight, bias)


def _apply_linear(low: Lowering, value: Value, weight: Array, bias: Optional[Array]) -> Value:
    """[outputs, inputs] over the last dimension."""
    value = low.settle(value)
    role = value.axes[-1]
    if role == ("t",) or "t" in role or "b" in role:
        raise Obstacle("a matrix across time sees the future", "a convolution over time")
    if low.size_of(value, role) == 1 and role != ("c",):
        role = ("c",) if value.channels == 1 and value.frequencies == 1 else role
    if role in (("c",), ("1",)) and value.channels == weight.shape[1]:
        result = low.mix_channels(value, weight, bias, "")
        return replace(result, axes=(*value.axes[:-1], ("c",)))
    if role == ("f",):
        square = weight.shape[0] == weight.shape[1] and value.channels == 1
        if square:
            layer = records.Dense(weight[:, :, None], None if bias is None else bias[:, None])
            return low.add(value, "", layer, multiply_adds=int(weight.size))
        result = low.mix_frequencies(value, weight, "" if bias is None else "matrix")
        if bias is None:
            return result
        return low.offset(result, np.repeat(bias[:, None], value.channels, 1), "")
    if set(role) == {"c", "f"}:
        outputs = weight.shape[0]
        if role == ("c", "f"):
            kernel = weight.reshape(outputs, value.channels, value.frequencies).transpose(2, 1, 0)
        else:
            kernel = weight.reshape(outputs, value.frequencies, value.channels).transpose(1, 2, 0)
        result = low.gather(value, np.ascontiguousarray(kernel)[None], bias, "")
        return replace(result, axes=(*value.axes[:-1], ("c",)))
    raise Obstacle(f"a matrix across {' and '.join(role)}")


# ---- normalisation, activations ---------------------------------------------------------------------------


@_for_modules(nn.BatchNorm2d, nn.BatchNorm1d)
def _batch_norm(low: Lowering, module: nn.BatchNorm2d, value: Value) -> Value:
    if module.running_mean is None or module.running_var is None:
        raise Obstacle("BatchNorm without running statistics", "track_running_stats=True")
    scale = (module.running_var.double() + module.eps).rsqrt()
    weight = scale if module.weight is None else scale * module.weight.double()
    shift = -module.running_mean.double() * weight
    if module.bias is not None:
        shift = shift + module.bias.double()
    gain, offset = _numbers(weight), _numbers(shift)
    value = low.settle(value)
    if value.axes[1] == ("f",):
        return _per_frequency(low, value, gain, offset)
    source = low.by_name.get(value.layer)
    before = low.node.all_input_nodes[0]
    layer = source.record if source else None
    if isinstance(layer, (records.Conv, records.TransposedConv)) and len(before.users) == 1 and source:
        weights = np.asarray(layer.weights)
        if isinstance(layer, records.Conv):
            layer.weights = weights * gain
        elif weights.shape[2] == 1 and value.channels > 1:
            layer.weights = weights * gain  # channel-wise: inputs are outputs
        else:
            layer.weights = weights * gain[:, None]
        layer.bias = offset if layer.bias is None else np.asarray(layer.bias) * gain + offset
        return value
    return low.affine(value, gain, offset)


def _per_frequency(low: Lowering, value: Value, gain: Array, offset: Array) -> Value:
    bands: list[tuple[int, records.Weights]] = [(k, gain[k : k + 1]) for k in range(value.frequencies)]
    scaled = low.add(value, "gain", records.FrequencyRescale(bands),
                     multiply_adds=value.frequencies * value.channels)
    return low.offset(scaled, np.repeat(offset[:, None], value.channels, 1), "")


@_for_modules(ours.ChannelGain)
def _channel_gain(low: Lowering, module: ours.ChannelGain, value: Value) -> Value:
    return low.affine(value, _numbers(module.gain), _numbers(module.offset))


@_for_modules(ours.RMSNorm)
def _rms_norm(low: Lowering, module: ours.RMSNorm, value: Value) -> Value:
    value = low.settle(value)
    offset = None if module.offset is None else _numbers(module.offset)
    return low.add(value, "", records.Norm(_numbers(module.gain), offset, mode=1),
                   multiply_adds=2 * value.frequencies * value.channels)


@_for_modules(ours.LevelNorm)
def _level_norm(low: Lowering, module: ours.LevelNorm, value: Value) -> Value:
    weight = _numbers(module.weight)
    return low.activation(value, records.PreNorm(np.concatenate([weight[:1], weight[:0:-1]])))


@_for_modules(ours.LevelFollower)
def _level_follower(low: Lowering, module: ours.LevelFollower, value: Value) -> Value:
    if not math.isclose(module.scale, low.level_scale, rel_tol=1e-6):
        raise Obstacle(
            f"its scale is {module.scale}, and the engine's {low.level_scale} for this packing",
            "scale=spectra.level_scale",
        )
    return low.activation(value, records.ARPreNorm(module.attack, module.release, module.epsilon))


@_for_modules(ours.FrequencyRescale)
def _frequency_rescale(low: Lowering, module: ours.FrequencyRescale, value: Value) -> Value:
    value = low.settle(value)
    taps = np.split(_numbers(module.taps), np.cumsum(module.counts)[:-1])
    return low.add(value, "", records.FrequencyRescale(list(zip(module.first, taps))),
                   frequencies=module.output_frequencies,
                   multiply_adds=sum(module.counts) * value.channels)


@_for_modules(ours.FrequencyDense)
def _frequency_dense(low: Lowering, module: ours.FrequencyDense, value: Value) -> Value:
    weight, bias = _weights(module)
    return low.add(low.settle(value), "", records.Dense(weight, bias), multiply_adds=int(weight.size))


@_for_modules(ours.SeparableChannelConv)
def _separable(low: Lowering, module: ours.SeparableChannelConv, value: Value) -> Value:
    value = low.settle(value)
    time, frequency = _numbers(module.time_kernel), _numbers(module.frequency_kernel)
    if module.look_ahead:
        raise_at = "and the engine does not report it as latency"
        low.notes.append(f"{low.node.name}: waits for {module.look_ahead} slices, {raise_at}")
    return low.add(value, "", records.SeparableChannelConv(np.roll(time, -1), frequency),
                   multiply_adds=value.frequencies * value.channels * (len(time) + len(frequency)))


@_for_modules(ours.SelfAttention)
def _self_attention(low: Lowering, module: ours.SelfAttention, value: Value) -> Value:
    value = low.settle(value)
    matrix, bias = _numbers(module.channel_matrix), _numbers(module.position_bias)
    times = None if module.time_weight is None else _numbers(module.time_weight)
    history = 0 if times is None else len(times)
    return low.add(value, "", records.SelfAttention(matrix, bias, module.look_ahead, times),
                   multiply_adds=value.frequencies * value.channels * (value.channels + history))


@_for_modules(nn.Dropout, nn.Dropout2d, nn.Dropout1d, nn.Identity)
def _nothing_to_do(low: Lowering, module: nn.Module, value: Value) -> Value:
    return value


@_for_functions("relu")
def _relu(low: Lowering, value: Value, inplace: bool = False) -> Value:
    return low.activation(value, records.ReLU())


@_for_functions("elu")
def _elu(low: Lowering, value: Value, alpha: float = 1.0, inplace: bool = False) -> Value:
    if alpha == 1.0:
        return low.activation(value, records.ELU())
    # alpha elu(x) + (1 - alpha) relu(x)
    value = low.settle(value)
    bent = low.affine(low.activation(value, records.ELU(), "elu"), alpha, 0.0, "scaled")
    straight = low.affine(low.activation(value, records.ReLU(), "relu"), 1.0 - alpha, 0.0, "scaled")
    return low.arithmetic(2, [bent, straight])


@_for_functions("leaky_relu")
def _leaky_relu(low: Lowering, value: Value, negative_slope: float = 0.01, inplace: bool = False) -> Value:
    return low.activation(value, records.LeakyReLU(negative_slope))


@_for_functions("sigmoid")
def _sigmoid(low: Lowering, value: Value) -> Value:
    return low.activation(value, records.Sigmoid())


@_for_functions("hardsigmoid")
def _hardsigmoid(low: Lowering, value: Value, inplace: bool = False) -> Value:
    return low.activation(value, records.HardSigmoid())


@_for_functions("softplus")
def _softplus(low: Lowering, value: Value, beta: float = 1.0, threshold: float = 20.0) -> Value:
    if beta == 1.0:
        return low.activation(value, records.Softplus())
    inner = low.activation(low.affine(value, beta, 0.0, "beta"), records.Softplus(), "softplus")
    return low.affine(inner, 1.0 / beta, 0.0)


@_for_functions("tanh")
def _tanh(low: Lowering, value: Value) -> Value:
    """With a = elu(-2 |x|), which is exp(-2 |x|) - 1, the tangent of |x| is -a / (2 + a)."""
    value = low.settle(value)

    def half(sign: float, suffix: str) -> Value:
        side = low.activation(low.affine(value, sign, 0.0, "side"), records.ReLU(), "side")
        bent = low.activation(low.affine(side, -2.0, 0.0, "side"), records.ELU(), "side")
        return low.arithmetic(1, [low.affine(bent, 1.0, 2.0, suffix), low.affine(bent, -1.0, 0.0, suffix)], suffix)

    return low.arithmetic(3, [half(-1.0, "below"), half(1.0, "above")])


@_for_functions("abs", "absolute")
def _abs(low: Lowering, value: Value) -> Value:
    value = low.settle(value)
    below = low.activation(low.affine(value, -1.0, 0.0, "below"), records.ReLU(), "below")
    return low.arithmetic(2, [low.activation(value, records.ReLU(), "above"), below])


@_for_functions("clamp", "clip", "hardtanh")
def _clamp(low: Lowering, value: Value, min: Any = None, max: Any = None, **_: Any) -> Value:
    value = low.settle(value)
    if min == 0 and max is None:
        return low.activation(value, records.ReLU())
    if min is not None:
        above = low.activation(low.affine(value, 1.0, -float(min), "above"), records.ReLU(), "above")
        value = low.affine(above, 1.0, float(min), "" if max is None else "raised")
    if max is not None:
        below = low.activation(low.affine(value, -1.0, float(max), "below"), records.ReLU(), "below")
        value = low.affine(below, -1.0, float(max))
    return value


@_for_functions("square")
def _square(low: Lowering, value: Value) -> Value:
    return _multiply(low, value, value)


@_for_functions("pow")
def _pow(low: Lowering, value: Value, exponent: Any) -> Value:
    if exponent != 2:
        raise _unknown_operation("sqrt")
    return _multiply(low, value, value)


@_for_functions("softmax")
def _softmax(low: Lowering, value: Value, dim: Optional[int] = None, **_: Any) -> Value:
    """Over channels. With the largest taken off, exp(x) is elu(x) + 1."""
    value = low.settle(value)
    if dim is None or value.axes[dim] != ("c",):
        raise Obstacle("softmax over another dimension than channels", "scores side by side in the channels")
    count = value.channels
    largest, shift = value, 1
    while shift < count:
        turned = low.mix_channels(largest, np.roll(np.eye(count, dtype=np.float32), shift, 0), None, "turn")
        excess = low.activation(low.arithmetic(3, [largest, turned], "excess"), records.ReLU(), "excess")
        largest = low.arithmetic(2, [largest, excess], "largest")
        shift *= 2
    if count > 1:
        value = low.arithmetic(3, [largest, value], "below")
    else:
        value = low.affine(value, 0.0, 0.0, "below")
    powers = low.affine(low.activation(value, records.ELU(), "power"), 1.0, 1.0, "power")
    total = low.mix_channels(powers, np.ones((count, count), np.float32), None, "total")
    return low.arithmetic(1, [total, powers])


def _module_as_function(name: str, *fields: str) -> ModuleHandler:
    def handler(low: Lowering, module: nn.Module, value: Value) -> Any:
        options = {field: getattr(module, field) for field in fields}
        return _functions[name](low, value, **options)

    return handler


_modules.update(
    {
        nn.ReLU: _module_as_function("relu"),
        nn.ELU: _module_as_function("elu", "alpha"),
        nn.LeakyReLU: _module_as_function("leaky_relu", "negative_slope"),
        nn.Sigmoid: _module_as_function("sigmoid"),
        nn.Hardsigmoid: _module_as_function("hardsigmoid"),
        nn.Softplus: _module_as_function("softplus", "beta"),
        nn.Tanh: _module_as_function("tanh"),
        nn.Softmax: _module_as_function("softmax", "dim"),
        nn.SiLU: lambda low, module, value: _multiply(low, value, _sigmoid(low, value)),
    }
)


@_for_functions("silu")
def _silu(low: Lowering, value: Value, inplace: bool = False) -> Value:
    return _multiply(low, value, _sigmoid(low, value))


@_for_modules(nn.PReLU)
def _prelu(low: Lowering, module: nn.PReLU, value: Value) -> Value:
    slope = _numbers(module.weight)
    if len(slope) == 1:
        return low.activation(value, records.LeakyReLU(float(slope[0])))
    # slope x + (1 - slope) relu(x)
    value = low.settle(value)
    above = low.affine(low.activation(value, records.ReLU(), "above"), 1.0 - slope, 0.0, "scaled")
    return low.arithmetic(2, [above, low.affine(value, slope, 0.0, "slope")])


@_for_modules(nn.AvgPool2d)
def _avg_pool(low: Lowering, module: nn.AvgPool2d, value: Value) -> Value:
    kernel, stride, padding = _pair(module.kernel_size), _pair(module.stride), _pair(module.padding)
    if padding != (0, 0) or kernel[0] != 1 or stride[0] != 1 or value.axes[-1] != ("f",):
        raise Obstacle("an average over time or with padding", "a convolution, or AvgPool2d((1, n))")
    value = low.settle(value)
    count = (value.frequencies - kernel[1]) // stride[1] + 1
    matrix = np.zeros((count, value.frequencies), np.float32)
    for k in range(count):
        matrix[k, k * stride[1] : k * stride[1] + kernel[1]] = 1.0 / kernel[1]
    return low.mix_frequencies(value, matrix, "")


@_for_modules(nn.Upsample)
def _upsample(low: Lowering, module: nn.Upsample, value: Value) -> Value:
    return _interpolate(low, value, module.size, module.scale_factor, module.mode)


@_for_functions("interpolate")
def _interpolate(low: Lowering, value: Value, size: Any = None, scale_factor: Any = None,
                 mode: str = "nearest", **_: Any) -> Value:
    if mode != "nearest":
        raise Obstacle(f"interpolation by {mode}", 'mode="nearest", or ConvTranspose2d')
    shape = low.results[low.node.name].shape
    before = low.results[low.node.all_input_nodes[0].name].shape
    value = low.settle(value)
    if shape[2] != before[2] or value.axes[2] != ("t",):
        raise Obstacle("interpolation over time", "ConvTranspose2d, or interpolate frequency only")
    return low.pick_frequencies(value, [k * before[3] // shape[3] for k in range(shape[3])], "")


@_for_modules(nn.ZeroPad2d, nn.ConstantPad2d, nn.ConstantPad1d)
def _zero_pad(low: Lowering, module: Any, value: Value) -> Value:
    return _pad(low, value, list(module.padding), "constant", getattr(module, "value", 0.0))


@_for_functions("pad")
def _pad(low: Lowering, value: Value, pad: Sequence[int], mode: str = "constant", constant: Any = 0.0,
         **kwargs: Any) -> Value:
    if mode != "constant" or kwargs.get("value", constant) not in (None, 0, 0.0):
        raise Obstacle(f"padding by {mode}", "padding by zeros")
    for number in range(len(pad) // 2):
        below, above = int(pad[2 * number]), int(pad[2 * number + 1])
        role = value.axes[-1 - number]
        if below == above == 0:
            continue
        if role == ("t",):
            value = _shift_time(low, value, below)
        elif role == ("f",):
            value = replace(value, low=value.low + below, high=value.high + above)
        elif role in (("c",), ("1",)) and below >= 0 and above >= 0:
            value = low.settle(value)
            place = np.eye(value.channels + below + above, value.channels, -below, dtype=np.float32)
            value = low.mix_channels(value, place, None, "pad")
            value = replace(value, axes=tuple(("c",) if k == len(value.axes) - 1 - number else axis
                                              for k, axis in enumerate(value.axes)))
        else:
            raise Obstacle(f"padding of {'x'.join(role)}")
    return value


def _shift_time(low: Lowering, value: Value, front: int) -> Value:
    """Slices behind the end do not matter: slice k of a result is compared with slice k."""
    if value.front + front >= 0:
        return replace(value, front=value.front + front)
    cut = -(value.front + front)
    value = low.settle(replace(value, front=0))
    if cut > 127:
        raise Obstacle(f"{cut} slices are cut off in front; one layer can drop up to 127")
    weights = np.ones((1, 1, 1, value.channels), np.float32)
    return low.add(value, "wait", records.Conv(weights, time_offset=cut),
                   multiply_adds=value.frequencies * value.channels)


# ---- merging and arithmetic -----------------------------------------------------------------------------


@_for_functions("cat", "concat", "concatenate")
def _cat(low: Lowering, tensors: Sequence[Any], dim: int = 0, axis: Optional[int] = None) -> Value:
    dim = dim if axis is None else axis
    values = [low.settle(_live(tensor)) for tensor in tensors]
    place = dim % len(values[0].axes)
    roles = {value.axes[place] for value in values}
    sole = values[0].axes[place]
    if len(values) == 1:
        return values[0]
    if roles <= {("c",), ("1",)} and all(v.frequencies == values[0].frequencies for v in values):
        if any(low.size_of(v, v.axes[place]) != v.channels for v in values if v.axes[place] == ("1",)):
            raise Obstacle("tensors are joined along a dimension that is neither channels nor frequency")
        channels = sum(value.channels for value in values)
        distinct: list[Value] = []
        for value in values:
            taken = any(value.layer == other.layer for other in distinct)
            distinct.append(low.add(value, "same", low._identity(value)) if taken else value)
        result = low.add(distinct, "", records.Concat(), channels=channels)
        return replace(result, axes=tuple(("c",) if k == place else a for k, a in enumerate(values[0].axes)))
    if sole == ("f",) and roles == {sole}:
        total = sum(value.frequencies for value in values)
        below, parts = 0, []
        for value in values:
            parts.append(low.resize(value, below, total - below - value.frequencies))
            below += value.frequencies
        return low.arithmetic(2, parts)
    raise Obstacle(f"tensors are joined along {' and '.join(sorted('x'.join(r) for r in roles))}",
                   "join along channels or frequency")


def _live(value: Any) -> Value:
    if not isinstance(value, Value):
        raise Obstacle("a constant takes the place of a tensor that depends on the input")
    return value


def _constant_over(low: Lowering, value: Value, constant: Any) -> Optional[Array]:
    """A constant as [frequencies or 1, channels or 1] beside a value; None for one number."""
    if isinstance(constant, (int, float)) or isinstance(constant, Tensor) and constant.numel() == 1:
        return None
    if not isinstance(constant, Tensor):
        raise Obstacle(f"an operand of type {type(constant).__name__}")
    array = _numbers(constant)
    array = array.reshape((1,) * (len(value.axes) - array.ndim) + array.shape)
    table = {("c",): 1, ("f",): 0}
    out = np.ones((1, 1), np.float32)
    order: list[tuple[int, int]] = []
    for place, axis in enumerate(value.axes):
        if array.shape[place] == 1:
            continue
        if axis not in table:
            first = array.take([0], place)
            if not np.all(array == first):
                raise Obstacle(f"a constant that differs along {'x'.join(axis)}")
            array = first
            continue
        order.append((table[axis], place))
    array = array.transpose([p for _, p in sorted(order)] + [p for p in range(array.ndim)
                                                            if p not in [q for _, q in order]])
    kept = dict(order)
    shape = (
        array.shape[0] if 0 in kept else 1,
        (array.shape[1] if 0 in kept else array.shape[0]) if 1 in kept else 1,
    )
    out = array.reshape(shape)
    return out


def _whole(value: Value, array: Array) -> Array:
    return np.ascontiguousarray(np.broadcast_to(array, (value.frequencies, value.channels)), np.float32)


@_for_functions("add", "iadd")
def _add(low: Lowering, first: Any, second: Any, alpha: float = 1.0) -> Value:
    if alpha != 1.0:
        raise Obstacle("add with alpha", "a + alpha * b")
    if not isinstance(first, Value):
        first, second = second, first
    if isinstance(second, Value):
        return low.arithmetic(2, low.align_layout(first, second))
    array = _constant_over(low, first, second)
    if array is None:
        return first if float(second) == 0.0 else low.affine(first, 1.0, float(second))
    first = low.settle(first)
    return low.offset(first, _whole(first, array), "")


@_for_functions("mul", "imul", "multiply")
def _multiply(low: Lowering, first: Any, second: Any) -> Value:
    if not isinstance(first, Value):
        first, second = second, first
    if isinstance(second, Value):
        return low.arithmetic(0, low.align_layout(first, second))
    array = _constant_over(low, first, second)
    first = low.settle(first)
    if array is None:
        return low.affine(first, float(second), 0.0)
    if array.shape[0] == 1:
        return low.affine(first, array[0], 0.0)
    if array.shape[1] == 1:
        bands: list[tuple[int, records.Weights]] = [(k, array[k]) for k in range(first.frequencies)]
        return low.add(first, "", records.FrequencyRescale(bands),
                       multiply_adds=first.frequencies * first.channels)
    return low.arithmetic(0, [first, low.constant(first, _whole(first, array))])


@_for_functions("sub", "isub", "subtract")
def _subtract(low: Lowering, first: Any, second: Any, alpha: float = 1.0) -> Value:
    if alpha != 1.0:
        raise Obstacle("subtract with alpha", "a - alpha * b")
    if isinstance(first, Value) and isinstance(second, Value):
        first, second = low.align_layout(first, second)
        return low.arithmetic(3, [second, first])
    if isinstance(first, Value):
        return _add(low, first, -second)
    return _add(low, low.affine(second, -1.0, 0.0, "negative"), first)


@_for_functions("rsub")
def _reverse_subtract(low: Lowering, first: Any, second: Any) -> Value:
    return _subtract(low, second, first)


@_for_functions("truediv", "div", "divide", "itruediv")
def _divide(low: Lowering, first: Any, second: Any) -> Value:
    if isinstance(first, Value) and isinstance(second, Value):
        first, second = low.align_layout(first, second)
        return low.arithmetic(1, [second, first])
    if isinstance(first, Value):
        return _multiply(low, first, 1.0 / second)
    second = low.settle(second)
    array = _constant_over(low, second, first)
    table = np.full((1, 1), float(first), np.float32) if array is None else array
    return low.arithmetic(1, [second, low.constant(second, _whole(second, table))])


@_for_functions("neg", "negative")
def _negative(low: Lowering, value: Value) -> Value:
    return low.affine(value, -1.0, 0.0)


@_for_functions("mean", "sum")
def _reduce(low: Lowering, value: Value, dim: Any = None, keepdim: bool = False, **_: Any) -> Value:
    value = low.settle(value)
    if dim is None:
        raise Obstacle("a sum over everything sees the future", "sums over channels or frequency")
    name = str(getattr(low.node.target, "__name__", low.node.target))
    places = sorted(d % len(value.axes) for d in ([dim] if isinstance(dim, int) else dim))
    for place in places:
        role = value.axes[place]
        if role == ("c",):
            factor = 1.0 / value.channels if name == "mean" else 1.0
            value = low.mix_channels(value, np.full((1, value.channels), factor, np.float32), None, name)
        elif role == ("f",):
            factor = 1.0 / value.frequencies if name == "mean" else 1.0
            value = low.mix_frequencies(value, np.full((1, value.frequencies), factor, np.float32), name)
        elif role == ("t",):
            raise Obstacle("a sum over all of time sees the future", "a causal convolution, or LevelNorm")
        elif role != ("1",):
            raise Obstacle(f"a sum over {'x'.join(role)}")
    if keepdim:
        axes = value.axes
    else:
        axes = tuple(axis for place, axis in enumerate(value.axes) if place not in places)
    return replace(value, axes=axes)


# ---- layout -------------------------------------------------------------------------------------------


@_for_functions("getitem")
def _get_item(low: Lowering, value: Any, index: Any) -> Any:
    if not isinstance(value, Value):
        return value[index]
    index = index if isinstance(index, tuple) else (index,)
    if any(entry is Ellipsis for entry in index):
        place = next(k for k, entry in enumerate(index) if entry is Ellipsis)
        used = sum(entry is not None for entry in index) - 1
        index = index[:place] + (slice(None),) * (len(value.axes) - used) + index[place + 1 :]
    axes: list[Role] = []
    dim = 0
    before = low.results[low.node.all_input_nodes[0].name].shape
    for entry in index:
        if entry is None:
            axes.append(("1",))
            continue
        role, size = value.axes[dim], before[dim]
        if isinstance(entry, int):
            value = _cut(low, value, role, range(size)[entry], 1, 1, size)
        elif isinstance(entry, slice):
            start, stop, step = entry.indices(size)
            value = _cut(low, value, role, start, len(range(start, stop, step)), step, size)
            axes.append(role)
        else:
            raise Obstacle("a tensor is indexed by another", "slices")
        dim += 1
    return replace(value, axes=(*axes, *value.axes[dim:]))


def _cut(low: Lowering, value: Value, role: Role, start: int, count: int, step: int, size: int) -> Value:
    if start == 0 and count == size and step == 1 or role in (("b",), ("1",)):
        return value
    if role == ("t",):
        if step != 1:
            raise Obstacle("every so many slices are taken", "a convolution with a stride in time")
        return _shift_time(low, value, -start)
    places = [start + k * step for k in range(count)]
    value = low.settle(value)
    if role == ("f",):
        return low.pick_frequencies(value, places, "cut")
    if role == ("c",):
        return low.mix_channels(value, np.eye(value.channels, dtype=np.float32)[places], None, "cut")
    raise Obstacle(f"a part of {'x'.join(role)} is taken")


@_for_functions("chunk")
def _chunk(low: Lowering, value: Value, chunks: int, dim: int = 0) -> tuple[Value, ...]:
    size = low.results[low.node.all_input_nodes[0].name].shape[dim]
    return _split(low, value, -(-size // chunks), dim)


@_for_functions("split")
def _split(low: Lowering, value: Value, split_size: Any, dim: int = 0) -> tuple[Value, ...]:
    size = low.results[low.node.all_input_nodes[0].name].shape[dim]
    sizes = (
        [min(split_size, size - start) for start in range(0, size, split_size)]
        if isinstance(split_size, int)
        else list(split_size)
    )
    starts = [sum(sizes[:k]) for k in range(len(sizes))]
    role = value.axes[dim]
    return tuple(_cut(low, value, role, start, count, 1, size) for start, count in zip(starts, sizes))


@_for_functions("align")
def _align(low: Lowering, *values: Value) -> tuple[Value, ...]:
    return values


@_for_functions("permute")
def _permute(low: Lowering, value: Value, *dims: Any) -> Value:
    order = dims[0] if len(dims) == 1 and not isinstance(dims[0], int) else dims
    return replace(value, axes=tuple(value.axes[d] for d in order))


@_for_functions("transpose", "swapaxes", "swapdims")
def _transpose(low: Lowering, value: Value, first: int, second: int) -> Value:
    axes = list(value.axes)
    axes[first], axes[second] = axes[second], axes[first]
    return replace(value, axes=tuple(axes))


@_for_functions("unsqueeze")
def _unsqueeze(low: Lowering, value: Value, dim: int) -> Value:
    axes = list(value.axes)
    axes.insert(dim if dim >= 0 else len(axes) + 1 + dim, ("1",))
    return replace(value, axes=tuple(axes))


@_for_functions("squeeze")
def _squeeze(low: Lowering, value: Value, dim: Optional[int] = None) -> Value:
    shape = low.results[low.node.all_input_nodes[0].name].shape
    if dim is None:
        raise Obstacle("squeeze of all dimensions depends on the batch", "squeeze(dim)")
    if shape[dim] != 1:
        return value
    axes = list(value.axes)
    axes.pop(dim)
    return replace(value, axes=tuple(axes))


@_for_functions("contiguous", "clone", "detach", "float", "to", "type_as")
def _same(low: Lowering, value: Value, *args: Any, **kwargs: Any) -> Value:
    return value


@_for_functions("reshape", "view", "flatten", "unflatten")
def _reshape(low: Lowering, value: Value, *args: Any, **kwargs: Any) -> Value:
    """Follows which dimensions are joined, and takes joined ones apart again."""
    before = low.results[low.node.all_input_nodes[0].name].shape
    after = low.results[low.node.name].shape
    if value.low or value.high:
        value = low.settle(value)
    sizes = {"c": value.channels, "f": value.frequencies, "1": 1}
    parts: list[tuple[str, int]] = []
    for role, size in zip(value.axes, before):
        rest = size
        run: list[tuple[str, int]] = []
        for part in role[::-1]:
            here = rest if part == role[0] else sizes.get(part, rest)
            run.insert(0, (part, here))
            rest //= here
        parts += run
    parts = [part for part in parts if part[1] != 1 or part[0] == "b"]
    axes: list[Role] = []
    for size in after:
        if size == 1 and not (parts and parts[0] == ("b", 1)):
            axes.append(("1",))
            continue
        joined: list[str] = []
        product = 1
        while product < size or not joined:
            if not parts or size % (product * parts[0][1]):
                raise Obstacle("a dimension is taken apart", "slices, chunk, or layers of their own")
            product *= parts[0][1]
            joined.append(parts.pop(0)[0])
        axes.append(tuple(joined))
    return replace(value, axes=tuple(axes))


@_for_functions("matmul")
def _matmul(low: Lowering, first: Any, second: Any) -> Value:
    if isinstance(first, Value) and isinstance(second, Tensor) and second.dim() == 2:
        return _apply_linear(low, first, _numbers(second).T, None)
    raise _unknown_operation("matmul")


@_for_functions("linear")
def _functional_linear(low: Lowering, value: Value, weight: Any, bias: Any = None) -> Value:
    return _apply_linear(low, value, _numbers(weight), None if bias is None else _numbers(bias))
