#pragma once

#include <pybind11/pybind11.h>

namespace zevrant::python {

// One for each part of the module; python/zevrant/_core.pyi tells what they define.
void bindWriter(pybind11::module_& module);
void bindModel(pybind11::module_& module);
void bindSeparation(pybind11::module_& module);

// The exception zevrant.ModelError: what a model's own numbers make impossible.
pybind11::handle getModelError();

}  // namespace zevrant::python
