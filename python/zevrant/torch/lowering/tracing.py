"""Follows a module node by node, and tells where each stands."""

from __future__ import annotations

import dis
import inspect
import os
import traceback
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from typing import Any, cast

import torch
from torch import Tensor, fx, nn


class Obstacle(Exception):
    """Something that the engine has no layer for, what would do instead, and where it stands."""

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


place_key = "zevrant_place"
_folders_inside = (os.path.dirname(torch.__file__), os.path.dirname(os.path.dirname(__file__)))


def _frames_of_call() -> Iterator[tuple[str, int]]:
    frame = inspect.currentframe()
    while frame is not None:
        yield frame.f_code.co_filename, frame.f_lineno
        frame = frame.f_back


def find_place(frames: Iterable[tuple[str, int]]) -> str:
    """File and line of the innermost frame outside of PyTorch and of this package."""
    for name, line in frames:
        if not name.startswith((*_folders_inside, "<")):
            return f"{name}:{line}"
    return ""


class _Proxy(fx.Proxy):
    """Stands for a result while a module is followed. `a, b = x.chunk(2)` tells how many there are."""

    def __iter__(self) -> Iterator[fx.Proxy]:
        frame = inspect.currentframe()
        caller = frame.f_back if frame else None
        if caller is not None:
            for instruction in dis.get_instructions(caller.f_code):
                if instruction.offset == caller.f_lasti and instruction.opname == "UNPACK_SEQUENCE":
                    return (self[k] for k in range(instruction.argval))
        if self.node.target in ("chunk", torch.chunk):
            return (self[k] for k in range(len(self)))
        return cast(Iterator[fx.Proxy], self.tracer.iter(self))

    def __len__(self) -> int:
        chunks = self.node.args[1] if self.node.target in ("chunk", torch.chunk) else None
        return chunks if isinstance(chunks, int) else int(super().__len__())


class _Tracer(fx.Tracer):
    """Follows everything but PyTorch's own modules and those of this package with a layer of their own."""

    def create_proxy(self, *args: Any, **kwargs: Any) -> fx.Proxy:
        proxy = super().create_proxy(*args, **kwargs)
        proxy.node.meta[place_key] = find_place(_frames_of_call())
        return proxy

    def proxy(self, node: fx.Node) -> fx.Proxy:
        return _Proxy(node, self)

    def is_leaf_module(self, m: nn.Module, module_qualified_name: str) -> bool:
        from .registry import modules  # which needs what is told here

        return type(m) in modules or bool(super().is_leaf_module(m, module_qualified_name))


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
            find_place((f.filename, f.lineno or 0) for f in traceback.extract_tb(error.__traceback__)[::-1]),
        ) from error
    return fx.GraphModule(module, graph)
