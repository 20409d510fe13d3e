"""What is known of modules and functions: who turns them into layers, and what would do instead."""

from __future__ import annotations

from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from torch import nn

from .tracing import Obstacle

if TYPE_CHECKING:
    from .lowering import Lowering
    from .values import Value


ModuleHandler = Callable[["Lowering", Any, "Value"], Any]
modules: dict[type, ModuleHandler] = {}
functions: dict[str, Callable[..., Any]] = {}


def for_modules(*kinds: type) -> Callable[[ModuleHandler], ModuleHandler]:
    def register(handler: ModuleHandler) -> ModuleHandler:
        modules.update(dict.fromkeys(kinds, handler))
        return handler

    return register


def for_functions(*names: str) -> Callable[[Callable[..., Any]], Callable[..., Any]]:
    def register(handler: Callable[..., Any]) -> Callable[..., Any]:
        functions.update(dict.fromkeys(names, handler))
        return handler

    return register


def find_module_handler(module: nn.Module) -> ModuleHandler:
    for kind in type(module).__mro__:
        if kind in modules:
            return modules[kind]
    raise unknown_operation(type(module).__name__)


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
_ways_out.update(dict.fromkeys(("LSTM", "RNN", "GRUCell", "LSTMCell"), _ways_out["GRU"]))
_ways_out.update(
    dict.fromkeys(("InstanceNorm2d", "InstanceNorm1d", "GroupNorm", "layer_norm"), _ways_out["LayerNorm"])
)
_ways_out.update({"max_pool2d": _ways_out["MaxPool2d"], "log1p": _ways_out["log"], "log10": _ways_out["log"]})
_ways_out.update({"bmm": _ways_out["matmul"], "einsum": _ways_out["matmul"]})
_ways_out.update({"gelu": _ways_out["GELU"], "silu": _ways_out["SiLU"], "pow": _ways_out["sqrt"]})


def unknown_operation(name: str) -> Obstacle:
    why, instead = _ways_out.get(name, ("the engine has no layer for it", "what docs/python.md lists"))
    return Obstacle(why, instead)
