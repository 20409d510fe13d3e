#pragma once

#include <string>
#include <vector>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

namespace zevrant::python {

namespace py = pybind11;

using FloatArray = py::array_t<float>;

// "float64 array of shape (2, 480)", or the type of what is no array.
std::string describe(py::handle object);

// What came as an array of float32 with this many axes; it may be strided. wanted stands in the message.
// Errors   py::type_error for no array or another type of elements, py::value_error for other axes.
FloatArray requireFloats(py::handle object, int numOfAxes, const char* wanted);

// An array that owns a copy of the values.
FloatArray makeArray(const float* values, const std::vector<py::ssize_t>& shape);

}  // namespace zevrant::python
