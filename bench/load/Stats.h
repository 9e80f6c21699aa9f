#pragma once
// Order statistics over a handful of runs or many latency samples.
#include <algorithm>
#include <cmath>
#include <vector>

namespace ZRT::Bench {

// Nearest-rank percentile (q in 0..1); NaN for no samples.
inline double Percentile(std::vector<double> v, double q) {
  v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return std::isnan(x); }), v.end());
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(v.size())));
  if (rank > 0) --rank;
  return v[std::min(rank, v.size() - 1)];
}

// Median; the mean of the middle two for an even count.
inline double Median(std::vector<double> v) {
  v.erase(std::remove_if(v.begin(), v.end(), [](double x) { return std::isnan(x); }), v.end());
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  const size_t mid = v.size() / 2;
  return v.size() % 2 ? v[mid] : (v[mid - 1] + v[mid]) / 2.0;
}

}  // namespace ZRT::Bench
