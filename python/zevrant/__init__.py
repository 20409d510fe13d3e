"""Real-time neural audio: separate sound block by block, file by file, or tensor by tensor.

The names below load what they need when they are first used, so `zevrant.torch` serves on a machine where
the engine itself has not been built.

    Processor, separate, separate_file, shipped_models    sound
    Model                                                  tensors, layer by layer
    ModelWriter, with the records of zevrant.layers        model files
    zevrant.torch                                          from PyTorch into a model file
"""

from __future__ import annotations

from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from .model import Model as Model
    from .processor import Processor as Processor
    from .separation import separate as separate
    from .separation import separate_file as separate_file
    from .separation import shipped_models as shipped_models
    from .writer import ModelWriter as ModelWriter

__all__ = ["Model", "ModelWriter", "Processor", "separate", "separate_file", "shipped_models"]

_homes = {
    "Model": "model",
    "ModelWriter": "writer",
    "Processor": "processor",
    "separate": "separation",
    "separate_file": "separation",
    "shipped_models": "separation",
}


def __getattr__(name: str) -> object:
    if name not in _homes:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    from importlib import import_module

    return getattr(import_module(f".{_homes[name]}", __name__), name)


def __dir__() -> list[str]:
    return sorted(__all__)
