#include "numpy_conversions.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace kestrel::python {

pybind11::array_t<double> to_matrix(const Matrix& rows, std::size_t empty_columns) {
  const std::size_t columns = rows.empty() ? empty_columns : rows.front().size();
  pybind11::array_t<double> out({rows.size(), columns});
  auto view = out.mutable_unchecked<2>();
  for (std::size_t r = 0; r < rows.size(); ++r) {
    if (rows[r].size() != columns) {
      // Never expected from the library; a silent truncation would hide it.
      throw std::runtime_error("row " + std::to_string(r) + " has " +
                               std::to_string(rows[r].size()) + " values, expected " +
                               std::to_string(columns));
    }
    std::copy(rows[r].begin(), rows[r].end(), view.mutable_data(r, 0));
  }
  return out;
}

}  // namespace kestrel::python
