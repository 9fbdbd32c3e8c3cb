// Library vectors and matrices handed to Python as numpy arrays (copies: the library's own
// buffers are never shared with Python). Inputs need nothing here: any sequence of numbers,
// numpy arrays included, converts to std::vector<double> through pybind11's own casters.
#pragma once

#include <pybind11/numpy.h>

#include <array>
#include <cstddef>
#include <vector>

namespace kestrel::python {

using Vector = std::vector<double>;
using Matrix = std::vector<std::vector<double>>;

template <typename T>
pybind11::array_t<T> to_array(const std::vector<T>& values) {
  return pybind11::array_t<T>(static_cast<pybind11::ssize_t>(values.size()), values.data());
}

template <std::size_t N>
pybind11::array_t<double> to_array(const std::array<double, N>& values) {
  return pybind11::array_t<double>(static_cast<pybind11::ssize_t>(N), values.data());
}

// Rows of equal length as a rows x columns array; no rows gives shape (0, empty_columns).
pybind11::array_t<double> to_matrix(const Matrix& rows, std::size_t empty_columns = 0);

}  // namespace kestrel::python
