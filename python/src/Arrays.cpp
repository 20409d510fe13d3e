#include "Arrays.h"

#include <algorithm>

namespace zevrant::python {

std::string describe(py::handle object) {
    if (!py::isinstance<py::array>(object))
        return "an object of type " + std::string(py::str(py::type::of(object).attr("__name__")));
    const auto array = py::reinterpret_borrow<py::array>(object);
    return "a " + std::string(py::str(array.dtype())) + " array of shape " +
           std::string(py::str(array.attr("shape")));
}

FloatArray requireFloats(py::handle object, int numOfAxes, const char* wanted) {
    const auto fail = [&] { return std::string("wanted ") + wanted + ", got " + describe(object); };
    if (!py::isinstance<py::array>(object)) throw py::type_error(fail());
    const auto array = py::reinterpret_borrow<py::array>(object);
    if (!array.dtype().equal(py::dtype::of<float>())) throw py::type_error(fail());
    if (array.ndim() != numOfAxes) throw py::value_error(fail());
    return FloatArray::ensure(array);
}

FloatArray makeArray(const float* values, const std::vector<py::ssize_t>& shape) {
    FloatArray array(shape);
    std::copy_n(values, array.size(), array.mutable_data());
    return array;
}

}  // namespace zevrant::python
