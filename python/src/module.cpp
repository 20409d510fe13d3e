#include <pybind11/pybind11.h>

#include "Bindings.h"

PYBIND11_MODULE(_core, module) {
    zevrant::python::bindWriter(module);
    zevrant::python::bindModel(module);
    zevrant::python::bindSeparation(module);
}
