// The minima a search has found: the windowed, sorted list and the printout.
#include <algorithm>
#include <iostream>
#include <utility>

#include "lxopt/minfinder.h"

namespace LxOpt {
namespace LxMinfinder {
namespace {

using IndexedValue = std::pair<unsigned long, double>;

// Ascending by value; equal values keep their stored order.
void SortByValues(std::vector<IndexedValue>& pairs) {
  std::stable_sort(pairs.begin(), pairs.end(), [](const IndexedValue& a, const IndexedValue& b) {
    return a.second < b.second;
  });
}

bool NoResult(const char* notice, std::vector<double>& coords, std::vector<double>& values) {
  std::cerr << notice << "\n";
  coords.clear();
  values.clear();
  return false;
}

}  // namespace

bool LxMinfinderImpl::GetMinimums(std::vector<double>& coords, std::vector<double>& values) const {
  const unsigned long count = minima_.getNumPoints();
  if (count == 0) return NoResult("No minimums!", coords, values);
  std::vector<IndexedValue> sorted(count);
  for (unsigned long i = 0; i < count; ++i) {
    sorted[i].first = i;
    minima_.getY(sorted[i].second, i);
  }
  SortByValues(sorted);
  if (fvalMinimaWindow_ <= 0.0)
    return NoResult("No minimums within the given window!", coords, values);

  const double lowest = sorted.front().second;
  std::size_t k = 0;
  while (k < sorted.size() && sorted[k].second - lowest < fvalMinimaWindow_) ++k;

  const std::size_t n = minima_.getNumVar();
  coords.resize(n * k);
  values.resize(k);
  for (std::size_t j = 0; j < k; ++j) {
    const double* p = minima_.PointData(sorted[j].first);
    std::copy(p, p + n, coords.begin() + j * n);
    values[j] = sorted[j].second;
  }
  return true;
}

void LxMinfinderImpl::PrintMinimums() const {
  const unsigned long count = minima_.getNumPoints();
  if (count == 0) {
    std::cerr << "No minimums yet!\n";
    return;
  }
  const unsigned int n = minima_.getNumVar();
  for (unsigned long i = 0; i < count; ++i) {
    double value = 0.0;
    minima_.getY(value, i);
    std::cerr << i;
    for (unsigned int d = 0; d < n; ++d) std::cerr << "   " << minima_.PointData(i)[d];
    std::cerr << "   " << value << "\n";
  }
}

}  // namespace LxMinfinder
}  // namespace LxOpt
